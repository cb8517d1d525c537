// Numeric Cholesky on dense BLAS blocks, its thread tasks, and the solves.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"

namespace vrx {

void barFreeNumeric(VRXenv* env, VRXbarfactor* f) {
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
int barBuildTasks(VRXenv* env, VRXbarfactor* f) {
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
