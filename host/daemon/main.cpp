// vexad: makes this machine a host of the cluster.
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "host/daemon/config.h"
#include "host/daemon/daemon.h"
#include "host/daemon/notify.h"

namespace {

using namespace vexa::daemon;

constexpr int kExitUsage = 2;
constexpr int kExitFailed = 1;
constexpr int kSweepIntervalS = 60;

sigset_t StopSignals() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGTERM);
  ::sigaddset(&signals, SIGINT);
  return signals;
}

int PrintError(const vexa::Error& error, int status) {
  std::fprintf(stderr, "vexad: %s\n", error.ToString().c_str());
  return status;
}

// Waits for the signal to stop, and does the work that is due every minute.
void RunUntilStopped(Daemon& daemon, const sigset_t& signals) {
  const timespec interval{.tv_sec = kSweepIntervalS, .tv_nsec = 0};
  while (::sigtimedwait(&signals, nullptr, &interval) < 0) daemon.Sweep();
}

// Set when this daemon ends because it has lost its host id.
std::atomic<bool> has_lost_host_id = false;

// A second signal ends the process immediately, even if requests are still running.
void EndAtNextSignal(const sigset_t& signals) {
  std::thread([signals] {
    int number = 0;
    ::sigwait(&signals, &number);
    ::_exit(128 + number);
  }).detach();
}

}  // namespace

int main(int argc, char** argv) {
  const CommandLine command = ParseCommandLine(argc, argv);
  if (command.action == CommandLine::Action::kExit) return command.exit_status;
  if (const vexa::Status checked = CheckConfig(command.config); !checked)
    return PrintError(checked.error(), kExitUsage);
  if (command.action == CommandLine::Action::kCheckConfig) {
    std::puts("The configuration is valid.");
    return 0;
  }
  ::openlog("vexad", LOG_PID, LOG_DAEMON);
  SetLogTarget(command.config.log);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGXFSZ, SIG_IGN);  // a limit on the size of files is an error of the write
  // Blocked before the first thread starts, so that every thread inherits the mask and only this one gets the signals.
  const sigset_t signals = StopSignals();
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  Config config = command.config;
  config.on_claim_lost = [] {
    has_lost_host_id = true;
    ::kill(::getpid(), SIGTERM);
  };
  auto daemon = Daemon::Start(config);
  if (!daemon) {
    ::syslog(LOG_ERR, "The start failed: %s", daemon.error().ToString().c_str());
    return command.config.log == LogTarget::kSyslog ? PrintError(daemon.error(), kExitFailed) : kExitFailed;
  }
  ::syslog(LOG_INFO, "Ready.");
  NotifyServiceManager("READY=1");
  RunUntilStopped(**daemon, signals);

  ::syslog(LOG_INFO, "Stopping.");
  NotifyServiceManager("STOPPING=1");
  EndAtNextSignal(signals);
  if (!(*daemon)->Stop(command.config.stop_timeout)) {
    ::syslog(LOG_WARNING, "Some requests did not finish in time.");
    // Their threads still use the daemon's parts, so nothing is destroyed while they run.
    ::_exit(has_lost_host_id ? kExitFailed : 0);
  }
  return has_lost_host_id ? kExitFailed : 0;
}
