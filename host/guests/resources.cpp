#include "host/guests/resources.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "host/base/guest_settings.h"
#include "host/base/sanitize_for_log.h"
#include "host/domain_xml/domain_parse.h"
#include "host/storage/storage_condition.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Repo;

// The limits for disks and interfaces. A record may list more, but no such guest can be defined.
using domain_xml::kMaxDisks;
using domain_xml::kMaxNics;

constexpr std::uint64_t kMaxVcpus = GuestSettingOf("vcpu_num").max;
constexpr std::uint64_t kMaxMemoryMib = GuestSettingOf("vram_size").max;
constexpr std::int64_t kVirtio = 1;
constexpr std::size_t kMaxQuoted = 300;

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, kMaxQuoted) + "'"; }

// "1 processor", "2 processors"
std::string Counted(std::uint64_t count, const std::string& one, const std::string& several) {
  return fmt::format("{} {}", count, count == 1 ? one : several);
}

// Not set: the member is not a whole number from `least` to `most`. An absent member or null counts as `fallback`.
std::optional<std::uint64_t> NumberOf(const Json::Value& record, const char* member, std::uint64_t fallback,
                                      std::uint64_t least, std::uint64_t most) {
  const Json::Value& value = json::Member(record, member);
  const std::uint64_t number = value.isNull() ? fallback : json::UInt64(value);
  // json::UInt64 returns 0 for negative numbers and for those beyond 64 bits.
  if (!value.isNull() && !value.isUInt64()) return std::nullopt;
  if (number < least || number > most) return std::nullopt;
  return number;
}

std::string TextOf(const Json::Value& record, const char* member) {
  const Json::Value& value = json::Member(record, member);
  return value.isString() ? json::String(value) : std::string();
}

class Rater {
 public:
  Rater(const records::Guest& guest, const HostResources& host) : guest_(guest), host_(host) {}

  Rating Rate() {
    const std::optional<std::uint64_t> vcpus = NumberOf(record(), keys::vcpu_num, 1, 1, kMaxVcpus);
    const std::optional<std::uint64_t> pins = NumberOf(record(), keys::cpu_pin_num, 0, 0, vcpus.value_or(kMaxVcpus));
    RateRemote();
    const bool pins_refused = RatePermanentPinConflicts(vcpus, pins);
    RateVcpus(vcpus);
    RateNetworks();
    RateMemory();
    RateAvailability();
    std::vector<unsigned> chosen;
    if (host_.is_connected && !pins_refused) chosen = ChooseCpus(*pins);
    rating_.has_best_io = !host_.host_id.empty() && guest_.repository_host_id == host_.host_id;
    if (rating_.refusals.empty()) rating_.pinned_cpus = std::move(chosen);
    return std::move(rating_);
  }

 private:
  const Json::Value& record() const { return guest_.records.guest; }
  void Refuse(int code, std::string reason) { rating_.refusals.push_back({code, std::move(reason)}); }

  void RateRemote() {
    if (guest_.repository_host_id.empty() || guest_.repository_host_id == host_.host_id) return;
    const std::string host = Quoted(guest_.repository_host_id);
    if (json::Bool(json::Member(record(), keys::use_ovmf))) {
      Refuse(host_error::kRemoteEfi,
             fmt::format("The firmware is EFI, which needs the repository on the host itself, and the "
                         "guest's repository is on the host {}.",
                         host));
    }
    for (const auto& [id, disk] : guest_.records.disks) {
      if (NumberOf(disk, keys::vdisk_mode, kVirtio, kVirtio, kVirtio)) continue;
      return Refuse(host_error::kRemoteNotVirtio,
                    fmt::format("The disk {} is not VirtIO, which needs the repository on the host "
                                "itself, and the guest's repository is on the host {}.",
                                Quoted(id), host));
    }
  }

  // Refuses pins that would not be possible even if no other guest ran. True: it has refused.
  bool RatePermanentPinConflicts(std::optional<std::uint64_t> vcpus, std::optional<std::uint64_t> pins) {
    if (!pins) {
      Refuse(host_error::kNoCpuThreads,
             fmt::format("The record's 'cpu_pin_num' is not a number from 0 to {}, the guest's virtual CPUs.",
                         vcpus.value_or(kMaxVcpus)));
    } else if (host_.is_connected && *pins > 0 && *pins >= host_.cpus) {
      Refuse(host_error::kNoCpuThreads,
             fmt::format("The guest needs {} dedicated to it, and one more must remain free. The host has {}.",
                         Counted(*pins, "processor", "processors"), host_.cpus));
    } else {
      return false;
    }
    return true;
  }

  void RateVcpus(std::optional<std::uint64_t> vcpus) {
    if (!vcpus) {
      return Refuse(host_error::kTooManyVcpus,
                    fmt::format("The record's 'vcpu_num' is not a number from 1 to {}.", kMaxVcpus));
    }
    if (!host_.is_connected) return;
    const std::uint64_t limit = std::uint64_t{host_.cpus} * host_.vcpus_per_cpu;
    // The sum of numbers from records could wrap around.
    if (host_.vcpus_taken <= limit && *vcpus <= limit - host_.vcpus_taken) return;
    Refuse(host_error::kTooManyVcpus,
           fmt::format("The guest needs {}, and {} of the host's {} are taken.",
                       Counted(*vcpus, "virtual CPU", "virtual CPUs"), host_.vcpus_taken, limit));
  }

  void RateNetworks() {
    if (!host_.is_connected || !host_.has_network) return;
    std::set<std::string> checked;
    const std::size_t count = std::min(guest_.records.nics.size(), kMaxNics);
    for (std::size_t i = 0; i < count; ++i) {
      const Json::Value& member = json::Member(guest_.records.nics[i].second, "network_name");
      // A value that is not a string cannot be the name of a network.
      if (!member.isNull() && !member.isString()) {
        Refuse(host_error::kNoNetwork,
               fmt::format("The network of the interface {} is not a name.", Quoted(guest_.records.nics[i].first)));
        continue;
      }
      const std::string name = json::String(member);
      if (name.empty() || !checked.insert(name).second || host_.has_network(name)) continue;
      Refuse(host_error::kNoNetwork, fmt::format("The host has no network or bridge {}.", Quoted(name)));
    }
  }

  void RateMemory() {
    const auto memory_mib = NumberOf(record(), keys::vram_size, 0, 1, kMaxMemoryMib);
    if (!memory_mib) {
      return Refuse(host_error::kNoMemory,
                    fmt::format("The record's 'vram_size' is not a number from 1 to {} (MiB).", kMaxMemoryMib));
    }
    if (!host_.is_connected || *memory_mib <= host_.free_memory_mib) return;
    Refuse(host_error::kNoMemory,
           fmt::format("The guest needs {} MiB of memory, and {} MiB are free.", *memory_mib, host_.free_memory_mib));
  }

  void RateAvailability() {
    if (!host_.is_connected) Refuse(host_error::kUnavailable, "The host has no connection to its hypervisor.");
    const std::string& state = guest_.repository_state;
    const bool has_known_state = !guest_.repository_id.empty() && !state.empty();
    if (has_known_state && state == states::full) {
      Refuse(host_error::kUnavailable,
             fmt::format("The repository {} is full: remove files or disks that are no longer needed, make its file "
                         "system larger, or raise its limits.",
                         Quoted(guest_.repository_id)));
    } else if (has_known_state && !storage::IsUsableRepository(state)) {
      Refuse(host_error::kUnavailable,
             fmt::format("The repository {} is in the state {}.", Quoted(guest_.repository_id), Quoted(state)));
    }
    if (!host_.has_file) return;
    const std::size_t count = std::min(guest_.records.disks.size(), kMaxDisks);
    for (std::size_t i = 0; i < count; ++i) {
      const auto& [id, disk] = guest_.records.disks[i];
      const std::string path = TextOf(disk, "path");
      if (!path.empty() && host_.has_file(path)) continue;
      Refuse(host_error::kUnavailable,
             fmt::format("The file {} of the disk {} cannot be opened on the host.", Quoted(path), Quoted(id)));
    }
  }

  // The highest-numbered free processors, in ascending order, because the host itself uses the low ones more. Refuses
  // and returns none when there are not enough.
  std::vector<unsigned> ChooseCpus(std::uint64_t pins) {
    if (pins == 0) return {};
    std::set<unsigned> taken;
    for (const unsigned cpu : host_.pinned_cpus) {
      if (cpu < host_.cpus) taken.insert(cpu);
    }
    const std::uint64_t left = host_.cpus - taken.size();
    if (left <= pins) {
      Refuse(host_error::kNoCpuThreads,
             fmt::format("The guest needs {} dedicated to it, and one more must remain free. {} of the "
                         "host's {} are dedicated to other guests.",
                         Counted(pins, "processor", "processors"), taken.size(), host_.cpus));
      return {};
    }
    std::vector<unsigned> chosen;
    for (unsigned cpu = host_.cpus; chosen.size() < pins;) {
      if (taken.count(--cpu) == 0) chosen.push_back(cpu);
    }
    std::reverse(chosen.begin(), chosen.end());
    return chosen;
  }

  const records::Guest& guest_;
  const HostResources& host_;
  Rating rating_;
};

struct Keyword {
  int code;
  std::string_view keyword;
};
constexpr Keyword kKeywords[] = {{host_error::kNotFoundOrUnreadable, "unreadable"},
                                 {host_error::kAlreadyRunning, "running"},
                                 {host_error::kNotRunning, "not_running"},
                                 {host_error::kOnOtherHost, "elsewhere"},
                                 {host_error::kBusy, "busy"},
                                 {host_error::kNoNetwork, "no_network"},
                                 {host_error::kTooManyVcpus, "no_vcpu"},
                                 {host_error::kNoMemory, "no_memory"},
                                 {host_error::kRemoteNotVirtio, "remote_not_virtio"},
                                 {host_error::kNoCpuThreads, "no_cpu_threads"},
                                 {host_error::kRemoteEfi, "remote_efi"},
                                 {host_error::kUnavailable, "unavailable"},
                                 {host_error::kIncompatibleCpu, "incompatible_cpu"}};

}  // namespace

Rating Rate(const records::Guest& guest, const HostResources& host) { return Rater(guest, host).Rate(); }

std::string_view RefusalKeyword(int code) {
  const auto* const found = std::ranges::find(kKeywords, code, &Keyword::code);
  return found == std::end(kKeywords) ? "failed" : found->keyword;
}

Json::Value RatingData(const Rating& rating) {
  Json::Value data(Json::objectValue);
  data["available"] = rating.refusals.empty() && rating.not_placed.empty();
  Json::Value& status = data["status"] = Json::Value(Json::arrayValue);
  Json::Value& reasons = data["reasons"] = Json::Value(Json::arrayValue);
  std::set<std::string_view> added;
  for (const Refusal& refusal : rating.refusals) {
    const std::string_view keyword = RefusalKeyword(refusal.code);
    if (added.insert(keyword).second) status.append(std::string(keyword));
    reasons.append(refusal.reason);
  }
  if (!rating.not_placed.empty()) {
    status.append("no_placement");
    reasons.append(rating.not_placed);
  }
  if (rating.has_best_io) status.append("best_io");
  return data;
}

}  // namespace vexa::guests
