// The dual simplex: its pricing record and the steps of one iteration.
//
// Conventions inside the loop:
//   - Bbar[p] is the value of the basic variable at position p, in solver units;
//   - Cbar[j] is c_j + costShift[j] - y'a_j, sign reversed at an upper bound (codes -2, -5),
//     so that a nonbasic at a bound is dual feasible when Cbar >= 0; 0 for basics;
//   - a nonbasic sits at lower (-1, -4), upper (-2, -5) or at 0 (-3, -6; the start value
//     when warmStart is given).
// While the box phase runs, the bounds in force are the pricing record's box bounds and the
// right-hand side is zero: the loop then solves the problem whose optimum tells whether a
// dual feasible basis exists and gives one.
// On exit the costs are the true ones again (costShift cleared, Cbar recomputed), also at a
// hand-over (-1004), which leaves the record ready for the primal; Bbar is against the true
// bounds.
#pragma once

#include <cstdint>

#include "env/clock.h"
#include "simplex/lp.h"

struct VRXdualprice {
  double* costShift;  // n+m: perturbations and shifts in force; work cost = cost + costShift
  double* dualNorm;   // m: dual steepest-edge or devex weight per basis position
  int* candList;      // m: listed basis positions (rowFlag 1)
  double* score;      // m: primal infeasibility squared per position, 0 when feasible
  double* scoreBuf;   // n+2m: merits of a list rebuild and their copy for the selection,
                      // Bbar before a residual check
  int candCount;
  double threshold;  // merit at which a position joins the list
  int scanBudget;    // prices left before the list is rebuilt
  int listLen;       // entries kept at a rebuild
  int fullPricing;   // 1: scan every position each iteration
  int weightMode;    // 0 none, 1 column and row weight, 2 row weight only, -1 recompute
  double ftranDensity;
  double rowNum, normNum, scratch;  // work of the pivot rows and of the weights since the last check
  double* rowWeight;  // m
  double* colWeight;  // n+m
  double* storedNorm;  // n+m: norms given with a start, by variable (VRXdualLoadNorms)
  int storedValid;     // 1 while storedNorm holds norms for the next start
  int prepared;        // 1 once a run was prepared on this record

  // ---- beyond the shared field list ----
  int nm;               // n + m the arrays were made for
  int mAlloc;           // m the arrays were made for
  const double* lo;     // bounds in force: the record's, or the box bounds
  const double* up;
  double* boxLower;     // n+m: bounds of the box phase
  double* boxUpper;
  int boxPhase;         // 1 while the box phase runs
  int boundsMoved;      // the bounds in force changed since Bbar was last computed
  int* cand;            // n+m: candidates of the ratio test (variables)
  double* candRatio;    // n+m: break point of each candidate
  double* candGain;     // n+m: slope lost when passing it (1e300: cannot be passed)
  double* candA;        // n+m: size of its pivot row entry in the direction of the step
  double* candC;        // n+m: its Cbar in that direction
  int* flipList;        // n+m: variables flipped by the last ratio test
  double* flipDx;       // n+m: the move of each flipped variable
  int* flipSeg;         // n+m: for a piecewise column the segment it lands on, else -1
  int* flipStat;        // n+m: and its status there
  int flipCount;
  int slotCap;          // length of the candidate arrays: n+m plus the segments of the terms
  int* candSeg;         // the segment a candidate crosses (piecewise columns), else -1
  int* candPrev;        // the candidate before it in its column's chain of break points, or -1
  char* candPassed;     // 1 for the candidates the last ratio test passed
  int* candOrder;       // the candidates in the order of the ratio test
  int leaveSeg;         // a piecewise leaving column's segment after the step, or -1
  double leaveShift;    // the rise of its slope to that segment
  double stepT;         // dual step of the last ratio test
  double flipObj;       // objective change of the last ratio test, solver units
  int dirSign;          // +1 the leaving variable goes to its lower bound, -1 to its upper
  double leaveInfeas;   // its primal infeasibility, > 0
  char* rowMark;        // m: rows marked while a flip right-hand side is gathered
  int* touched;         // m: positions whose Bbar changed in the last pivot
  int touchedCount;
  int freshFactor;      // 1 while no update was applied since the last build
  int needCompute;      // Bbar and Cbar must be recomputed at the next loop head
  int shiftsInForce;    // nonzero entries of costShift may exist
  int everPerturbed;
  int noPerturb;        // 1 in a run that must not perturb (clean-up re-runs)
  int noRescue;         // 1: a singular basis is repaired by slacks, never handed to rescue
  int cleanupRounds;
  int smallPivotRejects;
  double lastTestIter;  // perturbation gate: iteration and degenerate pivots at the last test
  int lastTestDegen;
  double objWork;       // running objective with the work costs, solver units
  double maxPrimalInf, sumPrimalInf, maxDualInf, sumDualInf;
  double lastResidual;
  int updatesSinceNorm; // updates since the weights were exact or reset
  int dualInfeasible;   // the box phase ended with dual infeasibilities left: no dual solution
  int atStart;          // the next compute is the first of the run: the box phase may start
  int needExactNorms;   // the next build is followed by exact weights
  double harrisTol;     // width of the Harris pass
  int infeasFlips;      // flips made for rows whose pivots were all tiny, in this run
  int acceptSmall;      // every row was turned away for a small pivot: take the best now
  uint64_t seedBase;
};

namespace vrx {
namespace dual {

// Work vectors of one arithmetic form.
template <class T>
struct View {
  T* Cbar;
  T* Bbar;
  VRXsvecT<T>* row;   // pivot row over n+m
  VRXsvecT<T>* col;   // pivot column by position
  VRXsvecT<T>* rho;   // row of the basis inverse by row
  VRXsvecT<T>* w1;    // n+m scratch
  VRXsvecT<T>* w2;    // n+m scratch
  VRXfactorT<T>* factor;
};

inline View<double> viewOf(VRXlp* lp, double*) {
  return View<double>{lp->Cbar,      lp->Bbar,      &lp->alphaRow, &lp->alphaCol,
                      &lp->rho,      &lp->scratch1, &lp->scratch2, lp->factor};
}
inline View<long double> viewOf(VRXlp* lp, long double*) {
  return View<long double>{lp->CbarQ,      lp->BbarQ,      &lp->alphaRowQ, &lp->alphaColQ,
                           &lp->rhoQ,      &lp->scratch1Q, &lp->scratch2Q, lp->factorQ};
}
template <class T>
inline View<T> view(VRXlp* lp) {
  return viewOf(lp, static_cast<T*>(nullptr));
}

// Back to all zero; the length is clamped so the compiler sees it cannot be negative.
template <class T>
inline void clearVec(VRXsvecT<T>* v, int dim) {
  svecClear(v, dim < 0 ? 0 : dim);
}

// Sign that turns c - y'a into Cbar for a status code.
inline int signOf(int stat) { return (stat == VRX_VS_UPPER || stat == VRX_VS_FIX_UPPER) ? -1 : 1; }

// Value of nonbasic j under the bounds in force.
template <class T>
inline T nonbasicValue(const VRXlp* lp, const VRXdualprice* pr, int j) {
  switch (lp->varStat[j]) {
    case VRX_VS_LOWER:
    case VRX_VS_FIX_LOWER:
      return T(pr->lo[j]);
    case VRX_VS_UPPER:
    case VRX_VS_FIX_UPPER:
      return T(pr->up[j]);
    default:
      return (lp->warmStart && !pr->boxPhase) ? T(lp->warmStart[j]) : T(0);
  }
}

// Bbar and Cbar from scratch after a build, then the repairs of dual infeasibilities, the
// residual checks and the perturbation gate. 0 or an error code.
template <class T>
int VRXdualCompute(VRXlp* lp, Clock& clock);
// Bbar alone (B^-1 (rhs - N x_N)); returns the largest change against the old values when
// measure is set, else 0.
template <class T>
double dualComputeBbar(VRXlp* lp, Clock& clock, bool measure);
// Cbar alone from the work costs.
template <class T>
void dualComputeCbar(VRXlp* lp, Clock& clock);
// The primal infeasibility of every position, the list of candidates, the objective.
template <class T>
void dualRefreshInfeas(VRXlp* lp);
template <class T>
void dualObjective(VRXlp* lp);

// Choice of the leaving position into lp->leaveRow; -1 when every basic is feasible.
template <class T>
void VRXdualPrice(VRXlp* lp);
// Infeasibility of one position under the bounds in force (0 when within feasTol).
template <class T>
void dualScoreOne(VRXlp* lp, int p);

// btran of the leaving row, the pivot row and the bound-flipping ratio test. Returns
// 0 with enterVar set (or -1: flips only, or the row was rejected), 3 when the LP is proved
// infeasible or the loop must refactor first (actionCode set), or an error code.
template <class T>
int VRXdualRatio(VRXlp* lp, Clock& clock);

// A row whose pivots are all tiny, on the retry pass: the bounded candidates in `order`
// [0, k) (slots of the ratio test's arrays) are flipped until they cover the row's
// infeasibility, else a stricter factor is asked for, else the LP is infeasible. `left` is
// the infeasibility that the passed break points leave. Returns 3 (actionCode or status set).
int dualInfeasibleLookingRow(VRXlp* lp, const int* order, int k, double left);

// ftran of the entering column, the flips, the updates of Cbar, Bbar, weights, factor and
// basis. 0, 2 (numerical trouble beyond repair) or an error code.
template <class T>
int VRXdualPivot(VRXlp* lp, Clock& clock);

// Refactor at the loop head; 0 or an error code (status may become -1002 or -1000).
template <class T>
int dualRefactor(VRXlp* lp, Clock& clock);

// Cost shift that raises Cbar[j] by v (v > 0).
void dualShift(VRXlp* lp, int j, double v);
// Clears every shift and perturbation; the caller recomputes Cbar.
void dualClearShifts(VRXlp* lp);
// Multiplies costs, shifts, Cbar and the objective factors by the power of two f and keeps
// it in extraScale; the unscale divides every such factor back out (exact for powers of two).
template <class T>
void dualObjectiveScale(VRXlp* lp, double f);
template <class T>
void dualObjectiveUnscale(VRXlp* lp);
// Applies the cost perturbation to the nonbasic variables.
template <class T>
void dualPerturb(VRXlp* lp);

// The automatic switches between steepest edge and devex, by the work the weights cost
// (normNum) against the work of the pivot rows (rowNum); both sums restart.
void dualPricingRule(VRXlp* lp);
// The reference framework of the weights: every nonbasic variable.
void dualMarkReference(VRXlp* lp);

// Entering and leaving the box phase.
template <class T>
void dualBoxEnter(VRXlp* lp);
template <class T>
void dualBoxLeave(VRXlp* lp);

// The basis weights: exact (one btran per row) or reset to 1.
template <class T>
int dualExactNorms(VRXlp* lp, Clock& clock);
void dualResetNorms(VRXlp* lp);

// Dual infeasibilities beyond optTol: those no flip can repair, or all with flippableToo.
template <class T>
int dualCountDualInfeas(VRXlp* lp, bool flippableToo, double* worst);

// Sum and largest of the primal and dual infeasibilities (for the log line).
template <class T>
void dualInfeasSums(VRXlp* lp);

}  // namespace dual
}  // namespace vrx

// Creates or refreshes lp->pricing and the start state of a dual run. startStatus nonzero
// means the basis came from a start. 0 or 10001.
int VRXdualPrepare(VRXlp* lp, int startStatus, double* work);
// Norms that come with a start basis (the VDualNorm and CDualNorm of a model: n structural
// then m row entries), taken for the variables basic in varStat at the next VRXdualPrepare,
// which then keeps steepest edge without exact norms. They are kept, and loadKind becomes 3,
// only when every basic variable has a positive finite norm; returns 1 then, 0 when they
// are refused, or 10001 / 10005 (no status array).
int VRXdualLoadNorms(VRXlp* lp, const double* vNorm, const double* cNorm);
// The weights of the current basis by variable (0 for nonbasic ones), in the same form.
// 0, or 10005 without a pricing record.
int VRXdualGetNorms(const VRXlp* lp, double* vNorm, double* cNorm);
// Frees lp->pricing; the pointer becomes null. Safe on null.
void VRXdualpriceFree(VRXlp* lp);

// The dual loop alone: ends with any status, -1004 and -1002 included.
int VRXdualSolveCore(VRXlp* lp, vrx::Clock& clock);
