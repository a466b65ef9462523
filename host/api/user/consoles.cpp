#include "host/api/user/consoles.h"

#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "host/api/failure_reason.h"
#include "host/base/sanitize_for_log.h"
#include "host/cluster/console_right.h"
#include "host/records/reader.h"
#include "host/records/request_scope.h"
#include "host/records/run_record.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_log.h"
#include "webapi/utils/utils.h"

namespace vexa::api {
namespace {

struct CodeRow {
  int host_code;
  int user_code;
};
constexpr CodeRow kCodes[] = {{host_error::kBadParameter, user_error::kBadParameter},
                              {host_error::kNotFoundOrUnreadable, user_error::kNotFoundOrUnreadable},
                              {host_error::kNotRunning, user_error::kNotRunning},
                              {host_error::kBusy, user_error::kGuestBusy},
                              {host_error::kUnavailable, user_error::kUnavailable},
                              {host_error::kUnreachable, user_error::kUnreachable}};

std::string_view NameOf(const ConsoleTarget& target) { return target.type == kScreenType ? "screen" : "serial line"; }

void Log(const ConsolePlan& plan, bool is_open) {
  std::string name;
  if (!VexaVirtualization::GetGuestNameById(plan.target.guest_id, name) || name.empty()) name = plan.target.guest_id;
  std::erase(name, '\0');  // from a record that another program wrote; it would cut the line short
  const std::string sentence =
      is_open ? fmt::format("The {} of the virtual machine [{}] has been opened.", NameOf(plan.target), name)
              : fmt::format("Failed to open the {} of the virtual machine [{}].", NameOf(plan.target), name);
  VexaCCC::ClusterLogAdd(plan.caller.user.name,
                         is_open ? VexaCCC::CLOG_PRIORITY_SUCCESS : VexaCCC::CLOG_PRIORITY_FAILURE, "%s",
                         sentence.c_str());
}

bool IsOfHost(const ConsolePlan& plan) { return plan.caller.kind == Caller::Kind::kHost; }

// False only when the record is known to be absent.
bool HasGuest(const store::Store& store, const std::string& guest_id) {
  const auto reader = records::Reader::Open(store);
  if (!reader) return true;
  const auto record = reader->ReadObject(VexaCCC::DB::DashCate::Guest.name(), guest_id);
  return record || record.error().code() != ErrorCode::kNotFound;
}

}  // namespace

int ConsoleCodeForUser(int host_code) {
  const auto* const row = std::ranges::find(kCodes, host_code, &CodeRow::host_code);
  return row == std::end(kCodes) ? user_error::kActionFailed : row->user_code;
}

std::shared_ptr<Consoles::Entry> Consoles::Enter(const ConsolePlan& plan) {
  const MutexLock lock(table_->mutex);
  std::size_t same_kind = 0;
  std::size_t same_user = 0;
  for (const auto& [key, weak] : table_->entries) {
    if (key->plan.caller.kind != plan.caller.kind) continue;
    ++same_kind;
    if (key->plan.caller.user.uid == plan.caller.user.uid) ++same_user;
  }
  if (same_kind >= options_.max_consoles) return nullptr;
  if (!IsOfHost(plan) && same_user >= options_.max_consoles_per_user) return nullptr;
  auto owned = std::make_unique<Entry>();
  owned->plan = plan;
  // Callers without a session were found by their id, and are checked by it.
  if (plan.caller.session_token.empty()) owned->plan.caller.user.name.clear();
  std::shared_ptr<Entry> entry(owned.release(), [table = table_](Entry* ended) {
    {
      const MutexLock table_lock(table->mutex);
      table->entries.erase(ended);
    }
    delete ended;
  });
  table_->entries.emplace(entry.get(), entry);
  return entry;
}

std::size_t Consoles::size() const {
  const MutexLock lock(table_->mutex);
  return table_->entries.size();
}

std::vector<ConsoleStats> Consoles::stats() const {
  std::vector<ConsoleStats> stats;
  for (const std::string_view type : {kScreenType, kSerialType}) {
    const Counters& counters = table_->Of({"", std::string(type)});
    stats.push_back({std::string(type), 0, counters.opened, counters.bytes_to_guest, counters.bytes_from_guest});
  }
  const MutexLock lock(table_->mutex);
  for (const auto& [key, weak] : table_->entries) ++stats[key->plan.target.type == kScreenType ? 0 : 1].open;
  return stats;
}

// Counts what passes.
class Consoles::CountedEnd final : public http::TunnelEnd {
 public:
  CountedEnd(std::unique_ptr<http::TunnelEnd> end, std::shared_ptr<Table> table, Counters& counters)
      : end_(std::move(end)), table_(std::move(table)), counters_(counters) {}

  int fd() const override { return end_->fd(); }
  http::IoResult Read(char* buffer, std::size_t size) override {
    return Counted(end_->Read(buffer, size), counters_.bytes_from_guest);
  }
  http::IoResult Write(std::string_view bytes) override {
    return Counted(end_->Write(bytes), counters_.bytes_to_guest);
  }

 private:
  static http::IoResult Counted(http::IoResult result, std::atomic<std::uint64_t>& count) {
    if (result.state == http::IoState::kDone) count.fetch_add(result.bytes, std::memory_order_relaxed);
    return result;
  }

  const std::unique_ptr<http::TunnelEnd> end_;
  const std::shared_ptr<Table> table_;  // has the counters
  Counters& counters_;
};

std::shared_ptr<http::Tunnel> Consoles::MakeTunnel(std::unique_ptr<http::TunnelEnd> end,
                                                   std::shared_ptr<Entry> entry) const {
  Counters& counters = table_->Of(entry->plan.target);
  ++counters.opened;
  auto tunnel = std::make_shared<http::Tunnel>();
  tunnel->end = std::make_unique<CountedEnd>(std::move(end), table_, counters);
  tunnel->idle = options_.idle;
  tunnel->may_continue = [identity = options_.identity, entry] {
    return entry->may_continue && identity->IsLoggedIn(entry->plan.caller.session_token);
  };
  tunnel->lease = std::move(entry);
  return tunnel;
}

Result<std::unique_ptr<http::TunnelEnd>, Refusal> Consoles::OpenHere(const ConsoleTarget& target) const {
  if (options_.guests == nullptr) return Refusal{host_error::kUnavailable, "This host runs no guests"};
  const auto type = target.type == kScreenType ? guests::ConsoleType::kScreen : guests::ConsoleType::kSerial;
  auto socket = options_.guests->OpenConsole(target.guest_id, type);
  if (!socket.ok()) return socket.error();
  return http::MakeSocketEnd(*std::move(socket));
}

std::variant<std::shared_ptr<http::Tunnel>, ConsoleRefusal> Consoles::Open(const ConsolePlan& plan) {
  if (!IsOfHost(plan)) return OpenForUser(plan);
  std::shared_ptr<Entry> entry = Enter(plan);
  if (!entry) return ConsoleRefusal{host_error::kBusy, "Too many consoles are open"};
  auto end = OpenHere(plan.target);
  if (!end.ok()) return ConsoleRefusal{end.error().code, end.error().reason};
  ::syslog(LOG_INFO, "The %s of the guest %s was opened for the host %s and the user '%s'.",
           std::string(NameOf(plan.target)).c_str(), plan.target.guest_id.c_str(), plan.caller.host_id.c_str(),
           SanitizeForLog(plan.caller.acts_for, 256).c_str());
  return MakeTunnel(*std::move(end), std::move(entry));
}

std::variant<std::shared_ptr<http::Tunnel>, ConsoleRefusal> Consoles::OpenForUser(const ConsolePlan& plan) {
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return ConsoleRefusal{user_error::kUnavailable, "The cluster database cannot be read."};
    const auto allowed = cluster::MayOpenConsole(**snapshot, plan.caller.user, plan.target.guest_id);
    if (!allowed || !*allowed) {
      return ConsoleRefusal{user_error::kNotPermitted, "The console of this guest was not granted to you."};
    }
  }
  if (!HasGuest(*options_.store, plan.target.guest_id)) {
    return ConsoleRefusal{user_error::kNotFoundOrUnreadable, "The guest does not exist."};
  }
  std::shared_ptr<Entry> entry = Enter(plan);
  if (!entry) return ConsoleRefusal{user_error::kHostBusy, "Too many consoles are open. Close others first."};
  const auto run = records::ReadRun(*options_.store, plan.target.guest_id);
  if (!run) return ConsoleRefusal{user_error::kUnavailable, "The cluster database cannot be read."};
  Result<std::unique_ptr<http::TunnelEnd>, Refusal> end = Refusal{host_error::kNotRunning, "No host runs the guest"};
  if (*run && (*run)->run.host_id == options_.host_id) {
    end = OpenHere(plan.target);
  } else if (*run) {
    end = options_.open_remote ? options_.open_remote((*run)->run.host_id, plan.target)
                               : Refusal{host_error::kUnreachable, "This host is not set up to call others"};
  }
  Log(plan, end.ok());
  if (!end.ok()) {
    return ConsoleRefusal{ConsoleCodeForUser(end.error().code),
                          ReasonOfHost(plan.caller.user.is_administrator, end.error().code, end.error().reason + ".")};
  }
  return MakeTunnel(*std::move(end), std::move(entry));
}

bool Consoles::IsStillAllowed(const ConsolePlan& plan) const {
  Caller caller = plan.caller;
  const int code = options_.identity->LookUpCaller(caller);
  if (code == user_error::kInternal) return true;
  if (code != 0) return false;
  if (!HasGuest(*options_.store, plan.target.guest_id)) return false;
  if (IsOfHost(plan)) return true;
  const auto snapshot = options_.store->Read();
  if (!snapshot) return true;
  const auto allowed = cluster::MayOpenConsole(**snapshot, caller.user, plan.target.guest_id);
  return allowed ? *allowed : allowed.error().code() != ErrorCode::kCorrupt;
}

void Consoles::Check() {
  std::vector<std::shared_ptr<Entry>> entries;
  {
    const MutexLock lock(table_->mutex);
    for (const auto& [key, weak] : table_->entries) {
      if (auto entry = weak.lock()) entries.push_back(std::move(entry));
    }
  }
  for (const auto& entry : entries) {
    if (!IsStillAllowed(entry->plan)) entry->may_continue = false;
  }
}

}  // namespace vexa::api
