// Piecewise-linear objective terms kept in the working LP of the dual and of the primal,
// against the LP form of the same model and against the optimality conditions of the terms.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "../support/modeldef.h"
#include "../support/pwl.h"
#include "../support/quiet_env.h"
#include "model/model.h"
#include "simplex/lp.h"
#include "simplex/primal.h"
#include "simplex/pwl.h"
#include "vornix_c.h"

namespace {

constexpr double INF = 1e100;

using Term = vrxtest::PwlTerm;
using vrxtest::buildPwl;
using vrxtest::dblArray;
using Env = vrxtest::QuietEnv;

struct Outcome {
  int status = -1;
  double obj = 0, iters = 0;
  std::vector<double> x, pi, rc;
};

// Method 0 or 1 with Presolve 0 keeps the terms in the working LP; presolve takes the LP form.
Outcome solve(VRXmodel* m, int method, int presolve, const ModelDef& def) {
  Outcome o;
  VRXenv* e = VRXgetenv(m);
  VRXsetintparam(e, "Method", method);
  VRXsetintparam(e, "Presolve", presolve);
  EXPECT_EQ(0, VRXoptimize(m)) << VRXgeterrormsg(e);
  VRXgetintattr(m, "Status", &o.status);
  VRXgetdblattr(m, "IterCount", &o.iters);
  if (o.status != VRX_OPTIMAL) return o;
  VRXgetdblattr(m, "ObjVal", &o.obj);
  o.x = dblArray(m, "X", static_cast<int>(def.cols.size()));
  o.rc = dblArray(m, "RC", static_cast<int>(def.cols.size()));
  if (!def.rhs.empty()) o.pi = dblArray(m, "Pi", static_cast<int>(def.rhs.size()));
  return o;
}

// Left and right slope of a term at x, ends extended (minimising sense).
void slopesAt(const Term& t, double x, double* left, double* right) {
  const size_t k = t.x.size();
  auto sl = [&](size_t i) { return (t.y[i + 1] - t.y[i]) / (t.x[i + 1] - t.x[i]); };
  const double tol = 1e-7 * (1 + std::fabs(x));
  *left = sl(0);
  *right = sl(k - 2);
  for (size_t i = 0; i + 1 < k; i++) {
    if (x > t.x[i] + tol && x <= t.x[i + 1] + tol) *left = sl(i);
    if (x >= t.x[i] - tol && x < t.x[i + 1] - tol) {
      *right = sl(i);
      break;
    }
  }
}

// The point and the row duals meet the optimality conditions of the model: rows and bounds
// hold, the duals have the right signs, and 0 lies in each column's range of reduced costs
// (subgradients of its term, widened by a bound it sits at).
void expectOptimal(const ModelDef& def, const std::vector<Term>& terms, const Outcome& o) {
  const int n = static_cast<int>(def.cols.size()), m = static_cast<int>(def.rhs.size());
  ASSERT_EQ(static_cast<size_t>(n), o.x.size());
  std::vector<double> act(static_cast<size_t>(m), 0.0);
  for (int j = 0; j < n; j++) {
    EXPECT_GE(o.x[j], def.lb[j] - 1e-6) << j;
    EXPECT_LE(o.x[j], def.ub[j] + 1e-6) << j;
    for (auto& e : def.cols[j]) act[e.first] += e.second * o.x[j];
  }
  const double s = def.objSense;
  for (int i = 0; i < m; i++) {
    const char c = def.sense[i];
    if (c == '<') EXPECT_LE(act[i], def.rhs[i] + 1e-6) << i;
    if (c == '>') EXPECT_GE(act[i], def.rhs[i] - 1e-6) << i;
    if (c == '=') EXPECT_NEAR(act[i], def.rhs[i], 1e-6) << i;
    // Minimising form: a '<' row has a dual <= 0, a '>' row >= 0, and 0 when not tight.
    const double y = s * o.pi[i];
    if (c == '<') EXPECT_LE(y, 1e-6) << i;
    if (c == '>') EXPECT_GE(y, -1e-6) << i;
    if (std::fabs(act[i] - def.rhs[i]) > 1e-5) EXPECT_NEAR(0.0, y, 1e-6) << i;
  }
  for (int j = 0; j < n; j++) {
    double ya = 0;
    for (auto& e : def.cols[j]) ya += e.second * s * o.pi[e.first];
    double lo = s * def.obj[j] - ya, hi = lo;
    for (const Term& t : terms) {
      if (t.var != j) continue;
      double l, r;
      slopesAt(t, o.x[j], &l, &r);
      lo += s * l;  // the caller's sense to the minimising one
      hi += s * r;
    }
    const double tol = 1e-6 * (1 + std::fabs(lo) + std::fabs(hi));
    if (o.x[j] <= def.lb[j] + 1e-7) lo = -INF;  // at a lower bound the cost may rise
    if (o.x[j] >= def.ub[j] - 1e-7) hi = INF;
    EXPECT_LE(lo, tol) << "column " << j;
    EXPECT_GE(hi, -tol) << "column " << j;
  }
}

struct Rand {
  unsigned seed;
  double operator()(double lo, double hi) {
    seed = seed * 1103515245u + 12345u;
    return lo + (hi - lo) * ((seed >> 8) % 100000) / 99999.0;
  }
};

// A feasible model around a random point, with convex terms on some columns whose end
// slopes point inward, so the optimum exists.
void randomModel(Rand& rnd, int round, ModelDef* def, std::vector<Term>* terms) {
  const int n = 4 + round % 13, m = 2 + round % 9;
  *def = ModelDef();
  terms->clear();
  def->objSense = round % 3 == 2 ? -1 : 1;
  def->cols.resize(static_cast<size_t>(n));
  std::vector<double> x0;
  for (int j = 0; j < n; j++) {
    const bool term = j % 3 != 2;
    def->obj.push_back(rnd(-1, 1));
    const int kind = (round + j) % 4;
    def->lb.push_back(term && (kind == 0 || kind == 3) ? -INF : rnd(-5, -1));
    def->ub.push_back(term && kind <= 1 ? INF : rnd(1, 5));
    x0.push_back(rnd(-1, 1));
  }
  for (int i = 0; i < m; i++) {
    double a0 = 0;
    for (int j = 0; j < n; j++) {
      if (rnd(0, 1) < 0.4 && !(i == 0 && j > 0)) continue;
      const double a = std::round(rnd(-3, 3) * 4) / 4;
      if (a == 0) continue;
      def->cols[static_cast<size_t>(j)].push_back({i, a});
      a0 += a * x0[static_cast<size_t>(j)];
    }
    const int k = (i + round) % 3;
    def->sense += k == 0 ? '<' : k == 1 ? '>' : '=';
    def->rhs.push_back(k == 0 ? a0 + rnd(0, 2) : k == 1 ? a0 - rnd(0, 2) : a0);
  }
  for (int j = 0; j < n; j++) {
    if (j % 3 == 2) continue;
    Term t{j, {}, {}};
    const int pts = 2 + (round + j) % 5;
    const double lin = def->objSense * def->obj[static_cast<size_t>(j)];
    double x = rnd(-3, 0), y = rnd(-2, 2), slope = -lin - rnd(1, 4), last = slope;
    for (int p = 0; p < pts; p++) {
      t.x.push_back(x);
      t.y.push_back(def->objSense * y);
      if (p + 1 == pts) break;
      const double w = rnd(0.3, 2);
      x += w;
      y += slope * w;
      last = slope;
      slope += rnd(0.2, 3);
    }
    // The last slope must rise above the linear cost: the term bounds the column.
    if (last <= -lin) {
      const double w = rnd(0.3, 2);
      y += (-lin + rnd(0.5, 3)) * w;
      t.x.push_back(x + w);
      t.y.push_back(def->objSense * y);
    }
    terms->push_back(t);
  }
}

}  // namespace

TEST(PwlNative, RandomConvexModelsMatchTheLpForm) {
  Env e;
  Rand rnd{2024u};
  int native = 0, passes = 0;
  for (int round = 0; round < 36; round++) {
    SCOPED_TRACE("round " + std::to_string(round));
    ModelDef def;
    std::vector<Term> terms;
    randomModel(rnd, round, &def, &terms);
    VRXmodel* a = buildPwl(e.env, def, terms);
    const Outcome dual = solve(a, 1, 0, def);
    // The record of the native run keeps the terms.
    const auto* lp = static_cast<const VRXlp*>(a->lp);
    if (lp && lp->pwl) native++;
    VRXmodel* b = buildPwl(e.env, def, terms);
    const Outcome form = solve(b, 1, 1, def);
    // The primal in every pricing mode, and now and then in extended arithmetic.
    VRXmodel* c = buildPwl(e.env, def, terms);
    VRXsetintparam(VRXgetenv(c), "SimplexPricing", round % 4);
    VRXsetintparam(VRXgetenv(c), "Quad", round % 6 == 5 ? 1 : -1);
    const Outcome primal = solve(c, 0, 0, def);
    const auto* lpc = static_cast<const VRXlp*>(c->lp);
    if (lpc && lpc->pwl) {
      native++;
      // The primal settles the terms inside its own loop: no further run was needed.
      EXPECT_EQ(0, lpc->pwl->rounds);
      if (lpc->primal) passes += lpc->primal->breakPasses;
    }
    ASSERT_EQ(VRX_OPTIMAL, form.status);
    ASSERT_EQ(VRX_OPTIMAL, dual.status);
    ASSERT_EQ(VRX_OPTIMAL, primal.status);
    const double tol = 1e-6 * (1 + std::fabs(form.obj));
    EXPECT_NEAR(form.obj, dual.obj, tol);
    EXPECT_NEAR(form.obj, primal.obj, tol);
    // Row duals are held to the optimality conditions: at a degenerate optimum the LP form
    // may hold other duals that are as valid.
    expectOptimal(def, terms, dual);
    expectOptimal(def, terms, primal);
    expectOptimal(def, terms, form);
    // The random data make the optimal point unique: the native ones are the LP form's.
    for (size_t j = 0; j < dual.x.size(); j++) {
      EXPECT_NEAR(form.x[j], dual.x[j], 1e-5 * (1 + std::fabs(form.x[j]))) << j;
      EXPECT_NEAR(form.x[j], primal.x[j], 1e-5 * (1 + std::fabs(form.x[j]))) << j;
    }
    VRXfreemodel(a);
    VRXfreemodel(b);
    VRXfreemodel(c);
  }
  EXPECT_EQ(72, native);
  // Basic term columns were carried past break points along the way.
  EXPECT_GT(passes, 0);
}

TEST(PwlNative, ChainOfBreakPointsInOneStepAndConvexity) {
  Env e;
  // min f(x) with slopes 1..6 on [0, 10] and x >= 5: one dual step passes the break points
  // 1, 2, 3, 4 and x enters on the segment [4, 6]. The primal starts on the segment [0, 1],
  // which alone leaves the row infeasible: its phase I reads the whole range.
  ModelDef def;
  def.obj = {0};
  def.lb = {0};
  def.ub = {10};
  def.sense = ">";
  def.rhs = {5};
  def.cols = {{{0, 1}}};
  const Term t{0, {0, 1, 2, 3, 4, 6, 10}, {0, 1, 3, 6, 10, 20, 44}};
  VRXmodel* m = nullptr;
  for (int run = 0; run < 4; run++) {
    const int quad = run % 2, method = 1 - run / 2;
    SCOPED_TRACE("quad " + std::to_string(quad) + " method " + std::to_string(method));
    m = buildPwl(e.env, def, {t});
    VRXsetintparam(VRXgetenv(m), "Quad", quad);
    const Outcome o = solve(m, method, 0, def);
    ASSERT_EQ(VRX_OPTIMAL, o.status);
    EXPECT_NEAR(15.0, o.obj, 1e-9);
    EXPECT_NEAR(5.0, o.x[0], 1e-9);
    EXPECT_NEAR(5.0, o.pi[0], 1e-9);
    EXPECT_NEAR(0.0, o.rc[0], 1e-9);
    if (method == 1) EXPECT_EQ(1.0, o.iters);
    VRXfreemodel(m);
  }
  m = buildPwl(e.env, def, {t});
  ASSERT_EQ(0, VRXupdatemodel(m));
  int cvx = -1;
  EXPECT_EQ(0, VRXgetintattrelement(m, "PWLObjCvx", 0, &cvx));
  EXPECT_EQ(1, cvx);
  VRXfreemodel(m);

  // A term that is not convex: the attribute says so and the native path is not taken.
  m = buildPwl(e.env, def, {{0, {0, 1, 2}, {0, 2, 3}}});
  ASSERT_EQ(0, VRXupdatemodel(m));
  EXPECT_EQ(0, VRXgetintattrelement(m, "PWLObjCvx", 0, &cvx));
  EXPECT_EQ(0, cvx);
  VRXsetintparam(VRXgetenv(m), "Presolve", 0);
  EXPECT_FALSE(vrx::pwlNativeFits(m, 1));
  EXPECT_EQ(VRX_ERROR_NOT_SUPPORTED, VRXoptimize(m));
  VRXfreemodel(m);
}

TEST(PwlNative, WarmResolveAfterAChange) {
  // A run stopped by the iteration limit, then the limit raised: the kept record goes on
  // from the segments it stood on, with both methods, to the optimum of a cold run.
  Env e;
  Rand rnd{77u};
  int warmRuns = 0;
  for (int round = 0; round < 12; round++) {
    const int method = round % 2;
    SCOPED_TRACE("round " + std::to_string(round) + " method " + std::to_string(method));
    ModelDef def;
    std::vector<Term> terms;
    randomModel(rnd, round + 3, &def, &terms);
    VRXmodel* cold = buildPwl(e.env, def, terms);
    const Outcome full = solve(cold, method, 0, def);
    VRXfreemodel(cold);
    ASSERT_EQ(VRX_OPTIMAL, full.status);
    if (full.iters < 2) continue;
    VRXmodel* m = buildPwl(e.env, def, terms);
    VRXsetdblparam(VRXgetenv(m), "IterationLimit", std::floor(full.iters / 2));
    ASSERT_EQ(VRX_ITERATION_LIMIT, solve(m, method, 0, def).status);
    const void* kept = m->lp;
    ASSERT_NE(nullptr, kept);
    VRXsetdblparam(VRXgetenv(m), "IterationLimit", INF);
    const Outcome warm = solve(m, method, 0, def);
    EXPECT_EQ(kept, m->lp);
    ASSERT_EQ(VRX_OPTIMAL, warm.status);
    EXPECT_NEAR(full.obj, warm.obj, 1e-6 * (1 + std::fabs(full.obj)));
    expectOptimal(def, terms, warm);
    warmRuns++;
    VRXfreemodel(m);
  }
  EXPECT_GE(warmRuns, 6);
}

TEST(PwlNative, WarmStartFromThePublishedBasis) {
  // After a change of a cost or of a bound the next solve starts from the basis the last one
  // published (a term's column at an inner break point as superbasic) and reaches the
  // optimum of a cold solve of the changed model; the primal needs far fewer iterations.
  Env e;
  Rand rnd{31u};
  double warmIters = 0, coldIters = 0;
  int warmBeatsCold = 0, runs = 0;
  for (int round = 0; round < 24; round++) {
    const int method = round % 2;
    SCOPED_TRACE("round " + std::to_string(round) + " method " + std::to_string(method));
    ModelDef def;
    std::vector<Term> terms;
    randomModel(rnd, round + 5, &def, &terms);
    VRXmodel* m = buildPwl(e.env, def, terms);
    ASSERT_EQ(VRX_OPTIMAL, solve(m, method, 0, def).status);
    int vb = 99;
    ASSERT_EQ(0, VRXgetintattrelement(m, "VBasis", 0, &vb));
    // A small change: the cost of one column (the record goes, the basis stays), or the
    // bound of a column without a term (the record stays).
    const int j = (round / 2) % static_cast<int>(def.cols.size());
    if (round % 4 < 2) {
      def.obj[static_cast<size_t>(j)] += 0.05;
      ASSERT_EQ(0, VRXsetdblattrelement(m, "Obj", j, def.obj[static_cast<size_t>(j)]));
    } else {
      const int k = 2 + 3 * (j / 3);
      if (k >= static_cast<int>(def.cols.size())) continue;
      def.ub[static_cast<size_t>(k)] *= 0.9;
      ASSERT_EQ(0, VRXsetdblattrelement(m, "UB", k, def.ub[static_cast<size_t>(k)]));
    }
    const Outcome warm = solve(m, method, 0, def);
    VRXmodel* c = buildPwl(e.env, def, terms);
    const Outcome cold = solve(c, method, 0, def);
    ASSERT_EQ(VRX_OPTIMAL, cold.status);
    ASSERT_EQ(VRX_OPTIMAL, warm.status);
    EXPECT_NEAR(cold.obj, warm.obj, 1e-6 * (1 + std::fabs(cold.obj)));
    expectOptimal(def, terms, warm);
    if (method == 0) {
      EXPECT_EQ(0, static_cast<const VRXlp*>(m->lp)->pwl->rounds);
      warmIters += warm.iters;
      coldIters += cold.iters;
      warmBeatsCold += warm.iters < cold.iters;
      runs++;
    }
    VRXfreemodel(m);
    VRXfreemodel(c);
  }
  EXPECT_GE(runs, 9);
  EXPECT_LT(2 * warmIters, coldIters);
  EXPECT_GE(4 * warmBeatsCold, 3 * runs);
}

TEST(PwlNative, FailingAllocationsLeakNothing) {
  // Every allocation of a native solve fails in turn, with both methods.
  Rand rnd{5u};
  ModelDef def;
  std::vector<Term> terms;
  randomModel(rnd, 4, &def, &terms);
  for (int method = 0; method <= 1; method++) {
    SCOPED_TRACE("method " + std::to_string(method));
    vrxtest::expectAllocationSweep(
        def, terms,
        [method](VRXenv* env) {
          VRXsetintparam(env, "Presolve", 0);
          VRXsetintparam(env, "Method", method);
        },
        [](VRXmodel* m) { ASSERT_NE(nullptr, static_cast<const VRXlp*>(m->lp)->pwl); });
  }
}
