// Presolve, solve the presolved model, walk back, and measure the point on the
// original model: the pieces the presolve tests share.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <fstream>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "../support/modeldef.h"
#include "env/clock.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "presolve/lpbridge.h"
#include "presolve/presolve.h"
#include "presolve/undo.h"
#include "simplex/lp.h"
#include "vornix_c.h"
#include "../support/shared_data.h"
#include "../support/quiet_env.h"

namespace pretest {

using Env = vrxtest::QuietEnv;

// A small LP given column by column; rows in the caller's senses.
using Def = ModelDef;

inline VRXmodel* load(VRXenv* env, const Def& s) {
  VRXmodel* m = loadModelDef(env, s);
  if (m) VRXsetintparam(VRXgetenv(m), "OutputFlag", 0);
  return m;
}

// The point after the walk, with what it cost.
struct Result {
  int presolveStatus = -1;  // 0 reduced, 3, 4, 5
  int status = -1;          // of the presolved solve (2 optimal)
  int preRows = 0, preCols = 0;
  int64_t preNz = 0;
  double obj = 0;  // caller's sense, from the walked-back x
  std::vector<double> x, y, d;
  std::vector<int> cs, rs;
  double preIters = 0;
  double cleanupIters = -1;
  int cleanupStatus = -1;
  double cleanupObj = 0;
  double presolveSecs = 0, totalSecs = 0;
  std::vector<int> kinds;  // undo records, newest first
};

// Sizes the point of a result for n columns and m rows, all zero; the view on it.
inline vrx::LPPoint sizePoint(Result& r, int n, int m) {
  r.x.assign(n, 0);
  r.y.assign(m, 0);
  r.d.assign(n, 0);
  r.cs.assign(n, 0);
  r.rs.assign(m, 0);
  return vrx::LPPoint{r.x.data(), r.y.data(), r.d.data(), r.cs.data(), r.rs.data()};
}

inline double now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Solves a model's store from a given basis (or from the slack basis) with the
// dual simplex; returns the status, iterations and objective in the caller's sense.
inline int solveStore(VRXmodel* m, const int* cs, const int* rs, double* iters, double* obj, vrx::LPPoint* pt) {
  double work = 0;
  VRXlpSetupOpts opts;
  opts.modelKind = VRX_LPKIND_LP;
  if (VRXlpSetup(m, 1, &work, &opts)) return -1;
  VRXlp* lp = static_cast<VRXlp*>(m->lp);
  if (cs && vrx::lpLoadBasis(lp, cs, rs)) return -1;
  vrx::Clock clock = vrx::clockStart();
  if (vrx::lpRunSimplex(lp, 1, clock)) return -1;
  *iters = lp->iterCount;
  *obj = lp->sense * lp->dualObj;
  if (pt) vrx::lpReadPoint(lp, *pt);
  const int st = lp->status;
  VRXlpFreeOnModel(m);
  return st;
}

// Presolve, solve, walk back; with cleanup the original is re-solved from the
// walked-back basis.
inline Result run(VRXmodel* model, bool cleanup) {
  Result r;
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  double work = 0;
  vrx::PresolveOut out;
  const double t0 = now();
  EXPECT_EQ(0, vrx::presolveLP(model, &work, 0, &out));
  r.presolveSecs = now() - t0;
  r.presolveStatus = out.status;
  if (out.status != 0) {
    r.totalSecs = now() - t0;
    return r;
  }
  for (const VRXundo* u = out.map->undo.head; u; u = u->next) r.kinds.push_back(u->kind);
  VRXmodel* pre = out.presolved;
  const VRXmodeldata* pd = pre->data;
  r.preRows = pd->numConstrs;
  r.preCols = pd->numVars;
  r.preNz = pd->numNZs;
  std::vector<double> px(pd->numVars + 1), py(pd->numConstrs + 1), pdd(pd->numVars + 1);
  std::vector<int> pcs(pd->numVars + 1), prs(pd->numConstrs + 1);
  vrx::LPPoint pp{px.data(), py.data(), pdd.data(), pcs.data(), prs.data()};
  if (pd->numVars > 0 || pd->numConstrs > 0) {
    double pobj = 0;
    r.status = solveStore(pre, nullptr, nullptr, &r.preIters, &pobj, &pp);
  } else {
    r.status = 2;
  }
  vrx::LPPoint op = sizePoint(r, n, m);
  if (r.status == 2) {
    EXPECT_EQ(0, vrx::uncrushLP(out.map, pp, op));
    double o = d->objCon;
    for (int j = 0; j < n; ++j) o += d->obj[j] * r.x[j];
    r.obj = d->modelSense * o;
  }
  (void)env;
  vrx::modelDestroy(pre);
  vrx::presolveMapFree(out.map);
  if (cleanup && r.status == 2) {
    r.cleanupStatus = solveStore(model, r.cs.data(), r.rs.data(), &r.cleanupIters, &r.cleanupObj, nullptr);
  }
  r.totalSecs = now() - t0;
  return r;
}

// How far a point is from optimal on the original model.
struct Quality {
  double primal = 0;     // rows and bounds, relative to 1 + |rhs| or |bound|
  double dual = 0;       // signs of y and d against the position of rows and columns
  double identity = 0;   // d - (c - A'y), relative to 1 + |c| + sum |a y|
  int basics = 0;        // basic columns and rows
  int rows = 0;
};

inline Quality measure(const VRXmodeldata* d, const Result& r) {
  Quality q;
  const int n = d->numVars, m = d->numConstrs;
  q.rows = m;
  std::vector<double> act(m, 0.0), ay(n, 0.0), ayAbs(n, 0.0);
  for (int j = 0; j < n; ++j)
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) {
      act[d->rowInd[k]] += d->val[k] * r.x[j];
      ay[j] += d->val[k] * r.y[d->rowInd[k]];
      ayAbs[j] += std::fabs(d->val[k] * r.y[d->rowInd[k]]);
    }
  for (int i = 0; i < m; ++i) {
    const double b = d->rhs[i], s = 1 + std::fabs(b);
    const char sn = d->sense[i];
    double v = 0;
    if (sn == '<') v = act[i] - b;
    if (sn == '>') v = b - act[i];
    if (sn == '=') v = std::fabs(act[i] - b);
    q.primal = std::max(q.primal, v / s);
    // Min form: a '<' row has y <= 0, a '>' row y >= 0; an inactive row has y = 0.
    const double slackGap = std::fabs(act[i] - b) / s;
    double dv = 0;
    if (sn == '<') dv = std::max(0.0, r.y[i]);
    if (sn == '>') dv = std::max(0.0, -r.y[i]);
    if (sn != '=' && slackGap > 1e-6) dv = std::max(dv, std::fabs(r.y[i]));
    q.dual = std::max(q.dual, dv);
    if (r.rs[i] == vrx::kRowBasic) q.basics++;
  }
  for (int j = 0; j < n; ++j) {
    const double lo = d->lb[j], up = d->ub[j], x = r.x[j];
    if (lo > -1e30) q.primal = std::max(q.primal, (lo - x) / (1 + std::fabs(lo)));
    if (up < 1e30) q.primal = std::max(q.primal, (x - up) / (1 + std::fabs(up)));
    const bool atLo = lo > -1e30 && x <= lo + 1e-7 * (1 + std::fabs(lo));
    const bool atUp = up < 1e30 && x >= up - 1e-7 * (1 + std::fabs(up));
    const double dj = r.d[j];
    double dv = 0;
    if (atLo && atUp)
      dv = 0;
    else if (atLo)
      dv = std::max(0.0, -dj);
    else if (atUp)
      dv = std::max(0.0, dj);
    else
      dv = std::fabs(dj);
    q.dual = std::max(q.dual, dv / (1 + std::fabs(d->obj[j])));
    q.identity = std::max(q.identity, std::fabs(dj - (d->obj[j] - ay[j])) / (1 + std::fabs(d->obj[j]) + ayAbs[j]));
    if (r.cs[j] == vrx::kStBasic) q.basics++;
  }
  return q;
}

inline std::map<std::string, double> reference(const std::string& set) {
  return vrxtest::referenceObjectives(set);
}

// A map over n original columns and m rows, all of them kept (bounds 0..10), with
// records pushed by hand.
struct HandMap {
  VRXpresolvemap* map;
  HandMap(VRXenv* env, int n, int m) {
    map = static_cast<VRXpresolvemap*>(vrx::envCalloc(env, 1, sizeof(VRXpresolvemap)));
    map->env = env;
    map->undoCount = -1;
    map->origCols = map->preCols = n;
    map->origRows = map->preRows = m;
    map->colMap = vrx::envAllocArray<int>(env, n + 1);
    map->rowMap = vrx::envAllocArray<int>(env, m + 1);
    map->rowNeg = vrx::envCallocArray<char>(env, m + 1);
    map->origLb = vrx::envAllocArray<double>(env, n + 1);
    map->origUb = vrx::envAllocArray<double>(env, n + 1);
    for (int j = 0; j < n; ++j) {
      map->colMap[j] = j;
      map->origLb[j] = 0;
      map->origUb[j] = 10;
    }
    for (int i = 0; i < m; ++i) map->rowMap[i] = i;
  }
  ~HandMap() { vrx::presolveMapFree(map); }
  HandMap(const HandMap&) = delete;
  HandMap& operator=(const HandMap&) = delete;
  void push(int kind, std::initializer_list<int> ints, std::initializer_list<double> dbls) {
    VRXundo* u = vrx::undoPush(map->env, map->undo, kind, static_cast<int>(ints.size()), static_cast<int>(dbls.size()));
    int k = 0;
    for (int v : ints) vrx::undoInts(u)[k++] = v;
    k = 0;
    for (double v : dbls) vrx::undoDbls(u)[k++] = v;
  }
};

inline bool closeTo(double a, double b, double rel = 1e-6) {
  return std::fabs(a - b) <= rel * std::max(1.0, std::fabs(b));
}

// ---- a reduction on a small model, solved with and without presolve ----

struct Plain {
  int status = -1;
  double obj = 0;
  std::vector<double> x, y, d;
};

inline Plain plain(VRXmodel* m) {
  Plain p;
  const int n = m->data->numVars, rows = m->data->numConstrs;
  p.x.assign(n + 1, 0);
  p.y.assign(rows + 1, 0);
  p.d.assign(n + 1, 0);
  std::vector<int> cs(n + 1), rs(rows + 1);
  vrx::LPPoint pt{p.x.data(), p.y.data(), p.d.data(), cs.data(), rs.data()};
  double iters = 0;
  p.status = solveStore(m, nullptr, nullptr, &iters, &p.obj, &pt);
  return p;
}

// The walked-back point is optimal on the original, its basis has as many basics
// as rows, and the clean-up from it ends optimal.
inline void expectOptimalWalk(const VRXmodeldata* d, const Result& r, const char* what) {
  Quality q = measure(d, r);
  EXPECT_LT(q.primal, 1e-9) << what;
  EXPECT_LT(q.dual, 1e-9) << what;
  EXPECT_LT(q.identity, 1e-12) << what;
  EXPECT_EQ(q.rows, q.basics) << what;
  EXPECT_EQ(2, r.cleanupStatus) << what;
}

inline bool has(const Result& r, int kind) { return std::find(r.kinds.begin(), r.kinds.end(), kind) != r.kinds.end(); }

enum Compare { kPrimal = 1, kDual = 2 };

// Solves both ways; the walked-back point must be optimal on the original,
// its basis must need no clean-up, and the chosen parts must agree.
inline Result bothWays(const Def& def, int compare, const char* what,
                       std::vector<std::pair<const char*, int>> intParams = {}) {
  Env e;
  VRXmodel* a = load(e.env, def);
  VRXmodel* b = load(e.env, def);
  for (auto& pv : intParams) VRXsetintparam(VRXgetenv(b), pv.first, pv.second);
  Plain p = plain(a);
  Result r = run(b, true);
  EXPECT_EQ(2, p.status) << what;
  EXPECT_EQ(0, r.presolveStatus) << what;
  EXPECT_EQ(2, r.status) << what;
  EXPECT_NEAR(p.obj, r.obj, 1e-7 * (1 + std::fabs(p.obj))) << what;
  if (r.status == 2) {
    expectOptimalWalk(b->data, r, what);
    EXPECT_EQ(0, r.cleanupIters) << what;
    const int n = b->data->numVars, rows = b->data->numConstrs;
    for (int j = 0; j < n && (compare & kPrimal); ++j) EXPECT_NEAR(p.x[j], r.x[j], 1e-9) << what << " x" << j;
    for (int j = 0; j < n && (compare & kDual); ++j) EXPECT_NEAR(p.d[j], r.d[j], 1e-9) << what << " d" << j;
    for (int i = 0; i < rows && (compare & kDual); ++i) EXPECT_NEAR(p.y[i], r.y[i], 1e-9) << what << " y" << i;
  }
  VRXfreemodel(a);
  VRXfreemodel(b);
  return r;
}

}  // namespace pretest
