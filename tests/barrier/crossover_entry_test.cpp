// Crossover on small LPs whose interior points are written by hand: optimal faces whose
// mid-points are no vertex, free and fixed columns, a point already at a vertex, the
// entry tests, the restart, the extended arithmetic, and memory failures.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "../support/modeldef.h"
#include "barrier/barsol.h"
#include "barrier/crossover.h"
#include "model/model.h"
#include "model/result.h"
#include "presolve/guided.h"
#include "simplex/lp.h"
#include "simplex/lpdriver.h"
#include "vornix_c.h"
#include "../support/quiet_env.h"

namespace {

struct Outcome {
  int rc = -1;
  int status = 0;       // lp->status, 0 without a record
  double obj = 0;       // published objective at status 2
  double cleanIters = 0;
  double pushMoves = 0;
  std::vector<double> x;
};

VRXlp* lpOf(VRXmodel* m) { return static_cast<VRXlp*>(m->lp); }

// A vertex: m basics at distinct positions, every nonbasic with a bound at that bound.
void expectVertex(VRXlp* lp) {
  const int n = lp->n, m = lp->m;
  std::vector<int> seen(m, 0);
  int basics = 0;
  for (int j = 0; j < n + m; j++) {
    const int s = lp->varStat[j];
    if (s >= 0) {
      ASSERT_LT(s, m);
      EXPECT_EQ(0, seen[s]++) << "position " << s << " taken twice";
      basics++;
    } else if (s == VRX_VS_FREE) {
      EXPECT_TRUE(lp->lower[j] <= -lp->infBound && lp->upper[j] >= lp->infBound) << "column " << j << " off its bounds";
    }
  }
  EXPECT_EQ(m, basics);
}

Outcome cross(VRXmodel* m, const VRXbarsol* sol, int mode = 0) {
  Outcome o;
  vrx::Clock clock = vrx::clockStart();
  o.rc = VRXcrossover(m, sol, mode, clock);
  VRXlp* lp = lpOf(m);
  if (!lp) return o;
  o.status = lp->status;
  o.cleanIters = lp->iterCount;
  o.pushMoves = lp->priorIter;
  if (o.rc == 0 && lp->status == VRX_OPTIMAL) {
    expectVertex(lp);
    EXPECT_EQ(0, vrx::lpPublish(m, lp));
    o.obj = m->result->objVal;
    o.x.assign(m->result->x, m->result->x + lp->n);
  }
  return o;
}

using Env = vrxtest::QuietEnv;

// A fresh log and a crossover that ends at the optimum obj, with the restart's lines once
// or not at all.
Outcome crossTo(VRXmodel* m, const VRXbarsol* sol, double obj, bool restart) {
  capturedLog().clear();
  Outcome o = cross(m, sol);
  EXPECT_EQ(0, o.rc);
  EXPECT_EQ(VRX_OPTIMAL, o.status);
  EXPECT_NEAR(obj, o.obj, 1e-9);
  const std::string& log = capturedLog();
  const size_t at = log.find("\nRestart crossover...\n\n");
  EXPECT_EQ(restart, at != std::string::npos) << log;
  EXPECT_EQ(std::string::npos, log.find("Restart crossover", restart ? at + 5 : 0));
  return o;
}

// The interior point: values, duals and reduced costs in the minimising sense.
VRXbarsol* point(VRXmodel* m, const std::vector<double>& x, const std::vector<double>& pi, double obj) {
  const int n = static_cast<int>(x.size()), rows = static_cast<int>(pi.size());
  VRXbarsol* s = vrx::barsolCreate(m->env, n, rows);
  for (int j = 0; j < n; j++) s->x[j] = x[j];
  for (int i = 0; i < rows; i++) s->pi[i] = pi[i];
  s->status = 2;
  s->pObj = obj;
  s->dObj = obj;
  return s;
}

// max x + y + z, x + y <= 1, y + z <= 2, all in [0, 1]: optimum 2 on the edge x + y = 1,
// z = 1.
ModelDef faceModel() {
  ModelDef d;
  d.objSense = -1;
  d.obj = {1, 1, 1};
  d.lb = {0, 0, 0};
  d.ub = {1, 1, 1};
  d.rhs = {1, 2};
  d.sense = "<<";
  d.cols = {{{0, 1}}, {{0, 1}, {1, 1}}, {{1, 1}}};
  return d;
}

}  // namespace

TEST(Crossover, MidpointsOfOptimalFacesEndAtOptimalVertices) {
  Env e;
  {
    // (0.5, 0.5, 1) is the mean of the optimal vertices (1, 0, 1) and (0, 1, 1).
    VRXmodel* m = loadModelDef(e.env, faceModel());
    // Minimising form: c = -1; the first row's dual -1 leaves x and y no reduced cost.
    VRXbarsol* s = point(m, {0.5, 0.5, 1.0}, {-1.0, 0.0}, -2.0);
    Outcome o = cross(m, s);
    EXPECT_EQ(0, o.rc);
    EXPECT_EQ(VRX_OPTIMAL, o.status);
    EXPECT_NEAR(2.0, o.obj, 1e-9);
    EXPECT_EQ(0, o.cleanIters);
    for (double v : o.x) EXPECT_TRUE(std::fabs(v) < 1e-9 || std::fabs(v - 1) < 1e-9) << v;
    vrx::barsolFree(m->env, s);
    VRXfreemodel(m);
  }
  {
    // A transport problem with equal costs: every feasible plan is optimal, the mid-point
    // of the two vertices has every value 1/2, and the rows are dependent.
    ModelDef d;
    d.obj = {1, 1, 1, 1};
    d.lb = {0, 0, 0, 0};
    d.rhs = {1, 1, 1, 1};
    d.sense = "====";
    d.cols = {{{0, 1}, {2, 1}}, {{0, 1}, {3, 1}}, {{1, 1}, {2, 1}}, {{1, 1}, {3, 1}}};
    VRXmodel* m = loadModelDef(e.env, d);
    VRXbarsol* s = point(m, {0.5, 0.5, 0.5, 0.5}, {0.5, 0.5, 0.5, 0.5}, 2.0);
    Outcome o = cross(m, s);
    EXPECT_EQ(0, o.rc);
    EXPECT_EQ(VRX_OPTIMAL, o.status);
    EXPECT_NEAR(2.0, o.obj, 1e-9);
    double vio = 1;
    ASSERT_EQ(0, VRXgetdblattr(m, "ConstrVio", &vio));
    EXPECT_LT(vio, 1e-9);
    vrx::barsolFree(m->env, s);
    VRXfreemodel(m);
  }
}

TEST(Crossover, FreeColumnsAndAPointAtAVertex) {
  Env e;
  {
    // min x, z + x >= 1, z <= 3 as a row, z free: x = 0 for any z in [1, 3]. From z = 2 the
    // slack of the first row is pushed to its bound.
    ModelDef d;
    d.obj = {1, 0};
    d.lb = {0, -1e100};
    d.ub = {10, 1e100};
    d.rhs = {1, 3};
    d.sense = "><";
    d.cols = {{{0, 1}}, {{0, 1}, {1, 1}}};
    VRXmodel* m = loadModelDef(e.env, d);
    captureLogOf(VRXgetenv(m));
    VRXbarsol* s = point(m, {1e-9, 2.0}, {0.0, 0.0}, 1e-9);
    Outcome o = cross(m, s);
    EXPECT_EQ(0, o.rc);
    EXPECT_EQ(VRX_OPTIMAL, o.status);
    EXPECT_NEAR(0.0, o.obj, 1e-9);
    ASSERT_EQ(2u, o.x.size());
    EXPECT_TRUE(std::fabs(o.x[1] - 1) < 1e-9 || std::fabs(o.x[1] - 3) < 1e-9) << o.x[1];
    EXPECT_EQ(0, o.cleanIters);
    EXPECT_NE(std::string::npos, capturedLog().find("PPushes remaining with PInf"));
    EXPECT_NE(std::string::npos, capturedLog().find("Push phase complete: Pinf "));
    vrx::barsolFree(m->env, s);
    VRXfreemodel(m);
  }
  for (int setting : {-1, 3}) {
    // Two free columns on one row: one becomes basic, the other cannot reach a bound.
    // Dual pushes first find nothing and only a free column is left off the basis: the
    // primal pushes are skipped and the clean-up takes it. Primal pushes first try it.
    SCOPED_TRACE(setting);
    ModelDef d;
    d.obj = {0, 0};
    d.lb = {-1e100, -1e100};
    d.ub = {1e100, 1e100};
    d.rhs = {1};
    d.sense = "=";
    d.cols = {{{0, 1}}, {{0, 1}}};
    VRXmodel* m = loadModelDef(e.env, d);
    captureLogOf(VRXgetenv(m));
    VRXsetintparam(VRXgetenv(m), "Crossover", setting);
    VRXbarsol* s = point(m, {0.3, 0.7}, {0.0}, 0.0);
    Outcome o = cross(m, s);
    EXPECT_EQ(0, o.rc);
    EXPECT_EQ(VRX_OPTIMAL, o.status);
    const bool pushed = capturedLog().find("      1      handle free variables") != std::string::npos;
    EXPECT_EQ(setting == 3, pushed);
    EXPECT_EQ(setting == 3, capturedLog().find("PPushes remaining") != std::string::npos);
    double vio = 1;
    ASSERT_EQ(0, VRXgetdblattr(m, "ConstrVio", &vio));
    EXPECT_LT(vio, 1e-9);
    vrx::barsolFree(m->env, s);
    VRXfreemodel(m);
  }
  {
    // Every column at a bound and every row tight without a dual: no candidate, the
    // slack basis, nothing to push.
    ModelDef d;
    d.obj = {1, 1};
    d.lb = {0, 0};
    d.ub = {5, 5};
    d.rhs = {0};
    d.sense = "<";
    d.cols = {{{0, 1}}, {{0, -1}}};
    VRXmodel* m = loadModelDef(e.env, d);
    captureLogOf(VRXgetenv(m));
    VRXbarsol* s = point(m, {1e-10, 1e-10}, {0.0}, 2e-10);
    Outcome o = cross(m, s);
    EXPECT_EQ(0, o.rc);
    EXPECT_EQ(VRX_OPTIMAL, o.status);
    EXPECT_NEAR(0.0, o.obj, 1e-12);
    EXPECT_EQ(0, o.pushMoves);
    EXPECT_EQ(0, o.cleanIters);
    EXPECT_EQ(0, lpOf(m)->varStat[2]);  // the slack holds the one position
    const std::string& log = capturedLog();
    EXPECT_NE(std::string::npos, log.find("\nRoot crossover log...\n\n"));
    EXPECT_EQ(std::string::npos, log.find("Pushes remaining"));
    vrx::barsolFree(m->env, s);
    VRXfreemodel(m);
  }
}

TEST(Crossover, EntryTestsDecideWhetherToCrossOver) {
  Env e;
  VRXmodel* m = loadModelDef(e.env, faceModel());
  captureLogOf(VRXgetenv(m));
  VRXbarsol* s = point(m, {0.5, 0.5, 1.0}, {-1.0, 0.0}, -2.0);
  vrx::Clock clock = vrx::clockStart();
  // Cutoff, time limit and interruption: nothing is done.
  for (int status : {VRX_CUTOFF, VRX_TIME_LIMIT, VRX_INTERRUPTED}) {
    m->status = status;
    EXPECT_EQ(0, VRXcrossover(m, s, 0, clock));
    EXPECT_EQ(nullptr, m->lp);
    EXPECT_EQ(status, m->status);
    // The same status from the barrier run.
    m->status = VRX_LOADED;
    s->status = status;
    EXPECT_EQ(0, VRXcrossover(m, s, 0, clock));
    EXPECT_EQ(nullptr, m->lp);
    s->status = VRX_OPTIMAL;
  }
  EXPECT_EQ("", capturedLog());
  // No barrier result: only a numeric failure goes on, as a dual simplex.
  m->status = VRX_SUBOPTIMAL;
  EXPECT_EQ(0, VRXcrossover(m, nullptr, 0, clock));
  EXPECT_EQ(nullptr, m->lp);
  EXPECT_EQ("Barrier solution isn't available for crossover\n", capturedLog());
  m->status = VRX_NUMERIC;
  capturedLog().clear();
  EXPECT_EQ(0, VRXcrossover(m, nullptr, 0, clock));
  ASSERT_NE(nullptr, m->lp);
  EXPECT_EQ(VRX_OPTIMAL, m->status);
  EXPECT_EQ(std::string::npos, capturedLog().find("rossover log"));
  // A gap over half the objective: the dual simplex from scratch, no pushes.
  m->status = VRX_OPTIMAL;
  s->pObj = -2.0;
  s->dObj = -0.4;
  capturedLog().clear();
  Outcome o = cross(m, s);
  EXPECT_EQ(0, o.rc);
  EXPECT_EQ(VRX_OPTIMAL, o.status);
  EXPECT_NEAR(2.0, o.obj, 1e-9);
  EXPECT_EQ(0, o.pushMoves);
  EXPECT_EQ(std::string::npos, capturedLog().find("rossover log"));
  // Just under the limit the pushes run.
  s->dObj = -0.51;
  capturedLog().clear();
  o = cross(m, s);
  EXPECT_EQ(VRX_OPTIMAL, o.status);
  EXPECT_NE(std::string::npos, capturedLog().find("rossover log"));
  // A result of another shape is refused.
  VRXbarsol* wrong = vrx::barsolCreate(m->env, 2, 2);
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXcrossover(m, wrong, 0, clock));
  vrx::barsolFree(m->env, wrong);
  vrx::barsolFree(m->env, s);
  VRXfreemodel(m);
}

TEST(Crossover, HugeDualsRestartOnceAndParametersComeBack) {
  Env e;
  // min x, x >= 1, with a row dual far out of scale.
  ModelDef d;
  d.obj = {1};
  d.lb = {0};
  d.ub = {1e100};
  d.rhs = {1};
  d.sense = ">";
  d.cols = {{{0, 1}}};
  VRXmodel* m = loadModelDef(e.env, d);
  VRXenv* menv = VRXgetenv(m);
  captureLogOf(menv);
  VRXsetintparam(menv, "VORN_PAR_CROSSOVERPI", 0);
  VRXsetdblparam(menv, "MarkowitzTol", 0.01);
  VRXsetdblparam(menv, "PerturbValue", 0.5);
  VRXbarsol* s = point(m, {1.0 + 1e-9}, {1e31}, 1.0);
  crossTo(m, s, 1.0, true);
  double v = 0;
  VRXgetdblparam(menv, "MarkowitzTol", &v);
  EXPECT_EQ(0.01, v);
  VRXgetdblparam(menv, "PerturbValue", &v);
  EXPECT_EQ(0.5, v);

  // With the dual cleaning the wild dual goes before anything is pushed.
  VRXsetintparam(menv, "VORN_PAR_CROSSOVERPI", 1);
  crossTo(m, s, 1.0, false);
  vrx::barsolFree(m->env, s);
  VRXfreemodel(m);
}

TEST(Crossover, CarriedValuesThatDriftRestartOnce) {
  Env e;
  // min 2.5e-3 x0 + x1, -2.5e-3 x0 + x1 <= 0.003, x0 in [0, 2], x1 in [0, 10]: optimum 0 at
  // the origin. The point has x0 at its upper bound and the slack 0.008 off its bound with
  // dual -1: the slack's dual push lets x0 in on its pivot of 2.5e-3 and leaves at its value.
  ModelDef d;
  d.obj = {2.5e-3, 1};
  d.lb = {0, 0};
  d.ub = {2, 10};
  d.rhs = {0.003};
  d.sense = "<";
  d.cols = {{{0, -2.5e-3}}, {{0, 1}}};
  VRXmodel* m = loadModelDef(e.env, d);
  VRXenv* menv = VRXgetenv(m);
  captureLogOf(menv);
  VRXsetintparam(menv, "VORN_PAR_CROSSOVERPI", 0);
  VRXsetintparam(menv, "ScaleFlag", 0);
  VRXsetdblparam(menv, "MarkowitzTol", 0.01);
  VRXbarsol* s = point(m, {2.0, 0.0}, {-1.0}, 5e-3);
  // Under the default tolerance the slack leaves where it is: nothing drifts.
  crossTo(m, s, 0.0, false);
  // Within a loose tolerance of its bound it leaves at the bound, 0.008 lower, which moves
  // x0 to -1.2 while the carried value stays 2: the pushes start again, once, with stricter
  // pivots that leave the push to the clean-up.
  VRXsetdblparam(menv, "FeasibilityTol", 1e-2);
  crossTo(m, s, 0.0, true);
  double v = 0;
  VRXgetdblparam(menv, "MarkowitzTol", &v);
  EXPECT_EQ(0.01, v);
  // Without the restart the drift is carried into the clean-up, which still ends optimal.
  VRXsetintparam(menv, "VORN_PAR_RECROSSOVER", 0);
  crossTo(m, s, 0.0, false);
  vrx::barsolFree(m->env, s);
  VRXfreemodel(m);
}

TEST(Crossover, PushOrdersCleanUpChoicesAndExtendedArithmetic) {
  Env e;
  VRXmodel* m = loadModelDef(e.env, faceModel());
  VRXenv* menv = VRXgetenv(m);
  VRXbarsol* s = point(m, {0.5, 0.5, 1.0}, {-1.0, 0.0}, -2.0);
  for (int setting : {-1, 1, 2, 3, 4, 5}) {
    for (int mode : {0, 2}) {
      SCOPED_TRACE(setting * 10 + mode);
      VRXsetintparam(menv, "Crossover", setting);
      Outcome o = cross(m, s, mode);
      EXPECT_EQ(0, o.rc);
      EXPECT_EQ(VRX_OPTIMAL, o.status);
      EXPECT_NEAR(2.0, o.obj, 1e-9);
    }
  }
  VRXsetintparam(menv, "Crossover", -1);
  VRXsetintparam(menv, "CrossoverBasis", 1);
  Outcome o = cross(m, s);
  EXPECT_EQ(VRX_OPTIMAL, o.status);
  EXPECT_NEAR(2.0, o.obj, 1e-9);
  VRXsetintparam(menv, "CrossoverBasis", 0);
  VRXsetintparam(menv, "Quad", 1);
  o = cross(m, s);
  EXPECT_EQ(0, o.rc);
  EXPECT_EQ(VRX_OPTIMAL, o.status);
  EXPECT_NEAR(2.0, o.obj, 1e-9);
  vrx::barsolFree(m->env, s);
  VRXfreemodel(m);
}

TEST(Crossover, OutOfMemoryAnywhereIsReportedAndLeavesNothing) {
  // Every allocation of a crossover run fails in turn; each run reports 10001 or
  // succeeds, and nothing is left once the model and environment are gone. The second
  // round goes through the guided re-presolve, whose every allocation fails in turn too.
  for (int guided : {0, 1}) {
    SCOPED_TRACE(guided);
    long total = -1;
    for (long k = 0;; k++) {
      HookState hs;
      VRXenv* env = nullptr;
      ASSERT_EQ(0, loadWithHooks(&env, &hs));
      VRXsetintparam(env, "OutputFlag", 0);
      VRXsetintparam(env, "VORN_PAR_GUIDEDPRE", guided);
      VRXmodel* m = loadModelDef(env, faceModel());
      ASSERT_NE(nullptr, m);
      VRXbarsol* s = point(m, {0.5, 0.5, 1.0}, {-1.0, 0.0}, -2.0);
      const long before = hs.calls;
      hs.failAt = before + k;
      vrx::Clock clock = vrx::clockStart();
      int rc = VRXcrossover(m, s, 0, clock);
      const bool hit = hs.calls > before + k;
      hs.failAt = -1;
      if (hit) {
        EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << "allocation " << k;
      } else {
        EXPECT_EQ(0, rc);
        EXPECT_EQ(VRX_OPTIMAL, m->status);
        total = k;
      }
      vrx::barsolFree(m->env, s);
      VRXfreemodel(m);
      VRXfreeenv(env);
      EXPECT_EQ(0, hs.live) << "allocation " << k;
      if (!hit) break;
    }
    EXPECT_GT(total, 10);
  }
}

TEST(Crossover, GuidedPresolveReducesTheModelOrFallsThrough) {
  Env e;
  {
    // z at its upper bound with a clear reduced cost and the second row slack without a
    // dual: the re-presolve (level 2) takes both and crosses over on x + y <= 1 alone.
    VRXmodel* m = loadModelDef(e.env, faceModel());
    VRXenv* menv = VRXgetenv(m);
    VRXsetintparam(menv, "VORN_PAR_GUIDEDPRE", 2);
    VRXsetdblparam(menv, "MarkowitzTol", 0.01);
    VRXbarsol* s = point(m, {0.5, 0.5, 1.0}, {-1.0, 0.0}, -2.0);
    vrx::GuidedOut g{};
    double work = 0;
    const double d[] = {0, 0, -1};
    ASSERT_EQ(0, vrx::presolveGuided(m, s->x, s->pi, d, nullptr, &work, &g));
    EXPECT_EQ(0, g.status);
    EXPECT_EQ(1, g.fixedCols);
    EXPECT_EQ(1, g.droppedRows);
    vrx::guidedFree(m->env, &g);
    Outcome o = cross(m, s);
    EXPECT_EQ(0, o.rc);
    EXPECT_EQ(VRX_OPTIMAL, o.status);
    EXPECT_NEAR(2.0, o.obj, 1e-9);
    EXPECT_EQ(0, o.cleanIters);
    ASSERT_EQ(3u, o.x.size());
    EXPECT_NEAR(1.0, o.x[2], 1e-12);
    for (double v : o.x) EXPECT_TRUE(std::fabs(v) < 1e-9 || std::fabs(v - 1) < 1e-9) << v;
    double v = 0;
    VRXgetdblparam(menv, "MarkowitzTol", &v);
    EXPECT_EQ(0.01, v);
    vrx::barsolFree(m->env, s);
    VRXfreemodel(m);
  }
  // Runs that must not enter the re-presolve log exactly what a run without it logs: a
  // point that supports nothing (-1000), and the switches that forbid it.
  struct Case {
    ModelDef def;
    std::vector<double> x, pi;
    double obj;
    const char* param;  // set to 0 beside VORN_PAR_GUIDEDPRE 2; null for none
  };
  ModelDef transport;
  transport.obj = {1, 1, 1, 1};
  transport.lb = {0, 0, 0, 0};
  transport.rhs = {1, 1, 1, 1};
  transport.sense = "====";
  transport.cols = {{{0, 1}, {2, 1}}, {{0, 1}, {3, 1}}, {{1, 1}, {2, 1}}, {{1, 1}, {3, 1}}};
  const Case cases[] = {{transport, {0.5, 0.5, 0.5, 0.5}, {0.5, 0.5, 0.5, 0.5}, 2.0, nullptr},
                        {faceModel(), {0.5, 0.5, 1.0}, {-1.0, 0.0}, -2.0, "DualReductions"},
                        {faceModel(), {0.5, 0.5, 1.0}, {-1.0, 0.0}, -2.0, "Presolve"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.param ? c.param : "little support");
    std::string logs[2];
    Outcome outs[2];
    for (int guided : {0, 1}) {
      VRXmodel* m = loadModelDef(e.env, c.def);
      VRXenv* menv = VRXgetenv(m);
      captureLogOf(menv);
      VRXsetintparam(menv, "VORN_PAR_GUIDEDPRE", 2 * guided);
      if (c.param) VRXsetintparam(menv, c.param, 0);
      VRXbarsol* s = point(m, c.x, c.pi, c.obj);
      outs[guided] = cross(m, s);
      logs[guided] = capturedLog();
      vrx::barsolFree(m->env, s);
      VRXfreemodel(m);
    }
    EXPECT_EQ(VRX_OPTIMAL, outs[1].status);
    EXPECT_EQ(outs[0].x, outs[1].x);
    EXPECT_EQ(outs[0].pushMoves, outs[1].pushMoves);
    EXPECT_EQ(logs[0], logs[1]);
  }
}
