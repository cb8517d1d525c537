// Host and processor queries.
#include <pwd.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <utility>

#include "env/env.h"

namespace vrx {

namespace {

// Reads one small integer file of the sysfs topology tree; -1 when absent.
int readSysInt(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "r");
  if (!f) return -1;
  int v = -1;
  if (std::fscanf(f, "%d", &v) != 1) v = -1;
  std::fclose(f);
  return v;
}

struct Topology {
  int cores = 0;    // distinct (package, core) pairs
  int sockets = 0;  // distinct packages
};

Topology readTopology() {
  Topology t;
  long n = sysconf(_SC_NPROCESSORS_CONF);
  std::set<std::pair<int, int>> cores;
  std::set<int> packages;
  for (long c = 0; c < n; ++c) {
    std::string base = "/sys/devices/system/cpu/cpu" + std::to_string(c) + "/";
    if (readSysInt(base + "online") == 0) continue;
    int pkg = readSysInt(base + "topology/physical_package_id");
    int core = readSysInt(base + "topology/core_id");
    if (pkg < 0 || core < 0) continue;
    cores.insert({pkg, core});
    packages.insert(pkg);
  }
  t.cores = static_cast<int>(cores.size());
  t.sockets = static_cast<int>(packages.size());
  return t;
}

}  // namespace

int detectCores() {
  long online = sysconf(_SC_NPROCESSORS_ONLN);
  long n = online > 0 ? online : 1;
  if (const char* v = std::getenv("NUMBER_OF_PROCESSORS")) {
    char* end = nullptr;
    long x = std::strtol(v, &end, 10);
    if (end != v && x > 0) {
      if (x > 99999999) x = 99999999;
      if (x < n) n = x;
    }
  }
  Topology t = readTopology();
  if (t.cores > 0 && t.cores < n) n = t.cores;
  return n < 1 ? 1 : static_cast<int>(n);
}

int detectPhysicalCores() {
  Topology t = readTopology();
  if (t.cores > 0) return t.cores;
  long online = sysconf(_SC_NPROCESSORS_ONLN);
  return online > 0 ? static_cast<int>(online) : 1;
}

bool cpuHasSse2() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse2");
#else
  return true;
#endif
}

}  // namespace vrx

extern "C" {

VRX_API int VRXgetusername(char* buffer) {
  if (!buffer) return VRX_ERROR_NULL_ARGUMENT;
  const char* name = nullptr;
  struct passwd pw;
  struct passwd* res = nullptr;
  char scratch[4096];
  if (getpwuid_r(geteuid(), &pw, scratch, sizeof scratch, &res) == 0 && res) name = pw.pw_name;
  if (!name) name = std::getenv("USER");
  if (!name) name = "";
  int n = 0;
  for (; name[n] && n < 512; ++n) {
    unsigned char c = static_cast<unsigned char>(name[n]);
    if (c == ' ')
      c = '_';
    else if (c >= 128)
      c = static_cast<unsigned char>('a' + (c & 15));
    else
      c = static_cast<unsigned char>(std::tolower(c));
    buffer[n] = static_cast<char>(c);
  }
  buffer[n] = '\0';
  return 0;
}

VRX_API int VRXgethostname(char* buffer) {
  if (!buffer) return VRX_ERROR_NULL_ARGUMENT;
  char host[256] = {0};
  if (gethostname(host, sizeof host - 1) != 0) host[0] = '\0';
  int n = 0;
  for (; host[n]; ++n) buffer[n] = host[n] == ' ' ? '_' : host[n];
  buffer[n] = '\0';
  return 0;
}

VRX_API int VRXgetcpu(char* buffer) {
  if (!buffer) return VRX_ERROR_NULL_ARGUMENT;
  buffer[0] = '\0';
  FILE* f = std::fopen("/proc/cpuinfo", "r");
  if (!f) return 0;
  char line[1024];
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, "model name", 10) != 0) continue;
    const char* p = std::strchr(line, ':');
    if (!p) continue;
    ++p;
    while (*p == ' ' || *p == '\t') ++p;
    std::snprintf(buffer, 256, "%s", p);
    size_t len = std::strlen(buffer);
    while (len > 0 && (buffer[len - 1] == '\n' || buffer[len - 1] == ' ')) buffer[--len] = '\0';
    break;
  }
  std::fclose(f);
  return 0;
}

VRX_API int VRXgetcores(void) { return vrx::detectCores(); }

VRX_API int VRXgetsockets(void) {
  int s = vrx::readTopology().sockets;
  return s < 1 ? 1 : s;
}

}  // extern "C"
