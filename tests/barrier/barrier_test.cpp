// Method 2 without crossover on small models with known answers, the outcomes
// other than optimal, the log, the callback and memory failures.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "../support/modeldef.h"
#include "vornix_c.h"
#include "../support/quiet_env.h"

namespace {

using Env = vrxtest::QuietEnv;

void barrierParams(VRXmodel* m, int presolve) {
  VRXenv* e = VRXgetenv(m);
  VRXsetintparam(e, "Method", 2);
  VRXsetintparam(e, "Crossover", 0);
  VRXsetintparam(e, "Presolve", presolve);
}

struct Outcome {
  int rc = -1, status = -1, barIters = -1;
  double obj = 0;
  std::vector<double> x, pi, rc_, slack;
};

Outcome solve(VRXmodel* m) {
  Outcome o;
  o.rc = VRXoptimize(m);
  VRXgetintattr(m, "Status", &o.status);
  VRXgetintattr(m, "BarIterCount", &o.barIters);
  VRXgetdblattr(m, "ObjVal", &o.obj);
  int n = 0, rows = 0;
  VRXgetintattr(m, "NumVars", &n);
  VRXgetintattr(m, "NumConstrs", &rows);
  o.x.assign(n, 0);
  o.rc_.assign(n, 0);
  o.pi.assign(rows, 0);
  o.slack.assign(rows, 0);
  if (o.status == VRX_OPTIMAL) {
    EXPECT_EQ(0, VRXgetdblattrarray(m, "X", 0, n, o.x.data()));
    EXPECT_EQ(0, VRXgetdblattrarray(m, "RC", 0, n, o.rc_.data()));
    if (rows) {
      EXPECT_EQ(0, VRXgetdblattrarray(m, "Pi", 0, rows, o.pi.data()));
      EXPECT_EQ(0, VRXgetdblattrarray(m, "Slack", 0, rows, o.slack.data()));
    }
  }
  return o;
}

// Bounds on both sides, an upper-only column, '>' rows, a free column, an
// equation, a maximisation: each with presolve off and on, against the value
// worked out by hand, and the duals against the dual simplex.
TEST(Barrier, SmallModelsWithKnownOptima) {
  Env e;
  struct Case {
    const char* name;
    ModelDef def;
    double obj;
    std::vector<double> x;
  };
  std::vector<Case> cases;
  {
    // max x + y: x + 2y <= 4, 3x + y <= 6, 0 <= x <= 1.5
    ModelDef d;
    d.objSense = -1;
    d.obj = {1, 1};
    d.lb = {0, 0};
    d.ub = {1.5, 1e100};
    d.rhs = {4, 6};
    d.sense = "<<";
    d.cols = {{{0, 1}, {1, 3}}, {{0, 2}, {1, 1}}};
    cases.push_back({"boxed max", d, 2.75, {1.5, 1.25}});
  }
  {
    // min 2a + 3b + 0.5f: a + b = 10, a - f = 2, a <= 7, f free
    ModelDef d;
    d.obj = {2, 3, 0.5};
    d.lb = {0, 0, -1e100};
    d.ub = {7, 1e100, 1e100};
    d.rhs = {10, 2};
    d.sense = "==";
    d.cols = {{{0, 1}, {1, 1}}, {{0, 1}}, {{1, -1}}};
    cases.push_back({"free and equations", d, 25.5, {7, 3, 5}});
  }
  {
    // min -x - 2y with y <= 3 only from above (no lower bound), x in [-1, 4]:
    // x + y >= -10, x + y <= 5, y - x >= -20
    ModelDef d;
    d.obj = {-1, -2};
    d.lb = {-1, -1e100};
    d.ub = {4, 3};
    d.rhs = {-10, 5, -20};
    d.sense = "><>";
    d.cols = {{{0, 1}, {1, 1}, {2, -1}}, {{0, 1}, {1, 1}, {2, 1}}};
    cases.push_back({"upper-only column", d, -8, {2, 3}});
  }
  for (auto& c : cases) {
    for (int presolve : {0, 1}) {
      VRXmodel* m = loadModelDef(e.env, c.def);
      ASSERT_NE(nullptr, m);
      barrierParams(m, presolve);
      Outcome o = solve(m);
      EXPECT_EQ(0, o.rc) << c.name;
      EXPECT_EQ(VRX_OPTIMAL, o.status) << c.name << " presolve " << presolve;
      EXPECT_NEAR(c.obj, o.obj, 1e-6 * (1 + std::fabs(c.obj))) << c.name << " presolve " << presolve;
      for (size_t j = 0; j < c.x.size(); ++j) EXPECT_NEAR(c.x[j], o.x[j], 1e-5) << c.name << " x" << j;
      if (presolve == 0) {
        EXPECT_GT(o.barIters, 0) << c.name;
      }
      // No basis without crossover.
      int vb = 0;
      EXPECT_NE(0, VRXgetintattrelement(m, "VBasis", 0, &vb)) << c.name;
      // Duals and reduced costs as the simplex gives them (the duals are unique here).
      VRXmodel* s = loadModelDef(e.env, c.def);
      VRXsetintparam(VRXgetenv(s), "Method", 1);
      Outcome so = solve(s);
      ASSERT_EQ(VRX_OPTIMAL, so.status);
      for (size_t i = 0; i < so.pi.size(); ++i) EXPECT_NEAR(so.pi[i], o.pi[i], 1e-5) << c.name << " pi" << i;
      for (size_t j = 0; j < so.rc_.size(); ++j) EXPECT_NEAR(so.rc_[j], o.rc_[j], 1e-5) << c.name << " rc" << j;
      for (size_t i = 0; i < so.slack.size(); ++i) EXPECT_NEAR(so.slack[i], o.slack[i], 1e-5) << c.name;
      VRXfreemodel(s);
      VRXfreemodel(m);
    }
  }
}

// Repeated equations leave A A' singular without presolve to remove them.
TEST(Barrier, DependentRowsWithoutPresolve) {
  Env e;
  ModelDef d;
  // min x + 2y + 3z: x + y + z = 6, 2x + 2y + 2z = 12, x - y = 1, x + y + z = 6
  d.obj = {1, 2, 3};
  d.lb = {0, 0, 0};
  d.rhs = {6, 12, 1, 6};
  d.sense = "====";
  d.cols = {{{0, 1}, {1, 2}, {2, 1}, {3, 1}}, {{0, 1}, {1, 2}, {2, -1}, {3, 1}}, {{0, 1}, {1, 2}, {3, 1}}};
  VRXmodel* m = loadModelDef(e.env, d);
  barrierParams(m, 0);
  Outcome o = solve(m);
  EXPECT_EQ(VRX_OPTIMAL, o.status);
  EXPECT_NEAR(8.5, o.obj, 1e-6);
  EXPECT_NEAR(3.5, o.x[0], 1e-5);
  EXPECT_NEAR(2.5, o.x[1], 1e-5);
  VRXfreemodel(m);
}

// Infeasible and unbounded models end with a proof status, presolve on or off.
TEST(Barrier, InfeasibleAndUnbounded) {
  Env e;
  ModelDef inf;
  inf.obj = {1, 1, 0};
  inf.lb = {0, 0, 0};
  inf.rhs = {1, 3, 0};
  inf.sense = "<>=";
  inf.cols = {{{0, 1}, {1, 1}, {2, 1}}, {{0, 1}, {1, 1}}, {{2, -1}}};
  ModelDef unb;
  unb.obj = {-1, 0};
  unb.lb = {0, 0};
  unb.rhs = {1, 4};
  unb.sense = "<>";
  unb.cols = {{{0, 1}, {1, 1}}, {{0, -1}, {1, 1}}};
  for (int presolve : {0, 1}) {
    VRXmodel* m = loadModelDef(e.env, inf);
    barrierParams(m, presolve);
    Outcome o = solve(m);
    EXPECT_EQ(0, o.rc);
    EXPECT_TRUE(o.status == VRX_INFEASIBLE || o.status == VRX_INF_OR_UNBD) << "presolve " << presolve << " status "
                                                                             << o.status;
    double x = 0;
    EXPECT_NE(0, VRXgetdblattrelement(m, "X", 0, &x));
    VRXfreemodel(m);
    m = loadModelDef(e.env, unb);
    barrierParams(m, presolve);
    o = solve(m);
    EXPECT_EQ(0, o.rc);
    EXPECT_TRUE(o.status == VRX_UNBOUNDED || o.status == VRX_INF_OR_UNBD) << "presolve " << presolve << " status "
                                                                            << o.status;
    VRXfreemodel(m);
  }
  // The homogeneous form asked for from the start finds the same.
  VRXmodel* m = loadModelDef(e.env, inf);
  barrierParams(m, 0);
  VRXsetintparam(VRXgetenv(m), "BarHomogeneous", 1);
  EXPECT_EQ(VRX_INFEASIBLE, solve(m).status);
  VRXfreemodel(m);
}

ModelDef denseModel(int rows, int dense) {
  // A transport-like sparse part and a few columns that touch every row.
  ModelDef d;
  // x = 1 on the sparse part and 0 on the dense one is feasible.
  for (int i = 0; i < rows; ++i) {
    d.rhs.push_back(i % 3 == 0 ? 1.5 : 0.5 + 0.1 * (i % 7));
    d.sense += i % 3 == 0 ? "=" : ">";
  }
  for (int i = 0; i < rows; ++i) {
    d.cols.push_back({{i, 1.0}, {(i + 1) % rows, 0.5}});
    d.obj.push_back(1.0 + (i % 7));
    d.lb.push_back(0);
    d.ub.push_back(1e100);
  }
  for (int k = 0; k < dense; ++k) {
    std::vector<std::pair<int, double>> c;
    for (int i = 0; i < rows; ++i) c.push_back({i, 1.0 + ((i + k) % 3)});
    d.cols.push_back(c);
    d.obj.push_back(20.0 + k);
    d.lb.push_back(0);
    d.ub.push_back(1e100);
  }
  return d;
}

// The statistics block: dense columns shown only when there are some, and the
// Schur path converges to the simplex optimum.
TEST(Barrier, StatisticsLinesAndDenseColumns) {
  Env e;
  captureLogOf(e.env);
  ModelDef d = denseModel(400, 3);
  VRXmodel* m = loadModelDef(e.env, d);
  barrierParams(m, 0);
  captureLogOf(VRXgetenv(m));
  Outcome o = solve(m);
  const std::string log = capturedLog();
  EXPECT_EQ(VRX_OPTIMAL, o.status);
  EXPECT_NE(std::string::npos, log.find("\nBarrier statistics:\n Dense cols : 3\n AA' NZ     : ")) << log;
  EXPECT_NE(std::string::npos, log.find(" Threads    : 1\n"));
  EXPECT_NE(std::string::npos, log.find("Iter       Primal          Dual         Primal    Dual     Compl     Time\n"));
  EXPECT_NE(std::string::npos, log.find("Barrier solved model in "));
  VRXmodel* s = loadModelDef(e.env, d);
  VRXsetintparam(VRXgetenv(s), "OutputFlag", 0);
  VRXsetintparam(VRXgetenv(s), "Method", 1);
  Outcome so = solve(s);
  ASSERT_EQ(VRX_OPTIMAL, so.status);
  EXPECT_NEAR(so.obj, o.obj, 1e-6 * std::fabs(so.obj));
  VRXfreemodel(s);
  VRXfreemodel(m);

  ModelDef plain = denseModel(50, 0);
  m = loadModelDef(e.env, plain);
  barrierParams(m, 0);
  captureLogOf(VRXgetenv(m));
  EXPECT_EQ(VRX_OPTIMAL, solve(m).status);
  EXPECT_EQ(std::string::npos, capturedLog().find("Dense cols"));
  EXPECT_EQ(std::string::npos, capturedLog().find("Free vars"));
  VRXfreemodel(m);
}

int stopAtTwo(VRXmodel* model, void* cbdata, int where, void* usr) {
  if (where != VRX_CB_BARRIER) return 0;
  auto* seen = static_cast<std::vector<double>*>(usr);
  int it = -1;
  double pobj = 0;
  EXPECT_EQ(0, VRXcbget(cbdata, where, VRX_CB_BARRIER_ITRCNT, &it));
  EXPECT_EQ(0, VRXcbget(cbdata, where, 7002, &pobj));
  seen->push_back(it);
  if (it == 2) VRXterminate(model);
  return 0;
}

// Iteration limit 0 stops before the first step; the callback sees each
// iteration and can stop the run.
TEST(Barrier, LimitsAndCallback) {
  Env e;
  ModelDef d = denseModel(30, 0);
  VRXmodel* m = loadModelDef(e.env, d);
  barrierParams(m, 0);
  VRXsetintparam(VRXgetenv(m), "BarIterLimit", 0);
  captureLogOf(VRXgetenv(m));
  Outcome o = solve(m);
  EXPECT_EQ(0, o.rc);
  EXPECT_EQ(VRX_ITERATION_LIMIT, o.status);
  EXPECT_EQ(0, o.barIters);
  EXPECT_NE(std::string::npos, capturedLog().find("Barrier performed 0 iterations in "));
  EXPECT_NE(std::string::npos, capturedLog().find("Iteration limit reached\n"));

  VRXsetintparam(VRXgetenv(m), "BarIterLimit", 1000);
  VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
  std::vector<double> seen;
  ASSERT_EQ(0, VRXsetcallbackfunc(m, stopAtTwo, &seen));
  o = solve(m);
  EXPECT_EQ(VRX_INTERRUPTED, o.status);
  // The stop is seen at the test of the same iteration.
  ASSERT_EQ(3u, seen.size());
  for (int k = 0; k < 3; ++k) EXPECT_EQ(k, seen[k]);
  EXPECT_EQ(2, o.barIters);
  VRXfreemodel(m);
}

// Every failed allocation inside a barrier solve comes back as 10001 with
// nothing left allocated.
TEST(Barrier, OutOfMemoryLeavesNothingBehind) {
  ModelDef d = denseModel(40, 2);
  for (int presolve : {0, 1}) {
    // Count the calls of a whole run first.
    long total = 0;
    {
      HookState st;
      VRXenv* env = nullptr;
      ASSERT_EQ(0, loadWithHooks(&env, &st));
      VRXsetintparam(env, "OutputFlag", 0);
      VRXmodel* m = loadModelDef(env, d);
      barrierParams(m, presolve);
      const long before = st.calls;
      ASSERT_EQ(0, VRXoptimize(m));
      total = st.calls - before;
      VRXfreemodel(m);
      VRXfreeenv(env);
      EXPECT_EQ(0, st.live);
    }
    ASSERT_GT(total, 10);
    const long stride = total > 200 ? total / 200 : 1;
    int failedMidRun = 0;
    for (long k = 0; k < total; k += stride) {
      HookState st;
      VRXenv* env = nullptr;
      ASSERT_EQ(0, loadWithHooks(&env, &st));
      VRXsetintparam(env, "OutputFlag", 0);
      VRXmodel* m = loadModelDef(env, d);
      barrierParams(m, presolve);
      st.failAt = st.calls + k;
      VRXsetintparam(VRXgetenv(m), "OutputFlag", 1);
      captureLogOf(VRXgetenv(m));
      const int rc = VRXoptimize(m);
      const std::string log = capturedLog();
      EXPECT_TRUE(rc == 0 || rc == VRX_ERROR_OUT_OF_MEMORY) << "call " << k << " rc " << rc;
      // A barrier whose iterations began always closes with its final lines, an error
      // with "Error termination".
      if (log.find("Iter       Primal") != std::string::npos) {
        const bool closed = log.find("Barrier solved model in ") != std::string::npos ||
                            log.find("Barrier performed ") != std::string::npos;
        EXPECT_TRUE(closed) << log;
        if (log.find("Error termination\n") != std::string::npos) {
          ++failedMidRun;
          EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc);
        }
      }
      st.failAt = -1;
      VRXfreemodel(m);
      VRXfreeenv(env);
      EXPECT_EQ(0, st.live) << "presolve " << presolve << " call " << k;
    }
    // The sweep reaches failures inside the iterations (the barrier's own result block).
    EXPECT_GT(failedMidRun, 0) << "presolve " << presolve;
  }
}

}  // namespace

namespace {

// A piecewise-linear objective needs presolve under the barrier: with it off
// the run turns it on and says so, and solves; PreDual is refused for such a model.
TEST(Barrier, PiecewiseLinearObjectiveTurnsPresolveOn) {
  Env e;
  // min f(x) + y: x + y >= 0.5, 0 <= x <= 2, y >= 0; f through (0,0), (1,-1), (2,1).
  ModelDef d;
  d.obj = {0, 1};
  d.lb = {0, 0};
  d.ub = {2, 1e100};
  d.rhs = {0.5};
  d.sense = ">";
  d.cols = {{{0, 1.0}}, {{0, 1.0}}};
  for (int preDual : {-1, 1}) {
    VRXmodel* m = loadModelDef(e.env, d);
    const double px[] = {0, 1, 2}, py[] = {0, -1, 1};
    ASSERT_EQ(0, VRXsetpwlobj(m, 0, 3, px, py));
    barrierParams(m, 0);
    VRXsetintparam(VRXgetenv(m), "PreDual", preDual);
    captureLogOf(VRXgetenv(m));
    Outcome o = solve(m);
    const std::string log = capturedLog();
    EXPECT_EQ(0, o.rc);
    EXPECT_NE(std::string::npos, log.find("Warning: Barrier needs presolve to translate PWL model into pure LP\n"
                                          "         Turning it on and applying it conservatively\n"))
        << log;
    EXPECT_EQ(preDual == 1, log.find("Warning: PreDual = 1 isn't supported for PW Linear objective.\n") !=
                                std::string::npos)
        << log;
    // The optimum sits at the breakpoint x = 1 with y = 0.
    EXPECT_EQ(VRX_OPTIMAL, o.status);
    EXPECT_NEAR(-1.0, o.obj, 1e-6);
    int presolve = -5;
    VRXgetintparam(VRXgetenv(m), "Presolve", &presolve);
    EXPECT_EQ(0, presolve) << "the caller's setting stays";
    VRXfreemodel(m);
  }
}

}  // namespace

namespace {

// A product with full rows: the factor outweighs the matrix by far, so the
// quick start hands the start point on without a single iteration; crossover
// still ends at the simplex optimum.
TEST(Barrier, QuickStartGoesStraightToCrossover) {
  Env e;
  const int m = 2000;
  ModelDef d;
  d.rhs.assign(m, 1.0);
  d.sense.assign(m, '=');
  for (int i = 0; i < m; ++i) {
    d.cols.push_back({{i, 1.0}});
    d.obj.push_back(1.0);
  }
  for (int k = 0; k < 3; ++k) {
    std::vector<std::pair<int, double>> col;
    for (int i = 0; i < m; ++i) col.push_back({i, 1.0 + (i * (k + 2)) % 7});
    d.cols.push_back(col);
    d.obj.push_back(1500.0 + 400 * k);
  }
  double simplexObj = 0;
  {
    VRXmodel* s = loadModelDef(e.env, d);
    VRXsetintparam(VRXgetenv(s), "Method", 1);
    Outcome so = solve(s);
    ASSERT_EQ(VRX_OPTIMAL, so.status);
    simplexObj = so.obj;
    VRXfreemodel(s);
  }
  for (int crossover : {0, -1}) {
    VRXmodel* q = loadModelDef(e.env, d);
    barrierParams(q, 0);
    VRXenv* qe = VRXgetenv(q);
    VRXsetintparam(qe, "Crossover", crossover);
    VRXsetintparam(qe, "VORN_PAR_BARQUICKSTART", 1);
    VRXsetintparam(qe, "VORN_PAR_BARDENSESEP", 1);
    captureLogOf(qe);
    Outcome o = solve(q);
    const std::string log = capturedLog();
    EXPECT_EQ(0, o.rc);
    EXPECT_NE(std::string::npos, log.find("Barrier performed 0 iterations")) << log;
    EXPECT_EQ(std::string::npos, log.find("Iter       Primal")) << log;
    if (crossover == 0) {
      EXPECT_EQ(VRX_SUBOPTIMAL, o.status);
    } else {
      EXPECT_EQ(VRX_OPTIMAL, o.status);
      EXPECT_NEAR(simplexObj, o.obj, 1e-6 * std::fabs(simplexObj));
    }
    VRXfreemodel(q);
  }
}

}  // namespace

namespace {

// The work limit: a limit below one step's predicted work stops before the
// first step; growing limits stop later, never earlier, until the run finishes.
TEST(Barrier, WorkLimitStopsBeforeItIsPassed) {
  Env e;
  ModelDef d = denseModel(40, 0);
  int lastIters = -1, midStops = 0;
  bool finished = false;
  for (double limit = 1.0; limit <= 1e12; limit *= 4) {
    VRXmodel* m = loadModelDef(e.env, d);
    barrierParams(m, 0);
    VRXenv* me = VRXgetenv(m);
    VRXsetdblparam(me, "VORN_PAR_VTIMELIMIT", limit);
    captureLogOf(me);
    Outcome o = solve(m);
    EXPECT_EQ(0, o.rc);
    if (limit == 1.0) EXPECT_EQ(0, o.barIters);
    EXPECT_GE(o.barIters, lastIters) << limit;
    lastIters = o.barIters;
    if (o.status == VRX_INTERRUPTED) {
      EXPECT_FALSE(finished) << "a larger limit stopped a run a smaller one finished";
      EXPECT_NE(std::string::npos, capturedLog().find("Optimization interrupted\n"));
      if (o.barIters > 0) ++midStops;
    } else {
      EXPECT_EQ(VRX_OPTIMAL, o.status) << limit;
      finished = true;
    }
    VRXfreemodel(m);
  }
  EXPECT_TRUE(finished);
  EXPECT_GT(midStops, 0);
}

}  // namespace

namespace {

// Columns in no row go to their best bound and leave the iteration alone:
// at the lower bound with a cost >= 0, at the upper with a negative cost.
TEST(Barrier, EmptyColumnsSitAtTheirBestBound) {
  Env e;
  // min x0 + 2 x1 + 0 x2 - 3 x3 + 0 x4: x0 + x1 >= 2; x2 in [1, 4], x3 in [-1, 5], x4 free, all but x4 empty.
  ModelDef d;
  d.obj = {1, 2, 0, -3, 0};
  d.lb = {0, 0, 1, -1, -1e100};
  d.ub = {1e100, 1e100, 4, 5, 1e100};
  d.rhs = {2};
  d.sense = ">";
  d.cols = {{{0, 1.0}}, {{0, 1.0}}, {}, {}, {}};
  VRXmodel* m = loadModelDef(e.env, d);
  barrierParams(m, 0);
  Outcome o = solve(m);
  ASSERT_EQ(VRX_OPTIMAL, o.status);
  EXPECT_NEAR(2.0 - 15.0, o.obj, 1e-6);
  EXPECT_NEAR(2.0, o.x[0], 1e-6);
  EXPECT_NEAR(1.0, o.x[2], 1e-9);
  EXPECT_NEAR(5.0, o.x[3], 1e-9);
  EXPECT_NEAR(0.0, o.x[4], 1e-9);
  EXPECT_NEAR(-3.0, o.rc_[3], 1e-6);
  VRXfreemodel(m);
}

}  // namespace
