// The LP driver: setup, the simplex loops, the results in true units, the closing lines.
#include "simplex/lpdriver.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/barrier.h"
#include "model/callback.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model/result.h"
#include "presolve/lpbridge.h"
#include "presolve/dualise.h"
#include "presolve/lpsolve.h"
#include "presolve/pwl.h"
#include "simplex/dual.h"
#include "simplex/lp.h"
#include "simplex/primal.h"
#include "simplex/pwl.h"
#include "simplex/qpsd.h"
#include "simplex/simplex.h"

namespace vrx {

namespace {

bool finishedStatus(int s) { return s == 2 || s == 3 || s == 4 || s == 5; }

// Basis statuses of the record in the model's terms: 0 basic, -1 lower, -2 upper, -3 free.
int modelBasisCode(int vs) {
  if (vs >= 0) return VRX_BASIC;
  switch (vs) {
    case VRX_VS_LOWER:
    case VRX_VS_FIX_LOWER: return VRX_NONBASIC_LOWER;
    case VRX_VS_UPPER:
    case VRX_VS_FIX_UPPER: return VRX_NONBASIC_UPPER;
    default: return VRX_SUPERBASIC;
  }
}

// Which parts of the warm-start record a fresh record can start from.
struct StartParts {
  bool basis;   // a checked basis of the model's shape
  bool values;  // PStart complete
  bool duals;   // DStart complete
};

bool completeVector(const double* v, int count) {
  for (int k = 0; k < count; ++k)
    if (!(std::fabs(v[k]) < kInf)) return false;
  return true;
}

StartParts startParts(const VRXmodel* model) {
  StartParts sp{false, false, false};
  const auto* ws = static_cast<const VRXwarmstart*>(model->warmStart);
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  if (!ws || ws->size != n + m || ws->columnCount != n) return sp;
  sp.basis = ws->basisState == 2 && ws->basis;
  // A partial start (state 3) keeps the half that is complete.
  if (ws->start && (ws->startState == 2 || ws->startState == 3)) {
    sp.values = completeVector(ws->start, n);
    sp.duals = completeVector(ws->start + n, m);
  }
  return sp;
}

// With a complete PStart the nonbasic variables take their start values in the record's
// units (slacks from the row activities); those off their bounds stay superbasic at that
// value for the primal to move. Returns the count of superbasics, -1 when out of memory
// (nothing changed then).
int loadStartValues(VRXlp* lp, const VRXwarmstart* ws) {
  const int n = lp->n, m = lp->m;
  if (!ws->start || (ws->startState != 2 && ws->startState != 3)) return 0;
  if (!completeVector(ws->start, n)) return 0;
  if (!lp->warmStart) {
    lp->warmStart = envAllocArray<double>(lp->env, static_cast<size_t>(n + m) + 1);
    if (!lp->warmStart) return -1;
  }
  double* v = lp->warmStart;
  const char* flipped = lp->copy && lp->copy->flippedCount > 0 ? lp->copy->colFlipped : nullptr;
  for (int j = 0; j < n; ++j) {
    double x = ws->start[j];
    if (flipped && flipped[j]) x = -x;
    v[j] = lp->colScale ? x / lp->colScale[j] : x;
  }
  for (int i = 0; i < m; ++i) v[n + i] = lp->rhs[i];
  for (int j = 0; j < n; ++j) {
    if (v[j] == 0.0) continue;
    for (int64_t p = lp->colBeg[j]; p < lp->colBeg[j] + lp->colLen[j]; ++p)
      v[n + lp->rowInd[p]] -= lp->val[p] * v[j];
  }
  int count = 0;
  for (int k = 0; k < n + m; ++k) {
    if (lp->varStat[k] >= 0) continue;
    const double lo = lp->lower[k], up = lp->upper[k];
    const double x = std::min(std::max(v[k], lo), up);
    v[k] = x;
    const double tol = lp->feasTol * (1.0 + std::fabs(x));
    if (lo > -lp->infBound && x - lo <= tol) {
      lp->varStat[k] = VRX_VS_LOWER;
    } else if (up < lp->infBound && up - x <= tol) {
      lp->varStat[k] = VRX_VS_UPPER;
    } else if (lo > -lp->infBound || up < lp->infBound || x != 0.0) {
      lp->varStat[k] = VRX_VS_FREE;
      ++count;
    }
  }
  return count;
}

void logSuperbasics(VRXenv* env, int count) {
  if (count > 0) log(env, "Superbasic variables: %d.\n", count);
}

// Matches columns to rows for a start basis: each column, in order, gets a row of its own
// among the open rows where it has a fair entry (a hundredth of its largest), by
// augmenting paths, so a column matched before may move to another row but keeps one.
// tier[i] is the tier of row i (0 closed); the rows of tier 1 are filled first, then those
// of tier 2. The matched columns replace the slacks of their rows: a basis that is regular
// by its pattern, whose numerically dependent columns the factor sends back to slacks.
void placeMatched(VRXlp* lp, const EnvVec<int>& order, const EnvVec<char>& tier, int tiers) {
  const int n = lp->n, m = lp->m;
  VRXenv* env = lp->env;
  EnvVec<int> colOf(env), rowOf(env), seen(env), stackCol(env), stackVia(env);
  EnvVec<int64_t> stackPos(env);
  colOf.resize(static_cast<size_t>(m) + 1, -1);
  seen.resize(static_cast<size_t>(m) + 1, -1);
  rowOf.resize(static_cast<size_t>(n) + 1, -1);
  EnvVec<double> colMax(env);
  colMax.resize(static_cast<size_t>(n) + 1, 0.0);
  for (size_t o = 0; o < order.size(); ++o) {
    const int j = order[o];
    for (int64_t q = lp->colBeg[j]; q < lp->colBeg[j] + lp->colLen[j]; ++q)
      colMax[static_cast<size_t>(j)] = std::max(colMax[static_cast<size_t>(j)], std::fabs(lp->val[q]));
  }
  auto fair = [lp, &colMax](int j, int64_t k) { return std::fabs(lp->val[k]) >= 0.01 * colMax[static_cast<size_t>(j)]; };
  // The path of the search: a column, its next entry, and the row it was reached by.
  stackCol.resize(static_cast<size_t>(n) + 1);
  stackVia.resize(static_cast<size_t>(n) + 1);
  stackPos.resize(static_cast<size_t>(n) + 1);
  int stamp = 0;
  for (char t = 1; t <= tiers; ++t) {
    for (size_t o = 0; o < order.size(); ++o) {
      const int j0 = order[o];
      if (rowOf[static_cast<size_t>(j0)] >= 0) continue;
      ++stamp;
      size_t depth = 1;
      stackCol[0] = j0;
      stackVia[0] = -1;
      stackPos[0] = lp->colBeg[j0];
      while (depth > 0) {
        const size_t top = depth - 1;
        const int c = stackCol[top];
        const int64_t end = lp->colBeg[c] + lp->colLen[c];
        int64_t& k = stackPos[top];
        int next = -1;
        for (; k < end; ++k) {
          const int i = lp->rowInd[k];
          const char ti = tier[static_cast<size_t>(i)];
          if (ti == 0 || ti > t || seen[static_cast<size_t>(i)] == stamp || !fair(c, k)) continue;
          seen[static_cast<size_t>(i)] = stamp;
          next = i;
          ++k;
          break;
        }
        if (next < 0) {
          --depth;
          continue;
        }
        const int holder = colOf[static_cast<size_t>(next)];
        if (holder >= 0) {
          stackCol[depth] = holder;
          stackVia[depth] = next;
          stackPos[depth] = lp->colBeg[holder];
          ++depth;
          continue;
        }
        // Each column on the path moves to the row below it; the first column's row is new.
        int r = next;
        for (size_t level = depth; level-- > 0;) {
          const int col = stackCol[level];
          rowOf[static_cast<size_t>(col)] = r;
          colOf[static_cast<size_t>(r)] = col;
          r = stackVia[level];
        }
        break;
      }
    }
  }
  int* head = lp->factor->basisHead;
  for (int i = 0; i < m; ++i) {
    const int j = colOf[static_cast<size_t>(i)];
    if (j < 0) continue;
    const int p = lp->varStat[n + i];
    head[p] = j;
    lp->varStat[j] = p;
    lp->varStat[n + i] = lp->upper[n + i] == lp->lower[n + i] ? VRX_VS_FIX_LOWER : VRX_VS_LOWER;
  }
}

// The record took a basis of its own making: the loops start by factoring it.
void startFromBasis(VRXlp* lp, int loadKind) {
  lp->factor->freshBasis = 1;
  lp->actionCode = 1;
  lp->loadKind = loadKind;
  lpActiveRebuild(lp);
}

// A start from PStart alone: the values on the slack basis, then the off-bound columns go
// into the basis in the rows that are tight at the start, the sparser columns first as they
// block fewer rows; a row with room keeps its slack, and what cannot be placed stays
// superbasic. Returns the count of superbasics left, -1 when out of memory.
int primalStart(VRXmodel* model, VRXlp* lp) {
  const auto* ws = static_cast<const VRXwarmstart*>(model->warmStart);
  const int n = lp->n, m = lp->m;
  if (loadStartValues(lp, ws) < 0) return -1;
  const double* v = lp->warmStart;
  try {
    EnvVec<int> order(lp->env);
    EnvVec<char> tight(lp->env);
    order.reserve(static_cast<size_t>(n) + 1);
    tight.resize(static_cast<size_t>(m) + 1, 0);
    for (int j = 0; j < n; ++j)
      if (lp->varStat[j] == VRX_VS_FREE && lp->colLen[j] > 0) order.push_back(j);
    std::stable_sort(order.data(), order.data() + order.size(),
                     [lp](int a, int b) { return lp->colLen[a] < lp->colLen[b]; });
    for (int i = 0; i < m; ++i)
      tight[static_cast<size_t>(i)] = std::fabs(v[n + i]) <= lp->feasTol * (1.0 + std::fabs(lp->rhs[i]));
    placeMatched(lp, order, tight, 1);
  } catch (const std::bad_alloc&) {
    return -1;
  }
  int left = 0;
  for (int j = 0; j < n + m; ++j)
    left += lp->varStat[j] == VRX_VS_FREE &&
            (lp->lower[j] > -lp->infBound || lp->upper[j] < lp->infBound || v[j] != 0.0);
  logSuperbasics(model->env, left);
  startFromBasis(lp, 1);
  return left;
}

// A start from DStart, with PStart when that is complete too. The reduced costs c - A'y
// pick the columns that may be basic, those near zero, and the columns strictly inside
// their bounds go first; they are placed as above, first in the rows whose dual is not
// zero (their slacks must leave), then in the other rows without room. The other columns
// sit at the bound their reduced cost points to. 0 or 10001.
int dualStart(VRXmodel* model, VRXlp* lp, bool withValues) {
  const auto* ws = static_cast<const VRXwarmstart*>(model->warmStart);
  const VRXmodeldata* d = model->data;
  VRXenv* env = model->env;
  const int n = d->numVars, m = d->numConstrs;
  const double sense = d->modelSense;
  const double* x = withValues ? ws->start : nullptr;
  const double ftol = env->par.FeasibilityTol, otol = env->par.OptimalityTol;
  const char* flipped = lp->copy && lp->copy->flippedCount > 0 ? lp->copy->colFlipped : nullptr;
  try {
    EnvVec<double> y(env), key(env), act(env), dj(env);
    EnvVec<int> order(env);
    EnvVec<char> tier(env);
    y.resize(static_cast<size_t>(m) + 1);
    act.resize(static_cast<size_t>(m) + 1, 0.0);
    dj.resize(static_cast<size_t>(n) + 1);
    key.resize(static_cast<size_t>(n) + 1);
    // The published duals are in the caller's sense; the store minimises.
    for (int i = 0; i < m; ++i) y[static_cast<size_t>(i)] = sense * ws->start[n + i];
    for (int j = 0; j < n; ++j) {
      double r = d->obj[j];
      for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) {
        r -= d->val[k] * y[static_cast<size_t>(d->rowInd[k])];
        if (x) act[static_cast<size_t>(d->rowInd[k])] += d->val[k] * x[j];
      }
      dj[static_cast<size_t>(j)] = r;
      const double t = ftol * (1.0 + (x ? std::fabs(x[j]) : 0.0));
      const bool inside = x && x[j] > d->lb[j] + t && x[j] < d->ub[j] - t;
      const double k = inside ? -1.0 : std::fabs(r);
      key[static_cast<size_t>(j)] = k;
      if (d->lb[j] < d->ub[j] && lp->colLen[j] > 0 && k <= otol * (1.0 + std::fabs(d->obj[j])))
        order.push_back(j);
    }
    std::stable_sort(order.data(), order.data() + order.size(), [&key, lp](int a, int b) {
      const double ka = key[static_cast<size_t>(a)], kb = key[static_cast<size_t>(b)];
      return ka != kb ? ka < kb : lp->colLen[a] < lp->colLen[b];
    });
    tier.resize(static_cast<size_t>(m) + 1);
    for (int i = 0; i < m; ++i) {
      const bool room = x && d->sense[i] != '=' &&
                        std::fabs(d->rhs[i] - act[static_cast<size_t>(i)]) > ftol * (1.0 + std::fabs(d->rhs[i]));
      tier[static_cast<size_t>(i)] = room ? 0 : std::fabs(y[static_cast<size_t>(i)]) > otol ? 1 : 2;
    }
    // Nonbasic columns first, at the bound of their reduced cost (in the record's
    // orientation a negated column has its bounds swapped).
    for (int j = 0; j < n; ++j) {
      if (lp->varStat[j] >= 0) continue;
      const double r = dj[static_cast<size_t>(j)];
      bool upper = r < 0;
      if (r == 0 && x) upper = std::fabs(x[j] - d->ub[j]) < std::fabs(x[j] - d->lb[j]);
      if (flipped && flipped[j]) upper = !upper;
      const bool lf = lp->lower[j] > -lp->infBound, uf = lp->upper[j] < lp->infBound;
      if (lf && uf && lp->lower[j] == lp->upper[j]) lp->varStat[j] = VRX_VS_FIX_LOWER;
      else if (upper && uf) lp->varStat[j] = VRX_VS_UPPER;
      else if (lf) lp->varStat[j] = VRX_VS_LOWER;
      else if (uf) lp->varStat[j] = VRX_VS_UPPER;
      else lp->varStat[j] = VRX_VS_FREE;
    }
    placeMatched(lp, order, tier, 2);
  } catch (const std::bad_alloc&) {
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  startFromBasis(lp, 2);
  return 0;
}

// Starts the record from the warm-start basis of the model, when one was set and checked.
// Returns true when the record took it.
bool applyWarmBasis(VRXmodel* model, VRXlp* lp) {
  const auto* ws = static_cast<const VRXwarmstart*>(model->warmStart);
  const int n = lp->n, m = lp->m;
  if (!ws || ws->basisState != 2 || !ws->basis || ws->size != n + m || ws->columnCount != n)
    return false;
  int basic = 0;
  for (int k = 0; k < n + m; ++k) basic += ws->basis[k] == VRX_BASIC;
  if (basic != m) return false;
  int* head = lp->factor ? lp->factor->basisHead : nullptr;
  if (!head) return false;
  int pos = 0;
  for (int k = 0; k < n + m; ++k) {
    int b = ws->basis[k];
    if (b == VRX_BASIC) {
      lp->varStat[k] = pos;
      head[pos++] = k;
      continue;
    }
    bool lowFinite = lp->lower[k] > -lp->infBound, upFinite = lp->upper[k] < lp->infBound;
    if (b == VRX_NONBASIC_UPPER && upFinite)
      lp->varStat[k] = VRX_VS_UPPER;
    else if (lowFinite)
      lp->varStat[k] = VRX_VS_LOWER;
    else if (upFinite)
      lp->varStat[k] = VRX_VS_UPPER;
    else
      lp->varStat[k] = VRX_VS_FREE;
  }
  // Short of memory the start values are left out; the basis alone still serves.
  logSuperbasics(model->env, loadStartValues(lp, ws));
  startFromBasis(lp, 2);
  // Norms given with the basis spare the dual its weight start; unusable ones are ignored.
  if (ws->normState == 2 && ws->norms) VRXdualLoadNorms(lp, ws->norms, ws->norms + n);
  return true;
}

}  // namespace

int lpCheckFinalFactor(VRXlp* lp, Clock& clock, bool* ok) {
  *ok = false;
  const int n = lp->n, m = lp->m;
  VRXfactor* f = lp->factor;
  if (lp->quadMode != 0 || !f || !lp->Bbar) return VRX_ERROR_DATA_NOT_AVAILABLE;
  if (m == 0) {
    *ok = true;
    return 0;
  }
  int* head = f->basisHead;
  for (int p = 0; p < m; ++p) {
    const int j = head[p];
    if (j < 0 || j >= n + m || lp->varStat[j] != p) return 0;
  }
  VRXenv* env = lp->env;
  double work = 0;
  VRXfactorMatrix A = lpFactorMatrix(lp);
  VRXfactorCtl ctl;
  lpFactorCtlLoad(lp, &ctl);
  // A check must see the basis as it is: no rescue, no repair.
  ctl.hasSavedState = 0;
  int unpivoted = 0;
  f->freshBasis = 1;
  int rc = VRXfactorFactorize(f, &A, head, &ctl, &work, &unpivoted);
  clockCharge(clock, work);
  work = 0;
  if (rc == VRX_ERROR_OUT_OF_MEMORY) return rc;
  if (rc || unpivoted > 0 || !f->valid) {
    f->freshBasis = 1;
    f->valid = 0;
    return 0;
  }
  double* xs = envCallocArray<double>(env, static_cast<size_t>(n + m) + 1);
  double* row = envCallocArray<double>(env, 2 * static_cast<size_t>(m) + 1);
  VRXsvec in{}, out{};
  if (!xs || !row || svecAlloc(env, &in, m) || svecAlloc(env, &out, m)) {
    rc = VRX_ERROR_OUT_OF_MEMORY;
  } else {
    for (int k = 0; k < n + m; ++k) {
      const int vs = lp->varStat[k];
      if (vs >= 0) continue;
      double v = lp->warmStart ? lp->warmStart[k] : 0.0;
      if (vs == VRX_VS_LOWER || vs == VRX_VS_FIX_LOWER) v = lp->lower[k];
      if (vs == VRX_VS_UPPER || vs == VRX_VS_FIX_UPPER) v = lp->upper[k];
      if (std::fabs(v) >= lp->infBound) v = 0;
      xs[k] = v;
    }
    in.count = -1;
    for (int i = 0; i < m; ++i) in.value[i] = lp->rhs[i];
    for (int k = 0; k < n + m; ++k) {
      if (lp->varStat[k] >= 0 || xs[k] == 0.0) continue;
      for (int64_t p = lp->colBeg[k]; p < lp->colBeg[k] + lp->colLen[k]; ++p)
        in.value[lp->rowInd[p]] -= lp->val[p] * xs[k];
    }
    rc = VRXftran(f, &in, &out, 0, 1, &work);
    clockCharge(clock, work);
    if (!rc) {
      if (out.count < 0) {
        for (int p = 0; p < m; ++p) xs[head[p]] = out.value[p];
      } else {
        for (int k = 0; k < out.count; ++k) xs[head[out.index[k]]] = out.value[out.index[k]];
      }
      // The residual b - A x over the whole matrix, against the size of the row's terms.
      double* resid = row;
      double* size = row + m;
      for (int i = 0; i < m; ++i) {
        resid[i] = lp->rhs[i];
        size[i] = std::fabs(lp->rhs[i]);
      }
      for (int k = 0; k < n + m; ++k) {
        if (xs[k] == 0.0) continue;
        for (int64_t p = lp->colBeg[k]; p < lp->colBeg[k] + lp->colLen[k]; ++p) {
          const double t = lp->val[p] * xs[k];
          resid[lp->rowInd[p]] -= t;
          size[lp->rowInd[p]] += std::fabs(t);
        }
      }
      clockCharge(clock, 2.0 * static_cast<double>(lp->nnz + m) * lp->workFactor);
      bool good = true;
      for (int i = 0; i < m && good; ++i) good = std::fabs(resid[i]) <= lp->feasTol * std::max(1.0, size[i]);
      // The values the run ended with must be those of the basis.
      for (int p = 0; p < m && good; ++p) {
        const double x = xs[head[p]];
        good = std::fabs(x - lp->Bbar[p]) <= lp->feasTol * std::max(1.0, std::fabs(x));
      }
      *ok = good;
    }
  }
  svecFree(env, &in);
  svecFree(env, &out);
  envFree(env, xs);
  envFree(env, row);
  return rc == VRX_ERROR_OUT_OF_MEMORY ? rc : 0;
}

// The solution of the record in true units and the caller's terms, into a fresh result.
int lpPublish(VRXmodel* model, VRXlp* lp) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = lp->n, m = lp->m;
  const double sense = d->modelSense;
  if (lp->quadMode == 1) {
    int err = VRXlpToDouble(lp);
    // The extended run kept its factor in extended form: make a double one of the same basis.
    if (!err && !lp->factor) err = VRXlpLoad(lp);
    if (err) return err;
  }
  VRXresult* r = resultCreate(env, d->numVars, d->numConstrs, d->numQConstrs);
  if (!r) return VRX_ERROR_OUT_OF_MEMORY;
  resultFree(env, model->result);
  model->result = r;
  r->iterCount = lp->iterCount + lp->priorIter;
  r->vBasis = envAllocArray<int>(env, static_cast<size_t>(n) + 1);
  r->cBasis = envAllocArray<int>(env, static_cast<size_t>(m) + 1);
  if (!r->vBasis || !r->cBasis) return VRX_ERROR_OUT_OF_MEMORY;
  for (int j = 0; j < n; ++j) r->vBasis[j] = modelBasisCode(lp->varStat[j]);
  for (int i = 0; i < m; ++i) r->cBasis[i] = modelBasisCode(lp->varStat[n + i]);
  if (lp->status == VRX_UNBOUNDED) {
    // The primal loop keeps the direction that proves unboundedness.
    double* ray = envCallocArray<double>(env, static_cast<size_t>(n + m) + 1);
    if (!ray) return VRX_ERROR_OUT_OF_MEMORY;
    if (primalRay(lp, ray) == 0) {
      r->unbdRay = ray;
    } else {
      envFree(env, ray);
    }
    return 0;
  }
  if (lp->status == VRX_INFEASIBLE && env->par.InfUnbdInfo) {
    double proof = 0;
    double* lambda = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
    if (!lambda) return VRX_ERROR_OUT_OF_MEMORY;
    int rc = lpFarkas(model, lp, lambda, &proof);
    if (rc == 0) {
      r->farkasDual = lambda;
      r->farkasProof = proof;
    } else {
      envFree(env, lambda);
      if (rc == VRX_ERROR_OUT_OF_MEMORY) return rc;
    }
    return 0;
  }
  if (lp->status != VRX_OPTIMAL) return 0;
  if (lp->method == 1 && lp->pricing && lp->pricing->prepared) {
    // The dual's weights belong to the final basis only when the dual ended the run.
    r->vDualNorm = envAllocArray<double>(env, static_cast<size_t>(n) + 1);
    r->cDualNorm = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
    if (!r->vDualNorm || !r->cDualNorm) return VRX_ERROR_OUT_OF_MEMORY;
    VRXdualGetNorms(lp, r->vDualNorm, r->cDualNorm);
  }

  // Scaled primal values: nonbasic at their bounds, basic from B x_B = b - N x_N.
  double* xs = envCallocArray<double>(env, static_cast<size_t>(n + m) + 1);
  double* rowv = envCallocArray<double>(env, static_cast<size_t>(m) + 1);
  VRXsvec in{}, out{};
  int err = VRX_ERROR_OUT_OF_MEMORY;
  if (xs && rowv && !svecAlloc(env, &in, m) && !svecAlloc(env, &out, m)) {
    err = 0;
    for (int k = 0; k < n + m; ++k) {
      int vs = lp->varStat[k];
      if (vs >= 0) continue;
      // A superbasic (or a free nonbasic) stands at its start value when there is one.
      double v = lp->warmStart ? lp->warmStart[k] : 0.0;
      if (vs == VRX_VS_LOWER || vs == VRX_VS_FIX_LOWER) v = lp->lower[k];
      if (vs == VRX_VS_UPPER || vs == VRX_VS_FIX_UPPER) v = lp->upper[k];
      if (std::fabs(v) >= lp->infBound) v = 0;
      xs[k] = v;
    }
    for (int i = 0; i < m; ++i) rowv[i] = lp->rhs[i];
    for (int k = 0; k < n + m; ++k) {
      if (lp->varStat[k] >= 0 || xs[k] == 0.0) continue;
      for (int64_t p = lp->colBeg[k]; p < lp->colBeg[k] + lp->colLen[k]; ++p)
        rowv[lp->rowInd[p]] -= lp->val[p] * xs[k];
    }
    VRXfactorMatrix A = lpFactorMatrix(lp);
    double work = 0;
    if (lp->factor->freshBasis) {
      VRXfactorCtl ctl;
      lpFactorCtlLoad(lp, &ctl);
      err = VRXfactorRefactor(lp->factor, &A, lp->factor->basisHead, &ctl, &work);
      lpFactorCtlStore(lp, &ctl);
    }
    if (!err) {
      in.count = -1;
      for (int i = 0; i < m; ++i) in.value[i] = rowv[i];
      err = VRXftran(lp->factor, &in, &out, 0, 1, &work);
    }
    if (!err) {
      const int* head = lp->factor->basisHead;
      if (out.count < 0) {
        for (int p = 0; p < m; ++p) xs[head[p]] = out.value[p];
      } else {
        for (int k = 0; k < out.count; ++k) xs[head[out.index[k]]] = out.value[out.index[k]];
      }
      // Duals: B^T y = g_B in the scaled copy, g the gradient (the cost of an LP).
      svecClear(&in, m);
      in.count = -1;
      for (int p = 0; p < m; ++p) in.value[p] = lp->cost[head[p]];
      const VRXmodeldata* cp = lp->copy;
      for (int k = 0; cp && k < cp->numQNZs; k++) {
        const int a = cp->qRow[k], b = cp->qCol[k];
        const double qv = a == b ? cp->qVal[k] : 0.5 * cp->qVal[k];
        if (lp->varStat[a] >= 0) in.value[lp->varStat[a]] += qv * xs[b];
        if (a != b && lp->varStat[b] >= 0) in.value[lp->varStat[b]] += qv * xs[a];
      }
      err = VRXbtran(lp->factor, &in, &out, 1, &work);
    }
    if (!err) {
      double* ys = rowv;
      for (int i = 0; i < m; ++i) ys[i] = 0;
      if (out.count < 0) {
        for (int i = 0; i < m; ++i) ys[i] = out.value[i];
      } else {
        for (int k = 0; k < out.count; ++k) ys[out.index[k]] = out.value[out.index[k]];
      }
      r->x = envAllocArray<double>(env, static_cast<size_t>(n + m) + 1);
      r->pi = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
      r->slack = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
      r->rc = envAllocArray<double>(env, static_cast<size_t>(n) + 1);
      if (!r->x || !r->pi || !r->slack || !r->rc) {
        err = VRX_ERROR_OUT_OF_MEMORY;
      } else {
        lpUnscalePrimal(lp, xs, r->x);
        lpUnscaleDual(lp, ys, r->pi);
        // Rows of sense '>' were negated in the copy; the store keeps the minimising sense.
        for (int i = 0; i < m; ++i) {
          if (d->sense[i] == '>') r->pi[i] = -r->pi[i];
        }
        // Slacks and reduced costs in true units from the store itself; with Q the
        // gradient takes the place of the cost (xs is free to hold Q x now).
        for (int i = 0; i < m; ++i) r->slack[i] = d->rhs[i];
        double obj = d->objCon;
        double* qx = xs;
        for (int j = 0; j < n; ++j) qx[j] = 0;
        for (int k = 0; k < d->numQNZs; ++k) {
          const int a = d->qRow[k], b = d->qCol[k];
          const double qv = a == b ? d->qVal[k] : 0.5 * d->qVal[k];
          qx[a] += qv * r->x[b];
          if (a != b) qx[b] += qv * r->x[a];
        }
        for (int j = 0; j < n; ++j) obj += 0.5 * qx[j] * r->x[j];
        for (int j = 0; j < n; ++j) {
          double rc = d->obj[j] + qx[j];
          for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p) {
            r->slack[d->rowInd[p]] -= d->val[p] * r->x[j];
            rc -= d->val[p] * r->pi[d->rowInd[p]];
          }
          r->rc[j] = sense * rc;
          obj += d->obj[j] * r->x[j];
        }
        for (int i = 0; i < m; ++i) r->pi[i] *= sense;
        r->objVal = sense * obj;
        r->solCount = 1;
      }
    }
  }
  svecFree(env, &in);
  svecFree(env, &out);
  envFree(env, xs);
  envFree(env, rowv);
  return err;
}

void lpClosingLines(VRXmodel* model, const VRXresult* r, double seconds, const UnscaledQuality* uq) {
  VRXenv* env = model->env;
  // A concurrent instance: the run closes once, for the winner.
  if (env->cbData && env->cbData->instanceRun) return;
  int status = model->status;
  double iters = r ? r->iterCount : 0;
  if (finishedStatus(status))
    log(env, "Solved in %d iterations and %.2f seconds\n", static_cast<int>(iters), seconds);
  else
    log(env, "Stopped in %d iterations and %.2f seconds\n", static_cast<int>(iters), seconds);
  switch (status) {
    case VRX_OPTIMAL:
      log(env, "Optimal objective %16.9e\n", r ? r->objVal : 0.0);
      if (uq && env->par.VORN_PAR_UNSCALEDVIO != 0) {
        if (std::max(uq->primalViol, uq->primalResid) > env->par.FeasibilityTol)
          log(env, "Warning: unscaled primal violation = %g and residual = %g\n", uq->primalViol,
              uq->primalResid);
        if (uq->dualViol > env->par.OptimalityTol)
          log(env, "Warning: unscaled dual violation = %g and residual = %g\n", uq->dualViol,
              uq->dualResid);
      }
      break;
    case VRX_INFEASIBLE: log(env, "Infeasible model\n"); break;
    case VRX_INF_OR_UNBD: log(env, "Infeasible or unbounded model\n"); break;
    case VRX_UNBOUNDED: log(env, "Unbounded model\n"); break;
    case VRX_CUTOFF: log(env, "Model objective exceeds cutoff\n"); break;
    case VRX_ITERATION_LIMIT: log(env, "Iteration limit reached\n"); break;
    case VRX_TIME_LIMIT:
    case VRX_INTERRUPTED:
      if (env->terminateFlagRef && *env->terminateFlagRef == kStopSolvedElsewhere)
        log(env, "Simplex solve interrupted - model solved by another algorithm\n");
      else
        log(env, status == VRX_TIME_LIMIT ? "Time limit reached\n" : "Solve interrupted\n");
      break;
    case VRX_NUMERIC: log(env, "Numeric error\n"); break;
    default: break;
  }
}

namespace {

// A warm start of the model's shape (a basis, PStart or DStart): the solve starts from it,
// not from presolve.
bool hasWarmStart(const VRXmodel* model) {
  const StartParts sp = startParts(model);
  return sp.basis || sp.values || sp.duals;
}

// Presolve, the solve of the presolved model, uncrush and the clean-up simplex. Returns 0
// with model->lp solved, or with *settled set when presolve decided the model alone, or
// with neither when the original is to be solved as it is.
int presolvedRun(VRXmodel* model, int method, Clock& clock, bool* settled, int* winner) {
  *settled = false;
  PresolvedSolve ps;
  int err = lpPresolveSolve(model, method, clock, &ps);
  *winner = ps.winner;
  if (err || !ps.handled) return err;
  if (!model->lp) {
    model->status = ps.status;
    *settled = true;
  }
  return 0;
}

// A result without values, for a model that presolve settled.
int publishEmpty(VRXmodel* model) {
  VRXresult* r = resultCreate(model->env, model->data->numVars, model->data->numConstrs,
                              model->data->numQConstrs);
  if (!r) return VRX_ERROR_OUT_OF_MEMORY;
  resultFree(model->env, model->result);
  model->result = r;
  r->iterCount = 0;
  return 0;
}

// The simplex on the model's own record: the kept one, or a new one from the warm basis or
// the slack basis. A start that falls apart at once is dropped for a cold solve.
int directRun(VRXmodel* model, int method, Clock& clock) {
  bool fresh = model->lp == nullptr;
  VRXlp* lp = nullptr;
  // The model itself is the LP the driver solves: the dual's stronger perturbation.
  int err = lpSetupRun(model, method, clock, &lp, VRX_LPKIND_LP);
  if (err) return err;
  int runMethod = method;
  if (fresh) {
    const StartParts sp = startParts(model);
    if (sp.basis) {
      applyWarmBasis(model, lp);
    } else if (sp.duals) {
      err = dualStart(model, lp, sp.values);
    } else if (sp.values) {
      const int superbasics = primalStart(model, lp);
      if (superbasics < 0) err = VRX_ERROR_OUT_OF_MEMORY;
      // Superbasic values are the primal's to move.
      if (superbasics > 0) runMethod = 0;
    }
    if (err) return err;
  }
  err = lpRunSimplex(lp, runMethod, clock);
  if (err == 100001 || err == 100002) {
    VRXlpFreeOnModel(model);
    err = lpSetupRun(model, method, clock, &lp, VRX_LPKIND_LP);
    if (err) return err;
    err = lpRunSimplex(lp, method, clock);
  }
  return err;
}

// An unbounded end without a ray (the dual's), or an infeasible one without a proof when the
// caller asks for it: the primal goes on from the basis and leaves its proof.
int addProofs(VRXmodel* model, VRXlp* lp, Clock& clock) {
  const bool wantRay = lp->status == VRX_UNBOUNDED && !(lp->primal && lp->primal->rayValid);
  const bool wantFarkas = lp->status == VRX_INFEASIBLE && model->env->par.InfUnbdInfo &&
                          !(lp->primal && lp->primal->farkasValid);
  if (!wantRay && !wantFarkas) return 0;
  if (VRXprimalFromDual(lp) < 0) return 0;
  int rc = lpRunSimplex(lp, 0, clock);
  if (rc == 100001 || rc == 100002) rc = 0;
  return rc;
}

// A kept record that ended finished, on an unchanged model: its result stands. With
// VORN_PAR_SIMPLEXENDFAC a fresh factor of its basis must confirm it first; a record that
// fails is dropped for a new solve. *reuse 1 when the record is to be published as it is.
int keptResult(VRXmodel* model, int method, Clock& clock, int* reuse) {
  *reuse = 0;
  VRXenv* env = model->env;
  auto* lp = static_cast<VRXlp*>(model->lp);
  // A record left by another method (or by another solver) is solved again by this one.
  if (!model->result || model->result->spxMethod != method) return 0;
  if (!finishedStatus(lp->status) || lp->quadMode != 0 || !lp->factor || !lp->Bbar) return 0;
  if (lp->m != model->data->numConstrs || lp->n != model->data->numVars) return 0;
  if (env->par.VORN_PAR_SIMPLEXENDFAC != 0) {
    bool ok = false;
    int err = lpCheckFinalFactor(lp, clock, &ok);
    if (err) return err;
    if (!ok) {
      VRXlpFreeOnModel(model);
      return 0;
    }
  }
  // Each optimize counts its own iterations; the limits of this call apply to what follows.
  const ParamStore& par = env->par;
  lp->iterCount = 0;
  lp->priorIter = 0;
  lp->outputLevel = par.OutputFlag;
  lp->cutoff = std::fabs(par.Cutoff) < kInf ? lp->sense * par.Cutoff : kInf;
  *reuse = 1;
  return 0;
}

int lpFinish(VRXmodel* model, VRXlp* lp, Clock& clock, bool verify = true) {
  VRXenv* env = model->env;
  // The proofs and the check in true units are those of a linear objective.
  const bool quadratic = model->data->numQNZs > 0;
  int err = 0;
  if (verify && !quadratic && env->par.VORN_PAR_SIMPLEXENDFAC != 0 && finishedStatus(lp->status) &&
      lp->quadMode == 0 && lp->factor && lp->Bbar) {
    // The run's factor carries its updates: a fresh one of the final basis must agree with
    // what the run ended on, otherwise the simplex goes on from that basis.
    bool ok = true;
    err = lpCheckFinalFactor(lp, clock, &ok);
    if (err) return err;
    if (!ok) {
      if (lp->factor) lp->factor->freshBasis = 1;
      lp->status = 1;
      lp->phase = 0;
      const int method = lp->method == 1 ? 1 : 0;
      err = lpRunSimplex(lp, method, clock);
      if (err == 100001 || err == 100002) {
        err = 0;
        lp->status = VRX_NUMERIC;
      }
      if (err) return err;
    }
  }
  err = quadratic ? 0 : addProofs(model, lp, clock);
  if (err) return err;
  int status = lp->status;
  if (status == 2 && lp->cutoff < kInf && lp->dualObj > lp->cutoff) status = VRX_CUTOFF;
  model->status = status;
  UnscaledQuality uq;
  bool haveQuality = !quadratic && status == VRX_OPTIMAL && env->par.VORN_PAR_UNSCALEDVIO != 0 &&
                     lpUnscaledQuality(lp, &uq) == 0;
  double kappa = -1;
  if (status >= VRX_OPTIMAL && status <= VRX_UNBOUNDED) {
    err = lpKappa(lp, clock, &kappa);
    if (err == VRX_ERROR_OUT_OF_MEMORY) return err;
  }
  err = lpPublish(model, lp);
  if (err) return err;
  if (kappa >= 0) model->result->kappa = kappa;
  if (kappa > 1e12 && status != VRX_OPTIMAL && lp->badVar < 0 && lp->outputLevel > 0)
    log(env, "Warning: very big Kappa = %g, try parameter NumericFocus\n", kappa);
  lpClosingLines(model, model->result, clockElapsed(clock), haveQuality ? &uq : nullptr);
  return 0;
}

// A convex quadratic objective (checked before the run): the primal with superbasic steps
// on the original model, without presolve.
int qpRun(VRXmodel* model, Clock& clock) {
  VRXlp* lp = nullptr;
  int err = lpSetupRun(model, 0, clock, &lp);
  return err ? err : VRXqpSolve(lp, clock);
}

// Parameters the driver or the steps under it may change for a run, put back at its end.
struct SavedParams {
  VRXenv* env;
  ParamStore keep;
  explicit SavedParams(VRXenv* e) : env(e), keep(e->par) {}
  ~SavedParams() {
    ParamStore& p = env->par;
    p.Presolve = keep.Presolve;
    p.MarkowitzTol = keep.MarkowitzTol;
    p.Cutoff = keep.Cutoff;
    p.VORN_PAR_UNSCALEDVIO = keep.VORN_PAR_UNSCALEDVIO;
    p.Aggregate = keep.Aggregate;
    p.DualReductions = keep.DualReductions;
    p.PreDepRow = keep.PreDepRow;
    p.VORN_PAR_PREBOUND = keep.VORN_PAR_PREBOUND;
    p.ScaleFlag = keep.ScaleFlag;
  }
};

}  // namespace

int lpSetupRun(VRXmodel* model, int method, Clock& clock, VRXlp** out, int modelKind) {
  *out = nullptr;
  double work = 0;
  VRXlpSetupOpts so;
  so.modelKind = modelKind;
  int err = VRXlpSetup(model, method, &work, &so);
  if (err) return err;
  clockCharge(clock, work);
  auto* lp = static_cast<VRXlp*>(model->lp);
  // Each optimize counts its own iterations, also when it goes on from a kept record.
  lp->iterCount = 0;
  lp->priorIter = 0;
  lp->status = 1;
  *out = lp;
  return 0;
}

int lpFinishRecord(VRXmodel* model, Clock& clock) {
  return lpFinish(model, static_cast<VRXlp*>(model->lp), clock);
}

int lpKappa(VRXlp* lp, Clock& clock, double* kappa) {
  *kappa = -1;
  const int m = lp->m;
  if (m == 0 || lp->quadMode || !lp->factor) return VRX_ERROR_DATA_NOT_AVAILABLE;
  VRXenv* env = lp->env;
  VRXfactor* f = lp->factor;
  // A rebuild here could repair the basis behind the caller's back: only a factor of the
  // final basis is measured.
  if (!f->valid || f->freshBasis) return VRX_ERROR_DATA_NOT_AVAILABLE;
  double work = 0;
  // |B|_1: the largest column sum of the basic columns.
  double normB = 0;
  for (int p = 0; p < m; p++) {
    const int j = f->basisHead[p];
    double sum = 1.0;
    if (j < lp->n) {
      sum = 0;
      for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++) sum += std::fabs(lp->val[k]);
    }
    normB = std::max(normB, sum);
  }
  // |B^-1|_1 by the power-like estimate on the sign vectors (Hager), a few solves at most.
  VRXsvec in{}, out{};
  if (svecAlloc(env, &in, m) || svecAlloc(env, &out, m)) {
    svecFree(env, &in);
    svecFree(env, &out);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  double* x = envAllocArray<double>(env, 3 * static_cast<size_t>(m));
  if (!x) {
    svecFree(env, &in);
    svecFree(env, &out);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  double* y = x + m;
  double* z = y + m;
  auto dense = [m](const VRXsvec* v, double* to) {
    if (v->count < 0) {
      std::memcpy(to, v->value, sizeof(double) * static_cast<size_t>(m));
      return;
    }
    std::memset(to, 0, sizeof(double) * static_cast<size_t>(m));
    for (int k = 0; k < v->count; k++) to[v->index[k]] = v->value[v->index[k]];
  };
  for (int i = 0; i < m; i++) x[i] = 1.0 / m;
  double est = 0;
  int rc = 0;
  int last = -1;
  for (int round = 0; round < 5 && !rc; round++) {
    svecClear(&in, m);
    in.count = -1;
    for (int i = 0; i < m; i++) in.value[i] = x[i];
    if ((rc = VRXftran(f, &in, &out, 0, 1, &work))) break;
    dense(&out, y);
    double norm1 = 0;
    for (int p = 0; p < m; p++) norm1 += std::fabs(y[p]);
    if (round > 0 && norm1 <= est) break;
    est = norm1;
    svecClear(&in, m);
    in.count = -1;
    for (int p = 0; p < m; p++) in.value[p] = y[p] >= 0 ? 1.0 : -1.0;
    if ((rc = VRXbtran(f, &in, &out, 1, &work))) break;
    dense(&out, z);
    int best = 0;
    double zx = 0;
    for (int i = 0; i < m; i++) {
      zx += z[i] * x[i];
      if (std::fabs(z[i]) > std::fabs(z[best])) best = i;
    }
    if (std::fabs(z[best]) <= zx || best == last) break;
    last = best;
    std::memset(x, 0, sizeof(double) * static_cast<size_t>(m));
    x[best] = 1.0;
  }
  svecFree(env, &in);
  svecFree(env, &out);
  envFree(env, x);
  clockCharge(clock, work);
  if (rc) return rc;
  *kappa = normB * est;
  return 0;
}

namespace {

// lambda of the store from the phase-I duals, and its proof; z is scratch over n + m.
int farkasInStore(const VRXmodeldata* d, const VRXlp* lp, double* lambda, double* z, double* proof) {
  const int n = lp->n, m = lp->m;
  double* ys = z + n;
  int rc = primalFarkas(lp, ys);
  if (rc) return rc;
  lpUnscaleDual(lp, ys, lambda);
  // Store orientation; then lambda <= 0 on '<' rows and >= 0 on '>' rows, so that every
  // point meeting the rows has lambda'A x >= lambda'b.
  double big = 0;
  for (int i = 0; i < m; i++) {
    if (d->sense[i] == '>') lambda[i] = -lambda[i];
    big = std::max(big, std::fabs(lambda[i]));
  }
  if (big == 0) return VRX_ERROR_DATA_NOT_AVAILABLE;
  for (int i = 0; i < m; i++) {
    lambda[i] /= big;
    const bool wrong = (d->sense[i] == '<' && lambda[i] > 0) || (d->sense[i] == '>' && lambda[i] < 0);
    if (wrong) {
      if (std::fabs(lambda[i]) > 1e-9) return VRX_ERROR_DATA_NOT_AVAILABLE;
      lambda[i] = 0;
    }
  }
  double lb = 0, amax = 0;
  for (int i = 0; i < m; i++) lb += lambda[i] * d->rhs[i];
  for (int j = 0; j < n; j++) {
    double zj = 0;
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; k++) {
      zj += lambda[d->rowInd[k]] * d->val[k];
      amax = std::max(amax, std::fabs(d->val[k]));
    }
    z[j] = zj;
  }
  // The largest lambda'A x over the bounds; what cancelled to rounding level counts as 0.
  const double tiny = 1e-11 * std::max(1.0, amax);
  double top = 0;
  for (int j = 0; j < n; j++) {
    const double zj = z[j];
    if (std::fabs(zj) <= tiny) continue;
    const double b = zj > 0 ? d->ub[j] : d->lb[j];
    if (std::fabs(b) >= kInf) return VRX_ERROR_DATA_NOT_AVAILABLE;
    top += zj * b;
  }
  if (!(lb - top > 0)) return VRX_ERROR_DATA_NOT_AVAILABLE;
  *proof = lb - top;
  return 0;
}

}  // namespace

int lpFarkas(VRXmodel* model, const VRXlp* lp, double* lambda, double* proof) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = lp->n, m = lp->m;
  if (!d || d->numVars != n || d->numConstrs != m) return VRX_ERROR_DATA_NOT_AVAILABLE;
  double* z = envCallocArray<double>(env, static_cast<size_t>(n) + static_cast<size_t>(m) + 1);
  if (!z) return VRX_ERROR_OUT_OF_MEMORY;
  int rc = farkasInStore(d, lp, lambda, z, proof);
  envFree(env, z);
  return rc;
}


int lpOptimize(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  int method = env->par.Method;
  if (method < 0) method = 1;
  SavedParams saved(env);
  if (method == 2 && model->data->numPWLObjVars > 0 && env->par.Presolve == 0) {
    log(env, "Warning: Barrier needs presolve to translate PWL model into pure LP\n");
    log(env, "         Turning it on and applying it conservatively\n");
    env->par.Presolve = 1;
  }
  // Piecewise terms: the simplex keeps them in its working LP; presolve and the barrier
  // take their LP form.
  if (model->data->numPWLObjVars > 0)
    return pwlNativeFits(model, method) ? pwlNativeOptimize(model, method, clock) : pwlOptimize(model, clock);
  if (env->par.Presolve != 0) numericsGuard(model->data, &env->par);
  if (method == 2 && !VRXisQPForm(model)) return barOptimize(model, clock);
  if (env->par.VORN_PAR_UNSCALEDVIO == -2) env->par.VORN_PAR_UNSCALEDVIO = -1;
  if (env->par.VORN_PAR_SPXCONCURRENT == 1 && model->lp == nullptr) return spxConcurrent(model, clock);
  int err = 0;
  if (model->lp && model->data->numQNZs == 0) {
    int reuse = 0;
    err = keptResult(model, method, clock, &reuse);
    if (!err && reuse) err = lpFinish(model, static_cast<VRXlp*>(model->lp), clock, false);
    if (!err && reuse) model->result->spxMethod = method;
    if (err || reuse) {
      if (err == VRX_ERROR_OUT_OF_MEMORY) log(env, "Out of memory\n");
      return err;
    }
  }
  bool solved = VRXisQPForm(model);
  if (solved) err = qpRun(model, clock);
  // A kept record or a warm basis is the better start; otherwise presolve goes first.
  int winner = -1;
  if (!solved && env->par.Presolve != 0 && model->lp == nullptr && !hasWarmStart(model)) {
    bool settled = false;
    err = presolvedRun(model, method, clock, &settled, &winner);
    if (!err && settled) {
      err = publishEmpty(model);
      if (!err) {
        if (winner >= 0) model->result->concurrentWinner = winner;
        lpClosingLines(model, model->result, clockElapsed(clock));
      }
      return err;
    }
    solved = model->lp != nullptr;
  }
  const int choice = !err && !solved && env->par.Presolve == 0 && model->lp == nullptr && !hasWarmStart(model)
                         ? dualiseChoice(model->data, env->par, method, env->par.Threads > 0 ? env->par.Threads : detectCores())
                         : 0;
  if (choice != 0) {
    DualisedSolve ds{};
    err = lpSolveDualised(model, method, clock, &ds, choice == 2);
    winner = ds.winner;
    if (!err && ds.handled && model->lp == nullptr) {
      model->status = ds.status;
      err = publishEmpty(model);
      if (!err) {
        if (winner >= 0) model->result->concurrentWinner = winner;
        lpClosingLines(model, model->result, clockElapsed(clock));
      }
      return err;
    }
    solved = !err && ds.handled;
  }
  if (!err && !solved) err = directRun(model, method, clock);
  if (!err) err = lpFinish(model, static_cast<VRXlp*>(model->lp), clock);
  if (!err) {
    model->result->spxMethod = method;
    if (winner >= 0) model->result->concurrentWinner = winner;
  }
  if (err == VRX_ERROR_OUT_OF_MEMORY) log(env, "Out of memory\n");
  return err;
}

}  // namespace vrx
