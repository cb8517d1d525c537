// Dual simplex: one iteration. Choice of the leaving row over the candidate list, the pivot
// row from the active row-wise copy, the bound-flipping ratio test, and the updates.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "simplex/dual.h"

namespace vrx {
namespace dual {

namespace {

template <class T>
inline T absT(T x) {
  return x < T(0) ? -x : x;
}

inline bool isTempFixed(int st) { return st <= VRX_VS_FIX_LOWER; }

// Candidate entries of the pivot row below this do not count as break points.
constexpr double kCandTol = 1e-9;
// A pivot below this is taken only when no other row can be had.
constexpr double kSmallPivot = 1e-7;
// Gain of a break point that cannot be passed.
constexpr double kNoPass = 1e300;

template <class T>
double meritOf(const VRXlp* lp, const VRXdualprice* pr, const int* head, int p) {
  double s = pr->score[p] / pr->dualNorm[p];
  if (pr->weightMode == 1)
    s *= pr->colWeight[head[p]] / pr->rowWeight[p];
  else if (pr->weightMode == 2)
    s /= pr->rowWeight[p];
  if (lp->varType) {
    const int var = head[p];
    if (var < lp->n && lp->varType[var] != 'C') s *= 1.5;
  }
  return s;
}

// Full scan for the list: the best listLen merits go in, the threshold is the smallest of them.
template <class T>
int rebuildList(VRXlp* lp, const int* head) {
  VRXdualprice* pr = lp->pricing;
  const int m = lp->m;
  int* idx = lp->candidateBuf;
  int cnt = 0;
  for (int p = 0; p < m; p++) {
    if (lp->rowFlag[p] == 1) lp->rowFlag[p] = 0;
    if (pr->score[p] <= 0.0 || lp->rowFlag[p] == 5) continue;
    pr->scoreBuf[cnt] = meritOf<T>(lp, pr, head, p);
    idx[cnt++] = p;
  }
  pr->candCount = 0;
  pr->scanBudget = 40;
  if (cnt == 0) {
    pr->threshold = 1e300;
    return -1;
  }
  double thr;
  if (cnt <= pr->listLen) {
    thr = pr->scoreBuf[0];
    for (int k = 1; k < cnt; k++) thr = std::min(thr, pr->scoreBuf[k]);
  } else {
    // k-th largest merit by selection over a copy in the tail of scoreBuf.
    double* tmp = pr->scoreBuf + cnt;
    std::memcpy(tmp, pr->scoreBuf, sizeof(double) * static_cast<size_t>(cnt));
    std::nth_element(tmp, tmp + (pr->listLen - 1), tmp + cnt, [](double a, double b) { return a > b; });
    thr = tmp[pr->listLen - 1];
  }
  pr->threshold = thr;
  int best = -1;
  double bestMerit = -1.0;
  for (int k = 0; k < cnt; k++) {
    if (pr->scoreBuf[k] < thr) continue;
    const int p = idx[k];
    lp->rowFlag[p] = 1;
    pr->candList[pr->candCount++] = p;
    if (pr->scoreBuf[k] > bestMerit) {
      bestMerit = pr->scoreBuf[k];
      best = p;
    }
  }
  return best;
}

}  // namespace

template <class T>
void VRXdualPrice(VRXlp* lp) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int m = lp->m;
  const int* head = v.factor ? v.factor->basisHead : nullptr;
  lp->leaveRow = -1;
  if (m == 0) return;

  if (!pr->fullPricing && (m < 15.0 * pr->ftranDensity || m < lp->iterCount)) {
    log(lp->env, "Full pricing\n");
    pr->fullPricing = 1;
    pr->listLen = std::min(pr->listLen, std::max(20, static_cast<int>(std::pow(m, 0.65))));
    for (int k = 0; k < pr->candCount; k++)
      if (lp->rowFlag[pr->candList[k]] == 1) lp->rowFlag[pr->candList[k]] = 0;
    pr->candCount = 0;
  }

  if (pr->fullPricing) {
    int best = -1;
    double bestMerit = 0.0;
    const double* score = pr->score;
    const double* w = pr->dualNorm;
    if (pr->weightMode == 0 && !lp->varType) {
      for (int p = 0; p < m; p++) {
        const double s = score[p];
        if (s > bestMerit * w[p] && lp->rowFlag[p] != 5) {
          bestMerit = s / w[p];
          best = p;
        }
      }
    } else {
      for (int p = 0; p < m; p++) {
        if (score[p] <= 0.0 || lp->rowFlag[p] == 5) continue;
        const double s = meritOf<T>(lp, pr, head, p);
        if (s > bestMerit) {
          bestMerit = s;
          best = p;
        }
      }
    }
    lp->leaveRow = best;
    return;
  }

  // Partial list: every position whose merit reaches the threshold is listed.
  int best = -1;
  double bestMerit = -1.0;
  if (pr->scanBudget > 0) {
    int keep = 0;
    for (int k = 0; k < pr->candCount; k++) {
      const int p = pr->candList[k];
      if (lp->rowFlag[p] != 1) continue;
      const double s = pr->score[p] > 0.0 ? meritOf<T>(lp, pr, head, p) : 0.0;
      if (s < pr->threshold || s <= 0.0) {
        lp->rowFlag[p] = 0;
        continue;
      }
      pr->candList[keep++] = p;
      if (s > bestMerit) {
        bestMerit = s;
        best = p;
      }
    }
    pr->candCount = keep;
    pr->scanBudget--;
    if (keep > 4 * pr->listLen) best = -1;  // the threshold fell behind: rebuild
  }
  if (best < 0) best = rebuildList<T>(lp, head);
  lp->leaveRow = best;
}

// ---------------------------------------------------------------- pivot row

namespace {

template <class T>
void buildPivotRow(VRXlp* lp, Clock& clock, View<T>& v) {
  const int n = lp->n, m = lp->m;
  VRXsvecT<T>* row = v.row;
  const VRXsvecT<T>* rho = v.rho;
  clearVec(row, n + m + 1);
  T* val = row->value;
  int* ind = row->index;
  int cnt = 0;
  const T drop = T(lp->zeroTol);
  const int rc = rho->count;
  // Touched entries decide between the sparse and the dense form.
  int64_t touched = 0;
  if (rc >= 0) {
    for (int k = 0; k < rc; k++) touched += lp->activeRowLen[rho->index[k]];
  } else {
    touched = n;  // a dense rho is taken in dense form
  }
  if (rc >= 0 && 1.8 * static_cast<double>(touched) <= n) {
    for (int k = 0; k < rc; k++) {
      const int i = rho->index[k];
      const T r = rho->value[i];
      const int64_t b = lp->rowBeg[i], e = b + lp->activeRowLen[i];
      for (int64_t s = b; s < e; s++) {
        const int j = lp->activeColInd[s];
        if (val[j] == T(0)) ind[cnt++] = j;
        val[j] += r * T(lp->activeRowVal[s]);
        if (val[j] == T(0)) val[j] = T(1e-100);
      }
    }
    int keep = 0;
    for (int k = 0; k < cnt; k++) {
      const int j = ind[k];
      if (absT(val[j]) > drop)
        ind[keep++] = j;
      else
        val[j] = T(0);
    }
    cnt = keep;
    clock.work += (5.0 * (rc > 0 ? rc : 0) + 2.5 * static_cast<double>(touched)) * lp->workFactor;
  } else {
    int64_t len = 0;
    for (int i = 0; i < m; i++) {
      const T r = rho->value[i];
      if (r == T(0)) continue;
      const int64_t b = lp->rowBeg[i], e = b + lp->activeRowLen[i];
      len += e - b;
      for (int64_t s = b; s < e; s++) val[lp->activeColInd[s]] += r * T(lp->activeRowVal[s]);
    }
    for (int j = 0; j < n; j++) {
      if (val[j] == T(0)) continue;
      if (absT(val[j]) > drop)
        ind[cnt++] = j;
      else
        val[j] = T(0);
    }
    clock.work += (3.0 * m + n + 2.0 * static_cast<double>(len)) * lp->workFactor;
  }
  // Slacks: the row of the basis inverse itself.
  if (rc >= 0) {
    for (int k = 0; k < rc; k++) {
      const int i = rho->index[k];
      const T r = rho->value[i];
      if (lp->varStat[n + i] < 0 && absT(r) > drop) {
        val[n + i] = r;
        ind[cnt++] = n + i;
      }
    }
  } else {
    for (int i = 0; i < m; i++) {
      const T r = rho->value[i];
      if (r != T(0) && lp->varStat[n + i] < 0 && absT(r) > drop) {
        val[n + i] = r;
        ind[cnt++] = n + i;
      }
    }
  }
  row->count = cnt;
}

// Sorts candidate slots [lo, hi) of pr->cand by (ratio, larger gain first).
void sortRange(VRXdualprice* pr, int* order, int lo, int hi) {
  std::sort(order + lo, order + hi, [pr](int a, int b) {
    if (pr->candRatio[a] != pr->candRatio[b]) return pr->candRatio[a] < pr->candRatio[b];
    return pr->candGain[a] > pr->candGain[b];
  });
}

// The longest prefix, in break-point order, whose gains the slope can pay. The slots of
// `order` [0, k) are permuted so that the prefix comes first; returns its length and leaves
// the slope that remains in *slope.
int passablePrefix(VRXdualprice* pr, int* order, int k, double* slope) {
  int lo = 0, hi = k;
  double left = *slope;
  while (hi > lo) {
    if (hi - lo <= 8) {
      sortRange(pr, order, lo, hi);
      while (lo < hi && pr->candGain[order[lo]] <= left) {
        left -= pr->candGain[order[lo]];
        lo++;
      }
      break;
    }
    // Three-way split around the ratio of the middle slot.
    const double piv = pr->candRatio[order[lo + (hi - lo) / 2]];
    int a = lo, b = lo, c = hi;
    while (b < c) {
      const double r = pr->candRatio[order[b]];
      if (r < piv)
        std::swap(order[a++], order[b++]);
      else if (r > piv)
        std::swap(order[b], order[--c]);
      else
        b++;
    }
    double sumLess = 0.0;
    for (int s = lo; s < a; s++) sumLess += pr->candGain[order[s]];
    if (sumLess > left) {
      hi = a;
      continue;
    }
    left -= sumLess;
    lo = a;
    double sumEq = 0.0;
    for (int s = a; s < b; s++) sumEq += pr->candGain[order[s]];
    if (sumEq <= left) {
      left -= sumEq;
      lo = b;
      continue;
    }
    sortRange(pr, order, a, b);
    while (lo < b && pr->candGain[order[lo]] <= left) {
      left -= pr->candGain[order[lo]];
      lo++;
    }
    break;
  }
  *slope = left;
  return lo;
}

}  // namespace

template <class T>
int VRXdualRatio(VRXlp* lp, Clock& clock) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int n = lp->n, m = lp->m;
  const int r = lp->leaveRow;
  const int* head = v.factor->basisHead;
  const int leave = head[r];
  lp->enterVar = -1;
  lp->leaveVar = leave;
  pr->flipCount = 0;

  const double x = static_cast<double>(v.Bbar[r]);
  const double lo = pr->lo[leave], up = pr->up[leave];
  const int dir = x < lo ? 1 : -1;
  const double delta = dir > 0 ? lo - x : x - up;
  pr->dirSign = dir;
  pr->leaveInfeas = delta;
  lp->direction = dir;

  // rho = B^-T e_r, then the pivot row over the nonbasic variables.
  VRXsvecT<T>* rho = v.rho;
  clearVec(rho, m + 1);
  rho->value[r] = T(1);
  rho->index[0] = r;
  rho->count = 1;
  const double rowWork0 = v.factor->solveWork + clock.work;
  int rc = VRXbtran(v.factor, rho, rho, 0, &clock.work);
  if (rc) return rc;
  buildPivotRow<T>(lp, clock, v);
  pr->rowNum += v.factor->solveWork + clock.work - rowWork0;

  // Break points: Cbar_j + s a_j with a_j < 0 reaches 0 at s = Cbar_j / -a_j.
  const VRXsvecT<T>* row = v.row;
  const T* Cbar = v.Cbar;
  const double optTol = lp->optTol;
  const double harrisTol = pr->harrisTol > 0.0 ? std::min(pr->harrisTol, optTol) : optTol;
  const double inf = lp->infBound;
  int k = 0;
  bool tinyUnbounded = false;  // a helpful entry below kCandTol on an unbounded variable
  double harrisAll = kNoPass;  // Harris bound over every break point
  double* candA = pr->candA;   // -a: the size of the entry in the direction of the step
  double* candC = pr->candC;   // Cbar in that direction
  for (int t = 0; t < row->count; t++) {
    const int j = row->index[t];
    const int st = lp->varStat[j];
    if (st >= 0 || isTempFixed(st)) continue;
    const double lj = pr->lo[j], uj = pr->up[j];
    if (lj == uj) continue;
    double a = dir * signOf(st) * static_cast<double>(row->value[j]);
    double c = static_cast<double>(Cbar[j]);
    bool turned = false;  // a free column taken from above: its Cbar counts negated
    if (st == VRX_VS_FREE && a > 0) {
      a = -a;
      c = -c;
      turned = true;
    }
    if (a >= -kCandTol) {
      if (a < -lp->zeroTol && (st == VRX_VS_FREE || (st == VRX_VS_LOWER ? uj >= inf : lj <= -inf)))
        tinyUnbounded = true;
      continue;
    }
    if (c < -optTol) {
      // Numerical drift left a real dual infeasibility: shift it away first.
      dualShift(lp, j, turned ? c : -c);
      v.Cbar[j] = T(0);
      c = 0.0;
    }
    pr->cand[k] = j;
    candA[k] = -a;
    candC[k] = c;
    pr->candRatio[k] = std::max(c, 0.0) / -a;
    const bool finite = st != VRX_VS_FREE && lj > -inf && uj < inf;
    pr->candGain[k] = finite ? (uj - lj) * -a : kNoPass;
    harrisAll = std::min(harrisAll, std::max(0.0, c + harrisTol) / -a);
    k++;
  }
  clock.work += 3.0 * row->count * lp->workFactor;

  // Which slots can be passed: the quick answer when the first Harris group stops the slope.
  int* order = lp->candidateBuf;
  for (int s = 0; s < k; s++) order[s] = s;
  double slope = delta;
  int nFlip = 0;
  if (k > 0) {
    double gain0 = 0.0;
    for (int s = 0; s < k && gain0 <= slope; s++)
      if (pr->candRatio[s] <= harrisAll) gain0 += pr->candGain[s];
    if (gain0 > slope || lp->pwRatio == 0) {
      // Without the bound-flipping test the first break point always stops the step.
      nFlip = 0;
    } else {
      nFlip = passablePrefix(pr, order, k, &slope);
    }
  }

  // Everything can be passed: the row is infeasible, or the last break point enters.
  if (nFlip == k) {
    const double proofTol = 0.9999999999 * lp->feasTol;
    if (slope >= proofTol || k == 0) {
      if (!pr->freshFactor) {
        lp->actionCode = 6;
        return 3;
      }
      if (tinyUnbounded || pr->boxPhase) {
        // No clean proof: leave the row out for this cycle.
        lp->rowFlag[r] = 5;
        pr->smallPivotRejects++;
        return 0;
      }
      lp->status = 3;
      lp->phase = 2;
      return 3;
    }
    // The flips bring the row within tolerance: the largest break point enters instead.
    int last = 0;
    for (int s = 1; s < k; s++)
      if (pr->candRatio[order[s]] > pr->candRatio[order[last]]) last = s;
    std::swap(order[last], order[k - 1]);
    nFlip = k - 1;
  }

  // Harris pass over the break points that are not passed.
  double harris = kNoPass;
  if (nFlip == 0) {
    harris = harrisAll;
  } else {
    for (int s = nFlip; s < k; s++) {
      const int slot = order[s];
      harris = std::min(harris, std::max(0.0, candC[slot] + harrisTol) / candA[slot]);
    }
  }
  double maxA = 0.0;
  for (int s = nFlip; s < k; s++) {
    const int slot = order[s];
    if (pr->candRatio[slot] <= harris) maxA = std::max(maxA, candA[slot]);
  }
  // Among pivots of similar size the shorter column wins: the factor stays sparse.
  int q = -1, qSlot = -1;
  double bestScore = -1.0;
  for (int s = nFlip; s < k; s++) {
    const int slot = order[s];
    if (pr->candRatio[slot] > harris || candA[slot] < 0.1 * maxA) continue;
    const int j = pr->cand[slot];
    const double len = j < n ? std::max(1, lp->colLen[j]) : 0.5;
    const double score = candA[slot] / len;
    if (score > bestScore) {
      bestScore = score;
      q = j;
      qSlot = slot;
    }
  }
  if (q < 0) {
    lp->actionCode = 6;
    return 3;
  }

  // Small pivot: refactor first, then turn the row away for this cycle.
  const double aq = candA[qSlot];
  if (aq < kSmallPivot && !pr->acceptSmall) {
    if (!pr->freshFactor) {
      lp->actionCode = 6;
      return 3;
    }
    lp->rowFlag[r] = 5;
    pr->smallPivotRejects++;
    lp->smallPivotCount++;
    if (aq > lp->smallPivotBest) {
      lp->smallPivotBest = aq;
      lp->smallPivotVar = q;
    }
    return 0;
  }

  // A retried row whose pivot is still small: a passed break point with a pivot ten times
  // larger takes the step at zero length, else the row's numbers are not to be trusted.
  bool zeroStep = false;
  if (pr->acceptSmall && aq < 10.0 * lp->pivotTol) {
    log(lp->env, "small pivot %g\n", aq);
    int alt = -1;
    for (int s = 0; s < nFlip; s++) {
      const int slot = order[s];
      if (candA[slot] >= 10.0 * aq && (alt < 0 || candA[slot] > candA[alt])) alt = slot;
    }
    if (alt >= 0) {
      qSlot = alt;
      q = pr->cand[alt];
      zeroStep = true;
    } else if (aq > optTol / 10.0) {
      log(lp->env, "switch to primal because the chance of primal infeasibility\n");
      lp->status = -1004;
      return 3;
    } else if (delta < 10.0 * lp->feasTol && lp->markowitzTol <= 0.3) {
      // A tiny infeasibility on a row of tiny pivots: a stricter factor decides.
      lp->markowitzTol = 0.5;
      lp->actionCode = 5;
      return 3;
    }
  }

  // The step; a chosen column that is a little infeasible is shifted to zero.
  double cq = candC[qSlot];
  if (cq < 0.0 || (zeroStep && cq != 0.0)) {
    const int st = lp->varStat[q];
    const bool turned = st == VRX_VS_FREE && dir * signOf(st) * static_cast<double>(row->value[q]) > 0;
    const double v0 = turned ? cq : -cq;
    dualShift(lp, q, v0);
    v.Cbar[q] += T(v0);
    cq = 0.0;
  }
  const double step = cq / aq;
  pr->stepT = step;
  if (cq < optTol) lp->degenPivots++;

  // The passed break points flip; the objective gains along the pieces.
  double objGain = delta * step;
  int nf = 0;
  if (zeroStep) nFlip = 0;
  for (int s = 0; s < nFlip; s++) {
    const int slot = order[s];
    if (slot == qSlot) continue;
    if (lp->nonDegenFlip == 1 && candC[slot] > step * candA[slot] - 0.001 * optTol) continue;
    pr->flipList[nf++] = pr->cand[slot];
    objGain -= pr->candGain[slot] * (step - pr->candRatio[slot]);
  }
  pr->flipCount = nf;
  pr->flipObj = objGain;
  lp->enterVar = q;
  lp->pivotRow = static_cast<double>(row->value[q]);
  return 0;
}

template <class T>
int VRXdualPivot(VRXlp* lp, Clock& clock) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  const int n = lp->n, m = lp->m;
  const int r = lp->leaveRow, q = lp->enterVar;
  VRXfactorT<T>* f = v.factor;
  const int leave = f->basisHead[r];
  const int dir = pr->dirSign;
  const T* rowv = v.row->value;

  // Entering column, by position; its spike is kept for the update.
  VRXsvecT<T>* col = v.col;
  clearVec(col, m + 1);
  if (q < n) {
    int c = 0;
    for (int64_t k = lp->colBeg[q], e = k + lp->colLen[q]; k < e; k++) {
      col->value[lp->rowInd[k]] = T(lp->val[k]);
      col->index[c++] = lp->rowInd[k];
    }
    col->count = c;
  } else {
    col->value[q - n] = T(1);
    col->index[0] = q - n;
    col->count = 1;
  }
  int rc = VRXftran(f, col, col, 1, 0, &clock.work);
  if (rc) return rc;
  const T alphaC = col->value[r];
  const double aC = static_cast<double>(alphaC), aR = static_cast<double>(rowv[q]);
  lp->alphaR = aC;
  const int colCount = col->count >= 0 ? col->count : m;
  pr->ftranDensity = 0.95 * pr->ftranDensity + 0.05 * colCount;

  // The row and the column must agree on the pivot.
  const double diff = std::fabs(aC - aR);
  if (std::fabs(aC) < 1e-11 || diff > 1e-7 * std::max(1.0, std::fabs(aC))) {
    if (!pr->freshFactor) {
      lp->actionCode = 6;
      lp->enterVar = -1;
      return 0;
    }
    if (std::fabs(aC) < 1e-11 || diff > 1e-3 * std::fabs(aC)) {
      lp->rowFlag[r] = 5;
      pr->smallPivotRejects++;
      lp->enterVar = -1;
      return 0;
    }
  }

  // Steepest edge needs B^-1 rho before the basis changes. Against a reference framework
  // (modes 2 and 3) only the rows whose slack is outside it count.
  const bool dse = lp->priceMode == 1 || lp->priceMode == 3;
  const char* outside = nullptr;
  if (lp->priceMode == 2 || lp->priceMode == 3) outside = lp->refFramework + n;
  const double normWork0 = f->solveWork + clock.work;
  T tau = T(0);
  const VRXsvecT<T>* rho = v.rho;
  VRXsvecT<T>* sig = v.w1;
  if (dse) clearVec(sig, n + m + 1);
  if (rho->count >= 0) {
    int c = 0;
    for (int k = 0; k < rho->count; k++) {
      const int i = rho->index[k];
      if (outside && outside[i]) continue;
      const T x = rho->value[i];
      tau += x * x;
      if (dse) {
        sig->value[i] = x;
        sig->index[c++] = i;
      }
    }
    if (dse) sig->count = c;
  } else {
    for (int i = 0; i < m; i++) {
      if (outside && outside[i]) continue;
      const T x = rho->value[i];
      tau += x * x;
      if (dse) sig->value[i] = x;
    }
    if (dse) sig->count = -1;
  }
  if (dse) {
    rc = VRXftran(f, sig, sig, 0, 0, &clock.work);
    if (rc) return rc;
  }

  int* touched = pr->touched;
  int nt = 0;
  char* mark = pr->rowMark;

  // Bound flips through one ftran.
  const int nf = pr->flipCount;
  if (nf > 0) {
    VRXsvecT<T>* w = v.w2;
    clearVec(w, n + m + 1);
    int64_t flipNz = 0;
    for (int s = 0; s < nf; s++) {
      const int j = pr->flipList[s];
      flipNz += j < n ? lp->colLen[j] : 1;
    }
    const bool dense = flipNz > m / 2;
    int wc = 0;
    auto add = [&](int i, T x) {
      if (!dense && !mark[i]) {
        mark[i] = 1;
        w->index[wc++] = i;
      }
      w->value[i] += x;
    };
    for (int s = 0; s < nf; s++) {
      const int j = pr->flipList[s];
      const int st = lp->varStat[j];
      const T dx = st == VRX_VS_LOWER ? T(pr->up[j]) - T(pr->lo[j]) : T(pr->lo[j]) - T(pr->up[j]);
      if (j < n) {
        for (int64_t k = lp->colBeg[j], e = k + lp->colLen[j]; k < e; k++) add(lp->rowInd[k], T(lp->val[k]) * dx);
      } else {
        add(j - n, dx);
      }
    }
    if (dense) {
      w->count = -1;
    } else {
      for (int t = 0; t < wc; t++) {
        mark[w->index[t]] = 0;
        if (w->value[w->index[t]] == T(0)) w->value[w->index[t]] = T(1e-100);
      }
      w->count = wc;
    }
    clock.work += 2.0 * static_cast<double>(flipNz) * lp->workFactor;
    rc = VRXftran(f, w, w, 0, 0, &clock.work);
    if (rc) return rc;
    if (w->count >= 0) {
      for (int t = 0; t < w->count; t++) {
        const int p = w->index[t];
        v.Bbar[p] -= w->value[p];
        if (!mark[p]) {
          mark[p] = 1;
          touched[nt++] = p;
        }
      }
    } else {
      for (int p = 0; p < m; p++) {
        if (w->value[p] == T(0)) continue;
        v.Bbar[p] -= w->value[p];
        if (!mark[p]) {
          mark[p] = 1;
          touched[nt++] = p;
        }
      }
    }
    clearVec(w, m);
  }

  // Duals: Cbar_j moves by step * dir * sign * alpha_j; flipped columns turn their sign.
  const T step = T(pr->stepT);
  const VRXsvecT<T>* row = v.row;
  if (step != T(0)) {
    for (int t = 0; t < row->count; t++) {
      const int j = row->index[t];
      const int st = lp->varStat[j];
      if (st >= 0) continue;
      const T a = rowv[j];
      v.Cbar[j] += (signOf(st) * dir > 0) ? step * a : -step * a;
    }
  }
  for (int s = 0; s < nf; s++) {
    const int j = pr->flipList[s];
    lp->varStat[j] = lp->varStat[j] == VRX_VS_LOWER ? VRX_VS_UPPER : VRX_VS_LOWER;
    v.Cbar[j] = -v.Cbar[j];
  }

  // Primal step: the leaving variable reaches its bound, the entering one takes its place.
  const T target = dir > 0 ? T(pr->lo[leave]) : T(pr->up[leave]);
  const T thetaP = (v.Bbar[r] - target) / alphaC;
  const T enterValue = nonbasicValue<T>(lp, pr, q) + thetaP;
  if (col->count >= 0) {
    for (int t = 0; t < col->count; t++) {
      const int p = col->index[t];
      v.Bbar[p] -= thetaP * col->value[p];
      if (!mark[p]) {
        mark[p] = 1;
        touched[nt++] = p;
      }
    }
  } else {
    for (int p = 0; p < m; p++) {
      if (col->value[p] == T(0)) continue;
      v.Bbar[p] -= thetaP * col->value[p];
      if (!mark[p]) {
        mark[p] = 1;
        touched[nt++] = p;
      }
    }
  }
  v.Bbar[r] = enterValue;
  if (!mark[r]) {
    mark[r] = 1;
    touched[nt++] = r;
  }
  lp->primalStep = static_cast<double>(thetaP);

  // Weights.
  double* w = pr->dualNorm;
  const double ac = aC;
  if (dse) {
    const double t = static_cast<double>(tau);
    const T* sv = sig->value;
    auto upd = [&](int p) {
      if (p == r) return;
      const double ratio = static_cast<double>(col->value[p]) / ac;
      const double nw = w[p] - 2.0 * ratio * static_cast<double>(sv[p]) + ratio * ratio * t;
      w[p] = std::max(1e-8, nw);
    };
    if (col->count >= 0) {
      for (int k = 0; k < col->count; k++) upd(col->index[k]);
    } else {
      for (int p = 0; p < m; p++)
        if (col->value[p] != T(0)) upd(p);
    }
    w[r] = t == 0.0 ? 1e-8 : std::max(1e-8, t / (ac * ac));
    clearVec(sig, m);
    pr->normNum += f->solveWork + clock.work - normWork0 + colCount;
  } else if (lp->priceMode == 2) {
    const double wr = std::max(w[r] / (ac * ac), 1.0);
    auto upd = [&](int p) {
      if (p == r) return;
      const double ratio = static_cast<double>(col->value[p]) / ac;
      w[p] = std::max(w[p], ratio * ratio * w[r]);
    };
    if (col->count >= 0) {
      for (int k = 0; k < col->count; k++) upd(col->index[k]);
    } else {
      for (int p = 0; p < m; p++)
        if (col->value[p] != T(0)) upd(p);
    }
    w[r] = wr;
    lp->devexWork += m / 50.0 + colCount;
    if (lp->devexWork > 30.0 * m) {
      lp->devexWork = 0.0;
      dualResetNorms(lp);
      dualMarkReference(lp);
    }
  }
  pr->updatesSinceNorm++;

  // Factor update; a refused update leaves the new head for the next build.
  VRXfactorCtl ctl;
  lpFactorCtlLoad(lp, &ctl);
  ctl.actionCode = 0;
  rc = VRXfactorUpdate(f, r, q, &ctl, &clock.work);
  const int keepAction = lp->actionCode;
  lpFactorCtlStore(lp, &ctl);
  if (rc == 1) {
    f->basisHead[r] = q;
  } else if (rc) {
    return rc;
  } else {
    lp->actionCode = keepAction;
  }
  pr->freshFactor = 0;

  // Statuses, the leaving variable's reduced cost and the active row copy.
  const bool fixedReal = lp->lower[leave] == lp->upper[leave];
  const int newStat = fixedReal ? VRX_VS_FIX_LOWER : (dir > 0 ? VRX_VS_LOWER : VRX_VS_UPPER);
  const T dLeave = dir > 0 ? step : -step;
  lp->varStat[q] = r;
  lp->varStat[leave] = newStat;
  v.Cbar[q] = T(0);
  v.Cbar[leave] = signOf(newStat) < 0 ? -dLeave : dLeave;
  if (leave < n) VRXlpRowSwap(lp, leave, 1, 1.0);
  if (q < n) VRXlpRowSwap(lp, q, -1, 0.0);

  // Infeasibilities of the positions that moved.
  for (int t = 0; t < nt; t++) {
    const int p = touched[t];
    mark[p] = 0;
    dualScoreOne<T>(lp, p);
  }
  pr->touchedCount = nt;

  pr->objWork += pr->flipObj;
  if (!pr->shiftsInForce && !pr->boxPhase) {
    lp->dualObj = pr->objWork / lp->objScale + lp->objConst;
    lp->dualObjValid = 1;
  } else {
    lp->dualObjValid = 0;
  }
  lp->iterCount += 1.0;
  lp->workIter += 1.0 + nf;
  return 0;
}

}  // namespace dual
}  // namespace vrx

#define VRX_DUAL_ITER_INST(T)                                             \
  template void vrx::dual::VRXdualPrice<T>(VRXlp*);                      \
  template int vrx::dual::VRXdualRatio<T>(VRXlp*, vrx::Clock&);          \
  template int vrx::dual::VRXdualPivot<T>(VRXlp*, vrx::Clock&);
VRX_DUAL_ITER_INST(double)
VRX_DUAL_ITER_INST(long double)
