#include "host/http/http_server.h"

#include <algorithm>
#include <atomic>
#include <boost/asio/post.hpp>
#include <exception>
#include <future>
#include <semaphore>
#include <utility>
#include <vector>

#include "host/base/mutex.h"
#include "host/http/http_acceptor.h"
#include "host/http/http_io_thread.h"
#include "host/http/http_listen.h"
#include "host/http/http_shared.h"

namespace vexa::http {
namespace {

// Longer deadlines would overflow the clock.
constexpr std::chrono::hours kMaxStopTimeout{24 * 365};

}  // namespace

class HttpServer::Impl {
 public:
  explicit Impl(ServerOptions options);
  ~Impl() { Stop(std::chrono::milliseconds(0)); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  Status Listen();
  void Run();
  bool Stop(std::chrono::milliseconds deadline);
  std::uint16_t port(std::size_t index) const { return ports_.at(index); }
  Status ReplaceCertificate(std::size_t index, const std::string& certificate_file, const std::string& key_file);
  ServerStats Stats() const;
  bool AreThreadsResponding(std::chrono::milliseconds timeout);

 private:
  void HandOver(AcceptedConnection&& accepted);
  void CloseListeners();
  std::size_t Abort();

  ServerShared shared_;
  std::vector<std::uint16_t> ports_;
  std::vector<std::unique_ptr<IoThread>> threads_;
  std::vector<std::shared_ptr<Acceptor>> acceptors_;  // on the first I/O thread
  std::size_t next_thread_ = 0;                       // of the first I/O thread
  bool running_ = false;

  Mutex stop_mutex_;
  bool stopped_ VEXA_GUARDED_BY(stop_mutex_) = false;
  bool all_finished_ VEXA_GUARDED_BY(stop_mutex_) = true;

  Mutex drain_mutex_;
  ConditionVariable drain_changed_;
  std::size_t drained_threads_ VEXA_GUARDED_BY(drain_mutex_) = 0;
};

HttpServer::Impl::Impl(ServerOptions options) : shared_(std::move(options)) {
  const int count = std::max(shared_.options.io_threads, 1);
  for (int i = 0; i < count; ++i) {
    threads_.push_back(std::make_unique<IoThread>(shared_, i, [this] {
      const MutexLock lock(drain_mutex_);
      ++drained_threads_;
      drain_changed_.NotifyAll();
    }));
  }
}

Status HttpServer::Impl::Listen() {
  for (const ListenerOptions& options : shared_.options.listeners) {
    Result<TlsContext> tls = MakeTlsContext(options);
    if (!tls) return tls.error();
    Result<ListeningSocket> listening = ListeningSocket::Open(options);
    if (!listening) return listening.error();
    ports_.push_back(listening->port());
    acceptors_.push_back(
        std::make_shared<Acceptor>(threads_.front()->context(), shared_, std::move(*listening), *tls,
                                   [this](AcceptedConnection&& accepted) { HandOver(std::move(accepted)); }));
  }
  return {};
}

void HttpServer::Impl::Run() {
  for (const auto& thread : threads_) {
    thread->Start();
    running_ = true;  // already with the first one: if another thread does not start, Stop() must stop it
  }
  for (const auto& acceptor : acceptors_) threads_.front()->Post([acceptor] { acceptor->Start(); });
}

void HttpServer::Impl::HandOver(AcceptedConnection&& accepted) {
  IoThread& thread = *threads_[next_thread_++ % threads_.size()];
  if (&thread == threads_.front().get()) {
    thread.AddConnection(std::move(accepted));
  } else {
    boost::asio::post(thread.context(),
                      [&thread, taken = std::move(accepted)]() mutable { thread.AddConnection(std::move(taken)); });
  }
}

void HttpServer::Impl::CloseListeners() {
  std::promise<void> closed;
  threads_.front()->Post([&] {
    for (const auto& acceptor : acceptors_) acceptor->Close();
    acceptors_.clear();
    closed.set_value();
  });
  closed.get_future().wait();
}

Status HttpServer::Impl::ReplaceCertificate(std::size_t index, const std::string& certificate_file,
                                            const std::string& key_file) {
  ListenerOptions options = shared_.options.listeners.at(index);
  options.certificate_file = certificate_file;
  options.key_file = key_file;
  Result<TlsContext> tls = MakeTlsContext(options);
  if (!tls) return tls.error();
  const MutexLock lock(stop_mutex_);  // a stop destroys the acceptors
  if (stopped_) return Error(ErrorCode::kUnavailable, "The server is stopping");
  threads_.front()->Post([acceptor = acceptors_.at(index), tls = *std::move(tls)] { acceptor->ReplaceTls(tls); });
  return {};
}

std::size_t HttpServer::Impl::Abort() {
  std::atomic<std::size_t> interrupted = 0;
  for (const auto& thread : threads_) thread->Post([&interrupted, io = thread.get()] { interrupted += io->Abort(); });
  for (const auto& thread : threads_) thread->Join();
  return interrupted;
}

bool HttpServer::Impl::Stop(std::chrono::milliseconds deadline) {
  const auto until = std::chrono::steady_clock::now() + std::min<std::chrono::milliseconds>(deadline, kMaxStopTimeout);
  const MutexLock stop_lock(stop_mutex_);
  if (std::exchange(stopped_, true)) return all_finished_;
  if (!running_) {
    for (const auto& acceptor : acceptors_) acceptor->Close();
    return true;
  }
  CloseListeners();
  for (const auto& thread : threads_) thread->Post([io = thread.get()] { io->BeginStop(); });
  {
    const MutexLock lock(drain_mutex_);
    while (drained_threads_ != threads_.size() && drain_changed_.WaitUntil(drain_mutex_, until)) {
    }
  }
  all_finished_ = Abort() == 0;
  return all_finished_;
}

ServerStats HttpServer::Impl::Stats() const {
  return ServerStats{shared_.connections->total(),   shared_.accepted, shared_.refused_connections,
                     shared_.connections->evicted(), shared_.requests, shared_.refused_by_server};
}

bool HttpServer::Impl::AreThreadsResponding(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  const auto responses = std::make_shared<std::counting_semaphore<>>(0);
  for (const auto& thread : threads_) thread->Post([responses] { responses->release(); });
  for (std::size_t i = 0; i < threads_.size(); ++i) {
    if (!responses->try_acquire_until(end)) return false;
  }
  return true;
}

Result<std::unique_ptr<HttpServer>> HttpServer::Start(ServerOptions options) {
  try {
    auto impl = std::make_unique<Impl>(std::move(options));
    if (Status listening = impl->Listen(); !listening) return listening.error();
    impl->Run();
    return std::unique_ptr<HttpServer>(new HttpServer(std::move(impl)));
  } catch (const std::exception& failure) {
    return Error(ErrorCode::kInternal, "Cannot start the HTTP server", failure.what());
  }
}

HttpServer::HttpServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

HttpServer::~HttpServer() = default;

std::uint16_t HttpServer::port(std::size_t index) const { return impl_->port(index); }

Status HttpServer::ReplaceCertificate(std::size_t index, const std::string& certificate_file,
                                      const std::string& key_file) {
  return impl_->ReplaceCertificate(index, certificate_file, key_file);
}

bool HttpServer::Stop(std::chrono::milliseconds deadline) { return impl_->Stop(deadline); }

ServerStats HttpServer::stats() const { return impl_->Stats(); }

bool HttpServer::AreThreadsResponding(std::chrono::milliseconds timeout) {
  return impl_->AreThreadsResponding(timeout);
}

}  // namespace vexa::http
