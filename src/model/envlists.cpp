// A model's environment copy, its concurrent and multi-objective environments,
// termination and the interrupt signal.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "env/env.h"
#include "model/model.h"

namespace vrx {

namespace {

// Returns the num-th environment of a growing list, creating it at need.
VRXenv* listEnv(VRXmodel* model, VRXenv*** list, int* count, int num) {
  if (num >= *count) {
    int grown = num + 1;
    auto* fresh = static_cast<VRXenv**>(
        envRealloc(model->env, *list, static_cast<size_t>(grown) * sizeof(VRXenv*)));
    if (!fresh) return nullptr;
    for (int i = *count; i < grown; ++i) fresh[i] = nullptr;
    *list = fresh;
    *count = grown;
  }
  if (!(*list)[num]) {
    int err = 0;
    (*list)[num] = envCopy(model->env, false, &err);
  }
  return (*list)[num];
}

void discardList(VRXmodel* model, VRXenv*** list, int* count) {
  if (!*list) return;
  for (int i = 0; i < *count; ++i)
    if ((*list)[i]) envFreeRecord((*list)[i]);
  envFree(model->env, *list);
  *list = nullptr;
  *count = 0;
}

bool validModel(VRXmodel* model) {
  return model && model->magic == kModelMagic && model->env && model->env->magic == kEnvMagic;
}

// The interrupt handler's one slot: a signal handler can reach nothing else.
VRXmodel* volatile gSignalModel = nullptr;

void onInterrupt(int) {
  static const char kMsg[] = "\nInterrupt request received\n";
  ssize_t ignored = write(1, kMsg, sizeof kMsg - 1);
  (void)ignored;
  VRXterminate(gSignalModel);
  std::signal(SIGINT, SIG_DFL);
}

}  // namespace

void discardModelEnvLists(VRXmodel* model) {
  discardList(model, &model->concurrentEnvs, &model->concurrentCount);
  discardList(model, &model->multiObjEnvs, &model->multiObjCount);
}

}  // namespace vrx

using namespace vrx;

extern "C" {

VRX_API VRXenv* VRXgetenv(VRXmodel* model) {
  if (!model || model->magic != kModelMagic) return nullptr;
  return model->env;
}

VRX_API VRXenv* VRXgetconcurrentenv(VRXmodel* model, int num) {
  if (!validModel(model) || num < 0 || num >= VRX_MAX_CONCURRENT) return nullptr;
  try {
    return listEnv(model, &model->concurrentEnvs, &model->concurrentCount, num);
  } catch (...) {
    return nullptr;
  }
}

VRX_API void VRXdiscardconcurrentenvs(VRXmodel* model) {
  if (!validModel(model)) return;
  discardList(model, &model->concurrentEnvs, &model->concurrentCount);
}

VRX_API VRXenv* VRXgetmultiobjenv(VRXmodel* model, int num) {
  if (!validModel(model) || num < 0) return nullptr;
  try {
    return listEnv(model, &model->multiObjEnvs, &model->multiObjCount, num);
  } catch (...) {
    return nullptr;
  }
}

VRX_API void VRXdiscardmultiobjenvs(VRXmodel* model) {
  if (!validModel(model)) return;
  discardList(model, &model->multiObjEnvs, &model->multiObjCount);
}

VRX_API int VRXterminate(VRXmodel* model) {
  if (!model || model->magic != kModelMagic || !model->env) return 0;
  VRXenv* env = model->env;
  if (env->magic != kEnvMagic || !env->terminateFlagRef) return 0;
  *env->terminateFlagRef = 1;
  return 0;
}

VRX_API void VRXsetsignal(VRXmodel* model) {
  if (!model || model->magic != kModelMagic) return;
  gSignalModel = model;
  model->signalSet = 1;
  auto old = std::signal(SIGINT, onInterrupt);
  if (old != SIG_ERR && old != onInterrupt)
    model->savedSignal = reinterpret_cast<void*>(old);
}

}  // extern "C"
