// The iteration line that both simplex loops print.
#pragma once

#include "env/clock.h"
#include "simplex/lp.h"

// Prints " iterations  objective  primal inf.  dual inf.  time" unless output is off, the
// iteration count is that of the last line, or (at a mixed-integer root) the display
// interval has not passed. The header comes before the first line of a record. objective is
// the value to print, in true units and the model's sense; a negative rootLogSign turns it.
// Returns 1 when a line was printed.
int VRXspxLogLine(VRXlp* lp, double objective, double primalInf, double dualInf,
                  const vrx::Clock& clock);
