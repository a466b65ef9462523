#include "host/guests/guest_control.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/cluster/reading.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/host_networks.h"
#include "host/hypervisor/domain_xml.h"
#include "webapi/utils/json.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::chrono::minutes kLongestRetry{10};

DeletionOptions OptionsOfDeletion(const GuestControlOptions& options) {
  DeletionOptions deletion;
  deletion.store = options.store;
  deletion.host_id = options.host_id;
  deletion.image_roots = options.image_roots;
  deletion.before_step = options.before_step;
  return deletion;
}

// The path of an image in a drive, which a record names by the path or by the image's id.
Result<std::string> ImagePath(const std::string& image) {
  if (image.starts_with('/')) return image;
  const Result<cluster::Record> record = cluster::ReadObject("image", image);
  if (!record) return record.error();
  const Json::Value& path = json::Member(**record, "path");
  if (path.isString()) return json::String(path);
  return Error(ErrorCode::kCorrupt, "The record of the image '" + image + "' says no path");
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
      deletion_(OptionsOfDeletion(options_)),
      edits_(OptionsOfEdits()),
      sequencer_(epoch) {}

EditOptions LibvirtGuestControl::OptionsOfEdits() {
  EditOptions edits;
  edits.store = options_.store;
  edits.host_id = options_.host_id;
  edits.image_roots = options_.image_roots;
  edits.before_step = options_.before_step;
  edits.rate_pins = [this](const Guest& edited) { return RatePins(edited); };
  if (!ForgetsGuests()) edits.has_file = IsFile;
  return edits;
}

LibvirtGuestControl::~LibvirtGuestControl() {
  BeginStop();
  {
    const std::lock_guard lock(maintenance_mutex_);
    ends_ = true;
  }
  maintenance_wake_.notify_all();
  if (maintenance_.joinable()) maintenance_.join();
  {
    const std::lock_guard lock(callback_mutex_);
    is_open_ = false;
  }
  // In this order: its thread uses the hypervisor.
  shut_downs_.reset();
  hypervisor_.reset();
}

Status LibvirtGuestControl::Begin() {
  shut_downs_ = std::make_unique<ShutDowns>(
      ShutDownsOptions{.wait = options_.shut_down_wait,
                       .press_again = options_.press_again,
                       .press = [this](const std::string& guest_id) { return PressAgain(guest_id); },
                       .on_given_up = [this](const std::string& guest_id) { LookWhenFree(guest_id); }});
  hypervisor::HypervisorOptions opening = options_.hypervisor;
  opening.open_later = hypervisor::OpenLater::kWhenUnreachable;
  // Until everything has been looked at, events tell nothing new.
  opening.on_event = [this](const hypervisor::GuestEvent& event) {
    const std::lock_guard lock(callback_mutex_);
    if (is_open_) LookWhenFree(event.id);
  };
  opening.on_reopened = [this] {
    {
      const std::lock_guard lock(node_mutex_);
      node_.reset();
    }
    const std::lock_guard lock(callback_mutex_);
    if (is_open_) Reconcile();
  };
  auto opened = hypervisor::Hypervisor::Open(std::move(opening));
  if (!opened) return opened.failure().error();
  hypervisor_ = std::move(*opened);
  {
    const std::lock_guard lock(callback_mutex_);
    is_open_ = true;
  }
  edits_.FinishAll();
  deletion_.FinishAll();
  if (hypervisor_->IsConnected()) {
    Reconcile();
  } else {
    ::syslog(LOG_ERR, "The hypervisor cannot be reached. It is tried again; guests cannot be started meanwhile.");
  }
  maintenance_ = std::thread([this] { Maintain(); });
  return {};
}

void LibvirtGuestControl::BeginStop() { stopping_ = true; }

// What failed is tried again, and what other hosts have left for this one is done. Guests that run are looked at too: a
// libvirt that starts anew ends those that were half started, and tells of that with no event.
void LibvirtGuestControl::Maintain() {
  std::unique_lock lock(maintenance_mutex_);
  while (!maintenance_wake_.wait_for(lock, options_.maintenance_interval, [this] { return ends_; })) {
    std::set<std::string> guest_ids = unsettled_;
    lock.unlock();
    if (const auto runs = RunsOf(*options_.store, options_.host_id); runs && hypervisor_->IsConnected()) {
      for (const auto& [guest_id, run] : *runs) guest_ids.insert(guest_id);
    }
    for (const std::string& guest_id : guest_ids) LookWhenFree(guest_id);
    deletion_.RemoveLeftovers();
    FinishEdits();
    lock.lock();
  }
}

void LibvirtGuestControl::FinishEdits() {
  const auto now = std::chrono::steady_clock::now();
  std::map<std::string, Retry> unfinished;
  for (const std::string& guest_id : edits_.Begun()) {
    const auto known = unfinished_.find(guest_id);
    Retry retry = known == unfinished_.end() ? Retry{now, options_.maintenance_interval} : known->second;
    if (retry.next <= now && !stopping_) {
      // Whoever edits it now has the guest.
      if (auto claim = claims_.TakeToLook(guest_id)) {
        edits_.Finish(guest_id);
        LookAndRelease(*std::move(claim), guest_id);
        retry = {now + retry.delay, std::min<std::chrono::milliseconds>(2 * retry.delay, kLongestRetry)};
      }
    }
    unfinished.emplace(guest_id, retry);
  }
  unfinished_ = std::move(unfinished);
}

Result<hypervisor::Node> LibvirtGuestControl::NodeFigures() {
  {
    const std::lock_guard lock(node_mutex_);
    if (node_) return *node_;
  }
  auto node = hypervisor_->NodeFigures();
  if (!node) return node.failure().error();
  const std::lock_guard lock(node_mutex_);
  node_ = *node;
  return *node;
}

// What the guests of this host have taken, but for one that is about to be rated.
Result<HostResources> LibvirtGuestControl::Resources(const std::string& but_guest_id) {
  HostResources resources;
  resources.host_id = options_.host_id;
  resources.vcpus_per_cpu = options_.vcpus_per_cpu;
  resources.is_connected = hypervisor_->IsConnected();
  resources.has_network = options_.has_network;
  if (!ForgetsGuests()) {
    if (!resources.has_network) resources.has_network = HostNetworks([this] { return LibvirtNetworks(); });
    resources.has_file = [](const std::string& path) { return ::access(path.c_str(), F_OK) == 0; };
  }
  const auto runs = RunsOf(*options_.store, options_.host_id);
  if (!runs) return runs.error();
  std::uint64_t memory_mib = 0;
  for (const auto& [id, stored] : *runs) {
    if (id == but_guest_id) continue;
    resources.vcpus_taken += stored.run.vcpus;
    resources.pinned_cpus.insert(resources.pinned_cpus.end(), stored.run.pinned_cpus.begin(),
                                 stored.run.pinned_cpus.end());
    // The memory of those that run has been taken already, where guests take any.
    if (ForgetsGuests() || stored.run.starting) memory_mib += stored.run.memory_mib;
  }
  const auto node = NodeFigures();
  if (!node) {
    resources.is_connected = false;
    return resources;
  }
  resources.cpus = node->cpus;
  std::uint64_t free_mib = node->memory_mib;
  if (!ForgetsGuests()) {
    const auto free = hypervisor_->FreeMemory();
    if (free) free_mib = *free >> 20;
  }
  resources.free_memory_mib = free_mib - std::min(free_mib, memory_mib);
  return resources;
}

Result<Rating> LibvirtGuestControl::RateGuest(const std::string& guest_id) {
  const Result<Guest> guest = ReadGuest(guest_id);
  if (!guest) return guest.error();
  cluster::RequestScope::ReleaseSnapshot();
  const Result<HostResources> resources = Resources(guest_id);
  if (!resources) return resources.error();
  return Rate(*guest, *resources);
}

Result<std::string> LibvirtGuestControl::DomainXml(const Guest& guest, const Run& run) {
  hypervisor::BuildOptions build;
  build.domain_type = hypervisor_->DomainType();
  // The embedded driver has no cgroups of its own.
  if (options_.hypervisor.mode == "embed") build.cpu_shares = hypervisor::CpuShares::kLeftOut;
  build.pinned_cpus = run.pinned_cpus;
  build.image_path = ImagePath;
  for (std::string& network : LibvirtNetworks()) build.libvirt_networks.insert(std::move(network));
  hypervisor::GuestRecords records = guest.records;
  if (IsMachineOfOther(guest)) records.guest.removeMember("name");
  return hypervisor::BuildDomainXml(records, build);
}

// Whether another machine has the guest's name: one keeps its name while it runs, when its guest is called otherwise.
bool LibvirtGuestControl::IsMachineOfOther(const Guest& guest) {
  const auto known = hypervisor_->List();
  if (!known) return false;
  return std::ranges::any_of(*known, [&](const hypervisor::KnownGuest& other) {
    return other.name == guest.name && other.id != hypervisor::NormalizeUuid(guest.records.id);
  });
}

std::vector<std::string> LibvirtGuestControl::LibvirtNetworks() {
  auto networks = hypervisor_->Networks();
  return networks ? std::move(*networks) : std::vector<std::string>();
}

std::optional<RunningGuest> LibvirtGuestControl::Running(const std::string& guest_id) {
  const auto stored = ReadRun(*options_.store, guest_id);
  if (!stored || !*stored || (*stored)->run.host_id != options_.host_id || (*stored)->run.starting) return std::nullopt;
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
