// Hosts renew their certificates.
#include <signal.h>
#include <sys/stat.h>

#include "host/base/files.h"
#include "tests/system/host_door_fixture.h"

namespace vexa::test {
namespace {

using std::chrono::hours;
using std::chrono::seconds;
using std::chrono::system_clock;
using testing::HasSubstr;

// Certificates that are 25 of 30 days old.
class OldCertificates : public HostDoors {
 protected:
  transport::TlsFiles MakeFiles(const TestAuthority& authority, int host) override {
    return authority.FilesOf(IdOf(host), "", {system_clock::now() - hours(24 * 25), hours(24 * 30)});
  }
  std::string RenewedFile(int host) const { return Folder(host) + "/host-certificate.pem"; }
};

class Renewal : public OldCertificates {
 protected:
  // One host has the authority's key.
  std::vector<std::string> NetworkFlags(int host) override {
    std::vector<std::string> flags = HostDoors::NetworkFlags(host);
    if (host != 1) return flags;
    flags.emplace_back("--authority-key");
    flags.push_back(folder_.File("authority/authority.key"));
    return flags;
  }
};

TEST_F(Renewal, AuthorityKeyOnOneHost_AllCertificatesAreRenewedWithoutLosingACall) {
  const auto renewed = [this] {
    for (int host = 0; host < kHosts; ++host) {
      if (LogOf(host).find("Other hosts see a new certificate") == std::string::npos) return false;
    }
    return true;
  };
  EXPECT_TRUE(WithinAMinute([&] {
    for (int from = 0; from < kHosts; ++from) {
      EXPECT_EQ(CodeOf(Relay(from, (from + 1) % kHosts, "whoami")), 0);
    }
    return renewed();
  }));
  for (int host = 0; host < kHosts; ++host) {
    struct stat file {};
    ASSERT_EQ(::stat(RenewedFile(host).c_str(), &file), 0) << host;
    EXPECT_EQ(file.st_mode & 0777, 0600u);
    EXPECT_TRUE(WithinAMinute([&] { return CertificateState(0, host) == "ok"; })) << host;
  }
  // The old certificates are not used any more: calls go on when they are revoked, and when a host starts again.
  const auto now = std::chrono::duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
  const std::string revocation = R"({"before":)" + std::to_string(now - 86'400) + "}";
  ASSERT_TRUE(database().Commit({{}, {{"/revoked/" + IdOf(0), revocation}, {"/revoked/" + IdOf(2), revocation}}}).ok());
  EXPECT_EQ(CodeOf(Relay(0, 2, "whoami")), 0);
  EXPECT_EQ(CodeOf(Relay(2, 0, "whoami")), 0);
  hosts_[2]->Signal(SIGTERM);
  ASSERT_TRUE(hosts_[2]->Wait(seconds(60)));
  ASSERT_NO_FATAL_FAILURE(Restart(2));
  EXPECT_EQ(CodeOf(Relay(2, 0, "whoami")), 0);
  HttpClient with_old(HostListener(0, &tls(2)));
  EXPECT_EQ(Post(with_old, kHostMethod), 104);
}

TEST_F(Renewal, Signing_IsForMembersAndTheirOwnId) {
  constexpr const char* kSign = "/webapi/VEXA.CCC.Cluster.Member/certificate_sign";
  const auto request = transport::MakeSigningRequest();
  ASSERT_TRUE(request.ok());
  Json::Value parameters(Json::objectValue);
  parameters["request"] = request->request;
  parameters["host_id"] = IdOf(0);  // means nothing
  const std::string body = json::ToText(parameters);
  const transport::TlsFiles stranger = authority().FilesOf("stranger", kStranger);
  HttpClient as_stranger(HostListener(1, &stranger));
  EXPECT_EQ(Post(as_stranger, kSign, body), 104);
  HttpClient as_member(HostListener(1, &tls(2)));
  EXPECT_EQ(Post(as_member, kSign, R"({"request":"junk"})"), 401);
  EXPECT_EQ(Post(as_member, kSign, R"({"request":5})"), 401);
  const Json::Value reply = Parse(as_member.PostJson(kSign, body).body);
  transport::TlsMaterial made;
  made.certificate = json::StringMember(json::Member(reply, "data"), "certificate");
  made.key = request->key;
  made.authority = authority().credentials().certificate;
  const Status checked = transport::CheckTlsMaterial(made, IdOf(2), system_clock::now());
  EXPECT_TRUE(checked.ok()) << checked.error().ToString();
  // The items of a compound request are calls in the name of the host that is asked.
  Json::Value compound(Json::objectValue);
  compound["compound"][0]["api"] = "VEXA.CCC.Cluster.Member";
  compound["compound"][0]["method"] = "certificate_sign";
  for (const std::string& name : parameters.getMemberNames()) compound["compound"][0][name] = parameters[name];
  const Json::Value items =
      Parse(as_member.PostJson("/webapi/VEXA.Entry.Request/request", json::ToText(compound)).body);
  EXPECT_EQ(CodeOf(json::Element(json::Member(json::Member(items, "data"), "result"), 0)), 403) << json::ToText(items);
  HttpClient elsewhere(HostListener(0, &tls(2)));
  EXPECT_EQ(Post(elsewhere, kSign, body), 403) << "a host without the key";
}

TEST_F(OldCertificates, NoAuthorityKey_TheExpiryIsLoggedAndListed) {
  for (int host = 0; host < kHosts; ++host) {
    EXPECT_TRUE(hosts_[static_cast<std::size_t>(host)]->WaitForText("could not be renewed", seconds(60)));
    EXPECT_THAT(LogOf(host), HasSubstr("No host that can be reached has the authority's key"));
    EXPECT_EQ(CertificateState(0, host), "expiring");
    EXPECT_FALSE(ReadFile(RenewedFile(host), 65'536).ok());
  }
  EXPECT_EQ(CodeOf(Relay(0, 1, "whoami")), 0);
}

}  // namespace
}  // namespace vexa::test
