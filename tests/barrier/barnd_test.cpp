// Nested dissection: valid orders, fill near minimum degree's on grids, the
// factor on a dissection order, the choice rules and repeatable thread copies.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"
#include "vornix_c.h"
#include "../support/barfactor.h"
#include "../support/hooks.h"
#include "../support/quiet_env.h"

namespace {

using Columns = std::vector<std::vector<std::pair<int, double>>>;

struct Grid : vrxtest::ColumnMatrix {
  // Rows are the nodes of a g x h (x d) grid, columns its edges plus a unit
  // column per node, then the extra columns.
  Grid(int g, int h, int d = 1, const Columns& extra = {}) {
    Columns edges;
    for (int l = 0; l < d; ++l)
      for (int r = 0; r < g; ++r)
        for (int c = 0; c < h; ++c) {
          const int v = (l * g + r) * h + c;
          edges.push_back({{v, 1.0}});
          if (c + 1 < h) edges.push_back({{v, 1.0}, {v + 1, -1.0}});
          if (r + 1 < g) edges.push_back({{v, 1.0}, {v + h, -1.0}});
          if (l + 1 < d) edges.push_back({{v, 1.0}, {v + g * h, -1.0}});
        }
    edges.insert(edges.end(), extra.begin(), extra.end());
    build(g * h * d, edges);
  }
  // Any m-row matrix given by its columns.
  Grid(int rows, const Columns& given) { build(rows, given); }
  void build(int rows, const Columns& given) {
    m = rows;
    cols = given;
    finish();
  }
};

using Env = vrxtest::QuietEnv;

using Factor = vrxtest::BarFactorHolder;

// Largest |rhs - A theta A' x| after a factor and solve on the order in F.
double solveResidual(VRXenv* env, const Grid& G, Factor& F) {
  EXPECT_EQ(0, vrx::VRXbarSymbolic(env, G.view(), &F.f));
  std::vector<double> theta(G.n), rhs(G.m), x(G.m), r(G.m, 0.0);
  for (int j = 0; j < G.n; ++j) theta[j] = 0.25 + (j % 5);
  for (int i = 0; i < G.m; ++i) rhs[i] = std::sin(0.1 * i) + 2;
  EXPECT_EQ(0, vrx::VRXbarFactorize(env, G.view(), theta.data(), 0.0, &F.f));
  vrx::VRXbarSolve(&F.f, G.view(), theta.data(), rhs.data(), x.data());
  for (int j = 0; j < G.n; ++j) {
    double ax = 0;
    for (int64_t p = G.colBeg[j]; p < G.colBeg[j + 1]; ++p) ax += G.val[p] * x[G.rowInd[p]];
    for (int64_t p = G.colBeg[j]; p < G.colBeg[j + 1]; ++p) r[G.rowInd[p]] += G.val[p] * theta[j] * ax;
  }
  double mx = 0;
  for (int i = 0; i < G.m; ++i) mx = std::max(mx, std::fabs(rhs[i] - r[i]));
  return mx;
}

bool isPermutation(const int* p, int m) {
  std::vector<int> seen(m, 0);
  for (int i = 0; i < m; ++i) {
    if (p[i] < 0 || p[i] >= m || seen[p[i]]++) return false;
  }
  return true;
}

TEST(BarND, GridsGiveValidOrdersWithFillNearMinimumDegree) {
  Env e;
  for (auto gh : {std::pair<int, int>{70, 70}, std::pair<int, int>{30, 120}, std::pair<int, int>{9, 400}}) {
    Grid G(gh.first, gh.second);
    vrx::BarFactorOpts amd, nd;
    amd.order = 0;
    nd.order = 1;
    Factor A(e.env), N(e.env);
    double nzA = 0, opsA = 0, nzN = 0, opsN = 0;
    ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), amd, &A.f, &nzA, &opsA));
    ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), nd, &N.f, &nzN, &opsN));
    ASSERT_TRUE(isPermutation(N.f.perm, G.m)) << gh.first;
    // Level-set separators are at their best on square grids, weaker on strips.
    const double slack = gh.first == gh.second ? 1.1 : 3.0;
    EXPECT_LT(nzN, 1.6 * nzA) << gh.first << "x" << gh.second;
    EXPECT_LT(opsN, slack * opsA) << gh.first << "x" << gh.second;
    const double rA = solveResidual(e.env, G, A), rN = solveResidual(e.env, G, N);
    EXPECT_LT(rA, 1e-9);
    EXPECT_LT(rN, 1e-9);
  }
}

TEST(BarND, SeedsAndThreadCopiesRepeat) {
  Env e;
  Grid G(50, 50);
  int64_t* xadj = nullptr;
  int* adj = nullptr;
  ASSERT_EQ(0, vrx::productPattern(e.env, G.view(), nullptr, &xadj, &adj, nullptr));
  std::vector<int> p1(G.m), p2(G.m), p3(G.m);
  ASSERT_EQ(0, vrx::VRXbarND(e.env, G.m, xadj, adj, 11, p1.data(), nullptr));
  ASSERT_EQ(0, vrx::VRXbarND(e.env, G.m, xadj, adj, 11, p2.data(), nullptr));
  ASSERT_EQ(0, vrx::VRXbarND(e.env, G.m, xadj, adj, 12, p3.data(), nullptr));
  vrx::envFree(e.env, xadj);
  vrx::envFree(e.env, adj);
  EXPECT_EQ(p1, p2);
  EXPECT_TRUE(isPermutation(p3.data(), G.m));
  // Two copies on a two-processor machine: never worse than the single copy
  // with the first seed, and the same order on one thread and on two, also
  // for seeds where the second copy wins.
  int secondWins = 0;
  for (int seed = 0; seed < 8; ++seed) {
    vrx::BarFactorOpts one, two, twoOnOne;
    one.order = two.order = twoOnOne.order = 1;
    one.seed = two.seed = twoOnOne.seed = seed;
    two.cores = twoOnOne.cores = 2;
    two.threads = 2;
    twoOnOne.threads = 1;
    Factor F1(e.env), F2(e.env), F3(e.env);
    double nz1 = 0, ops1 = 0, nz2 = 0, ops2 = 0, nz3 = 0, ops3 = 0;
    ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), one, &F1.f, &nz1, &ops1));
    ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), two, &F2.f, &nz2, &ops2));
    ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), twoOnOne, &F3.f, &nz3, &ops3));
    EXPECT_LE(ops2, ops1) << seed;
    secondWins += ops2 < ops1;
    EXPECT_EQ(std::vector<int>(F2.f.perm, F2.f.perm + G.m), std::vector<int>(F3.f.perm, F3.f.perm + G.m)) << seed;
    EXPECT_EQ(ops2, ops3) << seed;
  }
  EXPECT_GT(secondWins, 0);
}

TEST(BarND, OrderRulesAndSmallCases) {
  Env e;
  // Minimum degree only leaves the AMD order untouched; automatic never ends worse.
  Grid G(40, 40);
  vrx::BarFactorOpts amd, autoOpts;
  amd.order = 0;
  autoOpts.order = -1;
  Factor A(e.env), B(e.env);
  double nzA = 0, opsA = 0, nzB = 0, opsB = 0;
  ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), amd, &A.f, &nzA, &opsA));
  ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), autoOpts, &B.f, &nzB, &opsB));
  EXPECT_LE(opsB, opsA);
  int64_t* xadj = nullptr;
  int* adj = nullptr;
  ASSERT_EQ(0, vrx::productPattern(e.env, G.view(), nullptr, &xadj, &adj, nullptr));
  std::vector<int> amdOrder(G.m);
  ASSERT_EQ(0, vrx::VRXbarAMD(e.env, G.m, xadj, adj, amdOrder.data()));
  double nzP = 0, opsP = 0;
  ASSERT_EQ(0, vrx::predictFactor(e.env, G.m, xadj, adj, amdOrder.data(), &nzP, &opsP));
  EXPECT_DOUBLE_EQ(opsP, opsA);
  // Empty graph, one vertex, and a graph in pieces.
  std::vector<int> o(1);
  std::vector<int64_t> x1 = {0, 0};
  ASSERT_EQ(0, vrx::VRXbarND(e.env, 1, x1.data(), nullptr, 1, o.data(), nullptr));
  EXPECT_EQ(0, o[0]);
  // Two disjoint paths of 300 vertices each.
  const int n = 600;
  std::vector<int64_t> px(n + 1, 0);
  std::vector<int> pa;
  for (int v = 0; v < n; ++v) {
    if (v % 300 != 0) pa.push_back(v - 1);
    if (v % 300 != 299) pa.push_back(v + 1);
    px[v + 1] = static_cast<int64_t>(pa.size());
  }
  std::vector<int> po(n);
  ASSERT_EQ(0, vrx::VRXbarND(e.env, n, px.data(), pa.data(), 5, po.data(), nullptr));
  ASSERT_TRUE(isPermutation(po.data(), n));
  double nzD = 0, opsD = 0;
  ASSERT_EQ(0, vrx::predictFactor(e.env, n, px.data(), pa.data(), po.data(), &nzD, &opsD));
  // Dissected paths fill little: a few entries below each pivot at most.
  EXPECT_LE(nzD, 3.0 * n);
  vrx::envFree(e.env, xadj);
  vrx::envFree(e.env, adj);
}

}  // namespace

namespace {

// The automatic choice weighs the minimum degree run against the factor's
// flops in work units: a cheap factor stops with minimum degree, a heavy one
// tries dissection, and the counts repeat on any thread count.
TEST(BarND, ChoiceInWorkUnitsRepeats) {
  Env e;
  struct Case {
    int g, h, d;
    bool dissect;
  };
  for (const Case c : {Case{12, 12, 1, false}, Case{70, 70, 1, false}, Case{16, 16, 16, true}}) {
    Grid G(c.g, c.h, c.d);
    double work[2] = {0, 0}, amdWork[2] = {0, 0};
    for (int threads : {1, 2}) {
      vrx::BarFactorOpts opts;
      opts.cores = 2;
      opts.threads = threads;
      Factor F(e.env);
      double nz = 0, ops = 0;
      ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), opts, &F.f, &nz, &ops));
      EXPECT_EQ(c.dissect, F.f.ndCopies > 0) << c.g << " threads " << threads << " amd work " << F.f.amdWork;
      EXPECT_GT(F.f.amdWork, static_cast<double>(G.m));
      // Dissection adds its own work; without it the ordering is minimum degree alone.
      if (F.f.ndCopies > 0)
        EXPECT_GT(F.f.orderWork, F.f.amdWork);
      else
        EXPECT_EQ(F.f.orderWork, F.f.amdWork);
      work[threads - 1] = F.f.orderWork;
      amdWork[threads - 1] = F.f.amdWork;
    }
    EXPECT_EQ(work[0], work[1]) << c.g;
    EXPECT_EQ(amdWork[0], amdWork[1]) << c.g;
  }
  // Minimum degree only: no copy runs, however heavy the factor. Dissection
  // asked for: one copy below 1000 rows, one per processor above.
  struct Forced {
    int g, h, d, order, copies;
  };
  for (const Forced c : {Forced{70, 70, 1, 0, 0}, Forced{27, 37, 1, 1, 1}, Forced{16, 16, 16, 1, 2}}) {
    Grid G(c.g, c.h, c.d);
    vrx::BarFactorOpts opts;
    opts.order = c.order;
    opts.cores = 2;
    opts.threads = 2;
    Factor F(e.env);
    ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), opts, &F.f, nullptr, nullptr));
    EXPECT_EQ(c.copies, F.f.ndCopies) << G.m << " rows";
  }
}

}  // namespace

namespace {

// Few rows never dissect on more than one copy; a product with nothing off the
// diagonal starts none and keeps the identity.
TEST(BarND, CopiesFollowTheRowCount) {
  Env e;
  Columns units;
  for (int i = 0; i < 1200; ++i) units.push_back({{i, 2.0}});
  const Grid rows999(27, 37), rows1000(25, 40), diag(1200, units);
  struct Case {
    const Grid* G;
    int minCopies, maxCopies;
  };
  for (const Case c : {Case{&rows999, 1, 1}, Case{&rows1000, 2, 8}, Case{&diag, 0, 0}}) {
    vrx::BarFactorOpts opts;
    opts.order = 1;
    opts.cores = 8;
    opts.threads = 8;
    Factor F(e.env);
    ASSERT_EQ(0, vrx::VRXbarOrder(e.env, c.G->view(), opts, &F.f, nullptr, nullptr));
    EXPECT_GE(F.f.ndCopies, c.minCopies) << c.G->m << " rows";
    EXPECT_LE(F.f.ndCopies, c.maxCopies) << c.G->m << " rows";
    if (c.G == &diag)
      for (int i = 0; i < diag.m; ++i) ASSERT_EQ(i, F.f.perm[i]);
  }
}

}  // namespace

namespace {

// A side^3 grid whose rows 0..7 are a clique through eight columns of seven
// entries, and `dense` copies of a column over those eight rows: with the
// threshold at 8 those copies are the dense set, and they add nothing to the
// pattern of A A', so the full pattern only saves their Schur work.
Grid gridWithDenseCopies(int side, int dense) {
  Columns extra;
  for (int skip = 0; skip < 8; ++skip) {
    extra.emplace_back();
    for (int i = 0; i < 8; ++i)
      if (i != skip) extra.back().push_back({i, 1.0 + 0.1 * i});
  }
  for (int t = 0; t < dense; ++t) {
    extra.emplace_back();
    for (int i = 0; i < 8; ++i) extra.back().push_back({i, 0.5 + 0.01 * (i + t)});
  }
  return Grid(side, side, side, extra);
}

// Dissection forced on three copies with the full pattern allowed at any size.
vrx::BarFactorOpts fullPatternOpts(int threads) {
  vrx::BarFactorOpts opts;
  opts.order = 1;
  opts.cores = 3;
  opts.threads = threads;
  opts.denseThresh = 8;
  opts.fullPatternOps = 0;
  return opts;
}

// The dense set and minimum degree as the ordering makes them, up to the
// dissection stage; *work is the minimum degree's.
void beforeDissection(VRXenv* env, const Grid& G, const vrx::BarFactorOpts& opts, VRXbarfactor* f, double* nz,
                      double* ops, double* work) {
  f->threads = std::max(1, opts.threads);
  f->env = env;
  ASSERT_EQ(0, vrx::VRXbarDenseCols(env, G.view(), opts, f));
  f->n = G.m;
  f->perm = vrx::envAllocArray<int>(env, static_cast<size_t>(G.m) + 1);
  f->invPerm = vrx::envAllocArray<int>(env, static_cast<size_t>(G.m) + 1);
  int64_t* xadj = nullptr;
  int* adj = nullptr;
  ASSERT_EQ(0, vrx::productPattern(env, G.view(), f->isDense, &xadj, &adj, nullptr));
  *work = 0;
  ASSERT_EQ(0, vrx::VRXbarAMD(env, G.m, xadj, adj, f->perm, work));
  ASSERT_EQ(0, vrx::predictFactor(env, G.m, xadj, adj, f->perm, nz, ops));
  vrx::envFree(env, xadj);
  vrx::envFree(env, adj);
  f->orderWork = *work;
}

// Then the dissection stage alone, without the retry that could drop the set first.
void dissectOnly(VRXenv* env, const Grid& G, const vrx::BarFactorOpts& opts, VRXbarfactor* f, double* nz,
                 double* ops) {
  double work = 0;
  beforeDissection(env, G, opts, f, nz, ops, &work);
  ASSERT_EQ(0, vrx::ndStage(env, G.view(), opts, work, f, nz, ops));
  for (int j = 0; j < G.m; ++j) f->invPerm[f->perm[j]] = j;
}

// On more than two copies, a heavy factor and an automatic dense set, copy 0
// orders the full pattern twice; when it wins the dense set is gone and the
// factor holds those columns. It repeats, on one thread and on two.
TEST(BarND, FullPatternCopyDropsTheDenseSetWhenItWins) {
  Env e;
  const int dense = 40;
  const Grid G = gridWithDenseCopies(16, dense);
  std::vector<int> first;
  for (int threads : {1, 2, 2}) {
    const vrx::BarFactorOpts opts = fullPatternOpts(threads);
    Factor F(e.env);
    double nz = 0, ops = 0;
    dissectOnly(e.env, G, opts, &F.f, &nz, &ops);
    ASSERT_EQ(3, F.f.ndCopies);
    EXPECT_EQ(1, F.f.ndFull);
    ASSERT_EQ(0, F.f.denseCols);
    EXPECT_EQ(1, F.f.denseRetry);
    EXPECT_EQ(nullptr, F.f.denseColList);
    for (int j = 0; j < G.n; ++j) ASSERT_EQ(0, F.f.isDense[j]) << j;
    // The order is the better of copy 0's two dissections of the full pattern.
    int64_t* xadj = nullptr;
    int* adj = nullptr;
    ASSERT_EQ(0, vrx::productPattern(e.env, G.view(), nullptr, &xadj, &adj, nullptr));
    double nzP = 0, opsP = 0;
    ASSERT_EQ(0, vrx::predictFactor(e.env, G.m, xadj, adj, F.f.perm, &nzP, &opsP));
    EXPECT_EQ(ops, opsP);
    std::vector<int> p(G.m);
    for (uint64_t seed : {11u, 14u}) {
      ASSERT_EQ(0, vrx::VRXbarND(e.env, G.m, xadj, adj, seed, p.data(), nullptr));
      double nzS = 0, opsS = 0;
      ASSERT_EQ(0, vrx::predictFactor(e.env, G.m, xadj, adj, p.data(), &nzS, &opsS));
      EXPECT_LE(ops, opsS) << seed;
    }
    vrx::envFree(e.env, xadj);
    vrx::envFree(e.env, adj);
    if (first.empty()) {
      first.assign(F.f.perm, F.f.perm + G.m);
      EXPECT_LT(solveResidual(e.env, G, F), 1e-9);
    } else {
      EXPECT_EQ(first, std::vector<int>(F.f.perm, F.f.perm + G.m)) << threads;
    }
  }
}

// Two copies at most, a factor below the threshold, or a dense set that is
// not automatic: the copies order the reduced pattern only and the set stays.
TEST(BarND, FullPatternCopyOnlyWhenAllConditionsHold) {
  Env e;
  const int dense = 40;
  const Grid G = gridWithDenseCopies(16, dense);
  struct Case {
    int cores, denseSep;
    double threshold;
  };
  for (const Case c : {Case{2, -1, 0}, Case{3, -1, 1e10}, Case{3, 0, 0}, Case{3, 1, 0}}) {
    vrx::BarFactorOpts opts = fullPatternOpts(2);
    opts.cores = c.cores;
    opts.denseSep = c.denseSep;
    opts.fullPatternOps = c.threshold;
    Factor F(e.env);
    double nz = 0, ops = 0;
    if (c.denseSep == -1)
      dissectOnly(e.env, G, opts, &F.f, &nz, &ops);
    else
      ASSERT_EQ(0, vrx::VRXbarOrder(e.env, G.view(), opts, &F.f, &nz, &ops));
    EXPECT_EQ(c.cores, F.f.ndCopies) << c.cores << " " << c.denseSep;
    EXPECT_EQ(0, F.f.ndFull) << c.cores << " " << c.denseSep << " " << c.threshold;
    EXPECT_EQ(c.denseSep == 1 ? 0 : dense, F.f.denseCols) << c.cores << " " << c.denseSep;
    EXPECT_EQ(0, F.f.denseRetry);
  }
}

// A failed allocation anywhere in the stage with the full-pattern copy is
// reported and leaves no block behind.
TEST(BarND, FullPatternStageOutOfMemoryLeavesNothing) {
  const Grid G = gridWithDenseCopies(10, 20);
  // One thread: the counting hooks are not made for concurrent calls.
  const vrx::BarFactorOpts opts = fullPatternOpts(1);
  long total = 0, stride = 1, failed = 0;
  for (long fail = -1; fail < total; fail += fail < 0 ? 1 : stride) {
    HookState st;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, loadWithHooks(&env, &st));
    VRXsetintparam(env, "OutputFlag", 0);
    {
      Factor F(env);
      double nz = 0, ops = 0, work = 0;
      beforeDissection(env, G, opts, &F.f, &nz, &ops, &work);
      const int rc =
          runFailingAt(&st, fail, &total, [&] { return vrx::ndStage(env, G.view(), opts, work, &F.f, &nz, &ops); });
      if (fail < 0) {
        ASSERT_EQ(0, rc);
        ASSERT_EQ(1, F.f.ndFull);
        ASSERT_GT(total, 20);
        stride = std::max(1L, total / 100);
      } else {
        EXPECT_TRUE(rc == 0 || rc == VRX_ERROR_OUT_OF_MEMORY) << "call " << fail << " rc " << rc;
        failed += rc != 0;
      }
    }
    VRXfreeenv(env);
    EXPECT_EQ(0, st.live) << "call " << fail;
  }
  EXPECT_GT(failed, 50);
}

}  // namespace
