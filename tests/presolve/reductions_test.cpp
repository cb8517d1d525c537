// Each reduction on a small LP built to trigger it: the LP is solved with and
// without presolve, and the walked-back primal and dual solutions, the basis
// and the objective are compared.
#include <algorithm>
#include <cmath>

#include "harness.h"

namespace {

using namespace pretest;

constexpr double INF = 1e100;

TEST(PresolveReductions, SingletonRowsBecomeBoundsAndGiveTheirDualBack) {
  // x2 <= 3 and 2 x1 >= 1 are bounds; 3 x3 = 6 fixes x3. The optimum sits on x2's new bound,
  // so that row's dual comes back from the column's reduced cost.
  Def d;
  d.obj = {-1, -2, 0.5};
  d.lb = {0, 0, 0};
  d.ub = {INF, INF, INF};
  d.sense = "<<>=";
  d.rhs = {6, 3, 1, 6};
  d.cols = {{{0, 1}, {2, 2}}, {{0, 1}, {1, 1}}, {{0, 1}, {3, 3}}};
  Result r = bothWays(d, kPrimal | kDual, "singleton rows");
  EXPECT_TRUE(has(r, vrx::UNDO_SINGLETONROW));
  EXPECT_TRUE(has(r, vrx::UNDO_FIXCOL));
  EXPECT_NEAR(-1.0, r.y[1], 1e-12);  // the row x2 <= 3 binds
}

TEST(PresolveReductions, DoubletonEquationCarriesABoundAcross) {
  // x0 - 2 x1 = 1: x1 goes, and its bound x1 >= 0 comes across as x0 >= 1. The optimum
  // sits on that carried bound, so on the way back x0 turns basic and x1 takes the
  // nonbasic place at its own bound.
  Def d;
  d.obj = {1, 0.5, -1};
  d.lb = {0, 0, 0};
  d.ub = {5, INF, 4};
  d.sense = "=<<";
  d.rhs = {1, 10, 7};
  d.cols = {{{0, 1}, {2, 1}}, {{0, -2}, {1, 1}}, {{1, 1}, {2, 1}}};
  Result r = bothWays(d, kPrimal | kDual, "doubleton");
  EXPECT_TRUE(has(r, vrx::UNDO_SUBSTCOL));
  EXPECT_TRUE(has(r, vrx::UNDO_DOUBLETONROW));
  EXPECT_NEAR(1.0, r.x[0], 1e-12);
  EXPECT_NEAR(0.0, r.x[1], 1e-12);
  EXPECT_EQ(vrx::kStBasic, r.cs[0]);
  EXPECT_EQ(vrx::kStLower, r.cs[1]);
}

TEST(PresolveReductions, FreeColumnWithCostGoesWithItsRow) {
  // x0 is free with a cost in an equation that implies both its bounds; it and
  // the row disappear, and the row's dual comes back from the kind 2 record.
  Def d;
  d.obj = {2, 1, 3, -1};
  d.lb = {-INF, 0, 0, 0};
  d.ub = {INF, 4, 5, 6};
  d.sense = "=<>";
  d.rhs = {2, 8, 3};
  d.cols = {{{0, 1}}, {{0, -1}, {1, 1}, {2, 1}}, {{0, 0.5}, {1, 2}, {2, 1}}, {{1, 1}, {2, -1}}};
  Result r = bothWays(d, kPrimal | kDual, "free column");
  EXPECT_TRUE(has(r, vrx::UNDO_SUBSTCOL));
}

TEST(PresolveReductions, ImpliedFreeColumnIsAggregated) {
  // x0 has bounds [-100, 100] that its rows imply; it sits in three rows, one of them an
  // equation, so the aggregator takes it out and the fill lands in the other two rows.
  Def d;
  d.obj = {1, -2, 1, -1, 0.5};
  d.lb = {-100, 0, 0, 0, 0};
  d.ub = {100, 3, 4, 5, 6};
  d.sense = "=<<<";
  d.rhs = {1, 9, 8, 12};
  d.cols = {{{0, 1}, {1, 1}, {2, -1}},
            {{0, -1}, {1, 2}, {3, 1}},
            {{0, 1}, {2, 1}, {3, 1}},
            {{0, -1}, {1, 1}, {3, 2}},
            {{1, 1}, {2, 1}, {3, 1}}};
  // The optimum is not unique: the objective and the optimality of the point decide.
  Result r = bothWays(d, 0, "aggregator");
  EXPECT_TRUE(has(r, vrx::UNDO_SUBSTCOL));
}

TEST(PresolveReductions, SlackColumnTurnsAnEquationIntoAnInequality) {
  // s has one entry, no cost and only a lower bound: x0 + 2 x1 + s = 5 reads x0 + 2 x1 <= 5.
  Def d;
  d.obj = {-1, -1, 0, 0};
  d.lb = {0, 0, 0, 0};
  d.ub = {INF, INF, INF, 4};
  d.sense = "=<";
  d.rhs = {5, 4};
  d.cols = {{{0, 1}, {1, 1}}, {{0, 2}, {1, -1}}, {{0, 1}}, {{1, 1}}};
  Result r = bothWays(d, kPrimal | kDual, "column to slack");
  EXPECT_TRUE(has(r, vrx::UNDO_COLTOSLACK));
  // Negative coefficient: the row is turned around as it becomes an inequality.
  d.cols[2] = {{0, -1}};
  d.obj = {1, 1.5, 0, 0};
  Result r2 = bothWays(d, kPrimal | kDual, "column to slack, turned");
  EXPECT_TRUE(has(r2, vrx::UNDO_COLTOSLACK));
  // With a cost the column stays a column.
  d.obj = {1, 1.5, 0.5, 0};
  Result r3 = bothWays(d, kPrimal | kDual, "costed slack");
  EXPECT_FALSE(has(r3, vrx::UNDO_COLTOSLACK));
}

TEST(PresolveReductions, ForcingAndRedundantRows) {
  // x0 + x1 + x2 <= 0 with x >= 0 forces all three to 0; its dual is rebuilt from the
  // columns' reduced costs. x3 + x4 <= 100 can never bind.
  Def d;
  d.obj = {-3, 1, -1, -1, -2};
  d.lb = {0, 0, 0, 0, 0};
  d.ub = {INF, INF, INF, 10, 10};
  d.sense = "<<<<";
  d.rhs = {0, 100, 4, 6};
  d.cols = {{{0, 1}, {2, 1}}, {{0, 1}, {3, 1}}, {{0, 1}, {2, 1}, {3, 1}}, {{1, 1}, {2, 1}}, {{1, 1}, {3, 1}}};
  // The forcing row leaves the problem degenerate: duals are compared through optimality.
  Result r = bothWays(d, kPrimal, "forcing");
  EXPECT_TRUE(has(r, vrx::UNDO_FORCINGROW));
  EXPECT_LT(r.y[0], -1e-9);  // the forcing row carries a dual
}

TEST(PresolveReductions, EmptyRowsAndColumnsAndFixedColumns) {
  Def d;
  d.obj = {1, -1, 2, 0, 3};
  d.lb = {0, 0, 3, -INF, 1};
  d.ub = {INF, 5, 3, INF, 7};
  d.sense = "<<>";
  d.rhs = {4, 5, -2};
  // Row 1 is empty; column 3 (free, no cost) and column 4 (cost 3) have no entries;
  // column 2 is fixed at 3.
  d.cols = {{{0, 1}, {2, 1}}, {{0, 1}}, {{0, 1}, {2, -1}}, {}, {}};
  Result r = bothWays(d, kPrimal | kDual, "empty and fixed");
  EXPECT_TRUE(has(r, vrx::UNDO_FIXCOL));
  EXPECT_NEAR(1.0, r.x[4], 1e-12);
  EXPECT_NEAR(3.0, r.x[2], 1e-12);
}

TEST(PresolveReductions, DominatedColumnsAndDualFixing) {
  // x2 only loosens '<' rows when it falls and costs 1: dual fixing puts it at 0.
  // x3 and x4 are singletons of row 1; x4 is dominated by x3 (same entry, higher cost).
  Def d;
  d.obj = {-1, -2, 1, -1, -0.5};
  d.lb = {0, 0, 0, 0, 0};
  d.ub = {INF, INF, 8, INF, INF};
  d.sense = "<<<";
  d.rhs = {4, 6, 5};
  d.cols = {{{0, 1}, {1, 1}, {2, 1}}, {{0, 1}, {2, 2}}, {{0, 2}, {2, 1}}, {{1, 1}}, {{1, 1}}};
  Result r = bothWays(d, kPrimal, "dominated");
  EXPECT_TRUE(has(r, vrx::UNDO_FIXCOL));
  EXPECT_NEAR(0.0, r.x[2], 1e-12);
  EXPECT_NEAR(0.0, r.x[4], 1e-12);
}

TEST(PresolveReductions, DependentEquationsGo) {
  // Row 2 = row 0 + row 1, consistent: it goes with dual 0 and a basic slack.
  Def d;
  d.obj = {1, 2, 3, 1};
  d.lb = {0, 0, 0, 0};
  d.ub = {10, 10, 10, 10};
  d.sense = "===<";
  d.rhs = {4, 6, 10, 20};
  d.cols = {{{0, 1}, {2, 1}, {3, 1}}, {{0, 2}, {1, 1}, {2, 3}, {3, 2}}, {{1, 3}, {2, 3}, {3, 1}}, {{0, 1}, {1, 1}, {2, 2}, {3, 3}}};
  Env e;
  VRXmodel* m = load(e.env, d);
  VRXsetintparam(VRXgetenv(m), "PreDepRow", 1);
  VRXsetintparam(VRXgetenv(m), "Aggregate", 0);
  Result r = run(m, true);
  ASSERT_EQ(0, r.presolveStatus);
  ASSERT_EQ(2, r.status);
  EXPECT_LE(r.preRows, 3);
  Quality q = measure(m->data, r);
  EXPECT_LT(q.primal, 1e-9);
  EXPECT_LT(q.dual, 1e-9);
  EXPECT_EQ(q.rows, q.basics);
  EXPECT_EQ(0, r.cleanupIters);
  VRXfreemodel(m);
  // Inconsistent right-hand side: infeasible.
  d.rhs[2] = 11;
  m = load(e.env, d);
  VRXsetintparam(VRXgetenv(m), "PreDepRow", 1);
  VRXsetintparam(VRXgetenv(m), "Aggregate", 0);
  r = run(m, false);
  EXPECT_EQ(VRX_INFEASIBLE, r.presolveStatus);
  VRXfreemodel(m);
}

TEST(PresolveReductions, ParallelRowsAndColumns) {
  // Row 1 is -2 times row 0 with the right-hand side that makes them an equation;
  // column 3 is twice column 2 with twice its cost.
  Def d;
  d.obj = {-1, 1, 2, 4, -1};
  d.lb = {0, 0, 0, 0, 0};
  d.ub = {INF, INF, 3, 2, 5};
  d.sense = "<<<<";
  d.rhs = {4, -8, 9, 6};
  d.cols = {{{0, 1}, {1, -2}, {2, 1}},
            {{0, 2}, {1, -4}, {3, 1}},
            {{2, 1}, {3, -1}},
            {{2, 2}, {3, -2}},
            {{0, 1}, {1, -2}, {2, 1}, {3, 1}}};
  Result r = bothWays(d, kPrimal, "parallel");
  EXPECT_TRUE(has(r, vrx::UNDO_PARROW));
  EXPECT_TRUE(has(r, vrx::UNDO_DUPCOL));
}

TEST(PresolveReductions, MaximiseWithGreaterRows) {
  // The caller's sense and '>' rows: duals come back with the caller's signs.
  Def d;
  d.objSense = -1;
  d.obj = {3, 2, 4};
  d.lb = {0, 0, 1};
  d.ub = {INF, 6, INF};
  d.sense = "<>=<";
  d.rhs = {10, 2, 8, 5};
  d.cols = {{{0, 1}, {1, 1}, {2, 1}}, {{0, 2}, {1, -1}, {2, 1}}, {{0, 1}, {2, 1}, {3, 1}}};
  bothWays(d, kPrimal | kDual, "maximise");
}

TEST(PresolveReductions, InfeasibleAndUnboundedFoundByPresolve) {
  Env e;
  // Singleton rows that contradict each other.
  Def d;
  d.obj = {1, 1};
  d.lb = {0, 0};
  d.ub = {INF, INF};
  d.sense = "<>";
  d.rhs = {1, 3};
  d.cols = {{{0, 1}, {1, 1}}, {}};
  VRXmodel* m = load(e.env, d);
  Result r = run(m, false);
  EXPECT_EQ(VRX_INFEASIBLE, r.presolveStatus);
  VRXfreemodel(m);
  // An empty row with an impossible right-hand side.
  d.cols = {{{0, 1}}, {{0, 1}}};
  d.sense = "<=";
  d.rhs = {4, 2};
  m = load(e.env, d);
  r = run(m, false);
  EXPECT_EQ(VRX_INFEASIBLE, r.presolveStatus);
  VRXfreemodel(m);
  // An empty column that the objective drives to minus infinity.
  d.obj = {1, -1};
  d.cols = {{{0, 1}, {1, 1}}, {}};
  d.sense = "<<";
  d.rhs = {4, 2};
  d.ub = {INF, INF};
  m = load(e.env, d);
  r = run(m, false);
  EXPECT_EQ(VRX_INF_OR_UNBD, r.presolveStatus);
  VRXfreemodel(m);
  // With dual reductions off the same column stays and presolve cannot decide.
  m = load(e.env, d);
  VRXsetintparam(VRXgetenv(m), "DualReductions", 0);
  r = run(m, false);
  EXPECT_EQ(0, r.presolveStatus);
  VRXfreemodel(m);
}

TEST(PresolveReductions, EdgeCasesOfTheRowTests) {
  Env e;
  const double tol = std::ldexp(1.0, -20);  // exact in binary
  auto rowsLeft = [&](const Def& d) {
    VRXmodel* m = load(e.env, d);
    VRXsetdblparam(VRXgetenv(m), "FeasibilityTol", tol);
    double work = 0;
    vrx::PresolveOut out;
    EXPECT_EQ(0, vrx::presolveLP(m, &work, 0, &out));
    int rows = out.presolved ? out.presolved->data->numConstrs : -1;
    if (out.presolved) vrx::modelDestroy(out.presolved);
    vrx::presolveMapFree(out.map);
    VRXfreemodel(m);
    return rows;
  };
  // A second row keeps the columns alive so only the tested row can fall.
  Def d;
  d.obj = {-1, -1};
  d.lb = {0, 0};
  d.ub = {1, 1};
  d.sense = "<<";
  d.rhs = {2 - 0.9 * tol, 2.5};
  d.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 2}}};
  // maxAct = 0.9 tol: redundant; maxAct = tol exactly: it stays.
  d.rhs[0] = 2 - 0.9 * tol;
  const int redundant = rowsLeft(d);
  d.rhs[0] = 2 - tol;
  const int stays = rowsLeft(d);
  EXPECT_EQ(stays, redundant + 1);
  // b = 1e20 on an inequality is a free row; 9.9e19 is not.
  d.ub = {INF, INF};
  d.rhs = {1e20, 2.5};
  const int freeRow = rowsLeft(d);
  d.rhs = {9.9e19, 2.5};
  EXPECT_LT(freeRow, rowsLeft(d));
  // A singleton row with |a| = 5e-9 stays even if its bound would cut the column.
  Def s;
  s.obj = {-1, -1};
  s.lb = {0, 0};
  s.ub = {1000, 10};
  s.sense = "<<";
  s.rhs = {1e-9, 12};
  s.cols = {{{0, 5e-9}, {1, 1}}, {{1, 1}}};
  VRXmodel* m = load(e.env, s);
  double work = 0;
  vrx::PresolveOut out;
  ASSERT_EQ(0, vrx::presolveLP(m, &work, 0, &out));
  ASSERT_TRUE(out.presolved != nullptr);
  const VRXmodeldata* pd = out.presolved->data;
  bool tiny = false;
  for (int64_t k = 0; k < pd->colBeg[pd->numVars]; ++k) tiny = tiny || pd->val[k] == 5e-9;
  EXPECT_TRUE(tiny);
  vrx::modelDestroy(out.presolved);
  vrx::presolveMapFree(out.map);
  VRXfreemodel(m);
}

}  // namespace
