// What the handles of webapi/platform/base.h point to.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct HLIBCSzList {
  std::vector<std::string> strings;
};

// By the number that the keys are the text of, so that they come in its order.
struct HLIBCSzHash {
  std::map<std::uint32_t, std::string> values;
};
