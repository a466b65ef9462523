// Settings of the whole cluster.
//
//   /settings/cluster   {"auto_select_host": <bool>}
//   /settings/upgrade   {"incompatible": <bool>}
//
// A missing setting has its default. A setting of another type is kCorrupt: it once had a meaning, which is not
// replaced with a default.
#pragma once

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct ClusterSettings {
  // Whether a guest without a host may be assigned one when it is powered on. By default it may: a new guest starts
  // without more steps, and a guest that must stay in one place has a host.
  bool auto_select_host = true;
};

struct UpgradeSettings {
  // Whether the hosts count as being between two versions that cannot read each other's records, whatever versions they
  // have. Otherwise their versions decide, see versions.h.
  bool incompatible = false;
};

// Within a request, as of its snapshot. Errors: those of the store, kCorrupt, and kUnavailable without an environment.
Result<ClusterSettings> ReadClusterSettings();
Result<UpgradeSettings> ReadUpgradeSettings();

// Keeps unknown members, and repairs a known one of a wrong type.
// Errors: those of the store; kCorrupt when the record is not an object; kConflict when the record keeps changing.
Status WriteClusterSettings(store::Store& store, const ClusterSettings& settings);
Status WriteUpgradeSettings(store::Store& store, const UpgradeSettings& settings);

}  // namespace vexa::cluster
