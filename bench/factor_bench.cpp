// The factor on optimal bases of larger Netlib models: refactor time, and the
// cost of ftran/btran with one-entry right-hand sides against the entries they produce.
//   factor_bench [model ...]   (names under ../shared/data/netlib, default a few large ones)
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "env/clock.h"
#include "model/model.h"
#include "simplex/factor.h"
#include "simplex/lp.h"
#include "vornix_c.h"

using Clk = std::chrono::steady_clock;

static double since(Clk::time_point t0) {
  return std::chrono::duration<double>(Clk::now() - t0).count();
}

int main(int argc, char** argv) {
  std::vector<std::string> names;
  for (int a = 1; a < argc; ++a) names.push_back(argv[a]);
  if (names.empty()) names = {"pilot87", "d2q06c", "greenbea", "fit2d", "maros", "ship12s"};
  VRXenv* env = nullptr;
  if (VRXloadenv(&env, nullptr)) return 1;
  VRXsetintparam(env, "OutputFlag", 0);
  std::printf("%-10s %6s %10s %12s %10s %12s %10s\n", "model", "m", "refactor", "ftran us", "out nnz",
              "btran us", "out nnz");
  for (const std::string& name : names) {
    std::string path = std::string(VRX_SHARED_DATA) + "/netlib/" + name + ".mps.gz";
    VRXmodel* model = nullptr;
    if (VRXreadmodel(env, path.c_str(), &model)) continue;
    if (VRXoptimize(model) || !model->lp) {
      VRXfreemodel(model);
      continue;
    }
    auto* lp = static_cast<VRXlp*>(model->lp);
    const int m = lp->m;
    VRXfactorMatrix A = vrx::lpFactorMatrix(lp);
    VRXfactorCtl ctl;
    vrx::lpFactorCtlLoad(lp, &ctl);
    double work = 0;
    const int reps = 5;
    auto t0 = Clk::now();
    for (int r = 0; r < reps; ++r) VRXfactorRefactor(lp->factor, &A, lp->factor->basisHead, &ctl, &work);
    double tRef = since(t0) / reps;
    VRXsvec in{}, out{};
    vrx::svecAlloc(lp->env, &in, m);
    vrx::svecAlloc(lp->env, &out, m);
    long fNnz = 0, bNnz = 0;
    t0 = Clk::now();
    for (int i = 0; i < m; ++i) {
      in.count = 1;
      in.index[0] = i;
      in.value[i] = 1.0;
      VRXftran(lp->factor, &in, &out, 0, 1, &work);
      fNnz += out.count < 0 ? m : out.count;
      in.value[i] = 0.0;
      in.count = 0;
    }
    double tF = since(t0) / m;
    t0 = Clk::now();
    for (int p = 0; p < m; ++p) {
      in.count = 1;
      in.index[0] = p;
      in.value[p] = 1.0;
      VRXbtran(lp->factor, &in, &out, 1, &work);
      bNnz += out.count < 0 ? m : out.count;
      in.value[p] = 0.0;
      in.count = 0;
    }
    double tB = since(t0) / m;
    std::printf("%-10s %6d %8.2fms %12.2f %10.1f %12.2f %10.1f\n", name.c_str(), m, tRef * 1e3,
                tF * 1e6, static_cast<double>(fNnz) / m, tB * 1e6, static_cast<double>(bNnz) / m);
    vrx::svecFree(lp->env, &in);
    vrx::svecFree(lp->env, &out);
    VRXfreemodel(model);
  }
  VRXfreeenv(env);
  return 0;
}
