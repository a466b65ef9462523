#include "host/guests/live_changes.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <thread>

#include "host/base/guest_settings.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
using domain_xml::Difference;
using domain_xml::MachineLimits;

constexpr std::chrono::milliseconds kPollInterval{100};
constexpr int kVirtio = 1;
constexpr int kScsi = 4;

std::uint64_t Number(const Json::Value& value) { return json::UInt64(value); }

std::string ObstacleToDisk(const Difference& difference, const MachineLimits& limits) {
  if (json::FindMember(difference.recorded, "size")) {
    const std::uint64_t now_mib = Number(json::Member(difference.running, "size"));
    return Number(json::Member(difference.recorded, "size")) > now_mib ? "" : "disks do not shrink";
  }
  const bool stays = !difference.running.isNull() && !difference.recorded.isNull();
  if (stays) return "a disk cannot change its controller while the guest runs";
  const Json::Value& disk = difference.running.isNull() ? difference.recorded : difference.running;
  const Json::Value& mode = json::Member(disk, "vdisk_mode");
  const bool is_scsi = mode == kScsi;
  if (mode != kVirtio && !is_scsi) return "only disks on VirtIO and SCSI can be added and removed while the guest runs";
  return is_scsi && !limits.has_scsi ? "the running guest has no SCSI controller" : "";
}

std::string ObstacleToMemory(std::uint64_t now_mib, std::uint64_t wanted_mib, const MachineLimits& limits) {
  if (wanted_mib < now_mib) return "a running guest gives no memory back";
  if (limits.max_memory_mib == 0) return "the guest was started without room for more memory";
  if (wanted_mib > limits.max_memory_mib)
    return fmt::format("the guest was started with room for {} MiB", limits.max_memory_mib);
  if ((wanted_mib - now_mib) % kMemoryModuleMib != 0)
    return fmt::format("memory is added to a running guest in multiples of {} MiB", kMemoryModuleMib);
  return "";
}

std::set<std::string> Strings(const Json::Value& list) {
  std::set<std::string> strings;
  for (const Json::Value& element : json::Elements(list)) strings.insert(json::String(element));
  return strings;
}

}  // namespace

std::string ObstacleTo(const Difference& difference, const MachineLimits& limits) {
  const std::string& property = difference.property;
  if (property == "vdisks") return ObstacleToDisk(difference, limits);
  if (property == "vnics") {
    const Json::Value& type = json::Member(difference.recorded, "vnic_type");
    const bool needs_slot = !type.isNull() && type != kVirtio && type != json::Member(difference.running, "vnic_type");
    return needs_slot && !limits.has_pci_slots ? "the running guest has no slot for interfaces of this type" : "";
  }
  if (property == "vram_size") return ObstacleToMemory(Number(difference.running), Number(difference.recorded), limits);
  if (property == "vcpu_num" && Number(difference.recorded) > limits.max_vcpus)
    return fmt::format("the guest was started with room for {} virtual CPUs", limits.max_vcpus);
  if (property == "iso_images" && difference.recorded.size() != limits.drives)
    return "drives cannot be added or removed while the guest runs";
  if (property == "usbs" && !limits.has_usb) return "the running guest has no USB controller";
  const GuestSetting* const setting = FindGuestSetting(property);
  const bool is_live = setting && setting->takes_effect == TakesEffect::kWhileRunning;
  return is_live ? "" : "it is part of the machine that a start makes";
}

std::vector<Difference> NewDifferences(const std::vector<Difference>& before, const std::vector<Difference>& after) {
  std::vector<Difference> added;
  for (const Difference& difference : after) {
    if (std::ranges::find(before, difference) == before.end()) added.push_back(difference);
  }
  return added;
}

Status ReleaseTimer::AwaitRelease(const std::function<Result<bool>()>& is_there) {
  if (!end_) end_ = std::chrono::steady_clock::now() + time_;
  for (;;) {
    const Result<bool> found = is_there();
    if (!found) return found.error();
    if (!*found) return {};
    if (is_stopping_ && is_stopping_()) return Error(ErrorCode::kBusy, "This host is stopping");
    if (std::chrono::steady_clock::now() >= *end_)
      return Error(ErrorCode::kBusy, "The guest has not given the device back yet");
    std::this_thread::sleep_for(kPollInterval);
  }
}

Status LiveChanges::Apply(const Difference& difference) {
  if (options_.before_step) options_.before_step("live " + difference.property);
  const std::string& property = difference.property;
  if (property == "vdisks") return ApplyDisk(difference);
  if (property == "vnics") return ApplyNic(difference);
  if (property == "iso_images") return ApplyDrives(difference);
  if (property == "usbs") return ApplyUsb(difference);
  return ApplySetting(difference);
}

Status LiveChanges::ApplySetting(const Difference& difference) {
  const std::string& id = options_.guest_id;
  const std::uint64_t wanted = Number(difference.recorded);
  if (difference.property == "vram_size") {
    return Attach(domain_xml::MemoryElement(wanted - Number(difference.running)));
  }
  const auto done = difference.property == "vcpu_num" ? hypervisor_.SetVcpus(id, static_cast<unsigned>(wanted))
                                                      : hypervisor_.SetCpuShares(id, wanted);
  return done ? Status() : done.error();
}

Status LiveChanges::ApplyDisk(const Difference& difference) {
  constexpr unsigned kBitsOfMib = 20;
  if (const Json::Value* const size = json::FindMember(difference.recorded, "size")) {
    const std::string path = json::StringMember(difference.recorded, "path");
    const auto done = hypervisor_.ResizeDisk(options_.guest_id, path, Number(*size) << kBitsOfMib);
    return done ? Status() : done.error();
  }
  const bool is_added = difference.running.isNull();
  const std::string path = json::StringMember(is_added ? difference.recorded : difference.running, "path");
  if (is_added) return Attach(domain_xml::DiskElement(options_.recorded_xml, path));
  std::string element = domain_xml::DiskElement(options_.running_xml, path);
  // One that was added by these changes, and is taken out again.
  if (element.empty()) element = domain_xml::DiskElement(options_.recorded_xml, path);
  return Detach(element, [&](const std::string& xml) { return !domain_xml::DiskElement(xml, path).empty(); });
}

// libvirt moves an interface between networks of one kind. Any other change replaces it.
Status LiveChanges::ApplyNic(const Difference& difference) {
  const std::string mac =
      json::StringMember(difference.running.isNull() ? difference.recorded : difference.running, "mac");
  const std::string before = domain_xml::NicElement(options_.running_xml, mac);
  const std::string after = domain_xml::NicElement(options_.recorded_xml, mac);
  if (difference.running.isNull()) return Attach(after);
  const bool stays = !difference.recorded.isNull();
  if (stays && hypervisor_.UpdateDevice(options_.guest_id, after, hypervisor::Eject::kIfUnlocked)) return {};
  const auto is_there = [&](const std::string& xml) { return !domain_xml::NicElement(xml, mac).empty(); };
  Status done = Detach(before, is_there);
  if (!done || !stays) return done;
  done = Attach(after);
  if (!done) (void)Attach(before);
  return done;
}

Status LiveChanges::ApplyDrives(const Difference& difference) {
  for (Json::ArrayIndex i = 0; i < difference.recorded.size(); ++i) {
    const std::string image = json::String(json::Element(difference.recorded, i));
    if (image == json::String(json::Element(difference.running, i))) continue;
    const std::string element =
        domain_xml::DriveElement(options_.running_xml, i, image.starts_with('/') ? image : std::string());
    const auto done = hypervisor_.UpdateDevice(options_.guest_id, element, options_.eject);
    if (!done) return done.error();
  }
  return {};
}

Status LiveChanges::ApplyUsb(const Difference& difference) {
  const std::set<std::string> before = Strings(difference.running);
  const std::set<std::string> after = Strings(difference.recorded);
  for (const std::string& device : before) {
    if (after.contains(device)) continue;
    const Status done = Detach(domain_xml::UsbElement(options_.running_xml, device),
                               [&](const std::string& xml) { return !domain_xml::UsbElement(xml, device).empty(); });
    if (!done) return done;
  }
  for (const std::string& device : after) {
    if (before.contains(device)) continue;
    if (Status done = Attach(domain_xml::UsbElement(options_.recorded_xml, device)); !done) return done;
  }
  return {};
}

Status LiveChanges::Attach(const std::string& element) {
  if (element.empty()) return Error(ErrorCode::kNotFound, "The device is not part of the guest's definition");
  const auto done = hypervisor_.AttachDevice(options_.guest_id, element);
  return done ? Status() : done.error();
}

Status LiveChanges::Detach(const std::string& element, const std::function<bool(const std::string& xml)>& find) {
  if (element.empty()) return {};
  const auto asked = hypervisor_.DetachDevice(options_.guest_id, element);
  if (!asked) return asked.error();
  return release_timer_.AwaitRelease([&]() -> Result<bool> {
    const auto xml = hypervisor_.RunningXmlOf(options_.guest_id);
    if (!xml) return Error(xml.error());
    return find(*xml);
  });
}

}  // namespace vexa::guests
