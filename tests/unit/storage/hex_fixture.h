// The hand-written fixtures of the storage file in tests/unit/storage/testdata: hex byte pairs,
// '#' to the end of a line a comment.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <kesttcs/tcs_types.h>

namespace kesttcs::testing {

inline std::vector<BYTE> ReadHexFixture(const std::string& name) {
  std::ifstream in(std::string(KESTTCS_SOURCE_DIR) + "/tests/unit/storage/testdata/" + name);
  EXPECT_TRUE(in.good()) << name;
  std::vector<BYTE> bytes;
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    for (std::string word; words >> word;) bytes.push_back(BYTE(std::stoul(word, nullptr, 16)));
  }
  return bytes;
}

}  // namespace kesttcs::testing
