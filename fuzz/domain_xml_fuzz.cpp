// Domain XML from outside: accepted XML is converted to consistent records, and everything else is refused with a
// sentence.
#include <set>
#include <string>

#include "fuzz/check.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_parse.h"
#include "json/readers.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::fuzz::Check;
using namespace vexa::domain_xml;

constexpr std::size_t kMaxNotes = 101;  // the last one is that there are more

// `listed` is the list of the devices' ids in the guest's record.
void CheckDevices(const std::vector<std::pair<std::string, Json::Value>>& devices, const Json::Value& listed,
                  const std::string& guest_id) {
  Check(listed.isArray() && listed.size() == devices.size(), "the guest lists its devices");
  std::set<std::string> ids;
  Json::ArrayIndex index = 0;
  for (const auto& [id, record] : devices) {
    Check(vexa::NormalizeUuid(id) == id, "a device's id is a UUID");
    Check(ids.insert(id).second, "ids of devices are unique");
    Check(listed[index++] == id, "devices are listed in order");
    Check(record["guest_id"] == guest_id, "a device belongs to its guest");
  }
}

void CheckAccepted(const vexa::domain_xml::ImportedGuest& guest) {
  Check(!guest.id.empty() && vexa::NormalizeUuid(guest.id) == guest.id, "a guest's id is a UUID");
  Check(guest.disks.size() <= vexa::domain_xml::kMaxDisks && guest.nics.size() <= vexa::domain_xml::kMaxNics,
        "there are no more devices than allowed");
  Check(guest.notes.size() <= kMaxNotes, "there are no more notes than allowed");
  CheckDevices(guest.disks, guest.guest["vdisks"], guest.id);
  CheckDevices(guest.nics, guest.guest["vnics"], guest.id);
  const int vcpus = json::Int(guest.guest["vcpu_num"]);
  Check(vcpus >= 1 && vcpus <= 512, "a guest has 1 to 512 virtual CPUs");
  const int memory_mib = json::Int(guest.guest["vram_size"]);
  Check(memory_mib >= 1 && memory_mib <= 2'097'151, "a guest has 1 to 2097151 MiB");
  for (const auto& [id, disk] : guest.disks) {
    const std::string path = json::String(disk["path"]);
    Check(path.starts_with('/') && path.find("/../") == std::string::npos, "an image's path is absolute");
  }

  const Json::Value value = vexa::domain_xml::ToJson(guest);
  const auto again = vexa::ParseJson(json::ToText(value));
  Check(again.ok() && *again == value, "records can be written as text and read again");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view xml = vexa::fuzz::Text(data, size);
  vexa::domain_xml::ImportOptions options;
  options.disk_sizes_mib["vdb"] = 1024;
  options.networks["office"] = "a6d03c91-4be2-4f70-8c15-62d9e08f7b34";
  options.size_of = [](const std::string& path, vexa::domain_xml::ImageFormat) -> vexa::Result<std::uint64_t> {
    if (path.ends_with("missing")) return vexa::Error(vexa::ErrorCode::kNotFound, "There is no such image");
    return std::uint64_t{path.size()} << 20;
  };
  const auto guest = vexa::domain_xml::ParseDomainXml(xml, options);
  if (!guest.ok()) {
    Check(guest.error().code() == vexa::ErrorCode::kInvalid, "a refusal is kInvalid");
    Check(!guest.error().message().empty(), "a refusal is a sentence");
    Check(vexa::IsValidUtf8(guest.error().ToString()), "a refusal is text");
    return 0;
  }
  CheckAccepted(*guest);
  Check(vexa::domain_xml::ToJson(*vexa::domain_xml::ParseDomainXml(xml, options)) == vexa::domain_xml::ToJson(*guest),
        "the same XML gives the same records");
  return 0;
}
