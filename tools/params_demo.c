/* Creates an environment, applies Name=value settings from the command line and
   prints the parameters that differ from their defaults. */
#include <stdio.h>
#include <string.h>

#include "vornix_c.h"

int main(int argc, char **argv) {
  VRXenv *env = NULL;
  int error = VRXloadenv(&env, NULL);
  if (error) {
    fprintf(stderr, "%s\n", env ? VRXgeterrormsg(env) : "environment failed to start");
    VRXfreeenv(env);
    return 1;
  }
  int status = 0;
  for (int i = 1; i < argc; ++i) {
    char name[256];
    const char *eq = strchr(argv[i], '=');
    if (!eq || eq - argv[i] >= (int)sizeof name) {
      fprintf(stderr, "usage: %s [Parameter=value ...]\n", argv[0]);
      status = 1;
      break;
    }
    memcpy(name, argv[i], (size_t)(eq - argv[i]));
    name[eq - argv[i]] = '\0';
    if (VRXsetparam(env, name, eq + 1)) {
      fprintf(stderr, "%s\n", VRXgeterrormsg(env));
      status = 1;
      break;
    }
  }
  int major, minor, tech;
  VRXversion(&major, &minor, &tech);
  printf("Vornix %d.%d.%d (%s), %d public parameters\n", major, minor, tech, VRXplatform(),
         VRXgetnumparams(env));
  for (int i = 0; status == 0 && i < VRXgetnumparams(env); ++i) {
    char *name;
    VRXgetparamname(env, i, &name);
    int type = VRXgetparamtype(env, name);
    if (type == VRX_PARAM_INT) {
      int v, mn, mx, def;
      VRXgetintparaminfo(env, name, &v, &mn, &mx, &def);
      if (v != def) printf("  %-20s %d (default %d)\n", name, v, def);
    } else if (type == VRX_PARAM_DOUBLE) {
      double v, mn, mx, def;
      VRXgetdblparaminfo(env, name, &v, &mn, &mx, &def);
      if (v != def) printf("  %-20s %g (default %g)\n", name, v, def);
    } else {
      char v[513], def[513];
      VRXgetstrparaminfo(env, name, v, def);
      if (strcmp(v, def) != 0) printf("  %-20s \"%s\" (default \"%s\")\n", name, v, def);
    }
  }
  VRXfreeenv(env);
  return status;
}
