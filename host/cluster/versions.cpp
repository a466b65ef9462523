#include "host/cluster/versions.h"

#include <algorithm>

#include "webapi/platform/ccc_constants.h"

namespace vexa::cluster {
namespace {

namespace states = VexaCCC::State::Version;

// In order of increasing urgency.
enum class Urgency { kMatched, kPackageSuggested, kSuggested, kPackageRequired, kRequired };

const char* StateOf(Urgency urgency) {
  switch (urgency) {
    case Urgency::kMatched:
      return states::version_matched;
    case Urgency::kPackageSuggested:
      return states::package_upgrade_suggested;
    case Urgency::kSuggested:
      return states::upgrade_suggested;
    case Urgency::kPackageRequired:
      return states::package_upgrade_required;
    case Urgency::kRequired:
      return states::upgrade_required;
  }
  return states::unknown;
}

Urgency UrgencyOfVersion(const Version& version, const Version& highest) {
  if (version[0] != highest[0]) return Urgency::kRequired;
  if (version[1] != highest[1]) return Urgency::kSuggested;
  return version[2] != highest[2] ? Urgency::kPackageSuggested : Urgency::kMatched;
}

Urgency UrgencyOfPackage(const Version& version, const Version& highest) {
  if (version[0] != highest[0]) return Urgency::kPackageRequired;
  return version != highest ? Urgency::kPackageSuggested : Urgency::kMatched;
}

std::optional<Version> Parse(const std::optional<std::string>& text) {
  return text ? ParseVersion(*text) : std::nullopt;
}

}  // namespace

std::optional<Version> ParseVersion(std::string_view text) {
  constexpr std::size_t kMaxDigits = 9;
  Version version{};
  for (std::size_t i = 0; i < version.size(); ++i) {
    const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    if (digits == 0 || digits > kMaxDigits) return std::nullopt;
    for (const char digit : text.substr(0, digits)) {
      version[i] = version[i] * 10 + static_cast<std::uint32_t>(digit - '0');
    }
    text.remove_prefix(digits);
    if (i + 1 == version.size()) break;
    if (!text.starts_with('.')) return std::nullopt;
    text.remove_prefix(1);
  }
  return text.empty() ? std::optional(version) : std::nullopt;
}

bool AreIncompatible(const std::vector<std::string>& versions) {
  std::optional<std::uint32_t> major;
  for (const std::string& text : versions) {
    const std::optional<Version> version = ParseVersion(text);
    if (!version) continue;
    if (major && *major != version->front()) return true;
    major = version->front();
  }
  return false;
}

std::map<std::string, std::string> VersionStates(const std::map<std::string, HostVersions>& hosts) {
  std::optional<Version> highest;
  std::optional<Version> highest_package;
  for (const auto& [id, published] : hosts) {
    // An empty optional is less than any version.
    highest = std::max(highest, Parse(published.version));
    highest_package = std::max(highest_package, Parse(published.package_version));
  }
  std::map<std::string, std::string> result;
  for (const auto& [id, published] : hosts) {
    const std::optional<Version> version = Parse(published.version);
    const std::optional<Version> package = Parse(published.package_version);
    if (!version || (published.package_version && !package)) {
      result[id] = states::unknown;
      continue;
    }
    const Urgency version_urgency = UrgencyOfVersion(*version, *highest);
    const Urgency package_urgency = package ? UrgencyOfPackage(*package, *highest_package) : Urgency::kMatched;
    result[id] = StateOf(std::max(version_urgency, package_urgency));
  }
  return result;
}

}  // namespace vexa::cluster
