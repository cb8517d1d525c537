// The error store of an environment and the handle checks.
#include <cstdio>
#include <cstring>

#include "env/env.h"
#include "model/model.h"

namespace vrx {

const char* errorTableText(int code) {
  switch (code) {
    case 10001: return "Out of memory";
    case 10002: return "NULL argument for required parameter";
    case 10003: return "Invalid argument value for required parameter";
    case 10004: return "Unknown attribute";
    case 10005: return "Requested data not available";
    case 10006: return "Index is out of range";
    case 10007: return "Unknown parameter requested";
    case 10008: return "Tried to set parameter to value outside its valid range";
    case 10011: return "Problem with callback";
    case 10012: return "Unable to read file";
    case 10013: return "Unable to write file";
    case 10014: return "Numerical error encountered";
    case 10016: return "Not available for MIP models";
    case 10017: return "Attempted to access a model while optimization is in progress";
    case 10019: return "Trouble reading or writing a MIP node file";
    case 10020: return "Q matrix is not positive semi-definite (PSD)";
    case 10021: return "Quadratic equality constraints";
    case 10022: return "Network error";
    case 10023: return "Job rejected by compute server";
    case 10024: return "Unsupported operation";
    case 10025: return "Coefficient or LU matrix has more than two billion nonzeros";
    case 10026: return "Invalid piecewise-linear objective";
    case 10027: return "Invalid change to UpdateMode parameter";
    case 10028: return "Cloud error";
    case 10029: return "Model modification error";
    case 10030: return "Compute Server worker error";
    case 10031: return "Unable to tune models of different type";
    default: return nullptr;
  }
}

static void storeText(VRXenv* env, const char* text) {
  size_t n = std::strlen(text);
  if (n > static_cast<size_t>(kMaxMessage)) n = kMaxMessage;
  std::memmove(env->errorText, text, n);
  env->errorText[n] = '\0';
}

int setError(VRXenv* env, int code) {
  if (!env || env->magic != kEnvMagic || !env->errorText) return code;
  env->errorCode = code;
  if (code == 0) {
    env->errorText[0] = '\0';
    return 0;
  }
  if (code == VRX_ERROR_OUT_OF_MEMORY) {
    storeText(env, "Out of memory");
    return code;
  }
  if (env->errorText[0] == '\0') {
    const char* t = errorTableText(code);
    if (t) {
      storeText(env, t);
    } else {
      char buf[64];
      std::snprintf(buf, sizeof buf, "Error number %d", code);
      storeText(env, buf);
    }
  }
  return code;
}

int raiseV(VRXenv* env, int code, bool force, const char* fmt, va_list ap) {
  if (!env || env->magic != kEnvMagic || !env->errorText) return code;
  env->errorCode = code;
  if ((force && !env->errorFrozen) || env->errorText[0] == '\0') {
    char buf[kErrorTextSize];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    storeText(env, buf);
  }
  return code;
}

int raise(VRXenv* env, int code, bool force, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  raiseV(env, code, force, fmt, ap);
  va_end(ap);
  return code;
}

int appendError(VRXenv* env, int code, const char* fmt, ...) {
  if (!env || env->magic != kEnvMagic || !env->errorText || env->errorFrozen) return code;
  char add[kErrorTextSize];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(add, sizeof add, fmt, ap);
  va_end(ap);
  char buf[kErrorTextSize * 2];
  std::snprintf(buf, sizeof buf, "%s%s", env->errorText, add);
  storeText(env, buf);
  env->errorCode = code;
  return code;
}

int checkEnv(VRXenv* env) {
  if (!env) return VRX_ERROR_NULL_ARGUMENT;
  if (env->magic != kEnvMagic) return VRX_ERROR_INVALID_ARGUMENT;
  if (!env->master || env->master->magic != kEnvMagic) {
    if (env->par.OutputFlag > 0)
      std::printf("Warning: invalid Vornix environment. Was it freed too early?\n");
    return VRX_ERROR_INVALID_ARGUMENT;
  }
  return 0;
}

int checkModelHandle(VRXmodel* model) {
  if (!model) return VRX_ERROR_NULL_ARGUMENT;
  if (model->magic != kModelMagic) return VRX_ERROR_INVALID_ARGUMENT;
  if (model->optimizing && !model->accessAllowed) return VRX_ERROR_OPTIMIZATION_IN_PROGRESS;
  return checkEnv(model->env);
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API const char* VRXgeterrormsg(VRXenv* env) {
  if (!env || env->magic != kEnvMagic || !env->errorText) return "";
  return env->errorText;
}

VRX_API const char* VRXgetmerrormsg(VRXmodel* model) {
  if (!model || model->magic != kModelMagic) return "";
  return VRXgeterrormsg(model->env);
}

VRX_API int VRXcheckmodel(VRXmodel* model) {
  int err = checkModelHandle(model);
  if (err) return err;
  VRXenv* env = model->env;
  if (!env->errorFrozen) {
    env->errorCode = 0;
    if (env->errorText) env->errorText[0] = '\0';
  }
  return 0;
}

VRX_API int VRXvsnprintf(char* buf, size_t size, const char* fmt, va_list ap) {
  if (!buf || size == 0) return 0;
  int n = std::vsnprintf(buf, size, fmt ? fmt : "", ap);
  if (n < 0) buf[0] = '\0';
  return n;
}

VRX_API int VRXsnprintf(char* buf, size_t size, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int n = VRXvsnprintf(buf, size, fmt, ap);
  va_end(ap);
  return n;
}

}  // extern "C"
