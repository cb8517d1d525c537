// Growth of the batch's blocks and mark arrays, shared by the calls that fill
// the batch and by the update that empties it.
#pragma once

#include <cstdint>
#include <cstring>

#include "model/pending.h"

namespace vrx {

// Block growth: item and nonzero capacities grow with slack ahead, so a long
// run of single-item calls reallocates only now and then.
inline int64_t grownItems(int64_t items, int64_t added) {
  return static_cast<int64_t>(static_cast<double>(items + added + 50) * 1.1);
}
inline int64_t grownNonzeros(int64_t nz, int64_t added) {
  return static_cast<int64_t>(static_cast<double>(nz + added + 1000) * 1.1);
}

// Resizes a block to count entries; on failure the old block stays.
template <class T>
bool resizeBlock(VRXenv* env, T*& p, int64_t count) {
  size_t bytes = static_cast<size_t>(count > 0 ? count : 1) * sizeof(T);
  void* q = envRealloc(env, p, bytes);
  if (!q) return false;
  p = static_cast<T*>(q);
  return true;
}

// As resizeBlock, zeroing the entries from `from` on.
template <class T>
bool resizeZeroed(VRXenv* env, T*& p, int64_t from, int64_t count) {
  if (!resizeBlock(env, p, count)) return false;
  if (count > from)
    std::memset(static_cast<void*>(p + from), 0, static_cast<size_t>(count - from) * sizeof(T));
  return true;
}

// Allocates a record of the batch at its first use, zeroed.
template <class T>
bool ensureRecord(VRXenv* env, T*& rec) {
  if (rec) return true;
  rec = envCallocArray<T>(env, 1);
  return rec != nullptr;
}

// Room for `added` more items and `addedNZ` more entries in a block.
bool reserveVars(VRXenv* env, VRXpending* p, int added, int64_t addedNZ);
bool reserveConstrs(VRXenv* env, VRXpending* p, int added, int64_t addedNZ);
bool reserveTriplets(VRXenv* env, TripletList*& list, int64_t added);
bool reserveBounds(VRXenv* env, VRXpending* p, int64_t added);
bool reserveEdits(VRXenv* env, VRXpending* p, int added);
// The names array of a block, allocated and zeroed up to its capacity.
bool ensureNames(VRXenv* env, char**& names, int capacity);

// Mark words and value arrays covering index `index`; the marks are zeroed
// once per batch, at first use.
bool colSlot(VRXenv* env, VRXpending* p, int index);
bool rowSlot(VRXenv* env, VRXpending* p, int index);
// A value array of the marks' capacity, allocated at first use.
template <class T>
bool colValues(VRXenv* env, VRXpending* p, T*& arr) {
  if (arr) return true;
  arr = envAllocArray<T>(env, static_cast<size_t>(p->colCapacity > 0 ? p->colCapacity : 1));
  return arr != nullptr;
}
template <class T>
bool rowValues(VRXenv* env, VRXpending* p, T*& arr) {
  if (arr) return true;
  arr = envAllocArray<T>(env, static_cast<size_t>(p->rowCapacity > 0 ? p->rowCapacity : 1));
  return arr != nullptr;
}

// Checks a name against the length limit; 0 or 10003 with the text.
int checkNameLength(VRXenv* env, const char* name);
// An owned copy of a name, or null for a null or empty one. False when
// memory ran out.
bool copyName(VRXenv* env, const char* name, char** out);

// True for a duplicate among count indices. Short lists compare pairwise,
// longer ones sort a copy; nothing of the size of the model is touched.
// Sets *err to 10001 when the copy could not be made.
bool hasDuplicate(VRXenv* env, const int* ind, int64_t count, int* err);

// The common frame of the modelling calls: model check, the batch opened,
// the body, and on failure the batch discarded and the outer text added.
template <class Body>
int batchCall(VRXmodel* model, const char* outerText, Body body) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    VRXpending* p = nullptr;
    int rc = pendingOpen(model, &p);
    if (!rc) {
      try {
        rc = body(p);
      } catch (const std::bad_alloc&) {
        rc = VRX_ERROR_OUT_OF_MEMORY;
      }
    }
    if (rc) {
      pendingDiscard(model);
      if (outerText) raise(env, rc, false, "%s", outerText);
    }
    return setError(env, rc);
  });
}

}  // namespace vrx
