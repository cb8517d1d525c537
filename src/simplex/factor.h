// Sparse LU factor of the simplex basis with the Forrest-Tomlin update.
//
// The basis B holds, at position p = 0..m-1, the column of variable basisHead[p]: a matrix
// column for j < n, the unit column of row i for the slack n+i. The build gives
// B = L R^-1 U with
//   - L unit lower triangular in pivot order, kept as column etas (and row-wise for btran);
//   - R the row etas of the updates since the build;
//   - U square over row numbers: U's row r is the pivot row r, its column r holds the basis
//     position colPerm[r]; U is triangular in the order rowPerm, which updates change.
// Values are of type T: double, or long double for the extended-precision simplex.
#pragma once

#include <cstdint>

#include "env/env.h"
#include "simplex/svec.h"

// The constraint matrix column-wise, as the LP record keeps it; the factor only borrows the
// arrays (no copy, no free). Column j < n has its entries at
// rowInd/val[colBeg[j] .. colBeg[j] + colLen[j]); variable n+i is the slack of row i.
struct VRXfactorMatrix {
  int m;
  int n;
  const int64_t* colBeg;
  const int* colLen;
  const int* rowInd;
  const double* val;
};

// Scratch of the build; kept between builds so that a refactor does not allocate.
template <class T>
struct VRXfactorBuildWork {
  int64_t* rBeg;  // active rows in the build arena
  int64_t* rCap;
  int* rLen;
  int* rArNext;  // rows in arena order, for compaction
  int* rArPrev;
  int rArHead, rArTail;
  int64_t* cBeg;  // active column patterns in the column arena
  int64_t* cCap;
  int* cLen;
  int* cArNext;
  int* cArPrev;
  int cArHead, cArTail;
  int* rcHead;  // rows and columns in doubly linked lists by count
  int* rcNext;
  int* rcPrev;
  int* rcKey;  // count under which a row is listed, -1 when not listed
  int* ccHead;
  int* ccNext;
  int* ccPrev;
  int* ccKey;
  char* rState;  // 0 active, 1 pivoted, 2 parked (no eligible entry)
  char* cState;
  T* rMax;  // largest |entry| of a row, -1 when stale
  int* stamp;
  T* scat;
  int* queue;
  int* pcols;
  int* prows;
  T* colVals;
  int* pivRow;  // pivot sequence of the build
  int* pivCol;
  int64_t* lStart;  // L entries of pivot step t start at lStart[t]
  int* ipiv;        // dense tail
  int* perm;
  int* denseRows;
  int* denseCols;
  T* dense;
  int64_t denseCap;
  int* cArena;  // column patterns
  int64_t cArenaCap, cArenaTop;
  int64_t activeNz;
  int pivots;
  int denseFailed;
};

template <class T>
struct VRXfactorT {
  VRXenv* env;
  int m;
  int freshBasis;     // 1 until a build succeeded for the current basisHead
  double dropTol;     // solve-time zero
  int* basisHead;     // owned, m entries
  VRXfactorMatrix A;  // borrowed view of the last build's matrix

  int* rowPerm;     // position -> U row, m + updateCap slots, -1 where an update vacated one
  int* rowPermInv;  // U row -> position
  int* colPerm;     // U row -> basis position
  int* colPermInv;  // basis position -> U row

  // L by columns in pivot order; empty columns are not kept.
  int lColCount;
  int* lColPivot;  // pivot row of each kept column
  int* lColOfRow;  // kept column of a pivot row, -1 when empty
  int64_t* lColBeg;
  int* lColInd;
  T* lColVal;
  int64_t lColCap;
  // L by rows: row i lists (pivot row of the column, multiplier).
  int64_t* lRowBeg;
  int* lRowInd;
  T* lRowVal;
  int64_t lRowCap;
  int* lRowList;  // rows with entries, by pivot step
  int lRowListCount;

  T* diag;  // pivots of U, by row

  // U by rows; every row has a gap behind it up to uRowCap.
  int64_t* uRowBeg;
  int64_t* uRowEnd;
  int64_t* uRowCap;
  int* uRowInd;
  T* uRowVal;
  int64_t uRowArenaCap, uRowTop;
  // U by columns.
  int64_t* uColBeg;
  int64_t* uColEnd;
  int* uColInd;
  T* uColVal;
  int64_t uColArenaCap, uColTop;

  int singletonCount;
  int denseDim;     // order of the block the last build factored densely, 0 when none
  int cheapPivots;  // pivots of the last build searched in the cheapest count lists only
  int lastUsedPos;  // positions in use in rowPerm
  int nUpdatesDone;
  int updateLimit;
  int updateCap;  // updates the arrays were sized for
  int rowEtaCount;
  int64_t rowEtaNz;
  int64_t fillSum;
  int fillAvg;  // mean spike size of the last update cycle
  int etaAvg;   // mean row eta size of the last update cycle
  int64_t* etaBeg;
  int* etaPivotRow;
  int* etaInd;
  T* etaVal;
  int64_t etaCap;
  int* etaFirst;  // per row: 1 + the first eta holding an entry in it, 0 when none
  int* etaLastOfRow;  // per row: 1 + the newest eta pivoting on it, 0 when none
  int* etaPrevSame;   // per eta: the next older eta with the same pivot row, -1 when none
  int* etaHeap;       // scratch of the sparse row-eta pass in btran
  char* etaMark;      // per eta: queued in that pass

  // Build arena: the active matrix row-wise, grown by 1.5 when a build returns -1.
  int* uArena;
  T* uArenaVal;
  int64_t uArenaCap, uArenaTop;

  VRXsvecT<T> spike;  // entering column after L and R, saved by VRXftran
  int spikeValid;
  VRXsvecT<T> rowEta;  // v = diag[r] * U^-T e_r of the last unit btran, v_r = 1 left out
  int rowEtaPos;       // basis position of rowEta, -1 when none

  double solveWork;
  double solveWorkRate;
  int lastStages;    // kernels of the last solve: 1 L hyper-sparse, 2 U hyper-sparse
  int lastLCount;    // entries that went into the L stage of the last solve, -1 dense
  int lastEtaStart;  // first row eta the last ftran applied (rowEtaCount: none)
  int sparseRatio;
  int64_t lzNz, uNz;
  double workAtBuild;
  int reuseFactor;
  int valid;  // 1 while L, R, U describe basisHead

  // Output of a singular build: the unpivoted basis positions and the rows left without pivot.
  int unpivotedCount;
  int* unpivotedPos;
  int* pivotlessRow;

  // Solve scratch: wv is all zero between calls, inList/visited all 0.
  T* wv;
  int* wi;
  int wcount;  // -1 while wv is dense
  char* inList;
  char* visited;
  int* stack;
  int64_t* stackPos;
  int* reach;

  VRXfactorBuildWork<T> bw;
};

using VRXfactor = VRXfactorT<double>;
using VRXfactorQ = VRXfactorT<long double>;

// The fields of the LP record that the refactor, tightening and repair rules read and write.
struct VRXfactorCtl {
  double workFactor;    // unit of every work charge
  double markowitzTol;  // raised by tightening and repairs
  double zeroTol;       // entries at most this are not pivot candidates
  int refactorLimit;    // refactor interval, shrunk by repairs
  int updateCheck;      // m^0.45: below this many updates the fill test is off
  int luInterval;       // VORN_PAR_LUINTERVAL; nonzero keeps the interval fixed
  int scaled;           // the LP carries scale factors: pivot ratio test at 1e12
  int strictNumerics;
  int endFactor;   // VORN_PAR_SIMPLEXENDFAC
  int warmKind;    // VORN_PAR_WARMBASIS
  int concurrent;  // part of a concurrent run: no work average
  double iterCount, priorIter;
  int hasSavedState;  // a saved status array exists for the rescue routine
  int singularRepairs;
  int rescueCount;
  int updateFailures;  // updates refused for a tiny diagonal
  int normsStale;
  int actionCode;
  int status;
  double factorWorkAvg, lastFactorWork;
  int refactorCount;
  // Status codes of the variables (n + m); the repair moves dropped columns out.
  int n;
  int* varStat;         // may be null
  const double* lower;  // may be null: every lower bound finite
  double infBound;
  int* fixedList;  // fixLimit entries
  int fixedCount;
  int fixLimit;
};

// Fills ctl from the environment's parameters for an LP of m rows and n columns.
void VRXfactorCtlInit(VRXfactorCtl* ctl, VRXenv* env, int m, int n);

// Creates a factor for m rows able to take updateLimit updates. 0 or 10001.
template <class T>
int VRXfactorCreate(VRXenv* env, int m, int updateLimit, VRXfactorT<T>** out);
template <class T>
void VRXfactorFree(VRXfactorT<T>** f);
// A limit above the one given at creation reallocates the update arrays. 0 or 10001.
template <class T>
int VRXfactorSetUpdateLimit(VRXfactorT<T>* f, int updateLimit);

// One build attempt over basisHead (copied into the factor unless it is f->basisHead).
// Returns the number of unpivoted columns (0: success; otherwise the positions and rows are
// in unpivotedPos/pivotlessRow; a nucleus left with entries at most zeroTol only counts as
// unpivoted), -1 when the build arena is too small (grow uArenaCap by 1.5 and retry),
// -10001 out of memory, -10003 a bad variable index or a repeated row in a column, -10014
// when the nucleus keeps an entry above zeroTol that no pivot search accepts (not finite).
template <class T>
int VRXfactorBuild(VRXfactorT<T>* f, const VRXfactorMatrix* A, const int* basisHead, double zeroTol,
                   double markowitzTol, double workFactor, double* work);

// Build with the arena retry and the Markowitz tightening. Returns 0 or an error code;
// *unpivoted is the number of columns left without pivot (0 when the factor is valid). A
// build that finds no usable pivot (-10014) is retried at Markowitz tolerance 0.5, then
// sets ctl->status -1002 when a saved state exists for the rescue, else returns 12.
template <class T>
int VRXfactorFactorize(VRXfactorT<T>* f, const VRXfactorMatrix* A, const int* basisHead,
                       VRXfactorCtl* ctl, double* work, int* unpivoted);

// Factorize and repair a singular basis by slack substitution until the factor is valid.
// Returns 0 (check ctl->status: -1002 asks for the rescue routine and leaves the factor
// invalid), 12 when the repair gives up, 100001/100002 for a warm start to be replaced,
// 10001 out of memory, 10003 bad input.
template <class T>
int VRXfactorRefactor(VRXfactorT<T>* f, const VRXfactorMatrix* A, const int* basisHead,
                      VRXfactorCtl* ctl, double* work);

// Solves B x = in. in is indexed by row, out by basis position; out may be in. With
// saveSpike the column after L and R is kept for the next update. With clearOut the
// previous content of out is removed first, otherwise out must be all zero.
// Returns 0, or 10005 while the factor is not valid (never built, or a failed build).
template <class T>
int VRXftran(VRXfactorT<T>* f, const VRXsvecT<T>* in, VRXsvecT<T>* out, int saveSpike, int clearOut,
             double* work);
// Solves B^T y = in. in is indexed by basis position, out by row; out may be in. A
// right-hand side with one nonzero leaves its row eta for the update. 0 or 10005.
template <class T>
int VRXbtran(VRXfactorT<T>* f, const VRXsvecT<T>* in, VRXsvecT<T>* out, int clearOut, double* work);

// Replaces the column at basis position p by variable enterVar and writes basisHead[p].
// The spike of the last saving VRXftran is taken as enterVar's column; the row eta of the
// last unit VRXbtran is used when it was for position p; what is missing is computed.
// Returns 0; 1 when a refactor must come first, with ctl->actionCode 2 (update limit),
// 6 (tiny new diagonal, nothing changed) or 11 (storage short after 30 updates, or memory
// refused); 12 after more than 99 refused updates; 10003 bad arguments, 10005 no factor.
template <class T>
int VRXfactorUpdate(VRXfactorT<T>* f, int p, int enterVar, VRXfactorCtl* ctl, double* work);

// The refactor test at the head of an iteration: 0 keep updating, 2 update limit reached,
// 10 the updates cost more than a fresh factor would.
template <class T>
int VRXfactorRefactorTest(const VRXfactorT<T>* f, const VRXfactorCtl* ctl, double workNow,
                          int64_t nnz);
