// The shared benchmark models and the values of reference.csv.
#pragma once

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

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

inline std::string sharedModelPath(const std::string& set, const std::string& name) {
  return std::string(VRX_SHARED_DATA) + "/" + set + "/" + name + ".mps.gz";
}

}  // namespace vrxtest
