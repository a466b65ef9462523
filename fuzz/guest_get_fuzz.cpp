// Guest::Get on a real store, with damaged records and any parameters: it always responds, in the documented form.
//
// The input's lines: the parameters; the records of the guest, of a disk called "disk", of an interface called "nic",
// and of alice's rights. An empty line stands for a missing record.
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/base/guest_settings.h"
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

struct Fixture {
  vexa::test::TestHost host;
  const std::string admin_record = vexa::records::GuestAdminIdentifier(vexa::records::kUsersKind, host.AddUser(kUser));
};

vexa::store::Operation Stored(const char* category, const std::string& id, std::string_view text) {
  vexa::store::Operation operation{vexa::test::TestHost::ObjectKey(category, id), std::nullopt};
  if (!text.empty()) operation.text = std::string(text);
  return operation;
}

void CheckSetting(const vexa::GuestSetting& setting, const Json::Value& reply) {
  const std::string_view name = setting.name;
  // Intentional: the name is replied as it is stored, and Hyper-V only when it is stored.
  if (name == "name" || (name == "hyperv_enlighten" && !reply.isMember(setting.name))) return;
  const Json::Value& value = reply[setting.name];
  if (setting.type == vexa::SettingType::kNumber) {
    Check(value.isIntegral() && !value.isBool(), "numbers are integers");
  }
  if (setting.type == vexa::SettingType::kBoolean) Check(value.isBool(), "flags are booleans");
  if (setting.type == vexa::SettingType::kString) Check(value.isString(), "texts are strings");
}

void CheckSuccess(const Json::Value& reply) {
  Check(reply.isObject(), "a reply is an object");
  for (const vexa::GuestSetting& setting : vexa::kGuestSettings) CheckSetting(setting, reply);
  Check(reply["is_ha_enabled"].isBool(), "flags are booleans");
  Check(reply["usbs"].isArray() && reply["usbs"].size() == 4, "there are four USB ports");
  Check(reply["vdisks"].isArray() && reply["vnics"].isArray(), "devices are lists");
  for (const Json::Value& disk : reply["vdisks"]) {
    Check(disk["vdisk_id"].isString() && disk["size"].isString() && disk["lun_type"].isString(),
          "a disk has all its members");
  }
  Check(vexa::ParseJson(VexaVirtualization::json::ToText(reply)).ok(), "a reply is JSON");
}

VEXA::APIResponse CallGet(VEXA::APIRequest request) {
  vexa::test::ClearCapturedSyslog();
  const Json::Value parameters = request.GetParam("", Json::Value());
  VEXA::APIResponse response;
  VexaVirtualization::Guest::Get(&request, &response);
  Check(response.IsSet(), "there is a response");
  Check(request.GetParam("", Json::Value()) == parameters, "a request is not changed");
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
  static Fixture fixture;
  std::string_view rest = vexa::fuzz::Text(data, size);
  const auto parameters = vexa::ParseJson(vexa::fuzz::TakeUntil(rest, "\n"));
  if (!parameters.ok()) return 0;  // handlers are not called for such a request
  vexa::store::Transaction records;
  records.operations.push_back(Stored("guest", kGuest, vexa::fuzz::TakeUntil(rest, "\n")));
  records.operations.push_back(Stored("vdisk", "disk", vexa::fuzz::TakeUntil(rest, "\n")));
  records.operations.push_back(Stored("vnic", "nic", vexa::fuzz::TakeUntil(rest, "\n")));
  records.operations.push_back(Stored("guest_admin", fixture.admin_record, vexa::fuzz::TakeUntil(rest, "\n")));
  Check(fixture.host.store().Commit(records).ok(), "the records are stored");

  const VEXA::APIResponse any = CallGet(vexa::test::AdministratorRequest(*parameters));
  const VEXA::APIResponse granted = CallGet(vexa::test::UserRequest(*parameters, kUser));
  Check(any.ErrorCode() != 409, "an administrator may see every guest");
  if (granted.ErrorCode() == 409) return 0;
  Check(granted.ErrorCode() == any.ErrorCode() && granted.Data() == any.Data(),
        "a user who may see a guest sees what an administrator sees");
  return 0;
}
