#include "cli/guest_run.h"

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
constexpr const char* kDiscardSaved = "/webapi/VEXA.Virtualization.Guest/discard_saved";
constexpr const char* kRelease = "/webapi/VEXA.Virtualization.Guest/release";
constexpr int kDeletionFailed = 901;
constexpr auto kPollEvery = std::chrono::seconds(1);

struct ActionRow {
  GuestAction action;
  const char* target;
  const char* word;   // the "action" that the target expects; null: none
  const char* state;  // the resulting state; null: nothing to wait for
  const char* done;
  const char* waited;
};

constexpr ActionRow kActions[] = {
    {GuestAction::kStart, kPower, "poweron", "running", "started", "started"},
    {GuestAction::kStop, kPower, "shutdown", "shutdown", "asked to shut down", "shut down"},
    {GuestAction::kKill, kPower, "poweroff", "shutdown", "powered off", "powered off"},
    {GuestAction::kRestart, kPower, "reboot", nullptr, "rebooting", "rebooting"},
    {GuestAction::kDelete, kDelete, nullptr, nullptr, "deleted", "deleted"},
    {GuestAction::kDiscardSaved, kDiscardSaved, nullptr, nullptr, "without saved memory", "without saved memory"},
    {GuestAction::kRelease, kRelease, nullptr, nullptr, "released", "released"},
};

const ActionRow& RowOf(GuestAction action) { return *std::ranges::find(kActions, action, &ActionRow::action); }

std::string BodyOf(const ActionRow& row, const std::string& guest_id) {
  if (row.word == nullptr) return OneParameter("guest_id", guest_id);
  Json::Value parameters(Json::objectValue);
  parameters["action"] = row.word;
  parameters["guest_id"] = guest_id;
  return RenderJson(parameters, JsonLayout::kOneLine);
}

std::size_t TerminalColumns() {
  constexpr std::size_t kUsual = 80;
  winsize size{};
  return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 1 ? size.ws_col : kUsual;
}

std::string JoinNames(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + Printable(name);
  return text;
}

}  // namespace

void GuestRun::Work(std::size_t index) {
  try {
    Act(index);
  } catch (const std::exception& exception) {
    Fail(index, Printable(exception.what()));
  }
}

void GuestRun::Act(std::size_t index) {
  const NamedGuest& guest = parts_.guests[index];
  const ActionRow& row = RowOf(parts_.options.action);
  Advance(index, Job::Stage::kSent, "asking");
  HttpClient client(parts_.calls);
  const CallOutcome outcome = TryApi(client, row.target, BodyOf(row, guest.id));
  if (outcome.exit_code != ExitCode::kOk) {
    std::string failure = outcome.failure;
    if (row.target == kDelete && outcome.code == kDeletionFailed && !outcome.has_reason) {
      failure += "\nA guest that runs is not deleted: shut it down first, with 'vexa guest stop'.";
    }
    return Fail(index, std::move(failure), outcome.code);
  }
  Advance(index, Job::Stage::kAnswered, "answered");
  if (parts_.options.waiting == Waiting::kUntilSo && row.state != nullptr) {
    if (std::optional<std::string> failure = WaitForState(index)) return Fail(index, *std::move(failure));
  }
  End(index, SuccessText(guest));
}

std::optional<std::string> GuestRun::WaitForState(std::size_t index) {
  const NamedGuest& guest = parts_.guests[index];
  const std::string wanted = RowOf(parts_.options.action).state;
  const Clock::time_point end = Clock::now() + std::chrono::seconds(parts_.options.wait_timeout_s);
  std::string state = "not known";
  while (true) {
    // A query must not outlast the wait by much.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    HttpClientOptions options = parts_.queries;
    options.timeout = std::clamp<std::chrono::milliseconds>(left, kPollEvery, options.timeout);
    HttpClient client(options);
    const CallOutcome outcome = TryApi(client, kGuestStatus, OneParameter("guest_id", guest.id));
    if (outcome.exit_code == ExitCode::kOk) {
      if (!outcome.data.isObject()) return Printable(NotUnderstood("guest").ToString());
      state = Text(Member(outcome.data, "status"));
      if (state == wanted) return std::nullopt;
    } else if (!IsTemporary(outcome)) {
      return "Its state cannot be read: " + outcome.failure;
    }
    const Clock::time_point now = Clock::now();
    if (now >= end) break;
    Advance(index, Job::Stage::kAnswered, outcome.exit_code == ExitCode::kOk ? state : "the server does not answer");
    std::this_thread::sleep_for(std::min<Clock::duration>(kPollEvery, end - now));
  }
  return "After " + std::to_string(parts_.options.wait_timeout_s) + " s it is not " + wanted + ", but " +
         Printable(state);
}

std::string GuestRun::SuccessText(const NamedGuest& guest) {
  const ActionRow& row = RowOf(parts_.options.action);
  const std::string text = parts_.options.waiting == Waiting::kUntilSo ? row.waited : row.done;
  if (row.action != GuestAction::kStart) return text;
  const std::string host = HostOf(guest);
  return host.empty() ? text : text + " on " + host;
}

// The name of the guest's host; a guest without a host gets one when it starts. Empty when it cannot be determined.
std::string GuestRun::HostOf(const NamedGuest& guest) {
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

void GuestRun::Advance(std::size_t index, Job::Stage stage, std::string progress) {
  const std::lock_guard lock(mutex_);
  jobs_[index].stage = stage;
  jobs_[index].progress = std::move(progress);
}

void GuestRun::End(std::size_t index, std::string result) {
  const std::lock_guard lock(mutex_);
  jobs_[index].result = std::move(result);
  jobs_[index].stage = Job::Stage::kDone;
}

void GuestRun::Fail(std::size_t index, std::string failure, std::optional<std::int64_t> code) {
  const std::lock_guard lock(mutex_);
  jobs_[index].failure = std::move(failure);
  jobs_[index].code = code;
  jobs_[index].stage = Job::Stage::kDone;
}

void GuestRun::ShowResult(std::size_t index) {
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

void GuestRun::Show() {
  const std::lock_guard lock(mutex_);
  std::size_t shown = 0;
  for (; shown < jobs_.size() && jobs_[shown].stage == Job::Stage::kDone; ++shown) ShowResult(shown);
  ShowProgress(shown);
}

void GuestRun::ShowProgress(std::size_t first) {
  if (parts_.quiet || ::isatty(STDERR_FILENO) == 0) return;
  ClearProgress();
  if (first == jobs_.size()) return;
  const auto done = std::ranges::count(jobs_, Job::Stage::kDone, &Job::stage);
  const std::string text = std::to_string(done) + " of " + std::to_string(jobs_.size()) + " done; " +
                           parts_.guests[first].name + ": " + jobs_[first].progress;
  std::cerr << Shorten(Printable(text), TerminalColumns() - 1) << std::flush;
  has_progress_ = true;
}

void GuestRun::ClearProgress() {
  if (std::exchange(has_progress_, false)) std::cerr << "\r\x1b[K" << std::flush;
}

void GuestRun::ShowInterrupted() {
  const std::lock_guard lock(mutex_);
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

void GuestRun::PrintJobs() {
  Json::Value all(Json::arrayValue);
  for (std::size_t i = 0; i < jobs_.size(); ++i) {
    const Job& job = jobs_[i];
    Json::Value one(Json::objectValue);
    one["guest_id"] = parts_.guests[i].id;
    one["guest_name"] = parts_.guests[i].name;
    one["success"] = !job.failure.has_value();
    one["message"] = job.failure.value_or(job.result);
    if (job.code) one["code"] = Json::Int64{*job.code};
    all.append(std::move(one));
  }
  PrintJson(all);
}

ExitCode GuestRun::Finish() {
  Show();
  if (parts_.json) PrintJobs();
  const bool all_well = std::ranges::none_of(jobs_, [](const Job& job) { return job.failure.has_value(); });
  return all_well ? ExitCode::kOk : ExitCode::kFailed;
}

}  // namespace vexa::cli
