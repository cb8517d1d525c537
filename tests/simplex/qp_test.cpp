// Convex quadratic objectives through the primal with superbasic steps: hand-made QPs with
// known optima, both senses, and a larger random one checked by its optimality conditions
// from the published X, Pi and RC.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/modeldef.h"
#include "vornix_c.h"

namespace {

struct Q {
  std::vector<int> r, c;
  std::vector<double> v;
};

struct Solved {
  int rc = -1, status = 0;
  double obj = 0;
  std::vector<double> x;
};

Solved solveQP(const ModelDef& s, const Q& q, int method = -1, int presolve = -1) {
  Solved out;
  VRXenv* env = nullptr;
  EXPECT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXsetintparam(env, "Method", method);
  VRXsetintparam(env, "Presolve", presolve);
  VRXmodel* m = loadModelDef(env, s);
  EXPECT_EQ(0, VRXaddqpterms(m, static_cast<int>(q.v.size()), q.r.data(), q.c.data(), q.v.data()));
  out.rc = VRXoptimize(m);
  VRXgetintattr(m, "Status", &out.status);
  VRXgetdblattr(m, "ObjVal", &out.obj);
  out.x.resize(s.cols.size());
  VRXgetdblattrarray(m, "X", 0, static_cast<int>(s.cols.size()), out.x.data());
  VRXfreemodel(m);
  VRXfreeenv(env);
  return out;
}

}  // namespace

TEST(QP, SmallModelsWithKnownOptima) {
  // Method 2 too: no barrier takes Q yet, the quadratic path must answer it.
  for (int method : {-1, 0, 1, 2}) {
    {
      // min x^2 + y^2 - 2x - 4y with x + y <= 2: the projection of (1, 2), (0.5, 1.5).
      ModelDef s;
      s.obj = {-2, -4};
      s.lb = {-1e100, -1e100};
      s.ub = {1e100, 1e100};
      s.rhs = {2};
      s.sense = "<";
      s.cols = {{{0, 1}}, {{0, 1}}};
      Solved r = solveQP(s, Q{{0, 1}, {0, 1}, {1, 1}}, method);
      ASSERT_EQ(0, r.rc);
      EXPECT_EQ(VRX_OPTIMAL, r.status) << method;
      EXPECT_NEAR(-4.5, r.obj, 1e-9) << method;
      EXPECT_NEAR(0.5, r.x[0], 1e-7);
      EXPECT_NEAR(1.5, r.x[1], 1e-7);
    }
    {
      // min x^2 - 6x with x <= 2 (a bound, no row takes it): x = 2.
      ModelDef s;
      s.obj = {-6, 0};
      s.lb = {0, 0};
      s.ub = {2, 1};
      s.rhs = {5};
      s.sense = "<";
      s.cols = {{{0, 1}}, {{0, 1}}};
      Solved r = solveQP(s, Q{{0}, {0}, {1}}, method);
      EXPECT_EQ(VRX_OPTIMAL, r.status);
      EXPECT_NEAR(-8.0, r.obj, 1e-9);
      EXPECT_NEAR(2.0, r.x[0], 1e-9);
    }
    {
      // max x + y - x^2 - y^2 with x + y = 1: (0.5, 0.5), 0.5.
      ModelDef s;
      s.objSense = -1;
      s.obj = {1, 1};
      s.lb = {0, 0};
      s.ub = {1e100, 1e100};
      s.rhs = {1};
      s.sense = "=";
      s.cols = {{{0, 1}}, {{0, 1}}};
      Solved r = solveQP(s, Q{{0, 1}, {0, 1}, {-1, -1}}, method);
      EXPECT_EQ(VRX_OPTIMAL, r.status);
      EXPECT_NEAR(0.5, r.obj, 1e-9);
      EXPECT_NEAR(0.5, r.x[0], 1e-7);
    }
    {
      // min x^2 + xy + y^2 - 3x, x, y >= 0: y at its bound, x = 1.5, -2.25.
      ModelDef s;
      s.obj = {-3, 0};
      s.lb = {0, 0};
      s.ub = {1e100, 1e100};
      s.rhs = {100};
      s.sense = "<";
      s.cols = {{{0, 1}}, {{0, 1}}};
      Solved r = solveQP(s, Q{{0, 0, 1}, {0, 1, 1}, {1, 1, 1}}, method);
      EXPECT_EQ(VRX_OPTIMAL, r.status);
      EXPECT_NEAR(-2.25, r.obj, 1e-9);
      EXPECT_NEAR(1.5, r.x[0], 1e-7);
      EXPECT_NEAR(0.0, r.x[1], 1e-9);
    }
  }
}

// Infeasible rows, a direction without curvature, and a non-convex diagonal.
TEST(QP, StatusesAndRefusals) {
  {
    ModelDef s;  // x + y <= 1, x + y >= 3
    s.obj = {0, 0};
    s.lb = {0, 0};
    s.ub = {1e100, 1e100};
    s.rhs = {1, 3};
    s.sense = "<>";
    s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1}}};
    Solved r = solveQP(s, Q{{0}, {0}, {1}});
    EXPECT_EQ(0, r.rc);
    EXPECT_EQ(VRX_INFEASIBLE, r.status);
  }
  {
    ModelDef s;  // min x^2 - y, y free of Q and of bounds above: unbounded
    s.obj = {0, -1};
    s.lb = {0, 0};
    s.ub = {1e100, 1e100};
    s.rhs = {4};
    s.sense = "<";
    s.cols = {{{0, 1}}, {}};
    Solved r = solveQP(s, Q{{0}, {0}, {1}});
    EXPECT_EQ(0, r.rc);
    EXPECT_EQ(VRX_UNBOUNDED, r.status);
  }
  {
    ModelDef s;  // min -x^2: not convex
    s.obj = {0};
    s.lb = {0};
    s.ub = {1};
    s.rhs = {1};
    s.sense = "<";
    s.cols = {{{0, 1}}};
    VRXenv* env = nullptr;
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
    VRXmodel* m = loadModelDef(env, s);
    int r0 = 0, c0 = 0;
    double v0 = -1;
    ASSERT_EQ(0, VRXaddqpterms(m, 1, &r0, &c0, &v0));
    EXPECT_EQ(VRX_ERROR_Q_NOT_PSD, VRXoptimize(m));
    EXPECT_STREQ("Objective Q not PSD (negative diagonal entry)", VRXgetmerrormsg(m));
    VRXfreemodel(m);
    VRXfreeenv(env);
  }
}

// A random convex QP: the published point satisfies the optimality conditions. The
// objective is sum w_j (x_j - t_j)^2 plus a few coupling terms kept diagonally dominant.
TEST(QP, RandomModelMeetsOptimalityConditions) {
  const int n = 200, m = 40;
  uint64_t seed = 12345;
  auto rnd = [&]() {
    seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<double>((seed >> 11) & ((1ULL << 53) - 1)) / static_cast<double>(1ULL << 53);
  };
  ModelDef s;
  s.obj.resize(n);
  s.lb.assign(n, 0.0);
  s.ub.assign(n, 5.0);
  s.cols.resize(n);
  Q q;
  std::vector<double> diag(n);
  for (int j = 0; j < n; j++) {
    diag[j] = 1.0 + 2.0 * rnd();
    const double t = 6.0 * rnd() - 0.5;
    s.obj[j] = -2.0 * diag[j] * t;
  }
  for (int j = 0; j + 1 < n; j += 3) {
    q.r.push_back(j);
    q.c.push_back(j + 1);
    q.v.push_back(0.5);
  }
  for (int j = 0; j < n; j++) {
    q.r.push_back(j);
    q.c.push_back(j);
    q.v.push_back(diag[j]);
  }
  for (int i = 0; i < m; i++) {
    double sum = 0;
    for (int j = 0; j < n; j++) {
      if (rnd() < 0.2) {
        const double a = rnd() < 0.5 ? 1.0 + rnd() : -(0.5 + rnd());
        s.cols[j].push_back({i, a});
        sum += a;
      }
    }
    s.rhs.push_back(0.3 * std::fabs(sum) + 1.0);
    s.sense += (i % 5 == 4) ? ">" : "<";
    if (s.sense.back() == '>') s.rhs.back() = -s.rhs.back();
  }
  for (int method : {0, 1}) {
    VRXenv* env = nullptr;
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
    VRXsetintparam(env, "Method", method);
    VRXmodel* mod = loadModelDef(env, s);
    ASSERT_EQ(0, VRXaddqpterms(mod, static_cast<int>(q.v.size()), q.r.data(), q.c.data(), q.v.data()));
    ASSERT_EQ(0, VRXoptimize(mod));
    int status = 0;
    VRXgetintattr(mod, "Status", &status);
    ASSERT_EQ(VRX_OPTIMAL, status);
    std::vector<double> x(n), rc(n), pi(m), slack(m);
    ASSERT_EQ(0, VRXgetdblattrarray(mod, "X", 0, n, x.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(mod, "RC", 0, n, rc.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(mod, "Pi", 0, m, pi.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(mod, "Slack", 0, m, slack.data()));
    // Gradient c + Q x (Q symmetric from the terms), minus A'pi, is the reduced cost.
    std::vector<double> grad(s.obj);
    for (size_t k = 0; k < q.v.size(); k++) {
      if (q.r[k] == q.c[k]) {
        grad[q.r[k]] += 2 * q.v[k] * x[q.r[k]];
      } else {
        grad[q.r[k]] += q.v[k] * x[q.c[k]];
        grad[q.c[k]] += q.v[k] * x[q.r[k]];
      }
    }
    double obj = 0;
    for (int j = 0; j < n; j++) {
      double d = grad[j];
      for (auto& e : s.cols[j]) d -= e.second * pi[e.first];
      EXPECT_NEAR(d, rc[j], 1e-6) << method << " col " << j;
      EXPECT_GE(x[j], -1e-9);
      EXPECT_LE(x[j], 5 + 1e-9);
      if (x[j] > 1e-7) EXPECT_LE(rc[j], 1e-6) << j;       // off its lower bound
      if (x[j] < 5 - 1e-7) EXPECT_GE(rc[j], -1e-6) << j;  // off its upper bound
      obj += s.obj[j] * x[j];
    }
    for (int i = 0; i < m; i++) {
      EXPECT_GE(s.sense[i] == '<' ? slack[i] : -slack[i], -1e-7) << i;
      if (s.sense[i] == '<') EXPECT_LE(pi[i], 1e-7) << i;
      if (s.sense[i] == '>') EXPECT_GE(pi[i], -1e-7) << i;
      EXPECT_LT(std::fabs(pi[i] * slack[i]), 1e-6) << i;  // complementary
    }
    for (size_t k = 0; k < q.v.size(); k++) obj += q.v[k] * x[q.r[k]] * x[q.c[k]];
    // Most columns end between their bounds: superbasic, more than the first block holds.
    std::vector<int> vb(n);
    ASSERT_EQ(0, VRXgetintattrarray(mod, "VBasis", 0, n, vb.data()));
    int superbasic = 0;
    for (int b : vb) superbasic += b == VRX_SUPERBASIC;
    EXPECT_GT(superbasic, 64) << method;
    double reported = 0;
    VRXgetdblattr(mod, "ObjVal", &reported);
    EXPECT_NEAR(obj, reported, 1e-9 * (1 + std::fabs(obj)));
    VRXfreemodel(mod);
    VRXfreeenv(env);
  }
}

// min c'x + x'Hx/2 subject to Ax = b with x free and H positive definite: the optimum solves
// the KKT system [H A'; A 0] [x; -y] = [-c; b], here by dense elimination. With 150 columns and
// 40 rows about 110 columns end superbasic, past the dense reduced Hessian.
TEST(QP, EqualityConstrainedMatchesKktSolution) {
  const int n = 150, m = 40, k = 100;
  uint64_t seed = 777;
  auto rnd = [&]() {
    seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
    return static_cast<double>(seed >> 11) / static_cast<double>(1ULL << 53);
  };
  // H = B'B + I with B sparse k x n.
  std::vector<double> B(static_cast<size_t>(k) * n, 0.0), H(static_cast<size_t>(n) * n, 0.0);
  for (auto& b : B)
    if (rnd() < 0.05) b = 2.0 * rnd() - 1.0;
  for (int i = 0; i < n; i++)
    for (int j = 0; j < n; j++) {
      double s = i == j ? 1.0 : 0.0;
      for (int r = 0; r < k; r++) s += B[r * n + i] * B[r * n + j];
      H[i * n + j] = s;
    }
  ModelDef s;
  s.lb.assign(n, -1e100);
  s.ub.assign(n, 1e100);
  s.cols.resize(n);
  for (int j = 0; j < n; j++) s.obj.push_back(10.0 * rnd() - 5.0);
  std::vector<double> A(static_cast<size_t>(m) * n, 0.0);
  for (int i = 0; i < m; i++) {
    for (int j = 0; j < n; j++)
      if (rnd() < 0.1 || j == i) {
        A[i * n + j] = 2.0 * rnd() - 1.0 + (j == i ? 2.0 : 0.0);
        s.cols[j].push_back({i, A[i * n + j]});
      }
    s.rhs.push_back(4.0 * rnd() - 2.0);
    s.sense += "=";
  }
  Q q;
  for (int i = 0; i < n; i++)
    for (int j = i; j < n; j++) {
      if (H[i * n + j] == 0.0) continue;
      q.r.push_back(i);
      q.c.push_back(j);
      q.v.push_back(i == j ? 0.5 * H[i * n + j] : H[i * n + j]);
    }
  // The KKT system by Gaussian elimination with partial pivoting.
  const int d = n + m;
  std::vector<double> K(static_cast<size_t>(d) * (d + 1), 0.0);
  auto at = [&](int i, int j) -> double& { return K[static_cast<size_t>(i) * (d + 1) + j]; };
  for (int i = 0; i < n; i++) {
    for (int j = 0; j < n; j++) at(i, j) = H[i * n + j];
    at(i, d) = -s.obj[i];
  }
  for (int i = 0; i < m; i++) {
    for (int j = 0; j < n; j++) at(n + i, j) = at(j, n + i) = A[i * n + j];
    at(n + i, d) = s.rhs[i];
  }
  for (int c = 0; c < d; c++) {
    int piv = c;
    for (int r = c + 1; r < d; r++)
      if (std::fabs(at(r, c)) > std::fabs(at(piv, c))) piv = r;
    for (int j = 0; j <= d; j++) std::swap(at(c, j), at(piv, j));
    for (int r = c + 1; r < d; r++) {
      const double f = at(r, c) / at(c, c);
      if (f != 0)
        for (int j = c; j <= d; j++) at(r, j) -= f * at(c, j);
    }
  }
  std::vector<double> sol(d);
  for (int r = d - 1; r >= 0; r--) {
    double v = at(r, d);
    for (int j = r + 1; j < d; j++) v -= at(r, j) * sol[j];
    sol[r] = v / at(r, r);
  }
  double best = 0;
  for (int i = 0; i < n; i++) {
    best += s.obj[i] * sol[i];
    for (int j = 0; j < n; j++) best += 0.5 * sol[i] * H[i * n + j] * sol[j];
  }
  for (int method : {0, 1}) {
    Solved r = solveQP(s, q, method);
    ASSERT_EQ(0, r.rc);
    ASSERT_EQ(VRX_OPTIMAL, r.status) << method;
    EXPECT_NEAR(best, r.obj, 1e-7 * (1 + std::fabs(best))) << method;
    double err = 0;
    for (int j = 0; j < n; j++) err = std::max(err, std::fabs(r.x[j] - sol[j]));
    EXPECT_LT(err, 1e-5) << method;
  }
}
