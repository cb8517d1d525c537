#include "presolve/pwl.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "env/envvec.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/result.h"
#include "simplex/lp.h"
#include "simplex/lpdriver.h"

namespace vrx {

namespace {

int points(const VRXmodeldata* d, int j) { return d->pwlBeg && d->pwlCount ? d->pwlCount[j] : 0; }

bool convexTerm(const double* x, const double* y, int count) {
  double last = -kInf;
  for (int k = 1; k < count; ++k) {
    if (x[k] == x[k - 1]) {
      // A jump has no convex reading once the ends are extended.
      if (y[k] != y[k - 1]) return false;
      continue;
    }
    const double slope = (y[k] - y[k - 1]) / (x[k] - x[k - 1]);
    // The same tolerance as the PWLObjCvx attribute, so both agree.
    if (slope < last - 1e-12) return false;
    last = slope;
  }
  return true;
}

// Frees the LP form however the solve ends; it logs through the caller's env.
struct Derived {
  VRXmodel* m = nullptr;
  ~Derived() {
    if (!m) return;
    VRXlpFreeOnModel(m);
    modelDestroy(m);
  }
};

// Builds the LP form (caller's sense, so its log and results read like the model's).
int buildForm(VRXmodel* model, VRXmodel** out) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  const double sense = d->modelSense;

  EnvVec<int> linkRow(env);  // per column, its equality row or -1
  linkRow.resize(static_cast<size_t>(n), -1);
  EnvVec<size_t> beg(env);
  EnvVec<int> len(env), ind(env);
  EnvVec<double> val(env), obj(env), lb(env), ub(env), rhs(env);
  EnvVec<char> rsense(env);
  double objCon = d->objCon;

  int links = 0;
  for (int j = 0; j < n; ++j) {
    const int cnt = points(d, j);
    if (cnt == 0) continue;
    const double* px = d->pwlX + d->pwlBeg[j];
    const double* py = d->pwlY + d->pwlBeg[j];
    objCon += py[0];
    // A term without a segment is a constant.
    if (px[cnt - 1] > px[0]) linkRow[static_cast<size_t>(j)] = m + links++;
  }

  for (int i = 0; i < m; ++i) {
    rhs.push_back(d->rhs[i]);
    rsense.push_back(d->sense[i]);
  }
  for (int j = 0; j < n; ++j) {
    beg.push_back(ind.size());
    for (int64_t p = d->colBeg[j]; p < d->colBeg[j] + d->colLen[j]; ++p) {
      ind.push_back(d->rowInd[p]);
      val.push_back(d->val[p]);
    }
    if (linkRow[static_cast<size_t>(j)] >= 0) {
      ind.push_back(linkRow[static_cast<size_t>(j)]);
      val.push_back(1.0);
    }
    len.push_back(static_cast<int>(ind.size() - beg.back()));
    obj.push_back(sense * d->obj[j]);
    lb.push_back(d->lb[j]);
    ub.push_back(d->ub[j]);
  }
  auto column = [&](int row, double coef, double cost, double lo, double up) {
    beg.push_back(ind.size());
    ind.push_back(row);
    val.push_back(coef);
    len.push_back(1);
    obj.push_back(sense * cost);
    lb.push_back(lo);
    ub.push_back(up);
  };
  for (int j = 0; j < n; ++j) {
    const int row = linkRow[static_cast<size_t>(j)];
    if (row < 0) continue;
    const int cnt = points(d, j);
    const double* px = d->pwlX + d->pwlBeg[j];
    const double* py = d->pwlY + d->pwlBeg[j];
    double first = 0, last = 0;
    bool seen = false;
    for (int k = 0; k + 1 < cnt; ++k) {
      const double width = px[k + 1] - px[k];
      if (width <= 0) continue;
      const double slope = (py[k + 1] - py[k]) / width;
      if (!seen) first = slope;
      seen = true;
      last = slope;
      column(row, -1.0, slope, 0.0, width);
    }
    // The end segments go on beyond the end points, where the bounds allow.
    if (d->ub[j] > px[cnt - 1]) column(row, -1.0, last, 0.0, kInf);
    if (d->lb[j] < px[0]) column(row, 1.0, -first, 0.0, kInf);
    rhs.push_back(px[0]);
    rsense.push_back('=');
  }
  const int cols = static_cast<int>(len.size());
  const int rows = m + links;
  // Keep the pointers valid for an empty side.
  beg.push_back(ind.size());
  ind.push_back(0);
  val.push_back(0);
  rhs.push_back(0);
  rsense.push_back('=');
  len.push_back(0);
  obj.push_back(0);
  lb.push_back(0);
  ub.push_back(0);

  LoadArgs a;
  a.name = "pwl";
  a.numVars = cols;
  a.numConstrs = rows;
  a.objSense = d->modelSense;
  a.objCon = sense * objCon;
  a.obj = obj.data();
  a.sense = rsense.data();
  a.rhs = rhs.data();
  a.beg64 = beg.data();
  a.len = len.data();
  a.ind = ind.data();
  a.val = val.data();
  a.lb = lb.data();
  a.ub = ub.data();
  VRXmodel* form = nullptr;
  int rc = modelLoadDerived(env, a, &form);
  if (rc) return rc;
  *out = form;
  return 0;
}

template <class T>
T* copyPrefix(VRXenv* env, const T* src, int count) {
  T* dst = envAllocArray<T>(env, static_cast<size_t>(count) + 1);
  if (!dst) throw std::bad_alloc();
  for (int k = 0; k < count; ++k) dst[k] = src[k];
  return dst;
}

// The LP form's result on the model: its columns and rows come first in the form.
int publish(VRXmodel* model, const VRXmodel* form) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  const VRXresult* fr = form->result;
  VRXresult* r = resultCreate(env, n, m, d->numQConstrs);
  if (!r) return VRX_ERROR_OUT_OF_MEMORY;
  resultFree(env, model->result);
  model->result = r;
  model->status = form->status;
  if (!fr) return 0;
  // Both have one optimum, so the bounds carry over; Kappa would be the form's basis and does not.
  r->objBound = fr->objBound;
  r->objBoundC = fr->objBoundC;
  r->iterCount = fr->iterCount;
  r->iterCount0 = fr->iterCount0;
  r->barIterCount = fr->barIterCount;
  r->concurrentWinner = fr->concurrentWinner;
  r->solCount = fr->solCount;
  r->objVal = fr->objVal;
  try {
    if (fr->x) {
      r->x = copyPrefix(env, fr->x, n);
      // The objective on the model's own terms, not on the form's columns.
      double obj = d->objCon;
      for (int j = 0; j < n; ++j) obj += d->obj[j] * r->x[j] + pwlValue(d, j, r->x[j]);
      r->objVal = d->modelSense * obj;
    }
    if (fr->slack) r->slack = copyPrefix(env, fr->slack, m);
    if (fr->pi) r->pi = copyPrefix(env, fr->pi, m);
    // The form's reduced cost of x_j already holds the slope the term has at x_j.
    if (fr->rc) r->rc = copyPrefix(env, fr->rc, n);
    if (fr->farkasDual) {
      // The extension rays force the multipliers of the equality rows to 0, so
      // the original rows alone carry the proof.
      r->farkasDual = copyPrefix(env, fr->farkasDual, m);
      r->farkasProof = fr->farkasProof;
    }
    // The x part of the form's ray: along it the form's cost, which bounds the
    // model's objective from above, falls without end.
    if (fr->unbdRay) r->unbdRay = copyPrefix(env, fr->unbdRay, n);
  } catch (const std::bad_alloc&) {
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  return 0;
}

}  // namespace

int pwlConvex(const VRXmodeldata* d) {
  for (int j = 0; j < d->numVars; ++j) {
    const int cnt = points(d, j);
    if (cnt > 1 && !convexTerm(d->pwlX + d->pwlBeg[j], d->pwlY + d->pwlBeg[j], cnt)) return 0;
  }
  return 1;
}

double pwlValue(const VRXmodeldata* d, int j, double x) {
  const int cnt = points(d, j);
  if (cnt == 0) return 0.0;
  const double* px = d->pwlX + d->pwlBeg[j];
  const double* py = d->pwlY + d->pwlBeg[j];
  if (px[cnt - 1] == px[0]) return py[0];
  // The first and last segments of nonzero width carry the extensions.
  int a = 0;
  while (px[a + 1] == px[a]) ++a;
  int b = cnt - 1;
  while (px[b - 1] == px[b]) --b;
  if (x <= px[0]) return py[a] + (py[a + 1] - py[a]) / (px[a + 1] - px[a]) * (x - px[a]);
  if (x >= px[cnt - 1]) return py[b] + (py[b] - py[b - 1]) / (px[b] - px[b - 1]) * (x - px[b]);
  const int k = static_cast<int>(std::upper_bound(px, px + cnt, x) - px) - 1;
  return py[k] + (py[k + 1] - py[k]) / (px[k + 1] - px[k]) * (x - px[k]);
}

int pwlOptimize(VRXmodel* model, Clock& clock) {
  VRXenv* env = model->env;
  VRXlpFreeOnModel(model);
  if (!pwlConvex(model->data))
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true,
                 "Piecewise-linear objectives that are not convex need the mixed-integer solver");
  Derived form;
  try {
    int rc = buildForm(model, &form.m);
    if (rc) return rc;
  } catch (const std::bad_alloc&) {
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  // Piecewise models keep their primal form: PreDual does not apply to them.
  struct KeepPreDual {
    VRXenv* env;
    int value;
    ~KeepPreDual() { env->par.PreDual = value; }
  } keep{env, env->par.PreDual};
  if (env->par.Method == 2 && keep.value > 0)
    log(env, "Warning: PreDual = %d isn't supported for PW Linear objective.\n", keep.value);
  env->par.PreDual = 0;
  int rc = lpOptimize(form.m, clock);
  if (rc) return rc;
  return publish(model, form.m);
}

}  // namespace vrx
