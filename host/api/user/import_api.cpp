#include "host/api/user/import_api.h"

#include <string>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/account_calls.h"
#include "host/api/user/import_parameters.h"
#include "host/base/error_table.h"
#include "host/base/refusal.h"
#include "host/guests/import/guest_import.h"
#include "host/records/environment.h"
#include "json/readers.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::api {
namespace {

using guests::GuestImport;
using guests::ImportedGuest;
using guests::ImportRequest;

void LogImport(const std::string& user, const Result<void, Refusal>& outcome, const ImportedGuest& imported) {
  using namespace VexaCCC;
  if (!outcome.ok()) {
    ClusterLogAdd(user, CLOG_PRIORITY_FAILURE, "Failed to import the virtual machine [%s].", imported.name.c_str());
  } else if (imported.is_replacement) {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The virtual machine [%s] has been replaced by an import.",
                  imported.name.c_str());
  } else {
    ClusterLogAdd(user, CLOG_PRIORITY_SUCCESS, "The virtual machine [%s] has been imported.", imported.name.c_str());
  }
}

Json::Value DescribeRefusal(const Refusal& refusal) {
  Json::Value error(Json::objectValue);
  error["code"] = refusal.code;
  const ErrorRow* const row = FindError(refusal.code);
  error["message"] = row ? std::string(row->sentence) : std::string();
  error[kReason] = refusal.reason;
  return error;
}

Json::Value Describe(const Result<void, Refusal>& outcome, const ImportedGuest& imported, guests::ImportMode mode) {
  Json::Value result(Json::objectValue);
  if (!imported.id.empty()) {
    result["guest_id"] = imported.id;
    result["name"] = imported.name;
  }
  if (!outcome.ok()) {
    result["error"] = DescribeRefusal(outcome.error());
    return result;
  }
  result["replaced"] = imported.is_replacement;
  result["disks"] = json::Member(imported.records, "disks").size();
  result["nics"] = json::Member(imported.records, "nics").size();
  result["notes"] = json::Member(imported.records, "notes");
  if (mode == guests::ImportMode::kCheck) result["records"] = imported.records;
  return result;
}

// Reads the flags and the guests that were planned by earlier calls. Not set: the call has been answered.
std::optional<GuestImport::Options> ReadOptions(const Call& call) {
  const auto replace = ReadFlag(call, "replace");
  if (!replace) return std::nullopt;
  const auto dry_run = ReadFlag(call, "dry_run");
  if (!dry_run) return std::nullopt;
  GuestImport::Options options;
  options.on_existing = *replace ? guests::OnExisting::kReplace : guests::OnExisting::kRefuse;
  options.mode = *dry_run ? guests::ImportMode::kCheck : guests::ImportMode::kWrite;
  if (const auto* environment = records::CurrentEnvironment()) options.own_host_id = environment->host_id;
  if (!call.request->HasParam("planned")) return options;
  auto planned = ReadPlannedGuests(*dry_run ? call.request->GetParam("planned", Json::Value()) : Json::Value());
  if (!planned) {
    Fail(call, user_error::kBadParameter, planned.error().message());
    return std::nullopt;
  }
  options.planned = std::move(*planned);
  return options;
}

void Import(store::Store& store, const Call& call) {
  auto options = ReadOptions(call);
  if (!options) return;
  const auto requests = ReadImportRequests(call.request->GetParam("guests", Json::Value()));
  if (!requests) return Fail(call, user_error::kBadParameter, requests.error().message());
  const guests::ImportMode mode = options->mode;
  GuestImport importer(store, std::move(*options));
  Json::Value data(Json::objectValue);
  Json::Value& results = data["results"] = Json::Value(Json::arrayValue);
  for (const ImportRequest& request : *requests) {
    ImportedGuest imported;
    const auto outcome = importer.Import(request, imported);
    // A definition that cannot be parsed has no name to log.
    if (mode == guests::ImportMode::kWrite && !imported.name.empty()) {
      LogImport(call.request->GetLoginUserName(), outcome, imported);
    }
    results.append(Describe(outcome, imported, mode));
  }
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> ImportRows(std::shared_ptr<store::Store> store) {
  return {
      {.api = "VEXA.Virtualization.Guest",
       .method = "import",
       .version = 1,
       .access = Access::kAdministrator,
       .lane = LaneKind::kLong,
       .handler = [store = std::move(store)](const Call& call) { Import(*store, call); },
       .summary = "Import guests from libvirt's domain XML, each completely or not at all. The reply has a result for "
                  "each guest, in order: its id and its parts, or the error.",
       .parameters = {{"guests", ParameterType::kArray, Necessity::kRequired,
                       "1 to 100 objects: xml, and optionally guest_id (refused when the XML has another one), "
                       "repository_id, host_id, autostart, has_variables, disk_sizes_mib (by the disk's target), "
                       "image_sizes (bytes by path; null for an image that cannot be read), networks (ids by name)."},
                      Optional("replace", ParameterType::kBoolean,
                               "Replace guests that already exist and are shut down. Without it, they are refused."),
                      Optional("dry_run", ParameterType::kBoolean,
                               "Check everything and return the records, but change nothing."),
                      Optional("planned", ParameterType::kObject,
                               "In a dry run: the names, by id, of guests that earlier calls have accepted.")},
       .errors = {user_error::kBadParameter, user_error::kAddressInUseOrGuestRuns, user_error::kGuestBusy,
                  user_error::kRecordExists, user_error::kRecordFailed},
       .body_bytes = kMaxBodyBytes,
       .body_values = kMaxBodyValues}};
}

}  // namespace vexa::api
