#include "host/api/user/import_api.h"

#include <fmt/format.h>

#include <string>
#include <string_view>
#include <utility>

#include "host/api/import_parameters.h"
#include "host/api/rows.h"
#include "host/api/user/account_calls.h"
#include "host/api/user/import_places.h"
#include "host/base/error_table.h"
#include "host/base/refusal.h"
#include "host/guests/import/guest_import.h"
#include "host/records/environment.h"
#include "host/records/repository_host.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc_log.h"
#include "webapi/platform/ccc_senders.h"

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
  result["elements"] = json::Member(imported.records, "elements");
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

// What applies to all guests of a call.
struct ImportCall {
  store::Store& store;
  const Call& call;
  GuestImport::Options options;
  bool copies_disks = false;
};

constexpr int kCopyTimeoutS = 3600;
// After no answer, for instance because the copies take longer than that.
constexpr std::string_view kMayGoOn =
    ". If it has begun, it goes on: look whether the guest exists before you import it again";
// A call between hosts has at most kDefaultBodyBytes, and each byte of a definition may be escaped.
constexpr std::size_t kMaxCopiedXmlBytes = kDefaultBodyBytes / 4;

// The user's error code for one of the repository's host, which has those of imports too.
int ToUserCode(int host_code) {
  switch (host_code) {
    case host_error::kBusy:
      return user_error::kGuestBusy;
    case host_error::kNameTaken:
      return user_error::kRecordExists;
    case host_error::kUnknownApi:
      return user_error::kIncompatibleHost;
    case host_error::kUnreachable:
      return user_error::kUnavailable;
    case host_error::kBadParameter:
    case host_error::kNotFoundOrUnreadable:
    case host_error::kAlreadyRunning:
    case host_error::kUnavailable:
      return host_code;
    default:
      return user_error::kActionFailed;
  }
}

// In a dry run, the guests that were accepted before count as if they existed.
Result<void, Refusal> AddPlanned(std::map<std::string, std::string>& planned, const ImportedGuest& imported) {
  for (const auto& [id, name] : planned) {
    if (id != imported.id && name != imported.name) continue;
    return Refusal{user_error::kRecordExists,
                   fmt::format("The guest '{}' or its name '{}' is imported twice", imported.id, imported.name)};
  }
  planned[imported.id] = imported.name;
  return {};
}

// The host of the guest's repository copies the images, which are on it.
Result<void, Refusal> ImportWithCopies(ImportCall& import, Json::Value guest, const ImportRequest& request,
                                       const std::string& repository_host_id, ImportedGuest& imported) {
  if (request.xml.size() > kMaxCopiedXmlBytes) {
    return Refusal{user_error::kBadParameter,
                   fmt::format("The definition has {} bytes: with 'copy_disks', it has at most {}", request.xml.size(),
                               kMaxCopiedXmlBytes)};
  }
  guest["repository_id"] = request.repository_id;
  guest["host_id"] = request.host_id;
  const bool is_dry_run = import.options.mode == guests::ImportMode::kCheck;
  VexaDRCore::Request asked;
  asked.setAPI("VEXA.CCC.Guest");
  asked.setMethod("import");
  asked.setVersion(1);
  asked.setTimeout(kCopyTimeoutS);
  asked.addParam("guest", guest);
  asked.addParam("dry_run", is_dry_run);
  const VexaDRCore::Response reply = VexaCCC::Sender(repository_host_id).process(asked);
  const Json::Value data = reply.isSuccess() ? reply.getData() : reply.getErrMsg();
  imported.id = json::StringMember(data, "guest_id");
  imported.name = json::StringMember(data, "name");
  if (!reply.isSuccess()) {
    std::string reason = data.isString() ? json::String(data) : json::StringMember(data, "reason");
    if (reason.empty()) reason = fmt::format("The repository's host answered with the error {}", reply.getErrCode());
    if (reply.getErrCode() == host_error::kUnreachable) reason += kMayGoOn;
    return Refusal{ToUserCode(reply.getErrCode()), std::move(reason)};
  }
  imported.records = json::Member(data, "records");
  return is_dry_run ? AddPlanned(import.options.planned, imported) : Result<void, Refusal>();
}

// The request with the ids that it leaves out, and the host of its repository.
struct PlacedRequest {
  ImportRequest request;
  std::string repository_host_id;
};
Result<PlacedRequest, Refusal> Place(const store::Store& store, const ImportRequest& request,
                                     const std::string& own_host_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return Refusal{user_error::kRecordFailed, snapshot.error().ToString()};
  PlacedRequest placed{request, own_host_id};
  if (const auto set = SetMissingPlaces(**snapshot, own_host_id, placed.request); !set.ok()) return set.error();
  Json::Value guest(Json::objectValue);
  guest["repository_id"] = placed.request.repository_id;
  const auto host_id = records::RepositoryHost(**snapshot, guest);
  if (!host_id) return Refusal{user_error::kRecordFailed, host_id.error().ToString()};
  if (!host_id->empty()) placed.repository_host_id = *host_id;
  return placed;
}

Result<void, Refusal> ImportOne(ImportCall& import, const Json::Value& guest, const ImportRequest& request,
                                ImportedGuest& imported) {
  const auto placed = Place(import.store, request, import.options.own_host_id);
  if (!placed.ok()) return placed.error();
  if (import.copies_disks) {
    return ImportWithCopies(import, guest, placed->request, placed->repository_host_id, imported);
  }
  GuestImport importer(import.store, import.options);
  const auto done = importer.Import(placed->request, imported);
  if (done.ok() && import.options.mode == guests::ImportMode::kCheck) {
    import.options.planned[imported.id] = imported.name;
  }
  return done;
}

void Import(store::Store& store, const Call& call) {
  auto options = ReadOptions(call);
  if (!options) return;
  const auto copies_disks = ReadFlag(call, "copy_disks");
  if (!copies_disks) return;
  if (*copies_disks && options->on_existing == guests::OnExisting::kReplace) {
    return Fail(call, user_error::kBadParameter,
                "Disks are copied for new guests only: leave out 'copy_disks' or 'replace'");
  }
  const Json::Value guests = call.request->GetParam("guests", Json::Value());
  const auto requests = ReadImportRequests(guests);
  if (!requests) return Fail(call, user_error::kBadParameter, requests.error().message());
  const records::RequestPause without_reader;
  ImportCall import{store, call, *std::move(options), *copies_disks};
  Json::Value data(Json::objectValue);
  Json::Value& results = data["results"] = Json::Value(Json::arrayValue);
  for (Json::ArrayIndex i = 0; i < guests.size(); ++i) {
    ImportedGuest imported;
    const auto outcome = ImportOne(import, json::Element(guests, i), (*requests)[i], imported);
    // A definition that cannot be parsed has no name to log.
    if (import.options.mode == guests::ImportMode::kWrite && !imported.name.empty()) {
      LogImport(call.request->GetLoginUserName(), outcome, imported);
    }
    results.append(Describe(outcome, imported, import.options.mode));
  }
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> ImportRows(std::shared_ptr<store::Store> store) {
  return {{.api = "VEXA.Virtualization.Guest",
           .method = "import",
           .version = 1,
           .access = Access::kAdministrator,
           .lane = LaneKind::kLong,
           .handler = [store = std::move(store)](const Call& call) { Import(*store, call); },
           .summary =
               "Import guests from libvirt's domain XML, each completely or not at all. The reply has a result for "
               "each guest, in order: its id and its parts, or the error.",
           .parameters =
               {{"guests", ParameterType::kArray, Necessity::kRequired,
                 "1 to 100 objects: xml, and optionally guest_id (refused when the XML has another one), "
                 "repository_id (default: the only repository of its host), host_id (default: the host that is asked), "
                 "autostart, has_variables, disk_sizes_mib (by the disk's target), "
                 "image_sizes (bytes by path; null for an image that cannot be read), networks (ids by name)."},
                Optional("replace", ParameterType::kBoolean,
                         "Replace guests that already exist and are shut down. Without it, they are refused."),
                Optional("dry_run", ParameterType::kBoolean,
                         "Check everything and return the records, but change nothing."),
                OptionalFlag("copy_disks",
                             "Copy the images of disks into the guest's repository, whose host reads them below its "
                             "image folders: raw, qcow2, VMDK and VDI. Without it, images stay where they are."),
                Optional("planned", ParameterType::kObject,
                         "In a dry run: the names, by id, of guests that earlier calls have accepted.")},
           .errors = {user_error::kBadParameter, user_error::kNotFoundOrUnreadable, user_error::kIncompatibleHost,
                      user_error::kActionFailed, user_error::kAddressInUseOrGuestRuns, user_error::kGuestBusy,
                      user_error::kUnavailable, user_error::kRecordExists, user_error::kRecordFailed},
           .body_bytes = kMaxBodyBytes,
           .body_values = kMaxBodyValues}};
}

}  // namespace vexa::api
