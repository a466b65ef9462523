// The attacker has tokens that were valid once, tokens of others in part, what a page of another site can make a
// browser send, and addresses to guess passwords from. A session that has ended must stay ended for everybody who uses
// it at that moment, nothing but a whole token with its CSRF token must be accepted, and the owner of an account that
// is being guessed at must go on working.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <thread>
#include <vector>

#include "host/base/files.h"
#include "json/readers.h"
#include "tests/attack/attack.h"
#include "tests/attack/attacked_host.h"
#include "tests/attack/guesses.h"
#include "tests/support/require.h"
#include "webapi/error_codes.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kUsersOfToken = 8;
constexpr milliseconds kShortForm{3'000};

class SessionAttack : public testing::Test {
 protected:
  static void SetUpTestSuite() { host_ = new AttackedHost; }
  static void TearDownTestSuite() {
    delete host_;
    host_ = nullptr;
  }
  void TearDown() override { ASSERT_TRUE(host_->IsRunning()) << host_->LastLog(); }

  // The code of an administrator's call.
  static int Administer(const std::string& method, const std::string& body) {
    HttpClient root = host_->Root(kPatience);
    const HttpReply reply = root.PostJson("/webapi/VEXA.Core." + method, body);
    EXPECT_TRUE(reply.arrived()) << reply.transport_error;
    return CodeOf(reply);
  }
  static int Add(const std::string& user) {
    return Administer("Account/user_add", fmt::format(R"({{"name":"{}","password":"{}"}})", user, kPassword));
  }
  // 0 for a success.
  static int Info(HttpClient& client) {
    const HttpReply reply = client.PostJson(kInfoPath, "{}");
    return reply.arrived() ? CodeOf(reply) : -1;
  }

  static AttackedHost* host_;
};

AttackedHost* SessionAttack::host_ = nullptr;

// Uses a token on several connections, without a pause, until it is destroyed.
class BusyToken {
 public:
  BusyToken(const AttackedHost& host, const std::string& token) {
    for (int i = 0; i < kUsersOfToken; ++i) {
      threads_.emplace_back([this, client = host.Network(kPatience, token)]() mutable { Run(client); });
    }
  }
  ~BusyToken() { Finish(); }
  BusyToken(const BusyToken&) = delete;
  BusyToken& operator=(const BusyToken&) = delete;

  // The session has ended: what is called from now on must be refused.
  void HasEnded() { has_ended_ = true; }
  void Finish() {
    is_over_ = true;
    threads_.clear();
  }
  int served() const { return served_; }
  int refused_afterwards() const { return refused_afterwards_; }
  int served_afterwards() const { return served_afterwards_; }

 private:
  void Run(HttpClient& client) {
    while (!is_over_) {
      const bool had_ended = has_ended_;
      const HttpReply reply = client.PostJson(kInfoPath, "{}");
      if (reply.status == 200) {
        ++(had_ended ? served_afterwards_ : served_);
      } else if (had_ended && CodeOf(reply) == user_error::kNotLoggedIn) {
        ++refused_afterwards_;
      }
    }
  }

  std::atomic<bool> has_ended_ = false;
  std::atomic<bool> is_over_ = false;
  std::atomic<int> served_ = 0;
  std::atomic<int> refused_afterwards_ = 0;
  std::atomic<int> served_afterwards_ = 0;
  std::vector<std::jthread> threads_;
};

struct Ending {
  const char* name;
  const char* method;
  const char* more;  // members of the call beside the user's name
  const char* name_member;
};

constexpr Ending kEndings[] = {
    {"ended by an administrator", "Session/end", "", "user"},
    {"password changed", "Account/password_set", R"(,"password":"another password")", "name"},
    {"password set to the same", "Account/password_set", R"(,"password":"correct horse")", "name"},
    {"removed", "Account/user_delete", "", "name"},
};

TEST_F(SessionAttack, TokenInUse_OfSessionThatEnds_IsRefusedFromTheReplyOn) {
  int rounds = 0;
  int served = 0;
  for (const AttackTime time(kShortForm); !time.IsOver() || rounds < 4; ++rounds) {
    const Ending& ending = kEndings[rounds % 4];
    SCOPED_TRACE(ending.name);
    const std::string user = fmt::format("victim-{}", rounds);
    ASSERT_EQ(Add(user), 0);
    const std::string token = host_->Login(user);
    ASSERT_NE(token, "");
    BusyToken busy(*host_, token);
    ASSERT_TRUE(HoldsInTime([&] { return busy.served() > kUsersOfToken; }));
    ASSERT_EQ(Administer(ending.method, fmt::format(R"({{"{}":"{}"{}}})", ending.name_member, user, ending.more)), 0);
    busy.HasEnded();
    ASSERT_TRUE(HoldsInTime([&] { return busy.refused_afterwards() > kUsersOfToken; }));
    if (std::string(ending.name) == "removed") {
      ASSERT_EQ(Add(user), 0) << "an account of the same name";
    }
    ASSERT_TRUE(HoldsInTime([&] { return busy.refused_afterwards() > 2 * kUsersOfToken; }));
    busy.Finish();
    EXPECT_EQ(busy.served_afterwards(), 0);
    served += busy.served();
    EXPECT_EQ(Administer("Account/user_delete", fmt::format(R"({{"name":"{}"}})", user)), 0);
  }
  Report(fmt::format("{} sessions ended under {} users each; {} calls before, none afterwards", rounds, kUsersOfToken,
                     served));
}

std::vector<std::string> Forgeries(const std::string& token) {
  std::vector<std::string> forged{"",
                                  "x",
                                  token + "A",
                                  " " + token,
                                  token + "=",
                                  token.substr(1),
                                  token.substr(0, token.size() - 1),
                                  std::string(43, 'A'),
                                  std::string(10'000, 'A'),
                                  token + "," + token,
                                  "%" + token.substr(1),
                                  std::string(token.rbegin(), token.rend())};
  for (std::size_t i = 0; i < token.size(); ++i) {
    std::string changed = token;
    changed[i] = changed[i] == 'A' ? 'B' : 'A';
    forged.push_back(changed);
  }
  std::string other_case = token;
  for (char& c : other_case) c = static_cast<char>(std::islower(c) != 0 ? std::toupper(c) : std::tolower(c));
  forged.push_back(other_case);
  return forged;
}

TEST_F(SessionAttack, Token_ForgedCutOrForeign_IsRefused) {
  const AttackedHost elsewhere;
  const std::string token = host_->TokenOf("grace");
  std::vector<std::string> forged = Forgeries(token);
  forged.push_back(elsewhere.TokenOf("grace"));
  // What others can see of a session: its id in the list, and the hashes in a file that was stolen.
  HttpClient owner = host_->ClientOf("grace", kPatience);
  const Json::Value sessions = DataOf(owner.PostJson("/webapi/VEXA.Core.Session/list", "{}"));
  for (const Json::Value& session : json::Elements(json::Member(sessions, "sessions"))) {
    forged.push_back(json::StringMember(session, "id"));
  }
  const std::string file = Require(ReadFile(host_->DataFolder() + "/sessions.json", 1 << 20));
  std::size_t stolen = 0;
  for (std::size_t at = file.find("hash\":"); at != std::string::npos; at = file.find("hash\":", at + 1)) {
    forged.push_back(file.substr(file.find('"', at + 6) + 1, 43));
    ++stolen;
  }
  EXPECT_GE(stolen, 2U);
  EXPECT_EQ(file.find(token), std::string::npos);
  for (const std::string& text : forged) {
    HttpClient network = host_->Network(kPatience);
    HttpClient root = host_->Root(kPatience);
    for (HttpClient* client : {&network, &root}) {
      client->SetHeader("Authorization", "Bearer " + text);
      const int code = Info(*client);
      // A header that is longer than any may be is refused before it is looked at.
      EXPECT_TRUE(code == user_error::kNotLoggedIn) << text << " " << code;
    }
  }
  EXPECT_EQ(Info(owner), 0);
  Report(fmt::format("{} tokens were refused, on both listeners", forged.size()));
}

TEST_F(SessionAttack, Cookie_WithoutItsCsrfToken_DoesNothing) {
  const auto login = [](const std::string& user) {
    HttpClient client = host_->Network(kPatience);
    const HttpReply reply =
        client.PostJson(kLoginPath, fmt::format(R"({{"user":"{}","password":"{}","cookie":true}})", user, kPassword));
    const std::string cookie = reply.headers.at("set-cookie");
    return std::pair(cookie.substr(0, cookie.find(';')), json::StringMember(DataOf(reply), "csrf_token"));
  };
  const auto [cookie, csrf] = login("admin");
  const auto [other_cookie, other_csrf] = login("mallory");
  ASSERT_NE(csrf, "");
  const std::string change = fmt::format(R"({{"guest_id":"{}","desc":"changed by a page"}})", AttackedHost::GuestId(0));
  std::vector<std::vector<std::string>> hostile{{}, {"X-Vexa-CSRF: " + other_csrf}, {"X-Vexa-CSRF;"}};
  for (const std::string& forged : Forgeries(csrf)) {
    if (!forged.empty() && forged.size() < 1000 && forged.front() != ' ') hostile.push_back({"X-Vexa-CSRF: " + forged});
  }
  for (std::vector<std::string>& headers : hostile) {
    HttpClient browser = host_->Network(kPatience);
    headers.push_back("Cookie: " + cookie);
    headers.push_back("Content-Type: application/json");
    const HttpReply reply = browser.Send("POST", kSetPath, headers, change);
    EXPECT_EQ(CodeOf(reply), user_error::kBadCsrfToken) << headers.front();
  }
  // What a form of another site can send without asking.
  for (const char* type : {"text/plain", "application/x-www-form-urlencoded", "multipart/form-data"}) {
    HttpClient browser = host_->Network(kPatience);
    const HttpReply reply =
        browser.Send("POST", kSetPath, {"Cookie: " + cookie, std::string("Content-Type: ") + type}, change);
    EXPECT_GE(reply.status, 400) << type;
  }
  HttpClient root = host_->Root(kPatience);
  EXPECT_EQ(AttackedHost::DescriptionOf(root, 0), "");
  HttpClient browser = host_->Network(kPatience);
  browser.SetHeader("Cookie", cookie);
  browser.SetHeader("X-Vexa-CSRF", csrf);
  EXPECT_EQ(Info(browser), 0) << "the page of the daemon itself";
  Report(
      fmt::format("{} calls with the cookie alone, or with another CSRF token, changed nothing", hostile.size() + 3));
}

TEST_F(SessionAttack, Guesses_FromManyAddresses_AreFewAndDoNotHinderTheOwner) {
  HttpClient owner = host_->ClientOf("grace", kPatience);
  const auto begin = std::chrono::steady_clock::now();
  Guesses guesses(host_->user_port());
  // The limit of all addresses together has been reached.
  ASSERT_TRUE(HoldsInTime([&] { return guesses.refused() > 20; }));
  int logins = 0;
  for (const AttackTime time(kShortForm); !time.IsOver() || logins < 3; ++logins) {
    EXPECT_TRUE(AttackedHost::Gets(owner));
    const std::string token = host_->Login("grace");
    ASSERT_NE(token, "") << "from an address that the user has logged in from";
    HttpClient client = host_->Network(kPatience, token);
    EXPECT_TRUE(AttackedHost::Gets(client));
    EXPECT_EQ(client.PostJson("/webapi/VEXA.Core.Session/logout", "").status, 200);
  }
  guesses.Finish();
  const auto lasted = std::chrono::duration_cast<seconds>(std::chrono::steady_clock::now() - begin).count();
  EXPECT_LE(guesses.checked(), 100 + lasted + 1) << "a hundred, then one each second";
  EXPECT_EQ(guesses.others(), 0);
  Report(fmt::format("{} guesses from {} addresses in {} s, of which {} were looked at; the owner logged in {} times",
                     guesses.checked() + guesses.refused(), Guesses::kAddresses, lasted, guesses.checked(), logins));
}

}  // namespace
}  // namespace vexa::test
