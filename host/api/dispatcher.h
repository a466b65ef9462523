// Answers HTTP requests with the handlers of the API table.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/api/allowed_origins.h"
#include "host/api/api_table.h"
#include "host/api/body_quota.h"
#include "host/api/console.h"
#include "host/api/identity.h"
#include "host/api/metrics.h"
#include "host/api/upload.h"
#include "host/base/lane.h"
#include "host/http/http_server.h"

namespace vexa::api {

// Threads: OnHeader and OnRequest run on I/O threads and never block; handlers run on the lanes.
class Dispatcher {
 public:
  struct Parts {
    const ApiTable* table = nullptr;
    const Identity* identity = nullptr;
    Metrics* metrics = nullptr;
    Lane* quick = nullptr;
    Lane* long_running = nullptr;
    Lane* hosts = nullptr;                       // for calls of other hosts: users cannot take their room
    Lane* quick_hosts = nullptr;                 // likewise, for calls that only read
    std::function<std::string()> metrics_text;   // GET /metrics
    std::function<std::string()> health;         // GET /healthz: the problem, or ""; on I/O threads, must not block
    bool is_simulated = false;                   // guests are only simulated here: GET /healthz reports it
    session::ConsoleTickets* tickets = nullptr;  // with `open_console`
    ConsoleOpener open_console{};                // GET /console/…, on the lane for long calls; not set: 404
    UploadTaker take_piece{};                    // PUT /upload/…, on the lane for long calls; not set: 404
    std::function<bool()> is_database_lost{};    // whether the cluster database cannot be read now; optional
    AllowedOrigins allowed_origins{};            // whose pages may call from browsers, beside this host's own
  };
  explicit Dispatcher(Parts parts);

  // Refuses what can be refused without the body: the address, the HTTP method, the content type, the caller. Otherwise
  // stores in the request's context what OnRequest needs.
  std::optional<http::HttpResponse> OnHeader(http::HttpRequest& request);
  void OnRequest(http::HttpRequest&& request, http::Responder responder);

 private:
  struct Plan;
  struct Work;

  std::optional<http::HttpResponse> PlanRequest(http::HttpRequest& request);
  void Send(const Work& work, http::HttpResponse response) const;
  std::optional<http::HttpResponse> PlanMethodCall(std::string_view path, std::string_view query,
                                                   http::HttpRequest& request);
  std::optional<http::HttpResponse> PlanConsoleRequest(http::HttpRequest& request);
  std::optional<http::HttpResponse> PlanPiece(http::HttpRequest& request);
  Lane& LaneFor(const Plan& plan) const;
  static bool NeedsUser(const Work& work);
  int CheckAdministrator(const http::HttpRequest& request) const;
  http::HttpResponse MakePage(const Work& work) const;
  void Run(Work& work) const;
  void RunMethod(Work& work) const;
  http::HttpResponse OpenConsole(Work& work) const;
  UploadAnswer TakePiece(Work& work) const;
  http::Owner OwnerFor(const Caller& caller) const;
  std::optional<http::Owner> OwnerAfter(const Work& work, int code) const;
  void ExplainDatabaseLoss(const ApiRow& row, VEXA::APIResponse& response, Json::Value& extra_members) const;
  void CallMethod(Work& work, VEXA::APIResponse& response, std::vector<std::pair<std::string, std::string>>& headers,
                  Json::Value& extra_members) const;

  Parts parts_;
  std::shared_ptr<const std::string> description_;  // GET /openapi.json
  BodyQuota bodies_;
  // How many requests that may have long bodies are in progress.
  const std::shared_ptr<std::atomic<int>> long_body_requests_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace vexa::api
