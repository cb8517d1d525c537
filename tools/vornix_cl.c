/* vornix_cl: solve a model file from the command line.
   Usage: vornix_cl [--help] [--version] [Parameter=value ...] modelfile */
#include <stdio.h>
#include <string.h>

#include "vornix_c.h"

static void usage(FILE *out) {
  fprintf(out,
          "Usage: vornix_cl [Parameter=value ...] modelfile\n"
          "       vornix_cl --help | --version\n"
          "\n"
          "Reads the model (MPS, LP, plain or compressed by suffix), applies the\n"
          "parameters in the order given, optimizes, and writes ResultFile if set.\n");
}

static int printHelp(void) {
  VRXenv *env = NULL;
  if (VRXemptyenv(&env)) {
    fprintf(stderr, "%s\n", env ? VRXgeterrormsg(env) : "Unable to create environment");
    VRXfreeenv(env);
    return 1;
  }
  usage(stdout);
  printf("\nParameters:\n");
  printf("  %-22s %-7s %-24s %s\n", "Name", "Type", "Range", "Default");
  int count = VRXgetnumparams(env);
  for (int i = 0; i < count; ++i) {
    char *name = NULL;
    if (VRXgetparamname(env, i, &name)) continue;
    int type = VRXgetparamtype(env, name);
    char range[64], def[700];
    if (type == VRX_PARAM_INT) {
      int v, mn, mx, d;
      VRXgetintparaminfo(env, name, &v, &mn, &mx, &d);
      snprintf(range, sizeof range, "[%d, %d]", mn, mx);
      snprintf(def, sizeof def, "%d", d);
      printf("  %-22s %-7s %-24s %s\n", name, "int", range, def);
    } else if (type == VRX_PARAM_DOUBLE) {
      double v, mn, mx, d;
      VRXgetdblparaminfo(env, name, &v, &mn, &mx, &d);
      snprintf(range, sizeof range, "[%g, %g]", mn, mx);
      snprintf(def, sizeof def, "%g", d);
      printf("  %-22s %-7s %-24s %s\n", name, "double", range, def);
    } else {
      char v[600], d[600];
      VRXgetstrparaminfo(env, name, v, d);
      snprintf(def, sizeof def, "\"%s\"", d);
      printf("  %-22s %-7s %-24s %s\n", name, "string", "", def);
    }
  }
  VRXfreeenv(env);
  return 0;
}

int main(int argc, char **argv) {
  if (argc < 2) {
    usage(stderr);
    return 1;
  }
  if (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) return printHelp();
  if (strcmp(argv[1], "--version") == 0) {
    int major, minor, tech;
    VRXversion(&major, &minor, &tech);
    printf("vornix_cl %d.%d.%d (%s)\n", major, minor, tech, VRXplatform());
    return 0;
  }
  const char *modelfile = argv[argc - 1];
  if (strchr(modelfile, '=') != NULL) {
    fprintf(stderr, "No model file given\n");
    usage(stderr);
    return 1;
  }
  VRXenv *env = NULL;
  int error = VRXloadenvadv(&env, NULL, VRX_API_CL, VRX_VERSION_MAJOR, VRX_VERSION_MINOR,
                            VRX_VERSION_TECHNICAL, NULL, NULL, NULL, NULL, 0, -1, NULL, NULL,
                            NULL, NULL);
  if (error) {
    fprintf(stderr, "%s\n", env ? VRXgeterrormsg(env) : "Unable to create environment");
    VRXfreeenv(env);
    return 1;
  }
  for (int i = 1; i < argc - 1; ++i) {
    char name[600];
    const char *eq = strchr(argv[i], '=');
    size_t len = eq ? (size_t)(eq - argv[i]) : 0;
    if (!eq || len == 0 || len >= sizeof name) {
      fprintf(stderr, "Invalid argument '%s': expected Parameter=value\n", argv[i]);
      VRXfreeenv(env);
      return 1;
    }
    memcpy(name, argv[i], len);
    name[len] = '\0';
    if (VRXsetparam(env, name, eq + 1)) {
      fprintf(stderr, "%s\n", VRXgeterrormsg(env));
      VRXfreeenv(env);
      return 1;
    }
    printf("Set parameter %s to value %s\n", name, eq + 1);
  }
  VRXmodel *model = NULL;
  error = VRXreadmodel(env, modelfile, &model);
  if (error) {
    fprintf(stderr, "%s\n", VRXgeterrormsg(env));
    VRXfreeenv(env);
    return 1;
  }
  error = VRXoptimize(model);
  if (error) {
    fprintf(stderr, "%s\n", VRXgetmerrormsg(model));
    VRXfreemodel(model);
    VRXfreeenv(env);
    return 1;
  }
  VRXfreemodel(model);
  VRXfreeenv(env);
  return 0;
}
