// Performs one action on several guests concurrently: sends it, waits for the results, and reports them in the order of
// the guests.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "cli/guest_names.h"
#include "cli/power_command.h"
#include "host/base/mutex.h"

namespace vexa::cli {

// Threads: Work may run on several threads at the same time; all other functions on one thread.
class GuestActionRunner {
 public:
  struct Parts {
    HttpClientOptions calls;    // for calls that may take an hour
    HttpClientOptions queries;  // for all other calls
    GuestActionOptions options;
    std::vector<NamedGuest> guests;
    std::map<std::string, std::string> host_names;  // by id
    bool quiet = false;                             // prints only failures
    bool json = false;
  };
  explicit GuestActionRunner(Parts parts) : parts_(std::move(parts)), jobs_(parts_.guests.size()) {}

  // Performs the action on the guest at `index`. Never throws.
  void Work(std::size_t index);

  // Prints the available results, up to the first guest without one, and on a terminal the progress.
  void Show();
  // After Ctrl-C: prints all available results, and how far the requests for the other guests have got.
  void ShowInterrupted();
  // Prints all remaining results. Call it when Work has returned for every guest.
  ExitCode Finish();

 private:
  struct Job {
    enum class Stage { kNotSent, kSent, kAnswered, kDone };
    Stage stage = Stage::kNotSent;
    std::string progress;                // printed until it is done: "asking", "answered" or the guest's state
    std::optional<std::string> failure;  // kDone: why it failed
    std::optional<std::int64_t> code;    // kDone: from the server, like the next two
    std::string reason;
    std::string hint;
    bool is_simulated = false;  // the guest's host only simulates guests
    std::string result;         // kDone: what was done
    bool is_shown = false;
  };

  void PerformAction(std::size_t index);
  // Waits for the requested state. Returns why the guest did not reach it; nothing when it did.
  std::optional<std::string> WaitForState(std::size_t index);
  std::string SuccessText(const NamedGuest& guest);
  void MarkSimulated(std::size_t index);
  std::string HostOf(const NamedGuest& guest);
  void Advance(std::size_t index, Job::Stage stage, std::string progress);
  void Succeed(std::size_t index, std::string result);
  // `answer`: the server's, when it has caused the failure.
  void Fail(std::size_t index, std::string failure, const CallOutcome& answer = {});
  void ShowResult(std::size_t index) VEXA_REQUIRES(mutex_);
  // `first` is the index of the first guest without a result.
  void ShowProgress(std::size_t first) VEXA_REQUIRES(mutex_);
  void ClearProgress() VEXA_REQUIRES(mutex_);
  void PrintJobs() VEXA_REQUIRES(mutex_);

  const Parts parts_;
  Mutex mutex_;
  std::vector<Job> jobs_ VEXA_GUARDED_BY(mutex_);
  bool has_progress_ VEXA_GUARDED_BY(mutex_) = false;
};

}  // namespace vexa::cli
