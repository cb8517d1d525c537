// Nested dissection of the graph of A A': recursive bisection by level-set
// vertex separators, parts below the size limit ordered by minimum degree,
// separators last.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "barrier/barfactor.h"
#include "barrier/barwork.h"

namespace vrx {

namespace {

// A small private generator, so that copies with different seeds differ and
// nothing is shared between threads.
struct Rng {
  uint64_t s;
  explicit Rng(uint64_t seed) : s(seed * 0x9E3779B97F4A7C15ull + 0x2545F4914F6CDD1Dull) {}
  uint32_t next() {
    s ^= s << 13;
    s ^= s >> 7;
    s ^= s << 17;
    return static_cast<uint32_t>(s >> 32);
  }
};

struct NdWork {
  int n;
  const int64_t* xadj;
  const int* adj;
  int* part;    // vertex -> id of the part it is in
  int* level;   // BFS level within the part, -1 unvisited
  int* queue;   // BFS order
  int* local;   // vertex -> local index in a small part
  int64_t* lx;  // induced subgraph of a small part
  int* la;
  int* lorder;
  int* tmp;
  double work;  // adjacency entries walked, in work units
};

// BFS from r over the part; returns the number reached and the last level.
int bfs(NdWork& w, int pid, int r, int* lastLevel) {
  int head = 0, tail = 0;
  w.queue[tail++] = r;
  w.level[r] = 0;
  int last = 0;
  while (head < tail) {
    const int v = w.queue[head++];
    last = w.level[v];
    w.work += static_cast<double>(w.xadj[v + 1] - w.xadj[v]) + 2;
    for (int64_t p = w.xadj[v]; p < w.xadj[v + 1]; ++p) {
      const int u = w.adj[p];
      if (w.part[u] != pid || w.level[u] >= 0) continue;
      w.level[u] = w.level[v] + 1;
      w.queue[tail++] = u;
    }
  }
  *lastLevel = last;
  return tail;
}

void clearLevels(NdWork& w, const int* verts, int k) {
  for (int i = 0; i < k; ++i) w.level[verts[i]] = -1;
}

// Minimum degree on the subgraph induced by verts[0..k), reordering verts.
int orderSmall(VRXenv* env, NdWork& w, int pid, int* verts, int k) {
  for (int i = 0; i < k; ++i) w.local[verts[i]] = i;
  int64_t e = 0;
  for (int i = 0; i < k; ++i) {
    w.lx[i] = e;
    const int v = verts[i];
    for (int64_t p = w.xadj[v]; p < w.xadj[v + 1]; ++p)
      if (w.part[w.adj[p]] == pid) w.la[e++] = w.local[w.adj[p]];
  }
  w.lx[k] = e;
  w.work += 2.0 * k + static_cast<double>(e);
  if (e == 0) return 0;
  const int rc = VRXbarAMD(env, k, w.lx, w.la, w.lorder, &w.work);
  if (rc) return rc;
  for (int i = 0; i < k; ++i) w.tmp[i] = verts[w.lorder[i]];
  std::memcpy(verts, w.tmp, sizeof(int) * static_cast<size_t>(k));
  return 0;
}

}  // namespace

int VRXbarND(VRXenv* env, int n, const int64_t* xadj, const int* adj, uint64_t seed, int* order,
             NdProgress* progress, double* work) {
  if (n <= 0) return 0;
  const size_t sn = static_cast<size_t>(n) + 1;
  const int64_t nz = xadj[n];
  Scratch<int> part(env, sn), level(env, sn), queue(env, sn), local(env, sn), lorder(env, sn), tmp(env, sn);
  Scratch<int64_t> lx(env, sn);
  Scratch<int> la(env, static_cast<size_t>(nz) + 1);
  // Ranges still to split: begin, end, part id.
  Scratch<int> stack(env, 3 * sn);
  if (!part.a || !level.a || !queue.a || !local.a || !lorder.a || !tmp.a || !lx.a || !la.a || !stack.a)
    return VRX_ERROR_OUT_OF_MEMORY;
  NdWork w{n, xadj, adj, part.a, level.a, queue.a, local.a, lx.a, la.a, lorder.a, tmp.a, 0.0};
  // The work counts on every return, including a failed one.
  struct Charge {
    NdWork& w;
    double* out;
    ~Charge() {
      if (out) *out += w.work;
    }
  } charge{w, work};
  const double limit =
      std::max(100.0, std::min(10.0 * std::sqrt(static_cast<double>(n)), 50.0 * static_cast<double>(nz) / n));
  Rng rng(seed);
  for (int i = 0; i < n; ++i) {
    order[i] = i;
    part.a[i] = 0;
    level.a[i] = -1;
  }
  int nextId = 1, top = 0;
  stack.a[top++] = 0;
  stack.a[top++] = n;
  stack.a[top++] = 0;
  int parts = 0;
  while (top > 0) {
    if (progress && (++parts & 63) == 0) {
      const double now = wallClock();
      if (now - progress->lastPrint >= progress->interval) {
        log(env, "Elapsed ordering time = %.0fs\n", now - progress->start);
        progress->lastPrint = now;
      }
    }
    const int pid = stack.a[--top], end = stack.a[--top], beg = stack.a[--top];
    int* verts = order + beg;
    const int k = end - beg;
    if (k <= limit) {
      const int rc = orderSmall(env, w, pid, verts, k);
      if (rc) return rc;
      continue;
    }
    // A pseudo-peripheral start: from a random vertex, twice to the far end.
    int r = verts[rng.next() % static_cast<uint32_t>(k)];
    int lastLevel = 0, reached = 0;
    for (int pass = 0; pass < 2; ++pass) {
      reached = bfs(w, pid, r, &lastLevel);
      const int far = queue.a[reached - 1];
      clearLevels(w, queue.a, reached);
      if (far == r) break;
      r = far;
    }
    reached = bfs(w, pid, r, &lastLevel);
    // Sides: 1 for A, 2 for B, 3 for the separator, in tmp by vertex.
    int* side = tmp.a;
    if (reached < k) {
      // Not connected: the component reached and the rest, no separator.
      for (int i = 0; i < k; ++i) side[verts[i]] = 2;
      for (int i = 0; i < reached; ++i) side[queue.a[i]] = 1;
    } else {
      w.work += 2.0 * k;
      // The level near the middle with the fewest vertices: its vertices that
      // touch the next level separate the levels before from those after.
      Scratch<int> count(env, static_cast<size_t>(lastLevel) + 2);
      if (!count.a) return VRX_ERROR_OUT_OF_MEMORY;
      std::fill(count.a, count.a + lastLevel + 1, 0);
      for (int i = 0; i < k; ++i) count.a[level.a[verts[i]]]++;
      int best = -1, before = 0;
      for (int L = 1; L < lastLevel; ++L) {
        before += count.a[L - 1];
        if (before < 0.3 * k || before + count.a[L] > 0.7 * k) continue;
        if (best < 0 || count.a[L] < count.a[best]) best = L;
      }
      if (best < 0) {
        before = 0;
        for (int L = 0; L < lastLevel; ++L) {
          if (before + count.a[L] >= k / 2) {
            best = std::max(L, 1);
            break;
          }
          before += count.a[L];
        }
      }
      if (best < 1 || best >= lastLevel) {
        clearLevels(w, queue.a, reached);
        const int rc = orderSmall(env, w, pid, verts, k);
        if (rc) return rc;
        continue;
      }
      for (int i = 0; i < k; ++i) {
        const int v = verts[i], L = level.a[v];
        int s = L < best ? 1 : 2;
        if (L == best) {
          s = 1;
          for (int64_t p = xadj[v]; p < xadj[v + 1]; ++p) {
            const int u = adj[p];
            if (part.a[u] == pid && level.a[u] == best + 1) {
              s = 3;
              break;
            }
          }
        }
        side[v] = s;
      }
    }
    clearLevels(w, queue.a, reached);
    // [A | B | S] in place; A and B go on as parts of their own.
    int na = 0, nb = 0;
    for (int i = 0; i < k; ++i) {
      const int s = side[verts[i]];
      na += s == 1;
      nb += s == 2;
    }
    int pa = 0, pb = na, ps = na + nb;
    for (int i = 0; i < k; ++i) {
      const int v = verts[i], s = side[v];
      queue.a[s == 1 ? pa++ : s == 2 ? pb++ : ps++] = v;
    }
    std::memcpy(verts, queue.a, sizeof(int) * static_cast<size_t>(k));
    w.work += 4.0 * k;
    const int ida = nextId++, idb = nextId++, ids = nextId++;
    for (int i = 0; i < na; ++i) part.a[verts[i]] = ida;
    for (int i = na; i < na + nb; ++i) part.a[verts[i]] = idb;
    for (int i = na + nb; i < k; ++i) part.a[verts[i]] = ids;
    if (na > 0) {
      stack.a[top++] = beg;
      stack.a[top++] = beg + na;
      stack.a[top++] = ida;
    }
    if (nb > 0) {
      stack.a[top++] = beg + na;
      stack.a[top++] = beg + na + nb;
      stack.a[top++] = idb;
    }
  }
  return 0;
}

namespace {

struct NdCopy {
  VRXenv* env;
  int n;
  const int64_t* xadj;  // the pattern this copy dissects
  const int* adj;
  uint64_t seed;
  int* perm;
  int* spare;         // m + 1 for the repeat, null when the copy runs once
  uint64_t repeatSeed;
  bool reduced;       // the pattern leaves out the dense columns
  NdProgress* progress;
  double nz, ops;
  double work;
  int rc;
};

int dissect(NdCopy* c, uint64_t seed, int* perm, double* nz, double* ops) {
  int rc = VRXbarND(c->env, c->n, c->xadj, c->adj, seed, perm, c->progress, &c->work);
  if (!rc) rc = predictFactor(c->env, c->n, c->xadj, c->adj, perm, nz, ops);
  c->work += predictWork(c->n, c->xadj);
  return rc;
}

void runCopy(NdCopy* c) {
  c->rc = dissect(c, c->seed, c->perm, &c->nz, &c->ops);
  if (c->rc || !c->spare) return;
  double nz = 0, ops = 0;
  c->rc = dissect(c, c->repeatSeed, c->spare, &nz, &ops);
  if (!c->rc && ops < c->ops) {
    std::memcpy(c->perm, c->spare, sizeof(int) * static_cast<size_t>(c->n));
    c->nz = nz;
    c->ops = ops;
  }
}

struct NdRun {
  NdCopy* copies;
  int count;
  int workers;
};

// Worker w runs copies w, w + workers, ...
void runCopies(void* arg, int w) {
  auto* r = static_cast<NdRun*>(arg);
  for (int t = w; t < r->count; t += r->workers) runCopy(&r->copies[t]);
}

}  // namespace

int ndStage(VRXenv* env, const BarMatrix& A, const BarFactorOpts& opts, double amdWork, VRXbarfactor* f, double* nz,
            double* ops) {
  const int m = A.m;
  int* perm = f->perm;
  const char* isDense = f->denseCols ? f->isDense : nullptr;
  f->ndCopies = 0;
  f->ndFull = 0;
  if (opts.order == 0 || m == 0) return 0;
  const double nnzA = static_cast<double>(A.colBeg[A.n]);
  // The number of copies follows the machine and not Threads, which only
  // bounds how many run at once: every thread count gives the same order.
  int k = 1;
  if (m >= 1000) {
    const double want = std::min(2 * *nz / std::max(nnzA, 1.0), static_cast<double>(std::max(opts.cores, 1)));
    k = std::max(1, static_cast<int>(want));
  }
  // The cost of k copies against the factor's flops, both in work units, so
  // that the choice repeats on any machine and load.
  const double u = k * amdWork / std::max(*ops, 1.0);
  if (opts.order == -1 && u >= 0.1 && (m <= 1000 || *ops < 500 * nnzA || *nz < nnzA || u > 2)) return 0;
  // On a heavy factor with an automatic dense set, copy 0 also tries the full
  // pattern, dense columns kept sparse, twice with different seeds.
  const bool full = isDense && k > 2 && *ops > opts.fullPatternOps && opts.denseSep == -1;
  struct Pattern {
    VRXenv* env;
    int64_t* x = nullptr;
    int* a = nullptr;
    ~Pattern() { envFreeAll(env, x, a); }
  } sparse{env}, whole{env};
  int rc = productPattern(env, A, isDense, &sparse.x, &sparse.a, nullptr);
  if (!rc && full) rc = productPattern(env, A, nullptr, &whole.x, &whole.a, nullptr);
  if (rc) return rc;
  // Nothing off the diagonal: the first ordering stands and no copy starts.
  if (sparse.x[m] == 0 && !full) return 0;
  const size_t slot = static_cast<size_t>(m) + 1;
  Scratch<NdCopy> copies(env, static_cast<size_t>(k));
  Scratch<int> perms(env, (static_cast<size_t>(k) + 1) * slot);
  if (!copies.a || !perms.a) return VRX_ERROR_OUT_OF_MEMORY;
  NdProgress progress{wallClock(), static_cast<double>(opts.displayInterval), wallClock()};
  const uint64_t seed = static_cast<uint64_t>(opts.seed) + 11;
  for (int t = 0; t < k; ++t) {
    const bool onFull = full && t == 0;
    copies.a[t] = NdCopy{env, m, onFull ? whole.x : sparse.x, onFull ? whole.a : sparse.a, seed + t,
                         perms.a + t * slot, onFull ? perms.a + k * slot : nullptr, seed + k, !onFull,
                         t == 0 && opts.log ? &progress : nullptr, 0, 0, 0, 0};
  }
  // Each copy writes its own slot only.
  NdRun run{copies.a, k, std::min(k, std::max(1, opts.threads))};
  rc = barRunWorkers(env, run.workers, runCopies, &run);
  if (rc) return rc;
  f->ndCopies = k;
  f->ndFull = full;
  for (int t = 0; t < k; ++t) f->orderWork += copies.a[t].work;
  // With the full pattern in the race, orders on the reduced one carry the
  // dense columns' share of the work.
  auto cost = [&](double o, double z, bool reduced) {
    return full && reduced ? denseColumnOps(o, z, f->denseCols, m) : o;
  };
  int best = -1;
  double bestCost = 0;
  for (int t = 0; t < k; ++t) {
    const NdCopy& c = copies.a[t];
    if (c.rc) return c.rc;
    const double ct = cost(c.ops, c.nz, c.reduced);
    if (best < 0 || ct < bestCost) {
      best = t;
      bestCost = ct;
    }
  }
  // Asked for, dissection stands; in the automatic choice only when it predicts less work.
  if (opts.order == 1 || bestCost < cost(*ops, *nz, true)) {
    std::memcpy(perm, copies.a[best].perm, sizeof(int) * static_cast<size_t>(m));
    *nz = copies.a[best].nz;
    *ops = copies.a[best].ops;
    if (!copies.a[best].reduced) barDropDense(env, A.n, f);
  }
  return 0;
}

}  // namespace vrx
