// The LP driver: setup, the simplex loops, the results in true units, the closing lines.
#include "simplex/lpdriver.h"

#include <cmath>
#include <cstring>

#include "barrier/barrier.h"
#include "model/callback.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model/result.h"
#include "presolve/lpsolve.h"
#include "simplex/lp.h"
#include "simplex/primal.h"
#include "simplex/simplex.h"

namespace vrx {

namespace {

bool finishedStatus(int s) { return s == 2 || s == 3 || s == 4 || s == 5; }

// Basis statuses of the record in the model's terms: 0 basic, -1 lower, -2 upper, -3 free.
int modelBasisCode(int vs) {
  if (vs >= 0) return VRX_BASIC;
  switch (vs) {
    case VRX_VS_LOWER:
    case VRX_VS_FIX_LOWER: return VRX_NONBASIC_LOWER;
    case VRX_VS_UPPER:
    case VRX_VS_FIX_UPPER: return VRX_NONBASIC_UPPER;
    default: return VRX_SUPERBASIC;
  }
}

// Starts the record from the warm-start basis of the model, when one was set and checked.
// Returns true when the record took it.
bool applyWarmBasis(VRXmodel* model, VRXlp* lp) {
  const auto* ws = static_cast<const VRXwarmstart*>(model->warmStart);
  const int n = lp->n, m = lp->m;
  if (!ws || ws->basisState != 2 || !ws->basis || ws->size != n + m || ws->columnCount != n)
    return false;
  int basic = 0;
  for (int k = 0; k < n + m; ++k) basic += ws->basis[k] == VRX_BASIC;
  if (basic != m) return false;
  int* head = lp->factor ? lp->factor->basisHead : nullptr;
  if (!head) return false;
  int pos = 0;
  for (int k = 0; k < n + m; ++k) {
    int b = ws->basis[k];
    if (b == VRX_BASIC) {
      lp->varStat[k] = pos;
      head[pos++] = k;
      continue;
    }
    bool lowFinite = lp->lower[k] > -lp->infBound, upFinite = lp->upper[k] < lp->infBound;
    if (b == VRX_NONBASIC_UPPER && upFinite)
      lp->varStat[k] = VRX_VS_UPPER;
    else if (lowFinite)
      lp->varStat[k] = VRX_VS_LOWER;
    else if (upFinite)
      lp->varStat[k] = VRX_VS_UPPER;
    else
      lp->varStat[k] = VRX_VS_FREE;
  }
  lp->factor->freshBasis = 1;
  lp->actionCode = 1;
  lp->loadKind = 2;
  lpActiveRebuild(lp);
  return true;
}

// The loop over the two simplex methods, with the hand-over between them.
int spxRun(VRXlp* lp, int method, Clock& clock) {
  for (int round = 0; round < 50; ++round) {
    lp->method = method;
    int rc = method == 0 ? VRXprimalSolve(lp, clock) : VRXdualSolve(lp, clock);
    if (rc) return rc;
    if (lp->status != -1004) return 0;
    // The loop asks for the other method to finish.
    method = 1 - method;
    lp->status = 1;
  }
  lp->status = VRX_NUMERIC;
  return 0;
}

}  // namespace

// The solution of the record in true units and the caller's terms, into a fresh result.
int lpPublish(VRXmodel* model, VRXlp* lp) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = lp->n, m = lp->m;
  const double sense = d->modelSense;
  if (lp->quadMode == 1) {
    int err = VRXlpToDouble(lp);
    if (err) return err;
  }
  VRXresult* r = resultCreate(env, d->numVars, d->numConstrs, d->numQConstrs);
  if (!r) return VRX_ERROR_OUT_OF_MEMORY;
  resultFree(env, model->result);
  model->result = r;
  r->iterCount = lp->iterCount + lp->priorIter;
  r->vBasis = envAllocArray<int>(env, static_cast<size_t>(n) + 1);
  r->cBasis = envAllocArray<int>(env, static_cast<size_t>(m) + 1);
  if (!r->vBasis || !r->cBasis) return VRX_ERROR_OUT_OF_MEMORY;
  for (int j = 0; j < n; ++j) r->vBasis[j] = modelBasisCode(lp->varStat[j]);
  for (int i = 0; i < m; ++i) r->cBasis[i] = modelBasisCode(lp->varStat[n + i]);
  if (lp->status == VRX_UNBOUNDED) {
    // The primal loop keeps the direction that proves unboundedness.
    double* ray = envCallocArray<double>(env, static_cast<size_t>(n + m) + 1);
    if (!ray) return VRX_ERROR_OUT_OF_MEMORY;
    if (primalRay(lp, ray) == 0) {
      r->unbdRay = ray;
    } else {
      envFree(env, ray);
    }
    return 0;
  }
  if (lp->status != VRX_OPTIMAL) return 0;

  // Scaled primal values: nonbasic at their bounds, basic from B x_B = b - N x_N.
  double* xs = envCallocArray<double>(env, static_cast<size_t>(n + m) + 1);
  double* rowv = envCallocArray<double>(env, static_cast<size_t>(m) + 1);
  VRXsvec in{}, out{};
  int err = VRX_ERROR_OUT_OF_MEMORY;
  if (xs && rowv && !svecAlloc(env, &in, m) && !svecAlloc(env, &out, m)) {
    err = 0;
    for (int k = 0; k < n + m; ++k) {
      int vs = lp->varStat[k];
      if (vs >= 0) continue;
      double v = 0;
      if (vs == VRX_VS_LOWER || vs == VRX_VS_FIX_LOWER) v = lp->lower[k];
      if (vs == VRX_VS_UPPER || vs == VRX_VS_FIX_UPPER) v = lp->upper[k];
      if (std::fabs(v) >= lp->infBound) v = 0;
      xs[k] = v;
    }
    for (int i = 0; i < m; ++i) rowv[i] = lp->rhs[i];
    for (int k = 0; k < n + m; ++k) {
      if (lp->varStat[k] >= 0 || xs[k] == 0.0) continue;
      for (int64_t p = lp->colBeg[k]; p < lp->colBeg[k] + lp->colLen[k]; ++p)
        rowv[lp->rowInd[p]] -= lp->val[p] * xs[k];
    }
    VRXfactorMatrix A = lpFactorMatrix(lp);
    double work = 0;
    if (lp->factor->freshBasis) {
      VRXfactorCtl ctl;
      lpFactorCtlLoad(lp, &ctl);
      err = VRXfactorRefactor(lp->factor, &A, lp->factor->basisHead, &ctl, &work);
      lpFactorCtlStore(lp, &ctl);
    }
    if (!err) {
      in.count = -1;
      for (int i = 0; i < m; ++i) in.value[i] = rowv[i];
      err = VRXftran(lp->factor, &in, &out, 0, 1, &work);
    }
    if (!err) {
      const int* head = lp->factor->basisHead;
      if (out.count < 0) {
        for (int p = 0; p < m; ++p) xs[head[p]] = out.value[p];
      } else {
        for (int k = 0; k < out.count; ++k) xs[head[out.index[k]]] = out.value[out.index[k]];
      }
      // Duals: B^T y = c_B in the scaled copy.
      svecClear(&in, m);
      in.count = -1;
      for (int p = 0; p < m; ++p) in.value[p] = lp->cost[head[p]];
      err = VRXbtran(lp->factor, &in, &out, 1, &work);
    }
    if (!err) {
      double* ys = rowv;
      for (int i = 0; i < m; ++i) ys[i] = 0;
      if (out.count < 0) {
        for (int i = 0; i < m; ++i) ys[i] = out.value[i];
      } else {
        for (int k = 0; k < out.count; ++k) ys[out.index[k]] = out.value[out.index[k]];
      }
      r->x = envAllocArray<double>(env, static_cast<size_t>(n + m) + 1);
      r->pi = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
      r->slack = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
      r->rc = envAllocArray<double>(env, static_cast<size_t>(n) + 1);
      if (!r->x || !r->pi || !r->slack || !r->rc) {
        err = VRX_ERROR_OUT_OF_MEMORY;
      } else {
        lpUnscalePrimal(lp, xs, r->x);
        lpUnscaleDual(lp, ys, r->pi);
        // Rows of sense '>' were negated in the copy; the store keeps the minimising sense.
        for (int i = 0; i < m; ++i) {
          if (d->sense[i] == '>') r->pi[i] = -r->pi[i];
        }
        // Slacks and reduced costs in true units from the store itself.
        for (int i = 0; i < m; ++i) r->slack[i] = d->rhs[i];
        double obj = d->objCon;
        for (int j = 0; j < n; ++j) {
          double rc = d->obj[j];
          for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p) {
            r->slack[d->rowInd[p]] -= d->val[p] * r->x[j];
            rc -= d->val[p] * r->pi[d->rowInd[p]];
          }
          r->rc[j] = sense * rc;
          obj += d->obj[j] * r->x[j];
        }
        for (int i = 0; i < m; ++i) r->pi[i] *= sense;
        r->objVal = sense * obj;
        r->solCount = 1;
      }
    }
  }
  svecFree(env, &in);
  svecFree(env, &out);
  envFree(env, xs);
  envFree(env, rowv);
  return err;
}

void lpClosingLines(VRXmodel* model, const VRXresult* r, double seconds) {
  VRXenv* env = model->env;
  int status = model->status;
  double iters = r ? r->iterCount : 0;
  if (finishedStatus(status))
    log(env, "Solved in %d iterations and %.2f seconds\n", static_cast<int>(iters), seconds);
  else
    log(env, "Stopped in %d iterations and %.2f seconds\n", static_cast<int>(iters), seconds);
  switch (status) {
    case VRX_OPTIMAL: log(env, "Optimal objective %16.9e\n", r ? r->objVal : 0.0); break;
    case VRX_INFEASIBLE: log(env, "Infeasible model\n"); break;
    case VRX_INF_OR_UNBD: log(env, "Infeasible or unbounded model\n"); break;
    case VRX_UNBOUNDED: log(env, "Unbounded model\n"); break;
    case VRX_CUTOFF: log(env, "Model objective exceeds cutoff\n"); break;
    case VRX_ITERATION_LIMIT: log(env, "Iteration limit reached\n"); break;
    case VRX_TIME_LIMIT: log(env, "Time limit reached\n"); break;
    case VRX_INTERRUPTED: log(env, "Solve interrupted\n"); break;
    case VRX_NUMERIC: log(env, "Numeric error\n"); break;
    default: break;
  }
}

namespace {

// A checked warm-start basis of the model's shape: the solve starts from it, not from presolve.
bool hasWarmBasis(const VRXmodel* model) {
  const auto* ws = static_cast<const VRXwarmstart*>(model->warmStart);
  const VRXmodeldata* d = model->data;
  return ws && ws->basisState == 2 && ws->basis && ws->size == d->numVars + d->numConstrs &&
         ws->columnCount == d->numVars;
}

// Presolve, the solve of the presolved model, uncrush and the clean-up simplex. Returns
// 0 with *done set when the model's results are published, or with *done clear when the
// original is to be solved as it is.
int presolvedRun(VRXmodel* model, int method, Clock& clock, bool* done) {
  *done = false;
  PresolvedSolve ps;
  int err = lpPresolveSolve(model, method, clock, &ps);
  if (err == VRX_ERROR_OUT_OF_MEMORY) log(model->env, "Out of memory\n");
  if (err || !ps.handled) return err;
  auto* lp = static_cast<VRXlp*>(model->lp);
  if (!lp) {
    // Presolve settled the model by itself.
    model->status = ps.status;
    VRXresult* r = resultCreate(model->env, model->data->numVars, model->data->numConstrs,
                                model->data->numQConstrs);
    if (!r) return VRX_ERROR_OUT_OF_MEMORY;
    resultFree(model->env, model->result);
    model->result = r;
    r->iterCount = 0;
    lpClosingLines(model, r, clockElapsed(clock));
    *done = true;
    return 0;
  }
  int status = lp->status;
  if (status == 2 && lp->cutoff < kInf && lp->dualObj > lp->cutoff) status = VRX_CUTOFF;
  model->status = status;
  err = lpPublish(model, lp);
  if (err) return err;
  lpClosingLines(model, model->result, clockElapsed(clock));
  *done = true;
  return 0;
}

}  // namespace

int lpOptimize(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  int method = env->par.Method;
  if (method < 0) method = 1;
  if (method == 2) return barOptimize(model, clock);
  // A kept record or a warm basis is the better start; otherwise presolve goes first.
  if (env->par.Presolve != 0 && model->lp == nullptr && !hasWarmBasis(model)) {
    bool done = false;
    int err = presolvedRun(model, method, clock, &done);
    if (err || done) return err;
  }
  double work = 0;
  bool fresh = model->lp == nullptr;
  int err = VRXlpSetup(model, method, &work);
  if (err) return err;
  clockCharge(clock, work);
  auto* lp = static_cast<VRXlp*>(model->lp);
  if (fresh) applyWarmBasis(model, lp);
  // Each optimize counts its own iterations, also when it goes on from a kept record.
  lp->iterCount = 0;
  lp->priorIter = 0;
  lp->status = 1;
  err = spxRun(lp, method, clock);
  if (err == 100001 || err == 100002) {
    // The start basis fell apart: drop it and solve from the slack basis once.
    VRXlpFreeOnModel(model);
    err = VRXlpSetup(model, method, &work);
    if (err) return err;
    lp = static_cast<VRXlp*>(model->lp);
    lp->status = 1;
    err = spxRun(lp, method, clock);
  }
  if (err == VRX_ERROR_OUT_OF_MEMORY) {
    log(env, "Out of memory\n");
    return err;
  }
  if (err) return err;
  int status = lp->status;
  if (status == 2 && lp->cutoff < kInf && lp->dualObj > lp->cutoff) status = VRX_CUTOFF;
  model->status = status;
  err = lpPublish(model, lp);
  if (err) return err;
  lpClosingLines(model, model->result, clockElapsed(clock));
  return 0;
}

}  // namespace vrx
