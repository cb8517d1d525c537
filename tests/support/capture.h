// Collects log lines handed to a log callback.
#pragma once

#include <string>

#include "vornix_c.h"

inline std::string& capturedLog() {
  static std::string text;
  return text;
}
inline void captureLine(const char* msg) { capturedLog() += msg; }

// Routes an environment's log lines into capturedLog(), console off.
inline void captureLogOf(VRXenv* env) {
  capturedLog().clear();
  VRXsetlogcallbackfuncenv(env, captureLine);
  VRXsetintparam(env, "LogToConsole", 0);
  VRXsetintparam(env, "OutputFlag", 1);
}
