// The update: the batch applied to the store in one pass.
//
// Everything that needs memory is built first, beside the store, so that a
// failed allocation leaves the store as it was; then the new blocks replace
// the old ones and the single-value changes are written in place.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "env/envvec.h"
#include "env/nameindex.h"
#include "model/pending.h"
#include "model/pending_impl.h"
#include "model/result.h"
#include "presolve/undo.h"
#include "simplex/lp.h"

namespace vrx {

namespace {

// Rebuilding the name indexes and the row-wise copy pays off after this
// many deleted or renamed rows and columns.
constexpr int kRebuildChanges = 100000;

uint32_t colMarkAt(const VRXpending* p, int j) {
  return (p->flags & kPendColMarks) && p->colMark && j < p->colCapacity ? p->colMark[j] : 0;
}

uint32_t rowMarkAt(const VRXpending* p, int i) {
  return (p->flags & kPendRowMarks) && p->rowMark && i < p->rowCapacity ? p->rowMark[i] : 0;
}

int addedVars(const VRXpending* p) { return p->newVars ? p->newVars->count : 0; }
int addedConstrs(const VRXpending* p) { return p->newConstrs ? p->newConstrs->count : 0; }

// What the batch holds, counted in one pass over the marks and the lists.
struct Summary {
  int n0 = 0, m0 = 0, n1 = 0, m1 = 0;
  int delCols = 0, delRows = 0;
  int renamedCols = 0, renamedRows = 0;
  int objCols = 0, typeCols = 0, pwlCols = 0;
  int priorityCols = 0, partitionCols = 0, hintValCols = 0, hintPriCols = 0;
  int senseRows = 0, rhsRows = 0, lazyRows = 0;
  int64_t coeffs = 0, qTerms = 0, bounds = 0;
  int sosAdded = 0, sosDeleted = 0, genAdded = 0, genDeleted = 0;
  int qcAdded = 0, qcDeleted = 0, cones = 0, pwlChanges = 0, edits = 0, qcNameEdits = 0;
  bool sense = false, objCon = false, name = false, clearQ = false;

  bool empty() const {
    return n1 == n0 && m1 == m0 && !delCols && !delRows && !renamedCols && !renamedRows &&
           !objCols && !typeCols && !pwlCols && !priorityCols && !partitionCols &&
           !hintValCols && !hintPriCols && !senseRows && !rhsRows && !lazyRows && !coeffs &&
           !qTerms && !bounds && !sosAdded && !sosDeleted && !genAdded && !genDeleted &&
           !qcAdded && !qcDeleted && !cones && !pwlChanges && !edits && !sense && !objCon &&
           !name && !clearQ;
  }
};

Summary summarize(const VRXmodel* model, const VRXpending* p) {
  Summary s;
  const VRXmodeldata* d = model->data;
  s.n0 = d->numVars;
  s.m0 = d->numConstrs;
  s.n1 = s.n0 + addedVars(p);
  s.m1 = s.m0 + addedConstrs(p);
  if (p->flags & kPendColMarks) {
    const int top = std::min(p->colCapacity, s.n1);
    for (int j = 0; j < top; ++j) {
      const uint32_t k = p->colMark[j];
      if (!k) continue;
      if (k & kColDeleted) ++s.delCols;
      if (k & kColVType) ++s.typeCols;
      if (k & kColObj) ++s.objCols;
      if (k & kColPriority) ++s.priorityCols;
      if (k & kColName) ++s.renamedCols;
      if (k & kColPartition) ++s.partitionCols;
      if (k & kColPwl) ++s.pwlCols;
      if (k & kColHintVal) ++s.hintValCols;
      if (k & kColHintPri) ++s.hintPriCols;
    }
  }
  if (p->flags & kPendRowMarks) {
    const int top = std::min(p->rowCapacity, s.m1);
    for (int i = 0; i < top; ++i) {
      const uint32_t k = p->rowMark[i];
      if (!k) continue;
      if (k & kRowDeleted) ++s.delRows;
      if (k & kRowSense) ++s.senseRows;
      if (k & kRowRHS) ++s.rhsRows;
      if (k & kRowName) ++s.renamedRows;
      if (k & kRowLazy) ++s.lazyRows;
    }
  }
  s.coeffs = p->coeffChanges ? p->coeffChanges->count : 0;
  s.qTerms = p->qTerms ? p->qTerms->count : 0;
  s.bounds = p->boundChanges ? p->boundChanges->count : 0;
  if (p->sosChanges) {
    s.sosAdded = p->sosChanges->count;
    s.sosDeleted = p->sosChanges->delCount;
  }
  if (p->genChanges) {
    s.genAdded = p->genChanges->count;
    s.genDeleted = p->genChanges->delCount;
  }
  if (p->qcChanges) {
    s.qcAdded = p->qcChanges->count;
    s.qcDeleted = p->qcChanges->delCount;
  }
  s.cones = p->coneChanges ? p->coneChanges->count : 0;
  s.pwlChanges = p->pwlChanges ? p->pwlChanges->count : 0;
  if (p->itemEdits) {
    s.edits = p->itemEdits->count;
    for (int k = 0; k < p->itemEdits->count; ++k)
      if (p->itemEdits->kind[k] == 'N') ++s.qcNameEdits;
  }
  s.sense = p->newSense != 0;
  s.objCon = p->newObjCon != kInf;
  s.name = p->nameSet != 0;
  s.clearQ = p->clearQ != 0;
  return s;
}

// The basis that a change would be judged against: the warm-start record's
// checked basis, in the shape of the store.
const int* storedBasis(const VRXmodel* model) {
  const VRXwarmstart* ws = warmOf(model);
  if (!ws || ws->basisState != 2 || !ws->basis) return nullptr;
  const VRXmodeldata* d = model->data;
  if (ws->size != d->numVars + d->numConstrs || ws->columnCount != d->numVars) return nullptr;
  return ws->basis;
}

int levelFor(const VRXmodel* model, const VRXpending* p, const Summary& s) {
  const VRXmodeldata* d = model->data;
  const int* basis = storedBasis(model);
  const bool quadratic = d->numQNZs > 0;
  if (d->numIntVars > 0 || d->numSOS > 0) return 0;
  if (!model->lp && !basis && !quadratic) return 0;
  const int n0 = s.n0;
  auto basic = [&](int j) { return basis && j < n0 && basis[j] == VRX_BASIC; };
  int level = model->lp ? 2 : 1;
  if (p->objNChanges) level = std::min(level, 1);
  if (s.delRows) {
    level = std::min(level, 1);
    for (int i = 0; i < s.m0; ++i)
      if ((rowMarkAt(p, i) & kRowDeleted) && basis && basis[n0 + i] != VRX_BASIC) return 0;
  }
  if (s.delCols) {
    level = std::min(level, 1);
    for (int j = 0; j < n0; ++j)
      if ((colMarkAt(p, j) & kColDeleted) && basic(j)) return 0;
  }
  if (s.typeCols)
    for (int j = 0; j < s.n1; ++j)
      if ((colMarkAt(p, j) & kColVType) && p->newVType[j] != 'C') return 0;
  for (int k = 0; k < addedVars(p); ++k)
    if (p->newVars->vtype[k] != 'C') return 0;
  if (s.coeffs) {
    level = std::min(level, 1);
    const TripletList* t = p->coeffChanges;
    for (int64_t k = 0; k < t->count; ++k)
      if (basic(t->col[k])) return 0;
  }
  if (s.qTerms) {
    level = std::min(level, 1);
    const TripletList* t = p->qTerms;
    for (int64_t k = 0; k < t->count; ++k)
      if (basic(t->row[k]) || basic(t->col[k])) return 0;
  }
  if (s.clearQ) return 0;
  if (s.m1 > s.m0 || s.senseRows || s.rhsRows || s.n1 > s.n0 || s.objCols || s.pwlCols ||
      s.sense || s.sosAdded || s.sosDeleted || s.genAdded || s.genDeleted)
    level = std::min(level, 1);
  if (level == 2 && s.bounds && basis) {
    // A nonbasic column sits at a bound; when that bound turns infinite, or a
    // free column gains one, the old solution no longer describes the column.
    const double big = model->env->par.VORN_PAR_INFBOUND;
    const BoundChanges* b = p->boundChanges;
    for (int64_t k = 0; k < b->count && level == 2; ++k) {
      const int j = b->index[k];
      if (b->kind[k] == 'Q' || j >= n0) continue;
      const bool wasInf = b->kind[k] == 'L' ? d->lb[j] <= -big : d->ub[j] >= big;
      const bool isInf = b->kind[k] == 'L' ? b->value[k] <= -big : b->value[k] >= big;
      if (wasInf == isInf) continue;
      const int st = basis[j];
      if ((b->kind[k] == 'L' && st == VRX_NONBASIC_LOWER) ||
          (b->kind[k] == 'U' && st == VRX_NONBASIC_UPPER) || st == VRX_SUPERBASIC)
        level = 1;
    }
  }
  return level;
}

// The blocks that replace parts of the store; null where the store keeps
// its own.
struct Built {
  double* obj = nullptr;
  double* lb = nullptr;
  double* ub = nullptr;
  char* vtype = nullptr;
  int64_t* colBeg = nullptr;
  int* colLen = nullptr;
  int* rowInd = nullptr;
  double* val = nullptr;
  int64_t numNZs = 0;
  double* rhs = nullptr;
  char* sense = nullptr;
  char** varName = nullptr;
  char** constrName = nullptr;
  int* branchPriority = nullptr;
  double* hintValue = nullptr;
  int* hintPriority = nullptr;
  int* partition = nullptr;
  int* lazyFlag = nullptr;
  double* starts = nullptr;

  bool sos = false;
  int numSOS = 0;
  int* sosType = nullptr;
  int64_t* sosBeg = nullptr;
  int* sosInd = nullptr;
  double* sosWeight = nullptr;

  bool q = false;
  int numQNZs = 0;
  int* qRow = nullptr;
  int* qCol = nullptr;
  double* qVal = nullptr;

  bool qc = false;
  int numQC = 0;
  int64_t* qcLinBeg = nullptr;
  int* qcLinInd = nullptr;
  double* qcLinVal = nullptr;
  int64_t* qcQuadBeg = nullptr;
  int* qcRow = nullptr;
  int* qcCol = nullptr;
  double* qcVal = nullptr;
  char* qcSense = nullptr;
  double* qcRHS = nullptr;
  char** qcName = nullptr;

  bool gen = false;
  int numGen = 0;
  VRXgenconstr* genConstrs = nullptr;

  bool pwl = false;
  int numPWLObjVars = 0;
  int64_t numPoints = 0;
  int64_t* pwlBeg = nullptr;
  int* pwlCount = nullptr;
  double* pwlX = nullptr;
  double* pwlY = nullptr;

  bool cones = false;
  int numCones = 0;
  int64_t* coneBeg = nullptr;
  int* coneInd = nullptr;

  int* basis = nullptr;
  double* start = nullptr;
};

void freeBuilt(VRXenv* env, Built& b) {
  void* blocks[] = {b.obj,       b.lb,        b.ub,         b.vtype,       b.colBeg,
                    b.colLen,    b.rowInd,    b.val,        b.rhs,         b.sense,
                    b.varName,   b.constrName, b.branchPriority, b.hintValue, b.hintPriority,
                    b.partition, b.lazyFlag,  b.starts,     b.sosType,     b.sosBeg,
                    b.sosInd,    b.sosWeight, b.qRow,       b.qCol,        b.qVal,
                    b.qcLinBeg,  b.qcLinInd,  b.qcLinVal,   b.qcQuadBeg,   b.qcRow,
                    b.qcCol,     b.qcVal,     b.qcSense,    b.qcRHS,       b.qcName,
                    b.genConstrs, b.pwlBeg,   b.pwlCount,   b.pwlX,        b.pwlY,
                    b.coneBeg,   b.coneInd,   b.basis,      b.start};
  for (void* p : blocks) envFree(env, p);
  b = Built();
}

// The state of one update.
struct Ctx {
  VRXmodel* model;
  VRXenv* env;
  VRXmodeldata* d;
  VRXpending* p;
  Summary s;
  int n0, m0, n1, m1, nF, mF;
  int sense;    // the model sense after the update
  double flip;  // -1 when the sense turns
  int level;
  bool colsChange, rowsChange, matrixChange;
  EnvVec<int> colMap, rowMap, qcMap, genMap;  // old index to new, -1 deleted

  explicit Ctx(VRXenv* e) : env(e), colMap(e), rowMap(e), qcMap(e), genMap(e) {}
  int col(int j) const { return s.delCols ? colMap[j] : j; }
  int row(int i) const { return s.delRows ? rowMap[i] : i; }
  int qc(int q) const { return qcMap.empty() ? q : qcMap[q]; }
  int gen(int g) const { return genMap.empty() ? g : genMap[g]; }
  double flipped(double v) const { return v == 0.0 ? 0.0 : flip * v; }
  double inSense(double v) const { return v == 0.0 ? 0.0 : sense * v; }
};

template <class T>
T* alloc(Ctx& c, int64_t count) {
  T* p = envAllocArray<T>(c.env, static_cast<size_t>(count > 0 ? count : 1));
  if (!p) throw std::bad_alloc();
  return p;
}

template <class T>
T* allocZeroed(Ctx& c, int64_t count) {
  T* p = envCallocArray<T>(c.env, static_cast<size_t>(count > 0 ? count : 1));
  if (!p) throw std::bad_alloc();
  return p;
}

void buildMaps(Ctx& c) {
  c.nF = c.n1 - c.s.delCols;
  c.mF = c.m1 - c.s.delRows;
  if (c.s.delCols) {
    c.colMap.resize(static_cast<size_t>(c.n1));
    int next = 0;
    for (int j = 0; j < c.n1; ++j) c.colMap[j] = (colMarkAt(c.p, j) & kColDeleted) ? -1 : next++;
  }
  if (c.s.delRows) {
    c.rowMap.resize(static_cast<size_t>(c.m1));
    int next = 0;
    for (int i = 0; i < c.m1; ++i) c.rowMap[i] = (rowMarkAt(c.p, i) & kRowDeleted) ? -1 : next++;
  }
}

// Column and row arrays in the new shape: old values through the maps, then
// the added items.
void buildShape(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const PendingVars* bv = c.p->newVars;
  const PendingConstrs* bc = c.p->newConstrs;
  if (c.colsChange || c.rowsChange) {
    const int64_t cols = static_cast<int64_t>(c.nF) + c.mF;
    b.obj = allocZeroed<double>(c, cols);
    b.lb = allocZeroed<double>(c, cols);
    b.ub = allocZeroed<double>(c, cols);
    b.vtype = alloc<char>(c, cols);
    std::memset(b.vtype, 'C', static_cast<size_t>(cols));
    for (int j = 0; j < c.n0; ++j) {
      const int f = c.col(j);
      if (f < 0) continue;
      b.obj[f] = c.flipped(d->obj[j]);
      b.lb[f] = d->lb[j];
      b.ub[f] = d->ub[j];
      b.vtype[f] = d->vtype[j];
    }
    for (int k = 0; k < c.n1 - c.n0; ++k) {
      const int f = c.col(c.n0 + k);
      if (f < 0) continue;
      b.obj[f] = c.inSense(bv->obj[k]);
      b.lb[f] = bv->lb[k];
      b.ub[f] = bv->ub[k];
      b.vtype[f] = bv->vtype[k];
    }
  }
  if (c.rowsChange) {
    b.rhs = alloc<double>(c, c.mF);
    b.sense = alloc<char>(c, c.mF);
    for (int i = 0; i < c.m0; ++i) {
      const int f = c.row(i);
      if (f < 0) continue;
      b.rhs[f] = d->rhs[i];
      b.sense[f] = d->sense[i];
    }
    for (int k = 0; k < c.m1 - c.m0; ++k) {
      const int f = c.row(c.m0 + k);
      if (f < 0) continue;
      b.rhs[f] = bc->rhs[k];
      b.sense[f] = bc->sense[k];
    }
  }
}

// The column-wise matrix in one pass: each column takes its old entries (or
// those of an added variable), the entries of added rows, and then the
// coefficient changes, later ones winning.
void buildMatrix(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const PendingVars* bv = c.p->newVars;
  const PendingConstrs* bc = c.p->newConstrs;
  const TripletList* x = c.p->coeffChanges;
  const int n0 = c.n0, n1 = c.n1, m0 = c.m0;
  const double zero = c.env->par.VORN_PAR_ZERO;
  auto rowGone = [&](int r) { return c.s.delRows && c.rowMap[r] < 0; };

  // Entries of added rows, bucketed by column.
  EnvVec<int64_t> cBeg(c.env);
  EnvVec<int> cRow(c.env);
  EnvVec<double> cVal(c.env);
  if (bc && bc->numNZs > 0) {
    cBeg.resize(static_cast<size_t>(n1) + 1, 0);
    for (int64_t q = 0; q < bc->numNZs; ++q) ++cBeg[bc->ind[q] + 1];
    for (int j = 0; j < n1; ++j) cBeg[j + 1] += cBeg[j];
    cRow.resize(static_cast<size_t>(bc->numNZs));
    cVal.resize(static_cast<size_t>(bc->numNZs));
    EnvVec<int64_t> cursor(c.env);
    cursor.resize(static_cast<size_t>(n1));
    for (int j = 0; j < n1; ++j) cursor[j] = cBeg[j];
    for (int k = 0; k < bc->count; ++k) {
      const int64_t end = k + 1 < bc->count ? bc->beg[k + 1] : bc->numNZs;
      for (int64_t q = bc->beg[k]; q < end; ++q) {
        const int64_t at = cursor[bc->ind[q]]++;
        cRow[at] = m0 + k;
        cVal[at] = bc->val[q];
      }
    }
  }
  // Coefficient changes, bucketed by column in call order.
  EnvVec<int64_t> xBeg(c.env);
  EnvVec<int> xRow(c.env);
  EnvVec<double> xVal(c.env);
  EnvVec<int64_t> rowPos(c.env);
  if (x && x->count > 0) {
    xBeg.resize(static_cast<size_t>(n1) + 1, 0);
    for (int64_t k = 0; k < x->count; ++k) ++xBeg[x->col[k] + 1];
    for (int j = 0; j < n1; ++j) xBeg[j + 1] += xBeg[j];
    xRow.resize(static_cast<size_t>(x->count));
    xVal.resize(static_cast<size_t>(x->count));
    EnvVec<int64_t> cursor(c.env);
    cursor.resize(static_cast<size_t>(n1));
    for (int j = 0; j < n1; ++j) cursor[j] = xBeg[j];
    for (int64_t k = 0; k < x->count; ++k) {
      const int64_t at = cursor[x->col[k]]++;
      xRow[at] = x->row[k];
      xVal[at] = x->val[k];
    }
    rowPos.resize(static_cast<size_t>(c.m1), -1);
  }

  auto varBeg = [&](int k) { return bv->beg[k]; };
  auto varEnd = [&](int k) { return k + 1 < bv->count ? bv->beg[k + 1] : bv->numNZs; };
  int64_t upper = 0;
  for (int j = 0; j < n1; ++j) {
    if (c.col(j) < 0) continue;
    upper += j < n0 ? d->colLen[j] : varEnd(j - n0) - varBeg(j - n0);
    if (!cBeg.empty()) upper += cBeg[j + 1] - cBeg[j];
    if (!xBeg.empty()) upper += xBeg[j + 1] - xBeg[j];
  }
  const int64_t cols = static_cast<int64_t>(c.nF) + c.mF;
  b.colBeg = alloc<int64_t>(c, cols + 1);
  b.colLen = alloc<int>(c, cols);
  b.rowInd = allocZeroed<int>(c, upper + c.mF);
  b.val = allocZeroed<double>(c, upper + c.mF);

  int64_t pos = 0;
  for (int j = 0; j < n1; ++j) {
    const int f = c.col(j);
    if (f < 0) continue;
    const int64_t start = pos;
    auto put = [&](int r, double v) {
      if (rowGone(r)) return;
      b.rowInd[pos] = r;
      b.val[pos] = v;
      ++pos;
    };
    if (j < n0) {
      for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k)
        put(d->rowInd[k], d->val[k]);
    } else {
      for (int64_t k = varBeg(j - n0); k < varEnd(j - n0); ++k) put(bv->ind[k], bv->val[k]);
    }
    if (!cBeg.empty())
      for (int64_t q = cBeg[j]; q < cBeg[j + 1]; ++q) put(cRow[q], cVal[q]);
    if (!xBeg.empty() && xBeg[j + 1] > xBeg[j]) {
      for (int64_t q = start; q < pos; ++q) rowPos[b.rowInd[q]] = q;
      for (int64_t k = xBeg[j]; k < xBeg[j + 1]; ++k) {
        const int r = xRow[k];
        if (rowGone(r)) continue;
        if (rowPos[r] >= 0) {
          b.val[rowPos[r]] = xVal[k];
        } else {
          rowPos[r] = pos;
          b.rowInd[pos] = r;
          b.val[pos] = xVal[k];
          ++pos;
        }
      }
      // A change to zero (or below the drop threshold) removes the entry.
      int64_t w = start;
      for (int64_t q = start; q < pos; ++q) {
        rowPos[b.rowInd[q]] = -1;
        if (std::fabs(b.val[q]) < zero) continue;
        b.rowInd[w] = b.rowInd[q];
        b.val[w] = b.val[q];
        ++w;
      }
      pos = w;
    }
    if (c.s.delRows)
      for (int64_t q = start; q < pos; ++q) b.rowInd[q] = c.rowMap[b.rowInd[q]];
    b.colBeg[f] = start;
    b.colLen[f] = static_cast<int>(pos - start);
  }
  for (int64_t f = c.nF; f < cols; ++f) {
    b.colBeg[f] = pos;
    b.colLen[f] = 0;
  }
  b.colBeg[cols] = pos;
  b.numNZs = pos;
}

bool blockHasNames(char** names, int count) {
  if (!names) return false;
  for (int k = 0; k < count; ++k)
    if (names[k]) return true;
  return false;
}

// Arrays of names, and of the optional attributes, that must be new: the
// shape changed, or a first value arrives.
void buildSideArrays(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const VRXmodel* m = c.model;
  const Summary& s = c.s;
  const PendingVars* bv = c.p->newVars;
  const PendingConstrs* bc = c.p->newConstrs;
  const bool addedNames = bv && blockHasNames(bv->names, bv->count);
  const bool varNames = d->varName ? c.colsChange : (s.renamedCols > 0 || addedNames);
  if (varNames) b.varName = allocZeroed<char*>(c, c.nF);
  const bool constrNames =
      d->constrName ? c.rowsChange
                    : (s.renamedRows > 0 || (bc && blockHasNames(bc->names, bc->count)));
  if (constrNames) b.constrName = allocZeroed<char*>(c, c.mF);
  auto need = [&](const void* arr, int edits, bool shape) { return arr ? shape : edits > 0; };
  if (need(m->branchPriority, s.priorityCols, c.colsChange)) b.branchPriority = alloc<int>(c, c.nF);
  if (need(m->hintValue, s.hintValCols, c.colsChange)) b.hintValue = alloc<double>(c, c.nF);
  if (need(m->hintPriority, s.hintPriCols, c.colsChange)) b.hintPriority = alloc<int>(c, c.nF);
  if (need(m->partition, s.partitionCols, c.colsChange)) b.partition = alloc<int>(c, c.nF);
  if (need(m->lazyFlag, s.lazyRows, c.rowsChange)) b.lazyFlag = alloc<int>(c, c.mF);
  if (m->starts && m->startCount > 0 && c.colsChange)
    b.starts = alloc<double>(c, static_cast<int64_t>(m->startCount) * c.nF);
}

void buildSos(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const SosChanges* sc = c.p->sosChanges;
  if (!c.s.sosAdded && !c.s.sosDeleted && !(c.s.delCols && d->numSOS > 0)) return;
  b.sos = true;
  auto gone = [&](int s) { return sc && sc->delMark && sc->delMark[s]; };
  int sets = 0;
  int64_t members = 0;
  for (int s = 0; s < d->numSOS; ++s)
    if (!gone(s)) {
      ++sets;
      members += d->sosBeg[s + 1] - d->sosBeg[s];
    }
  if (sc) {
    sets += sc->count;
    members += sc->numMembers;
  }
  b.numSOS = sets;
  b.sosType = alloc<int>(c, sets);
  b.sosBeg = alloc<int64_t>(c, sets + 1);
  b.sosInd = alloc<int>(c, members);
  b.sosWeight = alloc<double>(c, members);
  int out = 0;
  int64_t pos = 0;
  auto member = [&](int var, double w) {
    const int f = c.col(var);
    if (f < 0) return;
    b.sosInd[pos] = f;
    b.sosWeight[pos] = w;
    ++pos;
  };
  for (int s = 0; s < d->numSOS; ++s) {
    if (gone(s)) continue;
    b.sosType[out] = d->sosType[s];
    b.sosBeg[out++] = pos;
    for (int64_t k = d->sosBeg[s]; k < d->sosBeg[s + 1]; ++k) member(d->sosInd[k], d->sosWeight[k]);
  }
  for (int s = 0; sc && s < sc->count; ++s) {
    b.sosType[out] = sc->type[s];
    b.sosBeg[out++] = pos;
    for (int64_t k = sc->beg[s]; k < sc->beg[s + 1]; ++k) member(sc->ind[k], sc->weight[k]);
  }
  b.sosBeg[out] = pos;
}

// Q in the new shape. Added terms are merged with equal (row, column) pairs
// in the order of first occurrence; sums of exactly zero go.
void buildQ(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const TripletList* t = c.p->qTerms;
  if (!c.s.clearQ && !c.s.qTerms && !(c.s.delCols && d->numQNZs > 0)) return;
  b.q = true;
  const int64_t upper = (c.s.clearQ ? 0 : d->numQNZs) + c.s.qTerms;
  b.qRow = alloc<int>(c, upper);
  b.qCol = alloc<int>(c, upper);
  b.qVal = alloc<double>(c, upper);
  int64_t cnt = 0;
  auto put = [&](int r, int col, double v) {
    const int fr = c.col(r), fc = c.col(col);
    if (fr < 0 || fc < 0) return;
    b.qRow[cnt] = fr;
    b.qCol[cnt] = fc;
    b.qVal[cnt] = v;
    ++cnt;
  };
  if (!c.s.clearQ)
    for (int k = 0; k < d->numQNZs; ++k) put(d->qRow[k], d->qCol[k], c.flipped(d->qVal[k]));
  for (int64_t k = 0; k < c.s.qTerms; ++k) put(t->row[k], t->col[k], 2.0 * c.sense * t->val[k]);
  if (c.s.qTerms > 0 && cnt > 1) {
    EnvVec<int64_t> head(c.env);
    head.resize(static_cast<size_t>(c.nF) + 1, 0);
    for (int64_t k = 0; k < cnt; ++k) ++head[b.qRow[k] + 1];
    for (int r = 0; r < c.nF; ++r) head[r + 1] += head[r];
    EnvVec<int64_t> order(c.env);
    order.resize(static_cast<size_t>(cnt));
    EnvVec<int64_t> cursor(c.env);
    cursor.resize(static_cast<size_t>(c.nF));
    for (int r = 0; r < c.nF; ++r) cursor[r] = head[r];
    for (int64_t k = 0; k < cnt; ++k) order[cursor[b.qRow[k]]++] = k;
    EnvVec<int64_t> rep(c.env);
    rep.resize(static_cast<size_t>(c.nF), -1);
    EnvVec<char> dead(c.env);
    dead.resize(static_cast<size_t>(cnt), 0);
    for (int r = 0; r < c.nF; ++r) {
      for (int64_t q = head[r]; q < head[r + 1]; ++q) {
        const int64_t k = order[q];
        int64_t& first = rep[b.qCol[k]];
        if (first < 0 || first > k) {
          first = k;
        } else {
          b.qVal[first] += b.qVal[k];
          dead[k] = 1;
        }
      }
      for (int64_t q = head[r]; q < head[r + 1]; ++q) rep[b.qCol[order[q]]] = -1;
    }
    int64_t w = 0;
    for (int64_t k = 0; k < cnt; ++k) {
      if (dead[k] || b.qVal[k] == 0.0) continue;
      b.qRow[w] = b.qRow[k];
      b.qCol[w] = b.qCol[k];
      b.qVal[w] = b.qVal[k];
      ++w;
    }
    cnt = w;
  }
  b.numQNZs = static_cast<int>(cnt);
}

void buildQC(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const QCChanges* qc = c.p->qcChanges;
  const bool rebuild = c.s.qcAdded || c.s.qcDeleted || (c.s.delCols && d->numQConstrs > 0);
  if (!rebuild) {
    // Renames only: a names array may be needed where there was none.
    if (c.s.qcNameEdits && !d->qcName) b.qcName = allocZeroed<char*>(c, d->numQConstrs);
    return;
  }
  b.qc = true;
  auto gone = [&](int q) { return qc && qc->delMark && qc->delMark[q]; };
  int count = 0;
  int64_t lin = 0, quad = 0;
  c.qcMap.resize(static_cast<size_t>(d->numQConstrs));
  for (int q = 0; q < d->numQConstrs; ++q) {
    c.qcMap[q] = gone(q) ? -1 : count;
    if (gone(q)) continue;
    ++count;
    lin += d->qcLinBeg[q + 1] - d->qcLinBeg[q];
    quad += d->qcQuadBeg[q + 1] - d->qcQuadBeg[q];
  }
  if (qc) {
    count += qc->count;
    lin += qc->linNZ;
    quad += qc->quadNZ;
  }
  b.numQC = count;
  b.qcLinBeg = alloc<int64_t>(c, count + 1);
  b.qcQuadBeg = alloc<int64_t>(c, count + 1);
  b.qcLinInd = alloc<int>(c, lin);
  b.qcLinVal = alloc<double>(c, lin);
  b.qcRow = alloc<int>(c, quad);
  b.qcCol = alloc<int>(c, quad);
  b.qcVal = alloc<double>(c, quad);
  b.qcSense = alloc<char>(c, count);
  b.qcRHS = alloc<double>(c, count);
  const bool names = d->qcName || c.s.qcNameEdits || (qc && blockHasNames(qc->names, qc->count));
  if (names) b.qcName = allocZeroed<char*>(c, count);
  int out = 0;
  int64_t lp = 0, qp = 0;
  auto take = [&](int64_t lb, int64_t le, const int* li, const double* lv, int64_t qb, int64_t qe,
                  const int* qr, const int* qcol, const double* qv, char sense, double rhs) {
    b.qcLinBeg[out] = lp;
    b.qcQuadBeg[out] = qp;
    for (int64_t k = lb; k < le; ++k) {
      const int f = c.col(li[k]);
      if (f < 0) continue;
      b.qcLinInd[lp] = f;
      b.qcLinVal[lp++] = lv[k];
    }
    for (int64_t k = qb; k < qe; ++k) {
      const int fr = c.col(qr[k]), fc = c.col(qcol[k]);
      if (fr < 0 || fc < 0) continue;
      b.qcRow[qp] = fr;
      b.qcCol[qp] = fc;
      b.qcVal[qp++] = qv[k];
    }
    b.qcSense[out] = sense;
    b.qcRHS[out] = rhs;
    ++out;
  };
  for (int q = 0; q < d->numQConstrs; ++q) {
    if (gone(q)) continue;
    take(d->qcLinBeg[q], d->qcLinBeg[q + 1], d->qcLinInd, d->qcLinVal, d->qcQuadBeg[q],
         d->qcQuadBeg[q + 1], d->qcRow, d->qcCol, d->qcVal, d->qcSense[q], d->qcRHS[q]);
  }
  for (int q = 0; qc && q < qc->count; ++q)
    take(qc->linBeg[q], qc->linBeg[q + 1], qc->linInd, qc->linVal, qc->quadBeg[q],
         qc->quadBeg[q + 1], qc->qRow, qc->qCol, qc->qVal, qc->sense[q], qc->rhs[q]);
  b.qcLinBeg[out] = lp;
  b.qcQuadBeg[out] = qp;
}

// A general constraint loses its meaning with any of its variables, so a
// deletion that takes one fails the update before anything changes.
int checkGenVars(Ctx& c, const VRXgenconstr& g, int index) {
  bool ok = c.col(g.resultVar) >= 0;
  const int* vars = g.type == VRX_GENCONSTR_INDICATOR ? g.ind : g.vars;
  for (int k = 0; ok && k < g.count; ++k) ok = c.col(vars[k]) >= 0;
  if (ok) return 0;
  return raise(c.env, VRX_ERROR_INVALID_ARGUMENT, true,
               "General constraint %d became invalid after removal of variable", index);
}

int buildGen(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const GenChanges* gc = c.p->genChanges;
  if (!c.s.genAdded && !c.s.genDeleted && !(c.s.delCols && d->numGenConstrs > 0)) return 0;
  b.gen = true;
  auto gone = [&](int g) { return gc && gc->delMark && gc->delMark[g]; };
  int count = 0;
  c.genMap.resize(static_cast<size_t>(d->numGenConstrs));
  for (int g = 0; g < d->numGenConstrs; ++g) {
    c.genMap[g] = gone(g) ? -1 : count;
    if (gone(g)) continue;
    if (c.s.delCols) {
      int err = checkGenVars(c, d->genConstrs[g], g);
      if (err) return err;
    }
    ++count;
  }
  for (int g = 0; gc && g < gc->count; ++g) {
    if (c.s.delCols) {
      int err = checkGenVars(c, gc->items[g], count);
      if (err) return err;
    }
    ++count;
  }
  b.numGen = count;
  b.genConstrs = allocZeroed<VRXgenconstr>(c, count);
  return 0;
}

void buildPwl(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const PwlChanges* w = c.p->pwlChanges;
  const bool had = d->pwlBeg && d->numPWLObjVars > 0;
  if (!c.s.pwlChanges && !(had && c.colsChange)) return;
  b.pwl = true;
  // The last function given for a column wins.
  EnvVec<int> last(c.env);
  if (w && w->count > 0) {
    last.resize(static_cast<size_t>(c.n1), -1);
    for (int k = 0; k < w->count; ++k) last[w->var[k]] = k;
  }
  auto points = [&](int j) -> int {
    if (!last.empty() && last[j] >= 0) return w->npoints[last[j]];
    return had && j < c.n0 ? d->pwlCount[j] : 0;
  };
  int64_t total = 0;
  int vars = 0;
  for (int j = 0; j < c.n1; ++j) {
    if (c.col(j) < 0) continue;
    const int pts = points(j);
    total += pts;
    if (pts > 0) ++vars;
  }
  b.numPWLObjVars = vars;
  b.numPoints = total;
  if (vars == 0) return;
  b.pwlBeg = alloc<int64_t>(c, c.nF);
  b.pwlCount = alloc<int>(c, c.nF);
  b.pwlX = alloc<double>(c, total);
  b.pwlY = alloc<double>(c, total);
  int64_t pos = 0;
  for (int j = 0; j < c.n1; ++j) {
    const int f = c.col(j);
    if (f < 0) continue;
    b.pwlBeg[f] = pos;
    const int pts = points(j);
    b.pwlCount[f] = pts;
    if (pts == 0) continue;
    if (!last.empty() && last[j] >= 0) {
      const int64_t from = w->beg[last[j]];
      for (int k = 0; k < pts; ++k) {
        b.pwlX[pos + k] = w->x[from + k];
        b.pwlY[pos + k] = c.inSense(w->y[from + k]);
      }
    } else {
      const int64_t from = d->pwlBeg[j];
      for (int k = 0; k < pts; ++k) {
        b.pwlX[pos + k] = d->pwlX[from + k];
        b.pwlY[pos + k] = c.flipped(d->pwlY[from + k]);
      }
    }
    pos += pts;
  }
}

// Cones lose the members that are deleted; a cone left empty goes.
void buildCones(Ctx& c, Built& b) {
  const VRXmodeldata* d = c.d;
  const ConeChanges* cc = c.p->coneChanges;
  if (!c.s.cones && !(c.s.delCols && d->numCones > 0)) return;
  b.cones = true;
  const int64_t upper = (d->coneBeg ? d->coneBeg[d->numCones] : 0) + (cc ? cc->numMembers : 0);
  const int sets = d->numCones + (cc ? cc->count : 0);
  b.coneBeg = alloc<int64_t>(c, sets + 1);
  b.coneInd = alloc<int>(c, upper);
  int out = 0;
  int64_t pos = 0;
  auto take = [&](const int* ind, int64_t from, int64_t to) {
    const int64_t start = pos;
    for (int64_t k = from; k < to; ++k) {
      const int f = c.col(ind[k]);
      if (f >= 0) b.coneInd[pos++] = f;
    }
    if (pos > start) b.coneBeg[out++] = start;
  };
  for (int k = 0; k < d->numCones; ++k) take(d->coneInd, d->coneBeg[k], d->coneBeg[k + 1]);
  for (int k = 0; cc && k < cc->count; ++k) take(cc->ind, cc->beg[k], cc->beg[k + 1]);
  b.coneBeg[out] = pos;
  b.numCones = out;
}

void buildWarm(Ctx& c, Built& b) {
  const VRXwarmstart* ws = warmOf(c.model);
  if (!ws || !(c.colsChange || c.rowsChange)) return;
  if (ws->size != c.n0 + c.m0 || ws->columnCount != c.n0) return;
  const int64_t size = static_cast<int64_t>(c.nF) + c.mF;
  if (c.level >= 1 && ws->basis && ws->basisState == 2) b.basis = alloc<int>(c, size);
  if (ws->start) b.start = alloc<double>(c, size);
}

// Everything that needs memory. Nothing in the store changes here.
int buildAll(Ctx& c, Built& b) {
  try {
    buildMaps(c);
    buildShape(c, b);
    if (c.matrixChange) buildMatrix(c, b);
    buildSideArrays(c, b);
    buildSos(c, b);
    buildQ(c, b);
    buildQC(c, b);
    int err = buildGen(c, b);
    if (err) return err;
    buildPwl(c, b);
    buildCones(c, b);
    buildWarm(c, b);
  } catch (const std::bad_alloc&) {
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  return 0;
}

template <class T>
void replace(VRXenv* env, T*& field, T* fresh) {
  envFree(env, field);
  field = fresh;
}

// Moves a list of owned names into a new array through a map; names of
// deleted items are freed.
void moveNames(Ctx& c, char** from, int count, char** to, int first, bool cols) {
  if (!from) return;
  for (int k = 0; k < count; ++k) {
    if (!from[k]) continue;
    const int f = cols ? c.col(first + k) : c.row(first + k);
    if (f >= 0)
      to[f] = from[k];
    else
      envFree(c.env, from[k]);
    from[k] = nullptr;
  }
}

void commitNames(Ctx& c, Built& b) {
  VRXmodeldata* d = c.d;
  VRXpending* p = c.p;
  if (b.varName) {
    moveNames(c, d->varName, c.n0, b.varName, 0, true);
    if (p->newVars) moveNames(c, p->newVars->names, p->newVars->count, b.varName, c.n0, true);
    replace(c.env, d->varName, b.varName);
    b.varName = nullptr;
  } else if (p->newVars && p->newVars->names) {
    // Added names with every one of their items deleted.
    moveNames(c, p->newVars->names, p->newVars->count, nullptr, c.n0, true);
  }
  if (b.constrName) {
    moveNames(c, d->constrName, c.m0, b.constrName, 0, false);
    if (p->newConstrs)
      moveNames(c, p->newConstrs->names, p->newConstrs->count, b.constrName, c.m0, false);
    replace(c.env, d->constrName, b.constrName);
    b.constrName = nullptr;
  } else if (p->newConstrs && p->newConstrs->names) {
    moveNames(c, p->newConstrs->names, p->newConstrs->count, nullptr, c.m0, false);
  }
}

template <class T>
void remapOptional(Ctx& c, T*& field, T* fresh, int oldCount, int newCount, T fill, bool cols) {
  if (!fresh) return;
  for (int k = 0; k < newCount; ++k) fresh[k] = fill;
  if (field)
    for (int k = 0; k < oldCount; ++k) {
      const int f = cols ? c.col(k) : c.row(k);
      if (f >= 0) fresh[f] = field[k];
    }
  replace(c.env, field, fresh);
}

void commitGen(Ctx& c, Built& b) {
  VRXmodeldata* d = c.d;
  GenChanges* gc = c.p->genChanges;
  if (!b.gen) return;
  auto remap = [&](VRXgenconstr& g) {
    g.resultVar = c.col(g.resultVar);
    int* vars = g.type == VRX_GENCONSTR_INDICATOR ? g.ind : g.vars;
    for (int k = 0; k < g.count; ++k) vars[k] = c.col(vars[k]);
  };
  int out = 0;
  for (int g = 0; g < d->numGenConstrs; ++g) {
    VRXgenconstr& item = d->genConstrs[g];
    if (c.gen(g) < 0) {
      envFree(c.env, item.name);
      envFree(c.env, item.vars);
      envFree(c.env, item.ind);
      envFree(c.env, item.val);
      continue;
    }
    remap(item);
    b.genConstrs[out++] = item;
  }
  for (int g = 0; gc && g < gc->count; ++g) {
    remap(gc->items[g]);
    b.genConstrs[out++] = gc->items[g];
    std::memset(&gc->items[g], 0, sizeof(VRXgenconstr));  // owned by the store now
  }
  replace(c.env, d->genConstrs, b.genConstrs);
  b.genConstrs = nullptr;
  d->numGenConstrs = out;
}

void commitQC(Ctx& c, Built& b) {
  VRXmodeldata* d = c.d;
  QCChanges* qc = c.p->qcChanges;
  if (!b.qc) {
    if (b.qcName) {
      d->qcName = b.qcName;
      b.qcName = nullptr;
    }
    return;
  }
  if (b.qcName) {
    for (int q = 0; q < d->numQConstrs; ++q) {
      if (!d->qcName || !d->qcName[q]) continue;
      if (c.qc(q) >= 0)
        b.qcName[c.qc(q)] = d->qcName[q];
      else
        envFree(c.env, d->qcName[q]);
      d->qcName[q] = nullptr;
    }
    const int base = d->numQConstrs - c.s.qcDeleted;
    for (int q = 0; qc && qc->names && q < qc->count; ++q) {
      b.qcName[base + q] = qc->names[q];
      qc->names[q] = nullptr;
    }
  } else if (d->qcName) {
    for (int q = 0; q < d->numQConstrs; ++q) envFree(c.env, d->qcName[q]);
  }
  replace(c.env, d->qcName, b.qcName);
  replace(c.env, d->qcLinBeg, b.qcLinBeg);
  replace(c.env, d->qcLinInd, b.qcLinInd);
  replace(c.env, d->qcLinVal, b.qcLinVal);
  replace(c.env, d->qcQuadBeg, b.qcQuadBeg);
  replace(c.env, d->qcRow, b.qcRow);
  replace(c.env, d->qcCol, b.qcCol);
  replace(c.env, d->qcVal, b.qcVal);
  replace(c.env, d->qcSense, b.qcSense);
  replace(c.env, d->qcRHS, b.qcRHS);
  b.qcName = nullptr;
  b.qcLinBeg = b.qcQuadBeg = nullptr;
  b.qcLinInd = b.qcRow = b.qcCol = nullptr;
  b.qcLinVal = b.qcVal = b.qcRHS = nullptr;
  b.qcSense = nullptr;
  d->numQConstrs = b.numQC;
  d->numQCNZs = static_cast<int>(d->qcQuadBeg[b.numQC]);
}

void commitEdits(Ctx& c) {
  VRXmodeldata* d = c.d;
  VRXpending* p = c.p;
  VRXmodel* m = c.model;
  for (int j = 0; j < c.n1 && (p->flags & kPendColMarks); ++j) {
    const uint32_t k = colMarkAt(p, j) & ~kColDeleted;
    if (!k) continue;
    const int f = c.col(j);
    if (f < 0) {
      if (k & kColName) {
        envFree(c.env, p->newVarName[j]);
        p->newVarName[j] = nullptr;
      }
      continue;
    }
    if (k & kColObj) d->obj[f] = c.inSense(p->newObj[j]);
    if (k & kColVType) d->vtype[f] = p->newVType[j];
    if (k & kColName) {
      envFree(c.env, d->varName[f]);
      d->varName[f] = p->newVarName[j];
      p->newVarName[j] = nullptr;
    }
    if (k & kColPriority) m->branchPriority[f] = p->newPriority[j];
    if (k & kColPartition) m->partition[f] = p->newPartition[j];
    if (k & kColHintVal) m->hintValue[f] = p->newHintValue[j];
    if (k & kColHintPri) m->hintPriority[f] = p->newHintPriority[j];
  }
  for (int i = 0; i < c.m1 && (p->flags & kPendRowMarks); ++i) {
    const uint32_t k = rowMarkAt(p, i) & ~kRowDeleted;
    if (!k) continue;
    const int f = c.row(i);
    if (f < 0) {
      if (k & kRowName) {
        envFree(c.env, p->newConstrName[i]);
        p->newConstrName[i] = nullptr;
      }
      continue;
    }
    if (k & kRowSense) d->sense[f] = p->newConstrSense[i];
    if (k & kRowRHS) d->rhs[f] = p->newRHS[i];
    if (k & kRowName) {
      envFree(c.env, d->constrName[f]);
      d->constrName[f] = p->newConstrName[i];
      p->newConstrName[i] = nullptr;
    }
    if (k & kRowLazy) m->lazyFlag[f] = p->newLazy[i];
  }
  p->stagedNames = 0;
  if (const BoundChanges* bc = p->boundChanges)
    for (int64_t k = 0; k < bc->count; ++k) {
      if (bc->kind[k] == 'Q') {
        const int q = c.qc(bc->index[k]);
        if (q >= 0) d->qcRHS[q] = bc->value[k];
        continue;
      }
      const int f = c.col(bc->index[k]);
      if (f < 0) continue;
      (bc->kind[k] == 'L' ? d->lb : d->ub)[f] = bc->value[k];
    }
  if (ItemEdits* e = p->itemEdits)
    for (int k = 0; k < e->count; ++k) {
      if (e->kind[k] == 'G') {
        const int g = c.gen(e->index[k]);
        if (g < 0) continue;
        envFree(c.env, d->genConstrs[g].name);
        d->genConstrs[g].name = e->name[k];
        e->name[k] = nullptr;
        continue;
      }
      const int q = c.qc(e->index[k]);
      if (q < 0) continue;
      if (e->kind[k] == 'S') {
        d->qcSense[q] = e->sense[k];
      } else {
        envFree(c.env, d->qcName[q]);
        d->qcName[q] = e->name[k];
        e->name[k] = nullptr;
      }
    }
}

// The warm start follows the new shape: kept entries move, new columns sit
// at a finite bound when they have one, new rows have basic slacks.
void commitWarm(Ctx& c, Built& b) {
  VRXwarmstart* ws = warmOf(c.model);
  if (!ws) return;
  const VRXmodeldata* d = c.d;
  if (c.level == 0) {
    replace(c.env, ws->basis, static_cast<int*>(nullptr));
    ws->basisState = 0;
  }
  if (c.level == 0 || c.matrixChange) {
    replace(c.env, ws->norms, static_cast<double*>(nullptr));
    ws->normState = 0;
  }
  ws->warned = 0;
  if (!(c.colsChange || c.rowsChange)) return;
  const int nF = c.nF;
  if (b.basis) {
    for (int j = 0; j < c.n1; ++j) {
      const int f = c.col(j);
      if (f < 0) continue;
      if (j < c.n0)
        b.basis[f] = ws->basis[j];
      else if (d->lb[f] > -kInf)
        b.basis[f] = VRX_NONBASIC_LOWER;
      else if (d->ub[f] < kInf)
        b.basis[f] = VRX_NONBASIC_UPPER;
      else
        b.basis[f] = VRX_SUPERBASIC;
    }
    for (int i = 0; i < c.m1; ++i) {
      const int f = c.row(i);
      if (f >= 0) b.basis[nF + f] = i < c.m0 ? ws->basis[c.n0 + i] : VRX_BASIC;
    }
  } else if (ws->basis) {
    ws->basisState = 0;
  }
  replace(c.env, ws->basis, b.basis);
  b.basis = nullptr;
  if (b.start) {
    for (int k = 0; k < nF + c.mF; ++k) b.start[k] = kInf;
    for (int j = 0; j < c.n0; ++j)
      if (c.col(j) >= 0) b.start[c.col(j)] = ws->start[j];
    for (int i = 0; i < c.m0; ++i)
      if (c.row(i) >= 0) b.start[nF + c.row(i)] = ws->start[c.n0 + i];
    if (c.n1 > c.n0 || c.m1 > c.m0) ws->startState = 3;
  }
  replace(c.env, ws->start, b.start);
  b.start = nullptr;
  if (!ws->start) ws->startState = 0;
  ws->size = nF + c.mF;
  ws->columnCount = nF;
}

// Coefficients of further objectives are indexed by column too.
void remapObjectives(Ctx& c) {
  VRXobjlist* list = c.model->objList;
  if (!list || !c.s.delCols) return;
  for (int k = 0; k < list->count; ++k) {
    VRXobjective& o = list->items[k];
    if (!o.coeffs) continue;
    int out = 0;
    for (int j = 0; j < o.size && j < c.n1; ++j)
      if (c.col(j) >= 0) o.coeffs[out++] = o.coeffs[j];
    o.size = out;
  }
}

// Sorts each set by weight, once after the sets changed.
void checkSos(VRXmodel* model) {
  VRXmodeldata* d = model->data;
  if (d->numSOS <= 0 || d->sosChecked) return;
  bool duplicate = false;
  for (int s = 0; s < d->numSOS; ++s) {
    const int64_t b = d->sosBeg[s], e = d->sosBeg[s + 1];
    // Insertion sort: sets are short and often sorted already.
    for (int64_t k = b + 1; k < e; ++k) {
      const double w = d->sosWeight[k];
      const int v = d->sosInd[k];
      int64_t q = k;
      for (; q > b && d->sosWeight[q - 1] > w; --q) {
        d->sosWeight[q] = d->sosWeight[q - 1];
        d->sosInd[q] = d->sosInd[q - 1];
      }
      d->sosWeight[q] = w;
      d->sosInd[q] = v;
    }
    for (int64_t k = b + 1; k < e && !duplicate; ++k)
      duplicate = d->sosWeight[k] == d->sosWeight[k - 1];
  }
  d->sosChecked = 1;
  if (duplicate)
    log(model->env,
        "Warning: model has duplicate SOS weights (could lead to inconsistent solutions)\n");
}

void commitAll(Ctx& c, Built& b) {
  VRXmodeldata* d = c.d;
  VRXpending* p = c.p;
  VRXmodel* m = c.model;
  VRXenv* env = c.env;

  // The sense first: values already in the store turn with it.
  if (c.flip < 0) {
    if (!b.obj)
      for (int j = 0; j < c.n0; ++j) d->obj[j] = c.flipped(d->obj[j]);
    if (!b.q)
      for (int k = 0; k < d->numQNZs; ++k) d->qVal[k] = -d->qVal[k];
    if (!b.pwl && d->pwlY)
      for (int64_t k = 0; k < d->numPWLPoints; ++k) d->pwlY[k] = -d->pwlY[k];
    d->objCon = c.flipped(d->objCon);
  }
  d->modelSense = c.sense;
  if (c.s.objCon) d->objCon = c.inSense(p->newObjCon);
  if (c.s.name) {
    replace(env, d->modelName, p->newName);
    p->newName = nullptr;
    p->nameSet = 0;
  }

  if (b.obj) {
    replace(env, d->obj, b.obj);
    replace(env, d->lb, b.lb);
    replace(env, d->ub, b.ub);
    replace(env, d->vtype, b.vtype);
    b.obj = b.lb = b.ub = nullptr;
    b.vtype = nullptr;
  }
  if (b.rhs) {
    replace(env, d->rhs, b.rhs);
    replace(env, d->sense, b.sense);
    b.rhs = nullptr;
    b.sense = nullptr;
  }
  if (b.colBeg) {
    replace(env, d->colBeg, b.colBeg);
    replace(env, d->colLen, b.colLen);
    replace(env, d->rowInd, b.rowInd);
    replace(env, d->val, b.val);
    b.colBeg = nullptr;
    b.colLen = nullptr;
    b.rowInd = nullptr;
    b.val = nullptr;
    d->numNZs = b.numNZs;
  }
  commitNames(c, b);
  remapOptional(c, m->branchPriority, b.branchPriority, c.n0, c.nF, 0, true);
  remapOptional(c, m->hintValue, b.hintValue, c.n0, c.nF, VRX_UNDEFINED, true);
  remapOptional(c, m->hintPriority, b.hintPriority, c.n0, c.nF, 0, true);
  remapOptional(c, m->partition, b.partition, c.n0, c.nF, 0, true);
  remapOptional(c, m->lazyFlag, b.lazyFlag, c.m0, c.mF, 0, false);
  b.branchPriority = b.hintPriority = b.partition = b.lazyFlag = nullptr;
  b.hintValue = nullptr;
  if (b.starts) {
    const int64_t count = static_cast<int64_t>(m->startCount) * c.nF;
    for (int64_t k = 0; k < count; ++k) b.starts[k] = VRX_UNDEFINED;
    for (int s = 0; s < m->startCount; ++s)
      for (int j = 0; j < c.n0; ++j)
        if (c.col(j) >= 0)
          b.starts[static_cast<int64_t>(s) * c.nF + c.col(j)] =
              m->starts[static_cast<int64_t>(s) * c.n0 + j];
    replace(env, m->starts, b.starts);
    b.starts = nullptr;
  }

  if (b.sos) {
    replace(env, d->sosType, b.sosType);
    replace(env, d->sosBeg, b.sosBeg);
    replace(env, d->sosInd, b.sosInd);
    replace(env, d->sosWeight, b.sosWeight);
    b.sosType = b.sosInd = nullptr;
    b.sosBeg = nullptr;
    b.sosWeight = nullptr;
    d->numSOS = b.numSOS;
    if (c.s.sosAdded) d->sosChecked = 0;
  }
  if (b.q) {
    replace(env, d->qRow, b.qRow);
    replace(env, d->qCol, b.qCol);
    replace(env, d->qVal, b.qVal);
    b.qRow = b.qCol = nullptr;
    b.qVal = nullptr;
    d->numQNZs = b.numQNZs;
  }
  commitQC(c, b);
  commitGen(c, b);
  if (b.pwl) {
    replace(env, d->pwlBeg, b.pwlBeg);
    replace(env, d->pwlCount, b.pwlCount);
    replace(env, d->pwlX, b.pwlX);
    replace(env, d->pwlY, b.pwlY);
    b.pwlBeg = nullptr;
    b.pwlCount = nullptr;
    b.pwlX = b.pwlY = nullptr;
    d->numPWLObjVars = b.numPWLObjVars;
    d->numPWLPoints = b.numPoints;
  }
  if (b.cones) {
    replace(env, d->coneBeg, b.coneBeg);
    replace(env, d->coneInd, b.coneInd);
    b.coneBeg = nullptr;
    b.coneInd = nullptr;
    d->numCones = b.numCones;
  }
  d->numVars = c.nF;
  d->numConstrs = c.mF;

  commitEdits(c);
  remapObjectives(c);

  d->numIntVars = d->numBinVars = 0;
  for (int j = 0; j < c.nF; ++j) {
    if (d->vtype[j] == 'C') continue;
    ++d->numIntVars;
    if (d->vtype[j] == 'B') ++d->numBinVars;
  }
  commitWarm(c, b);
}

// The row-wise copy of the store, built from the columns.
bool buildRowCopy(VRXenv* env, VRXmodeldata* d) {
  const int m = d->numConstrs, n = d->numVars;
  auto* rowBeg = envCallocArray<int64_t>(env, static_cast<size_t>(m) + 1);
  auto* rowLen = envCallocArray<int>(env, static_cast<size_t>(m > 0 ? m : 1));
  auto* colInd = envAllocArray<int>(env, static_cast<size_t>(d->numNZs > 0 ? d->numNZs : 1));
  auto* rowVal = envAllocArray<double>(env, static_cast<size_t>(d->numNZs > 0 ? d->numNZs : 1));
  if (!rowBeg || !rowLen || !colInd || !rowVal) {
    envFree(env, rowBeg);
    envFree(env, rowLen);
    envFree(env, colInd);
    envFree(env, rowVal);
    return false;
  }
  for (int j = 0; j < n; ++j)
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) ++rowLen[d->rowInd[k]];
  for (int i = 0; i < m; ++i) rowBeg[i + 1] = rowBeg[i] + rowLen[i];
  for (int i = 0; i < m; ++i) rowLen[i] = 0;
  for (int j = 0; j < n; ++j)
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) {
      const int r = d->rowInd[k];
      const int64_t at = rowBeg[r] + rowLen[r]++;
      colInd[at] = j;
      rowVal[at] = d->val[k];
    }
  d->rowBeg = rowBeg;
  d->rowLen = rowLen;
  d->colInd = colInd;
  d->rowVal = rowVal;
  return true;
}

NameIndex* buildNameIndex(VRXenv* env, char** names, int count) {
  if (!names || count <= 0) return nullptr;
  NameIndex* idx = nameIndexCreate(env, static_cast<int>(1.4 * count) + 1);
  if (!idx) return nullptr;
  for (int k = 0; k < count; ++k)
    if (names[k] && nameIndexInsert(env, idx, names[k], k)) {
      nameIndexFree(env, idx);
      return nullptr;
    }
  return idx;
}

void freeRowCopy(VRXenv* env, VRXmodeldata* d) {
  envFree(env, d->rowBeg);
  envFree(env, d->rowLen);
  envFree(env, d->colInd);
  envFree(env, d->rowVal);
  d->rowBeg = nullptr;
  d->rowLen = nullptr;
  d->colInd = nullptr;
  d->rowVal = nullptr;
}

int applyBatch(VRXmodel* model, VRXpending* p) {
  VRXenv* env = model->env;
  VRXmodeldata* d = model->data;
  Ctx c(env);
  c.model = model;
  c.d = d;
  c.p = p;
  c.s = summarize(model, p);
  const Summary& s = c.s;

  model->updateWork += d->numConstrs;
  model->updateWork += d->numVars;
  const int64_t changes = static_cast<int64_t>(model->updateChanges) + s.delRows + s.renamedRows +
                          s.delCols + s.renamedCols;
  model->updateChanges = static_cast<int>(std::min<int64_t>(changes, kMaxInt));
  if (s.empty()) return 0;

  d->solvedTag = -1;
  c.level = levelFor(model, p, s);
  c.n0 = s.n0;
  c.m0 = s.m0;
  c.n1 = s.n1;
  c.m1 = s.m1;
  c.sense = p->newSense ? p->newSense : d->modelSense;
  c.flip = c.sense == d->modelSense ? 1.0 : -1.0;
  c.colsChange = c.n1 > c.n0 || s.delCols > 0;
  c.rowsChange = c.m1 > c.m0 || s.delRows > 0;
  c.matrixChange = c.colsChange || c.rowsChange || s.coeffs > 0;

  Built b;
  int err = buildAll(c, b);
  if (err) {
    freeBuilt(env, b);
    return err;
  }
  // The working LP is built again from the changed store; a basis the level lets
  // stand goes to the warm start first, where the commit maps it to the new shape.
  if (c.level >= 1 && model->result && model->result->vBasis && model->result->cBasis) {
    err = warmStartStoreBasis(model, model->result->vBasis, model->result->cBasis);
    if (err) {
      freeBuilt(env, b);
      return err;
    }
  }
  dropSolveResults(model);
  commitAll(c, b);
  freeBuilt(env, b);  // only what was not taken over: nothing on success

  model->updateWork += d->numVars;
  if (c.colsChange || s.renamedCols) {
    nameIndexFree(env, model->nameIndex.vars);
    model->nameIndex.vars = nullptr;
  }
  if (c.rowsChange || s.renamedRows) {
    nameIndexFree(env, model->nameIndex.constrs);
    model->nameIndex.constrs = nullptr;
  }
  checkSos(model);
  if (!d->rowBeg && model->updateChanges > kRebuildChanges) {
    // Caches only: a failure here leaves them to be built on request.
    if (!model->nameIndex.vars) model->nameIndex.vars = buildNameIndex(env, d->varName, d->numVars);
    if (!model->nameIndex.constrs)
      model->nameIndex.constrs = buildNameIndex(env, d->constrName, d->numConstrs);
    if (buildRowCopy(env, d)) model->updateChanges = 0;
  }
  return 0;
}

}  // namespace

int keepLevel(const VRXmodel* model) {
  const VRXpending* p = model->pending;
  if (!p || !(p->flags & kPendInUse)) return model->lp ? 2 : 1;
  return levelFor(model, p, summarize(model, p));
}

void dropSolveResults(VRXmodel* model) {
  VRXenv* env = model->env;
  VRXlpFreeOnModel(model);
  resultFree(env, model->result);
  model->result = nullptr;
  modelDataFree(env, model->presolved);
  modelDataFree(env, model->relaxed);
  model->presolved = model->relaxed = nullptr;
  presolveMapDrop(model);
  freeRowCopy(env, model->data);
  model->status = VRX_LOADED;
}

int modelUpdate(VRXmodel* model) {
  VRXenv* env = model->env;
  checkSos(model);
  model->runtime = 0.0;
  model->runVTime = 0.0;
  warmStartSettle(model);
  VRXpending* p = model->pending;
  if (!p || !(p->flags & kPendInUse)) return 0;
  int err;
  try {
    err = applyBatch(model, p);
  } catch (const std::bad_alloc&) {
    err = VRX_ERROR_OUT_OF_MEMORY;
  }
  pendingClear(env, p);
  if (err) {
    model->status = 0;
    raise(env, err, false, "Problem updating model");
  }
  return err;
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXupdatemodel(VRXmodel* model) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] { return setError(env, modelUpdate(model)); });
}

static int resetModel(VRXmodel* model, bool clearAll) {
  VRXenv* env = model->env;
  int err = modelUpdate(model);
  if (err) {
    raise(env, err, false, "Problem resetting model");
    return err;
  }
  dropSolveResults(model);
  warmStartFree(env, warmOf(model));
  model->warmStart = nullptr;
  if (clearAll) {
    envFree(env, model->starts);
    model->starts = nullptr;
    model->startCount = 0;
    void* arrays[] = {model->branchPriority, model->hintValue, model->lazyFlag,
                      model->hintPriority, model->partition};
    for (void* a : arrays) envFree(env, a);
    model->branchPriority = model->lazyFlag = model->hintPriority = model->partition = nullptr;
    model->hintValue = nullptr;
  }
  model->status = VRX_LOADED;
  return 0;
}

VRX_API int VRXreset(VRXmodel* model, int clearall) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] { return setError(env, resetModel(model, clearall != 0)); });
}

VRX_API int VRXresetmodel(VRXmodel* model) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] { return setError(env, resetModel(model, false)); });
}

}  // extern "C"
