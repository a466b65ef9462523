// What of a guest waits for its next start, and changes of guests that run.
#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <utility>

#include "host/base/guest_settings.h"
#include "host/base/mutex.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/disks/file_referrers.h"
#include "host/disks/image_file.h"
#include "host/guests/guest_control_impl.h"
#include "host/guests/live_changes.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

using domain_xml::Difference;
using hypervisor::FailureKind;
using VexaCCC::DB::DashCate;

constexpr unsigned kBitsOfMib = 20;
constexpr std::size_t kMaxLoggedReasonBytes = 1024;

std::string NameOf(const Difference& difference) {
  return difference.id.empty() ? difference.property : fmt::format("{} {}", difference.property, difference.id);
}

std::string JoinedWithReasons(const std::vector<std::pair<std::string, std::string>>& obstacles) {
  std::string text;
  for (const auto& [name, reason] : obstacles) text += fmt::format("{}{} ({})", text.empty() ? "" : "; ", name, reason);
  return text;
}

void LogWaiting(const std::string& guest_id, const Difference& difference, const std::string& reason) {
  ::syslog(LOG_NOTICE, "The change of '%s' of the running guest %s waits for its next start: %s",
           SanitizeForLog(NameOf(difference), kMaxLoggedReasonBytes).c_str(), guest_id.c_str(),
           SanitizeForLog(reason, kMaxLoggedReasonBytes).c_str());
}

bool TouchesFiles(const Difference& difference) {
  return difference.property == "vdisks" || difference.property == "iso_images";
}

bool IsGrowth(const Difference& difference) {
  return difference.property == "vdisks" && json::FindMember(difference.recorded, "size");
}

}  // namespace

Result<std::optional<LibvirtGuestControl::Comparison>, Refusal> LibvirtGuestControl::Compare(
    const std::string& guest_id) {
  Result<records::Guest> guest = ReadGuestNow(guest_id);
  if (!guest) return RefusalOf(guest.error());
  return CompareWith(std::move(*guest));
}

// Not set: the guest has no machine here.
Result<std::optional<LibvirtGuestControl::Comparison>, Refusal> LibvirtGuestControl::CompareWith(records::Guest guest) {
  const std::string guest_id = guest.records.id;
  const auto state = hypervisor_->StateOf(guest_id);
  if (!state && state.error().kind() == FailureKind::kNoSuchGuest) return std::optional<Comparison>();
  if (!state) return RefusalOf(state.error());
  const bool is_saved = *state == hypervisor::GuestState::kSaved;
  if (!IsActive(*state) && !is_saved) return std::optional<Comparison>();
  const auto running_xml = is_saved ? XmlOfStart(guest_id, true) : hypervisor_->RunningXmlOf(guest_id);
  if (!running_xml) return RefusalOf(running_xml.error());
  records::Guest next = guest;
  // A start chooses virtual functions, the processors to dedicate, of which only the number is compared, and the place
  // of new UEFI variables.
  const auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return RefusalOf(stored.error());
  records::Run run = *stored ? (*stored)->run : records::Run();
  const std::uint64_t pins = std::min<std::uint64_t>(json::UInt64(json::Member(next.records.guest, keys::cpu_pin_num)),
                                                     GuestSettingOf("vcpu_num").max);
  domain_xml::RunningFacts facts;
  // A restore dedicates processors as the record says then.
  facts.pinned_vcpus = is_saved ? pins : PinnedVcpus(guest_id, run);
  run.pinned_cpus.assign(pins, 0);
  DropUnwantedFunctions(next, *running_xml, run);
  if (json::StringMember(next.records.guest, records::kNvramMember).empty())
    next.records.guest[records::kNvramMember] = "/variables";
  const Result<std::string> recorded_xml = DomainXml(next, run, OwnershipTag::kOurs);
  if (!recorded_xml) return Refusal{host_error::kFailed, recorded_xml.error().ToString()};
  Comparison comparison{std::move(guest), *running_xml, *recorded_xml, is_saved, {}};
  if (!is_saved) facts.sizes = RunningSizes(comparison.guest);
  const auto differences =
      domain_xml::FindDifferences(comparison.running_xml, comparison.recorded_xml, comparison.guest.records, facts);
  if (!differences) return Refusal{host_error::kFailed, differences.error().ToString()};
  comparison.differences = *differences;
  return std::optional(std::move(comparison));
}

// Only of disks whose images are not known to be as large as recorded: asking takes time for each.
domain_xml::DiskSizes LibvirtGuestControl::RunningSizes(const records::Guest& guest) {
  domain_xml::DiskSizes sizes;
  for (const auto& [id, disk] : guest.records.disks) {
    if (!json::Bool(json::Member(disk, kImageIsSmaller))) continue;
    const std::string path = json::StringMember(disk, disks::kDiskPath);
    const auto bytes = hypervisor_->SizeOfDisk(guest.records.id, path);
    if (bytes) sizes[path] = *bytes >> kBitsOfMib;
  }
  return sizes;
}

Result<std::vector<Difference>, Refusal> LibvirtGuestControl::Pending(const std::string& guest_id) {
  auto comparison = Compare(guest_id);
  if (!comparison.ok()) return comparison.error();
  return *comparison ? std::move((*comparison)->differences) : std::vector<Difference>();
}

Result<void, Refusal> LibvirtGuestControl::Edit(const std::string& guest_id, const Json::Value& edit,
                                                const Requester& requester) {
  return Perform(
      guest_id, "edit", requester,
      [&]() -> Result<void, Refusal> {
        const auto before = Compare(guest_id);
        Result<void, Refusal> edited = edits_.Edit(guest_id, edit, requester);
        if (!edited.ok() || json::StringMember(edit, kApply) == kApplyAtNextStart) return edited;
        // Without a comparison from before, it is unknown what else waits: nothing is applied.
        if (before.ok() && *before && !(*before)->is_saved) ApplyNew(guest_id, (*before)->differences);
        return edited;
      },
      options_.edit_wait);
}

Result<void, Refusal> LibvirtGuestControl::Apply(const std::string& guest_id, const std::vector<Difference>& except,
                                                 hypervisor::Eject eject, const Requester& requester) {
  return Perform(
      guest_id, "apply", requester,
      [&]() -> Result<void, Refusal> {
        auto comparison = Compare(guest_id);
        if (!comparison.ok()) return comparison.error();
        if (!*comparison || (*comparison)->is_saved) return Refusal{host_error::kNotRunning, "The guest does not run"};
        ApplyDifferences(**comparison, NewDifferences(except, (*comparison)->differences), eject);
        return {};
      },
      options_.edit_wait);
}

void LibvirtGuestControl::ApplyNew(const std::string& guest_id, const std::vector<Difference>& before) {
  const auto after = Compare(guest_id);
  if (!after.ok()) {
    ::syslog(LOG_WARNING, "The edit of the running guest %s was stored and waits for its next start: %s",
             guest_id.c_str(), after.error().reason.c_str());
    return;
  }
  if (!*after) return;
  ApplyDifferences(**after, NewDifferences(before, (*after)->differences), hypervisor::Eject::kIfUnlocked);
}

Result<void, Refusal> LibvirtGuestControl::CheckAppliesNow(const records::Guest& edited) {
  const auto before = Compare(edited.records.id);
  if (!before.ok()) return before.error();
  if (!*before) return Refusal{host_error::kOnOtherHost, "The guest does not run on this host. Edit it on its host"};
  const auto after = CompareWith(edited);
  if (!after.ok()) return after.error();
  const auto limits = domain_xml::ParseMachineLimits((*before)->running_xml);
  if (!*after || !limits) return Refusal{host_error::kFailed, "The guest's machine cannot be read"};
  std::vector<std::pair<std::string, std::string>> obstacles;
  for (const Difference& difference : NewDifferences((*before)->differences, (*after)->differences)) {
    const std::string obstacle = ObstacleTo(difference, *limits);
    if (!obstacle.empty()) obstacles.emplace_back(NameOf(difference), obstacle);
  }
  if (obstacles.empty()) return {};
  return Refusal{host_error::kFailed,
                 fmt::format("Not everything can be applied while the guest runs: {}", JoinedWithReasons(obstacles))};
}

void LibvirtGuestControl::ApplyDifferences(const Comparison& comparison, const std::vector<Difference>& differences,
                                           hypervisor::Eject eject) {
  const std::string& guest_id = comparison.guest.records.id;
  const auto limits = domain_xml::ParseMachineLimits(comparison.running_xml);
  if (differences.empty() || !limits) return;
  LiveChanges changes(
      *hypervisor_, {guest_id, comparison.running_xml, comparison.recorded_xml, eject, options_.release_wait,
                     [this] { return stop_begun_ || stopping_; }, [this](std::string_view step) { BeforeStep(step); }});
  bool has_files = false;
  for (const Difference& difference : differences) {
    std::string obstacle = ObstacleTo(difference, *limits);
    if (stop_begun_ || stopping_) obstacle = "this host is stopping";
    if (!obstacle.empty()) {
      LogWaiting(guest_id, difference, obstacle);
      continue;
    }
    if (const auto applied = ApplyOne(comparison, difference, changes); !applied.ok()) {
      LogWaiting(guest_id, difference, applied.error().reason);
    } else {
      has_files = has_files || TouchesFiles(difference);
      ::syslog(LOG_INFO, "Changed '%s' of the running guest %s.",
               SanitizeForLog(NameOf(difference), kMaxLoggedReasonBytes).c_str(), guest_id.c_str());
    }
  }
  BeforeStep("live done");
  // The files of disks that the guest has given back.
  if (has_files) deletion_.RemoveLeftovers();
}

Result<void, Refusal> LibvirtGuestControl::ApplyOne(const Comparison& comparison, const Difference& difference,
                                                    LiveChanges& changes) {
  const std::string& guest_id = comparison.guest.records.id;
  const bool adds_file = TouchesFiles(difference) && !difference.recorded.isNull() && !IsGrowth(difference);
  std::optional<CheckedFiles> files;
  if (adds_file) {
    auto checked = CheckFiles(guest_id, comparison.recorded_xml);
    if (!checked.ok()) return checked.error();
    files = std::move(*checked);
  }
  const bool takes_resources = difference.property == keys::vcpu_num || difference.property == keys::vram_size;
  // More is reserved before the machine gets it, and less when the machine has given it up.
  const std::uint64_t now = json::UInt64(difference.running);
  const std::uint64_t next = json::UInt64(difference.recorded);
  if (takes_resources && next > now) {
    if (const auto reserved = Reserve(guest_id, difference.property, next); !reserved.ok()) return reserved;
  }
  if (IsGrowth(difference)) {
    if (const auto allowed = CheckGrowth(comparison.guest, difference.id); !allowed.ok()) return allowed;
  }
  const Status applied = changes.Apply(difference);
  if (takes_resources && (!applied || next < now)) (void)Reserve(guest_id, difference.property, applied ? next : now);
  if (!applied) return Refusal{host_error::kFailed, applied.error().ToString()};
  if (IsGrowth(difference)) return ClearImageIsSmaller(difference.id, json::UInt64(difference.recorded["size"]));
  if (!adds_file || !files) return {};
  return CheckAddedFiles(guest_id, difference, changes);
}

// A path could have been replaced between the check and QEMU's opening it, so what QEMU has open is compared.
Result<void, Refusal> LibvirtGuestControl::CheckAddedFiles(const std::string& guest_id, const Difference& difference,
                                                           LiveChanges& changes) {
  auto now = CheckFiles(guest_id, hypervisor_->RunningXmlOf(guest_id));
  std::optional<std::string> problem;
  if (!now.ok()) problem = now.error().reason;
  if (now.ok() && *now) problem = CompareFiles(guest_id, **now);
  if (!problem) return {};
  const Status undone = changes.Apply({difference.property, difference.id, difference.recorded, difference.running});
  ::syslog(LOG_ERR, "The file that was added to the running guest %s is not the one that was checked, and %s: %s",
           guest_id.c_str(), undone ? "was removed from it" : "could not be removed from it", problem->c_str());
  return Refusal{host_error::kUnavailable, *problem};
}

// Records what the guest has from now on, so that other guests are not given the same. Fewer are released by the same
// call.
Result<void, Refusal> LibvirtGuestControl::Reserve(const std::string& guest_id, const std::string& property,
                                                   std::uint64_t amount) {
  Result<records::Guest> guest = ReadGuestNow(guest_id);
  if (!guest) return RefusalOf(guest.error());
  ResourceFacts facts = GatherFacts(*guest);
  const bool is_as_owner_defined = OwnersXmlInUse(guest_id).has_value();
  const MutexLock lock(allocation_mutex_);
  const auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return RefusalOf(stored.error());
  if (!*stored || (*stored)->run.host_id != options_.host_id)
    return Refusal{host_error::kNotRunning, "The guest does not run on this host"};
  if (Status added = AddAllocated(guest_id, facts); !added) return RefusalOf(added.error());
  records::Run run = (*stored)->run;
  const HostResources& host = facts.resources;
  if (property == keys::vcpu_num) {
    const std::uint64_t room = std::uint64_t{host.cpus} * host.vcpus_per_cpu;
    if (amount > run.vcpus && host.vcpus_taken + amount > room)
      return Refusal{
          host_error::kTooManyVcpus,
          fmt::format("The host has room for {} virtual CPUs, and other guests have {}", room, host.vcpus_taken)};
    run.vcpus = amount;
    // libvirt lets new virtual CPUs run where the guest could when it was started. The reconciliation moves them.
    const bool was_moved = !run.pinned_cpus.empty() || (run.kept_off && !run.kept_off->empty());
    if (was_moved || !is_as_owner_defined) run.kept_off.reset();
  } else {
    const std::uint64_t more_mib = amount > run.memory_mib ? amount - run.memory_mib : 0;
    if (more_mib > host.free_memory_mib)
      return Refusal{host_error::kNoMemory, fmt::format("The host has {} MiB of free memory", host.free_memory_mib)};
    run.memory_mib = amount;
  }
  store::Transaction transaction;
  transaction.compares = {{records::RunKey(guest_id), (*stored)->revision}};
  AddClaimCompare(transaction);
  transaction.operations = {{records::RunKey(guest_id), records::SerializeRun(run)}};
  BeforeStep("live reserve");
  const auto committed = options_.store->Commit(transaction);
  return committed ? Result<void, Refusal>() : RefusalOf(committed.error());
}

// Whether the image of a disk could grow to the recorded size, now or at the next start.
Result<void, Refusal> LibvirtGuestControl::CheckGrowth(const records::Guest& guest, const std::string& disk_id) {
  const auto disk = std::ranges::find(guest.records.disks, disk_id, [](const auto& part) { return part.first; });
  if (disk == guest.records.disks.end()) return Refusal{host_error::kBadDisk, "The guest does not have the disk"};
  const auto path = disks::NormalPath(json::StringMember(disk->second, disks::kDiskPath));
  if (!path) return Refusal{host_error::kBadDisk, "The disk has no file that could grow"};
  const disks::DiskFiles files(options_.image_roots, disks::FileSystemCalls());
  const auto found = files.Examine(*path);
  if (!found) return Refusal{host_error::kBadDisk, found.error().ToString()};
  disks::FileReferrerQuery query;
  query.host_id = options_.host_id;
  query.except_disks = {disk_id};
  const auto referrers =
      disks::FindFileReferrers(*options_.store, query, {{*path, disks::QueriedFile{found->identity, ""}}});
  if (!referrers) return RefusalOf(referrers.error());
  if (referrers->empty()) return {};
  return Refusal{host_error::kBadDisk, fmt::format("The file '{}' cannot grow, because {}", SanitizePathForLog(*path),
                                                   disks::Describe(referrers->begin()->second))};
}

Result<void, Refusal> LibvirtGuestControl::ClearImageIsSmaller(const std::string& disk_id, std::uint64_t size_mib) {
  BeforeStep("live grown");
  const std::string key = records::ObjectKey(DashCate::vDisk.name(), disk_id);
  const Status cleared =
      records::CommitWithRetry(*options_.store, [&](const records::Reader& reader) -> Result<store::Transaction> {
        auto disk = records::LoadObject(reader, key);
        if (!disk) return disk.error();
        store::Transaction transaction;
        // Its recorded size has changed meanwhile, or it was removed.
        if (disk->revision == 0 || json::UInt64(json::Member(disk->record, keys::size)) != size_mib) return transaction;
        disk->record.removeMember(kImageIsSmaller);
        records::PutObject(transaction, key, *disk);
        return transaction;
      });
  return cleared ? Result<void, Refusal>() : RefusalOf(cleared.error());
}

// For the start of a guest: the images that a running guest could not take at their recorded sizes. One that cannot
// grow keeps its size, which is then pending again.
void LibvirtGuestControl::GrowImages(const records::Guest& guest) {
  if (guest.repository_host_id != options_.host_id) return;
  const disks::DiskFiles files(options_.image_roots, disks::FileSystemCalls());
  for (const auto& part : guest.records.disks) {
    const std::string& id = part.first;
    const Json::Value& disk = part.second;
    if (!json::Bool(json::Member(disk, kImageIsSmaller))) continue;
    const auto path = disks::NormalPath(json::StringMember(disk, disks::kDiskPath));
    const std::uint64_t size_mib = json::UInt64(json::Member(disk, keys::size));
    const auto format =
        json::StringMember(disk, "driver") == "raw" ? domain_xml::ImageFormat::kRaw : domain_xml::ImageFormat::kQcow2;
    const auto grow = [&]() -> Result<void, Refusal> {
      if (const auto allowed = CheckGrowth(guest, id); !allowed.ok()) return allowed;
      const auto growth = disks::PlanGrowth(files, *path, format, size_mib << kBitsOfMib);
      // It has the size already: the host ended before it could record that.
      if (!growth && growth.error().code() != ErrorCode::kConflict) return RefusalOf(growth.error());
      BeforeStep("poweron: grow");
      if (growth) {
        if (const Status grown = disks::Grow(files, *growth); !grown) return RefusalOf(grown.error());
      }
      return ClearImageIsSmaller(id, size_mib);
    };
    if (const auto grown = grow(); !grown.ok()) {
      ::syslog(LOG_ERR, "The disk %s of the guest %s could not grow to its recorded size: %s", id.c_str(),
               guest.records.id.c_str(), grown.error().reason.c_str());
    }
  }
}

// For files of disks that were removed from a guest: true also when that is unknown.
bool LibvirtGuestControl::HasFileInMachine(const std::string& guest_id, const std::vector<std::string>& paths) {
  if (!HasUuidForm(guest_id)) return false;  // libvirt has no guest without one
  const auto state = hypervisor_->StateOf(guest_id);
  if (!state) return state.error().kind() != FailureKind::kNoSuchGuest;
  const bool is_saved = *state == hypervisor::GuestState::kSaved;
  if (!IsActive(*state) && !is_saved) return false;
  const auto xml = is_saved ? XmlOfStart(guest_id, true) : hypervisor_->RunningXmlOf(guest_id);
  if (!xml) return true;
  // A definition may spell the path in another way, or name the file as a backing file: its name anywhere is enough.
  return std::ranges::any_of(paths, [&](const std::string& path) {
    return !domain_xml::DiskElement(*xml, path).empty() ||
           xml->find(path.substr(path.rfind('/') + 1)) != std::string::npos;
  });
}

}  // namespace vexa::guests
