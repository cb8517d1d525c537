// Ordering driver, supernodal symbolic factor, numeric Cholesky and solves.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"

namespace vrx {

namespace {

void freeNumeric(VRXenv* env, VRXbarfactor* f) {
  envFreeAll(env, f->etree, f->superBeg, f->superRows, f->superRowInd, f->panelBeg, f->panelVal, f->colSuper,
             f->update, f->relMap, f->link, f->linkPos, f->dropped, f->denseW, f->solveWork, f->denseBlock,
             f->refineWork, f->colBeg, f->rowInd, f->asmBeg, f->asmIdx, f->asmPairBeg, f->asmOff, f->relWork,
             f->diag0, f->taskBeg, f->taskLen, f->deferred, f->deferredCount, f->workRel, f->workUpdate);
  f->taskBeg = f->taskLen = f->deferred = f->deferredCount = f->workRel = nullptr;
  f->workUpdate = nullptr;
  f->taskCount = 0;
  f->asmBeg = f->asmPairBeg = nullptr;
  f->asmIdx = f->relWork = nullptr;
  f->asmOff = nullptr;
  f->diag0 = nullptr;
  f->etree = f->superBeg = f->superRowInd = f->colSuper = f->relMap = f->link = f->rowInd = nullptr;
  f->superRows = f->panelBeg = f->linkPos = f->colBeg = nullptr;
  f->panelVal = f->update = f->denseW = f->solveWork = f->denseBlock = f->refineWork = nullptr;
  f->dropped = nullptr;
  f->superCount = 0;
}

// The factor's cost on a supernode of width k over r rows in all.
double supernodeOps(double k, double r) {
  // sum_{i=0}^{k-1} (r - i)^2, through the closed sums of squares.
  auto sq = [](double t) { return t * (t + 1) * (2 * t + 1) / 6; };
  return sq(r) - sq(r - k);
}

// Independent subtrees for the threads: the largest subtrees whose flops stay
// within an eighth of the factor's. Small factors keep one task list empty.
int buildTasks(VRXenv* env, VRXbarfactor* f) {
  const int ns = f->superCount;
  f->taskCount = 0;
  f->workers = 1;
  if (ns < 2 || f->factorOps < 1e7) return 0;
  Scratch<double> ops(env, static_cast<size_t>(ns));
  Scratch<int> size(env, static_cast<size_t>(ns)), parent(env, static_cast<size_t>(ns));
  if (!ops.a || !size.a || !parent.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int s = 0; s < ns; ++s) {
    const int nc = f->superBeg[s + 1] - f->superBeg[s];
    const int64_t nr = f->superRows[s + 1] - f->superRows[s];
    ops.a[s] = supernodeOps(nc, static_cast<double>(nr));
    size.a[s] = 1;
  }
  // Children come before parents, so one pass sums the subtrees.
  for (int s = 0; s < ns; ++s) {
    const int nc = f->superBeg[s + 1] - f->superBeg[s];
    const int64_t nr = f->superRows[s + 1] - f->superRows[s];
    parent.a[s] = nr > nc ? f->colSuper[f->superRowInd[f->superRows[s] + nc]] : -1;
    if (parent.a[s] >= 0) {
      ops.a[parent.a[s]] += ops.a[s];
      size.a[parent.a[s]] += size.a[s];
    }
  }
  const double limit = f->factorOps / 8;
  int count = 0;
  for (int s = 0; s < ns; ++s)
    if (ops.a[s] <= limit && (parent.a[s] < 0 || ops.a[parent.a[s]] > limit)) ++count;
  if (count < 2) return 0;
  f->taskBeg = envAllocArray<int>(env, static_cast<size_t>(count));
  f->taskLen = envAllocArray<int>(env, static_cast<size_t>(count));
  f->deferredCount = envAllocArray<int>(env, static_cast<size_t>(count));
  f->deferred = envAllocArray<int>(env, static_cast<size_t>(ns));
  if (!f->taskBeg || !f->taskLen || !f->deferredCount || !f->deferred) return VRX_ERROR_OUT_OF_MEMORY;
  // A subtree is the range of supernodes that ends at its root.
  for (int s = 0; s < ns; ++s) {
    if (!(ops.a[s] <= limit && (parent.a[s] < 0 || ops.a[parent.a[s]] > limit))) continue;
    f->taskBeg[f->taskCount] = s - size.a[s] + 1;
    f->taskLen[f->taskCount] = size.a[s];
    f->taskCount++;
  }
  f->workers = std::min(std::max(1, f->threads), f->taskCount);
  if (f->workers > 1) {
    const size_t helpers = static_cast<size_t>(f->workers - 1);
    f->workRel = envAllocArray<int>(env, helpers * (static_cast<size_t>(f->n) + f->maxRows + 1));
    f->workUpdate = envAllocArray<double>(env, helpers * static_cast<size_t>(f->updateSize + 1));
    if (!f->workRel || !f->workUpdate) return VRX_ERROR_OUT_OF_MEMORY;
  }
  return 0;
}

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

}  // namespace

void barFactorFree(VRXenv* env, VRXbarfactor* f) {
  if (!f) return;
  freeNumeric(env, f);
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
    // Each dense column costs two solves and its share of the Schur block per iteration.
    const double k = f->denseCols;
    const double denseOps = ops + k * 4 * nz + k * k * m;
    if (denseOps <= opsFull) break;
    std::memcpy(f->perm, full.a, sizeof(int) * static_cast<size_t>(m));
    nz = nzFull;
    ops = opsFull;
    std::memset(f->isDense, 0, static_cast<size_t>(A.n));
    envFree(env, f->denseColList);
    f->denseColList = nullptr;
    f->denseCols = 0;
    f->denseRetry = 1;
    break;
  }
  // In exact arithmetic the iteration ends after one step per dense column and one more.
  f->solveIterLimit = 2 * f->denseCols + 10;
  f->amdWork = amdWork;
  f->orderWork = amdWork;
  rc = ndStage(env, A, opts, f->denseCols ? f->isDense : nullptr, amdWork, f->perm, &nz, &ops, &f->ndCopies,
               &f->orderWork);
  if (rc) return rc;
  for (int j = 0; j < m; ++j) f->invPerm[f->perm[j]] = j;
  f->orderTime = wallClock() - t0;
  if (nzOut) *nzOut = nz;
  if (opsOut) *opsOut = ops;
  return 0;
}

int VRXbarSymbolic(VRXenv* env, const BarMatrix& A, VRXbarfactor* f) {
  freeNumeric(env, f);
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

  // Fundamental supernodes, then chains merged while the added zeros stay small.
  Scratch<int> sfirst(env, sn), scount(env, sn);
  if (!sfirst.a || !scount.a) return VRX_ERROR_OUT_OF_MEMORY;
  int ns = 0;
  for (int j = 0; j < n; ++j) {
    if (j > 0 && parent.a[j - 1] == j && cnt.a[j - 1] == cnt.a[j] + 1) continue;
    sfirst.a[ns++] = j;
  }
  sfirst.a[ns] = n;
  // Merged groups: start column, width, count of the first column, entries held.
  int groups = 0;
  Scratch<int> gfirst(env, sn);
  Scratch<double> gnz(env, sn);
  if (!gfirst.a || !gnz.a) return VRX_ERROR_OUT_OF_MEMORY;
  auto nzOf = [](double width, double firstCount) { return width * firstCount - width * (width - 1) / 2; };
  for (int s = 0; s < ns; ++s) {
    const int f0 = sfirst.a[s], w = sfirst.a[s + 1] - f0;
    const double z = nzOf(w, cnt.a[f0]);
    if (groups > 0) {
      const int g = groups - 1;
      const int gl = sfirst.a[s] - 1;  // last column of the previous group
      const int gw = f0 - gfirst.a[g];
      if (parent.a[gl] == f0) {
        const double width = gw + w;
        const double merged = nzOf(width, w + gw + cnt.a[f0] - w);
        const double zeros = merged - gnz.a[g] - z;
        const double frac = zeros / merged;
        // Narrow groups merge freely; wide ones only with little fill.
        const bool take = width <= 4 || (width <= 16 && frac < 0.8) || (width <= 48 && frac < 0.1) ||
                          (width <= 192 && frac < 0.05);
        if (take) {
          gnz.a[g] = merged;
          scount.a[g] = static_cast<int>(width + cnt.a[f0] - w);
          continue;
        }
      }
    }
    gfirst.a[groups] = f0;
    gnz.a[groups] = z;
    scount.a[groups] = cnt.a[f0];
    ++groups;
  }
  gfirst.a[groups] = n;
  // Wide supernodes go into panels, narrower where one holds more than its
  // threads' share of the flops; the panels become supernodes of their own.
  double totalOps = 0;
  for (int g = 0; g < groups; ++g) totalOps += supernodeOps(gfirst.a[g + 1] - gfirst.a[g], scount.a[g]);
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
    f->factorNz += nzOf(c1 - c0, static_cast<double>(nr));
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
  rc = buildTasks(env, f);
  if (rc) return rc;
  return buildAssembly(env, A, f);
}

namespace {

// Dense Cholesky of the nr x nc panel (column-major, lda nr) in place, with the
// pivot rule of the barrier: a tiny pivot takes reg, or drops out when reg <= 0.
// Pivot counts of one thread.
struct PivotCount {
  int regularised;
  int skipped;
  double minPivot;
};

void factorPanel(VRXbarfactor* f, double* a, int nr, int nc, int col0, const double* diag0, double reg, bool last,
                 PivotCount* pc) {
  const int B = 64;
  const double one = 1.0, minus = -1.0;
  for (int jb = 0; jb < nc; jb += B) {
    const int bs = std::min(B, nc - jb);
    for (int j = jb; j < jb + bs; ++j) {
      double* cj = a + static_cast<int64_t>(j) * nr;
      double d = cj[j];
      const double o = std::fabs(diag0[j]);
      if (!(d > 1e-16 * o) || !(d > 0)) {
        // The regularisation value, but at the end of the factor nothing below
        // could use it and the row drops out instead.
        if (reg > 0 && !last) {
          d = reg;
          pc->regularised++;
        } else {
          // Out of the solves: unit diagonal, empty column.
          f->dropped[col0 + j] = 1;
          pc->skipped++;
          cj[j] = 1.0;
          for (int i = j + 1; i < nr; ++i) cj[i] = 0;
          continue;
        }
      }
      const double l = std::sqrt(d);
      if (d < pc->minPivot) pc->minPivot = d;
      cj[j] = l;
      const double inv = 1.0 / l;
      for (int i = j + 1; i < jb + bs; ++i) cj[i] *= inv;
      // Inside the block only; rows below go through the triangular solve.
      for (int k = j + 1; k < jb + bs; ++k) {
        const double ak = cj[k];
        if (ak == 0) continue;
        double* ck = a + static_cast<int64_t>(k) * nr;
        for (int i = k; i < jb + bs; ++i) ck[i] -= cj[i] * ak;
      }
    }
    const int below = nr - (jb + bs);
    if (below <= 0) continue;
    double* l11 = a + static_cast<int64_t>(jb) * nr + jb;
    double* b21 = a + static_cast<int64_t>(jb) * nr + jb + bs;
    dtrsm_("R", "L", "T", "N", &below, &bs, &one, l11, &nr, b21, &nr);
    for (int j = jb; j < jb + bs; ++j)
      if (f->dropped[col0 + j])
        for (int i = jb + bs; i < nr; ++i) a[static_cast<int64_t>(j) * nr + i] = 0;
    // Trailing columns of the panel.
    const int tc = nc - (jb + bs);
    if (tc <= 0) continue;
    double* a22 = a + static_cast<int64_t>(jb + bs) * nr + jb + bs;
    dsyrk_("L", "N", &tc, &bs, &minus, b21, &nr, &one, a22, &nr);
    const int rest = nr - nc;
    if (rest > 0) {
      double* b31 = a + static_cast<int64_t>(jb) * nr + nc;
      double* a32 = a + static_cast<int64_t>(jb + bs) * nr + nc;
      dgemm_("N", "T", &rest, &tc, &bs, &minus, b31, &nr, b21, &nr, &one, a32, &nr);
    }
  }
}

// Forward and backward solves with the sparse factor, in the permuted order.
void sparseSolve(const VRXbarfactor* f, double* y) {
  const int ns = f->superCount;
  const int one = 1;
  const double pone = 1.0, zero = 0.0;
  double* tmp = f->solveWork;
  for (int s = 0; s < ns; ++s) {
    const int c0 = f->superBeg[s], nc = f->superBeg[s + 1] - c0;
    const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
    const double* L = f->panelVal + f->panelBeg[s];
    dtrsv_("L", "N", "N", &nc, L, &nr, y + c0, &one);
    for (int j = 0; j < nc; ++j)
      if (f->dropped[c0 + j]) y[c0 + j] = 0;
    const int below = nr - nc;
    if (below <= 0) continue;
    dgemv_("N", &below, &nc, &pone, L + nc, &nr, y + c0, &one, &zero, tmp, &one);
    const int* rows = f->superRowInd + f->superRows[s] + nc;
    for (int i = 0; i < below; ++i) y[rows[i]] -= tmp[i];
  }
  const double mone = -1.0;
  for (int s = ns - 1; s >= 0; --s) {
    const int c0 = f->superBeg[s], nc = f->superBeg[s + 1] - c0;
    const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
    const double* L = f->panelVal + f->panelBeg[s];
    const int below = nr - nc;
    if (below > 0) {
      const int* rows = f->superRowInd + f->superRows[s] + nc;
      for (int i = 0; i < below; ++i) tmp[i] = y[rows[i]];
      dgemv_("T", &below, &nc, &mone, L + nc, &nr, tmp, &one, &pone, y + c0, &one);
    }
    dtrsv_("L", "T", "N", &nc, L, &nr, y + c0, &one);
    for (int j = 0; j < nc; ++j)
      if (f->dropped[c0 + j]) y[c0 + j] = 0;
  }
}

// M^-1 r in the original order, through the permutation; out may alias r.
void solveOriginal(const VRXbarfactor* f, const double* r, double* out) {
  const int n = f->n;
  double* v = f->solveWork + f->maxRows;
  for (int j = 0; j < n; ++j) v[j] = r[f->perm[j]];
  sparseSolve(f, v);
  for (int j = 0; j < n; ++j) out[f->perm[j]] = v[j];
}

// Small dense Cholesky of the Schur block in place (lower, column-major).
void denseCholesky(double* s, int k) {
  for (int j = 0; j < k; ++j) {
    double d = s[j + static_cast<int64_t>(j) * k];
    for (int p = 0; p < j; ++p) d -= s[j + static_cast<int64_t>(p) * k] * s[j + static_cast<int64_t>(p) * k];
    d = d > 1e-30 ? std::sqrt(d) : 1e15;
    s[j + static_cast<int64_t>(j) * k] = d;
    for (int i = j + 1; i < k; ++i) {
      double v = s[i + static_cast<int64_t>(j) * k];
      for (int p = 0; p < j; ++p) v -= s[i + static_cast<int64_t>(p) * k] * s[j + static_cast<int64_t>(p) * k];
      s[i + static_cast<int64_t>(j) * k] = v / d;
    }
  }
}

}  // namespace

namespace {

// What one thread needs to factor supernodes: its scratch and its pivot counts.
struct FactorWork {
  int* relMap;
  int* relWork;
  double* update;
  int regularised;
  int skipped;
  double minPivot;
};

struct FactorRun {
  const BarMatrix* A;
  const double* theta;
  double reg;
  VRXbarfactor* f;
  FactorWork* work;
  std::atomic<int> nextTask;
};

// Puts K on the list of the supernode its next rows belong to; inside a task,
// a target outside the task's subtree waits in the task's deferred list.
void linkNext(VRXbarfactor* f, int K, int pos, int task) {
  const int t = f->colSuper[f->superRowInd[f->superRows[K] + pos]];
  f->linkPos[K] = pos;
  if (task >= 0 && t >= f->taskBeg[task] + f->taskLen[task]) {
    f->deferred[f->taskBeg[task] + f->deferredCount[task]++] = K;
    return;
  }
  int* head = f->link;
  int* nextK = f->link + f->superCount + 1;
  nextK[K] = head[t];
  head[t] = K;
}

// Assembly (when not done in one pass before), updates from the supernodes
// below, and the dense factor of supernode s.
void factorSupernode(FactorRun& run, FactorWork& w, int s, int task) {
  VRXbarfactor* f = run.f;
  const BarMatrix& A = *run.A;
  const double* theta = run.theta;
  const char* isDense = f->denseCols ? f->isDense : nullptr;
  const double one = 1.0, zero = 0.0, minus = -1.0;
  int* head = f->link;
  int* nextK = f->link + f->superCount + 1;
  const int c0 = f->superBeg[s], c1 = f->superBeg[s + 1], nc = c1 - c0;
  const int64_t rb = f->superRows[s];
  const int nr = static_cast<int>(f->superRows[s + 1] - rb);
  double* P = f->panelVal + f->panelBeg[s];
  int* relMap = w.relMap;
  for (int t = 0; t < nr; ++t) relMap[f->superRowInd[rb + t]] = t;
  if (!f->asmOff) {
    // Row by row: the columns of A diag(theta) A' that fall into this supernode.
    std::memset(P, 0, sizeof(double) * static_cast<size_t>(nr) * nc);
    for (int c = c0; c < c1; ++c) {
      const int o = f->perm[c];
      double* col = P + static_cast<int64_t>(c - c0) * nr;
      for (int64_t p = A.rowBeg[o]; p < A.rowBeg[o + 1]; ++p) {
        const int k = A.rowCol[p];
        if (isDense && isDense[k]) continue;
        const double tk = theta[k] * A.rowVal[p];
        if (tk == 0) continue;
        for (int64_t q = A.colBeg[k]; q < A.colBeg[k + 1]; ++q) {
          const int r = f->invPerm[A.rowInd[q]];
          if (r >= c) col[relMap[r]] += tk * A.val[q];
        }
      }
    }
  }
  for (int c = c0; c < c1; ++c) f->diag0[c] = P[static_cast<int64_t>(c - c0) * nr + (c - c0)];
  // Updates from the supernodes below, each through one dgemm: straight into
  // the panel when the rows and columns it touches are contiguous there.
  int K = head[s];
  head[s] = -1;
  while (K >= 0) {
    const int nextInList = nextK[K];
    const int64_t kb = f->superRows[K];
    const int nrK = static_cast<int>(f->superRows[K + 1] - kb);
    const int ncK = f->superBeg[K + 1] - f->superBeg[K];
    const int p1 = static_cast<int>(f->linkPos[K]);
    int p2 = p1;
    while (p2 < nrK && f->superRowInd[kb + p2] < c1) ++p2;
    const int m1 = nrK - p1, n1 = p2 - p1;
    const double* LK = f->panelVal + f->panelBeg[K];
    const int* rows = f->superRowInd + kb + p1;
    int* rel = w.relWork;
    for (int ii = 0; ii < m1; ++ii) rel[ii] = relMap[rows[ii]];
    if (rows[n1 - 1] - rows[0] == n1 - 1 && rel[m1 - 1] - rel[0] == m1 - 1) {
      double* C = P + static_cast<int64_t>(rows[0] - c0) * nr + rel[0];
      dgemm_("N", "T", &m1, &n1, &ncK, &minus, LK + p1, &nrK, LK + p1, &nrK, &one, C, &nr);
    } else {
      double* C = w.update;
      dgemm_("N", "T", &m1, &n1, &ncK, &one, LK + p1, &nrK, LK + p1, &nrK, &zero, C, &m1);
      for (int jj = 0; jj < n1; ++jj) {
        double* col = P + static_cast<int64_t>(rows[jj] - c0) * nr;
        const double* cc = C + static_cast<int64_t>(jj) * m1;
        for (int ii = jj; ii < m1; ++ii) col[rel[ii]] -= cc[ii];
      }
    }
    if (p2 < nrK) linkNext(f, K, p2, task);
    K = nextInList;
  }
  PivotCount pc{0, 0, w.minPivot};
  factorPanel(f, P, nr, nc, c0, f->diag0 + c0, run.reg, s == f->superCount - 1, &pc);
  w.regularised += pc.regularised;
  w.skipped += pc.skipped;
  w.minPivot = pc.minPivot;
  if (nr > nc) linkNext(f, s, nc, task);
}

void factorTasks(void* arg, int worker) {
  auto* run = static_cast<FactorRun*>(arg);
  VRXbarfactor* f = run->f;
  while (true) {
    const int t = run->nextTask.fetch_add(1);
    if (t >= f->taskCount) return;
    f->deferredCount[t] = 0;
    for (int s = f->taskBeg[t]; s < f->taskBeg[t] + f->taskLen[t]; ++s) factorSupernode(*run, run->work[worker], s, t);
  }
}

}  // namespace

int VRXbarFactorize(VRXenv* env, const BarMatrix& A, const double* theta, double reg, VRXbarfactor* f) {
  const int n = f->n, ns = f->superCount;
  f->skipPivotCount = 0;
  f->regularised = 0;
  f->minPivot = 1e300;
  std::memset(f->dropped, 0, static_cast<size_t>(n) + 1);
  int* head = f->link;
  std::fill(head, head + ns, -1);
  const char* isDense = f->denseCols ? f->isDense : nullptr;
  if (f->asmOff) {
    std::memset(f->panelVal, 0, sizeof(double) * static_cast<size_t>(f->panelBeg[ns]));
    double* v = f->solveWork;
    double* P = f->panelVal;
    for (int k = 0; k < A.n; ++k) {
      const double t = theta[k];
      if (t == 0 || (isDense && isDense[k])) continue;
      const int* idx = f->asmIdx + f->asmBeg[k];
      const int len = static_cast<int>(f->asmBeg[k + 1] - f->asmBeg[k]);
      const double* av = A.val + A.colBeg[k];
      for (int a = 0; a < len; ++a) v[a] = av[idx[a]];
      const uint32_t* off = f->asmOff + f->asmPairBeg[k];
      for (int a = 0; a < len; ++a) {
        const double ta = t * v[a];
        for (int b = a; b < len; ++b) P[*off++] += ta * v[b];
      }
    }
  }
  const int workers = std::max(1, f->workers);
  Scratch<FactorWork> work(env, static_cast<size_t>(workers));
  if (!work.a) return VRX_ERROR_OUT_OF_MEMORY;
  const size_t relLen = static_cast<size_t>(n) + static_cast<size_t>(f->maxRows) + 1;
  for (int w = 0; w < workers; ++w) {
    FactorWork& fw = work.a[w];
    if (w == 0) {
      fw.relMap = f->relMap;
      fw.relWork = f->relWork;
      fw.update = f->update;
    } else {
      fw.relMap = f->workRel + (w - 1) * relLen;
      fw.relWork = fw.relMap + n + 1;
      fw.update = f->workUpdate + (w - 1) * static_cast<size_t>(f->updateSize + 1);
    }
    fw.regularised = fw.skipped = 0;
    fw.minPivot = 1e300;
  }
  FactorRun run{&A, theta, reg, f, work.a, {0}};
  if (f->taskCount > 0) {
    // Subtrees first, in any order and on any thread: each touches only its
    // own panels and lists. Their links upward then join in task order.
    int rc = barRunWorkers(env, std::min(workers, f->taskCount), factorTasks, &run);
    if (rc) return rc;
    int* nextK = f->link + ns + 1;
    for (int t = 0; t < f->taskCount; ++t) {
      for (int i = 0; i < f->deferredCount[t]; ++i) {
        const int K = f->deferred[f->taskBeg[t] + i];
        const int tgt = f->colSuper[f->superRowInd[f->superRows[K] + f->linkPos[K]]];
        nextK[K] = head[tgt];
        head[tgt] = K;
      }
    }
  }
  // The top of the tree, in order; a supernode inside a task is skipped.
  int task = 0;
  for (int s = 0; s < ns; ++s) {
    if (task < f->taskCount && s == f->taskBeg[task]) {
      s += f->taskLen[task] - 1;
      ++task;
      continue;
    }
    factorSupernode(run, work.a[0], s, -1);
  }
  for (int w = 0; w < workers; ++w) {
    f->regularised += work.a[w].regularised;
    f->skipPivotCount += work.a[w].skipped;
    f->minPivot = std::min(f->minPivot, work.a[w].minPivot);
  }
  if (f->minPivot == 1e300) f->minPivot = 0;
  // Schur complement of the dense columns: S = I + V' M^-1 V with V = A_d theta_d^(1/2).
  const int kd = f->denseCols;
  if (kd > 0 && !f->denseGS) {
    Scratch<double> v(env, static_cast<size_t>(n) + 1);
    if (!v.a) return VRX_ERROR_OUT_OF_MEMORY;
    for (int t = 0; t < kd; ++t) {
      const int j = f->denseColList[t];
      std::fill(v.a, v.a + n, 0.0);
      const double sq = std::sqrt(theta[j]);
      for (int64_t p = A.colBeg[j]; p < A.colBeg[j + 1]; ++p) v.a[A.rowInd[p]] = sq * A.val[p];
      double* wcol = f->denseW + static_cast<int64_t>(t) * n;
      solveOriginal(f, v.a, wcol);
    }
    for (int a = 0; a < kd; ++a) {
      for (int b = a; b < kd; ++b) {
        // V_b' W_a over the entries of column b.
        const int j = f->denseColList[b];
        const double sq = std::sqrt(theta[j]);
        const double* wa = f->denseW + static_cast<int64_t>(a) * n;
        double s = 0;
        for (int64_t p = A.colBeg[j]; p < A.colBeg[j + 1]; ++p) s += sq * A.val[p] * wa[A.rowInd[p]];
        f->denseBlock[b + static_cast<int64_t>(a) * kd] = s + (a == b ? 1.0 : 0.0);
      }
    }
    denseCholesky(f->denseBlock, kd);
  }
  return 0;
}

namespace {

// One solve with the factor and the Schur correction.
void solveOnce(const VRXbarfactor* f, const BarMatrix& A, const double* theta, const double* rhs, double* x,
               double* t) {
  const int n = f->n, kd = f->denseCols;
  solveOriginal(f, rhs, x);
  if (kd == 0) return;
  for (int a = 0; a < kd; ++a) {
    const int j = f->denseColList[a];
    const double sq = std::sqrt(theta[j]);
    double s = 0;
    for (int64_t p = A.colBeg[j]; p < A.colBeg[j + 1]; ++p) s += sq * A.val[p] * x[A.rowInd[p]];
    t[a] = s;
  }
  const double* S = f->denseBlock;
  for (int i = 0; i < kd; ++i) {
    double v = t[i];
    for (int p = 0; p < i; ++p) v -= S[i + static_cast<int64_t>(p) * kd] * t[p];
    t[i] = v / S[i + static_cast<int64_t>(i) * kd];
  }
  for (int i = kd - 1; i >= 0; --i) {
    double v = t[i];
    for (int p = i + 1; p < kd; ++p) v -= S[p + static_cast<int64_t>(i) * kd] * t[p];
    t[i] = v / S[i + static_cast<int64_t>(i) * kd];
  }
  for (int a = 0; a < kd; ++a) {
    const double* w = f->denseW + static_cast<int64_t>(a) * n;
    const double ta = t[a];
    if (ta == 0) continue;
    for (int i = 0; i < n; ++i) x[i] -= w[i] * ta;
  }
}

// out += sign (A diag(theta) A') x over all columns.
void addProduct(const BarMatrix& A, const double* theta, const double* x, double sign, double* out,
                double* colTmp) {
  for (int j = 0; j < A.n; ++j) {
    double s = 0;
    for (int64_t p = A.colBeg[j]; p < A.colBeg[j + 1]; ++p) s += A.val[p] * x[A.rowInd[p]];
    colTmp[j] = sign * s * theta[j];
  }
  for (int j = 0; j < A.n; ++j) {
    const double s = colTmp[j];
    if (s == 0) continue;
    for (int64_t p = A.colBeg[j]; p < A.colBeg[j + 1]; ++p) out[A.rowInd[p]] += A.val[p] * s;
  }
}

// r = rhs - (A diag(theta) A') x; returns its largest entry.
double residual(const BarMatrix& A, const double* theta, const double* rhs, const double* x, double* r,
                double* colTmp) {
  for (int i = 0; i < A.m; ++i) r[i] = rhs[i];
  addProduct(A, theta, x, -1.0, r, colTmp);
  double mx = 0;
  for (int i = 0; i < A.m; ++i) mx = std::max(mx, std::fabs(r[i]));
  return mx;
}

double norm2(const double* v, int n) {
  double s = 0;
  for (int i = 0; i < n; ++i) s += v[i] * v[i];
  return std::sqrt(s);
}

// The whole matrix, dense columns included, by conjugate gradients with the
// sparse factor as the preconditioner: the dense columns add a term of rank
// denseCols, so the iteration needs about that many steps.
void conjugateGradients(const VRXbarfactor* f, const BarMatrix& A, const double* theta, const double* rhs, double* x) {
  const int n = f->n;
  double* r = f->refineWork + f->denseCols + 1;
  double* z = r + n + 1;
  double* b = z + n + 1;
  double* p = b + n + 1;
  double* q = p + n + 1;
  double* colTmp = q + n + 1;
  const bool verbose = f->env && f->env->par.OutputFlag > 2;
  std::memcpy(b, rhs, sizeof(double) * static_cast<size_t>(n));
  solveOriginal(f, b, x);
  residual(A, theta, b, x, r, colTmp);
  double rn = norm2(r, n);
  const double stop = 1e-14 * norm2(b, n);
  if (verbose) log(f->env, "Go r norm %.4e\n", rn);
  solveOriginal(f, r, z);
  std::memcpy(p, z, sizeof(double) * static_cast<size_t>(n));
  double rz = 0;
  for (int i = 0; i < n; ++i) rz += r[i] * z[i];
  for (int step = 0; step < f->solveIterLimit && rn > stop && rz > 0; ++step) {
    std::fill(q, q + n, 0.0);
    addProduct(A, theta, p, 1.0, q, colTmp);
    double pq = 0;
    for (int i = 0; i < n; ++i) pq += p[i] * q[i];
    if (!(pq > 0)) break;
    const double alpha = rz / pq;
    for (int i = 0; i < n; ++i) {
      x[i] += alpha * p[i];
      r[i] -= alpha * q[i];
    }
    rn = norm2(r, n);
    if (verbose) log(f->env, "r norm %.4e\n", rn);
    solveOriginal(f, r, z);
    double rzNew = 0;
    for (int i = 0; i < n; ++i) rzNew += r[i] * z[i];
    const double beta = rzNew / rz;
    rz = rzNew;
    for (int i = 0; i < n; ++i) p[i] = z[i] + beta * p[i];
  }
}

}  // namespace

void VRXbarSolve(const VRXbarfactor* f, const BarMatrix& A, const double* theta, const double* rhs, double* x) {
  const int n = f->n, kd = f->denseCols;
  if (kd > 0 && f->denseGS) {
    conjugateGradients(f, A, theta, rhs, x);
    return;
  }
  double* t = f->refineWork;
  double* r = t + kd + 1;
  double* dx = r + n + 1;
  double* b = dx + n + 1;
  double* colTmp = b + n + 1;
  std::memcpy(b, rhs, sizeof(double) * static_cast<size_t>(n));
  solveOnce(f, A, theta, b, x, t);
  // Exact up to rounding unless pivots were changed or the Schur form is used:
  // then a few refinement steps against the true matrix.
  double last = residual(A, theta, b, x, r, colTmp);
  if (f->regularised == 0 && f->skipPivotCount == 0 && kd == 0) {
    // A clean factor still loses digits when theta spans many orders near the
    // end; one check against the true matrix decides whether to refine.
    double top = 0;
    for (int i = 0; i < n; ++i) top = std::max(top, std::fabs(b[i]));
    if (last <= 1e-12 * top) return;
  }
  for (int step = 0; step < 5 && last > 0; ++step) {
    solveOnce(f, A, theta, r, dx, t);
    for (int i = 0; i < n; ++i) dx[i] += x[i];
    const double now = residual(A, theta, b, dx, r, colTmp);
    if (!(now < last)) break;
    std::memcpy(x, dx, sizeof(double) * static_cast<size_t>(n));
    if (now > 0.5 * last) break;
    last = now;
  }
}

}  // namespace vrx
