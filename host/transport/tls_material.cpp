#include "host/transport/tls_material.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string_view>
#include <utility>

#include "host/base/files.h"
#include "host/base/private_file.h"
#include "host/base/time_text.h"

namespace vexa::transport {
namespace {

constexpr std::size_t kMaxFileBytes = 256 * 1024;

struct Free {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
};
using Certificate = std::unique_ptr<X509, Free>;
using Key = std::unique_ptr<EVP_PKEY, Free>;

// There is no one to type a password.
int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) { return 0; }

std::unique_ptr<BIO, Free> BioOf(const std::string& text) {
  return std::unique_ptr<BIO, Free>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

Certificate ParseCertificate(const std::string& pem) {
  return Certificate(PEM_read_bio_X509(BioOf(pem).get(), nullptr, &NoPassword, nullptr));
}

Error Unusable(const std::string& path, const char* why) {
  ERR_clear_error();
  return Error(ErrorCode::kInvalid, fmt::format("Cannot use '{}': {}", path, why));
}

// Without the authority.
Status Check(const TlsMaterial& material, const TlsFiles& files) {
  const Certificate certificate = ParseCertificate(material.certificate);
  if (!certificate) return Unusable(files.certificate, "it does not contain a certificate");
  const Key key(PEM_read_bio_PrivateKey(BioOf(material.key).get(), nullptr, &NoPassword, nullptr));
  if (!key) return Unusable(files.key, "it does not contain a private key without a password");
  if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    return Unusable(files.key, "it is not the key of the certificate");
  }
  return {};
}

bool HasCommonName(X509* certificate, const std::string& expected) {
  const X509_NAME* const subject = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, index) >= 0) return false;
  unsigned char* utf8 = nullptr;
  const int size = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
  if (size < 0) return false;
  const bool same = std::string_view(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(size)) == expected;
  OPENSSL_free(utf8);
  return same;
}

// The context owns the name: it lives as long as the connection, which outlives the call that made it.
void FreeName(void* /*parent*/, void* name, CRYPTO_EX_DATA* /*data*/, int /*index*/, long /*argl*/, void* /*argp*/) {
  delete static_cast<std::string*>(name);
}

int ExpectedNameIndex() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, &FreeName);
  return index;
}

// Called for each certificate of the chain; the host's own is at depth 0.
int VerifyCallback(int verified, X509_STORE_CTX* context) {
  if (verified != 1) return AcceptWithinClockTolerance(context);
  if (X509_STORE_CTX_get_error_depth(context) != 0) return 1;
  const auto* const ssl =
      static_cast<const SSL*>(X509_STORE_CTX_get_ex_data(context, SSL_get_ex_data_X509_STORE_CTX_idx()));
  const auto* const expected =
      static_cast<const std::string*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), ExpectedNameIndex()));
  if (expected != nullptr && HasCommonName(X509_STORE_CTX_get_current_cert(context), *expected)) return 1;
  X509_STORE_CTX_set_error(context, X509_V_ERR_HOSTNAME_MISMATCH);
  return 0;
}

}  // namespace

TlsMaterial::~TlsMaterial() {
  OPENSSL_cleanse(key.data(), key.size());
  OPENSSL_cleanse(certificate.data(), certificate.size());
}

Result<std::string> LoadAuthority(const std::string& file) {
  Result<std::string> authority = ReadFile(file, kMaxFileBytes);
  if (authority && !ParseCertificate(*authority)) return Unusable(file, "it does not contain a certificate");
  return authority;
}

Result<TlsMaterial> LoadTlsMaterial(const TlsFiles& files) {
  Result<std::string> certificate = ReadFile(files.certificate, kMaxFileBytes);
  if (!certificate) return certificate.error();
  Result<std::string> authority = LoadAuthority(files.authority);
  if (!authority) return authority.error();
  Result<PrivateFile> key = ReadPrivateFile(files.key, kMaxFileBytes);
  if (!key) return key.error();
  TlsMaterial material;
  material.certificate = std::move(*certificate);
  material.authority = std::move(*authority);
  material.key = std::move(key->content);
  if (Status checked = Check(material, files); !checked) return checked.error();
  return material;
}

bool IsCertificateOf(const TlsMaterial& material, const std::string& host_id) {
  const Certificate certificate = ParseCertificate(material.certificate);
  return certificate && HasCommonName(certificate.get(), host_id);
}

Status CheckTlsMaterial(const TlsMaterial& material, const std::string& host_id,
                        std::chrono::system_clock::time_point now) {
  const Certificate certificate = ParseCertificate(material.certificate);
  const Certificate authority = ParseCertificate(material.authority);
  const Key key(PEM_read_bio_PrivateKey(BioOf(material.key).get(), nullptr, &NoPassword, nullptr));
  const bool is_signed = certificate && authority && X509_check_ca(authority.get()) == 1 &&
                         X509_check_issued(authority.get(), certificate.get()) == X509_V_OK &&
                         X509_verify(certificate.get(), X509_get0_pubkey(authority.get())) == 1;
  const bool has_key = certificate && key && X509_check_private_key(certificate.get(), key.get()) == 1;
  ERR_clear_error();
  const auto refuse = [](std::string why) { return Error(ErrorCode::kInvalid, std::move(why)); };
  if (!is_signed) return refuse("it is not signed by the cluster's authority");
  if (!has_key) return refuse("it does not belong to the key");
  if (!HasCommonName(certificate.get(), host_id)) return refuse("it is not the certificate of this host");
  const CertificateTimes times = vexa::TimesOf(certificate.get());
  if (times.HasExpired(now)) return refuse(fmt::format("it expired on {}", FormatUtcTime(times.not_after)));
  if (!times.IsFromFuture(now)) return {};
  return refuse(fmt::format("it is valid only from {}: a clock is wrong", FormatUtcTime(times.not_before)));
}

CertificateTimes TimesOf(const TlsMaterial& material) {
  const Certificate certificate = ParseCertificate(material.certificate);
  return certificate ? vexa::TimesOf(certificate.get()) : CertificateTimes();
}

bool RequireCommonName(void* ssl_context, const std::string& host_id) {
  auto* const context = static_cast<SSL_CTX*>(ssl_context);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, &VerifyCallback);
  auto name = std::make_unique<std::string>(host_id);
  if (SSL_CTX_set_ex_data(context, ExpectedNameIndex(), name.get()) != 1) return false;
  (void)name.release();  // the context owns it now
  return true;
}

}  // namespace vexa::transport
