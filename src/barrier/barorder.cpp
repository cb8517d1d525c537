// Dense columns and the fill-reducing ordering of A A'.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"

namespace vrx {

int VRXbarDenseCols(VRXenv* env, const BarMatrix& A, const BarFactorOpts& opts, VRXbarfactor* f) {
  const int n = A.n, m = A.m;
  envFree(env, f->isDense);
  envFree(env, f->denseColList);
  f->isDense = envCallocArray<char>(env, static_cast<size_t>(n) + 1);
  f->denseColList = nullptr;
  f->denseCols = 0;
  if (!f->isDense) return VRX_ERROR_OUT_OF_MEMORY;
  if (opts.denseSep == 1 || n == 0 || m == 0) return 0;
  Scratch<int64_t> hist(env, static_cast<size_t>(m) + 2);
  if (!hist.a) return VRX_ERROR_OUT_OF_MEMORY;
  std::fill(hist.a, hist.a + m + 2, 0);
  for (int j = 0; j < n; ++j) hist.a[A.colBeg[j + 1] - A.colBeg[j]]++;
  // The first length whose columns alone cost more than all shorter ones together,
  // while only a few columns are that long.
  int64_t threshold = -1;
  double acc = 0;
  int64_t passed = 0;
  for (int c = 0; c <= m; ++c) {
    if (hist.a[c] == 0) continue;
    const double cc = static_cast<double>(c) * c;
    const int64_t remaining = n - passed;
    if (acc < cc && remaining * 5 < c) {
      threshold = c;
      break;
    }
    acc += cc * static_cast<double>(hist.a[c]);
    passed += hist.a[c];
  }
  if (opts.denseThresh != -1) threshold = opts.denseThresh;
  if (threshold < 0) return 0;
  int count = 0;
  for (int j = 0; j < n; ++j) {
    const double c = static_cast<double>(A.colBeg[j + 1] - A.colBeg[j]);
    if (c < threshold || c < 2) continue;
    // Kept sparse unless the pairs it adds to A A' cost clearly more than the Schur terms.
    const double sparseCost = c * c;
    const double denseCost = 2.25 * c;
    if (opts.denseThresh == -1 && !(10 * denseCost + 1000 < sparseCost)) continue;
    f->isDense[j] = 1;
    ++count;
  }
  if (count == 0) return 0;
  f->denseColList = envAllocArray<int>(env, static_cast<size_t>(count));
  if (!f->denseColList) return VRX_ERROR_OUT_OF_MEMORY;
  for (int j = 0; j < n; ++j)
    if (f->isDense[j]) f->denseColList[f->denseCols++] = j;
  return 0;
}

void barDropDense(VRXenv* env, int n, VRXbarfactor* f) {
  std::memset(f->isDense, 0, static_cast<size_t>(n));
  envFree(env, f->denseColList);
  f->denseColList = nullptr;
  f->denseCols = 0;
  f->denseRetry = 1;
}

// Pattern of A A' over the sparse columns: both triangles, no diagonal.
int productPattern(VRXenv* env, const BarMatrix& A, const char* isDense, int64_t** xadjOut, int** adjOut,
                   double* aatNz) {
  const int m = A.m;
  Scratch<int> mark(env, static_cast<size_t>(m) + 1);
  int64_t* xadj = envAllocArray<int64_t>(env, static_cast<size_t>(m) + 1);
  if (!mark.a || !xadj) {
    envFree(env, xadj);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  std::fill(mark.a, mark.a + m, -1);
  // Two passes: count, then fill.
  int64_t total = 0;
  xadj[0] = 0;
  for (int i = 0; i < m; ++i) {
    mark.a[i] = i;
    for (int64_t p = A.rowBeg[i]; p < A.rowBeg[i + 1]; ++p) {
      const int k = A.rowCol[p];
      if (isDense && isDense[k]) continue;
      for (int64_t q = A.colBeg[k]; q < A.colBeg[k + 1]; ++q) {
        const int r = A.rowInd[q];
        if (mark.a[r] != i) {
          mark.a[r] = i;
          ++total;
        }
      }
    }
    xadj[i + 1] = total;
  }
  int* adj = envAllocArray<int>(env, static_cast<size_t>(total) + 1);
  if (!adj) {
    envFree(env, xadj);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  std::fill(mark.a, mark.a + m, -1);
  int64_t pos = 0;
  for (int i = 0; i < m; ++i) {
    mark.a[i] = i;
    for (int64_t p = A.rowBeg[i]; p < A.rowBeg[i + 1]; ++p) {
      const int k = A.rowCol[p];
      if (isDense && isDense[k]) continue;
      for (int64_t q = A.colBeg[k]; q < A.colBeg[k + 1]; ++q) {
        const int r = A.rowInd[q];
        if (mark.a[r] != i) {
          mark.a[r] = i;
          adj[pos++] = r;
        }
      }
    }
  }
  *xadjOut = xadj;
  *adjOut = adj;
  if (aatNz) *aatNz = static_cast<double>(total) + m;
  return 0;
}

// Elimination tree of the permuted pattern; parent -1 at a root.
int eliminationTree(VRXenv* env, int n, const int64_t* xadj, const int* adj, const int* perm, const int* invPerm,
                    int* parent) {
  Scratch<int> anc(env, static_cast<size_t>(n) + 1);
  if (!anc.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int j = 0; j < n; ++j) {
    parent[j] = -1;
    anc.a[j] = -1;
    const int o = perm[j];
    for (int64_t p = xadj[o]; p < xadj[o + 1]; ++p) {
      int i = invPerm[adj[p]];
      if (i >= j) continue;
      // Climb with path compression to the root of i's current tree.
      while (i != -1 && i != j) {
        const int next = anc.a[i];
        anc.a[i] = j;
        if (next == -1) parent[i] = j;
        i = next;
      }
    }
  }
  return 0;
}

// Column counts of the factor (diagonal included) by the row subtrees.
int columnCounts(VRXenv* env, int n, const int64_t* xadj, const int* adj, const int* perm, const int* invPerm,
                 const int* parent, int* count) {
  Scratch<int> mark(env, static_cast<size_t>(n) + 1);
  if (!mark.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int j = 0; j < n; ++j) {
    count[j] = 1;
    mark.a[j] = -1;
  }
  for (int i = 0; i < n; ++i) {
    mark.a[i] = i;
    const int o = perm[i];
    for (int64_t p = xadj[o]; p < xadj[o + 1]; ++p) {
      int k = invPerm[adj[p]];
      if (k >= i) continue;
      while (k != -1 && mark.a[k] != i) {
        count[k]++;
        mark.a[k] = i;
        k = parent[k];
      }
    }
  }
  return 0;
}

int predictFactor(VRXenv* env, int n, const int64_t* xadj, const int* adj, const int* perm, double* nz,
                  double* ops) {
  Scratch<int> inv(env, static_cast<size_t>(n) + 1), parent(env, static_cast<size_t>(n) + 1),
      cnt(env, static_cast<size_t>(n) + 1);
  if (!inv.a || !parent.a || !cnt.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int j = 0; j < n; ++j) inv.a[perm[j]] = j;
  int rc = eliminationTree(env, n, xadj, adj, perm, inv.a, parent.a);
  if (!rc) rc = columnCounts(env, n, xadj, adj, perm, inv.a, parent.a, cnt.a);
  if (rc) return rc;
  double z = 0, o = 0;
  for (int j = 0; j < n; ++j) {
    z += cnt.a[j];
    o += static_cast<double>(cnt.a[j]) * cnt.a[j];
  }
  *nz = z;
  *ops = o;
  return 0;
}

namespace {

// The quotient graph of the minimum degree elimination.
struct Amd {
  VRXenv* env;
  int n;
  int64_t iwlen;
  int* iw;
  int* iw2;
  int64_t pfree;
  int64_t* pe;
  int* len;
  int* elen;   // elements at the head of a variable's list
  int* nv;     // supervariable weight; negated while in the pivot's element
  int* kind;   // 0 variable, 1 element, 2 absorbed element, 3 merged or mass-eliminated, 4 postponed
  int* degree;
  int* head;
  int* next;
  int* last;
  int64_t* w;
  int* esize;
  int* leader;  // the node a merged or mass-eliminated node follows
  int64_t wflg;
  int mindeg;
  double work;  // list entries touched, the deterministic cost of the run

  void bucketRemove(int i) {
    if (last[i] >= 0)
      next[last[i]] = next[i];
    else
      head[degree[i]] = next[i];
    if (next[i] >= 0) last[next[i]] = last[i];
    next[i] = last[i] = -1;
  }
  void bucketInsert(int i) {
    int d = degree[i];
    if (d > n - 1) d = n - 1;
    if (d < 0) d = 0;
    degree[i] = d;
    next[i] = head[d];
    last[i] = -1;
    if (head[d] >= 0) last[head[d]] = i;
    head[d] = i;
    if (d < mindeg) mindeg = d;
  }
  bool liveList(int i) const { return kind[i] == 0 || kind[i] == 1 || kind[i] == 4; }
  // Moves every live list to the front of the spare block; grows it when even that is short.
  bool compact(int64_t need) {
    int64_t used = 0;
    for (int i = 0; i < n; ++i)
      if (liveList(i)) used += len[i];
    work += static_cast<double>(n) + 2.0 * static_cast<double>(used);
    int64_t cap = iwlen;
    if (used + need > cap) cap = (used + need) * 3 / 2 + n;
    if (cap != iwlen) {
      int* a = static_cast<int*>(envRealloc(env, iw2, sizeof(int) * static_cast<size_t>(cap)));
      if (!a) return false;
      iw2 = a;
    }
    int64_t pos = 0;
    for (int i = 0; i < n; ++i) {
      if (!liveList(i)) continue;
      std::memcpy(iw2 + pos, iw + pe[i], sizeof(int) * static_cast<size_t>(len[i]));
      pe[i] = pos;
      pos += len[i];
    }
    std::swap(iw, iw2);
    if (cap != iwlen) {
      int* b = static_cast<int*>(envRealloc(env, iw2, sizeof(int) * static_cast<size_t>(cap)));
      if (!b) return false;
      iw2 = b;
      iwlen = cap;
    }
    pfree = pos;
    return true;
  }
};

}  // namespace

int VRXbarAMD(VRXenv* env, int n, const int64_t* xadj, const int* adj, int* order, double* work) {
  if (n == 0) return 0;
  const int64_t nnz = xadj[n];
  Amd g{};
  g.env = env;
  g.n = n;
  g.work = 2.0 * static_cast<double>(nnz) + 20.0 * n;
  g.iwlen = nnz + nnz / 2 + 4 * static_cast<int64_t>(n) + 16;
  g.iw = envAllocArray<int>(env, static_cast<size_t>(g.iwlen));
  g.iw2 = envAllocArray<int>(env, static_cast<size_t>(g.iwlen));
  Scratch<int64_t> pe(env, n), w(env, n);
  Scratch<int> len(env, n), elen(env, n), nv(env, n), kind(env, n), degree(env, n), head(env, n), next(env, n),
      last(env, n), esize(env, n), leader(env, n), hashv(env, n), stamp(env, n), extDeg(env, n);
  auto freeLists = [&] {
    envFree(env, g.iw);
    envFree(env, g.iw2);
  };
  if (!g.iw || !g.iw2 || !pe.a || !w.a || !len.a || !elen.a || !nv.a || !kind.a || !degree.a || !head.a ||
      !next.a || !last.a || !esize.a || !leader.a || !hashv.a || !stamp.a || !extDeg.a) {
    freeLists();
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  g.pe = pe.a;
  g.len = len.a;
  g.elen = elen.a;
  g.nv = nv.a;
  g.kind = kind.a;
  g.degree = degree.a;
  g.head = head.a;
  g.next = next.a;
  g.last = last.a;
  g.w = w.a;
  g.esize = esize.a;
  g.leader = leader.a;
  std::memcpy(g.iw, adj, sizeof(int) * static_cast<size_t>(nnz));
  g.pfree = nnz;
  g.wflg = 2;
  g.mindeg = n;
  // Nodes of very high degree go last, out of the graph.
  const int dense = std::max(16, static_cast<int>(10 * std::sqrt(static_cast<double>(n))));
  for (int i = 0; i < n; ++i) {
    g.pe[i] = xadj[i];
    g.len[i] = static_cast<int>(xadj[i + 1] - xadj[i]);
    g.elen[i] = 0;
    g.nv[i] = 1;
    g.kind[i] = 0;
    g.w[i] = 1;
    g.head[i] = -1;
    g.next[i] = g.last[i] = -1;
    g.leader[i] = -1;
    g.esize[i] = 0;
    stamp.a[i] = -1;
    g.degree[i] = g.len[i];
  }
  int postponed = 0;
  for (int i = 0; i < n; ++i) {
    if (g.degree[i] > dense && n > 64) {
      g.kind[i] = 4;
      g.nv[i] = 0;
      ++postponed;
    }
  }
  // Ties go to the lowest index: insert from the back.
  for (int i = n - 1; i >= 0; --i)
    if (g.kind[i] == 0) g.bucketInsert(i);

  int outCount = 0;
  Scratch<int> pivots(env, n);
  if (!pivots.a) {
    freeLists();
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  int npiv = 0;
  int eliminated = 0;
  const int target = n - postponed;
  while (eliminated < target) {
    while (g.mindeg < n && g.head[g.mindeg] < 0) ++g.mindeg;
    if (g.mindeg >= n) break;
    const int p = g.head[g.mindeg];
    g.bucketRemove(p);
    pivots.a[npiv++] = p;
    int nvpiv = g.nv[p];
    eliminated += nvpiv;
    g.nv[p] = -nvpiv;

    // The new element: everything reachable through p's elements and variables.
    int64_t need = g.len[p];
    for (int t = 0; t < g.elen[p]; ++t) {
      const int e = g.iw[g.pe[p] + t];
      if (g.kind[e] == 1) need += g.len[e];
    }
    if (g.pfree + need > g.iwlen && !g.compact(need)) {
      freeLists();
      return VRX_ERROR_OUT_OF_MEMORY;
    }
    const int64_t pme1 = g.pfree;
    int64_t pme2 = pme1;
    auto take = [&](int i) {
      if (g.kind[i] != 0 || g.nv[i] <= 0) return;
      g.nv[i] = -g.nv[i];
      g.iw[pme2++] = i;
      g.bucketRemove(i);
    };
    const int64_t pp = g.pe[p];
    for (int t = 0; t < g.len[p]; ++t) {
      const int e = g.iw[pp + t];
      if (t < g.elen[p]) {
        if (g.kind[e] != 1) continue;
        for (int s = 0; s < g.len[e]; ++s) take(g.iw[g.pe[e] + s]);
        g.kind[e] = 2;  // absorbed into p
        g.leader[e] = p;
      } else {
        take(e);
      }
    }
    g.pfree = pme2;
    g.work += static_cast<double>(need) + g.elen[p] + static_cast<double>(pme2 - pme1);
    g.kind[p] = 1;
    g.pe[p] = pme1;
    g.len[p] = static_cast<int>(pme2 - pme1);
    g.elen[p] = 0;

    // |Le \ Lp| for the elements next to the new one, in w relative to wflg.
    const int64_t wflg = g.wflg;
    for (int64_t q = pme1; q < pme2; ++q) {
      const int i = g.iw[q];
      const int nvi = -g.nv[i];
      g.work += 2.0 * g.len[i] + g.elen[i] + 4;
      for (int t = 0; t < g.elen[i]; ++t) {
        const int e = g.iw[g.pe[i] + t];
        if (g.kind[e] != 1) continue;
        if (g.w[e] >= wflg)
          g.w[e] -= nvi;
        else
          g.w[e] = wflg + g.esize[e] - nvi;
      }
    }

    // Degrees, list cleaning, mass elimination and the hash for supervariables.
    for (int64_t q = pme1; q < pme2; ++q) {
      const int i = g.iw[q];
      const int nvi = -g.nv[i];
      const int64_t beg = g.pe[i];
      int64_t dst = beg;
      int deg = 0;
      uint64_t hash = 0;
      int ne = 0;
      for (int t = 0; t < g.elen[i]; ++t) {
        const int e = g.iw[beg + t];
        if (g.kind[e] != 1) continue;
        const int64_t ext = g.w[e] - wflg;
        if (ext <= 0) {
          // Aggressive absorption: e lies inside the new element.
          g.kind[e] = 2;
          g.leader[e] = p;
          continue;
        }
        deg += static_cast<int>(ext);
        g.iw[dst++] = e;
        hash += static_cast<uint64_t>(e);
        ++ne;
      }
      const int64_t vbeg = dst;
      for (int t = g.elen[i]; t < g.len[i]; ++t) {
        const int j = g.iw[beg + t];
        if (g.kind[j] != 0 || g.nv[j] <= 0) continue;  // merged, in the element, or gone
        deg += g.nv[j];
        g.iw[dst++] = j;
        hash += static_cast<uint64_t>(j);
      }
      if (ne == 0 && dst == vbeg) {
        // Only p is left next to i: it goes with p.
        g.kind[i] = 3;
        g.leader[i] = p;
        g.nv[i] = 0;
        nvpiv += nvi;
        eliminated += nvi;
        g.len[i] = 0;
        continue;
      }
      // p goes first among i's elements; the list shrank by at least one slot.
      const int64_t nl = dst - beg;
      if (nl > 0) {
        g.iw[beg + nl] = g.iw[beg + ne];
        g.iw[beg + ne] = p;
      } else {
        g.iw[beg] = p;
      }
      g.len[i] = static_cast<int>(nl + 1);
      g.elen[i] = ne + 1;
      extDeg.a[i] = deg;
      hashv.a[i] = static_cast<int>((hash + static_cast<uint64_t>(p)) % static_cast<uint64_t>(n));
    }

    // Supervariables: equal lists among the nodes of the new element.
    for (int64_t q = pme1; q < pme2; ++q) {
      const int i = g.iw[q];
      if (g.kind[i] != 0 || g.nv[i] >= 0) continue;
      const int h = hashv.a[i];
      // Mark i's list, then look for later nodes with the same hash and list.
      bool marked = false;
      for (int64_t r = q + 1; r < pme2; ++r) {
        const int j = g.iw[r];
        if (g.kind[j] != 0 || g.nv[j] >= 0 || hashv.a[j] != h) continue;
        if (g.len[j] != g.len[i] || g.elen[j] != g.elen[i]) continue;
        if (!marked) {
          g.work += 2.0 * g.len[i];
          for (int t = 0; t < g.len[i]; ++t) stamp.a[g.iw[g.pe[i] + t]] = i;
          marked = true;
        }
        bool same = true;
        g.work += g.len[j];
        for (int t = 0; t < g.len[j] && same; ++t) same = stamp.a[g.iw[g.pe[j] + t]] == i;
        if (!same) continue;
        // j joins i.
        g.nv[i] += g.nv[j];  // both negative
        g.kind[j] = 3;
        g.leader[j] = i;
        g.nv[j] = 0;
        g.len[j] = 0;
      }
      if (marked)
        for (int t = 0; t < g.len[i]; ++t) stamp.a[g.iw[g.pe[i] + t]] = -1;
    }

    // Back into the buckets; the element keeps only its principal variables.
    int64_t dst = pme1;
    int esz = 0;
    for (int64_t q = pme1; q < pme2; ++q) {
      const int i = g.iw[q];
      if (g.kind[i] != 0 || g.nv[i] >= 0) continue;
      g.nv[i] = -g.nv[i];
      esz += g.nv[i];
      g.iw[dst++] = i;
    }
    for (int64_t q = pme1; q < dst; ++q) {
      const int i = g.iw[q];
      // External degree: outside i itself, through p and through the rest.
      const int64_t bound = std::min<int64_t>(static_cast<int64_t>(g.degree[i]) + esz - g.nv[i],
                                              static_cast<int64_t>(extDeg.a[i]) + esz - g.nv[i]);
      g.degree[i] = static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(bound, target - eliminated)));
      g.bucketInsert(i);
    }
    g.len[p] = static_cast<int>(dst - pme1);
    g.esize[p] = esz;
    g.nv[p] = nvpiv;
    if (g.len[p] == 0) g.kind[p] = 2;
    g.wflg = wflg + n + 2;
    if (g.wflg > (static_cast<int64_t>(1) << 60)) {
      for (int i = 0; i < n; ++i)
        if (g.kind[i] == 1) g.w[i] = 1;
      g.wflg = 2;
    }
  }

  // The order: each pivot, then the nodes that follow it (merged or mass-eliminated).
  Scratch<int> child(env, n), sib(env, n), stack(env, n);
  if (!child.a || !sib.a || !stack.a) {
    freeLists();
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  std::fill(child.a, child.a + n, -1);
  for (int i = n - 1; i >= 0; --i) {
    if (g.kind[i] == 3 && g.leader[i] >= 0) {
      sib.a[i] = child.a[g.leader[i]];
      child.a[g.leader[i]] = i;
    }
  }
  for (int t = 0; t < npiv; ++t) {
    int top = 0;
    stack.a[top++] = pivots.a[t];
    while (top > 0) {
      const int v = stack.a[--top];
      order[outCount++] = v;
      for (int c = child.a[v]; c >= 0; c = sib.a[c]) stack.a[top++] = c;
    }
  }
  // Anything the loop never reached (postponed rows and stragglers) goes last.
  Scratch<char> seen(env, n);
  if (!seen.a) {
    freeLists();
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  std::memset(seen.a, 0, static_cast<size_t>(n));
  for (int t = 0; t < outCount; ++t) seen.a[order[t]] = 1;
  for (int i = 0; i < n; ++i)
    if (!seen.a[i]) order[outCount++] = i;
  freeLists();
  if (work) *work += g.work;
  return 0;
}

}  // namespace vrx
