#include "tests/system/guest_set_fixture.h"

#include <syslog.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>

#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/require.h"
#include "webapi/platform/ccc.h"

namespace vexa::test {

namespace {

constexpr std::uintmax_t kGib = std::uintmax_t{1} << 30;

constexpr char kGuestRecord[] = R"({"name":"web","vcpu_num":2,"vram_size":512,"cpu_weight":256,"cpu_pin_num":0,
    "usb_version":2,"usbs":["unmounted","unmounted","unmounted","unmounted"],"iso_images":["unmounted"],"autorun":0,
    "boot_from":"disk","use_ovmf":false,"cpu_passthru":true,"hyperv_enlighten":false,"video_card":"vga",
    "kb_layout":"Default","desc":"as it was"})";

std::string Text(const char* key, const std::string& value) {
  return '"' + std::string(key) + "\":" + json::ToText(Json::Value(value));
}

std::string Nic(const std::string& guest_id, const std::string& mac) {
  return R"({"prefer_connect_ip":"","prefer_sriov":false,"vnic_type":1,"network_group_id":"","network_name":"",)" +
         Text("guest_id", guest_id) + "," + Text("mac_address", mac) + "}";
}

// Of a disk's file.
void MakeFile(const std::string& path) {
  if (std::filesystem::exists(path) && std::filesystem::file_size(path) == kGib) return;
  std::filesystem::create_directories(path.substr(0, path.rfind('/')));
  std::ofstream(path).put('d');
  std::filesystem::resize_file(path, kGib);
}

}  // namespace

GuestSetFixture::State* GuestSetFixture::state_ = nullptr;

void GuestSetFixture::SetUpTestSuite() {
  state_ = new State;
  state_->daemon = std::make_unique<TestDaemon>([](daemon::Config& config) {
    config.hypervisor = "test";
    config.image_roots = {config.data_directory + "/images"};
  });
  store::LmdbOptions options;
  options.directory = daemon().config().data_directory + "/store";
  state_->store = Require(store::OpenLmdbStore(options));
  for (const char* role : {"admin", "adam", "grace", "carol", "mallory"}) {
    state_->clients.emplace(role, daemon().TcpAs(role)).first->second.SetTimeout(std::chrono::seconds(60));
  }
  Fill();
  state_->initial = Stored();
  ASSERT_GE(state_->initial.size(), 10u);
}

void GuestSetFixture::TearDownTestSuite() {
  delete state_;
  state_ = nullptr;
}

void GuestSetFixture::SetUp() {
  Restore();
  ClearCapturedSyslog();
}

void GuestSetFixture::Fill() {
  Put("repository", kRepository,
      R"({"name":"pool",)" + Text("state", VexaCCC::State::Repo::online) + "," +
          Text("host_id", VexaCCC::DB::DBLocalhostID()) + "}");
  Put("network", kNetwork, R"({"name":"office","bridge_name":"br2"})");
  std::filesystem::create_directories(ImageFolder() + "/isos");
  std::ofstream(ImageFolder() + "/isos/tools.iso") << "an image";
  Put("image", kImage, "{" + Text("path", ImageFolder() + "/isos/tools.iso") + "}");
  for (const auto& [id, name] : {std::pair(kDisk0, "vda"), std::pair(kDisk1, "vdb")}) {
    Put("vdisk", id,
        R"({"unmap":false,"format":2,"is_dummy":false,"is_meta_disk":false,"vdisk_mode":1,"driver":"raw","type":1,)"
        R"("size":1024,)" +
            Text("guest_id", kTestGuest) + "," + Text("repository_id", kRepository) + "," + Text("name", name) + "," +
            Text("path", DiskPath(id)) + "}");
    MakeFile(DiskPath(id));
  }
  Put("vnic", kNic0, Nic(kTestGuest, "02:00:00:00:00:01"));
  Put("vnic", kNic1, Nic(kTestGuest, "02:00:00:00:00:02"));
  Put("vnic", "nic-of-neighbour", Nic(kNeighbour, kTakenMac));
  Json::Value guest = Require(ParseJson(kGuestRecord));
  guest["host_id"] = VexaCCC::DB::DBLocalhostID();
  guest["repository_id"] = kRepository;
  guest["vdisks"] = Require(ParseJson(std::string("[\"") + kDisk0 + "\",\"" + kDisk1 + "\"]"));
  guest["vnics"] = Require(ParseJson(std::string("[\"") + kNic0 + "\",\"" + kNic1 + "\"]"));
  Put("guest", kTestGuest, json::ToText(guest));
  Put("guest", kNeighbour, R"({"name":"db","vnics":["nic-of-neighbour"]})");
  Put("guest", kGuestWithoutRepositoryHost,
      R"({"name":"homeless","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[]})");
}

std::string GuestSetFixture::Body(const std::string& members, const std::string& guest_id) {
  return "{" + Text("guest_id", guest_id) + (members.empty() ? "" : "," + members) + "}";
}

GuestSetFixture::Answer GuestSetFixture::Set(const std::string& role, const std::string& body) {
  const HttpReply reply = state_->clients.at(role).PostJson("/webapi/VEXA.Virtualization.Guest/set", body);
  Answer answer;
  answer.code = ErrorCode(reply);
  answer.reply = JsonBody(reply);
  answer.details = json::Member(json::Member(answer.reply, "error"), "details");
  return answer;
}

// Hosts write their own records and states whenever they like, and addresses are reserved without being used.
GuestSetFixture::Contents GuestSetFixture::Stored() {
  Contents contents;
  const auto snapshot = Require(state_->store->Read());
  Require(snapshot->Scan("", [&](std::string_view key, const store::ValueView& value) {
    const bool is_others = key.starts_with("/log") || key.starts_with("/dash/host/") || key.starts_with("/mac/") ||
                           key.starts_with("/renames") || key.ends_with("/state") || key.ends_with("/storage");
    if (!is_others) contents.emplace(key, value.text);
    return true;
  }));
  return contents;
}

void GuestSetFixture::Restore() {
  MakeFile(DiskPath(kDisk0));
  MakeFile(DiskPath(kDisk1));
  const Contents now = Stored();
  store::Transaction transaction;
  for (const auto& [key, text] : now) {
    if (!state_->initial.contains(key)) transaction.operations.push_back({key, std::nullopt});
  }
  for (const auto& [key, text] : state_->initial) {
    const auto found = now.find(key);
    if (found == now.end() || found->second != text) transaction.operations.push_back({key, text});
  }
  if (!transaction.operations.empty()) (void)Require(state_->store->Commit(transaction));
}

const GuestSetFixture::Contents& GuestSetFixture::Initial() { return state_->initial; }

Json::Value GuestSetFixture::Record(const std::string& category, const std::string& id) {
  const auto snapshot = Require(state_->store->Read());
  const auto value = Require(snapshot->Get(store::MakeKey({"dash", category, id, "object"})));
  return value ? Require(ParseJson(value->text)) : Json::Value();
}

void GuestSetFixture::Put(const std::string& category, const std::string& id, const std::string& text) {
  (void)Require(state_->store->Commit({{}, {{store::MakeKey({"dash", category, id, "object"}), text}}}));
}

void GuestSetFixture::Remove(const std::string& category, const std::string& id) {
  (void)Require(state_->store->Commit({{}, {{store::MakeKey({"dash", category, id, "object"}), std::nullopt}}}));
}

std::string GuestSetFixture::ImageFolder() { return daemon().config().image_roots[0]; }

std::string GuestSetFixture::DiskPath(const std::string& disk_id) {
  return ImageFolder() + "/" + kRepository + "/" + disk_id + ".img";
}

std::uint32_t GuestSetFixture::UserId(const std::string& user) {
  return Require(daemon().Accounts()->FindUser(user)).uid;
}

Json::Value GuestSetFixture::NewestEntry() {
  HttpClient& client = state_->clients.at("admin");
  const Json::Value reply = JsonBody(client.PostJson("/webapi/VEXA.Virtualization.Log/list", R"({"limit":1})"));
  return json::Element(json::Member(json::Member(reply, "data"), "entries"), 0);
}

std::size_t GuestSetFixture::LogEntries() {
  std::size_t count = 0;
  const auto snapshot = Require(state_->store->Read());
  // Equal refusals are one entry with a count.
  Require(snapshot->Scan("/log", [&](std::string_view, const store::ValueView& value) {
    const Json::Value entry = Require(ParseJson(value.text));
    count += entry.isMember("count") ? static_cast<std::size_t>(json::Int64(entry["count"])) : 1;
    return true;
  }));
  return count;
}

std::vector<std::string> GuestLines() {
  constexpr std::string_view kUnit = "guest:";
  std::vector<std::string> lines;
  for (const SyslogLine& line : CapturedSyslog()) {
    if (line.level() != LOG_ERR || !line.text.starts_with(kUnit)) continue;
    const std::size_t space = line.text.find(' ');
    const std::string number = line.text.substr(kUnit.size(), space - kUnit.size());
    EXPECT_TRUE(!number.empty() && std::ranges::all_of(number, [](unsigned char c) { return std::isdigit(c); }));
    lines.push_back(line.text.substr(space + 1));
  }
  return lines;
}

}  // namespace vexa::test
