// Compile-time checks that a hand-written list contains exactly the settings of the table.
#pragma once

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <string_view>

#include "host/base/guest_settings.h"

namespace vexa::test {

// Whether `list` has the name once. `name_of` gives the name of an element.
template <class List, class NameOf = std::identity>
constexpr bool ContainsOnce(const List& list, std::string_view name, NameOf name_of = {}) {
  return std::ranges::count_if(
             list, [name](std::string_view one) { return one == name; }, name_of) == 1;
}

// Whether `list` contains exactly the settings for which `is_named` is true, and the names in `more`, each once, in any
// order. A setting that is added to the table therefore has to be added to the list, or excepted beside it.
template <class List, class Predicate, class NameOf = std::identity>
constexpr bool ListsExactlySettings(const List& list, Predicate is_named,
                                    std::initializer_list<std::string_view> more = {}, NameOf name_of = {}) {
  std::size_t wanted = more.size();
  for (const GuestSetting& setting : kGuestSettings) {
    if (!is_named(setting)) continue;
    ++wanted;
    if (!ContainsOnce(list, setting.name, name_of)) return false;
  }
  return std::size(list) == wanted &&
         std::ranges::all_of(more, [&](std::string_view name) { return ContainsOnce(list, name, name_of); });
}

// The same for all settings with one value.
template <class List>
constexpr bool ListsExactlyScalars(const List& list) {
  return ListsExactlySettings(list, [](const GuestSetting& setting) { return setting.IsScalar(); });
}

}  // namespace vexa::test
