#include "host/http/http_tls.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vexa::http {
namespace {

// Clients may resume within this time without a full handshake. A revoked certificate stays usable for as long.
constexpr long kSessionLifetimeS = 3600;
constexpr std::size_t kMaxKeyBytes = 64 * 1024;

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

Status UseClientAuthority(SSL_CTX* context, const std::string& path) {
  STACK_OF(X509_NAME)* const names = SSL_load_client_CA_file(path.c_str());
  if (names == nullptr || SSL_CTX_load_verify_locations(context, path.c_str(), nullptr) != 1) {
    sk_X509_NAME_pop_free(names, X509_NAME_free);
    return TlsError("Cannot use the authority '{}'", path);
  }
  SSL_CTX_set_client_CA_list(context, names);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);  // requested, not required
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
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE);
  SSL_CTX_set_mode(context.get(),
                   SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_RELEASE_BUFFERS);
  // Sessions live in tickets that the client keeps. Without the id context, those with a client certificate would fail.
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_timeout(context.get(), kSessionLifetimeS);
  const unsigned char id_context[] = "vexa";
  SSL_CTX_set_session_id_context(context.get(), id_context, sizeof id_context - 1);
  ERR_clear_error();
  if (SSL_CTX_use_certificate_chain_file(context.get(), options.certificate_file.c_str()) != 1) {
    return TlsError("Cannot use the certificate '{}'", options.certificate_file);
  }
  if (Status key = UseKey(context.get(), options.key_file); !key) return key.error();
  if (!options.client_authority_file.empty()) {
    if (Status used = UseClientAuthority(context.get(), options.client_authority_file); !used) return used.error();
  }
  return context;
}

std::string VerifiedCommonName(SSL* ssl) {
  const std::unique_ptr<X509, OpenSslDeleter> certificate(SSL_get1_peer_certificate(ssl));
  if (!certificate || SSL_get_verify_result(ssl) != X509_V_OK || SSL_get_verify_mode(ssl) == SSL_VERIFY_NONE) return {};
  const X509_NAME* const subject = X509_get_subject_name(certificate.get());
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, index) >= 0) return {};
  unsigned char* utf8 = nullptr;
  const int size = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
  if (size < 0) return {};
  const std::string name(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(size));
  OPENSSL_free(utf8);
  return name.find('\0') == std::string::npos ? name : std::string();
}

}  // namespace vexa::http
