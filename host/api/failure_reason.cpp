#include "host/api/failure_reason.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "host/api/bad_parameter.h"
#include "host/api/identity.h"
#include "host/api/reason.h"
#include "host/base/error_help.h"
#include "host/base/error_table.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/time_text.h"
#include "host/records/host_liveness.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

constexpr std::size_t kMaxShown = 128;

std::string NameOfHost(const records::Reader* reader, const std::string& host_id) {
  const std::string name =
      reader ? records::ReadStringOrEmpty(*reader, VexaCCC::DB::DashCate::Host, host_id, keys::name) : std::string();
  return SanitizeForLog(name.empty() ? host_id : name, kMaxShown);
}

// "since 2026-11-21T09:30:00Z", with a space before it; "" unless the host is gone since a known time.
std::string SinceText(const records::Reader* reader, const std::string& host_id) {
  if (reader == nullptr) return "";
  const Result<records::HostLiveness> life = records::LivenessOf(*reader, host_id);
  const bool is_known = life && life->is_gone && life->last_heartbeat != std::chrono::system_clock::time_point();
  return is_known ? fmt::format(" It has been inaccessible since {}.", FormatUtcTime(life->last_heartbeat)) : "";
}

// The ids of hosts in the sentence become their names.
std::string WithNames(const records::Reader* reader, std::string text) {
  const auto ids = reader ? reader->Children(records::CategoryKey(VexaCCC::DB::DashCate::Host.name()))
                          : Result<std::vector<std::string>>(std::vector<std::string>());
  if (!ids) return text;
  for (const std::string& id : *ids) {
    const std::size_t at = id.empty() ? std::string::npos : text.find(id);
    if (at != std::string::npos) text.replace(at, id.size(), NameOfHost(reader, id));
  }
  return text;
}

std::string WithFullStop(std::string text) {
  if (!text.empty() && text.back() != '.' && text.back() != '?' && text.back() != '!') text += '.';
  return text;
}

// What helps when a host has answered with this code, where the hint of the user's code is about something else; "":
// that one is right.
std::string_view HintForHostCode(int host_code) {
  switch (host_code) {
    case user_error::kUnreachable:
      return HintFor(user_error::kUnreachable);
    case host_error::kBusy:
      return HintFor(user_error::kGuestBusy);
    case host_error::kUnavailable:
      return HintFor(user_error::kUnavailable);
    case host_error::kAlreadyRunning:
      return "Shut the guest down with 'vexa guest stop GUEST' first; 'vexa guest status GUEST' shows its state and "
             "host.";
    default:
      return "";
  }
}

// Actions that need a guest that runs, and have failed because it does not.
bool IsOfGuestThatIsOff(int code, int host_code) {
  constexpr int kActions[] = {user_error::kShutdownFailed, user_error::kPowerOffFailed, user_error::kRebootFailed};
  return host_code == host_error::kNotRunning && std::ranges::find(kActions, code) != std::end(kActions);
}

// Such refusals quote what the caller has sent.
bool IsAboutParameters(int host_code) {
  return host_code == host_error::kBadParameter || host_code == host_error::kBadNic;
}

// For callers who may not read what the host said: what its code means, and whom to ask.
std::string GeneralReason(int host_code) {
  const bool is_specific = host_code != host_error::kFailed && host_code != host_error::kPartsNotReserved;
  const ErrorRow* const row = is_specific ? FindError(host_code, Audience::kHosts) : nullptr;
  if (row && (host_code == host_error::kNotRunning || host_code == host_error::kSuspended)) {
    return std::string(row->sentence);  // it says all
  }
  return row ? fmt::format("{} {}", row->sentence, kAskAdministrator) : kAskAdministrator;
}

// What the last host that was asked, and did not do it, has said.
void SetReasonOfHosts(const Call& call, const transport::FailedHostsScope& failed) {
  const records::RequestScope newest;
  const auto opened = records::ReaderOfRequest();
  const records::Reader* const reader = opened ? &**opened : nullptr;
  const std::string& host_id = failed.last_host();
  const std::string name = NameOfHost(reader, host_id);
  const std::string said = WithNames(reader, failed.last_reason());
  if (const std::string_view hint = HintForHostCode(failed.last_code());
      !hint.empty() && call.response->ErrorCode() != user_error::kAlreadyRunning) {
    SetHint(call, hint);
  }
  if (failed.last_code() == user_error::kUnreachable) {
    const std::string since = SinceText(reader, host_id);
    // Only administrators see addresses and what the network reported.
    return SetReason(call, call.request->IsAdmin() ? WithFullStop(said) + since
                                                   : fmt::format("The host '{}' did not answer.{}", name, since));
  }
  if (failed.last_code() == user_error::kUnknownApi) {
    return SetReason(call, fmt::format("The version of the host '{}' does not have what was asked for.", name));
  }
  if (said.empty()) {
    const ErrorRow* const row = FindError(failed.last_code(), Audience::kHosts);
    return SetReason(call, fmt::format("The host '{}' answered with the error {}{}", name, failed.last_code(),
                                       row ? fmt::format(": {}", row->sentence) : "."));
  }
  const std::string reason = host_id == VexaCCC::DB::DBLocalhostID()
                                 ? said
                                 : fmt::format("{} (Reported by the host '{}'.)", WithFullStop(said), name);
  SetReason(call, ReasonOfHost(call.request->IsAdmin(), failed.last_code(), reason));
}

void SetReasonOfRecords(const Call& call, const records::Finding& finding) {
  SetReason(call, finding.sentence, finding.is_for_everyone ? Readers::kCaller : Readers::kAdministrators);
}

// Of an interface of another guest, in the words of the reply's details.
std::string ReasonOfAddress(const Json::Value& details) {
  const std::string guest = json::StringMember(details, "guest_name");
  return guest.empty() ? "" : fmt::format("An interface of the guest '{}' has the MAC address.", guest);
}

std::string ReasonOfRights(const Call& call) {
  return fmt::format(
      "The user '{}' was not granted this guest, or may not do this with it; a guest that does not exist is refused "
      "like this as well.",
      SanitizeForLog(call.request->GetLoginUserName(), kMaxShown));
}

}  // namespace

void AddMissingReason(const ApiRow& row, const Call& call, const FailureFindings& findings) {
  if (row.access.value == Access::kHost || !call.response->IsSet() || call.response->IsSuccess()) return;
  if (json::FindMember(*call.extra_members, kReason)) return;
  const int code = call.response->ErrorCode();
  if (code == user_error::kBadParameter) {
    const std::string reason = DescribeBadParameter(row, call.request->GetParam("", Json::Value()));
    if (!reason.empty()) SetReason(call, reason);
  } else if (code == user_error::kUnknownDiskTypeOrNotReserved && findings.hosts.last_host().empty()) {
    SetReason(call, "The record of one of the guest's disks has a type that does not exist: another program wrote it.");
  } else if (code == user_error::kUnknownDiskTypeOrNotReserved || code == user_error::kCpuThreadsNotReserved) {
    SetReason(call, "The host could not reserve the processors, memory or devices that the edited guest needs.");
  } else if (std::string reason = ReasonOfAddress(call.response->Data());
             code == user_error::kAddressInUseOrGuestRuns && !reason.empty()) {
    SetReason(call, reason);
  } else if (code == user_error::kNameInUse || code == user_error::kRightsNotSet) {
    if (!findings.records.last().sentence.empty()) SetReasonOfRecords(call, findings.records.last());
  } else if (code == user_error::kNotPermitted) {
    SetReason(call, ReasonOfRights(call));
  } else if (code == user_error::kNotFoundOrUnreadable) {
    if (!findings.records.last().sentence.empty()) SetReasonOfRecords(call, findings.records.last());
  } else if (code >= user_error::kFirstGuestOperationCode || code == user_error::kIncompatibleHost ||
             code == user_error::kNotPermittedByHost) {
    if (IsOfGuestThatIsOff(code, findings.hosts.last_code())) {
      SetReason(call, "The guest does not run.");
      SetHint(call, code == user_error::kRebootFailed
                        ? HintFor(user_error::kNotRunning)
                        : "It is off already, so nothing has to be done; 'vexa guest start GUEST' starts it.");
    } else if (!findings.hosts.last_host().empty()) {
      SetReasonOfHosts(call, findings.hosts);
    }
  }
}

std::string ReasonOfHost(bool is_administrator, int host_code, const std::string& said) {
  return is_administrator || IsAboutParameters(host_code) ? said : GeneralReason(host_code);
}

std::string ReasonOfCaller(int code, const http::HttpRequest& request, const Caller* caller) {
  const bool has_token = !request.authorization.empty() || !FindCookie(request.cookie, kSessionCookie).empty();
  const bool is_local = request.peer.kind == http::Peer::Kind::kUnix;
  switch (code) {
    case user_error::kNotLoggedIn:
      if (has_token && caller != nullptr)
        return "The account of the session has been deleted, or its password was set.";
      if (has_token) return "The token is not one of a session of this host: it may have ended, or never existed.";
      if (is_local)
        return fmt::format("The system account with the id {} is not a user of this host.", request.peer.uid);
      return "The request has no token.";
    case user_error::kDenied:
      if (request.peer.is_certified) return "The certificate of the caller does not permit this call.";
      if (caller == nullptr || caller->user.name.empty()) return "The method is not for callers of this kind.";
      return fmt::format("The method is for administrators, and the user '{}' is not one.",
                         SanitizeForLog(caller->user.name, kMaxShown));
    case user_error::kBadCsrfToken:
      return request.csrf_token.empty()
                 ? "The session is in a cookie, and the request has no header X-Vexa-CSRF."
                 : "The header X-Vexa-CSRF does not have the token of the session in the cookie.";
    case user_error::kInternal:
      return "The host cannot read its accounts; its system log has the cause.";
    default:
      return "";
  }
}

std::string ReasonOfCode(int code) {
  switch (code) {
    case user_error::kWrongPassword:
      return "The name and the password do not belong together.";
    case user_error::kTooManyLogins:
      return "This address, or this user, has had more failed logins than are allowed in a short time.";
    case user_error::kHostBusy:
      return "As many requests as the host takes are waiting already.";
    case user_error::kNoSuchAddress:
      return "The path of the request is not an address of this server.";
    case user_error::kHttpMethodNotAllowed:
      return "The address exists, but not with the HTTP method of the request.";
    case user_error::kNotJson:
      return "The header Content-Type of the request is not application/json.";
    case user_error::kBodyTooLarge:
      return "The body is longer than the method, or the caller, may send.";
    case user_error::kHeaderTooLarge:
      return "The header of the request has more bytes, or more fields, than the server reads.";
    case user_error::kRequestTimeout:
      return "The request began, but its end has not arrived.";
    case user_error::kMalformed:
      return "What arrived is not a request that the server can read.";
    case user_error::kUnknownApi:
      return "This host has no method with this API, name and version.";
    case user_error::kNotPermitted:
      return "The caller was not granted what the request is about.";
    case user_error::kNoSession:
      return "No session of yours has this id.";
    default:
      return "The host has not recorded a cause; its system log may have more, under the request's id.";
  }
}

}  // namespace vexa::api
