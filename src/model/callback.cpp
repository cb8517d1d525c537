// The callback frame and the calls a callback may make.
#include "model/callback.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "model/model.h"
#include "model/modeldata.h"

namespace vrx {

namespace {

bool stopRequested(VRXenv* env) { return env->terminateFlagRef && *env->terminateFlagRef; }

// Type (1 int, 2 double, 3 string) and size (0 scalar, 1 array of NumVars) of a 'what'.
bool whatInfo(int what, int* type, int* size, int* where) {
  *size = 0;
  if (what >= 1000 && what <= 1004) { *type = 1; *where = 1; return true; }
  if (what >= 2000 && what <= 2004) { *type = what == 2004 ? 1 : 2; *where = 2; return true; }
  if (what >= 3000 && what <= 3014) { *type = (what == 3003 || what == 3004) ? 1 : 2; *where = 3; return true; }
  if (what >= 4001 && what <= 4009) {
    *type = (what == 4006 || what == 4008) ? 1 : 2;
    *size = what == 4001 ? 1 : 0;
    *where = 4;
    return true;
  }
  if (what >= 5001 && what <= 5008) {
    *type = (what == 5001 || what == 5006 || what == 5007) ? 1 : 2;
    *size = what == 5002 ? 1 : 0;
    *where = 5;
    return true;
  }
  if (what == 6001) { *type = 3; *where = 6; return true; }
  if (what == 6002) { *type = 2; *where = -1; return true; }
  if (what >= 7001 && what <= 7006) { *type = what == 7001 ? 1 : 2; *where = 7; return true; }
  if (what >= 8001 && what <= 8003) {
    *type = what == 8003 ? 2 : 1;
    *size = what == 8003 ? 1 : 0;
    *where = 8;
    return true;
  }
  return false;
}

int copyArray(const VRXcbdata* cb, const double* src, void* result) {
  if (!src) return VRX_ERROR_DATA_NOT_AVAILABLE;
  std::memcpy(result, src, sizeof(double) * static_cast<size_t>(cb->numVars));
  return 0;
}

int readWhat(const VRXcbdata* cb, int what, void* result) {
  const VRXcbprogress* p = cb->progress;
  auto* d = static_cast<double*>(result);
  auto* i = static_cast<int*>(result);
  if (what == 6002) {
    *d = wallClock() - cb->startTime;
    return 0;
  }
  if (what == 6001) {
    *static_cast<const char**>(result) = cb->message;
    return 0;
  }
  if (!p) return VRX_ERROR_DATA_NOT_AVAILABLE;
  switch (what) {
    case 1000: *i = p->colsRemoved; return 0;
    case 1001: *i = p->rowsRemoved; return 0;
    case 1002: *i = p->sensesChanged; return 0;
    case 1003: *i = p->boundsChanged; return 0;
    case 1004: *i = p->coefsChanged; return 0;
    case 2000: *d = p->spxIter; return 0;
    case 2001: *d = p->spxObj; return 0;
    case 2002: *d = p->spxPrimInf; return 0;
    case 2003: *d = p->spxDualInf; return 0;
    case 2004: *i = p->spxPerturbed; return 0;
    case 3000: case 4003: case 5003: *d = p->mipObjBest; return 0;
    case 3001: case 4004: case 5004: *d = p->mipObjBound; return 0;
    case 3002: case 4005: case 5005: *d = p->mipNodes; return 0;
    case 3003: case 4006: case 5006: *i = p->mipSolCount; return 0;
    case 3004: *i = p->mipCutCount; return 0;
    case 3005: *d = p->mipNodesLeft; return 0;
    case 3006: *d = p->mipIter; return 0;
    case 3007: case 4007: case 5008: *d = p->mipObjBoundC; return 0;
    case 3008: case 4009: *d = p->mipOpen; return 0;
    case 4001: return copyArray(cb, cb->solX, result);
    case 4002: *d = cb->solObj; return 0;
    case 4008: *i = p->mipSolOrigin; return 0;
    case 5001: *i = p->nodeStatus; return 0;
    case 5002: return copyArray(cb, p->nodeRelX, result);
    case 5007: *i = p->nodeSolCount; return 0;
    case 7001: *i = p->barIter; return 0;
    case 7002: *d = p->barPrimObj; return 0;
    case 7003: *d = p->barDualObj; return 0;
    case 7004: *d = p->barPrimInf; return 0;
    case 7005: *d = p->barDualInf; return 0;
    case 7006: *d = p->barCompl; return 0;
    case 8001: *i = p->objCount; return 0;
    case 8002: *i = p->objSolCount; return 0;
    case 8003: return copyArray(cb, p->objSol, result);
    default:
      if (what >= 3009 && what <= 3014) {
        *d = p->mipCounters[what - 3009];
        return 0;
      }
      return VRX_ERROR_CALLBACK;
  }
}

}  // namespace

int callbackMessage(VRXenv* env, const char* text) {
  VRXcbdata* cb = env->cbData;
  if (!env->cbFunc) return 0;
  if (!callbackBlockValid(cb)) return env->cbFunc(nullptr, nullptr, VRX_CB_MESSAGE, env->cbUserData);
  std::snprintf(cb->message, sizeof cb->message, "%s", text);
  int savedWhere = cb->where;
  cb->where = VRX_CB_MESSAGE;
  int rc = env->cbFunc(cb->model, cb, VRX_CB_MESSAGE, cb->usrData);
  cb->where = savedWhere;
  return rc;
}

void callbackBlockInit(VRXcbdata* b, VRXmodel* model) {
  std::memset(b, 0, sizeof *b);
  b->magic = kCbMagic;
  b->model = model;
  b->startTime = b->lastPoll = wallClock();
  b->phase = 1;
  b->lastObjective = -1e100;
  b->lastBest = b->lastNode = -1;
}

int callbackFrame(VRXenv* env, int where, const VRXcbprogress* progress) {
  VRXcbdata* cb = env->cbData;
  if (!env->cbFunc || !callbackBlockValid(cb)) return 0;
  // Every poll, not only those the time rule lets through, so where it acts repeats.
  if (cb->workPoll && cb->clock) cb->workPoll(cb->workCtx, cb->clock->work);
  bool stop = stopRequested(env);
  double now = wallClock();
  if (where == VRX_CB_POLLING && !stop && now - cb->lastPoll < 0.001) return 0;
  if (stop && where != VRX_CB_MIPSOL && where != VRX_CB_MESSAGE) return 0;
  // Nested solves reenter: keep the outer state and put it back after.
  int savedWhere = cb->where;
  const VRXcbprogress* savedProgress = cb->progress;
  cb->where = where;
  cb->progress = progress;
  cb->cutCount = 0;
  cb->lastPoll = now;
  cb->numVars = cb->model->data ? cb->model->data->numVars : 0;
  int rc = env->cbFunc(cb->model, cb, where, cb->usrData);
  cb->where = savedWhere;
  cb->progress = savedProgress;
  return rc;
}

namespace {

// The private step of an asynchronous run: the user's callback first, then the progress of
// the solve into the cache.
int asyncStep(VRXmodel* model, void* cbdata, int where, void* usrdata) {
  auto* cb = static_cast<VRXcbdata*>(cbdata);
  if (!model || !callbackBlockValid(cb)) return 0;
  auto* cache = static_cast<VRXasyncCache*>(model->asyncCache);
  if (!cache) return 0;
  int rc = cache->userFunc ? cache->userFunc(model, cbdata, where, usrdata) : 0;
  if (cb->clock) cache->runVTime.store(cb->clock->work, std::memory_order_relaxed);
  const VRXcbprogress* p = cb->progress;
  if (!p) return rc;
  const double sense = model->data ? model->data->modelSense : 1;
  switch (where) {
    case VRX_CB_POLLING:
    case VRX_CB_SIMPLEX:
      if (p->spxIter > cache->iterCount.load(std::memory_order_relaxed))
        cache->iterCount.store(p->spxIter, std::memory_order_relaxed);
      // The objective of a log line, in the model's sense already.
      if (where == VRX_CB_SIMPLEX) cache->objVal.store(p->spxObj, std::memory_order_relaxed);
      break;
    case VRX_CB_MIP:
      cache->objVal.store(sense * p->mipObjBest, std::memory_order_relaxed);
      cache->objBound.store(sense * p->mipObjBound, std::memory_order_relaxed);
      cache->objBoundC.store(sense * p->mipObjBoundC, std::memory_order_relaxed);
      cache->nodeCount.store(p->mipNodes, std::memory_order_relaxed);
      cache->openNodeCount.store(p->mipNodesLeft, std::memory_order_relaxed);
      cache->iterCount.store(p->mipIter, std::memory_order_relaxed);
      cache->tOpen.store(p->mipOpen, std::memory_order_relaxed);
      break;
    case VRX_CB_BARRIER:
      cache->barIterCount.store(p->barIter, std::memory_order_relaxed);
      break;
    default:
      break;
  }
  return rc;
}

}  // namespace

int asyncCacheStart(VRXmodel* model) {
  VRXenv* env = model->env;
  asyncCacheFree(model);
  void* mem = envMalloc(env, sizeof(VRXasyncCache));
  if (!mem) return VRX_ERROR_OUT_OF_MEMORY;
  auto* cache = new (mem) VRXasyncCache();
  if (!model->cbState) {
    model->cbState = static_cast<VRXcbdata*>(envCalloc(env, 1, sizeof(VRXcbdata)));
    if (!model->cbState) {
      cache->~VRXasyncCache();
      envFree(env, mem);
      return VRX_ERROR_OUT_OF_MEMORY;
    }
    callbackBlockInit(model->cbState, model);
    cache->madeBlock = 1;
  }
  if (!env->cbData) env->cbData = model->cbState;
  cache->userFunc = env->cbFunc;
  env->cbFunc = asyncStep;
  model->asyncCache = cache;
  return 0;
}

void asyncCacheStop(VRXmodel* model) {
  auto* cache = static_cast<VRXasyncCache*>(model->asyncCache);
  if (!cache || model->env->cbFunc != asyncStep) return;
  model->env->cbFunc = cache->userFunc;
  if (!cache->userFunc && cache->madeBlock && model->env->cbData == model->cbState) model->env->cbData = nullptr;
}

void asyncCacheFree(VRXmodel* model) {
  auto* cache = static_cast<VRXasyncCache*>(model->asyncCache);
  if (!cache) return;
  asyncCacheStop(model);
  cache->~VRXasyncCache();
  envFree(model->env, cache);
  model->asyncCache = nullptr;
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXsetcallbackfunc(VRXmodel* model, VRXcallback cb, void* usrdata) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    if (!model->cbState) {
      model->cbState = static_cast<VRXcbdata*>(envCalloc(env, 1, sizeof(VRXcbdata)));
      if (!model->cbState) {
        raise(env, VRX_ERROR_OUT_OF_MEMORY, false, "Unable to set callback");
        return setError(env, VRX_ERROR_OUT_OF_MEMORY);
      }
    }
    VRXcbdata* b = model->cbState;
    callbackBlockInit(b, model);
    b->usrData = usrdata;
    b->cbFunction = cb;
    env->cbFunc = cb;
    env->cbData = b;
    env->cbUserData = usrdata;
    return setError(env, 0);
  });
}

VRX_API int VRXgetcallbackfunc(VRXmodel* model, VRXcallback* cbP) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  if (!cbP) {
    raise(env, VRX_ERROR_NULL_ARGUMENT, false, "Unable to query callback function");
    return setError(env, VRX_ERROR_NULL_ARGUMENT);
  }
  *cbP = env->cbFunc;
  return setError(env, 0);
}

VRX_API int VRXsetlogcallbackfunc(VRXmodel* model, VRXlogcallback cb) {
  int err = modelEnter(model);
  if (err) return err;
  model->env->logCallback = cb;
  return setError(model->env, 0);
}

VRX_API int VRXgetcbwhatinfo(int what, int* typeP, int* sizeP) {
  int type = 0, size = 0, where = 0;
  if (!whatInfo(what, &type, &size, &where)) return VRX_ERROR_CALLBACK;
  if (typeP) *typeP = type;
  if (sizeP) *sizeP = size;
  return 0;
}

VRX_API int VRXcbget(void* cbdata, int where, int what, void* resultP) {
  (void)where;  // the block's own 'where' decides
  auto* cb = static_cast<VRXcbdata*>(cbdata);
  if (!callbackBlockValid(cb)) return VRX_ERROR_CALLBACK;
  VRXenv* env = cb->model->env;
  env->errorCode = 0;
  if (env->errorText) env->errorText[0] = '\0';
  if (!resultP) return setError(env, VRX_ERROR_NULL_ARGUMENT);
  int type = 0, size = 0, home = 0;
  if (!whatInfo(what, &type, &size, &home)) return setError(env, VRX_ERROR_CALLBACK);
  if (home != -1 && home != cb->where) return setError(env, VRX_ERROR_CALLBACK);
  return setError(env, readWhat(cb, what, resultP));
}

VRX_API int VRXcbsetparam(void* cbdata, const char* paramname, const char* newvalue) {
  auto* cb = static_cast<VRXcbdata*>(cbdata);
  if (!callbackBlockValid(cb)) return VRX_ERROR_CALLBACK;
  VRXenv* env = cb->model->env;
  if (!paramname || !newvalue) return setError(env, VRX_ERROR_NULL_ARGUMENT);
  double v = 0;
  if (std::sscanf(newvalue, "%le", &v) != 1) return setError(env, VRX_ERROR_CALLBACK);
  char key[kNameKeyMax + 1];
  normaliseName(paramname, key);
  if (std::strcmp(key, "cutoff") == 0) {
    double s = cb->model->data ? cb->model->data->modelSense : 1;
    double mine = v * s;
    // Only ever tighter; the stored value is in the minimising sense during a run.
    if (mine < env->par.Cutoff) env->par.Cutoff = mine;
    return setError(env, 0);
  }
  if (std::strcmp(key, "vornparvtimelimit") == 0) {
    env->par.VORN_PAR_VTIMELIMIT = v;
    return setError(env, 0);
  }
  if (std::strcmp(key, "timelimit") == 0) {
    env->par.TimeLimit = v;
    return setError(env, 0);
  }
  return setError(env, VRX_ERROR_CALLBACK);
}

VRX_API int VRXcbsolution(void* cbdata, const double* solution, double* objvalP) {
  if (objvalP) *objvalP = 1e100;
  auto* cb = static_cast<VRXcbdata*>(cbdata);
  (void)solution;
  if (!callbackBlockValid(cb) || cb->where != VRX_CB_MIPNODE) return VRX_ERROR_CALLBACK;
  // Candidates go to the MIP search, which this build does not run.
  return setError(cb->model->env, VRX_ERROR_CALLBACK);
}

static int constraintFromCallback(void* cbdata, int len, const int* ind, bool lazy) {
  auto* cb = static_cast<VRXcbdata*>(cbdata);
  if (!callbackBlockValid(cb)) return VRX_ERROR_CALLBACK;
  VRXenv* env = cb->model->env;
  cb->cutCount++;
  int n = cb->model->data ? cb->model->data->numVars : 0;
  for (int k = 0; k < len; ++k)
    if (!ind || ind[k] < 0 || ind[k] >= n)
      return setError(env, raise(env, VRX_ERROR_CALLBACK, true, "Unknown variable"));
  if (!lazy && cb->where != VRX_CB_MIPNODE)
    return setError(env, raise(env, VRX_ERROR_CALLBACK, true,
                               "User cuts only allowed from MIPNODE callback"));
  if (lazy && cb->where != VRX_CB_MIPNODE && cb->where != VRX_CB_MIPSOL)
    return setError(env, raise(env, VRX_ERROR_CALLBACK, true,
                               "Lazy constraints only allowed from MIPNODE or MIPSOL callback"));
  if (lazy && env->par.LazyConstraints != 1)
    return setError(env, raise(env, VRX_ERROR_CALLBACK, true,
                               "Must set LazyConstraints parameter to use lazy constraints"));
  // Node cut pools belong to the MIP search, which this build does not run.
  return setError(env, VRX_ERROR_CALLBACK);
}

VRX_API int VRXcbcut(void* cbdata, int cutlen, const int* cutind, const double* cutval,
                     char cutsense, double cutrhs) {
  (void)cutval;
  (void)cutsense;
  (void)cutrhs;
  return constraintFromCallback(cbdata, cutlen, cutind, false);
}

VRX_API int VRXcblazy(void* cbdata, int lazylen, const int* lazyind, const double* lazyval,
                      char lazysense, double lazyrhs) {
  (void)lazyval;
  (void)lazysense;
  (void)lazyrhs;
  return constraintFromCallback(cbdata, lazylen, lazyind, true);
}

VRX_API int VRXcbstoponemultiobj(VRXmodel* model, void* cbdata, int objnum) {
  (void)objnum;
  if (!model || model->magic != kModelMagic) return VRX_ERROR_CALLBACK;
  auto* cb = static_cast<VRXcbdata*>(cbdata);
  if (cb && (cb->magic != kCbMagic || cb->model != model))
    return setError(model->env,
                    raise(model->env, VRX_ERROR_CALLBACK, true, "Model doesn't match cbdata"));
  // Without a multi-objective solve in progress there is nothing to stop.
  return 0;
}

}  // extern "C"
