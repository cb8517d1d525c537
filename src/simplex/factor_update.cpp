// Forrest-Tomlin update of the factor.
#include <algorithm>
#include <cmath>

#include "simplex/factor_impl.h"

namespace {

template <class T>
using F = VRXfactorT<T>;

// A replacement column below this is refused and the basis refactored instead.
constexpr double kMinUpdateDiag = 1e-13;

template <class T>
void dropSaved(F<T>* f) {
  if (f->spikeValid) vrx::svecClear(&f->spike, f->m);
  f->spikeValid = 0;
  if (f->rowEtaPos >= 0) vrx::svecClear(&f->rowEta, f->m);
  f->rowEtaPos = -1;
}

template <class T>
void removeFromRow(F<T>* f, int r, int j) {
  for (int64_t e = f->uRowBeg[r]; e < f->uRowEnd[r]; e++) {
    if (f->uRowInd[e] == j) {
      int64_t last = --f->uRowEnd[r];
      f->uRowInd[e] = f->uRowInd[last];
      f->uRowVal[e] = f->uRowVal[last];
      return;
    }
  }
}

template <class T>
void removeFromCol(F<T>* f, int c, int i) {
  for (int64_t e = f->uColBeg[c]; e < f->uColEnd[c]; e++) {
    if (f->uColInd[e] == i) {
      int64_t last = --f->uColEnd[c];
      f->uColInd[e] = f->uColInd[last];
      f->uColVal[e] = f->uColVal[last];
      return;
    }
  }
}

// Room behind a row that outgrew its gap, as many entries as updates may still come.
template <class T>
int rowRoom(const F<T>* f, int64_t len) {
  int remaining = f->updateLimit - f->nUpdatesDone;
  int64_t r = std::min<int64_t>(remaining, std::max<int64_t>(4, len / 2));
  return static_cast<int>(std::max<int64_t>(1, r));
}

// Rebuilds U by rows from U by columns, packed in triangular order with a small gap.
template <class T>
void repackRows(F<T>* f) {
  const int m = f->m;
  int* cnt = f->stack;
  for (int r = 0; r < m; r++) cnt[r] = 0;
  for (int c = 0; c < m; c++)
    for (int64_t e = f->uColBeg[c]; e < f->uColEnd[c]; e++) cnt[f->uColInd[e]]++;
  int64_t pos = 0;
  for (int k = 0; k < f->lastUsedPos; k++) {
    int r = f->rowPerm[k];
    if (r < 0) continue;
    f->uRowBeg[r] = pos;
    f->uRowEnd[r] = pos;
    pos += cnt[r] + 2;
    f->uRowCap[r] = pos;
  }
  f->uRowTop = pos;
  for (int c = 0; c < m; c++) {
    for (int64_t e = f->uColBeg[c]; e < f->uColEnd[c]; e++) {
      int r = f->uColInd[e];
      int64_t q = f->uRowEnd[r]++;
      f->uRowInd[q] = c;
      f->uRowVal[q] = f->uColVal[e];
    }
  }
}

// Rebuilds U by columns from U by rows, packed.
template <class T>
void repackCols(F<T>* f) {
  const int m = f->m;
  int* cnt = f->stack;
  for (int c = 0; c < m; c++) cnt[c] = 0;
  for (int r = 0; r < m; r++)
    for (int64_t e = f->uRowBeg[r]; e < f->uRowEnd[r]; e++) cnt[f->uRowInd[e]]++;
  int64_t pos = 0;
  for (int k = 0; k < f->lastUsedPos; k++) {
    int c = f->rowPerm[k];
    if (c < 0) continue;
    f->uColBeg[c] = pos;
    f->uColEnd[c] = pos;
    pos += cnt[c];
  }
  f->uColTop = pos;
  for (int r = 0; r < m; r++) {
    for (int64_t e = f->uRowBeg[r]; e < f->uRowEnd[r]; e++) {
      int c = f->uRowInd[e];
      int64_t q = f->uColEnd[c]++;
      f->uColInd[q] = r;
      f->uColVal[q] = f->uRowVal[e];
    }
  }
}

template <class T>
int64_t rowStorageNeed(const F<T>* f, int i) {
  const VRXsvecT<T>& s = f->spike;
  int64_t need = 0;
  for (int k = 0; k < s.count; k++) {
    int r = s.index[k];
    if (r == i || f->uRowEnd[r] < f->uRowCap[r]) continue;
    int64_t len = f->uRowEnd[r] - f->uRowBeg[r];
    need += len + rowRoom(f, len);
  }
  return need;
}

template <class T>
bool growTo(VRXenv* env, int** ind, T** val, int64_t* cap, int64_t need) {
  int64_t c = std::max<int64_t>(*cap + *cap / 2, need + 1024);
  if (!vrx::lu::growArray(env, ind, static_cast<size_t>(c)) ||
      !vrx::lu::growArray(env, val, static_cast<size_t>(c)))
    return false;
  *cap = c;
  return true;
}

}  // namespace

template <class T>
int VRXfactorUpdate(VRXfactorT<T>* f, int p, int enterVar, VRXfactorCtl* ctl, double* work) {
  using namespace vrx::lu;
  const int m = f->m;
  if (!f->valid) return VRX_ERROR_DATA_NOT_AVAILABLE;
  if (p < 0 || p >= m || enterVar < 0 || enterVar >= f->A.n + m) return VRX_ERROR_INVALID_ARGUMENT;
  if (f->nUpdatesDone >= f->updateLimit) {
    dropSaved(f);
    ctl->actionCode = 2;
    return 1;
  }
  const int i = f->colPermInv[p];
  int64_t ops = 0;
  if (!f->spikeValid) {
    loadMatrixColumn(f, enterVar);
    ftranL(f, &ops);
    ftranR(f, &ops);
    saveSpike(f);
    clearWork(f);
  }
  if (f->rowEtaPos != p) {
    loadUnitRow(f, i);
    btranU(f, &ops);
    saveRowEta(f, p, T(1));
    clearWork(f);
  }
  VRXsvecT<T>& s = f->spike;
  VRXsvecT<T>& v = f->rowEta;

  // The new diagonal: row eta times spike.
  T d = s.value[i];
  if (s.count <= v.count) {
    for (int k = 0; k < s.count; k++) {
      int j = s.index[k];
      if (j != i) d += s.value[j] * v.value[j];
    }
  } else {
    for (int k = 0; k < v.count; k++) d += s.value[v.index[k]] * v.value[v.index[k]];
  }
  if (absT(d) < T(kMinUpdateDiag)) {
    dropSaved(f);
    ctl->updateFailures++;
    ctl->rescueCount += 10;
    if (ctl->markowitzTol < 0.5) {
      ctl->markowitzTol = 0.5;
      vrx::log(f->env, "Markowitz tolerance tightened to 0.5.\n");
    }
    if (ctl->updateFailures > 99) return 12;
    ctl->actionCode = 6;
    return 1;
  }

  // Worst-case storage of this update; space left behind by moved rows and replaced
  // columns is taken back first.
  int64_t rowNeed = rowStorageNeed(f, i);
  const int64_t etaTop = f->etaBeg[f->rowEtaCount];
  bool rowShort = f->uRowTop + rowNeed > f->uRowArenaCap;
  bool colShort = f->uColTop + s.count > f->uColArenaCap;
  if (rowShort && f->uNz + 2 * static_cast<int64_t>(m) < f->uRowArenaCap / 2) {
    repackRows(f);
    ops += f->uNz + m;
    rowNeed = rowStorageNeed(f, i);
    rowShort = f->uRowTop + rowNeed > f->uRowArenaCap;
  }
  if (colShort && f->uNz < f->uColArenaCap / 2) {
    repackCols(f);
    ops += f->uNz + m;
    colShort = f->uColTop + s.count > f->uColArenaCap;
  }
  bool etaShort = etaTop + v.count > f->etaCap;
  if (rowShort || colShort || etaShort) {
    if (f->nUpdatesDone > 30 || f->rowEtaCount > f->updateLimit) {
      dropSaved(f);
      ctl->actionCode = 11;
      return 1;
    }
    bool ok = (!rowShort ||
               growTo(f->env, &f->uRowInd, &f->uRowVal, &f->uRowArenaCap, f->uRowTop + rowNeed)) &&
              (!colShort ||
               growTo(f->env, &f->uColInd, &f->uColVal, &f->uColArenaCap, f->uColTop + s.count)) &&
              (!etaShort || growTo(f->env, &f->etaInd, &f->etaVal, &f->etaCap, etaTop + v.count));
    if (!ok) {
      vrx::log(f->env, "Warning: insufficient memory, speed may be affected.\n");
      dropSaved(f);
      ctl->actionCode = 11;
      return 1;
    }
  }

  // Old column i out of the rows, row i out of the columns.
  int64_t removed = (f->uColEnd[i] - f->uColBeg[i]) + (f->uRowEnd[i] - f->uRowBeg[i]);
  for (int64_t e = f->uColBeg[i]; e < f->uColEnd[i]; e++) removeFromRow(f, f->uColInd[e], i);
  f->uColEnd[i] = f->uColBeg[i];
  for (int64_t e = f->uRowBeg[i]; e < f->uRowEnd[i]; e++) removeFromCol(f, f->uRowInd[e], i);
  f->uRowEnd[i] = f->uRowBeg[i];

  // The spike becomes column i.
  int maxPos = -1;
  int64_t added = 0;
  f->uColBeg[i] = f->uColTop;
  for (int k = 0; k < s.count; k++) {
    int r = s.index[k];
    if (r == i) continue;
    T x = s.value[r];
    f->uColInd[f->uColTop] = r;
    f->uColVal[f->uColTop] = x;
    f->uColTop++;
    if (f->uRowEnd[r] == f->uRowCap[r]) {
      int64_t len = f->uRowEnd[r] - f->uRowBeg[r];
      int64_t dst = f->uRowTop;
      for (int64_t e = 0; e < len; e++) {
        f->uRowInd[dst + e] = f->uRowInd[f->uRowBeg[r] + e];
        f->uRowVal[dst + e] = f->uRowVal[f->uRowBeg[r] + e];
      }
      f->uRowBeg[r] = dst;
      f->uRowEnd[r] = dst + len;
      f->uRowCap[r] = dst + len + rowRoom(f, len);
      f->uRowTop = f->uRowCap[r];
      ops += len;
    }
    f->uRowInd[f->uRowEnd[r]] = i;
    f->uRowVal[f->uRowEnd[r]] = x;
    f->uRowEnd[r]++;
    maxPos = std::max(maxPos, f->rowPermInv[r]);
    added++;
  }
  f->uColEnd[i] = f->uColTop;
  f->diag[i] = d;
  f->uNz += added - removed;

  // Row i keeps only its diagonal, so it may follow every row of its new column.
  const int k = f->rowPermInv[i];
  if (maxPos > k) {
    f->rowPerm[k] = -1;
    f->rowPerm[f->lastUsedPos] = i;
    f->rowPermInv[i] = f->lastUsedPos;
    f->lastUsedPos++;
  }

  int64_t e = etaTop;
  for (int q = 0; q < v.count; q++) {
    int j = v.index[q];
    f->etaInd[e] = j;
    f->etaVal[e] = v.value[j];
    if (f->etaFirst[j] == 0) f->etaFirst[j] = f->rowEtaCount + 1;
    e++;
  }
  f->etaPivotRow[f->rowEtaCount] = i;
  f->etaPrevSame[f->rowEtaCount] = f->etaLastOfRow[i] - 1;
  f->etaLastOfRow[i] = f->rowEtaCount + 1;
  f->etaBeg[++f->rowEtaCount] = e;
  f->rowEtaNz += v.count;
  f->nUpdatesDone++;
  f->fillSum += s.count;
  f->basisHead[p] = enterVar;
  const double spikeNz = s.count;
  dropSaved(f);
  ops += static_cast<int64_t>(removed) * 4 + added + v.count;
  f->solveWork += static_cast<double>(ops) * f->solveWorkRate;
  if (work) *work += 10.0 * spikeNz * f->solveWorkRate;
  return 0;
}

template int VRXfactorUpdate<double>(VRXfactorT<double>*, int, int, VRXfactorCtl*, double*);
template int VRXfactorUpdate<long double>(VRXfactorT<long double>*, int, int, VRXfactorCtl*,
                                          double*);
