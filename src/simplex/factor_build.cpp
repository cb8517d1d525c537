// Building the LU factor: singletons, Markowitz search on the nucleus, dense tail.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "simplex/factor_impl.h"

extern "C" void dgetrf_(const int* m, const int* n, double* a, const int* lda, int* ipiv,
                        int* info);

namespace vrx {
namespace lu {
namespace {

template <class T>
using F = VRXfactorT<T>;

// ---------------------------------------------------------------- dense kernel

int denseLU(int n, double* a, int* ipiv) {
  int info = 0;
  if (n > 0) dgetrf_(&n, &n, a, &n, ipiv, &info);
  return info;
}

// Right-looking LU with partial pivoting, the same contract as dgetrf.
int denseLU(int n, long double* a, int* ipiv) {
  int info = 0;
  for (int k = 0; k < n; k++) {
    long double* colk = a + static_cast<int64_t>(k) * n;
    int p = k;
    long double best = absT(colk[k]);
    for (int i = k + 1; i < n; i++) {
      long double v = absT(colk[i]);
      if (v > best) {
        best = v;
        p = i;
      }
    }
    ipiv[k] = p + 1;
    if (best == 0.0L) {
      if (!info) info = k + 1;
      continue;
    }
    if (p != k) {
      for (int j = 0; j < n; j++)
        std::swap(a[static_cast<int64_t>(j) * n + k], a[static_cast<int64_t>(j) * n + p]);
    }
    long double inv = 1.0L / colk[k];
    for (int i = k + 1; i < n; i++) colk[i] *= inv;
    for (int j = k + 1; j < n; j++) {
      long double* colj = a + static_cast<int64_t>(j) * n;
      long double akj = colj[k];
      if (akj == 0.0L) continue;
      for (int i = k + 1; i < n; i++) colj[i] -= colk[i] * akj;
    }
  }
  return info;
}

// ---------------------------------------------------------------- count lists

inline void listLink(int* head, int* next, int* prev, int* key, int k, int x) {
  key[x] = k;
  prev[x] = -1;
  next[x] = head[k];
  if (head[k] >= 0) prev[head[k]] = x;
  head[k] = x;
}

inline void listUnlink(int* head, int* next, int* prev, int* key, int x) {
  int k = key[x];
  if (k < 0) return;
  if (prev[x] >= 0)
    next[prev[x]] = next[x];
  else
    head[k] = next[x];
  if (next[x] >= 0) prev[next[x]] = prev[x];
  key[x] = -1;
}

template <class T>
void relinkRow(F<T>* f, int i) {
  VRXfactorBuildWork<T>& b = f->bw;
  listUnlink(b.rcHead, b.rcNext, b.rcPrev, b.rcKey, i);
  if (b.rState[i] == 2) b.rState[i] = 0;
  if (b.rLen[i] > 0) listLink(b.rcHead, b.rcNext, b.rcPrev, b.rcKey, b.rLen[i], i);
}

template <class T>
void relinkCol(F<T>* f, int c) {
  VRXfactorBuildWork<T>& b = f->bw;
  listUnlink(b.ccHead, b.ccNext, b.ccPrev, b.ccKey, c);
  if (b.cState[c] == 2) b.cState[c] = 0;
  if (b.cLen[c] > 0) listLink(b.ccHead, b.ccNext, b.ccPrev, b.ccKey, b.cLen[c], c);
}

// ---------------------------------------------------------------- arenas

inline void arUnlink(int* next, int* prev, int* head, int* tail, int x) {
  if (prev[x] >= 0)
    next[prev[x]] = next[x];
  else
    *head = next[x];
  if (next[x] >= 0)
    prev[next[x]] = prev[x];
  else
    *tail = prev[x];
}

inline void arAppend(int* next, int* prev, int* head, int* tail, int x) {
  prev[x] = *tail;
  next[x] = -1;
  if (*tail >= 0)
    next[*tail] = x;
  else
    *head = x;
  *tail = x;
}

template <class T>
void compactRows(F<T>* f) {
  VRXfactorBuildWork<T>& b = f->bw;
  int64_t dst = 0;
  for (int x = b.rArHead; x >= 0; x = b.rArNext[x]) {
    int64_t src = b.rBeg[x];
    int len = b.rLen[x];
    if (src != dst) {
      std::memmove(f->uArena + dst, f->uArena + src, sizeof(int) * static_cast<size_t>(len));
      std::memmove(static_cast<void*>(f->uArenaVal + dst), f->uArenaVal + src,
                   sizeof(T) * static_cast<size_t>(len));
    }
    b.rBeg[x] = dst;
    b.rCap[x] = dst + len;
    dst += len;
  }
  f->uArenaTop = dst;
}

template <class T>
void compactCols(F<T>* f) {
  VRXfactorBuildWork<T>& b = f->bw;
  int64_t dst = 0;
  for (int x = b.cArHead; x >= 0; x = b.cArNext[x]) {
    int64_t src = b.cBeg[x];
    int len = b.cLen[x];
    if (src != dst)
      std::memmove(b.cArena + dst, b.cArena + src, sizeof(int) * static_cast<size_t>(len));
    b.cBeg[x] = dst;
    b.cCap[x] = dst + len;
    dst += len;
  }
  b.cArenaTop = dst;
}

// Room for one more entry in active row i; false when the arena is full.
template <class T>
bool rowRoom(F<T>* f, int i) {
  VRXfactorBuildWork<T>& b = f->bw;
  if (b.rBeg[i] + b.rLen[i] < b.rCap[i]) return true;
  int len = b.rLen[i];
  int64_t need = len + std::max(4, len / 2);
  if (b.rArTail == i && b.rBeg[i] + need <= f->uArenaCap) {
    b.rCap[i] = b.rBeg[i] + need;
    f->uArenaTop = b.rCap[i];
    return true;
  }
  if (f->uArenaTop + need > f->uArenaCap) {
    compactRows(f);
    if (b.rArTail == i && b.rBeg[i] + need <= f->uArenaCap) {
      b.rCap[i] = b.rBeg[i] + need;
      f->uArenaTop = b.rCap[i];
      return true;
    }
    if (f->uArenaTop + need > f->uArenaCap) return false;
  }
  int64_t dst = f->uArenaTop;
  std::memcpy(f->uArena + dst, f->uArena + b.rBeg[i], sizeof(int) * static_cast<size_t>(len));
  std::memcpy(static_cast<void*>(f->uArenaVal + dst), f->uArenaVal + b.rBeg[i],
              sizeof(T) * static_cast<size_t>(len));
  b.rBeg[i] = dst;
  b.rCap[i] = dst + need;
  f->uArenaTop = dst + need;
  arUnlink(b.rArNext, b.rArPrev, &b.rArHead, &b.rArTail, i);
  arAppend(b.rArNext, b.rArPrev, &b.rArHead, &b.rArTail, i);
  return true;
}

template <class T>
bool colRoom(F<T>* f, int c) {
  VRXfactorBuildWork<T>& b = f->bw;
  if (b.cBeg[c] + b.cLen[c] < b.cCap[c]) return true;
  int len = b.cLen[c];
  int64_t need = len + std::max(4, len / 2);
  if (b.cArTail == c && b.cBeg[c] + need <= b.cArenaCap) {
    b.cCap[c] = b.cBeg[c] + need;
    b.cArenaTop = b.cCap[c];
    return true;
  }
  if (b.cArenaTop + need > b.cArenaCap) {
    compactCols(f);
    if (b.cArTail == c && b.cBeg[c] + need <= b.cArenaCap) {
      b.cCap[c] = b.cBeg[c] + need;
      b.cArenaTop = b.cCap[c];
      return true;
    }
    if (b.cArenaTop + need > b.cArenaCap) return false;
  }
  int64_t dst = b.cArenaTop;
  std::memcpy(b.cArena + dst, b.cArena + b.cBeg[c], sizeof(int) * static_cast<size_t>(len));
  b.cBeg[c] = dst;
  b.cCap[c] = dst + need;
  b.cArenaTop = dst + need;
  arUnlink(b.cArNext, b.cArPrev, &b.cArHead, &b.cArTail, c);
  arAppend(b.cArNext, b.cArPrev, &b.cArHead, &b.cArTail, c);
  return true;
}

template <class T>
void colRemove(F<T>* f, int c, int r) {
  VRXfactorBuildWork<T>& b = f->bw;
  int* ind = b.cArena + b.cBeg[c];
  int len = b.cLen[c];
  for (int k = 0; k < len; k++) {
    if (ind[k] == r) {
      ind[k] = ind[len - 1];
      b.cLen[c] = len - 1;
      return;
    }
  }
}

template <class T>
int64_t rowFind(const F<T>* f, int r, int c) {
  const VRXfactorBuildWork<T>& b = f->bw;
  int64_t e = b.rBeg[r] + b.rLen[r];
  for (int64_t k = b.rBeg[r]; k < e; k++)
    if (f->uArena[k] == c) return k;
  return -1;
}

template <class T>
int lAppend(F<T>* f, int64_t* top, int row, T value) {
  if (*top >= f->lColCap) {
    int64_t cap = std::max<int64_t>(f->lColCap + f->lColCap / 2, *top + 1024);
    if (!growArray(f->env, &f->lColInd, static_cast<size_t>(cap)) ||
        !growArray(f->env, &f->lColVal, static_cast<size_t>(cap)))
      return -10001;
    f->lColCap = cap;
  }
  f->lColInd[*top] = row;
  f->lColVal[*top] = value;
  (*top)++;
  return 0;
}

// ---------------------------------------------------------------- elimination

enum Phase { kNucleus = 0, kColSingleton = 1, kRowSingleton = 2 };

// Pivots on (r, c) and eliminates column c from the other active rows. The singleton phases
// feed the queue with new singletons instead of keeping the count lists.
template <class T>
int eliminate(F<T>* f, int r, int c, Phase phase, int64_t* lTop, int* qn, int64_t* ops) {
  VRXfactorBuildWork<T>& b = f->bw;
  int64_t kp = rowFind(f, r, c);
  if (kp < 0) return -10003;  // row and column storage disagree
  int64_t rb = b.rBeg[r];
  int rl = b.rLen[r] - 1;
  T piv = f->uArenaVal[kp];
  f->uArena[kp] = f->uArena[rb + rl];
  f->uArenaVal[kp] = f->uArenaVal[rb + rl];
  b.rLen[r] = rl;

  int t = b.pivots++;
  b.pivRow[t] = r;
  b.pivCol[t] = c;
  f->diag[r] = piv;
  f->colPerm[r] = c;
  f->colPermInv[c] = r;
  if (phase == kNucleus) {
    listUnlink(b.rcHead, b.rcNext, b.rcPrev, b.rcKey, r);
    listUnlink(b.ccHead, b.ccNext, b.ccPrev, b.ccKey, c);
  }
  b.rState[r] = 1;
  b.cState[c] = 1;
  b.activeNz -= rl + 1;

  for (int k = 0; k < rl; k++) {
    int j = f->uArena[rb + k];
    b.pcols[k] = j;
    b.scat[j] = f->uArenaVal[rb + k];
    b.stamp[j] = 1;
    colRemove(f, j, r);
  }
  int nr = 0;
  {
    const int* ci = b.cArena + b.cBeg[c];
    for (int k = 0; k < b.cLen[c]; k++)
      if (ci[k] != r) b.prows[nr++] = ci[k];
  }
  b.cLen[c] = 0;
  *ops += rl + nr;

  for (int q = 0; q < nr; q++) {
    int i = b.prows[q];
    int64_t ki = rowFind(f, i, c);
    if (ki < 0) return -10003;
    int64_t ib = b.rBeg[i];
    int il = b.rLen[i] - 1;
    T a = f->uArenaVal[ki];
    f->uArena[ki] = f->uArena[ib + il];
    f->uArenaVal[ki] = f->uArenaVal[ib + il];
    b.activeNz--;
    T l = a / piv;
    int rc = lAppend(f, lTop, i, l);
    if (rc) return rc;
    *ops += il + 1;
    if (rl > 0) {
      for (int64_t k = ib; k < ib + il;) {
        int j = f->uArena[k];
        if (b.stamp[j] == 1) {
          T v = f->uArenaVal[k] - l * b.scat[j];
          b.stamp[j] = 2;
          if (absT(v) <= T(kTiny)) {
            f->uArena[k] = f->uArena[ib + il - 1];
            f->uArenaVal[k] = f->uArenaVal[ib + il - 1];
            il--;
            colRemove(f, j, i);
            b.activeNz--;
            continue;
          }
          f->uArenaVal[k] = v;
        }
        k++;
      }
      b.rLen[i] = il;
      for (int k = 0; k < rl; k++) {
        int j = b.pcols[k];
        if (b.stamp[j] == 2) {
          b.stamp[j] = 1;
          continue;
        }
        T v = -l * b.scat[j];
        if (absT(v) <= T(kTiny)) continue;
        if (!rowRoom(f, i) || !colRoom(f, j)) return -1;
        int64_t pos = b.rBeg[i] + b.rLen[i];
        f->uArena[pos] = j;
        f->uArenaVal[pos] = v;
        b.rLen[i]++;
        b.cArena[b.cBeg[j] + b.cLen[j]] = i;
        b.cLen[j]++;
        b.activeNz++;
      }
      *ops += rl;
    } else {
      b.rLen[i] = il;
    }
    b.rMax[i] = T(-1);
    if (phase == kRowSingleton) {
      if (b.rLen[i] == 1) b.queue[(*qn)++] = i;
    } else if (phase == kNucleus) {
      relinkRow(f, i);
    }
  }
  b.lStart[t + 1] = *lTop;

  for (int k = 0; k < rl; k++) {
    int j = b.pcols[k];
    b.stamp[j] = 0;
    b.scat[j] = T(0);
    if (phase == kColSingleton) {
      if (b.cLen[j] == 1 && b.cState[j] == 0) b.queue[(*qn)++] = j;
    } else if (phase == kNucleus) {
      relinkCol(f, j);
    }
  }
  return 0;
}

// ---------------------------------------------------------------- Markowitz search

template <class T>
T refreshRowMax(F<T>* f, int r) {
  VRXfactorBuildWork<T>& b = f->bw;
  if (b.rMax[r] >= T(0)) return b.rMax[r];
  T mx = T(0);
  const T* v = f->uArenaVal + b.rBeg[r];
  for (int k = 0; k < b.rLen[r]; k++) mx = std::max(mx, absT(v[k]));
  b.rMax[r] = mx;
  return mx;
}

// Searches the count lists up to maxCount; the search stops early by the usual bound.
template <class T>
bool findPivot(F<T>* f, double u, double zeroTol, int maxCount, int* pr, int* pc, int64_t* ops) {
  VRXfactorBuildWork<T>& b = f->bw;
  const int m = f->m;
  const int nucleus = m - b.pivots;
  const int limit = std::min(4, nucleus);
  const T tu = T(u), tz = T(zeroTol);
  int bestR = -1, bestC = -1, searched = 0;
  int64_t bestMerit = INT64_MAX;
  T bestRatio = T(0);
  auto offer = [&](int r, int c, int64_t merit, T ratio) {
    if (merit < bestMerit || (merit == bestMerit && ratio > bestRatio)) {
      bestMerit = merit;
      bestRatio = ratio;
      bestR = r;
      bestC = c;
    }
  };
  for (int k = 1; k <= maxCount; k++) {
    int64_t bound = static_cast<int64_t>(k) * k;
    if (bestR >= 0 && bestMerit <= bound) break;
    for (int c = b.ccHead[k]; c >= 0;) {
      int next = b.ccNext[c];
      const int* ci = b.cArena + b.cBeg[c];
      T cmax = T(0);
      for (int q = 0; q < k; q++) {
        int64_t pos = rowFind(f, ci[q], c);
        T a = absT(f->uArenaVal[pos]);
        b.colVals[q] = a;
        cmax = std::max(cmax, a);
        *ops += b.rLen[ci[q]];
      }
      bool eligible = false;
      for (int q = 0; q < k; q++) {
        T a = b.colVals[q];
        if (a > tz && a > tu * cmax) {
          eligible = true;
          offer(ci[q], c, static_cast<int64_t>(b.rLen[ci[q]]) * k, a / cmax);
        }
      }
      if (!eligible) {
        listUnlink(b.ccHead, b.ccNext, b.ccPrev, b.ccKey, c);
        b.cState[c] = 2;
      } else if (++searched >= limit) {
        break;
      }
      if (bestR >= 0 && bestMerit <= bound) break;
      c = next;
    }
    if (bestR >= 0 && (searched >= limit || bestMerit <= bound)) break;
    for (int r = b.rcHead[k]; r >= 0;) {
      int next = b.rcNext[r];
      T rmax = refreshRowMax(f, r);
      const int* ri = f->uArena + b.rBeg[r];
      const T* rv = f->uArenaVal + b.rBeg[r];
      bool eligible = false;
      for (int q = 0; q < k; q++) {
        T a = absT(rv[q]);
        if (a > tz && a > tu * rmax) {
          eligible = true;
          offer(r, ri[q], static_cast<int64_t>(k) * b.cLen[ri[q]], a / rmax);
        }
      }
      *ops += k;
      if (!eligible) {
        listUnlink(b.rcHead, b.rcNext, b.rcPrev, b.rcKey, r);
        b.rState[r] = 2;
      } else if (++searched >= limit) {
        break;
      }
      if (bestR >= 0 && bestMerit <= bound) break;
      r = next;
    }
    if (bestR >= 0 && (searched >= limit || bestMerit <= bound)) break;
  }
  *pr = bestR;
  *pc = bestC;
  return bestR >= 0;
}

// ---------------------------------------------------------------- dense tail

// Factors the remaining nucleus densely. 0 done, 1 singular block (the sparse elimination
// goes on), -1 arena too small, -10001 out of memory.
template <class T>
int denseTail(F<T>* f, double zeroTol, int64_t* lTop, int64_t* ops) {
  VRXfactorBuildWork<T>& b = f->bw;
  const int m = f->m;
  const int r = m - b.pivots;
  int nr = 0, nc = 0;
  for (int i = 0; i < m; i++)
    if (b.rState[i] != 1) b.denseRows[nr++] = i;
  for (int c = 0; c < m; c++)
    if (b.cState[c] != 1) b.denseCols[nc++] = c;
  if (nr != r || nc != r) return -10003;
  int64_t rr = static_cast<int64_t>(r) * r;
  if (b.denseCap < rr) {
    if (!growArray(f->env, &b.dense, static_cast<size_t>(rr))) return -10001;
    b.denseCap = rr;
  }
  T* D = b.dense;
  std::memset(static_cast<void*>(D), 0, sizeof(T) * static_cast<size_t>(rr));
  for (int q = 0; q < r; q++) b.stamp[b.denseCols[q]] = q + 1;
  for (int li = 0; li < r; li++) {
    int i = b.denseRows[li];
    const int* ri = f->uArena + b.rBeg[i];
    const T* rv = f->uArenaVal + b.rBeg[i];
    for (int k = 0; k < b.rLen[i]; k++)
      D[static_cast<int64_t>(b.stamp[ri[k]] - 1) * r + li] = rv[k];
  }
  for (int q = 0; q < r; q++) b.stamp[b.denseCols[q]] = 0;
  *ops += rr * r / 3;
  int info = denseLU(r, D, b.ipiv);
  if (info < 0) return -10003;
  if (info > 0) return 1;
  // A pivot the sparse search would not take: let it find the dependent columns.
  for (int k = 0; k < r; k++)
    if (absT(D[static_cast<int64_t>(k) * r + k]) <= T(zeroTol)) return 1;

  for (int i = 0; i < r; i++) b.perm[i] = i;
  for (int k = 0; k < r; k++) std::swap(b.perm[k], b.perm[b.ipiv[k] - 1]);

  int64_t uNeed = rr / 2 + r;
  if (f->uArenaTop + uNeed > f->uArenaCap) {
    compactRows(f);
    if (f->uArenaTop + uNeed > f->uArenaCap) return -1;
  }
  if (*lTop + rr / 2 + r > f->lColCap) {
    int64_t cap = *lTop + rr / 2 + r + 1024;
    if (!growArray(f->env, &f->lColInd, static_cast<size_t>(cap)) ||
        !growArray(f->env, &f->lColVal, static_cast<size_t>(cap)))
      return -10001;
    f->lColCap = cap;
  }
  for (int k = 0; k < r; k++) {
    int row = b.denseRows[b.perm[k]];
    int col = b.denseCols[k];
    const T* Dk = D + static_cast<int64_t>(k) * r;
    int t = b.pivots++;
    b.pivRow[t] = row;
    b.pivCol[t] = col;
    f->diag[row] = Dk[k];
    f->colPerm[row] = col;
    f->colPermInv[col] = row;
    b.rState[row] = 1;
    b.cState[col] = 1;
    for (int i = k + 1; i < r; i++) {
      T l = Dk[i];
      if (absT(l) > T(kTiny)) {
        f->lColInd[*lTop] = b.denseRows[b.perm[i]];
        f->lColVal[*lTop] = l;
        (*lTop)++;
      }
    }
    b.lStart[t + 1] = *lTop;
    int64_t pos = f->uArenaTop;
    b.rBeg[row] = pos;
    for (int j = k + 1; j < r; j++) {
      T v = D[static_cast<int64_t>(j) * r + k];
      if (absT(v) > T(kTiny)) {
        f->uArena[pos] = b.denseCols[j];
        f->uArenaVal[pos] = v;
        pos++;
      }
    }
    b.rLen[row] = static_cast<int>(pos - b.rBeg[row]);
    b.rCap[row] = pos;
    f->uArenaTop = pos;
    arUnlink(b.rArNext, b.rArPrev, &b.rArHead, &b.rArTail, row);
    arAppend(b.rArNext, b.rArPrev, &b.rArHead, &b.rArTail, row);
  }
  b.activeNz = 0;
  f->denseDim = r;
  return 0;
}

// ---------------------------------------------------------------- finishing

// Turns the build's pivot sequence into the solve structures.
template <class T>
int finish(F<T>* f, int64_t lTop, double wf, double* work) {
  VRXfactorBuildWork<T>& b = f->bw;
  VRXenv* env = f->env;
  const int m = f->m;
  if (f->nUpdatesDone > 0) {
    f->fillAvg = static_cast<int>(f->fillSum / f->nUpdatesDone);
    f->etaAvg = static_cast<int>(f->rowEtaNz / f->nUpdatesDone);
  }
  for (int t = 0; t < m; t++) {
    f->rowPerm[t] = b.pivRow[t];
    f->rowPermInv[b.pivRow[t]] = t;
  }
  for (int t = m; t < m + f->updateCap; t++) f->rowPerm[t] = -1;
  f->lastUsedPos = m;

  // L by columns: the build wrote it in pivot order already.
  f->lColCount = 0;
  for (int t = 0; t < m; t++) {
    int r = b.pivRow[t];
    if (b.lStart[t + 1] > b.lStart[t]) {
      int k = f->lColCount++;
      f->lColPivot[k] = r;
      f->lColBeg[k] = b.lStart[t];
      f->lColOfRow[r] = k;
    } else {
      f->lColOfRow[r] = -1;
    }
  }
  f->lColBeg[f->lColCount] = lTop;
  f->lzNz = lTop;

  // L by rows.
  if (f->lRowCap < lTop) {
    int64_t cap = lTop + lTop / 4 + 16;
    if (!growArray(env, &f->lRowInd, static_cast<size_t>(cap)) ||
        !growArray(env, &f->lRowVal, static_cast<size_t>(cap)))
      return -10001;
    f->lRowCap = cap;
  }
  int64_t* cursor = f->stackPos;
  std::memset(f->lRowBeg, 0, sizeof(int64_t) * (static_cast<size_t>(m) + 1));
  for (int64_t e = 0; e < lTop; e++) f->lRowBeg[f->lColInd[e] + 1]++;
  for (int i = 0; i < m; i++) f->lRowBeg[i + 1] += f->lRowBeg[i];
  for (int i = 0; i < m; i++) cursor[i] = f->lRowBeg[i];
  for (int k = 0; k < f->lColCount; k++) {
    int pr = f->lColPivot[k];
    for (int64_t e = f->lColBeg[k]; e < f->lColBeg[k + 1]; e++) {
      int64_t pos = cursor[f->lColInd[e]]++;
      f->lRowInd[pos] = pr;
      f->lRowVal[pos] = f->lColVal[e];
    }
  }
  f->lRowListCount = 0;
  for (int t = 0; t < m; t++) {
    int i = b.pivRow[t];
    if (f->lRowBeg[i + 1] > f->lRowBeg[i]) f->lRowList[f->lRowListCount++] = i;
  }

  // U by rows, packed in pivot order, column numbers turned into U rows.
  int64_t unz = 0;
  for (int r = 0; r < m; r++) unz += b.rLen[r];
  // Updates add entries to rows and whole columns: leave room for a cycle of spikes as
  // large as those of the last cycle.
  const int gap = f->updateLimit > 0 ? 2 : 0;
  const int64_t M = m;
  const int64_t spikes = static_cast<int64_t>(f->updateLimit) * std::max(f->fillAvg, 4);
  int64_t rowCapNeed = unz + unz / 2 + (gap + 4) * M + 2 * spikes + 64;
  int64_t colCapNeed = unz + unz / 2 + 2 * M + spikes + spikes / 4 + 64;
  if (f->uRowArenaCap < rowCapNeed) {
    if (!growArray(env, &f->uRowInd, static_cast<size_t>(rowCapNeed)) ||
        !growArray(env, &f->uRowVal, static_cast<size_t>(rowCapNeed)))
      return -10001;
    f->uRowArenaCap = rowCapNeed;
  }
  if (f->uColArenaCap < colCapNeed) {
    if (!growArray(env, &f->uColInd, static_cast<size_t>(colCapNeed)) ||
        !growArray(env, &f->uColVal, static_cast<size_t>(colCapNeed)))
      return -10001;
    f->uColArenaCap = colCapNeed;
  }
  int64_t pos = 0;
  int* colCount = b.queue;
  std::memset(colCount, 0, sizeof(int) * static_cast<size_t>(m));
  for (int t = 0; t < m; t++) {
    int r = b.pivRow[t];
    f->uRowBeg[r] = pos;
    const int* ri = f->uArena + b.rBeg[r];
    const T* rv = f->uArenaVal + b.rBeg[r];
    for (int k = 0; k < b.rLen[r]; k++) {
      int j = f->colPermInv[ri[k]];
      f->uRowInd[pos] = j;
      f->uRowVal[pos] = rv[k];
      colCount[j]++;
      pos++;
    }
    f->uRowEnd[r] = pos;
    pos += gap;
    f->uRowCap[r] = pos;
  }
  f->uRowTop = pos;

  // U by columns.
  pos = 0;
  for (int t = 0; t < m; t++) {
    int r = b.pivRow[t];
    f->uColBeg[r] = pos;
    f->uColEnd[r] = pos;
    pos += colCount[r];
  }
  f->uColTop = pos;
  for (int r = 0; r < m; r++) {
    for (int64_t e = f->uRowBeg[r]; e < f->uRowEnd[r]; e++) {
      int j = f->uRowInd[e];
      int64_t p = f->uColEnd[j]++;
      f->uColInd[p] = r;
      f->uColVal[p] = f->uRowVal[e];
    }
  }
  f->uNz = unz;
  int64_t etaNeed =
      static_cast<int64_t>(f->updateLimit) * std::max(f->etaAvg, 4) * 5 / 4 + 2 * M + 1024;
  if (f->etaCap < etaNeed) {
    if (!growArray(env, &f->etaInd, static_cast<size_t>(etaNeed)) ||
        !growArray(env, &f->etaVal, static_cast<size_t>(etaNeed)))
      return -10001;
    f->etaCap = etaNeed;
  }

  int64_t z = f->lzNz + f->uNz;
  if (z <= m) {
    f->sparseRatio = 2;
  } else {
    double d = static_cast<double>(z) / m + 1.0;
    f->sparseRatio = static_cast<int>(std::min<double>(m, 5.0 * d * d));
  }
  for (int64_t e = 0; e < f->etaBeg[f->rowEtaCount]; e++) f->etaFirst[f->etaInd[e]] = 0;
  for (int u = 0; u < f->rowEtaCount; u++) f->etaLastOfRow[f->etaPivotRow[u]] = 0;
  f->nUpdatesDone = 0;
  f->rowEtaCount = 0;
  f->rowEtaNz = 0;
  f->fillSum = 0;
  f->etaBeg[0] = 0;
  f->valid = 1;
  f->freshBasis = 0;

  double bytes = 24.0 * static_cast<double>(z);
  double s = bytes <= 2e6 ? 1.0 : (bytes >= 4e6 ? 10.0 : 1.0 + 9.0 * (bytes - 2e6) / 2e6);
  *work += (2.0 * m + static_cast<double>(z)) * 2.0 * s * wf;
  f->workAtBuild = *work;
  return 0;
}

}  // namespace
}  // namespace lu
}  // namespace vrx

// ---------------------------------------------------------------- life cycle

template <class T>
void VRXfactorFree(VRXfactorT<T>** fp) {
  if (!fp || !*fp) return;
  VRXfactorT<T>* f = *fp;
  VRXenv* env = f->env;
  void* blocks[] = {
      f->basisHead,    f->rowPerm,      f->rowPermInv, f->colPerm,   f->colPermInv, f->lColPivot,
      f->lColOfRow,    f->lColBeg,      f->lColInd,    f->lColVal,   f->lRowBeg,    f->lRowInd,
      f->lRowVal,      f->lRowList,     f->diag,       f->uRowBeg,   f->uRowEnd,    f->uRowCap,
      f->uRowInd,      f->uRowVal,      f->uColBeg,    f->uColEnd,   f->uColInd,    f->uColVal,
      f->etaBeg,       f->etaPivotRow,  f->etaInd,     f->etaVal,    f->etaFirst,   f->uArena,     f->uArenaVal,
      f->etaLastOfRow, f->etaPrevSame,  f->etaHeap,    f->etaMark,
      f->unpivotedPos, f->pivotlessRow, f->wv,         f->wi,        f->inList,     f->visited,
      f->stack,        f->stackPos,     f->reach,      f->bw.rBeg,   f->bw.rCap,    f->bw.rLen,
      f->bw.rArNext,   f->bw.rArPrev,   f->bw.cBeg,    f->bw.cCap,   f->bw.cLen,    f->bw.cArNext,
      f->bw.cArPrev,   f->bw.rcHead,    f->bw.rcNext,  f->bw.rcPrev, f->bw.rcKey,   f->bw.ccHead,
      f->bw.ccNext,    f->bw.ccPrev,    f->bw.ccKey,   f->bw.rState, f->bw.cState,  f->bw.rMax,
      f->bw.stamp,     f->bw.scat,      f->bw.queue,   f->bw.pcols,  f->bw.prows,   f->bw.colVals,
      f->bw.pivRow,    f->bw.pivCol,    f->bw.lStart,  f->bw.ipiv,   f->bw.perm,    f->bw.denseRows,
      f->bw.denseCols, f->bw.dense,     f->bw.cArena};
  for (void* p : blocks) vrx::envFree(env, p);
  vrx::svecFree(env, &f->spike);
  vrx::svecFree(env, &f->rowEta);
  vrx::envFree(env, f);
  *fp = nullptr;
}

template <class T>
int VRXfactorCreate(VRXenv* env, int m, int updateLimit, VRXfactorT<T>** out) {
  using vrx::envAllocArray;
  using vrx::envCallocArray;
  *out = nullptr;
  if (m < 0 || updateLimit < 0) return VRX_ERROR_INVALID_ARGUMENT;
  auto* f = envCallocArray<VRXfactorT<T>>(env, 1);
  if (!f) return VRX_ERROR_OUT_OF_MEMORY;
  f->env = env;
  f->m = m;
  f->freshBasis = 1;
  f->dropTol = env->par.VORN_PAR_ZERO;
  f->updateLimit = updateLimit;
  f->updateCap = updateLimit;
  f->rowEtaPos = -1;
  f->solveWorkRate = 1.0;
  f->wcount = 0;
  const size_t M = static_cast<size_t>(m) + 1;
  const size_t U = static_cast<size_t>(updateLimit) + 1;
  bool ok = true;
  auto I = [&](int** p, size_t n) { ok = ok && (*p = envAllocArray<int>(env, n)) != nullptr; };
  auto L = [&](int64_t** p, size_t n) {
    ok = ok && (*p = envAllocArray<int64_t>(env, n)) != nullptr;
  };
  auto V = [&](T** p, size_t n) { ok = ok && (*p = envCallocArray<T>(env, n)) != nullptr; };
  auto C = [&](char** p, size_t n) { ok = ok && (*p = envCallocArray<char>(env, n)) != nullptr; };
  I(&f->basisHead, M);
  I(&f->rowPerm, M + U);
  I(&f->rowPermInv, M);
  I(&f->colPerm, M);
  I(&f->colPermInv, M);
  I(&f->lColPivot, M);
  I(&f->lColOfRow, M);
  L(&f->lColBeg, M);
  L(&f->lRowBeg, M);
  I(&f->lRowList, M);
  V(&f->diag, M);
  L(&f->uRowBeg, M);
  L(&f->uRowEnd, M);
  L(&f->uRowCap, M);
  L(&f->uColBeg, M);
  L(&f->uColEnd, M);
  L(&f->etaBeg, U);
  I(&f->etaPivotRow, U);
  ok = ok && (f->etaFirst = envCallocArray<int>(env, M)) != nullptr;
  ok = ok && (f->etaLastOfRow = envCallocArray<int>(env, M)) != nullptr;
  I(&f->etaPrevSame, U);
  I(&f->etaHeap, U);
  C(&f->etaMark, U);
  I(&f->unpivotedPos, M);
  I(&f->pivotlessRow, M);
  V(&f->wv, M);
  I(&f->wi, M);
  C(&f->inList, M);
  C(&f->visited, M);
  I(&f->stack, M);
  L(&f->stackPos, M);
  I(&f->reach, M);
  VRXfactorBuildWork<T>& b = f->bw;
  L(&b.rBeg, M);
  L(&b.rCap, M);
  I(&b.rLen, M);
  I(&b.rArNext, M);
  I(&b.rArPrev, M);
  L(&b.cBeg, M);
  L(&b.cCap, M);
  I(&b.cLen, M);
  I(&b.cArNext, M);
  I(&b.cArPrev, M);
  I(&b.rcHead, M + 1);
  I(&b.rcNext, M);
  I(&b.rcPrev, M);
  I(&b.rcKey, M);
  I(&b.ccHead, M + 1);
  I(&b.ccNext, M);
  I(&b.ccPrev, M);
  I(&b.ccKey, M);
  C(&b.rState, M);
  C(&b.cState, M);
  V(&b.rMax, M);
  ok = ok && (b.stamp = envCallocArray<int>(env, M)) != nullptr;
  V(&b.scat, M);
  I(&b.queue, M);
  I(&b.pcols, M);
  I(&b.prows, M);
  V(&b.colVals, M);
  I(&b.pivRow, M);
  I(&b.pivCol, M);
  L(&b.lStart, M);
  I(&b.ipiv, M);
  I(&b.perm, M);
  I(&b.denseRows, M);
  I(&b.denseCols, M);
  if (ok) ok = vrx::svecAlloc(env, &f->spike, m) == 0;
  if (ok) ok = vrx::svecAlloc(env, &f->rowEta, m) == 0;
  if (!ok) {
    VRXfactorFree(&f);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  for (int p = 0; p < m; p++) f->basisHead[p] = -1;
  f->etaBeg[0] = 0;
  *out = f;
  return 0;
}

template <class T>
int VRXfactorSetUpdateLimit(VRXfactorT<T>* f, int updateLimit) {
  if (updateLimit < 0) return VRX_ERROR_INVALID_ARGUMENT;
  if (updateLimit > f->updateCap) {
    if (f->valid && f->nUpdatesDone > 0) return VRX_ERROR_INVALID_ARGUMENT;
    const size_t M = static_cast<size_t>(f->m) + 1;
    const size_t U = static_cast<size_t>(updateLimit) + 1;
    if (!vrx::lu::growArray(f->env, &f->rowPerm, M + U) ||
        !vrx::lu::growArray(f->env, &f->etaBeg, U) ||
        !vrx::lu::growArray(f->env, &f->etaPivotRow, U) || !vrx::lu::growArray(f->env, &f->etaPrevSame, U) ||
        !vrx::lu::growArray(f->env, &f->etaHeap, U) || !vrx::lu::growArray(f->env, &f->etaMark, U))
      return VRX_ERROR_OUT_OF_MEMORY;
    std::memset(f->etaMark, 0, U);
    for (size_t t = static_cast<size_t>(f->m) + f->updateCap; t < M + U; t++) f->rowPerm[t] = -1;
    f->updateCap = updateLimit;
  }
  f->updateLimit = updateLimit;
  return 0;
}

// ---------------------------------------------------------------- the build

template <class T>
int VRXfactorBuild(VRXfactorT<T>* f, const VRXfactorMatrix* A, const int* basisHead, double zeroTol,
                   double markowitzTol, double workFactor, double* work) {
  using namespace vrx::lu;
  VRXfactorBuildWork<T>& b = f->bw;
  VRXenv* env = f->env;
  const int m = f->m;
  if (A->m != m || A->n < 0) return -10003;
  if (basisHead && basisHead != f->basisHead)
    std::memcpy(f->basisHead, basisHead, sizeof(int) * static_cast<size_t>(m));
  const int* head = f->basisHead;
  f->A = *A;
  f->valid = 0;
  f->unpivotedCount = 0;
  f->denseDim = 0;
  f->cheapPivots = 0;
  f->solveWorkRate = workFactor;
  f->dropTol = env->par.VORN_PAR_ZERO;
  if (f->spikeValid) vrx::svecClear(&f->spike, m);
  f->spikeValid = 0;
  if (f->rowEtaPos >= 0) vrx::svecClear(&f->rowEta, m);
  f->rowEtaPos = -1;
  const int n = A->n;
  const int nTotal = n + m;

  // An aborted build can leave marks behind.
  std::memset(b.stamp, 0, sizeof(int) * static_cast<size_t>(m));
  std::memset(static_cast<void*>(b.scat), 0, sizeof(T) * static_cast<size_t>(m));

  // Rows and column patterns of the basis, entries at most zeroTol left out.
  int64_t z = 0;
  for (int i = 0; i < m; i++) b.rLen[i] = 0;
  for (int p = 0; p < m; p++) {
    int v = head[p];
    if (v < 0 || v >= nTotal) return -10003;
    if (v >= n) {
      b.rLen[v - n]++;
      z++;
      continue;
    }
    const int64_t beg = A->colBeg[v];
    for (int64_t k = beg; k < beg + A->colLen[v]; k++) {
      int r = A->rowInd[k];
      if (r < 0 || r >= m) return -10003;
      if (std::fabs(A->val[k]) > zeroTol) {
        b.rLen[r]++;
        z++;
      }
    }
  }
  // The first build sizes the arena from a fill guess; later ones keep what the retries
  // grew it to and only make sure the basis itself fits.
  int64_t need = z + z / 2 + 6 * static_cast<int64_t>(m) + 64;
  if (f->uArenaCap == 0) {
    double d = m > 0 ? static_cast<double>(z) / m : 1.0;
    double g = m < 500
                   ? d * d
                   : (m < 3000 ? d * std::sqrt(d) : (m < 10000 ? d * std::sqrt(std::sqrt(d)) : d));
    g = std::min(g, m / 2.0 + 2.0);
    need = std::max<int64_t>(need, static_cast<int64_t>(2.0 * g * m));
  }
  if (f->uArenaCap < need) {
    if (!growArray(env, &f->uArena, static_cast<size_t>(need)) ||
        !growArray(env, &f->uArenaVal, static_cast<size_t>(need)))
      return -10001;
    f->uArenaCap = need;
  }
  if (b.cArenaCap < f->uArenaCap) {
    if (!growArray(env, &b.cArena, static_cast<size_t>(f->uArenaCap))) return -10001;
    b.cArenaCap = f->uArenaCap;
  }
  if (f->lColCap < z + 1024) {
    int64_t cap = z + 1024;
    if (!growArray(env, &f->lColInd, static_cast<size_t>(cap)) ||
        !growArray(env, &f->lColVal, static_cast<size_t>(cap)))
      return -10001;
    f->lColCap = cap;
  }

  int64_t pos = 0;
  for (int i = 0; i < m; i++) {
    b.rBeg[i] = pos;
    pos += b.rLen[i] + b.rLen[i] / 2 + 2;
    b.rCap[i] = pos;
    b.rLen[i] = 0;
    b.rArPrev[i] = i - 1;
    b.rArNext[i] = i + 1 < m ? i + 1 : -1;
  }
  f->uArenaTop = pos;
  b.rArHead = m > 0 ? 0 : -1;
  b.rArTail = m - 1;
  pos = 0;
  for (int p = 0; p < m; p++) {
    int v = head[p];
    int len = 0;
    b.cBeg[p] = pos;
    if (v >= n) {
      int r = v - n;
      int64_t q = b.rBeg[r] + b.rLen[r]++;
      f->uArena[q] = p;
      f->uArenaVal[q] = T(1);
      b.cArena[pos] = r;
      len = 1;
    } else {
      const int64_t beg = A->colBeg[v];
      for (int64_t k = beg; k < beg + A->colLen[v]; k++) {
        double a = A->val[k];
        if (std::fabs(a) <= zeroTol) continue;
        int r = A->rowInd[k];
        if (b.stamp[r] == p + 1) {  // repeated row in one column
          for (int q = 0; q < len; q++) b.stamp[b.cArena[pos + q]] = 0;
          return -10003;
        }
        b.stamp[r] = p + 1;
        int64_t q = b.rBeg[r] + b.rLen[r]++;
        f->uArena[q] = p;
        f->uArenaVal[q] = T(a);
        b.cArena[pos + len++] = r;
      }
      for (int q = 0; q < len; q++) b.stamp[b.cArena[pos + q]] = 0;
    }
    b.cLen[p] = len;
    pos += len + len / 2 + 2;
    b.cCap[p] = pos;
    b.cArPrev[p] = p - 1;
    b.cArNext[p] = p + 1 < m ? p + 1 : -1;
  }
  b.cArenaTop = pos;
  b.cArHead = m > 0 ? 0 : -1;
  b.cArTail = m - 1;
  for (int i = 0; i < m; i++) {
    b.rState[i] = 0;
    b.cState[i] = 0;
    b.rMax[i] = T(-1);
    b.rcKey[i] = -1;
    b.ccKey[i] = -1;
  }
  for (int k = 0; k <= m; k++) {
    b.rcHead[k] = -1;
    b.ccHead[k] = -1;
  }
  b.pivots = 0;
  b.denseFailed = 0;
  b.activeNz = z;
  b.lStart[0] = 0;
  int64_t lTop = 0;
  int64_t ops = 0;
  int rc = 0;

  // Column singletons, then row singletons, in one sweep each.
  int qn = 0, qh = 0;
  for (int c = 0; c < m; c++)
    if (b.cLen[c] == 1) b.queue[qn++] = c;
  while (qh < qn) {
    int c = b.queue[qh++];
    if (b.cState[c] != 0 || b.cLen[c] != 1) continue;
    int r = b.cArena[b.cBeg[c]];
    rc = eliminate(f, r, c, kColSingleton, &lTop, &qn, &ops);
    if (rc) return rc;
  }
  qn = qh = 0;
  for (int r = 0; r < m; r++)
    if (b.rState[r] == 0 && b.rLen[r] == 1) b.queue[qn++] = r;
  while (qh < qn) {
    int r = b.queue[qh++];
    if (b.rState[r] != 0 || b.rLen[r] != 1) continue;
    int c = f->uArena[b.rBeg[r]];
    rc = eliminate(f, r, c, kRowSingleton, &lTop, &qn, &ops);
    if (rc) return rc;
  }
  f->singletonCount = b.pivots;
  *work += (5.0 * m + 100.0 + 3.0 * static_cast<double>(ops)) * workFactor;
  ops = 0;

  // The nucleus.
  if (b.pivots < m) {
    for (int i = 0; i < m; i++)
      if (b.rState[i] == 0 && b.rLen[i] > 0)
        listLink(b.rcHead, b.rcNext, b.rcPrev, b.rcKey, b.rLen[i], i);
    for (int c = 0; c < m; c++)
      if (b.cState[c] == 0 && b.cLen[c] > 0)
        listLink(b.ccHead, b.ccNext, b.ccPrev, b.ccKey, b.cLen[c], c);
  }
  while (b.pivots < m) {
    const int64_t r = m - b.pivots;
    if (!b.denseFailed && r > 50 && r * r > 4LL * m && m + r * r < 2000000000LL &&
        static_cast<double>(b.activeNz) > 0.36 * static_cast<double>(r * r)) {
      int64_t exact = 0;
      for (int i = 0; i < m; i++)
        if (b.rState[i] != 1) exact += b.rLen[i];
      if (static_cast<double>(exact) > 0.325 * static_cast<double>(r * r)) {
        rc = denseTail(f, zeroTol, &lTop, &ops);
        if (rc < 0) return rc;
        if (rc == 0) break;
        b.denseFailed = 1;
      }
    }
    // A sparse nucleus of middle size whose cheapest row and column lists are short enough
    // to give a good pivot: only those lists are searched.
    int pr, pc;
    bool found = false;
    if (r > 200 && r < 10000 && static_cast<double>(b.activeNz) < 0.25 * static_cast<double>(r * r)) {
      int cMin = 1, rMin = 1;
      while (cMin <= m && b.ccHead[cMin] < 0) cMin++;
      while (rMin <= m && b.rcHead[rMin] < 0) rMin++;
      ops += cMin + rMin;
      if (cMin <= m && rMin <= m && static_cast<double>(cMin) * rMin <= 0.1 * static_cast<double>(r)) {
        found = findPivot(f, markowitzTol, zeroTol, std::min(cMin, rMin), &pr, &pc, &ops);
        f->cheapPivots += found;
      }
    }
    if (!found && !findPivot(f, markowitzTol, zeroTol, m, &pr, &pc, &ops)) {
      // Entries at most zeroTol are no pivots: those columns go to the repair. An entry
      // above it that no search accepts is not a number the elimination can use.
      const T tz = T(zeroTol);
      for (int i = 0; i < m; i++) {
        if (b.rState[i] == 1) continue;
        const T* v = f->uArenaVal + b.rBeg[i];
        for (int k = 0; k < b.rLen[i]; k++)
          if (!(absT(v[k]) <= tz)) return -10014;
      }
      break;
    }
    rc = eliminate(f, pr, pc, kNucleus, &lTop, &qn, &ops);
    if (rc) return rc;
  }

  if (b.pivots < m) {
    int k = 0, kr = 0;
    for (int c = 0; c < m; c++)
      if (b.cState[c] != 1) f->unpivotedPos[k++] = c;
    for (int i = 0; i < m; i++)
      if (b.rState[i] != 1) f->pivotlessRow[kr++] = i;
    f->unpivotedCount = k;
    *work += static_cast<double>(ops) * workFactor;
    return k;
  }
  *work += static_cast<double>(ops) * workFactor;
  return finish(f, lTop, workFactor, work);
}

#define VRX_FACTOR_BUILD_INST(T)                                                             \
  template void VRXfactorFree<T>(VRXfactorT<T>**);                                           \
  template int VRXfactorCreate<T>(VRXenv*, int, int, VRXfactorT<T>**);                       \
  template int VRXfactorSetUpdateLimit<T>(VRXfactorT<T>*, int);                              \
  template int VRXfactorBuild<T>(VRXfactorT<T>*, const VRXfactorMatrix*, const int*, double, \
                                 double, double, double*);
VRX_FACTOR_BUILD_INST(double)
VRX_FACTOR_BUILD_INST(long double)
