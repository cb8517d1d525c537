// The check on names before a text file writes them.
#pragma once

#include "env/env.h"

struct VRXmodeldata;

namespace vrx {

// Logs a warning for each missing name, each name with a blank or a colon,
// and each repeated name. With varsOnly the constraints are not looked at.
// True when anything was found: such names may not read back as written.
// A kind of item without any names at all is not reported: the writers
// give every item of it a default name.
bool nameCheck(VRXenv* env, const VRXmodeldata* d, bool varsOnly = false);

}  // namespace vrx
