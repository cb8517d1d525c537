// An environment for tests that logs nothing, freed at the end of the scope.
#pragma once

#include <gtest/gtest.h>

#include "vornix_c.h"

namespace vrxtest {

struct QuietEnv {
  VRXenv* env = nullptr;
  QuietEnv() {
    EXPECT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
  }
  ~QuietEnv() { VRXfreeenv(env); }
  QuietEnv(const QuietEnv&) = delete;
  QuietEnv& operator=(const QuietEnv&) = delete;
};

}  // namespace vrxtest
