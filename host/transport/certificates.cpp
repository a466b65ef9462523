#include "host/transport/certificates.h"

#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>
#include <string_view>
#include <vector>

#include "host/transport/host_id_form.h"

namespace vexa::transport {
namespace {

constexpr std::chrono::hours kAuthorityMargin{1};  // a host whose clock is slightly behind accepts a new authority
constexpr int kSerialBits = 159;                   // positive, and at most 20 bytes (RFC 5280, 4.1.2.2)

struct Free {
  void operator()(BIGNUM* number) const { BN_free(number); }
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(X509_REQ* request) const { X509_REQ_free(request); }
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

bool SetTime(ASN1_TIME* field, std::chrono::system_clock::time_point time) {
  return ASN1_TIME_set(field, std::chrono::system_clock::to_time_t(time)) != nullptr;
}

// The validity ends no later than that of `issuer`; null: none.
bool SetValidity(X509* certificate, const X509* issuer, const Validity& validity) {
  if (!SetTime(X509_getm_notBefore(certificate), validity.begin)) return false;
  if (!SetTime(X509_getm_notAfter(certificate), validity.begin + validity.lifetime)) return false;
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

// Calls `write` with a BIO, and returns what it wrote. Empty when it fails.
template <class Write>
std::string PemOf(const BIO_METHOD* method, const Write& write) {
  const Owned<BIO> bio(BIO_new(method));
  return bio && write(bio.get()) == 1 ? TextOf(bio.get()) : std::string();
}

std::string PemOfKey(EVP_PKEY* key) {
  return PemOf(BIO_s_secmem(), [key](BIO* bio) {
    return PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  });
}

// What a certificate says, and who signs it.
struct Draft {
  std::string common_name;
  EVP_PKEY* key = nullptr;
  const Parsed* issuer = nullptr;  // null: self-signed
  Validity validity;
  std::vector<Extension> extensions;
};

Result<std::string> Sign(const Draft& draft) {
  const Owned<X509> certificate(X509_new());
  if (!certificate) return OpenSslError("Cannot make a certificate");
  X509* const signer = draft.issuer ? draft.issuer->certificate.get() : certificate.get();
  EVP_PKEY* const signing_key = draft.issuer ? draft.issuer->key.get() : draft.key;
  const bool made = X509_set_version(certificate.get(), X509_VERSION_3) == 1 && SetSerial(certificate.get()) &&
                    SetValidity(certificate.get(), draft.issuer ? signer : nullptr, draft.validity) &&
                    SetName(certificate.get(), draft.common_name) &&
                    X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer)) == 1 &&
                    X509_set_pubkey(certificate.get(), draft.key) == 1 &&
                    AddExtensions(certificate.get(), signer, draft.extensions) &&
                    X509_sign(certificate.get(), signing_key, EVP_sha256()) > 0;
  if (!made) return OpenSslError("Cannot make a certificate");
  std::string text =
      PemOf(BIO_s_mem(), [&certificate](BIO* bio) { return PEM_write_bio_X509(bio, certificate.get()); });
  if (text.empty()) return OpenSslError("Cannot write a certificate");
  return text;
}

// Makes the key as well.
Result<Credentials> Make(Draft draft) {
  ERR_clear_error();
  const Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  if (!key) return OpenSslError("Cannot make a key");
  draft.key = key.get();
  Result<std::string> certificate = Sign(draft);
  if (!certificate) return certificate.error();
  std::string key_text = PemOfKey(key.get());
  if (key_text.empty()) return OpenSslError("Cannot write a key");
  return Credentials{*std::move(certificate), std::move(key_text)};
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

// Errors: those of MakeHostCredentials that do not come from making a key.
Result<Draft> DraftOfHost(const Result<Parsed>& issuer, const std::string& host_id, const Validity& validity) {
  if (!IsHostId(host_id)) {
    return Error(ErrorCode::kInvalid,
                 "A host id consists of at most 63 letters, digits and inner hyphens, such as a UUID");
  }
  if (!issuer) return issuer.error();
  return Draft{.common_name = host_id,
               .issuer = &*issuer,
               .validity = validity,
               .extensions = {{NID_basic_constraints, "critical,CA:FALSE"},
                              {NID_key_usage, "critical,digitalSignature"},
                              {NID_ext_key_usage, "serverAuth,clientAuth"},
                              {NID_subject_alt_name, "DNS:" + host_id},
                              {NID_subject_key_identifier, "hash"},
                              {NID_authority_key_identifier, "keyid:always"}}};
}

// The public key in the request, whose sender has the private one; null otherwise. Keys of other kinds than our own are
// refused before they are used: some take a long time to verify.
Owned<EVP_PKEY> KeyOfRequest(const std::string& request) {
  if (request.size() > kMaxRequestBytes) return nullptr;
  const Owned<X509_REQ> parsed(PEM_read_bio_X509_REQ(BioOf(request).get(), nullptr, &NoPassword, nullptr));
  if (!parsed) return nullptr;
  Owned<EVP_PKEY> key(X509_REQ_get_pubkey(parsed.get()));
  char group[32] = {};
  const bool is_ours = key && EVP_PKEY_is_a(key.get(), "EC") == 1 &&
                       EVP_PKEY_get_group_name(key.get(), group, sizeof group, nullptr) == 1 &&
                       std::string_view(group) == SN_X9_62_prime256v1;
  if (!is_ours || X509_REQ_verify(parsed.get(), key.get()) != 1) return nullptr;
  return key;
}

}  // namespace

Result<Credentials> MakeAuthority() {
  return Make({.common_name = "VEXA cluster authority",
               .validity = {std::chrono::system_clock::now() - kAuthorityMargin, kAuthorityLifetime + kAuthorityMargin},
               .extensions = {{NID_basic_constraints, "critical,CA:TRUE,pathlen:0"},
                              {NID_key_usage, "critical,keyCertSign,cRLSign"},
                              {NID_subject_key_identifier, "hash"}}});
}

Status CheckAuthority(const Credentials& authority) {
  const Result<Parsed> parsed = ParseAuthority(authority);
  return parsed ? Status() : parsed.error();
}

Result<Credentials> MakeHostCredentials(const Credentials& authority, const std::string& host_id,
                                        const Validity& validity) {
  const Result<Parsed> issuer = ParseAuthority(authority);
  Result<Draft> draft = DraftOfHost(issuer, host_id, validity);
  if (!draft) return draft.error();
  return Make(*std::move(draft));
}

Result<SigningRequest> MakeSigningRequest() {
  ERR_clear_error();
  const Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  const Owned<X509_REQ> request(X509_REQ_new());
  const bool made = key && request && X509_REQ_set_version(request.get(), X509_REQ_VERSION_1) == 1 &&
                    X509_REQ_set_pubkey(request.get(), key.get()) == 1 &&
                    X509_REQ_sign(request.get(), key.get(), EVP_sha256()) > 0;
  if (!made) return OpenSslError("Cannot make a request for a certificate");
  SigningRequest result{PemOf(BIO_s_mem(), [&request](BIO* bio) { return PEM_write_bio_X509_REQ(bio, request.get()); }),
                        PemOfKey(key.get())};
  if (result.request.empty() || result.key.empty()) return OpenSslError("Cannot write a request for a certificate");
  return result;
}

Result<std::string> SignHostCertificate(const Credentials& authority, const std::string& request,
                                        const std::string& host_id, const Validity& validity) {
  const Result<Parsed> issuer = ParseAuthority(authority);
  Result<Draft> draft = DraftOfHost(issuer, host_id, validity);
  if (!draft) return draft.error();
  const Owned<EVP_PKEY> key = KeyOfRequest(request);
  ERR_clear_error();
  if (!key) return Error(ErrorCode::kInvalid, "The request for a certificate is not valid");
  draft->key = key.get();
  return Sign(*draft);
}

}  // namespace vexa::transport
