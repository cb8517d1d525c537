// Model load: argument checks in their order, the normal form of the store,
// names, the model log lines and the model's environment copy.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model_fixture.h"
#include "vornix_c.h"

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kPosInf = std::numeric_limits<double>::infinity();

class ModelLoad : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    captureLogOf(env);
  }
  void TearDown() override { VRXfreeenv(env); }

  // Loads and expects a failure with code and text; the model pointer is cleared.
  void expectFail(const SmallLp& lp, int code, const char* text, bool wide = false) {
    VRXmodel* model = reinterpret_cast<VRXmodel*>(&sentinel);
    int rc = wide ? lp.loadX(env, &model) : lp.load(env, &model);
    EXPECT_EQ(code, rc);
    EXPECT_STREQ(text, VRXgeterrormsg(env));
    EXPECT_EQ(nullptr, model);
    if (model && model != reinterpret_cast<VRXmodel*>(&sentinel)) VRXfreemodel(model);
  }

  VRXenv* env = nullptr;
  int sentinel = 0;
};

TEST_F(ModelLoad, HandleCountAndNullArrayChecksComeFirst) {
  VRXmodel* model = nullptr;
  SmallLp lp;
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, lp.load(nullptr, &model));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, lp.load(env, nullptr));
  EXPECT_STREQ("NULL argument for required parameter", VRXgeterrormsg(env));

  // A negative count wins over the null arrays and the NaN that follow it.
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT,
            VRXloadmodel(env, &model, "x", -1, 2, 1, kNaN, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_STREQ("Invalid argument value for required parameter", VRXgeterrormsg(env));
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT,
            VRXloadmodel(env, &model, "x", 0, -3, 1, 0, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT,
            VRXnewmodel(env, &model, "x", -1, nullptr, nullptr, nullptr, nullptr, nullptr));

  // Null matrix arrays with columns, null sense or rhs with rows: 10002 before objcon.
  for (int which = 0; which < 4; ++which) {
    const int* beg = which == 0 ? nullptr : lp.beg.data();
    const int* len = which == 1 ? nullptr : lp.len.data();
    const int* ind = which == 2 ? nullptr : lp.ind.data();
    const double* val = which == 3 ? nullptr : lp.val.data();
    model = reinterpret_cast<VRXmodel*>(&sentinel);
    EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT,
              VRXloadmodel(env, &model, "x", 3, 2, 1, kPosInf, nullptr, "<>", lp.rhs.data(), beg,
                           len, ind, val, nullptr, nullptr, nullptr, nullptr, nullptr))
        << which;
    EXPECT_EQ(nullptr, model);
  }
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT,
            VRXloadmodel(env, &model, "x", 3, 2, 1, kPosInf, nullptr, nullptr, lp.rhs.data(),
                         lp.beg.data(), lp.len.data(), lp.ind.data(), lp.val.data(), nullptr,
                         nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT,
            VRXloadmodel(env, &model, "x", 3, 2, 1, kPosInf, nullptr, "<>", nullptr,
                         lp.beg.data(), lp.len.data(), lp.ind.data(), lp.val.data(), nullptr,
                         nullptr, nullptr, nullptr, nullptr));

  // A later successful load opens with a clear error store.
  ASSERT_EQ(0, lp.load(env, &model));
  EXPECT_STREQ("", VRXgeterrormsg(env));
  VRXfreemodel(model);
}

TEST_F(ModelLoad, NumberChecksInOrderWithTheirTexts) {
  SmallLp lp;
  lp.objCon = kPosInf;
  lp.obj[1] = kNaN;  // the objective constant is checked before obj
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Double value is Nan or Inf.");
  lp.objCon = kNaN;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Double value is Nan or Inf.");

  lp = SmallLp();
  lp.obj[1] = kNaN;
  lp.lb[0] = kNaN;
  lp.val[0] = kNaN;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Element 1 of a double array is Nan.");
  lp.obj[1] = 1;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Element 0 of a double array is Nan.");
  lp.lb[0] = 0;
  lp.ub[2] = kNaN;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Element 2 of a double array is Nan.");
  lp.ub[2] = 10;
  lp.rhs[1] = kNaN;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Element 1 of a double array is Nan.");

  // Matrix values may be neither NaN nor infinite; the index is the position
  // in the value array, printed as %lu by the 64-bit load.
  lp = SmallLp();
  lp.val[3] = kNaN;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Element 3 of a double array is Nan or Inf.");
  lp.val[3] = -kPosInf;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Element 3 of a double array is Nan or Inf.");
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Element 3 of a double array is Nan or Inf.", true);

  // All values are checked before any index: a bad row in column 0 loses to
  // an infinite value in column 2.
  lp.ind[0] = 7;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Element 3 of a double array is Nan or Inf.");

  // Infinity is fine in obj, bounds and rhs, and is clamped to 1e100.
  lp = SmallLp();
  lp.obj[0] = kPosInf;
  lp.lb[1] = -kPosInf;
  lp.ub[1] = 1e300;
  lp.rhs[0] = -kPosInf;
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, lp.load(env, &model));
  const VRXmodeldata* d = model->data;
  EXPECT_EQ(kPosInf, d->obj[0]);
  EXPECT_EQ(-1e100, d->lb[1]);
  EXPECT_EQ(1e100, d->ub[1]);
  EXPECT_EQ(-1e100, d->rhs[0]);
  VRXfreemodel(model);
}

TEST_F(ModelLoad, ColumnRangeAndRowIndexChecks) {
  SmallLp lp;
  lp.len[1] = -1;
  expectFail(lp, VRX_ERROR_INDEX_OUT_OF_RANGE, "Index is out of range");
  lp = SmallLp();
  lp.len[0] = 3;  // runs into column 1
  expectFail(lp, VRX_ERROR_INDEX_OUT_OF_RANGE, "Index is out of range");
  lp = SmallLp();
  lp.ind[4] = 2;  // only rows 0 and 1 exist
  expectFail(lp, VRX_ERROR_INDEX_OUT_OF_RANGE, "Index is out of range");
  lp.ind[4] = -1;
  expectFail(lp, VRX_ERROR_INDEX_OUT_OF_RANGE, "Index is out of range", true);

  // The same row twice in one column; the marks are cleared between columns,
  // so row 1 in columns 0, 1 and 2 is fine.
  lp = SmallLp();
  lp.ind[4] = 0;
  expectFail(lp, VRX_ERROR_DUPLICATES, "Error number 10018");
  expectFail(lp, VRX_ERROR_DUPLICATES, "Error number 10018", true);
  // A bad index ahead of the duplicate in the same column wins.
  lp.ind[3] = 5;
  expectFail(lp, VRX_ERROR_INDEX_OUT_OF_RANGE, "Index is out of range");
}

TEST_F(ModelLoad, SenseTypeAndNameFailuresTextAndNoModel) {
  SmallLp lp;
  lp.sense = "<x";
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Invalid constraint sense: 'x'");
  lp = SmallLp();
  lp.vtype = "CqI";
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Invalid variable type 'q'");
  // The sense is checked before the types.
  lp.sense = "?<";
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT, "Invalid constraint sense: '?'");

  std::string n255(255, 'v'), n256(256, 'w');
  char* vnames[3] = {const_cast<char*>("a"), const_cast<char*>(n255.c_str()), nullptr};
  char* cnames[2] = {const_cast<char*>(""), const_cast<char*>(n256.c_str())};
  lp = SmallLp();
  lp.varNames = vnames;
  lp.constrNames = cnames;
  expectFail(lp, VRX_ERROR_INVALID_ARGUMENT,
             "Name too long (maximum name length is 255 characters)");

  // 255 characters pass; null and empty names keep the defaults.
  lp.constrNames = nullptr;
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, lp.load(env, &model));
  char buf[32];
  EXPECT_STREQ("a", vrx::modelVarName(model->data, 0, buf, sizeof buf));
  EXPECT_EQ(n255, vrx::modelVarName(model->data, 1, buf, sizeof buf));
  EXPECT_STREQ("C2", vrx::modelVarName(model->data, 2, buf, sizeof buf));
  EXPECT_STREQ("R1", vrx::modelConstrName(model->data, 1, buf, sizeof buf));
  EXPECT_EQ(nullptr, model->data->constrName);
  VRXfreemodel(model);

  cnames[1] = const_cast<char*>("row1");
  lp.constrNames = cnames;
  ASSERT_EQ(0, lp.load(env, &model));
  EXPECT_STREQ("R0", vrx::modelConstrName(model->data, 0, buf, sizeof buf));
  EXPECT_STREQ("row1", vrx::modelConstrName(model->data, 1, buf, sizeof buf));
  VRXfreemodel(model);

  // With IgnoreNames the names are neither checked nor kept.
  ASSERT_EQ(0, VRXsetintparam(env, "IgnoreNames", 1));
  cnames[1] = const_cast<char*>(n256.c_str());
  ASSERT_EQ(0, lp.load(env, &model));
  EXPECT_EQ(nullptr, model->data->varName);
  EXPECT_STREQ("R1", vrx::modelConstrName(model->data, 1, buf, sizeof buf));
  VRXfreemodel(model);
}

TEST_F(ModelLoad, EmptyModelsLoadWithStatusOne) {
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, VRXloadmodel(env, &model, nullptr, 0, 0, 1, 0, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr));
  ASSERT_NE(nullptr, model);
  EXPECT_EQ(1, model->status);
  EXPECT_EQ(0, model->data->numVars);
  EXPECT_EQ(0, model->data->numConstrs);
  EXPECT_EQ(0, model->data->numNZs);
  EXPECT_EQ(-1, model->data->solvedTag);
  EXPECT_EQ(1.0, model->data->objScale);
  EXPECT_EQ(0, VRXcheckmodel(model));
  EXPECT_EQ(0, VRXfreemodel(model));

  // A new model has columns and no rows; missing arrays give the defaults.
  const char* names[2] = {"x", "y"};
  ASSERT_EQ(0, VRXnewmodel(env, &model, "fresh", 2, nullptr, nullptr, nullptr, nullptr,
                           const_cast<char**>(names)));
  const VRXmodeldata* d = model->data;
  EXPECT_EQ(2, d->numVars);
  EXPECT_EQ(0, d->numConstrs);
  EXPECT_EQ(0.0, d->obj[1]);
  EXPECT_EQ(0.0, d->lb[1]);
  EXPECT_EQ(1e100, d->ub[1]);
  EXPECT_EQ('C', d->vtype[0]);
  EXPECT_EQ(0, d->numIntVars);
  EXPECT_STREQ("fresh", d->modelName);
  EXPECT_STREQ("y", d->varName[1]);
  EXPECT_EQ(1, model->status);
  VRXfreemodel(model);

  double nanObj[1] = {kNaN};
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT,
            VRXnewmodel(env, &model, "x", 1, nanObj, nullptr, nullptr, nullptr, nullptr));
  EXPECT_STREQ("Element 0 of a double array is Nan.", VRXgeterrormsg(env));
  EXPECT_EQ(nullptr, model);
}

TEST_F(ModelLoad, IntegerBoundsAreRoundedWithTolerance) {
  SmallLp lp;
  lp.n = 6;
  lp.obj.assign(6, 0.0);
  lp.lb = {-3, 0, 0, 0.3, 0.4, -2.5};
  lp.ub = {7, 2.999995, 2.99, 2.5, 3.7, 1e100};
  lp.beg = {0, 2, 3, 5, 5, 5};
  lp.len = {2, 1, 2, 0, 0, 0};
  lp.vtype = "bIiSNC";
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, lp.load(env, &model));
  const VRXmodeldata* d = model->data;
  EXPECT_EQ(std::string("BIISNC"), std::string(d->vtype, 6));
  EXPECT_EQ(0.0, d->lb[0]);  // binary -3..7 becomes 0..1
  EXPECT_EQ(1.0, d->ub[0]);
  EXPECT_EQ(3.0, d->ub[1]);  // tolerance before the floor
  EXPECT_EQ(2.0, d->ub[2]);
  EXPECT_EQ(0.3, d->lb[3]);  // semi-continuous bounds stay
  EXPECT_EQ(2.5, d->ub[3]);
  EXPECT_EQ(1.0, d->lb[4]);  // semi-integer bounds round inward
  EXPECT_EQ(3.0, d->ub[4]);
  EXPECT_EQ(-2.5, d->lb[5]);
  EXPECT_EQ(1e100, d->ub[5]);
  EXPECT_EQ(5, d->numIntVars);
  EXPECT_EQ(1, d->numBinVars);
  VRXfreemodel(model);
}

TEST_F(ModelLoad, SmallCoefficientsDroppedWithOneWarning) {
  SmallLp lp;
  lp.val = {1e-13, 2, 9.9e-14, 4, 0.0};
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, lp.load(env, &model));
  const VRXmodeldata* d = model->data;
  EXPECT_EQ(3, d->numNZs);
  ASSERT_EQ(2, d->colLen[0]);
  EXPECT_EQ(1e-13, d->val[0]);  // at the threshold: kept
  EXPECT_EQ(0, d->colLen[1]);
  EXPECT_EQ(1, d->colLen[2]);
  EXPECT_EQ(2, d->colBeg[2]);
  EXPECT_EQ(0, d->rowInd[2]);
  EXPECT_EQ(4.0, d->val[2]);
  EXPECT_EQ(1u, countOf(capturedLog(),
                        "Warning: loading a model with small (< 1e-13) coefficients, ignored\n"));
  VRXfreemodel(model);

  capturedLog().clear();
  ASSERT_EQ(0, SmallLp().load(env, &model));
  EXPECT_EQ(std::string::npos, capturedLog().find("Warning"));
  VRXfreemodel(model);

  // The threshold is the VORN_PAR_ZERO parameter.
  ASSERT_EQ(0, VRXsetdblparam(env, "VORN_PAR_ZERO", 1e-11));
  lp.val = {5e-12, 2, 3, 4, 5};
  ASSERT_EQ(0, lp.load(env, &model));
  EXPECT_EQ(4, model->data->numNZs);
  VRXfreemodel(model);
}

TEST_F(ModelLoad, NormalFormOfSensesBoundsAndLayout) {
  SmallLp lp;
  lp.m = 6;
  lp.sense = "lGeL<=";
  lp.rhs = {1, 2, 3, 1e200, 5, 6};
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, lp.load(env, &model));
  const VRXmodeldata* d = model->data;
  EXPECT_EQ(std::string("<>=<<="), std::string(d->sense, 6));
  EXPECT_EQ(1e100, d->rhs[3]);
  EXPECT_EQ(1, d->modelSense);
  // Column arrays have room for one slack column per row, empty and continuous.
  const int cols = 3 + 6;
  EXPECT_EQ(d->numNZs, d->colBeg[cols]);
  for (int j = 3; j < cols; ++j) {
    EXPECT_EQ(0, d->colLen[j]);
    EXPECT_EQ('C', d->vtype[j]);
    EXPECT_EQ(0.0, d->obj[j]);
  }
  // The slack entries fit behind the matrix (an overrun shows under ASan).
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(0, d->rowInd[d->numNZs + i]);
    EXPECT_EQ(0.0, d->val[d->numNZs + i]);
  }
  VRXfreemodel(model);
}

TEST_F(ModelLoad, ModelLogLinesAndTheEnvironmentCopy) {
  std::string path = modelTempPath("logmodels.log");
  std::remove(path.c_str());
  VRXenv* fenv = nullptr;
  ASSERT_EQ(0, VRXloadenv(&fenv, path.c_str()));
  ASSERT_EQ(0, VRXsetintparam(fenv, "LogToConsole", 0));
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, SmallLp().load(fenv, &model));
  VRXfreemodel(model);
  EXPECT_EQ(std::string::npos, readWholeFile(path).find("MODEL LOG"));

  ASSERT_EQ(0, VRXsetintparam(fenv, "VORN_PAR_LOGMODELS", 1));
  ASSERT_EQ(0, SmallLp().load(fenv, &model));
  char line[96];
  std::snprintf(line, sizeof line, "MODEL LOG: VRXloadmodel %p\n", static_cast<void*>(model));
  std::string loadLine = line;
  std::snprintf(line, sizeof line, "MODEL LOG: VRXfreemodel %p\n", static_cast<void*>(model));
  std::string freeLine = line;

  // The model works on a copy of the environment: its parameters are its own.
  VRXenv* menv = VRXgetenv(model);
  ASSERT_NE(nullptr, menv);
  EXPECT_NE(fenv, menv);
  EXPECT_EQ(1, model->ownsEnv);
  ASSERT_EQ(0, VRXsetintparam(menv, "IgnoreNames", 1));
  int v = -1;
  ASSERT_EQ(0, VRXgetintparam(fenv, "IgnoreNames", &v));
  EXPECT_EQ(0, v);

  // Both alive at once, so their addresses and lines differ.
  VRXmodel* fresh = nullptr;
  ASSERT_EQ(0, VRXnewmodel(fenv, &fresh, "n", 1, nullptr, nullptr, nullptr, nullptr, nullptr));
  std::snprintf(line, sizeof line, "MODEL LOG: VRXnewmodel %p\n", static_cast<void*>(fresh));
  std::string newLine = line;
  VRXfreemodel(model);
  VRXfreemodel(fresh);
  VRXfreeenv(fenv);

  std::string text = readWholeFile(path);
  EXPECT_EQ(1u, countOf(text, loadLine));
  EXPECT_EQ(1u, countOf(text, freeLine));  // written through the model's own stream
  EXPECT_EQ(1u, countOf(text, newLine));
  EXPECT_LT(text.find(loadLine), text.find(freeLine));
  std::remove(path.c_str());
}

TEST_F(ModelLoad, FreeAndHandleChecks) {
  EXPECT_EQ(0, VRXfreemodel(nullptr));
  VRXmodel fake{};
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXfreemodel(&fake));
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXcheckmodel(&fake));
  EXPECT_EQ(nullptr, VRXcopymodel(&fake));

  VRXmodel* model = nullptr;
  ASSERT_EQ(0, SmallLp().load(env, &model));
  // A model in the middle of a solve refuses everything, freeing too.
  model->optimizing = 1;
  int nz = -1;
  EXPECT_EQ(VRX_ERROR_OPTIMIZATION_IN_PROGRESS, VRXgetvars(model, &nz, nullptr, nullptr, nullptr,
                                                           0, 3));
  EXPECT_STREQ("Attempted to access a model while optimization is in progress",
               VRXgetmerrormsg(model));
  EXPECT_EQ(VRX_ERROR_OPTIMIZATION_IN_PROGRESS, VRXfreemodel(model));
  model->accessAllowed = 1;
  EXPECT_EQ(0, VRXgetvars(model, &nz, nullptr, nullptr, nullptr, 0, 3));
  EXPECT_EQ(5, nz);
  model->optimizing = model->accessAllowed = 0;
  model->asyncPending = 1;
  double coeff = 0.0;
  EXPECT_EQ(VRX_ERROR_OPTIMIZATION_IN_PROGRESS, VRXgetcoeff(model, 0, 0, &coeff));
  model->asyncPending = 0;
  EXPECT_EQ(0, VRXfreemodel(model));
}

}  // namespace
