// Result records, the objective table, and the two measured attribute families.
#include "model/result.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "model/modeldata.h"

namespace vrx {

VRXresult* resultCreate(VRXenv* env, int numVars, int numConstrs, int numQConstrs) {
  auto* r = static_cast<VRXresult*>(envCalloc(env, 1, sizeof(VRXresult)));
  if (!r) return nullptr;
  r->numVars = numVars;
  r->numConstrs = numConstrs;
  r->numQConstrs = numQConstrs;
  double* scalars[] = {&r->objVal,    &r->objBound,      &r->objBoundC,   &r->poolObjBound,
                       &r->mipGap,    &r->iterCount,     &r->iterCount0,  &r->nodeCount,
                       &r->openNodeCount, &r->tOpen,     &r->barIterCount, &r->concurrentWinner,
                       &r->farkasProof, &r->infeasVar,   &r->unbdVar,     &r->kappa,
                       &r->kappaExact, &r->n2Kappa};
  for (double* s : scalars) *s = kNotAvailable;
  r->iisMinimal = -1;
  r->spxMethod = -1;
  return r;
}

void resultFree(VRXenv* env, VRXresult* r) {
  if (!r) return;
  void* arrays[] = {r->x,        r->slack,      r->rc,        r->pi,        r->qcSlack,
                    r->qcPi,     r->barX,       r->vBasis,    r->cBasis,    r->vDualNorm,
                    r->cDualNorm, r->farkasDual, r->unbdRay,  r->saObjLow,  r->saObjUp,
                    r->saLBLow,  r->saLBUp,     r->saUBLow,   r->saUBUp,    r->saRHSLow,
                    r->saRHSUp,  r->iisLB,      r->iisUB,     r->iisConstr, r->iisSOS,
                    r->iisQConstr, r->iisGenConstr, r->varPreStat, r->preFixVal};
  for (void* a : arrays) envFree(env, a);
  envFree(env, r);
}

void objListFree(VRXenv* env, VRXobjlist* list) {
  if (!list) return;
  for (int k = 0; k < list->count; ++k) {
    envFree(env, list->items[k].coeffs);
    envFree(env, list->items[k].name);
  }
  envFree(env, list->items);
  envFree(env, list);
}

namespace {

struct Range {
  double hi = 0;
  double lo = 0;
  bool any = false;
  void add(double v) {
    double a = std::fabs(v);
    if (a == 0.0 || a >= kInf) return;
    if (!any || a > hi) hi = a;
    if (!any || a < lo) lo = a;
    any = true;
  }
};

}  // namespace

void computeStatistics(const VRXmodeldata* d, double stats[stCount][2]) {
  Range r[stCount];
  for (int j = 0; j < d->numVars; ++j) {
    for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p)
      r[stCoeff].add(storeValue(d, d->rowInd[p], j, d->val[p]));
    r[stObjCoeff].add(d->obj[j]);
    r[stBound].add(d->lb[j]);
    r[stBound].add(d->ub[j]);
  }
  for (int i = 0; i < d->numConstrs; ++i) r[stRHS].add(d->rhs[i]);
  for (int k = 0; k < d->numQNZs; ++k) r[stQObjCoeff].add(0.5 * d->qVal[k]);
  if (d->numQConstrs > 0) {
    for (int q = 0; q < d->numQConstrs; ++q) {
      for (int64_t p = d->qcQuadBeg[q]; p < d->qcQuadBeg[q + 1]; ++p) r[stQCCoeff].add(d->qcVal[p]);
      for (int64_t p = d->qcLinBeg[q]; p < d->qcLinBeg[q + 1]; ++p) r[stQCLCoeff].add(d->qcLinVal[p]);
      r[stQCRHS].add(d->qcRHS[q]);
    }
  }
  for (int s = 0; s < stCount; ++s) {
    stats[s][0] = r[s].hi;
    stats[s][1] = r[s].lo;
  }
}

namespace {

struct Worst {
  double max = 0;
  double sum = 0;
  int index = -1;
  void add(double v, int i) {
    if (!(v > 0)) return;
    sum += v;
    if (v > max) {
      max = v;
      index = i;
    }
  }
};

// The slopes of the piecewise term of column j at x: left and right ones at a breakpoint,
// the segment's on both sides inside it; the end segments extend beyond the points.
void pwlSlopes(const VRXmodeldata* d, int j, double x, double* left, double* right) {
  const double* px = d->pwlX + d->pwlBeg[j];
  const double* py = d->pwlY + d->pwlBeg[j];
  const int cnt = d->pwlCount[j];
  *left = *right = 0;
  if (cnt < 2) return;
  // Segments of zero width (a jump) carry no slope.
  auto slope = [&](int k) { return (py[k + 1] - py[k]) / (px[k + 1] - px[k]); };
  int first = -1, last = -1;
  for (int k = 0; k + 1 < cnt; ++k) {
    if (px[k + 1] <= px[k]) continue;
    if (first < 0) first = k;
    last = k;
  }
  if (first < 0) return;
  const double tol = 1e-9 * (1 + std::fabs(x));
  *left = slope(first);
  *right = slope(last);
  bool leftSet = false;
  for (int k = first; k <= last; ++k) {
    if (px[k + 1] <= px[k]) continue;
    const double s = slope(k);
    if (x >= px[k + 1] - tol) {
      *left = s;
      leftSet = true;
      continue;
    }
    if (x <= px[k] + tol) {
      *right = s;
      if (!leftSet) *left = s;
      return;
    }
    *left = *right = s;
    return;
  }
}

}  // namespace

int computeQuality(VRXenv* env, const VRXmodeldata* d, VRXresult* r) {
  Worst w[qCount];
  const int n = d->numVars, m = d->numConstrs;
  const double sense = d->modelSense;
  const double* x = r->x;
  if (x) {
    // Row activities, column by column.
    double* act = envCallocArray<double>(env, static_cast<size_t>(m) + 1);
    if (!act) return VRX_ERROR_OUT_OF_MEMORY;
    {
      for (int j = 0; j < n; ++j)
        for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p)
          act[d->rowInd[p]] += storeValue(d, d->rowInd[p], j, d->val[p]) * x[j];
      for (int i = 0; i < m; ++i) {
        double viol = 0;
        double gap = act[i] - d->rhs[i];
        if (d->sense[i] == '<') viol = gap > 0 ? gap : 0;
        else if (d->sense[i] == '>') viol = gap < 0 ? -gap : 0;
        else viol = std::fabs(gap);
        w[qConstr].add(viol, i);
        w[qConstrS].add(viol, i);
        if (r->slack) {
          double res = std::fabs(d->rhs[i] - act[i] - r->slack[i]);
          w[qConstrResidual].add(res, i);
          w[qConstrSResidual].add(res, i);
        }
        if (r->pi) w[qCompl].add(std::fabs(r->pi[i] * gap), i);
      }
      envFree(env, act);
    }
    for (int j = 0; j < n; ++j) {
      double v = x[j];
      char t = d->vtype[j];
      double viol = 0;
      bool semi = (t == 'S' || t == 'N') && v == 0.0;
      if (!semi) {
        if (v < d->lb[j]) viol = d->lb[j] - v;
        if (v > d->ub[j]) viol = v - d->ub[j];
      }
      w[qBound].add(viol, j);
      w[qBoundS].add(viol, j);
      if (t == 'I' || t == 'B' || (t == 'N' && v != 0.0)) w[qInt].add(std::fabs(v - std::nearbyint(v)), j);
    }
  }
  if (x && r->rc && r->pi) {
    // Duals in minimisation form: rc >= 0 at a lower bound, <= 0 at an upper one.
    double* resid = envCallocArray<double>(env, static_cast<size_t>(n) + 1);
    if (!resid) return VRX_ERROR_OUT_OF_MEMORY;
    for (int j = 0; j < n; ++j) {
      double rc = sense * r->rc[j];
      double lb = d->lb[j], ub = d->ub[j], v = x[j];
      double tol = 1e-9 * (1 + std::fabs(v));
      bool atLb = lb > -kInf && std::fabs(v - lb) <= tol;
      bool atUb = ub < kInf && std::fabs(v - ub) <= tol;
      double viol = 0;
      if (atLb && atUb) viol = 0;
      else if (atLb) viol = rc < 0 ? -rc : 0;
      else if (atUb) viol = rc > 0 ? rc : 0;
      else viol = std::fabs(rc);
      w[qDual].add(viol, j);
      w[qDualS].add(viol, j);
      double dist = kInf;
      if (lb > -kInf) dist = std::fabs(v - lb);
      if (ub < kInf && std::fabs(v - ub) < dist) dist = std::fabs(v - ub);
      if (dist >= kInf) dist = 1;
      w[qCompl].add(std::fabs(rc) * dist, j);
      if (resid) {
        double s = d->obj[j] - rc;
        for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p)
          s -= storeValue(d, d->rowInd[p], j, d->val[p]) * sense * r->pi[d->rowInd[p]];
        // With a piecewise term the reduced cost holds the slope: s = -slope must lie in
        // the slope interval at x_j.
        if (d->pwlCount && d->pwlBeg && d->pwlCount[j] > 0) {
          double lo = 0, hi = 0;
          pwlSlopes(d, j, v, &lo, &hi);
          if (lo > hi) std::swap(lo, hi);
          s = -s;
          s = s < lo ? lo - s : (s > hi ? s - hi : 0.0);
        }
        resid[j] = std::fabs(s);
      }
    }
    for (int i = 0; i < m; ++i) {
      double pi = sense * r->pi[i];
      double viol = 0;
      if (d->sense[i] == '<') viol = pi > 0 ? pi : 0;
      if (d->sense[i] == '>') viol = pi < 0 ? -pi : 0;
      w[qDual].add(viol, i);
      w[qDualS].add(viol, i);
    }
    if (resid) {
      for (int j = 0; j < n; ++j) {
        w[qDualResidual].add(resid[j], j);
        w[qDualSResidual].add(resid[j], j);
      }
      envFree(env, resid);
    }
  }
  for (int q = 0; q < qCount; ++q) {
    r->quality[q] = w[q].max;
    r->qualitySum[q] = w[q].sum;
    r->qualityIndex[q] = w[q].index;
  }
  r->qualityReady = 1;
  return 0;
}

}  // namespace vrx
