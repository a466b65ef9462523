#include "tests/attack/attacked_host.h"

#include <fmt/format.h>
#include <unistd.h>

#include <fstream>

#include "host/accounts/account_password.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/check.h"
#include "tests/support/require.h"
#include "tests/support/vexad_client.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::chrono::seconds kStartTimeout{60};
constexpr const char* kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
constexpr const char* kPassword = "correct horse";

store::Operation PutObject(const char* category, const std::string& id, const std::string& text) {
  return {store::MakeKey({"dash", category, id, "object"}), text};
}

}  // namespace

AttackedHost::AttackedHost() {
  Seed();
  daemon_ = std::make_unique<Process>(ProcessOptions{
      .argv = {VEXAD_PROGRAM, "--data", folder_.File("data"), "--account-file", folder_.File("accounts.json"),
               "--socket", folder_.File("s"), "--listen", "127.0.0.1:0", "--hypervisor", "none", "--log", "stderr"}});
  if (!daemon_->WaitForText("Ready.", kStartTimeout)) Fail(daemon_->errors());
  for (const char* user : {"admin", "mallory"}) tokens_[user] = Login(user);
}

void AttackedHost::Seed() const {
  const std::string hash = Require(accounts::HashPassword(kPassword));
  const std::string accounts = fmt::format(
      R"({{"version":1,"groups":[{{"name":"administrators","gid":1900000000}},{{"name":"others","gid":1900000009}}],
          "users":[{{"name":"admin","uid":1900000001,"gid":1900000000,"password":"{0}","groups":[]}},
                   {{"name":"mallory","uid":1900000002,"gid":1900000009,"password":"{0}","groups":[]}}]}})",
      hash);
  Require(WriteFileAtomically(folder_.File("accounts.json"), accounts, 0600));
  Require(CreateDirectories(folder_.File("data"), 0700));
  store::LmdbOptions options;
  options.directory = StoreDirectory();
  (void)Require(Require(store::OpenLmdbStore(options))
                    ->Commit({{},
                              {PutObject("guest", kGuest,
                                         R"({"name":"web","repository_id":"r","vcpu_num":2,"vram_size":1024,
                                             "cpu_passthru":false,"use_ovmf":false,"vdisks":[],"vnics":[]})")}}));
}

std::string AttackedHost::Login(const std::string& user) const {
  HttpClient client(NetworkOf(*daemon_));
  const HttpReply reply = client.PostJson("/webapi/VEXA.Core.Session/login",
                                          fmt::format(R"({{"user":"{}","password":"{}"}})", user, kPassword));
  const Json::Value body = Require(ParseJson(reply.body));
  return json::String(json::Member(json::Member(body, "data"), "token"));
}

HttpClient AttackedHost::ClientOf(const std::string& user, std::chrono::milliseconds timeout) const {
  HttpClient client(NetworkOf(*daemon_));
  client.SetHeader("Authorization", "Bearer " + tokens_.at(user));
  client.SetTimeout(timeout);
  return client;
}

bool AttackedHost::Gets(HttpClient& client) {
  const HttpReply reply = client.PostJson(kGetPath, fmt::format(R"({{"guest_id":"{}"}})", kGuest));
  return reply.arrived() && reply.status == 200;
}

std::size_t AttackedHost::ResidentBytes() const {
  std::ifstream file(fmt::format("/proc/{}/statm", daemon_->pid()));
  std::size_t size = 0;
  std::size_t resident = 0;
  if (!(file >> size >> resident)) Fail("the daemon has ended: " + daemon_->errors());
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

int CodeOf(const HttpReply& reply) {
  if (!reply.arrived()) return 0;
  const auto body = ParseJson(reply.body);
  return body ? json::Int(json::Member(json::Member(*body, "error"), "code")) : 0;
}

}  // namespace vexa::test
