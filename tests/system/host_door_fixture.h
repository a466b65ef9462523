// Three hosts as processes, each with a listener for users and one for hosts.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "json/readers.h"
#include "tests/support/http_client.h"
#include "tests/system/transport_cluster.h"

namespace vexa::test {

inline constexpr const char* kHostMethod = "/webapi/VEXA.Test.Host/whoami";
inline constexpr const char* kUserMethod = "/webapi/VEXA.Test.Host/user";
// The id of no host.
inline constexpr const char* kStranger = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a09";

// Waits longer than Eventually: for what happens at intervals of seconds, on a busy machine.
inline bool WithinAMinute(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

class HostDoors : public TransportCluster {
 protected:
  void SetUp() override {
    web_ = std::make_unique<TestAuthority>(folder_.File("web"));
    TransportCluster::SetUp();
  }

  // A listener for users as well, with a certificate of another authority.
  std::vector<std::string> NetworkFlags(int host) override {
    std::vector<std::string> flags = TransportCluster::NetworkFlags(host);
    *std::next(std::ranges::find(flags, "--listen")) = "127.0.0.1:0";
    const transport::TlsFiles users = web_->FilesOf("localhost");
    *std::next(std::ranges::find(flags, "--tls-certificate")) = users.certificate;
    *std::next(std::ranges::find(flags, "--tls-key")) = users.key;
    return flags;
  }

  HttpTarget HostListener(int host, const transport::TlsFiles* files = nullptr) const {
    const std::string address = AddressOfHost(host);
    HttpTarget target;
    target.url = "https://" + IdOf(host) + address.substr(address.rfind(':'));
    target.connect_to = address;
    target.ca_file = folder_.File("authority/authority.pem");
    if (!files) return target;
    target.certificate_file = files->certificate;
    target.key_file = files->key;
    return target;
  }

  HttpTarget UserListener(int host, const transport::TlsFiles* files = nullptr) const {
    std::smatch match;
    const std::string log = hosts_[static_cast<std::size_t>(host)]->errors();
    EXPECT_TRUE(std::regex_search(log, match, std::regex(R"(Listening on https://127\.0\.0\.1:([0-9]+)\.)"))) << log;
    HttpTarget target;
    target.url = "https://localhost:" + match[1].str();
    target.connect_to = "127.0.0.1:" + match[1].str();
    target.ca_file = folder_.File("web/authority.pem");
    if (!files) return target;
    target.certificate_file = files->certificate;
    target.key_file = files->key;
    return target;
  }

  HttpTarget Socket(int host) const {
    HttpTarget target;
    target.url = "http://localhost";
    target.unix_socket = Folder(host) + "/s";
    return target;
  }

  // 0 for a success, the error code, or -1 when there is no reply.
  static int Post(HttpClient& client, const std::string& method, const std::string& body = "{}") {
    const HttpReply reply = client.PostJson(method, body);
    return reply.arrived() ? CodeOf(Parse(reply.body)) : -1;
  }
  static int Post(const HttpTarget& target, const std::string& token, const std::string& method) {
    HttpClient client(target);
    if (!token.empty()) client.SetHeader("Authorization", "Bearer " + token);
    return Post(client, method);
  }

  // The token of a user.
  std::string Login() {
    const std::string user = R"({"name":"grace","password":"correct horse"})";
    EXPECT_EQ(CodeOf(Call(0, "VEXA.Core.Account/user_add", user)), 0);
    HttpClient client(UserListener(0));
    const Json::Value reply = Parse(
        client.PostJson("/webapi/VEXA.Core.Session/login", R"({"user":"grace","password":"correct horse"})").body);
    return json::String(json::Member(json::Member(reply, "data"), "token"));
  }

  int Revoke(int asked, int host) {
    return CodeOf(Call(asked, "VEXA.Virtualization.Host/revoke", R"({"host_id":")" + IdOf(host) + "\"}"));
  }

  // What `vexa host list` shows about the host's certificate.
  std::string CertificateState(int asked, int host) {
    const Json::Value listed = Call(asked, "VEXA.Virtualization.Host/list", "{}");
    for (const Json::Value& entry : json::Elements(json::Member(json::Member(listed, "data"), "hosts"))) {
      if (json::StringMember(entry, "host_id") == IdOf(host)) return json::StringMember(entry, "certificate");
    }
    return "not listed";
  }

  std::string LogOf(int host) const { return hosts_[static_cast<std::size_t>(host)]->errors(); }

  std::unique_ptr<TestAuthority> web_;
};

}  // namespace vexa::test
