// Side files: starts, hints, priorities, solutions, bases and summaries,
// written from a model and read into a fresh copy.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "model/result.h"
#include "vornix_c.h"

namespace {

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// max x + 2 y + z + w over x, y integer, z continuous, w binary;
// c0: x + y + z <= 4, c1: y - w >= -1, c2: x + w <= 3.
class SideFiles : public ::testing::Test {
 protected:
  VRXenv* env = nullptr;
  VRXmodel* m = nullptr;
  std::string dir;
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
    char buf[128];
    std::snprintf(buf, sizeof buf, "/tmp/vrx_side_%d", static_cast<int>(getpid()));
    dir = buf;
    ASSERT_EQ(0, std::system(("mkdir -p " + dir).c_str()));
    m = load(true);
    ASSERT_NE(nullptr, m);
    captureLogOf(VRXgetenv(m));
  }
  void TearDown() override {
    VRXfreemodel(m);
    VRXfreeenv(env);
    std::system(("rm -rf " + dir).c_str());
  }
  VRXmodel* load(bool names) {
    double obj[] = {1, 2, 1, 1};
    double lb[] = {0, 0, 0, 0};
    double ub[] = {10, 10, 1e100, 1};
    char vtype[] = {'I', 'I', 'C', 'B'};
    int beg[] = {0, 2, 4, 5};
    int len[] = {2, 2, 1, 2};
    int ind[] = {0, 2, 0, 1, 0, 1, 2};
    double val[] = {1, 1, 1, 1, 1, -1, 1};
    char sense[] = {'<', '>', '<'};
    double rhs[] = {4, -1, 3};
    const char* vn[] = {"x", "y", "z", "w"};
    const char* cn[] = {"c0", "c1", "c2"};
    VRXmodel* model = nullptr;
    int rc = VRXloadmodel(env, &model, names ? "side" : "", 4, 3, -1, 0.0, obj, sense, rhs, beg, len, ind,
                          val, lb, ub, vtype, names ? const_cast<char**>(vn) : nullptr,
                          names ? const_cast<char**>(cn) : nullptr);
    return rc ? nullptr : model;
  }
  std::string path(const char* name) const { return dir + "/" + name; }
  std::string put(const char* name, const std::string& text) const {
    std::string p = path(name);
    std::ofstream(p) << text;
    return p;
  }
  bool logged(const std::string& s) const { return capturedLog().find(s) != std::string::npos; }
  // Publishes a result as a solver would.
  void publish(VRXmodel* model, const double* x, const int* vb, const int* cb, double objVal) {
    VRXenv* menv = VRXgetenv(model);
    VRXresult* r = vrx::resultCreate(menv, 4, 3, 0);
    ASSERT_NE(nullptr, r);
    if (x) {
      r->x = vrx::envAllocArray<double>(menv, 4);
      for (int j = 0; j < 4; ++j) r->x[j] = x[j];
      r->solCount = 1;
      r->objVal = objVal;
    }
    if (vb) {
      r->vBasis = vrx::envAllocArray<int>(menv, 4);
      r->cBasis = vrx::envAllocArray<int>(menv, 3);
      for (int j = 0; j < 4; ++j) r->vBasis[j] = vb[j];
      for (int i = 0; i < 3; ++i) r->cBasis[i] = cb[i];
    }
    r->iterCount = 12;
    r->objBound = objVal;
    r->nodeCount = 3;
    vrx::resultFree(menv, model->result);
    model->result = r;
    model->status = VRX_OPTIMAL;
  }
  std::vector<double> dbls(VRXmodel* model, const char* attr) {
    std::vector<double> v(4, -7);
    EXPECT_EQ(0, VRXgetdblattrarray(model, attr, 0, 4, v.data())) << attr;
    return v;
  }
  std::vector<int> ints(VRXmodel* model, const char* attr) {
    std::vector<int> v(4, -7);
    EXPECT_EQ(0, VRXgetintattrarray(model, attr, 0, 4, v.data())) << attr;
    return v;
  }
};

TEST_F(SideFiles, MipStartWrittenAndReadBackExactly) {
  // No start, no solution: nothing to write.
  EXPECT_EQ(VRX_ERROR_DATA_NOT_AVAILABLE, VRXwrite(m, path("none.mst").c_str()));
  EXPECT_STREQ("No MIP start available", VRXgetmerrormsg(m));
  EXPECT_NE(0, access(path("none.mst").c_str(), F_OK));

  const double start[] = {1.0 / 3.0, VRX_UNDEFINED, 1e-17, 2};
  ASSERT_EQ(0, VRXsetdblattrarray(m, "Start", 0, 4, start));
  for (const char* name : {"a.mst", "a.mst.gz"}) {
    SCOPED_TRACE(name);
    ASSERT_EQ(0, VRXwrite(m, path(name).c_str())) << VRXgetmerrormsg(m);
    VRXmodel* b = load(true);
    ASSERT_NE(nullptr, b);
    ASSERT_EQ(0, VRXread(b, path(name).c_str())) << VRXgetmerrormsg(b);
    ASSERT_EQ(0, VRXupdatemodel(b));
    std::vector<double> got = dbls(b, "Start");
    for (int j = 0; j < 4; ++j) EXPECT_EQ(start[j], got[j]) << j;
    VRXfreemodel(b);
  }
  std::string text = slurp(path("a.mst"));
  EXPECT_EQ(0u, text.find("# MIP start\nx 0.3333333333333333"));
  EXPECT_EQ(std::string::npos, text.find("\ny "));  // no value, no line

  // Comments, blank lines, an unknown name; every value not in the file is
  // "none" afterwards.
  std::string f = put("b.mst", "# a start\n\nx 4\nnobody 3\n  \nw 1\n");
  ASSERT_EQ(0, VRXread(m, f.c_str())) << VRXgetmerrormsg(m);
  EXPECT_TRUE(logged("Unknown variable 'nobody' in MIP start - ignored\n"));
  std::vector<double> got = dbls(m, "Start");
  EXPECT_EQ(4.0, got[0]);
  EXPECT_EQ(VRX_UNDEFINED, got[1]);
  EXPECT_EQ(VRX_UNDEFINED, got[2]);
  EXPECT_EQ(1.0, got[3]);
  // An empty file leaves every value unset.
  ASSERT_EQ(0, VRXread(m, put("empty.mst", "").c_str()));
  got = dbls(m, "Start");
  for (int j = 0; j < 4; ++j) EXPECT_EQ(VRX_UNDEFINED, got[j]);
  // A line without a value breaks the read.
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(m, put("bad.mst", "x\n").c_str()));
  EXPECT_STREQ("Problem reading MIP start", VRXgetmerrormsg(m));
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(m, path("missing.mst").c_str()));

  // With a solution the start is the solution on the integral columns.
  const double x[] = {1, 2, 0.5, 1};
  publish(m, x, nullptr, nullptr, 6.5);
  ASSERT_EQ(0, VRXwrite(m, path("sol.mst").c_str()));
  EXPECT_EQ("# MIP start\nx 1\ny 2\nw 1\n", slurp(path("sol.mst")));
}

TEST_F(SideFiles, DefaultNamesInStartsAndSolutions) {
  VRXmodel* u = load(false);
  ASSERT_NE(nullptr, u);
  captureLogOf(VRXgetenv(u));
  const double x[] = {1, 2, 0.25, 0};
  publish(u, x, nullptr, nullptr, 5.25);
  ASSERT_EQ(0, VRXwrite(u, path("u.mst").c_str()));
  EXPECT_TRUE(logged("Warning: default variable names used to write MIP start file\n"));
  EXPECT_EQ("# MIP start\nC0 1\nC1 2\nC3 0\n", slurp(path("u.mst")));
  ASSERT_EQ(0, VRXwrite(u, path("u.sol").c_str()));
  EXPECT_TRUE(logged("Warning: default variable names used to write solution file\n"));
  // An unnamed model has no model line.
  EXPECT_EQ("# Objective value = 5.25\nC0 1\nC1 2\nC2 0.25\nC3 0\n", slurp(path("u.sol")));
  // A solution file reads as a start, by the default names.
  VRXmodel* v = load(false);
  ASSERT_EQ(0, VRXread(v, path("u.sol").c_str())) << VRXgetmerrormsg(v);
  std::vector<double> got = dbls(v, "Start");
  for (int j = 0; j < 4; ++j) EXPECT_EQ(x[j], got[j]) << j;
  VRXfreemodel(v);
  VRXfreemodel(u);
}

TEST_F(SideFiles, SolutionFileNeedsASolution) {
  EXPECT_EQ(VRX_ERROR_DATA_NOT_AVAILABLE, VRXwrite(m, path("x.sol").c_str()));
  EXPECT_NE(0, access(path("x.sol").c_str(), F_OK));
  const double x[] = {3, 1, 0, 1};
  publish(m, x, nullptr, nullptr, 6);
  ASSERT_EQ(0, VRXwrite(m, path("x.sol.bz2").c_str()));
  ASSERT_EQ(0, VRXwrite(m, path("x.sol").c_str()));
  EXPECT_EQ("# Solution for model side\n# Objective value = 6\nx 3\ny 1\nz 0\nw 1\n", slurp(path("x.sol")));
  VRXmodel* b = load(true);
  ASSERT_EQ(0, VRXread(b, path("x.sol.bz2").c_str())) << VRXgetmerrormsg(b);
  std::vector<double> got = dbls(b, "Start");
  for (int j = 0; j < 4; ++j) EXPECT_EQ(x[j], got[j]);
  VRXfreemodel(b);
  EXPECT_EQ(VRX_ERROR_FILE_WRITE, VRXwrite(m, "/nonexistent/dir/x.sol"));
  EXPECT_STREQ("Unable to write to file '/nonexistent/dir/x.sol'\n", VRXgetmerrormsg(m));
}

TEST_F(SideFiles, HintsAndPrioritiesRoundTrip) {
  const double hv[] = {2.5, VRX_UNDEFINED, -1e-9, 1};
  const int hp[] = {3, 0, -2, 7};
  ASSERT_EQ(0, VRXsetdblattrarray(m, "VarHintVal", 0, 4, hv));
  ASSERT_EQ(0, VRXsetintattrarray(m, "VarHintPri", 0, 4, hp));
  const int bp[] = {5, -1, 0, 100};
  ASSERT_EQ(0, VRXsetintattrarray(m, "BranchPriority", 0, 4, bp));
  ASSERT_EQ(0, VRXupdatemodel(m));
  ASSERT_EQ(0, VRXwrite(m, path("h.hnt").c_str()));
  ASSERT_EQ(0, VRXwrite(m, path("p.ord.gz").c_str()));
  ASSERT_EQ(0, VRXwrite(m, path("p.ord").c_str()));
  EXPECT_EQ("# MIP variable hints\nx 2.5 3\nz -1e-09 -2\nw 1 7\n", slurp(path("h.hnt")));
  EXPECT_EQ("# MIP branch priorities\nx 5\ny -1\nz 0\nw 100\n", slurp(path("p.ord")));

  VRXmodel* b = load(true);
  captureLogOf(VRXgetenv(b));
  ASSERT_EQ(0, VRXread(b, path("h.hnt").c_str())) << VRXgetmerrormsg(b);
  ASSERT_EQ(0, VRXread(b, path("p.ord.gz").c_str())) << VRXgetmerrormsg(b);
  ASSERT_EQ(0, VRXupdatemodel(b));
  std::vector<double> v = dbls(b, "VarHintVal");
  std::vector<int> p = ints(b, "VarHintPri");
  for (int j = 0; j < 4; ++j) {
    EXPECT_EQ(hv[j], v[j]) << j;
    if (hv[j] != VRX_UNDEFINED) EXPECT_EQ(hp[j], p[j]) << j;
  }
  std::vector<int> q = ints(b, "BranchPriority");
  for (int j = 0; j < 4; ++j) EXPECT_EQ(bp[j], q[j]) << j;

  // A priority of 2.5 is refused and the old value stays; unknown names are skipped.
  ASSERT_EQ(0, VRXread(b, put("q.ord", "# p\nx 2.5\nghost 4\ny 9\n").c_str()));
  ASSERT_EQ(0, VRXupdatemodel(b));
  EXPECT_TRUE(logged("Branch priority must be integral - ignoring value '2.5'\n"));
  EXPECT_TRUE(logged("Unknown variable 'ghost' in priority file - ignored\n"));
  q = ints(b, "BranchPriority");
  EXPECT_EQ(5, q[0]);
  EXPECT_EQ(9, q[1]);
  ASSERT_EQ(0, VRXread(b, put("g.hnt", "ghost 1 1\n").c_str()));
  EXPECT_TRUE(logged("Unknown variable 'ghost' in MIP hint - ignored\n"));
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(b, put("bad.ord", "x one\n").c_str()));
  EXPECT_STREQ("Problem reading priority file", VRXgetmerrormsg(b));
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(b, put("bad.hnt", "x\n").c_str()));
  EXPECT_STREQ("Problem reading MIP hints", VRXgetmerrormsg(b));
  VRXfreemodel(b);

  // These two writers report an unopenable file with 10003.
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXwrite(m, "/nonexistent/dir/p.ord"));
  EXPECT_STREQ("Unable to open file '/nonexistent/dir/p.ord' for output", VRXgetmerrormsg(m));
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXwrite(m, "/nonexistent/dir/p.hnt"));
}

TEST_F(SideFiles, BasisWrittenFromAResultAndReadIntoAWarmStart) {
  // Basic x and z take the places of the nonbasic rows c1 and c2; y is at
  // its upper bound; w at its lower bound is not written.
  const double x[] = {1, 10, 2, 0};
  const int vb[] = {0, -2, 0, -1};
  const int cb[] = {0, -1, -2};
  publish(m, x, vb, cb, 25);
  ASSERT_EQ(0, VRXwrite(m, path("a.bas").c_str())) << VRXgetmerrormsg(m);
  EXPECT_EQ("NAME side 4 Variables 3 Constraints\n XL x         c1      \n XL z         c2      \n UL y       \nENDATA\n",
            slurp(path("a.bas")));
  ASSERT_EQ(0, VRXwrite(m, path("a.bas.gz").c_str()));

  VRXmodel* b = load(true);
  ASSERT_EQ(0, VRXread(b, path("a.bas.gz").c_str())) << VRXgetmerrormsg(b);
  const VRXwarmstart* ws = vrx::warmOf(b);
  ASSERT_NE(nullptr, ws);
  ASSERT_NE(nullptr, ws->basis);
  const int want[] = {0, -2, 0, -1, 0, -1, -1};  // the rows' upper state reads back as -1
  for (int k = 0; k < 7; ++k) EXPECT_EQ(want[k], ws->basis[k]) << k;
  VRXfreemodel(b);

  // More basic variables than nonbasic rows and no Q: the pairs, then the end.
  const int vb2[] = {0, 0, 0, -2};
  const int cb2[] = {0, -1, 0};
  publish(m, x, vb2, cb2, 25);
  ASSERT_EQ(0, VRXwrite(m, path("b.bas").c_str()));
  EXPECT_EQ("NAME side 4 Variables 3 Constraints\n XL x         c1      \n UL w       \nENDATA\n",
            slurp(path("b.bas")));
  // With Q the rest of the basic variables are written as BS.
  int qi[] = {2};
  double qv[] = {1};
  ASSERT_EQ(0, VRXaddqpterms(m, 1, qi, qi, qv));
  ASSERT_EQ(0, VRXupdatemodel(m));
  publish(m, x, vb2, cb2, 25);
  ASSERT_EQ(0, VRXwrite(m, path("c.bas").c_str()));
  EXPECT_EQ("NAME side 4 Variables 3 Constraints\n XL x         c1      \n BS y       \n BS z       \n UL w       \nENDATA\n",
            slurp(path("c.bas")));
  b = load(true);
  ASSERT_EQ(0, VRXread(b, path("c.bas").c_str())) << VRXgetmerrormsg(b);
  ws = vrx::warmOf(b);
  const int want2[] = {0, 0, 0, -2, 0, -1, 0};
  for (int k = 0; k < 7; ++k) EXPECT_EQ(want2[k], ws->basis[k]) << k;

  // Readers' failures: unknown names, a missing file; lines not starting with
  // a blank are skipped, and reading stops at a line starting with E.
  captureLogOf(VRXgetenv(b));
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(b, put("u.bas", "NAME\n XL ghost c1\nENDATA\n").c_str()));
  EXPECT_TRUE(logged("Error: variable name ghost doesn't exist\n"));
  EXPECT_STREQ("MPS reader: variable name ghost doesn't exist\n", VRXgetmerrormsg(b));
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(b, put("r.bas", " XL x nowhere\n").c_str()));
  EXPECT_STREQ("MPS reader: row name nowhere doesn't exist\n", VRXgetmerrormsg(b));
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(b, path("gone.bas").c_str()));
  EXPECT_EQ("File " + path("gone.bas") + " not found\n", std::string(VRXgetmerrormsg(b)));
  ASSERT_EQ(0, VRXread(b, put("s.bas", "* comment\n LL y\n XU x c0\nEND\n UL ghost\n").c_str()));
  ws = vrx::warmOf(b);
  const int want3[] = {0, -1, -1, -1, -1, 0, 0};
  for (int k = 0; k < 7; ++k) EXPECT_EQ(want3[k], ws->basis[k]) << k;
  VRXfreemodel(b);
}

TEST_F(SideFiles, BasisNeedsRowsAndABasis) {
  EXPECT_EQ(VRX_ERROR_FILE_WRITE, VRXwrite(m, path("n.bas").c_str()));
  EXPECT_STREQ("Unable to retrieve basis for current model", VRXgetmerrormsg(m));
  EXPECT_NE(0, access(path("n.bas").c_str(), F_OK));
  double obj[] = {1};
  VRXmodel* empty = nullptr;
  ASSERT_EQ(0, VRXnewmodel(env, &empty, "e", 1, obj, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(VRX_ERROR_FILE_WRITE, VRXwrite(empty, path("e.bas").c_str()));
  EXPECT_STREQ("Unable to retrieve basis for current model", VRXgetmerrormsg(empty));
  VRXfreemodel(empty);
  // Default names for an unnamed model.
  VRXmodel* u = load(false);
  captureLogOf(VRXgetenv(u));
  const int vb[] = {0, -1, -1, -1};
  const int cb[] = {-1, 0, 0};
  publish(u, nullptr, vb, cb, 0);
  ASSERT_EQ(0, VRXwrite(u, path("u.bas").c_str()));
  EXPECT_TRUE(logged("Warning: default variable names used to write basis file\n"));
  EXPECT_TRUE(logged("Warning: default constraint names used to write basis file\n"));
  EXPECT_EQ("NAME  4 Variables 3 Constraints\n XL C0        R0      \nENDATA\n", slurp(path("u.bas")));
  VRXfreemodel(u);
}

TEST_F(SideFiles, SummaryAndDispatch) {
  const double x[] = {1, 2, 0, 1};
  publish(m, x, nullptr, nullptr, 6);
  ASSERT_EQ(0, VRXwrite(m, path("r.sum").c_str())) << VRXgetmerrormsg(m);
  std::string text = slurp(path("r.sum"));
  EXPECT_EQ(0u, text.find("STATUS=2\nSOLCOUNT=1\nOBJVAL=6\nOBJBOUND=6\nRUNTIME="));
  EXPECT_NE(std::string::npos, text.find("\nITERCOUNT=12\nNODECOUNT=3\n"));
  // Model files cannot be read into a model; unknown kinds are refused.
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(m, put("x.lp", "min\nend\n").c_str()));
  EXPECT_EQ("Can't import file '" + path("x.lp") + "' into a model", std::string(VRXgetmerrormsg(m)));
  EXPECT_EQ(VRX_ERROR_FILE_READ, VRXread(m, put("x.txt", "").c_str()));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXread(m, nullptr));
}

TEST_F(SideFiles, BasisAfterASolveRestartsWithoutIterations) {
  VRXmodel* a = nullptr;
  const std::string afiro = std::string(VRX_SHARED_DATA) + "/netlib/afiro.mps.gz";
  ASSERT_EQ(0, VRXreadmodel(env, afiro.c_str(), &a));
  int rc = VRXoptimize(a);
  if (rc == VRX_ERROR_NOT_SUPPORTED) {
    VRXfreemodel(a);
    GTEST_SKIP() << "VRXoptimize does not solve LPs in this build";
  }
  ASSERT_EQ(0, rc) << VRXgetmerrormsg(a);
  ASSERT_EQ(0, VRXwrite(a, path("afiro.bas").c_str()));
  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, afiro.c_str(), &b));
  ASSERT_EQ(0, VRXread(b, path("afiro.bas").c_str())) << VRXgetmerrormsg(b);
  ASSERT_EQ(0, VRXoptimize(b));
  double iters = -1, objA = 0, objB = 1;
  EXPECT_EQ(0, VRXgetdblattr(b, "IterCount", &iters));
  EXPECT_EQ(0.0, iters);
  VRXgetdblattr(a, "ObjVal", &objA);
  VRXgetdblattr(b, "ObjVal", &objB);
  EXPECT_NEAR(objA, objB, 1e-9 * (1 + std::fabs(objA)));
  VRXfreemodel(b);
  VRXfreemodel(a);
}

}  // namespace
