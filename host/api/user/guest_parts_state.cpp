#include "host/api/user/guest_parts_state.h"

#include "host/records/shutdown_reason.h"
#include "host/storage/storage_disks.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/utils.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

std::string StoredState(const DashCate& category, const std::string& id) {
  std::string state;
  return Dashboard(category, id).Get(state, keys::state) == 0 ? state : std::string();
}

Json::Value StateOfDisk(const std::string& id, const std::string& guests_repository) {
  Json::Value record;
  const bool is_readable = Dashboard(DashCate::vDisk, id).Get(record, keys::object) == 0;
  std::string repository = json::TextMember(record, keys::repository_id);
  if (repository.empty()) repository = guests_repository;
  const std::string state = is_readable ? guests::ShownDiskState(StoredState(DashCate::Repository, repository),
                                                                 StoredState(DashCate::vDisk, id))
                                        : VexaCCC::State::vDisk::inaccessible;
  VexaVirtualization::UIState shown;
  VexaVirtualization::GetStateType(VexaVirtualization::STATE_CATE_VDISK, state, shown);
  Json::Value disk(Json::objectValue);
  disk["vdisk_id"] = id;
  disk["name"] = json::TextMember(record, keys::name);
  disk["status"] = shown.state;
  disk["status_type"] = shown.type;
  return disk;
}

}  // namespace

Json::Value DiskStatesOf(const Json::Value& guest) {
  const std::string repository = json::TextMember(guest, keys::repository_id);
  Json::Value disks(Json::arrayValue);
  for (const Json::Value& id : json::Elements(json::Member(guest, keys::vdisks))) {
    disks.append(StateOfDisk(id.isString() ? json::String(id) : std::string(), repository));
  }
  return disks;
}

Json::Value ShutdownOf(const std::string& guest_id, const Json::Value& guest) {
  namespace states = VexaCCC::State::Guest;
  const std::string state = json::TextMember(guest, keys::state);
  if (state != states::shutdown && state != states::crashed) return {};
  const auto reason = cluster::ReadShutdown(guest_id);
  if (!reason || !*reason) return {};
  Json::Value shown(Json::objectValue);
  shown["reason"] = std::string(cluster::ShutdownWord((*reason)->cause));
  shown["forced"] = (*reason)->is_forced;
  return shown;
}

}  // namespace vexa::services
