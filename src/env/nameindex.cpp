#include "env/nameindex.h"

#include <cstring>

namespace vrx {

uint32_t nameHash(const char* key) {
  uint32_t h = 0;
  for (uint32_t i = 0; key[i]; ++i) h = h * 11u + static_cast<unsigned char>(key[i]) + i;
  return h;
}

int nextPrime(int wanted) {
  int n = wanted < 2 ? 2 : wanted;
  for (;; ++n) {
    bool prime = true;
    for (int d = 2; static_cast<long long>(d) * d <= n; ++d)
      if (n % d == 0) {
        prime = false;
        break;
      }
    if (prime) return n;
  }
}

NameIndex* nameIndexCreate(VRXenv* env, int wanted, bool growable) {
  auto* idx = static_cast<NameIndex*>(envCalloc(env, 1, sizeof(NameIndex)));
  if (!idx) return nullptr;
  idx->growable = growable ? 1 : 0;
  idx->slotCount = nextPrime(wanted);
  idx->slots = envCallocArray<NameEntry*>(env, static_cast<size_t>(idx->slotCount));
  if (!idx->slots) {
    envFree(env, idx);
    return nullptr;
  }
  return idx;
}

static void rehash(VRXenv* env, NameIndex* index) {
  int slots = nextPrime(index->slotCount * 4);
  auto* fresh = envCallocArray<NameEntry*>(env, static_cast<size_t>(slots));
  if (!fresh) return;  // keep the longer chains
  for (int s = 0; s < index->slotCount; ++s) {
    NameEntry* e = index->slots[s];
    while (e) {
      NameEntry* next = e->next;
      uint32_t slot = nameHash(e->key) % static_cast<uint32_t>(slots);
      // Appending keeps the first-wins order of equal keys.
      NameEntry** tail = &fresh[slot];
      while (*tail) tail = &(*tail)->next;
      e->next = nullptr;
      *tail = e;
      e = next;
    }
  }
  envFree(env, index->slots);
  index->slots = fresh;
  index->slotCount = slots;
}

int nameIndexInsert(VRXenv* env, NameIndex* index, const char* key, int value) {
  if (index->growable && index->count > 2 * index->slotCount) rehash(env, index);
  uint32_t slot = nameHash(key) % static_cast<uint32_t>(index->slotCount);
  NameEntry** tail = &index->slots[slot];
  for (NameEntry* e = *tail; e; e = e->next) {
    if (std::strcmp(e->key, key) == 0) return 0;
    tail = &e->next;
  }
  auto* e = static_cast<NameEntry*>(envMalloc(env, sizeof(NameEntry)));
  if (!e) return VRX_ERROR_OUT_OF_MEMORY;
  e->key = envStrdup(env, key);
  if (!e->key) {
    envFree(env, e);
    return VRX_ERROR_OUT_OF_MEMORY;
  }
  e->value = value;
  e->next = nullptr;
  *tail = e;
  index->count++;
  return 0;
}

int nameIndexFind(const NameIndex* index, const char* key) {
  uint32_t slot = nameHash(key) % static_cast<uint32_t>(index->slotCount);
  for (const NameEntry* e = index->slots[slot]; e; e = e->next)
    if (std::strcmp(e->key, key) == 0) return e->value;
  return -1;
}

void nameIndexFree(VRXenv* env, NameIndex* index) {
  if (!index) return;
  for (int s = 0; s < index->slotCount; ++s) {
    NameEntry* e = index->slots[s];
    while (e) {
      NameEntry* next = e->next;
      envFree(env, e->key);
      envFree(env, e);
      e = next;
    }
  }
  envFree(env, index->slots);
  envFree(env, index);
}

}  // namespace vrx
