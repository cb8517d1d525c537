// The guided presolve: a short driver that takes a primal-dual point of an LP and
// removes only what that point supports, for crossover to work on a smaller model.
#pragma once

#include "presolve/presolve.h"

namespace vrx {

// The private stop of the guided driver: the point supports too little.
constexpr int kGuidedTooLittle = -1000;

// What the guided driver leaves: the presolved model and its map as the other
// drivers leave them, and the point carried into the presolved model's terms.
struct GuidedOut {
  int status;            // 0 reduced; -1000, or 3, 4, 5 from a reduction: nothing kept
  VRXmodel* presolved;   // null when status is not 0
  VRXpresolvemap* map;
  double* x;             // presolved columns
  double* y;             // presolved rows, in the presolved model's orientation
  double* d;             // presolved columns: c - A'y on the presolved model
  int fixedCols;         // what the point itself decided
  int droppedRows;
};

// Frees what out holds and clears it.
void guidedFree(VRXenv* env, GuidedOut* out);

// x, y, d: an optimal primal-dual point of model in its store's terms (minimising,
// rows in the store's orientation, d = c - A'y). A column at a bound with a clearly
// nonzero reduced cost of the right sign is fixed there; with VORN_PAR_GUIDEDPRE 2 or
// more, an inequality row with a clearly positive slack and a zero dual is dropped; then
// a short run of the LP reductions under a work limit of 100 (Presolve 1) or 500 times
// the nonzeros.
// basis, when not null (numVars + numConstrs entries), gets what the point decided:
// -1 or -2 for a column fixed at its lower or upper bound, 0 for a dropped row's
// slack, -3 for what is left to the presolved model. work is the work counter.
// Returns 0 or 10001; the outcome in out, which the caller frees with guidedFree.
int presolveGuided(VRXmodel* model, const double* x, const double* y, const double* d, int* basis, double* work,
                   GuidedOut* out);

// Carry a vector of the original model into the presolved one, walking the records
// oldest first. crushPrimal takes column values; crushDuals row duals in the original
// model's orientation and gives them in the presolved model's (it lays the records out
// on the map, see presolveMapIndex). 0 or 10001.
int crushPrimal(const VRXpresolvemap* map, const double* origX, double* preX);
int crushDuals(VRXpresolvemap* map, const double* origY, double* preY);

}  // namespace vrx
