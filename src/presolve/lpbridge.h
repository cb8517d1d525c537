// Between the simplex record and the presolve walks.
#pragma once

#include "env/clock.h"
#include "presolve/undo.h"
#include "simplex/lp.h"

namespace vrx {

// Reads a solved record as a point in the store's terms (true units, rows in
// the store's orientation; a '>' row's dual with the caller's sign). Arrays
// may be null. 0 or 10001.
int lpReadPoint(const VRXlp* lp, LPPoint& out);
// Loads a basis given by walk statuses into the record; the count of basics
// is made right (extra ones go nonbasic, missing ones are filled by slacks).
int lpLoadBasis(VRXlp* lp, const int* colStat, const int* rowStat);
// Runs the simplex loops from the record's state until they end, with the
// hand-over between dual and primal and the release of temporary fixings.
// method 0 primal, 1 dual. Returns 0 or an error; the outcome in lp->status.
int lpRunSimplex(VRXlp* lp, int method, Clock& clock);

}  // namespace vrx
