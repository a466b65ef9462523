#include "cli/guest_action_runner.h"

#include <fmt/format.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>
#include <thread>
#include <utility>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"

namespace vexa::cli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPower = "/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl";
constexpr const char* kDelete = "/webapi/VEXA.Virtualization.Guest/delete";
constexpr const char* kSuspend = "/webapi/VEXA.Virtualization.Guest/suspend";
constexpr const char* kResume = "/webapi/VEXA.Virtualization.Guest/resume";
constexpr const char* kSave = "/webapi/VEXA.Virtualization.Guest/save";
constexpr const char* kRestore = "/webapi/VEXA.Virtualization.Guest/restore";
constexpr const char* kDiscardSaved = "/webapi/VEXA.Virtualization.Guest/discard_saved";
constexpr const char* kRelease = "/webapi/VEXA.Virtualization.Guest/release";
constexpr auto kPollInterval = std::chrono::seconds(1);

struct ActionRow {
  GuestAction action;
  const char* path;
  const char* action_name;  // the "action" that the method expects; null: none
  const char* state;        // the resulting state; null: nothing to wait for
  const char* done_text;    // the result without --wait
  const char* waited_text;  // the result with it
};

constexpr ActionRow kActions[] = {
    {GuestAction::kStart, kPower, "poweron", "running", "started", "started"},
    {GuestAction::kStop, kPower, "shutdown", "shutdown", "asked to shut down", "shut down"},
    {GuestAction::kKill, kPower, "poweroff", "shutdown", "powered off", "powered off"},
    {GuestAction::kRestart, kPower, "reboot", nullptr, "rebooting", "rebooting"},
    {GuestAction::kSuspend, kSuspend, nullptr, nullptr, "suspended", "suspended"},
    {GuestAction::kResume, kResume, nullptr, nullptr, "resumed", "resumed"},
    {GuestAction::kSave, kSave, nullptr, nullptr, "saved", "saved"},
    {GuestAction::kRestore, kRestore, nullptr, nullptr, "restored", "restored"},
    {GuestAction::kDelete, kDelete, nullptr, nullptr, "deleted", "deleted"},
    {GuestAction::kDiscardSaved, kDiscardSaved, nullptr, nullptr, "without saved memory", "without saved memory"},
    {GuestAction::kRelease, kRelease, nullptr, nullptr, "released", "released"},
};

const ActionRow& RowOf(GuestAction action) { return *std::ranges::find(kActions, action, &ActionRow::action); }

std::string BodyOf(const ActionRow& row, const std::string& guest_id) {
  if (row.action_name == nullptr) return ParameterJson("guest_id", guest_id);
  Json::Value parameters(Json::objectValue);
  parameters["action"] = row.action_name;
  parameters["guest_id"] = guest_id;
  return RenderJson(parameters, JsonLayout::kOneLine);
}

std::size_t TerminalColumns() {
  constexpr std::size_t kDefaultColumns = 80;
  winsize size{};
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : kDefaultColumns;
}

std::string JoinNames(const std::vector<std::string>& names) {
  std::vector<std::string> printable;
  printable.reserve(names.size());
  for (const std::string& name : names) printable.push_back(Printable(name));
  return fmt::format("{}", fmt::join(printable, ", "));
}

}  // namespace

void GuestActionRunner::Work(std::size_t index) {
  try {
    PerformAction(index);
  } catch (const std::exception& exception) {
    Fail(index, Printable(exception.what()));
  }
}

void GuestActionRunner::PerformAction(std::size_t index) {
  const NamedGuest& guest = parts_.guests[index];
  const ActionRow& row = RowOf(parts_.options.action);
  Advance(index, Job::Stage::kSent, "asking");
  HttpClient client(parts_.calls);
  const CallOutcome outcome = TryApi(client, row.path, BodyOf(row, guest.id));
  if (outcome.exit_code != ExitCode::kOk) {
    return Fail(index, outcome.failure, outcome);
  }
  if (outcome.is_simulated) MarkSimulated(index);
  Advance(index, Job::Stage::kAnswered, "answered");
  if (parts_.options.waiting == Waiting::kUntilDone && row.state != nullptr) {
    if (std::optional<std::string> failure = WaitForState(index)) return Fail(index, *std::move(failure));
  }
  Succeed(index, SuccessText(guest));
}

std::optional<std::string> GuestActionRunner::WaitForState(std::size_t index) {
  const NamedGuest& guest = parts_.guests[index];
  const std::string wanted_state = RowOf(parts_.options.action).state;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(parts_.options.wait_timeout_s);
  std::string state = "not known";
  while (true) {
    // The timeout of a query is limited to the remaining time.
    const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    HttpClientOptions options = parts_.queries;
    options.timeout = std::clamp<std::chrono::milliseconds>(remaining, kPollInterval, options.timeout);
    HttpClient client(options);
    const CallOutcome outcome = TryApi(client, kGuestStatus, ParameterJson("guest_id", guest.id));
    if (outcome.exit_code == ExitCode::kOk) {
      if (!outcome.data.isObject()) return Printable(MissingInReply("guest").ToString());
      state = Text(Member(outcome.data, "status"));
      if (state == wanted_state) return std::nullopt;
    } else if (!IsTemporary(outcome)) {
      return fmt::format("Its state cannot be read: {}", outcome.failure);
    }
    const Clock::time_point now = Clock::now();
    if (now >= end) break;
    Advance(index, Job::Stage::kAnswered, outcome.exit_code == ExitCode::kOk ? state : "the server does not answer");
    std::this_thread::sleep_for(std::min<Clock::duration>(kPollInterval, end - now));
  }
  return fmt::format("After {} s it is not {}, but {}", parts_.options.wait_timeout_s, wanted_state, Printable(state));
}

std::string GuestActionRunner::SuccessText(const NamedGuest& guest) {
  const ActionRow& row = RowOf(parts_.options.action);
  const std::string text = parts_.options.waiting == Waiting::kUntilDone ? row.waited_text : row.done_text;
  if (row.action != GuestAction::kStart) return text;
  const std::string host = HostOf(guest);
  return host.empty() ? text : fmt::format("{} on {}", text, host);
}

// The name of the guest's host, or its id without a name. A guest without a host got one when it started, so the list
// of guests is read again. Empty when the host cannot be determined.
std::string GuestActionRunner::HostOf(const NamedGuest& guest) {
  std::string id = guest.host_id;
  if (id.empty()) {
    HttpClient client(parts_.queries);
    const CallOutcome outcome = TryApi(client, kGuestList, "{}");
    const Json::Value& list = Member(outcome.data, "guests");
    if (list.isArray()) id = GuestOf(list, guest.id).host_id;
  }
  const auto found = parts_.host_names.find(id);
  return found != parts_.host_names.end() && !found->second.empty() ? found->second : id;
}

void GuestActionRunner::Advance(std::size_t index, Job::Stage stage, std::string progress) {
  const MutexLock lock(mutex_);
  jobs_[index].stage = stage;
  jobs_[index].progress = std::move(progress);
}

void GuestActionRunner::Succeed(std::size_t index, std::string result) {
  const MutexLock lock(mutex_);
  jobs_[index].result = std::move(result);
  jobs_[index].stage = Job::Stage::kDone;
}

void GuestActionRunner::Fail(std::size_t index, std::string failure, const CallOutcome& answer) {
  const MutexLock lock(mutex_);
  jobs_[index].failure = std::move(failure);
  jobs_[index].code = answer.code;
  jobs_[index].reason = answer.reason;
  jobs_[index].hint = answer.hint;
  jobs_[index].stage = Job::Stage::kDone;
}

void GuestActionRunner::ShowResult(std::size_t index) {
  Job& job = jobs_[index];
  if (job.stage != Job::Stage::kDone || std::exchange(job.is_shown, true)) return;
  ClearProgress();
  const std::string name = Printable(parts_.guests[index].name);
  if (job.failure) {
    std::cerr << "vexa: " << name << ": " << *job.failure << '\n';
  } else if (!parts_.quiet && !parts_.json) {
    std::cout << name << ": " << Printable(job.result) << std::endl;
  }
}

void GuestActionRunner::Show() {
  const MutexLock lock(mutex_);
  std::size_t first_unfinished = 0;
  while (first_unfinished < jobs_.size() && jobs_[first_unfinished].stage == Job::Stage::kDone) {
    ShowResult(first_unfinished++);
  }
  ShowProgress(first_unfinished);
}

void GuestActionRunner::ShowProgress(std::size_t first) {
  if (parts_.quiet || ::isatty(STDERR_FILENO) == 0) return;
  ClearProgress();
  if (first == jobs_.size()) return;
  const auto done = std::ranges::count(jobs_, Job::Stage::kDone, &Job::stage);
  const std::string text =
      fmt::format("{} of {} done; {}: {}", done, jobs_.size(), parts_.guests[first].name, jobs_[first].progress);
  std::cerr << Shorten(Printable(text), TerminalColumns() - 1) << std::flush;
  has_progress_ = true;
}

void GuestActionRunner::ClearProgress() {
  if (std::exchange(has_progress_, false)) std::cerr << "\r\x1b[K" << std::flush;
}

void GuestActionRunner::ShowInterrupted() {
  const MutexLock lock(mutex_);
  ClearProgress();
  for (std::size_t i = 0; i < jobs_.size(); ++i) ShowResult(i);
  std::vector<std::string> names[3];
  for (std::size_t i = 0; i < jobs_.size(); ++i) {
    const std::string& name = parts_.guests[i].name;
    names[jobs_[i].stage == Job::Stage::kNotSent ? 0 : jobs_[i].stage == Job::Stage::kSent ? 1 : 2].push_back(name);
  }
  std::cerr << "vexa: Interrupted.";
  if (!names[2].empty()) std::cerr << " Answered: " << JoinNames(names[2]) << ".";
  if (!names[1].empty()) std::cerr << " Sent but not answered yet: " << JoinNames(names[1]) << ".";
  if (!names[0].empty()) std::cerr << " Not sent: " << JoinNames(names[0]) << ".";
  std::cerr << '\n';
}

void GuestActionRunner::PrintJobs() {
  Json::Value all(Json::arrayValue);
  for (std::size_t i = 0; i < jobs_.size(); ++i) {
    const Job& job = jobs_[i];
    Json::Value one(Json::objectValue);
    one["guest_id"] = parts_.guests[i].id;
    one["guest_name"] = parts_.guests[i].name;
    one["success"] = !job.failure.has_value();
    if (job.is_simulated) one["simulated"] = true;
    const std::string text = job.failure.value_or(job.result);
    one["message"] = text.substr(0, text.find('\n'));  // the reason and the hint have members of their own
    if (job.code) one["code"] = Json::Int64{*job.code};
    if (!job.reason.empty()) one["reason"] = job.reason;
    if (!job.hint.empty()) one["hint"] = job.hint;
    all.append(std::move(one));
  }
  PrintJson(all);
}

void GuestActionRunner::MarkSimulated(std::size_t index) {
  const MutexLock lock(mutex_);
  jobs_[index].is_simulated = true;
}

ExitCode GuestActionRunner::Finish() {
  Show();
  const MutexLock lock(mutex_);
  if (parts_.json) PrintJobs();
  const bool is_simulated = std::ranges::any_of(jobs_, &Job::is_simulated);
  if (is_simulated && !parts_.quiet && !parts_.json) PrintSimulationNote();
  const bool all_succeeded = std::ranges::none_of(jobs_, [](const Job& job) { return job.failure.has_value(); });
  return all_succeeded ? ExitCode::kOk : ExitCode::kFailed;
}

}  // namespace vexa::cli
