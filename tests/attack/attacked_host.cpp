#include "tests/attack/attacked_host.h"

#include <fmt/format.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>

#include "host/accounts/account_password.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/daemon/host_id.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/attack/attack.h"
#include "tests/support/check.h"
#include "tests/support/require.h"
#include "tests/support/vexad_client.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr const char* kRepository = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr int kFirstUid = 1'900'000'001;
// In the order of their ids.
constexpr const char* kUsers[] = {"admin", "mallory", "grace"};

store::Operation PutObject(const char* category, const std::string& id, const Json::Value& record) {
  return {store::MakeKey({"dash", category, id, "object"}), json::ToText(record)};
}

Json::Value GuestRecord(int guest, const std::string& host_id) {
  Json::Value record(Json::objectValue);
  record["name"] = guest == 0 ? "web" : fmt::format("web-{}", guest);
  record["repository_id"] = kRepository;
  record["host_id"] = host_id;
  record["state"] = VexaCCC::State::Guest::shutdown;
  record["vcpu_num"] = 1;
  record["vram_size"] = 1024;
  record["cpu_passthru"] = false;
  record["use_ovmf"] = false;
  record["vdisks"] = Json::Value(Json::arrayValue);
  record["vnics"] = Json::Value(Json::arrayValue);
  return record;
}

Json::Value RepositoryRecord(const std::string& host_id) {
  Json::Value record(Json::objectValue);
  record["name"] = "pool";
  record["host_id"] = host_id;
  record["state"] = VexaCCC::State::Repo::online;
  return record;
}

std::string AccountsText() {
  const std::string hash = Require(accounts::HashPassword(kPassword));
  std::string users;
  for (int i = 0; i < 3; ++i) {
    users += fmt::format(R"({}{{"name":"{}","uid":{},"gid":{},"password":"{}","groups":[]}})", i == 0 ? "" : ",",
                         kUsers[i], kFirstUid + i, i == 0 ? 1'900'000'000 : 1'900'000'009, hash);
  }
  return fmt::format(
      R"({{"version":1,"groups":[{{"name":"administrators","gid":1900000000}},{{"name":"others","gid":1900000009}}],)"
      R"("users":[{}]}})",
      users);
}

}  // namespace

AttackedHost::AttackedHost(AttackedHostOptions options)
    : options_(std::move(options)), data_((options_.folder.empty() ? folder_.path() : options_.folder) + "/data") {
  Require(CreateDirectories(data_, 0700));
  host_id_ = Require(daemon::LoadHostId(data_));
  if (options_.doors == Doors::kUsersAndHosts) MakeCertificates();
  Seed();
  Start();
  for (const char* user : kUsers) tokens_[user] = Login(user);
}

void AttackedHost::MakeCertificates() {
  authority_ = std::make_unique<TestAuthority>(folder_.File("authority"));
  for (const std::string& id : {host_id_, std::string(kMember), std::string(kRevokedMember), std::string(kStranger)}) {
    certificates_[id] = authority_->FilesOf(id);
  }
}

void AttackedHost::Seed() const {
  Require(WriteFileAtomically(AccountFile(), AccountsText(), 0600));
  store::Transaction seed;
  seed.operations.push_back(PutObject("repository", kRepository, RepositoryRecord(host_id_)));
  for (int i = 0; i < options_.guests; ++i) {
    seed.operations.push_back(PutObject("guest", GuestId(i), GuestRecord(i, host_id_)));
  }
  Json::Value grant(Json::objectValue);
  grant["authlevel"] = "user";
  grant["guests"][GuestId(0)] = true;
  seed.operations.push_back(PutObject("guest_admin", fmt::format("users-{}", kFirstUid + 2), grant));
  for (const char* host : {kMember, kRevokedMember}) {
    seed.operations.push_back({store::MakeKey({"host_claim", host}), R"({"incarnation":1})"});
  }
  seed.operations.push_back(
      {store::MakeKey({"revoked", kRevokedMember}), R"({"before":4000000000,"by":"root","time":1})"});
  store::LmdbOptions options;
  options.directory = StoreDirectory();
  (void)Require(Require(store::OpenLmdbStore(options))->Commit(seed));
}

std::vector<std::string> AttackedHost::Arguments() const {
  std::vector<std::string> arguments = options_.launcher;
  arguments.insert(arguments.end(),
                   {VEXAD_PROGRAM, "--data", data_, "--account-file", AccountFile(), "--socket", socket(), "--listen",
                    "127.0.0.1:0", "--hypervisor", options_.hypervisor, "--log", "stderr"});
  if (options_.doors == Doors::kUsersAndHosts) {
    const transport::TlsFiles& files = certificates_.at(host_id_);
    arguments.insert(arguments.end(), {"--cluster-listen", "127.0.0.1:0", "--cluster-certificate", files.certificate,
                                       "--cluster-key", files.key, "--cluster-authority", files.authority});
  }
  arguments.insert(arguments.end(), options_.flags.begin(), options_.flags.end());
  return arguments;
}

bool AttackedHost::TryStart() {
  daemon_.reset();
  daemon_ = std::make_unique<Process>(ProcessOptions{.argv = Arguments()});
  if (daemon_->WaitForText("Ready.", kPatience)) return true;
  if (daemon_->IsRunning()) Fail("the daemon neither serves nor ends: " + LastLog());
  return false;
}

void AttackedHost::Start() {
  if (!TryStart()) Fail(LastLog());
}

void AttackedHost::Kill() {
  daemon_->Signal(SIGKILL);
  (void)daemon_->Wait(kPatience);
}

std::optional<ExitStatus> AttackedHost::Stop() {
  daemon_->Signal(SIGTERM);
  return daemon_->Wait(kPatience);
}

std::string AttackedHost::Login(const std::string& user, const std::string& password) const {
  HttpClient client = Network(kPatience);
  const HttpReply reply =
      client.PostJson(kLoginPath, fmt::format(R"({{"user":"{}","password":"{}"}})", user, password));
  return json::StringMember(DataOf(reply), "token");
}

HttpClient AttackedHost::Network(std::chrono::milliseconds timeout, const std::string& token) const {
  HttpClient client(NetworkOf(*daemon_));
  if (!token.empty()) client.SetHeader("Authorization", "Bearer " + token);
  client.SetTimeout(timeout);
  return client;
}

HttpClient AttackedHost::ClientOf(const std::string& user, std::chrono::milliseconds timeout) const {
  return Network(timeout, TokenOf(user));
}

HttpClient AttackedHost::Root(std::chrono::milliseconds timeout) const {
  HttpClient client(UnixSocket(socket()));
  client.SetTimeout(timeout);
  return client;
}

HttpClient AttackedHost::Host(const std::string& host_id, std::chrono::milliseconds timeout) const {
  HttpTarget target;
  target.url = fmt::format("https://{}:{}", host_id_, host_port());
  target.connect_to = fmt::format("127.0.0.1:{}", host_port());
  target.ca_file = certificates_.at(host_id_).authority;
  if (!host_id.empty()) {
    target.certificate_file = certificates_.at(host_id).certificate;
    target.key_file = certificates_.at(host_id).key;
  }
  HttpClient client(target);
  client.SetTimeout(timeout);
  return client;
}

void AttackedHost::ReplaceCertificate(const std::string& host_id, const transport::Validity& validity) {
  certificates_[host_id] = authority_->FilesOf(host_id, host_id, validity);
}

std::uint16_t AttackedHost::PortAfter(const std::string& words) const {
  std::smatch match;
  const std::string log = LastLog();
  if (!std::regex_search(log, match, std::regex(words + R"(127\.0\.0\.1:([0-9]+)\.)"))) Fail("no listener: " + log);
  return static_cast<std::uint16_t>(std::stoi(match[1]));
}

std::uint16_t AttackedHost::user_port() const { return PortAfter("Listening on http://"); }
std::uint16_t AttackedHost::host_port() const { return PortAfter("Listening for other hosts on "); }

std::string AttackedHost::GuestId(int guest) {
  return fmt::format("8f14e45f-ceea-467f-a9d1-0f2b6c1e{:04x}", 0x4a01 + guest);
}

bool AttackedHost::Gets(HttpClient& client) { return DescriptionOf(client, 0).has_value(); }

std::optional<std::string> AttackedHost::DescriptionOf(HttpClient& client, int guest) {
  const HttpReply reply = client.PostJson(kGetPath, fmt::format(R"({{"guest_id":"{}"}})", GuestId(guest)));
  if (!reply.arrived() || reply.status != 200) return std::nullopt;
  return json::StringMember(DataOf(reply), "desc");
}

int AttackedHost::Describe(HttpClient& client, int guest, const std::string& description) {
  const HttpReply reply =
      client.PostJson(kSetPath, fmt::format(R"({{"guest_id":"{}","desc":"{}"}})", GuestId(guest), description));
  return reply.arrived() ? CodeOf(reply) : -1;
}

std::size_t AttackedHost::ResidentBytes() const {
  std::ifstream file(fmt::format("/proc/{}/statm", daemon_->pid()));
  std::size_t size = 0;
  std::size_t resident = 0;
  if (!(file >> size >> resident)) Fail("the daemon has ended: " + LastLog());
  return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

std::size_t AttackedHost::Descriptors() const {
  std::size_t count = 0;
  const std::filesystem::path folder = fmt::format("/proc/{}/fd", daemon_->pid());
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

int CodeOf(const HttpReply& reply) {
  if (!reply.arrived()) return 0;
  const auto body = ParseJson(reply.body);
  return body ? json::Int(json::Member(json::Member(*body, "error"), "code")) : 0;
}

Json::Value DataOf(const HttpReply& reply) {
  if (!reply.arrived()) return {};
  const auto body = ParseJson(reply.body);
  return body ? json::Member(*body, "data") : Json::Value();
}

}  // namespace vexa::test
