// The interior solution a barrier run leaves for crossover or for the caller.
#pragma once

#include "env/env.h"

// All values are in the terms of the model the barrier ran on, in true units and
// in the minimising sense (the objective multiplied by ModelSense): slack = rhs - a_i'x,
// rc = c - A'pi, with the model's own row orientation.
struct VRXbarsol {
  int n;           // structural columns
  int m;           // rows
  int status;      // the barrier's model status (2 optimal, 3, 5, 7, 12, 13, ...)
  int iterCount;   // barrier iterations
  int doubtful;    // 1 when the primal objective fell below the dual by more than 1e-6 relative
  double pObj;     // primal objective, with the objective constant
  double dObj;     // dual objective, with the objective constant
  double pinf;     // largest primal residual
  double dinf;     // largest dual residual
  double compl_;   // complementarity
  double* x;       // n
  double* slack;   // m
  double* pi;      // m
  double* rc;      // n
};

namespace vrx {

// A record with its four arrays, zeroed; null when out of memory.
VRXbarsol* barsolCreate(VRXenv* env, int n, int m);
void barsolFree(VRXenv* env, VRXbarsol* sol);

}  // namespace vrx
