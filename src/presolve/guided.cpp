// The guided presolve of crossover, and the walks that carry its point forward.
#include "presolve/guided.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "env/envvec.h"
#include "model/model.h"
#include "model/modeldata.h"

namespace vrx {

int crushPrimal(const VRXpresolvemap* map, const double* origX, double* preX) {
  // A full vector has nothing undefined: the start crush is the primal walk.
  int partial = 0;
  return crushStart(map, origX, preX, &partial);
}

int crushDuals(VRXpresolvemap* map, const double* origY, double* preY) {
  int rc = presolveMapIndex(map);
  if (rc) return rc;
  const int m = map->origRows, wm = m + map->addedRows;
  Scratch<double> sy(map->env, static_cast<size_t>(wm));
  if (!sy.a) return VRX_ERROR_OUT_OF_MEMORY;
  double* y = sy.a;
  for (int i = 0; i < m; ++i) y[i] = map->rowNeg[i] ? -origY[i] : origY[i];
  // Rows a reduction added have no dual in the original: none to carry.
  for (int i = m; i < wm; ++i) y[i] = 0;
  // Only the records that keep a row but change what its dual means act here: the
  // others remove their rows, whose duals the presolved model does not have.
  for (int r = 0; r < map->undoCount; ++r) {
    const VRXundo* u = map->undoPayloads[r];
    const int* I = undoInts(u);
    const double* D = undoDbls(u);
    if (u->kind == UNDO_PARROW) {
      // Row b was t times row a: its share of the dual goes to row a.
      y[I[0]] += D[0] * y[I[1]];
      y[I[1]] = 0;
    } else if (u->kind == UNDO_COLTOSLACK) {
      // The walk back gives y = s yPost + c / a.
      const double s = I[2] ? -1.0 : 1.0;
      y[I[0]] = s * (y[I[0]] - D[1] / D[0]);
    }
  }
  for (int i = 0; i < wm; ++i)
    if (map->rowMap[i] >= 0) preY[map->rowMap[i]] = y[i];
  return 0;
}

void guidedFree(VRXenv* env, GuidedOut* out) {
  if (out->presolved) modelDestroy(out->presolved);
  presolveMapFree(out->map);
  envFreeAll(env, out->x, out->y, out->d);
  std::memset(out, 0, sizeof(GuidedOut));
}

namespace {

// A bound the point sits on, within the feasibility tolerance relative to the bound.
bool atBound(double x, double bound, double tol) { return std::fabs(x - bound) <= tol * (1.0 + std::fabs(bound)); }

// Fixes the columns and, with dropRows, drops the rows that the point supports. Counts
// them into out; basis as in presolveGuided.
int applyPoint(VRXpresolve* p, const double* x, const double* y, const double* d, bool dropRows, int* basis,
               GuidedOut* out) {
  const int n = p->numCols, m = p->numRows;
  // A reduced cost a hundred times the optimality tolerance is no residue of the
  // iteration; a dual a hundredth of it is none.
  const double dClear = 100.0 * p->optTol, yZero = 0.01 * p->optTol;
  const double tol = p->feasTol;
  for (int j = 0; j < n; ++j) {
    if (basis) basis[j] = kStFree;
    const double lo = p->lb[j], up = p->ub[j];
    int side = 0;
    if (d[j] >= dClear && !isInf(p, lo) && atBound(x[j], lo, tol)) side = kStLower;
    if (d[j] <= -dClear && !isInf(p, up) && atBound(x[j], up, tol)) side = kStUpper;
    if (!side) continue;
    int rc = fixColumn(p, j, side == kStLower ? lo : up);
    if (rc) return rc;
    if (basis) basis[j] = side;
    out->fixedCols++;
  }
  // Slacks from the point, in the record's orientation (rows read with '>' negated); the
  // fixed columns have left their rows for the right-hand side.
  Scratch<double> act(p->env, static_cast<size_t>(m));
  if (!act.a) throw std::bad_alloc();
  for (int i = 0; i < m; ++i) act.a[i] = 0;
  for (int j = 0; j < n; ++j)
    for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) act.a[p->slotRow[k]] += p->rowVal[k] * x[j];
  double units = 3.0 * static_cast<double>(p->nzCount) + n;
  for (int i = 0; i < m; ++i) {
    if (basis) basis[n + i] = kStFree;
    if (!dropRows || !rowLive(p, i) || p->sense[i] == '=') continue;
    const double slack = p->rhs[i] - act.a[i];
    const double yi = p->rowNeg[i] ? -y[i] : y[i];
    if (slack <= 100.0 * tol * (1.0 + std::fabs(p->rhs[i])) || std::fabs(yi) > yZero) continue;
    units += 3.0 * p->rowLen[i];
    removeRow(p, i, -1);
    if (basis) basis[n + i] = kRowBasic;
    out->droppedRows++;
  }
  charge(p, pwRows, units);
  return kPreOk;
}

// The short run of LP reductions, under the work limit and the reduction limit.
int shortRun(VRXpresolve* p) {
  int rc = emptyAndFreeRows(p);
  if (rc) return rc;
  allActivities(p);
  for (int r = 0; r < p->numRows; ++r)
    if (rowLive(p, r)) markRow(p, r);
  for (int j = 0; j < p->numCols; ++j)
    if (colLive(p, j)) markCol(p, j);
  int (*const passes[])(VRXpresolve*) = {redundantRows, columnPass, singletonRows, forcingRows, dualFixing};
  const int passCount = p->dualReductions ? 5 : 4;
  for (int round = 0; round < 5; ++round) {
    const PreSnapshot s = snapshot(p);
    p->trackMode = 2;
    trackerTake(p);
    for (int k = 0; k < passCount; ++k) {
      if (*p->work - p->workStart > p->workLimit || p->step >= p->reductionLimit) return kPreOk;
      if ((rc = passes[k](p))) return rc;
      p->step++;
    }
    if (progressScore(p, s) <= 1e-5) break;
  }
  // The closing step of the LP driver: singleton columns read as their rows' slacks.
  if (!p->dualReductions || *p->work - p->workStart > p->workLimit) return kPreOk;
  p->trackMode = 0;
  int removed = 0;
  return columnToSlack(p, &removed);
}

// c - A'y on the presolved model.
void reducedCosts(const VRXmodeldata* d, const double* y, double* out) {
  for (int j = 0; j < d->numVars; ++j) {
    double dj = d->obj[j];
    for (int64_t k = d->colBeg[j], e = k + d->colLen[j]; k < e; ++k) dj -= d->val[k] * y[d->rowInd[k]];
    out[j] = dj;
  }
}

int runGuided(VRXmodel* model, const double* x, const double* y, const double* d, int* basis, double* work,
              GuidedOut* out) {
  VRXenv* env = model->env;
  const ParamStore& par = env->par;
  const VRXmodeldata* md = model->data;
  const int n = md->numVars, m = md->numConstrs;
  // Only a plain LP has a point whose duals the walks can carry.
  if (md->numIntVars > 0 || md->numQNZs > 0 || md->numQConstrs > 0 || n + m == 0) {
    if (basis) std::fill(basis, basis + n + m, kStFree);
    out->status = kGuidedTooLittle;
    return 0;
  }
  PresolveHolder hold;
  hold.p = presolveCreate(env, md, work);
  VRXpresolve* p = hold.p;
  p->startWall = wallClock();
  p->workLimit = (par.Presolve == 1 ? 100.0 : 500.0) * std::max<double>(1.0, static_cast<double>(p->nzCount));
  p->watchBudget = 0.5 * p->workLimit;

  // Dropped rows come back basic, but the inner vertex may have moved across them: on
  // Netlib that doubled the clean-up after uncrush, so only the higher levels drop them.
  int rc = applyPoint(p, x, y, d, par.VORN_PAR_GUIDEDPRE >= 2, basis, out);
  if (rc == kPreOk && out->fixedCols + out->droppedRows < 0.01 * (n + m)) {
    out->status = kGuidedTooLittle;
    return 0;
  }
  if (rc == kPreOk) rc = shortRun(p);
  if (rc == kPreInfeasible || rc == kPreUnbounded) {
    // The point was optimal: a proof here means the point or the reductions are off.
    out->status = rc == kPreInfeasible && !p->dualUsed ? VRX_INFEASIBLE : VRX_INF_OR_UNBD;
    return 0;
  }
  PresolveOut po{0, nullptr, nullptr};
  rc = presolvePack(p, model, false, &po);
  if (rc) return rc;
  out->presolved = po.presolved;
  out->map = po.map;
  const VRXmodeldata* pd = out->presolved->data;
  const int pn = pd->numVars, pm = pd->numConstrs;
  out->x = envCallocArray<double>(env, static_cast<size_t>(pn) + 1);
  out->d = envCallocArray<double>(env, static_cast<size_t>(pn) + 1);
  out->y = envCallocArray<double>(env, static_cast<size_t>(pm) + 1);
  if (!out->x || !out->d || !out->y) return VRX_ERROR_OUT_OF_MEMORY;
  if ((rc = crushPrimal(out->map, x, out->x)) || (rc = crushDuals(out->map, y, out->y))) return rc;
  reducedCosts(pd, out->y, out->d);
  charge(p, pwSpare, 2.0 * static_cast<double>(pd->numNZs) + pn + pm);
  out->status = 0;
  return 0;
}

}  // namespace

int presolveGuided(VRXmodel* model, const double* x, const double* y, const double* d, int* basis, double* work,
                   GuidedOut* out) {
  VRXenv* env = model->env;
  std::memset(out, 0, sizeof(GuidedOut));
  int rc;
  try {
    rc = runGuided(model, x, y, d, basis, work, out);
  } catch (const std::bad_alloc&) {
    rc = VRX_ERROR_OUT_OF_MEMORY;
  }
  if (rc || out->status != 0) {
    const int status = out->status;
    guidedFree(env, out);
    out->status = rc ? 0 : status;
  }
  return rc;
}

}  // namespace vrx
