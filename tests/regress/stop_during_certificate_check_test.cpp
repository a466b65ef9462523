// A daemon whose certificate is on storage that hangs could not be stopped.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "host/base/files.h"
#include "host/transport/certificates.h"
#include "tests/regress/hanging_file.h"
#include "tests/support/require.h"
#include "tests/support/test_daemon.h"

namespace vexa::test {
namespace {

constexpr char kHost[] = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a09";

void MakeHostOfCluster(daemon::Config& config) {
  const std::string data = config.data_directory;
  std::filesystem::create_directory(data);
  std::filesystem::permissions(data, std::filesystem::perms::owner_all);
  const transport::Credentials authority = Require(transport::MakeAuthority());
  const transport::Credentials own = Require(transport::MakeHostCredentials(authority, kHost, {}));
  Require(WriteFileAtomically(data + "/host-id", std::string(kHost) + "\n", 0600));
  Require(WriteFileAtomically(data + "/authority.pem", authority.certificate, 0644));
  Require(WriteFileAtomically(data + "/cluster.pem", own.certificate, 0644));
  Require(WriteFileAtomically(data + "/cluster.key", own.key, 0600));
  config.cluster_listen = "127.0.0.1:0";
  config.cluster_certificate = data + "/cluster.pem";
  config.cluster_key = data + "/cluster.key";
  config.cluster_authority = data + "/authority.pem";
}

TEST(StopDuringCertificateCheck, Stop_CertificateOnHangingStorage_ReturnsAtDeadline) {
  TestDaemon daemon(MakeHostOfCluster);
  HangingFile certificate("/cluster.pem");
  ASSERT_TRUE(HangingFile::WaitUntilOpened());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(daemon.daemon().Stop(std::chrono::milliseconds(200))) << "the check still runs";
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  certificate.Release();
  EXPECT_TRUE(daemon.daemon().Stop(std::chrono::seconds(30)));
}

}  // namespace
}  // namespace vexa::test
