// The method by which other hosts import guests with copies of their images into this host's repositories.
#include <utility>

#include "host/api/import_parameters.h"
#include "host/api/peer/rows.h"
#include "host/guests/guest_control.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;

Json::Value Describe(const guests::ImportedGuest& imported) {
  Json::Value data(Json::objectValue);
  data["guest_id"] = imported.id;
  data["name"] = imported.name;
  return data;
}

void Import(guests::GuestControl* control, const store::Store* store, const Call& call) {
  Json::Value list(Json::arrayValue);
  list.append(call.request->GetParam("guest", Json::Value()));
  const auto requests = ReadImportRequests(list);
  if (!requests) return call.response->SetError(host_error::kBadParameter, requests.error().message());
  const auto dry_run = call.request->GetAndCheckBool("dry_run", kOptional);
  if (dry_run.IsInvalid()) return Fail(call, host_error::kBadParameter);
  if (!control) return call.response->SetError(host_error::kUnavailable, "This host runs no guests");
  if (const auto allowed = CheckDatabaseReadable(store); !allowed.ok()) {
    return call.response->SetError(allowed.error().code, allowed.error().reason);
  }
  guests::GuestImport::Options options;
  if (dry_run.IsSet() && dry_run.Get()) options.mode = guests::ImportMode::kCheck;
  guests::ImportedGuest imported;
  const auto done = control->Import(requests->front(), options, RequesterOf(call), imported);
  Json::Value data = Describe(imported);
  if (!done.ok()) {
    data["reason"] = done.error().reason;
    return call.response->SetError(done.error().code, data);
  }
  data["records"] = imported.records;
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> GuestImportRows(const ServiceParts& parts) {
  using enum ValueType;
  ApiRow row = HostRow(
      "VEXA.CCC.Guest", "import", LaneKind::kLong,
      [control = parts.guests, store = parts.store](const Call& call) { Import(control, store.get(), call); },
      "Imports a guest with copies of its disks' images in a repository of this host, completely or not at all.",
      {{"guest", kObject, Necessity::kRequired,
        "The guest, as for users, with its repository_id, which belongs to this host, and its host_id."},
       OptionalFlag("dry_run", "Check everything and return the records, but change nothing.")},
      {host_error::kBadParameter, host_error::kNotFoundOrUnreadable, host_error::kFailed, host_error::kAlreadyRunning,
       host_error::kNameTaken, host_error::kBusy, host_error::kUnavailable});
  row.body_values = kMaxBodyValues;
  return {std::move(row)};
}

}  // namespace vexa::api
