// The working LP record: solver form, scaling, automatic choices, row-wise copies, memory.
#include "../support/modeldef.h"
#include "simplex/lp.h"

#include <gtest/gtest.h>

#include <cstring>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "vornix_c.h"
#include "../support/quiet_env.h"
#include "../support/shared_data.h"

namespace {

using Env = vrxtest::QuietEnv;

// A model handle that frees its record first.
struct Model {
  VRXmodel* model = nullptr;
  ~Model() { reset(); }
  void reset() {
    if (!model) return;
    VRXlpFreeOnModel(model);
    VRXfreemodel(model);
    model = nullptr;
  }
  VRXlp* lp() const { return static_cast<VRXlp*>(model->lp); }
  VRXenv* env() const { return VRXgetenv(model); }
  int setup(int method = 1, const VRXlpSetupOpts* o = nullptr, double* work = nullptr) {
    return VRXlpSetup(model, method, work, o);
  }
};

VRXmodel* load(VRXenv* env, const ModelDef& s) {
  VRXmodel* m = loadModelDef(env, s);
  return m;
}

using vrxtest::readNetlib;

// min x0 + x1 + 32 x1^2 over x0 <= 1; x1 has no matrix entry.
VRXmodel* loadQp(VRXenv* env) {
  VRXmodel* qm = nullptr;
  const double obj[2] = {1, 1}, lb[2] = {0, 0}, ub[2] = {10, 10}, rhs[1] = {1}, val[1] = {1};
  const int beg[2] = {0, 1}, len[2] = {1, 0}, ind[1] = {0}, qr[1] = {1}, qc[1] = {1};
  const double qv[1] = {32};  // kept as 64 in the store
  EXPECT_EQ(0, VRXloadmodel(env, &qm, "q", 2, 1, 1, 0, obj, "<", rhs, beg, len, ind, val, lb, ub, nullptr,
                            nullptr, nullptr));
  EXPECT_EQ(0, VRXaddqpterms(qm, 1, qr, qc, qv));
  EXPECT_EQ(0, VRXupdatemodel(qm));
  return qm;
}

bool isPow2(double x) {
  int e;
  return x > 0 && std::frexp(x, &e) == 0.5;
}

// Rows <, >, = over three columns; x = (1, 2, 3) is feasible.
ModelDef smallModel() {
  ModelDef s;
  s.objSense = -1;
  s.obj = {1, -2, 1000};
  s.lb = {0, -5, 1};
  s.ub = {4, 1e100, 3};
  s.rhs = {7, 100, 11};
  s.sense = "<>=";
  s.cols = {{{0, 1}, {1, 300}, {2, 2}}, {{0, 3}, {1, 50}}, {{2, 3}, {1, 0.001}}};
  return s;
}

// The record's data taken back through its factors is the store's data, exactly, with the
// entries and right-hand sides of '>' rows negated; slacks are unit columns with 0 cost.
void expectSolverFormOf(const VRXlp* lp, const VRXmodeldata* d) {
  ASSERT_EQ(lp->n, d->numVars);
  ASSERT_EQ(lp->m, d->numConstrs);
  auto R = [&](int i) { return lp->rowScale ? lp->rowScale[i] : 1.0; };
  auto C = [&](int j) { return lp->colScale ? lp->colScale[j] : 1.0; };
  for (int i = 0; i < lp->m; i++) {
    const double sg = d->sense[i] == '>' ? -1.0 : 1.0;
    EXPECT_EQ(d->rhs[i], sg * lp->rhs[i] / R(i)) << "row " << i;
    EXPECT_EQ(lp->senseChar[i], d->sense[i]);
    const int s = lp->n + i;
    ASSERT_EQ(1, lp->colLen[s]);
    EXPECT_EQ(i, lp->rowInd[lp->colBeg[s]]);
    EXPECT_EQ(1.0, lp->val[lp->colBeg[s]]);
    EXPECT_EQ(0.0, lp->cost[s]);
    EXPECT_EQ(0.0, lp->lower[s]);
    EXPECT_EQ(d->sense[i] == '=' ? 0.0 : lp->infBound, lp->upper[s]);
    if (lp->colScale) EXPECT_EQ(1.0, R(i) * C(s));
  }
  for (int j = 0; j < lp->n; j++) {
    ASSERT_EQ(d->colLen[j], lp->colLen[j]);
    for (int t = 0; t < d->colLen[j]; t++) {
      const int i = d->rowInd[d->colBeg[j] + t];
      ASSERT_EQ(i, lp->rowInd[lp->colBeg[j] + t]);
      const double sg = d->sense[i] == '>' ? -1.0 : 1.0;
      EXPECT_EQ(d->val[d->colBeg[j] + t], sg * lp->val[lp->colBeg[j] + t] / (R(i) * C(j)));
    }
    EXPECT_EQ(d->obj[j], lp->cost[j] / (C(j) * lp->objScale)) << "column " << j;
    auto bound = [&](double b) { return std::fabs(b) < lp->infBound ? b * C(j) : b; };
    EXPECT_EQ(d->lb[j], bound(lp->lower[j]));
    EXPECT_EQ(d->ub[j], bound(lp->upper[j]));
  }
}

// Largest over smallest absolute structural entry.
double entryRange(const VRXlp* lp) {
  double mx = 0, mn = HUGE_VAL;
  for (int j = 0; j < lp->n; j++)
    for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++) {
      mx = std::max(mx, std::fabs(lp->val[k]));
      mn = std::min(mn, std::fabs(lp->val[k]));
    }
  return mx / mn;
}

TEST(LpSetup, SolverFormIsEquivalentToTheModel) {
  Env e;
  for (int flag : {0, 3}) {
    Model mm;
    mm.model = load(e.env, smallModel());
    VRXsetintparam(mm.env(), "ScaleFlag", flag);
    double work = 0;
    ASSERT_EQ(0, mm.setup(1, nullptr, &work));
    const VRXlp* lp = mm.lp();
    EXPECT_GE(work, 50 + 3 * 6 * 1.3);
    EXPECT_EQ(1, lp->status);
    EXPECT_EQ(-1, lp->sense);
    EXPECT_EQ(1, lp->copy->geRowsNegated);
    EXPECT_EQ(flag == 0, lp->colScale == nullptr);
    expectSolverFormOf(lp, mm.model->data);
    // The user's store stays as loaded: '>' row not negated, maximised costs negated once.
    EXPECT_EQ(300.0, mm.model->data->val[1]);
    EXPECT_EQ(-1000.0, mm.model->data->obj[2]);

    // A feasible point of the model is one of the LP in scaled form, slacks included; a
    // point that breaks the '>' row is not.
    for (auto [x, feasible] : {std::pair<std::vector<double>, bool>{{1, 2, 3}, true},
                               std::pair<std::vector<double>, bool>{{0, 0, 3}, false}}) {
      bool ok = true;
      std::vector<double> act(3, 0.0);
      for (int j = 0; j < 3; j++) {
        const double xs = x[j] / (lp->colScale ? lp->colScale[j] : 1.0);
        ok = ok && xs >= lp->lower[j] - 1e-9 && xs <= lp->upper[j] + 1e-9;
        for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++)
          act[lp->rowInd[k]] += lp->val[k] * xs;
      }
      for (int i = 0; i < 3; i++) {
        const double slack = lp->rhs[i] - act[i];
        ok = ok && slack >= lp->lower[3 + i] - 1e-9 && slack <= lp->upper[3 + i] + 1e-9;
      }
      EXPECT_EQ(feasible, ok) << "flag " << flag << " x0 " << x[0];
    }
  }
  // Without a '>' row the mark is -1 and nothing is negated.
  ModelDef s = smallModel();
  s.sense = "<<=";
  Model mm;
  mm.model = load(e.env, s);
  ASSERT_EQ(0, mm.setup());
  EXPECT_EQ(-1, mm.lp()->copy->geRowsNegated);
  expectSolverFormOf(mm.lp(), mm.model->data);
}

TEST(LpSetup, NetlibScaleModesArePowersOfTwoAndUndoExactly) {
  Env e;
  int scaled = 0;
  for (const char* name : {"afiro", "adlittle", "boeing1", "pilot4", "bore3d"}) {
    for (int flag : {-1, 0, 1, 2, 3}) {
      Model mm;
      mm.model = readNetlib(e.env, name);
      ASSERT_NE(nullptr, mm.model);
      VRXsetintparam(mm.env(), "ScaleFlag", flag);
      ASSERT_EQ(0, mm.setup());
      VRXlp* lp = mm.lp();
      SCOPED_TRACE(std::string(name) + " flag " + std::to_string(flag));
      expectSolverFormOf(lp, mm.model->data);
      if (flag == 0) {
        EXPECT_EQ(nullptr, lp->colScale);
        EXPECT_EQ(nullptr, lp->rowScale);
        EXPECT_EQ(1.0, lp->objScale);
        continue;
      }
      if (!lp->colScale) continue;  // every raw factor within (0.5, 2): nothing to scale
      scaled++;
      for (int i = 0; i < lp->m; i++) EXPECT_TRUE(isPow2(lp->rowScale[i])) << lp->rowScale[i];
      for (int j = 0; j < lp->n + lp->m; j++) EXPECT_TRUE(isPow2(lp->colScale[j])) << lp->colScale[j];
      EXPECT_TRUE(isPow2(lp->objScale));
      // Taking the scale off gives the unscaled record bit for bit.
      Model plain;
      plain.model = readNetlib(e.env, name);
      VRXsetintparam(plain.env(), "ScaleFlag", 0);
      ASSERT_EQ(0, plain.setup());
      std::vector<double> rowVal(lp->rowVal, lp->rowVal + lp->rowBeg[lp->m]);
      ASSERT_EQ(0, VRXlpUnscale(lp));
      EXPECT_EQ(nullptr, lp->colScale);
      const VRXlp* p = plain.lp();
      const size_t nm = static_cast<size_t>(lp->n + lp->m);
      EXPECT_TRUE(std::equal(lp->val, lp->val + lp->nnz, p->val));
      EXPECT_TRUE(std::equal(lp->cost, lp->cost + nm, p->cost));
      EXPECT_TRUE(std::equal(lp->lower, lp->lower + nm, p->lower));
      EXPECT_TRUE(std::equal(lp->upper, lp->upper + nm, p->upper));
      EXPECT_TRUE(std::equal(lp->rhs, lp->rhs + lp->m, p->rhs));
      EXPECT_TRUE(std::equal(lp->rowVal, lp->rowVal + lp->rowBeg[lp->m], p->rowVal));
      EXPECT_TRUE(std::equal(lp->activeRowVal, lp->activeRowVal + lp->rowBeg[lp->m], p->activeRowVal));
    }
  }
  EXPECT_GE(scaled, 15);
}

// A = D1 * B * D2 with B in [1, 3] and D1, D2 spread over 24 decades.
ModelDef badlyScaled(unsigned seed) {
  std::mt19937 rng(seed);
  const int m = 30, n = 40;
  std::vector<double> d1(m), d2(n);
  for (auto& v : d1) v = std::pow(10.0, static_cast<int>(rng() % 13) - 6);
  for (auto& v : d2) v = std::pow(10.0, static_cast<int>(rng() % 13) - 6);
  ModelDef s;
  s.sense.assign(m, '<');
  s.rhs.assign(m, 1.0);
  s.obj.assign(n, 1.0);
  s.lb.assign(n, 0.0);
  s.ub.assign(n, 1e100);
  for (int j = 0; j < n; j++) {
    std::vector<std::pair<int, double>> col;
    for (int i = 0; i < m; i++)
      if (rng() % 4 == 0 || i == j % m) col.push_back({i, d1[i] * (1 + rng() % 3) * d2[j]});
    s.cols.push_back(col);
  }
  return s;
}

TEST(LpSetup, ScaleModesEquilibrate) {
  Env e;
  const ModelDef s = badlyScaled(7);
  std::vector<double> range(5);
  std::vector<std::vector<double>> factors(5);
  for (int flag : {-1, 0, 1, 2, 3}) {
    Model mm;
    mm.model = load(e.env, s);
    VRXsetintparam(mm.env(), "ScaleFlag", flag);
    ASSERT_EQ(0, mm.setup());
    range[flag + 1] = entryRange(mm.lp());
    if (mm.lp()->colScale)
      factors[flag + 1].assign(mm.lp()->colScale, mm.lp()->colScale + 70);
  }
  EXPECT_GT(range[1], 1e18);  // unscaled
  EXPECT_LT(range[2], range[1] * 1e-12);
  EXPECT_LT(range[3], 100);
  EXPECT_LT(range[4], 1e4);
  EXPECT_EQ(factors[0], factors[4]);  // automatic is mode 3

  // A model of the light-scale kind takes one equilibration pass by default.
  Model light;
  light.model = load(e.env, s);
  VRXlpSetupOpts o;
  o.modelKind = VRX_LPKIND_LIGHTSCALE;
  ASSERT_EQ(0, light.setup(1, &o));
  EXPECT_EQ(factors[2], std::vector<double>(light.lp()->colScale, light.lp()->colScale + 70));

  // A row and a column without entries keep factor 1.
  ModelDef z = s;
  z.sense += '<';
  z.rhs.push_back(5.0);
  z.cols.push_back({});
  z.obj.push_back(1.0);
  z.lb.push_back(0.0);
  z.ub.push_back(1.0);
  Model zm;
  zm.model = load(e.env, z);
  ASSERT_EQ(0, zm.setup());
  EXPECT_EQ(1.0, zm.lp()->rowScale[30]);
  EXPECT_EQ(1.0, zm.lp()->colScale[40]);
}

TEST(LpSetup, ObjectiveAndRightHandSideScale) {
  EXPECT_EQ(0.5, vrx::powerOfTwo(0.5));
  EXPECT_EQ(1.0, vrx::powerOfTwo(0.51));
  EXPECT_EQ(1.0, vrx::powerOfTwo(1.99));
  EXPECT_EQ(2.0, vrx::powerOfTwo(2.0));
  EXPECT_EQ(2.0, vrx::powerOfTwo(3.9));
  EXPECT_EQ(0.25, vrx::powerOfTwo(0.3));
  EXPECT_EQ(1024.0, vrx::powerOfTwo(1500.0));

  Env e;
  ModelDef s = smallModel();
  s.obj = {1e3, -1e5, 0};
  auto run = [&](double objScale, double rhsScale, Model& mm) {
    mm.model = load(e.env, s);
    VRXsetintparam(mm.env(), "ScaleFlag", 0);
    VRXsetdblparam(mm.env(), "ObjScale", objScale);
    VRXsetdblparam(mm.env(), "VORN_PAR_RHSSCALE", rhsScale);
    ASSERT_EQ(0, mm.setup());
    expectSolverFormOf(mm.lp(), mm.model->data);
  };
  Model a, b, c;
  run(8.0, 1.0, a);
  EXPECT_EQ(0.125, a.lp()->objScale);
  EXPECT_EQ(nullptr, a.lp()->colScale);
  run(-1.0, 1.0, b);  // reference sqrt(1e3 * 1e5) = 1e4
  EXPECT_EQ(std::ldexp(1.0, -14), b.lp()->objScale);
  // Every negative value takes the reference from the cost range; a range wider than 1e8
  // takes the largest cost over 1e4 instead: 1e10 / 1e4 = 1e6. -2 is outside the range.
  Model b2, b3;
  run(-0.5, 1.0, b2);
  EXPECT_EQ(std::ldexp(1.0, -14), b2.lp()->objScale);
  s.obj = {1, -1e10, 0};
  run(-1.0, 1.0, b3);
  EXPECT_EQ(std::ldexp(1.0, -20), b3.lp()->objScale);
  EXPECT_NE(0, VRXsetdblparam(b3.env(), "ObjScale", -2.0));
  s.obj = {1e3, -1e5, 0};
  run(0.0, 1000.0, c);  // 512 multiplies rhs and finite bounds, costs stay
  const VRXlp* lp = c.lp();
  ASSERT_NE(nullptr, lp->colScale);
  EXPECT_EQ(512.0, lp->rhsScale);
  EXPECT_EQ(7.0 * 512, lp->rhs[0]);
  EXPECT_EQ(4.0 * 512, lp->upper[0]);
  EXPECT_EQ(1e100, lp->upper[1]);
  EXPECT_EQ(-1e3, lp->cost[0]);
  EXPECT_EQ(1.0, lp->val[0]);

  // The start of a column from its Q diagonal: q = 64 against costs of at most 1 gives 1/8.
  Env qe;
  VRXmodel* qm = loadQp(qe.env);
  Model q;
  q.model = qm;
  ASSERT_EQ(0, q.setup(0));
  EXPECT_EQ(0.125, q.lp()->colScale[1]);
  EXPECT_EQ(1.0, q.lp()->copy->qVal[0]);
}

TEST(LpSetup, BadBoundsAreReportedOncePerLoad) {
  Env e;
  ModelDef s = smallModel();
  s.lb[1] = 5;
  s.ub[1] = 3;
  s.cols[1] = {{0, 3e6}, {1, 5e7}};  // scaled, so the message must give true bounds
  Model mm;
  mm.model = load(e.env, s);
  captureLogOf(mm.env());  // a model's environment takes no log callback from the master
  ASSERT_EQ(0, mm.setup());
  EXPECT_NE(nullptr, mm.lp()->colScale);
  EXPECT_EQ(3, mm.lp()->status);
  EXPECT_EQ(1, mm.lp()->badVar);
  EXPECT_EQ("Warning: variable C1 has bad bounds, lower = 5 and upper = 3\n", capturedLog());
  capturedLog().clear();
  ASSERT_EQ(0, mm.setup());
  EXPECT_EQ("", capturedLog());
  EXPECT_EQ(1, mm.lp()->status);

  // A lower bound at infinity: unbounded when the cost pulls upward, infeasible otherwise.
  for (double cost : {-1.0, 1.0}) {
    ModelDef t = smallModel();
    t.objSense = 1;
    t.obj[1] = cost;
    t.lb[1] = 1e100;
    Model u;
    u.model = load(e.env, t);
    captureLogOf(u.env());
    ASSERT_EQ(0, u.setup());
    EXPECT_EQ(cost < 0 ? 5 : 3, u.lp()->status);
    EXPECT_EQ(cost < 0 ? -1 : 1, u.lp()->badVar);
    EXPECT_EQ("Warning: variable C1 has bad bounds, lower = 1e+100 and upper = 1e+100\n", capturedLog());
  }
}

TEST(LpSetup, RowCopiesFollowTheMatrixAndTheBasis) {
  Env e;
  Model mm;
  mm.model = readNetlib(e.env, "scsd1");
  ASSERT_EQ(0, mm.setup());
  VRXlp* lp = mm.lp();
  const int m = lp->m, n = lp->n;
  // Row-wise copy = transpose of the column-wise structural matrix.
  std::vector<std::vector<std::pair<int, double>>> rows(m);
  for (int j = 0; j < n; j++)
    for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++)
      rows[lp->rowInd[k]].push_back({j, lp->val[k]});
  for (int i = 0; i < m; i++) {
    ASSERT_EQ(static_cast<int>(rows[i].size()), lp->rowLen[i]);
    for (int t = 0; t < lp->rowLen[i]; t++) {
      EXPECT_EQ(rows[i][t].first, lp->colInd[lp->rowBeg[i] + t]);
      EXPECT_EQ(rows[i][t].second, lp->rowVal[lp->rowBeg[i] + t]);
    }
  }
  // The active copy holds exactly the nonbasic columns after random basis exchanges.
  auto check = [&]() {
    for (int i = 0; i < m; i++) {
      std::vector<std::pair<int, double>> want, got;
      for (auto& p : rows[i])
        if (lp->varStat[p.first] < 0) want.push_back(p);
      for (int t = 0; t < lp->activeRowLen[i]; t++)
        got.push_back({lp->activeColInd[lp->rowBeg[i] + t], lp->activeRowVal[lp->rowBeg[i] + t]});
      std::sort(got.begin(), got.end());
      ASSERT_EQ(want, got) << "row " << i;
    }
  };
  check();
  std::mt19937 rng(3);
  for (int step = 0; step < 400; step++) {
    int enter;
    do enter = static_cast<int>(rng() % n);
    while (lp->varStat[enter] >= 0);
    const int pos = static_cast<int>(rng() % m);
    int leave = -1;
    for (int j = 0; j < n + m; j++)
      if (lp->varStat[j] == pos) leave = j;
    ASSERT_EQ(0, VRXlpRowSwap(lp, enter, -1, 1.0));
    ASSERT_EQ(0, VRXlpRowSwap(lp, leave, +1, 1.0));
    lp->varStat[enter] = pos;
    lp->varStat[leave] = VRX_VS_LOWER;
    if (step % 50 == 49) check();
  }
  // Moving a column in twice, or out twice, is refused and changes nothing.
  int nb = 0;
  while (lp->varStat[nb] >= 0 || lp->colLen[nb] == 0) nb++;
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXlpRowSwap(lp, nb, +1, 1.0));
  ASSERT_EQ(0, VRXlpRowSwap(lp, nb, -1, 1.0));
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXlpRowSwap(lp, nb, -1, 1.0));
  ASSERT_EQ(0, VRXlpRowSwap(lp, nb, +1, 1.0));
  check();
}

TEST(LpSetup, AutomaticChoices) {
  Env e;
  // m rows with `eq` of them equalities and n single-entry columns; cost on column 0 only.
  auto wide = [&](int m, int n, int eq, int entriesInCol0 = 1) {
    ModelDef s;
    s.sense.assign(m, '<');
    for (int i = 0; i < eq; i++) s.sense[i] = '=';
    s.rhs.assign(m, 1.0);
    s.obj.assign(n, 0.0);
    s.obj[0] = 1.0;
    s.lb.assign(n, 0.0);
    s.ub.assign(n, 1.0);
    s.cols.resize(n);
    for (int j = 0; j < n; j++) s.cols[j] = {{j % m, 1.0 + j % 3}};
    s.cols[0].clear();
    for (int i = 0; i < entriesInCol0; i++) s.cols[0].push_back({i, 1.0});
    return load(e.env, s);
  };
  struct Case {
    int m, n, eq, sifting, method, want;
  };
  for (Case c : {Case{10, 70000, 0, -1, 1, 1}, Case{500, 59000, 0, -1, 1, 1}, Case{500, 59000, 500, -1, 1, 0},
                 Case{10, 15000, 0, -1, 1, 0}, Case{10, 1500, 0, 1, 1, 1}, Case{400, 1500, 0, 1, 1, 0},
                 Case{1, 70000, 0, 1, 1, 0}, Case{10, 70000, 0, -1, 0, 0}, Case{10, 1500, 0, -2, 1, -1}}) {
    Model mm;
    mm.model = wide(c.m, c.n, c.eq);
    VRXsetintparam(mm.env(), "ScaleFlag", 0);
    mm.env()->par.Sifting = c.sifting;  // -2 is set only by sifting for its sub-problems
    ASSERT_EQ(0, mm.setup(c.method));
    EXPECT_EQ(c.want, mm.lp()->siftFlag) << c.m << " " << c.n << " " << c.eq << " " << c.sifting;
  }

  // Perturbation, cost counts, refactor interval, work unit.
  Model a;
  a.model = wide(400, 1200, 0, 400);
  VRXlpSetupOpts lpKind;
  lpKind.modelKind = VRX_LPKIND_LP;
  ASSERT_EQ(0, a.setup(1, &lpKind));
  EXPECT_EQ(1, a.lp()->costNz);
  EXPECT_EQ(0, a.lp()->singleCost);
  EXPECT_DOUBLE_EQ(0.002, a.lp()->perturbCur);
  EXPECT_EQ(0.0002, a.lp()->perturbBase);
  EXPECT_EQ(66, a.lp()->refactorLimit);  // 400^0.7 = 66.3
  EXPECT_EQ(14, a.lp()->updateCheck);    // 400^0.45 = 14.8
  EXPECT_EQ(1.3, a.lp()->workFactor);
  EXPECT_EQ(66, a.lp()->factor->updateLimit);

  Model b;  // a lone cost on a column of 1001 entries: 25 times more for the dual
  b.model = wide(1001, 1200, 0, 1001);
  VRXsetintparam(b.env(), "NumericFocus", 2);
  ASSERT_EQ(0, b.setup(1));
  EXPECT_DOUBLE_EQ(0.0002 * 25, b.lp()->perturbCur);
  EXPECT_EQ(31, b.lp()->refactorLimit);  // 1001^0.5, capped at 100 with focus 2
  ASSERT_EQ(0, b.setup(0));              // the primal keeps the plain value
  EXPECT_EQ(0.0002, b.lp()->perturbCur);

  Model c;  // equal costs everywhere; LUINTERVAL as given; 20 at least
  ModelDef s = badlyScaled(1);
  c.model = load(e.env, s);
  VRXsetintparam(c.env(), "VORN_PAR_LUINTERVAL", 77);
  ASSERT_EQ(0, c.setup());
  EXPECT_EQ(-2, c.lp()->singleCost);
  EXPECT_EQ(77, c.lp()->refactorLimit);
  s.obj[3] = 2;
  Model d;
  d.model = load(e.env, s);
  ASSERT_EQ(0, d.setup());
  EXPECT_EQ(-1, d.lp()->singleCost);
  EXPECT_EQ(20, d.lp()->refactorLimit);

  Model big;  // 20000 rows at low density: 1.3 * sqrt(log10(20))
  big.model = wide(20000, 20, 0);
  VRXsetintparam(big.env(), "ScaleFlag", 0);
  VRXsetdblparam(big.env(), "Cutoff", 5.0);
  VRXsetintparam(big.env(), "SimplexPricing", 1);
  ASSERT_EQ(0, big.setup(1));
  EXPECT_NEAR(1.3 * std::sqrt(std::log10(20.0)), big.lp()->workFactor, 1e-12);
  EXPECT_EQ(5.0, big.lp()->cutoff);
  EXPECT_EQ(-1, big.lp()->exactNorm);
  ASSERT_EQ(0, big.setup(0));  // exact norms are a dual matter
  EXPECT_EQ(0, big.lp()->exactNorm);
}

TEST(LpSetup, SlackBasisAndPrecisionSwitch) {
  Env e;
  VRXsetintparam(e.env, "Quad", 1);
  Model mm;
  mm.model = load(e.env, smallModel());
  captureLogOf(mm.env());
  ASSERT_EQ(0, mm.setup());
  VRXlp* lp = mm.lp();
  EXPECT_EQ(1, lp->quadMode);
  EXPECT_EQ("", capturedLog());  // a new record starts extended without a word
  EXPECT_EQ(nullptr, lp->Cbar);
  ASSERT_NE(nullptr, lp->CbarQ);
  ASSERT_NE(nullptr, lp->factorQ);
  EXPECT_EQ(nullptr, lp->factor);
  // Slack basis: x0 at lower, x1 (upper infinite) at lower, x2 at lower; slacks basic.
  EXPECT_EQ(std::vector<int>({-1, -1, -1, 0, 1, 2}), std::vector<int>(lp->varStat, lp->varStat + 6));
  EXPECT_EQ(std::vector<int>({3, 4, 5}), std::vector<int>(lp->factorQ->basisHead, lp->factorQ->basisHead + 3));

  const long double third = 1.0L / 3;
  lp->CbarQ[4] = third;
  lp->BbarQ[2] = -2.5L;
  lp->rhoQ.count = 1;
  lp->rhoQ.index[0] = 1;
  lp->rhoQ.value[1] = 0.75L;
  lp->varStat[0] = 1;  // x0 basic at position 1, the slack of row 1 at its lower bound
  lp->varStat[4] = VRX_VS_LOWER;
  VRXsetintparam(mm.env(), "Quad", 0);
  ASSERT_EQ(0, mm.setup());
  EXPECT_EQ("Switch to double precision\n", capturedLog());
  EXPECT_EQ(0, lp->quadMode);
  EXPECT_EQ(nullptr, lp->CbarQ);
  EXPECT_EQ(nullptr, lp->factorQ);
  ASSERT_NE(nullptr, lp->factor);
  EXPECT_EQ(static_cast<double>(third), lp->Cbar[4]);
  EXPECT_EQ(-2.5, lp->Bbar[2]);
  EXPECT_EQ(1, lp->rho.count);
  EXPECT_EQ(0.75, lp->rho.value[1]);
  // The rebuilt factor takes the basis of the status array.
  EXPECT_EQ(std::vector<int>({3, 0, 5}), std::vector<int>(lp->factor->basisHead, lp->factor->basisHead + 3));
  capturedLog().clear();
  VRXsetintparam(mm.env(), "Quad", 1);
  ASSERT_EQ(0, mm.setup());
  EXPECT_EQ("Switch to quad precision\n", capturedLog());
  EXPECT_EQ(static_cast<long double>(static_cast<double>(third)), lp->CbarQ[4]);
  capturedLog().clear();
  ASSERT_EQ(0, mm.setup());
  EXPECT_EQ("", capturedLog());
}

TEST(LpSetup, SolutionVectorsUnscaleInBothForms) {
  Env e;
  Model mm;
  mm.model = load(e.env, smallModel());
  ASSERT_EQ(0, mm.setup());
  const VRXlp* lp = mm.lp();
  ASSERT_NE(nullptr, lp->colScale);
  // Reduced costs d = c - A^T y hold in true units once both sides are unscaled.
  auto run = [&](auto zero) {
    using T = decltype(zero);
    std::vector<T> ys = {T(0.5), T(-3), T(0.25)}, ds(6);
    for (int j = 0; j < 6; j++) {
      T s = T(lp->cost[j]);
      for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++) s -= ys[lp->rowInd[k]] * T(lp->val[k]);
      ds[j] = s;
    }
    std::vector<double> y(3), d(6);
    vrx::lpUnscaleDual<T>(lp, ys.data(), y.data());
    vrx::lpUnscaleReduced<T>(lp, ds.data(), d.data());
    const VRXmodeldata* md = mm.model->data;
    for (int j = 0; j < 3; j++) {
      double s = md->obj[j];
      for (int64_t k = md->colBeg[j]; k < md->colBeg[j] + md->colLen[j]; k++) {
        const int i = md->rowInd[k];
        s -= y[i] * md->val[k] * (md->sense[i] == '>' ? -1 : 1);
      }
      EXPECT_NEAR(s, d[j], 1e-9 * (1 + std::fabs(s)));
    }
    std::vector<T> xs(6);
    for (int j = 0; j < 6; j++) xs[j] = T(j + 1) / T(lp->colScale[j]);
    std::vector<double> x(6);
    vrx::lpUnscalePrimal<T>(lp, xs.data(), x.data());
    for (int j = 0; j < 6; j++) EXPECT_EQ(j + 1.0, x[j]);
  };
  run(0.0);
  run(0.0L);
}

TEST(LpSetup, CallerCopyTakesFlipsAndScaleOnce) {
  Env e;
  Model mm;
  mm.model = load(e.env, smallModel());
  VRXmodeldata* copy = nullptr;
  ASSERT_EQ(0, vrx::lpMakeSolverCopy(mm.env(), mm.model->data, &copy));
  copy->colFlipped = vrx::envCallocArray<char>(mm.env(), 6);
  copy->colFlipped[0] = 1;
  VRXlpSetupOpts o;
  o.copy = copy;
  ASSERT_EQ(0, mm.setup(1, &o));
  const double* scale = copy->colScale;
  ASSERT_NE(nullptr, scale);
  EXPECT_EQ(scale, mm.lp()->colScale);
  const double c0 = scale[0];
  EXPECT_EQ(1, copy->flippedCount);
  EXPECT_EQ(-4.0 / c0, mm.lp()->lower[0]);
  EXPECT_EQ(0.0, mm.lp()->upper[0]);
  EXPECT_EQ(1.0, mm.lp()->cost[0] / (c0 * mm.lp()->objScale));  // maximised 1 is -1, flipped
  const double v0 = copy->val[0];
  // A second record on the same copy neither flips nor scales again, and frees nothing of it.
  VRXlpFreeOnModel(mm.model);
  ASSERT_EQ(0, mm.setup(1, &o));
  EXPECT_EQ(scale, mm.lp()->colScale);
  EXPECT_EQ(v0, copy->val[0]);
  EXPECT_EQ(-4.0 / c0, mm.lp()->lower[0]);
  VRXlpFreeOnModel(mm.model);
  vrx::modelDataFree(mm.env(), copy);
}

TEST(LpSetup, RecordsBuildOnSeveralThreadsAtOnce) {
  const char* names[4] = {"pilot4", "scfxm1", "bandm", "pilot4"};
  std::vector<std::vector<double>> serial(4), parallel(4);
  auto build = [&](int t, std::vector<double>* out) {
    Env e;  // one environment per thread, as the interface requires
    Model mm;
    mm.model = readNetlib(e.env, names[t]);
    if (!mm.model || mm.setup()) return;
    out->assign(mm.lp()->val, mm.lp()->val + mm.lp()->nnz);
    out->insert(out->end(), mm.lp()->colScale, mm.lp()->colScale + mm.lp()->n + mm.lp()->m);
  };
  for (int t = 0; t < 4; t++) build(t, &serial[t]);
  std::vector<std::thread> th;
  for (int t = 0; t < 4; t++) th.emplace_back(build, t, &parallel[t]);
  for (auto& t : th) t.join();
  for (int t = 0; t < 4; t++) {
    EXPECT_FALSE(serial[t].empty());
    EXPECT_EQ(serial[t], parallel[t]) << names[t];
  }
}

TEST(LpSetup, EveryFailedAllocationIsReportedAndFreed) {
  for (int quad : {0, 1}) {
    HookState hs;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, loadWithHooks(&env, &hs));
    VRXsetintparam(env, "OutputFlag", 0);
    VRXsetintparam(env, "Quad", quad);
    VRXmodel* model = quad ? loadQp(env) : readNetlib(env, "afiro");
    ASSERT_NE(nullptr, model);
    const long base = hs.live;
    int k = 0;
    for (;; k++) {
      hs.failAt = hs.calls + k;
      const int rc = VRXlpSetup(model, 1, nullptr, nullptr);
      hs.failAt = -1;
      if (rc == 0) break;
      ASSERT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << "allocation " << k;
      EXPECT_EQ(nullptr, model->lp);
      EXPECT_EQ(base, hs.live) << "allocation " << k;
    }
    EXPECT_GT(k, 15);
    // A refresh that switches precision fails cleanly as well.
    VRXsetintparam(VRXgetenv(model), "Quad", 1 - quad);
    hs.failAt = hs.calls;
    EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, VRXlpSetup(model, 1, nullptr, nullptr));
    hs.failAt = -1;
    EXPECT_EQ(nullptr, model->lp);
    EXPECT_EQ(base, hs.live);
    VRXfreemodel(model);
    VRXfreeenv(env);
    EXPECT_EQ(0, hs.live);
  }
}

TEST(LpSetup, PiecewiseLinearObjectiveIsRefusedNotDropped) {
  // min f(x) with f(-10) = 12, f(2) = 0, f(10) = 8: without its terms the LP would end at a
  // bound with objective 0, a wrong answer that looks right.
  Env e;
  Model mm;
  mm.model = load(e.env, smallModel());
  const double x[3] = {-10, 2, 10}, y[3] = {12, 0, 8};
  ASSERT_EQ(0, VRXsetpwlobj(mm.model, 0, 3, x, y));
  ASSERT_EQ(0, VRXupdatemodel(mm.model));
  EXPECT_EQ(VRX_ERROR_NOT_SUPPORTED, mm.setup());
  EXPECT_EQ(nullptr, mm.model->lp);
  VRXsetintparam(mm.env(), "Presolve", 0);
  EXPECT_EQ(VRX_ERROR_NOT_SUPPORTED, VRXoptimize(mm.model));
  EXPECT_NE(nullptr, std::strstr(VRXgeterrormsg(mm.env()), "Piecewise-linear"));
}

}  // namespace
