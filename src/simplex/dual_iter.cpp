// Dual simplex: one iteration. Choice of the leaving row over the candidate list, the pivot
// row from the active row-wise copy, the bound-flipping ratio test, and the updates.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "simplex/dual.h"
#include "simplex/pwl.h"

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
// A shorter column wins the pivot only within this fraction of the largest entry: a smaller
// pivot saves fill but lets the basic values grow (the pilot models lose thousands of
// iterations to it at a tenth).
constexpr double kShortColumnPivot = 0.5;
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

// The break points of piecewise column j in the ratio test, appended from slot k: a chain
// of segments in the direction the step moves the column, each reached once the reduced
// cost of the segment before has run out. a is the entry in the direction of the step
// (a < 0: the current reading's Cbar c falls). Returns the new slot count.
int pwlChain(VRXlp* lp, VRXdualprice* pr, int j, double a, double c, int k) {
  const VRXpwlobj* w = lp->pwl;
  const int t = w->termOf[j];
  const int b = w->beg[t], e = w->beg[t + 1], cur = w->seg[t];
  const bool atLower = lp->varStat[j] == VRX_VS_LOWER;
  int s = cur, step;
  if (a < -kCandTol) {
    step = atLower ? 1 : -1;
  } else if (a > kCandTol) {
    // The other reading of the break point falls: the neighbour on that side.
    step = atLower ? -1 : 1;
    s = cur + step;
    if (s < b || s >= e) return k;
    c = std::fabs(w->slope[s] - w->slope[cur]) - c;
    a = -a;
  } else {
    return k;
  }
  const double size = -a;
  int prev = -1;
  for (; s >= b && s < e; s += step) {
    if (prev >= 0) c += std::fabs(w->slope[s] - w->slope[s - step]);
    const double width = w->right[s] - w->left[s];
    pr->cand[k] = j;
    pr->candA[k] = size;
    pr->candC[k] = c;
    pr->candRatio[k] = std::max(c, 0.0) / size;
    pr->candGain[k] = width < kInf ? width * size : kNoPass;
    pr->candSeg[k] = s;
    pr->candPrev[k] = prev;
    prev = k++;
    if (!(width < kInf)) break;
  }
  return k;
}

// The break points of a piecewise leaving column j at value x: the segments beyond the
// one it is basic on, toward x. On each its target bound moves out by the segment's width,
// once the step has raised its reduced cost by the rise of the slope; the segment that
// holds x cannot be passed (the row is then feasible). Appended from slot k.
int pwlOwnChain(VRXlp* lp, VRXdualprice* pr, int j, double x, int dir, int k) {
  const VRXpwlobj* w = lp->pwl;
  const int t = w->termOf[j];
  const int b = w->beg[t], e = w->beg[t + 1];
  const int step = dir < 0 ? 1 : -1;
  double c = 0.0;
  int prev = -1;
  for (int s = w->seg[t] + step; s >= b && s < e; s += step) {
    c += std::fabs(w->slope[s] - w->slope[s - step]);
    const double width = w->right[s] - w->left[s];
    const bool holds = !(width < kInf) || (step > 0 ? x <= w->right[s] : x >= w->left[s]);
    pr->cand[k] = j;
    pr->candA[k] = 1.0;
    pr->candC[k] = c;
    pr->candRatio[k] = c;
    pr->candGain[k] = holds ? kNoPass : width;
    pr->candSeg[k] = s;
    pr->candPrev[k] = prev;
    prev = k++;
    if (holds) break;
  }
  return k;
}

// Where the passed break points leave piecewise column j (the chain's last passed slot
// `last`, or -1), or where it enters (enterSlot >= 0): its new segment, status and move,
// appended to the flip list at nf. Returns the new flip count.
int pwlLanding(VRXlp* lp, VRXdualprice* pr, int j, int last, int enterSlot, int nf) {
  const VRXpwlobj* w = lp->pwl;
  const int t = w->termOf[j];
  const int b = w->beg[t], e = w->beg[t + 1], cur = w->seg[t];
  const int st = lp->varStat[j];
  const double x0 = st == VRX_VS_UPPER ? w->right[cur] : w->left[cur];
  const int ref = enterSlot >= 0 ? enterSlot : last;
  const int sr = pr->candSeg[ref];
  const bool right = sr != cur ? sr > cur : st == VRX_VS_LOWER;
  int seg, stat;
  double x;
  if (enterSlot >= 0) {
    // It enters on its segment from the near end.
    seg = sr;
    stat = right ? VRX_VS_LOWER : VRX_VS_UPPER;
    x = right ? w->left[seg] : w->right[seg];
  } else if (right) {
    x = w->right[sr];
    seg = sr + 1 < e ? sr + 1 : sr;
    stat = seg == sr ? VRX_VS_UPPER : VRX_VS_LOWER;
  } else {
    x = w->left[sr];
    seg = sr - 1 >= b ? sr - 1 : sr;
    stat = seg == sr ? VRX_VS_LOWER : VRX_VS_UPPER;
  }
  if (seg == cur && stat == st) return nf;
  pr->flipList[nf] = j;
  pr->flipDx[nf] = x - x0;
  pr->flipSeg[nf] = seg;
  pr->flipStat[nf] = stat;
  return nf + 1;
}

}  // namespace

int dualInfeasibleLookingRow(VRXlp* lp, const int* order, int k, double left) {
  VRXdualprice* pr = lp->pricing;
  const double inf = pr->leaveInfeas;
  const double feasTol = lp->feasTol;
  if (pr->infeasFlips < 10 && (lp->endFactor || left <= 100.0 * feasTol)) {
    // Flipping bounded columns in break-point order moves the row toward its bound; a
    // shift keeps each flipped column dual feasible, else the next compute flips it back.
    double covered = 0.0;
    int nf = 0;
    for (int s = 0; s < k && covered < inf; s++) {
      const int slot = order[s];
      if (pr->candGain[slot] >= kNoPass || pr->candSeg[slot] >= 0) continue;
      covered += pr->candGain[slot];
      pr->flipList[nf++] = slot;
    }
    if (covered >= inf) {
      for (int s = 0; s < nf; s++) {
        const int slot = pr->flipList[s];
        const int j = pr->cand[slot];
        lp->varStat[j] = lp->varStat[j] == VRX_VS_LOWER ? VRX_VS_UPPER : VRX_VS_LOWER;
        if (pr->candC[slot] > 0.0) dualShift(lp, j, pr->candC[slot]);
      }
      pr->infeasFlips++;
      lp->actionCode = 5;
      return 3;
    }
  }
  if (inf < 10.0 * feasTol && lp->markowitzTol <= 0.3) {
    // A tiny infeasibility on a row of tiny pivots: a stricter factor decides.
    lp->markowitzTol = 0.5;
    lp->actionCode = 5;
    return 3;
  }
  lp->status = 3;
  lp->phase = 2;
  return 3;
}

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
  pr->leaveSeg = -1;

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
  // Piecewise columns give a chain of break points each, except in the box phase.
  const bool pieces = lp->pwl && !pr->boxPhase;
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
    if (pieces && pwlColumn(lp, j) && st != VRX_VS_FREE) {
      const int k0 = k;
      k = pwlChain(lp, pr, j, a, c, k);
      for (int s = k0; s < k; s++)
        harrisAll = std::min(harrisAll, std::max(0.0, candC[s] + harrisTol) / candA[s]);
      continue;
    }
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
    pr->candSeg[k] = -1;
    pr->candPrev[k] = -1;
    candA[k] = -a;
    candC[k] = c;
    pr->candRatio[k] = std::max(c, 0.0) / -a;
    const bool finite = st != VRX_VS_FREE && lj > -inf && uj < inf;
    pr->candGain[k] = finite ? (uj - lj) * -a : kNoPass;
    harrisAll = std::min(harrisAll, std::max(0.0, c + harrisTol) / -a);
    k++;
  }
  if (pieces && pwlColumn(lp, leave)) {
    const int k0 = k;
    k = pwlOwnChain(lp, pr, leave, x, dir, k);
    for (int s = k0; s < k; s++) harrisAll = std::min(harrisAll, candC[s] + harrisTol);
  }
  clock.work += 3.0 * row->count * lp->workFactor;

  // Which slots can be passed: the quick answer when the first Harris group stops the slope.
  int* order = pr->candOrder;
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
  // A piecewise break point can enter only once the one before it in its chain is passed.
  char* passed = pr->candPassed;
  for (int s = 0; s < nFlip; s++) passed[order[s]] = 1;
  auto reachable = [&](int slot) { return pr->candPrev[slot] < 0 || passed[pr->candPrev[slot]]; };
  double maxA = 0.0;
  for (int s = nFlip; s < k; s++) {
    const int slot = order[s];
    if (pr->candRatio[slot] <= harris && reachable(slot)) maxA = std::max(maxA, candA[slot]);
  }
  // Among pivots of similar size the shorter column wins: the factor stays sparse.
  int q = -1, qSlot = -1;
  double bestScore = -1.0;
  for (int s = nFlip; s < k; s++) {
    const int slot = order[s];
    if (pr->candRatio[slot] > harris || candA[slot] < kShortColumnPivot * maxA || !reachable(slot)) continue;
    const int j = pr->cand[slot];
    const double len = j < n ? std::max(1, lp->colLen[j]) : 0.5;
    const double score = candA[slot] / len;
    if (score > bestScore) {
      bestScore = score;
      q = j;
      qSlot = slot;
    }
  }
  for (int s = 0; s < nFlip; s++) passed[order[s]] = 0;
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
      if (candA[slot] >= 10.0 * aq && pr->candSeg[slot] < 0 && (alt < 0 || candA[slot] > candA[alt])) alt = slot;
    }
    if (alt >= 0) {
      qSlot = alt;
      q = pr->cand[alt];
      zeroStep = true;
    } else if (aq > optTol / 10.0) {
      log(lp->env, "switch to primal because the chance of primal infeasibility\n");
      lp->status = -1004;
      return 3;
    } else {
      return dualInfeasibleLookingRow(lp, order, k, slope);
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
  VRXpwlobj* w = lp->pwl;
  if (w) w->movedCount = 0;
  int ownLast = -1;  // the furthest passed break point of a piecewise leaving column
  for (int s = 0; s < nFlip; s++) {
    const int slot = order[s];
    if (slot == qSlot) continue;
    const int j = pr->cand[slot];
    if (j == leave) {
      if (ownLast < 0 || pr->candRatio[slot] > pr->candRatio[ownLast]) ownLast = slot;
      objGain -= pr->candGain[slot] * (step - pr->candRatio[slot]);
      continue;
    }
    if (pr->candSeg[slot] >= 0) {
      // A piecewise column moves once, to where its furthest passed break point leaves it.
      const int t = w->termOf[j];
      if (w->lastPassed[t] < 0) w->moved[w->movedCount++] = t;
      if (w->lastPassed[t] < 0 || pr->candRatio[slot] > pr->candRatio[w->lastPassed[t]]) w->lastPassed[t] = slot;
      objGain -= pr->candGain[slot] * (step - pr->candRatio[slot]);
      continue;
    }
    if (lp->nonDegenFlip == 1 && candC[slot] > step * candA[slot] - 0.001 * optTol) continue;
    pr->flipList[nf] = j;
    pr->flipDx[nf] = lp->varStat[j] == VRX_VS_LOWER ? pr->up[j] - pr->lo[j] : pr->lo[j] - pr->up[j];
    pr->flipSeg[nf] = -1;
    nf++;
    objGain -= pr->candGain[slot] * (step - pr->candRatio[slot]);
  }
  if (w && pieces) {
    const bool qPiece = pr->candSeg[qSlot] >= 0;
    for (int u = 0; u < w->movedCount; u++) {
      const int t = w->moved[u];
      const int j = w->col[t];
      if (!(qPiece && j == q)) nf = pwlLanding(lp, pr, j, w->lastPassed[t], -1, nf);
      w->lastPassed[t] = -1;
    }
    if (qPiece && q != leave) nf = pwlLanding(lp, pr, q, -1, qSlot, nf);
  }
  // The leaving column ends on the segment of its last passed break point, or, when its
  // own break point stops the step, stays basic on that segment.
  pr->leaveSeg = -1;
  pr->leaveShift = 0.0;
  const int ownSlot = q == leave ? qSlot : ownLast;
  if (ownSlot >= 0) {
    pr->leaveSeg = pr->candSeg[ownSlot];
    pr->leaveShift = candC[ownSlot];
  }
  pr->flipCount = nf;
  pr->flipObj = objGain;
  lp->enterVar = q;
  lp->pivotRow = static_cast<double>(row->value[q]);
  return 0;
}

namespace {

// Bbar -= scale * w over the positions of w, each appended once to pr->touched.
template <class T>
void bbarMinus(VRXlp* lp, View<T>& v, const VRXsvecT<T>* w, T scale, int* nt) {
  VRXdualprice* pr = lp->pricing;
  auto one = [&](int p) {
    v.Bbar[p] -= scale * w->value[p];
    if (!pr->rowMark[p]) {
      pr->rowMark[p] = 1;
      pr->touched[(*nt)++] = p;
    }
  };
  if (w->count >= 0) {
    for (int t = 0; t < w->count; t++) one(w->index[t]);
  } else {
    for (int p = 0; p < lp->m; p++)
      if (w->value[p] != T(0)) one(p);
  }
}

// The bound flips of the last ratio test through one ftran into Bbar; the positions that
// change are appended to pr->touched (marked in pr->rowMark) from *nt.
template <class T>
int flipsToBbar(VRXlp* lp, Clock& clock, View<T>& v, int* nt) {
  VRXdualprice* pr = lp->pricing;
  const int n = lp->n, m = lp->m;
  VRXfactorT<T>* f = v.factor;
  char* mark = pr->rowMark;
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
      const T dx = T(pr->flipDx[s]);
      if (dx == T(0)) continue;
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
    if (int rc = VRXftran(f, w, w, 0, 0, &clock.work)) return rc;
    bbarMinus<T>(lp, v, w, T(1), nt);
    clearVec(w, m);
  }
  return 0;
}

// The dual step on the reduced costs of the nonbasic variables, then the flipped ones on
// their new bound or segment.
template <class T>
void stepDuals(VRXlp* lp, View<T>& v) {
  VRXdualprice* pr = lp->pricing;
  const int dir = pr->dirSign;
  const int nf = pr->flipCount;
  const T* rowv = v.row->value;
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
    const int seg = pr->flipSeg[s];
    if (seg < 0) {
      lp->varStat[j] = lp->varStat[j] == VRX_VS_LOWER ? VRX_VS_UPPER : VRX_VS_LOWER;
      v.Cbar[j] = -v.Cbar[j];
      continue;
    }
    // A piecewise column on another segment: its reduced cost moves by the change of slope.
    VRXpwlobj* w = lp->pwl;
    const int t = w->termOf[j];
    const T raw = T(signOf(lp->varStat[j])) * v.Cbar[j] + T(w->slope[seg]) - T(w->slope[w->seg[t]]);
    pwlSetSegment(lp, t, seg);
    lp->varStat[j] = pr->flipStat[s];
    v.Cbar[j] = T(signOf(pr->flipStat[s])) * raw;
  }
}

// The objective along the step, the iteration count.
void finishStep(VRXlp* lp) {
  VRXdualprice* pr = lp->pricing;
  pr->objWork += pr->flipObj;
  if (!pr->shiftsInForce && !pr->boxPhase) {
    lp->dualObj = pr->objWork / lp->objScale + lp->objConst;
    lp->dualObjValid = 1;
  } else {
    lp->dualObjValid = 0;
  }
  lp->iterCount += 1.0;
  lp->workIter += 1.0 + pr->flipCount;
}

// A piecewise leaving column whose own break point stops the step: the basis stays, the
// flips and the dual step apply, and the column stays basic on that break point's segment
// (its slope rose by the step, so its reduced cost stays 0).
template <class T>
int dualSelfStep(VRXlp* lp, Clock& clock, View<T>& v) {
  VRXdualprice* pr = lp->pricing;
  const int r = lp->leaveRow;
  int nt = 0;
  if (int rc = flipsToBbar<T>(lp, clock, v, &nt)) return rc;
  stepDuals<T>(lp, v);
  pwlSetSegment(lp, lp->pwl->termOf[lp->leaveVar], pr->leaveSeg);
  int* touched = pr->touched;
  char* mark = pr->rowMark;
  if (!mark[r]) touched[nt++] = r;
  for (int t = 0; t < nt; t++) {
    mark[touched[t]] = 0;
    dualScoreOne<T>(lp, touched[t]);
  }
  pr->touchedCount = nt;
  finishStep(lp);
  return 0;
}

}  // namespace

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
  if (q == leave) return dualSelfStep<T>(lp, clock, v);

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
  if ((rc = flipsToBbar<T>(lp, clock, v, &nt))) return rc;
  stepDuals<T>(lp, v);
  const T step = T(pr->stepT);

  // A piecewise leaving column that passed break points of its own leaves on a farther
  // segment.
  if (pr->leaveSeg >= 0) pwlSetSegment(lp, lp->pwl->termOf[leave], pr->leaveSeg);

  // Primal step: the leaving variable reaches its bound, the entering one takes its place.
  const T target = dir > 0 ? T(pr->lo[leave]) : T(pr->up[leave]);
  const T thetaP = (v.Bbar[r] - target) / alphaC;
  const T enterValue = nonbasicValue<T>(lp, pr, q) + thetaP;
  bbarMinus<T>(lp, v, col, thetaP, &nt);
  v.Bbar[r] = enterValue;
  if (!mark[r]) {
    mark[r] = 1;
    touched[nt++] = r;
  }
  lp->primalStep = static_cast<double>(thetaP);

  // Weights.
  double* w = pr->dualNorm;
  bool devexReset = false;
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
    if (lp->devexWork <= 30.0 * m) {
      lp->devexWork += m / 50.0 + colCount;
      // tau counts only the rows outside the reference framework.
      const double qd = static_cast<double>(tau) / (ac * ac);
      auto upd = [&](int p) {
        if (p == r) return;
        const double a = static_cast<double>(col->value[p]);
        w[p] = std::max(w[p], qd * a * a);
      };
      if (col->count >= 0) {
        for (int k = 0; k < col->count; k++) upd(col->index[k]);
      } else {
        for (int p = 0; p < m; p++)
          if (col->value[p] != T(0)) upd(p);
      }
      if (ac * ac < static_cast<double>(tau)) w[r] = qd;
    } else {
      // The weights drifted too far from the framework: a new one after the basis change.
      lp->devexWork = 0.0;
      devexReset = true;
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
  v.Cbar[leave] = (signOf(newStat) < 0 ? -dLeave : dLeave) - T(pr->leaveSeg >= 0 ? pr->leaveShift : 0.0);
  if (leave < n) VRXlpRowSwap(lp, leave, 1, 1.0);
  if (q < n) VRXlpRowSwap(lp, q, -1, 0.0);
  if (devexReset) {
    dualResetNorms(lp);
    dualMarkReference(lp);
  }

  // Infeasibilities of the positions that moved.
  for (int t = 0; t < nt; t++) {
    const int p = touched[t];
    mark[p] = 0;
    dualScoreOne<T>(lp, p);
  }
  pr->touchedCount = nt;

  finishStep(lp);
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
