#include "host/http/http_tls.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/base/log_interval.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/time_text.h"

namespace vexa::http {
namespace {

// Clients may resume within this time without a full handshake.
constexpr long kSessionLifetimeS = 3600;
// For TLS 1.2: forward secrecy and authenticated encryption only. TLS 1.3 has nothing else.
constexpr const char* kCiphers = "ECDHE+AESGCM:ECDHE+CHACHA20";
constexpr std::size_t kMaxKeyBytes = 64 * 1024;
constexpr std::size_t kMaxLoggedNameBytes = 64;

struct OpenSslDeleter {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
};

// `sentence` contains one {}, for the path.
Error TlsError(fmt::format_string<const std::string&> sentence, const std::string& path) {
  char text[256] = "no reason given";
  if (const unsigned long code = ERR_get_error(); code != 0) ERR_error_string_n(code, text, sizeof text);
  ERR_clear_error();
  return Error(ErrorCode::kInvalid, fmt::format(sentence, path), text);
}

// The daemon has no terminal to ask for a password.
int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) { return 0; }

// Opened first and checked through the descriptor, so that the checked file is the one that is read.
Result<std::string> ReadPrivateFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    return SystemError(errno == ENOENT ? ErrorCode::kNotFound : ErrorCode::kDenied,
                       fmt::format("Cannot read the key '{}'", path), errno);
  }
  const std::unique_ptr<const int, void (*)(const int*)> closer(&fd, [](const int* open) { ::close(*open); });
  struct stat file {};
  if (::fstat(fd, &file) != 0 || !S_ISREG(file.st_mode)) {
    return Error(ErrorCode::kInvalid, fmt::format("Cannot use the key '{}': it is not a regular file", path));
  }
  if ((file.st_mode & 077) != 0) {
    return Error(ErrorCode::kDenied,
                 fmt::format("Cannot use the key '{}': others may read it. Set its mode to 0600", path));
  }
  std::string content(kMaxKeyBytes, '\0');
  const ssize_t size = ::read(fd, content.data(), content.size());
  if (size < 0) return SystemError(ErrorCode::kInternal, fmt::format("Cannot read the key '{}'", path), errno);
  content.resize(static_cast<std::size_t>(size));
  return content;
}

Status UseKey(SSL_CTX* context, const std::string& path) {
  Result<std::string> content = ReadPrivateFile(path);
  if (!content) return content.error();
  const std::unique_ptr<BIO, OpenSslDeleter> bio(BIO_new_mem_buf(content->data(), static_cast<int>(content->size())));
  const std::unique_ptr<EVP_PKEY, OpenSslDeleter> key(
      PEM_read_bio_PrivateKey(bio.get(), nullptr, &NoPassword, nullptr));
  const bool used = key != nullptr && SSL_CTX_use_PrivateKey(context, key.get()) == 1;
  OPENSSL_cleanse(content->data(), content->size());
  if (!used || SSL_CTX_check_private_key(context) != 1) return TlsError("Cannot use the key '{}'", path);
  return {};
}

// "" when the certificate does not have exactly one common name.
std::string CommonNameOf(const X509* certificate) {
  const X509_NAME* const subject = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, index) >= 0) return {};
  unsigned char* utf8 = nullptr;
  const int size = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
  if (size < 0) return {};
  const std::string name(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(size));
  OPENSSL_free(utf8);
  return name.find('\0') == std::string::npos ? name : std::string();
}

void LogCertificateFromFuture(X509* certificate) {
  static LogInterval interval{std::chrono::minutes(1)};
  const std::string name = SanitizeForLog(CommonNameOf(certificate), kMaxLoggedNameBytes);
  if (!interval.IsDue(name)) return;
  ::syslog(LOG_WARNING,
           "A certificate of '%s' was refused because it is valid only from %s. Check the clocks of this host and of "
           "the machine that made it.",
           name.c_str(), FormatUtcTime(TimesOf(certificate).not_before).c_str());
}

// Called for each certificate of the chain; the client's own is at depth 0.
int VerifyClient(int verified, X509_STORE_CTX* context) {
  if (verified == 1 || AcceptWithinClockTolerance(context) == 1) return 1;
  if (X509_STORE_CTX_get_error(context) == X509_V_ERR_CERT_NOT_YET_VALID) {
    LogCertificateFromFuture(X509_STORE_CTX_get_current_cert(context));
  }
  return 0;
}

// Sessions are not resumed: each connection presents its certificate, so that one that has expired does not live on.
Status RequireCertificates(SSL_CTX* context, const std::string& path) {
  STACK_OF(X509_NAME)* const names = SSL_load_client_CA_file(path.c_str());
  if (names == nullptr || SSL_CTX_load_verify_locations(context, path.c_str(), nullptr) != 1) {
    sk_X509_NAME_pop_free(names, X509_NAME_free);
    return TlsError("Cannot use the authority '{}'", path);
  }
  SSL_CTX_set_client_CA_list(context, names);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, &VerifyClient);
  SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_TICKET);
  SSL_CTX_set_num_tickets(context, 0);
  return {};
}

}  // namespace

Result<TlsContext> MakeTlsContext(const ListenerOptions& options) {
  if (options.certificate_file.empty() && options.key_file.empty() && options.client_authority_file.empty()) {
    return TlsContext();
  }
  if (options.certificate_file.empty() || options.key_file.empty()) {
    return Error(ErrorCode::kInvalid, "A listener with TLS needs both a certificate and a key");
  }
  TlsContext context(SSL_CTX_new(TLS_server_method()), &SSL_CTX_free);
  if (!context) return TlsError("Cannot set up TLS for '{}'", options.address);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  if (SSL_CTX_set_cipher_list(context.get(), kCiphers) != 1)
    return TlsError("Cannot set up TLS for '{}'", options.address);
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE);
  SSL_CTX_set_mode(context.get(),
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
  // Sessions live in tickets that the client keeps.
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_timeout(context.get(), kSessionLifetimeS);
  ERR_clear_error();
  if (SSL_CTX_use_certificate_chain_file(context.get(), options.certificate_file.c_str()) != 1) {
    return TlsError("Cannot use the certificate '{}'", options.certificate_file);
  }
  if (Status key = UseKey(context.get(), options.key_file); !key) return key.error();
  if (!options.client_authority_file.empty()) {
    if (Status used = RequireCertificates(context.get(), options.client_authority_file); !used) return used.error();
  }
  return context;
}

void ReadClientCertificate(SSL* ssl, Peer& peer) {
  peer.is_certified = (SSL_get_verify_mode(ssl) & SSL_VERIFY_FAIL_IF_NO_PEER_CERT) != 0;
  const std::unique_ptr<X509, OpenSslDeleter> certificate(SSL_get1_peer_certificate(ssl));
  if (!peer.is_certified || !certificate || SSL_get_verify_result(ssl) != X509_V_OK) return;
  peer.certificate_name = CommonNameOf(certificate.get());
  peer.certificate_times = TimesOf(certificate.get());
}

}  // namespace vexa::http
