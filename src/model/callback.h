// The block handed to a user callback, and the frame that calls it.
#pragma once

#include <atomic>
#include <cstdint>

#include "env/clock.h"
#include "env/env.h"

constexpr uint32_t kCbMagic = 0x28BF7DC5u;

// What a solver reports at its callback points. Objective-like values are in
// the model's own sense; the solver fills what applies to its 'where'.
struct VRXcbprogress {
  // presolve
  int colsRemoved, rowsRemoved, sensesChanged, boundsChanged, coefsChanged;
  // simplex
  double spxIter, spxObj, spxPrimInf, spxDualInf;
  int spxPerturbed;
  // MIP, MIPSOL, MIPNODE
  double mipObjBest, mipObjBound, mipNodes, mipNodesLeft, mipIter, mipObjBoundC, mipOpen;
  int mipSolCount, mipCutCount, mipSolOrigin, nodeStatus, nodeSolCount;
  double mipCounters[6];
  const double* nodeRelX;  // null when the node has no relaxation values
  // barrier
  int barIter;
  double barPrimObj, barDualObj, barPrimInf, barDualInf, barCompl;
  // several objectives
  int objCount, objSolCount;
  const double* objSol;
};

struct VRXcbdata {
  int where;
  uint32_t magic;
  double startTime;
  double lastPoll;
  VRXmodel* model;
  VRXcallback cbFunction;
  void* sourceLp;
  void* mip;
  void* node;
  int nodeIndex;
  const double* solX;
  double solObj;
  int cutCount;
  void* barrier;
  void* usrData;
  char message[512];
  double bestBound;
  int stopRequest;
  double lastObjective;
  int phase;
  int lastBest;
  int lastNode;
  const VRXcbprogress* progress;  // the reporting solver's values, during a call
  int numVars;                     // length of solution arrays handed out
  const vrx::Clock* clock;         // the clock of the run under way, null between runs
  // Set for the run of a concurrent instance: its closing lines are left to the caller, and
  // (deterministic form) each poll first hands the instance's work to workPoll.
  int instanceRun;
  void (*workPoll)(void* ctx, double work);
  void* workCtx;
};

// What the attribute reads answer while an asynchronous solve runs: the worker's private
// callback step copies the progress of the solve into it. Written by the worker, read by
// the caller's thread, hence atomic.
struct VRXasyncCache {
  std::atomic<double> objVal{1e100};
  std::atomic<double> objBound{-1e100};
  std::atomic<double> objBoundC{-1e100};
  std::atomic<double> nodeCount{-1.0};
  std::atomic<double> openNodeCount{0.0};
  std::atomic<double> iterCount{0.0};
  std::atomic<double> iterCount0{0.0};
  std::atomic<double> tOpen{-1.0};
  std::atomic<int> barIterCount{0};
  std::atomic<double> runVTime{0.0};
  VRXcallback userFunc = nullptr;  // the user's callback, called before the private step
  int madeBlock = 0;               // the callback block was made for the private step
};

namespace vrx {
inline bool callbackBlockValid(const VRXcbdata* cb) { return cb && cb->magic == kCbMagic && cb->model; }
// A block for model's callback frame, as a new callback finds it.
void callbackBlockInit(VRXcbdata* b, VRXmodel* model);
// The cache of an asynchronous run: made fresh (the old one freed), with the private
// callback step installed on the model's environment. 0 or 10001.
int asyncCacheStart(VRXmodel* model);
// Takes the private step off again; the cache stays readable until it is freed.
void asyncCacheStop(VRXmodel* model);
void asyncCacheFree(VRXmodel* model);
// Hands one log line to the environment's callback as a 'where' 6 message.
int callbackMessage(VRXenv* env, const char* text);
// Calls the user callback at 'where' with the solver's values. Returns the
// callback's result; non-zero asks the solver to stop with that code.
int callbackFrame(VRXenv* env, int where, const VRXcbprogress* progress);

// Hands the clock of a run to the environment's callback block for the run's length, so
// the frame can tell the work done so far; the one before comes back at the end.
class CallbackClock {
 public:
  CallbackClock(VRXenv* env, const Clock* clock)
      : block_(env->cbData), saved_(block_ ? block_->clock : nullptr) {
    if (block_) block_->clock = clock;
  }
  ~CallbackClock() {
    if (block_) block_->clock = saved_;
  }
  CallbackClock(const CallbackClock&) = delete;
  CallbackClock& operator=(const CallbackClock&) = delete;

 private:
  VRXcbdata* block_;
  const Clock* saved_;
};
}  // namespace vrx
