#include "io/numfmt.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vrx {

const char* formatNumber(double v, char* buf) {
  std::snprintf(buf, kNumBuf, "%g", v);
  double back = std::strtod(buf, nullptr);
  double diff = std::fabs(back - v);
  if (diff < 1e-10 && diff < 1e-15 * (1.0 + std::fabs(v))) return buf;
  double a = std::fabs(v);
  if (a >= 0.001 && a < 1e6) {
    int order = static_cast<int>(std::floor(std::log10(a)));
    int prec = 16 - order;
    if (prec < 0) prec = 0;
    std::snprintf(buf, kNumBuf, "%.*f", prec, v);
  } else {
    std::snprintf(buf, kNumBuf, "%.16e", v);
  }
  return buf;
}

}  // namespace vrx
