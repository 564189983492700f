// Names the rows of a table of test cases.
#pragma once

#include <gtest/gtest.h>

#include <string>

/// The name of a test is its row's field `name`, letters and digits only.
struct CaseName {
  template <typename Case>
  std::string operator()(const testing::TestParamInfo<Case>& row) const {
    return row.param.name;
  }
};
