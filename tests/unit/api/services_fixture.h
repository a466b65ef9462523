// A scripted machine, and calls of the rows that answer other hosts.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "host/api/peer/services.h"
#include "host/records/environment.h"
#include "json/readers.h"
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
  services::Machine machine() const { return services::Machine(folder_.path()); }
  const std::string& root() const { return folder_.path(); }

 private:
  TempDir folder_;
};

struct Answer {
  int code = -1;  // 0: success; -1: no answer
  Json::Value data;
  Json::Value further{Json::objectValue};
};

inline Answer CallRow(const webapi::ApiRow& row, const Json::Value& parameters) {
  VEXA::APIRequest request(parameters, "", VEXA::APIRequest::Privilege::kOrdinary);
  VEXA::APIResponse response;
  const webapi::Caller caller{
      .kind = webapi::Caller::Kind::kHost, .user = {}, .session_token = {}, .host_id = "h", .acts_for = {}, .peer = {}};
  std::vector<std::pair<std::string, std::string>> headers;
  Answer answer;
  row.handler({&request, &response, caller, &headers, &answer.further});
  if (response.IsSet()) answer.code = response.ErrorCode();
  // As it arrives: jsoncpp distinguishes a signed from an unsigned 7 before, not after.
  answer.data = Parsed(VexaVirtualization::json::ToText(response.Data()));
  return answer;
}

inline Answer CallTable(const webapi::ApiTable& table, const std::string& api, const std::string& method,
                        const std::string& parameters) {
  const webapi::ApiRow* row = table.Find(api, method, 1);
  EXPECT_NE(row, nullptr) << api << " " << method;
  return row ? CallRow(*row, Parsed(parameters)) : Answer();
}

}  // namespace vexa::test
