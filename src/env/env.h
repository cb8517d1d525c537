// The environment record and the helpers every subsystem uses on it.
#pragma once

#include "vornix_c.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>

struct VRXcbdata;

namespace vrx {

constexpr uint32_t kEnvMagic = 0x129E2D82u;
constexpr uint32_t kModelMagic = 0x231D8A78u;
constexpr int kErrorTextSize = 513;
constexpr int kMaxMessage = 512;
constexpr double kInf = 1e100;
constexpr int kMaxInt = 2000000000;

struct NameIndex;

// One run-time row of the parameter table.
struct ParamRow {
  const char* name;
  int type;  // 1 int, 2 double, 3 string, -1 for the end markers
  double minimum;
  double maximum;
  double defaultValue;
  const char* defaultString;
  int transient;
  int storage;  // byte offset + 1 into ParamStore, 0 when not stored
};

struct ParamTable {
  ParamRow* rows;
  int count;        // all rows, hidden ones included, without the markers
  int publicCount;  // rows ahead of the EndPublic marker
  NameIndex* index;
};

// One plain field per parameter row, so solvers read values directly.
struct ParamStore {
#define VRXP_INT(n, mn, mx, d) int n;
#define VRXP_DBL(n, mn, mx, d) double n;
#define VRXP_STR(n, d) char* n;
#define VRXP_ENDPUBLIC
#include "params.def"
#undef VRXP_INT
#undef VRXP_DBL
#undef VRXP_STR
#undef VRXP_ENDPUBLIC
};

}  // namespace vrx

// The environment. Copies are made byte for byte, so every field is plain data.
struct VRXenv {
  uint32_t magic;
  int serverCount;
  int recordingOn;
  FILE* recordStream;
  int terminateLogged;
  void* sharedFields;
  char* computeServer;
  char* computeRouter;
  int csPriority;
  double csQueueTimeout;
  int serverTimeout;
  int csIdleTimeout;
  char* serverPassword;
  char* serverGroup;
  int tlsInsecure;
  int coreCount;
  int physicalCoreCount;
  int* coreMap;
  std::mutex* workLock;
  std::mutex* memoryLock;
  double memoryLimit;
  int64_t memoryInUse;
  int64_t memoryPeak;
  volatile int terminateFlag;
  volatile int* terminateFlagRef;
  int apiType;
  uint32_t versionCode;
  VRXenv* master;
  int copyCount;
  int paramChangeWarned;
  char* errorText;
  int errorCode;
  int errorFrozen;
  vrx::ParamTable* paramTable;
  int attrCount;
  void* attrIndex;
  vrx::ParamStore par;
  int ownsTables;
  int started;
  int cloudClient;  // started as a client of the hosted pool
  FILE* logFile;
  char* logFileName;
  VRXcallback cbFunc;
  VRXcbdata* cbData;
  void* cbUserData;
  VRXlogcallback logCallback;
  VRXmallocfn hookMalloc;
  VRXcallocfn hookCalloc;
  VRXreallocfn hookRealloc;
  VRXfreefn hookFree;
  VRXthreadcreatefn threadCreate;
  VRXthreadjoinfn threadJoin;
  void* sysUserData;
};

namespace vrx {

// ---- allocator: every block of environment and model data comes from here ----
void* envMalloc(VRXenv* env, size_t size);
void* envCalloc(VRXenv* env, size_t count, size_t size);
void* envRealloc(VRXenv* env, void* block, size_t size);
void envFree(VRXenv* env, void* block);
char* envStrdup(VRXenv* env, const char* text);  // null for a null text
// Frees every block given, in order; null blocks are skipped.
template <class... P>
void envFreeAll(VRXenv* env, P*... blocks) {
  (envFree(env, static_cast<void*>(blocks)), ...);
}

// Typed helpers; they return null on failure like the C forms.
template <class T>
T* envAllocArray(VRXenv* env, size_t count) {
  return static_cast<T*>(envMalloc(env, count * sizeof(T)));
}
template <class T>
T* envCallocArray(VRXenv* env, size_t count) {
  return static_cast<T*>(envCalloc(env, count, sizeof(T)));
}

// ---- error store ----
// Closes a call: 0 clears the text; others fill an empty text from the table.
int setError(VRXenv* env, int code);
// Raises a message; with force it replaces the standing text unless frozen.
int raise(VRXenv* env, int code, bool force, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));
int raiseV(VRXenv* env, int code, bool force, const char* fmt, va_list ap);
// Appends to the standing text and re-stores the code, unless frozen.
int appendError(VRXenv* env, int code, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
const char* errorTableText(int code);

// ---- handle checks ----
int checkEnv(VRXenv* env);
int checkModelHandle(VRXmodel* model);

// ---- environment life ----
VRXenv* envCopy(VRXenv* parent, bool reopenLog, int* errorOut);
void envFreeRecord(VRXenv* env);
const char* apiTypeName(int apiType);  // null when the code names no binding

// ---- parameters ----
// Normal form of parameter and attribute names: leading underscores stay,
// later ones go, case folds; at most kNameKeyMax characters (out holds one more).
constexpr int kNameKeyMax = 512;
void normaliseName(const char* name, char* out);
int paramsBuild(VRXenv* env);
void paramsFree(VRXenv* env);
int paramsDuplicateStrings(VRXenv* dst);  // after a byte copy: own every string
void paramsFreeStrings(VRXenv* env);
int readParamLines(VRXenv* env, const char* filename, bool isDefaults);
void threadCountWarning(VRXenv* env, int threads);
// The index of attribute names, built once per master and shared by copies.
int attrIndexBuild(VRXenv* env);
void attrIndexFree(VRXenv* env);

// ---- logging ----
void log(VRXenv* env, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void logV(VRXenv* env, const char* fmt, va_list ap);
int openLogFile(VRXenv* env, const char* name, bool banner);
double wallClock();

// ---- platform ----
int detectCores();
int detectPhysicalCores();
bool cpuHasSse2();

// Runs the body of an exported call; no exception crosses the boundary.
template <class F>
int guarded(VRXenv* env, F&& body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return env ? setError(env, VRX_ERROR_OUT_OF_MEMORY) : VRX_ERROR_OUT_OF_MEMORY;
  } catch (...) {
    return env ? setError(env, VRX_ERROR_INVALID_ARGUMENT) : VRX_ERROR_INVALID_ARGUMENT;
  }
}

// Freezes the error text while a composite operation runs.
struct ErrorFreeze {
  VRXenv* env;
  int old;
  explicit ErrorFreeze(VRXenv* e) : env(e), old(e->errorFrozen) { e->errorFrozen = 1; }
  ~ErrorFreeze() { env->errorFrozen = old; }
};

}  // namespace vrx
