// The attribute table and the get and set families over it.
#include <cmath>
#include <cstdio>
#include <cstring>

#include "env/nameindex.h"
#include "model/callback.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model/result.h"

namespace vrx {

int setNumObj(VRXmodel* m, int count);

namespace {

enum AttrType { tChar = 0, tInt = 1, tDbl = 2, tStr = 3 };
enum AttrKind { kModel = 0, kVar = 1, kConstr = 2, kSos = 3, kQConstr = 4, kGenConstr = 5 };

union Value {
  char c;
  int i;
  double d;
  const char* s;
};

constexpr int kNameBuf = 32;

using ScalarGet = int (*)(VRXmodel*, Value*);
using ScalarSet = int (*)(VRXmodel*, const Value&);
// One element; buf holds kNameBuf bytes for a default name.
using ElemGet = int (*)(VRXmodel*, int, Value*, char* buf);
using ElemSet = int (*)(VRXmodel*, int, const Value&);
// A contiguous array of the row's type, for block copies; null when absent.
using Direct = const void* (*)(VRXmodel*);
using Prepare = int (*)(VRXmodel*);

struct AttrRow {
  const char* name;
  int type;
  int kind;
  int settable;
  int needsSolve;
  Prepare prepare;
  ScalarGet sget;
  ScalarSet sset;
  Direct direct;
  ElemGet eget;
  ElemSet eset;
};

const char* const kTypeNames[] = {"char", "int", "double", "string"};

VRXmodeldata* D(VRXmodel* m) { return m->data; }
VRXresult* R(VRXmodel* m) { return m->result; }
double sense(VRXmodel* m) { return static_cast<double>(m->data->modelSense); }

int notAvailable() { return VRX_ERROR_DATA_NOT_AVAILABLE; }

// ---- model scalars ----
int gNumConstrs(VRXmodel* m, Value* v) { v->i = D(m)->numConstrs; return 0; }
int gNumVars(VRXmodel* m, Value* v) { v->i = D(m)->numVars; return 0; }
int gNumSOS(VRXmodel* m, Value* v) { v->i = D(m)->numSOS; return 0; }
int gNumQConstrs(VRXmodel* m, Value* v) { v->i = D(m)->numQConstrs; return 0; }
int gNumGenConstrs(VRXmodel* m, Value* v) { v->i = D(m)->numGenConstrs; return 0; }
int gNumNZs(VRXmodel* m, Value* v) {
  if (D(m)->numNZs > 2147483647) return VRX_ERROR_EXCEED_2B_NONZEROS;
  v->i = static_cast<int>(D(m)->numNZs);
  return 0;
}
int gDNumNZs(VRXmodel* m, Value* v) { v->d = static_cast<double>(D(m)->numNZs); return 0; }
int gNumQNZs(VRXmodel* m, Value* v) { v->i = D(m)->numQNZs; return 0; }
int gNumQCNZs(VRXmodel* m, Value* v) { v->i = D(m)->numQCNZs; return 0; }
int gNumIntVars(VRXmodel* m, Value* v) { v->i = D(m)->numIntVars; return 0; }
int gNumBinVars(VRXmodel* m, Value* v) { v->i = D(m)->numBinVars; return 0; }
int gNumPWLObjVars(VRXmodel* m, Value* v) { v->i = D(m)->numPWLObjVars; return 0; }
int gModelName(VRXmodel* m, Value* v) { v->s = D(m)->modelName ? D(m)->modelName : ""; return 0; }
int sModelName(VRXmodel* m, const Value& v) { return stageModelName(m, v.s); }
int gModelSense(VRXmodel* m, Value* v) { v->i = D(m)->modelSense; return 0; }
int sModelSense(VRXmodel* m, const Value& v) {
  if (v.i != 1 && v.i != -1)
    return raise(m->env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid objective sense");
  return stageModelSense(m, v.i);
}
int gObjCon(VRXmodel* m, Value* v) { v->d = D(m)->objCon * sense(m); return 0; }
int sObjCon(VRXmodel* m, const Value& v) { return stageObjCon(m, v.d); }
int gIsMIP(VRXmodel* m, Value* v) {
  const VRXmodeldata* d = D(m);
  v->i = (d->numIntVars > 0 || d->numSOS > 0 || d->numGenConstrs > 0) ? 1 : 0;
  return 0;
}
int gIsQCP(VRXmodel* m, Value* v) { v->i = D(m)->numQConstrs > 0 ? 1 : 0; return 0; }
int gIsQP(VRXmodel* m, Value* v) { v->i = D(m)->numQNZs > 0 ? 1 : 0; return 0; }
int gIsMultiObj(VRXmodel* m, Value* v) { v->i = m->objList && m->objList->count > 1 ? 1 : 0; return 0; }
int gRemoteOnly(VRXmodel*, Value*) { return notAvailable(); }
int gIISMinimal(VRXmodel* m, Value* v) {
  if (!R(m) || R(m)->iisMinimal < 0) return notAvailable();
  v->i = R(m)->iisMinimal;
  return 0;
}
int resultIndex(VRXmodel* m, double VRXresult::*field, Value* v) {
  if (!R(m) || R(m)->*field == kNotAvailable) return notAvailable();
  v->i = static_cast<int>(R(m)->*field);
  return 0;
}
int gInfeasVar(VRXmodel* m, Value* v) { return resultIndex(m, &VRXresult::infeasVar, v); }
int gUnbdVar(VRXmodel* m, Value* v) { return resultIndex(m, &VRXresult::unbdVar, v); }
int resultDouble(VRXmodel* m, double VRXresult::*field, Value* v) {
  if (!R(m) || R(m)->*field == kNotAvailable) return notAvailable();
  v->d = R(m)->*field;
  return 0;
}
int gFarkasProof(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::farkasProof, v); }

// ---- variables ----
int gLB(VRXmodel* m, int j, Value* v, char*) { v->d = D(m)->lb[j]; return 0; }
int gUB(VRXmodel* m, int j, Value* v, char*) { v->d = D(m)->ub[j]; return 0; }
const void* dLB(VRXmodel* m) { return D(m)->lb; }
const void* dUB(VRXmodel* m) { return D(m)->ub; }
int sLB(VRXmodel* m, int j, const Value& v) { return stageLB(m, j, v.d); }
int sUB(VRXmodel* m, int j, const Value& v) { return stageUB(m, j, v.d); }
int gObj(VRXmodel* m, int j, Value* v, char*) { v->d = D(m)->obj[j] * sense(m); return 0; }
int sObj(VRXmodel* m, int j, const Value& v) { return stageObj(m, j, v.d); }
int gVType(VRXmodel* m, int j, Value* v, char*) { v->c = D(m)->vtype[j]; return 0; }
const void* dVType(VRXmodel* m) { return D(m)->vtype; }
int sVType(VRXmodel* m, int j, const Value& v) { return stageVType(m, j, v.c); }

int startBlock(VRXmodel* m, bool write, double** out) {
  int k = m->env->par.StartNumber;
  if (m->startCount == 0 && k == 0 && write) {
    // The first write of Start makes the first start.
    int n = D(m)->numVars;
    m->starts = envAllocArray<double>(m->env, static_cast<size_t>(n) + 1);
    if (!m->starts) return VRX_ERROR_OUT_OF_MEMORY;
    for (int j = 0; j < n; ++j) m->starts[j] = kNotAvailable;
    m->startCount = 1;
  }
  if (m->startCount == 0) return notAvailable();
  if (k >= m->startCount)
    return raise(m->env, VRX_ERROR_VALUE_OUT_OF_RANGE, true, "StartNumber is larger than NumStart");
  *out = m->starts + static_cast<size_t>(k) * static_cast<size_t>(D(m)->numVars);
  return 0;
}
int gStart(VRXmodel* m, int j, Value* v, char*) {
  double* s = nullptr;
  int err = startBlock(m, false, &s);
  if (!err) v->d = s[j];
  return err;
}
int sStart(VRXmodel* m, int j, const Value& v) {
  if (j >= D(m)->numVars) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  double* s = nullptr;
  int err = startBlock(m, true, &s);
  if (!err) s[j] = v.d;
  return err;
}
int gNumStart(VRXmodel* m, Value* v) { v->i = m->startCount; return 0; }
int sNumStart(VRXmodel* m, const Value& v) {
  if (v.i < 0) {
    log(m->env, "Setting attribute NumStart to a negative number, ignored\n");
    return 0;
  }
  if (v.i > kMaxInt) {
    log(m->env, "Setting attribute NumStart to a too big number %d, ignore\n", v.i);
    return 0;
  }
  size_t n = static_cast<size_t>(D(m)->numVars);
  if (v.i == 0) {
    envFree(m->env, m->starts);
    m->starts = nullptr;
    m->startCount = 0;
    return 0;
  }
  auto* grown = static_cast<double*>(
      envRealloc(m->env, m->starts, (static_cast<size_t>(v.i) * n + 1) * sizeof(double)));
  if (!grown) return VRX_ERROR_OUT_OF_MEMORY;
  for (size_t k = static_cast<size_t>(m->startCount) * n; k < static_cast<size_t>(v.i) * n; ++k)
    grown[k] = kNotAvailable;
  m->starts = grown;
  m->startCount = v.i;
  return 0;
}

const VRXwarmstart* warm(VRXmodel* m) { return static_cast<const VRXwarmstart*>(m->warmStart); }
int warmStartValue(VRXmodel* m, int k, Value* v) {
  const VRXwarmstart* ws = warm(m);
  if (!ws || !ws->start || k >= ws->size) return notAvailable();
  v->d = ws->start[k];
  return 0;
}
int gPStart(VRXmodel* m, int j, Value* v, char*) { return warmStartValue(m, j, v); }
int sPStart(VRXmodel* m, int j, const Value& v) { return warmSetPStart(m, j, v.d); }
int gDStart(VRXmodel* m, int i, Value* v, char*) {
  const VRXwarmstart* ws = warm(m);
  return warmStartValue(m, (ws ? ws->columnCount : 0) + i, v);
}
int sDStart(VRXmodel* m, int i, const Value& v) { return warmSetDStart(m, i, v.d); }

int gBranchPriority(VRXmodel* m, int j, Value* v, char*) {
  v->i = m->branchPriority ? m->branchPriority[j] : 0;
  return 0;
}
int sBranchPriority(VRXmodel* m, int j, const Value& v) { return stageBranchPriority(m, j, v.i); }
int gVarName(VRXmodel* m, int j, Value* v, char* buf) {
  v->s = modelVarName(D(m), j, buf, kNameBuf);
  return 0;
}
int sVarName(VRXmodel* m, int j, const Value& v) { return stageVarName(m, j, v.s); }
int gPWLObjCvx(VRXmodel* m, int j, Value* v, char*) {
  const VRXmodeldata* d = D(m);
  v->i = 1;
  if (!d->pwlBeg || !d->pwlCount || d->pwlCount[j] < 2) return 0;
  // Convex when the slopes do not fall, in the caller's sense.
  const double* x = d->pwlX + d->pwlBeg[j];
  const double* y = d->pwlY + d->pwlBeg[j];
  double last = -kInf;
  for (int k = 1; k < d->pwlCount[j]; ++k) {
    if (x[k] == x[k - 1]) {
      // A jump has no convex form.
      if (y[k] != y[k - 1]) {
        v->i = 0;
        break;
      }
      continue;
    }
    double slope = (y[k] - y[k - 1]) / (x[k] - x[k - 1]);
    if (slope < last - 1e-12) {
      v->i = 0;
      break;
    }
    last = slope;
  }
  return 0;
}
int gVarHintVal(VRXmodel* m, int j, Value* v, char*) {
  v->d = m->hintValue ? m->hintValue[j] : kNotAvailable;
  return 0;
}
int sVarHintVal(VRXmodel* m, int j, const Value& v) { return stageVarHintVal(m, j, v.d); }
int gVarHintPri(VRXmodel* m, int j, Value* v, char*) {
  v->i = m->hintPriority ? m->hintPriority[j] : 0;
  return 0;
}
int sVarHintPri(VRXmodel* m, int j, const Value& v) { return stageVarHintPri(m, j, v.i); }
int gPartition(VRXmodel* m, int j, Value* v, char*) {
  v->i = m->partition ? m->partition[j] : 0;
  return 0;
}
int sPartition(VRXmodel* m, int j, const Value& v) { return stagePartition(m, j, v.i); }

// ---- constraints ----
int gRHS(VRXmodel* m, int i, Value* v, char*) { v->d = D(m)->rhs[i]; return 0; }
const void* dRHS(VRXmodel* m) { return D(m)->rhs; }
int sRHS(VRXmodel* m, int i, const Value& v) { return stageRHS(m, i, v.d); }
int gSense(VRXmodel* m, int i, Value* v, char*) { v->c = D(m)->sense[i]; return 0; }
const void* dSense(VRXmodel* m) { return D(m)->sense; }
int sSense(VRXmodel* m, int i, const Value& v) { return stageSense(m, i, v.c); }
int gConstrName(VRXmodel* m, int i, Value* v, char* buf) {
  v->s = modelConstrName(D(m), i, buf, kNameBuf);
  return 0;
}
int sConstrName(VRXmodel* m, int i, const Value& v) { return stageConstrName(m, i, v.s); }
int gLazy(VRXmodel* m, int i, Value* v, char*) {
  v->i = m->lazyFlag ? m->lazyFlag[i] : 0;
  return 0;
}
int sLazy(VRXmodel* m, int i, const Value& v) { return stageLazy(m, i, v.i); }

// ---- quadratic and general constraints ----
int gQCRHS(VRXmodel* m, int q, Value* v, char*) { v->d = D(m)->qcRHS[q]; return 0; }
int sQCRHS(VRXmodel* m, int q, const Value& v) { return stageQCRHS(m, q, v.d); }
int gQCSense(VRXmodel* m, int q, Value* v, char*) { v->c = D(m)->qcSense[q]; return 0; }
int sQCSense(VRXmodel* m, int q, const Value& v) { return stageQCSense(m, q, v.c); }
int gQCName(VRXmodel* m, int q, Value* v, char* buf) {
  const VRXmodeldata* d = D(m);
  if (d->qcName && d->qcName[q]) {
    v->s = d->qcName[q];
  } else {
    std::snprintf(buf, kNameBuf, "QC%d", q);
    v->s = buf;
  }
  return 0;
}
int sQCName(VRXmodel* m, int q, const Value& v) { return stageQCName(m, q, v.s); }
int gGenConstrType(VRXmodel* m, int g, Value* v, char*) { v->i = D(m)->genConstrs[g].type; return 0; }
int gGenConstrName(VRXmodel* m, int g, Value* v, char* buf) {
  const VRXgenconstr& gc = D(m)->genConstrs[g];
  if (gc.name) {
    v->s = gc.name;
  } else {
    std::snprintf(buf, kNameBuf, "GC%d", g);
    v->s = buf;
  }
  return 0;
}
int sGenConstrName(VRXmodel* m, int g, const Value& v) { return stageGenConstrName(m, g, v.s); }

// ---- several objectives ----
int objNumberCheck(VRXmodel* m, bool write, VRXobjective** out) {
  int k = m->env->par.ObjNumber;
  int count = m->objList ? m->objList->count : 0;
  if (count == 0 && !write) {
    log(m->env, "Error: it isn't a multi-objective model\n");
    return raise(m->env, VRX_ERROR_DATA_NOT_AVAILABLE, true, "Error: it isn't a multi-objective model\n");
  }
  if (k >= (count > 0 ? count : 1)) {
    log(m->env, "Error: value of parameter ObjNumber is larger than the number of objectives\n");
    return raise(m->env, VRX_ERROR_VALUE_OUT_OF_RANGE, true,
                 "Error: value of parameter ObjNumber is larger than the number of objectives\n");
  }
  if (count == 0) {
    // The first write makes the model's one objective the first of a list.
    int err = setNumObj(m, 1);
    if (err) return err;
  }
  *out = &m->objList->items[k];
  return 0;
}
int gNumObj(VRXmodel* m, Value* v) {
  v->i = m->objList ? m->objList->count : 1;
  return 0;
}
int sNumObj(VRXmodel* m, const Value& v) {
  if (v.i < 0) {
    log(m->env, "Setting attribute NumObj to a negative number, ignored\n");
    return 0;
  }
  if (v.i > 2000000000) {
    log(m->env, "Setting attribute NumObj to a too big number %d, ignore\n", v.i);
    return 0;
  }
  return setNumObj(m, v.i);
}
int gObjN(VRXmodel* m, int j, Value* v, char*) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, false, &o);
  if (!err) v->d = j < o->size ? o->coeffs[j] : 0.0;
  return err;
}
int sObjN(VRXmodel* m, int j, const Value& v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, true, &o);
  if (err) return err;
  if (j >= o->size) {
    int n = D(m)->numVars;
    int want = j + 1 > n ? j + 1 : n;
    auto* grown = static_cast<double*>(
        envRealloc(m->env, o->coeffs, static_cast<size_t>(want) * sizeof(double)));
    if (!grown) return VRX_ERROR_OUT_OF_MEMORY;
    for (int k = o->size; k < want; ++k) grown[k] = 0.0;
    o->coeffs = grown;
    o->size = want;
  }
  o->coeffs[j] = v.d;
  return 0;
}
int gObjNCon(VRXmodel* m, Value* v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, false, &o);
  if (!err) v->d = o->constant;
  return err;
}
int sObjNCon(VRXmodel* m, const Value& v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, true, &o);
  if (!err) o->constant = v.d;
  return err;
}
int gObjNWeight(VRXmodel* m, Value* v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, false, &o);
  if (!err) v->d = o->weight;
  return err;
}
int sObjNWeight(VRXmodel* m, const Value& v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, true, &o);
  if (!err) o->weight = v.d;
  return err;
}
int gObjNPriority(VRXmodel* m, Value* v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, false, &o);
  if (!err) v->i = o->priority;
  return err;
}
int sObjNPriority(VRXmodel* m, const Value& v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, true, &o);
  if (!err) o->priority = v.i;
  return err;
}
int gObjNRelTol(VRXmodel* m, Value* v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, false, &o);
  if (!err) v->d = o->relTol;
  return err;
}
int sObjNRelTol(VRXmodel* m, const Value& v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, true, &o);
  if (!err) o->relTol = v.d;
  return err;
}
int gObjNAbsTol(VRXmodel* m, Value* v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, false, &o);
  if (!err) v->d = o->absTol;
  return err;
}
int sObjNAbsTol(VRXmodel* m, const Value& v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, true, &o);
  if (!err) o->absTol = v.d;
  return err;
}
int gObjNName(VRXmodel* m, Value* v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, false, &o);
  if (!err) v->s = o->name ? o->name : "";
  return err;
}
int sObjNName(VRXmodel* m, const Value& v) {
  VRXobjective* o = nullptr;
  int err = objNumberCheck(m, true, &o);
  if (err) return err;
  char* copy = envStrdup(m->env, v.s);
  if (!copy) return VRX_ERROR_OUT_OF_MEMORY;
  envFree(m->env, o->name);
  o->name = copy;
  return 0;
}

// ---- statistics and quality ----
int prepStats(VRXmodel* m) {
  if (!R(m)) return notAvailable();
  if (!R(m)->statsReady) {
    computeStatistics(D(m), R(m)->stats);
    R(m)->statsReady = 1;
  }
  return 0;
}
template <int S, int Side>
int gStat(VRXmodel* m, Value* v) {
  int err = prepStats(m);
  if (!err) v->d = R(m)->stats[S][Side];
  return err;
}
int prepQuality(VRXmodel* m) {
  if (!R(m)) return notAvailable();
  if (!R(m)->qualityReady) return computeQuality(m->env, D(m), R(m));
  return 0;
}
template <int Q>
int gQuality(VRXmodel* m, Value* v) {
  int err = prepQuality(m);
  if (!err) v->d = R(m)->quality[Q];
  return err;
}
template <int Q>
int gQualitySum(VRXmodel* m, Value* v) {
  int err = prepQuality(m);
  if (!err) v->d = R(m)->qualitySum[Q];
  return err;
}
template <int Q>
int gQualityIndex(VRXmodel* m, Value* v) {
  int err = prepQuality(m);
  if (!err) v->i = R(m)->qualityIndex[Q];
  return err;
}

// ---- results ----
int gRuntime(VRXmodel* m, Value* v) { v->d = m->runtime; return 0; }
int gRunVTime(VRXmodel* m, Value* v) { v->d = m->runVTime; return 0; }
int gStatus(VRXmodel* m, Value* v) { v->i = m->status; return 0; }
int gSolCount(VRXmodel* m, Value* v) { v->i = R(m) ? R(m)->solCount : 0; return 0; }
int gObjVal(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::objVal, v); }
int gObjBound(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::objBound, v); }
int gObjBoundC(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::objBoundC, v); }
int gPoolObjBound(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::poolObjBound, v); }
int gMIPGap(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::mipGap, v); }
int gIterCount(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::iterCount, v); }
int gIterCount0(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::iterCount0, v); }
int gNodeCount(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::nodeCount, v); }
int gOpenNodeCount(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::openNodeCount, v); }
int gTOpen(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::tOpen, v); }
int gBarIterCount(VRXmodel* m, Value* v) { return resultIndex(m, &VRXresult::barIterCount, v); }
int gConcurrentWinner(VRXmodel* m, Value* v) { return resultIndex(m, &VRXresult::concurrentWinner, v); }
int gKappa(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::kappa, v); }
int gKappaExact(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::kappaExact, v); }
int gN2Kappa(VRXmodel* m, Value* v) { return resultDouble(m, &VRXresult::n2Kappa, v); }
// The pool holds the one solution of a continuous model, at number 0.
int poolCheck(VRXmodel* m) {
  if (!R(m) || R(m)->solCount < 1 || !R(m)->x) return notAvailable();
  if (m->env->par.SolutionNumber >= R(m)->solCount)
    return raise(m->env, VRX_ERROR_DATA_NOT_AVAILABLE, true, "%s",
                 errorTableText(VRX_ERROR_DATA_NOT_AVAILABLE));
  return 0;
}
int gPoolObjVal(VRXmodel* m, Value* v) {
  int err = poolCheck(m);
  if (!err) err = resultDouble(m, &VRXresult::objVal, v);
  return err;
}
int gObjNVal(VRXmodel* m, Value* v) {
  int err = poolCheck(m);
  if (err) return err;
  if (!m->objList || m->objList->count == 0) return resultDouble(m, &VRXresult::objVal, v);
  VRXobjective* o = nullptr;
  if ((err = objNumberCheck(m, false, &o))) return err;
  double s = o->constant;
  for (int j = 0; j < o->size && j < R(m)->numVars; ++j) s += o->coeffs[j] * R(m)->x[j];
  v->d = s;
  return 0;
}
int gHasDualNorm(VRXmodel* m, Value* v) {
  const VRXwarmstart* ws = warm(m);
  bool usable = (ws && ws->normState == 2) || (R(m) && R(m)->vDualNorm && R(m)->cDualNorm);
  v->i = usable ? 2 : 0;
  return 0;
}
int gTuneResultCount(VRXmodel*, Value* v) { v->i = 0; return 0; }

#define RESULT_ARRAY(fname, field, T, member)                        \
  int fname(VRXmodel* m, int k, Value* v, char*) {                    \
    if (!R(m) || !R(m)->field) return notAvailable();                 \
    v->member = static_cast<T>(R(m)->field[k]);                       \
    return 0;                                                         \
  }                                                                   \
  const void* fname##Direct(VRXmodel* m) { return R(m) ? R(m)->field : nullptr; }
RESULT_ARRAY(gX, x, double, d)
RESULT_ARRAY(gBarX, barX, double, d)
RESULT_ARRAY(gRC, rc, double, d)
RESULT_ARRAY(gSlack, slack, double, d)
RESULT_ARRAY(gQCSlack, qcSlack, double, d)
RESULT_ARRAY(gPi, pi, double, d)
RESULT_ARRAY(gQCPi, qcPi, double, d)
RESULT_ARRAY(gVDualNorm, vDualNorm, double, d)
RESULT_ARRAY(gCDualNorm, cDualNorm, double, d)
RESULT_ARRAY(gVBasis, vBasis, int, i)
RESULT_ARRAY(gCBasis, cBasis, int, i)
RESULT_ARRAY(gSAObjLow, saObjLow, double, d)
RESULT_ARRAY(gSAObjUp, saObjUp, double, d)
RESULT_ARRAY(gSALBLow, saLBLow, double, d)
RESULT_ARRAY(gSALBUp, saLBUp, double, d)
RESULT_ARRAY(gSAUBLow, saUBLow, double, d)
RESULT_ARRAY(gSAUBUp, saUBUp, double, d)
RESULT_ARRAY(gSARHSLow, saRHSLow, double, d)
RESULT_ARRAY(gSARHSUp, saRHSUp, double, d)
RESULT_ARRAY(gIISLB, iisLB, int, i)
RESULT_ARRAY(gIISUB, iisUB, int, i)
RESULT_ARRAY(gIISConstr, iisConstr, int, i)
RESULT_ARRAY(gIISSOS, iisSOS, int, i)
RESULT_ARRAY(gIISQConstr, iisQConstr, int, i)
RESULT_ARRAY(gIISGenConstr, iisGenConstr, int, i)
RESULT_ARRAY(gFarkasDual, farkasDual, double, d)
RESULT_ARRAY(gUnbdRay, unbdRay, double, d)
RESULT_ARRAY(gVarPreStat, varPreStat, int, i)
RESULT_ARRAY(gPreFixVal, preFixVal, double, d)
#undef RESULT_ARRAY
int gXn(VRXmodel* m, int j, Value* v, char* buf) {
  int err = poolCheck(m);
  return err ? err : gX(m, j, v, buf);
}
int sVBasis(VRXmodel* m, int j, const Value& v) { return warmSetVBasis(m, j, v.i); }
int sCBasis(VRXmodel* m, int i, const Value& v) { return warmSetCBasis(m, i, v.i); }
int sVDualNorm(VRXmodel* m, int j, const Value& v) { return warmSetVDualNorm(m, j, v.d); }
int sCDualNorm(VRXmodel* m, int i, const Value& v) { return warmSetCDualNorm(m, i, v.d); }

// Row builders.
constexpr AttrRow S(const char* n, int t, ScalarGet g, ScalarSet s = nullptr, int needs = 0,
                    Prepare p = nullptr) {
  return AttrRow{n, t, kModel, s != nullptr, needs, p, g, s, nullptr, nullptr, nullptr};
}
constexpr AttrRow A(const char* n, int t, int kind, ElemGet g, ElemSet s = nullptr, int needs = 0,
                    Direct d = nullptr) {
  return AttrRow{n, t, kind, s != nullptr, needs, nullptr, nullptr, nullptr, d, g, s};
}

const AttrRow kAttrs[] = {
    S("NumConstrs", tInt, gNumConstrs),
    S("NumVars", tInt, gNumVars),
    S("NumSOS", tInt, gNumSOS),
    S("NumQConstrs", tInt, gNumQConstrs),
    S("NumGenConstrs", tInt, gNumGenConstrs),
    S("NumNZs", tInt, gNumNZs),
    S("DNumNZs", tDbl, gDNumNZs),
    S("NumQNZs", tInt, gNumQNZs),
    S("NumQCNZs", tInt, gNumQCNZs),
    S("NumIntVars", tInt, gNumIntVars),
    S("NumBinVars", tInt, gNumBinVars),
    S("NumPWLObjVars", tInt, gNumPWLObjVars),
    S("ModelName", tStr, gModelName, sModelName),
    S("ModelSense", tInt, gModelSense, sModelSense),
    S("ObjCon", tDbl, gObjCon, sObjCon),
    S("IsMIP", tInt, gIsMIP),
    S("IsQCP", tInt, gIsQCP),
    S("IsQP", tInt, gIsQP),
    S("IsMultiObj", tInt, gIsMultiObj),
    S("Server", tStr, gRemoteOnly),
    S("JobID", tStr, gRemoteOnly),
    S("IISMinimal", tInt, gIISMinimal),
    S("InfeasVar", tInt, gInfeasVar),
    S("UnbdVar", tInt, gUnbdVar),
    S("FarkasProof", tDbl, gFarkasProof),
    A("LB", tDbl, kVar, gLB, sLB, 0, dLB),
    A("UB", tDbl, kVar, gUB, sUB, 0, dUB),
    A("Obj", tDbl, kVar, gObj, sObj),
    A("VType", tChar, kVar, gVType, sVType, 0, dVType),
    A("Start", tDbl, kVar, gStart, sStart),
    A("PStart", tDbl, kVar, gPStart, sPStart),
    A("BranchPriority", tInt, kVar, gBranchPriority, sBranchPriority),
    A("VarName", tStr, kVar, gVarName, sVarName),
    A("PWLObjCvx", tInt, kVar, gPWLObjCvx),
    A("VarHintVal", tDbl, kVar, gVarHintVal, sVarHintVal),
    A("VarHintPri", tInt, kVar, gVarHintPri, sVarHintPri),
    A("Partition", tInt, kVar, gPartition, sPartition),
    S("NumStart", tInt, gNumStart, sNumStart),
    A("RHS", tDbl, kConstr, gRHS, sRHS, 0, dRHS),
    A("DStart", tDbl, kConstr, gDStart, sDStart),
    A("Sense", tChar, kConstr, gSense, sSense, 0, dSense),
    A("ConstrName", tStr, kConstr, gConstrName, sConstrName),
    A("Lazy", tInt, kConstr, gLazy, sLazy),
    A("QCRHS", tDbl, kQConstr, gQCRHS, sQCRHS),
    A("QCSense", tChar, kQConstr, gQCSense, sQCSense),
    A("QCName", tStr, kQConstr, gQCName, sQCName),
    A("GenConstrType", tInt, kGenConstr, gGenConstrType),
    A("GenConstrName", tStr, kGenConstr, gGenConstrName, sGenConstrName),
    A("ObjN", tDbl, kVar, gObjN, sObjN),
    S("ObjNCon", tDbl, gObjNCon, sObjNCon),
    S("ObjNWeight", tDbl, gObjNWeight, sObjNWeight),
    S("ObjNPriority", tInt, gObjNPriority, sObjNPriority),
    S("ObjNRelTol", tDbl, gObjNRelTol, sObjNRelTol),
    S("ObjNAbsTol", tDbl, gObjNAbsTol, sObjNAbsTol),
    S("ObjNName", tStr, gObjNName, sObjNName),
    S("NumObj", tInt, gNumObj, sNumObj),
    S("MaxCoeff", tDbl, gStat<stCoeff, 0>, nullptr, 1),
    S("MinCoeff", tDbl, gStat<stCoeff, 1>, nullptr, 1),
    S("MaxBound", tDbl, gStat<stBound, 0>, nullptr, 1),
    S("MinBound", tDbl, gStat<stBound, 1>, nullptr, 1),
    S("MaxObjCoeff", tDbl, gStat<stObjCoeff, 0>, nullptr, 1),
    S("MinObjCoeff", tDbl, gStat<stObjCoeff, 1>, nullptr, 1),
    S("MaxRHS", tDbl, gStat<stRHS, 0>, nullptr, 1),
    S("MinRHS", tDbl, gStat<stRHS, 1>, nullptr, 1),
    S("MaxQCCoeff", tDbl, gStat<stQCCoeff, 0>, nullptr, 1),
    S("MinQCCoeff", tDbl, gStat<stQCCoeff, 1>, nullptr, 1),
    S("MaxQObjCoeff", tDbl, gStat<stQObjCoeff, 0>, nullptr, 1),
    S("MinQObjCoeff", tDbl, gStat<stQObjCoeff, 1>, nullptr, 1),
    S("MaxQCLCoeff", tDbl, gStat<stQCLCoeff, 0>, nullptr, 1),
    S("MinQCLCoeff", tDbl, gStat<stQCLCoeff, 1>, nullptr, 1),
    S("MaxQCRHS", tDbl, gStat<stQCRHS, 0>, nullptr, 1),
    S("MinQCRHS", tDbl, gStat<stQCRHS, 1>, nullptr, 1),
    S("Runtime", tDbl, gRuntime),
    S("RunVTime", tDbl, gRunVTime),
    A("X", tDbl, kVar, gX, nullptr, 1, gXDirect),
    A("Xn", tDbl, kVar, gXn, nullptr, 1),
    A("BarX", tDbl, kVar, gBarX, nullptr, 1, gBarXDirect),
    A("RC", tDbl, kVar, gRC, nullptr, 1, gRCDirect),
    A("Slack", tDbl, kConstr, gSlack, nullptr, 1, gSlackDirect),
    A("QCSlack", tDbl, kQConstr, gQCSlack, nullptr, 1, gQCSlackDirect),
    A("Pi", tDbl, kConstr, gPi, nullptr, 1, gPiDirect),
    A("QCPi", tDbl, kQConstr, gQCPi, nullptr, 1, gQCPiDirect),
    A("VDualNorm", tDbl, kVar, gVDualNorm, sVDualNorm, 1, gVDualNormDirect),
    A("CDualNorm", tDbl, kConstr, gCDualNorm, sCDualNorm, 1, gCDualNormDirect),
    S("HasDualNorm", tInt, gHasDualNorm),
    A("VBasis", tInt, kVar, gVBasis, sVBasis, 1, gVBasisDirect),
    A("CBasis", tInt, kConstr, gCBasis, sCBasis, 1, gCBasisDirect),
    S("Status", tInt, gStatus),
    S("SolCount", tInt, gSolCount),
    S("ObjNVal", tDbl, gObjNVal),
    S("ObjVal", tDbl, gObjVal, nullptr, 1),
    S("ObjBound", tDbl, gObjBound, nullptr, 1),
    S("ObjBoundC", tDbl, gObjBoundC, nullptr, 1),
    S("PoolObjBound", tDbl, gPoolObjBound, nullptr, 1),
    S("PoolObjVal", tDbl, gPoolObjVal),
    S("MIPGap", tDbl, gMIPGap, nullptr, 1),
    S("IterCount", tDbl, gIterCount, nullptr, 1),
    S("IterCount0", tDbl, gIterCount0, nullptr, 1),
    S("NodeCount", tDbl, gNodeCount, nullptr, 1),
    S("OpenNodeCount", tDbl, gOpenNodeCount, nullptr, 1),
    S("TOpen", tDbl, gTOpen, nullptr, 1),
    S("BarIterCount", tInt, gBarIterCount, nullptr, 1),
    S("ConcurrentWinner", tInt, gConcurrentWinner, nullptr, 1),
    S("BoundVio", tDbl, gQuality<qBound>, nullptr, 1),
    S("BoundSVio", tDbl, gQuality<qBoundS>, nullptr, 1),
    S("ConstrVio", tDbl, gQuality<qConstr>, nullptr, 1),
    S("ConstrSVio", tDbl, gQuality<qConstrS>, nullptr, 1),
    S("ConstrResidual", tDbl, gQuality<qConstrResidual>, nullptr, 1),
    S("ConstrSResidual", tDbl, gQuality<qConstrSResidual>, nullptr, 1),
    S("DualVio", tDbl, gQuality<qDual>, nullptr, 1),
    S("DualSVio", tDbl, gQuality<qDualS>, nullptr, 1),
    S("DualResidual", tDbl, gQuality<qDualResidual>, nullptr, 1),
    S("DualSResidual", tDbl, gQuality<qDualSResidual>, nullptr, 1),
    S("IntVio", tDbl, gQuality<qInt>, nullptr, 1),
    S("ComplVio", tDbl, gQuality<qCompl>, nullptr, 1),
    S("BoundVioSum", tDbl, gQualitySum<qBound>, nullptr, 1),
    S("BoundSVioSum", tDbl, gQualitySum<qBoundS>, nullptr, 1),
    S("ConstrVioSum", tDbl, gQualitySum<qConstr>, nullptr, 1),
    S("ConstrSVioSum", tDbl, gQualitySum<qConstrS>, nullptr, 1),
    S("ConstrResidualSum", tDbl, gQualitySum<qConstrResidual>, nullptr, 1),
    S("ConstrSResidualSum", tDbl, gQualitySum<qConstrSResidual>, nullptr, 1),
    S("DualVioSum", tDbl, gQualitySum<qDual>, nullptr, 1),
    S("DualSVioSum", tDbl, gQualitySum<qDualS>, nullptr, 1),
    S("DualResidualSum", tDbl, gQualitySum<qDualResidual>, nullptr, 1),
    S("DualSResidualSum", tDbl, gQualitySum<qDualSResidual>, nullptr, 1),
    S("IntVioSum", tDbl, gQualitySum<qInt>, nullptr, 1),
    S("ComplVioSum", tDbl, gQualitySum<qCompl>, nullptr, 1),
    S("Kappa", tDbl, gKappa, nullptr, 1),
    S("KappaExact", tDbl, gKappaExact, nullptr, 1),
    S("N2Kappa", tDbl, gN2Kappa, nullptr, 1),
    S("BoundVioIndex", tInt, gQualityIndex<qBound>, nullptr, 1),
    S("BoundSVioIndex", tInt, gQualityIndex<qBoundS>, nullptr, 1),
    S("ConstrVioIndex", tInt, gQualityIndex<qConstr>, nullptr, 1),
    S("ConstrSVioIndex", tInt, gQualityIndex<qConstrS>, nullptr, 1),
    S("ConstrResidualIndex", tInt, gQualityIndex<qConstrResidual>, nullptr, 1),
    S("ConstrSResidualIndex", tInt, gQualityIndex<qConstrSResidual>, nullptr, 1),
    S("DualVioIndex", tInt, gQualityIndex<qDual>, nullptr, 1),
    S("DualSVioIndex", tInt, gQualityIndex<qDualS>, nullptr, 1),
    S("DualResidualIndex", tInt, gQualityIndex<qDualResidual>, nullptr, 1),
    S("DualSResidualIndex", tInt, gQualityIndex<qDualSResidual>, nullptr, 1),
    S("IntVioIndex", tInt, gQualityIndex<qInt>, nullptr, 1),
    S("ComplVioIndex", tInt, gQualityIndex<qCompl>, nullptr, 1),
    A("SAObjLow", tDbl, kVar, gSAObjLow, nullptr, 1, gSAObjLowDirect),
    A("SAObjUp", tDbl, kVar, gSAObjUp, nullptr, 1, gSAObjUpDirect),
    A("SALBLow", tDbl, kVar, gSALBLow, nullptr, 1, gSALBLowDirect),
    A("SALBUp", tDbl, kVar, gSALBUp, nullptr, 1, gSALBUpDirect),
    A("SAUBLow", tDbl, kVar, gSAUBLow, nullptr, 1, gSAUBLowDirect),
    A("SAUBUp", tDbl, kVar, gSAUBUp, nullptr, 1, gSAUBUpDirect),
    A("SARHSLow", tDbl, kConstr, gSARHSLow, nullptr, 1, gSARHSLowDirect),
    A("SARHSUp", tDbl, kConstr, gSARHSUp, nullptr, 1, gSARHSUpDirect),
    A("IISLB", tInt, kVar, gIISLB, nullptr, 1, gIISLBDirect),
    A("IISUB", tInt, kVar, gIISUB, nullptr, 1, gIISUBDirect),
    A("IISConstr", tInt, kConstr, gIISConstr, nullptr, 1, gIISConstrDirect),
    A("IISSOS", tInt, kSos, gIISSOS, nullptr, 1, gIISSOSDirect),
    A("IISQConstr", tInt, kQConstr, gIISQConstr, nullptr, 1, gIISQConstrDirect),
    A("IISGenConstr", tInt, kGenConstr, gIISGenConstr, nullptr, 1, gIISGenConstrDirect),
    A("FarkasDual", tDbl, kConstr, gFarkasDual, nullptr, 1, gFarkasDualDirect),
    A("UnbdRay", tDbl, kVar, gUnbdRay, nullptr, 1, gUnbdRayDirect),
    S("TuneResultCount", tInt, gTuneResultCount),
    A("VarPreStat", tInt, kVar, gVarPreStat, nullptr, 1, gVarPreStatDirect),
    A("PreFixVal", tDbl, kVar, gPreFixVal, nullptr, 1, gPreFixValDirect),
};

constexpr int kAttrCount = static_cast<int>(sizeof kAttrs / sizeof kAttrs[0]);
static_assert(kAttrCount == 161, "the attribute table has 161 rows");

size_t typeSize(int type) {
  switch (type) {
    case tChar: return sizeof(char);
    case tInt: return sizeof(int);
    case tDbl: return sizeof(double);
    default: return sizeof(char*);
  }
}

// ---- the common head ----

int findAttr(VRXmodel* m, const char* name) {
  const NameIndex* idx = static_cast<const NameIndex*>(m->env->attrIndex);
  if (!idx) return -1;
  char key[kNameKeyMax + 1];
  normaliseName(name, key);
  return nameIndexFind(idx, key);
}

bool hasResults(VRXmodel* m) { return m->status != VRX_LOADED && m->result != nullptr; }

int elementCount(VRXmodel* m, int kind, bool write) {
  const VRXmodeldata* d = m->data;
  switch (kind) {
    case kVar:
    case kConstr: {
      int nv = d->numVars, nc = d->numConstrs;
      if (write) pendingCounts(m, &nv, &nc);
      return kind == kVar ? nv : nc;
    }
    case kSos: return d->numSOS;
    case kQConstr: return d->numQConstrs;
    case kGenConstr: return d->numGenConstrs;
    default: return 1;
  }
}

// Name and type checks shared by all families. Returns the row or null with the code.
const AttrRow* head(VRXmodel* m, const char* name, int type, bool scalar, bool write, int* err) {
  VRXenv* env = m->env;
  int r = findAttr(m, name);
  if (r < 0) {
    *err = raise(env, VRX_ERROR_UNKNOWN_ATTRIBUTE, true, "Unknown attribute '%s'", name);
    return nullptr;
  }
  const AttrRow& row = kAttrs[r];
  if (row.type != type) {
    *err = raise(env, VRX_ERROR_UNKNOWN_ATTRIBUTE, true, "Requested %s attribute '%s' is of type %s",
                 kTypeNames[type], name, kTypeNames[row.type]);
    return nullptr;
  }
  if (scalar && row.kind != kModel) {
    *err = raise(env, VRX_ERROR_UNKNOWN_ATTRIBUTE, true,
                 "You tried to access array attribute '%s' as a scalar", name);
    return nullptr;
  }
  if (!scalar && row.kind == kModel) {
    *err = raise(env, VRX_ERROR_UNKNOWN_ATTRIBUTE, true,
                 "You tried to access scalar attribute '%s' as an array", name);
    return nullptr;
  }
  if (write && !row.settable) {
    *err = raise(env, VRX_ERROR_UNKNOWN_ATTRIBUTE, true, "Attribute '%s' may not be set", name);
    return nullptr;
  }
  *err = 0;
  return &row;
}

int scalarGet(VRXmodel* m, const char* name, int type, Value* out) {
  int err = 0;
  const AttrRow* row = head(m, name, type, true, false, &err);
  if (!row) return err;
  if (row->needsSolve && !hasResults(m)) return notAvailable();
  if (row->prepare && (err = row->prepare(m))) return err;
  if (!row->sget) return notAvailable();
  return row->sget(m, out);
}

int scalarSet(VRXmodel* m, const char* name, int type, const Value& in) {
  int err = 0;
  const AttrRow* row = head(m, name, type, true, true, &err);
  if (!row) return err;
  if (type == tDbl && (err = checkNotNan(m->env, in.d))) return err;
  if (!row->sset) return notAvailable();
  return row->sset(m, in);
}

// Checks the range or list; sets *all when len is negative.
int rangeCheck(VRXmodel* m, const char* name, int count, int* start, int* len, const int* ind) {
  if (ind) {
    for (int k = 0; k < *len; ++k)
      if (ind[k] < 0 || ind[k] >= count)
        return raise(m->env, VRX_ERROR_INDEX_OUT_OF_RANGE, true,
                     "Index %d out of range for attribute '%s'", ind[k], name);
    return 0;
  }
  if (*len < 0) {
    *start = 0;
    *len = count;
    return 0;
  }
  if (*start < 0 || static_cast<int64_t>(*start) + *len > count)
    return raise(m->env, VRX_ERROR_INDEX_OUT_OF_RANGE, true, "Index out of range for attribute '%s'",
                 name);
  return 0;
}

// Room for default names handed out by one string array read.
char* scratch(VRXmodel* m, size_t bytes) {
  if (bytes > m->attrScratchSize) {
    void* p = envRealloc(m->env, m->attrScratch, bytes);
    if (!p) return nullptr;
    m->attrScratch = static_cast<char*>(p);
    m->attrScratchSize = bytes;
  }
  return m->attrScratch;
}

void store(int type, void* values, int k, const Value& v) {
  switch (type) {
    case tChar: static_cast<char*>(values)[k] = v.c; break;
    case tInt: static_cast<int*>(values)[k] = v.i; break;
    case tDbl: static_cast<double*>(values)[k] = v.d; break;
    default: static_cast<const char**>(values)[k] = v.s; break;
  }
}

Value load(int type, const void* values, int k) {
  Value v;
  switch (type) {
    case tChar: v.c = static_cast<const char*>(values)[k]; break;
    case tInt: v.i = static_cast<const int*>(values)[k]; break;
    case tDbl: v.d = static_cast<const double*>(values)[k]; break;
    default: v.s = static_cast<char* const*>(values)[k]; break;
  }
  return v;
}

int arrayGet(VRXmodel* m, const char* name, int type, int start, int len, const int* ind,
             void* values) {
  int err = 0;
  const AttrRow* row = head(m, name, type, false, false, &err);
  if (!row) return err;
  int count = elementCount(m, row->kind, false);
  if ((err = rangeCheck(m, name, count, &start, &len, ind))) return err;
  if (len == 0) return 0;
  if (!values)
    return raise(m->env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'values' argument supplied");
  if (row->needsSolve && !hasResults(m)) return notAvailable();
  const void* direct = row->direct ? row->direct(m) : nullptr;
  size_t sz = typeSize(type);
  if (direct && !ind) {
    std::memcpy(values, static_cast<const char*>(direct) + sz * static_cast<size_t>(start),
                sz * static_cast<size_t>(len));
    return 0;
  }
  if (!row->eget) return notAvailable();
  char* names = nullptr;
  if (type == tStr && !(names = scratch(m, static_cast<size_t>(len) * kNameBuf)))
    return VRX_ERROR_OUT_OF_MEMORY;
  char local[kNameBuf];
  for (int k = 0; k < len; ++k) {
    int idx = ind ? ind[k] : start + k;
    Value v;
    if (direct) {
      v = load(type, direct, idx);
    } else if ((err = row->eget(m, idx, &v, names ? names + static_cast<size_t>(k) * kNameBuf : local))) {
      return err;
    }
    store(type, values, k, v);
  }
  return 0;
}

int arraySet(VRXmodel* m, const char* name, int type, int start, int len, const int* ind,
             const void* values) {
  int err = 0;
  const AttrRow* row = head(m, name, type, false, true, &err);
  if (!row) return err;
  int count = elementCount(m, row->kind, true);
  if ((err = rangeCheck(m, name, count, &start, &len, ind))) return err;
  if (len == 0) return 0;
  if (!values)
    return raise(m->env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'values' argument supplied");
  if (type == tDbl && (err = checkNotNanArray(m->env, static_cast<const double*>(values), len)))
    return err;
  if (!row->eset) return notAvailable();
  for (int k = 0; k < len; ++k) {
    int idx = ind ? ind[k] : start + k;
    if ((err = row->eset(m, idx, load(type, values, k)))) return err;
  }
  return 0;
}

// While an asynchronous solve runs, a few scalars are answered from a cache;
// everything else waits for the solve. Returns -1 when the call is not a cached read.
int asyncRead(VRXmodel* model, const char* name, int type, void* value) {
  if (!model || model->magic != kModelMagic || !model->asyncPending || !name || !value) return -1;
  static const char* const kCached[] = {"Status",        "ObjVal",    "ObjBound",     "ObjBoundC",
                                        "RunVTime",      "NodeCount", "OpenNodeCount", "TOpen",
                                        "IterCount",     "IterCount0", "BarIterCount"};
  int r = findAttr(model, name);
  const auto* cache = static_cast<const VRXasyncCache*>(model->asyncCache);
  for (const char* c : kCached) {
    if (r < 0 || std::strcmp(kAttrs[r].name, c) != 0 || kAttrs[r].type != type) continue;
    auto* d = static_cast<double*>(value);
    if (std::strcmp(c, "Status") == 0) *static_cast<int*>(value) = VRX_INPROGRESS;
    else if (std::strcmp(c, "BarIterCount") == 0) *static_cast<int*>(value) = cache ? cache->barIterCount.load() : 0;
    else if (!cache) *d = std::strcmp(c, "ObjVal") == 0 ? kInf
                        : (std::strcmp(c, "ObjBound") == 0 || std::strcmp(c, "ObjBoundC") == 0) ? -kInf
                        : (std::strcmp(c, "NodeCount") == 0 || std::strcmp(c, "TOpen") == 0) ? -1.0 : 0.0;
    else if (std::strcmp(c, "ObjVal") == 0) *d = cache->objVal.load();
    else if (std::strcmp(c, "ObjBound") == 0) *d = cache->objBound.load();
    else if (std::strcmp(c, "ObjBoundC") == 0) *d = cache->objBoundC.load();
    else if (std::strcmp(c, "RunVTime") == 0) *d = cache->runVTime.load();
    else if (std::strcmp(c, "NodeCount") == 0) *d = cache->nodeCount.load();
    else if (std::strcmp(c, "OpenNodeCount") == 0) *d = cache->openNodeCount.load();
    else if (std::strcmp(c, "TOpen") == 0) *d = cache->tOpen.load();
    else if (std::strcmp(c, "IterCount") == 0) *d = cache->iterCount.load();
    else *d = cache->iterCount0.load();
    return 0;
  }
  return VRX_ERROR_OPTIMIZATION_IN_PROGRESS;
}

// Runs one call of a family: pointer checks, the model head, the work, the outer text.
template <class F>
int family(VRXmodel* model, const char* name, const void* value, bool write, F&& work) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&]() -> int {
    int rc = 0;
    if (!value) {
      rc = raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'value' argument supplied");
    } else if (!name) {
      rc = raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'attrname' argument supplied");
    } else {
      rc = work();
    }
    if (rc) {
      raise(env, rc, false, write ? "Unable to set attribute '%s'" : "Unable to retrieve attribute '%s'",
            name ? name : "(null)");
    }
    return setError(env, rc);
  });
}

}  // namespace

// Makes the objective table the given length; new entries take the defaults.
int setNumObj(VRXmodel* m, int count) {
  VRXenv* env = m->env;
  if (!m->objList) {
    m->objList = static_cast<VRXobjlist*>(envCalloc(env, 1, sizeof(VRXobjlist)));
    if (!m->objList) return VRX_ERROR_OUT_OF_MEMORY;
  }
  VRXobjlist* l = m->objList;
  for (int k = count; k < l->count; ++k) {
    envFree(env, l->items[k].coeffs);
    envFree(env, l->items[k].name);
  }
  if (count > l->capacity) {
    auto* grown = static_cast<VRXobjective*>(
        envRealloc(env, l->items, static_cast<size_t>(count) * sizeof(VRXobjective)));
    if (!grown) return VRX_ERROR_OUT_OF_MEMORY;
    l->items = grown;
    l->capacity = count;
  }
  for (int k = l->count; k < count; ++k) {
    VRXobjective& o = l->items[k];
    std::memset(&o, 0, sizeof o);
    o.weight = 1.0;
    o.absTol = 1e-6;
  }
  l->count = count;
  return 0;
}

int attrIndexBuild(VRXenv* env) {
  NameIndex* idx = nameIndexCreate(env, 1000);
  if (!idx) return VRX_ERROR_OUT_OF_MEMORY;
  char key[kNameKeyMax + 1];
  for (int r = 0; r < kAttrCount; ++r) {
    normaliseName(kAttrs[r].name, key);
    if (nameIndexInsert(env, idx, key, r)) {
      nameIndexFree(env, idx);
      return VRX_ERROR_OUT_OF_MEMORY;
    }
  }
  env->attrIndex = idx;
  env->attrCount = kAttrCount;
  return 0;
}

void attrIndexFree(VRXenv* env) {
  nameIndexFree(env, static_cast<NameIndex*>(env->attrIndex));
  env->attrIndex = nullptr;
}

}  // namespace vrx

using namespace vrx;

typedef char* StrPtr;

extern "C" {

#define SCALAR_GET(fn, T, type, member)                                           \
  VRX_API int fn(VRXmodel* model, const char* attrname, T* valueP) {              \
    int cached = asyncRead(model, attrname, type, valueP);                        \
    if (cached >= 0) return cached;                                               \
    return family(model, attrname, valueP, false, [&] {                           \
      Value v;                                                                    \
      int rc = scalarGet(model, attrname, type, &v);                              \
      if (!rc) *valueP = v.member;                                                \
      return rc;                                                                  \
    });                                                                           \
  }
SCALAR_GET(VRXgetintattr, int, tInt, i)
SCALAR_GET(VRXgetdblattr, double, tDbl, d)
#undef SCALAR_GET

VRX_API int VRXgetstrattr(VRXmodel* model, const char* attrname, char** valueP) {
  return family(model, attrname, valueP, false, [&] {
    Value v;
    int rc = scalarGet(model, attrname, tStr, &v);
    if (!rc) *valueP = const_cast<char*>(v.s);
    return rc;
  });
}

VRX_API int VRXsetintattr(VRXmodel* model, const char* attrname, int newvalue) {
  return family(model, attrname, &newvalue, true, [&] {
    Value v;
    v.i = newvalue;
    return scalarSet(model, attrname, tInt, v);
  });
}

VRX_API int VRXsetdblattr(VRXmodel* model, const char* attrname, double newvalue) {
  return family(model, attrname, &newvalue, true, [&] {
    Value v;
    v.d = newvalue;
    return scalarSet(model, attrname, tDbl, v);
  });
}

VRX_API int VRXsetstrattr(VRXmodel* model, const char* attrname, const char* newvalue) {
  return family(model, attrname, newvalue, true, [&] {
    Value v;
    v.s = newvalue;
    return scalarSet(model, attrname, tStr, v);
  });
}

#define ARRAY_CALLS(T, type, suffix)                                                          \
  VRX_API int VRXget##suffix##attrarray(VRXmodel* model, const char* attrname, int start,     \
                                        int len, T* values) {                                  \
    return family(model, attrname, values ? static_cast<const void*>(values) : &len, false,    \
                  [&] { return arrayGet(model, attrname, type, start, len, nullptr, values); });  \
  }                                                                                           \
  VRX_API int VRXset##suffix##attrarray(VRXmodel* model, const char* attrname, int start,     \
                                        int len, const T* values) {                            \
    return family(model, attrname, values ? static_cast<const void*>(values) : &len, true,     \
                  [&] { return arraySet(model, attrname, type, start, len, nullptr, values); });  \
  }                                                                                           \
  VRX_API int VRXget##suffix##attrelement(VRXmodel* model, const char* attrname, int element, \
                                          T* valueP) {                                         \
    return family(model, attrname, valueP, false,                                              \
                  [&] { return arrayGet(model, attrname, type, element, 1, nullptr, valueP); }); \
  }                                                                                           \
  VRX_API int VRXget##suffix##attrlist(VRXmodel* model, const char* attrname, int len,        \
                                       const int* ind, T* values) {                            \
    return family(model, attrname, values ? static_cast<const void*>(values) : &len, false,    \
                  [&] {                                                                        \
                    return arrayGet(model, attrname, type, 0, len, ind, values);              \
                  });                                                                          \
  }                                                                                           \
  VRX_API int VRXset##suffix##attrlist(VRXmodel* model, const char* attrname, int len,        \
                                       const int* ind, const T* values) {                      \
    return family(model, attrname, values ? static_cast<const void*>(values) : &len, true,     \
                  [&] { return arraySet(model, attrname, type, 0, len, ind, values); });       \
  }
ARRAY_CALLS(char, tChar, char)
ARRAY_CALLS(int, tInt, int)
ARRAY_CALLS(double, tDbl, dbl)
ARRAY_CALLS(StrPtr, tStr, str)
#undef ARRAY_CALLS

VRX_API int VRXsetcharattrelement(VRXmodel* model, const char* attrname, int element, char newvalue) {
  return family(model, attrname, &newvalue, true,
                [&] { return arraySet(model, attrname, tChar, element, 1, nullptr, &newvalue); });
}
VRX_API int VRXsetintattrelement(VRXmodel* model, const char* attrname, int element, int newvalue) {
  return family(model, attrname, &newvalue, true,
                [&] { return arraySet(model, attrname, tInt, element, 1, nullptr, &newvalue); });
}
VRX_API int VRXsetdblattrelement(VRXmodel* model, const char* attrname, int element,
                                 double newvalue) {
  return family(model, attrname, &newvalue, true,
                [&] { return arraySet(model, attrname, tDbl, element, 1, nullptr, &newvalue); });
}
VRX_API int VRXsetstrattrelement(VRXmodel* model, const char* attrname, int element,
                                 const char* newvalue) {
  return family(model, attrname, &newvalue, true,
                [&] { return arraySet(model, attrname, tStr, element, 1, nullptr, &newvalue); });
}

VRX_API int VRXsetobjectiven(VRXmodel* model, int index, int priority, double weight,
                             double abstol, double reltol, const char* name, double constant,
                             int lnz, const int* lind, const double* lval) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&]() -> int {
    int rc = 0;
    if (index < 0) {
      rc = raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Objective index must be non-negative");
    } else if (lnz > 0 && (!lind || !lval)) {
      rc = VRX_ERROR_NULL_ARGUMENT;
    } else if ((rc = checkFinite(env, constant)) || (lnz > 0 && (rc = checkFiniteArray(env, lval, lnz)))) {
    } else {
      int count = model->objList ? model->objList->count : 0;
      // Setting an objective beyond the table's end makes room for it.
      if (index >= count) rc = setNumObj(model, index + 1);
      int n = model->data->numVars;
      for (int k = 0; !rc && k < lnz; ++k)
        if (lind[k] < 0 || lind[k] >= n) rc = VRX_ERROR_INDEX_OUT_OF_RANGE;
      if (!rc) {
        VRXobjective& o = model->objList->items[index];
        if (o.size < n) {
          auto* grown = static_cast<double*>(
              envRealloc(env, o.coeffs, static_cast<size_t>(n > 0 ? n : 1) * sizeof(double)));
          if (!grown) rc = VRX_ERROR_OUT_OF_MEMORY;
          else {
            o.coeffs = grown;
            o.size = n;
          }
        }
        if (!rc) {
          for (int j = 0; j < o.size; ++j) o.coeffs[j] = 0.0;
          for (int k = 0; k < lnz; ++k) o.coeffs[lind[k]] += lval[k];
          o.priority = priority;
          o.weight = weight;
          o.absTol = abstol;
          o.relTol = reltol;
          o.constant = constant;
          char* copy = name ? envStrdup(env, name) : nullptr;
          if (name && !copy) rc = VRX_ERROR_OUT_OF_MEMORY;
          else {
            envFree(env, o.name);
            o.name = copy;
          }
        }
      }
    }
    if (rc) raise(env, rc, false, "Problem setting objective");
    return setError(env, rc);
  });
}

VRX_API int VRXgetattrinfo(VRXmodel* model, const char* attrname, int* datatypeP, int* attrtypeP,
                           int* settableP) {
  if (datatypeP) *datatypeP = -1;
  if (attrtypeP) *attrtypeP = -1;
  if (settableP) *settableP = -1;
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  if (!attrname)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'attrname' argument supplied"));
  int r = findAttr(model, attrname);
  if (r < 0)
    return setError(env, raise(env, VRX_ERROR_UNKNOWN_ATTRIBUTE, true, "Unknown attribute '%s'", attrname));
  if (datatypeP) *datatypeP = kAttrs[r].type;
  if (attrtypeP) *attrtypeP = kAttrs[r].kind;
  if (settableP) *settableP = kAttrs[r].settable;
  return setError(env, 0);
}

VRX_API int VRXisattravailable(VRXmodel* model, const char* attrname) {
  if (modelEnter(model) || !attrname) return 0;
  VRXenv* env = model->env;
  int r = findAttr(model, attrname);
  if (r < 0) {
    setError(env, raise(env, VRX_ERROR_UNKNOWN_ATTRIBUTE, true, "Unknown attribute '%s'", attrname));
    return 0;
  }
  const AttrRow& row = kAttrs[r];
  int ok = 0;
  try {
    ErrorFreeze freeze(env);
    if (row.kind == kModel) {
      if (row.needsSolve && !hasResults(model)) return 0;
      if (row.prepare && row.prepare(model)) return 0;
      Value v;
      ok = row.sget && row.sget(model, &v) == 0;
    } else {
      if (row.needsSolve && !hasResults(model)) return 0;
      if (row.direct && row.direct(model)) return 1;
      if (!row.eget || elementCount(model, row.kind, false) < 1) return 0;
      Value v;
      char buf[kNameBuf];
      ok = row.eget(model, 0, &v, buf) == 0;
    }
  } catch (...) {
    ok = 0;
  }
  env->errorText[0] = '\0';
  return ok;
}

VRX_API int VRXgetnumattributes(VRXmodel* model) {
  if (checkModelHandle(model)) return -1;
  return kAttrCount;
}

VRX_API int VRXgetattrname(VRXmodel* model, int i, char** attrnameP) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  if (!attrnameP)
    return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, true, "NULL 'attrname' argument supplied"));
  if (i < 0 || i >= kAttrCount) return setError(env, VRX_ERROR_INVALID_ARGUMENT);
  *attrnameP = const_cast<char*>(kAttrs[i].name);
  return setError(env, 0);
}

}  // extern "C"
