// The undo stack and the walks over it.
//
// Payload layouts (ints | doubles):
//   1 FIXCOL        col, status, count, rows[count]        | value, obj, coefs[count]
//   2 SUBSTCOL      col, row, nRow, nCol, rowCols[nRow], colRows[nCol]
//                                                          | pivot, rhs, obj, rowCoefs[nRow], colCoefs[nCol]
//                   (the row's other entries, and the column's entries in other rows)
//   4 DUPCOL        kept, merged away, mode                 | ratio, lbA, ubA, lbB, ubB
//   5 PARROW        kept row a, removed row b              | ratio (row b = ratio * row a)
//   6 DOUBLETONROW  flags, col j (removed), col i, row      | a_j, a_i, carried lower, carried upper
//   7 SINGLETONROW  col, row, flags                        | coefficient, value
//   8 FORCINGROW    row, sign, count, cols[count], fixed[count] | coefs[count]
//   9 SCALECOL      col                                    | shift, scale
//  10 COLTOSLACK    row, col, negated, bound side, count, cols[count]
//                                                          | a_rj, obj, rhs, coefs[count]
//   3 IMPLIEDCOL    col, flag, nRows, lens[nRows], cols...  | value, per row: rhs, coef of col, coefs...
//  11 QCOL          col, status, count, cols[count]        | values[count]
//  15 SINGLETONEXPR col, count, cols[count]                | constant, multipliers[count]
//  16 COMPLEMENT    col a, col b                           |
//  17 IMPLIEDCONT   col, flags, nRows, lens[nRows], cols... | value, per row: rhs, coef of col, coefs...
//  19 BLOCK         block col, count, cols[count]          | coefs[count], lbs[count], ubs[count]
//  12 BINMAP        col, binary col                        |
//  13 ROWSPLIT      row, col, new row, count, cols[count]  | rhs, coef in row, coef in new row, coefs[count]
//                   (the new row: coefs.x + (coef in new row) col = rhs; col and new row are added indices)
//  18 MERGECOLS     merged col, count, cols[count], nRowCells, nColCells, rowLens[nRowCells], rows...,
//                   colLens[nColCells], cols...            |
//                   (the oldest record of a symmetry pass lists all its cells behind its own
//                   members, the first of each cell being the one that stays; the others hold 0, 0)
//  20 TWOROWS       r1, r2, j, k, nRest, rest[nRest]       | a1j a1k a2j a2k b1 b2 cj ck, a1[nRest], a2[nRest]
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "presolve/undo.h"

#include "model/model.h"
#include "simplex/lp.h"
#include "env/envvec.h"

namespace vrx {

VRXundo* undoPush(VRXenv* env, UndoStack& s, int kind, int ni, int nd) {
  const size_t head = (sizeof(VRXundo) + 7) & ~static_cast<size_t>(7);
  const size_t ints = (static_cast<size_t>(ni) * sizeof(int) + 7) & ~static_cast<size_t>(7);
  const size_t bytes = head + ints + static_cast<size_t>(nd) * sizeof(double);
  const size_t chunkHead = (sizeof(UndoChunk) + 7) & ~static_cast<size_t>(7);
  UndoChunk* c = s.chunks;
  if (!c || c->used + bytes > c->cap) {
    const size_t cap = std::max<size_t>(bytes, 64 * 1024);
    c = static_cast<UndoChunk*>(envMalloc(env, chunkHead + cap));
    if (!c) throw std::bad_alloc();
    c->next = s.chunks;
    c->used = 0;
    c->cap = cap;
    s.chunks = c;
  }
  char* base = reinterpret_cast<char*>(c) + chunkHead + c->used;
  c->used += bytes;
  VRXundo* u = reinterpret_cast<VRXundo*>(base);
  u->kind = kind;
  u->ni = ni;
  u->nd = nd;
  u->payload = base + head;
  u->next = s.head;
  s.head = u;
  s.count++;
  return u;
}

void undoFree(VRXenv* env, UndoStack& s) {
  UndoChunk* c = s.chunks;
  while (c) {
    UndoChunk* nx = c->next;
    envFree(env, c);
    c = nx;
  }
  s.chunks = nullptr;
  s.head = nullptr;
  s.count = 0;
}

void presolveMapFree(VRXpresolvemap* map) {
  if (!map) return;
  VRXenv* env = map->env;
  if (map->presolved) {
    VRXlpFreeOnModel(map->presolved);
    modelDestroy(map->presolved);
  }
  envFree(env, map->colMap);
  envFree(env, map->rowMap);
  envFree(env, map->rowNeg);
  envFree(env, map->origLb);
  envFree(env, map->origUb);
  envFree(env, map->origSense);
  envFree(env, map->undoKinds);
  envFree(env, map->undoPayloads);
  envFree(env, map->firstUse);
  envFree(env, map->nextUse);
  undoFree(env, map->undo);
  envFree(env, map);
}

void presolveMapKeep(VRXmodel* model, VRXmodel* presolved, VRXpresolvemap* map) {
  presolveMapDrop(model);
  map->presolved = presolved;
  model->presolveMap = map;
}

void presolveMapDrop(VRXmodel* model) {
  presolveMapFree(model->presolveMap);
  model->presolveMap = nullptr;
}

namespace {

bool near(double a, double b) { return std::fabs(a - b) <= 1e-9 * (1.0 + std::fabs(b)); }

// The working state of a walk, in original indices.
struct Walk {
  double* x;
  double* y;
  double* d;
  int* cs;
  int* rs;
  bool dual;
  const double* lb;  // original bounds, for a status chosen in the walk
  const double* ub;
};

void undoFixCol(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int col = I[0], status = I[1], count = I[2];
  w.x[col] = D[0];
  if (!w.dual) return;
  double dj = D[1];
  for (int t = 0; t < count; ++t) dj -= D[2 + t] * w.y[I[3 + t]];
  w.d[col] = dj;
  w.cs[col] = status == kStFixed ? (dj < 0 ? kStUpper : kStLower) : status;
}

void undoSubstCol(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int col = I[0], row = I[1], nRow = I[2], nCol = I[3];
  const int* rowCols = I + 4;
  const int* colRows = I + 4 + nRow;
  const double pivot = D[0], rhs = D[1], obj = D[2];
  const double* rowCoefs = D + 3;
  const double* colCoefs = D + 3 + nRow;
  double rest = 0;
  for (int t = 0; t < nRow; ++t) rest += rowCoefs[t] * w.x[rowCols[t]];
  w.x[col] = (rhs - rest) / pivot;
  if (!w.dual) return;
  double dj = obj;
  for (int t = 0; t < nCol; ++t) dj -= colCoefs[t] * w.y[colRows[t]];
  w.y[row] = dj / pivot;
  w.d[col] = 0;
  w.cs[col] = kStBasic;
  w.rs[row] = kRowActive;
}

void undoDoubleton(const VRXundo* u, Walk& w) {
  if (!w.dual) return;
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int flags = I[0], j = I[1], i = I[2], row = I[3];
  const double aj = D[0], ai = D[1];
  const int st = w.cs[i];
  bool atCarried = false;
  if (st == kStLower && (flags & 1) && near(w.x[i], D[2])) atCarried = true;
  if (st == kStUpper && (flags & 2) && near(w.x[i], D[3])) atCarried = true;
  if (!atCarried) return;
  const double di = w.d[i];
  w.y[row] += di / ai;
  w.d[j] = -aj * di / ai;
  w.d[i] = 0;
  w.cs[i] = kStBasic;
  // x_i = (b - a_j x_j) / a_i: with a_j / a_i > 0, x_i low means x_j high.
  const bool sameDir = (aj / ai) < 0;
  w.cs[j] = (st == kStLower) == sameDir ? kStLower : kStUpper;
}

void undoSingletonRow(const VRXundo* u, Walk& w) {
  if (!w.dual) return;
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int col = I[0], row = I[1], flags = I[2];
  const double a = D[0], v = D[1];
  const int st = w.cs[col];
  bool at = false;
  if ((flags & 3) == 3)
    at = (st == kStLower || st == kStUpper) && near(w.x[col], v);
  else if (flags & 1)
    at = st == kStLower && near(w.x[col], v);
  else if (flags & 2)
    at = st == kStUpper && near(w.x[col], v);
  if (!at) return;
  w.y[row] = w.d[col] / a;
  w.d[col] = 0;
  w.cs[col] = kStBasic;
  w.rs[row] = kRowActive;
}

void undoForcingRow(const VRXundo* u, Walk& w) {
  if (!w.dual) return;
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int row = I[0], sign = I[1], count = I[2];
  const int* cols = I + 3;
  const int* fixed = I + 3 + count;
  // sign +1: y <= d_j / a_j for every column, take min(0, ...); sign -1 mirrored.
  double yr = 0;
  int pick = -1;
  for (int t = 0; t < count; ++t) {
    if (fixed[t]) continue;
    const double ratio = w.d[cols[t]] / D[t];
    if ((sign > 0 && ratio < yr) || (sign < 0 && ratio > yr)) {
      yr = ratio;
      pick = t;
    }
  }
  if (pick < 0) return;
  w.y[row] = yr;
  w.rs[row] = kRowActive;
  for (int t = 0; t < count; ++t) {
    const int j = cols[t];
    w.d[j] -= D[t] * yr;
    if (fixed[t]) w.cs[j] = w.d[j] < 0 ? kStUpper : kStLower;
  }
  w.d[cols[pick]] = 0;
  w.cs[cols[pick]] = kStBasic;
}

void undoScaleCol(const VRXundo* u, Walk& w) {
  const int col = undoInts(u)[0];
  const double* D = undoDbls(u);
  w.x[col] = D[1] * w.x[col] + D[0];
  if (!w.dual) return;
  w.d[col] /= D[1];
  // A column made free rests at 0, which is where its bound was.
  if (w.cs[col] == kStFree && D[1] == 1.0 && w.x[col] == D[0]) w.cs[col] = kStLower;
  if (D[1] < 0) {
    if (w.cs[col] == kStLower)
      w.cs[col] = kStUpper;
    else if (w.cs[col] == kStUpper)
      w.cs[col] = kStLower;
  }
}

void undoColToSlack(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int row = I[0], col = I[1], neg = I[2], side = I[3], count = I[4];
  const double a = D[0], c = D[1], b = D[2];
  double rest = 0;
  for (int t = 0; t < count; ++t) rest += D[3 + t] * w.x[I[5 + t]];
  w.x[col] = (b - rest) / a;
  if (!w.dual) return;
  const double s = neg ? -1.0 : 1.0;
  const double yPost = w.y[row];
  w.y[row] = s * yPost + c / a;
  w.d[col] = -a * s * yPost;
  if (w.rs[row] == kRowBasic) {
    w.cs[col] = kStBasic;
    w.d[col] = 0;
  } else {
    w.cs[col] = side;
  }
  w.rs[row] = kRowActive;
}

void undoParRow(const VRXundo* u, Walk& w) {
  if (!w.dual) return;
  const int* I = undoInts(u);
  const int a = I[0], b = I[1];
  const double t = undoDbls(u)[0];
  if (w.y[a] > 0) {
    w.y[b] = w.y[a] / t;
    w.y[a] = 0;
    w.rs[b] = w.rs[a];
    w.rs[a] = kRowBasic;
  }
}

void undoDupCol(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int j = I[0], k = I[1];
  const double t = D[0], lj = D[1], uj = D[2], lk = D[3], uk = D[4];
  const double xm = w.x[j];
  const int st = w.dual ? w.cs[j] : kStBasic;
  const double dm = w.dual ? w.d[j] : 0.0;
  const double inf = 1e30;
  auto fin = [&](double v) { return v > -inf && v < inf; };
  if (st == kStLower || st == kStUpper) {
    // Both at the bounds that make up the merged bound.
    const bool low = st == kStLower;
    w.x[j] = low ? lj : uj;
    const bool kLow = (t > 0) == low;
    w.x[k] = kLow ? lk : uk;
    if (w.dual) {
      w.cs[j] = st;
      w.cs[k] = kLow ? kStLower : kStUpper;
      w.d[k] = t * dm;
    }
    return;
  }
  // The interval of x_k that keeps x_j = xm - t x_k inside its bounds.
  double lo = lk, hi = uk;
  double e1 = fin(uj) ? (xm - uj) / t : (t > 0 ? -kInf : kInf);
  double e2 = fin(lj) ? (xm - lj) / t : (t > 0 ? kInf : -kInf);
  lo = std::max(lo, std::min(e1, e2));
  hi = std::min(hi, std::max(e1, e2));
  if (lo > hi) lo = hi = 0.5 * (lo + hi);
  double xk;
  int stK, stJ = st;
  if (fin(lk) && lk >= lo - 1e-12 && lk <= hi + 1e-12) {
    xk = lk;
    stK = kStLower;
  } else if (fin(uk) && uk >= lo - 1e-12 && uk <= hi + 1e-12) {
    xk = uk;
    stK = kStUpper;
  } else if (fin(lo) || fin(hi)) {
    // x_j sits at one of its bounds; k takes the merged status.
    xk = fin(lo) ? lo : hi;
    stK = st;
    const double xj = xm - t * xk;
    stJ = std::fabs(xj - lj) <= std::fabs(xj - uj) ? kStLower : kStUpper;
    if (!fin(lj)) stJ = kStUpper;
    if (!fin(uj)) stJ = kStLower;
  } else {
    xk = 0;
    stK = kStFree;
  }
  w.x[k] = xk;
  w.x[j] = xm - t * xk;
  if (w.dual) {
    w.cs[j] = stJ;
    w.cs[k] = stK;
    w.d[k] = t * dm;
  }
}

// The bound the rows of kinds 3 and 17 give: per row (rhs - terms) / coef.
// lowest: the smallest of them (and of value), else the largest. Returns the
// row that attains it, or -1 when value stands.
double rowBound(const VRXundo* u, const Walk& w, bool lowest, int* attain) {
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int nRows = I[2];
  const int* lens = I + 3;
  const int* cols = lens + nRows;
  double best = D[0];
  *attain = -1;
  int ci = 0, di = 1;
  for (int r = 0; r < nRows; ++r) {
    const double rhs = D[di], a = D[di + 1];
    double rest = 0;
    for (int t = 0; t < lens[r]; ++t) rest += D[di + 2 + t] * w.x[cols[ci + t]];
    const double v = (rhs - rest) / a;
    if (lowest ? v < best : v > best) {
      best = v;
      *attain = r;
    }
    ci += lens[r];
    di += 2 + lens[r];
  }
  return best;
}

void undoImpliedCol(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const int col = I[0], flag = I[1];
  int attain;
  const double v = rowBound(u, w, flag == 0, &attain);
  if (!w.dual) {
    w.x[col] = flag == 0 ? std::floor(v + 1e-9) : std::ceil(v - 1e-9);
    return;
  }
  w.x[col] = v;
  w.d[col] = 0;
  // The attaining row hands its basis slot to the column; without one the column sits at a bound.
  w.cs[col] = attain >= 0 ? kStBasic : (flag == 0 ? kStUpper : kStLower);
}

void undoImpliedCont(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const int col = I[0], flags = I[1];
  const int direction = flags & 1, mode = flags >> 1;
  int attain;
  const double bound = rowBound(u, w, direction == 0, &attain);
  if (mode != 1) return;
  if (direction == 0 && w.x[col] >= bound) w.x[col] = bound;
  if (direction == 1 && w.x[col] <= bound) w.x[col] = bound;
}

void undoQCol(const VRXundo* u, Walk& w) {
  if (!w.dual) return;
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int col = I[0], count = I[2];
  for (int t = 0; t < count; ++t) w.d[col] += D[t] * w.x[I[3 + t]];
  w.cs[col] = I[1];
}

void undoSingletonExpr(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int col = I[0], count = I[1];
  double v = D[0];
  for (int t = 0; t < count; ++t) v += D[1 + t] * w.x[I[2 + t]];
  w.x[col] = v;
}

void undoComplement(const VRXundo* u, Walk& w) {
  const int a = undoInts(u)[0], b = undoInts(u)[1];
  if (w.x[a] > 0 && w.x[b] > 0) {
    const double low = std::min(w.x[a], w.x[b]);
    w.x[a] -= low;
    w.x[b] -= low;
  }
}

void undoBlock(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int block = I[0], count = I[1];
  const int* cols = I + 2;
  const double* coef = D;
  const double* lo = D + count;
  const double* up = D + 2 * count;
  const double target = w.x[block];
  // Each column starts at a finite bound (the lower first), then moves towards
  // the other bound in order until the sum reaches the target.
  double sum = 0;
  for (int t = 0; t < count; ++t) {
    const double v = lo[t] > -1e30 ? lo[t] : (up[t] < 1e30 ? up[t] : 0.0);
    w.x[cols[t]] = v;
    sum += coef[t] * v;
  }
  for (int t = 0; t < count && std::fabs(target - sum) > 0; ++t) {
    const double need = (target - sum) / coef[t];
    const double x0 = w.x[cols[t]];
    double x1 = x0 + need;
    if (x1 > up[t] && up[t] < 1e30) x1 = up[t];
    if (x1 < lo[t] && lo[t] > -1e30) x1 = lo[t];
    w.x[cols[t]] = x1;
    sum += coef[t] * (x1 - x0);
  }
}

// Two columns out of the two equations that were their only rows:
// x_J = M^-1 (b - R x_rest), and the duals from M' y = c_J.
void undoTwoRows(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int r1 = I[0], r2 = I[1], j = I[2], k = I[3], nRest = I[4];
  const int* rest = I + 5;
  const double a1j = D[0], a1k = D[1], a2j = D[2], a2k = D[3], b1 = D[4], b2 = D[5], cj = D[6], ck = D[7];
  const double* a1 = D + 8;
  const double* a2 = D + 8 + nRest;
  const double det = a1j * a2k - a1k * a2j;
  double s1 = b1, s2 = b2;
  for (int t = 0; t < nRest; ++t) {
    s1 -= a1[t] * w.x[rest[t]];
    s2 -= a2[t] * w.x[rest[t]];
  }
  w.x[j] = (a2k * s1 - a1k * s2) / det;
  w.x[k] = (a1j * s2 - a2j * s1) / det;
  if (!w.dual) return;
  w.y[r1] = (cj * a2k - ck * a2j) / det;
  w.y[r2] = (ck * a1j - cj * a1k) / det;
  w.d[j] = w.d[k] = 0;
  w.cs[j] = w.cs[k] = kStBasic;
  w.rs[r1] = w.rs[r2] = kRowActive;
}

// The row was split: the new row coefs.x + c_q z = rhs defines z, and the row
// kept c_r z in place of those terms. The row's dual stays; a z off zero
// reduced cost moves onto the columns of the new row, and with z and the new
// row's slack both basic the row itself was inactive and its slack is basic.
// With both nonbasic one basic is too many; the basis load drops it.
void undoRowSplit(const VRXundo* u, Walk& w) {
  if (!w.dual) return;
  const int* I = undoInts(u);
  const double* D = undoDbls(u);
  const int row = I[0], z = I[1], q = I[2], count = I[3];
  const double cq = D[2];
  const double dz = w.d[z];
  if (dz != 0)
    for (int t = 0; t < count; ++t) w.d[I[4 + t]] -= D[3 + t] * dz / cq;
  if (w.cs[z] == kStBasic && w.rs[q] == kRowBasic) w.rs[row] = kRowBasic;
}

int nearerBound(const Walk& w, int j) {
  const bool loFin = w.lb[j] > -1e30, upFin = w.ub[j] < 1e30;
  if (loFin && upFin) return w.x[j] - w.lb[j] <= w.ub[j] - w.x[j] ? kStLower : kStUpper;
  return loFin ? kStLower : (upFin ? kStUpper : kStFree);
}

// The d-th member to leave a basic cell goes to the bound that keeps the sum of
// the leavers nearest d shares, so the members left basic have little to make up.
int leavingBound(const Walk& w, int j, int d) {
  if (!(w.lb[j] > -1e30 && w.ub[j] < 1e30) || w.ub[j] <= w.lb[j]) return nearerBound(w, j);
  const double f = std::min(1.0, std::max(0.0, (w.x[j] - w.lb[j]) / (w.ub[j] - w.lb[j])));
  return std::floor(d * f + 0.5) > std::floor((d - 1) * f + 0.5) ? kStUpper : kStLower;
}

// The cells of one symmetry pass, after each merged column was split: the rows
// of a row cell share the kept row's dual and status, and the statuses are
// evened out to as many basics as rows. Surplus basics leave the basic column
// cells one member per cell in turn (the dual stays as it is); missing ones
// come from the members and rows nearest to zero reduced cost or dual.
void mergedCellsBasis(const int* tr, Walk& w) {
  const int nR = tr[0], nC = tr[1];
  const int* rLen = tr + 2;
  const int* rows = rLen + nR;
  int totalR = 0;
  for (int c = 0; c < nR; ++c) totalR += rLen[c];
  const int* cLen = rows + totalR;
  const int* cols = cLen + nC;
  long diff = 0;
  for (int c = 0, at = 0; c < nR; at += rLen[c++]) {
    const int L = rLen[c], r0 = rows[at];
    const double yr = w.y[r0] / L;
    const int st = w.rs[r0];
    for (int t = 0; t < L; ++t) {
      w.y[rows[at + t]] = yr;
      w.rs[rows[at + t]] = st;
    }
    diff += st == kRowBasic ? 0 : -(L - 1);
  }
  for (int c = 0, at = 0; c < nC; at += cLen[c++])
    if (w.cs[cols[at]] == kStBasic) diff += cLen[c] - 1;
  // Surplus members leave the basic cells in proportion to their size, those
  // resting on a bound first (they cost the primal nothing).
  auto atBound = [&](int j) {
    const int near = nearerBound(w, j);
    const double gap = near == kStLower ? w.x[j] - w.lb[j] : (near == kStUpper ? w.ub[j] - w.x[j] : kInf);
    return gap <= 1e-9 * (1 + std::fabs(w.x[j]));
  };
  for (int sweep = 0; sweep < 2 && diff > 0; ++sweep) {
    auto eligible = [&](int at) { return w.cs[cols[at]] == kStBasic && atBound(cols[at]) == (sweep == 0); };
    long total = 0;
    for (int c = 0, at = 0; c < nC; at += cLen[c++])
      if (eligible(at)) total += cLen[c] - 1;
    if (total == 0) continue;
    const long take = std::min(diff, total);
    long left = take;
    for (int pass = 0; pass < 2 && left > 0; ++pass)
      for (int c = 0, at = 0; c < nC && left > 0; at += cLen[c++]) {
        if (!eligible(at)) continue;
        int gone = 0;
        while (gone < cLen[c] - 1 && w.cs[cols[at + cLen[c] - 1 - gone]] != kStBasic) ++gone;
        // First pass: the proportional share; second: one more each for the rounding.
        long want = pass == 0 ? take * (cLen[c] - 1) / total : 1;
        for (; want > 0 && left > 0 && gone < cLen[c] - 1; --want, --left) {
          ++gone;
          const int j = cols[at + cLen[c] - gone];
          w.cs[j] = leavingBound(w, j, gone);
        }
      }
    diff -= take;
  }
  for (int c = 0, at = 0; c < nR && diff > 0; at += rLen[c++])
    for (int t = 1; t < rLen[c] && diff > 0 && w.rs[rows[at]] == kRowBasic; ++t) {
      w.rs[rows[at + t]] = kRowActive;
      diff--;
    }
  for (double thr : {1e-9, 1e-6, kInf}) {
    for (int c = 0, at = 0; c < nC && diff < 0; at += cLen[c++])
      for (int t = 1; t < cLen[c] && diff < 0; ++t) {
        const int j = cols[at + t];
        if (w.cs[j] == kStBasic || std::fabs(w.d[j]) > thr) continue;
        w.cs[j] = kStBasic;
        diff++;
      }
    for (int c = 0, at = 0; c < nR && diff < 0; at += rLen[c++])
      for (int t = 1; t < rLen[c] && diff < 0; ++t) {
        const int i = rows[at + t];
        if (w.rs[i] == kRowBasic || std::fabs(w.y[i]) > thr) continue;
        w.rs[i] = kRowBasic;
        diff++;
      }
  }
}

// Columns of a symmetry cell merged into their sum: each takes an equal share,
// which is optimal because the cell's average of any optimum is one.
void undoMergeCols(const VRXundo* u, Walk& w) {
  const int* I = undoInts(u);
  const int merged = I[0], count = I[1];
  const int* cols = I + 2;
  const double share = w.x[merged] / count;
  const double dm = w.dual ? w.d[merged] : 0.0;
  const int st = w.dual ? w.cs[merged] : kStBasic;
  for (int t = 0; t < count; ++t) {
    w.x[cols[t]] = share;
    if (!w.dual) continue;
    w.d[cols[t]] = dm;
    w.cs[cols[t]] = st;
  }
  if (w.dual && u->ni > 2 + count && (cols[count] > 0 || cols[count + 1] > 0)) mergedCellsBasis(cols + count, w);
}

void walkOne(const VRXundo* u, Walk& w) {
  switch (u->kind) {
    case UNDO_FIXCOL: undoFixCol(u, w); break;
    case UNDO_SUBSTCOL:
    case UNDO_SUBSTCOLX: undoSubstCol(u, w); break;
    case UNDO_DUPCOL: undoDupCol(u, w); break;
    case UNDO_PARROW: undoParRow(u, w); break;
    case UNDO_DOUBLETONROW: undoDoubleton(u, w); break;
    case UNDO_SINGLETONROW: undoSingletonRow(u, w); break;
    case UNDO_FORCINGROW: undoForcingRow(u, w); break;
    case UNDO_SCALECOL: undoScaleCol(u, w); break;
    case UNDO_COLTOSLACK: undoColToSlack(u, w); break;
    case UNDO_IMPLIEDCOL: undoImpliedCol(u, w); break;
    case UNDO_QCOL: undoQCol(u, w); break;
    case UNDO_SINGLETONEXPR: undoSingletonExpr(u, w); break;
    case UNDO_COMPLEMENT: undoComplement(u, w); break;
    case UNDO_IMPLIEDCONT: undoImpliedCont(u, w); break;
    case UNDO_BLOCK: undoBlock(u, w); break;
    case UNDO_TWOROWS: undoTwoRows(u, w); break;
    case UNDO_ROWSPLIT: undoRowSplit(u, w); break;
    case UNDO_MERGECOLS: undoMergeCols(u, w); break;
    default: break;  // 12 carries nothing back: its binary comes from crush
  }
}

}  // namespace

int uncrushLP(const VRXpresolvemap* map, const LPPoint& pre, LPPoint& out) {
  VRXenv* env = map->env;
  // The walk also runs over the columns and rows presolve added; the caller gets the original ones.
  const int n = map->origCols, m = map->origRows;
  const int wn = n + map->addedCols, wm = m + map->addedRows;
  Scratch<double> sx(env, wn), sy(env, wm), sd(env, wn);
  Scratch<int> scs(env, wn), srs(env, wm);
  if (!sx.a || !sy.a || !sd.a || !scs.a || !srs.a) return VRX_ERROR_OUT_OF_MEMORY;
  Walk w{sx.a,  sy.a, sd.a, scs.a, srs.a, pre.y != nullptr && pre.d != nullptr && pre.colStat && pre.rowStat,
         map->origLb, map->origUb};
  for (int j = 0; j < wn; ++j) {
    const int pj = map->colMap[j];
    if (pj >= 0) {
      w.x[j] = pre.x[pj];
      w.d[j] = w.dual ? pre.d[pj] : 0.0;
      w.cs[j] = w.dual ? (pre.colStat[pj] >= 0 ? kStBasic : pre.colStat[pj]) : kStBasic;
    } else {
      w.x[j] = 0;
      w.d[j] = 0;
      w.cs[j] = kStLower;
    }
  }
  for (int i = 0; i < wm; ++i) {
    const int pi = map->rowMap[i];
    if (pi >= 0 && w.dual) {
      w.y[i] = pre.y[pi];
      w.rs[i] = pre.rowStat[pi] >= 0 ? kRowBasic : kRowActive;
    } else {
      w.y[i] = 0;
      w.rs[i] = kRowBasic;
    }
  }
  for (const VRXundo* u = map->undo.head; u; u = u->next) walkOne(u, w);
  // A column left nonbasic between its bounds, or at an infinite one, is read as free.
  if (w.dual)
    for (int j = 0; j < n; ++j) {
      if (w.cs[j] == kStLower && map->origLb[j] <= -1e30) w.cs[j] = map->origUb[j] < 1e30 ? kStUpper : kStFree;
      if (w.cs[j] == kStUpper && map->origUb[j] >= 1e30) w.cs[j] = map->origLb[j] > -1e30 ? kStLower : kStFree;
    }
  for (int i = 0; i < m; ++i)
    if (map->rowNeg[i]) w.y[i] = -w.y[i];
  if (out.x) std::memcpy(out.x, w.x, sizeof(double) * static_cast<size_t>(n));
  if (w.dual) {
    if (out.y) std::memcpy(out.y, w.y, sizeof(double) * static_cast<size_t>(m));
    if (out.d) std::memcpy(out.d, w.d, sizeof(double) * static_cast<size_t>(n));
    if (out.colStat) std::memcpy(out.colStat, w.cs, sizeof(int) * static_cast<size_t>(n));
    if (out.rowStat) std::memcpy(out.rowStat, w.rs, sizeof(int) * static_cast<size_t>(m));
  }
  return 0;
}

int uncrushPrimal(const VRXpresolvemap* map, const double* preX, double* origX, int len) {
  VRXenv* env = map->env;
  const int n = map->origCols + map->addedCols;
  double* x = origX;
  Scratch<double> tmp(env, len < n ? n : 0);
  if (len < n) {
    if (!tmp.a) return VRX_ERROR_OUT_OF_MEMORY;
    x = tmp.a;
  }
  for (int j = 0; j < n; ++j) x[j] = map->colMap[j] >= 0 ? preX[map->colMap[j]] : 0.0;
  Walk w{x, nullptr, nullptr, nullptr, nullptr, false, map->origLb, map->origUb};
  for (const VRXundo* u = map->undo.head; u; u = u->next) walkOne(u, w);
  if (len < n) std::memcpy(origX, x, sizeof(double) * static_cast<size_t>(len));
  return 0;
}

int presolveMapIndex(VRXpresolvemap* map) {
  if (map->undoCount >= 0) return 0;
  VRXenv* env = map->env;
  const int cnt = map->undo.count;
  map->undoKinds = static_cast<int*>(envMalloc(env, sizeof(int) * (cnt + 1)));
  map->undoPayloads = static_cast<VRXundo**>(envMalloc(env, sizeof(VRXundo*) * (cnt + 1)));
  map->firstUse = static_cast<int*>(envMalloc(env, sizeof(int) * (map->origCols + 1)));
  map->nextUse = static_cast<int*>(envMalloc(env, sizeof(int) * (cnt + 1)));
  if (!map->undoKinds || !map->undoPayloads || !map->firstUse || !map->nextUse) {
    envFree(env, map->undoKinds);
    envFree(env, map->undoPayloads);
    envFree(env, map->firstUse);
    envFree(env, map->nextUse);
    map->undoKinds = nullptr;
    map->undoPayloads = nullptr;
    map->firstUse = map->nextUse = nullptr;
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  int k = cnt;
  for (VRXundo* u = map->undo.head; u; u = u->next) {
    --k;
    map->undoKinds[k] = u->kind;
    map->undoPayloads[k] = u;
  }
  for (int j = 0; j < map->origCols; ++j) map->firstUse[j] = -1;
  // Chains in record order: built from the newest back so each head is the oldest.
  for (int r = cnt - 1; r >= 0; --r) {
    map->nextUse[r] = -1;
    const int kind = map->undoKinds[r];
    if (kind != UNDO_FIXCOL && kind != UNDO_SUBSTCOL && kind != UNDO_SUBSTCOLX && kind != UNDO_SCALECOL &&
        kind != UNDO_MERGECOLS)
      continue;
    const int col = undoInts(map->undoPayloads[r])[0];
    map->nextUse[r] = map->firstUse[col];
    map->firstUse[col] = r;
  }
  map->undoCount = cnt;
  return 0;
}

int crushStart(const VRXpresolvemap* map, const double* origX, double* preX, int* partial) {
  VRXenv* env = map->env;
  const int n = map->origCols + map->addedCols;
  Scratch<double> sx(env, n);
  if (!sx.a) return VRX_ERROR_OUT_OF_MEMORY;
  double* x = sx.a;
  std::memcpy(x, origX, sizeof(double) * static_cast<size_t>(map->origCols));
  for (int j = map->origCols; j < n; ++j) x[j] = kUndefined;
  // Oldest first: collect the records into an order without touching the map.
  Scratch<const VRXundo*> order(env, static_cast<size_t>(map->undo.count));
  if (!order.a) return VRX_ERROR_OUT_OF_MEMORY;
  int cnt = 0;
  for (const VRXundo* u = map->undo.head; u; u = u->next) order.a[cnt++] = u;
  for (int r = cnt - 1; r >= 0; --r) {
    const VRXundo* u = order.a[r];
    const int* I = undoInts(u);
    const double* D = undoDbls(u);
    if (u->kind == UNDO_DUPCOL) {
      const int j = I[0], k = I[1];
      x[j] = (x[j] >= kUndefined || x[k] >= kUndefined) ? kUndefined : x[j] + D[0] * x[k];
    } else if (u->kind == UNDO_SCALECOL) {
      const int j = I[0];
      if (x[j] < kUndefined) x[j] = (x[j] - D[0]) / D[1];
    } else if (u->kind == UNDO_COLTOSLACK || u->kind == UNDO_SUBSTCOLX) {
      // The removed column from the row it was expressed by.
      const bool slack = u->kind == UNDO_COLTOSLACK;
      const int col = slack ? I[1] : I[0];
      const int count = slack ? I[4] : I[2];
      const int* cols = slack ? I + 5 : I + 4;
      const double a = D[0], b = slack ? D[2] : D[1];
      const double* coefs = D + 3;
      double rest = 0;
      for (int t = 0; t < count && rest < kUndefined; ++t)
        rest = x[cols[t]] >= kUndefined ? kUndefined : rest + coefs[t] * x[cols[t]];
      x[col] = rest >= kUndefined ? kUndefined : (b - rest) / a;
    } else if (u->kind == UNDO_BINMAP) {
      const int col = I[0], bin = I[1];
      x[bin] = x[col] >= kUndefined ? kUndefined : (x[col] > 1e-10 ? 1.0 : 0.0);
    } else if (u->kind == UNDO_ROWSPLIT) {
      const int col = I[1], count = I[3];
      double rest = 0;
      for (int t = 0; t < count && rest < kUndefined; ++t)
        rest = x[I[4 + t]] >= kUndefined ? kUndefined : rest + D[3 + t] * x[I[4 + t]];
      x[col] = rest >= kUndefined ? kUndefined : (D[0] - rest) / D[2];
    } else if (u->kind == UNDO_MERGECOLS) {
      const int count = I[1];
      double sum = 0;
      for (int t = 0; t < count && sum < kUndefined; ++t)
        sum = x[I[2 + t]] >= kUndefined ? kUndefined : sum + x[I[2 + t]];
      for (int t = 0; t < count; ++t) x[I[2 + t]] = sum;
      x[I[0]] = sum;
    } else if (u->kind == UNDO_BLOCK) {
      const int block = I[0], count = I[1];
      double sum = 0;
      for (int t = 0; t < count && sum < kUndefined; ++t)
        sum = x[I[2 + t]] >= kUndefined ? kUndefined : sum + D[t] * x[I[2 + t]];
      x[block] = sum;
    }
  }
  int undef = 0;
  for (int j = 0; j < n; ++j) {
    const int pj = map->colMap[j];
    if (pj < 0) continue;
    preX[pj] = x[j];
    if (x[j] >= kUndefined) undef = 1;
  }
  *partial = undef;
  return 0;
}

int crushExpr(VRXpresolvemap* map, int count, const int* ind, const double* coef, double rhs, int* outCount,
              int* outInd, double* outCoef, double* outRhs) {
  int rc = presolveMapIndex(map);
  if (rc) return rc;
  VRXenv* env = map->env;
  const int n = map->origCols;
  Scratch<double> sw(env, n);
  Scratch<int> sl(env, n);
  Scratch<char> sm(env, n);
  if (!sw.a || !sl.a || !sm.a) return VRX_ERROR_OUT_OF_MEMORY;
  double* wv = sw.a;
  int* list = sl.a;
  char* in = sm.a;
  std::memset(in, 0, static_cast<size_t>(n));
  int len = 0;
  auto addTo = [&](int j, double v) {
    if (!in[j]) {
      in[j] = 1;
      wv[j] = 0;
      list[len++] = j;
    }
    wv[j] += v;
    if (wv[j] == 0) wv[j] = 1e-100;  // a touched zero stays listed
  };
  for (int t = 0; t < count; ++t) addTo(ind[t], coef[t]);
  // Oldest record first: a substitution may bring in columns removed later.
  for (int r = 0; r < map->undoCount; ++r) {
    const VRXundo* u = map->undoPayloads[r];
    const int* I = undoInts(u);
    const double* D = undoDbls(u);
    const int col = I[0];
    if (u->kind == UNDO_COLTOSLACK) {
      const int j = I[1];
      if (!in[j] || std::fabs(wv[j]) <= 1e-100) continue;
      const double cj = wv[j], a = D[0];
      wv[j] = 1e-100;
      rhs -= cj * D[2] / a;
      for (int t = 0; t < I[4]; ++t) addTo(I[5 + t], -cj * D[3 + t] / a);
      continue;
    }
    if (u->kind == UNDO_DUPCOL) {
      const int k = I[1];
      if (in[k] && std::fabs(wv[k]) > 1e-100) {
        // x_k only lives on inside the merged column: the map is lost unless
        // the coefficients keep the ratio.
        const double cj = in[col] ? wv[col] : 0.0;
        if (std::fabs(wv[k] - D[0] * cj) > 1e-9 * (1 + std::fabs(wv[k]))) return 20000;
        wv[k] = 1e-100;
      }
      continue;
    }
    if (u->kind == UNDO_TWOROWS) {
      // x_j and x_k are affine in the rest: x_J = M^-1 (b - R x_rest).
      const int j = I[2], k = I[3], nRest = I[4];
      const double cj = in[j] ? wv[j] : 0.0, ck = in[k] ? wv[k] : 0.0;
      if (std::fabs(cj) <= 1e-100 && std::fabs(ck) <= 1e-100) continue;
      const double a1j = D[0], a1k = D[1], a2j = D[2], a2k = D[3], det = a1j * a2k - a1k * a2j;
      // w' = [cj ck] M^-1, then the expression gains -w' R and the rhs loses w' b.
      const double w1 = (cj * a2k - ck * a2j) / det, w2 = (ck * a1j - cj * a1k) / det;
      rhs -= w1 * D[4] + w2 * D[5];
      if (in[j]) wv[j] = 1e-100;
      if (in[k]) wv[k] = 1e-100;
      for (int t = 0; t < nRest; ++t) addTo(I[5 + t], -(w1 * D[8 + t] + w2 * D[8 + nRest + t]));
      continue;
    }
    if (u->kind == UNDO_MERGECOLS) {
      // Each member is an equal share of the sum, so the sum's coefficient
      // is the members' average; the others are gone from here on.
      const int count = I[1];
      double sum = 0;
      bool any = false;
      for (int t = 0; t < count; ++t)
        if (in[I[2 + t]]) {
          sum += wv[I[2 + t]];
          wv[I[2 + t]] = 1e-100;
          any = true;
        }
      if (any) addTo(col, sum / count);
      continue;
    }
    if (!in[col] || std::fabs(wv[col]) <= 1e-100) continue;
    const double cj = wv[col];
    if (u->kind == UNDO_FIXCOL) {
      rhs -= cj * D[0];
      wv[col] = 1e-100;
    } else if (u->kind == UNDO_SCALECOL) {
      rhs -= cj * D[0];
      wv[col] = cj * D[1];
    } else if (u->kind == UNDO_SUBSTCOL || u->kind == UNDO_SUBSTCOLX) {
      const int nRow = I[2];
      const double pivot = D[0];
      rhs -= cj * D[1] / pivot;
      wv[col] = 1e-100;
      for (int t = 0; t < nRow; ++t) addTo(I[4 + t], -cj * D[3 + t] / pivot);
    }
  }
  int oc = 0;
  for (int t = 0; t < len; ++t) {
    const int j = list[t];
    const double v = wv[j];
    if (std::fabs(v) <= 1e-10) continue;
    const int pj = map->colMap[j];
    if (pj < 0) {
      if (map->crushFlag) return 20000;
      continue;
    }
    outInd[oc] = pj;
    outCoef[oc] = v;
    oc++;
  }
  *outCount = oc;
  *outRhs = rhs;
  return 0;
}

}  // namespace vrx
