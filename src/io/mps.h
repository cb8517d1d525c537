// MPS files: the reader's result, before it becomes a model.
#pragma once

#include <cstdint>

#include "env/env.h"
#include "io/stream.h"

namespace vrx {

struct MpsExtras;

// A model as read from a file, in the caller's terms (no sign changes).
// Every array is owned and freed by mpsDataFree.
struct MpsData {
  char* modelName;
  int objSense;  // 1 minimise, -1 maximise
  double objCon;
  int numRows;
  int numCols;
  int64_t numNZs;
  char** rowNames;
  char* sense;  // '<', '>', '='
  double* rhs;
  char** colNames;
  double* obj;
  double* lb;
  double* ub;
  char* vtype;
  int64_t* colBeg;  // numCols + 1 entries
  int* colLen;
  int* rowInd;
  double* val;
  // SOS: numSOS sets, members in sosBeg[s] .. sosBeg[s+1]-1
  int numSOS;
  int* sosType;
  int* sosBeg;  // numSOS + 1 entries
  int* sosInd;
  double* sosWeight;
  // Quadratic objective as terms qVal * x[qRow] * x[qCol], qRow <= qCol, one per pair
  int numQNZs;
  int* qRow;
  int* qCol;
  double* qVal;
  MpsExtras* extras;  // null when the file has nothing beyond the linear model
};

// What an MPS file holds beyond the linear model: applied after the load
// through the modelling calls. Rows named here stay in the linear model until
// the loader moves them out.
struct MpsExtras {
  int* lazy;  // per row, null when no row is lazy
  // Objectives of a multi-objective file: coefficients objBeg[k]..objBeg[k+1]-1.
  int numObj;
  char** objName;
  int* objPriority;
  double* objWeight;
  double* objAbsTol;
  double* objRelTol;
  int* objBeg;
  int* objInd;
  double* objVal;
  // Quadratic constraints: the row, and its terms qcVal * x[qcI] * x[qcJ].
  int numQC;
  int* qcRow;
  int* qcBeg;
  int* qcI;
  int* qcJ;
  double* qcVal;
  // Indicator constraints: the row that holds when binary var takes value.
  int numInd;
  int* indRow;
  int* indVar;
  int* indVal;
  // General constraints MIN, MAX, ABS, AND, OR: operands genBeg[k]..genBeg[k+1]-1.
  int numGen;
  int* genType;
  char** genName;
  int* genRes;
  int* genBeg;
  int* genVars;
  double* genConst;
  // Piecewise-linear objectives: points pwlBeg[k]..pwlBeg[k+1]-1 of column pwlVar[k].
  int numPwl;
  int* pwlVar;
  int* pwlBeg;
  double* pwlX;
  double* pwlY;
};

void mpsDataFree(VRXenv* env, MpsData* d);

// Reads an MPS file from an open stream. Returns 0 and fills *out, or an error
// code with the message stored and logged.
int mpsRead(VRXenv* env, Stream* s, const char* filename, MpsData* out);

}  // namespace vrx

struct VRXmodel;

namespace vrx {
// Writes the model's committed store; 0 or the stream's error code. With
// rewrite (the .rew form) every row, column, quadratic and general
// constraint gets its default name: R%d, C%d, QC%d, GC%d.
int mpsWrite(VRXenv* env, const VRXmodel* model, Stream* s, bool rewrite);
}  // namespace vrx
