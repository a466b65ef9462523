#include "host/api/peer/guest_rating_api.h"

#include <syslog.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "host/api/peer/rows.h"
#include "host/base/log_text.h"
#include "host/records/guest_records.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
using VexaCCC::DB::DashCate;
using webapi::Call;
using webapi::LaneKind;

// The limit for a list in another host's answer.
constexpr Json::ArrayIndex kMaxEntries = 16;
constexpr std::size_t kMaxWord = 32;
constexpr std::size_t kMaxReason = 512;
constexpr std::size_t kMaxName = 256;

constexpr std::string_view kBestIo = "best_io";

// The guest's id. If it is not set, the call has been answered.
std::optional<std::string> NamedGuestId(const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  const auto type =
      call.request->GetAndCheckString("type", kRequired, [](const std::string& text) { return text == "poweron"; });
  if (!id.IsInvalid() && !type.IsInvalid()) return id.Get();
  Fail(call, webapi::kErrorBadParameter);
  return std::nullopt;
}

void FailToRead(const Call& call, const Error& error) {
  const bool unreadable = error.code() == ErrorCode::kNotFound || error.code() == ErrorCode::kCorrupt;
  if (unreadable) return Fail(call, kErrorUnreadable);
  ::syslog(LOG_ERR, "Cannot rate a guest: %s", error.ToString().c_str());
  Fail(call, webapi::kErrorInternal);
}

void CheckResource(const std::function<Result<guests::Rating>(const std::string&)>& rate_guest, const Call& call) {
  const std::optional<std::string> id = NamedGuestId(call);
  if (!id) return;
  guests::Rating rating{{{guests::kUnavailable, "The host runs no guests."}}, false, {}};
  if (rate_guest) {
    cluster::RequestScope::ReleaseSnapshot();  // the call may wait for the hypervisor
    Result<guests::Rating> rated = rate_guest(*id);
    if (!rated) return FailToRead(call, rated.error());
    rating = std::move(*rated);
  }
  call.response->SetSuccess(guests::RatingData(rating));
}

bool IsWord(const std::string& text) {
  return !text.empty() && text.size() <= kMaxWord &&
         std::ranges::all_of(text, [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_'; });
}

// What this host reports about a host from which it got no rating.
Json::Value MissingRating(const char* word, const std::string& reason) {
  Json::Value rating(Json::objectValue);
  rating["available"] = false;
  rating["status"].append(word);
  rating["reasons"].append(reason);
  return rating;
}

// An error as reported by a host, which may be empty.
Json::Value FailureRating(const VexaDRCore::Response& reply) {
  constexpr const char* kNoReadableAnswer = "The host did not answer, or its answer could not be read.";
  const Json::Value success = reply.getField("success");
  const Json::Value code = json::Member(reply.getField("error"), "code");
  if (!success.isBool() || !code.isInt()) return MissingRating("unreachable", kNoReadableAnswer);
  switch (reply.getErrCode()) {
    case webapi::kErrorUnreachable:
      return MissingRating("unreachable", kNoReadableAnswer);
    case webapi::kErrorUnknownApi:
      return MissingRating("incompatible_version", "The host's version does not support this check.");
    default:
      return MissingRating("failed", "The host answered with the error " + std::to_string(reply.getErrCode()) + ".");
  }
}

// A host's rating, reduced to the known members. `may_have_best_io`: according to the records, which also determine
// this.
Json::Value RatingOf(const VexaDRCore::Response& reply, bool may_have_best_io) {
  if (!reply.isSuccess()) return FailureRating(reply);
  const Json::Value available = reply.getDataField("available");
  if (!available.isBool()) return MissingRating("unreachable", "The host did not answer with a rating.");
  Json::Value rating(Json::objectValue);
  rating["available"] = json::Bool(available);
  Json::Value& status = rating["status"] = Json::Value(Json::arrayValue);
  const Json::Value words = reply.getDataField("status");
  for (const Json::Value& element : json::Elements(words)) {
    if (status.size() == kMaxEntries) break;
    const std::string word = element.isString() ? json::String(element) : std::string();
    if (IsWord(word) && (word != kBestIo || may_have_best_io)) status.append(word);
  }
  Json::Value& reasons = rating["reasons"] = Json::Value(Json::arrayValue);
  const Json::Value sentences = reply.getDataField("reasons");
  for (const Json::Value& element : json::Elements(sentences)) {
    if (reasons.size() == kMaxEntries) break;
    if (element.isString()) reasons.append(cluster::LogText(json::String(element), kMaxReason));
  }
  return rating;
}

std::string NameOf(const std::string& host_id) {
  std::string name;
  VexaCCC::Utils::GetHostNameById(host_id, name);
  return cluster::LogText(name, kMaxName);
}

void CheckHostResource(std::chrono::seconds patience, const Call& call) {
  const std::optional<std::string> id = NamedGuestId(call);
  if (!id) return;
  const Result<guests::Guest> guest = guests::ReadGuest(*id);
  if (!guest) return FailToRead(call, guest.error());
  std::vector<std::string> host_ids;
  if (DashCate::Host.List(host_ids) != 0) return Fail(call, kErrorUnreadable);
  if (host_ids.empty()) host_ids.push_back(VexaCCC::DB::DBLocalhostID());
  std::ranges::sort(host_ids);
  std::vector<std::string> names;
  names.reserve(host_ids.size());
  for (const std::string& host_id : host_ids) names.push_back(NameOf(host_id));

  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Guest");
  request.setMethod("check_resource");
  request.addParam("guest_id", *id);
  request.addParam("type", "poweron");
  request.setTimeout(static_cast<int>(patience.count()));
  const VexaCCC::MultiResponse replies = VexaCCC::MultiSender(host_ids).process(request);

  Json::Value data(Json::objectValue);
  Json::Value& hosts = data["hosts"] = Json::Value(Json::arrayValue);
  for (std::size_t i = 0; i < host_ids.size(); ++i) {
    Json::Value host = RatingOf(replies.getResponse(host_ids[i]), guest->repository_host_id == host_ids[i]);
    host["host_id"] = host_ids[i];
    host["host"] = names[i];
    hosts.append(std::move(host));
  }
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<webapi::ApiRow> GuestRatingRows(const ServiceParts& parts, std::chrono::seconds patience) {
  const std::vector<webapi::Parameter> parameters{Text("guest_id", "The guest's id, a UUID."),
                                                  Text("type", "The intended action; only \"poweron\" is supported.")};
  const std::vector<int> errors{webapi::kErrorBadParameter, kErrorUnreadable};
  return {HostRow(
              "VEXA.CCC.Guest", "check_resource", LaneKind::kLong,
              [rate_guest = parts.rate_guest](const Call& call) { CheckResource(rate_guest, call); },
              "Whether this host can run a guest now, whether its storage is local, and the obstacles.", parameters,
              errors),
          HostRow(
              "VEXA.Virtualization.Guest.Action", "check_host_resource", LaneKind::kLong,
              [patience](const Call& call) { CheckHostResource(patience, call); },
              "Each cluster host's own rating of whether it can run a guest now.", parameters, errors)};
}

}  // namespace vexa::services
