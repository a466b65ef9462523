// A cache on disk for values that are slow to compute.
#pragma once

#include <json/value.h>

#include <string>

#include "webapi/platform/dr.h"

#pragma GCC visibility push(default)

namespace VexaDR {

class DRErrRecorder : public VexaDRCore::ErrRecorder {
 public:
  virtual std::string GetErrCodeStr(int code) const;
  virtual ~DRErrRecorder();
};

namespace Cache {

struct DRCacheNames;

// One cached value, identified by its group and name. Derived classes define its default, how it is computed, and which
// values are valid. The order of the virtual functions must not change: other modules were built against it.
//
// All objects with the same group and name on this host share the value, across processes. Readers never see a partly
// written value. Only one refresh runs at a time; one whose process died does not block later ones.
// Threads: any number, concurrently.
class DRCache : public DRErrRecorder {
 public:
  // `group` and `name` must be usable in file names. A value stays current for `valid_s` seconds. Pass 0 as `flags`.
  DRCache(const std::string& group, const std::string& name, int valid_s, int flags);
  ~DRCache() override;
  DRCache(const DRCache&) = delete;
  DRCache& operator=(const DRCache&) = delete;

  // Returns the current value; waits for a refresh when there is no value yet. If the refresh fails, the result is that
  // of NonBlockedRead.
  virtual Json::Value BlockedRead() const;
  // Returns the cached value, however old, or GetDefaultValue() when no valid value is cached. Never waits: when the
  // value is not current, one refresh is started in the background.
  virtual Json::Value NonBlockedRead() const;
  // Returns the cached value, however old; null when nothing is cached or it cannot be read.
  virtual Json::Value ReadCachedData() const;
  // Returns what is stored with the value: {"group", "name", "time" (Unix seconds), "valid_s"}; null when nothing is
  // cached.
  virtual Json::Value GetInfo() const;
  virtual Json::Value GetDefaultValue() const;
  // Computes the value. Returns false on failure; the cached value then stays.
  virtual bool GetUpdatedData(Json::Value& data) const;
  virtual bool IsValid(const Json::Value& value) const;
  // Whether the value that `info`, a result of GetInfo(), describes is no longer current, or has a time in the future.
  virtual bool IsDataTimeout(const Json::Value& info) const;

 private:
  friend struct DRCacheNames;  // gives the platform's implementation access to the members below

  const std::string group_;
  const std::string name_;
  const int valid_s_;
};

}  // namespace Cache

namespace Utils {

// Returns false, with `out` unchanged, when there is no such member or it is not a string.
bool ParseJsonValueFromField(const Json::Value& object, const std::string& field, std::string& out);
bool JsonFieldIsArray(const Json::Value& object, const std::string& field);

}  // namespace Utils

}  // namespace VexaDR

#pragma GCC visibility pop
