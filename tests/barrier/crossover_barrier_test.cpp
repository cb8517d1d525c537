// Crossover from real barrier output on Netlib models, presolve off and on: Method 2
// through VRXoptimize must end at the reference optimum with a basis, and crossover run
// directly on the barrier's point counts its push moves and clean-up iterations.
// The whole set runs with --gtest_also_run_disabled_tests (DISABLED_EveryModel);
// VRX_CROSS_ONLY=name,name limits it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "barrier/bar.h"
#include "barrier/barsol.h"
#include "barrier/crossover.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "simplex/lp.h"
#include "vornix_c.h"
#include "../support/shared_data.h"

namespace {

std::map<std::string, double> references() {
  return vrxtest::referenceObjectives("netlib");
}

VRXmodel* readNetlib(VRXenv* env, const std::string& name, int presolve) {
  const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
  VRXmodel* m = nullptr;
  EXPECT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << VRXgeterrormsg(env);
  if (!m) return nullptr;
  VRXenv* me = VRXgetenv(m);
  VRXsetintparam(me, "Method", 2);
  VRXsetintparam(me, "Presolve", presolve);
  return m;
}

struct Outcome {
  int status = 0;
  double obj = 0, iters = 0;  // IterCount of the whole solve: pushes, clean-up, uncrush
  int barIters = 0, basics = 0, rows = 0;
  double pushes = -1, cleanUp = -1;  // of crossover run on its own, -1 when it did not
};

// Method 2 as a caller runs it: status, objective and a basis of the right size.
void endToEnd(VRXenv* env, const std::string& name, int presolve, Outcome& r) {
  VRXmodel* m = readNetlib(env, name, presolve);
  if (!m) return;
  EXPECT_EQ(0, VRXoptimize(m)) << VRXgeterrormsg(VRXgetenv(m));
  VRXgetintattr(m, "Status", &r.status);
  VRXgetdblattr(m, "ObjVal", &r.obj);
  VRXgetdblattr(m, "IterCount", &r.iters);
  VRXgetintattr(m, "BarIterCount", &r.barIters);
  int n = 0;
  VRXgetintattr(m, "NumVars", &n);
  VRXgetintattr(m, "NumConstrs", &r.rows);
  std::vector<int> vb(static_cast<size_t>(n) + 1), cb(static_cast<size_t>(r.rows) + 1);
  if (r.status == VRX_OPTIMAL && VRXgetintattrarray(m, "VBasis", 0, n, vb.data()) == 0 &&
      VRXgetintattrarray(m, "CBasis", 0, r.rows, cb.data()) == 0) {
    for (int j = 0; j < n; j++) r.basics += vb[j] == VRX_BASIC;
    for (int i = 0; i < r.rows; i++) r.basics += cb[i] == VRX_BASIC;
  }
  VRXfreemodel(m);
}

// The barrier and crossover on the model the driver would hand them (the presolved one
// with presolve on), for the counts the published attributes merge.
void crossoverCounts(VRXenv* env, const std::string& name, int presolve, Outcome& r) {
  VRXmodel* m = readNetlib(env, name, presolve);
  if (!m) return;
  VRXmodel* work = presolve ? VRXpresolvemodel(m) : m;
  if (work && work->data->numVars > 0 && work->data->numConstrs > 0) {
    vrx::Clock clock = vrx::clockStart();
    VRXbarsol* sol = nullptr;
    EXPECT_EQ(0, vrx::VRXbarrier(work, clock, vrx::BarRunOpts{}, &sol));
    if (sol) {
      EXPECT_EQ(0, VRXcrossover(work, sol, 0, clock));
      auto* lp = static_cast<VRXlp*>(work->lp);
      if (lp && lp->status == VRX_OPTIMAL) {
        r.pushes = lp->priorIter;
        r.cleanUp = lp->iterCount;
        int between = 0;
        for (int j = 0; j < lp->n + lp->m; j++)
          between += lp->varStat[j] == VRX_VS_FREE && (lp->lower[j] > -lp->infBound || lp->upper[j] < lp->infBound);
        EXPECT_EQ(0, between) << name << ": values between their bounds";
      }
      vrx::barsolFree(work->env, sol);
    }
  }
  if (work != m) VRXfreemodel(work);
  VRXfreemodel(m);
}

VRXenv* quietEnv() {
  VRXenv* env = nullptr;
  EXPECT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", std::getenv("VRX_CROSS_LOG") ? 1 : 0);
  VRXsetintparam(env, "Threads", 1);
  return env;
}

void expectOptimal(const Outcome& r, double ref, const std::string& what) {
  EXPECT_EQ(VRX_OPTIMAL, r.status) << what;
  EXPECT_NEAR(ref, r.obj, 1e-6 * std::max(1.0, std::fabs(ref))) << what;
  EXPECT_EQ(r.rows, r.basics) << what << ": basis size";
}

}  // namespace

TEST(CrossoverBarrier, SmallNetlibModelsFromTheBarrierEndAtTheOptimum) {
  std::map<std::string, double> refs = references();
  VRXenv* env = quietEnv();
  // Degenerate optima, free columns, ranges and bounds, equality-heavy rows.
  for (const char* name : {"afiro", "sc50a", "adlittle", "blend", "kb2", "scagr7", "share2b", "boeing2", "bore3d"}) {
    ASSERT_EQ(1u, refs.count(name));
    for (int presolve : {0, 1}) {
      const std::string what = std::string(name) + " presolve " + std::to_string(presolve);
      Outcome r;
      endToEnd(env, name, presolve, r);
      expectOptimal(r, refs[name], what);
      crossoverCounts(env, name, presolve, r);
      EXPECT_GE(r.cleanUp, 0) << what;
      EXPECT_LE(r.cleanUp, 25) << what;
    }
  }
  VRXfreeenv(env);
}

TEST(CrossoverBarrier, DISABLED_EveryModel) {
  std::map<std::string, double> refs = references();
  VRXenv* env = quietEnv();
  const char* only = std::getenv("VRX_CROSS_ONLY");
  for (int presolve : {0, 1}) {
    double total = 0, worst = 0;
    std::string worstName;
    int failed = 0;
    for (auto& ref : refs) {
      if (only && (std::string(",") + only + ",").find("," + ref.first + ",") == std::string::npos) continue;
      const std::string what = ref.first + " presolve " + std::to_string(presolve);
      Outcome r;
      endToEnd(env, ref.first, presolve, r);
      expectOptimal(r, ref.second, what);
      crossoverCounts(env, ref.first, presolve, r);
      if (r.status != VRX_OPTIMAL || r.cleanUp < 0) failed++;
      std::printf("[ crossover ] %-10s presolve %d  status %2d  barrier %3d  iterations %6.0f  pushes %6.0f  "
                  "clean-up %6.0f\n",
                  ref.first.c_str(), presolve, r.status, r.barIters, r.iters, r.pushes, r.cleanUp);
      std::fflush(stdout);
      if (r.cleanUp > 0) total += r.cleanUp;
      if (r.cleanUp > worst) {
        worst = r.cleanUp;
        worstName = ref.first;
      }
    }
    std::printf("[ crossover ] presolve %d: clean-up iterations %.0f, worst %.0f (%s), failed %d\n", presolve, total,
                worst, worstName.c_str(), failed);
  }
  VRXfreeenv(env);
}
