// The primal simplex loop: start, iteration, clean-up, and the record's life.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "model/callback.h"
#include "simplex/primal_impl.h"
#include "simplex/dual.h"
#include "simplex/simplex.h"
#include "simplex/spxlog.h"

namespace vrx {
namespace primal {

namespace {

template <class P>
bool alloc(VRXenv* env, P*& p, size_t count) {
  if (p) return true;
  p = envCallocArray<P>(env, count ? count : 1);
  return p != nullptr;
}

int createRecord(VRXlp* lp) {
  VRXenv* env = lp->env;
  const size_t nm = static_cast<size_t>(lp->n) + static_cast<size_t>(lp->m);
  const size_t bps = 2 * static_cast<size_t>(lp->m) + 2;
  VRXprimalprice* pp = lp->primal;
  if (pp && pp->nm != static_cast<int>(nm)) VRXprimalFree(lp);
  pp = lp->primal;
  if (!pp) {
    pp = envCallocArray<VRXprimalprice>(env, 1);
    if (!pp) return VRX_ERROR_OUT_OF_MEMORY;
    lp->primal = pp;
    pp->nm = static_cast<int>(nm);
  }
  bool ok = alloc(env, pp->weights, nm);
  ok = ok && alloc(env, pp->y, static_cast<size_t>(lp->m));
  ok = ok && alloc(env, pp->candList, bps);
  ok = ok && alloc(env, pp->costWork, bps);
  ok = ok && alloc(env, pp->bpGain, bps);
  ok = ok && alloc(env, pp->bpRow, bps);
  ok = ok && alloc(env, pp->lo, nm);
  ok = ok && alloc(env, pp->up, nm);
  ok = ok && alloc(env, pp->mark, nm);
  ok = ok && alloc(env, pp->ray, nm);
  ok = ok && alloc(env, pp->vxList, nm);
  ok = ok && alloc(env, pp->hotList, 64);
  if (ok && !pp->infPos) {
    ok = alloc(env, pp->infPos, nm) && alloc(env, pp->infList, nm);
    if (ok)
      for (size_t j = 0; j < nm; j++) pp->infPos[j] = -1;
    pp->infCount = 0;
  }
  if (ok && !pp->yWork) {
    pp->yWork = envCalloc(env, static_cast<size_t>(lp->m) + 1, sizeof(long double));
    ok = pp->yWork != nullptr;
  }
  if (!ok) {
    VRXprimalFree(lp);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  return 0;
}

// Status fit for the primal: no rejection marks, and each code a point of the bounds.
void sanitizeStatuses(VRXlp* lp) {
  const int nm = lp->n + lp->m;
  const double inf = lp->infBound;
  for (int j = 0; j < nm; j++) {
    int s = lp->varStat[j];
    if (s >= 0) continue;
    if (s < -6) s += VRX_VS_REJECT_SHIFT;
    const bool lf = lp->lower[j] > -inf, uf = lp->upper[j] < inf;
    if (s == VRX_VS_LOWER && !lf) s = uf ? VRX_VS_UPPER : VRX_VS_FREE;
    else if (s == VRX_VS_UPPER && !uf) s = lf ? VRX_VS_LOWER : VRX_VS_FREE;
    else if (s == VRX_VS_FREE && (lf || uf)) {
      const double v = lp->warmStart ? lp->warmStart[j] : 0.0;
      if (lf && v <= lp->lower[j]) s = VRX_VS_LOWER;
      else if (uf && v >= lp->upper[j]) s = VRX_VS_UPPER;
    } else if (s == VRX_VS_FIX_LOWER && !lf) {
      s = uf ? VRX_VS_FIX_UPPER : VRX_VS_FIX_FREE;
    } else if (s == VRX_VS_FIX_UPPER && !uf) {
      s = lf ? VRX_VS_FIX_LOWER : VRX_VS_FIX_FREE;
    }
    lp->varStat[j] = s;
  }
}

int chooseMode(const VRXlp* lp) {
  if (lp->fixedCount > 0) return 0;
  if (lp->priceChoice >= 0) return lp->priceChoice == 3 ? 1 : lp->priceChoice;
  if (lp->startedFromCrush) {
    if (lp->rescueCount > 0) return 1;
    return lp->n >= 3 * lp->m ? 0 : 2;
  }
  // Steepest edge: on the Netlib set it takes a half to a third of the iterations of
  // devex and a tenth of those of partial Dantzig pricing, for a modest cost per iteration.
  return 1;
}

// ---------------------------------------------------------------- limits and log

template <class T>
double progressObjective(const Ctx<T>& c) {
  const VRXlp* lp = c.lp;
  return lp->sense * (objectiveValue(c) / lp->objScale + lp->objConst);
}

// Sums of the primal and dual infeasibilities of the current point, solver units.
template <class T>
void infeasSums(const Ctx<T>& c, double* primalInf, double* dualInf) {
  const VRXlp* lp = c.lp;
  T ps = T(0), ds = T(0);
  for (int p = 0; p < c.m; p++) {
    const int j = c.f->basisHead[p];
    if (c.loFinite(j) && c.x[p] < T(lp->lower[j])) ps += T(lp->lower[j]) - c.x[p];
    if (c.upFinite(j) && c.x[p] > T(lp->upper[j])) ps += c.x[p] - T(lp->upper[j]);
  }
  if (c.pp->phase == 2) {
    for (int j = 0; j < c.nm; j++) {
      const int s = lp->varStat[j];
      if (s >= 0 || s < VRX_VS_FREE) continue;
      const T dj = lp->priceMode == 0 ? c.freshD(j) : c.d[j];
      if (s == VRX_VS_LOWER && dj < T(0)) ds -= dj;
      else if (s == VRX_VS_UPPER && dj > T(0)) ds += dj;
      else if (s == VRX_VS_FREE) ds += absT(dj);
    }
  }
  *primalInf = static_cast<double>(ps);
  *dualInf = static_cast<double>(ds);
}

// Polls the terminate flag, the limits and the callback, and prints the iteration line.
// Returns an error code of the callback or 0; a status other than 1 ends the loop.
template <class T>
int pollLimits(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXenv* env = c.env;
  if (lp->iterCount + lp->priorIter >= lp->iterLimit) {
    lp->status = 7;
    return 0;
  }
  if (env->terminateFlagRef && *env->terminateFlagRef) {
    lp->status = 11;
    lp->wasInterrupted = 1;
    return 0;
  }
  if ((env->par.TimeLimit < kInf && clockElapsed(*c.clock) >= env->par.TimeLimit) ||
      c.clock->work >= env->par.VORN_PAR_VTIMELIMIT) {
    lp->status = 9;
    return 0;
  }
  int rc = env->cbFunc ? callbackFrame(env, VRX_CB_POLLING, nullptr) : 0;
  const double step = lp->iterLogStep > 0 ? lp->iterLogStep : 100.0;
  const double iter = lp->iterCount + lp->priorIter;
  if (!rc && iter - c.pp->lastLogAt >= step && (lp->outputLevel >= 0 || env->cbFunc)) {
    c.pp->lastLogAt = iter;
    double pinf = 0, dinf = 0;
    infeasSums(c, &pinf, &dinf);
    const double obj = progressObjective(c);
    VRXspxLogLine(lp, obj, pinf, dinf, *c.clock);
    if (env->cbFunc) {
      VRXcbprogress prog{};
      prog.spxIter = iter;
      prog.spxObj = obj;
      prog.spxPrimInf = pinf;
      prog.spxDualInf = dinf;
      prog.spxPerturbed = lp->perturbKind > 0 ? (c.pp->shiftCount > 0 ? 2 : 1) : 0;
      rc = callbackFrame(env, VRX_CB_SIMPLEX, &prog);
    }
  }
  if (rc) {
    lp->status = 11;
    lp->wasInterrupted = 1;
    return rc;
  }
  return 0;
}

// ---------------------------------------------------------------- perturbation

// The same entering variable coming back at a fixed gap again and again is taken for a cycle.
void cycleCheck(VRXlp* lp, int enter) {
  const double it = lp->iterCount;
  if (enter == lp->cycleVar) {
    const int gap = static_cast<int>(it - lp->cycleIter);
    if (lp->cycleGap > 0 && gap > 0 && gap % lp->cycleGap == 0)
      lp->cycleHits++;
    else
      lp->cycleGap = gap;
    lp->cycleIter = it;
  } else if (lp->cycleVar < 0 || it - lp->cycleIter > lp->m) {
    lp->cycleVar = enter;
    lp->cycleIter = it;
    lp->cycleGap = 0;
    lp->cycleHits = 0;
  }
}

// With force the degeneracy test is skipped (a cycle was seen).
template <class T>
void maybePerturb(Ctx<T>& c, bool force = false) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  if (pp->noPerturb || lp->fixedCount > 0 || lp->perturbBase <= 0.0) return;
  if (!force) {
    if (lp->refactorCount % (lp->perturbKind + 2) != 1) return;
    if (!(lp->dualSwitch < 3 || lp->perturbKind < 2)) return;
    const double iters = lp->iterCount - pp->lastCheckIter;
    const int degen = lp->degenPivots - pp->lastCheckDegen;
    pp->lastCheckIter = lp->iterCount;
    pp->lastCheckDegen = lp->degenPivots;
    if (!(iters > 0 && degen > 0.9 * iters)) return;
  }

  // Basics sitting on a bound get room: the bound moves away by perturbBase to twice that.
  Random rnd;
  randomSeed(rnd, static_cast<uint64_t>(lp->iterCount));
  const int m = c.m;
  const T tol = T(lp->feasTol);
  int moved = 0;
  for (int p = 0; p < m; p++) {
    const int j = c.f->basisHead[p];
    const T v = c.x[p];
    const double amount = ((randomNext(rnd) % static_cast<uint32_t>(m)) + m) * lp->perturbBase / m;
    if (c.upFinite(j) && absT(v - T(pp->up[j])) <= tol && pp->up[j] > pp->lo[j]) {
      if (pp->up[j] == lp->upper[j]) pp->shiftCount++;
      pp->up[j] = static_cast<double>(std::max(T(pp->up[j]), v)) + amount;
      moved++;
    } else if (c.loFinite(j) && absT(v - T(pp->lo[j])) <= tol && pp->up[j] > pp->lo[j]) {
      if (pp->lo[j] == lp->lower[j]) pp->shiftCount++;
      pp->lo[j] = static_cast<double>(std::min(T(pp->lo[j]), v)) - amount;
      moved++;
    }
  }
  if (moved == 0) return;
  lp->perturbKind = std::min(3, lp->perturbKind + 2);
  lp->lastPerturbIter = lp->iterCount;
  while (lp->perturbBase < c.env->par.PerturbValue) lp->perturbBase *= 3.0;
  // Classes follow the wider bounds.
  int cnt = 0;
  for (int p = 0; p < m; p++) {
    lp->rowFlag[p] = c.classify(c.x[p], c.f->basisHead[p]);
    cnt += lp->rowFlag[p] == kBelow || lp->rowFlag[p] == kAbove;
  }
  if (cnt != lp->infeasCount) lp->actionCode = 9;
}

// ---------------------------------------------------------------- steps

// Cost changes of basic positions, held in c.s1 (count and index set), reach the duals and
// the reduced costs: one btran and, outside partial pricing, one row product.
template <class T>
int applyCostDelta(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXsvecT<T>* delta = c.s1;
  if (delta->count == 0) return 0;
  int rc = VRXbtran(c.f, delta, c.s2, 1, &c.clock->work);
  svecClear(delta, c.m);
  if (rc) return rc;
  makeSparse(c.s2, c.m);
  if (lp->priceMode == 0) {
    for (int k = 0; k < c.s2->count; k++) c.y[c.s2->index[k]] += c.s2->value[c.s2->index[k]];
    svecClear(c.s2, c.m);
    return 0;
  }
  rowProduct(c, c.s2, c.row);
  svecClear(c.s2, c.m);
  for (int k = 0; k < c.row->count; k++) {
    const int j = c.row->index[k];
    c.d[j] -= c.row->value[j];
    c.touch(j);
  }
  svecClear(c.row, c.nm + 1);
  return 0;
}

// Phase-I classes of the positions the step touched; the changed costs reach the reduced
// costs through one btran and one row product. leaveVar/oldLeaveClass describe the variable
// that left position r (or -1 for a bound flip).
template <class T>
int phaseOneCosts(Ctx<T>& c, int leaveVar, char oldLeaveClass) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  VRXsvecT<T>* delta = c.s1;
  svecClear(delta, c.nm + 1);
  int cnt = 0;
  int infeas = lp->infeasCount;
  const int* head = c.f->basisHead;
  auto bad = [](char k) { return k == kBelow || k == kAbove; };
  for (int k = 0; k < c.col->count; k++) {
    const int p = c.col->index[k];
    if (p == c.r) continue;
    c.holdSegment(p);  // phase I: a segment change moves no cost that counts here
    const char nc = c.classify(c.x[p], head[p]);
    const char oc = lp->rowFlag[p];
    if (nc == oc) continue;
    infeas += (bad(nc) ? 1 : 0) - (bad(oc) ? 1 : 0);
    lp->rowFlag[p] = nc;
    const double dc = c.classCost(nc) - c.classCost(oc);
    if (dc != 0.0) {
      delta->value[p] = T(dc);
      delta->index[cnt++] = p;
    }
  }
  if (leaveVar >= 0) {
    const int p = c.r;
    infeas -= bad(oldLeaveClass) ? 1 : 0;
    c.d[leaveVar] -= T(c.classCost(oldLeaveClass));
    const char nc = c.classify(c.x[p], head[p]);
    lp->rowFlag[p] = nc;
    infeas += bad(nc) ? 1 : 0;
    const double dc = c.classCost(nc);
    if (dc != 0.0) {
      delta->value[p] = T(dc);
      delta->index[cnt++] = p;
    }
  }
  lp->infeasCount = infeas;
  delta->count = cnt;
  if (infeas <= 0) {
    // Phase I is over: reduced costs of the true objective from scratch.
    svecClear(delta, c.m);
    lp->infeasCount = 0;
    pp->phase = 2;
    releaseTurnedAway(c);
    return computeDual(c);
  }
  int rc = applyCostDelta(c);
  if (rc == 0 && cnt > 0 && leaveVar >= 0 && lp->priceMode != 0) c.touch(leaveVar);
  return rc;
}

template <class T>
void moveBasics(Ctx<T>& c) {
  const T step = -T(c.dir) * c.theta;
  if (step == T(0)) return;
  for (int k = 0; k < c.col->count; k++) {
    const int p = c.col->index[k];
    c.x[p] += step * c.col->value[p];
  }
}

template <class T>
int boundFlip(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  moveBasics(c);
  if (c.toZero) lp->warmStart[c.q] = 0.0;  // a free column stays nonbasic, at 0
  else lp->varStat[c.q] = c.dir > 0 ? VRX_VS_UPPER : VRX_VS_LOWER;
  lp->leaveRow = -1;
  if (c.pp->phase == 1) {
    int rc = phaseOneCosts(c, -1, kWithin);
    if (rc) return rc;
  }
  return 0;
}

template <class T>
void releaseRejects(VRXlp* lp) {
  for (int k = 0; k < lp->tmpFixCount; k++) {
    const int j = lp->tmpFixList[k];
    if (lp->varStat[j] < -6) lp->varStat[j] += VRX_VS_REJECT_SHIFT;
  }
  lp->tmpFixCount = 0;
}

template <class T>
int basisChange(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  VRXfactorT<T>* f = c.f;
  const int r = c.r, q = c.q;
  const int l = f->basisHead[r];
  const T ar = c.alphaR;

  // Row r of B^-1 and the pivot row over the nonbasics.
  VRXsvecT<T>* unit = c.s1;
  svecClear(unit, c.nm + 1);
  unit->value[r] = T(1);
  unit->index[0] = r;
  unit->count = 1;
  int rc = VRXbtran(f, unit, c.rho, 1, &c.clock->work);
  svecClear(unit, c.m);
  if (rc) return rc;
  makeSparse(c.rho, c.m);
  // Partial pricing needs no pivot row: the duals move along rho instead.
  const bool partial = lp->priceMode == 0;
  // Steepest edge needs a_j'B^-T alpha_q over the pivot row: the same pass computes it.
  const bool se = lp->priceMode == 1;
  T* atv = se ? c.s1->value : nullptr;
  if (se) {
    rc = VRXbtran(f, c.col, c.s2, 1, &c.clock->work);
    if (rc) return rc;
  }
  T arRow;
  if (partial) {
    svecClear(c.row, c.nm + 1);
    if (q < c.n) {
      arRow = T(0);
      for (int64_t k = lp->colBeg[q], e = lp->colBeg[q] + lp->colLen[q]; k < e; k++)
        arRow += c.rho->value[lp->rowInd[k]] * T(lp->val[k]);
    } else {
      arRow = c.rho->value[q - c.n];
    }
  } else {
    rowProduct(c, c.rho, c.row, se ? c.s2 : nullptr, atv);
    arRow = c.row->value[q];
  }
  auto dropAtv = [&]() {
    if (!se) return;
    for (int k = 0; k < c.row->count; k++) atv[c.row->index[k]] = T(0);
    svecClear(c.s2, c.m);
  };

  // The pivot seen from the row must agree with the one from the column.
  const T err = absT(arRow - ar) / std::max(absT(ar), T(1e-12));
  if (err > T(1e-7) && f->nUpdatesDone > 0) {
    dropAtv();
    svecClear(c.row, c.nm + 1);
    lp->actionCode = 6;
    return 0;
  }
  if (err > T(1e-5) && lp->markowitzTol < 0.5) {
    lp->markowitzTol = 0.5;
    log(c.env, "Warning: Markowitz tolerance tightened to %g\n", lp->markowitzTol);
  }

  // Primal step; the leaving variable lands on its bound, widened when it stood beyond it.
  const char oldLeaveClass = lp->rowFlag[r];
  moveBasics(c);
  const T vl = c.x[r];
  if (c.breakPoint(l, c.leaveUp ? 1 : -1)) {
    // Past an inner break point a piecewise column is on the next segment, not out of
    // bounds: it lands on the break point itself, where both readings stay open.
  } else if (c.leaveUp) {
    if (vl > T(pp->up[l])) {
      if (pp->up[l] == lp->upper[l]) pp->shiftCount++;
      pp->up[l] = static_cast<double>(vl);
      if (lp->perturbKind == 0) lp->perturbKind = 1;
    }
  } else if (vl < T(pp->lo[l])) {
    if (pp->lo[l] == lp->lower[l]) pp->shiftCount++;
    pp->lo[l] = static_cast<double>(vl);
    if (lp->perturbKind == 0) lp->perturbKind = 1;
  }
  c.x[r] = c.xq + T(c.dir) * c.theta;
  if (c.theta == T(0)) lp->degenPivots++;

  // Reduced costs and weights from the pivot row.
  const T thetaD = c.dq / ar;
  const int drift = updateWeights(c, l, atv, thetaD);
  c.d[q] = T(0);
  c.d[l] = -thetaD;
  if (partial)
    for (int k = 0; k < c.rho->count; k++) c.y[c.rho->index[k]] += thetaD * c.rho->value[c.rho->index[k]];
  dropAtv();
  svecClear(c.row, c.nm + 1);

  // The factor follows; a refused update leaves the refactor to the next loop head.
  VRXfactorCtl ctl;
  lpFactorCtlLoad(lp, &ctl);
  rc = VRXfactorUpdate(f, r, q, &ctl, &c.clock->work);
  lpFactorCtlStore(lp, &ctl);
  if (rc == 12) {
    lp->status = 12;
    return 0;
  }
  if (rc == 1) {
    f->basisHead[r] = q;
    f->valid = 0;
    if (lp->actionCode == 0) lp->actionCode = 11;
  } else if (rc) {
    return rc;
  }

  lp->varStat[q] = r;
  VRXlpRowSwap(lp, q, -1, 0.0);
  int ls;
  if (lp->lower[l] == lp->upper[l]) ls = VRX_VS_FIX_LOWER;
  else ls = c.leaveUp ? VRX_VS_UPPER : VRX_VS_LOWER;
  lp->varStat[l] = ls;
  VRXlpRowSwap(lp, l, +1, 1.0);
  c.touch(l);
  lp->leaveRow = r;
  lp->enterVar = q;
  lp->leaveVar = l;
  lp->alphaR = static_cast<double>(ar);
  lp->primalStep = static_cast<double>(c.theta);
  pp->pivotsSinceFactor++;
  if (pp->pivotsSinceFactor > 2 * f->updateLimit && lp->actionCode == 0) lp->actionCode = 6;
  if (lp->actionCode == 0 && f->valid) {
    lpFactorCtlLoad(lp, &ctl);
    const int t = VRXfactorRefactorTest(f, &ctl, c.clock->work, lp->nnz);
    if (t) lp->actionCode = t;
  }
  if (lp->tmpFixCount > 0) releaseRejects<T>(lp);
  if (lp->smallPivotCount < 0) {
    lp->smallPivotCount = 0;
    lp->smallPivotVar = -1;
  }

  if (pp->phase == 1) {
    if (f->valid) {
      rc = phaseOneCosts(c, l, oldLeaveClass);
      if (rc) return rc;
    } else {
      lp->actionCode = lp->actionCode ? lp->actionCode : 11;
    }
  }
  if (drift) resetWeights(c);
  return 0;
}

// ---------------------------------------------------------------- piecewise basics

// Phase II with piecewise basics. A basic term column that would leave at an inner break
// point passes onto its next segment when the entering column still gains there: the cost
// rise past the break point times the column's rate of change must leave the rate of gain
// negative. Otherwise it leaves there. The test runs again with the passed column's bound
// moved to the end of its next segment; each column passes one break point per step. The
// passed columns are listed in candList, as ~j when moving down.
template <class T>
int ratioTerms(Ctx<T>& c) {
  int res = VRXprimalRatio2(c);
  if (!c.pw || c.vertexMove || c.toZero) return res;
  VRXprimalprice* pp = c.pp;
  const VRXpwlobj* w = c.pw;
  T rate = T(c.dir) * c.dq;
  const T tol = T(pp->priceTol);
  while (res == kPivot) {
    const int j = c.f->basisHead[c.r];
    const int t = w->termOf[j];
    if (t < 0) break;
    const int side = c.leaveUp ? 1 : -1, s = w->seg[t];
    if (side > 0 ? pp->up[j] != w->right[s] : pp->lo[j] != w->left[s]) break;  // passed already, or shifted
    const double rise = c.segmentRise(j, side);
    if (rise >= kInf) break;
    const T next = rate + T(rise) * absT(c.alphaR);
    if (next >= -tol) break;
    rate = next;
    pp->candList[c.passCount++] = side > 0 ? j : ~j;
    if (side > 0) pp->up[j] = w->right[s + 1];
    else pp->lo[j] = w->left[s - 1];
    res = VRXprimalRatio2(c);
  }
  return res;
}

// No step was taken: the passed columns get their bounds back.
template <class T>
void dropPassed(Ctx<T>& c) {
  VRXprimalprice* pp = c.pp;
  for (int k = 0; k < c.passCount; k++) {
    const int e = pp->candList[k];
    if (e >= 0) pp->up[e] = c.lp->upper[e];
    else pp->lo[~e] = c.lp->lower[~e];
  }
  c.passCount = 0;
}

// After the step each passed column that went past its break point is on the next segment:
// a basic one's cost change reaches the duals, one that left at the far end of that segment
// takes its reading. One the step did not carry past gets its bound back.
template <class T>
int settlePassed(Ctx<T>& c) {
  if (c.passCount == 0) return 0;
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  VRXsvecT<T>* delta = c.s1;
  svecClear(delta, c.nm + 1);
  int cnt = 0;
  for (int k = 0; k < c.passCount; k++) {
    const int e = pp->candList[k], j = e >= 0 ? e : ~e, side = e >= 0 ? 1 : -1;
    const int st = lp->varStat[j];
    const double before = lp->cost[j];
    if (st < 0) {
      pwlSetSegment(lp, c.pw->termOf[j], c.pw->seg[c.pw->termOf[j]] + side);
      pp->lo[j] = lp->lower[j];
      pp->up[j] = lp->upper[j];
      c.d[j] += T(lp->cost[j] - before);
      c.touch(j);
    } else if (c.holdSegment(st)) {
      delta->value[st] = T(lp->cost[j] - before);
      delta->index[cnt++] = st;
      pp->breakPasses++;
    } else if (side > 0) {
      pp->up[j] = lp->upper[j];
    } else {
      pp->lo[j] = lp->lower[j];
    }
  }
  c.passCount = 0;
  delta->count = cnt;
  if (!c.f->valid) {
    // The update was refused: the refactor recomputes the duals from the new costs.
    svecClear(delta, c.m);
    if (cnt > 0) lp->actionCode = 9;
    return 0;
  }
  return applyCostDelta(c);
}

// ---------------------------------------------------------------- the iteration

// The rescue of a big pivot column: a sounder factor, or the column as it is.
template <class T>
bool VRXprimalBigPivot(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  c.pp->bigPivots++;
  if (lp->markowitzTol < 0.5) {
    lp->markowitzTol = 0.5;
    log(c.env, "Markowitz tolerance tightened to 0.5.\n");
    lp->actionCode = 6;
    return true;
  }
  if (c.f->nUpdatesDone > 0) {
    lp->actionCode = 6;
    return true;
  }
  return false;
}

// A pivot column whose entries times the costs of the basis pass the cost scale by more than
// 1/bigTol makes its reduced cost a difference of huge terms: the factor has lost accuracy.
// The bound is checked first against the stored largest basic cost and, when passed, against
// a fresh one (phase I weighs infeasibility by 1). The rescue asks for a sounder factor; on a
// fresh factor at Markowitz 0.5 the column is taken as it is. True when the pivot is skipped.
template <class T>
bool bigPivotCheck(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  T norm = T(0);
  for (int k = 0; k < c.col->count; k++) norm = std::max(norm, absT(c.col->value[c.col->index[k]]));
  const double bound = pp->costMax / lp->bigTol;
  if (static_cast<double>(norm) * pp->basisCostMax <= bound) return false;
  double cmax = pp->phase == 1 ? 1.0 : 0.0;
  for (int p = 0; p < c.m; p++) cmax = std::max(cmax, std::fabs(c.trueCost(c.f->basisHead[p])));
  pp->basisCostMax = cmax;
  if (static_cast<double>(norm) * cmax <= bound) return false;
  return VRXprimalBigPivot(c);
}


template <class T>
int iterate(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  const int q = c.q;
  c.xq = T(c.nbValue(q));

  // The entering column through the factor; its spike is kept for the update.
  VRXsvecT<T>* in = c.s1;
  svecClear(in, c.nm + 1);
  if (q < c.n) {
    int cnt = 0;
    for (int64_t k = lp->colBeg[q], e = lp->colBeg[q] + lp->colLen[q]; k < e; k++) {
      in->value[lp->rowInd[k]] = T(lp->val[k]);
      in->index[cnt++] = lp->rowInd[k];
    }
    in->count = cnt;
  } else {
    in->value[q - c.n] = T(1);
    in->index[0] = q - c.n;
    in->count = 1;
  }
  int rc = VRXftran(c.f, in, c.col, 1, 1, &c.clock->work);
  svecClear(in, c.m);
  if (rc) return rc;
  makeSparse(c.col, c.m);

  if (bigPivotCheck(c)) return 0;
  c.passCount = 0;
  auto ratio = [&]() {
    return pp->phase == 2 ? ratioTerms(c) : (lp->pwRatio ? VRXprimalRatioPW(c) : VRXprimalRatio1(c));
  };
  int res = ratio();
  // A vertex move that nothing blocks tries the other way before it is given up.
  while (res == kUnbounded && c.vertexMove) {
    if (!turnVertexMove(c)) return 0;
    res = ratio();
  }
  if (res != kPivot && res != kFlip) dropPassed(c);
  switch (res) {
    case kUnbounded: {
      if (c.f->nUpdatesDone > 0 && pp->unbdRetries == 0) {
        pp->unbdRetries = 1;
        lp->actionCode = 7;
        return 0;
      }
      // The ray: the entering variable moves along dir, the basics by -dir * alpha.
      std::memset(pp->ray, 0, sizeof(double) * static_cast<size_t>(c.nm));
      pp->ray[q] = c.dir;
      for (int k = 0; k < c.col->count; k++) {
        const int p = c.col->index[k];
        pp->ray[c.f->basisHead[p]] = static_cast<double>(-T(c.dir) * c.col->value[p]);
      }
      pp->rayValid = 1;
      lp->enterVar = q;
      lp->status = 5;
      return 0;
    }
    case kNoBlock:
      // Nothing bounds the phase-I step: on updated values first a fresh compute; on fresh
      // ones the column is turned away for this phase.
      if (!pp->confirmed) {
        lp->actionCode = 9;
        return 0;
      }
      if (lp->varStat[q] == VRX_VS_FREE) {
        lp->varStat[q] = VRX_VS_FIX_FREE;
        lp->awayFreeCount++;
      } else {
        lp->varStat[q] -= VRX_VS_REJECT_SHIFT;
        lp->tmpFixList[lp->tmpFixCount++] = q;
      }
      return 0;
    case kSmallPivot: {
      if (lp->markowitzTol < 0.125) {
        lp->markowitzTol = 0.125;
        lp->actionCode = 6;
        return 0;
      }
      if (c.f->nUpdatesDone > 0) {
        lp->markowitzTol = std::max(lp->markowitzTol, 0.5);
        lp->actionCode = 6;
        return 0;
      }
      if (c.vertexMove) {
        // No other column would do for this move: on a fresh factor the small pivot stands.
        rc = basisChange(c);
        if (rc == 0 && lp->actionCode == 6 && lp->varStat[q] < 0) return 0;
        break;
      }
      const double a = static_cast<double>(absT(c.alphaR));
      lp->varStat[q] -= VRX_VS_REJECT_SHIFT;
      lp->tmpFixList[lp->tmpFixCount++] = q;
      lp->smallPivotCount++;
      if (a > lp->smallPivotBest) {
        lp->smallPivotBest = a;
        lp->smallPivotVar = q;
      }
      return 0;
    }
    case kFlip:
      rc = boundFlip(c);
      break;
    default:
      rc = basisChange(c);
      if (rc == 0 && lp->actionCode == 6 && lp->varStat[q] < 0) {
        dropPassed(c);  // pivot refused
        return 0;
      }
      break;
  }
  if (!rc) rc = settlePassed(c);
  if (rc) return rc;
  c.forceSmall = 0;
  pp->confirmed = 0;
  pp->unbdRetries = 0;
  lp->iterCount += 1;
  lp->workIter += 1;
  return 0;
}

// The entering choice with the fix list and the retry of a rejected small pivot.
template <class T>
int chooseEntering(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  // Temporarily fixed columns come back from the end of the list, taken when their
  // reduced cost asks for it.
  while (lp->fixedCount > 0) {
    const int j = lp->fixedList[--lp->fixedCount];
    int s = lp->varStat[j];
    if (s >= 0 || s > VRX_VS_FIX_LOWER) continue;
    s += VRX_VS_RELEASE_SHIFT;
    lp->varStat[j] = s;
    c.pp->weights[j] = 1.0;
    c.touch(j);
    const T dj = lp->priceMode == 0 ? c.freshD(j) : c.d[j];
    const T tol = T(c.pp->phase == 1 ? c.pp->dualFeasTol : c.pp->priceTol);
    if (lp->lower[j] == lp->upper[j]) continue;
    int dir = 0;
    if (s == VRX_VS_LOWER && dj < -tol) dir = 1;
    if (s == VRX_VS_UPPER && dj > tol) dir = -1;
    if (s == VRX_VS_FREE && absT(dj) > tol) dir = dj < T(0) ? 1 : -1;
    if (dir != 0) {
      c.q = j;
      c.dir = dir;
      c.dq = dj;
      return j;
    }
  }
  int q = priceEntering(c);
  if (q >= 0 || lp->tmpFixCount == 0) return q;
  // Only rejected columns are left: retry the best of them once.
  const int best = lp->smallPivotVar;
  releaseRejects<T>(lp);
  if (best < 0) return priceEntering(c);
  log(c.env, "Numeric Warning: primal small pivot %g\n", lp->smallPivotBest);
  lp->smallPivotCount = -std::abs(lp->smallPivotCount);
  const T dj = lp->priceMode == 0 ? c.freshD(best) : c.d[best];
  const int s = lp->varStat[best];
  c.q = best;
  c.dir = s == VRX_VS_LOWER ? 1 : (s == VRX_VS_UPPER ? -1 : (dj < T(0) ? 1 : -1));
  c.dq = dj;
  c.forceSmall = 1;
  lp->smallPivotVar = -1;
  lp->smallPivotBest = 0.0;
  return best;
}

constexpr double kPolishFactor = 0.01;
constexpr double kPolishFloor = 1e-9;

// Polishing that drags on is cut short: the loop finishes at the plain tolerance.
template <class T>
void polishBudget(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  if (pp->polishing != 1) return;
  if (lp->iterCount - pp->polishStart > std::max(50.0, 0.05 * lp->iterCount)) {
    pp->polishing = 2;
    pp->priceTol = lp->optTol;
  }
}

// No entering column: confirm on fresh values, then decide optimal, infeasible, or clean up.
template <class T>
int noCandidate(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  // Vertex moves go on from updated values; only a new scan needs a fresh compute.
  const bool listed = pp->phase == 2 && pp->vxNext < pp->vxCount;
  if (!pp->confirmed && !listed) {
    lp->actionCode = 9;
    return 0;
  }
  if (pp->phase == 1) {
    // Phase I can do no better. An infeasibility this close to the tolerance is taken for
    // rounding: the tolerance moves just past it, once per order of magnitude, and the
    // values are recomputed on a sounder factor.
    const double limit = 10.0 * pp->feasTolStart;
    if (pp->maxInfeas < limit && lp->feasTol < pp->maxInfeas * 1.01) {
      lp->feasTol = std::min(limit, pp->maxInfeas * 1.01);
      lp->markowitzTol = std::max(lp->markowitzTol, 0.5);
      lp->actionCode = 6;
      return 0;
    }
    lp->status = 3;
    // The phase-I duals of this fresh compute prove it; the exit recomputes y for phase 2.
    std::memcpy(pp->ray, pp->y, sizeof(double) * static_cast<size_t>(c.m));
    pp->rayValid = 0;
    pp->farkasValid = 1;
    return 0;
  }
  if (pp->shiftCount > 0 || lp->perturbKind > 0) {
    // Shifted or perturbed bounds go; what the true bounds leave infeasible is repaired by
    // further iterations.
    restoreBounds(c);
    lp->perturbKind = 0;
    pp->noPerturb = 1;
    pp->cleanRounds++;
    lp->actionCode = 4;
    return 0;
  }
  if (!pp->polishing && lp->optTol > kPolishFloor) {
    // Optimal within optTol: a few more pivots at a tighter tolerance close most of the
    // objective gap the tolerance allows.
    pp->polishing = 1;
    pp->polishStart = lp->iterCount;
    pp->priceTol = std::max(kPolishFloor, lp->optTol * kPolishFactor);
    pp->listStale = 1;
    return 0;
  }
  // Optimal by the reduced costs; what still stands inside its bounds moves to a vertex.
  const int q = nextVertexMove(c);
  if (q == -2) {
    lp->actionCode = 9;
    return 0;
  }
  if (q >= 0) {
    lp->enterVar = q;
    return iterate(c);
  }
  lp->status = 2;
  return 0;
}

// Prices and takes one iteration: a pivot, a bound flip, or what no candidate calls for.
// Returns an error code; the loop also ends on a status other than 1.
template <class T>
int VRXprimalPivot(Ctx<T>& c) {
  polishBudget(c);
  c.vertexMove = 0;
  c.toZero = 0;
  const int q = chooseEntering(c);
  c.lp->enterVar = q;
  if (q < 0) return noCandidate(c);
  // A piecewise column leaving its break point the other way takes that segment's reading.
  if (c.faceDirection(q, c.dir)) c.dq = c.d[q];
  return iterate(c);
}

// ---------------------------------------------------------------- no rows

template <class T>
void solveNoRows(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  const T tol = T(lp->optTol);
  pp->phase = 2;
  lp->infeasCount = 0;
  for (int j = 0; j < c.n; j++) {
    const T dj = T(c.trueCost(j));
    c.d[j] = dj;
    int s = lp->varStat[j];
    if (s < VRX_VS_FREE) continue;
    if (dj < -tol) {
      if (!c.upFinite(j)) {
        std::memset(pp->ray, 0, sizeof(double) * static_cast<size_t>(c.nm));
        pp->ray[j] = 1.0;
        pp->rayValid = 1;
        lp->status = 5;
        return;
      }
      lp->varStat[j] = VRX_VS_UPPER;
    } else if (dj > tol) {
      if (!c.loFinite(j)) {
        std::memset(pp->ray, 0, sizeof(double) * static_cast<size_t>(c.nm));
        pp->ray[j] = -1.0;
        pp->rayValid = 1;
        lp->status = 5;
        return;
      }
      lp->varStat[j] = VRX_VS_LOWER;
    }
  }
  settleNoRows(c);
  lp->status = 2;
}

// ---------------------------------------------------------------- exit

// Puts the record's conventions back: true bounds, values against them, true reduced costs
// with the sign reversed at an upper bound, the objective.
template <class T>
int finish(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  releaseRejects<T>(lp);
  releaseTurnedAway(c);
  const bool canSolve = c.m == 0 || (c.f && c.f->valid);
  int rc = 0;
  if (pp->shiftCount > 0) {
    restoreBounds(c);
    if (canSolve && c.m > 0) rc = computePrimal(c, false);
  }
  lp->perturbKind = 0;
  if (canSolve && c.m > 0) {
    const int keep = pp->phase;
    pp->phase = 2;
    if (!rc) rc = computeDual(c);
    pp->phase = keep;
  }
  for (int j = 0; j < c.nm; j++) {
    const int s = lp->varStat[j];
    if (s >= 0) c.d[j] = T(0);
    else if (s == VRX_VS_UPPER || s == VRX_VS_FIX_UPPER) c.d[j] = -c.d[j];
  }
  lp->primalObj = objectiveValue(c) / lp->objScale + lp->objConst;
  if (lp->status == 2) {
    lp->dualObj = lp->primalObj;
    lp->dualObjValid = 1;
  }
  lp->phase = 0;
  return rc;
}

template <class T>
int solveT(VRXlp* lp, Clock& clock) {
  Ctx<T> c = makeCtx<T>(lp, clock);
  VRXprimalprice* pp = c.pp;
  if (c.m == 0) {
    solveNoRows(c);
    return finish(c);
  }
  int rc = 0;
  bool weightsFresh = false;
  while (lp->status == 1) {
    if (lp->actionCode != 0 || !c.f->valid) {
      rc = refactorAndCompute(c);
      if (rc || lp->status != 1) break;
      if (!weightsFresh) {
        resetWeights(c);
        weightsFresh = true;
      }
      maybePerturb(c);
      if (lp->actionCode != 0) continue;
    }
    // A loop head without an iteration again and again: the primal gives up this run.
    if (lp->iterCount == pp->stallIter) {
      if (++pp->stallHeads > 4 * (c.nm + 10)) {
        lp->status = -1004;
        lp->dualSwitch++;
        break;
      }
    } else {
      pp->stallIter = lp->iterCount;
      pp->stallHeads = 0;
    }
    rc = pollLimits(c);
    if (rc || lp->status != 1) break;
    rc = VRXprimalPivot(c);
    if (rc) break;
    if (lp->iterCount != pp->stallIter) cycleCheck(lp, lp->enterVar);
    if (lp->cycleHits > 30) {
      // A cycle: bounds get room once; when that was done already the dual takes over.
      lp->cycleHits = 0;
      lp->cycleVar = -1;
      if (!pp->noPerturb && lp->perturbKind < 2 && lp->perturbBase > 0.0) {
        maybePerturb(c, true);
      } else {
        lp->status = -1004;
        lp->dualSwitch++;
      }
    }
  }
  if (lp->status == 2 && lp->outputLevel > 2)
    log(c.env, "Iteration: %7.0f   Optimal Objective = %16.7e\n", lp->iterCount + lp->priorIter,
        lp->sense * (objectiveValue(c) / lp->objScale + lp->objConst));
  int frc = finish(c);
  return rc ? rc : frc;
}

}  // namespace

}  // namespace primal

int primalFarkas(const VRXlp* lp, double* y) {
  if (!lp || !lp->primal || !lp->primal->farkasValid || lp->status != 3) return VRX_ERROR_DATA_NOT_AVAILABLE;
  std::memcpy(y, lp->primal->ray, sizeof(double) * static_cast<size_t>(lp->m));
  return 0;
}

int primalRay(const VRXlp* lp, double* out) {
  if (!lp || !lp->primal || !lp->primal->rayValid || lp->status != 5) return VRX_ERROR_DATA_NOT_AVAILABLE;
  lpUnscalePrimal<double>(lp, lp->primal->ray, out);
  return 0;
}

}  // namespace vrx

void VRXprimalFree(VRXlp* lp) {
  if (!lp || !lp->primal) return;
  VRXenv* env = lp->env;
  VRXprimalprice* pp = lp->primal;
  void* blocks[] = {pp->weights, pp->y,     pp->candList, pp->costWork, pp->savedWeights,
                    pp->lo,      pp->up,    pp->bpGain,   pp->bpRow,    pp->mark,
                    pp->ray,     pp->yWork, pp->hotList,  pp->infList,  pp->infPos,
                    pp->vxList};
  for (void* b : blocks) vrx::envFree(env, b);
  vrx::envFree(env, pp);
  lp->primal = nullptr;
}

int VRXprimalFromDual(VRXlp* lp) {
  if (!lp || !lp->varStat) return -1;
  if (lp->m > 0 && !(lp->quadMode ? static_cast<void*>(lp->factorQ) : static_cast<void*>(lp->factor)))
    return -1;
  // The primal works on the true costs: the dual's shifts and perturbation go.
  if (lp->pricing) vrx::dual::dualClearShifts(lp);
  vrx::primal::sanitizeStatuses(lp);
  lp->method = 0;
  lp->status = 1;
  lp->phase = 0;
  lp->actionCode = 1;
  lp->leaveRow = -1;
  lp->enterVar = -1;
  lp->smallPivotCount = 0;
  lp->smallPivotVar = -1;
  lp->infeasCount = -1;
  return 0;
}

int VRXprimalPrepare(VRXlp* lp, vrx::Clock& clock) {
  using namespace vrx;
  (void)clock;
  const ParamStore& par = lp->env->par;
  int rc = primal::createRecord(lp);
  if (rc) return rc;
  VRXprimalprice* pp = lp->primal;
  const int n = lp->n, m = lp->m, nm = n + m;

  // Refactor more often after repairs; a gentler perturbation after method switches.
  if (lp->refactorLimit > 100 && lp->luInterval == 0 && (lp->rescueCount > 9 || lp->singularRepairs > 0))
    lp->refactorLimit = 100;
  if (lp->dualSwitch > 1 && lp->perturbBase > 1e-7) lp->perturbBase = std::max(1e-7, lp->perturbBase / 20.0);
  lp->pivotTol = std::min(lp->pivotTol, std::max(lp->optTol, par.VORN_PAR_PIVOTTOL));

  primal::sanitizeStatuses(lp);
  lp->priceMode = primal::chooseMode(lp);
  lp->perturbKind = 0;
  lp->tmpFixCount = 0;
  lp->smallPivotCount = 0;
  lp->smallPivotVar = -1;
  lp->smallPivotBest = 0.0;
  lp->awayFreeCount = 0;
  lp->infeasCount = -1;
  lp->leaveRow = -3;
  lp->enterVar = -1;
  lp->method = 0;
  lp->status = 1;
  lp->actionCode = lp->actionCode ? lp->actionCode : 1;
  std::memcpy(lp->savedVarStat, lp->varStat, sizeof(int) * static_cast<size_t>(nm));

  pp->bigM = par.VORN_PAR_BIGM;
  pp->dualFeasTol = 1e-7;
  pp->phase = 0;
  pp->partialMode = 0;
  // Phase I on infeasibility costs alone: the composite form cost more Netlib iterations, and
  // the Farkas proof of an infeasible end is read from these costs.
  pp->twoStage = 0;
  pp->passLimit = 10;
  pp->noChange = 0;
  pp->enteringHint = -1;
  pp->chunkSkip = (m < 500 || lp->loadKind == 1) ? 0 : n;
  pp->nextBlock = 0;
  const double pb = lp->nnz > 0 && m > 0 ? (static_cast<double>(n) / m) * n / static_cast<double>(lp->nnz) : 0.0;
  pp->partialBlock = pb >= 2 && lp->priceChoice < 0 && lp->priorIter == 0 ? static_cast<int>(pb) : 0;
  // Partial pricing looks at about an eighth of the columns per iteration, less on wide LPs.
  pp->chunkLen = std::max(100, nm / std::max(2 * pp->partialBlock, 8));
  pp->hotCount = 0;
  pp->firstCompute = 1;
  pp->termsSettled = 0;
  pp->breakPasses = 0;
  pp->listStale = 1;
  pp->acceptLoose = 0;
  pp->columnLists = par.VORN_PAR_PRIMALPARTIAL != 0 ? par.VORN_PAR_PRIMALPARTIAL : (pp->partialBlock == 0 ? 1 : 2);
  pp->sectionRatio = n > 0 ? m * std::pow(static_cast<double>(m) * m / n, 0.35) / 20.0 : 1.0;
  pp->bestRow = -1;
  pp->head = pp->tail = -1;
  pp->rayValid = 0;
  pp->farkasValid = 0;
  pp->vxCount = pp->vxNext = pp->vxRounds = pp->vxTries = pp->vxLeft = pp->vxMoves = 0;
  pp->cleanRounds = 0;
  pp->noPerturb = 0;
  pp->lastCheckIter = lp->iterCount;
  pp->lastCheckDegen = lp->degenPivots;
  pp->confirmed = 0;
  pp->unbdRetries = 0;
  pp->stallHeads = 0;
  pp->stallIter = -1;
  lp->cycleVar = -1;
  lp->cycleHits = 0;
  lp->cycleGap = 0;
  pp->maxInfeas = pp->sumInfeas = 0.0;
  pp->priceTol = lp->optTol;
  pp->feasTolStart = lp->feasTol;
  pp->costMax = 1.0;
  for (int j = 0; j < nm; j++) pp->costMax = std::max(pp->costMax, std::fabs(lp->cost[j]));
  pp->basisCostMax = pp->costMax;
  pp->bigPivots = 0;
  pp->lastLogAt = lp->iterCount + lp->priorIter;
  pp->polishing = 0;
  pp->polishStart = 0.0;
  std::memcpy(pp->lo, lp->lower, sizeof(double) * static_cast<size_t>(nm));
  std::memcpy(pp->up, lp->upper, sizeof(double) * static_cast<size_t>(nm));
  pp->shiftCount = 0;

  // A first basis by crash when none was given.
  int crash = par.VORN_PAR_SIMPLEXCRASH > 0 ? par.VORN_PAR_SIMPLEXCRASH : 0;
  if (par.VORN_PAR_SIMPLEXCRASH == -1 && m > 1000 && n > 5000 && lp->costNz == 1 && lp->singleCost >= 0 &&
      lp->colLen[lp->singleCost] > 50)
    crash = 2;
  // Large plain models get the second, sparsity-driven pass.
  const bool second = m > 10000 && pp->columnLists != 2 &&
                      (lp->modelKind == VRX_LPKIND_OTHER || lp->modelKind == VRX_LPKIND_LP);
  if (crash && lp->loadKind == 0 && lp->iterCount + lp->priorIter == 0 && lp->fixedCount == 0 &&
      primal::crashBasis(lp, crash, second) > 0) {
    if (lp->factor) lp->factor->valid = 0;
    if (lp->factorQ) lp->factorQ->valid = 0;
  }

  // The pivot row is built from the active copy: make sure it holds the plain values.
  if (n > 0) lpActiveRebuild(lp);
  return 0;
}

namespace {

int runPrimal(VRXlp* lp, vrx::Clock& clock) {
  int rc = VRXprimalPrepare(lp, clock);
  if (rc) return rc;
  if (lp->quadMode) return vrx::primal::solveT<long double>(lp, clock);
  return vrx::primal::solveT<double>(lp, clock);
}

}  // namespace

int VRXprimalSolve(VRXlp* lp, vrx::Clock& clock) {
  if (!lp) return VRX_ERROR_NULL_ARGUMENT;
  return lp->pwl ? VRXpwlPrimal(lp, clock) : runPrimal(lp, clock);
}

int VRXpwlPrimal(VRXlp* lp, vrx::Clock& clock) {
  if (!lp) return VRX_ERROR_NULL_ARGUMENT;
  if (!lp->pwl) return VRX_ERROR_INVALID_ARGUMENT;
  return runPrimal(lp, clock);
}
