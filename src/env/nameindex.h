// Chained hash index from name to number, shared by parameters, attributes and names.
#pragma once

#include <cstdint>

#include "env/env.h"

namespace vrx {

struct NameEntry {
  char* key;
  int value;
  NameEntry* next;
};

struct NameIndex {
  int slotCount;  // a prime
  NameEntry** slots;
  int count;      // entries held
  int growable;   // rehash when entries outnumber slots twice
};

uint32_t nameHash(const char* key);
int nextPrime(int wanted);
// Null when memory ran out. A growable index rehashes as it fills.
NameIndex* nameIndexCreate(VRXenv* env, int wanted, bool growable = false);
// 0, or 10001. On a duplicate key the first entry stays.
int nameIndexInsert(VRXenv* env, NameIndex* index, const char* key, int value);
// The value, or -1 when the key is absent.
int nameIndexFind(const NameIndex* index, const char* key);
void nameIndexFree(VRXenv* env, NameIndex* index);

}  // namespace vrx
