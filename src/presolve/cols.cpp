// Column reductions: fixed, empty and singleton columns, a singleton column
// read as its row's slack, dual fixing and the objective-sided bound pass.
#include <algorithm>
#include <cmath>

#include "presolve/presolve.h"

namespace vrx {

namespace {

// Whether x_j's lower (upper) bound is infinite or implied by row r.
void freeSides(const VRXpresolve* p, int j, int r, double a, bool* lowFree, bool* upFree) {
  double lo, hi;
  impliedFromRow(p, r, j, a, &lo, &hi);
  *lowFree = isInf(p, p->lb[j]) || lo >= p->lb[j] - 1e-9;
  *upFree = isInf(p, p->ub[j]) || hi <= p->ub[j] + 1e-9;
}

// The one live slot of a singleton column.
int64_t onlySlot(const VRXpresolve* p, int j) { return p->colHead[j]; }

// Turns the equation r into an inequality with column j (its only entry in a
// single-entry column) as the slack. side is the bound of x_j that bites.
void makeSlack(VRXpresolve* p, int j, int r, int64_t kr, bool lowerBites) {
  const double a = p->rowVal[kr];
  const double c = p->obj[j];
  const double b = p->rhs[r];
  const double beta = lowerBites ? p->lb[j] : p->ub[j];
  // sum_k a_k x_k = b - a x_j; x_j on the biting side turns the sign of the inequality.
  const bool negate = (lowerBites ? a : -a) < 0;
  const int count = p->rowCount[r] - 1;
  VRXundo* u = undoPush(p->env, p->undo, UNDO_COLTOSLACK, 5 + count, 3 + count);
  int* I = undoInts(u);
  double* D = undoDbls(u);
  I[0] = r;
  I[1] = j;
  I[2] = negate ? 1 : 0;
  I[3] = lowerBites ? kStLower : kStUpper;
  I[4] = count;
  D[0] = a;
  D[1] = c;
  D[2] = b;
  int t = 0;
  const int64_t e = p->rowBeg[r] + p->rowLen[r];
  for (int64_t k = p->rowBeg[r]; k < e; ++k) {
    const int q = p->rowInd[k];
    if (q < 0 || q == j) continue;
    I[5 + t] = q;
    D[3 + t] = p->rowVal[k];
    t++;
    if (c != 0.0) {
      p->obj[q] -= c * p->rowVal[k] / a;
      markCol(p, q);
    }
  }
  p->objConst += c * b / a;
  deleteEntry(p, kr);
  p->rhs[r] = b - a * beta;
  p->sense[r] = '<';
  if (negate) negateRow(p, r);
  rowActivity(p, r);
  p->colCount[j] = -2;
  p->lb[j] = p->ub[j] = 0;
  p->liveCols--;
  p->counters.colsRemoved++;
  markRow(p, r);
  charge(p, pwColSlack, 6.0 * p->rowLen[r] + 5);
}

// Singleton column j (slot k, row r): substitution, slack, or nothing.
int singletonColumn(VRXpresolve* p, int j) {
  const int64_t k = onlySlot(p, j);
  const int r = p->slotRow[k];
  const double a = p->rowVal[k];
  const double c = p->obj[j];
  const double range = p->ub[j] - p->lb[j];
  if (std::fabs(a) * range < 1e-6 && std::fabs(c) * range > 1e-6) return kPreOk;
  const bool eq = p->sense[r] == '=';
  if (!eq && ((c > 1e-9 && a > 0) || (c < -1e-9 && a < 0))) return kPreOk;
  bool lowFree, upFree;
  freeSides(p, j, r, a, &lowFree, &upFree);
  charge(p, pwImplFree, 4);
  if (lowFree && upFree) {
    int rc = substituteColumn(p, j, r, k, false);
    return rc == kPreStop ? kPreOk : rc;
  }
  // A column with a cost stays: moving its cost onto the row's other columns
  // costs the dual simplex more iterations on the presolved model than the
  // column saves (measured on the Netlib set).
  if (eq && (lowFree || upFree) && std::fabs(c) < 1e-10) makeSlack(p, j, r, k, !lowFree);
  return kPreOk;
}

}  // namespace

int columnPass(VRXpresolve* p) {
  const double tol = p->feasTol;
  const int cnt = trackColCount(p);
  for (int t = 0; t < cnt; ++t) {
    const int j = trackCol(p, t);
    if (!colLive(p, j)) continue;
    charge(p, pwColumns, 2);
    const double lo = p->lb[j], up = p->ub[j];
    if (lo > up + tol) {
      p->infeasCol = j;
      return kPreInfeasible;
    }
    if (lo > up - tol) {
      const double c = p->obj[j];
      double v;
      if (std::fabs(up - lo) * std::fabs(c) < 0.01 * tol)
        v = 0.5 * (lo + up);
      else
        v = c > 0 ? lo : up;
      if (up - lo < 1e-10) v = lo;
      int rc = fixColumn(p, j, std::min(std::max(v, std::min(lo, up)), std::max(lo, up)));
      if (rc) return rc;
      continue;
    }
    if (!p->dualReductions) continue;
    if (p->colCount[j] == 0) {
      const double c = p->obj[j];
      if ((c > p->optTol && isInf(p, lo)) || (c < -p->optTol && isInf(p, up))) {
        p->unbdCol = j;
        return kPreUnbounded;
      }
      double v;
      if (c > 0 && !isInf(p, lo))
        v = lo;
      else if (c < 0 && !isInf(p, up))
        v = up;
      else if (!isInf(p, lo))
        v = lo;
      else if (!isInf(p, up))
        v = up;
      else
        v = 0;
      int rc = fixColumn(p, j, v);
      if (rc) return rc;
      continue;
    }
    if (p->colCount[j] == 1 && p->colType[j] == 'C') {
      int rc = singletonColumn(p, j);
      if (rc) return rc;
    }
  }
  return kPreOk;
}

int columnToSlack(VRXpresolve* p, int* removed) {
  *removed = 0;
  for (int j = 0; j < p->numCols; ++j) {
    if (!colLive(p, j) || p->colCount[j] != 1 || p->colType[j] != 'C') continue;
    const int before = p->liveCols;
    int rc = singletonColumn(p, j);
    if (rc) return rc;
    *removed += before - p->liveCols;
  }
  return kPreOk;
}

int dualFixing(VRXpresolve* p) {
  const int cnt = trackColCount(p);
  for (int t = 0; t < cnt; ++t) {
    const int j = trackCol(p, t);
    if (!colLive(p, j) || p->colCount[j] == 0) continue;
    // Rows that a larger (smaller) x_j could violate.
    int upLocks = 0, downLocks = 0;
    double units = 1;
    for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) {
      const int r = p->slotRow[k];
      const double a = p->rowVal[k];
      units += 3;
      if (p->sense[r] == '=') {
        upLocks++;
        downLocks++;
      } else if (a > 0) {
        upLocks++;
      } else {
        downLocks++;
      }
      if (upLocks && downLocks) break;
    }
    charge(p, pwDualFix, units);
    const double c = p->obj[j];
    if (c >= 0 && downLocks == 0 && !isInf(p, p->lb[j])) {
      if (c > 0) p->dualUsed = 1;
      int rc = fixColumn(p, j, p->lb[j]);
      if (rc) return rc;
    } else if (c <= 0 && upLocks == 0 && !isInf(p, p->ub[j])) {
      if (c < 0) p->dualUsed = 1;
      int rc = fixColumn(p, j, p->ub[j]);
      if (rc) return rc;
    } else if (c > p->optTol && downLocks == 0 && isInf(p, p->lb[j])) {
      // Nothing stops x_j from falling: unbounded once the rest is feasible.
      p->unbdCol = j;
      return kPreUnbounded;
    } else if (c < -p->optTol && upLocks == 0 && isInf(p, p->ub[j])) {
      p->unbdCol = j;
      return kPreUnbounded;
    }
  }
  return kPreOk;
}

int dualBoundPass(VRXpresolve* p) {
  const int m = p->numRows, n = p->numCols;
  VRXenv* env = p->env;
  double* ylo = preArray<double>(env, static_cast<size_t>(m));
  double* yhi = nullptr;
  struct Free2 {
    VRXenv* e;
    double** a;
    double** b;
    ~Free2() {
      envFree(e, *a);
      envFree(e, *b);
    }
  } guard{env, &ylo, &yhi};
  yhi = preArray<double>(env, static_cast<size_t>(m));
  for (int r = 0; r < m; ++r) {
    ylo[r] = -kInf;
    yhi[r] = p->sense[r] == '=' ? kInf : 0.0;
  }
  // Dual constraints of singleton columns bound the duals of their rows.
  for (int j = 0; j < n; ++j) {
    if (!colLive(p, j) || p->colCount[j] != 1) continue;
    const int64_t k = p->colHead[j];
    const int r = p->slotRow[k];
    const double a = p->rowVal[k], c = p->obj[j];
    const double v = c / a;
    const double margin = (std::fabs(v) + 1) * 0.001;
    // ub infinite: d_j >= 0, i.e. a y <= c; lb infinite: d_j <= 0.
    if (isInf(p, p->ub[j])) {
      if (a > 0)
        yhi[r] = std::min(yhi[r], v + margin);
      else
        ylo[r] = std::max(ylo[r], v - margin);
    }
    if (isInf(p, p->lb[j])) {
      if (a > 0)
        ylo[r] = std::max(ylo[r], v - margin);
      else
        yhi[r] = std::min(yhi[r], v + margin);
    }
  }
  for (int j = 0; j < n; ++j) {
    if (!colLive(p, j) || p->colCount[j] < 1) continue;
    charge(p, pwDualBound, 20);
    double dmin = p->obj[j], dmax = p->obj[j];
    bool minInf = false, maxInf = false;
    for (int64_t k = p->colHead[j]; k >= 0 && !(minInf && maxInf); k = p->slotNext[k]) {
      const int r = p->slotRow[k];
      const double a = p->rowVal[k];
      // d = c - a y: smallest with y at the side that a favours.
      const double yForMin = a > 0 ? yhi[r] : ylo[r];
      const double yForMax = a > 0 ? ylo[r] : yhi[r];
      if (std::fabs(yForMin) >= kInf)
        minInf = true;
      else
        dmin -= a * yForMin;
      if (std::fabs(yForMax) >= kInf)
        maxInf = true;
      else
        dmax -= a * yForMax;
    }
    if (!minInf && dmin > 1e-9 && !isInf(p, p->lb[j])) {
      p->dualUsed = 1;
      int rc = fixColumn(p, j, p->lb[j]);
      if (rc) return rc;
    } else if (!maxInf && dmax < -1e-9 && !isInf(p, p->ub[j])) {
      p->dualUsed = 1;
      int rc = fixColumn(p, j, p->ub[j]);
      if (rc) return rc;
    }
  }
  return kPreOk;
}

}  // namespace vrx
