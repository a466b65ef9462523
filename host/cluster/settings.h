// Settings of the whole cluster.
//
//   /settings/cluster   {"auto_select_host": <bool>}
//   /settings/upgrade   {"incompatible": <bool>}
//
// A setting that is missing has its default. One of another type is kCorrupt: it said something once, and that is not
// replaced with a default.
#pragma once

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct ClusterSettings {
  // Whether a guest without a host may be given one when it is powered on. By default it may: a new guest starts
  // without further ado, and one that must stay where it is has a host.
  bool auto_select_host = true;
};

struct UpgradeSettings {
  // Whether the hosts count as being between two versions that do not understand each other's records, whatever
  // versions they have. Otherwise their versions decide, see versions.h.
  bool incompatible = false;
};

// In a request, as of its snapshot. Errors: what the store says, kCorrupt, and kUnavailable without an environment.
Result<ClusterSettings> ReadClusterSettings();
Result<UpgradeSettings> ReadUpgradeSettings();

// Members that are not known stay, and a wrong type of a known one is repaired.
// Errors: what the store says; kCorrupt when the record is no object; kConflict when others change it all the time.
Status WriteClusterSettings(store::Store& store, const ClusterSettings& settings);
Status WriteUpgradeSettings(store::Store& store, const UpgradeSettings& settings);

}  // namespace vexa::cluster
