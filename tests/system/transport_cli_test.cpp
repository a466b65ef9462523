// `vexa cluster` as a program, and the daemon's settings for a cluster.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "host/base/files.h"
#include "host/daemon/config.h"
#include "host/transport/transport.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {
namespace {

constexpr const char* kHost = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";

class ClusterCommand : public testing::Test {
 protected:
  ProcessResult Run(std::vector<std::string> words) const {
    ProcessOptions options;
    options.argv = {VEXA_PROGRAM, "cluster"};
    options.argv.insert(options.argv.end(), words.begin(), words.end());
    return RunProcess(options);
  }
  ProcessResult Certificate(const std::string& host_id, std::vector<std::string> extra_members = {}) const {
    std::vector<std::string> words{"certificate", "--dir", authority_, "--host-id", host_id, "--out", out_};
    words.insert(words.end(), extra_members.begin(), extra_members.end());
    return Run(std::move(words));
  }
  std::string Content(const std::string& path) const {
    const auto content = ReadFile(path, 65'536);
    EXPECT_TRUE(content.ok()) << path;
    return content.ok() ? *content : std::string();
  }
  static mode_t ModeOf(const std::string& path) {
    struct stat file {};
    EXPECT_EQ(::stat(path.c_str(), &file), 0) << path;
    return file.st_mode & 07777;
  }

  TempDir folder_;
  std::string authority_ = folder_.File("new/authority");
  std::string out_ = folder_.File("new/host");
};

TEST_F(ClusterCommand, Help_NamesCommandsAndSettingsAsTheyAreTyped) {
  const ProcessResult help = Run({"--help"});
  ASSERT_EQ(help.exit_code, 0);
  for (const char* text : {"vexa cluster init --dir /root/cluster\n", " --out host1\n", "cluster-certificate",
                           "cluster-key", "cluster-authority", "cluster-listen", "\"address:port\". The files"}) {
    EXPECT_NE(help.output.find(text), std::string::npos) << text << " in " << help.output;
  }
}

TEST_F(ClusterCommand, InitAndCertificate_FilesAreAcceptedByHost) {
  ASSERT_EQ(Run({"init", "--dir", authority_}).exit_code, 0);
  EXPECT_EQ(ModeOf(authority_), 0700u);
  EXPECT_EQ(ModeOf(authority_ + "/authority.key"), 0600u);
  EXPECT_EQ(ModeOf(authority_ + "/authority.pem"), 0644u);
  const ProcessResult made = Certificate(kHost);
  ASSERT_EQ(made.exit_code, 0) << made.errors;
  EXPECT_EQ(ModeOf(out_ + "/host.key"), 0600u);
  EXPECT_EQ(ModeOf(out_ + "/host.pem"), 0644u);
  EXPECT_EQ(made.output.find("PRIVATE"), std::string::npos);
  EXPECT_NE(made.output.find("expires in 30 days"), std::string::npos) << made.output;
  transport::TransportOptions options;
  options.host_id = kHost;
  options.remote = transport::TransportOptions::Remote::kTls;
  options.tls = {out_ + "/host.pem", out_ + "/host.key", out_ + "/authority.pem"};
  const auto usable = transport::Transport::Make(options);
  EXPECT_TRUE(usable.ok()) << usable.error().ToString();
}

TEST_F(ClusterCommand, Init_AuthorityExists_KeepsIt) {
  ASSERT_EQ(Run({"init", "--dir", authority_}).exit_code, 0);
  const std::string key = Content(authority_ + "/authority.key");
  const ProcessResult again = Run({"init", "--dir", authority_});
  EXPECT_EQ(again.exit_code, 1);
  EXPECT_NE(again.errors.find("already exists"), std::string::npos) << again.errors;
  EXPECT_EQ(Content(authority_ + "/authority.key"), key);
}

TEST_F(ClusterCommand, Certificate_Exists_NeedsReplaceOption) {
  ASSERT_EQ(Run({"init", "--dir", authority_}).exit_code, 0);
  ASSERT_EQ(Certificate(kHost).exit_code, 0);
  const std::string key = Content(out_ + "/host.key");
  EXPECT_EQ(Certificate(kHost).exit_code, 1);
  EXPECT_EQ(Content(out_ + "/host.key"), key);
  EXPECT_EQ(Certificate(kHost, {"--replace"}).exit_code, 0);
  const ProcessResult longer = Certificate(kHost, {"--replace", "--days", "365"});
  EXPECT_NE(longer.output.find("expires in 365 days"), std::string::npos) << longer.output;
  EXPECT_EQ(Certificate(kHost, {"--replace", "--days", "0"}).exit_code, 2);
  EXPECT_NE(Content(out_ + "/host.key"), key);
}

TEST_F(ClusterCommand, Command_InvalidInput_CreatesNothing) {
  EXPECT_EQ(Certificate(kHost).exit_code, 1) << "there is no authority";
  ASSERT_EQ(Run({"init", "--dir", authority_}).exit_code, 0);
  for (const char* id : {"../x", "a,DNS:b", "", "a.b", "a b"}) EXPECT_NE(Certificate(id).exit_code, 0) << id;
  ASSERT_EQ(::chmod((authority_ + "/authority.key").c_str(), 0644), 0);
  EXPECT_EQ(Certificate(kHost).exit_code, 1) << "others could read the authority's key";
  struct stat file {};
  EXPECT_NE(::stat(out_.c_str(), &file), 0);
  EXPECT_EQ(Run({}).exit_code, 2);
  EXPECT_EQ(Run({"init"}).exit_code, 2);
}

struct ClusterSetting {
  const char* name;
  const char* listen;
  const char* address;
  const char* authority;
  const char* reason;            // part of the refusal; empty: accepted
  const char* certificate = "";  // cluster-certificate
  const char* key = "";          // cluster-key
  const char* authority_key = "";
};

const ClusterSetting kClusterSettings[] = {
    {"None", "", "", "", ""},
    {"ListenOnly", "10.0.0.1:8643", "", "a.pem", ""},
    {"AnyPort", "127.0.0.1:0", "", "a.pem", ""},
    {"ListenEverywhereWithAddress", "0.0.0.0:8643", "10.0.0.1:8643", "a.pem", ""},
    {"ListenEverywhere", "0.0.0.0:8643", "", "a.pem", "cluster-address"},
    {"ListenEverywhereV6", "[::]:8643", "", "a.pem", "cluster-address"},
    {"WildcardAddress", "0.0.0.0:8643", "[::]:8643", "a.pem", "cluster-address"},
    {"AddressWithoutPort", "0.0.0.0:8643", "10.0.0.1:0", "a.pem", "cluster-address"},
    {"NameAsAddress", "10.0.0.1:8643", "nas:8643", "a.pem", "not an address"},
    {"NoAuthority", "10.0.0.1:8643", "", "", "cluster-authority"},
    {"AddressWithoutListen", "", "10.0.0.1:8643", "a.pem", "cluster-listen"},
    {"OwnCertificate", "10.0.0.1:8643", "", "a.pem", "", "h.pem", "h.key", "a.key"},
    {"CertificateWithoutKey", "10.0.0.1:8643", "", "a.pem", "go together", "h.pem", ""},
    {"KeyWithoutCertificate", "10.0.0.1:8643", "", "a.pem", "go together", "", "h.key"},
    {"CertificateWithoutListen", "", "", "", "'cluster-certificate' needs 'cluster-listen'", "h.pem", "h.key"},
    {"AuthorityKeyWithoutListen", "", "", "", "'authority-key' needs 'cluster-listen'", "", "", "a.key"},
};

class ClusterConfig : public testing::TestWithParam<ClusterSetting> {};

TEST_P(ClusterConfig, Setting_EachRow_IsAcceptedOrRefusedWithReason) {
  const ClusterSetting& row = GetParam();
  daemon::Config config;
  config.tls_certificate = "c.pem";
  config.tls_key = "c.key";
  config.client_authority = row.authority;
  config.cluster_listen = row.listen;
  config.cluster_address = row.address;
  config.cluster_certificate = row.certificate;
  config.cluster_key = row.key;
  config.authority_key = row.authority_key;
  std::string lines;
  for (const daemon::ConfigProblem& problem : daemon::CheckConfig(config)) lines += daemon::ToLine(problem) + "\n";
  EXPECT_EQ(lines.empty(), *row.reason == '\0') << lines;
  EXPECT_NE(lines.find(row.reason), std::string::npos) << lines;
}

INSTANTIATE_TEST_SUITE_P(Rows, ClusterConfig, testing::ValuesIn(kClusterSettings),
                         [](const auto& test) { return std::string(test.param.name); });

daemon::Config ConfigWithListeners() {
  daemon::Config config;
  config.socket = "/s";
  config.listen = {"127.0.0.1:1"};
  config.cluster_listen = "127.0.0.1:2";
  config.tls_certificate = "users.pem";
  config.tls_key = "users.key";
  return config;
}

TEST(ClusterListeners, OnlyTheOneForHosts_AsksForCertificates) {
  daemon::Config config = ConfigWithListeners();
  config.cluster_certificate = "host.pem";
  config.cluster_key = "host.key";
  config.cluster_authority = "authority.pem";
  const auto listeners = daemon::ListenersOf(config);
  ASSERT_TRUE(listeners.ok());
  ASSERT_EQ(listeners->size(), 3u);
  EXPECT_EQ((*listeners)[1].certificate_file, "users.pem");
  EXPECT_EQ((*listeners)[1].client_authority_file, "");
  EXPECT_EQ((*listeners)[2].certificate_file, "host.pem");
  EXPECT_EQ((*listeners)[2].key_file, "host.key");
  EXPECT_EQ((*listeners)[2].client_authority_file, "authority.pem");
  EXPECT_TRUE(daemon::OutdatedSettings(config).empty());
}

TEST(ClusterListeners, OlderSettings_KeepWorkingAndAreReported) {
  daemon::Config config = ConfigWithListeners();
  config.client_authority = "authority.pem";
  ASSERT_TRUE(daemon::CheckConfig(config).empty());
  const auto listeners = daemon::ListenersOf(config);
  ASSERT_TRUE(listeners.ok());
  EXPECT_EQ((*listeners)[1].client_authority_file, "") << "users need no certificate";
  EXPECT_EQ((*listeners)[2].certificate_file, "users.pem");
  EXPECT_EQ((*listeners)[2].client_authority_file, "authority.pem");
  EXPECT_EQ(daemon::OutdatedSettings(config).size(), 2u);
  config.listen.clear();
  EXPECT_EQ(daemon::OutdatedSettings(config).size(), 3u) << "users cannot log in";
  config.cluster_listen.clear();
  EXPECT_EQ(daemon::OutdatedSettings(config).size(), 1u) << "the authority has no effect";
}

}  // namespace
}  // namespace vexa::test
