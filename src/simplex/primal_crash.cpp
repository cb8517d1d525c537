// Crash of a first basis for the primal loop: structural columns replace slacks where they
// can be placed triangularly.
#include <algorithm>
#include <cmath>

#include "simplex/primal_impl.h"

namespace vrx {
namespace primal {

namespace {

// Column j takes the basis position of row's slack, which goes to its lower bound; the
// rows of j are marked so later columns keep the basis triangular.
void placeColumn(VRXlp* lp, int* head, int j, int row, char* touched) {
  const int n = lp->n;
  const int p = lp->varStat[n + row];
  head[p] = j;
  lp->varStat[j] = p;
  lp->varStat[n + row] = lp->upper[n + row] == lp->lower[n + row] ? VRX_VS_FIX_LOWER : VRX_VS_LOWER;
  const int64_t b = lp->colBeg[j], e = b + lp->colLen[j];
  for (int64_t k = b; k < e; k++) touched[lp->rowInd[k]] = 1;
}

// On large models the first pass leaves many rows to slacks where a short column would do:
// the columns left over are tried again, the shortest first, with a looser pivot (half the
// column's largest entry) and only rows no placed column touches, so the basis stays
// triangular. Returns the number of columns placed.
int sparsityPass(VRXlp* lp, int* order, int cnt, char* touched) {
  const int n = lp->n;
  int* head = lp->quadMode ? lp->factorQ->basisHead : lp->factor->basisHead;
  int left = 0;
  for (int t = 0; t < cnt; t++)
    if (lp->varStat[order[t]] < 0) order[left++] = order[t];
  std::stable_sort(order, order + left, [&](int a, int b) { return lp->colLen[a] < lp->colLen[b]; });
  int placed = 0;
  for (int t = 0; t < left; t++) {
    const int j = order[t];
    const int64_t b = lp->colBeg[j], e = b + lp->colLen[j];
    double colMax = 0;
    for (int64_t k = b; k < e; k++) colMax = std::max(colMax, std::fabs(lp->val[k]));
    int best = -1;
    double bestA = 0;
    for (int64_t k = b; k < e; k++) {
      const int i = lp->rowInd[k];
      const double a = std::fabs(lp->val[k]);
      if (touched[i] || a < 0.5 * colMax || lp->varStat[n + i] < 0) continue;
      if (a > bestA) {
        best = i;
        bestA = a;
      }
    }
    if (best < 0) continue;
    placeColumn(lp, head, j, best, touched);
    placed++;
  }
  return placed;
}

}  // namespace

// Columns are taken in order of preference: free ones first (they belong in the basis),
// then those with one bound, then boxed ones by growing range; a cheaper cost breaks ties
// (kind 2 takes the one costed column first). A column enters when its pivot row has no
// entry in any column taken before (so the taken columns stay upper triangular), with a
// pivot at least 0.9 of the column's largest entry; equality rows are covered first. The
// slack of the pivot row leaves to its bound. With secondPass the columns left over get a
// looser, sparsity-driven pass. Returns the number of columns placed.
int crashBasis(VRXlp* lp, int kind, bool secondPass) {
  VRXprimalprice* pp = lp->primal;
  const int n = lp->n, m = lp->m;
  if (n == 0 || m == 0) return 0;
  int* head = lp->quadMode ? lp->factorQ->basisHead : lp->factor->basisHead;
  for (int i = 0; i < m; i++)
    if (lp->varStat[n + i] < 0) return 0;  // not the slack basis: a start was given
  const double inf = lp->infBound;
  double cmax = 0;
  for (int j = 0; j < n; j++) cmax = std::max(cmax, std::fabs(lp->cost[j]));
  // Preference keys in the weights array, order in candidateBuf; both are rebuilt later.
  double* key = pp->weights;
  int* order = lp->candidateBuf;
  int cnt = 0;
  for (int j = 0; j < n; j++) {
    const double lo = lp->lower[j], up = lp->upper[j];
    if (lp->colLen[j] == 0 || lo == up || lp->varStat[j] >= 0) continue;
    const bool lf = lo > -inf, uf = up < inf;
    double k;
    if (!lf && !uf) k = 0.0;
    else if (!lf || !uf) k = 1.0;
    else k = 2.0 + 1.0 / (1.0 + (up - lo));
    if (cmax > 0) k += 0.5 * std::fabs(lp->cost[j]) / cmax;
    if (kind == 2 && j == lp->singleCost) k = -1.0;
    key[j] = k;
    order[cnt++] = j;
  }
  std::stable_sort(order, order + cnt, [&](int a, int b) { return key[a] < key[b]; });

  char* touched = pp->mark;  // first m entries: rows with an entry in a taken column
  int placed = 0;
  for (int t = 0; t < cnt; t++) {
    const int j = order[t];
    const int64_t b = lp->colBeg[j], e = b + lp->colLen[j];
    double colMax = 0;
    for (int64_t k = b; k < e; k++) colMax = std::max(colMax, std::fabs(lp->val[k]));
    int best = -1;
    double bestA = 0;
    bool bestEq = false;
    for (int64_t k = b; k < e; k++) {
      const int i = lp->rowInd[k];
      const double a = std::fabs(lp->val[k]);
      if (touched[i] || a < 0.9 * colMax) continue;
      const bool eq = lp->senseChar[i] == '=';
      if (best < 0 || (eq && !bestEq) || (eq == bestEq && a > bestA)) {
        best = i;
        bestA = a;
        bestEq = eq;
      }
    }
    if (best < 0) continue;
    placeColumn(lp, head, j, best, touched);
    placed++;
  }
  if (secondPass) placed += sparsityPass(lp, order, cnt, touched);
  for (int i = 0; i < m; i++) touched[i] = 0;
  return placed;
}

}  // namespace primal
}  // namespace vrx
