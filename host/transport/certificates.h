// The certificates by which the hosts of a cluster know each other.
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

// A new authority, good for signing hosts' certificates only.
// Errors: kInternal (no random numbers, no memory).
Result<Credentials> MakeAuthority();

// A new key for the host `host_id`, and a certificate for it that `authority` signs: common name and DNS name are the
// id; for both ends of a connection. It ends with the authority at the latest. Errors: kInvalid (no host can have this
// id; certificate or key of the authority cannot be understood, do not belong together, or are no authority's; it has
// ended), kInternal.
Result<Credentials> MakeHostCredentials(const Credentials& authority, const std::string& host_id);

}  // namespace vexa::transport
