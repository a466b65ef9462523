// A scripted machine, and calls of rows by other hosts and by users.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "host/api/peer/services.h"
#include "host/api/reason.h"
#include "host/cluster/cluster_log.h"
#include "host/records/environment.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::test {

// Files below a folder in the place of the machine's own.
class ScriptedMachine {
 public:
  void Put(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(folder_.path() + path).parent_path());
    std::ofstream(folder_.path() + path, std::ios::binary) << content;
  }
  void MakeFolder(const std::string& path) { std::filesystem::create_directories(folder_.path() + path); }
  machine::Machine machine() const { return machine::Machine(folder_.path()); }
  const std::string& root() const { return folder_.path(); }

 private:
  TempDir folder_;
};

struct Answer {
  int code = -1;  // 0: success; -1: no answer
  Json::Value data;
  Json::Value extra_members{Json::objectValue};
  std::vector<std::pair<std::string, std::string>> headers = {};
};

inline std::string ReasonOf(const Answer& answer) {
  return json::String(json::Member(answer.extra_members, api::kReason));
}

inline api::Caller HostCaller() {
  api::Caller caller;
  caller.kind = api::Caller::Kind::kHost;
  caller.host_id = "h";
  return caller;
}

inline api::Caller UserCaller(const accounts::User& user) {
  api::Caller caller;
  caller.kind = api::Caller::Kind::kUser;
  caller.user = user;
  caller.peer = "192.0.2.1";
  return caller;
}

inline accounts::User Administrator() { return {"root", 0, 0, {}, true}; }

inline Answer CallRow(const api::ApiRow& row, const Json::Value& parameters, const api::Caller& caller = HostCaller()) {
  using Privilege = VEXA::APIRequest::Privilege;
  VEXA::APIRequest request(parameters, caller.user.name,
                           caller.user.is_administrator ? Privilege::kAdministrator : Privilege::kOrdinary);
  VEXA::APIResponse response;
  Answer answer;
  row.handler({&request, &response, caller, &answer.headers, &answer.extra_members});
  if (response.IsSet()) answer.code = response.ErrorCode();
  // As it arrives: jsoncpp distinguishes a signed from an unsigned 7 before, not after.
  answer.data = Parsed(json::ToText(response.Data()));
  return answer;
}

inline Answer CallTable(const api::ApiTable& table, const std::string& api, const std::string& method,
                        const std::string& parameters, const api::Caller& caller = HostCaller()) {
  const api::ApiRow* row = table.Find(api, method, 1);
  EXPECT_NE(row, nullptr) << api << " " << method;
  return row ? CallRow(*row, Parsed(parameters), caller) : Answer();
}

// The lines of the cluster log, newest last: "<user> <priority> <text>", and " (2)" when it happened twice.
inline std::vector<std::string> ClusterLogLines() {
  std::vector<std::string> lines;
  for (const cluster::LogEntry& entry :
       Require(cluster::ReadLogAfter(Require(records::Reader::OpenCurrent()), 0, 100))) {
    lines.push_back(entry.user + " " + std::to_string(entry.priority) + " " + entry.text);
    if (entry.count > 1) lines.back() += " (" + std::to_string(entry.count) + ")";
  }
  return lines;
}

}  // namespace vexa::test

// The tests of methods are in this namespace.
namespace vexa::api {

using test::Administrator;
using test::Answer;
using test::CallRow;
using test::CallTable;
using test::ClusterLogLines;
using test::Parsed;
using test::ReasonOf;
using test::Require;
using test::UserCaller;

}  // namespace vexa::api
