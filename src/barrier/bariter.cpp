// The primal-dual interior point iteration: Mehrotra predictor, centrality
// correctors, optional homogeneous self-dual form.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/bar.h"
#include "barrier/barwork.h"
#include "model/callback.h"
#include "model/modeldata.h"
#include "simplex/lpdriver.h"

namespace vrx {

namespace {

constexpr double kStepFrac = 0.9995;

bool hasLower(char k) { return k == 1 || k == 2; }

// Residuals, objectives and complementarity of the current point, in true units.
void recompute(VRXbar* bar) {
  const int m = bar->rows, N = bar->cols;
  const double tau = bar->tau;
  for (int i = 0; i < m; ++i) bar->rp[i] = bar->b[i] * tau;
  double ctx = 0, uw = 0, xz = 0, pnorm = 0, dnorm = 0;
  int pairs = 0;
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    if (k == 3) {
      bar->rd[j] = 0;
      bar->ru[j] = 0;
      continue;
    }
    const double xj = bar->x[j];
    double aty = 0;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) {
      bar->rp[bar->rowInd[p]] -= bar->val[p] * xj;
      aty += bar->val[p] * bar->y[bar->rowInd[p]];
    }
    ctx += bar->c[j] * xj;
    double rd = bar->c[j] * tau - aty;
    if (hasLower(k)) {
      rd -= bar->z[j];
      xz += xj * bar->z[j];
      ++pairs;
    }
    if (k == 2) {
      rd += bar->w[j];
      bar->ru[j] = bar->u[j] * tau - xj - bar->t[j];
      uw += bar->u[j] * bar->w[j];
      xz += bar->t[j] * bar->w[j];
      ++pairs;
      const double r = bar->ru[j] * bar->colScale[j];
      pnorm += r * r;
    } else {
      bar->ru[j] = 0;
    }
    bar->rd[j] = rd;
    const double r = rd / bar->colScale[j];
    dnorm += r * r;
  }
  double bty = 0;
  for (int i = 0; i < m; ++i) {
    bty += bar->b[i] * bar->y[i];
    const double r = bar->rp[i] / bar->rowScale[i];
    pnorm += r * r;
  }
  bar->rgap = ctx - bty + uw + bar->kappa;
  bar->pinf = std::sqrt(pnorm) / tau;
  bar->dinf = std::sqrt(dnorm) / tau;
  bar->primalObj = ctx / tau + bar->objConst;
  bar->dualObj = (bty - uw) / tau + bar->objConst;
  bar->primalObj2 = ctx;
  bar->dualObj2 = bty - uw;
  bar->compl_ = xz / (tau * tau);
  const double withTau = bar->homogeneous ? tau * bar->kappa : 0;
  bar->mu = (xz + withTau) / (pairs + (bar->homogeneous ? 1 : 0) + (pairs == 0 && !bar->homogeneous ? 1 : 0));
  bar->pinfRel = bar->pinf / (1 + bar->normB);
  bar->dinfRel = bar->dinf / (1 + bar->normC);
  bar->rel = std::fabs(bar->primalObj - bar->dualObj) / (std::fabs(bar->primalObj - bar->objConst) + 1);
}

// theta of each column for the current point; free columns keep a small diagonal.
void computeTheta(VRXbar* bar) {
  const int N = bar->cols;
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    double dinv;
    if (k == 3) {
      bar->D[j] = 0;
      continue;
    } else if (k == 0) {
      dinv = 1e-8 * std::min(1.0, std::max(bar->mu, 1e-6)) / std::max(std::fabs(bar->x[j]), 1e-6);
    } else {
      dinv = bar->z[j] / bar->x[j];
      if (k == 2) dinv += bar->w[j] / bar->t[j];
    }
    bar->D[j] = 1.0 / std::max(dinv, 1e-300);
  }
}

// (A theta A')^-1 r, through the factor.
void normalSolve(VRXbar* bar, const double* r, double* out) {
  VRXbarSolve(&bar->factor, barMatrix(bar), bar->D, r, out);
}

struct Targets {
  const double* rxz;  // sigma mu - x z - corrections, per column
  const double* rtw;
  double rtk;
  double eta;
};

// With theta over many orders, the normal equations hold to digits of their
// large right-hand side only, and A dx misses its target eta rp + b dtau by more
// than the primal residual left to remove. One solve on the small miss puts dx
// back on it, and dx = theta (A'dy - r) still holds. The homogeneous form needs
// it as much: without it the primal residual stalls where x grows large.
void primalCorrect(VRXbar* bar, double eta, double dtau, double* dx, double* dy) {
  const int m = bar->rows, N = bar->cols;
  double* e = bar->rhs;
  double rMax = 0, eMax = 0;
  for (int i = 0; i < m; ++i) {
    e[i] = eta * bar->rp[i] + dtau * bar->b[i];
    rMax = std::max(rMax, std::fabs(e[i]));
  }
  for (int j = 0; j < N; ++j) {
    const double v = dx[j];
    if (v == 0) continue;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) e[bar->rowInd[p]] -= bar->val[p] * v;
  }
  for (int i = 0; i < m; ++i) eMax = std::max(eMax, std::fabs(e[i]));
  if (!(eMax > 1e-3 * rMax + 1e-300)) return;
  double* dyc = bar->dyc;
  normalSolve(bar, e, dyc);
  for (int i = 0; i < m; ++i) dy[i] += dyc[i];
  for (int j = 0; j < N; ++j) {
    if (bar->kind[j] == 3) continue;
    double aty = 0;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) aty += bar->val[p] * dyc[bar->rowInd[p]];
    dx[j] += bar->D[j] * aty;
  }
}

// One direction for the given targets; writes into the given arrays.
void direction(VRXbar* bar, const Targets& tg, double* dx, double* dy, double* dz, double* dw, double* dt,
               double* dtauOut, double* dkappaOut) {
  const int m = bar->rows, N = bar->cols;
  const double eta = tg.eta;
  double* r1 = bar->r1;
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    if (k == 3) {
      r1[j] = 0;
      continue;
    }
    double v = eta * bar->rd[j];
    if (hasLower(k)) v -= tg.rxz[j] / bar->x[j];
    if (k == 2) v += (tg.rtw[j] - eta * bar->w[j] * bar->ru[j]) / bar->t[j];
    r1[j] = v;
  }
  // rhs = eta rp + A theta r1
  for (int i = 0; i < m; ++i) bar->rhs[i] = eta * bar->rp[i];
  for (int j = 0; j < N; ++j) {
    const double s = bar->D[j] * r1[j];
    if (s == 0) continue;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) bar->rhs[bar->rowInd[p]] += bar->val[p] * s;
  }
  normalSolve(bar, bar->rhs, dy);
  for (int j = 0; j < N; ++j) {
    if (bar->kind[j] == 3) {
      dx[j] = 0;
      continue;
    }
    double aty = 0;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) aty += bar->val[p] * dy[bar->rowInd[p]];
    dx[j] = bar->D[j] * (aty - r1[j]);
  }
  double dtau = 0;
  if (bar->homogeneous) {
    // dtau from the gap equation, with the second solve done once per factor.
    const double tau = bar->tau, kappa = bar->kappa;
    double rhsg = -eta * bar->rgap - tg.rtk / tau;
    double hdx1 = 0, hdx2 = 0, bdy1 = 0, bdy2 = 0, utwu = 0;
    for (int j = 0; j < N; ++j) {
      const char k = bar->kind[j];
      if (k == 3) continue;
      double h = bar->c[j];
      if (k == 2) {
        const double wt = bar->w[j] / bar->t[j];
        h += wt * bar->u[j];
        utwu += bar->u[j] * wt * bar->u[j];
        rhsg -= bar->u[j] * (tg.rtw[j] - eta * bar->w[j] * bar->ru[j]) / bar->t[j];
      }
      hdx1 += h * dx[j];
      hdx2 += h * bar->dx2[j];
    }
    for (int i = 0; i < m; ++i) {
      bdy1 += bar->b[i] * dy[i];
      bdy2 += bar->b[i] * bar->dy2[i];
    }
    const double den = hdx2 - bdy2 - utwu - kappa / tau;
    dtau = den != 0 ? (rhsg - hdx1 + bdy1) / den : 0;
    for (int j = 0; j < N; ++j) dx[j] += dtau * bar->dx2[j];
    for (int i = 0; i < m; ++i) dy[i] += dtau * bar->dy2[i];
    *dkappaOut = (tg.rtk - kappa * dtau) / tau;
  } else {
    *dkappaOut = 0;
  }
  primalCorrect(bar, eta, dtau, dx, dy);
  *dtauOut = dtau;
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    dz[j] = dw[j] = dt[j] = 0;
    if (hasLower(k)) dz[j] = (tg.rxz[j] - bar->z[j] * dx[j]) / bar->x[j];
    if (k == 2) {
      dt[j] = eta * bar->ru[j] - dx[j] + bar->u[j] * dtau;
      dw[j] = (tg.rtw[j] - bar->w[j] * dt[j]) / bar->t[j];
    }
  }
}

// Largest steps to the boundary for a direction.
void maxSteps(const VRXbar* bar, const double* dx, const double* dz, const double* dw, const double* dt, double dtau,
              double dkappa, double* ap, double* ad) {
  double p = 1e300, d = 1e300;
  const int N = bar->cols;
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    if (!hasLower(k)) continue;
    if (dx[j] < 0) p = std::min(p, -bar->x[j] / dx[j]);
    if (dz[j] < 0) d = std::min(d, -bar->z[j] / dz[j]);
    if (k == 2) {
      if (dt[j] < 0) p = std::min(p, -bar->t[j] / dt[j]);
      if (dw[j] < 0) d = std::min(d, -bar->w[j] / dw[j]);
    }
  }
  if (bar->homogeneous) {
    if (dtau < 0) p = std::min(p, -bar->tau / dtau);
    if (dkappa < 0) d = std::min(d, -bar->kappa / dkappa);
    p = d = std::min(p, d);
  }
  *ap = p;
  *ad = d;
}

// Complementarity after steps ap, ad.
double trialMu(const VRXbar* bar, double ap, double ad, const double* dx, const double* dz, const double* dw,
               const double* dt, double dtau, double dkappa) {
  double s = 0;
  int pairs = 0;
  for (int j = 0; j < bar->cols; ++j) {
    const char k = bar->kind[j];
    if (!hasLower(k)) continue;
    s += (bar->x[j] + ap * dx[j]) * (bar->z[j] + ad * dz[j]);
    ++pairs;
    if (k == 2) {
      s += (bar->t[j] + ap * dt[j]) * (bar->w[j] + ad * dw[j]);
      ++pairs;
    }
  }
  if (bar->homogeneous) {
    s += (bar->tau + ap * dtau) * (bar->kappa + ad * dkappa);
    ++pairs;
  }
  return pairs ? s / pairs : 0;
}

// The residual norms (true units) that the step (ap, ad) would leave.
void predictResiduals(VRXbar* bar, double ap, double ad, double* pOut, double* dOut) {
  const int m = bar->rows, N = bar->cols;
  double* r = bar->tmp;
  const double dtau = bar->dtau;
  for (int i = 0; i < m; ++i) r[i] = bar->rp[i] + ap * bar->b[i] * dtau;
  double pn = 0, dn = 0;
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    if (k == 3) continue;
    const double dxj = bar->dx[j];
    double aty = 0;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) {
      r[bar->rowInd[p]] -= ap * bar->val[p] * dxj;
      aty += bar->val[p] * bar->dy[bar->rowInd[p]];
    }
    double rd = bar->rd[j] + ad * (bar->c[j] * dtau - aty);
    if (hasLower(k)) rd -= ad * bar->dz[j];
    if (k == 2) {
      rd += ad * bar->dw[j];
      const double ru = (bar->ru[j] + ap * (bar->u[j] * dtau - dxj - bar->dt[j])) * bar->colScale[j];
      pn += ru * ru;
    }
    const double rr = rd / bar->colScale[j];
    dn += rr * rr;
  }
  for (int i = 0; i < m; ++i) {
    const double rr = r[i] / bar->rowScale[i];
    pn += rr * rr;
  }
  const double tau = bar->homogeneous ? std::max(bar->tau + ap * dtau, 1e-300) : 1.0;
  *pOut = std::sqrt(pn) / tau;
  *dOut = std::sqrt(dn) / tau;
}

int growHistory(VRXbar* bar) {
  const int cap = bar->historyCap * 2;
  double* hb = envCallocArray<double>(bar->env, 6 * static_cast<size_t>(cap));
  if (!hb) return VRX_ERROR_OUT_OF_MEMORY;
  double** hist[] = {&bar->histPrimalObj, &bar->histDualObj, &bar->histPInf, &bar->histDInf, &bar->histCompl,
                     &bar->histMu};
  for (int k = 0; k < 6; ++k) {
    std::memcpy(hb + k * cap, *hist[k], sizeof(double) * static_cast<size_t>(bar->historyCap));
  }
  envFree(bar->env, bar->histPrimalObj);
  for (int k = 0; k < 6; ++k) *hist[k] = hb + k * cap;
  bar->historyCap = cap;
  return 0;
}

void saveBest(VRXbar* bar) {
  const size_t N = static_cast<size_t>(bar->cols), m = static_cast<size_t>(bar->rows);
  std::memcpy(bar->bx, bar->x, N * sizeof(double));
  std::memcpy(bar->bz, bar->z, N * sizeof(double));
  std::memcpy(bar->bw, bar->w, N * sizeof(double));
  std::memcpy(bar->bt, bar->t, N * sizeof(double));
  std::memcpy(bar->by, bar->y, m * sizeof(double));
  bar->btau = bar->tau;
  bar->bkappa = bar->kappa;
}

void restoreBest(VRXbar* bar) {
  const size_t N = static_cast<size_t>(bar->cols), m = static_cast<size_t>(bar->rows);
  std::memcpy(bar->x, bar->bx, N * sizeof(double));
  std::memcpy(bar->z, bar->bz, N * sizeof(double));
  std::memcpy(bar->w, bar->bw, N * sizeof(double));
  std::memcpy(bar->t, bar->bt, N * sizeof(double));
  std::memcpy(bar->y, bar->by, m * sizeof(double));
  bar->tau = bar->btau;
  bar->kappa = bar->bkappa;
}

// The final lines of a run that an error ended after its iterations began.
int errorEnd(VRXenv* env, const VRXbar& bar, const Clock& clock, int rc) {
  log(env, "Barrier performed %d iterations in %.2f seconds\n", std::max(bar.iter, 0), clockElapsed(clock));
  log(env, "Error termination\n");
  return rc;
}

bool solvedElsewhere(const VRXenv* env) {
  const int flag = env->terminateFlagRef ? *env->terminateFlagRef : 0;
  return flag == kStopSolvedElsewhere || (env->cbData && env->cbData->instanceRun && flag != 1);
}

// How far the point is from optimal: the worst of the relative measures.
double merit(const VRXbar* bar) { return std::max(bar->rel, std::max(bar->pinfRel, bar->dinfRel)); }

}  // namespace

int VRXbarStart(VRXbar* bar, double shiftScale) {
  VRXenv* env = bar->env;
  const int m = bar->rows, N = bar->cols;
  const BarMatrix A = barMatrix(bar);
  const int mode = env->par.VORN_PAR_BARSTART;
  for (int j = 0; j < N; ++j) bar->D[j] = bar->kind[j] == 3 ? 0 : 1;
  int rc = VRXbarFactorize(env, A, bar->D, 1e-8, &bar->factor);
  if (rc) return rc;
  // Least-norm primal point: x = A' (AA')^-1 b.
  normalSolve(bar, bar->b, bar->tmp);
  for (int j = 0; j < N; ++j) {
    double s = 0;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) s += bar->val[p] * bar->tmp[bar->rowInd[p]];
    bar->x[j] = bar->kind[j] == 3 ? 0 : s;
  }
  // Least-norm dual slack: y = (AA')^-1 A c, z = c - A'y.
  for (int i = 0; i < m; ++i) bar->rhs[i] = 0;
  if (mode != 1) {
    for (int j = 0; j < N; ++j) {
      if (bar->kind[j] == 3) continue;
      for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) bar->rhs[bar->rowInd[p]] += bar->val[p] * bar->c[j];
    }
    normalSolve(bar, bar->rhs, bar->y);
  } else {
    for (int i = 0; i < m; ++i) bar->y[i] = 0;
  }
  double minP = 0, minD = 0;
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    double aty = 0;
    for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) aty += bar->val[p] * bar->y[bar->rowInd[p]];
    const double zt = bar->c[j] - aty;
    bar->z[j] = bar->w[j] = bar->t[j] = 0;
    if (k == 0 || k == 3) continue;
    if (k == 2) {
      if (bar->u[j] < 1e10) bar->x[j] = 0.5 * bar->u[j];
      bar->t[j] = bar->u[j] - bar->x[j];
      bar->z[j] = zt > 0 ? zt : 0;
      bar->w[j] = zt < 0 ? -zt : 0;
      minP = std::min(minP, bar->t[j]);
      minD = std::min(minD, bar->w[j]);
    } else {
      bar->z[j] = zt;
    }
    minP = std::min(minP, bar->x[j]);
    minD = std::min(minD, bar->z[j]);
  }
  double dp = std::max(-1.5 * minP, 0.0), dd = std::max(-1.5 * minD, 0.0);
  // Keep a little room even when the least-norm point is inside.
  double sumX = 0, sumZ = 0, xz = 0;
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    if (!hasLower(k)) continue;
    const double xs = bar->x[j] + dp, zs = bar->z[j] + dd;
    sumX += xs;
    sumZ += zs;
    xz += xs * zs;
    if (k == 2) {
      sumX += bar->t[j] + dp;
      sumZ += bar->w[j] + dd;
      xz += (bar->t[j] + dp) * (bar->w[j] + dd);
    }
  }
  const double dp2 = sumZ > 0 ? 0.5 * xz / sumZ : 0, dd2 = sumX > 0 ? 0.5 * xz / sumX : 0;
  dp = (dp + dp2) * shiftScale;
  dd = (dd + dd2) * shiftScale;
  const double floorP = std::max(1e-10, 1e-2 * shiftScale), floorD = floorP;
  dp = std::max(dp, floorP);
  dd = std::max(dd, floorD);
  for (int j = 0; j < N; ++j) {
    const char k = bar->kind[j];
    if (!hasLower(k)) continue;
    bar->x[j] += dp;
    bar->z[j] += dd;
    if (k == 2) {
      bar->t[j] += dp;
      bar->w[j] += dd;
    }
  }
  bar->tau = 1;
  bar->kappa = bar->homogeneous ? 1 : 0;
  return 0;
}

namespace {

bool finiteStep(const VRXbar* bar, double ap, double ad) {
  if (!std::isfinite(ap) || !std::isfinite(ad)) return false;
  double s = 0;
  for (int j = 0; j < bar->cols; ++j) s += std::fabs(bar->dx[j]) + std::fabs(bar->dz[j]) + std::fabs(bar->dt[j]) + std::fabs(bar->dw[j]);
  for (int i = 0; i < bar->rows; ++i) s += std::fabs(bar->dy[i]);
  if (bar->homogeneous) s += std::fabs(bar->dtau) + std::fabs(bar->dkappa);
  return std::isfinite(s);
}

}  // namespace

int VRXbarTest(VRXmodel* model, VRXbar* bar, Clock& clock) {
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  const int k = bar->iter;
  const double tol = bar->tol;
  const double* hm = bar->histMu;
  const double* hc = bar->histCompl;
  const double nn = bar->cols;
  const double dmu = nn * bar->mu / (std::fabs(bar->dualObj) + 1);
  const double pmu = nn * bar->mu / (std::fabs(bar->primalObj) + 1);
  const bool pOK = bar->pinf < bar->pTolAbs || bar->pinfRel < bar->pTolRel;
  const bool dOK = bar->dinf < bar->dTolAbs || bar->dinfRel < bar->dTolRel;
  const bool bad = k > 0 && bar->compl_ > tol && !(hc[k] < 0.5 * hc[k - 1]);
  const bool tauOK = !bar->homogeneous || bar->kappa <= 100 * tol * bar->tau;
  const double rel = bar->rel;
  if (k > 5 && bar->mu > 1e20 && bar->mu > 0.99 * hm[k - 1]) return VRX_SUBOPTIMAL;
  if (!std::isfinite(bar->compl_) || !std::isfinite(bar->pinf) || !std::isfinite(bar->dinf) || bar->compl_ > 1e100 ||
      bar->pinf > 1e100 || bar->dinf > 1e100)
    return VRX_SUBOPTIMAL;
  if (bar->cutoff < kInf && pOK && dOK && bar->dualObj > bar->cutoff) return VRX_CUTOFF;
  if (rel < tol && pmu < 100 * tol && pOK && dOK && tauOK && !bad) return VRX_OPTIMAL;
  if (dmu < tol && pmu < 100 * tol && rel < 0.1 && pOK && dOK && tauOK && !bad) return VRX_OPTIMAL;
  if (rel < tol && dmu < tol && pOK && dOK && tauOK && k > 1 && hc[k] > 0.5 * hc[k - 1]) return VRX_OPTIMAL;
  if (bar->compl_ < 1e-16 && pOK && dOK && tauOK) return VRX_OPTIMAL;
  if (bar->homogeneous) {
    // A ray: tau has gone to nothing while kappa stays.
    const double tau = bar->tau, kappa = bar->kappa;
    double ctx = bar->primalObj2, bty = bar->dualObj2;
    const double scale = std::max(std::fabs(ctx), std::fabs(bty));
    if (tau < tol * std::max(1.0, kappa) && scale > 0 && bar->mu < tol * scale) {
      ctx /= scale;
      bty /= scale;
      // Ray residuals: the point over its size, without the tau terms.
      const double pRay = bar->pinf * tau / scale, dRay = bar->dinf * tau / scale;
      if (pRay <= bar->pTolAbs + 1 && dRay <= bar->dTolAbs + 1) {
        if (bty > 1e-10 && !(ctx < -1e-10 && -ctx > bty)) return VRX_INFEASIBLE;
        if (ctx < -1e-10) return VRX_UNBOUNDED;
      }
    }
  }
  if (k > 10 && tauOK && rel < 10 * tol && pOK && dOK && hm[k - 3] * 0.8 < bar->mu) return VRX_OPTIMAL;
  if (k >= par.BarIterLimit) return VRX_ITERATION_LIMIT;
  if (env->terminateFlagRef && *env->terminateFlagRef) return VRX_INTERRUPTED;
  if (par.TimeLimit < kInf && clockElapsed(clock) >= par.TimeLimit) return VRX_TIME_LIMIT;
  if (par.BarIterLimit != 1000) return 1;
  // Stall detector.
  if (k > std::max(bar->goodIter, bar->safeIter) + 200) return VRX_SUBOPTIMAL;
  if (k >= 11 && bar->mu > 1e-10 && bar->mu < 0.9 * hm[k - 10]) return 1;
  if (k >= 5) {
    const double p = std::max(bar->histPInf[k] / (bar->maxB + 1), bar->histDInf[k] / (bar->maxC + 1));
    const double past = std::max(bar->histPInf[k - 5] / (bar->maxB + 1), bar->histDInf[k - 5] / (bar->maxC + 1));
    if (p < 0.9 * past && bar->mu <= 0.99 * hm[k - 5]) return 1;
  }
  if (k > bar->safeIter + 20) {
    if (bar->trouble && k > bar->goodIter + 4) return VRX_SUBOPTIMAL;
    if (k > bar->goodIter + 19) return VRX_SUBOPTIMAL;
  }
  if ((k >= 31 && bar->trouble && k > bar->bestIter + 9 && bar->bestIter >= bar->safeIter) ||
      (k >= 51 && k > bar->bestIter + 9 && bar->bestIter >= bar->safeIter) || (bar->step1 == 0 && bar->step2 == 0))
    return VRX_SUBOPTIMAL;
  return 1;
}

int VRXbarLimit(VRXmodel* model, VRXbar* bar, Clock& clock) {
  const ParamStore& par = model->env->par;
  if (par.VORN_PAR_VTIMELIMIT >= 1e100) return 1;
  // The next steps' work, from the rate at which mu falls.
  double steps = 1;
  const int k = bar->iter;
  if (bar->trouble && k >= 2 && bar->histMu[k - 1] > 0 && bar->mu > 1000 * bar->tol) {
    const double ratio = bar->mu / bar->histMu[k - 1];
    if (ratio > 0 && ratio < 1) {
      steps = (std::log(bar->mu) - std::log(bar->tol)) / -std::log(ratio);
      steps = std::min(5.0, std::max(1.0, steps));
      if (steps < 2) steps = 1;
    }
  }
  bar->lookahead = static_cast<int>(steps);
  // Per step: the solves, the factor twice over, and the ordering, whose work
  // is counted by the product pattern it walks.
  const double solve = 4 * bar->factor.factorNz + 10.0 * bar->nnz;
  const double v = clock.work + 0.75 * (solve + 2 * bar->factor.factorOps + bar->stats.aatNz) * steps;
  return v > par.VORN_PAR_VTIMELIMIT ? VRX_INTERRUPTED : 1;
}

namespace {

// The whole iteration on a set-up record; returns 0 or an error, status in *status.
int iterate(VRXmodel* model, VRXbar* bar, Clock& clock, int* statusOut) {
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  const int m = bar->rows, N = bar->cols;
  const BarMatrix A = barMatrix(bar);
  const double msense = bar->sense[0];
  int status = 1;
  int rc = 0;
  int failedFactors = 0;
  bool regOff = false;  // set by a step the residual guard cut
  double lastProd = 0;
  while (true) {
    const int k = ++bar->iter;
    if (k >= bar->historyCap && (rc = growHistory(bar))) return rc;
    recompute(bar);
    bar->histPrimalObj[k] = bar->primalObj;
    bar->histDualObj[k] = bar->dualObj;
    bar->histPInf[k] = bar->pinf;
    bar->histDInf[k] = bar->dinf;
    bar->histCompl[k] = bar->compl_;
    bar->histMu[k] = bar->mu;
    const double mer = merit(bar);
    if (mer < bar->bestMerit && bar->tau > 1e-8) {
      bar->bestMerit = mer;
      bar->bestIter = k;
      bar->bestPObj = bar->primalObj;
      saveBest(bar);
    }
    // The log line; a homogeneous run heading for a ray shows the ray.
    const bool ray = bar->homogeneous && (bar->tau < 1e-6 || (bar->tau < 0.01 && 10000 * bar->tau < bar->kappa));
    if (ray) {
      const double a = bar->pinf * bar->tau, b = bar->dinf * bar->tau;
      log(env, " %3d%c %15.8e %15.8e  %.2e %.2e  %.2e  %4.0fs\n", k, '*', msense * bar->primalObj2,
          msense * bar->dualObj2, a, b, std::sqrt(a * a + b * b), clockElapsed(clock));
    } else {
      log(env, " %3d%c %15.8e %15.8e  %.2e %.2e  %.2e  %4.0fs\n", k, ' ', msense * bar->primalObj,
          msense * bar->dualObj, bar->pinf, bar->dinf, bar->mu, clockElapsed(clock));
    }
    if (env->cbFunc) {
      VRXcbprogress prog{};
      prog.barIter = k;
      prog.barPrimObj = msense * bar->primalObj;
      prog.barDualObj = msense * bar->dualObj;
      prog.barPrimInf = bar->pinf;
      prog.barDualInf = bar->dinf;
      prog.barCompl = bar->compl_;
      const int cbrc = callbackFrame(env, VRX_CB_BARRIER, &prog);
      if (cbrc) {
        status = VRX_INTERRUPTED;
        rc = cbrc;
        break;
      }
    }
    status = VRXbarTest(model, bar, clock);
    if (status == VRX_SUBOPTIMAL && par.BarHomogeneous == -1 && !bar->homogeneous) {
      // A diverging or stalled run gets a second start in the homogeneous form, which
      // tells infeasible and unbounded models apart.
      bar->homogeneous = 1;
      rc = VRXbarStart(bar, 1.0);
      if (rc) return rc;
      bar->safeIter = k + 1;
      bar->goodIter = k + 1;
      status = 1;
      continue;
    }
    if (status == 1) status = VRXbarLimit(model, bar, clock);
    if (status != 1) break;

    // Factor with the current scaling.
    computeTheta(bar);
    const double reg =
        bar->safeStart || regOff ? 0 : std::max(1e-8, std::sqrt(bar->pinf * bar->pinf + bar->dinf * bar->dinf) / 10);
    regOff = false;
    rc = VRXbarFactorize(env, A, bar->D, reg, &bar->factor);
    if (rc) return rc;
    clockCharge(clock, bar->workPerIter);
    if (!(bar->factor.minPivot >= 0) || bar->factor.skipPivotCount > m / 2 + 1) {
      bar->trouble = 1;
      if (++failedFactors > 10) {
        status = VRX_NUMERIC;
        break;
      }
    } else {
      failedFactors = 0;
    }
    bar->minPivot = bar->factor.minPivot;
    if (bar->homogeneous) {
      // The second right-hand side of the homogeneous form: b + A theta g, g = c - (w/t) u.
      for (int i = 0; i < m; ++i) bar->rhs[i] = bar->b[i];
      for (int j = 0; j < N; ++j) {
        const char kk = bar->kind[j];
        if (kk == 3) {
          bar->g[j] = 0;
          continue;
        }
        bar->g[j] = bar->c[j] - (kk == 2 ? bar->w[j] / bar->t[j] * bar->u[j] : 0);
        const double s = bar->D[j] * bar->g[j];
        for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) bar->rhs[bar->rowInd[p]] += bar->val[p] * s;
      }
      std::memcpy(bar->rhs2, bar->rhs, sizeof(double) * static_cast<size_t>(m));
      normalSolve(bar, bar->rhs, bar->dy2);
      for (int j = 0; j < N; ++j) {
        if (bar->kind[j] == 3) {
          bar->dx2[j] = 0;
          continue;
        }
        double aty = 0;
        for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) aty += bar->val[p] * bar->dy2[bar->rowInd[p]];
        bar->dx2[j] = bar->D[j] * (aty - bar->g[j]);
      }
    }
    const double mu = bar->mu;
    // Predictor.
    for (int j = 0; j < N; ++j) {
      bar->rxz[j] = hasLower(bar->kind[j]) ? -bar->x[j] * bar->z[j] : 0;
      bar->rtw[j] = bar->kind[j] == 2 ? -bar->t[j] * bar->w[j] : 0;
    }
    Targets tg{bar->rxz, bar->rtw, -bar->tau * bar->kappa, 1.0};
    direction(bar, tg, bar->dx, bar->dy, bar->dz, bar->dw, bar->dt, &bar->dtau, &bar->dkappa);
    if (bar->factor.denseCols > 0) {
      // The Schur form fails when the sparse part is close to singular: a full step
      // would leave far more residual than it removes. Then the dense columns go
      // back into the factor for the rest of the run.
      double pp = 0, pd = 0;
      predictResiduals(bar, 1.0, 1.0, &pp, &pd);
      if (pp > 1e3 * std::max(bar->pinf, bar->pTolAbs) + 1e3 * bar->pinf) {
        std::memset(bar->factor.isDense, 0, static_cast<size_t>(N));
        bar->factor.denseCols = 0;
        rc = VRXbarSymbolic(env, A, &bar->factor);
        if (!rc) rc = VRXbarFactorize(env, A, bar->D, reg, &bar->factor);
        if (rc) return rc;
        bar->workPerIter = bar->factor.factorOps + 4 * bar->factor.factorNz + 10.0 * bar->nnz;
        if (bar->homogeneous) {
          normalSolve(bar, bar->rhs2, bar->dy2);
          for (int j = 0; j < N; ++j) {
            double aty = 0;
            for (int64_t p = bar->colBeg[j]; p < bar->colBeg[j + 1]; ++p) aty += bar->val[p] * bar->dy2[bar->rowInd[p]];
            bar->dx2[j] = bar->kind[j] == 3 ? 0 : bar->D[j] * (aty - bar->g[j]);
          }
        }
        direction(bar, tg, bar->dx, bar->dy, bar->dz, bar->dw, bar->dt, &bar->dtau, &bar->dkappa);
      }
    }
    double ap, ad;
    maxSteps(bar, bar->dx, bar->dz, bar->dw, bar->dt, bar->dtau, bar->dkappa, &ap, &ad);
    ap = std::min(1.0, ap);
    ad = std::min(1.0, ad);
    const double muAff = trialMu(bar, ap, ad, bar->dx, bar->dz, bar->dw, bar->dt, bar->dtau, bar->dkappa);
    const double r = muAff / std::max(mu, 1e-30);
    double sigma = r * r * std::min(r, bar->homogeneous ? 0.9 : 0.1);
    if (bar->safeIter > 0 && k >= bar->safeIter && k < bar->safeIter + 3) sigma = 0.9;
    sigma = std::min(sigma, 0.9);
    const double eta = bar->homogeneous ? 1 - sigma : 1.0;
    const double target = sigma * mu;
    // Mehrotra corrector, then centrality correctors while they pay.
    for (int j = 0; j < N; ++j) {
      const char kk = bar->kind[j];
      bar->rxz[j] = hasLower(kk) ? target - bar->x[j] * bar->z[j] - bar->dx[j] * bar->dz[j] : 0;
      bar->rtw[j] = kk == 2 ? target - bar->t[j] * bar->w[j] - bar->dt[j] * bar->dw[j] : 0;
    }
    const double rtk0 = target - bar->tau * bar->kappa - bar->dtau * bar->dkappa;
    tg = Targets{bar->rxz, bar->rtw, rtk0, eta};
    direction(bar, tg, bar->dx, bar->dy, bar->dz, bar->dw, bar->dt, &bar->dtau, &bar->dkappa);
    maxSteps(bar, bar->dx, bar->dz, bar->dw, bar->dt, bar->dtau, bar->dkappa, &ap, &ad);
    int K = par.BarCorrectors >= 0 ? std::max(1, par.BarCorrectors) : bar->correctors;
    if (bar->safeIter > 0 && k >= bar->safeIter) K = std::max(K, 10);
    lastProd = std::min(1.0, ap) * std::min(1.0, ad);
    int corrSolves = 1;
    for (int cnum = 2; cnum <= K; ++cnum) {
      if (ap >= 1.001 && ad >= 1.001) break;
      if (lastProd < 1e-100) break;
      // Aim past the current step and push the products outside a band around sigma mu back in.
      const double aT = std::min(1.0, 1.5 * std::min(ap, 1.0) + 0.1), dT = std::min(1.0, 1.5 * std::min(ad, 1.0) + 0.1);
      const double lo = 0.1 * target, hi = 10 * target;
      auto corr = [&](double v) { return v < lo ? lo - v : (v > hi ? std::max(-hi, hi - v) : 0.0); };
      for (int j = 0; j < N; ++j) {
        const char kk = bar->kind[j];
        bar->crxz[j] = bar->rxz[j];
        bar->crtw[j] = bar->rtw[j];
        if (hasLower(kk)) bar->crxz[j] += corr((bar->x[j] + aT * bar->dx[j]) * (bar->z[j] + dT * bar->dz[j]));
        if (kk == 2) bar->crtw[j] += corr((bar->t[j] + aT * bar->dt[j]) * (bar->w[j] + dT * bar->dw[j]));
      }
      double ctau = 0, ckappa = 0;
      ++corrSolves;
      direction(bar, Targets{bar->crxz, bar->crtw, rtk0, eta}, bar->cdx, bar->cdy, bar->cdz, bar->cdw, bar->cdt,
                &ctau, &ckappa);
      double cp, cd;
      maxSteps(bar, bar->cdx, bar->cdz, bar->cdw, bar->cdt, ctau, ckappa, &cp, &cd);
      const double prod = std::min(1.0, cp) * std::min(1.0, cd);
      if (!std::isfinite(ctau) || std::fabs(ctau) > 1e30 || !(prod > lastProd)) break;
      std::swap(bar->dx, bar->cdx);
      std::swap(bar->dz, bar->cdz);
      std::swap(bar->dw, bar->cdw);
      std::swap(bar->dt, bar->cdt);
      std::swap(bar->dy, bar->cdy);
      std::swap(bar->rxz, bar->crxz);
      std::swap(bar->rtw, bar->crtw);
      bar->dtau = ctau;
      bar->dkappa = ckappa;
      ap = cp;
      ad = cd;
      const double before = lastProd;
      lastProd = prod;
      if (cnum > std::max(K / 10, 1) && 0.99 * prod < before) break;
    }
    // More correctors when they are cheap beside the factor and the predictor, fewer when not.
    if (par.BarCorrectors < 0) {
      // Measured in work units rather than seconds, so that runs repeat exactly.
      const double solveWork = 4 * bar->factor.factorNz + 4.0 * bar->nnz + 10.0 * (m + N);
      const double q = (corrSolves * solveWork) / std::max(1.0, bar->factor.factorOps + 2 * solveWork);
      if (K < 20) {
        if (q < 0.25)
          bar->correctors = bar->correctors + 1;
        else if (K > 1)
          bar->correctors = std::max(1, bar->correctors - 1);
      } else if (q > 0.25) {
        bar->correctors--;
      }
    }
    ap = std::min(1.0, kStepFrac * ap);
    ad = std::min(1.0, kStepFrac * ad);
    if (bar->homogeneous) ap = ad = std::min(ap, ad);
    if (bar->mu < 1e-4) {
      // Residual guard: a step that would make the residuals much worse is cut.
      double pp = 0, pd = 0;
      predictResiduals(bar, ap, ad, &pp, &pd);
      const double P = std::max(1.2 * bar->pinf, bar->pTolAbs), Dl = std::max(1.2 * bar->dinf, bar->dTolAbs);
      // A cut step means the regularised factor is off the mark: the next one goes without.
      if (pp > P) {
        ap *= P / pp;
        if (bar->homogeneous) ad = std::min(ad, ap);
        regOff = true;
      }
      if (pd > Dl) {
        ad *= Dl / pd;
        if (bar->homogeneous) ap = std::min(ap, ad);
        regOff = true;
      }
    }
    bar->step3 = bar->step2;
    bar->step2 = bar->step1;
    bar->step1 = ap * ad;
    // A stalled run restarts from a shifted point.
    // Only a point whose residuals are nearly gone restarts: elsewhere short steps
    // are the iteration still working on feasibility.
    bool stalled = par.VORN_PAR_BARSAFE == 0 && bar->coneCount == 0 && bar->step1 < 1e-3 && bar->step2 < 1e-3 &&
                   bar->step3 < 1e-3 && bar->compl_ > 1e-5;
    if (stalled) {
      double pp = 0, pd = 0;
      predictResiduals(bar, ap, ad, &pp, &pd);
      stalled = pp < 1e-3 && pd < 1e-3;
    }
    if (stalled) {
      rc = VRXbarStart(bar, bar->homogeneous || bar->safeStart ? 5000 : 1000);
      if (rc) return rc;
      bar->safeIter = k + 1;
      bar->trouble = 1;
      bar->step1 = bar->step2 = bar->step3 = 1;
      continue;
    }
    // Residuals growing without bound: the homogeneous form decides. The test is
    // on the residuals the step leaves and not on x, which may be large at a
    // perfectly good point (a flow around a cycle with a small loss).
    if (par.BarHomogeneous == -1 && !bar->homogeneous) {
      double pp = 0, pd = 0;
      predictResiduals(bar, ap, ad, &pp, &pd);
      const double lim = k >= 10 ? 1e8 : 1e15;
      if (pp > lim * std::max(1.0, bar->maxB) || pd > lim * std::max(1.0, bar->maxC)) {
        bar->homogeneous = 1;
        rc = VRXbarStart(bar, 1.0);
        if (rc) return rc;
        bar->safeIter = k + 1;
        bar->bestIter = -1;
        bar->bestMerit = 1e300;
        continue;
      }
    }
    // A solve that overflowed (a factor near breakdown) gives no step: the point stays, and
    // the run goes on as for a diverging one.
    if (!finiteStep(bar, ap, ad)) {
      if (par.BarHomogeneous == -1 && !bar->homogeneous) {
        bar->homogeneous = 1;
        rc = VRXbarStart(bar, 1.0);
        if (rc) return rc;
        bar->safeIter = k + 1;
        bar->goodIter = k + 1;
        continue;
      }
      status = VRX_SUBOPTIMAL;
      break;
    }
    for (int j = 0; j < N; ++j) {
      bar->x[j] += ap * bar->dx[j];
      bar->z[j] += ad * bar->dz[j];
      bar->t[j] += ap * bar->dt[j];
      bar->w[j] += ad * bar->dw[j];
    }
    for (int i = 0; i < m; ++i) bar->y[i] += ad * bar->dy[i];
    if (bar->homogeneous) {
      bar->tau += ap * bar->dtau;
      bar->kappa += ad * bar->dkappa;
    }
    if (bar->step1 > 0.1) bar->goodIter = k;
  }
  *statusOut = status;
  return rc;
}

}  // namespace

int VRXbarrier(VRXmodel* model, Clock& clock, const BarRunOpts& opts, VRXbarsol** solOut) {
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  const VRXmodeldata* d = model->data;
  *solOut = nullptr;
  VRXbar bar{};
  struct Guard {
    VRXbar* b;
    ~Guard() { VRXbarFree(b); }
  } guard{&bar};
  int rc = VRXbarSetup(model, &bar);
  if (rc) return rc;
  log(env, "\n");
  if (opts.root) log(env, "Root barrier log...\n\n");
  const BarMatrix A = barMatrix(&bar);
  BarFactorOpts fo;
  fo.denseSep = par.VORN_PAR_BARDENSESEP;
  fo.denseThresh = par.VORN_PAR_BARDENSETHRESH;
  fo.denseGS = par.VORN_PAR_BARDENSEGS;
  fo.order = par.BarOrder;
  fo.threads = par.Threads > 0 ? par.Threads : std::max(1, env->coreCount);
  fo.cores = std::max(1, env->coreCount);
  fo.seed = par.Seed;
  fo.displayInterval = par.DisplayInterval;
  fo.log = true;
  double nz = 0, ops = 0;
  rc = VRXbarOrder(env, A, fo, &bar.factor, &nz, &ops);
  if (!rc) rc = VRXbarSymbolic(env, A, &bar.factor);
  if (rc) return rc;
  clockCharge(clock, bar.factor.orderWork);
  if (bar.factor.orderTime > 0.005) log(env, "Ordering time: %.2fs\n", bar.factor.orderTime);
  {
    int64_t* xadj = nullptr;
    int* adj = nullptr;
    double aat = 0;
    rc = productPattern(env, A, nullptr, &xadj, &adj, &aat);
    envFree(env, xadj);
    envFree(env, adj);
    if (rc) return rc;
    bar.stats.aatNz = aat;
  }
  bar.stats.factorNz = bar.factor.factorNz;
  bar.stats.factorOps = bar.factor.factorOps;
  bar.stats.denseCols = bar.factor.denseCols;
  bar.stats.secondsPerIter = -1;
  if (bar.factor.factorOps >= 1e8) {
    double rate = 0, bw = 0;
    VRXbarCalibrate(env, &rate, &bw);
    const double L = bar.factor.factorNz, s = 4 * L;
    const double c = bar.factor.factorOps > 1e11 ? 0.03 : 0.06;
    double v = (10.0 * bar.nnz + 4 * L) / bw + (std::pow(bar.factor.factorOps, 1 + c) / rate + 10 * L / bw + s / rate);
    v += (bar.rows + bar.cols <= 10000000 ? 50.0 : 100.0) * (bar.rows + bar.cols) / bw;
    bar.stats.secondsPerIter = std::floor(v + 0.5);
  }
  VRXbarLogStats(env, bar.stats, std::max(1, bar.factor.workers), false);
  bar.workPerIter = bar.factor.factorOps + 4 * bar.factor.factorNz + 10.0 * bar.nnz;
  // A factor far heavier than the matrix: the start point goes straight to crossover.
  const double fops = bar.factor.factorOps;
  const bool quick = par.VORN_PAR_BARQUICKSTART == 1 && fops > 1e8 && fops > 1000 * bar.factor.factorNz &&
                     fops > 500 * bar.stats.aatNz && fops > 1000.0 * bar.nnz;
  rc = VRXbarStart(&bar, 1.0);
  if (rc) return rc;
  int status = 1;
  if (quick) {
    recompute(&bar);
    bar.iter = 0;
    status = VRX_SUBOPTIMAL;
  } else {
    log(env, "\n");
    log(env, "                  Objective                Residual\n");
    log(env, "Iter       Primal          Dual         Primal    Dual     Compl     Time\n");
    rc = iterate(model, &bar, clock, &status);
    if (rc && status != VRX_INTERRUPTED) return errorEnd(env, bar, clock, rc);
  }
  const int k = std::max(bar.iter, 0);
  // End of the run: the best point when the last one is worse, and the mid-way rules.
  if (status != VRX_OPTIMAL && status != VRX_INFEASIBLE && status != VRX_UNBOUNDED && bar.bestIter >= 0 &&
      bar.bestIter < bar.iter) {
    restoreBest(&bar);
    recompute(&bar);
  }
  if (status == VRX_SUBOPTIMAL && !quick) {
    const double gap = std::min(std::fabs(bar.primalObj - bar.dualObj), bar.cols * bar.compl_) /
                       std::max(1.0, std::fabs(bar.primalObj));
    if (gap < 10 * bar.tol && bar.pinf / (bar.normB + 1) < bar.tol && bar.dinf / (bar.normC + 1) < bar.tol) {
      status = VRX_OPTIMAL;
    } else if (bar.compl_ < bar.tol && ((bar.pinf < 10 * bar.pTolAbs && bar.dinf < 10 * bar.dTolAbs) ||
                                        (bar.pinfRel < 10 * bar.pTolRel && bar.dinfRel < 10 * bar.dTolRel))) {
      status = VRX_OPTIMAL;
    }
  }
  // The point in the model's terms.
  const int n = d->numVars, m = d->numConstrs;
  VRXbarsol* sol = barsolCreate(env, n, m);
  if (!sol) return errorEnd(env, bar, clock, VRX_ERROR_OUT_OF_MEMORY);
  const double tau = bar.tau > 0 ? bar.tau : 1;
  for (int j = 0; j < n; ++j) {
    const double xs = bar.kind[j] == 3 ? 0 : bar.x[j] * bar.colScale[j] / tau;
    sol->x[j] = bar.shift[j] + bar.colSign[j] * xs;
  }
  for (int i = 0; i < m; ++i) sol->pi[i] = bar.y[i] * bar.rowScale[i] / tau;
  double pobj = d->objCon;
  for (int i = 0; i < m; ++i) sol->slack[i] = d->rhs[i];
  for (int j = 0; j < n; ++j) {
    double rcj = d->obj[j];
    for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p) {
      sol->slack[d->rowInd[p]] -= d->val[p] * sol->x[j];
      rcj -= d->val[p] * sol->pi[d->rowInd[p]];
    }
    sol->rc[j] = rcj;
    pobj += d->obj[j] * sol->x[j];
  }
  sol->status = status;
  sol->iterCount = k;
  sol->pObj = pobj;
  sol->dObj = bar.dualObj;
  sol->pinf = bar.pinf;
  sol->dinf = bar.dinf;
  sol->compl_ = bar.compl_;
  sol->doubtful = status == VRX_OPTIMAL && bar.primalObj < bar.dualObj - (std::fabs(bar.primalObj) + 1) * 1e-6;
  model->status = status;
  // Final lines.
  const double secs = clockElapsed(clock);
  if (status == 2 || status == 3 || status == 4 || status == 5)
    log(env, "Barrier solved model in %d iterations and %.2f seconds\n", k, secs);
  else
    log(env, "Barrier performed %d iterations in %.2f seconds\n", k, secs);
  switch (status) {
    case VRX_OPTIMAL: log(env, "Optimal objective %.8e\n", bar.sense[0] * bar.primalObj); break;
    case VRX_INFEASIBLE: log(env, "Infeasible model\n"); break;
    case VRX_UNBOUNDED: log(env, "Unbounded model\n"); break;
    case VRX_CUTOFF: log(env, "Objective cutoff exceeded\n"); break;
    case VRX_ITERATION_LIMIT: log(env, "Iteration limit reached\n"); break;
    case VRX_TIME_LIMIT: log(env, "Time limit reached\n"); break;
    case VRX_INTERRUPTED:
      // In a concurrent run a stop is another instance's win, unless the caller asked for it.
      if (solvedElsewhere(env))
        log(env, "Barrier solve interrupted - model solved by another algorithm\n");
      else
        log(env, "Optimization interrupted\n");
      break;
    case VRX_NUMERIC:
      log(env, "Numerical trouble encountered\n");
      if (!bar.homogeneous) {
        log(env, "Model may be infeasible or unbounded.  Consider using the\n");
        log(env, "homogeneous algorithm (through parameter 'BarHomogeneous')\n");
      }
      break;
    case VRX_SUBOPTIMAL: log(env, "Sub-optimal termination - objective %.8e\n", bar.sense[0] * bar.primalObj); break;
    default: log(env, "Unknown termination status\n"); break;
  }
  *solOut = sol;
  return rc;
}

}  // namespace vrx
