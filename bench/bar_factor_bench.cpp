// Numeric factor speed of the barrier: GFLOP/s of the supernodal Cholesky on
// the normal matrix of a model, against the machine's dgemm rate.
//   bar_factor_bench MODEL [repeats] [threads]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "barrier/bar.h"
#include "barrier/barfactor.h"
#include "env/env.h"
#include "model/model.h"
#include "vornix_c.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s model [repeats] [threads]\n", argv[0]);
    return 1;
  }
  const int reps = argc > 2 ? std::atoi(argv[2]) : 5;
  const int threads = argc > 3 ? std::atoi(argv[3]) : 1;
  VRXenv* env = nullptr;
  if (VRXloadenv(&env, nullptr)) return 1;
  VRXsetintparam(env, "OutputFlag", 0);
  VRXmodel* m = nullptr;
  if (VRXreadmodel(env, argv[1], &m)) return 1;
  VRXbar bar{};
  if (vrx::VRXbarSetup(m, &bar)) return 1;
  const vrx::BarMatrix A = vrx::barMatrix(&bar);
  vrx::BarFactorOpts opts;
  opts.threads = threads;
  opts.cores = env->coreCount > 0 ? env->coreCount : 1;
  double nz = 0, ops = 0;
  // Minimum degree alone and dissection alone first, to show what the automatic choice did.
  VRXbarfactor other{};
  vrx::BarFactorOpts amdOpts = opts;
  amdOpts.order = 0;
  double amdNz = 0, amdOps = 0;
  if (vrx::VRXbarOrder(m->env, A, amdOpts, &other, &amdNz, &amdOps)) return 1;
  vrx::barFactorFree(m->env, &other);
  vrx::BarFactorOpts ndOpts = opts;
  ndOpts.order = 1;
  double ndNz = 0, ndOps = 0;
  if (vrx::VRXbarOrder(m->env, A, ndOpts, &other, &ndNz, &ndOps)) return 1;
  vrx::barFactorFree(m->env, &other);
  if (vrx::VRXbarOrder(m->env, A, opts, &bar.factor, &nz, &ops) || vrx::VRXbarSymbolic(m->env, A, &bar.factor))
    return 1;
  std::printf("order: amd work %.3e (u %.3g per copy)  nd copies %d%s  ops amd %.3e nd %.3e -> %.3e%s  order work "
              "%.3e  %.3fs\n",
              bar.factor.amdWork, bar.factor.amdWork / std::max(amdOps, 1.0), bar.factor.ndCopies,
              bar.factor.ndFull ? " (copy 0 on the full pattern)" : "", amdOps, ndOps, ops,
              ops < amdOps ? " (dissection)" : "", bar.factor.orderWork, bar.factor.orderTime);
  for (int j = 0; j < bar.cols; ++j) bar.D[j] = 0.5 + (j % 7);
  double best = 1e300;
  for (int r = 0; r < reps; ++r) {
    const double t0 = vrx::wallClock();
    if (vrx::VRXbarFactorize(m->env, A, bar.D, 0.0, &bar.factor)) return 1;
    const double t = vrx::wallClock() - t0;
    if (t < best) best = t;
  }
  double rate = 0, bw = 0;
  vrx::VRXbarCalibrate(m->env, &rate, &bw);
  const double dgemm = rate / 0.8;
  std::printf("rows %d  factor nz %.3e  ops %.3e  supernodes %d  dense cols %d  tasks %d  workers %d\n", bar.rows,
              bar.factor.factorNz, bar.factor.factorOps, bar.factor.superCount, bar.factor.denseCols,
              bar.factor.taskCount, bar.factor.workers);
  // Share of the flops in the subtree tasks, the part the threads split now, and
  // the longest chain of the supernode tree, the bound on any tree-parallel factor.
  const VRXbarfactor& F = bar.factor;
  std::vector<double> snOps(F.superCount), chain(F.superCount, 0.0);
  for (int sn = 0; sn < F.superCount; ++sn) {
    const double k = F.superBeg[sn + 1] - F.superBeg[sn];
    const double r = static_cast<double>(F.superRows[sn + 1] - F.superRows[sn]);
    auto sq = [](double v) { return v * (v + 1) * (2 * v + 1) / 6; };
    snOps[sn] = sq(r) - sq(r - k);
  }
  double taskOps = 0, longest = 0;
  for (int t = 0; t < F.taskCount; ++t)
    for (int sn = F.taskBeg[t]; sn < F.taskBeg[t] + F.taskLen[t]; ++sn) taskOps += snOps[sn];
  for (int sn = 0; sn < F.superCount; ++sn) {
    chain[sn] += snOps[sn];
    longest = std::max(longest, chain[sn]);
    const int nc = F.superBeg[sn + 1] - F.superBeg[sn];
    if (F.superRows[sn + 1] - F.superRows[sn] > nc) {
      const int parent = F.colSuper[F.superRowInd[F.superRows[sn] + nc]];
      chain[parent] = std::max(chain[parent], chain[sn]);
    }
  }
  const double total = std::max(F.factorOps, 1.0);
  std::printf("flops in subtree tasks: %.1f%%  longest chain of the tree: %.1f%%\n", 100 * taskOps / total,
              100 * longest / total);
  std::printf("factor %.4fs  %.2f GFLOP/s  (dgemm 192: %.2f GFLOP/s, %.0f%%)\n", best,
              bar.factor.factorOps / best * 1e-9, dgemm * 1e-9, 100 * bar.factor.factorOps / best / dgemm);
  vrx::VRXbarFree(&bar);
  VRXfreemodel(m);
  VRXfreeenv(env);
  return 0;
}
