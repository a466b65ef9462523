#include "tests/powerloss/observed_host.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <utility>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/powerloss/recorded_program.h"
#include "tests/support/vexad_client.h"

namespace vexa::powerloss {
namespace {

namespace fs = std::filesystem;
namespace json = VexaVirtualization::json;
using namespace std::chrono_literals;

std::string DescribeFile(const fs::path& path) {
  std::string content;
  for (const auto& [number, bytes] : SectorsOf(path)) content += fmt::format("{}:{}", number, bytes);
  return fmt::format("{} bytes, {:x}", fs::file_size(path), std::hash<std::string>()(content));
}

}  // namespace

ObservedHost::ObservedHost(std::string folder, std::string socket)
    : folder_(std::move(folder)), socket_(std::move(socket)) {}

test::ProcessOptions ObservedHost::Program() const {
  return {.argv = {VEXAD_PROGRAM, "--data", folder_ + "/data", "--account-file", folder_ + "/accounts.json",
                   "--image-roots", Images(), "--socket", socket_, "--listen", "none", "--log", "stderr"}};
}

bool ObservedHost::WaitUntilReady(test::Process& daemon) { return daemon.WaitForText("Ready.", 60s); }

test::HttpReply ObservedHost::Call(const std::string& method, const std::string& parameters,
                                   const std::string& token) const {
  test::HttpClient client(test::UnixSocket(socket_));
  if (!token.empty()) client.SetHeader("Authorization", "Bearer " + token);
  return client.PostJson("/webapi/" + method, parameters);
}

HostFacts ObservedHost::Observe(const std::vector<std::string>& tokens) const {
  HostFacts found;
  const auto data_of = [&](const std::string& method, const std::string& parameters) {
    const test::HttpReply reply = Call(method, parameters);
    const auto body = ParseJson(reply.body);
    if (body && json::Bool(json::Member(*body, "success"))) return json::Member(*body, "data");
    found.facts.push_back(fmt::format("{} {} failed: {}{}", method, parameters, reply.transport_error, reply.body));
    return Json::Value();
  };
  const auto add_all = [&](const std::string& method, const std::string& list) {
    const Json::Value data = data_of(method, "{}");
    for (Json::Value entry : json::Elements(json::Member(data, list))) {
      // A repository learns these in the background.
      entry.removeMember("storage");
      entry.removeMember("space");
      found.facts.push_back(fmt::format("{} {}", list, json::ToText(entry)));
    }
  };
  const Json::Value guests = data_of("VEXA.Virtualization.Guest/list", "{}");
  for (const Json::Value& guest : json::Elements(json::Member(guests, "guests"))) {
    const std::string id = json::StringMember(guest, "guest_id");
    const std::string by_id = fmt::format(R"({{"guest_id":"{}"}})", id);
    found.facts.push_back(fmt::format("guest {} {}: {}", id, json::StringMember(guest, "state"),
                                      json::ToText(data_of("VEXA.Virtualization.Guest/get", by_id))));
    found.facts.push_back(fmt::format("grants {}", json::ToText(data_of("VEXA.Core.Account/guest_grant_list", by_id))));
  }
  add_all("VEXA.Core.Account/user_list", "users");
  add_all("VEXA.Core.Account/group_list", "groups");
  add_all("VEXA.Virtualization.Image/list", "images");
  add_all("VEXA.Virtualization.Repository/list", "repositories");
  for (const auto& entry : fs::recursive_directory_iterator(Images())) {
    const std::string name = fs::relative(entry.path(), folder_);
    if (entry.is_regular_file()) found.facts.push_back(fmt::format("file {} {}", name, DescribeFile(entry.path())));
  }
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    const test::HttpReply reply = Call("VEXA.Core.Session/list", "{}", tokens[i]);
    found.facts.push_back(fmt::format("token {}: {}", i, reply.status));
  }
  const Json::Value log = data_of("VEXA.Virtualization.Log/list", R"({"limit":1000})");
  for (const Json::Value& entry : json::Elements(json::Member(log, "entries"))) {
    found.log.push_back(json::StringMember(entry, "text"));
  }
  std::ranges::reverse(found.log);
  std::ranges::sort(found.facts);
  return found;
}

}  // namespace vexa::powerloss
