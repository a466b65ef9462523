#include "host/guests/guest_control.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/base/guarded.h"
#include "host/guests/guest_control_impl.h"
#include "host/records/keys.h"
#include "host/records/reading.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

constexpr std::chrono::minutes kLongestRetry{10};
constexpr std::chrono::milliseconds kWatchInterval{100};
constexpr std::chrono::milliseconds kWatchRetry{1000};
constexpr std::chrono::seconds kStorageInterval{10};

// Adds the guest whose record has the key; other keys of a guest are ignored.
void InsertGuestOf(std::string_view key, const std::string& prefix, std::set<std::string>& guest_ids) {
  if (key.size() <= prefix.size() + 1) return;
  const std::string_view rest = key.substr(prefix.size() + 1);
  const std::size_t slash = rest.find('/');
  if (slash == std::string_view::npos || rest.substr(slash + 1) != VexaCCC::DB::_k::object) return;
  if (auto guest_id = store::DecodeSegment(rest.substr(0, slash))) guest_ids.insert(std::move(*guest_id));
}

std::shared_ptr<StorageWatch> MakeStorageWatch(const GuestControlOptions& options) {
  StorageOptions storage;
  storage.store = options.store;
  storage.host_id = options.host_id;
  storage.roots = options.image_roots;
  storage.limits = options.space;
  if (options.hypervisor.mode == "test") storage.files = StorageOptions::Files::kNotNeeded;
  return std::make_shared<StorageWatch>(std::move(storage));
}

bool IsFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

Result<std::unique_ptr<GuestControl>> GuestControl::Start(GuestControlOptions options) {
  const auto epoch = cluster::StartEpoch(*options.store, options.host_id, std::chrono::system_clock::now());
  if (!epoch) return epoch.error();
  auto control = std::make_unique<LibvirtGuestControl>(std::move(options), *epoch);
  if (Status begun = control->Begin(); !begun) return begun.error();
  return std::unique_ptr<GuestControl>(std::move(control));
}

LibvirtGuestControl::LibvirtGuestControl(GuestControlOptions options, std::uint64_t epoch)
    : options_(std::move(options)),
      storage_(MakeStorageWatch(options_)),
      deletion_(OptionsOfDeletion()),
      edits_(OptionsOfEdits()),
      sequencer_(epoch) {}

DeletionOptions LibvirtGuestControl::OptionsOfDeletion() {
  DeletionOptions deletion;
  deletion.store = options_.store;
  deletion.host_id = options_.host_id;
  deletion.image_roots = options_.image_roots;
  deletion.before_step = options_.before_step;
  deletion.storage = storage_;
  deletion.refuse_active = [this](const std::string& guest_id) { return RefuseActive(guest_id); };
  deletion.is_alive = options_.is_alive;
  return deletion;
}

EditOptions LibvirtGuestControl::OptionsOfEdits() {
  EditOptions edits;
  edits.store = options_.store;
  edits.host_id = options_.host_id;
  edits.image_roots = options_.image_roots;
  edits.before_step = options_.before_step;
  edits.storage = storage_;
  edits.refuse_active = [this](const std::string& guest_id) { return RefuseActive(guest_id); };
  edits.rate_pins = [this](const Guest& edited) { return RatePins(edited); };
  if (!ForgetsGuests()) edits.has_file = IsFile;
  return edits;
}

LibvirtGuestControl::~LibvirtGuestControl() {
  Stop(std::chrono::milliseconds(0));
  {
    std::unique_lock lock(maintenance_mutex_);
    is_open_ = false;
    maintenance_wake_.wait(lock, [this] { return threads_ == 0; });
  }
  for (std::thread* thread : {&maintenance_, &watching_}) {
    if (thread->joinable()) thread->join();
  }
  // In this order, because its threads use the hypervisor.
  shut_downs_.reset();
  hypervisor_.reset();
}

Status LibvirtGuestControl::Begin() {
  shut_downs_ = std::make_unique<ShutDowns>(
      ShutDownsOptions{.wait = options_.shut_down_wait,
                       .press_again = options_.press_again,
                       .press = [this](const std::string& guest_id) { return PressAgain(guest_id); },
                       .on_given_up =
                           [this](const std::string& guest_id) {
                             ends_by_.Cancel(guest_id);
                             LookWhenFree(guest_id);
                           }});
  hypervisor::HypervisorOptions opening = options_.hypervisor;
  opening.open_later = hypervisor::OpenLater::kWhenUnreachable;
  // Until everything has been looked at, events provide no new information.
  opening.on_event = [this](const hypervisor::GuestEvent& event) { Answer([&] { LookWhenFree(event.id); }); };
  opening.on_reopened = [this] {
    {
      const std::lock_guard lock(node_mutex_);
      node_.reset();
    }
    Answer([this] {
      ReadVersion();
      Reconcile();
    });
  };
  auto opened = hypervisor::Hypervisor::Open(std::move(opening));
  if (!opened) return opened.failure().error();
  hypervisor_ = std::move(*opened);
  {
    const std::lock_guard lock(maintenance_mutex_);
    is_open_ = true;
  }
  // The watch sees what is imported from now on.
  if (const auto snapshot = options_.store->Read()) watched_ = (*snapshot)->revision();
  storage_->Refresh();
  edits_.FinishAll();
  deletion_.FinishAll();
  if (hypervisor_->IsConnected()) {
    ReadVersion();
    Reconcile();
  } else {
    ::syslog(LOG_ERR, "The hypervisor cannot be reached. It is tried again; guests cannot be started meanwhile.");
  }
  {
    const std::lock_guard lock(maintenance_mutex_);
    threads_ += 2;
  }
  const auto run = [this](void (LibvirtGuestControl::*work)()) {
    (this->*work)();
    const std::lock_guard lock(maintenance_mutex_);
    --threads_;
    maintenance_wake_.notify_all();
  };
  maintenance_ = std::thread(run, &LibvirtGuestControl::Maintain);
  watching_ = std::thread(run, &LibvirtGuestControl::WatchRecords);
  return {};
}

void LibvirtGuestControl::Answer(const std::function<void()>& act) {
  {
    const std::lock_guard lock(maintenance_mutex_);
    if (!is_open_) return;
    ++threads_;
  }
  Guarded("The answer to an event of the hypervisor", act);
  const std::lock_guard lock(maintenance_mutex_);
  --threads_;
  maintenance_wake_.notify_all();
}

bool LibvirtGuestControl::Stop(std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  stopping_ = true;
  storage_->Stop();
  const bool is_done = !shut_downs_ || shut_downs_->Stop(patience);
  std::unique_lock lock(maintenance_mutex_);
  ends_ = true;
  maintenance_wake_.notify_all();
  return maintenance_wake_.wait_until(lock, end, [this] { return threads_ == 0; }) && is_done;
}

// Retries failed work, and does what other hosts have left for this one. Running guests are looked at too: a restarted
// libvirt ends half-started ones without an event.
void LibvirtGuestControl::Maintain() {
  std::unique_lock lock(maintenance_mutex_);
  while (!maintenance_wake_.wait_for(lock, options_.maintenance_interval, [this] { return ends_; })) {
    lock.unlock();
    Guarded("The maintenance of guests", [this] { MaintainOnce(); });
    lock.lock();
  }
}

void LibvirtGuestControl::MaintainOnce() {
  std::set<std::string> guest_ids;
  {
    const std::lock_guard lock(maintenance_mutex_);
    guest_ids = unsettled_;
  }
  if (const auto runs = RunsOf(*options_.store, options_.host_id); runs && hypervisor_->IsConnected()) {
    for (const auto& [guest_id, run] : *runs) guest_ids.insert(guest_id);
  }
  for (const std::string& guest_id : guest_ids) LookWhenFree(guest_id);
  if (const auto now = std::chrono::steady_clock::now(); now >= next_refresh_) {
    storage_->Refresh();
    next_refresh_ = now + kStorageInterval;
  }
  // While the database is lost, reads come from a copy and may be old, so no file or definition is touched.
  if (options_.store->health() == store::Health::kInaccessible) return;
  deletion_.RemoveLeftovers();
  RemoveDefinitions();
  FinishBegun();
}

void LibvirtGuestControl::FinishBegun() {
  const auto now = std::chrono::steady_clock::now();
  std::map<std::string, Retry> unfinished;
  std::set<std::string> begun;
  for (std::string& guest_id : deletion_.Begun()) begun.insert(std::move(guest_id));
  for (std::string& guest_id : edits_.Begun()) begun.insert(std::move(guest_id));
  for (const std::string& guest_id : begun) {
    const auto known = unfinished_.find(guest_id);
    Retry retry = known == unfinished_.end() ? Retry{now, options_.maintenance_interval} : known->second;
    if (retry.next <= now && !stopping_) {
      // The current holder has the guest.
      if (auto claim = claims_.TakeToLook(guest_id)) {
        edits_.Finish(guest_id);
        deletion_.Finish(guest_id);
        LookAndRelease(*std::move(claim), guest_id);
        retry = {now + retry.delay, std::min<std::chrono::milliseconds>(2 * retry.delay, kLongestRetry)};
      }
    }
    unfinished.emplace(guest_id, retry);
  }
  unfinished_ = std::move(unfinished);
}

void LibvirtGuestControl::WatchRecords() {
  const std::string prefix = cluster::CategoryKey(VexaCCC::DB::DashCate::Guest.name());
  const auto ends = [this] {
    const std::lock_guard lock(maintenance_mutex_);
    return ends_;
  };
  while (!ends()) {
    bool has_failed = true;
    Guarded("The watch of guests' records", [&] {
      const auto batch = options_.store->Watch(prefix, watched_, kWatchInterval);
      if (!batch) return;
      watched_ = batch->revision;
      if (batch->lost) Reconcile();
      std::set<std::string> written;
      for (const store::Change& change : batch->changes) {
        if (!change.deleted) InsertGuestOf(change.key, prefix, written);
      }
      for (const std::string& guest_id : written) LookAtImported(guest_id);
      has_failed = false;
    });
    if (!has_failed) continue;
    std::unique_lock lock(maintenance_mutex_);
    maintenance_wake_.wait_for(lock, kWatchRetry, [this] { return ends_; });
  }
}

// A guest that runs, or is saved, although no host has it: it was imported, or given to this host, together with its
// machine.
void LibvirtGuestControl::LookAtImported(const std::string& guest_id) {
  const auto run = ReadRun(*options_.store, guest_id);
  if (!run || *run || stopping_) return;
  const auto state = hypervisor_->StateOf(guest_id);
  if (state && (IsActive(*state) || *state == hypervisor::GuestState::kSaved)) LookWhenFree(guest_id);
}

bool LibvirtGuestControl::IsControllable() const { return hypervisor_->IsConnected(); }

std::string LibvirtGuestControl::HypervisorVersion() const {
  const std::lock_guard lock(node_mutex_);
  return version_;
}

void LibvirtGuestControl::ReadVersion() {
  if (ForgetsGuests()) return;
  auto version = hypervisor_->Version();
  const std::lock_guard lock(node_mutex_);
  if (version) version_ = std::move(*version);
}

std::optional<RunningGuest> LibvirtGuestControl::Running(const std::string& guest_id) {
  const auto stored = ReadRun(*options_.store, guest_id);
  if (!stored || !*stored || (*stored)->run.host_id != options_.host_id) return std::nullopt;
  if ((*stored)->run.starting || (*stored)->run.saved) return std::nullopt;
  const auto agent = hypervisor_->HasAgent(guest_id);
  if (!agent) return std::nullopt;
  RunningGuest running;
  running.has_agent = *agent;
  if (auto addresses = hypervisor_->AddressesOf(guest_id)) running.addresses = std::move(*addresses);
  const auto since = std::chrono::system_clock::now() - (*stored)->run.since;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since).count();
  running.uptime_s = seconds > 0 ? static_cast<std::uint64_t>(seconds) : 0;  // the clock may have been set back
  return running;
}

}  // namespace vexa::guests
