#include "host/api/user/import_places.h"

#include <fmt/format.h>

#include <vector>

#include "host/base/sanitize_for_log.h"
#include "host/records/named_record.h"
#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;
using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxQuoted = 128;

Result<void, Refusal> SetRepository(const store::Snapshot& snapshot, guests::ImportRequest& request) {
  const auto all = records::ReadNamedRecords(snapshot, DashCate::Repository.name());
  if (!all) return Refusal{user_error::kRecordFailed, all.error().ToString()};
  std::vector<std::string> names;
  for (const records::NamedRecord& record : *all) {
    if (json::StringMember(record.record, "host_id") != request.host_id) continue;
    names.push_back(fmt::format("'{}' ({})", records::DisplayName(record), SanitizeForLog(record.id, kMaxQuoted)));
    request.repository_id = record.id;
  }
  if (names.size() == 1) return {};
  if (names.empty()) {
    return Refusal{
        user_error::kBadParameter,
        fmt::format("The host '{}' has no repository for the guest: add one, or set 'repository_id'", request.host_id)};
  }
  return Refusal{user_error::kBadParameter,
                 fmt::format("The guest's host has several repositories: set 'repository_id' to one of {}",
                             records::FormatReferrers(names))};
}

}  // namespace

Result<void, Refusal> SetMissingPlaces(const store::Snapshot& snapshot, const std::string& own_host_id,
                                       guests::ImportRequest& request) {
  if (request.host_id.empty()) request.host_id = own_host_id;
  if (!request.repository_id.empty()) return {};
  return SetRepository(snapshot, request);
}

}  // namespace vexa::api
