// Reading and writing by file name: kind from the suffix, compression by library.
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "env/locale.h"
#include "io/mps.h"
#include "io/stream.h"
#include "model/model.h"
#include "model/modeldata.h"

namespace vrx {

namespace {

const char* const kKindSuffix[] = {"",     ".mps", ".rew", ".lp",  ".rlp", ".ilp", ".mst", ".sol",
                                   ".bas", ".prm", ".qps", ".ord", ".sum", ".opb", ".hnt"};
const char* const kCompSuffix[] = {"", ".gz", ".bz2", ".zip", ".7z"};

bool isModelKind(int k) { return k == 1 || k == 2 || k == 3 || k == 4 || k == 5 || k == 10 || k == 13; }

bool readable(const char* path) {
  FILE* f = std::fopen(path, "rb");
  if (!f) return false;
  std::fclose(f);
  return true;
}

// The name that opens: as given, or, for a name without a known suffix, the
// first kind and compression in table order that exists. Empty when none.
bool findFile(VRXenv* env, const char* name, char** found) {
  *found = nullptr;
  if (readable(name) || fileKind(name) > 0) {
    if (!readable(name)) return true;
    *found = envStrdup(env, name);
    if (!*found) throw std::bad_alloc();
    return true;
  }
  size_t len = std::strlen(name);
  char* buf = static_cast<char*>(envMalloc(env, len + 16));
  if (!buf) throw std::bad_alloc();
  for (int k = 1; k < 15; ++k)
    for (int c = 0; c < 5; ++c) {
      std::snprintf(buf, len + 16, "%s%s%s", name, kKindSuffix[k], kCompSuffix[c]);
      if (readable(buf)) {
        *found = buf;
        return true;
      }
    }
  envFree(env, buf);
  return true;
}

int loadMps(VRXenv* env, const MpsData& d, VRXmodel** out) {
  LoadArgs a;
  a.name = d.modelName;
  a.numVars = d.numCols;
  a.numConstrs = d.numRows;
  a.objSense = d.objSense;
  a.objCon = d.objCon;
  a.obj = d.obj;
  a.sense = d.sense;
  a.rhs = d.rhs;
  static_assert(sizeof(size_t) == sizeof(int64_t), "64-bit sizes");
  a.beg64 = reinterpret_cast<const size_t*>(d.colBeg);
  a.len = d.colLen;
  a.ind = d.rowInd;
  a.val = d.val;
  a.lb = d.lb;
  a.ub = d.ub;
  a.vtype = d.vtype;
  a.varNames = d.colNames;
  a.constrNames = d.rowNames;
  a.numQNZs = d.numQNZs;
  a.qRow = d.qRow;
  a.qCol = d.qCol;
  a.qVal = d.qVal;
  a.numSOS = d.numSOS;
  a.sosType = d.sosType;
  a.sosBeg = d.sosBeg;
  a.sosInd = d.sosInd;
  a.sosWeight = d.sosWeight;
  return modelLoad(env, a, out);
}

int readModelFile(VRXenv* env, const char* filename, VRXmodel** modelP) {
  double t0 = wallClock();
  NeutralLocale locale;
  char* path = nullptr;
  findFile(env, filename, &path);
  if (!path)
    return raise(env, VRX_ERROR_FILE_READ, true, "Unable to open file '%s' for input", filename);
  int kind = fileKind(path);
  int err = 0;
  const char* format = nullptr;
  if (kind == 1 || kind == 2 || kind == 10) {
    format = "MPS";
    Stream* s = streamOpen(env, path, 'r', &err);
    if (!s) {
      err = err == VRX_ERROR_OUT_OF_MEMORY
                ? err
                : raise(env, VRX_ERROR_FILE_READ, true, "Unable to open file '%s' for input", path);
    } else {
      MpsData d{};
      err = mpsRead(env, s, path, &d);
      int closeErr = streamClose(s);
      if (!err && closeErr)
        err = raise(env, VRX_ERROR_FILE_READ, true, "Unable to read file '%s'", path);
      if (!err) err = loadMps(env, d, modelP);
      mpsDataFree(env, &d);
    }
  } else if (kind == 3 || kind == 4 || kind == 5 || kind == 13) {
    // The LP and OPB readers are not part of this build.
    err = raise(env, VRX_ERROR_NOT_SUPPORTED, true, "Unsupported operation");
  } else {
    err = raise(env, VRX_ERROR_FILE_READ, true, "Unknown file type for file '%s'", path);
  }
  if (!err) {
    const VRXmodeldata* d = (*modelP)->data;
    log(env, "Read %s format model from file %s\n", format, path);
    log(env, "Reading time = %.2f seconds\n", wallClock() - t0);
    log(env, "%s: %d rows, %d columns, %lu nonzeros\n", d->modelName ? d->modelName : "",
        d->numConstrs, d->numVars, static_cast<unsigned long>(d->numNZs));
    if (env->par.VORN_PAR_LOGMODELS)
      log(env, "MODEL LOG: VRXreadmodel %p\n", static_cast<void*>(*modelP));
  }
  envFree(env, path);
  return err;
}

int writeModelFile(VRXmodel* model, const char* filename) {
  VRXenv* env = model->env;
  NeutralLocale locale;
  int kind = fileKind(filename);
  if (kind == 9) return VRXwriteparams(env, filename);
  if (kind != 1 && kind != 2 && kind != 10) {
    if (kind == 3 || kind == 4 || kind == 5 || kind == 6 || kind == 7 || kind == 8 ||
        kind == 11 || kind == 12 || kind == 13 || kind == 14)
      return raise(env, VRX_ERROR_NOT_SUPPORTED, true, "Unsupported operation");
    return raise(env, VRX_ERROR_FILE_WRITE, true, "Unknown file type for file '%s'", filename);
  }
  int err = 0;
  Stream* s = streamOpen(env, filename, 'w', &err);
  if (!s) {
    if (err == VRX_ERROR_OUT_OF_MEMORY) return err;
    return raise(env, VRX_ERROR_FILE_WRITE, true, "Unable to open file '%s' for output", filename);
  }
  err = mpsWrite(env, model, s);
  int closeErr = streamClose(s);
  if (err == VRX_ERROR_OUT_OF_MEMORY) return err;
  if (err || closeErr) return raise(env, VRX_ERROR_FILE_WRITE, true, "Failed to write '%s'", filename);
  return 0;
}

}  // namespace

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXfiletype(const char* filename) { return fileKind(filename); }

VRX_API int VRXismodelfile(const char* filename) { return isModelKind(fileKind(filename)) ? 1 : 0; }

VRX_API int VRXisrecordfile(const char* filename) {
  if (!filename) return 0;
  size_t len = std::strlen(filename);
  for (const char* c : kCompSuffix) {
    char suffix[16];
    std::snprintf(suffix, sizeof suffix, ".vrxr%s", c);
    size_t s = std::strlen(suffix);
    if (s <= len && strcasecmp(filename + len - s, suffix) == 0) return 1;
  }
  return 0;
}

VRX_API int VRXreadmodel(VRXenv* env, const char* filename, VRXmodel** modelP) {
  int err = checkEnv(env);
  if (err) return err;
  if (modelP) *modelP = nullptr;
  if (!filename)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "No 'filename' argument supplied"));
  if (!modelP)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "No 'modelP' argument supplied"));
  env->errorText[0] = '\0';
  return guarded(env, [&] {
    int rc = readModelFile(env, filename, modelP);
    if (rc && *modelP) {
      VRXfreemodel(*modelP);
      *modelP = nullptr;
    }
    return setError(env, rc);
  });
}

VRX_API int VRXread(VRXmodel* model, const char* filename) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  if (!filename)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "No 'filename' argument supplied"));
  return guarded(env, [&] {
    int kind = fileKind(filename);
    char* path = nullptr;
    findFile(env, filename, &path);
    if (path) kind = fileKind(path);
    envFree(env, path);
    int rc;
    if (isModelKind(kind))
      rc = raise(env, VRX_ERROR_FILE_READ, true, "Can't import file '%s' into a model", filename);
    else if (kind == 9)
      rc = VRXreadparams(env, filename);
    else if (kind == 6 || kind == 7 || kind == 8 || kind == 11 || kind == 14)
      rc = raise(env, VRX_ERROR_NOT_SUPPORTED, true, "Unsupported operation");
    else
      rc = raise(env, VRX_ERROR_FILE_READ, true, "Unknown file type for file '%s'", filename);
    return setError(env, rc);
  });
}

VRX_API int VRXwrite(VRXmodel* model, const char* filename) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  if (!filename)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "No 'filename' argument supplied"));
  return guarded(env, [&] { return setError(env, writeModelFile(model, filename)); });
}

}  // extern "C"
