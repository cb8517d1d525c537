// Numeric Cholesky on dense BLAS blocks, its thread tasks, and the solves.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"

// What one thread needs to factor supernodes: its scratch and its pivot counts.
struct VRXbarthreadwork {
  int* relMap;
  int* relWork;
  double* update;
  double* colVals;
  int regularised;
  int skipped;
  double minPivot;
};

namespace vrx {

void barFreeNumeric(VRXenv* env, VRXbarfactor* f) {
  envFreeAll(env, f->etree, f->superBeg, f->superRows, f->superRowInd, f->panelBeg, f->panelVal, f->colSuper,
             f->update, f->relMap, f->link, f->linkPos, f->dropped, f->denseW, f->solveWork, f->denseBlock,
             f->refineWork, f->colBeg, f->rowInd, f->asmBeg, f->asmIdx, f->asmPairBeg, f->asmOff, f->relWork,
             f->diag0, f->taskBeg, f->taskLen, f->deferred, f->deferredCount, f->workRel, f->workUpdate,
             f->taskOrder, f->teamBlocks, f->updList, f->workCol, f->threadWork, f->asmChunkSuper, f->asmSpanBeg,
             f->asmSpan);
  f->taskBeg = f->taskLen = f->deferred = f->deferredCount = f->workRel = nullptr;
  f->taskOrder = f->teamBlocks = f->updList = f->asmChunkSuper = f->asmSpan = nullptr;
  f->asmSpanBeg = nullptr;
  f->asmChunks = 0;
  f->workUpdate = f->workCol = nullptr;
  f->threadWork = nullptr;
  f->taskCount = 0;
  f->helperSlots = 0;
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

namespace {

// Row blocks of a shared supernode: at least this many flops and rows each,
// and few of them. Every block cuts each update into one more dgemm call of
// fewer rows, which costs the lone thread time; four blocks let two threads
// even out their shares.
constexpr double kBlockFlops = 2.5e5;
constexpr double kBlockRows = 128;
constexpr int kMaxBlocks = 4;
// Most pieces one step of the threads can hold (tasks, blocks, chunks).
constexpr int kMaxPieces = 0xFFFFFF;

// The first supernode from s on that no task holds; *task, the next task,
// moves past the tasks skipped. Tasks are ranges in supernode order.
int skipTasks(const VRXbarfactor* f, int s, int* task) {
  while (*task < f->taskCount && s == f->taskBeg[*task]) s += f->taskLen[(*task)++];
  return s;
}

// Above the tasks, the supernodes with enough work, the updates they receive
// (upd) and their own, are cut into row blocks that the threads share.
int planSharedBlocks(VRXenv* env, VRXbarfactor* f, const double* upd) {
  const int ns = f->superCount;
  f->teamBlocks = envCallocArray<int>(env, static_cast<size_t>(ns));
  f->updList = envAllocArray<int>(env, 2 * static_cast<size_t>(ns));
  if (!f->teamBlocks || !f->updList) return VRX_ERROR_OUT_OF_MEMORY;
  int task = 0;
  for (int s = skipTasks(f, 0, &task); s < ns; s = skipTasks(f, s + 1, &task)) {
    const double nc = f->superBeg[s + 1] - f->superBeg[s];
    const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
    const double work = upd[s] + (nr - nc) * nc * nc + nc * nc * nc / 3;
    const double blocks = std::min({static_cast<double>(kMaxBlocks), std::floor(nr / kBlockRows), work / kBlockFlops});
    // Shorter dgemm calls run slower on one thread: a factor for one thread keeps them whole.
    if (blocks >= 2 && f->threads > 1) f->teamBlocks[s] = static_cast<int>(blocks);
  }
  return 0;
}

// Independent subtrees for the threads: the largest subtrees whose flops stay
// within an eighth of the factor's, taken largest first; then the shared
// row blocks above them.
int planTasks(VRXenv* env, VRXbarfactor* f) {
  const int ns = f->superCount;
  f->taskCount = 0;
  if (ns < 2 || f->factorOps < 1e7) return 0;
  Scratch<double> ops(env, static_cast<size_t>(ns)), upd(env, static_cast<size_t>(ns));
  Scratch<int> size(env, static_cast<size_t>(ns)), parent(env, static_cast<size_t>(ns));
  if (!ops.a || !upd.a || !size.a || !parent.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int s = 0; s < ns; ++s) {
    const int nc = f->superBeg[s + 1] - f->superBeg[s];
    const int64_t nr = f->superRows[s + 1] - f->superRows[s];
    ops.a[s] = supernodeOps(nc, static_cast<double>(nr));
    size.a[s] = 1;
    upd.a[s] = 0;
  }
  // Children come before parents, so one pass sums the subtrees. The same
  // pass adds up the updates each supernode receives, block by block.
  for (int s = 0; s < ns; ++s) {
    const int nc = f->superBeg[s + 1] - f->superBeg[s];
    const int64_t end = f->superRows[s + 1];
    int64_t p = f->superRows[s] + nc;
    parent.a[s] = p < end ? f->colSuper[f->superRowInd[p]] : -1;
    if (parent.a[s] >= 0) {
      ops.a[parent.a[s]] += ops.a[s];
      size.a[parent.a[s]] += size.a[s];
    }
    while (p < end) {
      const int t = f->colSuper[f->superRowInd[p]];
      int64_t q = p;
      while (q < end && f->superRowInd[q] < f->superBeg[t + 1]) ++q;
      upd.a[t] += 2.0 * static_cast<double>(end - p) * static_cast<double>(q - p) * nc;
      p = q;
    }
  }
  const double limit = f->factorOps / 8;
  auto isRoot = [&](int s) { return ops.a[s] <= limit && (parent.a[s] < 0 || ops.a[parent.a[s]] > limit); };
  int count = 0;
  for (int s = 0; s < ns; ++s) count += isRoot(s);
  if (count >= 2 && count <= kMaxPieces) {
    f->taskBeg = envAllocArray<int>(env, static_cast<size_t>(count));
    f->taskLen = envAllocArray<int>(env, static_cast<size_t>(count));
    f->taskOrder = envAllocArray<int>(env, static_cast<size_t>(count));
    f->deferredCount = envAllocArray<int>(env, static_cast<size_t>(count));
    f->deferred = envAllocArray<int>(env, static_cast<size_t>(ns));
    if (!f->taskBeg || !f->taskLen || !f->taskOrder || !f->deferredCount || !f->deferred)
      return VRX_ERROR_OUT_OF_MEMORY;
    // A subtree is the range of supernodes that ends at its root.
    for (int s = 0; s < ns; ++s) {
      if (!isRoot(s)) continue;
      f->taskBeg[f->taskCount] = s - size.a[s] + 1;
      f->taskLen[f->taskCount] = size.a[s];
      f->taskOrder[f->taskCount] = f->taskCount;
      f->taskCount++;
    }
    const double* sub = ops.a;
    const VRXbarfactor* F = f;
    std::stable_sort(f->taskOrder, f->taskOrder + count, [sub, F](int a, int b) {
      return sub[F->taskBeg[a] + F->taskLen[a] - 1] > sub[F->taskBeg[b] + F->taskLen[b] - 1];
    });
  }
  return planSharedBlocks(env, f, upd.a);
}

}  // namespace

int barBuildTasks(VRXenv* env, VRXbarfactor* f) {
  f->workers = 1;
  f->helperSlots = 0;
  int rc = planTasks(env, f);
  if (rc) return rc;
  bool shared = f->taskCount > 0;
  for (int s = 0; f->teamBlocks && s < f->superCount && !shared; ++s) shared = f->teamBlocks[s] > 0;
  if (shared) f->workers = std::min(std::max(1, f->threads), 64);
  f->threadWork = envAllocArray<VRXbarthreadwork>(env, static_cast<size_t>(f->workers));
  if (!f->threadWork) return VRX_ERROR_OUT_OF_MEMORY;
  if (f->workers > 1) {
    const size_t helpers = static_cast<size_t>(f->workers - 1);
    f->workRel = envAllocArray<int>(env, helpers * (static_cast<size_t>(f->n) + f->maxRows + 1));
    f->workUpdate = envAllocArray<double>(env, helpers * static_cast<size_t>(f->updateSize + 1));
    f->workCol = envAllocArray<double>(env, helpers * (static_cast<size_t>(f->n) + 1));
    if (!f->workRel || !f->workUpdate || !f->workCol) return VRX_ERROR_OUT_OF_MEMORY;
    f->helperSlots = f->workers - 1;
  }
  return 0;
}

namespace {

// Pivot counts of one thread.
struct PivotCount {
  int regularised;
  int skipped;
  double minPivot;
};

// Dense Cholesky in place of the first nr rows of an nc-column panel
// (column-major, leading dimension lda), with the pivot rule of the barrier:
// a tiny pivot takes reg, or drops out when reg <= 0.
void factorPanel(VRXbarfactor* f, double* a, int lda, int nr, int nc, int col0, const double* diag0, double reg,
                 bool last, PivotCount* pc) {
  const int B = 64;
  const double one = 1.0, minus = -1.0;
  for (int jb = 0; jb < nc; jb += B) {
    const int bs = std::min(B, nc - jb);
    for (int j = jb; j < jb + bs; ++j) {
      double* cj = a + static_cast<int64_t>(j) * lda;
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
        double* ck = a + static_cast<int64_t>(k) * lda;
        for (int i = k; i < jb + bs; ++i) ck[i] -= cj[i] * ak;
      }
    }
    const int below = nr - (jb + bs);
    if (below <= 0) continue;
    double* l11 = a + static_cast<int64_t>(jb) * lda + jb;
    double* b21 = a + static_cast<int64_t>(jb) * lda + jb + bs;
    dtrsm_("R", "L", "T", "N", &below, &bs, &one, l11, &lda, b21, &lda);
    for (int j = jb; j < jb + bs; ++j)
      if (f->dropped[col0 + j])
        for (int i = jb + bs; i < nr; ++i) a[static_cast<int64_t>(j) * lda + i] = 0;
    // Trailing columns of the panel.
    const int tc = nc - (jb + bs);
    if (tc <= 0) continue;
    double* a22 = a + static_cast<int64_t>(jb + bs) * lda + jb + bs;
    dsyrk_("L", "N", &tc, &bs, &minus, b21, &lda, &one, a22, &lda);
    const int rest = nr - nc;
    if (rest > 0) {
      double* b31 = a + static_cast<int64_t>(jb) * lda + nc;
      double* a32 = a + static_cast<int64_t>(jb + bs) * lda + nc;
      dgemm_("N", "T", &rest, &tc, &bs, &minus, b31, &lda, b21, &lda, &one, a32, &lda);
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

using ThreadWork = VRXbarthreadwork;

// How the threads share the work of one factor. Worker 0 drives: it
// publishes one step at a time (its kind and its count of pieces), every
// thread takes pieces until none is left, and worker 0 waits until all are
// done. A helper that starts late or loses its core only does less: nobody
// waits for it to arrive.
enum StepKind { kAssemble, kTasks, kUpdates, kSolve };

struct FactorRun {
  const BarMatrix* A;
  const double* theta;
  double reg;
  VRXbarfactor* f;
  int chunks;  // of the assembly
  // Epoch (8 bits), piece count (24 bits) and next piece (32 bits) in one
  // word: a thread that takes a piece learns in the same step whether it
  // belongs to the step at hand.
  std::atomic<uint64_t> step;
  std::atomic<int> done;
  std::atomic<int> stop;
  std::atomic<int> sleepers;
  std::mutex lock;
  std::condition_variable wake;
  // Valid while a piece of the step is not done: its kind and the shared
  // supernode with its update list.
  int kind;
  int shared;
  int listLen;
};

uint64_t stepEpoch(uint64_t v) { return v >> 56; }
int stepCount(uint64_t v) { return static_cast<int>((v >> 32) & kMaxPieces); }
int stepPiece(uint64_t v) { return static_cast<int>(v & 0xFFFFFFFFu); }

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

// Adds the pairs of entries a0..a1-1 of column k of A, each with every later
// entry, into the panels. Entries come in factor order, so the pairs of a
// start after a rows of the column's triangle.
void assemblePairs(const FactorRun& run, double* v, int k, int a0, int a1) {
  const VRXbarfactor* f = run.f;
  const double t = run.theta[k];
  const int* idx = f->asmIdx + f->asmBeg[k];
  const int len = static_cast<int>(f->asmBeg[k + 1] - f->asmBeg[k]);
  const double* av = run.A->val + run.A->colBeg[k];
  for (int a = a0; a < len; ++a) v[a] = av[idx[a]];
  const uint32_t* off = f->asmOff + f->asmPairBeg[k] + (int64_t(a0) * len - int64_t(a0) * (a0 - 1) / 2);
  double* P = f->panelVal;
  for (int a = a0; a < a1; ++a) {
    const double ta = t * v[a];
    for (int b = a; b < len; ++b) P[*off++] += ta * v[b];
  }
}

bool assembled(const FactorRun& run, int k) {
  const VRXbarfactor* f = run.f;
  return run.theta[k] != 0 && !(f->denseCols && f->isDense[k]) && f->asmBeg[k + 1] > f->asmBeg[k];
}

// Chunk c of the assembly: its panels cleared, then its spans in column
// order, so that every slot sees its terms in the same order however the
// chunks are cut. One thread alone takes the whole in one chunk.
void assembleChunk(FactorRun& run, ThreadWork& w, int c) {
  const VRXbarfactor* f = run.f;
  const BarMatrix& A = *run.A;
  if (run.chunks == 1) {
    std::memset(f->panelVal, 0, sizeof(double) * static_cast<size_t>(f->panelBeg[f->superCount]));
    for (int k = 0; k < A.n; ++k)
      if (assembled(run, k)) assemblePairs(run, w.colVals, k, 0, static_cast<int>(f->asmBeg[k + 1] - f->asmBeg[k]));
    return;
  }
  const int s0 = f->asmChunkSuper[c], s1 = f->asmChunkSuper[c + 1];
  std::memset(f->panelVal + f->panelBeg[s0], 0,
              sizeof(double) * static_cast<size_t>(f->panelBeg[s1] - f->panelBeg[s0]));
  for (int64_t i = f->asmSpanBeg[c]; i < f->asmSpanBeg[c + 1]; ++i) {
    const int* sp = f->asmSpan + 3 * i;
    if (assembled(run, sp[0])) assemblePairs(run, w.colVals, sp[0], sp[1], sp[2]);
  }
}

}  // namespace

// The chunks of the assembly for several threads, made with the symbolic factor:
// whole supernodes of about equal work (the pairs they take and the panels
// they clear), and in each the runs of entries of every column of A that
// fall into it.
int barPlanAssembly(VRXenv* env, const BarMatrix& A, VRXbarfactor* f) {
  const int ns = f->superCount;
  const int chunks = std::max(1, std::min(ns, 4 * f->workers));
  envFreeAll(env, f->asmChunkSuper, f->asmSpanBeg, f->asmSpan);
  f->asmChunkSuper = f->asmSpan = nullptr;
  f->asmSpanBeg = nullptr;
  Scratch<double> weight(env, static_cast<size_t>(ns));
  Scratch<int> chunkOf(env, static_cast<size_t>(ns));
  Scratch<int64_t> fill(env, static_cast<size_t>(chunks));
  f->asmChunkSuper = envAllocArray<int>(env, static_cast<size_t>(chunks) + 1);
  f->asmSpanBeg = envCallocArray<int64_t>(env, static_cast<size_t>(chunks) + 1);
  if (!weight.a || !chunkOf.a || !fill.a || !f->asmChunkSuper || !f->asmSpanBeg) return VRX_ERROR_OUT_OF_MEMORY;
  auto superOf = [&](int k, int a) {
    return f->colSuper[f->invPerm[A.rowInd[A.colBeg[k] + f->asmIdx[f->asmBeg[k] + a]]]];
  };
  for (int s = 0; s < ns; ++s) weight.a[s] = 0.25 * static_cast<double>(f->panelBeg[s + 1] - f->panelBeg[s]);
  for (int k = 0; k < A.n; ++k) {
    const int len = static_cast<int>(f->asmBeg[k + 1] - f->asmBeg[k]);
    for (int a = 0; a < len; ++a) weight.a[superOf(k, a)] += len - a;
  }
  double total = 0;
  for (int s = 0; s < ns; ++s) total += weight.a[s];
  int c = 0;
  double acc = 0;
  f->asmChunkSuper[0] = 0;
  for (int s = 0; s < ns; ++s) {
    chunkOf.a[s] = c;
    acc += weight.a[s];
    if (c + 1 < chunks && acc >= total * (c + 1) / chunks) f->asmChunkSuper[++c] = s + 1;
  }
  while (c < chunks) f->asmChunkSuper[++c] = ns;
  // Spans by chunk, counted first, then placed; in each chunk in column order.
  for (int pass = 0; pass < 2; ++pass) {
    if (pass == 1) {
      for (int i = 0; i < chunks; ++i) f->asmSpanBeg[i + 1] += f->asmSpanBeg[i];
      for (int i = 0; i < chunks; ++i) fill.a[i] = f->asmSpanBeg[i];
      f->asmSpan = envAllocArray<int>(env, 3 * static_cast<size_t>(f->asmSpanBeg[chunks]) + 1);
      if (!f->asmSpan) return VRX_ERROR_OUT_OF_MEMORY;
    }
    for (int k = 0; k < A.n; ++k) {
      const int len = static_cast<int>(f->asmBeg[k + 1] - f->asmBeg[k]);
      for (int a = 0; a < len;) {
        const int ch = chunkOf.a[superOf(k, a)];
        int e = a + 1;
        while (e < len && chunkOf.a[superOf(k, e)] == ch) ++e;
        if (pass == 0) {
          f->asmSpanBeg[ch + 1]++;
        } else {
          int* sp = f->asmSpan + 3 * fill.a[ch]++;
          sp[0] = k;
          sp[1] = a;
          sp[2] = e;
        }
        a = e;
      }
    }
  }
  f->asmChunks = chunks;
  return 0;
}

namespace {

// Row by row: the columns of A diag(theta) A' that fall into supernode s, when
// the assembly was not done in one pass before. relMap holds s's local rows.
void assembleSupernode(const FactorRun& run, const int* relMap, int s) {
  const VRXbarfactor* f = run.f;
  const BarMatrix& A = *run.A;
  const char* isDense = f->denseCols ? f->isDense : nullptr;
  const int c0 = f->superBeg[s], c1 = f->superBeg[s + 1];
  const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
  double* P = f->panelVal + f->panelBeg[s];
  std::memset(P, 0, sizeof(double) * static_cast<size_t>(nr) * (c1 - c0));
  for (int c = c0; c < c1; ++c) {
    const int o = f->perm[c];
    double* col = P + static_cast<int64_t>(c - c0) * nr;
    for (int64_t p = A.rowBeg[o]; p < A.rowBeg[o + 1]; ++p) {
      const int k = A.rowCol[p];
      if (isDense && isDense[k]) continue;
      const double tk = run.theta[k] * A.rowVal[p];
      if (tk == 0) continue;
      for (int64_t q = A.colBeg[k]; q < A.colBeg[k + 1]; ++q) {
        const int r = f->invPerm[A.rowInd[q]];
        if (r >= c) col[relMap[r]] += tk * A.val[q];
      }
    }
  }
}

// Local rows, the assembly when not done before, and the original diagonal of
// supernode s, ahead of its updates.
void prepareSupernode(const FactorRun& run, int* relMap, int s) {
  VRXbarfactor* f = run.f;
  const int c0 = f->superBeg[s], c1 = f->superBeg[s + 1];
  const int64_t rb = f->superRows[s];
  const int nr = static_cast<int>(f->superRows[s + 1] - rb);
  for (int t = 0; t < nr; ++t) relMap[f->superRowInd[rb + t]] = t;
  if (!f->asmOff) assembleSupernode(run, relMap, s);
  const double* P = f->panelVal + f->panelBeg[s];
  for (int c = c0; c < c1; ++c) f->diag0[c] = P[static_cast<int64_t>(c - c0) * nr + (c - c0)];
}

// End of the rows of K that fall into the columns of s, from K's next row p1.
int updateEnd(const VRXbarfactor* f, int K, int p1, int s) {
  const int64_t kb = f->superRows[K];
  const int nrK = static_cast<int>(f->superRows[K + 1] - kb);
  const int c1 = f->superBeg[s + 1];
  int p2 = p1;
  while (p2 < nrK && f->superRowInd[kb + p2] < c1) ++p2;
  return p2;
}

// The update of supernode K into the panel of s over K's rows p1 + [lo, hi)
// and its columns p1..p2, through one dgemm: straight into the panel when the
// rows and columns it touches are contiguous there.
void applyUpdate(VRXbarfactor* f, const int* relMap, ThreadWork& w, int s, int K, int p1, int p2, int lo, int hi) {
  const double one = 1.0, zero = 0.0, minus = -1.0;
  const int c0 = f->superBeg[s];
  const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
  double* P = f->panelVal + f->panelBeg[s];
  const int64_t kb = f->superRows[K];
  const int nrK = static_cast<int>(f->superRows[K + 1] - kb);
  const int ncK = f->superBeg[K + 1] - f->superBeg[K];
  const int n1 = p2 - p1, mb = hi - lo;
  const double* LK = f->panelVal + f->panelBeg[K];
  const int* rows = f->superRowInd + kb + p1;
  int* rel = w.relWork;
  for (int ii = 0; ii < mb; ++ii) rel[ii] = relMap[rows[lo + ii]];
  if (rows[n1 - 1] - rows[0] == n1 - 1 && rel[mb - 1] - rel[0] == mb - 1) {
    double* C = P + static_cast<int64_t>(rows[0] - c0) * nr + rel[0];
    dgemm_("N", "T", &mb, &n1, &ncK, &minus, LK + p1 + lo, &nrK, LK + p1, &nrK, &one, C, &nr);
    return;
  }
  double* C = w.update;
  dgemm_("N", "T", &mb, &n1, &ncK, &one, LK + p1 + lo, &nrK, LK + p1, &nrK, &zero, C, &mb);
  for (int jj = 0; jj < n1; ++jj) {
    double* col = P + static_cast<int64_t>(rows[jj] - c0) * nr;
    const double* cc = C + static_cast<int64_t>(jj) * mb;
    for (int ii = std::max(jj - lo, 0); ii < mb; ++ii) col[rel[ii]] -= cc[ii];
  }
}

void addPivots(ThreadWork& w, const PivotCount& pc) {
  w.regularised += pc.regularised;
  w.skipped += pc.skipped;
  w.minPivot = pc.minPivot;
}

// Supernode s on one thread: updates from the supernodes below, then the dense factor.
void factorSupernode(FactorRun& run, ThreadWork& w, int s, int task) {
  VRXbarfactor* f = run.f;
  int* head = f->link;
  const int* nextK = f->link + f->superCount + 1;
  const int nc = f->superBeg[s + 1] - f->superBeg[s];
  const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
  prepareSupernode(run, w.relMap, s);
  int K = head[s];
  head[s] = -1;
  while (K >= 0) {
    const int nextInList = nextK[K];
    const int nrK = static_cast<int>(f->superRows[K + 1] - f->superRows[K]);
    const int p1 = static_cast<int>(f->linkPos[K]);
    const int p2 = updateEnd(f, K, p1, s);
    applyUpdate(f, w.relMap, w, s, K, p1, p2, 0, nrK - p1);
    if (p2 < nrK) linkNext(f, K, p2, task);
    K = nextInList;
  }
  PivotCount pc{0, 0, w.minPivot};
  factorPanel(f, f->panelVal + f->panelBeg[s], nr, nr, nc, f->superBeg[s], f->diag0 + f->superBeg[s], run.reg,
              s == f->superCount - 1, &pc);
  addPivots(w, pc);
  if (nr > nc) linkNext(f, s, nc, task);
}

// Rows [lo, hi) of block b of nb over rows [from, nr) of a panel.
inline void blockRows(int from, int nr, int b, int nb, int* lo, int* hi) {
  const int64_t span = nr - from;
  *lo = from + static_cast<int>(span * b / nb);
  *hi = from + static_cast<int>(span * (b + 1) / nb);
}

// Block b of step one on a shared supernode: every update of the list, in
// list order, on the block's rows of the panel.
void sharedUpdates(FactorRun& run, ThreadWork& w, int b) {
  VRXbarfactor* f = run.f;
  const int s = run.shared, nb = f->teamBlocks[s];
  const int64_t rb = f->superRows[s];
  const int nr = static_cast<int>(f->superRows[s + 1] - rb);
  int r0, r1;
  blockRows(0, nr, b, nb, &r0, &r1);
  const int first = f->superRowInd[rb + r0];
  const int last = f->superRowInd[rb + r1 - 1];
  for (int i = 0; i < run.listLen; ++i) {
    const int K = f->updList[2 * i], p2 = f->updList[2 * i + 1];
    const int p1 = static_cast<int>(f->linkPos[K]);
    const int* rows = f->superRowInd + f->superRows[K] + p1;
    const int m1 = static_cast<int>(f->superRows[K + 1] - f->superRows[K]) - p1;
    if (rows[0] > last || rows[m1 - 1] < first) continue;
    // K's rows are among the panel's, so the cut at panel row r lies within
    // the panel rows K lacks: a short search when K covers most of them.
    const int gap = nr - m1;
    const int lo = static_cast<int>(
        std::lower_bound(rows + std::max(0, r0 - gap), rows + std::min(r0, m1), first) - rows);
    const int hi = static_cast<int>(
        std::upper_bound(rows + std::max(lo, r1 - gap), rows + std::min(r1, m1), last) - rows);
    if (lo < hi) applyUpdate(f, f->relMap, w, s, K, p1, p2, lo, hi);
  }
}

// Row blocks of step three: the rows below the diagonal block.
int solveBlocks(const VRXbarfactor* f, int s) {
  const int nc = f->superBeg[s + 1] - f->superBeg[s];
  const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
  return nr > nc ? std::min(f->teamBlocks[s], std::max(1, static_cast<int>((nr - nc) / kBlockRows))) : 0;
}

// Block b of step three: rows below the diagonal block through the triangular
// solve with the factored block; dropped pivots empty their columns.
void sharedSolve(FactorRun& run, int b) {
  VRXbarfactor* f = run.f;
  const int s = run.shared;
  const int c0 = f->superBeg[s], nc = f->superBeg[s + 1] - c0;
  const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
  double* P = f->panelVal + f->panelBeg[s];
  const double one = 1.0;
  int r0, r1;
  blockRows(nc, nr, b, solveBlocks(f, s), &r0, &r1);
  const int m = r1 - r0;
  dtrsm_("R", "L", "T", "N", &m, &nc, &one, P, &nr, P + r0, &nr);
  for (int j = 0; j < nc; ++j)
    if (f->dropped[c0 + j]) std::fill(P + int64_t(j) * nr + r0, P + int64_t(j) * nr + r1, 0.0);
}

// Piece `piece` of the step at hand.
void runPiece(FactorRun& run, ThreadWork& w, int piece) {
  VRXbarfactor* f = run.f;
  switch (run.kind) {
    case kAssemble:
      assembleChunk(run, w, piece);
      break;
    case kTasks: {
      const int t = f->taskOrder[piece];
      f->deferredCount[t] = 0;
      for (int s = f->taskBeg[t]; s < f->taskBeg[t] + f->taskLen[t]; ++s) factorSupernode(run, w, s, t);
      break;
    }
    case kUpdates:
      sharedUpdates(run, w, piece);
      break;
    default:
      sharedSolve(run, piece);
  }
}

// Takes pieces until the step at hand has none left; returns its epoch.
uint64_t takePieces(FactorRun& run, ThreadWork& w) {
  while (true) {
    const uint64_t v = run.step.fetch_add(1);
    if (stepPiece(v) >= stepCount(v)) return stepEpoch(v);
    runPiece(run, w, stepPiece(v));
    run.done.fetch_add(1);
  }
}

// Worker 0: a step of `count` pieces of one kind, shared and waited for.
void runStep(FactorRun& run, ThreadWork& w, int kind, int count) {
  if (count <= 0) return;
  run.kind = kind;
  run.done.store(0);
  const uint64_t epoch = (stepEpoch(run.step.load()) + 1) & 0xFF;
  run.step.store(epoch << 56 | static_cast<uint64_t>(count) << 32);
  // A helper counts itself asleep before it looks at the step, so one of the
  // two sides sees the other.
  if (run.sleepers.load() > 0) {
    std::lock_guard<std::mutex> hold(run.lock);
    run.wake.notify_all();
  }
  takePieces(run, w);
  while (run.done.load() < count) std::this_thread::yield();
}

// Helpers: wait for a new step, take its pieces, until worker 0 stops them.
// The wait spins a little, then yields for up to half a millisecond, the
// usual gap between steps, then sleeps.
void helpFactor(FactorRun& run, ThreadWork& w) {
  uint64_t seen = 0;
  while (true) {
    int spin = 0;
    double since = 0;
    while (!run.stop.load() && stepEpoch(run.step.load()) == seen) {
      if (++spin < 64) continue;
      if (since == 0) since = wallClock();
      if (wallClock() - since < 5e-4) {
        std::this_thread::yield();
        continue;
      }
      std::unique_lock<std::mutex> hold(run.lock);
      run.sleepers.fetch_add(1);
      run.wake.wait(hold, [&] { return run.stop.load() || stepEpoch(run.step.load()) != seen; });
      run.sleepers.fetch_sub(1);
    }
    if (run.stop.load()) return;
    seen = takePieces(run, w);
  }
}

// The top of the tree on worker 0, in order: a supernode with row blocks is
// shared in three steps (updates, diagonal block, rows below), the diagonal
// block here alone; the rest are factored here alone.
void factorTop(FactorRun& run, ThreadWork& w) {
  VRXbarfactor* f = run.f;
  const int ns = f->superCount;
  int* head = f->link;
  const int* nextK = f->link + ns + 1;
  int task = 0;
  for (int s = skipTasks(f, 0, &task); s < ns; s = skipTasks(f, s + 1, &task)) {
    if (!f->teamBlocks || f->teamBlocks[s] == 0) {
      factorSupernode(run, w, s, -1);
      continue;
    }
    const int c0 = f->superBeg[s], nc = f->superBeg[s + 1] - c0;
    const int nr = static_cast<int>(f->superRows[s + 1] - f->superRows[s]);
    prepareSupernode(run, f->relMap, s);
    int len = 0;
    for (int K = head[s]; K >= 0; K = nextK[K], ++len) {
      f->updList[2 * len] = K;
      f->updList[2 * len + 1] = updateEnd(f, K, static_cast<int>(f->linkPos[K]), s);
    }
    head[s] = -1;
    run.shared = s;
    run.listLen = len;
    runStep(run, w, kUpdates, f->teamBlocks[s]);
    for (int i = 0; i < len; ++i) {
      const int K = f->updList[2 * i], p2 = f->updList[2 * i + 1];
      if (p2 < f->superRows[K + 1] - f->superRows[K]) linkNext(f, K, p2, -1);
    }
    PivotCount pc{0, 0, w.minPivot};
    factorPanel(f, f->panelVal + f->panelBeg[s], nr, nc, nc, c0, f->diag0 + c0, run.reg, s == ns - 1, &pc);
    addPivots(w, pc);
    runStep(run, w, kSolve, solveBlocks(f, s));
    if (nr > nc) linkNext(f, s, nc, -1);
  }
}

// One thread of the numeric factor. Worker 0 runs the steps in order: the
// assembly, the subtree tasks, the top of the tree; the others help.
void factorThread(void* arg, int worker) {
  auto& run = *static_cast<FactorRun*>(arg);
  VRXbarfactor* f = run.f;
  ThreadWork& w = f->threadWork[worker];
  if (worker > 0) {
    helpFactor(run, w);
    return;
  }
  if (f->asmOff) runStep(run, w, kAssemble, run.chunks);
  runStep(run, w, kTasks, f->taskCount);
  // The links leaving the subtrees join in task order, whoever ran them.
  int* head = f->link;
  int* nextK = f->link + f->superCount + 1;
  for (int t = 0; t < f->taskCount; ++t) {
    for (int i = 0; i < f->deferredCount[t]; ++i) {
      const int K = f->deferred[f->taskBeg[t] + i];
      const int tgt = f->colSuper[f->superRowInd[f->superRows[K] + f->linkPos[K]]];
      nextK[K] = head[tgt];
      head[tgt] = K;
    }
  }
  factorTop(run, w);
  run.stop.store(1);
  std::lock_guard<std::mutex> hold(run.lock);
  run.wake.notify_all();
}

}  // namespace

int VRXbarFactorize(VRXenv* env, const BarMatrix& A, const double* theta, double reg, VRXbarfactor* f) {
  const int n = f->n, ns = f->superCount;
  f->skipPivotCount = 0;
  f->regularised = 0;
  f->minPivot = 1e300;
  std::memset(f->dropped, 0, static_cast<size_t>(n) + 1);
  std::fill(f->link, f->link + ns, -1);
  const int workers = std::max(1, std::min(f->workers, f->helperSlots + 1));
  const size_t relLen = static_cast<size_t>(n) + static_cast<size_t>(f->maxRows) + 1;
  for (int w = 0; w < workers; ++w) {
    ThreadWork& fw = f->threadWork[w];
    if (w == 0) {
      fw.relMap = f->relMap;
      fw.relWork = f->relWork;
      fw.update = f->update;
      fw.colVals = f->solveWork;
    } else {
      fw.relMap = f->workRel + (w - 1) * relLen;
      fw.relWork = fw.relMap + n + 1;
      fw.update = f->workUpdate + (w - 1) * static_cast<size_t>(f->updateSize + 1);
      fw.colVals = f->workCol + (w - 1) * (static_cast<size_t>(n) + 1);
    }
    fw.regularised = fw.skipped = 0;
    fw.minPivot = 1e300;
  }
  FactorRun run;
  run.A = &A;
  run.theta = theta;
  run.reg = reg;
  run.f = f;
  run.chunks = 1;
  if (f->asmOff && workers > 1) {
    if (!f->asmSpan) {
      const int rc = barPlanAssembly(env, A, f);
      if (rc) return rc;
    }
    run.chunks = f->asmChunks;
  }
  run.step.store(0);
  run.done.store(0);
  run.stop.store(0);
  run.sleepers.store(0);
  int rc = barRunWorkers(env, workers, factorThread, &run);
  if (rc) return rc;
  for (int w = 0; w < workers; ++w) {
    f->regularised += f->threadWork[w].regularised;
    f->skipPivotCount += f->threadWork[w].skipped;
    f->minPivot = std::min(f->minPivot, f->threadWork[w].minPivot);
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
