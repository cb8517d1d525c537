// Crossover: the entry tests, the interior point in the units of the simplex record with
// its dual cleaning, the push phases with their restart, and the clean-up simplex.
#include "barrier/crossover.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/crossover_impl.h"
#include "env/envvec.h"
#include "model/modeldata.h"
#include "presolve/guided.h"
#include "presolve/lpbridge.h"
#include "simplex/dual.h"

namespace vrx {
namespace cross {

bool limitReached(State& st) {
  VRXenv* env = st.env;
  if (env->terminateFlagRef && *env->terminateFlagRef) {
    st.status = 11;
    return true;
  }
  if (++st.sinceClock >= 8) {
    st.sinceClock = 0;
    const ParamStore& par = env->par;
    if ((par.TimeLimit < kInf && clockElapsed(*st.clock) >= par.TimeLimit) ||
        st.clock->work >= par.VORN_PAR_VTIMELIMIT) {
      st.status = 9;
      return true;
    }
  }
  return false;
}

void VRXcrossLog(VRXlp* lp, int kind, double count, double value, double value2, const Clock& clock) {
  VRXenv* env = lp->env;
  const double now = clockElapsed(clock);
  switch (kind) {
    case kLogRootHeader: log(env, "\nRoot crossover log...\n\n"); break;
    case kLogHeader: log(env, "\nCrossover log...\n\n"); break;
    case kLogDual:
      log(env, "%7d DPushes remaining with DInf %12.7e            %6.0fs\n", static_cast<int>(count), value, now);
      break;
    case kLogPrimal:
      log(env, "%7d PPushes remaining with PInf %12.7e            %6.0fs\n", static_cast<int>(count), value, now);
      break;
    case kLogFree: log(env, "%7.0f      handle free variables                     %6.0fs\n", count, now); break;
    case kLogAdded: log(env, "%7.0f variables added to crossover basis                   %6.0fs\n", count, now); break;
    case kLogDone: log(env, "\nPush phase complete: Pinf %12.7e, Dinf %12.7e %6.0fs\n\n", value, value2, now); break;
    case kLogRestart: log(env, "\nRestart crossover...\n\n"); break;
    default: break;
  }
}

namespace {

// MarkowitzTol and PerturbValue as crossover found them, put back on every way out.
struct ParamGuard {
  VRXenv* env;
  double markowitz, perturb;
  explicit ParamGuard(VRXenv* e) : env(e), markowitz(e->par.MarkowitzTol), perturb(e->par.PerturbValue) {}
  ~ParamGuard() {
    env->par.MarkowitzTol = markowitz;
    env->par.PerturbValue = perturb;
  }
};

// The blocks of one run, freed on every way out.
struct Scratch {
  VRXenv* env;
  State st{};
  ~Scratch() {
    envFreeAll(env, st.x, st.d, st.y, st.cand, st.key, st.order, st.mark, st.targets, st.deferred, st.startStat,
               st.startHead, st.list.cands);
  }
  int alloc(int n, int m) {
    const size_t nm = static_cast<size_t>(n) + static_cast<size_t>(m) + 1;
    st.x = envCallocArray<double>(env, nm);
    st.d = envCallocArray<double>(env, nm);
    st.y = envCallocArray<double>(env, static_cast<size_t>(m) + 1);
    st.cand = envCallocArray<char>(env, nm);
    st.key = envCallocArray<double>(env, nm);
    st.order = envCallocArray<int>(env, nm);
    st.mark = envCallocArray<char>(env, nm);
    st.targets = envCallocArray<int>(env, nm);
    st.deferred = envCallocArray<int>(env, nm);
    st.startStat = envCallocArray<int>(env, nm);
    st.startHead = envCallocArray<int>(env, static_cast<size_t>(m) + 1);
    st.list.cands = envCallocArray<int>(env, nm);
    const bool ok = st.x && st.d && st.y && st.cand && st.key && st.order && st.mark && st.targets &&
                    st.deferred && st.startStat && st.startHead && st.list.cands;
    return ok ? 0 : VRX_ERROR_OUT_OF_MEMORY;
  }
};

// The plain dual simplex from the slack basis, when the barrier result cannot be used.
int dualInstead(VRXmodel* model, Clock& clock) {
  VRXlpFreeOnModel(model);
  double work = 0;
  int rc = VRXlpSetup(model, 1, &work);
  clockCharge(clock, work);
  if (rc) return rc;
  auto* lp = static_cast<VRXlp*>(model->lp);
  if (lp->status == 1) {
    lp->iterCount = 0;
    lp->priorIter = 0;
    rc = lpRunSimplex(lp, 1, clock);
  }
  model->status = lp->status;
  return rc;
}

// The interior point in the record's units: x with the slacks it implies, y, and the
// reduced costs c - A'y, after the dual cleaning.
void loadPoint(State& st, const VRXbarsol* sol, bool cleanPi) {
  VRXlp* lp = st.lp;
  const int n = st.n, m = st.m;
  // The point is in the store's terms; the copy negates '>' rows and flips declared
  // columns only where the store has not done so itself.
  const VRXmodeldata* store = st.model->data;
  const char* flipped = store->flippedCount == 0 ? store->colFlipped : nullptr;
  const bool negateGe = store->geRowsNegated == 0;
  for (int j = 0; j < n; j++) {
    double x = sol->x[j];
    if (flipped && flipped[j]) x = -x;
    if (lp->colScale) x /= lp->colScale[j];
    st.x[j] = x;
  }
  for (int i = 0; i < m; i++) {
    double y = sol->pi[i];
    if (negateGe && lp->senseChar[i] == '>') y = -y;
    y *= lp->objScale;
    if (lp->rowScale) y /= lp->rowScale[i];
    st.y[i] = y;
    st.x[n + i] = lp->rhs[i];
  }
  for (int j = 0; j < n; j++) {
    double dj = lp->cost[j];
    for (int64_t k = lp->colBeg[j], e = k + lp->colLen[j]; k < e; k++) {
      st.x[n + lp->rowInd[k]] -= lp->val[k] * st.x[j];
      dj -= lp->val[k] * st.y[lp->rowInd[k]];
    }
    st.d[j] = dj;
  }

  if (cleanPi) {
    // A row off its bound, or with a dual of the wrong sign, should have no dual: move it
    // toward zero as far as the columns of the row allow.
    const double t = lp->feasTol, ot = lp->optTol, inf = lp->infBound;
    for (int i = 0; i < m; i++) {
      if (lp->senseChar[i] == '=') continue;
      const double yi = st.y[i];
      if (!(st.x[n + i] > 1e-10 || yi > 1e-10)) continue;
      const double delta = -yi;
      double lam = 1.0;
      for (int64_t e = lp->rowBeg[i], end = e + lp->rowLen[i]; e < end && lam > 0; e++) {
        const int j = lp->colInd[e];
        const double ch = -lp->rowVal[e] * delta;  // change of d_j over the whole step
        if (ch == 0.0) continue;
        const double lo = lp->lower[j], up = lp->upper[j], x = st.x[j], dj = st.d[j];
        const bool atLo = lo > -inf && x - lo < t;
        const bool atUp = up < inf && up - x < t;
        if (atLo && atUp) continue;
        double lim;
        if (atLo) {
          lim = ch >= 0 ? 1.0 : (dj <= 0 ? 0.0 : dj / -ch);
        } else if (atUp) {
          lim = ch <= 0 ? 1.0 : (dj >= 0 ? 0.0 : -dj / ch);
        } else {
          const double cap = std::max(std::fabs(dj), ot);
          lim = ch > 0 ? (cap - dj) / ch : (-cap - dj) / ch;
        }
        lam = std::min(lam, std::max(lim, 0.0));
      }
      const double step = lam * delta;
      if (std::fabs(step) < 1e-9) continue;
      st.y[i] += step;
      for (int64_t e = lp->rowBeg[i], end = e + lp->rowLen[i]; e < end; e++) st.d[lp->colInd[e]] -= lp->rowVal[e] * step;
    }
  }
  for (int i = 0; i < m; i++) st.d[n + i] = -st.y[i];
  // Pushes move values between bounds: far beyond the point's own scale is lost accuracy.
  double big = 0;
  for (int j = 0; j < n + m; j++)
    if (std::fabs(st.x[j]) < lp->infBound) big = std::max(big, std::fabs(st.x[j]));
  st.valueCap = std::min(1e30, 1e6 * (1.0 + big));
}

// A nonbasic variable off its bounds that has a finite bound.
bool boundedSuperbasic(const State& st) {
  const VRXlp* lp = st.lp;
  for (int j = 0; j < st.n + st.m; j++)
    if (lp->varStat[j] == VRX_VS_FREE && (lp->lower[j] > -lp->infBound || lp->upper[j] < lp->infBound)) return true;
  return false;
}

template <class T>
int pushPhases(State& st, bool firstPrimal) {
  int found = 0;
  int rc = firstPrimal ? VRXcrossPushPrimal<T>(st, 1, &found) : VRXcrossPushDual<T>(st, 1, &found);
  if (rc || st.status != 1) return rc;
  // A failed basis has nothing to give to more pushes: the restart or the clean-up takes over.
  if (st.pushFailed) return 0;
  // Nothing found by the first pushes: the clean-up takes the rest, but for values between
  // finite bounds, which the simplex would leave where they are.
  if (found == 0 && (firstPrimal || !boundedSuperbasic(st))) return 0;
  int second = 0;
  return firstPrimal ? VRXcrossPushDual<T>(st, 2, &second) : VRXcrossPushPrimal<T>(st, 2, &second);
}

// Back to the statuses and the basis of the basis step.
template <class T>
int restoreStart(State& st) {
  std::memcpy(st.lp->varStat, st.startStat, sizeof(int) * static_cast<size_t>(st.n + st.m));
  for (int j = 0; j < st.n + st.m; j++) st.lp->warmStart[j] = st.x[j];
  const int rc = startBasis<T>(st);
  st.pushFailed = 0;
  return rc;
}

// Push pivots below this share of the largest entry of their row or column wait for a
// fresh factor; the restart, which follows lost accuracy, asks for more.
constexpr double kPushPivot = 1e-3;
constexpr double kRestartPivot = 1e-2;

template <class T>
int crossRun(State& st, bool firstPrimal) {
  VRXlp* lp = st.lp;
  const ParamStore& par = st.env->par;
  int rc = startBasis<T>(st);
  if (rc) return rc;
  st.pushFailed = 0;
  for (int attempt = 0;; attempt++) {
    st.status = 1;
    st.pushFailed = 0;
    st.hugeDual = 0;
    // Drift fails only an attempt that a restart can follow.
    st.driftCheck = attempt == 0 && par.VORN_PAR_RECROSSOVER;
    if ((rc = pushPhases<T>(st, firstPrimal))) return rc;
    if (st.status != 1 || !st.pushFailed) break;
    if (attempt > 0 || !par.VORN_PAR_RECROSSOVER) {
      // The pushes gave up: the simplex starts from the basis of the basis step.
      if ((rc = restoreStart<T>(st))) return rc;
      break;
    }
    lp->markowitzTol = std::max(lp->markowitzTol, 0.9);
    st.relPivot = kRestartPivot;
    VRXcrossLog(lp, kLogRestart, 0, 0, 0, *st.clock);
    if (st.hugeDual > 1e30) {
      st.pivotCheck = 0.3;
      if ((rc = selectBasis(st))) return rc;
    }
    if ((rc = restoreStart<T>(st))) return rc;
  }
  if ((rc = measure<T>(st))) return rc;
  // The simplex expects its work vectors empty.
  auto v = dual::view<T>(lp);
  dual::clearVec(v.row, st.n + st.m + 1);
  dual::clearVec(v.col, st.m + 1);
  dual::clearVec(v.rho, st.m + 1);
  dual::clearVec(v.w1, st.n + st.m + 1);
  dual::clearVec(v.w2, st.n + st.m + 1);
  VRXcrossLog(lp, kLogDone, 0, st.pinf, st.dinf, *st.clock);
  return 0;
}

// The simplex of the clean-up for the Crossover setting and what the pushes left.
int cleanupMethod(const State& st) {
  switch (st.setting) {
    case 1:
    case 3: return 0;
    case 2:
    case 4:
    case 5: return 1;
    default: break;
  }
  if (st.pinf <= 0) return 0;
  if (st.dinf <= 0) return 1;
  return st.pinf + st.lp->feasTol > st.dinf ? 1 : 0;
}

int crossoverOn(VRXmodel* model, const VRXbarsol* sol, int mode, Clock& clock, bool root, bool guided);

// The point carried into the reduced model as a barrier result of its own.
VRXbarsol* reducedPoint(VRXenv* env, const GuidedOut& g, const VRXbarsol* sol) {
  const VRXmodeldata* rd = g.presolved->data;
  const int pn = rd->numVars, pm = rd->numConstrs;
  VRXbarsol* in = barsolCreate(env, pn, pm);
  if (!in) return nullptr;
  std::memcpy(in->x, g.x, sizeof(double) * static_cast<size_t>(pn));
  std::memcpy(in->rc, g.d, sizeof(double) * static_cast<size_t>(pn));
  std::memcpy(in->pi, g.y, sizeof(double) * static_cast<size_t>(pm));
  std::memcpy(in->slack, rd->rhs, sizeof(double) * static_cast<size_t>(pm));
  double obj = rd->objCon;
  for (int j = 0; j < pn; j++) {
    obj += rd->obj[j] * g.x[j];
    for (int64_t k = rd->colBeg[j], e = k + rd->colLen[j]; k < e; k++) in->slack[rd->rowInd[k]] -= rd->val[k] * g.x[j];
  }
  in->status = sol->status;
  in->iterCount = sol->iterCount;
  in->doubtful = sol->doubtful;
  in->pObj = obj;
  in->dObj = obj + (sol->dObj - sol->pObj);
  in->pinf = sol->pinf;
  in->dinf = sol->dinf;
  in->compl_ = sol->compl_;
  return in;
}

// The guided re-presolve: crossover on the model reduced by what the point supports, its
// basis walked back and cleaned up by the simplex on model. *done when model->lp holds the
// answer; on any failure short of memory the caller goes on without it.
int guidedCrossover(VRXmodel* model, const VRXbarsol* sol, int mode, Clock& clock, bool root, bool* done) {
  *done = false;
  VRXenv* env = model->env;
  // The inner run and the clean-up move MarkowitzTol: back to its saved value on the way out.
  ParamGuard guard(env);
  struct Own {
    VRXenv* env;
    GuidedOut g{};
    VRXbarsol* inner = nullptr;
    ~Own() {
      if (g.presolved) VRXlpFreeOnModel(g.presolved);
      barsolFree(env, inner);
      guidedFree(env, &g);
    }
  } own{env};
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  // The reduced costs follow from the duals, as the pushes take them.
  vrx::Scratch<double> dj(env, n + 1);
  if (!dj.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int j = 0; j < n; j++) {
    double v = d->obj[j];
    for (int64_t k = d->colBeg[j], e = k + d->colLen[j]; k < e; k++) v -= d->val[k] * sol->pi[d->rowInd[k]];
    dj.a[j] = v;
  }
  int rc = presolveGuided(model, sol->x, sol->pi, dj.a, nullptr, &clock.work, &own.g);
  if (rc || own.g.status != 0) return rc;
  VRXmodel* red = own.g.presolved;
  const int pn = red->data->numVars, pm = red->data->numConstrs;
  vrx::Scratch<double> px(env, pn + 1), pd(env, pn + 1), py(env, pm + 1);
  vrx::Scratch<int> pcs(env, pn + 1), prs(env, pm + 1), cs(env, n + 1), rs(env, m + 1);
  if (!px.a || !pd.a || !py.a || !pcs.a || !prs.a || !cs.a || !rs.a) return VRX_ERROR_OUT_OF_MEMORY;
  LPPoint pp{px.a, py.a, pd.a, pcs.a, prs.a};
  double innerIters = 0;
  // When the reductions took everything, the walk back alone gives the basis.
  if (pn + pm > 0) {
    own.inner = reducedPoint(env, own.g, sol);
    if (!own.inner) return VRX_ERROR_OUT_OF_MEMORY;
    rc = crossoverOn(red, own.inner, mode, clock, root, false);
    if (rc == VRX_ERROR_OUT_OF_MEMORY) return rc;
    auto* plp = static_cast<VRXlp*>(red->lp);
    if (rc || !plp || plp->status != VRX_OPTIMAL) return 0;
    if ((rc = lpReadPoint(plp, pp))) return rc;
    innerIters = plp->priorIter + plp->iterCount;
    VRXlpFreeOnModel(red);
  }
  LPPoint op{nullptr, nullptr, nullptr, cs.a, rs.a};
  if ((rc = uncrushLP(own.g.map, pp, op))) return rc;
  double extra = 0;
  VRXlpFreeOnModel(model);
  rc = lpCleanupFrom(model, 0, cs.a, rs.a, innerIters, "after uncrush", clock, &extra);
  if (rc == VRX_ERROR_OUT_OF_MEMORY) return rc;
  auto* lp = static_cast<VRXlp*>(model->lp);
  if (rc || extra < 0 || !lp || lp->status != VRX_OPTIMAL) {
    VRXlpFreeOnModel(model);
    return 0;
  }
  model->status = lp->status;
  *done = true;
  return 0;
}

int crossoverOn(VRXmodel* model, const VRXbarsol* sol, int mode, Clock& clock, bool root, bool guided) {
  VRXenv* env = model->env;
  // Cutoff, time limit and interruption, of the model or of the barrier run: nothing to do.
  const int ms = model->status;
  const int bs = sol ? sol->status : 0;
  if ((ms >= 0 && ms < 32 && ((1u << ms) & 0xA40u)) || (bs >= 0 && bs < 32 && ((1u << bs) & 0xA40u))) return 0;
  if (!sol) {
    if (ms == VRX_NUMERIC) return dualInstead(model, clock);
    log(env, "Barrier solution isn't available for crossover\n");
    return 0;
  }
  if ((std::fabs(sol->pObj) + 1.0) * 0.5 < std::fabs(sol->pObj - sol->dObj)) return dualInstead(model, clock);
  const VRXmodeldata* data = model->data;
  if (!data || sol->n != data->numVars || sol->m != data->numConstrs)
    return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Barrier solution does not match the model");

  ParamStore& par = env->par;
  if (guided && sol->status == VRX_OPTIMAL && par.Presolve != 0 && par.DualReductions && par.VORN_PAR_GUIDEDPRE) {
    bool done = false;
    const int grc = guidedCrossover(model, sol, mode, clock, root, &done);
    if (grc || done) {
      if (grc == VRX_ERROR_OUT_OF_MEMORY) model->status = grc;
      return grc;
    }
  }

  ParamGuard guard(env);
  par.MarkowitzTol = std::max(par.MarkowitzTol, sol->doubtful ? 0.5 : 0.1);
  par.PerturbValue = std::min(par.PerturbValue, 1e-6);

  VRXlpFreeOnModel(model);
  double work = 0;
  int rc = VRXlpSetup(model, 2, &work);
  clockCharge(clock, work);
  if (rc) {
    if (rc == VRX_ERROR_OUT_OF_MEMORY) model->status = rc;
    return rc;
  }
  auto* lp = static_cast<VRXlp*>(model->lp);
  if (lp->status != 1) {
    // Bounds that cannot hold: the setup has the answer.
    model->status = lp->status;
    return 0;
  }
  // The record goes on from the barrier: its iterations and objective. The barrier's
  // iterations are counted only while crossover runs (the log lines go on from them);
  // the caller publishes them apart.
  const double barIters = sol->iterCount;
  lp->iterCount = 0;
  lp->priorIter = barIters;
  lp->primalObj = sol->pObj;
  lp->dualObj = sol->dObj;

  Scratch s{env};
  State& st = s.st;
  st.model = model;
  st.lp = lp;
  st.env = env;
  st.clock = &clock;
  st.n = lp->n;
  st.m = lp->m;
  st.setting = par.Crossover;
  st.basisKind = par.CrossoverBasis;
  st.pivotCheck = 0.1;
  st.relPivot = kPushPivot;
  st.list.model = model;
  st.list.lp = lp;
  st.lastLogTime = clockElapsed(clock);
  rc = s.alloc(st.n, st.m);
  if (!rc && !lp->warmStart) {
    lp->warmStart = envCallocArray<double>(env, static_cast<size_t>(st.n) + st.m + 1);
    if (!lp->warmStart) rc = VRX_ERROR_OUT_OF_MEMORY;
  }
  if (rc) {
    model->status = rc;
    return rc;
  }

  loadPoint(st, sol, par.VORN_PAR_CROSSOVERPI != 0);
  VRXcrossLog(lp, root ? kLogRootHeader : kLogHeader, 0, 0, 0, clock);
  rc = selectBasis(st);
  const bool firstPrimal = st.setting >= 3 || (st.setting == -1 && mode >= 2);
  if (!rc) rc = lp->quadMode ? crossRun<long double>(st, firstPrimal) : crossRun<double>(st, firstPrimal);
  if (rc) {
    if (rc == VRX_ERROR_OUT_OF_MEMORY) model->status = rc;
    return rc;
  }
  // The push moves are extra iterations.
  lp->priorIter = barIters + st.pushMoves;
  lp->iterCount = 0;
  if (st.status != 1) {
    // A limit stopped the pushes: the basis stands as it is.
    lp->priorIter -= barIters;
    lp->status = st.status;
    model->status = st.status;
    return 0;
  }

  // The clean-up simplex from the pushed basis, loaded afresh.
  const int method = cleanupMethod(st);
  VRXlpFreeWork(lp);
  if ((rc = VRXlpLoad(lp))) {
    if (rc == VRX_ERROR_OUT_OF_MEMORY) model->status = rc;
    return rc;
  }
  lpActiveRebuild(lp);
  lp->loadKind = 1;
  lp->status = 1;
  lp->actionCode = 1;
  lp->phase = 0;
  lp->method = method;
  rc = lpRunSimplex(lp, method, clock);
  if (!rc && lp->quadMode) {
    // The publishing step reads the double factor: the record goes back to double form
    // with a factor to be built from its basis.
    if (!(rc = VRXlpToDouble(lp))) {
      VRXlpFreeWork(lp);
      rc = VRXlpLoad(lp);
    }
  }
  lp->priorIter -= barIters;
  model->status = lp->status;
  if (rc == VRX_ERROR_OUT_OF_MEMORY) model->status = rc;
  return rc;
}

}  // namespace
}  // namespace cross
}  // namespace vrx

int VRXcrossover(VRXmodel* model, const VRXbarsol* sol, int mode, vrx::Clock& clock, bool root) {
  return vrx::cross::crossoverOn(model, sol, mode, clock, root, true);
}
