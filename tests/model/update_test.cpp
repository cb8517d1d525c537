// The update: deletions through every store that carries indices, the warm
// start and what of a former solve survives, the SOS check, and the resets.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../support/capture.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model_fixture.h"
#include "vornix_c.h"

namespace {

class Update : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    captureLogOf(env);
    ASSERT_EQ(0, lp.load(env, &model));
    VRXsetlogcallbackfuncenv(model->env, captureLine);
    capturedLog().clear();
  }
  void TearDown() override {
    VRXfreemodel(model);
    VRXfreeenv(env);
  }
  const char* msg() { return VRXgetmerrormsg(model); }
  double coeff(int i, int j) {
    double v = -999;
    EXPECT_EQ(0, VRXgetcoeff(model, i, j, &v));
    return v;
  }
  VRXwarmstart* ws() { return vrx::warmOf(model); }
  // A complete basis of the small LP: x1 and the slack of R0 basic.
  void setBasis() {
    const int vb[3] = {VRX_NONBASIC_LOWER, VRX_BASIC, VRX_NONBASIC_UPPER};
    for (int j = 0; j < 3; ++j) ASSERT_EQ(0, vrx::warmSetVBasis(model, j, vb[j]));
    ASSERT_EQ(0, vrx::warmSetCBasis(model, 0, VRX_BASIC));
    ASSERT_EQ(0, vrx::warmSetCBasis(model, 1, VRX_NONBASIC_LOWER));
  }
  std::vector<int> basis() {
    if (!ws() || !ws()->basis) return {};
    return std::vector<int>(ws()->basis, ws()->basis + ws()->size);
  }

  SmallLp lp;
  VRXenv* env = nullptr;
  VRXmodel* model = nullptr;
};

TEST_F(Update, DeletionsTranslateEveryIndexCarryingStore) {
  // Columns 3 and 4 join the small LP; every structure refers to column 1
  // or to columns behind it.
  const int rows[2] = {0, 1};
  const double vals[2] = {6, 7};
  const int vbeg[2] = {0, 1};
  const char* names[2] = {"v3", "v4"};
  ASSERT_EQ(0, VRXaddvars(model, 2, 2, vbeg, rows, vals, nullptr, nullptr, nullptr, nullptr,
                          const_cast<char**>(names)));
  const int types[1] = {VRX_SOS_TYPE1}, sbeg[1] = {0}, sind[3] = {1, 3, 4};
  const double sw[3] = {1, 2, 3};
  ASSERT_EQ(0, VRXaddsos(model, 1, 3, types, sbeg, sind, sw));
  const int qr[3] = {1, 4, 0}, qc[3] = {3, 4, 0};
  const double qv[3] = {1, 2, 3};
  ASSERT_EQ(0, VRXaddqpterms(model, 3, qr, qc, qv));
  const int li[2] = {3, 4}, qi[1] = {3}, qj[1] = {4};
  const double lv[2] = {1, 2}, qcv[1] = {5};
  ASSERT_EQ(0, VRXaddqconstr(model, 2, li, lv, 1, qi, qj, qcv, '<', 1, "q"));
  ASSERT_EQ(0, VRXaddgenconstrMax(model, nullptr, 4, 1, li, 0.0));
  const double px[2] = {0, 1}, py[2] = {0, 1};
  ASSERT_EQ(0, VRXsetpwlobj(model, 4, 2, px, py));
  const int cone[3] = {4, 3, 1};
  ASSERT_EQ(0, VRXaddcone(model, 3, cone));
  ASSERT_EQ(0, vrx::stageBranchPriority(model, 3, 7));
  ASSERT_EQ(0, vrx::stageLazy(model, 1, 1));
  ASSERT_EQ(0, VRXupdatemodel(model));
  // One MIP start, value j + 0.5 for column j.
  model->starts = vrx::envAllocArray<double>(model->env, 5);
  for (int j = 0; j < 5; ++j) model->starts[j] = j + 0.5;
  model->startCount = 1;

  const int delCol[1] = {1}, delRow[1] = {0};
  ASSERT_EQ(0, VRXdelvars(model, 1, delCol));
  ASSERT_EQ(0, VRXdelconstrs(model, 1, delRow));
  ASSERT_EQ(0, VRXupdatemodel(model));
  const VRXmodeldata* d = model->data;
  ASSERT_EQ(4, d->numVars);
  ASSERT_EQ(1, d->numConstrs);
  // Old row 1 is row 0: x0 2, x2 5, v4 7; v3 lost its only entry.
  EXPECT_EQ(2.0, coeff(0, 0));
  EXPECT_EQ(5.0, coeff(0, 1));
  EXPECT_EQ(0.0, coeff(0, 2));
  EXPECT_EQ(7.0, coeff(0, 3));
  EXPECT_EQ(3, d->numNZs);
  char buf[32];
  EXPECT_STREQ("v3", vrx::modelVarName(d, 2, buf, sizeof buf));
  EXPECT_STREQ("R0", vrx::modelConstrName(d, 0, buf, sizeof buf));
  EXPECT_EQ(1, model->lazyFlag[0]);
  EXPECT_EQ(7, model->branchPriority[2]);

  int nm = 0, st[1], sb[1], si[3];
  double swt[3];
  ASSERT_EQ(0, VRXgetsos(model, &nm, st, sb, si, swt, 0, 1));
  ASSERT_EQ(2, nm);
  EXPECT_EQ(2, si[0]);
  EXPECT_EQ(3, si[1]);
  EXPECT_EQ(3.0, swt[1]);

  int nq = 0, gr[3], gc[3];
  double gv[3];
  ASSERT_EQ(0, VRXgetq(model, &nq, gr, gc, gv));
  ASSERT_EQ(2, nq);  // (x1, v3) went with x1
  EXPECT_EQ(3, gr[0]);
  EXPECT_EQ(3, gc[0]);
  EXPECT_EQ(0, gr[1]);

  int nl = 0, nqq = 0, lind[2], qrow[1], qcol[1];
  double lval[2], qval[1];
  ASSERT_EQ(0, VRXgetqconstr(model, 0, &nl, lind, lval, &nqq, qrow, qcol, qval));
  EXPECT_EQ(2, lind[0]);
  EXPECT_EQ(3, lind[1]);
  EXPECT_EQ(2, qrow[0]);
  EXPECT_EQ(3, qcol[0]);

  ASSERT_EQ(1, d->numGenConstrs);
  EXPECT_EQ(3, d->genConstrs[0].resultVar);
  EXPECT_EQ(2, d->genConstrs[0].vars[0]);

  int np = 0;
  double gx[2], gy[2];
  ASSERT_EQ(0, VRXgetpwlobj(model, 3, &np, gx, gy));
  EXPECT_EQ(2, np);
  ASSERT_EQ(0, VRXgetpwlobj(model, 2, &np, gx, gy));
  EXPECT_EQ(0, np);

  ASSERT_EQ(1, d->numCones);
  ASSERT_EQ(2, d->coneBeg[1]);
  EXPECT_EQ(3, d->coneInd[0]);
  EXPECT_EQ(2, d->coneInd[1]);

  EXPECT_EQ(0.5, model->starts[0]);
  EXPECT_EQ(2.5, model->starts[1]);
  EXPECT_EQ(4.5, model->starts[3]);

  // A copy carries the cones too.
  VRXmodel* copy = VRXcopymodel(model);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(3, copy->data->coneInd[0]);
  VRXfreemodel(copy);
}

TEST_F(Update, ItemsAddedAndDeletedInOneBatchUnderModeOne) {
  const int del[2] = {3, 1};
  ASSERT_EQ(0, VRXaddvar(model, 0, nullptr, nullptr, 0, 0, 1, 'C', "gone"));
  ASSERT_EQ(0, VRXaddvar(model, 0, nullptr, nullptr, 0, 0, 1, 'C', "kept"));
  const int ci[2] = {3, 4};
  const double cv[2] = {1, 2};
  ASSERT_EQ(0, VRXaddconstr(model, 2, ci, cv, '<', 1, "row"));
  ASSERT_EQ(0, vrx::stageVarName(model, 3, "renamed then deleted"));
  ASSERT_EQ(0, VRXdelvars(model, 2, del));
  const int delRow[1] = {2};
  ASSERT_EQ(0, vrx::stageConstrName(model, 2, "also gone"));
  ASSERT_EQ(0, VRXaddconstr(model, 1, ci + 1, cv, '=', 3, "stays"));
  ASSERT_EQ(0, VRXdelconstrs(model, 1, delRow));
  ASSERT_EQ(0, VRXupdatemodel(model));
  const VRXmodeldata* d = model->data;
  ASSERT_EQ(3, d->numVars);
  ASSERT_EQ(3, d->numConstrs);
  char buf[32];
  EXPECT_STREQ("kept", vrx::modelVarName(d, 2, buf, sizeof buf));
  EXPECT_STREQ("stays", vrx::modelConstrName(d, 2, buf, sizeof buf));
  EXPECT_EQ(1.0, coeff(2, 2));
  EXPECT_EQ('=', d->sense[2]);
}

TEST_F(Update, WarmStartIsCheckedAtTheUpdate) {
  // Only columns set: the basis is incomplete.
  ASSERT_EQ(0, vrx::warmSetVBasis(model, 0, VRX_BASIC));
  ASSERT_EQ(1, ws()->basisState);
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ("Warning, invalid warm-start basis discarded\n", capturedLog());
  EXPECT_EQ(0, ws()->basisState);
  // Complete but with three basic entries for two rows.
  capturedLog().clear();
  setBasis();
  ASSERT_EQ(0, vrx::warmSetVBasis(model, 0, VRX_BASIC));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ("Warning, invalid warm-start basis discarded\n", capturedLog());
  capturedLog().clear();
  setBasis();
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ("", capturedLog());
  EXPECT_EQ(2, ws()->basisState);
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, vrx::warmSetVBasis(model, 0, 3));
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE, vrx::warmSetCBasis(model, 2, VRX_BASIC));

  // Norms stand only with a positive entry for every basic item.
  for (int j = 0; j < 3; ++j) ASSERT_EQ(0, vrx::warmSetVDualNorm(model, j, 1.0));
  ASSERT_EQ(0, vrx::warmSetCDualNorm(model, 0, 0.0));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(0, ws()->normState);
  for (int j = 0; j < 3; ++j) ASSERT_EQ(0, vrx::warmSetVDualNorm(model, j, 1.0));
  ASSERT_EQ(0, vrx::warmSetCDualNorm(model, 0, 2.0));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(2, ws()->normState);

  // Start vectors: all given, then with a column missing.
  for (int j = 0; j < 3; ++j) ASSERT_EQ(0, vrx::warmSetPStart(model, j, j));
  for (int i = 0; i < 2; ++i) ASSERT_EQ(0, vrx::warmSetDStart(model, i, 1));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(2, ws()->startState);
  ASSERT_EQ(0, vrx::warmSetPStart(model, 1, 1e100));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(3, ws()->startState);
  EXPECT_EQ("Warning, invalid warm-start solution discarded\n", capturedLog());
}

TEST_F(Update, WarmStartWritesAreRefusedWhileAdditionsWaitUnderModeOne) {
  ASSERT_EQ(0, VRXaddconstr(model, 0, nullptr, nullptr, '<', 1, nullptr));
  EXPECT_EQ(0, vrx::warmSetVBasis(model, 0, VRX_BASIC));
  EXPECT_EQ(0, vrx::warmSetPStart(model, 0, 1.0));
  EXPECT_EQ(
      "Warning on update mode = 1 after new variables or constraints added:\n"
      "Setting LP warm start basis or start ignored\n",
      capturedLog());
  EXPECT_EQ(nullptr, ws()->basis);
  EXPECT_EQ(nullptr, ws()->start);
  ASSERT_EQ(0, VRXupdatemodel(model));
  // The next batch warns again; without additions the write is taken.
  capturedLog().clear();
  EXPECT_EQ(0, vrx::warmSetVBasis(model, 0, VRX_BASIC));
  EXPECT_EQ(0, ws()->basis[0]);
  ASSERT_EQ(0, VRXaddvar(model, 0, nullptr, nullptr, 0, 0, 1, 'C', nullptr));
  EXPECT_EQ(0, vrx::warmSetVBasis(model, 1, VRX_BASIC));
  EXPECT_EQ(
      "Warning on update mode = 1 after new variables or constraints added:\n"
      "Setting LP warm start basis or start ignored\n",
      capturedLog());
  // Under mode 0 the store's indices stay writable.
  ASSERT_EQ(0, VRXupdatemodel(model));
  ASSERT_EQ(0, VRXsetintparam(model->env, "UpdateMode", 0));
  capturedLog().clear();
  ASSERT_EQ(0, VRXaddvar(model, 0, nullptr, nullptr, 0, 0, 1, 'C', nullptr));
  EXPECT_EQ(0, vrx::warmSetVBasis(model, 3, VRX_SUPERBASIC));
  EXPECT_EQ(VRX_SUPERBASIC, ws()->basis[3]);
  EXPECT_EQ("", capturedLog());
}

TEST_F(Update, KeepLevelFollowsTheBasis) {
  setBasis();
  ASSERT_EQ(0, VRXupdatemodel(model));
  ASSERT_EQ(2, ws()->basisState);
  model->status = VRX_OPTIMAL;

  // A changed objective keeps the basis; the status returns to 1.
  ASSERT_EQ(0, vrx::stageObj(model, 0, 5.0));
  EXPECT_EQ(1, vrx::keepLevel(model));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(VRX_LOADED, model->status);
  EXPECT_EQ(2, ws()->basisState);

  // Coefficients: in a nonbasic column 1, in a basic one 0.
  const int r[1] = {0}, nb[1] = {0}, b[1] = {1};
  const double v[1] = {3};
  ASSERT_EQ(0, VRXchgcoeffs(model, 1, r, nb, v));
  EXPECT_EQ(1, vrx::keepLevel(model));
  ASSERT_EQ(0, VRXchgcoeffs(model, 1, r, b, v));
  EXPECT_EQ(0, vrx::keepLevel(model));
  vrx::pendingDiscard(model);
  ASSERT_EQ(0, VRXaddqpterms(model, 1, b, b, v));
  EXPECT_EQ(0, vrx::keepLevel(model));
  vrx::pendingDiscard(model);
  ASSERT_EQ(0, VRXaddqpterms(model, 1, nb, nb, v));
  EXPECT_EQ(1, vrx::keepLevel(model));
  ASSERT_EQ(0, VRXdelq(model));
  EXPECT_EQ(0, vrx::keepLevel(model));
  vrx::pendingDiscard(model);
  ASSERT_EQ(0, vrx::stageVType(model, 0, 'I'));
  EXPECT_EQ(0, vrx::keepLevel(model));
  vrx::pendingDiscard(model);
  ASSERT_EQ(0, VRXaddvar(model, 0, nullptr, nullptr, 0, 0, 1, 'B', nullptr));
  EXPECT_EQ(0, vrx::keepLevel(model));
  vrx::pendingDiscard(model);
  // Deleting a row whose slack is nonbasic loses the basis.
  const int tight[1] = {1};
  ASSERT_EQ(0, VRXdelconstrs(model, 1, tight));
  EXPECT_EQ(0, vrx::keepLevel(model));
  vrx::pendingDiscard(model);

  // A former solve kept in the model allows level 2 until something moves a
  // column off the bound it sits at.
  int fakeLp = 0;
  model->lp = &fakeLp;
  ASSERT_EQ(0, vrx::stageUB(model, 0, 50.0));
  EXPECT_EQ(2, vrx::keepLevel(model));
  ASSERT_EQ(0, vrx::stageLB(model, 0, -1e100));  // x0 sits at its lower bound
  EXPECT_EQ(1, vrx::keepLevel(model));
  vrx::pendingDiscard(model);
  ASSERT_EQ(0, vrx::stageRHS(model, 0, 1.0));
  EXPECT_EQ(1, vrx::keepLevel(model));
  vrx::pendingDiscard(model);
  model->lp = nullptr;

  // Deleting a nonbasic column keeps the basis in the new shape.
  const int x0[1] = {0};
  ASSERT_EQ(0, VRXdelvars(model, 1, x0));
  EXPECT_EQ(1, vrx::keepLevel(model));
  ASSERT_EQ(0, VRXupdatemodel(model));
  ASSERT_EQ(2, ws()->basisState);
  EXPECT_EQ((std::vector<int>{VRX_BASIC, VRX_NONBASIC_UPPER, VRX_BASIC, VRX_NONBASIC_LOWER}),
            basis());
  EXPECT_EQ(2, ws()->columnCount);

  // Added items: bounds decide for columns, new rows have basic slacks.
  const double lbs[3] = {-1e100, -1e100, 2}, ubs[3] = {4, 1e100, 3};
  ASSERT_EQ(0, VRXaddvars(model, 3, 0, nullptr, nullptr, nullptr, nullptr, lbs, ubs, nullptr,
                          nullptr));
  const int cols[1] = {0};
  const double one[1] = {1};
  ASSERT_EQ(0, VRXaddrangeconstr(model, 1, cols, one, 0, 1, nullptr));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ((std::vector<int>{VRX_BASIC, VRX_NONBASIC_UPPER, VRX_NONBASIC_UPPER, VRX_SUPERBASIC,
                              VRX_NONBASIC_LOWER, VRX_NONBASIC_LOWER, VRX_BASIC,
                              VRX_NONBASIC_LOWER, VRX_BASIC}),
            basis());
  EXPECT_EQ(2, ws()->basisState);

  // Deleting the basic column drops it.
  const int first[1] = {0};
  ASSERT_EQ(0, VRXdelvars(model, 1, first));
  EXPECT_EQ(0, vrx::keepLevel(model));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(0, ws()->basisState);
  EXPECT_EQ(nullptr, ws()->basis);
}

TEST_F(Update, StartVectorsFollowTheShape) {
  for (int j = 0; j < 3; ++j) ASSERT_EQ(0, vrx::warmSetPStart(model, j, j + 1));
  for (int i = 0; i < 2; ++i) ASSERT_EQ(0, vrx::warmSetDStart(model, i, -i));
  ASSERT_EQ(0, VRXupdatemodel(model));
  const int x1[1] = {1};
  ASSERT_EQ(0, VRXdelvars(model, 1, x1));
  ASSERT_EQ(0, VRXupdatemodel(model));
  ASSERT_EQ(4, ws()->size);
  EXPECT_EQ(1.0, ws()->start[0]);
  EXPECT_EQ(3.0, ws()->start[1]);
  EXPECT_EQ(-1.0, ws()->start[3]);
  EXPECT_EQ(2, ws()->startState);
  ASSERT_EQ(0, VRXaddvar(model, 0, nullptr, nullptr, 0, 0, 1, 'C', nullptr));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(1e100, ws()->start[2]);
  EXPECT_EQ(3, ws()->startState);
}

TEST_F(Update, SosSetsAreSortedByWeightOnce) {
  const int types[2] = {VRX_SOS_TYPE1, VRX_SOS_TYPE2}, beg[2] = {0, 3}, ind[5] = {0, 1, 2, 0, 2};
  const double w[5] = {3, 1, 2, 5, 5};
  ASSERT_EQ(0, VRXaddsos(model, 2, 5, types, beg, ind, w));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ("Warning: model has duplicate SOS weights (could lead to inconsistent solutions)\n",
            capturedLog());
  int nm = 0, st[2], sb[2], si[5];
  double sw[5];
  ASSERT_EQ(0, VRXgetsos(model, &nm, st, sb, si, sw, 0, 2));
  EXPECT_EQ(5, nm);
  EXPECT_EQ((std::vector<int>{1, 2, 0}), std::vector<int>(si, si + 3));
  EXPECT_EQ(1.0, sw[0]);
  EXPECT_EQ(3.0, sw[2]);
  EXPECT_EQ(VRX_SOS_TYPE2, st[1]);
  EXPECT_EQ(3, sb[1]);
  capturedLog().clear();
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ("", capturedLog());  // checked once
  const int del[1] = {1};
  ASSERT_EQ(0, VRXdelsos(model, 1, del));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(1, model->data->numSOS);
  EXPECT_EQ("", capturedLog());
}

TEST_F(Update, ResetsDropResultsAndWarmStart) {
  setBasis();
  ASSERT_EQ(0, VRXupdatemodel(model));
  ASSERT_EQ(0, vrx::stageBranchPriority(model, 0, 1));
  model->starts = vrx::envAllocArray<double>(model->env, 3);
  model->startCount = 1;
  model->status = VRX_OPTIMAL;
  ASSERT_EQ(0, VRXresetmodel(model));
  EXPECT_EQ(VRX_LOADED, model->status);
  EXPECT_EQ(nullptr, model->warmStart);
  EXPECT_FALSE(vrx::pendingActive(model));
  ASSERT_NE(nullptr, model->branchPriority);  // the batch was applied first
  EXPECT_NE(nullptr, model->starts);
  ASSERT_EQ(0, VRXreset(model, 1));
  EXPECT_EQ(nullptr, model->starts);
  EXPECT_EQ(0, model->startCount);
  EXPECT_EQ(nullptr, model->branchPriority);
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXreset(nullptr, 0));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXupdatemodel(nullptr));
}

TEST_F(Update, ManyRenamesAndDeletionsRebuildTheCaches) {
  // Past 100,000 deleted or renamed items the name index and the row-wise
  // copy are built anew and the count starts over.
  const int n = 100001;
  ASSERT_EQ(0, VRXaddvars(model, n, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                          nullptr, nullptr));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(0, model->updateChanges);
  for (int j = 0; j < n; ++j) ASSERT_EQ(0, vrx::stageVarName(model, j, "v"));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(0, model->updateChanges);
  EXPECT_NE(nullptr, model->data->rowBeg);
  EXPECT_NE(nullptr, model->nameIndex.vars);
  EXPECT_EQ(2, model->data->rowLen[0]);
  // Any later change drops the row-wise copy again.
  ASSERT_EQ(0, vrx::stageObj(model, 0, 1.0));
  ASSERT_EQ(0, VRXupdatemodel(model));
  EXPECT_EQ(nullptr, model->data->rowBeg);
}

}  // namespace
