// Crossover: from an interior solution to a basic one.
#pragma once

#include "barrier/barsol.h"
#include "env/clock.h"
#include "model/model.h"

// Builds a basis for `model` from the barrier solution `sol` (in the terms of
// `model`, see barsol.h), pushes the interior values to bounds and runs the
// clean-up simplex. On return 0, model->lp holds the solved record of `model`
// (as after a simplex run: basis, values, lp->status), ready to be read or
// published. mode 2 or more makes the first pushes primal under Crossover -1.
// Returns 0 or an error.
int VRXcrossover(VRXmodel* model, const VRXbarsol* sol, int mode, vrx::Clock& clock);
