// Adding and deleting the structures beside the matrix: SOS, quadratic
// terms, quadratic and general constraints, cones, piecewise-linear
// objectives, and replacing the objective.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "model/pending.h"
#include "model/pending_impl.h"

namespace vrx {

namespace {

const char kSmallQ[] =
    "Warning: zero or small (< 1e-13) coefficients in quadratic constraints, ignored\n";

bool varsInRange(const int* ind, int64_t count, int limit) {
  for (int64_t k = 0; k < count; ++k)
    if (ind[k] < 0 || ind[k] >= limit) return false;
  return true;
}

int varCount(const VRXmodel* model) {
  int n = 0;
  pendingCounts(model, &n, nullptr);
  return n;
}

// Room in the list of one kind of set; `added` sets with `addedMembers` entries.
bool reserveSos(VRXenv* env, VRXpending* p, int added, int64_t addedMembers) {
  if (!ensureRecord(env, p->sosChanges)) return false;
  SosChanges* s = p->sosChanges;
  if (static_cast<int64_t>(s->count) + added > s->capacity) {
    int64_t cap = std::min<int64_t>(grownItems(s->count, added), kMaxInt);
    if (cap < static_cast<int64_t>(s->count) + added) return false;
    if (!resizeBlock(env, s->type, cap) || !resizeBlock(env, s->beg, cap + 1)) return false;
    s->capacity = static_cast<int>(cap);
  }
  if (s->numMembers + addedMembers > s->memberCapacity) {
    int64_t cap = grownNonzeros(s->numMembers, addedMembers);
    if (!resizeBlock(env, s->ind, cap) || !resizeBlock(env, s->weight, cap)) return false;
    s->memberCapacity = cap;
  }
  return true;
}

bool reserveQC(VRXenv* env, VRXpending* p, int64_t lin, int64_t quad) {
  if (!ensureRecord(env, p->qcChanges)) return false;
  QCChanges* q = p->qcChanges;
  if (q->count + 1 > q->capacity) {
    int64_t cap = std::min<int64_t>(grownItems(q->count, 1), kMaxInt);
    if (!resizeBlock(env, q->linBeg, cap + 1) || !resizeBlock(env, q->quadBeg, cap + 1) ||
        !resizeBlock(env, q->sense, cap) || !resizeBlock(env, q->rhs, cap) ||
        !resizeZeroed(env, q->names, q->capacity, cap))
      return false;
    q->capacity = static_cast<int>(cap);
  }
  if (q->linNZ + lin > q->linCapacity) {
    int64_t cap = grownNonzeros(q->linNZ, lin);
    if (!resizeBlock(env, q->linInd, cap) || !resizeBlock(env, q->linVal, cap)) return false;
    q->linCapacity = cap;
  }
  if (q->quadNZ + quad > q->quadCapacity) {
    int64_t cap = grownNonzeros(q->quadNZ, quad);
    if (!resizeBlock(env, q->qRow, cap) || !resizeBlock(env, q->qCol, cap) ||
        !resizeBlock(env, q->qVal, cap))
      return false;
    q->quadCapacity = cap;
  }
  return true;
}

bool reserveGen(VRXenv* env, VRXpending* p) {
  if (!ensureRecord(env, p->genChanges)) return false;
  GenChanges* g = p->genChanges;
  if (g->count + 1 <= g->capacity) return true;
  int64_t cap = std::min<int64_t>(grownItems(g->count, 1), kMaxInt);
  if (!resizeZeroed(env, g->items, g->capacity, cap)) return false;
  g->capacity = static_cast<int>(cap);
  return true;
}

bool reserveCone(VRXenv* env, VRXpending* p, int64_t members) {
  if (!ensureRecord(env, p->coneChanges)) return false;
  ConeChanges* c = p->coneChanges;
  if (c->count + 1 > c->capacity) {
    int64_t cap = std::min<int64_t>(grownItems(c->count, 1), kMaxInt);
    if (!resizeBlock(env, c->beg, cap + 1)) return false;
    c->capacity = static_cast<int>(cap);
  }
  if (c->numMembers + members > c->memberCapacity) {
    int64_t cap = grownNonzeros(c->numMembers, members);
    if (!resizeBlock(env, c->ind, cap)) return false;
    c->memberCapacity = cap;
  }
  return true;
}

bool reservePwl(VRXenv* env, VRXpending* p, int64_t points) {
  if (!ensureRecord(env, p->pwlChanges)) return false;
  PwlChanges* w = p->pwlChanges;
  if (w->count + 1 > w->capacity) {
    int64_t cap = std::min<int64_t>(grownItems(w->count, 1), kMaxInt);
    if (!resizeBlock(env, w->var, cap) || !resizeBlock(env, w->beg, cap) ||
        !resizeBlock(env, w->npoints, cap))
      return false;
    w->capacity = static_cast<int>(cap);
  }
  if (w->numPoints + points > w->pointCapacity) {
    int64_t cap = grownNonzeros(w->numPoints, points);
    if (!resizeBlock(env, w->x, cap) || !resizeBlock(env, w->y, cap)) return false;
    w->pointCapacity = cap;
  }
  return true;
}

// Marks items of a committed list as deleted: SOS, quadratic or general
// constraints. The mark array lives for one batch.
int markItems(VRXenv* env, char*& marks, int& marked, int limit, int numdel, const int* ind) {
  if (numdel <= 0) return 0;
  if (!ind) return VRX_ERROR_NULL_ARGUMENT;
  for (int k = 0; k < numdel; ++k)
    if (ind[k] < 0 || ind[k] >= limit) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  if (!marks) {
    marks = envCallocArray<char>(env, static_cast<size_t>(limit));
    if (!marks) return VRX_ERROR_OUT_OF_MEMORY;
  }
  for (int k = 0; k < numdel; ++k) {
    if (!marks[ind[k]]) ++marked;
    marks[ind[k]] = 1;
  }
  return 0;
}

int addQTerms(VRXmodel* model, VRXpending* p, int numqnz, const int* qrow, const int* qcol,
              const double* qval) {
  VRXenv* env = model->env;
  if (numqnz < 0) return VRX_ERROR_INVALID_ARGUMENT;
  if (numqnz == 0) return 0;
  if (!qrow || !qcol || !qval) return VRX_ERROR_NULL_ARGUMENT;
  int err = checkQuadArray(env, qval, numqnz);
  if (err) return err;
  const int n = varCount(model);
  if (!varsInRange(qrow, numqnz, n) || !varsInRange(qcol, numqnz, n))
    return VRX_ERROR_INDEX_OUT_OF_RANGE;
  if (!reserveTriplets(env, p->qTerms, numqnz)) return VRX_ERROR_OUT_OF_MEMORY;
  const double zero = env->par.VORN_PAR_ZERO;
  TripletList* t = p->qTerms;
  int64_t pos = t->count;
  for (int k = 0; k < numqnz; ++k) {
    if (std::fabs(qval[k]) < zero) continue;
    t->row[pos] = qrow[k];
    t->col[pos] = qcol[k];
    t->val[pos] = qval[k];
    ++pos;
  }
  if (pos - t->count < numqnz) log(env, kSmallQ);
  t->count = pos;
  return 0;
}

void delQ(VRXpending* p) {
  p->clearQ = 1;
  // Terms staged before the deletion go with it.
  if (p->qTerms) p->qTerms->count = 0;
}

struct GenArgs {
  int type;
  const char* name;
  int resVar;
  int count;
  const int* vars;  // MAX, MIN, ABS, AND, OR operands; INDICATOR row indices
  const double* val;
  double constant;
  int binVal;
  char sense;
  double rhs;
};

int addGenConstr(VRXmodel* model, VRXpending* p, const GenArgs& a) {
  VRXenv* env = model->env;
  const bool indicator = a.type == VRX_GENCONSTR_INDICATOR;
  if (a.count < 0) return VRX_ERROR_INVALID_ARGUMENT;
  if (a.count > 0 && (!a.vars || (indicator && !a.val))) return VRX_ERROR_NULL_ARGUMENT;
  int err = pendingCheckMode(model, p);
  if (err) return err;
  const int n = varCount(model);
  if (a.resVar < 0 || a.resVar >= n || !varsInRange(a.vars, a.count, n))
    return VRX_ERROR_INDEX_OUT_OF_RANGE;
  char sense = 0;
  if (indicator) {
    if (a.binVal != 0 && a.binVal != 1) return VRX_ERROR_INVALID_ARGUMENT;
    if ((err = checkFiniteArray(env, a.val, a.count))) return err;
    if ((err = checkNotNan(env, a.rhs))) return err;
    sense = normalizeSense(a.sense);
    if (!sense)
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid constraint sense: '%c'",
                   a.sense);
  }
  if (a.type == VRX_GENCONSTR_MAX || a.type == VRX_GENCONSTR_MIN) {
    if ((err = checkNotNan(env, a.constant))) return err;
    // The constant dominates when it is infinite in the direction of the
    // operation, and with no operands any infinite constant is the result.
    const bool dominates = a.type == VRX_GENCONSTR_MAX ? a.constant >= kInf : a.constant <= -kInf;
    if (a.count == 0 && std::fabs(a.constant) >= kInf)
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, true,
                   "Empty general constraint with infinite constant");
    if (a.count > 0 && dominates)
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, true,
                   "General constraint with infinite constant");
  }
  if ((err = checkNameLength(env, a.name))) return err;
  if (!reserveGen(env, p)) return VRX_ERROR_OUT_OF_MEMORY;

  VRXgenconstr g;
  std::memset(&g, 0, sizeof g);
  g.type = a.type;
  g.resultVar = a.resVar;
  g.count = a.count;
  g.constant = a.constant;
  g.binValue = a.binVal;
  g.sense = sense;
  g.rhs = a.rhs < -kInf ? -kInf : (a.rhs > kInf ? kInf : a.rhs);
  const size_t c = static_cast<size_t>(a.count);
  bool ok = true;
  if (a.count > 0) {
    int* ind = envAllocArray<int>(env, c);
    ok = ind != nullptr;
    if (ok) std::memcpy(ind, a.vars, c * sizeof(int));
    if (indicator) {
      g.ind = ind;
      g.val = ok ? envAllocArray<double>(env, c) : nullptr;
      ok = ok && g.val;
      if (ok) std::memcpy(g.val, a.val, c * sizeof(double));
    } else {
      g.vars = ind;
    }
  }
  if (ok && !env->par.IgnoreNames) ok = copyName(env, a.name, &g.name);
  if (!ok) {
    envFree(env, g.vars);
    envFree(env, g.ind);
    envFree(env, g.val);
    envFree(env, g.name);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  p->genChanges->items[p->genChanges->count++] = g;
  return 0;
}

int addGen(VRXmodel* model, const GenArgs& a) {
  return batchCall(model, "Problem adding general constraint",
                   [&](VRXpending* p) { return addGenConstr(model, p, a); });
}

// A piecewise-linear function: finite points, x not decreasing, and no
// three points at one x (two make a jump).
bool pwlPointsValid(int npoints, const double* x, const double* y) {
  for (int k = 0; k < npoints; ++k) {
    if (!std::isfinite(x[k]) || !std::isfinite(y[k])) return false;
    if (k > 0 && x[k] < x[k - 1]) return false;
    if (k > 1 && x[k] == x[k - 2]) return false;
  }
  return true;
}

}  // namespace

int pendingAddQTerms(VRXmodel* model, int numqnz, const int* qrow, const int* qcol, const double* qval) {
  VRXpending* p = nullptr;
  int rc = pendingOpen(model, &p);
  if (!rc) {
    try {
      rc = addQTerms(model, p, numqnz, qrow, qcol, qval);
    } catch (const std::bad_alloc&) {
      rc = VRX_ERROR_OUT_OF_MEMORY;
    }
  }
  if (rc) pendingDiscard(model);
  return rc;
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXaddsos(VRXmodel* model, int numsos, int nummembers, const int* types,
                      const int* beg, const int* ind, const double* weight) {
  return batchCall(model, "Problem adding SOS constraints", [&](VRXpending* p) {
    VRXenv* env = model->env;
    if (numsos < 0 || nummembers < 0) return VRX_ERROR_INVALID_ARGUMENT;
    if (numsos > 0 && (!types || !beg)) return VRX_ERROR_NULL_ARGUMENT;
    if (numsos > 0 && nummembers > 0 && (!ind || !weight)) return VRX_ERROR_NULL_ARGUMENT;
    int err = pendingCheckMode(model, p);
    if (err) return err;
    if (numsos == 0) return 0;
    for (int s = 0; s < numsos; ++s)
      if (types[s] != VRX_SOS_TYPE1 && types[s] != VRX_SOS_TYPE2)
        return VRX_ERROR_INVALID_ARGUMENT;
    if ((err = checkFiniteArray(env, weight, nummembers))) return err;
    for (int s = 0; s < numsos; ++s) {
      int end = s + 1 < numsos ? beg[s + 1] : nummembers;
      if (beg[s] < 0 || end < beg[s] || end > nummembers) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    }
    if (!varsInRange(ind, nummembers, varCount(model))) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    if (!reserveSos(env, p, numsos, nummembers)) return VRX_ERROR_OUT_OF_MEMORY;
    SosChanges* sc = p->sosChanges;
    int64_t pos = sc->numMembers;
    for (int s = 0; s < numsos; ++s) {
      sc->type[sc->count + s] = types[s];
      sc->beg[sc->count + s] = pos;
      int end = s + 1 < numsos ? beg[s + 1] : nummembers;
      for (int k = beg[s]; k < end; ++k, ++pos) {
        sc->ind[pos] = ind[k];
        sc->weight[pos] = weight[k];
      }
    }
    sc->count += numsos;
    sc->numMembers = pos;
    sc->beg[sc->count] = pos;
    return 0;
  });
}

VRX_API int VRXdelsos(VRXmodel* model, int len, const int* ind) {
  return batchCall(model, "Problem deleting sos", [&](VRXpending* p) {
    if (!ensureRecord(model->env, p->sosChanges)) return VRX_ERROR_OUT_OF_MEMORY;
    SosChanges* s = p->sosChanges;
    return markItems(model->env, s->delMark, s->delCount, model->data->numSOS, len, ind);
  });
}

VRX_API int VRXaddqpterms(VRXmodel* model, int numqnz, const int* qrow, const int* qcol,
                          const double* qval) {
  return batchCall(model, nullptr, [&](VRXpending* p) {
    return addQTerms(model, p, numqnz, qrow, qcol, qval);
  });
}

VRX_API int VRXdelq(VRXmodel* model) {
  return batchCall(model, "Problem deleting Q matrix", [&](VRXpending* p) {
    delQ(p);
    return 0;
  });
}

VRX_API int VRXaddqconstr(VRXmodel* model, int numlnz, const int* lind, const double* lval,
                          int numqnz, const int* qrow, const int* qcol, const double* qval,
                          char sense, double rhs, const char* QCname) {
  return batchCall(model, nullptr, [&](VRXpending* p) {
    VRXenv* env = model->env;
    if (numlnz < 0 || numqnz < 0) return VRX_ERROR_INVALID_ARGUMENT;
    if ((numlnz > 0 && (!lind || !lval)) || (numqnz > 0 && (!qrow || !qcol || !qval)))
      return VRX_ERROR_NULL_ARGUMENT;
    int err = pendingCheckMode(model, p);
    if (err) return err;
    if ((err = checkFiniteArray(env, lval, numlnz))) return err;
    if ((err = checkFiniteArray(env, qval, numqnz))) return err;
    if ((err = checkNotNan(env, rhs))) return err;
    const int n = varCount(model);
    if (!varsInRange(lind, numlnz, n) || !varsInRange(qrow, numqnz, n) ||
        !varsInRange(qcol, numqnz, n))
      return VRX_ERROR_INDEX_OUT_OF_RANGE;
    const char s = normalizeSense(sense);
    if (!s)
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid constraint sense: '%c'", sense);
    if ((err = checkNameLength(env, QCname))) return err;
    if (!reserveQC(env, p, numlnz, numqnz)) return VRX_ERROR_OUT_OF_MEMORY;
    QCChanges* q = p->qcChanges;
    char* name = nullptr;
    if (!env->par.IgnoreNames && !copyName(env, QCname, &name)) return VRX_ERROR_OUT_OF_MEMORY;
    const double zero = env->par.VORN_PAR_ZERO;
    bool small = false;
    int64_t lpos = q->linNZ, qpos = q->quadNZ;
    q->linBeg[q->count] = lpos;
    q->quadBeg[q->count] = qpos;
    for (int k = 0; k < numlnz; ++k) {
      if (std::fabs(lval[k]) < zero) {
        small = true;
        continue;
      }
      q->linInd[lpos] = lind[k];
      q->linVal[lpos++] = lval[k];
    }
    for (int k = 0; k < numqnz; ++k) {
      if (std::fabs(qval[k]) < zero) {
        small = true;
        continue;
      }
      q->qRow[qpos] = qrow[k];
      q->qCol[qpos] = qcol[k];
      q->qVal[qpos++] = qval[k];
    }
    q->sense[q->count] = s;
    q->rhs[q->count] = rhs < -kInf ? -kInf : (rhs > kInf ? kInf : rhs);
    q->names[q->count] = name;
    ++q->count;
    q->linNZ = lpos;
    q->quadNZ = qpos;
    q->linBeg[q->count] = lpos;
    q->quadBeg[q->count] = qpos;
    if (small) log(env, kSmallQ);
    return 0;
  });
}

VRX_API int VRXdelqconstrs(VRXmodel* model, int len, const int* ind) {
  return batchCall(model, "Problem deleting quadratic constraint", [&](VRXpending* p) {
    if (!ensureRecord(model->env, p->qcChanges)) return VRX_ERROR_OUT_OF_MEMORY;
    QCChanges* q = p->qcChanges;
    return markItems(model->env, q->delMark, q->delCount, model->data->numQConstrs, len, ind);
  });
}

VRX_API int VRXaddgenconstrMax(VRXmodel* model, const char* name, int resvar, int nvars,
                               const int* vars, double constant) {
  return addGen(model,
                {VRX_GENCONSTR_MAX, name, resvar, nvars, vars, nullptr, constant, 0, 0, 0.0});
}

VRX_API int VRXaddgenconstrMin(VRXmodel* model, const char* name, int resvar, int nvars,
                               const int* vars, double constant) {
  return addGen(model,
                {VRX_GENCONSTR_MIN, name, resvar, nvars, vars, nullptr, constant, 0, 0, 0.0});
}

VRX_API int VRXaddgenconstrAbs(VRXmodel* model, const char* name, int resvar, int argvar) {
  return addGen(model, {VRX_GENCONSTR_ABS, name, resvar, 1, &argvar, nullptr, 0.0, 0, 0, 0.0});
}

VRX_API int VRXaddgenconstrAnd(VRXmodel* model, const char* name, int resvar, int nvars,
                               const int* vars) {
  return addGen(model, {VRX_GENCONSTR_AND, name, resvar, nvars, vars, nullptr, 0.0, 0, 0, 0.0});
}

VRX_API int VRXaddgenconstrOr(VRXmodel* model, const char* name, int resvar, int nvars,
                              const int* vars) {
  return addGen(model, {VRX_GENCONSTR_OR, name, resvar, nvars, vars, nullptr, 0.0, 0, 0, 0.0});
}

VRX_API int VRXaddgenconstrIndicator(VRXmodel* model, const char* name, int binvar, int binval,
                                     int nvars, const int* ind, const double* val, char sense,
                                     double rhs) {
  return addGen(model, {VRX_GENCONSTR_INDICATOR, name, binvar, nvars, ind, val, 0.0, binval,
                        sense, rhs});
}

VRX_API int VRXdelgenconstrs(VRXmodel* model, int len, const int* ind) {
  return batchCall(model, "Problem deleting general constraints", [&](VRXpending* p) {
    if (!ensureRecord(model->env, p->genChanges)) return VRX_ERROR_OUT_OF_MEMORY;
    GenChanges* g = p->genChanges;
    return markItems(model->env, g->delMark, g->delCount, model->data->numGenConstrs, len, ind);
  });
}

VRX_API int VRXaddcone(VRXmodel* model, int nummembers, const int* members) {
  return batchCall(model, "Problem adding cone", [&](VRXpending* p) {
    // The first member bounds the norm of the others: at least two.
    if (nummembers < 2) return VRX_ERROR_INVALID_ARGUMENT;
    if (!members) return VRX_ERROR_NULL_ARGUMENT;
    int err = pendingCheckMode(model, p);
    if (err) return err;
    if (!varsInRange(members, nummembers, varCount(model))) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    if (!reserveCone(model->env, p, nummembers)) return VRX_ERROR_OUT_OF_MEMORY;
    ConeChanges* c = p->coneChanges;
    c->beg[c->count] = c->numMembers;
    std::memcpy(c->ind + c->numMembers, members, static_cast<size_t>(nummembers) * sizeof(int));
    c->numMembers += nummembers;
    ++c->count;
    c->beg[c->count] = c->numMembers;
    return 0;
  });
}

VRX_API int VRXsetpwlobj(VRXmodel* model, int var, int npoints, const double* x,
                         const double* y) {
  return batchCall(model, "Setting piecewise objective", [&](VRXpending* p) {
    VRXenv* env = model->env;
    if (var < 0 || var >= varCount(model)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    if (npoints < 0) return VRX_ERROR_INVALID_ARGUMENT;
    if (npoints > 0 && (!x || !y)) return VRX_ERROR_NULL_ARGUMENT;
    if (!pwlPointsValid(npoints, x, y))
      return raise(env, VRX_ERROR_INVALID_PIECEWISE_OBJ, false, "%s",
                   errorTableText(VRX_ERROR_INVALID_PIECEWISE_OBJ));
    if (!reservePwl(env, p, npoints) || !colSlot(env, p, var)) return VRX_ERROR_OUT_OF_MEMORY;
    PwlChanges* w = p->pwlChanges;
    w->var[w->count] = var;
    w->beg[w->count] = w->numPoints;
    w->npoints[w->count] = npoints;
    if (npoints > 0) {
      std::memcpy(w->x + w->numPoints, x, static_cast<size_t>(npoints) * sizeof(double));
      std::memcpy(w->y + w->numPoints, y, static_cast<size_t>(npoints) * sizeof(double));
    }
    w->numPoints += npoints;
    ++w->count;
    p->colMark[var] |= kColPwl;
    return 0;
  });
}

VRX_API int VRXgetpwlobj(VRXmodel* model, int var, int* npointsP, double* x, double* y) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&] {
    const VRXmodeldata* d = model->data;
    if (!npointsP) return setError(env, VRX_ERROR_NULL_ARGUMENT);
    if (var < 0 || var >= d->numVars) return setError(env, VRX_ERROR_INDEX_OUT_OF_RANGE);
    *npointsP = 0;
    if (!d->pwlBeg || d->pwlCount[var] == 0) return setError(env, 0);
    const int count = d->pwlCount[var];
    const int64_t b = d->pwlBeg[var];
    *npointsP = count;
    // The store keeps y in the minimisation form.
    for (int k = 0; k < count; ++k) {
      if (x) x[k] = d->pwlX[b + k];
      if (y) y[k] = d->modelSense * d->pwlY[b + k];
    }
    return setError(env, 0);
  });
}

VRX_API int VRXsetobjective(VRXmodel* model, int sense, double constant, int lnz,
                            const int* lind, const double* lval, int qnz, const int* qrow,
                            const int* qcol, const double* qval) {
  return batchCall(model, "Problem setting objective", [&](VRXpending* p) {
    VRXenv* env = model->env;
    if (sense != 0 && sense != 1 && sense != -1)
      return raise(env, VRX_ERROR_INVALID_ARGUMENT, true, "Invalid objective sense");
    if (lnz < 0) return VRX_ERROR_INVALID_ARGUMENT;
    if (lnz > 0 && (!lind || !lval)) return VRX_ERROR_NULL_ARGUMENT;
    int err = checkNotNan(env, constant);
    if (err) return err;
    if ((err = checkNotNanArray(env, lval, lnz))) return err;
    const int n = varCount(model);
    if (!varsInRange(lind, lnz, n)) return VRX_ERROR_INDEX_OUT_OF_RANGE;
    // Every coefficient is cleared first; an index given twice adds up.
    if (n > 0) {
      if (!colSlot(env, p, n - 1) || !colValues(env, p, p->newObj)) return VRX_ERROR_OUT_OF_MEMORY;
      for (int j = 0; j < n; ++j) {
        p->newObj[j] = 0.0;
        p->colMark[j] |= kColObj;
      }
    }
    for (int k = 0; k < lnz; ++k) p->newObj[lind[k]] += lval[k];
    if (sense) p->newSense = sense;
    p->newObjCon = constant;
    delQ(p);
    return addQTerms(model, p, qnz, qrow, qcol, qval);
  });
}

}  // extern "C"
