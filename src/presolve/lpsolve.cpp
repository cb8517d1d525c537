// The presolve part of the LP driver.
#include "presolve/lpsolve.h"

#include <cstring>

#include "model/modeldata.h"
#include "presolve/dualise.h"
#include "presolve/lpbridge.h"
#include "presolve/presolve.h"
#include "simplex/lp.h"

namespace vrx {

namespace {

// Owns what one presolved solve allocates, freed on every path.
struct Run {
  VRXenv* env;
  PresolveOut pre{0, nullptr, nullptr};
  double* block = nullptr;
  ~Run() {
    if (pre.presolved) {
      VRXlpFreeOnModel(pre.presolved);
      modelDestroy(pre.presolved);
    }
    presolveMapFree(pre.map);
    envFree(env, block);
  }
};

}  // namespace

int lpPresolveSolve(VRXmodel* model, int method, Clock& clock, PresolvedSolve* out) {
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  out->handled = 0;
  out->status = 0;
  out->preIters = 0;
  out->extraIters = 0;
  out->winner = -1;
  if (par.Presolve == 0) return 0;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;

  Run run{env};
  const double t0 = wallClock();
  int rc = presolveLP(model, &clock.work, 0, &run.pre);
  if (rc) return rc;
  log(env, "Presolve time: %.2fs\n", wallClock() - t0);
  if (run.pre.status != 0) {
    // A status from presolve is final, unless the caller wants a ray or a proof.
    if (par.InfUnbdInfo) return 0;
    out->handled = 1;
    out->status = run.pre.status;
    return 0;
  }
  VRXmodel* pre = run.pre.presolved;
  const VRXmodeldata* pd = pre->data;
  const int pn = pd->numVars, pm = pd->numConstrs;
  log(env, "Presolved: %d rows, %d columns, %lu nonzeros\n", pm, pn, static_cast<unsigned long>(pd->numNZs));

  // One block for the presolved point and the walked-back basis.
  const size_t doubles = 2 * static_cast<size_t>(pn) + pm + 3;
  const size_t ints = static_cast<size_t>(pn) + pm + n + m + 4;
  run.block = static_cast<double*>(envMalloc(env, doubles * sizeof(double) + ints * sizeof(int)));
  if (!run.block) return VRX_ERROR_OUT_OF_MEMORY;
  double* px = run.block;
  double* pdd = px + pn + 1;
  double* py = pdd + pn + 1;
  int* pcs = reinterpret_cast<int*>(py + pm + 1);
  int* prs = pcs + pn + 1;
  int* cs = prs + pm + 1;
  int* rs = cs + n + 1;
  LPPoint pp{px, py, pdd, pcs, prs};

  if (pn == 0 && pm == 0) {
    log(env, "Presolve: All rows and columns removed\n");
  } else {
    const int choice = dualiseChoice(pd, par, method, par.Threads > 0 ? par.Threads : detectCores());
    if (choice != 0) {
      int st = 0;
      rc = choice == 2 ? concurrentFormsPoint(pre, method, clock, pp, &st, &out->preIters, &out->winner)
                       : dualisedPoint(pre, method, clock, pp, &st, &out->preIters);
      if (rc) return rc;
      if (st != 2) {
        out->handled = 1;
        out->status = st;
        return 0;
      }
    } else {
      // A plain LP of the LP driver: the dual gets its stronger perturbation.
      VRXlpSetupOpts so;
      so.modelKind = VRX_LPKIND_LP;
      rc = VRXlpSetup(pre, method, &clock.work, &so);
      if (rc) return rc;
      VRXlp* plp = static_cast<VRXlp*>(pre->lp);
      rc = lpRunSimplex(plp, method, clock);
      if (rc) return rc;
      out->preIters = plp->iterCount;
      rc = lpReadPoint(plp, pp);
      if (rc) return rc;
    }
    VRXlpFreeOnModel(pre);
  }
  // The walk needs no duals for the basis, but asks for them to keep the statuses right.
  LPPoint op{nullptr, nullptr, nullptr, cs, rs};
  rc = uncrushLP(run.pre.map, pp, op);
  if (rc) return rc;

  // The clean-up simplex on the original, from the walked-back basis; when that basis
  // falls apart the caller solves the original cold.
  rc = lpCleanupFrom(model, method, cs, rs, out->preIters, "after uncrush", clock, &out->extraIters);
  if (rc) return rc;
  if (out->extraIters < 0) {
    out->extraIters = 0;
    return 0;
  }
  out->handled = 1;
  // The map stays with the model for later starts and hints in the presolved space.
  presolveMapKeep(model, run.pre.presolved, run.pre.map);
  run.pre.presolved = nullptr;
  run.pre.map = nullptr;
  return 0;
}

}  // namespace vrx
