// The walks over records written by hand: every kind the LP walk knows, with
// values worked out on paper.
#include <cmath>
#include <initializer_list>

#include "harness.h"

namespace {

using namespace pretest;

// The hand-made map with the walks read back in plain vectors.
struct UndoMap : HandMap {
  using HandMap::HandMap;
  std::vector<double> primal(std::vector<double> x) {
    std::vector<double> out(x.size());
    EXPECT_EQ(0, vrx::uncrushPrimal(map, x.data(), out.data(), static_cast<int>(x.size())));
    return out;
  }
};

TEST(PresolveUndo, PrimalWalksOfTheExpressionKinds) {
  Env e;
  {
    // 15: x0 = 1 + 2 x1 - x2.
    UndoMap h(e.env, 3, 0);
    h.push(vrx::UNDO_SINGLETONEXPR, {0, 2, 1, 2}, {1, 2, -1});
    auto x = h.primal({0, 3, 4});
    EXPECT_DOUBLE_EQ(3.0, x[0]);
  }
  {
    // 16: both positive lose their common part; a zero partner leaves them.
    UndoMap h(e.env, 4, 0);
    h.push(vrx::UNDO_COMPLEMENT, {0, 1}, {});
    h.push(vrx::UNDO_COMPLEMENT, {2, 3}, {});
    auto x = h.primal({0.75, 0.25, 1, 0});
    EXPECT_DOUBLE_EQ(0.5, x[0]);
    EXPECT_DOUBLE_EQ(0.0, x[1]);
    EXPECT_DOUBLE_EQ(1.0, x[2]);
  }
  {
    // 3: x0 integer, the smallest of (7 - x1) / 2 and (9 - x2) / 1, and 5; rounded down.
    UndoMap h(e.env, 3, 0);
    h.push(vrx::UNDO_IMPLIEDCOL, {0, 0, 2, 1, 1, 1, 2}, {5, 7, 2, 1, 9, 1, 1});
    auto x = h.primal({0, 2, 3});  // (7-2)/2 = 2.5, 9-3 = 6: 2.5 down to 2
    EXPECT_DOUBLE_EQ(2.0, x[0]);
    UndoMap g(e.env, 3, 0);
    g.push(vrx::UNDO_IMPLIEDCOL, {0, 1, 2, 1, 1, 1, 2}, {-5, 7, 2, 1, 9, 1, 1});
    x = g.primal({0, 2, 3});  // largest of 2.5, 6, -5 is 6, up stays 6
    EXPECT_DOUBLE_EQ(6.0, x[0]);
  }
  {
    // 17, direction 0, mode 1: x0 falls to the rows' bound when above it; mode 0 leaves it.
    UndoMap h(e.env, 2, 0);
    h.push(vrx::UNDO_IMPLIEDCONT, {0, 2, 1, 1, 1}, {100, 8, 2, 1});  // bound (8 - x1) / 2
    auto x = h.primal({5, 2});
    EXPECT_DOUBLE_EQ(3.0, x[0]);
    x = h.primal({1, 2});
    EXPECT_DOUBLE_EQ(1.0, x[0]);
    UndoMap g(e.env, 2, 0);
    g.push(vrx::UNDO_IMPLIEDCONT, {0, 0, 1, 1, 1}, {100, 8, 2, 1});
    x = g.primal({5, 2});
    EXPECT_DOUBLE_EQ(5.0, x[0]);
  }
  {
    // 19: the block column 0 holds 7 = x1 + 2 x2 + x3, bounds [0,3] [0,1] [0,10]: filled in order.
    UndoMap h(e.env, 4, 0);
    h.push(vrx::UNDO_BLOCK, {0, 3, 1, 2, 3}, {1, 2, 1, 0, 0, 0, 3, 1, 10});
    auto x = h.primal({7, 0, 0, 0});
    EXPECT_DOUBLE_EQ(3.0, x[1]);
    EXPECT_DOUBLE_EQ(1.0, x[2]);
    EXPECT_DOUBLE_EQ(2.0, x[3]);
    // and the crush sums it back
    std::vector<double> pre(4);
    int partial = 1;
    ASSERT_EQ(0, vrx::crushStart(h.map, x.data(), pre.data(), &partial));
    EXPECT_DOUBLE_EQ(7.0, pre[0]);
    EXPECT_EQ(0, partial);
  }
  {
    // 9 and 4 in one walk, newest first: x1 = 2 x1' + 1, then the merged column 0 splits.
    UndoMap h(e.env, 3, 0);
    h.map->colMap[2] = -2;
    h.push(vrx::UNDO_DUPCOL, {0, 2, 0}, {1.0, 0, 4, 0, 4});
    h.push(vrx::UNDO_SCALECOL, {1}, {1, 2});
    auto x = h.primal({6, 3, 0});
    EXPECT_DOUBLE_EQ(7.0, x[1]);
    EXPECT_DOUBLE_EQ(6.0, x[0] + x[2]);
    EXPECT_LE(x[0], 4.0);
    EXPECT_LE(x[2], 4.0);
    // crush: the merged value and the scaled value come back
    std::vector<double> pre(3, 0);
    int partial = 1;
    ASSERT_EQ(0, vrx::crushStart(h.map, x.data(), pre.data(), &partial));
    EXPECT_DOUBLE_EQ(6.0, pre[0]);
    EXPECT_DOUBLE_EQ(3.0, pre[1]);
  }
}

TEST(PresolveUndo, DualWalkOfAQuadraticColumnAndTheImpliedColumnBasis) {
  Env e;
  UndoMap h(e.env, 3, 1);
  // 11: d0 += 2 x1 + 3 x2, status set; 3: column 1 takes the attaining row's slot.
  h.push(vrx::UNDO_IMPLIEDCOL, {1, 1, 1, 1, 2}, {-100, 6, 1, 1});  // x1 = 6 - x2
  h.push(vrx::UNDO_QCOL, {0, vrx::kStLower, 2, 1, 2}, {2, 3});
  std::vector<double> x = {0, 0, 2}, y = {0}, d = {1, 0, 0};
  std::vector<int> cs = {vrx::kStLower, vrx::kStLower, vrx::kStBasic}, rs = {vrx::kRowBasic};
  vrx::LPPoint pre{x.data(), y.data(), d.data(), cs.data(), rs.data()};
  std::vector<double> ox(3), oy(1), od(3);
  std::vector<int> ocs(3), ors(1);
  vrx::LPPoint out{ox.data(), oy.data(), od.data(), ocs.data(), ors.data()};
  ASSERT_EQ(0, vrx::uncrushLP(h.map, pre, out));
  EXPECT_DOUBLE_EQ(4.0, ox[1]);
  EXPECT_EQ(vrx::kStBasic, ocs[1]);
  // x1 was 0 when the newer kind 11 ran: d0 = 1 + 2 * 0 + 3 * 2.
  EXPECT_DOUBLE_EQ(7.0, od[0]);
  EXPECT_EQ(vrx::kStLower, ocs[0]);
}

}  // namespace
