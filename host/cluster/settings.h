// Settings of the whole cluster.
//
//   /settings/cluster   {"auto_select_host": <bool>}
//   /settings/upgrade   {"incompatible": <bool>}
//   /settings/placement {"<host id>": <bool>}
//
// A missing setting has its default. A setting of another type is kCorrupt: it is not silently replaced by the default.
#pragma once

#include <string>

#include "host/base/result.h"
#include "host/records/reader.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct ClusterSettings {
  // Whether a guest without a host may be assigned one when it is powered on. By default it may: a new guest starts
  // without more steps, and a guest that must run on a certain host names it.
  bool auto_select_host = true;
};

struct UpgradeSettings {
  // Whether the hosts count as being between two versions that cannot read each other's records, whatever versions they
  // have. Otherwise their versions decide, see versions.h.
  bool incompatible = false;
};

// Errors: those of the store, and kCorrupt.
Result<ClusterSettings> ReadClusterSettings(const records::Reader& reader);
Result<UpgradeSettings> ReadUpgradeSettings(const records::Reader& reader);

// Whether the host may be chosen for guests that have none. Guests that have it as their host are not affected. By
// default it may.
Result<bool> ReadPlacement(const records::Reader& reader, const std::string& host_id);

// Keeps unknown members, and repairs a known one of a wrong type.
// Errors: those of the store; kCorrupt when the record is not an object; kConflict when the record keeps changing.
Status WriteClusterSettings(store::Store& store, const ClusterSettings& settings);
Status WriteUpgradeSettings(store::Store& store, const UpgradeSettings& settings);
Status WritePlacement(store::Store& store, const std::string& host_id, bool placement);

}  // namespace vexa::cluster
