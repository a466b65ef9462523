#include <fmt/format.h>

#include "cli/parse_failure.h"
#include "host/base/nearest_name.h"

namespace vexa::cli {
namespace {

// "a, b or c"
std::string Alternatives(std::span<const std::string_view> known) {
  if (known.size() < 2) return fmt::format("{}", fmt::join(known, ""));
  return fmt::format("{} or {}", fmt::join(known.first(known.size() - 1), ", "), known.back());
}

}  // namespace

std::string DidYouMean(std::string_view word, std::span<const std::string_view> known) {
  const std::string_view nearest = NearestName(word, known);
  return nearest.empty() ? std::string() : fmt::format("; did you mean '{}'?", nearest);
}

std::string UnknownValueText(std::string_view value, std::string_view option, std::span<const std::string_view> known) {
  const std::string guess = DidYouMean(value, known);
  return fmt::format("'{}' is not a value of {}{} Use {}", value, option, guess.empty() ? "." : guess,
                     Alternatives(known));
}

}  // namespace vexa::cli
