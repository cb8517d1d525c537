// The batch of changes not yet applied to the committed store, and the calls
// that stage single writes into it.
//
// Every add, change and delete goes into the model's VRXpending; the update
// applies the whole batch in one pass over the store. Staging a single value
// touches one array slot and one mark word; the arrays are allocated at their
// first use and grow by amortised steps, never per call.
//
// Indices of variables and constraints refer to the committed store, or, when
// the batch runs with update mode 1, to the store followed by the pending
// additions in their order of addition.
#pragma once

#include <cstddef>
#include <cstdint>

#include "env/env.h"
#include "model/model.h"
#include "model/modeldata.h"

namespace vrx {

// Flag bits of VRXpending.flags.
constexpr uint32_t kPendInUse = 1u;
constexpr uint32_t kPendRowMarks = 2u;  // rowMark cleared for this batch
constexpr uint32_t kPendColMarks = 4u;  // colMark cleared for this batch

// Marks on a column.
constexpr uint32_t kColDeleted = 1u;
constexpr uint32_t kColVType = 2u;
constexpr uint32_t kColObj = 4u;
constexpr uint32_t kColPriority = 8u;
constexpr uint32_t kColName = 16u;
constexpr uint32_t kColPartition = 32u;
constexpr uint32_t kColPwl = 64u;
constexpr uint32_t kColHintVal = 128u;
constexpr uint32_t kColHintPri = 256u;

// Marks on a row.
constexpr uint32_t kRowDeleted = 1u;
constexpr uint32_t kRowSense = 2u;
constexpr uint32_t kRowRHS = 4u;
constexpr uint32_t kRowName = 8u;
constexpr uint32_t kRowLazy = 16u;

// Added variables: column-wise entries over the rows (store rows, and with
// update mode 1 pending rows too).
struct PendingVars {
  int count;
  int capacity;
  int64_t numNZs;
  int64_t nzCapacity;
  int64_t* beg;  // start of each item's entries; the last ends at numNZs
  int* ind;
  double* val;
  double* obj;   // as given, in the caller's sense
  double* lb;
  double* ub;
  char* vtype;
  char** names;  // null until the first named item; null entry: default name
};

// Added constraints: row-wise entries over the columns. A range row owns one
// slack column, which sits among the added variables.
struct PendingConstrs {
  int count;
  int slackCount;
  int capacity;
  int64_t numNZs;
  int64_t nzCapacity;
  int64_t* beg;
  int* ind;
  double* val;
  char* sense;
  double* rhs;
  double* range;  // upper - lower of a range row, 0 otherwise
  char** names;
};

// A list of (row, column, value) entries in call order.
struct TripletList {
  int64_t count;
  int64_t capacity;
  int* row;
  int* col;
  double* val;
};

struct SosChanges {
  int count;  // added sets
  int capacity;
  int64_t numMembers;
  int64_t memberCapacity;
  int* type;
  int64_t* beg;
  int* ind;
  double* weight;
  char* delMark;  // one per committed set, null until the first deletion
  int delCount;
};

struct GenChanges {
  int count;
  int capacity;
  VRXgenconstr* items;  // owned, with their arrays and names
  char* delMark;
  int delCount;
};

struct QCChanges {
  int count;
  int capacity;
  int64_t linNZ, linCapacity;
  int64_t quadNZ, quadCapacity;
  int64_t* linBeg;
  int* linInd;
  double* linVal;
  int64_t* quadBeg;
  int* qRow;
  int* qCol;
  double* qVal;  // a term a*x*y as a
  char* sense;
  double* rhs;
  char** names;
  char* delMark;
  int delCount;
};

struct ConeChanges {
  int count;
  int capacity;
  int64_t numMembers;
  int64_t memberCapacity;
  int64_t* beg;
  int* ind;
};

// Bound and QCRHS writes in call order; the last one for an item wins.
struct BoundChanges {
  int64_t count;
  int64_t capacity;
  int* index;
  char* kind;  // 'L' lower bound, 'U' upper bound, 'Q' QCRHS
  double* value;
};

// Writes on quadratic and general constraints other than QCRHS.
struct ItemEdits {
  int count;
  int capacity;
  int* index;
  char* kind;   // 'S' QCSense, 'N' QCName, 'G' GenConstrName
  char* sense;
  char** name;  // owned; null restores the default name
};

// Piecewise-linear objectives in call order; the last one for a column wins.
struct PwlChanges {
  int count;
  int capacity;
  int64_t numPoints;
  int64_t pointCapacity;
  int* var;
  int64_t* beg;
  int* npoints;  // 0 removes the column's function
  double* x;
  double* y;     // in the caller's sense
};

}  // namespace vrx

struct VRXpending {
  uint32_t flags;
  uint32_t updateMode;  // UpdateMode when the batch began
  int numVars;          // with update mode 1: store plus pending additions
  int numConstrs;
  int rowCapacity;      // sizes of the mark and value arrays
  int colCapacity;
  int newSense;         // requested ModelSense, 0 for none
  double newObjCon;     // requested ObjCon, 1e100 for none
  int clearQ;
  int nameSet;          // newName holds a requested ModelName (null: none)
  char* newName;
  vrx::PendingConstrs* newConstrs;
  vrx::PendingVars* newVars;
  vrx::TripletList* coeffChanges;
  vrx::TripletList* qTerms;  // a term a*x*y as a, in the caller's sense
  vrx::SosChanges* sosChanges;
  vrx::GenChanges* genChanges;
  vrx::QCChanges* qcChanges;
  vrx::ConeChanges* coneChanges;
  vrx::BoundChanges* boundChanges;
  vrx::PwlChanges* pwlChanges;
  void* objNChanges;  // further objectives: nothing stages them yet
  void* multiChanges;
  vrx::ItemEdits* itemEdits;
  uint32_t* rowMark;
  uint32_t* colMark;
  // Value arrays indexed like the marks, allocated at first use; a slot is
  // meaningful only where its mark bit is set.
  double* newObj;          // caller's sense
  char* newVType;
  double* newRHS;
  char* newConstrSense;
  int* newLazy;
  char** newVarName;       // owned while the mark is set
  char** newConstrName;
  int* newPriority;
  int* newHintPriority;
  int* newPartition;
  double* newHintValue;
  int64_t stagedNames;     // names held in the value arrays, for the discard
};

// The warm start: basis statuses, start vectors and dual norms in the shape
// of the committed store (columns, then rows).
struct VRXwarmstart {
  int warned;       // the refusal under update mode 1 was logged in this batch
  int size;         // entries of basis and start; negative: reserved, unset
  int columnCount;
  int basisState;   // 0 none, 1 set but unchecked, 2 checked, 3 partial
  int startKept;    // the update kept a basis that needs repair
  int startState;   // as basisState, for the start vectors
  int* basis;       // -10: not set
  double* start;    // PStart then DStart; 1e100: not set
  int normState;    // 0 none, 1 set but unchecked, 2 usable
  double* norms;    // VDualNorm then CDualNorm
};

namespace vrx {

constexpr int kBasisUnset = -10;

inline VRXwarmstart* warmOf(const VRXmodel* model) {
  return static_cast<VRXwarmstart*>(model->warmStart);
}

// ---- the record ----
// Steps 2 and 3 of every modelling call: the record in use, or a cleared one
// sized for the store. 0 or 10001.
int pendingOpen(VRXmodel* model, VRXpending** out);
// Clears the batch after a failure: staged data goes, the record stays.
void pendingDiscard(VRXmodel* model);
// Clears the record after a batch was applied or discarded.
void pendingClear(VRXenv* env, VRXpending* p);
void pendingFree(VRXenv* env, VRXpending* p);
// True when a batch is open.
bool pendingActive(const VRXmodel* model);
// Counts for index checks: with an open batch under update mode 1 they
// include the pending additions, otherwise they are the store's.
void pendingCounts(const VRXmodel* model, int* numVars, int* numConstrs);
// 10027 with its log line and text when UpdateMode changed since the batch began.
int pendingCheckMode(VRXmodel* model, VRXpending* p);

// Quadratic objective terms from inside a run (the convexity repair): the batch of
// VRXaddqpterms without the entry checks, which refuse calls during a solve.
int pendingAddQTerms(VRXmodel* model, int numqnz, const int* qrow, const int* qcol, const double* qval);

// ---- single writes, for the attribute calls ----
// The caller did the model check and the NaN checks. Each write checks its
// index against pendingCounts (10006, no text), its value where a rule says
// so (10003 with the text), and opens the batch. A failure inside the batch
// (10001) discards it.
int stageLB(VRXmodel* model, int var, double value);
int stageUB(VRXmodel* model, int var, double value);
int stageObj(VRXmodel* model, int var, double value);
int stageVType(VRXmodel* model, int var, char type);
int stageRHS(VRXmodel* model, int constr, double value);
int stageSense(VRXmodel* model, int constr, char sense);
int stageVarName(VRXmodel* model, int var, const char* name);
int stageConstrName(VRXmodel* model, int constr, const char* name);
int stageBranchPriority(VRXmodel* model, int var, int value);
int stagePartition(VRXmodel* model, int var, int value);
int stageVarHintVal(VRXmodel* model, int var, double value);
int stageVarHintPri(VRXmodel* model, int var, int value);
int stageLazy(VRXmodel* model, int constr, int value);
// Quadratic and general constraints are counted in the store only.
int stageQCRHS(VRXmodel* model, int qc, double value);
int stageQCSense(VRXmodel* model, int qc, char sense);
int stageQCName(VRXmodel* model, int qc, const char* name);
int stageGenConstrName(VRXmodel* model, int gc, const char* name);
int stageModelName(VRXmodel* model, const char* name);
int stageModelSense(VRXmodel* model, int sense);  // 1 or -1
int stageObjCon(VRXmodel* model, double value);

// ---- warm-start writes ----
// Indices refer to the store. While additions are pending under update mode
// 1 the write is refused with two log lines, once per batch, and returns 0.
int warmSetVBasis(VRXmodel* model, int var, int status);
int warmSetCBasis(VRXmodel* model, int constr, int status);
int warmSetPStart(VRXmodel* model, int var, double value);
int warmSetDStart(VRXmodel* model, int constr, double value);
int warmSetVDualNorm(VRXmodel* model, int var, double value);
int warmSetCDualNorm(VRXmodel* model, int constr, double value);
void warmStartFree(VRXenv* env, VRXwarmstart* ws);
// Keeps a final basis of a solve as the start of the next one, in the shape of
// the store (columns, then rows); no refusal applies. 0 or 10001.
int warmStartStoreBasis(VRXmodel* model, const int* vbasis, const int* cbasis);
// Step 4 of the update: checks a newly set basis, start and norms.
void warmStartSettle(VRXmodel* model);

// ---- the update ----
// The inner step of VRXupdatemodel, which VRXoptimize, the writers and the
// copy also run. On failure the batch is gone, status is 0 and the error stands.
int modelUpdate(VRXmodel* model);
// How much of the last solve the open batch allows to keep: 2 solution,
// 1 basis, 0 nothing.
int keepLevel(const VRXmodel* model);
// Frees the working LP, results, derived stores, the row-wise copy; status becomes 1.
void dropSolveResults(VRXmodel* model);

// Normal form of a sense: '<', '>', '=' or 0 for an invalid letter.
char normalizeSense(char c);
// Upper-cased variable type, or 0 for an invalid one.
char normalizeVType(char c);

}  // namespace vrx
