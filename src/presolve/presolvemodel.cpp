// VRXpresolvemodel: the presolved form of a model as a model of its own.
#include <cstdio>

#include "env/clock.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "model/pending.h"
#include "presolve/presolve.h"

namespace vrx {

namespace {

int presolveModelBody(VRXmodel* model, VRXmodel** result) {
  VRXenv* env = model->env;
  int err = modelUpdate(model);
  if (err) return setError(env, err);
  const VRXmodeldata* d = model->data;
  if (d->numIntVars > 0 || d->numSOS > 0 || d->numGenConstrs > 0)
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true, "Presolve of mixed-integer models is not available in this build");
  if (d->numQNZs > 0 || d->numQConstrs > 0 || d->numPWLObjVars > 0)
    return raise(env, VRX_ERROR_NOT_SUPPORTED, true, "Presolve of quadratic models is not available in this build");
  Clock clock = clockStart();
  PresolveOut out;
  err = presolveLP(model, &clock.work, kPreFlagNames, &out);
  if (err) return setError(env, err);
  presolveMapFree(out.map);
  if (out.status == VRX_INFEASIBLE) log(env, "Model is infeasible\n");
  if (out.status == VRX_INF_OR_UNBD) log(env, "Model is infeasible or unbounded\n");
  if (out.status == VRX_UNBOUNDED) log(env, "Model is unbounded\n");
  if (out.status != 0) return setError(env, 0);
  VRXmodel* pre = out.presolved;
  VRXmodeldata* pd = pre->data;
  char name[300];
  if (pd->numVars == 0 && pd->numConstrs == 0)
    std::snprintf(name, sizeof name, "Presolved");
  else if (d->modelName && d->modelName[0])
    std::snprintf(name, sizeof name, "%.250s_pre", d->modelName);
  else
    std::snprintf(name, sizeof name, "model_pre");
  char* copy = envStrdup(pre->env, name);
  if (!copy) {
    log(env, "Out of memory for creating presolved model\n");
    modelDestroy(pre);
    return setError(env, VRX_ERROR_OUT_OF_MEMORY);
  }
  envFree(pre->env, pd->modelName);
  pd->modelName = copy;
  *result = pre;
  return setError(env, 0);
}

}  // namespace

}  // namespace vrx

extern "C" {

VRX_API VRXmodel* VRXpresolvemodel(VRXmodel* model) {
  if (vrx::modelEnter(model)) return nullptr;
  VRXenv* env = model->env;
  VRXmodel* result = nullptr;
  vrx::guarded(env, [&] { return vrx::presolveModelBody(model, &result); });
  return result;
}

}  // extern "C"
