// A provider of the platform that answers what a test tells it to and remembers what it was asked. It takes the place
// of the whole platform but for the constants, requests and responses, and the web-API framework, which are the real
// ones.
#pragma once

#include <json/value.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace vexa::test {

// A request as it was sent.
struct SentRequest {
  std::string host_id;
  enum class By { kSender, kMultiSender } by = By::kSender;
  int timeout_s = 0;
  Json::Value json;
};

// Threads: one. Places in the dashboard are "<category>/<id>/<key>"; a key below another one is "<key>/<part>".
struct ScriptedPlatform {
  // Hosts. One without a reply fails with code 102.
  std::string local_host_id = "local";
  std::vector<std::string> all_hosts;
  std::map<std::string, Json::Value> replies;
  std::vector<SentRequest> sent;

  // The dashboard. What is not there is not found, or has no children; `read_results` and `list_results` say
  // otherwise, place by place. `reads` has every read and listing, in order.
  std::map<std::string, Json::Value> records;
  std::map<std::string, std::vector<std::string>> children;
  std::map<std::string, int> read_results;
  std::map<std::string, int> list_results;
  std::vector<std::string> reads;

  // Names, under "<category>/<id>".
  std::map<std::string, std::string> names;

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
  std::string asked_user;
  std::string asked_category;
};

// The one in force.
ScriptedPlatform& Platform();
// Forgets script and record.
void ResetPlatform();

}  // namespace vexa::test
