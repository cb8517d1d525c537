// The presolve step of the LP driver: the solved record left on the original
// model, the log lines, and the outcomes that presolve settles by itself.
#include <cmath>

#include "../support/capture.h"
#include "harness.h"
#include "presolve/lpsolve.h"

namespace {

using namespace pretest;

TEST(PresolveLPStep, LeavesTheOriginalSolvedWithTheLogLines) {
  auto ref = reference("netlib");
  for (const char* name : {"afiro", "sc105", "grow7", "bore3d", "scfxm1"}) {
    Env e;
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(e.env, (std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz").c_str(), &m));
    captureLogOf(VRXgetenv(m));
    vrx::Clock clock = vrx::clockStart();
    vrx::PresolvedSolve ps;
    ASSERT_EQ(0, vrx::lpPresolveSolve(m, 1, clock, &ps));
    ASSERT_EQ(1, ps.handled);
    const VRXlp* lp = static_cast<const VRXlp*>(m->lp);
    ASSERT_NE(nullptr, lp);
    EXPECT_EQ(2, lp->status) << name;
    EXPECT_TRUE(closeTo(lp->sense * lp->dualObj, ref[name])) << name << " " << lp->sense * lp->dualObj;
    EXPECT_EQ(0, ps.extraIters) << name;
    EXPECT_EQ(ps.preIters, lp->priorIter);
    const std::string& log = capturedLog();
    EXPECT_NE(std::string::npos, log.find("Presolve time: ")) << name;
    EXPECT_NE(std::string::npos, log.find("Presolved: ")) << name;
    EXPECT_NE(std::string::npos, log.find(" nonzeros\n")) << name;
    EXPECT_EQ(std::string::npos, log.find("Extra ")) << name;
    VRXlpFreeOnModel(m);
    VRXfreemodel(m);
  }
}

TEST(PresolveLPStep, EverythingRemovedAndOutcomesOfPresolve) {
  Env e;
  // Bounds and one singleton row settle everything.
  Def d;
  d.obj = {1, -1};
  d.lb = {0, 0};
  d.ub = {5, 3};
  d.sense = ">";
  d.rhs = {2};
  d.cols = {{{0, 1}}, {}};
  VRXmodel* m = load(e.env, d);
  captureLogOf(VRXgetenv(m));
  vrx::Clock clock = vrx::clockStart();
  vrx::PresolvedSolve ps;
  ASSERT_EQ(0, vrx::lpPresolveSolve(m, 1, clock, &ps));
  ASSERT_EQ(1, ps.handled);
  EXPECT_NE(std::string::npos, capturedLog().find("Presolve: All rows and columns removed\n"));
  const VRXlp* lp = static_cast<const VRXlp*>(m->lp);
  ASSERT_NE(nullptr, lp);
  EXPECT_EQ(2, lp->status);
  EXPECT_NEAR(2.0 - 3.0, lp->sense * lp->dualObj, 1e-12);
  EXPECT_EQ(0, lp->iterCount);
  VRXlpFreeOnModel(m);
  VRXfreemodel(m);

  // Infeasible in presolve: final, or with InfUnbdInfo a plain solve is asked for.
  Def inf;
  inf.obj = {1, 1};
  inf.lb = {0, 0};
  inf.ub = {1, 1};
  inf.sense = ">";
  inf.rhs = {3};
  inf.cols = {{{0, 1}}, {{0, 1}}};
  for (int info = 0; info <= 1; ++info) {
    m = load(e.env, inf);
    VRXsetintparam(VRXgetenv(m), "InfUnbdInfo", info);
    ASSERT_EQ(0, vrx::lpPresolveSolve(m, 1, clock, &ps));
    if (info) {
      EXPECT_EQ(0, ps.handled);
    } else {
      EXPECT_EQ(1, ps.handled);
      EXPECT_EQ(VRX_INFEASIBLE, ps.status);
      EXPECT_EQ(nullptr, m->lp);
    }
    VRXlpFreeOnModel(m);
    VRXfreemodel(m);
  }
  // Presolve off: nothing happens here.
  m = load(e.env, inf);
  VRXsetintparam(VRXgetenv(m), "Presolve", 0);
  ASSERT_EQ(0, vrx::lpPresolveSolve(m, 1, clock, &ps));
  EXPECT_EQ(0, ps.handled);
  VRXfreemodel(m);
}

}  // namespace
