// Lookup of variables and constraints by name, through an index built on first use.
#include <cstdio>

#include "env/nameindex.h"
#include "model/model.h"
#include "model/modeldata.h"

namespace vrx {

namespace {

// Builds the index over the names of one kind; defaults stand in for missing names.
NameIndex* buildIndex(VRXenv* env, const VRXmodeldata* d, bool vars) {
  int count = vars ? d->numVars : d->numConstrs;
  NameIndex* idx = nameIndexCreate(env, static_cast<int>(1.4 * count) + 1);
  if (!idx) throw std::bad_alloc();
  char buf[32];
  for (int k = 0; k < count; ++k) {
    const char* name = vars ? modelVarName(d, k, buf, sizeof buf) : modelConstrName(d, k, buf, sizeof buf);
    if (nameIndexInsert(env, idx, name, k)) {
      nameIndexFree(env, idx);
      throw std::bad_alloc();
    }
  }
  return idx;
}

int lookup(VRXmodel* model, const char* name, int* indexP, bool vars) {
  int err = modelEnter(model);
  if (err) return err;
  VRXenv* env = model->env;
  return guarded(env, [&]() -> int {
    const char* outer = vars ? "Failed to retrieve variable" : "Failed to retrieve constraint";
    if (!name || !indexP) {
      raise(env, VRX_ERROR_NULL_ARGUMENT, true, "%s", errorTableText(VRX_ERROR_NULL_ARGUMENT));
      return setError(env, raise(env, VRX_ERROR_NULL_ARGUMENT, false, "%s", outer));
    }
    const VRXmodeldata* d = model->data;
    if ((vars ? d->numVars : d->numConstrs) == 0) {
      raise(env, VRX_ERROR_DATA_NOT_AVAILABLE, true, "%s",
            vars ? "No variable names available to index" : "No constraint names available to index");
      return setError(env, VRX_ERROR_DATA_NOT_AVAILABLE);
    }
    NameIndex*& idx = vars ? model->nameIndex.vars : model->nameIndex.constrs;
    if (!idx) idx = buildIndex(env, d, vars);
    *indexP = nameIndexFind(idx, name);
    return setError(env, 0);
  });
}

}  // namespace

void dropNameIndexes(VRXmodel* model) {
  nameIndexFree(model->env, model->nameIndex.vars);
  nameIndexFree(model->env, model->nameIndex.constrs);
  model->nameIndex.vars = model->nameIndex.constrs = nullptr;
}

}  // namespace vrx

extern "C" {

VRX_API int VRXgetvarbyname(VRXmodel* model, const char* name, int* indexP) {
  return vrx::lookup(model, name, indexP, true);
}

VRX_API int VRXgetconstrbyname(VRXmodel* model, const char* name, int* indexP) {
  return vrx::lookup(model, name, indexP, false);
}

}  // extern "C"
