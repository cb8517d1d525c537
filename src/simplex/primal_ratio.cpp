// Ratio tests of the primal loop: two-pass Harris in phase II, breakpoints in phase I.
#include <algorithm>
#include <cmath>

#include "simplex/primal_impl.h"

namespace vrx {
namespace primal {

namespace {

// Harris tolerance: the feasibility tolerance, tighter while a full perturbation is on.
template <class T>
T harrisTol(const Ctx<T>& c) {
  const VRXlp* lp = c.lp;
  double t = lp->feasTol;
  if (lp->perturbKind > 2) t = std::max(std::min(lp->feasTol, lp->perturbBase / 30.0), lp->feasTol / 100.0);
  return T(t);
}

// Pivot preference: longer structural columns leave more willingly.
inline double lengthWeight(const VRXlp* lp, int j) {
  if (j >= lp->n) return 1.0;
  return std::min(lp->colLen[j] - 1, 10) / 10.0 + 1.0;
}

// How far the entering variable can move before it meets its own opposite bound.
template <class T>
T enteringRange(const Ctx<T>& c) {
  const int q = c.q;
  if (c.toZero) return absT(c.xq);
  if (c.dir > 0) return c.upFinite(q) ? T(c.pp->up[q]) - c.xq : T(c.inf);
  return c.loFinite(q) ? c.xq - T(c.pp->lo[q]) : T(c.inf);
}

template <class T>
int finishChoice(Ctx<T>& c, int p, int toUpper, T theta) {
  c.r = p;
  c.leaveUp = toUpper;
  c.theta = theta < T(0) ? T(0) : theta;
  c.alphaR = c.col->value[p];
  if (absT(c.alphaR) < T(c.lp->pivotTol) && !c.forceSmall) return kSmallPivot;
  return kPivot;
}

}  // namespace

template <class T>
int VRXprimalRatio2(Ctx<T>& c) {
  const VRXlp* lp = c.lp;
  const VRXsvecT<T>* col = c.col;
  const int* head = c.f->basisHead;
  const double* lo = c.pp->lo;
  const double* up = c.pp->up;
  const T ptol = T(std::min(lp->pivotTol, 1e-9));
  const T tol = harrisTol(c);
  const T big = T(c.inf);
  const T dir = T(c.dir);
  const T range = enteringRange(c);

  // Pass 1: the smallest step with every bound relaxed by the tolerance.
  T thetaMax = big;
  for (int k = 0; k < col->count; k++) {
    const int p = col->index[k];
    const T a = col->value[p];
    if (absT(a) <= ptol) continue;
    const int j = head[p];
    const T rate = -dir * a;
    if (rate < T(0)) {
      if (lo[j] > -c.inf) thetaMax = std::min(thetaMax, (c.x[p] - T(lo[j]) + tol) / -rate);
    } else {
      if (up[j] < c.inf) thetaMax = std::min(thetaMax, (T(up[j]) + tol - c.x[p]) / rate);
    }
  }
  if (thetaMax >= big) {
    if (range < big) {
      c.r = -1;
      c.theta = range;
      return kFlip;
    }
    return kUnbounded;
  }
  if (range <= thetaMax) {
    // The entering variable reaches its own bound no later than any basic blocks.
    c.r = -1;
    c.theta = range;
    return kFlip;
  }

  // Pass 2: among the steps not beyond thetaMax the largest weighted pivot.
  int best = -1, bestUp = 0;
  T bestScore = T(-1), bestRatio = T(0);
  for (int k = 0; k < col->count; k++) {
    const int p = col->index[k];
    const T a = col->value[p];
    const T aa = absT(a);
    if (aa <= ptol) continue;
    const int j = head[p];
    const T rate = -dir * a;
    T ratio;
    int toUp;
    if (rate < T(0)) {
      if (lo[j] <= -c.inf) continue;
      ratio = (c.x[p] - T(lo[j])) / -rate;
      toUp = 0;
    } else {
      if (up[j] >= c.inf) continue;
      ratio = (T(up[j]) - c.x[p]) / rate;
      toUp = 1;
    }
    if (ratio > thetaMax) continue;
    const T score = aa * T(lengthWeight(lp, j));
    if (score > bestScore) {
      bestScore = score;
      best = p;
      bestUp = toUp;
      bestRatio = ratio;
    }
  }
  if (best < 0) return kUnbounded;  // cannot happen: the pass-1 minimum qualifies
  if (range <= bestRatio) {
    c.r = -1;
    c.theta = range;
    return kFlip;
  }
  return finishChoice(c, best, bestUp, bestRatio);
}

template <class T>
int ratioBreakpoints(Ctx<T>& c, bool passBreakpoints) {
  const VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  const VRXsvecT<T>* col = c.col;
  const int* head = c.f->basisHead;
  const double* lo = pp->lo;
  const double* up = pp->up;
  const T ptol = T(std::min(lp->pivotTol, 1e-9));
  const T tol = harrisTol(c);
  const T big = T(c.inf);
  const T dir = T(c.dir);
  const T range = enteringRange(c);

  // Breakpoints: where a basic reaches a bound its phase-I cost changes by |rate|.
  double* bt = pp->costWork;
  double* bg = pp->bpGain;
  int* br = pp->bpRow;
  int cnt = 0;
  auto add = [&](T t, T g, int code) {
    bt[cnt] = static_cast<double>(t < T(0) ? T(0) : t);
    bg[cnt] = static_cast<double>(g);
    br[cnt] = code;
    cnt++;
  };
  for (int k = 0; k < col->count; k++) {
    const int p = col->index[k];
    const T a = col->value[p];
    if (absT(a) <= ptol) continue;
    const int j = head[p];
    const T rate = -dir * a;
    const T g = absT(rate);
    const char cls = lp->rowFlag[p];
    const T v = c.x[p];
    if (rate > T(0)) {
      if (cls == kBelow) {
        add((T(lo[j]) - v) / rate, g, 2 * p);
        if (up[j] < c.inf) add((T(up[j]) - v) / rate, g, 2 * p + 1);
      } else if (cls == kWithin && up[j] < c.inf) {
        add((T(up[j]) - v) / rate, g, 2 * p + 1);
      }
    } else {
      if (cls == kAbove) {
        add((v - T(up[j])) / -rate, g, 2 * p + 1);
        if (lo[j] > -c.inf) add((v - T(lo[j])) / -rate, g, 2 * p);
      } else if (cls == kWithin && lo[j] > -c.inf) {
        add((v - T(lo[j])) / -rate, g, 2 * p);
      }
    }
  }
  if (range < big) add(range, big, -1);
  if (cnt == 0) return kNoBlock;

  int* order = pp->candList;
  for (int k = 0; k < cnt; k++) order[k] = k;
  std::sort(order, order + cnt, [&](int u, int v) { return bt[u] < bt[v] || (bt[u] == bt[v] && bg[u] > bg[v]); });

  // Walk while the phase-I objective still falls (a slope within the pricing tolerance of 0
  // counts as level: the gains are sums of the same numbers as the reduced cost); without
  // passing, the first breakpoint stops the step.
  T slope = -absT(c.dq);
  const T level = -T(c.pp->dualFeasTol);
  int K = -1;
  for (int s = 0; s < cnt; s++) {
    const int i = order[s];
    if (br[i] < 0 || !passBreakpoints) {
      K = s;
      break;
    }
    slope += T(bg[i]);
    if (slope >= level) {
      K = s;
      break;
    }
  }
  if (K < 0) return kNoBlock;

  // Harris-like choice without going past the turn: beyond it the phase-I objective grows
  // again, so the candidates are the breakpoints from a tolerance before the turning one up
  // to it (and its ties); the largest weighted pivot among them leaves.
  const T tK = T(bt[order[K]]);
  const T low = br[order[K]] < 0 ? tK : tK - tol / T(bg[order[K]]);
  int last = K;
  while (last + 1 < cnt && T(bt[order[last + 1]]) == tK) last++;
  int bestS = -1;
  T bestScore = T(-1);
  for (int s = last; s >= 0; s--) {
    const int i = order[s];
    if (T(bt[i]) < low) break;
    if (br[i] < 0) {
      bestS = s;  // the entering variable's own bound: no basis change needed
      break;
    }
    const int p = br[i] >> 1;
    const T score = absT(col->value[p]) * T(lengthWeight(lp, head[p]));
    if (score > bestScore) {
      bestScore = score;
      bestS = s;
    }
  }
  // A tiny pivot at the turn: an earlier breakpoint with a sound pivot still gains.
  if (bestS >= 0 && br[order[bestS]] >= 0 && absT(col->value[br[order[bestS]] >> 1]) < T(1e-5)) {
    const T want = absT(col->value[br[order[bestS]] >> 1]) * T(1000);
    for (int s = bestS - 1; s >= 0; s--) {
      const int i = order[s];
      if (br[i] < 0) continue;
      if (absT(col->value[br[i] >> 1]) >= want) {
        bestS = s;
        break;
      }
    }
  }
  const int i = order[bestS];
  if (br[i] < 0) {
    c.r = -1;
    c.theta = range;
    return kFlip;
  }
  return finishChoice(c, br[i] >> 1, br[i] & 1, T(bt[i]));
}

template <class T>
int VRXprimalRatioPW(Ctx<T>& c) {
  return ratioBreakpoints(c, true);
}

template <class T>
int VRXprimalRatio1(Ctx<T>& c) {
  return ratioBreakpoints(c, false);
}

#define VRX_PRIMAL_RATIO_INST(T)            \
  template int VRXprimalRatio2<T>(Ctx<T>&);  \
  template int VRXprimalRatioPW<T>(Ctx<T>&); \
  template int VRXprimalRatio1<T>(Ctx<T>&);
VRX_PRIMAL_RATIO_INST(double)
VRX_PRIMAL_RATIO_INST(long double)
#undef VRX_PRIMAL_RATIO_INST

}  // namespace primal
}  // namespace vrx
