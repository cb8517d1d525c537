// The presolve frame: memory on every path, runs on several threads and
// nested, the limits, crush of starts and expressions, VRXpresolvemodel, and
// the log lines.
#include <cmath>
#include <cstdio>
#include <thread>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "harness.h"

namespace {

using namespace pretest;

std::string netlib(const char* name) { return std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz"; }

// Presolve, a crush and a walk back of a Netlib model, with the k-th allocation refused.
void allocationSweep(const char* name, bool symmetry) {
  long calls = 0;
  for (long k = -1; k < calls || k < 0; ++k) {
    HookState hs;
    VRXenv* env = nullptr;
    ASSERT_EQ(0, loadWithHooks(&env, &hs));
    VRXsetintparam(env, "OutputFlag", 0);
    if (symmetry) VRXsetintparam(env, "VORN_PAR_PRESYMMPASSES", 0);
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, netlib(name).c_str(), &m));
    const long before = hs.calls;
    if (k >= 0) hs.failAt = before + k;
    double work = 0;
    vrx::PresolveOut out;
    int rc = vrx::presolveLP(m, &work, 0, &out);
    if (rc == 0 && out.status == 0) {
      bool merged = false;
      for (const VRXundo* u = out.map->undo.head; u; u = u->next) merged |= u->kind == vrx::UNDO_MERGECOLS;
      if (k < 0) EXPECT_EQ(symmetry, merged) << name;
      std::vector<double> px(out.presolved->data->numVars + 1, 0.0), x(m->data->numVars, 1.0), back(m->data->numVars);
      int partial = 0;
      int rc2 = vrx::crushStart(out.map, x.data(), px.data(), &partial);
      int rc3 = vrx::uncrushPrimal(out.map, px.data(), back.data(), m->data->numVars);
      EXPECT_TRUE(rc2 == 0 || rc2 == VRX_ERROR_OUT_OF_MEMORY);
      EXPECT_TRUE(rc3 == 0 || rc3 == VRX_ERROR_OUT_OF_MEMORY);
      vrx::modelDestroy(out.presolved);
      vrx::presolveMapFree(out.map);
    } else {
      EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << name << " " << k;
      EXPECT_EQ(nullptr, out.presolved);
      EXPECT_EQ(nullptr, out.map);
    }
    if (k < 0) calls = hs.calls - before;
    hs.failAt = -1;
    VRXfreemodel(m);
    VRXfreeenv(env);
    EXPECT_EQ(0, hs.live) << name << " " << k;
  }
  EXPECT_GT(calls, 10);
}

TEST(PresolveFrame, EveryAllocationFailureIsCleanAndLeavesNothing) {
  allocationSweep("afiro", false);
  allocationSweep("vtpbase", true);  // through the symmetry pass and its records
}

TEST(PresolveFrame, MapKeptOnTheModelGoesWithAChangeAndWithTheModel) {
  HookState hs;
  VRXenv* env = nullptr;
  ASSERT_EQ(0, loadWithHooks(&env, &hs));
  VRXsetintparam(env, "OutputFlag", 0);
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXreadmodel(env, netlib("afiro").c_str(), &m));
  auto keep = [&] {
    double work = 0;
    vrx::PresolveOut out;
    ASSERT_EQ(0, vrx::presolveLP(m, &work, 0, &out));
    ASSERT_EQ(0, out.status);
    vrx::presolveMapKeep(m, out.presolved, out.map);
    EXPECT_EQ(out.map, m->presolveMap);
    EXPECT_EQ(out.presolved, m->presolveMap->presolved);
  };
  keep();
  keep();  // the second replaces the first
  const long liveKept = hs.live;
  // A change of the model drops the pair at the update.
  ASSERT_EQ(0, VRXsetdblattrelement(m, "Obj", 0, 2.5));
  ASSERT_EQ(0, VRXupdatemodel(m));
  EXPECT_EQ(nullptr, m->presolveMap);
  EXPECT_LT(hs.live, liveKept);
  keep();
  // and the free of the model takes it along.
  VRXfreemodel(m);
  VRXfreeenv(env);
  EXPECT_EQ(0, hs.live);
}

TEST(PresolveFrame, RunsOnSeveralThreadsAndNested) {
  const char* names[] = {"bandm", "scagr25", "ship08s", "standmps"};
  auto ref = reference("netlib");
  double objs[4] = {0, 0, 0, 0};
  double iters[4] = {0, 0, 0, 0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      Env e;
      VRXmodel* m = nullptr;
      if (VRXreadmodel(e.env, netlib(names[t]).c_str(), &m)) return;
      Result r = run(m, true);
      objs[t] = r.obj;
      iters[t] = r.cleanupIters;
      VRXfreemodel(m);
    });
  for (auto& th : threads) th.join();
  for (int t = 0; t < 4; ++t) {
    EXPECT_TRUE(closeTo(objs[t], ref[names[t]])) << names[t] << " " << objs[t];
    EXPECT_EQ(0, iters[t]) << names[t];
  }

  // Nested: the presolved model is presolved again, solved, and walked back twice.
  Env e;
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXreadmodel(e.env, netlib("scfxm1").c_str(), &m));
  double work = 0;
  vrx::PresolveOut outer, inner;
  ASSERT_EQ(0, vrx::presolveLP(m, &work, 0, &outer));
  ASSERT_EQ(0, outer.status);
  ASSERT_EQ(0, vrx::presolveLP(outer.presolved, &work, 0, &inner));
  ASSERT_EQ(0, inner.status);
  const VRXmodeldata* d1 = outer.presolved->data;
  const VRXmodeldata* d2 = inner.presolved->data;
  EXPECT_LE(d2->numConstrs, d1->numConstrs);
  std::vector<double> x2(d2->numVars + 1), y2(d2->numConstrs + 1), dd2(d2->numVars + 1);
  std::vector<int> c2(d2->numVars + 1), r2(d2->numConstrs + 1);
  vrx::LPPoint p2{x2.data(), y2.data(), dd2.data(), c2.data(), r2.data()};
  double it = 0, obj = 0;
  ASSERT_EQ(2, solveStore(inner.presolved, nullptr, nullptr, &it, &obj, &p2));
  std::vector<double> x1(d1->numVars + 1), y1(d1->numConstrs + 1), dd1(d1->numVars + 1);
  std::vector<int> c1(d1->numVars + 1), r1(d1->numConstrs + 1);
  vrx::LPPoint p1{x1.data(), y1.data(), dd1.data(), c1.data(), r1.data()};
  ASSERT_EQ(0, vrx::uncrushLP(inner.map, p2, p1));
  Result r;
  const int n = m->data->numVars, rows = m->data->numConstrs;
  r.x.assign(n, 0);
  r.y.assign(rows, 0);
  r.d.assign(n, 0);
  r.cs.assign(n, 0);
  r.rs.assign(rows, 0);
  vrx::LPPoint p0{r.x.data(), r.y.data(), r.d.data(), r.cs.data(), r.rs.data()};
  ASSERT_EQ(0, vrx::uncrushLP(outer.map, p1, p0));
  Quality q = measure(m->data, r);
  EXPECT_LT(q.primal, 1e-6);
  EXPECT_LT(q.dual, 1e-6);
  EXPECT_LT(q.identity, 1e-9);
  EXPECT_EQ(q.rows, q.basics);
  double o = m->data->objCon;
  for (int j = 0; j < n; ++j) o += m->data->obj[j] * r.x[j];
  EXPECT_TRUE(closeTo(o, ref["scfxm1"])) << o;
  vrx::modelDestroy(inner.presolved);
  vrx::presolveMapFree(inner.map);
  vrx::modelDestroy(outer.presolved);
  vrx::presolveMapFree(outer.map);
  VRXfreemodel(m);
}

TEST(PresolveFrame, LimitsLeaveAValidPresolvedModel) {
  auto ref = reference("netlib");
  struct Case {
    const char* param;
    int value;
  } cases[] = {{"VORN_PAR_PRELIMIT", 0}, {"VORN_PAR_PRELIMIT", 3}, {"PrePasses", 0}, {"Presolve", 1}, {"Presolve", 2}};
  int defaultRows = 0;
  {
    Env e;
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(e.env, netlib("scagr7").c_str(), &m));
    defaultRows = run(m, false).preRows;
    VRXfreemodel(m);
  }
  for (const Case& c : cases) {
    Env e;
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(e.env, netlib("scagr7").c_str(), &m));
    VRXsetintparam(VRXgetenv(m), c.param, c.value);
    Result r = run(m, true);
    EXPECT_EQ(0, r.presolveStatus) << c.param;
    EXPECT_TRUE(closeTo(r.obj, ref["scagr7"])) << c.param << " " << c.value << ": " << r.obj;
    EXPECT_EQ(0, r.cleanupIters) << c.param;
    // Stopping early keeps more of the model.
    if (std::string(c.param) == "VORN_PAR_PRELIMIT") EXPECT_GT(r.preRows, defaultRows);
    VRXfreemodel(m);
  }
}

TEST(PresolveFrame, CrushCarriesStartsAndExpressions) {
  Env e;
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXreadmodel(e.env, netlib("ship04s").c_str(), &m));
  double work = 0;
  vrx::PresolveOut out;
  ASSERT_EQ(0, vrx::presolveLP(m, &work, 0, &out));
  ASSERT_EQ(0, out.status);
  const VRXmodeldata* pd = out.presolved->data;
  const int n = m->data->numVars, pn = pd->numVars;
  std::vector<double> px(pn + 1), py(pd->numConstrs + 1), pdd(pn + 1);
  std::vector<int> pcs(pn + 1), prs(pd->numConstrs + 1);
  vrx::LPPoint pp{px.data(), py.data(), pdd.data(), pcs.data(), prs.data()};
  double it = 0, obj = 0;
  ASSERT_EQ(2, solveStore(out.presolved, nullptr, nullptr, &it, &obj, &pp));
  std::vector<double> x(n);
  ASSERT_EQ(0, vrx::uncrushPrimal(out.map, px.data(), x.data(), n));
  // A shorter output gets the prefix.
  std::vector<double> prefix(5);
  ASSERT_EQ(0, vrx::uncrushPrimal(out.map, px.data(), prefix.data(), 5));
  for (int j = 0; j < 5; ++j) EXPECT_EQ(x[j], prefix[j]);

  // The optimum crushes back to the presolved optimum.
  std::vector<double> cx(pn + 1, -7);
  int partial = 1;
  ASSERT_EQ(0, vrx::crushStart(out.map, x.data(), cx.data(), &partial));
  EXPECT_EQ(0, partial);
  for (int j = 0; j < pn; ++j) EXPECT_NEAR(px[j], cx[j], 1e-9 * (1 + std::fabs(px[j])));
  // An undefined entry stays undefined where a kept column needs it.
  std::vector<double> ux(x);
  int kept = -1;
  for (int j = 0; j < n && kept < 0; ++j)
    if (out.map->colMap[j] >= 0) kept = j;
  ux[kept] = vrx::kUndefined;
  ASSERT_EQ(0, vrx::crushStart(out.map, ux.data(), cx.data(), &partial));
  EXPECT_EQ(1, partial);
  EXPECT_GE(cx[out.map->colMap[kept]], vrx::kUndefined);

  // An expression over original columns keeps its value at corresponding points.
  std::vector<int> ind;
  std::vector<double> coef;
  for (int j = 0; j < n; j += 3) {
    ind.push_back(j);
    coef.push_back(1.0 + (j % 7));
  }
  std::vector<int> oind(pn + 1);
  std::vector<double> ocoef(pn + 1);
  int ocount = 0;
  double orhs = 0;
  const int rc = vrx::crushExpr(out.map, static_cast<int>(ind.size()), ind.data(), coef.data(), 100.0, &ocount,
                                oind.data(), ocoef.data(), &orhs);
  if (out.map->crushFlag) {
    EXPECT_TRUE(rc == 0 || rc == 20000);
  } else {
    ASSERT_EQ(0, rc);
  }
  if (rc == 0) {
    double lhs = 0, plhs = 0;
    for (size_t t = 0; t < ind.size(); ++t) lhs += coef[t] * x[ind[t]];
    for (int t = 0; t < ocount; ++t) plhs += ocoef[t] * px[oind[t]];
    EXPECT_NEAR(lhs - 100.0, plhs - orhs, 1e-7 * (1 + std::fabs(lhs)));
  }
  vrx::modelDestroy(out.presolved);
  vrx::presolveMapFree(out.map);
  VRXfreemodel(m);
}

TEST(PresolveFrame, PresolveModelExportAndLogLines) {
  Env e;
  auto ref = reference("netlib");
  VRXmodel* m = nullptr;
  ASSERT_EQ(0, VRXreadmodel(e.env, netlib("afiro").c_str(), &m));
  captureLogOf(VRXgetenv(m));
  VRXmodel* pre = VRXpresolvemodel(m);
  ASSERT_NE(nullptr, pre);
  EXPECT_NE(std::string::npos, capturedLog().find("Presolve removed "));
  int rows = 0, cols = 0;
  VRXgetintattr(pre, "NumConstrs", &rows);
  VRXgetintattr(pre, "NumVars", &cols);
  EXPECT_LT(rows, 27);
  EXPECT_LT(cols, 32);
  char* name = nullptr;
  ASSERT_EQ(0, VRXgetstrattr(pre, "ModelName", &name));
  EXPECT_EQ(std::string("AFIRO_pre"), std::string(name));
  double it = 0, obj = 0;
  VRXsetintparam(VRXgetenv(pre), "OutputFlag", 0);
  EXPECT_EQ(2, solveStore(pre, nullptr, nullptr, &it, &obj, nullptr));
  EXPECT_TRUE(closeTo(obj, ref["afiro"])) << obj;
  VRXfreemodel(pre);
  VRXfreemodel(m);

  // A maximisation keeps its sense in the presolved model.
  Def d;
  d.objSense = -1;
  d.obj = {1, 2, 1};
  d.lb = {0, 0, 0};
  d.ub = {4, INFINITY, 3};
  d.sense = "<<";
  d.rhs = {6, 8};
  d.cols = {{{0, 1}, {1, 1}}, {{0, 1}, {1, 3}}, {{1, 1}}};
  d.ub[1] = 1e100;
  m = load(e.env, d);
  pre = VRXpresolvemodel(m);
  ASSERT_NE(nullptr, pre);
  int sense = 0;
  VRXgetintattr(pre, "ModelSense", &sense);
  EXPECT_EQ(-1, sense);
  VRXsetintparam(VRXgetenv(pre), "OutputFlag", 0);
  double objPre = 0, objOrig = 0;
  if (pre->data->numVars > 0) EXPECT_EQ(2, solveStore(pre, nullptr, nullptr, &it, &objPre, nullptr));
  else objPre = pre->data->modelSense * pre->data->objCon;
  EXPECT_EQ(2, solveStore(m, nullptr, nullptr, &it, &objOrig, nullptr));
  EXPECT_NEAR(objOrig, objPre, 1e-9);
  VRXfreemodel(pre);
  VRXfreemodel(m);

  // Infeasible: no model, and the line says why.
  Def inf;
  inf.obj = {1};
  inf.lb = {0};
  inf.ub = {1};
  inf.sense = ">";
  inf.rhs = {3};
  inf.cols = {{{0, 1}}};
  m = load(e.env, inf);
  captureLogOf(VRXgetenv(m));
  EXPECT_EQ(nullptr, VRXpresolvemodel(m));
  EXPECT_NE(std::string::npos, capturedLog().find("Model is infeasible\n"));
  VRXfreemodel(m);

  // Everything removed: an empty model named "Presolved".
  Def all;
  all.obj = {1, 1};
  all.lb = {0, 0};
  all.ub = {5, 5};
  all.sense = ">";
  all.rhs = {2};
  all.cols = {{{0, 1}}, {}};
  m = load(e.env, all);
  pre = VRXpresolvemodel(m);
  ASSERT_NE(nullptr, pre);
  ASSERT_EQ(0, VRXgetstrattr(pre, "ModelName", &name));
  EXPECT_EQ(std::string("Presolved"), std::string(name));
  double objCon = 0;
  VRXgetdblattr(pre, "ObjCon", &objCon);
  EXPECT_NEAR(2.0, objCon, 1e-12);
  VRXfreemodel(pre);
  VRXfreemodel(m);
}

}  // namespace
