// The presolve part of the LP driver: presolve, the solve of the presolved
// model, the walk back and the clean-up simplex on the original model.
#pragma once

#include "env/clock.h"
#include "model/model.h"

namespace vrx {

struct PresolvedSolve {
  int handled;       // 0: presolve did not apply (or asks for a plain solve); solve the original
  int status;        // the outcome when no record was left (presolve proved it), else 0
  double preIters;   // iterations on the presolved model
  double extraIters; // clean-up iterations on the original
  int winner;        // both forms raced: 0 the model's form won, 1 the dual form; else -1
};

// Runs steps 7 and 12 of the LP driver for method 0 (primal) or 1 (dual). When
// handled, model->lp holds the solved record of the original model (the clean-
// up from the walked-back basis), or, when presolve settled the model alone,
// no record and the status in out. Prints the presolve lines and the count of
// extra iterations. Returns 0 or an error.
int lpPresolveSolve(VRXmodel* model, int method, Clock& clock, PresolvedSolve* out);

}  // namespace vrx
