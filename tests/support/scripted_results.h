// For the sources of the scripted platform only.
#pragma once

#include <map>
#include <string>

namespace vexa::test {

int ResultFor(const std::map<std::string, int>& results, const std::string& place, int otherwise);

// Hands out what there is for `id` in `values`, even when `results` makes the call fail. 0 or -1 unless it does.
template <class Value, class Out>
int HandOut(const std::map<std::string, Value>& values, const std::string& id,
            const std::map<std::string, int>& results, const std::string& place, Out& out) {
  const auto value = values.find(id);
  if (value != values.end()) out = static_cast<Out>(value->second);
  return ResultFor(results, place, value == values.end() ? -1 : 0);
}

}  // namespace vexa::test
