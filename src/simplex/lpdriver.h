// The LP driver: from a continuous model to a solved LP with its results.
#pragma once

#include "env/clock.h"
#include "model/model.h"

namespace vrx {

// Solves the continuous model. Returns 0 or an error; the outcome is the
// model's status, and the results stand in model->result.
int lpOptimize(VRXmodel* model, Clock& clock);

}  // namespace vrx
