// Parallel rows and parallel columns, found by hashing the normalised patterns.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "presolve/presolve.h"

namespace vrx {

namespace {

// A normalised vector: entries sorted by index, scaled so the first is 1.
struct Vec {
  int len;
  int* ind;
  double* val;
  double scale;  // the original first value
};

uint64_t mix(uint64_t h, uint64_t v) {
  h ^= v + 0x9E3779B97F4A7C15ULL + (h << 6) + (h >> 2);
  return h;
}

// Quantised value for hashing: equal within 1e-10 relative lands in the same
// bucket unless it straddles a boundary, which only costs a missed pair.
uint64_t quant(double v) {
  const double q = v * 1e8;
  return static_cast<uint64_t>(static_cast<int64_t>(q + (q >= 0 ? 0.5 : -0.5)));
}

struct Pool {
  VRXenv* env;
  int* ind;
  double* val;
  int64_t* beg;
  int* len;
  double* scale;
  uint64_t* hash;
  int* order;
  ~Pool() {
    envFree(env, ind);
    envFree(env, val);
    envFree(env, beg);
    envFree(env, len);
    envFree(env, scale);
    envFree(env, hash);
    envFree(env, order);
  }
};

// Fills the pool with the normalised rows (byRow) or columns of the record.
void buildPool(VRXpresolve* p, bool byRow, Pool& pool, int count) {
  VRXenv* env = p->env;
  int64_t total = 0;
  for (int x = 0; x < count; ++x) {
    if (byRow ? !rowLive(p, x) : !colLive(p, x)) continue;
    total += byRow ? p->rowCount[x] : p->colCount[x];
  }
  pool.ind = preArray<int>(env, static_cast<size_t>(total));
  pool.val = preArray<double>(env, static_cast<size_t>(total));
  pool.beg = preArray<int64_t>(env, static_cast<size_t>(count));
  pool.len = preArray<int>(env, static_cast<size_t>(count));
  pool.scale = preArray<double>(env, static_cast<size_t>(count));
  pool.hash = preArray<uint64_t>(env, static_cast<size_t>(count));
  pool.order = preArray<int>(env, static_cast<size_t>(count));
  // Offsets, then a fill from the other side: walking columns in order gives
  // rows sorted by column index, and the other way round, with no sort.
  int64_t pos = 0;
  for (int x = 0; x < count; ++x) {
    pool.beg[x] = pos;
    pool.len[x] = 0;
    pool.hash[x] = 0;
    if (byRow ? rowLive(p, x) : colLive(p, x)) pos += byRow ? p->rowCount[x] : p->colCount[x];
  }
  if (byRow) {
    for (int j = 0; j < p->numCols; ++j) {
      if (!colLive(p, j)) continue;
      for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) {
        const int r = p->slotRow[k];
        const int64_t at = pool.beg[r] + pool.len[r]++;
        pool.ind[at] = j;
        pool.val[at] = p->rowVal[k];
      }
    }
  } else {
    for (int r = 0; r < p->numRows; ++r) {
      if (!rowLive(p, r)) continue;
      const int64_t e = p->rowBeg[r] + p->rowLen[r];
      for (int64_t k = p->rowBeg[r]; k < e; ++k) {
        const int j = p->rowInd[k];
        if (j < 0) continue;
        const int64_t at = pool.beg[j] + pool.len[j]++;
        pool.ind[at] = r;
        pool.val[at] = p->rowVal[k];
      }
    }
  }
  for (int x = 0; x < count; ++x) {
    const int len = pool.len[x];
    if (!len) continue;
    const int64_t at = pool.beg[x];
    const double s = pool.val[at];
    uint64_t h = static_cast<uint64_t>(len);
    for (int t = 0; t < len; ++t) {
      pool.val[at + t] /= s;
      h = mix(h, static_cast<uint64_t>(pool.ind[at + t]));
      h = mix(h, quant(pool.val[at + t]));
    }
    pool.scale[x] = s;
    pool.hash[x] = h;
  }
  charge(p, byRow ? pwParRows : pwParCols, 4.0 * static_cast<double>(total) + count);
}

bool sameVec(const Pool& pool, int a, int b) {
  if (pool.len[a] != pool.len[b]) return false;
  const int64_t pa = pool.beg[a], pb = pool.beg[b];
  for (int t = 0; t < pool.len[a]; ++t) {
    if (pool.ind[pa + t] != pool.ind[pb + t]) return false;
    if (std::fabs(pool.val[pa + t] - pool.val[pb + t]) > 1e-10 * std::max(1.0, std::fabs(pool.val[pa + t])))
      return false;
  }
  return true;
}

// Sorts the live items by hash so equal patterns sit next to each other.
int sortByHash(Pool& pool, int count) {
  int live = 0;
  for (int x = 0; x < count; ++x)
    if (pool.len[x] > 0) pool.order[live++] = x;
  std::sort(pool.order, pool.order + live, [&](int a, int b) {
    return pool.hash[a] != pool.hash[b] ? pool.hash[a] < pool.hash[b] : a < b;
  });
  return live;
}

// Row b = t * row a: one goes, or both become an equation, or infeasible.
int rowPair(VRXpresolve* p, int a, int b, double t) {
  const double tol = std::min(1e-6, p->feasTol);
  const bool eqA = p->sense[a] == '=', eqB = p->sense[b] == '=';
  if (!eqA && eqB) {
    std::swap(a, b);
    t = 1.0 / t;
    return rowPair(p, a, b, t);
  }
  const double ba = p->rhs[a], bb = p->rhs[b] / t;  // row a's scale: row_a . x (sense) bb
  const double slack = tol / std::max({1.0, std::fabs(ba), std::fabs(bb)}) * std::max(1.0, std::fabs(ba));
  if (eqA && eqB) {
    if (std::fabs(ba - bb) > slack) {
      p->infeasRow = b;
      return kPreInfeasible;
    }
    removeRow(p, b, -1);
    return kPreOk;
  }
  if (eqA) {
    // row_a x = ba with t*row_a x <= b_b: for t > 0 row_a x <= bb, else >= bb.
    if ((t > 0 && ba > bb + slack) || (t < 0 && ba < bb - slack)) {
      p->infeasRow = b;
      return kPreInfeasible;
    }
    removeRow(p, b, -1);
    return kPreOk;
  }
  if (t > 0) {
    // Both upper limits on row_a x: the looser row goes, with no record.
    removeRow(p, bb < ba ? a : b, -1);
    return kPreOk;
  }
  // t < 0: a range bb <= row_a x <= ba.
  if (bb > ba + slack) {
    p->infeasRow = b;
    return kPreInfeasible;
  }
  if (bb >= ba - slack) {
    VRXundo* u = undoPush(p->env, p->undo, UNDO_PARROW, 2, 1);
    undoInts(u)[0] = a;
    undoInts(u)[1] = b;
    undoDbls(u)[0] = t;
    p->sense[a] = '=';
    p->counters.ineqToEq++;
    removeRow(p, b, -1);
    markRow(p, a);
  }
  return kPreOk;
}

}  // namespace

int parallelRows(VRXpresolve* p) {
  const int m = p->numRows;
  Pool pool{p->env, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  buildPool(p, true, pool, m);
  const int live = sortByHash(pool, m);
  for (int s = 0; s < live;) {
    int e = s + 1;
    while (e < live && pool.hash[pool.order[e]] == pool.hash[pool.order[s]]) ++e;
    for (int x = s; x < e; ++x) {
      const int a = pool.order[x];
      if (!rowLive(p, a)) continue;
      for (int y = x + 1; y < e; ++y) {
        const int b = pool.order[y];
        if (!rowLive(p, b) || !rowLive(p, a)) continue;
        if (!sameVec(pool, a, b)) continue;
        const double t = pool.scale[b] / pool.scale[a];
        if (std::fabs(pool.scale[a]) > 1e13 || std::fabs(pool.scale[b]) > 1e13) continue;
        int rc = rowPair(p, a, b, t);
        if (rc) return rc;
        charge(p, pwParRows, 3.0 * pool.len[a]);
      }
    }
    s = e;
  }
  return kPreOk;
}

int parallelColumns(VRXpresolve* p) {
  const int n = p->numCols;
  Pool pool{p->env, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
  buildPool(p, false, pool, n);
  const int live = sortByHash(pool, n);
  for (int s = 0; s < live;) {
    int e = s + 1;
    while (e < live && pool.hash[pool.order[e]] == pool.hash[pool.order[s]]) ++e;
    for (int x = s; x < e; ++x) {
      const int j = pool.order[x];
      if (!colLive(p, j) || p->colType[j] != 'C') continue;
      for (int y = x + 1; y < e; ++y) {
        const int k = pool.order[y];
        if (!colLive(p, k) || !colLive(p, j) || p->colType[k] != 'C') continue;
        if (!sameVec(pool, j, k)) continue;
        // Column k = t * column j, with the objective in the same ratio.
        const double t = pool.scale[k] / pool.scale[j];
        if (std::fabs(p->obj[k] - t * p->obj[j]) > 1e-10 * std::max(1.0, std::fabs(p->obj[k]))) continue;
        if (std::fabs(t) > 1e6 || std::fabs(t) < 1e-6) continue;
        const double lj = p->lb[j], uj = p->ub[j], lk = p->lb[k], uk = p->ub[k];
        auto prod = [&](double b) { return isInf(p, b) ? (b > 0 ? kInf : -kInf) * (t > 0 ? 1 : -1) : t * b; };
        const double addLo = t > 0 ? prod(lk) : prod(uk);
        const double addHi = t > 0 ? prod(uk) : prod(lk);
        const double nl = (isInf(p, lj) || addLo <= -kInf) ? -kInf : lj + addLo;
        const double nu = (isInf(p, uj) || addHi >= kInf) ? kInf : uj + addHi;
        VRXundo* u = undoPush(p->env, p->undo, UNDO_DUPCOL, 3, 5);
        int* I = undoInts(u);
        double* D = undoDbls(u);
        I[0] = j;
        I[1] = k;
        I[2] = 0;
        D[0] = t;
        D[1] = lj;
        D[2] = uj;
        D[3] = lk;
        D[4] = uk;
        while (p->colHead[k] >= 0) deleteEntry(p, p->colHead[k]);
        p->colCount[k] = -3;
        p->lb[k] = p->ub[k] = 0;
        p->liveCols--;
        p->counters.colsRemoved++;
        setLower(p, j, nl);
        setUpper(p, j, nu);
        charge(p, pwParCols, 6.0 * pool.len[j]);
      }
    }
    s = e;
  }
  return kPreOk;
}

}  // namespace vrx
