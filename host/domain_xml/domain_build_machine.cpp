// The guest's identity, memory, processors, firmware, features and clock.
#include <algorithm>
#include <utility>

#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_build_internal.h"
#include "json/readers.h"

namespace vexa::domain_xml::build {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::int64_t kDefaultWeight = 256;
constexpr std::size_t kMaxNameBytes = 128;

// Whether libvirt accepts the name: it makes file names from it.
bool IsDomainName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxNameBytes && name.find('/') == std::string::npos && name != "." &&
         name != ".." && IsValidUtf8(name) && !parse::HasControlCharacters(name) && XmlText(name) == name &&
         parse::Trim(name) == name;
}

Status WriteTuning(Context& context, std::int64_t vcpus) {
  const Result<std::int64_t> weight = NumberOf(context.guest(), GuestSettingOf("cpu_weight"), kDefaultWeight);
  if (!weight) return weight.error();
  const Result<std::int64_t> pins = NumberOf(context.guest(), "cpu_pin_num", 0, 0, vcpus);
  if (!pins) return pins.error();
  const std::size_t pinned = std::min(static_cast<std::size_t>(*pins), context.options.pinned_cpus.size());
  const bool shares = context.options.cpu_shares == CpuShares::kAllowed;
  if (!shares && pinned == 0) return {};

  pugi::xml_node tuning = Add(context.domain, "cputune");
  if (shares) AddText(tuning, "shares", std::to_string(std::min(*weight, context.options.max_cpu_weight)));
  for (std::size_t i = 0; i < pinned; ++i) {
    pugi::xml_node pin = Add(tuning, "vcpupin");
    Set(pin, "vcpu", std::to_string(i));
    Set(pin, "cpuset", std::to_string(context.options.pinned_cpus[i]));
  }
  return {};
}

// How many virtual CPUs the machine has room for, at least the ones that it starts with.
std::int64_t MaxVcpus(const Context& context, std::int64_t vcpus) {
  return std::max<std::int64_t>(vcpus, context.options.hot_plug.vcpus);
}

// QEMU adds memory modules only to machines with NUMA cells. One cell with everything is the machine without cells.
void WriteNumaCell(pugi::xml_node cpu, std::int64_t max_vcpus, std::int64_t memory_mib) {
  pugi::xml_node cell = Add(Add(cpu, "numa"), "cell");
  Set(cell, "id", "0");
  Set(cell, "cpus", max_vcpus == 1 ? "0" : "0-" + std::to_string(max_vcpus - 1));
  Set(cell, "memory", std::to_string(memory_mib));
  Set(cell, "unit", "MiB");
}

bool HasMemorySlots(const Context& context, std::int64_t memory_mib) {
  return std::cmp_greater(context.options.hot_plug.memory_mib, memory_mib);
}

// One socket, because some systems count sockets and use at most two.
void WriteCpu(Context& context, std::int64_t vcpus) {
  const std::int64_t max_vcpus = MaxVcpus(context, vcpus);
  pugi::xml_node cpu = Add(context.domain, "cpu");
  const bool passthru = FlagOf(context.guest(), "cpu_passthru");
  if (passthru) {
    // Without KVM there is no host processor to pass through. "maximum", all that the emulator supports, comes closest.
    Set(cpu, "mode", context.options.domain_type == "qemu" ? "maximum" : "host-passthrough");
    Set(cpu, "check", "none");
  } else {
    Set(cpu, "mode", "custom");
    Set(cpu, "match", "exact");
    Set(cpu, "check", "none");
    Set(AddText(cpu, "model", context.options.compatible_cpu), "fallback", "allow");
  }
  pugi::xml_node topology = Add(cpu, "topology");
  Set(topology, "sockets", "1");
  Set(topology, "cores", std::to_string(max_vcpus));
  Set(topology, "threads", "1");
  const std::int64_t memory_mib = json::Int64(json::Member(context.guest(), "vram_size"));
  if (HasMemorySlots(context, memory_mib)) WriteNumaCell(cpu, max_vcpus, memory_mib);
}

void WriteFeatures(Context& context) {
  pugi::xml_node features = Add(context.domain, "features");
  Add(features, "acpi");
  Add(features, "apic");
  const Json::Value* const enlighten = json::FindMember(context.guest(), "hyperv_enlighten");
  // Only KVM provides these.
  if (enlighten == nullptr || enlighten->isNull() || context.options.domain_type == "qemu") return;
  pugi::xml_node hyperv = Add(features, "hyperv");
  Set(hyperv, "mode", "custom");
  const std::string state = json::Bool(*enlighten) ? "on" : "off";
  for (const char* feature : {"relaxed", "vapic", "spinlocks"}) {
    pugi::xml_node element = Add(hyperv, feature);
    Set(element, "state", state);
    if (std::string_view(feature) == "spinlocks" && state == "on") Set(element, "retries", "8191");
  }
}

void WriteClock(Context& context) {
  struct Timer {
    const char* name;
    const char* attribute;
    const char* value;
  };
  constexpr Timer kTimers[] = {
      {"rtc", "tickpolicy", "catchup"}, {"pit", "tickpolicy", "delay"}, {"hpet", "present", "no"}};
  pugi::xml_node clock = Add(context.domain, "clock");
  Set(clock, "offset", "utc");
  if (context.is_test()) return;
  for (const Timer& row : kTimers) {
    pugi::xml_node timer = Add(clock, "timer");
    Set(timer, "name", row.name);
    Set(timer, row.attribute, row.value);
  }
}

Status WriteFirmware(Context& context) {
  const Result<std::string> nvram = NvramOf(context.guest());
  if (!nvram) return nvram.error();
  pugi::xml_node os = Add(context.domain, "os");
  const bool uefi = FlagOf(context.guest(), "use_ovmf");
  if (uefi) Set(os, "firmware", "efi");
  pugi::xml_node type = AddText(os, "type", "hvm");
  // The test driver has machine types of its own.
  if (!context.is_test()) {
    Set(type, "arch", "x86_64");
    Set(type, "machine", context.legacy_machine ? "pc" : "q35");
  }
  if (!uefi) return {};
  pugi::xml_node feature = Add(Add(os, "firmware"), "feature");
  Set(feature, "enabled", "no");
  Set(feature, "name", "secure-boot");
  // libvirt creates a missing file from the firmware's template.
  if (!nvram->empty()) AddText(os, "nvram", *nvram);
  return {};
}

}  // namespace

Status WriteIdentity(Context& context) {
  const Result<std::string> name = StringOf(context.guest(), "name", "");
  if (!name) return name.error();
  const Result<std::string> description = StringOf(context.guest(), "desc", "");
  if (!description) return description.error();
  const std::string id = NormalizeUuid(context.records.id);
  AddText(context.domain, "name", IsDomainName(*name) ? *name : id);
  AddText(context.domain, "uuid", id);
  if (json::FindMember(context.guest(), "desc") != nullptr) AddText(context.domain, "description", *description);
  if (!context.options.host_id.empty()) WriteOwnershipTag(context.domain, context.options.host_id, Persistence::kNo);

  const Result<std::int64_t> memory = NumberOf(context.guest(), GuestSettingOf("vram_size"), 0);
  if (!memory) return memory.error();
  if (*memory == 0) return Invalid("The record of the guest has no 'vram_size'. Set how much memory the guest has");
  if (HasMemorySlots(context, *memory)) {
    constexpr const char* kSlots = "16";
    pugi::xml_node maximum = AddText(context.domain, "maxMemory", std::to_string(context.options.hot_plug.memory_mib));
    Set(maximum, "slots", kSlots);
    Set(maximum, "unit", "MiB");
  }
  Set(AddText(context.domain, "memory", std::to_string(*memory)), "unit", "MiB");
  return {};
}

Status WriteProcessor(Context& context) {
  const Result<std::int64_t> vcpus = NumberOf(context.guest(), GuestSettingOf("vcpu_num"), 1);
  if (!vcpus) return vcpus.error();
  const std::int64_t max_vcpus = MaxVcpus(context, *vcpus);
  pugi::xml_node vcpu = AddText(context.domain, "vcpu", std::to_string(max_vcpus));
  if (max_vcpus != *vcpus) Set(vcpu, "current", std::to_string(*vcpus));
  // Also the default for the emulator's threads.
  const std::string shared = FormatCpuSet(context.options.shared_cpus);
  if (!shared.empty()) Set(vcpu, "cpuset", shared);
  if (Status tuning = WriteTuning(context, *vcpus); !tuning) return tuning;
  WriteCpu(context, *vcpus);
  return {};
}

Status WriteSystem(Context& context) {
  if (Status firmware = WriteFirmware(context); !firmware) return firmware;
  WriteFeatures(context);
  WriteClock(context);
  AddText(context.domain, "on_poweroff", "destroy");
  AddText(context.domain, "on_reboot", "restart");
  AddText(context.domain, "on_crash", "destroy");
  return {};
}

}  // namespace vexa::domain_xml::build
