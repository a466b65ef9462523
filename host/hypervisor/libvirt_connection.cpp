#include "host/hypervisor/libvirt_connection.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>
#include <optional>

#include "host/base/run_logging_exceptions.h"
#include "host/hypervisor/driver_uri.h"
#include "host/hypervisor/libvirt_errors.h"

namespace vexa::hypervisor {
namespace {

// The LibvirtConnection objects that exist, by number. libvirt's callbacks carry the number instead of a pointer, so a
// late callback whose object has been destroyed finds nothing.
class ConnectionRegistry {
 public:
  std::uintptr_t Add(LibvirtConnection& connection) {
    const MutexLock lock(mutex_);
    connections_[++last_] = &connection;
    return last_;
  }
  void Remove(std::uintptr_t id) {
    const MutexLock lock(mutex_);
    connections_.erase(id);
  }
  template <class Action>
  void With(const void* opaque, Action action) {
    const MutexLock lock(mutex_);
    const auto found = connections_.find(reinterpret_cast<std::uintptr_t>(opaque));
    if (found != connections_.end()) action(*found->second);
  }

 private:
  Mutex mutex_;
  std::uintptr_t last_ VEXA_GUARDED_BY(mutex_) = 0;
  std::map<std::uintptr_t, LibvirtConnection*> connections_ VEXA_GUARDED_BY(mutex_);
};

// Never destroyed: the event loop runs until the process ends.
ConnectionRegistry& LiveConnections() {
  static ConnectionRegistry& registry = *new ConnectionRegistry;
  return registry;
}

// With each connection, the embedded driver registers itself again in a libvirt table with few entries. A process
// therefore has one connection to it, which is never closed and cannot be lost.
std::shared_ptr<virConnect> OpenEmbedded(const std::string& uri) {
  static Mutex mutex;
  static auto& opened = *new std::map<std::string, std::shared_ptr<virConnect>>;
  const MutexLock lock(mutex);
  const auto found = opened.find(uri);
  if (found != opened.end()) return found->second;
  ConnectHandle connection(virConnectOpen(uri.c_str()));
  if (!connection) return nullptr;
  return opened.emplace(uri, std::move(connection)).first->second;
}

std::shared_ptr<virConnect> Connect(const std::string& uri) {
  return IsEmbedded(uri) ? OpenEmbedded(uri) : std::shared_ptr<virConnect>(ConnectHandle(virConnectOpen(uri.c_str())));
}

enum class Activity { kOff, kActive };

std::optional<GuestState> StateAfter(int event, int detail, Activity activity) {
  switch (event) {
    case VIR_DOMAIN_EVENT_DEFINED:
      // An update changes the guest's configuration, not whether it runs; and another program may define a guest that
      // runs.
      if (detail == VIR_DOMAIN_EVENT_DEFINED_ADDED && activity == Activity::kOff) return GuestState::kOff;
      return std::nullopt;
    case VIR_DOMAIN_EVENT_UNDEFINED:
      // A guest that another program undefines while it runs keeps running until it stops.
      if (activity == Activity::kActive) return std::nullopt;
      return GuestState::kGone;
    case VIR_DOMAIN_EVENT_STARTED:
    case VIR_DOMAIN_EVENT_RESUMED:
      return GuestState::kRunning;
    case VIR_DOMAIN_EVENT_SUSPENDED:
    case VIR_DOMAIN_EVENT_PMSUSPENDED:
      return GuestState::kPaused;
    case VIR_DOMAIN_EVENT_STOPPED:
      if (detail == VIR_DOMAIN_EVENT_STOPPED_SAVED) return GuestState::kSaved;
      return detail == VIR_DOMAIN_EVENT_STOPPED_CRASHED || detail == VIR_DOMAIN_EVENT_STOPPED_FAILED
                 ? GuestState::kCrashed
                 : GuestState::kOff;
    case VIR_DOMAIN_EVENT_SHUTDOWN:
      return GuestState::kShuttingDown;
    case VIR_DOMAIN_EVENT_CRASHED:
      return GuestState::kCrashed;
    default:
      return std::nullopt;
  }
}

int OnLifecycle(virConnectPtr, virDomainPtr domain, int event, int detail, void* opaque) {
  // libvirt sets the id when it creates the event; no query to the driver is needed.
  const bool active = virDomainGetID(domain) != static_cast<unsigned>(-1);
  const std::optional<GuestState> state = StateAfter(event, detail, active ? Activity::kActive : Activity::kOff);
  std::array<char, VIR_UUID_STRING_BUFLEN> id{};
  if (state && virDomainGetUUIDString(domain, id.data()) == 0) {
    LiveConnections().With(opaque, [&](LibvirtConnection& connection) { connection.Push({id.data(), *state}); });
  }
  return 0;
}

void OnClose(virConnectPtr, int, void* opaque) {
  LiveConnections().With(opaque, [](LibvirtConnection& connection) { connection.MarkLost(); });
}

}  // namespace

// One libvirt connection with its callbacks, from its opening to its end.
class LibvirtConnection::OpenConnection {
 public:
  static Result<std::unique_ptr<OpenConnection>, Failure> Open(LibvirtConnection& owner) {
    const std::string& uri = owner.options_.uri;
    const std::string failed = fmt::format("Cannot connect to libvirt at '{}'", uri);
    std::shared_ptr<virConnect> connection = Connect(uri);
    if (!connection) return LastFailure(Operation::kOpen, failed);
    std::unique_ptr<OpenConnection> opened(new OpenConnection(owner, std::move(connection)));
    if (!opened->Register()) return LastFailure(Operation::kOpen, failed);
    return opened;
  }

  ~OpenConnection() {
    LiveConnections().Remove(id_);
    if (callback_ >= 0) virConnectDomainEventDeregisterAny(connection_.get(), callback_);
    if (!IsEmbedded(owner_.options_.uri)) virConnectUnregisterCloseCallback(connection_.get(), OnClose);
  }

  const std::shared_ptr<virConnect>& connection() const { return connection_; }

 private:
  OpenConnection(LibvirtConnection& owner, std::shared_ptr<virConnect> connection)
      : owner_(owner), id_(LiveConnections().Add(owner)), connection_(std::move(connection)) {}

  bool Register() {
    constexpr int kKeepaliveIntervalS = 5;
    constexpr unsigned kMaxMissedKeepalives = 5;
    // Fails for in-process drivers, which have no peer that could stop responding.
    virConnectSetKeepAlive(connection_.get(), kKeepaliveIntervalS, kMaxMissedKeepalives);
    void* const opaque = reinterpret_cast<void*>(id_);
    // A connection can have only one close callback, and several of our objects may share an embedded connection.
    if (!IsEmbedded(owner_.options_.uri)) {
      if (virConnectRegisterCloseCallback(connection_.get(), OnClose, opaque, nullptr) != 0) return false;
    }
    callback_ = virConnectDomainEventRegisterAny(connection_.get(), nullptr, VIR_DOMAIN_EVENT_ID_LIFECYCLE,
                                                 VIR_DOMAIN_EVENT_CALLBACK(OnLifecycle), opaque, nullptr);
    return callback_ >= 0;
  }

  const LibvirtConnection& owner_;
  const std::uintptr_t id_;
  const std::shared_ptr<virConnect> connection_;
  int callback_ = -1;
};

LibvirtConnection::LibvirtConnection(LibvirtConnectionOptions options) : options_(std::move(options)) {}

Result<std::unique_ptr<LibvirtConnection>, Failure> LibvirtConnection::Open(LibvirtConnectionOptions options) {
  std::unique_ptr<LibvirtConnection> connection(new LibvirtConnection(std::move(options)));
  Result<std::unique_ptr<OpenConnection>, Failure> opened = OpenConnection::Open(*connection);
  if (opened) {
    connection->Adopt(std::move(*opened));
  } else if (connection->options_.if_unreachable == IfUnreachable::kFail ||
             opened.error().kind() != FailureKind::kDisconnected) {
    return opened.error();
  }
  connection->thread_ = std::thread([raw = connection.get()] { raw->Run(); });
  return connection;
}

LibvirtConnection::~LibvirtConnection() {
  {
    const MutexLock lock(mutex_);
    stopping_ = true;
    woken_.NotifyAll();
  }
  if (thread_.joinable()) thread_.join();
  open_connection_.reset();
}

std::shared_ptr<virConnect> LibvirtConnection::Current() const {
  const MutexLock lock(mutex_);
  return current_;
}

void LibvirtConnection::MarkLost() {
  const MutexLock lock(mutex_);
  current_.reset();
  woken_.NotifyAll();
}

void LibvirtConnection::Push(GuestEvent event) {
  const MutexLock lock(mutex_);
  // For one start, QEMU's driver reports both that the guest was started and that it was resumed.
  const auto [known, added] = last_reported_.emplace(event.id, event.state);
  if (!added && known->second == event.state) return;
  known->second = event.state;
  if (event.state == GuestState::kGone) last_reported_.erase(known);
  events_.push_back(std::move(event));
  woken_.NotifyAll();
}

void LibvirtConnection::Adopt(std::unique_ptr<OpenConnection> opened) {
  const MutexLock lock(mutex_);
  open_connection_ = std::move(opened);
  current_ = open_connection_->connection();
  last_reported_.clear();
}

void LibvirtConnection::Run() {
  const MutexLock lock(mutex_);
  while (!stopping_) {
    DeliverEvents();
    if (stopping_) return;
    if (!current_) {
      Reopen();
    } else {
      while (!stopping_ && events_.empty() && current_) woken_.Wait(mutex_);
    }
  }
}

void LibvirtConnection::DeliverEvents() {
  while (!stopping_ && !events_.empty()) {
    const GuestEvent event = std::move(events_.front());
    events_.pop_front();
    const MutexUnlock unlocked(mutex_);
    RunLoggingExceptions("The handler of a guest's event", [&] {
      if (options_.on_event) options_.on_event(event);
    });
  }
}

void LibvirtConnection::Reopen() {
  {
    std::unique_ptr<OpenConnection> old = std::move(open_connection_);
    const MutexUnlock unlocked(mutex_);
    old.reset();
  }
  // The owner gets all events of the old connection before on_reopened.
  DeliverEvents();
  std::chrono::milliseconds wait = options_.initial_retry_wait;
  for (;;) {
    const auto retry = std::chrono::steady_clock::now() + wait;
    while (!stopping_ && woken_.WaitUntil(mutex_, retry)) {
    }
    if (stopping_) return;
    const MutexUnlock unlocked(mutex_);
    Result<std::unique_ptr<OpenConnection>, Failure> opened = OpenConnection::Open(*this);
    if (opened) Adopt(std::move(*opened));
    RunLoggingExceptions("The handler of a reopened libvirt connection", [&] {
      if (opened && options_.on_reopened) options_.on_reopened();
    });
    if (opened) return;
    wait = std::min(wait * 2, options_.max_retry_wait);
  }
}

}  // namespace vexa::hypervisor
