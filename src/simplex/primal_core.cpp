// The primal loop's recomputations: refactor, basic values, reduced costs, row products.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "simplex/primal_impl.h"

namespace vrx {
namespace primal {

namespace {

// Markowitz floors of the residual table: the first row that holds wins.
double markowitzFloorFromResidual(double growth, double resid) {
  if (growth > 1e10 || resid > 1e-8) return 0.5;
  if (growth > 1e9 || resid > 4e-9) return 0.25;
  if (growth > 1e8 || resid > 1e-9) return 0.125;
  if (growth > 1e7 || resid > 4e-10) return 0.0625;
  if (growth > 1e6 || resid > 1e-10) return 0.03125;
  return 0.0001;
}

double markowitzFloorFromDualDrift(double v) {
  if (v > 1) return 0.5;
  if (v > 0.1) return 0.25;
  if (v > 0.01) return 0.125;
  if (v > 0.001) return 0.0625;
  if (v > 0.0001) return 0.03125;
  return 0.0001;
}

void raiseMarkowitz(VRXlp* lp, double floor) {
  if (floor <= lp->markowitzTol) return;
  lp->markowitzTol = std::min(floor, 0.9);
  log(lp->env, "Warning: Markowitz tolerance tightened to %g\n", lp->markowitzTol);
}

// Sanitises a nonbasic status so that the value it stands for is a point of the bounds.
template <class T>
void fitStatus(Ctx<T>& c, int j) {
  int s = c.lp->varStat[j];
  if (s >= 0) return;
  const bool lf = c.loFinite(j), uf = c.upFinite(j);
  if (s == VRX_VS_LOWER && !lf) s = uf ? VRX_VS_UPPER : VRX_VS_FREE;
  else if (s == VRX_VS_UPPER && !uf) s = lf ? VRX_VS_LOWER : VRX_VS_FREE;
  else if (s == VRX_VS_FREE && (lf || uf)) {
    // A superbasic stays where its start value puts it, inside the bounds.
    const double v = c.lp->warmStart ? c.lp->warmStart[j] : 0.0;
    if (lf && v <= c.pp->lo[j]) s = VRX_VS_LOWER;
    else if (uf && v >= c.pp->up[j]) s = VRX_VS_UPPER;
  }
  c.lp->varStat[j] = s;
}

}  // namespace

template <class T>
Ctx<T> makeCtx(VRXlp* lp, Clock& clock) {
  constexpr bool dbl = std::is_same<T, double>::value;
  Ctx<T> c{};
  c.lp = lp;
  c.pp = lp->primal;
  c.env = lp->env;
  c.clock = &clock;
  c.n = lp->n;
  c.m = lp->m;
  c.nm = lp->n + lp->m;
  c.inf = lp->infBound;
  c.pw = lp->pwl;
  // The record keeps one set of work vectors per arithmetic.
  if constexpr (dbl) {
    c.x = lp->Bbar;
    c.d = lp->Cbar;
    c.col = &lp->alphaCol;
    c.row = &lp->alphaRow;
    c.rho = &lp->rho;
    c.s1 = &lp->scratch1;
    c.s2 = &lp->scratch2;
    c.f = lp->factor;
  } else {
    c.x = lp->BbarQ;
    c.d = lp->CbarQ;
    c.col = &lp->alphaColQ;
    c.row = &lp->alphaRowQ;
    c.rho = &lp->rhoQ;
    c.s1 = &lp->scratch1Q;
    c.s2 = &lp->scratch2Q;
    c.f = lp->factorQ;
  }
  c.A = lpFactorMatrix(lp);
  c.y = static_cast<decltype(c.y)>(c.pp->yWork);
  c.q = -1;
  c.r = -1;
  return c;
}

template Ctx<double> makeCtx<double>(VRXlp*, Clock&);
template Ctx<long double> makeCtx<long double>(VRXlp*, Clock&);

template <class T>
void makeSparse(VRXsvecT<T>* v, int dim) {
  if (v->count >= 0) return;
  int cnt = 0;
  for (int i = 0; i < dim; i++)
    if (v->value[i] != T(0)) v->index[cnt++] = i;
  v->count = cnt;
}

template <class T>
void restoreBounds(Ctx<T>& c) {
  const size_t bytes = sizeof(double) * static_cast<size_t>(c.nm);
  std::memcpy(c.pp->lo, c.lp->lower, bytes);
  std::memcpy(c.pp->up, c.lp->upper, bytes);
  c.pp->shiftCount = 0;
}

template <class T>
double objectiveValue(const Ctx<T>& c) {
  const VRXlp* lp = c.lp;
  T s = T(0);
  for (int j = 0; j < c.nm; j++) {
    const double cj = c.trueCost(j);
    if (cj == 0.0) continue;
    const int st = lp->varStat[j];
    s += T(cj) * (st >= 0 ? c.x[st] : T(c.nbValue(j)));
  }
  // Piecewise terms: cost times x is the slope part, the segments' intercepts the rest.
  if (c.pw && !lp->zeroObjectiveMode) s += T(pwlIntercepts(lp));
  return static_cast<double>(s);
}

template <class T>
void rowProduct(Ctx<T>& c, VRXsvecT<T>* w, VRXsvecT<T>* out, const VRXsvecT<T>* w2, T* out2) {
  VRXlp* lp = c.lp;
  const int n = c.n, m = c.m;
  const T drop = T(lp->zeroTol);
  const T tiny = T(1e-100);
  svecClear(out, c.nm + 1);
  int64_t touched = 0;
  bool sparse = w->count >= 0;
  if (sparse) {
    for (int k = 0; k < w->count; k++) touched += lp->activeRowLen[w->index[k]];
    sparse = static_cast<double>(touched) < 0.4 * static_cast<double>(lp->nnz) + m;
  }
  int cnt = 0;
  T* ov = out->value;
  int* oi = out->index;
  const T* w2v = w2 ? w2->value : nullptr;
  if (sparse) {
    for (int k = 0; k < w->count; k++) {
      const int i = w->index[k];
      const T wi = w->value[i];
      const int64_t b = lp->rowBeg[i], e = b + lp->activeRowLen[i];
      for (int64_t s = b; s < e; s++) {
        const int j = lp->activeColInd[s];
        T v = ov[j];
        if (v == T(0)) oi[cnt++] = j;
        v += wi * T(lp->activeRowVal[s]);
        ov[j] = v == T(0) ? tiny : v;
      }
      if (lp->varStat[n + i] < 0) {
        ov[n + i] = wi;
        oi[cnt++] = n + i;
      }
    }
    // Drop what cancelled.
    int kept = 0;
    int64_t dots = 0;
    for (int k = 0; k < cnt; k++) {
      const int j = oi[k];
      if (absT(ov[j]) <= drop) {
        ov[j] = T(0);
        continue;
      }
      oi[kept++] = j;
      if (!w2v) continue;
      if (j < n) {
        T s2 = T(0);
        for (int64_t e = lp->colBeg[j], ee = lp->colBeg[j] + lp->colLen[j]; e < ee; e++)
          s2 += T(lp->val[e]) * w2v[lp->rowInd[e]];
        out2[j] = s2;
        dots += lp->colLen[j];
      } else {
        out2[j] = w2v[j - n];
      }
    }
    cnt = kept;
    clockCharge(*c.clock, (5.0 * w->count + 2.5 * static_cast<double>(touched) + 2.0 * dots) *
                              lp->workFactor * 1e-3);
  } else {
    const T* wv = w->value;
    const int* st = lp->varStat;
    const int64_t* cb = lp->colBeg;
    const int* cl = lp->colLen;
    const int* ri = lp->rowInd;
    const double* va = lp->val;
    for (int j = 0; j < n; j++) {
      if (st[j] >= 0) continue;
      const int64_t b = cb[j], e = b + cl[j];
      if (w2v) {
        T s = T(0), s2 = T(0);
        for (int64_t k = b; k < e; k++) {
          const T a = T(va[k]);
          s += wv[ri[k]] * a;
          s2 += w2v[ri[k]] * a;
        }
        if (absT(s) > drop) {
          ov[j] = s;
          oi[cnt++] = j;
          out2[j] = s2;
        }
      } else {
        T s = T(0);
        for (int64_t k = b; k < e; k++) s += wv[ri[k]] * T(va[k]);
        if (absT(s) > drop) {
          ov[j] = s;
          oi[cnt++] = j;
        }
      }
    }
    for (int i = 0; i < m; i++) {
      if (st[n + i] < 0 && absT(wv[i]) > drop) {
        ov[n + i] = wv[i];
        oi[cnt++] = n + i;
        if (w2v) out2[n + i] = w2v[i];
      }
    }
    clockCharge(*c.clock, (3.0 * m + (w2v ? 3.0 : 2.0) * static_cast<double>(lp->nnz) + n) * lp->workFactor * 1e-3);
  }
  out->count = cnt;
}

template <class T>
int computePrimal(Ctx<T>& c, bool measure) {
  VRXlp* lp = c.lp;
  const int n = c.n, m = c.m;
  VRXsvecT<T>* in = c.s1;
  VRXsvecT<T>* out = c.s2;
  svecClear(in, c.nm + 1);
  T* rv = in->value;
  for (int i = 0; i < m; i++) rv[i] = T(lp->rhs[i]);
  for (int j = 0; j < n; j++) {
    if (lp->varStat[j] >= 0) continue;
    const double v = c.nbValue(j);
    if (v == 0.0) continue;
    const T tv = T(v);
    for (int64_t k = lp->colBeg[j], e = lp->colBeg[j] + lp->colLen[j]; k < e; k++)
      rv[lp->rowInd[k]] -= T(lp->val[k]) * tv;
  }
  for (int i = 0; i < m; i++)
    if (lp->varStat[n + i] < 0) rv[i] -= T(c.nbValue(n + i));
  in->count = -1;
  int rc = VRXftran(c.f, in, out, 0, 1, &c.clock->work);
  svecClear(in, m);
  if (rc) return rc;
  clockCharge(*c.clock, static_cast<double>(lp->nnz) * lp->workFactor * 1e-3);

  T resid = T(0), xmaxOld = T(0), xmaxNew = T(0);
  for (int p = 0; p < m; p++) {
    const T xn = out->value[p];
    if (measure) {
      resid = std::max(resid, absT(xn - c.x[p]));
      xmaxOld = std::max(xmaxOld, absT(c.x[p]));
    }
    xmaxNew = std::max(xmaxNew, absT(xn));
    c.x[p] = xn;
  }
  svecClear(out, m);

  int cnt = 0;
  T sum = T(0), mx = T(0);
  c.segMoves = 0;
  for (int p = 0; p < m; p++) {
    const int j = c.f->basisHead[p];
    if (c.holdSegment(p)) c.segMoves++;
    const char cls = c.classify(c.x[p], j);
    lp->rowFlag[p] = cls;
    if (cls == kBelow) {
      const T v = T(c.pp->lo[j]) - c.x[p];
      cnt++;
      sum += v;
      mx = std::max(mx, v);
    } else if (cls == kAbove) {
      const T v = c.x[p] - T(c.pp->up[j]);
      cnt++;
      sum += v;
      mx = std::max(mx, v);
    }
  }
  lp->infeasCount = cnt;
  c.pp->sumInfeas = static_cast<double>(sum);
  c.pp->maxInfeas = static_cast<double>(mx);
  if (!std::isfinite(c.pp->sumInfeas) || !std::isfinite(static_cast<double>(xmaxNew))) {
    lp->status = 12;
    return 0;
  }
  if (measure && xmaxOld > T(0)) {
    const double rel = static_cast<double>(resid / std::max(T(1), xmaxOld));
    c.pp->lastResidual = rel;
    raiseMarkowitz(lp, markowitzFloorFromResidual(1.0, rel));
  }
  return 0;
}

template <class T>
int computeDual(Ctx<T>& c, bool measure) {
  VRXlp* lp = c.lp;
  const int n = c.n, m = c.m;
  VRXsvecT<T>* in = c.s1;
  VRXsvecT<T>* out = c.s2;
  svecClear(in, c.nm + 1);
  int cnt = 0;
  for (int p = 0; p < m; p++) {
    const double cb = c.phaseCostBasic(p);
    if (cb != 0.0) {
      in->value[p] = T(cb);
      in->index[cnt++] = p;
    }
  }
  in->count = cnt;
  int rc = 0;
  if (cnt > 0) {
    rc = VRXbtran(c.f, in, out, 1, &c.clock->work);
    svecClear(in, m);
    if (rc) return rc;
  } else {
    svecClear(out, c.nm + 1);
  }
  const T* y = out->value;
  T drift = T(0);
  for (int j = 0; j < n; j++) {
    if (lp->varStat[j] >= 0) {
      c.d[j] = T(0);
      continue;
    }
    T s = T(c.phaseCostNonbasic(j));
    for (int64_t k = lp->colBeg[j], e = lp->colBeg[j] + lp->colLen[j]; k < e; k++)
      s -= y[lp->rowInd[k]] * T(lp->val[k]);
    if (measure) drift = std::max(drift, absT(s - c.d[j]));
    c.d[j] = s;
  }
  for (int i = 0; i < m; i++) {
    if (measure && lp->varStat[n + i] < 0)
      drift = std::max(drift, absT(T(c.phaseCostNonbasic(n + i)) - y[i] - c.d[n + i]));
    c.d[n + i] = lp->varStat[n + i] >= 0 ? T(0) : T(c.phaseCostNonbasic(n + i)) - y[i];
    c.pp->y[i] = static_cast<double>(y[i]);
    c.y[i] = y[i];
  }
  svecClear(out, m);
  c.pp->listStale = 1;
  // Updated reduced costs that drifted from the recomputed ones call for sounder pivots.
  if (measure) raiseMarkowitz(lp, markowitzFloorFromDualDrift(static_cast<double>(drift) / c.pp->costMax));
  clockCharge(*c.clock, static_cast<double>(lp->nnz) * lp->workFactor * 1e-3);
  return 0;
}

template <class T>
void releaseTurnedAway(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  if (lp->awayFreeCount == 0) return;
  char* mark = c.pp->mark;
  for (int k = 0; k < lp->fixedCount; k++) mark[lp->fixedList[k]] = 1;
  for (int j = 0; j < c.nm; j++)
    if (lp->varStat[j] == VRX_VS_FIX_FREE && !mark[j]) lp->varStat[j] = VRX_VS_FREE;
  for (int k = 0; k < lp->fixedCount; k++) mark[lp->fixedList[k]] = 0;
  lp->awayFreeCount = 0;
  c.pp->listStale = 1;
}

template <class T>
void discardStart(Ctx<T>& c);

// Each nonbasic term column goes to the break point where its phase-2 reduced cost turns
// from negative to non-negative (the end of an open segment when it never does); its cost
// and reduced cost follow, the basic values do not. Returns the number moved.
template <class T>
int settleTerms(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXpwlobj* w = c.pw;
  int moved = 0;
  for (int t = 0; t < w->terms; t++) {
    const int j = w->col[t], st = lp->varStat[j];
    if (st != VRX_VS_LOWER && st != VRX_VS_UPPER) continue;
    const int b = w->beg[t], e = w->beg[t + 1], cur = w->seg[t];
    const T base = c.d[j] - T(w->slope[cur]);  // -y'a_j
    int s = b;
    while (s < e && base + T(w->slope[s]) < T(0)) s++;
    int ns;
    if (s < e) {
      ns = w->left[s] > -kInf ? VRX_VS_LOWER : VRX_VS_UPPER;
    } else {
      s = e - 1;
      ns = w->right[s] < kInf ? VRX_VS_UPPER : VRX_VS_LOWER;
    }
    if (s == cur && ns == st) continue;
    pwlSetSegment(lp, t, s);
    c.pp->lo[j] = lp->lower[j];
    c.pp->up[j] = lp->upper[j];
    lp->varStat[j] = ns;
    c.d[j] = base + T(w->slope[s]);
    moved++;
  }
  return moved;
}

template <class T>
int refactorAndCompute(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  const int m = c.m;
  int* saved = lp->candidateBuf;
  std::memcpy(saved, c.f->basisHead, sizeof(int) * static_cast<size_t>(m));
  const bool hadFactor = c.f->valid != 0;
  const int reason = lp->actionCode;

  VRXfactorCtl ctl;
  lpFactorCtlLoad(lp, &ctl);
  int rc = VRXfactorRefactor(c.f, &c.A, c.f->basisHead, &ctl, &c.clock->work);
  lpFactorCtlStore(lp, &ctl);
  if (rc == 12) {
    lp->status = 12;
    return 0;
  }
  if (rc) return rc;
  if (lp->status != 1) return 0;

  // A repair swapped dropped columns for slacks: the dropped ones are nonbasic now.
  bool repaired = false;
  for (int p = 0; p < m; p++) {
    const int old = saved[p];
    if (c.f->basisHead[p] == old) continue;
    repaired = true;
    if (old < c.n) VRXlpRowSwap(lp, old, +1, 1.0);
    int s = lp->varStat[old];
    if (s == VRX_VS_FREE || s == VRX_VS_LOWER) fitStatus(c, old);
    pp->weights[old] = 1.0;
  }
  lp->actionCode = 0;
  pp->pivotsSinceFactor = 0;

  // Columns turned away for a small pivot get another chance with the new factor.
  for (int k = 0; k < lp->tmpFixCount; k++) {
    const int j = lp->tmpFixList[k];
    if (lp->varStat[j] < -6) lp->varStat[j] += VRX_VS_REJECT_SHIFT;
  }
  lp->tmpFixCount = 0;
  if (lp->smallPivotCount > 0) lp->smallPivotCount = 0;
  lp->smallPivotVar = -1;
  lp->smallPivotBest = 0.0;

  // A refactor that only the update count or the fill asked for keeps the updated values;
  // every fifth one recomputes them and checks the residual.
  const bool routine = (reason == 2 || reason == 10 || reason == 11) && !repaired && pp->phase != 0 &&
                       lp->refactorCount % 5 != 0;
  if (routine) {
    pp->confirmed = 0;
    return 0;
  }
  rc = computePrimal(c, hadFactor && !repaired);
  if (rc) return rc;
  if (pp->firstCompute) {
    pp->firstCompute = 0;
    // A start crushed from another solve that makes no sense at all is dropped for slacks.
    if (lp->loadKind == 1 && lp->iterCount == 0 && (lp->status == 12 || pp->maxInfeas > 1e30)) {
      lp->status = 1;
      discardStart(c);
      return 0;
    }
  }
  if (lp->status != 1) return 0;
  if (lp->infeasCount == 0 && lp->priceMode != 0 && lp->dualSwitch > 10 && lp->perturbKind == 0)
    pp->acceptLoose = 1;
  const int newPhase = lp->infeasCount > 0 ? 1 : 2;
  const bool sameCosts = newPhase == 2 && pp->phase == 2 && hadFactor && !repaired && lp->priceMode != 0 &&
                         (reason == 2 || reason == 10 || reason == 11) && c.segMoves == 0;
  if (newPhase == 2 && pp->phase != 2) releaseTurnedAway(c);
  pp->phase = newPhase;
  rc = computeDual(c, sameCosts);
  if (rc) return rc;
  if (c.pw && !pp->termsSettled) {
    // A loaded basis names no break point for a term's column inside its range: at a
    // feasible start each goes where its reduced cost asks, before the first iteration.
    pp->termsSettled = 1;
    const bool place = c.pw->unplaced && lp->iterCount == 0;
    c.pw->unplaced = 0;
    if (place && pp->phase == 2 && !lp->zeroObjectiveMode && settleTerms(c) > 0) {
      lp->actionCode = 9;
      return 0;
    }
  }
  pp->confirmed = 1;
  if (pp->acceptLoose) {
    // After many switches between the loops the primal accepts a small dual infeasibility.
    pp->acceptLoose = 0;
    T worst = T(0);
    for (int j = 0; j < c.nm; j++) {
      const int s = lp->varStat[j];
      if (s >= 0 || s < VRX_VS_FREE || lp->lower[j] == lp->upper[j]) continue;
      const T dj = c.d[j];
      const T v = s == VRX_VS_LOWER ? -dj : (s == VRX_VS_UPPER ? dj : absT(dj));
      worst = std::max(worst, v);
    }
    const VRXenv* env = lp->env;
    const double limit =
        std::min(1e-4, 10.0 * env->par.OptimalityTol) * (lp->dualSwitch > 20 ? 100.0 : 1.0);
    const double loose = static_cast<double>(worst) + 1e-10;
    if (loose < limit) pp->priceTol = std::max(pp->priceTol, loose);
  }
  return 0;
}

template <class T>
void discardStart(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  const int n = c.n, m = c.m;
  for (int j = 0; j < n; j++) {
    if (lp->varStat[j] < 0) continue;
    lp->varStat[j] = c.loFinite(j) ? VRX_VS_LOWER : (c.upFinite(j) ? VRX_VS_UPPER : VRX_VS_FREE);
    if (lp->lower[j] == lp->upper[j]) lp->varStat[j] = VRX_VS_FIX_LOWER;
  }
  for (int i = 0; i < m; i++) {
    lp->varStat[n + i] = i;
    c.f->basisHead[i] = n + i;
  }
  c.f->valid = 0;
  lpActiveRebuild(lp);
  lp->markowitzTol = std::max(lp->markowitzTol, 0.5);
  lp->iterCount += 1;
  lp->actionCode = 1;
  lp->leaveRow = -1;
  log(c.env, "Warning: Primal crushed basis discarded.\n");
}

#define VRX_PRIMAL_CORE_INST(T)                                         \
  template void makeSparse<T>(VRXsvecT<T>*, int);                       \
  template void restoreBounds<T>(Ctx<T>&);                              \
  template double objectiveValue<T>(const Ctx<T>&);                     \
  template void rowProduct<T>(Ctx<T>&, VRXsvecT<T>*, VRXsvecT<T>*, const VRXsvecT<T>*, T*);     \
  template int computePrimal<T>(Ctx<T>&, bool);                         \
  template int computeDual<T>(Ctx<T>&, bool);                                 \
  template int refactorAndCompute<T>(Ctx<T>&);                          \
  template void releaseTurnedAway<T>(Ctx<T>&);                          \
  template void discardStart<T>(Ctx<T>&);
VRX_PRIMAL_CORE_INST(double)
VRX_PRIMAL_CORE_INST(long double)
#undef VRX_PRIMAL_CORE_INST

}  // namespace primal
}  // namespace vrx
