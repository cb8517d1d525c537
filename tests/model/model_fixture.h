// A small LP and helpers shared by the model tests.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "vornix_c.h"

// min x0 + 2 x1 + 3 x2
//   R0:  1 x0          + 4 x2 <= 4
//   R1:  2 x0 + 3 x1   + 5 x2 >= 5
struct SmallLp {
  int n = 3, m = 2;
  int objSense = 1;
  double objCon = 0.0;
  std::vector<double> obj{1, 2, 3};
  std::vector<double> lb{0, 0, 0};
  std::vector<double> ub{10, 10, 10};
  std::vector<double> rhs{4, 5};
  std::string sense = "<>";
  std::vector<int> beg{0, 2, 3};
  std::vector<int> len{2, 1, 2};
  std::vector<int> ind{0, 1, 1, 0, 1};
  std::vector<double> val{1, 2, 3, 4, 5};
  const char* vtype = nullptr;
  char** varNames = nullptr;
  char** constrNames = nullptr;

  int load(VRXenv* env, VRXmodel** model) const {
    return VRXloadmodel(env, model, "small", n, m, objSense, objCon, obj.data(), sense.data(),
                        rhs.data(), beg.data(), len.data(), ind.data(), val.data(), lb.data(),
                        ub.data(), vtype, varNames, constrNames);
  }
  int loadX(VRXenv* env, VRXmodel** model) const {
    std::vector<size_t> b(beg.begin(), beg.end());
    return VRXXloadmodel(env, model, "small", n, m, objSense, objCon, obj.data(), sense.data(),
                         rhs.data(), b.data(), len.data(), ind.data(), val.data(), lb.data(),
                         ub.data(), vtype, varNames, constrNames);
  }
};

inline std::string modelTempPath(const char* tag) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "/tmp/vrx_model_%d_%s", static_cast<int>(getpid()), tag);
  return buf;
}

inline std::string readWholeFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline size_t countOf(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t p = text.find(what); p != std::string::npos; p = text.find(what, p + 1)) ++n;
  return n;
}
