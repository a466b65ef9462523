#include "host/daemon/daemon.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <map>
#include <thread>
#include <utility>

#include "host/accounts/account_pam.h"
#include "host/api/dispatcher.h"
#include "host/api/identity.h"
#include "host/api/local_caller.h"
#include "host/api/metrics.h"
#include "host/api/peer/compound_api.h"
#include "host/api/peer/services.h"
#include "host/api/request_id.h"
#include "host/api/user/account_api.h"
#include "host/api/user/gone_host.h"
#include "host/api/user/grant_api.h"
#include "host/api/user/guest_api.h"
#include "host/api/user/guest_keeping_api.h"
#include "host/api/user/guest_state_api.h"
#include "host/api/user/guest_states.h"
#include "host/api/user/host_api.h"
#include "host/api/user/host_list_api.h"
#include "host/api/user/image_api.h"
#include "host/api/user/import_api.h"
#include "host/api/user/log_api.h"
#include "host/api/user/recovery_api.h"
#include "host/api/user/repository_api.h"
#include "host/api/user/session_api.h"
#include "host/base/data_lock.h"
#include "host/base/error_table.h"
#include "host/base/files.h"
#include "host/base/lane.h"
#include "host/cache/cache_refresher.h"
#include "host/cluster/account_source.h"
#include "host/cluster/account_store.h"
#include "host/cluster/account_take_over.h"
#include "host/cluster/host_record.h"
#include "host/daemon/cache_refresh.h"
#include "host/daemon/cluster_store.h"
#include "host/daemon/delayed_call.h"
#include "host/daemon/file_limit.h"
#include "host/daemon/host_condition.h"
#include "host/daemon/host_id.h"
#include "host/guests/fenced_machines.h"
#include "host/guests/guest_control.h"
#include "host/http/http_server.h"
#include "host/machine/host_facts.h"
#include "host/machine/host_links.h"
#include "host/records/environment.h"
#include "host/records/host_claim_record.h"
#include "host/records/object_edit.h"
#include "host/records/reading.h"
#include "host/session/login_limiter.h"
#include "host/session/sessions.h"
#include "host/transport/transport.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::daemon {
namespace {

LaneOptions QuickLane() {
  LaneOptions options;
  options.name = "quick";
  options.min_threads = 2 * static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
  options.max_threads = std::max(64, options.min_threads);
  return options;
}

LaneOptions LongLane(const Config& config) {
  LaneOptions options;
  options.name = "long";
  options.min_threads = 0;
  options.max_threads = config.long_threads;
  options.max_per_user = static_cast<std::size_t>(config.calls_per_user);
  options.grow_after = std::chrono::milliseconds(0);
  options.stack_bytes = std::size_t{256} << 10;
  return options;
}

// Calls of this host to itself. Their callers wait, each on a thread of another lane, which limits their number.
LaneOptions LocalLane(const Config& config) {
  LaneOptions options = LongLane(config);
  options.name = "local";
  options.max_per_user = 0;
  options.stack_bytes = LaneOptions().stack_bytes;  // also runs quick methods
  return options;
}

// The items of compound requests, which wait for them on threads of the lanes "long" and "local". In one of these
// lanes, as many compound requests as it has threads would deadlock.
LaneOptions ItemLane(const Config& config) {
  LaneOptions options = LocalLane(config);
  options.name = "items";
  return options;
}

// The threads that help with a compound request log and make requests on its behalf.
services::CompoundOptions OptionsOfCompound() {
  services::CompoundOptions options;
  options.carry = [](std::function<void()> run) -> std::function<void()> {
    return [id = std::string(CurrentRequestId()), user = std::string(CurrentActingUser()), run = std::move(run)] {
      const RequestIdScope scope(id, user);
      run();
    };
  };
  return options;
}

// Calls to other hosts may take an hour. When the daemon stops, they end this long before the deadline, so that their
// callers get the result.
constexpr std::chrono::milliseconds kTimeToAnswer{2000};

Result<std::shared_ptr<base::AccountProvider>> OpenAccounts(const Config& config,
                                                            const std::shared_ptr<store::Store>& store) {
  const auto source = config.accounts == "pam" ? cluster::AccountSource::kPam : cluster::AccountSource::kStore;
  if (cluster::KnownAccountSource(config.data_directory) != source) {
    const Status noted = cluster::NoteAccountSource(config.data_directory, source);
    if (!noted) {
      ::syslog(LOG_ERR, "The command line does not know where accounts are: %s", noted.error().ToString().c_str());
    }
  }
  if (source == cluster::AccountSource::kPam) {
    base::PamOptions options;
    options.service = config.pam_service;
    options.administrators_group = config.administrators_group;
    return std::shared_ptr<base::AccountProvider>(base::MakePamAccounts(options));
  }
  if (config.accounts == "file") {
    ::syslog(LOG_NOTICE,
             "The setting accounts = \"file\" means \"store\" now: accounts are in the store of the cluster.");
  }
  const std::string path = config.account_file.empty() ? config.data_directory + "/accounts.json" : config.account_file;
  const Status taken = cluster::TakeOverAccountFile(
      *store, path, [](const std::string& sentence) { ::syslog(LOG_WARNING, "%s.", sentence.c_str()); });
  if (!taken) return taken.error();
  return std::shared_ptr<base::AccountProvider>(std::make_shared<cluster::AccountStore>(store));
}

std::optional<std::string> FindClusterAddress(const std::string& host_id) {
  std::string address;
  VexaCCC::DB::Dashboard record(VexaCCC::DB::DashCate::Host, host_id);
  return record.Get(address, transport::kClusterAddress) == 0 ? std::optional(std::move(address)) : std::nullopt;
}

// Judged by its sign of life. A host whose state is unknown may be alive.
bool IsAlive(const std::string& host_id) {
  std::map<std::string, std::string> all;
  std::map<std::string, std::string> reachable;
  const bool is_known = VexaCCC::CCCVersionStateGetAllHosts(all, reachable) == 0;
  cluster::RequestScope::ReleaseSnapshot();
  return !is_known || reachable.contains(host_id);
}

std::string DescribeHealth(store::Health health) {
  switch (health) {
    case store::Health::kReady:
      return "";
    case store::Health::kReadOnly:
      return "the database cannot be written";
    case store::Health::kInaccessible:
      return "the database cannot be read";
  }
  return "";
}

}  // namespace

// Members are destroyed in reverse order: the server first, then the lanes, then what the handlers use.
class Daemon::Impl {
 public:
  explicit Impl(const Config& config)
      : config_(config),
        limiter_(LoginLimiterOptions{}),
        quick_(QuickLane()),
        long_running_(LongLane(config)),
        local_(LocalLane(config)),
        items_(ItemLane(config)) {}

  ~Impl() {
    // Without a deadline, and while the lane that they call still runs: they use what is destroyed next.
    guest_states_.links().BeginStop();
    cluster::RemoveCacheRefresher();
    guest_states_.links().Stop();
    Stop(std::chrono::milliseconds(0));
    server_.reset();
    transport::RemoveTransport();
    guests_.reset();
    cluster::RemoveEnvironment();
  }

  Status Start(const Config& config, std::vector<webapi::ApiRow> further_rows) {
    if (Status opened = OpenData(config); !opened) return opened;
    if (Status started = StartGuests(config); !started) return started;
    MakeTable(config, std::move(further_rows));
    if (Status made = MakeTransport(config); !made) return made;
    InstallCacheRefresh(guest_states_);
    if (Status started = StartServer(config); !started) return started;
    JoinCluster(config);
    return {};
  }

  std::uint16_t port(std::size_t index) const { return server_->port(index + first_network_listener_); }

  std::string cluster_address() const {
    const std::string& set = config_.cluster_address.empty() ? config_.cluster_listen : config_.cluster_address;
    if (!set.ends_with(":0")) return set;
    return set.substr(0, set.size() - 1) + std::to_string(port(config_.listen.size()));
  }

  void Sweep() {
    const Status swept = sessions_->Sweep();
    if (!swept) ::syslog(LOG_ERR, "The sessions cannot be written: %s", swept.error().ToString().c_str());
  }

  bool Stop(std::chrono::milliseconds deadline) {
    if (!server_) return true;
    presence_.reset();  // first, so that other hosts stop calling
    const auto end = std::chrono::steady_clock::now() + deadline;
    const auto left = [end] {
      const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      return std::max(rest, std::chrono::milliseconds(0));
    };
    const DelayedCall end_remote(deadline - std::min(kTimeToAnswer, deadline / 2), [] {
      if (const auto transport = transport::CurrentTransport()) transport->StopRemote();
    });
    const bool served = std::exchange(stopped_, true) || server_->Stop(deadline);
    // Requests whose clients have left may still run.
    const bool quick_done = quick_.Stop(left());
    const bool long_done = long_running_.Stop(left());
    guest_states_.links().BeginStop();
    const bool caches_done = cluster::RemoveCacheRefresher(left());
    const bool links_done = guest_states_.links().Stop(left());
    const bool local_done = local_.Stop(left());  // after the lanes whose threads wait for it
    const bool items_done = items_.Stop(left());
    // They keep running, and the next start finds what they do from now on.
    const bool guests_done = !guests_ || guests_->Stop(left());
    ReleaseClaim();
    Sweep();
    return guests_done && served && quick_done && long_done && caches_done && links_done && local_done && items_done;
  }

 private:
  void ReleaseClaim() {
    if (!claim_) return;
    const Status released = claim_->Release();
    if (!released)
      ::syslog(LOG_ERR, "The claim of this host's id could not be released: %s", released.error().ToString().c_str());
  }

  Status OpenData(const Config& config) {
    if (Status made = CreateDirectories(config.data_directory, 0700); !made) return made;
    Result<DataLock> lock = DataLock::Take(config.data_directory);
    if (!lock) return lock.error();
    data_lock_ = std::move(*lock);
    Result<std::string> host_id = LoadHostId(config.data_directory);
    if (!host_id) return host_id.error();
    host_id_ = *host_id;
    auto store = OpenClusterStore(config);
    if (!store) return store.error();
    store_ = std::move(*store);
    if (Status claimed = ClaimHost(config); !claimed) return claimed;
    auto accounts = OpenAccounts(config, store_);
    if (!accounts) return accounts.error();
    accounts_ = std::move(*accounts);
    auto sessions = SessionTable::Open(config.data_directory + "/sessions.json", config.sessions);
    if (!sessions) return sessions.error();
    sessions_ = std::move(*sessions);
    identity_ = std::make_unique<Identity>(*sessions_, *accounts_);
    cluster::Environment environment;
    environment.store = store_;
    environment.accounts = accounts_;
    environment.host_id = std::move(*host_id);
    environment.cache_directory = config.data_directory + "/cache";
    environment.request_id = CurrentRequestId;
    environment.image_roots = config.image_roots;
    cluster::InstallEnvironment(std::move(environment));
    return {};
  }

  // A host that was removed from the cluster does not start, but its machines may still run.
  void EndMachinesOfRemovedHost(const Config& config, const std::string& place) {
    if (config.hypervisor == "none") return;
    const auto snapshot = store_->Read();
    if (!snapshot) return;
    const auto claim = cluster::LoadObject(**snapshot, cluster::HostClaimKey(host_id_));
    if (!claim || !cluster::IsForgotten(claim->record)) return;
    if (VexaVirtualization::json::Member(claim->record, "place") != Json::Value(place)) return;
    hypervisor::HypervisorOptions options;
    options.mode = config.hypervisor;
    options.root = config.hypervisor_root;
    const Status ended = guests::EndFencedMachines(*store_, host_id_, std::move(options));
    if (ended) return;
    ::syslog(LOG_CRIT, "Machines of guests that were taken from this host may still run here: %s",
             ended.error().ToString().c_str());
  }

  // Before anything is written: a copy of another host must not change anything.
  Status ClaimHost(const Config& config) {
    cluster::ClaimOptions options;
    options.store = store_;
    options.host_id = host_id_;
    options.take_over = config.take_host_id;
    Result<cluster::ClaimIdentity> identity = IdentityOfHost(config.data_directory);
    if (!identity) return identity.error();
    options.identity = std::move(*identity);
    const std::string place = options.identity.place;
    auto claim = cluster::HostClaim::Take(std::move(options));
    if (!claim) {
      EndMachinesOfRemovedHost(config, place);
      return claim.error();
    }
    claim_ = std::move(*claim);
    return {};
  }

  // Before requests are accepted: running guests and stored states agree from the first answer on.
  Status StartGuests(const Config& config) {
    if (config.hypervisor == "none") return {};
    guests::GuestControlOptions options;
    options.store = store_;
    options.host_id = host_id_;
    options.hypervisor.mode = config.hypervisor;
    options.hypervisor.root = config.hypervisor_root;
    options.image_roots = config.image_roots;
    options.vcpus_per_cpu = config.vcpus_per_cpu;
    options.space = {config.repository_warning, config.repository_full, config.repository_headroom};
    options.is_alive = IsAlive;
    options.claim = claim_;
    auto guests = guests::GuestControl::Start(std::move(options));
    if (!guests) return guests.error();
    guests_ = std::move(*guests);
    return {};
  }

  services::AccountServices AccountParts() {
    return {store_, std::dynamic_pointer_cast<cluster::AccountStore>(accounts_), &limiter_};
  }

  void MakeTable(const Config& config, std::vector<webapi::ApiRow> further_rows) {
    std::vector<webapi::ApiRow> rows = std::move(further_rows);
    const auto call_item = [this](const VexaDRCore::Request& request, std::chrono::milliseconds timeout) {
      return item_caller_->Call(request, timeout);
    };
    for (auto&& part :
         {GuestRows(), SessionRows({sessions_.get(), accounts_.get(), &limiter_, config.sessions.absolute}),
          services::ServiceRows(PartsOfServices(config)), services::HostListRows(), services::HostQueryRows(),
          services::GuestStateRows(guest_states_), services::GuestKeepingRows(), services::ImportRows(store_),
          services::RecoveryRows(store_), services::ImageRows(store_, config.image_roots),
          services::RepositoryRows(store_), services::LogRows(), services::AccountRows(AccountParts()),
          services::GrantRows(AccountParts()), services::CompoundRows(call_item, OptionsOfCompound())}) {
      rows.insert(rows.end(), part.begin(), part.end());
    }
    table_ = std::make_unique<webapi::ApiTable>(std::move(rows));
    metrics_ = std::make_unique<Metrics>(*table_);
    Dispatcher::Parts parts;
    parts.table = table_.get();
    parts.identity = identity_.get();
    parts.metrics = metrics_.get();
    parts.quick = &quick_;
    parts.long_running = &long_running_;
    parts.metrics_text = [this] {
      return metrics_->ToText({server_->stats(),
                               {{"quick", quick_.stats()},
                                {"long", long_running_.stats()},
                                {"local", local_.stats()},
                                {"items", items_.stats()}},
                               sessions_->size()});
    };
    parts.health = [this] { return DescribeHealth(store_->health()); };
    parts.is_database_lost = [this] { return store_->health() == store::Health::kInaccessible; };
    dispatcher_ = std::make_unique<Dispatcher>(std::move(parts));
  }

  // Before the server starts, so that no handler runs without it.
  Status MakeTransport(const Config& config) {
    const std::string host_id = VexaCCC::DB::DBLocalhostID();
    local_caller_ = std::make_unique<LocalCaller>(LocalCaller::Parts{table_.get(), metrics_.get(), &local_, host_id});
    item_caller_ = std::make_unique<LocalCaller>(LocalCaller::Parts{table_.get(), metrics_.get(), &items_, host_id});
    transport::TransportOptions options;
    options.host_id = host_id;
    options.local_call = [this](const VexaDRCore::Request& request, std::chrono::milliseconds timeout) {
      return local_caller_->Call(request, timeout);
    };
    options.find_address = FindClusterAddress;
    options.life = services::LifeOrAlive;
    if (!config.cluster_listen.empty()) {
      options.remote = transport::TransportOptions::Remote::kTls;
      options.tls = {config.tls_certificate, config.tls_key, config.client_authority};
    }
    auto made = transport::Transport::Make(std::move(options));
    if (!made) return made.error();
    transport::InstallTransport(std::move(*made));
    return {};
  }

  Status StartServer(const Config& config) {
    auto listeners = ListenersOf(config);
    if (!listeners) return listeners.error();
    first_network_listener_ = config.socket.empty() ? 0 : 1;
    ServerOptions options;
    options.listeners = std::move(*listeners);
    options.limits.connections = ConnectionsThatFit(config.max_connections);
    if (options.limits.connections < config.max_connections) {
      ::syslog(LOG_WARNING, "The limit of open files leaves room for %zu connections, not %zu.",
               options.limits.connections, config.max_connections);
    }
    options.limits.connections_per_peer = config.max_connections_per_peer;
    options.limits.body_bytes = webapi::kMostBodyBytes;  // the dispatcher lowers it to that of the method
    options.io_threads = config.io_threads;
    options.on_header = [this](HttpRequest& request) { return dispatcher_->OnHeader(request); };
    options.on_request = [this](HttpRequest&& request, Responder responder) {
      dispatcher_->OnRequest(std::move(request), std::move(responder));
    };
    options.make_error = [](int status, const std::string& request_id) {
      HttpResponse response = MakeErrorReply(webapi::ErrorOfHttpStatus(status).code, Json::Value(), request_id);
      response.status = status;
      return response;
    };
    auto server = HttpServer::Start(std::move(options));
    if (!server) return server.error();
    server_ = std::move(*server);
    LogListeners(config);
    return {};
  }

  services::ServiceParts PartsOfServices(const Config& config) const {
    services::ServiceParts parts;
    parts.store = store_;
    parts.guests = guests_.get();
    if (guests_) parts.rate_guest = [this](const std::string& guest_id) { return guests_->RateGuest(guest_id); };
    parts.web_ports = [this, is_https = !config.tls_certificate.empty()] {
      services::WebPorts ports;
      (is_https ? ports.https_port : ports.http_port) = web_port_;
      ports.enable_https = is_https;
      return ports;
    };
    return parts;
  }

  // Once requests are answered: from now on other hosts may rely on this one.
  void JoinCluster(const Config& config) {
    if (!config.listen.empty()) web_port_ = port(0);
    // Without a listener for other hosts, this one is unreachable.
    const std::string address = config.cluster_listen.empty() ? "" : cluster_address();
    cluster::PresenceOptions options;
    options.claim = claim_;
    options.settle_fenced = [this] { return !guests_ || guests_->SettleFenced(); };
    options.on_lost = [on_host_lost = config.on_host_lost](const std::string& reason) {
      ::syslog(LOG_CRIT, "This host must not go on: %s", reason.c_str());
      if (on_host_lost) on_host_lost();
    };
    const auto gather = [host_id = host_id_, address, guests = guests_.get()] {
      cluster::HostFacts facts = services::GatherHostFacts(host_id, VEXA_VERSION, services::Machine());
      facts.cluster_address = address;
      facts.state = services::HostConditionOf({guests, [] { return services::HasBrokenLink(services::Machine()); }});
      facts.package_version = guests ? guests->HypervisorVersion() : "";
      return facts;
    };
    presence_ = std::make_unique<cluster::HostPresence>(store_, gather, std::move(options));
  }

  void LogListeners(const Config& config) const {
    if (!config.socket.empty()) ::syslog(LOG_INFO, "Listening on unix:%s.", config.socket.c_str());
    for (std::size_t i = 0; i < config.listen.size(); ++i) {
      const std::string& address = config.listen[i];
      ::syslog(LOG_INFO, "Listening on %s://%s:%d.", config.tls_certificate.empty() ? "http" : "https",
               address.substr(0, address.rfind(':')).c_str(), port(i));
    }
    if (!config.cluster_listen.empty()) {
      ::syslog(LOG_INFO, "Listening for other hosts on %s.", cluster_address().c_str());
    }
  }

  const Config config_;
  DataLock data_lock_;
  std::shared_ptr<store::Store> store_;
  std::shared_ptr<base::AccountProvider> accounts_;
  std::unique_ptr<SessionTable> sessions_;
  std::unique_ptr<Identity> identity_;
  LoginLimiter limiter_;
  std::unique_ptr<guests::GuestControl> guests_;
  services::GuestStates guest_states_;
  std::unique_ptr<webapi::ApiTable> table_;
  std::unique_ptr<Metrics> metrics_;
  std::unique_ptr<Dispatcher> dispatcher_;
  std::unique_ptr<LocalCaller> local_caller_;
  std::unique_ptr<LocalCaller> item_caller_;
  Lane quick_;
  Lane long_running_;
  Lane local_;
  Lane items_;
  std::unique_ptr<HttpServer> server_;
  std::size_t first_network_listener_ = 0;
  std::atomic<int> web_port_ = 0;  // of the first network listener, once it is open
  std::string host_id_;
  std::shared_ptr<cluster::HostClaim> claim_;
  std::unique_ptr<cluster::HostPresence> presence_;
  bool stopped_ = false;
};

Daemon::Daemon(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Daemon::~Daemon() = default;

Result<std::unique_ptr<Daemon>> Daemon::Start(const Config& config, std::vector<webapi::ApiRow> further_rows) {
  auto impl = std::make_unique<Impl>(config);
  if (Status started = impl->Start(config, std::move(further_rows)); !started) return started.error();
  return std::unique_ptr<Daemon>(new Daemon(std::move(impl)));
}

std::uint16_t Daemon::port(std::size_t index) const { return impl_->port(index); }
std::string Daemon::cluster_address() const { return impl_->cluster_address(); }
void Daemon::Sweep() { impl_->Sweep(); }
bool Daemon::Stop(std::chrono::milliseconds deadline) { return impl_->Stop(deadline); }

}  // namespace vexa::daemon
