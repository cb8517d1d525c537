// The convexity test of a quadratic objective: the needed shift on matrices whose spectrum is
// known, and the check as a solve meets it (repair with its warning, the refusals and their
// texts, the binary exemption, the switches), and VORN_PAR_FORCEQP.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "../support/modeldef.h"
#include "../support/quiet_env.h"
#include "../support/shared_data.h"
#include "env/clock.h"
#include "simplex/qpsd.h"
#include "vornix_c.h"

namespace {

// Terms a * x[r] * x[c] of f = x'Qx.
struct Terms {
  std::vector<int> r, c;
  std::vector<double> v;
  void add(int i, int j, double a) {
    r.push_back(i);
    c.push_back(j);
    v.push_back(a);
  }
};

struct Finding {
  int rc = -1, broken = 0;
  double shift = 0;
  std::vector<std::pair<int, double>> amounts;
};

Finding test(int n, const Terms& t) {
  vrxtest::QuietEnv q;
  Finding out;
  vrx::PsdFinding f(q.env);
  double work = 0;
  out.rc = vrx::psdTest(q.env, n, static_cast<int>(t.v.size()), t.r.data(), t.c.data(), t.v.data(), 1.0, &f, &work);
  out.broken = f.broken;
  out.shift = f.shift;
  for (size_t k = 0; k < f.cols.size(); k++) out.amounts.push_back({f.cols[k], f.amounts[k]});
  return out;
}

// Dense Cholesky of Q + diag(amounts) + eps*I: true when it goes through, so the smallest
// eigenvalue of Q plus the amounts is above -eps.
bool repairedIsPsd(int n, const Terms& t, const Finding& f, double eps) {
  std::vector<double> a(static_cast<size_t>(n) * n, 0.0);
  for (size_t k = 0; k < t.v.size(); k++) {
    if (t.r[k] == t.c[k]) {
      a[t.r[k] * n + t.r[k]] += t.v[k];
    } else {
      a[t.r[k] * n + t.c[k]] += 0.5 * t.v[k];
      a[t.c[k] * n + t.r[k]] += 0.5 * t.v[k];
    }
  }
  for (auto& e : f.amounts) a[e.first * n + e.first] += e.second;
  for (int j = 0; j < n; j++) a[j * n + j] += eps;
  for (int j = 0; j < n; j++) {
    double d = a[j * n + j];
    for (int k = 0; k < j; k++) d -= a[j * n + k] * a[j * n + k];
    if (!(d > 0)) return false;
    d = std::sqrt(d);
    a[j * n + j] = d;
    for (int i = j + 1; i < n; i++) {
      double s = a[i * n + j];
      for (int k = 0; k < j; k++) s -= a[i * n + k] * a[j * n + k];
      a[i * n + j] = s / d;
    }
  }
  return true;
}

// Two columns in [0, 10], one row x + y >= 1, the terms given.
struct Small {
  VRXmodel* m = nullptr;
  Small(VRXenv* env, int sense, std::vector<double> obj, const Terms& t) {
    ModelDef s;
    s.objSense = sense;
    s.obj = std::move(obj);
    s.lb = {0, 0};
    s.ub = {10, 10};
    s.rhs = {1};
    s.sense = ">";
    s.cols = {{{0, 1}}, {{0, 1}}};
    m = loadModelDef(env, s);
    EXPECT_EQ(0, VRXaddqpterms(m, static_cast<int>(t.v.size()), t.r.data(), t.c.data(), t.v.data()));
  }
  ~Small() { VRXfreemodel(m); }
  // The model's Q in the caller's sense, duplicates summed.
  std::map<std::pair<int, int>, double> q() {
    int nz = 0;
    EXPECT_EQ(0, VRXgetq(m, &nz, nullptr, nullptr, nullptr));
    std::vector<int> r(nz + 1), c(nz + 1);
    std::vector<double> v(nz + 1);
    EXPECT_EQ(0, VRXgetq(m, &nz, r.data(), c.data(), v.data()));
    std::map<std::pair<int, int>, double> out;
    for (int k = 0; k < nz; k++) out[{std::min(r[k], c[k]), std::max(r[k], c[k])}] += v[k];
    return out;
  }
  int check() {
    EXPECT_EQ(0, VRXupdatemodel(m));
    vrx::Clock clock = vrx::clockStart();
    return VRXqCheckPSD(m, clock);
  }
};

const char* kRepairLine = "Warning: diagonal adjustment of 1.0e-07 performed to make Q PSD\n";

}  // namespace

// Matrices with a known smallest eigenvalue: what the factor asks is enough and not much more.
TEST(PsdCheck, NeededShiftOnKnownSpectra) {
  {
    Terms t;  // (x + y)^2: singular but PSD, nothing asked
    t.add(0, 0, 1);
    t.add(0, 1, 2);
    t.add(1, 1, 1);
    Finding f = test(2, t);
    EXPECT_EQ(0, f.rc);
    EXPECT_EQ(0, f.broken);
    EXPECT_EQ(0.0, f.shift);
    EXPECT_TRUE(f.amounts.empty());
  }
  {
    Terms t;  // x^2 - 1e-7 y^2: the y diagonal lacks exactly 1e-7
    t.add(0, 0, 1);
    t.add(1, 1, -1e-7);
    Finding f = test(3, t);
    ASSERT_EQ(1u, f.amounts.size());
    EXPECT_EQ(1, f.amounts[0].first);
    EXPECT_NEAR(1e-7, f.shift, 1e-15);
  }
  {
    Terms t;  // 2xy: eigenvalues +-1, no zero diagonal can be fixed alone
    t.add(0, 1, 2);
    Finding f = test(2, t);
    EXPECT_GE(f.shift, 1.0 - 1e-9);
    EXPECT_LE(f.shift, 1.011);
    EXPECT_TRUE(repairedIsPsd(2, t, f, 1e-9));
  }
  {
    // tridiag(-1, 2, -1) less (its smallest eigenvalue + 0.3): 0.3 short, spread over all.
    const int n = 60;
    const double lmin = 2.0 - 2.0 * std::cos(M_PI / (n + 1));
    Terms t;
    for (int j = 0; j < n; j++) {
      t.add(j, j, 2.0 - lmin - 0.3);
      if (j + 1 < n) t.add(j, j + 1, -2.0);
    }
    Finding f = test(n, t);
    EXPECT_GE(f.shift, 0.3 - 1e-9);
    EXPECT_LE(f.shift, 0.31);
    EXPECT_TRUE(repairedIsPsd(n, t, f, 1e-9));
    // Not enough: the same matrix with less than the shift on every diagonal.
    Finding less = f;
    for (auto& e : less.amounts) e.second = std::min(e.second, 0.29);
    EXPECT_FALSE(repairedIsPsd(n, t, less, 0.0));
  }
  {
    // B'B with B sparse, 25 x 40: rank 25 at most, PSD; rounding must not ask for a shift.
    const int rows = 25, n = 40;
    uint64_t seed = 99;
    auto rnd = [&]() {
      seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
      return static_cast<double>(seed >> 11) / static_cast<double>(1ULL << 53);
    };
    std::vector<double> B(static_cast<size_t>(rows) * n, 0.0);
    for (auto& b : B)
      if (rnd() < 0.15) b = 4.0 * rnd() - 2.0;
    Terms t;
    for (int i = 0; i < n; i++)
      for (int j = i; j < n; j++) {
        double s = 0;
        for (int k = 0; k < rows; k++) s += B[k * n + i] * B[k * n + j];
        if (s != 0) t.add(i, j, i == j ? s : 2 * s);
      }
    Finding f = test(n, t);
    EXPECT_EQ(0.0, f.shift);
    // Less 0.05 on the diagonal it is clearly indefinite (the null space sees -0.05).
    for (size_t k = 0; k < t.v.size(); k++)
      if (t.r[k] == t.c[k]) t.v[k] -= 0.05;
    for (int j = 0; j < n; j++) t.add(j, j, 0.0);
    f = test(n, t);
    EXPECT_GE(f.shift, 0.05 - 1e-9);
    EXPECT_LE(f.shift, 0.0506);
    EXPECT_TRUE(repairedIsPsd(n, t, f, 1e-9));
  }
}

// Through a solve: a PSD objective runs quietly; one short by 1e-7 is repaired through the
// model (in either sense) with the warning; a clearly indefinite one is refused with the
// size it would need.
TEST(PsdCheck, SolveRepairsOrRefuses) {
  vrxtest::QuietEnv q;
  VRXenv* env = q.env;
  {
    Terms t;
    t.add(0, 0, 1);
    t.add(0, 1, 1);
    t.add(1, 1, 1);
    Small s(env, 1, {0, 0}, t);
    captureLogOf(VRXgetenv(s.m));
    ASSERT_EQ(0, VRXoptimize(s.m));
    EXPECT_EQ(std::string::npos, capturedLog().find("diagonal adjustment")) << capturedLog();
    // The check's factor reports as the barrier's does: both triangles of the 2 x 2
    // matrix, three factor entries, one flop.
    EXPECT_NE(std::string::npos, capturedLog().find("\nQ statistics:\n Q NZ       : 4.000e+00\n"
                                                    " Factor NZ  : 3.000e+00\n Factor Ops : 1.000e+00\n"
                                                    " Threads    : 1\n"))
        << capturedLog();
    double obj = 0;
    VRXgetdblattr(s.m, "ObjVal", &obj);
    EXPECT_NEAR(0.75, obj, 1e-9);  // x = y = 1/2
  }
  for (int sense : {1, -1}) {
    // min x^2 - 1e-7 y^2 + y (or the max of its negative): after the repair y is linear,
    // the optimum x = y = 1/2 with value 0.75.
    Terms t;
    t.add(0, 0, sense * 1.0);
    t.add(1, 1, sense * -1e-7);
    Small s(env, sense, {0, sense * 1.0}, t);
    captureLogOf(VRXgetenv(s.m));
    ASSERT_EQ(0, VRXoptimize(s.m));
    EXPECT_NE(std::string::npos, capturedLog().find(kRepairLine)) << capturedLog();
    int status = 0;
    double obj = 0;
    VRXgetintattr(s.m, "Status", &status);
    VRXgetdblattr(s.m, "ObjVal", &obj);
    EXPECT_EQ(VRX_OPTIMAL, status);
    EXPECT_NEAR(sense * 0.75, obj, 1e-8);
    auto q = s.q();
    EXPECT_NEAR(0.0, (q[{1, 1}]), 1e-12) << sense;
    EXPECT_NEAR(sense * 1.0, (q[{0, 0}]), 1e-15);
  }
  {
    Terms t;  // x^2 + 4xy + y^2: eigenvalues 3 and -1
    t.add(0, 0, 1);
    t.add(0, 1, 4);
    t.add(1, 1, 1);
    Small s(env, 1, {0, 0}, t);
    EXPECT_EQ(VRX_ERROR_Q_NOT_PSD, VRXoptimize(s.m));
    EXPECT_STREQ("Objective Q not PSD (diagonal adjustment of 1.0e+00 would be required)", VRXgetmerrormsg(s.m));
  }
  {
    // Short by more than PSDTol allows (3e-6 against 1e-6), and within it after a raise.
    Terms t;
    t.add(0, 0, 1);
    t.add(0, 1, 2);
    t.add(1, 1, 1 - 3e-6);
    Small s(env, 1, {0, 0}, t);
    EXPECT_EQ(VRX_ERROR_Q_NOT_PSD, VRXoptimize(s.m));
    EXPECT_NE(std::string::npos, std::string(VRXgetmerrormsg(s.m)).find("adjustment of 3.0e-06 would be")) << VRXgetmerrormsg(s.m);
    VRXsetdblparam(VRXgetenv(s.m), "PSDTol", 1e-5);
    captureLogOf(VRXgetenv(s.m));
    EXPECT_EQ(0, VRXoptimize(s.m));
    EXPECT_NE(std::string::npos, capturedLog().find("Warning: diagonal adjustment of 3.0e-06 performed")) << capturedLog();
  }
}

// The diagonal pass exempts binaries; the switches turn the check and the repair off.
TEST(PsdCheck, BinaryExemptionAndSwitches) {
  vrxtest::QuietEnv q;
  Terms t;  // -0.5 x^2 + y^2
  t.add(0, 0, -0.5);
  t.add(1, 1, 1);
  {
    Small s(q.env, 1, {0, 0}, t);
    EXPECT_EQ(VRX_ERROR_Q_NOT_PSD, s.check());
    EXPECT_STREQ("Objective Q not PSD (negative diagonal entry)", VRXgetmerrormsg(s.m));
    // As a binary the term passes the diagonal pass; the factor still sees it.
    ASSERT_EQ(0, VRXsetcharattrelement(s.m, "VType", 0, 'B'));
    EXPECT_EQ(VRX_ERROR_Q_NOT_PSD, s.check());
    EXPECT_STREQ("Objective Q not PSD (diagonal adjustment of 5.0e-01 would be required)", VRXgetmerrormsg(s.m));
    VRXsetintparam(VRXgetenv(s.m), "VORN_PAR_QPSDCHECK", 0);
    EXPECT_EQ(0, s.check());
  }
  {
    Terms u;  // short by 1e-7 with the repair off: accepted, the model unchanged
    u.add(0, 0, 1);
    u.add(1, 1, -1e-7);
    Small s(q.env, 1, {0, 0}, u);
    VRXsetintparam(VRXgetenv(s.m), "VORN_PAR_QPSDADJUST", 0);
    EXPECT_EQ(0, s.check());
    EXPECT_EQ(-1e-7, (s.q()[{1, 1}]));
    VRXsetintparam(VRXgetenv(s.m), "VORN_PAR_QPSDADJUST", 1);
    EXPECT_EQ(0, s.check());
    EXPECT_NEAR(0.0, (s.q()[{1, 1}]), 1e-12);
  }
}

// VORN_PAR_FORCEQP sends a linear model through the quadratic path, with the same optimum.
TEST(PsdCheck, ForceQpSolvesLinearModels) {
  vrxtest::QuietEnv q;
  const double expected = vrxtest::referenceObjectives()["afiro"];
  for (int force : {0, 1}) {
    VRXsetintparam(q.env, "VORN_PAR_FORCEQP", force);
    VRXmodel* m = vrxtest::readNetlib(q.env, "afiro");
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(force == 1, VRXisQPForm(m));
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0;
    double obj = 0;
    VRXgetintattr(m, "Status", &status);
    VRXgetdblattr(m, "ObjVal", &obj);
    EXPECT_EQ(VRX_OPTIMAL, status) << force;
    EXPECT_NEAR(expected, obj, 1e-6 * (1 + std::fabs(expected))) << force;
    VRXfreemodel(m);
  }
  VRXsetintparam(q.env, "VORN_PAR_FORCEQP", 0);
  Terms t;
  t.add(0, 0, 1);
  Small s(q.env, 1, {0, 0}, t);
  ASSERT_EQ(0, VRXupdatemodel(s.m));
  EXPECT_TRUE(VRXisQPForm(s.m));
  ASSERT_EQ(0, VRXsetcharattrelement(s.m, "VType", 1, 'I'));
  ASSERT_EQ(0, VRXupdatemodel(s.m));
  EXPECT_FALSE(VRXisQPForm(s.m));
}

// A failed allocation anywhere in the check, the repair's update or the quadratic loop gives
// 10001 or a finished solve, and every block comes back.
TEST(PsdCheck, OutOfMemoryAnywhereLeavesNoBlock) {
  Terms t;
  t.add(0, 0, 1);
  t.add(1, 1, -1e-7);
  t.add(0, 1, 1e-3);
  bool finished = false;
  for (long k = 0; !finished && k < 2000; k++) {
    HookState hooks;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, loadWithHooks(&env, &hooks));
    VRXsetintparam(env, "OutputFlag", 0);
    {
      Small s(env, 1, {0, 1}, t);
      hooks.calls = 0;
      hooks.failAt = k;
      const int rc = VRXoptimize(s.m);
      finished = hooks.calls <= k;
      hooks.failAt = -1;
      EXPECT_TRUE(rc == 0 || rc == VRX_ERROR_OUT_OF_MEMORY) << k << " " << rc;
      if (finished) {
        int status = 0;
        VRXgetintattr(s.m, "Status", &status);
        EXPECT_EQ(VRX_OPTIMAL, status);
      }
    }
    VRXfreeenv(env);
    EXPECT_EQ(0, hooks.live) << k;
  }
  EXPECT_TRUE(finished);
}
