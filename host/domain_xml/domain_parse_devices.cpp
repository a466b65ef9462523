// Video card, keyboard layout, USB controllers and USB devices.
#include <algorithm>
#include <array>
#include <cstdio>

#include "host/base/guest_settings.h"
#include "host/base/rows.h"
#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::parse {
namespace {

constexpr std::size_t kUsbPorts = 4;
constexpr int kDefaultUsbVersion = 2;
constexpr std::uint64_t kMaxUsbNumber = 255;

struct UsbController {
  std::string_view model;
  int version;
};
constexpr UsbController kUsbControllers[] = {
    {"none", 0},     {"piix3-uhci", 1},     {"piix4-uhci", 1}, {"ich9-uhci1", 1}, {"ich9-uhci2", 1}, {"ich9-uhci3", 1},
    {"pci-ohci", 1}, {"vt82c686b-uhci", 1}, {"ehci", 2},       {"ich9-ehci1", 2}, {"nec-xhci", 3},   {"qemu-xhci", 3},
};

void ReadKeyboard(pugi::xml_node devices, Context& context) {
  Json::Value& layout = context.guest()["kb_layout"] = "Default";
  for (const pugi::xml_node graphics : devices.children("graphics")) {
    const pugi::xml_attribute keymap = graphics.attribute("keymap");
    if (!keymap) continue;
    if (IsLayoutName(keymap.value())) {
      layout = keymap.value();
    } else {
      context.Note("The keyboard layout {} was not recorded because its name is not valid.", Quote(keymap.value()));
    }
    return;
  }
}

// The value of "usb_version": the highest version of the controllers, because an EHCI controller has UHCI companions.
int UsbVersion(pugi::xml_node devices, Context& context) {
  std::optional<int> version;
  for (const pugi::xml_node controller : devices.children("controller")) {
    if (std::string_view(controller.attribute("type").value()) != "usb") continue;
    const std::string_view model = controller.attribute("model").value();
    const UsbController* const row = FindRow(kUsbControllers, &UsbController::model, model);
    int found = kDefaultUsbVersion;
    if (row != nullptr) {
      found = row->version;
    } else if (!model.empty()) {
      context.Note("The USB controller model {} is unknown: USB 2 was recorded.", Quote(model));
    }
    version = std::max(version.value_or(0), found);
  }
  return version.value_or(kDefaultUsbVersion);
}

Result<std::string> UsbDeviceName(pugi::xml_node source) {
  const std::string_view vendor_text = source.child("vendor").attribute("id").value();
  const std::string_view product_text = source.child("product").attribute("id").value();
  if (!vendor_text.empty() || !product_text.empty()) {
    const auto vendor = ParseHex16(vendor_text);
    const auto product = ParseHex16(product_text);
    if (!vendor || !product) {
      return Invalid(
          "<hostdev> of type 'usb' names the vendor {} and the product {}: both are hexadecimal numbers of up to four "
          "digits",
          Quote(vendor_text), Quote(product_text));
    }
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04x:%04x", *vendor, *product);
    return std::string(text.data());
  }
  const pugi::xml_node address = source.child("address");
  const auto bus = ParseUnsigned(address.attribute("bus").value());
  const auto device = ParseUnsigned(address.attribute("device").value());
  const auto in_range = [](const std::optional<std::uint64_t>& number) {
    return number && *number - 1 < kMaxUsbNumber;
  };
  if (!in_range(bus) || !in_range(device)) {
    return Invalid(
        "<hostdev> of type 'usb' does not name a device. Use <vendor> and <product>, or <address> with a bus and a "
        "device");
  }
  return std::to_string(*bus) + "." + std::to_string(*device);
}

Status ReadUsbDevices(pugi::xml_node devices, Context& context) {
  std::vector<std::string> names;
  for (const pugi::xml_node device : devices.children("hostdev")) {
    if (std::string_view(device.attribute("type").value()) != "usb") continue;
    if (names.size() == kUsbPorts) {
      return Invalid("The guest has more than four USB devices of the host: remove a <hostdev> of type 'usb'");
    }
    Result<std::string> name = UsbDeviceName(device.child("source"));
    if (!name) return name.error();
    names.push_back(*name);
  }
  names.resize(kUsbPorts, "unmounted");
  Json::Value& usbs = context.guest()["usbs"] = Json::Value(Json::arrayValue);
  for (const std::string& name : names) usbs.append(name);
  return {};
}

}  // namespace

Status ReadVideo(pugi::xml_node devices, Context& context) {
  ReadKeyboard(devices, context);
  pugi::xml_node video = devices.child("video");
  std::size_t count = 0;
  for (const pugi::xml_node card : devices.children("video")) {
    ++count;
    if (std::string_view(card.child("model").attribute("primary").value()) == "yes") video = card;
  }
  if (count > 1) {
    context.Note("The guest has {} video cards: only the primary one was recorded.", count);
  }
  const std::string_view model = video.child("model").attribute("type").value();
  if (std::find(kVideoCards.begin(), kVideoCards.end(), model) != kVideoCards.end()) {
    context.guest()["video_card"] = std::string(model);
  } else if (model.empty()) {
    context.Note("The guest has no video card, and gets one when 'video_card' is set.");
  } else {
    context.Note("The video card {} is unknown: it stays until 'video_card' is set.", Quote(model));
  }
  return {};
}

Status ReadUsb(pugi::xml_node devices, Context& context) {
  context.guest()["usb_version"] = UsbVersion(devices, context);
  return ReadUsbDevices(devices, context);
}

}  // namespace vexa::domain_xml::parse
