#include <gtest/gtest.h>
#include "vornix_c.h"
TEST(Smoke, LoadFree) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXfreeenv(env);
}
