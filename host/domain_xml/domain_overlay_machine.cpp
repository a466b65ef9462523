// The guest's identity, memory and firmware, and features of the hypervisor.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include <vector>

#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_overlay.h"
#include "host/domain_xml/domain_xml_internal.h"

namespace vexa::hypervisor::domain_overlay {
namespace {

constexpr std::uint64_t kMib = std::uint64_t{1} << 20;

// Whether the element, with any prefix, is in the namespace of our mark.
bool IsMark(pugi::xml_node element) {
  const std::string_view name = element.name();
  const std::size_t colon = name.find(':');
  std::string declaration = "xmlns";
  if (colon != std::string_view::npos) declaration += ":" + std::string(name.substr(0, colon));
  for (pugi::xml_node at = element; at; at = at.parent()) {
    if (const pugi::xml_attribute space = at.attribute(declaration.c_str()); space) {
      return std::string_view(space.value()) == kMarkNamespace;
    }
  }
  return false;
}

void ReplaceMark(Overlay& overlay) {
  const pugi::xml_node metadata = overlay.domain.child("metadata");
  std::vector<pugi::xml_node> old;
  for (const pugi::xml_node child : metadata.children()) {
    if (child.type() == pugi::node_element && IsMark(child)) old.push_back(child);
  }
  for (const pugi::xml_node mark : old) overlay.domain.child("metadata").remove_child(mark);
  if (overlay.options.host_id.empty()) {
    if (!old.empty()) RemoveWhenEmpty(metadata);
    return;
  }
  domain_build::WriteMark(overlay.domain, overlay.options.host_id, domain_build::Kept::kYes);
}

// Drops an emulator path from the machine that the guest came from when it does not exist on this machine.
void DropForeignEmulator(Overlay& overlay) {
  const pugi::xml_node emulator = overlay.devices.child("emulator");
  if (!emulator) return;
  const std::string path(domain_xml::Trim(domain_xml::TextOf(emulator)));
  struct stat info {};
  const bool usable = ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
  if (!usable) overlay.devices.remove_child(emulator);
}

// The cells of a NUMA guest determine its memory: each gets its share of the new size. False when that is not possible.
bool SpreadOverCells(pugi::xml_node numa, std::uint64_t memory_mib) {
  std::vector<std::pair<pugi::xml_node, std::uint64_t>> cells;
  std::uint64_t total = 0;
  for (const pugi::xml_node cell : numa.children("cell")) {
    const auto number = domain_xml::ParseUnsigned(cell.attribute("memory").value());
    const auto unit = domain_xml::BytesPerUnit(cell.attribute("unit").value());
    std::uint64_t bytes = 0;
    if (!number || !unit || __builtin_mul_overflow(*number, *unit, &bytes)) return false;
    cells.emplace_back(cell, bytes / kMib);
    if (__builtin_add_overflow(total, bytes / kMib, &total)) return false;
  }
  if (total == 0 || memory_mib < cells.size()) return false;
  std::uint64_t rest = memory_mib;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::uint64_t later = cells.size() - i - 1;
    const auto share = static_cast<std::uint64_t>(static_cast<double>(memory_mib) *
                                                  static_cast<double>(cells[i].second) / static_cast<double>(total));
    const std::uint64_t size = later == 0 ? rest : std::clamp<std::uint64_t>(share, 1, rest - later);
    Put(cells[i].first, "memory", std::to_string(size));
    Put(cells[i].first, "unit", "MiB");
    rest -= size;
  }
  return true;
}

void DropMemoryModules(Overlay& overlay) {
  for (pugi::xml_node module = overlay.devices.child("memory"); module;) {
    const pugi::xml_node next = module.next_sibling("memory");
    if (Says(module, "model", "dimm")) overlay.devices.remove_child(module);
    module = next;
  }
}

void PutFirmware(Overlay& overlay, pugi::xml_node os) {
  constexpr const char* kFirmware[] = {"loader", "nvram", "firmware"};
  os.remove_attribute("firmware");
  RemoveChildren(os, kFirmware);
  if (!domain_build::FlagOf(overlay.guest(), "use_ovmf")) return;
  const pugi::xml_node built = overlay.built.child("os");
  Put(os, "firmware", "efi");
  os.append_copy(built.child("firmware"));
}

void PutNvram(pugi::xml_node os, const std::string& path) {
  // Such firmware has no variables.
  if (Says(os.child("loader"), "stateless", "yes")) return;
  const pugi::xml_node nvram = ChildOf(os, "nvram");
  if (domain_xml::NvramPath(nvram) == path) return;
  constexpr const char* kOfSource[] = {"type"};
  RemoveAttributes(nvram, kOfSource);
  RemoveChildren(nvram, "source");
  PutText(nvram, path);
}

}  // namespace

Status ApplyIdentity(Overlay& overlay) {
  pugi::xml_node domain = overlay.domain;
  Put(domain, "type", overlay.options.domain_type);
  domain.remove_attribute("id");
  if (!IsUnchanged(overlay, "name")) {
    PutText(ChildOf(domain, "name"), domain_xml::TextOf(overlay.built.child("name")));
  }
  if (!IsUnchanged(overlay, "desc")) {
    const pugi::xml_node built = overlay.built.child("description");
    if (built) PutText(ChildOf(domain, "description"), domain_xml::TextOf(built));
    if (!built) RemoveChildren(domain, "description");
  }
  ReplaceMark(overlay);
  DropForeignEmulator(overlay);
  return {};
}

Status ApplyMemory(Overlay& overlay) {
  if (IsUnchanged(overlay, "vram_size")) return {};
  const pugi::xml_node memory = ChildOf(overlay.domain, "memory");
  const std::string mib = domain_xml::TextOf(overlay.built.child("memory"));
  PutText(memory, mib);
  Put(memory, "unit", "MiB");
  RemoveChildren(overlay.domain, "currentMemory");
  DropMemoryModules(overlay);

  const std::uint64_t size_mib = domain_xml::ParseUnsigned(mib).value_or(0);
  const pugi::xml_node most = overlay.domain.child("maxMemory");
  if (most && domain_xml::MemoryBytes(most).value_or(0) < size_mib * kMib) {
    PutText(most, mib);
    Put(most, "unit", "MiB");
  }
  const pugi::xml_node numa = overlay.domain.child("cpu").child("numa");
  if (numa && !SpreadOverCells(numa, size_mib)) {
    overlay.domain.child("cpu").remove_child(numa);
    RemoveChildren(overlay.domain.child("numatune"), "memnode");
  }
  return {};
}

Status ApplyFirmware(Overlay& overlay) {
  const Result<std::string> nvram = domain_build::NvramOf(overlay.guest());
  if (!nvram) return nvram.error();
  const pugi::xml_node os = ChildOf(overlay.domain, "os");
  if (FlagChanged(overlay, "use_ovmf")) PutFirmware(overlay, os);
  if (domain_build::FlagOf(overlay.guest(), "use_ovmf") && !nvram->empty()) PutNvram(os, *nvram);
  RemoveWhenEmpty(os);
  return {};
}

Status ApplyFeatures(Overlay& overlay) {
  if (!IsUnchanged(overlay, "hyperv_enlighten")) {
    RemoveChildren(overlay.domain.child("features"), "hyperv");
    const pugi::xml_node built = overlay.built.child("features").child("hyperv");
    if (built) ChildOf(overlay.domain, "features").append_copy(built);
  }
  if (!overlay.is_emulated()) return {};
  constexpr const char* kOfKvm[] = {"hyperv", "kvm"};
  RemoveChildren(overlay.domain.child("features"), kOfKvm);
  pugi::xml_node clock = overlay.domain.child("clock");
  for (pugi::xml_node timer = clock.child("timer"); timer;) {
    const pugi::xml_node next = timer.next_sibling("timer");
    if (Says(timer, "name", "hypervclock") || Says(timer, "name", "kvmclock")) clock.remove_child(timer);
    timer = next;
  }
  return {};
}

}  // namespace vexa::hypervisor::domain_overlay
