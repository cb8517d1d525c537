// LP files: the reader's sections and spellings, its messages with their
// line numbers, the writer's forms, and round trips of the public models.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "io/numfmt.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/namecheck.h"
#include "model/result.h"
#include "vornix_c.h"
#include "../support/shared_data.h"

namespace {

std::string shared(const std::string& set, const std::string& name) {
  return std::string(VRX_SHARED_DATA) + "/" + set + "/" + name + ".mps.gz";
}

std::vector<std::string> modelsOf(const std::string& set) {
  std::vector<std::string> names;
  DIR* d = opendir((std::string(VRX_SHARED_DATA) + "/" + set).c_str());
  if (!d) return names;
  while (dirent* e = readdir(d)) {
    std::string f = e->d_name;
    const std::string suffix = ".mps.gz";
    if (f.size() > suffix.size() && f.compare(f.size() - suffix.size(), suffix.size(), suffix) == 0)
      names.push_back(f.substr(0, f.size() - suffix.size()));
  }
  closedir(d);
  std::sort(names.begin(), names.end());
  return names;
}

std::string slurp(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// What a value becomes after the writers' number form.
double viaText(double v) {
  char buf[vrx::kNumBuf];
  return std::strtod(vrx::formatNumber(v, buf), nullptr);
}

std::string varName(const VRXmodeldata* d, int j) {
  char buf[32];
  return vrx::modelVarName(d, j, buf, sizeof buf);
}
std::string rowName(const VRXmodeldata* d, int i) {
  char buf[32];
  return vrx::modelConstrName(d, i, buf, sizeof buf);
}

std::vector<std::pair<int, double>> column(const VRXmodeldata* d, int j) {
  std::vector<std::pair<int, double>> c;
  for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p) c.emplace_back(d->rowInd[p], d->val[p]);
  std::sort(c.begin(), c.end());
  return c;
}

// The reader numbers variables by their first appearance, so columns are
// matched by name; rows keep their order. Values are compared after the
// number form of the writer. With rlp the names in b are the defaults of
// the LP writer, x%d and c%d, after a's indices.
void expectSameByName(const VRXmodeldata* a, const VRXmodeldata* b, bool rlp = false) {
  auto aVar = [&](int j) { return rlp ? "x" + std::to_string(j) : varName(a, j); };
  auto aRow = [&](int i) { return rlp ? "c" + std::to_string(i) : rowName(a, i); };
  ASSERT_EQ(a->numVars, b->numVars);
  ASSERT_EQ(a->numConstrs, b->numConstrs);
  ASSERT_EQ(a->numNZs, b->numNZs);
  EXPECT_EQ(a->modelSense, b->modelSense);
  EXPECT_EQ(viaText(a->objCon), b->objCon);
  EXPECT_EQ(a->numIntVars, b->numIntVars);
  EXPECT_EQ(a->numBinVars, b->numBinVars);
  EXPECT_EQ(a->numSOS, b->numSOS);
  EXPECT_EQ(a->numQNZs, b->numQNZs);
  for (int i = 0; i < a->numConstrs; ++i) {
    ASSERT_EQ(aRow(i), rowName(b, i)) << i;
    ASSERT_EQ(a->sense[i], b->sense[i]) << i;
    ASSERT_EQ(viaText(a->rhs[i]), b->rhs[i]) << i;
  }
  std::unordered_map<std::string, int> where;
  for (int j = 0; j < b->numVars; ++j) where[varName(b, j)] = j;
  ASSERT_EQ(static_cast<size_t>(b->numVars), where.size());
  for (int j = 0; j < a->numVars; ++j) {
    auto it = where.find(aVar(j));
    ASSERT_NE(where.end(), it) << aVar(j);
    const int k = it->second;
    ASSERT_EQ(viaText(a->obj[j]), b->obj[k]) << varName(a, j);
    ASSERT_EQ(viaText(a->lb[j]), b->lb[k]) << varName(a, j);
    ASSERT_EQ(viaText(a->ub[j]), b->ub[k]) << varName(a, j);
    ASSERT_EQ(a->vtype[j], b->vtype[k]) << varName(a, j);
    auto ca = column(a, j), cb = column(b, k);
    ASSERT_EQ(ca.size(), cb.size()) << varName(a, j);
    for (size_t p = 0; p < ca.size(); ++p) {
      ASSERT_EQ(ca[p].first, cb[p].first) << varName(a, j);
      ASSERT_EQ(viaText(ca[p].second), cb[p].second) << varName(a, j);
    }
  }
}

class LpFile : public ::testing::Test {
 protected:
  VRXenv* env = nullptr;
  std::string dir;
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    captureLogOf(env);
    char buf[128];
    std::snprintf(buf, sizeof buf, "/tmp/vrx_lpfile_%d", static_cast<int>(getpid()));
    dir = buf;
    ASSERT_EQ(0, std::system(("mkdir -p " + dir).c_str()));
  }
  void TearDown() override {
    VRXfreeenv(env);
    std::system(("rm -rf " + dir).c_str());
  }
  std::string put(const std::string& name, const std::string& text) {
    std::string path = dir + "/" + name;
    std::ofstream(path) << text;
    return path;
  }
  // Reads a text that must load.
  VRXmodel* read(const std::string& text, const char* name = "m.lp") {
    capturedLog().clear();
    VRXmodel* m = nullptr;
    int rc = VRXreadmodel(env, put(name, text).c_str(), &m);
    EXPECT_EQ(0, rc) << capturedLog();
    return m;
  }
  // Reads a text that must fail; the log holds the message and its line.
  void expectError(const std::string& text, int line, const std::string& message) {
    capturedLog().clear();
    VRXmodel* m = reinterpret_cast<VRXmodel*>(0x1);
    std::string path = put("bad.lp", text);
    EXPECT_EQ(VRX_ERROR_FILE_READ, VRXreadmodel(env, path.c_str(), &m)) << text;
    EXPECT_EQ(nullptr, m);
    std::string want = "Error reading LP format file " + path + " at line " + std::to_string(line) +
                       "\n" + message + "\n";
    EXPECT_NE(std::string::npos, capturedLog().find(want)) << "wanted:\n" << want << "got:\n" << capturedLog();
    EXPECT_NE(std::string::npos, capturedLog().find("Neighboring tokens: \" ")) << capturedLog();
  }
  int var(VRXmodel* m, const char* name) {
    int j = -2;
    EXPECT_EQ(0, VRXgetvarbyname(m, name, &j));
    return j;
  }
  double dbl(VRXmodel* m, const char* attr, int j) {
    double v = -7;
    EXPECT_EQ(0, VRXgetdblattrelement(m, attr, j, &v)) << attr;
    return v;
  }
  std::string logOf() const { return capturedLog(); }
  bool logged(const std::string& s) const { return capturedLog().find(s) != std::string::npos; }
};

TEST_F(LpFile, EverySharedModelReadsBackFromItsLpFile) {
  int count = 0, rlpCount = 0;
  for (const char* set : {"netlib", "miplib3"}) {
    for (const std::string& name : modelsOf(set)) {
      SCOPED_TRACE(name);
      VRXmodel* a = nullptr;
      ASSERT_EQ(0, VRXreadmodel(env, shared(set, name).c_str(), &a)) << VRXgeterrormsg(env);
      // Names with blanks or colons, or repeated, need the .rlp form.
      const bool rlp = vrx::nameCheck(env, a->data);
      rlpCount += rlp;
      std::string out = dir + "/" + name + (rlp ? ".rlp" : ".lp");
      ASSERT_EQ(0, VRXwrite(a, out.c_str())) << VRXgetmerrormsg(a);
      capturedLog().clear();
      VRXmodel* b = nullptr;
      ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b)) << capturedLog().substr(0, 2000);
      expectSameByName(a->data, b->data, rlp);
      VRXfreemodel(b);
      VRXfreemodel(a);
      ++count;
      std::remove(out.c_str());
    }
  }
  EXPECT_GE(count, 100);
  EXPECT_GT(rlpCount, 0);
}

TEST_F(LpFile, RangesComeBackAsRangeRowsWithSlacks) {
  // boeing1 has RANGES: each ranged row is an equality with its slack column.
  VRXmodel* a = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, shared("netlib", "boeing1").c_str(), &a));
  std::string out = dir + "/boeing1.lp.gz";
  ASSERT_EQ(0, VRXwrite(a, out.c_str()));
  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b));
  int slacks = 0;
  for (int j = 0; j < b->data->numVars; ++j) {
    std::string nm = varName(b->data, j);
    if (nm.rfind("MPS_Rg", 0) != 0) continue;
    ++slacks;
    ASSERT_EQ(1, b->data->colLen[j]);
    int row = b->data->rowInd[b->data->colBeg[j]];
    EXPECT_EQ("MPS_Rg" + rowName(b->data, row), nm);
    EXPECT_EQ('=', b->data->sense[row]);
    EXPECT_EQ(0.0, b->data->lb[j]);
  }
  EXPECT_GT(slacks, 0);
  expectSameByName(a->data, b->data);
  VRXfreemodel(a);
  VRXfreemodel(b);
}

TEST_F(LpFile, SectionsAndKeywordSpellings) {
  VRXmodel* m = read(
      "\\ Model spelled\n"
      "MAXIMUM\n"
      " obj: 3 x + 2 y - z + [ x ^2 + 4 x * y ] / 2 + 5 Constant\n"
      "SUCH\n  THAT\n"
      " c1: x + y <= 10\n"
      " c2: 2 x - y =< 4\n"
      " c3: x + z => 1\n"
      " c4: -5 <= y - z <= 5\n"
      " c5: x + 3 >= 4\n"
      " c6: 2 >= z\n"
      " x2 + y > -3\n"
      "bound\n"
      " x <= 8\n"
      " -inf <= y <= +infinity\n"
      " z >= -2\n"
      " 1 <= w <= 3\n"
      " x2 FREE\n"
      " Constant = 1\n"
      "BIN\n w\n"
      "integers\n z\n"
      "semis\n y\n"
      "END\n");
  ASSERT_NE(nullptr, m);
  const VRXmodeldata* d = m->data;
  EXPECT_STREQ("spelled", d->modelName);
  EXPECT_EQ(-1, d->modelSense);
  // Columns by first appearance: x, y, z, then x2 from row 7; w only in the
  // bounds and types is not created; the range slack comes last.
  ASSERT_EQ(5, d->numVars);
  EXPECT_EQ("x", varName(d, 0));
  EXPECT_EQ("y", varName(d, 1));
  EXPECT_EQ("z", varName(d, 2));
  EXPECT_EQ("x2", varName(d, 3));
  EXPECT_EQ("Rgc4", varName(d, 4));
  EXPECT_TRUE(logged("Warning: unknown variable 'w' in bounds section\n"));
  EXPECT_TRUE(logged("Warning: unknown variable 'w' in binary section\n"));
  double objcon = 0;
  VRXgetdblattr(m, "ObjCon", &objcon);
  EXPECT_EQ(5.0, objcon);
  EXPECT_EQ(3.0, dbl(m, "Obj", 0));
  EXPECT_EQ(-1.0, dbl(m, "Obj", 2));
  // [ x ^2 + 4 x * y ] / 2: terms 0.5 x^2 and 2 x y, kept as 2 a sense.
  ASSERT_EQ(2, d->numQNZs);
  EXPECT_EQ(-1.0, d->qVal[0]);
  EXPECT_EQ(-4.0, d->qVal[1]);
  ASSERT_EQ(7, d->numConstrs);
  EXPECT_EQ('<', d->sense[1]);
  EXPECT_EQ('>', d->sense[2]);
  EXPECT_EQ('=', d->sense[3]);
  EXPECT_EQ(5.0, d->rhs[3]);
  EXPECT_EQ(10.0, d->ub[4]);  // range width
  EXPECT_EQ(1.0, d->rhs[4]);   // x + 3 >= 4 moves the constant
  EXPECT_EQ('<', d->sense[5]);  // 2 >= z reads as z <= 2
  EXPECT_EQ(2.0, d->rhs[5]);
  EXPECT_EQ("R6", rowName(d, 6));
  EXPECT_EQ('>', d->sense[6]);
  EXPECT_EQ(8.0, d->ub[0]);
  EXPECT_EQ(-1e100, d->lb[1]);
  EXPECT_EQ('S', d->vtype[1]);
  EXPECT_EQ('I', d->vtype[2]);
  EXPECT_EQ(-2.0, d->lb[2]);
  EXPECT_EQ(-1e100, d->lb[3]);
  VRXfreemodel(m);

  // The other spellings, each alone.
  const char* objectives[] = {"minimize", "Minimum", "MIN", "maximize", "Maximum", "max"};
  for (const char* k : objectives) {
    m = read(std::string(k) + "\n x\nst\n c: x >= 1\nend\n");
    ASSERT_NE(nullptr, m) << k;
    EXPECT_EQ(k[1] == 'a' || k[1] == 'A' ? -1 : 1, m->data->modelSense) << k;
    VRXfreemodel(m);
  }
  const char* constraints[] = {"subject to", "Subject\n   To", "such that", "st", "s.t.", "ST."};
  for (const char* k : constraints) {
    m = read(std::string("min\n x\n") + k + "\n c: x >= 1\nend\n");
    ASSERT_NE(nullptr, m) << k;
    EXPECT_EQ(1, m->data->numConstrs) << k;
    VRXfreemodel(m);
  }
  const char* bounds[] = {"bounds", "Bound"};
  for (const char* k : bounds) {
    m = read(std::string("min\n x\nst\n c: x >= 1\n") + k + "\n x <= 4\nend\n");
    ASSERT_NE(nullptr, m) << k;
    EXPECT_EQ(4.0, m->data->ub[0]) << k;
    VRXfreemodel(m);
  }
  const char* binaries[] = {"binary", "Binaries", "BIN"};
  for (const char* k : binaries) {
    m = read(std::string("min\n x\nst\n c: x >= 1\n") + k + "\n x\nend\n");
    ASSERT_NE(nullptr, m) << k;
    EXPECT_EQ('B', m->data->vtype[0]) << k;
    EXPECT_EQ(1.0, m->data->ub[0]) << k;
    VRXfreemodel(m);
  }
  const char* integers[] = {"general", "Generals", "gen", "INTEGER", "integers"};
  for (const char* k : integers) {
    m = read(std::string("min\n x\nst\n c: x >= 1\n") + k + "\n x\nend\n");
    ASSERT_NE(nullptr, m) << k;
    EXPECT_EQ('I', m->data->vtype[0]) << k;
    VRXfreemodel(m);
  }
  const char* semis[] = {"semi-continuous", "Semis", "semi"};
  for (const char* k : semis) {
    m = read(std::string("min\n x\nst\n c: x >= 1\nbounds\n x <= 9\n") + k + "\n x\nend\n");
    ASSERT_NE(nullptr, m) << k;
    EXPECT_EQ('S', m->data->vtype[0]) << k;
    VRXfreemodel(m);
  }
  // A semi-continuous integer, and a binary with a bound of its own.
  m = read("min\n x + y\nst\n c: x + y >= 1\nbounds\n x <= 9\n y = 1\ngen\n x\nsemi\n x\nbin\n y\nend\n");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ('N', m->data->vtype[0]);
  EXPECT_EQ('B', m->data->vtype[1]);
  EXPECT_EQ(1.0, m->data->lb[1]);
  VRXfreemodel(m);
}

TEST_F(LpFile, BoundForms) {
  VRXmodel* m = read(
      "min\n a + b + c + d + e + f + g + h + free\nst\n"
      " r: a + b + c + d + e + f + g + h + free >= -100\n"
      "bounds\n"
      " a free\n"
      " b = 3\n"
      " c <= -2\n"     // a negative upper bound leaves the lower bound at 0
      " d >= -4\n"
      " 5 >= e\n"
      " -1 <= f\n"
      " -1 <= g <= 2\n"
      " h >= -infinity\n"
      " free <= 7\n"  // a variable called free
      "end\n");
  ASSERT_NE(nullptr, m);
  const VRXmodeldata* d = m->data;
  EXPECT_EQ(-1e100, d->lb[0]);
  EXPECT_EQ(1e100, d->ub[0]);
  EXPECT_EQ(3.0, d->lb[1]);
  EXPECT_EQ(3.0, d->ub[1]);
  EXPECT_EQ(0.0, d->lb[2]);
  EXPECT_EQ(-2.0, d->ub[2]);
  EXPECT_EQ(-4.0, d->lb[3]);
  EXPECT_EQ(5.0, d->ub[4]);
  EXPECT_EQ(-1.0, d->lb[5]);
  EXPECT_EQ(-1.0, d->lb[6]);
  EXPECT_EQ(2.0, d->ub[6]);
  EXPECT_EQ(-1e100, d->lb[7]);
  EXPECT_EQ("free", varName(d, 8));
  EXPECT_EQ(7.0, d->ub[8]);
  VRXfreemodel(m);
  expectError("min\n x\nst\n c: x >= 1\nbounds\n x <= 4\n x ~ 3\nend\n", 7, "Unrecognized variable bound");
  expectError("min\n x\nst\n c: x >= 1\nbounds\n x fReE\nend\n", 6, "Unrecognized variable bound");
}

TEST_F(LpFile, LabelsKeywordsAndNamesLikeKeywords) {
  // x1 >= 1 is a row in the constraints, a bound in the bounds section.
  VRXmodel* m = read("min\n x1\nst\n c0: x1 >= 1\nbounds\n x1 >= 1\nend\n");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(1, m->data->numConstrs);
  EXPECT_EQ(1.0, m->data->lb[0]);
  VRXfreemodel(m);
  // "st" inside a line is a name; at the start of a line it starts the constraints.
  m = read("min\n x + st\nst\n c: x + st >= 1\nend\n");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(2, m->data->numVars);
  EXPECT_EQ("st", varName(m->data, 1));
  VRXfreemodel(m);
  // A keyword followed by a colon is a label.
  m = read("min\n x\nst\n bounds: x >= 2\n end : x <= 5\nend\n");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(2, m->data->numConstrs);
  EXPECT_EQ("bounds", rowName(m->data, 0));
  EXPECT_EQ("end", rowName(m->data, 1));
  VRXfreemodel(m);
  // Only an empty model, and comments anywhere.
  m = read("Minimize\nEnd\n");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(0, m->data->numVars);
  EXPECT_EQ(0, m->data->numConstrs);
  VRXfreemodel(m);
  m = read("\\ head\nmin \\ the objective\n 3 x \\ + 4 y\n + 4 Constant\nst \\ rows\n c:\\label\n x >= 1\nend");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(1, m->data->numVars);
  EXPECT_EQ(4.0, m->data->objCon);
  EXPECT_EQ(3.0, m->data->obj[0]);
  VRXfreemodel(m);
  // A bare number in the objective is a constant as well.
  m = read("Minimize 3 x + 4\nSubject To\n c: x >= 1\nEnd\n");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(4.0, m->data->objCon);
  VRXfreemodel(m);
}

TEST_F(LpFile, RepeatedSmallAndNumericNamesAreWarned) {
  VRXmodel* m = read(
      "min\n x\nst\n"
      " a: x + y + 2 x - y >= 1\n"  // x repeated, y cancels
      " b: x + 1e-20 y == 2\n"
      " c: x + 2 3 >= 1\n"          // "3" is a variable, with a warning
      " d: 2 x + 4 y == 3\n"
      "end\n");
  ASSERT_NE(nullptr, m);
  const VRXmodeldata* d = m->data;
  EXPECT_TRUE(logged("Warning: lp file contains 2 repeated variable(s) in constraints, grouped them, 1 cancellation\n"));
  EXPECT_TRUE(logged("Warning: lp file contains 1 small (<= 1e-13) coefficient(s), ignored\n"));
  EXPECT_TRUE(logged("Warning: Numeric variable name in LP file ('3') - often the result\n"
                     "         of a constant term in the left-hand side of a constraint.\n"));
  const std::string& text = capturedLog();
  size_t first = text.find("uses '=='");
  EXPECT_NE(std::string::npos, first);
  EXPECT_EQ(std::string::npos, text.find("uses '=='", first + 1));  // once per file
  EXPECT_TRUE(logged("Warning: At least one constraint uses '==' instead of '=' as sense.\n"));
  EXPECT_EQ(3, d->numVars);
  ASSERT_EQ(1, d->colLen[0] - 3);  // x in all four rows
  EXPECT_EQ(3.0, d->val[d->colBeg[0]]);
  EXPECT_EQ("3", varName(d, 2));
  EXPECT_EQ(1, d->colLen[1]);  // y survives only in d
  VRXfreemodel(m);
  // Duplicate sections, five warnings and then one line.
  std::string text2 = "min\n x\nst\n c: x >= 1\n";
  for (int k = 0; k < 7; ++k) text2 += "bounds\n x <= 5\n";
  text2 += "end\n";
  m = read(text2);
  ASSERT_NE(nullptr, m);
  const std::string dup =
      "Warning: Duplicate section found (read 'bounds') - Is a variable name equal to an LP file format keyword?\n";
  size_t at = 0;
  int count = 0;
  while ((at = capturedLog().find(dup, at)) != std::string::npos) ++count, ++at;
  EXPECT_EQ(5, count);
  EXPECT_TRUE(logged("Warning: Further warnings of this type will be omitted.\n"));
  VRXfreemodel(m);
}

TEST_F(LpFile, SyntaxErrorsWithTheirLines) {
  expectError("x + y\nst\n c: x >= 1\nend\n", 1, "LP format file must begin with a keyword");
  expectError("min\n x + + y\nst\nend\n", 2, "Malformed term in expression");
  expectError("min\n x y\nst\nend\n", 2, "Malformed term in expression");
  expectError("min\n x\nst\n c: x >= 1\nfoo\n", 5, "Incomplete constraint");
  expectError("min\n x\n c1: x >= 1\nend\n", 3, "Unexpected symbol");
  expectError("min\n x\nst\n c: x + y\nend\n", 5, "Incomplete constraint");
  expectError("min\n x\nst\n c: x + y >=\nend\n", 5, "Incomplete constraint");
  expectError("min\n x\nst\n c: x + y >= z\nend\n", 4, "Unrecognized constraint RHS or sense");
  expectError("min\n x\nst\n c: x y >= 1\nend\n", 4, "Unrecognized constraint RHS or sense");
  // Names that read as numbers in the bounds.
  expectError("min\n x\nst\n c: x >= 1\nbounds\n x <= y\nend\n", 6, "Unrecognized variable bound");
  // Quadratic parts.
  expectError("min\n [ x ^2 + y ^2\nst\n c: x >= 1\nend\n", 3, "Quadratic expression terminated too early");
  expectError("min\n [ x ^2 + y ^2", 2, "Quadratic expression terminated too early");
  expectError("min\n [ x ^3 ] / 2\nend\n", 2, "Malformed quadratic term in expression");
  expectError("min\n [ x y ] / 2\nend\n", 2, "Malformed quadratic term in expression");
  expectError("min\n [ x ^2 ]\nst\nend\n", 3, "Malformed quadratic term in expression");
  expectError("min\n x\nst\n c: [ x ^2 + <= ] <= 1\nend\n", 4, "Unrecognized token in quadratic expression");
  // Indicators.
  expectError("min\n x\nst\n c: b >= 1 -> x <= 2\nend\n", 4, "Invalid sense in indicator expression (expected '=')");
  expectError("min\n x\nst\n c: b = 2 -> x <= 2\nend\n", 4,
              "Invalid binary value in indicator expression (expected '1' or '0')");
  expectError("min\n x\nst\n c: b = 1 -> [ x ^2 ] <= 2\nend\n", 4, "Indicator constraint has to be linear");
  // SOS and piecewise-linear sections.
  expectError("min\n x + y\nst\n c: x + y >= 1\nsos\n s1: :: x:1 y:2\nend\n", 6, "Missing type for SOS constraint");
  expectError("min\n x + y\nst\n c: x + y >= 1\nsos\n s1: S1 :: x 1\nend\n", 6, "Malformed SOS term");
  expectError("min\n __pwl(x)\npwlobj\n x: (1, 2)\n  (3 4)\nend\n", 5, "Malformed PWL term");
  // Tokens are at most 255 characters.
  expectError("min\n x + " + std::string(256, 'a') + "\nend\n", 2, "Token contains more than 255 characters");
  // A line number deep in a file.
  std::string many = "min\n x\nst\n";
  for (int i = 0; i < 40; ++i) many += " r" + std::to_string(i) + ": x >= " + std::to_string(i) + "\n";
  many += " bad: x >= >=\nend\n";
  expectError(many, 44, "Unrecognized constraint RHS or sense");
}

TEST_F(LpFile, GeneralConstraintsIndicatorsAndTheirErrors) {
  VRXmodel* m = read(
      "min\n r + s\nst\n"
      " ind1: b = 1 -> x + 2 y <= 3\n"
      " c: x + y + b >= 0\n"
      "bin\n b\n"
      "general constraints\n"
      " g1: r = MAX ( x , y , 3 )\n"
      " s = min ( x , 2 , -1 )\n"
      " g3: a = ABS ( x )\n"
      " g4: b = AND ( x , y )\n"
      " g5: b = OR ( )\n"
      "end\n");
  ASSERT_NE(nullptr, m);
  const VRXmodeldata* d = m->data;
  ASSERT_EQ(6, d->numGenConstrs);
  const VRXgenconstr& ind = d->genConstrs[0];
  EXPECT_EQ(VRX_GENCONSTR_INDICATOR, ind.type);
  EXPECT_STREQ("ind1", ind.name);
  EXPECT_EQ(1, ind.binValue);
  EXPECT_EQ(2, ind.count);
  EXPECT_EQ('<', ind.sense);
  EXPECT_EQ(3.0, ind.rhs);
  EXPECT_EQ(VRX_GENCONSTR_MAX, d->genConstrs[1].type);
  EXPECT_EQ(2, d->genConstrs[1].count);
  EXPECT_EQ(3.0, d->genConstrs[1].constant);
  EXPECT_EQ(VRX_GENCONSTR_MIN, d->genConstrs[2].type);
  EXPECT_EQ(-1.0, d->genConstrs[2].constant);
  EXPECT_EQ(nullptr, d->genConstrs[2].name);
  EXPECT_EQ(VRX_GENCONSTR_ABS, d->genConstrs[3].type);
  EXPECT_EQ(VRX_GENCONSTR_AND, d->genConstrs[4].type);
  EXPECT_EQ(VRX_GENCONSTR_OR, d->genConstrs[5].type);
  EXPECT_EQ(0, d->genConstrs[5].count);
  VRXfreemodel(m);

  const std::string head = "min\n x\nst\n c: x >= 0\ngeneral constraints\n";
  expectError(head + " g: r MAX ( x )\nend\n", 6, "Missing '=' after resultant variable, read MAX");
  expectError(head + " g: r = MAX x , y )\nend\n", 6, "Missing ' ( ' in general constraint, read 'x'");
  expectError(head + " g: r = MAX ( x y )\nend\n", 6,
              "Missing separator ' , ' or end ' ) ' in general constraint, read 'y'");
  expectError(head + " g: r = MAX ( x , y", 6,
              "Missing separator ' , ' or end ' ) ' in general constraint, read '<EOF>'");
  expectError(head + " g: r = MEDIAN ( x )\nend\n", 6, "Unknown general constraint type 'MEDIAN'");
  expectError(head + " g: r = INDICATOR ( x )\nend\n", 6, "Parsing of this general constraint type not implemented");
  expectError(head + " g: r = ABS ( x , y )\nend\n", 6, "General ABS constraint can only have one operand variable, read 'y'");
  expectError(head + " g: r = ABS ( )\nend\n", 6, "Error, read general ABS constraint with no operands");
  expectError(head + " g: r = MIN ( )\nend\n", 6,
              "Error, read general MIN or MAX constraint with no operands and no finite constant");
  expectError(head + " g :: r = MIN ( x )\nend\n", 6, "Error, read empty general constraint or wrongly placed '::'");
  // Numbers where names are due are names, with a warning.
  m = read(head + " 7 = OR ( x , 5 )\nend\n");
  ASSERT_NE(nullptr, m);
  EXPECT_TRUE(logged("Warning: read number '7' as resultant variable\n"));
  EXPECT_TRUE(logged("Warning: read number '5' as operand variable\n"));
  VRXfreemodel(m);
  m = read("min\n x\nst\n c: 4 = 1 -> x >= 2\nend\n");
  ASSERT_NE(nullptr, m);
  EXPECT_TRUE(logged("Warning: read number '4' as indicator variable name\n"));
  VRXfreemodel(m);
}

TEST_F(LpFile, SosPwlLazyConesAndQuadraticRows) {
  VRXmodel* m = read(
      "min\n x + __pwl(p) + __pwl( q )\nst\n"
      " c: x + y + z + p + q >= 1\n"
      " qc: x + [ x ^2 + 2 x * y ] <= 4\n"
      "lazy constraints\n"
      " l1: x + y <= 5\n"
      "lazy constraints 3\n"
      " l3: y + z <= 6\n"
      " lq: [ z ^2 ] <= 6\n"
      "cones\n"
      " k: z x y\n"
      " k2: z w\n"
      "sos\n"
      " s1: S1 :: x:1 y:2 z:3\n"
      " S2 :: y:1 z:2\n"
      "pwlobj\n"
      " p: (0, 0) (1, 2)\n"
      "   (2, 5)\n"
      " q: (-1,1)(0,0)\n"
      "end\n");
  ASSERT_NE(nullptr, m);
  const VRXmodeldata* d = m->data;
  EXPECT_TRUE(logged("Lazy constraints must be linear - ignoring lazy designation\n"));
  EXPECT_TRUE(logged("Warning: unknown variable 'w' in cone section\n"));
  ASSERT_EQ(3, d->numConstrs);
  int lazy[3] = {-1, -1, -1};
  ASSERT_EQ(0, VRXgetintattrarray(m, "Lazy", 0, 3, lazy));
  EXPECT_EQ(0, lazy[0]);
  EXPECT_EQ(1, lazy[1]);
  EXPECT_EQ(3, lazy[2]);
  ASSERT_EQ(2, d->numQConstrs);
  EXPECT_EQ(1, d->qcLinBeg[1] - d->qcLinBeg[0]);
  EXPECT_EQ(2, d->qcQuadBeg[1] - d->qcQuadBeg[0]);
  EXPECT_EQ(2.0, d->qcVal[1]);
  EXPECT_EQ(1, d->numCones);
  EXPECT_EQ(3, d->coneBeg[1] - d->coneBeg[0]);
  ASSERT_EQ(2, d->numSOS);
  EXPECT_EQ(1, d->sosType[0]);
  EXPECT_EQ(2, d->sosType[1]);
  EXPECT_EQ(3, d->sosBeg[1] - d->sosBeg[0]);
  EXPECT_EQ(2, d->numPWLObjVars);
  int np = 0;
  double px[4], py[4];
  ASSERT_EQ(0, VRXgetpwlobj(m, var(m, "p"), &np, px, py));
  ASSERT_EQ(3, np);
  EXPECT_EQ(2.0, px[2]);
  EXPECT_EQ(5.0, py[2]);
  ASSERT_EQ(0, VRXgetpwlobj(m, var(m, "q"), &np, px, py));
  ASSERT_EQ(2, np);
  EXPECT_EQ(-1.0, px[0]);
  VRXfreemodel(m);
}

TEST_F(LpFile, SeveralObjectives) {
  VRXmodel* m = read(
      "Maximize multi-objectives\n"
      "  first: Priority=2 Weight=-1 AbsTol=0.5 RelTol=0.01\n"
      "   x + 2 y + 3 Constant0\n"
      "  OBJ1: priority = 1 WEIGHT=-0.5 abstol=0 RelTol= 0\n"
      "   - y\n"
      "Subject To\n c: x + y <= 4\nEnd\n");
  ASSERT_NE(nullptr, m);
  int count = 0;
  ASSERT_EQ(0, VRXgetintattr(m, "NumObj", &count));
  ASSERT_EQ(2, count);
  VRXenv* menv = VRXgetenv(m);
  ASSERT_EQ(0, VRXsetintparam(menv, "ObjNumber", 0));
  int pri = 0;
  double w = 0, con = 0, abstol = 0;
  char* name = nullptr;
  EXPECT_EQ(0, VRXgetintattr(m, "ObjNPriority", &pri));
  EXPECT_EQ(2, pri);
  EXPECT_EQ(0, VRXgetdblattr(m, "ObjNWeight", &w));
  EXPECT_EQ(1.0, w);  // a maximisation's weights stand negated in the file
  EXPECT_EQ(0, VRXgetdblattr(m, "ObjNCon", &con));
  EXPECT_EQ(3.0, con);
  EXPECT_EQ(0, VRXgetdblattr(m, "ObjNAbsTol", &abstol));
  EXPECT_EQ(0.5, abstol);
  EXPECT_EQ(0, VRXgetstrattr(m, "ObjNName", &name));
  EXPECT_STREQ("first", name);
  EXPECT_EQ(2.0, dbl(m, "ObjN", var(m, "y")));
  ASSERT_EQ(0, VRXsetintparam(menv, "ObjNumber", 1));
  EXPECT_EQ(-1.0, dbl(m, "ObjN", var(m, "y")));
  EXPECT_EQ(0.0, dbl(m, "ObjN", var(m, "x")));

  // Written and read back.
  ASSERT_EQ(0, VRXsetintparam(menv, "ObjNumber", 0));
  std::string out = dir + "/multi.lp";
  ASSERT_EQ(0, VRXwrite(m, out.c_str()));
  std::string text = slurp(out);
  EXPECT_NE(std::string::npos, text.find("Maximize _multi-objectives\n  first: Priority=2 Weight=-1 AbsTol=0.5 RelTol=0.01\n"));
  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b)) << capturedLog();
  ASSERT_EQ(0, VRXgetintattr(b, "NumObj", &count));
  EXPECT_EQ(2, count);
  EXPECT_EQ(0, VRXgetdblattr(b, "ObjNWeight", &w));
  EXPECT_EQ(1.0, w);
  EXPECT_EQ(0, VRXgetdblattr(b, "ObjNCon", &con));
  EXPECT_EQ(3.0, con);
  EXPECT_EQ(-1, b->data->modelSense);
  VRXfreemodel(b);
  VRXfreemodel(m);

  const std::string tail = "\n x\nst\n c: x >= 1\nend\n";
  expectError("min multi-objectives\n o1 Priority=1 Weight=1 AbsTol=0 RelTol=0" + tail, 2,
              "Missing ':' after objective name");
  expectError("min multi-objectives\n o1: Weight=1 AbsTol=0 RelTol=0" + tail, 2, "Missing 'Priority' keyword");
  expectError("min multi-objectives\n o1: Priority 1 Weight=1 AbsTol=0 RelTol=0" + tail, 2,
              "Missing '=' after 'Priority' keyword");
  expectError("min multi-objectives\n o1: Priority=1 Weight=x AbsTol=0 RelTol=0" + tail, 2,
              "Invalid double value after 'Weight' keyword");
  expectError("min multi-objectives\n o1: Priority=1 Weight=1 AbsTol=0 RelTol=\nst\n c: x >= 1\nend\n", 3,
              "Missing double value after 'RelTol' keyword");
  expectError("min multi-objectives\n o1: Priority=1 Weight=1 AbsTol=0 RelTol=0\n [ x ^2 ]\nend\n", 3,
              "Multi-objective supports only linear objectives not quadratic (or piecewise-linear)");
}

// A model with every part the writer knows, built through the calls.
VRXmodel* richModel(VRXenv* env) {
  const char* vn[] = {"x", "y", "z", "b", "s", "r", "p"};
  double obj[] = {1, -2.5, 0, 0, 0.1, 1, 0};
  double lb[] = {-1e100, -3, 0, 0, 0, -1e100, 0};
  double ub[] = {1e100, 4.25, 10, 1, 7, 1e100, 6};
  char vt[] = {'C', 'C', 'I', 'B', 'S', 'C', 'C'};
  VRXmodel* m = nullptr;
  if (VRXnewmodel(env, &m, "rich", 7, obj, lb, ub, vt, const_cast<char**>(vn))) return nullptr;
  int i1[] = {0, 1, 2};
  double v1[] = {1, 1.0 / 3.0, -7};
  VRXaddconstr(m, 3, i1, v1, '<', 12.5, "c1");
  int i2[] = {0, 4};
  double v2[] = {2, 1e-7};
  VRXaddconstr(m, 2, i2, v2, '=', -1, "c2");
  VRXaddrangeconstr(m, 2, i1, v1, -5, 5, "rg");
  VRXaddconstr(m, 2, i2, v2, '>', 0, "lazy2");
  int qr[] = {0, 0}, qc[] = {0, 1};
  double qv[] = {1.5, -2};
  VRXaddqpterms(m, 2, qr, qc, qv);
  int li[] = {1};
  double lv[] = {3};
  int qqr[] = {0, 2}, qqc[] = {1, 2};
  double qqv[] = {1, 0.5};
  VRXaddqconstr(m, 1, li, lv, 2, qqr, qqc, qqv, '<', 9, "q1");
  int ii[] = {0, 1};
  double iv[] = {1, -1};
  VRXaddgenconstrIndicator(m, "ind", 3, 0, 2, ii, iv, '>', 2);
  int mv[] = {0, 1};
  VRXaddgenconstrMax(m, "gmax", 5, 2, mv, 1.5);
  VRXaddgenconstrAbs(m, nullptr, 5, 1);
  int st[] = {1}, sb[] = {0}, si[] = {0, 1, 2};
  double sw[] = {1, 2, 3};
  VRXaddsos(m, 1, 3, st, sb, si, sw);
  double px[] = {0, 1, 3}, py[] = {0, 2, 1};
  VRXsetpwlobj(m, 6, 3, px, py);
  VRXsetdblattr(m, "ObjCon", 2.75);
  VRXsetintattr(m, "ModelSense", -1);
  if (VRXupdatemodel(m)) return m;
  VRXsetintattrelement(m, "Lazy", 3, 2);
  VRXupdatemodel(m);
  return m;
}

TEST_F(LpFile, EveryPartOfAModelRoundTrips) {
  VRXmodel* a = richModel(env);
  ASSERT_NE(nullptr, a);
  ASSERT_EQ(7 + 1, a->data->numVars);  // the range row's slack
  std::string out = dir + "/rich.lp";
  ASSERT_EQ(0, VRXwrite(a, out.c_str())) << VRXgetmerrormsg(a);
  std::string text = slurp(out);
  EXPECT_EQ(0u, text.find("\\ Model rich\n\\ LP format - for model browsing. Use MPS format to capture full model detail.\nMaximize\n"));
  EXPECT_NE(std::string::npos, text.find(" ] / 2"));
  EXPECT_NE(std::string::npos, text.find(" + __pwl(p)"));
  EXPECT_NE(std::string::npos, text.find(" + 2.75 Constant"));
  EXPECT_NE(std::string::npos, text.find("Lazy Constraints 2\n lazy2:"));
  EXPECT_NE(std::string::npos, text.find(" ind: b = 0 -> x - y >= 2\n"));
  EXPECT_NE(std::string::npos, text.find(" gmax: r = MAX ( x , y , 1.5 )\n"));
  EXPECT_NE(std::string::npos, text.find(" GC2: r = ABS ( y )\n"));
  EXPECT_NE(std::string::npos, text.find(" s0: S1 :: x:1 y:2 z:3\n"));
  EXPECT_NE(std::string::npos, text.find("PWLObj\n p: (0, 0) (1, 2) (3, 1)\n")) << text;
  EXPECT_NE(std::string::npos, text.find(" Constant = 1\n"));
  EXPECT_NE(std::string::npos, text.find(" x free\n"));
  EXPECT_NE(std::string::npos, text.find(" -3 <= y <= 4.25\n"));
  EXPECT_NE(std::string::npos, text.find("Binaries\n b\nGenerals\n z\nSemi-continuous\n s\n"));
  EXPECT_EQ(text.size() - 4, text.rfind("End\n"));

  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b)) << capturedLog();
  const VRXmodeldata* da = a->data;
  const VRXmodeldata* db = b->data;
  // The lazy row moves behind the others; compare the rest by name.
  EXPECT_EQ(da->numVars, db->numVars);
  EXPECT_EQ(da->modelSense, db->modelSense);
  EXPECT_EQ(da->objCon, db->objCon);
  EXPECT_EQ(da->numQNZs, db->numQNZs);
  for (int k = 0; k < da->numQNZs; ++k) EXPECT_EQ(da->qVal[k], db->qVal[k]);
  EXPECT_EQ(da->numQConstrs, db->numQConstrs);
  EXPECT_EQ(da->numGenConstrs, db->numGenConstrs);
  EXPECT_EQ(da->numSOS, db->numSOS);
  EXPECT_EQ(da->numPWLObjVars, db->numPWLObjVars);
  for (const char* nm : {"x", "y", "z", "b", "s", "r", "p", "Rgrg"}) {
    int ja = var(a, nm), jb = var(b, nm);
    ASSERT_GE(jb, 0) << nm;
    EXPECT_EQ(da->obj[ja], db->obj[jb]) << nm;
    EXPECT_EQ(da->lb[ja], db->lb[jb]) << nm;
    EXPECT_EQ(da->ub[ja], db->ub[jb]) << nm;
    EXPECT_EQ(da->vtype[ja], db->vtype[jb]) << nm;
  }
  for (const char* nm : {"c1", "c2", "rg", "lazy2"}) {
    int ia = -1, ib = -1;
    ASSERT_EQ(0, VRXgetconstrbyname(a, nm, &ia));
    ASSERT_EQ(0, VRXgetconstrbyname(b, nm, &ib));
    ASSERT_GE(ib, 0) << nm;
    EXPECT_EQ(da->sense[ia], db->sense[ib]) << nm;
    EXPECT_EQ(da->rhs[ia], db->rhs[ib]) << nm;
    int la = 0, lb = 0;
    VRXgetintattrelement(a, "Lazy", ia, &la);
    VRXgetintattrelement(b, "Lazy", ib, &lb);
    EXPECT_EQ(la, lb) << nm;
    double c1 = 0, c2 = 0;
    VRXgetcoeff(a, ia, var(a, "y"), &c1);
    VRXgetcoeff(b, ib, var(b, "y"), &c2);
    EXPECT_EQ(c1, c2) << nm;
  }
  VRXfreemodel(b);

  // Compressed by suffix, and lines of at most 75 characters.
  std::string gz = dir + "/rich.lp.gz";
  ASSERT_EQ(0, VRXwrite(a, gz.c_str()));
  b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, gz.c_str(), &b)) << capturedLog();
  EXPECT_EQ(da->numNZs, b->data->numNZs);
  VRXfreemodel(b);
  VRXfreemodel(a);
}

TEST_F(LpFile, LongRowsBreakBeforeSeventyFiveCharacters) {
  // One row over 60 columns with names of varying length.
  std::vector<std::string> names;
  std::vector<const char*> vn;
  const int n = 60;
  for (int j = 0; j < n; ++j) names.push_back("v" + std::string(j % 9 + 1, 'a' + j % 26) + std::to_string(j));
  for (auto& s : names) vn.push_back(s.c_str());
  std::vector<double> obj(n, 1.25);
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXnewmodel(env, &m, "long", n, obj.data(), nullptr, nullptr, nullptr, const_cast<char**>(vn.data())));
  std::vector<int> ind(n);
  std::vector<double> val(n);
  for (int j = 0; j < n; ++j) ind[j] = j, val[j] = j % 2 ? -0.123456789 : 3;
  ASSERT_EQ(0, VRXaddconstr(m, n, ind.data(), val.data(), '<', 1, "long_row"));
  ASSERT_EQ(0, VRXupdatemodel(m));
  std::string out = dir + "/long.lp";
  ASSERT_EQ(0, VRXwrite(m, out.c_str()));
  std::istringstream in(slurp(out));
  std::string line;
  int lines = 0, continued = 0;
  while (std::getline(in, line)) {
    ++lines;
    if (line.rfind("\\", 0) == 0) continue;
    EXPECT_LE(line.size(), 75u) << line;
    if (line.rfind("   ", 0) == 0 || line.rfind("  +", 0) == 0 || line.rfind("  -", 0) == 0) ++continued;
  }
  EXPECT_GT(continued, 10);
  // Every term is whole: the row reads back exactly.
  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b)) << capturedLog();
  expectSameByName(m->data, b->data);
  VRXfreemodel(b);
  VRXfreemodel(m);
}

TEST_F(LpFile, RlpDefaultNamesAndTheNameCheck) {
  // Names with a blank, a colon, a repeat, and a name that reads as a number.
  const char* vn[] = {"a b", "c:d", "a b", "12"};
  double obj[] = {1, 1, 1, 1};
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXnewmodel(env, &m, "names", 4, obj, nullptr, nullptr, nullptr, const_cast<char**>(vn)));
  int ind[] = {0, 1, 2, 3};
  double val[] = {1, 1, 1, 1};
  ASSERT_EQ(0, VRXaddconstr(m, 4, ind, val, '>', 1, "r 0"));
  ASSERT_EQ(0, VRXaddconstr(m, 4, ind, val, '<', 9, "r 0"));
  ASSERT_EQ(0, VRXaddgenconstrAnd(m, "r 0", 0, 1, ind + 1));
  ASSERT_EQ(0, VRXupdatemodel(m));
  captureLogOf(VRXgetenv(m));
  ASSERT_EQ(0, VRXwrite(m, (dir + "/names.lp").c_str()));
  EXPECT_TRUE(logged("Warning: variable name \"a b\" has a space\n"));
  EXPECT_TRUE(logged("Warning: variable name \"c:d\" has a colon\n"));
  EXPECT_TRUE(logged("Warning: variables 0 and 2 have the same name \"a b\"\n"));
  EXPECT_TRUE(logged("Warning: constraint name \"r 0\" has a space\n"));
  EXPECT_TRUE(logged("Warning: linear constraint 0 and linear constraint 1 have the same name \"r 0\"\n"));
  EXPECT_TRUE(logged("Warning: general constraint name \"r 0\" has a space\n"));
  EXPECT_TRUE(logged("Warning: linear constraint 0 and general constraint 0 have the same name \"r 0\"\n"));
  EXPECT_TRUE(logged("Warning: to let Vornix read it back, use rlp format\n"));

  capturedLog().clear();
  std::string rlp = dir + "/names.rlp.bz2";
  ASSERT_EQ(0, VRXwrite(m, rlp.c_str()));
  EXPECT_FALSE(logged("use rlp format"));
  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, rlp.c_str(), &b)) << capturedLog();
  ASSERT_EQ(4, b->data->numVars);
  for (int j = 0; j < 4; ++j) {
    std::string nm = varName(b->data, j);
    ASSERT_EQ('x', nm[0]);
    int orig = std::atoi(nm.c_str() + 1);
    EXPECT_EQ(m->data->obj[orig], b->data->obj[j]);
  }
  EXPECT_EQ("c0", rowName(b->data, 0));
  EXPECT_EQ("c1", rowName(b->data, 1));
  VRXfreemodel(b);

  // A name that reads as a number keeps its coefficient in the file.
  const char* vn2[] = {"12", "end"};
  VRXmodel* k = nullptr;
  double lb2[] = {-2, -3};
  double ub2[] = {5, 1e100};
  ASSERT_EQ(0, VRXnewmodel(env, &k, "numeric", 2, obj, lb2, ub2, nullptr, const_cast<char**>(vn2)));
  ASSERT_EQ(0, VRXaddconstr(k, 2, ind, val, '>', 1, "r"));
  ASSERT_EQ(0, VRXupdatemodel(k));
  std::string kf = dir + "/numeric.lp";
  ASSERT_EQ(0, VRXwrite(k, kf.c_str()));
  std::string text = slurp(kf);
  EXPECT_NE(std::string::npos, text.find(" r: 1 12 + end >= 1\n"));
  EXPECT_NE(std::string::npos, text.find(" -2 <= 12 <= 5\n"));
  EXPECT_NE(std::string::npos, text.find(" -3 <= end <= +infinity\n"));
  b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, kf.c_str(), &b)) << capturedLog();
  expectSameByName(k->data, b->data);
  VRXfreemodel(b);
  VRXfreemodel(k);
  VRXfreemodel(m);

  // A keyword never opens the objective's line; a number-like name in Q
  // keeps its coefficient.
  const char* vn3[] = {"end", "12"};
  double o2[] = {1, 0};
  ASSERT_EQ(0, VRXnewmodel(env, &k, "kw", 2, o2, nullptr, nullptr, nullptr, const_cast<char**>(vn3)));
  int q1[] = {1};
  double qv[] = {1};
  ASSERT_EQ(0, VRXaddqpterms(k, 1, q1, q1, qv));
  ASSERT_EQ(0, VRXaddconstr(k, 2, ind, val, '>', 1, "r"));
  ASSERT_EQ(0, VRXupdatemodel(k));
  ASSERT_EQ(0, VRXwrite(k, kf.c_str()));
  EXPECT_NE(std::string::npos, slurp(kf).find("Minimize\n   + end + [ 2 12 ^2 ] / 2\n")) << slurp(kf);
  b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, kf.c_str(), &b)) << capturedLog();
  expectSameByName(k->data, b->data);
  ASSERT_EQ(1, b->data->numQNZs);
  EXPECT_EQ(k->data->qVal[0], b->data->qVal[0]);
  VRXfreemodel(b);
  VRXfreemodel(k);

  // A model without names: no warnings, default names in the file.
  double o3[] = {1, 2};
  ASSERT_EQ(0, VRXnewmodel(env, &k, "", 2, o3, nullptr, nullptr, nullptr, nullptr));
  ASSERT_EQ(0, VRXaddconstr(k, 2, ind, val, '>', 1, nullptr));
  ASSERT_EQ(0, VRXupdatemodel(k));
  captureLogOf(VRXgetenv(k));
  ASSERT_EQ(0, VRXwrite(k, kf.c_str()));
  EXPECT_EQ("", capturedLog());
  EXPECT_NE(std::string::npos, slurp(kf).find("Minimize\n   x0 + 2 x1\nSubject To\n c0: x0 + x1 >= 1\n"));
  VRXfreemodel(k);
}

TEST_F(LpFile, NameCheckFindsMissingNames) {
  const char* vn[] = {"a", "", "c"};
  double obj[] = {1, 1, 1};
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXnewmodel(env, &m, "gaps", 3, obj, nullptr, nullptr, nullptr, const_cast<char**>(vn)));
  int ind[] = {0, 1};
  double val[] = {1, 1};
  const char* cn[] = {"r0", nullptr};
  ASSERT_EQ(0, VRXaddconstrs(m, 2, 2, ind, ind, val, "<<", val, const_cast<char**>(cn)));
  double qv[] = {1};
  ASSERT_EQ(0, VRXaddqconstr(m, 0, nullptr, nullptr, 1, ind, ind, qv, '<', 1, "q:0"));
  ASSERT_EQ(0, VRXaddqconstr(m, 0, nullptr, nullptr, 1, ind, ind, qv, '<', 1, nullptr));
  ASSERT_EQ(0, VRXupdatemodel(m));
  captureLogOf(env);
  EXPECT_TRUE(vrx::nameCheck(env, m->data));
  EXPECT_TRUE(logged("Warning: variable 1 doesn't have a name\n"));
  EXPECT_TRUE(logged("Warning: constraint 1 doesn't have a name\n"));
  EXPECT_TRUE(logged("Warning: Q constraint name \"q:0\" has a colon\n"));
  EXPECT_TRUE(logged("Warning: Q constraint 1 doesn't have a name\n"));
  capturedLog().clear();
  EXPECT_TRUE(vrx::nameCheck(env, m->data, true));
  EXPECT_FALSE(logged("constraint"));
  VRXfreemodel(m);
}

TEST_F(LpFile, IlpNeedsAnIIS) {
  const char* vn[] = {"x", "y"};
  double obj[] = {1, 1};
  double lb[] = {2, 0};
  double ub[] = {1e100, 3};
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXnewmodel(env, &m, "iis", 2, obj, lb, ub, nullptr, const_cast<char**>(vn)));
  int ind[] = {0, 1};
  double val[] = {1, 1};
  ASSERT_EQ(0, VRXaddconstr(m, 2, ind, val, '<', 1, "cap"));
  ASSERT_EQ(0, VRXaddconstr(m, 2, ind, val, '>', 0, "other"));
  ASSERT_EQ(0, VRXupdatemodel(m));
  std::string out = dir + "/iis.ilp";
  EXPECT_EQ(VRX_ERROR_DATA_NOT_AVAILABLE, VRXwrite(m, out.c_str()));
  EXPECT_STREQ("No IIS available for current model", VRXgetmerrormsg(m));
  EXPECT_NE(0, access(out.c_str(), F_OK));

  // An IIS published as a solver would: row cap and the lower bound of x.
  VRXenv* menv = VRXgetenv(m);
  VRXresult* r = vrx::resultCreate(menv, 2, 2, 0);
  ASSERT_NE(nullptr, r);
  r->iisLB = vrx::envCallocArray<int>(menv, 2);
  r->iisUB = vrx::envCallocArray<int>(menv, 2);
  r->iisConstr = vrx::envCallocArray<int>(menv, 2);
  r->iisLB[0] = 1;
  r->iisConstr[0] = 1;
  r->iisMinimal = 1;
  m->result = r;
  m->status = VRX_INFEASIBLE;
  ASSERT_EQ(0, VRXwrite(m, out.c_str())) << VRXgetmerrormsg(m);
  std::string text = slurp(out);
  EXPECT_NE(std::string::npos, text.find("Minimize\nSubject To\n cap: x + y <= 1\nBounds\n x >= 2\n y free\nEnd\n")) << text;
  EXPECT_EQ(std::string::npos, text.find("other"));
  VRXfreemodel(m);
}

TEST_F(LpFile, WriteFailuresAndNoLeakOnFailedAllocations) {
  VRXmodel* m = richModel(env);
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(VRX_ERROR_FILE_WRITE, VRXwrite(m, "/nonexistent/dir/x.lp"));
  EXPECT_STREQ("Unable to open file '/nonexistent/dir/x.lp' for output", VRXgetmerrormsg(m));
  std::string out = dir + "/rich.lp";
  ASSERT_EQ(0, VRXwrite(m, out.c_str()));
  VRXfreemodel(m);

  // Each allocation of the reader fails in turn: 10001, no model, nothing left.
  HookState hooks;
  VRXenv* henv = nullptr;
  ASSERT_EQ(0, loadWithHooks(&henv, &hooks));
  VRXsetintparam(henv, "OutputFlag", 0);
  const long baseline = hooks.live;
  int done = 0;
  for (long k = 0; k < 5000 && !done; ++k) {
    hooks.calls = 0;
    hooks.failAt = k;
    VRXmodel* b = nullptr;
    int rc = VRXreadmodel(henv, out.c_str(), &b);
    hooks.failAt = -1;
    if (rc == 0) {
      done = 1;
      EXPECT_GT(k, 20);
      VRXfreemodel(b);
      break;
    }
    ASSERT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << "allocation " << k;
    ASSERT_EQ(nullptr, b);
    ASSERT_EQ(baseline, hooks.live) << "allocation " << k;
  }
  EXPECT_EQ(1, done);

  // The same for the writer: 10001, nothing left, no file.
  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(henv, out.c_str(), &b));
  const long loaded = hooks.live;
  const std::string again = dir + "/again.lp";
  done = 0;
  for (long k = 0; k < 5000 && !done; ++k) {
    hooks.calls = 0;
    hooks.failAt = k;
    int rc = VRXwrite(b, again.c_str());
    hooks.failAt = -1;
    if (rc == 0) {
      done = 1;
      EXPECT_GT(k, 3);
      break;
    }
    ASSERT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << "allocation " << k;
    ASSERT_EQ(loaded, hooks.live) << "allocation " << k;
    ASSERT_NE(0, access(again.c_str(), F_OK)) << "allocation " << k;
  }
  EXPECT_EQ(1, done);
  VRXfreemodel(b);
  VRXfreeenv(henv);
  EXPECT_EQ(0, hooks.live);
}

std::map<std::string, double> referenceObjectives() { return vrxtest::referenceOptima(""); }

TEST_F(LpFile, OtherSolversReadOurFilesToTheReferenceOptimum) {
  const bool glpk = vrxtest::onPath("glpsol"), coin = vrxtest::onPath("clp");
  if (!glpk && !coin) GTEST_SKIP() << "neither glpsol nor clp is installed";
  std::map<std::string, double> ref = referenceObjectives();
  // glpsol takes no name that starts with a digit or a period: these models
  // have none. clp reads the others too.
  const char* both[] = {"afiro", "kb2", "stocfor1", "scagr7", "israel", "recipe", "vtpbase"};
  const char* clpOnly[] = {"adlittle", "blend", "sc105", "share2b", "boeing1"};
  int solved = 0;
  for (int pass = 0; pass < 2; ++pass) {
    const char* const* names = pass == 0 ? both : clpOnly;
    const int count = pass == 0 ? 7 : 5;
    for (int k = 0; k < count; ++k) {
      const std::string name = names[k];
      SCOPED_TRACE(name);
      ASSERT_TRUE(ref.count(name));
      VRXmodel* m = nullptr;
      ASSERT_EQ(0, VRXreadmodel(env, shared("netlib", name).c_str(), &m));
      std::string out = dir + "/" + name + ".lp";
      ASSERT_EQ(0, VRXwrite(m, out.c_str()));
      VRXfreemodel(m);
      const double want = ref[name];
      const double tol = 1e-6 * std::max(1.0, std::fabs(want));
      if (glpk && pass == 0) {
        std::string sol = dir + "/" + name + ".glpk";
        double got = vrxtest::valueAfter("glpsol --lp " + out + " -o " + sol + " >/dev/null 2>&1; cat " + sol,
                               "Objective:  obj = ");
        EXPECT_NEAR(want, got, tol) << "glpsol";
        ++solved;
      }
      if (coin) {
        double got = vrxtest::valueAfter("clp " + out + " -solve 2>&1", "Optimal objective ");
        EXPECT_NEAR(want, got, tol) << "clp";
        ++solved;
      }
    }
  }
  EXPECT_GT(solved, 0);
}

}  // namespace

namespace {

// Faults the fuzzer found, kept as plain cases.
TEST_F(LpFile, FuzzerFindingsStayFixed) {
  // An SOS set without members reads, and writes back.
  VRXmodel* m = read("min\n x\nst\n c: x >= 1\nsos\n s1: S1 ::\n s2: S2 :: x:1\nend\n");
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(2, m->data->numSOS);
  VRXfreemodel(m);
  // A name that C reads as a hexadecimal number, and numeric names, stay
  // names in the MPS file's general constraints.
  m = read("min\n x\nst\n c: x + y >= 1\ngeneral constraints\n"
           " g: r = MAX ( 0x1p3 , 7 , y , 2 )\n h: 1e5 = AND ( b )\nend\n");
  ASSERT_NE(nullptr, m);
  const std::string out = dir + "/names.mps";
  ASSERT_EQ(0, VRXwrite(m, out.c_str()));
  VRXmodel* b = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b)) << VRXgeterrormsg(env);
  ASSERT_EQ(2, b->data->numGenConstrs);
  const VRXgenconstr& g = b->data->genConstrs[0];
  ASSERT_EQ(2, g.count);  // 0x1p3 and y; 7 and 2 are constants
  EXPECT_EQ("0x1p3", varName(b->data, g.vars[0]));
  EXPECT_EQ(7.0, g.constant);
  EXPECT_EQ("1e5", varName(b->data, b->data->genConstrs[1].resultVar));
  VRXfreemodel(b);
  VRXfreemodel(m);
}

}  // namespace

namespace {

TEST_F(LpFile, NamesTheReaderWouldMisreadAdviseRlp) {
  struct Case {
    const char* name;
    bool withMax;  // a MAX constraint takes the variable as an operand
    bool advised;
  };
  const Case cases[] = {{"plain", false, false}, {"Constant", false, true}, {"Constant3", false, true},
                        {"__pwl(x)", false, true}, {"end", false, true},     {"a^b", false, true},
                        {"<=", false, true},       {"[", false, true},       {"a\\b", false, true},
                        {"7", false, false},       {"7", true, true},        {"ok7", true, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const char* vn[] = {c.name, "y", "r"};
    double obj[] = {1, 2, 0};
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXnewmodel(env, &m, "n", 3, obj, nullptr, nullptr, nullptr, const_cast<char**>(vn)));
    int ind[] = {0, 1};
    double val[] = {3, 1};
    ASSERT_EQ(0, VRXaddconstr(m, 2, ind, val, '>', 1, "c"));
    if (c.withMax) ASSERT_EQ(0, VRXaddgenconstrMax(m, "g", 2, 2, ind, 1.0));
    ASSERT_EQ(0, VRXupdatemodel(m));
    captureLogOf(VRXgetenv(m));
    const std::string out = dir + "/n.lp";
    ASSERT_EQ(0, VRXwrite(m, out.c_str()));
    EXPECT_EQ(c.advised, logged("Warning: to let Vornix read it back, use rlp format\n"));
    // Without the advice the file reads back as written.
    if (!c.advised) {
      VRXmodel* b = nullptr;
      ASSERT_EQ(0, VRXreadmodel(env, out.c_str(), &b)) << capturedLog();
      EXPECT_EQ(3, b->data->numVars);
      const int j = var(b, c.name);
      ASSERT_GE(j, 0);
      EXPECT_EQ(1.0, b->data->obj[j]);
      EXPECT_EQ(3.0, b->data->val[b->data->colBeg[j]]);
      EXPECT_EQ(m->data->numGenConstrs, b->data->numGenConstrs);
      if (c.withMax) EXPECT_EQ(2, b->data->genConstrs[0].count);
      VRXfreemodel(b);
    }
    VRXfreemodel(m);
  }
}

}  // namespace
