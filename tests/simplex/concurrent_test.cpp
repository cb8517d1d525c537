// Dual and primal simplex run at once: same optimum as a single method, the closing lines,
// the statuses of infeasible and unbounded models, termination, and no blocks left behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <cstdlib>
#include <thread>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "env/env.h"
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

ModelDef infeasibleDef() {  // x + y <= 1 and x + y >= 3
  ModelDef s;
  s.obj = {1, 1};
  s.lb = {0, 0};
  s.ub = {1e100, 1e100};
  s.rhs = {1, 3};
  s.sense = "<>";
  s.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 1}}};
  return s;
}

ModelDef unboundedDef() {  // min -x - y with x - y <= 2
  ModelDef s;
  s.obj = {-1, -1};
  s.lb = {0, 0};
  s.ub = {1e100, 1e100};
  s.rhs = {2};
  s.sense = "<";
  s.cols = {{{0, 1}}, {{0, -1}}};
  return s;
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
    VRXmodel* m = loadModelDef(env, infeasibleDef());
    VRXsetintparam(VRXgetenv(m), "Presolve", 0);
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0;
    VRXgetintattr(m, "Status", &status);
    EXPECT_EQ(VRX_INFEASIBLE, status);
    VRXfreemodel(m);
  }
  {
    VRXmodel* m = loadModelDef(env, unboundedDef());
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
  VRXmodel* terminate = nullptr;  // the model a join hook terminates first, when set
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

namespace {

// A second thread that starts only when it is joined, that is after the caller's instance
// ended: the instance on the caller's thread wins whenever it ends with a result.
struct Deferred {
  void (*start)(void*);
  void* arg;
};
int deferredCreate(void** handle, void (*start)(void*), void* arg, void*) {
  *handle = new Deferred{start, arg};
  return 0;
}
void deferredJoin(void* handle, void*) {
  auto* d = static_cast<Deferred*>(handle);
  d->start(d->arg);
  delete d;
}

// A thread that runs to its end inside the create hook, before the caller's instance
// starts: that one finds the others done and the winner named.
int eagerCreate(void** handle, void (*start)(void*), void* arg, void*) {
  start(arg);
  *handle = nullptr;
  return 0;
}
void eagerJoin(void*, void*) {}

// Reads the published basis and solution of a solved model and checks them against each
// other: m basic entries, nonbasic columns at a bound, and a fresh model started from that
// basis ends at once with the same objective.
void expectConsistentBasis(VRXenv* env, const char* name, VRXmodel* m, double obj) {
  int n = 0, rows = 0;
  VRXgetintattr(m, "NumVars", &n);
  VRXgetintattr(m, "NumConstrs", &rows);
  std::vector<int> vb(n), cb(rows);
  std::vector<double> x(n), lb(n), ub(n);
  ASSERT_EQ(0, VRXgetintattrarray(m, "VBasis", 0, n, vb.data())) << name;
  ASSERT_EQ(0, VRXgetintattrarray(m, "CBasis", 0, rows, cb.data())) << name;
  VRXgetdblattrarray(m, "X", 0, n, x.data());
  VRXgetdblattrarray(m, "LB", 0, n, lb.data());
  VRXgetdblattrarray(m, "UB", 0, n, ub.data());
  int basic = 0;
  for (int j = 0; j < n; j++) {
    basic += vb[j] == 0;
    if (vb[j] == -1) EXPECT_NEAR(lb[j], x[j], 1e-9 * (1 + std::fabs(lb[j]))) << name << " " << j;
    if (vb[j] == -2) EXPECT_NEAR(ub[j], x[j], 1e-9 * (1 + std::fabs(ub[j]))) << name << " " << j;
  }
  for (int i = 0; i < rows; i++) basic += cb[i] == 0;
  EXPECT_EQ(rows, basic) << name;
  VRXmodel* again = readNetlib(env, name);
  VRXsetintparam(VRXgetenv(again), "Presolve", 0);
  VRXsetintattrarray(again, "VBasis", 0, n, vb.data());
  VRXsetintattrarray(again, "CBasis", 0, rows, cb.data());
  ASSERT_EQ(0, VRXoptimize(again)) << name;
  double it = -1, obj2 = 0;
  VRXgetdblattr(again, "IterCount", &it);
  VRXgetdblattr(again, "ObjVal", &obj2);
  EXPECT_EQ(0, it) << name;
  EXPECT_NEAR(obj, obj2, 1e-9 * (1 + std::fabs(obj))) << name;
  VRXfreemodel(again);
}

}  // namespace

// PreDual 2 on two threads solves the model and its dual form at once. Whichever form wins,
// the model ends with the reference optimum and an optimal basis of its own; the winner is
// forced both ways by the host's thread hooks: the second thread run to its end before the
// caller's instance starts, or started only after the caller's instance ended.
TEST(Concurrent, ModelAndDualFormAtOnce) {
  for (int force = 0; force < 2; ++force) {
    Counts counts;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, VRXloadenvsyscb(&env, nullptr, cMalloc, cCalloc, cRealloc, cFree,
                                 force == 0 ? eagerCreate : deferredCreate,
                                 force == 0 ? eagerJoin : deferredJoin, &counts));
    VRXsetintparam(env, "OutputFlag", 0);
    // Without presolve the race is on the model itself, with it on the presolved model.
    for (const char* name : {"afiro", "sc50b", "adlittle", "share2b", "blend", "presolved:sc50b",
                             "presolved:adlittle", "presolved:share2b"}) {
      const bool presolve = std::strncmp(name, "presolved:", 10) == 0;
      if (presolve) name += 10;
      VRXmodel* m = readNetlib(env, name);
      ASSERT_NE(nullptr, m);
      VRXenv* menv = VRXgetenv(m);
      VRXsetintparam(menv, "Presolve", presolve ? -1 : 0);
      VRXsetintparam(menv, "PreDual", 2);
      VRXsetintparam(menv, "Threads", 2);
      captureLogOf(menv);
      ASSERT_EQ(0, VRXoptimize(m)) << name;
      int status = 0, winner = -1;
      double obj = 0;
      VRXgetintattr(m, "Status", &status);
      VRXgetdblattr(m, "ObjVal", &obj);
      ASSERT_EQ(VRX_OPTIMAL, status) << name;
      ASSERT_EQ(0, VRXgetintattr(m, "ConcurrentWinner", &winner)) << name;
      EXPECT_EQ(force == 0 ? 1 : 0, winner) << name;
      const double ref = referenceOf(name);
      EXPECT_NEAR(ref, obj, 1e-6 * std::max(1.0, std::fabs(ref))) << name;
      EXPECT_NE(std::string::npos, capturedLog().find("Optimal objective ")) << name;
      // The flag raised to stop the caller's instance does not outlive the solve.
      EXPECT_EQ(0, menv->terminateFlag) << name;
      expectConsistentBasis(env, name, m, obj);
      VRXfreemodel(m);
    }
    // Models without an optimum: the winner's verdict stands, in the model's terms (the dual
    // form unbounded proves the model infeasible; infeasible, it leaves both open).
    for (int infeasible = 1; infeasible >= 0; --infeasible) {
      VRXmodel* m = loadModelDef(env, infeasible ? infeasibleDef() : unboundedDef());
      VRXenv* menv = VRXgetenv(m);
      VRXsetintparam(menv, "Presolve", 0);
      VRXsetintparam(menv, "PreDual", 2);
      VRXsetintparam(menv, "Threads", 2);
      ASSERT_EQ(0, VRXoptimize(m));
      int status = 0, winner = -1;
      VRXgetintattr(m, "Status", &status);
      ASSERT_EQ(0, VRXgetintattr(m, "ConcurrentWinner", &winner));
      EXPECT_EQ(force == 0 ? 1 : 0, winner);
      if (infeasible)
        EXPECT_EQ(VRX_INFEASIBLE, status);
      else
        EXPECT_EQ(force == 0 ? VRX_INF_OR_UNBD : VRX_UNBOUNDED, status);
      VRXfreemodel(m);
    }
    VRXfreeenv(env);
    EXPECT_EQ(0, counts.live.load());
  }
}

namespace {

const char* const kSolvedWith[] = {"Solved with barrier\n", "Solved with dual simplex\n", "Solved with primal simplex\n"};

// The log of a concurrent LP run ends in one closing block: the wait, the clean-up, the
// method of the winner, its counts and the status line; no simplex instance closes on its own.
void expectOneClosingBlock(const std::string& log, const char* what) {
  static const std::regex tail(
      "\\n(Concurrent spin time: [0-9]+\\.[0-9]{2}s( \\(can be avoided by choosing Method=3\\))?\\n)?"
      "(Extra (one simplex iteration|[0-9]+ simplex iterations) for concurrent cleanup\\n)?"
      "\\nSolved with (barrier|dual simplex|primal simplex)\\n"
      "Solved in [0-9]+ iterations and [0-9]+\\.[0-9]{2} seconds\\n"
      "Optimal objective  ?[-0-9.e+]+\\n$");
  EXPECT_TRUE(std::regex_search(log, tail)) << what << "\n" << log;
  size_t closings = 0;
  for (const char* line : {"Solved in ", "Stopped in ", "Solved with "})
    for (size_t at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++closings;
  EXPECT_EQ(2u, closings) << what << "\n" << log;
  EXPECT_EQ(std::string::npos, log.find("Solve interrupted")) << what << "\n" << log;
  // A simplex instance never closes on its own; a barrier shown may end with its own lines.
  EXPECT_EQ(std::string::npos, log.find("Simplex solve interrupted")) << what << "\n" << log;
}

// A log with its times taken out, and the lines shown only when a step took long (they are
// all the two runs of a deterministic form may differ in).
std::string withoutTimes(const std::string& log) {
  static const std::regex times("[0-9]+(\\.[0-9]+)?( seconds|s)(?![A-Za-z])");
  static const std::regex timed(" \\(can be avoided by choosing Method=3\\)|Ordering time: [0-9.]+s\\n");
  return std::regex_replace(std::regex_replace(log, timed, ""), times, "T");
}

// The index in kSolvedWith of the closing line the log holds, -1 when none or several.
int solvedWith(const std::string& log) {
  int found = -1;
  for (int k = 0; k < 3; ++k) {
    if (log.find(kSolvedWith[k]) == std::string::npos) continue;
    if (found >= 0) return -1;
    found = k;
  }
  return found;
}

}  // namespace

// Methods 3, 4 and 5: the header of the instance table, the winner's closing lines, the
// reference optimum with a basis of the model's own; the deterministic forms repeat to the
// bit; a small model runs one instance without a header.
TEST(Concurrent, ConcurrentLpOptimizer) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  struct Case {
    int method, threads, spx, crossover;
    const char* header;
    // The method of each instance in the order of ConcurrentWinner.
    std::vector<int> solvedWithOf;
  };
  const std::vector<Case> cases = {
      {3, 2, 0, -1, "Concurrent LP optimizer: dual simplex and barrier\nShowing barrier log only...\n", {0, 1}},
      {4, 2, 0, 0, "Deterministic concurrent LP optimizer: dual simplex and barrier\nShowing barrier log only...\n", {0, 1}},
      {3, 4, 1, -1,
       "Concurrent LP optimizer: primal simplex, dual simplex, and barrier\nShowing barrier log only...\n", {0, 1, 2}},
      {5, 2, 0, -1, "Deterministic concurrent LP optimizer: primal and dual simplex\nShowing first log only...\n", {2, 1}},
  };
  const char* name = "scfxm2";
  const double ref = referenceOf(name);
  for (const Case& c : cases) {
    double firstObj = 0, firstIters = -1;
    int firstWinner = -1;
    std::string firstLog;
    for (int round = 0; round < (c.method == 3 ? 1 : 2); ++round) {
      VRXmodel* m = readNetlib(env, name);
      VRXenv* menv = VRXgetenv(m);
      VRXsetintparam(menv, "Method", c.method);
      VRXsetintparam(menv, "Threads", c.threads);
      VRXsetintparam(menv, "VORN_PAR_SPXCONCURRENT", c.spx);
      VRXsetintparam(menv, "Crossover", c.crossover);
      captureLogOf(menv);
      ASSERT_EQ(0, VRXoptimize(m)) << c.header;
      const std::string log = capturedLog();
      VRXsetintparam(menv, "OutputFlag", 0);
      EXPECT_NE(std::string::npos, log.find(c.header)) << log;
      EXPECT_EQ(c.crossover == 0, log.find("Warning: Concurrent optimizer requires crossover - forcing it on\n") !=
                                      std::string::npos);
      int status = 0, winner = -1;
      double obj = 0, iters = 0;
      VRXgetintattr(m, "Status", &status);
      VRXgetdblattr(m, "ObjVal", &obj);
      VRXgetdblattr(m, "IterCount", &iters);
      ASSERT_EQ(VRX_OPTIMAL, status) << c.header;
      EXPECT_NEAR(ref, obj, 1e-6 * std::max(1.0, std::fabs(ref))) << c.header;
      ASSERT_EQ(0, VRXgetintattr(m, "ConcurrentWinner", &winner));
      ASSERT_GE(winner, 0);
      ASSERT_LT(winner, static_cast<int>(c.solvedWithOf.size()));
      const int line = solvedWith(log);
      EXPECT_EQ(c.solvedWithOf[static_cast<size_t>(winner)], line) << log;
      if (line >= 0) {
        char closing[128];
        std::snprintf(closing, sizeof closing, "%sSolved in %d iterations and ", kSolvedWith[line],
                      static_cast<int>(iters));
        EXPECT_NE(std::string::npos, log.find(closing)) << log;
      }
      expectOneClosingBlock(log, c.header);
      // A barrier that ran and lost says why it stopped.
      if (c.method == 4 && line != 0) {
        EXPECT_NE(std::string::npos, log.find("\nBarrier solve interrupted - model solved by another algorithm\n"))
            << log;
        EXPECT_EQ(std::string::npos, log.find("Optimization interrupted")) << log;
      }
      // The deterministic forms always wait for the instances that cannot win to stop.
      if (c.method != 3) EXPECT_NE(std::string::npos, log.find("Concurrent spin time: ")) << log;
      if (round == 0) {
        firstObj = obj;
        firstIters = iters;
        firstWinner = winner;
        firstLog = withoutTimes(log);
        expectConsistentBasis(env, name, m, obj);
      } else {
        EXPECT_EQ(firstWinner, winner) << c.header;
        EXPECT_EQ(firstIters, iters) << c.header;
        EXPECT_EQ(firstObj, obj) << c.header;
        EXPECT_EQ(firstLog, withoutTimes(log)) << c.header;
      }
      VRXfreemodel(m);
    }
  }
  // The dual instance done before the primal or barrier instance starts (by the user's
  // settings): that one finds the stop at once and shows nothing of its own.
  for (int first : {0, 2}) {
    Counts counts;
    VRXenv* eager = nullptr;
    ASSERT_EQ(0, VRXloadenvsyscb(&eager, nullptr, cMalloc, cCalloc, cRealloc, cFree, eagerCreate, eagerJoin,
                                 &counts));
    VRXsetintparam(eager, "OutputFlag", 0);
    VRXmodel* m = readNetlib(eager, name);
    VRXenv* menv = VRXgetenv(m);
    VRXsetintparam(menv, "Method", 3);
    VRXsetintparam(menv, "Threads", 2);
    VRXsetintparam(VRXgetconcurrentenv(m, 0), "Method", first);
    VRXsetintparam(VRXgetconcurrentenv(m, 1), "Method", 1);
    captureLogOf(menv);
    ASSERT_EQ(0, VRXoptimize(m));
    const std::string log = capturedLog();
    VRXsetintparam(menv, "OutputFlag", 0);
    int winner = -1;
    VRXgetintattr(m, "ConcurrentWinner", &winner);
    EXPECT_EQ(1, winner);
    // Nothing of the instance: straight on to the closing block.
    const std::regex straight(std::string(first == 2 ? "barrier log" : "first log") +
                              " only\\.\\.\\.\\n(Concurrent spin time: [0-9.]+s\\n)?\\nSolved with dual simplex\\n");
    EXPECT_TRUE(std::regex_search(log, straight)) << log;
    expectOneClosingBlock(log, "eager");
    VRXfreemodel(m);
    VRXfreeenv(eager);
    EXPECT_EQ(0, counts.live.load());
  }
  // Under 500 rows one instance runs, with no header.
  VRXmodel* m = readNetlib(env, "afiro");
  VRXenv* menv = VRXgetenv(m);
  VRXsetintparam(menv, "Method", 4);
  VRXsetintparam(menv, "Threads", 4);
  captureLogOf(menv);
  ASSERT_EQ(0, VRXoptimize(m));
  EXPECT_EQ(std::string::npos, capturedLog().find("concurrent LP optimizer")) << capturedLog();
  VRXsetintparam(menv, "OutputFlag", 0);
  int status = 0;
  VRXgetintattr(m, "Status", &status);
  EXPECT_EQ(VRX_OPTIMAL, status);
  VRXfreemodel(m);
  VRXfreeenv(env);
}

namespace {

// A deferred thread whose join first terminates the model of the hooks' counts.
void terminatingJoin(void* handle, void* u) {
  if (VRXmodel* m = static_cast<Counts*>(u)->terminate) VRXterminate(m);
  deferredJoin(handle, u);
}

// The largest simplex iteration count the caller's callback saw.
int noteIterations(VRXmodel*, void* cbdata, int where, void* usrdata) {
  double iter = 0;
  if (where == VRX_CB_SIMPLEX && VRXcbget(cbdata, where, VRX_CB_SPX_ITRCNT, &iter) == 0)
    *static_cast<double*>(usrdata) = std::max(*static_cast<double*>(usrdata), iter);
  return 0;
}

}  // namespace

// The deterministic form on a model where the dual needs less work than the primal (as
// solves by each method alone tell): the dual instance wins with its own iteration count,
// also when it runs after the primal one; the primal instance on the caller's thread stops
// well short of its own end, and a second run repeats the result and the log.
TEST(Concurrent, DeterministicLoserStopsEarly) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  const char* name = "fit1p";
  double work[2] = {0, 0}, alone[2] = {0, 0};
  for (int method = 0; method < 2; ++method) {
    VRXmodel* m = readNetlib(env, name);
    VRXsetintparam(VRXgetenv(m), "Method", method);
    VRXsetintparam(VRXgetenv(m), "Threads", 1);
    ASSERT_EQ(0, VRXoptimize(m));
    VRXgetdblattr(m, "RunVTime", &work[method]);
    VRXgetdblattr(m, "IterCount", &alone[method]);
    VRXfreemodel(m);
  }
  ASSERT_LT(work[1], work[0]) << "the model no longer shows a dual of less work";
  std::string firstLog;
  for (int round = 0; round < 2; ++round) {
    VRXmodel* m = readNetlib(env, name);
    VRXenv* menv = VRXgetenv(m);
    VRXsetintparam(menv, "Method", 5);
    VRXsetintparam(menv, "Threads", 2);
    double seen = 0;
    ASSERT_EQ(0, VRXsetcallbackfunc(m, noteIterations, &seen));
    captureLogOf(menv);
    ASSERT_EQ(0, VRXoptimize(m));
    const std::string log = capturedLog();
    VRXsetintparam(menv, "OutputFlag", 0);
    int status = 0, winner = -1;
    double iters = 0;
    VRXgetintattr(m, "Status", &status);
    VRXgetintattr(m, "ConcurrentWinner", &winner);
    VRXgetdblattr(m, "IterCount", &iters);
    EXPECT_EQ(VRX_OPTIMAL, status);
    EXPECT_EQ(1, winner);
    EXPECT_EQ(alone[1], iters);
    EXPECT_GT(seen, 0);
    EXPECT_LT(seen, 0.95 * alone[0]) << log;
    expectOneClosingBlock(log, name);
    if (round == 0)
      firstLog = withoutTimes(log);
    else
      EXPECT_EQ(firstLog, withoutTimes(log));
    VRXfreemodel(m);
  }
  // The dual instance started only at the join, after the primal one ended: it still wins
  // by its work; the caller's terminate before it starts reaches it, and the primal's
  // result stands.
  for (bool terminate : {false, true}) {
    Counts counts;
    VRXenv* host = nullptr;
    ASSERT_EQ(0, VRXloadenvsyscb(&host, nullptr, cMalloc, cCalloc, cRealloc, cFree, deferredCreate,
                                 terminatingJoin, &counts));
    VRXsetintparam(host, "OutputFlag", 0);
    VRXmodel* m = readNetlib(host, name);
    VRXsetintparam(VRXgetenv(m), "Method", 5);
    VRXsetintparam(VRXgetenv(m), "Threads", 2);
    counts.terminate = terminate ? m : nullptr;
    ASSERT_EQ(0, VRXoptimize(m));
    int status = 0, winner = -1;
    double iters = 0;
    VRXgetintattr(m, "Status", &status);
    VRXgetintattr(m, "ConcurrentWinner", &winner);
    VRXgetdblattr(m, "IterCount", &iters);
    EXPECT_EQ(terminate ? 0 : 1, winner);
    EXPECT_EQ(alone[terminate ? 0 : 1], iters);
    // The clean-up on the model sees the terminate too.
    EXPECT_EQ(terminate ? VRX_INTERRUPTED : VRX_OPTIMAL, status);
    VRXfreemodel(m);
    VRXfreeenv(host);
    EXPECT_EQ(0, counts.live.load());
  }
  VRXfreeenv(env);
}

// The user's concurrent environments: each must exist and name a simplex method or the
// barrier, with the messages for each failure; valid ones give the instances their settings.
TEST(Concurrent, ConcurrentLpUserEnvironments) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXmodel* m = readNetlib(env, "scfxm2");
  VRXenv* menv = VRXgetenv(m);
  VRXsetintparam(menv, "Method", 3);
  VRXsetintparam(menv, "Threads", 2);
  VRXenv* second = VRXgetconcurrentenv(m, 1);
  ASSERT_NE(nullptr, second);
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXoptimize(m));
  EXPECT_STREQ("Concurrent environment 0 missing", VRXgeterrormsg(menv));
  VRXenv* first = VRXgetconcurrentenv(m, 0);
  ASSERT_NE(nullptr, first);
  VRXsetintparam(first, "Method", 4);
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXoptimize(m));
  EXPECT_STREQ("Concurrent sub-algorithm must be simplex or barrier", VRXgeterrormsg(menv));
  VRXsetintparam(first, "Method", 0);
  VRXsetintparam(second, "Method", 1);
  captureLogOf(menv);
  ASSERT_EQ(0, VRXoptimize(m));
  const std::string log = capturedLog();
  VRXsetintparam(menv, "OutputFlag", 0);
  EXPECT_NE(std::string::npos, log.find("Concurrent LP optimizer: user settings\nShowing first log only...\n")) << log;
  int status = 0, winner = -1;
  VRXgetintattr(m, "Status", &status);
  EXPECT_EQ(VRX_OPTIMAL, status);
  ASSERT_EQ(0, VRXgetintattr(m, "ConcurrentWinner", &winner));
  EXPECT_EQ(winner == 0 ? 2 : 1, solvedWith(log)) << log;
  VRXfreemodel(m);
  VRXfreeenv(env);
}

// Every allocation of a race may fail, in the race of the two forms and in both forms of the
// concurrent LP optimiser: the solve reports 10001 or ends as usual, and no block is left behind. The
// eager thread hook makes the instances run one after the other, so every run counts the
// same allocations.
TEST(Concurrent, FailedAllocationsLeaveNothing) {
  for (int kind = 0; kind < 3; ++kind) {
    long total = -1;
    for (long fail = -1; fail < total || total < 0; ++fail) {
      HookState s;
      VRXenv* env = nullptr;
      ASSERT_EQ(0, VRXloadenvsyscb(&env, nullptr, hookMalloc, hookCalloc, hookRealloc, hookFree, eagerCreate,
                                   eagerJoin, &s));
      VRXsetintparam(env, "OutputFlag", 0);
      VRXmodel* m = readNetlib(env, "afiro");
      ASSERT_NE(nullptr, m);
      VRXenv* menv = VRXgetenv(m);
      VRXsetintparam(menv, "Threads", 2);
      if (kind == 0) {
        VRXsetintparam(menv, "Presolve", 0);
        VRXsetintparam(menv, "PreDual", 2);
      } else {
        VRXsetintparam(menv, "Method", kind == 1 ? 3 : 4);
        VRXsetintparam(VRXgetconcurrentenv(m, 0), "Method", 2);
        VRXsetintparam(VRXgetconcurrentenv(m, 1), "Method", 1);
      }
      const int rc = runFailingAt(&s, fail, &total, [&] { return VRXoptimize(m); });
      if (fail < 0)
        ASSERT_EQ(0, rc);
      else
        EXPECT_TRUE(rc == 0 || rc == VRX_ERROR_OUT_OF_MEMORY) << "kind " << kind << " fail " << fail << " rc " << rc;
      VRXfreemodel(m);
      VRXfreeenv(env);
      EXPECT_EQ(0, s.live) << "kind " << kind << " fail " << fail;
    }
  }
}
