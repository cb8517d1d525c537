// The Netlib set through presolve: the presolved model is solved, the solution
// and basis are walked back, and the point is measured on the original model
// before the clean-up simplex re-solves from that basis.
#include <cstdio>
#include <cstdlib>

#include "harness.h"

namespace {

using namespace pretest;

TEST(PresolveNetlib, OptimaDualsAndBasisComeBack) {
  auto ref = reference("netlib");
  ASSERT_EQ(66u, ref.size());
  const char* only = std::getenv("VRX_PRE_ONLY");
  const bool verbose = std::getenv("VRX_PRE_VERBOSE") != nullptr;
  // The symmetry pass is off by default; this turns it on for a manual sweep.
  const bool symmetry = std::getenv("VRX_PRE_SYMMETRY") != nullptr;
  Env e;
  int optimal = 0, noCleanup = 0, merged = 0;
  double cleanupTotal = 0;
  for (auto& [name, expected] : ref) {
    if (only && name != only) continue;
    VRXmodel* m = nullptr;
    const std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
    ASSERT_EQ(0, VRXreadmodel(e.env, path.c_str(), &m)) << name;
    VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
    if (symmetry) VRXsetintparam(VRXgetenv(m), "VORN_PAR_PRESYMMPASSES", 0);
    Result r = run(m, true);
    if (has(r, vrx::UNDO_MERGECOLS)) {
      merged++;
      if (verbose) std::printf("%-10s merged symmetric columns\n", name.c_str());
    }
    EXPECT_EQ(0, r.presolveStatus) << name;
    EXPECT_EQ(2, r.status) << name;
    EXPECT_TRUE(closeTo(r.obj, expected)) << name << ": " << r.obj << " expected " << expected;
    if (r.status == 2) {
      Quality q = measure(m->data, r);
      EXPECT_EQ(q.rows, q.basics) << name;
      EXPECT_LT(q.identity, 1e-9) << name;
      EXPECT_LT(q.primal, 1e-5) << name;
      EXPECT_LT(q.dual, 1e-5) << name;
      EXPECT_EQ(2, r.cleanupStatus) << name;
      EXPECT_TRUE(closeTo(r.cleanupObj, expected)) << name << ": " << r.cleanupObj;
      if (r.status == 2 && closeTo(r.obj, expected)) optimal++;
      if (r.cleanupIters == 0) noCleanup++;
      cleanupTotal += r.cleanupIters;
      if (verbose)
        std::printf("%-10s %6d %6d -> %6d %6d  pre %.3fs total %.3fs iters %6.0f cleanup %4.0f  p %.1e d %.1e id %.1e\n",
                    name.c_str(), m->data->numConstrs, m->data->numVars, r.preRows, r.preCols, r.presolveSecs,
                    r.totalSecs, r.preIters, r.cleanupIters, q.primal, q.dual, q.identity);
    } else if (verbose) {
      std::printf("%-10s presolve %d status %d\n", name.c_str(), r.presolveStatus, r.status);
    }
    VRXfreemodel(m);
  }
  std::printf("[ presolve ] %d models optimal after uncrush, %d without clean-up iterations, %.0f clean-up iterations in all, %d with symmetric merges\n",
              optimal, noCleanup, cleanupTotal, merged);
}

}  // namespace

namespace {

using namespace pretest;

// The LP relaxations of MIPLIB models: other structures than Netlib (many
// equations of two entries, set partitioning, big-M rows).
TEST(PresolveNetlib, MiplibRelaxations) {
  auto ref = pretest::reference("miplib3");
  std::map<std::string, double> relax = vrxtest::referenceColumn("miplib3", 6);
  const bool all = std::getenv("VRX_PRE_ALLMIP") != nullptr;
  const char* only = std::getenv("VRX_PRE_ONLY");
  const std::vector<std::string> some = {"bell5", "dcmulti", "egout", "fixnet6", "flugpl", "gen", "gesa2", "khb05250",
                                         "lseu", "misc03", "mod008", "modglob", "p0201", "pp08a", "qnet1",
                                         "rgn", "set1ch", "stein27", "vpm1", "gt2", "rout", "qiu"};
  Env e;
  int done = 0;
  for (auto& [name, expected] : relax) {
    if (only && name != only) continue;
    if (!all && !only && std::find(some.begin(), some.end(), name) == some.end()) continue;
    VRXmodel* m = nullptr;
    const std::string path = std::string(VRX_SHARED_DATA) + "/miplib3/" + name + ".mps.gz";
    if (VRXreadmodel(e.env, path.c_str(), &m)) continue;
    VRXmodeldata* d = m->data;
    if (d->numSOS > 0) {
      VRXfreemodel(m);
      continue;
    }
    for (int j = 0; j < d->numVars; ++j) d->vtype[j] = 'C';
    d->numIntVars = d->numBinVars = 0;
    VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
    if (std::getenv("VRX_PRE_SYMMETRY")) VRXsetintparam(VRXgetenv(m), "VORN_PAR_PRESYMMPASSES", 0);
    // Without presolve first: the reference values of the relaxations are rounded.
    Result plain;
    vrx::LPPoint pt = sizePoint(plain, d->numVars, d->numConstrs);
    double iters = 0, plainObj = 0;
    ASSERT_EQ(2, solveStore(m, nullptr, nullptr, &iters, &plainObj, &pt)) << name;
    const Quality pq = measure(d, plain);
    Result r = run(m, true);
    EXPECT_EQ(0, r.presolveStatus) << name;
    EXPECT_EQ(2, r.status) << name;
    EXPECT_TRUE(closeTo(r.obj, plainObj)) << name << ": " << r.obj << " without presolve " << plainObj;
    EXPECT_TRUE(closeTo(r.obj, expected, 1e-3)) << name << ": " << r.obj << " expected " << expected;
    if (r.status == 2) {
      Quality q = measure(d, r);
      EXPECT_EQ(q.rows, q.basics) << name;
      EXPECT_LT(q.identity, 1e-9) << name;
      EXPECT_LT(q.primal, std::max(1e-6, 2 * pq.primal)) << name;
      EXPECT_EQ(2, r.cleanupStatus) << name;
      if (std::getenv("VRX_PRE_VERBOSE"))
        std::printf("%-10s %6d %6d -> %6d %6d  pre %.3fs total %.3fs iters %6.0f cleanup %4.0f  p %.1e d %.1e id %.1e%s\n",
                    name.c_str(), d->numConstrs, d->numVars, r.preRows, r.preCols, r.presolveSecs, r.totalSecs,
                    r.preIters, r.cleanupIters, q.primal, q.dual, q.identity, has(r, vrx::UNDO_MERGECOLS) ? "  merged" : "");
    }
    done++;
    VRXfreemodel(m);
  }
  (void)ref;
  EXPECT_GT(done, 0);
}

}  // namespace
