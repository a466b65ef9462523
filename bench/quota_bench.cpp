// Measures how much slower the host is for others while one user without rights uses all they may: the administrator's
// `get` on one connection. In each round it is measured alone, beside a server in this process that gives each of the
// attacker's requests a ready answer, and beside the attack on the host itself. The ready answers show what the
// attacker's client and the sockets cost on a machine that client and host share.
//
// The clients are as far from the host as they can be on one machine: the administrator's goes first (SCHED_FIFO,
// where that is allowed), the attacker's when nobody else wants to run (SCHED_IDLE). Threads of that kind also keep the
// processors awake, because waking one up takes longer than a call.
#include <fmt/format.h>
#include <sched.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "bench/daemon_client.h"
#include "bench/http_bench_data.h"
#include "bench/load_client.h"
#include "host/daemon/daemon.h"
#include "host/http/http_server.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace vexa;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int kRounds = 7;
constexpr milliseconds kMeasuredTime{500};
constexpr milliseconds kSettling{150};  // before each measurement
constexpr milliseconds kPause{2};       // between two calls of the administrator
constexpr int kConnections = 100;       // of the attacker
constexpr double kTarget = 1.25;        // the p99 with the attack, as a ratio to the one alone
constexpr const char* kGet = "/webapi/VEXA.Virtualization.Guest/get";

struct Attack {
  const char* name;
  std::string request;
};

std::vector<Attack> Attacks(const std::string& token) {
  std::string objects = R"({"a":[{})";
  while (objects.size() < (std::size_t{1} << 20) - 8) objects += ",{}";
  objects += "]}";
  const std::string guest = bench::GuestIds().front();
  const auto post = [&](const char* target, const std::string& body) {
    return bench::RequestBytes("POST", target, token, body);
  };
  return {{"lists", post("/webapi/VEXA.Virtualization.Guest/list", "{}")},
          {"reads", post(kGet, fmt::format(R"({{"guest_id":"{}"}})", guest))},
          {"bodies of 1 MiB", post(kGet, objects)},
          {"refused changes", post("/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl",
                                   fmt::format(R"({{"guest_id":"{}","action":"poweron"}})", bench::GuestIds().back()))},
          {"metrics", bench::RequestBytes("GET", "/metrics", "", "")}};
}

// Gives each request the same answer, on the I/O thread.
std::unique_ptr<http::HttpServer> StartReadyServer(const std::string& socket) {
  http::ServerOptions options;
  options.listeners.resize(1);
  options.listeners[0].kind = http::ListenerOptions::Kind::kUnix;
  options.listeners[0].path = socket;
  options.io_threads = daemon::Config().io_threads;
  options.on_request = [](http::HttpRequest&&, const http::Responder& responder) {
    http::HttpResponse response;
    response.body = std::string(1000, 'x');
    responder.Send(std::move(response));
  };
  return bench::Require(http::HttpServer::Start(std::move(options)));
}

class IdleThreads {
 public:
  IdleThreads() {
    for (unsigned i = 0; i < std::thread::hardware_concurrency(); ++i) {
      threads_.emplace_back([](const std::stop_token& stop) {
        const sched_param none{};
        bench::Check(::sched_setscheduler(0, SCHED_IDLE, &none) == 0, "sched_setscheduler");
        while (!stop.stop_requested()) ::sched_yield();
      });
    }
  }

 private:
  std::vector<std::jthread> threads_;
};

bool TakePriority() {
  sched_param first{};
  first.sched_priority = 1;
  return ::sched_setscheduler(0, SCHED_FIFO, &first) == 0;
}

// The p99 of the administrator's calls, in milliseconds.
double Measure(const std::string& socket, const std::string& token) {
  std::this_thread::sleep_for(kSettling);
  std::vector<double> samples;
  std::thread([&] {
    (void)TakePriority();
    bench::LoadConnection connection(socket);
    const std::vector<std::string> ids = bench::GuestIds();
    const auto until = steady_clock::now() + kMeasuredTime;
    for (std::size_t i = 0; steady_clock::now() < until; ++i) {
      const std::string request =
          bench::RequestBytes("POST", kGet, token, fmt::format(R"({{"guest_id":"{}"}})", ids[i % ids.size()]));
      const auto start = steady_clock::now();
      bench::Check(connection.Call(request) == 200, "reading a guest");
      samples.push_back(bench::MillisecondsSince(start));
      std::this_thread::sleep_for(kPause);
    }
  }).join();
  return bench::Quantile(samples, 0.99);
}

struct Sockets {
  std::string host;
  std::string ready;
};

void Report(const Sockets& sockets, const std::string& administrator, const Attack& attack) {
  std::vector<double> alone, beside_ready, beside, ratios, ratios_to_ready;
  std::uint64_t answers = 0;
  for (int round = 0; round < kRounds; ++round) {
    alone.push_back(Measure(sockets.host, administrator));
    {
      const bench::LoadClient load(sockets.ready, attack.request, kConnections);
      beside_ready.push_back(Measure(sockets.host, administrator));
    }
    {
      const bench::LoadClient load(sockets.host, attack.request, kConnections);
      beside.push_back(Measure(sockets.host, administrator));
      answers += load.answers();
    }
    ratios.push_back(beside.back() / alone.back());
    ratios_to_ready.push_back(beside.back() / beside_ready.back());
  }
  const double ratio = bench::Median(ratios);
  const double seconds = kRounds * std::chrono::duration<double>(kSettling + kMeasuredTime).count();
  fmt::print(
      "{:<16} {:>6.0f} answers/s; p99 {:.2f} ms alone, {:.2f} ms beside ready answers, {:.2f} ms beside the attack; "
      "ratio {:.2f} ({:.2f} to {:.2f}; target {}: {}), to ready answers {:.2f}\n",
      attack.name, static_cast<double>(answers) / seconds, bench::Median(alone), bench::Median(beside_ready),
      bench::Median(beside), ratio, bench::Quantile(ratios, 0), bench::Quantile(ratios, 1), kTarget,
      ratio <= kTarget ? "met" : "MISSED", bench::Median(ratios_to_ready));
}

}  // namespace

int main() {
  bench::AllowManyFiles();
  const test::TempDir folder;
  daemon::Config config;
  config.data_directory = folder.File("data");
  config.socket = folder.File("s");
  config.listen.clear();
  config.hypervisor = "none";
  bench::Seed(config.data_directory);
  const auto daemon = bench::Require(daemon::Daemon::Start(config));
  const Sockets sockets{config.socket, folder.File("ready")};
  const auto ready = StartReadyServer(sockets.ready);
  bool is_first = false;
  std::thread([&] { is_first = TakePriority(); }).join();
  test::HttpClient client = bench::ClientOn(config.socket, "");
  const std::string administrator = bench::Login(client, bench::kAdministrator);
  const std::string user = bench::Login(client, bench::kUserWithSomeGuests);
  fmt::print("get of the administrator beside {} connections of one user, medians of {} rounds:\n", kConnections,
             kRounds);
  if (!is_first) fmt::print("(without the right to SCHED_FIFO: the administrator's client waits for processors)\n");
  const IdleThreads awake;
  for (const Attack& attack : Attacks(user)) Report(sockets, administrator, attack);
  if (!daemon->Stop(std::chrono::seconds(30))) bench::Fail("the daemon did not stop");
  return 0;
}
