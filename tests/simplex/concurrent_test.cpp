// Dual and primal simplex run at once: same optimum as a single method, the closing lines,
// the statuses of infeasible and unbounded models, termination, and no blocks left behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <thread>
#include <fstream>
#include <sstream>
#include <string>

#include "../support/capture.h"
#include "../support/modeldef.h"
#include "vornix_c.h"
#include "../support/shared_data.h"

namespace {

double referenceOf(const std::string& model) {
  auto refs = vrxtest::referenceObjectives("netlib");
  auto it = refs.find(model);
  return it == refs.end() ? NAN : it->second;
}

using vrxtest::readNetlib;

int stopAtOnce(VRXmodel* model, void*, int where, void*) {
  if (where == VRX_CB_POLLING || where == VRX_CB_SIMPLEX) VRXterminate(model);
  return 0;
}

}  // namespace

TEST(Concurrent, SameOptimumAndClosingLines) {
  for (const char* name : {"afiro", "sc205", "scfxm2", "bnl1", "pilot4"}) {
    VRXenv* env = nullptr;
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    VRXmodel* m = readNetlib(env, name);
    ASSERT_NE(nullptr, m);
    VRXenv* menv = VRXgetenv(m);
    captureLogOf(menv);
    VRXsetintparam(menv, "VORN_PAR_SPXCONCURRENT", 1);
    ASSERT_EQ(0, VRXoptimize(m)) << name;
    int status = 0;
    double obj = 0, iters = 0;
    VRXgetintattr(m, "Status", &status);
    VRXgetdblattr(m, "ObjVal", &obj);
    VRXgetdblattr(m, "IterCount", &iters);
    EXPECT_EQ(VRX_OPTIMAL, status) << name;
    const double ref = referenceOf(name);
    EXPECT_NEAR(ref, obj, 1e-6 * std::max(1.0, std::fabs(ref))) << name;
    const std::string& log = capturedLog();
    const bool dual = log.find("\nSolved with dual simplex\n") != std::string::npos;
    const bool primal = log.find("\nSolved with primal simplex\n") != std::string::npos;
    EXPECT_NE(dual, primal) << name << "\n" << log;
    char line[128];
    std::snprintf(line, sizeof line, "simplex\nSolved in %d iterations and ", static_cast<int>(iters));
    EXPECT_NE(std::string::npos, log.find(line)) << name << "\n" << log;
    EXPECT_NE(std::string::npos, log.find("Optimal objective ")) << name;
    // The copies solve in silence: no iteration log of theirs reaches the caller.
    EXPECT_EQ(std::string::npos, log.find("Iteration    Objective")) << name;
    // A solution in full: values read back and their objective agrees.
    int n = 0;
    VRXgetintattr(m, "NumVars", &n);
    std::vector<double> x(n), c(n);
    ASSERT_EQ(0, VRXgetdblattrarray(m, "X", 0, n, x.data()));
    ASSERT_EQ(0, VRXgetdblattrarray(m, "Obj", 0, n, c.data()));
    double cx = 0;
    for (int j = 0; j < n; j++) cx += c[j] * x[j];
    double objCon = 0;
    VRXgetdblattr(m, "ObjCon", &objCon);
    EXPECT_NEAR(obj, cx + objCon, 1e-6 * std::max(1.0, std::fabs(obj))) << name;
    VRXfreemodel(m);
    VRXfreeenv(env);
  }
}

TEST(Concurrent, InfeasibleUnboundedAndTerminate) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXsetintparam(env, "VORN_PAR_SPXCONCURRENT", 1);
  {
    ModelDef s;  // x + y <= 1 and x + y >= 3
    s.obj = {1, 1};
    s.lb = {0, 0};
    s.ub = {1e100, 1e100};
    s.rhs = {1, 3};
    s.sense = "<>";
    s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1}}};
    VRXmodel* m = loadModelDef(env, s);
    VRXsetintparam(VRXgetenv(m), "Presolve", 0);
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0;
    VRXgetintattr(m, "Status", &status);
    EXPECT_EQ(VRX_INFEASIBLE, status);
    VRXfreemodel(m);
  }
  {
    ModelDef s;  // min -x - y with x - y <= 2
    s.obj = {-1, -1};
    s.lb = {0, 0};
    s.ub = {1e100, 1e100};
    s.rhs = {2};
    s.sense = "<";
    s.cols = {{{0, 1}}, {{0, -1}}};
    VRXmodel* m = loadModelDef(env, s);
    VRXsetintparam(VRXgetenv(m), "Presolve", 0);
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0;
    VRXgetintattr(m, "Status", &status);
    EXPECT_EQ(VRX_UNBOUNDED, status);
    std::vector<double> d(2);
    ASSERT_EQ(0, VRXgetdblattrarray(m, "UnbdRay", 0, 2, d.data()));
    EXPECT_LT(-d[0] - d[1], 0.0);
    EXPECT_LE(d[0] - d[1], 1e-12);
    VRXfreemodel(m);
  }
  {
    // The caller's callback reaches the dual copy; a terminate from it stops both copies.
    VRXmodel* m = readNetlib(env, "scfxm2");
    VRXenv* menv = VRXgetenv(m);
    captureLogOf(menv);
    VRXsetintparam(menv, "Presolve", 0);
    ASSERT_EQ(0, VRXsetcallbackfunc(m, stopAtOnce, nullptr));
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0;
    VRXgetintattr(m, "Status", &status);
    EXPECT_EQ(VRX_INTERRUPTED, status);
    EXPECT_NE(std::string::npos, capturedLog().find("Stopped in ")) << capturedLog();
    EXPECT_NE(std::string::npos, capturedLog().find("Solve interrupted\n"));
    // The flag raised to stop the other copy does not outlive the solve.
    ASSERT_EQ(0, VRXsetcallbackfunc(m, nullptr, nullptr));
    ASSERT_EQ(0, VRXoptimize(m));
    VRXgetintattr(m, "Status", &status);
    EXPECT_EQ(VRX_OPTIMAL, status);
    VRXfreemodel(m);
  }
  VRXfreeenv(env);
}

namespace {

// Host hooks that two threads may call at once: live blocks and started threads.
struct Counts {
  std::atomic<long> live{0};
  std::atomic<int> threads{0};
};
void* cMalloc(size_t n, void* u) {
  static_cast<Counts*>(u)->live++;
  return std::malloc(n);
}
void* cCalloc(size_t n, size_t s, void* u) {
  static_cast<Counts*>(u)->live++;
  return std::calloc(n, s);
}
void* cRealloc(void* p, size_t n, void* u) {
  if (!p) static_cast<Counts*>(u)->live++;
  return std::realloc(p, n);
}
void cFree(void* p, void* u) {
  if (!p) return;
  static_cast<Counts*>(u)->live--;
  std::free(p);
}
int cThreadCreate(void** handle, void (*start)(void*), void* arg, void* u) {
  static_cast<Counts*>(u)->threads++;
  *handle = new std::thread(start, arg);
  return 0;
}
void cThreadJoin(void* handle, void*) {
  auto* t = static_cast<std::thread*>(handle);
  t->join();
  delete t;
}

}  // namespace

// Every block of the copies comes from the environment and goes back to it, and the second
// copy runs on a thread of the host's hook.
TEST(Concurrent, HostHooksAndNoBlocksLeftBehind) {
  Counts counts;
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenvsyscb(&env, nullptr, cMalloc, cCalloc, cRealloc, cFree, cThreadCreate,
                               cThreadJoin, &counts));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXsetintparam(env, "VORN_PAR_SPXCONCURRENT", 1);
  const long before = counts.live.load();
  VRXmodel* m = readNetlib(env, "sc105");
  ASSERT_EQ(0, VRXoptimize(m));
  int status = 0;
  VRXgetintattr(m, "Status", &status);
  EXPECT_EQ(VRX_OPTIMAL, status);
  EXPECT_EQ(1, counts.threads.load());
  VRXfreemodel(m);
  EXPECT_EQ(before, counts.live.load());
  VRXfreeenv(env);
  EXPECT_EQ(0, counts.live.load());
}

namespace {

struct Seen {
  int messages = 0, progress = 0;
  std::string text;
};

int countCalls(VRXmodel*, void* cbdata, int where, void* usr) {
  auto* s = static_cast<Seen*>(usr);
  if (where == VRX_CB_MESSAGE) {
    char* msg = nullptr;
    VRXcbget(cbdata, where, VRX_CB_MSG_STRING, &msg);
    s->messages++;
    s->text += msg;
  }
  if (where == VRX_CB_SIMPLEX || where == VRX_CB_POLLING) s->progress++;
  return 0;
}

}  // namespace

// The caller's callback hears the dual copy's progress, but the copies' own log lines stay
// silent: the messages are the caller's lines only, closing lines once.
TEST(Concurrent, CallbackSeesProgressNotTheCopiesLog) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXmodel* m = readNetlib(env, "scfxm1");
  VRXenv* menv = VRXgetenv(m);
  VRXsetintparam(menv, "VORN_PAR_SPXCONCURRENT", 1);
  VRXsetintparam(menv, "Presolve", 0);
  Seen seen;
  ASSERT_EQ(0, VRXsetcallbackfunc(m, countCalls, &seen));
  ASSERT_EQ(0, VRXoptimize(m));
  EXPECT_GT(seen.progress, 0);
  size_t first = seen.text.find("Solved in ");
  ASSERT_NE(std::string::npos, first) << seen.text;
  EXPECT_EQ(std::string::npos, seen.text.find("Solved in ", first + 1)) << seen.text;
  EXPECT_EQ(std::string::npos, seen.text.find("Iteration    Objective")) << seen.text;
  VRXfreemodel(m);
  VRXfreeenv(env);
}
