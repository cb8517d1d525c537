// The presolve record: build, free, entries, activities and the change tracker.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "model/modeldata.h"
#include "presolve/presolve.h"

namespace vrx {

void* preAlloc(VRXenv* env, size_t bytes) {
  void* b = envMalloc(env, bytes);
  if (!b) throw std::bad_alloc();
  return b;
}

void listPush(VRXenv* env, IdxList& l, int v) {
  if (l.count == l.cap) {
    int cap = l.cap < 16 ? 16 : l.cap * 2;
    void* b = envRealloc(env, l.item, static_cast<size_t>(cap) * sizeof(int));
    if (!b) throw std::bad_alloc();
    l.item = static_cast<int*>(b);
    l.cap = cap;
  }
  l.item[l.count++] = v;
}

void listFree(VRXenv* env, IdxList& l) {
  envFree(env, l.item);
  l.item = nullptr;
  l.count = l.cap = 0;
}

namespace {

template <class T>
void grow(VRXenv* env, T*& a, size_t count) {
  void* b = envRealloc(env, a, count * sizeof(T));
  if (!b) throw std::bad_alloc();
  a = static_cast<T*>(b);
}

// Exact test of a two-term sum (the standard two-sum residual).
inline bool sumExact(double a, double b, double s) {
  double bb = s - a;
  double err = (a - (s - bb)) + (b - bb);
  return err == 0.0;
}

}  // namespace

double addUp(double a, double b) {
  double s = a + b;
  if (sumExact(a, b, s)) return s;
  return s > 0 ? s * 1.0000000000000002 : s * 0.9999999999999998;
}

double addDown(double a, double b) {
  double s = a + b;
  if (sumExact(a, b, s)) return s;
  return s > 0 ? s * 0.9999999999999998 : s * 1.0000000000000002;
}

VRXpresolve* presolveCreate(VRXenv* env, const VRXmodeldata* d, double* work) {
  VRXpresolve* p = static_cast<VRXpresolve*>(envCalloc(env, 1, sizeof(VRXpresolve)));
  if (!p) throw std::bad_alloc();
  PresolveHolder hold;
  hold.p = p;
  p->env = env;
  p->par = &env->par;
  const int n = d->numVars, m = d->numConstrs;
  p->numCols = n;
  p->numRows = m;
  p->liveCols = n;
  p->liveRows = m;
  p->work = work;
  p->workStart = *work;
  p->feasTol = env->par.FeasibilityTol;
  p->optTol = env->par.OptimalityTol;
  p->infBound = env->par.VORN_PAR_INFBOUND;
  p->infeasRow = p->infeasCol = p->unbdCol = -1;
  p->workLimit = 1e100;
  p->reductionLimit = env->par.VORN_PAR_PRELIMIT;
  p->dualReductions = env->par.DualReductions;
  const double size = static_cast<double>(n) + m;
  p->workScale = size <= 100000 ? 1.0 : std::sqrt(size / 10000.0);

  const size_t sn = static_cast<size_t>(n), sm = static_cast<size_t>(m);
  p->lb = preArray<double>(env, sn);
  p->ub = preArray<double>(env, sn);
  p->obj = preArray<double>(env, sn);
  p->colType = preArray<char>(env, sn);
  p->colCount = preArray<int>(env, sn);
  p->colPos = preArray<int64_t>(env, sn);
  p->colHead = preArray<int64_t>(env, sn);
  p->colAbsMin = preArray<double>(env, sn);
  p->colAbsMax = preArray<double>(env, sn);
  p->colMark = preArray<char>(env, sn);
  p->rhs = preArray<double>(env, sm);
  p->sense = preArray<char>(env, sm);
  p->rowNeg = preArray<char>(env, sm);
  p->rowBeg = preArray<int64_t>(env, sm);
  p->rowLen = preArray<int>(env, sm);
  p->rowCap = preArray<int>(env, sm);
  p->rowCount = preArray<int>(env, sm);
  p->minAct = preArray<double>(env, sm);
  p->maxAct = preArray<double>(env, sm);
  p->minInf = preArray<int>(env, sm);
  p->maxInf = preArray<int>(env, sm);
  p->rowMark = preArray<char>(env, sm);

  p->objConst = d->objCon;
  for (int j = 0; j < n; ++j) {
    p->lb[j] = d->lb[j] <= -p->infBound ? -kInf : d->lb[j];
    p->ub[j] = d->ub[j] >= p->infBound ? kInf : d->ub[j];
    p->obj[j] = d->obj[j];
    p->colType[j] = d->vtype ? d->vtype[j] : 'C';
    p->colCount[j] = 0;
    p->colHead[j] = -1;
    p->colPos[j] = -1;
    p->colAbsMin[j] = kInf;
    p->colAbsMax[j] = 0;
    p->colMark[j] = 0;
  }
  for (int i = 0; i < m; ++i) {
    const bool ge = d->sense[i] == '>';
    p->rowNeg[i] = ge ? 1 : 0;
    p->sense[i] = d->sense[i] == '=' ? '=' : '<';
    p->rhs[i] = ge ? -d->rhs[i] : d->rhs[i];
    p->rowLen[i] = 0;
    p->rowCount[i] = 0;
    p->rowMark[i] = 0;
    // The first pass deletes entries before the activities are computed.
    p->minAct[i] = p->maxAct[i] = 0;
    p->minInf[i] = p->maxInf[i] = 0;
  }
  int64_t nz = 0;
  for (int j = 0; j < n; ++j)
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k)
      if (d->val[k] != 0.0) {
        p->rowLen[d->rowInd[k]]++;
        nz++;
      }
  p->nzCount = nz;
  p->slotCap = nz + nz / 2 + 16;
  p->rowInd = preArray<int>(env, static_cast<size_t>(p->slotCap));
  p->rowVal = preArray<double>(env, static_cast<size_t>(p->slotCap));
  p->slotNext = preArray<int64_t>(env, static_cast<size_t>(p->slotCap));
  p->slotPrev = preArray<int64_t>(env, static_cast<size_t>(p->slotCap));
  p->slotRow = preArray<int>(env, static_cast<size_t>(p->slotCap));
  int64_t pos = 0;
  for (int i = 0; i < m; ++i) {
    p->rowBeg[i] = pos;
    p->rowCap[i] = p->rowLen[i];
    pos += p->rowLen[i];
    p->rowLen[i] = 0;
  }
  p->slotEnd = pos;
  for (int j = 0; j < n; ++j)
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) {
      double v = d->val[k];
      if (v == 0.0) continue;
      const int i = d->rowInd[k];
      if (p->rowNeg[i]) v = -v;
      const int64_t s = p->rowBeg[i] + p->rowLen[i]++;
      p->rowInd[s] = j;
      p->rowVal[s] = v;
      p->slotRow[s] = i;
      p->slotPrev[s] = -1;
      p->slotNext[s] = p->colHead[j];
      if (p->colHead[j] >= 0) p->slotPrev[p->colHead[j]] = s;
      p->colHead[j] = s;
      p->colCount[j]++;
      p->rowCount[i]++;
      const double av = std::fabs(v);
      p->colAbsMin[j] = std::min(p->colAbsMin[j], av);
      p->colAbsMax[j] = std::max(p->colAbsMax[j], av);
    }
  *work += 3.0 * static_cast<double>(nz) + n + m;
  hold.p = nullptr;
  return p;
}

void presolveFree(VRXpresolve* p) {
  if (!p) return;
  VRXenv* env = p->env;
  void* blocks[] = {p->rowBeg,   p->rowLen,    p->rowCap,   p->rowInd,    p->rowVal,   p->rowCount,
                    p->colHead,  p->slotNext,  p->slotPrev, p->slotRow,   p->colCount, p->colPos,   p->minAct,
                    p->maxAct,   p->minInf,    p->maxInf,   p->colAbsMin, p->colAbsMax, p->lb,
                    p->ub,       p->obj,       p->rhs,      p->sense,     p->rowNeg,   p->colType,
                    p->rowMark,  p->colMark};
  for (void* b : blocks) envFree(env, b);
  listFree(env, p->rowsNext);
  listFree(env, p->colsNext);
  listFree(env, p->rowsNow);
  listFree(env, p->colsNow);
  undoFree(env, p->undo);
  envFree(env, p);
}

// ---------------------------------------------------------------- tracker

void markRow(VRXpresolve* p, int r) {
  if (p->rowMark[r]) return;
  p->rowMark[r] = 1;
  listPush(p->env, p->rowsNext, r);
}

void markCol(VRXpresolve* p, int j) {
  if (p->colMark[j]) return;
  p->colMark[j] = 1;
  listPush(p->env, p->colsNext, j);
}

void trackerTake(VRXpresolve* p) {
  std::swap(p->rowsNow, p->rowsNext);
  std::swap(p->colsNow, p->colsNext);
  p->rowsNext.count = 0;
  p->colsNext.count = 0;
  for (int k = 0; k < p->rowsNow.count; ++k) p->rowMark[p->rowsNow.item[k]] = 0;
  for (int k = 0; k < p->colsNow.count; ++k) p->colMark[p->colsNow.item[k]] = 0;
}

int trackRowCount(const VRXpresolve* p) { return p->trackMode == 0 ? p->numRows : p->rowsNow.count; }
int trackRow(const VRXpresolve* p, int k) { return p->trackMode == 0 ? k : p->rowsNow.item[k]; }
int trackColCount(const VRXpresolve* p) { return p->trackMode == 0 ? p->numCols : p->colsNow.count; }
int trackCol(const VRXpresolve* p, int k) { return p->trackMode == 0 ? k : p->colsNow.item[k]; }

// ---------------------------------------------------------------- activities

namespace {

// Adds (sgn +1) or removes (sgn -1) the share of an entry in a row's activities.
inline void actShare(VRXpresolve* p, int r, double a, double lo, double up, int sgn) {
  const double minPart = a > 0 ? lo : up;
  const double maxPart = a > 0 ? up : lo;
  if (isInf(p, minPart))
    p->minInf[r] += sgn;
  else
    p->minAct[r] = addDown(p->minAct[r], sgn * a * minPart);
  if (isInf(p, maxPart))
    p->maxInf[r] += sgn;
  else
    p->maxAct[r] = addUp(p->maxAct[r], sgn * a * maxPart);
}

}  // namespace

void rowActivity(VRXpresolve* p, int r) {
  double mn = -p->rhs[r], mx = -p->rhs[r];
  int ni = 0, xi = 0;
  const int64_t e = p->rowBeg[r] + p->rowLen[r];
  for (int64_t k = p->rowBeg[r]; k < e; ++k) {
    const int j = p->rowInd[k];
    if (j < 0) continue;
    const double a = p->rowVal[k];
    const double minPart = a > 0 ? p->lb[j] : p->ub[j];
    const double maxPart = a > 0 ? p->ub[j] : p->lb[j];
    if (isInf(p, minPart))
      ni++;
    else
      mn = addDown(mn, a * minPart);
    if (isInf(p, maxPart))
      xi++;
    else
      mx = addUp(mx, a * maxPart);
  }
  p->minAct[r] = mn;
  p->maxAct[r] = mx;
  p->minInf[r] = ni;
  p->maxInf[r] = xi;
}

void allActivities(VRXpresolve* p) {
  double units = 0;
  for (int r = 0; r < p->numRows; ++r)
    if (rowLive(p, r)) {
      rowActivity(p, r);
      units += 2 + 3.0 * p->rowLen[r];
    }
  charge(p, pwActivity, units);
}

void residualActivity(const VRXpresolve* p, int r, int j, double a, double* resMin, double* resMax) {
  const double minPart = a > 0 ? p->lb[j] : p->ub[j];
  const double maxPart = a > 0 ? p->ub[j] : p->lb[j];
  if (isInf(p, minPart))
    *resMin = p->minInf[r] == 1 ? p->minAct[r] : -kInf;
  else
    *resMin = p->minInf[r] == 0 ? addDown(p->minAct[r], -a * minPart) : -kInf;
  if (isInf(p, maxPart))
    *resMax = p->maxInf[r] == 1 ? p->maxAct[r] : kInf;
  else
    *resMax = p->maxInf[r] == 0 ? addUp(p->maxAct[r], -a * maxPart) : kInf;
}

void impliedFromRow(const VRXpresolve* p, int r, int j, double a, double* lo, double* hi) {
  double resMin, resMax;
  residualActivity(p, r, j, a, &resMin, &resMax);
  *lo = -kInf;
  *hi = kInf;
  // a x_j + (rest - b) <= 0, and >= 0 on an equation.
  if (resMin > -kInf) {
    const double v = -resMin / a;
    if (a > 0)
      *hi = v;
    else
      *lo = v;
  }
  if (p->sense[r] == '=' && resMax < kInf) {
    const double v = -resMax / a;
    if (a > 0)
      *lo = v;
    else
      *hi = v;
  }
}

// ---------------------------------------------------------------- entries

void deleteEntry(VRXpresolve* p, int64_t k) {
  p->matrixStamp++;
  const int j = p->rowInd[k];
  const int r = p->slotRow[k];
  actShare(p, r, p->rowVal[k], p->lb[j], p->ub[j], -1);
  const int64_t nx = p->slotNext[k], pv = p->slotPrev[k];
  if (pv >= 0)
    p->slotNext[pv] = nx;
  else
    p->colHead[j] = nx;
  if (nx >= 0) p->slotPrev[nx] = pv;
  p->rowInd[k] = -1;
  p->rowCount[r]--;
  p->colCount[j]--;
  markRow(p, r);
  markCol(p, j);
}

namespace {

// Moves the live entry of slot k (row r) to the free slot w; the column's
// links follow.
void moveSlot(VRXpresolve* p, int64_t k, int64_t w, int r) {
  const int j = p->rowInd[k];
  p->rowInd[w] = j;
  p->rowVal[w] = p->rowVal[k];
  p->slotRow[w] = r;
  p->slotNext[w] = p->slotNext[k];
  p->slotPrev[w] = p->slotPrev[k];
  if (p->slotPrev[w] >= 0)
    p->slotNext[p->slotPrev[w]] = w;
  else
    p->colHead[j] = w;
  if (p->slotNext[w] >= 0) p->slotPrev[p->slotNext[w]] = w;
  p->rowInd[k] = -1;
}

}  // namespace

void compactRow(VRXpresolve* p, int r) {
  const int64_t b = p->rowBeg[r];
  int64_t w = b;
  for (int64_t k = b; k < b + p->rowLen[r]; ++k) {
    const int j = p->rowInd[k];
    if (j < 0) continue;
    if (w != k) moveSlot(p, k, w, r);
    w++;
  }
  p->rowLen[r] = static_cast<int>(w - b);
}

void reserveRow(VRXpresolve* p, int r, int extra) {
  if (p->rowLen[r] + extra <= p->rowCap[r]) return;
  compactRow(p, r);
  if (p->rowLen[r] + extra <= p->rowCap[r]) return;
  const int need = p->rowLen[r] + extra;
  const int cap = std::max(8, need + need / 2);
  if (p->slotEnd + cap > p->slotCap) {
    const int64_t nc = std::max(p->slotCap + p->slotCap / 2, p->slotEnd + cap + 16);
    grow(p->env, p->rowInd, static_cast<size_t>(nc));
    grow(p->env, p->rowVal, static_cast<size_t>(nc));
    grow(p->env, p->slotNext, static_cast<size_t>(nc));
    grow(p->env, p->slotPrev, static_cast<size_t>(nc));
    grow(p->env, p->slotRow, static_cast<size_t>(nc));
    p->slotCap = nc;
  }
  const int64_t nb = p->slotEnd;
  const int64_t ob = p->rowBeg[r];
  for (int t = 0; t < p->rowLen[r]; ++t) moveSlot(p, ob + t, nb + t, r);
  p->rowBeg[r] = nb;
  p->rowCap[r] = cap;
  p->slotEnd = nb + cap;
}

void addEntry(VRXpresolve* p, int r, int j, double v) {
  p->matrixStamp++;
  reserveRow(p, r, 1);
  const int64_t s = p->rowBeg[r] + p->rowLen[r]++;
  p->rowInd[s] = j;
  p->rowVal[s] = v;
  p->slotRow[s] = r;
  p->slotPrev[s] = -1;
  p->slotNext[s] = p->colHead[j];
  if (p->colHead[j] >= 0) p->slotPrev[p->colHead[j]] = s;
  p->colHead[j] = s;
  p->colCount[j]++;
  p->rowCount[r]++;
  actShare(p, r, v, p->lb[j], p->ub[j], +1);
  markRow(p, r);
  markCol(p, j);
}

void changeEntry(VRXpresolve* p, int64_t k, double v) {
  p->matrixStamp++;
  const int j = p->rowInd[k];
  const int r = p->slotRow[k];
  actShare(p, r, p->rowVal[k], p->lb[j], p->ub[j], -1);
  p->rowVal[k] = v;
  actShare(p, r, v, p->lb[j], p->ub[j], +1);
  markRow(p, r);
  markCol(p, j);
}

int64_t findInRow(const VRXpresolve* p, int r, int j) {
  const int64_t e = p->rowBeg[r] + p->rowLen[r];
  for (int64_t k = p->rowBeg[r]; k < e; ++k)
    if (p->rowInd[k] == j) return k;
  return -1;
}

namespace {

void setBound(VRXpresolve* p, int j, double v, bool lower) {
  double& b = lower ? p->lb[j] : p->ub[j];
  if (b == v) return;
  for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) {
    const int r = p->slotRow[k];
    actShare(p, r, p->rowVal[k], p->lb[j], p->ub[j], -1);
  }
  b = v;
  double units = 0;
  for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) {
    const int r = p->slotRow[k];
    actShare(p, r, p->rowVal[k], p->lb[j], p->ub[j], +1);
    markRow(p, r);
    units += 6;
  }
  markCol(p, j);
  p->counters.boundsChanged++;
  *p->work += units * p->workScale;
}

}  // namespace

void setLower(VRXpresolve* p, int j, double v) { setBound(p, j, v, true); }
void setUpper(VRXpresolve* p, int j, double v) { setBound(p, j, v, false); }

void removeRow(VRXpresolve* p, int r, int code) {
  const int64_t e = p->rowBeg[r] + p->rowLen[r];
  for (int64_t k = p->rowBeg[r]; k < e; ++k)
    if (p->rowInd[k] >= 0) deleteEntry(p, k);
  p->rowLen[r] = 0;
  p->rowCount[r] = code;
  p->liveRows--;
  p->counters.rowsRemoved++;
}

void negateRow(VRXpresolve* p, int r) {
  const int64_t e = p->rowBeg[r] + p->rowLen[r];
  for (int64_t k = p->rowBeg[r]; k < e; ++k)
    if (p->rowInd[k] >= 0) p->rowVal[k] = -p->rowVal[k];
  p->rhs[r] = -p->rhs[r];
  std::swap(p->minAct[r], p->maxAct[r]);
  p->minAct[r] = -p->minAct[r];
  p->maxAct[r] = -p->maxAct[r];
  std::swap(p->minInf[r], p->maxInf[r]);
  p->rowNeg[r] = static_cast<char>(!p->rowNeg[r]);
  markRow(p, r);
}

// ---------------------------------------------------------------- score

PreSnapshot snapshot(const VRXpresolve* p) {
  PreSnapshot s;
  s.c = p->counters;
  s.liveCols = p->liveCols;
  s.liveRows = p->liveRows;
  return s;
}

double progressScore(const VRXpresolve* p, const PreSnapshot& s) {
  const PreCounters& a = p->counters;
  const PreCounters& b = s.c;
  const double C = std::max(1, s.liveCols), R = std::max(1, s.liveRows);
  const double nz = std::max<double>(1.0, static_cast<double>(p->nzCount));
  const double colsGone = std::max(0, s.liveCols - p->liveCols);
  const double rowsGone = std::max(0, s.liveRows - p->liveRows);
  return 0.1 * (a.coeffsChanged - b.coeffsChanged) / nz + colsGone / C +
         0.0001 * ((a.boundsChanged - b.boundsChanged) + (a.typeChanges - b.typeChanges) +
                   (a.qRemoved - b.qRemoved) + (a.qChanged - b.qChanged)) /
             C +
         (rowsGone + (a.sosRemoved - b.sosRemoved) + (a.conesRemoved - b.conesRemoved)) / R +
         0.5 * (a.ineqToEq - b.ineqToEq) / R + 0.001 * (a.sosSplit - b.sosSplit) / R;
}

}  // namespace vrx
