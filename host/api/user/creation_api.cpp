#include "host/api/user/creation_api.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include "host/api/rows.h"
#include "host/api/user/creation_parameters.h"
#include "host/api/user/outcome_log.h"
#include "host/api/user/simulated_guests.h"
#include "host/base/sanitize_for_log.h"
#include "host/guests/creation/creation.h"
#include "host/guests/creation/creation_request.h"
#include "host/records/environment.h"
#include "host/records/keys.h"
#include "host/records/request_scope.h"
#include "host/session/session_token.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_image.h"
#include "webapi/platform/ccc_senders.h"

namespace vexa::api {
namespace {

constexpr int kTimeoutS = 3600;
constexpr int kRatingTimeoutS = 30;
constexpr std::size_t kMaxLoggedName = 256;
constexpr char kStarted[] = "started";
constexpr char kStartError[] = "start_error";

// The user's error code for an error code of the repository's host; any other code becomes kActionFailed.
constexpr std::pair<int, int> kCodes[] = {{host_error::kBadParameter, user_error::kBadParameter},
                                          {host_error::kNotFoundOrUnreadable, user_error::kNotFoundOrUnreadable},
                                          {host_error::kUnknownApi, user_error::kIncompatibleHost},
                                          {host_error::kTooManyDisks, user_error::kNewDisksExceedLunLimit},
                                          {host_error::kNameTaken, user_error::kNameInUse},
                                          {host_error::kBadNic, user_error::kBadNetworkSettings},
                                          {host_error::kBadDisk, user_error::kDiskNotEditable},
                                          {host_error::kBusy, user_error::kGuestBusy},
                                          {host_error::kNoImage, user_error::kImageUnusable},
                                          {host_error::kBadUsb, user_error::kUsbNotPassedThrough},
                                          {host_error::kNoUsbPort, user_error::kNoUsbPort},
                                          {host_error::kUnavailable, user_error::kUnavailable}};

int ToUserCode(int host_code) {
  const auto* const row = std::ranges::find(kCodes, host_code, &std::pair<int, int>::first);
  return row == std::end(kCodes) ? user_error::kActionFailed : row->second;
}

// Hosts call the lists "vdisks_add" and "vnics_add".
std::string InUsersWords(std::string reason) {
  for (const std::string_view name : {"'vdisks_add", "'vnics_add"}) {
    const std::size_t at = reason.find(name);
    if (at != std::string::npos) reason.erase(at + name.size() - 4, 4);
  }
  return reason;
}

VexaDRCore::Response Ask(const std::string& host_id, const char* api, const char* method, const Json::Value& parameters,
                         int timeout_s) {
  VexaDRCore::Request request;
  request.setAPI(api);
  request.setMethod(method);
  request.setVersion(1);
  for (const std::string& name : json::MemberNames(parameters)) request.addParam(name, json::Member(parameters, name));
  request.setTimeout(timeout_s);
  return VexaCCC::Sender(host_id).process(request);
}

Json::Value GuestParameter(const std::string& guest_id) {
  Json::Value parameters(Json::objectValue);
  parameters[keys::guest_id] = guest_id;
  return parameters;
}

// Not set: the call has been answered.
std::optional<Json::Value> ReadGrants(const AccountServices& services, const Call& call) {
  Json::Value grants(Json::arrayValue);
  const Json::Value given = call.request->GetParam("grants", Json::Value(Json::arrayValue));
  if (!given.isArray() || given.size() > guests::kMaxNewGrants) {
    Fail(call, user_error::kBadParameter,
         fmt::format("The parameter 'grants' is not a list of at most {} users and groups", guests::kMaxNewGrants));
    return std::nullopt;
  }
  for (const Json::Value& element : json::Elements(given)) {
    PrincipalParameters principal;
    const std::string user = json::StringMember(element, "user");
    const std::string group = json::StringMember(element, "group");
    principal.kind = user.empty() ? records::AccountKind::kGroup : records::AccountKind::kUser;
    principal.is_system = !services.accounts;
    principal.name_or_id = user.empty() ? group : user;
    if (user.empty() == group.empty()) {
      Fail(call, user_error::kBadParameter, "The parameter 'grants' has an element without one 'user' or 'group'");
      return std::nullopt;
    }
    const auto found = FindPrincipal(services, call, principal);
    if (!found) return std::nullopt;
    Json::Value& grant = grants.append(Json::Value(Json::objectValue));
    grant["kind"] = std::string(AccountKindName(found->kind));
    grant["id"] = found->id;
    grant["name"] = found->name;
    grant["seen"] = static_cast<Json::UInt64>(found->seen);
  }
  return grants;
}

Result<std::optional<guests::NumberedRequest>, Refusal> ReadNumber(const Call& call, const Json::Value& parameters) {
  const Json::Value* const id = json::FindMember(parameters, "request_id");
  if (!id) return std::optional<guests::NumberedRequest>();
  if (!id->isString() || !guests::IsRequestId(json::String(*id))) {
    return Refusal{user_error::kBadParameter,
                   "The parameter 'request_id' is not 1 to 64 letters, digits, '.', '_' and '-'"};
  }
  Json::Value rest = parameters;
  rest.removeMember("request_id");
  const std::optional<session::Hash> hash = session::HashToken(json::ToText(rest));
  if (!hash) return Refusal{user_error::kActionFailed, "The digest of the parameters cannot be made"};
  return std::optional(
      guests::NumberedRequest{std::to_string(call.caller.user.uid), json::String(*id), session::EncodeHash(*hash)});
}

// Of the hosts that can start the guest, the repository's, which is nearest to the disks, otherwise the one with the
// most free memory. Empty: no host can, as far as is known.
std::string ChooseHost(const std::string& guest_id, const std::string& repository_host_id) {
  Json::Value parameters = GuestParameter(guest_id);
  parameters["type"] = "poweron";
  const VexaDRCore::Response rated = Ask(VexaCCC::DB::DBLocalhostID(), "VEXA.Virtualization.Guest.Action",
                                         "check_host_resource", parameters, kRatingTimeoutS);
  std::vector<std::string> able;
  const Json::Value hosts = rated.isSuccess() ? rated.getDataField("hosts") : Json::Value();
  for (const Json::Value& host : json::Elements(hosts)) {
    if (!json::Bool(json::Member(host, "available"))) continue;
    able.push_back(json::StringMember(host, keys::host_id));
    if (able.back() == repository_host_id) return repository_host_id;
  }
  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Cluster.Member");
  request.setMethod("utilization_get");
  request.setTimeout(kRatingTimeoutS);
  const VexaCCC::MultiResponse replies = VexaCCC::MultiSender(able).process(request);
  std::string chosen;
  Json::UInt64 most = 0;
  for (const std::string& id : able) {
    const VexaDRCore::Response reply = replies.getResponse(id);
    const Json::Value memory = reply.isSuccess() ? reply.getDataField("memory") : Json::Value();
    const Json::UInt64 free = json::UInt64(json::Member(memory, "avail_real"));
    if (!chosen.empty() && free <= most) continue;
    chosen = id;
    most = free;
  }
  return chosen;
}

// The guest stays with the repository's host when no other one can be found or set.
void MoveToChosenHost(const HostCreation& creation, Json::Value& answer) {
  const std::string guest_id = json::StringMember(answer, keys::guest_id);
  const std::string chosen = ChooseHost(guest_id, creation.repository_host_id);
  if (chosen.empty() || chosen == creation.repository_host_id) return;
  Json::Value parameters = GuestParameter(guest_id);
  parameters[keys::host_id] = chosen;
  const auto moved = Ask(creation.repository_host_id, "VEXA.CCC.Guest", "hostset", parameters, kRatingTimeoutS);
  if (moved.isSuccess()) answer[keys::host_id] = chosen;
}

// Starts the guest and adds to the answer whether that has worked.
void Start(const Call& call, Json::Value& answer) {
  const std::string name = json::StringMember(answer, keys::name);
  const auto reply = Ask(json::StringMember(answer, keys::host_id), "VEXA.CCC.Guest", "poweron",
                         GuestParameter(json::StringMember(answer, keys::guest_id)), kTimeoutS);
  const bool is_started = reply.isSuccess() || reply.getErrCode() == host_error::kAlreadyRunning;
  answer[kStarted] = is_started;
  if (!is_started) {
    const Json::Value reason = reply.getErrMsg();
    answer[kStartError] =
        reason.isString() && !json::String(reason).empty()
            ? reason
            : Json::Value(fmt::format("The guest's host answered with the error {}", reply.getErrCode()));
  }
  LogOutcome(call, is_started ? Outcome::kDone : Outcome::kFailed,
             fmt::format("The virtual machine [{}] has been powered on.", name),
             fmt::format("Failed to power on the virtual machine [{}].", name));
}

// Creates the guest. Not set: the call has been answered.
std::optional<Json::Value> CreateGuest(const AccountServices& services, const Call& call, const Json::Value& parameters,
                                       const std::optional<guests::NumberedRequest>& number) {
  std::optional<Json::Value> grants = ReadGrants(services, call);
  if (!grants) return std::nullopt;
  // A drive shows its file to the guest, so only images may be in it, as with edits. Not while a snapshot is open: the
  // folder may be on a share whose server is gone.
  const std::string iso = json::StringMember(parameters, "iso");
  if (VexaCCC::GuestImageIsDsPath(iso) && !VexaCCC::GuestImageIsValidDsPath(iso)) {
    Fail(call, user_error::kImageUnusable,
         fmt::format("'{}' is not a file '….iso' below an image folder of this host (the setting image-roots)",
                     SanitizePathForLog(iso)));
    return std::nullopt;
  }
  auto creation = [&]() -> Result<HostCreation, Refusal> {
    const auto snapshot = services.store->Read();
    if (!snapshot) return Refusal{user_error::kNotFoundOrUnreadable, snapshot.error().ToString()};
    return TranslateCreation(**snapshot, parameters, VexaCCC::DB::DBLocalhostID());
  }();
  if (!creation.ok()) {
    Fail(call, creation.error().code, creation.error().reason);
    return std::nullopt;
  }
  creation->parameters["grants"] = std::move(*grants);
  if (number) {
    creation->parameters["request_id"] = number->id;
    creation->parameters["owner"] = number->owner;
    creation->parameters["digest"] = number->digest;
  }
  const auto reply = Ask(creation->repository_host_id, "VEXA.CCC.Guest", "create", creation->parameters, kTimeoutS);
  const std::string name = SanitizeForLog(json::StringMember(parameters, keys::name), kMaxLoggedName);
  LogOutcome(call, reply.isSuccess() ? Outcome::kDone : Outcome::kFailed,
             fmt::format("The virtual machine [{}] has been created.", name),
             fmt::format("Failed to create the virtual machine [{}].", name));
  if (!reply.isSuccess()) {
    const Json::Value reason = reply.getErrMsg();
    const int code = ToUserCode(reply.getErrCode());
    if (reply.getErrCode() != host_error::kUnreachable && reason.isString() && !json::String(reason).empty()) {
      Fail(call, code, InUsersWords(json::String(reason)));
    } else {
      Fail(call, code);
    }
    return std::nullopt;
  }
  Json::Value answer = reply.getData();
  if (creation->chooses_host) MoveToChosenHost(*creation, answer);
  return answer;
}

void Create(const AccountServices& services, const std::function<bool()>& is_stopping, const Call& call) {
  const Json::Value given = call.request->GetParam("", Json::Value());
  const Json::Value parameters = KnownCreationParameters(given);
  for (const std::string& name : json::MemberNames(given)) {
    if (json::FindMember(parameters, name)) continue;
    return Fail(call, user_error::kBadParameter,
                fmt::format("The parameter '{}' is unknown", SanitizeForLog(name, kMaxLoggedName)));
  }
  const auto start = ReadFlag(call, "start");
  if (!start) return;
  const Json::Value* const host = json::FindMember(parameters, "host");
  if (*start && host && host->isString() && json::String(*host).empty()) {
    return Fail(call, user_error::kBadParameter, "The parameter 'start' needs a host, and 'host' is empty");
  }
  const auto number = ReadNumber(call, parameters);
  if (!number.ok()) return Fail(call, number.error().code, number.error().reason);
  const records::RequestPause without_reader;
  std::optional<Json::Value> answer;
  if (*number) {
    auto first = guests::AwaitFirstOutcome(*services.store, **number, guests::kRequestWait, is_stopping);
    if (first && !first->ok()) {
      return Fail(call, ToUserCode(first->error().code), InUsersWords(first->error().reason));
    }
    if (first) answer = **std::move(first);
  }
  const bool is_repeated = answer.has_value();
  if (!answer) answer = CreateGuest(services, call, parameters, *number);
  if (!answer) return;
  // The host may have ended between the two.
  const bool starts = *start && !json::FindMember(*answer, kStarted);
  if (starts) Start(call, *answer);
  if (*number && (starts || !is_repeated)) guests::ReplaceAnswer(*services.store, **number, *answer);
  call.response->SetSuccess(*answer);
}

}  // namespace

std::vector<ApiRow> CreationRows(const AccountServices& services, std::function<bool()> is_stopping) {
  using namespace user_error;
  return {AdministratorRow(
      "VEXA.Virtualization.Guest", "create", LaneKind::kLong,
      WithSimulatedMark(
          [services, is_stopping = std::move(is_stopping)](const Call& call) { Create(services, is_stopping, call); }),
      "Create a guest with disks and network interfaces, completely or not at all, and start it if asked to. The reply "
      "has its id, name and host, and with \"start\" whether it was started, or why not.",
      CreationParameters(),
      {kBadParameter, kNotFoundOrUnreadable, kNameInUse, kIncompatibleHost, kNewDisksExceedLunLimit, kActionFailed,
       kGuestBusy, kBadNetworkSettings, kDiskNotEditable, kImageUnusable, kUsbNotPassedThrough, kNoUsbPort,
       kUnavailable, kNoAccount, kGrantsOfOtherAccount, kAccountDamaged, kAccountsUnavailable, kAccountsFromPam})};
}

}  // namespace vexa::api
