// Numeric factor speed of the barrier: GFLOP/s of the supernodal Cholesky on
// the normal matrix of a model, against the machine's dgemm rate.
//   bar_factor_bench MODEL [repeats] [threads]
#include <cstdio>
#include <cstdlib>

#include "barrier/bar.h"
#include "barrier/barfactor.h"
#include "env/env.h"
#include "model/model.h"
#include "vornix_c.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s model [repeats]\n", argv[0]);
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
  double nz = 0, ops = 0;
  if (vrx::VRXbarOrder(m->env, A, opts, &bar.factor, &nz, &ops) || vrx::VRXbarSymbolic(m->env, A, &bar.factor))
    return 1;
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
  std::printf("factor %.4fs  %.2f GFLOP/s  (dgemm 192: %.2f GFLOP/s, %.0f%%)\n", best,
              bar.factor.factorOps / best * 1e-9, dgemm * 1e-9, 100 * bar.factor.factorOps / best / dgemm);
  vrx::VRXbarFree(&bar);
  VRXfreemodel(m);
  VRXfreeenv(env);
  return 0;
}
