// Guest::Set with any parameters, on a platform in any condition: it returns a documented response, sends the
// parameters unless they are refused, and sets rights only after the host has succeeded.
//
// The input's lines: one letter for each condition of the platform (see Conditions); the host's reply, null without
// one; the parameters. If the parameters are not JSON, their bytes are used to build well-formed ones, so that the
// fuzzer's changes are not mostly refused as invalid JSON.
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "fuzz/check.h"
#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/setting_lists.h"
#include "tests/support/syslog_capture.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/dr.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::fuzz::Check;
using vexa::test::Platform;

const std::string kGuest = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
// All parameters that hosts receive, except the name, which is only sent when it is a new one.
constexpr const char* kSentNames[] = {"guest_id",     "vcpu_num",   "vram_size",  "video_card",  "desc",
                                      "cpu_passthru", "autorun",    "boot_from",  "use_ovmf",    "vnics_add",
                                      "vnics_del",    "vnics_edit", "vdisks_add", "vdisks_del",  "usbs",
                                      "vdisks_edit",  "iso_images", "kb_layout",  "usb_version", "hyperv_enlighten",
                                      "vdisks_order", "cpu_weight", "cpu_pin_num"};
static_assert(vexa::test::ListsExactlySettings(kSentNames,
                                               [](const vexa::GuestSetting& setting) {
                                                 return setting.for_hosts != nullptr &&
                                                        std::string_view(setting.name) != "name";
                                               },
                                               {"guest_id"}));
constexpr const char* kDiskLists[] = {"vdisks_add", "vdisks_del", "vdisks_edit", "vdisks_order"};

// The first line of the input: a letter for each condition.
struct Conditions {
  explicit Conditions(std::string_view text) : letters(text) {}
  bool Has(char letter) const { return letters.find(letter) != std::string_view::npos; }
  bool is_granted() const { return Has('g'); }
  bool is_unnamed() const { return Has('u'); }
  bool has_conflict() const { return Has('c'); }
  bool has_no_repository_host() const { return Has('r'); }
  bool are_addresses_taken() const { return Has('m'); }
  bool rights_fail() const { return Has('f'); }
  std::string_view letters;
};

// Builds parameters from bytes, which determine the parameters that are present and their values.
class Builder {
 public:
  explicit Builder(std::string_view bytes) : rest_(bytes) {}

  Json::Value Build() {
    Json::Value parameters(Json::objectValue);
    parameters["guest_id"] = kGuest;
    while (!rest_.empty()) {
      const char* const name = Pick(kNames);
      parameters[name] = Take(3) == 0 ? MalformedValue() : ValidValue(name);
    }
    return parameters;
  }

 private:
  static constexpr const char* kNames[] = {
      "guest_id",   "name",         "vcpu_num",        "vram_size",  "video_card",  "repo_id",          "desc",
      "autorun",    "cpu_passthru", "boot_from",       "use_ovmf",   "vnics_add",   "vnics_del",        "vnics_edit",
      "vdisks_add", "vdisks_del",   "vdisks_edit",     "iso_images", "usb_version", "hyperv_enlighten", "usbs",
      "kb_layout",  "vdisks_order", "guest_privilege", "cpu_weight", "cpu_pin_num"};
  static_assert(vexa::test::ListsExactlySettings(kNames, [](const vexa::GuestSetting&) { return true; }, {"guest_id"}));
  static constexpr const char* kMembers[] = {"network_id", "vnic_id",    "prefer_sriov", "vnic_type", "mac",
                                             "vdisk_id",   "vdisk_size", "uid",          "gid",       "allow",
                                             "type",       "name",       "more"};
  static constexpr const char* kTexts[] = {
      "", "iso", "disk", "web", "unmounted", "/a/b.iso", "/a/bad.iso", "%s%n", "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211"};

  // The next byte of the input as a number below `end`; 0 at the end of the input.
  unsigned Take(unsigned end) {
    if (rest_.empty()) return 0;
    const auto byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    return byte % end;
  }
  template <class T, std::size_t N>
  const T& Pick(const T (&choice)[N]) {
    return choice[Take(N)];
  }

  Json::Value Number() {
    static const Json::Value numbers[] = {0, 1, 3, 4, -1, 20, 2147483647, Json::Int64{2147483648}, 2.5, 1e300};
    return Pick(numbers);
  }
  Json::Value MalformedValue() {
    static const Json::Value malformed[] = {Json::Value(), true, Json::Value(Json::arrayValue),
                                            Json::Value(Json::objectValue)};
    switch (Take(3)) {
      case 0:
        return Number();
      case 1:
        return Pick(kTexts);
      default:
        return Pick(malformed);
    }
  }
  Json::Value MemberValue(std::string_view name) {
    if (Take(8) == 0) return MalformedValue();
    if (name == "prefer_sriov" || name == "allow") return Take(2) == 1;
    if (name.ends_with("_id")) return kGuest;
    if (name == "mac" || name == "type" || name == "name") return Pick(kTexts);
    return Number();
  }
  Json::Value List(std::string_view name) {
    Json::Value list(Json::arrayValue);
    for (unsigned count = Take(4); count > 0; --count) {
      Json::Value element(Json::objectValue);
      if (name == "iso_images") {
        element = Pick(kTexts);
      } else {
        for (unsigned members = Take(6); members > 0; --members) {
          const char* const member = Pick(kMembers);
          element[member] = MemberValue(member);
        }
      }
      list.append(Take(8) == 0 ? MalformedValue() : element);
    }
    return list;
  }
  Json::Value ValidValue(std::string_view name) {
    const vexa::GuestSetting* const setting = vexa::FindGuestSetting(name);
    switch (setting ? setting->type : vexa::SettingType::kId) {
      case vexa::SettingType::kList:
        return List(name);
      case vexa::SettingType::kId:
        return kGuest;
      case vexa::SettingType::kBoolean:
        return Take(2) == 1;
      case vexa::SettingType::kString:
        return Pick(kTexts);
      case vexa::SettingType::kNumber:
        break;
    }
    return Take(4);
  }

  std::string_view rest_;
};

void SetUpPlatform(const Conditions& conditions, const Json::Value& reply) {
  vexa::test::ResetPlatform();
  vexa::test::ClearCapturedSyslog();
  auto& platform = Platform();
  if (conditions.is_granted()) platform.available = {kGuest};
  if (!conditions.is_unnamed()) platform.names["guest/" + kGuest] = "web";
  if (conditions.has_conflict()) platform.conflict_result = 1;
  platform.repo_hosts[kGuest] = "north";
  if (conditions.has_no_repository_host()) platform.conf_results["repo_host/" + kGuest] = -1;
  if (conditions.are_addresses_taken()) platform.address_check_result = 1;
  if (conditions.rights_fail()) platform.guest_set_result = -1;
  platform.image_ids = {"unmounted"};
  platform.image_paths = {"/a/b.iso"};
  platform.image_forms = {"/a/bad.iso"};
  if (reply.isObject()) platform.replies = {{"local", reply}, {"north", reply}};
}

// A list of disks with sizes in MiB, as hosts receive them, instead of GiB.
Json::Value WithSizesInMib(Json::Value disks) {
  for (Json::Value& disk : disks) disk["vdisk_size"] = Json::Int64{json::Int(disk["vdisk_size"])} * 1024;
  return disks;
}

void CheckSent(const Json::Value& parameters, const Conditions& conditions) {
  const vexa::test::SentRequest& sent = Platform().sent[0];
  Check(sent.json["api"] == "VEXA.CCC.Guest" && sent.json["method"] == "set" && sent.json["version"] == 1,
        "the method is the hosts' set");
  Check(!sent.json.isMember("repo_id") && !sent.json.isMember("guest_privilege"),
        "rights and repository stay on this host");
  bool changes_disks = false;
  for (const char* name : kDiskLists) changes_disks = changes_disks || !parameters[name].empty();
  const bool is_known_guest = parameters["guest_id"] == kGuest;
  const char* const disk_host = conditions.has_no_repository_host() || !is_known_guest ? "" : "north";
  Check(sent.host_id == (changes_disks ? disk_host : "local"), "the right host is asked");
  for (const std::string& name : json::MemberNames(sent.json)) {
    if (name == "api" || name == "method" || name == "version") continue;
    const bool has_sizes = name == "vdisks_add" || name == "vdisks_edit";
    Check(
        json::ToText(sent.json[name]) == json::ToText(has_sizes ? WithSizesInMib(parameters[name]) : parameters[name]),
        "parameters are sent unchanged");
  }
  for (const char* name : kSentNames) {
    Check(sent.json.isMember(name) == parameters.isMember(name), "what was set is sent, and nothing else");
  }
  const Json::Value previous = conditions.is_unnamed() || !is_known_guest ? "-" : "web";
  Check(sent.json.isMember("name") == (parameters.isMember("name") && parameters["name"] != previous),
        "a new name is sent");
}

struct Outcome {
  bool is_set = false;
  int code = 0;
  Json::Value data;
  std::size_t sent = 0;
};

Outcome CallSet(const Json::Value& parameters, const Conditions& conditions, const Json::Value& reply, char caller) {
  SetUpPlatform(conditions, reply);
  if (caller == 'v') Platform().advanced_result = 1;
  const auto privilege =
      caller == 'a' ? VEXA::APIRequest::Privilege::kAdministrator : VEXA::APIRequest::Privilege::kOrdinary;
  VEXA::APIRequest request(parameters, "eve", privilege);
  VEXA::APIResponse response;
  VexaVirtualization::Guest::Set(&request, &response);
  Check(request.GetParam("", Json::Value()) == parameters, "a request is not changed");
  const auto& platform = Platform();
  Check(platform.sent.size() <= 1, "at most one request is sent");
  const bool is_sent = !platform.sent.empty();
  if (is_sent) CheckSent(parameters, conditions);
  const bool is_done = is_sent && VexaDRCore::Response(reply).isSuccess() && platform.sent[0].host_id != "";
  Check(platform.guest_sets.size() == (is_done ? 1u : 0u), "rights follow a success, and only that");
  Check(is_sent || platform.cluster_log.empty(), "what was not sent is not in the cluster log");
  Check(platform.cluster_log.size() <= 1, "the cluster log has at most one line");
  Check(is_sent || (response.IsSet() && !response.IsSuccess()), "what is not sent is refused");
  Check(response.IsSuccess() == (is_done && !conditions.rights_fail()), "success takes the host and the rights");
  static const std::set<int> codes{401, 403, 406, 407, 409, 411, 413, 909, 910,  919,
                                   920, 926, 930, 934, 935, 937, 943, 946, 1001, 1600};
  Check(!response.IsSet() || response.IsSuccess() || codes.contains(response.ErrorCode()), "codes are known");
  Check(response.Data().isNull() || response.ErrorCode() == 910 || response.ErrorCode() == 1600,
        "two errors have details");
  return {response.IsSet(), response.ErrorCode(), response.Data(), platform.sent.size()};
}

// Checks that the request contains only what a user with a grant may change.
void CheckGranted(const Json::Value& parameters, const Conditions& conditions) {
  Check(conditions.is_granted(), "a user without a grant changes nothing");
  static const std::set<std::string> free{"guest_id", "iso_images", "use_ovmf", "api", "method", "version"};
  const Json::Value& sent = Platform().sent[0].json;
  for (const std::string& name : json::MemberNames(sent)) {
    Check(free.contains(name) || (name.starts_with("vdisks_") && sent[name].isArray() && sent[name].empty()),
          "a grant allows little");
  }
  Check(!parameters.isMember("guest_privilege") && !parameters.isMember("repo_id"),
        "a grant does not allow changing rights");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest = vexa::fuzz::Text(data, size);
  const Conditions conditions(vexa::fuzz::TakeUntil(rest, "\n"));
  const auto parsed_reply = vexa::ParseJson(vexa::fuzz::TakeUntil(rest, "\n"));
  const Json::Value reply = parsed_reply.ok() && parsed_reply->isObject() ? *parsed_reply : Json::Value();
  const auto parsed = vexa::ParseJson(rest);
  const Json::Value parameters = parsed.ok() && parsed->isObject() ? *parsed : Builder(rest).Build();

  const Outcome any = CallSet(parameters, conditions, reply, 'a');
  Check(any.code != 409, "an administrator may change every guest");
  const Outcome advanced = CallSet(parameters, conditions, reply, 'v');
  Check(advanced.is_set == any.is_set && advanced.code == any.code && advanced.data == any.data,
        "an advanced user gets what an administrator gets");
  const Outcome ordinary = CallSet(parameters, conditions, reply, 'o');
  if (ordinary.sent > 0) CheckGranted(parameters, conditions);
  if (ordinary.code == 409) return 0;
  Check(ordinary.is_set == any.is_set && ordinary.code == any.code && ordinary.data == any.data,
        "a user who may change a guest gets what an administrator gets");
  return 0;
}
