// The MPS reader on hand-written files and on the shared benchmark sets.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "io/mps.h"
#include "io/stream.h"
#include "vornix_c.h"

namespace {

class MpsRead : public ::testing::Test {
 protected:
  VRXenv* env = nullptr;
  vrx::MpsData d{};
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    captureLogOf(env);
  }
  void TearDown() override {
    vrx::mpsDataFree(env, &d);
    VRXfreeenv(env);
  }
  int readText(const std::string& text) {
    char path[128];
    std::snprintf(path, sizeof path, "/tmp/vrx_mps_%d.mps", static_cast<int>(getpid()));
    {
      std::ofstream f(path);
      f << text;
    }
    int rc = readFile(path);
    std::remove(path);
    return rc;
  }
  int readFile(const char* path) {
    vrx::mpsDataFree(env, &d);
    int err = 0;
    vrx::Stream* s = vrx::streamOpen(env, path, 'r', &err);
    if (!s) return err;
    int rc = vrx::mpsRead(env, s, path, &d);
    vrx::streamClose(s);
    return rc;
  }
  int col(const char* name) const {
    for (int j = 0; j < d.numCols; ++j)
      if (std::string(d.colNames[j]) == name) return j;
    return -1;
  }
  double coef(int row, int j) const {
    for (int64_t p = d.colBeg[j]; p < d.colBeg[j] + d.colLen[j]; ++p)
      if (d.rowInd[p] == row) return d.val[p];
    return 0.0;
  }
};

}  // namespace

TEST_F(MpsRead, SectionsBoundsRangesAndMarkers) {
  ASSERT_EQ(0, readText("* comment\n"
                        "NAME          TESTLP\n"
                        "OBJSENSE\n"
                        "    MAX\n"
                        "ROWS\n"
                        " N  COST\n"
                        " L  LIM1\n"
                        " G  LIM2\n"
                        " E  MYEQN\n"
                        " G  R4\n"
                        " N  SECOND\n"
                        "COLUMNS\n"
                        "    X1        COST         1.0   LIM1         1.0\n"
                        "    X1        LIM2         1.0   SECOND       3.0\n"
                        "    MARKER                 'MARKER'                 'INTORG'\n"
                        "    X2        COST         2.0   LIM1         1.0\n"
                        "    X2        MYEQN       -1.0   X2           1.0\n"
                        "    MARKER                 'MARKER'                 'INTEND'\n"
                        "    X3        COST        -1.0   MYEQN        1.0\n"
                        "    X3        R4           1e-14\n"
                        "RHS\n"
                        "    RHS       LIM1         4.0   LIM2         1.0\n"
                        "    RHS       MYEQN        7.0   COST        -2.5\n"
                        "RANGES\n"
                        "    RNG       LIM1         2.5   MYEQN       -3.0\n"
                        "    RNG       R4           0\n"
                        "BOUNDS\n"
                        " UP BND       X1           4.0\n"
                        " MI BND       X2\n"
                        " UP BND       X2           1.0\n"
                        " BV BND       X3\n"
                        " UP BND       X1           5.0\n"
                        "ENDATA\n"));
  EXPECT_STREQ("TESTLP", d.modelName);
  EXPECT_EQ(-1, d.objSense);
  EXPECT_EQ(2.5, d.objCon);
  ASSERT_EQ(4, d.numRows);
  ASSERT_EQ(6, d.numCols);  // three columns and three range slacks
  int x1 = col("X1"), x2 = col("X2"), x3 = col("X3");
  ASSERT_GE(x1, 0);
  EXPECT_EQ(1.0, d.obj[x1]);
  EXPECT_EQ(2.0, d.obj[x2]);
  EXPECT_EQ('C', d.vtype[x1]);
  EXPECT_EQ('I', d.vtype[x2]);
  EXPECT_EQ('B', d.vtype[x3]);
  EXPECT_EQ(5.0, d.ub[x1]);  // the last repeated bound wins
  EXPECT_EQ(-1e100, d.lb[x2]);
  EXPECT_EQ(1.0, d.ub[x2]);
  EXPECT_EQ(0.0, coef(3, x3));  // the small coefficient was dropped
  EXPECT_EQ(1.0, coef(0, x1));
  EXPECT_EQ(-1.0, coef(2, x2));
  // Ranged rows become equalities at their upper side with a slack of the width.
  EXPECT_EQ('=', d.sense[0]);
  EXPECT_EQ(4.0, d.rhs[0]);
  int s0 = col("MPS_RgLIM1");
  ASSERT_GE(s0, 0);
  EXPECT_EQ(1.0, coef(0, s0));
  EXPECT_EQ(0.0, d.lb[s0]);
  EXPECT_EQ(2.5, d.ub[s0]);
  EXPECT_EQ('>', d.sense[1]);
  EXPECT_EQ(7.0, d.rhs[2]);  // E with negative range: [4, 7]
  EXPECT_EQ(3.0, d.ub[col("MPS_RgMYEQN")]);
  EXPECT_EQ(0.0, d.ub[col("MPS_RgR4")]);  // a zero range on a G row
  const std::string& log = capturedLog();
  EXPECT_NE(std::string::npos, log.find("Warning: more than one unconstrained row,\n"
                                        "         using the first one as the objective.\n"));
  EXPECT_NE(std::string::npos, log.find("Warning: row name X2 in column section at line 17 not defined.\n"));
  EXPECT_NE(std::string::npos, log.find("Warning: mps file contains small (< 1e-13) coefficients, ignored\n"));
  EXPECT_NE(std::string::npos, log.find("Warning: duplicate bounds for column X1.\n"));
}

TEST_F(MpsRead, FreeFixedAndOddForms) {
  // Fixed columns with a blank inside names; no RHS, RANGES or BOUNDS.
  ASSERT_EQ(0, readText("NAME\n"
                        "ROWS\n"
                        " N  obj\n"
                        " L  ROW 1\n"
                        "COLUMNS\n"
                        "    COL A     obj       1.0          ROW 1     2.0\n"
                        "    COL B     ROW 1     3.0\n"
                        "ENDATA\n"));
  ASSERT_EQ(2, d.numCols);
  EXPECT_STREQ("ROW 1", d.rowNames[0]);
  EXPECT_STREQ("COL A", d.colNames[0]);
  EXPECT_EQ(3.0, coef(0, col("COL B")));
  EXPECT_EQ(1e100, d.ub[0]);

  // Free form with long names, one-line OBJSENSE, RHS without a set name,
  // a negative upper bound kept as given, repeated entries added up.
  ASSERT_EQ(0, readText("NAME free\nOBJSENSE MAXIMIZE\nROWS\n N obj\n G a_long_row_name\n"
                        "COLUMNS\n a_long_column_name obj 1 a_long_row_name 2\n"
                        " a_long_column_name a_long_row_name 1.5\n"
                        "RHS\n a_long_row_name 3\n"
                        "BOUNDS\n UP BND a_long_column_name -2\nENDATA\n"));
  EXPECT_EQ(-1, d.objSense);
  EXPECT_EQ(3.5, coef(0, 0));
  EXPECT_EQ(3.0, d.rhs[0]);
  EXPECT_EQ(0.0, d.lb[0]);
  EXPECT_EQ(-2.0, d.ub[0]);
  EXPECT_NE(std::string::npos, capturedLog().find(
      "Warning: duplicate nonzeros for column a_long_column_name and row a_long_row_name.\n"));

  // Quadratic objective: upper triangle, and the full symmetric form.
  ASSERT_EQ(0, readText("NAME q\nROWS\n N obj\n L c\nCOLUMNS\n x obj 1 c 1\n y c 1\n"
                        "RHS\n rhs c 1\nQUADOBJ\n x x 2\n x y 3\n y y 4\nENDATA\n"));
  ASSERT_EQ(3, d.numQNZs);
  ASSERT_EQ(0, readText("NAME q\nROWS\n N obj\n L c\nCOLUMNS\n x obj 1 c 1\n y c 1\n"
                        "QMATRIX\n x x 2\n x y 3\n y x 3\n y y 4\nENDATA\n"));
  ASSERT_EQ(3, d.numQNZs);
  double sum = 0;
  for (int k = 0; k < d.numQNZs; ++k) sum += d.qVal[k];
  EXPECT_EQ(1.0 + 3.0 + 2.0, sum);  // 1/2 x'Qx: x^2 + 3xy + 2y^2
}

TEST_F(MpsRead, MalformedFilesFailWithTheirTexts) {
  struct Case {
    const char* text;
    const char* error;
  };
  const Case cases[] = {
      {"NAME x\nCOLUMNS\n x obj 1\nENDATA\n", "MPS reader: no row section\n"},
      {"NAME x\nROWS\n N obj\nRHS\nENDATA\n", "MPS reader: no column section\n"},
      {"NAME x\nROWS\n N obj\nCOLUMNS\n x obj 1\n", "MPS reader: line 5 not right or no ENDATA\n"},
      {"NAME x\nROWS\n N obj\nCOLUMNS\nENDATA\n", "MPS reader: no columns\n"},
      {"NAME x\nROWS\n Q obj\nENDATA\n", "MPS read error at line 3:\n Q obj\n"},
      {"NAME x\nROWS\n N obj\nCOLUMNS\n x obj abc\nENDATA\n",
       "MPS read error at line 5:\n x obj abc\n"},
      {"NAME x\nROWS\n N obj\nCOLUMNS\n x obj 1\nBOGUS\nENDATA\n", "MPS read error at line 6:\nBOGUS\n"},
      {"NAME x\nROWS\n N o\nCOLUMNS\n x o 1\n y o 1\nQMATRIX\n x y 1\nENDATA\n",
       "Qmatrix isn't symmetric\n"},
      {"NAME x\nROWS\n N o\nCOLUMNS\n x o 1\nQUADOBJ\n x x 1\n x x 2\nENDATA\n",
       "Duplicate quadratic elements\n"},
      {"NAME x\nROWS\n N o\nCOLUMNS\n x o 1\n y o 1\nBOUNDS\n UP BND x\nENDATA\n",
       "MPS read error at line 8:\n UP BND x\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    VRXmsg(env, "");
    EXPECT_EQ(VRX_ERROR_FILE_READ, readText(c.text));
    EXPECT_STREQ(c.error, VRXgeterrormsg(env));
    EXPECT_NE(std::string::npos, capturedLog().find("Error in MPS file\n"));
    EXPECT_EQ(nullptr, d.obj);
    vrx::setError(env, 0);
    capturedLog().clear();
  }
}

TEST_F(MpsRead, EveryBenchmarkFileReads) {
  std::ifstream ref(std::string(VRX_SHARED_DATA) + "/reference.csv");
  std::string line;
  std::getline(ref, line);
  int files = 0;
  while (std::getline(ref, line)) {
    std::string name = line.substr(0, line.find(','));
    std::string set = line.substr(line.find(',') + 1);
    set = set.substr(0, set.find(','));
    std::string path = std::string(VRX_SHARED_DATA) + "/" + set + "/" + name + ".mps.gz";
    SCOPED_TRACE(path);
    ASSERT_EQ(0, readFile(path.c_str())) << VRXgeterrormsg(env);
    EXPECT_GT(d.numRows, 0);
    EXPECT_GT(d.numCols, 0);
    EXPECT_EQ(d.colBeg[d.numCols], d.numNZs);
    ++files;
  }
  EXPECT_EQ(111, files);
}

TEST_F(MpsRead, BadInputGivesWarningsOrALineError) {
  // Unknown names and repeated entries are warned about, and the read goes on.
  ASSERT_EQ(0, readText("NAME w\nROWS\n N obj\n L r\n E e\nCOLUMNS\n x obj 1 r 1\n x e 1\n"
                        " bnd r 1\n 7 r 1\n"
                        "RHS\n rhs r 4 nope 1\n rhs r 5\nRANGES\n rng e 2 nope 1\n rng obj 1\n"
                        " rng e 3\nBOUNDS\n UP bnd ghost 1\n FR bnd 7\nENDATA\n"));
  const std::string& log = capturedLog();
  for (const char* line : {"Warning: row name nope in rhs section not defined.\n",
                           "Warning: duplicate row r in rhs section.\n",
                           "Warning: range row nope isn't defined in row section.\n",
                           "Warning: range row obj for objective isn't supported.\n",
                           "Warning: duplicate range row e.\n",
                           "Warning: column name ghost in bound section not defined\n"})
    EXPECT_NE(std::string::npos, log.find(line)) << line;
  EXPECT_EQ(5.0, d.rhs[0]);        // the last entry wins
  // "FR bnd 7" frees the column 7 of the set bnd, though bnd is a column too.
  EXPECT_EQ(-1e100, d.lb[col("7")]);
  EXPECT_EQ(0.0, d.lb[col("bnd")]);
  EXPECT_EQ(3.0, d.ub[col("MPS_Rge")]);

  // Numbers beyond infinity, overflows included, are infinity: 1e100.
  ASSERT_EQ(0, readText("NAME x\nROWS\n N obj\n L r\nCOLUMNS\n x obj 1e400 r -inf\n"
                        "RHS\n rhs obj 1e999\nRANGES\n rng r inf\nQUADOBJ\n x x 1e308\nENDATA\n"));
  EXPECT_EQ(1e100, d.obj[col("x")]);
  EXPECT_EQ(-1e100, coef(0, col("x")));
  EXPECT_EQ(-1e100, d.objCon);
  EXPECT_EQ(1e100, d.ub[col("MPS_Rgr")]);
  ASSERT_EQ(1, d.numQNZs);
  EXPECT_EQ(0.5e100, d.qVal[0]);

  // Texts that are no numbers, overlong names and lines, NUL bytes and
  // binary garbage end the read at their line.
  const std::string head = "NAME x\nROWS\n N obj\n L r\nCOLUMNS\n";
  struct Case {
    std::string text;
    int line;
  };
  const std::string longName(256, 'n');
  const Case cases[] = {
      {head + " x obj nan\nENDATA\n", 6},
      {head + " x obj 1 r 0x10\nENDATA\n", 6},
      {head + " x r 1\nQUADOBJ\n x x 1,5\nENDATA\n", 8},
      {head + " x r 1\nRHS\n rhs obj --1\nENDATA\n", 8},
      {head + " x r 1\nRANGES\n rng r NaN\nENDATA\n", 8},
      {head + " " + longName + " r 1\nENDATA\n", 6},
      {head + " x r 1\n" + std::string(1 << 21, 'y') + "\nENDATA\n", 7},
      {head + std::string(" x r 1\0 junk\n", 13) + "ENDATA\n", 6},
      {head + " x r 1\n\x89PNG\x1a\x0b\xff\xfe\nENDATA\n", 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 120));
    capturedLog().clear();
    vrx::setError(env, 0);
    EXPECT_EQ(VRX_ERROR_FILE_READ, readText(c.text));
    const std::string want = "MPS read error at line " + std::to_string(c.line) + ":\n";
    EXPECT_EQ(0, std::string(VRXgeterrormsg(env)).compare(0, want.size(), want)) << VRXgeterrormsg(env);
    EXPECT_NE(std::string::npos, capturedLog().find("Error at line " + std::to_string(c.line) + ":\n"));
    // Long lines are cut short in the log.
    EXPECT_LT(capturedLog().size(), 1000u);
    EXPECT_EQ(nullptr, d.obj);
  }
  // Texts of their own: an unknown quadratic column, too many fields.
  capturedLog().clear();
  EXPECT_EQ(VRX_ERROR_FILE_READ, readText(head + " x r 1\nQUADOBJ\n x z 1\nENDATA\n"));
  EXPECT_NE(std::string::npos, capturedLog().find("  variable name in the quadratic section not found\n"));
  EXPECT_STREQ("MPS read error at line 8:\n x z 1\n", VRXgeterrormsg(env));
  capturedLog().clear();
  EXPECT_EQ(VRX_ERROR_FILE_READ, readText(head + " x obj 1 r 1 s 2 t\nENDATA\n"));
  EXPECT_NE(std::string::npos, capturedLog().find("Error: not free format mps file.\n"));
  EXPECT_STREQ("MPS reader: not free format\n", VRXgeterrormsg(env));
  // A model without objective coefficients reads, with a warning.
  capturedLog().clear();
  ASSERT_EQ(0, readText(head + " x r 1\nENDATA\n"));
  EXPECT_NE(std::string::npos, capturedLog().find("Warning: no linear objective.\n"));
}

TEST_F(MpsRead, OldSosMarkersNumberTheirMembers) {
  ASSERT_EQ(0, readText("NAME s\nROWS\n N obj\n L r\nCOLUMNS\n"
                        "    MARKER  'MARKER'  'SOSORG'\n a r 1\n b r 1\n c r 1\n"
                        "    MARKER  'MARKER'  'SOSEND'\n"
                        " S2 SOS       'MARKER'                 'SOSORG'\n d r 1\n e r 1\n"
                        "    MARKER  'MARKER'  'SOSEND'\n f obj 1\nENDATA\n"));
  ASSERT_EQ(2, d.numSOS);
  EXPECT_EQ(1, d.sosType[0]);
  EXPECT_EQ(2, d.sosType[1]);
  ASSERT_EQ(3, d.sosBeg[1] - d.sosBeg[0]);
  ASSERT_EQ(2, d.sosBeg[2] - d.sosBeg[1]);
  for (int k = 0; k < 3; ++k) EXPECT_EQ(k + 1.0, d.sosWeight[d.sosBeg[0] + k]);
  EXPECT_EQ(1.0, d.sosWeight[d.sosBeg[1]]);
  EXPECT_EQ(2.0, d.sosWeight[d.sosBeg[1] + 1]);
}
