// The C number form for this thread while a file is read or a solve runs.
#pragma once

#include <locale.h>

namespace vrx {

struct NeutralLocale {
  locale_t c = nullptr;
  locale_t old = nullptr;
  explicit NeutralLocale(bool active = true) {
    if (!active) return;
    c = newlocale(LC_NUMERIC_MASK, "C", static_cast<locale_t>(0));
    if (c) old = uselocale(c);
  }
  ~NeutralLocale() {
    if (c) {
      uselocale(old);
      freelocale(c);
    }
  }
  NeutralLocale(const NeutralLocale&) = delete;
  NeutralLocale& operator=(const NeutralLocale&) = delete;
};

}  // namespace vrx
