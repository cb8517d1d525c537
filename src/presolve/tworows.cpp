// The re-basing of implied-free columns and the two-row pass.
#include <algorithm>
#include <cmath>

#include "presolve/presolve.h"

namespace vrx {

int impliedFreeRebase(VRXpresolve* p) {
  const int cnt = trackColCount(p);
  for (int t = 0; t < cnt; ++t) {
    const int j = trackCol(p, t);
    if (!colLive(p, j) || p->colCount[j] < 1 || p->colType[j] == 'B') continue;
    const double lo = p->lb[j], up = p->ub[j];
    if (!(lo >= -1e6 && up <= 1e6 && up - lo > 1e-6)) continue;
    bool lowImplied = false, upImplied = false;
    double units = 2;
    for (int64_t k = p->colHead[j]; k >= 0 && !(lowImplied && upImplied); k = p->slotNext[k]) {
      double ilo, ihi;
      impliedFromRow(p, p->slotRow[k], j, p->rowVal[k], &ilo, &ihi);
      if (ilo >= lo - 1e-10) lowImplied = true;
      if (ihi <= up + 1e-10) upImplied = true;
      units += 4;
    }
    charge(p, pwImplFree, units);
    if (!lowImplied || !upImplied) continue;
    // The rows hold x_j inside its bounds: it becomes free, measured from its
    // lower bound, so the free column's resting value 0 is a point the rows allow.
    VRXundo* u = undoPush(p->env, p->undo, UNDO_SCALECOL, 1, 2);
    undoInts(u)[0] = j;
    undoDbls(u)[0] = lo;
    undoDbls(u)[1] = 1.0;
    p->objConst += p->obj[j] * lo;
    p->lb[j] = -kInf;
    p->ub[j] = kInf;
    for (int64_t k = p->colHead[j]; k >= 0; k = p->slotNext[k]) {
      const int r = p->slotRow[k];
      p->rhs[r] -= p->rowVal[k] * lo;
      rowActivity(p, r);
      markRow(p, r);
    }
    markCol(p, j);
    p->counters.boundsChanged += 2;
    charge(p, pwImplFree, 6.0 * p->colCount[j]);
  }
  return kPreOk;
}

namespace {

struct PairKey {
  int r1, r2, col;
};

// The two entries of a column that lies in exactly two rows, in row order.
void twoEntries(const VRXpresolve* p, int j, int64_t* k1, int64_t* k2) {
  int64_t a = p->colHead[j], b = p->slotNext[a];
  if (p->slotRow[a] > p->slotRow[b]) std::swap(a, b);
  *k1 = a;
  *k2 = b;
}

// Tries to take columns j and k out through the equations r1 and r2 that are
// their only rows. Returns true when done.
bool tryPair(VRXpresolve* p, int r1, int r2, int j, int k, double multLimit, int* scatter, int* rest,
             double* g1, double* g2) {
  int64_t j1, j2, k1, k2;
  twoEntries(p, j, &j1, &j2);
  twoEntries(p, k, &k1, &k2);
  const double a1j = p->rowVal[j1], a2j = p->rowVal[j2], a1k = p->rowVal[k1], a2k = p->rowVal[k2];
  const double det = a1j * a2k - a1k * a2j;
  if (std::fabs(det) < 0.01 * (std::fabs(a1j * a2k) + std::fabs(a1k * a2j))) return false;
  // M = [a1j a1k; a2j a2k]; x_J = M^-1 (b - R x_rest).
  const double i00 = a2k / det, i01 = -a1k / det, i10 = -a2j / det, i11 = a1j / det;
  const double b1 = p->rhs[r1], b2 = p->rhs[r2];
  int nRest = 0;
  auto collect = [&](int r, bool first) {
    const int64_t e = p->rowBeg[r] + p->rowLen[r];
    for (int64_t s = p->rowBeg[r]; s < e; ++s) {
      const int q = p->rowInd[s];
      if (q < 0 || q == j || q == k) continue;
      if (scatter[q] < 0) {
        scatter[q] = nRest;
        rest[nRest] = q;
        g1[nRest] = 0;
        g2[nRest] = 0;
        nRest++;
      }
      (first ? g1 : g2)[scatter[q]] = p->rowVal[s];
    }
  };
  collect(r1, true);
  collect(r2, false);
  for (int t = 0; t < nRest; ++t) scatter[rest[t]] = -1;
  charge(p, pwAggregate, 6.0 * nRest + 10);
  // x_j = hj + sum gj_q x_q, x_k likewise; both must stay inside their bounds
  // over the box of the other columns.
  const double hj = i00 * b1 + i01 * b2, hk = i10 * b1 + i11 * b2;
  double jMin = hj, jMax = hj, kMin = hk, kMax = hk;
  bool jMinInf = false, jMaxInf = false, kMinInf = false, kMaxInf = false;
  for (int t = 0; t < nRest; ++t) {
    const int q = rest[t];
    const double gj = -(i00 * g1[t] + i01 * g2[t]);
    const double gk = -(i10 * g1[t] + i11 * g2[t]);
    if (std::fabs(gj) > multLimit || std::fabs(gk) > multLimit) return false;
    auto range = [&](double g, double& mn, double& mx, bool& mnInf, bool& mxInf) {
      if (g == 0.0) return;
      const double atMin = g > 0 ? p->lb[q] : p->ub[q];
      const double atMax = g > 0 ? p->ub[q] : p->lb[q];
      if (isInf(p, atMin))
        mnInf = true;
      else
        mn = addDown(mn, g * atMin);
      if (isInf(p, atMax))
        mxInf = true;
      else
        mx = addUp(mx, g * atMax);
    };
    range(gj, jMin, jMax, jMinInf, jMaxInf);
    range(gk, kMin, kMax, kMinInf, kMaxInf);
  }
  auto inside = [&](int c, double mn, double mx, bool mnInf, bool mxInf) {
    const double lo = p->lb[c], up = p->ub[c];
    const bool loOk = isInf(p, lo) || (!mnInf && mn >= lo - 1e-9 * (1 + std::fabs(lo)));
    const bool upOk = isInf(p, up) || (!mxInf && mx <= up + 1e-9 * (1 + std::fabs(up)));
    return loOk && upOk;
  };
  if (!inside(j, jMin, jMax, jMinInf, jMaxInf) || !inside(k, kMin, kMax, kMinInf, kMaxInf)) return false;

  // Record: r1, r2, j, k, nRest, rest | a1j a1k a2j a2k b1 b2 cj ck, a1[nRest], a2[nRest].
  VRXundo* u = undoPush(p->env, p->undo, UNDO_TWOROWS, 5 + nRest, 8 + 2 * nRest);
  int* I = undoInts(u);
  double* D = undoDbls(u);
  const double cj = p->obj[j], ck = p->obj[k];
  I[0] = r1;
  I[1] = r2;
  I[2] = j;
  I[3] = k;
  I[4] = nRest;
  D[0] = a1j;
  D[1] = a1k;
  D[2] = a2j;
  D[3] = a2k;
  D[4] = b1;
  D[5] = b2;
  D[6] = cj;
  D[7] = ck;
  for (int t = 0; t < nRest; ++t) {
    const int q = rest[t];
    I[5 + t] = q;
    D[8 + t] = g1[t];
    D[8 + nRest + t] = g2[t];
    const double gj = -(i00 * g1[t] + i01 * g2[t]);
    const double gk = -(i10 * g1[t] + i11 * g2[t]);
    const double dc = cj * gj + ck * gk;
    if (dc != 0.0) {
      p->obj[q] += dc;
      markCol(p, q);
    }
  }
  p->objConst += cj * hj + ck * hk;
  removeRow(p, r1, -2);
  removeRow(p, r2, -2);
  for (int c : {j, k}) {
    p->colCount[c] = -2;
    p->lb[c] = -kInf;
    p->ub[c] = kInf;
    p->liveCols--;
    p->counters.colsRemoved++;
  }
  return true;
}

}  // namespace

int twoRowPass(VRXpresolve* p, int level) {
  if (level <= 0) return kPreOk;
  VRXenv* env = p->env;
  const double multLimit = p->par->VORN_PAR_AGGMULTLIMIT;
  int nKeys = 0;
  for (int j = 0; j < p->numCols; ++j)
    if (colLive(p, j) && p->colCount[j] == 2 && p->colType[j] == 'C') nKeys++;
  charge(p, pwAggregate, p->numCols);
  if (nKeys < 2) return kPreOk;
  struct Scratch {
    VRXenv* env;
    PairKey* keys = nullptr;
    int* scatter = nullptr;
    int* rest = nullptr;
    double* g1 = nullptr;
    double* g2 = nullptr;
    ~Scratch() {
      envFree(env, keys);
      envFree(env, scatter);
      envFree(env, rest);
      envFree(env, g1);
      envFree(env, g2);
    }
  } s{env};
  s.keys = preArray<PairKey>(env, static_cast<size_t>(nKeys));
  int nk = 0;
  for (int j = 0; j < p->numCols; ++j) {
    if (!colLive(p, j) || p->colCount[j] != 2 || p->colType[j] != 'C') continue;
    int64_t k1, k2;
    twoEntries(p, j, &k1, &k2);
    const int r1 = p->slotRow[k1], r2 = p->slotRow[k2];
    if (p->sense[r1] != '=' || p->sense[r2] != '=') continue;
    s.keys[nk++] = PairKey{r1, r2, j};
  }
  std::sort(s.keys, s.keys + nk, [](const PairKey& a, const PairKey& b) {
    return a.r1 != b.r1 ? a.r1 < b.r1 : (a.r2 != b.r2 ? a.r2 < b.r2 : a.col < b.col);
  });
  charge(p, pwAggregate, 3.0 * nk * std::log2(nk + 2.0));
  s.scatter = preArray<int>(env, static_cast<size_t>(p->numCols));
  s.rest = preArray<int>(env, static_cast<size_t>(p->numCols));
  s.g1 = preArray<double>(env, static_cast<size_t>(p->numCols));
  s.g2 = preArray<double>(env, static_cast<size_t>(p->numCols));
  for (int j = 0; j < p->numCols; ++j) s.scatter[j] = -1;
  // Level 1 tries the first few pairs of a group, higher levels more of them.
  const int tries = level >= 2 ? 64 : 8;
  for (int a = 0; a < nk;) {
    int b = a + 1;
    while (b < nk && s.keys[b].r1 == s.keys[a].r1 && s.keys[b].r2 == s.keys[a].r2) ++b;
    const int r1 = s.keys[a].r1, r2 = s.keys[a].r2;
    int tried = 0;
    for (int x = a; x < b && tried < tries && rowLive(p, r1); ++x)
      for (int y = x + 1; y < b && tried < tries && rowLive(p, r1); ++y, ++tried) {
        const int j = s.keys[x].col, k = s.keys[y].col;
        if (!colLive(p, j) || !colLive(p, k) || p->colCount[j] != 2 || p->colCount[k] != 2) continue;
        tryPair(p, r1, r2, j, k, multLimit, s.scatter, s.rest, s.g1, s.g2);
      }
    a = b;
  }
  return kPreOk;
}

}  // namespace vrx
