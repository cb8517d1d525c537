// The threads of the numeric factor: the same panels, bit for bit, whatever
// the number of threads that share them, threads that fail to start, and
// allocation failures in the thread plans.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"
#include "env/env.h"
#include "vornix_c.h"
#include "../support/hooks.h"
#include "../support/barfactor.h"
#include "../support/quiet_env.h"

namespace {

using Cols = vrxtest::ColumnMatrix;

// A g x g grid of rows joined by two-entry columns: subtree tasks below a
// separator top.
Cols grid(int g) {
  Cols c;
  c.m = g * g;
  for (int v = 0; v < c.m; ++v) {
    c.cols.push_back({{v, 1.0}});
    if ((v + 1) % g) c.cols.push_back({{v, 1.0}, {v + 1, -1.0}});
    if (v + g < c.m) c.cols.push_back({{v, 1.0}, {v + g, -1.0}});
  }
  return c;
}

// Rows mostly joined to each other: one wide supernode at the top, cut into
// panels that the threads share. Rows `copies` and on repeat the first rows,
// so the product is singular there.
Cols nearlyDense(int m, int n, int perCol, unsigned seed, int copies = 0) {
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int> row(0, m - 1 - copies);
  std::uniform_real_distribution<double> v(-2.0, 2.0);
  Cols c;
  c.m = m;
  for (int i = 0; i < m - copies; ++i) c.cols.push_back({{i, 1.0 + 0.1 * (i % 3)}});
  for (int j = 0; j < n; ++j) {
    std::vector<std::pair<int, double>> col;
    std::vector<char> used(m, 0);
    for (int t = 0; t < perCol; ++t) {
      const int r = row(gen);
      if (used[r]) continue;
      used[r] = 1;
      col.push_back({r, v(gen)});
    }
    c.cols.push_back(col);
  }
  for (auto& col : c.cols) {
    const size_t len = col.size();
    for (size_t t = 0; t < len; ++t)
      if (col[t].first < copies) col.push_back({m - copies + col[t].first, col[t].second});
  }
  return c;
}

// Both at once: a grid joined by a few columns to a nearly dense block, so
// subtree tasks feed a shared top.
Cols gridAndDense(int g, int m) {
  Cols c = grid(g);
  const Cols d = nearlyDense(m, m * 2 / 3, 40, 11);
  for (auto col : d.cols) {
    for (auto& e : col) e.first += c.m;
    c.cols.push_back(col);
  }
  for (int t = 0; t < 8; ++t) c.cols.push_back({{t * g * g / 8, 0.5}, {c.m + t * 7, 0.5}});
  c.m += m;
  return c;
}

using Factor = vrxtest::BarFactorHolder;
using vrxtest::maxRelDiff;

std::vector<double> thetaFor(int n) {
  std::vector<double> theta(n);
  // Spread over many orders, as late in a barrier run.
  for (int j = 0; j < n; ++j) theta[j] = std::pow(10.0, (j * 37 % 9) - 4);
  return theta;
}

// Largest |rhs - A theta A' x| over |rhs|.
double residual(const vrx::BarMatrix& A, const std::vector<double>& theta, const std::vector<double>& rhs,
                const std::vector<double>& x) {
  std::vector<double> r(rhs);
  for (int j = 0; j < A.n; ++j) {
    double ax = 0;
    for (int64_t p = A.colBeg[j]; p < A.colBeg[j + 1]; ++p) ax += A.val[p] * x[A.rowInd[p]];
    for (int64_t p = A.colBeg[j]; p < A.colBeg[j + 1]; ++p) r[A.rowInd[p]] -= A.val[p] * theta[j] * ax;
  }
  double d = 0, top = 1e-300;
  for (int i = 0; i < A.m; ++i) {
    d = std::max(d, std::fabs(r[i]));
    top = std::max(top, std::fabs(rhs[i]));
  }
  return d / top;
}

// What a factor leaves behind, compared bit for bit.
struct Snapshot {
  std::vector<double> panels;
  std::vector<char> dropped;
  int skipped = 0, regularised = 0;
  double minPivot = 0;
  bool operator==(const Snapshot& o) const {
    return panels.size() == o.panels.size() &&
           std::memcmp(panels.data(), o.panels.data(), sizeof(double) * panels.size()) == 0 &&
           dropped == o.dropped && skipped == o.skipped && regularised == o.regularised &&
           std::memcmp(&minPivot, &o.minPivot, sizeof(double)) == 0;
  }
};

Snapshot snapshot(const VRXbarfactor& f) {
  Snapshot s;
  s.panels.assign(f.panelVal, f.panelVal + f.panelBeg[f.superCount]);
  s.dropped.assign(f.dropped, f.dropped + f.n);
  s.skipped = f.skipPivotCount;
  s.regularised = f.regularised;
  s.minPivot = f.minPivot;
  return s;
}

int sharedSupernodes(const VRXbarfactor& f) {
  int count = 0;
  for (int s = 0; f.teamBlocks && s < f.superCount; ++s) count += f.teamBlocks[s] > 0;
  return count;
}

void orderFor(VRXenv* env, const vrx::BarMatrix& A, int threads, VRXbarfactor* f) {
  vrx::BarFactorOpts opts;
  opts.order = 0;
  opts.threads = threads;
  ASSERT_EQ(0, vrx::VRXbarOrder(env, A, opts, f, nullptr, nullptr));
  ASSERT_EQ(0, vrx::VRXbarSymbolic(env, A, f));
}

// One symbolic factor with buffers for four threads, factored by 1 to 4 of
// them and twice each: the panels, dropped rows and pivot counts never move.
TEST(BarChol, SharedFactorIsBitIdenticalForEveryThreadCount) {
  vrxtest::QuietEnv e;
  struct Case {
    Cols cols;
    double reg;
    bool expectDropped;
  };
  std::vector<Case> cases;
  cases.push_back({gridAndDense(80, 400), 0.0, false});
  cases.push_back({nearlyDense(460, 320, 40, 9), 0.0, false});
  // Repeated rows: tiny pivots, with and without a regularisation value.
  cases.push_back({nearlyDense(460, 320, 40, 5, 6), 0.0, true});
  cases.push_back({nearlyDense(460, 320, 40, 5, 6), 1e-8, true});
  for (size_t c = 0; c < cases.size(); ++c) {
    const vrx::BarMatrix A = cases[c].cols.build();
    const std::vector<double> theta = thetaFor(A.n);
    std::vector<double> rhs(A.m);
    for (int i = 0; i < A.m; ++i) rhs[i] = 1.0 + (i % 7);
    {
      // A factor planned for one thread keeps every supernode whole.
      Factor one(e.env);
      orderFor(e.env, A, 1, &one.f);
      EXPECT_EQ(0, sharedSupernodes(one.f)) << c;
    }
    Factor F(e.env);
    orderFor(e.env, A, 4, &F.f);
    ASSERT_EQ(4, F.f.workers) << c;
    EXPECT_GE(sharedSupernodes(F.f), 1) << c;
    if (c == 0) EXPECT_GE(F.f.taskCount, 2);
    Snapshot first;
    std::vector<double> x1;
    for (int workers : {1, 2, 3, 4, 1}) {
      F.f.workers = workers;
      for (int rep = 0; rep < 2; ++rep) {
        ASSERT_EQ(0, vrx::VRXbarFactorize(e.env, A, theta.data(), cases[c].reg, &F.f));
        const Snapshot now = snapshot(F.f);
        if (first.panels.empty()) first = now;
        EXPECT_TRUE(now == first) << "case " << c << " workers " << workers << " rep " << rep;
      }
      std::vector<double> x(A.m);
      vrx::VRXbarSolve(&F.f, A, theta.data(), rhs.data(), x.data());
      if (x1.empty()) x1 = x;
      EXPECT_TRUE(x == x1) << "case " << c << " workers " << workers;
    }
    // Assembly supernode by supernode, as when the pair map would take too
    // much memory: other sums, the same for every thread count.
    uint32_t* pairMap = F.f.asmOff;
    F.f.asmOff = nullptr;
    Snapshot rowWise;
    for (int workers : {1, 3}) {
      F.f.workers = workers;
      ASSERT_EQ(0, vrx::VRXbarFactorize(e.env, A, theta.data(), cases[c].reg, &F.f));
      if (workers == 1) rowWise = snapshot(F.f);
      EXPECT_TRUE(snapshot(F.f) == rowWise) << c;
      std::vector<double> x(A.m);
      vrx::VRXbarSolve(&F.f, A, theta.data(), rhs.data(), x.data());
      EXPECT_LT(maxRelDiff(x, x1), 1e-7) << c;
    }
    F.f.asmOff = pairMap;
    ASSERT_TRUE(pairMap != nullptr) << c;
    // The same supernodes each on one thread, not cut into row blocks: the
    // same solution up to rounding.
    std::fill(F.f.teamBlocks, F.f.teamBlocks + F.f.superCount, 0);
    ASSERT_EQ(0, vrx::VRXbarFactorize(e.env, A, theta.data(), cases[c].reg, &F.f));
    EXPECT_EQ(first.skipped + first.regularised, F.f.skipPivotCount + F.f.regularised) << c;
    std::vector<double> xSerial(A.m);
    vrx::VRXbarSolve(&F.f, A, theta.data(), rhs.data(), xSerial.data());
    EXPECT_LT(maxRelDiff(x1, xSerial), 1e-7) << c;
    if (cases[c].expectDropped) {
      EXPECT_GT(first.skipped + first.regularised, 0) << c;
    } else {
      EXPECT_EQ(0, first.skipped + first.regularised) << c;
      EXPECT_LT(residual(A, theta, rhs, x1), 1e-8) << c;
    }
  }
}

// Host thread hooks: a hook that refuses some threads leaves their work to
// the others, and one that starts them all runs them through the host.
struct HostThreads {
  int calls = 0;
  int refuseEvery = 0;  // 0: start every thread
  int started = 0;
};

int hostCreate(void** handle, void (*start)(void*), void* arg, void* user) {
  auto* h = static_cast<HostThreads*>(user);
  if (h->refuseEvery > 0 && h->calls++ % h->refuseEvery == 0) return 1;
  *handle = new std::thread(start, arg);
  h->started++;
  return 0;
}

void hostJoin(void* handle, void*) {
  auto* th = static_cast<std::thread*>(handle);
  th->join();
  delete th;
}

TEST(BarChol, HostThreadsThatFailToStartLeaveTheSameFactor) {
  vrxtest::QuietEnv e;
  Cols cols = nearlyDense(420, 300, 40, 3);
  const vrx::BarMatrix A = cols.build();
  const std::vector<double> theta = thetaFor(A.n);
  Factor F(e.env);
  orderFor(e.env, A, 4, &F.f);
  ASSERT_GE(sharedSupernodes(F.f), 1);
  F.f.workers = 1;
  ASSERT_EQ(0, vrx::VRXbarFactorize(e.env, A, theta.data(), 0.0, &F.f));
  const Snapshot alone = snapshot(F.f);
  HostThreads host;
  e.env->threadCreate = hostCreate;
  e.env->threadJoin = hostJoin;
  e.env->sysUserData = &host;
  F.f.workers = 4;
  for (int refuse : {1, 2, 0}) {
    host.refuseEvery = refuse;
    host.calls = host.started = 0;
    ASSERT_EQ(0, vrx::VRXbarFactorize(e.env, A, theta.data(), 0.0, &F.f)) << refuse;
    EXPECT_TRUE(snapshot(F.f) == alone) << refuse;
    EXPECT_EQ(refuse == 1 ? 0 : refuse == 2 ? 1 : 3, host.started) << refuse;
  }
  e.env->threadCreate = nullptr;
  e.env->threadJoin = nullptr;
  e.env->sysUserData = nullptr;
}

// Every allocation of the symbolic factor, the thread plans and the first
// factor with two threads fails in turn: 10001 or success, nothing leaks.
TEST(BarChol, AllocationFailuresInThePlansLeakNothing) {
  Cols cols = nearlyDense(380, 260, 30, 4);
  const vrx::BarMatrix A = cols.build();
  const std::vector<double> theta = thetaFor(A.n);
  HookState hooks;
  VRXenv* env = nullptr;
  ASSERT_EQ(0, loadWithHooks(&env, &hooks));
  VRXsetintparam(env, "OutputFlag", 0);
  const long liveAtStart = hooks.live;
  auto run = [&](long failAt, bool* complete) {
    Factor F(env);
    vrx::BarFactorOpts opts;
    opts.order = 0;
    opts.threads = 2;
    *complete = false;
    ASSERT_EQ(0, vrx::VRXbarOrder(env, A, opts, &F.f, nullptr, nullptr));
    hooks.calls = 0;
    hooks.failAt = failAt;
    int rc = vrx::VRXbarSymbolic(env, A, &F.f);
    if (rc == 0) rc = vrx::VRXbarFactorize(env, A, theta.data(), 0.0, &F.f);
    hooks.failAt = -1;
    EXPECT_TRUE(rc == 0 || rc == VRX_ERROR_OUT_OF_MEMORY) << failAt << " " << rc;
    *complete = rc == 0;
    if (failAt < 0) {
      EXPECT_GE(sharedSupernodes(F.f), 1);
      EXPECT_EQ(2, F.f.workers);
    }
  };
  bool complete = false;
  run(-1, &complete);
  ASSERT_TRUE(complete);
  const long total = hooks.calls;
  ASSERT_GT(total, 5);
  int failures = 0;
  for (long k = 0; k < total; ++k) {
    run(k, &complete);
    failures += !complete;
    EXPECT_EQ(liveAtStart, hooks.live) << "fail at " << k;
  }
  EXPECT_GT(failures, 0);
  VRXfreeenv(env);
}

}  // namespace
