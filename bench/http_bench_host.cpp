// The subject of http_bench.py: a daemon with 1,000 guests, and beside it a bare server with the same server code that
// answers every request with the bytes of a `get` reply, through a lane of its own.
//
// Usage: http_bench_host FOLDER (an empty or missing folder, which becomes the daemon's data folder)
// Prints one line of JSON once both answer, and ends with its standard input.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/http_bench_data.h"
#include "host/base/json_parse.h"
#include "host/base/lane.h"
#include "host/daemon/daemon.h"
#include "host/http/http_server.h"
#include "json/readers.h"
#include "tests/support/http_client.h"

namespace {

namespace json = VexaVirtualization::json;
using namespace vexa;
using std::chrono::steady_clock;

// Calls that represent starting a guest on a host that does not answer: they hang until they are released.
class Stalled {
 public:
  void Wait() {
    std::unique_lock lock(mutex_);
    const int mine = released_;
    changed_.wait(lock, [&] { return released_ > mine; });
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

webapi::ApiRow Row(std::string_view method, webapi::LaneKind lane, webapi::Handler handler) {
  return {.api = "VEXA.Bench",
          .method = method,
          .version = 1,
          .access = webapi::Access::kUser,
          .lane = lane,
          .handler = std::move(handler),
          .summary = "A method of the measurement.",
          .parameters = {},
          .errors = {}};
}

daemon::Config ConfigFor(const std::string& folder) {
  daemon::Config config;
  config.data_directory = folder;
  config.socket.clear();
  config.listen = {"127.0.0.1:0"};
  config.calls_per_user = 1000;  // the sessions of a few users represent the many users who would hang
  return config;
}

test::HttpClient ClientOf(const daemon::Daemon& daemon) {
  test::HttpTarget target;
  target.url = "http://127.0.0.1:" + std::to_string(daemon.port(0));
  return test::HttpClient(target);
}

std::string Login(test::HttpClient& client, const std::string& user) {
  const test::HttpReply reply =
      client.PostJson("/webapi/VEXA.Core.Session/login",
                      "{\"user\":\"" + user + "\",\"password\":\"" + std::string(bench::kPassword) + "\"}");
  const Json::Value body = bench::Require(ParseJson(reply.body));
  return json::String(json::Member(json::Member(body, "data"), "token"));
}

std::string GetGuest(const daemon::Daemon& daemon, const std::string& token, const std::string& id) {
  test::HttpClient client = ClientOf(daemon);
  client.SetHeader("Authorization", "Bearer " + token);
  const test::HttpReply reply =
      client.PostJson("/webapi/VEXA.Virtualization.Guest/get", "{\"guest_id\":\"" + id + "\"}");
  if (reply.status != 200) bench::Fail("a guest cannot be read: " + reply.body);
  return reply.body;
}

// The daemon's server and lane options, with nothing in between.
class BareServer {
 public:
  explicit BareServer(std::string body) : body_(std::move(body)), lane_(DaemonLaneOptions()) {
    daemon::ServerOptions options;
    options.listeners.emplace_back();
    options.io_threads = daemon::Config().io_threads;
    options.on_request = [this](daemon::HttpRequest&&, daemon::Responder responder) {
      lane_.Submit("", [this, responder = std::move(responder)] {
        daemon::HttpResponse response;
        response.body = body_;
        responder.Send(std::move(response));
      });
    };
    server_ = bench::Require(daemon::HttpServer::Start(std::move(options)));
  }
  std::uint16_t port() const { return server_->port(0); }

 private:
  static daemon::LaneOptions DaemonLaneOptions() {
    daemon::LaneOptions options;
    options.name = "bare";
    options.min_threads = 2 * static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    return options;
  }

  const std::string body_;
  daemon::Lane lane_;
  std::unique_ptr<daemon::HttpServer> server_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) bench::Fail("usage: http_bench_host FOLDER");
  const std::string folder = argv[1];
  bench::Seed(folder);

  Stalled stalled;
  const daemon::Config config = ConfigFor(folder);
  const auto running = bench::Require(
      daemon::Daemon::Start(config, {Row("stall", webapi::LaneKind::kLong,
                                         [&](const webapi::Call& call) {
                                           stalled.Wait();
                                           call.response->SetSuccess(Json::Value());
                                         }),
                                     Row("release", webapi::LaneKind::kQuick, [&](const webapi::Call& call) {
                                       stalled.Release();
                                       call.response->SetSuccess(Json::Value());
                                     })}));
  Json::Value facts(Json::objectValue);
  test::HttpClient client = ClientOf(*running);
  for (const char* user : {bench::kAdministrator, bench::kUserOfSome, bench::kUserOfAll}) {
    facts["tokens"][user] = Login(client, user);
  }
  for (const std::string& id : bench::GuestIds()) facts["guest_ids"].append(id);
  const std::string reply =
      GetGuest(*running, json::String(facts["tokens"][bench::kAdministrator]), bench::GuestIds().front());
  const BareServer bare(reply);
  facts["pid"] = static_cast<Json::Int64>(::getpid());
  facts["port"] = running->port(0);
  facts["bare_port"] = bare.port();
  facts["io_threads"] = config.io_threads;
  facts["granted_to_some"] = bench::kGrantedToSome;
  facts["reply"] = reply;
  std::puts(json::ToText(facts).c_str());
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  stalled.Release();
  return running->Stop(std::chrono::seconds(5)) ? 0 : 1;
}
