// Compares the versions of the cluster's hosts.
//
// A host publishes "version" in its record, and may publish "package_version", the version of the packages that are
// installed beside the host itself. Both are three numbers, "2.10.3". Each is compared with the highest of its kind in
// the cluster:
//
//   version            another major number                upgrade_required
//   version            another minor number                upgrade_suggested
//   version            an older patch number               package_upgrade_suggested
//   package_version    another major number                package_upgrade_required
//   package_version    otherwise older                     package_upgrade_suggested
//
// The most urgent applicable state applies, in the order upgrade_required, package_upgrade_required, upgrade_suggested,
// package_upgrade_suggested, version_matched. A host without a "version", or with one of the two that is not three
// numbers, is unknown; a missing "package_version" has no effect.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/records/reader.h"

namespace vexa::cluster {

using Version = std::array<std::uint32_t, 3>;

// Not set unless `text` is three numbers of up to nine digits each, separated by dots.
std::optional<Version> ParseVersion(std::string_view text);

// What a host publishes; a member that it does not publish is not set.
struct HostVersions {
  std::optional<std::string> version;
  std::optional<std::string> package_version;
};

// Whether two of the versions have different major numbers, so that their hosts cannot read each other's records.
// Unreadable versions are ignored.
bool AreIncompatible(const std::vector<std::string>& versions);
// The same for the versions that the cluster's hosts publish; hosts that are gone do not count. Errors: those of the
// store.
Result<bool> HasIncompatibleHosts(const records::Reader& reader);

// The version state (VexaCCC::State::Version) of each host, by host id.
std::map<std::string, std::string> VersionStates(const std::map<std::string, HostVersions>& hosts);

}  // namespace vexa::cluster
