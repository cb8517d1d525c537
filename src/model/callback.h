// The block handed to a user callback, and the frame that calls it.
#pragma once

#include <cstdint>

#include "env/env.h"

constexpr uint32_t kCbMagic = 0x28BF7DC5u;

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
};

namespace vrx {
// Hands one log line to the environment's callback as a 'where' 6 message.
int callbackMessage(VRXenv* env, const char* text);
}  // namespace vrx
