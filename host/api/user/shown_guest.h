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
    kNoMatter,  // of a guest that is off or lost
    kUnknown,   // counted as connected
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
  bool has_record = false;  // one that can be read; without it the guest is shown by its own state alone
  bool operator==(const ShownGuest& other) const;
};

// What is shown for one guest, by the state of the store that the thread's request sees.
struct GuestStatus {
  ShownGuest guest;
  std::string reason;
};
// `record` is the guest's, as the dashboard gives it.
GuestStatus StatusOf(const std::string& guest_id, const Json::Value& record, const GuestLinks& links);

// The same for a list, by the local configuration and without a reason. Never null.
std::shared_ptr<const ShownGuest> DeriveGuest(const std::string& guest_id, const GuestLinks& links);

// Sets "age_s" and "inaccessible_since" in `shown` (gone_host.h). The age is that of the links when the guest was
// judged by them, of its host's last sign of life when that is older, else 0. Of a guest whose own host is alive and
// whose repository's host is gone, the latter counts.
void ShowAge(const ShownGuest& guest, const GuestLinks& links, const cluster::HostLife& host,
             const cluster::HostLife& repository_host, Json::Value& shown);

}  // namespace vexa::services
