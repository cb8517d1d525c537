// Reading and writing models by file name.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "../support/capture.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "vornix_c.h"

namespace {

class Files : public ::testing::Test {
 protected:
  VRXenv* env = nullptr;
  std::string dir;
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    captureLogOf(env);
    char buf[128];
    std::snprintf(buf, sizeof buf, "/tmp/vrx_files_%d", static_cast<int>(getpid()));
    dir = buf;
    ASSERT_EQ(0, std::system(("mkdir -p " + dir).c_str()));
  }
  void TearDown() override {
    VRXfreeenv(env);
    std::system(("rm -rf " + dir).c_str());
  }
  static std::string data(const char* set, const char* name) {
    return std::string(VRX_SHARED_DATA) + "/" + set + "/" + name + ".mps.gz";
  }
};

// The committed stores hold the same model.
void expectSameStore(const VRXmodeldata* a, const VRXmodeldata* b) {
  ASSERT_EQ(a->numVars, b->numVars);
  ASSERT_EQ(a->numConstrs, b->numConstrs);
  ASSERT_EQ(a->numNZs, b->numNZs);
  EXPECT_EQ(a->modelSense, b->modelSense);
  EXPECT_EQ(a->objCon, b->objCon);
  EXPECT_EQ(a->numIntVars, b->numIntVars);
  EXPECT_EQ(a->numBinVars, b->numBinVars);
  EXPECT_EQ(a->numSOS, b->numSOS);
  EXPECT_EQ(a->numQNZs, b->numQNZs);
  for (int j = 0; j < a->numVars; ++j) {
    ASSERT_EQ(a->obj[j], b->obj[j]) << j;
    ASSERT_EQ(a->lb[j], b->lb[j]) << j;
    ASSERT_EQ(a->ub[j], b->ub[j]) << j;
    ASSERT_EQ(a->vtype[j], b->vtype[j]) << j;
    ASSERT_EQ(a->colLen[j], b->colLen[j]) << j;
    for (int k = 0; k < a->colLen[j]; ++k) {
      ASSERT_EQ(a->rowInd[a->colBeg[j] + k], b->rowInd[b->colBeg[j] + k]);
      ASSERT_EQ(a->val[a->colBeg[j] + k], b->val[b->colBeg[j] + k]);
    }
  }
  for (int i = 0; i < a->numConstrs; ++i) {
    ASSERT_EQ(a->rhs[i], b->rhs[i]) << i;
    ASSERT_EQ(a->sense[i], b->sense[i]) << i;
  }
}

}  // namespace

TEST(FileKinds, SuffixesAndCompression) {
  EXPECT_EQ(1, VRXfiletype("model.mps"));
  EXPECT_EQ(1, VRXfiletype("dir.x/MODEL.MPS"));
  EXPECT_EQ(3, VRXfiletype("model.Lp"));
  EXPECT_EQ(3, VRXfiletype("model.lp.bz2"));
  EXPECT_EQ(10, VRXfiletype("model.qps.7z"));
  EXPECT_EQ(9, VRXfiletype("p.prm.gz"));
  EXPECT_EQ(14, VRXfiletype("h.hnt.zip"));
  EXPECT_EQ(0, VRXfiletype("afiro"));
  EXPECT_EQ(-1, VRXfiletype("notes.txt"));
  EXPECT_EQ(-1, VRXfiletype(nullptr));
  EXPECT_EQ(1, VRXismodelfile("a.rew.gz"));
  EXPECT_EQ(1, VRXismodelfile("a.opb"));
  EXPECT_EQ(0, VRXismodelfile("a.sol"));
  EXPECT_EQ(1, VRXisrecordfile("run.vrxr"));
  EXPECT_EQ(1, VRXisrecordfile("run.VRXR.gz"));
  EXPECT_EQ(0, VRXisrecordfile("run.mps"));
}

TEST_F(Files, ReadBySuffixSearchAndLogLines) {
  std::string local = dir + "/afiro.mps.gz";
  ASSERT_EQ(0, std::system(("cp " + data("netlib", "afiro") + " " + local).c_str()));
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, (dir + "/afiro").c_str(), &m)) << VRXgeterrormsg(env);
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(27, m->data->numConstrs);
  EXPECT_EQ(32, m->data->numVars);
  EXPECT_EQ(83, m->data->numNZs);
  EXPECT_STREQ("AFIRO", m->data->modelName);
  const std::string& log = capturedLog();
  EXPECT_NE(std::string::npos, log.find("Read MPS format model from file " + local + "\n"));
  EXPECT_NE(std::string::npos, log.find("Reading time = "));
  EXPECT_NE(std::string::npos, log.find("AFIRO: 27 rows, 32 columns, 83 nonzeros\n"));
  VRXfreemodel(m);
}

TEST_F(Files, ReadFailures) {
  VRXmodel* m = reinterpret_cast<VRXmodel*>(0x1);
  EXPECT_EQ(10012, VRXreadmodel(env, "/nonexistent/model.mps", &m));
  EXPECT_EQ(nullptr, m);
  EXPECT_STREQ("Unable to open file '/nonexistent/model.mps' for input", VRXgeterrormsg(env));
  EXPECT_EQ(10012, VRXreadmodel(env, (dir + "/nothing").c_str(), &m));
  EXPECT_EQ(10002, VRXreadmodel(env, nullptr, &m));
  EXPECT_STREQ("No 'filename' argument supplied", VRXgeterrormsg(env));
  EXPECT_EQ(10002, VRXreadmodel(env, "x.mps", nullptr));
  EXPECT_STREQ("No 'modelP' argument supplied", VRXgeterrormsg(env));
  std::string txt = dir + "/notes.txt";
  FILE* f = std::fopen(txt.c_str(), "w");
  std::fputs("hello\n", f);
  std::fclose(f);
  EXPECT_EQ(10012, VRXreadmodel(env, txt.c_str(), &m));
  EXPECT_EQ("Unknown file type for file '" + txt + "'", std::string(VRXgeterrormsg(env)));
  // A broken MPS file yields no model and the reader's text.
  std::string bad = dir + "/bad.mps";
  f = std::fopen(bad.c_str(), "w");
  std::fputs("NAME x\nROWS\n N obj\nCOLUMNS\n x obj oops\nENDATA\n", f);
  std::fclose(f);
  EXPECT_EQ(10012, VRXreadmodel(env, bad.c_str(), &m));
  EXPECT_EQ(nullptr, m);
  EXPECT_STREQ("MPS read error at line 5:\n x obj oops\n", VRXgeterrormsg(env));
}

TEST_F(Files, WriteAndReadBackGivesTheSameStore) {
  const char* models[][2] = {{"netlib", "boeing1"},  // ranges, bounds
                             {"netlib", "afiro"},
                             {"miplib3", "bell5"},   // integers
                             {"miplib3", "p0033"}};
  for (auto& mdl : models) {
    SCOPED_TRACE(mdl[1]);
    VRXmodel* a = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, data(mdl[0], mdl[1]).c_str(), &a)) << VRXgeterrormsg(env);
    for (const char* suffix : {".mps", ".mps.gz", ".mps.bz2"}) {
      SCOPED_TRACE(suffix);
      std::string out = dir + "/" + mdl[1] + suffix;
      ASSERT_EQ(0, VRXwrite(a, out.c_str())) << VRXgeterrormsg(env);
      VRXmodel* b = nullptr;
      ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b)) << VRXgeterrormsg(env);
      expectSameStore(a->data, b->data);
      VRXfreemodel(b);
    }
    VRXfreemodel(a);
  }
}

TEST_F(Files, WriteHandlesSensesMaxAndSpecialColumns) {
  // A maximisation with an objective constant, a free, a fixed, a semi-continuous
  // and a binary column, and an empty column.
  double obj[] = {1, -2, 0.1, 3, 0};
  double lb[] = {-1e100, 2, 0, 0, -5};
  double ub[] = {1e100, 2, 8, 1, 1e100};
  char vtype[] = {'C', 'C', 'S', 'B', 'I'};
  int beg[] = {0, 2, 3, 4, 5};
  int len[] = {2, 1, 1, 1, 0};
  int ind[] = {0, 1, 0, 1, 1};
  double val[] = {1, 2, 3, 4, 5};
  char sense[] = {'<', '>'};
  double rhs[] = {4, -1};
  VRXmodel* a = nullptr;
  ASSERT_EQ(0, VRXloadmodel(env, &a, "special", 5, 2, -1, 7.5, obj, sense, rhs, beg, len, ind,
                            val, lb, ub, vtype, nullptr, nullptr));
  std::string out = dir + "/special.mps";
  captureLogOf(VRXgetenv(a));  // a model logs through its own environment copy
  ASSERT_EQ(0, VRXwrite(a, out.c_str()));
  EXPECT_NE(std::string::npos, capturedLog().find("Warning: default variable names used to write mps file\n"));
  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b)) << VRXgeterrormsg(env);
  // The file is a minimisation of the negated objective: the same stored form.
  EXPECT_EQ(1, b->data->modelSense);
  EXPECT_EQ(a->data->objCon, b->data->objCon);
  for (int j = 0; j < 5; ++j) {
    EXPECT_EQ(a->data->obj[j], b->data->obj[j]) << j;
    EXPECT_EQ(a->data->lb[j], b->data->lb[j]) << j;
    EXPECT_EQ(a->data->ub[j], b->data->ub[j]) << j;
    EXPECT_EQ(a->data->vtype[j], b->data->vtype[j]) << j;
  }
  EXPECT_EQ(0, VRXwrite(a, (dir + "/x.lp").c_str())) << VRXgetmerrormsg(a);
  EXPECT_EQ(10013, VRXwrite(a, (dir + "/x.unknown").c_str()));
  EXPECT_EQ(10013, VRXwrite(a, "/nonexistent/dir/x.mps"));
  EXPECT_STREQ("Unable to open file '/nonexistent/dir/x.mps' for output", VRXgetmerrormsg(a));
  EXPECT_EQ(10002, VRXwrite(a, nullptr));
  VRXfreemodel(a);
  VRXfreemodel(b);
}

namespace {

std::string fileText(const std::string& path) {
  std::string text;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
  }
  return text;
}

std::string nameOf(VRXmodel* m, const char* attr, int k) {
  char* name = nullptr;
  EXPECT_EQ(0, VRXgetstrattrelement(m, attr, k, &name)) << attr << " " << k;
  return name ? name : "";
}

}  // namespace

TEST_F(Files, RewWritesDefaultNamesForEveryKindOfRow) {
  const char* vn[] = {"alpha", "beta", "gamma", "flag"};
  double lb[] = {0, 0, -3, 0};
  double ub[] = {10, 1e100, 3, 1};
  char vt[] = {'C', 'C', 'I', 'B'};
  VRXmodel* a = nullptr;
  ASSERT_EQ(0, VRXnewmodel(env, &a, "secret", 4, nullptr, lb, ub, vt, const_cast<char**>(vn)));
  int i01[] = {0, 1};
  double v01[] = {1, 2};
  ASSERT_EQ(0, VRXaddconstr(a, 2, i01, v01, '<', 8, "capacity"));
  ASSERT_EQ(0, VRXaddconstr(a, 2, i01, v01, '>', 1, "demand"));
  int qi[] = {0}, li[] = {2};
  double qv[] = {1}, lv[] = {1};
  ASSERT_EQ(0, VRXaddqconstr(a, 1, li, lv, 1, qi, qi, qv, '<', 9, "ball"));
  ASSERT_EQ(0, VRXaddgenconstrIndicator(a, "onlyif", 3, 1, 2, i01, v01, '<', 2));
  ASSERT_EQ(0, VRXaddgenconstrAbs(a, "absval", 1, 2));
  ASSERT_EQ(0, VRXupdatemodel(a));

  const std::string rew = dir + "/m.rew";
  captureLogOf(VRXgetenv(a));
  ASSERT_EQ(0, VRXwrite(a, rew.c_str())) << VRXgetmerrormsg(a);
  // The rewrite is asked for: no warning about default names.
  EXPECT_EQ(std::string::npos, capturedLog().find("default")) << capturedLog();
  const std::string text = fileText(rew);
  for (const char* secret : {"alpha", "beta", "gamma", "flag", "capacity", "demand", "ball", "onlyif", "absval"})
    EXPECT_EQ(std::string::npos, text.find(secret)) << secret << "\n" << text;
  EXPECT_NE(std::string::npos, text.find(" L  R0"));
  EXPECT_NE(std::string::npos, text.find("QCMATRIX   QC0"));
  EXPECT_NE(std::string::npos, text.find(" IF GC0"));
  EXPECT_NE(std::string::npos, text.find(" ABS GC1"));

  // The same model under the default names; compressed by suffix like any file.
  for (const char* suffix : {".rew", ".rew.gz"}) {
    SCOPED_TRACE(suffix);
    const std::string path = dir + "/again" + suffix;
    ASSERT_EQ(0, VRXwrite(a, path.c_str()));
    VRXmodel* b = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &b)) << VRXgeterrormsg(env);
    expectSameStore(a->data, b->data);
    EXPECT_EQ("C2", nameOf(b, "VarName", 2));
    EXPECT_EQ("R1", nameOf(b, "ConstrName", 1));
    EXPECT_EQ("QC0", nameOf(b, "QCName", 0));
    int gens = 0;
    EXPECT_EQ(0, VRXgetintattr(b, "NumGenConstrs", &gens));
    EXPECT_EQ(2, gens);
    VRXfreemodel(b);
  }
  VRXfreemodel(a);
}

TEST_F(Files, MpsWriterAvoidsNamesThatWouldNotReadBack) {
  struct Case {
    const char* what;
    const char* vars[2];
    const char* rows[2];
    const char* qc;       // a quadratic constraint's name, or null for none
    const char* warning;  // the log line the writer gives
  };
  const Case cases[] = {
      {"a row named like the objective", {"x", "y"}, {"OBJ", "c"}, nullptr,
       "Warning: default constraint names used to write mps file\n"},
      {"repeated variable names", {"x", "x"}, {"a", "b"}, nullptr,
       "Warning: default variable names used to write mps file\n"},
      {"a row named like the marker literal", {"x", "y"}, {"'MARKER'", "b"}, nullptr,
       "Warning: default constraint names used to write mps file\n"},
      {"a quadratic row named like a linear one", {"x", "y"}, {"a", "b"}, "b",
       "Warning: default Q constraint names used to write mps file\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    VRXmodel* a = nullptr;
    ASSERT_EQ(0, VRXnewmodel(env, &a, "names", 2, nullptr, nullptr, nullptr, nullptr,
                             const_cast<char**>(c.vars)));
    int ind[] = {0, 1};
    double val[] = {1, 1};
    ASSERT_EQ(0, VRXaddconstr(a, 2, ind, val, '<', 4, c.rows[0]));
    ASSERT_EQ(0, VRXaddconstr(a, 1, ind + 1, val, '>', 1, c.rows[1]));
    if (c.qc) ASSERT_EQ(0, VRXaddqconstr(a, 0, nullptr, nullptr, 1, ind, ind, val, '<', 2, c.qc));
    ASSERT_EQ(0, VRXupdatemodel(a));
    captureLogOf(VRXgetenv(a));
    const std::string path = dir + "/names.mps";
    ASSERT_EQ(0, VRXwrite(a, path.c_str()));
    EXPECT_NE(std::string::npos, capturedLog().find(c.warning)) << capturedLog();
    VRXmodel* b = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &b)) << VRXgeterrormsg(env);
    expectSameStore(a->data, b->data);
    EXPECT_EQ(a->data->numQConstrs, b->data->numQConstrs);
    VRXfreemodel(b);
    VRXfreemodel(a);
  }
}
