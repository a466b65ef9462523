// Performs one action on several guests concurrently: sends it, waits for the results, and reports them in the order of
// the guests.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cli/guest_names.h"
#include "cli/power_command.h"

namespace vexa::cli {

// Threads: Work any, at the same time; the rest on one.
class GuestRun {
 public:
  struct Parts {
    HttpClientOptions calls;    // for calls that may take an hour
    HttpClientOptions queries;  // for all other calls
    GuestActionOptions options;
    std::vector<NamedGuest> guests;
    std::map<std::string, std::string> host_names;  // by id
    bool quiet = false;                             // no results of successes, no progress
    bool json = false;
  };
  explicit GuestRun(Parts parts) : parts_(std::move(parts)), jobs_(parts_.guests.size()) {}

  // Performs the action on one of the guests. Never throws.
  void Work(std::size_t index);

  // Prints the available results, up to the first guest without one, and the progress when on a terminal.
  void Show();
  // Also prints the rest, and what is known about the guests without a result.
  void ShowInterrupted();
  // Call it after all of them have been processed.
  ExitCode Finish();

 private:
  struct Job {
    enum class Stage { kNotSent, kSent, kAnswered, kDone };
    Stage stage = Stage::kNotSent;
    std::string progress;
    std::optional<std::string> failure;  // kDone: why it failed
    std::optional<std::int64_t> code;    // kDone: from the server
    std::string result;                  // kDone: what was done
    bool is_shown = false;
  };

  void Act(std::size_t index);
  // Why the guest is not in the requested state; nothing when it is.
  std::optional<std::string> WaitForState(std::size_t index);
  std::string SuccessText(const NamedGuest& guest);
  std::string HostOf(const NamedGuest& guest);
  void Advance(std::size_t index, Job::Stage stage, std::string progress);
  void End(std::size_t index, std::string result);
  void Fail(std::size_t index, std::string failure, std::optional<std::int64_t> code = std::nullopt);
  void ShowResult(std::size_t index);
  // `first` is the first guest without a result.
  void ShowProgress(std::size_t first);
  void ClearProgress();
  void PrintJobs();

  const Parts parts_;
  std::mutex mutex_;
  std::vector<Job> jobs_;  // under mutex_
  bool has_progress_ = false;
};

}  // namespace vexa::cli
