// Pieces of the primal loop shared by its translation units. T is the arithmetic of the
// record's work vectors: double, or long double while quadMode is 1.
#pragma once

#include <cmath>
#include <cstdint>

#include "simplex/primal.h"
#include "simplex/pwl.h"

namespace vrx {
namespace primal {

// Classes of a basis position (kept in rowFlag): out of bounds below or above, within
// bounds (the tolerance included), or a free basic that never blocks.
constexpr char kBelow = 'B';
constexpr char kAbove = 'A';
constexpr char kWithin = 'N';
constexpr char kFree = 'F';

// Outcomes of a ratio test.
enum RatioResult { kPivot = 0, kFlip = 1, kUnbounded = 2, kSmallPivot = 3, kNoBlock = 4 };

template <class T>
inline T absT(T x) {
  return x < T(0) ? -x : x;
}

// The code without the one-iteration rejection.
inline int baseStat(int s) { return s < -6 ? s + VRX_VS_REJECT_SHIFT : s; }

template <class T>
struct Ctx {
  VRXlp* lp;
  VRXprimalprice* pp;
  VRXenv* env;
  Clock* clock;
  int n, m, nm;
  double inf;  // infBound: a bound at least this large is no bound
  T* x;        // Bbar: basic values by position
  T* d;        // Cbar: reduced costs of the phase in force
  VRXsvecT<T>* col;  // ftran of the entering column, by position
  VRXsvecT<T>* row;  // pivot row over the nonbasics, by variable
  VRXsvecT<T>* rho;  // B^-T e_r, by row
  VRXsvecT<T>* s1;   // scratch, n+m+1
  VRXsvecT<T>* s2;   // scratch, n+m+1
  VRXfactorT<T>* f;
  VRXfactorMatrix A;
  T* y;  // duals of the phase in force; kept up to date only in partial pricing (mode 0)
  VRXpwlobj* pw;  // piecewise terms of the record, null without
  int segMoves;   // basic piecewise columns put on another segment by the last compute
  int passCount;  // basic piecewise columns the ratio test let past a break point (in pp->candList)

  // The iteration in progress.
  int q;        // entering variable
  int dir;      // +1 increases, -1 decreases
  T dq;         // its reduced cost
  T xq;         // its value
  int r;        // leaving position, -1 for a bound flip
  int leaveUp;  // the leaving variable goes to its upper bound
  T theta;      // primal step (>= 0, along dir)
  T alphaR;     // pivot element from the column
  int forceSmall;  // accept a small pivot (the retry of the best rejected column)
  int vertexMove;  // the move takes a nonbasic off its interior value (no cost gain asked)
  int toZero;      // a free column heading for 0: its range is |xq|, not a bound

  bool loFinite(int j) const { return pp->lo[j] > -inf; }
  bool upFinite(int j) const { return pp->up[j] < inf; }

  // The value of nonbasic j from its status and the working bounds.
  double nbValue(int j) const {
    const int s = baseStat(lp->varStat[j]);
    if (s == VRX_VS_LOWER || s == VRX_VS_FIX_LOWER) return pp->lo[j];
    if (s == VRX_VS_UPPER || s == VRX_VS_FIX_UPPER) return pp->up[j];
    double v = lp->warmStart ? lp->warmStart[j] : 0.0;
    if (v < pp->lo[j]) v = pp->lo[j];
    if (v > pp->up[j]) v = pp->up[j];
    return v;
  }

  // Phase cost of a variable: the true cost in phase 2 (none in a zero-objective run).
  double trueCost(int j) const { return lp->zeroObjectiveMode ? 0.0 : lp->cost[j]; }
  // Phase-I cost of a basic class; with twoStage the true cost rides along at 1/bigM.
  double classCost(char cls) const { return cls == kBelow ? -1.0 : (cls == kAbove ? 1.0 : 0.0); }
  double phaseCostBasic(int p) const {
    const int j = f->basisHead[p];
    if (pp->phase == 2) return trueCost(j);
    double c = classCost(lp->rowFlag[p]);
    if (pp->twoStage) c += trueCost(j) / pp->bigM;
    return c;
  }
  double phaseCostNonbasic(int j) const {
    if (pp->phase == 2) return trueCost(j);
    return pp->twoStage ? trueCost(j) / pp->bigM : 0.0;
  }

  // The pricing tolerance of the phase in force.
  T priceTolerance() const { return T(pp->phase == 1 ? pp->dualFeasTol : pp->priceTol); }

  // The dual infeasibility of nonbasic j (status s) with reduced cost dj and the direction
  // that lowers the objective, or 0 when j is no candidate at tolerance tol. A piecewise
  // column at an inner break point is read on both segments around it: each direction
  // prices with the slope of the side it moves into.
  T infeasOf(int j, int s, T dj, T tol, int* dir) const {
    if (s == VRX_VS_LOWER) {
      if (dj < -tol) {
        *dir = 1;
        return -dj;
      }
      const T down = dj - T(readingGap(j, -1));
      if (down > tol) {
        *dir = -1;
        return down;
      }
      return T(0);
    }
    if (s == VRX_VS_UPPER) {
      if (dj > tol) {
        *dir = -1;
        return dj;
      }
      const T up = dj + T(readingGap(j, 1));
      if (up < -tol) {
        *dir = 1;
        return -up;
      }
      return T(0);
    }
    const T a = absT(dj);
    if (a <= tol) return T(0);
    *dir = dj < T(0) ? 1 : -1;
    return a;
  }

  // Whether nonbasic j (status s, no rejection mark) would enter at tolerance tol.
  bool attractive(int j, int s, T tol) const {
    if (s != VRX_VS_LOWER && s != VRX_VS_UPPER && s != VRX_VS_FREE) return false;
    int dir = 0;
    return infeasOf(j, s, d[j], tol, &dir) != T(0) && lp->lower[j] != lp->upper[j];
  }

  // The rise in phase cost from the left to the right segment at the break point where
  // nonbasic piecewise column j stands (side -1: its lower end, +1: its upper end); kInf
  // when there is no segment beyond (then that side is no candidate). Convexity makes it
  // at least 0, so at most one side of a break point is attractive.
  double readingGap(int j, int side) const {
    const int t = pw ? pw->termOf[j] : -1;
    if (t < 0) return kInf;
    const int s = pw->seg[t];
    // Only a column standing on the break point itself, not on a shifted bound.
    if (!breakPoint(j, side) || (side < 0 ? pp->lo[j] != pw->left[s] : pp->up[j] != pw->right[s])) return kInf;
    if (pp->phase == 2) return segmentRise(j, side);
    return pp->twoStage ? side * (pw->slope[s + side] - pw->slope[s]) / pp->bigM : 0.0;
  }

  // Whether the end of the segment in force on side (-1 lower, +1 upper) of piecewise
  // column j is an inner break point.
  bool breakPoint(int j, int side) const {
    const int t = pw ? pw->termOf[j] : -1;
    if (t < 0) return false;
    const int o = pw->seg[t] + side;
    return o >= pw->beg[t] && o < pw->beg[t + 1];
  }

  // The rise in phase-2 cost past the end of the segment in force on side (-1 lower, +1
  // upper) of a piecewise column, going outward; kInf when that end is no inner break point.
  double segmentRise(int j, int side) const {
    if (!breakPoint(j, side)) return kInf;
    const int t = pw->termOf[j], s = pw->seg[t];
    return lp->zeroObjectiveMode ? 0.0 : side * (pw->slope[s + side] - pw->slope[s]);
  }

  // Turns nonbasic piecewise column j, at a break point, to the reading of the segment on
  // the side of dir: it stays where it is, its cost and reduced cost change. False when j
  // already faces dir.
  bool faceDirection(int j, int dir) {
    const int t = pw ? pw->termOf[j] : -1;
    const int s = lp->varStat[j];
    if (t < 0 || !((s == VRX_VS_LOWER && dir < 0) || (s == VRX_VS_UPPER && dir > 0))) return false;
    const double g = readingGap(j, dir);
    pwlSetSegment(lp, t, pw->seg[t] + dir);
    pp->lo[j] = lp->lower[j];
    pp->up[j] = lp->upper[j];
    lp->varStat[j] = dir < 0 ? VRX_VS_UPPER : VRX_VS_LOWER;
    d[j] += T(dir * g);
    return true;
  }

  // Puts the basic piecewise column at position p on the segment that holds its value (the
  // end one beyond the range) so that its class and cost are those of that point. True when
  // the segment changed.
  bool holdSegment(int p) {
    const int j = f->basisHead[p];
    const int t = pw ? pw->termOf[j] : -1;
    if (t < 0) return false;
    const double v = static_cast<double>(x[p]), tol = lp->feasTol;
    const int b = pw->beg[t], e = pw->beg[t + 1], cur = pw->seg[t];
    if (v >= pw->left[cur] - tol && v <= pw->right[cur] + tol) return false;
    int s = cur;
    while (s + 1 < e && v > pw->right[s]) s++;
    while (s > b && v < pw->left[s]) s--;
    if (s == cur) return false;
    pwlSetSegment(lp, t, s);
    pp->lo[j] = lp->lower[j];
    pp->up[j] = lp->upper[j];
    return true;
  }

  // Lists j among the pricing candidates when its new reduced cost makes it attractive.
  void touch(int j) {
    if (pp->infPos[j] >= 0) return;
    if (!attractive(j, baseStat(lp->varStat[j]), priceTolerance())) return;
    pp->infPos[j] = pp->infCount;
    pp->infList[pp->infCount++] = j;
  }

  // Reduced cost of nonbasic j from the duals (partial pricing).
  T freshD(int j) const {
    T s = T(phaseCostNonbasic(j));
    if (j >= n) return s - y[j - n];
    for (int64_t k = lp->colBeg[j], e = lp->colBeg[j] + lp->colLen[j]; k < e; k++)
      s -= y[lp->rowInd[k]] * T(lp->val[k]);
    return s;
  }

  char classify(T v, int j) const {
    const double lo = pp->lo[j], up = pp->up[j];
    if (lo <= -inf && up >= inf) return kFree;
    const T tol = T(lp->feasTol);
    if (lo > -inf && v < T(lo) - tol) return kBelow;
    if (up < inf && v > T(up) + tol) return kAbove;
    return kWithin;
  }
};

template <class T>
Ctx<T> makeCtx(VRXlp* lp, Clock& clock);

// ---- primal_core.cpp ----
// Refactors, keeps the active copy and statuses in step with a repair, recomputes values,
// classes and reduced costs. 0 or an error code; lp->status may change (12, -1002).
template <class T>
int refactorAndCompute(Ctx<T>& c);
// x_B from the nonbasic values; classes, infeasCount, sums; the residual rule.
template <class T>
int computePrimal(Ctx<T>& c, bool measure);
// y and the reduced costs of every nonbasic for the phase in force. With measure the drift
// of the updated reduced costs sets a floor under the Markowitz tolerance.
template <class T>
int computeDual(Ctx<T>& c, bool measure = false);
// out = w'N over the nonbasic columns (and slacks), w by row. out is left sparse. With w2,
// out2[j] = w2'a_j for every j that out lists (out2 dense over n+m, the caller clears it).
template <class T>
void rowProduct(Ctx<T>& c, VRXsvecT<T>* w, VRXsvecT<T>* out, const VRXsvecT<T>* w2 = nullptr,
                T* out2 = nullptr);
// Turns a dense result into sparse form over its first dim entries.
template <class T>
void makeSparse(VRXsvecT<T>* v, int dim);
// True objective of the current point, in solver units (cost'x).
template <class T>
double objectiveValue(const Ctx<T>& c);
// Free columns turned away in phase I (status -6, not in the fix list) become -3 again.
template <class T>
void releaseTurnedAway(Ctx<T>& c);
// Working bounds back to the true ones.
template <class T>
void restoreBounds(Ctx<T>& c);

// ---- primal_price.cpp ----
// Picks the entering variable, or -1. Sets c.q, c.dir, c.dq.
template <class T>
int priceEntering(Ctx<T>& c);
// Weights for the mode in force from the current basis.
template <class T>
void resetWeights(Ctx<T>& c);
// Reduced costs (d_j -= thetaD * alpha_rj) and weights after a pivot, from the pivot row
// (c.row) and column (c.col), in one pass; atv holds a_j'B^-T alpha_q for the row's entries
// in steepest-edge mode. Returns 1 when the weights should be reset.
template <class T>
int updateWeights(Ctx<T>& c, int leaveVar, const T* atv, T thetaD);

// ---- primal_vertex.cpp ----
// Whether nonbasic j (status -3) stands where no basic solution puts it: strictly inside a
// finite bound, or free and away from 0.
template <class T>
bool offVertex(const Ctx<T>& c, int j);
// The next list entry to move to a vertex, or -1 when the list (rescanned once used up)
// has none. Sets c.q, c.dir, c.dq, c.vertexMove and c.toZero.
template <class T>
int nextVertexMove(Ctx<T>& c);
// The direction of a vertex move that found no block: 1 when the other way is worth a try
// (c.dir turned), 0 when the entry is given up.
template <class T>
int turnVertexMove(Ctx<T>& c);
// Without rows: each interior nonbasic the reduced costs left alone goes to a bound, a
// free one to 0.
template <class T>
void settleNoRows(Ctx<T>& c);

// ---- primal_crash.cpp ----
// Replaces slacks of the all-slack basis by triangularly placed structurals (kind 1 or 2),
// with a second, sparsity-driven pass when asked. Returns the number of columns placed.
int crashBasis(VRXlp* lp, int kind, bool secondPass = false);

// ---- primal_ratio.cpp ----
// Ratio tests on c.col for the entering c.q: a RatioResult, with c.r, c.leaveUp, c.theta
// and c.alphaR set for a pivot (c.r -1 and c.theta for a bound flip).
// Phase II: two-pass Harris.
template <class T>
int VRXprimalRatio2(Ctx<T>& c);
// Phase I over the breakpoints of the infeasibility: passing them while the slope stays
// negative (PW), or stopping at the first (1).
template <class T>
int VRXprimalRatioPW(Ctx<T>& c);
template <class T>
int VRXprimalRatio1(Ctx<T>& c);

}  // namespace primal
}  // namespace vrx
