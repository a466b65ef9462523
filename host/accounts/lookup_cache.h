// Remembers what a slow directory has answered, and asks it on threads that nobody has to wait for.
#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <iterator>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "host/base/background_thread.h"
#include "host/base/mutex.h"
#include "host/base/result.h"

namespace vexa::accounts {

struct LookupOptions {
  std::chrono::milliseconds fresh{5'000};     // an answer is used for this long without asking again
  std::chrono::milliseconds patience{2'000};  // how long callers wait for an answer
  std::chrono::minutes stale{5};              // and how old one may be that is used while none comes
  std::size_t max_entries = 10'000;
  int max_threads = 32;          // look-ups at a time
  int max_unknown_threads = 24;  // of them, for keys without an earlier answer: the other threads are for known keys
  // A look-up that takes longer is given up: its key may be asked for again, and its thread, which may never return,
  // leaves its room to others.
  std::chrono::milliseconds give_up{60'000};
  int max_given_up_threads = 224;
};

// Which look-ups run. Threads: any.
class LookupThreads {
 public:
  explicit LookupThreads(const LookupOptions& options) : options_(options) {}

  enum class Kind { kKnown, kUnknown };
  struct Thread {
    Kind kind;
    std::chrono::steady_clock::time_point started;
  };
  using Ticket = std::list<Thread>::iterator;

  std::optional<Ticket> Take(Kind kind) {
    const auto now = std::chrono::steady_clock::now();
    const MutexLock lock(mutex_);
    int running = 0;  // except for look-ups that were given up
    int unknown = 0;
    for (const Thread& thread : threads_) {
      if (now - thread.started >= options_.give_up) continue;
      ++running;
      if (thread.kind == Kind::kUnknown) ++unknown;
    }
    if (running >= options_.max_threads) return std::nullopt;
    if (kind == Kind::kUnknown && unknown >= options_.max_unknown_threads) return std::nullopt;
    if (std::ssize(threads_) >= options_.max_threads + options_.max_given_up_threads) return std::nullopt;
    return threads_.insert(threads_.end(), {kind, now});
  }
  void GiveBack(Ticket ticket) {
    const MutexLock lock(mutex_);
    threads_.erase(ticket);
  }

 private:
  const LookupOptions options_;
  Mutex mutex_;
  std::list<Thread> threads_ VEXA_GUARDED_BY(mutex_);
};

// Threads: any. Look-ups may outlive it.
template <class Value>
class LookupCache {
 public:
  using LookUp = std::function<Result<Value>()>;

  LookupCache(const LookupOptions& options, std::shared_ptr<LookupThreads> threads)
      : state_(std::make_shared<State>(options, std::move(threads))) {}

  // The answer for `key`: a fresh one, or that of `look_up`, of which only one runs at a time for a key, apart from
  // look-ups that were given up. When none comes in time or `look_up` is kUnavailable: the last answer unless it is
  // stale, otherwise kUnavailable. `look_up` may hang, and must own what it uses.
  Result<Value> Get(const std::string& key, LookUp look_up) const {
    State& state = *state_;
    const MutexLock lock(state.mutex);
    Entry& entry = state.Find(key);
    if (entry.answer && Clock::now() - entry.answered < state.options.fresh) return *entry.answer;
    if (!entry.IsAsked(state.options) && !Start(state_, entry, key, std::move(look_up))) {
      return entry.LastOr(state.options);
    }
    ++entry.waiting;
    const auto until = *entry.asked_since + state.options.patience;
    while (entry.asked_since && state.answered.WaitUntil(state.mutex, until)) {
    }
    --entry.waiting;
    return entry.LastOr(state.options);
  }

  // Makes `value` the answer for `key` from now on. A look-up that runs does not replace it: it may have begun before.
  void Put(const std::string& key, const Value& value) const {
    State& state = *state_;
    const MutexLock lock(state.mutex);
    Entry& entry = state.Find(key);
    entry.answer = value;
    entry.answered = Clock::now();
    entry.is_overtaken = entry.asked_since.has_value();
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Kind = LookupThreads::Kind;

  struct Entry {
    std::optional<Result<Value>> answer;  // other than kUnavailable
    Clock::time_point answered;
    Clock::time_point used;
    std::optional<Clock::time_point> asked_since;  // set while a look-up runs: of the last one
    bool is_overtaken = false;                     // the answer was put here after that look-up had begun
    int waiting = 0;

    bool IsAsked(const LookupOptions& options) const {
      return asked_since && Clock::now() - *asked_since < options.give_up;
    }
    Result<Value> LastOr(const LookupOptions& options) const {
      if (answer && Clock::now() - answered < options.stale) return *answer;
      return Error(ErrorCode::kUnavailable, "The name service does not answer");
    }
  };

  struct State {
    State(const LookupOptions& given, std::shared_ptr<LookupThreads> shared)
        : options(given), threads(std::move(shared)) {}

    Entry& Find(const std::string& key) VEXA_REQUIRES(mutex) {
      if (!entries.contains(key) && entries.size() >= options.max_entries) RemoveLeastUsed();
      Entry& entry = entries[key];
      entry.used = Clock::now();
      return entry;
    }
    // Entries that are in use stay, so there may be more than max_entries by as many as there are threads.
    void RemoveLeastUsed() VEXA_REQUIRES(mutex) {
      auto least = entries.end();
      for (auto at = entries.begin(); at != entries.end(); ++at) {
        if (at->second.asked_since || at->second.waiting > 0) continue;
        if (least == entries.end() || at->second.used < least->second.used) least = at;
      }
      if (least != entries.end()) entries.erase(least);
    }

    const LookupOptions options;
    const std::shared_ptr<LookupThreads> threads;
    Mutex mutex;
    ConditionVariable answered;
    std::unordered_map<std::string, Entry> entries VEXA_GUARDED_BY(mutex);
  };

  // Called with the state's mutex locked. False when no thread is left.
  static bool Start(const std::shared_ptr<State>& state, Entry& entry, const std::string& key, LookUp look_up) {
    const Kind kind = entry.answer && entry.answer->ok() ? Kind::kKnown : Kind::kUnknown;
    const auto ticket = state->threads->Take(kind);
    if (!ticket) return false;
    const Clock::time_point asked = Clock::now();
    try {
      StartThreadBlockingSignals([state, ticket = *ticket, asked, key, look_up = std::move(look_up)] {
        Run(*state, ticket, asked, key, look_up);
      }).detach();
    } catch (const std::exception&) {  // no thread or memory left
      state->threads->GiveBack(*ticket);
      return false;
    }
    entry.asked_since = asked;
    entry.is_overtaken = false;
    return true;
  }

  static void Run(State& state, LookupThreads::Ticket ticket, Clock::time_point asked, const std::string& key,
                  const LookUp& look_up) {
    std::optional<Result<Value>> answer;
    try {
      answer = look_up();
    } catch (const std::exception&) {  // out of memory: as if there were no answer
    }
    state.threads->GiveBack(ticket);
    const MutexLock lock(state.mutex);
    Entry& entry = state.entries[key];
    if (entry.asked_since != asked) return;  // was given up, and a later look-up has asked for the same
    entry.asked_since.reset();
    state.answered.NotifyAll();
    if (std::exchange(entry.is_overtaken, false)) return;
    if (!answer || (!answer->ok() && answer->error().code() == ErrorCode::kUnavailable)) return;
    entry.answer = std::move(answer);
    entry.answered = Clock::now();
  }

  const std::shared_ptr<State> state_;
};

}  // namespace vexa::accounts
