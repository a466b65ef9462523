#include "host/guests/resources.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "host/base/guest_settings.h"
#include "host/base/log_text.h"
#include "host/domain_xml/domain_xml.h"
#include "host/storage/storage_condition.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace keys = VexaCCC::DB::_k;
namespace states = VexaCCC::State::Repo;

// A record may list more disks and interfaces; the hypervisor refuses such a guest anyway.
using hypervisor::kMaxDisks;
using hypervisor::kMaxNics;

constexpr std::uint64_t kMaxVcpus = GuestSettingOf("vcpu_num").max;
constexpr std::uint64_t kMaxMemoryMib = GuestSettingOf("vram_size").max;
constexpr std::int64_t kVirtio = 1;
constexpr std::size_t kMaxQuoted = 300;

std::string Quoted(const std::string& text) { return "'" + cluster::LogText(text, kMaxQuoted) + "'"; }

// "1 processor", "2 processors"
std::string Counted(std::uint64_t count, const std::string& one, const std::string& several) {
  return std::to_string(count) + " " + (count == 1 ? one : several);
}

// Not set: the member is not a whole number from `least` to `most`. Absent and null read as `fallback`.
std::optional<std::uint64_t> NumberOf(const Json::Value& record, const char* member, std::uint64_t fallback,
                                      std::uint64_t least, std::uint64_t most) {
  const Json::Value& value = json::Member(record, member);
  const std::uint64_t number = value.isNull() ? fallback : json::UInt64(value);
  // Beyond 64 bits, a conversion returns 0; it also does so for a negative number.
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
  Rater(const Guest& guest, const HostResources& host) : guest_(guest), host_(host) {}

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
    const std::string where = "the guest's repository is on the host " + Quoted(guest_.repository_host_id) + ".";
    if (json::Bool(json::Member(record(), keys::use_ovmf))) {
      Refuse(kRemoteEfi, "The firmware is EFI, which needs the repository on the host itself, and " + where);
    }
    for (const auto& [id, disk] : guest_.records.disks) {
      if (NumberOf(disk, keys::vdisk_mode, kVirtio, kVirtio, kVirtio)) continue;
      return Refuse(
          kRemoteNotVirtio,
          "The disk " + Quoted(id) + " is not VirtIO, which needs the repository on the host itself, and " + where);
    }
  }

  // Conflicts that the end of another guest would not resolve. True: it is refused.
  bool RatePermanentPinConflicts(std::optional<std::uint64_t> vcpus, std::optional<std::uint64_t> pins) {
    if (!pins) {
      Refuse(kNoCpuThreads, "The record's 'cpu_pin_num' is not a number from 0 to " +
                                std::to_string(vcpus.value_or(kMaxVcpus)) + ", the guest's virtual CPUs.");
    } else if (host_.is_connected && *pins > 0 && *pins >= host_.cpus) {
      Refuse(kNoCpuThreads, "The guest needs " + Counted(*pins, "processor", "processors") +
                                " dedicated to it, and one more must remain free. The host has " +
                                std::to_string(host_.cpus) + ".");
    } else {
      return false;
    }
    return true;
  }

  void RateVcpus(std::optional<std::uint64_t> vcpus) {
    if (!vcpus) {
      return Refuse(kNoVcpu, "The record's 'vcpu_num' is not a number from 1 to " + std::to_string(kMaxVcpus) + ".");
    }
    if (!host_.is_connected) return;
    const std::uint64_t limit = std::uint64_t{host_.cpus} * host_.vcpus_per_cpu;
    // The sum of numbers from records could wrap around.
    if (host_.vcpus_taken <= limit && *vcpus <= limit - host_.vcpus_taken) return;
    Refuse(kNoVcpu, "The guest needs " + Counted(*vcpus, "virtual CPU", "virtual CPUs") + ", and " +
                        std::to_string(host_.vcpus_taken) + " of the host's " + std::to_string(limit) + " are taken.");
  }

  void RateNetworks() {
    if (!host_.is_connected || !host_.has_network) return;
    std::set<std::string> asked;
    const std::size_t count = std::min(guest_.records.nics.size(), kMaxNics);
    for (std::size_t i = 0; i < count; ++i) {
      const Json::Value& member = json::Member(guest_.records.nics[i].second, "network_name");
      // Anything except a text does not name a network, so nothing can match.
      if (!member.isNull() && !member.isString()) {
        Refuse(kNoNetwork, "The network of the interface " + Quoted(guest_.records.nics[i].first) + " is not a name.");
        continue;
      }
      const std::string name = json::String(member);
      if (name.empty() || !asked.insert(name).second || host_.has_network(name)) continue;
      Refuse(kNoNetwork, "The host has no network or bridge " + Quoted(name) + ".");
    }
  }

  void RateMemory() {
    const auto memory_mib = NumberOf(record(), keys::vram_size, 0, 1, kMaxMemoryMib);
    if (!memory_mib) {
      return Refuse(kNoMemory,
                    "The record's 'vram_size' is not a number from 1 to " + std::to_string(kMaxMemoryMib) + " (MiB).");
    }
    if (!host_.is_connected || *memory_mib <= host_.free_memory_mib) return;
    Refuse(kNoMemory, "The guest needs " + std::to_string(*memory_mib) + " MiB of memory, and " +
                          std::to_string(host_.free_memory_mib) + " MiB are free.");
  }

  void RateAvailability() {
    if (!host_.is_connected) Refuse(kUnavailable, "The host has no connection to its hypervisor.");
    const std::string& state = guest_.repository_state;
    const bool is_judged = !guest_.repository_id.empty() && !state.empty();
    if (is_judged && state == states::full) {
      Refuse(kUnavailable, "The repository " + Quoted(guest_.repository_id) +
                               " is full: make room in it, or move disks to another repository.");
    } else if (is_judged && !IsUsableRepository(state)) {
      Refuse(kUnavailable,
             "The repository " + Quoted(guest_.repository_id) + " is in the state " + Quoted(state) + ".");
    }
    if (!host_.has_file) return;
    const std::size_t count = std::min(guest_.records.disks.size(), kMaxDisks);
    for (std::size_t i = 0; i < count; ++i) {
      const auto& [id, disk] = guest_.records.disks[i];
      const std::string path = TextOf(disk, "path");
      if (!path.empty() && host_.has_file(path)) continue;
      Refuse(kUnavailable,
             "The file " + Quoted(path) + " of the disk " + Quoted(id) + " cannot be opened on the host.");
    }
  }

  // In ascending order; none when there are not enough, which is then refused. Chosen from the highest down, because
  // low ones do more work for the host itself.
  std::vector<unsigned> ChooseCpus(std::uint64_t pins) {
    if (pins == 0) return {};
    std::set<unsigned> taken;
    for (const unsigned cpu : host_.pinned_cpus) {
      if (cpu < host_.cpus) taken.insert(cpu);
    }
    const std::uint64_t left = host_.cpus - taken.size();
    if (left <= pins) {
      Refuse(kNoCpuThreads, "The guest needs " + Counted(pins, "processor", "processors") +
                                " dedicated to it, and one more must remain free. " + std::to_string(taken.size()) +
                                " of the host's " + std::to_string(host_.cpus) + " are dedicated to other guests.");
      return {};
    }
    std::vector<unsigned> chosen;
    for (unsigned cpu = host_.cpus; chosen.size() < pins;) {
      if (taken.count(--cpu) == 0) chosen.push_back(cpu);
    }
    std::reverse(chosen.begin(), chosen.end());
    return chosen;
  }

  const Guest& guest_;
  const HostResources& host_;
  Rating rating_;
};

struct Word {
  int code;
  std::string_view word;
};
constexpr Word kWords[] = {{kUnreadable, "unreadable"},
                           {kRunsAlready, "running"},
                           {kNotRunning, "not_running"},
                           {kElsewhere, "elsewhere"},
                           {kBusy, "busy"},
                           {kNoNetwork, "no_network"},
                           {kNoVcpu, "no_vcpu"},
                           {kNoMemory, "no_memory"},
                           {kRemoteNotVirtio, "remote_not_virtio"},
                           {kNoCpuThreads, "no_cpu_threads"},
                           {kRemoteEfi, "remote_efi"},
                           {kUnavailable, "unavailable"},
                           {kIncompatibleCpu, "incompatible_cpu"}};

}  // namespace

Rating Rate(const Guest& guest, const HostResources& host) { return Rater(guest, host).Rate(); }

std::string_view RefusalWord(int code) {
  const auto* const found = std::ranges::find(kWords, code, &Word::code);
  return found == std::end(kWords) ? "failed" : found->word;
}

Json::Value RatingData(const Rating& rating) {
  Json::Value data(Json::objectValue);
  data["available"] = rating.refusals.empty();
  Json::Value& status = data["status"] = Json::Value(Json::arrayValue);
  Json::Value& reasons = data["reasons"] = Json::Value(Json::arrayValue);
  std::set<std::string_view> added;
  for (const Refusal& refusal : rating.refusals) {
    const std::string_view word = RefusalWord(refusal.code);
    if (added.insert(word).second) status.append(std::string(word));
    reasons.append(refusal.reason);
  }
  if (rating.has_best_io) status.append("best_io");
  return data;
}

}  // namespace vexa::guests
