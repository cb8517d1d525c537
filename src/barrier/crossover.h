// Crossover: from an interior solution to a basic one.
#pragma once

#include "barrier/barsol.h"
#include "env/clock.h"
#include "model/model.h"

// Builds a basis for `model` from the barrier solution `sol` (in the terms of
// `model`, see barsol.h), pushes the interior values to bounds and runs the
// clean-up simplex. On return 0 with model->lp set, model->lp holds the solved
// record of `model` (as after a simplex run: basis, values, lp->status) and
// model->status is lp->status, ready to be published. lp->priorIter holds the push
// moves and lp->iterCount the clean-up iterations; the barrier's iterations are not in
// them (the log lines count on from them while crossover runs). mode 2 or more makes the
// first pushes primal under Crossover -1. root chooses the header line of the log.
//
// Cases that do no work return 0 and leave model->lp null and model->status as it
// was: a model status of 6, 9 or 11 on entry, and no barrier result (sol null) with
// a status other than 12. With no result and status 12, or a barrier objective gap
// above half the objective, the dual simplex solves the model instead.
// With an optimal barrier status, Presolve and DualReductions on and VORN_PAR_GUIDEDPRE
// set, the crossover first runs on the model reduced by what the point supports (see
// presolve/guided.h); its basis walked back is cleaned up by the primal simplex on model,
// lp->priorIter then holding the inner run's iterations. When that does not end optimal,
// the crossover goes on as without it.
// Returns 0 or an error (10001: out of memory, model->status 10001).
int VRXcrossover(VRXmodel* model, const VRXbarsol* sol, int mode, vrx::Clock& clock,
                 bool root = true);
