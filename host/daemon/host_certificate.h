// The certificate by which other hosts recognize this one: chooses it, notices a new one, and renews it in time.
//
// There are two: the one that the configuration names, which an administrator may replace at any time, and the one that
// this host has renewed, in its data folder. The one that was issued last is used, unless it is not valid now; one from
// the future is never used, because the clock of its signer or of this host is wrong.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "host/base/certificate_times.h"
#include "host/base/mutex.h"
#include "host/base/result.h"
#include "host/transport/tls_material.h"

namespace vexa::daemon {

// When a certificate is renewed: after two thirds of its lifetime, and never later than this after it was issued, so
// that certificates of older versions, which last ten years, are replaced as well.
inline constexpr std::chrono::hours kRenewAfter{24 * 20};
bool IsRenewalDue(const CertificateTimes& times, std::chrono::system_clock::time_point now);

struct HostCertificateOptions {
  std::string host_id;
  transport::TlsFiles configured;
  std::string renewed_file;  // certificate and key in one file, so that they are replaced together
  // Asks the hosts that have the authority's key to sign a request. Returns the certificate. Errors: kNotFound when no
  // host has the key; others when one has it or may have it.
  std::function<Result<std::string>(const std::string& request)> sign;
  // Makes this host use the certificate in these files for new connections.
  std::function<Status(const transport::TlsFiles& files)> use;
  std::chrono::milliseconds check_interval{5'000};
  // Failed attempts are repeated: after this time, and each time after twice as long, up to ten minutes. The first time
  // soon, because other hosts may have been starting.
  std::chrono::milliseconds first_pause{5'000};
};

// Threads: one constructs, starts and destroys it; any for the rest. The callbacks run on its own thread.
class HostCertificate {
 public:
  // Chooses the certificate to start with: the configured one when neither is valid.
  explicit HostCertificate(HostCertificateOptions options);
  ~HostCertificate();
  HostCertificate(const HostCertificate&) = delete;
  HostCertificate& operator=(const HostCertificate&) = delete;

  // The files to start with.
  transport::TlsFiles files() const { return chosen_.files; }

  // Starts checking. Call it once, when `use` and `sign` can be called.
  void Start();
  // Makes the thread end once its calls have returned. BeginStop does not wait for that; Stop does.
  void BeginStop();
  void Stop();

  // Of the certificate that is in use.
  CertificateTimes times() const;

 private:
  struct Choice {
    transport::TlsFiles files;
    std::string certificate;
    CertificateTimes times;
    Status valid;
  };
  Result<Choice> Load(const transport::TlsFiles& files) const;
  Choice Choose();
  void LogIgnored(const std::string& file, const Error& why);  // once for each reason

  bool WaitForInterval();
  void Check();
  void UseNewer();
  void Renew();
  Status RequestAndStore() const;
  void LogFailure(const Error& error);  // once a day for each reason, and ten reasons at most

  const HostCertificateOptions options_;
  // Used by the constructor, then by the thread:
  Choice chosen_;
  std::map<std::string, std::string> logged_;  // by file: why it was last ignored
  std::optional<std::chrono::steady_clock::time_point> next_attempt_;
  std::chrono::milliseconds pause_{0};     // after the last failed attempt
  std::set<std::string> logged_failures_;  // since first_failure_logged_
  std::chrono::system_clock::time_point first_failure_logged_;

  mutable Mutex mutex_;
  ConditionVariable wake_;
  bool stop_ VEXA_GUARDED_BY(mutex_) = false;
  CertificateTimes times_ VEXA_GUARDED_BY(mutex_);
  std::thread thread_;
};

}  // namespace vexa::daemon
