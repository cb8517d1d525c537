// Names that a text file could not carry or would not read back as written.
#include "model/namecheck.h"

#include <cstring>

#include "env/nameindex.h"
#include "model/modeldata.h"

namespace vrx {

namespace {

// "a space" or "a colon" for a name that breaks the text formats, else null.
const char* badCharacter(const char* s) {
  for (const char* p = s; *p; ++p)
    if (*p == ' ' || *p == '\t') return "a space\n";
  if (std::strchr(s, ':')) return "a colon\n";
  return nullptr;
}

struct IndexGuard {
  VRXenv* env;
  NameIndex* idx;
  ~IndexGuard() { nameIndexFree(env, idx); }
};

const char* const kKindWord[] = {"linear", "quadratic", "general"};

}  // namespace

bool nameCheck(VRXenv* env, const VRXmodeldata* d, bool varsOnly) {
  bool found = false;
  const int n = d->numVars;
  if (d->varName && n > 0) {
    IndexGuard g{env, nameIndexCreate(env, static_cast<int>(1.4 * n) + 1)};
    if (!g.idx) throw std::bad_alloc();
    for (int j = 0; j < n; ++j) {
      const char* s = d->varName[j];
      if (!s || !*s) {
        log(env, "Warning: variable %i doesn't have a name\n", j);
        found = true;
        continue;
      }
      if (const char* what = badCharacter(s)) {
        log(env, "Warning: variable name \"%s\" has %s", s, what);
        found = true;
      }
      int first = nameIndexFind(g.idx, s);
      if (first >= 0) {
        log(env, "Warning: variables %d and %d have the same name \"%s\"\n", first, j, s);
        found = true;
      } else if (nameIndexInsert(env, g.idx, s, j)) {
        throw std::bad_alloc();
      }
    }
  }
  if (varsOnly) return found;

  // Linear, quadratic and general constraints share one name space.
  const int m = d->numConstrs, nq = d->numQConstrs, ng = d->numGenConstrs;
  bool genNames = false;
  for (int k = 0; k < ng && !genNames; ++k) genNames = d->genConstrs[k].name != nullptr;
  const bool anyNames = (d->constrName && m > 0) || (d->qcName && nq > 0) || genNames;
  if (!anyNames) return found;
  IndexGuard g{env, nameIndexCreate(env, static_cast<int>(1.4 * (m + nq + ng)) + 1)};
  if (!g.idx) throw std::bad_alloc();
  auto visit = [&](int kind, int k, const char* s) {
    if (!s || !*s) {
      if (kind == 0) log(env, "Warning: constraint %i doesn't have a name\n", k);
      if (kind == 1) log(env, "Warning: Q constraint %i doesn't have a name\n", k);
      if (kind == 2) log(env, "Warning: general constraint %d doesn't have a name\n", k);
      found = true;
      return;
    }
    if (const char* what = badCharacter(s)) {
      if (kind == 0) log(env, "Warning: constraint name \"%s\" has %s", s, what);
      if (kind == 1) log(env, "Warning: Q constraint name \"%s\" has %s", s, what);
      if (kind == 2) log(env, "Warning: general constraint name \"%s\" has %s", s, what);
      found = true;
    }
    // Numbers over all three kinds: rows, then quadratic, then general.
    const int code = kind == 0 ? k : (kind == 1 ? m + k : m + nq + k);
    int first = nameIndexFind(g.idx, s);
    if (first >= 0) {
      int fk = first < m ? 0 : (first < m + nq ? 1 : 2);
      int fi = fk == 0 ? first : (fk == 1 ? first - m : first - m - nq);
      log(env, "Warning: %s constraint %d and %s constraint %d have the same name \"%s\"\n",
          kKindWord[fk], fi, kKindWord[kind], k, s);
      found = true;
    } else if (nameIndexInsert(env, g.idx, s, code)) {
      throw std::bad_alloc();
    }
  };
  if (d->constrName)
    for (int i = 0; i < m; ++i) visit(0, i, d->constrName[i]);
  if (d->qcName)
    for (int q = 0; q < nq; ++q) visit(1, q, d->qcName[q]);
  // General constraints keep their names one by one: null is the default.
  if (genNames)
    for (int k = 0; k < ng; ++k) visit(2, k, d->genConstrs[k].name);
  return found;
}

}  // namespace vrx
