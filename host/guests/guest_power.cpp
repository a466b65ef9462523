// Starting and stopping the guests of this host.
#include <syslog.h>

#include <algorithm>
#include <utility>

#include "host/cluster/object_edit.h"
#include "host/cluster/reading.h"
#include "host/guests/guest_control_impl.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/json.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using hypervisor::Problem;

int CodeFor(Problem problem) {
  switch (problem) {
    case Problem::kAlreadyRunning:
      return kRunsAlready;
    case Problem::kNotRunning:
    case Problem::kNoSuchGuest:
      return kNotRunning;
    case Problem::kNetworkMissing:
    case Problem::kBridgeMissing:
      return kNoNetwork;
    case Problem::kDiskMissing:
    case Problem::kDisconnected:
      return kUnavailable;
    case Problem::kNoMemory:
      return kNoMemory;
    case Problem::kBusy:
      return kBusy;
    case Problem::kCpuIncompatible:
      return kIncompatibleCpu;
    default:
      return kFailed;
  }
}

void LogDone(const std::string& guest_id, std::string_view action, const Refused& refused) {
  if (refused) {
    ::syslog(LOG_WARNING, "The guest %s was refused '%.*s' with code %d: %s", guest_id.c_str(),
             static_cast<int>(action.size()), action.data(), refused->code, refused->reason.c_str());
  } else {
    ::syslog(LOG_INFO, "The guest %s got '%.*s'.", guest_id.c_str(), static_cast<int>(action.size()), action.data());
  }
}

Json::Value WithoutPending(Json::Value guest) {
  guest.removeMember(kPending);
  return guest;
}

}  // namespace

Refusal RefusalOf(const hypervisor::Failure& failure) { return {CodeFor(failure.problem()), failure.ToString()}; }

Refusal RefusalOf(const Error& error) {
  const bool is_unreadable = error.code() == ErrorCode::kNotFound || error.code() == ErrorCode::kCorrupt;
  return {is_unreadable ? kUnreadable : kFailed, error.ToString()};
}

Refused LibvirtGuestControl::Perform(const std::string& guest_id, std::string_view action, const Requester& requester,
                                     const std::function<Refused()>& act, std::chrono::milliseconds patience) {
  if (stopping_) return Refusal{kUnavailable, "This host is stopping"};
  // Waits for other hosts' records and the hypervisor follow.
  cluster::RequestScope::ReleaseSnapshot();
  auto taken = claims_.Take(guest_id, {std::string(action), requester, std::chrono::system_clock::now()}, patience);
  if (const auto* other = std::get_if<Activity>(&taken)) return Refusal{kBusy, Describe(*other)};
  if (stopping_) return Refusal{kUnavailable, "This host is stopping"};
  Refused refused = act();
  LogDone(guest_id, action, refused);
  LookAndRelease(std::get<Claims::Claim>(std::move(taken)), guest_id);
  return refused;
}

// Whoever has the guest, or deletes it, by what is stored now. Nothing: nobody.
Refused LibvirtGuestControl::RefuseTaken(const std::string& guest_id) const {
  const auto run = ReadRun(*options_.store, guest_id);
  if (!run) return RefusalOf(run.error());
  if (*run) return Refusal{kRunsAlready, "The host " + (*run)->run.host_id + " has the guest"};
  if (Refused deleted = DeletionUnderWay(*options_.store, guest_id)) return deleted;
  return EditUnderWay(*options_.store, guest_id);
}

Refused LibvirtGuestControl::PowerOn(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "poweron", requester, [&] { return StartGuest(guest_id); });
}

Refused LibvirtGuestControl::StartGuest(const std::string& guest_id) {
  const Starts::Start start(starts_, guest_id);
  const Result<Guest> guest = ReadGuest(guest_id);
  if (!guest) return RefusalOf(guest.error());
  cluster::RequestScope::ReleaseSnapshot();
  if (guest->host_id != options_.host_id) {
    return Refusal{kElsewhere, "The guest belongs to the host '" + guest->host_id + "'"};
  }
  const auto state = hypervisor_->StateOf(guest_id);
  if (!state && state.failure().problem() != Problem::kNoSuchGuest) return RefusalOf(state.failure());
  if (state && IsActive(*state)) return Refusal{kRunsAlready, "The guest runs"};
  // What an earlier run has left goes first.
  Look(guest_id);
  auto reserved = Reserve(*guest);
  if (auto* refusal = std::get_if<Refusal>(&reserved)) return std::move(*refusal);
  Step("poweron: reserved");
  if (const Status cleared = ClearPending(guest_id); !cleared) return RefusalOf(cleared.error());
  // From now on nobody gives the guest to another host; what was changed before counts.
  cluster::RequestScope::ReleaseSnapshot();
  const Result<Guest> current = ReadGuest(guest_id);
  if (!current) return RefusalOf(current.error());
  cluster::RequestScope::ReleaseSnapshot();
  if (WithoutPending(current->records.guest) != WithoutPending(guest->records.guest)) {
    return Refusal{kBusy, "The guest was changed in this moment; try again"};
  }
  return StartReserved(*current, std::get<Run>(reserved), start);
}

std::variant<Run, Refusal> LibvirtGuestControl::Reserve(const Guest& guest) {
  const std::lock_guard placing(placing_);
  Result<HostResources> resources = Resources(guest.records.id);
  if (!resources) return RefusalOf(resources.error());
  Rating rating = Rate(guest, *resources);
  if (!rating.refusals.empty()) return std::move(rating.refusals.front());
  Run run;
  run.host_id = options_.host_id;
  run.since = std::chrono::system_clock::now();
  run.starting = true;
  run.vcpus = json::UInt64(json::Member(guest.records.guest, keys::vcpu_num));
  run.memory_mib = json::UInt64(json::Member(guest.records.guest, keys::vram_size));
  run.pinned_cpus = std::move(rating.pinned_cpus);
  store::Transaction transaction;
  for (const std::string& key : {RunKey(guest.records.id), DeletionKey(guest.records.id), EditKey(guest.records.id)}) {
    transaction.compares.push_back({key, 0});
  }
  transaction.operations = {{RunKey(guest.records.id), RunText(run)}};
  cluster::RequestScope::ReleaseSnapshot();
  const auto committed = options_.store->Commit(transaction);
  if (committed) return run;
  if (committed.error().code() != ErrorCode::kConflict) return RefusalOf(committed.error());
  if (Refused taken = RefuseTaken(guest.records.id)) return std::move(*taken);
  return Refusal{kBusy, "Another host has just let go of the guest; try again"};
}

// What somebody adds behind this may count already from this start, and is shown as pending all the same.
Status LibvirtGuestControl::ClearPending(const std::string& guest_id) {
  return cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const std::string key = store::MakeKey({"dash", VexaCCC::DB::DashCate::Guest.name(), guest_id, keys::object});
    auto guest = cluster::LoadObject(**snapshot, key);
    if (!guest) return guest.error();
    store::Transaction transaction;
    if (!json::FindMember(guest->record, kPending)) return transaction;
    guest->record.removeMember(kPending);
    cluster::PutObject(transaction, key, *guest);
    return transaction;
  });
}

Refused LibvirtGuestControl::StartReserved(const Guest& guest, const Run& run, const Starts::Start& start) {
  const Result<std::string> xml = DomainXml(guest, run);
  // The look that follows gives back what was reserved.
  if (!xml) return Refusal{kFailed, xml.error().ToString()};
  const auto defined = hypervisor_->Define(*xml);
  if (!defined) return RefusalOf(defined.failure());
  Step("poweron: defined");
  if (start.IsCalledOff()) return Refusal{kBusy, "The guest was powered off meanwhile, for high availability"};
  const auto started = hypervisor_->Start(guest.records.id);
  Step("poweron: started");
  if (!started) return RefusalOf(started.failure());
  return {};
}

Refused LibvirtGuestControl::Ask(const std::string& guest_id, const std::function<Done()>& ask) {
  const Result<cluster::Record> record = cluster::ReadObject(VexaCCC::DB::DashCate::Guest.name(), guest_id);
  if (!record) return RefusalOf(record.error());
  cluster::RequestScope::ReleaseSnapshot();
  const Done done = ask();
  if (done) return {};
  return RefusalOf(done.failure());
}

Refused LibvirtGuestControl::ShutDown(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "shutdown", requester, [&] {
    return Ask(guest_id, [&]() -> Done {
      const auto state = hypervisor_->StateOf(guest_id);
      if (!state) return state.failure();
      Step("shutdown: asked");
      Done asked = hypervisor_->ShutDown(guest_id, {});
      if (asked) shut_downs_->Begin(guest_id);
      Step("shutdown: done");
      return asked;
    });
  });
}

Refused LibvirtGuestControl::PowerOff(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "poweroff", requester, [&] {
    return Ask(guest_id, [&] {
      Step("poweroff: asked");
      shut_downs_->End(guest_id);
      Done done = hypervisor_->PowerOff(guest_id);
      Step("poweroff: done");
      return done;
    });
  });
}

Refused LibvirtGuestControl::Reboot(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "reboot", requester, [&] {
    return Ask(guest_id, [&] {
      shut_downs_->End(guest_id);
      return hypervisor_->Reboot(guest_id);
    });
  });
}

Refused LibvirtGuestControl::Fence(const std::string& guest_id) {
  shut_downs_->End(guest_id);
  const bool was_starting = starts_.CallOff(guest_id);
  Step("fence: called off");
  Done done = hypervisor_->PowerOff(guest_id);
  if (was_starting) {
    // It may have been past the point where it notices.
    if (!starts_.AwaitEnd(guest_id, options_.fence_wait)) {
      return Refusal{kUnavailable, "The guest is being started, and that does not come to an end"};
    }
    done = hypervisor_->PowerOff(guest_id);
  }
  const bool is_off =
      done || done.failure().problem() == Problem::kNotRunning || done.failure().problem() == Problem::kNoSuchGuest;
  LookWhenFree(guest_id);
  if (is_off) return {};
  return RefusalOf(done.failure());
}

Refused LibvirtGuestControl::Delete(const std::string& guest_id, const Requester& requester) {
  return Perform(guest_id, "delete", requester, [&] {
    // A guest that has gone off just now may not have been cleaned up behind.
    Look(guest_id);
    return deletion_.Delete(guest_id, requester);
  });
}

Refused LibvirtGuestControl::Edit(const std::string& guest_id, const Json::Value& edit, const Requester& requester) {
  return Perform(
      guest_id, "edit", requester, [&] { return edits_.Edit(guest_id, edit, requester); }, options_.edit_patience);
}

Refused LibvirtGuestControl::RatePins(const Guest& edited) {
  if (edited.host_id != options_.host_id) return {};
  const Result<HostResources> resources = Resources(edited.records.id);
  if (!resources) return RefusalOf(resources.error());
  const Rating rating = Rate(edited, *resources);
  const auto found = std::ranges::find(rating.refusals, kNoCpuThreads, &Refusal::code);
  if (found == rating.refusals.end()) return {};
  return Refusal{kNotPinned, found->reason};
}

Refused LibvirtGuestControl::SetHost(const std::string& guest_id, const std::string& host_id) {
  Refused taken;
  const Status committed = cluster::CommitPlanned(*options_.store, [&]() -> Result<store::Transaction> {
    taken.reset();
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    const auto key = [](const VexaCCC::DB::DashCate& category, const std::string& id) {
      return store::MakeKey({"dash", category.name(), id, keys::object});
    };
    const auto host = cluster::LoadObject(**snapshot, key(VexaCCC::DB::DashCate::Host, host_id));
    if (!host) return host.error();
    if (host->revision == 0) return Error(ErrorCode::kNotFound, "There is no host '" + host_id + "'");
    auto guest = cluster::LoadObject(**snapshot, key(VexaCCC::DB::DashCate::Guest, guest_id));
    if (!guest) return guest.error();
    if (guest->revision == 0) return Error(ErrorCode::kNotFound, "There is no such guest");
    store::Transaction transaction;
    for (const std::string& lock : {RunKey(guest_id), DeletionKey(guest_id), EditKey(guest_id)}) {
      const auto held = (*snapshot)->Get(lock);
      if (!held) return held.error();
      if (held->has_value()) {
        taken = RefuseTaken(guest_id);
        if (taken) return transaction;
      }
      transaction.compares.push_back({lock, 0});
    }
    guest->record[keys::host_id] = host_id;
    cluster::PutObject(transaction, key(VexaCCC::DB::DashCate::Guest, guest_id), *guest);
    return transaction;
  });
  if (taken) return taken;
  if (!committed) return RefusalOf(committed.error());
  return {};
}

bool LibvirtGuestControl::PressAgain(const std::string& guest_id) {
  if (stopping_) return false;
  const Done pressed = hypervisor_->ShutDown(guest_id, {});
  if (pressed) return true;
  const Problem problem = pressed.failure().problem();
  return problem != Problem::kNotRunning && problem != Problem::kNoSuchGuest;
}

}  // namespace vexa::guests
