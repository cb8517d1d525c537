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
#include "../support/capture.h"
#include "../support/shared_data.h"

namespace {

std::map<std::string, double> netlibReference() {
  return vrxtest::referenceObjectives("netlib");
}

// Method 2 without crossover on one Netlib model, quiet.
struct BarRun {
  int status = 0;
  int iters = 0;
  double obj = 0;
  std::vector<double> x;
};

BarRun solveNetlib(VRXenv* env, const std::string& name, int presolve, int threads, bool log = false) {
  BarRun out;
  VRXmodel* m = nullptr;
  const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
  EXPECT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << name;
  if (!m) return out;
  VRXenv* me = VRXgetenv(m);
  VRXsetintparam(me, "OutputFlag", log ? 1 : 0);
  VRXsetintparam(me, "LogToConsole", 0);
  if (log) captureLogOf(me);
  VRXsetintparam(me, "Method", 2);
  VRXsetintparam(me, "Crossover", 0);
  VRXsetintparam(me, "Presolve", presolve);
  VRXsetintparam(me, "Threads", threads);
  EXPECT_EQ(0, VRXoptimize(m)) << name;
  int n = 0;
  VRXgetintattr(m, "Status", &out.status);
  VRXgetintattr(m, "BarIterCount", &out.iters);
  VRXgetdblattr(m, "ObjVal", &out.obj);
  VRXgetintattr(m, "NumVars", &n);
  out.x.assign(n, 0.0);
  EXPECT_EQ(0, VRXgetdblattrarray(m, "X", 0, n, out.x.data())) << name;
  VRXfreemodel(m);
  return out;
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
      const BarRun r = solveNetlib(env, name, presolve, 1);
      EXPECT_EQ(VRX_OPTIMAL, r.status) << name << " presolve " << presolve;
      EXPECT_NEAR(expected, r.obj, 1e-6 * std::max(1.0, std::fabs(expected))) << name << " presolve " << presolve;
      EXPECT_GT(r.iters, 0) << name;
      EXPECT_LT(r.iters, 100) << name;
    }
  }
  VRXfreeenv(env);
}

// Without presolve greenbea routes a large flow (about 3e8) around a cycle that
// loses 2e-5 of it per turn, and D spans some 40 orders of magnitude near the end;
// with presolve a factor near breakdown overflows in the solve once. Both runs must
// end optimal, and a step that overflowed must never reach the iterate (or the log).
TEST(BarrierNetlib, LargeCycleFlowWithAndWithoutPresolve) {
  auto ref = netlibReference();
  ASSERT_EQ(1u, ref.count("greenbea"));
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  for (int presolve : {0, 1}) {
    capturedLog().clear();
    const BarRun r = solveNetlib(env, "greenbea", presolve, 1, true);
    EXPECT_EQ(VRX_OPTIMAL, r.status) << presolve;
    EXPECT_NEAR(ref["greenbea"], r.obj, 1e-6 * std::fabs(ref["greenbea"])) << presolve;
    EXPECT_EQ(std::string::npos, capturedLog().find("nan")) << presolve;
    EXPECT_EQ(std::string::npos, capturedLog().find("inf ")) << presolve;
    EXPECT_NE(std::string::npos, capturedLog().find("Barrier solved model")) << presolve;
  }
  VRXfreeenv(env);
}

}  // namespace

namespace {

// A factor big enough for subtree tasks and wide panels: the panels follow the
// thread count, so each count repeats its own iterates exactly, and both end
// at the reference optimum.
TEST(BarrierNetlib, EachThreadCountRepeatsItsPoint) {
  auto ref = netlibReference();
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  for (int threads : {1, 2}) {
    const BarRun a = solveNetlib(env, "d2q06c", -1, threads);
    const BarRun b = solveNetlib(env, "d2q06c", -1, threads);
    EXPECT_EQ(VRX_OPTIMAL, a.status) << threads;
    EXPECT_NEAR(ref["d2q06c"], a.obj, 1e-6 * std::fabs(ref["d2q06c"])) << threads;
    EXPECT_EQ(a.iters, b.iters) << threads;
    EXPECT_FALSE(a.x.empty());
    EXPECT_TRUE(a.x == b.x) << threads;
  }
  VRXfreeenv(env);
}

}  // namespace
