// The types behind the handles of webapi/platform/base.h.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct HLIBCSzList {
  std::vector<std::string> strings;
};

// Indexed by the number that the key spells, so that entries come in numeric order.
struct HLIBCSzHash {
  std::map<std::uint32_t, std::string> values;
};
