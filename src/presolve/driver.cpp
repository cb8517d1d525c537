// The LP driver of presolve: the order of the passes, the work limit, the
// stopwatches, the progress score and the log.
#include <algorithm>
#include <cmath>
#include <new>

#include "model/callback.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "presolve/presolve.h"

namespace vrx {

namespace {

struct Driver {
  VRXpresolve* p;
  const ParamStore& par;
  bool limitHit = false;
  // The matrix as the last parallel passes saw it: unchanged, they find nothing new.
  int64_t parRowsSeen = -1;
  int64_t parColsSeen = -1;
  // Runs of the symmetry pass, and the matrix as the last one saw it.
  int symmRuns = 0;
  int64_t symmSeen = -1;
};

// VORN_PAR_PRESYMMPASSES: -1 off, else the number of runs in one presolve
// (0 counts as one); a run on an unchanged matrix would find nothing new.
int symmetryIfDue(Driver& dr) {
  VRXpresolve* p = dr.p;
  const int runs = std::max(1, dr.par.VORN_PAR_PRESYMMPASSES);
  if (dr.par.VORN_PAR_PRESYMMPASSES == -1 || !p->dualReductions || dr.symmRuns >= runs) return kPreOk;
  if (dr.symmSeen == p->matrixStamp) return kPreOk;
  dr.symmRuns++;
  int rc = symmetryPass(p, dr.par.Method == 2 ? 1.5 : 1.75);
  dr.symmSeen = p->matrixStamp;
  return rc;
}

int parallelRowsIfChanged(Driver& dr) {
  if (dr.parRowsSeen == dr.p->matrixStamp) return kPreOk;
  int rc = parallelRows(dr.p);
  dr.parRowsSeen = dr.p->matrixStamp;
  return rc;
}

int parallelColumnsIfChanged(Driver& dr) {
  if (dr.parColsSeen == dr.p->matrixStamp) return kPreOk;
  int rc = parallelColumns(dr.p);
  dr.parColsSeen = dr.p->matrixStamp;
  return rc;
}

// The time check: work limit, reduction limit, interrupt, and the progress line.
bool check(Driver& dr) {
  VRXpresolve* p = dr.p;
  VRXenv* env = p->env;
  if (*p->work - p->workStart > p->workLimit) p->reductionLimit = -1;
  if (env->terminateFlagRef && *env->terminateFlagRef) p->reductionLimit = -1;
  const double elapsed = wallClock() - p->startWall;
  const double di = std::max(1, dr.par.DisplayInterval);
  if (std::floor(elapsed / di) > std::floor(p->lastPrint / di)) {
    log(env, "Presolve removed %d rows and %d columns (presolve time = %.0fs) ...\n", p->counters.rowsRemoved,
        p->counters.colsRemoved, elapsed);
    p->lastPrint = elapsed;
    VRXcbprogress prog{};
    prog.rowsRemoved = p->counters.rowsRemoved;
    prog.colsRemoved = p->counters.colsRemoved;
    prog.sensesChanged = p->counters.ineqToEq;
    prog.boundsChanged = p->counters.boundsChanged;
    prog.coefsChanged = p->counters.coeffsChanged;
    if (callbackFrame(env, VRX_CB_PRESOLVE, &prog)) p->reductionLimit = -1;
  }
  if (p->reductionLimit < 0 || p->step >= p->reductionLimit) {
    dr.limitHit = true;
    return false;
  }
  return true;
}

// One reduction step: counted against the reduction limit.
bool stepDone(Driver& dr) {
  dr.p->step++;
  return !(dr.p->step >= dr.p->reductionLimit || dr.p->reductionLimit < 0);
}

// The 0.8 gate: a guarded pass runs while its stopwatch has budget left.
bool gate(const VRXpresolve* p, int w) { return p->watchBudget <= 0 || p->watch[w] < 0.8 * p->watchBudget; }

#define RUN(call)                  \
  do {                             \
    int rc_ = (call);              \
    if (rc_) return rc_;           \
    if (!stepDone(dr)) return kPreStop; \
  } while (0)

// The fast loop and the rows passes again after the dual bound pass.
int fastPasses(Driver& dr) {
  VRXpresolve* p = dr.p;
  RUN(redundantRows(p));
  RUN(columnPass(p));
  RUN(singletonRows(p));
  RUN(forcingRows(p));
  return kPreOk;
}

int mainLoop(Driver& dr, int outerLimit) {
  VRXpresolve* p = dr.p;
  const ParamStore& par = dr.par;
  PreSnapshot prevRound = snapshot(p);
  for (int round = 0; round < outerLimit; ++round) {
    PreSnapshot roundStart = snapshot(p);
    for (int inner = -5;; ++inner) {
      PreSnapshot s1 = snapshot(p);
      p->trackMode = 2;
      trackerTake(p);
      if (!check(dr)) return kPreStop;
      int rc = fastPasses(dr);
      if (rc) return rc;
      if (progressScore(p, s1) <= std::max(inner, 0) * 1e-5 || p->quick) break;
    }
    p->trackMode = 1;
    if (p->liveRows == 0 && p->liveCols == 0) break;
    if (round >= 1 && progressScore(p, prevRound) <= std::max(round - 2, 0) * 0.0001) break;
    prevRound = roundStart;
    // Freeing implied bounds costs the dual simplex its bound flips: on Netlib it
    // saved iterations on five models and cost 40% more on greenbea, so only the
    // aggressive level runs it.
    if (par.Presolve == 2 && par.Aggregate && p->dualReductions && !p->quick) RUN(impliedFreeRebase(p));
    // The medium part sweeps everything: these passes are linear in the matrix.
    p->trackMode = 0;
    if (!p->quick && p->dualReductions && (round < 5 || par.Presolve == 2)) {
      if (par.VORN_PAR_INTBASIS <= 0) RUN(dualBoundPass(p));
      int rc = fastPasses(dr);
      if (rc) return rc;
    }
    if (!check(dr)) return kPreStop;
    if (!p->quick && par.VORN_PAR_PREPARALLEL) {
      if (gate(p, pwParRows)) RUN(parallelRowsIfChanged(dr));
      if (gate(p, pwParCols)) RUN(parallelColumnsIfChanged(dr));
    }
    if (p->dualReductions) RUN(dualFixing(p));
    if (par.Aggregate && ((round == 0 && !p->quick) || p->liveCols < 100 * std::max(p->liveRows, 1))) {
      if (gate(p, pwAggregate)) RUN(aggregate(p, false, par.AggFill));
    }
    allActivities(p);
    if (par.VORN_PAR_PRETWOROWS != 0) RUN(twoRowPass(p, std::abs(par.VORN_PAR_PRETWOROWS)));
    RUN(symmetryIfDue(dr));
    if ((p->depRowMode & 1) && gate(p, pwDepRows)) RUN(dependentRows(p));
    if (!check(dr)) return kPreStop;
    p->trackMode = 1;
    if (progressScore(p, roundStart) <= 1e-6) break;
  }
  return kPreOk;
}

int closing(Driver& dr) {
  VRXpresolve* p = dr.p;
  p->trackMode = 0;
  if (!p->dualReductions) return kPreOk;
  // The slack pass runs to its end; the duplicate-column clean-up after it,
  // and both again only while the clean-up removes columns.
  for (int rounds = 0; rounds < 10; ++rounds) {
    for (int inner = 0; inner < 10; ++inner) {
      int removed = 0;
      int rc = columnToSlack(p, &removed);
      if (rc) return rc;
      if (!removed) break;
    }
    if (!dr.par.VORN_PAR_PREPARALLEL) break;
    const int before = p->liveCols;
    int rc = parallelColumnsIfChanged(dr);
    if (rc) return rc;
    if (before == p->liveCols) break;
  }
  return kPreOk;
}

int depRowMode(const ParamStore& par, const VRXmodeldata* d, int flags) {
  if (par.PreDepRow == 0) return 0;
  if (par.PreDepRow == 1) return 1;
  if (par.PreDepRow >= 2) return 3;
  if (par.Presolve == 2) return 3;
  if (par.Presolve == 1) return 0;
  if (par.Method == 2 || (flags & kPreFlagDepRows)) return 3;
  if (par.VORN_PAR_INTBASIS > 0) return 0;
  return 2.5 * d->numVars < static_cast<double>(d->numNZs) ? 1 : 0;
}

int runDriver(VRXmodel* model, double* work, int flags, PresolveOut* out) {
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  const VRXmodeldata* d = model->data;
  PresolveHolder hold;
  hold.p = presolveCreate(env, d, work);
  VRXpresolve* p = hold.p;
  p->startWall = wallClock();
  p->lastPrint = 0;
  Driver dr{p, par};

  const double W = static_cast<double>(p->nzCount) + d->numQNZs + 2.0 * d->numQCNZs;
  if (par.PrePasses >= 2 || par.Presolve == 2)
    p->workLimit = 1e100;
  else
    p->workLimit = (par.Presolve == 1 ? 200.0 : 1000.0) * std::max(W, 1.0);
  p->watchBudget = p->workLimit >= 1e100 ? 0 : 0.5 * p->workLimit;
  p->depRowMode = depRowMode(par, d, flags);
  p->quick = (flags & kPreFlagQuick) ? 1 : 0;
  for (int r = 0; r < p->numRows; ++r) markRow(p, r);
  for (int j = 0; j < p->numCols; ++j) markCol(p, j);

  int rc = kPreOk;
  if (par.Presolve != 0 || p->quick) {
    if (!p->quick) rc = emptyAndFreeRows(p);
    allActivities(p);
    if (!rc && par.VORN_PAR_PREBOUND && !p->quick && p->dualReductions && par.VORN_PAR_INTBASIS <= 0)
      rc = dualBoundPass(p);
    if (!rc) {
      int outerLimit = par.PrePasses >= 0 ? par.PrePasses : (par.Presolve == 1 ? 5 : (p->quick ? 10 : 100));
      rc = mainLoop(dr, outerLimit);
    }
  }
  if (rc == kPreStop) {
    // A limit ends the loop; the closing steps still run at full length.
    rc = kPreOk;
    p->reductionLimit = par.VORN_PAR_PRELIMIT;
    p->workLimit = 1e100;
    if (!dr.limitHit) dr.limitHit = true;
  }
  if (!rc && par.Presolve != 0) rc = closing(dr);
  if (rc == kPreStop) rc = kPreOk;

  if (rc == kPreInfeasible) {
    out->status = p->dualUsed ? VRX_INF_OR_UNBD : VRX_INFEASIBLE;
  } else if (rc == kPreUnbounded) {
    // Unbounded only once feasible: presolve cannot tell which.
    out->status = VRX_INF_OR_UNBD;
  } else {
    int err = presolvePack(p, model, (flags & kPreFlagNames) != 0, out);
    if (err) return err;
    out->status = 0;
  }
  const int rowsGone = p->numRows - p->liveRows, colsGone = p->numCols - p->liveCols;
  if (out->status == 0 && par.Presolve != 0) {
    if (rowsGone || colsGone) log(env, "Presolve removed %d rows and %d columns\n", rowsGone, colsGone);
    if (p->counters.ineqToEq) log(env, "Presolve changed %d inequalities to equalities\n", p->counters.ineqToEq);
  }
  return 0;
}

}  // namespace

int presolveLP(VRXmodel* model, double* work, int flags, PresolveOut* out) {
  out->status = 0;
  out->presolved = nullptr;
  out->map = nullptr;
  try {
    return runDriver(model, work, flags, out);
  } catch (const std::bad_alloc&) {
    if (out->presolved) modelDestroy(out->presolved);
    presolveMapFree(out->map);
    out->presolved = nullptr;
    out->map = nullptr;
    return VRX_ERROR_OUT_OF_MEMORY;
  }
}

}  // namespace vrx
