// The request for a certificate that a host sends to the one with the authority's key: any bytes are refused with a
// sentence, or get a certificate for the calling host and the key of the request, and nothing else that it asks for.
//
// The input is a request in PEM; or, after a letter, one in DER: "d", as it is, or "s", signed again with a key of the
// right kind, so that changes of it are not refused for their signature.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/transport/certificates.h"

namespace {

using vexa::fuzz::Check;

const std::string kHostId = "nas-2";

template <auto kFree>
struct Free {
  template <class T>
  void operator()(T* object) const {
    kFree(object);
  }
};
using Bio = std::unique_ptr<BIO, Free<BIO_free_all>>;
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Request = std::unique_ptr<X509_REQ, Free<X509_REQ_free>>;
using Certificate = std::unique_ptr<X509, Free<X509_free>>;

Bio BioOf(std::string_view text) { return Bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))); }

struct Fixture {
  const vexa::transport::Credentials authority = vexa::transport::MakeAuthority().value();
  const Certificate issuer{PEM_read_bio_X509(BioOf(authority.certificate).get(), nullptr, nullptr, nullptr)};
  const Key key{EVP_EC_gen("P-256")};
};

// "" for no bytes, which OpenSSL does not write.
std::string PemOf(std::string_view der) {
  const Bio bio(BIO_new(BIO_s_mem()));
  (void)PEM_write_bio(bio.get(), PEM_STRING_X509_REQ, "", reinterpret_cast<const unsigned char*>(der.data()),
                      static_cast<long>(der.size()));
  ERR_clear_error();
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio.get(), &text);
  return {text, static_cast<std::size_t>(size)};
}

// The request with another key and a signature that fits; unchanged when it cannot be parsed.
std::string SignedAgain(std::string_view der, EVP_PKEY* key) {
  const auto* begin = reinterpret_cast<const unsigned char*>(der.data());
  const Request request(d2i_X509_REQ(nullptr, &begin, static_cast<long>(der.size())));
  const bool is_signed =
      request && X509_REQ_set_pubkey(request.get(), key) == 1 && X509_REQ_sign(request.get(), key, EVP_sha256()) > 0;
  unsigned char* bytes = nullptr;
  const int size = is_signed ? i2d_X509_REQ(request.get(), &bytes) : -1;
  ERR_clear_error();
  if (size < 0) return std::string(der);
  std::string text(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  OPENSSL_free(bytes);
  return text;
}

std::string RequestOf(std::string_view input, const Fixture& fixture) {
  if (input.starts_with("d")) return PemOf(input.substr(1));
  if (input.starts_with("s")) return PemOf(SignedAgain(input.substr(1), fixture.key.get()));
  return std::string(input);
}

void CheckCertificate(const Fixture& fixture, const std::string& request, const std::string& text) {
  const Bio bio = BioOf(text);
  const Certificate certificate(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
  Check(certificate != nullptr, "a reply has a certificate");
  Check(BIO_pending(bio.get()) == 0, "and nothing after it");
  X509* const made = certificate.get();

  const Request parsed(PEM_read_bio_X509_REQ(BioOf(request).get(), nullptr, nullptr, nullptr));
  Check(parsed != nullptr, "a request that is signed can be parsed");
  EVP_PKEY* const key = X509_REQ_get0_pubkey(parsed.get());
  Check(X509_REQ_verify(parsed.get(), key) == 1, "its sender has the private key");
  Check(EVP_PKEY_eq(X509_get0_pubkey(made), key) == 1, "the key is that of the request");

  Check(X509_verify(made, X509_get0_pubkey(fixture.issuer.get())) == 1, "it is signed by the authority");
  X509_NAME* const name = X509_get_subject_name(made);
  char common_name[128] = {};
  Check(X509_NAME_entry_count(name) == 1, "it names one thing");
  Check(X509_NAME_get_text_by_NID(name, NID_commonName, common_name, sizeof common_name) > 0 && common_name == kHostId,
        "the name is that of the calling host");
  Check(X509_check_host(made, kHostId.data(), kHostId.size(), X509_CHECK_FLAG_NEVER_CHECK_SUBJECT, nullptr) == 1,
        "so is its DNS name");
  const std::unique_ptr<GENERAL_NAMES, Free<GENERAL_NAMES_free>> names(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(made, NID_subject_alt_name, nullptr, nullptr)));
  Check(sk_GENERAL_NAME_num(names.get()) == 1, "and there is no other one");
  Check(X509_get_ext_count(made) == 6, "it has no extension of the request");
  Check(X509_check_ca(made) == 0, "it cannot sign others");
  Check(X509_get_key_usage(made) == KU_DIGITAL_SIGNATURE, "it is for connections only");
  const auto latest = std::chrono::system_clock::now() + vexa::transport::kHostCertificateLifetime;
  time_t end = std::chrono::system_clock::to_time_t(latest) + 1;
  Check(X509_cmp_time(X509_get0_notAfter(made), &end) < 0, "it lasts no longer than usual");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fixture fixture;
  const std::string request = RequestOf(vexa::fuzz::Text(data, size), fixture);
  const auto made = vexa::transport::SignHostCertificate(fixture.authority, request, kHostId);
  // It would be taken for the error of a connection.
  Check(ERR_peek_error() == 0, "OpenSSL keeps no error");
  if (made.ok()) {
    CheckCertificate(fixture, request, *made);
  } else {
    Check(made.error().code() == vexa::ErrorCode::kInvalid, "only the request can be wrong");
    Check(made.error().ToString() == "The request for a certificate is not valid", "a refusal is a sentence");
  }
  ERR_clear_error();
  return 0;
}
