#include "host/api/user/record_calls.h"

#include <fmt/format.h>
#include <syslog.h>

#include "host/api/rows.h"
#include "host/base/sanitize_for_log.h"
#include "host/records/named_record.h"

namespace vexa::api {
namespace {

constexpr std::size_t kMaxReason = 1024;

}  // namespace

bool IsId(const std::string& text) { return records::IsRecordName(text); }

void RespondListError(const Call& call, std::string_view what, const Error& error) {
  const std::string reason =
      SanitizeForLog(fmt::format("The {} cannot be listed: {}.", what, error.ToString()), kMaxReason);
  ::syslog(LOG_WARNING, "%s Asked by user[%s].", reason.c_str(), call.request->GetLoginUserName().c_str());
  Fail(call, user_error::kRecordFailed);
  SetReason(call, reason, Readers::kAdministrators);  // causes name files and records
}

void RespondToAddition(const Call& call, const Result<void, Refusal>& done, const char* id_member,
                       const std::string& id) {
  if (!done.ok()) return Fail(call, done.error().code, done.error().reason);
  Json::Value data(Json::objectValue);
  data[id_member] = id;
  call.response->SetSuccess(data);
}

void ChangeRecord(store::Store& store, const Call& call, const char* id_parameter,
                  Result<void, Refusal> change(store::Store& store, const std::string& id, std::string& name),
                  void log(const Call& call, Outcome outcome, const std::string& name)) {
  const auto id = call.request->GetAndCheckString(id_parameter, kRequired, IsId);
  if (id.IsInvalid()) return Fail(call, user_error::kBadParameter);
  std::string name;
  const auto done = change(store, id.Get(), name);
  log(call, OutcomeOf(done), name.empty() ? id.Get() : name);
  if (!done.ok()) return Fail(call, done.error().code, done.error().reason);
  call.response->SetSuccess(Json::Value());
}

void RenameObject(store::Store& store, const Call& call, const RenamedKind& kind) {
  const auto id = call.request->GetAndCheckString(kind.id_parameter, kRequired, IsId);
  const auto name = call.request->GetAndCheckString("name", kRequired);
  if (id.IsInvalid() || name.IsInvalid()) return Fail(call, user_error::kBadParameter);
  std::string old_name;
  const auto done = records::RenameRecord(store, kind.category, kind.kind, id.Get(), name.Get(), old_name);
  const std::string old_shown = old_name.empty() ? id.Get() : old_name;
  const std::string new_shown = SanitizeForLog(name.Get(), records::kMaxRecordName);
  LogOutcome(call, OutcomeOf(done), fmt::format("The {} [{}] has been renamed [{}].", kind.kind, old_shown, new_shown),
             fmt::format("Failed to rename the {} [{}].", kind.kind, old_shown));
  if (!done.ok()) return Fail(call, done.error().code, done.error().reason);
  call.response->SetSuccess(Json::Value());
}

}  // namespace vexa::api
