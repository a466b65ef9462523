// The types behind the handles of webapi/platform/base.h.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct HLIBCSzList {
  std::vector<std::string> strings;
};

// A key is a decimal number. The map has it as an integer, so that the entries are in numeric order.
struct HLIBCSzHash {
  std::map<std::uint32_t, std::string> values;
};
