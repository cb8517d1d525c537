// The push phases of crossover: reduced costs of basic variables driven to zero by dual
// steps, values of nonbasic variables off their bounds driven to a bound by primal steps,
// each with a ratio test that may exchange a variable of the basis.
#include <algorithm>
#include <cmath>

#include "barrier/crossover_impl.h"
#include "simplex/dual.h"

namespace vrx {
namespace cross {

namespace {

template <class T>
inline T absT(T v) {
  return v < T(0) ? -v : v;
}

bool isFixed(const VRXlp* lp, int j) {
  return lp->lower[j] == lp->upper[j] || (j >= lp->n && lp->senseChar[j - lp->n] == '=');
}

// Status of a variable that leaves the basis at value v; a value off its bounds is kept.
int leaveStatus(State& st, int j, double v) {
  VRXlp* lp = st.lp;
  const double lo = lp->lower[j], up = lp->upper[j], t = lp->feasTol;
  if (isFixed(lp, j)) return VRX_VS_FIX_LOWER;
  if (lo > -lp->infBound && std::fabs(v - lo) <= t) return VRX_VS_LOWER;
  if (up < lp->infBound && std::fabs(up - v) <= t) return VRX_VS_UPPER;
  lp->warmStart[j] = std::min(std::max(v, lo), up);
  return VRX_VS_FREE;
}

// A push pivot below pivotTol, or below st.relPivot times the largest entry of its row
// or column, would leave a badly conditioned basis: the push waits for a fresh factor.
template <class T>
bool smallPivot(const State& st, T a, T biggest) {
  return absT(a) < T(st.lp->pivotTol) || absT(a) < T(st.relPivot) * biggest;
}

template <class T>
void loadColumn(const VRXlp* lp, int q, VRXsvecT<T>* col) {
  dual::clearVec(col, lp->m + 1);
  if (q < lp->n) {
    int c = 0;
    for (int64_t k = lp->colBeg[q], e = k + lp->colLen[q]; k < e; k++) {
      col->value[lp->rowInd[k]] = T(lp->val[k]);
      col->index[c++] = lp->rowInd[k];
    }
    col->count = c;
  } else {
    col->value[q - lp->n] = T(1);
    col->index[0] = q - lp->n;
    col->count = 1;
  }
}

// Basis exchange at position p for entering q; the factor is updated or rebuilt.
template <class T>
int exchange(State& st, int p, int q, bool withDual) {
  VRXlp* lp = st.lp;
  VRXfactorT<T>* f = dual::view<T>(lp).factor;
  VRXfactorCtl ctl;
  lpFactorCtlLoad(lp, &ctl);
  int rc = VRXfactorUpdate<T>(f, p, q, &ctl, &st.clock->work);
  lpFactorCtlStore(lp, &ctl);
  lp->status = 1;
  lp->actionCode = 0;
  st.pushMoves += 1;
  if (rc == 0) {
    if (VRXfactorRefactorTest<T>(f, &ctl, st.clock->work, lp->nnz) == 0) return 0;
  } else if (rc == 12) {
    st.pushFailed = 1;
  } else if (rc != 1) {
    return rc;
  }
  f->basisHead[p] = q;
  return refresh<T>(st, withDual, true);
}

// Sums for the log lines: reduced costs left on basics plus wrong-signed ones on
// nonbasics; bound violations of basics.
template <class T>
double dualInfeas(const State& st) {
  const VRXlp* lp = st.lp;
  const T* d = dual::view<T>(const_cast<VRXlp*>(lp)).Cbar;
  const double tol = lp->optTol;
  double s = 0;
  for (int j = 0; j < st.n + st.m; j++) {
    const double v = static_cast<double>(d[j]);
    const int k = lp->varStat[j];
    if (k >= 0 || k == VRX_VS_FREE) {
      if (std::fabs(v) >= tol) s += std::fabs(v);
    } else if (k == VRX_VS_LOWER) {
      if (v < -tol) s -= v;
    } else if (k == VRX_VS_UPPER) {
      if (v > tol) s += v;
    }
  }
  return s;
}

template <class T>
double primalInfeas(const State& st) {
  const VRXlp* lp = st.lp;
  VRXlp* w = const_cast<VRXlp*>(lp);
  const T* x = dual::view<T>(w).Bbar;
  const int* head = dual::view<T>(w).factor->basisHead;
  double s = 0;
  for (int p = 0; p < st.m; p++) {
    const double v = static_cast<double>(x[p]);
    const int j = head[p];
    if (v < lp->lower[j] - lp->feasTol) s += lp->lower[j] - v;
    if (v > lp->upper[j] + lp->feasTol) s += v - lp->upper[j];
  }
  return s;
}

// A progress line each 100 pushes done, or when the display interval has passed; none
// after the last push, which has a closing line of its own.
bool logDue(State& st, int done, int todo) {
  if (done + 1 >= todo) return false;
  const double now = clockElapsed(*st.clock);
  if ((done + 1) % 100 != 0 && now - st.lastLogTime < st.lp->logSeconds) return false;
  st.lastLogTime = now;
  return true;
}

// One dual push of basic j at position r. *skipped when the only blocking pivot is small.
template <class T>
int pushDualOne(State& st, int j, int r, bool retry, bool* skipped) {
  VRXlp* lp = st.lp;
  const int n = st.n, m = st.m;
  auto v = dual::view<T>(lp);
  T* d = v.Cbar;
  const double tol = lp->optTol, zero = lp->zeroTol;
  *skipped = false;
  const T delta = d[j];

  VRXsvecT<T>* rho = v.rho;
  dual::clearVec(rho, m + 1);
  rho->value[r] = T(1);
  rho->index[0] = r;
  rho->count = 1;
  int rc = VRXbtran<T>(v.factor, rho, rho, 0, &st.clock->work);
  if (rc) return rc;

  // The pivot row over the nonbasic variables that are not fixed.
  VRXsvecT<T>* row = v.row;
  dual::clearVec(row, n + m + 1);
  int cnt = 0;
  int64_t ops = 0;
  const int rc0 = rho->count;
  const int rows = rc0 < 0 ? m : rc0;
  for (int k = 0; k < rows; k++) {
    const int i = rc0 < 0 ? k : rho->index[k];
    const T ri = rho->value[i];
    if (ri == T(0)) continue;
    if (lp->varStat[n + i] < 0 && lp->varStat[n + i] >= VRX_VS_FREE && !isFixed(lp, n + i)) {
      if (!st.mark[n + i]) {
        st.mark[n + i] = 1;
        row->index[cnt++] = n + i;
      }
      row->value[n + i] += ri;
    }
    for (int64_t e = lp->rowBeg[i], end = e + lp->rowLen[i]; e < end; e++) {
      const int c = lp->colInd[e];
      if (lp->varStat[c] >= 0 || lp->varStat[c] < VRX_VS_FREE || lp->lower[c] == lp->upper[c]) continue;
      if (!st.mark[c]) {
        st.mark[c] = 1;
        row->index[cnt++] = c;
      }
      row->value[c] += ri * T(lp->rowVal[e]);
    }
    ops += lp->rowLen[i] + 1;
  }
  row->count = cnt;
  for (int k = 0; k < cnt; k++) st.mark[row->index[k]] = 0;
  clockCharge(*st.clock, 2.0 * static_cast<double>(ops) * lp->workFactor);

  // Direction of the dual step: toward a zero reduced cost, or for a fixed basic with
  // none left, the side where something blocks first.
  int sgn = delta > T(0) ? 1 : (delta < T(0) ? -1 : 0);
  const T full = absT(delta);
  int bestK = -1;
  T bestT = T(0);
  for (int pass = 0; pass < 2 && bestK < 0; pass++) {
    const int s = sgn != 0 ? sgn : (pass == 0 ? 1 : -1);
    if (sgn != 0 && pass == 1) break;
    // Harris: the loosest bound first, then the largest pivot under it.
    T tmax = T(kInf);
    for (int k = 0; k < cnt; k++) {
      const int c = row->index[k];
      const T a = row->value[c];
      if (absT(a) <= T(zero)) continue;
      const int stc = lp->varStat[c];
      const T dc = d[c];
      const T beta = T(s) * a;  // d_c falls by t * beta
      T lim;
      if (stc == VRX_VS_LOWER) {
        if (beta <= T(0)) continue;
        lim = (std::max(dc, T(0)) + T(tol)) / beta;
      } else if (stc == VRX_VS_UPPER) {
        if (beta >= T(0)) continue;
        lim = (std::min(dc, T(0)) - T(tol)) / beta;
      } else {
        if (dc * beta > T(0))
          lim = dc / beta;
        else if (absT(dc) <= T(tol))
          lim = T(0);
        else
          continue;
      }
      tmax = std::min(tmax, lim);
    }
    if (sgn != 0 && tmax >= full) break;
    if (tmax >= T(kInf)) continue;
    T bestA = T(0);
    for (int k = 0; k < cnt; k++) {
      const int c = row->index[k];
      const T a = row->value[c];
      if (absT(a) <= T(zero)) continue;
      const int stc = lp->varStat[c];
      const T dc = d[c];
      const T beta = T(s) * a;
      T ratio;
      if (stc == VRX_VS_LOWER) {
        if (beta <= T(0)) continue;
        ratio = std::max(dc, T(0)) / beta;
      } else if (stc == VRX_VS_UPPER) {
        if (beta >= T(0)) continue;
        ratio = std::min(dc, T(0)) / beta;
      } else {
        if (dc * beta > T(0))
          ratio = dc / beta;
        else if (absT(dc) <= T(tol))
          ratio = T(0);
        else
          continue;
      }
      if (ratio <= tmax && absT(a) > bestA) {
        bestA = absT(a);
        bestK = c;
        bestT = ratio;
      }
    }
    if (bestK >= 0) sgn = s;
  }

  if (bestK < 0) {
    if (sgn == 0) return 0;  // a fixed basic nothing can replace: it stays
    st.hugeDual = std::max(st.hugeDual, static_cast<double>(full));
    if (!(static_cast<double>(full) < 1e30)) {
      st.pushFailed = 1;
      return 0;
    }
    // Nothing blocks: the whole reduced cost goes.
    for (int k = 0; k < cnt; k++) {
      const int c = row->index[k];
      d[c] -= delta * row->value[c];
    }
    d[j] = T(0);
    return 0;
  }
  const T a = row->value[bestK];
  T rowMax = T(0);
  for (int k = 0; k < cnt; k++) rowMax = std::max(rowMax, absT(row->value[row->index[k]]));
  if (smallPivot(st, a, rowMax)) {
    // Deferred once; still small after a fresh factor, the clean-up gets it.
    *skipped = !retry;
    return 0;
  }
  const T step = T(sgn) * std::min(bestT, full > T(0) ? full : bestT);
  for (int k = 0; k < cnt; k++) {
    const int c = row->index[k];
    d[c] -= step * row->value[c];
  }
  d[j] = delta - step;
  d[bestK] = T(0);
  st.hugeDual = std::max(st.hugeDual, static_cast<double>(absT(step)));
  if (!(static_cast<double>(absT(step)) < 1e30)) {
    st.pushFailed = 1;
    return 0;
  }

  // bestK enters at r with its value; j leaves at its own.
  const double xj = static_cast<double>(v.Bbar[r]);
  const double xk = nonbasicValue(lp, bestK);
  VRXsvecT<T>* col = v.col;
  loadColumn<T>(lp, bestK, col);
  if ((rc = VRXftran<T>(v.factor, col, col, 1, 0, &st.clock->work))) return rc;
  lp->varStat[j] = leaveStatus(st, j, xj);
  lp->varStat[bestK] = r;
  v.Bbar[r] = T(xk);
  return exchange<T>(st, r, bestK, true);
}

// One primal push of nonbasic k (status -3). free: k has no finite bound, so it can only
// enter the basis. *skipped when the blocking pivot is small.
template <class T>
int pushPrimalOne(State& st, int k, bool retry, bool* skipped, bool* stayed) {
  VRXlp* lp = st.lp;
  const int m = st.m;
  auto v = dual::view<T>(lp);
  T* x = v.Bbar;
  const int* head = v.factor->basisHead;
  const double inf = lp->infBound, ft = lp->feasTol, zero = lp->zeroTol;
  *skipped = false;
  *stayed = false;
  const double val = lp->warmStart[k];
  const double lo = lp->lower[k], up = lp->upper[k];
  const bool loF = lo > -inf, upF = up < inf;
  int dir = 0;
  double range = kInf;
  if (loF && upF)
    dir = val - lo <= up - val ? -1 : 1;
  else if (loF)
    dir = -1;
  else if (upF)
    dir = 1;
  if (dir != 0) range = std::max(0.0, dir < 0 ? val - lo : up - val);

  VRXsvecT<T>* col = v.col;
  loadColumn<T>(lp, k, col);
  int rc = VRXftran<T>(v.factor, col, col, 1, 0, &st.clock->work);
  if (rc) return rc;
  const int cc = col->count;
  const int ents = cc < 0 ? m : cc;

  int bestP = -1, bestDir = 0, bestUp = 0;
  T bestT = T(0);
  for (int pass = 0; pass < 2; pass++) {
    const int s = dir != 0 ? dir : (pass == 0 ? 1 : -1);
    if (dir != 0 && pass == 1) break;
    T tmax = T(kInf);
    for (int q = 0; q < ents; q++) {
      const int p = cc < 0 ? q : col->index[q];
      const T a = col->value[p];
      if (absT(a) <= T(zero)) continue;
      const int j = head[p];
      const T g = T(s) * a;  // x_p falls by t * g
      if (g > T(0) && lp->lower[j] > -inf)
        tmax = std::min(tmax, (std::max(x[p] - T(lp->lower[j]), T(0)) + T(ft)) / g);
      else if (g < T(0) && lp->upper[j] < inf)
        tmax = std::min(tmax, (std::max(T(lp->upper[j]) - x[p], T(0)) + T(ft)) / -g);
    }
    if (tmax >= T(range)) break;
    if (tmax >= T(kInf)) continue;
    T bestA = T(0);
    int cand = -1, candUp = 0;
    T candT = T(0);
    for (int q = 0; q < ents; q++) {
      const int p = cc < 0 ? q : col->index[q];
      const T a = col->value[p];
      if (absT(a) <= T(zero)) continue;
      const int j = head[p];
      const T g = T(s) * a;
      T ratio;
      int toUp;
      if (g > T(0) && lp->lower[j] > -inf) {
        ratio = std::max(x[p] - T(lp->lower[j]), T(0)) / g;
        toUp = 0;
      } else if (g < T(0) && lp->upper[j] < inf) {
        ratio = std::max(T(lp->upper[j]) - x[p], T(0)) / -g;
        toUp = 1;
      } else {
        continue;
      }
      if (ratio <= tmax && absT(a) > bestA) {
        bestA = absT(a);
        cand = p;
        candT = ratio;
        candUp = toUp;
      }
    }
    if (cand >= 0 && (bestP < 0 || candT < bestT)) {
      bestP = cand;
      bestT = candT;
      bestDir = s;
      bestUp = candUp;
    }
  }

  if (bestP < 0) {
    if (dir == 0) {
      // A free column nothing in the basis can make room for.
      *stayed = true;
      return 0;
    }
    // Nothing blocks: the value reaches its bound.
    const T step = T(dir) * T(range);
    for (int q = 0; q < ents; q++) {
      const int p = cc < 0 ? q : col->index[q];
      x[p] -= step * col->value[p];
      if (!(absT(x[p]) < T(st.valueCap))) st.pushFailed = 1;
    }
    lp->varStat[k] = dir < 0 ? VRX_VS_LOWER : VRX_VS_UPPER;
    lp->warmStart[k] = dir < 0 ? lo : up;
    st.pushMoves += 1;
    return 0;
  }
  const T a = col->value[bestP];
  T colMax = T(0);
  for (int q = 0; q < ents; q++) colMax = std::max(colMax, absT(col->value[cc < 0 ? q : col->index[q]]));
  if (smallPivot(st, a, colMax)) {
    *skipped = !retry;
    return 0;
  }
  const T step = T(bestDir) * bestT;
  for (int q = 0; q < ents; q++) {
    const int p = cc < 0 ? q : col->index[q];
    x[p] -= step * col->value[p];
    if (!(absT(x[p]) < T(st.valueCap))) st.pushFailed = 1;
  }
  const int j = head[bestP];
  lp->varStat[j] = isFixed(lp, j) ? VRX_VS_FIX_LOWER : (bestUp ? VRX_VS_UPPER : VRX_VS_LOWER);
  lp->varStat[k] = bestP;
  x[bestP] = T(val) + step;
  if (!(static_cast<double>(absT(x[bestP])) < st.valueCap)) st.pushFailed = 1;
  return exchange<T>(st, bestP, k, false);
}

}  // namespace

// Relative distance of carried basic values from recomputed ones that fails the pushes.
constexpr double kDriftLimit = 1.0;

template <class T>
int refresh(State& st, bool withDual, bool carried) {
  VRXlp* lp = st.lp;
  const int n = st.n, m = st.m;
  auto v = dual::view<T>(lp);
  VRXfactorT<T>* f = v.factor;
  VRXfactorMatrix A = lpFactorMatrix(lp);
  double* work = &st.clock->work;
  if (m == 0) return 0;
  for (int round = 0;; round++) {
    VRXfactorCtl ctl;
    lpFactorCtlLoad(lp, &ctl);
    int unpivoted = 0;
    int rc = VRXfactorFactorize<T>(f, &A, f->basisHead, &ctl, work, &unpivoted);
    lpFactorCtlStore(lp, &ctl);
    lp->status = 1;
    lp->actionCode = 0;
    if (rc) return rc;
    if (unpivoted == 0) break;
    if (round >= 5) {
      st.pushFailed = 1;
      return 0;
    }
    // Dropped columns leave at their values; the slacks of the rows without pivot enter.
    st.pushFailed = 1;
    for (int q = 0; q < unpivoted; q++) {
      const int pos = f->unpivotedPos[q], r = f->pivotlessRow[q];
      const int var = f->basisHead[pos];
      lp->varStat[var] = leaveStatus(st, var, static_cast<double>(v.Bbar[pos]));
      lp->varStat[n + r] = pos;
      f->basisHead[pos] = n + r;
    }
  }
  f->freshBasis = 0;

  // Basic values from the nonbasic ones.
  VRXsvecT<T>* in = v.w1;
  dual::clearVec(in, n + m + 1);
  T* rv = in->value;
  for (int i = 0; i < m; i++) rv[i] = T(lp->rhs[i]);
  for (int j = 0; j < n; j++) {
    if (lp->varStat[j] >= 0) continue;
    const double val = nonbasicValue(lp, j);
    if (val == 0.0) continue;
    for (int64_t k = lp->colBeg[j], e = k + lp->colLen[j]; k < e; k++) rv[lp->rowInd[k]] -= T(lp->val[k]) * T(val);
  }
  for (int i = 0; i < m; i++)
    if (lp->varStat[n + i] < 0) rv[i] -= T(nonbasicValue(lp, n + i));
  in->count = -1;
  int rc = VRXftran<T>(f, in, in, 0, 0, work);
  if (rc) return rc;
  bool bad = false;
  if (carried && st.driftCheck) {
    // The values carried through the pushes against the recomputed ones: far apart, the
    // updates have lost the point and the pushes go on from noise.
    for (int p = 0; p < m; p++) {
      const double now = static_cast<double>(in->value[p]);
      if (std::fabs(now - static_cast<double>(v.Bbar[p])) > kDriftLimit * (1.0 + std::fabs(now))) bad = true;
    }
  }
  for (int p = 0; p < m; p++) {
    v.Bbar[p] = in->value[p];
    if (!(absT(in->value[p]) < T(st.valueCap))) bad = true;
  }
  dual::clearVec(in, n + m + 1);
  clockCharge(*st.clock, static_cast<double>(lp->nnz + m) * lp->workFactor);
  if (bad) st.pushFailed = 1;
  if (!withDual) return 0;

  // Duals that leave each basic its reduced cost; the nonbasic ones follow.
  dual::clearVec(in, n + m + 1);
  for (int p = 0; p < m; p++) {
    const int j = f->basisHead[p];
    rv[p] = T(lp->cost[j]) - v.Cbar[j];
  }
  in->count = -1;
  if ((rc = VRXbtran<T>(f, in, in, 0, work))) return rc;
  for (int j = 0; j < n + m; j++) {
    if (lp->varStat[j] >= 0) continue;
    T s = T(lp->cost[j]);
    if (j < n) {
      for (int64_t k = lp->colBeg[j], e = k + lp->colLen[j]; k < e; k++) s -= in->value[lp->rowInd[k]] * T(lp->val[k]);
    } else {
      s -= in->value[j - n];
    }
    v.Cbar[j] = s;
    if (!(absT(s) < T(1e30))) bad = true;
  }
  dual::clearVec(in, n + m + 1);
  clockCharge(*st.clock, static_cast<double>(lp->nnz + m) * lp->workFactor);
  if (bad) st.pushFailed = 1;
  return 0;
}

template <class T>
int startBasis(State& st) {
  VRXlp* lp = st.lp;
  auto v = dual::view<T>(lp);
  for (int p = 0; p < st.m; p++) v.factor->basisHead[p] = st.startHead[p];
  v.factor->freshBasis = 1;
  for (int j = 0; j < st.n + st.m; j++) v.Cbar[j] = T(st.d[j]);
  return refresh<T>(st, false);
}

template <class T>
int measure(State& st) {
  VRXlp* lp = st.lp;
  const int n = st.n, m = st.m;
  auto v = dual::view<T>(lp);
  for (int j = 0; j < n + m; j++) v.Cbar[j] = T(0);
  int rc = refresh<T>(st, true);
  if (rc) return rc;
  const double ft = lp->feasTol, ot = lp->optTol;
  double pinf = 0, dinf = 0;
  for (int p = 0; p < m; p++) {
    const int j = v.factor->basisHead[p];
    const double x = static_cast<double>(v.Bbar[p]);
    if (x < lp->lower[j] - ft) pinf += lp->lower[j] - x;
    if (x > lp->upper[j] + ft) pinf += x - lp->upper[j];
  }
  for (int j = 0; j < n + m; j++) {
    const int s = lp->varStat[j];
    if (s >= 0) continue;
    const double dj = static_cast<double>(v.Cbar[j]);
    if (s == VRX_VS_LOWER && dj < -ot) dinf -= dj;
    if (s == VRX_VS_UPPER && dj > ot) dinf += dj;
    if ((s == VRX_VS_FREE || s == VRX_VS_FIX_FREE) && std::fabs(dj) > ot) dinf += std::fabs(dj);
    if (s == VRX_VS_UPPER || s == VRX_VS_FIX_UPPER) v.Cbar[j] = -v.Cbar[j];
  }
  st.pinf = pinf;
  st.dinf = dinf;
  return 0;
}

// The push list in order, then once more the pushes skipped for a small pivot, after a
// fresh factor. one(j, retry, &skipped) pushes one target; progress(left) logs.
// *stopped when numeric trouble or a limit ended the list early.
template <class T, class One, class Progress>
int pushTargets(State& st, int cnt, bool withDual, One one, Progress progress, bool* stopped) {
  *stopped = false;
  int deferred = 0;
  for (int pass = 0; pass < 2; pass++) {
    const bool retry = pass == 1;
    int todo = cnt;
    if (retry) {
      if (deferred == 0) break;
      std::copy(st.deferred, st.deferred + deferred, st.targets);
      todo = deferred;
      int rc = refresh<T>(st, withDual, true);
      if (rc) return rc;
    }
    for (int t = 0; t < todo; t++) {
      if (st.pushFailed || limitReached(st)) {
        *stopped = true;
        return 0;
      }
      const int j = st.targets[t];
      bool skipped = false;
      int rc = one(j, retry, &skipped);
      if (rc) return rc;
      if (skipped) st.deferred[deferred++] = j;
      if (logDue(st, t, todo)) progress(todo - t - 1);
    }
  }
  // With the drift check on, the end of the list is checked like a refactor, and the next
  // pass starts from recomputed values.
  return st.driftCheck ? refresh<T>(st, withDual, true) : 0;
}

template <class T>
int VRXcrossPushDual(State& st, int phase, int* found) {
  (void)phase;
  VRXlp* lp = st.lp;
  const int n = st.n, m = st.m;
  auto v = dual::view<T>(lp);
  const int* head = v.factor->basisHead;
  int cnt = 0;
  for (int p = 0; p < m; p++) {
    const int j = head[p];
    const double dj = static_cast<double>(absT(v.Cbar[j]));
    if (dj >= lp->optTol || (j >= n && lp->senseChar[j - n] == '=')) {
      st.targets[cnt++] = j;
      st.key[j] = dj;
    }
  }
  *found = cnt;
  if (cnt == 0) return 0;
  sortByKey(st.targets, cnt, st.key);
  VRXcrossLog(lp, kLogDual, cnt, dualInfeas<T>(st), 0, *st.clock);
  auto one = [&](int j, bool retry, bool* skipped) {
    const int r = lp->varStat[j];
    return r < 0 ? 0 : pushDualOne<T>(st, j, r, retry, skipped);
  };
  auto progress = [&](int left) { VRXcrossLog(lp, kLogDual, left, dualInfeas<T>(st), 0, *st.clock); };
  bool stopped = false;
  int rc = pushTargets<T>(st, cnt, true, one, progress, &stopped);
  if (rc || stopped) return rc;
  progress(0);
  return 0;
}

template <class T>
int VRXcrossPushPrimal(State& st, int phase, int* found) {
  (void)phase;
  VRXlp* lp = st.lp;
  const int nm = st.n + st.m;
  const double inf = lp->infBound;
  int cnt = 0, freeCount = 0;
  for (int j = 0; j < nm; j++) {
    if (lp->varStat[j] != VRX_VS_FREE) continue;
    const double val = lp->warmStart[j];
    const double dist = std::min(lp->lower[j] > -inf ? val - lp->lower[j] : kInf,
                                 lp->upper[j] < inf ? lp->upper[j] - val : kInf);
    // Free columns come last: they can only enter the basis.
    st.key[j] = dist >= kInf ? kInf : std::fabs(dist);
    st.targets[cnt++] = j;
    if (dist >= kInf) freeCount++;
  }
  *found = cnt;
  if (cnt == 0) return 0;
  sortByKey(st.targets, cnt, st.key);
  if (st.addedToBasis > 0 && phase >= 1) VRXcrossLog(lp, kLogAdded, st.addedToBasis, 0, 0, *st.clock);
  VRXcrossLog(lp, kLogPrimal, cnt, primalInfeas<T>(st), 0, *st.clock);
  bool freeLogged = false;
  st.freeLeft = 0;
  auto one = [&](int k, bool retry, bool* skipped) {
    if (lp->varStat[k] != VRX_VS_FREE) return 0;
    const bool isFree = lp->lower[k] <= -inf && lp->upper[k] >= inf;
    if (isFree && !freeLogged && !retry) {
      freeLogged = true;
      VRXcrossLog(lp, kLogFree, freeCount, 0, 0, *st.clock);
    }
    bool stayed = false;
    int rc = pushPrimalOne<T>(st, k, retry, skipped, &stayed);
    if (stayed) st.freeLeft++;
    return rc;
  };
  auto progress = [&](int left) { VRXcrossLog(lp, kLogPrimal, left, primalInfeas<T>(st), 0, *st.clock); };
  bool stopped = false;
  int rc = pushTargets<T>(st, cnt, false, one, progress, &stopped);
  if (rc || stopped) return rc;
  progress(0);
  return 0;
}

#define VRX_CROSS_INST(T)                                  \
  template int refresh<T>(State&, bool, bool);             \
  template int startBasis<T>(State&);                      \
  template int measure<T>(State&);                         \
  template int VRXcrossPushDual<T>(State&, int, int*);     \
  template int VRXcrossPushPrimal<T>(State&, int, int*);
VRX_CROSS_INST(double)
VRX_CROSS_INST(long double)

}  // namespace cross
}  // namespace vrx
