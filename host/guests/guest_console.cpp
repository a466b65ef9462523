// The screens, keyboards and serial lines of this host's guests.
#include "host/guests/guest_control_impl.h"
#include "host/records/request_scope.h"

namespace vexa::guests {
namespace {

// Each takes up to 200 MiB of memory meanwhile.
constexpr int kMaxScreenshots = 2;

// One of the pictures that are being taken.
class ScreenshotPlace {
 public:
  explicit ScreenshotPlace(std::atomic<int>& taken) : taken_(taken), has_place_(taken.fetch_add(1) < kMaxScreenshots) {}
  ~ScreenshotPlace() { taken_.fetch_sub(1); }
  ScreenshotPlace(const ScreenshotPlace&) = delete;
  ScreenshotPlace& operator=(const ScreenshotPlace&) = delete;
  bool ok() const { return has_place_; }

 private:
  std::atomic<int>& taken_;
  const bool has_place_;
};

}  // namespace

// Not the console of a domain that only has the guest's id.
Result<void, Refusal> LibvirtGuestControl::CheckHasConsole(const std::string& guest_id) const {
  if (stopping_) return Refusal{host_error::kUnavailable, "This host is stopping"};
  if (const auto guest = ReadGuestNow(guest_id); !guest) return RefusalOf(guest.error());
  const auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return RefusalOf(stored.error());
  const bool runs_here = *stored && (*stored)->run.host_id == options_.host_id && !(*stored)->run.saved;
  if (!runs_here) return Refusal{host_error::kNotRunning, "The guest does not run on this host"};
  return {};
}

Result<Descriptor, Refusal> LibvirtGuestControl::OpenConsole(const std::string& guest_id, ConsoleType type) {
  const records::RequestPause without_reader;
  if (const auto allowed = CheckHasConsole(guest_id); !allowed.ok()) return allowed.error();
  auto opened = type == ConsoleType::kScreen ? hypervisor_->OpenScreen(guest_id) : hypervisor_->OpenSerial(guest_id);
  if (!opened) return RefusalOf(opened.error());
  return *std::move(opened);
}

Result<std::string, Refusal> LibvirtGuestControl::Screenshot(const std::string& guest_id) {
  const records::RequestPause without_reader;
  if (const auto allowed = CheckHasConsole(guest_id); !allowed.ok()) return allowed.error();
  const ScreenshotPlace place(screenshots_);
  if (!place.ok()) return Refusal{host_error::kBusy, "The host is taking other pictures. Try again"};
  auto png = hypervisor_->Screenshot(guest_id);
  if (!png) return RefusalOf(png.error());
  return *std::move(png);
}

Result<std::size_t, Refusal> LibvirtGuestControl::Type(const std::string& guest_id, const std::string& text) {
  const records::RequestPause without_reader;
  auto presses = KeyPressesOf(text);
  if (!presses) return Refusal{host_error::kBadParameter, presses.error().ToString()};
  if (const auto allowed = CheckHasConsole(guest_id); !allowed.ok()) return allowed.error();
  if (presses->size() > kTypedPerCall) presses->resize(kTypedPerCall);
  const auto pressed = hypervisor_->PressKeys(guest_id, *presses);
  if (!pressed) return RefusalOf(pressed.error());
  return *pressed;
}

}  // namespace vexa::guests
