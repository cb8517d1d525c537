// The dual form: solved and carried back, it must give an optimal primal point
// and a basis the original accepts as optimal; and the two parameter rules of
// the LP driver before presolve.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "../support/hooks.h"
#include "harness.h"
#include "presolve/dualise.h"

namespace {

using namespace pretest;

constexpr double INF = 1e100;

struct Back {
  int dualStatus = -1;
  double dualObj = 0;
  Result r;  // the primal point as the harness measures it
};

// Dualises, solves the dual form with the dual simplex, maps back, and re-solves
// the original from the mapped basis.
Back viaDual(VRXmodel* m) {
  Back b;
  VRXmodel* dm = nullptr;
  vrx::DualMap* map = nullptr;
  EXPECT_EQ(0, vrx::dualiseModel(m, &dm, &map));
  if (!dm) return b;
  const VRXmodeldata* dd = dm->data;
  const int dn = dd->numVars, dmr = dd->numConstrs;
  std::vector<double> x(dn + 1), y(dmr + 1), d(dn + 1);
  std::vector<int> cs(dn + 1), rs(dmr + 1);
  vrx::LPPoint pt{x.data(), y.data(), d.data(), cs.data(), rs.data()};
  double iters = 0;
  b.dualStatus = solveStore(dm, nullptr, nullptr, &iters, &b.dualObj, &pt);
  const VRXmodeldata* pd = m->data;
  const int n = pd->numVars, rows = pd->numConstrs;
  b.r.x.assign(n, 0);
  b.r.y.assign(rows, 0);
  b.r.d.assign(n, 0);
  b.r.cs.assign(n, 0);
  b.r.rs.assign(rows, 0);
  if (b.dualStatus == 2) {
    vrx::LPPoint out{b.r.x.data(), b.r.y.data(), b.r.d.data(), b.r.cs.data(), b.r.rs.data()};
    EXPECT_EQ(0, vrx::dualMapBack(map, pd, pt, out));
    double o = pd->objCon;
    for (int j = 0; j < n; ++j) o += pd->obj[j] * b.r.x[j];
    b.r.obj = pd->modelSense * o;
    b.r.cleanupStatus = solveStore(m, b.r.cs.data(), b.r.rs.data(), &b.r.cleanupIters, &b.r.cleanupObj, nullptr);
  }
  VRXfreemodel(dm);
  vrx::dualMapFree(map);
  return b;
}

void expectOptimal(const Def& def, const char* what) {
  Env e;
  VRXmodel* a = load(e.env, def);
  VRXmodel* m = load(e.env, def);
  Plain p = plain(a);
  Back b = viaDual(m);
  ASSERT_EQ(2, p.status) << what;
  ASSERT_EQ(2, b.dualStatus) << what;
  // The dual form's optimum is minus the primal one (in the minimisation form).
  EXPECT_NEAR(p.obj, -m->data->modelSense * b.dualObj, 1e-9 * (1 + std::fabs(p.obj))) << what;
  EXPECT_NEAR(p.obj, b.r.obj, 1e-9 * (1 + std::fabs(p.obj))) << what;
  Quality q = measure(m->data, b.r);
  EXPECT_LT(q.primal, 1e-9) << what;
  EXPECT_LT(q.dual, 1e-9) << what;
  EXPECT_LT(q.identity, 1e-12) << what;
  EXPECT_EQ(q.rows, q.basics) << what;
  EXPECT_EQ(2, b.r.cleanupStatus) << what;
  EXPECT_EQ(0, b.r.cleanupIters) << what;
  VRXfreemodel(a);
  VRXfreemodel(m);
}

TEST(PresolveDualise, SmallModelsComeBackOptimalWithTheirBasis) {
  // Every sense of row and every kind of bound: '<', '>' and '=' rows, a free
  // column, a fixed one, a boxed one, one with only an upper bound.
  Def d;
  d.obj = {-3, 1, 2, -1, 0.5};
  d.lb = {0, -INF, 1, -INF, -2};
  d.ub = {4, INF, 1, 5, 3};
  d.sense = "<>=<";
  d.rhs = {10, -4, 6, 8};
  d.cols = {{{0, 1}, {1, 1}, {3, 2}}, {{0, 1}, {1, 1}, {2, 1}}, {{0, 2}, {2, 1}},
            {{1, -1}, {2, 1}, {3, 1}}, {{0, 1}, {3, -1}}};
  expectOptimal(d, "mixed");

  // The same maximised.
  Def mx = d;
  mx.objSense = -1;
  mx.obj = {3, -1, -2, 1, -0.5};
  expectOptimal(mx, "maximised");

  // A tall model: 12 tangents of a circle bound two free columns, m > 5n.
  Def t;
  t.obj = {-1, -0.4};
  t.lb = {-INF, -INF};
  t.ub = {INF, INF};
  t.cols.resize(2);
  for (int i = 0; i < 12; ++i) {
    const double a = 2 * M_PI * i / 12 + 0.1;
    t.sense += '<';
    t.rhs.push_back(3);
    t.cols[0].push_back({i, std::cos(a)});
    t.cols[1].push_back({i, std::sin(a)});
  }
  expectOptimal(t, "tangents");
  Env e;
  VRXmodel* tm = load(e.env, t);
  vrx::ParamStore par = VRXgetenv(tm)->par;
  EXPECT_EQ(1, vrx::dualiseChoice(tm->data, par, 1, 1));
  EXPECT_EQ(1, vrx::dualiseChoice(tm->data, par, 0, 1));
  EXPECT_EQ(0, vrx::dualiseChoice(tm->data, par, 2, 1));  // the barrier has its own rule
  par.PreDual = 0;
  EXPECT_EQ(0, vrx::dualiseChoice(tm->data, par, 1, 1));
  par.PreDual = 2;
  EXPECT_EQ(1, vrx::dualiseChoice(tm->data, par, 1, 1));
  EXPECT_EQ(2, vrx::dualiseChoice(tm->data, par, 1, 4));
  par.PreDual = -1;
  par.DualReductions = 0;
  EXPECT_EQ(0, vrx::dualiseChoice(tm->data, par, 1, 1));
  VRXfreemodel(tm);
  // A square model is dualised only on request.
  VRXmodel* sq = load(e.env, d);
  par = VRXgetenv(sq)->par;
  EXPECT_EQ(0, vrx::dualiseChoice(sq->data, par, 1, 1));
  par.PreDual = 1;
  EXPECT_EQ(1, vrx::dualiseChoice(sq->data, par, 1, 1));
  VRXfreemodel(sq);
}

TEST(PresolveDualise, NetlibModelsThroughTheDualForm) {
  // Forced on a few Netlib models: the primal point from the dual form reaches the
  // reference objective and its basis needs at most a handful of clean-up pivots.
  // VRX_PRE_DUAL_ALL=1 runs the whole set and prints the counts (a sweep, not for CI).
  auto ref = reference("netlib");
  std::vector<std::string> names = {"afiro", "sc50a", "adlittle", "blend", "share2b", "scagr7", "stocfor1", "boeing2"};
  const bool all = std::getenv("VRX_PRE_DUAL_ALL") != nullptr;
  if (all) {
    names.clear();
    for (auto& kv : ref) names.push_back(kv.first);
  }
  Env e;
  double cleanup = 0;
  int zero = 0;
  for (const std::string& ns : names) {
    const char* name = ns.c_str();
    VRXmodel* m = nullptr;
    const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
    ASSERT_EQ(0, VRXreadmodel(e.env, path.c_str(), &m)) << name;
    Back b = viaDual(m);
    if (all) std::printf("%-10s dual status %d cleanup %5.0f\n", name, b.dualStatus, b.r.cleanupIters);
    if (b.r.cleanupIters == 0) zero++;
    EXPECT_EQ(2, b.dualStatus) << name;
    EXPECT_TRUE(closeTo(ref[name], b.r.obj, 1e-6)) << name << " " << b.r.obj << " vs " << ref[name];
    EXPECT_EQ(2, b.r.cleanupStatus) << name;
    EXPECT_TRUE(closeTo(ref[name], b.r.cleanupObj, 1e-6)) << name;
    if (!all) EXPECT_LE(b.r.cleanupIters, 10) << name;
    cleanup += b.r.cleanupIters;
    VRXfreemodel(m);
  }
  if (all) std::printf("[ dual form ] %d of %zu models without clean-up, %.0f clean-up iterations\n", zero, names.size(), cleanup);
  if (!all) EXPECT_LE(cleanup, 10);
}

TEST(PresolveDualise, DriverSolveThroughTheDualForm) {
  // The whole step: the model's record ends solved at the direct optimum, and
  // models the dual form settles get the right status and no record.
  auto ref = reference("netlib");
  Env e;
  for (const char* name : {"afiro", "sc105", "kb2"}) {
    VRXmodel* m = nullptr;
    const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
    ASSERT_EQ(0, VRXreadmodel(e.env, path.c_str(), &m));
    VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
    for (int method : {1, 0}) {
      vrx::Clock clock = vrx::clockStart();
      vrx::DualisedSolve ds;
      ASSERT_EQ(0, vrx::lpSolveDualised(m, method, clock, &ds)) << name;
      EXPECT_EQ(1, ds.handled) << name;
      ASSERT_NE(nullptr, m->lp) << name;
      VRXlp* lp = static_cast<VRXlp*>(m->lp);
      EXPECT_EQ(2, lp->status) << name;
      EXPECT_TRUE(closeTo(ref[name], lp->sense * lp->dualObj, 1e-6)) << name << " method " << method;
      EXPECT_GT(ds.dualIters, 0) << name;
      EXPECT_LE(ds.extraIters, 10) << name;
      VRXlpFreeOnModel(m);
    }
    VRXfreemodel(m);
  }
  // x0 + x1 >= 4 with x0 + x1 <= 2: infeasible, the dual form is unbounded.
  Def inf;
  inf.obj = {1, 1};
  inf.lb = {0, 0};
  inf.ub = {INF, INF};
  inf.sense = "><";
  inf.rhs = {4, 2};
  inf.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1}}};
  // min -x0 with x0 - x1 <= 1, both unbounded above: the dual form is infeasible.
  Def unb;
  unb.obj = {-1, 0};
  unb.lb = {0, 0};
  unb.ub = {INF, INF};
  unb.sense = "<";
  unb.rhs = {1};
  unb.cols = {{{0, 1}}, {{0, -1}}};
  const std::pair<const Def*, int> cases[] = {{&inf, VRX_INFEASIBLE}, {&unb, VRX_INF_OR_UNBD}};
  for (auto& c : cases) {
    VRXmodel* m = load(e.env, *c.first);
    vrx::Clock clock = vrx::clockStart();
    vrx::DualisedSolve ds;
    ASSERT_EQ(0, vrx::lpSolveDualised(m, 1, clock, &ds));
    EXPECT_EQ(1, ds.handled);
    EXPECT_EQ(c.second, ds.status);
    EXPECT_EQ(nullptr, m->lp);
    VRXfreemodel(m);
  }
}

TEST(PresolveDualise, RefusesWhatIsNotAnLpAndCleansUpOnFailedAllocations) {
  Env e;
  Def d;
  d.obj = {1, 1};
  d.lb = {0, 0};
  d.ub = {5, INF};
  d.sense = ">";
  d.rhs = {2};
  d.cols = {{{0, 1}}, {{0, 1}}};
  VRXmodel* m = load(e.env, d);
  VRXsetcharattrelement(m, "VType", 0, 'I');
  VRXupdatemodel(m);
  VRXmodel* dm = reinterpret_cast<VRXmodel*>(1);
  vrx::DualMap* map = reinterpret_cast<vrx::DualMap*>(1);
  EXPECT_EQ(VRX_ERROR_NOT_SUPPORTED, vrx::dualiseModel(m, &dm, &map));
  EXPECT_EQ(nullptr, dm);
  EXPECT_EQ(nullptr, map);
  VRXfreemodel(m);

  // Every allocation of the build refused in turn: 10001, nothing left behind.
  long calls = 0;
  for (long k = -1; k < calls || k < 0; ++k) {
    HookState hs;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, loadWithHooks(&env, &hs));
    VRXsetintparam(env, "OutputFlag", 0);
    VRXmodel* am = nullptr;
    const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/afiro.mps.gz";
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &am));
    const long before = hs.calls;
    if (k >= 0) hs.failAt = before + k;
    int rc = vrx::dualiseModel(am, &dm, &map);
    if (rc == 0) {
      std::vector<double> x(am->data->numVars), y(am->data->numConstrs);
      std::vector<double> dx(map->dualCols, 0.0), dy(am->data->numVars, 0.0), dd(map->dualCols, 0.0);
      std::vector<int> dcs(map->dualCols, vrx::kStLower), drs(am->data->numVars, vrx::kRowActive);
      vrx::LPPoint dp{dx.data(), dy.data(), dd.data(), dcs.data(), drs.data()};
      vrx::LPPoint op{x.data(), y.data(), nullptr, nullptr, nullptr};
      const int rc2 = vrx::dualMapBack(map, am->data, dp, op);
      EXPECT_TRUE(rc2 == 0 || rc2 == VRX_ERROR_OUT_OF_MEMORY);
      VRXfreemodel(dm);
      vrx::dualMapFree(map);
    } else {
      EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << k;
      EXPECT_EQ(nullptr, dm);
      EXPECT_EQ(nullptr, map);
    }
    if (k < 0) calls = hs.calls - before;
    hs.failAt = -1;
    VRXfreemodel(am);
    VRXfreeenv(env);
    EXPECT_EQ(0, hs.live) << k;
  }
  EXPECT_GT(calls, 5);
}

TEST(PresolveDualise, NumericsGuardOnBadlyScaledMatrices) {
  Env e;
  Def d;
  d.obj = {1, 1, 1};
  d.lb = {0, 0, -INF};
  d.ub = {INF, INF, INF};
  d.sense = "<<";
  d.rhs = {1, 1};
  d.cols = {{{0, 1e-9}}, {{0, 1e7}, {1, 1}}, {{1, 1}}};  // ratio 1e16
  VRXmodel* m = load(e.env, d);
  const vrx::ParamStore base = VRXgetenv(m)->par;
  vrx::ParamStore par = base;
  // One free column of three: 1 >= 0.2 * min(2, 3), so the free columns keep it off.
  EXPECT_EQ(0, vrx::numericsGuard(m->data, &par));
  VRXfreemodel(m);
  d.lb[2] = 0;
  m = load(e.env, d);
  par = base;
  EXPECT_EQ(1, vrx::numericsGuard(m->data, &par));
  EXPECT_EQ(0, par.Aggregate);
  EXPECT_EQ(0, par.DualReductions);
  EXPECT_EQ(0, par.PreDepRow);
  EXPECT_EQ(0, par.VORN_PAR_PREBOUND);
  EXPECT_EQ(0.9, par.MarkowitzTol);
  // Not for the barrier, nor with PreDual set, nor with presolve off.
  par = base;
  par.Method = 2;
  EXPECT_EQ(0, vrx::numericsGuard(m->data, &par));
  par = base;
  par.PreDual = 0;
  EXPECT_EQ(0, vrx::numericsGuard(m->data, &par));
  par = base;
  par.Presolve = 0;
  EXPECT_EQ(0, vrx::numericsGuard(m->data, &par));
  EXPECT_EQ(base.MarkowitzTol, par.MarkowitzTol);
  VRXfreemodel(m);
  // A ratio of 1e14 is fine.
  d.cols[1][0].second = 1e5;
  m = load(e.env, d);
  par = base;
  EXPECT_EQ(0, vrx::numericsGuard(m->data, &par));
  EXPECT_EQ(1, par.Aggregate);
  VRXfreemodel(m);
}

}  // namespace
