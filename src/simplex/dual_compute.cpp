// Dual simplex: the pricing record, the fresh computation of Bbar and Cbar after a build,
// the repair of dual infeasibilities (flips, shifts, the box phase), the perturbation and
// the residual checks.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "model/model.h"
#include "model/modeldata.h"
#include "simplex/dual.h"
#include "simplex/pwl.h"

namespace vrx {
namespace dual {

namespace {

template <class T>
inline T absT(T x) {
  return x < T(0) ? -x : x;
}

inline bool isTempFixed(int st) { return st <= VRX_VS_FIX_LOWER && st >= VRX_VS_FIX_FREE; }

// Bounds of the box phase: the problem over them has a dual feasible basis whatever the
// costs, and its optimum is zero exactly when the true problem has one.
void boxBounds(double lo, double up, double inf, double* bl, double* bu) {
  const bool lf = lo > -inf, uf = up < inf;
  if (lf && uf) {
    *bl = *bu = 0.0;
  } else if (lf) {
    *bl = 0.0;
    *bu = 1.0;
  } else if (uf) {
    *bl = -1.0;
    *bu = 0.0;
  } else {
    *bl = -1000.0;
    *bu = 1000.0;
  }
}

}  // namespace

void dualShift(VRXlp* lp, int j, double v) {
  VRXdualprice* pr = lp->pricing;
  pr->costShift[j] += signOf(lp->varStat[j]) * v;
  pr->shiftsInForce = 1;
  const double a = std::fabs(v);
  const double range = pr->up[j] - pr->lo[j];
  const bool small = a < 0.0005 * lp->optTol || (a < 0.05 * lp->optTol && range * a < 0.1 * lp->optTol);
  lp->perturbKind = std::max(lp->perturbKind, small ? 1 : 2);
}

void dualClearShifts(VRXlp* lp) {
  VRXdualprice* pr = lp->pricing;
  std::memset(pr->costShift, 0, sizeof(double) * static_cast<size_t>(lp->n + lp->m));
  pr->shiftsInForce = 0;
  lp->perturbKind = 0;
  lp->shiftObj = 0.0;
}

void dualResetNorms(VRXlp* lp) {
  VRXdualprice* pr = lp->pricing;
  for (int p = 0; p < lp->m; p++) pr->dualNorm[p] = 1.0;
  pr->updatesSinceNorm = 0;
  lp->normsStale = 0;
}

template <class T>
int dualExactNorms(VRXlp* lp, Clock& clock) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int m = lp->m;
  VRXsvecT<T>* w = v.w1;
  for (int p = 0; p < m; p++) {
    clearVec(w, lp->n + lp->m + 1);
    w->value[p] = T(1);
    w->index[0] = p;
    w->count = 1;
    int rc = VRXbtran(v.factor, w, w, 0, &clock.work);
    if (rc) return rc;
    T s = T(0);
    if (w->count < 0) {
      for (int i = 0; i < m; i++) s += w->value[i] * w->value[i];
    } else {
      for (int k = 0; k < w->count; k++) s += w->value[w->index[k]] * w->value[w->index[k]];
    }
    pr->dualNorm[p] = std::max(1e-8, static_cast<double>(s));
  }
  clearVec(w, lp->n + lp->m + 1);
  pr->updatesSinceNorm = 0;
  lp->normsStale = 0;
  return 0;
}

template <class T>
double dualComputeBbar(VRXlp* lp, Clock& clock, bool measure) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int n = lp->n, m = lp->m;
  if (m == 0) return 0.0;
  VRXsvecT<T>* w = v.w1;
  clearVec(w, n + m + 1);
  T* x = w->value;
  if (!pr->boxPhase)
    for (int i = 0; i < m; i++) x[i] = T(lp->rhs[i]);
  for (int j = 0; j < n + m; j++) {
    if (lp->varStat[j] >= 0) continue;
    const T xv = nonbasicValue<T>(lp, pr, j);
    if (xv == T(0)) continue;
    if (j < n) {
      for (int64_t k = lp->colBeg[j], e = k + lp->colLen[j]; k < e; k++) x[lp->rowInd[k]] -= T(lp->val[k]) * xv;
    } else {
      x[j - n] -= xv;
    }
  }
  w->count = -1;
  if (measure)
    for (int p = 0; p < m; p++) pr->scoreBuf[p] = static_cast<double>(v.Bbar[p]);
  VRXftran(v.factor, w, w, 0, 0, &clock.work);
  if (w->count < 0) {
    for (int p = 0; p < m; p++) v.Bbar[p] = x[p];
  } else {
    for (int p = 0; p < m; p++) v.Bbar[p] = T(0);
    for (int k = 0; k < w->count; k++) v.Bbar[w->index[k]] = x[w->index[k]];
  }
  clearVec(w, m);
  double change = 0.0;
  if (measure)
    for (int p = 0; p < m; p++) change = std::max(change, std::fabs(static_cast<double>(v.Bbar[p]) - pr->scoreBuf[p]));
  clock.work += 2.0 * static_cast<double>(lp->nnz + m) * lp->workFactor;
  return change;
}

// y = B^-T c_B into the second scratch vector (by row), so rho keeps the last pivot row
// of the inverse; returns the largest |c_B - B'y| when measure is set.
template <class T>
static double computeDuals(VRXlp* lp, Clock& clock, bool measure) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int n = lp->n, m = lp->m;
  VRXsvecT<T>* y = v.w2;
  clearVec(y, n + m + 1);
  const int* head = v.factor->basisHead;
  for (int p = 0; p < m; p++) y->value[p] = T(lp->cost[head[p]]) + T(pr->costShift[head[p]]);
  y->count = -1;
  VRXbtran(v.factor, y, y, 0, &clock.work);
  double resid = 0.0;
  if (measure) {
    for (int p = 0; p < m; p++) {
      const int j = head[p];
      T s = T(lp->cost[j]) + T(pr->costShift[j]);
      if (j < n) {
        for (int64_t k = lp->colBeg[j], e = k + lp->colLen[j]; k < e; k++) s -= T(lp->val[k]) * y->value[lp->rowInd[k]];
      } else {
        s -= y->value[j - n];
      }
      resid = std::max(resid, std::fabs(static_cast<double>(s)));
    }
  }
  return resid;
}

template <class T>
static void cbarFromDuals(VRXlp* lp) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int n = lp->n, m = lp->m;
  const T* y = v.w2->value;
  for (int j = 0; j < n + m; j++) {
    const int st = lp->varStat[j];
    if (st >= 0) {
      v.Cbar[j] = T(0);
      continue;
    }
    T d = T(lp->cost[j]) + T(pr->costShift[j]);
    if (j < n) {
      for (int64_t k = lp->colBeg[j], e = k + lp->colLen[j]; k < e; k++) d -= T(lp->val[k]) * y[lp->rowInd[k]];
    } else {
      d -= y[j - n];
    }
    v.Cbar[j] = signOf(st) < 0 ? -d : d;
  }
  clearVec(v.w2, n + m + 1);
}

template <class T>
void dualComputeCbar(VRXlp* lp, Clock& clock) {
  if (lp->m > 0) computeDuals<T>(lp, clock, false);
  cbarFromDuals<T>(lp);
  clock.work += 2.0 * static_cast<double>(lp->nnz + lp->m) * lp->workFactor;
}

template <class T>
void dualScoreOne(VRXlp* lp, int p) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int var = v.factor->basisHead[p];
  const double x = static_cast<double>(v.Bbar[p]);
  const double lo = pr->lo[var], up = pr->up[var];
  double inf = 0.0;
  if (x < lo - lp->feasTol)
    inf = lo - x;
  else if (x > up + lp->feasTol)
    inf = x - up;
  pr->score[p] = inf * inf;
  if (inf > 0.0 && !pr->fullPricing && lp->rowFlag[p] == 0) {
    double merit = pr->score[p] / pr->dualNorm[p];
    if (pr->weightMode == 1)
      merit *= pr->colWeight[var] / pr->rowWeight[p];
    else if (pr->weightMode == 2)
      merit /= pr->rowWeight[p];
    if (merit >= pr->threshold) {
      lp->rowFlag[p] = 1;
      pr->candList[pr->candCount++] = p;
    }
  }
}

template <class T>
void dualRefreshInfeas(VRXlp* lp) {
  VRXdualprice* pr = lp->pricing;
  const int m = lp->m;
  for (int p = 0; p < m; p++)
    if (lp->rowFlag[p] == 1) lp->rowFlag[p] = 0;
  pr->candCount = 0;
  pr->threshold = 1e300;  // nothing joins until the next price rebuilds the list
  pr->scanBudget = 0;
  for (int p = 0; p < m; p++) dualScoreOne<T>(lp, p);
}

template <class T>
void dualObjective(VRXlp* lp) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int n = lp->n, m = lp->m;
  T work = T(0), truth = T(0);
  for (int j = 0; j < n + m; j++) {
    const int st = lp->varStat[j];
    const T x = st >= 0 ? v.Bbar[st] : nonbasicValue<T>(lp, pr, j);
    if (x == T(0)) continue;
    truth += T(lp->cost[j]) * x;
    work += (T(lp->cost[j]) + T(pr->costShift[j])) * x;
  }
  if (lp->pwl) {
    // Each segment of a piecewise term is a line: its intercept joins the objective.
    const T c = T(pwlIntercepts(lp));
    truth += c;
    work += c;
  }
  pr->objWork = static_cast<double>(work);
  lp->dualObj = static_cast<double>(truth) / lp->objScale + lp->objConst;
  lp->shiftObj = static_cast<double>(work - truth) / lp->objScale;
  lp->dualObjValid = !pr->shiftsInForce && !pr->boxPhase;
}

template <class T>
void dualInfeasSums(VRXlp* lp) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  double mp = 0, sp = 0, md = 0, sd = 0;
  for (int p = 0; p < lp->m; p++) {
    const double s = std::sqrt(pr->score[p]);
    sp += s;
    mp = std::max(mp, s);
  }
  for (int j = 0; j < lp->n + lp->m; j++) {
    const int st = lp->varStat[j];
    if (st >= 0 || isTempFixed(st) || pr->lo[j] == pr->up[j]) continue;
    const double c = static_cast<double>(v.Cbar[j]);
    const double inf = st == VRX_VS_FREE ? std::fabs(c) : std::max(0.0, -c);
    if (inf > lp->optTol) {
      sd += inf;
      md = std::max(md, inf);
    }
  }
  pr->maxPrimalInf = mp;
  pr->sumPrimalInf = sp;
  pr->maxDualInf = md;
  pr->sumDualInf = sd;
}

template <class T>
void dualBoxEnter(VRXlp* lp) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int nm = lp->n + lp->m;
  int boxed = 0;
  for (int j = 0; j < nm; j++) {
    boxBounds(lp->lower[j], lp->upper[j], lp->infBound, &pr->boxLower[j], &pr->boxUpper[j]);
    const bool realBox = lp->lower[j] > -lp->infBound && lp->upper[j] < lp->infBound;
    if (!realBox) boxed++;
    const int st = lp->varStat[j];
    if (st >= 0 || isTempFixed(st)) continue;
    const T d = signOf(st) < 0 ? -v.Cbar[j] : v.Cbar[j];
    const int ns = d >= T(0) ? VRX_VS_LOWER : VRX_VS_UPPER;
    lp->varStat[j] = ns;
    v.Cbar[j] = ns == VRX_VS_UPPER ? -d : d;
  }
  pr->lo = pr->boxLower;
  pr->up = pr->boxUpper;
  pr->boxPhase = 1;
  pr->boundsMoved = 1;
  lp->boxedFlag = 1;
  lp->boxCount = boxed;
}

template <class T>
void dualBoxLeave(VRXlp* lp) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int nm = lp->n + lp->m;
  const double inf = lp->infBound;
  for (int j = 0; j < nm; j++) {
    const int st = lp->varStat[j];
    if (st >= 0 || isTempFixed(st)) continue;
    const T d = signOf(st) < 0 ? -v.Cbar[j] : v.Cbar[j];
    const double lo = lp->lower[j], up = lp->upper[j];
    const bool lf = lo > -inf, uf = up < inf;
    int ns;
    if (lf && uf)
      ns = lo == up ? VRX_VS_FIX_LOWER : (d >= T(0) ? VRX_VS_LOWER : VRX_VS_UPPER);
    else if (lf)
      ns = VRX_VS_LOWER;
    else if (uf)
      ns = VRX_VS_UPPER;
    else
      ns = VRX_VS_FREE;
    lp->varStat[j] = ns;
    v.Cbar[j] = signOf(ns) < 0 ? -d : d;
  }
  pr->lo = lp->lower;
  pr->up = lp->upper;
  pr->boxPhase = 0;
  pr->boundsMoved = 1;
  lp->boxedFlag = 0;
  lp->boxCount = 0;
}

template <class T>
int dualCountDualInfeas(VRXlp* lp, bool flippableToo, double* worst) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int nm = lp->n + lp->m;
  const double tol = lp->optTol, inf = lp->infBound;
  int bad = 0;
  double w = 0.0;
  for (int j = 0; j < nm; j++) {
    const int st = lp->varStat[j];
    if (st >= 0 || isTempFixed(st)) continue;
    const double lo = pr->lo[j], up = pr->up[j];
    if (lo == up) continue;
    const double c = static_cast<double>(v.Cbar[j]);
    double amount = 0.0;
    if (st == VRX_VS_FREE) {
      amount = std::fabs(c);
    } else if (c < 0.0) {
      const bool canFlip = st == VRX_VS_LOWER ? up < inf : lo > -inf;
      if (!canFlip || flippableToo) amount = -c;
    }
    if (amount > tol) {
      bad++;
      w = std::max(w, amount);
    }
  }
  if (worst) *worst = w;
  return bad;
}

// Flips the boxed dual infeasibilities; counts the others into *nonflip with the largest
// in *worst. Returns the number of flips.
template <class T>
static int flipDualInfeasible(VRXlp* lp, int* nonflip, double* worst) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int nm = lp->n + lp->m;
  const double tol = lp->optTol, inf = lp->infBound;
  int flips = 0, bad = 0;
  double w = 0.0;
  for (int j = 0; j < nm; j++) {
    const int st = lp->varStat[j];
    if (st >= 0 || isTempFixed(st)) continue;
    const double lo = pr->lo[j], up = pr->up[j];
    if (lo == up) continue;
    const double c = static_cast<double>(v.Cbar[j]);
    if (st == VRX_VS_FREE) {
      if (std::fabs(c) > tol) {
        bad++;
        w = std::max(w, std::fabs(c));
      }
      continue;
    }
    if (c >= -tol) continue;
    const bool canFlip = st == VRX_VS_LOWER ? up < inf : lo > -inf;
    if (canFlip) {
      lp->varStat[j] = st == VRX_VS_LOWER ? VRX_VS_UPPER : VRX_VS_LOWER;
      v.Cbar[j] = -v.Cbar[j];
      flips++;
    } else {
      bad++;
      w = std::max(w, -c);
    }
  }
  *nonflip = bad;
  *worst = w;
  return flips;
}

// Shifts away the dual infeasibilities that no flip can repair; at a start the amount is
// drawn a little larger so the start is not degenerate.
template <class T>
static int shiftDualInfeasible(VRXlp* lp, bool atLoad) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int nm = lp->n + lp->m;
  const double tol = lp->optTol;
  Random rng;
  randomSeed(rng, pr->seedBase + static_cast<uint64_t>(lp->iterCount) * 7919u + 17u);
  int count = 0;
  for (int j = 0; j < nm; j++) {
    const int st = lp->varStat[j];
    if (st >= 0 || isTempFixed(st) || pr->lo[j] == pr->up[j]) continue;
    const double c = static_cast<double>(v.Cbar[j]);
    if (st == VRX_VS_FREE) {
      if (std::fabs(c) > tol) {
        dualShift(lp, j, -c);
        v.Cbar[j] = T(0);
        count++;
      }
      continue;
    }
    if (c >= -tol) continue;
    double amount = -c;
    if (atLoad) {
      if (amount < 0.0005 * tol)
        amount *= 1.0 + randomUniform(rng);
      else
        amount *= static_cast<double>((randomNext(rng) % 500) + 111) / 1000.0 + 1.0;
    }
    dualShift(lp, j, amount);
    v.Cbar[j] += T(amount);
    count++;
  }
  if (count > 10 && lp->perturbKind != 0 && lp->markowitzTol < 0.125)
    lp->markowitzTol = std::min(0.125, 2.0 * lp->markowitzTol);
  return count;
}

// Largest dual infeasibility of a nonbasic, tolerance or not, in solver units.
template <class T>
static double maxDualInfeas(VRXlp* lp) {
  View<T> v = view<T>(lp);
  const int nm = lp->n + lp->m;
  double w = 0.0;
  for (int j = 0; j < nm; j++) {
    const int st = lp->varStat[j];
    if (st >= 0 || isTempFixed(st)) continue;
    const double c = static_cast<double>(v.Cbar[j]);
    w = std::max(w, st == VRX_VS_FREE ? std::fabs(c) : -c);
  }
  return w;
}

template <class T>
void dualObjectiveScale(VRXlp* lp, double f) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int nm = lp->n + lp->m;
  for (int j = 0; j < nm; j++) {
    lp->cost[j] *= f;
    pr->costShift[j] *= f;
    v.Cbar[j] *= T(f);
  }
  lp->objScale *= f;
  if (lp->copy) lp->copy->objScale *= f;
  lp->extraScale *= f;
  pr->objWork *= f;
}

template <class T>
void dualObjectiveUnscale(VRXlp* lp) {
  if (lp->extraScale != 1.0) dualObjectiveScale<T>(lp, 1.0 / lp->extraScale);
  lp->extraScale = 1.0;
}

template <class T>
void dualPerturb(VRXlp* lp) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  if (lp->perturbKind == 3 && lp->perturbCur >= 0.01) {
    lp->status = -1004;
    return;
  }
  if (lp->perturbKind < 2 && lp->objScale >= 1.0) {
    // Larger costs make the same perturbation relatively smaller: as large as the dual
    // infeasibilities left allow, with a margin of two.
    const double inf = maxDualInfeas<T>(lp);
    double f = 64.0;
    while (f > 1.0 && !(inf * f < lp->optTol)) f *= 0.5;
    f = f <= 2.0 ? 1.0 : 0.5 * f;
    if (f > 1.0) dualObjectiveScale<T>(lp, f);
  }
  Random rng;
  randomSeed(rng, pr->seedBase + static_cast<uint64_t>(lp->iterCount));
  const int nm = lp->n + lp->m;
  const double unit = lp->perturbCur / 500.0;
  for (int j = 0; j < nm; j++) {
    const int st = lp->varStat[j];
    if (st != VRX_VS_LOWER && st != VRX_VS_UPPER) continue;
    if (pr->lo[j] == pr->up[j]) continue;
    const double delta = static_cast<double>((randomNext(rng) % 500) + 1) * unit;
    pr->costShift[j] += st == VRX_VS_LOWER ? delta : -delta;
    v.Cbar[j] += T(delta);
  }
  pr->shiftsInForce = 1;
  pr->everPerturbed = 1;
  lp->perturbKind = 3;
  lp->lastPerturbIter = lp->iterCount;
  const double pv = lp->env->par.PerturbValue;
  const double cap = pv == 0.0002 ? 0.01 : pv * 1000.0;
  lp->perturbCur = std::min(cap, lp->perturbCur * 3.0);
}

// The Markowitz tolerance a growth and a residual call for.
static double markowitzFloor(double g, double e) {
  if (g > 1e10 || e > 1e-8) return 0.5;
  if (g > 1e9 || e > 4e-9) return 0.25;
  if (g > 1e8 || e > 1e-9) return 0.125;
  if (g > 1e7 || e > 4e-10) return 0.0625;
  if (g > 1e6 || e > 1e-10) return 0.03125;
  return 0.0001;
}

template <class T>
int VRXdualCompute(VRXlp* lp, Clock& clock) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int m = lp->m;
  const int action = lp->actionCode;
  const bool check = (lp->refactorCount % 5 == 4) || action == 4;

  // Duals and reduced costs; the residual of the duals on the fifth build.
  double dualResid = 0.0;
  if (m > 0) dualResid = computeDuals<T>(lp, clock, check);
  cbarFromDuals<T>(lp);
  clock.work += 2.0 * static_cast<double>(lp->nnz + m) * lp->workFactor;
  if (check && dualResid > lp->optTol) {
    if (++lp->dualResidHits > 5) {
      lp->dualResidHits = 0;
      if (lp->optTol < 1e-3)
        lp->optTol *= 10.0;
      else if (lp->quadMode == 0 && lp->env->par.Quad == -1 && !pr->noRescue) {
        lp->status = -1002;
        return 0;
      }
    }
  }

  // Piecewise columns first go to the break point their reduced cost asks for.
  if (lp->pwl && !pr->boxPhase) pwlSettle<T>(lp, v.Cbar);
  // Dual infeasibilities: flips where a bound allows, the box phase at a start, shifts later.
  int nonflip = 0;
  double worst = 0.0;
  flipDualInfeasible<T>(lp, &nonflip, &worst);
  if (nonflip > 0) {
    if (pr->atStart && !pr->boxPhase) {
      dualBoxEnter<T>(lp);
      flipDualInfeasible<T>(lp, &nonflip, &worst);
    }
    if (nonflip > 0) shiftDualInfeasible<T>(lp, action == 1);
  }
  pr->atStart = 0;

  // Primal values; the residual against the updated values on the fifth build.
  const double xmaxBefore = [&] {
    double x = 0.0;
    for (int p = 0; p < m; p++) x = std::max(x, std::fabs(static_cast<double>(v.Bbar[p])));
    return x;
  }();
  const double change = dualComputeBbar<T>(lp, clock, check);
  // Values updated under other bounds say nothing about the accuracy of the factor.
  const bool comparable = !pr->boundsMoved;
  pr->boundsMoved = 0;
  if (check && m > 0 && comparable) {
    double xmax = 0.0;
    for (int p = 0; p < m; p++) xmax = std::max(xmax, std::fabs(static_cast<double>(v.Bbar[p])));
    const double base = std::max(1.0, xmaxBefore);
    double g = xmax / base;
    if (lp->priceMode == 1 || lp->priceMode == 3) g = std::max(g, 1.0);
    const double e = change / base;
    pr->lastResidual = e;
    if (lp->boxCount == 0 && change > lp->feasTol && 100.0 * change > pr->maxPrimalInf) {
      if (++lp->primalResidHits > 2) {
        lp->primalResidHits = 0;
        if (lp->feasTol < 1e-3)
          lp->feasTol *= 10.0;
        else if (lp->quadMode == 0 && lp->env->par.Quad == -1 && !pr->noRescue) {
          lp->status = -1002;
          return 0;
        }
      }
    }
    const double floorTol = markowitzFloor(g, e);
    if (floorTol > lp->markowitzTol) {
      lp->markowitzTol = floorTol;
      log(lp->env, "Warning: Markowitz tolerance tightened to %g\n", lp->markowitzTol);
    }
  }

  dualRefreshInfeas<T>(lp);
  dualObjective<T>(lp);

  // Perturbation gate: a run of degenerate pivots since the last test perturbs the costs.
  if (!pr->noPerturb && lp->perturbCur > 0.0 && lp->iterCount > 0) {
    const int k = (lp->dualSwitch >= 3 && lp->perturbKind >= 3)   ? 10000
                  : (lp->dualSwitch < 3 && lp->perturbKind <= 2) ? 2
                                                                 : 5;
    if (lp->refactorCount % k == 1) {
      const double iters = lp->iterCount - pr->lastTestIter;
      const int degen = lp->degenPivots - pr->lastTestDegen;
      // A dual bound that did not rise since the last record counts as a stall too.
      const bool stalled = lp->dualObjValid && lp->bestDualObj > -kInf &&
                           lp->dualObj < lp->bestDualObj + maxDualInfeas<T>(lp) / lp->objScale;
      if (((iters > 0 && degen > 0.9 * iters) || stalled) && lp->perturbKind < 3) {
        dualPerturb<T>(lp);
        if (lp->status != 1) return 0;
        dualObjective<T>(lp);
      } else if (lp->dualObjValid) {
        lp->bestDualObj = std::max(lp->bestDualObj, lp->dualObj);
      }
      pr->lastTestIter = lp->iterCount;
      pr->lastTestDegen = lp->degenPivots;
    }
  }
  return 0;
}

}  // namespace dual
}  // namespace vrx

// ---------------------------------------------------------------- record

void VRXdualpriceFree(VRXlp* lp) {
  if (!lp || !lp->pricing) return;
  VRXenv* env = lp->env;
  VRXdualprice* pr = lp->pricing;
  void* blocks[] = {pr->costShift, pr->dualNorm, pr->candList,  pr->score,    pr->scoreBuf,
                    pr->rowWeight, pr->colWeight, pr->boxLower, pr->boxUpper, pr->cand,
                    pr->candRatio, pr->candGain,  pr->flipList, pr->rowMark,  pr->touched,
                    pr->candA,     pr->candC,     pr->storedNorm, pr->flipDx,  pr->flipSeg,
                    pr->flipStat,  pr->candSeg,   pr->candPrev,   pr->candPassed, pr->candOrder};
  for (void* p : blocks) vrx::envFree(env, p);
  vrx::envFree(env, pr);
  lp->pricing = nullptr;
}

namespace {

int allocPricing(VRXlp* lp) {
  using vrx::envCallocArray;
  VRXenv* env = lp->env;
  const size_t nm = static_cast<size_t>(lp->n) + static_cast<size_t>(lp->m) + 1;
  const size_t m = static_cast<size_t>(lp->m) + 1;
  // A piecewise column adds one break point per segment to the ratio test.
  const size_t slots = nm + static_cast<size_t>(lp->pwl ? lp->pwl->segs : 0);
  auto* pr = envCallocArray<VRXdualprice>(env, 1);
  if (!pr) return VRX_ERROR_OUT_OF_MEMORY;
  lp->pricing = pr;
  pr->costShift = envCallocArray<double>(env, nm);
  pr->dualNorm = envCallocArray<double>(env, m);
  pr->candList = envCallocArray<int>(env, m);
  pr->score = envCallocArray<double>(env, m);
  pr->scoreBuf = envCallocArray<double>(env, nm + m);
  pr->rowWeight = envCallocArray<double>(env, m);
  pr->colWeight = envCallocArray<double>(env, nm);
  pr->boxLower = envCallocArray<double>(env, nm);
  pr->boxUpper = envCallocArray<double>(env, nm);
  pr->cand = envCallocArray<int>(env, slots);
  pr->candRatio = envCallocArray<double>(env, slots);
  pr->candGain = envCallocArray<double>(env, slots);
  pr->candA = envCallocArray<double>(env, slots);
  pr->candC = envCallocArray<double>(env, slots);
  pr->candSeg = envCallocArray<int>(env, slots);
  pr->candPrev = envCallocArray<int>(env, slots);
  pr->candPassed = envCallocArray<char>(env, slots);
  pr->candOrder = envCallocArray<int>(env, slots);
  pr->flipList = envCallocArray<int>(env, nm);
  pr->flipDx = envCallocArray<double>(env, nm);
  pr->flipSeg = envCallocArray<int>(env, nm);
  pr->flipStat = envCallocArray<int>(env, nm);
  pr->rowMark = envCallocArray<char>(env, m);
  pr->touched = envCallocArray<int>(env, 2 * m);
  pr->storedNorm = envCallocArray<double>(env, nm);
  if (!pr->storedNorm || !pr->costShift || !pr->dualNorm || !pr->candList || !pr->score || !pr->scoreBuf || !pr->rowWeight ||
      !pr->colWeight || !pr->boxLower || !pr->boxUpper || !pr->cand || !pr->candRatio || !pr->candGain || !pr->candA || !pr->candC ||
      !pr->flipList || !pr->rowMark || !pr->touched || !pr->flipDx || !pr->flipSeg || !pr->flipStat || !pr->candSeg ||
      !pr->candPrev || !pr->candPassed || !pr->candOrder) {
    VRXdualpriceFree(lp);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  pr->nm = lp->n + lp->m;
  pr->mAlloc = lp->m;
  pr->slotCap = static_cast<int>(slots);
  for (int p = 0; p < lp->m; p++) pr->dualNorm[p] = 1.0;
  return 0;
}

// Nonbasic codes that no longer fit the bounds (a node solve moved them) are put right.
void sanitizeStatuses(VRXlp* lp) {
  const int nm = lp->n + lp->m;
  const double inf = lp->infBound;
  for (int j = 0; j < nm; j++) {
    int st = lp->varStat[j];
    if (st >= 0) continue;
    if (st < VRX_VS_FIX_FREE) st += VRX_VS_REJECT_SHIFT;
    const double lo = lp->lower[j], up = lp->upper[j];
    const bool lf = lo > -inf, uf = up < inf;
    if (st == VRX_VS_LOWER && !lf) st = uf ? VRX_VS_UPPER : VRX_VS_FREE;
    if (st == VRX_VS_UPPER && !uf) st = lf ? VRX_VS_LOWER : VRX_VS_FREE;
    if (st == VRX_VS_FREE && (lf || uf) && !lp->warmStart) st = lf ? VRX_VS_LOWER : VRX_VS_UPPER;
    if (st == VRX_VS_FIX_LOWER && !lf) st = VRX_VS_FIX_FREE;
    if (st == VRX_VS_FIX_UPPER && !uf) st = lf ? VRX_VS_FIX_LOWER : VRX_VS_FIX_FREE;
    lp->varStat[j] = st;
  }
}

}  // namespace

int VRXdualLoadNorms(VRXlp* lp, const double* vNorm, const double* cNorm) {
  if (!lp || !lp->varStat) return VRX_ERROR_DATA_NOT_AVAILABLE;
  const int n = lp->n, m = lp->m;
  if (lp->pricing && (lp->pricing->nm != n + m || lp->pricing->mAlloc != m)) VRXdualpriceFree(lp);
  if (!lp->pricing) {
    int rc = allocPricing(lp);
    if (rc) return rc;
  }
  VRXdualprice* pr = lp->pricing;
  pr->storedValid = 0;
  if (!vNorm || !cNorm) return 0;
  for (int j = 0; j < n + m; j++) {
    const double w = j < n ? vNorm[j] : cNorm[j - n];
    if (lp->varStat[j] >= 0 && !(w > 0.0 && w < vrx::kInf)) return 0;
    pr->storedNorm[j] = w;
  }
  pr->storedValid = 1;
  lp->loadKind = 3;
  return 1;
}

int VRXdualGetNorms(const VRXlp* lp, double* vNorm, double* cNorm) {
  if (!lp || !lp->pricing || !lp->varStat) return VRX_ERROR_DATA_NOT_AVAILABLE;
  const int n = lp->n, m = lp->m;
  for (int j = 0; j < n + m; j++) {
    const int p = lp->varStat[j];
    const double w = p >= 0 && p < m ? lp->pricing->dualNorm[p] : 0.0;
    if (j < n)
      vNorm[j] = w;
    else
      cNorm[j - n] = w;
  }
  return 0;
}

int VRXdualPrepare(VRXlp* lp, int startStatus, double* work) {
  VRXenv* env = lp->env;
  const vrx::ParamStore& par = env->par;
  const int m = lp->m, n = lp->n;
  if (lp->pricing && (lp->pricing->nm != n + m || lp->pricing->mAlloc != m ||
                      lp->pricing->slotCap < n + m + 1 + (lp->pwl ? lp->pwl->segs : 0)))
    VRXdualpriceFree(lp);
  // Weights are the record's own only after a run prepared it (stored norms may have made it).
  const bool fresh = lp->pricing == nullptr || !lp->pricing->prepared;
  if (!lp->pricing) {
    int rc = allocPricing(lp);
    if (rc) return rc;
  }
  VRXdualprice* pr = lp->pricing;
  if (work) *work += 5.0 * (n + m) * lp->workFactor;

  // A run that stopped early may have left its objective scale on.
  if (lp->quadMode)
    vrx::dual::dualObjectiveUnscale<long double>(lp);
  else
    vrx::dual::dualObjectiveUnscale<double>(lp);
  vrx::dual::dualClearShifts(lp);
  lp->smallPivotCount = 0;
  lp->smallPivotVar = -1;
  lp->bestDualObj = -vrx::kInf;
  lp->dualObjValid = 0;
  lp->boxCount = 0;
  lp->boxedFlag = 0;
  lp->pwRatio = par.VORN_PAR_SIMPLEXPWRATIO;
  lp->phase = 0;
  lp->leaveRow = -1;
  lp->enterVar = -1;
  lp->cycleVar = -1;
  lp->cycleGap = 0;
  lp->cycleHits = 0;
  lp->degenPivots = 0;

  if (lp->dualSwitch >= 2 && lp->perturbCur > 1e-7) lp->perturbCur = std::max(1e-7, lp->perturbCur / 20.0);
  if (lp->dualSwitch == -1) {
    lp->dualSwitch = 0;
    lp->perturbCur = 0.0;
    lp->switchBudget = 1;
  } else {
    lp->switchBudget = 1000000000;
  }

  // Weights of the pricing merit.
  const double d = n > 0 ? static_cast<double>(lp->nnz) / n : 1.0;
  const int na = par.NormAdjust;
  if (na == -1) {
    const bool off = m < 100 || n < 100 ||
                     (static_cast<double>(lp->nnz) > 20.0 * n &&
                      10.0 * static_cast<double>(n) * n < static_cast<double>(m) * static_cast<double>(lp->nnz));
    // The automatic choice leaves the column weights out: on the public benchmark they cost
    // about a sixth more iterations than the steepest-edge merit alone.
    (void)off;
    pr->weightMode = 0;
    pr->fullPricing = (startStatus != 0 || (m > 10000 && 100.0 * m < n)) ? 1 : 0;
  } else {
    pr->weightMode = (na == 2 || na == 3) ? 1 : 0;
    pr->fullPricing = (na == 0 || na == 2) ? 1 : 0;
  }
  for (int j = 0; j < n; j++) pr->colWeight[j] = lp->colLen[j] + d;
  for (int j = n; j < n + m; j++) pr->colWeight[j] = 1.0 + d;
  for (int p = 0; p < m; p++) pr->rowWeight[p] = 1.0 + d;
  pr->listLen = std::max(20, std::min(m, lp->refactorLimit));
  if (pr->fullPricing) pr->listLen = std::min(pr->listLen, std::max(20, static_cast<int>(std::pow(std::max(m, 1), 0.65))));
  pr->candCount = 0;
  pr->threshold = 1e300;
  pr->scanBudget = 0;
  pr->ftranDensity = 0.0;
  pr->rowNum = pr->normNum = 0.0;

  // Pricing mode and the start weights: stored norms of the start (loadKind 3), exact ones,
  // or unit weights against the start basis as reference.
  lp->priceMode = lp->priceChoice >= 0 ? lp->priceChoice : 1;
  bool allSlack = true;
  for (int j = 0; j < n && allSlack; j++) allSlack = lp->varStat[j] < 0;
  const bool stored = lp->loadKind == 3 && pr->storedValid;
  if (lp->priceMode == 1 && !allSlack && lp->exactNorm != 1 && !stored && (fresh || lp->normsStale)) {
    const bool keep = lp->exactNorm == -1 && n > 100.0 * m && n > 0.1 * static_cast<double>(m) * m;
    if (!keep) lp->priceMode = 3;
  }
  pr->needExactNorms = lp->priceMode == 1 && !allSlack && !stored && (fresh || lp->normsStale) && lp->exactNorm == 1;
  if (stored && (lp->priceMode == 1 || lp->priceMode == 3)) {
    for (int j = 0; j < n + m; j++)
      if (lp->varStat[j] >= 0 && lp->varStat[j] < m) pr->dualNorm[lp->varStat[j]] = pr->storedNorm[j];
    pr->updatesSinceNorm = 0;
    lp->normsStale = 0;
  } else if (fresh || lp->normsStale || lp->priceMode == 0) {
    vrx::dual::dualResetNorms(lp);
  }
  // The stored norms serve this start only.
  if (lp->loadKind == 3) lp->loadKind = 2;
  pr->storedValid = 0;
  if (lp->priceMode == 2 || lp->priceMode == 3) vrx::dual::dualMarkReference(lp);

  pr->lo = lp->lower;
  pr->up = lp->upper;
  pr->boxPhase = 0;
  pr->boundsMoved = 1;  // a warm start may come with other bounds
  pr->flipCount = 0;
  pr->freshFactor = 0;
  pr->shiftsInForce = 0;
  pr->noPerturb = 0;
  pr->noRescue = 0;
  pr->cleanupRounds = 0;
  pr->smallPivotRejects = 0;
  pr->acceptSmall = 0;
  pr->infeasFlips = 0;
  pr->harrisTol = lp->optTol;
  pr->lastTestIter = lp->iterCount;
  pr->lastTestDegen = 0;
  pr->dualInfeasible = 0;
  pr->atStart = 1;
  pr->seedBase = static_cast<uint64_t>(par.Seed) * 1000003u + 12345u;
  sanitizeStatuses(lp);
  std::memset(lp->rowFlag, 0, static_cast<size_t>(m));
  if (lp->actionCode == 0) lp->actionCode = 1;
  pr->prepared = 1;
  return 0;
}

#define VRX_DUAL_COMPUTE_INST(T)                                                   \
  template int vrx::dual::dualExactNorms<T>(VRXlp*, vrx::Clock&);                 \
  template double vrx::dual::dualComputeBbar<T>(VRXlp*, vrx::Clock&, bool);       \
  template void vrx::dual::dualComputeCbar<T>(VRXlp*, vrx::Clock&);               \
  template void vrx::dual::dualScoreOne<T>(VRXlp*, int);                          \
  template void vrx::dual::dualRefreshInfeas<T>(VRXlp*);                          \
  template void vrx::dual::dualObjective<T>(VRXlp*);                              \
  template void vrx::dual::dualInfeasSums<T>(VRXlp*);                             \
  template void vrx::dual::dualBoxEnter<T>(VRXlp*);                               \
  template void vrx::dual::dualBoxLeave<T>(VRXlp*);                               \
  template void vrx::dual::dualPerturb<T>(VRXlp*);                                \
  template void vrx::dual::dualObjectiveScale<T>(VRXlp*, double);                 \
  template void vrx::dual::dualObjectiveUnscale<T>(VRXlp*);                       \
  template int vrx::dual::VRXdualCompute<T>(VRXlp*, vrx::Clock&);                \
  template int vrx::dual::dualCountDualInfeas<T>(VRXlp*, bool, double*);
VRX_DUAL_COMPUTE_INST(double)
VRX_DUAL_COMPUTE_INST(long double)
