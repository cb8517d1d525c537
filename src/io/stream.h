// Buffered text streams over plain and compressed files.
#pragma once

#include <cstddef>

#include "env/env.h"

namespace vrx {

struct Stream;

// Compression by the name's ending: 0 none, 1 .gz, 2 .bz2, 3 .zip, 4 .7z.
int compressionOf(const char* name);
// File kind by the name's ending, with or without a compression suffix; -1 if unknown.
int fileKind(const char* name);
// Length of the name without its compression suffix.
size_t stemLength(const char* name);

// Opens `name` for reading ('r') or writing ('w'); null on failure, with *err set to
// 10012 (read) or 10013 (write), or 10001 when memory ran out. No message is stored.
Stream* streamOpen(VRXenv* env, const char* name, char mode, int* err);
// Reads one line into buf (at most size-1 characters, line feed kept); null at the end.
char* streamGets(Stream* s, char* buf, int size);
// The same, with the number of bytes read in *len: a line may hold NUL bytes.
char* streamGetLine(Stream* s, char* buf, int size, int* len);
// Reads up to n bytes; returns the count, 0 at the end.
size_t streamRead(Stream* s, void* buf, size_t n);
int streamWrite(Stream* s, const void* data, size_t n);
int streamPrintf(Stream* s, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Closes and frees; 0 when all data reached the file, else 10012 or 10013.
int streamClose(Stream* s);

}  // namespace vrx
