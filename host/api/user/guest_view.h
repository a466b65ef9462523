// What users see of one guest, and how old that is.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>

#include "host/api/user/guest_links.h"
#include "host/records/host_liveness.h"
#include "webapi/utils/utils.h"

namespace vexa::api {

// One guest, as users see it.
struct GuestView {
  enum class Links {
    kIrrelevant,  // for a guest that is off or lost
    kUnknown,     // counts as connected
    kConnected,
    kDisconnected,
  };

  std::string id;
  std::string name;
  std::string host_id;
  std::string repository_id;
  std::string repository_host_id;
  VexaVirtualization::UIState displayed;
  Links links = Links::kIrrelevant;
  bool has_record = false;  // that can be read; otherwise, `displayed` depends on the guest's state alone
  bool operator==(const GuestView& other) const;
};

// One guest and the reason for its state.
struct GuestStatus {
  GuestView guest;
  std::string reason;
};
// Derives the status from the state of the store that `reader` sees. `reader` must be ReaderOfRequest(), because the
// library reads through it as well. `record` is the guest's, as returned by the dashboard.
GuestStatus StatusOf(const records::Reader& reader, const std::string& guest_id, const Json::Value& record,
                     const GuestLinkStates& links);

// The same for a list: without a reason, and with the record from the local configuration. Never null.
std::shared_ptr<const GuestView> DeriveGuest(const records::Reader& reader, const std::string& guest_id,
                                             const GuestLinkStates& links);

// Sets "age_s" and "inaccessible_since" in `view` (unreachable_host.h). The age is that of the links if the guest's
// state depends on them, or of its host's last heartbeat if that is older, otherwise 0. For a guest whose own host
// is alive and whose repository's host is gone, the repository's host counts.
void AddAge(const GuestView& guest, const GuestLinkStates& links, const records::HostLiveness& host,
            const records::HostLiveness& repository_host, Json::Value& view);

}  // namespace vexa::api
