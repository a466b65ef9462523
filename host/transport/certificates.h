// The certificates by which the hosts of a cluster identify each other.
//
// A host's certificate begins when it is made, without a margin: whether it was made before a revocation must be clear.
// Hosts whose clocks are behind accept it nevertheless (host/base/certificate_times.h).
#pragma once

#include <chrono>
#include <string>

#include "host/base/result.h"

namespace vexa::transport {

// A certificate and its private key (EC P-256), in PEM.
struct Credentials {
  std::string certificate;
  std::string key;
};

inline constexpr std::chrono::hours kAuthorityLifetime{24 * 3653};  // ten years
inline constexpr std::chrono::hours kHostCertificateLifetime{24 * 30};
inline constexpr std::size_t kMaxRequestBytes = 8 * 1024;

struct Validity {
  std::chrono::system_clock::time_point begin = std::chrono::system_clock::now();
  std::chrono::hours lifetime = kHostCertificateLifetime;
};

// A new authority that can only sign certificates of hosts. Errors: kInternal (no random numbers, no memory).
Result<Credentials> MakeAuthority();

// kInvalid when the certificate or the key of the authority cannot be parsed, do not match, or are not an authority's,
// or when it has expired.
Status CheckAuthority(const Credentials& authority);

// A new key for the host `host_id`, and a certificate for it signed by `authority`: common name and DNS name are the
// id; for both ends of a connection. It expires no later than the authority. Errors: kInvalid (an invalid host id, and
// those of CheckAuthority), kInternal.
Result<Credentials> MakeHostCredentials(const Credentials& authority, const std::string& host_id,
                                        const Validity& validity = {});

// A new key, and a request in PEM (PKCS #10) to certify it, which may be sent to others. Errors: kInternal.
struct SigningRequest {
  std::string request;
  std::string key;
};
Result<SigningRequest> MakeSigningRequest();

// The certificate that MakeHostCredentials would make, for the key in `request`, which may come from anyone: only its
// key is used, and only if its sender has the private one. Errors: as there, and kInvalid when the request cannot be
// parsed or its key is not of the kind that MakeSigningRequest makes.
Result<std::string> SignHostCertificate(const Credentials& authority, const std::string& request,
                                        const std::string& host_id, const Validity& validity = {});

}  // namespace vexa::transport
