// Small helpers shared by the barrier files.
#pragma once

#include <cstddef>
#include <cstdint>

#include "barrier/barfactor.h"
#include "env/env.h"
#include "env/envvec.h"

namespace vrx {

// Pattern of A A' over the columns not marked dense: both triangles, no diagonal.
// *aatNz counts the entries with the diagonal. The caller frees both arrays.
int productPattern(VRXenv* env, const BarMatrix& A, const char* isDense, int64_t** xadj, int** adj,
                   double* aatNz);
int eliminationTree(VRXenv* env, int n, const int64_t* xadj, const int* adj, const int* perm, const int* invPerm,
                    int* parent);
int columnCounts(VRXenv* env, int n, const int64_t* xadj, const int* adj, const int* perm, const int* invPerm,
                 const int* parent, int* count);
// Predicted factor entries and flops of an ordering.
int predictFactor(VRXenv* env, int n, const int64_t* xadj, const int* adj, const int* perm, double* nz,
                  double* ops);

// Runs fn(arg, w) for w = 0..workers-1, worker 0 on the caller's thread, and
// waits for all. Workers must share out their work through arg. 0 or 10001.
int barRunWorkers(VRXenv* env, int workers, void (*fn)(void*, int), void* arg);

// After minimum degree: nested dissection copies, run as the ordering rule
// asks, replace perm (new -> old) when one predicts fewer flops.
int ndStage(VRXenv* env, const BarMatrix& A, const BarFactorOpts& opts, const char* isDense, double amdSeconds,
            int* perm, double* nz, double* ops);

}  // namespace vrx
