// The committed store of a model, in the solvers' normal form.
//
// Always a minimisation: a maximised model keeps modelSense -1 with obj, objCon
// and Q negated, and every exported getter turns the values back. Column
// arrays (obj, lb, ub, colBeg, colLen, vtype, colFlipped, colScale) have room
// for numVars + numConstrs columns, and rowInd/val for numNZs + numConstrs
// entries, since the optimisers append one slack column per row in place.
// Slack slots start zeroed ('C' in vtype) and are not part of the model.
#pragma once

#include <cstddef>
#include <cstdint>

#include "env/env.h"

// One general constraint.
struct VRXgenconstr {
  int type;          // VRX_GENCONSTR_*
  char* name;        // owned; null means the default "GC%d"
  int resultVar;     // INDICATOR: the binary variable
  int count;         // operands, or for INDICATOR the entries of the implied row
  int* vars;         // operands; null for INDICATOR
  double constant;   // MAX and MIN: an extra constant operand
  int binValue;      // INDICATOR: the value of the binary that forces the row
  int* ind;          // INDICATOR: the implied row
  double* val;
  char sense;
  double rhs;
};

struct VRXmodeldata {
  int modelSense;  // 1 minimise, -1 maximise
  int numConstrs;
  int numVars;
  int64_t numNZs;
  int numSOS;
  int numQConstrs;
  int numIntVars;  // type other than 'C'
  int numBinVars;  // type 'B'
  int solvedTag;   // -1 after every change
  int flippedCount;

  double* obj;     // minimisation form
  double objCon;   // minimisation form: the getter multiplies by modelSense
  void* objList;   // further objectives; nothing creates them yet

  int64_t* colBeg;  // numVars + numConstrs + 1 entries
  int* colLen;
  int* rowInd;
  double* val;

  // Row-wise copy of the matrix, null unless built; rowBeg has numConstrs + 1 entries.
  int64_t* rowBeg;
  int* rowLen;
  int* colInd;
  double* rowVal;

  int* sosType;       // 1 or 2
  int64_t* sosBeg;    // numSOS + 1 entries
  int* sosInd;
  double* sosWeight;
  int sosChecked;     // every set is sorted by weight; cleared when sets are added

  int numGenConstrs;
  VRXgenconstr* genConstrs;

  // Q as triplets: a term a*x*y is kept as 2 * a * modelSense.
  int numQNZs;
  int* qRow;
  int* qCol;
  double* qVal;

  // Quadratic constraints: linear and quadratic parts, both numQConstrs + 1 begins.
  int numQCNZs;
  int64_t* qcLinBeg;
  int* qcLinInd;
  double* qcLinVal;
  int64_t* qcQuadBeg;
  int* qcRow;
  int* qcCol;
  double* qcVal;  // a term a*x*y is kept as a
  char* qcSense;
  double* qcRHS;

  // Piecewise-linear objectives, by variable: pwlCount[j] points from pwlBeg[j].
  // pwlY is kept in the minimisation form, like obj.
  int numPWLObjVars;
  int64_t* pwlBeg;  // numVars entries, null when there is none
  int* pwlCount;
  double* pwlX;
  double* pwlY;
  int64_t numPWLPoints;  // length of pwlX and pwlY

  // Second-order cones: the first member bounds the norm of the others.
  int numCones;
  int64_t* coneBeg;  // numCones + 1 entries
  int* coneInd;

  double* rhs;
  char* sense;  // '<', '>', '='
  double* lb;
  double* ub;

  // Scaling of derived stores; null in a store as loaded.
  double* rowScale;  // numConstrs
  double* colScale;  // numVars + numConstrs
  double objScale;
  char* colFlipped;  // null, or numVars + numConstrs entries, 1 for a negated column
  int geRowsNegated; // derived stores: rows of sense '>' are kept negated

  char* vtype;  // 'C', 'B', 'I', 'S', 'N'

  char* modelName;   // owned, may be null
  char** constrName; // null, or one owned string per row (null: default "R%d")
  char** varName;    // null, or one owned string per column (null: default "C%d")
  char** qcName;     // null, or one owned string per quadratic constraint
};

namespace vrx {

// Frees the store and everything it owns; a null store is fine.
void modelDataFree(VRXenv* env, VRXmodeldata* data);
// A deep copy of the store; 0 or 10001. The row-wise copy is not copied: it
// is built again on request.
int modelDataCopy(VRXenv* env, const VRXmodeldata* src, VRXmodeldata** out);

// Names, with the default for a missing one written into buf.
const char* modelVarName(const VRXmodeldata* data, int j, char* buf, size_t size);
const char* modelConstrName(const VRXmodeldata* data, int i, char* buf, size_t size);

// A matrix value as the caller sees it: scaling, flipped columns and negated
// '>' rows of derived stores turned back.
double storeValue(const VRXmodeldata* data, int row, int col, double stored);

}  // namespace vrx
