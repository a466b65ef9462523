// A cache whose large values prove that they are whole, for tests with several processes.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <functional>
#include <string>

#include "webapi/platform/dr_cache.h"

namespace vexa::test {

// Whether `value` is complete and unchanged.
bool IsWholeValue(const Json::Value& value);

// The process that found the value out.
pid_t FinderOf(const Json::Value& value);

// How often a refresh began while another one of the same `folder` ran.
int OverlapsSeen(const std::string& folder);

// "test" / "checksummed". Refreshes note in `folder` when two run at the same time.
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
