// The working LP record shared by the simplex loops, crossover and node solves.
//
// Index convention: column j < n is structural, index n+i is the slack of row i (coefficient
// 1 in its row). Arrays over "all variables" have n+m entries. The matrix, costs, bounds and
// right-hand sides are those of a solver copy of the model's store (a VRXmodeldata): '>' rows
// negated, declared column flips applied, slack columns appended, scaled by powers of two.
// The record's pointers to those arrays are borrowed; the copy itself is freed with the record
// only when the record made it (ownsCopy).
//
// Scaled data: a_s = r_i * a_ij * c_j, x_s = x / c_j (finite bounds only), cost_s =
// objScale * c_j * cost, rhs_s = r_i * rhs. Slack n+i has c = 1/r_i, so its coefficient stays 1.
#pragma once

#include <cstdint>

#include "env/env.h"
#include "simplex/factor.h"
#include "simplex/svec.h"

struct VRXmodel;
struct VRXmodeldata;
struct VRXdualprice;
struct VRXprimalprice;
struct VRXpwlobj;

// varStat codes; a code >= 0 is the basis position of a basic variable.
constexpr int VRX_VS_LOWER = -1;
constexpr int VRX_VS_UPPER = -2;
constexpr int VRX_VS_FREE = -3;
constexpr int VRX_VS_FIX_LOWER = -4;
constexpr int VRX_VS_FIX_UPPER = -5;
constexpr int VRX_VS_FIX_FREE = -6;
// A nonbasic code lowered by this much is rejected for one iteration (small pivot).
constexpr int VRX_VS_REJECT_SHIFT = 6;
// Releasing a temporary fixing adds this much to a code below -3.
constexpr int VRX_VS_RELEASE_SHIFT = 3;

// Kinds of model handed to the setup: they steer a few automatic choices.
constexpr int VRX_LPKIND_OTHER = 0;      // sub-solves and anything not listed
constexpr int VRX_LPKIND_LP = 1;         // a plain LP from the LP driver: stronger dual perturbation
constexpr int VRX_LPKIND_ZEROOBJ = 2;    // feasibility only: the objective goes to 0 after phase I
constexpr int VRX_LPKIND_LIGHTSCALE = 4; // automatic scaling is a single equilibration pass

struct VRXlp {
  double logSeconds;
  double lastLogTime;
  double lastLogIter;
  double iterLimit;
  double priorIter;
  int quadMode;  // 0 double work arrays, 1 extended
  int outputLevel;
  int rootLogSign;
  int wasInterrupted;
  double iterLogStep;
  int allocHint;
  int firstLoad;
  int zeroObjectiveMode;
  int sense;
  int m;
  int n;
  // Column-wise matrix of the copy, slack columns appended at n..n+m-1.
  int64_t* colBeg;
  int* colLen;
  int* rowInd;
  double* val;
  char* senseChar;
  double* cost;   // n+m
  double* rhs;    // m
  double* lower;  // n+m
  double* upper;  // n+m
  char* varType;  // null unless VORN_PAR_INTBASIS is nonzero
  double objScale;
  double* colScale;  // n+m, null when unscaled
  double* rowScale;  // m, null when unscaled
  int status;
  int badVar;
  int dualObjValid;
  double dualObj;
  double primalObj;
  double objConst;
  double shiftObj;
  double bestDualObj;
  double bestDualObj2;
  double workFactor;
  double lastFactorWork;
  double factorWorkAvg;
  int warmKind;
  int primalResidHits;
  int dualResidHits;
  int singularRepairs;
  int retryFlags;
  int rescueCount;
  int* varStat;       // n+m
  int* savedVarStat;  // n+m
  double* warmStart;  // optional start vector, n+m; like every array below not marked
                      // as the copy's, owned and freed by the record
  // Row-wise copy of the structural matrix; belongs to the solver copy.
  int64_t* rowBeg;
  int* rowLen;
  int* colInd;
  double* rowVal;
  // Nonbasic structural columns only, row by row in the slots of rowBeg; kept by VRXlpRowSwap.
  int* activeRowLen;
  int* activeColInd;
  double* activeRowVal;
  double* Cbar;  // n+m, double form; null while quadMode is 1
  double* Bbar;  // m, double form
  VRXsvec alphaRow;  // n+m
  VRXsvec alphaCol;  // m
  VRXsvec rho;       // m
  VRXsvec scratch1;  // n+m
  VRXsvec scratch2;  // n+m
  char* rowFlag;      // m
  int* candidateBuf;  // n+m
  int* fixedList;
  int fixedCount;
  int fixLimit;
  int phase;
  int actionCode;
  int loadKind;
  int degenCount;
  double iterCount;
  double workIter;
  double lastPerturbIter;
  int refactorCount;
  int boxedFlag;
  int boxCount;
  int infeasCount;
  int freeNonbasicCount;
  int awayFreeCount;
  int leaveRow;
  int enterVar;
  double alphaR;
  double pivotRow;
  double tau;
  double primalStep;
  int leaveStat;
  int direction;
  int leaveVar;
  int degenPivots;
  int lastDegenPivots;
  int perturbKind;
  double perturbBase;
  double perturbCur;
  double extraScale;
  int method;  // 0 primal, 1 dual, 2 crossover
  int dualSwitch;
  int switchBudget;
  double infBound;
  int infCountDummy[2];
  double feasTol;
  double optTol;
  double markowitzTol;
  double pivotTol;
  double bigTol;
  double zeroTol;
  double cutoff;  // minimisation form
  int refactorLimit;
  int64_t nnz;
  int costNz;
  int singleCost;
  int priceChoice;
  int priceMode;
  int exactNorm;
  int normsStale;
  int endFactor;
  int nonDegenFlip;
  double devexWork;
  char* refFramework;  // n+m
  int smallPivotCount;
  int smallPivotVar;
  double smallPivotBest;
  int* fixStart;
  double* fixValue;
  int tmpFixCount;
  int* tmpFixList;  // n+m
  int pwRatio;
  int updateCheck;
  VRXfactor* factor;  // double form; null while quadMode is 1
  VRXdualprice* pricing;
  VRXprimalprice* primal;
  VRXpwlobj* pwl;
  VRXmodel* model;
  double cycleIter;
  int cycleVar;
  int cycleGap;
  int cycleHits;
  int startedFromCrush;
  int sparseRows;
  int intBasis;
  int intBest;
  double intValue;
  int siftFlag;
  int cleanupCount;
  int* cleanupList;

  // ---- beyond the shared field list ----
  VRXenv* env;          // the model's environment; every block of the record comes from it
  VRXmodeldata* copy;   // the solver copy the shared arrays belong to
  int ownsCopy;         // 1 when VRXlpFree frees the copy
  int modelKind;        // VRX_LPKIND_*
  double rhsScale;      // power of two of VORN_PAR_RHSSCALE folded into the scale vectors
  int qpBasisSize;      // n when Q stays in the simplex path, else 0
  int updateFailures;   // updates refused for a tiny diagonal (the factor's rule)
  int luInterval;       // VORN_PAR_LUINTERVAL as copied
  // Extended forms of the work vectors, allocated only while quadMode is 1.
  long double* CbarQ;
  long double* BbarQ;
  VRXsvecQ alphaRowQ;
  VRXsvecQ alphaColQ;
  VRXsvecQ rhoQ;
  VRXsvecQ scratch1Q;
  VRXsvecQ scratch2Q;
  VRXsvecQ extra1Q;
  VRXsvecQ extra2Q;
  VRXfactorQ* factorQ;
  // Maps of the active row-wise copy: slot offset of each column-wise entry in its row
  // (-1 while the column is basic), and the column-wise entry of each row slot.
  int* activePos;
  int64_t* activeSrc;
  int64_t entryCap;  // length of activePos: the end of the last structural column
};

// Options of a setup; the defaults give a plain build from the model's store.
struct VRXlpSetupOpts {
  int modelKind = VRX_LPKIND_OTHER;
  // A solver copy made by vrx::lpMakeSolverCopy and owned by the caller (the search keeps
  // one to append cut rows); null lets the record make and own its own copy.
  VRXmodeldata* copy = nullptr;
};

// Builds the record in model->lp, or refreshes the one there (parameters, automatic
// choices, work arrays; the data and the basis stay as they are). Charges *work (may be
// null). Returns 0 or an error code; on an error model->lp is freed and null.
int VRXlpSetup(VRXmodel* model, int method, double* work, const VRXlpSetupOpts* opts = nullptr);
// Frees the record, its work arrays, factors and its copy when it owns it; *lp becomes null.
void VRXlpFree(VRXlp** lp);
// Frees model->lp and clears the slot.
void VRXlpFreeOnModel(VRXmodel* model);
// Scales the solver copy of model->lp unless it already carries factors; rebuilds the
// active row-wise copy. 0, 10001, or 10005 when the model has no record.
int VRXlpScale(VRXmodel* model, int scaleFlag);
// Takes the scale off the record's copy: data back to true units, colScale and rowScale
// null, objScale 1. The work vectors are not converted; the caller recomputes them.
int VRXlpUnscale(VRXlp* lp);
// Allocates what is missing of the work arrays in the form of quadMode, fills the slack
// part, sets the slack basis on a fresh status array, and fills the active row-wise copy.
int VRXlpLoad(VRXlp* lp);
// Switch the work vectors between double and extended form in place (values converted).
int VRXlpToQuad(VRXlp* lp);
int VRXlpToDouble(VRXlp* lp);
// Frees the factor and the pricing records; the next VRXlpLoad makes a factor again.
void VRXlpFreeWork(VRXlp* lp);
// sign +1: structural column var (now nonbasic) joins the active row-wise copy with its
// entries times value; sign -1: it leaves (value unused). Slacks are not in the copy.
// 0, or 10003 for a column already in (or already out of) the copy.
int VRXlpRowSwap(VRXlp* lp, int var, int sign, double value);

namespace vrx {

// The solver copy of a store: the simplex data only (no names, SOS or general
// constraints), matrix compacted, slack columns appended, '>' rows negated unless the
// store already is in solver form (geRowsNegated nonzero: then 1 if any '>', else -1).
// Scale vectors are copied when the store has them. 0 or 10001.
int lpMakeSolverCopy(VRXenv* env, const VRXmodeldata* src, VRXmodeldata** out);

// Inputs of the scaling beyond the copy itself.
struct ScaleOpts {
  int scaleFlag = -1;  // -1 automatic, 0 off, 1, 2, 3
  int modelKind = VRX_LPKIND_OTHER;
  double objScaleParam = 0.0;  // ObjScale: > 0 a fixed factor, < 0 from the cost range, 0 none
  double rhsScaleParam = 1.0;  // VORN_PAR_RHSSCALE
  double infBound = 1e30;
  int hasPwl = 0;
  int altScale = 0;  // VORN_PAR_ALTSCALE with a presolved model present
  uint64_t seed = 0;
  double workFactor = 1.0;
};
// Computes and applies scaling on a solver copy that carries none. Charges
// 2 * workFactor * nnz to *work (may be null). 0 or 10001.
int scaleCopy(VRXenv* env, VRXmodeldata* copy, const ScaleOpts& opts, double* work);
// The scale rule: 1 for 0.5 < f < 2, otherwise 2^floor(log2 f).
double powerOfTwo(double f);

// The factor's view of the record's matrix.
VRXfactorMatrix lpFactorMatrix(const VRXlp* lp);
// Copies the record's fields that the factor's refactor rules read into ctl, and back.
void lpFactorCtlLoad(const VRXlp* lp, VRXfactorCtl* ctl);
void lpFactorCtlStore(VRXlp* lp, const VRXfactorCtl* ctl);
// Fills the active row-wise copy from varStat (every structural with a negative code).
void lpActiveRebuild(VRXlp* lp);

// Unscaling of solution vectors into true units (double output for both forms):
// x_j = x_s * c_j (structurals and slacks), row duals y_i = y_s * r_i / objScale,
// reduced costs d_j = d_s / (c_j * objScale). The sign of '>' rows is not turned here.
template <class T>
void lpUnscalePrimal(const VRXlp* lp, const T* xs, double* x);
template <class T>
void lpUnscaleDual(const VRXlp* lp, const T* ys, double* y);
template <class T>
void lpUnscaleReduced(const VRXlp* lp, const T* ds, double* d);

}  // namespace vrx
