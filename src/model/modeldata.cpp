// The committed store: free, deep copy, names, and the number checks.
#include "model/modeldata.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "model/model.h"

namespace vrx {

namespace {

template <class T>
void freeArray(VRXenv* env, T*& p) {
  envFree(env, p);
  p = nullptr;
}

void freeStrings(VRXenv* env, char**& names, size_t count) {
  if (!names) return;
  for (size_t i = 0; i < count; ++i) envFree(env, names[i]);
  freeArray(env, names);
}

// Always sets *dst: a fresh copy, or null for a null source or a failure.
template <class T>
bool dup(VRXenv* env, T*& dst, const T* src, size_t count) {
  dst = nullptr;
  if (!src) return true;
  dst = envAllocArray<T>(env, count);
  if (!dst) return false;
  if (count) std::memcpy(dst, src, count * sizeof(T));
  return true;
}

bool dupStrings(VRXenv* env, char**& dst, char* const* src, size_t count) {
  dst = nullptr;
  if (!src) return true;
  dst = envCallocArray<char*>(env, count);
  if (!dst) return false;
  for (size_t i = 0; i < count; ++i) {
    if (!src[i]) continue;
    dst[i] = envStrdup(env, src[i]);
    if (!dst[i]) return false;
  }
  return true;
}

void genConstrFree(VRXenv* env, VRXgenconstr& g) {
  freeArray(env, g.name);
  freeArray(env, g.vars);
  freeArray(env, g.ind);
  freeArray(env, g.val);
}

bool genConstrCopy(VRXenv* env, VRXgenconstr& dst, const VRXgenconstr& src) {
  dst = src;
  size_t c = src.count > 0 ? static_cast<size_t>(src.count) : 0;
  bool ok = true;
  ok = dup(env, dst.vars, src.vars, c) && ok;
  ok = dup(env, dst.ind, src.ind, c) && ok;
  ok = dup(env, dst.val, src.val, c) && ok;
  dst.name = nullptr;
  if (src.name) {
    dst.name = envStrdup(env, src.name);
    ok = dst.name && ok;
  }
  return ok;
}

// Writes a checker's text only into an empty, unfrozen store.
int quietRaise(VRXenv* env, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
int quietRaise(VRXenv* env, const char* fmt, ...) {
  if (env && env->errorText && !env->errorFrozen && env->errorText[0] == '\0') {
    va_list ap;
    va_start(ap, fmt);
    raiseV(env, VRX_ERROR_INVALID_ARGUMENT, false, fmt, ap);
    va_end(ap);
  }
  return VRX_ERROR_INVALID_ARGUMENT;
}

}  // namespace

void modelDataFree(VRXenv* env, VRXmodeldata* d) {
  if (!d) return;
  size_t n = d->numVars > 0 ? static_cast<size_t>(d->numVars) : 0;
  size_t m = d->numConstrs > 0 ? static_cast<size_t>(d->numConstrs) : 0;
  size_t nq = d->numQConstrs > 0 ? static_cast<size_t>(d->numQConstrs) : 0;
  freeArray(env, d->obj);
  freeArray(env, d->colBeg);
  freeArray(env, d->colLen);
  freeArray(env, d->rowInd);
  freeArray(env, d->val);
  freeArray(env, d->rowBeg);
  freeArray(env, d->rowLen);
  freeArray(env, d->colInd);
  freeArray(env, d->rowVal);
  freeArray(env, d->sosType);
  freeArray(env, d->sosBeg);
  freeArray(env, d->sosInd);
  freeArray(env, d->sosWeight);
  if (d->genConstrs) {
    for (int i = 0; i < d->numGenConstrs; ++i) genConstrFree(env, d->genConstrs[i]);
    freeArray(env, d->genConstrs);
  }
  freeArray(env, d->qRow);
  freeArray(env, d->qCol);
  freeArray(env, d->qVal);
  freeArray(env, d->qcLinBeg);
  freeArray(env, d->qcLinInd);
  freeArray(env, d->qcLinVal);
  freeArray(env, d->qcQuadBeg);
  freeArray(env, d->qcRow);
  freeArray(env, d->qcCol);
  freeArray(env, d->qcVal);
  freeArray(env, d->qcSense);
  freeArray(env, d->qcRHS);
  freeArray(env, d->pwlBeg);
  freeArray(env, d->pwlCount);
  freeArray(env, d->pwlX);
  freeArray(env, d->pwlY);
  freeArray(env, d->coneBeg);
  freeArray(env, d->coneInd);
  freeArray(env, d->rhs);
  freeArray(env, d->sense);
  freeArray(env, d->lb);
  freeArray(env, d->ub);
  freeArray(env, d->rowScale);
  freeArray(env, d->colScale);
  freeArray(env, d->colFlipped);
  freeArray(env, d->vtype);
  freeArray(env, d->modelName);
  freeStrings(env, d->constrName, m);
  freeStrings(env, d->varName, n);
  freeStrings(env, d->qcName, nq);
  envFree(env, d);
}

int modelDataCopy(VRXenv* env, const VRXmodeldata* src, VRXmodeldata** out) {
  *out = nullptr;
  if (!src) return 0;
  auto* d = envCallocArray<VRXmodeldata>(env, 1);
  if (!d) return VRX_ERROR_OUT_OF_MEMORY;
  *d = *src;
  size_t n = src->numVars > 0 ? static_cast<size_t>(src->numVars) : 0;
  size_t m = src->numConstrs > 0 ? static_cast<size_t>(src->numConstrs) : 0;
  size_t cols = n + m;
  size_t nz = static_cast<size_t>(src->numNZs) + m;
  size_t ns = src->numSOS > 0 ? static_cast<size_t>(src->numSOS) : 0;
  size_t nq = src->numQConstrs > 0 ? static_cast<size_t>(src->numQConstrs) : 0;
  size_t sosNZ = src->sosBeg ? static_cast<size_t>(src->sosBeg[ns]) : 0;
  size_t qcLin = src->qcLinBeg ? static_cast<size_t>(src->qcLinBeg[nq]) : 0;
  size_t qcQuad = src->qcQuadBeg ? static_cast<size_t>(src->qcQuadBeg[nq]) : 0;
  size_t qnz = src->numQNZs > 0 ? static_cast<size_t>(src->numQNZs) : 0;
  size_t pwl = src->numPWLPoints > 0 ? static_cast<size_t>(src->numPWLPoints) : 0;

  // Every pointer is replaced, by a copy or by null, before anything can fail,
  // so that a failed copy frees only its own blocks.
  bool ok = true;
  ok = dup(env, d->obj, src->obj, cols) && ok;
  ok = dup(env, d->colBeg, src->colBeg, cols + 1) && ok;
  ok = dup(env, d->colLen, src->colLen, cols) && ok;
  ok = dup(env, d->rowInd, src->rowInd, nz) && ok;
  ok = dup(env, d->val, src->val, nz) && ok;
  d->rowBeg = nullptr;
  d->rowLen = nullptr;
  d->colInd = nullptr;
  d->rowVal = nullptr;
  d->objList = nullptr;  // nothing creates further objectives yet
  ok = dup(env, d->sosType, src->sosType, ns) && ok;
  ok = dup(env, d->sosBeg, src->sosBeg, ns + 1) && ok;
  ok = dup(env, d->sosInd, src->sosInd, sosNZ) && ok;
  ok = dup(env, d->sosWeight, src->sosWeight, sosNZ) && ok;
  d->genConstrs = nullptr;
  d->numGenConstrs = 0;
  if (src->genConstrs && src->numGenConstrs > 0) {
    d->genConstrs = envCallocArray<VRXgenconstr>(env, static_cast<size_t>(src->numGenConstrs));
    if (!d->genConstrs) {
      ok = false;
    } else {
      // The count grows with each copied entry so a failure frees only those.
      for (int i = 0; i < src->numGenConstrs; ++i) {
        bool one = genConstrCopy(env, d->genConstrs[i], src->genConstrs[i]);
        d->numGenConstrs = i + 1;
        if (!one) {
          ok = false;
          break;
        }
      }
      if (ok) d->numGenConstrs = src->numGenConstrs;
    }
  }
  ok = dup(env, d->qRow, src->qRow, qnz) && ok;
  ok = dup(env, d->qCol, src->qCol, qnz) && ok;
  ok = dup(env, d->qVal, src->qVal, qnz) && ok;
  ok = dup(env, d->qcLinBeg, src->qcLinBeg, nq + 1) && ok;
  ok = dup(env, d->qcLinInd, src->qcLinInd, qcLin) && ok;
  ok = dup(env, d->qcLinVal, src->qcLinVal, qcLin) && ok;
  ok = dup(env, d->qcQuadBeg, src->qcQuadBeg, nq + 1) && ok;
  ok = dup(env, d->qcRow, src->qcRow, qcQuad) && ok;
  ok = dup(env, d->qcCol, src->qcCol, qcQuad) && ok;
  ok = dup(env, d->qcVal, src->qcVal, qcQuad) && ok;
  ok = dup(env, d->qcSense, src->qcSense, nq) && ok;
  ok = dup(env, d->qcRHS, src->qcRHS, nq) && ok;
  ok = dup(env, d->pwlBeg, src->pwlBeg, n) && ok;
  ok = dup(env, d->pwlCount, src->pwlCount, n) && ok;
  ok = dup(env, d->pwlX, src->pwlX, pwl) && ok;
  ok = dup(env, d->pwlY, src->pwlY, pwl) && ok;
  size_t nc = src->numCones > 0 ? static_cast<size_t>(src->numCones) : 0;
  size_t coneNZ = src->coneBeg ? static_cast<size_t>(src->coneBeg[nc]) : 0;
  ok = dup(env, d->coneBeg, src->coneBeg, nc + 1) && ok;
  ok = dup(env, d->coneInd, src->coneInd, coneNZ) && ok;
  ok = dup(env, d->rhs, src->rhs, m) && ok;
  ok = dup(env, d->sense, src->sense, m) && ok;
  ok = dup(env, d->lb, src->lb, cols) && ok;
  ok = dup(env, d->ub, src->ub, cols) && ok;
  ok = dup(env, d->rowScale, src->rowScale, m) && ok;
  ok = dup(env, d->colScale, src->colScale, cols) && ok;
  ok = dup(env, d->colFlipped, src->colFlipped, cols) && ok;
  ok = dup(env, d->vtype, src->vtype, cols) && ok;
  d->modelName = nullptr;
  if (src->modelName) {
    d->modelName = envStrdup(env, src->modelName);
    ok = d->modelName && ok;
  }
  ok = dupStrings(env, d->constrName, src->constrName, m) && ok;
  ok = dupStrings(env, d->varName, src->varName, n) && ok;
  ok = dupStrings(env, d->qcName, src->qcName, nq) && ok;
  if (!ok) {
    modelDataFree(env, d);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  *out = d;
  return 0;
}

const char* modelVarName(const VRXmodeldata* data, int j, char* buf, size_t size) {
  if (data->varName && data->varName[j]) return data->varName[j];
  std::snprintf(buf, size, "C%d", j);
  return buf;
}

const char* modelConstrName(const VRXmodeldata* data, int i, char* buf, size_t size) {
  if (data->constrName && data->constrName[i]) return data->constrName[i];
  std::snprintf(buf, size, "R%d", i);
  return buf;
}

double storeValue(const VRXmodeldata* d, int row, int col, double v) {
  if (d->colScale) v *= 1.0 / d->colScale[col];
  if (d->rowScale) v /= d->rowScale[row];
  if (d->colFlipped && d->colFlipped[col]) v = -v;
  if (d->geRowsNegated && d->sense[row] == '>') v = -v;
  return v;
}

int checkFinite(VRXenv* env, double value) {
  if (std::isfinite(value)) return 0;
  return quietRaise(env, "Double value is Nan or Inf.");
}

int checkFiniteArray(VRXenv* env, const double* values, int count) {
  if (!values) return 0;
  for (int i = 0; i < count; ++i)
    if (!std::isfinite(values[i]))
      return quietRaise(env, "Element %d of a double array is Nan or Inf.", i);
  return 0;
}

int checkQuadArray(VRXenv* env, const double* values, int count) {
  if (!values) return 0;
  // The store keeps quadratic values doubled: they must stay finite after that.
  for (int i = 0; i < count; ++i)
    if (!std::isfinite(2.0 * values[i]))
      return quietRaise(env, "Element %d of a double array is Nan or Inf.", i);
  return 0;
}

int checkFiniteArrayX(VRXenv* env, const double* values, size_t count) {
  if (!values) return 0;
  for (size_t i = 0; i < count; ++i)
    if (!std::isfinite(values[i]))
      return quietRaise(env, "Element %lu of a double array is Nan or Inf.",
                        static_cast<unsigned long>(i));
  return 0;
}

int checkNotNan(VRXenv* env, double value) {
  if (!std::isnan(value)) return 0;
  return quietRaise(env, "Double value is Nan.");
}

int checkNotNanArray(VRXenv* env, const double* values, int count) {
  if (!values) return 0;
  for (int i = 0; i < count; ++i)
    if (std::isnan(values[i])) return quietRaise(env, "Element %d of a double array is Nan.", i);
  return 0;
}

int checkNotNanArrayX(VRXenv* env, const double* values, size_t count) {
  if (!values) return 0;
  for (size_t i = 0; i < count; ++i)
    if (std::isnan(values[i]))
      return quietRaise(env, "Element %lu of a double array is Nan.",
                        static_cast<unsigned long>(i));
  return 0;
}

}  // namespace vrx
