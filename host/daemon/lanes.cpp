#include "host/daemon/lanes.h"

#include <algorithm>
#include <string>
#include <thread>
#include <utility>

namespace vexa::daemon {
namespace {

// Calls of one user in the quick lane, waiting and running.
constexpr std::size_t kQuickCallsPerUser = 1024;

int Processors() { return static_cast<int>(std::max(1u, std::thread::hardware_concurrency())); }

// How many of a lane's threads one caller may block: others always find some.
std::size_t MostOf(int threads) {
  const int reserve = std::max(1, threads / 8);
  return static_cast<std::size_t>(std::max(1, threads - reserve));
}

// Threads for calls that may wait; without limits for a caller.
LaneOptions WaitingLane(const Config& config, std::string name) {
  LaneOptions options;
  options.name = std::move(name);
  options.min_threads = 0;
  options.max_threads = config.long_threads;
  options.grow_after = std::chrono::milliseconds(0);
  return options;
}

// A host has fewer calls than there are threads (CheckConfig), so calls that hang leave some to other hosts.
LaneOptions LaneOfHosts(const Config& config, std::string name) {
  LaneOptions options = WaitingLane(config, std::move(name));
  options.limits.per_user = static_cast<std::size_t>(config.calls_per_user);
  options.limits.per_host = static_cast<std::size_t>(config.calls_per_host);
  options.limits.running_per_user = MostOf(config.long_threads);
  return options;
}

}  // namespace

LaneOptions QuickLane() {
  const int processors = Processors();
  LaneOptions options;
  options.name = "quick";
  options.min_threads = 2 * processors;
  options.max_threads = std::max(64, options.min_threads);
  options.limits.per_user = kQuickCallsPerUser;
  options.limits.running_per_user = MostOf(options.max_threads);
  options.limits.active_per_user = static_cast<std::size_t>(processors);
  return options;
}

LaneOptions LongLane(const Config& config) {
  LaneOptions options = WaitingLane(config, "long");
  options.limits.per_user = static_cast<std::size_t>(config.calls_per_user);
  options.limits.running_per_user = MostOf(config.long_threads);
  options.limits.active_per_user = static_cast<std::size_t>(Processors());
  options.stack_bytes = std::size_t{256} << 10;
  return options;
}

LaneOptions HostLane(const Config& config) { return LaneOfHosts(config, "hosts"); }
LaneOptions QuickHostLane(const Config& config) { return LaneOfHosts(config, "hquick"); }

// Without a limit for running calls: a call may wait for another one in this lane.
LaneOptions LocalLane(const Config& config) { return WaitingLane(config, "local"); }

LaneOptions ItemLane(const Config& config) {
  LaneOptions options = WaitingLane(config, "items");
  options.limits.running_per_user = MostOf(config.long_threads);
  return options;
}

}  // namespace vexa::daemon
