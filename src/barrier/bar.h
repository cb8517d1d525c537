// The barrier record: a linear model in the standard form of the iteration,
// the iterate with its steps, the history and the factor.
//
// Standard form: min c'x  s.t.  A x = b,  0 <= x (kind 1),  0 <= x <= u (kind 2),
// free (kind 0), fixed and out of the matrix (kind 3). Each model column j maps
// to x_orig = shift + sign * colScale * x; each inequality row adds a slack
// column. Rows are scaled by rowScale. With the homogeneous form the iterate
// carries tau and kappa, and x/tau is the solution.
#pragma once

#include <cstdint>

#include "barrier/barfactor.h"
#include "barrier/barsol.h"
#include "env/clock.h"
#include "model/model.h"

struct VRXbar {
  int rows;
  int origRows;
  int cols;       // standard-form columns: model columns and row slacks
  int coneCount;
  int iter;       // -1 before the first
  int historyCap;
  double* histPrimalObj;
  double* histDualObj;
  double* histPInf;
  double* histDInf;
  double* histCompl;
  double* histMu;
  int homogeneous;
  int trouble;
  int safeStart;
  double sense[2];  // the model's sense and the one the iteration runs in
  double normB, maxB, normC, maxC;
  double cutoff;
  double primalObj, dualObj, primalObj2, dualObj2, objTrue;
  double pinf, dinf, compl_, mu;
  double pinfRel, dinfRel, rel;
  double tol, pTolAbs, dTolAbs, pTolRel, dTolRel;
  int correctors;
  int lookahead;
  double tau, kappa;
  int homAlways;
  double minPivot;
  double step1, step2, step3;
  int bestIter, safeIter, goodIter;
  double bestMerit;
  double bestPObj;
  // Iterate (scaled standard form) and its direction.
  double *x, *y, *z, *w, *t;
  double *dx, *dy, *dz, *dw, *dt;
  double dtau, dkappa;
  double* D;  // theta = 1 / (z/x + w/t)
  VRXbarfactor factor;
  VRXbarstats stats;

  // Standard form.
  VRXenv* env;
  int n;            // model columns
  int nnz;
  int64_t* colBeg;  // cols + 1
  int* rowInd;
  double* val;
  int64_t* rowBeg;  // rows + 1
  int* rowCol;
  double* rowVal;
  double* b;
  double* c;
  double* u;
  char* kind;
  double* shift;    // model columns
  double* colSign;  // model columns
  double* colScale; // cols
  double* rowScale; // rows
  double objConst;
  int freeCount;
  // Best iterate and scratch.
  double *bx, *by, *bz, *bw, *bt;
  double btau, bkappa;
  double *rp, *rd, *ru, *r1, *rhs, *rhs2, *dy2, *dx2, *g, *rxz, *rtw, *tmp;
  double *cdx, *cdy, *cdz, *cdw, *cdt;  // a corrector's direction
  double *crxz, *crtw;                  // and its targets
  double* dyc;                          // a correction of dy
  double rgap;
  double workPerIter;
};

namespace vrx {

// Options the driver hands in.
struct BarRunOpts {
  bool root = true;  // the "Root barrier log..." header
};

// Runs the barrier on a linear model (no integer, quadratic or cone parts). On
// return 0, *solOut holds the interior point in the model's terms; the outcome is
// in (*solOut)->status, also stored in model->status. Prints the log and the
// final barrier lines. Returns 0 or an error.
int VRXbarrier(VRXmodel* model, Clock& clock, const BarRunOpts& opts, VRXbarsol** solOut);

// The parts of one run, exposed for the tests.
int VRXbarSetup(VRXmodel* model, VRXbar* bar);
void VRXbarFree(VRXbar* bar);
int VRXbarStart(VRXbar* bar, double shiftScale);
int VRXbarTest(VRXmodel* model, VRXbar* bar, Clock& clock);
int VRXbarLimit(VRXmodel* model, VRXbar* bar, Clock& clock);
BarMatrix barMatrix(const VRXbar* bar);

}  // namespace vrx
