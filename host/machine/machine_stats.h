// Reads what the kernel reports about memory, processors, disks and network interfaces.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>

#include "host/machine/machine.h"

namespace vexa::machine {

// In KiB. Values that the kernel does not report are 0.
struct MemoryStats {
  std::uint64_t total = 0;
  std::uint64_t free = 0;
  std::uint64_t buffers = 0;
  std::uint64_t cached = 0;
  std::uint64_t swap_total = 0;
  std::uint64_t swap_free = 0;
};

// Not set if /proc/meminfo cannot be read or does not contain the total.
std::optional<MemoryStats> ReadMemory(const Machine& machine);

struct ProcessorInfo {
  std::string model;     // "" when unknown
  int cores = 0;         // logical processors that are online; 0 when unknown
  double clock_mhz = 0;  // the maximum if known, otherwise the current one; 0 when neither is known
};

ProcessorInfo ReadProcessor(const Machine& machine);

// An array of {"device", "reads", "writes", "read_byte", "write_byte", "busy_ms"}, one element for each disk but not
// for partitions, counted since the machine started. Null when /proc/diskstats cannot be read.
Json::Value DiskCounters(const Machine& machine);

// An array of {"device", "rx", "tx", "rx_packets", "tx_packets", "rx_errors", "tx_errors"}, one element for each
// interface, counted since it appeared. "rx" and "tx" are bytes. Null when /proc/net/dev cannot be read.
Json::Value NetworkCounters(const Machine& machine);

// Whole seconds since the machine started; 0 when unknown.
std::uint64_t UptimeSeconds(const Machine& machine);

// The operating system's name and version; "" when unknown.
std::string SystemVersion(const Machine& machine);

}  // namespace vexa::machine
