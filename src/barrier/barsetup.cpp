// The standard form of the barrier: bounds shifted, slacks added, scaled.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/bar.h"
#include "barrier/barwork.h"
#include "model/modeldata.h"

namespace vrx {

namespace {

double pow2Near(double v) {
  if (!(v > 0) || !std::isfinite(v)) return 1.0;
  int e;
  std::frexp(v, &e);
  return std::ldexp(1.0, e - 1);
}

// Geometric-mean passes, then equilibration, all in powers of two.
void scaleMatrix(VRXbar* bar) {
  const int m = bar->rows, N = bar->cols;
  double* rs = bar->rowScale;
  double* cs = bar->colScale;
  for (int i = 0; i < m; ++i) rs[i] = 1;
  for (int j = 0; j < N; ++j) cs[j] = 1;
  double* rmin = bar->tmp;  // rows
  double* rmax = bar->rhs;  // rows
  for (int pass = 0; pass < 6; ++pass) {
    for (int i = 0; i < m; ++i) {
      rmin[i] = 1e300;
      rmax[i] = 0;
    }
    for (int j = 0; j < N; ++j) {
      double cmin = 1e300, cmax = 0;
      for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) {
        const double a = std::fabs(bar->val[p]) * rs[bar->rowInd[p]];
        if (a == 0) continue;
        cmin = std::min(cmin, a);
        cmax = std::max(cmax, a);
      }
      if (cmax > 0) cs[j] = pow2Near(1.0 / std::sqrt(cmin * cmax));
    }
    for (int j = 0; j < N; ++j) {
      for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) {
        const double a = std::fabs(bar->val[p]) * cs[j];
        if (a == 0) continue;
        const int i = bar->rowInd[p];
        rmin[i] = std::min(rmin[i], a);
        rmax[i] = std::max(rmax[i], a);
      }
    }
    for (int i = 0; i < m; ++i)
      if (rmax[i] > 0) rs[i] = pow2Near(1.0 / std::sqrt(rmin[i] * rmax[i]));
  }
  // Largest entry of each column near one.
  for (int j = 0; j < N; ++j) {
    double cmax = 0;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p)
      cmax = std::max(cmax, std::fabs(bar->val[p]) * rs[bar->rowInd[p]]);
    if (cmax > 0) cs[j] = pow2Near(1.0 / cmax);
  }
}

}  // namespace

int VRXbarSetup(VRXmodel* model, VRXbar* bar) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const ParamStore& par = env->par;
  const int n = d->numVars, m = d->numConstrs;
  bar->env = env;
  bar->n = n;
  bar->rows = m;
  bar->origRows = m;
  bar->iter = -1;
  bar->historyCap = 100;
  bar->homogeneous = par.BarHomogeneous == 1 ? 1 : 0;
  bar->homAlways = par.BarHomogeneous == 1;
  bar->safeStart = par.NumericFocus >= 2 ? 1 : 0;
  bar->sense[0] = d->modelSense;
  bar->sense[1] = 1;
  bar->cutoff = par.Cutoff < kInf ? par.Cutoff + (std::fabs(par.Cutoff) + 1) * 1e-6 : kInf;
  bar->tol = par.BarConvTol;
  bar->correctors = 1;
  bar->tau = 1;
  bar->kappa = 0;
  bar->bestIter = -1;
  bar->safeIter = 0;
  bar->goodIter = 0;
  bar->bestMerit = 1e300;
  bar->step1 = bar->step2 = bar->step3 = 1;

  int slacks = 0;
  for (int i = 0; i < m; ++i) slacks += d->sense[i] != '=';
  const int N = n + slacks;
  bar->cols = N;
  int64_t nz = 0;
  for (int j = 0; j < n; ++j) nz += d->colLen[j];
  const size_t sN = static_cast<size_t>(N) + 1, sm = static_cast<size_t>(m) + 1;
  const size_t snz = static_cast<size_t>(nz + slacks) + 1;
  bar->colBeg = envAllocArray<int64_t>(env, sN);
  bar->rowInd = envAllocArray<int>(env, snz);
  bar->val = envAllocArray<double>(env, snz);
  bar->rowBeg = envAllocArray<int64_t>(env, sm);
  bar->rowCol = envAllocArray<int>(env, snz);
  bar->rowVal = envAllocArray<double>(env, snz);
  bar->kind = envAllocArray<char>(env, sN);
  bar->shift = envAllocArray<double>(env, static_cast<size_t>(n) + 1);
  bar->colSign = envAllocArray<double>(env, static_cast<size_t>(n) + 1);
  bar->colScale = envAllocArray<double>(env, sN);
  bar->rowScale = envAllocArray<double>(env, sm);
  // Column-sized arrays, then row-sized ones, in two blocks.
  double** colArrays[] = {&bar->c, &bar->u, &bar->x, &bar->z, &bar->w, &bar->t, &bar->dx, &bar->dz, &bar->dw,
                          &bar->dt, &bar->D, &bar->bx, &bar->bz, &bar->bw, &bar->bt, &bar->rd, &bar->ru,
                          &bar->r1, &bar->dx2, &bar->g, &bar->rxz, &bar->rtw, &bar->cdx, &bar->cdz, &bar->cdw,
                          &bar->cdt, &bar->crxz, &bar->crtw};
  double** rowArrays[] = {&bar->b, &bar->y, &bar->dy, &bar->by, &bar->rp, &bar->rhs, &bar->rhs2, &bar->dy2, &bar->tmp,
                          &bar->cdy, &bar->dyc};
  const size_t nc = sizeof colArrays / sizeof colArrays[0], nr = sizeof rowArrays / sizeof rowArrays[0];
  double* cb = envCallocArray<double>(env, nc * sN);
  double* rb = envCallocArray<double>(env, nr * sm);
  if (!cb || !rb) {
    envFree(env, cb);
    envFree(env, rb);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  for (size_t k = 0; k < nc; ++k) *colArrays[k] = cb + k * sN;
  for (size_t k = 0; k < nr; ++k) *rowArrays[k] = rb + k * sm;
  bar->historyCap = 100;
  double** hist[] = {&bar->histPrimalObj, &bar->histDualObj, &bar->histPInf, &bar->histDInf, &bar->histCompl,
                     &bar->histMu};
  double* hb = envCallocArray<double>(env, 6 * static_cast<size_t>(bar->historyCap));
  if (!hb) return VRX_ERROR_OUT_OF_MEMORY;
  for (int k = 0; k < 6; ++k) *hist[k] = hb + k * bar->historyCap;
  if (!bar->colBeg || !bar->rowInd || !bar->val || !bar->rowBeg || !bar->rowCol || !bar->rowVal || !bar->kind ||
      !bar->shift || !bar->colSign || !bar->colScale || !bar->rowScale)
    return VRX_ERROR_OUT_OF_MEMORY;

  // Columns: bounds shifted to zero, an upper-only column turned round, fixed ones out.
  for (int i = 0; i < m; ++i) bar->b[i] = d->rhs[i];
  bar->objConst = d->objCon;
  int64_t pos = 0;
  bar->freeCount = 0;
  for (int j = 0; j < n; ++j) {
    const double lo = d->lb[j], up = d->ub[j];
    const bool loF = lo > -1e30, upF = up < 1e30;
    double s = 0, g = 1;
    char k;
    double uu = 0;
    if (loF && upF && up - lo <= 1e-12 * (1 + std::fabs(lo))) {
      k = 3;
      s = lo;
    } else if (loF) {
      s = lo;
      k = upF ? 2 : 1;
      uu = upF ? up - lo : 0;
    } else if (upF) {
      s = up;
      g = -1;
      k = 1;
    } else {
      k = 0;
      bar->freeCount++;
    }
    bar->kind[j] = k;
    bar->shift[j] = s;
    bar->colSign[j] = g;
    bar->u[j] = uu;
    bar->c[j] = g * d->obj[j];
    bar->objConst += d->obj[j] * s;
    bar->colBeg[j] = pos;
    for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p) {
      const int i = d->rowInd[p];
      const double a = d->val[p];
      if (s != 0) bar->b[i] -= a * s;
      if (k == 3 || a == 0) continue;
      bar->rowInd[pos] = i;
      bar->val[pos] = g * a;
      ++pos;
    }
    // A column in no row sits at its best bound: left in, its x would drift
    // to where z is nearly 0 and x nearly unbounded, and ruin the scaling.
    if (k != 3 && pos == bar->colBeg[j]) {
      const double cj = bar->c[j];
      if ((k == 1 || k == 2) && cj >= 0) {
        bar->kind[j] = 3;
      } else if (k == 2) {
        bar->kind[j] = 3;
        bar->shift[j] = s + g * uu;
        bar->objConst += d->obj[j] * g * uu;
      } else if (k == 0 && cj == 0) {
        bar->kind[j] = 3;
        bar->freeCount--;
      }
    }
  }
  int js = n;
  for (int i = 0; i < m; ++i) {
    if (d->sense[i] == '=') continue;
    bar->kind[js] = 1;
    bar->u[js] = 0;
    bar->c[js] = 0;
    bar->colBeg[js] = pos;
    bar->rowInd[pos] = i;
    bar->val[pos] = d->sense[i] == '<' ? 1.0 : -1.0;
    ++pos;
    ++js;
  }
  bar->colBeg[N] = pos;
  bar->nnz = static_cast<int>(pos);

  // Scaling (off with ScaleFlag 0), applied in place.
  if (par.ScaleFlag != 0) {
    scaleMatrix(bar);
  } else {
    for (int i = 0; i < m; ++i) bar->rowScale[i] = 1;
    for (int j = 0; j < N; ++j) bar->colScale[j] = 1;
  }
  // Norms on the true data, before the scale goes in.
  double nb = 0, mb = 0, ncst = 0, mc = 0;
  for (int i = 0; i < m; ++i) {
    nb += bar->b[i] * bar->b[i];
    mb = std::max(mb, std::fabs(bar->b[i]));
  }
  for (int j = 0; j < N; ++j) {
    ncst += bar->c[j] * bar->c[j];
    mc = std::max(mc, std::fabs(bar->c[j]));
  }
  bar->normB = std::sqrt(nb);
  bar->maxB = mb;
  bar->normC = std::sqrt(ncst);
  bar->maxC = mc;
  for (int j = 0; j < N; ++j) {
    const double cs = bar->colScale[j];
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) bar->val[p] *= cs * bar->rowScale[bar->rowInd[p]];
    bar->c[j] *= cs;
    bar->u[j] /= cs;
  }
  for (int i = 0; i < m; ++i) bar->b[i] *= bar->rowScale[i];
  // Row-wise copy.
  for (int i = 0; i <= m; ++i) bar->rowBeg[i] = 0;
  for (int64_t p = 0; p < pos; ++p) bar->rowBeg[bar->rowInd[p] + 1]++;
  for (int i = 0; i < m; ++i) bar->rowBeg[i + 1] += bar->rowBeg[i];
  {
    Scratch<int64_t> fill(env, sm);
    if (!fill.a) return VRX_ERROR_OUT_OF_MEMORY;
    for (int i = 0; i < m; ++i) fill.a[i] = bar->rowBeg[i];
    for (int j = 0; j < N; ++j) {
      for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) {
        const int64_t q = fill.a[bar->rowInd[p]]++;
        bar->rowCol[q] = j;
        bar->rowVal[q] = bar->val[p];
      }
    }
  }
  const double tol = bar->tol;
  bar->pTolAbs = (std::sqrt(m + 1.0) + bar->normB) * tol;
  bar->dTolAbs = (std::sqrt(N + 1.0) + bar->normC) * tol;
  bar->pTolRel = 10 * tol;
  bar->dTolRel = 10 * tol;
  bar->stats.freeVars = bar->freeCount;
  return 0;
}

void VRXbarFree(VRXbar* bar) {
  VRXenv* env = bar->env;
  if (!env) return;
  barFactorFree(env, &bar->factor);
  envFreeAll(env, bar->colBeg, bar->rowInd, bar->val, bar->rowBeg, bar->rowCol, bar->rowVal, bar->kind, bar->shift,
             bar->colSign, bar->colScale, bar->rowScale, bar->c, bar->b, bar->histPrimalObj);
  bar->colBeg = bar->rowBeg = nullptr;
  bar->rowInd = bar->rowCol = nullptr;
  bar->val = bar->rowVal = bar->shift = bar->colSign = bar->colScale = bar->rowScale = nullptr;
  bar->c = bar->b = bar->histPrimalObj = nullptr;
  bar->kind = nullptr;
}

BarMatrix barMatrix(const VRXbar* bar) {
  return BarMatrix{bar->rows, bar->cols, bar->colBeg, bar->rowInd, bar->val, bar->rowBeg, bar->rowCol, bar->rowVal};
}

}  // namespace vrx
