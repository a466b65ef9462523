#include "host/api/user/console_api.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "host/api/console.h"
#include "host/api/failure_reason.h"
#include "host/api/rows.h"
#include "host/api/user/consoles.h"
#include "host/api/user/outcome_log.h"
#include "host/api/user/unreachable_host.h"
#include "host/base/us_keyboard.h"
#include "host/base/uuid.h"
#include "host/cluster/console_right.h"
#include "host/records/run_record.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

constexpr int kTimeoutS = 60;

bool MayOpen(const store::Store& store, const Call& call, const std::string& guest_id) {
  const auto snapshot = store.Read();
  const auto allowed =
      snapshot ? cluster::MayOpenConsole(**snapshot, call.caller.user, guest_id) : Result<bool>(snapshot.error());
  return allowed && *allowed;
}

// The guest whose console the caller may use. Not set: the call has been answered.
std::optional<std::string> ReadGuest(const store::Store& store, const Call& call) {
  const auto guest_id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) {
    Fail(call, user_error::kBadParameter);
    return std::nullopt;
  }
  const std::string id = NormalizeUuid(guest_id.Get());
  if (MayOpen(store, call, id)) return id;
  Fail(call, user_error::kNotPermitted, "The console of this guest was not granted to you.");
  return std::nullopt;
}

// The host that runs the guest. Not set: the call has been answered.
std::optional<std::string> FindHost(const store::Store& store, const Call& call, const std::string& guest_id) {
  const auto run = records::ReadRun(store, guest_id);
  if (run && *run && !(*run)->run.host_id.empty()) return (*run)->run.host_id;
  std::string name;
  if (!run) {
    Fail(call, user_error::kUnavailable, "The cluster database cannot be read.");
  } else if (VexaVirtualization::GetGuestNameById(guest_id, name)) {
    Fail(call, user_error::kNotRunning, "No host runs the guest.");
  } else {
    Fail(call, user_error::kNotFoundOrUnreadable, "The guest does not exist.");
  }
  return std::nullopt;
}

VexaDRCore::Request HostRequest(const char* method, const std::string& guest_id) {
  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Guest");
  request.setMethod(method);
  request.setVersion(1);
  request.addParam("guest_id", guest_id);
  request.setTimeout(kTimeoutS);
  return request;
}

std::string NameOf(const std::string& guest_id) {
  std::string name;
  return VexaVirtualization::GetGuestNameById(guest_id, name) && !name.empty() ? name : guest_id;
}

void IssueTicket(const store::Store& store, session::ConsoleTickets& tickets, const Call& call) {
  const auto type = call.request->GetAndCheckString(
      "type", kRequired, [](const std::string& text) { return text == kScreenType || text == kSerialType; });
  if (type.IsInvalid()) return Fail(call, user_error::kBadParameter, "Use \"vnc\" or \"serial\" as type.");
  const auto guest_id = ReadGuest(store, call);
  if (!guest_id) return;
  // Without a session, callers are known by the id of their process's user.
  const accounts::User& user = call.caller.user;
  const bool has_session = !call.caller.session_token.empty();
  const auto ticket = tickets.Issue({{has_session ? user.name : "", user.uid, has_session ? user.stamp : ""},
                                     call.caller.session_token,
                                     *guest_id,
                                     type.Get()});
  if (!ticket) return Fail(call, user_error::kHostBusy, ticket.error().ToString() + ".");
  Json::Value data(Json::objectValue);
  data["ticket"] = *ticket;
  data["expires_in_s"] = static_cast<Json::Int64>(session::ConsoleTickets::kLifetime.count());
  data["path"] = fmt::format("{}{}?type={}&ticket={}", kConsolePath, *guest_id, type.Get(), *ticket);
  call.response->SetSuccess(data);
}

void TakeScreenshot(const store::Store& store, const Call& call) {
  const auto guest_id = ReadGuest(store, call);
  if (!guest_id) return;
  const auto host_id = FindHost(store, call, *guest_id);
  if (!host_id) return;
  const VexaDRCore::Response reply = VexaCCC::Sender(*host_id).process(HostRequest("screenshot", *guest_id));
  const std::string name = NameOf(*guest_id);
  LogOutcome(call, reply.isSuccess() ? Outcome::kDone : Outcome::kFailed,
             fmt::format("A picture of the screen of the virtual machine [{}] has been taken.", name),
             fmt::format("Failed to take a picture of the screen of the virtual machine [{}].", name));
  if (!reply.isSuccess()) return Fail(call, ConsoleCodeForUser(reply.getErrCode()));
  Json::Value data(Json::objectValue);
  data["png"] = json::StringMember(reply.getData(), "png");
  call.response->SetSuccess(data);
}

struct Failure {
  int code;
  std::string reason;
};

// Has the host type the beginning of `text`. Returns how many characters it typed, at least one.
std::variant<std::size_t, Failure> TypeBeginning(bool is_administrator, const std::string& host_id,
                                                 const std::string& guest_id, const std::string& text) {
  VexaDRCore::Request request = HostRequest("type", guest_id);
  request.addParam("text", text);
  const VexaDRCore::Response reply = VexaCCC::Sender(host_id).process(request);
  if (!reply.isSuccess()) {
    return Failure{ConsoleCodeForUser(reply.getErrCode()),
                   ReasonOfHost(is_administrator, reply.getErrCode(), json::String(reply.getErrMsg()))};
  }
  const Json::Int64 typed = json::Int64(json::Member(reply.getData(), "typed"));
  if (typed < 1) return Failure{user_error::kActionFailed, "The guest's host typed no character"};
  return std::min(static_cast<std::size_t>(typed), text.size());
}

// The text may be a password, so it is in no log. In pieces: typing all of it takes longer than a stop may.
void TypeText(const store::Store& store, const std::function<bool()>& is_stopping, const Call& call) {
  const auto text = call.request->GetAndCheckString("text", kRequired, VexaCCC::Utils::IsNotEmpty);
  if (text.IsInvalid()) return Fail(call, user_error::kBadParameter);
  if (const auto presses = KeyPressesOf(text.Get()); !presses) {
    return Fail(call, user_error::kBadParameter, presses.error().ToString() + ".");
  }
  const auto guest_id = ReadGuest(store, call);
  if (!guest_id) return;
  const auto host_id = FindHost(store, call, *guest_id);
  if (!host_id) return;
  std::size_t typed = 0;
  std::optional<Failure> failure;
  while (!failure && typed < text.Get().size()) {
    if (is_stopping()) {
      failure = Failure{user_error::kUnavailable, "This host is stopping"};
      break;
    }
    // It may have been revoked meanwhile.
    if (typed > 0 && !MayOpen(store, call, *guest_id)) {
      failure = Failure{user_error::kNotPermitted, "The console of this guest is no longer granted to you"};
      break;
    }
    const auto step = TypeBeginning(call.request->IsAdmin(), *host_id, *guest_id, text.Get().substr(typed));
    if (const auto* count = std::get_if<std::size_t>(&step)) {
      typed += *count;
    } else {
      failure = std::get<Failure>(step);
    }
  }
  const std::string name = NameOf(*guest_id);
  LogOutcome(call, failure ? Outcome::kFailed : Outcome::kDone,
             fmt::format("A text has been typed on the keyboard of the virtual machine [{}].", name),
             fmt::format("Failed to type a text on the keyboard of the virtual machine [{}].", name));
  if (!failure) return call.response->SetSuccess(Json::Value());
  Fail(call, failure->code);
  std::string reason = failure->reason;
  if (typed > 0) {
    if (!reason.empty() && !reason.ends_with('.')) reason += '.';
    reason +=
        fmt::format("{}Typed the first {} of {} characters.", reason.empty() ? "" : " ", typed, text.Get().size());
  }
  if (!reason.empty()) SetReason(call, reason);
}

}  // namespace

std::vector<ApiRow> ConsoleRows(const std::shared_ptr<store::Store>& store, session::ConsoleTickets* tickets,
                                const std::function<bool()>& is_stopping) {
  using namespace user_error;
  constexpr std::string_view kApi = "VEXA.Virtualization.Guest";
  const Parameter guest = Text("guest_id", "The guest's id, a UUID.");
  const std::vector<int> codes{kBadParameter, kNotFoundOrUnreadable, kNotPermitted, kActionFailed, kNotRunning,
                               kGuestBusy,    kUnavailable,          kUnreachable};
  return {
      UserRow(
          kApi, "console_ticket", LaneKind::kQuick,
          [store, tickets](const Call& call) { IssueTicket(*store, *tickets, call); },
          "A ticket for the console of a guest: good once, for 30 s, at this host. For administrators, and users to "
          "whom the guest was granted with its console. \"path\" is where to open a WebSocket.",
          {guest, Text("type", "\"vnc\", the screen, or \"serial\", the serial line.")},
          {kBadParameter, kNotPermitted, kHostBusy}),
      UserRow(kApi, "screenshot", LaneKind::kLong,
              WithGoneHostReason([store](const Call& call) { TakeScreenshot(*store, call); }, NeededHost::kHolder),
              "A picture of the screen of a running guest: \"png\", in base64. For those who may open its console.",
              {guest}, codes),
      UserRow(kApi, "type", LaneKind::kLong,
              WithGoneHostReason([store, is_stopping](const Call& call) { TypeText(*store, is_stopping, call); },
                                 NeededHost::kHolder),
              "Type a text on the keyboard of a running guest, as on a US keyboard; returns when it has been typed, "
              "some 25 "
              "characters per second. After a failure, \"reason\" says how many were typed. For those who may open its "
              "console.",
              {guest, Text("text", "1 to 1024 characters that a US keyboard has; a line feed is Enter, a tab is Tab.")},
              codes),
  };
}

}  // namespace vexa::api
