// The number form of the text writers: short when it reads back, exact otherwise.
#pragma once

namespace vrx {

constexpr int kNumBuf = 48;

// Writes v into buf (kNumBuf bytes) and returns buf.
const char* formatNumber(double v, char* buf);

}  // namespace vrx
