// The environment's allocator: host hooks, or accounting against VRX_MEMLIMIT.
#include <cstdlib>
#include <cstring>

#include "env/env.h"

namespace vrx {

namespace {

constexpr size_t kHeader = 16;

VRXenv* accountingMaster(VRXenv* env) {
  VRXenv* m = env->master ? env->master : env;
  return m->memoryLock ? m : nullptr;
}

// Reserves `delta` bytes on the master; false when the limit would be passed.
bool reserve(VRXenv* m, int64_t delta) {
  if (delta > 0 && static_cast<double>(m->memoryInUse) + static_cast<double>(delta) >
                       m->memoryLimit)
    return false;
  std::lock_guard<std::mutex> lock(*m->memoryLock);
  m->memoryInUse += delta;
  if (m->memoryInUse > m->memoryPeak) m->memoryPeak = m->memoryInUse;
  return true;
}

void release(VRXenv* m, int64_t size) {
  std::lock_guard<std::mutex> lock(*m->memoryLock);
  m->memoryInUse -= size;
}

}  // namespace

void* envMalloc(VRXenv* env, size_t size) {
  if (size == 0) size = 1;
  if (env->hookMalloc) return env->hookMalloc(size, env->sysUserData);
  VRXenv* m = accountingMaster(env);
  if (!m) return std::malloc(size);
  if (size > SIZE_MAX - kHeader) return nullptr;
  if (!reserve(m, static_cast<int64_t>(size))) return nullptr;
  auto* raw = static_cast<unsigned char*>(std::malloc(size + kHeader));
  if (!raw) {
    release(m, static_cast<int64_t>(size));
    return nullptr;
  }
  std::memcpy(raw, &size, sizeof size);
  return raw + kHeader;
}

void* envCalloc(VRXenv* env, size_t count, size_t size) {
  if (count != 0 && size > SIZE_MAX / count) return nullptr;
  if (count == 0 || size == 0) count = size = 1;
  if (env->hookCalloc) return env->hookCalloc(count, size, env->sysUserData);
  VRXenv* m = accountingMaster(env);
  if (!m) return std::calloc(count, size);
  void* p = envMalloc(env, count * size);
  if (p) std::memset(p, 0, count * size);
  return p;
}

void* envRealloc(VRXenv* env, void* block, size_t size) {
  if (!block) return envMalloc(env, size);
  if (size == 0) size = 1;
  if (env->hookRealloc) return env->hookRealloc(block, size, env->sysUserData);
  VRXenv* m = accountingMaster(env);
  if (!m) return std::realloc(block, size);
  if (size > SIZE_MAX - kHeader) return nullptr;
  unsigned char* raw = static_cast<unsigned char*>(block) - kHeader;
  size_t old;
  std::memcpy(&old, raw, sizeof old);
  int64_t delta = static_cast<int64_t>(size) - static_cast<int64_t>(old);
  if (!reserve(m, delta)) return nullptr;
  auto* fresh = static_cast<unsigned char*>(std::realloc(raw, size + kHeader));
  if (!fresh) {
    release(m, delta);
    return nullptr;
  }
  std::memcpy(fresh, &size, sizeof size);
  return fresh + kHeader;
}

void envFree(VRXenv* env, void* block) {
  if (!block) return;
  if (env->hookFree) {
    env->hookFree(block, env->sysUserData);
    return;
  }
  VRXenv* m = accountingMaster(env);
  if (!m) {
    std::free(block);
    return;
  }
  unsigned char* raw = static_cast<unsigned char*>(block) - kHeader;
  size_t old;
  std::memcpy(&old, raw, sizeof old);
  release(m, static_cast<int64_t>(old));
  std::free(raw);
}

char* envStrdup(VRXenv* env, const char* text) {
  if (!text) return nullptr;
  size_t n = std::strlen(text) + 1;
  char* p = static_cast<char*>(envMalloc(env, n));
  if (p) std::memcpy(p, text, n);
  return p;
}

}  // namespace vrx
