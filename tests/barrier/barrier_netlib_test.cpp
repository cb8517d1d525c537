// Method 2 without crossover on a fast part of the Netlib set, with presolve
// off and on, against the reference objectives. The whole set runs in
// bench/barrier_bench.py.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "vornix_c.h"
#include "../support/shared_data.h"

namespace {

std::map<std::string, double> netlibReference() {
  return vrxtest::referenceObjectives("netlib");
}

// Chosen to cover free columns and ranges (boeing1), dependent rows (seba,
// without presolve), many bounds (bore3d, stair), a dense-ish product (israel,
// fit1d), degenerate duals (degen2) and a primal residual that the normal
// equations alone leave stuck (grow15), within a few seconds in all.
TEST(BarrierNetlib, ObjectivesWithAndWithoutPresolve) {
  auto ref = netlibReference();
  ASSERT_EQ(66u, ref.size());
  const std::vector<std::string> names = {"afiro",  "sc105",  "adlittle", "blend", "share2b", "boeing1",
                                          "israel", "bore3d", "degen2",   "fit1d", "stair",   "scfxm1",
                                          "seba",   "etamacro", "grow15"};
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  for (const std::string& name : names) {
    ASSERT_EQ(1u, ref.count(name)) << name;
    const double expected = ref[name];
    for (int presolve : {0, 1}) {
      VRXmodel* m = nullptr;
      const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
      ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << name;
      VRXenv* me = VRXgetenv(m);
      VRXsetintparam(me, "OutputFlag", 0);
      VRXsetintparam(me, "Method", 2);
      VRXsetintparam(me, "Crossover", 0);
      VRXsetintparam(me, "Presolve", presolve);
      EXPECT_EQ(0, VRXoptimize(m)) << name;
      int status = 0, iters = 0;
      double obj = 0;
      VRXgetintattr(m, "Status", &status);
      VRXgetintattr(m, "BarIterCount", &iters);
      VRXgetdblattr(m, "ObjVal", &obj);
      EXPECT_EQ(VRX_OPTIMAL, status) << name << " presolve " << presolve;
      EXPECT_NEAR(expected, obj, 1e-6 * std::max(1.0, std::fabs(expected))) << name << " presolve " << presolve;
      EXPECT_GT(iters, 0) << name;
      EXPECT_LT(iters, 100) << name;
      VRXfreemodel(m);
    }
  }
  VRXfreeenv(env);
}

}  // namespace

namespace {

// A factor big enough to be split into subtree tasks: one and two threads
// walk the same iterates to the same point.
TEST(BarrierNetlib, OneAndTwoThreadsGiveTheSamePoint) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/d2q06c.mps.gz";
  std::vector<double> x[2];
  int iters[2] = {0, 0};
  for (int threads : {1, 2}) {
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m));
    VRXenv* me = VRXgetenv(m);
    VRXsetintparam(me, "OutputFlag", 0);
    VRXsetintparam(me, "Method", 2);
    VRXsetintparam(me, "Crossover", 0);
    VRXsetintparam(me, "Threads", threads);
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0, n = 0;
    VRXgetintattr(m, "Status", &status);
    VRXgetintattr(m, "BarIterCount", &iters[threads - 1]);
    VRXgetintattr(m, "NumVars", &n);
    EXPECT_EQ(VRX_OPTIMAL, status);
    x[threads - 1].assign(n, 0.0);
    EXPECT_EQ(0, VRXgetdblattrarray(m, "X", 0, n, x[threads - 1].data()));
    VRXfreemodel(m);
  }
  EXPECT_EQ(iters[0], iters[1]);
  EXPECT_TRUE(x[0] == x[1]);
  VRXfreeenv(env);
}

}  // namespace
