// Video card and keyboard layout.
#include "host/domain_xml/domain_overlay.h"

namespace vexa::domain_xml::overlay {
namespace {

// The video card that the records describe: the primary one, or the first if none is primary.
pugi::xml_node PrimaryCard(pugi::xml_node devices) {
  pugi::xml_node primary = devices.child("video");
  for (const pugi::xml_node card : devices.children("video")) {
    if (HasAttributeValue(card.child("model"), "primary", "yes")) primary = card;
  }
  return primary;
}

// Replaces the whole element, because its memory, monitors and address belong to the old model.
void ReplaceCard(Overlay& overlay) {
  const pugi::xml_node old = PrimaryCard(overlay.devices);
  const bool primary = HasAttributeValue(old.child("model"), "primary", "yes");
  const pugi::xml_node card = Replace(overlay.devices, old, overlay.built.child("devices").child("video"));
  if (primary) Put(card.child("model"), "primary", "yes");
}

bool CanHaveLayout(pugi::xml_node graphics) {
  return HasAttributeValue(graphics, "type", "vnc") || HasAttributeValue(graphics, "type", "spice");
}

// Sets the layout of the screen that already has one, otherwise of the first that can have one.
void PutLayout(pugi::xml_node devices, const std::string& layout) {
  for (pugi::xml_node graphics : devices.children("graphics")) {
    if (!graphics.attribute("keymap")) continue;
    Put(graphics, "keymap", layout);
    return;
  }
  for (pugi::xml_node graphics : devices.children("graphics")) {
    if (!CanHaveLayout(graphics)) continue;
    Put(graphics, "keymap", layout);
    return;
  }
}

void ApplyLayout(Overlay& overlay) {
  if (IsUnchanged(overlay, "kb_layout", "Default")) return;
  const std::string layout = overlay.built.child("devices").child("graphics").attribute("keymap").value();
  if (!layout.empty()) return PutLayout(overlay.devices, layout);
  for (pugi::xml_node graphics : overlay.devices.children("graphics")) graphics.remove_attribute("keymap");
}

// QEMU does not start with a layout that it does not have.
void RemoveUnknownLayouts(Overlay& overlay) {
  if (!overlay.options.keymaps) return;
  for (pugi::xml_node graphics : overlay.devices.children("graphics")) {
    if (!overlay.options.keymaps->contains(graphics.attribute("keymap").value())) graphics.remove_attribute("keymap");
  }
}

}  // namespace

Status ApplyScreen(Overlay& overlay) {
  if (!IsUnchanged(overlay, "video_card")) ReplaceCard(overlay);
  ApplyLayout(overlay);
  RemoveUnknownLayouts(overlay);
  return {};
}

}  // namespace vexa::domain_xml::overlay
