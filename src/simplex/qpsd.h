// Convexity of a quadratic objective before a solver uses it: a diagonal pass, then a sparse
// LDL' of the symmetric matrix that reports the diagonal it lacks (the needed shift), and
// the small diagonal adjustment that repairs a matrix within PSDTol of PSD.
#pragma once

#include "env/clock.h"
#include "env/envvec.h"

struct VRXmodel;

namespace vrx {

// What the factor test found on a symmetric matrix.
struct PsdFinding {
  explicit PsdFinding(VRXenv* env) : cols(env), amounts(env) {}
  int broken = 0;      // 1: a non-finite pivot, no shift value
  double shift = 0.0;  // the needed shift s: the largest amount below, 0 for PSD
  // Diagonals to raise and by how much; together they make the matrix PSD.
  EnvVec<int> cols;
  EnvVec<double> amounts;
};

// The matrix of f(x) = sum_k termScale * val[k] * x[row[k]] * x[col[k]] over n columns, as
// the symmetric Q of f = x'Qx (a term off the diagonal counts half on each side). Orders it
// with the barrier's minimum degree, factors, and fills *out. Charges the factor's operations
// to *work. 0 or 10001.
int psdTest(VRXenv* env, int n, int nnz, const int* row, const int* col, const double* val, double termScale,
            PsdFinding* out, double* work);

}  // namespace vrx

// The check of the model's objective Q with PSDTol, VORN_PAR_QPSDCHECK and
// VORN_PAR_QPSDADJUST: 0 when the model may go on (possibly with its diagonal raised through
// the normal add-and-update path and a warning), 10020 with the reason otherwise.
int VRXqCheckPSD(VRXmodel* model, vrx::Clock& clock);
// True when the model is solved by VRXqpSolve: quadratic terms and no integer variables, or
// VORN_PAR_FORCEQP set.
bool VRXisQPForm(const VRXmodel* model);
