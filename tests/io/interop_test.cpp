// MPS files we write, solved by other programs: clp (coinor-clp) and glpsol
// (glpk-utils) must reach the reference optimum from our free-form .mps and
// from the fixed-column .rew. Each program that is missing is skipped.
//
// The suite runs a subset chosen for its variety (ranges, free and fixed
// columns, negative bounds, objective constants); VRX_INTEROP_ALL=1 runs
// every shared Netlib model.
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
#include <vector>

#include "vornix_c.h"
#include "../support/shared_data.h"

namespace {

using vrxtest::onPath;
using vrxtest::valueAfter;

// glpsol's report names the objective row: "Objective:  OBJ = -464.75 (MINimum)".
double glpsolObjective(const std::string& options, const std::string& file, const std::string& out) {
  std::string cmd = "glpsol " + options + " '" + file + "' -o '" + out + "' >/dev/null 2>&1; cat '" + out + "'";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return NAN;
  char line[4096];
  double value = NAN;
  while (std::fgets(line, sizeof line, p)) {
    if (std::strncmp(line, "Objective:", 10) != 0) continue;
    const char* eq = std::strchr(line, '=');
    if (eq) value = std::strtod(eq + 1, nullptr);
  }
  pclose(p);
  std::remove(out.c_str());
  return value;
}

std::map<std::string, double> reference() { return vrxtest::referenceOptima("netlib"); }

std::vector<std::string> allNetlib() {
  std::vector<std::string> names;
  DIR* d = opendir((std::string(VRX_SHARED_DATA) + "/netlib").c_str());
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

// True when a file we wrote keeps the classic fixed columns on every line:
// the NAME line bare or with the name in column 15, and on data lines each
// word inside its field (2-3, 5-12, 15-22, 25-36, 40-47, 50-61). The writer
// lines fields up this way only while names have eight characters and
// numbers twelve.
bool fitsFixedColumns(const std::string& path) {
  static const size_t start[6] = {1, 4, 14, 24, 39, 49};
  static const size_t width[6] = {2, 8, 8, 12, 8, 12};
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '*') continue;
    if (line.compare(0, 4, "NAME") == 0) {
      if (line.size() > 5 && (line.size() < 15 || line.find_first_not_of(' ', 4) != 14)) return false;
      continue;
    }
    if (line[0] != ' ') continue;  // a section header
    std::vector<std::string> words, fields;
    std::stringstream ss(line);
    std::string w;
    while (ss >> w) words.push_back(w);
    if (line.size() > start[5] + width[5]) return false;
    for (int k = 0; k < 6; ++k) {
      if (line.size() <= start[k]) break;
      std::string f = line.substr(start[k], width[k]);
      size_t a = f.find_first_not_of(' '), b = f.find_last_not_of(' ');
      if (a != std::string::npos) fields.push_back(f.substr(a, b - a + 1));
    }
    // Blanks between the fields, and no word cut by a field's edge.
    for (size_t p : {size_t(0), size_t(3), size_t(12), size_t(13), size_t(22), size_t(23), size_t(36),
                     size_t(37), size_t(38), size_t(47), size_t(48)})
      if (p < line.size() && line[p] != ' ') return false;
    if (fields != words) return false;
  }
  return true;
}

}  // namespace

TEST(Interop, OtherSolversReadOurMpsFilesToTheReferenceOptimum) {
  const bool glpk = onPath("glpsol"), coin = onPath("clp");
  if (!glpk && !coin) GTEST_SKIP() << "neither glpsol nor clp is installed";
  const std::map<std::string, double> ref = reference();
  std::vector<std::string> names;
  const char* all = std::getenv("VRX_INTEROP_ALL");
  if (all && std::strcmp(all, "1") == 0) {
    names = allNetlib();
  } else {
    // Ranges: boeing2, forplan. Free, fixed and negative bounds: recipe,
    // vtpbase, bore3d, capri, etamacro, finnis. Long names: forplan's slacks.
    // An objective constant: e226.
    names = {"afiro",   "kb2",     "adlittle", "blend",    "share2b", "recipe", "lotfi", "vtpbase",
             "boeing2", "bore3d", "capri",    "etamacro", "finnis",  "forplan", "e226"};
  }
  char dirBuf[128];
  std::snprintf(dirBuf, sizeof dirBuf, "/tmp/vrx_interop_%d", static_cast<int>(getpid()));
  const std::string dir = dirBuf;
  ASSERT_EQ(0, std::system(("mkdir -p " + dir).c_str()));
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXemptyenv(&env));
  ASSERT_EQ(0, VRXsetintparam(env, "OutputFlag", 0));
  ASSERT_EQ(0, VRXstartenv(env));
  int runs = 0, fixedRuns = 0;
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    auto it = ref.find(name);
    ASSERT_NE(ref.end(), it) << "no reference optimum";
    VRXmodel* m = nullptr;
    const std::string src = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
    ASSERT_EQ(0, VRXreadmodel(env, src.c_str(), &m)) << VRXgeterrormsg(env);
    const std::string mps = dir + "/" + name + ".mps", rew = dir + "/" + name + ".rew";
    ASSERT_EQ(0, VRXwrite(m, mps.c_str())) << VRXgeterrormsg(env);
    ASSERT_EQ(0, VRXwrite(m, rew.c_str())) << VRXgeterrormsg(env);
    double objCon = 0;
    int sense = 1;
    ASSERT_EQ(0, VRXgetdblattr(m, "ObjCon", &objCon));
    ASSERT_EQ(0, VRXgetintattr(m, "ModelSense", &sense));
    ASSERT_EQ(1, sense);  // the Netlib models minimise
    // A model without a name has a bare NAME line, which fixed-form readers take.
    const std::string mps0 = dir + "/" + name + "_0.mps", rew0 = dir + "/" + name + "_0.rew";
    ASSERT_EQ(0, VRXsetstrattr(m, "ModelName", ""));
    ASSERT_EQ(0, VRXwrite(m, mps0.c_str())) << VRXgeterrormsg(env);
    ASSERT_EQ(0, VRXwrite(m, rew0.c_str())) << VRXgeterrormsg(env);
    VRXfreemodel(m);
    const double want = it->second;
    // The programs print ten digits and solve to their own tolerances.
    const double tol = 1e-6 * std::max(1.0, std::fabs(want));
    if (coin) {
      // clp tells fixed from free form on its own.
      for (const std::string& file : {mps, rew}) {
        double got = valueAfter("clp '" + file + "' -solve 2>&1", "Optimal objective ");
        EXPECT_NEAR(want, got, tol) << "clp " << file;
        ++runs;
      }
    }
    if (glpk) {
      // glpsol adds the objective row's right-hand side where clp and we
      // subtract it (e226 has one): its optimum differs by twice the constant.
      const double wantGlpk = want - 2 * objCon;
      std::string out = dir + "/" + name + ".out";
      for (const std::string& file : {mps, rew}) {
        EXPECT_NEAR(wantGlpk, glpsolObjective("--freemps", file, out), tol) << "glpsol --freemps " << file;
        ++runs;
      }
      // The fixed form applies where the file keeps to its columns.
      for (const std::string& file : {mps0, rew0}) {
        if (!fitsFixedColumns(file)) continue;
        EXPECT_NEAR(wantGlpk, glpsolObjective("--mps", file, out), tol) << "glpsol --mps " << file;
        ++fixedRuns;
      }
    }
  }
  VRXfreeenv(env);
  std::system(("rm -rf " + dir).c_str());
  EXPECT_GT(runs, 0);
  // afiro, adlittle, blend and share2b keep to the columns under default names.
  if (glpk) EXPECT_GT(fixedRuns, 0);
  std::printf("[ INTEROP  ] %zu models: %d runs of clp and glpsol --freemps, %d of glpsol --mps\n", names.size(), runs, fixedRuns);
}
