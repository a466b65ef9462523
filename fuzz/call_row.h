// Calls a method as the dispatcher does, and checks what holds for every reply.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/check.h"
#include "host/api/api_table.h"
#include "host/base/error_table.h"
#include "host/base/json_parse.h"
#include "json/readers.h"

namespace vexa::fuzz {

inline api::Caller HostCaller() {
  api::Caller caller;
  caller.kind = api::Caller::Kind::kHost;
  caller.host_id = "nas-2";
  caller.certificate_issued = std::chrono::system_clock::now();
  return caller;
}

inline api::Caller AdministratorCaller() {
  api::Caller caller;
  caller.kind = api::Caller::Kind::kUser;
  caller.user = {"root", 0, 0, {}, true};
  return caller;
}

struct Reply {
  int code = 0;  // 0: a success
  Json::Value data;
};

inline Reply CallRow(const api::ApiRow& row, const Json::Value& parameters, const api::Caller& caller) {
  using Privilege = VEXA::APIRequest::Privilege;
  VEXA::APIRequest request(parameters, caller.user.name,
                           caller.user.is_administrator ? Privilege::kAdministrator : Privilege::kOrdinary);
  VEXA::APIResponse response;
  std::vector<std::pair<std::string, std::string>> headers;
  Json::Value extra_members(Json::objectValue);
  row.handler({&request, &response, caller, &headers, &extra_members});
  Check(response.IsSet(), "there is a response");
  Check(request.GetParam("", Json::Value()) == parameters, "a request is not changed");
  Check(extra_members.isObject(), "a reply has members");
  for (const auto& [name, value] : headers) Check(IsOneLine(name + value), "a header is one line");
  for (const Json::Value* part : {&response.Data(), &std::as_const(extra_members)}) {
    const std::string text = VexaVirtualization::json::ToText(*part);
    Check(text.find('\n') == std::string::npos && ParseJson(text).ok(), "a reply is JSON on one line");
  }
  if (response.IsSuccess()) return {0, response.Data()};
  const Audience audience = caller.kind == api::Caller::Kind::kHost ? Audience::kHosts : Audience::kUsers;
  const ErrorRow* const error = FindError(response.ErrorCode(), audience);
  Check(error != nullptr && !error->sentence.empty(), "a code has a sentence");
  return {response.ErrorCode(), response.Data()};
}

}  // namespace vexa::fuzz
