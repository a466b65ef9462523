// The keys of a US keyboard that type a text.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa {

// Longer texts are refused: a guest takes some 25 characters per second.
inline constexpr std::size_t kMaxTypedBytes = 1024;
// The most characters of a text that a host types before it answers: somewhat more than a second.
inline constexpr std::size_t kTypedPerCall = 32;

// Keys that are pressed together, by their numbers in Linux (linux/input-event-codes.h).
using KeyPress = std::vector<unsigned>;

// One press for each character: what the text means to a guest with the US layout. A line feed is Enter, a tab is Tab.
// kInvalid, with the character's name, when no key types it; also for a text that is empty, too long or not UTF-8.
Result<std::vector<KeyPress>> KeyPressesOf(std::string_view text);

}  // namespace vexa
