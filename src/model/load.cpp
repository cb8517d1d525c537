// Model load, copy and free.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "env/nameindex.h"
#include "model/callback.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/result.h"
#include "presolve/undo.h"
#include "simplex/lp.h"
#include "model/pending.h"

namespace vrx {

namespace {

constexpr double kIntTol = 1e-05;

int64_t begAt(const LoadArgs& a, int j) {
  return a.beg64 ? static_cast<int64_t>(a.beg64[j]) : static_cast<int64_t>(a.beg32[j]);
}

double clampInf(double v) { return v < -kInf ? -kInf : (v > kInf ? kInf : v); }

// A column whose range can be read without trusting anything further; the
// index checks report the others.
bool columnSound(const LoadArgs& a, int j, int64_t beg, int len) {
  if (len < 0 || beg < 0) return false;
  if (len > 0 && j + 1 < a.numVars && beg + len > begAt(a, j + 1)) return false;
  return true;
}

int validateMatrix(VRXenv* env, const LoadArgs& a) {
  int n = a.numVars, m = a.numConstrs;
  for (int j = 0; j < n; ++j) {
    int64_t beg = begAt(a, j);
    int len = a.len[j];
    if (!columnSound(a, j, beg, len)) continue;
    for (int64_t k = beg; k < beg + len; ++k) {
      if (std::isfinite(a.val[k])) continue;
      // The index is the element's position in the value array. Like the
      // other number checks, the text goes only into an empty, unfrozen store.
      if (env->errorText && !env->errorFrozen && env->errorText[0] == '\0') {
        if (a.beg64)
          raise(env, VRX_ERROR_INVALID_ARGUMENT, false,
                "Element %lu of a double array is Nan or Inf.", static_cast<unsigned long>(k));
        else
          raise(env, VRX_ERROR_INVALID_ARGUMENT, false,
                "Element %d of a double array is Nan or Inf.", static_cast<int>(k));
      }
      return VRX_ERROR_INVALID_ARGUMENT;
    }
  }
  char* mark = envCallocArray<char>(env, static_cast<size_t>(m));
  if (!mark) return VRX_ERROR_OUT_OF_MEMORY;
  int err = 0;
  for (int j = 0; j < n && !err; ++j) {
    int64_t beg = begAt(a, j);
    int len = a.len[j];
    // A negative length, or a range past the next column's begin.
    if (!columnSound(a, j, beg, len)) {
      err = VRX_ERROR_INDEX_OUT_OF_RANGE;
      break;
    }
    int64_t k = beg;
    for (; k < beg + len; ++k) {
      int r = a.ind[k];
      if (r < 0 || r >= m) {
        err = VRX_ERROR_INDEX_OUT_OF_RANGE;
        break;
      }
      if (mark[r]) {
        err = VRX_ERROR_DUPLICATES;
        break;
      }
      mark[r] = 1;
    }
    for (int64_t c = beg; c < k; ++c) mark[a.ind[c]] = 0;
  }
  envFree(env, mark);
  return err;
}

// The checks of the arguments, in their order; the first failure stops.
int validate(VRXenv* env, const LoadArgs& a) {
  if (a.numVars < 0 || a.numConstrs < 0) return VRX_ERROR_INVALID_ARGUMENT;
  bool matrix = a.beg32 || a.beg64;
  if (matrix && a.numVars > 0 && (!a.len || !a.ind || !a.val)) return VRX_ERROR_NULL_ARGUMENT;
  if (a.numConstrs > 0 && (!a.sense || !a.rhs)) return VRX_ERROR_NULL_ARGUMENT;
  int err;
  if ((err = checkFinite(env, a.objCon))) return err;
  if ((err = checkNotNanArray(env, a.obj, a.numVars))) return err;
  if ((err = checkNotNanArray(env, a.lb, a.numVars))) return err;
  if ((err = checkNotNanArray(env, a.ub, a.numVars))) return err;
  if ((err = checkNotNanArray(env, a.rhs, a.numConstrs))) return err;
  if (matrix && a.numVars > 0 && (err = validateMatrix(env, a))) return err;
  if (a.numQNZs < 0) return VRX_ERROR_INVALID_ARGUMENT;
  if (a.numQNZs > 0) {
    if (!a.qRow || !a.qCol || !a.qVal) return VRX_ERROR_NULL_ARGUMENT;
    if ((err = checkQuadArray(env, a.qVal, a.numQNZs))) return err;
    for (int k = 0; k < a.numQNZs; ++k)
      if (a.qRow[k] < 0 || a.qRow[k] >= a.numVars || a.qCol[k] < 0 || a.qCol[k] >= a.numVars)
        return VRX_ERROR_INDEX_OUT_OF_RANGE;
  }
  if (a.numSOS < 0) return VRX_ERROR_INVALID_ARGUMENT;
  if (a.numSOS > 0) {
    if (!a.sosType || !a.sosBeg || !a.sosInd) return VRX_ERROR_NULL_ARGUMENT;
    for (int s = 0; s < a.numSOS; ++s) {
      if (a.sosType[s] != 1 && a.sosType[s] != 2) return VRX_ERROR_INVALID_ARGUMENT;
      if (a.sosBeg[s] < 0 || a.sosBeg[s + 1] < a.sosBeg[s]) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    }
    for (int k = a.sosBeg[0]; k < a.sosBeg[a.numSOS]; ++k)
      if (a.sosInd[k] < 0 || a.sosInd[k] >= a.numVars) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    if (a.sosWeight &&
        (err = checkFiniteArray(env, a.sosWeight + a.sosBeg[0], a.sosBeg[a.numSOS] - a.sosBeg[0])))
      return err;
  }
  return 0;
}

int normalSense(char c) {
  switch (c) {
    case '<': case 'L': case 'l': return '<';
    case '>': case 'G': case 'g': return '>';
    case '=': case 'E': case 'e': return '=';
    default: return 0;
  }
}

// Copies one list of names; entries that are null or empty keep the default.
int loadNames(VRXenv* env, VRXenv* menv, const char* const* src, int count, char*** out) {
  *out = nullptr;
  if (!src || count <= 0) return 0;
  char** names = envCallocArray<char*>(menv, static_cast<size_t>(count));
  if (!names) return VRX_ERROR_OUT_OF_MEMORY;
  *out = names;  // owned by the store from here, so a failure frees it
  for (int i = 0; i < count; ++i) {
    const char* s = src[i];
    if (!s || !s[0]) continue;
    if (std::strlen(s) > VRX_MAX_NAMELEN)
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, true,
                   "Name too long (maximum name length is %d characters)", VRX_MAX_NAMELEN);
    names[i] = envStrdup(menv, s);
    if (!names[i]) return VRX_ERROR_OUT_OF_MEMORY;
  }
  return 0;
}

// The load proper, into a fresh record; errors are raised on the caller's env.
int build(VRXenv* env, const LoadArgs& a, VRXmodel* model) {
  VRXenv* menv = model->env;
  auto* d = envCallocArray<VRXmodeldata>(menv, 1);
  if (!d) return VRX_ERROR_OUT_OF_MEMORY;
  model->data = d;
  const int n = a.numVars, m = a.numConstrs;
  const size_t cols = static_cast<size_t>(n) + static_cast<size_t>(m);
  const double sign = a.objSense < 0 ? -1.0 : 1.0;
  d->numVars = n;
  d->numConstrs = m;
  d->modelSense = a.objSense < 0 ? -1 : 1;
  d->objScale = 1.0;
  d->solvedTag = -1;
  d->objCon = a.objCon == 0.0 ? 0.0 : sign * a.objCon;

  if (a.name) {
    d->modelName = envStrdup(menv, a.name);
    if (!d->modelName) return VRX_ERROR_OUT_OF_MEMORY;
  }

  d->obj = envCallocArray<double>(menv, cols);
  d->rhs = envCallocArray<double>(menv, static_cast<size_t>(m));
  d->sense = envCallocArray<char>(menv, static_cast<size_t>(m));
  d->lb = envCallocArray<double>(menv, cols);
  d->ub = envCallocArray<double>(menv, cols);
  d->colBeg = envCallocArray<int64_t>(menv, cols + 1);
  d->colLen = envCallocArray<int>(menv, cols);
  d->vtype = envAllocArray<char>(menv, cols);
  if (!d->obj || !d->rhs || !d->sense || !d->lb || !d->ub || !d->colBeg || !d->colLen ||
      !d->vtype)
    return VRX_ERROR_OUT_OF_MEMORY;

  for (int j = 0; j < n; ++j) {
    double c = a.obj ? a.obj[j] : 0.0;
    d->obj[j] = c == 0.0 ? 0.0 : sign * c;
  }
  for (int i = 0; i < m; ++i) d->rhs[i] = clampInf(a.rhs[i]);
  for (int j = 0; j < n; ++j) {
    d->lb[j] = a.lb ? clampInf(a.lb[j]) : 0.0;
    d->ub[j] = a.ub ? clampInf(a.ub[j]) : kInf;
  }

  // Matrix: keep what is at least VORN_PAR_ZERO in magnitude.
  const double zero = menv->par.VORN_PAR_ZERO;
  bool matrix = (a.beg32 || a.beg64) && n > 0;
  int64_t given = 0, kept = 0;
  if (matrix) {
    for (int j = 0; j < n; ++j) {
      int64_t beg = begAt(a, j);
      for (int64_t k = beg; k < beg + a.len[j]; ++k) {
        ++given;
        if (std::fabs(a.val[k]) >= zero) ++kept;
      }
    }
  }
  const size_t room = static_cast<size_t>(kept) + static_cast<size_t>(m);
  d->rowInd = envCallocArray<int>(menv, room);
  d->val = envCallocArray<double>(menv, room);
  if (!d->rowInd || !d->val) return VRX_ERROR_OUT_OF_MEMORY;
  int64_t pos = 0;
  for (int j = 0; j < n; ++j) {
    d->colBeg[j] = pos;
    if (matrix) {
      int64_t beg = begAt(a, j);
      for (int64_t k = beg; k < beg + a.len[j]; ++k) {
        if (std::fabs(a.val[k]) < zero) continue;
        d->rowInd[pos] = a.ind[k];
        d->val[pos] = a.val[k];
        ++pos;
      }
    }
    d->colLen[j] = static_cast<int>(pos - d->colBeg[j]);
  }
  for (size_t j = static_cast<size_t>(n); j <= cols; ++j) d->colBeg[j] = pos;
  d->numNZs = kept;
  // The load's lines go to the caller's environment: the model's copy has no
  // log callback of its own yet.
  if (kept < given)
    log(env, "Warning: loading a model with small (< 1e-13) coefficients, ignored\n");

  for (int i = 0; i < m; ++i) {
    int s = normalSense(a.sense[i]);
    if (!s)
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid constraint sense: '%c'",
                   a.sense[i]);
    d->sense[i] = static_cast<char>(s);
  }

  std::memset(d->vtype, 'C', cols);
  if (a.vtype) {
    for (int j = 0; j < n; ++j) {
      char t = a.vtype[j];
      if (t >= 'a' && t <= 'z') t = static_cast<char>(t - 'a' + 'A');
      if (t != 'C' && t != 'B' && t != 'I' && t != 'S' && t != 'N')
        return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid variable type '%c'",
                     a.vtype[j]);
      d->vtype[j] = t;
      if (t == 'C') continue;
      ++d->numIntVars;
      if (t == 'S') continue;
      // The tolerance comes first, so 2.999995 rounds to 3.
      d->lb[j] = std::ceil(d->lb[j] - kIntTol);
      d->ub[j] = std::floor(d->ub[j] + kIntTol);
      if (t == 'B') {
        ++d->numBinVars;
        if (d->lb[j] < 0.0) d->lb[j] = 0.0;
        if (d->ub[j] > 1.0) d->ub[j] = 1.0;
      }
    }
  }

  if (!menv->par.IgnoreNames) {
    int err = loadNames(env, menv, a.varNames, n, &d->varName);
    if (err) return err;
    err = loadNames(env, menv, a.constrNames, m, &d->constrName);
    if (err) return err;
  }

  if (a.numQNZs > 0) {
    int qkept = 0;
    for (int k = 0; k < a.numQNZs; ++k)
      if (std::fabs(a.qVal[k]) >= zero) ++qkept;
    d->qRow = envAllocArray<int>(menv, static_cast<size_t>(qkept));
    d->qCol = envAllocArray<int>(menv, static_cast<size_t>(qkept));
    d->qVal = envAllocArray<double>(menv, static_cast<size_t>(qkept));
    if (!d->qRow || !d->qCol || !d->qVal) return VRX_ERROR_OUT_OF_MEMORY;
    int q = 0;
    for (int k = 0; k < a.numQNZs; ++k) {
      if (std::fabs(a.qVal[k]) < zero) continue;
      d->qRow[q] = a.qRow[k];
      d->qCol[q] = a.qCol[k];
      d->qVal[q] = 2.0 * sign * a.qVal[k];
      ++q;
    }
    d->numQNZs = qkept;
    if (qkept < a.numQNZs)
      log(env, "Warning: loading a model with small (< 1e-13) quadratic coefficients, ignored\n");
  }

  if (a.numSOS > 0) {
    size_t members = static_cast<size_t>(a.sosBeg[a.numSOS] - a.sosBeg[0]);
    d->sosType = envAllocArray<int>(menv, static_cast<size_t>(a.numSOS));
    d->sosBeg = envAllocArray<int64_t>(menv, static_cast<size_t>(a.numSOS) + 1);
    d->sosInd = envAllocArray<int>(menv, members + 1);
    d->sosWeight = envAllocArray<double>(menv, members + 1);
    if (!d->sosType || !d->sosBeg || !d->sosInd || !d->sosWeight) return VRX_ERROR_OUT_OF_MEMORY;
    for (int s = 0; s < a.numSOS; ++s) d->sosType[s] = a.sosType[s];
    for (int s = 0; s <= a.numSOS; ++s) d->sosBeg[s] = a.sosBeg[s] - a.sosBeg[0];
    for (size_t k = 0; k < members; ++k) {
      d->sosInd[k] = a.sosInd[a.sosBeg[0] + k];
      d->sosWeight[k] = a.sosWeight ? a.sosWeight[a.sosBeg[0] + k] : static_cast<double>(k + 1);
    }
    d->numSOS = a.numSOS;
  }
  return 0;
}

template <class T>
bool dupOptional(VRXenv* env, T*& dst, const T* src, size_t count) {
  dst = nullptr;
  if (!src) return true;
  dst = envAllocArray<T>(env, count);
  if (!dst) return false;
  if (count) std::memcpy(dst, src, count * sizeof(T));
  return true;
}

// A fresh record with its own environment copy; null when memory ran out.
VRXmodel* newRecord(VRXenv* parent, int* err) {
  auto* model = envCallocArray<VRXmodel>(parent, 1);
  if (!model) {
    *err = VRX_ERROR_OUT_OF_MEMORY;
    return nullptr;
  }
  model->env = envCopy(parent, true, err);
  if (!model->env) {
    if (!*err) *err = VRX_ERROR_OUT_OF_MEMORY;
    envFree(parent, model);
    return nullptr;
  }
  model->ownsEnv = 1;
  model->status = VRX_LOADED;
  return model;
}

}  // namespace

int modelLoad(VRXenv* env, const LoadArgs& a, VRXmodel** out) {
  *out = nullptr;
  int err = validate(env, a);
  if (err) return err;
  VRXmodel* model = newRecord(env, &err);
  if (!model) return err;
  err = build(env, a, model);
  if (err) {
    modelDestroy(model);
    return err;
  }
  model->magic = kModelMagic;
  if (a.logCall && env->par.VORN_PAR_LOGMODELS)
    log(env, "MODEL LOG: %s %p\n", a.logCall, static_cast<void*>(model));
  *out = model;
  return 0;
}

int modelCopy(VRXmodel* src, VRXmodel** out) {
  *out = nullptr;
  int err = 0;
  VRXmodel* model = newRecord(src->env, &err);
  if (!model) return err;
  VRXenv* menv = model->env;
  err = modelDataCopy(menv, src->data, &model->data);
  if (!err) {
    size_t n = src->data ? static_cast<size_t>(src->data->numVars) : 0;
    size_t m = src->data ? static_cast<size_t>(src->data->numConstrs) : 0;
    size_t starts = src->startCount > 0 ? static_cast<size_t>(src->startCount) * n : 0;
    bool ok = true;
    ok = dupOptional(menv, model->branchPriority, src->branchPriority, n) && ok;
    ok = dupOptional(menv, model->hintValue, src->hintValue, n) && ok;
    ok = dupOptional(menv, model->lazyFlag, src->lazyFlag, m) && ok;
    ok = dupOptional(menv, model->hintPriority, src->hintPriority, n) && ok;
    ok = dupOptional(menv, model->partition, src->partition, n) && ok;
    ok = dupOptional(menv, model->starts, src->starts, starts) && ok;
    model->startCount = model->starts ? src->startCount : 0;
    if (!ok) err = VRX_ERROR_OUT_OF_MEMORY;
  }
  // The results of a solve, the warm start and the derived stores stay with
  // the original: the copy starts unsolved.
  if (err) {
    modelDestroy(model);
    return err;
  }
  model->magic = kModelMagic;
  *out = model;
  return 0;
}

void modelDestroy(VRXmodel* model) {
  VRXenv* env = model->env;
  joinWorker(model);
  nameIndexFree(env, model->nameIndex.vars);
  nameIndexFree(env, model->nameIndex.constrs);
  model->nameIndex.vars = model->nameIndex.constrs = nullptr;
  envFree(env, model->branchPriority);
  envFree(env, model->hintValue);
  envFree(env, model->lazyFlag);
  envFree(env, model->hintPriority);
  envFree(env, model->partition);
  envFree(env, model->starts);
  warmStartFree(env, warmOf(model));
  model->warmStart = nullptr;
  pendingFree(env, model->pending);
  model->pending = nullptr;
  resultFree(env, model->result);
  model->result = nullptr;
  objListFree(env, model->objList);
  model->objList = nullptr;
  envFree(env, model->attrScratch);
  model->attrScratch = nullptr;
  model->attrScratchSize = 0;
  VRXlpFreeOnModel(model);
  presolveMapDrop(model);
  // rowStore gets its free routine with the record that fills it.
  modelDataFree(env, model->data);
  modelDataFree(env, model->presolved);
  modelDataFree(env, model->relaxed);
  model->data = model->presolved = model->relaxed = nullptr;
  discardModelEnvLists(model);
  model->magic = 0;
  VRXcbdata* cb = env->cbData;
  if (cb && cb->model == model) {
    cb->magic = 0;
    env->cbData = nullptr;
  }
  envFree(env, model->cbState);
  bool ownsEnv = model->ownsEnv != 0;
  envFree(env, model);
  if (ownsEnv) envFreeRecord(env);
}

int modelEnter(VRXmodel* model) {
  if (!model) return VRX_ERROR_NULL_ARGUMENT;
  if (model->magic != kModelMagic) return VRX_ERROR_INVALID_ARGUMENT;
  if (model->asyncPending || (model->optimizing && !model->accessAllowed))
    return raise(model->env, VRX_ERROR_OPTIMIZATION_IN_PROGRESS, true, "%s",
                 errorTableText(VRX_ERROR_OPTIMIZATION_IN_PROGRESS));
  return VRXcheckmodel(model);
}

void modelShareEnv(VRXmodel* model, VRXenv* env) {
  VRXenv* own = model->env;
  model->env = env;
  model->ownsEnv = 0;
  envFreeRecord(own);
}

int modelLoadDerived(VRXenv* env, const LoadArgs& args, VRXmodel** out) {
  int rc = modelLoad(env, args, out);
  if (rc) return rc;
  modelShareEnv(*out, env);
  return 0;
}

}  // namespace vrx

using namespace vrx;

namespace {

// The environment check of a call on an environment; it opens the call with
// a clear error store, as the model check does for a model.
int envEnter(VRXenv* env) {
  int err = checkEnv(env);
  if (err) return err;
  if (!env->errorFrozen) {
    env->errorCode = 0;
    env->errorText[0] = '\0';
  }
  return 0;
}

int loadModel(VRXenv* env, VRXmodel** modelP, const char* Pname, int numvars, int numconstrs,
              int objsense, double objcon, const double* obj, const char* sense,
              const double* rhs, const int* vbeg32, const size_t* vbeg64, const int* vlen,
              const int* vind, const double* vval, const double* lb, const double* ub,
              const char* vtype, char** varnames, char** constrnames) {
  if (modelP) *modelP = nullptr;
  int err = envEnter(env);
  if (err) return err;
  return guarded(env, [&] {
    if (!modelP) return setError(env, VRX_ERROR_NULL_ARGUMENT);
    if (numvars < 0 || numconstrs < 0) return setError(env, VRX_ERROR_INVALID_ARGUMENT);
    if (numvars > 0 && ((!vbeg32 && !vbeg64) || !vlen || !vind || !vval))
      return setError(env, VRX_ERROR_NULL_ARGUMENT);
    if (numconstrs > 0 && (!sense || !rhs)) return setError(env, VRX_ERROR_NULL_ARGUMENT);
    LoadArgs a;
    a.name = Pname;
    a.numVars = numvars;
    a.numConstrs = numconstrs;
    a.objSense = objsense;
    a.objCon = objcon;
    a.obj = obj;
    a.sense = sense;
    a.rhs = rhs;
    a.beg32 = vbeg32;
    a.beg64 = vbeg64;
    a.len = vlen;
    a.ind = vind;
    a.val = vval;
    a.lb = lb;
    a.ub = ub;
    a.vtype = vtype;
    a.varNames = varnames;
    a.constrNames = constrnames;
    a.logCall = "VRXloadmodel";
    return setError(env, modelLoad(env, a, modelP));
  });
}

}  // namespace

extern "C" {

VRX_API int VRXnewmodel(VRXenv* env, VRXmodel** modelP, const char* Pname, int numvars,
                        const double* obj, const double* lb, const double* ub,
                        const char* vtype, char** varnames) {
  if (modelP) *modelP = nullptr;
  int err = envEnter(env);
  if (err) return err;
  return guarded(env, [&] {
    if (!modelP) return setError(env, VRX_ERROR_NULL_ARGUMENT);
    if (numvars < 0) return setError(env, VRX_ERROR_INVALID_ARGUMENT);
    LoadArgs a;
    a.name = Pname;
    a.numVars = numvars;
    a.obj = obj;
    a.lb = lb;
    a.ub = ub;
    a.vtype = vtype;
    a.varNames = varnames;
    a.logCall = "VRXnewmodel";
    return setError(env, modelLoad(env, a, modelP));
  });
}

VRX_API int VRXloadmodel(VRXenv* env, VRXmodel** modelP, const char* Pname, int numvars,
                         int numconstrs, int objsense, double objcon, const double* obj,
                         const char* sense, const double* rhs, const int* vbeg,
                         const int* vlen, const int* vind, const double* vval, const double* lb,
                         const double* ub, const char* vtype, char** varnames,
                         char** constrnames) {
  return loadModel(env, modelP, Pname, numvars, numconstrs, objsense, objcon, obj, sense, rhs,
                   vbeg, nullptr, vlen, vind, vval, lb, ub, vtype, varnames, constrnames);
}

VRX_API int VRXXloadmodel(VRXenv* env, VRXmodel** modelP, const char* Pname, int numvars,
                          int numconstrs, int objsense, double objcon, const double* obj,
                          const char* sense, const double* rhs, const size_t* vbeg,
                          const int* vlen, const int* vind, const double* vval,
                          const double* lb, const double* ub, const char* vtype,
                          char** varnames, char** constrnames) {
  return loadModel(env, modelP, Pname, numvars, numconstrs, objsense, objcon, obj, sense, rhs,
                   nullptr, vbeg, vlen, vind, vval, lb, ub, vtype, varnames, constrnames);
}

VRX_API int VRXfreemodel(VRXmodel* model) {
  if (!model) return 0;
  int err = checkModelHandle(model);
  if (err) {
    if (err == VRX_ERROR_OPTIMIZATION_IN_PROGRESS) setError(model->env, err);
    return err;
  }
  VRXenv* env = model->env;
  if (env->par.VORN_PAR_LOGMODELS)
    log(env, "MODEL LOG: VRXfreemodel %p\n", static_cast<void*>(model));
  // Calls on this model are no longer recorded.
  model->recordThis = 0;
  modelDestroy(model);
  return 0;
}

VRX_API VRXmodel* VRXcopymodel(VRXmodel* model) {
  if (modelEnter(model)) return nullptr;
  VRXenv* env = model->env;
  VRXmodel* copy = nullptr;
  guarded(env, [&] {
    // The copy takes the store with the batch applied.
    int err = modelUpdate(model);
    if (err) return setError(env, err);
    return setError(env, modelCopy(model, &copy));
  });
  return copy;
}

}  // extern "C"
