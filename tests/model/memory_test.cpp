// No leak on any failure: every allocation of a load, a copy and a read is
// made to fail in turn through the host's memory hooks.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model_fixture.h"
#include "vornix_c.h"

namespace {

// Runs op with the k-th allocation failing, for k = 0, 1, ... until op
// succeeds. Each failure must report 10001 and leave the live count where it
// was. Returns the number of allocations op needed.
template <class Op>
long failEachAllocation(HookState& hooks, Op op) {
  const long baseline = hooks.live;
  for (long k = 0; k < 10000; ++k) {
    hooks.calls = 0;
    hooks.failAt = k;
    int rc = op();
    hooks.failAt = -1;
    if (rc == 0) return k;
    EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << "allocation " << k;
    EXPECT_EQ(baseline, hooks.live) << "allocation " << k;
    if (rc != VRX_ERROR_OUT_OF_MEMORY || baseline != hooks.live) return -1;
  }
  return -1;
}

TEST(ModelMemory, EveryFailedAllocationIsReportedAndLeavesNothing) {
  HookState hooks;
  VRXenv* env = nullptr;
  ASSERT_EQ(0, loadWithHooks(&env, &hooks));
  captureLogOf(env);

  SmallLp lp;
  lp.val[1] = 1e-20;  // the warning path too
  lp.vtype = "BIC";
  const char* vn[3] = {"a", "", "c"};
  const char* cn[2] = {"r0", "r1"};
  lp.varNames = const_cast<char**>(vn);
  lp.constrNames = const_cast<char**>(cn);

  VRXmodel* model = nullptr;
  long needed = failEachAllocation(hooks, [&] {
    int rc = lp.load(env, &model);
    if (rc) {
      EXPECT_EQ(nullptr, model);
      EXPECT_STREQ("Out of memory", VRXgeterrormsg(env));
    }
    return rc;
  });
  EXPECT_GT(needed, 10);  // record, env copy, store arrays, names
  ASSERT_NE(nullptr, model);

  // A loaded model with Q from the reader's entry.
  const int qr[2] = {0, 1}, qc[2] = {0, 2};
  const double qv[2] = {1.0, 2.0};
  vrx::LoadArgs a;
  a.numVars = lp.n;
  a.numConstrs = lp.m;
  a.sense = lp.sense.data();
  a.rhs = lp.rhs.data();
  a.beg32 = lp.beg.data();
  a.len = lp.len.data();
  a.ind = lp.ind.data();
  a.val = lp.val.data();
  a.numQNZs = 2;
  a.qRow = qr;
  a.qCol = qc;
  a.qVal = qv;
  VRXmodel* quad = nullptr;
  EXPECT_GT(failEachAllocation(hooks, [&] { return vrx::modelLoad(env, a, &quad); }), 0);
  ASSERT_NE(nullptr, quad);
  VRXfreemodel(quad);

  // A copy, with names, optional arrays and starts to duplicate.
  model->branchPriority = vrx::envCallocArray<int>(model->env, 3);
  model->starts = vrx::envCallocArray<double>(model->env, 3);
  model->startCount = 1;
  VRXmodel* copy = nullptr;
  EXPECT_GT(failEachAllocation(hooks, [&] {
              copy = VRXcopymodel(model);
              return copy ? 0 : model->env->errorCode;
            }),
            10);
  ASSERT_NE(nullptr, copy);
  EXPECT_STREQ("c", copy->data->varName[2]);

  // Reading rows needs a work array.
  int nz = 0, beg[2], ind[8];
  double val[8];
  EXPECT_EQ(1, failEachAllocation(hooks, [&] {
              return VRXgetconstrs(copy, &nz, beg, ind, val, 0, 2);
            }));
  EXPECT_EQ(4, nz);

  EXPECT_EQ(0, VRXfreemodel(copy));
  EXPECT_EQ(0, VRXfreemodel(model));
  // Validation failures allocate the duplicate marks and free them again.
  lp.ind[1] = 0;
  const long before = hooks.live;
  EXPECT_EQ(VRX_ERROR_DUPLICATES, lp.load(env, &model));
  EXPECT_EQ(before, hooks.live);
  VRXfreeenv(env);
  EXPECT_EQ(0, hooks.live);
}

}  // namespace
