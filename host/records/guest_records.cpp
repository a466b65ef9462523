#include "host/records/guest_records.h"

#include <string_view>
#include <utility>
#include <vector>

#include "host/base/log_text.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

constexpr std::size_t kShownId = 64;

// An error about the record of `what`, as a sentence.
Error About(const std::string& what, const Error& error) {
  if (error.code() == ErrorCode::kNotFound) return Error(error.code(), "There is no record of " + what);
  return Error(error.code(), "The record of " + what + " cannot be read", error.ToString());
}

// The records that the guest lists under `name`, with their ids; `kind` is the singular for messages.
Result<std::vector<std::pair<std::string, Json::Value>>> ReadListed(const Json::Value& guest, const char* name,
                                                                    const DashCate& category, const std::string& kind) {
  std::vector<std::pair<std::string, Json::Value>> listed;
  const Json::Value& elements = json::Elements(json::Member(guest, name));
  if (elements.size() > kMaxGuestParts) {
    return Error(ErrorCode::kCorrupt, "The guest's record names more than " + std::to_string(kMaxGuestParts) +
                                          " of the kind '" + kind + "': repair it");
  }
  for (const Json::Value& element : elements) {
    if (!element.isString()) {
      return Error(ErrorCode::kCorrupt, "The guest's record names a " + kind + " by an invalid id. Repair it");
    }
    std::string id = json::String(element);
    const Result<cluster::Record> record = cluster::ReadObject(category.name(), id);
    if (!record) return About("the guest's " + kind + " '" + cluster::LogText(id, kShownId) + "'", record.error());
    listed.emplace_back(std::move(id), **record);
  }
  return listed;
}

}  // namespace

Result<Guest> ReadGuest(const std::string& guest_id) {
  const cluster::CallScope scope;
  const Result<cluster::Record> record = cluster::ReadObject(DashCate::Guest.name(), guest_id);
  if (!record) return About("the guest", record.error());
  Guest guest;
  guest.records.id = guest_id;
  guest.records.guest = **record;
  auto disks = ReadListed(**record, keys::vdisks, DashCate::vDisk, "disk");
  if (!disks) return disks.error();
  guest.records.disks = std::move(*disks);
  auto nics = ReadListed(**record, keys::vnics, DashCate::vNic, "network interface");
  if (!nics) return nics.error();
  guest.records.nics = std::move(*nics);
  guest.name = json::TextMember(**record, keys::name);
  guest.host_id = json::TextMember(**record, keys::host_id);
  guest.repository_id = json::TextMember(**record, keys::repository_id);
  if (guest.repository_id.empty()) return guest;
  VexaCCC::DB::Dashboard repository(DashCate::Repository, guest.repository_id);
  // The members stay unchanged unless they are found.
  repository.Get(guest.repository_host_id, keys::host_id);
  repository.Get(guest.repository_state, keys::state);
  return guest;
}

}  // namespace vexa::guests
