#include "host/api/dispatcher.h"

#include <strings.h>
#include <syslog.h>

#include <algorithm>
#include <charconv>
#include <exception>
#include <iterator>
#include <utility>

#include "host/api/handler_call.h"
#include "host/api/openapi.h"
#include "host/api/request_id.h"
#include "host/base/error_table.h"
#include "host/base/json_parse.h"
#include "host/transport/origin.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

constexpr std::string_view kApiPrefix = "/webapi/";
constexpr std::string_view kVersionQuery = "version=";
// Reserved for a reply before its size is known.
constexpr std::size_t kTypicalReplyBytes = 2048;
// The limit for unauthenticated callers: a parsed body takes up to forty times its length in memory.
constexpr std::size_t kUnauthenticatedBodyBytes = std::size_t{16} * 1024;
// How many requests of methods with longer bodies may be in progress: the bodies are in memory before it is known
// whether their callers are administrators.
constexpr int kMaxLongBodies = 16;

using Clock = std::chrono::steady_clock;

http::HttpResponse MakeErrorReply(int code, const std::string& request_id) {
  return api::MakeErrorReply(code, Json::Value(), request_id);
}

http::HttpResponse MakeReply(const VEXA::APIResponse& response, const Json::Value& extra_members,
                             const std::string& request_id, Audience audience = Audience::kUsers) {
  http::HttpResponse reply;
  if (response.IsSuccess() && extra_members.empty()) {  // without copying the data
    reply.body.reserve(kTypicalReplyBytes);
    reply.body += "{\"success\":true,\"data\":";
    json::AppendText(reply.body, response.Data());
    reply.body.append(",\"request_id\":\"").append(request_id).append("\"}");
    return reply;
  }
  Json::Value body = MakeEnvelope(response, extra_members, audience);
  body["request_id"] = request_id;
  reply.body = json::ToText(body);
  if (response.IsSuccess()) return reply;
  const ErrorRow* row = FindError(response.ErrorCode(), audience);
  if (!row) row = FindError(user_error::kInternal);
  reply.status = row->http_status;
  if (response.ErrorCode() == user_error::kHostBusy) reply.headers.emplace_back("Retry-After", "1");
  if (row->http_status == 401) reply.headers.emplace_back("WWW-Authenticate", "Bearer");
  return reply;
}

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

// The name under which a lane's quota counts the call.
std::string QuotaName(const Caller& caller) {
  switch (caller.kind) {
    case Caller::Kind::kUser:
      return caller.user.name.empty() ? caller.peer : "user:" + caller.user.name;
    case Caller::Kind::kHost:
      return "host:" + caller.host_id;
    case Caller::Kind::kAnonymous:
      return "peer:" + caller.peer;
  }
  return {};
}

}  // namespace

http::HttpResponse MakeErrorReply(int code, const Json::Value& details, const std::string& request_id) {
  VEXA::APIResponse response;
  response.SetError(code, details);
  return MakeReply(response, Json::Value(), request_id);
}

// What OnHeader determined about a request.
struct Dispatcher::Plan {
  enum class Page { kApi, kHealth, kMetrics, kDescription };
  Page page = Page::kApi;
  const ApiRow* row = nullptr;
  Caller caller;
  std::shared_ptr<void> long_body_slot;  // for a method that allows long bodies
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
  bool is_accepted = false;  // the caller may call the method
};

Dispatcher::Dispatcher(Parts parts)
    : parts_(std::move(parts)), description_(std::make_shared<const std::string>(MakeOpenApi(*parts_.table))) {}

std::optional<http::HttpResponse> Dispatcher::OnHeader(http::HttpRequest& request) {
  const std::string_view target = request.target;
  const std::size_t question = target.find('?');
  const std::string_view path = target.substr(0, question);
  const std::string_view query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
  const auto refuse = [&](int code) { return MakeErrorReply(code, request.id); };

  request.body_limit = kDefaultBodyBytes;
  if (path.starts_with(kApiPrefix)) return PlanMethodCall(path, query, request);
  auto plan = std::make_shared<Plan>();
  if (path == "/healthz") {
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
    return MakeErrorReply(code, request.id);
  };
  if (!row) return refuse(user_error::kUnknownApi);
  if (request.method != "POST") {
    http::HttpResponse response = refuse(user_error::kHttpMethodNotAllowed);
    response.headers.emplace_back("Allow", "POST");
    return response;
  }
  if (!IsJsonContentType(request.content_type)) return refuse(user_error::kNotJson);
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
  if (const int code = CheckCaller(row->access.value, plan->caller)) return refuse(code);
  if (row->body_bytes > kDefaultBodyBytes && !(plan->long_body_slot = TakeLongBodySlot(long_body_requests_))) {
    return refuse(user_error::kHostBusy);
  }
  request.body_limit = plan->caller.kind == Caller::Kind::kAnonymous ? kUnauthenticatedBodyBytes : row->body_bytes;
  request.context = std::move(plan);
  return std::nullopt;
}

void Dispatcher::OnRequest(http::HttpRequest&& request, http::Responder responder) {
  auto plan = std::static_pointer_cast<Plan>(std::move(request.context));
  const ApiRow* row = plan->row;
  auto work = std::make_shared<Work>(Work{std::move(request), std::move(plan), std::move(responder), false});
  if (!row && !NeedsUser(*work)) return work->responder.Send(MakePage(*work));
  Lane& lane = row && row->lane.value == LaneKind::kLong ? *parts_.long_running : *parts_.quick;
  const Lane::SubmitResult submitted = lane.Submit(QuotaName(work->plan->caller), [this, work] {
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
  work->responder.Send(MakeErrorReply(user_error::kHostBusy, work->request.id));
}

void Dispatcher::Run(Work& work) const {
  if (work.plan->row) return RunMethod(work);
  const int code = CheckAdministrator(work.request);
  work.responder.Send(code == 0 ? MakePage(work) : MakeErrorReply(code, work.request.id));
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
  if (const int code = parts_.identity->LookUpUser(caller)) return code;
  return CheckUser(Access::kAdministrator, caller);
}

http::HttpResponse Dispatcher::MakePage(const Work& work) const {
  http::HttpResponse response;
  switch (work.plan->page) {
    case Plan::Page::kHealth: {
      const std::string problem = parts_.health();
      Json::Value body(Json::objectValue);
      body["status"] = problem.empty() ? "ok" : problem;
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
      break;
  }
  return response;
}

void Dispatcher::RunMethod(Work& work) const {
  std::vector<std::pair<std::string, std::string>> headers;
  VEXA::APIResponse response;
  Json::Value extra_members(Json::objectValue);
  CallMethod(work, response, headers, extra_members);
  ExplainDatabaseLoss(*work.plan->row, response);
  http::HttpResponse reply =
      MakeReply(response, extra_members, work.request.id, AudienceOf(work.plan->row->access.value));
  for (auto& header : headers) reply.headers.push_back(std::move(header));
  reply.owner = OwnerAfter(work, response.ErrorCode());
  parts_.metrics->Count(*work.plan->row, response.ErrorCode(), Clock::now() - work.plan->started);
  work.responder.Send(std::move(reply));
}

// Whom the connection counts for after the call. A certificate or a token alone is not enough: only a call that was
// accepted makes the connection a host's or a user's. Calls that anybody may make change nothing.
std::optional<http::Owner> Dispatcher::OwnerAfter(const Work& work, int code) const {
  const Caller& caller = work.plan->caller;
  if (code == user_error::kNotLoggedIn || !parts_.identity->IsLoggedIn(caller.session_token)) return http::Owner();
  if (!work.is_accepted || work.plan->row->access.value == Access::kAnyone) return std::nullopt;
  if (caller.kind == Caller::Kind::kHost) return http::Owner{http::Owner::Kind::kHost, caller.host_id, {}};
  return http::Owner{
      http::Owner::Kind::kUser, caller.user.name,
      [identity = parts_.identity, token = caller.session_token] { return identity->IsLoggedIn(token); }};
}

// While the cluster database is lost, adds that to an error without details: its code reports what could not be done,
// but not that the database is the cause.
void Dispatcher::ExplainDatabaseLoss(const ApiRow& row, VEXA::APIResponse& response) const {
  constexpr int kRequestErrors[] = {user_error::kBadParameter, user_error::kNotPermitted, user_error::kUnknownApi};
  const int code = response.ErrorCode();
  if (response.IsSuccess() || !response.Data().isNull() || row.access.value == Access::kHost) return;
  if (code < user_error::kBadParameter || std::ranges::find(kRequestErrors, code) != std::end(kRequestErrors)) return;
  if (parts_.is_database_lost && parts_.is_database_lost()) response.SetError(code, kDatabaseLost);
}

void Dispatcher::CallMethod(Work& work, VEXA::APIResponse& response,
                            std::vector<std::pair<std::string, std::string>>& headers,
                            Json::Value& extra_members) const {
  Caller& caller = work.plan->caller;
  const ApiRow& row = *work.plan->row;
  int refusal = parts_.identity->LookUpUser(caller);
  if (refusal == 0) refusal = CheckUser(row.access.value, caller);
  if (refusal != 0) return response.SetError(refusal, Json::Value());
  work.is_accepted = true;
  SetActingUser(caller.kind == Caller::Kind::kHost ? caller.acts_for : caller.user.name);
  Result<Json::Value> parameters =
      work.request.body.empty() ? Result<Json::Value>(Json::Value(Json::objectValue)) : ParseJson(work.request.body);
  if (!parameters) return response.SetError(user_error::kMalformed, parameters.error().ToString());
  if (!parameters->isObject()) return response.SetError(user_error::kMalformed, "The body is not a JSON object");
  CallHandler({row, caller, std::move(*parameters)}, response, headers, extra_members);
}

}  // namespace vexa::api
