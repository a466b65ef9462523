#include "tests/support/qemu_host.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "host/base/json_parse.h"
#include "host/daemon/host_id.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/check.h"
#include "tests/support/http_client.h"
#include "tests/support/logged_program.h"
#include "tests/support/process.h"
#include "tests/support/require.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kDiskBytes = 1 << 20;

std::string ObjectKey(const std::string& category, const std::string& id) {
  return store::MakeKey({"dash", category, id, "object"});
}

void MakeFolder(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) Fail("Cannot make the folder " + path);
}

}  // namespace

QemuFiles HostFiles() { return {{VEXAD_PROGRAM, VEXA_PROGRAM}, {VEXA_LIBRARY}}; }

bool Await(const std::function<bool()>& holds, std::chrono::milliseconds timeout) {
  const auto end = Clock::now() + timeout;
  while (!holds()) {
    if (Clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

bool FileExists(const std::string& path) {
  std::error_code ignored;
  return fs::exists(path, ignored);
}

std::string Content(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

QemuHost::QemuHost(const QemuEnvironment& environment, QemuHostOptions options)
    : environment_(environment), folder_(environment.folder()), options_(std::move(options)) {
  if (options_.embed_root.empty()) options_.embed_root = environment.root();
  if (options_.image_root.empty()) options_.image_root = folder_ + "/disks";
  MakeFolder(DataFolder());
  MakeFolder(options_.image_root);
  MakeFolder(DiskFolder());
  host_id_ = Require(daemon::LoadHostId(DataFolder()));
  if (!options_.runtime.empty()) MakeFolder(options_.runtime);
  Json::Value repository(Json::objectValue);
  repository["host_id"] = host_id_;
  repository["state"] = VexaCCC::State::Repo::online;
  Put("repository", kHostRepository, repository);
}

QemuHost::~QemuHost() { Kill(); }

std::string QemuHost::Log() const { return Content(LogFile()); }

std::string QemuHost::StoreFolder() const { return options_.store.empty() ? DataFolder() + "/store" : options_.store; }

std::vector<std::string> QemuHost::Arguments() const {
  return {folder_ + "/vexad",
          "--data",
          DataFolder(),
          "--store",
          StoreFolder(),
          "--socket",
          Socket(),
          "--listen",
          "none",
          "--hypervisor",
          options_.hypervisor,
          "--hypervisor-root",
          options_.embed_root,
          "--image-roots",
          options_.image_root,
          "--stop-timeout",
          std::to_string(options_.stop_timeout.count()),
          "--log",
          "stderr"};
}

void QemuHost::Launch() {
  ::setenv("LD_LIBRARY_PATH", environment_.LibraryFolder().c_str(), 1);
  std::vector<std::string> arguments = Arguments();
  std::string program = options_.command.empty() ? environment_.Program("vexad") : options_.command[0];
  if (!options_.command.empty()) {
    arguments.erase(arguments.begin());
    arguments.insert(arguments.begin(), options_.command.begin(), options_.command.end());
  }
  pid_ = StartLogged(program, std::move(arguments), LogFile(), options_.runtime);
}

void QemuHost::Start() {
  const std::size_t before = Log().size();
  Launch();
  const auto end = Clock::now() + kGuestTimeout;
  while (Log().find("Ready.", before) == std::string::npos) {
    if (::waitpid(pid_, nullptr, WNOHANG) != 0) Fail("The host has ended: " + Log().substr(before));
    if (Clock::now() > end) Fail("The host does not become ready: " + Log().substr(before));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

int QemuHost::StartExpectingFailure() {
  Launch();
  int status = 0;
  if (!Await([&] { return ::waitpid(pid_, &status, WNOHANG) != 0; })) {
    Kill();
    return -1;
  }
  pid_ = 0;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void QemuHost::Kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = 0;
}

std::optional<std::chrono::milliseconds> QemuHost::Stop(std::chrono::milliseconds timeout) {
  const auto begin = Clock::now();
  ::kill(pid_, SIGTERM);
  const bool ended = Await([this] { return ::waitpid(pid_, nullptr, WNOHANG) != 0; }, timeout);
  if (!ended) {
    Kill();
    return std::nullopt;
  }
  pid_ = 0;
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin);
}

void QemuHost::Restart() {
  Kill();
  Start();
}

std::string QemuHost::Vexa(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), environment_.Program("vexa"));
  const ProcessResult result =
      RunProcess({.argv = arguments, .environment = {{"LD_LIBRARY_PATH", environment_.LibraryFolder()}}});
  if (result.exit_code != 0) Fail("vexa " + arguments[1] + " fails: " + result.output + result.errors);
  return result.output;
}

std::shared_ptr<store::Store> QemuHost::Store() const {
  store::LmdbOptions options;
  options.directory = StoreFolder();
  return Require(store::OpenLmdbStore(options));
}

void QemuHost::PutGuest(const HostGuest& guest) {
  std::string image = environment_.Image(guest.image);
  if (!guest.has_drive) {
    image = DiskFolder() + "/" + DiskId(guest.id, 99) + ".img";
    fs::copy_file(environment_.Image(guest.image), image, fs::copy_options::overwrite_existing);
  }
  domain_xml::GuestRecords records =
      QemuGuestRecords(guest.id, guest.name, image, guest.has_drive ? BootMedium::kIso : BootMedium::kDisk);
  for (int disk = 0; disk < guest.disks; ++disk) {
    std::string bytes = DiskText(guest.id, disk);
    bytes.resize(kDiskBytes, '\0');
    std::ofstream(DiskFile(guest.id, disk), std::ios::binary) << bytes;
    Json::Value record(Json::objectValue);
    record["path"] = DiskFile(guest.id, disk);
    record["driver"] = "raw";
    record["vdisk_mode"] = 1;
    record["size"] = 1;
    records.disks.emplace_back(DiskId(guest.id, disk), record);
  }
  records.guest["host_id"] = host_id_;
  records.guest["repository_id"] = kHostRepository;
  if (guest.has_uefi) records.guest["use_ovmf"] = true;
  records.guest["vdisks"] = Json::Value(Json::arrayValue);
  records.guest["vnics"] = Json::Value(Json::arrayValue);
  int number = 0;
  for (auto& [id, record] : records.disks) {
    record["guest_id"] = guest.id;
    record["repository_id"] = kHostRepository;
    record["name"] = std::string("vd") + static_cast<char>('a' + number++);
    records.guest["vdisks"].append(id);
    Put("vdisk", id, record);
  }
  for (auto& [id, record] : records.nics) {
    record["guest_id"] = guest.id;
    records.guest["vnics"].append(id);
    Put("vnic", id, record);
  }
  Put("guest", guest.id, records.guest);
}

void QemuHost::Put(const std::string& category, const std::string& id, const Json::Value& record) const {
  store::Transaction transaction;
  transaction.operations.push_back({ObjectKey(category, id), json::ToText(record)});
  (void)Require(Store()->Commit(transaction));
}

void QemuHost::DeleteRunRecord(const std::string& guest) const {
  store::Transaction transaction;
  transaction.operations.push_back({records::RunKey(guest), std::nullopt});
  (void)Require(Store()->Commit(transaction));
}

Json::Value QemuHost::Record(const std::string& category, const std::string& id) const {
  const auto record = ParseJson(Stored(ObjectKey(category, id)));
  return record ? *record : Json::Value();
}

std::string QemuHost::Stored(const std::string& key) const {
  const auto store = Store();
  const auto snapshot = Require(store->Read());
  const auto value = Require(snapshot->Get(key));
  return value ? std::string(value->text) : "";
}

std::string QemuHost::State(const std::string& guest) const {
  const auto state = ParseJson(Stored(store::MakeKey({"dash", "guest", guest, "state"})));
  return state && state->isString() ? state->asString() : "";
}

std::string QemuHost::DiskFolder() const { return options_.image_root + "/" + kHostRepository; }

std::string QemuHost::DiskId(const std::string& guest, int disk) {
  const std::string number = std::to_string(disk);
  return "dddddddd-2222-4333-8444-" + guest.substr(guest.size() - 9) + std::string(3 - number.size(), '0') + number;
}

std::string QemuHost::DiskFile(const std::string& guest, int disk) const {
  return DiskFolder() + "/" + DiskId(guest, disk) + ".img";
}

std::string QemuHost::DiskText(const std::string& guest, int disk) { return "What is on " + DiskId(guest, disk); }

std::string QemuHost::ChangedDisks(const std::string& guest, int disks) const {
  std::string lost;
  for (int disk = 0; disk < disks; ++disk) {
    if (!Content(DiskFile(guest, disk)).starts_with(DiskText(guest, disk))) lost += DiskFile(guest, disk) + "\n";
  }
  return lost;
}

Json::Value QemuHost::Ask(const std::string& api_and_method, const std::string& guest,
                          Json::Value extra_members) const {
  HttpTarget target;
  target.url = "http://localhost";
  target.unix_socket = Socket();
  HttpClient client(target);
  client.SetTimeout(kGuestTimeout);
  if (extra_members.isNull()) extra_members = Json::Value(Json::objectValue);
  if (!guest.empty()) extra_members["guest_id"] = guest;
  const HttpReply reply = client.PostJson("/webapi/" + api_and_method, json::ToText(extra_members));
  const auto parsed = ParseJson(reply.body);
  return reply.arrived() && parsed ? *parsed : Json::Value();
}

int QemuHost::Code(const std::string& api_and_method, const std::string& guest,
                   const Json::Value& extra_members) const {
  const Json::Value reply = Ask(api_and_method, guest, extra_members);
  if (!reply.isObject()) return -1;
  if (json::Bool(json::Member(reply, "success"))) return 0;
  const int code = static_cast<int>(json::Int(json::Member(json::Member(reply, "error"), "code")));
  return code != 0 ? code : -1;
}

int QemuHost::Power(const std::string& guest, const std::string& action) const {
  Json::Value extra_members(Json::objectValue);
  extra_members["action"] = action;
  return Code("VEXA.Virtualization.Guest.Action/pwr_ctl", guest, extra_members);
}

int QemuHost::Set(const std::string& guest, const Json::Value& edit) const {
  return Code("VEXA.Virtualization.Guest/set", guest, edit);
}

std::string QemuHost::Addresses(const std::string& guest) const {
  const Json::Value info = json::Member(Ask("VEXA.Virtualization.Guest/info", guest), "data");
  std::string addresses;
  for (const Json::Value& address : json::Elements(json::Member(info, "ip"))) {
    addresses += json::String(address) + " ";
  }
  return addresses;
}

bool QemuHost::AwaitState(const std::string& guest, const std::string& state) const {
  return Await([&] { return State(guest) == state; }, kStateTimeout);
}

bool QemuHost::AwaitOff(const std::string& guest) const {
  return Await([&] { return Qemus(guest) == 0 && Stored(records::RunKey(guest)).empty(); }, kStateTimeout);
}

}  // namespace vexa::test
