// The cost of a request to many hosts: the total compared with the slowest host alone, the cost per host, and threads.
// All hosts are simulated by two servers in this process, which share its processors. Each measurement shows the first
// request, which connects to every host, and later ones over the same connections.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/base/files.h"
#include "host/http/http_server.h"
#include "host/transport/certificates.h"
#include "host/transport/transport.h"
#include "webapi/platform/ccc_senders.h"

namespace {

using namespace vexa;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kSlowest{1'000};
constexpr int kRounds = 20;
constexpr const char* kReply =
    R"({"success":true,"data":{"result":[{"success":true,"data":{"cpu":{"user_load":3}}}]}})";

void Check(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "transport_bench: %s failed\n", what);
  std::exit(1);
}

double MillisecondsOf(const auto& work) {
  const auto start = steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(steady_clock::now() - start).count();
}

int Threads() {
  int count = 0;
  for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

// Answers after `delay`.
class Host {
 public:
  Host(milliseconds delay, const transport::TlsFiles& tls) : delay_(delay) {
    daemon::ServerOptions options;
    daemon::ListenerOptions listener;
    listener.certificate_file = tls.certificate;
    listener.key_file = tls.key;
    listener.client_authority_file = tls.authority;
    options.listeners = {listener};
    options.io_threads = 1;
    options.on_request = [this](daemon::HttpRequest&&, daemon::Responder responder) {
      threads_ = Threads();
      if (delay_.count() == 0) return Answer(responder);
      const std::lock_guard lock(mutex_);
      held_.emplace_back(steady_clock::now() + delay_, std::move(responder));
      changed_.notify_one();
    };
    options.make_error = [](int, const std::string&) { return daemon::HttpResponse(); };
    auto server = daemon::HttpServer::Start(std::move(options));
    Check(server.ok(), "server");
    server_ = std::move(*server);
    thread_ = std::thread([this] { Serve(); });
  }
  ~Host() {
    {
      const std::lock_guard lock(mutex_);
      stop_ = true;
      changed_.notify_one();
    }
    thread_.join();
  }

  std::string address() const { return "127.0.0.1:" + std::to_string(server_->port(0)); }
  // Of the process, at its last request.
  int threads() const { return threads_; }

 private:
  static void Answer(const daemon::Responder& responder) {
    daemon::HttpResponse response;
    response.body = kReply;
    responder.Send(std::move(response));
  }

  void Serve() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
      if (held_.empty()) {
        changed_.wait(lock);
        continue;
      }
      const steady_clock::time_point due = held_.front().first;
      if (steady_clock::now() < due) {
        changed_.wait_until(lock, due);
        continue;
      }
      Answer(held_.front().second);
      held_.pop_front();
    }
  }

  const milliseconds delay_;
  std::atomic<int> threads_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::pair<steady_clock::time_point, daemon::Responder>> held_;
  bool stop_ = false;
  std::unique_ptr<daemon::HttpServer> server_;
  std::thread thread_;
};

enum class Slowest { kOneSecond, kLikeOthers };

// Plain HTTP: one server cannot present the certificates of many hosts.
class Cluster {
 public:
  Cluster(int hosts, Slowest slowest) : quick_(milliseconds(0), {}), slow_(kSlowest, {}) {
    for (int i = 0; i < hosts; ++i) {
      ids_.push_back("host-" + std::to_string(i));
      addresses_[ids_.back()] = slowest == Slowest::kOneSecond && i == hosts / 2 ? slow_.address() : quick_.address();
    }
    threads_before_ = Threads();
    transport::TransportOptions options;
    options.host_id = "local-host";
    options.remote = transport::TransportOptions::Remote::kPlain;
    options.find_address = [this](const std::string& id) { return std::optional(addresses_.at(id)); };
    auto made = transport::Transport::Make(std::move(options));
    Check(made.ok(), "transport");
    transport::InstallTransport(std::move(*made));
  }
  ~Cluster() { transport::RemoveTransport(); }

  double Ask() {
    VexaDRCore::Request request;
    request.setAPI("VEXA.Entry.Request");
    request.setMethod("request");
    request.addParam("mode", "parallel");
    VexaCCC::MultiSender sender(ids_);
    VexaCCC::MultiResponse responses;
    const double took = MillisecondsOf([&] { responses = sender.process(request); });
    for (const std::string& id : ids_) Check(responses.getResponse(id).isSuccess(), "reply");
    return took;
  }

  int further_threads() const { return std::max(quick_.threads(), slow_.threads()) - threads_before_; }

 private:
  Host quick_;
  Host slow_;
  std::vector<std::string> ids_;
  std::map<std::string, std::string> addresses_;
  int threads_before_ = 0;
};

double Median(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() / 2];
}

void MeasureFanOut(int hosts) {
  Cluster with_slow(hosts, Slowest::kOneSecond);
  const double first = with_slow.Ask();
  std::vector<double> later;
  for (int i = 0; i < 5; ++i) later.push_back(with_slow.Ask());
  const double slowest = static_cast<double>(kSlowest.count());
  std::printf("%5d hosts, one takes 1 s: first %7.1f ms (%.3f of the slowest), later %7.1f ms (%.3f); threads +%d\n",
              hosts, first, first / slowest, Median(later), Median(later) / slowest, with_slow.further_threads());
}

void MeasureCost(int hosts) {
  Cluster cluster(hosts, Slowest::kLikeOthers);
  const double first = cluster.Ask();
  std::vector<double> later;
  for (int i = 0; i < kRounds; ++i) later.push_back(cluster.Ask());
  std::printf("%5d hosts together:       first %7.1f ms (%5.0f us per host), later %7.1f ms (%5.0f us per host)\n",
              hosts, first, 1000 * first / hosts, Median(later), 1000 * Median(later) / hosts);
}

// One host with TLS: the cost of its connection and of each request.
void MeasureTls(const std::string& folder) {
  const auto authority = transport::MakeAuthority();
  Check(authority.ok(), "authority");
  Check(WriteFileAtomically(folder + "/authority.pem", authority->certificate, 0644).ok(), "write");
  const auto files_of = [&](const std::string& id) {
    const auto made = transport::MakeHostCredentials(*authority, id);
    Check(made.ok(), "certificate");
    Check(WriteFileAtomically(folder + "/" + id + ".pem", made->certificate, 0644).ok(), "write");
    Check(WriteFileAtomically(folder + "/" + id + ".key", made->key, 0600).ok(), "write");
    return transport::TlsFiles{folder + "/" + id + ".pem", folder + "/" + id + ".key", folder + "/authority.pem"};
  };
  const Host host(milliseconds(0), files_of("host-0"));
  const transport::TlsFiles own = files_of("local-host");
  VexaDRCore::Request request;
  request.setAPI("VEXA.Core.System");
  request.setMethod("info");
  std::vector<double> first;
  std::vector<double> later;
  for (int i = 0; i < kRounds; ++i) {
    transport::TransportOptions options;
    options.host_id = "local-host";
    options.remote = transport::TransportOptions::Remote::kTls;
    options.tls = own;
    options.find_address = [&](const std::string&) { return std::optional(host.address()); };
    auto made = transport::Transport::Make(std::move(options));
    Check(made.ok(), "transport");
    transport::InstallTransport(std::move(*made));
    VexaCCC::Sender sender("host-0");
    const auto ask = [&] { Check(sender.process(request).isSuccess(), "reply"); };
    first.push_back(MillisecondsOf(ask));
    for (int k = 0; k < 20; ++k) later.push_back(MillisecondsOf(ask));
  }
  transport::RemoveTransport();
  std::printf("one host over TLS 1.3:        first %7.2f ms, later %7.3f ms\n", Median(first), Median(later));
}

}  // namespace

int main() {
  rlimit limit{};
  Check(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 65'536);
  Check(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
  for (const int hosts : {10, 100, 1'000}) MeasureFanOut(hosts);
  for (const int hosts : {10, 100, 1'000}) MeasureCost(hosts);
  std::string folder = "/tmp/vexa_transport_bench_XXXXXX";
  Check(::mkdtemp(folder.data()) != nullptr, "mkdtemp");
  MeasureTls(folder);
  std::filesystem::remove_all(folder);
  return 0;
}
