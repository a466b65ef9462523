// The transport of this process.
#include <utility>

#include "host/base/mutex.h"
#include "host/transport/transport.h"

namespace vexa::transport {
namespace {

// Never destroyed: threads may still use it while the process ends.
struct Holder {
  Mutex mutex;
  std::shared_ptr<Transport> transport VEXA_GUARDED_BY(mutex);
};

Holder& Current() {
  static auto* const holder = new Holder;
  return *holder;
}

// Ends the transport's thread before the libraries that it uses are torn down.
struct AtExit {
  ~AtExit() { RemoveTransport(); }
};

std::shared_ptr<Transport> Exchange(std::shared_ptr<Transport> transport) {
  Holder& holder = Current();
  const MutexLock lock(holder.mutex);
  return std::exchange(holder.transport, std::move(transport));
}

}  // namespace

void InstallTransport(std::shared_ptr<Transport> transport) {
  static const AtExit at_exit;
  // The old one is destroyed without the lock, because that ends a thread.
  const std::shared_ptr<Transport> old = Exchange(std::move(transport));
}

void RemoveTransport() { const std::shared_ptr<Transport> old = Exchange(nullptr); }

std::shared_ptr<Transport> CurrentTransport() {
  Holder& holder = Current();
  const MutexLock lock(holder.mutex);
  return holder.transport;
}

}  // namespace vexa::transport
