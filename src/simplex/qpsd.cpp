// Convexity test of the objective Q. The matrix is ordered by the barrier's minimum degree and
// factored by an up-looking sparse LDL' whose pivots never go negative: a pivot short of zero
// is dropped and its shortfall recorded, and so is an entry that meets a dropped pivot. Those
// shortfalls are the diagonal the matrix lacks. A large one is measured again as the smallest
// uniform shift, bracketed by a power-iteration estimate of the spectrum.
#include "simplex/qpsd.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "barrier/barfactor.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "vornix_c.h"

namespace vrx {
namespace {

// Shortfalls up to this size are taken as the factor found them; larger ones are measured
// as a uniform shift.
constexpr double kMeasureAbove = 1e-4;
// The uniform shift is searched only below this bound on the spectrum.
constexpr double kShiftLimit = 1e8;
// Each diagonal is raised by this much of its row's largest entry before the factor: without
// it, rounding in a singular PSD matrix leaves tiny pivots of either sign, and a tiny positive
// one taken as a pivot spoils the rows after it.
constexpr double kRegularise = 1e-9;
// Rounds of the check that the found amounts really repair the matrix.
constexpr int kRepairRounds = 5;

// The symmetric matrix over the columns that carry Q terms, and its factor.
struct SymFactor {
  explicit SymFactor(VRXenv* e)
      : env(e), orig(e), fbeg(e), find(e), fval(e), order(e), ubeg(e), uind(e), uval(e), scale(e), parent(e),
        lnz(e), flag(e), pattern(e), lbeg(e), lind(e), lval(e), D(e), Y(e), deficit(e) {}
  VRXenv* env;
  int k = 0;
  EnvVec<int> orig;  // compressed index -> model column
  // Both triangles, compressed order, duplicates summed.
  EnvVec<int64_t> fbeg;
  EnvVec<int> find;
  EnvVec<double> fval;
  EnvVec<int> order;  // factor position -> compressed index
  // Upper triangle with the diagonal, by columns of the factor order.
  EnvVec<int64_t> ubeg;
  EnvVec<int> uind;
  EnvVec<double> uval;
  EnvVec<double> scale;  // largest |entry| of each row, factor order
  EnvVec<int> parent, lnz, flag, pattern;
  EnvVec<int64_t> lbeg;
  EnvVec<int> lind;
  EnvVec<double> lval, D, Y, deficit;
};

// Compressed symmetric matrix of the terms: a diagonal term counts whole, an off-diagonal
// one half on each side.
void buildMatrix(SymFactor& f, int n, int nnz, const int* row, const int* col, const double* val, double termScale) {
  EnvVec<int> map(f.env);
  map.resize(static_cast<size_t>(n), -1);
  for (int t = 0; t < nnz; t++)
    for (int j : {row[t], col[t]})
      if (map[j] < 0) {
        map[j] = f.k++;
        f.orig.push_back(j);
      }
  const size_t k = static_cast<size_t>(f.k);
  EnvVec<int64_t> cnt(f.env);
  cnt.resize(k + 1, 0);
  for (int t = 0; t < nnz; t++) {
    cnt[map[col[t]]]++;
    if (row[t] != col[t]) cnt[map[row[t]]]++;
  }
  f.fbeg.resize(k + 1, 0);
  for (size_t j = 0; j < k; j++) f.fbeg[j + 1] = f.fbeg[j] + cnt[j];
  f.find.resize(static_cast<size_t>(f.fbeg[k]));
  f.fval.resize(static_cast<size_t>(f.fbeg[k]));
  for (size_t j = 0; j < k; j++) cnt[j] = f.fbeg[j];
  for (int t = 0; t < nnz; t++) {
    const int r = map[row[t]], c = map[col[t]];
    const double v = termScale * val[t];
    if (r == c) {
      f.find[cnt[c]] = r;
      f.fval[cnt[c]++] = v;
    } else {
      f.find[cnt[c]] = r;
      f.fval[cnt[c]++] = 0.5 * v;
      f.find[cnt[r]] = c;
      f.fval[cnt[r]++] = 0.5 * v;
    }
  }
  // Sum duplicates and drop zeros, column by column in place.
  EnvVec<int64_t> at(f.env);
  EnvVec<int> seen(f.env);
  at.resize(k, 0);
  seen.resize(k, -1);
  int64_t out = 0;
  for (size_t j = 0; j < k; j++) {
    const int64_t b = out;
    for (int64_t p = f.fbeg[j]; p < f.fbeg[j + 1]; p++) {
      const int r = f.find[p];
      if (seen[r] == static_cast<int>(j)) {
        f.fval[at[r]] += f.fval[p];
      } else {
        seen[r] = static_cast<int>(j);
        at[r] = out;
        f.find[out] = r;
        f.fval[out++] = f.fval[p];
      }
    }
    int64_t keep = b;
    for (int64_t p = b; p < out; p++)
      if (f.fval[p] != 0.0) {
        f.find[keep] = f.find[p];
        f.fval[keep++] = f.fval[p];
      }
    out = keep;
    f.fbeg[j] = b;
  }
  f.fbeg[k] = out;
}

// Minimum degree order, the permuted upper triangle, the row scales and the symbolic factor.
int orderAndAnalyse(SymFactor& f) {
  const int k = f.k;
  const size_t sk = static_cast<size_t>(k);
  EnvVec<int64_t> xadj(f.env);
  EnvVec<int> adj(f.env);
  xadj.resize(sk + 1, 0);
  for (int j = 0; j < k; j++) {
    for (int64_t p = f.fbeg[j]; p < f.fbeg[j + 1]; p++)
      if (f.find[p] != j) adj.push_back(f.find[p]);
    xadj[j + 1] = static_cast<int64_t>(adj.size());
  }
  f.order.resize(sk);
  if (adj.empty()) {
    for (int j = 0; j < k; j++) f.order[j] = j;
  } else {
    int rc = VRXbarAMD(f.env, k, xadj.data(), adj.data(), f.order.data());
    if (rc) return rc;
  }
  EnvVec<int> inv(f.env);
  inv.resize(sk);
  for (int p = 0; p < k; p++) inv[f.order[p]] = p;
  f.ubeg.resize(sk + 1, 0);
  f.scale.resize(sk, 0.0);
  for (int p = 0; p < k; p++) {
    const int j = f.order[p];
    for (int64_t q = f.fbeg[j]; q < f.fbeg[j + 1]; q++) {
      f.scale[p] = std::max(f.scale[p], std::fabs(f.fval[q]));
      if (inv[f.find[q]] > p) continue;
      f.uind.push_back(inv[f.find[q]]);
      f.uval.push_back(f.fval[q]);
    }
    f.ubeg[p + 1] = static_cast<int64_t>(f.uind.size());
  }
  // Elimination tree and column counts of L.
  f.parent.resize(sk);
  f.lnz.resize(sk);
  f.flag.resize(sk);
  for (int c = 0; c < k; c++) {
    f.parent[c] = -1;
    f.flag[c] = c;
    f.lnz[c] = 0;
    for (int64_t q = f.ubeg[c]; q < f.ubeg[c + 1]; q++) {
      for (int i = f.uind[q]; f.flag[i] != c; i = f.parent[i]) {
        if (f.parent[i] == -1) f.parent[i] = c;
        f.lnz[i]++;
        f.flag[i] = c;
      }
    }
  }
  f.lbeg.resize(sk + 1, 0);
  for (int c = 0; c < k; c++) f.lbeg[c + 1] = f.lbeg[c] + f.lnz[c];
  f.lind.resize(static_cast<size_t>(f.lbeg[sk]) + 1);
  f.lval.resize(static_cast<size_t>(f.lbeg[sk]) + 1);
  f.pattern.resize(sk);
  f.D.resize(sk);
  f.Y.resize(sk, 0.0);
  f.deficit.resize(sk);
  return 0;
}

struct Pass {
  bool broken = false;
  bool trouble = false;
  double minPivot = 0.0;
};

// LDL' of the matrix with shift + add[p] on its diagonal. A pivot within rounding of zero is
// dropped; a negative one is dropped and its size recorded in deficit; an entry that meets a
// dropped pivot records, on both diagonals it joins, what their 2 x 2 block lacks.
Pass factor(SymFactor& f, double shift, const double* add, double* ops) {
  const int k = f.k;
  Pass r;
  r.minPivot = kInf;
  std::fill(f.deficit.data(), f.deficit.data() + k, 0.0);
  for (int c = 0; c < k; c++) {
    f.flag[c] = c;
    f.lnz[c] = 0;
    int top = k;
    for (int64_t q = f.ubeg[c]; q < f.ubeg[c + 1]; q++) {
      int i = f.uind[q];
      f.Y[i] += f.uval[q];
      int len = 0;
      for (; f.flag[i] != c; i = f.parent[i]) {
        f.pattern[len++] = i;
        f.flag[i] = c;
      }
      while (len > 0) f.pattern[--top] = f.pattern[--len];
    }
    const double diagAdd = shift + (add ? add[c] : 0.0) + kRegularise * f.scale[c];
    const double diag = f.Y[c] + diagAdd;
    double d = diag;
    f.Y[c] = 0.0;
    double cancel = 0.0;
    for (; top < k; top++) {
      const int i = f.pattern[top];
      const double yi = f.Y[i];
      f.Y[i] = 0.0;
      const int64_t end = f.lbeg[i] + f.lnz[i];
      for (int64_t q = f.lbeg[i]; q < end; q++) f.Y[f.lind[q]] -= f.lval[q] * yi;
      *ops += static_cast<double>(f.lnz[i]) + 1.0;
      double l = 0.0;
      if (f.D[i] != 0.0) {
        l = yi / f.D[i];
        d -= l * yi;
        cancel = std::max(cancel, std::fabs(l * yi));
      } else if (yi != 0.0) {
        // [0 yi; yi a] with a the diagonal of c needs delta on both: delta (a + delta) = yi^2.
        const double a = std::max(0.0, diag), y2 = yi * yi;
        const double delta = 2.0 * y2 / (a + std::sqrt(a * a + 4.0 * y2));
        if (delta > 1e-12 * std::max(f.scale[i], f.scale[c])) {
          r.trouble = true;
          f.deficit[i] = std::max(f.deficit[i], delta);
          f.deficit[c] = std::max(f.deficit[c], delta);
        }
      }
      f.lind[end] = c;
      f.lval[end] = l;
      f.lnz[i]++;
    }
    if (!std::isfinite(d)) {
      r.broken = true;
      return r;
    }
    const double zero = 1e-12 * std::max(f.scale[c] + std::fabs(diagAdd), cancel);
    if (d > zero) {
      f.D[c] = d;
      r.minPivot = std::min(r.minPivot, d);
    } else {
      f.D[c] = 0.0;
      if (d < -zero) {
        r.trouble = true;
        f.deficit[c] = std::max(f.deficit[c], -d);
      }
    }
  }
  if (r.minPivot == kInf) r.minPivot = 0.0;
  return r;
}

// Power iteration for the largest eigenvalue in magnitude, from the unit vector 1/sqrt(k).
double spectrumEstimate(const SymFactor& f, double* ops) {
  const int k = f.k;
  EnvVec<double> v(f.env), w(f.env);
  v.resize(static_cast<size_t>(k), 1.0 / std::sqrt(static_cast<double>(k)));
  w.resize(static_cast<size_t>(k));
  double est = 0.0, prev = 0.0;
  for (int it = 1; it <= 100; it++) {
    for (int j = 0; j < k; j++) {
      double s = 0.0;
      for (int64_t p = f.fbeg[j]; p < f.fbeg[j + 1]; p++) s += f.fval[p] * v[f.find[p]];
      w[j] = s;
    }
    *ops += static_cast<double>(f.fbeg[k]);
    double norm = 0.0;
    for (int j = 0; j < k; j++) norm += w[j] * w[j];
    norm = std::sqrt(norm);
    if (!(norm > 0.0) || !std::isfinite(norm)) return norm > 0.0 ? kInf : 0.0;
    est = norm;
    for (int j = 0; j < k; j++) v[j] = w[j] / norm;
    if (it >= 6 && std::fabs(est / prev - 1.0) <= 1e-6) break;
    prev = est;
  }
  return est;
}

// The smallest uniform shift that factors without shortfall, between the bracket the shifted
// factor gives (its smallest pivot bounds the lowest eigenvalue from above) and the shift
// itself. Returns -1 when the estimate gave no usable bracket.
double uniformShift(SymFactor& f, double* ops) {
  const double sigma = 1.01 * spectrumEstimate(f, ops);
  if (!(sigma > 0.0) || sigma > kShiftLimit) return -1.0;
  Pass top = factor(f, sigma, nullptr, ops);
  if (top.broken || top.trouble) return -1.0;
  double lo = std::max(0.0, sigma - top.minPivot), hi = sigma;
  for (int it = 0; it < 60 && hi - lo > 0.01 * hi; it++) {
    const double mid = 0.5 * (lo + hi);
    Pass p = factor(f, mid, nullptr, ops);
    if (p.broken) break;
    (p.trouble ? lo : hi) = mid;
  }
  return hi;
}

// The statistics block of the factor, as the barrier prints its own.
void logQStats(const SymFactor& f) {
  VRXbarstats st{};
  st.qNz = static_cast<double>(f.fbeg[static_cast<size_t>(f.k)]);
  double nz = 0, ops = 0;
  for (int c = 0; c < f.k; c++) {
    const double l = f.lnz[static_cast<size_t>(c)];
    nz += l + 1;
    ops += l * l;
  }
  st.factorNz = nz;
  st.factorOps = ops;
  st.secondsPerIter = -1;
  VRXbarLogStats(f.env, st, 1, true);
}

}  // namespace

int psdTest(VRXenv* env, int n, int nnz, const int* row, const int* col, const double* val, double termScale,
            PsdFinding* out, double* work) {
  out->broken = 0;
  out->shift = 0.0;
  out->cols.clear();
  out->amounts.clear();
  if (nnz <= 0) return 0;
  try {
    SymFactor f(env);
    buildMatrix(f, n, nnz, row, col, val, termScale);
    int rc = orderAndAnalyse(f);
    if (rc) return rc;
    logQStats(f);
    double ops = 0.0;
    Pass first = factor(f, 0.0, nullptr, &ops);
    if (first.broken || !first.trouble) {
      out->broken = first.broken ? 1 : 0;
      *work += ops;
      return 0;
    }
    const size_t k = static_cast<size_t>(f.k);
    EnvVec<double> add(env);
    add.resize(k, 0.0);
    double s = 0.0;
    for (size_t p = 0; p < k; p++) {
      add[p] = f.deficit[p];
      s = std::max(s, add[p]);
    }
    // The shortfalls repair a negative diagonal standing alone; where a dropped pivot had
    // entries beside it they do not, and the uniform shift is taken when it is smaller.
    Pass check = factor(f, 0.0, add.data(), &ops);
    const bool alone = !check.broken && !check.trouble;
    const double uniform = s > kMeasureAbove || !alone ? uniformShift(f, &ops) : -1.0;
    if (uniform >= 0.0 && (!alone || uniform < s)) {
      std::fill(add.data(), add.data() + k, uniform);
    } else if (!alone) {
      // No bracket: the shortfalls grow until the factor holds, or the last ones stand.
      for (int round = 0; round < kRepairRounds && (check.trouble || check.broken); round++) {
        if (check.broken) {
          out->broken = 1;
          break;
        }
        for (size_t q = 0; q < k; q++) add[q] += f.deficit[q];
        check = factor(f, 0.0, add.data(), &ops);
      }
    }
    for (size_t p = 0; p < k; p++) {
      if (!(add[p] > 0.0)) continue;
      out->shift = std::max(out->shift, add[p]);
      out->cols.push_back(f.orig[f.order[p]]);
      out->amounts.push_back(add[p]);
    }
    *work += ops;
  } catch (const std::bad_alloc&) {
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  return 0;
}

}  // namespace vrx

int VRXqCheckPSD(VRXmodel* model, vrx::Clock& clock) {
  using namespace vrx;
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const ParamStore& par = env->par;
  if (!d || d->numQNZs <= 0 || par.VORN_PAR_QPSDCHECK == 0) return 0;
  const double tol = par.PSDTol;
  // The store keeps a term doubled; a binary's square is its value, so its sign is free.
  for (int k = 0; k < d->numQNZs; k++) {
    const int j = d->qRow[k];
    if (j == d->qCol[k] && 0.5 * d->qVal[k] < -tol && !(d->vtype && d->vtype[j] == 'B'))
      return raise(env, VRX_ERROR_Q_NOT_PSD, true, "Objective Q not PSD (negative diagonal entry)");
  }
  PsdFinding found(env);
  double work = 0.0;
  int rc = psdTest(env, d->numVars, d->numQNZs, d->qRow, d->qCol, d->qVal, 0.5, &found, &work);
  clockCharge(clock, work);
  if (rc) return rc;
  if (found.broken) return raise(env, VRX_ERROR_Q_NOT_PSD, true, "Objective Q not positive semi-definite (PSD)");
  if (found.shift <= 0.0) return 0;
  auto tooFar = [&] {
    return raise(env, VRX_ERROR_Q_NOT_PSD, true, "Objective Q not PSD (diagonal adjustment of %.1e would be required)",
                 found.shift);
  };
  if (found.shift > tol) return tooFar();
  if (par.VORN_PAR_QPSDADJUST == 0) return 0;
  log(env, "Warning: diagonal adjustment of %.1e performed to make Q PSD\n", found.shift);
  // The caller's terms are in the model's sense; the store turns them into its own.
  const size_t cnt = found.cols.size();
  for (size_t t = 0; t < cnt; t++) found.amounts[t] = std::max(found.amounts[t], 1e-13) * d->modelSense;
  rc = pendingAddQTerms(model, static_cast<int>(cnt), found.cols.data(), found.cols.data(), found.amounts.data());
  if (!rc) rc = modelUpdate(model);
  if (rc == VRX_ERROR_OUT_OF_MEMORY) return rc;
  return rc ? tooFar() : 0;
}

bool VRXisQPForm(const VRXmodel* model) {
  if (!model) return false;
  if (model->env && model->env->par.VORN_PAR_FORCEQP != 0) return true;
  const VRXmodeldata* d = model->data;
  return d && d->numQNZs > 0 && d->numIntVars == 0;
}
