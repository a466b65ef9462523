#include "host/daemon/host_certificate.h"

#include <fmt/format.h>
#include <openssl/crypto.h>
#include <syslog.h>

#include <algorithm>
#include <utility>

#include "host/base/background_thread.h"
#include "host/base/files.h"
#include "host/base/run_logging_exceptions.h"
#include "host/base/time_text.h"
#include "host/transport/certificates.h"

namespace vexa::daemon {
namespace {

using std::chrono::steady_clock;
using std::chrono::system_clock;

constexpr std::chrono::milliseconds kLongestPause{600'000};
// Each reason for a failure is logged once in this time, and at most so many of them.
constexpr std::chrono::hours kLogInterval{24};
constexpr std::size_t kMaxLoggedReasons = 10;
// Where no host has the authority's key, an administrator must renew the certificate by hand.
constexpr std::chrono::hours kManualRenewalWarning{24 * 14};

}  // namespace

bool IsRenewalDue(const CertificateTimes& times, system_clock::time_point now) {
  const system_clock::duration two_thirds = (times.not_after - times.not_before) / 3 * 2;
  const auto due = times.not_before + std::min<system_clock::duration>(two_thirds, kRenewAfter);
  return now >= due || times.IsFromFuture(now);
}

HostCertificate::HostCertificate(HostCertificateOptions options) : options_(std::move(options)) {
  chosen_ = Choose();
  const MutexLock lock(mutex_);
  times_ = chosen_.times;
}

HostCertificate::~HostCertificate() { Stop(); }

void HostCertificate::Stop() {
  BeginStop();
  if (thread_.joinable()) thread_.join();
}

void HostCertificate::Start() {
  thread_ = StartThreadBlockingSignals([this] {
    do {
      RunLoggingExceptions("The check of this host's certificate", [this] { Check(); });
    } while (WaitForInterval());
  });
}

void HostCertificate::BeginStop() {
  const MutexLock lock(mutex_);
  stop_ = true;
  wake_.NotifyAll();
}

CertificateTimes HostCertificate::times() const {
  const MutexLock lock(mutex_);
  return times_;
}

bool HostCertificate::WaitForInterval() {
  const auto end = steady_clock::now() + options_.check_interval;
  const MutexLock lock(mutex_);
  while (!stop_ && wake_.WaitUntil(mutex_, end)) {
  }
  return !stop_;
}

Result<HostCertificate::Choice> HostCertificate::Load(const transport::TlsFiles& files) const {
  Result<transport::TlsMaterial> material = transport::LoadTlsMaterial(files);
  if (!material) return material.error();
  return Choice{files, material->certificate, transport::TimesOf(*material),
                transport::CheckTlsMaterial(*material, options_.host_id, system_clock::now())};
}

HostCertificate::Choice HostCertificate::Choose() {
  const transport::TlsFiles own{options_.renewed_file, options_.renewed_file, options_.configured.authority};
  Result<Choice> configured = Load(options_.configured);
  Result<Choice> renewed = Load(own);
  const auto is_valid = [](const Result<Choice>& choice) { return choice && choice->valid; };
  if (renewed && !renewed->valid) LogIgnored(own.certificate, renewed->valid.error());
  if (!renewed && renewed.error().code() != ErrorCode::kNotFound) LogIgnored(own.certificate, renewed.error());
  if (configured && !configured->valid) LogIgnored(options_.configured.certificate, configured->valid.error());
  const bool prefers_renewed =
      is_valid(renewed) && (!is_valid(configured) || renewed->times.not_before >= configured->times.not_before);
  if (prefers_renewed) return *std::move(renewed);
  if (configured) return *std::move(configured);
  return Choice{options_.configured, "", {}, configured.error()};
}

void HostCertificate::LogIgnored(const std::string& file, const Error& why) {
  const std::string sentence = fmt::format("The certificate '{}' cannot be used: {}.", file, why.ToString());
  if (std::exchange(logged_[file], sentence) == sentence) return;
  ::syslog(LOG_WARNING, "%s", sentence.c_str());
}

void HostCertificate::Check() {
  UseNewer();
  if (!IsRenewalDue(chosen_.times, system_clock::now())) return;
  if (next_attempt_ && steady_clock::now() < *next_attempt_) return;
  Renew();
}

void HostCertificate::UseNewer() {
  Choice choice = Choose();
  if (!choice.valid || choice.certificate == chosen_.certificate) return;
  if (const Status used = options_.use(choice.files); !used) return LogIgnored(choice.files.certificate, used.error());
  chosen_ = std::move(choice);
  next_attempt_.reset();
  pause_ = {};
  logged_failures_.clear();
  ::syslog(LOG_INFO, "Other hosts see a new certificate of this host, valid until %s.",
           FormatUtcTime(chosen_.times.not_after).c_str());
  const MutexLock lock(mutex_);
  times_ = chosen_.times;
}

void HostCertificate::Renew() {
  if (const Status renewed = RequestAndStore(); !renewed) {
    pause_ = std::clamp(2 * pause_, options_.first_pause, kLongestPause);
    next_attempt_ = steady_clock::now() + pause_;
    return LogFailure(renewed.error());
  }
  next_attempt_ = steady_clock::now() + kLongestPause;  // in case it cannot be used
  UseNewer();
}

// Works without the configured certificate and its key, which may be missing or damaged.
Status HostCertificate::RequestAndStore() const {
  Result<std::string> authority = transport::LoadAuthority(options_.configured.authority);
  if (!authority) {
    return Error(ErrorCode::kInvalid, "The authority's certificate cannot be read", authority.error().ToString());
  }
  Result<transport::SigningRequest> request = transport::MakeSigningRequest();
  if (!request) return request.error();
  transport::TlsMaterial made;
  made.key = std::move(request->key);
  Result<std::string> certificate = options_.sign(request->request);
  if (!certificate) return certificate.error();
  made.authority = *std::move(authority);
  made.certificate = *std::move(certificate);
  if (Status valid = transport::CheckTlsMaterial(made, options_.host_id, system_clock::now()); !valid) {
    return Error(ErrorCode::kInvalid, "The new certificate cannot be used", valid.error().ToString());
  }
  std::string both = made.certificate + made.key;
  Status written = WriteFileAtomically(options_.renewed_file, both, 0600);
  OPENSSL_cleanse(both.data(), both.size());
  return written;
}

void HostCertificate::LogFailure(const Error& error) {
  const auto now = system_clock::now();
  const bool needs_hand = error.code() == ErrorCode::kNotFound;
  if (needs_hand && chosen_.times.not_after > now + kManualRenewalWarning) return;
  if (now < first_failure_logged_ || now >= first_failure_logged_ + kLogInterval) logged_failures_.clear();
  std::string sentence = fmt::format(
      "This host's certificate {} on {} and could not be renewed: {}. 'vexa cluster certificate --replace' makes a new "
      "one.",
      chosen_.times.HasExpired(now) ? "expired" : "expires", FormatUtcTime(chosen_.times.not_after), error.ToString());
  if (logged_failures_.size() >= kMaxLoggedReasons || logged_failures_.contains(sentence)) return;
  if (logged_failures_.empty()) first_failure_logged_ = now;
  ::syslog(LOG_WARNING, "%s", sentence.c_str());
  logged_failures_.insert(std::move(sentence));
}

}  // namespace vexa::daemon
