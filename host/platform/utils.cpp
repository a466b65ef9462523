// Helpers that do not access the cluster database.
#include <algorithm>
#include <array>
#include <string_view>

#include "host/base/uuid.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace VexaCCC::Utils {

bool isUUID(const std::string& text) { return vexa::HasUuidForm(text); }

bool IsNotEmpty(const std::string& text) { return !text.empty(); }

bool IsGuestStateOnline(const std::string& state) {
  const std::array<std::string_view, 5> online{State::Guest::running, State::Guest::booting,
                                               State::Guest::shutting_down, State::Guest::moving,
                                               State::Guest::stor_migrating};
  return std::ranges::find(online, state) != online.end();
}

bool IsFindInSTLContainer(const Json::Value& array, const std::string& text) {
  for (const Json::Value& element : VexaVirtualization::json::Elements(array)) {
    if (element.isString() && VexaVirtualization::json::String(element) == text) return true;
  }
  return false;
}

}  // namespace VexaCCC::Utils
