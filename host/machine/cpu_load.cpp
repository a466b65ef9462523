#include "host/machine/cpu_load.h"

#include <algorithm>
#include <array>
#include <thread>
#include <utility>

namespace vexa::services {
namespace {

constexpr std::chrono::milliseconds kShortest{200};
constexpr std::chrono::seconds kLongest{5};

std::uint64_t Grown(std::uint64_t before, std::uint64_t after) { return after > before ? after - before : 0; }

}  // namespace

std::optional<CpuTimes> ParseCpuTimes(std::string_view stat) {
  // user nice system idle iowait irq softirq steal; "guest" and "guest_nice" follow and are included in the first two.
  // Kernels may omit the last fields.
  std::array<std::uint64_t, 8> ticks{};
  const std::vector<std::string_view> fields = Fields(stat.substr(0, stat.find('\n')));
  if (fields.size() < 5 || fields[0] != "cpu") return std::nullopt;
  for (std::size_t i = 0; i < ticks.size() && i + 1 < fields.size(); ++i) {
    const std::optional<std::uint64_t> number = ParseUnsigned(fields[i + 1]);
    // Larger values cannot be ticks, and their sums would wrap around.
    if (!number || *number >> 56 != 0) return std::nullopt;
    ticks[i] = *number;
  }
  return CpuTimes{ticks[0] + ticks[1], ticks[2] + ticks[5] + ticks[6], ticks[4] + ticks[7], ticks[3]};
}

CpuLoad LoadBetween(const CpuTimes& before, const CpuTimes& after) {
  const std::uint64_t user = Grown(before.user, after.user);
  const std::uint64_t system = Grown(before.system, after.system);
  const std::uint64_t other = Grown(before.other, after.other);
  const std::uint64_t total = user + system + other + Grown(before.idle, after.idle);
  if (total == 0) return {};
  const auto percent = [total](std::uint64_t part, int most) {
    const double share = 100.0 * static_cast<double>(part) / static_cast<double>(total);
    return std::min(static_cast<int>(share + 0.5), most);
  };
  CpuLoad load;
  load.user = percent(user, 100);
  load.system = percent(system, 100 - load.user);
  load.other = percent(other, 100 - load.user - load.system);
  return load;
}

CpuSampler::CpuSampler(Machine machine, Clock clock) : machine_(std::move(machine)), clock_(std::move(clock)) {}

CpuSampler::Clock CpuSampler::SystemClock() {
  return {[] { return std::chrono::steady_clock::now(); },
          [](std::chrono::milliseconds duration) { std::this_thread::sleep_for(duration); }};
}

std::optional<CpuSampler::Sample> CpuSampler::Take() const {
  const std::optional<std::string> text = machine_.Read("/proc/stat");
  const std::optional<CpuTimes> times = text ? ParseCpuTimes(*text) : std::nullopt;
  if (!times) return std::nullopt;
  return Sample{*times, clock_.now()};
}

std::optional<CpuLoad> CpuSampler::Read() {
  // Held while sleeping: callers that arrive meanwhile get the result of this window.
  const std::lock_guard lock(mutex_);
  const auto age = last_ ? clock_.now() - last_->taken : kLongest + kShortest;
  if (age < kShortest && load_) return load_;
  if (age < kShortest || age > kLongest) {
    load_.reset();
    last_ = Take();
    if (!last_) return std::nullopt;
    clock_.sleep(kShortest);
  }
  const std::optional<Sample> now = Take();
  load_ = now && last_ ? std::optional(LoadBetween(last_->times, now->times)) : std::nullopt;
  last_ = now;
  return load_;
}

}  // namespace vexa::services
