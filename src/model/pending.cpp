// The batch record: its life, the growth of its blocks and marks, and the
// single writes that the attribute calls stage into it.
#include "model/pending.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "model/pending_impl.h"

namespace vrx {

namespace {

template <class T>
void freeField(VRXenv* env, T*& p) {
  envFree(env, p);
  p = nullptr;
}

void freeNameSlots(VRXenv* env, char** names, int64_t count) {
  if (!names) return;
  for (int64_t i = 0; i < count; ++i) {
    envFree(env, names[i]);
    names[i] = nullptr;
  }
}

void genItemFree(VRXenv* env, VRXgenconstr& g) {
  freeField(env, g.name);
  freeField(env, g.vars);
  freeField(env, g.ind);
  freeField(env, g.val);
}

// Drops what a block holds; its arrays stay for the next batch.
void clearVars(VRXenv* env, PendingVars* b) {
  if (!b) return;
  freeNameSlots(env, b->names, b->count);
  b->count = 0;
  b->numNZs = 0;
}

void clearConstrs(VRXenv* env, PendingConstrs* b) {
  if (!b) return;
  freeNameSlots(env, b->names, b->count);
  b->count = 0;
  b->slackCount = 0;
  b->numNZs = 0;
}

void freeVars(VRXenv* env, PendingVars* b) {
  if (!b) return;
  clearVars(env, b);
  envFreeAll(env, b->beg, b->ind, b->val, b->obj, b->lb, b->ub, b->vtype, b->names, b);
}

void freeConstrs(VRXenv* env, PendingConstrs* b) {
  if (!b) return;
  clearConstrs(env, b);
  envFreeAll(env, b->beg, b->ind, b->val, b->sense, b->rhs, b->range, b->names, b);
}

void freeTriplets(VRXenv* env, TripletList* t) {
  if (!t) return;
  envFreeAll(env, t->row, t->col, t->val, t);
}

void clearSos(VRXenv* env, SosChanges* s) {
  if (!s) return;
  s->count = 0;
  s->numMembers = 0;
  freeField(env, s->delMark);
  s->delCount = 0;
}

void freeSos(VRXenv* env, SosChanges* s) {
  if (!s) return;
  clearSos(env, s);
  envFreeAll(env, s->type, s->beg, s->ind, s->weight, s);
}

void clearGen(VRXenv* env, GenChanges* g) {
  if (!g) return;
  for (int i = 0; i < g->count; ++i) genItemFree(env, g->items[i]);
  g->count = 0;
  freeField(env, g->delMark);
  g->delCount = 0;
}

void freeGen(VRXenv* env, GenChanges* g) {
  if (!g) return;
  clearGen(env, g);
  envFree(env, g->items);
  envFree(env, g);
}

void clearQC(VRXenv* env, QCChanges* q) {
  if (!q) return;
  freeNameSlots(env, q->names, q->count);
  q->count = 0;
  q->linNZ = q->quadNZ = 0;
  freeField(env, q->delMark);
  q->delCount = 0;
}

void freeQC(VRXenv* env, QCChanges* q) {
  if (!q) return;
  clearQC(env, q);
  envFreeAll(env, q->linBeg, q->linInd, q->linVal, q->quadBeg, q->qRow, q->qCol, q->qVal, q->sense,
             q->rhs, q->names, q);
}

void freeCones(VRXenv* env, ConeChanges* c) {
  if (!c) return;
  envFreeAll(env, c->beg, c->ind, c);
}

void freeBounds(VRXenv* env, BoundChanges* b) {
  if (!b) return;
  envFreeAll(env, b->index, b->kind, b->value, b);
}

void clearEdits(VRXenv* env, ItemEdits* e) {
  if (!e) return;
  freeNameSlots(env, e->name, e->count);
  e->count = 0;
}

void freeEdits(VRXenv* env, ItemEdits* e) {
  if (!e) return;
  clearEdits(env, e);
  envFreeAll(env, e->index, e->kind, e->sense, e->name, e);
}

void freePwl(VRXenv* env, PwlChanges* w) {
  if (!w) return;
  envFreeAll(env, w->var, w->beg, w->npoints, w->x, w->y, w);
}

// Names staged by attribute writes are owned while their mark is set.
void freeStagedNames(VRXenv* env, VRXpending* p) {
  if (p->stagedNames == 0) return;
  if (p->newVarName && p->colMark && (p->flags & kPendColMarks))
    for (int j = 0; j < p->colCapacity; ++j)
      if (p->colMark[j] & kColName) {
        envFree(env, p->newVarName[j]);
        p->newVarName[j] = nullptr;
      }
  if (p->newConstrName && p->rowMark && (p->flags & kPendRowMarks))
    for (int i = 0; i < p->rowCapacity; ++i)
      if (p->rowMark[i] & kRowName) {
        envFree(env, p->newConstrName[i]);
        p->newConstrName[i] = nullptr;
      }
  p->stagedNames = 0;
}

// Grows the column marks and every column value array to hold `need`
// entries; the new part of the marks is zeroed.
bool growColumns(VRXenv* env, VRXpending* p, int need) {
  if (p->colMark && need <= p->colCapacity) return true;
  int64_t cap = p->colCapacity;
  if (p->colMark) {
    cap = std::max<int64_t>(need, static_cast<int64_t>(1.2 * static_cast<double>(cap)) + 10);
  } else {
    cap = std::max<int64_t>(need, cap);
  }
  cap = std::min<int64_t>(cap, kMaxInt);
  if (cap < need) return false;
  const int64_t old = p->colMark ? p->colCapacity : 0;
  if (!resizeZeroed(env, p->colMark, old, cap)) return false;
  if (p->newObj && !resizeBlock(env, p->newObj, cap)) return false;
  if (p->newVType && !resizeBlock(env, p->newVType, cap)) return false;
  if (p->newVarName && !resizeBlock(env, p->newVarName, cap)) return false;
  if (p->newPriority && !resizeBlock(env, p->newPriority, cap)) return false;
  if (p->newHintPriority && !resizeBlock(env, p->newHintPriority, cap)) return false;
  if (p->newPartition && !resizeBlock(env, p->newPartition, cap)) return false;
  if (p->newHintValue && !resizeBlock(env, p->newHintValue, cap)) return false;
  p->colCapacity = static_cast<int>(cap);
  return true;
}

bool growRows(VRXenv* env, VRXpending* p, int need) {
  if (p->rowMark && need <= p->rowCapacity) return true;
  int64_t cap = p->rowCapacity;
  if (p->rowMark) {
    cap = std::max<int64_t>(need, static_cast<int64_t>(1.2 * static_cast<double>(cap)) + 10);
  } else {
    cap = std::max<int64_t>(need, cap);
  }
  cap = std::min<int64_t>(cap, kMaxInt);
  if (cap < need) return false;
  const int64_t old = p->rowMark ? p->rowCapacity : 0;
  if (!resizeZeroed(env, p->rowMark, old, cap)) return false;
  if (p->newRHS && !resizeBlock(env, p->newRHS, cap)) return false;
  if (p->newConstrSense && !resizeBlock(env, p->newConstrSense, cap)) return false;
  if (p->newConstrName && !resizeBlock(env, p->newConstrName, cap)) return false;
  if (p->newLazy && !resizeBlock(env, p->newLazy, cap)) return false;
  p->rowCapacity = static_cast<int>(cap);
  return true;
}

}  // namespace

// ---- block growth ----

bool ensureNames(VRXenv* env, char**& names, int capacity) {
  if (names) return true;
  names = envCallocArray<char*>(env, static_cast<size_t>(capacity > 0 ? capacity : 1));
  return names != nullptr;
}

bool reserveVars(VRXenv* env, VRXpending* p, int added, int64_t addedNZ) {
  if (!ensureRecord(env, p->newVars)) return false;
  PendingVars* b = p->newVars;
  if (static_cast<int64_t>(b->count) + added > b->capacity) {
    int64_t cap = std::min<int64_t>(grownItems(b->count, added), kMaxInt);
    if (cap < static_cast<int64_t>(b->count) + added) return false;
    if (!resizeBlock(env, b->beg, cap) || !resizeBlock(env, b->obj, cap) ||
        !resizeBlock(env, b->lb, cap) || !resizeBlock(env, b->ub, cap) ||
        !resizeBlock(env, b->vtype, cap))
      return false;
    if (b->names && !resizeZeroed(env, b->names, b->capacity, cap)) return false;
    b->capacity = static_cast<int>(cap);
  }
  if (b->numNZs + addedNZ > b->nzCapacity) {
    int64_t cap = grownNonzeros(b->numNZs, addedNZ);
    if (!resizeBlock(env, b->ind, cap) || !resizeBlock(env, b->val, cap)) return false;
    b->nzCapacity = cap;
  }
  return true;
}

bool reserveConstrs(VRXenv* env, VRXpending* p, int added, int64_t addedNZ) {
  if (!ensureRecord(env, p->newConstrs)) return false;
  PendingConstrs* b = p->newConstrs;
  if (static_cast<int64_t>(b->count) + added > b->capacity) {
    int64_t cap = std::min<int64_t>(grownItems(b->count, added), kMaxInt);
    if (cap < static_cast<int64_t>(b->count) + added) return false;
    if (!resizeBlock(env, b->beg, cap) || !resizeBlock(env, b->sense, cap) ||
        !resizeBlock(env, b->rhs, cap) || !resizeBlock(env, b->range, cap))
      return false;
    if (b->names && !resizeZeroed(env, b->names, b->capacity, cap)) return false;
    b->capacity = static_cast<int>(cap);
  }
  if (b->numNZs + addedNZ > b->nzCapacity) {
    int64_t cap = grownNonzeros(b->numNZs, addedNZ);
    if (!resizeBlock(env, b->ind, cap) || !resizeBlock(env, b->val, cap)) return false;
    b->nzCapacity = cap;
  }
  return true;
}

bool reserveTriplets(VRXenv* env, TripletList*& list, int64_t added) {
  if (!ensureRecord(env, list)) return false;
  if (list->count + added <= list->capacity) return true;
  int64_t cap = grownNonzeros(list->count, added);
  if (!resizeBlock(env, list->row, cap) || !resizeBlock(env, list->col, cap) ||
      !resizeBlock(env, list->val, cap))
    return false;
  list->capacity = cap;
  return true;
}

bool reserveBounds(VRXenv* env, VRXpending* p, int64_t added) {
  if (!ensureRecord(env, p->boundChanges)) return false;
  BoundChanges* b = p->boundChanges;
  if (b->count + added <= b->capacity) return true;
  int64_t cap = grownNonzeros(b->count, added);
  if (!resizeBlock(env, b->index, cap) || !resizeBlock(env, b->kind, cap) ||
      !resizeBlock(env, b->value, cap))
    return false;
  b->capacity = cap;
  return true;
}

bool reserveEdits(VRXenv* env, VRXpending* p, int added) {
  if (!ensureRecord(env, p->itemEdits)) return false;
  ItemEdits* e = p->itemEdits;
  if (static_cast<int64_t>(e->count) + added <= e->capacity) return true;
  int64_t cap = std::min<int64_t>(grownItems(e->count, added), kMaxInt);
  if (cap < static_cast<int64_t>(e->count) + added) return false;
  if (!resizeBlock(env, e->index, cap) || !resizeBlock(env, e->kind, cap) ||
      !resizeBlock(env, e->sense, cap) || !resizeZeroed(env, e->name, e->capacity, cap))
    return false;
  e->capacity = static_cast<int>(cap);
  return true;
}

bool colSlot(VRXenv* env, VRXpending* p, int index) {
  if (!growColumns(env, p, index + 1)) return false;
  if (!(p->flags & kPendColMarks)) {
    std::memset(p->colMark, 0, static_cast<size_t>(p->colCapacity) * sizeof(uint32_t));
    p->flags |= kPendColMarks;
  }
  return true;
}

bool rowSlot(VRXenv* env, VRXpending* p, int index) {
  if (!growRows(env, p, index + 1)) return false;
  if (!(p->flags & kPendRowMarks)) {
    std::memset(p->rowMark, 0, static_cast<size_t>(p->rowCapacity) * sizeof(uint32_t));
    p->flags |= kPendRowMarks;
  }
  return true;
}

int checkNameLength(VRXenv* env, const char* name) {
  if (name && std::strlen(name) > VRX_MAX_NAMELEN)
    return raise(env, VRX_ERROR_INVALID_ARGUMENT, true,
                 "Name too long (maximum name length is %d characters)", VRX_MAX_NAMELEN);
  return 0;
}

bool copyName(VRXenv* env, const char* name, char** out) {
  *out = nullptr;
  if (!name || !name[0]) return true;
  *out = envStrdup(env, name);
  return *out != nullptr;
}

bool hasDuplicate(VRXenv* env, const int* ind, int64_t count, int* err) {
  *err = 0;
  if (count < 2) return false;
  if (count <= 16) {
    for (int64_t a = 1; a < count; ++a)
      for (int64_t b = 0; b < a; ++b)
        if (ind[a] == ind[b]) return true;
    return false;
  }
  int* copy = envAllocArray<int>(env, static_cast<size_t>(count));
  if (!copy) {
    *err = VRX_ERROR_OUT_OF_MEMORY;
    return false;
  }
  std::memcpy(copy, ind, static_cast<size_t>(count) * sizeof(int));
  std::sort(copy, copy + count);
  bool dup = std::adjacent_find(copy, copy + count) != copy + count;
  envFree(env, copy);
  return dup;
}

char normalizeSense(char c) {
  switch (c) {
    case '<': case 'L': case 'l': return '<';
    case '>': case 'G': case 'g': return '>';
    case '=': case 'E': case 'e': return '=';
    default: return 0;
  }
}

char normalizeVType(char c) {
  if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return (c == 'C' || c == 'B' || c == 'I' || c == 'S' || c == 'N') ? c : 0;
}

// ---- the record ----

void pendingClear(VRXenv* env, VRXpending* p) {
  if (!p) return;
  freeStagedNames(env, p);
  clearVars(env, p->newVars);
  clearConstrs(env, p->newConstrs);
  if (p->coeffChanges) p->coeffChanges->count = 0;
  if (p->qTerms) p->qTerms->count = 0;
  clearSos(env, p->sosChanges);
  clearGen(env, p->genChanges);
  clearQC(env, p->qcChanges);
  if (p->coneChanges) {
    p->coneChanges->count = 0;
    p->coneChanges->numMembers = 0;
  }
  if (p->boundChanges) p->boundChanges->count = 0;
  clearEdits(env, p->itemEdits);
  if (p->pwlChanges) {
    p->pwlChanges->count = 0;
    p->pwlChanges->numPoints = 0;
  }
  freeField(env, p->newName);
  p->nameSet = 0;
  p->newSense = 0;
  p->newObjCon = kInf;
  p->clearQ = 0;
  // The marks are zeroed lazily, at their first use in the next batch.
  p->flags = 0;
}

void pendingFree(VRXenv* env, VRXpending* p) {
  if (!p) return;
  pendingClear(env, p);
  freeVars(env, p->newVars);
  freeConstrs(env, p->newConstrs);
  freeTriplets(env, p->coeffChanges);
  freeTriplets(env, p->qTerms);
  freeSos(env, p->sosChanges);
  freeGen(env, p->genChanges);
  freeQC(env, p->qcChanges);
  freeCones(env, p->coneChanges);
  freeBounds(env, p->boundChanges);
  freeEdits(env, p->itemEdits);
  freePwl(env, p->pwlChanges);
  envFreeAll(env, p->rowMark, p->colMark, p->newObj, p->newVType, p->newRHS, p->newConstrSense,
             p->newLazy, p->newVarName, p->newConstrName, p->newPriority, p->newHintPriority,
             p->newPartition, p->newHintValue, p);
}

int pendingOpen(VRXmodel* model, VRXpending** out) {
  VRXenv* env = model->env;
  VRXpending* p = model->pending;
  *out = nullptr;
  if (p && (p->flags & kPendInUse)) {
    *out = p;
    return 0;
  }
  const VRXmodeldata* d = model->data;
  if (p && p->rowCapacity >= d->numConstrs && p->colCapacity >= d->numVars) {
    pendingClear(env, p);
  } else {
    pendingFree(env, p);
    model->pending = nullptr;
    p = envCallocArray<VRXpending>(env, 1);
    if (!p) return VRX_ERROR_OUT_OF_MEMORY;
    p->newObjCon = kInf;
    p->rowCapacity = d->numConstrs;
    p->colCapacity = d->numVars;
    model->pending = p;
  }
  p->numVars = d->numVars;
  p->numConstrs = d->numConstrs;
  p->flags = kPendInUse;
  p->updateMode = static_cast<uint32_t>(env->par.UpdateMode);
  if (model->warmStart) warmOf(model)->warned = 0;
  *out = p;
  return 0;
}

void pendingDiscard(VRXmodel* model) {
  if (model->pending) pendingClear(model->env, model->pending);
}

bool pendingActive(const VRXmodel* model) {
  return model->pending && (model->pending->flags & kPendInUse);
}

void pendingCounts(const VRXmodel* model, int* numVars, int* numConstrs) {
  const VRXpending* p = model->pending;
  if (p && (p->flags & kPendInUse) && p->updateMode == 1) {
    if (numVars) *numVars = p->numVars;
    if (numConstrs) *numConstrs = p->numConstrs;
    return;
  }
  if (numVars) *numVars = model->data->numVars;
  if (numConstrs) *numConstrs = model->data->numConstrs;
}

int pendingCheckMode(VRXmodel* model, VRXpending* p) {
  VRXenv* env = model->env;
  if (static_cast<uint32_t>(env->par.UpdateMode) == p->updateMode) return 0;
  log(env, "Model update mode is changed between the update calls\n");
  return raise(env, VRX_ERROR_UPDATEMODE_CHANGE, true,
               "Model update mode change between the update calls\n");
}

// ---- single writes ----

namespace {

bool varInRange(const VRXmodel* model, int var) {
  int n = 0;
  pendingCounts(model, &n, nullptr);
  return var >= 0 && var < n;
}

bool constrInRange(const VRXmodel* model, int constr) {
  int m = 0;
  pendingCounts(model, nullptr, &m);
  return constr >= 0 && constr < m;
}

// Opens the batch and makes room for a write at a column: its mark word and
// the value array `field`. Fails with 10001 and a discarded batch when memory
// runs out.
template <class T>
int openColumn(VRXmodel* model, int var, T* VRXpending::*field, VRXpending** out) {
  if (!varInRange(model, var)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  VRXpending* p = nullptr;
  int err = pendingOpen(model, &p);
  if (err) return err;
  if (!colSlot(model->env, p, var) || !colValues(model->env, p, p->*field)) {
    pendingDiscard(model);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  *out = p;
  return 0;
}

template <class T>
int openRow(VRXmodel* model, int constr, T* VRXpending::*field, VRXpending** out) {
  if (!constrInRange(model, constr)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  VRXpending* p = nullptr;
  int err = pendingOpen(model, &p);
  if (err) return err;
  if (!rowSlot(model->env, p, constr) || !rowValues(model->env, p, p->*field)) {
    pendingDiscard(model);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  *out = p;
  return 0;
}

template <class T>
int stageColumn(VRXmodel* model, int var, T* VRXpending::*field, uint32_t bit, T value) {
  VRXpending* p = nullptr;
  int err = openColumn(model, var, field, &p);
  if (err) return err;
  (p->*field)[var] = value;
  p->colMark[var] |= bit;
  return 0;
}

template <class T>
int stageRow(VRXmodel* model, int constr, T* VRXpending::*field, uint32_t bit, T value) {
  VRXpending* p = nullptr;
  int err = openRow(model, constr, field, &p);
  if (err) return err;
  (p->*field)[constr] = value;
  p->rowMark[constr] |= bit;
  return 0;
}

int stageBound(VRXmodel* model, int index, char kind, double value) {
  VRXpending* p = nullptr;
  int err = pendingOpen(model, &p);
  if (err) return err;
  if (!reserveBounds(model->env, p, 1)) {
    pendingDiscard(model);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  BoundChanges* b = p->boundChanges;
  b->index[b->count] = index;
  b->kind[b->count] = kind;
  b->value[b->count] = value < -kInf ? -kInf : (value > kInf ? kInf : value);
  ++b->count;
  return 0;
}

int stageEdit(VRXmodel* model, int index, char kind, char sense, const char* name) {
  VRXenv* env = model->env;
  VRXpending* p = nullptr;
  int err = pendingOpen(model, &p);
  if (err) return err;
  char* copy = nullptr;
  if (!reserveEdits(env, p, 1) || !copyName(env, name, &copy)) {
    pendingDiscard(model);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  ItemEdits* e = p->itemEdits;
  e->index[e->count] = index;
  e->kind[e->count] = kind;
  e->sense[e->count] = sense;
  e->name[e->count] = copy;
  ++e->count;
  return 0;
}

}  // namespace

int stageLB(VRXmodel* model, int var, double value) {
  if (!varInRange(model, var)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return stageBound(model, var, 'L', value);
}

int stageUB(VRXmodel* model, int var, double value) {
  if (!varInRange(model, var)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return stageBound(model, var, 'U', value);
}

int stageObj(VRXmodel* model, int var, double value) {
  return stageColumn(model, var, &VRXpending::newObj, kColObj, value);
}

int stageVType(VRXmodel* model, int var, char type) {
  char t = normalizeVType(type);
  if (!t)
    return raise(model->env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid variable type '%c'", type);
  return stageColumn(model, var, &VRXpending::newVType, kColVType, t);
}

int stageRHS(VRXmodel* model, int constr, double value) {
  value = value < -kInf ? -kInf : (value > kInf ? kInf : value);
  return stageRow(model, constr, &VRXpending::newRHS, kRowRHS, value);
}

int stageSense(VRXmodel* model, int constr, char sense) {
  char s = normalizeSense(sense);
  if (!s)
    return raise(model->env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid constraint sense: '%c'",
                 sense);
  return stageRow(model, constr, &VRXpending::newConstrSense, kRowSense, s);
}

int stageVarName(VRXmodel* model, int var, const char* name) {
  VRXenv* env = model->env;
  int err = checkNameLength(env, name);
  if (err) return err;
  if (env->par.IgnoreNames) return 0;
  VRXpending* p = nullptr;
  err = openColumn(model, var, &VRXpending::newVarName, &p);
  if (err) return err;
  char* copy = nullptr;
  if (!copyName(env, name, &copy)) {
    pendingDiscard(model);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  if (p->colMark[var] & kColName) {
    envFree(env, p->newVarName[var]);
  } else {
    ++p->stagedNames;
  }
  p->newVarName[var] = copy;
  p->colMark[var] |= kColName;
  return 0;
}

int stageConstrName(VRXmodel* model, int constr, const char* name) {
  VRXenv* env = model->env;
  int err = checkNameLength(env, name);
  if (err) return err;
  if (env->par.IgnoreNames) return 0;
  VRXpending* p = nullptr;
  err = openRow(model, constr, &VRXpending::newConstrName, &p);
  if (err) return err;
  char* copy = nullptr;
  if (!copyName(env, name, &copy)) {
    pendingDiscard(model);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  if (p->rowMark[constr] & kRowName) {
    envFree(env, p->newConstrName[constr]);
  } else {
    ++p->stagedNames;
  }
  p->newConstrName[constr] = copy;
  p->rowMark[constr] |= kRowName;
  return 0;
}

int stageBranchPriority(VRXmodel* model, int var, int value) {
  return stageColumn(model, var, &VRXpending::newPriority, kColPriority, value);
}

int stagePartition(VRXmodel* model, int var, int value) {
  return stageColumn(model, var, &VRXpending::newPartition, kColPartition, value);
}

int stageVarHintVal(VRXmodel* model, int var, double value) {
  return stageColumn(model, var, &VRXpending::newHintValue, kColHintVal, value);
}

int stageVarHintPri(VRXmodel* model, int var, int value) {
  return stageColumn(model, var, &VRXpending::newHintPriority, kColHintPri, value);
}

int stageLazy(VRXmodel* model, int constr, int value) {
  return stageRow(model, constr, &VRXpending::newLazy, kRowLazy, value);
}

int stageQCRHS(VRXmodel* model, int qc, double value) {
  if (qc < 0 || qc >= model->data->numQConstrs) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return stageBound(model, qc, 'Q', value);
}

int stageQCSense(VRXmodel* model, int qc, char sense) {
  if (qc < 0 || qc >= model->data->numQConstrs) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  char s = normalizeSense(sense);
  if (!s)
    return raise(model->env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid constraint sense: '%c'",
                 sense);
  return stageEdit(model, qc, 'S', s, nullptr);
}

int stageQCName(VRXmodel* model, int qc, const char* name) {
  if (qc < 0 || qc >= model->data->numQConstrs) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  int err = checkNameLength(model->env, name);
  if (err) return err;
  if (model->env->par.IgnoreNames) return 0;
  return stageEdit(model, qc, 'N', 0, name);
}

int stageGenConstrName(VRXmodel* model, int gc, const char* name) {
  if (gc < 0 || gc >= model->data->numGenConstrs) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  int err = checkNameLength(model->env, name);
  if (err) return err;
  if (model->env->par.IgnoreNames) return 0;
  return stageEdit(model, gc, 'G', 0, name);
}

int stageModelName(VRXmodel* model, const char* name) {
  VRXenv* env = model->env;
  int err = checkNameLength(env, name);
  if (err) return err;
  VRXpending* p = nullptr;
  err = pendingOpen(model, &p);
  if (err) return err;
  char* copy = nullptr;
  if (!copyName(env, name, &copy)) {
    pendingDiscard(model);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  envFree(env, p->newName);
  p->newName = copy;
  p->nameSet = 1;
  return 0;
}

int stageModelSense(VRXmodel* model, int sense) {
  if (sense != 1 && sense != -1) return VRX_ERROR_INVALID_ARGUMENT;
  VRXpending* p = nullptr;
  int err = pendingOpen(model, &p);
  if (err) return err;
  p->newSense = sense;
  return 0;
}

int stageObjCon(VRXmodel* model, double value) {
  if (std::isnan(value)) return VRX_ERROR_INVALID_ARGUMENT;
  VRXpending* p = nullptr;
  int err = pendingOpen(model, &p);
  if (err) return err;
  p->newObjCon = value;
  return 0;
}

}  // namespace vrx
