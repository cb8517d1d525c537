// The simplex iteration line.
#include "simplex/spxlog.h"

int VRXspxLogLine(VRXlp* lp, double objective, double primalInf, double dualInf,
                  const vrx::Clock& clock) {
  if (lp->outputLevel < 0) return 0;
  const double now = vrx::clockElapsed(clock);
  const double iter = lp->iterCount + lp->priorIter;
  if (iter == lp->lastLogIter) return 0;
  if (lp->rootLogSign != 0 && lp->lastLogIter >= 0 && lp->logSeconds > now - lp->lastLogTime) return 0;
  if (lp->lastLogIter < 0) {
    if (lp->rootLogSign != 0) vrx::log(lp->env, "\nRoot simplex log...\n\n");
    vrx::log(lp->env, "Iteration    Objective       Primal Inf.    Dual Inf.      Time\n");
  }
  const double shown = lp->rootLogSign < 0 ? -objective : objective;
  vrx::log(lp->env, " %7.0f   %14.7e  %13.6e  %13.6e %6.0fs\n", iter, shown, primalInf, dualInf, now);
  lp->lastLogIter = iter;
  lp->lastLogTime = now;
  return 1;
}
