// Leads an HTTP request to a handler of the API table and back.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/api/api_table.h"
#include "host/api/identity.h"
#include "host/api/metrics.h"
#include "host/base/lane.h"
#include "host/http/http_server.h"

namespace vexa::daemon {

// Threads: OnHeader and OnRequest run on I/O threads and never block; handlers run on the lanes.
class Dispatcher {
 public:
  struct Parts {
    const webapi::ApiTable* table = nullptr;
    const Identity* identity = nullptr;
    Metrics* metrics = nullptr;
    Lane* quick = nullptr;
    Lane* long_running = nullptr;
    std::function<std::string()> metrics_text;  // GET /metrics
    std::function<std::string()> health;        // GET /healthz: the problem, or nothing
    std::function<bool()> is_database_lost{};   // the cluster database cannot be read now; optional
  };
  explicit Dispatcher(Parts parts);

  // Refuses what can be refused without the body: the address, the HTTP method, the content type, the caller. Otherwise
  // stores in the request's context what OnRequest needs.
  std::optional<HttpResponse> OnHeader(HttpRequest& request);
  void OnRequest(HttpRequest&& request, Responder responder);

 private:
  struct Plan;
  struct Work;

  std::optional<HttpResponse> PlanApi(std::string_view path, std::string_view query, HttpRequest& request);
  static bool NeedsUser(const Work& work);
  int CheckAdministrator(const HttpRequest& request) const;
  HttpResponse AnswerPage(const Work& work) const;
  void Run(Work& work) const;
  void RunMethod(Work& work) const;
  void ExplainFailure(const webapi::ApiRow& row, VEXA::APIResponse& response) const;
  void AnswerMethod(Work& work, VEXA::APIResponse& response, std::vector<std::pair<std::string, std::string>>& headers,
                    Json::Value& further) const;

  Parts parts_;
  std::string description_;  // GET /openapi.json
  // Requests under way that may have long bodies.
  const std::shared_ptr<std::atomic<int>> long_bodies_ = std::make_shared<std::atomic<int>>(0);
};

// The reply for an error code: its HTTP status, and {"success": false, "error": {"code", "message", "details"?},
// "request_id"}. A null `details` is left out.
HttpResponse MakeErrorReply(int code, const Json::Value& details, const std::string& request_id);

}  // namespace vexa::daemon
