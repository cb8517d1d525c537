#include "barrier/barsol.h"

namespace vrx {

VRXbarsol* barsolCreate(VRXenv* env, int n, int m) {
  auto* sol = static_cast<VRXbarsol*>(envCalloc(env, 1, sizeof(VRXbarsol)));
  if (!sol) return nullptr;
  sol->n = n;
  sol->m = m;
  const size_t len = 2 * static_cast<size_t>(n) + 2 * static_cast<size_t>(m) + 4;
  auto* block = static_cast<double*>(envCalloc(env, len, sizeof(double)));
  if (!block) {
    envFree(env, sol);
    return nullptr;
  }
  sol->x = block;
  sol->rc = sol->x + n + 1;
  sol->slack = sol->rc + n + 1;
  sol->pi = sol->slack + m + 1;
  return sol;
}

void barsolFree(VRXenv* env, VRXbarsol* sol) {
  if (!sol) return;
  envFree(env, sol->x);
  envFree(env, sol);
}

}  // namespace vrx
