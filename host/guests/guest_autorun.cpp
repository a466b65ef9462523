// Starts guests after the host's machine was booted.
#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>

#include "host/base/run_logging_exceptions.h"
#include "host/cluster/cluster_log.h"
#include "host/guests/autorun.h"
#include "host/guests/guest_control_impl.h"
#include "host/records/host_claim_record.h"
#include "host/records/keys.h"
#include "host/records/object_members.h"
#include "json/readers.h"
#include "webapi/platform/ccc_log.h"

namespace vexa::guests {
namespace {

// With waits that double, from 10 s: storage or a network that comes up late has about five minutes.
constexpr int kMaxAttempts = 6;

}  // namespace

// Writes a sentence to the cluster log, without a user.
void LibvirtGuestControl::LogToCluster(int priority, std::string sentence) {
  std::erase(sentence, '\0');
  cluster::LogEntry entry;
  entry.time_us =
      std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count();
  entry.host_id = options_.host_id;
  entry.priority = priority;
  entry.text = sentence;
  const Status added = cluster::AddLogEntry(*options_.store, std::move(entry));
  if (added) return;
  ::syslog(LOG_ERR, "The cluster log cannot be written: %s. The line was: %s", added.error().ToString().c_str(),
           sentence.c_str());
}

void LibvirtGuestControl::PlanAutorunsAfterBoot() {
  if (!options_.claim) return;
  const Status planned = PlanAutoruns(*options_.store, options_.host_id, *options_.claim);
  if (planned) return;
  ::syslog(LOG_ERR, "It is unknown which guests start with the machine, so they are not started: %s",
           planned.error().ToString().c_str());
}

Result<void, Refusal> LibvirtGuestControl::ForgetAutorun(const std::string& guest_id, Result<void, Refusal> started) {
  if (!started.ok()) return started;
  if (const Status removed = RemoveAutorun(*options_.store, options_.host_id, guest_id); !removed) {
    ::syslog(LOG_ERR, "The guest %s stays listed for a start with the machine: %s", guest_id.c_str(),
             removed.error().ToString().c_str());
  }
  return started;
}

void LibvirtGuestControl::RunAutoruns() {
  std::map<std::string, AutorunAttempts> attempts;
  bool has_more = true;
  while (has_more) {
    RunLoggingExceptions("The start of guests after a boot", [&] { has_more = RunNextAutorun(attempts); });
    if (has_more && AwaitStop(options_.autorun_interval)) return;
  }
}

bool LibvirtGuestControl::RunNextAutorun(std::map<std::string, AutorunAttempts>& attempts) {
  const auto list = ReadAutoruns(*options_.store, options_.host_id);
  if (!list) return true;
  if (list->guest_ids.empty()) return false;
  if (!MayAutorun()) return true;
  const auto now = std::chrono::steady_clock::now();
  const auto next =
      std::ranges::find_if(list->guest_ids, [&](const std::string& id) { return attempts[id].next <= now; });
  if (next == list->guest_ids.end()) return true;
  if (IsToBeTriedAgain(*next, attempts[*next]) || stopping_) return true;
  // When this cannot be committed, the guest comes again, and runs.
  (void)RemoveAutorun(*options_.store, options_.host_id, *next);
  return true;
}

// Not before it is known what was taken from this host while it was gone.
bool LibvirtGuestControl::MayAutorun() const {
  if (stopping_ || options_.store->health() == store::Health::kInaccessible) return false;
  if (!hypervisor_->IsConnected() || !CheckClaimHeld().ok()) return false;
  const auto fenced = records::FencedGuests(*options_.store, options_.host_id);
  return fenced && fenced->empty();
}

bool LibvirtGuestControl::IsToBeTriedAgain(const std::string& guest_id, AutorunAttempts& attempts) {
  std::string name;
  std::string host;
  {
    const auto reader = records::Reader::Open(*options_.store);
    if (!reader) return true;
    const auto guest = reader->ReadObject(VexaCCC::DB::DashCate::Guest.name(), guest_id);
    if (!guest && guest.error().code() != ErrorCode::kNotFound) return true;
    // It was deleted, moved, or set not to start, since the machine was booted.
    if (!guest || json::StringMember(**guest, keys::host_id) != options_.host_id) return false;
    if (json::Int(json::Member(**guest, keys::autorun)) == 0) return false;
    name = json::StringMember(**guest, keys::name);
    host = records::ReadStringOrEmpty(*reader, VexaCCC::DB::DashCate::Host, options_.host_id, keys::name);
  }
  if (attempts.count == kMaxAttempts) return false;
  const Result<void, Refusal> started = StartAs("autorun", guest_id, Requester(), StartFrom::kAnything);
  if (started.ok()) {
    ::syslog(LOG_NOTICE, "The guest %s was started with the machine.", guest_id.c_str());
    LogToCluster(VexaCCC::CLOG_PRIORITY_SUCCESS,
                 fmt::format("The virtual machine [{}] has been started with the host [{}].", name, host));
    return false;
  }
  // A user, or libvirt, was quicker.
  if (started.error().code == host_error::kAlreadyRunning) return false;
  if (stopping_) return true;
  const std::string& reason = started.error().reason;
  if (++attempts.count < kMaxAttempts) {
    const auto wait = options_.autorun_retry_wait * (1 << (attempts.count - 1));
    attempts.next = std::chrono::steady_clock::now() + wait;
    ::syslog(LOG_WARNING, "The guest %s could not be started with the machine, and is tried again in %lld s: %s",
             guest_id.c_str(), static_cast<long long>(std::chrono::ceil<std::chrono::seconds>(wait).count()),
             reason.c_str());
    return true;
  }
  ::syslog(LOG_ERR, "The guest %s could not be started with the machine, and is not tried again: %s", guest_id.c_str(),
           reason.c_str());
  LogToCluster(VexaCCC::CLOG_PRIORITY_FAILURE,
               fmt::format("Failed to start the virtual machine [{}] with the host [{}]: {}", name, host, reason));
  return false;
}

}  // namespace vexa::guests
