#include "host/api/metrics.h"

#include <fmt/format.h>

namespace vexa::api {
namespace {

std::string Labels(const ApiRow& row) {
  // Names of APIs and methods contain only letters, digits, dots and underscores: nothing to escape.
  return fmt::format("api=\"{}\",method=\"{}\"", row.api, row.method);
}

void Append(std::string& text, const std::string& name, const std::string& labels, const std::string& value) {
  text += name;
  if (!labels.empty()) text += "{" + labels + "}";
  text += " " + value + "\n";
}

void Append(std::string& text, const std::string& name, const std::string& labels, std::uint64_t value) {
  Append(text, name, labels, std::to_string(value));
}

std::string Seconds(std::uint64_t microseconds) {
  return fmt::format("{:.6f}", static_cast<double>(microseconds) / 1e6);
}

void AppendHelp(std::string& text, const char* name, const char* type, const char* help) {
  text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
}

void AppendLanes(std::string& text, const std::vector<std::pair<std::string, LaneStats>>& lanes) {
  const auto family = [&](const char* name, const char* type, const char* help, auto value) {
    AppendHelp(text, name, type, help);
    for (const auto& [lane, stats] : lanes) {
      Append(text, name, fmt::format("lane=\"{}\"", lane), static_cast<std::uint64_t>(value(stats)));
    }
  };
  family("vexa_lane_threads", "gauge", "Threads of a lane.", [](const LaneStats& s) { return s.threads; });
  family("vexa_lane_busy", "gauge", "Busy threads of a lane.", [](const LaneStats& s) { return s.busy; });
  family("vexa_lane_queued", "gauge", "Requests that wait in a lane.", [](const LaneStats& s) { return s.queued; });
  family("vexa_lane_refused_total", "counter", "Requests that a lane refused.",
         [](const LaneStats& s) { return s.refused; });
  family("vexa_lane_over_quota_total", "counter", "Those of them whose caller had too many requests in progress.",
         [](const LaneStats& s) { return s.over_quota; });
}

}  // namespace

Metrics::Metrics(const ApiTable& table) : table_(table), series_(table.rows().size()) {}

void Metrics::Count(const ApiRow& row, int code, std::chrono::nanoseconds took) {
  Series& series = series_[static_cast<std::size_t>(&row - table_.rows().data())];
  const std::int64_t us = std::chrono::duration_cast<std::chrono::microseconds>(took).count();
  std::size_t bucket = 0;
  while (bucket < kBounds.size() && us > kBounds[bucket]) ++bucket;
  series.buckets[bucket].fetch_add(1, std::memory_order_relaxed);
  series.total_us.fetch_add(static_cast<std::uint64_t>(us), std::memory_order_relaxed);
  if (code == 0) {
    series.successes.fetch_add(1, std::memory_order_relaxed);
  } else {
    const MutexLock lock(series.mutex);
    ++series.errors[code];
  }
}

void Metrics::AppendSeries(std::string& text, const ApiRow& row, const Series& series) const {
  const std::string labels = Labels(row);
  std::uint64_t count = 0;
  for (std::size_t i = 0; i < kBounds.size(); ++i) {
    count += series.buckets[i].load(std::memory_order_relaxed);
    Append(text, "vexa_request_duration_seconds_bucket",
           fmt::format("{},le=\"{}\"", labels, Seconds(static_cast<std::uint64_t>(kBounds[i]))), count);
  }
  count += series.buckets[kBounds.size()].load(std::memory_order_relaxed);
  Append(text, "vexa_request_duration_seconds_bucket", labels + ",le=\"+Inf\"", count);
  Append(text, "vexa_request_duration_seconds_sum", labels, Seconds(series.total_us.load(std::memory_order_relaxed)));
  Append(text, "vexa_request_duration_seconds_count", labels, count);
}

void Metrics::CountConsoleRefusal(ConsoleCaller caller, int code) {
  const MutexLock lock(consoles_mutex_);
  ++refused_consoles_[{caller, code}];
}

void Metrics::AppendConsoles(std::string& text, const std::vector<ConsoleStats>& consoles) const {
  const auto family = [&](const char* name, const char* type, const char* help, auto value) {
    AppendHelp(text, name, type, help);
    for (const ConsoleStats& stats : consoles) Append(text, name, fmt::format("type=\"{}\"", stats.type), value(stats));
  };
  family("vexa_consoles", "gauge", "Open consoles.", [](const ConsoleStats& s) { return s.open; });
  family("vexa_consoles_opened_total", "counter", "Consoles that were opened.",
         [](const ConsoleStats& s) { return s.opened; });
  family("vexa_console_bytes_to_guests_total", "counter", "Bytes that guests took from consoles.",
         [](const ConsoleStats& s) { return s.bytes_to_guest; });
  family("vexa_console_bytes_from_guests_total", "counter", "Bytes that guests sent to consoles.",
         [](const ConsoleStats& s) { return s.bytes_from_guest; });
  AppendHelp(text, "vexa_consoles_refused_total", "counter", "Requests for consoles that were refused, by error code.");
  const MutexLock lock(consoles_mutex_);
  for (const auto& [key, count] : refused_consoles_) {
    const char* const caller = key.first == ConsoleCaller::kHost ? "host" : "user";
    Append(text, "vexa_consoles_refused_total", fmt::format("caller=\"{}\",code=\"{}\"", caller, key.second), count);
  }
}

std::string Metrics::ToText(const Gauges& gauges) const {
  std::string text;
  AppendHelp(text, "vexa_requests_total", "counter", "Answered requests by API method and error code (0: success).");
  for (std::size_t i = 0; i < series_.size(); ++i) {
    const std::string labels = Labels(table_.rows()[i]);
    Append(text, "vexa_requests_total", labels + ",code=\"0\"", series_[i].successes.load(std::memory_order_relaxed));
    const MutexLock lock(series_[i].mutex);
    for (const auto& [code, count] : series_[i].errors) {
      Append(text, "vexa_requests_total", fmt::format("{},code=\"{}\"", labels, code), count);
    }
  }
  AppendHelp(text, "vexa_request_duration_seconds", "histogram", "Time from a request's header to its answer.");
  for (std::size_t i = 0; i < series_.size(); ++i) AppendSeries(text, table_.rows()[i], series_[i]);
  AppendLanes(text, gauges.lanes);
  AppendHelp(text, "vexa_connections", "gauge", "Open connections.");
  Append(text, "vexa_connections", "", gauges.server.connections);
  AppendHelp(text, "vexa_connections_accepted_total", "counter", "Accepted connections.");
  Append(text, "vexa_connections_accepted_total", "", gauges.server.connections_accepted);
  AppendHelp(text, "vexa_connections_refused_total", "counter", "Connections refused over a limit.");
  Append(text, "vexa_connections_refused_total", "", gauges.server.connections_refused);
  AppendHelp(text, "vexa_connections_evicted_total", "counter",
             "Connections closed, or requests ended, because room or memory was short.");
  Append(text, "vexa_connections_evicted_total", "", gauges.server.connections_evicted);
  AppendHelp(text, "vexa_http_refused_total", "counter", "Requests that the HTTP server itself refused.");
  Append(text, "vexa_http_refused_total", "", gauges.server.refused_by_server);
  AppendHelp(text, "vexa_sessions", "gauge", "Login sessions.");
  Append(text, "vexa_sessions", "", gauges.sessions);
  AppendConsoles(text, gauges.consoles);
  return text;
}

}  // namespace vexa::api
