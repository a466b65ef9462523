// Cluster control: the dashboard database (the cluster's records), names and look-ups, and the guest-admin rights.
#pragma once

#include <json/value.h>

#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "webapi/platform/ccc_constants.h"

#pragma GCC visibility push(default)

namespace VexaCCC {

namespace DB {

// A category of the dashboard database.
class DashCate {
 public:
  static const DashCate Host, Guest, Repository, vDisk, vNic, GuestAdmin;

  // Lists the ids of the category's objects. Returns 0 on success, also when there are none. Some callers accept 2,
  // "never created", as success too; this platform never returns it. Any other result is a failure; `ids` is unchanged.
  int List(std::vector<std::string>& ids) const;

  const char* name() const { return name_; }
  explicit constexpr DashCate(const char* name) : name_(name) {}

 private:
  const char* name_;
};

// Reads one object of a category. All reads of one request see the same state of the database.
// Threads: one at a time.
class Dashboard {
 public:
  Dashboard(const DashCate& category, const std::string& id);

  // Returns 0 when found, 2 when not found, and a negative number on failure. `out` changes only when found. `key` is
  // one of the key constants or a VexaETCD::Path. A value without a key of its own is read from the object's members.
  int Get(Json::Value& out, const std::string& key);
  // As above. A value that is not a string counts as not found.
  int Get(std::string& out, const std::string& key);
  // Lists the children of a key. Returns 0, also when there are none, or a negative number on failure; `ids` is
  // unchanged then.
  int Ls(std::vector<std::string>& ids, const std::string& key);

 private:
  DashCate category_;
  std::string id_;
};

// This host's id. Never empty once the host serves requests.
std::string DBLocalhostID();

}  // namespace DB

namespace Utils {

// Whether `text` is a UUID in the 8-4-4-4-12 hexadecimal form of RFC 4122, in either letter case.
bool isUUID(const std::string& text);
bool IsNotEmpty(const std::string& text);

// Whether an object of the category has the name: 0 no, positive yes, negative on failure.
int CheckNameConflict(const std::string& name, const DB::DashCate& category);

// Returns true when found; otherwise `name` is unchanged.
bool GetHostNameById(const std::string& id, std::string& name);

// The names of the objects, in the order of `ids`. Returns 0, or a negative number when a name cannot be read; `names`
// is unchanged then.
int GetNameList(const DB::DashCate& category, const std::vector<std::string>& ids, std::vector<std::string>& names);

// Whether a guest in this state is active on a host: running, booting, shutting down, moving or migrating its storage.
bool IsGuestStateOnline(const std::string& state);

// Whether `array` contains the string; false for anything but an array.
bool IsFindInSTLContainer(const Json::Value& array, const std::string& text);

// Returns 0 when found. Any other result: there is no such object, or it cannot be read; `name` is unchanged then.
int GetNameById(const DB::DashCate& category, const std::string& id, std::string& name);

// Whether `value` has the nested member at `path`; false, never an error, when a value on the way is not an object.
bool jsChkMemberInDepth(const Json::Value& value, std::initializer_list<const char*> path);

// Joins the strings of `array` with the separator; "" for anything but an array.
std::string join(const Json::Value& array, const std::string& separator);

// A JSON object with these members, all of them strings.
Json::Value makeJsonObject(const std::map<std::string, std::string>& members);

// `name` without a leading "ovs_".
std::string TrimOVSPrefix(const std::string& name);

}  // namespace Utils

// Returns exactly 1 when the user or one of their groups is advanced, 0 when not, and a negative number on failure.
int gaIsAdvancedUser(const std::string& user);

// Adds to `ids` the objects of `category` that the user may access, by grants of their own or of their groups. Returns
// 0 on success.
int gaUserListAvail(const std::string& user, const std::string& category, std::set<std::string>& ids);

}  // namespace VexaCCC

#pragma GCC visibility pop
