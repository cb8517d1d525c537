// The two-row pass, the re-basing of implied-free columns, and the crush and
// walk rules of the record kinds they and the later passes write.
#include <cmath>

#include "harness.h"

namespace {

using namespace pretest;

constexpr double INF = 1e100;

TEST(PresolveTwoRows, PairOfColumnsGoesWithItsTwoEquations) {
  // x0 and x1 lie only in the two equations; neither row alone keeps them in
  // their bounds, together they hold both in [2, 6]. Both rows and both columns go;
  // the optimum is unique (x2 = 4, x3 = 2), so x, y and d must match the plain solve.
  Def d;
  d.obj = {1, 2, -1, -1, -0.3};
  d.lb = {0, 0, 0, 0, 0};
  d.ub = {100, 100, 4, 4, 10};
  d.sense = "==<";
  d.rhs = {10, 2, 6};
  d.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, -1}}, {{0, 1}, {2, 1}}, {{1, 1}, {2, 1}}, {{2, 1}}};
  Result r = bothWays(d, kPrimal | kDual, "two rows");
  EXPECT_TRUE(has(r, vrx::UNDO_TWOROWS));
  EXPECT_LE(r.preRows, 1);
  EXPECT_LE(r.preCols, 3);
  EXPECT_NEAR(3.0, r.x[0], 1e-12);  // (12 - 4 - 2) / 2
  EXPECT_NEAR(3.0, r.x[1], 1e-12);  // (8 - 4 + 2) / 2
  EXPECT_NEAR(3.0, r.obj, 1e-12);

  // Switched off, or with a pair whose rows let x1 reach 0 from below, nothing of the kind.
  Result off = bothWays(d, kPrimal | kDual, "two rows off", {{"VORN_PAR_PRETWOROWS", 0}});
  EXPECT_FALSE(has(off, vrx::UNDO_TWOROWS));
  d.lb[1] = 3;  // x1 can come out at 2 from the rows: not implied, the pair stays
  Result tight = bothWays(d, 0, "two rows, bound not implied");
  EXPECT_FALSE(has(tight, vrx::UNDO_TWOROWS));

  // A singular pair (the same two columns, proportional in both rows) is left alone.
  Def s = d;
  s.lb[1] = 0;
  s.obj[1] = 3;  // not a duplicate of column 0
  s.cols[1] = {{0, 2}, {1, 2}};
  s.cols[0] = {{0, 1}, {1, 1}};
  s.rhs = {10, 10, 6};
  Result sing = bothWays(s, 0, "singular pair");
  EXPECT_FALSE(has(sing, vrx::UNDO_TWOROWS));
}

TEST(PresolveTwoRows, ImpliedFreeColumnIsRebasedAndFreed) {
  // x0 in [-50, 50] sits in two inequalities that hold it in [-3, 8]: it loses its
  // bounds and is measured from -50 (kind 9) at Presolve 2. The optimum is unique
  // and non-degenerate.
  Def d;
  d.obj = {-1, -3, -1};
  d.lb = {-50, 0, 0};
  d.ub = {50, 5, 6};
  d.sense = "<<<";
  d.rhs = {8, 3, 7};
  d.cols = {{{0, 1}, {1, -1}}, {{0, 1}, {2, 1}}, {{1, 1}, {2, 1}}};
  Result r = bothWays(d, kPrimal | kDual, "rebase", {{"Presolve", 2}});
  EXPECT_TRUE(has(r, vrx::UNDO_SCALECOL));
  EXPECT_NEAR(3.0, r.x[0], 1e-12);
  EXPECT_NEAR(-20.0, r.obj, 1e-12);
  EXPECT_EQ(vrx::kStBasic, r.cs[0]);

  // A bound the rows do not imply stays; the pass belongs to the aggressive level.
  d.lb[0] = -2;
  Result keep = bothWays(d, kPrimal | kDual, "bound not implied", {{"Presolve", 2}});
  EXPECT_FALSE(has(keep, vrx::UNDO_SCALECOL));
  d.lb[0] = -50;
  Result noAgg = bothWays(d, kPrimal | kDual, "aggregate off", {{"Presolve", 2}, {"Aggregate", 0}});
  EXPECT_FALSE(has(noAgg, vrx::UNDO_SCALECOL));
  Result dflt = bothWays(d, kPrimal | kDual, "default level");
  EXPECT_FALSE(has(dflt, vrx::UNDO_SCALECOL));
}

// The hand-made map with the crush read back in plain vectors.
struct Hand : HandMap {
  using HandMap::HandMap;
  std::vector<double> crush(std::vector<double> x, int* partial) {
    std::vector<double> out(x.size(), -7);
    EXPECT_EQ(0, vrx::crushStart(map, x.data(), out.data(), partial));
    return out;
  }
};

TEST(PresolveTwoRows, CrushOfTheDerivedColumns) {
  Env e;
  const double U = vrx::kUndefined;
  {
    // 10: column 1 was the slack of 2 x0 + 4 x1 + x2 = 12; the start gives x0 and x2 only.
    Hand h(e.env, 4, 1);
    h.map->colMap[1] = -2;
    h.push(vrx::UNDO_COLTOSLACK, {0, 1, 0, vrx::kStLower, 2, 0, 2}, {4, 0, 12, 2, 1});
    // 18 after it sums x1 and x3 into column 3.
    h.push(vrx::UNDO_MERGECOLS, {3, 2, 1, 2}, {});
    int partial = 0;
    auto pre = h.crush({1, U, 2, 5}, &partial);
    EXPECT_DOUBLE_EQ(2.0 + 2.0, pre[3]);  // x1 = (12 - 2 - 2) / 4 = 2
    EXPECT_EQ(0, partial);
    // An undefined term leaves the slack column undefined, not zero, and what needs it too.
    pre = h.crush({U, U, 2, 5}, &partial);
    EXPECT_EQ(U, pre[3]);
    EXPECT_EQ(1, partial);
  }
  {
    // 12: the binary follows its column; 13: the new column of a split row is
    // (rhs - terms) / its coefficient.
    Hand h(e.env, 5, 2);
    h.push(vrx::UNDO_BINMAP, {0, 1}, {});
    h.push(vrx::UNDO_BINMAP, {2, 3}, {});
    h.push(vrx::UNDO_ROWSPLIT, {0, 4, 1, 2, 0, 2}, {9, 1, 2, 1, 3});
    int partial = 1;
    auto pre = h.crush({0.5, U, 1e-11, U, 0}, &partial);
    EXPECT_EQ(1.0, pre[1]);
    EXPECT_EQ(0.0, pre[3]);
    EXPECT_DOUBLE_EQ((9 - 0.5 - 3e-11) / 2, pre[4]);
    EXPECT_EQ(0, partial);
  }
  {
    // 20 walked by hand, and a cut carried through it: x0 + x1 + x2 = 10,
    // x0 - x1 + x3 = 2, costs 1 and 2.
    Hand h(e.env, 4, 3);
    h.push(vrx::UNDO_TWOROWS, {0, 1, 0, 1, 2, 2, 3}, {1, 1, 1, -1, 10, 2, 1, 2, 1, 0, 0, 1});
    std::vector<double> x = {0, 0, 4, 2}, y = {0, 0, -0.5}, d = {0, 0, -2.5, -0.5};
    std::vector<int> cs = {vrx::kStLower, vrx::kStLower, vrx::kStUpper, vrx::kStBasic};
    std::vector<int> rs = {vrx::kRowBasic, vrx::kRowBasic, vrx::kRowActive};
    vrx::LPPoint pre{x.data(), y.data(), d.data(), cs.data(), rs.data()};
    std::vector<double> ox(4), oy(3), od(4);
    std::vector<int> ocs(4), ors(3);
    vrx::LPPoint out{ox.data(), oy.data(), od.data(), ocs.data(), ors.data()};
    ASSERT_EQ(0, vrx::uncrushLP(h.map, pre, out));
    EXPECT_DOUBLE_EQ(3.0, ox[0]);
    EXPECT_DOUBLE_EQ(3.0, ox[1]);
    // y0 + y1 = 1, y0 - y1 = 2
    EXPECT_DOUBLE_EQ(1.5, oy[0]);
    EXPECT_DOUBLE_EQ(-0.5, oy[1]);
    EXPECT_EQ(vrx::kStBasic, ocs[0]);
    EXPECT_EQ(vrx::kStBasic, ocs[1]);
    EXPECT_EQ(vrx::kRowActive, ors[0]);
    EXPECT_EQ(vrx::kRowActive, ors[1]);
    // A cut x0 + 2 x1 <= 20 in presolved terms: 14 - 1.5 x2 + 0.5 x3 <= 20.
    h.map->colMap[0] = h.map->colMap[1] = -2;
    const int ind[] = {0, 1};
    const double coef[] = {1, 2};
    int oc = 0;
    int oi[4];
    double ov[4], orhs = 0;
    ASSERT_EQ(0, vrx::crushExpr(h.map, 2, ind, coef, 20, &oc, oi, ov, &orhs));
    ASSERT_EQ(2, oc);
    EXPECT_DOUBLE_EQ(6.0, orhs);
    for (int t = 0; t < oc; ++t) EXPECT_DOUBLE_EQ(oi[t] == 2 ? -1.5 : 0.5, ov[t]);
  }
}

}  // namespace
