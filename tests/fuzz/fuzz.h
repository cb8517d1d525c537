// A deterministic mutational fuzzer for the file readers: seed texts, a
// seeded mutator, and one runner that reads each mutant through the public
// calls and checks that the reader fails cleanly or gives a model that
// writes and reads back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fuzz {

// splitmix64: the same sequence on every platform.
struct Rng {
  uint64_t s;
  explicit Rng(uint64_t seed) : s(seed) {}
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  size_t below(size_t n) { return n ? static_cast<size_t>(next() % n) : 0; }
  bool chance(int percent) { return below(100) < static_cast<size_t>(percent); }
};

std::vector<std::string> mpsSeeds();
std::vector<std::string> lpSeeds();
// Side files for the model of sideModelText (an LP file), by suffix.
struct SideSeed {
  const char* suffix;
  std::string text;
};
std::vector<SideSeed> sideSeeds();
std::string sideModelText();

// One to four mutations of seed; pool gives lines to splice in and words
// to insert.
std::string mutate(const std::string& seed, const std::vector<std::string>& pool, Rng& rng);

// Cases per reader: the default, scaled by VRX_FUZZ_CASES when it is set.
long caseCount(long fallback);
// The base seed: VRX_FUZZ_SEED when set.
uint64_t baseSeed();

}  // namespace fuzz
