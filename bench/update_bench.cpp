// Modelling calls one at a time: a million variables and a million one-entry
// constraints, one update; then deleting half the rows of a 100k-row model.
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <vector>

#include "vornix_c.h"

static double seconds(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

static long peakRssMb() {
  struct rusage u;
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss / 1024;
}

int main() {
  VRXenv* env = nullptr;
  if (VRXloadenv(&env, nullptr)) return 1;
  VRXsetintparam(env, "OutputFlag", 0);
  VRXmodel* m = nullptr;
  if (VRXnewmodel(env, &m, "adds", 0, nullptr, nullptr, nullptr, nullptr, nullptr)) return 1;
  const int n = 1000000;
  auto t0 = std::chrono::steady_clock::now();
  for (int j = 0; j < n; ++j) VRXaddvar(m, 0, nullptr, nullptr, 1.0, 0.0, 10.0, 'C', nullptr);
  double tVars = seconds(t0);
  t0 = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    int ind = i;
    double val = 1.0;
    VRXaddconstr(m, 1, &ind, &val, '<', 5.0, nullptr);
  }
  double tCons = seconds(t0);
  t0 = std::chrono::steady_clock::now();
  if (VRXupdatemodel(m)) return 1;
  double tUpd = seconds(t0);
  int nv = 0, nc = 0;
  VRXgetintattr(m, "NumVars", &nv);
  VRXgetintattr(m, "NumConstrs", &nc);
  std::printf("1M VRXaddvar: %.3fs, 1M VRXaddconstr: %.3fs, update: %.3fs (%d vars, %d rows), peak RSS %ld MB\n",
              tVars, tCons, tUpd, nv, nc, peakRssMb());
  VRXfreemodel(m);

  // Deleting half the rows of a 100k-row model.
  const int rows = 100000;
  std::vector<int> beg(rows), len(rows, 1), ind(rows);
  std::vector<double> val(rows, 1.0), rhs(rows, 1.0);
  std::vector<char> sense(rows, '<');
  for (int j = 0; j < rows; ++j) {
    beg[j] = j;
    ind[j] = j;
  }
  if (VRXloadmodel(env, &m, "del", rows, rows, 1, 0, nullptr, sense.data(), rhs.data(), beg.data(),
                   len.data(), ind.data(), val.data(), nullptr, nullptr, nullptr, nullptr, nullptr))
    return 1;
  std::vector<int> del;
  for (int i = 0; i < rows; i += 2) del.push_back(i);
  t0 = std::chrono::steady_clock::now();
  VRXdelconstrs(m, static_cast<int>(del.size()), del.data());
  VRXupdatemodel(m);
  double tDel = seconds(t0);
  VRXgetintattr(m, "NumConstrs", &nc);
  std::printf("deleting 50k of 100k rows and updating: %.3fs (%d rows left)\n", tDel, nc);
  VRXfreemodel(m);
  VRXfreeenv(env);
  return 0;
}
