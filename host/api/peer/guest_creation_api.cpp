// The method by which other hosts create guests in this host's repositories.
#include "host/api/peer/rows.h"
#include "host/base/guest_settings.h"
#include "host/guests/guest_control.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

void Create(guests::GuestControl* control, const store::Store* store, const Call& call) {
  const auto name = call.request->GetAndCheckString("name", kRequired);
  const auto repository_id = call.request->GetAndCheckString("repository_id", kRequired);
  if (name.IsInvalid() || repository_id.IsInvalid()) return Fail(call, host_error::kBadParameter);
  if (!control) return call.response->SetError(host_error::kUnavailable, "This host runs no guests");
  if (const auto allowed = CheckDatabaseReadable(store); !allowed.ok()) {
    return call.response->SetError(allowed.error().code, allowed.error().reason);
  }
  const auto created = control->Create(call.request->GetParam("", Json::Value()), RequesterOf(call));
  if (!created.ok()) return call.response->SetError(created.error().code, created.error().reason);
  call.response->SetSuccess(*created);
}

std::vector<Parameter> Parameters() {
  using enum ValueType;
  std::vector<Parameter> parameters = {
      Text("name", "The guest's name: 1 to 128 bytes that no other guest is called."),
      Text("repository_id", "The repository of its disks, which belongs to this host."),
      OptionalString("host_id", "Its host (default: none)."),
      OptionalString("os",
                     "\"linux\" (the default), \"windows\" or \"other\": decides about settings that are left out."),
      Optional("vdisks_add", kArray, "Its disks, as for \"set\"."),
      Optional("vnics_add", kArray, "Its network interfaces, as for \"set\"."),
      Optional("iso_images", kArray, "Its drives, as for \"set\"."),
      Optional("usbs", kArray, "Its USB devices, as for \"set\"."),
      Optional("grants", kArray, "Who may use it: [{\"kind\", \"id\", \"name\", \"seen\"}]."),
      OptionalString("request_id", "The client's number of the request: a repeated one gets the first answer."),
      OptionalString("owner", "The account id of the client; with request_id."),
      OptionalString("digest", "Equal for equal parameters; with request_id.")};
  for (const GuestSetting& setting : kGuestSettings) {
    if (!setting.IsScalar() || std::string_view(setting.name) == "name") continue;
    const ParameterType type = setting.type == SettingType::kString   ? kString
                               : setting.type == SettingType::kNumber ? kInteger
                                                                      : kBoolean;
    parameters.push_back(Optional(setting.name, type, setting.for_hosts));
  }
  return parameters;
}

}  // namespace

std::vector<ApiRow> GuestCreationRows(const ServiceParts& parts) {
  return {HostRow(
      "VEXA.CCC.Guest", "create", LaneKind::kLong,
      [control = parts.guests, store = parts.store](const Call& call) { Create(control, store.get(), call); },
      "Creates a guest with its disks in a repository of this host, completely or not at all.", Parameters(),
      {host_error::kBadParameter, host_error::kNotFoundOrUnreadable, host_error::kTooManyDisks, host_error::kFailed,
       host_error::kNameTaken, host_error::kBadNic, host_error::kBadDisk, host_error::kOnOtherHost, host_error::kBusy,
       host_error::kNoImage, host_error::kBadUsb, host_error::kNoUsbPort, host_error::kUnavailable})};
}

}  // namespace vexa::api
