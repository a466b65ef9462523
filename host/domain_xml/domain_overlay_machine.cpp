// The guest's identity, memory and firmware, and features of the hypervisor.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "host/domain_xml/domain_overlay.h"
#include "host/domain_xml/domain_parse_internal.h"
#include "json/readers.h"

namespace vexa::domain_xml::overlay {
namespace {

constexpr std::uint64_t kMib = std::uint64_t{1} << 20;

// Whether the element, with any prefix, is in the namespace of the ownership tag.
bool IsOwnershipTag(pugi::xml_node element) {
  const std::string_view name = element.name();
  const std::size_t colon = name.find(':');
  std::string declaration = "xmlns";
  if (colon != std::string_view::npos) declaration += ":" + std::string(name.substr(0, colon));
  for (pugi::xml_node at = element; at; at = at.parent()) {
    if (const pugi::xml_attribute space = at.attribute(declaration.c_str()); space) {
      return std::string_view(space.value()) == kOwnershipTagNamespace;
    }
  }
  return false;
}

void ReplaceOwnershipTag(Overlay& overlay) {
  const pugi::xml_node metadata = overlay.domain.child("metadata");
  std::vector<pugi::xml_node> old;
  for (const pugi::xml_node child : metadata.children()) {
    if (child.type() == pugi::node_element && IsOwnershipTag(child)) old.push_back(child);
  }
  for (const pugi::xml_node tag : old) overlay.domain.child("metadata").remove_child(tag);
  if (overlay.options.host_id.empty()) {
    if (!old.empty()) RemoveWhenEmpty(metadata);
    return;
  }
  build::WriteOwnershipTag(overlay.domain, overlay.options.host_id, build::Persistence::kYes);
}

// Removes the path of the emulator if it does not exist on this machine: the definition may come from another machine.
void DropMissingEmulator(Overlay& overlay) {
  const pugi::xml_node emulator = overlay.devices.child("emulator");
  if (!emulator) return;
  const std::string path(parse::Trim(parse::TextOf(emulator)));
  struct stat info {};
  const bool usable = ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && ::access(path.c_str(), X_OK) == 0;
  if (!usable) overlay.devices.remove_child(emulator);
}

// Distributes the new memory over the NUMA cells in proportion to their sizes, because the cells determine the guest's
// memory. False when this is impossible.
bool SetNumaMemory(pugi::xml_node numa, std::uint64_t memory_mib) {
  std::vector<std::pair<pugi::xml_node, std::uint64_t>> cells;
  std::uint64_t total = 0;
  for (const pugi::xml_node cell : numa.children("cell")) {
    const auto number = parse::ParseUnsigned(cell.attribute("memory").value());
    const auto unit = parse::BytesPerUnit(cell.attribute("unit").value());
    std::uint64_t bytes = 0;
    if (!number || !unit || __builtin_mul_overflow(*number, *unit, &bytes)) return false;
    cells.emplace_back(cell, bytes / kMib);
    if (__builtin_add_overflow(total, bytes / kMib, &total)) return false;
  }
  if (total == 0 || memory_mib < cells.size()) return false;
  std::uint64_t rest = memory_mib;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const std::uint64_t cells_left = cells.size() - i - 1;
    const auto share = static_cast<std::uint64_t>(static_cast<double>(memory_mib) *
                                                  static_cast<double>(cells[i].second) / static_cast<double>(total));
    const std::uint64_t size = cells_left == 0 ? rest : std::clamp<std::uint64_t>(share, 1, rest - cells_left);
    Put(cells[i].first, "memory", std::to_string(size));
    Put(cells[i].first, "unit", "MiB");
    rest -= size;
  }
  return true;
}

void DropMemoryModules(Overlay& overlay) {
  for (pugi::xml_node module = overlay.devices.child("memory"); module;) {
    const pugi::xml_node next = module.next_sibling("memory");
    if (HasAttributeValue(module, "model", "dimm")) overlay.devices.remove_child(module);
    module = next;
  }
}

void PutFirmware(Overlay& overlay, pugi::xml_node os) {
  constexpr const char* kFirmware[] = {"loader", "nvram", "firmware"};
  os.remove_attribute("firmware");
  RemoveChildren(os, kFirmware);
  if (!build::FlagOf(overlay.guest(), "use_ovmf")) return;
  const pugi::xml_node built = overlay.built.child("os");
  Put(os, "firmware", "efi");
  os.append_copy(built.child("firmware"));
}

void PutNvram(pugi::xml_node os, const std::string& path) {
  // Stateless firmware has no variables.
  if (HasAttributeValue(os.child("loader"), "stateless", "yes")) return;
  const pugi::xml_node nvram = ChildOf(os, "nvram");
  if (parse::NvramPath(nvram) == path) return;
  constexpr const char* kSourceAttributes[] = {"type"};
  RemoveAttributes(nvram, kSourceAttributes);
  RemoveChildren(nvram, "source");
  PutText(nvram, path);
}

}  // namespace

Status ApplyIdentity(Overlay& overlay) {
  pugi::xml_node domain = overlay.domain;
  Put(domain, "type", overlay.options.domain_type);
  domain.remove_attribute("id");
  // Not IsUnchanged(): these two members are as old as the records, so a record without one means that the guest has
  // none.
  const auto is_same = [&](const char* member) {
    return SameValue(json::Member(overlay.base.guest, member), json::Member(overlay.guest(), member));
  };
  if (!is_same("name")) {
    PutText(ChildOf(domain, "name"), parse::TextOf(overlay.built.child("name")));
  }
  if (!is_same("desc")) {
    const pugi::xml_node built = overlay.built.child("description");
    if (built) PutText(ChildOf(domain, "description"), parse::TextOf(built));
    if (!built) RemoveChildren(domain, "description");
  }
  ReplaceOwnershipTag(overlay);
  DropMissingEmulator(overlay);
  return {};
}

Status ApplyMemory(Overlay& overlay) {
  if (IsUnchanged(overlay, "vram_size")) return {};
  const pugi::xml_node memory = ChildOf(overlay.domain, "memory");
  const std::string mib = parse::TextOf(overlay.built.child("memory"));
  PutText(memory, mib);
  Put(memory, "unit", "MiB");
  RemoveChildren(overlay.domain, "currentMemory");
  DropMemoryModules(overlay);

  const std::uint64_t size_mib = parse::ParseUnsigned(mib).value_or(0);
  const pugi::xml_node max_memory = overlay.domain.child("maxMemory");
  if (max_memory && parse::MemoryBytes(max_memory).value_or(0) < size_mib * kMib) {
    PutText(max_memory, mib);
    Put(max_memory, "unit", "MiB");
  }
  const pugi::xml_node numa = overlay.domain.child("cpu").child("numa");
  if (numa && !SetNumaMemory(numa, size_mib)) {
    overlay.domain.child("cpu").remove_child(numa);
    RemoveChildren(overlay.domain.child("numatune"), "memnode");
  }
  return {};
}

Status ApplyFirmware(Overlay& overlay) {
  const Result<std::string> nvram = build::NvramOf(overlay.guest());
  if (!nvram) return nvram.error();
  const pugi::xml_node os = ChildOf(overlay.domain, "os");
  if (IsFlagChanged(overlay, "use_ovmf")) PutFirmware(overlay, os);
  if (build::FlagOf(overlay.guest(), "use_ovmf") && !nvram->empty()) PutNvram(os, *nvram);
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
  constexpr const char* kKvmFeatures[] = {"hyperv", "kvm"};
  RemoveChildren(overlay.domain.child("features"), kKvmFeatures);
  pugi::xml_node clock = overlay.domain.child("clock");
  for (pugi::xml_node timer = clock.child("timer"); timer;) {
    const pugi::xml_node next = timer.next_sibling("timer");
    if (HasAttributeValue(timer, "name", "hypervclock") || HasAttributeValue(timer, "name", "kvmclock"))
      clock.remove_child(timer);
    timer = next;
  }
  return {};
}

}  // namespace vexa::domain_xml::overlay
