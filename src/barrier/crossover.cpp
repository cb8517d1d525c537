#include "barrier/crossover.h"

// Placeholder until the push phases land: the caller reports the refusal.
int VRXcrossover(VRXmodel* model, const VRXbarsol*, int, vrx::Clock&) {
  return vrx::raise(model->env, VRX_ERROR_NOT_SUPPORTED, true,
                    "Crossover is not available in this build");
}
