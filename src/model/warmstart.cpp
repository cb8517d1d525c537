// The warm-start record: basis statuses, start vectors and dual norms set
// through the attributes, checked at the next update.
#include <cstring>

#include "model/pending.h"
#include "model/pending_impl.h"

namespace vrx {

namespace {

// The record in the shape of the store; a record of another shape is reset.
VRXwarmstart* warmRecord(VRXmodel* model) {
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int size = d->numVars + d->numConstrs;
  VRXwarmstart* ws = warmOf(model);
  if (!ws) {
    ws = envCallocArray<VRXwarmstart>(env, 1);
    if (!ws) return nullptr;
    ws->size = -1;
    model->warmStart = ws;
  }
  if (ws->size != size || ws->columnCount != d->numVars) {
    envFree(env, ws->basis);
    envFree(env, ws->start);
    envFree(env, ws->norms);
    ws->basis = nullptr;
    ws->start = nullptr;
    ws->norms = nullptr;
    ws->basisState = ws->startState = ws->normState = 0;
    ws->size = size;
    ws->columnCount = d->numVars;
  }
  return ws;
}

// While additions wait under update mode 1 the shape of the store is about
// to change: basis and start writes are refused, with a warning once per batch.
bool refused(VRXmodel* model) {
  const VRXpending* p = model->pending;
  if (!p || !(p->flags & kPendInUse) || p->updateMode != 1) return false;
  bool added = (p->newVars && p->newVars->count > 0) || (p->newConstrs && p->newConstrs->count > 0);
  if (!added) return false;
  VRXwarmstart* ws = warmRecord(model);
  if (ws && !ws->warned) {
    log(model->env, "Warning on update mode = 1 after new variables or constraints added:\n");
    log(model->env, "Setting LP warm start basis or start ignored\n");
    ws->warned = 1;
  }
  return true;
}

int setBasis(VRXmodel* model, int slot, int status) {
  if (status != VRX_BASIC && status != VRX_NONBASIC_LOWER && status != VRX_NONBASIC_UPPER &&
      status != VRX_SUPERBASIC)
    return VRX_ERROR_INVALID_ARGUMENT;
  if (refused(model)) return 0;
  VRXwarmstart* ws = warmRecord(model);
  if (!ws) return VRX_ERROR_OUT_OF_MEMORY;
  if (!ws->basis) {
    ws->basis = envAllocArray<int>(model->env, static_cast<size_t>(ws->size > 0 ? ws->size : 1));
    if (!ws->basis) return VRX_ERROR_OUT_OF_MEMORY;
    for (int k = 0; k < ws->size; ++k) ws->basis[k] = kBasisUnset;
  }
  ws->basis[slot] = status;
  ws->basisState = 1;
  if (ws->normState == 2) ws->normState = 1;
  return 0;
}

int setStart(VRXmodel* model, int slot, double value) {
  if (refused(model)) return 0;
  VRXwarmstart* ws = warmRecord(model);
  if (!ws) return VRX_ERROR_OUT_OF_MEMORY;
  if (!ws->start) {
    ws->start = envAllocArray<double>(model->env, static_cast<size_t>(ws->size > 0 ? ws->size : 1));
    if (!ws->start) return VRX_ERROR_OUT_OF_MEMORY;
    for (int k = 0; k < ws->size; ++k) ws->start[k] = kInf;
  }
  ws->start[slot] = value;
  ws->startState = 1;
  return 0;
}

int setNorm(VRXmodel* model, int slot, double value) {
  VRXwarmstart* ws = warmRecord(model);
  if (!ws) return VRX_ERROR_OUT_OF_MEMORY;
  if (!ws->norms) {
    const size_t size = static_cast<size_t>(ws->size > 0 ? ws->size : 1);
    ws->norms = envCallocArray<double>(model->env, size);
    if (!ws->norms) return VRX_ERROR_OUT_OF_MEMORY;
  }
  ws->norms[slot] = value;
  ws->normState = 1;
  return 0;
}

void dropNorms(VRXenv* env, VRXwarmstart* ws) {
  envFree(env, ws->norms);
  ws->norms = nullptr;
  ws->normState = 0;
}

}  // namespace

int warmSetVBasis(VRXmodel* model, int var, int status) {
  if (var < 0 || var >= model->data->numVars) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return setBasis(model, var, status);
}

int warmSetCBasis(VRXmodel* model, int constr, int status) {
  if (constr < 0 || constr >= model->data->numConstrs) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return setBasis(model, model->data->numVars + constr, status);
}

int warmSetPStart(VRXmodel* model, int var, double value) {
  if (var < 0 || var >= model->data->numVars) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return setStart(model, var, value);
}

int warmSetDStart(VRXmodel* model, int constr, double value) {
  if (constr < 0 || constr >= model->data->numConstrs) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return setStart(model, model->data->numVars + constr, value);
}

int warmSetVDualNorm(VRXmodel* model, int var, double value) {
  if (var < 0 || var >= model->data->numVars) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return setNorm(model, var, value);
}

int warmSetCDualNorm(VRXmodel* model, int constr, double value) {
  if (constr < 0 || constr >= model->data->numConstrs) return VRX_ERROR_INDEX_OUT_OF_RANGE;
  return setNorm(model, model->data->numVars + constr, value);
}

int warmStartStoreBasis(VRXmodel* model, const int* vbasis, const int* cbasis) {
  VRXwarmstart* ws = warmRecord(model);
  if (!ws) return VRX_ERROR_OUT_OF_MEMORY;
  if (!ws->basis) {
    ws->basis = envAllocArray<int>(model->env, static_cast<size_t>(ws->size > 0 ? ws->size : 1));
    if (!ws->basis) return VRX_ERROR_OUT_OF_MEMORY;
  }
  const int n = ws->columnCount, m = ws->size - ws->columnCount;
  for (int j = 0; j < n; ++j) ws->basis[j] = vbasis[j];
  for (int i = 0; i < m; ++i) ws->basis[n + i] = cbasis[i];
  ws->basisState = 2;
  return 0;
}

void warmStartFree(VRXenv* env, VRXwarmstart* ws) {
  if (!ws) return;
  envFree(env, ws->basis);
  envFree(env, ws->start);
  envFree(env, ws->norms);
  envFree(env, ws);
}

void warmStartSettle(VRXmodel* model) {
  VRXwarmstart* ws = warmOf(model);
  if (!ws) return;
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  const int n = d->numVars, m = d->numConstrs;
  if (ws->size != n + m || ws->columnCount != n) return;  // nothing set in this shape
  if (ws->startState == 1 && ws->start) {
    bool colsMissing = false, rowsMissing = false;
    for (int j = 0; j < n && !colsMissing; ++j) colsMissing = ws->start[j] >= kInf;
    for (int i = 0; i < m && !rowsMissing; ++i) rowsMissing = ws->start[n + i] >= kInf;
    if (!colsMissing && !rowsMissing) {
      ws->startState = 2;
    } else {
      ws->startState = 3;
      if (colsMissing) log(env, "Warning, invalid warm-start solution discarded\n");
    }
  }
  if (ws->basisState == 1 && ws->basis) {
    bool complete = true;
    int basic = 0;
    for (int k = 0; k < n + m; ++k) {
      if (ws->basis[k] == kBasisUnset) {
        complete = false;
        break;
      }
      if (ws->basis[k] == VRX_BASIC) ++basic;
    }
    if (complete && (basic == m || d->numQNZs > 0)) {
      ws->basisState = 2;
    } else {
      log(env, "Warning, invalid warm-start basis discarded\n");
      envFree(env, ws->basis);
      ws->basis = nullptr;
      ws->basisState = 0;
    }
  }
  if (ws->normState == 1) {
    // Norms stand with a checked basis, and only if every basic item has one.
    bool usable = ws->basisState == 2 && ws->basis && ws->norms;
    for (int k = 0; usable && k < n + m; ++k)
      if (ws->basis[k] == VRX_BASIC && !(ws->norms[k] > 0.0)) usable = false;
    if (usable)
      ws->normState = 2;
    else
      dropNorms(env, ws);
  }
}

}  // namespace vrx
