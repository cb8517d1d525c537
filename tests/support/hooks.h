// Host memory hooks for tests: count live blocks, fail the k-th allocation,
// and optionally keep freed blocks readable so freed handles can be probed.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <vector>

#include "vornix_c.h"

struct HookState {
  long calls = 0;       // allocation calls so far
  long failAt = -1;     // the call index that fails; -1 never
  long live = 0;        // blocks handed out and not freed
  bool deferFree = false;
  std::vector<void*> deferred;
  ~HookState() {
    for (void* p : deferred) std::free(p);
  }
};

inline bool hookShouldFail(HookState* s) { return s->failAt >= 0 && s->calls++ == s->failAt; }

inline void* hookMalloc(size_t n, void* u) {
  auto* s = static_cast<HookState*>(u);
  if (s->failAt >= 0 ? hookShouldFail(s) : (s->calls++, false)) return nullptr;
  void* p = std::malloc(n);
  if (p) s->live++;
  return p;
}
inline void* hookCalloc(size_t n, size_t sz, void* u) {
  auto* s = static_cast<HookState*>(u);
  if (s->failAt >= 0 ? hookShouldFail(s) : (s->calls++, false)) return nullptr;
  void* p = std::calloc(n, sz);
  if (p) s->live++;
  return p;
}
inline void* hookRealloc(void* p, size_t n, void* u) {
  auto* s = static_cast<HookState*>(u);
  if (s->failAt >= 0 ? hookShouldFail(s) : (s->calls++, false)) return nullptr;
  if (!p) {
    void* q = std::malloc(n);
    if (q) s->live++;
    return q;
  }
  return std::realloc(p, n);
}
inline void hookFree(void* p, void* u) {
  auto* s = static_cast<HookState*>(u);
  if (!p) return;
  s->live--;
  if (s->deferFree)
    s->deferred.push_back(p);
  else
    std::free(p);
}

inline int loadWithHooks(VRXenv** env, HookState* s, const char* log = nullptr) {
  return VRXloadenvsyscb(env, log, hookMalloc, hookCalloc, hookRealloc, hookFree, nullptr,
                         nullptr, s);
}

// Runs call with the allocation of index fail failing (-1: none; then *total gets the number
// of allocations the call made) and returns its result.
template <class Call>
int runFailingAt(HookState* s, long fail, long* total, Call call) {
  s->calls = 0;
  s->failAt = fail;
  const int rc = call();
  if (fail < 0) *total = s->calls;
  s->failAt = -1;
  return rc;
}
