// Adding, changing and deleting variables, constraints and coefficients:
// validation, then an append to the batch.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "model/pending.h"
#include "model/pending_impl.h"

namespace vrx {

namespace {

constexpr double kIntTol = 1e-05;

double clampInf(double v) { return v < -kInf ? -kInf : (v > kInf ? kInf : v); }

// The index of a duplicate check failure reads "Error number 10018".
int duplicateError(VRXenv* env) { return setError(env, VRX_ERROR_DUPLICATES); }

// Checks the structure of a sparse block of `items` lists: the begins, the
// indices against `limit` and duplicates within one list.
template <class Beg>
int checkLists(VRXenv* env, int items, int64_t numnz, const Beg* beg, const int* ind, int limit) {
  if (numnz == 0) return 0;
  for (int k = 0; k < items; ++k) {
    int64_t b = static_cast<int64_t>(beg[k]);
    int64_t e = k + 1 < items ? static_cast<int64_t>(beg[k + 1]) : numnz;
    if (b < 0 || e < b || e > numnz) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    for (int64_t q = b; q < e; ++q)
      if (ind[q] < 0 || ind[q] >= limit) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    int err = 0;
    if (hasDuplicate(env, ind + b, e - b, &err)) return duplicateError(env);
    if (err) return err;
  }
  return 0;
}

int checkValues(VRXenv* env, const double* val, int64_t numnz, bool wide) {
  return wide ? checkFiniteArrayX(env, val, static_cast<size_t>(numnz))
              : checkFiniteArray(env, val, static_cast<int>(numnz));
}

int checkNames(VRXenv* env, const char* const* names, int count) {
  if (!names) return 0;
  for (int k = 0; k < count; ++k) {
    int err = checkNameLength(env, names[k]);
    if (err) return err;
  }
  return 0;
}

template <class Beg>
int64_t entryEnd(const Beg* beg, int items, int k, int64_t numnz) {
  return k + 1 < items ? static_cast<int64_t>(beg[k + 1]) : numnz;
}

// Entries of the given lists that are kept, by magnitude.
template <class Beg>
int64_t countKept(const Beg* beg, const double* val, int items, int64_t numnz, double zero) {
  int64_t kept = 0;
  if (numnz == 0) return 0;
  for (int k = 0; k < items; ++k)
    for (int64_t q = static_cast<int64_t>(beg[k]); q < entryEnd(beg, items, k, numnz); ++q)
      if (std::fabs(val[q]) >= zero) ++kept;
  return kept;
}

// Copies the names of a call into block slots [first, first + count); on
// failure the copies made so far are freed again.
bool copyNames(VRXenv* env, char** slots, int first, const char* const* names, int count) {
  for (int k = 0; k < count; ++k) {
    if (copyName(env, names[k], &slots[first + k])) continue;
    for (int r = 0; r < k; ++r) {
      envFree(env, slots[first + r]);
      slots[first + r] = nullptr;
    }
    return false;
  }
  return true;
}

bool anyName(const char* const* names, int count) {
  if (!names) return false;
  for (int k = 0; k < count; ++k)
    if (names[k] && names[k][0]) return true;
  return false;
}

struct VarArgs {
  int numVars;
  int64_t numNZs;
  const void* beg;  // int or size_t begins, by `wide`
  const int* ind;
  const double* val;
  const double* obj;
  const double* lb;
  const double* ub;
  const char* vtype;
  const char* const* names;
  bool wide;
};

template <class Beg>
int addVarsTyped(VRXmodel* model, VRXpending* p, const VarArgs& a) {
  VRXenv* env = model->env;
  const Beg* beg = static_cast<const Beg*>(a.beg);
  if (a.numVars < 0 || a.numNZs < 0) return VRX_ERROR_INVALID_ARGUMENT;
  if (a.numVars > 0 && a.numNZs > 0 && (!beg || !a.ind || !a.val)) return VRX_ERROR_NULL_ARGUMENT;
  int err = pendingCheckMode(model, p);
  if (err) return err;
  if (a.numVars == 0) return 0;
  if ((err = checkNotNanArray(env, a.obj, a.numVars))) return err;
  if ((err = checkNotNanArray(env, a.lb, a.numVars))) return err;
  if ((err = checkNotNanArray(env, a.ub, a.numVars))) return err;
  if ((err = checkValues(env, a.val, a.numNZs, a.wide))) return err;
  int numConstrs = 0;
  pendingCounts(model, nullptr, &numConstrs);
  if ((err = checkLists(env, a.numVars, a.numNZs, beg, a.ind, numConstrs))) return err;
  if (a.vtype)
    for (int k = 0; k < a.numVars; ++k)
      if (!normalizeVType(a.vtype[k]))
        return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid variable type '%c'",
                     a.vtype[k]);
  if ((err = checkNames(env, a.names, a.numVars))) return err;

  const double zero = env->par.VORN_PAR_ZERO;
  const int64_t kept = countKept(beg, a.val, a.numVars, a.numNZs, zero);
  if (!reserveVars(env, p, a.numVars, kept)) return VRX_ERROR_OUT_OF_MEMORY;
  PendingVars* b = p->newVars;
  const bool named = !env->par.IgnoreNames && anyName(a.names, a.numVars);
  if (named && (!ensureNames(env, b->names, b->capacity) ||
                !copyNames(env, b->names, b->count, a.names, a.numVars)))
    return VRX_ERROR_OUT_OF_MEMORY;

  int64_t pos = b->numNZs;
  for (int k = 0; k < a.numVars; ++k) {
    const int slot = b->count + k;
    b->beg[slot] = pos;
    if (a.numNZs > 0)
      for (int64_t q = static_cast<int64_t>(beg[k]); q < entryEnd(beg, a.numVars, k, a.numNZs);
           ++q) {
        if (std::fabs(a.val[q]) < zero) continue;
        b->ind[pos] = a.ind[q];
        b->val[pos] = a.val[q];
        ++pos;
      }
    double lo = a.lb ? clampInf(a.lb[k]) : 0.0;
    double up = a.ub ? clampInf(a.ub[k]) : kInf;
    char t = a.vtype ? normalizeVType(a.vtype[k]) : 'C';
    // Integer bounds as at a load: the tolerance comes before the rounding.
    if (t != 'C' && t != 'S') {
      lo = std::ceil(lo - kIntTol);
      up = std::floor(up + kIntTol);
      if (t == 'B') {
        if (lo < 0.0) lo = 0.0;
        if (up > 1.0) up = 1.0;
      }
    }
    b->obj[slot] = a.obj ? a.obj[k] : 0.0;
    b->lb[slot] = lo;
    b->ub[slot] = up;
    b->vtype[slot] = t;
  }
  b->count += a.numVars;
  b->numNZs = pos;
  if (p->updateMode == 1) p->numVars += a.numVars;
  if (kept < countKept(beg, a.val, a.numVars, a.numNZs, -1.0))
    log(env, "Warning for adding variables: zero or small (< 1e-13) coefficients, ignored\n");
  return 0;
}

struct ConstrArgs {
  int numConstrs;
  int64_t numNZs;
  const void* beg;
  const int* ind;
  const double* val;
  const char* sense;  // null for ranges
  const double* rhs;
  const double* lower;  // ranges only
  const double* upper;
  const char* const* names;
  bool wide;
  bool range;  // lower and upper sides instead of sense and rhs
};

template <class Beg>
int addConstrsTyped(VRXmodel* model, VRXpending* p, const ConstrArgs& a) {
  VRXenv* env = model->env;
  const Beg* beg = static_cast<const Beg*>(a.beg);
  const bool range = a.range;
  if (a.numConstrs < 0 || a.numNZs < 0) return VRX_ERROR_INVALID_ARGUMENT;
  if (a.numConstrs > 0 && a.numNZs > 0 && (!beg || !a.ind || !a.val))
    return VRX_ERROR_NULL_ARGUMENT;
  if (a.numConstrs > 0 && (range ? (!a.lower || !a.upper) : (!a.sense || !a.rhs)))
    return VRX_ERROR_NULL_ARGUMENT;
  int err = pendingCheckMode(model, p);
  if (err) return err;
  if (a.numConstrs == 0) return 0;
  if (range) {
    if ((err = checkNotNanArray(env, a.lower, a.numConstrs))) return err;
    if ((err = checkNotNanArray(env, a.upper, a.numConstrs))) return err;
  } else if ((err = checkNotNanArray(env, a.rhs, a.numConstrs))) {
    return err;
  }
  if ((err = checkValues(env, a.val, a.numNZs, a.wide))) return err;
  int numVars = 0;
  pendingCounts(model, &numVars, nullptr);
  if ((err = checkLists(env, a.numConstrs, a.numNZs, beg, a.ind, numVars))) return err;
  if (!range)
    for (int k = 0; k < a.numConstrs; ++k)
      if (!normalizeSense(a.sense[k]))
        return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid constraint sense: '%c'",
                     a.sense[k]);
  if ((err = checkNames(env, a.names, a.numConstrs))) return err;

  const double zero = env->par.VORN_PAR_ZERO;
  const int64_t kept = countKept(beg, a.val, a.numConstrs, a.numNZs, zero);
  const int slacks = range ? a.numConstrs : 0;
  if (!reserveConstrs(env, p, a.numConstrs, kept + slacks)) return VRX_ERROR_OUT_OF_MEMORY;
  if (slacks && !reserveVars(env, p, slacks, 0)) return VRX_ERROR_OUT_OF_MEMORY;
  PendingConstrs* b = p->newConstrs;
  PendingVars* v = p->newVars;
  const VRXmodeldata* d = model->data;
  const bool ignoreNames = env->par.IgnoreNames != 0;
  const bool named = !ignoreNames && anyName(a.names, a.numConstrs);
  if (named && (!ensureNames(env, b->names, b->capacity) ||
                !copyNames(env, b->names, b->count, a.names, a.numConstrs)))
    return VRX_ERROR_OUT_OF_MEMORY;
  // A range row's slack column is named after the row: "Rg" and the row's
  // name, or "RgR%d" with the index the row will have.
  if (slacks && !ignoreNames) {
    bool ok = ensureNames(env, v->names, v->capacity);
    for (int k = 0; ok && k < slacks; ++k) {
      char buf[VRX_MAX_NAMELEN + 8];
      const char* rowName = named ? b->names[b->count + k] : nullptr;
      if (rowName)
        std::snprintf(buf, sizeof buf, "Rg%s", rowName);
      else
        std::snprintf(buf, sizeof buf, "RgR%d", d->numConstrs + b->count + k);
      v->names[v->count + k] = envStrdup(env, buf);
      if (!v->names[v->count + k]) {
        for (int r = 0; r < k; ++r) {
          envFree(env, v->names[v->count + r]);
          v->names[v->count + r] = nullptr;
        }
        ok = false;
      }
    }
    if (!ok) {
      if (named)
        for (int k = 0; k < a.numConstrs; ++k) {
          envFree(env, b->names[b->count + k]);
          b->names[b->count + k] = nullptr;
        }
      return VRX_ERROR_OUT_OF_MEMORY;
    }
  }

  int64_t pos = b->numNZs;
  for (int k = 0; k < a.numConstrs; ++k) {
    const int slot = b->count + k;
    b->beg[slot] = pos;
    if (a.numNZs > 0)
      for (int64_t q = static_cast<int64_t>(beg[k]);
           q < entryEnd(beg, a.numConstrs, k, a.numNZs); ++q) {
        if (std::fabs(a.val[q]) < zero) continue;
        b->ind[pos] = a.ind[q];
        b->val[pos] = a.val[q];
        ++pos;
      }
    if (range) {
      // lower <= a x <= upper as a x + s = upper with 0 <= s <= upper - lower.
      const double lo = clampInf(a.lower[k]), up = clampInf(a.upper[k]);
      const double width = (lo <= -kInf || up >= kInf) ? kInf : up - lo;
      const int slackSlot = v->count + k;
      b->ind[pos] = d->numVars + slackSlot;
      b->val[pos] = 1.0;
      ++pos;
      b->sense[slot] = '=';
      b->rhs[slot] = up;
      b->range[slot] = width;
      v->beg[slackSlot] = v->numNZs;
      v->obj[slackSlot] = 0.0;
      v->lb[slackSlot] = 0.0;
      v->ub[slackSlot] = width;
      v->vtype[slackSlot] = 'C';
    } else {
      b->sense[slot] = normalizeSense(a.sense[k]);
      b->rhs[slot] = clampInf(a.rhs[k]);
      b->range[slot] = 0.0;
    }
  }
  b->count += a.numConstrs;
  b->slackCount += slacks;
  b->numNZs = pos;
  if (slacks) v->count += slacks;
  if (p->updateMode == 1) {
    p->numConstrs += a.numConstrs;
    p->numVars += slacks;
  }
  if (kept < countKept(beg, a.val, a.numConstrs, a.numNZs, -1.0))
    log(env, "Warning for adding constraints: zero or small (< 1e-13) coefficients, ignored\n");
  return 0;
}

template <class Count>
int changeCoeffs(VRXmodel* model, VRXpending* p, Count cnt, const int* cind, const int* vind,
                 const double* val, bool wide) {
  VRXenv* env = model->env;
  if (cnt <= 0) return 0;
  if (!cind || !vind || !val) return VRX_ERROR_NULL_ARGUMENT;
  const int64_t count = static_cast<int64_t>(cnt);
  int err = checkValues(env, val, count, wide);
  if (err) return err;
  int numVars = 0, numConstrs = 0;
  pendingCounts(model, &numVars, &numConstrs);
  for (int64_t k = 0; k < count; ++k)
    if (cind[k] < 0 || cind[k] >= numConstrs || vind[k] < 0 || vind[k] >= numVars)
      return VRX_ERROR_INDEX_OUT_OF_RANGE;
  // A pair given twice in one call: the keys pack row and column.
  if (count > 1) {
    auto* keys = envAllocArray<int64_t>(env, static_cast<size_t>(count));
    if (!keys) return VRX_ERROR_OUT_OF_MEMORY;
    for (int64_t k = 0; k < count; ++k)
      keys[k] = (static_cast<int64_t>(cind[k]) << 32) | static_cast<uint32_t>(vind[k]);
    std::sort(keys, keys + count);
    bool dup = std::adjacent_find(keys, keys + count) != keys + count;
    envFree(env, keys);
    if (dup) return duplicateError(env);
  }
  if (!reserveTriplets(env, p->coeffChanges, count)) return VRX_ERROR_OUT_OF_MEMORY;
  TripletList* t = p->coeffChanges;
  for (int64_t k = 0; k < count; ++k) {
    t->row[t->count + k] = cind[k];
    t->col[t->count + k] = vind[k];
    t->val[t->count + k] = val[k];
  }
  t->count += count;
  return 0;
}

// Marks deletions; marks are idempotent, so an index given twice is fine.
int markDeleted(VRXmodel* model, VRXpending* p, int numdel, const int* ind, bool columns) {
  VRXenv* env = model->env;
  if (numdel <= 0) return 0;
  if (!ind) return VRX_ERROR_NULL_ARGUMENT;
  int numVars = 0, numConstrs = 0;
  pendingCounts(model, &numVars, &numConstrs);
  const int limit = columns ? numVars : numConstrs;
  int top = -1;
  for (int k = 0; k < numdel; ++k) {
    if (ind[k] < 0 || ind[k] >= limit) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    if (ind[k] > top) top = ind[k];
  }
  if (columns ? !colSlot(env, p, top) : !rowSlot(env, p, top)) return VRX_ERROR_OUT_OF_MEMORY;
  uint32_t* marks = columns ? p->colMark : p->rowMark;
  for (int k = 0; k < numdel; ++k) marks[ind[k]] |= columns ? kColDeleted : kRowDeleted;
  return 0;
}

const char kAddVars[] = "Problem adding variables";
const char kAddConstrs[] = "Problem adding constraints";

}  // namespace

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXaddvars(VRXmodel* model, int numvars, int numnz, const int* vbeg, const int* vind,
                       const double* vval, const double* obj, const double* lb, const double* ub,
                       const char* vtype, char** varnames) {
  return batchCall(model, kAddVars, [&](VRXpending* p) {
    VarArgs a{numvars, numnz, vbeg, vind, vval, obj, lb, ub, vtype, varnames, false};
    return addVarsTyped<int>(model, p, a);
  });
}

VRX_API int VRXXaddvars(VRXmodel* model, int numvars, size_t numnz, const size_t* vbeg,
                        const int* vind, const double* vval, const double* obj, const double* lb,
                        const double* ub, const char* vtype, char** varnames) {
  return batchCall(model, kAddVars, [&](VRXpending* p) {
    VarArgs a{numvars, static_cast<int64_t>(numnz), vbeg, vind, vval, obj, lb, ub, vtype,
              varnames, true};
    return addVarsTyped<size_t>(model, p, a);
  });
}

VRX_API int VRXaddvar(VRXmodel* model, int numnz, const int* vind, const double* vval, double obj,
                      double lb, double ub, char vtype, const char* varname) {
  return batchCall(model, kAddVars, [&](VRXpending* p) {
    const int beg = 0;
    const char* names[1] = {varname};
    VarArgs a{1, numnz, &beg, vind, vval, &obj, &lb, &ub, &vtype, names, false};
    return addVarsTyped<int>(model, p, a);
  });
}

VRX_API int VRXaddconstrs(VRXmodel* model, int numconstrs, int numnz, const int* cbeg,
                          const int* cind, const double* cval, const char* sense,
                          const double* rhs, char** constrnames) {
  return batchCall(model, kAddConstrs, [&](VRXpending* p) {
    ConstrArgs a{numconstrs, numnz, cbeg, cind, cval, sense, rhs, nullptr, nullptr, constrnames,
                 false, false};
    return addConstrsTyped<int>(model, p, a);
  });
}

VRX_API int VRXXaddconstrs(VRXmodel* model, int numconstrs, size_t numnz, const size_t* cbeg,
                           const int* cind, const double* cval, const char* sense,
                           const double* rhs, char** constrnames) {
  return batchCall(model, kAddConstrs, [&](VRXpending* p) {
    ConstrArgs a{numconstrs, static_cast<int64_t>(numnz), cbeg, cind, cval, sense, rhs,
                 nullptr, nullptr, constrnames, true, false};
    return addConstrsTyped<size_t>(model, p, a);
  });
}

VRX_API int VRXaddconstr(VRXmodel* model, int numnz, const int* cind, const double* cval,
                         char sense, double rhs, const char* constrname) {
  return batchCall(model, kAddConstrs, [&](VRXpending* p) {
    const int beg = 0;
    const char* names[1] = {constrname};
    ConstrArgs a{1, numnz, &beg, cind, cval, &sense, &rhs, nullptr, nullptr, names, false, false};
    return addConstrsTyped<int>(model, p, a);
  });
}

VRX_API int VRXaddrangeconstrs(VRXmodel* model, int numconstrs, int numnz, const int* cbeg,
                               const int* cind, const double* cval, const double* lower,
                               const double* upper, char** constrnames) {
  return batchCall(model, kAddConstrs, [&](VRXpending* p) {
    ConstrArgs a{numconstrs, numnz, cbeg, cind, cval, nullptr, nullptr, lower, upper,
                 constrnames, false, true};
    return addConstrsTyped<int>(model, p, a);
  });
}

VRX_API int VRXXaddrangeconstrs(VRXmodel* model, int numconstrs, size_t numnz,
                                const size_t* cbeg, const int* cind, const double* cval,
                                const double* lower, const double* upper, char** constrnames) {
  return batchCall(model, kAddConstrs, [&](VRXpending* p) {
    ConstrArgs a{numconstrs, static_cast<int64_t>(numnz), cbeg, cind, cval, nullptr, nullptr,
                 lower, upper, constrnames, true, true};
    return addConstrsTyped<size_t>(model, p, a);
  });
}

VRX_API int VRXaddrangeconstr(VRXmodel* model, int numnz, const int* cind, const double* cval,
                              double lower, double upper, const char* constrname) {
  return batchCall(model, kAddConstrs, [&](VRXpending* p) {
    const int beg = 0;
    const char* names[1] = {constrname};
    ConstrArgs a{1, numnz, &beg, cind, cval, nullptr, nullptr, &lower, &upper, names, false, true};
    return addConstrsTyped<int>(model, p, a);
  });
}

VRX_API int VRXchgcoeffs(VRXmodel* model, int cnt, const int* cind, const int* vind,
                         const double* val) {
  return batchCall(model, nullptr, [&](VRXpending* p) {
    return changeCoeffs(model, p, cnt, cind, vind, val, false);
  });
}

VRX_API int VRXXchgcoeffs(VRXmodel* model, size_t cnt, const int* cind, const int* vind,
                          const double* val) {
  return batchCall(model, nullptr, [&](VRXpending* p) {
    return changeCoeffs(model, p, cnt, cind, vind, val, true);
  });
}

VRX_API int VRXdelvars(VRXmodel* model, int numdel, const int* ind) {
  return batchCall(model, "Problem deleting variable",
                   [&](VRXpending* p) { return markDeleted(model, p, numdel, ind, true); });
}

VRX_API int VRXdelconstrs(VRXmodel* model, int numdel, const int* ind) {
  return batchCall(model, "Problem deleting constraint",
                   [&](VRXpending* p) { return markDeleted(model, p, numdel, ind, false); });
}

}  // extern "C"
