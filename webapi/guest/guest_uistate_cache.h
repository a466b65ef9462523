// The state of every guest as the user interface shows it, kept for list pages that cannot wait for it to be found out.
#pragma once

#include <json/value.h>

#include <map>
#include <string>
#include <vector>

#include "webapi/platform/dr_cache.h"
#include "webapi/utils/export.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {

struct VEXA_EXPORT GuestUIStatus {
  GuestUIStatus() = default;
  // A running guest.
  explicit GuestUIStatus(const std::string& guest_id);

  // {"guest_id", "status", "status_type"}
  Json::Value ToJson() const;
  // False when one of the three is missing or no string: those before it have been taken over.
  bool FromJson(const Json::Value& v);

  std::string guest_id;
  std::string status;
  std::string status_type;  // the severity
};

// {"guests": [<GuestUIStatus>]}, in the order of the platform's list of guests.
// Threads: any, at the same time.
class VEXA_EXPORT GuestUIStatusCache : public VexaDR::Cache::DRCache {
 public:
  GuestUIStatusCache();
  ~GuestUIStatusCache() override;

  static bool IsValidData(const Json::Value& v);

  // The guests' states by the local configuration alone. Guests whose configuration cannot be read are left out, here
  // and below.
  Json::Value GetDefaultValue() const override;
  // The guests' full states; asks every host for its links. Always true: what cannot be found out keeps the default.
  bool GetUpdatedData(Json::Value& data) const override;
  bool IsValid(const Json::Value& v) const override;
};

// Appends every whole record of a cached value. False, with one line in the system log: it is no such value.
VEXA_EXPORT bool ParseGuestUIStatusCache(const Json::Value& v, std::vector<GuestUIStatus>& out);

// Sets `dict`[guest id] for every guest without waiting. False: the cached value is not valid.
VEXA_EXPORT bool GetCachedGuestUIStateDict(std::map<std::string, UIState>& dict);

}  // namespace VexaVirtualization
