// Who this host is for the others, and whom it believes.
#pragma once

#include <string>

#include "host/base/result.h"

namespace vexa::transport {

struct TlsFiles {
  std::string certificate;  // PEM; its common name is this host's id
  std::string key;          // PEM, readable by its owner only
  std::string authority;    // PEM; signs the certificates of all hosts
};

// The files' contents, so that a connection costs no reading. The key is wiped at the end.
struct TlsMaterial {
  TlsMaterial() = default;
  ~TlsMaterial();
  TlsMaterial(TlsMaterial&&) = default;
  TlsMaterial& operator=(TlsMaterial&&) = delete;

  std::string certificate;
  std::string key;
  std::string authority;
};

// Errors: what ReadFile and ReadPrivateFile say; kInvalid when a file holds nothing of its kind or key and certificate
// do not belong together.
Result<TlsMaterial> LoadTlsMaterial(const TlsFiles& files);

// Whether the certificate's one common name is `host_id`.
bool IsCertificateOf(const TlsMaterial& material, const std::string& host_id);

// Makes every handshake of `ssl_context` (an SSL_CTX*) accept only a certificate that was verified and whose one common
// name is `host_id`, on top of what is checked already. False: out of memory.
bool RequireCommonName(void* ssl_context, const std::string& host_id);

}  // namespace vexa::transport
