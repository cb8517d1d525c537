// The guided presolve: what an optimal point lets it remove, the point carried into the
// presolved model (still optimal there), the stop when the point supports too little,
// and the dual crush against the walk back. (Memory failures inside the driver are
// provoked through crossover, in tests/barrier/crossover_entry_test.cpp.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "../support/modeldef.h"
#include "../support/quiet_env.h"
#include "../support/shared_data.h"
#include "harness.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "presolve/guided.h"

namespace {

struct Point {
  std::vector<double> x, y, d;  // minimising form, the model's row orientation
};

// min x0 + x1 + 2 x2 + 3 x3, x in [0, 4]; r0: x0 + x1 + x2 + x3 >= 2; r1: x0 + x1 + x2 <= 10.
// Optimal face x0 + x1 = 2, x2 = x3 = 0; y0 = 1, y1 = 0, d = (0, 0, 1, 2).
ModelDef faceModel() {
  ModelDef s;
  s.obj = {1, 1, 2, 3};
  s.lb = {0, 0, 0, 0};
  s.ub = {4, 4, 4, 4};
  s.rhs = {2, 10};
  s.sense = "><";
  s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1}}, {{0, 1}, {1, 1}}, {{0, 1}}};
  return s;
}
Point facePoint() { return {{1, 1, 0, 0}, {1, 0}, {0, 0, 1, 2}}; }

// The carried point is an optimal point of the presolved model with the same objective:
// feasible, duals of the right sign, reduced costs c - A'y that agree with where each
// column sits, and no dual on a row with slack.
void expectOptimalThere(const vrx::GuidedOut& g, double objective) {
  ASSERT_NE(nullptr, g.presolved);
  const VRXmodeldata* pd = g.presolved->data;
  const int n = pd->numVars, m = pd->numConstrs;
  const double tol = 1e-6;
  std::vector<double> act(static_cast<size_t>(m), 0.0);
  double obj = pd->objCon;
  for (int j = 0; j < n; ++j) {
    obj += pd->obj[j] * g.x[j];
    double dj = pd->obj[j];
    for (int64_t k = pd->colBeg[j]; k < pd->colBeg[j] + pd->colLen[j]; ++k) {
      act[pd->rowInd[k]] += pd->val[k] * g.x[j];
      dj -= pd->val[k] * g.y[pd->rowInd[k]];
    }
    const double scale = 1.0 + std::fabs(g.x[j]);
    EXPECT_NEAR(dj, g.d[j], 1e-9 * (1.0 + std::fabs(dj))) << "column " << j;
    EXPECT_GE(g.x[j], pd->lb[j] - tol * scale) << "column " << j;
    EXPECT_LE(g.x[j], pd->ub[j] + tol * scale) << "column " << j;
    const bool atLo = g.x[j] - pd->lb[j] <= tol * scale, atUp = pd->ub[j] - g.x[j] <= tol * scale;
    if (!atLo) EXPECT_LE(g.d[j], tol) << "column " << j << " above its lower bound";
    if (!atUp) EXPECT_GE(g.d[j], -tol) << "column " << j << " below its upper bound";
  }
  for (int i = 0; i < m; ++i) {
    const double scale = 1.0 + std::fabs(pd->rhs[i]);
    const char s = pd->sense[i];
    ASSERT_TRUE(s == '<' || s == '=') << "row " << i;
    if (s == '=') {
      EXPECT_NEAR(pd->rhs[i], act[i], tol * scale) << "row " << i;
    } else {
      EXPECT_LE(act[i], pd->rhs[i] + tol * scale) << "row " << i;
      EXPECT_LE(g.y[i], tol) << "row " << i << ": a '<' row's dual is not positive";
      if (pd->rhs[i] - act[i] > 1e-4 * scale) EXPECT_NEAR(0.0, g.y[i], tol) << "row " << i << " has slack";
    }
  }
  EXPECT_NEAR(objective, obj, 1e-7 * (1.0 + std::fabs(objective)));
}

int guided(VRXmodel* m, const Point& pt, std::vector<int>* basis, vrx::GuidedOut* out, double* work) {
  const size_t nm = pt.x.size() + pt.y.size();
  if (basis) basis->assign(nm, 99);
  return vrx::presolveGuided(m, pt.x.data(), pt.y.data(), pt.d.data(), basis ? basis->data() : nullptr, work, out);
}

}  // namespace

TEST(GuidedPresolve, FixesBoundColumnsDropsSlackRowsAndKeepsThePointOptimal) {
  vrxtest::QuietEnv e;
  VRXmodel* m = loadModelDef(e.env, faceModel());
  ASSERT_NE(nullptr, m);
  vrx::GuidedOut g{};
  std::vector<int> basis;
  double work = 0;
  // Level 1 fixes columns only.
  VRXsetintparam(VRXgetenv(m), "VORN_PAR_GUIDEDPRE", 1);
  ASSERT_EQ(0, guided(m, facePoint(), &basis, &g, &work));
  EXPECT_EQ(0, g.status);
  EXPECT_EQ(2, g.fixedCols);
  EXPECT_EQ(0, g.droppedRows);
  EXPECT_EQ((std::vector<int>{-3, -3, -1, -1, -3, -3}), basis);
  expectOptimalThere(g, 2.0);
  vrx::guidedFree(e.env, &g);
  VRXsetintparam(VRXgetenv(m), "VORN_PAR_GUIDEDPRE", 2);
  ASSERT_EQ(0, guided(m, facePoint(), &basis, &g, &work));
  EXPECT_EQ(0, g.status);
  EXPECT_EQ(2, g.fixedCols);
  EXPECT_EQ(1, g.droppedRows);
  // x2, x3 at lower with d > 0; r1's slack basic; the rest left to the presolved model.
  EXPECT_EQ((std::vector<int>{-3, -3, -1, -1, -3, 0}), basis);
  ASSERT_NE(nullptr, g.map);
  EXPECT_EQ(-1, g.map->colMap[2]);
  EXPECT_EQ(-1, g.map->colMap[3]);
  EXPECT_EQ(-1, g.map->rowMap[1]);
  EXPECT_GT(work, 0.0);
  expectOptimalThere(g, 2.0);
  vrx::guidedFree(e.env, &g);
  EXPECT_EQ(nullptr, g.presolved);
  VRXfreemodel(m);

  // A maximisation, a '<' row with a nonzero dual and an equation: the same checks.
  // max 3 a + 2 b, a + b <= 4, a - b = 0 (both kept), a, b in [0, 3], c in [0, 1] with
  // objective -1 and no row: fixed at 0. Optimum a = b = 2, objective 10.
  ModelDef s;
  s.objSense = -1;
  s.obj = {3, 2, -1};
  s.lb = {0, 0, 0};
  s.ub = {3, 3, 1};
  s.rhs = {4, 0};
  s.sense = "<=";
  s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, -1}}, {}};
  m = loadModelDef(e.env, s);
  // Minimising form: c = (-3, -2, 1); y0 = -2.5, y1 = -0.5 give d = (0, 0, 1).
  Point pt{{2, 2, 0}, {-2.5, -0.5}, {0, 0, 1}};
  ASSERT_EQ(0, guided(m, pt, &basis, &g, &work));
  EXPECT_EQ(0, g.status);
  EXPECT_EQ(1, g.fixedCols);
  EXPECT_EQ(0, g.droppedRows);
  expectOptimalThere(g, -10.0);
  vrx::guidedFree(e.env, &g);
  VRXfreemodel(m);
}

TEST(GuidedPresolve, APointThatSupportsLittleStopsWithNothingKept) {
  vrxtest::QuietEnv e;
  // Equal costs on a transport problem: the mid-point has every value inside its bounds
  // and every row is an equation, so the point fixes nothing and drops nothing.
  ModelDef s;
  s.obj = {1, 1, 1, 1};
  s.lb = {0, 0, 0, 0};
  s.ub = {1e100, 1e100, 1e100, 1e100};
  s.rhs = {1, 1, 1, 1};
  s.sense = "====";
  s.cols = {{{0, 1}, {2, 1}}, {{0, 1}, {3, 1}}, {{1, 1}, {2, 1}}, {{1, 1}, {3, 1}}};
  VRXmodel* m = loadModelDef(e.env, s);
  vrx::GuidedOut g{};
  std::vector<int> basis;
  double work = 0;
  Point pt{{0.5, 0.5, 0.5, 0.5}, {0.5, 0.5, 0.5, 0.5}, {0, 0, 0, 0}};
  ASSERT_EQ(0, guided(m, pt, &basis, &g, &work));
  EXPECT_EQ(vrx::kGuidedTooLittle, g.status);
  EXPECT_EQ(nullptr, g.presolved);
  EXPECT_EQ(nullptr, g.map);
  EXPECT_EQ(nullptr, g.x);
  EXPECT_EQ((std::vector<int>(8, -3)), basis);

  // Reduced costs below the clear threshold, and values a little off the bound, fix nothing.
  VRXfreemodel(m);
  m = loadModelDef(e.env, faceModel());
  VRXsetintparam(VRXgetenv(m), "VORN_PAR_GUIDEDPRE", 2);
  Point weak = facePoint();
  weak.d = {0, 0, 1e-5, 2};  // x2's reduced cost is too small to trust
  weak.x[3] = 1e-3;          // x3 is not at its bound
  weak.y = {1, 1e-3};        // r1 carries a dual
  ASSERT_EQ(0, guided(m, weak, &basis, &g, &work));
  EXPECT_EQ(vrx::kGuidedTooLittle, g.status);

  // An integer column: no duals to carry, whatever the point says.
  ASSERT_EQ(0, VRXsetcharattrelement(m, "VType", 0, 'I'));
  ASSERT_EQ(0, VRXupdatemodel(m));
  ASSERT_EQ(0, guided(m, facePoint(), &basis, &g, &work));
  EXPECT_EQ(vrx::kGuidedTooLittle, g.status);
  EXPECT_EQ(nullptr, g.presolved);
  EXPECT_EQ((std::vector<int>(6, -3)), basis);
  VRXfreemodel(m);
}

TEST(GuidedPresolve, NetlibOptimaCarryIntoModelsWithTheSameOptimum) {
  vrxtest::QuietEnv e;
  const auto refs = vrxtest::referenceObjectives("netlib");
  for (const char* name : {"afiro", "sc50a", "adlittle", "blend", "share2b", "kb2", "scagr7", "boeing1"}) {
    SCOPED_TRACE(name);
    VRXmodel* m = vrxtest::readNetlib(e.env, name);
    ASSERT_NE(nullptr, m);
    VRXsetintparam(VRXgetenv(m), "VORN_PAR_GUIDEDPRE", 2);
    ASSERT_EQ(0, VRXoptimize(m));
    int n = 0, rows = 0, sense = 1;
    VRXgetintattr(m, "NumVars", &n);
    VRXgetintattr(m, "NumConstrs", &rows);
    VRXgetintattr(m, "ModelSense", &sense);
    Point pt{std::vector<double>(n), std::vector<double>(rows), std::vector<double>(n)};
    ASSERT_EQ(0, VRXgetdblattrarray(m, "X", 0, n, pt.x.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(m, "Pi", 0, rows, pt.y.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(m, "RC", 0, n, pt.d.data()));
    for (double& v : pt.y) v *= sense;
    for (double& v : pt.d) v *= sense;
    vrx::GuidedOut g{};
    double work = 0;
    ASSERT_EQ(0, guided(m, pt, nullptr, &g, &work));
    ASSERT_EQ(0, g.status);
    EXPECT_GT(g.fixedCols, 0);
    const double ref = refs.at(name);
    expectOptimalThere(g, sense * ref);
    // The reduced model keeps the optimum (the solve starts from nothing of the original).
    const VRXmodeldata* pd = g.presolved->data;
    EXPECT_LT(pd->numVars, n);
    if (pd->numVars > 0) {
      ASSERT_EQ(0, VRXoptimize(g.presolved));
      double obj = 0;
      EXPECT_EQ(0, VRXgetdblattr(g.presolved, "ObjVal", &obj));
      EXPECT_NEAR(ref, obj, 1e-6 * (1.0 + std::fabs(ref)));
    }
    vrx::guidedFree(e.env, &g);
    VRXfreemodel(m);
  }
}

TEST(GuidedPresolve, CrushedDualsWalkBackToTheOriginalOnes) {
  // Row 1 was twice row 0 (kind 5); column 2 was read as the slack of row 2, a row read
  // with '>' whose record negated it again (kind 10: a = 2, c = 1, rhs 4).
  vrxtest::QuietEnv e;
  pretest::HandMap h(e.env, 3, 3);
  VRXpresolvemap* map = h.map;
  map->rowNeg[2] = 1;
  map->rowMap[1] = -1;
  map->rowMap[2] = 1;
  map->preRows = 2;
  map->colMap[2] = -2;
  map->preCols = 2;
  h.push(vrx::UNDO_PARROW, {0, 1}, {2.0});
  h.push(vrx::UNDO_COLTOSLACK, {2, 2, 1, vrx::kStLower, 0}, {2.0, 1.0, 4.0});
  const double y[] = {0.0, 0.5, -1.5};
  double py[2] = {9, 9};
  ASSERT_EQ(0, vrx::crushDuals(map, y, py));
  // Row 0 takes row 1's share, 2 * 0.5; row 2: turned by '>' to 1.5, less c / a, turned again.
  EXPECT_DOUBLE_EQ(1.0, py[0]);
  EXPECT_DOUBLE_EQ(-1.0, py[1]);
  // The walk back gives the original duals again.
  double px[2] = {1, 1}, pd[2] = {0, 0};
  int pcs[2] = {0, 1}, prs[2] = {-1, -1};
  double ox[3], oy[3], od[3];
  int ocs[3], ors[3];
  vrx::LPPoint pre{px, py, pd, pcs, prs}, orig{ox, oy, od, ocs, ors};
  ASSERT_EQ(0, vrx::uncrushLP(map, pre, orig));
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(y[i], oy[i], 1e-15) << "row " << i;
  // The primal crush carries the kept columns.
  const double x[] = {3, 4, 5};
  ASSERT_EQ(0, vrx::crushPrimal(map, x, px));
  EXPECT_EQ(3.0, px[0]);
  EXPECT_EQ(4.0, px[1]);
}
