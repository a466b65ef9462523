#include <cstddef>
#include <string>
#include <utility>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/guest/guest.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

namespace key = VexaCCC::DB::_k;
using VexaCCC::DB::Dashboard;
using VexaCCC::DB::DashCate;

// Names of reply members. jsoncpp does not copy a StaticString, so it must be a literal.
Json::StaticString operator""_name(const char* text, std::size_t /*size*/) { return Json::StaticString(text); }

constexpr Json::ArrayIndex kUsbPorts = 4;
constexpr int kReportedDiskFormat = 2;

// The type numbers in the records of disks with kReportedDiskFormat. Disks of other formats are left out of the reply.
constexpr std::pair<int, const char*> kDiskTypes[] = {
    {1, "alun"}, {2, "blun"}, {4, "blun_sink"}, {8, "blun_cow"}, {16, "blun_compress"},
};

const char* DiskTypeName(int type) {
  for (const auto& [number, name] : kDiskTypes) {
    if (number == type) return name;
  }
  return nullptr;
}

bool ReadObject(const DashCate& category, const std::string& id, Json::Value& record) {
  return Dashboard(category, id).Get(record, key::object) == 0;
}

// A missing member yields the default; a null is converted.
std::string StringOr(const Json::Value& record, const char* name, const char* fallback) {
  const Json::Value* value = json::FindMember(record, name);
  return value ? json::String(*value) : fallback;
}

int IntOr(const Json::Value& record, const char* name, int fallback) {
  const Json::Value* value = json::FindMember(record, name);
  return value ? json::Int(*value) : fallback;
}

Json::Value UsbPorts(const Json::Value& record) {
  Json::Value ports(Json::arrayValue);
  for (Json::ArrayIndex port = 0; port < kUsbPorts; ++port) ports.append("unmounted");
  const Json::Value& stored = json::Member(record, key::usbs);
  if (stored.isArray()) {
    // Intentional: all four ports are copied, so a shorter stored array yields null for the missing ones.
    for (Json::ArrayIndex port = 0; port < kUsbPorts; ++port) ports[port] = json::Element(stored, port);
  }
  return ports;
}

Json::Value GeneralSettings(const Json::Value& record) {
  Json::Value reply(Json::objectValue);
  reply["name"_name] = json::Member(record, key::name);
  reply["repo_id"_name] = json::Member(record, key::repository_id);
  reply["vcpu_num"_name] = json::Int(json::Member(record, key::vcpu_num));
  // MiB to KiB in 64 bits; unsigned, so that no stored number makes the shift undefined.
  const auto vram_mib = static_cast<Json::UInt64>(json::Int64(json::Member(record, key::vram_size)));
  reply["vram_size"_name] = static_cast<Json::Int64>(vram_mib << 10);
  reply["video_card"_name] = StringOr(record, key::video_card, "cirrus");
  reply["cpu_passthru"_name] = json::Bool(json::Member(record, key::cpu_passthru));
  reply["vdisks"_name] = Json::Value(Json::arrayValue);
  reply["vnics"_name] = Json::Value(Json::arrayValue);
  reply["autorun"_name] = IntOr(record, key::autorun, 0);
  reply["is_ha_enabled"_name] = !StringOr(record, key::ha_group_id, "").empty();
  reply["desc"_name] = StringOr(record, key::desc, "");
  reply["boot_from"_name] = StringOr(record, key::boot_from, "disk");
  reply["use_ovmf"_name] = json::Bool(json::Member(record, key::use_ovmf));
  reply["usb_version"_name] = IntOr(record, key::usb_version, 2);
  reply["usbs"_name] = UsbPorts(record);
  reply["kb_layout"_name] = StringOr(record, key::kb_layout, "Default");
  reply["cpu_pin_num"_name] = IntOr(record, key::cpu_pin_num, 0);
  reply["cpu_weight"_name] = IntOr(record, key::cpu_weight, 256);
  if (const Json::Value* value = json::FindMember(record, key::hyperv_enlighten))
    reply["hyperv_enlighten"_name] = json::Bool(*value);
  if (const Json::Value* value = json::FindMember(record, key::iso_images)) reply["iso_images"_name] = *value;
  if (const Json::Value* value = json::FindMember(record, key::is_general_vm)) reply["is_general_vm"_name] = *value;
  return reply;
}

Json::Value Disk(const std::string& id, const Json::Value& record, const char* type_name) {
  Json::Value disk(Json::objectValue);
  disk["vdisk_id"_name] = id;
  disk["size"_name] = json::String(json::Member(record, key::size));
  disk["lun_type"_name] = type_name;
  disk["vdisk_mode"_name] = IntOr(record, key::vdisk_mode, 1);
  disk["is_dummy"_name] = json::Bool(json::Member(record, key::is_dummy));
  disk["unmap"_name] = json::Bool(json::Member(record, key::unmap));
  disk["is_meta_disk"_name] = json::Bool(json::Member(record, key::is_meta_disk));
  return disk;
}

Json::Value Nic(const std::string& id, const Json::Value& record) {
  Json::Value nic(Json::objectValue);
  nic["vnic_id"_name] = id;
  nic["network_id"_name] = json::Member(record, key::network_group_id);
  nic["prefer_sriov"_name] = json::Member(record, key::prefer_sriov);
  nic["mac"_name] = json::Member(record, key::mac_address);
  nic["vnic_type"_name] = json::Member(record, key::vnic_type);
  return nic;
}

// Appends the guest's disks, in the record's order. Returns 0, or the error code for the reply; already logged.
int AppendDisks(const Json::Value& ids, Json::Value& disks) {
  for (const Json::Value& element : json::Elements(ids)) {
    const std::string id = json::String(element);
    Json::Value record;
    if (!ReadObject(DashCate::vDisk, id, record)) {
      VEXA_LOG("guest", "Failed to get info of vdisk[%s] from dashboard.", id.c_str());
      return user_error::kNotFoundOrUnreadable;
    }
    if (json::Int(json::Member(record, key::format)) != kReportedDiskFormat) continue;
    const int type = json::Int(json::Member(record, key::type));
    const char* type_name = DiskTypeName(type);
    if (!type_name) {
      VEXA_LOG("guest", "Unknown vdisk type[%d].", type);
      return user_error::kUnknownDiskTypeOrNotReserved;
    }
    disks.append(Disk(id, record, type_name));
  }
  return 0;
}

int AppendNics(const Json::Value& ids, Json::Value& nics) {
  for (const Json::Value& element : json::Elements(ids)) {
    const std::string id = json::String(element);
    Json::Value record;
    if (!ReadObject(DashCate::vNic, id, record)) {
      VEXA_LOG("guest", "Failed to get info of vnic[%s] from dashboard.", id.c_str());
      return user_error::kNotFoundOrUnreadable;
    }
    nics.append(Nic(id, record));
  }
  return 0;
}

}  // namespace

void Guest::Get(VEXA::APIRequest* request, VEXA::APIResponse* response) {
  const auto guest_id = request->GetAndCheckString("guest_id", 0, VexaCCC::Utils::isUUID);
  if (guest_id.IsInvalid()) {
    const std::string parameters = json::ToText(request->GetParam("", Json::Value()));
    VEXA_LOG("guest", "Bad parameters, request: %s", parameters.c_str());
    return response->SetError(user_error::kBadParameter, Json::Value());
  }
  const std::string& id = guest_id.Get();
  if (!IsGuestPermitted(request, id)) {
    const std::string user = request->GetLoginUserName();
    VEXA_LOG("guest", "Action on guest[%s] is not allowed from user[%s]", id.c_str(), user.c_str());
    return response->SetError(user_error::kNotPermitted, Json::Value());
  }
  Json::Value record;
  if (!ReadObject(DashCate::Guest, id, record)) {
    VEXA_LOG("guest", "Failed to get info of guest[%s] from dashboard.", id.c_str());
    return response->SetError(user_error::kNotFoundOrUnreadable, Json::Value());
  }
  Json::Value reply = GeneralSettings(record);
  int failure = AppendDisks(json::Member(record, key::vdisks), reply["vdisks"_name]);
  if (failure == 0) failure = AppendNics(json::Member(record, key::vnics), reply["vnics"_name]);
  if (failure != 0) return response->SetError(failure, Json::Value());
  response->SetSuccess(reply);
}

}  // namespace VexaVirtualization
