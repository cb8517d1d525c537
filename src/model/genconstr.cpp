// Reading general constraints back, by type.
#include <cstring>

#include "model/model.h"
#include "model/modeldata.h"

namespace vrx {

namespace {

// The common head: model, index range and type. Returns the entry or null with the code.
const VRXgenconstr* genHead(VRXmodel* model, int id, int type, int* err) {
  *err = modelEnter(model);
  if (*err) return nullptr;
  VRXenv* env = model->env;
  const VRXmodeldata* d = model->data;
  if (id < 0 || id >= d->numGenConstrs) {
    *err = raise(env, VRX_ERROR_INDEX_OUT_OF_RANGE, true,
                 "Invalid index range for general constraint query: %d", id);
  } else if (d->genConstrs[id].type != type) {
    *err = raise(env, VRX_ERROR_INVALID_ARGUMENT, true,
                 "General constraint has type %d, but called get method for type %d",
                 d->genConstrs[id].type, type);
  } else {
    return &d->genConstrs[id];
  }
  raise(env, *err, false, "Failed to retrieve general constraint");
  setError(env, *err);
  return nullptr;
}

int operands(VRXmodel* model, int id, int type, int* resvarP, int* nvarsP, int* vars,
             double* constantP) {
  int err = 0;
  const VRXgenconstr* g = genHead(model, id, type, &err);
  if (!g) return err;
  if (resvarP) *resvarP = g->resultVar;
  if (nvarsP) *nvarsP = g->count;
  if (vars && g->count > 0) std::memcpy(vars, g->vars, sizeof(int) * static_cast<size_t>(g->count));
  if (constantP) *constantP = g->constant;
  return setError(model->env, 0);
}

}  // namespace

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API int VRXgetgenconstrMax(VRXmodel* model, int id, int* resvarP, int* nvarsP, int* vars,
                               double* constantP) {
  return operands(model, id, VRX_GENCONSTR_MAX, resvarP, nvarsP, vars, constantP);
}

VRX_API int VRXgetgenconstrMin(VRXmodel* model, int id, int* resvarP, int* nvarsP, int* vars,
                               double* constantP) {
  return operands(model, id, VRX_GENCONSTR_MIN, resvarP, nvarsP, vars, constantP);
}

VRX_API int VRXgetgenconstrAbs(VRXmodel* model, int id, int* resvarP, int* argvarP) {
  int err = 0;
  const VRXgenconstr* g = genHead(model, id, VRX_GENCONSTR_ABS, &err);
  if (!g) return err;
  if (resvarP) *resvarP = g->resultVar;
  if (argvarP) *argvarP = g->count > 0 ? g->vars[0] : -1;
  return setError(model->env, 0);
}

VRX_API int VRXgetgenconstrAnd(VRXmodel* model, int id, int* resvarP, int* nvarsP, int* vars) {
  return operands(model, id, VRX_GENCONSTR_AND, resvarP, nvarsP, vars, nullptr);
}

VRX_API int VRXgetgenconstrOr(VRXmodel* model, int id, int* resvarP, int* nvarsP, int* vars) {
  return operands(model, id, VRX_GENCONSTR_OR, resvarP, nvarsP, vars, nullptr);
}

VRX_API int VRXgetgenconstrIndicator(VRXmodel* model, int id, int* binvarP, int* binvalP,
                                     int* nvarsP, int* ind, double* val, char* senseP,
                                     double* rhsP) {
  int err = 0;
  const VRXgenconstr* g = genHead(model, id, VRX_GENCONSTR_INDICATOR, &err);
  if (!g) return err;
  if (binvarP) *binvarP = g->resultVar;
  if (binvalP) *binvalP = g->binValue;
  if (nvarsP) *nvarsP = g->count;
  if (ind && g->count > 0) std::memcpy(ind, g->ind, sizeof(int) * static_cast<size_t>(g->count));
  if (val && g->count > 0) std::memcpy(val, g->val, sizeof(double) * static_cast<size_t>(g->count));
  if (senseP) *senseP = g->sense;
  if (rhsP) *rhsP = g->rhs;
  return setError(model->env, 0);
}

}  // extern "C"
