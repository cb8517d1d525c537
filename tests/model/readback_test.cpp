// Reading the store back: matrix by columns and rows, coefficients, SOS, Q and
// quadratic constraints; maximisation round trip; deep copy; list cleaning.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "../support/capture.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model_fixture.h"
#include "vornix_c.h"

namespace {

template <class T>
T* envArray(VRXenv* env, std::initializer_list<T> values) {
  T* p = vrx::envAllocArray<T>(env, values.size());
  std::copy(values.begin(), values.end(), p);
  return p;
}

// Data that only later layers add to a store, hung on by hand.
void addExtras(VRXmodel* model) {
  VRXenv* env = model->env;
  VRXmodeldata* d = model->data;
  d->numSOS = 2;
  d->sosType = envArray<int>(env, {1, 2});
  d->sosBeg = envArray<int64_t>(env, {0, 2, 3});
  d->sosInd = envArray<int>(env, {0, 2, 1});
  d->sosWeight = envArray<double>(env, {1.0, 2.0, 5.0});

  d->numQConstrs = 1;
  d->numQCNZs = 2;
  d->qcLinBeg = envArray<int64_t>(env, {0, 2});
  d->qcLinInd = envArray<int>(env, {0, 2});
  d->qcLinVal = envArray<double>(env, {1.5, -1.0});
  d->qcQuadBeg = envArray<int64_t>(env, {0, 2});
  d->qcRow = envArray<int>(env, {0, 1});
  d->qcCol = envArray<int>(env, {0, 2});
  d->qcVal = envArray<double>(env, {2.0, -3.0});
  d->qcSense = envArray<char>(env, {'<'});
  d->qcRHS = envArray<double>(env, {7.0});
  d->qcName = vrx::envCallocArray<char*>(env, 1);
  d->qcName[0] = vrx::envStrdup(env, "qc0");

  d->numGenConstrs = 1;
  d->genConstrs = vrx::envCallocArray<VRXgenconstr>(env, 1);
  VRXgenconstr& g = d->genConstrs[0];
  g.type = VRX_GENCONSTR_MAX;
  g.name = vrx::envStrdup(env, "g0");
  g.resultVar = 0;
  g.count = 2;
  g.vars = envArray<int>(env, {1, 2});
  g.constant = -1.0;

  d->numPWLObjVars = 1;
  d->numPWLPoints = 2;
  d->pwlBeg = vrx::envCallocArray<int64_t>(env, 3);
  d->pwlCount = envArray<int>(env, {0, 2, 0});
  d->pwlX = envArray<double>(env, {0.0, 1.0});
  d->pwlY = envArray<double>(env, {0.0, 4.0});

  model->branchPriority = envArray<int>(env, {3, 2, 1});
  model->lazyFlag = envArray<int>(env, {0, 1});
  model->startCount = 2;
  model->starts = envArray<double>(env, {1, 2, 3, 1e101, 1e101, 6});
}

// A deterministic sparse matrix with its dense image.
struct RandomLp {
  int n = 9, m = 7;
  std::vector<double> dense;
  std::vector<int> beg, len, ind;
  std::vector<double> val;
  RandomLp() {
    dense.assign(static_cast<size_t>(n) * m, 0.0);
    uint32_t s = 12345;
    for (int j = 0; j < n; ++j) {
      beg.push_back(static_cast<int>(ind.size()));
      // rows in descending order: the store must not depend on sorted input
      for (int i = m - 1; i >= 0; --i) {
        s = s * 1103515245u + 12345u;
        if ((s >> 16) % 10 < 4) {
          double v = static_cast<double>((s >> 8) % 19) - 9.0 + 0.5;
          ind.push_back(i);
          val.push_back(v);
          dense[static_cast<size_t>(i) * n + j] = v;
        }
      }
      len.push_back(static_cast<int>(ind.size()) - beg.back());
    }
  }
  int load(VRXenv* env, VRXmodel** model) {
    std::string sense(static_cast<size_t>(m), '<');
    std::vector<double> rhs(static_cast<size_t>(m), 1.0);
    return VRXloadmodel(env, model, "rand", n, m, 1, 0, nullptr, sense.data(), rhs.data(),
                        beg.data(), len.data(), ind.data(), val.data(), nullptr, nullptr,
                        nullptr, nullptr, nullptr);
  }
  double at(int i, int j) const { return dense[static_cast<size_t>(i) * n + j]; }
};

class ModelRead : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    captureLogOf(env);
  }
  void TearDown() override { VRXfreeenv(env); }
  VRXenv* env = nullptr;
};

TEST_F(ModelRead, ColumnsRowsAndCoefficientsMatchTheDenseMatrix) {
  RandomLp lp;
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, lp.load(env, &model));
  ASSERT_GT(model->data->numNZs, 10);

  // Columns 2..5, int and 64-bit forms, against the dense image.
  int nz = -1;
  ASSERT_EQ(0, VRXgetvars(model, &nz, nullptr, nullptr, nullptr, 2, 4));
  std::vector<int> vbeg(4), vind(static_cast<size_t>(nz));
  std::vector<double> vval(static_cast<size_t>(nz));
  int nz2 = -1;
  ASSERT_EQ(0, VRXgetvars(model, &nz2, vbeg.data(), vind.data(), vval.data(), 2, 4));
  EXPECT_EQ(nz, nz2);
  size_t xnz = 0;
  std::vector<size_t> xbeg(4);
  std::vector<int> xind(static_cast<size_t>(nz));
  std::vector<double> xval(static_cast<size_t>(nz));
  ASSERT_EQ(0, VRXXgetvars(model, &xnz, xbeg.data(), xind.data(), xval.data(), 2, 4));
  EXPECT_EQ(static_cast<size_t>(nz), xnz);
  int seen = 0;
  for (int c = 0; c < 4; ++c) {
    int end = c + 1 < 4 ? vbeg[c + 1] : nz;
    EXPECT_EQ(static_cast<size_t>(vbeg[c]), xbeg[c]);
    for (int k = vbeg[c]; k < end; ++k, ++seen) {
      EXPECT_EQ(lp.at(vind[k], 2 + c), vval[k]);
      EXPECT_EQ(vind[k], xind[k]);
      EXPECT_EQ(vval[k], xval[k]);
    }
    int expected = 0;
    for (int i = 0; i < lp.m; ++i) expected += lp.at(i, 2 + c) != 0.0;
    EXPECT_EQ(expected, end - vbeg[c]) << c;
  }
  EXPECT_EQ(nz, seen);

  // All rows: every entry in column order, and nothing else.
  ASSERT_EQ(0, VRXgetconstrs(model, &nz, nullptr, nullptr, nullptr, 0, lp.m));
  EXPECT_EQ(model->data->numNZs, nz);
  std::vector<int> cbeg(static_cast<size_t>(lp.m)), cind(static_cast<size_t>(nz));
  std::vector<double> cval(static_cast<size_t>(nz));
  ASSERT_EQ(0, VRXgetconstrs(model, &nz, cbeg.data(), cind.data(), cval.data(), 0, lp.m));
  for (int i = 0; i < lp.m; ++i) {
    int end = i + 1 < lp.m ? cbeg[i + 1] : nz;
    int last = -1;
    std::vector<double> row(static_cast<size_t>(lp.n), 0.0);
    for (int k = cbeg[i]; k < end; ++k) {
      EXPECT_GT(cind[k], last);
      last = cind[k];
      row[static_cast<size_t>(cind[k])] = cval[k];
    }
    for (int j = 0; j < lp.n; ++j) EXPECT_EQ(lp.at(i, j), row[static_cast<size_t>(j)]);
  }
  // A middle range through the 64-bit form.
  std::vector<size_t> xcbeg(2);
  ASSERT_EQ(0, VRXXgetconstrs(model, &xnz, xcbeg.data(), xind.data(), xval.data(), 3, 2));
  EXPECT_EQ(static_cast<size_t>(cbeg[5] - cbeg[3]), xnz);
  EXPECT_EQ(0u, xcbeg[0]);
  EXPECT_EQ(static_cast<size_t>(cbeg[4] - cbeg[3]), xcbeg[1]);
  for (size_t k = 0; k < xnz; ++k) EXPECT_EQ(cind[cbeg[3] + k], xind[k]);

  for (int i = 0; i < lp.m; ++i)
    for (int j = 0; j < lp.n; ++j) {
      double v = -99;
      ASSERT_EQ(0, VRXgetcoeff(model, i, j, &v));
      EXPECT_EQ(lp.at(i, j), v);
    }
  VRXfreemodel(model);
}

TEST_F(ModelRead, RangesAndNullArgumentsAreRefused) {
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, SmallLp().load(env, &model));
  int nz = 0;
  double v = 0;
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE, VRXgetvars(model, &nz, nullptr, nullptr, nullptr, -1, 1));
  EXPECT_STREQ("Index is out of range", VRXgetmerrormsg(model));
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE, VRXgetvars(model, &nz, nullptr, nullptr, nullptr, 1, 3));
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE, VRXgetvars(model, &nz, nullptr, nullptr, nullptr, 0, -1));
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE,
            VRXgetconstrs(model, &nz, nullptr, nullptr, nullptr, 2, 1));
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE, VRXgetcoeff(model, 2, 0, &v));
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE, VRXgetcoeff(model, 0, -1, &v));
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE,
            VRXgetsos(model, &nz, nullptr, nullptr, nullptr, nullptr, 0, 1));
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE,
            VRXgetqconstr(model, 0, &nz, nullptr, nullptr, &nz, nullptr, nullptr, nullptr));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXgetvars(model, nullptr, nullptr, nullptr, nullptr, 0, 1));
  EXPECT_STREQ("NULL argument for required parameter", VRXgetmerrormsg(model));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXgetcoeff(model, 0, 0, nullptr));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXgetq(model, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXgetvars(nullptr, &nz, nullptr, nullptr, nullptr, 0, 1));

  // Empty ranges are fine and a success clears the message.
  nz = -1;
  EXPECT_EQ(0, VRXgetvars(model, &nz, nullptr, nullptr, nullptr, 3, 0));
  EXPECT_EQ(0, nz);
  EXPECT_STREQ("", VRXgetmerrormsg(model));
  EXPECT_EQ(0, VRXgetsos(model, &nz, nullptr, nullptr, nullptr, nullptr, 0, 0));
  EXPECT_EQ(0, VRXgetq(model, &nz, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, nz);
  VRXfreemodel(model);
}

TEST_F(ModelRead, MaximisationIsStoredNegatedAndReadBackAsGiven) {
  const int qr[3] = {0, 0, 1}, qc[3] = {0, 1, 2};
  const double qv[3] = {1.5, 3.0, 1e-14};
  const double obj[3] = {1, -2, 0};
  SmallLp lp;
  for (int sense : {-1, 1}) {
    vrx::LoadArgs a;
    a.numVars = lp.n;
    a.numConstrs = lp.m;
    a.objSense = sense;
    a.objCon = 5.0;
    a.obj = obj;
    a.sense = lp.sense.data();
    a.rhs = lp.rhs.data();
    a.beg32 = lp.beg.data();
    a.len = lp.len.data();
    a.ind = lp.ind.data();
    a.val = lp.val.data();
    a.numQNZs = 3;
    a.qRow = qr;
    a.qCol = qc;
    a.qVal = qv;
    capturedLog().clear();
    VRXmodel* model = nullptr;
    ASSERT_EQ(0, vrx::modelLoad(env, a, &model));
    const VRXmodeldata* d = model->data;
    EXPECT_EQ(sense, d->modelSense);
    EXPECT_EQ(sense * 1.0, d->obj[0]);
    EXPECT_EQ(sense * -2.0, d->obj[1]);
    EXPECT_EQ(sense * 5.0, d->objCon);
    ASSERT_EQ(2, d->numQNZs);
    EXPECT_EQ(sense * 3.0, d->qVal[0]);  // twice the term, in minimisation form
    EXPECT_EQ(sense * 6.0, d->qVal[1]);
    EXPECT_EQ(1u, countOf(capturedLog(), "Warning: loading a model with small (< 1e-13) "
                                         "quadratic coefficients, ignored\n"));

    int nq = 0, rows[2], cols[2];
    double vals[2];
    ASSERT_EQ(0, VRXgetq(model, &nq, rows, cols, vals));
    ASSERT_EQ(2, nq);
    EXPECT_EQ(0, rows[0]);
    EXPECT_EQ(0, cols[0]);
    EXPECT_EQ(1.5, vals[0]);
    EXPECT_EQ(0, rows[1]);
    EXPECT_EQ(1, cols[1]);
    EXPECT_EQ(3.0, vals[1]);
    // The matrix does not turn with the sense.
    double v = 0;
    ASSERT_EQ(0, VRXgetcoeff(model, 1, 2, &v));
    EXPECT_EQ(5.0, v);
    VRXfreemodel(model);
  }

  // Bad quadratic input from a reader is refused before anything is built.
  vrx::LoadArgs bad;
  bad.numVars = 2;
  const int badRow[1] = {2}, col0[1] = {0};
  const double one[1] = {1.0};
  bad.numQNZs = 1;
  bad.qRow = badRow;
  bad.qCol = col0;
  bad.qVal = one;
  VRXmodel* model = reinterpret_cast<VRXmodel*>(&bad);
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE, vrx::modelLoad(env, bad, &model));
  EXPECT_EQ(nullptr, model);
}

TEST_F(ModelRead, SosAndQuadraticConstraintsFromTheStore) {
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, SmallLp().load(env, &model));
  addExtras(model);

  int members = 0, types[2] = {0, 0}, beg[2] = {-1, -1}, ind[3];
  double w[3];
  ASSERT_EQ(0, VRXgetsos(model, &members, nullptr, nullptr, nullptr, nullptr, 0, 2));
  EXPECT_EQ(3, members);
  ASSERT_EQ(0, VRXgetsos(model, &members, types, beg, ind, w, 1, 1));
  EXPECT_EQ(1, members);
  EXPECT_EQ(2, types[0]);
  EXPECT_EQ(0, beg[0]);
  EXPECT_EQ(1, ind[0]);
  EXPECT_EQ(5.0, w[0]);
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE,
            VRXgetsos(model, &members, nullptr, nullptr, nullptr, nullptr, 1, 2));

  int nl = 0, nq = 0, lind[2], qrow[2], qcol[2];
  double lval[2], qval[2];
  ASSERT_EQ(0, VRXgetqconstr(model, 0, &nl, nullptr, nullptr, &nq, nullptr, nullptr, nullptr));
  EXPECT_EQ(2, nl);
  EXPECT_EQ(2, nq);
  ASSERT_EQ(0, VRXgetqconstr(model, 0, &nl, lind, lval, &nq, qrow, qcol, qval));
  EXPECT_EQ(2, lind[1]);
  EXPECT_EQ(-1.0, lval[1]);
  EXPECT_EQ(1, qrow[1]);
  EXPECT_EQ(2, qcol[1]);
  EXPECT_EQ(-3.0, qval[1]);
  EXPECT_EQ(VRX_ERROR_INDEX_OUT_OF_RANGE,
            VRXgetqconstr(model, 1, &nl, nullptr, nullptr, &nq, nullptr, nullptr, nullptr));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT,
            VRXgetqconstr(model, 0, nullptr, nullptr, nullptr, &nq, nullptr, nullptr, nullptr));
  VRXfreemodel(model);
}

TEST_F(ModelRead, DerivedStoreValuesAreTurnedBack) {
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, SmallLp().load(env, &model));
  VRXmodeldata* d = model->data;
  // Row 1 of sense '>' kept negated, column 2 flipped and scaled by 4, row 1 by 0.5.
  d->colScale = envArray<double>(env, {1, 1, 4, 1, 1});
  d->rowScale = envArray<double>(env, {1, 0.5});
  d->colFlipped = envArray<char>(env, {0, 0, 1, 0, 0});
  d->geRowsNegated = 1;
  d->val[4] = -(5.0 * 4.0 * 0.5) * -1.0;  // (row 1, col 2): 5 scaled, flipped, negated
  double v = 0;
  ASSERT_EQ(0, VRXgetcoeff(model, 1, 2, &v));
  EXPECT_EQ(5.0, v);
  int nz = 0, beg[1], ind[2];
  double val[2];
  ASSERT_EQ(0, VRXgetvars(model, &nz, beg, ind, val, 2, 1));
  EXPECT_EQ(5.0, val[1]);
  ASSERT_EQ(0, VRXgetconstrs(model, &nz, beg, ind, val, 0, 1));
  EXPECT_EQ(-1.0, val[1]);  // (row 0, col 2): 4 stored, scaled by 4 and flipped
  VRXfreemodel(model);
}

TEST_F(ModelRead, CopyIsDeepAndOutlivesTheOriginal) {
  SmallLp lp;
  const char* vn[3] = {"x", nullptr, "z"};
  const char* cn[2] = {"first", "second"};
  lp.varNames = const_cast<char**>(vn);
  lp.constrNames = const_cast<char**>(cn);
  lp.vtype = "CIB";
  lp.objSense = -1;
  lp.objCon = 2.5;
  VRXmodel* model = nullptr;
  ASSERT_EQ(0, lp.load(env, &model));
  addExtras(model);
  ASSERT_EQ(0, VRXsetintparam(VRXgetenv(model), "IgnoreNames", 1));

  VRXmodel* copy = VRXcopymodel(model);
  ASSERT_NE(nullptr, copy);
  EXPECT_NE(model->data, copy->data);
  EXPECT_NE(VRXgetenv(model), VRXgetenv(copy));
  int v = 0;
  ASSERT_EQ(0, VRXgetintparam(VRXgetenv(copy), "IgnoreNames", &v));
  EXPECT_EQ(1, v);  // the copy starts from the model's own parameters
  EXPECT_EQ(0, VRXfreemodel(model));

  const VRXmodeldata* d = copy->data;
  EXPECT_EQ(1, copy->status);
  EXPECT_EQ(-1, d->modelSense);
  EXPECT_EQ(-2.5, d->objCon);
  EXPECT_EQ(-3.0, d->obj[2]);
  EXPECT_STREQ("small", d->modelName);
  char buf[32];
  EXPECT_STREQ("x", vrx::modelVarName(d, 0, buf, sizeof buf));
  EXPECT_STREQ("C1", vrx::modelVarName(d, 1, buf, sizeof buf));
  EXPECT_STREQ("second", vrx::modelConstrName(d, 1, buf, sizeof buf));
  EXPECT_EQ(std::string("CIB"), std::string(d->vtype, 3));
  EXPECT_EQ(2, d->numIntVars);
  EXPECT_EQ(1.0, d->ub[2]);
  for (int i = 0; i < lp.m; ++i)
    for (int j = 0; j < lp.n; ++j) {
      double expected = 0;
      for (int k = lp.beg[j]; k < lp.beg[j] + lp.len[j]; ++k)
        if (lp.ind[k] == i) expected = lp.val[k];
      double got = -1;
      ASSERT_EQ(0, VRXgetcoeff(copy, i, j, &got));
      EXPECT_EQ(expected, got);
    }
  int members = 0, ind[3];
  double w[3];
  int beg[2];
  ASSERT_EQ(0, VRXgetsos(copy, &members, nullptr, beg, ind, w, 0, 2));
  EXPECT_EQ(3, members);
  EXPECT_EQ(2, ind[1]);
  EXPECT_EQ(2.0, w[1]);
  int nl = 0, nq = 0, qrow[2], qcol[2], lind[2];
  double qval[2], lval[2];
  ASSERT_EQ(0, VRXgetqconstr(copy, 0, &nl, lind, lval, &nq, qrow, qcol, qval));
  EXPECT_EQ(1.5, lval[0]);
  EXPECT_EQ(2.0, qval[0]);
  EXPECT_STREQ("qc0", d->qcName[0]);
  EXPECT_EQ('<', d->qcSense[0]);
  EXPECT_EQ(7.0, d->qcRHS[0]);
  ASSERT_EQ(1, d->numGenConstrs);
  EXPECT_STREQ("g0", d->genConstrs[0].name);
  EXPECT_EQ(2, d->genConstrs[0].vars[1]);
  EXPECT_EQ(-1.0, d->genConstrs[0].constant);
  EXPECT_EQ(4.0, d->pwlY[1]);
  EXPECT_EQ(2, d->pwlCount[1]);
  EXPECT_EQ(1, copy->branchPriority[2]);
  EXPECT_EQ(1, copy->lazyFlag[1]);
  ASSERT_EQ(2, copy->startCount);
  EXPECT_EQ(6.0, copy->starts[5]);

  // A copy of the copy, then both go.
  VRXmodel* again = VRXcopymodel(copy);
  ASSERT_NE(nullptr, again);
  EXPECT_EQ(0, VRXfreemodel(copy));
  EXPECT_EQ(3, again->data->sosBeg[2]);
  EXPECT_EQ(0, VRXfreemodel(again));
  EXPECT_EQ(nullptr, VRXcopymodel(nullptr));
}

TEST(ModelClean, Clean2SortsMergesAndDropsZeros) {
  int ind[8] = {5, 1, 5, 3, 1, 7, 3, 9};
  double val[8] = {1.0, 2.0, -1.0, 4.0, 0.5, 0.0, 1.0, -2.0};
  int len = 8;
  VRXclean2(&len, ind, val);
  ASSERT_EQ(3, len);
  EXPECT_EQ(1, ind[0]);
  EXPECT_EQ(2.5, val[0]);
  EXPECT_EQ(3, ind[1]);
  EXPECT_EQ(5.0, val[1]);
  EXPECT_EQ(9, ind[2]);
  EXPECT_EQ(-2.0, val[2]);

  // Short lengths leave the list alone.
  int one[2] = {4, 2};
  double oneVal[2] = {0.0, 1.0};
  len = 0;
  VRXclean2(&len, one, oneVal);
  EXPECT_EQ(0, len);
  EXPECT_EQ(4, one[0]);
  len = -3;
  VRXclean2(&len, one, oneVal);
  EXPECT_EQ(-3, len);
  VRXclean2(nullptr, one, oneVal);
  // A single zero goes.
  len = 1;
  VRXclean2(&len, one, oneVal);
  EXPECT_EQ(0, len);

  // A longer list against a map.
  std::vector<int> big;
  std::vector<double> bigVal;
  std::map<int, double> ref;
  uint32_t s = 7;
  for (int k = 0; k < 500; ++k) {
    s = s * 1664525u + 1013904223u;
    int i = static_cast<int>((s >> 10) % 60);
    double v = static_cast<double>(static_cast<int>((s >> 20) % 7) - 3);
    big.push_back(i);
    bigVal.push_back(v);
    ref[i] += v;
  }
  len = static_cast<int>(big.size());
  VRXclean2(&len, big.data(), bigVal.data());
  std::vector<std::pair<int, double>> want;
  for (auto& [i, v] : ref)
    if (v != 0.0) want.emplace_back(i, v);
  ASSERT_EQ(static_cast<int>(want.size()), len);
  for (int k = 0; k < len; ++k) {
    EXPECT_EQ(want[static_cast<size_t>(k)].first, big[static_cast<size_t>(k)]);
    EXPECT_EQ(want[static_cast<size_t>(k)].second, bigVal[static_cast<size_t>(k)]);
  }
}

TEST(ModelClean, Clean3SortsByBothIndexes) {
  int r[7] = {2, 0, 2, 0, 1, 2, 0};
  int c[7] = {1, 3, 0, 1, 1, 1, 3};
  double v[7] = {1.0, 2.0, 3.0, 0.0, -4.0, -1.0, 0.5};
  int len = 7;
  VRXclean3(&len, r, c, v);
  // (0,1) 0 dropped; (0,3) 2.5; (1,1) -4; (2,0) 3; (2,1) 1 - 1 dropped.
  ASSERT_EQ(3, len);
  EXPECT_EQ(0, r[0]);
  EXPECT_EQ(3, c[0]);
  EXPECT_EQ(2.5, v[0]);
  EXPECT_EQ(1, r[1]);
  EXPECT_EQ(1, c[1]);
  EXPECT_EQ(-4.0, v[1]);
  EXPECT_EQ(2, r[2]);
  EXPECT_EQ(0, c[2]);
  EXPECT_EQ(3.0, v[2]);

  std::vector<int> rr, cc;
  std::vector<double> vv;
  std::map<std::pair<int, int>, double> ref;
  uint32_t s = 99;
  for (int k = 0; k < 400; ++k) {
    s = s * 1664525u + 1013904223u;
    int a = static_cast<int>((s >> 8) % 9), b = static_cast<int>((s >> 16) % 9);
    double x = static_cast<double>(static_cast<int>((s >> 24) % 5) - 2);
    rr.push_back(a);
    cc.push_back(b);
    vv.push_back(x);
    ref[{a, b}] += x;
  }
  len = static_cast<int>(rr.size());
  VRXclean3(&len, rr.data(), cc.data(), vv.data());
  int k = 0;
  for (auto& [key, x] : ref) {
    if (x == 0.0) continue;
    ASSERT_LT(k, len);
    EXPECT_EQ(key.first, rr[static_cast<size_t>(k)]);
    EXPECT_EQ(key.second, cc[static_cast<size_t>(k)]);
    EXPECT_EQ(x, vv[static_cast<size_t>(k)]);
    ++k;
  }
  EXPECT_EQ(k, len);
}

}  // namespace
