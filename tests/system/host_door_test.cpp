// Who may call what on which listener, and revoking the certificates of hosts.
#include "tests/support/process.h"
#include "tests/system/host_door_fixture.h"

namespace vexa::test {
namespace {

using std::chrono::hours;
using std::chrono::system_clock;
using testing::HasSubstr;
using testing::Not;

struct Expected {
  int host_method;
  int user_method;
};
constexpr Expected kNoReply{-1, -1};

TEST_F(HostDoors, CallersTimesListeners_EachMethodIsServedOnlyAtItsDoor) {
  const TestAuthority foreign(folder_.File("foreign"));
  const auto now = system_clock::now();
  const std::string token = Login();
  ASSERT_NE(token, "");
  const transport::TlsFiles member = tls(1);
  const transport::TlsFiles revoked = tls(2);
  const transport::TlsFiles stranger = authority().FilesOf("stranger", kStranger);
  const transport::TlsFiles expired = authority().FilesOf("expired", IdOf(1), {now - hours(48), hours(24)});
  const transport::TlsFiles future = authority().FilesOf("future", IdOf(1), {now + hours(2), hours(24)});
  transport::TlsFiles other = foreign.FilesOf(IdOf(1));
  ASSERT_EQ(Revoke(0, 2), 0);
  const struct {
    const char* caller;
    const transport::TlsFiles* files;
    std::string token;
    Expected on_host_listener;
    Expected on_user_listener;
  } rows[] = {
      {"nobody", nullptr, "", kNoReply, {103, 103}},
      {"user", nullptr, token, kNoReply, {104, 0}},
      {"member", &member, "", {0, 104}, {103, 103}},
      {"member with a user's token", &member, token, {103, 103}, {104, 0}},
      {"not a member", &stranger, "", {104, 104}, {103, 103}},
      {"revoked", &revoked, "", {104, 104}, {103, 103}},
      {"expired", &expired, "", kNoReply, {103, 103}},
      {"from the future", &future, "", kNoReply, {103, 103}},
      {"of another authority", &other, "", kNoReply, {103, 103}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.caller);
    EXPECT_EQ(Post(HostListener(0, row.files), row.token, kHostMethod), row.on_host_listener.host_method);
    EXPECT_EQ(Post(HostListener(0, row.files), row.token, kUserMethod), row.on_host_listener.user_method);
    EXPECT_EQ(Post(UserListener(0, row.files), row.token, kHostMethod), row.on_user_listener.host_method);
    EXPECT_EQ(Post(UserListener(0, row.files), row.token, kUserMethod), row.on_user_listener.user_method);
  }
  for (const std::string& used : {std::string(), token}) {
    EXPECT_EQ(Post(Socket(0), used, kHostMethod), 104);
    EXPECT_EQ(Post(Socket(0), used, kUserMethod), 0);
  }
  // Nor is a login possible where hosts call, and its pages are for users.
  HttpClient as_member(HostListener(0, &member));
  EXPECT_EQ(Post(as_member, "/webapi/VEXA.Core.Session/login", R"({"user":"grace","password":"correct horse"})"), 104);
  EXPECT_EQ(as_member.Get("/openapi.json").status, 404);
}

TEST_F(HostDoors, BodyOfNoMember_HasTheLimitOfStrangers) {
  const std::string body = R"({"x":")" + std::string(20'000, 'x') + "\"}";
  const transport::TlsFiles stranger = authority().FilesOf("stranger", kStranger);
  HttpClient as_stranger(HostListener(0, &stranger));
  EXPECT_EQ(as_stranger.PostJson(kHostMethod, body).status, 413);
  HttpClient as_member(HostListener(0, &tls(1)));
  EXPECT_EQ(as_member.PostJson(kHostMethod, body).status, 200);
}

TEST_F(HostDoors, ForgottenHost_OpenConnection_IsRefusedAndClosed) {
  HttpClient client(HostListener(0, &tls(2)));
  EXPECT_EQ(Post(client, kHostMethod), 0);
  ASSERT_TRUE(database().Commit({{}, {{"/host_claim/" + IdOf(2), R"({"forgotten":{"by":"root","time":1}})"}}}).ok());
  const HttpReply reply = client.PostJson(kHostMethod, "{}");
  EXPECT_EQ(CodeOf(Parse(reply.body)), 104);
  EXPECT_EQ(reply.headers.at("connection"), "close");
}

TEST_F(HostDoors, Revoke_OpenConnections_AreRefusedAtEveryHostUntilANewCertificate) {
  HttpClient open(HostListener(0, &tls(2)));
  ASSERT_EQ(Post(open, kHostMethod), 0);
  ASSERT_EQ(CodeOf(Relay(2, 0, "whoami")), 0) << "which leaves a connection as well";
  ASSERT_EQ(Revoke(1, 2), 0);
  EXPECT_EQ(Post(open, kHostMethod), 104);
  for (const int to : {0, 1}) EXPECT_EQ(CodeOf(Relay(2, to, "whoami")), 104) << to;
  EXPECT_EQ(CodeOf(Relay(1, 0, "whoami")), 0);
  EXPECT_EQ(CertificateState(0, 2), "revoked");
  EXPECT_EQ(CertificateState(0, 1), "ok");
  EXPECT_THAT(json::StringMember(NewestEntry(0), "text"), HasSubstr("revoked"));
  // An administrator replaces the files, and the daemon notices.
  (void)authority().FilesOf(IdOf(2));
  EXPECT_TRUE(WithinAMinute([&] { return CodeOf(Relay(2, 0, "whoami")) == 0; })) << LogOf(2);
  EXPECT_EQ(CodeOf(Relay(2, 1, "whoami")), 0);
  EXPECT_EQ(CodeOf(Relay(0, 2, "whoami")), 0);
  EXPECT_TRUE(WithinAMinute([&] { return CertificateState(0, 2) == "ok"; }));
}

TEST_F(HostDoors, Revoke_UnknownHost_IsRefused) {
  EXPECT_EQ(CodeOf(Call(0, "VEXA.Virtualization.Host/revoke", std::string(R"({"host_id":")") + kStranger + "\"}")),
            403);
  EXPECT_EQ(Stored({"revoked", kStranger}), "");
}

// The certificate of the hosts names an id, which no user types; the one for users names the machine.
TEST_F(HostDoors, VexaLogin_NameInUsersCertificate_IsVerified) {
  (void)Login();  // adds grace
  const auto login = [&](const std::string& server, const std::string& authority) {
    ProcessOptions program;
    program.argv = {
        VEXA_PROGRAM,       "login", "--server", server, "--ca-file", folder_.File(authority + "/authority.pem"),
        "--password-stdin", "grace"};
    program.environment["XDG_CONFIG_HOME"] = folder_.File("config");
    program.input = "correct horse\n";
    return RunProcess(program);
  };
  const std::string server = UserListener(0).url;
  const auto done = login(server, "web");
  EXPECT_EQ(done.exit_code, 0) << done.errors;
  // The same listener by a name that is not in the certificate.
  const auto renamed = login("https://127.0.0.1" + server.substr(server.rfind(':')), "web");
  EXPECT_EQ(renamed.exit_code, 3);
  EXPECT_THAT(renamed.errors, HasSubstr("its certificate is not for the name '127.0.0.1'"));
  // The authority of the hosts says nothing about the listener for users.
  const auto foreign = login(server, "authority");
  EXPECT_EQ(foreign.exit_code, 3);
  EXPECT_THAT(foreign.errors, HasSubstr("is not signed by an authority that this machine trusts"));
}

TEST_F(HostDoors, NewSettings_LogNoAdvice) { EXPECT_THAT(LogOf(0), Not(HasSubstr("The setting"))); }

// Written for a version in which listeners had one purpose.
class OlderSettings : public HostDoors {
 protected:
  std::vector<std::string> NetworkFlags(int host) override {
    return {"--listen",           "none",
            "--cluster-listen",   "127.0.0.1:0",
            "--tls-certificate",  tls(host).certificate,
            "--tls-key",          tls(host).key,
            "--client-authority", tls(host).authority};
  }
};

TEST_F(OlderSettings, ClusterListen_IsTheDoorOfHosts_AndTheLogSaysWhatToChange) {
  EXPECT_EQ(CodeOf(Relay(0, 1, "whoami")), 0);
  HttpClient nobody(HostListener(0));
  EXPECT_EQ(Post(nobody, kUserMethod), -1);
  EXPECT_THAT(LogOf(0), HasSubstr("Set cluster-certificate and cluster-key for the hosts"));
  EXPECT_THAT(LogOf(0), HasSubstr("client-authority is named cluster-authority now"));
  EXPECT_THAT(LogOf(0), HasSubstr("Users can no longer log in at '127.0.0.1:0'"));
}

}  // namespace
}  // namespace vexa::test
