// Measures the cost of computing every guest's state, of reading the cached result, and of listing the guests,
// unchanged and with one changed guest: for growing numbers of guests on 100 hosts, with two network interfaces each.
// One server in this process simulates the hosts.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/bench_util.h"
#include "bench/guest_records.h"
#include "bench/simulated_host.h"
#include "host/api/user/guest_states.h"
#include "host/http/http_server.h"
#include "host/records/environment.h"
#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "host/transport/transport.h"
#include "json/readers.h"
#include "tests/support/temp_dir.h"
#include "webapi/guest/guest_uistate_cache.h"
#include "webapi/platform/ccc_constants.h"

namespace {

using namespace vexa;
using bench::Check;
using bench::Median;
using bench::MillisecondsOf;
namespace states = VexaCCC::State;

constexpr int kHosts = 100;
constexpr int kRepositories = 20;
constexpr int kGuestsPerCommit = 500;
constexpr const char* kInterfaces =
    R"({"success":true,"data":[{"ifname":"lo","status":"connected"},{"ifname":"ovs_eth0","ip":"192.0.2.1",)"
    R"("status":"connected","type":"ethernet"}]})";

std::string HostId(int number) { return bench::Id(3, number); }
std::string RepositoryId(int number) { return bench::Id(4, number); }

// The server that simulates all hosts.
std::unique_ptr<http::HttpServer> StartSimulatedHosts() {
  http::ServerOptions options = bench::ServerOptionsOf({});
  options.on_request = [](http::HttpRequest&&, const http::Responder& responder) {
    bench::Answer(responder, kInterfaces);
  };
  return bench::Require(http::HttpServer::Start(std::move(options)));
}

void Commit(store::Store& store, store::Transaction& transaction) {
  Check(store.Commit(transaction).ok(), "commit");
  transaction = {};
}

void SeedHosts(store::Store& store) {
  store::Transaction transaction;
  for (int i = 0; i < kHosts; ++i) {
    Json::Value host(Json::objectValue);
    host["name"] = "host-" + std::to_string(i);
    host["state"] = states::Host::running;
    transaction.operations.push_back(bench::Put("host", HostId(i), host));
    transaction.operations.push_back(
        {store::MakeKey({"dash", "host", HostId(i), "nics", "n0"}), R"({"name":"ovs_eth0"})"});
  }
  for (int i = 0; i < kRepositories; ++i) {
    Json::Value repository(Json::objectValue);
    repository["host_id"] = HostId(i);
    repository["state"] = i % 5 == 4 ? states::Repo::degraded : states::Repo::online;
    transaction.operations.push_back(bench::Put("repository", RepositoryId(i), repository));
  }
  Commit(store, transaction);
}

// Two of three guests run.
void AddGuest(int number, store::Transaction& transaction) {
  const std::string id = bench::Id(0, number);
  const bool runs = number % 3 != 0;
  Json::Value guest = bench::GuestRecord(number);
  guest["host_id"] = HostId(number % kHosts);
  guest["repository_id"] = RepositoryId(number % kRepositories);
  guest["state"] = runs ? states::Guest::running : states::Guest::shutdown;
  guest["shutdownreasonvalue"] = number % 17;
  for (int device = 2 * number; device < 2 * number + 2; ++device) {
    guest["vdisks"].append(bench::Id(1, device));
    guest["vnics"].append(bench::Id(2, device));
    Json::Value nic = bench::NicRecord(id);
    if (runs) {
      Json::Value& attachment = nic["running"][HostId(number % kHosts)];
      attachment["bridge_name"] = "ovs_br0";
      attachment["nic_id"] = "n0";
    }
    transaction.operations.push_back(bench::Put("vnic", bench::Id(2, device), nic));
  }
  transaction.operations.push_back(bench::Put("guest", id, guest));
}

struct Figures {
  double refresh_ms = 0;
  double first_read_ms = 0;
  double read_ms = 0;
  double first_list_ms = 0;
  double list_ms = 0;
  double changed_list_ms = 0;
};

void List(api::GuestStates& states, int guests) {
  const records::RequestScope scope;
  const auto listing = states.List();
  Check(listing.ok() && listing->guests->size() == static_cast<std::size_t>(guests), "list");
}

void MeasureLists(store::Store& store, int guests, int rounds, Figures& figures) {
  api::GuestStates states;
  (void)states.links().Get(std::chrono::minutes(1));
  figures.first_list_ms = MillisecondsOf([&] { List(states, guests); });
  std::vector<double> unchanged;
  std::vector<double> changed;
  for (int i = 0; i < rounds; ++i) {
    unchanged.push_back(MillisecondsOf([&] { List(states, guests); }));
    store::Transaction transaction;
    AddGuest(i, transaction);
    Commit(store, transaction);
    changed.push_back(MillisecondsOf([&] { List(states, guests); }));
  }
  figures.list_ms = Median(unchanged);
  figures.changed_list_ms = Median(changed);
}

// Reads one snapshot of the store for the whole refresh, as the daemon does.
void Refresh(int guests) {
  const records::RequestScope scope;
  Json::Value data;
  Check(VexaVirtualization::GuestUIStatusCache().GetUpdatedData(data), "refresh");
  Check(data["guests"].size() == static_cast<Json::ArrayIndex>(guests), "every guest");
  int warned = 0;
  for (const Json::Value& guest : data["guests"]) warned += guest["status_type"] == "warning" ? 1 : 0;
  Check(warned > 0 && warned < guests / 2, "links and shut-down guests");
}

void Read(int guests) {
  std::map<std::string, VexaVirtualization::UIState> states;
  Check(VexaVirtualization::GetCachedGuestUIStateDict(states), "read");
  Check(states.size() == static_cast<std::size_t>(guests), "every guest's state");
}

Figures Measure(int guests) {
  const test::TempDir folder;
  store::LmdbOptions store_options;
  store_options.directory = folder.File("store");
  const std::shared_ptr<store::Store> store = bench::Require(store::OpenLmdbStore(store_options));
  SeedHosts(*store);
  store::Transaction transaction;
  for (int number = 0; number < guests; ++number) {
    AddGuest(number, transaction);
    if ((number + 1) % kGuestsPerCommit == 0 || number + 1 == guests) Commit(*store, transaction);
  }
  records::Environment environment;
  environment.store = store;
  environment.host_id = HostId(0);
  environment.cache_directory = folder.File("cache");
  records::InstallEnvironment(std::move(environment));

  Figures figures;
  std::vector<double> samples;
  const int rounds = guests > 10'000 ? 3 : 7;
  Refresh(guests);
  for (int i = 0; i < rounds; ++i) samples.push_back(MillisecondsOf([&] { Refresh(guests); }));
  figures.refresh_ms = Median(samples);
  {
    const records::RequestScope scope;
    (void)VexaVirtualization::GuestUIStatusCache().BlockedRead();
  }
  figures.first_read_ms = MillisecondsOf([&] { Read(guests); });
  samples.clear();
  for (int i = 0; i < rounds; ++i) samples.push_back(MillisecondsOf([&] { Read(guests); }));
  figures.read_ms = Median(samples);
  MeasureLists(*store, guests, rounds, figures);
  records::RemoveEnvironment();
  return figures;
}

}  // namespace

int main() {
  const auto hosts = StartSimulatedHosts();
  const std::string address = bench::AddressOf(*hosts);
  transport::TransportOptions options;
  options.host_id = "none";  // an id of no host in the records, so that all hosts are called over sockets
  options.remote = transport::TransportOptions::Remote::kPlain;
  options.find_address = [address](const std::string&) { return std::optional(address); };
  transport::InstallTransport(bench::Require(transport::Transport::Make(std::move(options))));

  std::printf("%8s %14s %12s %10s %16s %12s %14s %10s %18s\n", "guests", "refresh ms", "us a guest", "of 1000's",
              "first read ms", "read ms", "first list ms", "list ms", "one changed, ms");
  double reference = 0;
  for (const int guests : {100, 1'000, 10'000, 100'000}) {
    const Figures figures = Measure(guests);
    const double each = 1000 * figures.refresh_ms / guests;
    if (guests == 1'000) reference = each;
    char ratio[16] = "";
    if (reference > 0) std::snprintf(ratio, sizeof ratio, "%.2f", each / reference);
    std::printf("%8d %14.1f %12.1f %10s %16.2f %12.2f %14.1f %10.2f %18.2f\n", guests, figures.refresh_ms, each, ratio,
                figures.first_read_ms, figures.read_ms, figures.first_list_ms, figures.list_ms,
                figures.changed_list_ms);
    std::fflush(stdout);
  }
  transport::RemoveTransport();
  return 0;
}
