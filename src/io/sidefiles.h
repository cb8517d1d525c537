// Side files: data for a model that already exists, named by its variables.
#pragma once

struct VRXmodel;

namespace vrx {

// Reads a side file of kind 6 (.mst), 7 (.sol), 8 (.bas), 11 (.ord) or
// 14 (.hnt) into pending attribute changes. 0 or an error code with its text.
int sideRead(VRXmodel* model, const char* filename, int kind);

// Writes kind 6, 7, 8, 11, 12 (.sum) or 14 from the attribute values. A file
// left behind by a failure after it was opened is removed.
int sideWrite(VRXmodel* model, const char* filename, int kind);

}  // namespace vrx
