// MPS sections beyond the linear model: lazy rows, quadratic and indicator
// constraints, general constraints, piecewise-linear and several objectives.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "vornix_c.h"

namespace {

std::string tempFile(const char* tag) {
  char buf[128];
  std::snprintf(buf, sizeof buf, "/tmp/vrx_mpsx_%d_%s", static_cast<int>(getpid()), tag);
  return buf;
}

class MpsExtras : public ::testing::Test {
 protected:
  VRXenv* env = nullptr;
  std::vector<VRXmodel*> models;
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    captureLogOf(env);
  }
  void TearDown() override {
    for (VRXmodel* m : models) VRXfreemodel(m);
    VRXfreeenv(env);
  }
  VRXmodel* read(const std::string& path) {
    VRXmodel* m = nullptr;
    int rc = VRXreadmodel(env, path.c_str(), &m);
    EXPECT_EQ(0, rc) << VRXgeterrormsg(env);
    if (m) models.push_back(m);
    return m;
  }
};

}  // namespace

TEST_F(MpsExtras, EverySectionSurvivesAWriteAndRead) {
  // Variables x0..x5: x4 binary, x5 integer.
  double lb[] = {0, 0, -5, 0, 0, 0};
  double ub[] = {10, 10, 5, 10, 1, 8};
  char vt[] = {'C', 'C', 'C', 'C', 'B', 'I'};
  const char* vn[] = {"x0", "x1", "x2", "x3", "b4", "i5"};
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXnewmodel(env, &m, "extras", 6, nullptr, lb, ub, vt, const_cast<char**>(vn)));
  models.push_back(m);
  int i01[] = {0, 1};
  double v01[] = {1, 2};
  ASSERT_EQ(0, VRXaddconstr(m, 2, i01, v01, '<', 8, "plain"));
  ASSERT_EQ(0, VRXaddconstr(m, 2, i01, v01, '>', 1, "lazyrow"));
  int qr[] = {0, 1};
  int qc[] = {0, 1};
  double qv[] = {1, 1};
  int l3[] = {3};
  double lv[] = {1};
  ASSERT_EQ(0, VRXaddqconstr(m, 1, l3, lv, 2, qr, qc, qv, '<', 9, "ball"));
  int ind[] = {0, 3};
  double ival[] = {1, -1};
  ASSERT_EQ(0, VRXaddgenconstrIndicator(m, "ifb", 4, 1, 2, ind, ival, '<', 2));
  int ops[] = {0, 1};
  ASSERT_EQ(0, VRXaddgenconstrMax(m, "mx", 3, 2, ops, 1.5));
  ASSERT_EQ(0, VRXaddgenconstrMin(m, "mn", 3, 2, ops, 1e100));
  ASSERT_EQ(0, VRXaddgenconstrAbs(m, "ab", 1, 2));
  int bins[] = {4};
  ASSERT_EQ(0, VRXaddgenconstrAnd(m, "an", 4, 1, bins));
  ASSERT_EQ(0, VRXaddgenconstrOr(m, "or", 4, 1, bins));
  double px[] = {0, 1, 3};
  double py[] = {0, 2, 3};
  ASSERT_EQ(0, VRXsetpwlobj(m, 5, 3, px, py));
  ASSERT_EQ(0, VRXupdatemodel(m));
  ASSERT_EQ(0, VRXsetintattrelement(m, "Lazy", 1, 2));
  int oi[] = {0, 5};
  double ov[] = {3, -1};
  ASSERT_EQ(0, VRXsetobjectiven(m, 0, 2, 1.0, 0.5, 0.01, "first", 0.0, 2, oi, ov));
  ASSERT_EQ(0, VRXsetobjectiven(m, 1, 1, 0.25, 0.0, 0.0, "second", 0.0, 1, oi + 1, ov + 1));
  ASSERT_EQ(0, VRXupdatemodel(m));

  std::string path = tempFile("all.mps");
  ASSERT_EQ(0, VRXwrite(m, path.c_str()));
  VRXmodel* b = read(path);
  std::remove(path.c_str());
  ASSERT_NE(nullptr, b);

  int count = 0;
  VRXgetintattr(b, "NumConstrs", &count);
  EXPECT_EQ(2, count);
  VRXgetintattr(b, "NumQConstrs", &count);
  EXPECT_EQ(1, count);
  VRXgetintattr(b, "NumGenConstrs", &count);
  EXPECT_EQ(6, count);
  int lazy[2] = {-1, -1};
  ASSERT_EQ(0, VRXgetintattrarray(b, "Lazy", 0, 2, lazy));
  EXPECT_EQ(0, lazy[0]);
  EXPECT_EQ(2, lazy[1]);
  char* name = nullptr;
  VRXgetstrattrelement(b, "QCName", 0, &name);
  EXPECT_STREQ("ball", name);
  int nl = 0, nqz = 0, li[4], qi[4], qj[4];
  double lvv[4], qvv[4];
  ASSERT_EQ(0, VRXgetqconstr(b, 0, &nl, li, lvv, &nqz, qi, qj, qvv));
  EXPECT_EQ(1, nl);
  EXPECT_EQ(3, li[0]);
  EXPECT_EQ(2, nqz);
  double rhs = 0;
  VRXgetdblattrelement(b, "QCRHS", 0, &rhs);
  EXPECT_EQ(9, rhs);

  // General constraints come back in the file's order: the indicator first.
  int gtype[6];
  ASSERT_EQ(0, VRXgetintattrarray(b, "GenConstrType", 0, 6, gtype));
  int seen[6] = {0};
  for (int g = 0; g < 6; ++g) seen[gtype[g]]++;
  for (int t = 0; t < 6; ++t) EXPECT_EQ(1, seen[t]) << t;
  for (int g = 0; g < 6; ++g) {
    int res = -1, nv = 0, vars[4];
    double c = 0;
    if (gtype[g] == VRX_GENCONSTR_MAX) {
      ASSERT_EQ(0, VRXgetgenconstrMax(b, g, &res, &nv, vars, &c));
      EXPECT_EQ(3, res);
      EXPECT_EQ(2, nv);
      EXPECT_EQ(1.5, c);
    } else if (gtype[g] == VRX_GENCONSTR_MIN) {
      ASSERT_EQ(0, VRXgetgenconstrMin(b, g, &res, &nv, vars, &c));
      EXPECT_EQ(1e100, c);
    } else if (gtype[g] == VRX_GENCONSTR_ABS) {
      int arg = -1;
      ASSERT_EQ(0, VRXgetgenconstrAbs(b, g, &res, &arg));
      EXPECT_EQ(1, res);
      EXPECT_EQ(2, arg);
    } else if (gtype[g] == VRX_GENCONSTR_INDICATOR) {
      int bv = -1, bval = -1, n = 0, iind[4];
      double iv[4], ir = 0;
      char s = 0;
      ASSERT_EQ(0, VRXgetgenconstrIndicator(b, g, &bv, &bval, &n, iind, iv, &s, &ir));
      EXPECT_EQ(4, bv);
      EXPECT_EQ(1, bval);
      EXPECT_EQ(2, n);
      EXPECT_EQ('<', s);
      EXPECT_EQ(2, ir);
      // A getter of the wrong type is refused with its text.
      EXPECT_EQ(10003, VRXgetgenconstrMax(b, g, &res, &nv, vars, &c));
      EXPECT_STREQ("General constraint has type 5, but called get method for type 0", VRXgetmerrormsg(b));
    }
  }
  int res = 0, nv = 0;
  EXPECT_EQ(10006, VRXgetgenconstrAnd(b, 6, &res, &nv, nullptr));
  EXPECT_STREQ("Invalid index range for general constraint query: 6", VRXgetmerrormsg(b));

  int np = 0;
  double bx[4], by[4];
  ASSERT_EQ(0, VRXgetpwlobj(b, 5, &np, bx, by));
  ASSERT_EQ(3, np);
  EXPECT_EQ(3, bx[2]);
  EXPECT_EQ(2, by[1]);

  int numObj = 0;
  VRXgetintattr(b, "NumObj", &numObj);
  ASSERT_EQ(2, numObj);
  VRXenv* benv = VRXgetenv(b);
  VRXsetintparam(benv, "ObjNumber", 1);
  double w = 0, coef = 0;
  VRXgetdblattr(b, "ObjNWeight", &w);
  EXPECT_EQ(0.25, w);
  VRXgetdblattrelement(b, "ObjN", 5, &coef);
  EXPECT_EQ(-1, coef);
  VRXsetintparam(benv, "ObjNumber", 0);
  int prio = 0;
  VRXgetintattr(b, "ObjNPriority", &prio);
  EXPECT_EQ(2, prio);
  char* oname = nullptr;
  VRXgetstrattr(b, "ObjNName", &oname);
  EXPECT_STREQ("OBJ0", oname);
}

TEST_F(MpsExtras, MalformedExtraSections) {
  struct Case {
    const char* body;
    const char* logLine;
  };
  const char* head = "NAME t\nROWS\n N obj\n L r1\nCOLUMNS\n x obj 1 r1 1\n y r1 1\n";
  const Case cases[] = {
      {"INDICATORS\n WHEN r1 y 1\nENDATA\n", "Error at line 9, expected indicator keyword 'IF'\n"},
      {"INDICATORS\n IF r1 z 1\nENDATA\n", "Error at line 9, unknown indicator variable name:\n"},
      {"INDICATORS\n IF r1 y 2\nENDATA\n", "Error at line 9, indicator variable value incorrect:\n"},
      {"GENCONS\n ABS g\n    x\n    y\n    x\nENDATA\n",
       "Error at line 12, ABS constraint with multiple argument variables:\n"},
      {"GENCONS\n AND g\n    x\n    2\nENDATA\n",
       "Error at line 11, general constraint of type AND does not support constants:\n"},
      {"GENCONS\n MAX g\n    3\nENDATA\n",
       "Error at line 10, general constraint has to start with known resultant variable, not with a constant:\n"},
      {"GENCONS\n NOPE g\nENDATA\n",
       "Error at line 9, parsing general constraint type not implemented:\n"},
      {"GENCONS\n MAX g\n    x\nENDATA\n",
       "Error, read general MIN or MAX constraint with no operands and no finite constant\n"},
      {"PWLOBJ\n x 0 0\n y 0 0\n x 1 1\nENDATA\n",
       "Error: objective pieces are separated for a variable\n"},
      {"PWLOBJ\n x 0\nENDATA\n", "Error in the piecewise linear objective section at line 9\n"},
      {"QCMATRIX   nope\n x x 1\nENDATA\n", "Error: a quadratic constraint isn't defined in row section.\n"},
      {"QCMATRIX   r1\n x x 1\nQCMATRIX   r1\n y y 1\nENDATA\n",
       "Error, Q terms of a constraint appear in more than one section.\n"},
  };
  std::string path = tempFile("bad.mps");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.body);
    {
      std::ofstream f(path);
      f << head << c.body;
    }
    capturedLog().clear();
    VRXmodel* m = reinterpret_cast<VRXmodel*>(0x1);
    EXPECT_EQ(10012, VRXreadmodel(env, path.c_str(), &m));
    EXPECT_EQ(nullptr, m);
    EXPECT_NE(std::string::npos, capturedLog().find(c.logLine)) << capturedLog();
  }
  // A multi-objective row must carry all four numbers.
  {
    std::ofstream f(path);
    f << "NAME t\nROWS\n N obj\n N o1 1 2\n L r1\nCOLUMNS\n x r1 1\nENDATA\n";
  }
  VRXmodel* m = nullptr;
  EXPECT_EQ(10012, VRXreadmodel(env, path.c_str(), &m));
  EXPECT_STREQ("Missing priority, weight, absolute or relative tolerance in multi-objective line\n",
               VRXgeterrormsg(env));
  // Indicator warnings do not stop the read.
  {
    std::ofstream f(path);
    f << head << "INDICATORS\n IF nothere y 1\nENDATA\n";
  }
  capturedLog().clear();
  ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m));
  EXPECT_NE(std::string::npos, capturedLog().find(
      "Warning: indicator row nothere isn't defined in row section and will be skipped.\n"));
  VRXfreemodel(m);
  std::remove(path.c_str());
}
