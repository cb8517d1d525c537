// MPS reading speed on uncompressed files: megabytes per second per file.
//   mps_read_bench file.mps [file.mps ...]
#include <sys/stat.h>

#include <chrono>
#include <cstdio>

#include "vornix_c.h"

int main(int argc, char** argv) {
  VRXenv* env = nullptr;
  if (VRXloadenv(&env, nullptr)) return 1;
  VRXsetintparam(env, "OutputFlag", 0);
  double totalBytes = 0, totalSeconds = 0;
  for (int a = 1; a < argc; ++a) {
    struct stat st;
    if (stat(argv[a], &st) != 0) continue;
    auto t0 = std::chrono::steady_clock::now();
    VRXmodel* m = nullptr;
    int rc = VRXreadmodel(env, argv[a], &m);
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (rc) {
      std::printf("%s: %s\n", argv[a], VRXgeterrormsg(env));
      continue;
    }
    VRXfreemodel(m);
    double mb = st.st_size / 1e6;
    totalBytes += mb;
    totalSeconds += s;
    std::printf("%-40s %8.1f MB %8.3f s %8.1f MB/s\n", argv[a], mb, s, mb / s);
  }
  if (totalSeconds > 0) std::printf("overall %.1f MB/s\n", totalBytes / totalSeconds);
  VRXfreeenv(env);
  return 0;
}
