// The attribute families over the table.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/result.h"
#include "vornix_c.h"

namespace {

struct AttrSpec {
  std::string name, type, kind;
  bool settable, afterSolve;
};

std::vector<AttrSpec> loadTable() {
  std::vector<AttrSpec> rows;
  std::ifstream in(std::string(VRX_TEST_DIR) + "/model/attr_table.txt");
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream ss(line);
    AttrSpec r;
    std::string set, after;
    ss >> r.name >> r.type >> r.kind >> set >> after;
    r.settable = set == "yes";
    r.afterSolve = after == "yes";
    rows.push_back(r);
  }
  return rows;
}

int typeCode(const std::string& t) {
  return t == "char" ? 0 : t == "int" ? 1 : t == "double" ? 2 : 3;
}
int kindCode(const std::string& k) {
  static const std::map<std::string, int> codes = {{"model", 0}, {"var", 1},     {"constr", 2},
                                                   {"sos", 3},   {"qconstr", 4}, {"genconstr", 5}};
  return codes.at(k);
}

// min x0 + 2 x1 - x2 subject to x0 + x1 <= 4 (c0), x1 - x2 >= -1 (c1); x2 integer in [0, 5].
class Attrs : public ::testing::Test {
 protected:
  VRXenv* env = nullptr;
  VRXmodel* m = nullptr;
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
    double obj[] = {1, 2, -1};
    double lb[] = {0, -1, 0};
    double ub[] = {10, 1e100, 5};
    char vtype[] = {'C', 'C', 'I'};
    int beg[] = {0, 1, 3};
    int len[] = {1, 2, 1};
    int ind[] = {0, 0, 1, 1};
    double val[] = {1, 1, 1, -1};
    char sense[] = {'<', '>'};
    double rhs[] = {4, -1};
    const char* vn[] = {"x0", "x1", "x2"};
    const char* cn[] = {"c0", "c1"};
    ASSERT_EQ(0, VRXloadmodel(env, &m, "small", 3, 2, 1, 0.5, obj, sense, rhs, beg, len, ind, val,
                              lb, ub, vtype, const_cast<char**>(vn), const_cast<char**>(cn)));
  }
  void TearDown() override {
    VRXfreemodel(m);
    VRXfreeenv(env);
  }
  std::string err() const { return VRXgetmerrormsg(m); }
  // Publishes a solution as a solver would.
  void publish(const double* x, const double* slack, const double* pi, const double* rc) {
    VRXenv* menv = VRXgetenv(m);
    VRXresult* r = vrx::resultCreate(menv, 3, 2, 0);
    ASSERT_NE(nullptr, r);
    r->x = vrx::envAllocArray<double>(menv, 3);
    r->rc = vrx::envAllocArray<double>(menv, 3);
    r->slack = vrx::envAllocArray<double>(menv, 2);
    r->pi = vrx::envAllocArray<double>(menv, 2);
    for (int j = 0; j < 3; ++j) r->x[j] = x[j], r->rc[j] = rc[j];
    for (int i = 0; i < 2; ++i) r->slack[i] = slack[i], r->pi[i] = pi[i];
    r->objVal = 1.5;
    r->solCount = 1;
    m->result = r;
    m->status = VRX_OPTIMAL;
  }
};

}  // namespace

TEST_F(Attrs, TableRowsThroughThePublicCalls) {
  std::vector<AttrSpec> rows = loadTable();
  ASSERT_EQ(161u, rows.size());
  ASSERT_EQ(161, VRXgetnumattributes(m));
  EXPECT_EQ(-1, VRXgetnumattributes(nullptr));
  for (size_t i = 0; i < rows.size(); ++i) {
    const AttrSpec& r = rows[i];
    SCOPED_TRACE(r.name);
    char* name = nullptr;
    ASSERT_EQ(0, VRXgetattrname(m, static_cast<int>(i), &name));
    EXPECT_EQ(r.name, name);
    int type = -5, kind = -5, settable = -5;
    ASSERT_EQ(0, VRXgetattrinfo(m, r.name.c_str(), &type, &kind, &settable));
    EXPECT_EQ(typeCode(r.type), type);
    EXPECT_EQ(kindCode(r.kind), kind);
    EXPECT_EQ(r.settable ? 1 : 0, settable);
    // A read of a result before any solve has nothing to give.
    if (r.afterSolve && r.type == "double" && kind <= 2) {
      std::vector<double> buf(8);
      int rc = kind == 0 ? VRXgetdblattr(m, r.name.c_str(), buf.data())
                         : VRXgetdblattrarray(m, r.name.c_str(), 0, 1, buf.data());
      EXPECT_EQ(10005, rc);
      EXPECT_EQ("Unable to retrieve attribute '" + r.name + "'", err());
    }
    // Rows that may not be set refuse every write.
    if (!r.settable && kind == 0 && r.type == "int") {
      EXPECT_EQ(10004, VRXsetintattr(m, r.name.c_str(), 1));
      EXPECT_EQ("Attribute '" + r.name + "' may not be set", err());
    }
  }
  char* name = nullptr;
  EXPECT_EQ(10003, VRXgetattrname(m, 161, &name));
  EXPECT_EQ(10002, VRXgetattrname(m, 0, nullptr));
}

TEST_F(Attrs, NamesTypesKindsAndTheirMessages) {
  int v = 0;
  EXPECT_EQ(0, VRXgetintattr(m, "numvars", &v));
  EXPECT_EQ(3, v);
  EXPECT_EQ(0, VRXgetintattr(m, "Num_Vars", &v));
  EXPECT_EQ(0, VRXgetintattr(m, "NUMCONSTRS", &v));
  EXPECT_EQ(2, v);
  EXPECT_EQ(10004, VRXgetintattr(m, "_NumVars", &v));
  EXPECT_EQ("Unknown attribute '_NumVars'", err());
  double d = 0;
  EXPECT_EQ(10004, VRXgetdblattr(m, "NumVars", &d));
  EXPECT_EQ("Requested double attribute 'NumVars' is of type int", err());
  EXPECT_EQ(10004, VRXsetintattr(m, "NumVars", 3));
  EXPECT_EQ("Attribute 'NumVars' may not be set", err());
  EXPECT_EQ(10004, VRXgetdblattr(m, "LB", &d));
  EXPECT_EQ("You tried to access array attribute 'LB' as a scalar", err());
  double arr[3];
  EXPECT_EQ(10004, VRXgetdblattrarray(m, "ObjCon", 0, 1, arr));
  EXPECT_EQ("You tried to access scalar attribute 'ObjCon' as an array", err());
  EXPECT_EQ(10002, VRXgetintattr(m, "NumVars", nullptr));
  EXPECT_EQ("NULL 'value' argument supplied", err());
  EXPECT_EQ(10002, VRXgetintattr(m, nullptr, &v));
  EXPECT_EQ("NULL 'attrname' argument supplied", err());
  EXPECT_EQ(10002, VRXgetintattr(nullptr, "NumVars", &v));
  int type = 0, kind = 0, settable = 0;
  EXPECT_EQ(10004, VRXgetattrinfo(m, "Nope", &type, &kind, &settable));
  EXPECT_EQ(-1, type);
  EXPECT_EQ(-1, kind);
  EXPECT_EQ(-1, settable);

  // Model values come back in the caller's terms.
  EXPECT_EQ(0, VRXgetdblattr(m, "ObjCon", &d));
  EXPECT_EQ(0.5, d);
  char* s = nullptr;
  EXPECT_EQ(0, VRXgetstrattr(m, "ModelName", &s));
  EXPECT_STREQ("small", s);
  EXPECT_EQ(0, VRXgetintattr(m, "IsMIP", &v));
  EXPECT_EQ(1, v);
  EXPECT_EQ(0, VRXgetintattr(m, "NumIntVars", &v));
  EXPECT_EQ(1, v);
  EXPECT_EQ(0, VRXgetintattr(m, "NumObj", &v));
  EXPECT_EQ(1, v);
  EXPECT_EQ(0, VRXgetintattr(m, "Status", &v));
  EXPECT_EQ(1, v);
  EXPECT_EQ(0, VRXgetintattr(m, "SolCount", &v));
  EXPECT_EQ(0, v);
}

TEST_F(Attrs, ArrayRangesListsAndElements) {
  double lb[3] = {7, 7, 7};
  EXPECT_EQ(0, VRXgetdblattrarray(m, "LB", 0, 3, lb));
  EXPECT_EQ(0, lb[0]);
  EXPECT_EQ(-1, lb[1]);
  EXPECT_EQ(10006, VRXgetdblattrarray(m, "LB", 1, 3, lb));
  EXPECT_EQ("Index out of range for attribute 'LB'", err());
  EXPECT_EQ(10006, VRXgetdblattrarray(m, "LB", -1, 1, lb));
  double all[3];
  EXPECT_EQ(0, VRXgetdblattrarray(m, "UB", 99, -1, all));  // negative len: all of them
  EXPECT_EQ(1e100, all[1]);
  EXPECT_EQ(5, all[2]);
  // len 0 returns before any other test, even for a result.
  EXPECT_EQ(0, VRXgetdblattrarray(m, "X", 0, 0, nullptr));
  EXPECT_EQ(10005, VRXgetdblattrarray(m, "X", 0, 3, all));
  EXPECT_EQ("Unable to retrieve attribute 'X'", err());
  int ind[] = {2, 0};
  double obj[2];
  EXPECT_EQ(0, VRXgetdblattrlist(m, "Obj", 2, ind, obj));
  EXPECT_EQ(-1, obj[0]);
  EXPECT_EQ(1, obj[1]);
  int bad[] = {0, 7};
  EXPECT_EQ(10006, VRXgetdblattrlist(m, "Obj", 2, bad, obj));
  EXPECT_EQ("Index 7 out of range for attribute 'Obj'", err());
  char t = 0;
  EXPECT_EQ(0, VRXgetcharattrelement(m, "VType", 2, &t));
  EXPECT_EQ('I', t);
  char senses[2];
  EXPECT_EQ(0, VRXgetcharattrarray(m, "Sense", 0, 2, senses));
  EXPECT_EQ('<', senses[0]);
  EXPECT_EQ('>', senses[1]);
  char* names[3];
  EXPECT_EQ(0, VRXgetstrattrarray(m, "VarName", 0, 3, names));
  EXPECT_STREQ("x0", names[0]);
  EXPECT_STREQ("x2", names[2]);
  char* cname = nullptr;
  EXPECT_EQ(0, VRXgetstrattrelement(m, "ConstrName", 1, &cname));
  EXPECT_STREQ("c1", cname);
  EXPECT_EQ(10006, VRXgetstrattrelement(m, "ConstrName", 2, &cname));
}

TEST_F(Attrs, WritesGoThroughTheBatch) {
  ASSERT_EQ(0, VRXsetdblattrelement(m, "UB", 0, 8));
  double newObj[] = {3, 4};
  ASSERT_EQ(0, VRXsetdblattrarray(m, "Obj", 1, 2, newObj));
  ASSERT_EQ(0, VRXsetcharattrelement(m, "Sense", 1, '='));
  ASSERT_EQ(0, VRXsetdblattrelement(m, "RHS", 0, 9));
  ASSERT_EQ(0, VRXsetstrattrelement(m, "VarName", 1, "renamed"));
  ASSERT_EQ(0, VRXsetintattr(m, "ModelSense", -1));
  ASSERT_EQ(0, VRXsetdblattr(m, "ObjCon", 2.5));
  ASSERT_EQ(0, VRXsetstrattr(m, "ModelName", "other"));
  // Nothing reaches the store before the update.
  double ub = 0;
  VRXgetdblattrelement(m, "UB", 0, &ub);
  EXPECT_EQ(10, ub);
  ASSERT_EQ(0, VRXupdatemodel(m));
  VRXgetdblattrelement(m, "UB", 0, &ub);
  EXPECT_EQ(8, ub);
  double obj[3];
  VRXgetdblattrarray(m, "Obj", 0, 3, obj);
  EXPECT_EQ(1, obj[0]);
  EXPECT_EQ(3, obj[1]);
  EXPECT_EQ(4, obj[2]);
  int sense = 0;
  VRXgetintattr(m, "ModelSense", &sense);
  EXPECT_EQ(-1, sense);
  double con = 0;
  VRXgetdblattr(m, "ObjCon", &con);
  EXPECT_EQ(2.5, con);
  char s = 0;
  VRXgetcharattrelement(m, "Sense", 1, &s);
  EXPECT_EQ('=', s);
  char* name = nullptr;
  VRXgetstrattrelement(m, "VarName", 1, &name);
  EXPECT_STREQ("renamed", name);

  // Bad values are refused with their texts.
  EXPECT_EQ(10003, VRXsetdblattrelement(m, "LB", 0, std::nan("")));
  EXPECT_EQ(10003, VRXsetintattr(m, "ModelSense", 0));
  EXPECT_EQ(10003, VRXsetcharattrelement(m, "VType", 0, 'Q'));
  EXPECT_EQ(10006, VRXsetdblattrelement(m, "LB", 3, 0));
}

TEST_F(Attrs, UpdateModeDecidesWhatANewIndexMeans) {
  ASSERT_EQ(0, VRXaddvar(m, 0, nullptr, nullptr, 1.0, 0.0, 1e100, 'C', "y"));
  int n = 0;
  VRXgetintattr(m, "NumVars", &n);
  EXPECT_EQ(3, n);  // pending additions do not count
  EXPECT_EQ(0, VRXsetdblattrelement(m, "Obj", 3, 6.0));  // UpdateMode 1: usable at once
  ASSERT_EQ(0, VRXupdatemodel(m));
  double obj = 0;
  VRXgetdblattrelement(m, "Obj", 3, &obj);
  EXPECT_EQ(6.0, obj);

  // Warm-start writes while additions are pending are refused, logged once.
  VRXenv* menv = VRXgetenv(m);
  captureLogOf(menv);
  ASSERT_EQ(0, VRXaddvar(m, 0, nullptr, nullptr, 0.0, 0.0, 1.0, 'C', "z"));
  EXPECT_EQ(0, VRXsetintattrelement(m, "VBasis", 0, -1));
  EXPECT_EQ(0, VRXsetdblattrelement(m, "PStart", 1, 2.0));
  const std::string w = "Warning on update mode = 1 after new variables or constraints added:\n"
                        "Setting LP warm start basis or start ignored\n";
  EXPECT_EQ(w, capturedLog());
  ASSERT_EQ(0, VRXupdatemodel(m));

  VRXsetintparam(menv, "UpdateMode", 0);
  ASSERT_EQ(0, VRXaddvar(m, 0, nullptr, nullptr, 0.0, 0.0, 1.0, 'C', "w"));
  EXPECT_EQ(10006, VRXsetdblattrelement(m, "Obj", 5, 1.0));
  ASSERT_EQ(0, VRXupdatemodel(m));
  EXPECT_EQ(0, VRXsetdblattrelement(m, "Obj", 5, 1.0));
}

TEST_F(Attrs, StartsAndObjectives) {
  int v = -1;
  EXPECT_EQ(0, VRXgetintattr(m, "NumStart", &v));
  EXPECT_EQ(0, v);
  ASSERT_EQ(0, VRXsetdblattrelement(m, "Start", 1, 0.5));  // the first write makes a start
  EXPECT_EQ(0, VRXgetintattr(m, "NumStart", &v));
  EXPECT_EQ(1, v);
  double s[3];
  ASSERT_EQ(0, VRXgetdblattrarray(m, "Start", 0, 3, s));
  EXPECT_EQ(1e101, s[0]);
  EXPECT_EQ(0.5, s[1]);
  ASSERT_EQ(0, VRXsetintattr(m, "NumStart", 3));
  VRXenv* menv = VRXgetenv(m);
  VRXsetintparam(menv, "StartNumber", 2);
  ASSERT_EQ(0, VRXsetdblattrelement(m, "Start", 0, 4.0));
  ASSERT_EQ(0, VRXgetdblattrarray(m, "Start", 0, 3, s));
  EXPECT_EQ(4.0, s[0]);
  EXPECT_EQ(1e101, s[1]);
  VRXsetintparam(menv, "StartNumber", 3);
  EXPECT_NE(0, VRXgetdblattrarray(m, "Start", 0, 3, s));
  EXPECT_NE(std::string::npos, err().find("StartNumber is larger than NumStart"));
  captureLogOf(menv);
  EXPECT_EQ(0, VRXsetintattr(m, "NumStart", -2));
  EXPECT_EQ("Setting attribute NumStart to a negative number, ignored\n", capturedLog());

  // One objective until a list is made.
  double d = 0;
  EXPECT_NE(0, VRXgetdblattr(m, "ObjNCon", &d));
  EXPECT_NE(std::string::npos, err().find("Error: it isn't a multi-objective model\n"));
  ASSERT_EQ(0, VRXsetintattr(m, "NumObj", 2));
  VRXsetintparam(menv, "ObjNumber", 1);
  ASSERT_EQ(0, VRXsetdblattrelement(m, "ObjN", 2, 7.0));
  ASSERT_EQ(0, VRXsetdblattr(m, "ObjNWeight", 0.25));
  ASSERT_EQ(0, VRXgetdblattr(m, "ObjNWeight", &d));
  EXPECT_EQ(0.25, d);
  ASSERT_EQ(0, VRXgetdblattrelement(m, "ObjN", 2, &d));
  EXPECT_EQ(7.0, d);
  VRXgetintattr(m, "NumObj", &v);
  EXPECT_EQ(2, v);
  VRXgetintattr(m, "IsMultiObj", &v);
  EXPECT_EQ(1, v);
  VRXsetintparam(menv, "ObjNumber", 2);
  EXPECT_EQ(10008, VRXgetdblattr(m, "ObjNWeight", &d));
  EXPECT_NE(std::string::npos,
            err().find("Error: value of parameter ObjNumber is larger than the number of objectives\n"));
}

TEST_F(Attrs, QualityAndStatisticsMeasureTheStoredSolution) {
  // x violates x1's lower bound by 0.5 and x2's integrality by 0.25.
  double x[] = {3, -1.5, 2.25};
  double slack[] = {4 - (3 - 1.5), -1 - (-1.5 - 2.25)};
  double pi[] = {-1, 0.5};
  double rc[] = {2, 1, 0};
  publish(x, slack, pi, rc);
  double d = 0;
  int idx = -1;
  ASSERT_EQ(0, VRXgetdblattr(m, "BoundVio", &d));
  EXPECT_DOUBLE_EQ(0.5, d);
  ASSERT_EQ(0, VRXgetintattr(m, "BoundVioIndex", &idx));
  EXPECT_EQ(1, idx);
  ASSERT_EQ(0, VRXgetdblattr(m, "IntVio", &d));
  EXPECT_DOUBLE_EQ(0.25, d);
  // c1: x1 - x2 = -3.75 against >= -1.
  ASSERT_EQ(0, VRXgetdblattr(m, "ConstrVio", &d));
  EXPECT_DOUBLE_EQ(2.75, d);
  ASSERT_EQ(0, VRXgetintattr(m, "ConstrVioIndex", &idx));
  EXPECT_EQ(1, idx);
  ASSERT_EQ(0, VRXgetdblattr(m, "ConstrResidual", &d));
  EXPECT_DOUBLE_EQ(0.0, d);
  // Direct dual residual: c - A'pi - rc for x0 = 1 - (-1) - 2 = 0,
  // x1 = 2 - (-1 + 0.5) - 1 = 1.5, x2 = -1 - (-0.5) - 0 = -0.5.
  ASSERT_EQ(0, VRXgetdblattr(m, "DualResidual", &d));
  EXPECT_DOUBLE_EQ(1.5, d);
  ASSERT_EQ(0, VRXgetdblattr(m, "DualResidualSum", &d));
  EXPECT_DOUBLE_EQ(2.0, d);
  ASSERT_EQ(0, VRXgetdblattr(m, "MaxCoeff", &d));
  EXPECT_EQ(1, d);
  ASSERT_EQ(0, VRXgetdblattr(m, "MaxBound", &d));
  EXPECT_EQ(10, d);
  ASSERT_EQ(0, VRXgetdblattr(m, "MinObjCoeff", &d));
  EXPECT_EQ(1, d);
  ASSERT_EQ(0, VRXgetdblattr(m, "MaxRHS", &d));
  EXPECT_EQ(4, d);
  double xs[3];
  ASSERT_EQ(0, VRXgetdblattrarray(m, "X", 0, 3, xs));
  EXPECT_EQ(2.25, xs[2]);
  ASSERT_EQ(0, VRXgetdblattr(m, "ObjVal", &d));
  EXPECT_EQ(1.5, d);
  EXPECT_EQ(1, VRXisattravailable(m, "X"));
  EXPECT_EQ(0, VRXisattravailable(m, "VBasis"));
  EXPECT_EQ(0, VRXisattravailable(m, "Kappa"));
  EXPECT_EQ(0, VRXisattravailable(m, "NoSuch"));
}

TEST(AttrsMemory, ElementReadsAllocateNothing) {
  HookState hooks;
  VRXenv* env = nullptr;
  ASSERT_EQ(0, loadWithHooks(&env, &hooks));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXnewmodel(env, &m, "n", 1000, nullptr, nullptr, nullptr, nullptr, nullptr));
  long before = hooks.calls;
  double v = 0;
  for (int j = 0; j < 1000; ++j) {
    ASSERT_EQ(0, VRXgetdblattrelement(m, "UB", j, &v));
    ASSERT_EQ(1e100, v);
  }
  EXPECT_EQ(before, hooks.calls);
  VRXfreemodel(m);
  VRXfreeenv(env);
  EXPECT_EQ(0, hooks.live);
}
