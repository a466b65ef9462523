// The certificates by which the hosts of a cluster identify each other.
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

inline constexpr std::chrono::hours kCertificateLifetime{24 * 3653};  // ten years

// A new authority that can only sign certificates of hosts. Errors: kInternal (no random numbers, no memory).
Result<Credentials> MakeAuthority();

// A new key for the host `host_id`, and a certificate for it signed by `authority`: common name and DNS name are the
// id; for both ends of a connection. It expires no later than the authority. Errors: kInvalid (an invalid host id;
// certificate or key of the authority cannot be parsed, do not match, or are not an authority's; the authority has
// expired), kInternal.
Result<Credentials> MakeHostCredentials(const Credentials& authority, const std::string& host_id);

}  // namespace vexa::transport
