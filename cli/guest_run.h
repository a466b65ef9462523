// One thing done with several guests at once: sent, waited for, and told in the order of the guests.
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
    HttpClientOptions calls;    // for what may take an hour
    HttpClientOptions queries;  // for the rest
    GuestActionOptions options;
    std::vector<NamedGuest> guests;
    std::map<std::string, std::string> host_names;  // by id
    bool quiet = false;                             // no results that are successes, no progress
    bool json = false;
  };
  explicit GuestRun(Parts parts) : parts_(std::move(parts)), jobs_(parts_.guests.size()) {}

  // Does it with one of the guests. Never throws.
  void Work(std::size_t index);

  // Prints the results that are there, up to the first guest that has none, and how far it is on a terminal.
  void Show();
  // Prints the rest, too, and what is known of the guests without a result.
  void ShowInterrupted();
  // Once all have been worked on.
  ExitCode Finish();

 private:
  struct Job {
    enum class Stage { kNotSent, kSent, kAnswered, kDone };
    Stage stage = Stage::kNotSent;
    std::string progress;
    std::optional<std::string> failure;  // kDone: why not
    std::optional<std::int64_t> code;    // kDone: the server's
    std::string result;                  // kDone: what was done
    bool is_shown = false;
  };

  void Act(std::size_t index);
  // Why the guest is not as asked for; nothing when it is.
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
