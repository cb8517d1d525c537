// VRXoptimize with presolve on: the published duals, reduced costs and basis on
// the original model, the presolve lines of the log, and the outcomes that
// presolve finds with and without InfUnbdInfo.
#include <cmath>

#include "../support/capture.h"
#include "harness.h"

namespace {

using namespace pretest;

TEST(PresolveOptimize, PublishedSolutionSatisfiesTheOriginalModel) {
  auto ref = reference("netlib");
  for (const char* name : {"afiro", "scagr25", "ship04s", "bore3d", "etamacro", "standmps"}) {
    Env e;
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(e.env, (std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz").c_str(), &m));
    captureLogOf(VRXgetenv(m));
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0, n = 0, rows = 0;
    VRXgetintattr(m, "Status", &status);
    VRXgetintattr(m, "NumVars", &n);
    VRXgetintattr(m, "NumConstrs", &rows);
    ASSERT_EQ(VRX_OPTIMAL, status) << name;
    double obj = 0;
    VRXgetdblattr(m, "ObjVal", &obj);
    EXPECT_TRUE(closeTo(obj, ref[name])) << name;
    const std::string& log = capturedLog();
    EXPECT_NE(std::string::npos, log.find("Presolve time: ")) << name;
    EXPECT_NE(std::string::npos, log.find("Presolved: ")) << name;
    EXPECT_EQ(std::string::npos, log.find("Extra ")) << name;

    Result r;
    r.x.resize(n);
    r.y.resize(rows);
    r.d.resize(n);
    r.cs.resize(n);
    r.rs.resize(rows);
    ASSERT_EQ(0, VRXgetdblattrarray(m, "X", 0, n, r.x.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(m, "Pi", 0, rows, r.y.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(m, "RC", 0, n, r.d.data()));
    ASSERT_EQ(0, VRXgetintattrarray(m, "VBasis", 0, n, r.cs.data()));
    ASSERT_EQ(0, VRXgetintattrarray(m, "CBasis", 0, rows, r.rs.data()));
    // The store is in minimisation form; these models minimise, so the signs agree.
    ASSERT_EQ(1, m->data->modelSense);
    Quality q = measure(m->data, r);
    EXPECT_LT(q.primal, 1e-6) << name;
    EXPECT_LT(q.dual, 1e-6) << name;
    EXPECT_LT(q.identity, 1e-9) << name;
    EXPECT_EQ(rows, q.basics) << name;
    double iters = 0;
    VRXgetdblattr(m, "IterCount", &iters);
    EXPECT_GT(iters, 0) << name;
    // A second solve goes on from the kept record.
    ASSERT_EQ(0, VRXoptimize(m));
    VRXgetdblattr(m, "IterCount", &iters);
    EXPECT_EQ(0, iters) << name;
    VRXfreemodel(m);
  }
}

TEST(PresolveOptimize, OutcomesFoundByPresolveAndInfUnbdInfo) {
  Env e;
  // Infeasible: x0 <= 1 and x0 >= 3 as singleton rows.
  Def inf;
  inf.obj = {1, 1};
  inf.lb = {0, 0};
  inf.ub = {1e100, 1e100};
  inf.sense = "<>";
  inf.rhs = {1, 3};
  inf.cols = {{{0, 1}, {1, 1}}, {}};
  // Unbounded: x1 has no row and a falling objective.
  Def unb;
  unb.obj = {1, -1};
  unb.lb = {0, 0};
  unb.ub = {1e100, 1e100};
  unb.sense = "<";
  unb.rhs = {4};
  unb.cols = {{{0, 1}}, {}};
  struct Case {
    const Def* def;
    int info;
    int status;
  } cases[] = {{&inf, 0, VRX_INFEASIBLE}, {&inf, 1, VRX_INFEASIBLE}, {&unb, 0, VRX_INF_OR_UNBD}, {&unb, 1, VRX_UNBOUNDED}};
  for (const Case& c : cases) {
    VRXmodel* m = load(e.env, *c.def);
    VRXsetintparam(VRXgetenv(m), "InfUnbdInfo", c.info);
    captureLogOf(VRXgetenv(m));
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0;
    VRXgetintattr(m, "Status", &status);
    EXPECT_EQ(c.status, status) << c.info;
    const std::string& log = capturedLog();
    EXPECT_NE(std::string::npos, log.find("Presolve time: "));
    // Presolve answers before a presolved model exists; with InfUnbdInfo the original is
    // solved again, which turns "infeasible or unbounded" into the proven outcome.
    EXPECT_EQ(std::string::npos, log.find("Presolved: "));
    VRXfreemodel(m);
  }
}

}  // namespace
