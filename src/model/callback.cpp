// The callback frame.
#include "model/callback.h"

#include <cstdio>

#include "model/model.h"

namespace vrx {

int callbackMessage(VRXenv* env, const char* text) {
  VRXcbdata* cb = env->cbData;
  if (!env->cbFunc || !cb || cb->magic != kCbMagic || !cb->model) return 0;
  std::snprintf(cb->message, sizeof cb->message, "%s", text);
  int saved = cb->where;
  cb->where = VRX_CB_MESSAGE;
  int rc = env->cbFunc(cb->model, cb, VRX_CB_MESSAGE, cb->usrData);
  cb->where = saved;
  return rc;
}

}  // namespace vrx
