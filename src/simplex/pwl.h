// Convex piecewise-linear objective terms inside the simplex.
//
// A column with a term is kept on one segment at a time: its working bounds are the
// segment's end points and its working cost is the segment's slope (plus the column's linear
// cost), all in solver units. The working LP then reads cost, lower and upper from arrays of
// this record instead of the solver copy's, so the copy keeps the true data. A nonbasic
// column sits at a break point; both neighbouring segments are valid readings of it. The
// dual's ratio test passes break points as bound flips; the primal prices a column at a
// break point on both segments around it and stops at break points as at bounds.
#pragma once

#include <cstdint>

#include "env/clock.h"
#include "simplex/lp.h"

struct VRXpwlobj {
  int terms;        // columns with a term
  int* col;         // terms: the column
  int* beg;         // terms + 1: segments of term t are beg[t] .. beg[t+1]-1, left to right
  double* left;     // segs: left end (solver units; -kInf when open)
  double* right;    // segs: right end (+kInf when open)
  double* slope;    // segs: working cost on the segment
  double* icpt;     // segs: objective at x is slope*x + icpt (solver objective units)
  int* seg;         // terms: current segment
  int* termOf;      // n + m: term of a column, -1 for the others
  double* cost;     // n + m: the working LP's cost, lower and upper
  double* lower;
  double* upper;
  int segs;
  double* scale;    // terms: x_true = scale * x_solver (column scale, negative on a negated column)
  double* base;     // terms: the column's linear cost (solver units), part of every slope
  double constant;  // terms of one point: their constant value (solver objective units)
  // Scratch of the ratio test and the pivot.
  int* lastPassed;  // terms: furthest chain position passed in the last ratio test, -1 none
  int* moved;       // terms: the terms touched in the last ratio test
  int movedCount;
  int rounds;  // runs of the last native solve after the first (segments the loops left)
  int unplaced;  // 1: a loaded basis put the nonbasic columns at no chosen break point
};

namespace vrx {

// Whether column j lives on the segments of a term.
inline bool pwlColumn(const VRXlp* lp, int j) { return lp->pwl && lp->pwl->termOf[j] >= 0; }

// Builds (or rebuilds, keeping each column where it stood) lp->pwl from the model's terms
// and points the record's cost, lower and upper at it. Call after the copy is attached
// and scaled. 0, 10001, or 10024 for a term that is not convex.
int pwlSetup(VRXlp* lp, const VRXmodeldata* d);
void pwlFree(VRXlp* lp);

// Puts term t on segment s. Only the working data change: the caller keeps varStat, Cbar
// and Bbar in step.
void pwlSetSegment(VRXlp* lp, int t, int s);

// Sum of the intercepts of the current segments (solver objective units).
double pwlIntercepts(const VRXlp* lp);

// Moves every nonbasic term column to the break point at which its reduced cost is dual
// feasible on both sides, from the Cbar of its current reading; Cbar follows, Bbar does
// not (the caller recomputes it). Returns the number of columns moved.
template <class T>
int pwlSettle(VRXlp* lp, T* Cbar);

// After a run on the segments: a basic column outside its segment goes onto the one that
// holds its value (its cost changes), a nonbasic one at an inner break point whose other
// reading has a negative reduced cost takes that reading (x stays, Cbar follows). Returns
// the number of columns changed; none means the point is optimal for the terms.
template <class T>
int pwlCross(VRXlp* lp, T* Cbar, const T* Bbar);

// Basis codes of the terms' columns for the model: -1 or -2 at an end of the term's range,
// -3 at an inner break point (no bound of the model's), others as vbasis has them.
void pwlBasisCodes(const VRXlp* lp, int* vbasis);

// Starts a new record from the model's checked warm-start basis, read with the codes of
// pwlBasisCodes. False when there is none of the record's shape.
bool pwlLoadBasis(VRXmodel* model, VRXlp* lp);

// Whether the native path takes the model: the primal or the dual, Presolve off, a linear
// model with convex terms. Presolve and the barrier use the LP form of the terms.
bool pwlNativeFits(const VRXmodel* model, int method);

// The native path of the LP driver for a continuous model with convex terms, method 0 or
// 1: solves, publishes X, Slack, Pi, RC, ObjVal and the status, prints the closing lines.
// 0 or an error.
int pwlNativeOptimize(VRXmodel* model, int method, Clock& clock);

}  // namespace vrx
