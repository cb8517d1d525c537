// Attribute reads on a model with a million variables: element reads per second,
// and block copies of a whole array.
#include <chrono>
#include <cstdio>
#include <vector>

#include "vornix_c.h"

int main() {
  VRXenv* env = nullptr;
  if (VRXloadenv(&env, nullptr)) return 1;
  VRXsetintparam(env, "OutputFlag", 0);
  const int n = 1000000;
  std::vector<double> ub(n);
  for (int j = 0; j < n; ++j) ub[j] = j;
  VRXmodel* m = nullptr;
  if (VRXnewmodel(env, &m, "bench", n, nullptr, nullptr, ub.data(), nullptr, nullptr)) return 1;
  using clk = std::chrono::steady_clock;
  double sum = 0, v = 0;
  auto t0 = clk::now();
  const int rounds = 5;
  for (int r = 0; r < rounds; ++r)
    for (int j = 0; j < n; ++j) {
      VRXgetdblattrelement(m, "UB", j, &v);
      sum += v;
    }
  double el = std::chrono::duration<double>(clk::now() - t0).count();
  std::printf("element reads: %.1f million/s\n", rounds * n / el / 1e6);
  std::vector<double> all(n);
  t0 = clk::now();
  for (int r = 0; r < 50; ++r) VRXgetdblattrarray(m, "UB", 0, n, all.data());
  el = std::chrono::duration<double>(clk::now() - t0).count();
  std::printf("array reads: %.0f per second (%.2f GB/s)\n", 50 / el, 50.0 * n * 8 / el / 1e9);
  std::printf("checksum %.0f\n", sum + all[n - 1]);
  VRXfreemodel(m);
  VRXfreeenv(env);
  return 0;
}
