#include "cli/moment.h"

#include <array>
#include <optional>

#include "cli/reply.h"

namespace vexa::cli {
namespace {

constexpr const char* kInaccessible = "inaccessible";
constexpr const char* kSince = "inaccessible_since";
constexpr const char* kAge = "age_s";

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

bool IsOneDay(const std::tm& a, const std::tm& b) { return a.tm_year == b.tm_year && a.tm_yday == b.tm_yday; }

}  // namespace

std::string Moment(std::int64_t seconds, std::time_t now) {
  const std::time_t time = seconds;
  std::tm parts{};
  std::tm today{};
  if (::localtime_r(&time, &parts) == nullptr || ::localtime_r(&now, &today) == nullptr) {
    return std::to_string(seconds);
  }
  std::array<char, 64> text{};
  const std::size_t size = IsOneDay(parts, today)
                               ? std::strftime(text.data(), text.size(), "%H:%M:%S", &parts)
                               : std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
  return {text.data(), size};
}

std::string Age(std::int64_t seconds) {
  if (seconds < 0) seconds = 0;
  if (seconds < 2 * kMinute) return std::to_string(seconds) + " s";
  if (seconds < 2 * kHour) return std::to_string(seconds / kMinute) + " min";
  if (seconds < 2 * kDay) return std::to_string(seconds / kHour) + " h";
  return std::to_string(seconds / kDay) + " d";
}

std::string StateInWords(const Json::Value& element, const char* member) {
  std::string state = Text(Member(element, member));
  const std::optional<std::int64_t> since = Integer(Member(element, kSince));
  if (!since) return state;
  std::string words = kInaccessible;
  words += " since ";
  words += Moment(*since, std::time(nullptr));
  return state == kInaccessible ? words : state + " (host " + words + ")";
}

std::string AsOf(const Json::Value& element) {
  const std::optional<std::int64_t> age = Integer(Member(element, kAge));
  return age ? Age(*age) + " ago" : std::string();
}

Json::Value WithStatesInWords(const Json::Value& list, const char* member) {
  Json::Value shown = list;
  for (Json::Value& element : shown) {
    if (!element.isObject()) continue;
    if (!Member(element, member).isNull()) element[member] = StateInWords(element, member);
    if (const auto age = Integer(Member(element, kAge))) element[kAge] = Age(*age);
  }
  return shown;
}

}  // namespace vexa::cli
