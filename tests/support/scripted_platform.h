// A provider of the platform with scripted answers, which records the calls that it gets. It replaces the whole
// platform except for the constants, requests and responses, and the web-API framework, which are the real ones.
#pragma once

#include <json/value.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "webapi/platform/ccc_guest_admin.h"

namespace vexa::test {

// A request as it was sent.
struct SentRequest {
  std::string host_id;
  enum class By { kSender, kMultiSender } by = By::kSender;
  int timeout_s = 0;
  Json::Value json;
};

// Threads: one. Locations in the dashboard are "<category>/<id>/<key>"; a key below another one is "<key>/<part>".
struct ScriptedPlatform {
  // Hosts. A host without a reply fails with code 102.
  std::string local_host_id = "local";
  std::vector<std::string> all_hosts;
  std::map<std::string, Json::Value> replies;
  std::map<std::string, Json::Value> method_replies;  // under "<host>/<method>"; they override `replies`
  std::vector<SentRequest> sent;

  // The dashboard. Missing locations are not found, or have no children, unless `read_results` and `list_results` say
  // otherwise for a location. `reads` has every read and listing, in order.
  std::map<std::string, Json::Value> records;
  std::map<std::string, std::vector<std::string>> children;
  std::map<std::string, int> read_results;
  std::map<std::string, int> list_results;
  std::vector<std::string> reads;

  // The ids by category. The listings of a category return `category_results` in turn, the last one repeatedly; 0
  // without any. A listing that returns 0 or 2 provides the ids. `reads` has listings as "<category>".
  std::map<std::string, std::vector<std::string>> ids;
  std::map<std::string, std::vector<int>> category_results;

  // Names, under "<category>/<id>"; the objects whose names were requested are in `requested_names` in the same form. A
  // list of names has "" for an object without one, and lacks the last `names_dropped`; it is provided whatever its
  // result.
  std::map<std::string, std::string> names;
  int name_list_result = 0;
  std::size_t names_dropped = 0;
  int conflict_result = 0;
  std::vector<std::string> requested_names;

  // The cluster's condition. A status is added whatever the result of loading it.
  Json::Value cluster_status = Json::Value(Json::objectValue);
  int load_result = 0;
  std::vector<std::pair<int, int>> loads;  // type and age
  std::set<std::string> extra_online_states;
  int upgrading = 0;
  int upgrade_calls = 0;
  std::map<std::string, std::string> versions_of_all_hosts;
  std::map<std::string, std::string> versions_of_reachable;
  int versions_result = 0;

  // The local guest configuration, by guest. A missing one fails with -1 unless a result says otherwise; a value is
  // provided whatever its result. `conf_reads` has every read, as "conf/<id>", "state/<id>" or "repo_host/<id>".
  std::map<std::string, Json::Value> confs;
  std::map<std::string, std::string> conf_states;
  std::map<std::string, std::string> repo_hosts;
  std::map<std::string, int> conf_results;
  std::vector<std::string> conf_reads;

  // The answers to which host runs a guest, result and host, in turn, the last one repeatedly; -1 without any. A host
  // is provided whatever the result.
  std::vector<std::pair<int, std::string>> guest_hosts;
  bool auto_select = false;

  // The cluster log, and the guests that were removed from the guest-admin records.
  struct ClusterLine {
    std::string user;
    int priority = 0;
    std::string text;
  };
  std::vector<ClusterLine> cluster_log;
  std::vector<std::string> deleted_guests;
  int guest_delete_result = 0;

  // The rights on guests that were set, and the result of setting them.
  std::vector<std::pair<std::string, std::vector<VexaCCC::tagGuestAdminRule>>> guest_sets;
  int guest_set_result = 0;
  std::vector<std::string> guest_set_failures;

  // The ids and paths of usable images, and the paths that only look usable. `requested_images` has the checks, as "id
  // <text>", "path <text>" and "form <text>".
  std::set<std::string> image_ids;
  std::set<std::string> image_paths;
  std::set<std::string> image_forms;
  std::vector<std::string> requested_images;

  // The calls in their order: "send <host>/<method>", "guest_host <guest>", "auto_select", "upgrading", "name
  // <category>/<id>", "conflict <category>/<name>", "log <priority>", "guest_delete <guest>", "guest_set <guest>",
  // "rights".
  std::vector<std::string> calls;

  // High availability, by group, in the same manner as the local configuration. Results are by "state", "warn" and
  // "error".
  std::map<std::string, std::string> ha_states;
  std::map<std::string, Json::Value> ha_warnings;
  std::map<std::string, int> ha_errors;
  std::map<std::string, int> ha_results;

  // The cached value; without one, a read returns the default. `caches` has the arguments of every cache made.
  std::optional<Json::Value> cached;
  std::vector<Json::Value> caches;

  // Addresses of network interfaces.
  int address_check_result = 0;
  std::string address_user;
  std::vector<std::string> checked_addresses;
  int address_result = 0;
  std::string new_address;

  // Rights.
  int advanced_result = 0;
  int available_result = 0;
  std::set<std::string> available;
  int rights_calls = 0;
  std::string requested_user;
  std::string requested_category;

  // Users by name, and their groups as the base library's keys. Identifiers are under "<type>/<kind>/<number>".
  std::map<std::string, std::pair<unsigned int, unsigned int>> users;
  std::map<std::string, std::vector<std::string>> groups;
  std::map<std::string, std::string> identifiers;
  std::vector<std::string> requested_identifiers;
  struct Grant {
    std::string identifier, empty;
    std::vector<VexaCCC::Rule> rules;
  };
  std::vector<Grant> grants;
  int grant_result = 0;

  // The base library's lists and hashes: how to fail, and how many were made and released.
  enum class Base { kFine, kNoList, kNoHash, kNoKeys } base = Base::kFine;
  int list_capacity = 0;
  int lists_made = 0, lists_freed = 0;
  int hashes_made = 0, hashes_freed = 0;
};

// The current one.
ScriptedPlatform& Platform();
// Resets the script and the records of calls.
void ResetPlatform();

}  // namespace vexa::test
