// The symmetry pass of the LP driver. Colour refinement finds an equitable
// partition of rows and columns (coefficients, objective, bounds and sides as
// colours); the columns of a cell are merged into their sum, and the rows of a
// cell, identical after that, keep one of them.
//
// Why this is sound for an LP, without an automorphism: with X and Y the
// matrices that average over the column and the row cells, an equitable
// partition gives A X = Y A, c X = c, Y b = b, and equal bounds and senses in a
// cell. So X x is feasible and optimal whenever x is, and X x is constant on
// the cells: asking x_j = x_k inside a cell keeps an optimum. The refinement
// hashes multisets; before anything is merged each cell is compared entry by
// entry, so a hash collision costs the merge, never the optimum.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "env/envvec.h"
#include "presolve/presolve.h"

namespace vrx {

namespace {

uint64_t mix64(uint64_t x) {
  x += 0x9E3779B97F4A7C15ULL;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
  return x ^ (x >> 31);
}

uint64_t coefHash(double a) {
  if (a == 0) a = 0;  // -0 and 0 alike
  uint64_t b;
  std::memcpy(&b, &a, sizeof b);
  return mix64(b);
}

// Items: columns 0..n-1, rows n..n+m-1. Calls f(item, coefficient) for each
// live entry of the item.
template <class F>
void eachEntry(const VRXpresolve* p, int v, F f) {
  const int n = p->numCols;
  if (v < n) {
    for (int64_t k = p->colHead[v]; k >= 0; k = p->slotNext[k]) f(n + p->slotRow[k], p->rowVal[k]);
    return;
  }
  const int r = v - n;
  const int64_t e = p->rowBeg[r] + p->rowLen[r];
  for (int64_t k = p->rowBeg[r]; k < e; ++k)
    if (p->rowInd[k] >= 0) f(p->rowInd[k], p->rowVal[k]);
}

// The partition: items of a cell lie together in elem; cells to refine with
// wait on a stack.
struct Partition {
  EnvVec<int> elem, pos, cellOf, beg, end, stack;
  EnvVec<char> queued;
  int cells = 0;
  explicit Partition(VRXenv* env)
      : elem(env), pos(env), cellOf(env), beg(env), end(env), stack(env), queued(env) {}
  int size(int c) const { return end[c] - beg[c]; }
  void push(int c) {
    if (queued[c]) return;
    queued[c] = 1;
    stack.push_back(c);
  }
};

// The starting colours: kind, then objective, bounds and type, or side and
// sense. -1, 0 or 1 as item a's colour comes before, with or after b's.
template <class T>
int order3(T a, T b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

int colourCmp(const VRXpresolve* p, int a, int b) {
  const int n = p->numCols;
  const bool ra = a >= n, rb = b >= n;
  if (ra != rb) return ra ? 1 : -1;
  int c = 0;
  if (!ra) {
    if ((c = order3(p->colType[a], p->colType[b])) || (c = order3(p->obj[a], p->obj[b])) ||
        (c = order3(p->lb[a], p->lb[b])))
      return c;
    return order3(p->ub[a], p->ub[b]);
  }
  if ((c = order3(p->sense[a - n], p->sense[b - n]))) return c;
  return order3(p->rhs[a - n], p->rhs[b - n]);
}

void initialCells(const VRXpresolve* p, Partition& P) {
  const int n = p->numCols, items = n + p->numRows;
  P.pos.resize(static_cast<size_t>(items), -1);
  P.cellOf.resize(static_cast<size_t>(items), -1);
  for (int j = 0; j < n; ++j)
    if (colLive(p, j)) P.elem.push_back(j);
  for (int i = 0; i < p->numRows; ++i)
    if (rowLive(p, i)) P.elem.push_back(n + i);
  std::sort(P.elem.data(), P.elem.data() + P.elem.size(), [&](int a, int b) {
    const int c = colourCmp(p, a, b);
    return c != 0 ? c < 0 : a < b;
  });
  const int live = static_cast<int>(P.elem.size());
  P.beg.resize(static_cast<size_t>(live) + 1);
  P.end.resize(static_cast<size_t>(live) + 1);
  P.queued.resize(static_cast<size_t>(live) + 1, 0);
  for (int t = 0; t < live; ++t) {
    const int v = P.elem[t];
    if (t == 0 || colourCmp(p, P.elem[t - 1], v) != 0) P.beg[P.cells++] = t;
    P.end[P.cells - 1] = t + 1;
    P.pos[v] = t;
    P.cellOf[v] = P.cells - 1;
  }
  for (int c = 0; c < P.cells; ++c) P.push(c);
}

// Splits every cell by the multiset of coefficients its items have towards the
// popped cell, until the partition is equitable. A cell that was not waiting
// sends all its pieces but the largest (the largest one's counts follow from
// the rest). false when the work budget ran out first.
bool refine(VRXpresolve* p, Partition& P, double budget) {
  VRXenv* env = p->env;
  const int items = p->numCols + p->numRows;
  EnvVec<uint64_t> sig(env);
  EnvVec<char> hit(env);
  EnvVec<int> touched(env), piece(env);
  sig.resize(static_cast<size_t>(items), 0);
  hit.resize(static_cast<size_t>(items), 0);
  const double start = *p->work;
  while (!P.stack.empty()) {
    if (*p->work - start > budget) return false;
    const int S = P.stack.back();
    P.stack.resize(P.stack.size() - 1);
    P.queued[S] = 0;
    touched.clear();
    double visits = 0;
    for (int t = P.beg[S]; t < P.end[S]; ++t)
      eachEntry(p, P.elem[t], [&](int u, double a) {
        if (!hit[u]) {
          hit[u] = 1;
          touched.push_back(u);
        }
        sig[u] += coefHash(a);
        visits += 1;
      });
    int* T = touched.data();
    const int nt = static_cast<int>(touched.size());
    std::sort(T, T + nt, [&](int a, int b) {
      return P.cellOf[a] != P.cellOf[b] ? P.cellOf[a] < P.cellOf[b] : sig[a] < sig[b];
    });
    for (int s = 0; s < nt;) {
      const int X = P.cellOf[T[s]];
      int e = s + 1;
      while (e < nt && P.cellOf[T[e]] == X) ++e;
      const int cnt = e - s, sizeX = P.size(X);
      const bool oneGroup = sig[T[s]] == sig[T[e - 1]];
      if (sizeX > 1 && !(cnt == sizeX && oneGroup)) {
        // The touched items go to the back of the cell in signature order.
        int q = P.end[X] - 1;
        for (int t = e - 1; t >= s; --t, --q) {
          const int u = T[t], at = P.pos[u], w = P.elem[q];
          P.elem[at] = w;
          P.pos[w] = at;
          P.elem[q] = u;
          P.pos[u] = q;
        }
        const bool wasQueued = P.queued[X] != 0;
        piece.clear();
        const int untouched = sizeX - cnt;
        int first = P.end[X] - cnt;
        if (untouched > 0) {
          P.end[X] = first;
          piece.push_back(X);
        }
        for (int g = s; g < e;) {
          int h = g + 1;
          while (h < e && sig[T[h]] == sig[T[g]]) ++h;
          int c = X;
          if (!(untouched == 0 && g == s)) c = P.cells++;
          P.beg[c] = first;
          P.end[c] = first + (h - g);
          for (int t = P.beg[c]; t < P.end[c]; ++t) P.cellOf[P.elem[t]] = c;
          first = P.end[c];
          piece.push_back(c);
          g = h;
        }
        if (wasQueued) {
          for (size_t t = 0; t < piece.size(); ++t) P.push(piece[t]);
        } else {
          size_t big = 0;
          for (size_t t = 1; t < piece.size(); ++t)
            if (P.size(piece[t]) > P.size(piece[big])) big = t;
          for (size_t t = 0; t < piece.size(); ++t)
            if (t != big) P.push(piece[t]);
        }
      }
      s = e;
    }
    for (int t = 0; t < nt; ++t) {
      sig[T[t]] = 0;
      hit[T[t]] = 0;
    }
    charge(p, pwDepRows, visits + 2.0 * nt + P.size(S));
  }
  return true;
}

struct Entry {
  int cell;
  double val;
};

// Every item of a cell must see the same (cell, coefficient) multiset as the
// first: the partition is then equitable in exact arithmetic.
bool verify(VRXpresolve* p, const Partition& P) {
  EnvVec<Entry> a(p->env), b(p->env);
  auto load = [&](EnvVec<Entry>& out, int v) {
    out.clear();
    eachEntry(p, v, [&](int u, double x) { out.push_back(Entry{P.cellOf[u], x == 0 ? 0.0 : x}); });
    std::sort(out.data(), out.data() + out.size(),
              [](const Entry& l, const Entry& r) { return l.cell != r.cell ? l.cell < r.cell : l.val < r.val; });
  };
  double touched = 0;
  for (int c = 0; c < P.cells; ++c) {
    if (P.size(c) < 2) continue;
    load(a, P.elem[P.beg[c]]);
    for (int t = P.beg[c] + 1; t < P.end[c]; ++t) {
      load(b, P.elem[t]);
      touched += static_cast<double>(b.size());
      if (a.size() != b.size()) return false;
      for (size_t k = 0; k < a.size(); ++k)
        if (a[k].cell != b[k].cell || a[k].val != b[k].val) return false;
    }
  }
  charge(p, pwDepRows, 3.0 * touched);
  return true;
}

// The members of the cells worth merging, the kept one first (lowest index).
struct Cells {
  EnvVec<int> colLen, cols, rowLen, rows;
  explicit Cells(VRXenv* env) : colLen(env), cols(env), rowLen(env), rows(env) {}
};

void collect(const VRXpresolve* p, Partition& P, Cells& out) {
  const int n = p->numCols;
  for (int c = 0; c < P.cells; ++c) {
    if (P.size(c) < 2) continue;
    int* b = P.elem.data() + P.beg[c];
    std::sort(b, b + P.size(c));
    if (b[0] < n) {
      if (p->colType[b[0]] != 'C') continue;
      out.colLen.push_back(P.size(c));
      for (int t = 0; t < P.size(c); ++t) out.cols.push_back(b[t]);
    } else {
      out.rowLen.push_back(P.size(c));
      for (int t = 0; t < P.size(c); ++t) out.rows.push_back(b[t] - n);
    }
  }
}

// Writes the records and changes the problem: the oldest record of the pass
// lists all cells, for the basis of the walk back.
void merge(VRXpresolve* p, const Cells& C) {
  VRXenv* env = p->env;
  const int nC = static_cast<int>(C.colLen.size()), nR = static_cast<int>(C.rowLen.size());
  const int trailer = 2 + nR + static_cast<int>(C.rows.size()) + nC + static_cast<int>(C.cols.size());
  for (int c = 0, at = 0; c < nC; at += C.colLen[c++]) {
    const int k = C.colLen[c];
    const int extra = c == 0 ? trailer : 2;
    VRXundo* u = undoPush(env, p->undo, UNDO_MERGECOLS, 2 + k + extra, 0);
    int* I = undoInts(u);
    I[0] = C.cols[at];
    I[1] = k;
    for (int t = 0; t < k; ++t) I[2 + t] = C.cols[at + t];
    int* tr = I + 2 + k;
    tr[0] = tr[1] = 0;
    if (c > 0) continue;
    tr[0] = nR;
    tr[1] = nC;
    int w = 2;
    for (int r = 0; r < nR; ++r) tr[w++] = C.rowLen[r];
    for (size_t t = 0; t < C.rows.size(); ++t) tr[w++] = C.rows[t];
    for (int q = 0; q < nC; ++q) tr[w++] = C.colLen[q];
    for (size_t t = 0; t < C.cols.size(); ++t) tr[w++] = C.cols[t];
  }
  // Rows of a cell are identical once the columns are merged: one stays.
  for (int r = 0, at = 0; r < nR; at += C.rowLen[r++])
    for (int t = 1; t < C.rowLen[r]; ++t) removeRow(p, C.rows[at + t], -1);
  // Each kept column becomes the sum: coefficient the members' average, bounds k times.
  EnvVec<double> sum(env);
  EnvVec<int64_t> slot(env);
  EnvVec<int> rowsHit(env);
  EnvVec<char> hit(env);
  sum.resize(static_cast<size_t>(p->numRows), 0.0);
  slot.resize(static_cast<size_t>(p->numRows), -1);
  hit.resize(static_cast<size_t>(p->numRows), 0);
  double touched = 0;
  for (int c = 0, at = 0; c < nC; at += C.colLen[c++]) {
    const int k = C.colLen[c], keep = C.cols[at];
    rowsHit.clear();
    for (int t = 0; t < k; ++t) {
      const int j = C.cols[at + t];
      for (int64_t s = p->colHead[j]; s >= 0; s = p->slotNext[s]) {
        const int r = p->slotRow[s];
        if (!hit[r]) {
          hit[r] = 1;
          rowsHit.push_back(r);
        }
        sum[r] += p->rowVal[s];
        if (j == keep) slot[r] = s;
        touched += 1;
      }
    }
    for (int t = 1; t < k; ++t) {
      const int j = C.cols[at + t];
      while (p->colHead[j] >= 0) deleteEntry(p, p->colHead[j]);
      p->colCount[j] = -3;
      p->lb[j] = p->ub[j] = 0;
      p->liveCols--;
      p->counters.colsRemoved++;
    }
    double amin = kInf, amax = 0;
    for (size_t t = 0; t < rowsHit.size(); ++t) {
      const int r = rowsHit[t];
      const double v = sum[r] / k;
      if (slot[r] >= 0) {
        if (v == 0)
          deleteEntry(p, slot[r]);
        else
          changeEntry(p, slot[r], v);
      } else if (v != 0) {
        addEntry(p, r, keep, v);
      }
      if (v != 0) {
        amin = std::min(amin, std::fabs(v));
        amax = std::max(amax, std::fabs(v));
      }
      sum[r] = 0;
      slot[r] = -1;
      hit[r] = 0;
    }
    if (amax > 0) {
      p->colAbsMin[keep] = std::min(p->colAbsMin[keep], amin);
      p->colAbsMax[keep] = std::max(p->colAbsMax[keep], amax);
    }
    const double lo = p->lb[keep], up = p->ub[keep];
    setLower(p, keep, isInf(p, lo) ? lo : k * lo);
    setUpper(p, keep, isInf(p, up) ? up : k * up);
    markCol(p, keep);
  }
  charge(p, pwDepRows, 6.0 * touched);
}

}  // namespace

int symmetryPass(VRXpresolve* p, double limit) {
  VRXenv* env = p->env;
  // The refinement may spend limit times ten sweeps over the matrix.
  const double budget = limit * 10.0 * (static_cast<double>(p->nzCount) + p->numCols + p->numRows) * p->workScale;
  Partition P(env);
  initialCells(p, P);
  if (!refine(p, P, budget)) return kPreOk;
  Cells C(env);
  collect(p, P, C);
  if (C.colLen.empty()) return kPreOk;
  if (!verify(p, P)) return kPreOk;
  merge(p, C);
  allActivities(p);
  return kPreOk;
}

}  // namespace vrx
