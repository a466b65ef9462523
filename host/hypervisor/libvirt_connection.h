// A libvirt connection that is reopened whenever it is lost, and its events. For host/hypervisor/*.cpp only.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "host/base/mutex.h"
#include "host/hypervisor/handles.h"
#include "host/hypervisor/hypervisor.h"

namespace vexa::hypervisor {

struct LibvirtConnectionOptions {
  std::string uri;
  std::function<void(const GuestEvent&)> on_event;
  std::function<void()> on_reopened;
  std::chrono::milliseconds initial_retry_wait{};
  std::chrono::milliseconds max_retry_wait{};
  IfUnreachable if_unreachable = IfUnreachable::kFail;
};

// Threads: any, at the same time. The callbacks run on the object's own thread, one at a time.
class LibvirtConnection {
 public:
  // The event loop must be running. Failures: those of libvirt, except kDisconnected when it may be opened later.
  static Result<std::unique_ptr<LibvirtConnection>, Failure> Open(LibvirtConnectionOptions options);
  ~LibvirtConnection();

  // Null while the connection is lost. A caller may keep using a connection that was lost meanwhile; its calls then
  // fail.
  std::shared_ptr<virConnect> Current() const;
  bool IsConnected() const { return Current() != nullptr; }

  // Drops the connection, which is then reopened.
  void MarkLost();

  // Queues an event for delivery. Called by libvirt's callbacks on the event loop.
  void Push(GuestEvent event);

 private:
  class OpenConnection;

  explicit LibvirtConnection(LibvirtConnectionOptions options);
  void Run();
  void DeliverEvents() VEXA_REQUIRES(mutex_);
  void Reopen() VEXA_REQUIRES(mutex_);
  void Adopt(std::unique_ptr<OpenConnection> opened);

  const LibvirtConnectionOptions options_;
  mutable Mutex mutex_;
  ConditionVariable woken_;
  std::deque<GuestEvent> events_ VEXA_GUARDED_BY(mutex_);
  // The state in the last event of each guest on this connection, by UUID.
  std::map<std::string, GuestState> last_reported_ VEXA_GUARDED_BY(mutex_);
  std::shared_ptr<virConnect> current_ VEXA_GUARDED_BY(mutex_);
  bool stopping_ VEXA_GUARDED_BY(mutex_) = false;
  std::unique_ptr<OpenConnection> open_connection_;  // owned by the thread once it runs
  std::thread thread_;
};

}  // namespace vexa::hypervisor
