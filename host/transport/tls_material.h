// This host's identity towards the others, and the authority that it trusts.
#pragma once

#include <chrono>
#include <string>

#include "host/base/certificate_times.h"
#include "host/base/result.h"

namespace vexa::transport {

struct TlsFiles {
  std::string certificate;  // PEM; its common name is this host's id
  std::string key;          // PEM, readable by its owner only
  std::string authority;    // PEM; signs the certificates of all hosts
};

// The contents of TlsFiles, read once, so that a new connection does not read files. The destructor wipes the key, and
// the certificate as well, because one file may contain both.
struct TlsMaterial {
  TlsMaterial() = default;
  ~TlsMaterial();
  TlsMaterial(TlsMaterial&&) = default;
  TlsMaterial& operator=(TlsMaterial&&) = delete;

  std::string certificate;
  std::string key;
  std::string authority;
};

// Errors: those of ReadFile and ReadPrivateFile; kInvalid when a file does not contain what it should, or key and
// certificate do not match.
Result<TlsMaterial> LoadTlsMaterial(const TlsFiles& files);

// The authority's certificate in this file. Errors: those of ReadFile; kInvalid when it does not contain one.
Result<std::string> LoadAuthority(const std::string& file);

// Whether the certificate's only common name is `host_id`.
bool IsCertificateOf(const TlsMaterial& material, const std::string& host_id);

// Whether other hosts accept the certificate at this time. kInvalid, with the reason, when it cannot be parsed, is not
// that of `host_id`, is not signed by the authority, does not belong to the key, has expired or is from the future.
Status CheckTlsMaterial(const TlsMaterial& material, const std::string& host_id,
                        std::chrono::system_clock::time_point now);

CertificateTimes TimesOf(const TlsMaterial& material);

// Makes every handshake of `ssl_context` (an SSL_CTX*) accept only a verified certificate whose only common name is
// `host_id`, in addition to the existing checks. The certificate may begin a little later than this host's time; see
// AcceptWithinClockTolerance. False: out of memory.
bool RequireCommonName(void* ssl_context, const std::string& host_id);

}  // namespace vexa::transport
