// A connection to libvirt that is opened again whenever it is lost, and its events. For host/hypervisor/*.cpp only.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "host/hypervisor/handles.h"
#include "host/hypervisor/hypervisor.h"

namespace vexa::hypervisor {

struct LinkOptions {
  std::string uri;
  std::function<void(const GuestEvent&)> on_event;
  std::function<void()> on_reopened;
  std::chrono::milliseconds first_retry{};
  std::chrono::milliseconds last_retry{};
  OpenLater open_later = OpenLater::kNever;
};

// Threads: any, at the same time. The callbacks run on the link's own thread, one at a time.
class Link {
 public:
  // The event loop must run. Failures: what libvirt says, but for kDisconnected when it may be opened later.
  static Outcome<std::unique_ptr<Link>> Open(LinkOptions options);
  ~Link();

  // Empty while the connection is lost. Who holds one can go on with it, to failures at worst.
  std::shared_ptr<virConnect> Current() const;
  bool IsConnected() const { return Current() != nullptr; }

  // The connection is of no use any more.
  void Lose();

  // How many events have come, and a wait for more than `seen` of them until `deadline`.
  std::uint64_t EventCount() const;
  void WaitForEvent(std::uint64_t seen, std::chrono::steady_clock::time_point deadline) const;

  // For libvirt's callbacks, on its event loop.
  void Push(GuestEvent event);

 private:
  class Attachment;

  explicit Link(LinkOptions options);
  void Run();
  void DeliverEvents(std::unique_lock<std::mutex>& lock);
  void Reopen(std::unique_lock<std::mutex>& lock);
  void Adopt(std::unique_ptr<Attachment> attachment);

  const LinkOptions options_;
  mutable std::mutex mutex_;
  mutable std::condition_variable woken_;
  std::deque<GuestEvent> events_;
  std::map<std::string, GuestState> told_;  // of each guest the last event, on this connection
  std::uint64_t event_count_ = 0;
  std::shared_ptr<virConnect> current_;
  bool stopping_ = false;
  std::unique_ptr<Attachment> attachment_;  // of the thread, once it runs
  std::thread thread_;
};

}  // namespace vexa::hypervisor
