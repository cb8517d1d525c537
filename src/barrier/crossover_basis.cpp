// The basis step of crossover: statuses from the interior point, the candidate list
// and its widening or shortening, and the two ways to a non-singular initial basis.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/crossover_impl.h"
#include "simplex/factor.h"

namespace vrx {
namespace cross {

namespace {

// Relative size below which a pivot of the candidates' LU counts as weak.
constexpr double kWeakPivot = 1e-3;
// Factorizations of the LU pass before it gives way to the triangular one.
constexpr int kLURounds = 10;
// Estimated |B^-1|_1 above which the start basis is repaired, and the number of columns
// the repair may replace: kRepairMin and one in kRepairShare rows, kRepairMax at most.
constexpr double kCondLimit = 1e5;
constexpr int kRepairMin = 10;
constexpr int kRepairShare = 50;
constexpr int kRepairMax = 100;

// Largest |entry| of variable j's column (1 for a slack).
double columnMax(const VRXlp* lp, int j) {
  if (j >= lp->n) return 1.0;
  double c = 0;
  for (int64_t q = lp->colBeg[j], e = q + lp->colLen[j]; q < e; q++) c = std::max(c, std::fabs(lp->val[q]));
  return c;
}

// Distance to the nearer bound; a side without a bound is far away.
double boundDistance(const VRXlp* lp, int j, double x) {
  const double lo = lp->lower[j], up = lp->upper[j];
  const double a = lo > -lp->infBound ? x - lo : kInf;
  const double b = up < lp->infBound ? up - x : kInf;
  return std::min(a, b);
}

// Hager's estimate of |B^-1|_1 from the factor f, in a few solves with B and B'. *worst
// is the basis position of the largest entry of the largest column of B^-1 found: the
// column caught deepest in the near dependency. x and z are zero on entry and on return.
// Returns the estimate, or -1 when a solve fails.
double inverseNormEstimate(VRXfactor* f, VRXsvec* x, VRXsvec* z, int* worst, double* work) {
  const int m = f->m;
  for (int i = 0; i < m; i++) x->value[i] = 1.0 / m;
  x->count = -1;
  double est = 0;
  int unit = -1;
  *worst = -1;
  for (int step = 0; step < 5; step++) {
    if (VRXftran<double>(f, x, x, 0, 0, work)) {
      est = -1;
      break;
    }
    double norm = 0, big = -1;
    int at = -1;
    for (int p = 0; p < m; p++) {
      const double a = std::fabs(x->value[p]);
      norm += a;
      if (a > big) {
        big = a;
        at = p;
      }
    }
    if (norm <= est) break;
    est = norm;
    *worst = at;
    for (int p = 0; p < m; p++) z->value[p] = x->value[p] >= 0 ? 1.0 : -1.0;
    z->count = -1;
    svecClear(x, m);
    if (VRXbtran<double>(f, z, z, 0, work)) {
      est = -1;
      break;
    }
    int j = 0;
    double zs = 0;
    for (int i = 0; i < m; i++) {
      zs += z->value[i];
      if (std::fabs(z->value[i]) > std::fabs(z->value[j])) j = i;
    }
    // No unit vector promises a larger column than the one just taken.
    const double ztb = unit < 0 ? zs / m : z->value[unit];
    const bool done = std::fabs(z->value[j]) <= ztb || j == unit;
    svecClear(z, m);
    if (done) break;
    unit = j;
    x->value[j] = 1.0;
    x->index[0] = j;
    x->count = 1;
  }
  svecClear(x, m);
  svecClear(z, m);
  return est;
}

// A double factor of the basis pass with its controls.
struct PassFactor {
  VRXfactor* f = nullptr;
  VRXfactorCtl ctl;
  VRXfactorMatrix A;
  ~PassFactor() { VRXfactorFree<double>(&f); }
  int open(VRXlp* lp, double pivotCheck) {
    VRXfactorCtlInit(&ctl, lp->env, lp->m, lp->n);
    ctl.markowitzTol = std::max(lp->markowitzTol, pivotCheck);
    ctl.workFactor = lp->workFactor;
    A = lpFactorMatrix(lp);
    return VRXfactorCreate<double>(lp->env, lp->m, 1, &f);
  }
};

// Factorizes head; columns without a pivot give way to the slacks of the rows without
// one, and the factor is tried again. inHead (n+m) follows head. 0, 10001, or 10025 when
// the factor does not settle.
int factorWithSlacks(VRXfactor* f, const VRXfactorMatrix* A, int* head, VRXfactorCtl* ctl, char* inHead,
                     double* work) {
  for (int round = 0; round < 3; round++) {
    int unpivoted = 0;
    const int frc = VRXfactorFactorize<double>(f, A, head, ctl, work, &unpivoted);
    if (frc) return frc == VRX_ERROR_OUT_OF_MEMORY ? frc : 10025;
    if (unpivoted == 0) return 0;
    for (int q = 0; q < unpivoted; q++) {
      const int p = f->unpivotedPos[q];
      inHead[head[p]] = 0;
      head[p] = A->n + f->pivotlessRow[q];
      inHead[head[p]] = 1;
    }
  }
  return 10025;
}

}  // namespace

void basisProgress(BasisProgress* bp) {
  if (!bp) return;
  const double now = clockElapsed(*bp->clock);
  if (now - bp->last < bp->interval) return;
  bp->last = now;
  log(bp->env, "  Building initial crossover basis %33.0fs\n", now);
}

void sortByKey(int* idx, int count, const double* key) {
  std::sort(idx, idx + count, [key](int a, int b) { return key[a] < key[b] || (key[a] == key[b] && a < b); });
}

int selectBasis(State& st) {
  VRXlp* lp = st.lp;
  const int n = st.n, m = st.m, nm = n + m;
  const double t = lp->feasTol, dt = lp->optTol, inf = lp->infBound;
  int* list = st.list.cands;
  int c = 0;

  for (int j = 0; j < nm; j++) {
    const double lo = lp->lower[j], up = lp->upper[j], x = st.x[j], dj = st.d[j];
    st.cand[j] = 0;
    int s;
    if (j >= n) {
      if (lp->senseChar[j - n] == '=') {
        s = VRX_VS_FIX_LOWER;
      } else {
        if (std::fabs(dj) < dt && x >= lo + t && x <= up - t) st.cand[j] = 1;
        s = x < lo + t ? VRX_VS_LOWER : VRX_VS_FREE;
      }
    } else if (up - lo <= 1e-10) {
      s = VRX_VS_FIX_LOWER;
    } else {
      const bool loFar = lo <= -inf || x - lo >= t;
      const bool upFar = up >= inf || up - x >= t;
      if (std::fabs(dj) < dt && loFar && upFar) st.cand[j] = 1;
      if (x >= lo + t && x <= up - t)
        s = VRX_VS_FREE;
      else if (x < lo + t)
        s = (x > up - t && dj <= 0) ? VRX_VS_UPPER : VRX_VS_LOWER;
      else
        s = VRX_VS_UPPER;
    }
    lp->varStat[j] = s;
    if (st.cand[j]) list[c++] = j;
  }

  // Originals rank by distance to the nearer bound, farthest first.
  for (int k = 0; k < c; k++) st.key[list[k]] = -boundDistance(lp, list[k], st.x[list[k]]);
  const double md = m;
  if (c < 0.95 * md) {
    // Too few: near-complementary columns join, the smallest reduced costs first.
    int added = 0;
    int* extra = st.order;
    for (int j = 0; j < n; j++) {
      if (st.cand[j] || lp->varStat[j] == VRX_VS_FIX_LOWER) continue;
      const double a = std::fabs(st.d[j]);
      if (a >= dt && a < 256.0 * dt) {
        extra[added++] = j;
        st.key[j] = a;
      }
    }
    sortByKey(extra, added, st.key);
    int take = added;
    if (added >= 0.02 * c) take = std::max(0, std::min(added, static_cast<int>(std::ceil(1.05 * md)) - c));
    sortByKey(list, c, st.key);
    for (int k = 0; k < take; k++) {
      st.cand[extra[k]] = 2;
      list[c++] = extra[k];
    }
  } else if (c > 1.2 * md) {
    // Too many: the most interior ones are kept, dense columns last when the list is huge.
    if (st.setting == -1 && c > 10.0 * md) {
      const double dense = 100.0 * static_cast<double>(lp->nnz) / (n + 1.0);
      for (int k = 0; k < c; k++) {
        const int j = list[k];
        if (j < n && lp->colLen[j] > dense) st.key[j] += kInf;
      }
    }
    sortByKey(list, c, st.key);
    const int keep = static_cast<int>(std::ceil(1.1 * md));
    int kept = std::min(c, keep);
    for (int k = keep; k < c; k++) {
      const int j = list[k];
      if (j >= n)
        list[kept++] = j;
      else
        st.cand[j] = 0;
    }
    c = kept;
  } else {
    sortByKey(list, c, st.key);
  }
  st.list.count = c;
  st.basisCount = c;

  // The initial basis.
  int* head = st.startHead;
  const ParamStore& par = st.env->par;
  int64_t candNz = 0;
  for (int k = 0; k < c; k++) candNz += list[k] < n ? lp->colLen[list[k]] : 1;
  const bool dense = m > 3000 && static_cast<double>(lp->nnz) > 100.0 * md &&
                     static_cast<double>(candNz) > std::sqrt(md) * c;
  BasisProgress bp{st.env, st.clock, lp->logSeconds, st.lastLogTime};
  int rc = 10025;
  if (par.VORN_PAR_CROSSOVERLU && m > 500 && st.basisKind != 1 && !dense) {
    double work = 0;
    rc = VRXcrossBasisLU(&st.list, head, st.pivotCheck, &work, &bp);
    clockCharge(*st.clock, work);
  }
  if (rc == 10025) rc = VRXcrossBasisTri(&st.list, head, st.pivotCheck, st.basisKind == 1, &bp);
  if (!rc) {
    double work = 0;
    int swaps = 0;
    rc = VRXcrossBasisRepair(lp, head, st.pivotCheck, &work, &bp, &swaps);
    clockCharge(*st.clock, work);
  }
  st.lastLogTime = bp.last;
  if (rc) return rc;

  st.addedToBasis = 0;
  for (int p = 0; p < m; p++) {
    lp->varStat[head[p]] = p;
    if (st.cand[head[p]] == 2) st.addedToBasis++;
  }
  for (int j = 0; j < nm; j++) lp->warmStart[j] = st.x[j];
  std::memcpy(st.startStat, lp->varStat, sizeof(int) * static_cast<size_t>(nm));
  return 0;
}

int VRXcrossBasisTri(VRXxlist* xl, int* head, double pivotCheck, int stable, BasisProgress* bp) {
  VRXlp* lp = xl->lp;
  VRXenv* env = lp->env;
  const int n = lp->n, m = lp->m;
  // Bit 1: the row has a pivot; bit 2: a structural of the basis has an entry in it.
  char* row = envCallocArray<char>(env, static_cast<size_t>(m) + 1);
  char* taken = envCallocArray<char>(env, static_cast<size_t>(xl->count) + 1);
  if (!row || !taken) {
    envFreeAll(env, row, taken);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  const double strict[2] = {std::max(0.9, pivotCheck), pivotCheck};
  const double plain[1] = {pivotCheck};
  const double* thr = stable ? strict : plain;
  const int passes = stable ? 2 : 1;
  int filled = 0;
  // A structural pivots in a row no earlier structural touches, so the structurals are
  // triangular on their pivot rows; slacks take any row without a pivot.
  for (int pass = 0; pass < passes && filled < m; pass++) {
    for (int k = 0; k < xl->count && filled < m; k++) {
      if ((k & 1023) == 1023) basisProgress(bp);
      if (taken[k]) continue;
      const int j = xl->cands[k];
      if (j >= n) {
        if (row[j - n] & 1) continue;
        row[j - n] |= 1;
      } else {
        const int64_t b = lp->colBeg[j], e = b + lp->colLen[j];
        double colMax = 0, best = 0;
        int bestRow = -1;
        for (int64_t q = b; q < e; q++) {
          const double a = std::fabs(lp->val[q]);
          colMax = std::max(colMax, a);
          if (row[lp->rowInd[q]] == 0 && a > best) {
            best = a;
            bestRow = lp->rowInd[q];
          }
        }
        if (bestRow < 0 || best <= lp->zeroTol || best < thr[pass] * colMax) continue;
        for (int64_t q = b; q < e; q++) row[lp->rowInd[q]] |= 2;
        row[bestRow] |= 1;
      }
      taken[k] = 1;
      head[filled++] = j;
    }
  }
  for (int i = 0; i < m; i++)
    if (!(row[i] & 1)) head[filled++] = n + i;
  envFreeAll(env, row, taken);
  return 0;
}

int VRXcrossBasisLU(VRXxlist* xl, int* head, double pivotCheck, double* work, BasisProgress* bp) {
  VRXlp* lp = xl->lp;
  VRXenv* env = lp->env;
  const int n = lp->n, m = lp->m;
  int rc = VRXcrossBasisTri(xl, head, pivotCheck, 0, bp);
  if (rc) return rc;
  // Candidates the pass left out take the places of slacks that are no candidates.
  char* flag = envCallocArray<char>(env, static_cast<size_t>(n) + m + 1);
  if (!flag) return VRX_ERROR_OUT_OF_MEMORY;
  for (int k = 0; k < xl->count; k++) flag[xl->cands[k]] = 2;
  for (int p = 0; p < m; p++) flag[head[p]] |= 1;
  int p = 0, swapped = 0;
  for (int k = 0; k < xl->count; k++) {
    const int j = xl->cands[k];
    if (flag[j] & 1) continue;
    while (p < m && !(head[p] >= n && !(flag[head[p]] & 2))) p++;
    if (p >= m) break;
    head[p++] = j;
    swapped++;
  }
  envFree(env, flag);
  if (swapped == 0) return 0;

  PassFactor pf;
  if ((rc = pf.open(lp, pivotCheck))) return rc;
  VRXfactor* f = pf.f;
  rc = 10025;
  for (int round = 0; round < kLURounds; round++) {
    basisProgress(bp);
    int unpivoted = 0;
    const int frc = VRXfactorFactorize<double>(f, &pf.A, head, &pf.ctl, work, &unpivoted);
    if (frc) {
      rc = frc == VRX_ERROR_OUT_OF_MEMORY ? frc : 10025;
      break;
    }
    if (unpivoted == 0) {
      // A pivot tiny against its column (as given and as U holds it after elimination):
      // the column is nearly a combination of the others and the pushes would lose
      // accuracy on it; the slack of its pivot row replaces it. The last round only
      // checks that the factor exists.
      int weak = 0;
      for (int row = 0; row < m && round + 1 < kLURounds; row++) {
        const int p = f->colPerm[row];
        double big = columnMax(lp, head[p]);
        for (int64_t e = f->uColBeg[row]; e < f->uColEnd[row]; e++) big = std::max(big, std::fabs(f->uColVal[e]));
        if (std::fabs(f->diag[row]) < kWeakPivot * big) {
          head[p] = n + row;
          weak++;
        }
      }
      if (weak == 0) {
        rc = 0;
        break;
      }
      continue;
    }
    // The columns without a pivot go out for the slacks of the rows without one.
    for (int q = 0; q < unpivoted; q++) head[f->unpivotedPos[q]] = n + f->pivotlessRow[q];
  }
  return rc;
}

// While the estimate of |B^-1|_1 is above the limit, the column deepest in the near
// dependency makes room for the slack whose row weighs most in that column's row of B^-1
// (the best conditioned exchange of all slacks).
int VRXcrossBasisRepair(VRXlp* lp, int* head, double pivotCheck, double* work, BasisProgress* bp, int* swaps) {
  VRXenv* env = lp->env;
  const int n = lp->n, m = lp->m;
  *swaps = 0;
  if (m == 0) return 0;
  PassFactor pf;
  VRXsvec x{}, z{};
  char* inHead = envCallocArray<char>(env, static_cast<size_t>(n) + m + 1);
  int* saved = envAllocArray<int>(env, static_cast<size_t>(m));
  int rc = inHead && saved ? pf.open(lp, pivotCheck) : VRX_ERROR_OUT_OF_MEMORY;
  if (!rc) rc = svecAlloc(env, &x, m + 1);
  if (!rc) rc = svecAlloc(env, &z, m + 1);
  if (!rc) std::memcpy(saved, head, sizeof(int) * static_cast<size_t>(m));
  for (int p = 0; p < m && !rc; p++) inHead[head[p]] = 1;
  VRXfactor* f = pf.f;
  const VRXfactorMatrix* A = &pf.A;
  VRXfactorCtl* ctl = &pf.ctl;
  if (!rc) rc = factorWithSlacks(f, A, head, ctl, inHead, work);
  const int limit = std::min(kRepairMax, kRepairMin + m / kRepairShare);
  for (int swap = 0; swap < limit && !rc; swap++) {
    basisProgress(bp);
    int worst = -1;
    const double est = inverseNormEstimate(f, &x, &z, &worst, work);
    if (est <= kCondLimit || worst < 0) break;
    x.value[worst] = 1.0;
    x.index[0] = worst;
    x.count = 1;
    if (VRXbtran<double>(f, &x, &x, 0, work)) break;
    int row = -1;
    double big = 0;
    for (int i = 0; i < m; i++) {
      if (!inHead[n + i] && std::fabs(x.value[i]) > big) {
        big = std::fabs(x.value[i]);
        row = i;
      }
    }
    svecClear(&x, m);
    if (row < 0) break;
    inHead[head[worst]] = 0;
    head[worst] = n + row;
    inHead[n + row] = 1;
    ++*swaps;
    // The exchange as an update of the factor; a fresh factor when the update refuses.
    x.value[row] = 1.0;
    x.index[0] = row;
    x.count = 1;
    const int frc = VRXftran<double>(f, &x, &x, 1, 0, work);
    svecClear(&x, m);
    if (frc || VRXfactorUpdate<double>(f, worst, n + row, ctl, work) != 0)
      rc = factorWithSlacks(f, A, head, ctl, inHead, work);
  }
  // A factor that failed on the way leaves the basis as the pass gave it.
  if (rc == 10025) {
    std::memcpy(head, saved, sizeof(int) * static_cast<size_t>(m));
    *swaps = 0;
    rc = 0;
  }
  svecFree(env, &x);
  svecFree(env, &z);
  envFreeAll(env, inHead, saved);
  return rc;
}

}  // namespace cross
}  // namespace vrx
