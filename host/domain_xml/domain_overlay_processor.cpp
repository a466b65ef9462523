// Virtual CPUs, their model and topology, and their share of the host.
#include "host/domain_xml/domain_overlay.h"

namespace vexa::domain_xml::overlay {
namespace {

// The builder's <cpu>. The owner's topology of the virtual CPUs is kept.
void ReplaceCpu(Overlay& overlay) {
  const pugi::xml_node old = overlay.domain.child("cpu");
  pugi::xml_document kept;
  for (const char* name : {"topology", "numa"}) {
    if (old.child(name)) kept.append_copy(old.child(name));
  }
  pugi::xml_node cpu = Replace(overlay.domain, old, overlay.built.child("cpu"));
  RemoveChildren(cpu, "topology");
  for (const pugi::xml_node part : kept.children()) cpu.append_copy(part);
}

// libvirt refuses a topology for a different number of virtual CPUs.
void RemoveTopology(Overlay& overlay) {
  RemoveChildren(overlay.domain, "vcpus");
  pugi::xml_node cpu = overlay.domain.child("cpu");
  if (cpu.child("topology")) Replace(cpu, cpu.child("topology"), overlay.built.child("cpu").child("topology"));
  if (cpu.child("numa")) {
    RemoveChildren(cpu, "numa");
    RemoveChildren(overlay.domain.child("numatune"), "memnode");
  }
  constexpr const char* kPerCpuTuningElements[] = {"vcpusched", "cachetune", "memorytune"};
  RemoveChildren(overlay.domain.child("cputune"), kPerCpuTuningElements);
}

void RemovePinsAtOrAbove(pugi::xml_node tuning, std::uint64_t vcpus) {
  for (pugi::xml_node pin = tuning.child("vcpupin"); pin;) {
    const pugi::xml_node next = pin.next_sibling("vcpupin");
    if (parse::ParseUnsigned(pin.attribute("vcpu").value()).value_or(0) >= vcpus) tuning.remove_child(pin);
    pin = next;
  }
}

// A libvirt without the cgroups refuses guests that have any of these.
void RemoveCgroups(Overlay& overlay) {
  if (overlay.options.cpu_shares == CpuShares::kAllowed) return;
  constexpr const char* kCgroupTuningElements[] = {"shares",         "period",          "quota",
                                                   "global_period",  "global_quota",    "emulator_period",
                                                   "emulator_quota", "iothread_period", "iothread_quota"};
  constexpr const char* kCgroupElements[] = {"blkiotune", "memtune"};
  RemoveChildren(overlay.domain.child("cputune"), kCgroupTuningElements);
  if (overlay.options.cpu_shares == CpuShares::kOmitted) RemoveChildren(overlay.domain, kCgroupElements);
}

// Keeps everything that is not pinned to a dedicated processor off these.
void ConfineToShared(Overlay& overlay) {
  const CpuSet& shared = overlay.options.shared_cpus;
  if (shared.empty()) return;
  pugi::xml_node vcpu = ChildOf(overlay.domain, "vcpu");
  Put(vcpu, "cpuset", FormatCpuSet(ConfineCpus(vcpu.attribute("cpuset").value(), shared)));
  // libvirt would choose processors by itself.
  if (HasAttributeValue(vcpu, "placement", "auto")) Put(vcpu, "placement", "static");
  for (pugi::xml_node pin : overlay.domain.child("cputune").children()) {
    const std::string_view name = pin.name();
    if (name != "emulatorpin" && name != "iothreadpin") continue;
    Put(pin, "cpuset", FormatCpuSet(ConfineCpus(pin.attribute("cpuset").value(), shared)));
  }
}

}  // namespace

Status ApplyProcessor(Overlay& overlay) {
  const bool needs_host_cpu =
      overlay.is_emulated() && HasAttributeValue(overlay.domain.child("cpu"), "mode", "host-passthrough");
  if (IsFlagChanged(overlay, "cpu_passthru") || needs_host_cpu) ReplaceCpu(overlay);
  if (IsUnchanged(overlay, "vcpu_num", 1)) return {};
  pugi::xml_node vcpu = ChildOf(overlay.domain, "vcpu");
  const std::string count = parse::TextOf(overlay.built.child("vcpu"));
  PutText(vcpu, count);
  vcpu.remove_attribute("current");
  RemoveTopology(overlay);
  RemovePinsAtOrAbove(overlay.domain.child("cputune"), parse::ParseUnsigned(count).value_or(1));
  return {};
}

Status ApplyTuning(Overlay& overlay) {
  const pugi::xml_node built = overlay.built.child("cputune");
  if (!IsUnchanged(overlay, "cpu_weight", 256) && built.child("shares")) {
    const pugi::xml_node tuning = ChildOf(overlay.domain, "cputune");
    PutText(ChildOf(tuning, "shares"), parse::TextOf(built.child("shares")));
  }
  if (!overlay.options.pinned_cpus.empty() || !IsUnchanged(overlay, "cpu_pin_num", 0)) {
    RemoveChildren(overlay.domain.child("cputune"), "vcpupin");
    for (const pugi::xml_node pin : built.children("vcpupin")) ChildOf(overlay.domain, "cputune").append_copy(pin);
  }
  ConfineToShared(overlay);
  RemoveCgroups(overlay);
  RemoveWhenEmpty(overlay.domain.child("cputune"));
  return {};
}

}  // namespace vexa::domain_xml::overlay
