// vexad: makes this machine a host of the cluster.
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "host/base/become_account.h"
#include "host/base/memory_trim.h"
#include "host/base/sanitize_for_log.h"
#include "host/daemon/config.h"
#include "host/daemon/daemon.h"
#include "host/daemon/notify.h"
#include "host/daemon/periodic_call.h"
#include "host/daemon/start_check.h"
#include "host/daemon/syslog_hook.h"
#include "host/daemon/watchdog.h"

namespace {

using namespace vexa::daemon;

constexpr std::size_t kMaxErrorLine = 4096;
constexpr int kExitUsage = 2;
constexpr int kExitFailed = 1;
constexpr std::chrono::seconds kSweepInterval{60};
constexpr std::chrono::seconds kTrimInterval{5};
constexpr std::chrono::seconds kFlushTimeout{2};

sigset_t StopSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGTERM);
  ::sigaddset(&signals, SIGINT);
  return signals;
}

void PrintError(const vexa::Error& error) {
  std::fprintf(stderr, "vexad: %s\n", vexa::SanitizeForLog(error.ToString(), kMaxErrorLine).c_str());
}

// A second signal ends the process immediately, even if requests are still running.
void EndAtNextSignal(const sigset_t& signals) {
  std::thread([signals] {
    int number = 0;
    ::sigwait(&signals, &number);
    ::_exit(128 + number);
  }).detach();
}

std::optional<Watchdog> StartWatchdog(Daemon& daemon) {
  const auto timeout = WatchdogTimeout();
  if (!timeout) return std::nullopt;
  return std::optional<Watchdog>(std::in_place, *timeout,
                                 [&daemon](std::chrono::milliseconds time) { return daemon.IsServing(time); });
}

// Runs the daemon until the signal to stop, and then ends it. False: something still runs, and uses its parts.
bool RunUntilStopped(Daemon& daemon, const sigset_t& signals, std::chrono::milliseconds stop_timeout) {
  // Sweeping writes and syncs a file, so it has a thread of its own: this one obeys the signal however long that takes.
  PeriodicCall sweeps(kSweepInterval, [&daemon] { daemon.Sweep(); });
  vexa::MemoryTrimmer trimmer;
  PeriodicCall trims(kTrimInterval, [&trimmer] { trimmer.TrimAfterGrowth(); });
  std::optional<Watchdog> watchdog = StartWatchdog(daemon);
  int number = 0;
  ::sigwait(&signals, &number);
  const auto end = std::chrono::steady_clock::now() + stop_timeout;
  ::syslog(LOG_INFO, "Stopping.");
  NotifyServiceManager("STOPPING=1");
  EndAtNextSignal(signals);
  const bool has_watched = !watchdog || watchdog->Stop(stop_timeout / 4);
  const bool has_swept = sweeps.Stop(stop_timeout / 4);
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
  return daemon.Stop(std::max(left, std::chrono::milliseconds(0))) && has_swept && has_watched;
}

// Set when this daemon ends because it has lost its host id.
std::atomic<bool> has_lost_host_id = false;

// A check may leave a thread behind that uses libvirt.
[[noreturn]] void EndProcess(int status) {
  std::fflush(nullptr);
  ::_exit(status);
}

// What the configuration and the machine show.
ConfigProblems FindAllProblems(const CommandLine& command) {
  ConfigProblems problems = CheckConfig(command.config);
  StartCheckOptions options;
  if (command.action == CommandLine::Action::kCheckConfig) {
    const CheckAccount account = ChooseCheckAccount(command);
    options.has_service_folders = account.is_service;
    if (const vexa::Status became = account.name.empty() ? vexa::Status() : vexa::BecomeAccount(account.name);
        !became) {
      problems.push_back({"--check-as", account.name, became.error().ToString(),
                          "Run the command as root, with an account of this machine"});
      return problems;
    }
  }
  std::set<std::pair<std::string, std::string>> found;
  for (const ConfigProblem& problem : problems) found.emplace(problem.setting, problem.value);
  for (ConfigProblem& problem : CheckStart(command.config, options)) {
    if (!found.contains({problem.setting, problem.value})) problems.push_back(std::move(problem));
  }
  return problems;
}

int RunCheck(const CommandLine& command) {
  const ConfigProblems problems = FindAllProblems(command);
  PrintProblems(problems);
  if (!problems.empty()) return kExitUsage;
  std::puts("The configuration is valid.");
  return 0;
}

// The reason of a failed start is one; the check may find others, which the next starts would show one by one.
void LogOtherProblems(const CommandLine& command) {
  for (const ConfigProblem& problem : FindAllProblems(command)) {
    const std::string line = ToLine(problem);
    ::syslog(LOG_ERR, "%s", line.c_str());
    if (command.config.log == LogTarget::kSyslog) std::fprintf(stderr, "vexad: %s\n", line.c_str());
  }
}

// Starts the daemon, runs it until it is stopped, and returns the exit status.
int Run(const CommandLine& command, const sigset_t& signals) {
  const Config& config = command.config;
  auto daemon = Daemon::Start(config);
  if (!daemon) {
    ::syslog(LOG_ERR, "The start failed: %s", daemon.error().ToString().c_str());
    if (config.log == LogTarget::kSyslog) PrintError(daemon.error());
    LogOtherProblems(command);
    FlushLog(kFlushTimeout);
    EndProcess(kExitFailed);
  }
  ::syslog(LOG_INFO, "Ready.");
  NotifyServiceManager("READY=1");
  if (!RunUntilStopped(**daemon, signals, config.stop_timeout)) {
    ::syslog(LOG_WARNING, "Some work did not finish in time, and is left behind.");
    // Their threads still use the daemon's parts, so nothing is destroyed while they run.
    FlushLog(kFlushTimeout);
    ::_exit(has_lost_host_id ? kExitFailed : 0);
  }
  return has_lost_host_id ? kExitFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const CommandLine command = ParseCommandLine(argc, argv, FindAllProblems);
  if (command.action == CommandLine::Action::kExit) EndProcess(command.exit_status);
  if (command.action == CommandLine::Action::kCheckConfig) EndProcess(RunCheck(command));
  if (!CheckConfig(command.config).empty()) {
    PrintProblems(FindAllProblems(command));
    EndProcess(kExitUsage);
  }
  ::openlog("vexad", LOG_PID, LOG_DAEMON);
  SetLogTarget(command.config.log);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);  // a limit on the size of files is an error of the write
  // Blocked before the first thread starts, so that every thread inherits the mask and only this one gets the signals.
  const sigset_t signals = StopSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  CommandLine started = command;
  started.config.on_claim_lost = [] {
    has_lost_host_id = true;
    ::kill(::getpid(), SIGTERM);
  };
  const int status = Run(started, signals);
  // A log whose reader has stopped must not hold up the end.
  FlushLog(kFlushTimeout);
  return status;
}
