// The LP driver around the simplex loops: certificates of infeasibility and unboundedness
// through the attributes, the condition estimate, the check in true units, and the loop's
// hand-over from a dual run to the primal.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/modeldef.h"
#include "../support/hooks.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/result.h"
#include "presolve/lpbridge.h"
#include "simplex/dual.h"
#include "simplex/lp.h"
#include "simplex/lpdriver.h"
#include "simplex/primal.h"
#include "simplex/primal_impl.h"
#include "simplex/simplex.h"
#include "vornix_c.h"
#include "../support/quiet_env.h"
#include "../support/shared_data.h"

namespace {

using Env = vrxtest::QuietEnv;

struct Model {
  VRXmodel* m = nullptr;
  explicit Model(VRXmodel* model) : m(model) {}
  ~Model() { VRXfreemodel(m); }
};

using vrxtest::readNetlib;

// Infeasible LPs of different kinds: crossing rows, an equality against bounds, a free
// column, a range of senses.
std::vector<ModelDef> infeasibleModels() {
  std::vector<ModelDef> defs;
  {
    ModelDef s;  // x + y <= 1 and x + y >= 3
    s.obj = {1, 1};
    s.lb = {0, 0};
    s.ub = {1e100, 1e100};
    s.rhs = {1, 3};
    s.sense = "<>";
    s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1}}};
    defs.push_back(s);
  }
  {
    ModelDef s;  // x + 2y = 10 with x, y in [0, 2]
    s.objSense = -1;
    s.obj = {1, -1};
    s.lb = {0, 0};
    s.ub = {2, 2};
    s.rhs = {10};
    s.sense = "=";
    s.cols = {{{0, 1}}, {{0, 2}}};
    defs.push_back(s);
  }
  {
    ModelDef s;  // z free: z - x >= 1, z + x <= 0, x >= 1
    s.obj = {1, 0};
    s.lb = {-1e100, 1};
    s.ub = {1e100, 1e100};
    s.rhs = {1, 0};
    s.sense = "><";
    s.cols = {{{0, 1}, {1, 1}}, {{0, -1}, {1, 1}}};
    defs.push_back(s);
  }
  {
    ModelDef s;  // a chain: x1 >= x0 + 1, x2 >= x1 + 1, x2 <= x0 + 1
    s.obj = {1, 1, 1};
    s.lb = {0, 0, 0};
    s.ub = {10, 10, 10};
    s.rhs = {1, -1, 1};
    s.sense = "><<";
    s.cols = {{{0, -1}, {2, -1}}, {{0, 1}, {1, 1}}, {{1, -1}, {2, 1}}};
    defs.push_back(s);
  }
  return defs;
}

// lambda'b - max over the bounds of lambda'A x, with the sign rules of the rows; NaN when
// lambda breaks a sign rule or the maximum is unbounded.
double farkasGap(const ModelDef& s, const std::vector<double>& lambda) {
  const int n = static_cast<int>(s.cols.size()), m = static_cast<int>(s.rhs.size());
  double lb = 0;
  for (int i = 0; i < m; i++) {
    if (s.sense[i] == '<' && lambda[i] > 0) return NAN;
    if (s.sense[i] == '>' && lambda[i] < 0) return NAN;
    lb += lambda[i] * s.rhs[i];
  }
  double top = 0;
  for (int j = 0; j < n; j++) {
    double z = 0;
    for (auto& e : s.cols[j]) z += lambda[e.first] * e.second;
    if (std::fabs(z) < 1e-12) continue;
    double b = z > 0 ? s.ub[j] : s.lb[j];
    if (std::fabs(b) >= 1e100) return NAN;
    top += z * b;
  }
  return lb - top;
}

}  // namespace

// With InfUnbdInfo an infeasible LP gives a Farkas certificate that proves it, whichever
// method ends the solve and with presolve on or off; without it the attributes stay empty.
TEST(Driver, FarkasCertificates) {
  auto defs = infeasibleModels();
  for (size_t k = 0; k < defs.size(); k++) {
    for (int method : {0, 1}) {
      for (int presolve : {0, -1}) {
        Env e;
        VRXsetintparam(e.env, "InfUnbdInfo", 1);
        VRXsetintparam(e.env, "Method", method);
        VRXsetintparam(e.env, "Presolve", presolve);
        Model h(loadModelDef(e.env, defs[k]));
        ASSERT_EQ(0, VRXoptimize(h.m));
        int status = 0;
        VRXgetintattr(h.m, "Status", &status);
        EXPECT_EQ(VRX_INFEASIBLE, status) << k << " " << method << " " << presolve;
        const int m = static_cast<int>(defs[k].rhs.size());
        std::vector<double> lambda(m);
        double proof = 0;
        ASSERT_EQ(0, VRXgetdblattrarray(h.m, "FarkasDual", 0, m, lambda.data())) << k << " " << method;
        ASSERT_EQ(0, VRXgetdblattr(h.m, "FarkasProof", &proof));
        const double gap = farkasGap(defs[k], lambda);
        EXPECT_GT(gap, 1e-6) << k << " " << method << " " << presolve;
        EXPECT_NEAR(gap, proof, 1e-9 * (1 + std::fabs(gap))) << k;
      }
    }
  }
  Env e;
  Model h(loadModelDef(e.env, defs[0]));
  ASSERT_EQ(0, VRXoptimize(h.m));
  double v = 0;
  EXPECT_EQ(VRX_ERROR_DATA_NOT_AVAILABLE, VRXgetdblattrarray(h.m, "FarkasDual", 0, 1, &v));
}

// An unbounded LP gives a ray: A d keeps every row's sense, d keeps the bounds, and the
// objective improves along it, for both methods and both senses.
TEST(Driver, UnboundedRay) {
  for (int sense : {1, -1}) {
    for (int method : {0, 1}) {
      Env e;
      VRXsetintparam(e.env, "Method", method);
      VRXsetintparam(e.env, "Presolve", 0);
      // min -x - y (or max x + y): x - y <= 2, x - 2y <= 8, z in [0, 1], x, y >= 0
      ModelDef s;
      s.objSense = sense;
      s.obj = {-1.0 * sense, -1.0 * sense, 0.5 * sense};
      s.lb = {0, 0, 0};
      s.ub = {1e100, 1e100, 1};
      s.rhs = {2, 8};
      s.sense = "<<";
      s.cols = {{{0, 1}, {1, 1}}, {{0, -1}, {1, -2}}, {}};
      Model h(loadModelDef(e.env, s));
      ASSERT_EQ(0, VRXoptimize(h.m));
      int status = 0;
      VRXgetintattr(h.m, "Status", &status);
      ASSERT_EQ(VRX_UNBOUNDED, status) << sense << " " << method;
      std::vector<double> d(3);
      ASSERT_EQ(0, VRXgetdblattrarray(h.m, "UnbdRay", 0, 3, d.data())) << sense << " " << method;
      EXPECT_LE(d[0] - d[1], 1e-9);
      EXPECT_LE(d[0] - 2 * d[1], 1e-9);
      EXPECT_GE(d[0], -1e-12);
      EXPECT_GE(d[1], -1e-12);
      EXPECT_EQ(0.0, d[2]);
      const double cd = s.obj[0] * d[0] + s.obj[1] * d[1];
      EXPECT_LT(sense * cd, -1e-9) << "the objective must improve along the ray";
    }
  }
}

// The condition estimate: 1 for a slack basis, close to the 1-norm condition for a basis
// of two nearly parallel columns.
TEST(Driver, Kappa) {
  {
    Env e;
    ModelDef s;  // min x + y with x + y <= 4, x - y <= 1: the slack basis is optimal
    s.obj = {1, 1};
    s.lb = {0, 0};
    s.ub = {1e100, 1e100};
    s.rhs = {4, 1};
    s.sense = "<<";
    s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, -1}}};
    Model h(loadModelDef(e.env, s));
    ASSERT_EQ(0, VRXoptimize(h.m));
    double kappa = 0;
    ASSERT_EQ(0, VRXgetdblattr(h.m, "Kappa", &kappa));
    EXPECT_DOUBLE_EQ(1.0, kappa);
  }
  for (double eps : {1e-3, 1e-6}) {
    Env e;
    VRXsetintparam(e.env, "ScaleFlag", 0);
    VRXsetintparam(e.env, "Presolve", 0);
    ModelDef s;  // x + y = 2, x + (1 + eps) y = 2 + eps: x = y = 1, both basic
    s.obj = {1, 1};
    s.lb = {-1e100, -1e100};
    s.ub = {1e100, 1e100};
    s.rhs = {2, 2 + eps};
    s.sense = "==";
    s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1 + eps}}};
    Model h(loadModelDef(e.env, s));
    ASSERT_EQ(0, VRXoptimize(h.m));
    double kappa = 0;
    ASSERT_EQ(0, VRXgetdblattr(h.m, "Kappa", &kappa));
    const double exact = (2 + eps) * (2 + eps) / eps;
    EXPECT_GT(kappa, exact / 2) << eps;
    EXPECT_LT(kappa, exact * 1.01) << eps;
  }
}

// The check in true units: zero on an exact optimum, and a moved basic value shows as the
// violation and residual it causes.
TEST(Driver, UnscaledQuality) {
  Env e;
  VRXsetintparam(e.env, "Presolve", 0);
  Model h(readNetlib(e.env, "afiro"));
  ASSERT_EQ(0, VRXoptimize(h.m));
  auto* lp = static_cast<VRXlp*>(h.m->lp);
  ASSERT_NE(nullptr, lp);
  vrx::UnscaledQuality q;
  ASSERT_EQ(0, vrx::lpUnscaledQuality(lp, &q));
  EXPECT_LT(q.primalViol, 1e-9);
  EXPECT_LT(q.primalResid, 1e-9);
  EXPECT_LT(q.dualViol, 1e-9);
  EXPECT_LT(q.dualResid, 1e-9);
  // Push one basic structural out of its row: its slack no longer matches.
  int p = -1, j = -1;
  for (int k = 0; k < lp->n && p < 0; k++)
    if (lp->varStat[k] >= 0 && lp->lower[k] == 0 && lp->upper[k] >= 1e30) p = lp->varStat[j = k];
  ASSERT_GE(p, 0);
  const double cj = lp->colScale ? lp->colScale[j] : 1.0;
  lp->Bbar[p] -= 1.0 / cj + lp->Bbar[p];  // true value -1 below its lower bound 0
  ASSERT_EQ(0, vrx::lpUnscaledQuality(lp, &q));
  EXPECT_GE(q.primalViol, 1.0 - 1e-9);
  EXPECT_GT(q.primalResid, 1e-3);
  // A record of another shape than its model is refused.
  const int keep = lp->n;
  lp->n = keep - 1;
  EXPECT_EQ(VRX_ERROR_DATA_NOT_AVAILABLE, vrx::lpUnscaledQuality(lp, &q));
  lp->n = keep;
}

// The loop hands a dual run that stopped perturbed or shifted to the primal, which ends at
// the exact optimum of the model.
TEST(Driver, HandOverToPrimalInTheLoop) {
  int handed = 0;
  for (const char* name : {"afiro", "sc105", "bandm", "scfxm1", "stair", "ship04s", "grow7", "e226"}) {
    Env e;
    Model h(readNetlib(e.env, name));
    ASSERT_EQ(0, VRXlpSetup(h.m, 1, nullptr));
    auto* lp = static_cast<VRXlp*>(h.m->lp);
    vrx::Clock clk = vrx::clockStart();
    ASSERT_EQ(0, VRXdualPrepare(lp, 0, &clk.work));
    // Half a run: the perturbation is in force when it stops.
    lp->iterLimit = 40;
    ASSERT_EQ(0, VRXdualSolveCore(lp, clk)) << name;
    if (lp->status != 7 && lp->status != -1004) continue;
    handed++;
    lp->iterLimit = 1e100;
    const double before = lp->iterCount;
    ASSERT_EQ(0, VRXprimalFromDual(lp)) << name;
    ASSERT_EQ(0, vrx::lpRunSimplex(lp, 0, clk)) << name;
    EXPECT_EQ(2, lp->status) << name;
    EXPECT_GT(lp->iterCount + lp->priorIter, before) << name;
    vrx::UnscaledQuality q;
    ASSERT_EQ(0, vrx::lpUnscaledQuality(lp, &q));
    EXPECT_LT(std::max(q.primalViol, q.primalResid), 1e-6) << name;
    EXPECT_LT(q.dualViol, 1e-6) << name;
    // Through the driver's publishing the objective is the reference one.
    double obj = lp->sense * (lp->dualObj);
    if (std::getenv("VRX_DRV_LOG")) VRXsetintparam(VRXgetenv(h.m), "OutputFlag", 1);
    ASSERT_EQ(0, VRXoptimize(h.m));
    double ref = 0;
    VRXgetdblattr(h.m, "ObjVal", &ref);
    EXPECT_NEAR(ref, obj, 1e-9 * (1 + std::fabs(ref))) << name;
    int iters = -1;
    double it = -1;
    VRXgetdblattr(h.m, "IterCount", &it);
    (void)iters;
    EXPECT_EQ(0, it) << "the kept optimum needs no iteration";
  }
  EXPECT_GE(handed, 4);
}

// An optimum that is only good in scaled units is solved again without the scale: the record
// ends unscaled and the closing lines say what is left; with the check off the scale stays.
// The driver puts its change of the parameter back.
TEST(Driver, UnscaledCheckAndRerun) {
  for (int vio : {0, -2}) {
    Env e;
    Model h(readNetlib(e.env, "grow15"));
    VRXenv* menv = VRXgetenv(h.m);
    captureLogOf(menv);
    VRXsetintparam(menv, "Presolve", 0);
    VRXsetdblparam(menv, "FeasibilityTol", 1e-9);
    VRXsetintparam(menv, "VORN_PAR_UNSCALEDVIO", vio);
    ASSERT_EQ(0, VRXoptimize(h.m));
    int status = 0;
    double obj = 0;
    VRXgetintattr(h.m, "Status", &status);
    VRXgetdblattr(h.m, "ObjVal", &obj);
    EXPECT_EQ(VRX_OPTIMAL, status);
    EXPECT_NEAR(-1.0687094129e+08, obj, 1e-6 * 1.07e8);
    auto* lp = static_cast<VRXlp*>(h.m->lp);
    ASSERT_NE(nullptr, lp);
    const bool warned = capturedLog().find("Warning: unscaled primal violation = ") != std::string::npos;
    if (vio == 0) {
      EXPECT_NE(nullptr, lp->colScale);
      EXPECT_FALSE(warned);
    } else {
      EXPECT_EQ(nullptr, lp->colScale) << "the re-run drops the scale";
      EXPECT_EQ(1.0, lp->objScale);
      EXPECT_TRUE(warned) << capturedLog();
    }
    int back = 1;
    VRXgetintparam(menv, "VORN_PAR_UNSCALEDVIO", &back);
    EXPECT_EQ(vio, back);
  }
}

// Columns a singular basis held at a bound are let go before the end, whichever method
// runs: the objective is the one without the fixing.
TEST(Driver, TemporaryFixingsReleased) {
  for (int method : {0, 1}) {
    Env e;
    ModelDef s;  // min -x - y: x + y <= 4, x <= 3, y <= 2
    s.obj = {-1, -1};
    s.lb = {0, 0};
    s.ub = {3, 2};
    s.rhs = {4};
    s.sense = "<";
    s.cols = {{{0, 1}}, {{0, 1}}};
    Model h(loadModelDef(e.env, s));
    captureLogOf(VRXgetenv(h.m));
    ASSERT_EQ(0, VRXlpSetup(h.m, method, nullptr));
    auto* lp = static_cast<VRXlp*>(h.m->lp);
    lp->varStat[0] = VRX_VS_FIX_LOWER;  // x held at 0
    lp->fixedList[0] = 0;
    lp->fixedCount = 1;
    lp->outputLevel = 3;
    vrx::Clock clk = vrx::clockStart();
    ASSERT_EQ(0, vrx::lpRunSimplex(lp, method, clk));
    EXPECT_EQ(2, lp->status);
    EXPECT_EQ(0, lp->fixedCount);
    EXPECT_NEAR(-4.0, lp->sense * lp->dualObj, 1e-12) << method;
    EXPECT_GE(lp->varStat[0] >= 0 ? 0 : lp->varStat[0], VRX_VS_FREE) << "no fixing is left";
  }
}

// A pivot column that dwarfs the costs (here 1e6 from a pivot of 1e-6) makes the primal ask
// for a sounder factor once, with its message, and the solve still ends at the optimum.
TEST(Driver, BigPivotColumn) {
  Env e;
  VRXsetintparam(e.env, "Method", 0);
  VRXsetintparam(e.env, "Presolve", 0);
  VRXsetintparam(e.env, "ScaleFlag", 0);
  ModelDef s;  // min -x - y: 1e-6 x - y <= 1, x in [0, 1e8], y in [0, 10]
  s.obj = {-1, -1};
  s.lb = {0, 0};
  s.ub = {1e8, 10};
  s.rhs = {1};
  s.sense = "<";
  s.cols = {{{0, 1e-6}}, {{0, -1}}};
  Model h(loadModelDef(e.env, s));
  captureLogOf(VRXgetenv(h.m));
  ASSERT_EQ(0, VRXoptimize(h.m));
  double obj = 0;
  VRXgetdblattr(h.m, "ObjVal", &obj);
  EXPECT_NEAR(-(1.1e7 + 10), obj, 1e-9 * 1.1e7);
  auto* lp = static_cast<VRXlp*>(h.m->lp);
  ASSERT_NE(nullptr, lp->primal);
  EXPECT_GE(lp->primal->bigPivots, 1);
  EXPECT_EQ(0.5, lp->markowitzTol);
  const std::string& log = capturedLog();
  const size_t at = log.find("Markowitz tolerance tightened to 0.5.\n");
  EXPECT_NE(std::string::npos, at) << log;
  EXPECT_EQ(std::string::npos, log.find("Markowitz tolerance tightened to 0.5.\n", at + 1)) << "once only";
}

// The crash's second pass places a column the first pass turns away (its only free row has
// an entry below 0.9 of its largest), and the basis it leaves solves to the optimum.
TEST(Driver, CrashSecondPass) {
  for (bool second : {false, true}) {
    Env e;
    ModelDef s;  // min -x0 - 2 x1 - x2: x0 + x1 + x2 <= 4, 0.6 x1 <= 3, all in [0, 10]
    s.obj = {-1, -2, -1};
    s.lb = {0, 0, 0};
    s.ub = {10, 10, 10};
    s.rhs = {4, 3};
    s.sense = "<<";
    s.cols = {{{0, 1}}, {{0, 1}, {1, 0.6}}, {}};
    s.cols[2] = {{0, 1}};
    Model h(loadModelDef(e.env, s));
    VRXsetintparam(VRXgetenv(h.m), "ScaleFlag", 0);
    ASSERT_EQ(0, VRXlpSetup(h.m, 0, nullptr));
    auto* lp = static_cast<VRXlp*>(h.m->lp);
    vrx::Clock clk = vrx::clockStart();
    ASSERT_EQ(0, VRXprimalPrepare(lp, clk));
    // x0 takes row 0; x2 has no other row, x1 only its 0.6 in row 1.
    const int placed = vrx::primal::crashBasis(lp, 1, second);
    EXPECT_EQ(second ? 2 : 1, placed) << second;
    EXPECT_GE(lp->varStat[0], 0);
    EXPECT_EQ(second, lp->varStat[1] >= 0) << second;
    int basics = 0;
    for (int j = 0; j < lp->n + lp->m; j++) basics += lp->varStat[j] >= 0;
    EXPECT_EQ(lp->m, basics);
    lp->factor->valid = 0;
    vrx::lpActiveRebuild(lp);
    ASSERT_EQ(0, VRXprimalSolve(lp, clk));
    EXPECT_EQ(2, lp->status);
    // x1 is the cheapest use of row 0 and row 1 leaves it room up to 5: x1 = 4.
    EXPECT_NEAR(-8.0, lp->sense * lp->dualObj, 1e-12) << second;
  }
}

// The rescue of a singular basis goes back to the start statuses of the run, keeps the
// iterations so far in priorIter, and the loop then solves to the optimum.
TEST(Driver, RescueGoesBackToTheStart) {
  Env e;
  Model h(readNetlib(e.env, "sc105"));
  ASSERT_EQ(0, VRXlpSetup(h.m, 0, nullptr));
  auto* lp = static_cast<VRXlp*>(h.m->lp);
  lp->iterLimit = 30;
  vrx::Clock clk = vrx::clockStart();
  ASSERT_EQ(0, VRXprimalSolve(lp, clk));
  ASSERT_EQ(7, lp->status);
  const int nm = lp->n + lp->m;
  std::vector<int> start(lp->savedVarStat, lp->savedVarStat + nm);
  std::vector<int> now(lp->varStat, lp->varStat + nm);
  ASSERT_NE(start, now);
  const double iters = lp->iterCount;
  vrx::lpRescue(lp);
  EXPECT_EQ(start, std::vector<int>(lp->varStat, lp->varStat + nm));
  for (int j = 0; j < nm; j++)
    if (lp->varStat[j] >= 0) EXPECT_EQ(j, lp->factor->basisHead[lp->varStat[j]]);
  EXPECT_EQ(0.0, lp->iterCount);
  EXPECT_EQ(iters, lp->priorIter);
  EXPECT_EQ(1, lp->status);
  lp->iterLimit = 1e100;
  ASSERT_EQ(0, vrx::lpRunSimplex(lp, 0, clk));
  EXPECT_EQ(2, lp->status);
  EXPECT_NEAR(-52.202061212, lp->sense * lp->dualObj, 1e-6);
}

// A piecewise-linear objective with the barrier and presolve off: presolve is turned on for
// the run with the two-line warning, and the caller's setting comes back afterwards.
TEST(Driver, BarrierWithPwlTurnsPresolveOn) {
  Env e;
  ModelDef s;  // x + y >= 1, x, y in [0, 4]
  s.obj = {0, 1};
  s.lb = {0, 0};
  s.ub = {4, 4};
  s.rhs = {1};
  s.sense = ">";
  s.cols = {{{0, 1}}, {{0, 1}}};
  Model h(loadModelDef(e.env, s));
  VRXenv* menv = VRXgetenv(h.m);
  captureLogOf(menv);
  double px[] = {0, 2, 4}, py[] = {0, 1, 5};
  ASSERT_EQ(0, VRXsetpwlobj(h.m, 0, 3, px, py));
  VRXsetintparam(menv, "Method", 2);
  VRXsetintparam(menv, "Presolve", 0);
  VRXoptimize(h.m);  // whatever the barrier makes of it
  EXPECT_NE(std::string::npos,
            capturedLog().find("Warning: Barrier needs presolve to translate PWL model into pure LP\n"
                               "         Turning it on and applying it conservatively\n"))
      << capturedLog();
  int presolve = -5;
  VRXgetintparam(menv, "Presolve", &presolve);
  EXPECT_EQ(0, presolve);
}

// An extended-precision run publishes through a double record of the same basis: the
// objective, the values and the basis come out as in a double run.
TEST(Driver, ExtendedRunPublishes) {
  for (const char* name : {"afiro", "adlittle", "sc105"}) {
    Env e;
    double objs[2], x0[2];
    int basic[2];
    for (int quad = 0; quad < 2; ++quad) {
      Model m(readNetlib(e.env, name));
      ASSERT_NE(nullptr, m.m);
      VRXsetintparam(VRXgetenv(m.m), "Quad", quad);
      VRXsetintparam(VRXgetenv(m.m), "Presolve", 0);
      ASSERT_EQ(0, VRXoptimize(m.m)) << name;
      int status = 0;
      VRXgetintattr(m.m, "Status", &status);
      ASSERT_EQ(2, status) << name << " quad " << quad;
      VRXgetdblattr(m.m, "ObjVal", &objs[quad]);
      VRXgetdblattrelement(m.m, "X", 0, &x0[quad]);
      int n = 0;
      VRXgetintattr(m.m, "NumVars", &n);
      std::vector<int> vb(n);
      ASSERT_EQ(0, VRXgetintattrarray(m.m, "VBasis", 0, n, vb.data()));
      basic[quad] = static_cast<int>(std::count(vb.begin(), vb.end(), 0));
    }
    EXPECT_NEAR(objs[0], objs[1], 1e-9 * (1 + std::fabs(objs[0]))) << name;
    EXPECT_NEAR(x0[0], x0[1], 1e-7 * (1 + std::fabs(x0[0]))) << name;
    EXPECT_GT(basic[1], 0) << name;
  }
}

// A dual solve publishes its weights; handed back with the basis to a copy whose
// objective moved a little, they are taken (HasDualNorm 2) and the copy ends at the
// same optimum as a cold solve.
TEST(Driver, DualNormsRoundTrip) {
  for (const char* name : {"sc105", "adlittle", "stocfor1"}) {
    Env e;
    Model m(readNetlib(e.env, name));
    ASSERT_NE(nullptr, m.m);
    VRXenv* menv = VRXgetenv(m.m);
    VRXsetintparam(menv, "Method", 1);
    VRXsetintparam(menv, "Presolve", 0);
    ASSERT_EQ(0, VRXoptimize(m.m));
    int n = 0, rows = 0, has = 0;
    VRXgetintattr(m.m, "NumVars", &n);
    VRXgetintattr(m.m, "NumConstrs", &rows);
    ASSERT_EQ(0, VRXgetintattr(m.m, "HasDualNorm", &has));
    ASSERT_EQ(2, has) << name;
    std::vector<double> vn(n), cn(rows);
    std::vector<int> vb(n), cb(rows);
    ASSERT_EQ(0, VRXgetdblattrarray(m.m, "VDualNorm", 0, n, vn.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(m.m, "CDualNorm", 0, rows, cn.data()));
    VRXgetintattrarray(m.m, "VBasis", 0, n, vb.data());
    VRXgetintattrarray(m.m, "CBasis", 0, rows, cb.data());
    for (int j = 0; j < n; ++j)
      if (vb[j] == 0) EXPECT_GT(vn[j], 0.0) << name << " column " << j;
    for (int i = 0; i < rows; ++i)
      if (cb[i] == 0) EXPECT_GT(cn[i], 0.0) << name << " row " << i;

    double c0 = 0;
    VRXgetdblattrelement(m.m, "Obj", 0, &c0);
    Model cold(VRXcopymodel(m.m));
    VRXsetdblattrelement(cold.m, "Obj", 0, c0 + 0.01 * (1 + std::fabs(c0)));
    ASSERT_EQ(0, VRXoptimize(cold.m));
    double coldObj = 0;
    VRXgetdblattr(cold.m, "ObjVal", &coldObj);

    Model warm(VRXcopymodel(m.m));
    VRXsetdblattrelement(warm.m, "Obj", 0, c0 + 0.01 * (1 + std::fabs(c0)));
    VRXsetintattrarray(warm.m, "VBasis", 0, n, vb.data());
    VRXsetintattrarray(warm.m, "CBasis", 0, rows, cb.data());
    VRXsetdblattrarray(warm.m, "VDualNorm", 0, n, vn.data());
    VRXsetdblattrarray(warm.m, "CDualNorm", 0, rows, cn.data());
    VRXupdatemodel(warm.m);
    ASSERT_EQ(0, VRXgetintattr(warm.m, "HasDualNorm", &has));
    EXPECT_EQ(2, has) << name;
    ASSERT_EQ(0, VRXoptimize(warm.m));
    int status = 0;
    double warmObj = 0, warmIt = 0, coldIt = 0;
    VRXgetintattr(warm.m, "Status", &status);
    EXPECT_EQ(2, status);
    VRXgetdblattr(warm.m, "ObjVal", &warmObj);
    VRXgetdblattr(warm.m, "IterCount", &warmIt);
    VRXgetdblattr(cold.m, "IterCount", &coldIt);
    EXPECT_NEAR(coldObj, warmObj, 1e-7 * (1 + std::fabs(coldObj))) << name;
    EXPECT_LE(warmIt, coldIt) << name;
  }
}

// A basis with a complete PStart: nonbasic start values off their bounds (slacks included)
// are counted and the solve moves them to the optimum with either method; values at their
// bounds print nothing.
TEST(Driver, StartValuesOffBoundsAreSuperbasic) {
  ModelDef s;  // min -2x - y: x + y <= 4, x - y <= 2, x, y in [0, 3]; optimum x 3, y 1
  s.obj = {-2, -1};
  s.lb = {0, 0};
  s.ub = {3, 3};
  s.rhs = {4, 2};
  s.sense = "<<";
  s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, -1}}};
  struct Start {
    std::vector<int> vb, cb;
    std::vector<double> x;
    int superbasic;  // 0: no line
  };
  const std::vector<Start> starts = {
      {{-1, -1}, {0, 0}, {1.5, 0.5}, 2},
      {{-1, -2}, {0, 0}, {0, 3}, 0},
      // x basic, row 0 slack nonbasic at 4 - 1.5, y off its bounds.
      {{0, -1}, {-1, 0}, {1, 0.5}, 2},
  };
  for (int method = 0; method <= 1; ++method) {
    for (const Start& st : starts) {
      Env e;
      Model h(loadModelDef(e.env, s));
      VRXenv* menv = VRXgetenv(h.m);
      VRXsetintparam(menv, "Method", method);
      ASSERT_EQ(0, VRXsetintattrarray(h.m, "VBasis", 0, 2, st.vb.data()));
      ASSERT_EQ(0, VRXsetintattrarray(h.m, "CBasis", 0, 2, st.cb.data()));
      ASSERT_EQ(0, VRXsetdblattrarray(h.m, "PStart", 0, 2, st.x.data()));
      captureLogOf(menv);
      ASSERT_EQ(0, VRXoptimize(h.m));
      const std::string log = capturedLog();
      VRXsetintparam(menv, "OutputFlag", 0);
      const std::string line = "Superbasic variables: " + std::to_string(st.superbasic) + ".\n";
      if (st.superbasic > 0)
        EXPECT_NE(std::string::npos, log.find(line)) << log;
      else
        EXPECT_EQ(std::string::npos, log.find("Superbasic variables")) << log;
      int status = 0;
      double obj = 0, x[2] = {0, 0};
      VRXgetintattr(h.m, "Status", &status);
      EXPECT_EQ(2, status);
      VRXgetdblattr(h.m, "ObjVal", &obj);
      EXPECT_NEAR(-7, obj, 1e-9);
      VRXgetdblattrarray(h.m, "X", 0, 2, x);
      EXPECT_NEAR(3, x[0], 1e-9);
      EXPECT_NEAR(1, x[1], 1e-9);
    }
  }
  // A larger start: the slack basis with the optimum as PStart, which leaves most columns
  // superbasic; the solve ends at the reference optimum.
  for (const char* name : {"afiro", "sc105"}) {
    Env e;
    Model ref(readNetlib(e.env, name));
    ASSERT_EQ(0, VRXoptimize(ref.m));
    double refObj = 0;
    VRXgetdblattr(ref.m, "ObjVal", &refObj);
    int n = 0, rows = 0;
    VRXgetintattr(ref.m, "NumVars", &n);
    VRXgetintattr(ref.m, "NumConstrs", &rows);
    std::vector<double> x(n);
    VRXgetdblattrarray(ref.m, "X", 0, n, x.data());
    Model h(readNetlib(e.env, name));
    std::vector<int> vb(n, -1), cb(rows, 0);
    VRXsetintattrarray(h.m, "VBasis", 0, n, vb.data());
    VRXsetintattrarray(h.m, "CBasis", 0, rows, cb.data());
    VRXsetdblattrarray(h.m, "PStart", 0, n, x.data());
    captureLogOf(VRXgetenv(h.m));
    ASSERT_EQ(0, VRXoptimize(h.m));
    EXPECT_NE(std::string::npos, capturedLog().find("Superbasic variables: ")) << name;
    VRXsetintparam(VRXgetenv(h.m), "OutputFlag", 0);
    int status = 0;
    double obj = 0;
    VRXgetintattr(h.m, "Status", &status);
    EXPECT_EQ(2, status) << name;
    VRXgetdblattr(h.m, "ObjVal", &obj);
    EXPECT_NEAR(refObj, obj, 1e-7 * (1 + std::fabs(refObj))) << name;
  }
}

// A kept optimum is published again without a run once a fresh factor of its basis agrees
// with it. A record whose basis head or basic values were damaged fails that check and is
// solved anew (iterations counted), to the same optimum; with the check off the damaged
// values are not looked at.
TEST(Driver, KeptRecordCheckedByFreshFactor) {
  for (const char* name : {"afiro", "sc105", "adlittle"}) {
    for (int presolve = 0; presolve <= 1; ++presolve) {
      Env e;
      Model h(readNetlib(e.env, name));
      VRXenv* menv = VRXgetenv(h.m);
      VRXsetintparam(menv, "Presolve", presolve);
      ASSERT_EQ(0, VRXoptimize(h.m));
      int n = 0;
      VRXgetintattr(h.m, "NumVars", &n);
      double obj0 = 0, it = -1;
      std::vector<double> x0(n), x1(n);
      VRXgetdblattr(h.m, "ObjVal", &obj0);
      VRXgetdblattrarray(h.m, "X", 0, n, x0.data());
      ASSERT_NE(nullptr, h.m->lp) << name;

      ASSERT_EQ(0, VRXoptimize(h.m));
      VRXgetdblattr(h.m, "IterCount", &it);
      EXPECT_EQ(0, it) << name;
      double obj1 = 0;
      VRXgetdblattr(h.m, "ObjVal", &obj1);
      EXPECT_EQ(obj0, obj1) << name;
      VRXgetdblattrarray(h.m, "X", 0, n, x1.data());
      for (int j = 0; j < n; ++j) EXPECT_NEAR(x0[j], x1[j], 1e-9 * (1 + std::fabs(x0[j]))) << name << " " << j;

      for (int damage = 0; damage < 3; ++damage) {
        auto* lp = static_cast<VRXlp*>(h.m->lp);
        ASSERT_NE(nullptr, lp);
        ASSERT_GT(lp->m, 1);
        int* head = lp->factor->basisHead;
        if (damage == 0) {
          head[1] = head[0];  // a repeated column: singular, and not the record's basis
        } else {
          int p = 0;  // the largest basic value, moved off
          for (int q = 1; q < lp->m; ++q)
            if (std::fabs(lp->Bbar[q]) > std::fabs(lp->Bbar[p])) p = q;
          lp->Bbar[p] += 1.0 + std::fabs(lp->Bbar[p]);
        }
        VRXsetintparam(menv, "VORN_PAR_SIMPLEXENDFAC", damage == 2 ? 0 : 1);
        ASSERT_EQ(0, VRXoptimize(h.m)) << name;
        VRXgetdblattr(h.m, "IterCount", &it);
        if (damage == 2)
          EXPECT_EQ(0, it) << name << " kept without the check";
        else
          EXPECT_GT(it, 0) << name << " damage " << damage << " solved anew";
        int status = 0;
        VRXgetintattr(h.m, "Status", &status);
        EXPECT_EQ(2, status) << name;
        VRXgetdblattr(h.m, "ObjVal", &obj1);
        EXPECT_NEAR(obj0, obj1, 1e-7 * (1 + std::fabs(obj0))) << name << " damage " << damage;
      }
    }
  }
}

// The check of the final basis holds for solved Netlib models, and fails once the basic
// values the record holds no longer follow from its basis.
TEST(Driver, FinalFactorCheck) {
  for (const char* name : {"afiro", "sc105", "bandm", "scfxm1", "stair", "e226"}) {
    Env e;
    Model h(readNetlib(e.env, name));
    VRXsetintparam(VRXgetenv(h.m), "Presolve", 0);
    ASSERT_EQ(0, VRXoptimize(h.m));
    auto* lp = static_cast<VRXlp*>(h.m->lp);
    ASSERT_NE(nullptr, lp);
    vrx::Clock clk = vrx::clockStart();
    bool ok = false;
    ASSERT_EQ(0, vrx::lpCheckFinalFactor(lp, clk, &ok));
    EXPECT_TRUE(ok) << name;
    lp->Bbar[0] += 10.0;
    ASSERT_EQ(0, vrx::lpCheckFinalFactor(lp, clk, &ok));
    EXPECT_FALSE(ok) << name;
  }
}

namespace {

// The optimum of a Netlib model solved cold: values, row duals, objective, iterations.
struct Optimum {
  int n = 0, rows = 0;
  std::vector<double> x, pi;
  double obj = 0, iters = 0;
};

Optimum solveCold(VRXenv* env, const char* name) {
  Optimum o;
  Model h(readNetlib(env, name));
  VRXsetintparam(VRXgetenv(h.m), "Presolve", 0);
  EXPECT_EQ(0, VRXoptimize(h.m));
  VRXgetintattr(h.m, "NumVars", &o.n);
  VRXgetintattr(h.m, "NumConstrs", &o.rows);
  o.x.resize(o.n);
  o.pi.resize(o.rows);
  VRXgetdblattrarray(h.m, "X", 0, o.n, o.x.data());
  VRXgetdblattrarray(h.m, "Pi", 0, o.rows, o.pi.data());
  VRXgetdblattr(h.m, "ObjVal", &o.obj);
  VRXgetdblattr(h.m, "IterCount", &o.iters);
  return o;
}

}  // namespace

// Starts without a basis: PStart alone (values as superbasics, the tight rows taking the
// off-bound columns), DStart alone (basic columns by reduced cost; the missing PStart is
// reported), and both. At the optimum each ends at the reference objective with either
// method, in a few iterations with values and in clearly fewer than the cold solve with
// duals alone; a maximisation reads its duals in its own sense.
TEST(Driver, StartsWithoutABasis) {
  Env e;
  for (const char* name : {"afiro", "sc105", "adlittle", "share2b", "scagr7"}) {
    const Optimum o = solveCold(e.env, name);
    ASSERT_GT(o.iters, 10) << name;
    for (int method = 0; method <= 1; ++method) {
      for (int parts = 1; parts <= 3; ++parts) {  // 1 PStart, 2 DStart, 3 both
        Model h(readNetlib(e.env, name));
        VRXenv* menv = VRXgetenv(h.m);
        VRXsetintparam(menv, "Method", method);
        if (parts & 1) ASSERT_EQ(0, VRXsetdblattrarray(h.m, "PStart", 0, o.n, o.x.data()));
        if (parts & 2) ASSERT_EQ(0, VRXsetdblattrarray(h.m, "DStart", 0, o.rows, o.pi.data()));
        captureLogOf(menv);
        ASSERT_EQ(0, VRXoptimize(h.m)) << name;
        const std::string log = capturedLog();
        VRXsetintparam(menv, "OutputFlag", 0);
        EXPECT_EQ(parts == 2, log.find("Warning, invalid warm-start solution discarded\n") != std::string::npos)
            << name << " " << parts;
        // The start is in the original's terms: presolve does not run.
        EXPECT_EQ(std::string::npos, log.find("Presolve time")) << name;
        int status = 0;
        double obj = 0, it = -1;
        VRXgetintattr(h.m, "Status", &status);
        VRXgetdblattr(h.m, "ObjVal", &obj);
        VRXgetdblattr(h.m, "IterCount", &it);
        EXPECT_EQ(2, status) << name << " parts " << parts << " method " << method;
        EXPECT_NEAR(o.obj, obj, 1e-7 * (1 + std::fabs(o.obj))) << name << " parts " << parts;
        // Duals alone leave the degenerate choices open: fewer iterations than cold, not few.
        const double bound = parts == 2 ? 0.7 * o.iters : std::max(3.0, 0.25 * o.iters);
        EXPECT_LE(it, bound) << name << " parts " << parts << " method " << method;
      }
    }
  }
  // max 2x + y: x + y <= 4, x - y <= 2, x, y in [0, 3]; optimum x 3, y 1, duals 1.5, 0.5.
  ModelDef s;
  s.objSense = -1;
  s.obj = {2, 1};
  s.lb = {0, 0};
  s.ub = {3, 3};
  s.rhs = {4, 2};
  s.sense = "<<";
  s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, -1}}};
  Model ref(loadModelDef(e.env, s));
  ASSERT_EQ(0, VRXoptimize(ref.m));
  double pi[2] = {0, 0};
  VRXgetdblattrarray(ref.m, "Pi", 0, 2, pi);
  Model h(loadModelDef(e.env, s));
  ASSERT_EQ(0, VRXsetdblattrarray(h.m, "DStart", 0, 2, pi));
  ASSERT_EQ(0, VRXoptimize(h.m));
  double obj = 0, it = -1;
  VRXgetdblattr(h.m, "ObjVal", &obj);
  VRXgetdblattr(h.m, "IterCount", &it);
  EXPECT_NEAR(7, obj, 1e-9);
  EXPECT_EQ(0, it);
}

// Bad start values: a NaN is refused at the write with its message and leaves the start
// unset; a PStart with entries left at 1e100 is reported and ignored; a huge finite value
// of a free column makes the primal discard the start. Each solve still ends optimal.
TEST(Driver, BadStartValues) {
  Env e;
  const Optimum o = solveCold(e.env, "sc105");
  {
    Model h(readNetlib(e.env, "sc105"));
    std::vector<double> x = o.x;
    x[3] = NAN;
    EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXsetdblattrarray(h.m, "PStart", 0, o.n, x.data()));
    EXPECT_NE(std::string::npos, std::string(VRXgeterrormsg(VRXgetenv(h.m))).find("Element 3 of a double array is Nan."))
        << VRXgeterrormsg(VRXgetenv(h.m));
    // Nothing was stored: the model has no start to read.
    double v = 0;
    ASSERT_EQ(0, VRXupdatemodel(h.m));
    EXPECT_EQ(VRX_ERROR_DATA_NOT_AVAILABLE, VRXgetdblattrelement(h.m, "PStart", 3, &v));
  }
  {
    Model h(readNetlib(e.env, "sc105"));
    VRXenv* menv = VRXgetenv(h.m);
    VRXsetintparam(menv, "Presolve", 0);
    std::vector<double> x = o.x;
    x.resize(o.n / 2);  // the second half stays unset
    ASSERT_EQ(0, VRXsetdblattrarray(h.m, "PStart", 0, static_cast<int>(x.size()), x.data()));
    captureLogOf(menv);
    ASSERT_EQ(0, VRXoptimize(h.m));
    const std::string log = capturedLog();
    VRXsetintparam(menv, "OutputFlag", 0);
    EXPECT_NE(std::string::npos, log.find("Warning, invalid warm-start solution discarded\n")) << log;
    EXPECT_EQ(std::string::npos, log.find("Superbasic variables")) << log;
    double obj = 0, it = -1;
    VRXgetdblattr(h.m, "ObjVal", &obj);
    VRXgetdblattr(h.m, "IterCount", &it);
    EXPECT_NEAR(o.obj, obj, 1e-7 * (1 + std::fabs(o.obj)));
    EXPECT_EQ(o.iters, it);  // the cold solve, step for step
  }
  {
    ModelDef s;  // min x - y: x - y >= -2 (y free), x + y <= 6, x in [0, 10]; optimum x 2, y 4
    s.obj = {1, -1};
    s.lb = {0, -1e100};
    s.ub = {10, 1e100};
    s.rhs = {-2, 6};
    s.sense = "><";
    s.cols = {{{0, 1}, {1, 1}}, {{0, -1}, {1, 1}}};
    Model h(loadModelDef(e.env, s));
    VRXenv* menv = VRXgetenv(h.m);
    const double x[2] = {1, 1e35};
    ASSERT_EQ(0, VRXsetdblattrarray(h.m, "PStart", 0, 2, x));
    captureLogOf(menv);
    ASSERT_EQ(0, VRXoptimize(h.m));
    const std::string log = capturedLog();
    VRXsetintparam(menv, "OutputFlag", 0);
    EXPECT_NE(std::string::npos, log.find("Warning: Primal crushed basis discarded.\n")) << log;
    int status = 0;
    double obj = 0;
    VRXgetintattr(h.m, "Status", &status);
    VRXgetdblattr(h.m, "ObjVal", &obj);
    EXPECT_EQ(2, status);
    EXPECT_NEAR(-2, obj, 1e-9);
  }
}

// A kept optimum stands only for the method that made it: another Method solves again,
// from the kept basis, and that method's run is the one published.
TEST(Driver, KeptRecordAnsweredByItsOwnMethod) {
  for (const char* name : {"afiro", "sc105"}) {
    Env e;
    Model h(readNetlib(e.env, name));
    VRXenv* menv = VRXgetenv(h.m);
    VRXsetintparam(menv, "Presolve", 0);
    VRXsetintparam(menv, "Method", 1);
    ASSERT_EQ(0, VRXoptimize(h.m));
    double obj0 = 0, obj = 0, it = -1;
    VRXgetdblattr(h.m, "ObjVal", &obj0);
    for (int method : {1, 0, 0, 1}) {
      VRXsetintparam(menv, "Method", method);
      ASSERT_EQ(0, VRXoptimize(h.m)) << name;
      auto* lp = static_cast<VRXlp*>(h.m->lp);
      ASSERT_NE(nullptr, lp);
      EXPECT_EQ(method, lp->method) << name;
      EXPECT_EQ(method, h.m->result->spxMethod) << name;
      // The dual's weights are published only by a run that the dual ended.
      EXPECT_EQ(method == 1, h.m->result->vDualNorm != nullptr) << name;
      VRXgetdblattr(h.m, "IterCount", &it);
      VRXgetdblattr(h.m, "ObjVal", &obj);
      EXPECT_EQ(0, it) << name << " method " << method;
      EXPECT_NEAR(obj0, obj, 1e-9 * (1 + std::fabs(obj0))) << name;
    }
  }
}

// Every allocation of a solve from a start without a basis may fail: the solve reports
// 10001 or ends as usual, and no block is left behind.
TEST(Driver, FailedAllocationsInStartsLeaveNothing) {
  Optimum o;
  {
    Env e;
    o = solveCold(e.env, "afiro");
  }
  for (int parts = 1; parts <= 3; ++parts) {
    long total = -1;
    for (long fail = -1; fail < total || total < 0; ++fail) {
      HookState s;
      VRXenv* env = nullptr;
      ASSERT_EQ(0, loadWithHooks(&env, &s));
      VRXsetintparam(env, "OutputFlag", 0);
      VRXmodel* m = readNetlib(env, "afiro");
      ASSERT_NE(nullptr, m);
      if (parts & 1) VRXsetdblattrarray(m, "PStart", 0, o.n, o.x.data());
      if (parts & 2) VRXsetdblattrarray(m, "DStart", 0, o.rows, o.pi.data());
      ASSERT_EQ(0, VRXupdatemodel(m));
      const int rc = runFailingAt(&s, fail, &total, [&] { return VRXoptimize(m); });
      if (fail < 0)
        ASSERT_EQ(0, rc);
      else
        EXPECT_TRUE(rc == 0 || rc == VRX_ERROR_OUT_OF_MEMORY) << "parts " << parts << " fail " << fail << " rc " << rc;
      VRXfreemodel(m);
      VRXfreeenv(env);
      EXPECT_EQ(0, s.live) << "parts " << parts << " fail " << fail;
    }
  }
}
