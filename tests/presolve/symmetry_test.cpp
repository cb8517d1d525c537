// The symmetry pass: columns of one cell merged into their sum, the rows of a
// cell into one, and the walk back to an optimal point and a basis of the
// original; the kind 18 and kind 13 walks on hand-made maps.
#include <cmath>
#include <cstdio>

#include "../support/capture.h"
#include "harness.h"

namespace {

using namespace pretest;

constexpr double INF = 1e100;

// Solves with and without presolve (symmetry pass on); the walked-back point must be
// optimal on the original and its basis of the right size, and the clean-up from it
// must end optimal at the same objective.
Result symmetric(const Def& def, const char* what, bool expectMerge) {
  Env e;
  VRXmodel* a = load(e.env, def);
  VRXmodel* b = load(e.env, def);
  VRXsetintparam(VRXgetenv(b), "VORN_PAR_PRESYMMPASSES", 0);
  Plain p = plain(a);
  Result r = run(b, true);
  EXPECT_EQ(2, p.status) << what;
  EXPECT_EQ(0, r.presolveStatus) << what;
  EXPECT_EQ(2, r.status) << what;
  EXPECT_EQ(expectMerge, has(r, vrx::UNDO_MERGECOLS)) << what;
  EXPECT_NEAR(p.obj, r.obj, 1e-9 * (1 + std::fabs(p.obj))) << what;
  if (r.status == 2) {
    expectOptimalWalk(b->data, r, what);
    EXPECT_NEAR(p.obj, r.cleanupObj, 1e-9 * (1 + std::fabs(p.obj))) << what;
    std::printf("[ symmetry ] %s: %d x %d -> %d x %d, %.0f clean-up iterations\n", what, b->data->numConstrs,
                b->data->numVars, r.preRows, r.preCols, r.cleanupIters);
  }
  VRXfreemodel(a);
  VRXfreemodel(b);
  return r;
}

// Sources A and B alike (supply 8, costs 2 4 5), source C apart (supply 20, costs
// 3 3 3), demands 6 7 5. Columns x_sk at 3 s + k; rows: supplies 0..2, demands 3..5.
Def transport() {
  Def d;
  const double cost[3][3] = {{2, 4, 5}, {2, 4, 5}, {3, 3, 3}};
  for (int s = 0; s < 3; ++s)
    for (int k = 0; k < 3; ++k) {
      d.obj.push_back(cost[s][k]);
      d.lb.push_back(0);
      d.ub.push_back(INF);
      d.cols.push_back({{s, 1}, {3 + k, 1}});
    }
  d.sense = "<<<>>>";
  d.rhs = {8, 8, 20, 6, 7, 5};
  return d;
}

// Items 0..2 alike (weight 2, cost 1), item 3 apart (weight 4, cost 3), bins 0 and 1
// alike, each to be covered to 3; each item is used at most once. x_ib at 2 i + b;
// rows: items 0..3, bins 4..5. Every alike item goes half into each bin.
Def covering() {
  Def d;
  for (int i = 0; i < 4; ++i)
    for (int b = 0; b < 2; ++b) {
      d.obj.push_back(i < 3 ? 1 : 3);
      d.lb.push_back(0);
      d.ub.push_back(1);
      d.cols.push_back({{i, 1}, {4 + b, i < 3 ? 2.0 : 4.0}});
    }
  d.sense = "<<<<>>";
  d.rhs = {1, 1, 1, 1, 3, 3};
  return d;
}

TEST(PresolveSymmetry, IdenticalSourcesOfATransportProblemMerge) {
  Def d = transport();
  Result r = symmetric(d, "transport", true);
  EXPECT_NEAR(48.0, r.obj, 1e-9);
  // The cheap demand is split evenly between the two sources that are alike.
  EXPECT_NEAR(3.0, r.x[0], 1e-12);
  EXPECT_NEAR(3.0, r.x[3], 1e-12);
  EXPECT_NEAR(0.0, r.y[0], 1e-12);
  EXPECT_NEAR(0.0, r.y[1], 1e-12);
  // Switched off, nothing of the kind.
  Env e;
  VRXmodel* m = load(e.env, d);
  Result off = run(m, false);
  EXPECT_FALSE(has(off, vrx::UNDO_MERGECOLS));
  VRXfreemodel(m);

  // With tight supplies both alike sources carry a dual: it comes back shared.
  d.rhs = {2, 2, 20, 6, 7, 5};
  Result tight = symmetric(d, "transport, tight supplies", true);
  EXPECT_NEAR(2 * 4 + 3 * 14, tight.obj, 1e-9);
  EXPECT_NEAR(tight.y[0], tight.y[1], 1e-12);
  EXPECT_LT(tight.y[0], -0.5);
}

TEST(PresolveSymmetry, RefinementCutShortByItsWorkLimitMergesNothing) {
  // A partition left unfinished is coarser than the equitable one: merging by it
  // would change the optimum, so a pass out of budget leaves the record alone.
  Env e;
  VRXmodel* m = load(e.env, transport());
  double work = 0;
  vrx::PresolveHolder hold;
  hold.p = vrx::presolveCreate(m->env, m->data, &work);
  vrx::allActivities(hold.p);
  const int cols = hold.p->liveCols, rows = hold.p->liveRows;
  EXPECT_EQ(0, vrx::symmetryPass(hold.p, 1e-9));
  EXPECT_GT(work, 0);
  EXPECT_EQ(cols, hold.p->liveCols);
  EXPECT_EQ(0, hold.p->undo.count);
  EXPECT_EQ(0, vrx::symmetryPass(hold.p, 1.75));
  EXPECT_EQ(cols - 3, hold.p->liveCols);
  EXPECT_EQ(rows - 1, hold.p->liveRows);
  EXPECT_EQ(3, hold.p->undo.count);
  // The record lives in the model's environment: it goes first.
  vrx::presolveFree(hold.p);
  hold.p = nullptr;
  VRXfreemodel(m);
}

TEST(PresolveSymmetry, OneCoefficientBreaksTheSymmetry) {
  Def d = transport();
  d.cols[5][0].second = 2;  // x_B3 weighs double in B's supply
  Result r = symmetric(d, "near-symmetric transport", false);
  EXPECT_NEAR(48.0, r.obj, 1e-9);
  // A cost, a bound and a side each break it as well.
  const char* what[] = {"cost", "bound", "side"};
  for (int t = 0; t < 3; ++t) {
    Def v = transport();
    if (t == 0) v.obj[4] = 4.5;
    if (t == 1) v.ub[3] = 9;
    if (t == 2) v.rhs[1] = 8.5;
    Result rv = symmetric(v, what[t], false);
    EXPECT_EQ(2, rv.status) << what[t];
  }
}

TEST(PresolveSymmetry, InterchangeableItemsOfACoveringLP) {
  Def d = covering();
  Result r = symmetric(d, "covering", true);
  EXPECT_NEAR(3.0, r.obj, 1e-9);
  EXPECT_LE(r.preCols, 2);
  for (int j = 0; j < 6; ++j) EXPECT_NEAR(0.5, r.x[j], 1e-12) << j;
  EXPECT_NEAR(r.y[4], r.y[5], 1e-12);
  EXPECT_NEAR(r.y[0], r.y[2], 1e-12);
}

TEST(PresolveSymmetry, OptimizeThroughTheLPDriver) {
  // The covering LP through VRXoptimize: the clean-up after the walk back moves
  // from the symmetric point to a vertex, and says so.
  Def d = covering();
  Env e;
  VRXmodel* m = load(e.env, d);
  captureLogOf(VRXgetenv(m));
  VRXsetintparam(VRXgetenv(m), "VORN_PAR_PRESYMMPASSES", 0);
  ASSERT_EQ(0, VRXoptimize(m));
  int status = 0;
  double obj = 0;
  VRXgetintattr(m, "Status", &status);
  VRXgetdblattr(m, "ObjVal", &obj);
  EXPECT_EQ(VRX_OPTIMAL, status);
  EXPECT_NEAR(3.0, obj, 1e-9);
  Result r;
  sizePoint(r, 8, 6);
  ASSERT_EQ(0, VRXgetdblattrarray(m, "X", 0, 8, r.x.data()));
  ASSERT_EQ(0, VRXgetdblattrarray(m, "Pi", 0, 6, r.y.data()));
  ASSERT_EQ(0, VRXgetdblattrarray(m, "RC", 0, 8, r.d.data()));
  ASSERT_EQ(0, VRXgetintattrarray(m, "VBasis", 0, 8, r.cs.data()));
  ASSERT_EQ(0, VRXgetintattrarray(m, "CBasis", 0, 6, r.rs.data()));
  Quality q = measure(m->data, r);
  EXPECT_LT(q.primal, 1e-9);
  EXPECT_LT(q.dual, 1e-9);
  EXPECT_EQ(q.rows, q.basics);
  const std::string& log = capturedLog();
  EXPECT_NE(std::string::npos, log.find("Presolve removed ")) << log;
  EXPECT_NE(std::string::npos, log.find(" after uncrush")) << log;
  VRXfreemodel(m);
}

TEST(PresolveSymmetry, EquitablePartitionCoarserThanTheOrbits) {
  // Fractional matching on a 6-cycle beside two triangles: every vertex has degree 2,
  // so one cell holds all edges though no automorphism maps the cycle onto a
  // triangle. The averaging argument still holds: all edges at 0.5, optimum 6.
  Def d;
  const int edges[12][2] = {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}, {5, 0},
                            {6, 7}, {7, 8}, {8, 6}, {9, 10}, {10, 11}, {11, 9}};
  for (auto& e : edges) {
    d.obj.push_back(-1);
    d.lb.push_back(0);
    d.ub.push_back(1);
    d.cols.push_back({{e[0], 1}, {e[1], 1}});
  }
  d.sense = std::string(12, '<');
  d.rhs.assign(12, 1);
  Result r = symmetric(d, "cycle and triangles", true);
  EXPECT_NEAR(-6.0, r.obj, 1e-12);
  EXPECT_LE(r.preCols, 1);
  for (int j = 0; j < 12; ++j) EXPECT_NEAR(0.5, r.x[j], 1e-12);
  // Without dual reductions the pass does not run.
  Env e;
  VRXmodel* m = load(e.env, d);
  VRXsetintparam(VRXgetenv(m), "VORN_PAR_PRESYMMPASSES", 0);
  VRXsetintparam(VRXgetenv(m), "DualReductions", 0);
  Result off = run(m, false);
  EXPECT_FALSE(has(off, vrx::UNDO_MERGECOLS));
  VRXfreemodel(m);
}

TEST(PresolveSymmetry, NetlibModelsWithSymmetryStayExact) {
  // Netlib models where the pass finds cells to merge.
  auto ref = reference("netlib");
  Env e;
  for (const char* name : {"finnis", "maros", "shell", "standata", "vtpbase"}) {
    VRXmodel* m = nullptr;
    const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
    ASSERT_EQ(0, VRXreadmodel(e.env, path.c_str(), &m)) << name;
    VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
    VRXsetintparam(VRXgetenv(m), "VORN_PAR_PRESYMMPASSES", 0);
    Result r = run(m, true);
    EXPECT_TRUE(has(r, vrx::UNDO_MERGECOLS)) << name;
    EXPECT_EQ(2, r.status) << name;
    EXPECT_TRUE(closeTo(r.obj, ref[name])) << name << ": " << r.obj << " expected " << ref[name];
    Quality q = measure(m->data, r);
    EXPECT_EQ(q.rows, q.basics) << name;
    EXPECT_LT(q.identity, 1e-9) << name;
    EXPECT_LT(q.primal, 1e-5) << name;
    EXPECT_LT(q.dual, 1e-5) << name;
    EXPECT_EQ(2, r.cleanupStatus) << name;
    EXPECT_TRUE(closeTo(r.cleanupObj, ref[name])) << name;
    std::printf("[ symmetry ] %s: %d x %d -> %d x %d, %.0f clean-up iterations\n", name, m->data->numConstrs,
                m->data->numVars, r.preRows, r.preCols, r.cleanupIters);
    VRXfreemodel(m);
  }
}

// ---- the walks on hand-made maps ----

// The walk of a hand-made map over a presolved point given in full.
Result walk(VRXpresolvemap* map, std::vector<double> x, std::vector<double> y, std::vector<double> d,
            std::vector<int> cs, std::vector<int> rs) {
  Result w;
  vrx::LPPoint out = sizePoint(w, map->origCols, map->origRows);
  vrx::LPPoint pre{x.data(), y.data(), d.data(), cs.data(), rs.data()};
  EXPECT_EQ(0, vrx::uncrushLP(map, pre, out));
  return w;
}

int basics(const Result& w) {
  int b = 0;
  for (int s : w.cs) b += s == vrx::kStBasic;
  for (int s : w.rs) b += s == vrx::kRowBasic;
  return b;
}

TEST(PresolveSymmetry, MergedColumnsWalkBackToSharesAndABasisOfTheRightSize) {
  Env e;
  // Columns 0..2 one cell (kept: 0), 3..4 another (kept: 3), column 5 alone; rows
  // 0..1 one cell (kept: 0), row 2 alone. Presolved: columns 0, 3, 5 and rows 0, 2.
  auto build = [&](HandMap& h) {
    for (int j : {1, 2, 4}) h.map->colMap[j] = -2;
    h.map->colMap[3] = 1;
    h.map->colMap[5] = 2;
    h.map->rowMap[1] = -1;
    h.map->rowMap[2] = 1;
    // The oldest record of the pass lists every cell.
    h.push(vrx::UNDO_MERGECOLS, {0, 3, 0, 1, 2, 1, 2, 2, 0, 1, 3, 2, 0, 1, 2, 3, 4}, {});
    h.push(vrx::UNDO_MERGECOLS, {3, 2, 3, 4, 0, 0}, {});
  };
  {
    // Cell 0 basic, cell 3 at lower, row cell tight: 2 basics for 2 presolved rows;
    // the original has 3 rows, and cell 0 brings two members too many... one goes.
    HandMap h(e.env, 6, 3);
    build(h);
    Result w = walk(h.map, {6, 0, 1}, {-3, 0}, {0, 2, 0}, {vrx::kStBasic, vrx::kStLower, vrx::kStBasic},
                    {vrx::kRowActive, vrx::kRowActive});
    for (int j : {0, 1, 2}) EXPECT_DOUBLE_EQ(2.0, w.x[j]);
    for (int j : {3, 4}) EXPECT_DOUBLE_EQ(0.0, w.x[j]);
    EXPECT_DOUBLE_EQ(-1.5, w.y[0]);
    EXPECT_DOUBLE_EQ(-1.5, w.y[1]);
    for (int j : {3, 4}) EXPECT_DOUBLE_EQ(2.0, w.d[j]);
    EXPECT_EQ(vrx::kRowActive, w.rs[1]);
    EXPECT_EQ(3, basics(w));
    EXPECT_EQ(vrx::kStBasic, w.cs[0]);
    EXPECT_EQ(vrx::kStLower, w.cs[2]);  // the last member leaves for its nearer bound
  }
  {
    // Both cells at bounds, the row cell tight, rows 0 and 2 nonbasic and column 5
    // basic (one short of two? the presolved basis holds 2: column 5 and row 2 basic).
    // The original needs one more: the member with zero reduced cost comes in.
    HandMap h(e.env, 6, 3);
    build(h);
    Result w = walk(h.map, {0, 0, 1}, {-2, 0}, {0.5, 0, 0}, {vrx::kStLower, vrx::kStLower, vrx::kStBasic},
                    {vrx::kRowActive, vrx::kRowBasic});
    EXPECT_EQ(3, basics(w));
    EXPECT_EQ(vrx::kStBasic, w.cs[4]);  // cell 3's member at d = 0
    EXPECT_EQ(vrx::kStLower, w.cs[1]);  // cell 0's members keep d = 0.5 at their bound
    EXPECT_DOUBLE_EQ(-1.0, w.y[1]);
  }
  {
    // Crush: the sum goes to every member; a cut's members share its coefficient.
    HandMap h(e.env, 6, 3);
    build(h);
    std::vector<double> orig = {1, 2, 3, 4, 5, 6}, pre(6, -7);
    int partial = 1;
    ASSERT_EQ(0, vrx::crushStart(h.map, orig.data(), pre.data(), &partial));
    EXPECT_DOUBLE_EQ(6.0, pre[0]);
    EXPECT_DOUBLE_EQ(9.0, pre[1]);
    EXPECT_DOUBLE_EQ(6.0, pre[2]);
    EXPECT_EQ(0, partial);
    orig[4] = vrx::kUndefined;
    ASSERT_EQ(0, vrx::crushStart(h.map, orig.data(), pre.data(), &partial));
    EXPECT_EQ(vrx::kUndefined, pre[1]);
    EXPECT_EQ(1, partial);
    // x0 + 2 x1 + x4 <= 10: members of a cell hold equal shares of the sum, so
    // it reads s0 (1 + 2 + 0) / 3 + s3 (0 + 1) / 2 <= 10.
    const int ind[] = {0, 1, 4};
    const double coef[] = {1, 2, 1};
    int oc = 0, oi[6];
    double ov[6], orhs = 0;
    ASSERT_EQ(0, vrx::crushExpr(h.map, 3, ind, coef, 10, &oc, oi, ov, &orhs));
    ASSERT_EQ(2, oc);
    for (int t = 0; t < oc; ++t) EXPECT_DOUBLE_EQ(oi[t] == 0 ? 1.0 : 0.5, ov[t]);
    EXPECT_DOUBLE_EQ(10.0, orhs);
  }
}

// min -x0 - x1 - 2 x2 - x3 s.t. row 0: x0 + x1 + x2 + x3 <= 10, row 1: x2 + 2 x3 <= 8,
// bounds 0..6. Split by hand: row 0 keeps x0 + x1 + z <= 10 and the new row 2
// holds x2 + x3 - z = 0 with z free (column 4).
Def splitOriginal() {
  Def d;
  d.obj = {-1, -1, -2, -1};
  d.lb = {0, 0, 0, 0};
  d.ub = {6, 6, 6, 6};
  d.sense = "<<";
  d.rhs = {10, 8};
  d.cols = {{{0, 1}}, {{0, 1}}, {{0, 1}, {1, 1}}, {{0, 1}, {1, 2}}};
  return d;
}

TEST(PresolveSymmetry, SplitRowGivesItsDualAndBasisBack) {
  for (double rhs0 : {10.0, 30.0}) {  // row 0 binding, then slack
    Env e;
    Def orig = splitOriginal();
    orig.rhs[0] = rhs0;
    Def split = orig;
    split.cols[2] = {{2, 1}, {1, 1}};
    split.cols[3] = {{2, 1}, {1, 2}};
    split.cols.push_back({{0, 1}, {2, -1}});
    split.obj.push_back(0);
    split.lb.push_back(-INF);
    split.ub.push_back(INF);
    split.sense = "<<=";
    split.rhs = {rhs0, 8, 0};
    VRXmodel* om = load(e.env, orig);
    VRXmodel* sm = load(e.env, split);
    Plain ps = plain(sm);
    ASSERT_EQ(2, ps.status);
    std::vector<int> pcs(5), prs(3);
    {
      // The statuses of the split solve.
      std::vector<double> x(5), y(3), d(5);
      vrx::LPPoint pt{x.data(), y.data(), d.data(), pcs.data(), prs.data()};
      double it = 0, ob = 0;
      ASSERT_EQ(2, solveStore(sm, nullptr, nullptr, &it, &ob, &pt));
    }
    HandMap h(e.env, 4, 2);
    h.map->addedCols = 1;
    h.map->addedRows = 1;
    h.map->colMap[4] = 4;
    h.map->rowMap[2] = 2;
    h.push(vrx::UNDO_ROWSPLIT, {0, 4, 2, 2, 2, 3}, {0, 1, -1, 1, 1});
    Result w = walk(h.map, ps.x, ps.y, ps.d, pcs, prs);
    Quality q = measure(om->data, w);
    EXPECT_LT(q.primal, 1e-9) << rhs0;
    EXPECT_LT(q.dual, 1e-9) << rhs0;
    EXPECT_LT(q.identity, 1e-12) << rhs0;
    EXPECT_EQ(q.rows, q.basics) << rhs0;
    double iters = -1, obj = 0;
    EXPECT_EQ(2, solveStore(om, w.cs.data(), w.rs.data(), &iters, &obj, nullptr)) << rhs0;
    EXPECT_EQ(0, iters) << rhs0;
    EXPECT_NEAR(ps.obj, obj, 1e-9) << rhs0;
    VRXfreemodel(om);
    VRXfreemodel(sm);
  }
  {
    // By hand: z and the new row's slack both basic (row 0 was slack): row 0 comes
    // back basic. Then z nonbasic off zero reduced cost, the new row's slack basic:
    // d of x2 and x3 take d_z over, d = d' - coef d_z / c_q, and row 0 stays active.
    Env e;
    HandMap h(e.env, 4, 2);
    h.map->addedCols = 1;
    h.map->addedRows = 1;
    h.map->colMap[4] = 4;
    h.map->rowMap[2] = 2;
    h.push(vrx::UNDO_ROWSPLIT, {0, 4, 2, 2, 2, 3}, {0, 1, -1, 1, 1});
    const int U = vrx::kStUpper, B = vrx::kStBasic;
    Result w = walk(h.map, {6, 6, 2, 3, 5}, {0, -1, 0}, {-1, -1, 0, 1, 0}, {U, U, B, U, B},
                    {vrx::kRowActive, vrx::kRowActive, vrx::kRowBasic});
    EXPECT_EQ(vrx::kRowBasic, w.rs[0]);
    EXPECT_EQ(2, basics(w));
    w = walk(h.map, {6, 6, 2, 3, 5}, {-1, 0, 0}, {-1, -1, 0, 1, 0.5}, {U, U, B, U, vrx::kStFree},
             {vrx::kRowActive, vrx::kRowBasic, vrx::kRowBasic});
    EXPECT_EQ(vrx::kRowActive, w.rs[0]);
    EXPECT_EQ(2, basics(w));
    EXPECT_DOUBLE_EQ(0.5, w.d[2]);
    EXPECT_DOUBLE_EQ(1.5, w.d[3]);
    EXPECT_DOUBLE_EQ(-1.0, w.d[0]);
  }
}

}  // namespace
