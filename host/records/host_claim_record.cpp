#include "host/records/host_claim_record.h"

#include "host/base/time_text.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::records {
namespace {

constexpr char kIncarnation[] = "incarnation";
constexpr char kForgotten[] = "forgotten";

Json::Value ToJson(const ChangeAuthor& author) {
  Json::Value value(Json::objectValue);
  value["by"] = author.by;
  value["time"] = ToUnixSeconds(author.time);
  return value;
}

}  // namespace

std::string HostClaimKey(const std::string& host_id) { return store::MakeKey({"host_claim", host_id}); }

std::string FencesPrefix(const std::string& host_id) { return store::MakeKey({"fence", host_id}); }

std::string FenceKey(const std::string& host_id, const std::string& guest_id) {
  return store::MakeKey({"fence", host_id, guest_id});
}

bool IsForgotten(const Json::Value& claim) { return !json::Member(claim, kForgotten).isNull(); }

std::uint64_t IncarnationOf(const Json::Value& claim) { return json::UInt64(json::Member(claim, kIncarnation)); }

std::uint64_t FirstIncarnationSinceBoot(const Json::Value& claim) {
  return json::UInt64(json::Member(claim, "booted"));
}

std::uint64_t AdvanceIncarnation(Json::Value& claim) {
  const std::uint64_t incarnation = IncarnationOf(claim) + 1;
  claim[kIncarnation] = static_cast<Json::UInt64>(incarnation);
  return incarnation;
}

void ForgetClaim(Json::Value& claim, const ChangeAuthor& author) {
  AdvanceIncarnation(claim);
  claim[kForgotten] = ToJson(author);
}

std::string SerializeFence(std::uint64_t incarnation, const ChangeAuthor& author) {
  Json::Value record = ToJson(author);
  record[kIncarnation] = static_cast<Json::UInt64>(incarnation);
  return json::ToText(record);
}

Result<std::vector<std::string>> FencedGuests(const store::Store& store, const std::string& host_id) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return (*snapshot)->Children(FencesPrefix(host_id));
}

}  // namespace vexa::records
