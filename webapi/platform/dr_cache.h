// A value that takes long to find out, kept on disk with the time it was found.
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

// One cached value, named by its group and name. Derived classes define its default, how it is computed again, and
// whether a value is valid. The order of the virtual operations is fixed: other modules were built against it.
//
// The value is shared by all objects of the same group and name on this host, in any process. A reader sees a whole
// value or none. One refresh runs at a time; one that died holds up nobody.
// Threads: any, at the same time.
class DRCache : public DRErrRecorder {
 public:
  // `group` and `name` are plain words. A value is current for `valid_s` seconds. `flags` is 0.
  DRCache(const std::string& group, const std::string& name, int valid_s, int flags);
  ~DRCache() override;
  DRCache(const DRCache&) = delete;
  DRCache& operator=(const DRCache&) = delete;

  // The current value; waits for a refresh when there is none. When the refresh fails: as NonBlockedRead.
  virtual Json::Value BlockedRead() const;
  // The cached value however old it is, or GetDefaultValue() when nothing valid is cached. Never waits: when the value
  // is not current, one refresh is started in the background.
  virtual Json::Value NonBlockedRead() const;
  // The cached value however old it is; null when nothing is cached or it cannot be read.
  virtual Json::Value ReadCachedData() const;
  // What is stored beside the value: {"group", "name", "time" (Unix seconds), "valid_s"}; null when nothing is cached.
  virtual Json::Value GetInfo() const;
  virtual Json::Value GetDefaultValue() const;
  // Computes the value again. False: it failed, and the cached value stays.
  virtual bool GetUpdatedData(Json::Value& data) const;
  virtual bool IsValid(const Json::Value& value) const;
  // Whether what GetInfo() describes is older than this cache's values stay current, or from the future.
  virtual bool IsDataTimeout(const Json::Value& info) const;

 private:
  friend struct DRCacheNames;  // for the provider alone

  const std::string group_;
  const std::string name_;
  const int valid_s_;
};

}  // namespace Cache

namespace Utils {

// False, and `out` untouched: no such member, or it is not a string.
bool ParseJsonValueFromField(const Json::Value& object, const std::string& field, std::string& out);
bool JsonFieldIsArray(const Json::Value& object, const std::string& field);

}  // namespace Utils

}  // namespace VexaDR

#pragma GCC visibility pop
