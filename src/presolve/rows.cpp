// Row reductions: empty, free and redundant rows, tiny coefficients, singleton
// rows and forcing rows; and the fixing of a column that several of them use.
#include <algorithm>
#include <cmath>

#include "presolve/presolve.h"

namespace vrx {

namespace {

// The right-hand side of row r falls by delta; both activities follow.
void rhsDown(VRXpresolve* p, int r, double delta) {
  p->rhs[r] -= delta;
  p->minAct[r] = addDown(p->minAct[r], delta);
  p->maxAct[r] = addUp(p->maxAct[r], delta);
}

int infeasibleRow(VRXpresolve* p, int r) {
  p->infeasRow = r;
  return kPreInfeasible;
}

// A row without live entries: feasible or not, it goes.
int emptyRow(VRXpresolve* p, int r) {
  const double b = p->rhs[r];
  if (p->sense[r] == '=' ? std::fabs(b) > p->feasTol : b < -p->feasTol) return infeasibleRow(p, r);
  removeRow(p, r, -1);
  return kPreOk;
}

}  // namespace

int fixColumn(VRXpresolve* p, int j, double v) {
  if (v < p->lb[j] - p->feasTol || v > p->ub[j] + p->feasTol) {
    p->infeasCol = j;
    return kPreInfeasible;
  }
  const double lo = p->lb[j], up = p->ub[j];
  int status = kStFree;
  if (up - lo < 1e-10)
    status = kStFixed;
  else if (v <= lo)
    status = kStLower;
  else if (v >= up)
    status = kStUpper;
  const int count = p->primalOnly ? 0 : p->colCount[j];
  VRXundo* u = undoPush(p->env, p->undo, UNDO_FIXCOL, 3 + count, 2 + count);
  int* I = undoInts(u);
  double* D = undoDbls(u);
  I[0] = j;
  I[1] = status;
  I[2] = count;
  D[0] = v;
  D[1] = p->obj[j];
  int t = 0;
  double units = 0;
  while (p->colHead[j] >= 0) {
    const int64_t k = p->colHead[j];
    const int r = p->slotRow[k];
    const double a = p->rowVal[k];
    if (t < count) {
      I[3 + t] = r;
      D[2 + t] = a;
      t++;
    }
    deleteEntry(p, k);
    if (v != 0.0) rhsDown(p, r, a * v);
    units += 6;
  }
  p->objConst += p->obj[j] * v;
  p->lb[j] = p->ub[j] = v;
  p->colCount[j] = -1;
  p->liveCols--;
  p->counters.colsRemoved++;
  charge(p, pwColumns, units + 3);
  return kPreOk;
}

int emptyAndFreeRows(VRXpresolve* p) {
  double units = 0;
  for (int r = 0; r < p->numRows; ++r) {
    if (!rowLive(p, r)) continue;
    units += 2;
    if (p->rowCount[r] == 0) {
      int rc = emptyRow(p, r);
      if (rc) return rc;
    } else if (p->sense[r] != '=' && p->rhs[r] >= 1e20) {
      units += 3.0 * p->rowLen[r];
      removeRow(p, r, -2);
    }
  }
  charge(p, pwRows, units);
  return kPreOk;
}

int redundantRows(VRXpresolve* p) {
  const double tol = p->feasTol;
  const double tinyCoef = p->primalOnly ? 0.001 : 0.1 * p->optTol;
  double units = 0;
  const int cnt = trackRowCount(p);
  for (int t = 0; t < cnt; ++t) {
    const int r = trackRow(p, t);
    if (!rowLive(p, r)) continue;
    units += 3;
    if (p->rowCount[r] == 0) {
      int rc = emptyRow(p, r);
      if (rc) return rc;
      continue;
    }
    const bool eq = p->sense[r] == '=';
    // Feasibility from the activities, with the tolerance scaled by the row's range.
    if (p->minInf[r] == 0 && p->maxInf[r] == 0) {
      const double scale = std::min(10000.0, std::max(p->maxAct[r] - p->minAct[r], 1.0));
      const double limit = tol * scale;
      if (p->minAct[r] > limit || (eq && p->maxAct[r] < -limit)) return infeasibleRow(p, r);
    } else if (p->minInf[r] == 0 && p->minAct[r] > tol * 10000.0) {
      return infeasibleRow(p, r);
    } else if (eq && p->maxInf[r] == 0 && p->maxAct[r] < -tol * 10000.0) {
      return infeasibleRow(p, r);
    }
    if (p->maxInf[r] == 0 && p->maxAct[r] < tol && !(eq && (p->minInf[r] > 0 || p->minAct[r] <= -tol))) {
      units += 3.0 * p->rowLen[r];
      removeRow(p, r, -2);
      continue;
    }
    // Tiny coefficients on short ranges carry nothing the tolerances can see.
    bool changed = false;
    const int64_t e = p->rowBeg[r] + p->rowLen[r];
    for (int64_t k = p->rowBeg[r]; k < e; ++k) {
      const int j = p->rowInd[k];
      if (j < 0) continue;
      const double a = p->rowVal[k];
      if (std::fabs(a) >= tinyCoef || isInf(p, p->lb[j]) || isInf(p, p->ub[j])) continue;
      if (p->rowCount[r] * std::fabs(a) * (p->ub[j] - p->lb[j]) >= 0.01 * tol) continue;
      const double lo = p->lb[j];
      deleteEntry(p, k);
      p->rhs[r] -= a * lo;
      p->counters.coeffsChanged++;
      changed = true;
    }
    units += 3.0 * p->rowLen[r];
    if (changed) {
      rowActivity(p, r);
      if (p->rowCount[r] == 0) {
        int rc = emptyRow(p, r);
        if (rc) return rc;
      }
    }
  }
  charge(p, pwRows, units);
  return kPreOk;
}

int singletonRows(VRXpresolve* p) {
  const double tol = p->feasTol;
  double units = 0;
  const int cnt = trackRowCount(p);
  for (int t = 0; t < cnt; ++t) {
    const int r = trackRow(p, t);
    if (!rowLive(p, r) || p->rowCount[r] != 1) continue;
    int64_t k = p->rowBeg[r];
    while (p->rowInd[k] < 0) ++k;
    const int j = p->rowInd[k];
    const double a = p->rowVal[k];
    units += 4 + p->rowLen[r];
    if (std::fabs(a) < 1e-8) continue;
    const double v = p->rhs[r] / a;
    const bool eq = p->sense[r] == '=';
    int flags = 0;
    double bound = 0;
    if (eq) {
      if (v < p->lb[j] - tol || v > p->ub[j] + tol) {
        p->infeasCol = j;
        return infeasibleRow(p, r);
      }
      flags = 3;
      bound = std::min(std::max(v, p->lb[j]), p->ub[j]);
    } else if (a > 0) {
      if (v < p->lb[j] - tol) {
        p->infeasCol = j;
        return infeasibleRow(p, r);
      }
      if (p->ub[j] - 1e-10 > v) {
        flags = 2;
        bound = std::max(v, p->lb[j]);
      }
    } else {
      if (v > p->ub[j] + tol) {
        p->infeasCol = j;
        return infeasibleRow(p, r);
      }
      if (v > p->lb[j] + 1e-10) {
        flags = 1;
        bound = std::min(v, p->ub[j]);
      }
    }
    if (flags) {
      VRXundo* u = undoPush(p->env, p->undo, UNDO_SINGLETONROW, 3, 2);
      int* I = undoInts(u);
      double* D = undoDbls(u);
      I[0] = j;
      I[1] = r;
      I[2] = flags;
      D[0] = a;
      D[1] = bound;
      if (flags & 1) setLower(p, j, bound);
      if (flags & 2) setUpper(p, j, bound);
    }
    removeRow(p, r, -1);
    if (flags == 3 && colLive(p, j)) {
      int rc = fixColumn(p, j, bound);
      if (rc) return rc;
    }
  }
  charge(p, pwSingleRow, units);
  return kPreOk;
}

int forcingRows(VRXpresolve* p) {
  const double tol = p->feasTol;
  double units = 0;
  const int cnt = trackRowCount(p);
  for (int t = 0; t < cnt; ++t) {
    const int r = trackRow(p, t);
    if (!rowLive(p, r) || p->rowCount[r] < 2) continue;
    units += 2;
    int sign = 0;
    if (p->minInf[r] == 0 && p->minAct[r] > -1e-10 && p->minAct[r] < tol)
      sign = 1;
    else if (p->sense[r] == '=' && p->maxInf[r] == 0 && p->maxAct[r] > -tol && p->maxAct[r] < 1e-10)
      sign = -1;
    if (!sign) continue;
    const int64_t b = p->rowBeg[r], e = b + p->rowLen[r];
    bool ok = true;
    for (int64_t k = b; k < e && ok; ++k) {
      const int j = p->rowInd[k];
      if (j >= 0 && std::fabs(p->rowVal[k]) * (p->ub[j] - p->lb[j]) < 100 * tol) ok = false;
    }
    units += 3.0 * p->rowLen[r];
    if (!ok) continue;
    const int count = p->rowCount[r];
    VRXundo* u = undoPush(p->env, p->undo, UNDO_FORCINGROW, 3 + 2 * count, count);
    int* I = undoInts(u);
    double* D = undoDbls(u);
    I[0] = r;
    I[1] = sign;
    I[2] = count;
    int c = 0;
    for (int64_t k = b; k < e; ++k) {
      const int j = p->rowInd[k];
      if (j < 0) continue;
      I[3 + c] = j;
      I[3 + count + c] = p->ub[j] - p->lb[j] < 1e-10 ? 1 : 0;
      D[c] = p->rowVal[k];
      c++;
    }
    for (int q = 0; q < count; ++q) {
      const int j = I[3 + q];
      const double v = sign * D[q] > 0 ? p->lb[j] : p->ub[j];
      int rc = fixColumn(p, j, v);
      if (rc) return rc;
    }
    removeRow(p, r, -2);
  }
  charge(p, pwForcing, units);
  return kPreOk;
}

}  // namespace vrx
