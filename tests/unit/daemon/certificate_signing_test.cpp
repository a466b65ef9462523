// For whom a host with the authority's key signs.
#include "host/daemon/certificate_signing.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include "host/base/files.h"
#include "host/records/host_membership.h"
#include "host/store/key.h"
#include "host/transport/certificates.h"
#include "host/transport/tls_material.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::daemon {
namespace {

using std::chrono::hours;
using std::chrono::system_clock;

constexpr char kHost[] = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";

class Signing : public testing::Test {
 protected:
  Signing()
      : authority_(Require(transport::MakeAuthority())),
        files_{folder_.File("authority.pem"), folder_.File("authority.key")},
        request_(Require(transport::MakeSigningRequest())) {
    Require(WriteFileAtomically(files_.certificate, authority_.certificate, 0644));
    Require(WriteFileAtomically(files_.key, authority_.key, 0600));
    Put(records::HostClaimKey(kHost), "{}");
  }
  void Put(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  void PutRevocation(system_clock::time_point before) {
    Put(store::MakeKey({records::kRevocations, kHost}),
        R"({"before":)" + std::to_string(system_clock::to_time_t(before)) + "}");
  }
  Result<std::string> Sign(const std::string& request, const std::string& host_id = kHost) {
    return SignForMember(host_.store(), files_, {host_id, issued_, request});
  }

  test::TempDir folder_;
  test::TestHost host_;
  const transport::Credentials authority_;
  const AuthorityFiles files_;
  const transport::SigningRequest request_;
  system_clock::time_point issued_ = system_clock::now() - hours(1);
};

TEST_F(Signing, Member_GetsACertificateForItsId) {
  const std::string certificate = Require(Sign(request_.request));
  transport::TlsMaterial made;
  made.certificate = certificate;
  made.key = request_.key;
  made.authority = authority_.certificate;
  EXPECT_TRUE(transport::CheckTlsMaterial(made, kHost, system_clock::now()).ok());
  const CertificateTimes times = transport::TimesOf(made);
  EXPECT_EQ(times.not_after - times.not_before, hours(24 * 30));
}

TEST_F(Signing, StrangerForgottenOrRevoked_GetsNone) {
  EXPECT_EQ(Sign(request_.request, "stranger").error().code(), ErrorCode::kDenied);
  PutRevocation(issued_ + hours(1));
  EXPECT_EQ(Sign(request_.request).error().code(), ErrorCode::kDenied);
  PutRevocation(issued_ - hours(1));
  EXPECT_TRUE(Sign(request_.request).ok());
  Put(records::HostClaimKey(kHost), R"({"forgotten":{"by":"root","time":1}})");
  EXPECT_EQ(Sign(request_.request).error().code(), ErrorCode::kDenied);
}

// The clock of the host that revoked was ahead of this one's.
TEST_F(Signing, RevocationInTheFuture_IsOutlivedWithinTheHour) {
  issued_ = system_clock::now() + hours(9);
  const auto before = std::chrono::floor<std::chrono::seconds>(system_clock::now()) + std::chrono::minutes(30);
  PutRevocation(before);
  transport::TlsMaterial made;
  made.certificate = Require(Sign(request_.request));
  EXPECT_EQ(transport::TimesOf(made).not_before, before);
  PutRevocation(system_clock::now() + hours(2));
  EXPECT_EQ(Sign(request_.request).error().code(), ErrorCode::kConflict);
}

std::string RequestWithRsaKey() {
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_RSA_gen(2048), EVP_PKEY_free);
  const std::unique_ptr<X509_REQ, void (*)(X509_REQ*)> request(X509_REQ_new(), X509_REQ_free);
  X509_REQ_set_pubkey(request.get(), key.get());
  EXPECT_GT(X509_REQ_sign(request.get(), key.get(), EVP_sha256()), 0);
  const std::unique_ptr<BIO, int (*)(BIO*)> text(BIO_new(BIO_s_mem()), BIO_free);
  EXPECT_EQ(PEM_write_bio_X509_REQ(text.get(), request.get()), 1);
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

// The key of one request, signed with that of another.
std::string RequestForForeignKey() {
  const auto parse = [](const std::string& pem) {
    const std::unique_ptr<BIO, int (*)(BIO*)> text(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    return std::unique_ptr<X509_REQ, void (*)(X509_REQ*)>(PEM_read_bio_X509_REQ(text.get(), nullptr, nullptr, nullptr),
                                                          X509_REQ_free);
  };
  const auto own = Require(transport::MakeSigningRequest());
  const std::unique_ptr<BIO, int (*)(BIO*)> key_text(BIO_new_mem_buf(own.key.data(), static_cast<int>(own.key.size())),
                                                     BIO_free);
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> own_key(
      PEM_read_bio_PrivateKey(key_text.get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
  const auto request = parse(Require(transport::MakeSigningRequest()).request);
  EXPECT_GT(X509_REQ_sign(request.get(), own_key.get(), EVP_sha256()), 0);
  const std::unique_ptr<BIO, int (*)(BIO*)> text(BIO_new(BIO_s_mem()), BIO_free);
  EXPECT_EQ(PEM_write_bio_X509_REQ(text.get(), request.get()), 1);
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

TEST_F(Signing, HostileRequest_IsRefused) {
  for (const std::string& request :
       {std::string(), std::string("junk"), authority_.certificate, RequestWithRsaKey(), RequestForForeignKey(),
        request_.request.substr(0, 100), request_.request + std::string(transport::kMaxRequestBytes, ' ')}) {
    EXPECT_EQ(Sign(request).error().code(), ErrorCode::kInvalid) << request.substr(0, 200);
  }
}

TEST_F(Signing, AuthorityFiles_AreChecked) {
  EXPECT_TRUE(CheckAuthorityFiles(files_).ok());
  ASSERT_EQ(::chmod(files_.key.c_str(), 0640), 0);
  EXPECT_EQ(CheckAuthorityFiles(files_).error().code(), ErrorCode::kDenied) << "others can read the key";
  EXPECT_FALSE(Sign(request_.request).ok());
  Require(WriteFileAtomically(files_.key, Require(transport::MakeAuthority()).key, 0600));
  EXPECT_EQ(CheckAuthorityFiles(files_).error().code(), ErrorCode::kInvalid) << "another authority's";
  EXPECT_EQ(CheckAuthorityFiles({files_.certificate, folder_.File("none")}).error().code(), ErrorCode::kNotFound);
}

}  // namespace
}  // namespace vexa::daemon
