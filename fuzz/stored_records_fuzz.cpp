// Records as any host of the cluster can write them: whatever is in the store, everything that reads it answers, and
// damage is an error of the documented kind.
//
// The input's lines: a letter for the key, and the text that is stored under it.
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz/call_row.h"
#include "fuzz/check.h"
#include "host/api/user/account_api.h"
#include "host/api/user/grant_api.h"
#include "host/api/user/guest_api.h"
#include "host/api/user/guest_states.h"
#include "host/api/user/host_list_api.h"
#include "host/api/user/image_api.h"
#include "host/api/user/log_api.h"
#include "host/api/user/repository_api.h"
#include "host/base/json_parse.h"
#include "host/cluster/mac_address.h"
#include "host/cluster/settings.h"
#include "host/cluster/versions.h"
#include "host/disks/file_referrers.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/guests/jobs/edit_record.h"
#include "host/guests/jobs/guest_locks.h"
#include "host/guests/jobs/job_record.h"
#include "host/records/domain_record.h"
#include "host/records/environment.h"
#include "host/records/guest_records.h"
#include "host/records/host_claim_record.h"
#include "host/records/host_liveness.h"
#include "host/records/object_edit.h"
#include "host/records/request_scope.h"
#include "host/records/run_record.h"
#include "host/records/shutdown_reason.h"
#include "host/storage/repository_files.h"
#include "host/storage/storage_record.h"
#include "host/storage/uploads.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_host.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::fuzz::Check;
using vexa::store::MakeKey;

constexpr const char* kGuest = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr const char* kOther = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c";  // a host, repository, disk, …
constexpr const char* kMac = "02:00:5e:10:00:01";

struct Fixture {
  Fixture() {
    host_id = vexa::records::CurrentEnvironment()->host_id;
    const vexa::api::AccountServices services{
        vexa::records::CurrentEnvironment()->store,
        std::make_shared<vexa::cluster::AccountStore>(vexa::records::CurrentEnvironment()->store), &limiter};
    const auto& store = services.store;
    vexa::storage::UploadOptions uploads;
    uploads.store = store;
    uploads.host_id = host_id;
    uploads.roots = {"/images"};
    for (auto&& part : {vexa::api::GuestRows(), vexa::api::HostListRows(),
                        vexa::api::ImageRows(store, {"/images"}, std::make_shared<vexa::storage::Uploads>(uploads)),
                        vexa::api::RepositoryRows(store), vexa::api::LogRows(), vexa::api::AccountRows(services),
                        vexa::api::GrantRows(services)}) {
      rows.insert(rows.end(), part.begin(), part.end());
    }
    for (const char* const category : {"guest", "vdisk", "vnic", "host", "repository", "network", "image"}) {
      keys.push_back(MakeKey({"dash", category, category == std::string("guest") ? kGuest : kOther, "object"}));
    }
    for (std::vector<std::string_view> segments :
         std::vector<std::vector<std::string_view>>{{"dash", "guest", kGuest, "state"},
                                                    {"dash", "guest", kGuest, "domain"},
                                                    {"dash", "host", host_id, "object"},
                                                    {"dash", "host", kOther, "seen"},
                                                    {"dash", "repository", kOther, "storage"},
                                                    {"dash", "repository", kOther, "state"},
                                                    {"dash", "vdisk", kOther, "state"},
                                                    {"dash", "ha_group", kOther, "object"},
                                                    {"host_claim", kOther},
                                                    {"fence", host_id, kGuest},
                                                    {"live", kGuest},
                                                    {"run", kGuest},
                                                    {"run", kOther},
                                                    {"name", "image", "a"},
                                                    {"undefine", host_id, kGuest},
                                                    {"deletion", kGuest},
                                                    {"edit", kGuest},
                                                    {"leftover", host_id, kGuest},
                                                    {"accounts", "state"},
                                                    {"accounts", "user", "1900000001"},
                                                    {"accounts", "group", "1900000000"},
                                                    {"dash", "guest_admin", "users-1900000001", "object"},
                                                    {"log", "00001700000000000000"},
                                                    {"settings", "cluster"},
                                                    {"settings", "upgrade"},
                                                    {"mac", "01", kMac}}) {
      std::string key;
      for (const std::string_view segment : segments) key += MakeKey({segment});
      keys.push_back(std::move(key));
    }
  }

  vexa::test::TestHost host;
  std::string host_id;
  vexa::session::LoginLimiter limiter{vexa::session::LoginLimiterOptions{}};
  vexa::api::GuestStates states;
  std::vector<vexa::api::ApiRow> rows;
  std::vector<std::string> keys;
};

void Store(Fixture& fixture, std::string_view rest) {
  vexa::store::Transaction transaction;
  for (const std::string& key : fixture.keys) transaction.operations.push_back({key, std::nullopt});
  while (!rest.empty()) {
    const std::string_view line = vexa::fuzz::TakeUntil(rest, "\n");
    if (line.empty()) continue;
    transaction.operations[static_cast<unsigned char>(line.front()) % fixture.keys.size()].text =
        std::string(line.substr(1));
  }
  Check(fixture.host.store().Commit(transaction).ok(), "the records are stored");
}

// Whether an error is one that readers of records have.
template <class T>
void CheckRead(const vexa::Result<T>& result) {
  if (result.ok()) return;
  const vexa::ErrorCode code = result.error().code();
  Check(code == vexa::ErrorCode::kCorrupt || code == vexa::ErrorCode::kNotFound || code == vexa::ErrorCode::kInvalid,
        "only the record can be wrong");
  Check(vexa::IsValidUtf8(result.error().ToString()), "an error is text");
}

void ReadEverything(const Fixture& fixture) {
  const auto opened = vexa::records::Reader::OpenCurrent();
  Check(opened.ok(), "the store can be read");
  const vexa::records::Reader& reader = *opened;
  CheckRead(vexa::records::ReadGuest(reader, kGuest));
  CheckRead(vexa::records::ReadDomain(reader, kGuest));
  CheckRead(vexa::records::ReadRun(reader, kGuest));
  CheckRead(vexa::records::RunsOf(reader, fixture.host_id));
  CheckRead(vexa::records::ReadShutdown(reader, kGuest));
  CheckRead(vexa::records::LivenessOf(reader, kOther));
  CheckRead(vexa::records::ReachableHosts(reader));
  const auto claim = vexa::records::LoadObject(reader, vexa::records::HostClaimKey(kOther));
  CheckRead(claim);
  if (claim.ok()) (void)vexa::records::IsForgotten(claim->record);
  CheckRead(vexa::storage::ReadStorage(reader, kOther));
  CheckRead(vexa::storage::RepositoriesOf(reader, fixture.host_id));
  CheckRead(vexa::guests::ReadJob(reader, vexa::guests::kEditKind, kGuest));
  CheckRead(vexa::guests::ReadDeletion(reader, kGuest));
  CheckRead(vexa::guests::ReadLeftover(reader, fixture.host_id, kGuest));
  CheckRead(vexa::guests::FindLock(reader, kGuest));
  CheckRead(vexa::guests::FindJob(reader, kGuest));
  CheckRead(vexa::cluster::ReadClusterSettings(reader));
  CheckRead(vexa::cluster::ReadUpgradeSettings(reader));
  CheckRead(vexa::cluster::HasIncompatibleHosts(reader));
  const auto& store = *vexa::records::CurrentEnvironment()->store;
  CheckRead(vexa::cluster::GuestOfMacAddress(store, kMac));
  vexa::disks::FileReferrerQuery query;
  query.host_id = fixture.host_id;
  CheckRead(vexa::disks::FindFileReferrers(store, query, {{"/images/a", {}}}));
}

void CallRow(const vexa::api::ApiRow& row) {
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = kGuest;
  if (row.api == "VEXA.Core.Account") {
    parameters["kind"] = "user";
    parameters["id"] = 1900000001;
  }
  const vexa::records::RequestScope scope;
  (void)vexa::fuzz::CallRow(row, parameters, vexa::fuzz::AdministratorCaller());
}

// The methods that only read, by the last word of their names.
bool IsReading(std::string_view method) {
  return method == "get" || method == "list" || method.ends_with("_list") || method.ends_with("_get");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture fixture;
  vexa::test::ClearCapturedSyslog();
  Store(fixture, vexa::fuzz::Text(data, size));
  ReadEverything(fixture);
  for (const vexa::api::ApiRow& row : fixture.rows) {
    if (IsReading(row.method)) CallRow(row);
  }
  const auto listing = fixture.states.ListWith(std::make_shared<vexa::api::GuestLinkStates>());
  CheckRead(listing);
  if (!listing.ok()) return 0;
  for (const auto& guest : *listing->guests) {
    Json::Value view(Json::objectValue);
    vexa::api::AddAge(*guest, *listing, view);
    Check(vexa::ParseJson(json::ToText(view)).ok(), "a listed guest is JSON");
  }
  return 0;
}
