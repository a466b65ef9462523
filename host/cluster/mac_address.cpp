#include "host/cluster/mac_address.h"

#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/time_text.h"
#include "host/records/environment.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_network.h"

namespace vexa::cluster {
namespace {

using std::chrono::system_clock;

constexpr int kMaxAttempts = 64;
constexpr std::size_t kMaxExpiredPerCommit = 16;
constexpr char kTime[] = "time";

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string LowerCase(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), Lower);
  return result;
}

// Finds a lower-case string in other strings, ignoring their case (Boyer-Moore-Horspool search).
class CaseInsensitiveFinder {
 public:
  explicit CaseInsensitiveFinder(std::string lower) : lower_(std::move(lower)) {
    skip_.fill(lower_.size());
    for (std::size_t i = 0; i + 1 < lower_.size(); ++i) {
      skip_[static_cast<unsigned char>(lower_[i])] = lower_.size() - 1 - i;
    }
  }

  bool OccursIn(std::string_view text) const {
    for (std::size_t end = lower_.size(); end <= text.size();) {
      const std::string_view window = text.substr(end - lower_.size(), lower_.size());
      if (std::ranges::equal(window, lower_, {}, Lower)) return true;
      end += skip_[static_cast<unsigned char>(Lower(window.back()))];
    }
    return false;
  }

 private:
  const std::string lower_;
  std::array<std::size_t, 256> skip_;
};

std::string FormatMac(std::uint64_t random) {
  char text[18];
  const auto octet = [random](int shift) { return static_cast<unsigned int>(random >> shift & 0xFF); };
  std::snprintf(text, sizeof text, "02:%02x:%02x:%02x:%02x:%02x", octet(32), octet(24), octet(16), octet(8), octet(0));
  return text;
}

// An unreadable reservation counts as expired. So does one from a clock more than a day ahead, which would otherwise
// stay for as long as that clock was wrong.
bool IsExpired(std::string_view text, Json::Int64 now_s) {
  const Result<Json::Value> reservation = ParseJson(text);
  if (!reservation) return true;
  const Json::Int64 time = json::Int64(json::Member(*reservation, kTime));
  const Json::Int64 day = std::chrono::seconds(kMacReservationLifetime).count();
  return time <= now_s - day || time >= now_s + day;
}

// The commit that reserves `mac`; not set when it is already reserved. The commit also deletes a few expired
// reservations with the same last octet, so that they do not accumulate.
Result<std::optional<store::Transaction>> PlanReservation(const store::Store& store, const std::string& mac,
                                                          Json::Int64 now_s) {
  Result<std::unique_ptr<store::Snapshot>> snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const std::string own = records::MacReservationKey(mac);
  bool is_reserved = false;
  store::Compare compare{own, 0};
  store::Transaction transaction;
  const Status scanned =
      (*snapshot)->Scan(records::MacReservationsPrefix(mac), [&](std::string_view key, const store::ValueView& value) {
        const bool expired = IsExpired(value.text, now_s);
        if (key == own) {
          is_reserved = !expired;
          compare.revision = value.revision;
        } else if (expired && transaction.operations.size() < kMaxExpiredPerCommit) {
          transaction.compares.push_back({std::string(key), value.revision});
          transaction.operations.push_back({std::string(key), std::nullopt});
        }
        return !is_reserved;
      });
  if (!scanned) return scanned.error();
  if (is_reserved) return std::optional<store::Transaction>();
  Json::Value reservation(Json::objectValue);
  reservation[kTime] = now_s;
  transaction.compares.push_back(std::move(compare));
  transaction.operations.push_back({own, json::ToText(reservation)});
  return std::optional(std::move(transaction));
}

}  // namespace

MacSource SystemMacSource() {
  return {[] { return system_clock::now(); },
          []() -> Result<std::uint64_t> {
            std::uint64_t random = 0;
            if (::getrandom(&random, sizeof random, 0) == static_cast<ssize_t>(sizeof random)) return random;
            return SystemError(ErrorCode::kInternal, "Cannot get random numbers for a MAC address", errno);
          }};
}

Result<std::optional<std::string>> GuestOfMacAddress(const store::Store& store, std::string_view mac) {
  if (mac.empty()) return std::optional<std::string>();
  Result<std::unique_ptr<store::Snapshot>> snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  const std::string lower = LowerCase(mac);
  const CaseInsensitiveFinder finder(lower);
  std::optional<std::string> guest;
  const std::string prefix = records::CategoryKey(VexaCCC::DB::DashCate::vNic.name());
  const Status scanned = (*snapshot)->Scan(prefix, [&](std::string_view, const store::ValueView& value) {
    // Parsing every record would be slow. A record that does not match may still contain the address in escaped form.
    if (!finder.OccursIn(value.text) && value.text.find('\\') == std::string_view::npos) return true;
    const Result<Json::Value> record = ParseJson(value.text);
    // A damaged record uses no address: it must not make every check fail.
    if (!record) return true;
    const Json::Value& used = json::Member(*record, VexaCCC::DB::_k::mac_address);
    if (!used.isString() || LowerCase(json::String(used)) != lower) return true;
    guest = json::String(json::Member(*record, VexaCCC::DB::_k::guest_id));
    return false;
  });
  if (!scanned) return scanned.error();
  return guest;
}

Result<std::string> ReserveMacAddress(store::Store& store, const MacSource& source) {
  for (int i = 0; i < kMaxAttempts; ++i) {
    const Result<std::uint64_t> random = source.random();
    if (!random) return random.error();
    std::string mac = FormatMac(*random);
    const auto plan = PlanReservation(store, mac, ToUnixSeconds(source.now()));
    if (!plan) return plan.error();
    if (!plan->has_value()) continue;
    const Result<store::Revision> reserved = store.Commit(**plan);
    if (!reserved && reserved.error().code() == ErrorCode::kConflict) continue;
    if (!reserved) return reserved.error();
    // After the reservation: this finds records written before it, and the writers of later records check it.
    const auto guest = GuestOfMacAddress(store, mac);
    if (!guest) return guest.error();
    if (!guest->has_value()) return mac;
  }
  return Error(ErrorCode::kBusy, "No MAC address was free in many tries");
}

}  // namespace vexa::cluster

namespace VexaCCC {

int VNicMacAddrCheck(const std::string& mac, std::string* guest_id) {
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  if (guest_id) guest_id->clear();
  if (!environment) return -1;
  auto guest = vexa::cluster::GuestOfMacAddress(*environment->store, mac);
  if (!guest) return -1;
  if (!guest->has_value()) return 0;
  if (guest_id) *guest_id = std::move(**guest);
  return 1;
}

int VNicMacAddrGen(std::string& mac) {
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  if (!environment) return -1;
  auto reserved = vexa::cluster::ReserveMacAddress(*environment->store, vexa::cluster::SystemMacSource());
  if (!reserved) return -1;
  mac = std::move(*reserved);
  return 0;
}

}  // namespace VexaCCC
