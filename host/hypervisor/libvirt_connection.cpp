#include "host/hypervisor/libvirt_connection.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>

#include "host/base/guarded.h"
#include "host/hypervisor/libvirt_errors.h"

namespace vexa::hypervisor {
namespace {

// libvirt's callbacks carry a number instead of a pointer, so a late callback whose link is gone finds nothing.
class Registry {
 public:
  std::uintptr_t Add(Link& link) {
    const std::lock_guard lock(mutex_);
    links_[++last_] = &link;
    return last_;
  }
  void Remove(std::uintptr_t id) {
    const std::lock_guard lock(mutex_);
    links_.erase(id);
  }
  template <class Action>
  void With(const void* opaque, Action action) {
    const std::lock_guard lock(mutex_);
    const auto found = links_.find(reinterpret_cast<std::uintptr_t>(opaque));
    if (found != links_.end()) action(*found->second);
  }

 private:
  std::mutex mutex_;
  std::uintptr_t last_ = 0;
  std::map<std::uintptr_t, Link*> links_;
};

// Never destroyed: the event loop runs until the process ends.
Registry& Links() {
  static Registry& registry = *new Registry;
  return registry;
}

bool IsEmbedded(const std::string& uri) { return uri.find(":///embed?") != std::string::npos; }

// With each connection, the embedded driver registers itself again in a libvirt table with few entries. So a process
// has one connection to it, which is never closed: it cannot be lost.
std::shared_ptr<virConnect> OpenEmbedded(const std::string& uri) {
  static std::mutex mutex;
  static auto& opened = *new std::map<std::string, std::shared_ptr<virConnect>>;
  const std::lock_guard lock(mutex);
  const auto found = opened.find(uri);
  if (found != opened.end()) return found->second;
  ConnectHandle connection(virConnectOpen(uri.c_str()));
  if (!connection) return nullptr;
  return opened.emplace(uri, std::move(connection)).first->second;
}

std::shared_ptr<virConnect> OpenConnection(const std::string& uri) {
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
  // Taken from the event itself, not from a query to the driver.
  const bool active = virDomainGetID(domain) != static_cast<unsigned>(-1);
  const std::optional<GuestState> state = StateAfter(event, detail, active ? Activity::kActive : Activity::kOff);
  std::array<char, VIR_UUID_STRING_BUFLEN> id{};
  if (state && virDomainGetUUIDString(domain, id.data()) == 0) {
    Links().With(opaque, [&](Link& link) { link.Push({id.data(), *state}); });
  }
  return 0;
}

void OnClose(virConnectPtr, int, void* opaque) {
  Links().With(opaque, [](Link& link) { link.Lose(); });
}

}  // namespace

// One connection, from its opening to its end.
class Link::Attachment {
 public:
  static Outcome<std::unique_ptr<Attachment>> Open(Link& link) {
    const std::string& uri = link.options_.uri;
    const std::string failed = "Cannot connect to libvirt at '" + uri + "'";
    std::shared_ptr<virConnect> opened = OpenConnection(uri);
    if (!opened) return LastFailure(Operation::kOpen, failed);
    std::unique_ptr<Attachment> attachment(new Attachment(link, std::move(opened)));
    if (!attachment->Register()) return LastFailure(Operation::kOpen, failed);
    return attachment;
  }

  ~Attachment() {
    Links().Remove(id_);
    if (callback_ >= 0) virConnectDomainEventDeregisterAny(connection_.get(), callback_);
    if (!IsEmbedded(link_.options_.uri)) virConnectUnregisterCloseCallback(connection_.get(), OnClose);
  }

  const std::shared_ptr<virConnect>& connection() const { return connection_; }

 private:
  Attachment(Link& link, std::shared_ptr<virConnect> opened)
      : link_(link), id_(Links().Add(link)), connection_(std::move(opened)) {}

  bool Register() {
    constexpr int kInterval_s = 5;
    constexpr unsigned kMissing = 5;
    // In-process drivers have no peer that could go silent, and report so.
    virConnectSetKeepAlive(connection_.get(), kInterval_s, kMissing);
    void* const opaque = reinterpret_cast<void*>(id_);
    // A connection has room for one such callback, and several links may share an embedded one.
    if (!IsEmbedded(link_.options_.uri)) {
      if (virConnectRegisterCloseCallback(connection_.get(), OnClose, opaque, nullptr) != 0) return false;
    }
    callback_ = virConnectDomainEventRegisterAny(connection_.get(), nullptr, VIR_DOMAIN_EVENT_ID_LIFECYCLE,
                                                 VIR_DOMAIN_EVENT_CALLBACK(OnLifecycle), opaque, nullptr);
    return callback_ >= 0;
  }

  const Link& link_;
  const std::uintptr_t id_;
  const std::shared_ptr<virConnect> connection_;
  int callback_ = -1;
};

Link::Link(LinkOptions options) : options_(std::move(options)) {}

Outcome<std::unique_ptr<Link>> Link::Open(LinkOptions options) {
  std::unique_ptr<Link> link(new Link(std::move(options)));
  Outcome<std::unique_ptr<Attachment>> attachment = Attachment::Open(*link);
  if (attachment) {
    link->Adopt(std::move(*attachment));
  } else if (link->options_.open_later == OpenLater::kNever ||
             attachment.failure().problem() != Problem::kDisconnected) {
    return attachment.failure();
  }
  link->thread_ = std::thread([raw = link.get()] { raw->Run(); });
  return link;
}

Link::~Link() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
    woken_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
  attachment_.reset();
}

std::shared_ptr<virConnect> Link::Current() const {
  const std::lock_guard lock(mutex_);
  return current_;
}

void Link::Lose() {
  const std::lock_guard lock(mutex_);
  current_.reset();
  woken_.notify_all();
}

void Link::Push(GuestEvent event) {
  const std::lock_guard lock(mutex_);
  // For one start, QEMU's driver reports both that the guest was started and that it was resumed.
  const auto [known, added] = told_.emplace(event.id, event.state);
  if (!added && known->second == event.state) return;
  known->second = event.state;
  if (event.state == GuestState::kGone) told_.erase(known);
  events_.push_back(std::move(event));
  woken_.notify_all();
}

void Link::Adopt(std::unique_ptr<Attachment> attachment) {
  const std::lock_guard lock(mutex_);
  attachment_ = std::move(attachment);
  current_ = attachment_->connection();
  told_.clear();
}

void Link::Run() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    DeliverEvents(lock);
    if (stopping_) return;
    if (!current_) {
      Reopen(lock);
    } else {
      woken_.wait(lock, [this] { return stopping_ || !events_.empty() || !current_; });
    }
  }
}

void Link::DeliverEvents(std::unique_lock<std::mutex>& lock) {
  while (!stopping_ && !events_.empty()) {
    const GuestEvent event = std::move(events_.front());
    events_.pop_front();
    lock.unlock();
    Guarded("The answer to an event of the hypervisor", [&] {
      if (options_.on_event) options_.on_event(event);
    });
    lock.lock();
  }
}

void Link::Reopen(std::unique_lock<std::mutex>& lock) {
  std::unique_ptr<Attachment> old = std::move(attachment_);
  lock.unlock();
  old.reset();
  lock.lock();
  // Events of the old connection are delivered before the notice of the new one.
  DeliverEvents(lock);
  std::chrono::milliseconds wait = options_.first_retry;
  while (!woken_.wait_for(lock, wait, [this] { return stopping_; })) {
    lock.unlock();
    Outcome<std::unique_ptr<Attachment>> attachment = Attachment::Open(*this);
    if (attachment) Adopt(std::move(*attachment));
    Guarded("The answer to a new connection to libvirt", [&] {
      if (attachment && options_.on_reopened) options_.on_reopened();
    });
    lock.lock();
    if (attachment) return;
    wait = std::min(wait * 2, options_.last_retry);
  }
}

}  // namespace vexa::hypervisor
