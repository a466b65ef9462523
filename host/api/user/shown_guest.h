// What is shown for one guest, and how old that is.
#pragma once

#include <json/value.h>

#include <memory>
#include <string>

#include "host/api/user/guest_links.h"
#include "host/records/host_life.h"
#include "webapi/utils/utils.h"

namespace vexa::services {

struct ShownGuest {
  enum class Links {
    kNoMatter,  // for a guest that is off or lost
    kUnknown,   // counts as connected
    kConnected,
    kDisconnected,
  };

  std::string id;
  std::string name;
  std::string host_id;
  std::string repository_id;
  std::string repository_host_id;
  VexaVirtualization::UIState shown;
  Links links = Links::kNoMatter;
  bool has_record = false;  // a readable one; without it, the guest is shown by its own state alone
  bool operator==(const ShownGuest& other) const;
};

// What is shown for one guest, based on the state of the store that the thread's request sees.
struct GuestStatus {
  ShownGuest guest;
  std::string reason;
};
// `record` is the guest's, as returned by the dashboard.
GuestStatus StatusOf(const std::string& guest_id, const Json::Value& record, const GuestLinks& links);

// The same for a list, based on the local configuration and without a reason. Never null.
std::shared_ptr<const ShownGuest> DeriveGuest(const std::string& guest_id, const GuestLinks& links);

// Sets "age_s" and "inaccessible_since" in `shown` (gone_host.h). The age is that of the links if the guest was judged
// by them, or of its host's last sign of life if that is older, otherwise 0. For a guest whose own host is alive and
// whose repository's host is gone, the latter counts.
void ShowAge(const ShownGuest& guest, const GuestLinks& links, const cluster::HostLife& host,
             const cluster::HostLife& repository_host, Json::Value& shown);

}  // namespace vexa::services
