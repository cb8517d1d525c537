// Substitution of a column through an equation: the doubleton pass and the
// aggregator, and the singleton-column substitution that shares the routine.
#include <algorithm>
#include <cmath>

#include "presolve/presolve.h"

namespace vrx {

namespace {

void carry(VRXpresolve* p, int j, int i, int r, double aj, double ai, int* outcome) {
  // x_i = (b - a_j x_j) / a_i over x_j's bounds.
  const double b = p->rhs[r];
  double v1 = isInf(p, p->lb[j]) ? (aj / ai > 0 ? kInf : -kInf) : (b - aj * p->lb[j]) / ai;
  double v2 = isInf(p, p->ub[j]) ? (aj / ai > 0 ? -kInf : kInf) : (b - aj * p->ub[j]) / ai;
  const double lo = std::min(v1, v2), hi = std::max(v1, v2);
  int flags = 0;
  const double tightLo = lo > -kInf && lo > p->lb[i] + 1e-9 * (1 + std::fabs(lo)) ? lo : p->lb[i];
  const double tightHi = hi < kInf && hi < p->ub[i] - 1e-9 * (1 + std::fabs(hi)) ? hi : p->ub[i];
  if (tightLo != p->lb[i]) flags |= 1;
  if (tightHi != p->ub[i]) flags |= 2;
  *outcome = kPreOk;
  if (tightLo > tightHi + p->feasTol) {
    p->infeasCol = i;
    *outcome = kPreInfeasible;
    return;
  }
  if (!flags) return;
  double newLo = tightLo, newHi = tightHi;
  if (newLo > newHi) newLo = newHi = 0.5 * (newLo + newHi);
  VRXundo* u = undoPush(p->env, p->undo, UNDO_DOUBLETONROW, 4, 4);
  int* I = undoInts(u);
  double* D = undoDbls(u);
  I[0] = flags;
  I[1] = j;
  I[2] = i;
  I[3] = r;
  D[0] = aj;
  D[1] = ai;
  D[2] = newLo;
  D[3] = newHi;
  if (flags & 1) setLower(p, i, newLo);
  if (flags & 2) setUpper(p, i, newHi);
}

}  // namespace

int substituteColumn(VRXpresolve* p, int j, int r, int64_t kr, bool carryBounds) {
  VRXenv* env = p->env;
  const double a = p->rowVal[kr];
  compactRow(p, r);
  const int nRow = p->rowCount[r] - 1;
  const int nCol = p->colCount[j] - 1;
  if (carryBounds) {
    if (nRow != 1) return kPreStop;
    int64_t ki = p->rowBeg[r];
    while (p->rowInd[ki] < 0 || p->rowInd[ki] == j) ++ki;
    int outcome;
    carry(p, j, p->rowInd[ki], r, a, p->rowVal[ki], &outcome);
    if (outcome) return outcome;
  }
  VRXundo* u = undoPush(env, p->undo, UNDO_SUBSTCOL, 4 + nRow + nCol, 3 + nRow + nCol);
  int* I = undoInts(u);
  double* D = undoDbls(u);
  const double b = p->rhs[r], c = p->obj[j];
  I[0] = j;
  I[1] = r;
  I[2] = nRow;
  I[3] = nCol;
  D[0] = a;
  D[1] = b;
  D[2] = c;
  int* rowCols = I + 4;
  int* colRows = I + 4 + nRow;
  double* rowCoefs = D + 3;
  double* colCoefs = D + 3 + nRow;
  int t = 0;
  const int64_t rb = p->rowBeg[r], re = rb + p->rowLen[r];
  for (int64_t k = rb; k < re; ++k) {
    const int q = p->rowInd[k];
    if (q < 0 || q == j) continue;
    rowCols[t] = q;
    rowCoefs[t] = p->rowVal[k];
    t++;
  }
  t = 0;
  for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) {
    const int i = p->slotRow[k];
    if (i == r) continue;
    colRows[t] = i;
    colCoefs[t] = p->rowVal[k];
    t++;
  }
  // The objective moves onto the row's other columns.
  if (c != 0.0) {
    for (int q = 0; q < nRow; ++q) {
      p->obj[rowCols[q]] -= c * rowCoefs[q] / a;
      markCol(p, rowCols[q]);
    }
    p->objConst += c * b / a;
  }
  double units = 5.0 * nRow + 5.0 * nCol;
  if (nCol > 0) {
    struct {
      int64_t* pos;
    } s{p->colPos};
    for (int q = 0; q < nCol; ++q) {
      const int i = colRows[q];
      const double f = colCoefs[q] / a;  // row i -= f * row r
      reserveRow(p, i, nRow);
      const int64_t ib = p->rowBeg[i], ie = ib + p->rowLen[i];
      int64_t kj = -1;
      for (int64_t k = ib; k < ie; ++k) {
        const int col = p->rowInd[k];
        if (col < 0) continue;
        s.pos[col] = k;
        if (col == j) kj = k;
      }
      for (int w = 0; w < nRow; ++w) {
        const int col = rowCols[w];
        const double delta = -f * rowCoefs[w];
        const int64_t k = s.pos[col];
        if (k >= 0) {
          const double nv = p->rowVal[k] + delta;
          if (std::fabs(nv) < 1e-10 || std::fabs(nv) < 1e-12 * std::fabs(delta)) {
            deleteEntry(p, k);
            s.pos[col] = -1;
          } else {
            changeEntry(p, k, nv);
          }
        } else {
          if (std::fabs(delta) < 1e-10) continue;
          addEntry(p, i, col, delta);
          s.pos[col] = p->rowBeg[i] + p->rowLen[i] - 1;
        }
        if (s.pos[col] >= 0) {
          const double av = std::fabs(p->rowVal[s.pos[col]]);
          p->colAbsMin[col] = std::min(p->colAbsMin[col], av);
          p->colAbsMax[col] = std::max(p->colAbsMax[col], av);
        }
      }
      deleteEntry(p, kj);
      // Clear the scatter for the row.
      const int64_t ib2 = p->rowBeg[i], ie2 = ib2 + p->rowLen[i];
      for (int64_t k = ib2; k < ie2; ++k)
        if (p->rowInd[k] >= 0) s.pos[p->rowInd[k]] = -1;
      for (int w = 0; w < nRow; ++w) s.pos[rowCols[w]] = -1;
      const double shift = f * b;
      if (shift != 0.0) {
        p->rhs[i] -= shift;
        p->minAct[i] = addDown(p->minAct[i], shift);
        p->maxAct[i] = addUp(p->maxAct[i], shift);
      }
      units += 6.0 * (nRow + p->rowLen[i]);
    }
  }
  removeRow(p, r, -2);
  p->colCount[j] = -2;
  p->lb[j] = -kInf;
  p->ub[j] = kInf;
  p->liveCols--;
  p->counters.colsRemoved++;
  charge(p, pwAggregate, units);
  return kPreOk;
}

namespace {

// Whether column j is free, or its bounds follow from its rows.
bool impliedFree(const VRXpresolve* p, int j) {
  bool lowFree = isInf(p, p->lb[j]), upFree = isInf(p, p->ub[j]);
  for (int64_t k = p->colHead[j]; k >= 0 && !(lowFree && upFree); k = p->slotNext[k]) {
    double lo, hi;
    impliedFromRow(p, p->slotRow[k], j, p->rowVal[k], &lo, &hi);
    if (lo >= p->lb[j] - 1e-9) lowFree = true;
    if (hi <= p->ub[j] + 1e-9) upFree = true;
  }
  return lowFree && upFree;
}

double rowMaxAbs(const VRXpresolve* p, int r) {
  double mx = 0;
  const int64_t e = p->rowBeg[r] + p->rowLen[r];
  for (int64_t k = p->rowBeg[r]; k < e; ++k)
    if (p->rowInd[k] >= 0) mx = std::max(mx, std::fabs(p->rowVal[k]));
  return mx;
}

double pivotThreshold(const VRXpresolve* p) {
  const int nf = p->par->NumericFocus;
  return nf == 0 ? 0.01 : (nf == 1 ? 0.5 : 0.9);
}

// The doubleton equations: one column of each two-entry row is substituted
// and its bounds carried to the other.
int doubletons(VRXpresolve* p) {
  const double thr = std::max(pivotThreshold(p), 0.01);
  const double multLimit = p->par->VORN_PAR_AGGMULTLIMIT;
  const int cnt = trackRowCount(p);
  for (int t = 0; t < cnt; ++t) {
    const int r = trackRow(p, t);
    if (!rowLive(p, r) || p->rowCount[r] != 2 || p->sense[r] != '=') continue;
    int64_t k1 = -1, k2 = -1;
    const int64_t e = p->rowBeg[r] + p->rowLen[r];
    for (int64_t k = p->rowBeg[r]; k < e; ++k)
      if (p->rowInd[k] >= 0) (k1 < 0 ? k1 : k2) = k;
    const int c1 = p->rowInd[k1], c2 = p->rowInd[k2];
    if (p->colType[c1] != 'C' || p->colType[c2] != 'C') continue;
    const double a1 = std::fabs(p->rowVal[k1]), a2 = std::fabs(p->rowVal[k2]);
    const double big = std::max(a1, a2);
    // Candidates: an acceptable pivot; prefer the shorter column, then the larger entry.
    int64_t kj = -1;
    const bool ok1 = a1 >= thr * big && big / a1 <= multLimit;
    const bool ok2 = a2 >= thr * big && big / a2 <= multLimit;
    if (ok1 && ok2)
      kj = (p->colCount[c1] < p->colCount[c2] || (p->colCount[c1] == p->colCount[c2] && a1 >= a2)) ? k1 : k2;
    else if (ok1)
      kj = k1;
    else if (ok2)
      kj = k2;
    if (kj < 0) continue;
    charge(p, pwDoubleton, 10);
    const int j = p->rowInd[kj];
    int rc = substituteColumn(p, j, r, kj, true);
    if (rc == kPreStop) continue;
    if (rc) return rc;
  }
  return kPreOk;
}

}  // namespace

int aggregate(VRXpresolve* p, bool doubletonOnly, int aggFill) {
  int rc = doubletons(p);
  if (rc || doubletonOnly) return rc;
  VRXenv* env = p->env;
  const double thr = pivotThreshold(p);
  const double multLimit = p->par->VORN_PAR_AGGMULTLIMIT;
  const int fill = aggFill < 0 ? 10 : aggFill;
  // Largest entry of each row, kept up to date for the rows a substitution changes.
  struct RowMax {
    VRXenv* env;
    double* v;
    int* touched;
    ~RowMax() {
      envFree(env, v);
      envFree(env, touched);
    }
  } rm{env, preArray<double>(env, static_cast<size_t>(p->numRows)), nullptr};
  rm.touched = preArray<int>(env, static_cast<size_t>(p->numRows));
  for (int r = 0; r < p->numRows; ++r) rm.v[r] = rowLive(p, r) ? rowMaxAbs(p, r) : 0;
  charge(p, pwAggregate, 3.0 * static_cast<double>(p->nzCount));
  int seen = 0;
  for (int j = 0; j < p->numCols; ++j) {
    if (!colLive(p, j) || p->colCount[j] < 1 || p->colType[j] != 'C') continue;
    if (++seen % 1000 == 0 && *p->work - p->workStart > p->workLimit) break;
    if (p->colAbsMin[j] < 1.0 / multLimit || p->colAbsMax[j] > multLimit) continue;
    const int L = p->colCount[j];
    // An equation among the column's rows is needed at all.
    bool anyEq = false;
    for (int64_t k = p->colHead[j]; k >= 0 && !anyEq; k = p->slotNext[k]) anyEq = p->sense[p->slotRow[k]] == '=';
    charge(p, pwAggregate, 2.0 + L);
    if (!anyEq) continue;
    if (!impliedFree(p, j)) continue;
    const double maxLen =
        L <= 2 ? 2e9 : std::min<double>(p->numRows + 1.0, std::floor((fill + 2.0) / (L - 2) + 3.0001));
    double colMax = 0;
    for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) colMax = std::max(colMax, std::fabs(p->rowVal[k]));
    int64_t best = -1;
    double bestRatio = 0;
    int bestLen = 0;
    for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) {
      const int r = p->slotRow[k];
      if (p->sense[r] != '=' || p->rowCount[r] > maxLen) continue;
      const double av = std::fabs(p->rowVal[k]);
      const double ref = std::max(colMax, rm.v[r]);
      if (av < thr * ref) continue;
      const double ratio = av / ref;
      if (best < 0 || ratio > bestRatio * 1.0001 ||
          (ratio >= bestRatio * 0.9999 && p->rowCount[r] < bestLen)) {
        best = k;
        bestRatio = ratio;
        bestLen = p->rowCount[r];
      }
    }
    if (best < 0) continue;
    // The fill this substitution brings, against what the allowance lets in.
    const int r = p->slotRow[best];
    const double added = static_cast<double>(L - 1) * (p->rowCount[r] - 1) - (L - 1) - (p->rowCount[r] - 1);
    if (added > fill + 2) continue;
    int nt = 0;
    for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k])
      if (p->slotRow[k] != r) rm.touched[nt++] = p->slotRow[k];
    rc = substituteColumn(p, j, r, best, false);
    if (rc == kPreStop) continue;
    if (rc) return rc;
    for (int t = 0; t < nt; ++t) rm.v[rm.touched[t]] = rowMaxAbs(p, rm.touched[t]);
  }
  return kPreOk;
}

}  // namespace vrx
