#include "host/records/host_membership.h"

#include <fmt/format.h>

#include "host/base/time_text.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

std::string RevocationKey(const std::string& host_id) { return store::MakeKey({kRevocations, host_id}); }

bool IsCorrupt(const Result<Record>& record) { return !record && record.error().code() == ErrorCode::kCorrupt; }

// A damaged claim proves nothing about the host, which may still have a record.
Result<bool> IsMember(const Reader& reader, const std::string& host_id) {
  const Result<Record> claim = reader.ReadRecord(HostClaimKey(host_id));
  if (!claim && !IsCorrupt(claim)) return claim.error();
  if (claim && *claim) return !IsForgotten(**claim);
  const auto host = reader.Get(ObjectKey(VexaCCC::DB::DashCate::Host.name(), host_id));
  if (!host) return host.error();
  return host->has_value();
}

}  // namespace

Result<HostMembership> MembershipOf(const Reader& reader, const std::string& host_id) {
  const Result<bool> is_member = IsMember(reader, host_id);
  if (!is_member) return is_member.error();
  HostMembership membership{*is_member, {}};
  const Result<Record> revocation = reader.ReadRecord(RevocationKey(host_id));
  if (!revocation && !IsCorrupt(revocation)) return revocation.error();
  if (revocation && !*revocation) return membership;
  const bool is_intact = revocation && json::Member(**revocation, "before").isInt64();
  if (!is_intact) return HostMembership();
  membership.revoked_before = TimeFromJson(json::Member(**revocation, "before"));
  return membership;
}

Result<std::set<std::string>> HostIds(const Reader& reader) {
  std::set<std::string> ids;
  for (const std::string& category : {store::MakeKey({kHostClaims}), CategoryKey(VexaCCC::DB::DashCate::Host.name())}) {
    const auto listed = reader.Children(category);
    if (!listed) return listed.error();
    ids.insert(listed->begin(), listed->end());
  }
  return ids;
}

Status RevokeCertificates(store::Store& store, const std::string& host_id, std::chrono::system_clock::time_point before,
                          const ChangeAuthor& author) {
  return CommitWithRetry(store, [&](const Reader& reader) -> Result<store::Transaction> {
    const auto ids = HostIds(reader);
    if (!ids) return ids.error();
    if (!ids->contains(host_id)) return Error(ErrorCode::kNotFound, fmt::format("There is no host '{}'", host_id));
    Json::Value record(Json::objectValue);
    record["before"] = ToUnixSeconds(before);
    record["by"] = author.by;
    record["time"] = ToUnixSeconds(author.time);
    store::Transaction transaction;
    transaction.operations.push_back({RevocationKey(host_id), json::ToText(record)});
    return transaction;
  });
}

}  // namespace vexa::records
