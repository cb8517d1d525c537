// Moves that end the primal loop at a vertex: nonbasics that a start (crossover, a start
// vector) left inside their bounds go to a bound or into the basis, even where the reduced
// costs are indifferent to them.
#include <cmath>

#include "simplex/primal_impl.h"

namespace vrx {
namespace primal {

namespace {

// Rescans of the list in one run; each one follows a fresh compute. Interior values only
// come from the start, so two rounds normally settle everything.
constexpr int kMaxRounds = 4;
// Attempts on one entry whose pivot a refactor keeps putting off.
constexpr int kMaxTries = 3;

template <class T>
bool freeAtZero(const Ctx<T>& c, int j) {
  return c.lp->varStat[j] == VRX_VS_FREE && !c.loFinite(j) && !c.upFinite(j) && c.nbValue(j) == 0.0;
}

template <class T>
void dropEntry(Ctx<T>& c, bool left) {
  c.pp->vxNext++;
  c.pp->vxTries = 0;
  if (left) c.pp->vxLeft++;
}

}  // namespace

template <class T>
bool offVertex(const Ctx<T>& c, int j) {
  const VRXlp* lp = c.lp;
  if (lp->varStat[j] != VRX_VS_FREE || lp->lower[j] == lp->upper[j]) return false;
  // A status -3 on a finite bound became -1 or -2 at the start: with a bound it is inside.
  if (c.loFinite(j) || c.upFinite(j)) return true;
  return c.nbValue(j) != 0.0;
}

template <class T>
int nextVertexMove(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  VRXprimalprice* pp = c.pp;
  for (;;) {
    while (pp->vxNext < pp->vxCount) {
      const int code = pp->vxList[pp->vxNext];
      // A negative entry -1 - j is a free column at 0 that may pivot in; it is optional.
      const bool pivotIn = code < 0;
      const int j = pivotIn ? -1 - code : code;
      if (pivotIn ? !freeAtZero(c, j) : !offVertex(c, j)) {
        dropEntry(c, false);
        continue;
      }
      if (pp->vxTries >= kMaxTries) {
        dropEntry(c, !pivotIn);
        continue;
      }
      pp->vxTries++;
      pp->vxMoves++;
      const T dj = lp->priceMode == 0 ? c.freshD(j) : c.d[j];
      const double v = c.nbValue(j);
      const bool lf = c.loFinite(j), uf = c.upFinite(j);
      c.toZero = 0;
      if (!lf && !uf) {
        c.toZero = v != 0.0;
        c.dir = c.toZero ? (v > 0 ? -1 : 1) : (dj > T(0) ? -1 : 1);
      } else if (dj < T(0)) {
        c.dir = 1;
      } else if (dj > T(0)) {
        c.dir = -1;
      } else if (lf && uf) {
        c.dir = v - pp->lo[j] <= pp->up[j] - v ? -1 : 1;
      } else {
        c.dir = lf ? -1 : 1;
      }
      c.q = j;
      c.dq = dj;
      c.vertexMove = 1;
      return j;
    }
    // The list is used up: a fresh compute first, then a new scan.
    if (!pp->confirmed) return -2;
    if (pp->vxRounds >= kMaxRounds) return -1;
    const bool first = pp->vxRounds == 0;
    pp->vxRounds++;
    int cnt = 0;
    for (int j = 0; j < c.nm; j++) {
      if (lp->varStat[j] != VRX_VS_FREE) continue;
      if (offVertex(c, j)) pp->vxList[cnt++] = j;
      else if (first && freeAtZero(c, j)) pp->vxList[cnt++] = -1 - j;
    }
    clockCharge(*c.clock, 1e-3 * c.nm);
    pp->vxCount = cnt;
    pp->vxNext = 0;
    pp->vxTries = 0;
    if (cnt == 0) return -1;
  }
}

template <class T>
int turnVertexMove(Ctx<T>& c) {
  VRXprimalprice* pp = c.pp;
  const bool pivotIn = pp->vxList[pp->vxNext] < 0;
  // A free column at 0 only moves where the objective does not grow, unless it is level.
  const bool mayTurn = c.vertexMove == 1 && !c.toZero && !(pivotIn && c.dq != T(0));
  if (!mayTurn) {
    dropEntry(c, !pivotIn);
    return 0;
  }
  c.dir = -c.dir;
  c.vertexMove = 2;
  return 1;
}

template <class T>
void settleNoRows(Ctx<T>& c) {
  VRXlp* lp = c.lp;
  for (int j = 0; j < c.n; j++) {
    if (!offVertex(c, j)) continue;
    const bool lf = c.loFinite(j), uf = c.upFinite(j);
    const double dj = static_cast<double>(c.d[j]);
    const double v = c.nbValue(j);
    if (!lf && !uf) {
      lp->warmStart[j] = 0.0;  // only a start vector puts a free column off 0
    } else if (lf && (!uf || dj > 0 || (dj == 0 && v - lp->lower[j] <= lp->upper[j] - v))) {
      lp->varStat[j] = VRX_VS_LOWER;
    } else {
      lp->varStat[j] = VRX_VS_UPPER;
    }
  }
}

#define VRX_PRIMAL_VERTEX_INST(T)                     \
  template bool offVertex<T>(const Ctx<T>&, int);     \
  template int nextVertexMove<T>(Ctx<T>&);            \
  template int turnVertexMove<T>(Ctx<T>&);            \
  template void settleNoRows<T>(Ctx<T>&);
VRX_PRIMAL_VERTEX_INST(double)
VRX_PRIMAL_VERTEX_INST(long double)
#undef VRX_PRIMAL_VERTEX_INST

}  // namespace primal
}  // namespace vrx
