#include "tests/support/scripted_platform.h"

#include <algorithm>
#include <utility>

#include "tests/support/scripted_results.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_network.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/platform/dr.h"
#include "webapi/platform/etcd.h"

namespace vexa::test {
namespace {

constexpr int kUnreachable = 102;

VexaDRCore::Response Answer(const std::string& host_id, SentRequest::By by, const VexaDRCore::Request& request) {
  const std::string place = host_id + "/" + request.method();
  Platform().sent.push_back({host_id, by, request.timeout_s(), request.toJson()});
  Platform().calls.push_back("send " + place);
  const auto method_reply = Platform().method_replies.find(place);
  if (method_reply != Platform().method_replies.end()) return VexaDRCore::Response(method_reply->second);
  const auto reply = Platform().replies.find(host_id);
  if (reply != Platform().replies.end()) return VexaDRCore::Response(reply->second);
  Json::Value failure(Json::objectValue);
  failure["success"] = false;
  failure["error"]["code"] = kUnreachable;
  return VexaDRCore::Response(failure);
}

}  // namespace

int ResultFor(const std::map<std::string, int>& results, const std::string& place, int otherwise) {
  const auto result = results.find(place);
  return result == results.end() ? otherwise : result->second;
}

ScriptedPlatform& Platform() {
  static ScriptedPlatform platform;
  return platform;
}

void ResetPlatform() { Platform() = ScriptedPlatform(); }

}  // namespace vexa::test

using vexa::test::Platform;
using vexa::test::SentRequest;

namespace VexaDRCore {
int ErrRecorder::GetErr() const { return 0; }
}  // namespace VexaDRCore

namespace VexaDRNode {
BaseSender::~BaseSender() = default;
}  // namespace VexaDRNode

namespace VexaETCD {
Path::Path(std::initializer_list<std::string> parts) {
  for (const std::string& part : parts) text_ += (text_.empty() ? "" : "/") + part;
}
}  // namespace VexaETCD

namespace VexaCCC {

Sender::Sender() = default;
Sender::Sender(const std::string& host_id) : host_id_(host_id) {}
Sender Sender::localhost() { return Sender(Platform().local_host_id); }
void Sender::setHost(const std::string& host_id) { host_id_ = host_id; }

VexaDRCore::Response Sender::process(const VexaDRCore::Request& request) {
  return vexa::test::Answer(host_id_, SentRequest::By::kSender, request);
}

MultiResponse::MultiResponse(std::vector<std::string> host_ids, std::map<std::string, VexaDRCore::Response> responses)
    : host_ids_(std::move(host_ids)), responses_(std::move(responses)) {}
std::vector<std::string> MultiResponse::getHostList() const { return host_ids_; }
VexaDRCore::Response MultiResponse::getResponse(const std::string& host_id) const {
  const auto response = responses_.find(host_id);
  return response == responses_.end() ? VexaDRCore::Response() : response->second;
}

MultiSender::MultiSender(const std::vector<std::string>& host_ids) : host_ids_(host_ids) {}
MultiSender MultiSender::allHosts() { return MultiSender(Platform().all_hosts); }
MultiResponse MultiSender::process(const VexaDRCore::Request& request) {
  std::map<std::string, VexaDRCore::Response> responses;
  for (const std::string& host_id : host_ids_) {
    responses[host_id] = vexa::test::Answer(host_id, SentRequest::By::kMultiSender, request);
  }
  return {host_ids_, std::move(responses)};
}

int VNicMacAddrCheck(const std::string& mac, std::string* guest_id) {
  Platform().checked_addresses.push_back(mac);
  if (guest_id && Platform().address_check_result != 0) *guest_id = Platform().address_user;
  return Platform().address_check_result;
}

int VNicMacAddrGen(std::string& mac) {
  if (Platform().address_result == 0) mac = Platform().new_address;
  return Platform().address_result;
}

namespace DB {

int DashCate::List(std::vector<std::string>& ids) const {
  const auto listings = std::count(Platform().reads.begin(), Platform().reads.end(), name());
  Platform().reads.emplace_back(name());
  const std::vector<int>& results = Platform().category_results[name()];
  const int result = results.empty() ? 0 : results[std::min<std::size_t>(listings, results.size() - 1)];
  if (result == 0 || result == 2) ids = Platform().ids[name()];
  return result;
}

Dashboard::Dashboard(const DashCate& category, const std::string& id) : category_(category), id_(id) {}

int Dashboard::Get(Json::Value& out, const std::string& key) {
  const std::string place = std::string(category_.name()) + "/" + id_ + "/" + key;
  Platform().reads.push_back(place);
  const auto record = Platform().records.find(place);
  const int result = vexa::test::ResultFor(Platform().read_results, place, record == Platform().records.end() ? 2 : 0);
  // Also when the result is a failure: callers must rely on the result, not on what they receive.
  if (record != Platform().records.end()) out = record->second;
  return result;
}

int Dashboard::Get(std::string& out, const std::string& key) {
  Json::Value value;
  const int result = Get(value, key);
  if (result == 0 && !value.isString()) return 2;
  if (result == 0) out = value.asString();
  return result;
}

int Dashboard::Ls(std::vector<std::string>& ids, const std::string& key) {
  const std::string place = std::string(category_.name()) + "/" + id_ + "/" + key;
  Platform().reads.push_back(place);
  const int result = vexa::test::ResultFor(Platform().list_results, place, 0);
  ids = Platform().children[place];
  return result;
}

}  // namespace DB

namespace Utils {

bool isUUID(const std::string& text) { return text.size() == 36; }

int CheckNameConflict(const std::string& name, const DB::DashCate& category) {
  Platform().requested_names.push_back(std::string(category.name()) + "/" + name);
  Platform().calls.push_back("conflict " + Platform().requested_names.back());
  return Platform().conflict_result;
}

bool GetHostNameById(const std::string& id, std::string& name) {
  return GetNameById(DB::DashCate::Host, id, name) == 0;
}

int GetNameList(const DB::DashCate& category, const std::vector<std::string>& ids, std::vector<std::string>& names) {
  names.clear();
  for (const std::string& id : ids) names.push_back(Platform().names[std::string(category.name()) + "/" + id]);
  names.resize(names.size() - std::min(Platform().names_dropped, names.size()));
  return Platform().name_list_result;
}

bool IsGuestStateOnline(const std::string& state) {
  namespace Guest = State::Guest;
  return state == Guest::running || state == Guest::booting || state == Guest::shutting_down ||
         state == Guest::moving || state == Guest::stor_migrating || Platform().extra_online_states.contains(state);
}

bool IsFindInSTLContainer(const Json::Value& array, const std::string& text) {
  return array.isArray() && std::find(array.begin(), array.end(), Json::Value(text)) != array.end();
}

int GetNameById(const DB::DashCate& category, const std::string& id, std::string& name) {
  const std::string place = std::string(category.name()) + "/" + id;
  Platform().calls.push_back("name " + place);
  const auto found = Platform().names.find(place);
  if (found == Platform().names.end()) return 2;
  name = found->second;
  return 0;
}

bool jsChkMemberInDepth(const Json::Value& value, std::initializer_list<const char*> path) {
  const Json::Value* at = &value;
  return std::all_of(path.begin(), path.end(), [&at](const char* step) {
    if (!at->isObject() || !at->isMember(step)) return false;
    at = &(*at)[step];
    return true;
  });
}

std::string TrimOVSPrefix(const std::string& name) { return name.starts_with("ovs_") ? name.substr(4) : name; }

}  // namespace Utils

int gaIsAdvancedUser(const std::string& user) {
  ++Platform().rights_calls;
  Platform().calls.emplace_back("rights");
  Platform().requested_user = user;
  return Platform().advanced_result;
}

int gaUserListAvail(const std::string& user, const std::string& category, std::set<std::string>& ids) {
  ++Platform().rights_calls;
  Platform().calls.emplace_back("rights");
  Platform().requested_user = user;
  Platform().requested_category = category;
  ids = Platform().available;
  return Platform().available_result;
}

}  // namespace VexaCCC
