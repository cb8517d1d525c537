// Reading and writing by file name: kind from the suffix, compression by library.
#include <cstdio>
#include <cstring>
#include <strings.h>

#include "env/envvec.h"
#include "env/locale.h"
#include "io/lpfile.h"
#include "io/mps.h"
#include "io/sidefiles.h"
#include "io/stream.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"

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

// The linear parts of the given rows, gathered from the column-wise matrix.
struct RowParts {
  EnvVec<int> beg;
  EnvVec<int> ind;
  EnvVec<double> val;
  explicit RowParts(VRXenv* env) : beg(env), ind(env), val(env) {}
};

void gatherRows(VRXenv* env, const MpsData& d, const int* rows, int count, RowParts& out) {
  EnvVec<int> slot(env);
  slot.resize(static_cast<size_t>(d.numRows) + 1, -1);
  for (int k = 0; k < count; ++k) slot[static_cast<size_t>(rows[k])] = k;
  out.beg.resize(static_cast<size_t>(count) + 1, 0);
  for (int j = 0; j < d.numCols; ++j)
    for (int64_t p = d.colBeg[j]; p < d.colBeg[j] + d.colLen[j]; ++p)
      if (slot[static_cast<size_t>(d.rowInd[p])] >= 0) out.beg[static_cast<size_t>(slot[static_cast<size_t>(d.rowInd[p])]) + 1]++;
  for (int k = 0; k < count; ++k) out.beg[static_cast<size_t>(k) + 1] += out.beg[static_cast<size_t>(k)];
  out.ind.resize(static_cast<size_t>(out.beg[static_cast<size_t>(count)]), 0);
  out.val.resize(static_cast<size_t>(out.beg[static_cast<size_t>(count)]), 0.0);
  EnvVec<int> fill(env);
  fill.resize(static_cast<size_t>(count) + 1, 0);
  for (int k = 0; k < count; ++k) fill[static_cast<size_t>(k)] = out.beg[static_cast<size_t>(k)];
  for (int j = 0; j < d.numCols; ++j)
    for (int64_t p = d.colBeg[j]; p < d.colBeg[j] + d.colLen[j]; ++p) {
      int k = slot[static_cast<size_t>(d.rowInd[p])];
      if (k < 0) continue;
      int at = fill[static_cast<size_t>(k)]++;
      out.ind[static_cast<size_t>(at)] = j;
      out.val[static_cast<size_t>(at)] = d.val[p];
    }
}

// Applies what the file holds beyond the linear model through the modelling calls.
int applyExtras(VRXenv* env, const MpsData& d, VRXmodel* model) {
  const MpsExtras* x = d.extras;
  if (!x) return 0;
  int err = 0;
  if (x->lazy && (err = VRXsetintattrarray(model, "Lazy", 0, d.numRows, x->lazy))) return err;
  for (int k = 0; k < x->numObj && !err; ++k)
    err = VRXsetobjectiven(model, k, x->objPriority[k], x->objWeight[k], x->objAbsTol[k],
                           x->objRelTol[k], x->objName[k], 0.0, x->objBeg[k + 1] - x->objBeg[k],
                           x->objInd + x->objBeg[k], x->objVal + x->objBeg[k]);
  EnvVec<int> moved(env);
  if (!err && x->numQC > 0) {
    RowParts parts(env);
    gatherRows(env, d, x->qcRow, x->numQC, parts);
    for (int k = 0; k < x->numQC && !err; ++k) {
      int r = x->qcRow[k], b = parts.beg[static_cast<size_t>(k)];
      int qb = x->qcBeg[k];
      err = VRXaddqconstr(model, parts.beg[static_cast<size_t>(k) + 1] - b, parts.ind.data() + b,
                          parts.val.data() + b, x->qcBeg[k + 1] - qb, x->qcI + qb, x->qcJ + qb,
                          x->qcVal + qb, d.sense[r], d.rhs[r], d.rowNames[r]);
      moved.push_back(r);
    }
  }
  if (!err && x->numInd > 0) {
    RowParts parts(env);
    gatherRows(env, d, x->indRow, x->numInd, parts);
    for (int k = 0; k < x->numInd && !err; ++k) {
      int r = x->indRow[k], b = parts.beg[static_cast<size_t>(k)];
      err = VRXaddgenconstrIndicator(model, d.rowNames[r], x->indVar[k], x->indVal[k],
                                     parts.beg[static_cast<size_t>(k) + 1] - b, parts.ind.data() + b,
                                     parts.val.data() + b, d.sense[r], d.rhs[r]);
      moved.push_back(r);
    }
  }
  for (int k = 0; k < x->numGen && !err; ++k) {
    const int* ops = x->genVars + x->genBeg[k];
    int count = x->genBeg[k + 1] - x->genBeg[k];
    switch (x->genType[k]) {
      case VRX_GENCONSTR_MAX:
        err = VRXaddgenconstrMax(model, x->genName[k], x->genRes[k], count, ops, x->genConst[k]);
        break;
      case VRX_GENCONSTR_MIN:
        err = VRXaddgenconstrMin(model, x->genName[k], x->genRes[k], count, ops, x->genConst[k]);
        break;
      case VRX_GENCONSTR_ABS:
        err = VRXaddgenconstrAbs(model, x->genName[k], x->genRes[k], ops[0]);
        break;
      case VRX_GENCONSTR_AND:
        err = VRXaddgenconstrAnd(model, x->genName[k], x->genRes[k], count, ops);
        break;
      default:
        err = VRXaddgenconstrOr(model, x->genName[k], x->genRes[k], count, ops);
        break;
    }
  }
  for (int k = 0; k < x->numPwl && !err; ++k)
    err = VRXsetpwlobj(model, x->pwlVar[k], x->pwlBeg[k + 1] - x->pwlBeg[k], x->pwlX + x->pwlBeg[k],
                       x->pwlY + x->pwlBeg[k]);
  if (!err && !moved.empty())
    err = VRXdelconstrs(model, static_cast<int>(moved.size()), moved.data());
  if (!err) err = VRXupdatemodel(model);
  if (err) {
    // The model's own text says what failed; keep it for the caller.
    raise(env, err, true, "%s", VRXgetmerrormsg(model));
  }
  return err;
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
      if (!err) err = applyExtras(env, d, *modelP);
      mpsDataFree(env, &d);
    }
  } else if (kind == 3 || kind == 4 || kind == 5) {
    format = "LP";
    Stream* s = streamOpen(env, path, 'r', &err);
    if (!s) {
      err = err == VRX_ERROR_OUT_OF_MEMORY
                ? err
                : raise(env, VRX_ERROR_FILE_READ, true, "Unable to open file '%s' for input", path);
    } else {
      err = lpRead(env, s, path, modelP);
      int closeErr = streamClose(s);
      if (!err && closeErr)
        err = raise(env, VRX_ERROR_FILE_READ, true, "Unable to read file '%s'", path);
    }
  } else if (kind == 13) {
    // The OPB reader is not part of this build.
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
  if (kind == 6 || kind == 7 || kind == 8 || kind == 11 || kind == 12 || kind == 14) {
    int rc = pendingActive(model) ? modelUpdate(model) : 0;
    return rc ? rc : sideWrite(model, filename, kind);
  }
  if (kind == 3 || kind == 4 || kind == 5) {
    int rc = pendingActive(model) ? modelUpdate(model) : 0;
    if (rc) return rc;
    // Without an IIS nothing is opened, so no empty file is left behind.
    if (kind == 5 && !lpHasIIS(model))
      return raise(env, VRX_ERROR_DATA_NOT_AVAILABLE, true, "No IIS available for current model");
    Stream* s = streamOpen(env, filename, 'w', &rc);
    if (!s) {
      if (rc == VRX_ERROR_OUT_OF_MEMORY) return rc;
      return raise(env, VRX_ERROR_FILE_WRITE, true, "Unable to open file '%s' for output", filename);
    }
    try {
      rc = lpWrite(model, s, filename);
    } catch (const std::bad_alloc&) {
      rc = VRX_ERROR_OUT_OF_MEMORY;
    }
    int closeErr = streamClose(s);
    if (rc == VRX_ERROR_OUT_OF_MEMORY) {
      std::remove(filename);
      return rc;
    }
    if (rc || closeErr) {
      std::remove(filename);
      return raise(env, VRX_ERROR_FILE_WRITE, true, "Unable to write to file '%s'\n", filename);
    }
    return 0;
  }
  if (kind != 1 && kind != 2 && kind != 10) {
    if (kind == 13) return raise(env, VRX_ERROR_NOT_SUPPORTED, true, "Unsupported operation");
    return raise(env, VRX_ERROR_FILE_WRITE, true, "Unknown file type for file '%s'", filename);
  }
  int err = pendingActive(model) ? modelUpdate(model) : 0;
  if (err) return err;
  Stream* s = streamOpen(env, filename, 'w', &err);
  if (!s) {
    if (err == VRX_ERROR_OUT_OF_MEMORY) return err;
    return raise(env, VRX_ERROR_FILE_WRITE, true, "Unable to open file '%s' for output", filename);
  }
  try {
    err = mpsWrite(env, model, s, kind == 2);
  } catch (const std::bad_alloc&) {
    err = VRX_ERROR_OUT_OF_MEMORY;
  }
  int closeErr = streamClose(s);
  if (err || closeErr) std::remove(filename);
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
    struct Owned {
      VRXenv* env;
      char* p;
      ~Owned() { envFree(env, p); }
    } owned{env, path};
    int rc;
    if (isModelKind(kind))
      rc = raise(env, VRX_ERROR_FILE_READ, true, "Can't import file '%s' into a model", filename);
    else if (kind == 9)
      rc = VRXreadparams(env, filename);
    else if (kind == 6 || kind == 7 || kind == 8 || kind == 11 || kind == 14)
      rc = sideRead(model, path ? path : filename, kind);
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
