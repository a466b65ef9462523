// USB, video, keyboard, consoles and the agent's channel.
#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

#include "host/base/guest_settings.h"
#include "host/domain_xml/domain_build_internal.h"
#include "host/domain_xml/domain_xml.h"
#include "host/domain_xml/domain_xml_internal.h"
#include "json/readers.h"

namespace vexa::hypervisor::domain_build {
namespace {

using domain_xml::Quote;
using domain_xml::Refused;

constexpr Json::ArrayIndex kUsbPorts = 4;
constexpr std::int64_t kDefaultUsbVersion = 2;

struct UsbController {
  int version;  // value of "usb_version"
  const char* model;
  const char* start_port;  // of a companion controller, which serves slow devices at the ports of the first controller
};
constexpr UsbController kUsbControllers[] = {
    {0, "none", nullptr},   {1, "piix3-uhci", nullptr}, {2, "ich9-ehci1", nullptr}, {2, "ich9-uhci1", "0"},
    {2, "ich9-uhci2", "2"}, {2, "ich9-uhci3", "4"},     {3, "qemu-xhci", nullptr},
};

void WriteControllers(Context& context, std::int64_t version) {
  for (const UsbController& row : kUsbControllers) {
    if (row.version != version) continue;
    pugi::xml_node controller = Add(context.devices, "controller");
    Set(controller, "type", "usb");
    Set(controller, "index", "0");
    Set(controller, "model", row.model);
    if (row.start_port != nullptr) Set(Add(controller, "master"), "startport", row.start_port);
  }
}

std::string Hexadecimal(std::uint32_t number) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), "0x%04x", number & 0xFFFFu);
  return text.data();
}

// "1234:00ab" is a vendor and a product, "3.14" a bus and a device.
bool WriteHostDevice(Context& context, const std::string& name) {
  const std::size_t colon = name.find(':');
  const std::size_t dot = name.find('.');
  pugi::xml_node source;
  const auto add = [&] {
    pugi::xml_node device = Add(context.devices, "hostdev");
    Set(device, "mode", "subsystem");
    Set(device, "type", "usb");
    source = Add(device, "source");
  };
  if (colon != std::string::npos) {
    const auto vendor = domain_xml::ParseHex16(std::string_view(name).substr(0, colon));
    const auto product = domain_xml::ParseHex16(std::string_view(name).substr(colon + 1));
    if (!vendor || !product) return false;
    add();
    // A device that is not plugged in must not prevent the start.
    Set(source, "startupPolicy", "optional");
    Set(Add(source, "vendor"), "id", Hexadecimal(*vendor));
    Set(Add(source, "product"), "id", Hexadecimal(*product));
    return true;
  }
  if (dot == std::string::npos) return false;
  const auto bus = domain_xml::ParseUnsigned(std::string_view(name).substr(0, dot));
  const auto device = domain_xml::ParseUnsigned(std::string_view(name).substr(dot + 1));
  const auto in_range = [](const std::optional<std::uint64_t>& number) { return number && *number - 1 < 255; };
  if (!in_range(bus) || !in_range(device)) return false;
  add();
  Set(source, "startupPolicy", "optional");
  pugi::xml_node address = Add(source, "address");
  Set(address, "bus", std::to_string(*bus));
  Set(address, "device", std::to_string(*device));
  return true;
}

Status WriteHostDevices(Context& context, std::int64_t version) {
  const Json::Value& usbs = json::Member(context.guest(), "usbs");
  if (!usbs.isNull() && (!usbs.isArray() || usbs.size() > kUsbPorts)) {
    return Refused("The member 'usbs' of the guest is not a list of at most four devices");
  }
  if (context.options.usb_bus == UsbBus::kAbsent) return {};
  for (const Json::Value& entry : json::Elements(usbs)) {
    if (!entry.isString()) return Refused("An entry of 'usbs' of the guest is not a text");
    const std::string name = json::String(entry);
    if (name.empty() || name == "unmounted") continue;
    if (version == 0) return Refused("The guest has the USB device " + Quote(name) + " and no USB controller");
    if (!WriteHostDevice(context, name)) {
      return Refused("The USB device " + Quote(name) +
                     " is not a USB device. Use a vendor and a product ('1234:00ab') or a bus and a device ('3.14')");
    }
  }
  return {};
}

Status WriteScreen(Context& context) {
  const Result<std::string> card = TextOf(context.guest(), "video_card", "cirrus");
  if (!card) return card.error();
  if (std::find(kVideoCards.begin(), kVideoCards.end(), *card) == kVideoCards.end()) {
    return Refused("The video card " + Quote(*card) + " is not known: give cirrus, vga, vmvga, qxl or virtio");
  }
  const Result<std::string> layout = TextOf(context.guest(), "kb_layout", "Default");
  if (!layout) return layout.error();
  const bool own_layout = !layout->empty() && *layout != "Default";
  if (own_layout && !domain_xml::IsLayoutName(*layout)) {
    return Refused("The keyboard layout " + Quote(*layout) + " is not a keyboard layout. Use a name such as 'en-us'");
  }
  // On a socket, because with a port every user of the host could see the screen.
  pugi::xml_node graphics = Add(context.devices, "graphics");
  Set(graphics, "type", "vnc");
  if (own_layout) Set(graphics, "keymap", *layout);
  Set(Add(graphics, "listen"), "type", "socket");
  Set(Add(Add(context.devices, "video"), "model"), "type", *card);
  return {};
}

void WriteSerialConsole(Context& context) {
  pugi::xml_node serial = Add(context.devices, "serial");
  Set(serial, "type", "pty");
  Set(Add(serial, "target"), "port", "0");
  pugi::xml_node console = Add(context.devices, "console");
  Set(console, "type", "pty");
  pugi::xml_node target = Add(console, "target");
  Set(target, "type", "serial");
  Set(target, "port", "0");
}

void WriteAgentChannel(Context& context) {
  pugi::xml_node channel = Add(context.devices, "channel");
  Set(channel, "type", "unix");
  pugi::xml_node target = Add(channel, "target");
  Set(target, "type", "virtio");
  Set(target, "name", "org.qemu.guest_agent.0");
}

}  // namespace

Status WriteUsb(Context& context) {
  const Result<std::int64_t> version = NumberOf(context.guest(), GuestSettingOf("usb_version"), kDefaultUsbVersion);
  if (!version) return version.error();
  WriteControllers(context, *version);
  if (*version > 0) {
    // Without a tablet, the pointer of a remote screen and the guest's pointer drift apart.
    pugi::xml_node input = Add(context.devices, "input");
    Set(input, "type", "tablet");
    Set(input, "bus", "usb");
  }
  return WriteHostDevices(context, *version);
}

Status WriteConsole(Context& context) {
  if (Status screen = WriteScreen(context); !screen) return screen;
  WriteSerialConsole(context);
  WriteAgentChannel(context);
  return {};
}

}  // namespace vexa::hypervisor::domain_build
