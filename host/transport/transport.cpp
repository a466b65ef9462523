#include "host/transport/transport.h"

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <utility>

#include "host/records/reading.h"
#include "host/transport/breaker.h"
#include "host/transport/host_name.h"
#include "host/transport/http_pool.h"
#include "host/transport/messages.h"
#include "host/transport/method_rules.h"
#include "host/transport/origin.h"
#include "host/transport/unanswered.h"
#include "json/readers.h"

namespace vexa::transport {
namespace {

using Clock = std::chrono::steady_clock;

// The longest time-out that a caller may set; longer ones would overflow clocks.
constexpr int kLongestTimeoutS = 7 * 24 * 3600;

// How long a call to a host that was just unreachable waits for a connection.
constexpr std::chrono::milliseconds kShortConnectTimeout{1'000};

std::chrono::milliseconds TimeoutOf(const VexaDRCore::Request& request, const MethodRule& rule) {
  if (request.timeout_s() <= 0) return rule.timeout;
  return std::chrono::seconds(std::min(request.timeout_s(), kLongestTimeoutS));
}

Breaker::Outcome ForBreaker(HttpOutcome::Connection connection) {
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

void NoteUnanswered(const std::vector<std::string>& host_ids, const std::vector<Json::Value>& replies) noexcept {
  try {
    for (std::size_t i = 0; i < host_ids.size(); ++i) {
      if (!json::Bool(json::Member(replies[i], "success"))) UnansweredScope::Note(host_ids[i]);
    }
  } catch (const std::bad_alloc&) {
    // To the caller, a host that did not answer looks like one that had nothing to say.
  }
}

// Where the pool puts outcomes for the one caller that waits for them. Shared with the pool's callbacks, which need no
// memory: a call whose outcome was lost would wait forever.
class Outcomes {
 public:
  struct Entry {
    std::size_t index;
    HttpOutcome outcome;
  };

  // For at most `calls` outcomes.
  explicit Outcomes(std::size_t calls) {
    entries_.reserve(calls);
    taken_.reserve(calls);
  }

  void Put(std::size_t index, HttpOutcome outcome) {
    const std::lock_guard lock(mutex_);
    entries_.push_back({index, std::move(outcome)});
    if (entries_.size() == 1) changed_.notify_one();
  }

  // Waits until there is at least one. The result is valid until the next call.
  std::vector<Entry>& Take() {
    taken_.clear();
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return !entries_.empty(); });
    taken_.swap(entries_);
    return taken_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Entry> entries_;  // under mutex_
  std::vector<Entry> taken_;    // used by the caller
};

}  // namespace

class Transport::Impl {
 public:
  Impl(TransportOptions options, std::optional<TlsMaterial> tls)
      : options_(std::move(options)), breaker_(std::make_shared<Breaker>()), pool_(std::move(tls)) {}

  void Ask(const std::vector<std::string>& host_ids, const VexaDRCore::Request& request,
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
        replies[i] = FailedReply(host_ids[i], "the request names no API and method");
      } else if (!options_.host_id.empty() && host_ids[i] == options_.host_id) {
        local = i;
      } else if (std::string why = FindAddress(host_ids[i], addresses[i]); !why.empty()) {
        replies[i] = FailedReply(host_ids[i], why);
      } else if (!Judge(host_ids[i], rule, attempts[i])) {
        replies[i] = FailedReply(host_ids[i], "it gives no sign of life, and this call is skipped for such hosts");
      } else {
        remote.push_back(i);
      }
    }
    // Other threads write while this one waits, and a snapshot would keep every page that they replace.
    cluster::RequestScope::ReleaseSnapshot();
    const auto outcomes = std::make_shared<Outcomes>(remote.size());
    std::size_t waiting = 0;
    const auto body = remote.empty() ? nullptr : std::make_shared<const std::string>(BodyOf(request));
    const std::vector<std::string> fields = OriginFields(CurrentOrigin());
    for (const std::size_t i : remote) {
      HttpCall call{host_ids[i], addresses[i], path, fields, body, deadline};
      if (Start(std::move(call), attempts[i], i, outcomes)) {
        ++waiting;
      } else {
        replies[i] = FailedReply(host_ids[i], "recent connections failed, so calls to it are paused briefly");
      }
    }
    // On this thread, which would otherwise only wait.
    if (local) replies[*local] = AskLocal(request, deadline);
    Collect(host_ids, *outcomes, waiting, replies);
  }

  void StopRemote() { pool_.Stop(); }

 private:
  // Why the host cannot be called; empty when it can.
  std::string FindAddress(const std::string& host_id, std::string& address) const {
    if (host_id.empty()) return "no host is named";
    if (!IsHostId(host_id)) return "no host can have this id";
    if (options_.remote == TransportOptions::Remote::kNone) return "this host is not set up to call others";
    std::optional<std::string> found = options_.find_address ? options_.find_address(host_id) : std::nullopt;
    if (!found || found->empty()) return "its address is unknown";
    address = std::move(*found);
    return {};
  }

  // False: the host is gone, and the request is not worth finding out whether it is back.
  bool Judge(const std::string& host_id, const MethodRule& rule, Breaker::Attempt& attempt) const {
    attempt.weight = rule.weight;
    if (!options_.life) return true;
    const cluster::HostLife life = options_.life(host_id);
    attempt.sign_of_life = life.seen;
    return !life.is_gone || rule.weight != Breaker::Weight::kRefusable;
  }

  // False: the breaker refuses.
  bool Start(HttpCall call, const Breaker::Attempt& attempt, std::size_t index,
             const std::shared_ptr<Outcomes>& outcomes) {
    const Breaker::Permit permit = breaker_->Enter(call.host_id, Clock::now(), attempt);
    if (permit == Breaker::Permit::kRefused) return false;
    if (permit == Breaker::Permit::kTry) call.connect_timeout = kShortConnectTimeout;
    const std::string host_id = call.host_id;
    const auto report = [breaker = breaker_, permit, host_id,
                         seen = attempt.sign_of_life](Breaker::Outcome outcome) noexcept {
      try {
        breaker->Report(host_id, permit, outcome, Clock::now(), seen);
      } catch (const std::bad_alloc&) {
        // A failure that is not remembered: the host is tried once more.
      }
    };
    try {
      pool_.Start(std::move(call), [report, index, outcomes](HttpOutcome outcome) {
        report(ForBreaker(outcome.connection));
        outcomes->Put(index, std::move(outcome));
      });
    } catch (const std::bad_alloc&) {
      report(Breaker::Outcome::kUnknown);  // otherwise a probe would never end
      throw;
    }
    return true;
  }

  Json::Value AskLocal(const VexaDRCore::Request& request, Clock::time_point deadline) const {
    if (!options_.local_call) return FailedReply(options_.host_id, "this host does not accept calls from itself");
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return options_.local_call(request, std::max(left, std::chrono::milliseconds(0)));
  }

  // Replies are parsed here, as they arrive: the pool's thread has other hosts to serve.
  static void Collect(const std::vector<std::string>& host_ids, Outcomes& outcomes, std::size_t waiting,
                      std::vector<Json::Value>& replies) {
    while (waiting > 0) {
      for (Outcomes::Entry& entry : outcomes.Take()) {
        const std::string& host_id = host_ids[entry.index];
        replies[entry.index] = entry.outcome.failure.empty() ? ParseReply(host_id, entry.outcome.body)
                                                             : FailedReply(host_id, entry.outcome.failure);
        entry.outcome = HttpOutcome();  // its text is not needed while the others arrive
        --waiting;
      }
    }
  }

  const TransportOptions options_;
  const std::shared_ptr<Breaker> breaker_;
  HttpPool pool_;
};

Transport::Transport(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Transport::~Transport() = default;

Result<std::shared_ptr<Transport>> Transport::Make(TransportOptions options) {
  std::optional<TlsMaterial> tls;
  if (options.remote == TransportOptions::Remote::kTls) {
    Result<TlsMaterial> loaded = LoadTlsMaterial(options.tls);
    if (!loaded) return loaded.error();
    if (!IsCertificateOf(*loaded, options.host_id)) {
      return Error(ErrorCode::kInvalid, "'" + options.tls.certificate + "' is not the certificate of this host, '" +
                                            options.host_id + "': 'vexa cluster certificate' makes one");
    }
    tls.emplace(std::move(*loaded));
  }
  return std::shared_ptr<Transport>(new Transport(std::make_unique<Impl>(std::move(options), std::move(tls))));
}

std::vector<Json::Value> Transport::Ask(const std::vector<std::string>& host_ids, const VexaDRCore::Request& request) {
  std::vector<Json::Value> replies(host_ids.size());
  try {
    impl_->Ask(host_ids, request, replies);
  } catch (const std::exception&) {  // out of memory; replies already received stay
    for (std::size_t i = 0; i < host_ids.size(); ++i) {
      if (replies[i].isNull()) replies[i] = FailedReply(host_ids[i], "this host has a fault");
    }
  }
  NoteUnanswered(host_ids, replies);
  return replies;
}

void Transport::StopRemote() { impl_->StopRemote(); }

}  // namespace vexa::transport
