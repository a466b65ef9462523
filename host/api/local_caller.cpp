#include "host/api/local_caller.h"

#include <exception>
#include <memory>
#include <utility>

#include "host/api/handler_call.h"
#include "host/api/request_id.h"
#include "host/base/mutex.h"
#include "host/transport/messages.h"
#include "webapi/error_codes.h"

namespace vexa::api {
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
  const ApiRow* row = nullptr;
  Caller caller;
  std::string request_id;
  Json::Value parameters;
  Clock::time_point started = Clock::now();

  Mutex mutex;
  ConditionVariable changed;
  bool abandoned VEXA_GUARDED_BY(mutex) = false;  // the caller no longer waits
  bool done VEXA_GUARDED_BY(mutex) = false;
  Json::Value reply VEXA_GUARDED_BY(mutex);
};

Json::Value LocalCaller::Call(const VexaDRCore::Request& request, std::chrono::milliseconds timeout) {
  try {
    const Clock::time_point deadline = Clock::now() + timeout;
    const ApiRow* const row = parts_.table->Find(request.api(), request.method(), request.version());
    if (row == nullptr) return ErrorReply(user_error::kUnknownApi);
    const auto job = std::make_shared<Job>();
    job->row = row;
    job->caller.kind = Caller::Kind::kHost;
    job->caller.host_id = parts_.host_id;
    job->caller.acts_for = CurrentActingUser();
    job->caller.peer = "local";
    if (const int refusal = CheckCaller(row->access.value, job->caller)) return ErrorReply(refusal);
    job->request_id = CurrentRequestId();
    job->parameters = request.parameters();
    const Lane::SubmitResult submitted = parts_.lane->Submit("", [this, job] { Run(*job); });
    if (submitted == Lane::SubmitResult::kStopped)
      return transport::FailedReply(parts_.host_id, "this host is stopping");
    if (submitted != Lane::SubmitResult::kAccepted) return ErrorReply(user_error::kHostBusy);
    const MutexLock lock(job->mutex);
    while (!job->done && job->changed.WaitUntil(job->mutex, deadline)) {
    }
    if (job->done) return std::move(job->reply);
    job->abandoned = true;
    return transport::FailedReply(parts_.host_id, "no reply in time");
  } catch (const std::exception&) {  // out of memory
    return transport::FailedReply(parts_.host_id, "internal error on this host");
  }
}

void LocalCaller::Run(Job& job) const {
  {
    const MutexLock lock(job.mutex);
    if (job.abandoned) return;
  }
  const RequestIdScope id_scope(job.request_id, job.caller.acts_for);
  VEXA::APIResponse response;
  Json::Value extra_members(Json::objectValue);
  std::vector<std::pair<std::string, std::string>> headers;  // of a nonexistent HTTP response
  CallHandler({*job.row, job.caller, std::move(job.parameters)}, response, headers, extra_members);
  Json::Value reply = MakeEnvelope(response, extra_members, AudienceOf(job.row->access.value));
  parts_.metrics->Count(*job.row, response.ErrorCode(), Clock::now() - job.started);
  const MutexLock lock(job.mutex);
  job.reply = std::move(reply);
  job.done = true;
  job.changed.NotifyOne();
}

}  // namespace vexa::api
