#include "host/transport/transport.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "host/base/mutex.h"
#include "host/records/request_scope.h"
#include "host/transport/breaker.h"
#include "host/transport/host_id_form.h"
#include "host/transport/http_pool.h"
#include "host/transport/messages.h"
#include "host/transport/method_rules.h"
#include "host/transport/origin.h"
#include "host/transport/unanswered.h"
#include "json/readers.h"

namespace vexa::transport {
namespace {

using Clock = std::chrono::steady_clock;

// The longest time-out that a caller may set; a longer one would overflow the clock.
constexpr int kMaxTimeoutS = 7 * 24 * 3600;

// How long a call to a host that was just unreachable waits for a connection.
constexpr std::chrono::milliseconds kShortConnectTimeout{1'000};

std::chrono::milliseconds TimeoutOf(const VexaDRCore::Request& request, const MethodRule& rule) {
  if (request.timeout_s() <= 0) return rule.timeout;
  return std::chrono::seconds(std::min(request.timeout_s(), kMaxTimeoutS));
}

Breaker::Outcome BreakerOutcomeOf(HttpOutcome::Connection connection) {
  switch (connection) {
    case HttpOutcome::Connection::kMade:
      return Breaker::Outcome::kConnected;
    case HttpOutcome::Connection::kFailed:
      return Breaker::Outcome::kNotConnected;
    case HttpOutcome::Connection::kNotTried:
      break;
  }
  return Breaker::Outcome::kUnknown;
}

void RecordUnanswered(const std::vector<std::string>& host_ids, const std::vector<Json::Value>& replies) noexcept {
  try {
    for (std::size_t i = 0; i < host_ids.size(); ++i) {
      if (!json::Bool(json::Member(replies[i], "success"))) FailedHostsScope::Add(host_ids[i], replies[i]);
    }
  } catch (const std::bad_alloc&) {
    // The host is missing from the scope's list, and looks to the caller like one with nothing to report.
  }
}

// A queue of outcomes from the pool to the one caller that waits for them. The caller shares it with the pool's
// callbacks. Put() allocates no memory, because a caller whose outcome was lost would wait forever.
class OutcomeQueue {
 public:
  struct Entry {
    std::size_t index;
    HttpOutcome outcome;
  };

  // For at most `calls` outcomes.
  explicit OutcomeQueue(std::size_t calls) {
    entries_.reserve(calls);
    taken_.reserve(calls);
  }

  void Put(std::size_t index, HttpOutcome outcome) {
    const MutexLock lock(mutex_);
    entries_.push_back({index, std::move(outcome)});
    if (entries_.size() == 1) changed_.NotifyOne();
  }

  // Waits until there is at least one. The result is valid until the next call.
  std::vector<Entry>& Take() {
    taken_.clear();
    const MutexLock lock(mutex_);
    while (entries_.empty()) changed_.Wait(mutex_);
    taken_.swap(entries_);
    return taken_;
  }

 private:
  Mutex mutex_;
  ConditionVariable changed_;
  std::vector<Entry> entries_ VEXA_GUARDED_BY(mutex_);
  std::vector<Entry> taken_;  // used by the caller
};

// Also checks that the certificate is that of the host.
Result<std::shared_ptr<const TlsMaterial>> LoadTlsOf(const std::string& host_id, const TlsFiles& files) {
  Result<TlsMaterial> loaded = LoadTlsMaterial(files);
  if (!loaded) return loaded.error();
  if (!IsCertificateOf(*loaded, host_id)) {
    return Error(ErrorCode::kInvalid,
                 fmt::format("'{}' is not the certificate of this host, '{}'. 'vexa cluster certificate' makes one",
                             files.certificate, host_id));
  }
  return std::shared_ptr<const TlsMaterial>(std::make_shared<TlsMaterial>(std::move(*loaded)));
}

}  // namespace

class Transport::Impl {
 public:
  Impl(TransportOptions options, std::shared_ptr<const TlsMaterial> tls)
      : options_(std::move(options)), breaker_(std::make_shared<Breaker>()), tls_(tls), pool_(std::move(tls)) {}

  void Call(const std::vector<std::string>& host_ids, const VexaDRCore::Request& request,
            std::vector<Json::Value>& replies) {
    const MethodRule rule = RuleOf(request, options_.default_timeout);
    const Clock::time_point deadline = Clock::now() + TimeoutOf(request, rule);
    const std::string path = PathOf(request);
    std::vector<std::size_t> remote;
    std::optional<std::size_t> local;
    std::vector<std::string> addresses(host_ids.size());
    std::vector<Breaker::Attempt> attempts(host_ids.size());
    for (std::size_t i = 0; i < host_ids.size(); ++i) {
      if (path.empty()) {
        replies[i] = FailedReply(host_ids[i], "the request has no valid API and method");
      } else if (!options_.host_id.empty() && host_ids[i] == options_.host_id) {
        local = i;
      } else if (std::string why = FindAddress(host_ids[i], addresses[i]); !why.empty()) {
        replies[i] = FailedReply(host_ids[i], why);
      } else if (!MayCall(host_ids[i], rule, attempts[i])) {
        replies[i] = FailedReply(host_ids[i], "it has sent no heartbeat recently, so the call was skipped");
      } else {
        remote.push_back(i);
      }
    }
    // Other threads write while this one waits, and a snapshot would keep every page that they replace.
    const records::RequestPause waiting_without_reader;
    const auto outcomes = std::make_shared<OutcomeQueue>(remote.size());
    std::size_t waiting = 0;
    const auto body = remote.empty() ? nullptr : std::make_shared<const std::string>(BodyOf(request));
    const std::vector<std::string> fields = OriginHeaders(CurrentOrigin());
    for (const std::size_t i : remote) {
      HttpCall call{host_ids[i], addresses[i], path, fields, body, deadline};
      if (Start(std::move(call), attempts[i], i, outcomes)) {
        ++waiting;
      } else {
        replies[i] = FailedReply(host_ids[i], "recent connections failed, so calls to it are paused briefly");
      }
    }
    // Called on this thread, which would otherwise only wait.
    if (local) replies[*local] = CallLocal(request, deadline);
    Collect(host_ids, *outcomes, waiting, replies);
  }

  Status ReplaceTls(const TlsFiles& files) {
    if (options_.remote != TransportOptions::Remote::kTls) {
      return Error(ErrorCode::kInvalid, "This host is not set up to call others");
    }
    auto tls = LoadTlsOf(options_.host_id, files);
    if (!tls) return tls.error();
    {
      const MutexLock lock(tls_mutex_);
      tls_ = *tls;
    }
    pool_.ReplaceTls(*std::move(tls));
    return {};
  }

  Result<StreamReply> OpenStream(const std::string& host_id, const std::string& path) {
    StreamRequest request;
    request.host_id = host_id;
    request.path = path;
    if (const std::string why = FindAddress(host_id, request.address); !why.empty()) {
      return Error(ErrorCode::kUnavailable, why);
    }
    request.fields = OriginHeaders(CurrentOrigin());
    {
      const MutexLock lock(tls_mutex_);
      request.tls = tls_;
    }
    const records::RequestPause waiting_without_reader;
    return OpenHostStream(request);
  }

  void StopRemote() { pool_.Stop(); }

 private:
  // Why the host cannot be called; empty when it can.
  std::string FindAddress(const std::string& host_id, std::string& address) const {
    if (host_id.empty()) return "the host id is empty";
    if (!IsHostId(host_id)) return "it is not a valid host id";
    if (options_.remote == TransportOptions::Remote::kNone) return "this host is not set up to call others";
    std::optional<std::string> found = options_.find_address ? options_.find_address(host_id) : std::nullopt;
    if (!found || found->empty()) return "its address is unknown";
    address = std::move(*found);
    return {};
  }

  // False: the host is gone, and the request is not important enough to check whether it is back. Fills `attempt`.
  bool MayCall(const std::string& host_id, const MethodRule& rule, Breaker::Attempt& attempt) const {
    attempt.priority = rule.priority;
    if (!options_.liveness) return true;
    const records::HostLiveness liveness = options_.liveness(host_id);
    attempt.last_heartbeat = liveness.last_heartbeat;
    return !liveness.is_gone || rule.priority != Breaker::CallPriority::kSkippable;
  }

  // False: the breaker refuses.
  bool Start(HttpCall call, const Breaker::Attempt& attempt, std::size_t index,
             const std::shared_ptr<OutcomeQueue>& outcomes) {
    const Breaker::Permit permit = breaker_->Enter(call.host_id, Clock::now(), attempt);
    if (permit == Breaker::Permit::kRefused) return false;
    if (permit == Breaker::Permit::kAllowedBriefly) call.connect_timeout = kShortConnectTimeout;
    const std::string host_id = call.host_id;
    const auto report = [breaker = breaker_, permit, host_id,
                         last_heartbeat = attempt.last_heartbeat](Breaker::Outcome outcome) noexcept {
      try {
        breaker->Report(host_id, permit, outcome, Clock::now(), last_heartbeat);
      } catch (const std::bad_alloc&) {
        // The failure is not counted, so the host is tried once more.
      }
    };
    try {
      pool_.Start(std::move(call), [report, index, outcomes](HttpOutcome outcome) {
        report(BreakerOutcomeOf(outcome.connection));
        outcomes->Put(index, std::move(outcome));
      });
    } catch (const std::bad_alloc&) {
      report(Breaker::Outcome::kUnknown);  // otherwise a probe would never end
      throw;
    }
    return true;
  }

  Json::Value CallLocal(const VexaDRCore::Request& request, Clock::time_point deadline) const {
    if (!options_.local_call) return FailedReply(options_.host_id, "this host does not accept calls from itself");
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return options_.local_call(request, std::max(left, std::chrono::milliseconds(0)));
  }

  // Replies are parsed here, as they arrive: the pool's thread has other hosts to serve.
  static void Collect(const std::vector<std::string>& host_ids, OutcomeQueue& outcomes, std::size_t waiting,
                      std::vector<Json::Value>& replies) {
    while (waiting > 0) {
      for (OutcomeQueue::Entry& entry : outcomes.Take()) {
        const std::string& host_id = host_ids[entry.index];
        replies[entry.index] = entry.outcome.failure.empty() ? ParseReply(host_id, entry.outcome.body)
                                                             : FailedReply(host_id, entry.outcome.failure);
        entry.outcome = HttpOutcome();  // releases the memory of the body while the others arrive
        --waiting;
      }
    }
  }

  const TransportOptions options_;
  const std::shared_ptr<Breaker> breaker_;
  Mutex tls_mutex_;
  std::shared_ptr<const TlsMaterial> tls_ VEXA_GUARDED_BY(tls_mutex_);  // of new streams
  HttpPool pool_;
};

Transport::Transport(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Transport::~Transport() = default;

Result<std::shared_ptr<Transport>> Transport::Make(TransportOptions options) {
  std::shared_ptr<const TlsMaterial> tls;
  if (options.remote == TransportOptions::Remote::kTls) {
    auto loaded = LoadTlsOf(options.host_id, options.tls);
    if (!loaded) return loaded.error();
    tls = *std::move(loaded);
  }
  return std::shared_ptr<Transport>(new Transport(std::make_unique<Impl>(std::move(options), std::move(tls))));
}

std::vector<Json::Value> Transport::Call(const std::vector<std::string>& host_ids, const VexaDRCore::Request& request) {
  std::vector<Json::Value> replies(host_ids.size());
  try {
    impl_->Call(host_ids, request, replies);
  } catch (const std::exception&) {  // out of memory; replies already received stay
    for (std::size_t i = 0; i < host_ids.size(); ++i) {
      if (replies[i].isNull()) replies[i] = FailedReply(host_ids[i], "this host ran out of memory");
    }
  }
  RecordUnanswered(host_ids, replies);
  return replies;
}

Result<StreamReply> Transport::OpenStream(const std::string& host_id, const std::string& path) {
  return impl_->OpenStream(host_id, path);
}

Status Transport::ReplaceTls(const TlsFiles& files) { return impl_->ReplaceTls(files); }

void Transport::StopRemote() { impl_->StopRemote(); }

}  // namespace vexa::transport
