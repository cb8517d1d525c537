// Setup of the working LP: the solver copy, parameter copies, automatic choices, the
// row-wise copy and the bound check; and the freeing of the record.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "model/model.h"
#include "model/modeldata.h"
#include "simplex/lp.h"
#include "simplex/pwl.h"

namespace vrx {

namespace {

template <class T>
bool allocArray(VRXenv* env, T*& p, size_t count) {
  p = envAllocArray<T>(env, count ? count : 1);
  return p != nullptr;
}

// Applies the column flips a copy declares and has not applied yet: cost and column
// negated, bounds swapped and negated, Q terms with one flipped index negated.
void applyFlips(VRXmodeldata* d) {
  if (!d->colFlipped || d->flippedCount != 0) return;
  const int n = d->numVars;
  int count = 0;
  for (int j = 0; j < n; j++) {
    if (!d->colFlipped[j]) continue;
    d->obj[j] = -d->obj[j];
    for (int64_t k = d->colBeg[j], e = d->colBeg[j] + d->colLen[j]; k < e; k++) d->val[k] = -d->val[k];
    const double lo = d->lb[j];
    d->lb[j] = -d->ub[j];
    d->ub[j] = -lo;
    count++;
  }
  for (int k = 0; k < d->numQNZs; k++)
    if ((d->colFlipped[d->qRow[k]] != 0) != (d->colFlipped[d->qCol[k]] != 0)) d->qVal[k] = -d->qVal[k];
  d->flippedCount = count;
}

// The structural matrix row by row, column indices ascending within a row.
int buildRowCopy(VRXenv* env, VRXmodeldata* d) {
  const int n = d->numVars, m = d->numConstrs;
  int64_t nnz = 0;
  for (int j = 0; j < n; j++) nnz += d->colLen[j];
  int64_t* beg = nullptr;
  int* len = nullptr;
  int* ind = nullptr;
  double* val = nullptr;
  bool ok = allocArray(env, beg, static_cast<size_t>(m) + 1);
  ok = allocArray(env, len, static_cast<size_t>(m)) && ok;
  ok = allocArray(env, ind, static_cast<size_t>(nnz)) && ok;
  ok = allocArray(env, val, static_cast<size_t>(nnz)) && ok;
  if (!ok) {
    envFree(env, beg);
    envFree(env, len);
    envFree(env, ind);
    envFree(env, val);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  for (int i = 0; i < m; i++) len[i] = 0;
  for (int j = 0; j < n; j++)
    for (int64_t k = d->colBeg[j], e = d->colBeg[j] + d->colLen[j]; k < e; k++) len[d->rowInd[k]]++;
  beg[0] = 0;
  for (int i = 0; i < m; i++) {
    beg[i + 1] = beg[i] + len[i];
    len[i] = 0;
  }
  for (int j = 0; j < n; j++) {
    for (int64_t k = d->colBeg[j], e = d->colBeg[j] + d->colLen[j]; k < e; k++) {
      const int i = d->rowInd[k];
      const int64_t p = beg[i] + len[i]++;
      ind[p] = j;
      val[p] = d->val[k];
    }
  }
  d->rowBeg = beg;
  d->rowLen = len;
  d->colInd = ind;
  d->rowVal = val;
  return 0;
}

// Points the record's shared fields at the copy.
void attachCopy(VRXlp* lp) {
  VRXmodeldata* d = lp->copy;
  lp->colBeg = d->colBeg;
  lp->colLen = d->colLen;
  lp->rowInd = d->rowInd;
  lp->val = d->val;
  lp->senseChar = d->sense;
  lp->cost = d->obj;
  lp->rhs = d->rhs;
  lp->lower = d->lb;
  lp->upper = d->ub;
  lp->colScale = d->colScale;
  lp->rowScale = d->rowScale;
  lp->objScale = d->objScale;
  lp->rowBeg = d->rowBeg;
  lp->rowLen = d->rowLen;
  lp->colInd = d->colInd;
  lp->rowVal = d->rowVal;
}

int siftDecision(const ParamStore& par, int method, bool pwl, int m, int n, const char* sense) {
  if (par.Sifting == -2) return -1;
  if (method != 1 || pwl || par.Sifting == 0 || m <= 1) return 0;
  const int64_t M = m, N = n;
  if (N < std::max<int64_t>(1000, 5 * M)) return 0;
  if (par.Sifting > 0) return 1;
  if (N < 20000 || N < 50 * M) return 0;
  const double md = static_cast<double>(m);
  if (N > std::max<int64_t>(60000, 150 * M) && static_cast<double>(N) > 40.0 * md * std::pow(md, 0.2))
    return 1;
  int64_t e = 0;
  for (int i = 0; i < m; i++) e += sense[i] == '=';
  if (N < std::max<int64_t>(20000, 50 * M) * ((2 * e) / M + 1) ||
      static_cast<double>(N) < 50.0 * md * std::pow(static_cast<double>(e + 1), 0.2))
    return 0;
  return 1;
}

void copyParams(VRXlp* lp, const ParamStore& par, int method, bool presolvedActive) {
  lp->logSeconds = par.DisplayInterval;
  lp->allocHint = par.VORN_PAR_SIMPLEXALLOCS;
  lp->dualSwitch = par.VORN_PAR_PRIMDUALSWITCH;
  lp->feasTol = par.FeasibilityTol;
  lp->optTol = par.OptimalityTol;
  lp->markowitzTol = par.MarkowitzTol;
  lp->pivotTol = par.VORN_PAR_PIVOTTOL;
  lp->bigTol = par.VORN_PAR_BIGTOL;
  lp->zeroTol = par.VORN_PAR_ZERO;
  lp->infBound = par.VORN_PAR_INFBOUND;
  // Cutoff is in the caller's sense; the record works in the minimisation form.
  lp->cutoff = std::fabs(par.Cutoff) < kInf ? lp->sense * par.Cutoff : kInf;
  lp->priceChoice = par.SimplexPricing;
  lp->pwRatio = par.VORN_PAR_SIMPLEXPWRATIO;
  lp->outputLevel = par.OutputFlag;
  lp->iterLimit = par.IterationLimit;
  lp->endFactor = par.VORN_PAR_SIMPLEXENDFAC;
  lp->nonDegenFlip = par.VORN_PAR_NONDEGENFLIP;
  lp->warmKind = par.VORN_PAR_WARMBASIS;
  lp->exactNorm = par.VORN_PAR_EXACTNORM;
  if (std::abs(method) != 1 || std::abs(par.SimplexPricing) != 1 || presolvedActive) lp->exactNorm = 0;
  lp->iterLogStep = par.VORN_PAR_SDISPINTERVAL;
  lp->fixLimit = par.VORN_PAR_STMPFIXES;
  lp->luInterval = par.VORN_PAR_LUINTERVAL;
  lp->intBasis = par.VORN_PAR_INTBASIS;
  lp->method = method;
  lp->switchBudget = 1000000000;
}

// nnz, the nonzero costs and singleCost: the column of a lone cost, -2 when every column
// has the same nonzero cost, -1 otherwise.
void countCosts(VRXlp* lp) {
  const int n = lp->n;
  int64_t nnz = 0;
  int count = 0, last = -1;
  bool allSame = n > 0 && lp->cost[0] != 0.0;
  for (int j = 0; j < n; j++) {
    nnz += lp->colLen[j];
    if (lp->cost[j] != 0.0) {
      count++;
      last = j;
    }
    if (lp->cost[j] != lp->cost[0]) allSame = false;
  }
  lp->nnz = nnz;
  lp->costNz = count;
  lp->singleCost = count == 1 ? last : (allSame ? -2 : -1);
}

void perturbValues(VRXlp* lp, const ParamStore& par) {
  const double pv = par.PerturbValue;
  lp->perturbBase = lp->perturbCur = pv;
  if (lp->method != 1) return;
  if (lp->modelKind == VRX_LPKIND_LP && pv <= 0.0002) lp->perturbCur *= lp->m <= 10000 ? 10.0 : 25.0;
  if (lp->costNz == 1 && lp->colLen[lp->singleCost] > 1000 && lp->iterCount + lp->priorIter == 0.0 &&
      pv == 0.0002)
    lp->perturbCur *= 25.0;
}

void workFactorOf(VRXlp* lp) {
  const double m = lp->m, n = lp->n;
  lp->workFactor = lp->m < 10001 ? 1.3 : 1.3 * std::sqrt(std::log10(m / 1000.0));
  if (static_cast<double>(lp->nnz) > 0.2 * m * n) lp->workFactor = 1.3;
}

// Q stays in the simplex path when it is small against the matrix and its diagonal is full.
int quadBasisSize(VRXlp* lp) {
  const VRXmodeldata* d = lp->copy;
  lp->qpBasisSize = 0;
  if (d->numQNZs <= 0 || lp->m >= 40000) return 0;
  const double rows = lp->m;
  if (!(rows * rows < 10.0 * d->numQNZs * static_cast<double>(lp->nnz) / (lp->n + 1.0))) return 0;
  char* seen = envCallocArray<char>(lp->env, static_cast<size_t>(lp->n) + 1);
  if (!seen) return VRX_ERROR_OUT_OF_MEMORY;
  int diag = 0;
  for (int k = 0; k < d->numQNZs; k++)
    if (d->qRow[k] == d->qCol[k] && d->qVal[k] != 0.0 && !seen[d->qRow[k]]) {
      seen[d->qRow[k]] = 1;
      diag++;
    }
  envFree(lp->env, seen);
  if (diag == lp->n) lp->qpBasisSize = lp->n;
  return 0;
}

void refactorInterval(VRXlp* lp, const ParamStore& par) {
  const double m = std::max(lp->m, 1);
  if (par.VORN_PAR_LUINTERVAL == 0) {
    const int focus = par.NumericFocus;
    int limit = static_cast<int>(std::max(20.0, std::floor(std::pow(m, 0.7 - 0.1 * focus))));
    if (focus == 1) limit = std::min(limit, 1000);
    if (focus >= 2) limit = std::min(limit, 100);
    lp->refactorLimit = limit;
  } else {
    lp->refactorLimit = par.VORN_PAR_LUINTERVAL;
  }
  lp->updateCheck = static_cast<int>(std::pow(m, 0.45));
}

void slackColumns(VRXlp* lp) {
  const int n = lp->n;
  for (int i = 0; i < lp->m; i++) {
    lp->cost[n + i] = 0.0;
    lp->lower[n + i] = 0.0;
    lp->upper[n + i] = lp->senseChar[i] == '=' ? 0.0 : lp->infBound;
  }
}

// Crossing or unreachable bounds make the LP infeasible, or unbounded when the cost pulls the
// column toward its infinite bound. The first such column decides.
void boundCheck(VRXlp* lp) {
  for (int j = 0; j < lp->n; j++) {
    const double lo = lp->lower[j], up = lp->upper[j];
    const bool cross = up - lo < -lp->feasTol;
    const bool loInf = lo >= lp->infBound;
    const bool upInf = up <= -lp->infBound;
    if (!cross && !loInf && !upInf) continue;
    if (!cross && ((loInf && lp->cost[j] < 0.0) || (upInf && lp->cost[j] > 0.0))) {
      lp->status = 5;
    } else {
      lp->status = 3;
      lp->badVar = j;
    }
    const double c = lp->colScale ? lp->colScale[j] : 1.0;
    const double tlo = std::fabs(lo) < lp->infBound ? lo * c : lo;
    const double tup = std::fabs(up) < lp->infBound ? up * c : up;
    char buf[32];
    const VRXmodeldata* names = lp->model->data;
    const char* name = names && names->numVars == lp->n ? modelVarName(names, j, buf, sizeof buf)
                                                        : (std::snprintf(buf, sizeof buf, "C%d", j), buf);
    log(lp->env, "Warning: variable %s has bad bounds, lower = %g and upper = %g\n", name, tlo, tup);
    return;
  }
}

int createRecord(VRXmodel* model, const VRXlpSetupOpts& o, VRXlp** out) {
  VRXenv* env = model->env;
  *out = nullptr;
  if (!o.copy && !model->data) return VRX_ERROR_DATA_NOT_AVAILABLE;
  auto* lp = envCallocArray<VRXlp>(env, 1);
  if (!lp) return VRX_ERROR_OUT_OF_MEMORY;
  lp->env = env;
  lp->model = model;
  lp->modelKind = o.modelKind;
  if (o.copy) {
    lp->copy = o.copy;
  } else {
    int rc = lpMakeSolverCopy(env, model->data, &lp->copy);
    if (rc) {
      envFree(env, lp);
      return rc;
    }
    lp->ownsCopy = 1;
  }
  const VRXmodeldata* d = lp->copy;
  lp->m = d->numConstrs;
  lp->n = d->numVars;
  lp->sense = d->modelSense;
  lp->objConst = d->objCon;
  lp->lastLogIter = -1.0;
  lp->firstLoad = 1;
  lp->status = 1;
  lp->badVar = -1;
  lp->bestDualObj = -kInf;
  lp->bestDualObj2 = -kInf;
  lp->infeasCount = -1;
  lp->leaveRow = -1;
  lp->enterVar = -1;
  lp->leaveVar = -1;
  lp->cycleVar = -1;
  lp->smallPivotVar = -1;
  lp->extraScale = 1.0;
  lp->objScale = 1.0;
  lp->rhsScale = 1.0;
  lp->quadMode = env->par.Quad == 1 ? 1 : 0;
  *out = lp;
  return 0;
}

}  // namespace

int lpMakeSolverCopy(VRXenv* env, const VRXmodeldata* src, VRXmodeldata** out) {
  *out = nullptr;
  auto* d = envCallocArray<VRXmodeldata>(env, 1);
  if (!d) return VRX_ERROR_OUT_OF_MEMORY;
  const int n = src->numVars, m = src->numConstrs;
  const size_t cols = static_cast<size_t>(n) + static_cast<size_t>(m);
  int64_t nnz = 0;
  for (int j = 0; j < n; j++) nnz += src->colLen[j];
  d->modelSense = src->modelSense;
  d->numConstrs = m;
  d->numVars = n;
  d->numNZs = nnz;
  d->numIntVars = src->numIntVars;
  d->numBinVars = src->numBinVars;
  d->solvedTag = src->solvedTag;
  d->objCon = src->objCon;
  d->objScale = src->objScale != 0.0 ? src->objScale : 1.0;
  d->flippedCount = src->flippedCount;
  const size_t entries = static_cast<size_t>(nnz) + static_cast<size_t>(m);
  bool ok = allocArray(env, d->obj, cols);
  ok = allocArray(env, d->colBeg, cols + 1) && ok;
  ok = allocArray(env, d->colLen, cols) && ok;
  ok = allocArray(env, d->rowInd, entries) && ok;
  ok = allocArray(env, d->val, entries) && ok;
  ok = allocArray(env, d->rhs, static_cast<size_t>(m)) && ok;
  ok = allocArray(env, d->sense, static_cast<size_t>(m)) && ok;
  ok = allocArray(env, d->lb, cols) && ok;
  ok = allocArray(env, d->ub, cols) && ok;
  ok = allocArray(env, d->vtype, cols) && ok;
  if (src->numQNZs > 0) {
    const size_t q = static_cast<size_t>(src->numQNZs);
    ok = allocArray(env, d->qRow, q) && ok;
    ok = allocArray(env, d->qCol, q) && ok;
    ok = allocArray(env, d->qVal, q) && ok;
  }
  if (src->colFlipped) ok = allocArray(env, d->colFlipped, cols) && ok;
  if (src->rowScale) ok = allocArray(env, d->rowScale, static_cast<size_t>(m) + 1) && ok;
  if (src->colScale) ok = allocArray(env, d->colScale, cols + 1) && ok;
  if (!ok) {
    modelDataFree(env, d);
    return VRX_ERROR_OUT_OF_MEMORY;
  }

  // Structural columns packed in order, then one unit column per slack.
  int64_t p = 0;
  for (int j = 0; j < n; j++) {
    d->colBeg[j] = p;
    d->colLen[j] = src->colLen[j];
    const int64_t b = src->colBeg[j];
    if (src->colLen[j] > 0) {
      std::memcpy(d->rowInd + p, src->rowInd + b, sizeof(int) * static_cast<size_t>(src->colLen[j]));
      std::memcpy(d->val + p, src->val + b, sizeof(double) * static_cast<size_t>(src->colLen[j]));
    }
    p += src->colLen[j];
  }
  for (int i = 0; i < m; i++) {
    d->colBeg[n + i] = p;
    d->colLen[n + i] = 1;
    d->rowInd[p] = i;
    d->val[p] = 1.0;
    p++;
  }
  d->colBeg[cols] = p;
  if (n > 0) {
    std::memcpy(d->obj, src->obj, sizeof(double) * static_cast<size_t>(n));
    std::memcpy(d->lb, src->lb, sizeof(double) * static_cast<size_t>(n));
    std::memcpy(d->ub, src->ub, sizeof(double) * static_cast<size_t>(n));
    if (src->vtype)
      std::memcpy(d->vtype, src->vtype, static_cast<size_t>(n));
    else
      std::memset(d->vtype, 'C', static_cast<size_t>(n));
  }
  for (size_t k = static_cast<size_t>(n); k < cols; k++) {
    d->obj[k] = 0.0;
    d->lb[k] = 0.0;
    d->ub[k] = 0.0;
    d->vtype[k] = 'C';
  }
  if (m > 0) {
    std::memcpy(d->rhs, src->rhs, sizeof(double) * static_cast<size_t>(m));
    std::memcpy(d->sense, src->sense, static_cast<size_t>(m));
  }
  if (src->numQNZs > 0) {
    const size_t q = static_cast<size_t>(src->numQNZs);
    d->numQNZs = src->numQNZs;
    std::memcpy(d->qRow, src->qRow, sizeof(int) * q);
    std::memcpy(d->qCol, src->qCol, sizeof(int) * q);
    std::memcpy(d->qVal, src->qVal, sizeof(double) * q);
  }
  if (src->colFlipped) {
    std::memcpy(d->colFlipped, src->colFlipped, static_cast<size_t>(n));
    std::memset(d->colFlipped + n, 0, static_cast<size_t>(m));
  }
  if (src->rowScale) std::memcpy(d->rowScale, src->rowScale, sizeof(double) * static_cast<size_t>(m));
  if (src->colScale) std::memcpy(d->colScale, src->colScale, sizeof(double) * cols);

  if (src->geRowsNegated != 0) {
    d->geRowsNegated = src->geRowsNegated;  // already in the solver's orientation
  } else {
    bool anyGe = false;
    for (int i = 0; i < m && !anyGe; i++) anyGe = d->sense[i] == '>';
    d->geRowsNegated = anyGe ? 1 : -1;
    if (anyGe) {
      for (int64_t k = 0; k < nnz; k++)
        if (d->sense[d->rowInd[k]] == '>') d->val[k] = -d->val[k];
      for (int i = 0; i < m; i++)
        if (d->sense[i] == '>') d->rhs[i] = -d->rhs[i];
    }
  }
  *out = d;
  return 0;
}

VRXfactorMatrix lpFactorMatrix(const VRXlp* lp) {
  return VRXfactorMatrix{lp->m, lp->n, lp->colBeg, lp->colLen, lp->rowInd, lp->val};
}

void lpFactorCtlLoad(const VRXlp* lp, VRXfactorCtl* ctl) {
  *ctl = VRXfactorCtl{};
  ctl->workFactor = lp->workFactor;
  ctl->markowitzTol = lp->markowitzTol;
  ctl->zeroTol = lp->zeroTol;
  ctl->refactorLimit = lp->refactorLimit;
  ctl->updateCheck = lp->updateCheck;
  ctl->luInterval = lp->luInterval;
  ctl->scaled = lp->colScale != nullptr;
  ctl->endFactor = lp->endFactor;
  ctl->warmKind = lp->warmKind;
  ctl->iterCount = lp->iterCount;
  ctl->priorIter = lp->priorIter;
  ctl->hasSavedState = lp->savedVarStat != nullptr && lp->iterCount > 0.0;
  ctl->singularRepairs = lp->singularRepairs;
  ctl->rescueCount = lp->rescueCount;
  ctl->updateFailures = lp->updateFailures;
  ctl->normsStale = lp->normsStale;
  ctl->actionCode = lp->actionCode;
  ctl->status = lp->status;
  ctl->factorWorkAvg = lp->factorWorkAvg;
  ctl->lastFactorWork = lp->lastFactorWork;
  ctl->refactorCount = lp->refactorCount;
  ctl->n = lp->n;
  ctl->varStat = lp->varStat;
  ctl->lower = lp->lower;
  ctl->infBound = lp->infBound;
  ctl->fixedList = lp->fixedList;
  ctl->fixedCount = lp->fixedCount;
  ctl->fixLimit = std::min(lp->fixLimit, lp->n + lp->m);
}

void lpFactorCtlStore(VRXlp* lp, const VRXfactorCtl* ctl) {
  lp->markowitzTol = ctl->markowitzTol;
  lp->refactorLimit = ctl->refactorLimit;
  lp->singularRepairs = ctl->singularRepairs;
  lp->rescueCount = ctl->rescueCount;
  lp->updateFailures = ctl->updateFailures;
  lp->normsStale = ctl->normsStale;
  lp->actionCode = ctl->actionCode;
  lp->status = ctl->status;
  lp->factorWorkAvg = ctl->factorWorkAvg;
  lp->lastFactorWork = ctl->lastFactorWork;
  lp->refactorCount = ctl->refactorCount;
  lp->fixedCount = ctl->fixedCount;
}

}  // namespace vrx

int VRXlpSetup(VRXmodel* model, int method, double* work, const VRXlpSetupOpts* opts) {
  using namespace vrx;
  const VRXlpSetupOpts defaults;
  const VRXlpSetupOpts& o = opts ? *opts : defaults;
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  if (work) *work += 50.0;
  // Piecewise-linear terms live in the working LP of the primal and the dual; crossover
  // takes the LP form of the terms, and solving without them would answer another problem.
  if (model->data && model->data->numPWLObjVars > 0 && method != 0 && method != 1) {
    VRXlpFreeOnModel(model);
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true,
                 "Piecewise-linear objectives cannot be solved by the simplex of this build");
  }

  auto* lp = static_cast<VRXlp*>(model->lp);
  const bool fresh = lp == nullptr;
  int rc = 0;
  if (fresh) {
    rc = createRecord(model, o, &lp);
    if (rc) return rc;
    model->lp = lp;
  }
  auto fail = [&](int code) {
    VRXlpFreeOnModel(model);
    return code;
  };

  // Explicit precision settings switch an existing record; the line follows a good reload.
  const char* switchLine = nullptr;
  if (!fresh && par.Quad == 1 && lp->quadMode == 0) {
    if ((rc = VRXlpToQuad(lp))) return fail(rc);
    VRXlpFreeWork(lp);
    switchLine = "Switch to quad precision\n";
  } else if (!fresh && par.Quad == 0 && lp->quadMode == 1) {
    if ((rc = VRXlpToDouble(lp))) return fail(rc);
    VRXlpFreeWork(lp);
    switchLine = "Switch to double precision\n";
  }

  if (!fresh) {
    lp->priorIter += lp->iterCount;
    lp->iterCount = 0.0;
    lp->status = 1;
    lp->badVar = -1;
    lp->phase = 0;
  }
  copyParams(lp, par, method, model->presolved != nullptr);
  lp->zeroObjectiveMode = lp->modelKind == VRX_LPKIND_ZEROOBJ;
  const bool pwl = model->data && model->data->numPWLObjVars > 0;

  attachCopy(lp);
  lp->siftFlag = siftDecision(par, method, pwl, lp->m, lp->n, lp->senseChar);
  countCosts(lp);
  perturbValues(lp, par);
  workFactorOf(lp);
  if ((rc = quadBasisSize(lp))) return fail(rc);
  lp->varType = par.VORN_PAR_INTBASIS != 0 ? lp->copy->vtype : nullptr;
  refactorInterval(lp, par);

  if (fresh) {
    applyFlips(lp->copy);
    slackColumns(lp);
    VRXmodeldata* d = lp->copy;
    if (lp->n > 0 && !d->colScale && d->objScale == 1.0) {
      ScaleOpts so;
      so.scaleFlag = par.ScaleFlag;
      so.modelKind = lp->modelKind;
      so.objScaleParam = par.ObjScale;
      so.rhsScaleParam = par.VORN_PAR_RHSSCALE;
      so.infBound = lp->infBound;
      so.hasPwl = pwl;
      so.altScale = par.VORN_PAR_ALTSCALE && model->presolved;
      so.seed = static_cast<uint64_t>(par.Seed);
      so.workFactor = lp->workFactor;
      if ((rc = scaleCopy(env, d, so, work))) return fail(rc);
      if (par.VORN_PAR_RHSSCALE != 1.0 && d->colScale) lp->rhsScale = powerOfTwo(par.VORN_PAR_RHSSCALE);
    }
    if (!d->rowBeg && (rc = buildRowCopy(env, d))) return fail(rc);
    attachCopy(lp);
  }

  // The terms' segments replace the copy's cost and bounds of their columns.
  if (pwl) {
    if ((rc = pwlSetup(lp, model->data))) return fail(rc);
  } else {
    pwlFree(lp);
  }

  // Every solve on the record starts by building the factor.
  lp->actionCode = 1;
  if ((rc = VRXlpLoad(lp))) return fail(rc);
  if (switchLine) log(env, "%s", switchLine);
  if (lp->firstLoad) {
    boundCheck(lp);
    lp->firstLoad = 0;
  }
  if (work) *work += 3.0 * (lp->n + lp->m) * lp->workFactor;
  return 0;
}

void VRXlpFreeOnModel(VRXmodel* model) {
  auto* lp = static_cast<VRXlp*>(model->lp);
  VRXlpFree(&lp);
  model->lp = nullptr;
}
