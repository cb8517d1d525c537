// Models with piecewise-linear objective terms for tests: the terms, the model with them,
// attribute arrays, and the sweep of failing allocations over one optimize.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "hooks.h"
#include "modeldef.h"
#include "vornix_c.h"

namespace vrxtest {

struct PwlTerm {
  int var;
  std::vector<double> x, y;
};

inline VRXmodel* buildPwl(VRXenv* env, const ModelDef& def, const std::vector<PwlTerm>& terms) {
  VRXmodel* m = loadModelDef(env, def);
  for (const PwlTerm& t : terms)
    EXPECT_EQ(0, VRXsetpwlobj(m, t.var, static_cast<int>(t.x.size()), t.x.data(), t.y.data()));
  return m;
}

inline std::vector<double> dblArray(VRXmodel* m, const char* name, int count) {
  std::vector<double> v(static_cast<size_t>(count), -12345.0);
  EXPECT_EQ(0, VRXgetdblattrarray(m, name, 0, count, v.data())) << name;
  return v;
}

// Every allocation of one optimize of the model fails in turn: each call ends with 10001 or
// solves, and nothing stays allocated. setup sets the parameters of the hooked environment;
// check looks at the model after the run that no allocation failed.
inline void expectAllocationSweep(const ModelDef& def, const std::vector<PwlTerm>& terms,
                                  const std::function<void(VRXenv*)>& setup,
                                  const std::function<void(VRXmodel*)>& check = nullptr) {
  long calls = 0;
  int failures = 0;
  for (long k = -1; k < calls; ++k) {
    HookState hs;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, loadWithHooks(&env, &hs));
    VRXsetintparam(env, "OutputFlag", 0);
    setup(env);
    VRXmodel* m = buildPwl(env, def, terms);
    ASSERT_NE(nullptr, m);
    ASSERT_EQ(0, VRXupdatemodel(m));
    const long before = hs.calls;
    if (k >= 0) hs.failAt = before + k;
    const int rc = VRXoptimize(m);
    if (k < 0) {
      ASSERT_EQ(0, rc);
      if (check) check(m);
      calls = hs.calls - before;
    } else {
      EXPECT_TRUE(rc == 0 || rc == VRX_ERROR_OUT_OF_MEMORY) << k << " " << rc;
      if (rc) ++failures;
    }
    hs.failAt = -1;
    VRXfreemodel(m);
    VRXfreeenv(env);
    EXPECT_EQ(0, hs.live) << k;
  }
  EXPECT_GT(calls, 20);
  EXPECT_GT(failures, 0);
}

}  // namespace vrxtest
