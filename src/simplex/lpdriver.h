// The LP driver: from a continuous model to a solved LP with its results.
#pragma once

#include "env/clock.h"
#include "model/model.h"
#include "simplex/lp.h"

struct VRXlp;
struct VRXresult;

namespace vrx {

struct UnscaledQuality;

// Solves the continuous model. Returns 0 or an error; the outcome is the
// model's status, and the results stand in model->result.
int lpOptimize(VRXmodel* model, Clock& clock);

// Publishes the solution of a solved record (true units, the caller's sense) as
// the model's result. 0 or 10001.
int lpPublish(VRXmodel* model, VRXlp* lp);
// The value a concurrent run writes to the stop flag of the instances that lost: they stop
// as on any request, and their closing lines say the model was solved by another.
constexpr int kStopSolvedElsewhere = 2;

// "Solved in ..."/"Stopped in ..." and the status line; with uq, the warnings of an
// optimum that is worse in true units than the tolerances allow.
void lpClosingLines(VRXmodel* model, const VRXresult* r, double seconds,
                    const UnscaledQuality* uq = nullptr);

// Checks a finished record by a fresh factor of its final basis (no repair): the head must
// match the statuses, the basis be regular, and the basic values recomputed from it meet
// the rows and agree with those the run ended on. The fresh factor stays in the record;
// after a failed check it is marked for a rebuild. 0, 10001, or 10005 for a record without
// a double factor.
int lpCheckFinalFactor(VRXlp* lp, Clock& clock, bool* ok);

// Estimate of the 1-norm condition number of the record's final basis (scaled) from its
// current factor. 0, 10001, or 10005 without a valid factor of the basis to measure.
int lpKappa(VRXlp* lp, Clock& clock, double* kappa);

// The infeasibility certificate of a record that the primal left infeasible, in the
// store's terms: lambda (one entry per row, largest magnitude 1) is <= 0 on '<' rows and
// >= 0 on '>' rows, so every x meeting the rows has lambda'A x >= lambda'b; proof is
// lambda'b minus the largest lambda'A x over the bounds, > 0. 0, 10001, or 10005 when no
// such certificate can be given.
int lpFarkas(VRXmodel* model, const VRXlp* lp, double* lambda, double* proof);

// Dual and primal simplex at once on copies of the model, on two threads; the first to
// end stops the other and its result becomes the model's. 0 or an error.
int spxConcurrent(VRXmodel* model, Clock& clock);

// Method 3, 4 or 5 on a continuous model: barrier and simplex instances on copies of the
// model, one thread each beyond the caller's, by the instance table or the user's
// concurrent environments; the winner's basis is cleaned up on the model itself. Method 3
// takes the first to end; 4 and 5 let all end and take the least work, so a run repeats.
// 0 or an error (10003 for unusable concurrent environments).
int concurrentLP(VRXmodel* model, Clock& clock);

// The record for a run by method on the model (the kept one, or a new one), the work of
// its setup charged to the clock, its counts and status started afresh. 0 or an error;
// *lp the record. modelKind is a VRX_LPKIND_ value for a new record.
int lpSetupRun(VRXmodel* model, int method, Clock& clock, VRXlp** lp, int modelKind = VRX_LPKIND_OTHER);

// The end of a simplex run on model->lp: the final checks, the results published and the
// closing lines. 0 or an error.
int lpFinishRecord(VRXmodel* model, Clock& clock);

}  // namespace vrx
