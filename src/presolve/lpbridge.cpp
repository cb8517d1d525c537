// Between the simplex record and the walks of presolve: reading a solved
// record as a primal-dual point with a basis, loading a basis into a record,
// and running the simplex loops to the end.
#include "presolve/lpbridge.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "model/model.h"
#include "model/modeldata.h"
#include "presolve/undo.h"
#include "simplex/primal.h"
#include "simplex/simplex.h"

namespace vrx {

namespace {

template <class T>
void readRecord(const VRXlp* lp, const T* Bbar, const T* Cbar, double* xs, double* ds) {
  const int nm = lp->n + lp->m;
  for (int j = 0; j < nm; ++j) {
    const int st = lp->varStat[j];
    double v = 0;
    double c = static_cast<double>(Cbar[j]);
    if (st >= 0) {
      v = static_cast<double>(Bbar[st]);
      c = 0;
    } else if (st == VRX_VS_LOWER || st == VRX_VS_FIX_LOWER) {
      v = lp->lower[j];
    } else if (st == VRX_VS_UPPER || st == VRX_VS_FIX_UPPER) {
      v = lp->upper[j];
      c = -c;
    } else if (lp->warmStart) {
      v = lp->warmStart[j];
    }
    xs[j] = v;
    ds[j] = c;
  }
}

}  // namespace

int lpReadPoint(const VRXlp* lp, LPPoint& out) {
  VRXenv* env = lp->env;
  const int n = lp->n, m = lp->m;
  const size_t nm = static_cast<size_t>(n) + static_cast<size_t>(m);
  double* xs = envAllocArray<double>(env, nm + 1);
  double* ds = envAllocArray<double>(env, nm + 1);
  double* xu = envAllocArray<double>(env, nm + 1);
  double* du = envAllocArray<double>(env, nm + 1);
  int rc = 0;
  if (!xs || !ds || !xu || !du) {
    rc = VRX_ERROR_OUT_OF_MEMORY;
  } else {
    if (lp->quadMode)
      readRecord<long double>(lp, lp->BbarQ, lp->CbarQ, xs, ds);
    else
      readRecord<double>(lp, lp->Bbar, lp->Cbar, xs, ds);
    lpUnscalePrimal<double>(lp, xs, xu);
    lpUnscaleReduced<double>(lp, ds, du);
    for (int j = 0; j < n; ++j) {
      if (out.x) out.x[j] = xu[j];
      if (out.d) out.d[j] = du[j];
      if (out.colStat) {
        const int st = lp->varStat[j];
        out.colStat[j] = st >= 0 ? kStBasic
                         : (st == VRX_VS_LOWER || st == VRX_VS_FIX_LOWER) ? kStLower
                         : (st == VRX_VS_UPPER || st == VRX_VS_FIX_UPPER) ? kStUpper
                                                                          : kStFree;
      }
    }
    for (int i = 0; i < m; ++i) {
      // The slack has cost 0 and coefficient 1: its reduced cost is -y.
      double y = -du[n + i];
      if (lp->senseChar && lp->senseChar[i] == '>') y = -y;
      if (out.y) out.y[i] = y;
      if (out.rowStat) out.rowStat[i] = lp->varStat[n + i] >= 0 ? kRowBasic : kRowActive;
    }
  }
  envFree(env, xs);
  envFree(env, ds);
  envFree(env, xu);
  envFree(env, du);
  return rc;
}

int lpLoadBasis(VRXlp* lp, const int* colStat, const int* rowStat) {
  const int n = lp->n, m = lp->m;
  if (!lp->varStat) {
    int rc = VRXlpLoad(lp);
    if (rc) return rc;
  }
  VRXlpFreeWork(lp);
  int* vs = lp->varStat;
  int basics = 0;
  auto nonbasic = [&](int j, int want) {
    const double lo = lp->lower[j], up = lp->upper[j];
    const bool loFin = lo > -lp->infBound, upFin = up < lp->infBound;
    if (loFin && upFin && lo == up) return VRX_VS_FIX_LOWER;
    if (want == kStUpper && upFin) return VRX_VS_UPPER;
    if (want == kStLower && loFin) return VRX_VS_LOWER;
    if (loFin) return VRX_VS_LOWER;
    if (upFin) return VRX_VS_UPPER;
    return VRX_VS_FREE;
  };
  for (int j = 0; j < n; ++j) {
    if (colStat[j] == kStBasic && basics < m)
      vs[j] = basics++;
    else
      vs[j] = nonbasic(j, colStat[j] == kStBasic ? kStLower : colStat[j]);
  }
  for (int i = 0; i < m; ++i) {
    if (rowStat[i] == kRowBasic && basics < m)
      vs[n + i] = basics++;
    else
      vs[n + i] = nonbasic(n + i, kStLower);
  }
  // Too few basics: slacks of rows fill the gaps.
  for (int i = 0; i < m && basics < m; ++i)
    if (vs[n + i] < 0) vs[n + i] = basics++;
  lp->status = 1;
  int rc = VRXlpLoad(lp);
  if (rc) return rc;
  lpActiveRebuild(lp);
  return 0;
}

namespace {

// Full point of a record in true units over the n + m variables (copy orientation):
// values, and reduced costs with the plain sign (c - y'a, also at an upper bound).
int readFull(const VRXlp* lp, double* xu, double* du) {
  VRXenv* env = lp->env;
  const size_t nm = static_cast<size_t>(lp->n) + static_cast<size_t>(lp->m);
  double* xs = envAllocArray<double>(env, nm + 1);
  double* ds = envAllocArray<double>(env, nm + 1);
  int rc = 0;
  if (!xs || !ds) {
    rc = VRX_ERROR_OUT_OF_MEMORY;
  } else {
    if (lp->quadMode)
      readRecord<long double>(lp, lp->BbarQ, lp->CbarQ, xs, ds);
    else
      readRecord<double>(lp, lp->Bbar, lp->Cbar, xs, ds);
    lpUnscalePrimal<double>(lp, xs, xu);
    lpUnscaleReduced<double>(lp, ds, du);
  }
  envFree(env, xs);
  envFree(env, ds);
  return rc;
}

// The basis of the record as it stands, to go back to when a re-run fails.
struct SavedBasis {
  VRXenv* env = nullptr;
  int* stat = nullptr;
  int* head = nullptr;
  double feasTol = 0, optTol = 0, markowitzTol = 0, iterLimit = 0;
  ~SavedBasis() { envFreeAll(env, stat, head); }
};

int saveBasis(VRXlp* lp, SavedBasis* sb) {
  const size_t nm = static_cast<size_t>(lp->n) + static_cast<size_t>(lp->m);
  sb->env = lp->env;
  sb->stat = envAllocArray<int>(lp->env, nm + 1);
  sb->head = envAllocArray<int>(lp->env, static_cast<size_t>(lp->m) + 1);
  if (!sb->stat || !sb->head) return VRX_ERROR_OUT_OF_MEMORY;
  std::memcpy(sb->stat, lp->varStat, nm * sizeof(int));
  if (lp->m > 0 && lp->factor) std::memcpy(sb->head, lp->factor->basisHead, static_cast<size_t>(lp->m) * sizeof(int));
  sb->feasTol = lp->feasTol;
  sb->optTol = lp->optTol;
  sb->markowitzTol = lp->markowitzTol;
  sb->iterLimit = lp->iterLimit;
  return 0;
}

// Puts the kept basis back and recomputes its values on the record's current data: the
// primal is run with no iteration left, which refactors, computes and stops.
int restoreBasis(VRXlp* lp, const SavedBasis& sb, Clock& clock) {
  const size_t nm = static_cast<size_t>(lp->n) + static_cast<size_t>(lp->m);
  std::memcpy(lp->varStat, sb.stat, nm * sizeof(int));
  if (lp->m > 0) {
    std::memcpy(lp->factor->basisHead, sb.head, static_cast<size_t>(lp->m) * sizeof(int));
    lp->factor->valid = 0;
  }
  lp->feasTol = sb.feasTol;
  lp->optTol = sb.optTol;
  lp->markowitzTol = sb.markowitzTol;
  lpActiveRebuild(lp);
  lp->actionCode = 1;
  lp->status = 1;
  lp->iterLimit = lp->iterCount + lp->priorIter;
  int rc = VRXprimalSolve(lp, clock);
  lp->iterLimit = sb.iterLimit;
  if (rc) return rc;
  if (lp->status == 7) lp->status = 2;
  return 0;
}

bool isScaled(const VRXlp* lp) { return lp->colScale || lp->rowScale || lp->objScale != 1.0; }

}  // namespace

// Rescue after a singular basis in a run that has a saved start: the start statuses come
// back when they form a basis, and the loop counts from zero again.
void lpRescue(VRXlp* lp) {
  const int n = lp->n, m = lp->m, nm = n + m;
  if (lp->savedVarStat && lp->iterCount > 0 && m > 0) {
    int basics = 0;
    bool ok = true;
    char* seen = lp->rowFlag;  // scratch over m, rebuilt by every compute
    std::memset(seen, 0, static_cast<size_t>(m));
    for (int j = 0; j < nm && ok; j++) {
      const int p = lp->savedVarStat[j];
      if (p < 0) continue;
      ok = p < m && !seen[p];
      if (ok) seen[p] = 1;
      basics++;
    }
    if (ok && basics == m) {
      std::memcpy(lp->varStat, lp->savedVarStat, sizeof(int) * static_cast<size_t>(nm));
      for (int j = 0; j < nm; j++)
        if (lp->varStat[j] >= 0) lp->factor->basisHead[lp->varStat[j]] = j;
      lpActiveRebuild(lp);
    }
    std::memset(seen, 0, static_cast<size_t>(m));
  }
  if (lp->factor) lp->factor->valid = 0;
  lp->normsStale = 1;
  lp->dualObjValid = 0;
  lp->perturbKind = 0;
  lp->degenPivots = lp->lastDegenPivots = lp->degenCount = 0;
  lp->priorIter += lp->iterCount;
  lp->iterCount = 0;
  lp->lastPerturbIter = 0;
  lp->refactorCount = 0;
  lp->infeasCount = -1;
  lp->badVar = -1;
  lp->phase = 0;
  lp->actionCode = 1;
  lp->status = 1;
}

int lpUnscaledQuality(const VRXlp* lp, UnscaledQuality* q) {
  *q = UnscaledQuality{};
  const VRXmodeldata* d = lp->model ? lp->model->data : nullptr;
  if (!d || d->numVars != lp->n || d->numConstrs != lp->m) return VRX_ERROR_DATA_NOT_AVAILABLE;
  VRXenv* env = lp->env;
  const int n = lp->n, m = lp->m;
  const size_t nm = static_cast<size_t>(n) + static_cast<size_t>(m);
  double* xu = envAllocArray<double>(env, nm + 1);
  double* du = envAllocArray<double>(env, nm + 1);
  double* act = envCallocArray<double>(env, static_cast<size_t>(m) + 1);
  int rc = (!xu || !du || !act) ? VRX_ERROR_OUT_OF_MEMORY : readFull(lp, xu, du);
  if (!rc) {
    // y in the store's orientation: the slack has cost 0 and coefficient 1 in the copy.
    double* y = du + n;
    for (int i = 0; i < m; i++) {
      y[i] = -y[i];
      if (d->sense[i] == '>') y[i] = -y[i];
    }
    for (int j = 0; j < n; j++) {
      const double xj = xu[j];
      double dj = d->obj[j];
      for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; k++) {
        act[d->rowInd[k]] += d->val[k] * xj;
        dj -= d->val[k] * y[d->rowInd[k]];
      }
      if (d->lb[j] > -kInf) q->primalViol = std::max(q->primalViol, d->lb[j] - xj);
      if (d->ub[j] < kInf) q->primalViol = std::max(q->primalViol, xj - d->ub[j]);
      q->dualResid = std::max(q->dualResid, std::fabs(dj - du[j]));
      const int s = lp->varStat[j];
      if (s >= 0 || d->lb[j] == d->ub[j]) continue;
      double wrong = 0;
      if (s == VRX_VS_LOWER || s == VRX_VS_FIX_LOWER) wrong = -du[j];
      else if (s == VRX_VS_UPPER || s == VRX_VS_FIX_UPPER) wrong = du[j];
      else wrong = std::fabs(du[j]);
      q->dualViol = std::max(q->dualViol, wrong);
    }
    for (int i = 0; i < m; i++) {
      const double r = act[i] - d->rhs[i];
      const double v = d->sense[i] == '<' ? r : (d->sense[i] == '>' ? -r : std::fabs(r));
      q->primalViol = std::max(q->primalViol, v);
      // The slack of the record against the one the structurals imply.
      const double implied = d->sense[i] == '>' ? r : -r;
      q->primalResid = std::max(q->primalResid, std::fabs(xu[n + i] - implied));
      // A row's dual has the sign its sense allows.
      const int s = lp->varStat[n + i];
      if (s < 0 && d->sense[i] != '=') {
        const double wrong = d->sense[i] == '<' ? y[i] : -y[i];
        q->dualViol = std::max(q->dualViol, wrong);
      }
    }
  }
  envFreeAll(env, xu, du, act);
  return rc;
}

namespace {

// A nonbasic strictly between finite bounds: the point is no vertex.
bool interiorNonbasic(const VRXlp* lp) {
  const int nm = lp->n + lp->m;
  for (int j = 0; j < nm; j++) {
    if (lp->varStat[j] != VRX_VS_FREE || lp->lower[j] == lp->upper[j]) continue;
    if (lp->lower[j] > -lp->infBound || lp->upper[j] < lp->infBound) return true;
  }
  return false;
}

}  // namespace

int lpRunSimplex(VRXlp* lp, int method, Clock& clock) {
  VRXenv* env = lp->env;
  const ParamStore& par = env->par;
  int releases = 0, rescues = 0, switches = 0;
  bool checked = false;  // the unscaled check runs once per call
  SavedBasis first;
  bool rerun = false;     // a capped re-run after a failed unscaled check is under way
  for (int guard = 0; guard < 200; ++guard) {
    lp->method = method;
    int rc = method == 0 ? VRXprimalSolve(lp, clock) : VRXdualSolve(lp, clock);
    if (rc == 100001) return rc;
    if (rc == 100002) {
      if (lp->factor) lp->factor->freshBasis = 1;
      lp->phase = 0;
      lp->status = 1;
      continue;
    }
    if (rc == 12) {
      lp->status = 12;
      rc = 0;
    }
    if (rc) return rc;
    if (lp->status == -1002) {
      if (++rescues > 5) {
        lp->status = 12;
        return 0;
      }
      lpRescue(lp);
      continue;
    }
    if (lp->status == -1004) {
      // The dual keeps its own count in dualSwitch; this one bounds the loop.
      if (++switches > 20) {
        lp->status = 12;
        return 0;
      }
      lp->status = 1;
      method = 1 - method;
      if (method == 0 && VRXprimalFromDual(lp) < 0) {
        lp->status = 12;
        return 0;
      }
      continue;
    }
    if (lp->status == 2 && method == 1 && interiorNonbasic(lp)) {
      // A start left nonbasics inside their bounds and the dual kept them there: the
      // primal moves them to a vertex.
      method = 0;
      lp->status = 1;
      continue;
    }
    if (lp->status == 2 && lp->fixedCount > 0) {
      // Temporary fixings go and the loop runs once more.
      const int nm = lp->n + lp->m;
      for (int j = 0; j < nm; j++)
        if (lp->varStat[j] < VRX_VS_FREE && lp->varStat[j] >= VRX_VS_FIX_FREE) lp->varStat[j] += VRX_VS_RELEASE_SHIFT;
      const int count = lp->fixedCount;
      lp->fixedCount = 0;
      lp->bigTol = 1e-7;
      lp->markowitzTol = std::max(lp->markowitzTol, 0.5);
      if (++releases > 10) {
        lp->status = 12;
        return 0;
      }
      if (releases >= 2) log(env, "Numeric for %d cols\n", count);
      if (releases <= 2 && lp->outputLevel > 2) log(env, "Release temp fixing\n");
      lp->actionCode = 1;
      lp->status = 1;
      continue;
    }
    if (rerun) {
      // The capped re-run in true units: keep it when it ended optimal, else the first result.
      rerun = false;
      if (lp->status != 2) {
        rc = restoreBasis(lp, first, clock);
        if (rc) return rc;
      }
      lp->iterLimit = first.iterLimit;
      return 0;
    }
    if (lp->status == 2 && !checked && par.VORN_PAR_UNSCALEDVIO != 0 && isScaled(lp) &&
        !lp->zeroObjectiveMode) {
      checked = true;
      UnscaledQuality q;
      rc = lpUnscaledQuality(lp, &q);
      if (rc == VRX_ERROR_OUT_OF_MEMORY) return rc;
      if (rc) return 0;
      const bool primalFails = std::max(q.primalViol, q.primalResid) > par.FeasibilityTol;
      const bool dualFails = q.dualViol > par.OptimalityTol;
      if (!primalFails && !dualFails) return 0;
      // Good in scaled units only: drop the scale and go on in true units.
      if ((rc = saveBasis(lp, &first))) return rc;
      if ((rc = VRXlpUnscale(lp))) return rc;
      if (lp->factor) lp->factor->valid = 0;
      lp->normsStale = 1;
      lp->retryFlags = 1;
      lp->rescueCount = 5;
      lp->dualObjValid = 0;
      lp->perturbKind = 0;
      lp->phase = 0;
      lp->actionCode = 1;
      lp->status = 1;
      if (par.VORN_PAR_UNSCALEDVIO == -1) {
        const double iters = lp->iterCount + lp->priorIter;
        lp->iterLimit = std::min(first.iterLimit,
                                 iters + 0.2 * std::max(iters, lp->n / 3.0 + lp->m));
        rerun = true;
      }
      if (primalFails) method = 0;
      continue;
    }
    if (first.stat) lp->iterLimit = first.iterLimit;
    return 0;
  }
  lp->status = 12;
  return 0;
}

int lpCleanupFrom(VRXmodel* model, int method, const int* colStat, const int* rowStat, double priorIters,
                  const char* what, Clock& clock, double* extra) {
  *extra = -1;
  int rc = VRXlpSetup(model, method, &clock.work);
  if (rc) return rc;
  VRXlp* lp = static_cast<VRXlp*>(model->lp);
  rc = lpLoadBasis(lp, colStat, rowStat);
  if (rc) return rc;
  lp->iterCount = 0;
  lp->priorIter = priorIters;
  rc = lpRunSimplex(lp, method, clock);
  if (rc == 100001 || rc == 100002) {
    VRXlpFreeOnModel(model);
    return 0;
  }
  if (rc) return rc;
  *extra = lp->iterCount;
  if (lp->iterCount > 0) {
    if (lp->iterCount <= 1)
      log(model->env, "Extra one simplex iteration %s\n", what);
    else
      log(model->env, "Extra %d simplex iterations %s\n", static_cast<int>(lp->iterCount), what);
  }
  return 0;
}

}  // namespace vrx
