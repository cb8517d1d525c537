// Between the simplex record and the walks of presolve: reading a solved
// record as a primal-dual point with a basis, loading a basis into a record,
// and running the simplex loops to the end.
#include "presolve/lpbridge.h"

#include <cmath>
#include <cstring>

#include "model/model.h"
#include "model/modeldata.h"
#include "presolve/undo.h"
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

int lpRunSimplex(VRXlp* lp, int method, Clock& clock) {
  int releases = 0;
  for (int guard = 0; guard < 50; ++guard) {
    int rc = method == 0 ? VRXprimalSolve(lp, clock) : VRXdualSolve(lp, clock);
    if (rc == 100002) {
      lp->status = 1;
      continue;
    }
    if (rc) return rc;
    if (lp->status == -1004) {
      if (++lp->dualSwitch > 20) {
        lp->status = 12;
        return 0;
      }
      lp->status = 1;
      method = 1 - method;
      continue;
    }
    if (lp->status == 2 && lp->fixedCount > 0) {
      // Temporary fixings go and the loop runs once more.
      const int nm = lp->n + lp->m;
      for (int j = 0; j < nm; ++j)
        if (lp->varStat[j] < -3) lp->varStat[j] += VRX_VS_RELEASE_SHIFT;
      lp->fixedCount = 0;
      if (++releases > 10) {
        lp->status = 12;
        return 0;
      }
      lp->status = 1;
      continue;
    }
    return 0;
  }
  lp->status = 12;
  return 0;
}

}  // namespace vrx
