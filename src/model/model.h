// The model handle. The committed store and the batch of changes live behind it.
#pragma once

#include <cstdint>

#include "env/env.h"

struct VRXmodeldata;
struct VRXpending;

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
  void* starts;
};
