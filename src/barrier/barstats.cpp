// Machine speed and the statistics block of the barrier log.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"

namespace vrx {

namespace {

// Three significant digits for display.
double round3(double x) {
  if (!(x > 0)) return x;
  const double k = std::floor(std::log10(x)) - 2;
  const double s = std::pow(10.0, k);
  return std::floor(x / s + 0.5) * s;
}

}  // namespace

void VRXbarCalibrate(VRXenv* env, double* flopRate, double* bandwidth) {
  const int nb = 192;
  const size_t blk = static_cast<size_t>(nb) * nb;
  Scratch<double> a(env, 3 * blk);
  *flopRate = 1e9;
  *bandwidth = 1e9;
  if (!a.a) return;
  for (size_t i = 0; i < 3 * blk; ++i) a.a[i] = 1.0 / static_cast<double>(1 + (i % 97));
  const double one = 1.0, zero = 0.0;
  double t = 0;
  int reps = 0;
  const double t0 = wallClock();
  do {
    dgemm_("N", "T", &nb, &nb, &nb, &one, a.a, &nb, a.a + blk, &nb, &zero, a.a + 2 * blk, &nb);
    ++reps;
    t = wallClock() - t0;
  } while (t < 1e-3 && reps < 1000);
  t = std::max(t, 1e-4);
  *flopRate = (reps * 14155776.0 / t) * 0.8;
  // The memory pass: 14155776 bytes read and written in blocks.
  const size_t words = blk;
  const int passes = static_cast<int>(14155776 / (words * sizeof(double) * 2)) + 1;
  const double t1 = wallClock();
  for (int p = 0; p < passes; ++p) std::memcpy(a.a + (p & 1 ? 0 : blk), a.a + (p & 1 ? blk : 0), words * sizeof(double));
  const double tm = std::max(wallClock() - t1, 1e-6);
  *bandwidth = 14155776.0 / tm;
}

void VRXbarLogStats(VRXenv* env, const VRXbarstats& st, int threads, bool quadratic) {
  log(env, "\n");
  log(env, quadratic ? "Q statistics:\n" : "Barrier statistics:\n");
  if (st.denseCols > 0) log(env, " Dense cols : %d\n", st.denseCols);
  if (st.freeVars > 0) log(env, " Free vars  : %d\n", st.freeVars);
  if (quadratic)
    log(env, " Q NZ       : %.3e\n", round3(st.qNz));
  else
    log(env, " AA' NZ     : %.3e\n", round3(st.aatNz / 2));
  const double nz = round3(st.factorNz);
  const double mb = st.factorNz * 8 * 2 / 1e6;
  if (mb > 1000)
    log(env, " Factor NZ  : %.3e (roughly %.1f GBytes of memory)\n", nz, mb / 1000);
  else if (mb >= 2)
    log(env, " Factor NZ  : %.3e (roughly %.0f MBytes of memory)\n", nz, mb);
  else if (mb >= 1)
    log(env, " Factor NZ  : %.3e (roughly %.0f MByte of memory)\n", nz, mb);
  else
    log(env, " Factor NZ  : %.3e\n", nz);
  const double ops = round3(st.factorOps);
  const double v = st.secondsPerIter;
  if (v < 0)
    log(env, " Factor Ops : %.3e\n", ops);
  else if (v > 1)
    log(env, " Factor Ops : %.3e (roughly %.0f seconds per iteration)\n", ops, v);
  else if (v == 1)
    log(env, " Factor Ops : %.3e (roughly %.0f second per iteration)\n", ops, v);
  else
    log(env, " Factor Ops : %.3e (less than 1 second per iteration)\n", ops);
  log(env, " Threads    : %d\n", threads);
}

}  // namespace vrx
