// Convex piecewise-linear objective terms kept natively in the working LP.
#include "simplex/pwl.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "env/envvec.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model/result.h"
#include "presolve/lpbridge.h"
#include "presolve/pwl.h"
#include "simplex/dual.h"
#include "simplex/lpdriver.h"

namespace vrx {

namespace {

// One segment in true units: f(x) = slope*x + icpt on [l, r].
struct Piece {
  double l, r, slope, icpt;
};

// The pieces of column j's term, left to right, with the end segments extended to
// infinity and neighbours of equal slope merged. Empty for a term without width.
void truePieces(const VRXmodeldata* d, int j, EnvVec<Piece>* out) {
  out->clear();
  const int cnt = d->pwlCount[j];
  const double* px = d->pwlX + d->pwlBeg[j];
  const double* py = d->pwlY + d->pwlBeg[j];
  for (int k = 0; k + 1 < cnt; k++) {
    const double w = px[k + 1] - px[k];
    if (w <= 0) continue;
    const double s = (py[k + 1] - py[k]) / w;
    const Piece p{px[k], px[k + 1], s, py[k] - s * px[k]};
    if (!out->empty()) {
      Piece& b = out->back();
      if (std::fabs(b.slope - s) <= 1e-12 * std::max(1.0, std::fabs(s))) {
        b.r = p.r;
        continue;
      }
    }
    out->push_back(p);
  }
  if (out->empty()) return;
  (*out)[0].l = -kInf;
  out->back().r = kInf;
}

double constantTerms(const VRXmodeldata* d, const VRXlp* lp) {
  double c = 0.0;
  for (int j = 0; j < d->numVars; j++) {
    const int cnt = d->pwlCount[j];
    if (cnt == 0) continue;
    const double* px = d->pwlX + d->pwlBeg[j];
    if (px[cnt - 1] == px[0]) c += d->pwlY[d->pwlBeg[j]];
  }
  return c * lp->objScale;
}

template <class T>
T* take(VRXenv* env, size_t count) {
  return envCallocArray<T>(env, count + 1);
}

void freeRecord(VRXenv* env, VRXpwlobj* w) {
  if (!w) return;
  void* blocks[] = {w->col,  w->beg,  w->left,  w->right, w->slope,      w->icpt,  w->seg, w->termOf,
                    w->cost, w->lower, w->upper, w->scale, w->lastPassed, w->moved, w->base};
  for (void* p : blocks) envFree(env, p);
  envFree(env, w);
}

// Segment of term t that holds x (the nearest one when x lies outside every segment);
// on a break point the reading on the side that `atLower` says.
int segmentAt(const VRXpwlobj* w, int t, double x, bool atLower) {
  const int b = w->beg[t], e = w->beg[t + 1];
  for (int s = b; s < e; s++) {
    if (atLower ? (x < w->right[s] || s == e - 1) : (x <= w->right[s])) return s;
  }
  return e - 1;
}

int buildRecord(VRXlp* lp, const VRXmodeldata* d, VRXpwlobj* w, const EnvVec<double>& oldX);

}  // namespace

void pwlFree(VRXlp* lp) {
  if (!lp || !lp->pwl) return;
  freeRecord(lp->env, lp->pwl);
  lp->pwl = nullptr;
}

void pwlSetSegment(VRXlp* lp, int t, int s) {
  VRXpwlobj* w = lp->pwl;
  const int j = w->col[t];
  w->seg[t] = s;
  w->lower[j] = w->left[s];
  w->upper[j] = w->right[s];
  w->cost[j] = w->slope[s];
}

double pwlIntercepts(const VRXlp* lp) {
  const VRXpwlobj* w = lp->pwl;
  double c = w->constant;
  for (int t = 0; t < w->terms; t++) c += w->icpt[w->seg[t]];
  return c;
}

int pwlSetup(VRXlp* lp, const VRXmodeldata* d) {
  VRXenv* env = lp->env;
  const size_t nm = static_cast<size_t>(lp->n) + static_cast<size_t>(lp->m);
  if (!pwlConvex(d))
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true,
                 "Piecewise-linear objectives that are not convex need the mixed-integer solver");
  try {
    // Where each column stood on the old record, to put it back on the same segment.
    EnvVec<double> oldX(env);
    if (lp->pwl && lp->varStat) {
      const VRXpwlobj* o = lp->pwl;
      oldX.resize(nm, kInf);
      for (int t = 0; t < o->terms; t++) {
        const int j = o->col[t], st = lp->varStat[j], s = o->seg[t];
        if (st == VRX_VS_LOWER || st == VRX_VS_FIX_LOWER)
          oldX[static_cast<size_t>(j)] = o->left[s];
        else if (st == VRX_VS_UPPER || st == VRX_VS_FIX_UPPER)
          oldX[static_cast<size_t>(j)] = o->right[s];
        else if (st >= 0)
          oldX[static_cast<size_t>(j)] = o->left[s] > -kInf ? o->left[s] : o->right[s];
      }
    }
    pwlFree(lp);
    auto* w = envCallocArray<VRXpwlobj>(env, 1);
    if (!w) return VRX_ERROR_OUT_OF_MEMORY;
    lp->pwl = w;
    return buildRecord(lp, d, w, oldX);
  } catch (const std::bad_alloc&) {
    pwlFree(lp);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
}

namespace {

int buildRecord(VRXlp* lp, const VRXmodeldata* d, VRXpwlobj* w, const EnvVec<double>& oldX) {
  VRXenv* env = lp->env;
  const int n = lp->n, m = lp->m;
  const size_t nm = static_cast<size_t>(n) + static_cast<size_t>(m);
  const VRXmodeldata* cp = lp->copy;
  EnvVec<Piece> pieces(env);
  EnvVec<Piece> all(env);
  EnvVec<int> cols(env), begs(env);
  const double inf = lp->infBound;
  for (int j = 0; j < n; j++) {
    if (d->pwlCount[j] == 0) continue;
    truePieces(d, j, &pieces);
    if (pieces.empty()) continue;
    double g = cp->colScale ? cp->colScale[j] : 1.0;
    if (cp->colFlipped && cp->colFlipped[j]) g = -g;
    const double lb = cp->lb[j] <= -inf ? -kInf : cp->lb[j];
    const double ub = cp->ub[j] >= inf ? kInf : cp->ub[j];
    const size_t first = all.size();
    const size_t k = pieces.size();
    for (size_t q = 0; q < k; q++) {
      // A negated column reads its pieces right to left.
      const Piece& p = pieces[g > 0 ? q : k - 1 - q];
      double l = p.l <= -kInf ? -kInf : p.l / g, r = p.r >= kInf ? kInf : p.r / g;
      if (g < 0) {
        l = p.r >= kInf ? -kInf : p.r / g;
        r = p.l <= -kInf ? kInf : p.l / g;
      }
      const Piece s{std::max(l, lb), std::min(r, ub), cp->obj[j] + lp->objScale * g * p.slope, lp->objScale * p.icpt};
      // Pieces outside the bounds go; a fixed column keeps the one piece that holds it.
      if (lb == ub ? (l <= lb && lb <= r && all.size() == first) : (s.l < s.r)) all.push_back(s);
    }
    if (all.size() == first) continue;
    begs.push_back(static_cast<int>(first));
    cols.push_back(j);
  }
  w->terms = static_cast<int>(cols.size());
  w->segs = static_cast<int>(all.size());
  const size_t terms = static_cast<size_t>(w->terms), segs = all.size();
  w->col = take<int>(env, terms);
  w->beg = take<int>(env, terms + 1);
  w->seg = take<int>(env, terms);
  w->scale = take<double>(env, terms);
  w->base = take<double>(env, terms);
  w->lastPassed = take<int>(env, terms);
  w->moved = take<int>(env, terms);
  w->left = take<double>(env, segs);
  w->right = take<double>(env, segs);
  w->slope = take<double>(env, segs);
  w->icpt = take<double>(env, segs);
  w->termOf = take<int>(env, nm);
  w->cost = take<double>(env, nm);
  w->lower = take<double>(env, nm);
  w->upper = take<double>(env, nm);
  if (!w->col || !w->beg || !w->seg || !w->scale || !w->base || !w->lastPassed || !w->moved || !w->left ||
      !w->right || !w->slope || !w->icpt || !w->termOf || !w->cost || !w->lower || !w->upper) {
    pwlFree(lp);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  for (size_t s = 0; s < segs; s++) {
    w->left[s] = all[s].l;
    w->right[s] = all[s].r;
    w->slope[s] = all[s].slope;
    w->icpt[s] = all[s].icpt;
  }
  std::memcpy(w->cost, cp->obj, sizeof(double) * nm);
  std::memcpy(w->lower, cp->lb, sizeof(double) * nm);
  std::memcpy(w->upper, cp->ub, sizeof(double) * nm);
  for (size_t j = 0; j < nm; j++) w->termOf[j] = -1;
  w->constant = constantTerms(d, lp);
  for (int t = 0; t < w->terms; t++) {
    const int j = cols[static_cast<size_t>(t)];
    w->col[t] = j;
    w->beg[t] = begs[static_cast<size_t>(t)];
    w->termOf[j] = t;
    double g = cp->colScale ? cp->colScale[j] : 1.0;
    if (cp->colFlipped && cp->colFlipped[j]) g = -g;
    w->scale[t] = g;
    w->base[t] = cp->obj[j];
    w->lastPassed[t] = -1;
  }
  w->beg[w->terms] = w->segs;

  for (int t = 0; t < w->terms; t++) {
    const int j = w->col[t];
    const int b = w->beg[t], e = w->beg[t + 1];
    const double x = oldX.empty() ? kInf : oldX[static_cast<size_t>(j)];
    int s;
    if (x < kInf) {
      // A warm record: the same point, on the reading its status names.
      const int st = lp->varStat[j];
      s = segmentAt(w, t, x, st != VRX_VS_UPPER && st != VRX_VS_FIX_UPPER);
      if (st == VRX_VS_LOWER && w->left[s] != x && w->right[s] == x) lp->varStat[j] = VRX_VS_UPPER;
      if (st == VRX_VS_UPPER && w->right[s] != x && w->left[s] == x) lp->varStat[j] = VRX_VS_LOWER;
    } else {
      // Cold: where the term alone is least, which the slack basis' duals (zero) favour.
      s = e - 1;
      for (int q = b; q < e; q++)
        if (w->slope[q] >= 0.0) {
          s = q;
          break;
        }
    }
    pwlSetSegment(lp, t, s);
  }
  lp->cost = w->cost;
  lp->lower = w->lower;
  lp->upper = w->upper;
  return 0;
}

}  // namespace

template <class T>
int pwlSettle(VRXlp* lp, T* Cbar) {
  VRXpwlobj* w = lp->pwl;
  if (!w) return 0;
  const double tol = lp->optTol;
  int moved = 0;
  for (int t = 0; t < w->terms; t++) {
    const int j = w->col[t];
    const int st = lp->varStat[j];
    if (st != VRX_VS_LOWER && st != VRX_VS_UPPER) continue;
    const int b = w->beg[t], e = w->beg[t + 1], cur = w->seg[t];
    if (e - b < 2) continue;
    // raw_k: c_k + shift - y'a on segment k; it rises with k.
    const double raw = (st == VRX_VS_UPPER ? -1.0 : 1.0) * static_cast<double>(Cbar[j]);
    const double base = raw - w->slope[cur];
    auto rawAt = [&](int k) { return base + w->slope[k]; };
    const bool fine = st == VRX_VS_LOWER ? (cur == b || rawAt(cur - 1) <= tol) : (cur == e - 1 || rawAt(cur + 1) >= -tol);
    if (fine) continue;
    moved++;
    int k = b;
    while (k < e && rawAt(k) < 0.0) k++;
    int s, ns;
    if (k < e) {
      s = k;
      ns = w->left[k] > -kInf ? VRX_VS_LOWER : VRX_VS_UPPER;
    } else {
      s = e - 1;
      ns = w->right[s] < kInf ? VRX_VS_UPPER : VRX_VS_LOWER;
    }
    pwlSetSegment(lp, t, s);
    lp->varStat[j] = ns;
    Cbar[j] = T(ns == VRX_VS_UPPER ? -rawAt(s) : rawAt(s));
  }
  return moved;
}

template int pwlSettle<double>(VRXlp*, double*);
template int pwlSettle<long double>(VRXlp*, long double*);

template <class T>
int pwlCross(VRXlp* lp, T* Cbar, const T* Bbar) {
  VRXpwlobj* w = lp->pwl;
  if (!w) return 0;
  const double tol = lp->optTol, ftol = lp->feasTol;
  int moved = 0;
  for (int t = 0; t < w->terms; t++) {
    const int j = w->col[t];
    const int st = lp->varStat[j];
    const int b = w->beg[t], e = w->beg[t + 1], cur = w->seg[t];
    if (st >= 0) {
      // A basic column that ran past its segment: onto the segment that holds it.
      const double x = static_cast<double>(Bbar[st]);
      int s = cur;
      while (s + 1 < e && x > w->right[s] + ftol) s++;
      while (s > b && x < w->left[s] - ftol) s--;
      if (s != cur) {
        pwlSetSegment(lp, t, s);
        moved++;
      }
      continue;
    }
    if (st != VRX_VS_LOWER && st != VRX_VS_UPPER) continue;
    // At an inner break point the other reading may have a negative reduced cost: the
    // column takes it and stays where it is.
    const double raw = (st == VRX_VS_UPPER ? -1.0 : 1.0) * static_cast<double>(Cbar[j]);
    if (st == VRX_VS_LOWER && cur > b && raw - (w->slope[cur] - w->slope[cur - 1]) > tol) {
      pwlSetSegment(lp, t, cur - 1);
      lp->varStat[j] = VRX_VS_UPPER;
      Cbar[j] = T(w->slope[cur] - w->slope[cur - 1] - raw);
      moved++;
    } else if (st == VRX_VS_UPPER && cur + 1 < e && raw + (w->slope[cur + 1] - w->slope[cur]) < -tol) {
      pwlSetSegment(lp, t, cur + 1);
      lp->varStat[j] = VRX_VS_LOWER;
      Cbar[j] = T(raw + w->slope[cur + 1] - w->slope[cur]);
      moved++;
    }
  }
  return moved;
}

template int pwlCross<double>(VRXlp*, double*, const double*);
template int pwlCross<long double>(VRXlp*, long double*, const long double*);

namespace {

// The rows and the columns' own bounds without the segments: the primal runs with every
// term's column on its whole range and all costs 0. When it finds a point, each column
// goes onto the segment that holds its value there, so the segments no longer make the
// rows infeasible. lp->status is 3 when there is no such point.
int wholeRangePass(VRXlp* lp, Clock& clock) {
  VRXpwlobj* w = lp->pwl;
  const size_t nm = static_cast<size_t>(lp->n) + static_cast<size_t>(lp->m);
  double* keep = envAllocArray<double>(lp->env, nm + 1);
  if (!keep) return VRX_ERROR_OUT_OF_MEMORY;
  std::memcpy(keep, w->cost, sizeof(double) * nm);
  std::memset(w->cost, 0, sizeof(double) * nm);
  for (int t = 0; t < w->terms; t++) {
    const int j = w->col[t];
    w->lower[j] = w->left[w->beg[t]];
    w->upper[j] = w->right[w->beg[t + 1] - 1];
  }
  lp->status = 1;
  lp->phase = 0;
  lp->actionCode = 2;
  int err = lpRunSimplex(lp, 0, clock);
  std::memcpy(w->cost, keep, sizeof(double) * nm);
  envFree(lp->env, keep);
  if (err == 100001 || err == 100002) {
    lp->status = VRX_NUMERIC;
    err = 0;
  }
  const bool found = !err && lp->status == VRX_OPTIMAL;
  for (int t = 0; t < w->terms; t++) {
    const int j = w->col[t], st = lp->varStat[j];
    double x = 0.0;
    if (st >= 0)
      x = lp->quadMode ? static_cast<double>(lp->BbarQ[st]) : lp->Bbar[st];
    else if (st == VRX_VS_LOWER || st == VRX_VS_FIX_LOWER)
      x = w->lower[j];
    else if (st == VRX_VS_UPPER || st == VRX_VS_FIX_UPPER)
      x = w->upper[j];
    const int s = segmentAt(w, t, x, st != VRX_VS_UPPER && st != VRX_VS_FIX_UPPER);
    pwlSetSegment(lp, t, s);
    if (st < 0 && st != VRX_VS_FIX_LOWER && st != VRX_VS_FIX_UPPER)
      lp->varStat[j] = x == w->right[s] && w->right[s] < kInf ? VRX_VS_UPPER : VRX_VS_LOWER;
  }
  if (found) {
    lp->status = 1;
    lp->phase = 0;
    lp->actionCode = 2;
  }
  return err;
}

}  // namespace

void pwlBasisCodes(const VRXlp* lp, int* vbasis) {
  const VRXpwlobj* w = lp->pwl;
  if (!w) return;
  for (int t = 0; t < w->terms; t++) {
    const int j = w->col[t], st = lp->varStat[j], s = w->seg[t];
    if (st >= 0 || st == VRX_VS_FIX_LOWER || st == VRX_VS_FIX_UPPER) continue;
    const bool low = st == VRX_VS_LOWER && s == w->beg[t] && w->left[s] > -kInf;
    const bool high = st == VRX_VS_UPPER && s == w->beg[t + 1] - 1 && w->right[s] < kInf;
    if (low || high)
      vbasis[j] = low == (w->scale[t] > 0) ? VRX_NONBASIC_LOWER : VRX_NONBASIC_UPPER;
    else
      vbasis[j] = VRX_SUPERBASIC;
  }
}

bool pwlLoadBasis(VRXmodel* model, VRXlp* lp) {
  const auto* ws = static_cast<const VRXwarmstart*>(model->warmStart);
  const int n = lp->n, m = lp->m;
  int* head = lp->factor ? lp->factor->basisHead : nullptr;
  if (!ws || ws->basisState != 2 || !ws->basis || ws->size != n + m || ws->columnCount != n || !head) return false;
  int basic = 0;
  for (int k = 0; k < n + m; ++k) basic += ws->basis[k] == VRX_BASIC;
  if (basic != m) return false;
  VRXpwlobj* w = lp->pwl;
  int pos = 0;
  for (int k = 0; k < n + m; ++k) {
    const int b = ws->basis[k];
    if (b == VRX_BASIC) {
      lp->varStat[k] = pos;
      head[pos++] = k;
      continue;
    }
    const int t = w ? w->termOf[k] : -1;
    bool wantUp = b == VRX_NONBASIC_UPPER;
    if (t >= 0) {
      // An end of the term's range is on the end segment of that side (a negated column
      // reads its segments right to left). A column at an inner break point (superbasic)
      // keeps the segment of the cold start: the primal's first compute, or the dual's,
      // moves it to the break point its reduced cost asks for.
      const bool low = (b == VRX_NONBASIC_LOWER) == (w->scale[t] > 0);
      wantUp = b != VRX_SUPERBASIC && !low;
      const int s = low ? w->beg[t] : w->beg[t + 1] - 1;
      if (b != VRX_SUPERBASIC && (low ? w->left[s] > -kInf : w->right[s] < kInf)) pwlSetSegment(lp, t, s);
    }
    const bool lowFinite = lp->lower[k] > -lp->infBound, upFinite = lp->upper[k] < lp->infBound;
    if (lowFinite && upFinite && lp->lower[k] == lp->upper[k])
      lp->varStat[k] = VRX_VS_FIX_LOWER;
    else if (wantUp && upFinite)
      lp->varStat[k] = VRX_VS_UPPER;
    else if (lowFinite)
      lp->varStat[k] = VRX_VS_LOWER;
    else if (upFinite)
      lp->varStat[k] = VRX_VS_UPPER;
    else
      lp->varStat[k] = VRX_VS_FREE;
  }
  if (w) w->unplaced = 1;
  lp->factor->freshBasis = 1;
  lp->actionCode = 1;
  lp->loadKind = 2;
  lpActiveRebuild(lp);
  return true;
}

bool pwlNativeFits(const VRXmodel* model, int method) {
  const VRXmodeldata* d = model->data;
  return (method == 0 || method == 1) && model->env->par.Presolve == 0 && d->numQNZs == 0 && d->numQConstrs == 0 && pwlConvex(d);
}

int pwlNativeOptimize(VRXmodel* model, int method, Clock& clock) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  // The check in true units may take the scale off the copy, which the segments are in.
  struct KeepVio {
    VRXenv* env;
    int value;
    ~KeepVio() { env->par.VORN_PAR_UNSCALEDVIO = value; }
  } keep{env, env->par.VORN_PAR_UNSCALEDVIO};
  env->par.VORN_PAR_UNSCALEDVIO = 0;
  const bool fresh = model->lp == nullptr;
  VRXlp* lp = nullptr;
  int err = lpSetupRun(model, method, clock, &lp);
  if (err) return err;
  if (fresh) pwlLoadBasis(model, lp);
  // Both loops move the columns across their segments themselves. What they leave to
  // change (numerics) is taken up by a further run on the segments in force; every run
  // lowers the objective, so these end, and a bound on them guards against numerics that
  // keep the segments moving.
  const int rounds = 20 + 4 * (lp->pwl ? lp->pwl->segs : 0);
  if (lp->pwl) lp->pwl->rounds = 0;
  // The primal's phase I measures the terms against their whole ranges: its verdict of
  // infeasibility stands.
  bool ranged = method == 0;
  for (int round = 0;; round++) {
    err = lpRunSimplex(lp, method, clock);
    if (err == 100001 || err == 100002) {
      lp->status = VRX_NUMERIC;
      err = 0;
    }
    if (err) return err;
    if (lp->status == VRX_INFEASIBLE && lp->pwl && !ranged) {
      // The dual's segments may be what makes the rows infeasible; the whole ranges decide.
      ranged = true;
      if ((err = wholeRangePass(lp, clock))) return err;
      if (lp->status != 1) break;
      continue;
    }
    if (lp->status != VRX_OPTIMAL || !lp->pwl) break;
    const int moved = lp->quadMode ? pwlCross<long double>(lp, lp->CbarQ, lp->BbarQ)
                                   : pwlCross<double>(lp, lp->Cbar, lp->Bbar);
    if (moved == 0) break;
    lp->pwl->rounds++;
    if (round >= rounds) {
      // Numerics that keep the segments moving: the LP form decides.
      VRXlpFreeOnModel(model);
      return pwlOptimize(model, clock);
    }
    lp->status = 1;
    lp->phase = 0;
    lp->actionCode = 2;
  }
  int status = lp->status;
  if (status == VRX_OPTIMAL && lp->cutoff < kInf && lp->dualObj > lp->cutoff) status = VRX_CUTOFF;
  model->status = status;
  err = lpPublish(model, lp);
  if (err) return err;
  VRXresult* r = model->result;
  const VRXpwlobj* w = lp->pwl;
  // The norms belong to the segments in force, which a start does not carry.
  envFree(env, r->vDualNorm);
  envFree(env, r->cDualNorm);
  r->vDualNorm = r->cDualNorm = nullptr;
  if (r->vBasis) pwlBasisCodes(lp, r->vBasis);
  if (r->x && w) {
    // The objective on the model's own terms. A term's column inside a segment or at an
    // inner break point has reduced cost 0 (the term's slope, or a subgradient at the
    // break point, takes it up); at a bound the slope of the segment inside counts.
    const double sense = d->modelSense;
    double obj = d->objCon;
    for (int j = 0; j < d->numVars; j++) obj += d->obj[j] * r->x[j] + pwlValue(d, j, r->x[j]);
    r->objVal = sense * obj;
    for (int t = 0; r->rc && t < w->terms; t++) {
      const int j = w->col[t], s = w->seg[t], st = lp->varStat[j];
      const bool atBound = (st == VRX_VS_LOWER && s == w->beg[t]) || (st == VRX_VS_UPPER && s == w->beg[t + 1] - 1) ||
                           st == VRX_VS_FIX_LOWER || st == VRX_VS_FIX_UPPER;
      if (atBound)
        r->rc[j] += sense * (w->slope[s] - w->base[t]) / (lp->objScale * w->scale[t]);
      else
        r->rc[j] = 0.0;
    }
  } else if (w && status == VRX_OPTIMAL) {
    r->objVal = lp->sense * lp->dualObj;
  }
  lpClosingLines(model, r, clockElapsed(clock));
  return 0;
}

}  // namespace vrx
