#include "host/guests/guest_control.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/base/mutex.h"
#include "host/base/run_logging_exceptions.h"
#include "host/guests/guest_control_impl.h"
#include "host/machine/bridge_service.h"
#include "host/records/keys.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

constexpr std::chrono::minutes kMaxRetryDelay{10};
constexpr std::chrono::milliseconds kWatchInterval{100};
constexpr std::chrono::milliseconds kWatchRetryDelay{1000};
constexpr std::chrono::seconds kStorageRefreshInterval{10};

// Adds the guest's id if `key` is that of its record. Ignores other keys of a guest.
void InsertGuestOf(std::string_view key, const std::string& prefix, std::set<std::string>& guest_ids) {
  if (key.size() <= prefix.size() + 1) return;
  const std::string_view rest = key.substr(prefix.size() + 1);
  const std::size_t slash = rest.find('/');
  if (slash == std::string_view::npos || rest.substr(slash + 1) != VexaCCC::DB::_k::object) return;
  if (auto guest_id = store::DecodeSegment(rest.substr(0, slash))) guest_ids.insert(std::move(*guest_id));
}

std::shared_ptr<storage::StorageWatch> MakeStorageWatch(const GuestControlOptions& options) {
  storage::StorageOptions storage;
  storage.store = options.store;
  storage.host_id = options.host_id;
  storage.roots = options.image_roots;
  storage.limits = options.space;
  if (options.hypervisor.mode == "test") storage.files = storage::StorageOptions::Files::kNotNeeded;
  return std::make_shared<storage::StorageWatch>(std::move(storage));
}

std::unique_ptr<networks::NetworkKeeper> MakeNetworkKeeper(const GuestControlOptions& options,
                                                           const std::atomic<bool>& stopping) {
  if (options.networks == GuestControlOptions::Networks::kNotKept) return nullptr;
  networks::NetworkKeeperOptions keeper;
  keeper.store = options.store;
  keeper.host_id = options.host_id;
  if (options.hypervisor.mode == "test") {
    keeper.bridges = networks::NetworkKeeperOptions::Bridges::kAllExist;
  } else {
    keeper.bridge_maker = machine::SystemBridgeMaker();
  }
  if (options.claim) keeper.guard = [claim = options.claim] { return claim->Guard(); };
  keeper.is_stopping = [&stopping] { return stopping.load(); };
  return std::make_unique<networks::NetworkKeeper>(std::move(keeper));
}

bool IsFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

Result<std::unique_ptr<GuestControl>> GuestControl::Start(GuestControlOptions options) {
  const auto epoch = records::StartEpoch(*options.store, options.host_id, std::chrono::system_clock::now());
  if (!epoch) return epoch.error();
  auto control = std::make_unique<LibvirtGuestControl>(std::move(options), *epoch);
  if (Status opened = control->Begin(); !opened) return opened.error();
  return std::unique_ptr<GuestControl>(std::move(control));
}

LibvirtGuestControl::LibvirtGuestControl(GuestControlOptions options, std::uint64_t epoch)
    : options_(std::move(options)),
      storage_(MakeStorageWatch(options_)),
      networks_(MakeNetworkKeeper(options_, stopping_)),
      deletion_(MakeDeletionOptions()),
      edits_(MakeEditOptions()),
      creations_(MakeCreationOptions()),
      sequencer_(epoch) {}

JobOptions LibvirtGuestControl::MakeJobOptions() {
  JobOptions jobs;
  jobs.store = options_.store;
  jobs.host_id = options_.host_id;
  jobs.image_roots = options_.image_roots;
  jobs.folder_access = storage::QemuAccessFor(options_.hypervisor.mode);
  jobs.before_step = options_.before_step;
  jobs.storage = storage_;
  jobs.check_not_running = [this](const std::string& guest_id) { return CheckNotRunning(guest_id); };
  return jobs;
}

DeletionOptions LibvirtGuestControl::MakeDeletionOptions() {
  return {MakeJobOptions(), options_.is_alive,
          [this](const std::string& guest_id, const std::vector<std::string>& paths) {
            return HasFileInMachine(guest_id, paths);
          }};
}

EditOptions LibvirtGuestControl::MakeEditOptions() {
  EditOptions edits{MakeJobOptions(), {}, {}, {}, {}, {}, {}};
  edits.can_change_running = !IsTestMode();
  edits.check_layout = [this](const std::string& layout) { return CheckLayout(layout); };
  edits.check_weight = [this](std::int64_t weight) { return CheckWeight(weight); };
  edits.check_pins = [this](const records::Guest& edited) { return CheckPinsAvailable(edited); };
  edits.check_applies_now = [this](const records::Guest& edited) { return CheckAppliesNow(edited); };
  if (!IsTestMode()) edits.has_file = IsFile;
  return edits;
}

CreationOptions LibvirtGuestControl::MakeCreationOptions() {
  CreationOptions creations{MakeEditOptions()};
  creations.is_stopping = [this] { return stop_begun_ || stopping_; };
  return creations;
}

LibvirtGuestControl::~LibvirtGuestControl() {
  Stop(std::chrono::milliseconds(0));
  {
    const MutexLock lock(maintenance_mutex_);
    is_open_ = false;
    while (threads_ > 0) maintenance_wake_.Wait(maintenance_mutex_);
  }
  for (std::thread* thread : {&maintenance_thread_, &watch_thread_, &networks_thread_, &autorun_thread_}) {
    if (thread->joinable()) thread->join();
  }
  // In this order, because its threads use the hypervisor.
  shut_downs_.reset();
  hypervisor_.reset();
}

Status LibvirtGuestControl::Begin() {
  // Before anything that removes the runs from before the boot.
  PlanAutorunsAfterBoot();
  shut_downs_ = std::make_unique<ShutDowns>(
      ShutDownsOptions{.wait = options_.shut_down_wait,
                       .press_interval = options_.press_interval,
                       .press = [this](const std::string& guest_id) { return RepeatPress(guest_id); },
                       .on_given_up =
                           [this](const std::string& guest_id) {
                             end_reasons_.Cancel(guest_id);
                             ReconcileWhenFree(guest_id);
                           }});
  hypervisor::HypervisorOptions hypervisor_options = options_.hypervisor;
  hypervisor_options.if_unreachable = hypervisor::IfUnreachable::kConnectInBackground;
  // Events before is_open_ is set can be ignored: all guests are reconciled afterwards.
  hypervisor_options.on_event = [this](const hypervisor::GuestEvent& event) {
    RunIfOpen([&] { ReconcileWhenFree(event.id); });
  };
  hypervisor_options.on_reopened = [this] {
    {
      const MutexLock lock(node_info_mutex_);
      node_info_.reset();
    }
    RunIfOpen([this] {
      ReadVersion();
      KeepNetworks();
      ReconcileAll();
    });
  };
  auto opened = hypervisor::Hypervisor::Open(std::move(hypervisor_options));
  if (!opened) return opened.error();
  hypervisor_ = std::move(*opened);
  ReadKeymaps();
  {
    const MutexLock lock(maintenance_mutex_);
    is_open_ = true;
  }
  // The watch reports what is imported from now on.
  if (const auto snapshot = options_.store->Read()) watch_revision_ = (*snapshot)->revision();
  storage_->Refresh();
  creations_.FinishAll();
  edits_.FinishAll();
  deletion_.FinishAll();
  if (hypervisor_->IsConnected()) {
    ReadVersion();
    // Before the guests that need them.
    KeepNetworks();
    ReconcileAll();
  } else {
    ::syslog(LOG_ERR, "The hypervisor cannot be reached. This is retried; guests cannot be started meanwhile.");
  }
  {
    const MutexLock lock(maintenance_mutex_);
    threads_ += 2 + (networks_ ? 1 : 0) + (options_.claim ? 1 : 0);
  }
  const auto run = [this](void (LibvirtGuestControl::*work)()) {
    (this->*work)();
    const MutexLock lock(maintenance_mutex_);
    --threads_;
    maintenance_wake_.NotifyAll();
  };
  maintenance_thread_ = std::thread(run, &LibvirtGuestControl::Maintain);
  watch_thread_ = std::thread(run, &LibvirtGuestControl::WatchRecords);
  if (networks_) networks_thread_ = std::thread(run, &LibvirtGuestControl::WatchNetworks);
  if (options_.claim) autorun_thread_ = std::thread(run, &LibvirtGuestControl::RunAutoruns);
  return {};
}

void LibvirtGuestControl::RunIfOpen(const std::function<void()>& act) {
  {
    const MutexLock lock(maintenance_mutex_);
    if (!is_open_) return;
    ++threads_;
  }
  RunLoggingExceptions("The handler of a hypervisor event", act);
  const MutexLock lock(maintenance_mutex_);
  --threads_;
  maintenance_wake_.NotifyAll();
}

bool LibvirtGuestControl::Stop(std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  stopping_ = true;
  storage_->Stop();
  const bool is_done = !shut_downs_ || shut_downs_->Stop(timeout);
  const MutexLock lock(maintenance_mutex_);
  stop_requested_ = true;
  maintenance_wake_.NotifyAll();
  while (threads_ > 0 && maintenance_wake_.WaitUntil(maintenance_mutex_, end)) {
  }
  return threads_ == 0 && is_done;
}

// Retries failed work, and does what other hosts have left for this one. Reconciles running guests too: a restarted
// libvirt ends guests that were being started, without an event.
void LibvirtGuestControl::Maintain() {
  while (AwaitMaintenance()) {
    RunLoggingExceptions("The maintenance of guests", [this] { MaintainOnce(); });
  }
}

bool LibvirtGuestControl::AwaitStop(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  const MutexLock lock(maintenance_mutex_);
  while (!stop_requested_ && maintenance_wake_.WaitUntil(maintenance_mutex_, end)) {
  }
  return stop_requested_;
}

void LibvirtGuestControl::MaintainOnce() {
  std::set<std::string> guest_ids;
  {
    const MutexLock lock(maintenance_mutex_);
    guest_ids = unreconciled_;
  }
  if (const auto runs = records::RunsOf(*options_.store, options_.host_id); runs && hypervisor_->IsConnected()) {
    for (const auto& [guest_id, run] : *runs) guest_ids.insert(guest_id);
  }
  for (const std::string& guest_id : guest_ids) ReconcileWhenFree(guest_id);
  if (const auto now = std::chrono::steady_clock::now(); now >= next_refresh_) {
    storage_->Refresh();
    next_refresh_ = now + kStorageRefreshInterval;
  }
  // While the database is lost, reads come from a copy and may be old, so no file or definition is touched.
  if (options_.store->health() == store::Health::kInaccessible) return;
  deletion_.RemoveLeftovers();
  RemoveDefinitions();
  RetryUnfinished();
}

void LibvirtGuestControl::RetryUnfinished() {
  const auto now = std::chrono::steady_clock::now();
  std::map<std::string, Retry> unfinished;
  std::set<std::string> guest_ids;
  for (std::string& guest_id : deletion_.Unfinished()) guest_ids.insert(std::move(guest_id));
  for (std::string& guest_id : edits_.Unfinished()) guest_ids.insert(std::move(guest_id));
  if (const auto runs = records::RunsOf(*options_.store, options_.host_id)) {
    for (const auto& [guest_id, run] : *runs) {
      if (IsBeingRestored(guest_id, run.run)) guest_ids.insert(guest_id);
    }
  }
  for (std::string& guest_id : creations_.Unfinished()) guest_ids.insert(std::move(guest_id));
  for (const std::string& guest_id : guest_ids) {
    const auto known = unfinished_.find(guest_id);
    Retry retry = known == unfinished_.end() ? Retry{now, options_.maintenance_interval} : known->second;
    if (retry.next <= now && !stopping_) {
      // Not set: another activity holds the guest.
      if (auto guard = activities_.TryTakeForReconcile(guest_id)) {
        creations_.Finish(guest_id);
        edits_.Finish(guest_id);
        deletion_.Finish(guest_id);
        (void)FinishRestore(guest_id);
        ReconcileAndRelease(*std::move(guard), guest_id);
        retry = {now + retry.delay, std::min<std::chrono::milliseconds>(2 * retry.delay, kMaxRetryDelay)};
      }
    }
    unfinished.emplace(guest_id, retry);
  }
  unfinished_ = std::move(unfinished);
}

void LibvirtGuestControl::WatchRecords() {
  const std::string prefix = records::CategoryKey(VexaCCC::DB::DashCate::Guest.name());
  const auto is_stopping = [this] {
    const MutexLock lock(maintenance_mutex_);
    return stop_requested_;
  };
  while (!is_stopping()) {
    bool has_failed = true;
    RunLoggingExceptions("The watch of guests' records", [&] {
      const auto batch = options_.store->Watch(prefix, watch_revision_, kWatchInterval);
      if (!batch) return;
      watch_revision_ = batch->revision;
      if (batch->lost) ReconcileAll();
      std::set<std::string> written;
      for (const store::Change& change : batch->changes) {
        if (!change.deleted) InsertGuestOf(change.key, prefix, written);
      }
      for (const std::string& guest_id : written) AdoptImported(guest_id);
      has_failed = false;
    });
    if (has_failed) (void)AwaitStop(kWatchRetryDelay);
  }
}

void LibvirtGuestControl::KeepNetworks() {
  if (!networks_ || stopping_) return;
  RunLoggingExceptions("The keeping of networks", [this] { networks_->Keep(*hypervisor_); });
}

void LibvirtGuestControl::WatchNetworks() {
  const std::string prefix = records::CategoryKey("network");
  store::Revision revision = 0;
  auto next = std::chrono::steady_clock::now();
  while (!AwaitStop(std::chrono::milliseconds(0))) {
    bool has_failed = true;
    RunLoggingExceptions("The watch of networks", [&] {
      const auto batch = options_.store->Watch(prefix, revision, kWatchInterval);
      if (batch) revision = batch->revision;
      const bool has_changed = batch && (batch->lost || !batch->changes.empty());
      if (has_changed || std::chrono::steady_clock::now() >= next) {
        KeepNetworks();
        next = std::chrono::steady_clock::now() + options_.networks_interval;
      }
      has_failed = !batch;
    });
    if (has_failed) (void)AwaitStop(kWatchRetryDelay);
  }
}

// Reconciles a guest that has a domain here, although no host holds it: it was imported, or given to this host. It may
// run, or be saved.
void LibvirtGuestControl::AdoptImported(const std::string& guest_id) {
  const auto run = records::ReadRun(*options_.store, guest_id);
  if (!run || *run || stopping_) return;
  const auto state = hypervisor_->StateOf(guest_id);
  if (state) ReconcileWhenFree(guest_id);
}

bool LibvirtGuestControl::IsHypervisorReachable() const { return hypervisor_->IsConnected(); }

std::string LibvirtGuestControl::HypervisorVersion() const {
  const MutexLock lock(node_info_mutex_);
  return version_;
}

void LibvirtGuestControl::ReadVersion() {
  ReadKeymaps();  // another version may have others
  if (IsTestMode()) return;
  auto version = hypervisor_->Version();
  const MutexLock lock(node_info_mutex_);
  if (version) version_ = std::move(*version);
}

std::optional<RunningGuest> LibvirtGuestControl::FindRunningGuest(const std::string& guest_id) {
  const auto stored = records::ReadRun(*options_.store, guest_id);
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
