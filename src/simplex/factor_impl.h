// Pieces of the factor shared by its translation units.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#include "simplex/factor.h"

namespace vrx {
namespace lu {

// Entries at most this after an elimination or a dense step are removed.
constexpr double kTiny = 1e-100;

template <class T>
inline T absT(T x) {
  return x < T(0) ? -x : x;
}

// Grows *p to count elements keeping the content; false when the allocator fails.
template <class X>
bool growArray(VRXenv* env, X** p, size_t count) {
  if (count == 0) count = 1;
  void* q = envRealloc(env, *p, count * sizeof(X));
  if (!q) return false;
  *p = static_cast<X*>(q);
  return true;
}

// Solve stages on the factor's work vector (wv, wi, wcount). Work is added to *ops.
template <class T>
void loadRows(VRXfactorT<T>* f, const VRXsvecT<T>* in);
template <class T>
void loadPositions(VRXfactorT<T>* f, const VRXsvecT<T>* in);
template <class T>
void loadMatrixColumn(VRXfactorT<T>* f, int var);
template <class T>
void loadUnitRow(VRXfactorT<T>* f, int r);
template <class T>
void ftranL(VRXfactorT<T>* f, int64_t* ops);
template <class T>
void ftranR(VRXfactorT<T>* f, int64_t* ops);
template <class T>
void ftranU(VRXfactorT<T>* f, int64_t* ops);
template <class T>
void btranU(VRXfactorT<T>* f, int64_t* ops);
template <class T>
void btranR(VRXfactorT<T>* f, int64_t* ops);
template <class T>
void btranL(VRXfactorT<T>* f, int64_t* ops);
template <class T>
void saveSpike(VRXfactorT<T>* f);
template <class T>
void saveRowEta(VRXfactorT<T>* f, int p, T inValue);
template <class T>
void clearWork(VRXfactorT<T>* f);

}  // namespace lu
}  // namespace vrx
