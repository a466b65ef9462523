#include "cli/time_text.h"

#include <fmt/format.h>

#include <array>
#include <optional>

#include "cli/reply.h"
#include "cli/watch.h"

namespace vexa::cli {
namespace {

constexpr const char* kInaccessible = "inaccessible";
constexpr const char* kSince = "inaccessible_since";
constexpr const char* kAge = "age_s";

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

bool IsSameDay(const std::tm& a, const std::tm& b) { return a.tm_year == b.tm_year && a.tm_yday == b.tm_yday; }

}  // namespace

std::string FormatTime(std::int64_t seconds, std::time_t now) {
  const std::time_t time = seconds;
  std::tm parts{};
  std::tm today{};
  if (::localtime_r(&time, &parts) == nullptr || ::localtime_r(&now, &today) == nullptr) {
    return std::to_string(seconds);
  }
  std::array<char, 64> text{};
  const std::size_t size = IsSameDay(parts, today)
                               ? std::strftime(text.data(), text.size(), "%H:%M:%S", &parts)
                               : std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
  return {text.data(), size};
}

std::string FormatAge(std::int64_t seconds) {
  if (seconds < 0) seconds = 0;
  if (seconds < 2 * kMinute) return fmt::format("{} s", seconds);
  if (seconds < 2 * kHour) return fmt::format("{} min", seconds / kMinute);
  if (seconds < 2 * kDay) return fmt::format("{} h", seconds / kHour);
  return fmt::format("{} d", seconds / kDay);
}

std::string StateText(const Json::Value& element, const char* member) {
  std::string state = Text(Member(element, member));
  const std::optional<std::int64_t> since = Integer(Member(element, kSince));
  if (!since) return state;
  const std::string text = fmt::format("{} since {}", kInaccessible, FormatTime(*since, std::time(nullptr)));
  return state == kInaccessible ? text : fmt::format("{} (host {})", state, text);
}

std::string AgeText(const Json::Value& element) {
  const std::optional<std::int64_t> age = Integer(Member(element, kAge));
  return age && !IsWatching() ? fmt::format("{} ago", FormatAge(*age)) : std::string();
}

Json::Value WithStateTexts(const Json::Value& list, const char* member) {
  Json::Value result = list;
  for (Json::Value& element : result) {
    if (!element.isObject()) continue;
    if (!Member(element, member).isNull()) element[member] = StateText(element, member);
    if (const auto age = Integer(Member(element, kAge))) element[kAge] = FormatAge(*age);
  }
  return result;
}

}  // namespace vexa::cli
