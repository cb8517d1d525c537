// Continuous models with piecewise-linear objective terms, solved through an
// LP form.
//
// A convex term f_j on x_j (points (p_0, v_0) .. (p_K, v_K), slopes s_k) is
// replaced by one equality row and columns of its own:
//   x_j - sum_k u_k - e_up + e_down = p_0
// with 0 <= u_k <= p_{k+1} - p_k at cost s_k, e_up >= 0 at cost s_{K-1} and
// e_down >= 0 at cost -s_0 (the end segments extend beyond the end points),
// and v_0 joins the objective constant. With slopes that do not fall the LP
// fills the segments in order, so its optimum is that of the model.
#pragma once

#include "env/clock.h"

struct VRXmodel;
struct VRXmodeldata;

namespace vrx {

// 1 when every piecewise term of the store is convex in the minimising sense
// (slopes not falling, no jump), else 0.
int pwlConvex(const VRXmodeldata* d);

// The value of the piecewise term of column j at x, in the minimising sense;
// 0 for a column without one.
double pwlValue(const VRXmodeldata* d, int j, double x);

// Solves a continuous model with piecewise terms through its LP form and the
// LP driver, and publishes the result on the model: X, Slack, Pi, RC, ObjVal
// (on the model's own objective), status and iteration counts. No basis is
// published. 0, 10001, or 10024 for a non-convex term.
int pwlOptimize(VRXmodel* model, Clock& clock);

}  // namespace vrx
