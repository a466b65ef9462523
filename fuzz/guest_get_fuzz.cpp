// Guest::Get on a real store, with damaged records and any parameters: it always answers, and keeps its promises.
//
// The input's lines: the parameters; the records of the guest, of a disk called "disk", of an interface called "nic",
// and of alice's rights. An empty line stands for a missing record.
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/base/json_parse.h"
#include "host/records/environment.h"
#include "host/records/guest_admin.h"
#include "json/readers.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"
#include "webapi/guest/guest.h"

namespace {

using vexa::fuzz::Check;

constexpr const char* kGuest = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr const char* kUser = "alice";

struct Ground {
  vexa::test::TestHost host;
  const std::string admin_record = vexa::cluster::GuestAdminIdentifier(vexa::cluster::kUsersKind, host.AddUser(kUser));
};

vexa::store::Operation Stored(const char* category, const std::string& id, std::string_view text) {
  vexa::store::Operation operation{vexa::test::TestHost::ObjectKey(category, id), std::nullopt};
  if (!text.empty()) operation.text = std::string(text);
  return operation;
}

void CheckSuccess(const Json::Value& reply) {
  Check(reply.isObject(), "a reply is an object");
  for (const char* name : {"vcpu_num", "vram_size", "autorun", "usb_version", "cpu_pin_num", "cpu_weight"}) {
    Check(reply[name].isIntegral() && !reply[name].isBool(), "numbers are integers");
  }
  for (const char* name : {"cpu_passthru", "is_ha_enabled", "use_ovmf"}) {
    Check(reply[name].isBool(), "flags are booleans");
  }
  for (const char* name : {"video_card", "desc", "boot_from", "kb_layout"}) {
    Check(reply[name].isString(), "texts are strings");
  }
  Check(reply["usbs"].isArray() && reply["usbs"].size() == 4, "there are four USB ports");
  Check(reply["vdisks"].isArray() && reply["vnics"].isArray(), "devices are lists");
  for (const Json::Value& disk : reply["vdisks"]) {
    Check(disk["vdisk_id"].isString() && disk["size"].isString() && disk["lun_type"].isString(), "a disk is whole");
  }
  Check(vexa::ParseJson(VexaVirtualization::json::ToText(reply)).ok(), "a reply is JSON");
}

VEXA::APIResponse Answer(VEXA::APIRequest request) {
  vexa::test::ClearCapturedSyslog();
  const Json::Value parameters = request.GetParam("", Json::Value());
  VEXA::APIResponse response;
  VexaVirtualization::Guest::Get(&request, &response);
  Check(response.IsSet(), "there is an answer");
  Check(request.GetParam("", Json::Value()) == parameters, "a request stays as it is");
  if (response.IsSuccess()) {
    CheckSuccess(response.Data());
    return response;
  }
  const int code = response.ErrorCode();
  Check(code == 401 || code == 403 || code == 409 || code == 413, "an error has one of four codes");
  Check(response.Data().isNull(), "an error has no details");
  Check(!vexa::test::CapturedSyslog().empty(), "an error is logged");
  return response;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Ground ground;
  std::string_view rest = vexa::fuzz::Text(data, size);
  const auto parameters = vexa::ParseJson(vexa::fuzz::TakeUntil(rest, "\n"));
  if (!parameters.ok()) return 0;  // handlers never see such a request
  vexa::store::Transaction records;
  records.operations.push_back(Stored("guest", kGuest, vexa::fuzz::TakeUntil(rest, "\n")));
  records.operations.push_back(Stored("vdisk", "disk", vexa::fuzz::TakeUntil(rest, "\n")));
  records.operations.push_back(Stored("vnic", "nic", vexa::fuzz::TakeUntil(rest, "\n")));
  records.operations.push_back(Stored("guest_admin", ground.admin_record, vexa::fuzz::TakeUntil(rest, "\n")));
  Check(ground.host.store().Commit(records).ok(), "the records are stored");

  const VEXA::APIResponse any = Answer(vexa::test::AdministratorRequest(*parameters));
  const VEXA::APIResponse granted = Answer(vexa::test::UserRequest(*parameters, kUser));
  Check(any.ErrorCode() != 409, "an administrator may see every guest");
  if (granted.ErrorCode() == 409) return 0;
  Check(granted.ErrorCode() == any.ErrorCode() && granted.Data() == any.Data(), "who may see a guest sees the same");
  return 0;
}
