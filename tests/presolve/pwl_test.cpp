// Continuous models with piecewise-linear objective terms.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/modeldef.h"
#include "../support/pwl.h"
#include "vornix_c.h"

namespace {

constexpr double INF = 1e100;

using Term = vrxtest::PwlTerm;
using vrxtest::buildPwl;
using vrxtest::dblArray;

struct Case {
  const char* what;
  ModelDef def;
  std::vector<Term> terms;
  double obj;
  std::vector<double> x;
  std::vector<double> pi;  // empty: not checked
  std::vector<double> rc;  // NAN entries are not checked
};

std::vector<Case> cases() {
  std::vector<Case> cs;
  {
    // min f(x), slopes -2 then 1: the optimum is the breakpoint at 2.
    Case c{"interior breakpoint", {}, {}, 0, {}, {}, {}};
    c.def.obj = {0};
    c.def.lb = {0};
    c.def.ub = {10};
    c.def.cols = {{}};
    c.terms = {{0, {0, 2, 5}, {4, 0, 3}}};
    c.obj = 0;
    c.x = {2};
    c.rc = {0};
    cs.push_back(c);
  }
  {
    // The last slope (-2) goes on past x = 2 until the row stops it at 6; the
    // first slope (-4) goes on to the left of 1 for the free y, held by y <= -1.
    Case c{"extensions", {}, {}, 0, {}, {}, {}};
    c.def.obj = {0, 0};
    c.def.lb = {0, -INF};
    c.def.ub = {INF, INF};
    c.def.sense = "<<";
    c.def.rhs = {6, -1};
    c.def.cols = {{{0, 1}}, {{1, 1}}};
    c.terms = {{0, {1, 2}, {5, 3}}, {1, {1, 2, 3}, {1, -3, 0}}};
    // f0(6) = 3 - 2*4 = -5; f1(-1) = 1 + 4*2 = 9.
    c.obj = 4;
    c.x = {6, -1};
    c.pi = {-2, -4};
    c.rc = {0, 0};
    cs.push_back(c);
  }
  {
    // Slopes -1, 2 with the minimum at 1, but x >= 3 cuts it: RC is the slope there.
    Case c{"bounds cut the function", {}, {}, 0, {}, {}, {}};
    c.def.obj = {0};
    c.def.lb = {3};
    c.def.ub = {4};
    c.def.cols = {{}};
    c.terms = {{0, {0, 1, 5}, {0, -1, 7}}};
    c.obj = 3;
    c.x = {3};
    c.rc = {2};
    cs.push_back(c);
  }
  {
    // max f1(x) + f2(y) + z with x + y + z <= 10 and x - y >= 1 (concave terms).
    // Marginal values: x 2 up to 4, y 1.5 up to 2, z 1 up to 3, then x 0.5, y 0.25.
    Case c{"maximise with rows", {}, {}, 0, {}, {}, {}};
    c.def.objSense = -1;
    c.def.obj = {0, 0, 1};
    c.def.lb = {0, 0, 0};
    c.def.ub = {INF, INF, 3};
    c.def.sense = "<>";
    c.def.rhs = {10, 1};
    c.def.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, -1}}, {{0, 1}}};
    c.terms = {{0, {0, 4, 8}, {0, 8, 10}}, {1, {0, 2, 6}, {0, 3, 4}}};
    c.obj = 8.5 + 3 + 3;
    c.x = {5, 2, 3};
    c.pi = {0.5, 0};
    c.rc = {0, 0, 0.5};
    cs.push_back(c);
  }
  return cs;
}

TEST(Pwl, ConvexTermsSolveWithEveryMethod) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXemptyenv(&env));
  ASSERT_EQ(0, VRXstartenv(env));
  VRXsetintparam(env, "OutputFlag", 0);
  for (const Case& c : cases()) {
    for (int method = 0; method <= 2; ++method) {
      for (int presolve = 0; presolve <= 1; ++presolve) {
        SCOPED_TRACE(std::string(c.what) + " method " + std::to_string(method) + " presolve " +
                     std::to_string(presolve));
        VRXmodel* m = buildPwl(env, c.def, c.terms);
        VRXenv* menv = VRXgetenv(m);
        VRXsetintparam(menv, "Method", method);
        VRXsetintparam(menv, "Presolve", presolve);
        ASSERT_EQ(0, VRXoptimize(m)) << VRXgeterrormsg(menv);
        int status = 0;
        EXPECT_EQ(0, VRXgetintattr(m, "Status", &status));
        EXPECT_EQ(VRX_OPTIMAL, status);
        double obj = 0;
        EXPECT_EQ(0, VRXgetdblattr(m, "ObjVal", &obj));
        EXPECT_NEAR(c.obj, obj, 1e-6);
        const int n = static_cast<int>(c.x.size()), rows = static_cast<int>(c.def.rhs.size());
        const std::vector<double> x = dblArray(m, "X", n);
        for (int j = 0; j < n; ++j) EXPECT_NEAR(c.x[j], x[j], 1e-6) << j;
        const std::vector<double> rc = dblArray(m, "RC", n);
        for (int j = 0; j < n; ++j) EXPECT_NEAR(c.rc[j], rc[j], 1e-6) << j;
        if (rows > 0) {
          const std::vector<double> pi = dblArray(m, "Pi", rows);
          const std::vector<double> slack = dblArray(m, "Slack", rows);
          for (int i = 0; i < rows; ++i) {
            EXPECT_NEAR(c.pi[i], pi[i], 1e-6) << i;
            double act = 0;
            for (int j = 0; j < n; ++j)
              for (auto& e : c.def.cols[j])
                if (e.first == i) act += e.second * c.x[j];
            EXPECT_NEAR(c.def.rhs[i] - act, slack[i], 1e-6) << i;
          }
        }
        double iters = -1;
        EXPECT_EQ(0, VRXgetdblattr(m, "IterCount", &iters));
        EXPECT_GE(iters, 0);
        if (presolve == 1 || method == 2) {
          // The LP form's basis does not belong to the model.
          int vb = 0;
          EXPECT_NE(0, VRXgetintattrelement(m, "VBasis", 0, &vb));
        } else {
          // The native solve's basis does: a column at an inner break point of its term is
          // superbasic (at no bound of the model's), one at -1 or -2 sits at that bound.
          std::vector<int> vb(static_cast<size_t>(n), 99), cb(static_cast<size_t>(rows) + 1, 99);
          ASSERT_EQ(0, VRXgetintattrarray(m, "VBasis", 0, n, vb.data()));
          if (rows > 0) ASSERT_EQ(0, VRXgetintattrarray(m, "CBasis", 0, rows, cb.data()));
          int basic = 0;
          for (int k = 0; k < n + rows; ++k) basic += (k < n ? vb[k] : cb[k - n]) == VRX_BASIC;
          EXPECT_EQ(rows, basic);
          for (int j = 0; j < n; ++j) {
            if (vb[j] == VRX_NONBASIC_LOWER) EXPECT_NEAR(c.def.lb[j], x[j], 1e-9) << j;
            if (vb[j] == VRX_NONBASIC_UPPER) EXPECT_NEAR(c.def.ub[j], x[j], 1e-9) << j;
          }
          for (const Term& t : c.terms) {
            const int j = t.var;
            for (size_t k = 1; k + 1 < t.x.size(); ++k)
              if (std::fabs(x[j] - t.x[k]) < 1e-9 && t.x[k] > c.def.lb[j] && t.x[k] < c.def.ub[j])
                EXPECT_TRUE(vb[j] == VRX_SUPERBASIC || vb[j] == VRX_BASIC) << j << " " << vb[j];
          }
        }
        VRXfreemodel(m);
      }
    }
  }
  VRXfreeenv(env);
}

// Random convex terms against their epigraph form, t_j >= each segment's line,
// solved as a plain LP: the lines go on past the end points as the pieces do.
TEST(Pwl, RandomModelsMatchTheEpigraphForm) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXemptyenv(&env));
  ASSERT_EQ(0, VRXstartenv(env));
  VRXsetintparam(env, "OutputFlag", 0);
  unsigned seed = 12345;
  auto rnd = [&seed](double lo, double hi) {
    seed = seed * 1103515245u + 12345u;
    return lo + (hi - lo) * ((seed >> 8) % 10000) / 9999.0;
  };
  const int n = 4, m = 3;
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const int sense = round % 2 ? -1 : 1;
    ModelDef def;
    def.objSense = sense;
    def.cols.resize(n);
    for (int j = 0; j < n; ++j) {
      def.obj.push_back(rnd(-1, 1));
      def.lb.push_back(rnd(-6, -3));
      def.ub.push_back(rnd(3, 6));
    }
    for (int i = 0; i < m; ++i) {
      for (int j = 0; j < n; ++j) def.cols[j].push_back({i, rnd(-2, 2)});
      def.sense += i == 2 ? '>' : '<';
      def.rhs.push_back(i == 2 ? rnd(-4, -1) : rnd(1, 4));  // x = 0 is feasible
    }
    std::vector<Term> terms;
    for (int j = 0; j < 3; ++j) {
      Term t{j, {}, {}};
      const int pts = 2 + round % 4;
      double x = rnd(-2, 0), y = rnd(-1, 1), slope = rnd(-3, -1);
      for (int k = 0; k < pts; ++k) {
        t.x.push_back(x);
        t.y.push_back(sense * y);  // convex in the minimising sense
        const double w = rnd(0.2, 1.5);
        x += w;
        y += slope * w;
        slope += rnd(0.1, 2);
      }
      terms.push_back(t);
    }
    // The epigraph form, minimising sense.
    ModelDef epi;
    epi.obj = def.obj;
    epi.lb = def.lb;
    epi.ub = def.ub;
    epi.sense = def.sense;
    epi.rhs = def.rhs;
    epi.cols = def.cols;
    for (double& c : epi.obj) c *= sense;
    for (const Term& t : terms) {
      const int tc = static_cast<int>(epi.cols.size());
      epi.cols.push_back({});
      epi.obj.push_back(1);
      epi.lb.push_back(-INF);
      epi.ub.push_back(INF);
      for (size_t k = 0; k + 1 < t.x.size(); ++k) {
        const double y0 = sense * t.y[k], y1 = sense * t.y[k + 1];
        const double sl = (y1 - y0) / (t.x[k + 1] - t.x[k]);
        const int row = static_cast<int>(epi.rhs.size());
        epi.cols[t.var].push_back({row, -sl});
        epi.cols[tc].push_back({row, 1});
        epi.sense += '>';
        epi.rhs.push_back(y0 - sl * t.x[k]);
      }
    }
    VRXmodel* em = loadModelDef(env, epi);
    ASSERT_EQ(0, VRXoptimize(em));
    double want = 0;
    ASSERT_EQ(0, VRXgetdblattr(em, "ObjVal", &want));
    VRXfreemodel(em);
    for (int method = 0; method <= 2; ++method) {
      VRXmodel* pm = buildPwl(env, def, terms);
      VRXsetintparam(VRXgetenv(pm), "Method", method);
      ASSERT_EQ(0, VRXoptimize(pm)) << method;
      double got = 0;
      ASSERT_EQ(0, VRXgetdblattr(pm, "ObjVal", &got)) << method;
      EXPECT_NEAR(sense * want, got, 1e-6 * (1 + std::fabs(want))) << method;
      // The objective is that of the published point on the model's own terms.
      const std::vector<double> x = dblArray(pm, "X", n);
      const std::vector<double> slack = dblArray(pm, "Slack", m);
      for (int i = 0; i < m; ++i) {
        double act = 0;
        for (int j = 0; j < n; ++j) act += def.cols[j][i].second * x[j];
        EXPECT_NEAR(def.rhs[i] - act, slack[i], 1e-7) << i;
      }
      VRXfreemodel(pm);
    }
  }
  VRXfreeenv(env);
}

TEST(Pwl, NonConvexTermsAreRefused) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXemptyenv(&env));
  ASSERT_EQ(0, VRXstartenv(env));
  VRXsetintparam(env, "OutputFlag", 0);
  ModelDef def;
  def.obj = {0, 1};
  def.lb = {0, 0};
  def.ub = {2, 1};
  def.cols = {{}, {}};
  // Slopes 1 then -1: concave, so only the maximum has an LP form.
  VRXmodel* m = buildPwl(env, def, {{0, {0, 1, 2}, {0, 1, 0}}});
  for (int method = 0; method <= 2; ++method) {
    VRXsetintparam(VRXgetenv(m), "Method", method);
    EXPECT_EQ(VRX_ERROR_NOT_SUPPORTED, VRXoptimize(m)) << method;
    EXPECT_STREQ("Piecewise-linear objectives that are not convex need the mixed-integer solver",
                 VRXgeterrormsg(VRXgetenv(m)));
    double obj = 0;
    EXPECT_NE(0, VRXgetdblattr(m, "ObjVal", &obj));
  }
  ASSERT_EQ(0, VRXsetintattr(m, "ModelSense", -1));
  ASSERT_EQ(0, VRXoptimize(m));
  double obj = 0, x = 0;
  EXPECT_EQ(0, VRXgetdblattr(m, "ObjVal", &obj));
  EXPECT_NEAR(2, obj, 1e-9);  // f(1) = 1 and the linear 1 * y at y = 1
  EXPECT_EQ(0, VRXgetdblattrelement(m, "X", 0, &x));
  EXPECT_NEAR(1, x, 1e-9);
  VRXfreemodel(m);

  // A jump cannot be convex once the ends are extended; the attribute says the same.
  m = buildPwl(env, def, {{0, {0, 1, 1, 2}, {0, 1, 2, 3}}});
  int cvx = -1;
  ASSERT_EQ(0, VRXupdatemodel(m));
  EXPECT_EQ(0, VRXgetintattrelement(m, "PWLObjCvx", 0, &cvx));
  EXPECT_EQ(0, cvx);
  EXPECT_EQ(VRX_ERROR_NOT_SUPPORTED, VRXoptimize(m));
  VRXfreemodel(m);
  VRXfreeenv(env);
}

TEST(Pwl, OutcomesWithoutOptimumAndConstantTerms) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXemptyenv(&env));
  ASSERT_EQ(0, VRXstartenv(env));
  VRXsetintparam(env, "OutputFlag", 0);
  for (int method = 0; method <= 2; ++method) {
    for (int presolve = 0; presolve <= 1; ++presolve) {
      SCOPED_TRACE("method " + std::to_string(method) + " presolve " + std::to_string(presolve));
      ModelDef def;
      def.obj = {0};
      def.lb = {0};
      def.ub = {INF};
      def.cols = {{}};
      // The last slope -1 goes on for ever.
      VRXmodel* m = buildPwl(env, def, {{0, {0, 1}, {0, -1}}});
      VRXsetintparam(VRXgetenv(m), "Method", method);
      VRXsetintparam(VRXgetenv(m), "Presolve", presolve);
      ASSERT_EQ(0, VRXoptimize(m));
      int status = 0;
      VRXgetintattr(m, "Status", &status);
      EXPECT_TRUE(status == VRX_UNBOUNDED || status == VRX_INF_OR_UNBD) << status;
      double obj = 0, ray = 0;
      EXPECT_NE(0, VRXgetdblattr(m, "ObjVal", &obj));
      // A ray, when the run leaves one, goes where the objective falls.
      if (VRXgetdblattrelement(m, "UnbdRay", 0, &ray) == 0) EXPECT_GT(ray, 0);
      VRXfreemodel(m);

      def.sense = "><";
      def.rhs = {5, 3};
      def.cols = {{{0, 1}, {1, 1}}};
      m = buildPwl(env, def, {{0, {0, 1}, {0, 1}}});
      VRXsetintparam(VRXgetenv(m), "Method", method);
      VRXsetintparam(VRXgetenv(m), "Presolve", presolve);
      ASSERT_EQ(0, VRXoptimize(m));
      VRXgetintattr(m, "Status", &status);
      EXPECT_TRUE(status == VRX_INFEASIBLE || status == VRX_INF_OR_UNBD) << status;
      VRXfreemodel(m);

      // One point is a constant; x alone decides the optimum.
      def = ModelDef();
      def.obj = {1, 1};
      def.lb = {1, 0};
      def.ub = {2, 1};
      def.cols = {{}, {}};
      m = buildPwl(env, def, {{0, {5}, {7}}});
      VRXsetintparam(VRXgetenv(m), "Method", method);
      VRXsetintparam(VRXgetenv(m), "Presolve", presolve);
      ASSERT_EQ(0, VRXoptimize(m));
      EXPECT_EQ(0, VRXgetdblattr(m, "ObjVal", &obj));
      EXPECT_NEAR(8, obj, 1e-9);
      VRXfreemodel(m);
    }
  }
  VRXfreeenv(env);
}

TEST(Pwl, MpsFileWithPiecesSolves) {
  const std::string path = std::string(::testing::TempDir()) + "pwl_budget.mps";
  {
    std::ofstream f(path);
    f << "NAME budget\nROWS\n N obj\n L cap\nCOLUMNS\n x cap 1\n y cap 1\n z obj -1 cap 1\n"
         "RHS\n rhs cap 10\nBOUNDS\n UP bnd z 3\n"
         "PWLOBJ\n x 0 0\n x 4 -8\n x 8 -10\n y 0 0\n y 2 -3\n y 6 -4\nENDATA\n";
  }
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXemptyenv(&env));
  ASSERT_EQ(0, VRXstartenv(env));
  captureLogOf(env);
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << VRXgeterrormsg(env);
  int terms = 0;
  EXPECT_EQ(0, VRXgetintattr(m, "NumPWLObjVars", &terms));
  EXPECT_EQ(2, terms);
  captureLogOf(VRXgetenv(m));
  ASSERT_EQ(0, VRXoptimize(m)) << VRXgeterrormsg(VRXgetenv(m));
  double obj = 0;
  EXPECT_EQ(0, VRXgetdblattr(m, "ObjVal", &obj));
  EXPECT_NEAR(-14.5, obj, 1e-6);
  const std::vector<double> x = dblArray(m, "X", 3);
  EXPECT_NEAR(5, x[0], 1e-6);
  EXPECT_NEAR(2, x[1], 1e-6);
  EXPECT_NEAR(3, x[2], 1e-6);
  EXPECT_NE(std::string::npos, capturedLog().find("Model has 2 piecewise-linear objective terms\n"));
  EXPECT_NE(std::string::npos, capturedLog().find("Optimal objective"));
  VRXfreemodel(m);
  VRXfreeenv(env);
  std::remove(path.c_str());
}

TEST(Pwl, BarrierWithoutPresolveWarnsAndSolves) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXemptyenv(&env));
  ASSERT_EQ(0, VRXstartenv(env));
  const Case c = cases()[3];
  VRXmodel* m = buildPwl(env, c.def, c.terms);
  captureLogOf(VRXgetenv(m));
  VRXsetintparam(VRXgetenv(m), "Method", 2);
  VRXsetintparam(VRXgetenv(m), "Presolve", 0);
  VRXsetintparam(VRXgetenv(m), "PreDual", 1);
  ASSERT_EQ(0, VRXoptimize(m));
  EXPECT_NE(std::string::npos,
            capturedLog().find("Warning: Barrier needs presolve to translate PWL model into pure LP\n"));
  EXPECT_NE(std::string::npos,
            capturedLog().find("Warning: PreDual = 1 isn't supported for PW Linear objective.\n"));
  int presolve = -5, preDual = -5;
  VRXgetintparam(VRXgetenv(m), "Presolve", &presolve);
  VRXgetintparam(VRXgetenv(m), "PreDual", &preDual);
  // The caller's values are back after the run.
  EXPECT_EQ(0, presolve);
  EXPECT_EQ(1, preDual);
  double obj = 0;
  EXPECT_EQ(0, VRXgetdblattr(m, "ObjVal", &obj));
  EXPECT_NEAR(c.obj, obj, 1e-6);
  VRXfreemodel(m);
  VRXfreeenv(env);
}

TEST(Pwl, FailingAllocationsLeakNothing) {
  const Case c = cases()[3];
  vrxtest::expectAllocationSweep(c.def, c.terms, [](VRXenv*) {});
}

}  // namespace

// At a piecewise optimum the reduced cost holds the slope of the term, so the dual
// residual is measured against the slope interval at x: ~0 on every case, with the
// optimum inside a segment, at a breakpoint, on an extension, and for a maximisation.
TEST(Pwl, DualResidualAgainstTheSlopeInterval) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXemptyenv(&env));
  ASSERT_EQ(0, VRXstartenv(env));
  VRXsetintparam(env, "OutputFlag", 0);
  for (const Case& c : cases()) {
    for (int method = 0; method <= 1; ++method) {
      SCOPED_TRACE(std::string(c.what) + " method " + std::to_string(method));
      VRXmodel* m = buildPwl(env, c.def, c.terms);
      VRXsetintparam(VRXgetenv(m), "Method", method);
      ASSERT_EQ(0, VRXoptimize(m));
      double res = -1, sres = -1, sum = -1;
      EXPECT_EQ(0, VRXgetdblattr(m, "DualResidual", &res));
      EXPECT_EQ(0, VRXgetdblattr(m, "DualSResidual", &sres));
      EXPECT_EQ(0, VRXgetdblattr(m, "DualResidualSum", &sum));
      EXPECT_LT(res, 1e-9);
      EXPECT_GE(res, 0);
      EXPECT_LT(sres, 1e-9);
      EXPECT_LT(sum, 1e-9);
      VRXfreemodel(m);
    }
  }
  VRXfreeenv(env);
}
