// Several solves of one model at once, each on a copy: one on the caller's thread, the
// others on threads of their own; the first to reach a final status stops the others (or,
// in the deterministic form, the least work at the end wins, and an instance stops once its
// work passes the least an instance finished with). The instances are
// the dual and the primal simplex, the model and its dual form, or the concurrent LP
// optimiser's barrier and simplex instances.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>
#include <new>
#include <thread>

#include "model/callback.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/result.h"
#include "presolve/dualise.h"
#include "presolve/lpbridge.h"
#include "simplex/lp.h"
#include "simplex/lpdriver.h"

namespace vrx {

namespace {

struct Shared;

struct Instance {
  VRXmodel* copy = nullptr;
  volatile int stop = 0;  // the terminate flag of a copy on a thread of its own
  volatile int* stopFlag = nullptr;  // the flag the instance polls: its own, or the caller's
  int rc = 0;
  int status = 0;  // the outcome the instance reports
  double endTime = 0;
  Clock clock{};
  int (*solve)(Shared* sh, int k) = nullptr;
  Shared* sh = nullptr;
  int index = 0;
  VRXcbdata block{};  // the frame of a copy that does not take the caller's
  // The deterministic form: the work at the last poll (infinite once ended), whether the
  // thread runs, whether the instance stopped for work past the least finished.
  std::atomic<double> progress{0.0};
  std::atomic<int> started{0};
  int passed = 0;
};

// The two primal-dual points of a race of the model and its dual form, in the model's terms.
struct FormsPoints {
  int method = 1;
  double* block = nullptr;
  LPPoint pt[2]{};
  double iters[2]{};
};

// The slots of a run: as many as there may be user environments.
constexpr int kMaxInstances = VRX_MAX_CONCURRENT;
constexpr double kEnded = std::numeric_limits<double>::infinity();

struct Shared {
  std::atomic<int> winner{-1};
  volatile int* callerStop = nullptr;  // the flag instance 0 polls: the caller's
  Instance inst[kMaxInstances];        // 0 on the caller's thread, the others on their own
  int count = 2;
  // The deterministic form takes the instance of least work at its end, so the winner does
  // not depend on the timing of the threads; an instance whose work passes the least
  // finished work cannot win and stops.
  int deterministic = 0;
  std::atomic<double> leastWork{kEnded};
  int hostThreads = 0;  // the host's hook starts the threads, maybe not at once
  int parentStopSet = 0;
  FormsPoints* forms = nullptr;
  // The caller's frame block while instance 0 uses it, with what it held before.
  VRXcbdata* callerBlock = nullptr;
  VRXcbdata callerSaved{};
};

bool finalStatus(int s) { return s >= VRX_OPTIMAL && s <= VRX_CUTOFF; }

void lowerLeastWork(Shared* sh, double work) {
  double cur = sh->leastWork.load();
  while (work < cur && !sh->leastWork.compare_exchange_weak(cur, work)) {
  }
}

// Instance 0 shows its log, which must repeat: it goes on past a work level only once each
// other instance has reached it or ended, so whether one finished below it is settled.
void awaitOthers(Shared* sh, double work) {
  for (int o = 1; o < sh->count; ++o) {
    const Instance& other = sh->inst[o];
    for (int spins = 0; other.progress.load(std::memory_order_acquire) < work; ++spins) {
      if (*sh->callerStop) return;
      // A host thread that has not started may start only at the join.
      if (sh->hostThreads && !other.started.load()) break;
      if (spins < 64)
        std::this_thread::yield();
      else
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
  }
}

// The poll of an instance in the deterministic form.
void workPoll(void* ctx, double work) {
  auto* in = static_cast<Instance*>(ctx);
  Shared* sh = in->sh;
  in->progress.store(work, std::memory_order_release);
  if (in->index == 0) awaitOthers(sh, work);
  // The caller's terminate reaches the others also after instance 0 ended.
  const int callerStop = *sh->callerStop;
  if (in->index > 0 && callerStop && callerStop != kStopSolvedElsewhere) *in->stopFlag = 1;
  if (work > sh->leastWork.load() && !in->passed) {
    in->passed = 1;
    if (in->index == 0) sh->parentStopSet = 1;
    *in->stopFlag = kStopSolvedElsewhere;
  }
}

// The frame of an instance without the caller's callback: only its polls matter.
int pollOnly(VRXmodel*, void*, int, void*) { return 0; }

// Runs one instance and, when it ends with a final status first, stops the other one.
void body(Shared* sh, int k) {
  Instance& in = sh->inst[k];
  in.started.store(1);
  in.clock = clockStart();
  try {
    // Instance 0 reports to the caller's callback: its work is what the frame shows.
    CallbackClock frameClock(in.copy->env, &in.clock);
    in.rc = in.solve(sh, k);
  } catch (...) {
    in.rc = VRX_ERROR_OUT_OF_MEMORY;
  }
  in.endTime = wallClock();
  const bool final = in.rc == 0 && finalStatus(in.status);
  if (sh->deterministic) {
    // The least work first, then the end: who sees the end sees the work.
    if (final) lowerLeastWork(sh, in.clock.work);
    in.progress.store(kEnded, std::memory_order_release);
    // Only an instance 0 stopped by the caller (or failing) ends the others.
    if (k == 0 && !final && !in.passed)
      for (int o = 1; o < sh->count; ++o) sh->inst[o].stop = 1;
    return;
  }
  int expected = -1;
  const bool won = final && sh->winner.compare_exchange_strong(expected, k);
  if (k == 0) {
    // Whatever the end of instance 0 (a result, the caller's terminate, an error), the others stop.
    for (int o = 1; o < sh->count; ++o) sh->inst[o].stop = won ? kStopSolvedElsewhere : 1;
  } else if (won) {
    for (int o = 1; o < sh->count; ++o)
      if (o != k) sh->inst[o].stop = kStopSolvedElsewhere;
    // Instance 0 polls the caller's flag: raising it is the way to reach it.
    sh->parentStopSet = 1;
    *sh->callerStop = kStopSolvedElsewhere;
  }
}

struct ThreadArg {
  Shared* sh;
  int k;
};

void otherThread(void* arg) {
  auto* a = static_cast<ThreadArg*>(arg);
  body(a->sh, a->k);
}

int makeCopy(VRXmodel* model, int method, volatile int* stopFlag, VRXmodel** out) {
  int err = modelCopy(model, out);
  if (err) return err;
  VRXenv* e = (*out)->env;
  e->par.Method = method;
  e->par.Threads = 1;
  e->par.OutputFlag = -1;  // silent, also towards a message callback
  e->par.VORN_PAR_SPXCONCURRENT = 0;
  e->terminateFlag = 0;
  e->terminateFlagRef = stopFlag;
  return 0;
}

void dropCopy(VRXmodel* copy) {
  if (!copy) return;
  VRXenv* e = copy->env;
  e->cbFunc = nullptr;
  e->cbData = nullptr;
  e->cbUserData = nullptr;
  VRXlpFreeOnModel(copy);
  modelDestroy(copy);
}

// The caller's block as it was before the race.
void detachCallerFrame(Shared* sh) {
  VRXcbdata* b = sh->callerBlock;
  if (!b) return;
  b->instanceRun = sh->callerSaved.instanceRun;
  b->workPoll = sh->callerSaved.workPoll;
  b->workCtx = sh->callerSaved.workCtx;
  sh->callerBlock = nullptr;
}

struct Race {
  VRXenv* env;
  void* mem = nullptr;
  Shared* sh = nullptr;
  double joined = 0;
  explicit Race(VRXenv* e) : env(e) {}
  ~Race() {
    if (!sh) return;
    detachCallerFrame(sh);
    for (int k = 0; k < sh->count; ++k) dropCopy(sh->inst[k].copy);
    sh->~Shared();
    envFree(env, mem);
  }
};

// What one instance of a race is: its method and the routine that solves its copy.
struct InstanceSpec {
  int method;
  int (*solve)(Shared* sh, int k);
};

// The winner when no instance won outright: in the deterministic form the instance of
// least work among those with a final status (the lowest index among equals); otherwise,
// and when none has one, instance 0 unless it failed where another did not.
int pickWinner(const Shared* sh) {
  int w = sh->winner.load();
  if (w >= 0) return w;
  for (int k = 0; k < sh->count; ++k) {
    const Instance& in = sh->inst[k];
    if (in.rc != 0 || !finalStatus(in.status)) continue;
    if (w < 0 || in.clock.work < sh->inst[w].clock.work) w = k;
  }
  if (w >= 0 && sh->deterministic) return w;
  for (int k = 0; k < sh->count; ++k)
    if (sh->inst[k].rc == 0) return sh->inst[0].rc != 0 ? k : 0;
  return 0;
}

// The frame of instance k: instance 0 keeps the caller's callback (on the caller's block),
// the others have none. Each block marks the run as an instance's; in the deterministic
// form every instance polls through workPoll, with a callback of its own if need be.
void attachFrame(VRXenv* env, Shared* sh, int k) {
  Instance& in = sh->inst[k];
  VRXenv* e = in.copy->env;
  in.sh = sh;
  in.index = k;
  in.stopFlag = k == 0 ? sh->callerStop : &in.stop;
  VRXcbdata* b = &in.block;
  if (k == 0 && env->cbFunc && callbackBlockValid(env->cbData)) {
    b = sh->callerBlock = env->cbData;
    sh->callerSaved = *b;
    e->cbFunc = env->cbFunc;
    e->cbUserData = env->cbUserData;
  } else {
    callbackBlockInit(b, in.copy);
    e->cbFunc = sh->deterministic ? pollOnly : nullptr;
    e->cbUserData = nullptr;
  }
  b->instanceRun = 1;
  if (sh->deterministic) {
    b->workPoll = workPoll;
    b->workCtx = &in;
  }
  e->cbData = b;
}

// Copies the model for the instances, hands the caller's callback to instance 0, runs the
// others on threads of their own and instance 0 here, and joins. prepare, when given, sets
// up each copy's parameters. The index of the instance whose result stands goes to *winner.
int runRace(VRXmodel* model, Race& race, const InstanceSpec* specs, int count, FormsPoints* forms,
            bool deterministic, void (*prepare)(VRXmodel* model, VRXenv* copyEnv, int k, void* ctx), void* ctx,
            int* winner) {
  VRXenv* env = model->env;
  race.mem = envMalloc(env, sizeof(Shared));
  if (!race.mem) return VRX_ERROR_OUT_OF_MEMORY;
  Shared* sh = race.sh = new (race.mem) Shared();
  sh->count = count;
  sh->deterministic = deterministic ? 1 : 0;
  sh->forms = forms;
  sh->callerStop = env->terminateFlagRef ? env->terminateFlagRef : &env->terminateFlag;
  sh->hostThreads = env->threadCreate != nullptr;
  for (int k = 0; k < count; ++k) {
    sh->inst[k].solve = specs[k].solve;
    int err = makeCopy(model, specs[k].method, k == 0 ? sh->callerStop : &sh->inst[k].stop, &sh->inst[k].copy);
    if (err) return err;
    if (prepare) prepare(model, sh->inst[k].copy->env, k, ctx);
  }
  for (int k = 0; k < count; ++k) attachFrame(env, sh, k);
  sh->inst[0].copy->env->logCallback = env->logCallback;

  // The other threads: the host's hook when one was given.
  ThreadArg args[kMaxInstances];
  void* handles[kMaxInstances] = {};
  std::thread* threads[kMaxInstances] = {};
  int started = 1, err = 0;
  for (; started < count && !err; ++started) {
    args[started] = ThreadArg{sh, started};
    if (env->threadCreate) {
      if (env->threadCreate(&handles[started], otherThread, &args[started], env->sysUserData) != 0)
        err = VRX_ERROR_OUT_OF_MEMORY;
      continue;
    }
    void* tmem = envMalloc(env, sizeof(std::thread));
    try {
      if (tmem) threads[started] = new (tmem) std::thread(otherThread, &args[started]);
    } catch (...) {
    }
    if (!threads[started]) {
      envFree(env, tmem);
      err = VRX_ERROR_OUT_OF_MEMORY;
    }
  }
  if (err) {
    // Those started stop at once; the failed one is not joined.
    --started;
    for (int k = 1; k < count; ++k) sh->inst[k].stop = 1;
  } else {
    body(sh, 0);
  }
  for (int k = 1; k < started; ++k) {
    if (threads[k]) {
      threads[k]->join();
      threads[k]->~thread();
      envFree(env, threads[k]);
    } else if (env->threadJoin) {
      env->threadJoin(handles[k], env->sysUserData);
    }
  }
  race.joined = wallClock();
  if (sh->parentStopSet && *sh->callerStop == kStopSolvedElsewhere) *sh->callerStop = 0;
  detachCallerFrame(sh);
  if (err) return err;

  const int w = pickWinner(sh);
  *winner = w;
  err = sh->inst[w].rc;
  // Another instance without a final status stands only for an instance 0 that failed.
  if (!err && w != 0 && sh->inst[0].rc != 0 && sh->inst[0].rc != VRX_ERROR_OUT_OF_MEMORY &&
      !finalStatus(sh->inst[w].status))
    err = sh->inst[0].rc;
  return err;
}

int solveCopy(Shared* sh, int k) {
  Instance& in = sh->inst[k];
  // Already decided (an eager host thread may run an instance to its end before the next
  // starts): nothing to solve and nothing to show.
  if (*in.stopFlag) {
    in.status = VRX_INTERRUPTED;
    return 0;
  }
  int rc = lpOptimize(in.copy, in.clock);
  in.status = in.copy->status;
  return rc;
}

// The model as it is, by the caller's method; its point read off the record.
int solvePrimalForm(Shared* sh, int k) {
  Instance& in = sh->inst[k];
  FormsPoints* f = sh->forms;
  int rc = VRXlpSetup(in.copy, f->method, &in.clock.work);
  if (rc) return rc;
  auto* lp = static_cast<VRXlp*>(in.copy->lp);
  rc = lpRunSimplex(lp, f->method, in.clock);
  if (rc == 100001 || rc == 100002) {
    // A start cannot fall apart here, as the record starts from the slack basis.
    in.status = VRX_NUMERIC;
    return 0;
  }
  if (rc) return rc;
  in.status = lp->status;
  f->iters[k] = lp->iterCount;
  if (lp->status == VRX_OPTIMAL) rc = lpReadPoint(lp, f->pt[k]);
  return rc;
}

// The dual form, by the other method; its point mapped back to the model.
int solveDualForm(Shared* sh, int k) {
  Instance& in = sh->inst[k];
  FormsPoints* f = sh->forms;
  return dualisedPoint(in.copy, f->method, in.clock, f->pt[k], &in.status, &f->iters[k]);
}

}  // namespace

int spxConcurrent(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  Race race(env);
  int w = 0;
  const InstanceSpec specs[2] = {{1, solveCopy}, {0, solveCopy}};
  int err = runRace(model, race, specs, 2, nullptr, false, nullptr, nullptr, &w);
  if (err) return err;
  Instance& win = race.sh->inst[w];
  // The winner's result becomes the model's; the blocks share the master's allocator.
  clockCharge(clock, win.clock.work);
  model->status = win.copy->status;
  resultFree(env, model->result);
  model->result = win.copy->result;
  win.copy->result = nullptr;
  if (model->result) model->result->concurrentWinner = w;
  const double spin = race.joined - win.endTime;
  if (spin >= 0.005) log(env, "Concurrent spin time: %.2fs\n", spin);
  log(env, "\n");
  log(env, w == 0 ? "Solved with dual simplex\n" : "Solved with primal simplex\n");
  lpClosingLines(model, model->result, clockElapsed(clock));
  return 0;
}

int concurrentFormsPoint(VRXmodel* model, int method, Clock& clock, LPPoint& out, int* status, double* iters,
                         int* winner) {
  *status = 0;
  *iters = 0;
  *winner = -1;
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const size_t n = static_cast<size_t>(d->numVars), m = static_cast<size_t>(d->numConstrs);
  // Each instance writes a point of its own: x, d over n, y over m, the statuses.
  // Rounded to whole doubles so that the second point's doubles stay aligned.
  const size_t per = ((2 * n + m + 3) * sizeof(double) + (n + m + 2) * sizeof(int) + sizeof(double) - 1) /
                     sizeof(double) * sizeof(double);
  FormsPoints forms;
  forms.method = method;
  forms.block = static_cast<double*>(envMalloc(env, 2 * per));
  if (!forms.block) return VRX_ERROR_OUT_OF_MEMORY;
  for (int k = 0; k < 2; ++k) {
    auto* x = reinterpret_cast<double*>(reinterpret_cast<char*>(forms.block) + k * per);
    double* dd = x + n + 1;
    double* y = dd + n + 1;
    int* cs = reinterpret_cast<int*>(y + m + 1);
    int* rs = cs + n + 1;
    forms.pt[k] = LPPoint{x, y, dd, cs, rs};
  }
  int w = 0;
  int err;
  {
    Race race(env);
    const InstanceSpec specs[2] = {{method, solvePrimalForm}, {1 - method, solveDualForm}};
    err = runRace(model, race, specs, 2, &forms, false, nullptr, nullptr, &w);
    if (!err) {
      const Instance& win = race.sh->inst[w];
      clockCharge(clock, win.clock.work);
      *status = win.status;
      *iters = forms.iters[w];
      *winner = w;
    }
  }
  if (!err && *status == VRX_OPTIMAL) {
    const LPPoint& p = forms.pt[w];
    if (out.x) std::memcpy(out.x, p.x, n * sizeof(double));
    if (out.d) std::memcpy(out.d, p.d, n * sizeof(double));
    if (out.y) std::memcpy(out.y, p.y, m * sizeof(double));
    if (out.colStat) std::memcpy(out.colStat, p.colStat, n * sizeof(int));
    if (out.rowStat) std::memcpy(out.rowStat, p.rowStat, m * sizeof(int));
  }
  envFree(env, forms.block);
  return err;
}

}  // namespace vrx

namespace vrx {

namespace {

// The instance settings of a concurrent LP run.
struct LpPlan {
  int count = 1;
  int methods[kMaxInstances] = {2, 1, 0};  // the table's order: barrier, dual, primal
  int threads[kMaxInstances] = {1, 1, 1};
  VRXenv* user[kMaxInstances] = {};  // the user's concurrent environments, when given
  int forceCrossover = 0;
  int primalNoSwitch = 0;
};

const char* methodName(int method) {
  return method == 2 ? "barrier" : method == 1 ? "dual simplex" : "primal simplex";
}

// Copies the numeric parameters of a user's concurrent environment onto an instance's.
void takeUserParams(const VRXenv* from, VRXenv* to) {
  const ParamTable* t = from->paramTable;
  if (!t) return;
  for (int r = 0; r < t->count; ++r) {
    const ParamRow& row = t->rows[r];
    if (row.storage <= 0 || (row.type != 1 && row.type != 2)) continue;
    const size_t off = static_cast<size_t>(row.storage - 1);
    const size_t size = row.type == 1 ? sizeof(int) : sizeof(double);
    std::memcpy(reinterpret_cast<char*>(&to->par) + off, reinterpret_cast<const char*>(&from->par) + off, size);
  }
}

void prepareLpInstance(VRXmodel* model, VRXenv* e, int k, void* ctx) {
  const auto* plan = static_cast<const LpPlan*>(ctx);
  if (plan->user[k]) takeUserParams(plan->user[k], e);
  e->par.Method = plan->methods[k];
  e->par.Threads = plan->threads[k];
  e->par.VORN_PAR_SPXCONCURRENT = 0;
  if (plan->methods[k] == 2 && e->par.Crossover == 0) e->par.Crossover = -1;
  if (plan->methods[k] == 0 && plan->primalNoSwitch) e->par.VORN_PAR_PRIMDUALSWITCH = 0;
  // Instance 0 shows its log where the caller's goes; the others run silent.
  e->par.OutputFlag = k == 0 ? model->env->par.OutputFlag : -1;
  e->par.LogToConsole = model->env->par.LogToConsole;
}

// The instances: the user's concurrent environments when there are any, else the table
// by the thread count and the model's size.
int planLp(VRXmodel* model, LpPlan* plan, int* code) {
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  const int total = par.Threads > 0 ? par.Threads : detectCores();
  if (model->concurrentCount > 0) {
    const int count = model->concurrentCount;
    int barriers = 0;
    for (int k = 0; k < count; ++k) {
      VRXenv* u = model->concurrentEnvs[k];
      if (!u) return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Concurrent environment %d missing", k);
      const int m = u->par.Method;
      if (m < 0 || m > 2) return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Concurrent sub-algorithm must be simplex or barrier");
      plan->user[k] = u;
      plan->methods[k] = m;
      plan->threads[k] = u->par.Threads;
      barriers += m == 2 && u->par.Threads < 1;
    }
    // Threads left after one per instance go to the barrier instances without a count.
    for (int k = 0; k < count; ++k)
      if (plan->methods[k] == 2 && plan->threads[k] < 1)
        plan->threads[k] = std::max(0, total - count) / std::max(1, barriers) + 1;
      else if (plan->threads[k] < 1)
        plan->threads[k] = 1;
    plan->count = count;
    *code = 0;
  } else if (par.Method == 5) {
    *code = -2;
    plan->methods[0] = 0;
    plan->methods[1] = 1;
    plan->count = model->data->numConstrs < 500 || total < 2 ? 1 : 2;
  } else {
    plan->count = model->data->numConstrs < 500 || total < 2 ? 1
                  : (total < 3 || (total < 5 && par.VORN_PAR_SPXCONCURRENT < 1)) ? 2
                                                                                  : 3;
    *code = plan->count == 3 ? 3 : 2;
    plan->threads[0] = std::max(1, total - plan->count + 1);
  }
  for (int k = 0; k < plan->count; ++k)
    if (plan->methods[k] == 2 && (plan->user[k] ? plan->user[k]->par.Crossover : par.Crossover) == 0)
      plan->forceCrossover = 1;
  plan->primalNoSwitch = par.VORN_PAR_SPXCONCURRENT == 2;
  return 0;
}

// The winner's basis on the model itself: the clean-up simplex, then the results and the
// closing lines. *done 0 when the basis did not serve (none, or it fell apart).
int cleanupFromWinner(VRXmodel* model, const VRXresult* r, int winnerMethod, Clock& clock, bool* done) {
  *done = false;
  if (!r || !r->vBasis || !r->cBasis || model->status != VRX_OPTIMAL) return 0;
  VRXenv* env = model->env;
  VRXlp* lp = nullptr;
  int err = lpSetupRun(model, 1, clock, &lp);
  if (!err) err = lpLoadBasis(lp, r->vBasis, r->cBasis);
  if (err) return err;
  // A barrier winner counts its crossover as prior iterations.
  lp->priorIter = r->iterCount < kNotAvailable ? r->iterCount : 0;
  // The closing block has the clean-up's count, not its iteration lines.
  lp->outputLevel = -1;
  err = lpRunSimplex(lp, 1, clock);
  lp->outputLevel = env->par.OutputFlag;
  if (err == 100001 || err == 100002) {
    VRXlpFreeOnModel(model);
    return 0;
  }
  if (err) return err;
  if (lp->iterCount > 1)
    log(env, "Extra %d simplex iterations for concurrent cleanup\n", static_cast<int>(lp->iterCount));
  else if (lp->iterCount > 0)
    log(env, "Extra one simplex iteration for concurrent cleanup\n");
  log(env, "\n");
  log(env, "Solved with %s\n", methodName(winnerMethod));
  *done = true;
  return lpFinishRecord(model, clock);
}

}  // namespace

int concurrentLP(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  const int method = env->par.Method;
  LpPlan plan;
  int code = 2;
  int err = planLp(model, &plan, &code);
  if (err) return err;
  if (plan.forceCrossover) log(env, "Warning: Concurrent optimizer requires crossover - forcing it on\n");
  if (plan.count == 1) {
    // One instance runs as the LP driver would, with the instance's method.
    const int saveMethod = env->par.Method, saveCrossover = env->par.Crossover;
    env->par.Method = plan.methods[0];
    if (plan.methods[0] == 2 && env->par.Crossover == 0) env->par.Crossover = -1;
    err = lpOptimize(model, clock);
    env->par.Method = saveMethod;
    env->par.Crossover = saveCrossover;
    return err;
  }
  const bool deterministic = method != 3;
  const char* name = deterministic ? "Deterministic concurrent LP optimizer" : "Concurrent LP optimizer";
  if (code == 0)
    log(env, "%s: user settings\n", name);
  else if (code == -2)
    log(env, "%s: primal and dual simplex\n", name);
  else if (code == 2)
    log(env, "%s: dual simplex and barrier\n", name);
  else
    log(env, "%s: primal simplex, dual simplex, and barrier\n", name);
  log(env, plan.methods[0] == 2 ? "Showing barrier log only...\n" : "Showing first log only...\n");

  InstanceSpec specs[kMaxInstances];
  for (int k = 0; k < plan.count; ++k) specs[k] = InstanceSpec{plan.methods[k], solveCopy};
  Race race(env);
  int w = 0;
  err = runRace(model, race, specs, plan.count, nullptr, deterministic, prepareLpInstance, &plan, &w);
  if (err) return err;
  Instance& win = race.sh->inst[w];
  // The run's clock is the parent's: the winner's work is what it took.
  clockCharge(clock, win.clock.work);
  // The deterministic form always waits for the others to stop; the other form only when
  // they were slow to see the stop.
  const double spin = race.joined - win.endTime;
  if (deterministic || spin >= 0.005) {
    if (deterministic && spin > 1.0)
      log(env, "Concurrent spin time: %.2fs (can be avoided by choosing Method=3)\n", spin);
    else
      log(env, "Concurrent spin time: %.2fs\n", spin);
  }
  model->status = win.copy->status;
  VRXresult* r = win.copy->result;
  const int winnerMethod = plan.methods[w];
  bool done = false;
  err = cleanupFromWinner(model, r, winnerMethod, clock, &done);
  if (err) return err;
  if (done) {
    if (r->barIterCount < kNotAvailable) model->result->barIterCount = r->barIterCount;
  } else {
    // No basis to go on from: the winner's result stands as it is.
    resultFree(env, model->result);
    model->result = r;
    win.copy->result = nullptr;
    log(env, "\n");
    log(env, "Solved with %s\n", methodName(winnerMethod));
    if (model->result) lpClosingLines(model, model->result, clockElapsed(clock));
  }
  if (model->result) model->result->concurrentWinner = w;
  return 0;
}

}  // namespace vrx
