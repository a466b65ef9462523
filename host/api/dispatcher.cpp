#include "host/api/dispatcher.h"

#include <fmt/format.h>
#include <strings.h>
#include <syslog.h>

#include <algorithm>
#include <charconv>
#include <exception>
#include <iterator>
#include <utility>

#include "host/api/failure_reason.h"
#include "host/api/handler_call.h"
#include "host/api/http_reply.h"
#include "host/api/openapi.h"
#include "host/api/read_parameters.h"
#include "host/api/reason.h"
#include "host/api/request_id.h"
#include "host/api/start_page.h"
#include "host/base/error_table.h"
#include "host/base/peer_network.h"
#include "host/http/http_tunnel.h"
#include "host/records/request_scope.h"
#include "host/transport/origin.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

constexpr std::string_view kApiPrefix = "/webapi/";
constexpr std::string_view kVersionQuery = "version=";
// The limit for unauthenticated callers: they share an address, and need no more than a name and a password.
constexpr std::size_t kUnauthenticatedBodyBytes = std::size_t{16} * 1024;
// How many requests of methods with longer bodies may be in progress: the bodies are in memory before it is known
// whether their callers are administrators.
constexpr int kMaxLongBodies = 16;

using Clock = std::chrono::steady_clock;

// "application/json", with or without parameters (RFC 9110, section 8.3.1).
bool IsJsonContentType(std::string_view value) {
  constexpr std::string_view kJson = "application/json";
  if (value.size() < kJson.size() || ::strncasecmp(value.data(), kJson.data(), kJson.size()) != 0) return false;
  return value.size() == kJson.size() || value[kJson.size()] == ';' || value[kJson.size()] == ' ';
}

// The version in the query, 1 without a query, 0 when it cannot be parsed.
int VersionOf(std::string_view query) {
  if (query.empty()) return 1;
  if (!query.starts_with(kVersionQuery)) return 0;
  int version = 0;
  const char* const end = query.data() + query.size();
  const auto [stop, error] = std::from_chars(query.data() + kVersionQuery.size(), end, version);
  return error == std::errc() && stop == end && version > 0 ? version : 0;
}

// Copies the request id, and the user on whose behalf another host calls. For requests of hosts only; otherwise a user
// could pose as another one.
void ReadOrigin(http::HttpRequest& request, Caller& caller) {
  caller.acts_for = transport::ActingUserOf(request.acts_for);
  if (transport::IsRequestId(request.caller_request_id)) request.id = request.caller_request_id;
}

// Whether nothing that the caller has presented gives it any rights, as far as is known before its body is read.
bool IsStranger(const Caller& caller) {
  return caller.kind == Caller::Kind::kAnonymous || (caller.kind == Caller::Kind::kHost && !caller.is_known_host);
}

// Who is counted for the call. Users by id: the caller on a Unix socket has no name yet. A host may name any user for
// whom it asks, so its calls count together as well. A certificate of no member counts as its address.
JobOwner OwnerOf(const Caller& caller) {
  switch (caller.kind) {
    case Caller::Kind::kUser:
      return {fmt::format("uid:{}", caller.user.uid)};
    case Caller::Kind::kHost:
      if (caller.is_known_host) return {fmt::format("host:{}/{}", caller.host_id, caller.acts_for), caller.host_id};
      [[fallthrough]];
    case Caller::Kind::kAnonymous:
      return {"peer:" + PeerNetwork(caller.peer)};
  }
  return {};
}

// The most that the request's body will have.
std::size_t ExpectedBytes(const http::HttpRequest& request) {
  return std::min(request.announced_body_bytes, request.body_limit);
}

}  // namespace

namespace {

using ConsoleCaller = Metrics::ConsoleCaller;

ConsoleCaller ConsoleCallerOf(const Caller& caller) {
  return caller.kind == Caller::Kind::kHost ? ConsoleCaller::kHost : ConsoleCaller::kUser;
}

http::HttpResponse MakeConsoleRefusal(const ConsoleRefusal& refusal, const std::string& request_id, Audience audience) {
  VEXA::APIResponse response;
  response.SetError(refusal.code, Json::Value());
  Json::Value more(Json::objectValue);
  if (!refusal.reason.empty()) more[kReason] = refusal.reason;
  http::HttpResponse reply = MakeReply(response, more, request_id, audience);
  if (refusal.code == user_error::kHttpMethodNotAllowed) reply.headers.emplace_back("Allow", "GET");
  return reply;
}

}  // namespace

// What OnHeader determined about a request.
struct Dispatcher::Plan {
  enum class Page { kApi, kStart, kHealth, kMetrics, kDescription, kConsole, kUpload };
  Page page = Page::kApi;
  const ApiRow* row = nullptr;
  Caller caller;
  ConsoleTarget console;                 // kConsole only
  UploadPieceTarget piece;               // kUpload only
  std::shared_ptr<void> long_body_slot;  // for a method that allows long bodies
  std::unique_ptr<BodyQuota::Share> body_share;
  Clock::time_point started = Clock::now();
};

namespace {

// A slot for a request with a long body, occupied until the last copy is destroyed. Null when all are occupied.
std::shared_ptr<void> TakeLongBodySlot(const std::shared_ptr<std::atomic<int>>& taken) {
  if (taken->fetch_add(1) >= kMaxLongBodies) {
    taken->fetch_sub(1);
    return nullptr;
  }
  return {taken.get(), [taken](void*) { taken->fetch_sub(1); }};
}

}  // namespace

struct Dispatcher::Work {
  http::HttpRequest request;
  std::shared_ptr<Plan> plan;
  http::Responder responder;
  bool closes_connection = false;  // after the response
  bool is_accepted = false;        // the caller may call the method
};

Dispatcher::Dispatcher(Parts parts)
    : parts_(std::move(parts)), description_(std::make_shared<const std::string>(MakeOpenApi(*parts_.table))) {}

std::optional<http::HttpResponse> Dispatcher::OnHeader(http::HttpRequest& request) {
  // Of hosts, nothing comes from a browser.
  if (!request.peer.is_certified && parts_.allowed_origins.IsPreflight(request)) {
    return parts_.allowed_origins.AnswerPreflight(request);
  }
  std::optional<http::HttpResponse> refusal = PlanRequest(request);
  if (refusal) parts_.allowed_origins.AddFields(request, *refusal);
  return refusal;
}

void Dispatcher::Send(const Work& work, http::HttpResponse response) const {
  parts_.allowed_origins.AddFields(work.request, response);
  work.responder.Send(std::move(response));
}

std::optional<http::HttpResponse> Dispatcher::PlanRequest(http::HttpRequest& request) {
  const std::string_view target = request.target;
  const std::size_t question = target.find('?');
  const std::string_view path = target.substr(0, question);
  const std::string_view query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
  const auto refuse = [&](int code) { return MakeErrorReply(code, request.id); };

  if (path.starts_with(kApiPrefix)) return PlanMethodCall(path, query, request);
  request.body_limit = kUnauthenticatedBodyBytes;
  if (path.starts_with(kConsolePath) && parts_.open_console) return PlanConsoleRequest(request);
  if (path.starts_with(kUploadPath) && parts_.take_piece) return PlanPiece(request);
  if (request.peer.is_certified) return refuse(user_error::kNoSuchAddress);  // hosts call methods only
  auto plan = std::make_shared<Plan>();
  plan->caller = AnonymousCaller(request.peer);
  if (path == "/") {
    plan->page = Plan::Page::kStart;
  } else if (path == "/healthz") {
    plan->page = Plan::Page::kHealth;
  } else if (path == "/metrics") {
    plan->page = Plan::Page::kMetrics;
  } else if (path == "/openapi.json") {
    plan->page = Plan::Page::kDescription;
  } else {
    return refuse(user_error::kNoSuchAddress);
  }
  if (request.method != "GET" && request.method != "HEAD") {
    http::HttpResponse response = refuse(user_error::kHttpMethodNotAllowed);
    response.headers.emplace_back("Allow", "GET, HEAD");
    return response;
  }
  request.context = std::move(plan);
  return std::nullopt;
}

std::optional<http::HttpResponse> Dispatcher::PlanConsoleRequest(http::HttpRequest& request) {
  auto planned = PlanConsole(request, *parts_.identity, *parts_.tickets);
  if (const auto* refusal = std::get_if<ConsoleRefusal>(&planned)) {
    const bool is_host = request.peer.is_certified;
    parts_.metrics->CountConsoleRefusal(is_host ? ConsoleCaller::kHost : ConsoleCaller::kUser, refusal->code);
    return MakeConsoleRefusal(*refusal, request.id, Audience::kUsers);
  }
  auto plan = std::make_shared<Plan>();
  plan->page = Plan::Page::kConsole;
  plan->caller = std::move(std::get<ConsolePlan>(planned).caller);
  plan->console = std::move(std::get<ConsolePlan>(planned).target);
  if (plan->caller.kind == Caller::Kind::kHost) ReadOrigin(request, plan->caller);
  request.context = std::move(plan);
  return std::nullopt;
}

std::optional<http::HttpResponse> Dispatcher::PlanPiece(http::HttpRequest& request) {
  auto planned = PlanUpload(request, *parts_.identity);
  const auto refuse = [&](Refusal refusal) { return MakeUploadReply({std::move(refusal), {}}, request.id); };
  if (auto* refusal = std::get_if<Refusal>(&planned)) return refuse(std::move(*refusal));
  auto plan = std::make_shared<Plan>();
  plan->page = Plan::Page::kUpload;
  plan->caller = std::move(std::get<UploadPlan>(planned).caller);
  plan->piece = std::move(std::get<UploadPlan>(planned).target);
  request.body_limit = plan->piece.length;
  plan->body_share = bodies_.Take(OwnerOf(plan->caller), plan->piece.length);
  if (!plan->body_share || !(plan->long_body_slot = TakeLongBodySlot(long_body_requests_))) {
    return refuse({user_error::kHostBusy, ""});
  }
  request.context = std::move(plan);
  return std::nullopt;
}

std::optional<http::HttpResponse> Dispatcher::PlanMethodCall(std::string_view path, std::string_view query,
                                                             http::HttpRequest& request) {
  const std::string_view rest = path.substr(kApiPrefix.size());
  const std::size_t slash = rest.find('/');
  const int version = VersionOf(query);
  const ApiRow* row = slash == std::string_view::npos || version == 0
                          ? nullptr
                          : parts_.table->Find(rest.substr(0, slash), rest.substr(slash + 1), version);
  const auto refuse = [&](int code) {
    if (row) parts_.metrics->Count(*row, code, {});
    http::HttpResponse reply = MakeErrorReply(code, request.id, ReasonOfCaller(code, request));
    reply.closes_connection =
        request.peer.is_certified && (code == user_error::kDenied || code == user_error::kNotLoggedIn);
    return reply;
  };
  if (!row) return refuse(user_error::kUnknownApi);
  if (request.method != "POST") {
    http::HttpResponse response = refuse(user_error::kHttpMethodNotAllowed);
    response.headers.emplace_back("Allow", "POST");
    return response;
  }
  // Without a body there is nothing that has a type.
  const bool has_body = request.announced_body_bytes > 0;
  if (has_body && !IsJsonContentType(request.content_type)) return refuse(user_error::kNotJson);
  auto plan = std::make_shared<Plan>();
  plan->row = row;
  IdentifyResult identified = parts_.identity->Identify(request);
  if (const int* code = std::get_if<int>(&identified)) {
    // A stale cookie must not prevent a login.
    if (row->access.value != Access::kAnyone) {
      http::HttpResponse response = refuse(*code);
      if (*code == user_error::kNotLoggedIn) response.owner = http::Owner();
      return response;
    }
    plan->caller = AnonymousCaller(request.peer);
  } else {
    plan->caller = std::move(std::get<Caller>(identified));
  }
  if (plan->caller.kind == Caller::Kind::kHost) ReadOrigin(request, plan->caller);
  if (request.peer.is_certified && row->access.value != Access::kHost) return refuse(user_error::kDenied);
  if (const int code = CheckCaller(row->access.value, plan->caller)) return refuse(code);
  // Also for callers with a session, or on the Unix socket: whether they have an account is found out later.
  const bool is_open = row->access.value == Access::kAnyone || IsStranger(plan->caller);
  request.body_limit = is_open ? std::min(kUnauthenticatedBodyBytes, row->body_bytes) : row->body_bytes;
  // Strangers are not charged for what they announce, or one of them could refuse the others of an address by headers
  // alone. The server bounds the bytes that have arrived from them.
  // Where long bodies are allowed, their places are few, so each caller has one, whatever the header announces.
  const bool is_long = row->body_bytes > kDefaultBodyBytes;
  const std::size_t charged = is_long ? row->body_bytes : ExpectedBytes(request);
  plan->body_share = bodies_.Take(OwnerOf(plan->caller), is_open ? 0 : charged);
  if (!plan->body_share) return refuse(user_error::kHostBusy);
  if (is_long && !(plan->long_body_slot = TakeLongBodySlot(long_body_requests_))) {
    return refuse(user_error::kHostBusy);
  }
  request.context = std::move(plan);
  return std::nullopt;
}

void Dispatcher::OnRequest(http::HttpRequest&& request, http::Responder responder) {
  auto plan = std::static_pointer_cast<Plan>(std::move(request.context));
  const ApiRow* row = plan->row;
  auto work = std::make_shared<Work>(Work{std::move(request), std::move(plan), std::move(responder)});
  const Plan::Page page = work->plan->page;
  const bool needs_lane =
      row || page == Plan::Page::kMetrics || page == Plan::Page::kConsole || page == Plan::Page::kUpload;
  if (!needs_lane) return Send(*work, MakePage(*work));
  if (work->plan->body_share) (void)work->plan->body_share->Resize(work->request.body.size());
  const Lane::SubmitResult submitted = LaneFor(*work->plan).Submit(OwnerOf(work->plan->caller), [this, work] {
    const RequestIdScope id_scope(work->request.id);
    try {
      Run(*work);
    } catch (const std::exception& exception) {
      // Usually out of memory. The responder then answers 500, and the host continues.
      ::syslog(LOG_ERR, "The request failed: %s", exception.what());
    }
  });
  if (submitted == Lane::SubmitResult::kAccepted) return;
  if (row) parts_.metrics->Count(*row, user_error::kHostBusy, Clock::now() - work->plan->started);
  if (work->plan->page == Plan::Page::kConsole) {
    parts_.metrics->CountConsoleRefusal(ConsoleCallerOf(work->plan->caller), user_error::kHostBusy);
  }
  Send(*work, MakeErrorReply(user_error::kHostBusy, work->request.id));
}

Lane& Dispatcher::LaneFor(const Plan& plan) const {
  const bool is_long = plan.page == Plan::Page::kConsole || plan.page == Plan::Page::kUpload ||
                       (plan.row && plan.row->lane.value == LaneKind::kLong);
  if (plan.caller.kind == Caller::Kind::kHost) return is_long ? *parts_.hosts : *parts_.quick_hosts;
  return is_long ? *parts_.long_running : *parts_.quick;
}

void Dispatcher::Run(Work& work) const {
  if (work.plan->row) return RunMethod(work);
  if (work.plan->page == Plan::Page::kConsole) return Send(work, OpenConsole(work));
  if (work.plan->page == Plan::Page::kUpload) {
    http::HttpResponse reply = MakeUploadReply(TakePiece(work), work.request.id);
    if (work.is_accepted) reply.owner = OwnerFor(work.plan->caller);
    // Before the caller can send the next piece.
    work.request.body = {};
    work.plan->body_share.reset();
    work.plan->long_body_slot.reset();
    return Send(work, std::move(reply));
  }
  const int code = NeedsUser(work) ? CheckAdministrator(work.request) : 0;
  Send(work, code == 0 ? MakePage(work) : MakeErrorReply(code, work.request.id, ReasonOfCaller(code, work.request)));
}

// Metrics reveal how the host is used, so callers on other machines must prove that they are administrators.
bool Dispatcher::NeedsUser(const Work& work) {
  const http::Peer& peer = work.request.peer;
  return work.plan->page == Plan::Page::kMetrics && peer.kind == http::Peer::Kind::kTcp &&
         !peer.address.starts_with("127.") && peer.address != "::1";
}

int Dispatcher::CheckAdministrator(const http::HttpRequest& request) const {
  IdentifyResult identified = parts_.identity->Identify(request);
  if (const int* code = std::get_if<int>(&identified)) return *code;
  Caller& caller = std::get<Caller>(identified);
  if (const int code = CheckCaller(Access::kAdministrator, caller)) return code;
  if (const int code = parts_.identity->LookUpCaller(caller)) return code;
  return CheckUser(Access::kAdministrator, caller);
}

http::HttpResponse Dispatcher::MakePage(const Work& work) const {
  http::HttpResponse response;
  switch (work.plan->page) {
    case Plan::Page::kStart:
      return MakeStartPage(work.request.accept);
    case Plan::Page::kHealth: {
      const std::string problem = parts_.health();
      Json::Value body(Json::objectValue);
      body["status"] = problem.empty() ? "ok" : problem;
      if (parts_.is_simulated) body["simulated"] = true;
      response.status = problem.empty() ? 200 : 503;
      response.body = json::ToText(body);
      break;
    }
    case Plan::Page::kMetrics:
      response.content_type = "text/plain; version=0.0.4; charset=utf-8";
      response.body = parts_.metrics_text();
      break;
    case Plan::Page::kDescription:
      response.shared_body = description_;
      break;
    case Plan::Page::kApi:
    case Plan::Page::kConsole:
    case Plan::Page::kUpload:
      break;
  }
  return response;
}

void Dispatcher::RunMethod(Work& work) const {
  std::vector<std::pair<std::string, std::string>> headers;
  VEXA::APIResponse response;
  Json::Value extra_members(Json::objectValue);
  CallMethod(work, response, headers, extra_members);
  ExplainDatabaseLoss(*work.plan->row, response, extra_members);
  http::HttpResponse reply =
      MakeReply(response, extra_members, work.request.id, AudienceOf(work.plan->row->access.value));
  for (auto& header : headers) reply.headers.push_back(std::move(header));
  reply.closes_connection = work.closes_connection;
  reply.owner = OwnerAfter(work, response.ErrorCode());
  // Before the caller can send the next request, which may need the room.
  work.plan->body_share.reset();
  work.plan->long_body_slot.reset();
  parts_.metrics->Count(*work.plan->row, response.ErrorCode(), Clock::now() - work.plan->started);
  Send(work, std::move(reply));
}

http::HttpResponse Dispatcher::OpenConsole(Work& work) const {
  Caller& caller = work.plan->caller;
  const bool is_host = caller.kind == Caller::Kind::kHost;
  const Audience audience = is_host ? Audience::kHosts : Audience::kUsers;
  if (const int code = parts_.identity->LookUpCaller(caller)) {
    parts_.metrics->CountConsoleRefusal(ConsoleCallerOf(caller), code);
    http::HttpResponse reply =
        MakeConsoleRefusal({code, ReasonOfCaller(code, work.request, &caller)}, work.request.id, Audience::kUsers);
    reply.closes_connection = is_host;
    return reply;
  }
  SetActingUser(is_host ? caller.acts_for : caller.user.name);
  const records::RequestScope scope;
  auto opened = parts_.open_console({work.plan->console, caller});
  if (const auto* refusal = std::get_if<ConsoleRefusal>(&opened)) {
    parts_.metrics->CountConsoleRefusal(ConsoleCallerOf(caller), refusal->code);
    return MakeConsoleRefusal(*refusal, work.request.id, audience);
  }
  http::HttpResponse reply;
  reply.tunnel = std::move(std::get<std::shared_ptr<http::Tunnel>>(opened));
  reply.owner = is_host ? http::Owner{http::Owner::Kind::kHost, caller.host_id, {}}
                        : http::Owner{http::Owner::Kind::kUser, caller.user.name, {}};
  return reply;
}

// Whom the connection counts for after the call. A certificate or a token alone is not enough: only a call that was
// accepted makes the connection a host's or a user's. Calls that anybody may make change nothing.
std::optional<http::Owner> Dispatcher::OwnerAfter(const Work& work, int code) const {
  const Caller& caller = work.plan->caller;
  if (code == user_error::kNotLoggedIn || !parts_.identity->IsLoggedIn(caller.session_token)) return http::Owner();
  if (!work.is_accepted || work.plan->row->access.value == Access::kAnyone) return std::nullopt;
  if (caller.kind == Caller::Kind::kHost) return http::Owner{http::Owner::Kind::kHost, caller.host_id, {}};
  return OwnerFor(caller);
}

http::Owner Dispatcher::OwnerFor(const Caller& user) const {
  return {http::Owner::Kind::kUser, user.user.name,
          [identity = parts_.identity, token = user.session_token] { return identity->IsLoggedIn(token); }};
}

UploadAnswer Dispatcher::TakePiece(Work& work) const {
  Caller& caller = work.plan->caller;
  int code = parts_.identity->LookUpCaller(caller);
  if (code == 0) code = CheckUser(Access::kAdministrator, caller);
  if (code != 0) return {Refusal{code, ReasonOfCaller(code, work.request, &caller)}, std::nullopt};
  work.is_accepted = true;
  if (work.request.body.size() != work.plan->piece.length) {
    return {Refusal{user_error::kBadParameter, "The body does not have the length that Content-Range says"},
            std::nullopt};
  }
  SetActingUser(caller.user.name);
  const records::RequestScope scope;
  return parts_.take_piece(work.plan->piece, work.request.body);
}

// While the cluster database is lost, adds that to an error without details: its code reports what could not be done,
// but not that the database is the cause.
void Dispatcher::ExplainDatabaseLoss(const ApiRow& row, VEXA::APIResponse& response, Json::Value& extra_members) const {
  constexpr int kRequestErrors[] = {user_error::kBadParameter, user_error::kNotPermitted, user_error::kUnknownApi};
  const int code = response.ErrorCode();
  if (response.IsSuccess() || !response.Data().isNull() || row.access.value == Access::kHost) return;
  if (code < user_error::kBadParameter || std::ranges::find(kRequestErrors, code) != std::end(kRequestErrors)) return;
  if (!parts_.is_database_lost || !parts_.is_database_lost()) return;
  response.SetError(code, kDatabaseLost);
  extra_members[kReason] = kDatabaseLost;
}

void Dispatcher::CallMethod(Work& work, VEXA::APIResponse& response,
                            std::vector<std::pair<std::string, std::string>>& headers,
                            Json::Value& extra_members) const {
  Caller& caller = work.plan->caller;
  const ApiRow& row = *work.plan->row;
  int refusal = parts_.identity->LookUpCaller(caller);
  work.closes_connection = refusal != 0 && caller.kind == Caller::Kind::kHost;
  if (refusal != 0 && row.access.value == Access::kAnyone) {
    // An account that has no login here, or a session that has ended, must not prevent one.
    caller = AnonymousCaller(work.request.peer);
    refusal = 0;
  }
  if (refusal == 0) refusal = CheckUser(row.access.value, caller);
  if (refusal != 0) {
    extra_members[kReason] = ReasonOfCaller(refusal, work.request, &caller);
    return response.SetError(refusal, Json::Value());
  }
  work.is_accepted = true;
  SetActingUser(caller.kind == Caller::Kind::kHost ? caller.acts_for : caller.user.name);
  std::optional<Json::Value> parameters =
      ReadParameters(std::exchange(work.request.body, {}), row, *work.plan->body_share, response);
  if (!parameters) return;
  CallHandler({row, caller, std::move(*parameters)}, response, headers, extra_members);
}

}  // namespace vexa::api
