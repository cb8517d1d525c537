// Worker threads of the barrier: the host's thread hooks when given, else std::thread.
#include <new>
#include <thread>

#include "barrier/barwork.h"

namespace vrx {

namespace {

struct Job {
  void (*fn)(void*, int);
  void* arg;
  int worker;
};

void runJob(void* p) {
  auto* j = static_cast<Job*>(p);
  j->fn(j->arg, j->worker);
}

}  // namespace

int barRunWorkers(VRXenv* env, int workers, void (*fn)(void*, int), void* arg) {
  if (workers <= 1) {
    fn(arg, 0);
    return 0;
  }
  Scratch<Job> jobs(env, static_cast<size_t>(workers));
  Scratch<void*> handles(env, static_cast<size_t>(workers));
  if (!jobs.a || !handles.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int w = 1; w < workers; ++w) {
    jobs.a[w] = Job{fn, arg, w};
    handles.a[w] = nullptr;
    if (env->threadCreate) {
      if (env->threadCreate(&handles.a[w], runJob, &jobs.a[w], env->sysUserData) != 0) handles.a[w] = nullptr;
    } else {
      void* mem = envMalloc(env, sizeof(std::thread));
      std::thread* th = nullptr;
      try {
        if (mem) th = new (mem) std::thread(runJob, &jobs.a[w]);
      } catch (...) {
      }
      if (!th) envFree(env, mem);
      handles.a[w] = th;
    }
  }
  fn(arg, 0);
  // A worker that could not start leaves its share to the others; the caller
  // runs it here after the rest.
  for (int w = 1; w < workers; ++w) {
    if (!handles.a[w]) {
      fn(arg, w);
      continue;
    }
    if (env->threadCreate) {
      env->threadJoin(handles.a[w], env->sysUserData);
    } else {
      auto* th = static_cast<std::thread*>(handles.a[w]);
      th->join();
      th->~thread();
      envFree(env, th);
    }
  }
  return 0;
}

}  // namespace vrx
