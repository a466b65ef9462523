// The server that http_bench.py measures: a daemon with 1,000 guests, and a bare server with the same server code that
// answers every request with the bytes of a `get` reply, through a lane of its own.
//
// Usage: http_bench_host FOLDER (an empty or missing folder, which becomes the daemon's data folder)
// Prints one line of JSON when both servers are ready, and exits at the end of its standard input.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "bench/daemon_client.h"
#include "bench/http_bench_data.h"
#include "bench/simulated_host.h"
#include "host/base/lane.h"
#include "host/daemon/daemon.h"
#include "host/http/http_server.h"
#include "json/readers.h"

namespace {

namespace json = VexaVirtualization::json;
using namespace vexa;

// Calls that represent starting a guest on a host that does not answer: they hang until they are released.
class BlockedCalls {
 public:
  void Wait() {
    std::unique_lock lock(mutex_);
    const int seen = released_;
    changed_.wait(lock, [&] { return released_ > seen; });
  }
  void Release() {
    const std::lock_guard lock(mutex_);
    ++released_;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int released_ = 0;
};

api::ApiRow Row(std::string_view method, api::LaneKind lane, api::Handler handler) {
  return {.api = "VEXA.Bench",
          .method = method,
          .version = 1,
          .access = api::Access::kUser,
          .lane = lane,
          .handler = std::move(handler),
          .summary = "A method for the benchmark.",
          .parameters = {},
          .errors = {}};
}

daemon::Config ConfigFor(const std::string& folder) {
  daemon::Config config;
  config.data_directory = folder;
  config.socket.clear();
  config.listen = {"127.0.0.1:0"};
  config.calls_per_user = 1000;  // the sessions of three users represent many users with calls that hang
  return config;
}

test::HttpClient ClientOf(const daemon::Daemon& daemon) {
  test::HttpTarget target;
  target.url = "http://127.0.0.1:" + std::to_string(daemon.port(0));
  return test::HttpClient(target);
}

std::string GetGuest(const daemon::Daemon& daemon, const std::string& token, const std::string& id) {
  test::HttpClient client = ClientOf(daemon);
  client.SetHeader("Authorization", "Bearer " + token);
  const test::HttpReply reply =
      client.PostJson("/webapi/VEXA.Virtualization.Guest/get", "{\"guest_id\":\"" + id + "\"}");
  if (reply.status != 200) bench::Fail("a guest cannot be read: " + reply.body);
  return reply.body;
}

// A server with the daemon's server and lane options, without sessions, dispatcher and handlers.
class BareServer {
 public:
  explicit BareServer(std::string body) : body_(std::move(body)), lane_(DaemonLaneOptions()) {
    http::ServerOptions options;
    options.listeners.emplace_back();
    options.io_threads = daemon::Config().io_threads;
    options.on_request = [this](http::HttpRequest&&, http::Responder responder) {
      lane_.Submit({""}, [this, responder = std::move(responder)] { bench::Answer(responder, body_); });
    };
    server_ = bench::Require(http::HttpServer::Start(std::move(options)));
  }
  std::uint16_t port() const { return server_->port(0); }

 private:
  static LaneOptions DaemonLaneOptions() {
    LaneOptions options;
    options.name = "bare";
    options.min_threads = 2 * static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    return options;
  }

  const std::string body_;
  Lane lane_;
  std::unique_ptr<http::HttpServer> server_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) bench::Fail("usage: http_bench_host FOLDER");
  const std::string folder = argv[1];
  bench::Seed(folder);

  BlockedCalls stalled;
  const daemon::Config config = ConfigFor(folder);
  const auto running =
      bench::Require(daemon::Daemon::Start(config, {Row("stall", api::LaneKind::kLong,
                                                        [&](const api::Call& call) {
                                                          stalled.Wait();
                                                          call.response->SetSuccess(Json::Value());
                                                        }),
                                                    Row("release", api::LaneKind::kQuick, [&](const api::Call& call) {
                                                      stalled.Release();
                                                      call.response->SetSuccess(Json::Value());
                                                    })}));
  Json::Value report(Json::objectValue);
  test::HttpClient client = ClientOf(*running);
  for (const char* user : {bench::kAdministrator, bench::kUserWithSomeGuests, bench::kUserWithAllGuests}) {
    report["tokens"][user] = bench::Login(client, user);
  }
  for (const std::string& id : bench::GuestIds()) report["guest_ids"].append(id);
  const std::string reply =
      GetGuest(*running, json::String(report["tokens"][bench::kAdministrator]), bench::GuestIds().front());
  const BareServer bare(reply);
  report["pid"] = static_cast<Json::Int64>(::getpid());
  report["port"] = running->port(0);
  report["bare_port"] = bare.port();
  report["io_threads"] = config.io_threads;
  report["granted_to_some"] = bench::kGrantedGuests;
  report["reply"] = reply;
  std::puts(json::ToText(report).c_str());
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  stalled.Release();
  return running->Stop(std::chrono::seconds(5)) ? 0 : 1;
}
