// The parameter table: rows, lookup, typed and text setters, files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>
#include <zlib.h>

#include "../support/capture.h"
#include "env/env.h"
#include "vornix_c.h"

namespace {

struct Row {
  bool isPublic;
  std::string name, type, min, max, def;
};

std::vector<Row> loadTable() {
  std::vector<Row> rows;
  std::ifstream in(std::string(VRX_TEST_DIR) + "/env/param_table.txt");
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream ss(line);
    Row r;
    std::string vis;
    ss >> vis >> r.name >> r.type >> r.min >> r.max >> r.def;
    r.isPublic = vis == "public";
    rows.push_back(r);
  }
  return rows;
}

std::string tempPath(const char* tag) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "/tmp/vrx_par_%d_%s", static_cast<int>(getpid()), tag);
  return buf;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

class Params : public ::testing::Test {
 protected:
  VRXenv* env = nullptr;
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    captureLogOf(env);
  }
  void TearDown() override { VRXfreeenv(env); }
  std::string err() const { return VRXgeterrormsg(env); }
};

}  // namespace

TEST_F(Params, EveryRowHasItsTypeRangeAndDefault) {
  std::vector<Row> rows = loadTable();
  ASSERT_EQ(296u, rows.size());
  int publicCount = 0;
  for (const Row& r : rows) publicCount += r.isPublic;
  ASSERT_EQ(publicCount, VRXgetnumparams(env));
  int pub = 0;
  for (const Row& r : rows) {
    SCOPED_TRACE(r.name);
    if (r.isPublic) {
      char* name = nullptr;
      ASSERT_EQ(0, VRXgetparamname(env, pub++, &name));
      EXPECT_EQ(r.name, name);
    }
    if (r.type == "int") {
      ASSERT_EQ(VRX_PARAM_INT, VRXgetparamtype(env, r.name.c_str()));
      int v, mn, mx, df;
      ASSERT_EQ(0, VRXgetintparaminfo(env, r.name.c_str(), &v, &mn, &mx, &df));
      EXPECT_EQ(std::atoi(r.min.c_str()), mn);
      EXPECT_EQ(static_cast<int>(std::strtod(r.max.c_str(), nullptr)), mx);
      EXPECT_EQ(static_cast<int>(std::strtod(r.def.c_str(), nullptr)), df);
      if (r.name != "OutputFlag" && r.name != "LogToConsole") EXPECT_EQ(df, v);
      // The bounds themselves are accepted, one beyond is refused.
      if (r.name == "Record" || r.name == "OutputFlag" || r.name == "LogToConsole") continue;
      EXPECT_EQ(0, VRXsetintparam(env, r.name.c_str(), mx));
      EXPECT_EQ(0, VRXsetintparam(env, r.name.c_str(), mn));
      if (mn > -2000000000) EXPECT_EQ(10008, VRXsetintparam(env, r.name.c_str(), mn - 1));
      if (mx < 2000000000) EXPECT_EQ(10008, VRXsetintparam(env, r.name.c_str(), mx + 1));
      VRXsetintparam(env, r.name.c_str(), df);
    } else if (r.type == "double") {
      ASSERT_EQ(VRX_PARAM_DOUBLE, VRXgetparamtype(env, r.name.c_str()));
      double v, mn, mx, df;
      ASSERT_EQ(0, VRXgetdblparaminfo(env, r.name.c_str(), &v, &mn, &mx, &df));
      EXPECT_EQ(std::strtod(r.min.c_str(), nullptr), mn);
      EXPECT_EQ(std::strtod(r.max.c_str(), nullptr), mx);
      EXPECT_EQ(std::strtod(r.def.c_str(), nullptr), df);
      EXPECT_EQ(df, v);
      EXPECT_EQ(0, VRXsetdblparam(env, r.name.c_str(), mx));
      EXPECT_EQ(0, VRXsetdblparam(env, r.name.c_str(), mn));
      if (mn > -1e100) EXPECT_EQ(10008, VRXsetdblparam(env, r.name.c_str(), mn - 1e-3 * (1 + std::fabs(mn))));
      if (mx < 1e100) EXPECT_EQ(10008, VRXsetdblparam(env, r.name.c_str(), mx + 1e-3 * (1 + std::fabs(mx))));
      VRXsetdblparam(env, r.name.c_str(), df);
    } else {
      ASSERT_EQ(VRX_PARAM_STRING, VRXgetparamtype(env, r.name.c_str()));
      char v[513], df[513];
      ASSERT_EQ(0, VRXgetstrparaminfo(env, r.name.c_str(), v, df));
      EXPECT_STREQ(r.def == "-" ? "" : r.def.c_str(), df);
      EXPECT_STREQ(df, v);
    }
  }
  char* name = nullptr;
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXgetparamname(env, publicCount, &name));
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXgetparamname(env, -1, &name));
}

TEST_F(Params, NamesAreNormalisedAndTypesChecked) {
  int v = 0;
  EXPECT_EQ(0, VRXsetdblparam(env, "time_limit", 7));
  double t = 0;
  EXPECT_EQ(0, VRXgetdblparam(env, "TIMELIMIT", &t));
  EXPECT_EQ(7, t);
  EXPECT_EQ(0, VRXgetdblparam(env, "Time_Limit", &t));
  EXPECT_EQ(10007, VRXgetintparam(env, "vorn_par_zero", &v));  // a double row
  EXPECT_EQ(10007, VRXgetintparam(env, "time_limit", &v));
  EXPECT_EQ("Wrong type for parameter: time_limit", err());
  EXPECT_EQ(10007, VRXgetintparam(env, "_TimeLimit", &v));
  EXPECT_EQ("Unknown parameter: _TimeLimit", err());
  EXPECT_EQ(10007, VRXsetintparam(env, nullptr, 1));
  EXPECT_EQ(10007, VRXgetintparam(env, "NoSuchParameter", &v));
  EXPECT_EQ("Unknown parameter: NoSuchParameter", err());
  EXPECT_EQ(-1, VRXgetparamtype(env, "NoSuchParameter"));
  EXPECT_EQ("Unknown parameter: NoSuchParameter", err());
  // Hidden rows are reachable by name though never listed.
  double zero = 0;
  EXPECT_EQ(0, VRXgetdblparam(env, "VORN_PAR_ZERO", &zero));
  EXPECT_EQ(1e-13, zero);
  EXPECT_EQ(0, VRXsetdblparam(env, "vorn_par_Zero", 1e-12));
  EXPECT_EQ(1e-12, env->par.VORN_PAR_ZERO);
  // A success clears the text of an earlier failure.
  EXPECT_EQ(0, VRXgetintparam(env, "Threads", &v));
  EXPECT_EQ("", err());
  EXPECT_EQ(10002, VRXgetintparam(env, "Threads", nullptr));
}

TEST_F(Params, RangeMessagesAndStoredValues) {
  EXPECT_EQ(10008, VRXsetintparam(env, "Threads", 1025));
  EXPECT_EQ("Unable to set parameter Threads to value 1025 (maximum is 1024)", err());
  EXPECT_EQ(10008, VRXsetintparam(env, "SolutionLimit", 0));
  EXPECT_EQ("Unable to set parameter SolutionLimit to value 0 (minimum is 1)", err());
  EXPECT_EQ(10008, VRXsetdblparam(env, "MIPGap", -0.5));
  EXPECT_EQ("Unable to set parameter MIPGap to value -0.5 (minimum is 0)", err());
  EXPECT_EQ(10008, VRXsetdblparam(env, "FeasibilityTol", 0.5));
  EXPECT_EQ("Unable to set parameter FeasibilityTol to value 0.5 (maximum is 0.01)", err());
  EXPECT_EQ(10008, VRXsetdblparam(env, "TimeLimit", std::nan("")));
  EXPECT_EQ(1e100, env->par.TimeLimit);  // failures leave the old value
  // Values beyond the clamp are clamped before the range test.
  EXPECT_EQ(0, VRXsetdblparam(env, "TimeLimit", 1e300));
  EXPECT_EQ(1e100, env->par.TimeLimit);
  EXPECT_EQ(0, VRXsetintparam(env, "SolutionLimit", 2147483647));
  EXPECT_EQ(2000000000, env->par.SolutionLimit);
  EXPECT_EQ(0, VRXsetintparam(env, "Threads", 4));
  EXPECT_EQ(4, env->par.Threads);
  EXPECT_EQ(0, VRXsetstrparam(env, "ResultFile", "out.sol"));
  char buf[513];
  VRXgetstrparam(env, "ResultFile", buf);
  EXPECT_STREQ("out.sol", buf);
  EXPECT_EQ(10002, VRXsetstrparam(env, "ResultFile", nullptr));
  EXPECT_EQ(10007, VRXsetstrparam(env, "Threads", "4"));
  EXPECT_EQ("Wrong type for parameter: Threads", err());
}

TEST_F(Params, TextForms) {
  EXPECT_EQ(0, VRXsetparam(env, "TimeLimit", "inf"));
  EXPECT_EQ(1e100, env->par.TimeLimit);
  EXPECT_EQ(0, VRXsetparam(env, "Cutoff", "-infinity"));
  EXPECT_EQ(-1e100, env->par.Cutoff);
  EXPECT_EQ(0, VRXsetparam(env, "Cutoff", "information"));  // spellings are prefixes
  EXPECT_EQ(1e100, env->par.Cutoff);
  EXPECT_EQ(0, VRXsetparam(env, "Cutoff", "-1.#INF"));
  EXPECT_EQ(-1e100, env->par.Cutoff);
  EXPECT_EQ(0, VRXsetparam(env, "NodeLimit", "inf"));
  EXPECT_EQ(0, VRXsetparam(env, "Cutoff", "12.5"));
  EXPECT_EQ(12.5, env->par.Cutoff);
  EXPECT_EQ(10008, VRXsetparam(env, "Threads", "2.5"));
  EXPECT_EQ("Invalid value '2.5' for parameter 'Threads'", err());
  EXPECT_EQ(0, VRXsetparam(env, "Threads", "2.00000000001"));
  EXPECT_EQ(2, env->par.Threads);
  EXPECT_EQ(10008, VRXsetparam(env, "Threads", "abc"));
  EXPECT_EQ("Invalid value 'abc' for parameter 'Threads'", err());
  EXPECT_EQ(10008, VRXsetparam(env, "Seed", "3e9"));
  EXPECT_EQ(0, VRXsetparam(env, "SolutionLimit", "inf"));
  EXPECT_EQ(2000000000, env->par.SolutionLimit);
  EXPECT_EQ(0, VRXsetparam(env, "VORN_PAR_ITEST", "-inf"));
  EXPECT_EQ(-2000000000, env->par.VORN_PAR_ITEST);
  EXPECT_EQ(10008, VRXsetparam(env, "Threads", "inf"));  // 2e9 is beyond 1024
  EXPECT_EQ("Unable to set parameter Threads to value 2000000000 (maximum is 1024)", err());
  EXPECT_EQ(0, VRXsetparam(env, "NodefileDir", "/tmp/x y"));
  char buf[513];
  VRXgetstrparam(env, "NodefileDir", buf);
  EXPECT_STREQ("/tmp/x y", buf);
  EXPECT_EQ(10007, VRXsetparam(env, "Nonsense", "1"));
  EXPECT_EQ("Unknown parameter: 'Nonsense'", err());
  EXPECT_EQ(10002, VRXsetparam(env, "Threads", nullptr));

  // Dummy reaches a numeric row through the string call.
  EXPECT_EQ(0, VRXsetstrparam(env, "Dummy", "Seed 17"));
  EXPECT_EQ(17, env->par.Seed);
  EXPECT_EQ(0, VRXsetstrparam(env, "Dummy", "MIPGap 0.25"));
  EXPECT_EQ(0.25, env->par.MIPGap);
  EXPECT_EQ(10008, VRXsetstrparam(env, "Dummy", "Threads 5000"));
  EXPECT_EQ("Unable to set parameter Threads to value 5000 (maximum is 1024)", err());
  EXPECT_EQ(10007, VRXsetstrparam(env, "Dummy", "Seed"));
  EXPECT_EQ(10007, VRXsetstrparam(env, "Dummy", "Bogus 1"));
  char dummy[513];
  VRXgetstrparam(env, "Dummy", dummy);
  EXPECT_STREQ("", dummy);
}

TEST_F(Params, ResetCopyAndRecordWarnings) {
  std::string logPath = tempPath("reset.log");
  ASSERT_EQ(0, VRXsetstrparam(env, "LogFile", logPath.c_str()));
  VRXsetintparam(env, "Seed", 4);
  VRXsetdblparam(env, "MIPGap", 0.5);
  VRXsetstrparam(env, "NodefileDir", "/tmp");
  ASSERT_EQ(0, VRXresetparams(env));
  EXPECT_EQ(0, env->par.Seed);
  EXPECT_EQ(1e-4, env->par.MIPGap);
  char buf[513];
  VRXgetstrparam(env, "LogFile", buf);
  EXPECT_EQ(logPath, buf);
  VRXgetstrparam(env, "NodefileDir", buf);
  EXPECT_STREQ("/tmp", buf);

  VRXenv* other = nullptr;
  ASSERT_EQ(0, VRXloadenv(&other, nullptr));
  VRXsetintparam(other, "OutputFlag", 0);
  VRXsetintparam(other, "Threads", 9);  // reset by the copy
  VRXsetintparam(env, "Seed", 8);
  VRXsetdblparam(env, "VORN_PAR_BIGM", 12345);
  VRXsetintparam(env, "OutputFlag", 0);
  ASSERT_EQ(0, VRXcopyparams(other, env));
  EXPECT_EQ(8, other->par.Seed);
  EXPECT_EQ(12345, other->par.VORN_PAR_BIGM);
  EXPECT_EQ(0, other->par.Threads);
  EXPECT_EQ(0, other->par.OutputFlag);
  EXPECT_STREQ("/tmp", other->par.NodefileDir);
  VRXgetstrparam(other, "LogFile", buf);
  EXPECT_STREQ("", buf);  // never copied
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXcopyparams(other, nullptr));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXcopyparams(nullptr, env));
  VRXfreeenv(other);

  // Recording is refused with a warning on a tuning binding and after copies.
  VRXsetintparam(env, "OutputFlag", 1);
  captureLogOf(env);
  VRXenv* tune = nullptr;
  ASSERT_EQ(0, VRXloadenvadv(&tune, nullptr, VRX_API_TUNE, 8, 1, 1, nullptr, nullptr, nullptr,
                             nullptr, 0, -1, nullptr, nullptr, nullptr, nullptr));
  captureLogOf(tune);
  EXPECT_EQ(0, VRXsetintparam(tune, "Record", 1));
  EXPECT_EQ("Warning: recording not possible for tuning\n", capturedLog());
  int err = 0;
  VRXenv* copy = vrx::envCopy(tune, false, &err);
  ASSERT_NE(nullptr, copy);
  capturedLog().clear();
  EXPECT_EQ(0, VRXsetintparam(tune, "Record", 1));
  EXPECT_NE(std::string::npos,
            capturedLog().find(
                "Warning: recording must be requested immediately after environment is created\n"));
  vrx::envFreeRecord(copy);
  VRXfreeenv(tune);
  std::remove(logPath.c_str());
}

TEST_F(Params, FilesRoundTripPlainAndCompressed) {
  for (const char* suffix : {".prm", ".prm.gz", ".prm.bz2", ".prm.zip", ".prm.7z"}) {
    SCOPED_TRACE(suffix);
    std::string path = tempPath("rt") + suffix;
    VRXresetparams(env);
    // All defaults: an empty file.
    ASSERT_EQ(0, VRXwriteparams(env, path.c_str()));
    VRXenv* back = nullptr;
    ASSERT_EQ(0, VRXloadenv(&back, nullptr));
    captureLogOf(back);
    ASSERT_EQ(0, VRXreadparams(back, path.c_str()));
    EXPECT_EQ("", capturedLog());
    if (std::string(suffix) == ".prm") EXPECT_EQ("", readFile(path));

    VRXsetintparam(env, "Threads", 3);
    VRXsetdblparam(env, "MIPGap", 0.125);
    VRXsetdblparam(env, "VORN_PAR_BIGTOL", 1e-5);
    VRXsetintparam(env, "ObjNumber", 2);  // a selector, never written
    VRXsetstrparam(env, "NodefileDir", "/tmp");  // strings are not written
    ASSERT_EQ(0, VRXwriteparams(env, path.c_str()));
    if (std::string(suffix) == ".prm")
      EXPECT_EQ("MIPGap  0.125\nThreads  3\nVORN_PAR_BIGTOL  1e-05\n", readFile(path));
    ASSERT_EQ(0, VRXreadparams(back, path.c_str()));
    EXPECT_EQ(3, back->par.Threads);
    EXPECT_EQ(0.125, back->par.MIPGap);
    EXPECT_EQ(1e-5, back->par.VORN_PAR_BIGTOL);
    EXPECT_EQ(0, back->par.ObjNumber);
    EXPECT_NE(std::string::npos, capturedLog().find("Set parameter Threads to value 3\n"));
    VRXfreeenv(back);
    std::remove(path.c_str());
  }
}

TEST_F(Params, ReadingToleratesTheLineForms) {
  std::string path = tempPath("forms.prm");
  {
    std::ofstream f(path);
    f << "# comment\n\n   \r\n  Threads=4\nSeed=3  trailing words\nMIPGap   =  0.5 x\n"
         "TimeLimit inf\nBogus 1\nAlsoBogus\nThreads 2.5\nLogToConsole 0\n";
  }
  ASSERT_EQ(0, VRXreadparams(env, path.c_str()));
  EXPECT_EQ(4, env->par.Threads);
  EXPECT_EQ(3, env->par.Seed);
  EXPECT_EQ(0.5, env->par.MIPGap);
  EXPECT_EQ(1e100, env->par.TimeLimit);
  EXPECT_EQ(0, env->par.LogToConsole);
  const std::string& log = capturedLog();
  EXPECT_NE(std::string::npos, log.find("Warning: unknown parameter Bogus in " + path + "\n"));
  EXPECT_NE(std::string::npos, log.find("Warning: unknown parameter AlsoBogus in " + path + "\n"));
  EXPECT_NE(std::string::npos, log.find("Failed to set parameter Threads to value 2.5\n"));
  EXPECT_NE(std::string::npos, log.find("2 warnings while reading parameter file " + path + "\n"));
  EXPECT_EQ("", err());
  std::remove(path.c_str());

  // A line of more than 10,000 characters is split, not a crash.
  {
    std::ofstream f(path);
    f << std::string(25000, 'a') << "\nSeed 5\n";
  }
  ASSERT_EQ(0, VRXreadparams(env, path.c_str()));
  EXPECT_EQ(5, env->par.Seed);
  std::remove(path.c_str());

  EXPECT_EQ(10003, VRXreadparams(env, "/nonexistent/dir/x.prm"));
  EXPECT_EQ("Unable to read parameter file /nonexistent/dir/x.prm", err());
  EXPECT_EQ(10003, VRXwriteparams(env, "/nonexistent/dir/x.prm"));
  EXPECT_EQ("Unable to write to parameter file /nonexistent/dir/x.prm", err());
  EXPECT_EQ(10002, VRXreadparams(env, nullptr));
  EXPECT_EQ(10002, VRXwriteparams(env, nullptr));

  // A gzip file written by zlib directly reads the same.
  std::string gz = tempPath("direct.prm.gz");
  gzFile g = gzopen(gz.c_str(), "wb");
  ASSERT_NE(nullptr, g);
  gzputs(g, "Seed 21\n");
  gzclose(g);
  ASSERT_EQ(0, VRXreadparams(env, gz.c_str()));
  EXPECT_EQ(21, env->par.Seed);
  std::remove(gz.c_str());
}

TEST_F(Params, LogRoutineDestinations) {
  std::string path = tempPath("dest.log");
  std::remove(path.c_str());
  ASSERT_EQ(0, VRXsetstrparam(env, "LogFile", path.c_str()));
  VRXmsg(env, "one\n");
  VRXsetintparam(env, "OutputFlag", 0);
  VRXmsg(env, "two\n");  // neither file nor callback
  VRXsetintparam(env, "OutputFlag", 1);
  ASSERT_EQ(0, VRXsetstrparam(env, "LogFile", ""));  // closes the file
  VRXmsg(env, "three\n");
  std::string text = readFile(path);
  EXPECT_NE(std::string::npos, text.find("logging started"));
  EXPECT_NE(std::string::npos, text.find("one\n"));
  EXPECT_EQ(std::string::npos, text.find("two\n"));
  EXPECT_EQ(std::string::npos, text.find("three\n"));
  EXPECT_EQ("one\nthree\n", capturedLog());
  FILE* f = reinterpret_cast<FILE*>(0x1);
  EXPECT_EQ(0, VRXgetlogfile(env, &f));
  EXPECT_EQ(nullptr, f);
  EXPECT_EQ(10002, VRXgetlogfile(env, nullptr));

  // A log file that cannot be opened fails with 10013 and keeps the old one.
  ASSERT_EQ(0, VRXsetstrparam(env, "LogFile", path.c_str()));
  EXPECT_EQ(10013, VRXsetstrparam(env, "LogFile", "/nonexistent/dir/x.log"));
  char buf[513];
  VRXgetstrparam(env, "LogFile", buf);
  EXPECT_EQ(path, buf);
  VRXmsg(env, "four\n");
  EXPECT_NE(std::string::npos, readFile(path).find("four\n"));

  // The thread warning names the smaller of cores and the thread cap.
  capturedLog().clear();
  vrx::threadCountWarning(env, env->coreCount);
  EXPECT_EQ("", capturedLog());
  VRXsetintparam(env, "VORN_PAR_MAXTHREADS", 1);
  vrx::threadCountWarning(env, 3);
  EXPECT_EQ("\nWarning: Thread count (3) is larger than core count (1)\n"
            "         Reduce the value of the Threads parameter to improve performance\n\n",
            capturedLog());
  std::remove(path.c_str());
}
