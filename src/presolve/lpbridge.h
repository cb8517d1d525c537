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
// Runs the simplex loops from the record's state until they end: the hand-over
// between dual and primal, the release of temporary fixings, the rescue of a
// singular basis, and the check of an optimum in true units with its re-run
// without scaling (VORN_PAR_UNSCALEDVIO). method 0 primal, 1 dual. Returns 0,
// 100001 for a warm start to be replaced, or an error; the outcome in lp->status.
int lpRunSimplex(VRXlp* lp, int method, Clock& clock);
// The clean-up simplex on model from a basis given by walk statuses, counting
// priorIters as earlier work. *extra gets the clean-up's iterations and is
// logged as "Extra ... <what>\n"; -1 when the basis fell apart at once (model->lp
// is then freed and the caller solves cold). Returns 0 or an error.
int lpCleanupFrom(VRXmodel* model, int method, const int* colStat, const int* rowStat, double priorIters,
                  const char* what, Clock& clock, double* extra);

// What the loop does when a singular basis asks for a rescue (status -1002): the start
// statuses of the run come back when they form a basis, the factor is rebuilt at the next
// loop head, and the counts start again (the iterations so far go to priorIter).
void lpRescue(VRXlp* lp);

// Largest violations of a solved record in true units against its model's store:
// bounds and rows, the record's slacks against the rows, wrong-signed reduced costs
// and row duals, and reduced costs against c - A'y.
struct UnscaledQuality {
  double primalViol = 0, primalResid = 0, dualViol = 0, dualResid = 0;
};
// 0, 10001, or 10005 when the record has no model of its shape.
int lpUnscaledQuality(const VRXlp* lp, UnscaledQuality* q);

}  // namespace vrx
