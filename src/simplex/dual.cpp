// Dual simplex: the loop, the build at its head, limits, the log line, the optimum and its
// clean-up, and the hand-over to the primal.
#include <algorithm>
#include <cmath>

#include "model/callback.h"
#include "simplex/dual.h"
#include "simplex/primal.h"
#include "simplex/simplex.h"
#include "simplex/spxlog.h"

namespace vrx {
namespace dual {

template <class T>
int dualRefactor(VRXlp* lp, Clock& clock) {
  View<T> v = view<T>(lp);
  VRXdualprice* pr = lp->pricing;
  if (lp->m > 0) {
    VRXfactorCtl ctl;
    lpFactorCtlLoad(lp, &ctl);
    if (pr->noRescue) ctl.hasSavedState = 0;
    const int repairs = lp->singularRepairs;
    VRXfactorMatrix A = lpFactorMatrix(lp);
    int rc = VRXfactorRefactor<T>(v.factor, &A, v.factor->basisHead, &ctl, &clock.work);
    lpFactorCtlStore(lp, &ctl);
    if (rc) return rc;
    if (lp->status != 1) return 0;
    if (lp->singularRepairs != repairs) {
      // Dropped columns are nonbasic now: back into the active row copy.
      lpActiveRebuild(lp);
      lp->normsStale = 1;
    }
    if (lp->normsStale) dualResetNorms(lp);
  }
  for (int p = 0; p < lp->m; p++) lp->rowFlag[p] = 0;
  if (pr->weightMode != 0) {
    // Row weights follow the basis of the build: a position's merit grows when a longer
    // column than the one it held at the build has come in.
    const int* head = v.factor->basisHead;
    for (int p = 0; p < lp->m; p++) pr->rowWeight[p] = pr->colWeight[head[p]];
  }
  pr->candCount = 0;
  pr->smallPivotRejects = 0;
  pr->freshFactor = 1;
  return 0;
}

void dualPricingRule(VRXlp* lp) {
  VRXdualprice* pr = lp->pricing;
  if (lp->priceMode == 2) {
    if ((lp->dualSwitch >= 3 && lp->singularRepairs >= 1) || lp->iterCount > 3.0 * lp->m) {
      lp->priceMode = 3;
      dualResetNorms(lp);
      dualMarkReference(lp);
      log(lp->env, "simplex pricing changes to steepest edge\n");
    }
  } else if (lp->priceMode == 1 || lp->priceMode == 3) {
    if (lp->outputLevel > 2) log(lp->env, "Norm_Num = %g, Row_Num=%g\n", pr->normNum, pr->rowNum);
    if (pr->normNum > 3.0 * pr->rowNum) {
      // Keeping the weights costs more than the rows they choose: devex is cheaper.
      lp->priceMode = 2;
      lp->devexWork = 0.0;
      dualResetNorms(lp);
      dualMarkReference(lp);
    }
  }
  pr->normNum = pr->rowNum = 0.0;
}

void dualMarkReference(VRXlp* lp) {
  const int nm = lp->n + lp->m;
  for (int j = 0; j < nm; j++) lp->refFramework[j] = lp->varStat[j] < 0 ? 1 : 0;
}

namespace {

void fillProgress(const VRXlp* lp, VRXcbprogress* prog, double primalInf, double dualInf) {
  prog->spxIter = lp->iterCount + lp->priorIter;
  prog->spxObj = lp->sense * (lp->pricing->objWork / lp->objScale + lp->objConst);
  prog->spxPrimInf = primalInf;
  prog->spxDualInf = dualInf;
  prog->spxPerturbed = lp->perturbKind > 0 ? (lp->boxedFlag ? 2 : 1) : 0;
}

// Prints the iteration line and calls the callback at 'where' 2. Returns the callback's
// result.
template <class T>
int logLine(VRXlp* lp, Clock& clock) {
  VRXdualprice* pr = lp->pricing;
  dualInfeasSums<T>(lp);
  const double obj = lp->sense * (pr->objWork / lp->objScale + lp->objConst);
  VRXspxLogLine(lp, obj, pr->sumPrimalInf, pr->sumDualInf, clock);
  if (!lp->env->cbFunc) return 0;
  VRXcbprogress prog{};
  fillProgress(lp, &prog, pr->sumPrimalInf, pr->sumDualInf);
  return callbackFrame(lp->env, VRX_CB_SIMPLEX, &prog);
}

// The repeat of a leaving variable at a fixed gap is taken for a cycle.
void cycleCheck(VRXlp* lp, int leave) {
  const double it = lp->iterCount;
  if (leave == lp->cycleVar) {
    const int gap = static_cast<int>(it - lp->cycleIter);
    if (lp->cycleGap > 0 && gap > 0 && gap % lp->cycleGap == 0)
      lp->cycleHits++;
    else
      lp->cycleGap = gap;
    lp->cycleIter = it;
  } else if (lp->cycleVar < 0 || it - lp->cycleIter > lp->m) {
    lp->cycleVar = leave;
    lp->cycleIter = it;
    lp->cycleGap = 0;
    lp->cycleHits = 0;
  }
}

// The basis is primal feasible for the bounds in force, on a fresh factor. Sets the status
// or the action for the next loop head.
template <class T>
void atOptimum(VRXlp* lp, Clock& clock) {
  VRXdualprice* pr = lp->pricing;
  if (pr->boxPhase) {
    // The box problem is solved: its reduced costs tell whether a dual solution exists.
    dualBoxLeave<T>(lp);
    double worst = 0.0;
    const int bad = dualCountDualInfeas<T>(lp, false, &worst);
    if (bad == 0) {
      lp->actionCode = 2;
      return;
    }
    if (pr->shiftsInForce) {
      // The perturbed costs may be what has no dual solution: try the true ones.
      dualObjectiveUnscale<T>(lp);
      dualClearShifts(lp);
      pr->noPerturb = 1;
      pr->atStart = 1;
      lp->actionCode = 2;
      return;
    }
    pr->dualInfeasible = 1;
    lp->status = -1004;
    return;
  }
  if (pr->shiftsInForce) {
    dualObjectiveUnscale<T>(lp);
    dualClearShifts(lp);
    dualComputeCbar<T>(lp, clock);
    dualObjective<T>(lp);
    double worst = 0.0;
    const int nbad = dualCountDualInfeas<T>(lp, true, &worst);
    if (nbad > 0) {
      // The true costs are not dual feasible here: the primal cleans up.
      lp->dualSwitch++;
      if (--lp->switchBudget <= 0) lp->dualSwitch = 1;
      lp->status = -1004;
      return;
    }
  }
  lp->status = 2;
  lp->phase = 2;
}

template <class T>
int dualLoop(VRXlp* lp, Clock& clock) {
  VRXdualprice* pr = lp->pricing;
  VRXenv* env = lp->env;
  const ParamStore& par = env->par;
  int sinceClock = 0;
  bool logDue = lp->lastLogIter < 0;
  while (lp->status == 1) {
    // Termination, limits and the polling callback.
    if (env->terminateFlagRef && *env->terminateFlagRef) {
      lp->status = 11;
      lp->wasInterrupted = 1;
      break;
    }
    if (lp->iterCount + lp->priorIter >= lp->iterLimit) {
      lp->status = 7;
      break;
    }
    if (++sinceClock >= 8) {
      sinceClock = 0;
      if ((par.TimeLimit < kInf && clockElapsed(clock) >= par.TimeLimit) || clock.work >= par.VORN_PAR_VTIMELIMIT) {
        lp->status = 9;
        break;
      }
    }
    if (env->cbFunc) {
      VRXcbprogress prog{};
      fillProgress(lp, &prog, pr->sumPrimalInf, pr->sumDualInf);
      int rc = callbackFrame(env, VRX_CB_POLLING, &prog);
      if (rc) {
        lp->status = 11;
        return rc;
      }
      if (env->terminateFlagRef && *env->terminateFlagRef) continue;
    }

    // Build at the head when the update rules or an action ask for it.
    if (lp->actionCode == 0 && !pr->freshFactor && lp->m > 0) {
      VRXfactorCtl ctl;
      lpFactorCtlLoad(lp, &ctl);
      const int t = VRXfactorRefactorTest<T>(view<T>(lp).factor, &ctl, clock.work, lp->nnz);
      if (t) lp->actionCode = t;
    }
    if (lp->actionCode != 0) {
      // On large LPs the automatic pricing weighs the cost of the weights every third build.
      if (lp->priceChoice == -1 && lp->refactorCount % 3 == 2 && lp->n <= 3.0 * lp->m && lp->m >= 15000 &&
          lp->exactNorm != 1)
        dualPricingRule(lp);
      int rc = dualRefactor<T>(lp, clock);
      if (rc == 12) {
        lp->status = 12;
        break;
      }
      if (rc) return rc;
      if (lp->status != 1) break;
      if (pr->needExactNorms) {
        pr->needExactNorms = 0;
        if ((rc = dualExactNorms<T>(lp, clock))) return rc;
      }
      if ((rc = VRXdualCompute<T>(lp, clock))) return rc;
      if (lp->status != 1) break;
      lp->actionCode = 0;
      pr->freshFactor = 1;
      if (lp->dualObjValid && lp->cutoff < kInf && lp->dualObj >= lp->cutoff) {
        lp->status = 6;
        break;
      }
    }

    VRXdualPrice<T>(lp);
    if (lp->leaveRow < 0) {
      if (pr->smallPivotRejects > 0 && !pr->acceptSmall) {
        // Every row left was turned away for a small pivot: the best of them is taken now.
        pr->acceptSmall = 1;
        lp->smallPivotCount = -std::abs(lp->smallPivotCount);
        log(env, "sopt->MaxVal = %16.12f\n", lp->smallPivotBest);
        lp->markowitzTol = lp->markowitzTol < 0.125 ? 0.125 : std::max(lp->markowitzTol, 0.5);
        lp->actionCode = 6;
        continue;
      }
      if (!pr->freshFactor) {
        lp->actionCode = 9;
        continue;
      }
      if (pr->smallPivotRejects > 0) {
        // Rows are left that no pivot can serve even now.
        lp->status = 12;
        break;
      }
      atOptimum<T>(lp, clock);
      continue;
    }

    // The log line: at the start, then by iteration step or by time.
    if (logDue || (lp->iterLogStep > 0 ? lp->iterCount + lp->priorIter - lp->lastLogIter >= lp->iterLogStep
                                       : (static_cast<long>(lp->iterCount) % 100 == 0 &&
                                          clockElapsed(clock) - lp->lastLogTime >= lp->logSeconds))) {
      logDue = false;
      int rc = logLine<T>(lp, clock);
      if (rc) {
        lp->status = 11;
        return rc;
      }
    }

    int rc = VRXdualRatio<T>(lp, clock);
    if (rc == 3) continue;
    if (rc) return rc;
    if (lp->enterVar < 0) continue;
    const int leave = lp->leaveVar;
    rc = VRXdualPivot<T>(lp, clock);
    if (rc == 12) {
      lp->status = 12;
      break;
    }
    if (rc) return rc;
    if (lp->enterVar < 0) continue;
    if (pr->acceptSmall) {
      pr->acceptSmall = 0;
      lp->smallPivotCount = 0;
      lp->smallPivotBest = 0.0;
    }

    cycleCheck(lp, leave);
    if (lp->cycleHits > 30) {
      lp->cycleHits = 0;
      if (lp->perturbKind < 3 && !pr->noPerturb && lp->perturbCur > 0.0) {
        dualPerturb<T>(lp);
      } else {
        lp->status = -1004;
        break;
      }
    }
    if (lp->dualObjValid && lp->cutoff < kInf && lp->dualObj >= lp->cutoff) {
      // Confirmed on a fresh factor at the next loop head.
      lp->actionCode = 9;
    }
  }
  return 0;
}

// Leaves the record with the true costs in Cbar and the objective of the basis.
template <class T>
int dualFinish(VRXlp* lp, Clock& clock) {
  VRXdualprice* pr = lp->pricing;
  dualObjectiveUnscale<T>(lp);
  if (pr->boxPhase) {
    dualBoxLeave<T>(lp);
    lp->actionCode = std::max(lp->actionCode, 2);
  }
  const bool needCosts = pr->shiftsInForce != 0;
  if (lp->m > 0 && (lp->actionCode != 0 || needCosts) && lp->status != 12) {
    if (lp->actionCode != 0) {
      const int keep = lp->status;
      lp->status = 1;
      int rc = dualRefactor<T>(lp, clock);
      if (rc && rc != 12) return rc;
      if (lp->status == 1) lp->status = keep;
      if (rc == 12) lp->status = 12;
      lp->actionCode = 0;
      if (lp->status != 12) dualComputeBbar<T>(lp, clock, false);
    }
  }
  // Whatever the end, the record leaves with the true costs.
  if (needCosts) dualClearShifts(lp);
  if (lp->status != 12) {
    dualComputeCbar<T>(lp, clock);
    dualObjective<T>(lp);
    lp->primalObj = lp->dualObj;
  }
  return 0;
}

}  // namespace

}  // namespace dual
}  // namespace vrx

using namespace vrx;
using namespace vrx::dual;

int VRXdualSolveCore(VRXlp* lp, Clock& clock) {
  int rc = lp->quadMode ? dualLoop<long double>(lp, clock) : dualLoop<double>(lp, clock);
  if (rc) {
    // The objective leaves in the units it came in, whatever the end.
    if (lp->quadMode)
      dualObjectiveUnscale<long double>(lp);
    else
      dualObjectiveUnscale<double>(lp);
    return rc;
  }
  rc = lp->quadMode ? dualFinish<long double>(lp, clock) : dualFinish<double>(lp, clock);
  if (rc) return rc;
  if (lp->status == 2 && lp->cutoff < kInf && lp->dualObj >= lp->cutoff) lp->status = 6;
  if (lp->status != -1004 && lp->status != -1002) {
    VRXdualprice* pr = lp->pricing;
    if (lp->quadMode)
      dualInfeasSums<long double>(lp);
    else
      dualInfeasSums<double>(lp);
    VRXspxLogLine(lp, lp->sense * lp->dualObj, pr->sumPrimalInf, pr->sumDualInf, clock);
  }
  return 0;
}

int VRXdualSolve(VRXlp* lp, Clock& clock) {
  if (!lp) return VRX_ERROR_NULL_ARGUMENT;
  if (lp->status != 1) return 0;  // the load found bad bounds
  if ((lp->quadMode ? !lp->CbarQ : !lp->Cbar) || !lp->varStat) return VRX_ERROR_DATA_NOT_AVAILABLE;
  int rc = VRXdualPrepare(lp, lp->loadKind >= 2 ? 1 : 0, &clock.work);
  if (rc) return rc;
  rc = VRXdualSolveCore(lp, clock);
  if (rc) return rc;
  // A rescue request (-1002) and an optimum with temporary fixings go back to the caller's
  // loop as they are; a hand-over first puts the record in the primal's form.
  if (lp->status == -1004) {
    // The caller's loop runs the primal next, on the true costs and from this basis.
    if (VRXprimalFromDual(lp) < 0) {
      lp->status = 12;
      return 0;
    }
    lp->status = -1004;
  }
  return 0;
}
