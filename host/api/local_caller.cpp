#include "host/api/local_caller.h"

#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>

#include "host/api/handler_call.h"
#include "host/api/request_id.h"
#include "host/base/error_table.h"
#include "host/transport/messages.h"

namespace vexa::daemon {
namespace {

using Clock = std::chrono::steady_clock;

Json::Value ErrorReply(int code) {
  VEXA::APIResponse response;
  response.SetError(code, Json::Value());
  return MakeEnvelope(response, Json::Value());
}

}  // namespace

// Shared by the caller and the lane's thread, because either may be the last to need it.
struct LocalCaller::Job {
  const webapi::ApiRow* row = nullptr;
  webapi::Caller caller;
  std::string request_id;
  Json::Value parameters;
  Clock::time_point begun = Clock::now();

  std::mutex mutex;
  std::condition_variable changed;
  bool abandoned = false;  // under mutex: the caller no longer waits
  bool done = false;       // under mutex
  Json::Value reply;       // under mutex
};

Json::Value LocalCaller::Call(const VexaDRCore::Request& request, std::chrono::milliseconds timeout) {
  try {
    const Clock::time_point deadline = Clock::now() + timeout;
    const webapi::ApiRow* const row = parts_.table->Find(request.api(), request.method(), request.version());
    if (row == nullptr) return ErrorReply(webapi::kErrorUnknownApi);
    const auto job = std::make_shared<Job>();
    job->row = row;
    job->caller.kind = webapi::Caller::Kind::kHost;
    job->caller.host_id = parts_.host_id;
    job->caller.acts_for = CurrentActingUser();
    job->caller.peer = "local";
    if (const int refusal = CheckCaller(row->access.value, job->caller)) return ErrorReply(refusal);
    job->request_id = CurrentRequestId();
    job->parameters = request.parameters();
    const Lane::Submitted submitted = parts_.lane->Submit("", [this, job] { Run(*job); });
    if (submitted == Lane::Submitted::kStopped) return transport::FailedReply(parts_.host_id, "this host is stopping");
    if (submitted != Lane::Submitted::kAccepted) return ErrorReply(webapi::kErrorBusy);
    std::unique_lock lock(job->mutex);
    if (job->changed.wait_until(lock, deadline, [&job] { return job->done; })) return std::move(job->reply);
    job->abandoned = true;
    return transport::FailedReply(parts_.host_id, "no reply in time");
  } catch (const std::exception&) {  // out of memory
    return transport::FailedReply(parts_.host_id, "this host has a fault");
  }
}

void LocalCaller::Run(Job& job) const {
  {
    const std::lock_guard lock(job.mutex);
    if (job.abandoned) return;
  }
  const RequestIdScope id_scope(job.request_id, job.caller.acts_for);
  VEXA::APIResponse response;
  Json::Value further(Json::objectValue);
  std::vector<std::pair<std::string, std::string>> headers;  // of a nonexistent HTTP response
  CallHandler({*job.row, job.caller, std::move(job.parameters)}, response, headers, further);
  Json::Value reply = MakeEnvelope(response, further, webapi::AudienceOf(job.row->access.value));
  parts_.metrics->Count(*job.row, response.ErrorCode(), Clock::now() - job.begun);
  const std::lock_guard lock(job.mutex);
  job.reply = std::move(reply);
  job.done = true;
  job.changed.notify_one();
}

}  // namespace vexa::daemon
