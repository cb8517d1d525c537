// The basis factor: solves against a dense reference, update sequences, repair, memory.
#include "simplex/factor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "env/env.h"
#include "vornix_c.h"

namespace {

using LD = long double;

struct Env {
  VRXenv* env = nullptr;
  std::string logPath;
  explicit Env(bool withLog = false) {
    EXPECT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
    if (withLog) {
      static int serial = 0;  // distinct file per Env in this process
      logPath = testing::TempDir() + "factor_log_" + std::to_string(::getpid()) + "_" +
                std::to_string(serial++) + ".txt";
      std::remove(logPath.c_str());
      VRXsetintparam(env, "LogToConsole", 0);
      VRXsetintparam(env, "OutputFlag", 1);
      EXPECT_EQ(0, VRXsetstrparam(env, "LogFile", logPath.c_str()));
    }
  }
  ~Env() {
    VRXfreeenv(env);
    if (!logPath.empty()) std::remove(logPath.c_str());
  }
  std::string log() const {
    std::ifstream in(logPath);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
  }
};

int countOf(const std::string& text, const std::string& what) {
  int k = 0;
  for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) k++;
  return k;
}

// Column-wise test matrix.
struct Matrix {
  int m = 0, n = 0;
  std::vector<int64_t> beg;
  std::vector<int> len;
  std::vector<int> ind;
  std::vector<double> val;
  explicit Matrix(int rows) : m(rows) {}
  void add(const std::vector<std::pair<int, double>>& col) {
    beg.push_back(static_cast<int64_t>(ind.size()));
    len.push_back(static_cast<int>(col.size()));
    for (auto& e : col) {
      ind.push_back(e.first);
      val.push_back(e.second);
    }
    n++;
  }
  std::vector<std::pair<int, double>> column(int v) const {
    std::vector<std::pair<int, double>> c;
    if (v >= n) {
      c.push_back({v - n, 1.0});
    } else {
      for (int64_t k = beg[v]; k < beg[v] + len[v]; k++) c.push_back({ind[k], val[k]});
    }
    return c;
  }
  VRXfactorMatrix view() const {
    return VRXfactorMatrix{m, n, beg.data(), len.data(), ind.data(), val.data()};
  }
};

// Column j has a strong entry in row j % m and about density*m others in [-1, 1].
Matrix randomMatrix(int m, int n, double density, std::mt19937& rng) {
  Matrix A(m);
  std::uniform_real_distribution<double> u(-1.0, 1.0), mag(1.0, 4.0), coin(0.0, 1.0);
  std::uniform_int_distribution<int> row(0, m - 1);
  for (int j = 0; j < n; j++) {
    std::vector<std::pair<int, double>> col;
    std::vector<char> used(m, 0);
    int strong = j % m;
    col.push_back({strong, (coin(rng) < 0.5 ? -1 : 1) * mag(rng)});
    used[strong] = 1;
    int extra = static_cast<int>(density * m);
    if (coin(rng) < density * m - extra) extra++;
    for (int k = 0; k < extra; k++) {
      int r = row(rng);
      if (used[r]) continue;
      used[r] = 1;
      col.push_back({r, u(rng)});
    }
    A.add(col);
  }
  return A;
}

// Each position takes a row of a random permutation and either that row's slack or a
// structural column whose strong entry sits in that row.
std::vector<int> randomBasis(const Matrix& A, double slackShare, std::mt19937& rng) {
  const int m = A.m;
  std::vector<int> rows(m);
  for (int i = 0; i < m; i++) rows[i] = i;
  std::shuffle(rows.begin(), rows.end(), rng);
  std::uniform_real_distribution<double> coin(0.0, 1.0);
  std::uniform_int_distribution<int> copy(0, A.n / m - 1);
  std::vector<int> head(m);
  for (int p = 0; p < m; p++) {
    int r = rows[p];
    head[p] = coin(rng) < slackShare ? A.n + r : r + m * copy(rng);
  }
  return head;
}

// Dense B (column-major, long double).
std::vector<LD> denseBasis(const Matrix& A, const std::vector<int>& head) {
  const int m = A.m;
  std::vector<LD> B(static_cast<size_t>(m) * m, 0.0L);
  for (int p = 0; p < m; p++)
    for (auto& e : A.column(head[p])) B[static_cast<size_t>(p) * m + e.first] += e.second;
  return B;
}

// Independent reference: Gaussian elimination with partial pivoting, B x = b or B^T x = b.
std::vector<LD> denseSolve(std::vector<LD> B, int m, std::vector<LD> b, bool transpose) {
  auto at = [&](int i, int j) -> LD& {
    return transpose ? B[static_cast<size_t>(i) * m + j] : B[static_cast<size_t>(j) * m + i];
  };
  for (int k = 0; k < m; k++) {
    int p = k;
    for (int i = k + 1; i < m; i++)
      if (std::fabs(at(i, k)) > std::fabs(at(p, k))) p = i;
    if (p != k) {
      for (int j = 0; j < m; j++) std::swap(at(k, j), at(p, j));
      std::swap(b[k], b[p]);
    }
    for (int i = k + 1; i < m; i++) {
      LD l = at(i, k) / at(k, k);
      if (l == 0) continue;
      for (int j = k; j < m; j++) at(i, j) -= l * at(k, j);
      b[i] -= l * b[k];
    }
  }
  std::vector<LD> x(m);
  for (int k = m - 1; k >= 0; k--) {
    LD s = b[k];
    for (int j = k + 1; j < m; j++) s -= at(k, j) * x[j];
    x[k] = s / at(k, k);
  }
  return x;
}

template <class T>
struct Vec {
  VRXenv* env;
  int dim;
  VRXsvecT<T> v{};
  Vec(VRXenv* e, int d) : env(e), dim(d) { EXPECT_EQ(0, vrx::svecAlloc(env, &v, d)); }
  ~Vec() { vrx::svecFree(env, &v); }
  void set(const std::vector<LD>& x, bool dense) {
    vrx::svecClear(&v, dim);
    if (dense) {
      for (int i = 0; i < dim; i++) v.value[i] = static_cast<T>(x[i]);
      v.count = -1;
      return;
    }
    for (int i = 0; i < dim; i++)
      if (x[i] != 0) {
        v.value[i] = static_cast<T>(x[i]);
        v.index[v.count++] = i;
      }
  }
  // Dense copy; also checks that a sparse form lists every nonzero exactly.
  std::vector<LD> get() const {
    std::vector<LD> x(dim, 0.0L);
    if (v.count < 0) {
      for (int i = 0; i < dim; i++) x[i] = v.value[i];
      return x;
    }
    std::vector<char> seen(dim, 0);
    for (int k = 0; k < v.count; k++) {
      int i = v.index[k];
      EXPECT_FALSE(seen[i]) << "index listed twice";
      seen[i] = 1;
      x[i] = v.value[i];
    }
    for (int i = 0; i < dim; i++)
      if (!seen[i]) EXPECT_EQ(0.0L, static_cast<LD>(v.value[i])) << "unlisted nonzero at " << i;
    return x;
  }
};

LD normInf(const std::vector<LD>& x) {
  LD s = 0;
  for (LD v : x) s = std::max(s, std::fabs(v));
  return s;
}

// Relative residual of B x = b (transpose: B^T x = b), computed from the sparse columns.
LD residual(const Matrix& A, const std::vector<int>& head, const std::vector<LD>& x,
            const std::vector<LD>& b, bool transpose) {
  const int m = A.m;
  std::vector<LD> r = b;
  LD scale = normInf(b);
  LD amax = 0;
  for (int p = 0; p < m; p++) {
    for (auto& e : A.column(head[p])) {
      amax = std::max(amax, static_cast<LD>(std::fabs(e.second)));
      if (transpose)
        r[p] -= e.second * x[e.first];
      else
        r[e.first] -= e.second * x[p];
    }
  }
  scale = std::max(scale, amax * normInf(x));
  return normInf(r) / std::max(scale, static_cast<LD>(1e-300));
}

std::vector<LD> randomDense(int m, std::mt19937& rng) {
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  std::vector<LD> b(m);
  for (auto& x : b) x = u(rng);
  return b;
}

std::vector<LD> unit(int m, int i) {
  std::vector<LD> b(m, 0.0L);
  b[i] = 1.0L;
  return b;
}

std::vector<LD> columnOf(const Matrix& A, int v) {
  std::vector<LD> b(A.m, 0.0L);
  for (auto& e : A.column(v)) b[e.first] = e.second;
  return b;
}

template <class T>
struct Factor {
  VRXfactorT<T>* f = nullptr;
  Factor(VRXenv* env, int m, int limit) { EXPECT_EQ(0, VRXfactorCreate(env, m, limit, &f)); }
  ~Factor() { VRXfactorFree(&f); }
};

// Solves with the factor and checks against the dense reference and by residual.
template <class T>
void checkSolves(VRXenv* env, VRXfactorT<T>* f, const Matrix& A, const std::vector<LD>& B,
                 const std::vector<std::vector<LD>>& rhs, double tol) {
  const int m = A.m;
  std::vector<int> head(f->basisHead, f->basisHead + m);
  Vec<T> in(env, m), out(env, m);
  double work = 0;
  for (size_t t = 0; t < rhs.size(); t++) {
    for (int dense = 0; dense < 2; dense++) {
      for (int tr = 0; tr < 2; tr++) {
        in.set(rhs[t], dense == 1);
        int rc =
            tr ? VRXbtran(f, &in.v, &out.v, 1, &work) : VRXftran(f, &in.v, &out.v, 0, 1, &work);
        ASSERT_EQ(0, rc);
        std::vector<LD> x = out.get();
        std::vector<LD> ref = denseSolve(B, m, rhs[t], tr == 1);
        LD scale = std::max<LD>(1, normInf(ref));
        for (int i = 0; i < m; i++)
          ASSERT_NEAR(static_cast<double>(ref[i]), static_cast<double>(x[i]),
                      tol * static_cast<double>(scale))
              << "rhs " << t << " dense " << dense << " transpose " << tr << " at " << i;
        EXPECT_LT(residual(A, head, x, rhs[t], tr == 1), tol);
      }
    }
  }
  EXPECT_GT(work, 0.0);
}

template <class T>
void randomBasesCase(int m, double density, double slackShare, unsigned seed) {
  SCOPED_TRACE("m=" + std::to_string(m) + " density=" + std::to_string(density));
  Env e;
  std::mt19937 rng(seed);
  Matrix A = randomMatrix(m, 3 * m, density, rng);
  std::vector<int> head = randomBasis(A, slackShare, rng);
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  ctl.iterCount = 1;
  Factor<T> F(e.env, m, ctl.refactorLimit);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  ASSERT_EQ(1, F.f->valid);
  ASSERT_EQ(0, ctl.singularRepairs) << "random basis came out singular";
  EXPECT_GT(work, 0.0);
  std::vector<LD> B = denseBasis(A, head);
  std::vector<std::vector<LD>> rhs = {unit(m, 0), unit(m, m - 1), columnOf(A, head[m / 2]),
                                      columnOf(A, m % A.n), randomDense(m, rng)};
  checkSolves(e.env, F.f, A, B, rhs, 1e-9);
}

// ---------------------------------------------------------------- tests

TEST(FactorSolve, RandomBasesMatchDenseSolve) {
  randomBasesCase<double>(1, 1.0, 0.0, 1);
  randomBasesCase<double>(7, 0.4, 0.2, 2);
  randomBasesCase<double>(40, 0.1, 0.3, 3);
  randomBasesCase<double>(200, 0.02, 0.3, 4);
  randomBasesCase<double>(300, 0.05, 0.0, 5);
  randomBasesCase<double>(500, 0.008, 0.6, 6);
}

TEST(FactorSolve, SlackAndTriangularBasesNeedNoNucleus) {
  Env e;
  const int m = 60;
  std::mt19937 rng(7);
  // Column j holds row j and a few rows below it: lower triangular in natural order.
  Matrix A(m);
  std::uniform_real_distribution<double> u(0.5, 2.0);
  for (int j = 0; j < m; j++) {
    std::vector<std::pair<int, double>> col = {{j, u(rng)}};
    for (int r = j + 3; r < m; r += 7) col.push_back({r, -u(rng)});
    A.add(col);
  }
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  Factor<double> F(e.env, m, ctl.refactorLimit);
  double work = 0;

  std::vector<int> slack(m);
  for (int i = 0; i < m; i++) slack[i] = A.n + (m - 1 - i);
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, slack.data(), &ctl, &work));
  EXPECT_EQ(m, F.f->singletonCount);
  EXPECT_EQ(0, F.f->lzNz);
  EXPECT_EQ(0, F.f->uNz);
  checkSolves(e.env, F.f, A, denseBasis(A, slack), {unit(m, 3), randomDense(m, rng)}, 1e-12);

  std::vector<int> tri(m);
  for (int p = 0; p < m; p++) tri[p] = (p * 7) % m;  // a shuffled triangular basis
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, tri.data(), &ctl, &work));
  EXPECT_EQ(m, F.f->singletonCount);
  EXPECT_EQ(0, F.f->denseDim);
  EXPECT_GT(F.f->lzNz + F.f->uNz, 0);
  checkSolves(e.env, F.f, A, denseBasis(A, tri), {unit(m, 0), columnOf(A, 5), randomDense(m, rng)},
              1e-10);

  // No rows at all.
  Matrix Z(0);
  Z.add({});
  VRXfactorMatrix viewZ = Z.view();
  Factor<double> G(e.env, 0, 10);
  ASSERT_EQ(0, VRXfactorRefactor(G.f, &viewZ, nullptr, &ctl, &work));
  Vec<double> in(e.env, 0), out(e.env, 0);
  EXPECT_EQ(0, VRXftran(G.f, &in.v, &out.v, 1, 1, &work));
  EXPECT_EQ(0, out.v.count);
  EXPECT_EQ(0, VRXbtran(G.f, &in.v, &out.v, 1, &work));
  EXPECT_EQ(0, out.v.count);
}

TEST(FactorSolve, DenseNucleusGoesThroughDenseKernel) {
  Env e;
  const int m = 120;
  std::mt19937 rng(11);
  Matrix A = randomMatrix(m, 2 * m, 0.6, rng);
  std::vector<int> head = randomBasis(A, 0.0, rng);
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  ctl.iterCount = 1;
  std::vector<LD> B = denseBasis(A, head);
  std::vector<std::vector<LD>> rhs = {unit(m, 7), columnOf(A, 3), randomDense(m, rng)};
  double work = 0;
  {
    Factor<double> F(e.env, m, 50);
    ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
    EXPECT_GT(F.f->denseDim, 50);
    checkSolves(e.env, F.f, A, B, rhs, 1e-9);
  }
  {
    Factor<LD> F(e.env, m, 50);
    ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
    EXPECT_GT(F.f->denseDim, 50);
    checkSolves(e.env, F.f, A, B, rhs, 1e-12);
  }
  // Two equal columns in the dense block: the dense step gives up, the sparse search finds
  // the dependency and the repair puts a slack in.
  std::vector<int> twin = head;
  twin[5] = twin[9];
  Factor<double> F(e.env, m, 50);
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, twin.data(), &ctl, &work));
  EXPECT_EQ(1, ctl.singularRepairs);
  EXPECT_TRUE(F.f->basisHead[5] >= A.n || F.f->basisHead[9] >= A.n);
  std::vector<int> repaired(F.f->basisHead, F.f->basisHead + m);
  checkSolves(e.env, F.f, A, denseBasis(A, repaired), rhs, 1e-8);
}

// Replaces columns one by one and compares with a fresh factor of the same basis.
template <class T>
void updateSequence(int m, double density, int steps, int limit, unsigned seed, double tol) {
  Env e;
  std::mt19937 rng(seed);
  Matrix A = randomMatrix(m, 3 * m, density, rng);
  std::vector<int> head = randomBasis(A, 0.4, rng);
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  ctl.iterCount = 1;
  ctl.refactorLimit = limit;
  Factor<T> F(e.env, m, limit);
  Factor<T> fresh(e.env, m, limit);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  std::vector<char> basic(A.n + m, 0);
  for (int v : head) basic[v] = 1;
  Vec<T> col(e.env, m), alpha(e.env, m), unitIn(e.env, m), rho(e.env, m), in(e.env, m),
      out(e.env, m);
  std::uniform_int_distribution<int> pickVar(0, A.n + m - 1);
  int limitRefusals = 0, storageRefusals = 0, refactors = 0, testSaidLimit = 0;
  for (int step = 0; step < steps; step++) {
    int q;
    do q = pickVar(rng);
    while (basic[q]);
    const bool keepSpike = step % 3 != 1, keepRowEta = step % 4 != 2;
    col.set(columnOf(A, q), false);
    ASSERT_EQ(0, VRXftran(F.f, &col.v, &alpha.v, keepSpike ? 1 : 0, 1, &work));
    std::vector<LD> a = alpha.get();
    LD amax = normInf(a);
    std::vector<int> cand;
    for (int p = 0; p < m; p++)
      if (std::fabs(a[p]) > 0.1L * amax) cand.push_back(p);
    ASSERT_FALSE(cand.empty());
    int p = cand[std::uniform_int_distribution<int>(0, static_cast<int>(cand.size()) - 1)(rng)];
    if (keepRowEta) {
      unitIn.set(unit(m, p), false);
      ASSERT_EQ(0, VRXbtran(F.f, &unitIn.v, &rho.v, 1, &work));
    }
    if (VRXfactorRefactorTest(F.f, &ctl, work, static_cast<int64_t>(A.ind.size())) == 2)
      testSaidLimit++;
    int rc = VRXfactorUpdate(F.f, p, q, &ctl, &work);
    if (rc == 1) {
      if (ctl.actionCode == 2) {
        EXPECT_EQ(F.f->updateLimit, F.f->nUpdatesDone);
        limitRefusals++;
      } else {
        ASSERT_EQ(11, ctl.actionCode) << "pivots here are far from singular";
        EXPECT_GT(F.f->nUpdatesDone, 30);
        storageRefusals++;
      }
      F.f->basisHead[p] = q;
      ctl.actionCode = 0;
      ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, F.f->basisHead, &ctl, &work));
      ASSERT_EQ(0, ctl.singularRepairs);
      refactors++;
    } else {
      ASSERT_EQ(0, rc);
    }
    basic[head[p]] = 0;
    basic[q] = 1;
    head[p] = q;
    ASSERT_EQ(head, std::vector<int>(F.f->basisHead, F.f->basisHead + m));

    // Cheap checks every step, a fresh factor now and then.
    std::vector<LD> b = columnOf(A, pickVar(rng));
    in.set(b, false);
    ASSERT_EQ(0, VRXftran(F.f, &in.v, &out.v, 0, 1, &work));
    ASSERT_LT(residual(A, head, out.get(), b, false), tol) << "step " << step;
    std::vector<LD> c = unit(m, step % m);
    in.set(c, false);
    ASSERT_EQ(0, VRXbtran(F.f, &in.v, &out.v, 1, &work));
    ASSERT_LT(residual(A, head, out.get(), c, true), tol) << "step " << step;
    if (step % 25 == 24) {
      ASSERT_EQ(0, VRXfactorRefactor(fresh.f, &view, head.data(), &ctl, &work));
      std::vector<LD> d = randomDense(m, rng);
      for (int tr = 0; tr < 2; tr++) {
        in.set(d, true);
        Vec<T> o2(e.env, m);
        ASSERT_EQ(0, tr ? VRXbtran(F.f, &in.v, &out.v, 1, &work)
                        : VRXftran(F.f, &in.v, &out.v, 0, 1, &work));
        ASSERT_EQ(0, tr ? VRXbtran(fresh.f, &in.v, &o2.v, 1, &work)
                        : VRXftran(fresh.f, &in.v, &o2.v, 0, 1, &work));
        std::vector<LD> x1 = out.get(), x2 = o2.get();
        LD scale = std::max<LD>(1, normInf(x2));
        for (int i = 0; i < m; i++)
          ASSERT_NEAR(static_cast<double>(x2[i]), static_cast<double>(x1[i]),
                      tol * static_cast<double>(scale));
      }
    }
  }
  EXPECT_GE(limitRefusals + storageRefusals, steps / (limit + 1) - 1);
  if (limit <= 30) EXPECT_EQ(0, storageRefusals);
  EXPECT_EQ(limitRefusals, testSaidLimit);
  EXPECT_GT(refactors, 1);
}

TEST(FactorUpdate, LongSequencesMatchFreshFactor) {
  // Residuals reflect the loose default threshold (growth) and the absolute solve zero.
  updateSequence<double>(150, 0.03, 260, 25, 21, 1e-8);
  updateSequence<double>(40, 0.2, 120, 20, 22, 1e-8);
  updateSequence<double>(300, 0.01, 300, 60, 25, 1e-8);
}

TEST(FactorUpdate, LongDoubleKeepsExtendedPrecision) {
  // Dropping at the solve-time zero bounds the accuracy of both builds alike.
  updateSequence<LD>(80, 0.05, 100, 21, 23, 1e-8);
  // The extended build must reach residuals a double factor cannot.
  Env e;
  const int m = 100;
  std::mt19937 rng(24);
  Matrix A = randomMatrix(m, 2 * m, 0.1, rng);
  std::vector<int> head = randomBasis(A, 0.2, rng);
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  double work = 0;
  Factor<LD> FQ(e.env, m, 20);
  Factor<double> FD(e.env, m, 20);
  ASSERT_EQ(0, VRXfactorRefactor(FQ.f, &view, head.data(), &ctl, &work));
  ASSERT_EQ(0, VRXfactorRefactor(FD.f, &view, head.data(), &ctl, &work));
  std::vector<LD> b = randomDense(m, rng);
  Vec<LD> inQ(e.env, m), outQ(e.env, m);
  Vec<double> inD(e.env, m), outD(e.env, m);
  inQ.set(b, false);
  inD.set(b, false);
  ASSERT_EQ(0, VRXftran(FQ.f, &inQ.v, &outQ.v, 0, 1, &work));
  ASSERT_EQ(0, VRXftran(FD.f, &inD.v, &outD.v, 0, 1, &work));
  LD rq = residual(A, head, outQ.get(), b, false);
  LD rd = residual(A, head, outD.get(), b, false);
  EXPECT_LT(rq, 1e-18L);
  EXPECT_GT(rd, 10 * rq);
}

TEST(FactorSolve, HyperSparseAndDensePathsAgree) {
  Env e;
  const int m = 3000;
  std::mt19937 rng(31);
  Matrix A = randomMatrix(m, 2 * m, 1.6 / m, rng);  // a small nucleus, as in real LPs
  std::vector<int> head = randomBasis(A, 0.3, rng);
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  ctl.iterCount = 1;
  Factor<double> F(e.env, m, ctl.refactorLimit);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  Vec<double> in(e.env, m), out(e.env, m), alpha(e.env, m);
  // Some updates first, so the row etas and moved rows take part.
  std::vector<int> replaced;
  for (int k = 0; k < 20; k++) {
    int q = A.n + (k * 97) % m;
    if (std::find(head.begin(), head.end(), q) != head.end()) continue;
    in.set(columnOf(A, q), false);
    ASSERT_EQ(0, VRXftran(F.f, &in.v, &alpha.v, 1, 1, &work));
    std::vector<LD> a = alpha.get();
    int p =
        static_cast<int>(std::max_element(a.begin(), a.end(),
                                          [](LD x, LD y) { return std::fabs(x) < std::fabs(y); }) -
                         a.begin());
    ASSERT_EQ(0, VRXfactorUpdate(F.f, p, q, &ctl, &work));
    head[p] = q;
    replaced.push_back(p);
  }
  ASSERT_GT(F.f->nUpdatesDone, 10);

  double sparseWork = 0, denseWork = 0;
  for (int t = 0; t < 30; t++) {
    // Unit vectors at replaced positions go through the row etas for sure.
    std::vector<LD> b = t % 3 == 0   ? unit(m, replaced[t % replaced.size()])
                        : t % 3 == 1 ? unit(m, (t * 131) % m)
                                     : columnOf(A, (t * 61) % A.n);
    for (int tr = 0; tr < 2; tr++) {
      std::vector<LD> x[2];
      for (int dense = 0; dense < 2; dense++) {
        in.set(b, dense == 1);
        double before = F.f->solveWork;
        ASSERT_EQ(0, tr ? VRXbtran(F.f, &in.v, &out.v, 1, &work)
                        : VRXftran(F.f, &in.v, &out.v, 0, 1, &work));
        (dense ? denseWork : sparseWork) += F.f->solveWork - before;
        if (!dense) EXPECT_GE(out.v.count, 0);
        x[dense] = out.get();
      }
      const double scale = std::max<double>(1, static_cast<double>(normInf(x[1])));
      for (int i = 0; i < m; i++)
        ASSERT_NEAR(static_cast<double>(x[1][i]), static_cast<double>(x[0][i]), 1e-12 * scale);
      ASSERT_LT(residual(A, head, x[0], b, tr == 1), 1e-9);
    }
  }
  EXPECT_LT(sparseWork * 10, denseWork);
}

struct RepairCase {
  Matrix A;
  std::vector<int> head;
  std::vector<int> varStat;
  std::vector<double> lower;
  std::vector<int> fixed;
  explicit RepairCase(int m) : A(m) {}
};

// A random basis with a repeated column, an empty column and a dependent column.
RepairCase singularCase(std::mt19937& rng) {
  const int m = 30;
  RepairCase rc(m);
  Matrix base = randomMatrix(m, 2 * m, 0.15, rng);
  rc.A = base;
  rc.A.add({});  // empty column n0
  const int empty = rc.A.n - 1;
  rc.head = randomBasis(base, 0.2, rng);
  // Renumber slacks for the two extra columns.
  for (int& v : rc.head)
    if (v >= base.n) v += 2;
  int s1 = -1, s2 = -1;
  for (int p = 0; p < m - 4 && s2 < 0; p++) {
    if (rc.head[p] < base.n) (s1 < 0 ? s1 : s2) = p;
  }
  std::vector<std::pair<int, double>> sum;
  std::vector<double> dense(m, 0.0);
  for (auto& e : base.column(rc.head[s1])) dense[e.first] += e.second;
  for (auto& e : base.column(rc.head[s2])) dense[e.first] += 2 * e.second;
  for (int i = 0; i < m; i++)
    if (dense[i] != 0) sum.push_back({i, dense[i]});
  rc.A.add(sum);  // dependent column
  const int dependent = rc.A.n - 1;
  rc.head[m - 1] = rc.head[m - 2] < base.n ? rc.head[m - 2] : rc.head[s1];  // repeated
  rc.head[m - 3] = empty;
  rc.head[m - 4] = dependent;
  const int nTotal = rc.A.n + m;
  rc.varStat.assign(nTotal, -1);
  for (int p = 0; p < m; p++) rc.varStat[rc.head[p]] = p;
  rc.lower.assign(nTotal, 0.0);
  rc.lower[empty] = -1e100;
  rc.fixed.assign(10, -1);
  return rc;
}

void bindRepair(VRXfactorCtl* ctl, RepairCase& rc) {
  ctl->varStat = rc.varStat.data();
  ctl->lower = rc.lower.data();
  ctl->fixedList = rc.fixed.data();
  ctl->fixLimit = static_cast<int>(rc.fixed.size());
}

TEST(FactorRepair, SingularBasisGetsSlacks) {
  std::mt19937 rng(41);
  RepairCase rc = singularCase(rng);
  const int m = rc.A.m, n = rc.A.n;
  VRXfactorMatrix view = rc.A.view();
  Env e(true);
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, n);
  ctl.iterCount = 12;
  bindRepair(&ctl, rc);
  const double tolBefore = ctl.markowitzTol;
  ASSERT_LT(tolBefore, 0.5);
  Factor<double> F(e.env, m, ctl.refactorLimit);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, rc.head.data(), &ctl, &work));
  ASSERT_EQ(1, F.f->valid);
  EXPECT_EQ(1, ctl.singularRepairs);
  EXPECT_EQ(1, ctl.rescueCount);
  EXPECT_EQ(1, ctl.normsStale);
  EXPECT_EQ(0.5, ctl.markowitzTol);
  std::string log = e.log();
  EXPECT_EQ(1, countOf(log, "Warning: 3 variables dropped from basis\n")) << log;
  EXPECT_EQ(0, countOf(log, "starting basis discarded"));

  std::vector<int> now(F.f->basisHead, F.f->basisHead + m);
  std::vector<int> changed;
  for (int p = 0; p < m; p++)
    if (now[p] != rc.head[p]) changed.push_back(p);
  ASSERT_EQ(3u, changed.size());
  std::vector<int> dropped;
  for (int p : changed) {
    ASSERT_GE(now[p], n) << "only slacks come in";
    EXPECT_EQ(p, rc.varStat[now[p]]);
    EXPECT_EQ(std::count(rc.head.begin(), rc.head.end(), now[p]), 0) << "slack was basic";
    dropped.push_back(rc.head[p]);
  }
  // The empty column must go; one of the twins and one of the dependent triple as well.
  EXPECT_NE(std::find(dropped.begin(), dropped.end(), n - 2), dropped.end());
  EXPECT_EQ(1, ctl.fixedCount);
  int last = rc.head[changed.back()];
  EXPECT_EQ(rc.fixed[0], last);
  for (int p : changed) {
    int v = rc.head[p];
    bool freeBelow = v == n - 2;
    int expect = v == last ? (freeBelow ? -6 : -4) : (freeBelow ? -3 : -1);
    EXPECT_EQ(expect, rc.varStat[v]) << "variable " << v;
  }
  std::mt19937 rr(5);
  checkSolves(e.env, F.f, rc.A, denseBasis(rc.A, now), {unit(m, 1), randomDense(m, rr)}, 1e-9);

  // The seventh repair of a run is silent, the basis is still repaired.
  RepairCase rc7 = singularCase(rng);
  VRXfactorMatrix view7 = rc7.A.view();
  bindRepair(&ctl, rc7);
  ctl.singularRepairs = 6;
  ctl.fixedCount = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view7, rc7.head.data(), &ctl, &work));
  EXPECT_EQ(7, ctl.singularRepairs);
  EXPECT_EQ(0.9, ctl.markowitzTol);
  EXPECT_EQ(1, countOf(e.log(), "variables dropped from basis"));
  EXPECT_EQ(1, F.f->valid);
}

TEST(FactorRepair, RepairRulesThatRefuse) {
  std::mt19937 rng(43);
  Env e(true);
  double work = 0;
  auto run = [&](auto setup, int expectRc, int expectStatus, bool expectValid) {
    RepairCase rc = singularCase(rng);
    VRXfactorMatrix view = rc.A.view();
    VRXfactorCtl ctl;
    VRXfactorCtlInit(&ctl, e.env, rc.A.m, rc.A.n);
    ctl.iterCount = 3;
    bindRepair(&ctl, rc);
    setup(ctl);
    Factor<double> F(e.env, rc.A.m, ctl.refactorLimit);
    EXPECT_EQ(expectRc, VRXfactorRefactor(F.f, &view, rc.head.data(), &ctl, &work));
    EXPECT_EQ(expectStatus, ctl.status);
    EXPECT_EQ(expectValid ? 1 : 0, F.f->valid);
    if (!expectValid)
      EXPECT_EQ(rc.head, std::vector<int>(F.f->basisHead, F.f->basisHead + rc.A.m)) << "basis kept";
  };
  run([](VRXfactorCtl& c) { c.iterCount = 0, c.warmKind = 1; }, 100001, 1, false);
  run([](VRXfactorCtl& c) { c.iterCount = 0, c.warmKind = 2; }, 100002, 1, false);
  run([](VRXfactorCtl& c) { c.strictNumerics = 1; }, 12, 1, false);
  run([](VRXfactorCtl& c) { c.endFactor = 0, c.singularRepairs = 5; }, 12, 1, false);
  run([](VRXfactorCtl& c) { c.hasSavedState = 1; }, 0, -1002, false);
  run([](VRXfactorCtl& c) { c.fixedCount = c.fixLimit; }, 12, 1, false);
  EXPECT_EQ(1, countOf(e.log(), "Temporary fix limit exceeded\n"));
  // A start at iteration 0 with no warm kind: discarded once, refused after two repairs.
  run([](VRXfactorCtl& c) { c.iterCount = 0; }, 0, 1, true);
  EXPECT_EQ(1, countOf(e.log(), "Warning: starting basis discarded\n"));
  run([](VRXfactorCtl& c) { c.iterCount = 0, c.singularRepairs = 2; }, 12, 1, false);
  EXPECT_EQ(1, countOf(e.log(), "Warning: starting basis discarded\n"));
}

TEST(FactorBuild, MarkowitzTighteningOnWidePivotRatio) {
  Env e(true);
  Matrix A(2);
  A.add({{0, 1e-3}});
  A.add({{1, 1.1e12}});
  A.add({{0, 1.0}, {1, 1e-2}});
  VRXfactorMatrix view = A.view();
  std::vector<int> head = {0, 1};
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, 2, A.n);
  Factor<double> F(e.env, 2, 10);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  EXPECT_EQ(0.9, ctl.markowitzTol);
  std::string log = e.log();
  EXPECT_EQ(1, countOf(log, "Warning: Markowitz tolerance tightened to 0.5\n")) << log;
  EXPECT_EQ(1, countOf(log, "Warning: Markowitz tolerance tightened to 0.9\n")) << log;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  EXPECT_EQ(0.9, ctl.markowitzTol);
  EXPECT_EQ(2, countOf(e.log(), "tightened"));

  // A ratio of 1.1e13 matters only in a scaled LP.
  Matrix B(2);
  B.add({{0, 0.1}});
  B.add({{1, 1.1e12}});
  VRXfactorMatrix viewB = B.view();
  std::vector<int> headB = {0, 1};
  VRXfactorCtlInit(&ctl, e.env, 2, B.n);
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &viewB, headB.data(), &ctl, &work));
  EXPECT_EQ(e.env->par.MarkowitzTol, ctl.markowitzTol);
  ctl.scaled = 1;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &viewB, headB.data(), &ctl, &work));
  EXPECT_EQ(0.9, ctl.markowitzTol);
}

TEST(FactorBuild, SmallArenaCompactsThenRetries) {
  Env e;
  const int m = 50;
  std::mt19937 rng(51);
  Matrix A = randomMatrix(m, 2 * m, 0.3, rng);
  std::vector<int> head = randomBasis(A, 0.0, rng);
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  Factor<double> F(e.env, m, 20);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  // Pretend the arena is tiny: the build reloads at the minimum and runs out under fill.
  F.f->uArenaCap = 1;
  EXPECT_EQ(-1, VRXfactorBuild(F.f, &view, head.data(), ctl.zeroTol, ctl.markowitzTol, 1.0, &work));
  EXPECT_EQ(0, F.f->valid);
  const int64_t small = F.f->uArenaCap;
  int k = -1;
  ASSERT_EQ(0, VRXfactorFactorize(F.f, &view, head.data(), &ctl, &work, &k));
  EXPECT_EQ(0, k);
  EXPECT_GT(F.f->uArenaCap, small);
  checkSolves(e.env, F.f, A, denseBasis(A, head), {unit(m, 2), randomDense(m, rng)}, 1e-9);
}

TEST(FactorUpdate, RefusalsAndStorage) {
  Env e(true);
  const int m = 60;
  std::mt19937 rng(61);
  Matrix A = randomMatrix(m, 3 * m, 0.05, rng);
  std::vector<int> head = randomBasis(A, 0.5, rng);
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  ctl.iterCount = 1;
  Factor<double> F(e.env, 60, 100);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  ASSERT_EQ(100, F.f->updateLimit);

  // A column equal to another basic column makes the new basis singular: refused.
  int p = 0, other = 1;
  Vec<double> in(e.env, m), out(e.env, m);
  in.set(columnOf(A, head[other]), false);
  ASSERT_EQ(0, VRXftran(F.f, &in.v, &out.v, 1, 1, &work));
  const double tol = ctl.markowitzTol;
  ASSERT_LT(tol, 0.5);
  EXPECT_EQ(1, VRXfactorUpdate(F.f, p, head[other], &ctl, &work));
  EXPECT_EQ(6, ctl.actionCode);
  EXPECT_EQ(10, ctl.rescueCount);
  EXPECT_EQ(0.5, ctl.markowitzTol);
  EXPECT_EQ(1, countOf(e.log(), "Markowitz tolerance tightened to 0.5.\n"));
  EXPECT_EQ(0, F.f->nUpdatesDone);
  EXPECT_EQ(head, std::vector<int>(F.f->basisHead, F.f->basisHead + m));
  checkSolves(e.env, F.f, A, denseBasis(A, head), {randomDense(m, rng)}, 1e-9);
  ctl.updateFailures = 99;
  EXPECT_EQ(12, VRXfactorUpdate(F.f, p, head[other], &ctl, &work));
  ctl.updateFailures = 0;

  // Updates that run out of U storage: grown early on, refused after 30 updates.
  auto doUpdate = [&](int k) {
    int q = (A.n + k) % (A.n + m);
    while (std::find(head.begin(), head.end(), q) != head.end()) q = (q + 1) % (A.n + m);
    in.set(columnOf(A, q), false);
    EXPECT_EQ(0, VRXftran(F.f, &in.v, &out.v, 1, 1, &work));
    std::vector<LD> a = out.get();
    int pp =
        static_cast<int>(std::max_element(a.begin(), a.end(),
                                          [](LD x, LD y) { return std::fabs(x) < std::fabs(y); }) -
                         a.begin());
    int rc = VRXfactorUpdate(F.f, pp, q, &ctl, &work);
    if (rc == 0) head[pp] = q;
    return rc;
  };
  F.f->uColArenaCap = F.f->uColTop;  // pretend full
  int k = 0;
  while (k < 200 && F.f->nUpdatesDone < 5) ASSERT_EQ(0, doUpdate(k++));
  EXPECT_GT(F.f->uColArenaCap, F.f->uColTop);
  while (k < 400 && F.f->nUpdatesDone < 31) ASSERT_EQ(0, doUpdate(k++));
  ASSERT_EQ(31, F.f->nUpdatesDone);
  F.f->uColArenaCap = F.f->uColTop;
  ctl.actionCode = 0;
  int rc;
  do rc = doUpdate(k++);
  while (rc == 0 && F.f->uColArenaCap > F.f->uColTop);
  EXPECT_EQ(1, rc);
  EXPECT_EQ(11, ctl.actionCode);
  checkSolves(e.env, F.f, A, denseBasis(A, head), {randomDense(m, rng)}, 1e-9);

  // Bad arguments.
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXfactorUpdate(F.f, m, 0, &ctl, &work));
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXfactorUpdate(F.f, 0, A.n + m, &ctl, &work));
  std::vector<int> bad = head;
  bad[3] = A.n + m;
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXfactorRefactor(F.f, &view, bad.data(), &ctl, &work));
  EXPECT_EQ(VRX_ERROR_DATA_NOT_AVAILABLE, VRXftran(F.f, &in.v, &out.v, 0, 1, &work));
  Matrix D(2);
  D.add({{0, 1.0}, {0, 2.0}});
  VRXfactorMatrix viewD = D.view();
  Factor<double> G(e.env, 2, 5);
  std::vector<int> headD = {0, 2};
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXfactorRefactor(G.f, &viewD, headD.data(), &ctl, &work));
}

TEST(FactorUpdate, RefactorTestRules) {
  Env e;
  const int m = 100;
  std::mt19937 rng(71);
  Matrix A = randomMatrix(m, 3 * m, 0.03, rng);
  std::vector<int> head = randomBasis(A, 0.5, rng);
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  EXPECT_EQ(std::max(20, static_cast<int>(std::pow(100.0, 0.7))), ctl.refactorLimit);
  EXPECT_EQ(static_cast<int>(std::pow(100.0, 0.45)), ctl.updateCheck);
  Factor<double> F(e.env, m, 12);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  EXPECT_EQ(0, VRXfactorRefactorTest(F.f, &ctl, work, 0));
  Vec<double> in(e.env, m), out(e.env, m);
  for (int k = 0; F.f->nUpdatesDone < 12; k++) {
    int q = k;
    if (std::find(head.begin(), head.end(), q) != head.end()) continue;
    in.set(columnOf(A, q), false);
    ASSERT_EQ(0, VRXftran(F.f, &in.v, &out.v, 1, 1, &work));
    std::vector<LD> a = out.get();
    int p =
        static_cast<int>(std::max_element(a.begin(), a.end(),
                                          [](LD x, LD y) { return std::fabs(x) < std::fabs(y); }) -
                         a.begin());
    ASSERT_EQ(0, VRXfactorUpdate(F.f, p, q, &ctl, &work));
    head[p] = q;
    int expect = F.f->nUpdatesDone == 12 ? 2 : 0;
    ctl.updateCheck = 1000000;
    ctl.factorWorkAvg = 0;
    EXPECT_EQ(expect, VRXfactorRefactorTest(F.f, &ctl, work, 0));
    if (expect) continue;
    ctl.updateCheck = 0;  // fill test on: any spike outweighs z^2 capped at 0
    EXPECT_EQ(10, VRXfactorRefactorTest(F.f, &ctl, work, 0));
    ctl.updateCheck = 1000000;
    ctl.factorWorkAvg = 1.0;
    int byWork = F.f->nUpdatesDone % 10 == 9 ? 10 : 0;
    EXPECT_EQ(byWork, VRXfactorRefactorTest(F.f, &ctl, F.f->workAtBuild + 100.0, 0));
    EXPECT_EQ(0, VRXfactorRefactorTest(F.f, &ctl, F.f->workAtBuild + 10.0, 0));
  }
}

// Host hooks that count live blocks and fail every call from a chosen one on.
struct Hooks {
  long calls = 0;
  long failFrom = -1;
  long failed = 0;
  long live = 0;
};
bool hookFails(Hooks* h) {
  bool fail = h->failFrom >= 0 && h->calls >= h->failFrom;
  h->calls++;
  if (fail) h->failed++;
  return fail;
}
void* hMalloc(size_t n, void* u) {
  auto* h = static_cast<Hooks*>(u);
  if (hookFails(h)) return nullptr;
  void* p = std::malloc(n);
  if (p) h->live++;
  return p;
}
void* hCalloc(size_t n, size_t s, void* u) {
  auto* h = static_cast<Hooks*>(u);
  if (hookFails(h)) return nullptr;
  void* p = std::calloc(n, s);
  if (p) h->live++;
  return p;
}
void* hRealloc(void* p, size_t n, void* u) {
  auto* h = static_cast<Hooks*>(u);
  if (hookFails(h)) return nullptr;
  void* q = std::realloc(p, n);
  if (q && !p) h->live++;
  return q;
}
void hFree(void* p, void* u) {
  if (!p) return;
  static_cast<Hooks*>(u)->live--;
  std::free(p);
}

// Everything a refactor cycle allocates; returns the first nonzero code.
int memoryScenario(VRXenv* env, const Matrix& A, const std::vector<int>& head,
                   const std::vector<int>& singular) {
  const int m = A.m;
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, env, m, A.n);
  ctl.iterCount = 1;
  VRXfactor* f = nullptr;
  int rc = VRXfactorCreate(env, m, 30, &f);
  if (rc) return rc;
  VRXsvec in{}, out{};
  double work = 0;
  rc = vrx::svecAlloc(env, &in, m);
  if (!rc) rc = vrx::svecAlloc(env, &out, m);
  if (!rc) rc = VRXfactorRefactor(f, &view, head.data(), &ctl, &work);
  for (int k = 0; !rc && k < 3; k++) {
    int q = A.n + k;
    in.count = 0;
    for (auto& e : A.column(q)) {
      in.value[e.first] = e.second;
      in.index[in.count++] = e.first;
    }
    rc = VRXftran(f, &in, &out, 1, 1, &work);
    if (rc) break;
    int best = 0;
    for (int i = 0; i < m; i++)
      if (std::fabs(out.value[i]) > std::fabs(out.value[best])) best = i;
    vrx::svecClear(&in, m);
    f->uColArenaCap = f->uColTop;  // force the update to grow its storage
    rc = VRXfactorUpdate(f, best, q, &ctl, &work);
    if (rc == 1) rc = VRXfactorRefactor(f, &view, f->basisHead, &ctl, &work);
  }
  if (!rc) rc = VRXfactorRefactor(f, &view, singular.data(), &ctl, &work);
  vrx::svecFree(env, &in);
  vrx::svecFree(env, &out);
  VRXfactorFree(&f);
  return rc;
}

TEST(FactorMemory, AllocationFailureReturnsOutOfMemoryWithoutLeak) {
  const int m = 80;
  std::mt19937 rng(81);
  Matrix A = randomMatrix(m, 2 * m, 0.7, rng);  // dense nucleus: the dense buffer too
  std::vector<int> head = randomBasis(A, 0.0, rng);
  std::vector<int> singular = head;
  singular[3] = singular[4];
  bool completed = false;
  int failures = 0;
  for (long k = 0; k < 2000 && !completed; k++) {
    Hooks h;
    VRXenv* env = nullptr;
    ASSERT_EQ(
        0, VRXloadenvsyscb(&env, nullptr, hMalloc, hCalloc, hRealloc, hFree, nullptr, nullptr, &h));
    VRXsetintparam(env, "OutputFlag", 0);
    const long baseline = h.live;
    h.failFrom = h.calls + k;
    int rc = memoryScenario(env, A, head, singular);
    h.failFrom = -1;
    if (rc == 0) {
      completed = h.failed == 0;
    } else {
      ASSERT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << "failing allocation " << k;
      failures++;
    }
    EXPECT_EQ(baseline, h.live) << "leak after failing allocation " << k;
    VRXfreeenv(env);
    EXPECT_EQ(0, h.live);
  }
  EXPECT_TRUE(completed);
  EXPECT_GT(failures, 60);
}

TEST(FactorSolve, IndependentFactorsOnThreadsAgree) {
  const int m = 400;
  std::mt19937 rng(91);
  Matrix A = randomMatrix(m, 2 * m, 0.01, rng);
  std::vector<int> head = randomBasis(A, 0.3, rng);
  std::vector<LD> b = randomDense(m, rng);
  auto job = [&](std::vector<LD>* x, double* work) {
    VRXenv* env = nullptr;
    if (VRXloadenv(&env, nullptr)) return;
    VRXsetintparam(env, "OutputFlag", 0);
    VRXfactorMatrix view = A.view();
    VRXfactorCtl ctl;
    VRXfactorCtlInit(&ctl, env, m, A.n);
    VRXfactor* f = nullptr;
    VRXsvec in{}, out{};
    if (!VRXfactorCreate(env, m, 40, &f) && !vrx::svecAlloc(env, &in, m) &&
        !vrx::svecAlloc(env, &out, m)) {
      for (int rep = 0; rep < 20; rep++) {
        VRXfactorRefactor(f, &view, head.data(), &ctl, work);
        for (int i = 0; i < m; i++) in.value[i] = static_cast<double>(b[i]);
        in.count = -1;
        VRXftran(f, &in, &out, 0, 1, work);
      }
      for (int i = 0; i < m; i++) (*x)[i] = out.value[i];
    }
    vrx::svecFree(env, &in);
    vrx::svecFree(env, &out);
    VRXfactorFree(&f);
    VRXfreeenv(env);
  };
  std::vector<LD> x1(m, 0), x2(m, 0);
  double w1 = 0, w2 = 0;
  std::thread t1(job, &x1, &w1), t2(job, &x2, &w2);
  t1.join();
  t2.join();
  EXPECT_EQ(x1, x2);
  EXPECT_EQ(w1, w2);
  EXPECT_GT(w1, 0.0);
  EXPECT_LT(residual(A, head, x1, b, false), 1e-12);
}

TEST(FactorBuild, UnusableNucleusEntryIsNotRepairedBySlacks) {
  // A dense 4x4 block (no singletons) with one entry that is not a number, or infinite.
  for (double bad : {std::nan(""), HUGE_VAL}) {
    Env e(true);
    const int m = 4;
    Matrix A(m);
    for (int j = 0; j < m; j++) {
      std::vector<std::pair<int, double>> col;
      for (int i = 0; i < m; i++) col.push_back({i, (i == 2 && j == 1) ? bad : 1.0 + i + 3.0 * j + (i == j ? 7.0 : 0.0)});
      A.add(col);
    }
    std::vector<int> head = {0, 1, 2, 3};
    VRXfactorMatrix view = A.view();
    Factor<double> F(e.env, m, 20);
    double work = 0;
    EXPECT_EQ(-10014, VRXfactorBuild(F.f, &view, head.data(), 1e-13, 0.01, 1.0, &work));
    EXPECT_EQ(0, F.f->valid);

    // The refactor tries the stricter tolerance once, then gives up without a repair...
    VRXfactorCtl ctl;
    VRXfactorCtlInit(&ctl, e.env, m, A.n);
    ctl.iterCount = 1;
    ctl.markowitzTol = 0.01;
    EXPECT_EQ(12, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
    EXPECT_EQ(0.5, ctl.markowitzTol);
    EXPECT_EQ(0, ctl.singularRepairs);
    EXPECT_EQ(1, countOf(e.log(), "Warning: Markowitz tolerance tightened to 0.5"));
    EXPECT_EQ(0, countOf(e.log(), "dropped from basis"));
    // ...or hands the basis to the rescue routine when a saved state exists.
    ctl.hasSavedState = 1;
    ctl.status = 1;
    EXPECT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
    EXPECT_EQ(-1002, ctl.status);
    EXPECT_EQ(0, F.f->valid);
  }
  // Entries at most the zero tolerance are no pivots: that is a singular basis, repaired.
  Env e;
  const int m = 4;
  Matrix A(m);
  for (int j = 0; j < m; j++) {
    std::vector<std::pair<int, double>> col;
    // Columns 2 and 3 hold only entries below the zero tolerance, in rows 2 and 3.
    for (int i = 0; i < m; i++) {
      if (j < 2)
        col.push_back({i, 1.0 + i * j + (i == j)});
      else if (i >= 2)
        col.push_back({i, 1e-15 * (1 + i + j)});
    }
    A.add(col);
  }
  std::vector<int> head = {0, 1, 2, 3};
  VRXfactorMatrix view = A.view();
  Factor<double> F(e.env, m, 20);
  double work = 0;
  EXPECT_EQ(2, VRXfactorBuild(F.f, &view, head.data(), 1e-13, 0.01, 1.0, &work));
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  ctl.iterCount = 1;
  EXPECT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  EXPECT_EQ(1, ctl.singularRepairs);
  EXPECT_EQ(1, F.f->valid);
}

TEST(FactorBuild, MiddleSizedSparseNucleusSearchesTheCheapestListsOnly) {
  // A cyclic band (every column and row holds 3 entries, no singletons) of 400 rows: the
  // cheapest lists hold count 3 and 3 * 3 <= 0.1 * 400, so the cheap search applies; 150
  // rows are below the size where it is worth it.
  for (int m : {400, 150}) {
    SCOPED_TRACE(m);
    Env e;
    std::mt19937 rng(77 + m);
    std::uniform_real_distribution<double> u(0.5, 2.0);
    Matrix A(m);
    for (int j = 0; j < m; j++)
      A.add({{j, 4.0 + u(rng)}, {(j + 1) % m, u(rng)}, {(j + 7) % m, -u(rng)}});
    std::vector<int> head(m);
    for (int p = 0; p < m; p++) head[p] = (p * 13) % m;
    VRXfactorMatrix view = A.view();
    VRXfactorCtl ctl;
    VRXfactorCtlInit(&ctl, e.env, m, A.n);
    ctl.iterCount = 1;
    Factor<double> F(e.env, m, 40);
    double work = 0;
    ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
    EXPECT_EQ(0, F.f->singletonCount);
    if (m > 200)
      EXPECT_EQ(m - 200, F.f->cheapPivots);  // until the nucleus is down to 200 rows
    else
      EXPECT_EQ(0, F.f->cheapPivots);
    checkSolves(e.env, F.f, A, denseBasis(A, head), {unit(m, 3), columnOf(A, 11), randomDense(m, rng)}, 1e-10);
  }
}

TEST(FactorSolve, BtranLStageHasItsOwnDensityTest) {
  // A banded upper triangular basis with one entry below the band: U carries nearly all
  // entries, so sparseRatio is m and the ftran rule (count * sparseRatio <= m) would send
  // every vector of two or more entries to the dense L kernel. btran keeps a vector of at
  // most sqrt(m/10) entries hyper-sparse.
  Env e;
  const int m = 200;
  std::mt19937 rng(88);
  std::uniform_real_distribution<double> u(0.5, 2.0);
  Matrix A(m);
  for (int j = 0; j < m; j++) {
    std::vector<std::pair<int, double>> col;
    for (int i = std::max(0, j - 8); i < j; i++) col.push_back({i, u(rng) - 1.25});
    col.push_back({j, 5.0 + u(rng)});
    if (j == m - 5) col.push_back({m - 1, 0.3});
    A.add(col);
  }
  std::vector<int> head(m);
  for (int p = 0; p < m; p++) head[p] = (p * 7) % m;
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, e.env, m, A.n);
  ctl.iterCount = 1;
  Factor<double> F(e.env, m, 40);
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  ASSERT_GT(F.f->lzNz, 0);
  ASSERT_GT(F.f->uNz, 5 * F.f->lzNz);
  std::vector<LD> B = denseBasis(A, head);
  Vec<double> in(e.env, m), out(e.env, m);
  int checked = 0;
  for (int i = 0; i < m; i++) {
    in.set(unit(m, i), false);
    ASSERT_EQ(0, VRXbtran(F.f, &in.v, &out.v, 1, &work));
    const int c = F.f->lastLCount;
    ASSERT_GE(c, 0);
    if (static_cast<int64_t>(c) * F.f->sparseRatio <= m || 10 * c * c > m) continue;
    EXPECT_TRUE(F.f->lastStages & 1) << "row " << i << " count " << c;
    std::vector<LD> ref = denseSolve(B, m, unit(m, i), true);
    std::vector<LD> x = out.get();
    for (int k = 0; k < m; k++) ASSERT_NEAR(static_cast<double>(ref[k]), static_cast<double>(x[k]), 1e-9);
    checked++;
  }
  EXPECT_GE(checked, 2);
}

// Refactors F on head, then lets structural columns replace the position of the largest
// entry of their ftran, up to `steps` times (fewer when the factor asks for a refactor or
// a pivot is below 1e-3), and factors the basis reached afresh into `fresh`.
void updateFromRandomBasis(VRXenv* env, const Matrix& A, std::vector<int>& head, int steps, Factor<double>& F,
                           Factor<double>& fresh) {
  const int m = A.m;
  VRXfactorMatrix view = A.view();
  VRXfactorCtl ctl;
  VRXfactorCtlInit(&ctl, env, m, A.n);
  ctl.iterCount = 1;
  double work = 0;
  ASSERT_EQ(0, VRXfactorRefactor(F.f, &view, head.data(), &ctl, &work));
  Vec<double> col(env, m), alpha(env, m);
  std::vector<char> basic(A.n + m, 0);
  for (int v : head) basic[v] = 1;
  int q = 0;
  for (int step = 0; step < steps; step++) {
    while (basic[q]) q++;
    col.set(columnOf(A, q), false);
    ASSERT_EQ(0, VRXftran(F.f, &col.v, &alpha.v, 1, 1, &work));
    std::vector<LD> a = alpha.get();
    int p = 0;
    for (int k = 1; k < m; k++)
      if (std::fabs(a[k]) > std::fabs(a[p])) p = k;
    if (std::fabs(a[p]) < 1e-3) {
      q++;
      continue;
    }
    const int rc = VRXfactorUpdate(F.f, p, q, &ctl, &work);
    ASSERT_TRUE(rc == 0 || rc == 1);
    if (rc == 1) break;
    basic[head[p]] = 0;
    basic[q] = 1;
    head[p] = q;
  }
  ASSERT_EQ(0, VRXfactorRefactor(fresh.f, &view, head.data(), &ctl, &work));
}

TEST(FactorUpdate, FtranSkipsRowEtasItCannotMeet) {
  Env e;
  const int m = 200;
  std::mt19937 rng(99);
  Matrix A = randomMatrix(m, 3 * m, 0.02, rng);
  std::vector<int> head = randomBasis(A, 0.5, rng);
  Factor<double> F(e.env, m, 60), fresh(e.env, m, 60);
  updateFromRandomBasis(e.env, A, head, 10, F, fresh);
  ASSERT_GT(F.f->rowEtaCount, 0);
  Vec<double> in(e.env, m), out(e.env, m), out2(e.env, m);
  double work = 0;
  int skippedAll = 0, partly = 0;
  for (int i = 0; i < m; i++) {
    in.set(unit(m, i), false);
    ASSERT_EQ(0, VRXftran(F.f, &in.v, &out.v, 0, 1, &work));
    if (F.f->lastLCount < 0) continue;
    const int start = F.f->lastEtaStart;
    if (start == F.f->rowEtaCount) skippedAll++;
    if (start > 0 && start < F.f->rowEtaCount) partly++;
    ASSERT_EQ(0, VRXftran(fresh.f, &in.v, &out2.v, 0, 1, &work));
    std::vector<LD> x1 = out.get(), x2 = out2.get();
    for (int k = 0; k < m; k++) ASSERT_NEAR(static_cast<double>(x2[k]), static_cast<double>(x1[k]), 1e-10) << i;
  }
  EXPECT_GT(skippedAll, 0);
  EXPECT_GT(partly + skippedAll, m / 4);
}

// After many updates a short vector meets few row etas: btran visits those through the
// per-row chains (its work stays below one pass over every eta) and still matches a
// fresh factor of the same basis.
TEST(FactorUpdate, BtranVisitsOnlyTheRowEtasItMeets) {
  Env e;
  const int m = 300;
  std::mt19937 rng(7);
  Matrix A = randomMatrix(m, 3 * m, 0.01, rng);
  std::vector<int> head = randomBasis(A, 0.5, rng);
  Factor<double> F(e.env, m, 100), fresh(e.env, m, 100);
  updateFromRandomBasis(e.env, A, head, 80, F, fresh);
  const int etas = F.f->rowEtaCount;
  ASSERT_GT(etas, 20);
  Vec<double> in(e.env, m), out(e.env, m), out2(e.env, m);
  double work = 0;
  int cheap = 0;
  for (int i = 0; i < m; i++) {
    in.set(unit(m, i), false);
    const double before = F.f->solveWork;
    ASSERT_EQ(0, VRXbtran(F.f, &in.v, &out.v, 1, &work));
    if ((F.f->solveWork - before) / F.f->solveWorkRate < etas) cheap++;
    ASSERT_EQ(0, VRXbtran(fresh.f, &in.v, &out2.v, 1, &work));
    std::vector<LD> y1 = out.get(), y2 = out2.get();
    for (int k = 0; k < m; k++) ASSERT_NEAR(static_cast<double>(y2[k]), static_cast<double>(y1[k]), 1e-10) << i;
  }
  EXPECT_GT(cheap, m / 10);
}

}  // namespace
