// The basis step's stability check on hand-made candidate sets, and the push phases'
// progress lines and iteration counts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/modeldef.h"
#include "barrier/barsol.h"
#include "barrier/crossover.h"
#include "barrier/crossover_impl.h"
#include "model/model.h"
#include "simplex/lp.h"
#include "vornix_c.h"

namespace {

struct Env {
  VRXenv* env = nullptr;
  Env() {
    EXPECT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
    VRXsetintparam(env, "ScaleFlag", 0);
  }
  ~Env() { VRXfreeenv(env); }
};

// Three rows; column 1 is column 0 turned by `turn` in its second entry, column 2 is alone.
ModelDef pairModel(double turn) {
  ModelDef d;
  d.obj = {1, 1, 1};
  d.lb = {0, 0, 0};
  d.ub = {10, 10, 10};
  d.rhs = {4, 4, 4};
  d.sense = "<<<";
  d.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1 + turn}}, {{2, 1}}};
  return d;
}

// The LU pass on candidates 0, 1, 2 of pairModel(turn): the basis head it leaves.
std::vector<int> luHead(VRXenv* env, double turn) {
  VRXmodel* m = loadModelDef(env, pairModel(turn));
  double work = 0;
  EXPECT_EQ(0, VRXlpSetup(m, 2, &work));
  auto* lp = static_cast<VRXlp*>(m->lp);
  std::vector<int> cands = {0, 1, 2}, head(3, -1);
  VRXxlist xl{m, lp, 3, cands.data()};
  EXPECT_EQ(0, vrx::cross::VRXcrossBasisLU(&xl, head.data(), 0.1, &work, nullptr));
  VRXfreemodel(m);
  std::sort(head.begin(), head.end());
  return head;
}

}  // namespace

TEST(CrossoverBasis, NearlyDependentCandidatesGiveWayToSlacks) {
  Env e;
  // Independent columns: the pass that cannot take column 1 triangularly swaps it in by LU.
  EXPECT_EQ((std::vector<int>{0, 1, 2}), luHead(e.env, -2.0));
  // Columns 0 and 1 a hair apart: a factor exists, but its pivot is tiny against its column;
  // one of the two goes and the slack of row 0 or 1 takes its place.
  for (double turn : {1e-6, 1e-9}) {
    SCOPED_TRACE(turn);
    std::vector<int> h = luHead(e.env, turn);
    ASSERT_EQ(3u, h.size());
    EXPECT_TRUE(h[0] == 0 || h[0] == 1) << h[0];
    EXPECT_EQ(2, h[1]);
    EXPECT_TRUE(h[2] == 3 || h[2] == 4) << h[2];
  }
  // Exact copies: the factor cannot pivot the second at all.
  std::vector<int> h = luHead(e.env, 0.0);
  EXPECT_TRUE(h[0] == 0 || h[0] == 1) << h[0];
  EXPECT_EQ(2, h[1]);
  EXPECT_TRUE(h[2] == 3 || h[2] == 4) << h[2];
}

namespace {

// Exact |B^-1|_1 of the basis head of lp, by Gauss-Jordan with partial pivoting.
double inverseNorm(const VRXlp* lp, const std::vector<int>& head) {
  const int m = lp->m;
  std::vector<double> a(static_cast<size_t>(m) * 2 * m, 0.0);
  auto at = [&](int i, int j) -> double& { return a[static_cast<size_t>(i) * 2 * m + j]; };
  for (int p = 0; p < m; p++) {
    const int j = head[p];
    if (j >= lp->n) {
      at(j - lp->n, p) = 1.0;
    } else {
      for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++) at(lp->rowInd[k], p) = lp->val[k];
    }
    at(p, m + p) = 1.0;
  }
  for (int c = 0; c < m; c++) {
    int piv = c;
    for (int i = c + 1; i < m; i++)
      if (std::fabs(at(i, c)) > std::fabs(at(piv, c))) piv = i;
    if (at(piv, c) == 0.0) return INFINITY;
    for (int k = 0; k < 2 * m; k++) std::swap(at(c, k), at(piv, k));
    const double d = at(c, c);
    for (int k = 0; k < 2 * m; k++) at(c, k) /= d;
    for (int i = 0; i < m; i++) {
      if (i == c || at(i, c) == 0.0) continue;
      const double f = at(i, c);
      for (int k = 0; k < 2 * m; k++) at(i, k) -= f * at(c, k);
    }
  }
  double norm = 0;
  for (int k = 0; k < m; k++) {
    double s = 0;
    for (int i = 0; i < m; i++) s += std::fabs(at(i, m + k));
    norm = std::max(norm, s);
  }
  return norm;
}

}  // namespace

TEST(CrossoverBasis, RepairBreaksTheChainsOfABadlyConditionedStart) {
  Env e;
  // Column j has 1 in row j and -growth in row j-1: B is upper bidiagonal, non-singular
  // with unit pivots, and its inverse holds growth^k. Every test a pivot passes, yet the
  // small moves onto bounds would come back multiplied by growth^(m-1).
  const int m = 10;
  for (double growth : {0.5, 10.0, 100.0}) {
    SCOPED_TRACE(growth);
    ModelDef d;
    d.obj.assign(m, 1.0);
    d.lb.assign(m, 0.0);
    d.ub.assign(m, 10.0);
    d.rhs.assign(m, 1.0);
    d.sense = std::string(m, '<');
    for (int j = 0; j < m; j++) {
      std::vector<std::pair<int, double>> col = {{j, 1.0}};
      if (j > 0) col.push_back({j - 1, -growth});
      d.cols.push_back(col);
    }
    VRXmodel* model = loadModelDef(e.env, d);
    double work = 0;
    ASSERT_EQ(0, VRXlpSetup(model, 2, &work));
    auto* lp = static_cast<VRXlp*>(model->lp);
    std::vector<int> head(m);
    for (int p = 0; p < m; p++) head[p] = p;
    const double before = inverseNorm(lp, head);
    int swaps = -1;
    ASSERT_EQ(0, vrx::cross::VRXcrossBasisRepair(lp, head.data(), 0.1, &work, nullptr, &swaps));
    const double after = inverseNorm(lp, head);
    // Still m distinct variables, a non-singular basis, and only slacks came in.
    std::vector<int> sorted = head;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_TRUE(std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end());
    int slacks = 0;
    for (int p = 0; p < m; p++) {
      if (head[p] >= m) slacks++;
      else EXPECT_EQ(p, head[p]);
    }
    EXPECT_EQ(swaps, slacks);
    if (growth < 1) {
      // Well conditioned: left alone.
      EXPECT_EQ(0, swaps);
    } else {
      EXPECT_GT(before, 1e9);
      EXPECT_GE(swaps, 1);
      EXPECT_LE(swaps, 4);
      EXPECT_LT(after, 1e6) << before;
    }
    VRXfreemodel(model);
  }
}

TEST(CrossoverPush, ProgressLinesAndIterationCounts) {
  Env e;
  // 150 columns in [0, 1] under one loose row and no costs: every column is a candidate,
  // the list keeps two, and about 149 primal pushes take the others to a bound.
  const int n = 150;
  ModelDef d;
  d.obj.assign(n, 0.0);
  d.lb.assign(n, 0.0);
  d.ub.assign(n, 1.0);
  d.rhs = {1000};
  d.sense = "<";
  for (int j = 0; j < n; j++) d.cols.push_back({{0, 1.0}});
  VRXmodel* m = loadModelDef(e.env, d);
  captureLogOf(VRXgetenv(m));
  VRXbarsol* s = vrx::barsolCreate(m->env, n, 1);
  for (int j = 0; j < n; j++) s->x[j] = 0.25 + 0.5 * j / n;
  s->status = VRX_OPTIMAL;

  double pushes[2] = {0, 0}, cleanUp[2] = {0, 0};
  for (int k = 0; k < 2; k++) {
    // The barrier's own iterations must not reach the record's counts.
    s->iterCount = k == 0 ? 0 : 1000;
    capturedLog().clear();
    vrx::Clock clock = vrx::clockStart();
    ASSERT_EQ(0, VRXcrossover(m, s, 0, clock));
    auto* lp = static_cast<VRXlp*>(m->lp);
    ASSERT_NE(nullptr, lp);
    EXPECT_EQ(VRX_OPTIMAL, lp->status);
    pushes[k] = lp->priorIter;
    cleanUp[k] = lp->iterCount;
    for (int j = 0; j < n; j++) {
      const int st = lp->varStat[j];
      EXPECT_TRUE(st >= 0 || st == VRX_VS_LOWER || st == VRX_VS_UPPER) << j << " " << st;
    }
  }
  EXPECT_EQ(pushes[0], pushes[1]);
  EXPECT_EQ(cleanUp[0], cleanUp[1]);
  EXPECT_GE(pushes[0], 100);
  EXPECT_LT(pushes[0], 200);

  // No reduced cost anywhere: the dual pushes find nothing, the primal ones print their
  // start, a line after each 100 pushes, and the end.
  const std::string& log = capturedLog();
  EXPECT_EQ(std::string::npos, log.find("DPushes remaining"));
  const size_t first = log.find("PPushes remaining with PInf");
  ASSERT_NE(std::string::npos, first);
  const int targets = std::atoi(log.substr(first - 8, 7).c_str());
  EXPECT_GT(targets, 100);
  char line[64];
  std::snprintf(line, sizeof line, "%7d PPushes remaining", targets - 100);
  EXPECT_NE(std::string::npos, log.find(line)) << log;
  EXPECT_NE(std::string::npos, log.find("      0 PPushes remaining"));
  int lines = 0;
  for (size_t at = log.find("PPushes"); at != std::string::npos; at = log.find("PPushes", at + 1)) lines++;
  EXPECT_EQ(3, lines) << log;
  vrx::barsolFree(m->env, s);
  VRXfreemodel(m);
}
