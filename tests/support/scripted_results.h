// For the sources of the scripted platform only.
#pragma once

#include <map>
#include <string>

namespace vexa::test {

int ResultFor(const std::map<std::string, int>& results, const std::string& place, int otherwise);

// Provides the value for `id` in `values`, even when `results` makes the call fail. Without an entry in `results`,
// returns 0 when there is a value, otherwise -1.
template <class Value, class Out>
int ProvideScripted(const std::map<std::string, Value>& values, const std::string& id,
                    const std::map<std::string, int>& results, const std::string& place, Out& out) {
  const auto value = values.find(id);
  if (value != values.end()) out = static_cast<Out>(value->second);
  return ResultFor(results, place, value == values.end() ? -1 : 0);
}

}  // namespace vexa::test
