// A libvirt connection that is reopened whenever it is lost, and its events. For host/hypervisor/*.cpp only.
#pragma once

#include <chrono>
#include <condition_variable>
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
  // The event loop must be running. Failures: those of libvirt, except kDisconnected when it may be opened later.
  static Outcome<std::unique_ptr<Link>> Open(LinkOptions options);
  ~Link();

  // Empty while the connection is lost. A caller that holds one may continue to use it; at worst its calls fail.
  std::shared_ptr<virConnect> Current() const;
  bool IsConnected() const { return Current() != nullptr; }

  // Marks the connection as unusable.
  void Lose();

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
  std::condition_variable woken_;
  std::deque<GuestEvent> events_;
  std::map<std::string, GuestState> told_;  // the last event of each guest on this connection
  std::shared_ptr<virConnect> current_;
  bool stopping_ = false;
  std::unique_ptr<Attachment> attachment_;  // owned by the thread once it runs
  std::thread thread_;
};

}  // namespace vexa::hypervisor
