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
// Its cost in work units: two walks of the pattern, the tree climbs included.
inline double predictWork(int n, const int64_t* xadj) { return 4.0 * static_cast<double>(xadj[n]) + 6.0 * n; }

// Frees the symbolic and numeric parts of a factor, keeping the ordering.
void barFreeNumeric(VRXenv* env, VRXbarfactor* f);
// The factor's cost on a supernode of width k over r rows in all.
double supernodeOps(double k, double r);
// Thread tasks of the numeric factor, from the supernodes.
int barBuildTasks(VRXenv* env, VRXbarfactor* f);
// Chunks of the assembly of A diag(theta) A' for several threads (needs the pair map).
int barPlanAssembly(VRXenv* env, const BarMatrix& A, VRXbarfactor* f);

// Runs fn(arg, w) for w = 0..workers-1, worker 0 on the caller's thread, and
// waits for all. Workers must share out their work through arg. 0 or 10001.
int barRunWorkers(VRXenv* env, int workers, void (*fn)(void*, int), void* arg);

// After minimum degree, whose run cost amdWork work units: nested dissection
// copies, run as the ordering rule asks, replace f->perm (new -> old) when one
// predicts fewer flops; f->ndCopies is the number run, f->orderWork gains their
// cost. A winning copy on the full pattern drops the dense set.
int ndStage(VRXenv* env, const BarMatrix& A, const BarFactorOpts& opts, double amdWork, VRXbarfactor* f,
            double* nz, double* ops);

// The dense columns become sparse ones again (n columns of A).
void barDropDense(VRXenv* env, int n, VRXbarfactor* f);
// Predicted flops of an order of the sparse columns (nz entries, ops flops) with
// the work of d dense columns added: two solves each and their Schur block.
inline double denseColumnOps(double ops, double nz, int d, int m) {
  return ops + 4.0 * d * nz + static_cast<double>(d) * d * m;
}

}  // namespace vrx
