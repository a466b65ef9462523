// TLS with certificates that the test makes.
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "host/base/certificate_times.h"
#include "host/base/time_text.h"
#include "tests/support/syslog_capture.h"
#include "tests/system/http_server_test_support.h"

namespace vexa::http {
namespace {

using namespace testing_support;  // NOLINT(google-build-using-namespace)

struct Free {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* ssl) const { SSL_free(ssl); }
  void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
};

struct Identity {
  std::unique_ptr<EVP_PKEY, Free> key;
  std::unique_ptr<X509, Free> certificate;
};

// From now, in seconds.
struct Validity {
  long begin = -3600;
  long end = 3600;
};

// Signed by `issuer`, or by itself and then an authority.
Identity MakeIdentity(const std::string& name, const Identity* issuer, Validity validity = {}) {
  static long serial = 1;
  Identity made{std::unique_ptr<EVP_PKEY, Free>(EVP_EC_gen("P-256")), std::unique_ptr<X509, Free>(X509_new())};
  X509* const certificate = made.certificate.get();
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
  X509_gmtime_adj(X509_getm_notBefore(certificate), validity.begin);
  X509_gmtime_adj(X509_getm_notAfter(certificate), validity.end);
  X509_set_pubkey(certificate, made.key.get());
  const auto* const text = reinterpret_cast<const unsigned char*>(name.data());
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, text,
                             static_cast<int>(name.size()), -1, 0);
  X509_set_issuer_name(certificate, X509_get_subject_name(issuer != nullptr ? issuer->certificate.get() : certificate));
  if (issuer == nullptr) {
    X509_EXTENSION* const authority = X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
    X509_add_ext(certificate, authority, -1);
    X509_EXTENSION_free(authority);
  }
  EXPECT_GT(X509_sign(certificate, issuer != nullptr ? issuer->key.get() : made.key.get(), EVP_sha256()), 0);
  return made;
}

void WriteCertificate(const std::string& path, const Identity& identity) {
  FILE* const file = fopen(path.c_str(), "w");
  PEM_write_X509(file, identity.certificate.get());
  fclose(file);
}

void WriteKey(const std::string& path, const Identity& identity) {
  FILE* const file = fopen(path.c_str(), "w");
  fchmod(fileno(file), 0600);
  PEM_write_PrivateKey(file, identity.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  fclose(file);
}

class Tls : public testing::Test {
 protected:
  Tls()
      : authority_(MakeIdentity("Authority", nullptr)),
        foreign_authority_(MakeIdentity("Authority", nullptr)),
        server_identity_(MakeIdentity("nas", &authority_)) {
    char name[] = "/tmp/vexa-tls-XXXXXX";
    folder_ = mkdtemp(name);
    WriteCertificate(folder_ + "/server.pem", server_identity_);
    WriteKey(folder_ + "/server.key", server_identity_);
    WriteCertificate(folder_ + "/authority.pem", authority_);
  }
  ~Tls() override { std::filesystem::remove_all(folder_); }

  ListenerOptions Listener() const {
    ListenerOptions listener;
    listener.certificate_file = folder_ + "/server.pem";
    listener.key_file = folder_ + "/server.key";
    return listener;
  }
  std::function<void(ServerOptions&)> WithTls() const {
    return [this](ServerOptions& options) { options.listeners[0] = Listener(); };
  }
  // Serves only clients with a certificate.
  std::function<void(ServerOptions&)> WithCertificates() const {
    return [this](ServerOptions& options) {
      options.listeners[0] = Listener();
      options.listeners[0].client_authority_file = folder_ + "/authority.pem";
    };
  }

  std::string folder_;
  Identity authority_;
  Identity foreign_authority_;
  Identity server_identity_;
};

class TlsClient {
 public:
  TlsClient(std::uint16_t port, const Identity* identity, int max_version = TLS1_3_VERSION,
            SSL_SESSION* session = nullptr)
      : context_(SSL_CTX_new(TLS_client_method())), connection_(Client::Tcp(port)) {
    // On this thread only: the server must look after its own threads.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    SSL_CTX_set_min_proto_version(context_.get(), TLS1_VERSION);
    SSL_CTX_set_max_proto_version(context_.get(), max_version);
    SSL_CTX_set_security_level(context_.get(), 0);
    if (identity != nullptr) {
      SSL_CTX_use_certificate(context_.get(), identity->certificate.get());
      SSL_CTX_use_PrivateKey(context_.get(), identity->key.get());
    }
    ssl_.reset(SSL_new(context_.get()));
    timeval timeout{20, 0};
    setsockopt(connection_.fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    SSL_set_fd(ssl_.get(), connection_.fd());
    if (session != nullptr) SSL_set_session(ssl_.get(), session);
    connected_ = SSL_connect(ssl_.get()) == 1;
    ERR_clear_error();
  }

  bool connected() const { return connected_; }
  SSL* ssl() { return ssl_.get(); }
  Client& connection() { return connection_; }
  bool Send(const std::string& bytes) {
    return SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())) == static_cast<int>(bytes.size());
  }
  // Until `size` bytes or the end.
  std::string Receive(std::size_t size) {
    std::string all;
    char buffer[16384];
    while (all.size() < size) {
      const int got = SSL_read(ssl_.get(), buffer, sizeof buffer);
      if (got <= 0) break;
      all.append(buffer, static_cast<std::size_t>(got));
    }
    ERR_clear_error();
    return all;
  }
  // Sends one request, with a close, and gives back all that comes.
  std::string Ask(const std::string& target) {
    Send("GET " + target + " HTTP/1.1\r\nHost: nas\r\nConnection: close\r\n\r\n");
    return Receive(std::string::npos);
  }

 private:
  std::unique_ptr<SSL_CTX, Free> context_;
  Client connection_;
  std::unique_ptr<SSL, Free> ssl_;
  bool connected_ = false;
};

TEST_F(Tls, Request_NoClientCertificate_IsServedWithoutName) {
  TestServer server(WithTls());
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    TlsClient client(server.port(), nullptr, version);
    ASSERT_TRUE(client.connected());
    EXPECT_EQ(SSL_version(client.ssl()), version);
    EXPECT_NE(client.Ask("/a").find("GET /a "), std::string::npos);
    EXPECT_TRUE(server.last_request()->peer.tls);
    EXPECT_EQ(server.last_request()->peer.certificate_name, "");
  }
}

TEST_F(Tls, Request_ClientCertificate_HandlerGetsNameAndValidity) {
  TestServer server(WithCertificates());
  const Identity host = MakeIdentity("host-b", &authority_);
  TlsClient client(server.port(), &host);
  EXPECT_NE(client.Ask("/a").find("GET /a "), std::string::npos);
  const Peer peer = server.last_request()->peer;
  EXPECT_TRUE(peer.is_certified);
  EXPECT_EQ(peer.certificate_name, "host-b");
  EXPECT_EQ(peer.certificate_times.not_after - peer.certificate_times.not_before, std::chrono::hours(2));
}

TEST_F(Tls, Listener_NoAuthority_IgnoresClientCertificates) {
  TestServer server(WithTls());
  const Identity host = MakeIdentity("host-b", &authority_);
  TlsClient client(server.port(), &host);
  EXPECT_NE(client.Ask("/a").find("GET /a "), std::string::npos);
  EXPECT_FALSE(server.last_request()->peer.is_certified);
  EXPECT_EQ(server.last_request()->peer.certificate_name, "");
}

TEST_F(Tls, CertifiedListener_WithoutAcceptableCertificate_EndsTheHandshake) {
  TestServer server(WithCertificates());
  const Identity rows[] = {MakeIdentity("host-b", &foreign_authority_), MakeIdentity("host-b", nullptr),
                           MakeIdentity("host-b", &authority_, {-7200, -3600}),  // has expired
                           MakeIdentity("host-b", &authority_, {3700, 7200})};   // from the future
  for (const Identity& identity : rows) EXPECT_EQ(TlsClient(server.port(), &identity).Ask("/a"), "");
  EXPECT_EQ(TlsClient(server.port(), nullptr).Ask("/a"), "");
  EXPECT_FALSE(server.last_request());
}

TEST_F(Tls, CertificatesFromTheFuture_AreLoggedByHost) {
  TestServer server(WithCertificates());
  test::ClearCapturedSyslog();
  for (const char* name : {"early-host-1", "early-host-2"}) {
    const Identity identity = MakeIdentity(name, &authority_, {3700, 7200});
    for (int i = 0; i < 2; ++i) EXPECT_EQ(TlsClient(server.port(), &identity).Ask("/a"), "");
    const std::string line = "A certificate of '" + std::string(name) + "' was refused because it is valid only from " +
                             FormatUtcTime(TimesOf(identity.certificate.get()).not_before) +
                             ". Check the clocks of this host and of the machine that made it.";
    const auto lines = test::CapturedSyslog();
    EXPECT_EQ(std::ranges::count(lines, line, &test::SyslogLine::text), 1) << line;
  }
}

// The clock of the machine that made it is a little ahead.
TEST_F(Tls, CertifiedListener_CertificateBeginsWithinTheHour_IsAccepted) {
  TestServer server(WithCertificates());
  const Identity host = MakeIdentity("host-b", &authority_, {3000, 7200});
  EXPECT_NE(TlsClient(server.port(), &host).Ask("/a").find("GET /a "), std::string::npos);
  EXPECT_EQ(server.last_request()->peer.certificate_name, "host-b");
}

TEST_F(Tls, CertifiedListener_Tls12_IsRefused) {
  TestServer server(WithCertificates());
  const Identity host = MakeIdentity("host-b", &authority_);
  EXPECT_FALSE(TlsClient(server.port(), &host, TLS1_2_VERSION).connected());
}

TEST_F(Tls, Listener_Tls12_UsesAuthenticatedEncryptionOnly) {
  TestServer server(WithTls());
  TlsClient client(server.port(), nullptr, TLS1_2_VERSION);
  ASSERT_TRUE(client.connected());
  const SSL_CIPHER* const cipher = SSL_get_current_cipher(client.ssl());
  EXPECT_EQ(SSL_CIPHER_is_aead(cipher), 1);
  EXPECT_EQ(SSL_CIPHER_get_kx_nid(cipher), NID_kx_ecdhe);
}

TEST_F(Tls, Certificate_Replaced_IsUsedForNewConnections) {
  TestServer server(WithCertificates());
  const Identity host = MakeIdentity("host-b", &authority_);
  const auto server_name = [](TlsClient& client) {
    const std::unique_ptr<X509, Free> certificate(SSL_get1_peer_certificate(client.ssl()));
    char name[64] = {};
    X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), NID_commonName, name, sizeof name);
    return std::string(name);
  };
  TlsClient before(server.port(), &host);
  ASSERT_TRUE(before.connected());
  const Identity renewed = MakeIdentity("renewed", &authority_);
  WriteCertificate(folder_ + "/renewed.pem", renewed);
  WriteKey(folder_ + "/renewed.key", renewed);
  EXPECT_EQ(server->ReplaceCertificate(0, folder_ + "/renewed.pem", folder_ + "/server.key").error().code(),
            ErrorCode::kInvalid);
  ASSERT_TRUE(server->ReplaceCertificate(0, folder_ + "/renewed.pem", folder_ + "/renewed.key").ok());
  EXPECT_TRUE(Eventually([&] {
    TlsClient client(server.port(), &host);
    return client.connected() && server_name(client) == "renewed";
  }));
  EXPECT_EQ(server_name(before), "nas");
  EXPECT_NE(before.Ask("/a").find("GET /a "), std::string::npos) << "the connection goes on";
  EXPECT_EQ(TlsClient(server.port(), nullptr).Ask("/a"), "") << "clients need a certificate as before";
}

// Whether they have finished the handshake or not.
TEST_F(Tls, StrangersThatTrickle_LoseTheirPlacesToNewcomers) {
  TestServer server([this](ServerOptions& options) {
    WithTls()(options);
    options.limits.connections = 4;
    options.limits.handshake = options.limits.body = std::chrono::minutes(10);
  });
  std::vector<std::unique_ptr<TlsClient>> in_body;
  for (int i = 0; i < 4; ++i) {
    in_body.push_back(std::make_unique<TlsClient>(server.port(), nullptr));
    ASSERT_TRUE(in_body.back()->Send("POST / HTTP/1.1\r\nHost: nas\r\nContent-Length: 9\r\n\r\n1"));
  }
  ASSERT_TRUE(Eventually([&] { return server->stats().requests == 4; }));
  TlsClient first(server.port(), nullptr);
  EXPECT_NE(first.Ask("/a").find("GET /a "), std::string::npos);

  std::vector<Client> in_handshake;
  for (int i = 0; i < 4; ++i) {
    in_handshake.push_back(server.Connect());
    ASSERT_TRUE(in_handshake.back().Send("\x16"));
  }
  TlsClient second(server.port(), nullptr);
  EXPECT_NE(second.Ask("/a").find("GET /a "), std::string::npos);
}

TEST_F(Tls, Handshake_OldVersion_Fails) {
  TestServer server(WithTls());
  EXPECT_FALSE(TlsClient(server.port(), nullptr, TLS1_1_VERSION).connected());
}

TEST_F(Tls, Session_OfUser_IsResumed) {
  TestServer server(WithTls());
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    TlsClient first(server.port(), nullptr, version);
    EXPECT_NE(first.Ask("/a").find("GET /a "), std::string::npos);
    const std::unique_ptr<SSL_SESSION, Free> session(SSL_get1_session(first.ssl()));
    TlsClient second(server.port(), nullptr, version, session.get());
    EXPECT_TRUE(SSL_session_reused(second.ssl()));
    EXPECT_NE(second.Ask("/b").find("GET /b "), std::string::npos);
  }
}

// Otherwise a certificate could outlive its expiry.
TEST_F(Tls, Session_WithCertificate_IsNotResumed) {
  TestServer server(WithCertificates());
  const Identity host = MakeIdentity("host-b", &authority_);
  TlsClient first(server.port(), &host);
  EXPECT_NE(first.Ask("/a").find("GET /a "), std::string::npos);
  const std::unique_ptr<SSL_SESSION, Free> session(SSL_get1_session(first.ssl()));
  TlsClient second(server.port(), &host, TLS1_3_VERSION, session.get());
  EXPECT_FALSE(SSL_session_reused(second.ssl()));
  EXPECT_NE(second.Ask("/b").find("GET /b "), std::string::npos);
}

TEST_F(Tls, Bodies_LargeBothWays_ArriveComplete) {
  TestServer server(WithTls());
  TlsClient client(server.port(), nullptr);
  const std::string body(900'000, 'x');
  ASSERT_TRUE(
      client.Send("POST /p HTTP/1.1\r\nHost: nas\r\nConnection: close\r\nContent-Length: 900000\r\n\r\n" + body));
  const std::string answer = client.Receive(std::string::npos);
  ASSERT_GT(answer.size(), body.size());
  EXPECT_EQ(answer.substr(answer.size() - body.size()), body);
}

TEST_F(Tls, Pipelined_InOneRecord_AreAllAnswered) {
  TestServer server(WithTls());
  TlsClient client(server.port(), nullptr);
  std::string all;
  for (int i = 0; i < 200; ++i) all += Get("/" + std::to_string(i));
  ASSERT_TRUE(client.Send(all));
  const std::string last = client.Ask("/last");
  EXPECT_NE(last.find("GET /199 "), std::string::npos);
  EXPECT_NE(last.find("GET /last "), std::string::npos);
}

TEST_F(Tls, Body_AboveLimit_ReplyIsReadable) {
  TestServer server(WithTls());
  TlsClient client(server.port(), nullptr);
  ASSERT_TRUE(client.Send("POST /p HTTP/1.1\r\nHost: nas\r\nContent-Length: 3000000\r\n\r\n"));
  client.Send(std::string(3'000'000, 'x'));
  EXPECT_EQ(client.Receive(std::string::npos).substr(0, 12), "HTTP/1.1 413");
}

TEST_F(Tls, Client_LeavesDuringHandler_IsDetected) {
  TestServer server(WithTls());
  for (const bool politely : {true, false}) {
    TlsClient client(server.port(), nullptr);
    ASSERT_TRUE(client.Send(Get("/wait")));
    ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
    if (politely) SSL_shutdown(client.ssl());  // the alert alone; a look at the socket would take it for data
    if (!politely) client.connection().Close();
    EXPECT_TRUE(Eventually([&] { return server->stats().connections == 0; })) << politely;
    server.Release();
  }
}

TEST_F(Tls, Timeout_HandshakeMissing_ClosesConnection) {
  TestServer server([&](ServerOptions& options) {
    options.listeners[0] = Listener();
    options.limits.handshake = milliseconds(300);
  });
  Client silent = server.Connect();
  Client drips = server.Connect();
  ASSERT_TRUE(drips.Send(std::string("\x16\x03\x01", 3)));
  EXPECT_TRUE(silent.SilentlyClosed());
  EXPECT_TRUE(drips.SilentlyClosed());
}

TEST_F(Tls, PlainHttp_OnTlsPort_GetsNoReply) {
  TestServer server(WithTls());
  Client client = server.Connect();
  ASSERT_TRUE(client.Send(Get("/")));
  EXPECT_EQ(client.ReceiveAll().find("HTTP/1.1"), std::string::npos);
  EXPECT_FALSE(server.last_request());
}

TEST_F(Tls, Connection_AboveLimit_IsClosed) {
  TestServer server([&](ServerOptions& options) {
    options.listeners[0] = Listener();
    options.limits.connections = 1;
  });
  TlsClient first(server.port(), nullptr);
  ASSERT_TRUE(first.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  EXPECT_FALSE(TlsClient(server.port(), nullptr).connected());
  EXPECT_EQ(server->stats().connections_refused, 1U);
}

TEST_F(Tls, ConnectionsThatDoNotShakeHands_GiveWayToOthers) {
  TestServer server([&](ServerOptions& options) {
    options.listeners[0] = Listener();
    options.limits.connections = 5;
  });
  std::vector<Client> silent;
  for (int i = 0; i < 5; ++i) silent.push_back(server.Connect());
  ASSERT_TRUE(Eventually([&] { return server->stats().connections == 5; }));
  TlsClient client(server.port(), nullptr);
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.Send(Get("/")));
  EXPECT_EQ(client.Receive(12).substr(0, 12), "HTTP/1.1 200");
  EXPECT_EQ(server->stats().connections_evicted, 1U);
}

TEST_F(Tls, HostWithCertificate_AfterAcceptedRequest_StaysWhenStrangersFillEverything) {
  TestServer server([&](ServerOptions& options) {
    options.listeners[0] = Listener();
    options.limits.connections = 5;
    options.on_request = [](HttpRequest&& request, const Responder& responder) {
      HttpResponse response;
      if (request.target == "/accepted") response.owner = {Owner::Kind::kHost, request.peer.certificate_name, {}};
      responder.Send(std::move(response));
    };
  });
  const Identity h1 = MakeIdentity("h1", &authority_);
  const Identity h2 = MakeIdentity("h2", &authority_);
  TlsClient accepted(server.port(), &h1);
  TlsClient refused(server.port(), &h2);
  ASSERT_TRUE(accepted.Send(Get("/accepted")));
  ASSERT_EQ(accepted.Receive(12).substr(0, 12), "HTTP/1.1 200");
  ASSERT_TRUE(refused.Send(Get("/refused")));
  ASSERT_EQ(refused.Receive(12).substr(0, 12), "HTTP/1.1 200");
  std::vector<Client> strangers;
  for (int i = 0; i < 50; ++i) strangers.push_back(server.Connect());
  ASSERT_TRUE(Eventually([&] {
    const ServerStats stats = server->stats();
    return stats.connections_evicted + stats.connections_refused == 47;
  }));
  ASSERT_TRUE(accepted.Send(Get("/accepted")));
  EXPECT_EQ(accepted.Receive(12).substr(0, 12), "HTTP/1.1 200");
  EXPECT_EQ(refused.Receive(12), "") << "a certificate alone makes no host";
}

TEST_F(Tls, Stop_FinishesCurrentRequests) {
  TestServer server(WithTls());
  TlsClient client(server.port(), nullptr);
  ASSERT_TRUE(client.Send(Get("/wait")));
  ASSERT_TRUE(Eventually([&] { return server.held() == 1; }));
  bool clean = false;
  std::thread stopper([&] { clean = server->Stop(kTimeout); });
  std::this_thread::sleep_for(milliseconds(50));
  server.Release();
  const std::string answer = client.Receive(std::string::npos);
  stopper.join();
  EXPECT_NE(answer.find("released"), std::string::npos);
  EXPECT_NE(answer.find("Connection: close"), std::string::npos);
  EXPECT_TRUE(clean);
}

TEST_F(Tls, Listen_UnusableFiles_AreRefusedByName) {
  const Identity other = MakeIdentity("other", &authority_);
  WriteKey(folder_ + "/other.key", other);
  WriteKey(folder_ + "/open.key", server_identity_);
  chmod((folder_ + "/open.key").c_str(), 0644);
  std::ofstream(folder_ + "/junk") << "junk";
  chmod((folder_ + "/junk").c_str(), 0600);
  const struct {
    std::string ListenerOptions::*file;
    std::string value;
    ErrorCode code;
  } rows[] = {
      {&ListenerOptions::key_file, folder_ + "/open.key", ErrorCode::kDenied},
      {&ListenerOptions::key_file, folder_ + "/other.key", ErrorCode::kInvalid},
      {&ListenerOptions::key_file, folder_ + "/missing", ErrorCode::kNotFound},
      {&ListenerOptions::key_file, folder_ + "/junk", ErrorCode::kInvalid},
      {&ListenerOptions::key_file, folder_, ErrorCode::kInvalid},
      {&ListenerOptions::certificate_file, folder_ + "/junk", ErrorCode::kInvalid},
      {&ListenerOptions::client_authority_file, folder_ + "/junk", ErrorCode::kInvalid},
      {&ListenerOptions::key_file, "", ErrorCode::kInvalid},
  };
  for (const auto& row : rows) {
    ServerOptions options;
    options.listeners.push_back(Listener());
    options.listeners[0].*row.file = row.value;
    auto server = HttpServer::Start(std::move(options));
    ASSERT_FALSE(server) << row.value;
    EXPECT_EQ(server.error().code(), row.code) << row.value << ": " << server.error().ToString();
    EXPECT_NE(server.error().message().find(row.value), std::string::npos);
  }
}

}  // namespace
}  // namespace vexa::http
