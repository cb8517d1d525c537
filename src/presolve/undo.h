// Undo records, the map that stays with the original model, and the walks
// that carry solutions between the original and the presolved problem.
//
// Sign conventions of the walks (minimisation, rows a.x <= b or a.x = b):
// d_j = c_j - sum_i a_ij y_i; a '<' row has y_i <= 0. Column statuses are the
// simplex codes: 0 basic, -1 at lower, -2 at upper, -3 nonbasic free; row
// statuses 0 basic (slack basic), -1 nonbasic (row at its right-hand side).
#pragma once

#include <cstddef>
#include <cstdint>

#include "env/env.h"

// One undo record: header and payload in one arena block. The payload holds
// ni ints and then nd doubles; each kind fixes the order (see undo.cpp).
struct VRXundo {
  int kind;
  int ni;
  int nd;
  void* payload;
  VRXundo* next;  // the older record
};

namespace vrx {

enum UndoKind {
  UNDO_FIXCOL = 1,
  UNDO_SUBSTCOL = 2,
  UNDO_IMPLIEDCOL = 3,
  UNDO_DUPCOL = 4,
  UNDO_PARROW = 5,
  UNDO_DOUBLETONROW = 6,
  UNDO_SINGLETONROW = 7,
  UNDO_FORCINGROW = 8,
  UNDO_SCALECOL = 9,
  UNDO_COLTOSLACK = 10,
  UNDO_QCOL = 11,
  UNDO_BINMAP = 12,
  UNDO_ROWSPLIT = 13,
  UNDO_SUBSTCOLX = 14,
  UNDO_SINGLETONEXPR = 15,
  UNDO_COMPLEMENT = 16,
  UNDO_IMPLIEDCONT = 17,
  UNDO_MERGECOLS = 18,
  UNDO_BLOCK = 19,
  UNDO_TWOROWS = 20
};

// Status codes of the walks.
constexpr int kStBasic = 0;
constexpr int kStLower = -1;
constexpr int kStUpper = -2;
constexpr int kStFree = -3;
constexpr int kStFixed = -4;  // bounds equal: -1 or -2 by the sign of d
constexpr int kRowBasic = 0;
constexpr int kRowActive = -1;

// An undefined entry of a crushed vector.
constexpr double kUndefined = 1e101;

struct UndoChunk {
  UndoChunk* next;
  size_t used;
  size_t cap;
};

// The stack: an arena of chunks and the newest record.
struct UndoStack {
  UndoChunk* chunks;
  VRXundo* head;
  int count;
};

// A new record with room for ni ints and nd doubles; throws std::bad_alloc.
VRXundo* undoPush(VRXenv* env, UndoStack& s, int kind, int ni, int nd);
inline int* undoInts(const VRXundo* u) { return static_cast<int*>(u->payload); }
inline double* undoDbls(const VRXundo* u) {
  size_t off = (static_cast<size_t>(u->ni) * sizeof(int) + 7) & ~static_cast<size_t>(7);
  return reinterpret_cast<double*>(static_cast<char*>(u->payload) + off);
}
void undoFree(VRXenv* env, UndoStack& s);

}  // namespace vrx

struct VRXmodel;

// What stays of the presolve record beside the presolved model.
struct VRXpresolvemap {
  VRXenv* env;
  VRXmodel* presolved;  // owned once the map hangs on the original model, else null
  int origCols, origRows;
  int preCols, preRows;
  // Columns and rows a reduction added (kind 13): indices origCols.. and
  // origRows.. in colMap and rowMap and in the walks; never handed out.
  int addedCols, addedRows;
  int* colMap;      // original column -> presolved column; -1 fixed or redundant, -2 and less with a dependence
  int* rowMap;      // original row -> presolved row, -1 removed
  char* rowNeg;     // original rows read with '>' (negated at build)
  double* origLb;   // bounds of the original columns, for the statuses after the walk
  double* origUb;
  char* origSense;  // '<' or '=' as the build saw each row
  double objConst;  // constant of the presolved objective
  vrx::UndoStack undo;
  // Built on first use, oldest record first.
  int undoCount;  // -1 until built
  int* undoKinds;
  VRXundo** undoPayloads;
  int* firstUse;  // per original column, first record (index) mentioning it, -1 none
  int* nextUse;   // per record, the next record mentioning the same column
  int crushFlag;  // some reduction lost the map from original to presolved columns
};

namespace vrx {

// Frees the map, and the presolved model when the map owns it.
void presolveMapFree(VRXpresolvemap* map);
// Hangs the map and its presolved model on the original model, in place of
// any earlier pair; the model owns both from here on.
void presolveMapKeep(VRXmodel* model, VRXmodel* presolved, VRXpresolvemap* map);
// Drops what presolveMapKeep hung on the model (a model change, a reset, the free).
void presolveMapDrop(VRXmodel* model);

// A primal-dual point with a basis. Any array may be null where not wanted.
struct LPPoint {
  double* x;     // columns
  double* y;     // rows
  double* d;     // columns
  int* colStat;  // columns
  int* rowStat;  // rows
};

// Presolved point (in the presolved model's row orientation) to the original
// model's terms: duals of rows read with '>' come back with their sign turned.
// 0 or 10001.
int uncrushLP(const VRXpresolvemap* map, const LPPoint& pre, LPPoint& orig);
// Primal values only. len is the length of origX: a shorter output uncrushes
// into scratch space and copies the prefix. 0 or 10001.
int uncrushPrimal(const VRXpresolvemap* map, const double* preX, double* origX, int len);
// Carries a start in original terms (kUndefined where not given) to the
// presolved columns. *partial is 1 when some presolved column stays undefined.
// 0 or 10001.
int crushStart(const VRXpresolvemap* map, const double* origX, double* preX, int* partial);
// Carries an expression sum coef_k x_ind_k (<= or =) rhs to the presolved
// columns. Output lists need room for preCols entries. 0, 10001, or 20000 when
// a column the map lost is mentioned and crushFlag is set.
int crushExpr(VRXpresolvemap* map, int count, const int* ind, const double* coef, double rhs,
              int* outCount, int* outInd, double* outCoef, double* outRhs);
// Lays out the records oldest first and the use chains; idempotent. 0 or 10001.
int presolveMapIndex(VRXpresolvemap* map);

}  // namespace vrx
