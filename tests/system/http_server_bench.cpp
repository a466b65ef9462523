// A small server to measure with wrk(1): every request is handed to a lane and answered from there with 2 KiB.
// Usage: http_server_bench PORT [direct] [idle]; "direct" answers on the I/O thread, "idle" keeps silent connections
// for an hour. Ends at the end of its standard input and prints its statistics.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "host/daemon/http_server.h"
#include "host/daemon/lane.h"

int main(int argc, char** argv) {
  using namespace vexa::daemon;
  bool direct = false;
  ServerOptions options;
  for (int i = 2; i < argc; ++i) {
    direct |= std::strcmp(argv[i], "direct") == 0;
    if (std::strcmp(argv[i], "idle") == 0) options.limits.header = std::chrono::hours(1);
  }
  LaneOptions lane_options;
  lane_options.name = "bench";
  lane_options.min_threads = 2;
  lane_options.max_threads = 2;
  Lane lane(lane_options);
  const std::string body(2048, 'x');
  ListenerOptions listener;
  listener.port = static_cast<std::uint16_t>(argc > 1 ? std::atoi(argv[1]) : 0);
  options.listeners.push_back(listener);
  options.io_threads = 2;
  options.on_request = [&](HttpRequest&&, Responder responder) {
    HttpResponse response;
    response.body = body;
    if (direct) return responder.Send(std::move(response));
    lane.Submit("", [responder = std::move(responder), response = std::move(response)]() mutable {
      responder.Send(std::move(response));
    });
  };
  auto server = HttpServer::Start(std::move(options));
  if (!server) {
    std::fprintf(stderr, "%s\n", server.error().ToString().c_str());
    return 1;
  }
  std::printf("port %u\n", (*server)->port(0));
  std::fflush(stdout);
  while (std::getchar() != EOF) {
  }
  const ServerStats stats = (*server)->stats();
  std::printf("requests %llu, connections %zu\n", static_cast<unsigned long long>(stats.requests), stats.connections);
  (*server)->Stop(std::chrono::seconds(1));
  lane.Stop(std::chrono::seconds(1));
  return 0;
}
