// The parameter table: lookup, typed get and set, text forms, parameter files.
#include <cctype>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "env/env.h"
#include "env/nameindex.h"
#include "io/stream.h"

namespace vrx {

namespace {

struct StaticRow {
  const char* name;
  int type;
  double minimum, maximum, defaultValue;
  const char* defaultString;
  size_t offset;  // in ParamStore; SIZE_MAX for the end marker
};

constexpr size_t kNoField = static_cast<size_t>(-1);

const StaticRow kRows[] = {
#define VRXP_INT(n, mn, mx, d) {#n, 1, mn, mx, d, nullptr, offsetof(ParamStore, n)},
#define VRXP_DBL(n, mn, mx, d) {#n, 2, mn, mx, d, nullptr, offsetof(ParamStore, n)},
#define VRXP_STR(n, d) {#n, 3, 0, 0, 0, d, offsetof(ParamStore, n)},
#define VRXP_ENDPUBLIC {"EndPublic", -1, 0, 0, 0, nullptr, kNoField},
#include "env/params.def"
#undef VRXP_INT
#undef VRXP_DBL
#undef VRXP_STR
#undef VRXP_ENDPUBLIC
    {"End", -1, 0, 0, 0, nullptr, kNoField},
};

constexpr int kStaticCount = static_cast<int>(sizeof kRows / sizeof kRows[0]);
constexpr int kKeyMax = kNameKeyMax;

bool isTransient(const char* name) {
  return std::strcmp(name, "ObjNumber") == 0 || std::strcmp(name, "StartNumber") == 0 ||
         std::strcmp(name, "SolutionNumber") == 0;
}

int* intField(VRXenv* env, const ParamRow& r) {
  return reinterpret_cast<int*>(reinterpret_cast<char*>(&env->par) + (r.storage - 1));
}
double* dblField(VRXenv* env, const ParamRow& r) {
  return reinterpret_cast<double*>(reinterpret_cast<char*>(&env->par) + (r.storage - 1));
}
char** strField(VRXenv* env, const ParamRow& r) {
  return reinterpret_cast<char**>(reinterpret_cast<char*>(&env->par) + (r.storage - 1));
}

int findRow(VRXenv* env, const char* name) {
  if (!env->paramTable || !name) return -1;
  char key[kKeyMax + 1];
  normaliseName(name, key);
  return nameIndexFind(env->paramTable->index, key);
}

// Head of every typed call; 0 with the row, or the stored error code.
int paramHead(VRXenv* env, const char* name, int type, const ParamRow** rowOut) {
  int err = checkEnv(env);
  if (err) return err;
  int r = findRow(env, name);
  if (r < 0)
    return raise(env, VRX_ERROR_UNKNOWN_PARAMETER, true, "Unknown parameter: %s",
                 name ? name : "(null)");
  const ParamRow& row = env->paramTable->rows[r];
  if (type && row.type != type)
    return raise(env, VRX_ERROR_UNKNOWN_PARAMETER, true, "Wrong type for parameter: %s", name);
  if (row.storage == 0)
    return raise(env, VRX_ERROR_UNKNOWN_PARAMETER, false, "Unknown parameter: %s", name);
  *rowOut = &row;
  return 0;
}

const char* stringValue(VRXenv* env, const ParamRow& row) {
  if (std::strcmp(row.name, "LogFile") == 0) return env->logFileName ? env->logFileName : "";
  const char* v = *strField(env, row);
  return v ? v : "";
}

void copyOut(char* buffer, const char* text) {
  std::snprintf(buffer, kMaxMessage + 1, "%s", text);
}

void changeWarning(VRXenv* env) {
  if (env->master == env && env->copyCount > 0 && env->paramChangeWarned && env->apiType != 0 &&
      env->par.OutputFlag >= 1) {
    log(env, "Warning: parameter changes on this environment will not affect existing models.\n");
    env->paramChangeWarned = 0;
  }
}

// The remote and recording steps of a setter. Neither link exists in this build
// yet: a client environment never reaches a connected state, and recording starts
// nowhere, so there is nothing to forward.
int forwardSetting(VRXenv*, const char*, const char*) { return 0; }

int setInt(VRXenv* env, const char* name, int value) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, name, 1, &row);
  if (err) return err;
  changeWarning(env);
  if (value > kMaxInt) value = kMaxInt;
  if (value < -kMaxInt) value = -kMaxInt;
  double v = value;
  if (v < row->minimum)
    return raise(env, VRX_ERROR_VALUE_OUT_OF_RANGE, true,
                 "Unable to set parameter %s to value %d (minimum is %.0f)", row->name, value,
                 row->minimum);
  if (v > row->maximum)
    return raise(env, VRX_ERROR_VALUE_OUT_OF_RANGE, true,
                 "Unable to set parameter %s to value %d (maximum is %.0f)", row->name, value,
                 row->maximum);
  if (std::strcmp(row->name, "Record") == 0) {
    if (value == 1 && !env->recordingOn) {
      if (env->master != env || env->copyCount > 0)
        log(env, "Warning: recording must be requested immediately after environment is created\n");
      else if (env->par.ComputeServer && env->par.ComputeServer[0])
        log(env, "Warning: recording not supported with Compute Server\n");
      else if (env->apiType == 7)
        log(env, "Warning: recording not possible for tuning\n");
    }
    return 0;
  }
  if (std::strcmp(row->name, "VORN_PAR_DUMP") == 0 && value != 0) {
    if (env->cloudClient) {
      log(env, "Error: VORN_PAR_DUMP not supported with Vornix Hosted Pool\n");
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, false, "%s",
                   errorTableText(VRX_ERROR_INVALID_ARGUMENT));
    }
    if (env->par.ComputeServer && env->par.ComputeServer[0]) {
      log(env, "Error: VORN_PAR_DUMP not supported with Compute Server\n");
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, false, "%s",
                   errorTableText(VRX_ERROR_INVALID_ARGUMENT));
    }
  }
  *intField(env, *row) = value;
  char text[32];
  std::snprintf(text, sizeof text, "%d", value);
  return forwardSetting(env, row->name, text);
}

int setDbl(VRXenv* env, const char* name, double value) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, name, 2, &row);
  if (err) return err;
  changeWarning(env);
  if (value > kInf) value = kInf;
  if (value < -kInf) value = -kInf;
  if (std::isnan(value) || value < row->minimum)
    return raise(env, VRX_ERROR_VALUE_OUT_OF_RANGE, true,
                 "Unable to set parameter %s to value %g (minimum is %g)", row->name, value,
                 row->minimum);
  if (value > row->maximum)
    return raise(env, VRX_ERROR_VALUE_OUT_OF_RANGE, true,
                 "Unable to set parameter %s to value %g (maximum is %g)", row->name, value,
                 row->maximum);
  *dblField(env, *row) = value;
  char text[40];
  std::snprintf(text, sizeof text, "%16e", value);
  return forwardSetting(env, row->name, text);
}

int setStr(VRXenv* env, const char* name, const char* value) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, name, 3, &row);
  if (err) return err;
  if (!value) return raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'value' argument supplied");
  changeWarning(env);
  if (std::strcmp(row->name, "Dummy") == 0) {
    char target[kKeyMax + 1];
    double v = 0;
    if (std::sscanf(value, "%512s %le", target, &v) != 2)
      return raise(env, VRX_ERROR_UNKNOWN_PARAMETER, true, "Unknown parameter: %s", value);
    int r = findRow(env, target);
    if (r < 0)
      return raise(env, VRX_ERROR_UNKNOWN_PARAMETER, true, "Unknown parameter: %s", target);
    int type = env->paramTable->rows[r].type;
    if (type == 1) return setInt(env, target, static_cast<int>(v));
    if (type == 2) return setDbl(env, target, v);
    return raise(env, VRX_ERROR_UNKNOWN_PARAMETER, true, "Wrong type for parameter: %s", target);
  }
  if (std::strcmp(row->name, "LogFile") == 0) {
    err = openLogFile(env, value, true);
    if (err) return err;
    return forwardSetting(env, row->name, value);
  }
  char* copy = envStrdup(env, value);
  if (!copy) return VRX_ERROR_OUT_OF_MEMORY;
  char** field = strField(env, *row);
  envFree(env, *field);
  *field = copy;
  // Fields the connection layer reads directly follow their parameters.
  char** mirror = nullptr;
  if (std::strcmp(row->name, "ComputeServer") == 0) mirror = &env->computeServer;
  if (std::strcmp(row->name, "CSRouter") == 0) mirror = &env->computeRouter;
  if (std::strcmp(row->name, "ServerPassword") == 0) mirror = &env->serverPassword;
  if (std::strcmp(row->name, "CSGroup") == 0) mirror = &env->serverGroup;
  if (mirror) {
    char* m = envStrdup(env, value);
    if (!m) return VRX_ERROR_OUT_OF_MEMORY;
    envFree(env, *mirror);
    *mirror = m;
  }
  return forwardSetting(env, row->name, value);
}

// Parses the text form of a number: the infinity spellings first, then %le.
bool parseNumber(const char* text, double* out) {
  static const char* const kPos[] = {"inf", "infinity", "1.#INF"};
  static const char* const kNeg[] = {"-inf", "-infinity", "-1.#INF"};
  for (const char* p : kNeg)
    if (std::strncmp(text, p, std::strlen(p)) == 0) {
      *out = -kInf;
      return true;
    }
  for (const char* p : kPos)
    if (std::strncmp(text, p, std::strlen(p)) == 0) {
      *out = kInf;
      return true;
    }
  return std::sscanf(text, "%le", out) == 1;
}

int setText(VRXenv* env, const char* name, const char* value) {
  int err = checkEnv(env);
  if (err) return err;
  if (!value) return raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'value' argument supplied");
  int r = findRow(env, name);
  if (r < 0)
    return raise(env, VRX_ERROR_UNKNOWN_PARAMETER, true, "Unknown parameter: '%s'",
                 name ? name : "(null)");
  int type = env->paramTable->rows[r].type;
  if (type == 3) return setStr(env, name, value);
  double v = 0;
  bool ok = parseNumber(value, &v) && !std::isnan(v);
  if (ok && type == 1) {
    if (v >= kInf)
      v = kMaxInt;
    else if (v <= -kInf)
      v = -kMaxInt;
    else if (std::fabs(v) > 2e9 || std::fabs(v - std::trunc(v)) > 1e-10)
      ok = false;
  }
  if (!ok)
    return raise(env, VRX_ERROR_VALUE_OUT_OF_RANGE, true, "Invalid value '%s' for parameter '%s'",
                 value, name);
  if (type == 1) return setInt(env, name, static_cast<int>(std::trunc(v)));
  return setDbl(env, name, v);
}

int resetValues(VRXenv* env) {
  const ParamTable* t = env->paramTable;
  for (int i = 0; i < t->count; ++i) {
    const ParamRow& r = t->rows[i];
    if (!r.storage) continue;
    if (r.type == 1) *intField(env, r) = static_cast<int>(r.defaultValue);
    if (r.type == 2) *dblField(env, r) = r.defaultValue;
  }
  return forwardSetting(env, "", "");
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

void normaliseName(const char* name, char* out) {
  int i = 0, n = 0;
  while (name[i] == '_' && i < kNameKeyMax) out[n++] = name[i++];
  for (; name[i] && i < kNameKeyMax; ++i) {
    if (name[i] == '_') continue;
    out[n++] = static_cast<char>(std::tolower(static_cast<unsigned char>(name[i])));
  }
  out[n] = '\0';
}

int paramsBuild(VRXenv* env) {
  auto* t = static_cast<ParamTable*>(envCalloc(env, 1, sizeof(ParamTable)));
  if (!t) return VRX_ERROR_OUT_OF_MEMORY;
  env->paramTable = t;
  t->rows = envCallocArray<ParamRow>(env, kStaticCount);
  if (!t->rows) return VRX_ERROR_OUT_OF_MEMORY;
  t->index = nameIndexCreate(env, 1000);
  if (!t->index) return VRX_ERROR_OUT_OF_MEMORY;
  int n = 0;
  char key[kKeyMax + 1];
  for (int i = 0; i < kStaticCount; ++i) {
    const StaticRow& s = kRows[i];
    if (s.type < 0) {
      if (std::strcmp(s.name, "EndPublic") == 0) t->publicCount = n;
      continue;
    }
    ParamRow& r = t->rows[n];
    r.name = s.name;
    r.type = s.type;
    r.minimum = s.minimum;
    r.maximum = s.maximum;
    r.defaultValue = s.defaultValue;
    r.defaultString = s.defaultString ? s.defaultString : "";
    r.transient = isTransient(s.name) ? 1 : 0;
    normaliseName(s.name, key);
    if (nameIndexInsert(env, t->index, key, n)) return VRX_ERROR_OUT_OF_MEMORY;
    ++n;
  }
  t->count = n;
  // Bind each row to its field and store the default there.
  for (int i = 0, k = 0; i < kStaticCount; ++i) {
    const StaticRow& s = kRows[i];
    if (s.type < 0) continue;
    ParamRow& r = t->rows[k++];
    r.storage = static_cast<int>(s.offset) + 1;
    if (r.type == 1) *intField(env, r) = static_cast<int>(r.defaultValue);
    if (r.type == 2) *dblField(env, r) = r.defaultValue;
    if (r.type == 3) {
      char** f = strField(env, r);
      *f = nullptr;
      if (r.defaultString[0]) {
        *f = envStrdup(env, r.defaultString);
        if (!*f) return VRX_ERROR_OUT_OF_MEMORY;
      }
    }
  }
  return 0;
}

void paramsFreeStrings(VRXenv* env) {
  const ParamTable* t = env->paramTable;
  if (!t || !t->rows) return;
  for (int i = 0; i < t->count; ++i) {
    const ParamRow& r = t->rows[i];
    if (r.type != 3 || !r.storage) continue;
    char** f = strField(env, r);
    envFree(env, *f);
    *f = nullptr;
  }
}

int paramsDuplicateStrings(VRXenv* dst) {
  const ParamTable* t = dst->paramTable;
  if (!t) return 0;
  int err = 0;
  for (int i = 0; i < t->count; ++i) {
    const ParamRow& r = t->rows[i];
    if (r.type != 3 || !r.storage) continue;
    char** f = strField(dst, r);
    if (err) {
      *f = nullptr;  // the rest still point into the parent
      continue;
    }
    if (*f) {
      *f = envStrdup(dst, *f);
      if (!*f) err = VRX_ERROR_OUT_OF_MEMORY;
    }
  }
  return err;
}

void paramsFree(VRXenv* env) {
  ParamTable* t = env->paramTable;
  if (!t) return;
  paramsFreeStrings(env);
  nameIndexFree(env, t->index);
  envFree(env, t->rows);
  envFree(env, t);
  env->paramTable = nullptr;
}

int readParamLines(VRXenv* env, const char* filename, bool isDefaults) {
  int err = 0;
  Stream* s = streamOpen(env, filename, 'r', &err);
  if (!s) {
    if (isDefaults) return err == VRX_ERROR_OUT_OF_MEMORY ? err : 0;
    if (err == VRX_ERROR_OUT_OF_MEMORY) return err;
    return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Unable to read parameter file %s",
                 filename);
  }
  constexpr int kLine = 10000;
  char* line = static_cast<char*>(envMalloc(env, kLine + 2));
  if (!line) {
    streamClose(s);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  int warnings = 0;
  while (streamGets(s, line, kLine + 1)) {
    char* p = line;
    while (isBlank(*p)) ++p;
    if (*p == '#' || *p == '\n' || *p == '\r' || *p == '\0') continue;
    char* name = p;
    while (*p && !isBlank(*p) && *p != '=' && *p != '\n' && *p != '\r') ++p;
    // Blanks, at most one '=' or line end, blanks: all become terminators.
    while (isBlank(*p)) *p++ = '\0';
    if (*p == '=' || *p == '\n' || *p == '\r') *p++ = '\0';
    while (isBlank(*p)) *p++ = '\0';
    char* value = p;
    while (*p && !isBlank(*p) && *p != '\n' && *p != '\r') ++p;
    *p = '\0';
    if (findRow(env, name) < 0) {
      log(env, "Warning: unknown parameter %s in %s\n", name, filename);
      ++warnings;
      continue;
    }
    int frozen = env->errorFrozen;
    int rc = setText(env, name, value);
    env->errorFrozen = frozen;
    if (rc == VRX_ERROR_OUT_OF_MEMORY) {
      envFree(env, line);
      streamClose(s);
      return rc;
    }
    if (rc == 0)
      log(env, "Set parameter %s to value %s\n", name, value);
    else
      log(env, "Failed to set parameter %s to value %s\n", name, value);
  }
  envFree(env, line);
  if (warnings > 0) log(env, "%d warnings while reading parameter file %s\n", warnings, filename);
  err = streamClose(s);
  if (err) return raise(env, err, true, "Unable to read parameter file %s", filename);
  return 0;
}

void threadCountWarning(VRXenv* env, int threads) {
  int limit = env->coreCount < env->par.VORN_PAR_MAXTHREADS ? env->coreCount
                                                             : env->par.VORN_PAR_MAXTHREADS;
  if (threads <= limit) return;
  log(env, "\n");
  log(env, "Warning: Thread count (%d) is larger than core count (%d)\n", threads, limit);
  log(env, "         Reduce the value of the Threads parameter to improve performance\n");
  log(env, "\n");
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXgetintparam(VRXenv* env, const char* paramname, int* valueP) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, paramname, 1, &row);
  if (err) return setError(env, err);
  if (!valueP)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'value' argument supplied"));
  *valueP = *intField(env, *row);
  return setError(env, 0);
}

VRX_API int VRXgetdblparam(VRXenv* env, const char* paramname, double* valueP) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, paramname, 2, &row);
  if (err) return setError(env, err);
  if (!valueP)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'value' argument supplied"));
  *valueP = *dblField(env, *row);
  return setError(env, 0);
}

VRX_API int VRXgetstrparam(VRXenv* env, const char* paramname, char* value) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, paramname, 3, &row);
  if (err) return setError(env, err);
  if (!value)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'value' argument supplied"));
  copyOut(value, stringValue(env, *row));
  return setError(env, 0);
}

VRX_API int VRXsetintparam(VRXenv* env, const char* paramname, int value) {
  return guarded(env, [&] { return setError(env, setInt(env, paramname, value)); });
}

VRX_API int VRXsetdblparam(VRXenv* env, const char* paramname, double value) {
  return guarded(env, [&] { return setError(env, setDbl(env, paramname, value)); });
}

VRX_API int VRXsetstrparam(VRXenv* env, const char* paramname, const char* value) {
  return guarded(env, [&] { return setError(env, setStr(env, paramname, value)); });
}

VRX_API int VRXsetparam(VRXenv* env, const char* paramname, const char* value) {
  return guarded(env, [&] { return setError(env, setText(env, paramname, value)); });
}

VRX_API int VRXgetintparaminfo(VRXenv* env, const char* paramname, int* valueP, int* minP,
                               int* maxP, int* defP) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, paramname, 1, &row);
  if (err) return setError(env, err);
  if (valueP) *valueP = *intField(env, *row);
  if (minP) *minP = static_cast<int>(row->minimum);
  if (maxP) *maxP = static_cast<int>(row->maximum);
  if (defP) *defP = static_cast<int>(row->defaultValue);
  return setError(env, 0);
}

VRX_API int VRXgetdblparaminfo(VRXenv* env, const char* paramname, double* valueP, double* minP,
                               double* maxP, double* defP) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, paramname, 2, &row);
  if (err) return setError(env, err);
  if (valueP) *valueP = *dblField(env, *row);
  if (minP) *minP = row->minimum;
  if (maxP) *maxP = row->maximum;
  if (defP) *defP = row->defaultValue;
  return setError(env, 0);
}

VRX_API int VRXgetstrparaminfo(VRXenv* env, const char* paramname, char* valueP, char* defP) {
  const ParamRow* row = nullptr;
  int err = paramHead(env, paramname, 3, &row);
  if (err) return setError(env, err);
  if (valueP) copyOut(valueP, stringValue(env, *row));
  if (defP) copyOut(defP, row->defaultString);
  return setError(env, 0);
}

VRX_API int VRXgetparamtype(VRXenv* env, const char* paramname) {
  if (checkEnv(env)) return -1;
  int r = findRow(env, paramname);
  if (r < 0) {
    setError(env, raise(env, VRX_ERROR_UNKNOWN_PARAMETER, true, "Unknown parameter: %s",
                        paramname ? paramname : "(null)"));
    return -1;
  }
  setError(env, 0);
  return env->paramTable->rows[r].type;
}

VRX_API int VRXgetnumparams(VRXenv* env) {
  if (checkEnv(env) || !env->paramTable) return 0;
  return env->paramTable->publicCount;
}

VRX_API int VRXgetparamname(VRXenv* env, int i, char** paramnameP) {
  int err = checkEnv(env);
  if (err) return err;
  if (!paramnameP)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'paramname' argument supplied"));
  if (i < 0 || i >= env->paramTable->publicCount)
    return setError(env, VRX_ERROR_INVALID_ARGUMENT);
  *paramnameP = const_cast<char*>(env->paramTable->rows[i].name);
  return setError(env, 0);
}

VRX_API int VRXresetparams(VRXenv* env) {
  int err = checkEnv(env);
  if (err) return err;
  return setError(env, resetValues(env));
}

VRX_API int VRXcopyparams(VRXenv* dest, VRXenv* src) {
  int err = checkEnv(src);
  if (err) return err;
  err = checkEnv(dest);
  if (err) return err;
  return guarded(dest, [&] {
    int rc = resetValues(dest);
    const ParamTable* t = src->paramTable;
    for (int i = 0; !rc && i < t->count; ++i) {
      const ParamRow& r = t->rows[i];
      if (!r.storage) continue;
      if (r.type == 1) {
        int v = *intField(src, r);
        if (v != static_cast<int>(r.defaultValue)) rc = setInt(dest, r.name, v);
      } else if (r.type == 2) {
        double v = *dblField(src, r);
        if (!(v == r.defaultValue)) rc = setDbl(dest, r.name, v);
      } else if (std::strcmp(r.name, "LogFile") != 0) {
        const char* v = *strField(src, r);
        if (v && std::strcmp(v, r.defaultString) != 0) rc = setStr(dest, r.name, v);
      }
    }
    return setError(dest, rc);
  });
}

VRX_API int VRXwriteparams(VRXenv* env, const char* filename) {
  int err = checkEnv(env);
  if (err) return err;
  if (!filename)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'filename' argument supplied"));
  return guarded(env, [&] {
    int rc = 0;
    Stream* s = streamOpen(env, filename, 'w', &rc);
    if (!s) {
      if (rc != VRX_ERROR_OUT_OF_MEMORY)
        rc = raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Unable to write to parameter file %s",
                   filename);
      return setError(env, rc);
    }
    const ParamTable* t = env->paramTable;
    for (int i = 0; !rc && i < t->count; ++i) {
      const ParamRow& r = t->rows[i];
      if (!r.storage || r.transient || r.type == 3) continue;
      if (r.type == 1) {
        int v = *intField(env, r);
        if (v == static_cast<int>(r.defaultValue)) continue;
        if (env->apiType == 0 && v == 1800 && std::strcmp(r.name, "CSIdleTimeout") == 0) continue;
        rc = streamPrintf(s, "%s  %d\n", r.name, v);
      } else {
        double v = *dblField(env, r);
        if (v == r.defaultValue) continue;
        rc = streamPrintf(s, "%s  %g\n", r.name, v);
      }
    }
    int closeRc = streamClose(s);
    if (!rc) rc = closeRc;
    if (rc && rc != VRX_ERROR_OUT_OF_MEMORY)
      rc = raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Unable to write to parameter file %s",
                 filename);
    return setError(env, rc);
  });
}

VRX_API int VRXreadparams(VRXenv* env, const char* filename) {
  int err = checkEnv(env);
  if (err) return err;
  if (!filename)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'filename' argument supplied"));
  return guarded(env, [&] {
    // Refusals of single lines are logged, not returned: the call's text starts clean.
    int rc = readParamLines(env, filename, false);
    if (rc == 0 && env->errorText) env->errorText[0] = '\0';
    return setError(env, rc);
  });
}

}  // extern "C"
