#include "host/api/peer/guest_rating_api.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "host/api/peer/rows.h"
#include "host/base/sanitize_for_log.h"
#include "host/records/guest_records.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"

namespace vexa::api {
namespace {

using VexaCCC::DB::DashCate;

// The limit for a list in another host's reply.
constexpr Json::ArrayIndex kMaxEntries = 16;
constexpr std::size_t kMaxStatusName = 32;
constexpr std::size_t kMaxReason = 512;
constexpr std::size_t kMaxName = 256;

constexpr std::string_view kBestIo = "best_io";

// The guest's id. Not set: a parameter is not valid, and the call has been answered.
std::optional<std::string> ReadGuestId(const Call& call) {
  const auto id = call.request->GetAndCheckString("guest_id", kRequired, VexaCCC::Utils::isUUID);
  const auto type =
      call.request->GetAndCheckString("type", kRequired, [](const std::string& text) { return text == "poweron"; });
  if (!id.IsInvalid() && !type.IsInvalid()) return id.Get();
  Fail(call, host_error::kBadParameter);
  return std::nullopt;
}

void RespondReadError(const Call& call, const Error& error) {
  const bool is_about_record = error.code() == ErrorCode::kNotFound || error.code() == ErrorCode::kCorrupt;
  if (!is_about_record) ::syslog(LOG_ERR, "Cannot rate a guest: %s", error.ToString().c_str());
  Fail(call, host_error::kNotFoundOrUnreadable);
}

void CheckResource(const std::function<Result<guests::Rating>(const std::string&)>& rate_guest, const Call& call) {
  const std::optional<std::string> id = ReadGuestId(call);
  if (!id) return;
  guests::Rating rating{{{host_error::kUnavailable, "The host runs no guests."}}, false, {}};
  if (rate_guest) {
    Result<guests::Rating> rated = rate_guest(*id);
    if (!rated) return RespondReadError(call, rated.error());
    rating = std::move(*rated);
  }
  call.response->SetSuccess(guests::RatingData(rating));
}

bool IsStatusName(const std::string& text) {
  return !text.empty() && text.size() <= kMaxStatusName &&
         std::ranges::all_of(text, [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_'; });
}

// The rating that stands in for that of a host that did not return one.
Json::Value MissingRating(const char* name, const std::string& reason) {
  Json::Value rating(Json::objectValue);
  rating["available"] = false;
  rating["status"].append(name);
  rating["reasons"].append(reason);
  return rating;
}

// For a reply with an error, or without a readable reply.
Json::Value FailureRating(const VexaDRCore::Response& reply) {
  constexpr const char* kNoReadableReply = "The host did not answer, or its answer could not be read.";
  const Json::Value success = reply.getField("success");
  const Json::Value code = json::Member(reply.getField("error"), "code");
  if (!success.isBool() || !code.isInt()) return MissingRating("unreachable", kNoReadableReply);
  switch (reply.getErrCode()) {
    case host_error::kUnreachable:
      return MissingRating("unreachable", kNoReadableReply);
    case host_error::kUnknownApi:
      return MissingRating("incompatible_version", "The host's version does not support this check.");
    default:
      return MissingRating("failed", fmt::format("The host answered with the error {}.", reply.getErrCode()));
  }
}

// A host's rating, reduced to the known members. `may_have_best_io`: whether the host has the guest's repository
// according to the records. Otherwise "best_io" is removed from its rating.
Json::Value RatingOf(const VexaDRCore::Response& reply, bool may_have_best_io) {
  if (!reply.isSuccess()) return FailureRating(reply);
  const Json::Value available = reply.getDataField("available");
  if (!available.isBool()) return MissingRating("unreachable", "The host did not answer with a rating.");
  Json::Value rating(Json::objectValue);
  rating["available"] = json::Bool(available);
  Json::Value& status = rating["status"] = Json::Value(Json::arrayValue);
  const Json::Value names = reply.getDataField("status");
  for (const Json::Value& element : json::Elements(names)) {
    if (status.size() == kMaxEntries) break;
    const std::string name = element.isString() ? json::String(element) : std::string();
    if (IsStatusName(name) && (name != kBestIo || may_have_best_io)) status.append(name);
  }
  Json::Value& reasons = rating["reasons"] = Json::Value(Json::arrayValue);
  const Json::Value sentences = reply.getDataField("reasons");
  for (const Json::Value& element : json::Elements(sentences)) {
    if (reasons.size() == kMaxEntries) break;
    if (element.isString()) reasons.append(SanitizeForLog(json::String(element), kMaxReason));
  }
  return rating;
}

struct RatedHost {
  std::string id;
  std::string name;
};

// The hosts to ask, and the host of the guest's repository, from the records.
struct RatingInput {
  std::string repository_host_id;
  std::vector<RatedHost> hosts;
};

Result<RatingInput> ReadRatingInput(const std::string& guest_id) {
  const Result<records::Reader> reader = records::Reader::OpenCurrent();
  if (!reader) return reader.error();
  Result<records::Guest> guest = records::ReadGuest(*reader, guest_id);
  if (!guest) return guest.error();
  auto ids = reader->Children(records::CategoryKey(DashCate::Host.name()));
  if (!ids) return ids.error();
  if (ids->empty()) ids->push_back(VexaCCC::DB::DBLocalhostID());
  std::ranges::sort(*ids);
  RatingInput input{guest->repository_host_id, {}};
  for (std::string& id : *ids) {
    const std::string name = records::ReadStringOrEmpty(*reader, DashCate::Host, id, keys::name);
    input.hosts.push_back({std::move(id), SanitizeForLog(name, kMaxName)});
  }
  return input;
}

void CheckHostResource(std::chrono::seconds timeout, const Call& call) {
  const std::optional<std::string> id = ReadGuestId(call);
  if (!id) return;
  const Result<RatingInput> input = ReadRatingInput(*id);
  if (!input) return RespondReadError(call, input.error());
  std::vector<std::string> host_ids;
  for (const RatedHost& host : input->hosts) host_ids.push_back(host.id);

  VexaDRCore::Request request;
  request.setAPI("VEXA.CCC.Guest");
  request.setMethod("check_resource");
  request.addParam("guest_id", *id);
  request.addParam("type", "poweron");
  request.setTimeout(static_cast<int>(timeout.count()));
  const VexaCCC::MultiResponse replies = VexaCCC::MultiSender(host_ids).process(request);

  Json::Value data(Json::objectValue);
  Json::Value& hosts = data["hosts"] = Json::Value(Json::arrayValue);
  for (const RatedHost& rated : input->hosts) {
    Json::Value host = RatingOf(replies.getResponse(rated.id), input->repository_host_id == rated.id);
    host["host_id"] = rated.id;
    host["host"] = rated.name;
    hosts.append(std::move(host));
  }
  call.response->SetSuccess(data);
}

}  // namespace

std::vector<ApiRow> GuestRatingRows(const ServiceParts& parts, std::chrono::seconds timeout) {
  const std::vector<Parameter> parameters{Text("guest_id", "The guest's id, a UUID."),
                                          Text("type", "The intended action; only \"poweron\" is supported.")};
  const std::vector<int> errors{host_error::kBadParameter, host_error::kNotFoundOrUnreadable};
  return {HostRow(
              "VEXA.CCC.Guest", "check_resource", LaneKind::kLong,
              [rate_guest = parts.rate_guest](const Call& call) { CheckResource(rate_guest, call); },
              "Whether this host can run a guest now, whether its storage is local, and the obstacles.", parameters,
              errors),
          HostRow(
              "VEXA.Virtualization.Guest.Action", "check_host_resource", LaneKind::kLong,
              [timeout](const Call& call) { CheckHostResource(timeout, call); },
              "Each cluster host's own rating of whether it can run a guest now.", parameters, errors)};
}

}  // namespace vexa::api
