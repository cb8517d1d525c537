// Small models written out in a test: dense vectors and sparse columns.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "vornix_c.h"

struct ModelDef {
  int objSense = 1;
  std::vector<double> obj, lb, ub, rhs;
  std::string sense;
  std::vector<std::vector<std::pair<int, double>>> cols;
};

// Loads the model through the public call; empty parts still pass valid pointers.
inline VRXmodel* loadModelDef(VRXenv* env, const ModelDef& s) {
  std::vector<int> beg, len, ind;
  std::vector<double> val;
  for (auto& c : s.cols) {
    beg.push_back(static_cast<int>(ind.size()));
    len.push_back(static_cast<int>(c.size()));
    for (auto& e : c) {
      ind.push_back(e.first);
      val.push_back(e.second);
    }
  }
  ind.push_back(0);
  val.push_back(0.0);
  std::vector<double> rhs = s.rhs;
  rhs.push_back(0.0);
  std::string sense = s.sense + "<";
  VRXmodel* m = nullptr;
  EXPECT_EQ(0, VRXloadmodel(env, &m, "t", static_cast<int>(s.cols.size()),
                            static_cast<int>(s.rhs.size()), s.objSense, 0.0, s.obj.data(),
                            sense.data(), rhs.data(), beg.data(), len.data(), ind.data(),
                            val.data(), s.lb.empty() ? nullptr : s.lb.data(),
                            s.ub.empty() ? nullptr : s.ub.data(), nullptr, nullptr, nullptr));
  return m;
}
