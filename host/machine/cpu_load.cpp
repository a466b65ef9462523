#include "host/machine/cpu_load.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <thread>
#include <utility>

namespace vexa::machine {
namespace {

constexpr std::chrono::milliseconds kMinWindow{200};
constexpr std::chrono::seconds kMaxWindow{5};

// 0 if the counter went backwards.
std::uint64_t Increase(std::uint64_t before, std::uint64_t after) { return after > before ? after - before : 0; }

}  // namespace

std::optional<CpuTimes> ParseCpuTimes(std::string_view stat) {
  // The fields: user nice system idle iowait irq softirq steal. "guest" and "guest_nice" follow, but are included in
  // the first two. Kernels may omit the last fields.
  std::array<std::uint64_t, 8> ticks{};
  const std::vector<std::string_view> fields = Fields(stat.substr(0, stat.find('\n')));
  if (fields.size() < 5 || fields[0] != "cpu") return std::nullopt;
  for (std::size_t i = 0; i < ticks.size() && i + 1 < fields.size(); ++i) {
    const std::optional<std::uint64_t> number = ParseUnsigned(fields[i + 1]);
    // Larger values cannot be ticks, and their sums could overflow.
    if (!number || *number >> 56 != 0) return std::nullopt;
    ticks[i] = *number;
  }
  return CpuTimes{ticks[0] + ticks[1], ticks[2] + ticks[5] + ticks[6], ticks[4] + ticks[7], ticks[3]};
}

CpuLoad LoadBetween(const CpuTimes& before, const CpuTimes& after) {
  const std::uint64_t user = Increase(before.user, after.user);
  const std::uint64_t system = Increase(before.system, after.system);
  const std::uint64_t other = Increase(before.other, after.other);
  const std::uint64_t total = user + system + other + Increase(before.idle, after.idle);
  if (total == 0) return {};
  const auto percent = [total](std::uint64_t part, int most) {
    const double share = 100.0 * static_cast<double>(part) / static_cast<double>(total);
    return std::min(static_cast<int>(std::lround(share)), most);
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

std::optional<CpuSampler::Sample> CpuSampler::TakeSample() const {
  const std::optional<std::string> text = machine_.Read("/proc/stat");
  const std::optional<CpuTimes> times = text ? ParseCpuTimes(*text) : std::nullopt;
  if (!times) return std::nullopt;
  return Sample{*times, clock_.now()};
}

std::optional<CpuLoad> CpuSampler::Read() {
  // Intentional: stays locked while sleeping, so that callers that arrive meanwhile wait for the result of this window.
  const MutexLock lock(mutex_);
  const auto age = last_ ? clock_.now() - last_->taken : kMaxWindow + kMinWindow;
  if (age < kMinWindow && load_) return load_;
  if (age < kMinWindow || age > kMaxWindow) {
    load_.reset();
    last_ = TakeSample();
    if (!last_) return std::nullopt;
    clock_.sleep(kMinWindow);
  }
  const std::optional<Sample> now = TakeSample();
  load_ = now && last_ ? std::optional(LoadBetween(last_->times, now->times)) : std::nullopt;
  last_ = now;
  return load_;
}

}  // namespace vexa::machine
