// Cluster control: the dashboard database and the guest-admin rights.
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

  // The ids of the category. 0: listed, also when there is none. 2: accepted by some callers as "never created"; this
  // platform does not give it. Anything else: failure, `ids` untouched.
  int List(std::vector<std::string>& ids) const;

  const char* name() const { return name_; }
  explicit constexpr DashCate(const char* name) : name_(name) {}

 private:
  const char* name_;
};

// One object of a category. All reads of one request see the same state of the database.
// Threads: one at a time.
class Dashboard {
 public:
  Dashboard(const DashCate& category, const std::string& id);

  // 0: found. 2: not found. Negative: failure. `out` is untouched unless found. `key` is one of the key constants or
  // the text of a VexaETCD::Path; a value that was not stored under its own key is looked for among the object's
  // members.
  int Get(Json::Value& out, const std::string& key);
  // As above; a value that is not a string is not found.
  int Get(std::string& out, const std::string& key);
  // The children of a key; none is not an error. 0 or negative, `ids` untouched then.
  int Ls(std::vector<std::string>& ids, const std::string& key);

 private:
  DashCate category_;
  std::string id_;
};

// This host's id. Never empty once the host serves requests.
std::string DBLocalhostID();

}  // namespace DB

namespace Utils {

// The 8-4-4-4-12 hexadecimal form of RFC 4122, either case, nothing around it.
bool isUUID(const std::string& text);
bool IsNotEmpty(const std::string& text);

// Whether an object of the category is called `name`: 0 no, positive yes, negative unknown.
int CheckNameConflict(const std::string& name, const DB::DashCate& category);

// True: found. Otherwise `name` is untouched.
bool GetHostNameById(const std::string& id, std::string& name);

// The names of the objects, in the order of `ids`. 0, or negative when one cannot be read: `names` is untouched then.
int GetNameList(const DB::DashCate& category, const std::vector<std::string>& ids, std::vector<std::string>& names);

// Whether a guest in this state is live on a host: running, booting, shutting down, moving, or its storage migrating.
bool IsGuestStateOnline(const std::string& state);

// Whether `array` holds the string; false for anything but an array.
bool IsFindInSTLContainer(const Json::Value& array, const std::string& text);

// 0: found. Anything else: no such object, or unknown; `name` is untouched then.
int GetNameById(const DB::DashCate& category, const std::string& id, std::string& name);

// Whether every step of `path` is a member of an object; false, never an error, for any non-object on the way.
bool jsChkMemberInDepth(const Json::Value& value, std::initializer_list<const char*> path);

// The texts of `array`, with the separator between two of them; "" for anything but an array.
std::string join(const Json::Value& array, const std::string& separator);

// An object with these members, all strings.
Json::Value makeJsonObject(const std::map<std::string, std::string>& members);

// `name` without a leading "ovs_".
std::string TrimOVSPrefix(const std::string& name);

}  // namespace Utils

// Exactly 1: `user`, or a group of theirs, is advanced. 0: no. Negative: unknown.
int gaIsAdvancedUser(const std::string& user);

// Adds to `ids` what objects of `category` the user may use, by grants of their own and of their groups. 0 on success.
int gaUserListAvail(const std::string& user, const std::string& category, std::set<std::string>& ids);

}  // namespace VexaCCC

#pragma GCC visibility pop
