// The guest's identity, processors and memory.
#include <set>
#include <utility>

#include "host/base/guest_settings.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_xml_internal.h"

namespace vexa::hypervisor::domain_xml {
namespace {

constexpr std::size_t kMaxNameBytes = 128;
constexpr std::uint64_t kDefaultWeight = 256;
constexpr std::uint64_t kMib = std::uint64_t{1} << 20;

bool IsInRange(std::uint64_t value, const GuestSetting& setting) {
  return std::cmp_greater_equal(value, setting.min) && std::cmp_less_equal(value, setting.max);
}

Json::Int Int(std::uint64_t value) { return static_cast<Json::Int>(value); }

Status ReadPinning(pugi::xml_node cputune, std::uint64_t vcpus, Context& context) {
  std::set<std::uint64_t> pinned;
  for (const pugi::xml_node pin : cputune.children("vcpupin")) {
    const std::string_view number = pin.attribute("vcpu").value();
    const auto vcpu = ParseUnsigned(number);
    if (!vcpu || *vcpu >= vcpus) {
      return Refused("<vcpupin> names the virtual CPU " + Quote(number) + ": the guest has the virtual CPUs 0 to " +
                     std::to_string(vcpus - 1));
    }
    pinned.insert(*vcpu);
  }
  context.guest()["cpu_pin_num"] = Int(pinned.size());
  if (!pinned.empty()) {
    context.Note(
        "The CPU sets of <vcpupin> give way to processors that the host sets apart: only the number of pinned virtual "
        "CPUs "
        "was recorded.");
  }
  return {};
}

}  // namespace

Status ReadIdentity(pugi::xml_node domain, Context& context) {
  const std::string uuid = TextOf(domain.child("uuid"));
  context.result.id = NormalizeUuid(Trim(uuid));
  if (context.result.id.empty()) {
    return Refused("<uuid> says " + Quote(uuid) + ": give the guest's UUID in the form 8-4-4-4-12, not all zero");
  }
  const std::string name = TextOf(domain.child("name"));
  if (name.empty() || name.size() > kMaxNameBytes || HasControlCharacters(name)) {
    return Refused("<name> says " + Quote(name) +
                   ": a guest's name has 1 to 128 bytes without control characters and line ends");
  }
  context.guest()["name"] = name;
  const pugi::xml_node description = domain.child("description");
  if (description) context.guest()["desc"] = TextOf(description);
  return {};
}

Status ReadProcessor(pugi::xml_node domain, Context& context) {
  const pugi::xml_node vcpu = domain.child("vcpu");
  const std::string text = vcpu ? TextOf(vcpu) : "1";  // libvirt's default
  const auto vcpus = ParseUnsigned(text);
  if (!vcpus || !IsInRange(*vcpus, GuestSettingOf("vcpu_num"))) {
    return Refused("<vcpu> says " + Quote(text) + ": a guest has 1 to 512 virtual CPUs");
  }
  context.guest()["vcpu_num"] = Int(*vcpus);
  const std::string_view current = vcpu.attribute("current").value();
  if (!current.empty() && ParseUnsigned(current) != vcpus) {
    context.Note("The guest starts with " + Quote(current) + " of its " + std::to_string(*vcpus) +
                 " virtual CPUs: the record counts all of them.");
  }
  context.guest()["cpu_passthru"] =
      std::string_view(domain.child("cpu").attribute("mode").value()) == "host-passthrough";

  const pugi::xml_node cputune = domain.child("cputune");
  const pugi::xml_node shares = cputune.child("shares");
  const auto weight = shares ? ParseUnsigned(TextOf(shares)) : kDefaultWeight;
  if (!weight || !IsInRange(*weight, GuestSettingOf("cpu_weight"))) {
    return Refused("<shares> says " + Quote(TextOf(shares)) + ": a guest's CPU weight is 2 to 262144");
  }
  context.guest()["cpu_weight"] = Int(*weight);
  return ReadPinning(cputune, *vcpus, context);
}

Status ReadMemory(pugi::xml_node domain, Context& context) {
  const pugi::xml_node memory = domain.child("memory");
  if (!memory) return Refused("<memory> is missing: say how much memory the guest has");
  const std::string_view unit = memory.attribute("unit").value();
  if (!BytesPerUnit(unit)) {
    return Refused("<memory> has the unit " + Quote(unit) + ": use b, KB, KiB, MB, MiB, GB, GiB, TB or TiB");
  }
  static constexpr const GuestSetting& kMemory = GuestSettingOf("vram_size");
  const auto bytes = MemoryBytes(memory);
  const std::uint64_t mib = bytes ? *bytes / kMib + (*bytes % kMib != 0 ? 1 : 0) : 0;
  if (!IsInRange(mib, kMemory)) {
    return Refused("<memory> says " + Quote(TextOf(memory)) + " " + (unit.empty() ? "KiB" : std::string(unit)) +
                   ": a guest has 1 to " + std::to_string(kMemory.max) + " MiB of memory");
  }
  context.guest()["vram_size"] = Int(mib);
  const pugi::xml_node current = domain.child("currentMemory");
  if (current && MemoryBytes(current) != bytes) {
    context.Note("<currentMemory> differs from <memory>: the record says " + std::to_string(mib) +
                 " MiB, and the balloon stays until the memory is edited.");
  }
  return {};
}

}  // namespace vexa::hypervisor::domain_xml
