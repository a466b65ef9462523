// Virtual CPUs, their model and topology, and their share of the host.
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_overlay.h"
#include "host/domain_xml/domain_xml_internal.h"

namespace vexa::hypervisor::domain_overlay {
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
void RemoveArrangement(Overlay& overlay) {
  RemoveChildren(overlay.domain, "vcpus");
  pugi::xml_node cpu = overlay.domain.child("cpu");
  if (cpu.child("topology")) Replace(cpu, cpu.child("topology"), overlay.built.child("cpu").child("topology"));
  if (cpu.child("numa")) {
    RemoveChildren(cpu, "numa");
    RemoveChildren(overlay.domain.child("numatune"), "memnode");
  }
  constexpr const char* kOfSingleCpus[] = {"vcpusched", "cachetune", "memorytune"};
  RemoveChildren(overlay.domain.child("cputune"), kOfSingleCpus);
}

void RemovePinsFrom(pugi::xml_node tuning, std::uint64_t vcpus) {
  for (pugi::xml_node pin = tuning.child("vcpupin"); pin;) {
    const pugi::xml_node next = pin.next_sibling("vcpupin");
    if (domain_xml::ParseUnsigned(pin.attribute("vcpu").value()).value_or(0) >= vcpus) tuning.remove_child(pin);
    pin = next;
  }
}

// Where libvirt has no cgroups, it refuses a guest that asks for any of these.
void RemoveCgroups(Overlay& overlay) {
  constexpr const char* kOfCputune[] = {"shares",         "period",          "quota",
                                        "global_period",  "global_quota",    "emulator_period",
                                        "emulator_quota", "iothread_period", "iothread_quota"};
  constexpr const char* kOfDomain[] = {"blkiotune", "memtune"};
  RemoveChildren(overlay.domain.child("cputune"), kOfCputune);
  RemoveChildren(overlay.domain, kOfDomain);
}

}  // namespace

Status ApplyProcessor(Overlay& overlay) {
  const bool needs_host = overlay.is_emulated() && Says(overlay.domain.child("cpu"), "mode", "host-passthrough");
  if (FlagChanged(overlay, "cpu_passthru") || needs_host) ReplaceCpu(overlay);
  if (IsUnchanged(overlay, "vcpu_num", 1)) return {};
  pugi::xml_node vcpu = ChildOf(overlay.domain, "vcpu");
  const std::string count = domain_xml::TextOf(overlay.built.child("vcpu"));
  PutText(vcpu, count);
  vcpu.remove_attribute("current");
  RemoveArrangement(overlay);
  RemovePinsFrom(overlay.domain.child("cputune"), domain_xml::ParseUnsigned(count).value_or(1));
  return {};
}

Status ApplyTuning(Overlay& overlay) {
  const pugi::xml_node built = overlay.built.child("cputune");
  if (!IsUnchanged(overlay, "cpu_weight", 256) && built.child("shares")) {
    const pugi::xml_node tuning = ChildOf(overlay.domain, "cputune");
    PutText(ChildOf(tuning, "shares"), domain_xml::TextOf(built.child("shares")));
  }
  if (!overlay.options.pinned_cpus.empty() || !IsUnchanged(overlay, "cpu_pin_num", 0)) {
    RemoveChildren(overlay.domain.child("cputune"), "vcpupin");
    for (const pugi::xml_node pin : built.children("vcpupin")) ChildOf(overlay.domain, "cputune").append_copy(pin);
  }
  if (overlay.options.cpu_shares == CpuShares::kLeftOut) RemoveCgroups(overlay);
  RemoveWhenEmpty(overlay.domain.child("cputune"));
  return {};
}

}  // namespace vexa::hypervisor::domain_overlay
