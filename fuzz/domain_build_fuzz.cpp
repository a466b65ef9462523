// The records of a guest, whatever another host has written into them, as domain XML: they are refused with a sentence,
// or libvirt's own parser and schema accept the result. With a base, only the parser: the base is its owner's.
//
// The input: a letter for the base ("0" none, "1" to "3" the examples), and then the record of the guest and those of
// its disks
// ("d…") and interfaces ("n…"), a line each. If the record is not JSON, all records are built from the bytes.
#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <pugixml.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/bytes.h"
#include "fuzz/check.h"
#include "host/base/files.h"
#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/domain_xml/domain_build.h"
#include "host/hypervisor/event_loop.h"
#include "host/hypervisor/handles.h"

namespace {

using vexa::domain_xml::GuestRecords;
using vexa::fuzz::Bytes;
using vexa::fuzz::Check;

// A guest's id, and the definition that its owner had before it was imported; "" for none.
struct Base {
  std::string id;
  std::string xml;
};

const std::vector<Base>& Bases() {
  static const std::vector<Base> bases = [] {
    std::vector<Base> read{{"0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211", ""}};
    for (const auto& [name, id] : {std::pair{"web-1", "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211"},
                                   std::pair{"desktop-7", "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c"},
                                   std::pair{"gateway", "7f20d8a4-e1b6-4905-9c3f-d24b86a05e17"}}) {
      const auto xml = vexa::ReadFile(std::string(VEXA_SOURCE_DIR "/examples/") + name + ".xml", 1 << 20);
      Check(xml.ok(), "the examples can be read");
      read.push_back({id, *xml});
    }
    return read;
  }();
  return bases;
}

// Mostly a value that a guest can have.
Json::Value SettingValue(const vexa::GuestSetting& setting, Bytes& bytes) {
  if (bytes.Take(8) == 0) return bytes.Value();
  if (setting.type == vexa::SettingType::kBoolean) return bytes.Take(2) == 1;
  if (setting.type == vexa::SettingType::kNumber) {
    const std::int64_t numbers[] = {setting.min, setting.min + 1, setting.max};
    return static_cast<Json::Int64>(bytes.Pick(numbers));
  }
  if (!setting.allowed_values.empty() && bytes.Take(4) != 0) return std::string(bytes.Pick(setting.allowed_values));
  return bytes.Text();
}

Json::Value DiskRecord(Bytes& bytes) {
  constexpr const char* kNames[] = {"vda", "vdb", "sda", "hda", "sdz", "vdaa"};
  constexpr const char* kDrivers[] = {"qcow2", "raw", "vmdk"};
  Json::Value disk(Json::objectValue);
  disk["name"] = bytes.Take(4) == 0 ? Json::Value(bytes.Text()) : Json::Value(bytes.Pick(kNames));
  disk["path"] = bytes.Take(4) == 0 ? bytes.Text() : "/images/" + std::to_string(bytes.Take(4)) + ".qcow2";
  disk["driver"] = bytes.Pick(kDrivers);
  disk["vdisk_mode"] = static_cast<int>(bytes.Take(6));
  disk["unmap"] = bytes.Value(3);
  return disk;
}

Json::Value NicRecord(Bytes& bytes) {
  Json::Value nic(Json::objectValue);
  nic["mac_address"] = bytes.Take(4) == 0 ? bytes.Text() : "02:00:5e:10:00:0" + std::to_string(bytes.Take(4));
  nic["network_name"] = bytes.Text();
  nic["vnic_type"] = static_cast<int>(bytes.Take(5));
  nic["prefer_sriov"] = bytes.Value(3);
  return nic;
}

void BuildRecords(Bytes bytes, GuestRecords& records) {
  records.guest["name"] = "guest";
  records.guest["vram_size"] = 512;
  records.guest["vcpu_num"] = 2;
  while (!bytes.IsAtEnd()) {
    const vexa::GuestSetting& setting = bytes.Pick(vexa::kGuestSettings);
    switch (bytes.Take(8)) {
      case 0:
        records.disks.emplace_back("disk-" + std::to_string(records.disks.size()), DiskRecord(bytes));
        break;
      case 1:
        records.nics.emplace_back("nic-" + std::to_string(records.nics.size()), NicRecord(bytes));
        break;
      case 2:
        vexa::fuzz::Append(records.guest[bytes.Take(2) == 0 ? "iso_images" : "usbs"], bytes.Text());
        break;
      case 3:
        records.guest[bytes.Take(2) == 0 ? "nvram" : "pending"] = bytes.Value();
        break;
      default:
        records.guest[setting.name] = SettingValue(setting, bytes);
    }
  }
}

void ReadRecords(std::string_view rest, GuestRecords& records) {
  const auto guest = vexa::ParseJson(vexa::fuzz::TakeUntil(rest, "\n"));
  if (!guest.ok()) return;
  records.guest = *guest;
  while (!rest.empty()) {
    const std::string_view line = vexa::fuzz::TakeUntil(rest, "\n");
    const auto record = vexa::ParseJson(line.substr(line.empty() ? 0 : 1));
    if (!record.ok()) continue;
    auto& list = line.front() == 'n' ? records.nics : records.disks;
    list.emplace_back("part-" + std::to_string(list.size()), *record);
  }
}

virConnectPtr TestDriver() {
  static const vexa::hypervisor::ConnectHandle connection = [] {
    Check(vexa::hypervisor::StartEventLoop().ok(), "there is an event loop");
    virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
    return vexa::hypervisor::ConnectHandle(virConnectOpen("test:///default"));
  }();
  Check(connection.get() != nullptr, "the test driver can be used");
  return connection.get();
}

void CheckXml(const std::string& xml, const Base& base) {
  pugi::xml_document document;
  Check(static_cast<bool>(document.load_string(xml.c_str())), "the XML is well-formed");
  Check(std::string_view(document.child("domain").child_value("uuid")).size() == base.id.size(),
        "the domain has the guest's id");
  const unsigned flags = base.xml.empty() ? VIR_DOMAIN_DEFINE_VALIDATE : 0;
  const vexa::hypervisor::DomainHandle domain(virDomainDefineXMLFlags(TestDriver(), xml.c_str(), flags));
  if (!domain.get()) std::fprintf(stderr, "%s\n%s\n", virGetLastErrorMessage(), xml.c_str());
  Check(domain.get() != nullptr, "libvirt accepts the XML");
  Check(virDomainUndefine(domain.get()) == 0, "the test's domain is removed");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view rest = vexa::fuzz::Text(data, size);
  if (rest.empty()) return 0;
  const Base& base = Bases()[static_cast<unsigned char>(rest.front()) % Bases().size()];
  rest.remove_prefix(1);
  GuestRecords records;
  records.id = base.id;
  records.guest = Json::Value(Json::objectValue);
  rest.starts_with('{') ? ReadRecords(rest, records) : BuildRecords(Bytes(rest), records);
  vexa::domain_xml::BuildOptions options;
  options.domain_type = "test";
  options.host_id = "99999999-2222-4333-8444-555555555555";
  options.libvirt_networks = {"default"};
  options.switch_bridges = {"web-1"};
  options.pinned_cpus = {0, 1, 2, 3};
  options.base_xml = base.xml;
  const auto xml = vexa::domain_xml::BuildDomainXml(records, options);
  if (xml.ok()) {
    CheckXml(*xml, base);
    const auto again = vexa::domain_xml::BuildDomainXml(records, options);
    Check(again.ok() && *again == *xml, "the same records give the same XML");
    return 0;
  }
  Check(xml.error().code() == vexa::ErrorCode::kInvalid, "a refusal is kInvalid");
  Check(vexa::IsValidUtf8(xml.error().ToString()), "a refusal is text");
  Check(!xml.error().message().empty(), "a refusal is a sentence");
  return 0;
}
