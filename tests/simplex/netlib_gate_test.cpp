// The correctness gate: every shared Netlib model solves to its reference optimum
// through the public calls, with default parameters.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "vornix_c.h"
#include "../support/shared_data.h"

namespace {

struct Reference {
  std::string name;
  double objective;
};

std::vector<Reference> netlibReferences() {
  std::vector<Reference> refs;
  for (const auto& [name, obj] : vrxtest::referenceObjectives("netlib")) refs.push_back({name, obj});
  return refs;
}

}  // namespace

TEST(NetlibGate, EveryModelReachesItsReferenceObjective) {
  std::vector<Reference> refs = netlibReferences();
  ASSERT_EQ(66u, refs.size());
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXsetintparam(env, "Threads", 1);
  for (const Reference& r : refs) {
    SCOPED_TRACE(r.name);
    std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + r.name + ".mps.gz";
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << VRXgeterrormsg(env);
    ASSERT_EQ(0, VRXoptimize(m)) << VRXgetmerrormsg(m);
    int status = 0;
    ASSERT_EQ(0, VRXgetintattr(m, "Status", &status));
    EXPECT_EQ(VRX_OPTIMAL, status);
    double obj = 0;
    ASSERT_EQ(0, VRXgetdblattr(m, "ObjVal", &obj));
    EXPECT_NEAR(r.objective, obj, 1e-6 * std::max(1.0, std::fabs(r.objective)));
    // The condition estimate of the final basis: at least 1 (the norms of B and B^-1).
    double kappa = 0;
    EXPECT_EQ(0, VRXgetdblattr(m, "Kappa", &kappa));
    EXPECT_GE(kappa, 1.0 - 1e-12);
    // The published solution is primal feasible in true units.
    double vio = 1;
    ASSERT_EQ(0, VRXgetdblattr(m, "ConstrVio", &vio));
    EXPECT_LT(vio, 1e-5);
    ASSERT_EQ(0, VRXgetdblattr(m, "BoundVio", &vio));
    EXPECT_LT(vio, 1e-5);
    VRXfreemodel(m);
  }
  VRXfreeenv(env);
}

TEST(NetlibGate, ResolveFromTheFinalBasisTakesNoIterations) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXmodel* m = nullptr;
  std::string path = std::string(VRX_SHARED_DATA) + "/netlib/afiro.mps.gz";
  ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m));
  ASSERT_EQ(0, VRXoptimize(m));
  double first = 0, iters = -1;
  VRXgetdblattr(m, "ObjVal", &first);
  ASSERT_EQ(0, VRXoptimize(m));
  VRXgetdblattr(m, "IterCount", &iters);
  EXPECT_EQ(0, iters);
  double second = 0;
  VRXgetdblattr(m, "ObjVal", &second);
  EXPECT_DOUBLE_EQ(first, second);
  // A change of the objective keeps the basis as the start of the next solve.
  double c = 0;
  VRXgetdblattrelement(m, "Obj", 0, &c);
  ASSERT_EQ(0, VRXsetdblattrelement(m, "Obj", 0, c));
  ASSERT_EQ(0, VRXupdatemodel(m));
  int status = 0;
  VRXgetintattr(m, "Status", &status);
  EXPECT_EQ(VRX_LOADED, status);
  ASSERT_EQ(0, VRXoptimize(m));
  VRXgetdblattr(m, "IterCount", &iters);
  EXPECT_EQ(0, iters);
  VRXfreemodel(m);
  VRXfreeenv(env);
}
