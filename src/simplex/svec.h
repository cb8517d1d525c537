// Sparse vector of the simplex code: a full-length value array with an index list beside it.
#pragma once

#include <cstring>

#include "env/env.h"

// count >= 0: the nonzeros sit at value[index[0..count)], every other slot of value is 0.
// count == -1: the vector is dense in value[0..dim) and index is not read.
// Both arrays are allocated at full length so a vector can change form in place.
template <class T>
struct VRXsvecT {
  int count;
  int* index;
  T* value;
};

using VRXsvec = VRXsvecT<double>;
using VRXsvecQ = VRXsvecT<long double>;

namespace vrx {

// All zero, count 0. Returns 0 or VRX_ERROR_OUT_OF_MEMORY (nothing is left allocated then).
template <class T>
int svecAlloc(VRXenv* env, VRXsvecT<T>* v, int dim) {
  size_t d = dim > 0 ? static_cast<size_t>(dim) : 1;
  v->count = 0;
  v->index = envAllocArray<int>(env, d);
  v->value = envCallocArray<T>(env, d);
  if (!v->index || !v->value) {
    envFree(env, v->index);
    envFree(env, v->value);
    v->index = nullptr;
    v->value = nullptr;
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  return 0;
}

template <class T>
void svecFree(VRXenv* env, VRXsvecT<T>* v) {
  envFree(env, v->index);
  envFree(env, v->value);
  v->index = nullptr;
  v->value = nullptr;
  v->count = 0;
}

// Back to all zero in sparse form; O(count) unless the vector is dense.
template <class T>
void svecClear(VRXsvecT<T>* v, int dim) {
  if (v->count < 0) {
    std::memset(static_cast<void*>(v->value), 0, sizeof(T) * static_cast<size_t>(dim));
  } else {
    for (int k = 0; k < v->count; k++) v->value[v->index[k]] = T(0);
  }
  v->count = 0;
}

}  // namespace vrx
