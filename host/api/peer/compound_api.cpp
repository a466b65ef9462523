#include "host/api/peer/compound_api.h"

#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "host/api/peer/rows.h"
#include "json/readers.h"

namespace vexa::api {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::string_view kApi = "VEXA.Entry.Request";
constexpr const char* kReservedMembers[] = {"api", "method", "version"};

Json::Value FailedItem(int code) {
  Json::Value result(Json::objectValue);
  result["success"] = false;
  result["error"]["code"] = code;
  return result;
}

bool IsVersion(const Json::Value* version) { return !version || (version->isInt() && json::Int(*version) > 0); }

// Whether `item` names a method that may be called. Compound requests must not be nested, because each level would
// multiply the work by 64.
bool IsItem(const Json::Value& item) {
  const Json::Value& api = json::Member(item, "api");
  const Json::Value& method = json::Member(item, "method");
  return api.isString() && method.isString() && IsVersion(json::FindMember(item, "version")) &&
         json::String(api) != kApi;
}

VexaDRCore::Request RequestOf(const Json::Value& item) {
  VexaDRCore::Request request;
  request.setAPI(json::String(json::Member(item, "api")));
  request.setMethod(json::String(json::Member(item, "method")));
  if (const Json::Value* version = json::FindMember(item, "version")) request.setVersion(json::Int(*version));
  Json::Value parameters = item;
  for (const char* name : kReservedMembers) parameters.removeMember(name);
  request.addParam(parameters);
  return request;
}

// The members of an item's reply that belong to the item.
Json::Value ResultOf(const Json::Value& reply) {
  const Json::Value& success = json::Member(reply, "success");
  if (success.isBool() && json::Bool(success)) {
    Json::Value result(Json::objectValue);
    result["success"] = true;
    result["data"] = json::Member(reply, "data");
    return result;
  }
  Json::Value result = FailedItem(host_error::kInternal);
  const Json::Value& error = json::Member(reply, "error");
  if (error.isObject()) result["error"] = error;
  return result;
}

Json::Value RunItem(const transport::LocalCall& local_call, const Json::Value& item,
                    steady_clock::time_point deadline) {
  if (!IsItem(item)) return FailedItem(host_error::kBadParameter);
  const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
  if (left <= milliseconds(0)) return FailedItem(host_error::kUnreachable);
  return ResultOf(local_call(RequestOf(item), left));
}

// Catches exceptions, because one that leaves a thread would end the process.
Json::Value RunItemSafely(const transport::LocalCall& local_call, const Json::Value& item,
                          steady_clock::time_point deadline) {
  try {
    return RunItem(local_call, item, deadline);
  } catch (const std::exception& exception) {
    ::syslog(LOG_ERR, "An item of a compound request failed: %s", exception.what());
    return FailedItem(host_error::kInternal);
  }
}

// Calls `run` with 0 to `count` - 1, on up to `options.threads` threads, this one included.
void InParallel(std::size_t count, const CompoundOptions& options, const std::function<void(std::size_t)>& run) {
  std::atomic<std::size_t> next = 0;
  const auto work = [&] {
    for (std::size_t i = next++; i < count; i = next++) run(i);
  };
  const std::function<void()> helper_task = options.propagate_context ? options.propagate_context(work) : work;
  std::vector<std::jthread> helpers;
  const std::size_t wanted = std::min(count, static_cast<std::size_t>(std::max(options.threads, 1)));
  helpers.reserve(wanted);
  try {
    while (helpers.size() + 1 < wanted) helpers.emplace_back(helper_task);
  } catch (const std::system_error&) {
    // No more threads are available: the existing ones do all the work.
  }
  work();
}

void Request(const transport::LocalCall& local_call, const CompoundOptions& options, const Call& call) {
  const auto mode =
      call.request->GetAndCheckString("mode", kOptional, [](const std::string& text) { return text == "parallel"; });
  const auto compound = call.request->GetAndCheckArray(
      "compound", kRequired, [](const Json::Value& items) { return items.size() <= kMaxCompoundItems; });
  if (mode.IsInvalid() || compound.IsInvalid()) return Fail(call, host_error::kBadParameter);
  const Json::Value& items = compound.Get();
  const steady_clock::time_point deadline = steady_clock::now() + options.timeout;
  std::vector<Json::Value> results(items.size());
  InParallel(results.size(), options, [&](std::size_t i) {
    results[i] = RunItemSafely(local_call, items[static_cast<Json::ArrayIndex>(i)], deadline);
  });
  bool has_failure = false;
  Json::Value data(Json::objectValue);
  data["result"] = Json::Value(Json::arrayValue);
  for (Json::Value& result : results) {
    has_failure = has_failure || !json::Bool(json::Member(result, "success"));
    data["result"].append(std::move(result));
  }
  if (has_failure && call.extra_members) (*call.extra_members)["has_fail"] = true;
  call.response->SetSuccess(std::move(data));
}

}  // namespace

std::vector<ApiRow> CompoundRows(transport::LocalCall local_call, CompoundOptions options) {
  const auto shared = std::make_shared<const transport::LocalCall>(std::move(local_call));
  ApiRow row = HostRow(
      kApi, "request", LaneKind::kLong,
      [shared, options = std::move(options)](const Call& call) { Request(*shared, options, call); },
      "Call several methods in one request. \"result\" has one entry for each, in order; \"has_fail\" beside \"data\" "
      "means that one failed.",
      {{"compound", ParameterType::kArray, Necessity::kRequired,
        "At most 64 objects with \"api\", \"method\", \"version\" (default 1) and the method's parameters."},
       {"mode", ParameterType::kString, Necessity::kOptional, "Only \"parallel\" is supported."}},
      {host_error::kBadParameter});
  row.body_values = kMaxCompoundItems * kDefaultBodyValues;
  return {std::move(row)};
}

}  // namespace vexa::api
