// When a certificate is valid, with tolerance for clocks that differ.
#pragma once

#include <openssl/x509.h>

#include <chrono>

namespace vexa {

// A certificate whose validity begins later than this after the verifier's time is from the future. It is not used: it
// would win over every certificate that was made since.
inline constexpr std::chrono::hours kCertificateClockTolerance{1};

struct CertificateTimes {
  std::chrono::system_clock::time_point not_before;  // when it was issued
  std::chrono::system_clock::time_point not_after;

  bool IsFromFuture(std::chrono::system_clock::time_point now) const {
    return not_before > now + kCertificateClockTolerance;
  }
  bool HasExpired(std::chrono::system_clock::time_point now) const { return not_after <= now; }
};

// Both times are the epoch when the certificate's cannot be parsed: it has expired then.
CertificateTimes TimesOf(const X509* certificate);

// For verification callbacks of OpenSSL, which refuses a certificate that begins a second too late: accepts it, by
// clearing the error in `context`, when that is why the host's own certificate was refused and it is not from the
// future. Returns what the callback returns for this error.
int AcceptWithinClockTolerance(X509_STORE_CTX* context);

}  // namespace vexa
