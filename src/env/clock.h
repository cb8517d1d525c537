// The clock of a solve: wall-clock start and deterministic work, carried together.
#pragma once

#include "env/env.h"

namespace vrx {

struct Clock {
  double start;  // wall-clock seconds at the start of the run
  double work;   // deterministic work units spent so far
};

inline Clock clockStart() { return Clock{wallClock(), 0.0}; }
inline double clockElapsed(const Clock& c) { return wallClock() - c.start; }
inline void clockCharge(Clock& c, double units) { c.work += units; }

// The seeded pseudo-random stream of a model: one 64-bit state.
struct Random {
  uint64_t state;
};

inline void randomSeed(Random& r, uint64_t seed) { r.state = seed; }

// The next draw as a 31-bit integer.
inline uint32_t randomNext(Random& r) {
  r.state = r.state * 0x5851F42D4C957F2DULL + 0x14057B7EF767814FULL;
  uint32_t x = static_cast<uint32_t>(r.state >> 32);
  x ^= x >> 11;
  x ^= (x << 7) & 0x9D2C5680u;
  x ^= (x << 15) & 0xEFC60000u;
  x ^= x >> 18;
  return x & 0x7FFFFFFFu;
}

// A uniform draw in [0, 1).
inline double randomUniform(Random& r) { return randomNext(r) * 4.656612873077393e-10; }

}  // namespace vrx
