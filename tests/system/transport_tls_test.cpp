// Which callers and servers are accepted as hosts.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include "host/base/files.h"
#include "tests/system/transport_test_support.h"

namespace vexa::test {
namespace {

using VexaCCC::Sender;

constexpr const char* kHost = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
constexpr const char* kOther = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a02";

http::ListenerOptions ListenerWith(const transport::TlsFiles& files) {
  http::ListenerOptions listener;
  listener.certificate_file = files.certificate;
  listener.key_file = files.key;
  listener.client_authority_file = files.authority;
  return listener;
}

// Reports who called.
JsonHost MakeHost(const transport::TlsFiles& files) {
  return JsonHost(
      [](const http::HttpRequest& request, const http::Responder& responder) {
        http::HttpResponse response;
        response.body = R"({"success":true,"data":")" + request.peer.certificate_name + "\"}";
        responder.Send(std::move(response));
      },
      ListenerWith(files));
}

using Bio = std::unique_ptr<BIO, int (*)(BIO*)>;

// A host's files whose certificate has one id as its DNS name and another one as its common name.
transport::TlsFiles FilesOfTwoNames(const TempDir& folder, const transport::Credentials& authority,
                                    const std::string& dns_name, const std::string& common_name) {
  const auto host = transport::MakeHostCredentials(authority, dns_name);
  EXPECT_TRUE(host.ok());
  const auto read = [](const std::string& text) { return Bio(BIO_new_mem_buf(text.data(), -1), BIO_free); };
  const std::unique_ptr<X509, void (*)(X509*)> certificate(
      PEM_read_bio_X509(read(host->certificate).get(), nullptr, nullptr, nullptr), X509_free);
  const std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> signer(
      PEM_read_bio_PrivateKey(read(authority.key).get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
  const std::unique_ptr<X509_NAME, void (*)(X509_NAME*)> name(X509_NAME_new(), X509_NAME_free);
  X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1, 0);
  EXPECT_EQ(X509_set_subject_name(certificate.get(), name.get()), 1);
  EXPECT_GT(X509_sign(certificate.get(), signer.get(), EVP_sha256()), 0);
  const Bio text(BIO_new(BIO_s_mem()), BIO_free);
  EXPECT_EQ(PEM_write_bio_X509(text.get(), certificate.get()), 1);
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  const transport::TlsFiles files{folder.File("two.pem"), folder.File("two.key"), folder.File("two-authority.pem")};
  EXPECT_TRUE(WriteFileAtomically(files.certificate, std::string(data, static_cast<std::size_t>(size)), 0644).ok());
  EXPECT_TRUE(WriteFileAtomically(files.key, host->key, 0600).ok());
  EXPECT_TRUE(WriteFileAtomically(files.authority, authority.certificate, 0644).ok());
  return files;
}

class TransportTls : public testing::Test {
 protected:
  TransportTls()
      : authority_(folder_.File("ours")), foreign_(folder_.File("theirs")), own_(authority_.FilesOf(kLocalHost)) {}

  VexaDRCore::Response Ask(const std::string& address) {
    const InstalledTransport transport({{kHost, address}}, own_, kLocalHost);
    return Sender(kHost).process(MakeRequest(10));
  }

  TempDir folder_;
  TestAuthority authority_;
  TestAuthority foreign_;
  transport::TlsFiles own_;
};

TEST_F(TransportTls, Hosts_SameAuthority_Connect) {
  const JsonHost host = MakeHost(authority_.FilesOf(kHost));
  EXPECT_EQ(Ask(host.address()).getData(), Json::Value(kLocalHost));
}

TEST_F(TransportTls, Host_CertificateOfOtherHost_IsRefused) {
  const JsonHost host = MakeHost(authority_.FilesOf(kOther));
  EXPECT_NE(FailureOf(Ask(host.address())), "");
  EXPECT_EQ(host.requests(), 0);
}

TEST_F(TransportTls, Host_OnlyOneOfTwoNamesMatches_IsRefused) {
  const auto authority = transport::MakeAuthority();
  ASSERT_TRUE(authority.ok());
  const auto own = transport::MakeHostCredentials(*authority, kLocalHost);
  ASSERT_TRUE(own.ok());
  own_ = {folder_.File("own.pem"), folder_.File("own.key"), folder_.File("own-authority.pem")};
  ASSERT_TRUE(WriteFileAtomically(own_.certificate, own->certificate, 0644).ok());
  ASSERT_TRUE(WriteFileAtomically(own_.key, own->key, 0600).ok());
  ASSERT_TRUE(WriteFileAtomically(own_.authority, authority->certificate, 0644).ok());
  const auto ask = [&](const char* dns_name, const char* common_name) {
    const JsonHost host = MakeHost(FilesOfTwoNames(folder_, *authority, dns_name, common_name));
    return Ask(host.address());
  };
  EXPECT_EQ(ask(kHost, kHost).getData(), Json::Value(kLocalHost));
  EXPECT_NE(FailureOf(ask(kHost, kOther)), "");
  EXPECT_NE(FailureOf(ask(kOther, kHost)), "");
}

TEST_F(TransportTls, Host_ForeignAuthority_IsRefused) {
  transport::TlsFiles files = foreign_.FilesOf(kHost);
  const JsonHost host = MakeHost(files);
  EXPECT_NE(FailureOf(Ask(host.address())), "");
  EXPECT_EQ(host.requests(), 0);
}

TEST_F(TransportTls, Caller_ForeignAuthority_IsRefused) {
  const JsonHost host = MakeHost(authority_.FilesOf(kHost));
  own_ = foreign_.FilesOf(kLocalHost);
  own_.authority = folder_.File("ours/authority.pem");  // believes the host, which does not believe it
  EXPECT_NE(FailureOf(Ask(host.address())), "");
  EXPECT_EQ(host.requests(), 0);
}

TEST_F(TransportTls, Host_CertificateNotValidNow_IsRefusedExceptForSmallDifferencesOfClocks) {
  using std::chrono::hours;
  using std::chrono::minutes;
  const auto now = std::chrono::system_clock::now();
  const auto ask = [&](const transport::Validity& validity) {
    const JsonHost host = MakeHost(authority_.FilesOf(kHost, "", validity));
    return Ask(host.address());
  };
  EXPECT_EQ(ask({now + minutes(50), hours(24)}).getData(), Json::Value(kLocalHost));
  EXPECT_NE(FailureOf(ask({now + minutes(70), hours(24)})), "");
  EXPECT_NE(FailureOf(ask({now - hours(3), hours(2)})), "");
}

TEST_F(TransportTls, Certificate_Replaced_IsUsedForNextCall) {
  const JsonHost host = MakeHost(authority_.FilesOf(kHost));
  const InstalledTransport transport({{kHost, host.address()}}, own_, kLocalHost);
  EXPECT_TRUE(Sender(kHost).process(MakeRequest(10)).isSuccess());
  const auto installed = transport::CurrentTransport();
  EXPECT_EQ(installed->ReplaceTls(authority_.FilesOf(kOther)).error().code(), ErrorCode::kInvalid) << "of another host";
  EXPECT_TRUE(Sender(kHost).process(MakeRequest(10)).isSuccess());
  // With one that the host does not accept, because a replacement without effect would not show otherwise.
  transport::TlsFiles foreign = foreign_.FilesOf(kLocalHost);
  foreign.authority = own_.authority;
  ASSERT_TRUE(installed->ReplaceTls(foreign).ok());
  EXPECT_NE(FailureOf(Sender(kHost).process(MakeRequest(10))), "");
  ASSERT_TRUE(installed->ReplaceTls(authority_.FilesOf(kLocalHost)).ok());
  EXPECT_TRUE(Sender(kHost).process(MakeRequest(10)).isSuccess());
}

TEST_F(TransportTls, Host_Tls12Only_IsRefused) {
  const transport::TlsFiles files = authority_.FilesOf(kHost);
  std::atomic<bool> finished{false};
  const RawHost host([&](int fd) {
    SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
    SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_use_certificate_chain_file(context, files.certificate.c_str());
    SSL_CTX_use_PrivateKey_file(context, files.key.c_str(), SSL_FILETYPE_PEM);
    SSL* const ssl = SSL_new(context);
    SSL_set_fd(ssl, fd);
    if (SSL_accept(ssl) == 1) finished = true;
    ERR_clear_error();
    SSL_free(ssl);
    SSL_CTX_free(context);
  });
  EXPECT_NE(FailureOf(Ask(host.address())), "");
  EXPECT_FALSE(finished);
}

TEST_F(TransportTls, Host_WithoutTls_IsRefused) {
  const JsonHost host{std::string(R"({"success":true})")};
  EXPECT_NE(FailureOf(Ask(host.address())), "");
  EXPECT_EQ(host.requests(), 0);
}

TEST_F(TransportTls, Start_UnusableTlsFiles_IsRefused) {
  const auto code_of = [](transport::TlsFiles files, const std::string& host_id) {
    transport::TransportOptions options;
    options.host_id = host_id;
    options.remote = transport::TransportOptions::Remote::kTls;
    options.tls = std::move(files);
    const auto made = transport::Transport::Make(std::move(options));
    return made.ok() ? std::string("none") : std::string(ErrorCodeName(made.error().code()));
  };
  EXPECT_EQ(code_of(own_, kLocalHost), "none");
  EXPECT_EQ(code_of(own_, kOther), "invalid") << "the certificate of another host";
  transport::TlsFiles files = own_;
  files.key = authority_.FilesOf(kOther).key;
  EXPECT_EQ(code_of(files, kLocalHost), "invalid") << "the key of another certificate";
  files.key = folder_.File("missing");
  EXPECT_EQ(code_of(files, kLocalHost), "not_found");
  files = own_;
  files.authority = folder_.File("junk");
  ASSERT_TRUE(WriteFileAtomically(files.authority, "junk", 0644).ok());
  EXPECT_EQ(code_of(files, kLocalHost), "invalid");
  ASSERT_EQ(::chmod(own_.key.c_str(), 0640), 0);
  EXPECT_EQ(code_of(own_, kLocalHost), "denied") << "a key that others can read";
}

TEST(Certificates, Certificate_InvalidHostId_IsRefused) {
  const auto authority = transport::MakeAuthority();
  ASSERT_TRUE(authority.ok());
  for (const std::string& id : {std::string(""), std::string("a,DNS:b"), std::string("*"), std::string("a.b"),
                                std::string("a\0b", 3), std::string("a\nb"), std::string(64, 'a'), std::string("-a")}) {
    EXPECT_FALSE(transport::MakeHostCredentials(*authority, id).ok()) << id;
  }
}

TEST(Certificates, Certificate_OfHost_CannotSignOthers) {
  const auto authority = transport::MakeAuthority();
  ASSERT_TRUE(authority.ok());
  const auto host = transport::MakeHostCredentials(*authority, kHost);
  ASSERT_TRUE(host.ok());
  EXPECT_FALSE(transport::MakeHostCredentials(*host, kOther).ok());
  EXPECT_FALSE(transport::MakeHostCredentials({authority->certificate, host->key}, kOther).ok());
  EXPECT_FALSE(transport::MakeHostCredentials({"junk", authority->key}, kOther).ok());
}

}  // namespace
}  // namespace vexa::test
