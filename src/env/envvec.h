// A growable array on the environment's allocator. Allocation failure throws
// std::bad_alloc, which the export frame turns into 10001.
#pragma once

#include <cstring>
#include <new>
#include <type_traits>

#include "env/env.h"

namespace vrx {

// A scratch array on the environment's allocator, freed on every path out of the
// scope; `a` is null when the allocation failed.
template <class T>
struct Scratch {
  VRXenv* env;
  T* a;
  Scratch(VRXenv* e, size_t n) : env(e), a(static_cast<T*>(envMalloc(e, (n ? n : 1) * sizeof(T)))) {}
  ~Scratch() { envFree(env, a); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  T& operator[](size_t i) { return a[i]; }
};

template <class T>
class EnvVec {
  static_assert(std::is_trivially_copyable<T>::value, "plain data only");

 public:
  explicit EnvVec(VRXenv* env) : env_(env) {}
  EnvVec(const EnvVec&) = delete;
  EnvVec& operator=(const EnvVec&) = delete;
  ~EnvVec() { envFree(env_, data_); }

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  T* data() { return data_; }
  const T* data() const { return data_; }
  T& operator[](size_t i) { return data_[i]; }
  const T& operator[](size_t i) const { return data_[i]; }
  T& back() { return data_[size_ - 1]; }

  void reserve(size_t cap) {
    if (cap <= cap_) return;
    void* p = envRealloc(env_, data_, cap * sizeof(T));
    if (!p) throw std::bad_alloc();
    data_ = static_cast<T*>(p);
    cap_ = cap;
  }
  void push_back(const T& v) {
    if (size_ == cap_) reserve(cap_ < 16 ? 16 : cap_ + cap_ / 2);
    data_[size_++] = v;
  }
  void resize(size_t n, const T& fill = T()) {
    reserve(n);
    for (size_t i = size_; i < n; ++i) data_[i] = fill;
    size_ = n;
  }
  void clear() { size_ = 0; }
  // Hands the block to the caller, who frees it with envFree.
  T* release() {
    T* p = data_;
    data_ = nullptr;
    size_ = cap_ = 0;
    return p;
  }

 private:
  VRXenv* env_;
  T* data_ = nullptr;
  size_t size_ = 0;
  size_t cap_ = 0;
};

}  // namespace vrx
