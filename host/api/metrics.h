// Counts requests, connections and threads, for a monitoring system.
//
// Written by hand because the text is a few lines of format, and each row of the API table has its counters at a fixed
// index: a request costs a few atomic additions, and no label is looked up.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "host/api/api_table.h"
#include "host/base/lane.h"
#include "host/base/mutex.h"
#include "host/http/http_server.h"

namespace vexa::api {

// The consoles of one type.
struct ConsoleStats {
  std::string type;
  std::uint64_t open = 0;
  std::uint64_t opened = 0;
  std::uint64_t bytes_to_guest = 0;
  std::uint64_t bytes_from_guest = 0;
};

// Threads: any, at the same time.
class Metrics {
 public:
  // `table` must outlive it.
  explicit Metrics(const ApiTable& table);

  // Counts one answered request of a method. `code`: 0 for success, otherwise the error code. `took`: from the complete
  // header until the response is handed over.
  void Count(const ApiRow& row, int code, std::chrono::nanoseconds took);

  // Counts one request for a console that was refused with this code.
  enum class ConsoleCaller { kUser, kHost };
  void CountConsoleRefusal(ConsoleCaller caller, int code);

  struct Gauges {
    http::ServerStats server;
    std::vector<std::pair<std::string, LaneStats>> lanes;
    std::size_t sessions = 0;
    std::vector<ConsoleStats> consoles;
  };
  // The Prometheus text exposition format, version 0.0.4.
  std::string ToText(const Gauges& gauges) const;

 private:
  // Upper bounds in microseconds; one more bucket takes the rest.
  static constexpr std::array<std::int64_t, 12> kBounds = {100,    250,    500,     1'000,     2'500,      5'000,
                                                           10'000, 50'000, 250'000, 1'000'000, 10'000'000, 60'000'000};
  struct Series {
    std::atomic<std::uint64_t> successes{0};
    std::array<std::atomic<std::uint64_t>, kBounds.size() + 1> buckets{};
    std::atomic<std::uint64_t> total_us{0};
    mutable Mutex mutex;
    std::map<int, std::uint64_t> errors VEXA_GUARDED_BY(mutex);  // by code
  };
  void AppendSeries(std::string& text, const ApiRow& row, const Series& series) const;
  void AppendConsoles(std::string& text, const std::vector<ConsoleStats>& consoles) const;

  const ApiTable& table_;
  std::vector<Series> series_;  // in the table's order
  mutable Mutex consoles_mutex_;
  std::map<std::pair<ConsoleCaller, int>, std::uint64_t> refused_consoles_ VEXA_GUARDED_BY(consoles_mutex_);
};

}  // namespace vexa::api
