// Method 2: presolve, the barrier, crossover or the interior solution, the results.
#include <cmath>
#include <cstring>

#include "barrier/bar.h"
#include "barrier/barrier.h"
#include "barrier/barwork.h"
#include "barrier/crossover.h"
#include "model/modeldata.h"
#include "model/result.h"
#include "presolve/lpbridge.h"
#include "presolve/presolve.h"
#include "presolve/undo.h"
#include "simplex/lp.h"
#include "simplex/lpdriver.h"

namespace vrx {

namespace {

// The interior point as the model's result: values without a basis.
int publishInterior(VRXmodel* model, const VRXbarsol* sol, int iters) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  const double sense = d->modelSense;
  VRXresult* r = resultCreate(env, n, m, d->numQConstrs);
  if (!r) return VRX_ERROR_OUT_OF_MEMORY;
  resultFree(env, model->result);
  model->result = r;
  r->iterCount = 0;
  r->barIterCount = iters;
  const int st = sol ? sol->status : model->status;
  // Values are published when the run ended on a point worth reading.
  if (!sol || !(st == VRX_OPTIMAL || st == VRX_SUBOPTIMAL || st == VRX_ITERATION_LIMIT || st == VRX_TIME_LIMIT ||
                st == VRX_INTERRUPTED || st == VRX_NUMERIC))
    return 0;
  r->x = envAllocArray<double>(env, static_cast<size_t>(n) + 1);
  r->slack = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
  r->pi = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
  r->rc = envAllocArray<double>(env, static_cast<size_t>(n) + 1);
  if (!r->x || !r->slack || !r->pi || !r->rc) return VRX_ERROR_OUT_OF_MEMORY;
  double obj = d->objCon;
  for (int j = 0; j < n; ++j) {
    r->x[j] = sol->x[j];
    r->rc[j] = sense * sol->rc[j];
    obj += d->obj[j] * sol->x[j];
  }
  for (int i = 0; i < m; ++i) {
    r->slack[i] = sol->slack[i];
    r->pi[i] = sense * sol->pi[i];
  }
  r->objVal = sense * obj;
  r->solCount = 1;
  return 0;
}

// The record's values on the original model: slacks and reduced costs from the store.
void completePoint(const VRXmodeldata* d, VRXbarsol* sol) {
  const int n = d->numVars, m = d->numConstrs;
  for (int i = 0; i < m; ++i) sol->slack[i] = d->rhs[i];
  double obj = d->objCon;
  for (int j = 0; j < n; ++j) {
    double rc = d->obj[j];
    for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p) {
      sol->slack[d->rowInd[p]] -= d->val[p] * sol->x[j];
      rc -= d->val[p] * sol->pi[d->rowInd[p]];
    }
    sol->rc[j] = rc;
    obj += d->obj[j] * sol->x[j];
  }
  sol->pObj = obj;
}

// Statuses read off an interior point, with the values at a bound moved onto it,
// so that the walk back can hand duals over as it does for a basic solution.
void interiorStatus(const VRXmodeldata* d, VRXbarsol* sol, int* cs, int* rs) {
  const int n = d->numVars, m = d->numConstrs;
  for (int j = 0; j < n; ++j) {
    const double lo = d->lb[j], up = d->ub[j], x = sol->x[j], dj = sol->rc[j];
    const bool loF = lo > -1e30, upF = up < 1e30;
    cs[j] = kStBasic;
    if (loF && dj > 0 && (x - lo) < dj) {
      cs[j] = kStLower;
      sol->x[j] = lo;
    } else if (upF && dj < 0 && (up - x) < -dj) {
      cs[j] = kStUpper;
      sol->x[j] = up;
    }
  }
  for (int i = 0; i < m; ++i) rs[i] = kRowBasic;
  for (int i = 0; i < m; ++i) sol->slack[i] = d->rhs[i];
  for (int j = 0; j < n; ++j)
    for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p)
      sol->slack[d->rowInd[p]] -= d->val[p] * sol->x[j];
  for (int i = 0; i < m; ++i)
    if (d->sense[i] == '=' || std::fabs(sol->slack[i]) < std::fabs(sol->pi[i])) rs[i] = kRowActive;
}

void presolveOutcomeLine(VRXenv* env, int status) {
  switch (status) {
    case VRX_INFEASIBLE: log(env, "Model is infeasible\n"); break;
    case VRX_INF_OR_UNBD: log(env, "Model is infeasible or unbounded\n"); break;
    case VRX_UNBOUNDED: log(env, "Model is unbounded\n"); break;
    case VRX_TIME_LIMIT: log(env, "Time limit reached\n"); break;
    default: break;
  }
}

// Closing lines with the barrier's iterations counted in.
void closing(VRXmodel* model, double seconds) {
  VRXresult shown = *model->result;
  shown.iterCount = model->result->iterCount + model->result->barIterCount;
  lpClosingLines(model, &shown, seconds);
}

// Owns what a presolved run allocates.
struct PreRun {
  VRXenv* env;
  PresolveOut pre{0, nullptr, nullptr};
  VRXbarsol* sol = nullptr;
  VRXbarsol* orig = nullptr;
  ~PreRun() {
    barsolFree(env, sol);
    barsolFree(env, orig);
    if (pre.presolved) {
      VRXlpFreeOnModel(pre.presolved);
      modelDestroy(pre.presolved);
    }
    presolveMapFree(pre.map);
  }
};

// Crossover on the model the barrier ran on; 0 with model->lp solved, or an error.
int runCrossover(VRXmodel* model, const VRXbarsol* sol, Clock& clock) {
  if (sol->status == VRX_INFEASIBLE || sol->status == VRX_UNBOUNDED || sol->status == VRX_CUTOFF) return 0;
  return VRXcrossover(model, sol, 0, clock);
}

// The original model after a presolved barrier: statuses walked back, the
// clean-up simplex from them, and the results published.
int cleanupOnOriginal(VRXmodel* model, PreRun& run, Clock& clock) {
  VRXenv* env = model->env;
  VRXmodel* pre = run.pre.presolved;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  const int pn = pre->data->numVars, pm = pre->data->numConstrs;
  auto* plp = static_cast<VRXlp*>(pre->lp);
  Scratch<double> px(env, pn + 1), pd(env, pn + 1), py(env, pm + 1);
  Scratch<int> pcs(env, pn + 1), prs(env, pm + 1), cs(env, n + 1), rs(env, m + 1);
  if (!px.a || !pd.a || !py.a || !pcs.a || !prs.a || !cs.a || !rs.a) return VRX_ERROR_OUT_OF_MEMORY;
  LPPoint pp{px.a, py.a, pd.a, pcs.a, prs.a};
  int rc = lpReadPoint(plp, pp);
  if (rc) return rc;
  const double preIters = plp->iterCount + plp->priorIter;
  LPPoint op{nullptr, nullptr, nullptr, cs.a, rs.a};
  rc = uncrushLP(run.pre.map, pp, op);
  if (rc) return rc;
  VRXlpFreeOnModel(pre);
  rc = VRXlpSetup(model, 0, &clock.work);
  if (rc) return rc;
  auto* lp = static_cast<VRXlp*>(model->lp);
  rc = lpLoadBasis(lp, cs.a, rs.a);
  if (rc) return rc;
  lp->iterCount = 0;
  lp->priorIter = preIters;
  rc = lpRunSimplex(lp, 0, clock);
  if (rc) return rc;
  if (lp->iterCount > 0) {
    if (lp->iterCount <= 1)
      log(env, "Extra one simplex iteration after uncrush\n");
    else
      log(env, "Extra %d simplex iterations after uncrush\n", static_cast<int>(lp->iterCount));
  }
  return 0;
}

// Publishes the record left in model->lp after crossover (and clean-up).
int publishBasic(VRXmodel* model, int barIters, Clock& clock) {
  auto* lp = static_cast<VRXlp*>(model->lp);
  int status = lp->status;
  if (status == VRX_OPTIMAL && lp->cutoff < kInf && lp->dualObj > lp->cutoff) status = VRX_CUTOFF;
  model->status = status;
  int rc = lpPublish(model, lp);
  if (rc) return rc;
  model->result->barIterCount = barIters;
  closing(model, clockElapsed(clock));
  return 0;
}

int solveOriginal(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  VRXbarsol* sol = nullptr;
  int rc = VRXbarrier(model, clock, BarRunOpts{}, &sol);
  struct Own {
    VRXenv* env;
    VRXbarsol** s;
    ~Own() { barsolFree(env, *s); }
  } own{env, &sol};
  if (rc) return rc;
  if (env->par.Crossover != 0) {
    rc = runCrossover(model, sol, clock);
    if (rc) return rc;
    if (model->lp) return publishBasic(model, sol->iterCount, clock);
  }
  model->status = sol->status;
  rc = publishInterior(model, sol, sol->iterCount);
  if (rc) return rc;
  closing(model, clockElapsed(clock));
  return 0;
}

}  // namespace

int barOptimize(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  const VRXmodeldata* d0 = model->data;
  int presolve = par.Presolve;
  if (d0->numPWLObjVars > 0 && presolve == 0) {
    log(env, "Warning: Barrier needs presolve to translate PWL model into pure LP\n");
    log(env, "         Turning it on and applying it conservatively\n");
    presolve = 1;
  }
  if (par.PreDual == 2 && d0->numQNZs > 0) log(env, "Warning: PreDual = 2 isn't supported for quadratic objective.\n");
  if (par.PreDual == 2 && d0->numQConstrs > 0)
    log(env, "Warning: PreDual = 2 isn't supported for quadratic constraints.\n");
  if (par.PreDual > 0 && d0->numPWLObjVars > 0)
    log(env, "Warning: PreDual = %d isn't supported for PW Linear objective.\n", par.PreDual);
  // The LP driver hands over the pieces' LP form; a caller that comes here with the
  // pieces would have them dropped by the iteration.
  if (d0->numPWLObjVars > 0)
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true,
                 "Barrier on piecewise-linear objectives is not available in this build");
  VRXlpFreeOnModel(model);
  if (presolve == 0) return solveOriginal(model, clock);

  PreRun run{env};
  const double t0 = wallClock();
  int rc = presolveLP(model, &clock.work, kPreFlagDepRows, &run.pre);
  if (rc) return rc;
  log(env, "Presolve time: %.2fs\n", wallClock() - t0);
  if (run.pre.status != 0) {
    // A proof from presolve is final, unless the caller wants a ray: then the original goes through.
    if (par.InfUnbdInfo &&
        (run.pre.status == VRX_INFEASIBLE || run.pre.status == VRX_INF_OR_UNBD || run.pre.status == VRX_UNBOUNDED))
      return solveOriginal(model, clock);
    presolveOutcomeLine(env, run.pre.status);
    model->status = run.pre.status;
    rc = publishInterior(model, nullptr, 0);
    if (rc) return rc;
    closing(model, clockElapsed(clock));
    return 0;
  }
  VRXmodel* pre = run.pre.presolved;
  const VRXmodeldata* pd = pre->data;
  const int pn = pd->numVars, pm = pd->numConstrs;
  log(env, "Presolved: %d rows, %d columns, %lu nonzeros\n", pm, pn, static_cast<unsigned long>(pd->numNZs));
  const VRXmodeldata* d = model->data;
  run.orig = barsolCreate(env, d->numVars, d->numConstrs);
  if (!run.orig) return VRX_ERROR_OUT_OF_MEMORY;
  if (pn == 0 && pm == 0) {
    log(env, "Presolve: All rows and columns removed\n");
    run.sol = barsolCreate(env, 0, 0);
    if (!run.sol) return VRX_ERROR_OUT_OF_MEMORY;
    run.sol->status = VRX_OPTIMAL;
    run.sol->iterCount = 0;
  } else {
    rc = VRXbarrier(pre, clock, BarRunOpts{}, &run.sol);
    if (rc) return rc;
  }
  const int iters = run.sol->iterCount;
  const int status = run.sol->status;

  if (par.Crossover != 0 && status != VRX_INFEASIBLE && status != VRX_UNBOUNDED && pn + pm > 0) {
    rc = runCrossover(pre, run.sol, clock);
    if (rc) return rc;
    if (pre->lp) {
      rc = cleanupOnOriginal(model, run, clock);
      if (rc) return rc;
      return publishBasic(model, iters, clock);
    }
  }

  // The interior point walked back to the original model.
  const int n = d->numVars, m = d->numConstrs;
  Scratch<int> pcs(env, pn + 1), prs(env, pm + 1), cs(env, n + 1), rs(env, m + 1);
  if (!pcs.a || !prs.a || !cs.a || !rs.a) return VRX_ERROR_OUT_OF_MEMORY;
  // The primal values walk back as they are; the duals walk with the values at
  // their bounds, so that the records that hand duals over see where each column is.
  Scratch<double> px(env, pn + 1);
  if (!px.a) return VRX_ERROR_OUT_OF_MEMORY;
  std::memcpy(px.a, run.sol->x, sizeof(double) * static_cast<size_t>(pn));
  if (pn + pm > 0) interiorStatus(pd, run.sol, pcs.a, prs.a);
  LPPoint pp{run.sol->x, run.sol->pi, run.sol->rc, pcs.a, prs.a};
  LPPoint op{run.orig->x, run.orig->pi, run.orig->rc, cs.a, rs.a};
  rc = uncrushLP(run.pre.map, pp, op);
  if (!rc) rc = uncrushPrimal(run.pre.map, px.a, run.orig->x, d->numVars);
  if (rc) return rc;
  completePoint(d, run.orig);
  run.orig->status = status;
  run.orig->iterCount = iters;
  if (pn == 0 && pm == 0) {
    log(env, "Barrier solved model in 0 iterations and %.2f seconds\n", clockElapsed(clock));
    log(env, "Optimal objective %.8e\n", d->modelSense * run.orig->pObj);
  }
  model->status = status;
  rc = publishInterior(model, run.orig, iters);
  if (rc) return rc;
  closing(model, clockElapsed(clock));
  return 0;
}

}  // namespace vrx
