#include "host/transport/http_pool.h"

#include <pthread.h>

#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "host/base/background_thread.h"
#include "host/base/mutex.h"
#include "host/transport/curl_loop.h"
#include "host/transport/http_transfer.h"

namespace vexa::transport {
namespace {

// Idle connections that wait for the next call to their host. libcurl's default is based on the number of calls under
// way, which would close most of them at the end of every call to many hosts.
constexpr long kMaxIdleConnections = 4096;
constexpr std::chrono::milliseconds kPauseAfterFault{50};

using Transfers = std::vector<std::unique_ptr<HttpTransfer>>;

// Not joinable when the system cannot start another thread.
std::thread TryStart(const std::function<void()>& body) {
  try {
    return StartThreadBlockingSignals(body);
  } catch (const std::system_error&) {
    return {};
  }
}

}  // namespace

class HttpPool::Impl {
 public:
  explicit Impl(std::shared_ptr<const TlsMaterial> tls) : tls_(std::move(tls)) {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (initialised != CURLE_OK) return;
    loop_.emplace();
    if (!loop_->IsValid()) {
      loop_.reset();
      return;
    }
    curl_multi_setopt(loop_->multi(), CURLMOPT_MAXCONNECTS, kMaxIdleConnections);
  }

  ~Impl() {
    Stop();
    if (thread_.joinable()) thread_.join();
  }

  void Stop() {
    const MutexLock lock(mutex_);
    stopping_ = true;
    if (thread_.joinable()) loop_->Wake();
  }

  void ReplaceTls(std::shared_ptr<const TlsMaterial> tls) {
    const MutexLock lock(mutex_);
    tls_.swap(tls);
  }

  void Start(HttpCall call, Done done) {
    auto transfer = std::make_unique<HttpTransfer>(std::move(call), std::move(done));
    ReleasableMutexLock lock(mutex_);
    if (loop_ && !stopping_ && !thread_.joinable()) {
      thread_ = TryStart([this] { Run(); });
    }
    const bool stopping = stopping_;
    if (stopping || !thread_.joinable()) {
      lock.Unlock();
      return transfer->Fail(stopping ? "this host is stopping" : "this host cannot start a thread");
    }
    const bool first = queue_.empty();
    queue_.push_back(std::move(transfer));
    lock.Unlock();
    if (first) loop_->Wake();
  }

 private:
  void Run() {
    pthread_setname_np(pthread_self(), "transport");
    while (TakeQueued()) {
      const bool is_well = loop_->RunOnce();
      FinishDone();
      if (!is_well) std::this_thread::sleep_for(kPauseAfterFault);
    }
    for (auto& [handle, transfer] : active_) {
      curl_multi_remove_handle(loop_->multi(), handle);
      transfer->Fail("this host is stopping");
    }
    active_.clear();
  }

  // Starts the calls that callers have queued. False: stop.
  bool TakeQueued() {
    Transfers taken;
    std::shared_ptr<const TlsMaterial> tls;
    bool stopping = false;
    {
      const MutexLock lock(mutex_);
      taken.swap(queue_);
      tls = tls_;
      stopping = stopping_;
    }
    for (auto& transfer : taken) {
      if (stopping) {
        transfer->Fail("this host is stopping");
      } else {
        Begin(std::move(transfer), tls);
      }
    }
    return !stopping;
  }

  void Begin(std::unique_ptr<HttpTransfer> transfer, const std::shared_ptr<const TlsMaterial>& tls) {
    HttpTransfer& started = *transfer;
    try {
      if (!started.Prepare(tls)) return started.Fail("it cannot be called");
      active_.try_emplace(started.handle());
    } catch (const std::bad_alloc&) {
      return started.Fail("no memory for a connection");
    }
    active_[started.handle()] = std::move(transfer);
    if (curl_multi_add_handle(loop_->multi(), started.handle()) == CURLM_OK) return;
    started.Fail("no memory for a connection");
    active_.erase(started.handle());
  }

  void FinishDone() {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(loop_->multi(), &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* const handle = message->easy_handle;
      const CURLcode code = message->data.result;  // the message is freed with the handle
      curl_multi_remove_handle(loop_->multi(), handle);
      auto node = active_.extract(handle);
      node.mapped()->Finish(code);
    }
  }

  std::optional<CurlLoop> loop_;  // not set: it could not be created
  Mutex mutex_;
  std::shared_ptr<const TlsMaterial> tls_ VEXA_GUARDED_BY(mutex_);
  std::thread thread_ VEXA_GUARDED_BY(mutex_);
  Transfers queue_ VEXA_GUARDED_BY(mutex_);
  bool stopping_ VEXA_GUARDED_BY(mutex_) = false;
  std::unordered_map<CURL*, std::unique_ptr<HttpTransfer>> active_;  // used by the thread only
};

HttpPool::HttpPool(std::shared_ptr<const TlsMaterial> tls) : impl_(std::make_unique<Impl>(std::move(tls))) {}

HttpPool::~HttpPool() = default;

void HttpPool::ReplaceTls(std::shared_ptr<const TlsMaterial> tls) { impl_->ReplaceTls(std::move(tls)); }

void HttpPool::Stop() { impl_->Stop(); }

void HttpPool::Start(HttpCall call, Done done) { impl_->Start(std::move(call), std::move(done)); }

}  // namespace vexa::transport
