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
struct CountedRefreshes {
  std::atomic<int> begun = 0;
  std::atomic<int> running = 0;
  std::atomic<int> most_at_once = 0;
  // Called within refresh `number`, counted from 1; returning false fails the refresh. May be empty.
  std::function<bool(int number, Json::Value& data)> during;
};

class CountingCache : public VexaDR::Cache::DRCache {
 public:
  explicit CountingCache(CountedRefreshes& shared, int valid_s = 3600, const std::string& group = "test",
                         const std::string& name = "counting")
      : DRCache(group, name, valid_s, 0), shared_(shared) {}

  Json::Value GetDefaultValue() const override {
    Json::Value value;
    value["number"] = 0;
    return value;
  }

  bool GetUpdatedData(Json::Value& data) const override {
    const int number = ++shared_.begun;
    const int at_once = ++shared_.running;
    for (int most = shared_.most_at_once; most < at_once;) {
      if (shared_.most_at_once.compare_exchange_weak(most, at_once)) break;
    }
    data["number"] = number;
    const bool done = !shared_.during || shared_.during(number, data);
    --shared_.running;
    return done;
  }

  bool IsValid(const Json::Value& value) const override { return value.isObject() && value.isMember("number"); }

 private:
  CountedRefreshes& shared_;
};

}  // namespace vexa::test
