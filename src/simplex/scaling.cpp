// Scaling of the solver copy by powers of two, and its removal.
#include <cmath>
#include <cstring>

#include "env/clock.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "simplex/lp.h"
#include "env/envvec.h"

namespace vrx {

namespace {

// Factors beyond this are of no use and would push data toward overflow.
constexpr int kMaxScaleExp = 100;

bool finiteBound(double b, double infBound) { return std::fabs(b) < infBound; }

// The matrix view used by the passes: structural columns only.
struct Mat {
  int m, n;
  const int64_t* beg;
  const int* len;
  const int* ind;
  const double* val;
};

// rowMax[i] = max_j |a_ij * c_j|; rows without entries get 0.
void rowMaxima(const Mat& A, const double* c, double* rowMax) {
  for (int i = 0; i < A.m; i++) rowMax[i] = 0.0;
  for (int j = 0; j < A.n; j++) {
    const double cj = c[j];
    for (int64_t k = A.beg[j], e = A.beg[j] + A.len[j]; k < e; k++) {
      const double v = std::fabs(A.val[k] * cj);
      if (v > rowMax[A.ind[k]]) rowMax[A.ind[k]] = v;
    }
  }
}

// max_i |r_i * a_ij| of column j; 0 for an empty column.
double colMaximum(const Mat& A, const double* r, int j) {
  double mx = 0.0;
  for (int64_t k = A.beg[j], e = A.beg[j] + A.len[j]; k < e; k++) {
    const double v = std::fabs(r[A.ind[k]] * A.val[k]);
    if (v > mx) mx = v;
  }
  return mx;
}

// Keeps f within a factor L of prev; counts a hit when it had to move it.
double clampTo(double f, double prev, double L, int* hits) {
  if (f > prev * L) {
    (*hits)++;
    return prev * L;
  }
  if (f < prev / L) {
    (*hits)++;
    return prev / L;
  }
  return f;
}

void scaleOnePass(const Mat& A, double* r, double* c, double* rowMax,
                  double (*roundF)(double, void*), void* roundArg) {
  rowMaxima(A, c, rowMax);
  for (int i = 0; i < A.m; i++) r[i] = rowMax[i] > 0.0 ? roundF(1.0 / rowMax[i], roundArg) : 1.0;
  for (int j = 0; j < A.n; j++) {
    const double mx = colMaximum(A, r, j);
    if (mx > 0.0)
      c[j] = roundF(1.0 / mx, roundArg);
    else if (c[j] != 1.0)
      c[j] = roundF(c[j], roundArg);  // an empty column keeps its start from Q
  }
}

// Geometric means, column then row, while the worst max/min ratio keeps falling.
void scaleGeometric(const Mat& A, double* r, double* c, double* rowMax, double* rowMin) {
  constexpr int kMaxPasses = 20;
  double prevWorst = 1e50;
  for (int pass = 0; pass < kMaxPasses; pass++) {
    double worst = 1.0;
    for (int j = 0; j < A.n; j++) {
      double mx = 0.0, mn = HUGE_VAL;
      for (int64_t k = A.beg[j], e = A.beg[j] + A.len[j]; k < e; k++) {
        const double v = std::fabs(r[A.ind[k]] * A.val[k]);
        if (v > mx) mx = v;
        if (v < mn) mn = v;
      }
      if (mx <= 0.0) continue;
      c[j] = 1.0 / (std::sqrt(mx) * std::sqrt(mn));
      if (mx / mn > worst) worst = mx / mn;
    }
    for (int i = 0; i < A.m; i++) {
      rowMax[i] = 0.0;
      rowMin[i] = HUGE_VAL;
    }
    for (int j = 0; j < A.n; j++) {
      for (int64_t k = A.beg[j], e = A.beg[j] + A.len[j]; k < e; k++) {
        const double v = std::fabs(A.val[k] * c[j]);
        const int i = A.ind[k];
        if (v > rowMax[i]) rowMax[i] = v;
        if (v < rowMin[i]) rowMin[i] = v;
      }
    }
    for (int i = 0; i < A.m; i++) {
      if (rowMax[i] <= 0.0) continue;
      r[i] = 1.0 / (std::sqrt(rowMax[i]) * std::sqrt(rowMin[i]));
      if (rowMax[i] / rowMin[i] > worst) worst = rowMax[i] / rowMin[i];
    }
    if (!(worst < prevWorst)) break;
    prevWorst = worst;
  }
}

// Alternating equilibration with a clamp on how far a factor moves per pass; the first
// passes blend the column factor with the size of the column's bounds.
void scaleAlternating(const Mat& A, const double* lb, const double* ub, double* r, double* c,
                      double* rowMax, double* bnd) {
  constexpr int kPasses = 10;
  for (int j = 0; j < A.n; j++) {
    double b = 0.0;
    if (std::fabs(lb[j]) < 1e30 && std::fabs(lb[j]) > b) b = std::fabs(lb[j]);
    if (std::fabs(ub[j]) < 1e30 && std::fabs(ub[j]) > b) b = std::fabs(ub[j]);
    bnd[j] = b < 1.0 ? 1.0 : b;
  }
  bool exactOnly = false;  // the extra pass after an early stop in a blending pass
  for (int pass = 0; pass < kPasses; pass++) {
    const double L = pass == kPasses - 1 ? 1e100 : 2.0;
    const bool blend = pass <= 2 && !exactOnly;
    int clampHit = 0;
    if (pass > 0) {
      rowMaxima(A, c, rowMax);
      for (int i = 0; i < A.m; i++) {
        if (rowMax[i] <= 0.0) continue;
        r[i] = clampTo(1.0 / rowMax[i], r[i], L, &clampHit);
      }
    }
    for (int j = 0; j < A.n; j++) {
      const double mx = colMaximum(A, r, j);
      if (mx <= 0.0) continue;
      double f = 1.0 / mx;
      if (blend) f = std::sqrt(f * bnd[j]);
      c[j] = pass > 0 ? clampTo(f, c[j], L, &clampHit) : f;
    }
    if (exactOnly) break;
    if (pass > 0 && clampHit == 0) {
      if (pass <= 2)
        exactOnly = true;
      else
        break;
    }
  }
}

struct AltRound {
  Random rng;
};

double roundPow2(double f, void*) { return powerOfTwo(f); }
double roundAlt(double f, void* arg) {
  auto* a = static_cast<AltRound*>(arg);
  return f * (1.0 + randomUniform(a->rng));
}

// Multiplies the data of the copy by the factors (inverse = false) or divides them back.
// Finite bounds are the ones below infBound in magnitude, tested on the value at hand.
void applyScale(VRXmodeldata* d, const double* R, const double* C, double O, double infBound,
                bool inverse) {
  const int n = d->numVars, m = d->numConstrs;
  for (int j = 0; j < n; j++) {
    const double cj = C ? C[j] : 1.0;
    if (R || C) {
      for (int64_t k = d->colBeg[j], e = d->colBeg[j] + d->colLen[j]; k < e; k++) {
        const double f = (R ? R[d->rowInd[k]] : 1.0) * cj;
        d->val[k] = inverse ? d->val[k] / f : d->val[k] * f;
      }
    }
    d->obj[j] = inverse ? d->obj[j] / (cj * O) : d->obj[j] * (cj * O);
    if (C) {
      if (finiteBound(d->lb[j], infBound)) d->lb[j] = inverse ? d->lb[j] * cj : d->lb[j] / cj;
      if (finiteBound(d->ub[j], infBound)) d->ub[j] = inverse ? d->ub[j] * cj : d->ub[j] / cj;
    }
  }
  if (R) {
    for (int i = 0; i < m; i++) {
      const double ri = R[i];
      d->rhs[i] = inverse ? d->rhs[i] / ri : d->rhs[i] * ri;
      double& sl = d->lb[n + i];
      double& su = d->ub[n + i];
      if (finiteBound(sl, infBound)) sl = inverse ? sl / ri : sl * ri;
      if (finiteBound(su, infBound)) su = inverse ? su / ri : su * ri;
    }
    if (d->rowBeg) {
      for (int i = 0; i < m; i++) {
        for (int64_t k = d->rowBeg[i], e = d->rowBeg[i] + d->rowLen[i]; k < e; k++) {
          const double f = R[i] * (C ? C[d->colInd[k]] : 1.0);
          d->rowVal[k] = inverse ? d->rowVal[k] / f : d->rowVal[k] * f;
        }
      }
    }
  }
  for (int k = 0; k < d->numQNZs; k++) {
    const double f = (C ? C[d->qRow[k]] * C[d->qCol[k]] : 1.0) * O;
    d->qVal[k] = inverse ? d->qVal[k] / f : d->qVal[k] * f;
  }
}

}  // namespace

double powerOfTwo(double f) {
  if (!(f > 0.0) || !std::isfinite(f)) return 1.0;
  if (f > 0.5 && f < 2.0) return 1.0;
  int e = 0;
  std::frexp(f, &e);  // f = mant * 2^e, mant in [0.5, 1): floor(log2 f) = e - 1
  int p = e - 1;
  if (p > kMaxScaleExp) p = kMaxScaleExp;
  if (p < -kMaxScaleExp) p = -kMaxScaleExp;
  return std::ldexp(1.0, p);
}

int scaleCopy(VRXenv* env, VRXmodeldata* d, const ScaleOpts& opts, double* work) {
  const int n = d->numVars, m = d->numConstrs;
  if (n <= 0) return 0;
  int flag = opts.scaleFlag;
  if (flag < 0) flag = opts.modelKind == VRX_LPKIND_LIGHTSCALE ? 1 : 3;
  const double rhsF = opts.rhsScaleParam != 1.0 ? powerOfTwo(opts.rhsScaleParam) : 1.0;

  Scratch<double> r(env, static_cast<size_t>(m)), c(env, static_cast<size_t>(n));
  Scratch<double> t1(env, static_cast<size_t>(m)), t2(env, static_cast<size_t>(n > m ? n : m));
  if (!r.a || !c.a || !t1.a || !t2.a) return VRX_ERROR_OUT_OF_MEMORY;
  for (int i = 0; i < m; i++) r[i] = 1.0;
  for (int j = 0; j < n; j++) c[j] = 1.0;

  double maxCost = 0.0;
  for (int j = 0; j < n; j++) maxCost = std::fmax(maxCost, std::fabs(d->obj[j]));

  if (flag != 0) {
    const Mat A{m, n, d->colBeg, d->colLen, d->rowInd, d->val};
    if (d->numQNZs > 0) {
      // Columns with a diagonal Q term start where that term becomes about unit size.
      const double t = opts.objScaleParam > 0.0 ? powerOfTwo(1.0 / opts.objScaleParam)
                                                : (maxCost > 0.0 ? powerOfTwo(1.0 / maxCost) : 1.0);
      for (int j = 0; j < n; j++) t2[j] = 0.0;
      for (int k = 0; k < d->numQNZs; k++)
        if (d->qRow[k] == d->qCol[k]) t2[d->qRow[k]] += d->qVal[k];
      for (int j = 0; j < n; j++)
        if (t2[j] != 0.0) c[j] = 1.0 / std::sqrt(std::fabs(t2[j]) * t);
    }
    AltRound alt{};
    randomSeed(alt.rng, opts.seed);
    double (*roundF)(double, void*) = opts.altScale ? roundAlt : roundPow2;
    if (flag == 1) {
      scaleOnePass(A, r.a, c.a, t1.a, roundF, &alt);
    } else {
      if (flag == 2) {
        Scratch<double> rowMin(env, static_cast<size_t>(m));
        if (!rowMin.a) return VRX_ERROR_OUT_OF_MEMORY;
        scaleGeometric(A, r.a, c.a, t1.a, rowMin.a);
      } else {
        scaleAlternating(A, d->lb, d->ub, r.a, c.a, t1.a, t2.a);
      }
      // Rows and columns without entries keep factor 1 (a column its start from Q).
      rowMaxima(A, c.a, t1.a);
      for (int i = 0; i < m; i++) r[i] = t1[i] > 0.0 ? roundF(r[i], &alt) : 1.0;
      for (int j = 0; j < n; j++)
        if (d->colLen[j] > 0 || c[j] != 1.0) c[j] = roundF(c[j], &alt);
    }
  }

  // The objective factor, measured on the costs as the column factors leave them.
  double objF = 1.0;
  if (opts.objScaleParam > 0.0) {
    objF = powerOfTwo(1.0 / opts.objScaleParam);
  } else if (opts.objScaleParam < 0.0 && !opts.hasPwl) {
    double minc = HUGE_VAL, maxc = 0.0;
    for (int j = 0; j < n; j++) {
      const double v = std::fabs(d->obj[j] * c[j]);
      if (v == 0.0) continue;
      minc = std::fmin(minc, v);
      maxc = std::fmax(maxc, v);
    }
    if (maxc > 0.0) {
      const double ref = std::sqrt(maxc / minc) <= 10000.0 ? std::sqrt(minc * maxc) : maxc / 10000.0;
      objF = ref > 0.5 && ref < 2.0 ? 1.0 : powerOfTwo(1.0 / ref);
    }
  }

  bool anyFactor = rhsF != 1.0;
  for (int i = 0; i < m && !anyFactor; i++) anyFactor = r[i] != 1.0;
  for (int j = 0; j < n && !anyFactor; j++) anyFactor = c[j] != 1.0;

  if (work) *work += 2.0 * opts.workFactor * static_cast<double>(d->numNZs);
  if (!anyFactor) {
    if (objF != 1.0) applyScale(d, nullptr, nullptr, objF, opts.infBound, false);
    d->objScale *= objF;
    return 0;
  }
  double* R = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
  double* C = envAllocArray<double>(env, static_cast<size_t>(n) + static_cast<size_t>(m) + 1);
  if (!R || !C) {
    envFree(env, R);
    envFree(env, C);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  // The right-hand side factor folds into the vectors: rows gain it, columns lose it, and
  // the objective factor gains it so that costs are untouched.
  for (int i = 0; i < m; i++) R[i] = r[i] * rhsF;
  for (int j = 0; j < n; j++) C[j] = c[j] / rhsF;
  for (int i = 0; i < m; i++) C[n + i] = 1.0 / R[i];
  applyScale(d, R, C, objF * rhsF, opts.infBound, false);
  d->rowScale = R;
  d->colScale = C;
  d->objScale *= objF * rhsF;
  return 0;
}

template <class T>
void lpUnscalePrimal(const VRXlp* lp, const T* xs, double* x) {
  const int nm = lp->n + lp->m;
  for (int j = 0; j < nm; j++)
    x[j] = static_cast<double>(lp->colScale ? xs[j] * static_cast<T>(lp->colScale[j]) : xs[j]);
}

template <class T>
void lpUnscaleDual(const VRXlp* lp, const T* ys, double* y) {
  for (int i = 0; i < lp->m; i++) {
    T v = ys[i];
    if (lp->rowScale) v *= static_cast<T>(lp->rowScale[i]);
    y[i] = static_cast<double>(v / static_cast<T>(lp->objScale));
  }
}

template <class T>
void lpUnscaleReduced(const VRXlp* lp, const T* ds, double* d) {
  const int nm = lp->n + lp->m;
  for (int j = 0; j < nm; j++) {
    T v = ds[j];
    if (lp->colScale) v /= static_cast<T>(lp->colScale[j]);
    d[j] = static_cast<double>(v / static_cast<T>(lp->objScale));
  }
}

#define VRX_LP_UNSCALE_INST(T)                                       \
  template void lpUnscalePrimal<T>(const VRXlp*, const T*, double*); \
  template void lpUnscaleDual<T>(const VRXlp*, const T*, double*);   \
  template void lpUnscaleReduced<T>(const VRXlp*, const T*, double*);
VRX_LP_UNSCALE_INST(double)
VRX_LP_UNSCALE_INST(long double)
#undef VRX_LP_UNSCALE_INST

}  // namespace vrx

int VRXlpUnscale(VRXlp* lp) {
  VRXmodeldata* d = lp->copy;
  if (!d) return VRX_ERROR_DATA_NOT_AVAILABLE;
  if (!d->colScale && d->objScale == 1.0) return 0;
  vrx::applyScale(d, d->rowScale, d->colScale, d->objScale, lp->infBound, true);
  vrx::envFree(lp->env, d->rowScale);
  vrx::envFree(lp->env, d->colScale);
  d->rowScale = nullptr;
  d->colScale = nullptr;
  d->objScale = 1.0;
  lp->rowScale = nullptr;
  lp->colScale = nullptr;
  lp->objScale = 1.0;
  lp->rhsScale = 1.0;
  if (lp->activeRowLen) vrx::lpActiveRebuild(lp);
  return 0;
}

int VRXlpScale(VRXmodel* model, int scaleFlag) {
  auto* lp = static_cast<VRXlp*>(model->lp);
  if (!lp || !lp->copy) return VRX_ERROR_DATA_NOT_AVAILABLE;
  VRXmodeldata* d = lp->copy;
  if (d->colScale || d->objScale != 1.0) return 0;
  const vrx::ParamStore& par = lp->env->par;
  vrx::ScaleOpts o;
  o.scaleFlag = scaleFlag;
  o.modelKind = lp->modelKind;
  o.objScaleParam = par.ObjScale;
  o.rhsScaleParam = par.VORN_PAR_RHSSCALE;
  o.infBound = lp->infBound;
  o.hasPwl = model->data && model->data->numPWLObjVars > 0;
  o.altScale = par.VORN_PAR_ALTSCALE && model->presolved;
  o.seed = static_cast<uint64_t>(par.Seed);
  o.workFactor = lp->workFactor;
  int rc = vrx::scaleCopy(lp->env, d, o, nullptr);
  if (rc) return rc;
  lp->colScale = d->colScale;
  lp->rowScale = d->rowScale;
  lp->objScale = d->objScale;
  lp->rhsScale = o.rhsScaleParam != 1.0 ? vrx::powerOfTwo(o.rhsScaleParam) : 1.0;
  if (lp->activeRowLen) vrx::lpActiveRebuild(lp);
  return 0;
}
