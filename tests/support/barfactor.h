// Helpers of the barrier factor tests: a matrix given by its columns, a factor
// freed on scope exit, and the largest difference of two vectors relative to
// the second.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include "barrier/barfactor.h"

namespace vrxtest {

// A constraint matrix from its columns (row, value pairs), kept in both orientations.
struct ColumnMatrix {
  int m = 0, n = 0;
  std::vector<std::vector<std::pair<int, double>>> cols;
  std::vector<int64_t> colBeg, rowBeg;
  std::vector<int> rowInd, rowCol;
  std::vector<double> val, rowVal;

  void finish() {
    n = static_cast<int>(cols.size());
    colBeg.assign(1, 0);
    rowInd.clear();
    val.clear();
    for (auto& c : cols) {
      std::sort(c.begin(), c.end());
      for (auto& e : c) {
        rowInd.push_back(e.first);
        val.push_back(e.second);
      }
      colBeg.push_back(static_cast<int64_t>(rowInd.size()));
    }
    rowBeg.assign(m + 1, 0);
    for (int i : rowInd) rowBeg[i + 1]++;
    for (int i = 0; i < m; ++i) rowBeg[i + 1] += rowBeg[i];
    rowCol.assign(rowInd.size(), 0);
    rowVal.assign(rowInd.size(), 0);
    std::vector<int64_t> fill(rowBeg.begin(), rowBeg.end() - 1);
    for (int j = 0; j < n; ++j)
      for (int64_t p = colBeg[j]; p < colBeg[j + 1]; ++p) {
        const int64_t q = fill[rowInd[p]]++;
        rowCol[q] = j;
        rowVal[q] = val[p];
      }
  }
  vrx::BarMatrix view() const {
    return vrx::BarMatrix{m, n, colBeg.data(), rowInd.data(), val.data(), rowBeg.data(), rowCol.data(), rowVal.data()};
  }
  vrx::BarMatrix build() {
    finish();
    return view();
  }
};

struct BarFactorHolder {
  VRXenv* env;
  VRXbarfactor f{};
  explicit BarFactorHolder(VRXenv* e) : env(e) {}
  ~BarFactorHolder() { vrx::barFactorFree(env, &f); }
  BarFactorHolder(const BarFactorHolder&) = delete;
  BarFactorHolder& operator=(const BarFactorHolder&) = delete;
};

inline double maxRelDiff(const std::vector<double>& a, const std::vector<double>& b) {
  double d = 0, s = 1e-300;
  for (size_t i = 0; i < a.size(); ++i) {
    d = std::max(d, std::fabs(a[i] - b[i]));
    s = std::max(s, std::fabs(b[i]));
  }
  return d / s;
}

}  // namespace vrxtest
