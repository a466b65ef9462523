// The guest's identity, processors and memory.
#include <set>
#include <utility>

#include "host/base/guest_settings.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_build.h"
#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::parse {
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
      return Invalid("<vcpupin> names the virtual CPU {}: the guest has the virtual CPUs 0 to {}", Quote(number),
                     vcpus - 1);
    }
    pinned.insert(*vcpu);
  }
  context.guest()["cpu_pin_num"] = Int(pinned.size());
  if (!pinned.empty()) {
    context.Note(
        "The CPU sets of <vcpupin> are replaced by processors that the host dedicates to the guest: only the number of "
        "pinned virtual CPUs was recorded.");
  }
  return {};
}

// Whether a host of this system has made the definition from records alone, by its ownership tag.
bool IsOwn(pugi::xml_node domain) {
  for (const pugi::xml_node tag : domain.child("metadata").children()) {
    if (std::string_view(tag.attribute("xmlns:vexa").value()) == kOwnershipTagNamespace) return !tag.attribute("kept");
  }
  return false;
}

}  // namespace

Status ReadIdentity(pugi::xml_node domain, Context& context) {
  const std::string uuid = TextOf(domain.child("uuid"));
  context.result.id = NormalizeUuid(Trim(uuid));
  if (context.result.id.empty()) {
    return Invalid("<uuid> is {}. Use the guest's UUID in the form 8-4-4-4-12, not all zeros", Quote(uuid));
  }
  const std::string name = TextOf(domain.child("name"));
  if (name.empty() || name.size() > kMaxNameBytes || HasControlCharacters(name)) {
    return Invalid("<name> is {}: a guest's name has 1 to 128 bytes without control characters and line ends",
                   Quote(name));
  }
  context.guest()["name"] = name;
  const pugi::xml_node description = domain.child("description");
  if (description) context.guest()["desc"] = TextOf(description);
  return {};
}

Status ReadProcessor(pugi::xml_node domain, Context& context) {
  const pugi::xml_node vcpu = domain.child("vcpu");
  const std::string text = vcpu ? TextOf(vcpu) : "1";  // libvirt's default
  const std::string_view current = vcpu.attribute("current").value();
  // A definition of this system has room for more than the guest has.
  const bool counts_current = !current.empty() && IsOwn(domain);
  const auto vcpus = ParseUnsigned(counts_current ? current : text);
  if (!vcpus || !IsInRange(*vcpus, GuestSettingOf("vcpu_num"))) {
    return Invalid("<vcpu> is {}: a guest has 1 to 512 virtual CPUs", Quote(text));
  }
  context.guest()["vcpu_num"] = Int(*vcpus);
  if (!current.empty() && ParseUnsigned(current) != vcpus) {
    context.Note("The guest starts with {} of its {} virtual CPUs: the record counts all of them.", Quote(current),
                 *vcpus);
  }
  context.guest()["cpu_passthru"] =
      std::string_view(domain.child("cpu").attribute("mode").value()) == "host-passthrough";

  const pugi::xml_node cputune = domain.child("cputune");
  const pugi::xml_node shares = cputune.child("shares");
  const auto weight = shares ? ParseUnsigned(TextOf(shares)) : kDefaultWeight;
  if (!weight || !IsInRange(*weight, GuestSettingOf("cpu_weight"))) {
    return Invalid("<shares> is {}: a guest's CPU weight is 2 to 262144", Quote(TextOf(shares)));
  }
  context.guest()["cpu_weight"] = Int(*weight);
  return ReadPinning(cputune, *vcpus, context);
}

Status ReadMemory(pugi::xml_node domain, Context& context) {
  const pugi::xml_node memory = domain.child("memory");
  if (!memory) return Invalid("<memory> is missing. Set how much memory the guest has");
  const std::string_view unit = memory.attribute("unit").value();
  if (!BytesPerUnit(unit)) {
    return Invalid("<memory> has the unit {}. Use b, KB, KiB, MB, MiB, GB, GiB, TB or TiB", Quote(unit));
  }
  static constexpr const GuestSetting& kMemory = GuestSettingOf("vram_size");
  const auto bytes = MemoryBytes(memory);
  const std::uint64_t mib = bytes ? *bytes / kMib + (*bytes % kMib != 0 ? 1 : 0) : 0;
  if (!IsInRange(mib, kMemory)) {
    return Invalid("<memory> is {} {}: a guest has 1 to {} MiB of memory", Quote(TextOf(memory)),
                   unit.empty() ? "KiB" : unit, kMemory.max);
  }
  context.guest()["vram_size"] = Int(mib);
  const pugi::xml_node current = domain.child("currentMemory");
  if (current && MemoryBytes(current) != bytes) {
    context.Note(
        "<currentMemory> differs from <memory>: {} MiB was recorded, and the balloon stays until the memory is edited.",
        mib);
  }
  return {};
}

}  // namespace vexa::domain_xml::parse
