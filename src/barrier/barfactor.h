// The sparse Cholesky factor of the barrier: dense columns, ordering, the
// supernodal symbolic factor and the numeric factor on dense BLAS blocks.
//
// The factored matrix is M = A diag(theta) A' over the sparse columns of A, plus
// the dense columns through a Schur complement in the solve.
#pragma once

#include <cstdint>

#include "env/clock.h"
#include "env/env.h"

namespace vrx {

// The constraint matrix in both orientations (m rows, n columns).
struct BarMatrix {
  int m;
  int n;
  const int64_t* colBeg;  // n + 1
  const int* rowInd;
  const double* val;
  const int64_t* rowBeg;  // m + 1
  const int* rowCol;
  const double* rowVal;
};

}  // namespace vrx

struct VRXbarstats {
  double aatNz;   // entries of the product pattern, both triangles and the diagonal
  double factorNz;
  double factorOps;
  int denseCols;
  int freeVars;
  double qNz;
  double secondsPerIter;  // -1 when calibration was skipped
};

struct VRXbarfactor {
  int n;
  int* perm;     // new position -> original row
  int* invPerm;  // original row -> new position
  int64_t* colBeg;  // lower-triangle pattern of the permuted product, by column
  int* rowInd;
  int* etree;
  int* superBeg;  // superCount + 1 start columns
  int superCount;
  int64_t* superRows;  // superCount + 1: row sets of each supernode
  int* superRowInd;
  int64_t* panelBeg;   // superCount + 1: column-major panel of each supernode
  double* panelVal;
  double factorNz;
  double factorOps;
  int denseCols;
  int* denseColList;
  double* denseBlock;  // denseCols x denseCols Schur complement, factored
  int threads;
  double orderTime;
  int skipPivotCount;  // pivots dropped from the solves
  int regularised;     // pivots raised to the regularisation value

  // Working parts.
  double orderWork;     // work units of the ordering, minimum degree and dissection
  double amdWork;       // of which the minimum degree passes
  int ndCopies;         // dissection copies run, 0 when minimum degree stood alone
  char* isDense;        // n columns of A: 1 for a dense column
  int* colSuper;        // column -> supernode
  int64_t updateSize;   // largest update block
  double* update;       // update buffer
  int* relMap;          // row -> local row in the supernode at hand
  int* link;            // supernode lists of the left-looking factor
  int64_t* linkPos;
  char* dropped;        // n: 1 when the pivot is out of the solves
  double* denseW;       // n x denseCols: M^-1 times the scaled dense columns
  double* solveWork;    // maxRows + n: scratch of the triangular solves
  double* refineWork;   // residuals and products of the refinement
  int maxRows;
  double minPivot;
  int denseRetry;
  // Dense columns by conjugate gradients on the sparse factor instead of the
  // Schur block; the iteration stops after solveIterLimit steps.
  int denseGS;
  int solveIterLimit;
  VRXenv* env;  // for the log of those steps
  // Assembly of A diag(theta) A' into the panels, fixed by the symbolic factor:
  // each sparse column of A lists its entries in factor order (asmIdx, from
  // asmBeg) and then, for every pair of them, the panel slot it adds to
  // (asmOff, from asmPairBeg). Empty when the pairs would take too much memory.
  int64_t* asmBeg;
  int* asmIdx;
  int64_t* asmPairBeg;
  uint32_t* asmOff;
  int* relWork;  // maxRows: local rows of one update block
  double* diag0; // n: diagonal of the assembled matrix, for the pivot test
  // Subtrees of the supernode tree factored as independent tasks, each a
  // range of supernodes [taskBeg[t], taskBeg[t] + taskLen[t]); the rest, the
  // top of the tree, follows on one thread. Fixed by the symbolic factor and
  // not by the thread count, so every thread count gives the same factor.
  int taskCount;
  int* taskBeg;
  int* taskLen;
  int* deferred;        // superCount: per task, links leaving its subtree
  int* deferredCount;   // taskCount
  int workers;          // threads of the numeric factor
  int* workRel;         // (workers - 1) x (n + maxRows): relMap and relWork of the helpers
  double* workUpdate;   // (workers - 1) x updateSize
  // -- ordering and symbolic factor: further fields below this line --
  int ndFull;  // dissection copy 0 ordered the full pattern, dense columns kept sparse
  // -- numeric factor: further fields below this line --
  int helperSlots;    // helpers whose buffers workRel, workUpdate and workCol hold
  int* taskOrder;     // taskCount: tasks by decreasing flops, the order threads take them in
  // superCount: row blocks of a supernode above the tasks that all threads
  // share, 0 when one thread factors it. Fixed by the symbolic factor, so the
  // same blocks run in the same order whatever the number of workers; a factor
  // planned for one thread has none.
  int* teamBlocks;
  int* updList;       // 2 x superCount: supernodes updating the shared one, and where their rows end
  double* workCol;    // helpers x (n + 1): one column of A in the assembly
  struct VRXbarthreadwork* threadWork;  // workers: buffers and pivot counts of each thread
  // Chunks of the assembly for several threads, made with the symbolic factor:
  // supernode ranges (asmChunks + 1 bounds) and their runs of entries of the
  // columns of A, three ints each (column, first, end), from asmSpanBeg.
  int asmChunks;
  int* asmChunkSuper;
  int64_t* asmSpanBeg;
  int* asmSpan;
};

namespace vrx {

// The parameters the factor reads.
struct BarFactorOpts {
  int denseSep = -1;      // VORN_PAR_BARDENSESEP
  int denseThresh = -1;   // VORN_PAR_BARDENSETHRESH
  int denseGS = 0;        // VORN_PAR_BARDENSEGS
  int order = -1;         // BarOrder
  int threads = 1;         // threads the ordering copies may use
  int cores = 1;           // processors of the machine: bound on the number of copies
  int seed = 0;            // Seed
  int displayInterval = 5; // DisplayInterval
  bool log = false;        // the elapsed-time lines of a long ordering
  // Predicted flops above which, with more than two copies and an automatic
  // dense set, dissection copy 0 also orders the full pattern.
  double fullPatternOps = 1e10;
};

// Progress lines of a long ordering, written by one copy only.
struct NdProgress {
  double start;
  double interval;
  double lastPrint;
};

void barFactorFree(VRXenv* env, VRXbarfactor* f);

// Marks the dense columns of A in f->isDense / f->denseColList. 0 or 10001.
int VRXbarDenseCols(VRXenv* env, const BarMatrix& A, const BarFactorOpts& opts, VRXbarfactor* f);
// Approximate minimum degree on a symmetric pattern given by both triangles
// without the diagonal; writes order (new -> old). Adds its cost in work units
// to *work when given. 0 or 10001.
int VRXbarAMD(VRXenv* env, int n, const int64_t* xadj, const int* adj, int* order, double* work = nullptr);
// Nested dissection on the same kind of pattern, seeded; progress and work may be null.
int VRXbarND(VRXenv* env, int n, const int64_t* xadj, const int* adj, uint64_t seed, int* order,
             NdProgress* progress, double* work = nullptr);
// Dense columns, ordering and symbolic factor, with the retry without dense
// columns when they made the ordering worse. 0 or 10001.
int VRXbarOrder(VRXenv* env, const BarMatrix& A, const BarFactorOpts& opts, VRXbarfactor* f,
                double* nzOut, double* opsOut);
// Elimination tree, supernodes and panels for the ordering in f->perm.
int VRXbarSymbolic(VRXenv* env, const BarMatrix& A, VRXbarfactor* f);
// Numeric factor of A diag(theta) A' (sparse columns) and of the Schur block of
// the dense columns. reg > 0 replaces tiny pivots by reg, else they drop out.
// 0, 10001.
int VRXbarFactorize(VRXenv* env, const BarMatrix& A, const double* theta, double reg, VRXbarfactor* f);
// Solves (A diag(theta) A') x = rhs with the last factor; x may alias rhs.
void VRXbarSolve(const VRXbarfactor* f, const BarMatrix& A, const double* theta, const double* rhs, double* x);
// Machine speed: a timed dgemm and a memory pass. Rates in flops and bytes per second.
void VRXbarCalibrate(VRXenv* env, double* flopRate, double* bandwidth);
// The statistics block of the log.
void VRXbarLogStats(VRXenv* env, const VRXbarstats& st, int threads, bool quadratic);

// BLAS, through the Fortran symbols of the linked library.
extern "C" {
void dgemm_(const char* ta, const char* tb, const int* m, const int* n, const int* k, const double* alpha,
            const double* a, const int* lda, const double* b, const int* ldb, const double* beta, double* c,
            const int* ldc);
void dtrsm_(const char* side, const char* uplo, const char* ta, const char* diag, const int* m, const int* n,
            const double* alpha, const double* a, const int* lda, double* b, const int* ldb);
void dsyrk_(const char* uplo, const char* trans, const int* n, const int* k, const double* alpha, const double* a,
            const int* lda, const double* beta, double* c, const int* ldc);
void dtrsv_(const char* uplo, const char* trans, const char* diag, const int* n, const double* a, const int* lda,
            double* x, const int* incx);
void dgemv_(const char* trans, const int* m, const int* n, const double* alpha, const double* a, const int* lda,
            const double* x, const int* incx, const double* beta, double* y, const int* incy);
}

}  // namespace vrx
