// The dual simplex: the public Netlib set against the reference optima, and small LPs with a
// known answer for every way a solve can end.
#include "../support/modeldef.h"
#include "simplex/dual.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "env/clock.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "simplex/lp.h"
#include "simplex/simplex.h"
#include "vornix_c.h"

namespace {

struct Env {
  VRXenv* env = nullptr;
  Env() {
    EXPECT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
  }
  ~Env() { VRXfreeenv(env); }
};

struct Model {
  VRXmodel* model = nullptr;
  explicit Model(VRXmodel* m = nullptr) : model(m) {}
  ~Model() { reset(); }
  void reset() {
    if (!model) return;
    VRXlpFreeOnModel(model);
    VRXfreemodel(model);
    model = nullptr;
  }
  VRXlp* lp() const { return static_cast<VRXlp*>(model->lp); }
  VRXenv* env() const { return VRXgetenv(model); }
};

VRXmodel* load(VRXenv* env, const ModelDef& s) {
  VRXmodel* m = loadModelDef(env, s);
  VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
  return m;
}

// Objective of the record in the model's sense and true units.
double objectiveOf(const VRXlp* lp) { return lp->sense * lp->dualObj; }

// Runs the dual on the record made by the setup; returns the status.
int solve(Model& mm, double* seconds = nullptr) {
  double work = 0;
  VRXlpSetupOpts opts;
  if (const char* kind = std::getenv("VRX_DUAL_KIND")) opts.modelKind = std::atoi(kind);
  EXPECT_EQ(0, VRXlpSetup(mm.model, 1, &work, &opts));
  if (!mm.lp()) return -1;
  vrx::Clock clock = vrx::clockStart();
  auto t0 = std::chrono::steady_clock::now();
  int rc = VRXdualSolve(mm.lp(), clock);
  auto t1 = std::chrono::steady_clock::now();
  if (seconds) *seconds = std::chrono::duration<double>(t1 - t0).count();
  EXPECT_EQ(0, rc);
  return mm.lp()->status;
}

std::map<std::string, double> readReference() {
  std::map<std::string, double> ref;
  std::ifstream in(std::string(VRX_SHARED_DATA) + "/reference.csv");
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::stringstream ss(line);
    std::string name, set, rows, cols, obj;
    std::getline(ss, name, ',');
    std::getline(ss, set, ',');
    std::getline(ss, rows, ',');
    std::getline(ss, cols, ',');
    std::getline(ss, obj, ',');
    if (set == "netlib") ref[name] = std::atof(obj.c_str());
  }
  return ref;
}

bool closeTo(double a, double b) { return std::fabs(a - b) <= 1e-6 * std::max(1.0, std::fabs(b)); }

// Primal values in solver units: basics from Bbar, nonbasics at their bound.
std::vector<double> primalOf(const VRXlp* lp) {
  std::vector<double> x(static_cast<size_t>(lp->n + lp->m), 0.0);
  for (int j = 0; j < lp->n + lp->m; j++) {
    const int st = lp->varStat[j];
    if (st >= 0)
      x[j] = lp->quadMode ? static_cast<double>(lp->BbarQ[st]) : lp->Bbar[st];
    else if (st == VRX_VS_LOWER || st == VRX_VS_FIX_LOWER)
      x[j] = lp->lower[j];
    else if (st == VRX_VS_UPPER || st == VRX_VS_FIX_UPPER)
      x[j] = lp->upper[j];
  }
  return x;
}

// Largest violation of rows and bounds of a solver-unit point.
double primalViolation(const VRXlp* lp, const std::vector<double>& x) {
  double worst = 0;
  std::vector<double> act(static_cast<size_t>(lp->m), 0.0);
  for (int j = 0; j < lp->n + lp->m; j++)
    for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++) act[lp->rowInd[k]] += lp->val[k] * x[j];
  for (int i = 0; i < lp->m; i++) worst = std::max(worst, std::fabs(act[i] - lp->rhs[i]));
  for (int j = 0; j < lp->n + lp->m; j++) {
    if (lp->lower[j] > -lp->infBound) worst = std::max(worst, lp->lower[j] - x[j]);
    if (lp->upper[j] < lp->infBound) worst = std::max(worst, x[j] - lp->upper[j]);
  }
  return worst;
}

// Largest dual infeasibility of the record's reduced costs.
double dualViolation(const VRXlp* lp) {
  double worst = 0;
  for (int j = 0; j < lp->n + lp->m; j++) {
    const int st = lp->varStat[j];
    const double c = lp->quadMode ? static_cast<double>(lp->CbarQ[j]) : lp->Cbar[j];
    if (st == VRX_VS_LOWER || st == VRX_VS_UPPER) worst = std::max(worst, -c);
    if (st == VRX_VS_FREE) worst = std::max(worst, std::fabs(c));
  }
  return worst;
}

// ------------------------------------------------------------------ Netlib

TEST(DualSimplex, NetlibReferenceOptima) {
  auto ref = readReference();
  ASSERT_EQ(66u, ref.size());
  const char* only = std::getenv("VRX_DUAL_ONLY");
  const char* timesOut = std::getenv("VRX_DUAL_TIMES");
  std::FILE* tf = timesOut ? std::fopen(timesOut, "w") : nullptr;
  Env e;
  int passed = 0;
  double total = 0;
  for (auto& [name, expected] : ref) {
    if (only && name != only) continue;
    VRXmodel* m = nullptr;
    const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
    ASSERT_EQ(0, VRXreadmodel(e.env, path.c_str(), &m)) << name;
    Model mm(m);
    VRXsetintparam(mm.env(), "OutputFlag", std::getenv("VRX_DUAL_LOG") ? 1 : 0);
    if (const char* kv = std::getenv("VRX_DUAL_SETINT")) {
      std::string t(kv);
      VRXsetintparam(mm.env(), t.substr(0, t.find('=')).c_str(), std::atoi(t.c_str() + t.find('=') + 1));
    }
    if (std::getenv("VRX_DUAL_LOG")) VRXsetintparam(mm.env(), "VORN_PAR_SDISPINTERVAL", std::atoi(std::getenv("VRX_DUAL_LOG")));
    double secs = 0;
    const int status = solve(mm, &secs);
    total += secs;
    const double obj = objectiveOf(mm.lp());
    EXPECT_EQ(2, status) << name;
    EXPECT_TRUE(closeTo(obj, expected)) << name << ": " << obj << " expected " << expected;
    if (status == 2 && closeTo(obj, expected)) passed++;
    if (status == 2) {
      // The basis itself is checked: feasible rows and bounds, dual feasible reduced costs.
      const VRXlp* lp = mm.lp();
      EXPECT_LT(primalViolation(lp, primalOf(lp)), 1e-5) << name;
      EXPECT_LT(dualViolation(lp), 1e-5) << name;
    }
    if (tf)
      std::fprintf(tf, "%s %.6f %.0f %d %.12g %d\n", name.c_str(), secs, mm.lp()->iterCount, status, obj,
                   mm.lp()->refactorCount);
  }
  if (tf) std::fclose(tf);
  std::printf("[ dual     ] %d models optimal at the reference value, %.2fs in the solves\n", passed, total);
}

// ------------------------------------------------------------------ small LPs

// Gap of the Farkas proof the infeasible end leaves: y = rho (row of the basis inverse at
// leaveRow) gives y'(A x + s) = y'b for every solution, while the bounds of all variables
// keep y'(A x + s) inside [lowSum, highSum]. A positive result is the distance of y'b from
// that interval: the proof holds.
double farkasGap(const VRXlp* lp) {
  const int n = lp->n, m = lp->m;
  std::vector<double> y(static_cast<size_t>(m));
  for (int i = 0; i < m; i++) y[i] = lp->quadMode ? static_cast<double>(lp->rhoQ.value[i]) : lp->rho.value[i];
  double yb = 0;
  for (int i = 0; i < m; i++) yb += y[i] * lp->rhs[i];
  double lowSum = 0, highSum = 0;
  for (int j = 0; j < n + m; j++) {
    double a = 0;
    for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++) a += lp->val[k] * y[lp->rowInd[k]];
    if (std::fabs(a) < 1e-12) continue;
    const double lo = lp->lower[j], up = lp->upper[j];
    const double atLo = lo <= -lp->infBound ? (a > 0 ? -HUGE_VAL : HUGE_VAL) : a * lo;
    const double atUp = up >= lp->infBound ? (a > 0 ? HUGE_VAL : -HUGE_VAL) : a * up;
    lowSum += std::min(atLo, atUp);
    highSum += std::max(atLo, atUp);
  }
  return std::max(lowSum - yb, yb - highSum);
}

TEST(DualSimplex, InfeasibleWithFarkasProof) {
  Env e;
  {
    // x + y <= 1 and x + y >= 3.
    ModelDef d;
    d.obj = {1, 1};
    d.lb = {0, 0};
    d.ub = {1e100, 1e100};
    d.rhs = {1, 3};
    d.sense = "<>";
    d.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1}}};
    Model mm(load(e.env, d));
    EXPECT_EQ(3, solve(mm));
    EXPECT_GE(mm.lp()->leaveRow, 0);
    EXPECT_GT(farkasGap(mm.lp()), 1e-6);
  }
  {
    // Boxed columns: the ratio test flips them all and the row still cannot be met.
    ModelDef d;
    d.obj = {-1, 2, -3, 1};
    d.lb = {0, 0, 0, 0};
    d.ub = {1, 1, 1, 1};
    d.rhs = {5};
    d.sense = "=";
    d.cols = {{{0, 1}}, {{0, 1}}, {{0, 1}}, {{0, 1}}};
    Model mm(load(e.env, d));
    EXPECT_EQ(3, solve(mm));
    EXPECT_GT(farkasGap(mm.lp()), 0.9);
  }
  {
    // Infeasible after some pivots: a small transportation problem with supply short by one.
    ModelDef d;
    const int S = 4, D = 5;
    for (int i = 0; i < S; i++)
      for (int j = 0; j < D; j++) {
        d.obj.push_back(1 + (i * 7 + j * 3) % 5);
        d.lb.push_back(0);
        d.ub.push_back(1e100);
        d.cols.push_back({{i, 1}, {S + j, 1}});
      }
    for (int i = 0; i < S; i++) d.rhs.push_back(10), d.sense += '<';
    for (int j = 0; j < D; j++) d.rhs.push_back(j == 0 ? 9 : 8), d.sense += '>';
    Model mm(load(e.env, d));
    EXPECT_EQ(3, solve(mm));
    EXPECT_GT(farkasGap(mm.lp()), 1e-6);
    // One more unit of supply makes it feasible with a known optimum of at least the demand.
    d.rhs[0] = 11;
    Model ok(load(e.env, d));
    EXPECT_EQ(2, solve(ok));
    EXPECT_LT(primalViolation(ok.lp(), primalOf(ok.lp())), 1e-9);
  }
}

TEST(DualSimplex, NoDualSolutionTellsUnboundedFromInfeasible) {
  Env e;
  {
    // min -x - y, x - y <= 1: a ray along x = y.
    ModelDef d;
    d.obj = {-1, -1};
    d.lb = {0, 0};
    d.ub = {1e100, 1e100};
    d.rhs = {1};
    d.sense = "<";
    d.cols = {{{0, 1}}, {{0, -1}}};
    Model mm(load(e.env, d));
    EXPECT_EQ(5, solve(mm));
    EXPECT_LT(primalViolation(mm.lp(), primalOf(mm.lp())), 1e-9);
  }
  {
    // A free column with a cost and no rows to hold it, next to a feasible row.
    ModelDef d;
    d.obj = {1, 3};
    d.lb = {-1e100, 0};
    d.ub = {1e100, 4};
    d.rhs = {2};
    d.sense = ">";
    d.cols = {{}, {{0, 1}}};
    Model mm(load(e.env, d));
    EXPECT_EQ(5, solve(mm));
  }
  {
    // Unbounded cost direction and infeasible rows at once: infeasible.
    ModelDef d;
    d.obj = {-1, 0};
    d.lb = {0, 0};
    d.ub = {1e100, 1e100};
    d.rhs = {-1, 0};
    d.sense = "<>";
    d.cols = {{{1, 1}}, {{0, 1}, {1, -1}}};
    Model mm(load(e.env, d));
    const int st = solve(mm);
    EXPECT_TRUE(st == 3 || st == 4) << st;
  }
}

// Beale's example cycles under the textbook rule; the optimum is -1/20.
ModelDef bealeModel() {
  ModelDef d;
  d.obj = {-0.75, 150, -0.02, 6};
  d.lb = {0, 0, 0, 0};
  d.ub = {1e100, 1e100, 1e100, 1e100};
  d.rhs = {0, 0, 1};
  d.sense = "<<<";
  d.cols = {{{0, 0.25}, {1, 0.5}}, {{0, -60}, {1, -90}}, {{0, -0.04}, {1, -0.02}, {2, 1}}, {{0, 9}, {1, 3}}};
  return d;
}

TEST(DualSimplex, DegenerateModelsReachTheirOptimum) {
  Env e;
  {
    Model mm(load(e.env, bealeModel()));
    EXPECT_EQ(2, solve(mm));
    EXPECT_NEAR(-0.05, objectiveOf(mm.lp()), 1e-9);
  }
  {
    // Assignment with costs (i + j) % 3 + 1: primal and dual degenerate, optimum n.
    const int n = 24;
    ModelDef d;
    for (int i = 0; i < n; i++)
      for (int j = 0; j < n; j++) {
        d.obj.push_back((i + j) % 3 + 1);
        d.lb.push_back(0);
        d.ub.push_back(1e100);
        d.cols.push_back({{i, 1}, {n + j, 1}});
      }
    for (int k = 0; k < 2 * n; k++) d.rhs.push_back(1), d.sense += '=';
    Model mm(load(e.env, d));
    EXPECT_EQ(2, solve(mm));
    EXPECT_NEAR(n, objectiveOf(mm.lp()), 1e-9);
    EXPECT_LT(primalViolation(mm.lp(), primalOf(mm.lp())), 1e-9);
    EXPECT_LT(dualViolation(mm.lp()), 1e-9);
    // The same without perturbation.
    Model plain(load(e.env, d));
    VRXsetdblparam(plain.env(), "PerturbValue", 0);
    EXPECT_EQ(2, solve(plain));
    EXPECT_NEAR(n, objectiveOf(plain.lp()), 1e-9);
  }
}

TEST(DualSimplex, FreeAndBoxedColumns) {
  Env e;
  {
    // Free x, y: min x + y over x + 2y >= 2, 2x + y >= 2 gives 4/3 at (2/3, 2/3).
    ModelDef d;
    d.obj = {1, 1};
    d.lb = {-1e100, -1e100};
    d.ub = {1e100, 1e100};
    d.rhs = {2, 2};
    d.sense = ">>";
    d.cols = {{{0, 1}, {1, 2}}, {{0, 2}, {1, 1}}};
    Model mm(load(e.env, d));
    EXPECT_EQ(2, solve(mm));
    EXPECT_NEAR(4.0 / 3.0, objectiveOf(mm.lp()), 1e-9);
    auto x = primalOf(mm.lp());
    EXPECT_NEAR(2.0 / 3.0, x[0] * (mm.lp()->colScale ? mm.lp()->colScale[0] : 1.0), 1e-9);
  }
  {
    // Boxed columns, one knapsack row: the ratio test passes several break points at once.
    const int n = 10;
    ModelDef d;
    for (int j = 0; j < n; j++) {
      d.obj.push_back(-(j + 1.0));
      d.lb.push_back(0);
      d.ub.push_back(1);
    }
    d.rhs = {3.5};
    d.sense = "<";
    d.cols.push_back({});
    d.cols.clear();
    for (int j = 0; j < n; j++) d.cols.push_back({{0, 1}});
    Model mm(load(e.env, d));
    EXPECT_EQ(2, solve(mm));
    // Best: the three largest at 1 and half of the fourth: 10 + 9 + 8 + 3.5.
    EXPECT_NEAR(-30.5, objectiveOf(mm.lp()), 1e-9);
    EXPECT_GT(mm.lp()->workIter, mm.lp()->iterCount);  // bound flips happened
    EXPECT_LE(mm.lp()->iterCount, 2);
  }
  {
    // Maximisation with a '>' row, a range and a fixed column.
    ModelDef d;
    d.objSense = -1;
    d.obj = {3, 2, 1};
    d.lb = {0, -2, 1.5};
    d.ub = {4, 3, 1.5};
    d.rhs = {5, 1};
    d.sense = "<>";
    d.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, -1}}, {{0, 1}}};
    Model mm(load(e.env, d));
    EXPECT_EQ(2, solve(mm));
    // x2 = 1.5 fixed, x0 + x1 <= 3.5, x0 - x1 >= 1, x0 <= 4: x0 = 3.5 - x1 ... best x1 = -0.5? no,
    // 3 x0 + 2 x1 with x0 = 3.5 - x1 is 10.5 - x1: x1 as small as the row x0 - x1 >= 1 allows
    // with x0 <= 4: x1 = -0.5, x0 = 4: 12 - 1 + 1.5 = 12.5.
    EXPECT_NEAR(12.5, objectiveOf(mm.lp()), 1e-9);
  }
}

TEST(DualSimplex, ManyRowsFewColumns) {
  // Every row starts infeasible, far more than the candidate list keeps: the list is rebuilt
  // by selection. Rows x + y >= i/200, 2x + y >= i/100, x + 3y >= i/50 for i = 1..200; the
  // last of each family binds: optimum 1.6 at (0.4, 1.2).
  Env e;
  ModelDef d;
  d.obj = {1, 1};
  d.lb = {0, 0};
  d.ub = {1e100, 1e100};
  d.cols.resize(2);
  const double coef[3][2] = {{1, 1}, {2, 1}, {1, 3}};
  const double top[3] = {1, 2, 4};
  for (int i = 1; i <= 200; i++)
    for (int f = 0; f < 3; f++) {
      const int row = static_cast<int>(d.rhs.size());
      d.rhs.push_back(top[f] * i / 200.0);
      d.sense += '>';
      d.cols[0].push_back({row, coef[f][0]});
      d.cols[1].push_back({row, coef[f][1]});
    }
  Model mm(load(e.env, d));
  EXPECT_EQ(2, solve(mm));
  EXPECT_NEAR(1.6, objectiveOf(mm.lp()), 1e-9);
  EXPECT_LT(primalViolation(mm.lp(), primalOf(mm.lp())), 1e-9);
}

TEST(DualSimplex, NoRowsAndTheTwoPassRatioTest) {
  Env e;
  {
    // No rows: each column goes to the bound its cost asks for.
    ModelDef d;
    d.obj = {2, -1, 0};
    d.lb = {1, -3, -1e100};
    d.ub = {5, 4, 1e100};
    d.cols = {{}, {}, {}};
    Model mm(load(e.env, d));
    EXPECT_EQ(2, solve(mm));
    EXPECT_NEAR(2 - 4, objectiveOf(mm.lp()), 1e-12);
    d.obj[2] = 1;  // a free column with a cost: unbounded
    Model un(load(e.env, d));
    EXPECT_EQ(5, solve(un));
  }
  {
    // The plain Harris test (no bound flips) reaches the same optima.
    for (const char* name : {"afiro", "sc50b", "boeing2"}) {
      VRXmodel* m = nullptr;
      ASSERT_EQ(0, VRXreadmodel(e.env, (std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz").c_str(), &m));
      Model mm(m);
      VRXsetintparam(mm.env(), "OutputFlag", 0);
      VRXsetintparam(mm.env(), "VORN_PAR_SIMPLEXPWRATIO", 0);
      EXPECT_EQ(2, solve(mm)) << name;
      EXPECT_TRUE(closeTo(objectiveOf(mm.lp()), readReference()[name])) << name;
      EXPECT_EQ(mm.lp()->workIter, mm.lp()->iterCount) << name;
    }
  }
}

TEST(DualSimplex, LogLines) {
  Env e;
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXreadmodel(e.env, (std::string(VRX_SHARED_DATA) + "/netlib/afiro.mps.gz").c_str(), &m));
  Model mm(m);
  captureLogOf(mm.env());
  VRXsetintparam(mm.env(), "VORN_PAR_SDISPINTERVAL", 5);
  EXPECT_EQ(2, solve(mm));
  const std::string text = capturedLog();
  VRXsetlogcallbackfuncenv(mm.env(), nullptr);
  const std::string header = "Iteration    Objective       Primal Inf.    Dual Inf.      Time\n";
  ASSERT_NE(std::string::npos, text.find(header));
  EXPECT_EQ(text.find(header), text.rfind(header));  // once per record
  // The first line at iteration 0, one per 5 iterations, the last at the optimum.
  const size_t body = text.find(header) + header.size();
  EXPECT_EQ(0, text.compare(body, 11, "       0   ")) << text;
  char last[128];
  std::snprintf(last, sizeof last, " %7.0f   %14.7e", mm.lp()->iterCount, objectiveOf(mm.lp()));
  EXPECT_NE(std::string::npos, text.find(last)) << text;
  int lines = 0;
  for (size_t p = body; p < text.size(); p = text.find('\n', p) + 1)
    if (text.compare(p, 1, " ") == 0) lines++;
  EXPECT_GE(lines, static_cast<int>(mm.lp()->iterCount) / 5);
}

TEST(DualSimplex, PricingModesReachTheSameOptima) {
  // Unit weights, devex, steepest edge from unit weights, full pricing, column weights.
  const std::pair<const char*, int> settings[] = {{"SimplexPricing", 0}, {"SimplexPricing", 2},
                                                  {"SimplexPricing", 3}, {"NormAdjust", 0},
                                                  {"NormAdjust", 3}};
  auto ref = readReference();
  Env e;
  for (const char* name : {"sc105", "boeing2", "stocfor1", "grow7"}) {
    for (auto& [param, value] : settings) {
      VRXmodel* m = nullptr;
      ASSERT_EQ(0, VRXreadmodel(e.env, (std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz").c_str(), &m));
      Model mm(m);
      VRXsetintparam(mm.env(), "OutputFlag", 0);
      VRXsetintparam(mm.env(), param, value);
      EXPECT_EQ(2, solve(mm)) << name << " " << param << "=" << value;
      EXPECT_TRUE(closeTo(objectiveOf(mm.lp()), ref[name])) << name << " " << param << "=" << value;
      EXPECT_LT(dualViolation(mm.lp()), 1e-6) << name << " " << param << "=" << value;
    }
  }
}

TEST(DualSimplex, LimitsCutoffAndInterrupt) {
  Env e;
  auto afiro = [&] {
    VRXmodel* m = nullptr;
    EXPECT_EQ(0, VRXreadmodel(e.env, (std::string(VRX_SHARED_DATA) + "/netlib/afiro.mps.gz").c_str(), &m));
    VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
    return m;
  };
  {
    Model mm(afiro());
    VRXsetdblparam(mm.env(), "IterationLimit", 5);
    EXPECT_EQ(7, solve(mm));
    EXPECT_EQ(5, mm.lp()->iterCount);
  }
  {
    // The optimum is -464.75; a cutoff below it is passed by the dual bound first.
    Model full(afiro());
    EXPECT_EQ(2, solve(full));
    Model mm(afiro());
    VRXsetdblparam(mm.env(), "Cutoff", -470);
    EXPECT_EQ(6, solve(mm));
    EXPECT_GE(objectiveOf(mm.lp()), -470);
    EXPECT_LE(mm.lp()->iterCount, full.lp()->iterCount);
    // A cutoff above the optimum changes nothing.
    Model loose(afiro());
    VRXsetdblparam(loose.env(), "Cutoff", -400);
    EXPECT_EQ(2, solve(loose));
  }
  {
    Model mm(afiro());
    VRXsetdblparam(mm.env(), "TimeLimit", 0);
    EXPECT_EQ(9, solve(mm));
  }
  {
    // The callback at the log line reads the progress and asks to stop.
    Model mm(afiro());
    static int calls;
    static double iter;
    calls = 0;
    iter = -1;
    auto cb = [](VRXmodel* model, void* cbdata, int where, void*) -> int {
      if (where != VRX_CB_SIMPLEX) return 0;
      calls++;
      VRXcbget(cbdata, where, VRX_CB_SPX_ITRCNT, &iter);
      VRXterminate(model);
      return 0;
    };
    VRXsetcallbackfunc(mm.model, cb, nullptr);
    EXPECT_EQ(11, solve(mm));
    EXPECT_EQ(1, calls);
    EXPECT_EQ(0, iter);
  }
  {
    // A callback's nonzero result ends the run with that code (a fresh environment: the
    // stop request above stays with the first one).
    Env e2;
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(e2.env, (std::string(VRX_SHARED_DATA) + "/netlib/afiro.mps.gz").c_str(), &m));
    Model other(m);
    VRXsetintparam(other.env(), "OutputFlag", 0);
    auto stop = [](VRXmodel*, void*, int where, void*) -> int { return where == VRX_CB_SIMPLEX ? 10011 : 0; };
    VRXsetcallbackfunc(other.model, stop, nullptr);
    double work = 0;
    ASSERT_EQ(0, VRXlpSetup(other.model, 1, &work));
    vrx::Clock clock = vrx::clockStart();
    EXPECT_EQ(10011, VRXdualSolve(other.lp(), clock));
    EXPECT_EQ(11, other.lp()->status);
  }
}

TEST(DualSimplex, ExtendedPrecisionAndThreads) {
  auto run = [](const char* name, int quad, double expected, int* status, double* obj, int* mode) {
    Env e;
    VRXmodel* m = nullptr;
    EXPECT_EQ(0, VRXreadmodel(e.env, (std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz").c_str(), &m));
    Model mm(m);
    VRXsetintparam(mm.env(), "OutputFlag", 0);
    VRXsetintparam(mm.env(), "Quad", quad);
    *status = solve(mm);
    *obj = objectiveOf(mm.lp());
    *mode = mm.lp()->quadMode;
    (void)expected;
  };
  int st = 0, mode = 0;
  double obj = 0;
  run("sc105", 1, -52.202061212, &st, &obj, &mode);
  EXPECT_EQ(1, mode);
  EXPECT_EQ(2, st);
  EXPECT_TRUE(closeTo(obj, -52.202061212)) << obj;

  // Several solves at once on separate environments give the results of one at a time.
  const char* names[] = {"afiro", "sc50a", "kb2", "blend"};
  const double refs[] = {-464.75314286, -64.575077059, -1749.9001299, -30.812149846};
  int sts[4];
  double objs[4];
  int modes[4];
  std::vector<std::thread> th;
  for (int k = 0; k < 4; k++) th.emplace_back(run, names[k], k % 2, refs[k], &sts[k], &objs[k], &modes[k]);
  for (auto& t : th) t.join();
  for (int k = 0; k < 4; k++) {
    EXPECT_EQ(2, sts[k]) << names[k];
    EXPECT_TRUE(closeTo(objs[k], refs[k])) << names[k] << " " << objs[k];
    EXPECT_EQ(k % 2, modes[k]);
  }
}

TEST(DualSimplex, MemoryComesFromTheEnvironment) {
  // Every block is returned, and a refused allocation anywhere in the solve gives 10001.
  const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/sc50b.mps.gz";
  long solveCalls = 0;
  {
    HookState hs;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, loadWithHooks(&env, &hs));
    VRXsetintparam(env, "OutputFlag", 0);
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m));
    {
      Model mm(m);
      double work = 0;
      ASSERT_EQ(0, VRXlpSetup(mm.model, 1, &work));
      const long before = hs.calls;
      vrx::Clock clock = vrx::clockStart();
      EXPECT_EQ(0, VRXdualSolve(mm.lp(), clock));
      EXPECT_EQ(2, mm.lp()->status);
      solveCalls = hs.calls - before;
    }
    VRXfreeenv(env);
    EXPECT_EQ(0, hs.live);
  }
  EXPECT_GT(solveCalls, 0);
  for (long k = 0; k < solveCalls; k++) {
    HookState hs;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, loadWithHooks(&env, &hs));
    VRXsetintparam(env, "OutputFlag", 0);
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m));
    {
      Model mm(m);
      double work = 0;
      ASSERT_EQ(0, VRXlpSetup(mm.model, 1, &work));
      hs.failAt = hs.calls + k;
      vrx::Clock clock = vrx::clockStart();
      const int rc = VRXdualSolve(mm.lp(), clock);
      hs.failAt = -1;
      EXPECT_TRUE(rc == VRX_ERROR_OUT_OF_MEMORY || (rc == 0 && mm.lp()->status == 2)) << k << " " << rc;
    }
    VRXfreeenv(env);
    EXPECT_EQ(0, hs.live) << k;
  }
}

TEST(DualSimplex, WarmResolveAfterBoundChange) {
  // A node solve: bounds change in place and the record re-solves from its basis.
  Env e;
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXreadmodel(e.env, (std::string(VRX_SHARED_DATA) + "/netlib/adlittle.mps.gz").c_str(), &m));
  Model mm(m);
  VRXsetintparam(mm.env(), "OutputFlag", 0);
  ASSERT_EQ(2, solve(mm));
  VRXlp* lp = mm.lp();
  const double first = lp->iterCount;
  // Tighten the upper bound of a basic structural below its value.
  int var = -1;
  double value = 0;
  for (int j = 0; j < lp->n && var < 0; j++)
    if (lp->varStat[j] >= 0 && lp->Bbar[lp->varStat[j]] > 1e-3) {
      var = j;
      value = lp->Bbar[lp->varStat[j]];
    }
  ASSERT_GE(var, 0);
  lp->upper[var] = value / 2;
  lp->status = 1;
  lp->iterCount = 0;
  vrx::Clock clock = vrx::clockStart();
  ASSERT_EQ(0, VRXdualSolve(lp, clock));
  EXPECT_EQ(2, lp->status);
  EXPECT_LT(lp->iterCount, first);
  EXPECT_LT(primalViolation(lp, primalOf(lp)), 1e-6);
  EXPECT_LT(dualViolation(lp), 1e-6);
  EXPECT_LE(primalOf(lp)[var], value / 2 + 1e-9);

  // Again from the new basis with weights computed exactly, one btran per row.
  lp->upper[var] = value / 4;
  VRXdualpriceFree(lp);
  lp->exactNorm = 1;
  lp->priceChoice = 1;
  lp->status = 1;
  ASSERT_EQ(0, VRXdualSolve(lp, clock));
  EXPECT_EQ(2, lp->status);
  EXPECT_EQ(1, lp->priceMode);
  EXPECT_LT(primalViolation(lp, primalOf(lp)), 1e-6);
  EXPECT_LT(dualViolation(lp), 1e-6);
  EXPECT_LE(primalOf(lp)[var], value / 4 + 1e-9);
}

}  // namespace
