// MPS files: the reader's result, before it becomes a model.
#pragma once

#include <cstdint>

#include "env/env.h"
#include "io/stream.h"

namespace vrx {

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
};

void mpsDataFree(VRXenv* env, MpsData* d);

// Reads an MPS file from an open stream. Returns 0 and fills *out, or an error
// code with the message stored and logged.
int mpsRead(VRXenv* env, Stream* s, const char* filename, MpsData* out);

}  // namespace vrx

struct VRXmodel;

namespace vrx {
// Writes the model's committed store; 0 or the stream's error code.
int mpsWrite(VRXenv* env, const VRXmodel* model, Stream* s);
}  // namespace vrx
