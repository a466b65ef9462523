// A cache with large values that have a checksum, for tests with several processes.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "webapi/platform/dr_cache.h"

namespace vexa::test {

// Whether `value` is complete and unchanged.
bool IsCompleteValue(const Json::Value& value);

// The process that computed the value.
pid_t RefresherOf(const Json::Value& value);

// The number of refreshes that began while another refresh of the same `folder` ran.
int CountOverlaps(const std::string& folder);

// The cache "test" / "checksummed". A refresh that runs at the same time as another is recorded in `folder`.
class ChecksummedCache : public VexaDR::Cache::DRCache {
 public:
  // `during` is called within a refresh, if it is not empty.
  ChecksummedCache(std::string folder, int valid_s, std::function<void()> during = nullptr);

  bool GetUpdatedData(Json::Value& data) const override;

 private:
  const std::string folder_;
  const std::function<void()> during_;
};

}  // namespace vexa::test
