// The working presolve record: row and column form of the problem, activities,
// the change tracker, counters and limits. One record lives for one driver run;
// everything it owns comes from the environment's allocator.
//
// Rows are a.x <= b or a.x = b. Rows read with '>' are negated at build
// (rowNeg). Row r's entries sit in slots rowBeg[r] .. rowBeg[r]+rowLen[r]-1 of
// rowInd/rowVal; a deleted entry keeps its slot with rowInd -1 until the row is
// compacted. Each live slot is also linked into its column's list (colHead,
// slotNext, slotPrev), so a column is walked without a column-wise copy.
#pragma once

#include <cstdint>

#include "env/clock.h"
#include "env/env.h"
#include "presolve/undo.h"

struct VRXmodel;
struct VRXmodeldata;

namespace vrx {

// Stopwatch slots of the LP driver: one per reduction family.
enum PreWatch {
  pwTotal,
  pwRows,       // empty, free, redundant rows and tiny coefficients
  pwSingleRow,
  pwForcing,
  pwColumns,    // the column pass: fixed, empty and singleton columns
  pwImplFree,   // implied-free column singletons
  pwDualBound,  // objective-sided bound pass
  pwDualFix,
  pwDominated,
  pwParRows,
  pwParCols,
  pwAggregate,
  pwDoubleton,
  pwDepRows,
  pwColSlack,
  pwDupCols,
  pwActivity,
  pwSpare,
  pwCount  // 18
};

// A growable list of indices on the environment's allocator.
struct IdxList {
  int* item;
  int count;
  int cap;
};

struct PreCounters {
  int boundsChanged, coeffsChanged, ineqToEq, rowsRemoved, colsRemoved, typeChanges;
  int sosRemoved, sosSplit, conesRemoved, qRemoved, qChanged;
};

// A snapshot for the progress score.
struct PreSnapshot {
  PreCounters c;
  int liveCols, liveRows;
};

}  // namespace vrx

struct VRXpresolve {
  VRXenv* env;
  const vrx::ParamStore* par;
  int numCols, numRows;
  int64_t nzCount;
  int liveCols, liveRows;

  // Row-wise matrix with per-row slack space.
  int64_t* rowBeg;
  int* rowLen;  // slots in use, dead ones included
  int* rowCap;  // slots reserved
  int* rowInd;  // column, or -1 for a deleted entry
  double* rowVal;
  int64_t slotCap, slotEnd;
  int* rowCount;  // live entries; -1 removed as redundant, -2 removed with its columns updated
  // Column view over the slots.
  int64_t* colHead;
  int64_t* slotNext;
  int64_t* slotPrev;
  int* slotRow;
  int* colCount;  // live entries; -1 removed by fixing or as empty, -2 into another column, -3 merged
  int64_t* colPos;  // scratch of the substitutions: slot of each column in the row at hand, else -1

  double* minAct;
  double* maxAct;
  int* minInf;
  int* maxInf;
  double* colAbsMin;
  double* colAbsMax;

  double* lb;
  double* ub;
  double* obj;
  double objConst;
  double* rhs;
  char* sense;  // '<', '='
  char* rowNeg; // 1: the row was read with '>' and negated
  char* colType;
  int primalOnly;

  vrx::UndoStack undo;
  vrx::PreCounters counters;

  int reductionLimit;
  int step;
  double workLimit;
  double workStart;
  double* work;
  double workScale;
  double watch[vrx::pwCount];  // work spent per family
  double watchBudget;          // per family; 0 means unused
  int infeasRow, infeasCol;
  int unbdCol;
  int dualUsed;  // a reduction relied on dual arguments
  int64_t matrixStamp;  // grows with every change of an entry or a row's presence

  // Change tracker: mode 2 fast loop, 1 medium part, 0 everything.
  int trackMode;
  char* rowMark;
  char* colMark;
  vrx::IdxList rowsNext, colsNext;  // changed since the last take
  vrx::IdxList rowsNow, colsNow;    // what the passes of this round look at

  // Tolerances and switches.
  double feasTol, optTol, infBound;
  int dualReductions;
  int depRowMode;
  int quick;
  double startWall;
  double lastPrint;
};

namespace vrx {

// Outcomes of the reductions.
constexpr int kPreOk = 0;
constexpr int kPreInfeasible = 3;
constexpr int kPreUnbounded = 5;
// The driver stops the loop (limit reached).
constexpr int kPreStop = -1;

// ---- the record (build.cpp) ----
// Builds the record from the store; throws std::bad_alloc when memory runs out.
VRXpresolve* presolveCreate(VRXenv* env, const VRXmodeldata* data, double* work);
void presolveFree(VRXpresolve* p);

// Frees the record when the scope ends, on every path.
struct PresolveHolder {
  VRXpresolve* p = nullptr;
  PresolveHolder() = default;
  PresolveHolder(const PresolveHolder&) = delete;
  PresolveHolder& operator=(const PresolveHolder&) = delete;
  ~PresolveHolder() { presolveFree(p); }
};

// Allocation that throws on failure; the drivers catch at their boundary.
void* preAlloc(VRXenv* env, size_t bytes);
template <class T>
T* preArray(VRXenv* env, size_t count) {
  return static_cast<T*>(preAlloc(env, (count ? count : 1) * sizeof(T)));
}
void listPush(VRXenv* env, IdxList& l, int v);
void listFree(VRXenv* env, IdxList& l);

inline bool isInf(const VRXpresolve* p, double v) { return v >= p->infBound || v <= -p->infBound; }
inline bool rowLive(const VRXpresolve* p, int r) { return p->rowCount[r] >= 0; }
inline bool colLive(const VRXpresolve* p, int j) { return p->colCount[j] >= 0; }
inline void charge(VRXpresolve* p, int family, double units) {
  units *= p->workScale;
  *p->work += units;
  p->watch[family] += units;
}

// ---- entries, activities, bounds (build.cpp) ----
void markRow(VRXpresolve* p, int r);
void markCol(VRXpresolve* p, int j);
// Deletes the entry in slot k: unlinks it, updates counts and the row's activities.
void deleteEntry(VRXpresolve* p, int64_t k);
// Adds an entry to row r (the column must not be in the row yet).
void addEntry(VRXpresolve* p, int r, int j, double v);
// Changes the value of the entry in slot k, activities follow.
void changeEntry(VRXpresolve* p, int64_t k, double v);
// Changes a column bound; activities of its rows follow and they are marked.
void setLower(VRXpresolve* p, int j, double v);
void setUpper(VRXpresolve* p, int j, double v);
// Recomputes the activities of one row or of all rows.
void rowActivity(VRXpresolve* p, int r);
void allActivities(VRXpresolve* p);
// Removes a row: its entries go (column counts fall), rowCount becomes code.
void removeRow(VRXpresolve* p, int r, int code);
// Compacts a row's slots so no dead slot stays.
void compactRow(VRXpresolve* p, int r);
// Makes room for extra entries in row r (moves it to the end of the slot area).
void reserveRow(VRXpresolve* p, int r, int extra);
// Finds the slot of column j in row r, or -1.
int64_t findInRow(const VRXpresolve* p, int r, int j);
// Residual activity bounds of row r without the entry (a, on column j): the
// minimum and maximum of the other terms minus b. Infinite when not bounded.
void residualActivity(const VRXpresolve* p, int r, int j, double a, double* resMin, double* resMax);
// Implied bounds of column j from row r (entry a): lo/hi of x_j that the row
// forces given the other columns' bounds; +-1e100 when none.
void impliedFromRow(const VRXpresolve* p, int r, int j, double a, double* lo, double* hi);
// Outward-rounded sums.
double addUp(double a, double b);    // the result is never below the true sum
double addDown(double a, double b);  // never above
// Negates a row in place (entries, rhs, activities); flips rowNeg.
void negateRow(VRXpresolve* p, int r);

// Tracker: moves the changed lists into the lists the passes look at.
void trackerTake(VRXpresolve* p);
// The rows (columns) a pass looks at: the taken lists in modes 2 and 1, all in mode 0.
int trackRowCount(const VRXpresolve* p);
int trackRow(const VRXpresolve* p, int k);
int trackColCount(const VRXpresolve* p);
int trackCol(const VRXpresolve* p, int k);

PreSnapshot snapshot(const VRXpresolve* p);
double progressScore(const VRXpresolve* p, const PreSnapshot& s);

// ---- reductions (rows.cpp, cols.cpp, aggregate.cpp, parallel.cpp, deprows.cpp) ----
// Each returns kPreOk, kPreInfeasible or kPreUnbounded.
int fixColumn(VRXpresolve* p, int j, double v);
int emptyAndFreeRows(VRXpresolve* p);
int redundantRows(VRXpresolve* p);
int singletonRows(VRXpresolve* p);
int forcingRows(VRXpresolve* p);
int columnPass(VRXpresolve* p);
int impliedFreeSingletons(VRXpresolve* p);
int dualFixing(VRXpresolve* p);
int dualBoundPass(VRXpresolve* p);
int parallelRows(VRXpresolve* p);
int parallelColumns(VRXpresolve* p);
int aggregate(VRXpresolve* p, bool doubletonOnly, int aggFill);
int dependentRows(VRXpresolve* p);
int columnToSlack(VRXpresolve* p, int* removed);
// Columns that an equitable partition of the problem puts in one cell are
// merged into their sum (kind 18), the rows of a cell into one. limit scales
// the work budget of the refinement (limit times ten sweeps over the matrix).
int symmetryPass(VRXpresolve* p, double limit);
// Implied-free columns lose their bounds and are measured from the old lower
// bound (kind 9).
int impliedFreeRebase(VRXpresolve* p);
// Pairs of columns whose only rows are the same two equations, taken out with
// them when the rows hold both inside their bounds (kind 20). level >= 1.
int twoRowPass(VRXpresolve* p, int level);
// Substitutes column j out through the equation in row r (slot kr); writes
// kind 2 (and kind 6 for bounds carried across a two-entry row). Returns
// kPreOk, or kPreStop when the substitution was refused.
int substituteColumn(VRXpresolve* p, int j, int r, int64_t kr, bool carryBounds);

// ---- driver and packing (driver.cpp, pack.cpp) ----
struct PresolveOut {
  int status;             // 0 reduced; 3 infeasible, 4 infeasible or unbounded, 5 unbounded
  VRXmodel* presolved;    // null when status is not 0
  VRXpresolvemap* map;
};
// Flags of the LP driver: the dependent-row mode is needed (barrier), quick
// mode (simplex re-entry), names go into the presolved model.
constexpr int kPreFlagDepRows = 1;
constexpr int kPreFlagQuick = 4;
constexpr int kPreFlagNames = 8;
// The LP driver.
// Returns 0, 10001; the outcome in out. The caller frees out.presolved and out.map.
int presolveLP(VRXmodel* model, double* work, int flags, PresolveOut* out);
// Builds the presolved model and the map from the record.
int presolvePack(VRXpresolve* p, VRXmodel* model, bool withNames, PresolveOut* out);

}  // namespace vrx
