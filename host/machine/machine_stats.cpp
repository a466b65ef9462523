#include "host/machine/machine_stats.h"

#include <array>
#include <charconv>
#include <limits>
#include <utility>

namespace vexa::machine {
namespace {

constexpr Json::ArrayIndex kMaxDevices = 4096;
constexpr std::uint64_t kSectorBytes = 512;  // the unit of /proc/diskstats, whatever the disk's own sector size

// Splits a line at the first separator and trims both parts. Both are "" without a separator.
std::pair<std::string_view, std::string_view> Split(std::string_view line, char separator) {
  const std::size_t at = line.find(separator);
  if (at == std::string_view::npos) return {};
  return {Trim(line.substr(0, at)), Trim(line.substr(at + 1))};
}

// 0 if it is not a number.
Json::UInt64 Number(std::string_view text) { return ParseUnsigned(text).value_or(0); }

// Limited to the maximum instead of overflowing.
Json::UInt64 SectorsToBytes(std::string_view sectors) {
  const std::uint64_t count = Number(sectors);
  return count > std::numeric_limits<std::uint64_t>::max() / kSectorBytes ? std::numeric_limits<std::uint64_t>::max()
                                                                          : count * kSectorBytes;
}

double Megahertz(std::string_view text) {
  double number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && number > 0 && number < 1e6 ? number : 0;
}

// Excludes partitions, which would be counted twice, and loop devices and RAM disks.
bool IsWholeDisk(const Machine& machine, std::string_view name) {
  for (const std::string_view prefix : {"loop", "ram", "zram"}) {
    if (name.starts_with(prefix)) return false;
  }
  if (name.find('/') != std::string_view::npos || name.find("..") != std::string_view::npos) return true;
  return !machine.ReadNumber("/sys/class/block/" + std::string(name) + "/partition");
}

// Returns an array of what `parse_line` returns for each line of the file at `path`, except null. Null when the file
// cannot be read.
template <class ParseLine>
Json::Value ReadDevices(const Machine& machine, const char* path, const ParseLine& parse_line) {
  const std::optional<std::string> text = machine.Read(path);
  if (!text) return {};
  Json::Value devices(Json::arrayValue);
  ForEachLine(*text, [&](std::string_view line) {
    Json::Value device = parse_line(line);
    if (!device.isNull()) devices.append(std::move(device));
    return devices.size() < kMaxDevices;
  });
  return devices;
}

}  // namespace

std::optional<MemoryStats> ReadMemory(const Machine& machine) {
  const std::optional<std::string> text = machine.Read("/proc/meminfo");
  if (!text) return std::nullopt;
  MemoryStats memory;
  const std::array<std::pair<std::string_view, std::uint64_t*>, 6> fields{{{"MemTotal", &memory.total},
                                                                           {"MemFree", &memory.free},
                                                                           {"Buffers", &memory.buffers},
                                                                           {"Cached", &memory.cached},
                                                                           {"SwapTotal", &memory.swap_total},
                                                                           {"SwapFree", &memory.swap_free}}};
  ForEachLine(*text, [&](std::string_view line) {
    const auto [name, value] = Split(line, ':');
    for (const auto& [field, target] : fields) {
      if (name == field) *target = Number(value.substr(0, value.find(' ')));
    }
    return true;
  });
  if (memory.total == 0) return std::nullopt;
  return memory;
}

ProcessorInfo ReadProcessor(const Machine& machine) {
  ProcessorInfo processor;
  const std::string text = machine.Read("/proc/cpuinfo").value_or("");
  ForEachLine(text, [&](std::string_view line) {
    const auto [name, value] = Split(line, ':');
    if (name == "processor") ++processor.cores;
    if (name == "model name" && processor.model.empty()) processor.model = CleanText(value);
    if (name == "cpu MHz" && processor.clock_mhz == 0) processor.clock_mhz = Megahertz(value);
    return true;
  });
  const std::uint64_t max_khz = machine.ReadNumber("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq").value_or(0);
  if (max_khz > 0 && max_khz < 1'000'000'000) processor.clock_mhz = static_cast<double>(max_khz) / 1000;
  return processor;
}

Json::Value DiskCounters(const Machine& machine) {
  return ReadDevices(machine, "/proc/diskstats", [&](std::string_view line) -> Json::Value {
    // The fields: major minor name reads merged sectors ms writes merged sectors ms running busy_ms …
    const std::vector<std::string_view> fields = Fields(line);
    if (fields.size() < 13 || !IsWholeDisk(machine, fields[2])) return {};
    Json::Value disk(Json::objectValue);
    disk["device"] = CleanText(fields[2]);
    disk["reads"] = Number(fields[3]);
    disk["read_byte"] = SectorsToBytes(fields[5]);
    disk["writes"] = Number(fields[7]);
    disk["write_byte"] = SectorsToBytes(fields[9]);
    disk["busy_ms"] = Number(fields[12]);
    return disk;
  });
}

Json::Value NetworkCounters(const Machine& machine) {
  return ReadDevices(machine, "/proc/net/dev", [](std::string_view line) -> Json::Value {
    const auto [name, counters] = Split(line, ':');
    const std::vector<std::string_view> fields = Fields(counters);
    if (name.empty() || fields.size() < 16) return {};  // also skips the two heading lines
    Json::Value device(Json::objectValue);
    device["device"] = CleanText(name);
    device["rx"] = Number(fields[0]);
    device["rx_packets"] = Number(fields[1]);
    device["rx_errors"] = Number(fields[2]);
    device["tx"] = Number(fields[8]);
    device["tx_packets"] = Number(fields[9]);
    device["tx_errors"] = Number(fields[10]);
    return device;
  });
}

std::uint64_t UptimeSeconds(const Machine& machine) {
  const std::string line = machine.ReadLine("/proc/uptime");
  return Number(std::string_view(line).substr(0, line.find('.')));
}

std::string SystemVersion(const Machine& machine) {
  std::string version;
  const std::string text = machine.Read("/etc/os-release").value_or("");
  ForEachLine(text, [&](std::string_view line) {
    auto [name, value] = Split(line, '=');
    if (name != "PRETTY_NAME") return true;
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.front() == value.back()) {
      value = value.substr(1, value.size() - 2);
    }
    version = CleanText(value);
    return false;
  });
  return version;
}

}  // namespace vexa::machine
