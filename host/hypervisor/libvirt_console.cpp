// The screen, the keyboard and the serial line of running guests.
#include <fmt/format.h>

#include <array>
#include <chrono>
#include <optional>
#include <pugixml.hpp>
#include <string_view>
#include <thread>

#include "host/hypervisor/console_stream.h"
#include "host/hypervisor/daemon_line.h"
#include "host/hypervisor/libvirt_errors.h"
#include "host/hypervisor/libvirt_hypervisor.h"
#include "host/hypervisor/png_image.h"

namespace vexa::hypervisor {
namespace {

// How long a key is down, and then until the next one: QEMU queues presses and drops what its queue cannot take.
constexpr unsigned kHoldMs = 15;
constexpr std::chrono::milliseconds kPressInterval{40};

// The number of the guest's first VNC screen among its screens.
std::optional<unsigned> FindVncScreen(const char* xml) {
  pugi::xml_document document;
  if (!document.load_string(xml)) return std::nullopt;
  unsigned index = 0;
  for (const pugi::xml_node graphics : document.document_element().child("devices").children("graphics")) {
    if (std::string_view(graphics.attribute("type").value()) == "vnc") return index;
    ++index;
  }
  return std::nullopt;
}

// Larger than the PPM of the largest screen that is accepted.
constexpr std::size_t kMaxPictureBytes = kMaxScreenPixels * kMaxScreenPixels * 3 + 1024;

// Not set: the stream failed, or has more than kMaxPictureBytes; it is aborted.
std::optional<std::string> ReadStream(virStreamPtr stream) {
  std::string all;
  std::array<char, 64 * 1024> part;
  for (;;) {
    const int got = virStreamRecv(stream, part.data(), part.size());
    if (got == 0) break;
    if (got < 0 || all.size() + static_cast<std::size_t>(got) > kMaxPictureBytes) {
      virStreamAbort(stream);
      return std::nullopt;
    }
    all.append(part.data(), static_cast<std::size_t>(got));
  }
  if (virStreamFinish(stream) != 0) return std::nullopt;
  return all;
}

}  // namespace

Result<Descriptor, Failure> LibvirtHypervisor::OpenScreen(const std::string& id) {
  const std::string failed = fmt::format("Cannot open the screen of the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const Result<StringHandle, Failure> xml = RunningXml(*guest, failed);
  if (!xml) return xml.error();
  const auto screen = FindVncScreen(xml->get());
  if (!screen) return Failure(FailureKind::kUnsupported, failed, "It has no VNC screen");
  Descriptor socket(virDomainOpenGraphicsFD(guest->domain.get(), *screen, VIR_DOMAIN_OPEN_GRAPHICS_SKIPAUTH));
  if (socket.get() < 0) return GuestFailure(*guest, Operation::kRead, failed);
  return socket;
}

// While input of a guest waits in a daemon, the daemon may read nothing else from the connection. So each line has a
// connection of its own.
Result<LibvirtHypervisor::DomainOnConnection, Failure> LibvirtHypervisor::OnOwnConnection(
    const DomainOnConnection& guest, const std::string& message) const {
  std::array<char, VIR_UUID_STRING_BUFLEN> id{};
  if (virDomainGetUUIDString(guest.domain.get(), id.data()) != 0) return LastFailure(Operation::kRead, message);
  const std::shared_ptr<virConnect> own(ConnectHandle(virConnectOpen(target_.uri.c_str())));
  if (!own) return LastFailure(Operation::kOpen, message);
  DomainHandle domain(virDomainLookupByUUIDString(own.get(), id.data()));
  if (!domain) return LastFailure(Operation::kRead, message);
  return DomainOnConnection{own, std::move(domain)};
}

Result<Descriptor, Failure> LibvirtHypervisor::OpenSerial(const std::string& id) {
  const std::string failed = fmt::format("Cannot open the serial line of the guest {}", id);
  Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  const bool is_of_daemon = target_.kind == DriverKind::kUri && !IsEmbedded(target_.uri);
  if (guest && is_of_daemon) guest = OnOwnConnection(*guest, failed);
  if (!guest) return guest.error();
  StreamHandle stream(virStreamNew(guest->connection.get(), VIR_STREAM_NONBLOCK));
  if (!stream) return GuestFailure(*guest, Operation::kRead, failed);
  if (virDomainOpenConsole(guest->domain.get(), nullptr, stream.get(), VIR_DOMAIN_CONSOLE_SAFE) != 0) {
    const virErrorPtr error = virGetLastError();
    const bool is_taken = error != nullptr && error->code == VIR_ERR_OPERATION_FAILED;
    Failure failure = GuestFailure(*guest, Operation::kRead, failed);
    if (is_taken && failure.kind() == FailureKind::kFailed) {
      return Failure(FailureKind::kBusy, failed, "Somebody else uses it");
    }
    return failure;
  }
  guest->domain.reset();  // it keeps the connection open
  Result<Descriptor> socket = is_of_daemon ? SocketOfDaemonLine(std::move(guest->connection), std::move(stream))
                                           : SocketOfStream(std::move(stream));
  if (!socket) return Failure(FailureKind::kFailed, failed, socket.error().ToString());
  return *std::move(socket);
}

Result<std::string, Failure> LibvirtHypervisor::Screenshot(const std::string& id) {
  const std::string failed = fmt::format("Cannot take a picture of the screen of the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  const StreamHandle stream(virStreamNew(guest->connection.get(), 0));
  if (!stream) return GuestFailure(*guest, Operation::kRead, failed);
  const StringHandle type(virDomainScreenshot(guest->domain.get(), stream.get(), 0, 0));
  if (!type) return GuestFailure(*guest, Operation::kRead, failed);
  std::optional<std::string> picture = ReadStream(stream.get());
  if (!picture) return GuestFailure(*guest, Operation::kRead, failed);
  if (IsPng(*picture) && picture->size() <= kMaxPngBytes) return *std::move(picture);
  Result<std::string> png = PngOfPpm(*picture);
  if (!png) return Failure(FailureKind::kInvalid, failed, png.error().ToString());
  return *std::move(png);
}

Result<std::size_t, Failure> LibvirtHypervisor::PressKeys(const std::string& id, const std::vector<KeyPress>& presses) {
  const std::string failed = fmt::format("Cannot press keys of the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  std::size_t pressed = 0;
  for (KeyPress keys : presses) {
    if (virDomainSendKey(guest->domain.get(), VIR_KEYCODE_SET_LINUX, kHoldMs, keys.data(),
                         static_cast<int>(keys.size()), 0) != 0) {
      if (pressed > 0) return pressed;
      return GuestFailure(*guest, Operation::kRead, failed);
    }
    ++pressed;
    std::this_thread::sleep_for(kPressInterval);
  }
  return pressed;
}

}  // namespace vexa::hypervisor
