// The primal simplex for a convex quadratic objective: a feasible basis from phase I, then
// steps in the space of the superbasic variables (nonbasic columns kept between their bounds)
// along the Newton direction of the reduced Hessian Z'HZ, with a ratio test over the basics
// and superbasics. A blocking basic swaps with a superbasic; a blocking superbasic goes to its
// bound; with no superbasic direction left the nonbasics are priced as in the linear loop.
// Few superbasics: Z'HZ is formed and factored densely. Beyond kDenseSuperbasics the Newton
// system is solved by conjugate gradients through products with Z and Z' (one ftran and one
// btran a step), so memory stays linear in the model and no dense block limits the size.
// Works in the record's scaled units, double arithmetic only.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "model/callback.h"
#include "model/modeldata.h"
#include "presolve/lpbridge.h"
#include "simplex/simplex.h"
#include "simplex/spxlog.h"

namespace vrx {
namespace {

constexpr int kDenseSuperbasics = 64;
constexpr size_t kDenseCells = size_t(1) << 22;
// Conjugate-gradient steps of one direction; the next iteration goes on from the new point.
constexpr int kCgSteps = 250;

// H of f = cost'x + x'Hx/2 over the structurals, symmetric, column lists (duplicates summed
// in products). The copy keeps a term a*x*y as q = 2a: H_xx = q on the diagonal, H_xy = H_yx
// = q/2 off it.
struct Hess {
  int64_t* beg = nullptr;
  int* ind = nullptr;
  double* val = nullptr;
};

struct QP {
  VRXlp* lp = nullptr;
  VRXenv* env = nullptr;
  int n = 0, m = 0, nm = 0;
  Hess H;
  double* x = nullptr;   // nm: the point
  double* g = nullptr;   // nm: gradient
  double* d = nullptr;   // nm: reduced gradient of the nonbasics
  double* y = nullptr;   // m
  double* dx = nullptr;  // nm: step direction
  double* hv = nullptr;  // nm: H times a vector
  int* S = nullptr;      // superbasic variables
  int nS = 0;
  int capS = 0;          // superbasics of the dense step
  double* W = nullptr;   // m x capS, column k = B^-1 a_S[k] by position
  double* HS = nullptr;  // capS x capS
  double* p = nullptr;   // nm: the step over the superbasics
  double* cgR = nullptr;  // nm each: residual, search direction and its product
  double* cgD = nullptr;
  double* cgW = nullptr;
  double* tm = nullptr;   // m: a solve's result by row
  VRXsvec in{}, out{};

  ~QP() {
    envFreeAll(env, H.beg, H.ind, H.val, x, g, d, y, dx, hv, S, W, HS, p, cgR, cgD, cgW, tm);
    svecFree(env, &in);
    svecFree(env, &out);
  }
};

int buildHess(QP& q) {
  const VRXmodeldata* c = q.lp->copy;
  const int n = q.n;
  q.H.beg = envCallocArray<int64_t>(q.env, static_cast<size_t>(n) + 1);
  if (!q.H.beg) return VRX_ERROR_OUT_OF_MEMORY;
  for (int k = 0; k < c->numQNZs; k++) {
    q.H.beg[c->qCol[k]]++;
    if (c->qRow[k] != c->qCol[k]) q.H.beg[c->qRow[k]]++;
  }
  int64_t total = 0;
  for (int j = 0; j <= n; j++) {
    const int64_t cnt = j < n ? q.H.beg[j] : 0;
    q.H.beg[j] = total;
    total += cnt;
  }
  q.H.ind = envAllocArray<int>(q.env, static_cast<size_t>(total) + 1);
  q.H.val = envAllocArray<double>(q.env, static_cast<size_t>(total) + 1);
  int64_t* fill = envAllocArray<int64_t>(q.env, static_cast<size_t>(n) + 1);
  if (!q.H.ind || !q.H.val || !fill) {
    envFree(q.env, fill);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  std::memcpy(fill, q.H.beg, sizeof(int64_t) * static_cast<size_t>(n + 1));
  for (int k = 0; k < c->numQNZs; k++) {
    const int r = c->qRow[k], col = c->qCol[k];
    if (r == col) {
      q.H.ind[fill[col]] = r;
      q.H.val[fill[col]++] = c->qVal[k];
    } else {
      q.H.ind[fill[col]] = r;
      q.H.val[fill[col]++] = 0.5 * c->qVal[k];
      q.H.ind[fill[r]] = col;
      q.H.val[fill[r]++] = 0.5 * c->qVal[k];
    }
  }
  envFree(q.env, fill);
  return 0;
}

// out = H v over the structurals (slack entries of out are 0).
void hessTimes(const QP& q, const double* v, double* out) {
  std::memset(out, 0, sizeof(double) * static_cast<size_t>(q.nm));
  for (int j = 0; j < q.n; j++) {
    const double vj = v[j];
    if (vj == 0.0) continue;
    for (int64_t k = q.H.beg[j]; k < q.H.beg[j + 1]; k++) out[q.H.ind[k]] += q.H.val[k] * vj;
  }
}

double objective(QP& q) {
  hessTimes(q, q.x, q.hv);
  double f = 0;
  for (int j = 0; j < q.nm; j++) f += (q.lp->cost[j] + 0.5 * q.hv[j]) * q.x[j];
  return f;
}

bool isBasic(const QP& q, int j) { return q.lp->varStat[j] >= 0; }
double lo(const QP& q, int j) { return q.lp->lower[j]; }
double up(const QP& q, int j) { return q.lp->upper[j]; }
bool loFinite(const QP& q, int j) { return q.lp->lower[j] > -q.lp->infBound; }
bool upFinite(const QP& q, int j) { return q.lp->upper[j] < q.lp->infBound; }

// Dense copy of a solve's result over dim entries.
void toDense(const VRXsvec& v, int dim, double* to) {
  if (v.count < 0) {
    std::memcpy(to, v.value, sizeof(double) * static_cast<size_t>(dim));
    return;
  }
  std::memset(to, 0, sizeof(double) * static_cast<size_t>(dim));
  for (int k = 0; k < v.count; k++) to[v.index[k]] = v.value[v.index[k]];
}

// a_j'u for a structural or slack j, u by row.
double colDot(const QP& q, int j, const double* u) {
  if (j >= q.n) return u[j - q.n];
  const VRXlp* lp = q.lp;
  double s = 0;
  for (int64_t e = lp->colBeg[j]; e < lp->colBeg[j] + lp->colLen[j]; e++) s += u[lp->rowInd[e]] * lp->val[e];
  return s;
}

// Adds coef * a_j to the dense right-hand side q.in.
void addColumn(QP& q, int j, double coef) {
  if (j >= q.n) {
    q.in.value[j - q.n] += coef;
    return;
  }
  const VRXlp* lp = q.lp;
  for (int64_t e = lp->colBeg[j]; e < lp->colBeg[j] + lp->colLen[j]; e++) q.in.value[lp->rowInd[e]] += lp->val[e] * coef;
}

// Solves B'u = w_B (w over all variables, taken at the basics), or B'u = e_unit when unit is
// a basis position; u by row into to.
int btranBasics(QP& q, const double* w, int unit, double* to, Clock& clock) {
  VRXlp* lp = q.lp;
  svecClear(&q.in, q.m);
  if (unit >= 0) {
    q.in.value[unit] = 1.0;
    q.in.index[0] = unit;
    q.in.count = 1;
  } else {
    q.in.count = -1;
    for (int r = 0; r < q.m; r++) q.in.value[r] = w[lp->factor->basisHead[r]];
  }
  int rc = VRXbtran(lp->factor, &q.in, &q.out, 1, &clock.work);
  svecClear(&q.in, q.m);
  if (rc) return rc;
  toDense(q.out, q.m, to);
  svecClear(&q.out, q.m);
  return 0;
}

// B^-1 a_j by position into to.
int ftranColumn(QP& q, int j, double* to, Clock& clock) {
  VRXlp* lp = q.lp;
  svecClear(&q.in, q.m);
  if (j < q.n) {
    int cnt = 0;
    for (int64_t k = lp->colBeg[j]; k < lp->colBeg[j] + lp->colLen[j]; k++) {
      q.in.value[lp->rowInd[k]] = lp->val[k];
      q.in.index[cnt++] = lp->rowInd[k];
    }
    q.in.count = cnt;
  } else {
    q.in.value[j - q.n] = 1.0;
    q.in.index[0] = j - q.n;
    q.in.count = 1;
  }
  int rc = VRXftran(lp->factor, &q.in, &q.out, 0, 1, &clock.work);
  svecClear(&q.in, q.m);
  if (rc) return rc;
  toDense(q.out, q.m, to);
  svecClear(&q.out, q.m);
  return 0;
}

// Builds the factor of the basis; a repair may have pushed columns out, which then join the
// superbasics when they sit between their bounds. Basic values are recomputed.
int refactor(QP& q, Clock& clock) {
  VRXlp* lp = q.lp;
  int rc = 0;
  if (q.m > 0) {
    VRXfactorMatrix A = lpFactorMatrix(lp);
    VRXfactorCtl ctl;
    lpFactorCtlLoad(lp, &ctl);
    rc = VRXfactorRefactor(lp->factor, &A, lp->factor->basisHead, &ctl, &clock.work);
    lpFactorCtlStore(lp, &ctl);
    if (rc) return rc;
    if (!lp->factor->valid) return 12;
  }
  // Nonbasic statuses from the values: interior ones are superbasic.
  q.nS = 0;
  const double tol = lp->feasTol;
  for (int j = 0; j < q.nm; j++) {
    if (isBasic(q, j)) continue;
    const double v = q.x[j];
    const bool atLo = loFinite(q, j) && v <= lo(q, j) + tol;
    const bool atUp = upFinite(q, j) && v >= up(q, j) - tol;
    if (loFinite(q, j) && upFinite(q, j) && lo(q, j) == up(q, j)) {
      lp->varStat[j] = VRX_VS_FIX_LOWER;
      q.x[j] = lo(q, j);
    } else if (atLo) {
      lp->varStat[j] = VRX_VS_LOWER;
      q.x[j] = lo(q, j);
    } else if (atUp) {
      lp->varStat[j] = VRX_VS_UPPER;
      q.x[j] = up(q, j);
    } else {
      lp->varStat[j] = VRX_VS_FREE;
      q.S[q.nS++] = j;
    }
  }
  lpActiveRebuild(lp);
  if (q.m == 0) return 0;
  // x_B = B^-1 (b - N x_N).
  svecClear(&q.in, q.m);
  q.in.count = -1;
  for (int i = 0; i < q.m; i++) q.in.value[i] = lp->rhs[i];
  for (int j = 0; j < q.nm; j++)
    if (!isBasic(q, j) && q.x[j] != 0.0) addColumn(q, j, -q.x[j]);
  rc = VRXftran(lp->factor, &q.in, &q.out, 0, 1, &clock.work);
  svecClear(&q.in, q.m);
  if (rc) return rc;
  toDense(q.out, q.m, q.y);  // y as scratch by position
  svecClear(&q.out, q.m);
  for (int p = 0; p < q.m; p++) q.x[lp->factor->basisHead[p]] = q.y[p];
  return 0;
}

// Gradient, duals, and the reduced gradient of every nonbasic.
int reducedGradient(QP& q, Clock& clock) {
  VRXlp* lp = q.lp;
  hessTimes(q, q.x, q.g);
  for (int j = 0; j < q.nm; j++) q.g[j] += lp->cost[j];
  if (q.m > 0) {
    int rc = btranBasics(q, q.g, -1, q.y, clock);
    if (rc) return rc;
  }
  for (int j = 0; j < q.nm; j++) q.d[j] = isBasic(q, j) ? 0.0 : q.g[j] - colDot(q, j, q.y);
  return 0;
}

// Dense Cholesky of the k x k matrix a (row stride ld) in place; false when a pivot is not
// clearly positive.
bool cholesky(double* a, int k, int ld) {
  double scale = 0;
  for (int i = 0; i < k; i++) scale = std::max(scale, std::fabs(a[i * ld + i]));
  const double tiny = 1e-12 * std::max(1.0, scale);
  for (int j = 0; j < k; j++) {
    double s = a[j * ld + j];
    for (int t = 0; t < j; t++) s -= a[j * ld + t] * a[j * ld + t];
    if (s <= tiny) return false;
    s = std::sqrt(s);
    a[j * ld + j] = s;
    for (int i = j + 1; i < k; i++) {
      double v = a[i * ld + j];
      for (int t = 0; t < j; t++) v -= a[i * ld + t] * a[j * ld + t];
      a[i * ld + j] = v / s;
    }
  }
  return true;
}

void choleskySolve(const double* a, int k, int ld, double* b) {
  for (int i = 0; i < k; i++) {
    double v = b[i];
    for (int t = 0; t < i; t++) v -= a[i * ld + t] * b[t];
    b[i] = v / a[i * ld + i];
  }
  for (int i = k - 1; i >= 0; i--) {
    double v = b[i];
    for (int t = i + 1; t < k; t++) v -= a[t * ld + i] * b[t];
    b[i] = v / a[i * ld + i];
  }
}

// The Newton step's descent check: a step that does not go down is replaced by the steepest
// descent over the superbasics. Returns the slope d_S'p.
double descentSlope(QP& q) {
  double s = 0;
  for (int k = 0; k < q.nS; k++) s += q.d[q.S[k]] * q.p[k];
  if (s < 0) return s;
  s = 0;
  for (int k = 0; k < q.nS; k++) {
    q.p[k] = -q.d[q.S[k]];
    s -= q.p[k] * q.p[k];
  }
  return s;
}

// The dense superbasic direction: Newton on Z'HZ where it is positive definite, steepest
// descent otherwise. Fills dx over all variables; returns the slope g'dx.
int denseDirection(QP& q, Clock& clock, double* slope) {
  VRXlp* lp = q.lp;
  const int* head = lp->factor->basisHead;
  const int nS = q.nS, ld = q.capS;
  for (int k = 0; k < nS; k++) {
    int rc = ftranColumn(q, q.S[k], q.W + static_cast<size_t>(k) * q.m, clock);
    if (rc) return rc;
  }
  // Z'HZ, z_k = e_S[k] - B^-1 a_S[k] placed on the basics.
  for (int k = 0; k < nS; k++) {
    std::memset(q.dx, 0, sizeof(double) * static_cast<size_t>(q.nm));
    q.dx[q.S[k]] = 1.0;
    const double* wk = q.W + static_cast<size_t>(k) * q.m;
    for (int r = 0; r < q.m; r++) q.dx[head[r]] -= wk[r];
    hessTimes(q, q.dx, q.hv);
    for (int l = 0; l <= k; l++) {
      const double* wl = q.W + static_cast<size_t>(l) * q.m;
      double v = q.hv[q.S[l]];
      for (int r = 0; r < q.m; r++) v -= wl[r] * q.hv[head[r]];
      q.HS[k * ld + l] = q.HS[l * ld + k] = v;
    }
  }
  for (int k = 0; k < nS; k++) q.p[k] = -q.d[q.S[k]];
  if (cholesky(q.HS, nS, ld)) choleskySolve(q.HS, nS, ld, q.p);
  else
    for (int k = 0; k < nS; k++) q.p[k] = -q.d[q.S[k]];
  const double s = descentSlope(q);
  std::memset(q.dx, 0, sizeof(double) * static_cast<size_t>(q.nm));
  for (int k = 0; k < nS; k++) {
    q.dx[q.S[k]] = q.p[k];
    const double* wk = q.W + static_cast<size_t>(k) * q.m;
    for (int r = 0; r < q.m; r++) q.dx[head[r]] -= wk[r] * q.p[k];
  }
  *slope = s;
  return 0;
}

// full = Z v: the superbasics take v, the basics -B^-1 (sum v_k a_S[k]), the rest 0.
int zTimes(QP& q, const double* v, double* full, Clock& clock) {
  VRXlp* lp = q.lp;
  std::memset(full, 0, sizeof(double) * static_cast<size_t>(q.nm));
  svecClear(&q.in, q.m);
  q.in.count = -1;
  for (int k = 0; k < q.nS; k++) {
    full[q.S[k]] = v[k];
    addColumn(q, q.S[k], v[k]);
  }
  if (q.m == 0) return 0;
  int rc = VRXftran(lp->factor, &q.in, &q.out, 0, 1, &clock.work);
  svecClear(&q.in, q.m);
  if (rc) return rc;
  toDense(q.out, q.m, q.tm);
  svecClear(&q.out, q.m);
  for (int r = 0; r < q.m; r++) full[lp->factor->basisHead[r]] -= q.tm[r];
  return 0;
}

// out = Z' w over the superbasics: w_S - S' B^-T w_B. With unit set, w is e_unit by
// position instead (out is then row `unit` of -B^-1 S, the entries a swap there would use).
int ztTimes(QP& q, const double* w, int unit, double* outS, Clock& clock) {
  if (q.m > 0) {
    int rc = btranBasics(q, w, unit, q.tm, clock);
    if (rc) return rc;
  }
  for (int k = 0; k < q.nS; k++) outS[k] = (unit >= 0 ? 0.0 : w[q.S[k]]) - colDot(q, q.S[k], q.tm);
  return 0;
}

// w = Z'HZ v over the superbasics.
int reducedHessTimes(QP& q, const double* v, double* w, Clock& clock) {
  int rc = zTimes(q, v, q.dx, clock);
  if (rc) return rc;
  hessTimes(q, q.dx, q.hv);
  return ztTimes(q, q.hv, -1, w, clock);
}

// Conjugate gradients on Z'HZ p = -d_S from p = 0. A direction without curvature ends the
// run: the point reached so far, or the steepest descent at the first step.
int cgDirection(QP& q, Clock& clock, double* slope) {
  const int nS = q.nS;
  double *p = q.p, *r = q.cgR, *dir = q.cgD, *w = q.cgW;
  double rr = 0;
  for (int k = 0; k < nS; k++) {
    p[k] = 0;
    r[k] = dir[k] = -q.d[q.S[k]];
    rr += r[k] * r[k];
  }
  // After the step the reduced gradient is what is left of the residual: a hundredth of the
  // optimality tolerance ends the subspace search at once.
  const double small = 0.01 * q.lp->optTol;
  const double stop = std::max(1e-24 * rr, small * small);
  const int limit = std::min(nS, kCgSteps);
  for (int it = 0; it < limit && rr > stop; it++) {
    int rc = reducedHessTimes(q, dir, w, clock);
    if (rc) return rc;
    double curv = 0, dd = 0;
    for (int k = 0; k < nS; k++) {
      curv += dir[k] * w[k];
      dd += dir[k] * dir[k];
    }
    if (!(curv > 1e-14 * dd)) {
      if (it == 0) std::memcpy(p, dir, sizeof(double) * static_cast<size_t>(nS));
      break;
    }
    const double alpha = rr / curv;
    double next = 0;
    for (int k = 0; k < nS; k++) {
      p[k] += alpha * dir[k];
      r[k] -= alpha * w[k];
      next += r[k] * r[k];
    }
    const double beta = next / rr;
    for (int k = 0; k < nS; k++) dir[k] = r[k] + beta * dir[k];
    rr = next;
  }
  *slope = descentSlope(q);
  return zTimes(q, p, q.dx, clock);
}

int direction(QP& q, Clock& clock, double* slope) {
  return q.nS <= q.capS ? denseDirection(q, clock, slope) : cgDirection(q, clock, slope);
}

int allocate(QP& q) {
  VRXenv* env = q.env;
  const size_t nm = static_cast<size_t>(q.nm) + 1, m = static_cast<size_t>(q.m) + 1;
  q.x = envCallocArray<double>(env, nm);
  q.g = envCallocArray<double>(env, nm);
  q.d = envCallocArray<double>(env, nm);
  q.dx = envCallocArray<double>(env, nm);
  q.hv = envCallocArray<double>(env, nm);
  q.y = envCallocArray<double>(env, std::max(m, nm));
  q.S = envAllocArray<int>(env, nm);
  // The dense block W is m x capS: on tall models fewer superbasics take the dense step.
  q.capS = std::min(q.nm, static_cast<int>(std::max<size_t>(1, std::min<size_t>(kDenseSuperbasics, kDenseCells / m))));
  q.W = envAllocArray<double>(env, m * static_cast<size_t>(q.capS));
  q.HS = envAllocArray<double>(env, static_cast<size_t>(q.capS) * q.capS);
  q.p = envAllocArray<double>(env, nm);
  q.cgR = envAllocArray<double>(env, nm);
  q.cgD = envAllocArray<double>(env, nm);
  q.cgW = envAllocArray<double>(env, nm);
  q.tm = envCallocArray<double>(env, m);
  if (!q.x || !q.g || !q.d || !q.dx || !q.hv || !q.y || !q.S || !q.W || !q.HS || !q.p || !q.cgR || !q.cgD ||
      !q.cgW || !q.tm)
    return VRX_ERROR_OUT_OF_MEMORY;
  if (svecAlloc(env, &q.in, q.m) || svecAlloc(env, &q.out, q.m)) return VRX_ERROR_OUT_OF_MEMORY;
  if (!q.lp->warmStart) {
    q.lp->warmStart = envCallocArray<double>(env, nm);
    if (!q.lp->warmStart) return VRX_ERROR_OUT_OF_MEMORY;
  }
  return 0;
}

int pollAndLog(QP& q, Clock& clock, double f) {
  VRXlp* lp = q.lp;
  VRXenv* env = q.env;
  if (lp->iterCount + lp->priorIter >= lp->iterLimit) {
    lp->status = VRX_ITERATION_LIMIT;
    return 0;
  }
  if (env->terminateFlagRef && *env->terminateFlagRef) {
    lp->status = VRX_INTERRUPTED;
    return 0;
  }
  if ((env->par.TimeLimit < kInf && clockElapsed(clock) >= env->par.TimeLimit) ||
      clock.work >= env->par.VORN_PAR_VTIMELIMIT) {
    lp->status = VRX_TIME_LIMIT;
    return 0;
  }
  const double obj = lp->sense * (f / lp->objScale + lp->objConst);
  double dinf = 0;
  for (int k = 0; k < q.nS; k++) dinf += std::fabs(q.d[q.S[k]]);
  if (static_cast<long>(lp->iterCount) % 10 == 0) VRXspxLogLine(lp, obj, 0.0, dinf, clock);
  int rc = env->cbFunc ? callbackFrame(env, VRX_CB_POLLING, nullptr) : 0;
  if (rc) lp->status = VRX_INTERRUPTED;
  return rc;
}

// The record's conventions at the end: Bbar by position, the superbasic values in warmStart,
// Cbar the reduced gradient with its sign turned at an upper bound, the objective.
void writeBack(QP& q, double f) {
  VRXlp* lp = q.lp;
  for (int p = 0; p < q.m; p++) lp->Bbar[p] = q.x[lp->factor->basisHead[p]];
  for (int j = 0; j < q.nm; j++) {
    const int s = lp->varStat[j];
    if (s >= 0) {
      lp->Cbar[j] = 0;
      continue;
    }
    lp->warmStart[j] = q.x[j];
    lp->Cbar[j] = (s == VRX_VS_UPPER || s == VRX_VS_FIX_UPPER) ? -q.d[j] : q.d[j];
  }
  lp->primalObj = f / lp->objScale + lp->objConst;
  lp->dualObj = lp->primalObj;
  lp->dualObjValid = lp->status == VRX_OPTIMAL;
}

int qpLoop(QP& q, Clock& clock) {
  VRXlp* lp = q.lp;
  const double tol = lp->optTol;
  const double guard = 100.0 * q.nm + 1000.0;
  bool needFactor = true;
  for (;;) {
    if (lp->iterCount > guard) {
      lp->status = VRX_NUMERIC;
      return 0;
    }
    if (needFactor) {
      int rc = refactor(q, clock);
      if (rc == 12) {
        lp->status = VRX_NUMERIC;
        return 0;
      }
      if (rc) return rc;
      needFactor = false;
    }
    int rc = reducedGradient(q, clock);
    if (rc) return rc;
    const double f = objective(q);
    rc = pollAndLog(q, clock, f);
    if (rc || lp->status != 1) {
      writeBack(q, f);
      return rc;
    }
    double worst = 0;
    for (int k = 0; k < q.nS; k++) worst = std::max(worst, std::fabs(q.d[q.S[k]]));
    if (worst <= tol) {
      // Price the nonbasics at their bounds, the largest violation first.
      int best = -1;
      double bestV = tol;
      for (int j = 0; j < q.nm; j++) {
        const int s = lp->varStat[j];
        double v = 0;
        if (s == VRX_VS_LOWER) v = -q.d[j];
        else if (s == VRX_VS_UPPER) v = q.d[j];
        if (v > bestV) {
          bestV = v;
          best = j;
        }
      }
      if (best < 0) {
        lp->status = VRX_OPTIMAL;
        writeBack(q, f);
        return 0;
      }
      lp->varStat[best] = VRX_VS_FREE;
      q.S[q.nS++] = best;
    }
    double slope = 0;
    if ((rc = direction(q, clock, &slope))) return rc;
    hessTimes(q, q.dx, q.hv);
    double curv = 0, dnorm = 0;
    for (int j = 0; j < q.n; j++) {
      curv += q.dx[j] * q.hv[j];
      dnorm = std::max(dnorm, std::fabs(q.dx[j]));
    }
    if (curv < -1e-9 * std::max(1.0, dnorm * dnorm)) {
      lp->status = VRX_NUMERIC;
      return raise(q.env, VRX_ERROR_Q_NOT_PSD, true, "Objective Q not positive semi-definite (PSD)");
    }
    double alphaOpt = curv > 1e-14 * std::max(1.0, dnorm * dnorm) ? -slope / curv : kInf;
    // Ratio test over the basics and the superbasics.
    double alphaMax = kInf;
    int block = -1;
    bool blockUp = false;
    for (int j = 0; j < q.nm; j++) {
      const double dj = q.dx[j];
      if (std::fabs(dj) <= 1e-12) continue;
      if (dj < 0 && loFinite(q, j)) {
        const double a = std::max(0.0, q.x[j] - lo(q, j)) / -dj;
        if (a < alphaMax) alphaMax = a, block = j, blockUp = false;
      } else if (dj > 0 && upFinite(q, j)) {
        const double a = std::max(0.0, up(q, j) - q.x[j]) / dj;
        if (a < alphaMax) alphaMax = a, block = j, blockUp = true;
      }
    }
    const double alpha = std::min(alphaOpt, alphaMax);
    if (alpha >= kInf) {
      lp->status = VRX_UNBOUNDED;
      writeBack(q, f);
      return 0;
    }
    for (int j = 0; j < q.nm; j++) q.x[j] += alpha * q.dx[j];
    lp->iterCount += 1;
    if (alphaMax > alphaOpt || block < 0) continue;
    // A variable met its bound.
    q.x[block] = blockUp ? up(q, block) : lo(q, block);
    const int s = lp->varStat[block];
    if (s < 0) {
      lp->varStat[block] = blockUp ? VRX_VS_UPPER : VRX_VS_LOWER;
      for (int k = 0; k < q.nS; k++)
        if (q.S[k] == block) q.S[k] = q.S[--q.nS];
      continue;
    }
    // A basic: the superbasic with the largest entry in its row of B^-1 S takes its place.
    const int r = s;
    if ((rc = ztTimes(q, nullptr, r, q.cgW, clock))) return rc;
    int enter = -1;
    double big = 0;
    for (int k = 0; k < q.nS; k++) {
      const double w = std::fabs(q.cgW[k]);
      if (w > big) big = w, enter = k;
    }
    if (enter < 0 || big < 1e-9) {
      needFactor = true;
      continue;
    }
    const int e = q.S[enter];
    lp->factor->basisHead[r] = e;
    lp->varStat[e] = r;
    lp->varStat[block] = blockUp ? VRX_VS_UPPER : VRX_VS_LOWER;
    lp->factor->valid = 0;
    needFactor = true;
  }
}

}  // namespace
}  // namespace vrx

int VRXqpSolve(VRXlp* lp, vrx::Clock& clock) {
  using namespace vrx;
  if (!lp || !lp->copy) return VRX_ERROR_NULL_ARGUMENT;
  if (lp->quadMode) return VRX_ERROR_NOT_SUPPORTED;
  if (lp->status != 1) return 0;  // the load found bad bounds
  // The scaling took Q into account too: its terms count in the work beside the matrix.
  clockCharge(clock, 2.0 * lp->workFactor * lp->copy->numQNZs);
  // Phase I: a feasible basis with the costs set aside.
  const int keepZero = lp->zeroObjectiveMode;
  lp->zeroObjectiveMode = 1;
  int rc = lpRunSimplex(lp, 0, clock);
  lp->zeroObjectiveMode = keepZero;
  if (rc) return rc;
  if (lp->status != VRX_OPTIMAL) return 0;
  lp->status = 1;
  if (lp->m == 0) {
    // Without rows every column is its own superbasic.
  }
  QP q;
  q.lp = lp;
  q.env = lp->env;
  q.n = lp->n;
  q.m = lp->m;
  q.nm = lp->n + lp->m;
  if ((rc = allocate(q)) || (rc = buildHess(q))) return rc;
  // The point of the phase-I basis.
  for (int j = 0; j < q.nm; j++) {
    const int s = lp->varStat[j];
    if (s >= 0) q.x[j] = lp->Bbar[s];
    else if (s == VRX_VS_LOWER || s == VRX_VS_FIX_LOWER) q.x[j] = lp->lower[j];
    else if (s == VRX_VS_UPPER || s == VRX_VS_FIX_UPPER) q.x[j] = lp->upper[j];
    else q.x[j] = lp->warmStart ? lp->warmStart[j] : 0.0;
  }
  return qpLoop(q, clock);
}
