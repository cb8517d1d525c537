// Forward and backward solves with the factor, hyper-sparse or dense per stage.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "simplex/factor_impl.h"

namespace vrx {
namespace lu {

namespace {

template <class T>
using F = VRXfactorT<T>;

// Depth-first reach from the work list over a graph stored as adjacency ranges.
// Node x has neighbours ind[beg[k] .. end[k]) with k = map ? map[x] : x (none for k < 0;
// end null means beg[k + 1]). The reach is left in reach[top .. m) in topological order.
template <class T>
int dfsReach(F<T>* f, const int64_t* beg, const int64_t* end, const int* ind, const int* map,
             int64_t* ops) {
  const int m = f->m;
  int* stack = f->stack;
  int64_t* spos = f->stackPos;
  char* vis = f->visited;
  int* reach = f->reach;
  int top = m;
  int64_t scanned = 0;
  for (int s = 0; s < f->wcount; s++) {
    int x = f->wi[s];
    if (vis[x]) continue;
    vis[x] = 1;
    int sp = 0;
    stack[0] = x;
    int kx = map ? map[x] : x;
    spos[0] = kx < 0 ? 0 : beg[kx];
    while (sp >= 0) {
      int node = stack[sp];
      int k = map ? map[node] : node;
      if (k >= 0) {
        int64_t e = end ? end[k] : beg[k + 1];
        int64_t p = spos[sp];
        while (p < e && vis[ind[p]]) p++;
        scanned += p - spos[sp];
        if (p < e) {
          int y = ind[p];
          spos[sp] = p + 1;
          vis[y] = 1;
          stack[++sp] = y;
          int ky = map ? map[y] : y;
          spos[sp] = ky < 0 ? 0 : beg[ky];
          continue;
        }
      }
      reach[--top] = node;
      sp--;
    }
  }
  *ops += scanned + (m - top);
  return top;
}

// After a hyper-sparse stage: the reach becomes the work list, small values dropped.
template <class T>
void takeReach(F<T>* f, int top) {
  const int m = f->m;
  const T drop = T(f->dropTol);
  for (int k = 0; k < f->wcount; k++) f->inList[f->wi[k]] = 0;
  int cnt = 0;
  for (int q = top; q < m; q++) {
    int r = f->reach[q];
    f->visited[r] = 0;
    if (absT(f->wv[r]) > drop) {
      f->wi[cnt++] = r;
      f->inList[r] = 1;
    } else {
      f->wv[r] = T(0);
    }
  }
  f->wcount = cnt;
}

template <class T>
void goDense(F<T>* f) {
  if (f->wcount < 0) return;
  for (int k = 0; k < f->wcount; k++) f->inList[f->wi[k]] = 0;
  f->wcount = -1;
}

template <class T>
inline void addToList(F<T>* f, int i) {
  if (f->wcount >= 0 && !f->inList[i]) {
    f->inList[i] = 1;
    f->wi[f->wcount++] = i;
  }
}

// The U stages go hyper-sparse unless the count says the result will be dense.
template <class T>
bool uHyper(const F<T>* f) {
  const int c = f->wcount;
  if (c < 0) return false;
  const double m = f->m;
  const double d = f->uNz > 0 ? static_cast<double>(f->uNz) / m : 1.5;
  const double used = f->lastUsedPos - f->m;
  bool denseSide = m <= m - f->nUpdatesDone + used + c && 2.0 * m <= d * d * c;
  return !denseSide;
}

template <class T>
bool lHyper(const F<T>* f) {
  return f->wcount >= 0 && static_cast<int64_t>(f->wcount) * f->sparseRatio <= f->m;
}

// btran's L stage runs over the rows of L, whose reach differs from that of its columns. A
// vector of at most sqrt(m/10) entries stays hyper-sparse whatever the fill. A longer one
// whose rows fan out little into a large L goes dense once some of its rows still carry L
// entries; any other follows the fill rule of the forward solve.
template <class T>
bool btranLHyper(const F<T>* f) {
  const int64_t c = f->wcount;
  if (c < 0) return false;
  const double m = f->m;
  if (c == 0 || m >= 10.0 * static_cast<double>(c) * static_cast<double>(c)) return true;
  const double lnz = static_cast<double>(f->lzNz);
  if (10.0 * static_cast<double>(c) < lnz) {
    int64_t s = 0, active = 0;
    for (int64_t k = 0; k < c; k++) {
      const int i = f->wi[k];
      const int64_t len = f->lRowBeg[i + 1] - f->lRowBeg[i];
      s += len;
      active += len > 0;
    }
    if (s < 2 * c) {
      const double fan = (lnz / 2.0) / static_cast<double>(c);
      return !(static_cast<double>(active) * fan * fan > static_cast<double>(c));
    }
  }
  return c * f->sparseRatio <= f->m;
}

// Writes the work vector to out (through map when given) and leaves the work all zero.
template <class T>
void storeWork(F<T>* f, VRXsvecT<T>* out, const int* map) {
  const T drop = T(f->dropTol);
  int cnt = 0;
  if (f->wcount >= 0) {
    for (int k = 0; k < f->wcount; k++) {
      int r = f->wi[k];
      f->inList[r] = 0;
      T x = f->wv[r];
      f->wv[r] = T(0);
      if (absT(x) > drop) {
        int p = map ? map[r] : r;
        out->value[p] = x;
        out->index[cnt++] = p;
      }
    }
    out->count = cnt;
  } else {
    const int m = f->m;
    for (int r = 0; r < m; r++) {
      T x = f->wv[r];
      if (x == T(0)) continue;
      f->wv[r] = T(0);
      if (absT(x) > drop) {
        int p = map ? map[r] : r;
        out->value[p] = x;
        out->index[cnt++] = p;
      }
    }
    out->count = cnt == 0 || 3 * static_cast<int64_t>(cnt) < m ? cnt : -1;
  }
  f->wcount = 0;
}

template <class T>
int64_t inputCount(const F<T>* f, const VRXsvecT<T>* in) {
  return in->count >= 0 ? in->count : f->m;
}

}  // namespace

// ---------------------------------------------------------------- loading

template <class T>
void loadRows(F<T>* f, const VRXsvecT<T>* in) {
  const T drop = T(f->dropTol);
  if (in->count < 0) {
    for (int r = 0; r < f->m; r++)
      if (absT(in->value[r]) > drop) f->wv[r] = in->value[r];
    f->wcount = -1;
    return;
  }
  int cnt = 0;
  for (int k = 0; k < in->count; k++) {
    int r = in->index[k];
    T x = in->value[r];
    if (absT(x) > drop && !f->inList[r]) {
      f->wv[r] = x;
      f->inList[r] = 1;
      f->wi[cnt++] = r;
    }
  }
  f->wcount = cnt;
}

template <class T>
void loadPositions(F<T>* f, const VRXsvecT<T>* in) {
  const T drop = T(f->dropTol);
  const int* toRow = f->colPermInv;
  if (in->count < 0) {
    for (int p = 0; p < f->m; p++)
      if (absT(in->value[p]) > drop) f->wv[toRow[p]] = in->value[p];
    f->wcount = -1;
    return;
  }
  int cnt = 0;
  for (int k = 0; k < in->count; k++) {
    int p = in->index[k];
    T x = in->value[p];
    int r = toRow[p];
    if (absT(x) > drop && !f->inList[r]) {
      f->wv[r] = x;
      f->inList[r] = 1;
      f->wi[cnt++] = r;
    }
  }
  f->wcount = cnt;
}

template <class T>
void loadMatrixColumn(F<T>* f, int var) {
  const VRXfactorMatrix& A = f->A;
  const T drop = T(f->dropTol);
  int cnt = 0;
  if (var >= A.n) {
    int r = var - A.n;
    f->wv[r] = T(1);
    f->inList[r] = 1;
    f->wi[cnt++] = r;
  } else {
    for (int64_t k = A.colBeg[var]; k < A.colBeg[var] + A.colLen[var]; k++) {
      int r = A.rowInd[k];
      T x = T(A.val[k]);
      if (absT(x) > drop && !f->inList[r]) {
        f->wv[r] = x;
        f->inList[r] = 1;
        f->wi[cnt++] = r;
      }
    }
  }
  f->wcount = cnt;
}

template <class T>
void loadUnitRow(F<T>* f, int r) {
  f->wv[r] = T(1);
  f->inList[r] = 1;
  f->wi[0] = r;
  f->wcount = 1;
}

template <class T>
void clearWork(F<T>* f) {
  if (f->wcount >= 0) {
    for (int k = 0; k < f->wcount; k++) {
      f->wv[f->wi[k]] = T(0);
      f->inList[f->wi[k]] = 0;
    }
  } else {
    std::memset(static_cast<void*>(f->wv), 0, sizeof(T) * static_cast<size_t>(f->m));
  }
  f->wcount = 0;
}

// ---------------------------------------------------------------- stages

template <class T>
void ftranL(F<T>* f, int64_t* ops) {
  const T drop = T(f->dropTol);
  T* wv = f->wv;
  f->lastLCount = f->wcount;
  if (lHyper(f)) {
    f->lastStages |= 1;
    int top = dfsReach(f, f->lColBeg, nullptr, f->lColInd, f->lColOfRow, ops);
    for (int q = top; q < f->m; q++) {
      int r = f->reach[q];
      int k = f->lColOfRow[r];
      T x = wv[r];
      if (k < 0 || absT(x) <= drop) continue;
      for (int64_t e = f->lColBeg[k]; e < f->lColBeg[k + 1]; e++)
        wv[f->lColInd[e]] -= f->lColVal[e] * x;
      *ops += f->lColBeg[k + 1] - f->lColBeg[k];
    }
    takeReach(f, top);
    return;
  }
  goDense(f);
  for (int k = 0; k < f->lColCount; k++) {
    T x = wv[f->lColPivot[k]];
    if (absT(x) <= drop) continue;
    for (int64_t e = f->lColBeg[k]; e < f->lColBeg[k + 1]; e++)
      wv[f->lColInd[e]] -= f->lColVal[e] * x;
    *ops += f->lColBeg[k + 1] - f->lColBeg[k];
  }
  *ops += f->lColCount;
}

template <class T>
void ftranR(F<T>* f, int64_t* ops) {
  T* wv = f->wv;
  // A sparse vector meets no eta before the first one that holds one of its rows.
  int start = 0;
  if (f->wcount >= 0) {
    start = f->rowEtaCount;
    for (int k = 0; k < f->wcount && start > 0; k++) {
      const int u = f->etaFirst[f->wi[k]] - 1;
      if (u >= 0 && u < start) start = u;
    }
    *ops += f->wcount;
  }
  f->lastEtaStart = start;
  for (int u = start; u < f->rowEtaCount; u++) {
    T s = T(0);
    for (int64_t e = f->etaBeg[u]; e < f->etaBeg[u + 1]; e++) s += f->etaVal[e] * wv[f->etaInd[e]];
    *ops += f->etaBeg[u + 1] - f->etaBeg[u];
    if (s != T(0)) {
      int i = f->etaPivotRow[u];
      addToList(f, i);
      wv[i] += s;
    }
  }
}

template <class T>
void ftranU(F<T>* f, int64_t* ops) {
  const T drop = T(f->dropTol);
  T* wv = f->wv;
  if (uHyper(f)) {
    f->lastStages |= 2;
    int top = dfsReach(f, f->uColBeg, f->uColEnd, f->uColInd, nullptr, ops);
    for (int q = top; q < f->m; q++) {
      int r = f->reach[q];
      T x = wv[r] / f->diag[r];
      if (absT(x) <= drop) {
        wv[r] = T(0);
        continue;
      }
      wv[r] = x;
      for (int64_t e = f->uColBeg[r]; e < f->uColEnd[r]; e++)
        wv[f->uColInd[e]] -= f->uColVal[e] * x;
      *ops += f->uColEnd[r] - f->uColBeg[r];
    }
    takeReach(f, top);
    return;
  }
  goDense(f);
  const int* perm = f->rowPerm;
  if (f->uNz <= 20 * static_cast<int64_t>(f->m)) {
    for (int k = f->lastUsedPos - 1; k >= 0; k--) {
      int r = perm[k];
      if (r < 0) continue;
      T s = wv[r];
      for (int64_t e = f->uRowBeg[r]; e < f->uRowEnd[r]; e++)
        s -= f->uRowVal[e] * wv[f->uRowInd[e]];
      T x = s / f->diag[r];
      wv[r] = absT(x) > drop ? x : T(0);
    }
    *ops += f->uNz + f->lastUsedPos;
  } else {
    for (int k = f->lastUsedPos - 1; k >= 0; k--) {
      int r = perm[k];
      if (r < 0 || wv[r] == T(0)) continue;
      T x = wv[r] / f->diag[r];
      if (absT(x) <= drop) {
        wv[r] = T(0);
        continue;
      }
      wv[r] = x;
      for (int64_t e = f->uColBeg[r]; e < f->uColEnd[r]; e++)
        wv[f->uColInd[e]] -= f->uColVal[e] * x;
      *ops += f->uColEnd[r] - f->uColBeg[r];
    }
    *ops += f->lastUsedPos;
  }
}

template <class T>
void btranU(F<T>* f, int64_t* ops) {
  const T drop = T(f->dropTol);
  T* wv = f->wv;
  if (uHyper(f)) {
    f->lastStages |= 2;
    int top = dfsReach(f, f->uRowBeg, f->uRowEnd, f->uRowInd, nullptr, ops);
    for (int q = top; q < f->m; q++) {
      int r = f->reach[q];
      T x = wv[r] / f->diag[r];
      if (absT(x) <= drop) {
        wv[r] = T(0);
        continue;
      }
      wv[r] = x;
      for (int64_t e = f->uRowBeg[r]; e < f->uRowEnd[r]; e++)
        wv[f->uRowInd[e]] -= f->uRowVal[e] * x;
      *ops += f->uRowEnd[r] - f->uRowBeg[r];
    }
    takeReach(f, top);
    return;
  }
  goDense(f);
  const int* perm = f->rowPerm;
  if (f->uNz <= 20 * static_cast<int64_t>(f->m)) {
    for (int k = 0; k < f->lastUsedPos; k++) {
      int r = perm[k];
      if (r < 0) continue;
      T s = wv[r];
      for (int64_t e = f->uColBeg[r]; e < f->uColEnd[r]; e++)
        s -= f->uColVal[e] * wv[f->uColInd[e]];
      T x = s / f->diag[r];
      wv[r] = absT(x) > drop ? x : T(0);
    }
    *ops += f->uNz + f->lastUsedPos;
  } else {
    for (int k = 0; k < f->lastUsedPos; k++) {
      int r = perm[k];
      if (r < 0 || wv[r] == T(0)) continue;
      T x = wv[r] / f->diag[r];
      if (absT(x) <= drop) {
        wv[r] = T(0);
        continue;
      }
      wv[r] = x;
      for (int64_t e = f->uRowBeg[r]; e < f->uRowEnd[r]; e++)
        wv[f->uRowInd[e]] -= f->uRowVal[e] * x;
      *ops += f->uRowEnd[r] - f->uRowBeg[r];
    }
    *ops += f->lastUsedPos;
  }
}

// A short vector meets few etas: only those whose pivot row holds a value act, so they
// are visited newest first through the per-row chains instead of walking them all.
template <class T>
void btranRSparse(F<T>* f, int64_t* ops) {
  const T drop = T(f->dropTol);
  T* wv = f->wv;
  int* heap = f->etaHeap;
  int size = 0;
  auto queue = [&](int v) {
    if (v < 0 || f->etaMark[v]) return;
    f->etaMark[v] = 1;
    heap[size++] = v;
    std::push_heap(heap, heap + size);
  };
  // The newest eta below `below` that pivots on row r.
  auto queueRow = [&](int r, int below) {
    int v = f->etaLastOfRow[r] - 1;
    while (v >= below) {
      v = f->etaPrevSame[v];
      (*ops)++;
    }
    queue(v);
  };
  const int given = f->wcount;
  for (int k = 0; k < given; k++) queueRow(f->wi[k], f->rowEtaCount);
  while (size > 0) {
    std::pop_heap(heap, heap + size);
    const int u = heap[--size];
    f->etaMark[u] = 0;
    const int r = f->etaPivotRow[u];
    queue(f->etaPrevSame[u]);
    const T x = wv[r];
    (*ops)++;
    if (absT(x) <= drop) continue;
    for (int64_t e = f->etaBeg[u]; e < f->etaBeg[u + 1]; e++) {
      const int j = f->etaInd[e];
      addToList(f, j);
      wv[j] += f->etaVal[e] * x;
      queueRow(j, u);
    }
    *ops += f->etaBeg[u + 1] - f->etaBeg[u];
  }
}

template <class T>
void btranR(F<T>* f, int64_t* ops) {
  const T drop = T(f->dropTol);
  T* wv = f->wv;
  if (f->wcount >= 0 && f->wcount <= 5) {
    btranRSparse(f, ops);
    return;
  }
  for (int u = f->rowEtaCount - 1; u >= 0; u--) {
    T x = wv[f->etaPivotRow[u]];
    if (absT(x) <= drop) continue;
    for (int64_t e = f->etaBeg[u]; e < f->etaBeg[u + 1]; e++) {
      int j = f->etaInd[e];
      addToList(f, j);
      wv[j] += f->etaVal[e] * x;
    }
    *ops += f->etaBeg[u + 1] - f->etaBeg[u];
  }
  *ops += f->rowEtaCount;
}

template <class T>
void btranL(F<T>* f, int64_t* ops) {
  const T drop = T(f->dropTol);
  T* wv = f->wv;
  f->lastLCount = f->wcount;
  if (btranLHyper(f)) {
    f->lastStages |= 1;
    int top = dfsReach(f, f->lRowBeg, nullptr, f->lRowInd, nullptr, ops);
    for (int q = top; q < f->m; q++) {
      int i = f->reach[q];
      T x = wv[i];
      if (absT(x) <= drop) continue;
      for (int64_t e = f->lRowBeg[i]; e < f->lRowBeg[i + 1]; e++)
        wv[f->lRowInd[e]] -= f->lRowVal[e] * x;
      *ops += f->lRowBeg[i + 1] - f->lRowBeg[i];
    }
    takeReach(f, top);
    return;
  }
  goDense(f);
  for (int q = f->lRowListCount - 1; q >= 0; q--) {
    int i = f->lRowList[q];
    T x = wv[i];
    if (absT(x) <= drop) continue;
    for (int64_t e = f->lRowBeg[i]; e < f->lRowBeg[i + 1]; e++)
      wv[f->lRowInd[e]] -= f->lRowVal[e] * x;
    *ops += f->lRowBeg[i + 1] - f->lRowBeg[i];
  }
  *ops += f->lRowListCount;
}

template <class T>
void saveSpike(F<T>* f) {
  const T drop = T(f->dropTol);
  VRXsvecT<T>& s = f->spike;
  svecClear(&s, f->m);
  int cnt = 0;
  if (f->wcount >= 0) {
    for (int k = 0; k < f->wcount; k++) {
      int r = f->wi[k];
      if (absT(f->wv[r]) > drop) {
        s.value[r] = f->wv[r];
        s.index[cnt++] = r;
      }
    }
  } else {
    for (int r = 0; r < f->m; r++) {
      if (absT(f->wv[r]) > drop) {
        s.value[r] = f->wv[r];
        s.index[cnt++] = r;
      }
    }
  }
  s.count = cnt;
  f->spikeValid = 1;
}

template <class T>
void saveRowEta(F<T>* f, int p, T inValue) {
  const T drop = T(f->dropTol);
  VRXsvecT<T>& v = f->rowEta;
  svecClear(&v, f->m);
  const int i = f->colPermInv[p];
  const T scale = f->diag[i] / inValue;
  int cnt = 0;
  auto take = [&](int r) {
    if (r == i) return;
    T x = f->wv[r] * scale;
    if (absT(x) > drop) {
      v.value[r] = x;
      v.index[cnt++] = r;
    }
  };
  if (f->wcount >= 0) {
    for (int k = 0; k < f->wcount; k++) take(f->wi[k]);
  } else {
    for (int r = 0; r < f->m; r++)
      if (f->wv[r] != T(0)) take(r);
  }
  v.count = cnt;
  f->rowEtaPos = p;
}

}  // namespace lu
}  // namespace vrx

// ---------------------------------------------------------------- entries

template <class T>
int VRXftran(VRXfactorT<T>* f, const VRXsvecT<T>* in, VRXsvecT<T>* out, int saveSpike, int clearOut,
             double* work) {
  using namespace vrx::lu;
  if (!f->valid) return VRX_ERROR_DATA_NOT_AVAILABLE;
  int64_t ops = 0;
  const int64_t nIn = inputCount(f, in);
  f->lastStages = 0;
  loadRows(f, in);
  if (clearOut || in == out) vrx::svecClear(out, f->m);
  ftranL(f, &ops);
  ftranR(f, &ops);
  if (saveSpike) vrx::lu::saveSpike(f);
  ftranU(f, &ops);
  storeWork(f, out, f->colPerm);
  f->solveWork += static_cast<double>(ops) * f->solveWorkRate;
  if (work) *work += 10.0 * static_cast<double>(nIn) * f->solveWorkRate;
  return 0;
}

template <class T>
int VRXbtran(VRXfactorT<T>* f, const VRXsvecT<T>* in, VRXsvecT<T>* out, int clearOut,
             double* work) {
  using namespace vrx::lu;
  if (!f->valid) return VRX_ERROR_DATA_NOT_AVAILABLE;
  int64_t ops = 0;
  const int64_t nIn = inputCount(f, in);
  int unitPos = -1;
  T unitVal = T(0);
  f->lastStages = 0;
  if (in->count == 1 && in->value[in->index[0]] != T(0)) {
    unitPos = in->index[0];
    unitVal = in->value[unitPos];
  }
  loadPositions(f, in);
  if (clearOut || in == out) vrx::svecClear(out, f->m);
  btranU(f, &ops);
  if (unitPos >= 0 && f->wcount != 0) saveRowEta(f, unitPos, unitVal);
  btranR(f, &ops);
  btranL(f, &ops);
  storeWork(f, out, nullptr);
  f->solveWork += static_cast<double>(ops) * f->solveWorkRate;
  if (work) *work += 10.0 * static_cast<double>(nIn) * f->solveWorkRate;
  return 0;
}

#define VRX_FACTOR_SOLVE_INST(T)                                                                 \
  template int VRXftran<T>(VRXfactorT<T>*, const VRXsvecT<T>*, VRXsvecT<T>*, int, int, double*); \
  template int VRXbtran<T>(VRXfactorT<T>*, const VRXsvecT<T>*, VRXsvecT<T>*, int, double*);      \
  namespace vrx {                                                                                \
  namespace lu {                                                                                 \
  template void loadMatrixColumn<T>(VRXfactorT<T>*, int);                                        \
  template void loadUnitRow<T>(VRXfactorT<T>*, int);                                             \
  template void ftranL<T>(VRXfactorT<T>*, int64_t*);                                             \
  template void ftranR<T>(VRXfactorT<T>*, int64_t*);                                             \
  template void btranU<T>(VRXfactorT<T>*, int64_t*);                                             \
  template void saveSpike<T>(VRXfactorT<T>*);                                                    \
  template void saveRowEta<T>(VRXfactorT<T>*, int, T);                                           \
  template void clearWork<T>(VRXfactorT<T>*);                                                    \
  }                                                                                              \
  }
VRX_FACTOR_SOLVE_INST(double)
VRX_FACTOR_SOLVE_INST(long double)
