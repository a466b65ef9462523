#include "host/records/guest_records.h"

#include <fmt/format.h>

#include <string_view>
#include <utility>
#include <vector>

#include "host/base/sanitize_for_log.h"
#include "host/records/object_members.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::records {
namespace {

namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxLoggedIdBytes = 64;

// `error` as a sentence about the record of `what`.
Error RecordError(const std::string& what, const Error& error) {
  if (error.code() == ErrorCode::kNotFound) return Error(error.code(), fmt::format("There is no record of {}", what));
  return Error(error.code(), fmt::format("The record of {} cannot be read", what), error.ToString());
}

// The records whose ids the guest lists in its member `name`, with these ids; `kind` is the singular for messages.
Result<std::vector<std::pair<std::string, Json::Value>>> ReadListedRecords(const Reader& reader,
                                                                           const Json::Value& guest, const char* name,
                                                                           const DashCate& category,
                                                                           const std::string& kind) {
  std::vector<std::pair<std::string, Json::Value>> listed;
  const Json::Value& elements = json::Elements(json::Member(guest, name));
  if (elements.size() > kMaxGuestParts) {
    return Error(
        ErrorCode::kCorrupt,
        fmt::format("The guest's record lists more than {} entries of the kind '{}'. Repair it", kMaxGuestParts, kind));
  }
  for (const Json::Value& element : elements) {
    if (!element.isString()) {
      return Error(ErrorCode::kCorrupt,
                   fmt::format("The guest's record lists a {} with an invalid id. Repair it", kind));
    }
    std::string id = json::String(element);
    const Result<Record> record = reader.ReadObject(category.name(), id);
    if (!record)
      return RecordError(fmt::format("the guest's {} '{}'", kind, SanitizeForLog(id, kMaxLoggedIdBytes)),
                         record.error());
    listed.emplace_back(std::move(id), **record);
  }
  return listed;
}

}  // namespace

Result<Guest> ReadGuest(const Reader& reader, const std::string& guest_id) {
  const Result<Record> record = reader.ReadObject(DashCate::Guest.name(), guest_id);
  if (!record) return RecordError("the guest", record.error());
  Guest guest;
  guest.records.id = guest_id;
  guest.records.guest = **record;
  auto disks = ReadListedRecords(reader, **record, keys::vdisks, DashCate::vDisk, "disk");
  if (!disks) return disks.error();
  guest.records.disks = std::move(*disks);
  auto nics = ReadListedRecords(reader, **record, keys::vnics, DashCate::vNic, "network interface");
  if (!nics) return nics.error();
  guest.records.nics = std::move(*nics);
  guest.name = json::StringMember(**record, keys::name);
  guest.host_id = json::StringMember(**record, keys::host_id);
  guest.repository_id = json::StringMember(**record, keys::repository_id);
  if (guest.repository_id.empty()) return guest;
  guest.repository_host_id = ReadStringOrEmpty(reader, DashCate::Repository, guest.repository_id, keys::host_id);
  guest.repository_state = ReadStringOrEmpty(reader, DashCate::Repository, guest.repository_id, keys::state);
  return guest;
}

}  // namespace vexa::records
