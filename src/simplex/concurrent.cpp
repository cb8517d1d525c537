// Dual and primal simplex at once: two copies of the model, one on the caller's thread and
// one on a thread of its own; the first to reach a final status stops the other.
#include <atomic>
#include <new>
#include <thread>

#include "model/callback.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/result.h"
#include "simplex/lp.h"
#include "simplex/lpdriver.h"

namespace vrx {

namespace {

struct Instance {
  VRXmodel* copy = nullptr;
  volatile int stop = 0;  // the terminate flag of the primal copy
  int rc = 0;
  double endTime = 0;
  Clock clock{};
};

struct Shared {
  std::atomic<int> winner{-1};
  volatile int* dualStop = nullptr;  // the flag the dual copy polls: the caller's
  Instance inst[2];  // 0 dual on the caller's thread, 1 primal on its own
  int parentStopSet = 0;
};

bool finalStatus(int s) { return s >= VRX_OPTIMAL && s <= VRX_CUTOFF; }

// Runs one copy and, when it ends with a final status first, stops the other one.
void body(Shared* sh, int k) {
  Instance& in = sh->inst[k];
  in.clock = clockStart();
  try {
    in.rc = lpOptimize(in.copy, in.clock);
  } catch (...) {
    in.rc = VRX_ERROR_OUT_OF_MEMORY;
  }
  in.endTime = wallClock();
  int expected = -1;
  const bool won = in.rc == 0 && finalStatus(in.copy->status) &&
                   sh->winner.compare_exchange_strong(expected, k);
  if (k == 0) {
    // Whatever the dual's end (a result, the caller's terminate, an error), the primal stops.
    sh->inst[1].stop = 1;
  } else if (won) {
    // The dual polls the caller's flag: raising it is the way to reach it.
    sh->parentStopSet = 1;
    *sh->dualStop = 1;
  }
}

void primalThread(void* arg) { body(static_cast<Shared*>(arg), 1); }

int makeCopy(VRXmodel* model, int method, volatile int* stopFlag, VRXmodel** out) {
  int err = modelCopy(model, out);
  if (err) return err;
  VRXenv* e = (*out)->env;
  e->par.Method = method;
  e->par.Threads = 1;
  e->par.OutputFlag = -1;  // silent, also towards a message callback
  e->par.VORN_PAR_SPXCONCURRENT = 0;
  e->terminateFlag = 0;
  e->terminateFlagRef = stopFlag;
  return 0;
}

void dropCopy(VRXmodel* copy) {
  if (!copy) return;
  VRXenv* e = copy->env;
  e->cbFunc = nullptr;
  e->cbData = nullptr;
  e->cbUserData = nullptr;
  VRXlpFreeOnModel(copy);
  modelDestroy(copy);
}

}  // namespace

int spxConcurrent(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  void* mem = envMalloc(env, sizeof(Shared));
  if (!mem) return VRX_ERROR_OUT_OF_MEMORY;
  Shared* sh = new (mem) Shared();
  sh->dualStop = env->terminateFlagRef ? env->terminateFlagRef : &env->terminateFlag;
  auto release = [&]() {
    dropCopy(sh->inst[0].copy);
    dropCopy(sh->inst[1].copy);
    sh->~Shared();
    envFree(env, mem);
  };
  int err = makeCopy(model, 1, sh->dualStop, &sh->inst[0].copy);
  if (!err) err = makeCopy(model, 0, &sh->inst[1].stop, &sh->inst[1].copy);
  if (err) {
    release();
    return err;
  }
  // The dual copy reports to the caller's callback on the caller's thread.
  VRXenv* e0 = sh->inst[0].copy->env;
  e0->cbFunc = env->cbFunc;
  e0->cbData = env->cbData;
  e0->cbUserData = env->cbUserData;

  // The primal's thread: the host's hook when one was given.
  void* handle = nullptr;
  std::thread* th = nullptr;
  if (env->threadCreate) {
    if (env->threadCreate(&handle, primalThread, sh, env->sysUserData) != 0) err = VRX_ERROR_OUT_OF_MEMORY;
  } else {
    void* tmem = envMalloc(env, sizeof(std::thread));
    try {
      if (tmem) th = new (tmem) std::thread(primalThread, sh);
    } catch (...) {
    }
    if (!th) {
      envFree(env, tmem);
      err = VRX_ERROR_OUT_OF_MEMORY;
    }
  }
  if (err) {
    release();
    return err;
  }
  body(sh, 0);
  if (th) {
    th->join();
    th->~thread();
    envFree(env, th);
  } else if (env->threadJoin) {
    env->threadJoin(handle, env->sysUserData);
  }
  const double joined = wallClock();
  if (sh->parentStopSet) *sh->dualStop = 0;

  int w = sh->winner.load();
  if (w < 0) w = (sh->inst[0].rc != 0 && sh->inst[1].rc == 0) ? 1 : 0;
  Instance& win = sh->inst[w];
  err = win.rc;
  if (!err && w == 1 && sh->inst[0].rc != 0 && sh->inst[0].rc != VRX_ERROR_OUT_OF_MEMORY &&
      !finalStatus(sh->inst[1].copy->status))
    err = sh->inst[0].rc;
  if (!err) {
    // The winner's result becomes the model's; the blocks share the master's allocator.
    clockCharge(clock, win.clock.work);
    model->status = win.copy->status;
    resultFree(env, model->result);
    model->result = win.copy->result;
    win.copy->result = nullptr;
    const double spin = joined - win.endTime;
    if (spin >= 0.005) log(env, "Concurrent spin time: %.2fs\n", spin);
    log(env, "\n");
    log(env, w == 0 ? "Solved with dual simplex\n" : "Solved with primal simplex\n");
    lpClosingLines(model, model->result, clockElapsed(clock));
  }
  release();
  return err;
}

}  // namespace vrx
