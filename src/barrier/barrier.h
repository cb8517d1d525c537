// The barrier method for continuous models: Method 2 of the LP driver.
#pragma once

#include "barrier/barsol.h"
#include "env/clock.h"
#include "model/model.h"

namespace vrx {

// Method 2 on a continuous model: presolve, barrier, crossover (unless Crossover
// is 0), results published on the model and the closing lines. 0 or an error;
// the outcome is the model's status.
int barOptimize(VRXmodel* model, Clock& clock);

}  // namespace vrx
