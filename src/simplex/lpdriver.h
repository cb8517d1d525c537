// The LP driver: from a continuous model to a solved LP with its results.
#pragma once

#include "env/clock.h"
#include "model/model.h"

struct VRXlp;
struct VRXresult;

namespace vrx {

// Solves the continuous model. Returns 0 or an error; the outcome is the
// model's status, and the results stand in model->result.
int lpOptimize(VRXmodel* model, Clock& clock);

// Publishes the solution of a solved record (true units, the caller's sense) as
// the model's result. 0 or 10001.
int lpPublish(VRXmodel* model, VRXlp* lp);
// "Solved in ..."/"Stopped in ..." and the status line.
void lpClosingLines(VRXmodel* model, const VRXresult* r, double seconds);

}  // namespace vrx
