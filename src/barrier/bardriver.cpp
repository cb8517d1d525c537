#include "barrier/barrier.h"

namespace vrx {

// Placeholder until the barrier iteration lands.
int barOptimize(VRXmodel* model, Clock&) {
  return raise(model->env, VRX_ERROR_NOT_SUPPORTED, true, "Method 2 is not available in this build");
}

}  // namespace vrx
