// The model handle. The committed store and the batch of changes live behind it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "env/env.h"

struct VRXmodeldata;
struct VRXpending;
struct VRXresult;
struct VRXobjlist;
struct VRXpresolvemap;

namespace vrx {
struct NameIndex;
}

struct VRXmodel {
  uint32_t magic;
  int optimizing;
  int accessAllowed;
  int signalSet;
  void* savedSignal;
  int clientId;
  int recordThis;
  VRXcbdata* cbState;
  int status;
  double runtime;
  double runVTime;
  int asyncPending;
  void* asyncCache;
  void* lp;
  VRXmodeldata* data;
  VRXmodeldata* presolved;
  VRXmodeldata* relaxed;
  VRXenv* env;
  int ownsEnv;
  VRXenv** concurrentEnvs;
  int concurrentCount;
  VRXenv** multiObjEnvs;
  int multiObjCount;
  double updateWork;
  int updateChanges;
  void* multiObj;
  void* mipResult;
  void* remoteResult;
  void* rowStore;
  VRXpending* pending;
  void* warmStart;
  int startCount;
  double* starts;  // startCount blocks of numVars values, 1e101 where unset
  // Optional per-element attributes, null until set.
  int* branchPriority;  // numVars
  double* hintValue;    // numVars
  int* lazyFlag;        // numConstrs
  int* hintPriority;    // numVars
  int* partition;       // numVars
  struct {
    vrx::NameIndex* vars;
    vrx::NameIndex* constrs;
  } nameIndex;  // built on request
  int inSolve;           // set with optimizing for the length of a solve
  int asyncResult;       // the error of the last asynchronous run, for VRXsync
  void* asyncThread;     // the worker of an asynchronous run
  int asyncHostThread;   // the worker came from the host's thread hook
  VRXresult* result;     // what the last solve published; null before any
  VRXobjlist* objList;   // the objectives of a model with several; null for one
  char* attrScratch;     // names handed out by the attribute reads
  size_t attrScratchSize;
  VRXpresolvemap* presolveMap;  // the last presolve's map with its presolved model; null when none
};

namespace vrx {

// Everything a load takes. The load copies what it keeps; the caller owns the
// arrays. Exactly one of beg32 and beg64 gives the column begins; a null begin
// array means a model without matrix entries.
struct LoadArgs {
  const char* name = nullptr;
  int numVars = 0;
  int numConstrs = 0;
  int objSense = 1;  // negative: maximise
  double objCon = 0.0;
  const double* obj = nullptr;
  const char* sense = nullptr;
  const double* rhs = nullptr;
  const int* beg32 = nullptr;
  const size_t* beg64 = nullptr;
  const int* len = nullptr;
  const int* ind = nullptr;
  const double* val = nullptr;
  const double* lb = nullptr;
  const double* ub = nullptr;
  const char* vtype = nullptr;
  const char* const* varNames = nullptr;
  const char* const* constrNames = nullptr;
  // Quadratic objective from the readers: sum of qVal[k] * x[qRow[k]] * x[qCol[k]].
  int numQNZs = 0;
  const int* qRow = nullptr;
  const int* qCol = nullptr;
  const double* qVal = nullptr;
  // SOS sets from the readers: members sosBeg[s] .. sosBeg[s+1]-1.
  int numSOS = 0;
  const int* sosType = nullptr;
  const int* sosBeg = nullptr;
  const int* sosInd = nullptr;
  const double* sosWeight = nullptr;
  // The name of the export for the "MODEL LOG" line; null logs nothing.
  const char* logCall = nullptr;
};

// Validates and loads; on success *out holds the model, on failure it is null,
// nothing is left allocated and the error text stands in env.
int modelLoad(VRXenv* env, const LoadArgs& args, VRXmodel** out);
// As modelLoad, for a model the solver derives from the caller's: it works in the
// caller's environment (its log, limits, interrupt and memory count), not a copy.
int modelLoadDerived(VRXenv* env, const LoadArgs& args, VRXmodel** out);
// Makes a loaded model work in env instead of its own environment copy.
void modelShareEnv(VRXmodel* model, VRXenv* env);
// A deep copy of the store and of the optional arrays, with its own env copy.
int modelCopy(VRXmodel* model, VRXmodel** out);
// Frees everything the model owns, the record, and env when it owns it.
void modelDestroy(VRXmodel* model);
// The head of every export on a model: handle checks, the refusal while an
// asynchronous solve runs, and the clearing of the last error.
int modelEnter(VRXmodel* model);

// The number checks of the load and of the add and attribute calls. They write
// their text only into an empty, unfrozen error store and return 10003.
int checkFinite(VRXenv* env, double value);
int checkFiniteArray(VRXenv* env, const double* values, int count);
int checkFiniteArrayX(VRXenv* env, const double* values, size_t count);
// As checkFiniteArray, for quadratic values, which the store keeps doubled.
int checkQuadArray(VRXenv* env, const double* values, int count);
int checkNotNan(VRXenv* env, double value);
int checkNotNanArray(VRXenv* env, const double* values, int count);
int checkNotNanArrayX(VRXenv* env, const double* values, size_t count);

// Frees the concurrent and multi-objective environments of the model.
void discardModelEnvLists(VRXmodel* model);
// Waits for the worker of an asynchronous run and releases it.
void joinWorker(VRXmodel* model);
// Drops the name lookup indexes; they are built again on the next lookup.
void dropNameIndexes(VRXmodel* model);

}  // namespace vrx
