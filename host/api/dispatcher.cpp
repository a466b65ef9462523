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

namespace vexa::daemon {
namespace {

namespace json = VexaVirtualization::json;
using webapi::Access;
using webapi::Caller;

constexpr std::string_view kApiPrefix = "/webapi/";
constexpr std::string_view kVersionQuery = "version=";
// Reserved for a reply before its size is known.
constexpr std::size_t kTypicalReplyBytes = 2048;
// The limit for unauthenticated callers: a parsed body takes up to forty times its length, and no password has been
// checked yet.
constexpr std::size_t kUnauthenticatedBodyBytes = std::size_t{16} * 1024;
// Of methods that allow longer bodies than others, so many requests at a time: they are in memory before it is known
// whether their callers are administrators.
constexpr int kMostLongBodies = 16;

using Clock = std::chrono::steady_clock;

HttpResponse MakeErrorReply(int code, const std::string& request_id) {
  return daemon::MakeErrorReply(code, Json::Value(), request_id);
}

HttpResponse MakeReply(const VEXA::APIResponse& response, const Json::Value& further, const std::string& request_id,
                       webapi::Audience audience = webapi::Audience::kUsers) {
  HttpResponse reply;
  if (response.IsSuccess() && further.empty()) {  // without copying the data
    reply.body.reserve(kTypicalReplyBytes);
    reply.body += "{\"success\":true,\"data\":";
    json::AppendText(reply.body, response.Data());
    reply.body.append(",\"request_id\":\"").append(request_id).append("\"}");
    return reply;
  }
  Json::Value body = MakeEnvelope(response, further, audience);
  body["request_id"] = request_id;
  reply.body = json::ToText(body);
  if (response.IsSuccess()) return reply;
  const webapi::ErrorRow* row = webapi::FindError(response.ErrorCode(), audience);
  if (!row) row = webapi::FindError(webapi::kErrorInternal);
  reply.status = row->http_status;
  if (response.ErrorCode() == webapi::kErrorBusy) reply.headers.emplace_back("Retry-After", "1");
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

// What another host says about the request that its own is part of. Accepted from hosts only, or a user could pose as
// another.
void TakeOrigin(HttpRequest& request, Caller& caller) {
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
    case Caller::Kind::kNobody:
      return "peer:" + caller.peer;
  }
  return {};
}

}  // namespace

HttpResponse MakeErrorReply(int code, const Json::Value& details, const std::string& request_id) {
  VEXA::APIResponse response;
  response.SetError(code, details);
  return MakeReply(response, Json::Value(), request_id);
}

// What OnHeader determined about a request.
struct Dispatcher::Plan {
  enum class Page { kApi, kHealth, kMetrics, kDescription };
  Page page = Page::kApi;
  const webapi::ApiRow* row = nullptr;
  Caller caller;
  std::shared_ptr<void> place;  // of a method that allows long bodies
  Clock::time_point begun = Clock::now();
};

namespace {

// A place for a request with a long body, until the last copy is destroyed. Null when all are taken.
std::shared_ptr<void> TakePlace(const std::shared_ptr<std::atomic<int>>& taken) {
  if (taken->fetch_add(1) >= kMostLongBodies) {
    taken->fetch_sub(1);
    return nullptr;
  }
  return {taken.get(), [taken](void*) { taken->fetch_sub(1); }};
}

}  // namespace

struct Dispatcher::Work {
  HttpRequest request;
  std::shared_ptr<Plan> plan;
  Responder responder;
};

Dispatcher::Dispatcher(Parts parts) : parts_(std::move(parts)), description_(MakeOpenApi(*parts_.table)) {}

std::optional<HttpResponse> Dispatcher::OnHeader(HttpRequest& request) {
  const std::string_view target = request.target;
  const std::size_t question = target.find('?');
  const std::string_view path = target.substr(0, question);
  const std::string_view query = question == std::string_view::npos ? std::string_view() : target.substr(question + 1);
  const auto refuse = [&](int code) { return MakeErrorReply(code, request.id); };

  request.body_limit = webapi::kBodyBytes;
  if (path.starts_with(kApiPrefix)) return PlanApi(path, query, request);
  auto plan = std::make_shared<Plan>();
  if (path == "/healthz") {
    plan->page = Plan::Page::kHealth;
  } else if (path == "/metrics") {
    plan->page = Plan::Page::kMetrics;
  } else if (path == "/openapi.json") {
    plan->page = Plan::Page::kDescription;
  } else {
    return refuse(webapi::kErrorNotFound);
  }
  if (request.method != "GET" && request.method != "HEAD") {
    HttpResponse response = refuse(webapi::kErrorMethodNotAllowed);
    response.headers.emplace_back("Allow", "GET, HEAD");
    return response;
  }
  request.context = std::move(plan);
  return std::nullopt;
}

std::optional<HttpResponse> Dispatcher::PlanApi(std::string_view path, std::string_view query, HttpRequest& request) {
  const std::string_view rest = path.substr(kApiPrefix.size());
  const std::size_t slash = rest.find('/');
  const int version = VersionOf(query);
  const webapi::ApiRow* row = slash == std::string_view::npos || version == 0
                                  ? nullptr
                                  : parts_.table->Find(rest.substr(0, slash), rest.substr(slash + 1), version);
  const auto refuse = [&](int code) {
    if (row) parts_.metrics->Count(*row, code, {});
    return MakeErrorReply(code, request.id);
  };
  if (!row) return refuse(webapi::kErrorUnknownApi);
  if (request.method != "POST") {
    HttpResponse response = refuse(webapi::kErrorMethodNotAllowed);
    response.headers.emplace_back("Allow", "POST");
    return response;
  }
  if (!IsJsonContentType(request.content_type)) return refuse(webapi::kErrorNotJson);
  auto plan = std::make_shared<Plan>();
  plan->row = row;
  Identified identified = parts_.identity->Begin(request);
  if (const int* code = std::get_if<int>(&identified)) {
    // A stale cookie must not prevent a login.
    if (row->access.value != Access::kAnyone) return refuse(*code);
    plan->caller = Nobody(request.peer);
  } else {
    plan->caller = std::move(std::get<Caller>(identified));
  }
  if (plan->caller.kind == Caller::Kind::kHost) TakeOrigin(request, plan->caller);
  if (const int code = CheckCaller(row->access.value, plan->caller)) return refuse(code);
  if (row->body_bytes > webapi::kBodyBytes && !(plan->place = TakePlace(long_bodies_))) {
    return refuse(webapi::kErrorBusy);
  }
  request.body_limit = plan->caller.kind == Caller::Kind::kNobody ? kUnauthenticatedBodyBytes : row->body_bytes;
  request.context = std::move(plan);
  return std::nullopt;
}

void Dispatcher::OnRequest(HttpRequest&& request, Responder responder) {
  auto plan = std::static_pointer_cast<Plan>(std::move(request.context));
  const webapi::ApiRow* row = plan->row;
  auto work = std::make_shared<Work>(Work{std::move(request), std::move(plan), std::move(responder)});
  if (!row && !NeedsUser(*work)) return work->responder.Send(AnswerPage(*work));
  Lane& lane = row && row->lane.value == webapi::LaneKind::kLong ? *parts_.long_running : *parts_.quick;
  const Lane::Submitted submitted = lane.Submit(QuotaName(work->plan->caller), [this, work] {
    const RequestIdScope id_scope(work->request.id);
    try {
      Run(*work);
    } catch (const std::exception& exception) {
      // Usually out of memory. The responder then answers 500, and the host continues.
      ::syslog(LOG_ERR, "The request failed: %s", exception.what());
    }
  });
  if (submitted == Lane::Submitted::kAccepted) return;
  if (row) parts_.metrics->Count(*row, webapi::kErrorBusy, Clock::now() - work->plan->begun);
  work->responder.Send(MakeErrorReply(webapi::kErrorBusy, work->request.id));
}

void Dispatcher::Run(Work& work) const {
  if (work.plan->row) return RunMethod(work);
  const int code = CheckAdministrator(work.request);
  work.responder.Send(code == 0 ? AnswerPage(work) : MakeErrorReply(code, work.request.id));
}

// Call counts reveal something to outsiders: callers on other machines must prove that they are administrators.
bool Dispatcher::NeedsUser(const Work& work) {
  const Peer& peer = work.request.peer;
  return work.plan->page == Plan::Page::kMetrics && peer.kind == Peer::Kind::kTcp &&
         !peer.address.starts_with("127.") && peer.address != "::1";
}

int Dispatcher::CheckAdministrator(const HttpRequest& request) const {
  Identified identified = parts_.identity->Begin(request);
  if (const int* code = std::get_if<int>(&identified)) return *code;
  Caller& caller = std::get<Caller>(identified);
  if (const int code = CheckCaller(Access::kAdministrator, caller)) return code;
  if (const int code = parts_.identity->Complete(caller)) return code;
  return CheckUser(Access::kAdministrator, caller);
}

HttpResponse Dispatcher::AnswerPage(const Work& work) const {
  HttpResponse response;
  switch (work.plan->page) {
    case Plan::Page::kHealth: {
      const std::string fault = parts_.health();
      Json::Value body(Json::objectValue);
      body["status"] = fault.empty() ? "ok" : fault;
      response.status = fault.empty() ? 200 : 503;
      response.body = json::ToText(body);
      break;
    }
    case Plan::Page::kMetrics:
      response.content_type = "text/plain; version=0.0.4; charset=utf-8";
      response.body = parts_.metrics_text();
      break;
    case Plan::Page::kDescription:
      response.body = description_;
      break;
    case Plan::Page::kApi:
      break;
  }
  return response;
}

void Dispatcher::RunMethod(Work& work) const {
  std::vector<std::pair<std::string, std::string>> headers;
  VEXA::APIResponse response;
  Json::Value further(Json::objectValue);
  AnswerMethod(work, response, headers, further);
  ExplainFailure(*work.plan->row, response);
  HttpResponse reply = MakeReply(response, further, work.request.id, webapi::AudienceOf(work.plan->row->access.value));
  for (auto& header : headers) reply.headers.push_back(std::move(header));
  parts_.metrics->Count(*work.plan->row, response.ErrorCode(), Clock::now() - work.plan->begun);
  work.responder.Send(std::move(reply));
}

// A handler's code says what it could not do, but not that the database was the cause.
void Dispatcher::ExplainFailure(const webapi::ApiRow& row, VEXA::APIResponse& response) const {
  constexpr int kOfTheRequest[] = {webapi::kErrorBadParameter, 409, webapi::kErrorUnknownApi};
  const int code = response.ErrorCode();
  if (response.IsSuccess() || !response.Data().isNull() || row.access.value == Access::kHost) return;
  if (code < webapi::kErrorBadParameter || std::ranges::find(kOfTheRequest, code) != std::end(kOfTheRequest)) return;
  if (parts_.is_database_lost && parts_.is_database_lost()) response.SetError(code, webapi::kDatabaseLost);
}

void Dispatcher::AnswerMethod(Work& work, VEXA::APIResponse& response,
                              std::vector<std::pair<std::string, std::string>>& headers, Json::Value& further) const {
  Caller& caller = work.plan->caller;
  const webapi::ApiRow& row = *work.plan->row;
  int refusal = parts_.identity->Complete(caller);
  if (refusal == 0) refusal = CheckUser(row.access.value, caller);
  if (refusal != 0) return response.SetError(refusal, Json::Value());
  SetActingUser(caller.kind == Caller::Kind::kHost ? caller.acts_for : caller.user.name);
  Result<Json::Value> parameters =
      work.request.body.empty() ? Result<Json::Value>(Json::Value(Json::objectValue)) : ParseJson(work.request.body);
  if (!parameters) return response.SetError(webapi::kErrorMalformed, parameters.error().ToString());
  if (!parameters->isObject()) return response.SetError(webapi::kErrorMalformed, "The body is not a JSON object");
  CallHandler({row, caller, std::move(*parameters)}, response, headers, further);
}

}  // namespace vexa::daemon
