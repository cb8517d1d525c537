// The optimize driver's frame and the callback calls.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "../support/capture.h"
#include "model/callback.h"
#include "model/model.h"
#include "vornix_c.h"

namespace {

class Optimize : public ::testing::Test {
 protected:
  VRXenv* env = nullptr;
  VRXmodel* m = nullptr;
  void SetUp() override {
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    VRXsetintparam(env, "OutputFlag", 0);
  }
  void TearDown() override {
    VRXfreemodel(m);
    VRXfreeenv(env);
  }
  // max x0 + 2 x1 + 3 x2; x0 + x1 <= 4; 2 x1 - x2 >= -1; x2 of the given type.
  void load(char lastType) {
    double obj[] = {1, 2, 3};
    double ub[] = {10, 1e100, 5};
    char vtype[] = {'C', 'C', lastType};
    int beg[] = {0, 1, 3};
    int len[] = {1, 2, 1};
    int ind[] = {0, 0, 1, 1};
    double val[] = {1, 1, 2, -1};
    char sense[] = {'<', '>'};
    double rhs[] = {4, -1};
    ASSERT_EQ(0, VRXloadmodel(env, &m, "opt", 3, 2, -1, 0, obj, sense, rhs, beg, len, ind, val,
                              nullptr, ub, vtype, nullptr, nullptr));
    captureLogOf(VRXgetenv(m));
  }
};

std::vector<std::string>& seen() {
  static std::vector<std::string> lines;
  return lines;
}

int recordMessages(VRXmodel*, void* cbdata, int where, void*) {
  if (where != VRX_CB_MESSAGE) return 0;
  char* msg = nullptr;
  if (VRXcbget(cbdata, where, VRX_CB_MSG_STRING, &msg) == 0) seen().push_back(msg);
  double t = -1;
  EXPECT_EQ(0, VRXcbget(cbdata, where, VRX_CB_RUNTIME, &t));
  EXPECT_GE(t, 0.0);
  int iters = 0;
  EXPECT_EQ(VRX_ERROR_CALLBACK, VRXcbget(cbdata, where, VRX_CB_SPX_ITRCNT, &iters));
  return 0;
}

}  // namespace

TEST_F(Optimize, StatisticsAndRefusalOfMissingSolvers) {
  load('I');
  VRXenv* menv = VRXgetenv(m);
  VRXsetdblparam(menv, "Cutoff", 10);
  EXPECT_EQ(VRX_ERROR_NOT_SUPPORTED, VRXoptimize(m));
  const std::string& log = capturedLog();
  EXPECT_NE(std::string::npos, log.find("Optimize a model with 2 rows, 3 columns and 4 nonzeros\n"));
  EXPECT_NE(std::string::npos, log.find("Variable types: 2 continuous, 1 integer (0 binary)\n"));
  EXPECT_NE(std::string::npos, log.find("Coefficient statistics:\n"));
  EXPECT_NE(std::string::npos, log.find("  Matrix range     [1e+00, 2e+00]\n"));
  EXPECT_NE(std::string::npos, log.find("  Objective range  [1e+00, 3e+00]\n"));
  // The run's sense turning is undone for the caller.
  double cutoff = 0;
  VRXgetdblparam(menv, "Cutoff", &cutoff);
  EXPECT_EQ(10, cutoff);
  int status = 0;
  VRXgetintattr(m, "Status", &status);
  EXPECT_EQ(VRX_LOADED, status);
  // The model is usable again after the failed run.
  int n = 0;
  EXPECT_EQ(0, VRXgetintattr(m, "NumVars", &n));
  EXPECT_EQ(3, n);
}

TEST_F(Optimize, UpdateWarningAndPendingChangesApplied) {
  load('C');
  m->updateWork = 1e12;
  ASSERT_EQ(0, VRXaddvar(m, 0, nullptr, nullptr, 1.0, 0.0, 1.0, 'C', "extra"));
  VRXoptimize(m);
  const std::string& log = capturedLog();
  EXPECT_NE(std::string::npos, log.find("\nWarning: excessive time spent in model updates.\n"
                                        "Consider calling update less frequently.\n\n"));
  EXPECT_NE(std::string::npos, log.find("Optimize a model with 2 rows, 4 columns"));
  EXPECT_LT(m->updateWork, 1e12);
}

TEST_F(Optimize, AsynchronousRunAndSync) {
  load('I');
  EXPECT_EQ(0, VRXsync(m));  // nothing running
  ASSERT_EQ(0, VRXoptimizeasync(m));
  EXPECT_EQ(VRX_ERROR_NOT_SUPPORTED, VRXsync(m));
  EXPECT_EQ(0, VRXsync(m));
  int n = 0;
  EXPECT_EQ(0, VRXgetintattr(m, "NumVars", &n));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXsync(nullptr));
}

TEST_F(Optimize, MessagesReachTheCallback) {
  load('C');
  seen().clear();
  ASSERT_EQ(0, VRXsetcallbackfunc(m, recordMessages, nullptr));
  VRXcallback cb = nullptr;
  ASSERT_EQ(0, VRXgetcallbackfunc(m, &cb));
  EXPECT_EQ(recordMessages, cb);
  EXPECT_EQ(10002, VRXgetcallbackfunc(m, nullptr));
  EXPECT_STREQ("Unable to query callback function", VRXgetmerrormsg(m));
  VRXoptimize(m);
  ASSERT_FALSE(seen().empty());
  EXPECT_EQ("Optimize a model with 2 rows, 3 columns and 4 nonzeros\n", seen()[0]);
  // With OutputFlag 0 the callback still gets the lines.
  seen().clear();
  VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
  VRXoptimize(m);
  EXPECT_FALSE(seen().empty());
  ASSERT_EQ(0, VRXsetcallbackfunc(m, nullptr, nullptr));
  seen().clear();
  VRXoptimize(m);
  EXPECT_TRUE(seen().empty());
}

TEST_F(Optimize, CallbackCallsCheckTheirBlock) {
  load('C');
  int type = 0, size = 0;
  EXPECT_EQ(0, VRXgetcbwhatinfo(VRX_CB_MIPSOL_SOL, &type, &size));
  EXPECT_EQ(2, type);
  EXPECT_EQ(1, size);
  EXPECT_EQ(0, VRXgetcbwhatinfo(VRX_CB_SPX_ISPERT, &type, &size));
  EXPECT_EQ(1, type);
  EXPECT_EQ(0, size);
  EXPECT_EQ(VRX_ERROR_CALLBACK, VRXgetcbwhatinfo(9999, &type, &size));
  double t = 0;
  EXPECT_EQ(VRX_ERROR_CALLBACK, VRXcbget(nullptr, 0, VRX_CB_RUNTIME, &t));
  VRXcbdata fake{};
  EXPECT_EQ(VRX_ERROR_CALLBACK, VRXcbget(&fake, 0, VRX_CB_RUNTIME, &t));

  // A block at 'where' 3, as the MIP search would hand it out.
  ASSERT_EQ(0, VRXsetcallbackfunc(m, [](VRXmodel*, void* cbdata, int where, void*) -> int {
    if (where != VRX_CB_MIP) return 0;
    int ind[] = {0, 3};
    double val[] = {1, 1};
    EXPECT_EQ(VRX_ERROR_CALLBACK, VRXcblazy(cbdata, 1, ind, val, '<', 1));
    EXPECT_STREQ("Lazy constraints only allowed from MIPNODE or MIPSOL callback",
                 VRXgetmerrormsg(static_cast<VRXcbdata*>(cbdata)->model));
    EXPECT_EQ(1, static_cast<VRXcbdata*>(cbdata)->cutCount);
    EXPECT_EQ(VRX_ERROR_CALLBACK, VRXcbcut(cbdata, 2, ind, val, '<', 1));
    EXPECT_STREQ("Unknown variable", VRXgetmerrormsg(static_cast<VRXcbdata*>(cbdata)->model));
    double best = 0;
    EXPECT_EQ(0, VRXcbget(cbdata, where, VRX_CB_MIP_OBJBST, &best));
    EXPECT_EQ(42.0, best);
    EXPECT_EQ(0, VRXcbsetparam(cbdata, "Cutoff", "7"));
    EXPECT_EQ(VRX_ERROR_CALLBACK, VRXcbsetparam(cbdata, "Threads", "2"));
    return 0;
  }, nullptr));
  VRXcbprogress p{};
  p.mipObjBest = 42.0;
  EXPECT_EQ(0, vrx::callbackFrame(VRXgetenv(m), VRX_CB_MIP, &p));
  double cutoff = 0;
  VRXgetdblparam(VRXgetenv(m), "Cutoff", &cutoff);
  EXPECT_EQ(-7, cutoff);  // a maximisation: the run keeps the minimising sense
  // A stale block after the model is gone.
  VRXcbdata* block = m->cbState;
  VRXfreemodel(m);
  m = nullptr;
  (void)block;
}

namespace {

// Holds the solve at a simplex log line past 200 iterations until the test has read it.
struct Gate {
  std::atomic<int> state{0};  // 0 running, 1 held, 2 released
  double lastObj = 0;         // the objective of the log line before the one held at
  double heldIter = 0;
};

int holdAtProgress(VRXmodel*, void* cbdata, int where, void* usr) {
  auto* g = static_cast<Gate*>(usr);
  if (where != VRX_CB_SIMPLEX || g->state.load() != 0) return 0;
  double it = 0, obj = 0;
  EXPECT_EQ(0, VRXcbget(cbdata, where, VRX_CB_SPX_ITRCNT, &it));
  EXPECT_EQ(0, VRXcbget(cbdata, where, VRX_CB_SPX_OBJVAL, &obj));
  if (it < 200) {
    g->lastObj = obj;
    return 0;
  }
  g->heldIter = it;
  g->state.store(1);
  while (g->state.load() == 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return 0;
}

}  // namespace

// While an asynchronous solve runs the cached attributes follow it: the iteration count
// and the objective read in the middle of the run are those of the last log line, the work
// so far is the run's, other reads get 10017; the user's callback runs beside the private
// step, which goes away with the run. A maximisation reads its own sign.
TEST_F(Optimize, AsynchronousCacheFollowsTheSolve) {
  std::string path = std::string(VRX_SHARED_DATA) + "/netlib/scfxm2.mps.gz";
  double minObj = 0, minIter = 0;
  for (int sense : {1, -1}) {
    VRXfreemodel(m);
    m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m));
    VRXenv* menv = VRXgetenv(m);
    VRXsetintparam(menv, "Method", 0);
    VRXsetintparam(menv, "Presolve", 0);
    if (sense < 0) {
      // The same minimisation, stated as the maximum of the negated objective.
      int n = 0;
      VRXgetintattr(m, "NumVars", &n);
      std::vector<double> c(n);
      VRXgetdblattrarray(m, "Obj", 0, n, c.data());
      for (double& v : c) v = -v;
      VRXsetdblattrarray(m, "Obj", 0, n, c.data());
      VRXsetintattr(m, "ModelSense", -1);
    }
    Gate gate;
    ASSERT_EQ(0, VRXsetcallbackfunc(m, holdAtProgress, &gate));
    ASSERT_EQ(0, VRXoptimizeasync(m));
    for (int k = 0; k < 60000 && gate.state.load() != 1; k++)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(1, gate.state.load()) << "the solve never reached 200 iterations";
    int status = 0, n = 0;
    double iters = -1, obj = 0, nodes = 0, work = -1, finalWork = 0;
    EXPECT_EQ(0, VRXgetintattr(m, "Status", &status));
    EXPECT_EQ(VRX_INPROGRESS, status);
    EXPECT_EQ(0, VRXgetdblattr(m, "IterCount", &iters));
    EXPECT_GE(iters, 100.0);  // the log line before this one went into the cache
    EXPECT_LT(iters, 200.0 + 100.0);
    EXPECT_EQ(0, VRXgetdblattr(m, "ObjVal", &obj));
    EXPECT_EQ(gate.lastObj, obj);
    EXPECT_EQ(0, VRXgetdblattr(m, "RunVTime", &work));
    EXPECT_GT(work, 0.0);
    if (sense > 0) {
      minObj = obj;
      minIter = gate.heldIter;
    } else {
      EXPECT_EQ(minIter, gate.heldIter);
      EXPECT_EQ(-minObj, obj);
    }
    EXPECT_EQ(0, VRXgetdblattr(m, "NodeCount", &nodes));
    EXPECT_EQ(-1.0, nodes);
    EXPECT_EQ(VRX_ERROR_OPTIMIZATION_IN_PROGRESS, VRXgetintattr(m, "NumVars", &n));
    EXPECT_EQ(VRX_ERROR_OPTIMIZATION_IN_PROGRESS, VRXgetdblattr(m, "Runtime", &obj));
    VRXcallback cb = nullptr;
    EXPECT_EQ(VRX_ERROR_OPTIMIZATION_IN_PROGRESS, VRXgetcallbackfunc(m, &cb));
    gate.state.store(2);
    EXPECT_EQ(0, VRXsync(m));
    EXPECT_EQ(0, VRXgetintattr(m, "Status", &status));
    EXPECT_EQ(VRX_OPTIMAL, status);
    double finalIters = 0;
    VRXgetdblattr(m, "IterCount", &finalIters);
    EXPECT_GT(finalIters, iters);
    EXPECT_EQ(0, VRXgetdblattr(m, "RunVTime", &finalWork));
    EXPECT_GT(finalWork, work);
    ASSERT_EQ(0, VRXgetcallbackfunc(m, &cb));
    EXPECT_EQ(holdAtProgress, cb);
  }
  // Without a user callback the private step is the only one, and it goes with the run.
  VRXcallback cb = nullptr;
  int status = 0;
  ASSERT_EQ(0, VRXsetcallbackfunc(m, nullptr, nullptr));
  VRXsetintparam(VRXgetenv(m), "Method", 1);
  ASSERT_EQ(0, VRXoptimizeasync(m));
  EXPECT_EQ(0, VRXsync(m));
  ASSERT_EQ(0, VRXgetcallbackfunc(m, &cb));
  EXPECT_EQ(nullptr, cb);
  EXPECT_EQ(0, VRXgetintattr(m, "Status", &status));
  EXPECT_EQ(VRX_OPTIMAL, status);
}
