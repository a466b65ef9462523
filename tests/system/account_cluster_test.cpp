// Two hosts with one store, whose accounts were created separately.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>

#include "host/accounts/account_password.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/daemon/host_id.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"
#include "tests/support/vexad_client.h"
#include "webapi/platform/ccc_constants.h"

namespace {

using namespace std::chrono_literals;
namespace json = VexaVirtualization::json;
using vexa::test::HttpClient;
using vexa::test::Process;
using vexa::test::Require;

constexpr const char* kPassword = "correct horse";
constexpr const char* kGuest = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c210";
constexpr const char* kRepository = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr std::uint32_t kFirstUser = 1'900'000'002;  // of every host
constexpr int kNotLoggedIn = 103;
constexpr int kWrongPassword = 106;
constexpr int kTooManyLogins = 107;

std::string Key(const std::string& category, const std::string& id) {
  return vexa::store::MakeKey({"dash", category, id, "object"});
}

class AccountCluster : public testing::Test {
 protected:
  AccountCluster() {
    for (const char* host : {"a", "b"}) ::mkdir(folder_.File(host).c_str(), 0700);
    vexa::store::LmdbOptions options;
    options.directory = folder_.File("store");
    store_ = Require(vexa::store::OpenLmdbStore(options));
    PutGuest();
  }

  // A guest on host b, granted to the first user of host a.
  void PutGuest() {
    const std::string host_id = Require(vexa::daemon::LoadHostId(folder_.File("b")));
    Json::Value repository(Json::objectValue);
    repository["host_id"] = host_id;
    repository["state"] = VexaCCC::State::Repo::online;
    Json::Value guest(Json::objectValue);
    guest["name"] = "web";
    guest["vcpu_num"] = 1;
    guest["vram_size"] = 16;
    guest["host_id"] = host_id;
    guest["repository_id"] = kRepository;
    guest["state"] = VexaCCC::State::Guest::shutdown;
    guest["vnics"] = Json::Value(Json::arrayValue);
    guest["vdisks"] = Json::Value(Json::arrayValue);
    (void)Require(store_->Commit({{},
                                  {{Key("repository", kRepository), json::ToText(repository)},
                                   {Key("guest", kGuest), json::ToText(guest)},
                                   {Key("guest_admin", "users-" + std::to_string(kFirstUser)),
                                    R"({"authlevel":"user","guests":{")" + std::string(kGuest) + R"(":true}})"}}}));
  }

  // The account file that an older version has left on a host.
  void PutFile(const std::string& host, const std::string& user) const {
    const std::string text =
        R"({"version":1,"groups":[{"name":"administrators","gid":1900000000},{"name":"users","gid":1900000001}],"users":[
           {"name":")" +
        user + R"(","uid":)" + std::to_string(kFirstUser) + R"(,"gid":1900000001,"password":")" +
        Require(vexa::accounts::HashPassword(kPassword)) + R"(","groups":[]}]})";
    Require(vexa::WriteFileAtomically(folder_.File(host) + "/accounts.json", text, 0600));
  }

  std::unique_ptr<Process> Start(const std::string& host, const std::string& accounts = "store") const {
    auto process = std::make_unique<Process>(
        vexa::test::ProcessOptions{.argv = {VEXAD_PROGRAM, "--data", folder_.File(host), "--store",
                                            folder_.File("store"), "--socket", folder_.File("socket-" + host),
                                            "--listen", "127.0.0.1:0", "--log", "stderr", "--accounts", accounts}});
    EXPECT_TRUE(process->WaitForText("Ready.", 120s)) << process->errors();
    return process;
  }

  vexa::test::ProcessResult Vexa(std::vector<std::string> words, const std::string& input = "") const {
    words.insert(words.begin(), VEXA_PROGRAM);
    words.insert(words.end(), {"--socket", folder_.File("socket-a")});
    return vexa::test::RunProcess({.argv = words, .input = input});
  }

  static Json::Value Body(const vexa::test::HttpReply& reply) {
    EXPECT_TRUE(reply.arrived()) << reply.transport_error;
    const auto parsed = vexa::ParseJson(reply.body);
    EXPECT_TRUE(parsed.ok()) << reply.body;
    return parsed ? *parsed : Json::Value();
  }
  static int CodeOf(const vexa::test::HttpReply& reply) {
    return json::Int(json::Member(json::Member(Body(reply), "error"), "code"));
  }

  static HttpClient Tcp(const Process& process) {
    HttpClient client(vexa::test::NetworkOf(process));
    client.SetTimeout(60s);
    return client;
  }
  // "" when the login fails.
  static std::string Login(HttpClient& client, const std::string& user) {
    const Json::Value body =
        Body(client.PostJson("/webapi/VEXA.Core.Session/login",
                             R"({"user":")" + user + R"(","password":")" + std::string(kPassword) + R"("})"));
    return json::String(json::Member(json::Member(body, "data"), "token"));
  }
  static HttpClient LoggedIn(const Process& process, const std::string& user) {
    HttpClient client = Tcp(process);
    const std::string token = Login(client, user);
    EXPECT_NE(token, "") << user;
    client.SetHeader("Authorization", "Bearer " + token);
    return client;
  }
  HttpClient Root(const std::string& host) const {
    HttpClient client(vexa::test::UnixSocket(folder_.File("socket-" + host)));
    client.SetTimeout(60s);
    return client;
  }

  static int Get(HttpClient& client) {
    return CodeOf(
        client.PostJson("/webapi/VEXA.Virtualization.Guest/get", R"({"guest_id":")" + std::string(kGuest) + R"("})"));
  }
  static int Power(HttpClient& client, const std::string& action) {
    return CodeOf(client.PostJson("/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl",
                                  R"({"guest_id":")" + std::string(kGuest) + R"(","action":")" + action + R"("})"));
  }
  static int Info(HttpClient& client) { return CodeOf(client.PostJson("/webapi/VEXA.Core.Session/info", "")); }
  // Whether the guest is in the user's list. The list is found out in the background.
  static bool IsListed(HttpClient& client) {
    for (int i = 0; i < 20; ++i) {
      const auto reply = client.PostJson("/webapi/VEXA.Virtualization.Guest/list", "{}");
      EXPECT_EQ(CodeOf(reply), 0) << reply.body;
      if (reply.body.find(kGuest) != std::string::npos) return true;
      std::this_thread::sleep_for(50ms);
    }
    return false;
  }

  vexa::test::TempDir folder_;
  std::shared_ptr<vexa::store::Store> store_;
};

// Hosts gave the same ids to their first users, and grants are kept by ids.
TEST_F(AccountCluster, Accounts_FirstUsersOfTwoHosts_DoNotShareGrants) {
  PutFile("a", "alice");
  PutFile("b", "bob");
  const auto a = Start("a");
  const auto b = Start("b");
  HttpClient root = Root("b");
  ASSERT_EQ(Power(root, "poweron"), 0);
  HttpClient alice = LoggedIn(*a, "alice");
  EXPECT_EQ(Get(alice), 0);
  EXPECT_TRUE(IsListed(alice));
  HttpClient bob = LoggedIn(*b, "bob");
  EXPECT_NE(Get(bob), 0);
  EXPECT_FALSE(IsListed(bob));
  EXPECT_NE(Power(bob, "poweroff"), 0);
  EXPECT_EQ(Power(root, "poweron"), 939) << "it runs still";
  HttpClient alice_on_b = LoggedIn(*b, "ALICE");
  EXPECT_EQ(Power(alice_on_b, "poweroff"), 0) << "she is the same on every host, and so is what was granted to her";
  EXPECT_NE(b->errors().find("'bob'"), std::string::npos) << "the log says that bob has another id";
}

TEST_F(AccountCluster, Account_DeletedOnOneHost_LosesGrantsAndSessionsOnOther) {
  PutFile("a", "alice");
  const auto a = Start("a");
  const auto b = Start("b");
  HttpClient on_a = LoggedIn(*a, "alice");
  HttpClient on_b = LoggedIn(*b, "alice");
  EXPECT_EQ(Get(on_a), 0);
  EXPECT_EQ(Get(on_b), 0);
  const auto deleted = Vexa({"user", "del", "Alice"});
  ASSERT_EQ(deleted.exit_code, 0) << deleted.errors;
  EXPECT_EQ(Info(on_a), kNotLoggedIn);
  EXPECT_EQ(Info(on_b), kNotLoggedIn);
  const auto added = Vexa({"user", "add", "alice", "--password-stdin"}, std::string(kPassword) + "\n");
  ASSERT_EQ(added.exit_code, 0) << added.errors;
  EXPECT_EQ(Info(on_a), kNotLoggedIn) << "the token was another account's";
  EXPECT_EQ(Info(on_b), kNotLoggedIn);
  HttpClient again = LoggedIn(*b, "alice");
  EXPECT_EQ(Info(again), 0);
  EXPECT_NE(Get(again), 0) << "the guest was granted to another account";
  EXPECT_FALSE(IsListed(again));
}

// After a password change, the old tokens were valid for up to 12 hours, on every host.
TEST_F(AccountCluster, Password_ChangedOnOneHost_EndsSessionsOnOther) {
  PutFile("a", "alice");
  const auto a = Start("a");
  const auto b = Start("b");
  HttpClient own = LoggedIn(*a, "alice");
  HttpClient on_a = LoggedIn(*a, "alice");
  HttpClient on_b = LoggedIn(*b, "alice");
  ASSERT_EQ(CodeOf(own.PostJson("/webapi/VEXA.Core.Account/password_set",
                                R"({"password":"second password","old_password":")" + std::string(kPassword) + "\"}")),
            0);
  EXPECT_EQ(Info(on_a), kNotLoggedIn);
  EXPECT_EQ(Info(on_b), kNotLoggedIn);
  EXPECT_EQ(Info(own), 0) << "it has proven that it knows the password";
  const auto changed = Vexa({"user", "passwd", "alice", "--password-stdin"}, std::string(kPassword) + "\n");
  ASSERT_EQ(changed.exit_code, 0) << changed.errors;
  EXPECT_EQ(Info(own), kNotLoggedIn);
}

TEST_F(AccountCluster, SessionCommands_ListAndEndSessions) {
  PutFile("a", "alice");
  const auto a = Start("a");
  HttpClient first = LoggedIn(*a, "alice");
  HttpClient second = LoggedIn(*a, "alice");
  const auto list = Vexa({"session", "list", "--all", "--json"});
  ASSERT_EQ(list.exit_code, 0) << list.errors;
  const auto sessions = vexa::ParseJson(list.output);
  ASSERT_TRUE(sessions.ok() && sessions->isArray() && sessions->size() == 2) << list.output;
  EXPECT_EQ(json::String(json::Member((*sessions)[0], "from")), "127.0.0.1");
  const auto ended = Vexa({"session", "end", json::String(json::Member((*sessions)[0], "id"))});
  EXPECT_EQ(ended.exit_code, 0) << ended.errors;
  EXPECT_EQ(Info(first), kNotLoggedIn);
  EXPECT_EQ(Info(second), 0);
  const auto all = Vexa({"session", "end", "--user", "Alice"});
  EXPECT_EQ(all.output, "Ended 1 sessions of the user 'Alice'.\n") << all.errors;
  EXPECT_EQ(Info(second), kNotLoggedIn);
}

TEST_F(AccountCluster, Account_AddedOnOneHost_LogsInOnOther) {
  const auto a = Start("a");
  const auto b = Start("b");
  ASSERT_EQ(Vexa({"user", "add", "Carol", "--password-stdin"}, std::string(kPassword) + "\n").exit_code, 0);
  HttpClient carol = LoggedIn(*b, "carol");
  const Json::Value info = Body(carol.PostJson("/webapi/VEXA.Core.Session/info", ""));
  EXPECT_EQ(json::String(json::Member(json::Member(info, "data"), "user")), "Carol") << "as it was created";
  HttpClient on_a = LoggedIn(*a, "CAROL");
  EXPECT_EQ(Info(on_a), 0);
}

TEST_F(AccountCluster, AccountSource_IsLoggedAndReportedByCommands) {
  PutFile("a", "alice");
  {
    const auto pam = Start("a", "pam");
    const auto list = Vexa({"user", "list"});
    EXPECT_EQ(list.exit_code, 1);
    EXPECT_NE(list.errors.find("PAM"), std::string::npos) << list.errors;
  }
  const auto file = Start("a", "file");
  EXPECT_NE(file->errors().find("accounts = \"file\" means \"store\" now"), std::string::npos) << file->errors();
  const auto list = Vexa({"user", "list"});
  EXPECT_EQ(list.exit_code, 0) << list.errors;
  EXPECT_NE(list.output.find("alice"), std::string::npos);
}

// A name in another case must not be another name to the limiter. Others are not hindered.
TEST_F(AccountCluster, Login_GuessesInManySpellings_AreLimitedAsOneName) {
  const auto a = Start("a");
  std::smatch match;
  const std::string log = a->errors();
  ASSERT_TRUE(std::regex_search(log, match, std::regex(R"(Listening on (http://127\.0\.0\.1:[0-9]+)\.)"))) << log;
  const std::string url = match[1].str() + "/webapi/VEXA.Core.Session/login";
  const auto guess_from = [&](const std::string& address, const std::string& user) {
    const auto guess =
        vexa::test::RunProcess({.argv = {"curl", "-sS", "--interface", address, "-H", "Content-Type: application/json",
                                         "-d", R"({"user":")" + user + R"(","password":"a guess"})", url}});
    EXPECT_EQ(guess.exit_code, 0) << guess.errors;
    const auto reply = vexa::ParseJson(guess.output);
    EXPECT_TRUE(reply.ok()) << guess.output;
    return reply ? json::Int(json::Member(json::Member(*reply, "error"), "code")) : 0;
  };
  int code = 0;
  for (int i = 0; i < 64 && code != kTooManyLogins; ++i) {
    std::string user = "alice";
    for (std::size_t bit = 0; bit < 4; ++bit) {
      if ((i >> bit & 1) != 0) user[bit] = static_cast<char>(user[bit] - 32);
    }
    code = guess_from("127.0.0.2", user);
  }
  EXPECT_EQ(code, kTooManyLogins);
  EXPECT_EQ(guess_from("127.0.0.3", "alice"), kWrongPassword) << "from another address";
}

}  // namespace
