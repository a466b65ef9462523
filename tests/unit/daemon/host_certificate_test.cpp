// Which certificate a host uses, and when it renews it.
#include "host/daemon/host_certificate.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>

#include "host/base/files.h"
#include "host/transport/certificates.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/waiting.h"

namespace vexa::daemon {
namespace {

using std::chrono::hours;
using std::chrono::system_clock;
using transport::Credentials;
using transport::TlsFiles;
using transport::Validity;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
constexpr hours kDay{24};

const auto kNow = system_clock::now();

TEST(RenewalDue, AfterTwoThirdsOrTwentyDays) {
  const struct {
    system_clock::duration age;
    system_clock::duration lifetime;
    bool is_due;
  } rows[] = {{hours(0), 30 * kDay, false},
              {20 * kDay - hours(1), 30 * kDay, false},
              {20 * kDay + hours(1), 30 * kDay, true},
              {hours(5), hours(6), true},
              {hours(3), hours(6), false},
              {19 * kDay, 3653 * kDay, false},
              {21 * kDay, 3653 * kDay, true},
              {-hours(2), 30 * kDay, true}};
  for (const auto& row : rows) {
    EXPECT_EQ(IsRenewalDue({kNow - row.age, kNow - row.age + row.lifetime}, kNow), row.is_due)
        << row.age.count() << " of " << row.lifetime.count();
  }
}

class Certificate : public testing::Test {
 protected:
  Certificate() : authority_(Require(transport::MakeAuthority())) {
    test::ClearCapturedSyslog();
    Write("authority.pem", authority_.certificate, 0644);
  }

  void Write(const std::string& name, const std::string& text, mode_t mode) const {
    Require(WriteFileAtomically(folder_.File(name), text, mode));
  }
  Credentials Make(const Validity& validity, const std::string& host_id = kHost) const {
    return Require(transport::MakeHostCredentials(authority_, host_id, validity));
  }
  void Configure(const Credentials& made) const {
    Write("host.pem", made.certificate, 0644);
    Write("host.key", made.key, 0600);
  }
  void PutRenewed(const Credentials& made) const { Write("renewed.pem", made.certificate + made.key, 0600); }
  HostCertificateOptions Options() {
    HostCertificateOptions options;
    options.host_id = kHost;
    options.configured = {folder_.File("host.pem"), folder_.File("host.key"), folder_.File("authority.pem")};
    options.renewed_file = folder_.File("renewed.pem");
    options.sign = [this](const std::string& request) -> Result<std::string> {
      ++requests_;
      if (refusal_) return *refusal_;
      return transport::SignHostCertificate(authority_, request, signed_id_, signed_validity_);
    };
    options.use = [this](const TlsFiles& files) {
      const std::lock_guard lock(mutex_);
      used_.push_back(files.certificate);
      return Status();
    };
    options.check_interval = std::chrono::milliseconds(10);
    return options;
  }
  static int LinesWith(const std::string& text) {
    int lines = 0;
    for (const test::SyslogLine& line : test::CapturedSyslog()) {
      lines += line.text.find(text) == std::string::npos ? 0 : 1;
    }
    return lines;
  }
  std::string Chosen() { return HostCertificate(Options()).files().certificate; }
  std::vector<std::string> used() {
    const std::lock_guard lock(mutex_);
    return used_;
  }

  test::TempDir folder_;
  const Credentials authority_;
  std::optional<Error> refusal_;
  std::string signed_id_ = kHost;
  Validity signed_validity_;
  std::atomic<int> requests_ = 0;
  std::mutex mutex_;
  std::vector<std::string> used_;
};

TEST_F(Certificate, Choice_IsTheOneIssuedLast) {
  Configure(Make({kNow - 2 * kDay}));
  EXPECT_EQ(Chosen(), folder_.File("host.pem"));
  PutRenewed(Make({kNow - kDay}));
  EXPECT_EQ(Chosen(), folder_.File("renewed.pem"));
  Configure(Make({kNow - hours(1)}));
  EXPECT_EQ(Chosen(), folder_.File("host.pem")) << "an administrator has replaced it";
}

TEST_F(Certificate, Choice_IgnoresWhatCannotBeUsed) {
  Configure(Make({kNow - 2 * kDay}));
  const Credentials foreign = Require(transport::MakeAuthority());
  const Credentials rows[] = {Make({kNow + hours(2)}),  // from the future
                              Make({kNow - kDay, hours(1)}),
                              Make({kNow - kDay}, "other-host"),
                              Require(transport::MakeHostCredentials(foreign, kHost)),
                              {Make({kNow}).certificate, Make({kNow}).key}};
  for (const Credentials& row : rows) {
    test::ClearCapturedSyslog();
    PutRenewed(row);
    EXPECT_EQ(Chosen(), folder_.File("host.pem"));
    EXPECT_TRUE(test::SyslogContains("renewed.pem' cannot be used"));
  }
  Write("renewed.pem", "junk", 0600);
  EXPECT_EQ(Chosen(), folder_.File("host.pem"));
  PutRenewed(Make({kNow - kDay}));
  Configure(Make({kNow + hours(2)}));
  EXPECT_EQ(Chosen(), folder_.File("renewed.pem")) << "the configured one is from the future";
}

TEST_F(Certificate, Due_IsRenewedAndUsed) {
  Configure(Make({kNow - 21 * kDay}));
  HostCertificate certificate(Options());
  const auto before = certificate.times();
  certificate.Start();
  EXPECT_TRUE(test::Eventually([&] { return certificate.times().not_before > before.not_before; }));
  EXPECT_EQ(used(), std::vector<std::string>{folder_.File("renewed.pem")});
  EXPECT_EQ(Chosen(), folder_.File("renewed.pem")) << "also after a restart";
}

TEST_F(Certificate, Due_ConfiguredOneIsBroken_IsRenewed) {
  const std::function<void()> damages[] = {[this] { Write("host.pem", "junk", 0644); },
                                           [this] { Write("host.key", "junk", 0600); },
                                           [this] { std::filesystem::remove(folder_.File("host.pem")); }};
  for (const auto& damage : damages) {
    Configure(Make({kNow - 25 * kDay}));
    damage();
    PutRenewed(Make({kNow - 21 * kDay}));
    HostCertificate certificate(Options());
    const auto before = certificate.times();
    ASSERT_EQ(certificate.files().certificate, folder_.File("renewed.pem"));
    certificate.Start();
    EXPECT_TRUE(test::Eventually([&] { return certificate.times().not_before > before.not_before; }));
  }
}

TEST_F(Certificate, Due_AuthorityIsBroken_NothingIsSigned) {
  Configure(Make({kNow - 21 * kDay}));
  HostCertificate certificate(Options());
  Write("authority.pem", "junk", 0644);
  certificate.Start();
  EXPECT_TRUE(test::Eventually([&] {
    return test::SyslogContains("could not be renewed: The authority's certificate cannot be read: Cannot use '" +
                                folder_.File("authority.pem") + "': it does not contain a certificate. 'vexa cluster");
  }));
  EXPECT_EQ(requests_, 0);
}

TEST_F(Certificate, NotDue_IsNotRenewed_AndAReplacedOneIsUsed) {
  Configure(Make({kNow - kDay}));
  HostCertificate certificate(Options());
  certificate.Start();
  Configure(Make({kNow - hours(1)}));
  EXPECT_TRUE(test::Eventually([&] { return !used().empty(); }));
  EXPECT_EQ(requests_, 0);
}

TEST_F(Certificate, FromTheFuture_IsRenewed) {
  Configure(Make({kNow + 3 * kDay}));
  HostCertificate certificate(Options());
  certificate.Start();
  EXPECT_TRUE(test::Eventually([&] { return !used().empty(); }));
  EXPECT_LT(certificate.times().not_before, system_clock::now() + hours(1));
}

// A host with a wrong clock signs, or one that signs for whomever it wants.
TEST_F(Certificate, SignedWrongly_IsNotStored) {
  const auto old = Make({kNow - 21 * kDay});
  const std::pair<std::string, Validity> rows[] = {
      {kHost, {kNow + hours(2)}}, {kHost, {kNow - 3 * kDay, hours(2)}}, {"other-host", {kNow}}};
  for (const auto& [id, validity] : rows) {
    test::ClearCapturedSyslog();
    signed_id_ = id;
    signed_validity_ = validity;
    Configure(old);
    HostCertificate certificate(Options());
    certificate.Start();
    EXPECT_TRUE(test::Eventually([] { return test::SyslogContains("The new certificate cannot be used"); }));
    EXPECT_FALSE(ReadFile(folder_.File("renewed.pem"), 65'536).ok());
    EXPECT_TRUE(used().empty());
  }
}

TEST_F(Certificate, RenewalFails_IsLoggedOnceADay_AndRepeated) {
  refusal_ = Error(ErrorCode::kUnavailable, "no reply");
  Configure(Make({kNow - 21 * kDay}));
  HostCertificate certificate(Options());
  certificate.Start();
  EXPECT_TRUE(test::Eventually([&] { return requests_ >= 2; })) << "after a pause";
  EXPECT_EQ(LinesWith("could not be renewed: no reply"), 1);
}

TEST_F(Certificate, RenewalFails_ForAnotherReason_IsLoggedImmediately) {
  Configure(Make({kNow - 21 * kDay}));
  HostCertificateOptions options = Options();
  options.first_pause = std::chrono::milliseconds(1);
  options.sign = [this](const std::string&) -> Result<std::string> {
    return Error(ErrorCode::kUnavailable, ++requests_ % 2 == 1 ? "no reply" : "the file cannot be read");
  };
  HostCertificate certificate(std::move(options));
  certificate.Start();
  EXPECT_TRUE(test::Eventually([&] { return requests_ >= 5; }));
  certificate.Stop();
  EXPECT_EQ(LinesWith(" and could not be renewed: no reply. 'vexa cluster certificate --replace' makes a new one."), 1);
  EXPECT_EQ(LinesWith("could not be renewed: the file cannot be read."), 1);
}

TEST_F(Certificate, RenewalFails_ForManyReasons_TenAreLogged) {
  Configure(Make({kNow - 21 * kDay}));
  HostCertificateOptions options = Options();
  options.first_pause = std::chrono::milliseconds(1);
  options.sign = [this](const std::string&) -> Result<std::string> {
    return Error(ErrorCode::kUnavailable, "reason " + std::to_string(++requests_));
  };
  HostCertificate certificate(std::move(options));
  certificate.Start();
  EXPECT_TRUE(test::Eventually([&] { return requests_ >= 12; }));
  certificate.Stop();
  EXPECT_EQ(LinesWith("could not be renewed: reason "), 10);
}

TEST_F(Certificate, NeitherCanBeUsed_EachIsLoggedOnce) {
  refusal_ = Error(ErrorCode::kUnavailable, "no reply");
  Configure(Make({kNow - 3 * kDay, kDay}));
  PutRenewed(Make({kNow + 3 * kDay}));
  HostCertificate certificate(Options());
  certificate.Start();
  EXPECT_TRUE(test::Eventually([&] { return requests_ >= 2; })) << "many checks later";
  for (const char* file : {"host.pem'", "renewed.pem'"}) {
    EXPECT_EQ(LinesWith(std::string(file) + " cannot be used"), 1) << file;
  }
}

TEST_F(Certificate, NoHostCanSign_IsLoggedOnlyInTheLastTwoWeeks) {
  refusal_ = Error(ErrorCode::kNotFound, "no key anywhere");
  const auto logs = [this](system_clock::duration age) {
    test::ClearCapturedSyslog();
    requests_ = 0;
    Configure(Make({kNow - age, 90 * kDay}));
    HostCertificate certificate(Options());
    certificate.Start();
    EXPECT_TRUE(test::Eventually([&] { return requests_ >= 1; }));
    certificate.Stop();
    return test::SyslogContains("no key anywhere");
  };
  EXPECT_FALSE(logs(75 * kDay));
  EXPECT_TRUE(logs(77 * kDay));
  EXPECT_TRUE(logs(91 * kDay)) << "it has expired";
}

TEST_F(Certificate, CallbackThrows_TheThreadContinues) {
  Configure(Make({kNow - 21 * kDay}));
  HostCertificateOptions options = Options();
  std::atomic<int> calls = 0;
  options.sign = [&](const std::string&) -> Result<std::string> {
    ++calls;
    throw std::bad_alloc();
  };
  HostCertificate certificate(std::move(options));
  certificate.Start();
  EXPECT_TRUE(test::Eventually([&] { return calls >= 3; }));
}

}  // namespace
}  // namespace vexa::daemon
