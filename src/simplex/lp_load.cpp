// Work arrays of the working LP in double or extended form, the active row-wise copy, and
// the freeing of the record.
#include <algorithm>
#include <cstring>
#include <type_traits>

#include "model/modeldata.h"
#include "simplex/dual.h"
#include "simplex/lp.h"
#include "simplex/pwl.h"
#include "simplex/primal.h"

namespace {

using vrx::envAllocArray;
using vrx::envCallocArray;
using vrx::envFree;

template <class T>
bool callocInto(VRXenv* env, T*& p, size_t count) {
  if (p) return true;
  p = envCallocArray<T>(env, count ? count : 1);
  return p != nullptr;
}

template <class T>
bool svecInto(VRXenv* env, VRXsvecT<T>& v, int dim) {
  if (v.value) return true;
  return vrx::svecAlloc(env, &v, dim) == 0;
}

// The arrays of one arithmetic form, by reference into the record.
template <class T>
struct Form;

template <>
struct Form<double> {
  double*& Cbar;
  double*& Bbar;
  VRXsvec* vecs[5];
  VRXfactor*& factor;
  static Form of(VRXlp* lp) {
    return Form{lp->Cbar, lp->Bbar, {&lp->alphaRow, &lp->alphaCol, &lp->rho, &lp->scratch1, &lp->scratch2},
                lp->factor};
  }
};

template <>
struct Form<long double> {
  long double*& Cbar;
  long double*& Bbar;
  VRXsvecQ* vecs[7];
  VRXfactorQ*& factor;
  static Form of(VRXlp* lp) {
    return Form{lp->CbarQ,
                lp->BbarQ,
                {&lp->alphaRowQ, &lp->alphaColQ, &lp->rhoQ, &lp->scratch1Q, &lp->scratch2Q, &lp->extra1Q,
                 &lp->extra2Q},
                lp->factorQ};
  }
};

// Lengths of alphaRow, alphaCol, rho, the two scratch vectors and the extended extras.
int vecDim(const VRXlp* lp, int k) {
  const int nm = lp->n + lp->m + 1;
  return (k == 1 || k == 2) ? lp->m + 1 : nm;
}

template <class T>
int loadT(VRXlp* lp) {
  VRXenv* env = lp->env;
  const int n = lp->n, m = lp->m;
  const size_t nm = static_cast<size_t>(n) + static_cast<size_t>(m);
  const bool freshStat = lp->varStat == nullptr;
  Form<T> f = Form<T>::of(lp);

  bool ok = callocInto(env, lp->varStat, nm);
  ok = ok && callocInto(env, lp->savedVarStat, nm);
  ok = ok && callocInto(env, f.Cbar, nm);
  ok = ok && callocInto(env, f.Bbar, static_cast<size_t>(m));
  for (int k = 0; ok && k < static_cast<int>(sizeof f.vecs / sizeof f.vecs[0]); k++)
    ok = svecInto(env, *f.vecs[k], vecDim(lp, k));
  ok = ok && callocInto(env, lp->rowFlag, static_cast<size_t>(m));
  ok = ok && callocInto(env, lp->candidateBuf, nm);
  ok = ok && callocInto(env, lp->fixedList, std::min(static_cast<size_t>(std::max(lp->fixLimit, 0)), nm) + 1);
  ok = ok && callocInto(env, lp->tmpFixList, nm);
  ok = ok && callocInto(env, lp->refFramework, nm);
  if (!ok) return VRX_ERROR_OUT_OF_MEMORY;

  const bool freshActive = lp->activeRowLen == nullptr;
  if (freshActive) {
    int64_t cap = 0;
    for (int j = 0; j < n; j++) cap = std::max(cap, lp->colBeg[j] + lp->colLen[j]);
    const size_t rowNz = static_cast<size_t>(lp->rowBeg[m]);
    ok = callocInto(env, lp->activeRowLen, static_cast<size_t>(m));
    ok = ok && callocInto(env, lp->activeColInd, rowNz);
    ok = ok && callocInto(env, lp->activeRowVal, rowNz);
    ok = ok && callocInto(env, lp->activeSrc, rowNz);
    ok = ok && callocInto(env, lp->activePos, static_cast<size_t>(cap));
    if (!ok) {
      // All five or none, so a later load starts the copy afresh.
      envFree(env, lp->activeRowLen);
      envFree(env, lp->activeColInd);
      envFree(env, lp->activeRowVal);
      envFree(env, lp->activeSrc);
      envFree(env, lp->activePos);
      lp->activeRowLen = nullptr;
      lp->activeColInd = nullptr;
      lp->activeRowVal = nullptr;
      lp->activeSrc = nullptr;
      lp->activePos = nullptr;
      return VRX_ERROR_OUT_OF_MEMORY;
    }
    lp->entryCap = cap;
  }

  if (freshStat) {
    // Slack basis: structurals at a bound, fixed ones marked, slacks basic in their rows.
    for (int j = 0; j < n; j++) {
      const double lo = lp->lower[j], up = lp->upper[j];
      const bool loFin = lo > -lp->infBound, upFin = up < lp->infBound;
      if (lo == up)
        lp->varStat[j] = VRX_VS_FIX_LOWER;
      else if (loFin)
        lp->varStat[j] = VRX_VS_LOWER;
      else if (upFin)
        lp->varStat[j] = VRX_VS_UPPER;
      else
        lp->varStat[j] = VRX_VS_FREE;
    }
    for (int i = 0; i < m; i++) lp->varStat[n + i] = i;
  }

  if (!f.factor) {
    int rc = VRXfactorCreate<T>(env, m, lp->refactorLimit, &f.factor);
    if (rc) return rc;
    for (int j = 0; j < n + m; j++)
      if (lp->varStat[j] >= 0 && lp->varStat[j] < m) f.factor->basisHead[lp->varStat[j]] = j;
  } else if (f.factor->updateLimit != lp->refactorLimit) {
    int rc = VRXfactorSetUpdateLimit<T>(f.factor, lp->refactorLimit);
    if (rc) return rc;
  }

  if (freshActive || freshStat) vrx::lpActiveRebuild(lp);
  return 0;
}

// Moves Cbar, Bbar and the sparse vectors from form S to form D with values converted;
// all of D is allocated before anything of S is freed, so a failure changes nothing.
template <class S, class D>
int switchForm(VRXlp* lp) {
  VRXenv* env = lp->env;
  Form<S> from = Form<S>::of(lp);
  Form<D> to = Form<D>::of(lp);
  const size_t nm = static_cast<size_t>(lp->n) + static_cast<size_t>(lp->m);
  constexpr int nFrom = sizeof from.vecs / sizeof from.vecs[0];
  constexpr int nTo = sizeof to.vecs / sizeof to.vecs[0];
  const bool loaded = from.Cbar != nullptr;
  if (!loaded) return 0;  // nothing allocated yet: the next load allocates form D

  bool ok = callocInto(env, to.Cbar, nm);
  ok = ok && callocInto(env, to.Bbar, static_cast<size_t>(lp->m));
  for (int k = 0; ok && k < nTo; k++) ok = svecInto(env, *to.vecs[k], vecDim(lp, k));
  // A factor of the new form for the same basis, built at its first use.
  const bool newFactor = ok && !to.factor && lp->m > 0;
  if (newFactor) {
    ok = VRXfactorCreate<D>(env, lp->m, lp->refactorLimit, &to.factor) == 0;
    for (int j = 0; ok && j < lp->n + lp->m; j++)
      if (lp->varStat[j] >= 0 && lp->varStat[j] < lp->m) to.factor->basisHead[lp->varStat[j]] = j;
  }
  if (!ok) {
    if (newFactor) VRXfactorFree<D>(&to.factor);
    envFree(env, to.Cbar);
    envFree(env, to.Bbar);
    to.Cbar = nullptr;
    to.Bbar = nullptr;
    for (int k = 0; k < nTo; k++) vrx::svecFree(env, to.vecs[k]);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  for (size_t j = 0; j < nm; j++) to.Cbar[j] = static_cast<D>(from.Cbar[j]);
  for (int i = 0; i < lp->m; i++) to.Bbar[i] = static_cast<D>(from.Bbar[i]);
  for (int k = 0; k < std::min(nFrom, nTo); k++) {
    VRXsvecT<S>* a = from.vecs[k];
    VRXsvecT<D>* b = to.vecs[k];
    const int dim = vecDim(lp, k);
    b->count = a->count;
    if (a->count > 0) std::memcpy(b->index, a->index, sizeof(int) * static_cast<size_t>(a->count));
    for (int t = 0; t < dim; t++) b->value[t] = static_cast<D>(a->value[t]);
  }
  envFree(env, from.Cbar);
  envFree(env, from.Bbar);
  from.Cbar = nullptr;
  from.Bbar = nullptr;
  for (int k = 0; k < nFrom; k++) vrx::svecFree(env, from.vecs[k]);
  return 0;
}

}  // namespace

namespace vrx {

void lpActiveRebuild(VRXlp* lp) {
  const int n = lp->n, m = lp->m;
  for (int i = 0; i < m; i++) lp->activeRowLen[i] = 0;
  for (int64_t k = 0; k < lp->entryCap; k++) lp->activePos[k] = -1;
  for (int j = 0; j < n; j++) {
    if (lp->varStat[j] >= 0) continue;
    for (int64_t k = lp->colBeg[j], e = lp->colBeg[j] + lp->colLen[j]; k < e; k++) {
      const int i = lp->rowInd[k];
      const int off = lp->activeRowLen[i]++;
      const int64_t slot = lp->rowBeg[i] + off;
      lp->activeColInd[slot] = j;
      lp->activeRowVal[slot] = lp->val[k];
      lp->activeSrc[slot] = k;
      lp->activePos[k] = off;
    }
  }
}

}  // namespace vrx

int VRXlpLoad(VRXlp* lp) { return lp->quadMode ? loadT<long double>(lp) : loadT<double>(lp); }

int VRXlpToQuad(VRXlp* lp) {
  if (lp->quadMode == 1) return 0;
  int rc = switchForm<double, long double>(lp);
  if (rc) return rc;
  lp->quadMode = 1;
  return 0;
}

int VRXlpToDouble(VRXlp* lp) {
  if (lp->quadMode == 0) return 0;
  int rc = switchForm<long double, double>(lp);
  if (rc) return rc;
  lp->quadMode = 0;
  return 0;
}

void VRXlpFreeWork(VRXlp* lp) {
  VRXfactorFree(&lp->factor);
  VRXfactorFree(&lp->factorQ);
  // pricing and primal belong to the loops; their free routines are to be called here
  // once those records exist. Nothing creates them yet.
  VRXprimalFree(lp);
  VRXdualpriceFree(lp);
}

int VRXlpRowSwap(VRXlp* lp, int var, int sign, double value) {
  if (var < 0 || var >= lp->n + lp->m) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  if (var >= lp->n) return 0;
  const int64_t b = lp->colBeg[var], e = b + lp->colLen[var];
  if (b == e) return 0;
  const bool isActive = lp->activePos[b] >= 0;
  if (sign > 0) {
    if (isActive) return VRX_ERROR_INVALID_ARGUMENT;
    for (int64_t k = b; k < e; k++) {
      const int i = lp->rowInd[k];
      const int off = lp->activeRowLen[i]++;
      const int64_t slot = lp->rowBeg[i] + off;
      lp->activeColInd[slot] = var;
      lp->activeRowVal[slot] = lp->val[k] * value;
      lp->activeSrc[slot] = k;
      lp->activePos[k] = off;
    }
  } else {
    if (!isActive) return VRX_ERROR_INVALID_ARGUMENT;
    for (int64_t k = b; k < e; k++) {
      const int i = lp->rowInd[k];
      const int64_t base = lp->rowBeg[i];
      const int64_t slot = base + lp->activePos[k];
      const int64_t last = base + --lp->activeRowLen[i];
      if (slot != last) {
        // The row's last active entry fills the hole.
        lp->activeColInd[slot] = lp->activeColInd[last];
        lp->activeRowVal[slot] = lp->activeRowVal[last];
        lp->activeSrc[slot] = lp->activeSrc[last];
        lp->activePos[lp->activeSrc[slot]] = static_cast<int>(slot - base);
      }
      lp->activePos[k] = -1;
    }
  }
  return 0;
}

void VRXlpFree(VRXlp** lpP) {
  if (!lpP || !*lpP) return;
  VRXlp* lp = *lpP;
  VRXenv* env = lp->env;
  VRXlpFreeWork(lp);
  void* blocks[] = {lp->varStat,      lp->savedVarStat, lp->warmStart,    lp->activeRowLen, lp->activeColInd,
                    lp->activeRowVal, lp->activePos,    lp->activeSrc,    lp->Cbar,         lp->Bbar,
                    lp->CbarQ,        lp->BbarQ,        lp->rowFlag,      lp->candidateBuf, lp->fixedList,
                    lp->refFramework, lp->fixStart,     lp->fixValue,     lp->tmpFixList,   lp->cleanupList};
  for (void* p : blocks) envFree(env, p);
  VRXsvec* vd[] = {&lp->alphaRow, &lp->alphaCol, &lp->rho, &lp->scratch1, &lp->scratch2};
  for (VRXsvec* v : vd) vrx::svecFree(env, v);
  VRXsvecQ* vq[] = {&lp->alphaRowQ, &lp->alphaColQ, &lp->rhoQ,   &lp->scratch1Q,
                    &lp->scratch2Q, &lp->extra1Q,   &lp->extra2Q};
  for (VRXsvecQ* v : vq) vrx::svecFree(env, v);
  vrx::pwlFree(lp);
  if (lp->ownsCopy) vrx::modelDataFree(env, lp->copy);
  envFree(env, lp);
  *lpP = nullptr;
}
