// USB, video, keyboard, consoles and the agent's channel.
#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>

#include "host/base/guest_settings.h"
#include "host/domain_xml/domain_build_internal.h"
#include "json/readers.h"

namespace vexa::domain_xml::build {
namespace {

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

// Adds a <hostdev> for "1234:00ab" (a vendor and a product) or "3.14" (a bus and a device). False for any other name.
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
    const auto vendor = parse::ParseHex16(std::string_view(name).substr(0, colon));
    const auto product = parse::ParseHex16(std::string_view(name).substr(colon + 1));
    if (!vendor || !product) return false;
    add();
    // A device that is not plugged in must not prevent the start.
    Set(source, "startupPolicy", "optional");
    Set(Add(source, "vendor"), "id", Hexadecimal(*vendor));
    Set(Add(source, "product"), "id", Hexadecimal(*product));
    return true;
  }
  if (dot == std::string::npos) return false;
  const auto bus = parse::ParseUnsigned(std::string_view(name).substr(0, dot));
  const auto device = parse::ParseUnsigned(std::string_view(name).substr(dot + 1));
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
    return Invalid("The member 'usbs' of the guest is not a list of at most four devices");
  }
  if (context.options.usb_bus == UsbBus::kAbsent) return {};
  for (const Json::Value& entry : json::Elements(usbs)) {
    if (!entry.isString()) return Invalid("An entry of 'usbs' of the guest is not a string");
    const std::string name = json::String(entry);
    if (name.empty() || name == "unmounted") continue;
    if (version == 0) return Invalid("The guest has the USB device {} but no USB controller", Quote(name));
    if (!WriteHostDevice(context, name)) {
      return Invalid(
          "The USB device {} cannot be passed through. Use a vendor and a product ('1234:00ab') or a bus and a device "
          "('3.14')",
          Quote(name));
    }
  }
  return {};
}

Status WriteScreen(Context& context) {
  const Result<std::string> card = StringOf(context.guest(), "video_card", "cirrus");
  if (!card) return card.error();
  if (std::find(kVideoCards.begin(), kVideoCards.end(), *card) == kVideoCards.end()) {
    return Invalid("The video card {} is unknown. Use cirrus, vga, vmvga, qxl or virtio", Quote(*card));
  }
  const Result<std::string> layout = StringOf(context.guest(), "kb_layout", "Default");
  if (!layout) return layout.error();
  bool has_layout = !layout->empty() && *layout != "Default";
  if (has_layout && !parse::IsLayoutName(*layout)) {
    return Invalid("The member 'kb_layout' of the guest is {}. Use the name of a keyboard layout, such as 'en-us'",
                   Quote(*layout));
  }
  const auto& keymaps = context.options.keymaps;
  has_layout = has_layout && (!keymaps || keymaps->contains(*layout));
  // On a UNIX socket, because every user of the host could connect to a TCP port.
  pugi::xml_node graphics = Add(context.devices, "graphics");
  Set(graphics, "type", "vnc");
  if (has_layout) Set(graphics, "keymap", *layout);
  Set(Add(graphics, "listen"), "type", "socket");
  Set(Add(Add(context.devices, "video"), "model"), "type", *card);
  return {};
}

// libvirt gives the devices ports of their own as well, and takes these first: so there are as many more as devices.
void WritePorts(Context& context) {
  if (context.options.hot_plug.free_ports == 0 || context.legacy_machine || context.is_test()) return;
  constexpr std::size_t kOtherDevices = 5;  // USB, SCSI, serial channels, memory balloon, random numbers
  const std::size_t devices = context.records.disks.size() + context.records.nics.size() + kOtherDevices;
  for (std::size_t i = 0; i < devices + context.options.hot_plug.free_ports; ++i) {
    pugi::xml_node port = Add(context.devices, "controller");
    Set(port, "type", "pci");
    Set(port, "index", std::to_string(i + 1));  // 0 is the root
    Set(port, "model", "pcie-root-port");
  }
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
  WritePorts(context);
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

}  // namespace vexa::domain_xml::build
