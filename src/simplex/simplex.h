// Entry points of the two simplex loops, shared by the LP driver and each other.
#pragma once

#include "env/clock.h"
#include "simplex/lp.h"

// The dual simplex on a loaded record. Returns 0 or an error code; the outcome
// is lp->status (2 optimal, 3 infeasible, 5 unbounded, 6 cutoff, 7 iteration
// limit, 9 time limit, 11 interrupted, 12 numeric; -1004 asks for the primal).
int VRXdualSolve(VRXlp* lp, vrx::Clock& clock);
// The primal simplex on a loaded record, from any basis. Same conventions;
// it can hand back to the dual the way the dual hands over to it.
int VRXprimalSolve(VRXlp* lp, vrx::Clock& clock);
// The primal simplex for a convex quadratic objective (the solver copy's Q) on a loaded
// record: phase I, then reduced-gradient steps over the superbasic variables. Same
// conventions; a superbasic ends with code -3 and its value in warmStart. 10020 when a
// direction of negative curvature shows the objective is not convex.
int VRXqpSolve(VRXlp* lp, vrx::Clock& clock);
