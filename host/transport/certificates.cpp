#include "host/transport/certificates.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <vector>

#include "host/transport/host_id_form.h"

namespace vexa::transport {
namespace {

constexpr long kClockSkewS = 3600;  // a host whose clock is slightly behind accepts a new certificate
constexpr int kSerialBits = 159;    // positive, and at most 20 bytes (RFC 5280, 4.1.2.2)

struct Free {
  void operator()(BIGNUM* number) const { BN_free(number); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

struct Parsed {
  Owned<X509> certificate;
  Owned<EVP_PKEY> key;
};

struct Extension {
  int nid;
  std::string value;
};

Error OpenSslError(const char* what) {
  char text[256] = "no reason given";
  if (const unsigned long code = ERR_get_error(); code != 0) ERR_error_string_n(code, text, sizeof text);
  ERR_clear_error();
  return Error(ErrorCode::kInternal, what, text);
}

int NoPassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) { return 0; }

std::string TextOf(BIO* bio) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(size));
}

Owned<BIO> BioOf(const std::string& text) {
  return Owned<BIO>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

bool SetSerial(X509* certificate) {
  const Owned<BIGNUM> number(BN_new());
  return number && BN_rand(number.get(), kSerialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
         BN_to_ASN1_INTEGER(number.get(), X509_get_serialNumber(certificate)) != nullptr;
}

// The validity ends no later than that of `issuer`; null: none.
bool SetValidity(X509* certificate, const X509* issuer) {
  const long lifetime = static_cast<long>(std::chrono::seconds(kCertificateLifetime).count());
  if (!X509_gmtime_adj(X509_getm_notBefore(certificate), -kClockSkewS)) return false;
  if (!X509_gmtime_adj(X509_getm_notAfter(certificate), lifetime)) return false;
  if (issuer == nullptr) return true;
  const ASN1_TIME* const end = X509_get0_notAfter(issuer);
  if (ASN1_TIME_compare(X509_get0_notAfter(certificate), end) <= 0) return true;
  return X509_set1_notAfter(certificate, end) == 1;
}

bool SetName(X509* certificate, const std::string& common_name) {
  return X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(common_name.data()),
                                    static_cast<int>(common_name.size()), -1, 0) == 1;
}

bool AddExtensions(X509* certificate, X509* issuer, const std::vector<Extension>& extensions) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  for (const Extension& row : extensions) {
    const Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, row.nid, row.value.c_str()));
    if (!extension || X509_add_ext(certificate, extension.get(), -1) != 1) return false;
  }
  return true;
}

// `issuer` null: self-signed.
Result<Credentials> Make(const std::string& common_name, const Parsed* issuer,
                         const std::vector<Extension>& extensions) {
  ERR_clear_error();
  const Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  const Owned<X509> certificate(X509_new());
  if (!key || !certificate) return OpenSslError("Cannot make a key");
  X509* const signer = issuer ? issuer->certificate.get() : certificate.get();
  const bool made =
      X509_set_version(certificate.get(), X509_VERSION_3) == 1 && SetSerial(certificate.get()) &&
      SetValidity(certificate.get(), issuer ? signer : nullptr) && SetName(certificate.get(), common_name) &&
      X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer)) == 1 &&
      X509_set_pubkey(certificate.get(), key.get()) == 1 && AddExtensions(certificate.get(), signer, extensions) &&
      X509_sign(certificate.get(), issuer ? issuer->key.get() : key.get(), EVP_sha256()) > 0;
  if (!made) return OpenSslError("Cannot make a certificate");
  const Owned<BIO> certificate_text(BIO_new(BIO_s_mem()));
  const Owned<BIO> key_text(BIO_new(BIO_s_secmem()));
  if (!certificate_text || !key_text || PEM_write_bio_X509(certificate_text.get(), certificate.get()) != 1 ||
      PEM_write_bio_PKCS8PrivateKey(key_text.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return OpenSslError("Cannot write a certificate");
  }
  return Credentials{TextOf(certificate_text.get()), TextOf(key_text.get())};
}

Result<Parsed> ParseAuthority(const Credentials& authority) {
  const auto refuse = [](const char* why) {
    ERR_clear_error();
    return Error(ErrorCode::kInvalid, std::string("The authority cannot be used: ") + why);
  };
  Parsed parsed{Owned<X509>(PEM_read_bio_X509(BioOf(authority.certificate).get(), nullptr, &NoPassword, nullptr)),
                Owned<EVP_PKEY>(PEM_read_bio_PrivateKey(BioOf(authority.key).get(), nullptr, &NoPassword, nullptr))};
  if (!parsed.certificate) return refuse("its certificate cannot be parsed");
  if (!parsed.key) return refuse("its key cannot be parsed");
  if (X509_check_private_key(parsed.certificate.get(), parsed.key.get()) != 1) {
    return refuse("its key and certificate do not match");
  }
  if (X509_check_ca(parsed.certificate.get()) != 1) return refuse("its certificate is not that of an authority");
  if (X509_cmp_current_time(X509_get0_notAfter(parsed.certificate.get())) <= 0) return refuse("it has expired");
  return parsed;
}

}  // namespace

Result<Credentials> MakeAuthority() {
  return Make("VEXA cluster authority", nullptr,
              {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
               {NID_key_usage, "critical,keyCertSign,cRLSign"},
               {NID_subject_key_identifier, "hash"}});
}

Result<Credentials> MakeHostCredentials(const Credentials& authority, const std::string& host_id) {
  if (!IsHostId(host_id)) {
    return Error(ErrorCode::kInvalid,
                 "A host id consists of at most 63 letters, digits and inner hyphens, such as a UUID");
  }
  const Result<Parsed> issuer = ParseAuthority(authority);
  if (!issuer) return issuer.error();
  return Make(host_id, &*issuer,
              {{NID_basic_constraints, "critical,CA:FALSE"},
               {NID_key_usage, "critical,digitalSignature"},
               {NID_ext_key_usage, "serverAuth,clientAuth"},
               {NID_subject_alt_name, "DNS:" + host_id},
               {NID_subject_key_identifier, "hash"},
               {NID_authority_key_identifier, "keyid:always"}});
}

}  // namespace vexa::transport
