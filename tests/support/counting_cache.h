// A cache for tests: returns the values that a test chooses, and counts its refreshes.
#pragma once

#include <json/value.h>

#include <atomic>
#include <functional>
#include <string>
#include <utility>

#include "webapi/platform/dr_cache.h"

namespace vexa::test {

// State shared by all objects of one cache. Valid values are objects with a member "number".
struct RefreshCounters {
  std::atomic<int> started = 0;
  std::atomic<int> running = 0;
  std::atomic<int> max_concurrent = 0;
  // Called within refresh `number`, counted from 1; returning false fails the refresh. May be empty.
  std::function<bool(int number, Json::Value& data)> during;
};

class CountingCache : public VexaDR::Cache::DRCache {
 public:
  explicit CountingCache(RefreshCounters& shared, int valid_s = 3600, const std::string& group = "test",
                         const std::string& name = "counting")
      : DRCache(group, name, valid_s, 0), shared_(shared) {}

  Json::Value GetDefaultValue() const override {
    Json::Value value;
    value["number"] = 0;
    return value;
  }

  bool GetUpdatedData(Json::Value& data) const override {
    const int number = ++shared_.started;
    const int concurrent = ++shared_.running;
    for (int max = shared_.max_concurrent; max < concurrent;) {
      if (shared_.max_concurrent.compare_exchange_weak(max, concurrent)) break;
    }
    data["number"] = number;
    const bool done = !shared_.during || shared_.during(number, data);
    --shared_.running;
    return done;
  }

  bool IsValid(const Json::Value& value) const override { return value.isObject() && value.isMember("number"); }

 private:
  RefreshCounters& shared_;
};

}  // namespace vexa::test
