// Changes a running guest to what its records say, as far as that works while it runs. For host/guests/*.cpp only.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/domain_devices.h"
#include "host/domain_xml/domain_differences.h"
#include "host/hypervisor/hypervisor.h"

namespace vexa::guests {

// Memory modules of another size are of no use to Linux.
inline constexpr std::uint64_t kMemoryModuleMib = 128;

// Why the difference waits for the guest's next start: a clause. "": it can be tried now.
std::string ObstacleTo(const domain_xml::Difference& difference, const domain_xml::MachineLimits& limits);

// The differences in `after` that are not in `before`.
std::vector<domain_xml::Difference> NewDifferences(const std::vector<domain_xml::Difference>& before,
                                                   const std::vector<domain_xml::Difference>& after);

// The time that a guest has to give devices back: for all of them together, from the first on. Threads: one at a time.
class ReleaseTimer {
 public:
  ReleaseTimer(std::chrono::milliseconds time, std::function<bool()> is_stopping)
      : time_(time), is_stopping_(std::move(is_stopping)) {}

  // Waits until `is_there` returns false, and calls it at least once. Errors: its own; kBusy when the time is over or
  // the host stops.
  Status AwaitRelease(const std::function<Result<bool>()>& is_there);

 private:
  const std::chrono::milliseconds time_;
  const std::function<bool()> is_stopping_;
  std::optional<std::chrono::steady_clock::time_point> end_;
};

// Threads: one at a time.
class LiveChanges {
 public:
  struct Options {
    std::string guest_id;
    std::string running_xml;   // as libvirt shows it before the first change
    std::string recorded_xml;  // as the next start would define it
    hypervisor::Eject eject = hypervisor::Eject::kIfUnlocked;
    std::chrono::milliseconds release_wait{0};  // for a guest to give devices back, all together
    std::function<bool()> is_stopping;
    std::function<void(std::string_view step)> before_step;
  };
  LiveChanges(hypervisor::Hypervisor& hypervisor, Options options)
      : hypervisor_(hypervisor),
        options_(std::move(options)),
        release_timer_(options_.release_wait, options_.is_stopping) {}

  // Makes the running guest as recorded in this respect. When it fails, the guest has what it had, except for an
  // interface that could neither be replaced nor be given back. Errors: those of the hypervisor; kBusy when the guest
  // does not give a device back in time.
  Status Apply(const domain_xml::Difference& difference);

 private:
  Status ApplySetting(const domain_xml::Difference& difference);
  Status ApplyDisk(const domain_xml::Difference& difference);
  Status ApplyNic(const domain_xml::Difference& difference);
  Status ApplyDrives(const domain_xml::Difference& difference);
  Status ApplyUsb(const domain_xml::Difference& difference);
  Status Attach(const std::string& element);
  // Waits until `find` no longer finds the device in the XML of the running guest.
  Status Detach(const std::string& element, const std::function<bool(const std::string& xml)>& find);

  hypervisor::Hypervisor& hypervisor_;
  const Options options_;
  ReleaseTimer release_timer_;
};

}  // namespace vexa::guests
