// Fixture bytes written as whitespace-separated hex ("05 00 0b 03 ...").
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace kesttcs::dcerpc {

inline std::vector<uint8_t> Hex(const std::string& text) {
  std::istringstream in(text);
  std::vector<uint8_t> bytes;
  unsigned value = 0;
  while (in >> std::hex >> value) bytes.push_back(static_cast<uint8_t>(value));
  return bytes;
}

}  // namespace kesttcs::dcerpc
