// Dependent equations: a sparse elimination over the equality rows finds the
// rows that are combinations of others. A consistent one goes (its dual is 0,
// its slack basic); an inconsistent one proves the model infeasible.
#include <algorithm>
#include <cmath>
#include <functional>

#include "env/envvec.h"
#include "presolve/presolve.h"

namespace vrx {

int dependentRows(VRXpresolve* p) {
  VRXenv* env = p->env;
  const int n = p->numCols, m = p->numRows;
  EnvVec<int> rows(env);
  for (int r = 0; r < m; ++r)
    if (rowLive(p, r) && p->sense[r] == '=' && p->rowCount[r] > 0) rows.push_back(r);
  if (rows.size() < 2) return kPreOk;
  std::sort(rows.data(), rows.data() + rows.size(),
            [&](int a, int b) { return p->rowCount[a] != p->rowCount[b] ? p->rowCount[a] < p->rowCount[b] : a < b; });

  EnvVec<int> pivotOfCol(env);
  pivotOfCol.resize(static_cast<size_t>(n), -1);
  EnvVec<double> w(env);
  w.resize(static_cast<size_t>(n), 0.0);
  EnvVec<char> inList(env);
  inList.resize(static_cast<size_t>(n), 0);
  EnvVec<int> list(env);
  // Pivot rows, normalised so the pivot entry is 1 (it is not stored).
  EnvVec<int64_t> pvBeg(env);
  EnvVec<int> pvCol(env);
  EnvVec<double> pvRhs(env);
  EnvVec<int> pInd(env);
  EnvVec<double> pVal(env);
  EnvVec<char> queued(env);
  EnvVec<int> heap(env);  // min-heap of pivot indices present in w

  const double budget = 40.0 * static_cast<double>(p->nzCount) + 1e5;
  double spent = 0;
  auto heapPush = [&](int v) {
    heap.push_back(v);
    std::push_heap(heap.data(), heap.data() + heap.size(), std::greater<int>());
  };
  auto heapPop = [&]() {
    std::pop_heap(heap.data(), heap.data() + heap.size(), std::greater<int>());
    const int v = heap.back();
    heap.resize(heap.size() - 1);
    return v;
  };
  auto touch = [&](int q) {
    if (!inList[q]) {
      inList[q] = 1;
      list.push_back(q);
      const int pk = pivotOfCol[q];
      if (pk >= 0 && !queued[pk]) {
        queued[pk] = 1;
        heapPush(pk);
      }
    }
  };

  int rc = kPreOk;
  for (size_t t = 0; t < rows.size() && spent < budget; ++t) {
    const int r = rows[t];
    list.clear();
    heap.clear();
    double scale = 0;
    const int64_t e = p->rowBeg[r] + p->rowLen[r];
    for (int64_t k = p->rowBeg[r]; k < e; ++k) {
      const int q = p->rowInd[k];
      if (q < 0) continue;
      touch(q);
      w[q] = p->rowVal[k];
      scale = std::max(scale, std::fabs(p->rowVal[k]));
    }
    double rhsW = p->rhs[r];
    while (!heap.empty()) {
      const int pk = heapPop();
      queued[pk] = 0;
      const int c = pvCol[pk];
      const double f = w[c];
      w[c] = 0;
      if (f == 0.0) continue;
      const int64_t b = pvBeg[pk], be = pvBeg[pk + 1];
      for (int64_t k = b; k < be; ++k) {
        const int q = pInd[k];
        touch(q);
        w[q] -= f * pVal[k];
      }
      rhsW -= f * pvRhs[pk];
      spent += static_cast<double>(be - b) + 1;
    }
    double big = 0;
    int pivot = -1;
    for (size_t s = 0; s < list.size(); ++s) {
      const int q = list[s];
      if (std::fabs(w[q]) <= 1e-11 * scale) w[q] = 0;
      if (pivotOfCol[q] < 0 && std::fabs(w[q]) > big) {
        big = std::fabs(w[q]);
        pivot = q;
      }
    }
    spent += static_cast<double>(list.size());
    if (big <= 1e-9 * scale) {
      const double tolR = p->feasTol * std::max(1.0, std::fabs(p->rhs[r]));
      if (std::fabs(rhsW) <= tolR) {
        removeRow(p, r, -1);
      } else if (std::fabs(rhsW) > 1e3 * tolR) {
        p->infeasRow = r;
        rc = kPreInfeasible;
      }
    } else {
      if (pvBeg.empty()) pvBeg.push_back(0);
      const int idx = static_cast<int>(pvCol.size());
      const double piv = w[pivot];
      for (size_t s = 0; s < list.size(); ++s) {
        const int q = list[s];
        if (q == pivot || w[q] == 0.0) continue;
        pInd.push_back(q);
        pVal.push_back(w[q] / piv);
      }
      pvBeg.push_back(static_cast<int64_t>(pInd.size()));
      pvCol.push_back(pivot);
      pvRhs.push_back(rhsW / piv);
      queued.push_back(0);
      pivotOfCol[pivot] = idx;
    }
    for (size_t s = 0; s < list.size(); ++s) {
      w[list[s]] = 0;
      inList[list[s]] = 0;
    }
    if (rc) break;
  }
  charge(p, pwDepRows, 5.0 * spent);
  return rc;
}

}  // namespace vrx
