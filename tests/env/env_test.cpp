// Environment life cycle, copies, error store, handle checks and memory limits.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "../support/capture.h"
#include "../support/hooks.h"
#include "env/env.h"
#include "vornix_c.h"

namespace {

std::string tempPath(const char* tag) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "/tmp/vrx_env_%d_%s", static_cast<int>(getpid()), tag);
  return buf;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Sets an environment variable for one scope.
struct ScopedEnvVar {
  std::string name;
  explicit ScopedEnvVar(const char* n, const char* v) : name(n) { setenv(n, v, 1); }
  ~ScopedEnvVar() { unsetenv(name.c_str()); }
};

}  // namespace

TEST(EnvLifecycle, LoadEmptyStartAndVersion) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  ASSERT_NE(nullptr, env);
  EXPECT_STREQ("", VRXgeterrormsg(env));
  int v = -1;
  EXPECT_EQ(0, VRXgetintparam(env, "OutputFlag", &v));
  EXPECT_EQ(1, v);
  VRXfreeenv(env);

  // An empty environment takes parameters before it starts.
  ASSERT_EQ(0, VRXemptyenv(&env));
  EXPECT_EQ(0, VRXsetintparam(env, "Threads", 3));
  EXPECT_EQ(0, VRXstartenv(env));
  EXPECT_EQ(0, VRXstartenv(env));  // a second start does nothing
  EXPECT_EQ(0, VRXgetintparam(env, "Threads", &v));
  EXPECT_EQ(3, v);
  VRXfreeenv(env);

  int a = 0, b = 0, c = 0;
  VRXversion(&a, &b, &c);
  EXPECT_EQ(8, a);
  EXPECT_EQ(1, b);
  EXPECT_EQ(1, c);
  EXPECT_STRNE("", VRXplatform());
  EXPECT_STRNE("", VRXgitrevision());
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXloadenv(nullptr, nullptr));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXemptyenv(nullptr));
}

TEST(EnvLifecycle, BindingsVersionCheckAndCallbackQuietsOutput) {
  std::string logPath = tempPath("binding.log");
  std::remove(logPath.c_str());
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenvadv(&env, logPath.c_str(), VRX_API_CL, 8, 0, 3, nullptr, nullptr, nullptr,
                             nullptr, 0, -1, nullptr, nullptr, nullptr, nullptr));
  VRXfreeenv(env);
  std::string text = readFile(logPath);
  EXPECT_NE(std::string::npos, text.find("(linux64, vornix_cl) logging started"));
  EXPECT_NE(std::string::npos,
            text.find("Warning: Vornix version mismatch between vornix_cl 8.0.3 and C library 8.1.1\n"));
  std::remove(logPath.c_str());

  // The matching version gives no warning; no binding gives no binding name.
  ASSERT_EQ(0, VRXloadenvadv(&env, logPath.c_str(), VRX_API_CL, 8, 1, 1, nullptr, nullptr, nullptr,
                             nullptr, 0, -1, nullptr, nullptr, nullptr, nullptr));
  VRXfreeenv(env);
  ASSERT_EQ(0, VRXloadenv(&env, logPath.c_str()));
  VRXfreeenv(env);
  text = readFile(logPath);
  EXPECT_EQ(std::string::npos, text.find("version mismatch"));
  EXPECT_NE(std::string::npos, text.find("Vornix 8.1.1 (linux64) logging started"));
  std::remove(logPath.c_str());

  // A callback passed at the start turns the output off; Matlab forces it on.
  auto cb = [](VRXmodel*, void*, int, void*) { return 0; };
  ASSERT_EQ(0, VRXloadenvadv(&env, nullptr, VRX_API_NONE, 0, 0, 0, nullptr, nullptr, nullptr,
                             nullptr, 0, -1, nullptr, nullptr, cb, nullptr));
  int v = -1;
  VRXgetintparam(env, "OutputFlag", &v);
  EXPECT_EQ(0, v);
  VRXfreeenv(env);
  ASSERT_EQ(0, VRXloadenvadv(&env, nullptr, VRX_API_MATLAB, 8, 1, 1, nullptr, nullptr, nullptr,
                             nullptr, 0, -1, nullptr, nullptr, cb, nullptr));
  VRXgetintparam(env, "OutputFlag", &v);
  EXPECT_EQ(1, v);
  VRXfreeenv(env);

  // A priority outside -100..100 is refused, and the handle comes back for the text.
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT,
            VRXloadenvadv(&env, nullptr, VRX_API_NONE, 0, 0, 0, nullptr, nullptr, nullptr, nullptr,
                          101, -1, nullptr, nullptr, nullptr, nullptr));
  ASSERT_NE(nullptr, env);
  EXPECT_STREQ("Unable to set parameter CSPriority to value 101 (maximum is 100)",
               VRXgeterrormsg(env));
  VRXfreeenv(env);
}

TEST(EnvLifecycle, ClientAndCloudStartsValidateArguments) {
  VRXenv* env = nullptr;
  EXPECT_EQ(10009, VRXloadclientenv(&env, nullptr, "", nullptr, nullptr, nullptr, 0, 0, -1));
  ASSERT_NE(nullptr, env);
  EXPECT_STREQ("Must specify one or more Compute Servers", VRXgeterrormsg(env));
  VRXfreeenv(env);
  env = nullptr;
  EXPECT_EQ(10009, VRXloadclientenv(&env, nullptr, nullptr, nullptr, nullptr, nullptr, 0, 0, -1));
  VRXfreeenv(env);
  env = nullptr;
  // No server can be reached from this build: a clear network error.
  EXPECT_EQ(VRX_ERROR_NETWORK,
            VRXloadclientenv(&env, nullptr, "localhost:1", nullptr, nullptr, nullptr, 0, 0, -1));
  ASSERT_NE(nullptr, env);
  char server[513];
  EXPECT_EQ(0, VRXgetstrparam(env, "ComputeServer", server));
  EXPECT_STREQ("localhost:1", server);
  VRXfreeenv(env);
  env = nullptr;
  EXPECT_EQ(VRX_ERROR_CLOUD, VRXloadcloudenv(&env, nullptr, "", "", "pool", 0));
  VRXfreeenv(env);
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT,
            VRXloadclientenv(nullptr, nullptr, "x", nullptr, nullptr, nullptr, 0, 0, -1));
}

TEST(EnvLifecycle, CopiesAreIndependentAndCounted) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  VRXsetintparam(env, "OutputFlag", 0);
  ASSERT_EQ(0, VRXsetintparam(env, "Seed", 11));
  ASSERT_EQ(0, VRXsetstrparam(env, "NodefileDir", "/tmp/nodes"));
  int err = 0;
  VRXenv* copy = vrx::envCopy(env, false, &err);
  ASSERT_EQ(0, err);
  ASSERT_NE(nullptr, copy);
  EXPECT_EQ(1, env->copyCount);
  EXPECT_EQ(env, copy->master);
  EXPECT_EQ(0, copy->ownsTables);
  int v = 0;
  EXPECT_EQ(0, VRXgetintparam(copy, "Seed", &v));
  EXPECT_EQ(11, v);
  char dir[513];
  EXPECT_EQ(0, VRXgetstrparam(copy, "NodefileDir", dir));
  EXPECT_STREQ("/tmp/nodes", dir);
  // Changes on either side stay there.
  ASSERT_EQ(0, VRXsetintparam(copy, "Seed", 5));
  ASSERT_EQ(0, VRXsetstrparam(env, "NodefileDir", "/var/x"));
  VRXgetintparam(env, "Seed", &v);
  EXPECT_EQ(11, v);
  VRXgetstrparam(copy, "NodefileDir", dir);
  EXPECT_STREQ("/tmp/nodes", dir);
  vrx::envFreeRecord(copy);
  EXPECT_EQ(1, env->copyCount);  // the count only grows
  VRXfreeenv(env);
}

TEST(EnvLifecycle, ParameterChangeWarningOnceAfterCopies) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  captureLogOf(env);
  VRXsetintparam(env, "Seed", 1);
  EXPECT_EQ(std::string::npos, capturedLog().find("will not affect"));
  int err = 0;
  VRXenv* copy = vrx::envCopy(env, false, &err);
  ASSERT_NE(nullptr, copy);
  VRXsetintparam(env, "Seed", 2);
  VRXsetdblparam(env, "TimeLimit", 5);
  const std::string w =
      "Warning: parameter changes on this environment will not affect existing models.\n";
  size_t first = capturedLog().find(w);
  EXPECT_NE(std::string::npos, first);
  EXPECT_EQ(std::string::npos, capturedLog().find(w, first + 1));
  vrx::envFreeRecord(copy);
  VRXfreeenv(env);
}

TEST(ErrorStore, FirstMessageWinsAndOutOfMemoryReplaces) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  vrx::raise(env, 10003, false, "first %d", 1);
  vrx::raise(env, 10005, false, "second");
  EXPECT_STREQ("first 1", VRXgeterrormsg(env));
  EXPECT_EQ(10005, env->errorCode);
  vrx::setError(env, 10006);  // a standing text stays
  EXPECT_STREQ("first 1", VRXgeterrormsg(env));
  vrx::raise(env, 10003, true, "forced");
  EXPECT_STREQ("forced", VRXgeterrormsg(env));
  vrx::setError(env, VRX_ERROR_OUT_OF_MEMORY);
  EXPECT_STREQ("Out of memory", VRXgeterrormsg(env));
  vrx::setError(env, 0);
  EXPECT_STREQ("", VRXgeterrormsg(env));
  EXPECT_EQ(0, env->errorCode);

  // Empty texts come from the table, or as a number.
  vrx::setError(env, 10024);
  EXPECT_STREQ("Unsupported operation", VRXgeterrormsg(env));
  vrx::setError(env, 0);
  vrx::setError(env, 10010);
  EXPECT_STREQ("Error number 10010", VRXgeterrormsg(env));
  vrx::setError(env, 0);
  vrx::setError(env, 10018);
  EXPECT_STREQ("Error number 10018", VRXgeterrormsg(env));
  vrx::setError(env, 0);
  vrx::setError(env, 9999);
  EXPECT_STREQ("Error number 9999", VRXgeterrormsg(env));
  vrx::setError(env, 0);

  // Frozen: a forced raise cannot replace, an append does nothing; code 0 still clears.
  vrx::raise(env, 10003, false, "outer");
  {
    vrx::ErrorFreeze freeze(env);
    vrx::raise(env, 10006, true, "inner");
    vrx::appendError(env, 10006, " more");
    EXPECT_STREQ("outer", VRXgeterrormsg(env));
  }
  vrx::appendError(env, 10004, ": detail");
  EXPECT_STREQ("outer: detail", VRXgeterrormsg(env));
  EXPECT_EQ(10004, env->errorCode);
  {
    vrx::ErrorFreeze freeze(env);
    vrx::setError(env, 0);
    EXPECT_STREQ("", VRXgeterrormsg(env));
  }

  // Texts are cut at 512 characters.
  std::string longText(600, 'x');
  vrx::raise(env, 10003, true, "%s", longText.c_str());
  EXPECT_EQ(512u, std::strlen(VRXgeterrormsg(env)));
  vrx::setError(env, 0);
  vrx::raise(env, 10003, false, "%s", longText.c_str());
  vrx::appendError(env, 10003, "tail");
  EXPECT_EQ(512u, std::strlen(VRXgeterrormsg(env)));
  VRXfreeenv(env);
}

TEST(HandleChecks, NullForeignAndFreedHandles) {
  EXPECT_STREQ("", VRXgeterrormsg(nullptr));
  EXPECT_STREQ("", VRXgetmerrormsg(nullptr));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXsetintparam(nullptr, "Seed", 1));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXcheckmodel(nullptr));
  EXPECT_EQ(0, VRXterminate(nullptr));
  EXPECT_EQ(nullptr, VRXgetenv(nullptr));
  EXPECT_EQ(0, VRXgetnumparams(nullptr));
  EXPECT_EQ(-1, VRXgetparamtype(nullptr, "Seed"));

  // A record that is not an environment.
  alignas(VRXenv) unsigned char junk[sizeof(VRXenv)] = {};
  auto* fake = reinterpret_cast<VRXenv*>(junk);
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXsetintparam(fake, "Seed", 1));
  EXPECT_STREQ("", VRXgeterrormsg(fake));
  VRXfreeenv(fake);  // ignored

  // Freed handles: the hooks keep the memory readable, so the checks can see it.
  HookState hooks;
  hooks.deferFree = true;
  VRXenv* env = nullptr;
  ASSERT_EQ(0, loadWithHooks(&env, &hooks));
  VRXsetintparam(env, "OutputFlag", 0);
  int err = 0;
  VRXenv* copy = vrx::envCopy(env, false, &err);
  ASSERT_NE(nullptr, copy);
  VRXfreeenv(env);
  EXPECT_STREQ("", VRXgeterrormsg(env));
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXsetintparam(env, "Seed", 1));
  // A copy whose master is gone is refused, not crashed on.
  EXPECT_EQ(VRX_ERROR_INVALID_ARGUMENT, VRXsetintparam(copy, "Seed", 1));
  vrx::envFreeRecord(copy);  // a copy frees through the hooks alone
  EXPECT_EQ(0, hooks.live);
}

TEST(MemoryLimit, AccountingAndLimitFromEnvironmentVariable) {
  {
    ScopedEnvVar limit("VRX_MEMLIMIT", "0");
    VRXenv* env = reinterpret_cast<VRXenv*>(0x1);
    EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, VRXloadenv(&env, nullptr));
    EXPECT_EQ(nullptr, env);
  }
  {
    ScopedEnvVar limit("VRX_MEMLIMIT", "0.01");  // 10 MB
    VRXenv* env = nullptr;
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    ASSERT_NE(nullptr, env->memoryLock);
    EXPECT_DOUBLE_EQ(1e7, env->memoryLimit);
    int64_t base = env->memoryInUse;
    EXPECT_GT(base, 0);
    void* p = vrx::envMalloc(env, 1000000);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(base + 1000000, env->memoryInUse);
    p = vrx::envRealloc(env, p, 2000000);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(base + 2000000, env->memoryInUse);
    EXPECT_EQ(nullptr, vrx::envMalloc(env, 20000000));  // over the limit
    EXPECT_EQ(nullptr, vrx::envRealloc(env, p, 20000000));
    EXPECT_EQ(base + 2000000, env->memoryInUse);  // failures leave the counters
    EXPECT_GE(env->memoryPeak, base + 2000000);
    vrx::envFree(env, p);
    EXPECT_EQ(base, env->memoryInUse);
    // Blocks of a copy count on the master.
    int err = 0;
    VRXenv* copy = vrx::envCopy(env, false, &err);
    ASSERT_NE(nullptr, copy);
    EXPECT_GT(env->memoryInUse, base);
    vrx::envFreeRecord(copy);
    EXPECT_EQ(base, env->memoryInUse);
    VRXfreeenv(env);
  }
  for (const char* bad : {"abc", "-1", "", "1e200"}) {
    ScopedEnvVar limit("VRX_MEMLIMIT", bad);
    VRXenv* env = nullptr;
    ASSERT_EQ(0, VRXloadenv(&env, nullptr)) << bad;
    EXPECT_EQ(nullptr, env->memoryLock) << bad;
    VRXfreeenv(env);
  }
}

TEST(MemoryLimit, EveryFailedAllocationOfTheStartIsCleanedUp) {
  std::string logPath = tempPath("oom.log");
  int successes = 0;
  for (long k = 0; k < 10000 && successes == 0; ++k) {
    HookState hooks;
    hooks.failAt = k;
    VRXenv* env = reinterpret_cast<VRXenv*>(0x1);
    int rc = loadWithHooks(&env, &hooks, logPath.c_str());
    if (rc == 0) {
      ++successes;
      ASSERT_NE(nullptr, env);
    } else {
      EXPECT_EQ(VRX_ERROR_OUT_OF_MEMORY, rc) << "failing allocation " << k;
      if (env) EXPECT_STREQ("Out of memory", VRXgeterrormsg(env));
    }
    VRXfreeenv(env);
    EXPECT_EQ(0, hooks.live) << "blocks left after failing allocation " << k;
  }
  EXPECT_EQ(1, successes);
  std::remove(logPath.c_str());
}

TEST(EnvLifecycle, CoreOverrides) {
  VRXenv* env = nullptr;
  ASSERT_EQ(0, VRXloadenv(&env, nullptr));
  int detected = env->coreCount;
  int detectedPhysical = env->physicalCoreCount;
  EXPECT_GE(detected, 1);
  EXPECT_EQ(detected, VRXgetcores());
  EXPECT_GE(VRXgetsockets(), 1);
  VRXfreeenv(env);
  for (const char* bad : {"0", "1025", "abc", "-3"}) {
    ScopedEnvVar c("VRX_CORES", bad);
    ScopedEnvVar p("VRX_PHYSICALCORES", bad);
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    EXPECT_EQ(detected, env->coreCount) << bad;
    EXPECT_EQ(detectedPhysical, env->physicalCoreCount) << bad;
    VRXfreeenv(env);
  }
  {
    ScopedEnvVar c("VRX_CORES", "1024");
    ScopedEnvVar p("VRX_PHYSICALCORES", "7");
    ASSERT_EQ(0, VRXloadenv(&env, nullptr));
    EXPECT_EQ(1024, env->coreCount);
    EXPECT_EQ(7, env->physicalCoreCount);
    for (int i = 0; i < env->coreCount; ++i) ASSERT_EQ(-1, env->coreMap[i]);
    VRXfreeenv(env);
  }
  {
    ScopedEnvVar n("NUMBER_OF_PROCESSORS", "1");
    EXPECT_EQ(1, VRXgetcores());
  }
}

TEST(EnvLifecycle, PlatformQueries) {
  char buf[1024];
  EXPECT_EQ(0, VRXgetusername(buf));
  for (const char* p = buf; *p; ++p) {
    EXPECT_NE(' ', *p);
    EXPECT_FALSE(*p >= 'A' && *p <= 'Z');
  }
  EXPECT_EQ(0, VRXgethostname(buf));
  EXPECT_EQ(nullptr, std::strchr(buf, ' '));
  EXPECT_EQ(0, VRXgetcpu(buf));
  EXPECT_EQ(VRX_ERROR_NULL_ARGUMENT, VRXgetusername(nullptr));
  char small[8];
  EXPECT_EQ(11, VRXsnprintf(small, sizeof small, "%s", "hello world"));
  EXPECT_STREQ("hello w", small);
}

TEST(EnvLifecycle, DefaultsFileInCurrentDirectory) {
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
  std::string dir = tempPath("defaults");
  std::string cmd = "mkdir -p " + dir;
  ASSERT_EQ(0, std::system(cmd.c_str()));
  ASSERT_EQ(0, chdir(dir.c_str()));
  {
    std::ofstream f("vornix.env");
    f << "# site defaults\nThreads 2\nSeed=9 trailing words\nNoSuchThing 3\nMIPGap -1\n";
  }
  std::string logPath = dir + "/defaults.log";
  VRXenv* env = nullptr;
  int rc = VRXloadenv(&env, logPath.c_str());
  std::remove("vornix.env");
  ASSERT_EQ(0, chdir(cwd));
  ASSERT_EQ(0, rc);
  int v = 0;
  VRXgetintparam(env, "Threads", &v);
  EXPECT_EQ(2, v);
  VRXgetintparam(env, "Seed", &v);
  EXPECT_EQ(9, v);
  double gap = 0;
  VRXgetdblparam(env, "MIPGap", &gap);
  EXPECT_DOUBLE_EQ(1e-4, gap);
  EXPECT_STREQ("", VRXgeterrormsg(env));  // refusals are logged, not left standing
  VRXfreeenv(env);
  std::string text = readFile(logPath);
  EXPECT_NE(std::string::npos, text.find("Set parameter Threads to value 2\n"));
  EXPECT_NE(std::string::npos, text.find("Set parameter Seed to value 9\n"));
  EXPECT_NE(std::string::npos, text.find("Warning: unknown parameter NoSuchThing in vornix.env\n"));
  EXPECT_NE(std::string::npos, text.find("Failed to set parameter MIPGap to value -1\n"));
  EXPECT_NE(std::string::npos, text.find("1 warnings while reading parameter file vornix.env\n"));
  std::remove(logPath.c_str());
  rmdir(dir.c_str());
}
