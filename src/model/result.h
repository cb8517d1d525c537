// The results of the last solve, in the terms of the caller, and the
// objective table of several objectives. Solvers publish into VRXresult;
// the attribute calls only read it.
#pragma once

#include <cstdint>

#include "env/env.h"

struct VRXmodel;
struct VRXmodeldata;

// A scalar result that no solver set reads as "not available".
constexpr double kNotAvailable = 1e101;

// Slots of the quality family: the value, the sum and the index of each measure.
enum QualityMeasure {
  qBound,
  qBoundS,
  qConstr,
  qConstrS,
  qConstrResidual,
  qConstrSResidual,
  qDual,
  qDualS,
  qDualResidual,
  qDualSResidual,
  qInt,
  qCompl,
  qCount
};

// Slots of the statistics family, as (max, min) pairs.
enum StatisticsRange {
  stCoeff,
  stBound,
  stObjCoeff,
  stRHS,
  stQCCoeff,
  stQObjCoeff,
  stQCLCoeff,
  stQCRHS,
  stCount
};

struct VRXresult {
  int numVars;  // the shape the arrays were published for
  int numConstrs;
  int numQConstrs;
  int isMIP;

  double objVal;  // all scalars start at kNotAvailable
  double objBound;
  double objBoundC;
  double poolObjBound;
  double mipGap;
  double iterCount;
  double iterCount0;
  double nodeCount;
  double openNodeCount;
  double tOpen;
  double barIterCount;
  double concurrentWinner;
  double farkasProof;
  double infeasVar;
  double unbdVar;
  double kappa;
  double kappaExact;
  double n2Kappa;
  int solCount;
  int spxMethod;  // the simplex method asked of the run that left the model's record, -1 none

  // Arrays are null when the solve did not produce them.
  double* x;
  double* slack;
  double* rc;
  double* pi;
  double* qcSlack;
  double* qcPi;
  double* barX;
  int* vBasis;
  int* cBasis;
  double* vDualNorm;
  double* cDualNorm;
  double* farkasDual;
  double* unbdRay;
  double* saObjLow;
  double* saObjUp;
  double* saLBLow;
  double* saLBUp;
  double* saUBLow;
  double* saUBUp;
  double* saRHSLow;
  double* saRHSUp;
  int* iisLB;
  int* iisUB;
  int* iisConstr;
  int* iisSOS;
  int* iisQConstr;
  int* iisGenConstr;
  int iisMinimal;  // -1 when no IIS was computed
  int* varPreStat;
  double* preFixVal;

  // Filled by the prepare steps at their first read.
  int statsReady;
  double stats[stCount][2];
  int qualityReady;
  double quality[qCount];
  double qualitySum[qCount];
  int qualityIndex[qCount];
};

// One objective of a model with several.
struct VRXobjective {
  double* coeffs;  // caller's sense, sized to the variable count at the last write
  int size;
  double constant;
  int priority;
  double weight;
  double absTol;
  double relTol;
  char* name;
};

struct VRXobjlist {
  int count;
  int capacity;
  VRXobjective* items;
};

namespace vrx {

// A fresh record with every scalar unavailable and no arrays.
VRXresult* resultCreate(VRXenv* env, int numVars, int numConstrs, int numQConstrs);
void resultFree(VRXenv* env, VRXresult* r);
void objListFree(VRXenv* env, VRXobjlist* list);

// Fills the statistics pairs of a store: largest and smallest magnitudes.
void computeStatistics(const VRXmodeldata* d, double stats[stCount][2]);
// Fills the quality slots from the published solution; 0 or 10001.
int computeQuality(VRXenv* env, const VRXmodeldata* d, VRXresult* r);

}  // namespace vrx
