#include "cli/log_command.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <iostream>
#include <limits>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/output.h"
#include "cli/printable.h"
#include "cli/reply.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kPageEntries = 1000;
// The log keeps at most a tenth of these pages. A server whose pages do not end is refused.
constexpr std::size_t kMaxPages = 100;
constexpr auto kPollInterval = std::chrono::seconds(1);
constexpr std::int64_t kMicroseconds = 1'000'000;

struct Page {
  CallOutcome outcome;
  std::vector<Json::Value> entries;  // the oldest first
  std::string next;
};

enum class Order { kNewestFirst, kOldestFirst };

Page ReadPage(HttpClient& client, const Json::Value& parameters, Order order) {
  Page page;
  page.outcome = TryApi(client, kLogList, RenderJson(parameters, JsonLayout::kOneLine));
  if (page.outcome.exit_code != ExitCode::kOk) return page;
  const Json::Value& entries = Member(page.outcome.data, "entries");
  if (!entries.isArray()) {
    page.outcome.exit_code = ExitCode::kFailed;
    page.outcome.failure = MissingInReply("entries of the log").ToString();
    return page;
  }
  page.entries.assign(entries.begin(), entries.end());
  if (order == Order::kNewestFirst) std::ranges::reverse(page.entries);
  page.next = Text(Member(page.outcome.data, "next"));
  return page;
}

ExitCode PrintFailure(const CallOutcome& outcome) {
  std::cerr << "vexa: " << outcome.failure << '\n';
  return outcome.exit_code;
}

// The newest `count` entries, the oldest first, page by page.
CallOutcome ReadNewest(HttpClient& client, std::size_t count, std::vector<Json::Value>& entries) {
  std::vector<std::vector<Json::Value>> pages;
  std::string cursor;
  CallOutcome outcome;
  while (count > 0) {
    Json::Value parameters(Json::objectValue);
    parameters["limit"] = static_cast<Json::UInt>(std::min(count, kPageEntries));
    if (!cursor.empty()) parameters["cursor"] = cursor;
    Page page = ReadPage(client, parameters, Order::kNewestFirst);
    outcome = std::move(page.outcome);
    if (outcome.exit_code != ExitCode::kOk) return outcome;
    count -= std::min(count, page.entries.size());
    pages.push_back(std::move(page.entries));
    if (page.next.empty()) break;
    if (page.next == cursor || pages.size() == kMaxPages) {
      outcome.exit_code = ExitCode::kFailed;
      outcome.failure = "The pages of the server's log do not end";
      return outcome;
    }
    cursor = page.next;
  }
  for (auto page = pages.rbegin(); page != pages.rend(); ++page) {
    for (Json::Value& entry : *page) entries.push_back(std::move(entry));
  }
  return outcome;
}

// "2026-03-01 12:00:00" in local time; "-" for an invalid time.
std::string LocalTime(const Json::Value& time_us) {
  const std::optional<std::int64_t> time = Integer(time_us);
  std::tm local{};
  const std::time_t seconds = time.value_or(0) / kMicroseconds;
  if (!time || ::localtime_r(&seconds, &local) == nullptr) return "-";
  char text[64];
  return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local)};
}

std::string PriorityText(const Json::Value& priority) {
  const std::string text = Text(priority);
  return text == "1" ? "failure" : text == "3" ? "success" : text.empty() ? "-" : text;
}

std::string OrDash(const std::string& text) { return text.empty() ? "-" : text; }

// " (3 times since 2026-03-01 12:00:00)" for refusals that were repeated.
std::string RepetitionText(const Json::Value& entry) {
  const std::int64_t count = Integer(Member(entry, "count")).value_or(1);
  return count > 1 ? fmt::format(" ({} times since {})", count, LocalTime(Member(entry, "first_time_us"))) : "";
}

void PrintEntry(const GlobalOptions& global, const Json::Value& entry) {
  if (global.json && CurrentDataFormat() == DataFormat::kYaml) {
    Json::Value list(Json::arrayValue);
    list.append(entry);
    std::cout << RenderYaml(list);
    return;
  }
  if (global.json && CurrentDataFormat() == DataFormat::kJson) {
    std::cout << RenderJson(entry, JsonLayout::kOneLine) << '\n';
    return;
  }
  if (global.json) {
    std::cout << Printable(Text(Member(entry, "text"))) << '\n';
    return;
  }
  const std::string host = Text(Member(entry, "host"));
  std::cout << LocalTime(Member(entry, "time_us")) << ' ' << Printable(PriorityText(Member(entry, "priority"))) << ' '
            << Printable(OrDash(host.empty() ? Text(Member(entry, "host_id")) : host)) << ' '
            << Printable(OrDash(Text(Member(entry, "user")))) << ": " << Printable(Text(Member(entry, "text")))
            << RepetitionText(entry) << '\n';
}

// The position after which following continues. Servers of older versions only have times.
std::int64_t NewestPosition(const std::vector<Json::Value>& entries, std::int64_t newest) {
  for (const Json::Value& entry : entries) {
    const bool has_position = entry.isObject() && entry.isMember("position");
    newest = std::max(newest, Integer(Member(entry, has_position ? "position" : "time_us")).value_or(newest));
  }
  return newest;
}

// During its lifetime, Ctrl-C ends the process with exit code 0, but not in the middle of a line.
class ExitZeroOnInterrupt {
 public:
  ExitZeroOnInterrupt() {
    sigemptyset(&interrupt_);
    sigaddset(&interrupt_, SIGINT);
    struct sigaction action {};
    if (::sigaction(SIGINT, nullptr, &original_) != 0 || original_.sa_handler == SIG_IGN) return;
    action.sa_handler = [](int) { ::_exit(static_cast<int>(ExitCode::kOk)); };
    ::sigaction(SIGINT, &action, nullptr);
  }
  ~ExitZeroOnInterrupt() { ::sigaction(SIGINT, &original_, nullptr); }
  ExitZeroOnInterrupt(const ExitZeroOnInterrupt&) = delete;
  ExitZeroOnInterrupt& operator=(const ExitZeroOnInterrupt&) = delete;

  void Print(const GlobalOptions& global, const std::vector<Json::Value>& entries) const {
    ::pthread_sigmask(SIG_BLOCK, &interrupt_, nullptr);
    for (const Json::Value& entry : entries) PrintEntry(global, entry);
    std::cout.flush();
    ::pthread_sigmask(SIG_UNBLOCK, &interrupt_, nullptr);
  }

 private:
  sigset_t interrupt_{};
  struct sigaction original_ {};
};

ExitCode Follow(HttpClient& client, const GlobalOptions& global, std::int64_t after, const ExitZeroOnInterrupt& end) {
  bool is_unreachable = false;
  while (std::cout) {
    Json::Value parameters(Json::objectValue);
    parameters["after"] = Json::Int64{after};
    parameters["limit"] = static_cast<Json::UInt>(kPageEntries);
    const Page page = ReadPage(client, parameters, Order::kOldestFirst);
    const bool is_temporary = IsTemporary(page.outcome);
    if (page.outcome.exit_code != ExitCode::kOk && !is_temporary) return PrintFailure(page.outcome);
    if (is_temporary && !is_unreachable) {
      PrintFailure(page.outcome);
      std::cerr << "vexa: Still trying\n";
    }
    if (!is_temporary && is_unreachable) std::cerr << "vexa: The server answers again\n";
    is_unreachable = is_temporary;
    end.Print(global, page.entries);
    const std::int64_t newest = NewestPosition(page.entries, after);
    // A full page: there may be more entries.
    const bool has_more = page.entries.size() >= kPageEntries && newest > after;
    after = newest;
    if (!has_more) std::this_thread::sleep_for(kPollInterval);
  }
  return ExitCode::kFailed;
}

}  // namespace

ExitCode RunLog(const GlobalOptions& global, const LogOptions& options) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  const bool is_following = options.following == LogOptions::Following::kYes;
  std::size_t count = options.count;
  if (options.range == LogOptions::Range::kAll) count = std::numeric_limits<std::size_t>::max();
  std::vector<Json::Value> entries;
  std::optional<ExitZeroOnInterrupt> end;
  if (is_following) end.emplace();
  // At least one, because following starts after the newest entry.
  const CallOutcome outcome = ReadNewest(client, is_following ? std::max<std::size_t>(count, 1) : count, entries);
  if (outcome.exit_code != ExitCode::kOk) return PrintFailure(outcome);
  const std::int64_t newest = NewestPosition(entries, 0);
  if (entries.size() > count) {
    entries.erase(entries.begin(), entries.end() - static_cast<std::ptrdiff_t>(count));
  }
  if (!is_following) {
    for (const Json::Value& entry : entries) PrintEntry(global, entry);
    return ExitCode::kOk;
  }
  end->Print(global, entries);
  return Follow(client, global, newest, *end);
}

}  // namespace vexa::cli
