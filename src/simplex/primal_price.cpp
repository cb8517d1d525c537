// Pricing of the primal loop: the choice of the entering column and the reference weights.
#include <algorithm>
#include <cmath>

#include "simplex/primal_impl.h"

namespace vrx {
namespace primal {

namespace {

// Attractive columns that partial pricing keeps between iterations.
constexpr int kHotCap = 32;

}  // namespace

// Partial pricing from the duals: the attractive columns kept from earlier scans are priced
// again, one chunk of further columns joins them, and the best of all by the static norm
// enters. Only when that finds nothing do the chunks go round the whole set.
template <class T>
int pricePartial(Ctx<T>& c, T tol) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  const int nm = c.nm;
  const int* st = lp->varStat;
  const double* w = pp->weights;
  int* hot = pp->hotList;
  T hotMerit[kHotCap];
  int best = -1, bestDir = 0;
  T bestMerit = T(0);
  int64_t ops = 0;
  auto price = [&](int j, int* dirOut) -> T {
    const int s = st[j];
    if (s >= 0 || s < VRX_VS_FREE || lp->lower[j] == lp->upper[j]) return T(0);
    const T dj = c.freshD(j);
    c.d[j] = dj;
    ops += j < c.n ? lp->colLen[j] : 1;
    const T inf = c.infeasOf(j, s, dj, tol, dirOut);
    return inf == T(0) ? T(0) : inf * inf / T(w[j]);
  };
  int kept = 0;
  for (int k = 0; k < pp->hotCount; k++) {
    const int j = hot[k];
    int dir = 0;
    const T merit = price(j, &dir);
    if (merit == T(0)) continue;
    hot[kept] = j;
    hotMerit[kept++] = merit;
    if (merit > bestMerit) {
      bestMerit = merit;
      best = j;
      bestDir = dir;
    }
  }
  pp->hotCount = kept;
  char* inHot = pp->mark;
  for (int k = 0; k < kept; k++) inHot[hot[k]] = 1;
  int start = pp->nextBlock % nm;
  int scanned = 0;
  const int chunk = pp->chunkLen > 0 ? pp->chunkLen : nm;
  while (scanned < nm) {
    const int len = std::min(chunk, nm - start);
    for (int j = start; j < start + len; j++) {
      if (inHot[j]) continue;
      int dir = 0;
      const T merit = price(j, &dir);
      if (merit == T(0)) continue;
      if (merit > bestMerit) {
        bestMerit = merit;
        best = j;
        bestDir = dir;
      }
      // Keep it for later iterations, in place of the weakest when the list is full.
      int slot = pp->hotCount;
      if (slot == kHotCap) {
        slot = 0;
        for (int k = 1; k < kHotCap; k++)
          if (hotMerit[k] < hotMerit[slot]) slot = k;
        if (hotMerit[slot] >= merit) continue;
        inHot[hot[slot]] = 0;
      } else {
        pp->hotCount++;
      }
      hot[slot] = j;
      hotMerit[slot] = merit;
      inHot[j] = 1;
    }
    scanned += len;
    start = (start + len) % nm;
    if (best >= 0) break;
  }
  pp->nextBlock = start;
  for (int k = 0; k < pp->hotCount; k++) inHot[hot[k]] = 0;
  c.q = best;
  c.dir = bestDir;
  if (best >= 0) c.dq = c.d[best];
  clockCharge(*c.clock, 2e-3 * static_cast<double>(ops) * lp->workFactor);
  return best;
}

template <class T>
void listRebuild(Ctx<T>& c) {
  VRXprimalprice* pp = c.pp;
  for (int k = 0; k < pp->infCount; k++) pp->infPos[pp->infList[k]] = -1;
  pp->infCount = 0;
  for (int j = 0; j < c.nm; j++) c.touch(j);
  pp->listStale = 0;
  clockCharge(*c.clock, 1e-3 * c.nm);
}

// The best listed candidate of entries [from, to) by the mode's merit; members no longer
// attractive leave (the last member takes their place, so the range shrinks with the list).
// Members joined with lower < upper, so only the status and the reduced cost are read here;
// merits inf^2/w are compared cross-multiplied, without a division per member.
template <class T>
int scanList(Ctx<T>& c, T tol, int from, int to, int* bestDirOut) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  const int* st = lp->varStat;
  const double* w = pp->weights;
  int* list = pp->infList;
  int* pos = pp->infPos;
  const bool weighted = lp->priceMode == 1 || lp->priceMode == 2;
  int best = -1, bestDir = 0;
  T bestInf2 = T(0), bestW = T(1);
  int k = from;
  while (k < to && k < pp->infCount) {
    const int j = list[k];
    const int s = st[j];
    if (s < -6 && s >= VRX_VS_FREE - 6) {
      k++;  // turned away for now, may come back
      continue;
    }
    int dir = 0;
    const T inf = (s >= 0 || s < VRX_VS_FREE) ? T(0) : c.infeasOf(j, s, c.d[j], tol, &dir);
    if (inf == T(0)) {
      const int last = list[--pp->infCount];
      list[k] = last;
      pos[last] = k;
      pos[j] = -1;
      continue;
    }
    const T inf2 = inf * inf;
    const T wj = weighted ? T(w[j]) : T(1);
    if (inf2 * bestW > bestInf2 * wj) {
      bestInf2 = inf2;
      bestW = wj;
      best = j;
      bestDir = dir;
    }
    k++;
  }
  clockCharge(*c.clock, 1e-3 * (k - from));
  *bestDirOut = bestDir;
  return best;
}

// The best candidate of the whole list.
template <class T>
int priceList(Ctx<T>& c, T tol) {
  VRXprimalprice* pp = c.pp;
  if (pp->listStale) listRebuild(c);
  int dir = 0;
  const int best = scanList(c, tol, 0, pp->infCount, &dir);
  c.q = best;
  c.dir = dir;
  if (best >= 0) c.dq = c.d[best];
  return best;
}

template <class T>
int priceEntering(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  const T tol = c.priceTolerance();
  if (lp->priceMode == 0) return pricePartial(c, tol);
  return priceList(c, tol);
}

template <class T>
void resetWeights(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  double* w = pp->weights;
  const int* st = lp->varStat;
  bool slackBasis = true;
  for (int p = 0; p < c.m && slackBasis; p++) slackBasis = c.f->basisHead[p] >= c.n;
  for (int j = 0; j < c.nm; j++) {
    const bool nb = st[j] < 0;
    lp->refFramework[j] = nb ? 1 : 0;
    if (!nb) {
      w[j] = 0.0;
    } else if (((lp->priceMode == 1 && slackBasis) || lp->priceMode == 0) && j < c.n) {
      // With B = I the steepest-edge norm is the column's own; partial pricing keeps
      // these static norms throughout.
      double s = 1.0;
      for (int64_t k = lp->colBeg[j], e = lp->colBeg[j] + lp->colLen[j]; k < e; k++) s += lp->val[k] * lp->val[k];
      w[j] = s;
    } else {
      w[j] = 1.0;
    }
  }
  pp->refSinceReset = 0;
  pp->hotCount = 0;
}

template <class T>
int updateWeights(Ctx<T>& c, int leaveVar, const T* atv, T thetaD) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  const int mode = lp->priceMode;
  double* w = pp->weights;
  const VRXsvecT<T>* col = c.col;
  const VRXsvecT<T>* row = c.row;
  const int q = c.q;
  const T ar = c.alphaR;
  const int* head = c.f->basisHead;
  T* d = c.d;

  if (mode == 0) {
    // Partial pricing: no row, the reduced costs come from the duals when priced.
    for (int k = 0; k < row->count; k++) d[row->index[k]] -= thetaD * row->value[row->index[k]];
    return 0;
  }

  if (mode == 2) {
    // Devex: the entering column's reference norm is known exactly from its ftran.
    const char* ref = lp->refFramework;
    T wq = ref[q] ? T(1) : T(0);
    for (int k = 0; k < col->count; k++) {
      const int p = col->index[k];
      if (ref[head[p]]) wq += col->value[p] * col->value[p];
    }
    if (wq < T(1)) wq = T(1);
    const bool drift = T(w[q]) > T(3) * wq || wq > T(3) * T(w[q]);
    const T inv = T(1) / ar;
    for (int k = 0; k < row->count; k++) {
      const int j = row->index[k];
      const T a = row->value[j];
      d[j] -= thetaD * a;
      c.touch(j);
      const T rj = a * inv;
      const T cand = rj * rj * wq;
      if (cand > T(w[j])) w[j] = static_cast<double>(cand);
    }
    w[leaveVar] = std::max(1.0, static_cast<double>(wq / (ar * ar)));
    w[q] = 0.0;
    pp->refSinceReset++;
    return drift ? 1 : 0;
  }

  // Steepest edge: gamma_j = 1 + ||B^-1 a_j||^2, updated with atv_j = a_j'B^-T alpha_q.
  T gq = T(1);
  for (int k = 0; k < col->count; k++) gq += col->value[col->index[k]] * col->value[col->index[k]];
  // The entering column's weight is known exactly here: one far off says the weights have
  // gone wrong, and they start again.
  const T wq = T(w[q]);
  const bool reset = !std::isfinite(static_cast<double>(gq)) || wq > T(1e8) * gq || gq > T(1e8) * wq;
  const T inv = T(1) / ar;
  for (int k = 0; k < row->count; k++) {
    const int j = row->index[k];
    const T a = row->value[j];
    d[j] -= thetaD * a;
    c.touch(j);
    const T rj = a * inv;
    const T g = T(w[j]) - T(2) * rj * atv[j] + rj * rj * gq;
    const T lowest = T(1) + rj * rj;
    w[j] = static_cast<double>(g > lowest ? g : lowest);
  }
  w[leaveVar] = std::max(1.0, static_cast<double>(gq / (ar * ar)));
  w[q] = 0.0;
  if (reset && lp->outputLevel > 2) log(c.env, "Resetting Norm\n");
  return reset ? 1 : 0;
}

#define VRX_PRIMAL_PRICE_INST(T)                 \
  template int priceEntering<T>(Ctx<T>&);        \
  template void resetWeights<T>(Ctx<T>&);        \
  template int updateWeights<T>(Ctx<T>&, int, const T*, T);
VRX_PRIMAL_PRICE_INST(double)
VRX_PRIMAL_PRICE_INST(long double)
#undef VRX_PRIMAL_PRICE_INST

}  // namespace primal
}  // namespace vrx
