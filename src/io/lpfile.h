// LP files: the text form of a model.
#pragma once

#include "env/env.h"
#include "io/stream.h"

struct VRXmodel;

namespace vrx {

// Reads an LP file from an open stream into a new model. 0 and *out set, or
// 10012 with the detail in the log (10001 when memory ran out).
int lpRead(VRXenv* env, Stream* s, const char* filename, VRXmodel** out);

// Writes the committed store. The name, without a compression suffix, picks
// the form: ".rlp" replaces every name by a default one, ".ilp" writes only
// the IIS. 0, 10005 when an .ilp has no IIS, or the stream's error code.
int lpWrite(VRXmodel* model, Stream* s, const char* filename);

// True when a model holds an IIS that an .ilp file can show.
bool lpHasIIS(const VRXmodel* model);

// Words the reader takes as a section keyword at the start of a line.
bool lpKeywordWord(const char* word);
// True when the reader would take the token as a number (or an infinity).
bool lpNumberLike(const char* token);
// True when a name cannot stand in an .lp file as it is; numbersBreak for
// variables when a MIN or MAX constraint could take them for constants.
bool lpNameUnsafe(const char* name, bool variable, bool numbersBreak);

}  // namespace vrx
