#include "host/api/user/guest_parts_state.h"

#include <fmt/format.h>

#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "host/records/run_record.h"
#include "host/records/shutdown_reason.h"
#include "host/storage/storage_disks.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

using VexaCCC::DB::DashCate;

Json::Value StateOfDisk(const records::Reader& reader, const std::string& id, const std::string& guests_repository) {
  const auto found = records::ReadMember(reader, DashCate::vDisk, id, keys::object);
  const bool is_readable = found && *found;
  const Json::Value& record = is_readable ? **found : Json::Value::nullSingleton();
  const auto state_of = [&reader](const DashCate& category, const std::string& object_id) {
    return records::ReadStringOrEmpty(reader, category, object_id, keys::state);
  };
  std::string repository = json::StringMember(record, keys::repository_id);
  if (repository.empty()) repository = guests_repository;
  const std::string state =
      is_readable ? storage::VisibleDiskState(state_of(DashCate::Repository, repository), state_of(DashCate::vDisk, id))
                  : VexaCCC::State::vDisk::inaccessible;
  VexaVirtualization::UIState displayed;
  VexaVirtualization::GetStateType(VexaVirtualization::STATE_CATE_VDISK, state, displayed);
  Json::Value disk(Json::objectValue);
  disk["vdisk_id"] = id;
  disk["name"] = json::StringMember(record, keys::name);
  disk["status"] = displayed.state;
  disk["status_type"] = displayed.type;
  return disk;
}

}  // namespace

Json::Value DiskStatesOf(const records::Reader& reader, const Json::Value& guest) {
  const std::string repository = json::StringMember(guest, keys::repository_id);
  Json::Value disks(Json::arrayValue);
  for (const Json::Value& id : json::Elements(json::Member(guest, keys::vdisks))) {
    disks.append(StateOfDisk(reader, id.isString() ? json::String(id) : std::string(), repository));
  }
  return disks;
}

Json::Value ShutdownOf(const records::Reader& reader, const std::string& guest_id, const Json::Value& guest) {
  namespace states = VexaCCC::State::Guest;
  const std::string state = json::StringMember(guest, keys::state);
  if (state != states::shutdown && state != states::crashed) return {};
  const auto reason = records::ReadShutdown(reader, guest_id);
  if (!reason || !*reason) return {};
  Json::Value shutdown(Json::objectValue);
  shutdown["reason"] = std::string(records::ShutdownCauseName((*reason)->cause));
  shutdown["forced"] = (*reason)->is_forced;
  return shutdown;
}

Json::Value NotesOf(const records::Reader& reader, const std::string& guest_id, const Json::Value& guest) {
  Json::Value notes(Json::arrayValue);
  const auto stored = records::ReadRun(reader, guest_id);
  if (!stored || !*stored || (*stored)->run.starting || (*stored)->run.saved) return notes;
  const auto& functions = (*stored)->run.virtual_functions;
  for (const Json::Value& element : json::Elements(json::Member(guest, keys::vnics))) {
    const std::string id = element.isString() ? json::String(element) : std::string();
    const auto nic = records::ReadMember(reader, DashCate::vNic, id, keys::object);
    if (!nic || !*nic || !json::Bool(json::Member(**nic, keys::prefer_sriov))) continue;
    if (json::StringMember(**nic, "network_name").empty() || functions.contains(id)) continue;
    notes.append(
        fmt::format("The network interface {} prefers a virtual function ('prefer_sriov') and runs without one", id));
  }
  return notes;
}

}  // namespace vexa::api
