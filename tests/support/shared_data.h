// The shared benchmark models and the values of reference.csv.
#pragma once

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vornix_c.h"

namespace vrxtest {

// Column `column` of reference.csv (0 name, 1 set, 4 objective, 6 relaxation) for the
// models of one set, where the cell is not empty.
inline std::map<std::string, double> referenceColumn(const std::string& set, size_t column) {
  std::map<std::string, double> out;
  std::ifstream in(std::string(VRX_SHARED_DATA) + "/reference.csv");
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    std::string cell;
    while (std::getline(ss, cell, ',')) f.push_back(cell);
    if (f.size() > column && f[1] == set && !f[column].empty()) out[f[0]] = std::atof(f[column].c_str());
  }
  return out;
}

// Reference objectives by model name.
inline std::map<std::string, double> referenceObjectives(const std::string& set = "netlib") {
  return referenceColumn(set, 4);
}

// Objectives of the models whose status is "optimal"; an empty set takes every set.
inline std::map<std::string, double> referenceOptima(const std::string& set) {
  std::map<std::string, double> out;
  std::ifstream in(std::string(VRX_SHARED_DATA) + "/reference.csv");
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) {
    std::vector<std::string> f;
    std::stringstream ss(line);
    std::string cell;
    while (std::getline(ss, cell, ',')) f.push_back(cell);
    if (f.size() >= 6 && (set.empty() || f[1] == set) && f[5] == "optimal" && !f[4].empty())
      out[f[0]] = std::strtod(f[4].c_str(), nullptr);
  }
  return out;
}

// Whether a program is on the PATH.
inline bool onPath(const char* program) {
  std::string cmd = std::string("command -v ") + program + " >/dev/null 2>&1";
  return std::system(cmd.c_str()) == 0;
}

// The number behind the last line holding key in a command's output, or NAN.
inline double valueAfter(const std::string& cmd, const std::string& key) {
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return NAN;
  char line[4096];
  double value = NAN;
  while (std::fgets(line, sizeof line, p)) {
    const char* at = std::strstr(line, key.c_str());
    if (at) value = std::strtod(at + key.size(), nullptr);
  }
  pclose(p);
  return value;
}

inline std::string sharedModelPath(const std::string& set, const std::string& name) {
  return std::string(VRX_SHARED_DATA) + "/" + set + "/" + name + ".mps.gz";
}

// Reads a shared Netlib model; null (with a test failure) when it does not read.
inline VRXmodel* readNetlib(VRXenv* env, const std::string& name) {
  VRXmodel* m = nullptr;
  const std::string path = sharedModelPath("netlib", name);
  EXPECT_EQ(0, VRXreadmodel(env, path.c_str(), &m)) << path;
  return m;
}

}  // namespace vrxtest
