// Measures the cost of a request to many hosts: the duration compared with that of the slowest host, the cost per host,
// and threads. Two servers in this process, which share its processors, simulate all hosts. Each measurement prints the
// first request, which connects to every host, and later requests over the same connections.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "bench/simulated_host.h"
#include "host/http/http_server.h"
#include "host/transport/transport.h"
#include "tests/support/temp_dir.h"
#include "webapi/platform/ccc_senders.h"

namespace {

using namespace vexa;
using bench::Check;
using bench::CountThreads;
using bench::Median;
using bench::MillisecondsOf;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kSlowest{1'000};
constexpr int kRounds = 20;
constexpr const char* kReply =
    R"({"success":true,"data":{"result":[{"success":true,"data":{"cpu":{"user_load":3}}}]}})";

// A server that responds after `delay`.
class Host {
 public:
  Host(milliseconds delay, const transport::TlsFiles& tls) : delay_(delay) {
    http::ServerOptions options = bench::ServerOptionsOf(tls);
    options.on_request = [this](http::HttpRequest&&, http::Responder responder) {
      threads_ = CountThreads();
      if (delay_.count() == 0) return bench::Answer(responder, kReply);
      const std::lock_guard lock(mutex_);
      pending_.emplace_back(steady_clock::now() + delay_, std::move(responder));
      changed_.notify_one();
    };
    server_ = bench::Require(http::HttpServer::Start(std::move(options)));
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

  std::string address() const { return bench::AddressOf(*server_); }
  // The number of threads of the process at the last request.
  int threads() const { return threads_; }

 private:
  void Serve() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
      if (pending_.empty()) {
        changed_.wait(lock);
        continue;
      }
      const steady_clock::time_point due = pending_.front().first;
      if (steady_clock::now() < due) {
        changed_.wait_until(lock, due);
        continue;
      }
      bench::Answer(pending_.front().second, kReply);
      pending_.pop_front();
    }
  }

  const milliseconds delay_;
  std::atomic<int> threads_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::pair<steady_clock::time_point, http::Responder>> pending_;
  bool stop_ = false;
  std::unique_ptr<http::HttpServer> server_;
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
    threads_before_ = CountThreads();
    transport::TransportOptions options;
    options.host_id = "local-host";
    options.remote = transport::TransportOptions::Remote::kPlain;
    options.find_address = [this](const std::string& id) { return std::optional(addresses_.at(id)); };
    transport::InstallTransport(bench::Require(transport::Transport::Make(std::move(options))));
  }
  ~Cluster() { transport::RemoveTransport(); }

  double CallAllHosts() {
    VexaDRCore::Request request;
    request.setAPI("VEXA.Entry.Request");
    request.setMethod("request");
    request.addParam("mode", "parallel");
    VexaCCC::MultiSender sender(ids_);
    VexaCCC::MultiResponse responses;
    const double duration_ms = MillisecondsOf([&] { responses = sender.process(request); });
    for (const std::string& id : ids_) Check(responses.getResponse(id).isSuccess(), "reply");
    return duration_ms;
  }

  int extra_threads() const { return std::max(quick_.threads(), slow_.threads()) - threads_before_; }

 private:
  Host quick_;
  Host slow_;
  std::vector<std::string> ids_;
  std::map<std::string, std::string> addresses_;
  int threads_before_ = 0;
};

void MeasureFanOut(int hosts) {
  Cluster with_slow(hosts, Slowest::kOneSecond);
  const double first = with_slow.CallAllHosts();
  std::vector<double> later;
  for (int i = 0; i < 5; ++i) later.push_back(with_slow.CallAllHosts());
  const double slowest = static_cast<double>(kSlowest.count());
  std::printf("%5d hosts, one takes 1 s: first %7.1f ms (%.3f of the slowest), later %7.1f ms (%.3f); threads +%d\n",
              hosts, first, first / slowest, Median(later), Median(later) / slowest, with_slow.extra_threads());
}

void MeasureCost(int hosts) {
  Cluster cluster(hosts, Slowest::kLikeOthers);
  const double first = cluster.CallAllHosts();
  std::vector<double> later;
  for (int i = 0; i < kRounds; ++i) later.push_back(cluster.CallAllHosts());
  std::printf("%5d hosts together:       first %7.1f ms (%5.0f us per host), later %7.1f ms (%5.0f us per host)\n",
              hosts, first, 1000 * first / hosts, Median(later), 1000 * Median(later) / hosts);
}

// One host with TLS: the cost of its connection and of each request.
void MeasureTls() {
  const test::TempDir folder;
  const bench::Authority authority(folder.path());
  const Host host(milliseconds(0), authority.FilesOf("host-0"));
  const transport::TlsFiles own = authority.FilesOf("local-host");
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
    transport::InstallTransport(bench::Require(transport::Transport::Make(std::move(options))));
    VexaCCC::Sender sender("host-0");
    const auto call = [&] { Check(sender.process(request).isSuccess(), "reply"); };
    first.push_back(MillisecondsOf(call));
    for (int k = 0; k < 20; ++k) later.push_back(MillisecondsOf(call));
  }
  transport::RemoveTransport();
  std::printf("one host over TLS 1.3:        first %7.2f ms, later %7.3f ms\n", Median(first), Median(later));
}

}  // namespace

int main() {
  bench::AllowManyFiles();
  for (const int hosts : {10, 100, 1'000}) MeasureFanOut(hosts);
  for (const int hosts : {10, 100, 1'000}) MeasureCost(hosts);
  MeasureTls();
  return 0;
}
