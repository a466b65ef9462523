// The state of every guest as the user interface displays it, cached for list pages that cannot wait for it.
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
  // The status of a running guest.
  explicit GuestUIStatus(const std::string& guest_id);

  // {"guest_id", "status", "status_type"}
  Json::Value ToJson() const;
  // Returns false when a member is missing or not a string; earlier members have then already been set.
  bool FromJson(const Json::Value& v);

  std::string guest_id;
  std::string status;
  std::string status_type;  // the severity
};

// The cached value is {"guests": [<GuestUIStatus>]}, in the order of the platform's list of guests.
// Threads: any number, concurrently.
class VEXA_EXPORT GuestUIStatusCache : public VexaDR::Cache::DRCache {
 public:
  GuestUIStatusCache();
  ~GuestUIStatusCache() override;

  static bool IsValidData(const Json::Value& v);

  // The guests' states according to the local configuration only. Guests whose configuration cannot be read are left
  // out.
  Json::Value GetDefaultValue() const override;
  // The guests' full states; queries every host for its network links. Guests are left out as above. Always true:
  // when the guests cannot be listed, `data` is the default value.
  bool GetUpdatedData(Json::Value& data) const override;
  bool IsValid(const Json::Value& v) const override;
};

// Appends every complete record of a cached value. Returns false, with one line logged, when the value is not valid.
VEXA_EXPORT bool ParseGuestUIStatusCache(const Json::Value& v, std::vector<GuestUIStatus>& out);

// Sets `dict`[guest id] for every cached guest without waiting; other entries stay. Returns false when the cached value
// is not valid.
VEXA_EXPORT bool GetCachedGuestUIStateDict(std::map<std::string, UIState>& dict);

}  // namespace VexaVirtualization
