// The dual form of a linear model, the way back from its solution and basis,
// and the two parameter rules the LP driver applies before presolve: the
// numerics guard and the dualisation decision.
//
// For min c.x + c0 subject to rows a_i.x (<, >, =) b_i and l <= x <= u the dual
// form is a model of n equations, one per primal column j:
//   sum_i a_ij y_i + zl_j - zu_j = c_j
// over one column per primal row (y_i >= 0 for '>', y_i free for '=', and for
// '<' the flipped y'_i = -y_i >= 0) and one per finite bound (zl_j, zu_j >= 0;
// a fixed column gets one free column instead), minimising
//   -(sum b_i y_i + sum l_j zl_j - sum u_j zu_j) - c0.
// Its optimum is minus the primal one; x is minus the duals of its rows.
#pragma once

#include "env/clock.h"
#include "env/env.h"
#include "presolve/undo.h"

struct VRXmodel;
struct VRXmodeldata;

namespace vrx {

// What a dual column stands for.
enum DualColKind {
  kDualRow = 0,    // y of a primal row (flipped for '<' rows)
  kDualLower = 1,  // zl of a column's lower bound
  kDualUpper = 2,  // zu of a column's upper bound
  kDualFixed = 3   // the free multiplier of a fixed column
};

struct DualMap {
  VRXenv* env;
  int n, m;       // primal columns and rows
  int dualCols;   // the dual form has n rows and dualCols columns
  int* colKind;   // per dual column, a DualColKind
  int* colIdx;    // per dual column, the primal row or column
  int* rowCol;    // per primal row, its dual column, -1 for a row without one (free row)
  int* lowCol;    // per primal column, the dual column of its lower bound (or fixed value), -1 none
  int* upCol;     // per primal column, the dual column of its upper bound, -1 none
};

void dualMapFree(DualMap* map);

// Builds the dual form of a linear model's store as a new model that logs
// through the caller's environment. 0, 10001, or 10024 for a model that is not
// a plain LP (quadratic terms, integers, sets, cones, piecewise objectives).
int dualiseModel(VRXmodel* model, VRXmodel** dualOut, DualMap** mapOut);

// Carries a solved dual form (its x, y, d and basis, as lpReadPoint gives
// them) back to the primal model `primal`: x, y, d and the statuses of the
// walks. The basis is complete when the dual one was: a dual column at a bound
// makes its primal row basic. Arrays of out may be null. 0 or 10001.
int dualMapBack(const DualMap* map, const VRXmodeldata* primal, const LPPoint& dual, LPPoint& out);

// Solves model through its dual form with the other simplex method (1 - method)
// and writes the primal point and basis of model into out (arrays of model's
// size, none null). *status is the outcome for model: 2 with a point; 3 when
// the dual form is unbounded; 4 when it is infeasible (the model may be
// infeasible or unbounded); a limit status as the dual solve ended. *iters
// counts the dual form's iterations. Returns 0, 10001, or 10024 (not an LP).
int dualisedPoint(VRXmodel* model, int method, Clock& clock, LPPoint& out, int* status, double* iters);

// The model and its dual form solved at once on two threads, each on a copy
// with one thread and no output: the model by method on the caller's thread,
// the dual form by 1 - method on a thread of its own. The first to end with a
// final status stops the other. Fills out, *status and *iters as dualisedPoint
// does, from the winner; *winner is 0 for the model, 1 for its dual form.
// Returns 0, 10001, or 10024 (not an LP).
int concurrentFormsPoint(VRXmodel* model, int method, Clock& clock, LPPoint& out, int* status, double* iters,
                         int* winner);

struct DualisedSolve {
  int handled;        // 0: not an LP; solve the model as it is
  int status;         // the outcome when no record was left, else 0
  double dualIters;   // iterations on the dual form (or on the winner of both forms)
  double extraIters;  // clean-up iterations on the model from the mapped basis
  int winner;         // with both forms: 0 the model won, 1 its dual form; else -1
};

// The whole dualised solve of the LP driver: dualisedPoint (with bothForms,
// concurrentFormsPoint), then the simplex on model from the mapped basis with
// its "Extra ... from dual to original model" line. When handled, model->lp
// holds the solved record, or, when the dual form settled the model, no
// record and the status in out. 0 or an error.
int lpSolveDualised(VRXmodel* model, int method, Clock& clock, DualisedSolve* out, bool bothForms = false);

// The dualisation decision of the LP driver for a model of m rows and n
// columns: 0 solve as is, 1 solve the dual form (the simplex method flips),
// 2 solve both forms concurrently. threads is the resolved thread count.
int dualiseChoice(const VRXmodeldata* d, const ParamStore& par, int method, int threads);

// The numerics guard: on a badly scaled matrix without many free columns it
// turns off the reductions that build on cancellation and raises MarkowitzTol.
// Changes *par; the caller restores it after the solve. Returns 1 when applied.
int numericsGuard(const VRXmodeldata* d, ParamStore* par);

}  // namespace vrx
