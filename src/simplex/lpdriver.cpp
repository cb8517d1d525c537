// The LP driver.
#include "simplex/lpdriver.h"

namespace vrx {

int lpOptimize(VRXmodel* model, Clock&) {
  // The simplex loops are not part of this build yet.
  return raise(model->env, VRX_ERROR_NOT_SUPPORTED, true,
               "Linear models cannot be solved by this build");
}

}  // namespace vrx
