// Life cycle of the environment: start sequence, copies, free.
#include "env/env.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "model/model.h"

namespace vrx {

namespace {

// Blocks that exist before or apart from the accounting: the record and the locks.
void* rawCalloc(const VRXenv& hooks, size_t size) {
  if (hooks.hookCalloc) return hooks.hookCalloc(1, size, hooks.sysUserData);
  return std::calloc(1, size);
}

void rawFree(const VRXenv& hooks, void* p) {
  if (!p) return;
  if (hooks.hookFree)
    hooks.hookFree(p, hooks.sysUserData);
  else
    std::free(p);
}

std::mutex* newLock(const VRXenv& hooks) {
  void* mem = rawCalloc(hooks, sizeof(std::mutex));
  return mem ? new (mem) std::mutex() : nullptr;
}

void deleteLock(const VRXenv& hooks, std::mutex* m) {
  if (!m) return;
  m->~mutex();
  rawFree(hooks, m);
}

struct StartArgs {
  const char* logFileName = nullptr;
  int apiType = -1;
  int major = 0, minor = 0, tech = 0;
  const char* server = nullptr;
  const char* router = nullptr;
  const char* password = nullptr;
  const char* group = nullptr;
  int priority = 0;
  int idleTimeout = -1;
  const char* accessId = nullptr;
  const char* secretKey = nullptr;
  const char* pool = nullptr;
  VRXcallback cb = nullptr;
  void* usrData = nullptr;
  VRXlogcallback logCb = nullptr;
  VRXmallocfn hMalloc = nullptr;
  VRXcallocfn hCalloc = nullptr;
  VRXreallocfn hRealloc = nullptr;
  VRXfreefn hFree = nullptr;
  VRXthreadcreatefn hThreadCreate = nullptr;
  VRXthreadjoinfn hThreadJoin = nullptr;
  void* sysUserData = nullptr;
  bool client = false;
  bool cloud = false;
  int tlsInsecure = 0;
  double serverTimeout = -1.0;
  bool startNow = true;
};

int readEnvInt(const char* name, int lo, int hi, int* out) {
  const char* v = std::getenv(name);
  if (!v || !*v) return 0;
  char* end = nullptr;
  long x = std::strtol(v, &end, 10);
  while (end && (*end == ' ' || *end == '\t' || *end == '\n' || *end == '\r')) ++end;
  if (!end || *end != '\0' || x < lo || x > hi) return 0;
  *out = static_cast<int>(x);
  return 1;
}

// Sets a string parameter's field without the setter's side effects.
int setStringField(VRXenv* env, char** field, const char* value) {
  if (!value) return 0;
  char* copy = envStrdup(env, value);
  if (!copy) return VRX_ERROR_OUT_OF_MEMORY;
  envFree(env, *field);
  *field = copy;
  return 0;
}

int applyStartSettings(VRXenv* env, const StartArgs& a) {
  int err = 0;
  if (a.server && *a.server) {
    if ((err = setStringField(env, &env->par.ComputeServer, a.server))) return err;
    if ((err = setStringField(env, &env->computeServer, a.server))) return err;
  }
  if (a.router && *a.router) {
    if ((err = setStringField(env, &env->par.CSRouter, a.router))) return err;
    if ((err = setStringField(env, &env->computeRouter, a.router))) return err;
  }
  if (a.password && *a.password) {
    if ((err = setStringField(env, &env->par.ServerPassword, a.password))) return err;
    if ((err = setStringField(env, &env->serverPassword, a.password))) return err;
  }
  if (a.group && *a.group) {
    if ((err = setStringField(env, &env->par.CSGroup, a.group))) return err;
    if ((err = setStringField(env, &env->serverGroup, a.group))) return err;
  }
  if (a.accessId && *a.accessId)
    if ((err = setStringField(env, &env->par.CloudAccessID, a.accessId))) return err;
  if (a.secretKey && *a.secretKey)
    if ((err = setStringField(env, &env->par.CloudSecretKey, a.secretKey))) return err;
  if (a.pool && *a.pool)
    if ((err = setStringField(env, &env->par.CloudPool, a.pool))) return err;
  if (a.priority < -100 || a.priority > 100)
    return raise(env, VRX_ERROR_INVALID_ARGUMENT, true,
                 "Unable to set parameter CSPriority to value %d (%s is %.0f)", a.priority,
                 a.priority < -100 ? "minimum" : "maximum", a.priority < -100 ? -100.0 : 100.0);
  env->par.CSPriority = env->csPriority = a.priority;
  if (a.idleTimeout != -1) {
    if (a.idleTimeout < -1)
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, true,
                   "Unable to set parameter CSIdleTimeout to value %d (minimum is -1)",
                   a.idleTimeout);
    env->par.CSIdleTimeout = env->csIdleTimeout = a.idleTimeout;
  }
  if (a.client) {
    env->par.TLSInsecure = env->tlsInsecure = a.tlsInsecure ? 1 : 0;
    env->serverTimeout = 60;
    if (a.serverTimeout > 0) {
      double t = a.serverTimeout < 2e9 ? a.serverTimeout : 2e9;
      env->serverTimeout = t < 1 ? 1 : static_cast<int>(t);
    }
    env->par.ServerTimeout = env->serverTimeout;
  }
  env->logCallback = a.logCb;
  return 0;
}

void freeStrings(VRXenv* env) {
  envFree(env, env->computeServer);
  envFree(env, env->computeRouter);
  envFree(env, env->serverPassword);
  envFree(env, env->serverGroup);
  envFree(env, env->logFileName);
  env->computeServer = env->computeRouter = env->serverPassword = env->serverGroup = nullptr;
  env->logFileName = nullptr;
  paramsFreeStrings(env);
}

}  // namespace

const char* apiTypeName(int apiType) {
  switch (apiType) {
    case 0: return "Python";
    case 1: return "C++";
    case 2: return "Java";
    case 3: return ".NET";
    case 4: return "Matlab";
    case 5: return "R";
    case 6: return "vornix_cl";
    case 7: return "vrxtune";
    default: return nullptr;
  }
}

// Connects a client environment. The compute-server client is not part of this
// build yet, so every connection attempt reports that the server cannot be reached.
static int connectServer(VRXenv* env) {
  return raise(env, VRX_ERROR_NETWORK, true, "Unable to communicate with Compute Server");
}

static int finishStart(VRXenv* env) {
  env->started = 1;
  if (env->cloudClient)
    return raise(env, VRX_ERROR_CLOUD, true, "Unable to reach the Vornix Hosted Pool");
  if (env->par.ComputeServer && env->par.ComputeServer[0]) return connectServer(env);
  return 0;
}

void envFreeRecord(VRXenv* env) {
  if (!env) return;
  bool isMaster = env->master == env;
  if (env->recordStream && isMaster) {
    std::fclose(env->recordStream);
    env->recordStream = nullptr;
  }
  freeStrings(env);
  if (env->logFile) {
    std::fclose(env->logFile);
    env->logFile = nullptr;
  }
  envFree(env, env->coreMap);
  env->coreMap = nullptr;
  deleteLock(*env, env->workLock);
  env->workLock = nullptr;
  if (env->ownsTables) {
    attrIndexFree(env);
    paramsFree(env);
    envFree(env, env->errorText);
    env->errorText = nullptr;
  }
  if (isMaster) {
    // The record goes last, through a temporary that holds only the hooks.
    VRXenv hooks{};
    hooks.hookCalloc = env->hookCalloc;
    hooks.hookFree = env->hookFree;
    hooks.sysUserData = env->sysUserData;
    std::mutex* memLock = env->memoryLock;
    env->magic = 0;
    deleteLock(hooks, memLock);
    rawFree(hooks, env);
  } else {
    env->magic = 0;
    envFree(env, env);
  }
}

VRXenv* envCopy(VRXenv* parent, bool reopenLog, int* errorOut) {
  *errorOut = 0;
  auto* env = static_cast<VRXenv*>(envMalloc(parent, sizeof(VRXenv)));
  if (!env) {
    *errorOut = VRX_ERROR_OUT_OF_MEMORY;
    return nullptr;
  }
  std::memcpy(static_cast<void*>(env), parent, sizeof(VRXenv));
  env->serverCount = 0;
  env->recordingOn = 0;
  env->recordStream = nullptr;
  env->logFile = nullptr;
  env->computeServer = env->computeRouter = env->serverPassword = env->serverGroup = nullptr;
  env->logFileName = nullptr;
  env->cbFunc = nullptr;
  env->cbData = nullptr;
  env->cbUserData = nullptr;
  env->logCallback = nullptr;
  env->ownsTables = 0;
  env->copyCount = 0;
  env->coreMap = nullptr;
  env->workLock = nullptr;
  env->terminateLogged = 0;
  int err = paramsDuplicateStrings(env);
  if (!err) {
    env->computeServer = envStrdup(env, parent->computeServer);
    env->computeRouter = envStrdup(env, parent->computeRouter);
    env->serverPassword = envStrdup(env, parent->serverPassword);
    env->serverGroup = envStrdup(env, parent->serverGroup);
    if ((parent->computeServer && !env->computeServer) ||
        (parent->computeRouter && !env->computeRouter) ||
        (parent->serverPassword && !env->serverPassword) ||
        (parent->serverGroup && !env->serverGroup))
      err = VRX_ERROR_OUT_OF_MEMORY;
  }
  if (!err && parent->logFileName) {
    env->logFileName = envStrdup(env, parent->logFileName);
    if (!env->logFileName) err = VRX_ERROR_OUT_OF_MEMORY;
  }
  if (!err && parent->coreMap && parent->coreCount > 0) {
    env->coreMap = envAllocArray<int>(env, static_cast<size_t>(parent->coreCount));
    if (!env->coreMap)
      err = VRX_ERROR_OUT_OF_MEMORY;
    else
      for (int i = 0; i < parent->coreCount; ++i) env->coreMap[i] = -1;
  }
  if (!err) {
    env->workLock = newLock(*env);
    if (!env->workLock) err = VRX_ERROR_OUT_OF_MEMORY;
  }
  if (!err && reopenLog && parent->logFile && parent->logFileName) {
    env->logFile = std::fopen(parent->logFileName, "a");
  }
  if (err) {
    envFreeRecord(env);
    *errorOut = err;
    return nullptr;
  }
  parent->copyCount++;
  if (parent->master && parent->master != parent) parent->master->copyCount++;
  return env;
}

// The dense kernels of the factor must give the same result at every run: the
// BLAS library works on the calling thread only.
extern "C" void openblas_set_num_threads(int) __attribute__((weak));

// The start sequence of a master environment.
static int startEnv(VRXenv** envP, const StartArgs& a, bool emptyOnly) {
  if (!envP) return VRX_ERROR_NULL_ARGUMENT;
  *envP = nullptr;
  VRXenv hooks{};
  hooks.hookCalloc = a.hCalloc;
  hooks.hookFree = a.hFree;
  hooks.sysUserData = a.sysUserData;
  // 1. the record
  auto* env = static_cast<VRXenv*>(rawCalloc(hooks, sizeof(VRXenv)));
  if (!env) return VRX_ERROR_OUT_OF_MEMORY;
  env->ownsTables = 1;
  env->magic = kEnvMagic;
  env->terminateFlagRef = &env->terminateFlag;
  env->master = env;
  env->memoryLimit = kInf;
  env->par.OutputFlag = 1;
  env->csQueueTimeout = -1.0;
  env->csIdleTimeout = -1;
  env->paramChangeWarned = 1;
  env->hookMalloc = a.hMalloc;
  env->hookCalloc = a.hCalloc;
  env->hookRealloc = a.hRealloc;
  env->hookFree = a.hFree;
  env->threadCreate = a.hThreadCreate;
  env->threadJoin = a.hThreadJoin;
  env->sysUserData = a.sysUserData;
  env->apiType = a.apiType;
  env->versionCode = static_cast<uint32_t>(a.major * 1024 + a.minor * 32 + a.tech);
  env->cloudClient = a.cloud ? 1 : 0;
  int err = 0;
  bool reachedTables = false;
  // 2. memory limit
  if (const char* lim = std::getenv("VRX_MEMLIMIT")) {
    char* end = nullptr;
    double gb = std::strtod(lim, &end);
    if (end != lim && *end == '\0' && gb >= 0 && gb < 1e100) {
      env->memoryLock = newLock(hooks);
      if (!env->memoryLock) err = VRX_ERROR_OUT_OF_MEMORY;
      env->memoryLimit = 1e9 * gb;
    }
  }
  // 3. callback
  env->cbFunc = a.cb;
  env->cbUserData = a.usrData;
  // 4. error text
  if (!err) {
    env->errorText = static_cast<char*>(envCalloc(env, kErrorTextSize, 1));
    if (!env->errorText) err = VRX_ERROR_OUT_OF_MEMORY;
  }
  // 5. log file; the parameter table is not built yet, so OutputFlag is the start value
  if (!err && a.logFileName && a.logFileName[0]) err = openLogFile(env, a.logFileName, true);
  // 6. work lock
  if (!err) {
    env->workLock = newLock(*env);
    if (!env->workLock) err = VRX_ERROR_OUT_OF_MEMORY;
  }
  // 7. processor
  if (!err) {
    if (!cpuHasSse2()) {
      err = raise(env, 10009, true, "Processor does not support SSE2 instructions");
    } else {
      env->coreCount = detectCores();
      env->physicalCoreCount = detectPhysicalCores();
      readEnvInt("VRX_CORES", 1, 1024, &env->coreCount);
      readEnvInt("VRX_PHYSICALCORES", 1, 1024, &env->physicalCoreCount);
      env->coreMap = envAllocArray<int>(env, static_cast<size_t>(env->coreCount));
      if (!env->coreMap)
        err = VRX_ERROR_OUT_OF_MEMORY;
      else
        for (int i = 0; i < env->coreCount; ++i) env->coreMap[i] = -1;
    }
  }
  if (openblas_set_num_threads) openblas_set_num_threads(1);
  // 8. parameter table
  if (!err) {
    reachedTables = true;
    err = paramsBuild(env);
    if (!err) err = attrIndexBuild(env);
    if (!err) {
      if (a.cb) env->par.OutputFlag = 0;
      if (a.apiType == 4) env->par.OutputFlag = 1;
    }
  }
  // 9. settings from the arguments
  if (!err) err = applyStartSettings(env, a);
  // 11 before 10: defaults may name the server to connect to
  if (!err) {
    FILE* probe = std::fopen("vornix.env", "r");
    bool present = probe != nullptr;
    if (probe) std::fclose(probe);
    if (!present) {
      // also accept a compressed defaults file
      static const char* const kAlt[] = {"vornix.env.gz", "vornix.env.bz2"};
      for (const char* alt : kAlt) {
        FILE* f = std::fopen(alt, "r");
        if (f) {
          std::fclose(f);
          err = readParamLines(env, alt, true);
          break;
        }
      }
    } else {
      err = readParamLines(env, "vornix.env", true);
    }
  }
  if (!err && !emptyOnly) err = finishStart(env);
  if (err) {
    if (err == VRX_ERROR_OUT_OF_MEMORY) setError(env, err);
    if (reachedTables && env->paramTable) {
      setError(env, err);
      *envP = env;
      return err;
    }
    envFreeRecord(env);
    return err;
  }
  const char* binding = apiTypeName(a.apiType);
  if (binding && (a.major != 8 || a.minor != 1 || a.tech != 1))
    log(env, "Warning: Vornix version mismatch between %s %d.%d.%d and C library %d.%d.%d\n",
        binding, a.major, a.minor, a.tech, 8, 1, 1);
  *envP = env;
  return 0;
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXloadenv(VRXenv** envP, const char* logfilename) {
  StartArgs a;
  a.logFileName = logfilename;
  return guarded(nullptr, [&] { return startEnv(envP, a, false); });
}

VRX_API int VRXemptyenv(VRXenv** envP) {
  StartArgs a;
  return guarded(nullptr, [&] { return startEnv(envP, a, true); });
}

VRX_API int VRXemptyenvadv(VRXenv** envP, int apitype, int major, int minor, int tech) {
  StartArgs a;
  a.apiType = apitype;
  a.major = major;
  a.minor = minor;
  a.tech = tech;
  return guarded(nullptr, [&] { return startEnv(envP, a, true); });
}

VRX_API int VRXstartenv(VRXenv* env) {
  int err = checkEnv(env);
  if (err) return err;
  if (env->started) return 0;
  return setError(env, finishStart(env));
}

static int loadAdv(VRXenv** envP, const char* logfilename, int apitype, int major, int minor,
                   int tech, const char* server, const char* router, const char* password,
                   const char* group, int priority, int idletimeout, const char* accessid,
                   const char* secretkey, VRXcallback cb, void* usrdata, VRXlogcallback logcb) {
  StartArgs a;
  a.logFileName = logfilename;
  a.apiType = apitype;
  a.major = major;
  a.minor = minor;
  a.tech = tech;
  a.server = server;
  a.router = router;
  a.password = password;
  a.group = group;
  a.priority = priority;
  a.idleTimeout = idletimeout;
  a.accessId = accessid;
  a.secretKey = secretkey;
  a.cb = cb;
  a.usrData = usrdata;
  a.logCb = logcb;
  a.client = server && *server;
  a.cloud = !a.client && accessid && *accessid;
  return guarded(nullptr, [&] { return startEnv(envP, a, false); });
}

VRX_API int VRXloadenvadv(VRXenv** envP, const char* logfilename, int apitype, int major,
                          int minor, int tech, const char* server, const char* router,
                          const char* password, const char* group, int priority,
                          int idletimeout, const char* accessid, const char* secretkey,
                          VRXcallback cb, void* usrdata) {
  return loadAdv(envP, logfilename, apitype, major, minor, tech, server, router, password, group,
                 priority, idletimeout, accessid, secretkey, cb, usrdata, nullptr);
}

VRX_API int VRXloadenvadv2(VRXenv** envP, const char* logfilename, int apitype, int major,
                           int minor, int tech, const char* server, const char* router,
                           const char* password, const char* group, int priority,
                           int idletimeout, const char* accessid, const char* secretkey,
                           VRXcallback cb, void* usrdata, VRXlogcallback logcb) {
  return loadAdv(envP, logfilename, apitype, major, minor, tech, server, router, password, group,
                 priority, idletimeout, accessid, secretkey, cb, usrdata, logcb);
}

VRX_API int VRXloadenvsyscb(VRXenv** envP, const char* logfilename, VRXmallocfn malloccb,
                            VRXcallocfn calloccb, VRXreallocfn realloccb, VRXfreefn freecb,
                            VRXthreadcreatefn threadcreatecb, VRXthreadjoinfn threadjoincb,
                            void* syscbusrdata) {
  if (!envP) return VRX_ERROR_NULL_ARGUMENT;
  *envP = nullptr;
  // The memory hooks come as a set: a partial set would mix allocators.
  if (!malloccb || !calloccb || !realloccb || !freecb) return VRX_ERROR_NULL_ARGUMENT;
  StartArgs a;
  a.logFileName = logfilename;
  a.hMalloc = malloccb;
  a.hCalloc = calloccb;
  a.hRealloc = realloccb;
  a.hFree = freecb;
  a.hThreadCreate = threadcreatecb;
  a.hThreadJoin = threadjoincb;
  a.sysUserData = syscbusrdata;
  return guarded(nullptr, [&] { return startEnv(envP, a, false); });
}

static int clientEnv(VRXenv** envP, const char* logfilename, const char* computeserver,
                     const char* router, const char* password, const char* group,
                     int tls_insecure, int priority, double timeout, int apitype, int major,
                     int minor, int tech, VRXcallback cb, void* usrdata) {
  if (!envP) return VRX_ERROR_NULL_ARGUMENT;
  *envP = nullptr;
  StartArgs a;
  a.logFileName = logfilename;
  a.server = computeserver;
  a.router = router;
  a.password = password;
  a.group = group;
  a.tlsInsecure = tls_insecure;
  a.priority = priority;
  a.serverTimeout = timeout;
  a.apiType = apitype;
  a.major = major;
  a.minor = minor;
  a.tech = tech;
  a.cb = cb;
  a.usrData = usrdata;
  a.client = true;
  bool noServer = !computeserver || !*computeserver;
  return guarded(nullptr, [&] {
    int err = startEnv(envP, a, noServer);
    if (err || !noServer) return err;
    return setError(*envP, raise(*envP, 10009, true, "Must specify one or more Compute Servers"));
  });
}

VRX_API int VRXloadclientenv(VRXenv** envP, const char* logfilename, const char* computeserver,
                             const char* router, const char* password, const char* group,
                             int tls_insecure, int priority, double timeout) {
  return clientEnv(envP, logfilename, computeserver, router, password, group, tls_insecure,
                   priority, timeout, -1, 0, 0, 0, nullptr, nullptr);
}

VRX_API int VRXloadclientenvadv(VRXenv** envP, const char* logfilename,
                                const char* computeserver, const char* router,
                                const char* password, const char* group, int tls_insecure,
                                int priority, double timeout, int apitype, int major,
                                int minor, int tech, VRXcallback cb, void* usrdata) {
  return clientEnv(envP, logfilename, computeserver, router, password, group, tls_insecure,
                   priority, timeout, apitype, major, minor, tech, cb, usrdata);
}

static int cloudEnv(VRXenv** envP, const char* logfilename, const char* accessID,
                    const char* secretKey, const char* pool, int priority, int apitype,
                    int major, int minor, int tech, VRXcallback cb, void* usrdata) {
  if (!envP) return VRX_ERROR_NULL_ARGUMENT;
  *envP = nullptr;
  StartArgs a;
  a.logFileName = logfilename;
  a.accessId = accessID;
  a.secretKey = secretKey;
  a.pool = pool;
  a.priority = priority;
  a.apiType = apitype;
  a.major = major;
  a.minor = minor;
  a.tech = tech;
  a.cb = cb;
  a.usrData = usrdata;
  a.client = true;
  a.cloud = true;
  bool missing = !accessID || !*accessID || !secretKey || !*secretKey;
  return guarded(nullptr, [&] {
    int err = startEnv(envP, a, missing);
    if (err || !missing) return err;
    return setError(*envP, raise(*envP, VRX_ERROR_CLOUD, true,
                                 "Must specify both an access ID and a secret key"));
  });
}

VRX_API int VRXloadcloudenv(VRXenv** envP, const char* logfilename, const char* accessID,
                            const char* secretKey, const char* pool, int priority) {
  return cloudEnv(envP, logfilename, accessID, secretKey, pool, priority, -1, 0, 0, 0, nullptr,
                  nullptr);
}

VRX_API int VRXloadcloudenvadv(VRXenv** envP, const char* logfilename, const char* accessID,
                               const char* secretKey, const char* pool, int priority,
                               int apitype, int major, int minor, int tech, VRXcallback cb,
                               void* usrdata) {
  return cloudEnv(envP, logfilename, accessID, secretKey, pool, priority, apitype, major, minor,
                  tech, cb, usrdata);
}

VRX_API void VRXfreeenv(VRXenv* env) {
  if (!env || env->magic != kEnvMagic) return;
  try {
    envFreeRecord(env);
  } catch (...) {
  }
}

VRX_API void VRXversion(int* majorP, int* minorP, int* technicalP) {
  if (majorP) *majorP = VRX_VERSION_MAJOR;
  if (minorP) *minorP = VRX_VERSION_MINOR;
  if (technicalP) *technicalP = VRX_VERSION_TECHNICAL;
}

VRX_API const char* VRXplatform(void) { return VRX_PLATFORM_NAME; }

VRX_API const char* VRXgitrevision(void) { return VRX_GIT_REVISION; }

}  // extern "C"
