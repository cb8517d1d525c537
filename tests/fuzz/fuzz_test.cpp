// Mutated MPS, LP and side files through VRXreadmodel and VRXread: every
// case ends in a model or in an error code with a text, never in a crash, a
// hang or a leaked block; a model that reads is written and read again.
//
// The suite runs a short smoke run. Longer runs, for manual use:
//   VRX_FUZZ_CASES=200000 VRX_FUZZ_SEED=7 vornix_tests --gtest_filter='Fuzz.*'
// A failing case names its index and keeps its input in /tmp;
// VRX_FUZZ_ONLY=<index> (with the same VRX_FUZZ_SEED) reruns it alone.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "../support/hooks.h"
#include "fuzz.h"
#include "model/model.h"
#include "model/modeldata.h"
#include "vornix_c.h"

namespace {

using Clock = std::chrono::steady_clock;

// Aborts the run, naming the case, when one case takes too long: a hang
// would otherwise only show as a time-out of the whole binary.
class Watchdog {
 public:
  explicit Watchdog(int limitSeconds) : limit_(limitSeconds), thread_([this] { watch(); }) {}
  ~Watchdog() {
    stop_ = true;
    thread_.join();
  }
  void start(long index) {
    index_ = index;
    since_ = Clock::now().time_since_epoch().count();
    busy_ = true;
  }
  void done() { busy_ = false; }

 private:
  void watch() {
    while (!stop_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      if (!busy_) continue;
      auto since = Clock::time_point(Clock::duration(since_.load()));
      if (Clock::now() - since > std::chrono::seconds(limit_)) {
        std::fprintf(stderr, "fuzz: case %ld of seed %llu ran longer than %d s\n", index_.load(),
                     static_cast<unsigned long long>(fuzz::baseSeed()), limit_);
        std::abort();
      }
    }
  }
  int limit_;
  std::atomic<bool> stop_{false}, busy_{false};
  std::atomic<Clock::rep> since_{0};
  std::atomic<long> index_{0};
  std::thread thread_;
};

void ignoreLog(const char*) {}

// Set when the LP writer advises the .rlp form.
bool advisedRlp = false;
void watchLog(const char* line) {
  if (std::strstr(line, "use rlp format")) advisedRlp = true;
}

long onlyCase() {
  const char* v = std::getenv("VRX_FUZZ_ONLY");
  return v && *v ? std::strtol(v, nullptr, 10) : -1;
}

class Fuzz : public ::testing::Test {
 protected:
  HookState hooks;
  VRXenv* env = nullptr;
  std::string dir;
  long baseline = 0;
  long accepted = 0, rejected = 0;

  void SetUp() override {
    ASSERT_EQ(0, loadWithHooks(&env, &hooks));
    // Log lines are formatted but go nowhere: the formatting is under test too.
    VRXsetlogcallbackfuncenv(env, ignoreLog);
    VRXsetintparam(env, "LogToConsole", 0);
    char buf[128];
    std::snprintf(buf, sizeof buf, "/tmp/vrx_fuzz_%d", static_cast<int>(getpid()));
    dir = buf;
    ASSERT_EQ(0, std::system(("mkdir -p " + dir).c_str()));
    baseline = hooks.live;
  }
  void TearDown() override {
    std::printf("[ FUZZ     ] %ld read, %ld refused\n", accepted, rejected);
    VRXfreeenv(env);
    EXPECT_EQ(0, hooks.live);
    std::system(("rm -rf " + dir).c_str());
  }

  std::string write(const std::string& name, const std::string& bytes) {
    std::string path = dir + "/" + name;
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return path;
  }

  // Keeps the input of a failed case beside the directory, which goes.
  void keep(const std::string& path, long index) {
    std::string kept = dir + "_case" + std::to_string(index) + path.substr(path.find('.', path.rfind('/')));
    std::system(("cp '" + path + "' '" + kept + "'").c_str());
    std::fprintf(stderr, "fuzz: input of case %ld kept as %s\n", index, kept.c_str());
  }

  // A failed call: no model, a code of the error range, and a text.
  void expectCleanFailure(int rc, const VRXmodel* m, const std::string& what) {
    EXPECT_GE(rc, 10001) << what;
    EXPECT_LE(rc, 10050) << what;
    EXPECT_EQ(nullptr, m) << what;
    const char* msg = VRXgeterrormsg(env);
    EXPECT_TRUE(msg && msg[0]) << what;
  }

  int count(VRXmodel* m, const char* attr) {
    int v = -1;
    EXPECT_EQ(0, VRXgetintattr(m, attr, &v)) << attr;
    return v;
  }

  // A model that read must write as MPS and as LP with default names, and
  // both files must read back to the same dimensions; so must an LP file
  // with the model's names unless the writer advised the .rlp form. Cones
  // come back as quadratic rows; a model without columns has no MPS form,
  // and a quadratic row without quadratic terms is a linear one in LP files.
  void expectRoundTrip(VRXmodel* m, const std::string& what) {
    static const char* const kAttrs[] = {"NumVars", "NumGenConstrs", "NumSOS", "NumIntVars"};
    const VRXmodeldata* d = m->data;
    int emptyQ = 0, emptyQNZs = 0;
    for (int q = 0; q < d->numQConstrs; ++q)
      if (d->qcQuadBeg[q + 1] == d->qcQuadBeg[q]) {
        ++emptyQ;
        emptyQNZs += static_cast<int>(d->qcLinBeg[q + 1] - d->qcLinBeg[q]);
      }
    VRXsetlogcallbackfuncenv(VRXgetenv(m), watchLog);
    for (const char* suffix : {".mps", ".rlp", ".lp"}) {
      if (count(m, "NumVars") == 0 && std::strcmp(suffix, ".mps") == 0) continue;
      std::string path = dir + "/again" + suffix;
      advisedRlp = false;
      int rc = VRXwrite(m, path.c_str());
      ASSERT_EQ(0, rc) << what << " writing " << suffix << ": " << VRXgeterrormsg(env);
      if (advisedRlp) continue;
      VRXmodel* b = nullptr;
      rc = VRXreadmodel(env, path.c_str(), &b);
      ASSERT_EQ(0, rc) << what << " reading back " << suffix << ": " << VRXgeterrormsg(env);
      for (const char* a : kAttrs) EXPECT_EQ(count(m, a), count(b, a)) << what << " " << suffix << " " << a;
      const bool lp = std::strcmp(suffix, ".mps") != 0;
      const int movedRows = lp ? emptyQ : 0, movedNZs = lp ? emptyQNZs : 0;
      EXPECT_EQ(count(m, "NumConstrs") + movedRows, count(b, "NumConstrs")) << what << " " << suffix;
      EXPECT_EQ(count(m, "NumNZs") + movedNZs, count(b, "NumNZs")) << what << " " << suffix;
      EXPECT_EQ(count(m, "NumQConstrs") + d->numCones - movedRows, count(b, "NumQConstrs")) << what << " " << suffix;
      VRXfreemodel(b);
      std::remove(path.c_str());
    }
  }

  // Mutants of the seeds under the given suffix, read as models.
  void runModelCases(const std::vector<std::string>& seeds, const std::vector<std::string>& pool,
                     const char* suffix, uint64_t stream, long cases) {
    Watchdog dog(60);
    const long only = onlyCase();
    for (long k = 0; k < cases; ++k) {
      if (only >= 0 && k != only) continue;
      fuzz::Rng rng(fuzz::baseSeed() * 1000003ull + stream * 7919ull + static_cast<uint64_t>(k));
      std::string text = fuzz::mutate(seeds[rng.below(seeds.size())], pool, rng);
      // Now and then the bytes stand behind a compression suffix they do not have.
      static const char* const kComp[] = {".gz", ".bz2", ".zip", ".7z"};
      std::string name = std::string("case") + suffix;
      if (rng.chance(4)) name += kComp[rng.below(4)];
      std::string path = write(name, text);
      std::string what = "case " + std::to_string(k) + " " + path;
      dog.start(k);
      VRXmodel* m = reinterpret_cast<VRXmodel*>(0x1);
      int rc = VRXreadmodel(env, path.c_str(), &m);
      if (rc == 0) {
        ++accepted;
        ASSERT_NE(nullptr, m) << what;
        expectRoundTrip(m, what);
        VRXfreemodel(m);
      } else {
        ++rejected;
        expectCleanFailure(rc, m, what);
      }
      dog.done();
      ASSERT_EQ(baseline, hooks.live) << what << ": blocks left behind";
      if (HasFailure()) return keep(path, k);
    }
  }
};

std::vector<std::string> joined(const std::vector<std::string>& a, const std::vector<std::string>& b) {
  std::vector<std::string> all = a;
  all.insert(all.end(), b.begin(), b.end());
  return all;
}

}  // namespace

TEST_F(Fuzz, MutatedMpsFilesReadCleanly) {
  const auto seeds = fuzz::mpsSeeds();
  // The seeds themselves read.
  for (size_t k = 0; k < seeds.size(); ++k) {
    VRXmodel* m = nullptr;
    std::string path = write("seed.mps", seeds[k]);
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << k << ": " << VRXgeterrormsg(env);
    expectRoundTrip(m, "seed " + std::to_string(k));
    VRXfreemodel(m);
  }
  runModelCases(seeds, joined(seeds, fuzz::lpSeeds()), ".mps", 1, fuzz::caseCount(1500));
  // A useful run both accepts and rejects a fair share of its mutants.
  if (onlyCase() < 0) {
    EXPECT_GT(accepted, rejected / 20);
    EXPECT_GT(rejected, accepted / 20);
  }
}

TEST_F(Fuzz, MutatedLpFilesReadCleanly) {
  const auto seeds = fuzz::lpSeeds();
  for (size_t k = 0; k < seeds.size(); ++k) {
    VRXmodel* m = nullptr;
    std::string path = write("seed.lp", seeds[k]);
    ASSERT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << k << ": " << VRXgeterrormsg(env);
    expectRoundTrip(m, "seed " + std::to_string(k));
    VRXfreemodel(m);
  }
  runModelCases(seeds, joined(seeds, fuzz::mpsSeeds()), ".lp", 2, fuzz::caseCount(1500));
  if (onlyCase() < 0) {
    EXPECT_GT(accepted, rejected / 20);
    EXPECT_GT(rejected, accepted / 20);
  }
}

TEST_F(Fuzz, MutatedSideFilesReadCleanly) {
  const auto seeds = fuzz::sideSeeds();
  std::vector<std::string> pool;
  for (const auto& s : seeds) pool.push_back(s.text);
  const std::string modelPath = write("side.lp", fuzz::sideModelText());
  const long cases = fuzz::caseCount(600), only = onlyCase();
  Watchdog dog(60);
  for (long k = 0; k < cases; ++k) {
    if (only >= 0 && k != only) continue;
    fuzz::Rng rng(fuzz::baseSeed() * 1000003ull + 3 * 7919ull + static_cast<uint64_t>(k));
    const fuzz::SideSeed& seed = seeds[rng.below(seeds.size())];
    std::string text = fuzz::mutate(seed.text, pool, rng);
    // Mostly the seed's own kind; sometimes another reader gets the text.
    const char* suffix = rng.chance(85) ? seed.suffix : seeds[rng.below(seeds.size())].suffix;
    std::string path = write(std::string("case") + suffix, text);
    std::string what = "case " + std::to_string(k) + " " + path;
    VRXmodel* m = nullptr;
    ASSERT_EQ(0, VRXreadmodel(env, modelPath.c_str(), &m));
    dog.start(k);
    int rc = VRXread(m, path.c_str());
    if (rc == 0) {
      ++accepted;
      // What was read applies as pending changes.
      EXPECT_EQ(0, VRXupdatemodel(m)) << what << ": " << VRXgetmerrormsg(m);
    } else {
      ++rejected;
      EXPECT_GE(rc, 10001) << what;
      EXPECT_LE(rc, 10050) << what;
      const char* msg = VRXgeterrormsg(env);
      const char* mmsg = VRXgetmerrormsg(m);
      EXPECT_TRUE((msg && msg[0]) || (mmsg && mmsg[0])) << what;
    }
    dog.done();
    VRXfreemodel(m);
    ASSERT_EQ(baseline, hooks.live) << what << ": blocks left behind";
    if (HasFailure()) return keep(path, k);
  }
  if (only < 0) EXPECT_GT(accepted, 0);
}
