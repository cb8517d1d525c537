// Crossover on Netlib models from points a barrier would leave: the simplex optimum moved
// strictly inside its bounds by 1e-9 relative, with tiny residuals in the duals. The
// result must be the reference optimum at a vertex after few clean-up iterations.
// The whole set runs with --gtest_also_run_disabled_tests (DISABLED_EveryModel), through
// the guided re-presolve when VRX_CROSS_GUIDED is set to a VORN_PAR_GUIDEDPRE value.
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

#include "barrier/barsol.h"
#include "barrier/crossover.h"
#include "model/model.h"
#include "model/result.h"
#include "presolve/guided.h"
#include "simplex/lp.h"
#include "simplex/lpdriver.h"
#include "vornix_c.h"
#include "../support/shared_data.h"

namespace {

std::map<std::string, double> references() {
  return vrxtest::referenceObjectives("netlib");
}

std::vector<double> attrArray(VRXmodel* m, const char* name, int len) {
  std::vector<double> v(static_cast<size_t>(len) + 1, 0.0);
  EXPECT_EQ(0, VRXgetdblattrarray(m, name, 0, len, v.data())) << name;
  v.resize(static_cast<size_t>(len));
  return v;
}

// The simplex optimum of m as a barrier-like point: every value moved 1e-9 relative off a
// bound it sits on, reduced costs of basic columns and the duals disturbed by as little.
VRXbarsol* nearOptimalInterior(VRXmodel* m) {
  int n = 0, rows = 0, sense = 1;
  VRXgetintattr(m, "NumVars", &n);
  VRXgetintattr(m, "NumConstrs", &rows);
  VRXgetintattr(m, "ModelSense", &sense);
  std::vector<double> x = attrArray(m, "X", n), rc = attrArray(m, "RC", n), lb = attrArray(m, "LB", n),
                      ub = attrArray(m, "UB", n);
  std::vector<double> pi(static_cast<size_t>(rows) + 1, 0.0);
  EXPECT_EQ(0, VRXgetdblattrarray(m, "Pi", 0, rows, pi.data()));
  std::vector<int> vb(static_cast<size_t>(n) + 1, 0);
  EXPECT_EQ(0, VRXgetintattrarray(m, "VBasis", 0, n, vb.data()));
  double obj = 0;
  VRXgetdblattr(m, "ObjVal", &obj);
  VRXbarsol* s = vrx::barsolCreate(m->env, n, rows);
  for (int j = 0; j < n; j++) {
    double v = x[j];
    const double step = 1e-9 * (1.0 + std::fabs(v));
    if (ub[j] - lb[j] > 4 * step) {
      if (v - lb[j] < step) v = lb[j] + step;
      if (ub[j] - v < step) v = ub[j] - step;
    }
    s->x[j] = v;
    const double r = vb[j] == VRX_BASIC ? 1e-10 * ((j % 3) - 1) : rc[j] * (1 + 1e-9);
    s->rc[j] = sense * r;
  }
  for (int i = 0; i < rows; i++) s->pi[i] = sense * pi[i] * (1 + 1e-9 * ((i % 2) ? 1 : -1));
  s->status = VRX_OPTIMAL;
  s->pObj = sense * obj;
  s->dObj = sense * obj * (1 - 1e-9);
  return s;
}

struct Counts {
  double pushes = 0, cleanIters = 0, seconds = 0;
  int guidedStatus = 1;  // what the guided presolve makes of the point, when asked for
};

// Solves name by simplex, crosses over from the disturbed point and checks the outcome.
// guidedPre is VORN_PAR_GUIDEDPRE for the crossover.
Counts crossNetlib(VRXenv* env, const std::string& name, double ref, int setting = -1, int guidedPre = 0) {
  Counts c;
  std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
  VRXmodel* m = nullptr;
  EXPECT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << VRXgeterrormsg(env);
  if (!m) return c;
  // A directory of optimal bases saves the simplex solve when sweeping again.
  const char* basDir = std::getenv("VRX_CROSS_BASDIR");
  const std::string bas = basDir ? std::string(basDir) + "/" + name + ".bas" : "";
  if (basDir && std::ifstream(bas).good()) VRXread(m, bas.c_str());
  EXPECT_EQ(0, VRXoptimize(m));
  if (basDir) VRXwrite(m, bas.c_str());
  VRXbarsol* s = nearOptimalInterior(m);
  VRXsetintparam(VRXgetenv(m), "Crossover", setting);
  VRXsetintparam(VRXgetenv(m), "VORN_PAR_GUIDEDPRE", guidedPre);
  if (guidedPre) {
    // Whether the point gives the re-presolve something to work on.
    vrx::GuidedOut g{};
    double work = 0;
    EXPECT_EQ(0, vrx::presolveGuided(m, s->x, s->pi, s->rc, nullptr, &work, &g));
    c.guidedStatus = g.status;
    vrx::guidedFree(m->env, &g);
  }
  vrx::Clock clock = vrx::clockStart();
  EXPECT_EQ(0, VRXcrossover(m, s, 0, clock));
  c.seconds = vrx::clockElapsed(clock);
  auto* lp = static_cast<VRXlp*>(m->lp);
  EXPECT_NE(nullptr, lp);
  if (lp) {
    EXPECT_EQ(VRX_OPTIMAL, lp->status);
    c.pushes = lp->priorIter;
    c.cleanIters = lp->iterCount;
    int basics = 0, between = 0;
    for (int j = 0; j < lp->n + lp->m; j++) {
      basics += lp->varStat[j] >= 0;
      // Off its bounds but with one: no vertex.
      between += lp->varStat[j] == VRX_VS_FREE && (lp->lower[j] > -lp->infBound || lp->upper[j] < lp->infBound);
    }
    EXPECT_EQ(lp->m, basics);
    EXPECT_EQ(0, between);
    if (lp->status == VRX_OPTIMAL) {
      EXPECT_EQ(0, vrx::lpPublish(m, lp));
      EXPECT_NEAR(ref, m->result->objVal, 1e-6 * std::max(1.0, std::fabs(ref)));
      double vio = 1;
      EXPECT_EQ(0, VRXgetdblattr(m, "ConstrVio", &vio));
      EXPECT_LT(vio, 1e-5);
      EXPECT_EQ(0, VRXgetdblattr(m, "BoundVio", &vio));
      EXPECT_LT(vio, 1e-5);
    }
  }
  vrx::barsolFree(m->env, s);
  VRXfreemodel(m);
  return c;
}

VRXenv* quietEnv() {
  VRXenv* env = nullptr;
  EXPECT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", std::getenv("VRX_CROSS_LOG") ? 1 : 0);
  VRXsetintparam(env, "Threads", 1);
  return env;
}

}  // namespace

TEST(CrossoverNetlib, NearOptimalInteriorPointsGiveTheReferenceOptimum) {
  std::map<std::string, double> refs = references();
  VRXenv* env = quietEnv();
  // Small and medium models: degenerate ones, free columns, many equality rows, and
  // two above 500 rows that take the LU path of the basis step.
  const char* names[] = {"afiro", "sc50a",  "adlittle", "blend", "share2b", "kb2",   "scagr7",
                         "recipe", "boeing1", "bore3d", "brandy", "e226",   "grow7", "israel",
                         "lotfi",  "vtpbase", "stocfor1", "scsd1", "sctap1", "ship04s"};
  for (const char* name : names) {
    SCOPED_TRACE(name);
    ASSERT_EQ(1u, refs.count(name));
    Counts c = crossNetlib(env, name, refs[name]);
    std::printf("[ crossover ] %-10s pushes %6.0f  clean-up iterations %5.0f  %.3fs\n", name, c.pushes,
                c.cleanIters, c.seconds);
    // A point this close to a vertex leaves the clean-up little to do.
    EXPECT_LE(c.cleanIters, 50) << name;
  }
  VRXfreeenv(env);
}

TEST(CrossoverNetlib, EveryPushOrderReachesTheOptimum) {
  std::map<std::string, double> refs = references();
  VRXenv* env = quietEnv();
  for (int setting : {1, 2, 3, 4, 5}) {
    SCOPED_TRACE(setting);
    crossNetlib(env, "scagr7", refs["scagr7"], setting);
    crossNetlib(env, "bore3d", refs["bore3d"], setting);
  }
  VRXfreeenv(env);
}

TEST(CrossoverNetlib, GuidedPresolveGivesTheReferenceOptimum) {
  std::map<std::string, double> refs = references();
  VRXenv* env = quietEnv();
  const char* names[] = {"afiro", "sc50a",   "adlittle", "blend", "share2b", "kb2",
                         "scagr7", "recipe", "boeing1",  "bore3d", "israel", "stocfor1"};
  int k = 0;
  for (const char* name : names) {
    // Every model with the columns fixed; the first four also with the slack rows dropped.
    for (int level : {1, 2}) {
      if (level == 2 && k >= 4) break;
      SCOPED_TRACE(std::string(name) + " level " + std::to_string(level));
      Counts c = crossNetlib(env, name, refs.at(name), -1, level);
      std::printf("[ crossover ] %-10s guided %d: pushes %6.0f  clean-up iterations %5.0f  %.3fs\n", name, level,
                  c.pushes, c.cleanIters, c.seconds);
      // The crossover went through the reduced model.
      EXPECT_EQ(0, c.guidedStatus);
      EXPECT_LE(c.cleanIters, 50);
    }
    k++;
  }
  VRXfreeenv(env);
}

TEST(CrossoverNetlib, DISABLED_EveryModel) {
  std::map<std::string, double> refs = references();
  VRXenv* env = quietEnv();
  double pushes = 0, iters = 0;
  const char* only = std::getenv("VRX_CROSS_ONLY");  // comma-separated names, for digging into one model
  const int guided = std::getenv("VRX_CROSS_GUIDED") ? std::atoi(std::getenv("VRX_CROSS_GUIDED")) : 0;
  for (auto& r : refs) {
    if (only && std::string(",").append(only).append(",").find("," + r.first + ",") == std::string::npos) continue;
    SCOPED_TRACE(r.first);
    Counts c = crossNetlib(env, r.first, r.second, -1, guided);
    std::printf("[ crossover ] %-10s pushes %7.0f  clean-up iterations %6.0f  %.3fs\n", r.first.c_str(), c.pushes,
                c.cleanIters, c.seconds);
    pushes += c.pushes;
    iters += c.cleanIters;
  }
  std::printf("[ crossover ] all: pushes %.0f, clean-up iterations %.0f\n", pushes, iters);
  VRXfreeenv(env);
}
