// VRXoptimize: the one door to the solvers, and its asynchronous form.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

#include "env/clock.h"
#include "env/locale.h"
#include "model/callback.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model/result.h"
#include "simplex/lpdriver.h"
#include "simplex/qpsd.h"

namespace vrx {

namespace {

const char* plural(int n, const char* one, const char* many) { return n == 1 ? one : many; }

void logStatistics(VRXenv* env, const VRXmodeldata* d) {
  log(env, "Optimize a model with %d rows, %d columns and %lu nonzeros\n", d->numConstrs,
      d->numVars, static_cast<unsigned long>(d->numNZs));
  if (d->numQNZs > 0)
    log(env, plural(d->numQNZs, "Model has 1 quadratic objective term\n",
                    "Model has %d quadratic objective terms\n"), d->numQNZs);
  if (d->numQConstrs > 0)
    log(env, plural(d->numQConstrs, "Model has 1 quadratic constraint\n",
                    "Model has %d quadratic constraints\n"), d->numQConstrs);
  if (d->numSOS > 0)
    log(env, plural(d->numSOS, "Model has 1 SOS constraint\n", "Model has %d SOS constraints\n"),
        d->numSOS);
  if (d->numPWLObjVars > 0)
    log(env, plural(d->numPWLObjVars, "Model has 1 piecewise-linear objective term\n",
                    "Model has %d piecewise-linear objective terms\n"), d->numPWLObjVars);
  if (d->numGenConstrs > 0)
    log(env, plural(d->numGenConstrs, "Model has 1 general constraint\n",
                    "Model has %d general constraints\n"), d->numGenConstrs);
  int semiCont = 0, semiInt = 0, ints = 0;
  for (int j = 0; j < d->numVars; ++j) {
    char t = d->vtype[j];
    if (t == 'S') ++semiCont;
    if (t == 'N') ++semiInt;
    if (t == 'I' || t == 'B') ++ints;
  }
  if (ints > 0)
    log(env, "Variable types: %d continuous, %d integer (%d binary)\n",
        d->numVars - ints - semiCont - semiInt, ints, d->numBinVars);
  if (semiCont + semiInt > 0)
    log(env, "Semi-Variable types: %d continuous, %d integer\n", semiCont, semiInt);
  double st[stCount][2];
  computeStatistics(d, st);
  log(env, "Coefficient statistics:\n");
  log(env, "  Matrix range     [%.0e, %.0e]\n", st[stCoeff][1], st[stCoeff][0]);
  if (d->numQConstrs > 0) {
    log(env, "  QMatrix range    [%.0e, %.0e]\n", st[stQCCoeff][1], st[stQCCoeff][0]);
    log(env, "  QLMatrix range   [%.0e, %.0e]\n", st[stQCLCoeff][1], st[stQCLCoeff][0]);
  }
  log(env, "  Objective range  [%.0e, %.0e]\n", st[stObjCoeff][1], st[stObjCoeff][0]);
  if (d->numQNZs > 0)
    log(env, "  QObjective range [%.0e, %.0e]\n", st[stQObjCoeff][1], st[stQObjCoeff][0]);
  log(env, "  Bounds range     [%.0e, %.0e]\n", st[stBound][1], st[stBound][0]);
  log(env, "  RHS range        [%.0e, %.0e]\n", st[stRHS][1], st[stRHS][0]);
  if (d->numQConstrs > 0)
    log(env, "  QRHS range       [%.0e, %.0e]\n", st[stQCRHS][1], st[stQCRHS][0]);
}

bool isMIP(const VRXmodeldata* d) {
  return d->numIntVars > 0 || d->numSOS > 0 || d->numGenConstrs > 0;
}

// The run of a solve, between the update and the publishing of results.
int run(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  model->status = VRX_LOADED;
  if (env->cbData) env->cbData->startTime = clock.start;
  CallbackClock frameClock(env, &clock);
  logStatistics(env, d);
  if (env->par.VORN_PAR_DUMP) {
    model->accessAllowed = 1;
    VRXwrite(model, "vornix.rew");
    model->accessAllowed = 0;
    VRXwriteparams(env, "vornix.prm");
  }
  if (model->objList && model->objList->count > 1)
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true,
                 "Models with several objectives cannot be solved by this build");
  if (isMIP(d))
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true,
                 "Mixed-integer models cannot be solved by this build");
  if (d->numQConstrs > 0)
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true,
                 "Models with quadratic constraints cannot be solved by this build");
  int method = env->par.Method;
  const bool qp = d->numQNZs > 0;
  if (qp && d->numPWLObjVars > 0)
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true,
                 "QP models with a piecewise-linear objective cannot be solved by this build");
  const bool qpConcurrent = qp && (method == 3 || method == 4);
  if (qpConcurrent) {
    log(env, "Warning: Concurrent optimizer not supported for QP models\n");
    log(env, "         Using dual simplex\n");
  }
  if (qp) {
    int rc = VRXqCheckPSD(model, clock);
    if (rc) return rc;
  }
  if (qpConcurrent) {
    // The method goes back to the caller's value after the run.
    env->par.Method = 1;
    int rc = lpOptimize(model, clock);
    env->par.Method = method;
    return rc;
  }
  if (method == 3 || method == 4 || method == 5) return concurrentLP(model, clock);
  return lpOptimize(model, clock);
}

// Turns the objective bounds of the run into the minimising sense; returns the old values.
struct SenseBounds {
  double cutoff, bestObj, bestBd;
};

SenseBounds turnBounds(VRXenv* env, int sense) {
  SenseBounds saved{env->par.Cutoff, env->par.BestObjStop, env->par.BestBdStop};
  if (sense < 0) {
    if (env->par.Cutoff < kInf) env->par.Cutoff = -env->par.Cutoff;
    if (env->par.BestObjStop > -kInf) env->par.BestObjStop = -env->par.BestObjStop;
    if (env->par.BestBdStop < kInf) env->par.BestBdStop = -env->par.BestBdStop;
  }
  return saved;
}

void writeResultFile(VRXmodel* model) {
  VRXenv* env = model->env;
  const char* name = env->par.ResultFile;
  if (!name || !name[0]) return;
  int rc;
  {
    ErrorFreeze freeze(env);
    rc = VRXwrite(model, name);
  }
  log(env, "\n");
  if (rc == 0)
    log(env, "Wrote requested result file '%s'\n", name);
  else
    log(env, "Warning: unable to write requested result file '%s'\n", name);
  log(env, "\n");
}

// Steps 3 to 13 of a solve: everything between the entry checks and the result file.
int optimizeInner(VRXmodel* model) {
  VRXenv* env = model->env;
  NeutralLocale locale(env->par.VORN_PAR_KEEPLOCALE == 0);
  env->terminateFlagRef = &env->terminateFlag;
  env->terminateFlag = 0;
  env->terminateLogged = 0;
  model->optimizing = 1;
  model->inSolve = 1;
  Clock clock = clockStart();
  int err = 0;
  const VRXmodeldata* d = model->data;
  double limit = (static_cast<double>(d->numConstrs) + d->numVars) * 10 + 1e7 +
                 (static_cast<double>(d->numQNZs) + static_cast<double>(d->numNZs) + d->numQCNZs) * 1000;
  if (model->updateWork > limit) {
    log(env, "\n");
    log(env, "Warning: excessive time spent in model updates.\n");
    log(env, "Consider calling update less frequently.\n");
    log(env, "\n");
  }
  model->updateWork = 0;
  err = modelUpdate(model);
  if (!err) {
    SenseBounds saved = turnBounds(env, model->data->modelSense);
    try {
      err = run(model, clock);
    } catch (const std::bad_alloc&) {
      err = VRX_ERROR_OUT_OF_MEMORY;
    }
    env->par.Cutoff = saved.cutoff;
    env->par.BestObjStop = saved.bestObj;
    env->par.BestBdStop = saved.bestBd;
  }
  model->runtime = clockElapsed(clock);
  model->runVTime = clock.work;
  model->optimizing = 0;
  model->inSolve = 0;
  if (err == VRX_ERROR_OUT_OF_MEMORY)
    raise(env, err, true, "Optimization exhausted available memory");
  return err;
}

// The body of an asynchronous run.
void asyncBody(VRXmodel* model) {
  __atomic_store_n(&model->asyncPending, 2, __ATOMIC_RELEASE);
  int rc = 0;
  try {
    rc = optimizeInner(model);
    if (!rc) writeResultFile(model);
  } catch (...) {
    rc = VRX_ERROR_OUT_OF_MEMORY;
  }
  asyncCacheStop(model);
  setError(model->env, rc);
  model->asyncResult = rc;
  model->optimizing = 0;
  model->inSolve = 0;
  __atomic_store_n(&model->asyncPending, 0, __ATOMIC_RELEASE);
}

void hostTrampoline(void* arg) { asyncBody(static_cast<VRXmodel*>(arg)); }

// The worker: the host's thread hook when one was given, otherwise our own thread.
int startWorker(VRXmodel* model) {
  VRXenv* env = model->env;
  if (env->threadCreate) {
    void* handle = nullptr;
    if (env->threadCreate(&handle, hostTrampoline, model, env->sysUserData) != 0)
      return VRX_ERROR_OUT_OF_MEMORY;
    model->asyncThread = handle;
    model->asyncHostThread = 1;
    return 0;
  }
  void* mem = envMalloc(env, sizeof(std::thread));
  if (!mem) return VRX_ERROR_OUT_OF_MEMORY;
  try {
    model->asyncThread = new (mem) std::thread(asyncBody, model);
  } catch (...) {
    envFree(env, mem);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  model->asyncHostThread = 0;
  return 0;
}

}  // namespace

void joinWorker(VRXmodel* model) {
  if (!model->asyncThread) {
    asyncCacheFree(model);
    return;
  }
  VRXenv* env = model->env;
  if (model->asyncHostThread) {
    if (env->threadJoin) env->threadJoin(model->asyncThread, env->sysUserData);
  } else {
    auto* t = static_cast<std::thread*>(model->asyncThread);
    t->join();
    t->~thread();
    envFree(env, t);
  }
  model->asyncThread = nullptr;
  asyncCacheFree(model);
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXoptimize(VRXmodel* model) {
  int err = VRXcheckmodel(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    int rc = optimizeInner(model);
    if (!rc) writeResultFile(model);
    return setError(env, rc);
  });
}

VRX_API int VRXoptimizeasync(VRXmodel* model) {
  int err = VRXcheckmodel(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&]() -> int {
    if (env->par.VORN_PAR_DUMP) {
      VRXwrite(model, "vornix.rew");
      VRXwriteparams(env, "vornix.prm");
    }
    env->terminateFlagRef = &env->terminateFlag;
    env->terminateFlag = 0;
    model->optimizing = 1;
    model->inSolve = 1;
    model->asyncResult = 0;
    joinWorker(model);  // a finished run that nobody synced
    int rc = asyncCacheStart(model);
    if (rc) {
      model->optimizing = 0;
      model->inSolve = 0;
      return setError(env, rc);
    }
    __atomic_store_n(&model->asyncPending, 1, __ATOMIC_RELEASE);
    rc = startWorker(model);
    if (rc) {
      asyncCacheFree(model);
      model->asyncPending = 0;
      model->optimizing = 0;
      model->inSolve = 0;
      return setError(env, rc);
    }
    while (__atomic_load_n(&model->asyncPending, __ATOMIC_ACQUIRE) == 1)
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    return 0;
  });
}

VRX_API int VRXsync(VRXmodel* model) {
  if (!model) return VRX_ERROR_NULL_ARGUMENT;
  if (model->magic != kModelMagic) return VRX_ERROR_INVALID_ARGUMENT;
  if (!model->asyncThread) return 0;
  for (int round = 0; __atomic_load_n(&model->asyncPending, __ATOMIC_ACQUIRE) != 0; ++round)
    std::this_thread::sleep_for(std::chrono::microseconds(round < 100 ? 1000 : 10000));
  joinWorker(model);
  return model->asyncResult;
}

}  // extern "C"
