// Ordering driver and the supernodal symbolic factor.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"

namespace vrx {

namespace {

// The panel slots of each pair of entries of the sparse columns, so that each
// factor assembles A diag(theta) A' in one pass with no search. Skipped (the
// factor then assembles row by row) when the pairs would outweigh the factor.
int buildAssembly(VRXenv* env, const BarMatrix& A, VRXbarfactor* f) {
  const int n = A.n;
  const char* isDense = f->denseCols ? f->isDense : nullptr;
  double pairs = 0;
  for (int k = 0; k < n; ++k) {
    if (isDense && isDense[k]) continue;
    const double len = static_cast<double>(A.colBeg[k + 1] - A.colBeg[k]);
    pairs += len * (len + 1) / 2;
  }
  const double slots = static_cast<double>(f->panelBeg[f->superCount]);
  if (pairs > std::max(4 * slots + 4.0 * A.colBeg[n], 16e6) || slots >= 4294967295.0) return 0;
  f->asmBeg = envAllocArray<int64_t>(env, static_cast<size_t>(n) + 1);
  f->asmPairBeg = envAllocArray<int64_t>(env, static_cast<size_t>(n) + 1);
  f->asmIdx = envAllocArray<int>(env, static_cast<size_t>(A.colBeg[n]) + 1);
  f->asmOff = envAllocArray<uint32_t>(env, static_cast<size_t>(pairs) + 1);
  if (!f->asmBeg || !f->asmPairBeg || !f->asmIdx || !f->asmOff) return VRX_ERROR_OUT_OF_MEMORY;
  int64_t pi = 0, pp = 0;
  for (int k = 0; k < n; ++k) {
    f->asmBeg[k] = pi;
    f->asmPairBeg[k] = pp;
    if (isDense && isDense[k]) continue;
    const int64_t cb = A.colBeg[k];
    const int len = static_cast<int>(A.colBeg[k + 1] - cb);
    int* idx = f->asmIdx + pi;
    for (int t = 0; t < len; ++t) idx[t] = t;
    std::sort(idx, idx + len, [&](int a, int b) {
      return f->invPerm[A.rowInd[cb + a]] < f->invPerm[A.rowInd[cb + b]];
    });
    for (int a = 0; a < len; ++a) {
      const int ra = f->invPerm[A.rowInd[cb + idx[a]]];
      const int s = f->colSuper[ra];
      const int* set = f->superRowInd + f->superRows[s];
      const int64_t setLen = f->superRows[s + 1] - f->superRows[s];
      const uint32_t base =
          static_cast<uint32_t>(f->panelBeg[s] + static_cast<int64_t>(ra - f->superBeg[s]) * setLen);
      // The rows below ra in this column are ascending, and so is the row set.
      const int* pos = set;
      for (int b = a; b < len; ++b) {
        const int rb = f->invPerm[A.rowInd[cb + idx[b]]];
        pos = std::lower_bound(pos, set + setLen, rb);
        f->asmOff[pp++] = base + static_cast<uint32_t>(pos - set);
      }
    }
    pi += len;
  }
  f->asmBeg[n] = pi;
  f->asmPairBeg[n] = pp;
  return 0;
}

// The share of a merged supernode's flops that the zeros of a merge may add,
// by the merged width: narrow supernodes run slowly whatever their fill, and
// above the widest panel the rule is strict.
double mergeShare(int width) {
  if (width <= 4) return HUGE_VAL;
  if (width <= 16) return 0.8;
  return width <= 192 ? 0.3 : 0.1;
}

}  // namespace

void barFactorFree(VRXenv* env, VRXbarfactor* f) {
  if (!f) return;
  barFreeNumeric(env, f);
  envFreeAll(env, f->perm, f->invPerm, f->isDense, f->denseColList);
  f->perm = f->invPerm = f->denseColList = nullptr;
  f->isDense = nullptr;
  f->denseCols = 0;
}

int VRXbarOrder(VRXenv* env, const BarMatrix& A, const BarFactorOpts& opts, VRXbarfactor* f, double* nzOut,
                double* opsOut) {
  const int m = A.m;
  const double t0 = wallClock();
  f->threads = std::max(1, opts.threads);
  f->env = env;
  f->denseGS = opts.denseGS;
  int rc = VRXbarDenseCols(env, A, opts, f);
  if (rc) return rc;
  envFree(env, f->perm);
  envFree(env, f->invPerm);
  f->n = m;
  f->perm = envAllocArray<int>(env, static_cast<size_t>(m) + 1);
  f->invPerm = envAllocArray<int>(env, static_cast<size_t>(m) + 1);
  if (!f->perm || !f->invPerm) return VRX_ERROR_OUT_OF_MEMORY;
  double nz = 0, ops = 0;
  // Work of the minimum degree passes and of the predictions, in work units.
  double amdWork = 0;
  for (int round = 0; round < 2; ++round) {
    int64_t* xadj = nullptr;
    int* adj = nullptr;
    rc = productPattern(env, A, f->denseCols ? f->isDense : nullptr, &xadj, &adj, nullptr);
    if (rc) return rc;
    if (xadj[m] == 0) {
      // Nothing off the diagonal: the natural order is as good as any.
      for (int j = 0; j < m; ++j) f->perm[j] = j;
    } else {
      rc = VRXbarAMD(env, m, xadj, adj, f->perm, &amdWork);
    }
    if (!rc) rc = predictFactor(env, m, xadj, adj, f->perm, &nz, &ops);
    amdWork += predictWork(m, xadj);
    envFree(env, xadj);
    envFree(env, adj);
    if (rc) return rc;
    if (round == 1 || f->denseCols == 0 || opts.denseSep != -1) break;
    // Compare with the full matrix: the dense set stays only when it pays.
    Scratch<int> full(env, static_cast<size_t>(m) + 1);
    if (!full.a) return VRX_ERROR_OUT_OF_MEMORY;
    rc = productPattern(env, A, nullptr, &xadj, &adj, nullptr);
    if (rc) return rc;
    double nzFull = 0, opsFull = 0;
    rc = VRXbarAMD(env, m, xadj, adj, full.a, &amdWork);
    if (!rc) rc = predictFactor(env, m, xadj, adj, full.a, &nzFull, &opsFull);
    amdWork += predictWork(m, xadj);
    envFree(env, xadj);
    envFree(env, adj);
    if (rc) return rc;
    if (denseColumnOps(ops, nz, f->denseCols, m) <= opsFull) break;
    std::memcpy(f->perm, full.a, sizeof(int) * static_cast<size_t>(m));
    nz = nzFull;
    ops = opsFull;
    barDropDense(env, A.n, f);
    break;
  }
  f->amdWork = amdWork;
  f->orderWork = amdWork;
  rc = ndStage(env, A, opts, amdWork, f, &nz, &ops);
  if (rc) return rc;
  // In exact arithmetic the iteration ends after one step per dense column and one more.
  f->solveIterLimit = 2 * f->denseCols + 10;
  for (int j = 0; j < m; ++j) f->invPerm[f->perm[j]] = j;
  f->orderTime = wallClock() - t0;
  if (nzOut) *nzOut = nz;
  if (opsOut) *opsOut = ops;
  return 0;
}

int VRXbarSymbolic(VRXenv* env, const BarMatrix& A, VRXbarfactor* f) {
  barFreeNumeric(env, f);
  const int n = f->n;
  int64_t* xadj = nullptr;
  int* adj = nullptr;
  int rc = productPattern(env, A, f->denseCols ? f->isDense : nullptr, &xadj, &adj, nullptr);
  if (rc) return rc;
  struct Own {
    VRXenv* env;
    int64_t* x;
    int* a;
    ~Own() { envFreeAll(env, x, a); }
  } own{env, xadj, adj};
  const size_t sn = static_cast<size_t>(n) + 1;
  Scratch<int> parent(env, sn), cnt(env, sn), post(env, sn), child(env, sn), sib(env, sn), stack(env, sn);
  if (!parent.a || !cnt.a || !post.a || !child.a || !sib.a || !stack.a) return VRX_ERROR_OUT_OF_MEMORY;
  rc = eliminationTree(env, n, xadj, adj, f->perm, f->invPerm, parent.a);
  if (rc) return rc;
  // Postorder, so that subtrees are contiguous and chains can merge.
  std::fill(child.a, child.a + n, -1);
  for (int j = n - 1; j >= 0; --j) {
    if (parent.a[j] >= 0) {
      sib.a[j] = child.a[parent.a[j]];
      child.a[parent.a[j]] = j;
    }
  }
  int k = 0;
  for (int r = 0; r < n; ++r) {
    if (parent.a[r] >= 0) continue;
    int top = 0;
    stack.a[top++] = r;
    while (top > 0) {
      const int v = stack.a[top - 1];
      if (child.a[v] >= 0) {
        const int c = child.a[v];
        child.a[v] = sib.a[c];
        stack.a[top++] = c;
      } else {
        --top;
        post.a[k++] = v;
      }
    }
  }
  {
    Scratch<int> np(env, sn);
    if (!np.a) return VRX_ERROR_OUT_OF_MEMORY;
    for (int j = 0; j < n; ++j) np.a[j] = f->perm[post.a[j]];
    std::memcpy(f->perm, np.a, sizeof(int) * static_cast<size_t>(n));
    for (int j = 0; j < n; ++j) f->invPerm[f->perm[j]] = j;
  }
  rc = eliminationTree(env, n, xadj, adj, f->perm, f->invPerm, parent.a);
  if (!rc) rc = columnCounts(env, n, xadj, adj, f->perm, f->invPerm, parent.a, cnt.a);
  if (rc) return rc;

  // Fundamental supernodes, then chains merged while the zeros a merge adds stay
  // within the share its width allows.
  Scratch<int> sfirst(env, sn), scount(env, sn);
  if (!sfirst.a || !scount.a) return VRX_ERROR_OUT_OF_MEMORY;
  int ns = 0;
  for (int j = 0; j < n; ++j) {
    if (j > 0 && parent.a[j - 1] == j && cnt.a[j - 1] == cnt.a[j] + 1) continue;
    sfirst.a[ns++] = j;
  }
  sfirst.a[ns] = n;
  // Merged groups: start column, count of the first column, flops as one dense trapezoid.
  int groups = 0;
  Scratch<int> gfirst(env, sn);
  Scratch<double> gops(env, sn);
  if (!gfirst.a || !gops.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int s = 0; s < ns; ++s) {
    const int f0 = sfirst.a[s], w = sfirst.a[s + 1] - f0;
    const double o = supernodeOps(w, cnt.a[f0]);
    if (groups > 0) {
      const int g = groups - 1;
      const int gw = f0 - gfirst.a[g];
      // The previous group is a child when its last column's parent starts this supernode.
      if (parent.a[f0 - 1] == f0) {
        const int width = gw + w;
        const int first = gw + cnt.a[f0];
        const double merged = supernodeOps(width, first);
        if (merged - gops.a[g] - o < mergeShare(width) * merged) {
          gops.a[g] = merged;
          scount.a[g] = first;
          continue;
        }
      }
    }
    gfirst.a[groups] = f0;
    gops.a[groups] = o;
    scount.a[groups] = cnt.a[f0];
    ++groups;
  }
  gfirst.a[groups] = n;
  // Wide supernodes go into panels, narrower where one holds more than its
  // threads' share of the flops; the panels become supernodes of their own.
  double totalOps = 0;
  for (int g = 0; g < groups; ++g) totalOps += gops.a[g];
  const double threads = std::max(1, f->threads);
  Scratch<int> pcount(env, sn);
  if (!pcount.a) return VRX_ERROR_OUT_OF_MEMORY;
  ns = 0;
  for (int g = 0; g < groups; ++g) {
    const int g0 = gfirst.a[g], width = gfirst.a[g + 1] - g0, count = scount.a[g];
    const double share = totalOps / threads / std::max(supernodeOps(width, count), 1.0) / 2;
    const int pw = static_cast<int>(std::min(192.0, std::max(48.0, share)));
    for (int c = 0; c < width;) {
      int w = std::min(pw, width - c);
      if (width - c - w < 24) w = width - c;  // a short remainder joins this panel
      sfirst.a[ns] = g0 + c;
      pcount.a[ns] = count - c;
      ++ns;
      c += w;
    }
  }
  std::memcpy(gfirst.a, sfirst.a, sizeof(int) * static_cast<size_t>(ns));
  std::memcpy(scount.a, pcount.a, sizeof(int) * static_cast<size_t>(ns));
  gfirst.a[ns] = n;

  f->superCount = ns;
  f->etree = envAllocArray<int>(env, sn);
  f->superBeg = envAllocArray<int>(env, static_cast<size_t>(ns) + 1);
  f->colSuper = envAllocArray<int>(env, sn);
  f->superRows = envAllocArray<int64_t>(env, static_cast<size_t>(ns) + 1);
  f->panelBeg = envAllocArray<int64_t>(env, static_cast<size_t>(ns) + 1);
  f->relMap = envAllocArray<int>(env, sn);
  f->link = envAllocArray<int>(env, 2 * (static_cast<size_t>(ns) + 1));
  f->linkPos = envAllocArray<int64_t>(env, static_cast<size_t>(ns) + 1);
  f->dropped = envCallocArray<char>(env, sn);
  if (!f->etree || !f->superBeg || !f->colSuper || !f->superRows || !f->panelBeg || !f->relMap || !f->link ||
      !f->linkPos || !f->dropped)
    return VRX_ERROR_OUT_OF_MEMORY;
  std::memcpy(f->etree, parent.a, sizeof(int) * static_cast<size_t>(n));
  for (int s = 0; s <= ns; ++s) f->superBeg[s] = gfirst.a[s];
  for (int s = 0; s < ns; ++s)
    for (int j = f->superBeg[s]; j < f->superBeg[s + 1]; ++j) f->colSuper[j] = s;
  // Row sets: the columns' own entries and the sets of the child supernodes.
  int64_t total = 0;
  for (int s = 0; s < ns; ++s) total += scount.a[s] + (f->superBeg[s + 1] - f->superBeg[s]) - 1;
  f->superRowInd = envAllocArray<int>(env, static_cast<size_t>(total) + 1);
  if (!f->superRowInd) return VRX_ERROR_OUT_OF_MEMORY;
  Scratch<int> mark(env, sn), schild(env, static_cast<size_t>(ns) + 1), ssib(env, static_cast<size_t>(ns) + 1);
  if (!mark.a || !schild.a || !ssib.a) return VRX_ERROR_OUT_OF_MEMORY;
  std::fill(mark.a, mark.a + n, -1);
  std::fill(schild.a, schild.a + ns, -1);
  int64_t pos = 0;
  f->factorNz = 0;
  f->factorOps = 0;
  for (int s = 0; s < ns; ++s) {
    const int c0 = f->superBeg[s], c1 = f->superBeg[s + 1];
    f->superRows[s] = pos;
    const int64_t start = pos;
    for (int c = c0; c < c1; ++c) {
      mark.a[c] = s;
      f->superRowInd[pos++] = c;
    }
    for (int c = c0; c < c1; ++c) {
      const int o = f->perm[c];
      for (int64_t p = xadj[o]; p < xadj[o + 1]; ++p) {
        const int r = f->invPerm[adj[p]];
        if (r >= c1 && mark.a[r] != s) {
          mark.a[r] = s;
          f->superRowInd[pos++] = r;
        }
      }
    }
    for (int ch = schild.a[s]; ch >= 0; ch = ssib.a[ch]) {
      for (int64_t p = f->superRows[ch]; p < f->superRows[ch + 1]; ++p) {
        const int r = f->superRowInd[p];
        if (r >= c1 && mark.a[r] != s) {
          mark.a[r] = s;
          f->superRowInd[pos++] = r;
        }
      }
    }
    std::sort(f->superRowInd + start + (c1 - c0), f->superRowInd + pos);
    const int64_t nr = pos - start;
    if (nr > c1 - c0) {
      const int ps = f->colSuper[f->superRowInd[start + (c1 - c0)]];
      ssib.a[s] = schild.a[ps];
      schild.a[ps] = s;
    }
    const double width = c1 - c0;
    f->factorNz += width * static_cast<double>(nr) - width * (width - 1) / 2;
    f->factorOps += supernodeOps(c1 - c0, static_cast<double>(nr));
  }
  f->superRows[ns] = pos;
  // Panels and the largest update block.
  int64_t pv = 0, upd = 0;
  int maxRows = 0;
  for (int s = 0; s < ns; ++s) {
    const int64_t nr = f->superRows[s + 1] - f->superRows[s];
    const int nc = f->superBeg[s + 1] - f->superBeg[s];
    f->panelBeg[s] = pv;
    pv += nr * nc;
    maxRows = std::max<int>(maxRows, static_cast<int>(nr));
    int64_t p = f->superRows[s] + nc;
    const int64_t end = f->superRows[s + 1];
    while (p < end) {
      const int t = f->colSuper[f->superRowInd[p]];
      int64_t q = p;
      while (q < end && f->superRowInd[q] < f->superBeg[t + 1]) ++q;
      upd = std::max(upd, (end - p) * (q - p));
      p = q;
    }
  }
  f->panelBeg[ns] = pv;
  f->updateSize = upd;
  f->panelVal = envAllocArray<double>(env, static_cast<size_t>(pv) + 1);
  f->update = envAllocArray<double>(env, static_cast<size_t>(upd) + 1);
  f->solveWork = envAllocArray<double>(env, static_cast<size_t>(maxRows) + sn + 1);
  f->maxRows = maxRows;
  f->refineWork = envAllocArray<double>(env, 6 * sn + static_cast<size_t>(A.n) + f->denseCols + 2);
  if (!f->panelVal || !f->update || !f->solveWork || !f->refineWork) return VRX_ERROR_OUT_OF_MEMORY;
  if (f->denseCols > 0 && !f->denseGS) {
    const size_t k = static_cast<size_t>(f->denseCols);
    f->denseW = envAllocArray<double>(env, k * sn);
    f->denseBlock = envAllocArray<double>(env, k * k + 1);
    if (!f->denseW || !f->denseBlock) return VRX_ERROR_OUT_OF_MEMORY;
  }
  f->relWork = envAllocArray<int>(env, static_cast<size_t>(maxRows) + 1);
  f->diag0 = envAllocArray<double>(env, sn);
  if (!f->relWork || !f->diag0) return VRX_ERROR_OUT_OF_MEMORY;
  rc = barBuildTasks(env, f);
  if (rc) return rc;
  rc = buildAssembly(env, A, f);
  if (rc || !f->asmOff || f->workers < 2) return rc;
  return barPlanAssembly(env, A, f);
}

}  // namespace vrx
