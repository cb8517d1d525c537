// Reading the store back in the caller's terms: matrix, SOS, Q, quadratic constraints.
#include <climits>
#include <cstring>

#include "model/model.h"
#include "model/modeldata.h"

namespace vrx {

namespace {

bool rangeBad(int start, int len, int count) {
  return start < 0 || len < 0 || static_cast<int64_t>(start) + len > count;
}

// The int forms cannot report more than INT_MAX entries.
template <class Count>
bool fits(int64_t total) {
  return sizeof(Count) >= sizeof(int64_t) || total <= INT_MAX;
}

template <class Count>
int getColumns(const VRXmodeldata* d, Count* numnzP, Count* beg, int* ind, double* val,
               int start, int len) {
  if (!numnzP) return VRX_ERROR_NULL_ARGUMENT;
  if (rangeBad(start, len, d->numVars)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  int64_t total = 0;
  for (int j = start; j < start + len; ++j) total += d->colLen[j];
  if (!fits<Count>(total)) return VRX_ERROR_EXCEED_2B_NONZEROS;
  *numnzP = static_cast<Count>(total);
  if (!beg) return 0;
  int64_t pos = 0;
  for (int j = start; j < start + len; ++j) {
    beg[j - start] = static_cast<Count>(pos);
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k, ++pos) {
      if (ind) ind[pos] = d->rowInd[k];
      if (val) val[pos] = storeValue(d, d->rowInd[k], j, d->val[k]);
    }
  }
  return 0;
}

// Rows come from the column store in two passes: count, then place; within
// a row the entries stand in column order.
template <class Count>
int getRows(VRXenv* env, const VRXmodeldata* d, Count* numnzP, Count* beg, int* ind,
            double* val, int start, int len) {
  if (!numnzP) return VRX_ERROR_NULL_ARGUMENT;
  if (rangeBad(start, len, d->numConstrs)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  if (len == 0) {
    *numnzP = 0;
    return 0;
  }
  auto* cursor = envCallocArray<int64_t>(env, static_cast<size_t>(len));
  if (!cursor) return VRX_ERROR_OUT_OF_MEMORY;
  const int end = start + len;
  for (int j = 0; j < d->numVars; ++j)
    for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) {
      int r = d->rowInd[k];
      if (r >= start && r < end) ++cursor[r - start];
    }
  int64_t total = 0;
  for (int i = 0; i < len; ++i) {
    int64_t c = cursor[i];
    cursor[i] = total;
    total += c;
  }
  if (!fits<Count>(total)) {
    envFree(env, cursor);
    return VRX_ERROR_EXCEED_2B_NONZEROS;
  }
  *numnzP = static_cast<Count>(total);
  if (beg) {
    for (int i = 0; i < len; ++i) beg[i] = static_cast<Count>(cursor[i]);
    for (int j = 0; j < d->numVars; ++j)
      for (int64_t k = d->colBeg[j]; k < d->colBeg[j] + d->colLen[j]; ++k) {
        int r = d->rowInd[k];
        if (r < start || r >= end) continue;
        int64_t p = cursor[r - start]++;
        if (ind) ind[p] = j;
        if (val) val[p] = storeValue(d, r, j, d->val[k]);
      }
  }
  envFree(env, cursor);
  return 0;
}

int getCoeff(const VRXmodeldata* d, int constr, int var, double* valP) {
  if (!valP) return VRX_ERROR_NULL_ARGUMENT;
  if (constr < 0 || constr >= d->numConstrs || var < 0 || var >= d->numVars)
    return VRX_ERROR_INDEX_OUT_OF_RANGE;
  *valP = 0.0;
  for (int64_t k = d->colBeg[var]; k < d->colBeg[var] + d->colLen[var]; ++k)
    if (d->rowInd[k] == constr) {
      *valP = storeValue(d, constr, var, d->val[k]);
      break;
    }
  return 0;
}

int getSos(const VRXmodeldata* d, int* nummembersP, int* sostype, int* beg, int* ind,
           double* weight, int start, int len) {
  if (!nummembersP) return VRX_ERROR_NULL_ARGUMENT;
  if (rangeBad(start, len, d->numSOS)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  if (len == 0) {
    *nummembersP = 0;
    return 0;
  }
  int64_t first = d->sosBeg[start];
  int64_t total = d->sosBeg[start + len] - first;
  if (total > INT_MAX) return VRX_ERROR_EXCEED_2B_NONZEROS;
  *nummembersP = static_cast<int>(total);
  if (sostype)
    for (int s = start; s < start + len; ++s) sostype[s - start] = d->sosType[s];
  if (!beg) return 0;
  for (int s = start; s < start + len; ++s) beg[s - start] = static_cast<int>(d->sosBeg[s] - first);
  for (int64_t k = first; k < first + total; ++k) {
    if (ind) ind[k - first] = d->sosInd[k];
    if (weight) weight[k - first] = d->sosWeight[k];
  }
  return 0;
}

int getQ(const VRXmodeldata* d, int* numqnzP, int* qrow, int* qcol, double* qval) {
  if (!numqnzP) return VRX_ERROR_NULL_ARGUMENT;
  *numqnzP = d->numQNZs;
  // The store keeps 2 * a * modelSense for a term a*x*y.
  const double back = 0.5 * d->modelSense;
  for (int k = 0; k < d->numQNZs; ++k) {
    if (qrow) qrow[k] = d->qRow[k];
    if (qcol) qcol[k] = d->qCol[k];
    if (qval) qval[k] = back * d->qVal[k];
  }
  return 0;
}

int getQConstr(const VRXmodeldata* d, int qc, int* numlnzP, int* lind, double* lval,
               int* numqnzP, int* qrow, int* qcol, double* qval) {
  if (!numlnzP || !numqnzP) return VRX_ERROR_NULL_ARGUMENT;
  if (qc < 0 || qc >= d->numQConstrs) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  int64_t lb = d->qcLinBeg[qc], le = d->qcLinBeg[qc + 1];
  int64_t qb = d->qcQuadBeg[qc], qe = d->qcQuadBeg[qc + 1];
  *numlnzP = static_cast<int>(le - lb);
  *numqnzP = static_cast<int>(qe - qb);
  for (int64_t k = lb; k < le; ++k) {
    if (lind) lind[k - lb] = d->qcLinInd[k];
    if (lval) lval[k - lb] = d->qcLinVal[k];
  }
  for (int64_t k = qb; k < qe; ++k) {
    if (qrow) qrow[k - qb] = d->qcRow[k];
    if (qcol) qcol[k - qb] = d->qcCol[k];
    if (qval) qval[k - qb] = d->qcVal[k];
  }
  return 0;
}

// In-place heap sort of parallel arrays: the exported cleaners have no
// environment, hence no allocator.
template <class Less, class Swap>
void heapSort(int n, Less less, Swap swap) {
  auto sift = [&](int root, int end) {
    for (;;) {
      int64_t child = 2 * static_cast<int64_t>(root) + 1;
      if (child >= end) return;
      int c = static_cast<int>(child);
      if (c + 1 < end && less(c, c + 1)) ++c;
      if (!less(root, c)) return;
      swap(root, c);
      root = c;
    }
  };
  for (int i = n / 2 - 1; i >= 0; --i) sift(i, n);
  for (int end = n - 1; end > 0; --end) {
    swap(0, end);
    sift(0, end);
  }
}

template <class T>
void swapAt(T* a, int i, int j) {
  T t = a[i];
  a[i] = a[j];
  a[j] = t;
}

}  // namespace

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXgetvars(VRXmodel* model, int* numnzP, int* vbeg, int* vind, double* vval,
                       int start, int len) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    return setError(env, getColumns<int>(model->data, numnzP, vbeg, vind, vval, start, len));
  });
}

VRX_API int VRXXgetvars(VRXmodel* model, size_t* numnzP, size_t* vbeg, int* vind, double* vval,
                        int start, int len) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    return setError(env, getColumns<size_t>(model->data, numnzP, vbeg, vind, vval, start, len));
  });
}

VRX_API int VRXgetconstrs(VRXmodel* model, int* numnzP, int* cbeg, int* cind, double* cval,
                          int start, int len) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    return setError(env, getRows<int>(env, model->data, numnzP, cbeg, cind, cval, start, len));
  });
}

VRX_API int VRXXgetconstrs(VRXmodel* model, size_t* numnzP, size_t* cbeg, int* cind,
                           double* cval, int start, int len) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    return setError(env,
                    getRows<size_t>(env, model->data, numnzP, cbeg, cind, cval, start, len));
  });
}

VRX_API int VRXgetcoeff(VRXmodel* model, int constr, int var, double* valP) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] { return setError(env, getCoeff(model->data, constr, var, valP)); });
}

VRX_API int VRXgetsos(VRXmodel* model, int* nummembersP, int* sostype, int* beg, int* ind,
                      double* weight, int start, int len) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    return setError(env, getSos(model->data, nummembersP, sostype, beg, ind, weight, start, len));
  });
}

VRX_API int VRXgetq(VRXmodel* model, int* numqnzP, int* qrow, int* qcol, double* qval) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] { return setError(env, getQ(model->data, numqnzP, qrow, qcol, qval)); });
}

VRX_API int VRXgetqconstr(VRXmodel* model, int qconstr, int* numlnzP, int* lind, double* lval,
                          int* numqnzP, int* qrow, int* qcol, double* qval) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    return setError(env, getQConstr(model->data, qconstr, numlnzP, lind, lval, numqnzP, qrow,
                                    qcol, qval));
  });
}

VRX_API void VRXclean2(int* lenP, int* ind, double* val) {
  if (!lenP || *lenP < 1 || !ind || !val) return;
  const int n = *lenP;
  heapSort(
      n, [&](int i, int j) { return ind[i] < ind[j]; },
      [&](int i, int j) {
        swapAt(ind, i, j);
        swapAt(val, i, j);
      });
  int out = 0;
  for (int k = 0; k < n;) {
    int key = ind[k];
    double sum = 0.0;
    for (; k < n && ind[k] == key; ++k) sum += val[k];
    if (sum != 0.0) {
      ind[out] = key;
      val[out] = sum;
      ++out;
    }
  }
  *lenP = out;
}

VRX_API void VRXclean3(int* lenP, int* ind0, int* ind1, double* val) {
  if (!lenP || *lenP < 1 || !ind0 || !ind1 || !val) return;
  const int n = *lenP;
  heapSort(
      n,
      [&](int i, int j) { return ind0[i] < ind0[j] || (ind0[i] == ind0[j] && ind1[i] < ind1[j]); },
      [&](int i, int j) {
        swapAt(ind0, i, j);
        swapAt(ind1, i, j);
        swapAt(val, i, j);
      });
  int out = 0;
  for (int k = 0; k < n;) {
    int a = ind0[k], b = ind1[k];
    double sum = 0.0;
    for (; k < n && ind0[k] == a && ind1[k] == b; ++k) sum += val[k];
    if (sum != 0.0) {
      ind0[out] = a;
      ind1[out] = b;
      val[out] = sum;
      ++out;
    }
  }
  *lenP = out;
}

}  // extern "C"
