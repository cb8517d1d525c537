// Lookup by name.
#include <gtest/gtest.h>

#include <string>

#include "vornix_c.h"

TEST(Names, LookupFirstWinsDefaultsAndMissing) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  const char* vnames[] = {"x", "y", "x", nullptr};
  const char* cnames[] = {"c0", "balance"};
  int beg[] = {0, 1, 2, 2};
  int len[] = {1, 1, 0, 0};
  int ind[] = {0, 1};
  double val[] = {1, 1};
  char sense[] = {'<', '='};
  double rhs[] = {1, 2};
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXloadmodel(env, &m, "n", 4, 2, 1, 0, nullptr, sense, rhs, beg, len, ind, val,
                            nullptr, nullptr, nullptr, const_cast<char**>(vnames),
                            const_cast<char**>(cnames)));
  int idx = -5;
  EXPECT_EQ(0, VRXgetvarbyname(m, "x", &idx));
  EXPECT_EQ(0, idx);  // the first of two equal names
  EXPECT_EQ(0, VRXgetvarbyname(m, "y", &idx));
  EXPECT_EQ(1, idx);
  EXPECT_EQ(0, VRXgetvarbyname(m, "C3", &idx));  // a missing name has its default
  EXPECT_EQ(3, idx);
  EXPECT_EQ(0, VRXgetvarbyname(m, "X", &idx));  // case matters
  EXPECT_EQ(-1, idx);
  EXPECT_EQ(0, VRXgetconstrbyname(m, "balance", &idx));
  EXPECT_EQ(1, idx);
  EXPECT_EQ(0, VRXgetconstrbyname(m, "nothing", &idx));
  EXPECT_EQ(-1, idx);
  EXPECT_EQ(10002, VRXgetvarbyname(m, nullptr, &idx));
  EXPECT_STREQ("NULL argument for required parameter", VRXgetmerrormsg(m));
  EXPECT_EQ(10002, VRXgetvarbyname(nullptr, "x", &idx));
  VRXfreemodel(m);

  // With IgnoreNames only the default names exist.
  VRXsetintparam(env, "IgnoreNames", 1);
  ASSERT_EQ(0, VRXloadmodel(env, &m, "n", 4, 2, 1, 0, nullptr, sense, rhs, beg, len, ind, val,
                            nullptr, nullptr, nullptr, const_cast<char**>(vnames),
                            const_cast<char**>(cnames)));
  EXPECT_EQ(0, VRXgetvarbyname(m, "y", &idx));
  EXPECT_EQ(-1, idx);
  EXPECT_EQ(0, VRXgetvarbyname(m, "C1", &idx));
  EXPECT_EQ(1, idx);
  EXPECT_EQ(0, VRXgetconstrbyname(m, "R1", &idx));
  EXPECT_EQ(1, idx);
  VRXfreemodel(m);

  // A model without rows has no constraint names to index.
  ASSERT_EQ(0, VRXnewmodel(env, &m, "empty", 0, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(10005, VRXgetconstrbyname(m, "c", &idx));
  EXPECT_STREQ("No constraint names available to index", VRXgetmerrormsg(m));
  VRXfreemodel(m);
  VRXfreeenv(env);
}
