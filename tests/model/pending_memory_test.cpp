// No leak on failure: every allocation of a representative batch and its
// update is made to fail in turn through the host's memory hooks.
#include <gtest/gtest.h>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model_fixture.h"
#include "vornix_c.h"

namespace {

// A batch that touches every block of the record, a warm start to carry,
// and deletions that go through every index-carrying store.
int runBatch(VRXmodel* model) {
  int rc = 0;
  const int vb[3] = {VRX_NONBASIC_LOWER, VRX_BASIC, VRX_NONBASIC_UPPER};
  for (int j = 0; j < 3 && !rc; ++j) rc = vrx::warmSetVBasis(model, j, vb[j]);
  if (!rc) rc = vrx::warmSetCBasis(model, 0, VRX_BASIC);
  if (!rc) rc = vrx::warmSetCBasis(model, 1, VRX_NONBASIC_LOWER);
  if (!rc) rc = vrx::warmSetPStart(model, 0, 1.0);
  if (!rc) rc = vrx::warmSetVDualNorm(model, 1, 1.0);
  // The internal writes return a code; the attribute call closes with it.
  if (rc) return vrx::setError(model->env, rc);

  const int vbeg[2] = {0, 2}, vind[3] = {0, 1, 0};
  const double vval[3] = {1, 1e-20, 2}, obj[2] = {1, 2}, lb[2] = {0, -1}, ub[2] = {4, 5};
  const char* vn[2] = {"a", nullptr};
  if ((rc = VRXaddvars(model, 2, 3, vbeg, vind, vval, obj, lb, ub, "CI", const_cast<char**>(vn))))
    return rc;
  const int cbeg[1] = {0}, cind[2] = {0, 3};
  const double cval[2] = {1, 2}, rhs[1] = {3};
  const char* cn[1] = {"c"};
  if ((rc = VRXaddconstrs(model, 1, 2, cbeg, cind, cval, "<", rhs, const_cast<char**>(cn))))
    return rc;
  if ((rc = VRXaddrangeconstr(model, 2, cind, cval, 0, 1, nullptr))) return rc;
  const int ci[2] = {0, 2}, vi[2] = {1, 4};
  const double cv[2] = {5, 6};
  if ((rc = VRXchgcoeffs(model, 2, ci, vi, cv))) return rc;
  if ((rc = vrx::stageVarName(model, 2, "x2"))) return vrx::setError(model->env, rc);
  if ((rc = vrx::stageConstrName(model, 1, "r1"))) return vrx::setError(model->env, rc);
  if ((rc = vrx::stageObj(model, 4, 3.0))) return vrx::setError(model->env, rc);
  if ((rc = vrx::stageLB(model, 0, -2.0))) return vrx::setError(model->env, rc);
  if ((rc = vrx::stageLazy(model, 2, 1))) return vrx::setError(model->env, rc);
  if ((rc = vrx::stageVarHintVal(model, 3, 0.5))) return vrx::setError(model->env, rc);
  if ((rc = vrx::stageModelName(model, "renamed"))) return vrx::setError(model->env, rc);
  const int types[1] = {VRX_SOS_TYPE1}, sbeg[1] = {0}, sind[3] = {0, 2, 4};
  const double sw[3] = {3, 2, 1};
  if ((rc = VRXaddsos(model, 1, 3, types, sbeg, sind, sw))) return rc;
  const int qr[2] = {0, 3}, qc[2] = {0, 4};
  const double qv[2] = {1, 2};
  if ((rc = VRXaddqpterms(model, 2, qr, qc, qv))) return rc;
  if ((rc = VRXaddqconstr(model, 2, qr, qv, 1, qr + 1, qc + 1, qv, '<', 1, "q"))) return rc;
  const int gv[2] = {0, 2};
  if ((rc = VRXaddgenconstrMax(model, "g", 4, 2, gv, 0.0))) return rc;
  const double px[2] = {0, 1}, py[2] = {1, 0};
  if ((rc = VRXsetpwlobj(model, 2, 2, px, py))) return rc;
  const int cone[3] = {4, 0, 1};
  if ((rc = VRXaddcone(model, 3, cone))) return rc;
  const int delCol[1] = {1}, delRow[1] = {0};
  if ((rc = VRXdelvars(model, 1, delCol))) return rc;
  if ((rc = VRXdelconstrs(model, 1, delRow))) return rc;
  return VRXupdatemodel(model);
}

TEST(PendingMemory, EveryFailedAllocationOfABatchIsReportedAndLeavesNothing) {
  HookState hooks;
  VRXenv* env = nullptr;
  ASSERT_EQ(0, loadWithHooks(&env, &hooks));
  captureLogOf(env);
  const long envLive = hooks.live;
  SmallLp lp;
  long k = 0;
  for (; k < 20000; ++k) {
    VRXmodel* model = nullptr;
    ASSERT_EQ(0, lp.load(env, &model));
    hooks.calls = 0;
    hooks.failAt = k;
    int rc = runBatch(model);
    hooks.failAt = -1;
    if (rc == 0) {
      // The run that needed no failure: check what it built.
      const VRXmodeldata* d = model->data;
      EXPECT_EQ(5, d->numVars);
      EXPECT_EQ(3, d->numConstrs);
      EXPECT_EQ(1, d->numSOS);
      EXPECT_EQ(1, d->numQConstrs);
      EXPECT_EQ(1, d->numGenConstrs);
      EXPECT_EQ(1, d->numCones);
      EXPECT_EQ(1, d->numPWLObjVars);
      EXPECT_STREQ("renamed", d->modelName);
      EXPECT_EQ(VRX_LOADED, model->status);
      EXPECT_EQ(0, VRXfreemodel(model));
      EXPECT_EQ(envLive, hooks.live);
      break;
    }
    EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << "allocation " << k;
    EXPECT_STREQ("Out of memory", VRXgetmerrormsg(model)) << "allocation " << k;
    // The model stays usable after any failure.
    EXPECT_EQ(0, VRXupdatemodel(model)) << "allocation " << k;
    EXPECT_EQ(0, VRXfreemodel(model));
    EXPECT_EQ(envLive, hooks.live) << "allocation " << k;
    if (rc != VRX_ERROR_OUT_OF_MEMORY || envLive != hooks.live) break;
  }
  EXPECT_GT(k, 50);  // the batch and the update allocate many blocks
  RecordProperty("allocations", static_cast<int>(k));
  VRXfreeenv(env);
  EXPECT_EQ(0, hooks.live);
}

// A failure inside the update leaves a consistent store behind: the batch is
// gone, the status is 0, and the store keeps its old shape.
TEST(PendingMemory, AFailedUpdateKeepsTheStore) {
  HookState hooks;
  VRXenv* env = nullptr;
  ASSERT_EQ(0, loadWithHooks(&env, &hooks));
  captureLogOf(env);
  SmallLp lp;
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, lp.load(env, &model));
  const int rows[2] = {0, 1};
  const double vals[2] = {1, 1};
  ASSERT_EQ(0, VRXaddvar(model, 2, rows, vals, 1, 0, 1, 'C', "n"));
  hooks.calls = 0;
  hooks.failAt = 0;
  EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, VRXupdatemodel(model));
  hooks.failAt = -1;
  EXPECT_EQ(0, model->status);
  EXPECT_EQ(3, model->data->numVars);
  EXPECT_EQ(5, model->data->numNZs);
  EXPECT_FALSE(vrx::pendingActive(model));
  double v = 0;
  EXPECT_EQ(0, VRXgetcoeff(model, 1, 2, &v));
  EXPECT_EQ(5.0, v);
  EXPECT_EQ(0, VRXfreemodel(model));
  VRXfreeenv(env);
  EXPECT_EQ(0, hooks.live);
}

}  // namespace
