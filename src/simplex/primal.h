// The primal simplex: its pricing record, the hand-over from the dual, and the ray.
//
// Conventions inside the loop (VRXprimalSolve restores the record's conventions on exit):
//   - Bbar[p] is the value of the basic variable at position p, in solver units;
//   - Cbar[j] is the plain reduced cost c_j - y'a_j of the phase in force, 0 for basics.
// On exit Bbar is recomputed against the true bounds and Cbar holds the reduced costs of the
// true objective with the sign reversed at an upper bound (dual feasible means Cbar >= 0).
//
// Bound shifts and perturbations never touch the record's lower/upper: the loop works on
// its own copies (lo, up) and puts the true ones back before it reports a result.
#pragma once

#include "env/clock.h"
#include "simplex/lp.h"

struct VRXprimalprice {
  double bigM;            // weight of infeasibility in the composite phase-I objective
  int pivotsSinceFactor;  // basis changes since the last refactor
  int phase;              // 1 while some basic is out of bounds, else 2
  int partialMode;        // 0 nothing yet, 1 candidate lists fresh, 2 full Cbar fresh
  int twoStage;           // 1: phase I carries the true cost divided by bigM
  int chunkLen;           // columns partial pricing (mode 0) scans per iteration
  int chunkSkip;
  double* weights;  // devex or steepest-edge reference weights, n+m
  double* y;        // duals of the last full compute, m
  int* candList;    // breakpoint order of the phase-I ratio test, 2m + 2
  double* costWork; // breakpoint ratios, 2m + 2
  int passLimit;  // set at the start; the loop prices until no candidate is left
  int noChange;
  int enteringHint;
  double enterCbar;
  int partialBlock;  // (n/m)*n/nnz when at least 2: sets the chunk of partial pricing
  int columnLists;   // VORN_PAR_PRIMALPARTIAL or automatic; partial pricing keeps a hot list
  double sectionRatio;
  double* savedWeights;  // not used by this loop: weights survive refactors in place
  double dualFeasTol;
  int bestRow;
  int nextBlock;  // where the next partial scan starts
  int head, tail;

  // ---- beyond the shared field list ----
  int nm;           // n + m the arrays were made for
  double* lo;       // working bounds: true bounds, widened by shifts and perturbation
  double* up;
  double* bpGain;   // breakpoint slope gains, 2m + 2
  int* bpRow;       // breakpoint row; a negative value -1 - p marks the far bound of row p
  char* mark;       // scratch marks over n+m, all zero between uses
  double* ray;      // unboundedness proof in solver units, n+m; valid when rayValid;
                    // after an infeasible end its first m entries hold the phase-I duals
  int rayValid;
  int farkasValid;  // the phase-I duals of an infeasible end are in ray
  int shiftCount;   // working bounds that differ from the true ones
  int cleanRounds;  // clean-ups after a shifted or perturbed optimum
  int noPerturb;    // 1 once a clean-up ran: no new perturbation
  double lastCheckIter;   // iteration of the last degeneracy check
  int lastCheckDegen;     // degenerate pivots at that check
  int confirmed;          // 1 after a fresh compute with no pivot since
  int refSinceReset;      // devex: pivots since the reference framework was reset
  int unbdRetries;        // refactors spent confirming an unbounded column
  int stallHeads;         // loop heads in a row at the same iteration count
  double stallIter;
  double maxInfeas, sumInfeas;  // of the last compute, in solver units
  double priceTol;     // phase-II pricing tolerance in force: optTol, tighter while polishing
  int polishing;       // 1 after the first optimum: a tighter tolerance takes the last gains
  double polishStart;  // iteration at which polishing began
  double lastLogAt;    // iteration of the last log point
  // Partial pricing (mode 0) prices from the duals rather than from a maintained Cbar.
  void* yWork;    // duals in the work arithmetic, m entries of long double size
  int* hotList;   // attractive columns kept between partial scans
  int hotCount;
  // Candidates of the full pricing modes: every nonbasic found attractive since the last
  // rebuild (stale members leave when the pricing meets them).
  int* infList;
  int* infPos;  // place in infList, -1 when not listed
  int infCount;
  int listStale;  // 1: rebuild before the next pricing
  double feasTolStart;  // feasTol at the start of the run; a tiny phase-I rest may raise it
  double costMax;       // largest |cost|, at least 1: the scale of reduced-cost drift
  double basisCostMax;  // largest |cost| of the basis at the last big-pivot check
  int bigPivots;        // pivot columns the big-pivot check stopped
  // Nonbasics left off a vertex once the reduced costs ask for nothing more: superbasics
  // strictly inside a finite bound, free columns away from 0, and in the first round free
  // columns at 0 that may still pivot in. Taken one by one, rescanned when used up.
  int* vxList;
  int vxCount, vxNext;
  int vxRounds;   // scans done this run
  int vxTries;    // attempts on the list entry at vxNext (a refused pivot retries it)
  int vxLeft;     // entries that could not be moved to a vertex
  int vxMoves;    // vertex moves tried this run
  int firstCompute;  // 1 until the first compute of a run (the crushed-start check)
  int acceptLoose;   // 1: the next compute may widen priceTol to what is left
  double lastResidual;
  int termsSettled;  // 1 once the first compute of the run has placed the terms' columns
  int breakPasses;   // basic term columns carried past a break point onto the next segment
};

// Frees lp->primal and its arrays; the pointer becomes null. Safe on null.
void VRXprimalFree(VRXlp* lp);

// Makes the record ready for the primal after the dual stopped with status 5 or -1004:
// the dual has put its costs back to the true ones. Statuses that the dual may leave in a
// form the primal does not use are put right, the phase is cleared and the next loop head
// refactors and recomputes. Returns 0, or a negative value when the record cannot be
// handed over (no factor, no status array): the caller stops with 12.
int VRXprimalFromDual(VRXlp* lp);

// Prepares the start of a primal run: record, pricing mode, statuses, working bounds,
// weights and the active row copy. 0 or an error code.
int VRXprimalPrepare(VRXlp* lp, vrx::Clock& clock);

// The primal loop on a record that keeps piecewise-linear terms (lp->pwl): a nonbasic term
// column at a break point prices each direction with the slope on that side and takes that
// segment's reading when it enters; an entering column stops at its next break point as at
// a bound; a basic one stops there as at a bound and leaves, and one that phase I carried
// past it is put on the segment that holds it. Phase I measures the terms' columns against
// their whole ranges. 0 or an error code; 10003 without a piecewise record.
int VRXpwlPrimal(VRXlp* lp, vrx::Clock& clock);

namespace vrx {

// The unboundedness ray of the last primal run in true units for the n + m variables of
// the record (slacks last; '>' rows keep the solver's sign). Returns 0, or 10005 when the
// last run did not end unbounded.
int primalRay(const VRXlp* lp, double* out);
// The duals of the phase-I objective at an infeasible end, in solver units and the copy's
// row orientation (m entries): y'A x is at most y'b - (sum of infeasibilities) over the
// bounds, so no x within them meets A x = b. 0, or 10005 when the last run did not end
// infeasible in phase I.
int primalFarkas(const VRXlp* lp, double* y);

}  // namespace vrx
