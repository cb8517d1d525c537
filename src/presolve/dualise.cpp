// The dual form of a linear model and the way back.
#include "presolve/dualise.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "env/envvec.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "presolve/lpbridge.h"
#include "simplex/lp.h"

namespace vrx {

void dualMapFree(DualMap* map) {
  if (!map) return;
  VRXenv* env = map->env;
  envFree(env, map->colKind);
  envFree(env, map->colIdx);
  envFree(env, map->rowCol);
  envFree(env, map->lowCol);
  envFree(env, map->upCol);
  envFree(env, map);
}

namespace {

bool finite(double v) { return v > -kInf && v < kInf; }

template <class T>
T* must(VRXenv* env, size_t count) {
  T* a = envAllocArray<T>(env, count ? count : 1);
  if (!a) throw std::bad_alloc();
  return a;
}

int build(VRXmodel* model, VRXmodel** dualOut, DualMap** mapOut) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;

  DualMap* map = static_cast<DualMap*>(envCalloc(env, 1, sizeof(DualMap)));
  if (!map) throw std::bad_alloc();
  struct Guard {
    DualMap* m;
    ~Guard() { dualMapFree(m); }
  } guard{map};
  map->env = env;
  map->n = n;
  map->m = m;
  map->rowCol = must<int>(env, static_cast<size_t>(m));
  map->lowCol = must<int>(env, static_cast<size_t>(n));
  map->upCol = must<int>(env, static_cast<size_t>(n));

  // Row-wise view of the matrix: a primal row is a dual column.
  EnvVec<int64_t> rb(env);
  EnvVec<int> ri(env);
  EnvVec<double> rv(env);
  rb.resize(static_cast<size_t>(m) + 1, 0);
  for (int j = 0; j < n; ++j)
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) rb[static_cast<size_t>(d->rowInd[k]) + 1]++;
  for (int i = 0; i < m; ++i) rb[static_cast<size_t>(i) + 1] += rb[static_cast<size_t>(i)];
  ri.resize(static_cast<size_t>(rb[static_cast<size_t>(m)]) + 1);
  rv.resize(static_cast<size_t>(rb[static_cast<size_t>(m)]) + 1);
  {
    EnvVec<int64_t> fill(env);
    fill.resize(static_cast<size_t>(m) + 1);
    for (int i = 0; i <= m; ++i) fill[static_cast<size_t>(i)] = rb[static_cast<size_t>(i)];
    for (int j = 0; j < n; ++j)
      for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) {
        const int64_t at = fill[static_cast<size_t>(d->rowInd[k])]++;
        ri[static_cast<size_t>(at)] = j;
        rv[static_cast<size_t>(at)] = d->val[k];
      }
  }

  // Dual columns: first the rows, then the bounds.
  EnvVec<size_t> beg(env);
  EnvVec<int> len(env), ind(env), kind(env), idx(env);
  EnvVec<double> val(env), obj(env), lb(env), ub(env);
  auto column = [&](int k, int at, double cost, double lo, double up) {
    beg.push_back(ind.size());
    kind.push_back(k);
    idx.push_back(at);
    obj.push_back(cost);
    lb.push_back(lo);
    ub.push_back(up);
  };
  for (int i = 0; i < m; ++i) {
    const char s = d->sense[i];
    const double b = d->rhs[i];
    // A row with an infinite side binds nowhere: its dual is 0 and has no column.
    if ((s == '<' && b >= kInf) || (s == '>' && b <= -kInf)) {
      map->rowCol[i] = -1;
      continue;
    }
    map->rowCol[i] = static_cast<int>(kind.size());
    const double sign = s == '<' ? -1.0 : 1.0;
    column(kDualRow, i, -sign * b, s == '=' ? -kInf : 0.0, kInf);
    for (int64_t k = rb[static_cast<size_t>(i)]; k < rb[static_cast<size_t>(i) + 1]; ++k) {
      ind.push_back(ri[static_cast<size_t>(k)]);
      val.push_back(sign * rv[static_cast<size_t>(k)]);
    }
    len.push_back(static_cast<int>(ind.size() - beg.back()));
  }
  for (int j = 0; j < n; ++j) {
    const double lo = d->lb[j], up = d->ub[j];
    map->lowCol[j] = map->upCol[j] = -1;
    if (finite(lo) && finite(up) && lo == up) {
      map->lowCol[j] = static_cast<int>(kind.size());
      column(kDualFixed, j, -lo, -kInf, kInf);
      ind.push_back(j);
      val.push_back(1.0);
      len.push_back(1);
      continue;
    }
    if (finite(lo)) {
      map->lowCol[j] = static_cast<int>(kind.size());
      column(kDualLower, j, -lo, 0.0, kInf);
      ind.push_back(j);
      val.push_back(1.0);
      len.push_back(1);
    }
    if (finite(up)) {
      map->upCol[j] = static_cast<int>(kind.size());
      column(kDualUpper, j, up, 0.0, kInf);
      ind.push_back(j);
      val.push_back(-1.0);
      len.push_back(1);
    }
  }
  const int nd = static_cast<int>(kind.size());
  map->dualCols = nd;
  map->colKind = must<int>(env, static_cast<size_t>(nd));
  map->colIdx = must<int>(env, static_cast<size_t>(nd));
  for (int k = 0; k < nd; ++k) {
    map->colKind[k] = kind[static_cast<size_t>(k)];
    map->colIdx[k] = idx[static_cast<size_t>(k)];
  }

  EnvVec<double> rhs(env);
  EnvVec<char> sense(env);
  rhs.resize(static_cast<size_t>(n));
  for (int j = 0; j < n; ++j) rhs[static_cast<size_t>(j)] = d->obj[j];
  sense.resize(static_cast<size_t>(n), '=');
  // Keep the pointers valid for an empty side.
  beg.push_back(ind.size());
  ind.push_back(0);
  val.push_back(0);
  rhs.push_back(0);
  sense.push_back('=');
  len.push_back(0);
  obj.push_back(0);
  lb.push_back(0);
  ub.push_back(0);

  LoadArgs a;
  a.name = "dual";
  a.numVars = nd;
  a.numConstrs = n;
  a.objSense = 1;
  a.objCon = -d->objCon;
  a.obj = obj.data();
  a.sense = sense.data();
  a.rhs = rhs.data();
  a.beg64 = beg.data();
  a.len = len.data();
  a.ind = ind.data();
  a.val = val.data();
  a.lb = lb.data();
  a.ub = ub.data();
  VRXmodel* dual = nullptr;
  int rc = modelLoadDerived(env, a, &dual);
  if (rc) return rc;
  *dualOut = dual;
  *mapOut = map;
  guard.m = nullptr;
  return 0;
}

}  // namespace

int dualiseModel(VRXmodel* model, VRXmodel** dualOut, DualMap** mapOut) {
  *dualOut = nullptr;
  *mapOut = nullptr;
  const VRXmodeldata* d = model->data;
  if (d->numIntVars > 0 || d->numSOS > 0 || d->numQNZs > 0 || d->numQConstrs > 0 || d->numPWLObjVars > 0 ||
      d->numCones > 0 || d->numGenConstrs > 0)
    return VRX_ERROR_NOT_SUPPORTED;
  try {
    return build(model, dualOut, mapOut);
  } catch (const std::bad_alloc&) {
    return VRX_ERROR_OUT_OF_MEMORY;
  }
}

int dualMapBack(const DualMap* map, const VRXmodeldata* primal, const LPPoint& dual, LPPoint& out) {
  VRXenv* env = map->env;
  const int n = map->n, m = map->m;
  double* y = envAllocArray<double>(env, static_cast<size_t>(m) + 1);
  if (!y) return VRX_ERROR_OUT_OF_MEMORY;
  // Row duals: the flipped columns of '<' rows turn their sign back.
  for (int i = 0; i < m; ++i) {
    const int k = map->rowCol[i];
    y[i] = k < 0 ? 0.0 : (primal->sense[i] == '<' ? -dual.x[k] : dual.x[k]);
  }
  for (int i = 0; i < m; ++i) {
    if (out.y) out.y[i] = y[i];
    // A dual column at its bound leaves the primal row's slack in the basis.
    if (out.rowStat) {
      const int k = map->rowCol[i];
      out.rowStat[i] = (k >= 0 && dual.colStat[k] == kStBasic) ? kRowActive : kRowBasic;
    }
  }
  for (int j = 0; j < n; ++j) {
    const double lo = primal->lb[j], up = primal->ub[j];
    const int kl = map->lowCol[j], ku = map->upCol[j];
    const bool lowBasic = kl >= 0 && dual.colStat[kl] == kStBasic;
    const bool upBasic = ku >= 0 && dual.colStat[ku] == kStBasic;
    // x_j is minus the dual of its equation in the dual form.
    double x = -dual.y[j];
    double dj = primal->obj[j];
    for (int64_t k = primal->colBeg[j]; k < primal->colBeg[j] + primal->colLen[j]; ++k)
      dj -= primal->val[k] * y[primal->rowInd[k]];
    int st;
    if (kl >= 0 && map->colKind[kl] == kDualFixed) {
      st = lowBasic ? (dj < 0 ? kStUpper : kStLower) : kStBasic;
    } else if (lowBasic) {
      st = kStLower;
    } else if (upBasic) {
      st = kStUpper;
    } else if (dual.rowStat && dual.rowStat[j] == kRowBasic) {
      // The equation's own slack is basic: nothing holds x_j, which goes to the
      // bound nearest to 0.
      if (finite(lo) && (!finite(up) || std::fabs(lo) <= std::fabs(up)))
        st = kStLower;
      else if (finite(up))
        st = kStUpper;
      else
        st = kStFree;
    } else {
      st = kStBasic;
    }
    if (st == kStLower) x = lo;
    if (st == kStUpper) x = up;
    if (st == kStFree) x = 0;
    if (out.x) out.x[j] = x;
    if (out.d) out.d[j] = dj;
    if (out.colStat) out.colStat[j] = st;
  }
  envFree(env, y);
  return 0;
}

int dualisedPoint(VRXmodel* model, int method, Clock& clock, LPPoint& out, int* status, double* iters) {
  *status = 0;
  *iters = 0;
  VRXenv* env = model->env;
  VRXmodel* dm = nullptr;
  DualMap* map = nullptr;
  int rc = dualiseModel(model, &dm, &map);
  if (rc) return rc;
  struct Owned {
    VRXmodel* dm;
    DualMap* map;
    double* block = nullptr;
    ~Owned() {
      VRXlpFreeOnModel(dm);
      modelDestroy(dm);
      envFree(map->env, block);
      dualMapFree(map);
    }
  } own{dm, map};
  const int dn = dm->data->numVars, dr = dm->data->numConstrs;
  const size_t doubles = 2 * static_cast<size_t>(dn) + dr + 3;
  const size_t ints = static_cast<size_t>(dn) + dr + 2;
  own.block = static_cast<double*>(envMalloc(env, doubles * sizeof(double) + ints * sizeof(int)));
  if (!own.block) return VRX_ERROR_OUT_OF_MEMORY;
  double* x = own.block;
  double* d = x + dn + 1;
  double* y = d + dn + 1;
  int* cs = reinterpret_cast<int*>(y + dr + 1);
  int* rs = cs + dn + 1;
  const int dualMethod = 1 - method;
  rc = VRXlpSetup(dm, dualMethod, &clock.work);
  if (rc) return rc;
  VRXlp* lp = static_cast<VRXlp*>(dm->lp);
  rc = lpRunSimplex(lp, dualMethod, clock);
  if (rc) return rc;
  *iters = lp->iterCount;
  // The dual form unbounded proves the model infeasible; infeasible, it leaves both open.
  if (lp->status == VRX_UNBOUNDED) {
    *status = VRX_INFEASIBLE;
    return 0;
  }
  if (lp->status == VRX_INFEASIBLE || lp->status == VRX_INF_OR_UNBD) {
    *status = VRX_INF_OR_UNBD;
    return 0;
  }
  if (lp->status != VRX_OPTIMAL) {
    *status = lp->status;
    return 0;
  }
  LPPoint pt{x, y, d, cs, rs};
  rc = lpReadPoint(lp, pt);
  if (rc) return rc;
  rc = dualMapBack(map, model->data, pt, out);
  if (rc) return rc;
  *status = VRX_OPTIMAL;
  return 0;
}

int lpSolveDualised(VRXmodel* model, int method, Clock& clock, DualisedSolve* out, bool bothForms) {
  out->handled = 0;
  out->status = 0;
  out->dualIters = 0;
  out->extraIters = 0;
  out->winner = -1;
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  double* block =
      static_cast<double*>(envMalloc(env, (2 * static_cast<size_t>(n) + m + 3) * sizeof(double) +
                                              (static_cast<size_t>(n) + m + 2) * sizeof(int)));
  if (!block) return VRX_ERROR_OUT_OF_MEMORY;
  struct Free {
    VRXenv* env;
    double* b;
    ~Free() { envFree(env, b); }
  } hold{env, block};
  double* x = block;
  double* dd = x + n + 1;
  double* y = dd + n + 1;
  int* cs = reinterpret_cast<int*>(y + m + 1);
  int* rs = cs + n + 1;
  LPPoint pt{x, y, dd, cs, rs};
  int status = 0;
  int rc = bothForms ? concurrentFormsPoint(model, method, clock, pt, &status, &out->dualIters, &out->winner)
                     : dualisedPoint(model, method, clock, pt, &status, &out->dualIters);
  if (rc == VRX_ERROR_NOT_SUPPORTED) return 0;
  if (rc) return rc;
  out->handled = 1;
  if (status != VRX_OPTIMAL) {
    out->status = status;
    return 0;
  }
  // A mapped basis that falls apart leaves the model to a cold solve.
  // The model's own form leaves its optimal basis: the clean-up only confirms it.
  const char* what = out->winner == 0 ? "for concurrent cleanup" : "from dual to original model";
  rc = lpCleanupFrom(model, method, cs, rs, out->dualIters, what, clock, &out->extraIters);
  if (rc) return rc;
  if (out->extraIters < 0) {
    out->extraIters = 0;
    out->handled = 0;
  }
  return 0;
}

int dualiseChoice(const VRXmodeldata* d, const ParamStore& par, int method, int threads) {
  const int m = d->numConstrs, n = d->numVars;
  if (!par.DualReductions || n <= 0 || par.PreDual == 0) return 0;
  if (d->numPWLObjVars > 0 || d->numQNZs > 0 || d->numQConstrs > 0 || d->numCones > 0) return 0;
  const bool tall = static_cast<double>(m) > 5.0 * n;
  if (par.PreDual == 1) return 1;
  if (par.PreDual == 2) {
    if (threads > 1) return 2;
    return method != 2 && tall ? 1 : 0;
  }
  // Automatic. The barrier keeps its own rule.
  if (method == 2) return 0;
  if (threads > 1 && method == 1 && n < m && m > 100000) return 2;
  return tall ? 1 : 0;
}

int numericsGuard(const VRXmodeldata* d, ParamStore* par) {
  if (par->Method >= 2 || par->PreDual != -1 || par->Presolve == 0) return 0;
  const int n = d->numVars, m = d->numConstrs;
  double mn = kInf, mx = 0;
  for (int j = 0; j < n; ++j)
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) {
      const double v = std::fabs(d->val[k]);
      if (v == 0.0) continue;
      mn = std::min(mn, v);
      mx = std::max(mx, v);
    }
  if (mx == 0 || mx / (mn + 1e-10) <= 1e15) return 0;
  int freeCols = 0;
  for (int j = 0; j < n; ++j)
    if (d->lb[j] <= -kInf && d->ub[j] >= kInf) freeCols++;
  if (freeCols >= 0.2 * std::min(m, n)) return 0;
  par->Aggregate = 0;
  par->DualReductions = 0;
  par->PreDepRow = 0;
  par->VORN_PAR_PREBOUND = 0;
  par->MarkowitzTol = 0.9;
  return 1;
}

}  // namespace vrx
