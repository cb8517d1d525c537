// The one log routine, log files and the wall clock.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "env/env.h"
#include "model/callback.h"

namespace vrx {

double wallClock() {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

void logV(VRXenv* env, const char* fmt, va_list ap) {
  if (checkEnv(env)) return;
  int flag = env->par.OutputFlag;
  bool serverOk = env->master->serverCount >= 0;
  va_list ap2;
  if (flag > 0 && serverOk) {
    if (env->par.LogToConsole && env->apiType != 0) {
      va_copy(ap2, ap);
      std::vprintf(fmt, ap2);
      va_end(ap2);
      std::fflush(stdout);
    }
    if (env->logFile) {
      va_copy(ap2, ap);
      std::vfprintf(env->logFile, fmt, ap2);
      va_end(ap2);
      std::fflush(env->logFile);
    }
  }
  if (flag < 0) return;
  if (env->cbFunc && env->cbData) {
    char msg[kMaxMessage];
    va_copy(ap2, ap);
    std::vsnprintf(msg, sizeof msg, fmt, ap2);
    va_end(ap2);
    callbackMessage(env, msg);
  }
  if (flag > 0 && env->logCallback && (env->apiType != 0 || env->par.LogToConsole > 0)) {
    char msg[kMaxMessage];
    va_copy(ap2, ap);
    std::vsnprintf(msg, sizeof msg, fmt, ap2);
    va_end(ap2);
    env->logCallback(msg);
  }
}

void log(VRXenv* env, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  logV(env, fmt, ap);
  va_end(ap);
}

static void writeBanner(VRXenv* env, bool withBinding) {
  char when[128];
  std::time_t now = std::time(nullptr);
  std::tm tmv;
  localtime_r(&now, &tmv);
  std::strftime(when, sizeof when, "%c", &tmv);
  const char* binding = withBinding ? apiTypeName(env->apiType) : nullptr;
  if (binding)
    std::fprintf(env->logFile, "\nVornix %d.%d.%d (%s, %s) logging started %s\n\n",
                 VRX_VERSION_MAJOR, VRX_VERSION_MINOR, VRX_VERSION_TECHNICAL, VRXplatform(),
                 binding, when);
  else
    std::fprintf(env->logFile, "\nVornix %d.%d.%d (%s) logging started %s\n\n",
                 VRX_VERSION_MAJOR, VRX_VERSION_MINOR, VRX_VERSION_TECHNICAL, VRXplatform(), when);
  std::fflush(env->logFile);
}

int openLogFile(VRXenv* env, const char* name, bool banner) {
  if (checkEnv(env) || env->serverCount < 0) return 0;
  if (!name || !name[0]) {
    if (env->logFile) std::fclose(env->logFile);
    env->logFile = nullptr;
    envFree(env, env->logFileName);
    env->logFileName = nullptr;
    return 0;
  }
  char* copy = envStrdup(env, name);
  if (!copy) return VRX_ERROR_OUT_OF_MEMORY;
  FILE* f = std::fopen(name, "a");
  if (!f) {
    envFree(env, copy);
    std::printf("Warning: Failed to open log file '%s'\n", name);
    std::fflush(stdout);
    return raise(env, VRX_ERROR_FILE_WRITE, false, "%s", errorTableText(VRX_ERROR_FILE_WRITE));
  }
  if (env->logFile) std::fclose(env->logFile);
  env->logFile = f;
  envFree(env, env->logFileName);
  env->logFileName = copy;
  if (banner) writeBanner(env, true);
  return 0;
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXmsg(VRXenv* env, const char* message) {
  int err = checkEnv(env);
  if (err) return err;
  if (!message)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'message' argument supplied"));
  log(env, "%s", message);
  return 0;
}

VRX_API int VRXsetlogfile(VRXenv* env, FILE* logfile) {
  int err = checkEnv(env);
  if (err) return err;
  if (env->logFile && env->logFile != logfile) std::fclose(env->logFile);
  env->logFile = logfile;
  envFree(env, env->logFileName);
  env->logFileName = nullptr;
  if (logfile) writeBanner(env, false);
  return setError(env, 0);
}

VRX_API int VRXgetlogfile(VRXenv* env, FILE** logfileP) {
  int err = checkEnv(env);
  if (err) return err;
  if (!logfileP)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'logfileP' argument supplied"));
  *logfileP = env->logFile;
  return setError(env, 0);
}

VRX_API int VRXsetlogcallbackfuncenv(VRXenv* env, VRXlogcallback cb) {
  int err = checkEnv(env);
  if (err) return err;
  env->logCallback = cb;
  return setError(env, 0);
}

}  // extern "C"
