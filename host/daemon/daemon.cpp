#include "host/daemon/daemon.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <thread>
#include <utility>

#include "host/accounts/account_cache.h"
#include "host/accounts/account_local.h"
#include "host/accounts/account_pam.h"
#include "host/api/dispatcher.h"
#include "host/api/http_reply.h"
#include "host/api/identity.h"
#include "host/api/local_caller.h"
#include "host/api/metrics.h"
#include "host/api/peer/compound_api.h"
#include "host/api/peer/services.h"
#include "host/api/request_id.h"
#include "host/api/user/account_api.h"
#include "host/api/user/cluster_settings_api.h"
#include "host/api/user/console_api.h"
#include "host/api/user/consoles.h"
#include "host/api/user/creation_api.h"
#include "host/api/user/grant_api.h"
#include "host/api/user/guest_api.h"
#include "host/api/user/guest_network_api.h"
#include "host/api/user/guest_saved_state_api.h"
#include "host/api/user/guest_state_api.h"
#include "host/api/user/guest_states.h"
#include "host/api/user/host_api.h"
#include "host/api/user/host_list_api.h"
#include "host/api/user/image_api.h"
#include "host/api/user/import_api.h"
#include "host/api/user/log_api.h"
#include "host/api/user/own_rights_api.h"
#include "host/api/user/recovery_api.h"
#include "host/api/user/remote_console.h"
#include "host/api/user/repository_api.h"
#include "host/api/user/schemas/user_schemas.h"
#include "host/api/user/session_api.h"
#include "host/api/user/session_list_api.h"
#include "host/api/user/unreachable_host.h"
#include "host/api/user/upload_api.h"
#include "host/base/background_thread.h"
#include "host/base/data_folder.h"
#include "host/base/data_lock.h"
#include "host/base/error_table.h"
#include "host/base/files.h"
#include "host/base/lane.h"
#include "host/base/lane_check.h"
#include "host/base/time_text.h"
#include "host/cache/cache_refresher.h"
#include "host/cluster/account_migration.h"
#include "host/cluster/account_source.h"
#include "host/cluster/account_store.h"
#include "host/cluster/host_record.h"
#include "host/daemon/bounded_task.h"
#include "host/daemon/cache_refresh.h"
#include "host/daemon/certificate_signing.h"
#include "host/daemon/cluster_store.h"
#include "host/daemon/delayed_call.h"
#include "host/daemon/file_limit.h"
#include "host/daemon/health_probe.h"
#include "host/daemon/host_certificate.h"
#include "host/daemon/host_id.h"
#include "host/daemon/host_state.h"
#include "host/daemon/image_folders.h"
#include "host/daemon/lanes.h"
#include "host/daemon/periodic_call.h"
#include "host/guests/fenced_domains.h"
#include "host/guests/guest_control.h"
#include "host/http/http_server.h"
#include "host/machine/host_facts.h"
#include "host/machine/host_links.h"
#include "host/records/environment.h"
#include "host/records/host_claim_record.h"
#include "host/records/host_liveness.h"
#include "host/records/member_list.h"
#include "host/records/object_edit.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "host/session/console_tickets.h"
#include "host/session/login_limiter.h"
#include "host/session/sessions.h"
#include "host/storage/uploads.h"
#include "host/store/lost_store.h"
#include "host/transport/transport.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::daemon {
namespace {

// The threads that help with a compound request have its id in their log lines, and make requests for its user.
api::CompoundOptions MakeCompoundOptions() {
  api::CompoundOptions options;
  options.propagate_context = [](std::function<void()> run) -> std::function<void()> {
    return [id = std::string(api::CurrentRequestId()), user = std::string(api::CurrentActingUser()),
            run = std::move(run)] {
      const api::RequestIdScope scope(id, user);
      run();
    };
  };
  return options;
}

// A revoked right or a deleted user may still have a console for this long.
constexpr std::chrono::milliseconds kConsoleCheckInterval{2000};

// How often interrupted uploads are finished, and old ones removed.
constexpr std::chrono::milliseconds kUploadCheckInterval{60'000};

// Calls to other hosts may take an hour. When the daemon stops, they end this long before the deadline, so that their
// callers get the result.
constexpr std::chrono::milliseconds kAnswerMargin{2000};

// What is written last has at least this much time, even when requests have used up the deadline.
constexpr std::chrono::milliseconds kFarewellTime{1000};

// A process that holds the database must not hold a stop.
constexpr std::chrono::milliseconds kLockWaitWhenStopping{1000};

Result<std::shared_ptr<accounts::AccountProvider>> OpenAccounts(const Config& config,
                                                                const std::shared_ptr<store::Store>& store) {
  const auto source = config.accounts == "pam" ? cluster::AccountSource::kPam : cluster::AccountSource::kStore;
  if (cluster::LoadAccountSource(config.data_directory) != source) {
    const Status stored = cluster::SaveAccountSource(config.data_directory, source);
    if (!stored) {
      ::syslog(LOG_ERR, "Cannot store the account source for the command line: %s", stored.error().ToString().c_str());
    }
  }
  if (source == cluster::AccountSource::kPam) {
    accounts::PamOptions options;
    options.service = config.pam_service;
    options.auth_socket = config.auth_socket;
    options.administrators_group = config.administrators_group;
    accounts::LocalAccountOptions local;
    local.administrators_group = config.administrators_group;
    return std::shared_ptr<accounts::AccountProvider>(
        accounts::MakeCachedAccounts(accounts::MakePamAccounts(options), accounts::MakeLocalAccounts(local)));
  }
  if (config.accounts == "file") {
    ::syslog(LOG_NOTICE,
             "The setting accounts = \"file\" means \"store\" now: accounts are in the store of the cluster.");
  }
  const std::string path = config.account_file.empty() ? config.data_directory + "/accounts.json" : config.account_file;
  const Status migrated = cluster::MigrateAccountFile(
      *store, path, [](const std::string& sentence) { ::syslog(LOG_WARNING, "%s.", sentence.c_str()); });
  if (!migrated) return migrated.error();
  return std::shared_ptr<accounts::AccountProvider>(std::make_shared<cluster::AccountStore>(store));
}

std::optional<std::string> FindClusterAddress(const std::string& host_id) {
  const auto reader = records::ReaderOfRequest();
  if (!reader) return std::nullopt;
  auto address = records::ReadText(**reader, VexaCCC::DB::DashCate::Host, host_id, transport::kClusterAddress);
  return address ? std::move(*address) : std::nullopt;
}

// According to the heartbeats. A host whose state is unknown may be alive.
bool IsAlive(const std::string& host_id) {
  const auto reader = records::Reader::OpenCurrent();
  if (!reader) return true;
  const auto reachable = records::ReachableHosts(*reader);
  return !reachable || reachable->contains(host_id);
}

// For the transport, on the thread of the request that calls the host.
records::HostLiveness LivenessForRequest(const std::string& host_id) {
  const auto reader = records::ReaderOfRequest();
  return reader ? api::LivenessOrAlive(**reader, host_id) : records::HostLiveness();
}

}  // namespace

// Members are destroyed in reverse order of declaration: the server first, then the lanes, then what the handlers use.
class Daemon::Impl {
 public:
  explicit Impl(const Config& config)
      : config_(config),
        limiter_(session::LoginLimiterOptions{}),
        quick_(ForCallers(QuickLane())),
        long_running_(ForCallers(LongLane(config))),
        hosts_(ForCallers(HostLane(config))),
        quick_hosts_(ForCallers(QuickHostLane(config))),
        local_(LocalLane(config)),
        items_(ItemLane(config)) {}

  ~Impl() {
    // Nothing runs yet, and what is installed for this process may be another daemon's.
    if (!has_installed_environment_) return;
    // The links and the caches are stopped first and without a deadline: they use the lanes and the members that are
    // destroyed next.
    guest_states_.links().BeginStop();
    cache::RemoveCacheRefresher();
    guest_states_.links().Stop();
    if (!Stop(std::chrono::milliseconds(0))) {
      sign_off_.reset();
      if (!farewell_) SayFarewell();
    }
    farewell_.reset();
    certificate_stop_.reset();  // a certificate that is being replaced needs the server
    server_.reset();
    transport::RemoveTransport();
    guests_.reset();
    if (members_) members_->Stop();
    records::RemoveEnvironment();
  }

  Status Start(const Config& config, std::vector<api::ApiRow> extra_rows) {
    if (Status opened = OpenData(config); !opened) return opened;
    if (Status started = StartGuests(config); !started) return started;
    MakeUploads(config);
    MakeTable(config, std::move(extra_rows));
    if (Status chosen = ChooseCertificate(config); !chosen) return chosen;
    if (Status made = MakeTransport(); !made) return made;
    InstallCacheRefresh(guest_states_);
    StartHealthProbe();
    MakeConsoles();
    if (Status started = StartServer(config); !started) return started;
    JoinCluster(config);
    return {};
  }

  std::uint16_t port(std::size_t index) const { return server_->port(index + first_network_listener_); }

  std::string cluster_address() const {
    const std::string& configured = config_.cluster_address.empty() ? config_.cluster_listen : config_.cluster_address;
    if (!configured.ends_with(":0")) return configured;
    return configured.substr(0, configured.size() - 1) + std::to_string(port(config_.listen.size()));
  }

  void Sweep() {
    const Status swept = sessions_->Sweep();
    if (!swept) ::syslog(LOG_ERR, "The sessions cannot be written: %s", swept.error().ToString().c_str());
  }

  bool IsServing(std::chrono::milliseconds timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    if (!server_->AreThreadsResponding(timeout)) return false;
    const auto left = end - std::chrono::steady_clock::now();
    return IsRunningJobs(quick_, std::chrono::duration_cast<std::chrono::milliseconds>(left));
  }

  bool Stop(std::chrono::milliseconds deadline) {
    if (!server_) return true;
    is_stopping_->store(true);
    store_->LimitLockWaits(kLockWaitWhenStopping);
    if (guests_) guests_->BeginStop();
    // First, so that other hosts stop calling. On a thread of its own: the database may hang.
    if (heartbeat_) sign_off_ = std::make_unique<BoundedTask>([this] { heartbeat_.reset(); });
    if (certificate_) certificate_->BeginStop();
    const auto end = std::chrono::steady_clock::now() + deadline;
    const auto left = [end] {
      const auto remaining =
          std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
      return std::max(remaining, std::chrono::milliseconds(0));
    };
    const DelayedCall end_remote(deadline - std::min(kAnswerMargin, deadline / 2), [] {
      if (const auto transport = transport::CurrentTransport()) transport->StopRemote();
    });
    const bool served = std::exchange(stopped_, true) || server_->Stop(deadline);
    const bool consoles_checked = console_check_->Stop(left());
    const bool uploads_checked = upload_check_->Stop(left());
    // Requests whose clients have left may still run.
    const bool quick_done = quick_.Stop(left());
    const bool long_done = long_running_.Stop(left());
    const bool hosts_done = hosts_.Stop(left());
    const bool quick_hosts_done = quick_hosts_.Stop(left());
    const bool certificate_done = StopCertificate(left());
    guest_states_.links().BeginStop();
    const bool caches_done = cache::RemoveCacheRefresher(left());
    const bool links_done = guest_states_.links().Stop(left());
    const bool local_done = local_.Stop(left());  // after the lanes whose threads wait for it
    const bool items_done = items_.Stop(left());
    // Guests keep running, and the next start reconciles them.
    const bool guests_done = !guests_ || guests_->Stop(left());
    const bool signed_off = !sign_off_ || sign_off_->Wait(left());
    if (!farewell_ && signed_off) farewell_ = std::make_unique<BoundedTask>([this] { SayFarewell(); });
    const bool released = farewell_ && farewell_->Wait(std::max(left(), kFarewellTime));
    if (!signed_off || !released) {
      ::syslog(LOG_ERR,
               "This host could not sign off: the database or its disk did not respond in the time of the stop.");
    }
    return signed_off && released && guests_done && served && quick_done && long_done && hosts_done &&
           quick_hosts_done && consoles_checked && uploads_checked && certificate_done && caches_done && links_done &&
           local_done && items_done;
  }

 private:
  // A lane for callers from outside.
  LaneOptions ForCallers(LaneOptions lane) const {
    lane.recent_owners = callers_;
    return lane;
  }

  // Called when no request needs other hosts any more: a renewal must not wait for one that hangs. The storage of the
  // certificates may hang as well. False: a check of them still runs.
  bool StopCertificate(std::chrono::milliseconds timeout) {
    if (!certificate_) return true;
    if (const auto transport = transport::CurrentTransport()) transport->StopRemote();
    if (!certificate_stop_) certificate_stop_ = std::make_unique<BoundedTask>([this] { certificate_->Stop(); });
    return certificate_stop_->Wait(timeout);
  }

  void SayFarewell() {
    ReleaseClaim();
    Sweep();
  }

  void ReleaseClaim() {
    if (!claim_) return;
    const Status released = claim_->Release();
    if (!released)
      ::syslog(LOG_ERR, "The claim of this host's id could not be released: %s", released.error().ToString().c_str());
  }

  Status OpenData(const Config& config) {
    if (Status made = CreateDirectories(config.data_directory, 0700); !made) return made;
    if (Status safe = CheckDataFolder(config.data_directory); !safe) return safe;
    Result<DataLock> lock = DataLock::Take(config.data_directory);
    if (!lock) return lock.error();
    data_lock_ = std::move(*lock);
    Result<std::string> host_id = LoadHostId(config.data_directory);
    if (!host_id) return host_id.error();
    host_id_ = *host_id;
    // Needed for existing ones as well: the daemon that made them may have been killed before its sync.
    if (Status synced = SyncFolderAndParent(config.data_directory); !synced) return synced;
    auto store = OpenClusterStore(config);
    if (!store) return store.error();
    store_ = std::move(*store);
    if (Status claimed = ClaimHost(config); !claimed) return claimed;
    const Status marked = store::MarkStoreUsed(config.data_directory, StoreFolder(config));
    if (!marked) {
      ::syslog(LOG_ERR, "A missing database will not be noticed at the next start: %s",
               marked.error().ToString().c_str());
    }
    auto accounts = OpenAccounts(config, store_);
    if (!accounts) return accounts.error();
    accounts_ = std::move(*accounts);
    auto sessions = session::SessionTable::Open(config.data_directory + "/sessions.json", config.sessions);
    if (!sessions) return sessions.error();
    sessions_ = std::move(*sessions);
    records::Environment environment;
    environment.store = store_;
    environment.accounts = accounts_;
    environment.host_id = std::move(*host_id);
    environment.cache_directory = config.data_directory + "/cache";
    environment.request_id = api::CurrentRequestId;
    environment.acting_user = api::CurrentActingUser;
    environment.image_roots = config.image_roots;
    has_installed_environment_ = true;
    records::InstallEnvironment(std::move(environment));
    // Its thread reads through the environment.
    members_ = std::make_unique<records::MemberList>(store_);
    identity_ = std::make_unique<api::Identity>(*sessions_, *accounts_, members_.get());
    return {};
  }

  // Whether the host was removed from the cluster while it ran on this data folder.
  bool HasBeenRemovedHere(const std::string& data_folder_id) const {
    const auto snapshot = store_->Read();
    if (!snapshot) return false;
    const auto claim = records::LoadObject(**snapshot, records::HostClaimKey(host_id_));
    return claim && records::IsForgotten(claim->record) &&
           VexaVirtualization::json::Member(claim->record, "place") == Json::Value(data_folder_id);
  }

  // A host that was removed from the cluster does not start, but guests may still be running here.
  void StopDomainsOfRemovedHost(const Config& config, const std::string& data_folder_id) {
    if (config.hypervisor == "none") return;
    if (!HasBeenRemovedHere(data_folder_id)) return;
    hypervisor::HypervisorOptions options;
    options.mode = config.hypervisor;
    options.root = config.hypervisor_root;
    const Status ended = guests::StopFencedDomains(*store_, host_id_, std::move(options));
    if (ended) return;
    ::syslog(LOG_CRIT, "Guests that were recovered to other hosts may still be running here: %s",
             ended.error().ToString().c_str());
  }

  // Called before anything is written: a copy of another host's data folder must not change anything.
  Status ClaimHost(const Config& config) {
    cluster::ClaimOptions options;
    options.store = store_;
    options.host_id = host_id_;
    options.take_over = config.take_host_id;
    Result<cluster::ClaimIdentity> identity = LoadClaimIdentity(config.data_directory);
    if (!identity) return identity.error();
    options.identity = std::move(*identity);
    const std::string data_folder_id = options.identity.data_folder_id;
    auto claim = cluster::HostClaim::Take(std::move(options));
    if (!claim) {
      StopDomainsOfRemovedHost(config, data_folder_id);
      return claim.error();
    }
    claim_ = std::move(*claim);
    return {};
  }

  // Called before requests are accepted, so that the first answer already agrees with what runs.
  Status StartGuests(const Config& config) {
    if (config.hypervisor == "none") return {};
    // Storage that does not answer must not delay the start.
    StartThreadBlockingSignals([folders = config.image_roots] { WarnOfHiddenFolders(folders); }).detach();
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
    options.networks = guests::GuestControlOptions::Networks::kKept;
    if (config.hypervisor == "test") ::syslog(LOG_WARNING, "Guests are only simulated here: nothing runs.");
    auto guests = guests::GuestControl::Start(std::move(options));
    if (!guests) return guests.error();
    guests_ = std::move(*guests);
    return {};
  }

  api::AccountServices MakeAccountServices() {
    return {store_, std::dynamic_pointer_cast<cluster::AccountStore>(accounts_), &limiter_, sessions_.get()};
  }

  void MakeTable(const Config& config, std::vector<api::ApiRow> extra_rows) {
    std::vector<api::ApiRow> rows = std::move(extra_rows);
    const api::SessionServices sessions{sessions_.get(), accounts_.get(), &limiter_, config.sessions.absolute};
    const auto call_item = [this](const VexaDRCore::Request& request, std::chrono::milliseconds timeout) {
      return item_caller_->Call(request, timeout);
    };
    std::vector<api::ApiRow> uploads = api::UploadRows(uploads_);
    std::move(uploads.begin(), uploads.end(), std::back_inserter(rows));
    for (auto&& part :
         {api::GuestRows(),
          api::SessionRows(sessions),
          api::OwnRightsRows(store_),
          api::SessionListRows(sessions),
          api::ServiceRows(MakeServiceParts(config)),
          api::HostListRows(),
          api::HostQueryRows(),
          api::GuestStateRows(guest_states_),
          api::GuestSavedStateRows(),
          api::ImportRows(store_),
          api::ConsoleRows(store_, &console_tickets_, [stopping = is_stopping_] { return stopping->load(); }),
          api::CreationRows(MakeAccountServices(), [stopping = is_stopping_] { return stopping->load(); }),
          api::RecoveryRows(store_),
          api::ImageRows(store_, config.image_roots, uploads_),
          api::RepositoryRows(store_, {host_id_, config.image_roots, storage::QemuAccessFor(config.hypervisor)}),
          api::GuestNetworkRows(store_),
          api::ClusterSettingsRows(store_),
          api::LogRows(),
          api::AccountRows(MakeAccountServices()),
          api::GrantRows(MakeAccountServices()),
          api::CompoundRows(call_item, MakeCompoundOptions())}) {
      rows.insert(rows.end(), part.begin(), part.end());
    }
    table_ = std::make_unique<api::ApiTable>(api::WithSchemas(std::move(rows), api::UserSchemas()));
    metrics_ = std::make_unique<api::Metrics>(*table_);
    api::Dispatcher::Parts parts;
    parts.table = table_.get();
    parts.identity = identity_.get();
    parts.allowed_origins = api::AllowedOrigins(config.allowed_origins);
    parts.metrics = metrics_.get();
    parts.quick = &quick_;
    parts.long_running = &long_running_;
    parts.hosts = &hosts_;
    parts.quick_hosts = &quick_hosts_;
    parts.metrics_text = [this] {
      return metrics_->ToText({server_->stats(),
                               {{"quick", quick_.stats()},
                                {"long", long_running_.stats()},
                                {"hosts", hosts_.stats()},
                                {"hquick", quick_hosts_.stats()},
                                {"local", local_.stats()},
                                {"items", items_.stats()}},
                               sessions_->size(),
                               consoles_->stats()});
    };
    parts.is_simulated = config.hypervisor == "test";
    parts.health = [this] { return health_->Problem(); };
    parts.tickets = &console_tickets_;
    parts.open_console = [this](const api::ConsolePlan& plan) { return consoles_->Open(plan); };
    parts.take_piece = api::TakeUploads(uploads_);
    parts.is_database_lost = [this] { return store_->health() == store::Health::kInaccessible; };
    dispatcher_ = std::make_unique<api::Dispatcher>(std::move(parts));
  }

  Status ChooseCertificate(const Config& config) {
    for (const std::string& sentence : OutdatedSettings(config)) ::syslog(LOG_WARNING, "%s.", sentence.c_str());
    if (config.cluster_listen.empty()) return {};
    const ClusterFiles files = ClusterFilesOf(config);
    if (!config.authority_key.empty()) {
      const Status usable = CheckAuthorityFiles({files.authority, config.authority_key});
      if (!usable) return Error(usable.error().code(), "'authority-key' cannot be used", usable.error().ToString());
    }
    HostCertificateOptions options;
    options.host_id = host_id_;
    options.configured = {files.certificate, files.key, files.authority};
    options.renewed_file = config.data_directory + "/host-certificate.pem";
    options.sign = [this, own = AuthorityFiles{files.authority, config.authority_key}](const std::string& request) {
      if (own.key.empty()) return AskHostsToSign(host_id_, request);
      return SignForMember(*store_, own, {host_id_, std::chrono::system_clock::now(), request});
    };
    options.use = [this, listener = config.listen.size()](const transport::TlsFiles& chosen) {
      const Status used =
          server_->ReplaceCertificate(first_network_listener_ + listener, chosen.certificate, chosen.key);
      return used ? transport::CurrentTransport()->ReplaceTls(chosen) : used;
    };
    certificate_ = std::make_unique<HostCertificate>(std::move(options));
    return {};
  }

  void MakeUploads(const Config& config) {
    storage::UploadOptions options;
    options.store = store_;
    options.host_id = host_id_;
    options.roots = config.image_roots;
    options.limits.count = config.upload_count;
    options.limits.size = config.upload_size * storage::kGib;
    options.limits.total = config.upload_total * storage::kGib;
    options.limits.reserve = (config.upload_reserve * storage::kGib) >> 10;
    options.access = storage::QemuAccessFor(config.hypervisor);
    options.is_stopping = [stopping = is_stopping_] { return stopping->load(); };
    uploads_ = std::make_shared<storage::Uploads>(std::move(options));
    upload_check_ = std::make_unique<PeriodicCall>(kUploadCheckInterval,
                                                   [uploads = uploads_] { uploads->CleanUp(api::LogUploadedImage); });
  }

  // Called before the server starts.
  void MakeConsoles() {
    api::ConsoleOptions options;
    options.store = store_;
    options.host_id = host_id_;
    options.identity = identity_.get();
    options.guests = guests_.get();
    options.open_remote = api::OpenRemoteConsole;
    options.max_consoles = config_.max_consoles;
    options.max_consoles_per_user = config_.max_consoles_per_user;
    options.idle = config_.console_idle;
    consoles_ = std::make_unique<api::Consoles>(std::move(options));
    console_check_ = std::make_unique<PeriodicCall>(kConsoleCheckInterval, [this] { consoles_->Check(); });
  }

  // Called before the server starts, which reports it.
  void StartHealthProbe() {
    HealthProbeOptions options;
    options.check = MakeStoreCheck(store_, host_id_);
    health_ = std::make_unique<HealthProbe>(std::move(options));
  }

  // Called before the server starts, so that no handler runs without the transport.
  Status MakeTransport() {
    const std::string host_id = VexaCCC::DB::DBLocalhostID();
    local_caller_ =
        std::make_unique<api::LocalCaller>(api::LocalCaller::Parts{table_.get(), metrics_.get(), &local_, host_id});
    item_caller_ =
        std::make_unique<api::LocalCaller>(api::LocalCaller::Parts{table_.get(), metrics_.get(), &items_, host_id});
    transport::TransportOptions options;
    options.host_id = host_id;
    options.local_call = [this](const VexaDRCore::Request& request, std::chrono::milliseconds timeout) {
      return local_caller_->Call(request, timeout);
    };
    options.find_address = FindClusterAddress;
    options.liveness = LivenessForRequest;
    if (certificate_) {
      options.remote = transport::TransportOptions::Remote::kTls;
      options.tls = certificate_->files();
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
    if (certificate_) {
      listeners->back().certificate_file = certificate_->files().certificate;
      listeners->back().key_file = certificate_->files().key;
    }
    http::ServerOptions options;
    options.listeners = std::move(*listeners);
    options.limits.connections = RaiseFileLimit(config.max_connections);
    if (options.limits.connections < config.max_connections) {
      ::syslog(LOG_WARNING, "The limit of open files leaves room for %zu connections, not %zu.",
               options.limits.connections, config.max_connections);
    }
    options.limits.connections_per_peer = config.max_connections_per_peer;
    options.limits.connections_per_owner =
        std::min(options.limits.connections_per_owner, config.max_connections_per_peer);
    options.limits.body_bytes = api::kMaxBodyBytes;  // the dispatcher lowers it to that of the method
    options.io_threads = config.io_threads;
    options.on_header = [this](http::HttpRequest& request) { return dispatcher_->OnHeader(request); };
    options.on_request = [this](http::HttpRequest&& request, http::Responder responder) {
      dispatcher_->OnRequest(std::move(request), std::move(responder));
    };
    options.make_error = [](int status, const std::string& request_id) {
      http::HttpResponse response = api::MakeErrorReply(ErrorForHttpStatus(status).code, request_id);
      response.status = status;
      return response;
    };
    auto server = http::HttpServer::Start(std::move(options));
    if (!server) return server.error();
    server_ = std::move(*server);
    LogListeners(config);
    return {};
  }

  api::ServiceParts MakeServiceParts(const Config& config) const {
    api::ServiceParts parts;
    parts.store = store_;
    parts.guests = guests_.get();
    if (guests_) parts.rate_guest = [this](const std::string& guest_id) { return guests_->RateGuest(guest_id); };
    if (!config.authority_key.empty()) {
      const AuthorityFiles authority{ClusterFilesOf(config).authority, config.authority_key};
      parts.sign_certificate = [store = store_, authority](const api::SigningCall& call) {
        return SignForMember(*store, authority, call);
      };
    }
    parts.web_ports = [this, is_https = !config.tls_certificate.empty()] {
      api::WebPorts ports;
      (is_https ? ports.https_port : ports.http_port) = web_port_;
      ports.enable_https = is_https;
      return ports;
    };
    return parts;
  }

  // Called once requests are answered: the first heartbeat invites calls from other hosts.
  void JoinCluster(const Config& config) {
    if (!config.listen.empty()) web_port_ = port(0);
    // Without a listener for other hosts, this host has no address to publish.
    const std::string address = config.cluster_listen.empty() ? "" : cluster_address();
    cluster::HeartbeatOptions options;
    options.claim = claim_;
    options.stop_fenced_guests = [this] { return !guests_ || guests_->StopFencedGuests(); };
    options.on_lost = [on_claim_lost = config.on_claim_lost](const std::string& reason) {
      ::syslog(LOG_CRIT, "This host must stop: %s", reason.c_str());
      if (on_claim_lost) on_claim_lost();
    };
    const auto gather = [host_id = host_id_, address, guests = guests_.get(), certificate = certificate_.get(),
                         is_simulated = config.hypervisor == "test"] {
      cluster::HostFacts facts = machine::GatherHostFacts(host_id, VEXA_VERSION, machine::Machine());
      facts.cluster_address = address;
      if (certificate) {
        facts.certificate_issued = ToUnixSeconds(certificate->times().not_before);
        facts.certificate_expires = ToUnixSeconds(certificate->times().not_after);
      }
      facts.state = HostStateFor({guests, [] { return machine::HasBrokenLink(machine::Machine()); }});
      facts.is_simulated = is_simulated;
      facts.package_version = guests ? guests->HypervisorVersion() : "";
      return facts;
    };
    heartbeat_ = std::make_unique<cluster::HostHeartbeat>(store_, gather, std::move(options));
    if (certificate_) certificate_->Start();
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
  bool has_installed_environment_ = false;
  DataLock data_lock_;
  std::shared_ptr<store::Store> store_;
  std::shared_ptr<accounts::AccountProvider> accounts_;
  std::unique_ptr<session::SessionTable> sessions_;
  std::unique_ptr<records::MemberList> members_;
  std::unique_ptr<api::Identity> identity_;
  session::LoginLimiter limiter_;
  std::unique_ptr<guests::GuestControl> guests_;
  api::GuestStates guest_states_;
  session::ConsoleTickets console_tickets_;
  std::unique_ptr<api::Consoles> consoles_;
  std::unique_ptr<PeriodicCall> console_check_;
  const std::shared_ptr<std::atomic<bool>> is_stopping_ = std::make_shared<std::atomic<bool>>(false);
  std::shared_ptr<storage::Uploads> uploads_;
  std::unique_ptr<PeriodicCall> upload_check_;
  std::unique_ptr<HealthProbe> health_;
  std::unique_ptr<api::ApiTable> table_;
  std::unique_ptr<api::Metrics> metrics_;
  std::unique_ptr<api::Dispatcher> dispatcher_;
  std::unique_ptr<api::LocalCaller> local_caller_;
  std::unique_ptr<api::LocalCaller> item_caller_;
  const std::shared_ptr<RecentOwners> callers_ = std::make_shared<RecentOwners>();
  Lane quick_;
  Lane long_running_;
  Lane hosts_;
  Lane quick_hosts_;
  Lane local_;
  Lane items_;
  std::unique_ptr<http::HttpServer> server_;
  std::size_t first_network_listener_ = 0;
  std::atomic<int> web_port_ = 0;  // of the first network listener, once it is open
  std::string host_id_;
  std::shared_ptr<cluster::HostClaim> claim_;
  std::unique_ptr<HostCertificate> certificate_;  // only with a listener for hosts
  std::unique_ptr<cluster::HostHeartbeat> heartbeat_;
  std::unique_ptr<BoundedTask> certificate_stop_;
  std::unique_ptr<BoundedTask> sign_off_;
  std::unique_ptr<BoundedTask> farewell_;
  bool stopped_ = false;
};

Daemon::Daemon(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Daemon::~Daemon() = default;

Result<std::unique_ptr<Daemon>> Daemon::Start(const Config& config, std::vector<api::ApiRow> extra_rows) {
  auto impl = std::make_unique<Impl>(config);
  if (Status started = impl->Start(config, std::move(extra_rows)); !started) return started.error();
  return std::unique_ptr<Daemon>(new Daemon(std::move(impl)));
}

std::uint16_t Daemon::port(std::size_t index) const { return impl_->port(index); }
std::string Daemon::cluster_address() const { return impl_->cluster_address(); }
void Daemon::Sweep() { impl_->Sweep(); }
bool Daemon::IsServing(std::chrono::milliseconds timeout) { return impl_->IsServing(timeout); }
bool Daemon::Stop(std::chrono::milliseconds deadline) { return impl_->Stop(deadline); }

}  // namespace vexa::daemon
