// When to refactor, the Markowitz tightening, and the repair of singular bases.
#include <algorithm>
#include <cmath>

#include "simplex/factor_impl.h"

void VRXfactorCtlInit(VRXfactorCtl* ctl, VRXenv* env, int m, int n) {
  *ctl = VRXfactorCtl{};
  const vrx::ParamStore& par = env->par;
  ctl->workFactor = m < 10001 ? 1.3 : 1.3 * std::sqrt(std::log10(m / 1000.0));
  ctl->markowitzTol = par.MarkowitzTol;
  ctl->zeroTol = par.VORN_PAR_ZERO;
  ctl->luInterval = par.VORN_PAR_LUINTERVAL;
  if (ctl->luInterval == 0) {
    int focus = par.NumericFocus;
    double lim = std::floor(std::pow(static_cast<double>(std::max(m, 1)), 0.7 - 0.1 * focus));
    int limit = static_cast<int>(std::max(20.0, lim));
    if (focus == 1) limit = std::min(limit, 1000);
    if (focus >= 2) limit = std::min(limit, 100);
    ctl->refactorLimit = limit;
  } else {
    ctl->refactorLimit = ctl->luInterval;
  }
  ctl->updateCheck = static_cast<int>(std::pow(static_cast<double>(std::max(m, 1)), 0.45));
  ctl->endFactor = par.VORN_PAR_SIMPLEXENDFAC;
  ctl->warmKind = par.VORN_PAR_WARMBASIS;
  ctl->infBound = par.VORN_PAR_INFBOUND;
  ctl->fixLimit = par.VORN_PAR_STMPFIXES;
  ctl->status = 1;
  ctl->n = n;
}

namespace {

template <class T>
int growBuildArena(VRXfactorT<T>* f) {
  const int64_t cap = f->uArenaCap;
  if (cap > INT64_MAX / 2) return VRX_ERROR_OUT_OF_MEMORY;
  const int64_t next = cap + cap / 2 + 1024;
  if (!vrx::lu::growArray(f->env, &f->uArena, static_cast<size_t>(next)) ||
      !vrx::lu::growArray(f->env, &f->uArenaVal, static_cast<size_t>(next))) {
    vrx::log(f->env, "Warning: insufficient memory, speed may be affected.\n");
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  f->uArenaCap = next;
  return 0;
}

// Drops the unpivoted columns for the slacks of the pivotless rows, or says why not.
template <class T>
int repairSingular(VRXfactorT<T>* f, VRXfactorCtl* ctl) {
  VRXenv* env = f->env;
  const int k = f->unpivotedCount;
  const int m = f->m;
  const double iterDone = ctl->iterCount + ctl->priorIter;
  if (iterDone == 0 && ctl->warmKind > 0) return ctl->warmKind == 1 ? 100001 : 100002;

  ctl->singularRepairs++;
  if (ctl->singularRepairs <= 6) vrx::log(env, "Warning: %d variables dropped from basis\n", k);
  if (ctl->strictNumerics) return 12;
  if (ctl->endFactor == 0 && ctl->singularRepairs - 1 > 4) return 12;
  if (iterDone == 0) {
    if (ctl->singularRepairs == 1) vrx::log(env, "Warning: starting basis discarded\n");
    if (ctl->singularRepairs > 2) return 12;
  }

  ctl->rescueCount++;
  ctl->normsStale = 1;
  if (ctl->luInterval == 0) {
    int shrunk = static_cast<int>(
        std::max(50.0, std::min(0.9 * ctl->refactorLimit, std::sqrt(static_cast<double>(m)))));
    if (shrunk < ctl->refactorLimit) {
      ctl->refactorLimit = shrunk;
      if (shrunk < f->updateLimit) f->updateLimit = shrunk;
    }
  }
  ctl->markowitzTol = std::max(ctl->markowitzTol, ctl->singularRepairs == 1 ? 0.5 : 0.9);
  if (ctl->singularRepairs < 6 && ctl->hasSavedState) {
    ctl->status = -1002;
    return 0;
  }

  if (ctl->varStat && ctl->fixedList && ctl->fixedCount >= ctl->fixLimit) {
    vrx::log(env, "Temporary fix limit exceeded\n");
    return 12;
  }
  const int n = f->A.n;
  for (int q = 0; q < k; q++) {
    const int pos = f->unpivotedPos[q];
    const int row = f->pivotlessRow[q];
    const int var = f->basisHead[pos];
    if (ctl->varStat) {
      bool freeBelow = ctl->lower && ctl->lower[var] <= -ctl->infBound;
      int st = freeBelow ? -3 : -1;
      if (q == k - 1 && ctl->fixedList) {
        st = freeBelow ? -6 : -4;
        ctl->fixedList[ctl->fixedCount++] = var;
      }
      ctl->varStat[var] = st;
      ctl->varStat[n + row] = pos;
    }
    f->basisHead[pos] = n + row;
  }
  return 0;
}

}  // namespace

template <class T>
int VRXfactorFactorize(VRXfactorT<T>* f, const VRXfactorMatrix* A, const int* basisHead,
                       VRXfactorCtl* ctl, double* work, int* unpivoted) {
  *unpivoted = 0;
  if (f->reuseFactor == 2) {
    ctl->status = -1000;
    return 0;
  }
  const double start = *work;
  const int* head = basisHead;
  for (;;) {
    int rc = VRXfactorBuild(f, A, head, ctl->zeroTol, ctl->markowitzTol, ctl->workFactor, work);
    head = nullptr;
    if (rc == -1) {
      int g = growBuildArena(f);
      if (g) return g;
      continue;
    }
    if (rc == -10014) {
      // A nucleus entry no pivot search can take (not finite, or lost in the lists): a
      // stricter tolerance first, then the rescue routine, else the run ends.
      if (ctl->markowitzTol < 0.5) {
        ctl->markowitzTol = 0.5;
        vrx::log(f->env, "Warning: Markowitz tolerance tightened to %g\n", ctl->markowitzTol);
        continue;
      }
      if (ctl->hasSavedState) {
        ctl->status = -1002;
        return 0;
      }
      return 12;
    }
    if (rc < -1) return -rc;
    if (rc > 0) {
      *unpivoted = rc;
      return 0;
    }
    if (ctl->markowitzTol < 0.9 && f->m > 0) {
      T lo = vrx::lu::absT(f->diag[0]), hi = lo;
      for (int r = 1; r < f->m; r++) {
        T a = vrx::lu::absT(f->diag[r]);
        lo = std::min(lo, a);
        hi = std::max(hi, a);
      }
      const T limit = T(ctl->scaled ? 1e12 : 1e15);
      if (hi > limit * lo) {
        ctl->markowitzTol = ctl->markowitzTol >= 0.5 ? 0.9 : 0.5;
        vrx::log(f->env, "Warning: Markowitz tolerance tightened to %g\n", ctl->markowitzTol);
        continue;
      }
    }
    ctl->refactorCount++;
    ctl->lastFactorWork = *work - start;
    if (ctl->endFactor && !ctl->concurrent)
      ctl->factorWorkAvg = ctl->factorWorkAvg > 0 ? 0.5 * (ctl->factorWorkAvg + ctl->lastFactorWork)
                                                  : ctl->lastFactorWork;
    return 0;
  }
}

template <class T>
int VRXfactorRefactor(VRXfactorT<T>* f, const VRXfactorMatrix* A, const int* basisHead,
                      VRXfactorCtl* ctl, double* work) {
  const int* head = basisHead;
  // Every repair covers the pivotless rows by slacks, so a few rounds suffice unless the
  // numbers are hopeless.
  for (int round = 0;; round++) {
    int k = 0;
    int rc = VRXfactorFactorize(f, A, head, ctl, work, &k);
    head = nullptr;
    if (rc) return rc;
    if (ctl->status <= -1000 || k == 0) return 0;
    if (round >= 20) return 12;
    rc = repairSingular(f, ctl);
    if (rc || ctl->status <= -1000) return rc;
  }
}

template <class T>
int VRXfactorRefactorTest(const VRXfactorT<T>* f, const VRXfactorCtl* ctl, double workNow,
                          int64_t nnz) {
  const int u = f->nUpdatesDone;
  if (u >= f->updateLimit) return 2;
  const double m = f->m;
  if (u >= ctl->updateCheck) {
    const double z = static_cast<double>(f->lzNz + f->uNz) + 2.0 * m - 1.5 * m;
    const double d =
        (1.5 * static_cast<double>(f->fillSum) + 2.0 * static_cast<double>(f->rowEtaNz)) * m -
        std::min(z * z, 4.0 * m * m * ctl->updateCheck);
    if (d > 0) return 10;
  }
  if (u % 10 == 9 && ctl->factorWorkAvg > 0 &&
      workNow - f->workAtBuild > 20.0 * ctl->factorWorkAvg + 100.0 * static_cast<double>(nnz))
    return 10;
  return 0;
}

#define VRX_FACTOR_REFACTOR_INST(T)                                                      \
  template int VRXfactorFactorize<T>(VRXfactorT<T>*, const VRXfactorMatrix*, const int*, \
                                     VRXfactorCtl*, double*, int*);                      \
  template int VRXfactorRefactor<T>(VRXfactorT<T>*, const VRXfactorMatrix*, const int*,  \
                                    VRXfactorCtl*, double*);                             \
  template int VRXfactorRefactorTest<T>(const VRXfactorT<T>*, const VRXfactorCtl*, double, int64_t);
VRX_FACTOR_REFACTOR_INST(double)
VRX_FACTOR_REFACTOR_INST(long double)
