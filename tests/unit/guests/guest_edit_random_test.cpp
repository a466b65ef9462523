// Random edits, sequential and concurrent, of guests that start and stop meanwhile, on a host with a real store,
// libvirt's test driver and real folders. After each, everything is compared with a model.
//
// VEXA_TEST_EDITS and VEXA_TEST_SEED say how many, and which.
#include <dlfcn.h>
#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>

#include "host/disks/image_file.h"
#include "host/domain_xml/domain_parse.h"
#include "host/guests/jobs/deletion_record.h"
#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/unit/guests/guest_control_fixture.h"
#include "tests/unit/guests/guest_edit_model.h"

namespace {
virConnectPtr opened_last = nullptr;
}

// In place of libvirt's: each connection to the test driver has guests of its own, so the host's is looked at.
virConnectPtr virConnectOpen(const char* uri) {
  static auto* const real = reinterpret_cast<virConnectPtr (*)(const char*)>(::dlsym(RTLD_NEXT, "virConnectOpen"));
  return opened_last = real(uri);
}

namespace vexa::guests {
namespace {

namespace fs = std::filesystem;
using VexaVirtualization::json::ToText;
using Texts = std::map<std::string, std::string>;

constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
constexpr char kRemoteRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f7";
constexpr char kBlockedRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f8";
constexpr char kUnknownId[] = "99999999-9999-4999-8999-999999999999";
constexpr char kImage[] = "aaaaaaaa-0000-4000-8000-000000000000";
constexpr char kNetworkOfRecord[] = "f0000000-0000-4000-8000-000000000000";
constexpr char kNetworkOfNic[] = "f0000000-0000-4000-8000-000000000001";
constexpr int kPlayers = 3;  // guests that start and stop; three more are there to be refused
constexpr std::size_t kMostMacs = 50;

std::string GuestId(int i) { return "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c21" + std::to_string(i); }
std::string PartId(char kind, int i) {
  return kind + std::string("0000000-0000-4000-8000-00000000000") + std::to_string(i);
}

// Commits are synced, which is nothing to wait for where no disk is.
const bool kInMemory = [] {
  std::error_code error;
  if (!std::getenv("TMPDIR") && fs::is_directory("/dev/shm", error)) ::setenv("TMPDIR", "/dev/shm", 1);
  return true;
}();

unsigned FromEnvironment(const char* name, unsigned otherwise) {
  const char* const text = std::getenv(name);
  return text ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

// The size that a guest sees: by the length of the file, or by its header as QEMU's documentation has it.
std::int64_t VirtualSize(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  unsigned char header[32] = {};
  file.read(reinterpret_cast<char*>(header), sizeof header);
  if (file.gcount() != sizeof header || header[0] != 'Q' || header[1] != 'F' || header[2] != 'I') {
    return static_cast<std::int64_t>(fs::file_size(path));
  }
  std::int64_t size = 0;
  for (int i = 24; i < 32; ++i) size = size << 8 | header[i];
  return size;
}

class RandomEdits : public GuestControlTest {
 protected:
  RandomEdits() : seed_(FromEnvironment("VEXA_TEST_SEED", std::random_device{}())), random_(seed_) {}

  void SetUp() override {
    ASSERT_TRUE(kInMemory);
    host_.Remove("guest", kGuest);
    fs::create_directories(Folder());
    fs::create_directory(host_.folder().File("images/" + std::string(kRemoteRepository)));
    std::ofstream(host_.folder().File("images/" + std::string(kBlockedRepository))) << "in the way";
    model_.host_id = HostId();
    model_.repository_hosts = {{kRepository, HostId()}, {kRemoteRepository, "host-2"}, {kBlockedRepository, HostId()}};
    model_.blocked_repositories = {kBlockedRepository};
    for (const auto& [id, host] : model_.repository_hosts) {
      model_.repository_folders[id] = host_.folder().File("images/" + id);
      Json::Value repository(Json::objectValue);
      repository["host_id"] = host;
      repository["state"] = "repo_online";
      host_.Put("repository", id, repository);
    }
    model_.networks = {{kNetworkOfRecord, "br0"}, {kNetworkOfNic, "br1"}};
    model_.networks_with_record = {kNetworkOfRecord};
    host_.Put("network", kNetworkOfRecord, Parsed(R"({"name":"office","bridge_name":"br0"})"));
    model_.images = {{kImage, "/isos/debian.iso"}};
    host_.Put("image", kImage, Parsed(R"({"path":"/isos/debian.iso"})"));
    for (int i = 0; i < kPlayers; ++i) MakeGuest(i, kRepository);
    MakeGuest(kRemote, kRemoteRepository);
    MakeGuest(kBlocked, kBlockedRepository);
    MakeGuest(kGuestWithoutRepositoryHost, "");
    MakeGuest(kBroken, kRepository);
    // It is never edited, so that there is always an interface with the name of its network.
    MakeGuest(kLeftAlone, "");
    model_.guests[GuestId(kBroken)].is_whole = false;
    host_.Remove("vnic", PartId('e', kBroken));
    GuestControlOptions options = Options();
    options.image_roots = {host_.folder().File("images")};
    options.maintenance_interval = 1h;
    options.vcpus_per_cpu = 60;
    Start(options);
    ASSERT_NE(opened_last, nullptr);
    virNodeInfo node{};
    ASSERT_EQ(::virNodeGetInfo(opened_last, &node), 0);
    model_.cpus = node.cpus;
    model_.memory_mib = static_cast<std::int64_t>(node.memory >> 10);
    model_.most_vcpus = node.cpus * std::int64_t{options.vcpus_per_cpu};
  }
  static constexpr int kRemote = kPlayers;
  static constexpr int kBlocked = kPlayers + 1;
  static constexpr int kGuestWithoutRepositoryHost = kPlayers + 2;
  static constexpr int kBroken = kPlayers + 3;  // the next one is not there
  static constexpr int kLeftAlone = kPlayers + 5;

  std::string Folder() const { return host_.folder().File("images/" + std::string(kRepository)); }

  void MakeGuest(int i, const std::string& repository) {
    ModelGuest guest;
    guest.id = GuestId(i);
    guest.record = Parsed(R"({"vcpu_num":2,"vram_size":64,"cpu_weight":256,"cpu_pin_num":0,"usb_version":2,"autorun":0,
        "usbs":["unmounted","unmounted","unmounted","unmounted"],"iso_images":[],"boot_from":"disk","use_ovmf":false,
        "cpu_passthru":false,"video_card":"vga","kb_layout":"Default","desc":"","state":"guest_shutdown"})");
    guest.record["name"] = "guest " + std::to_string(i);
    guest.record["host_id"] = HostId();
    guest.record["repository_id"] = repository;
    Json::Value nic = Parsed(R"({"prefer_connect_ip":"","vnic_type":1,"prefer_sriov":false,"network_name":"br1"})");
    nic["guest_id"] = guest.id;
    nic["network_group_id"] = kNetworkOfNic;
    nic["mac_address"] = "02:00:00:00:01:0" + std::to_string(i);
    guest.nics.push_back({PartId('e', i), nic});
    host_.Put("vnic", guest.nics[0].id, nic);
    if (i < kPlayers) {
      Json::Value disk = Parsed(R"({"unmap":false,"format":2,"is_dummy":false,"is_meta_disk":false,"vdisk_mode":1,
                                    "name":"vda","size":8,"driver":"qcow2","type":2})");
      disk["guest_id"] = guest.id;
      disk["repository_id"] = repository;
      disk["path"] = Folder() + "/" + PartId('d', i) + ".qcow2";
      guest.disks.push_back({PartId('d', i), disk});
      host_.Put("vdisk", guest.disks[0].id, disk);
      const auto image = disks::MakeEmptyImage(domain_xml::ImageFormat::kQcow2, 8 << 20);
      ASSERT_TRUE(disks::DiskFiles({Folder()}, {}).Create(disk["path"].asString(), image.length, image.pieces));
    }
    host_.Put("guest", guest.id, StoredRecord(guest));
    model_.guests[guest.id] = guest;
  }

  int Below(int limit) { return static_cast<int>(random_() % static_cast<unsigned>(limit)); }
  bool OneIn(int n) { return Below(n) == 0; }
  template <class List>
  const auto& Any(const List& list) {
    return list[static_cast<std::size_t>(Below(static_cast<int>(std::size(list))))];
  }

  // What an edit of `guest` asks for. Each of these mostly is in order.
  Json::Value RandomEdit(const ModelGuest& guest) {
    Json::Value edit(Json::objectValue);
    for (int parts = 1 + Below(3); parts > 0; --parts) {
      switch (Below(9)) {
        case 0:
        case 1:
          AddScalars(edit, guest);
          break;
        case 2:
          AddUsb(edit);
          break;
        case 3:
          AddImages(edit);
          break;
        case 4:
        case 5:
          AddNics(edit, guest);
          break;
        default:
          AddDisks(edit, guest);
      }
    }
    return Parsed(ToText(edit));
  }

  void AddScalars(Json::Value& edit, const ModelGuest& guest) {
    static const std::vector<std::string> cards{"cirrus", "vga", "vmvga", "qxl", "virtio"};
    static const std::vector<std::string> texts{"", "a <b> & \"c\"",
                                                "w\xc3\xa9"
                                                "b",
                                                "two\nlines", "x]]>y"};
    if (OneIn(3)) edit["name"] = OneIn(8) ? "guest " + std::to_string(Below(7)) : "name " + std::to_string(Below(8));
    if (OneIn(3)) edit["desc"] = Any(texts) + std::to_string(Below(9));
    if (OneIn(3)) edit["vcpu_num"] = 1 + Below(40);
    if (OneIn(3)) edit["vram_size"] = 1 + Below(900);
    if (OneIn(4)) edit["cpu_pin_num"] = OneIn(3) ? Below(5) : 0;
    if (OneIn(20) && guest.is_running) {
      edit["vcpu_num"] = static_cast<int>(model_.cpus) + 3;
      edit["cpu_pin_num"] = static_cast<int>(model_.cpus) + Below(3);
    }
    if (OneIn(4)) edit["cpu_weight"] = 2 + Below(262'143);
    if (OneIn(4)) edit["video_card"] = Any(cards);
    if (OneIn(4)) edit["boot_from"] = OneIn(2) ? "iso" : "disk";
    if (OneIn(4)) edit["use_ovmf"] = OneIn(2);
    if (OneIn(4)) edit["cpu_passthru"] = OneIn(2);
    if (OneIn(8)) edit["hyperv_enlighten"] = OneIn(2);
    if (OneIn(4)) edit["autorun"] = Below(3);
    if (OneIn(4)) edit["kb_layout"] = OneIn(2) ? "de" : "en-us";
  }

  void AddUsb(Json::Value& edit) {
    static const std::vector<std::string> devices{"1234:00ab", "3.14", "0bda:8153", "unmounted"};
    if (OneIn(2)) edit["usb_version"] = OneIn(4) ? 0 : 1 + Below(3);
    if (OneIn(2)) {
      edit["usbs"] = Json::Value(Json::arrayValue);
      for (int count = Below(5); count > 0; --count) edit["usbs"].append(OneIn(2) ? "unmounted" : Any(devices));
    }
  }

  void AddImages(Json::Value& edit) {
    edit["iso_images"] = Json::Value(Json::arrayValue);
    const auto files = model_.Files();
    const std::vector<std::string> images{"unmounted", "/a.iso", "/isos//b.iso", kImage, kImage, "/c d.iso"};
    const std::vector<std::string> bad{kUnknownId, "/isos/../a.iso", files.empty() ? kUnknownId : files.begin()->first};
    for (int count = Below(3); count > 0; --count) edit["iso_images"].append(OneIn(8) ? Any(bad) : Any(images));
  }

  std::string AnyId(const std::vector<ModelPart>& parts) {
    return parts.empty() || OneIn(15) ? kUnknownId : Any(parts).id;
  }
  // One, or of many most.
  void RemoveSome(Json::Value& list, const char* member, const std::vector<ModelPart>& parts) {
    if (parts.size() < 6) {
      list.append(Json::objectValue)[member] = AnyId(parts);
    } else {
      for (std::size_t i = 2; i < parts.size(); ++i) list.append(Json::objectValue)[member] = parts[i].id;
    }
  }
  std::string AnyNetwork() {
    static const std::vector<std::string> networks{"", kNetworkOfRecord, kNetworkOfNic};
    return OneIn(15) ? kUnknownId : Any(networks);
  }
  // Mostly a free one, in either case of letters.
  std::string AnyMac() {
    if (OneIn(8)) return Any(NicsInUse()).record["mac_address"].asString();
    char text[18];
    std::snprintf(text, sizeof text, OneIn(2) ? "02:aa:00:00:%02x:%02x" : "02:AA:00:00:%02X:%02X", Below(256),
                  Below(256));
    return text;
  }
  const std::vector<ModelPart>& NicsInUse() {
    const auto& nics = model_.guests.at(GuestId(Below(kPlayers))).nics;
    return nics.empty() ? spare_nics_ : nics;
  }

  void AddNics(Json::Value& edit, const ModelGuest& guest) {
    const std::size_t most = OneIn(10) ? 60 : 6;
    if (guest.nics.size() < most && OneIn(2)) {
      for (int count = OneIn(200) ? 63 + Below(3) : 1 + Below(2); count > 0; --count) {
        Json::Value& nic = edit["vnics_add"].append(Json::objectValue);
        nic["network_id"] = AnyNetwork();
        if (OneIn(2)) nic["vnic_type"] = 1 + Below(3);
        if (OneIn(2)) nic["prefer_sriov"] = OneIn(2);
        if (OneIn(2)) nic["mac"] = AnyMac();
      }
    }
    if (!guest.nics.empty() && OneIn(2)) {
      RemoveSome(edit["vnics_del"], "vnic_id", guest.nics);
    }
    if (!guest.nics.empty() && OneIn(2)) {
      for (int count = 1 + Below(2); count > 0; --count) {
        Json::Value& nic = edit["vnics_edit"].append(Json::objectValue);
        nic["vnic_id"] = AnyId(guest.nics);
        if (OneIn(2)) nic["network_id"] = AnyNetwork();
        if (OneIn(2)) nic["mac"] = AnyMac();
        if (OneIn(2)) nic["vnic_type"] = 1 + Below(3);
        if (OneIn(2)) nic["prefer_sriov"] = OneIn(2);
      }
    }
  }

  int AnyMode() {
    static const std::vector<int> modes{1, 1, 1, 2, 3, 4};
    return Any(modes);
  }

  void AddDisks(Json::Value& edit, const ModelGuest& guest) {
    if (OneIn(2) && (guest.disks.size() < 6 || OneIn(10))) {
      for (int count = OneIn(50) ? 62 + Below(5) : 1 + Below(2); count > 0; --count) {
        Json::Value& disk = edit["vdisks_add"].append(Json::objectValue);
        disk["vdisk_size"] = 1 + Below(OneIn(3) ? 100'000 : 64);
        if (OneIn(2)) disk["vdisk_mode"] = AnyMode();
        if (OneIn(2)) disk["unmap"] = OneIn(2);
        if (OneIn(2)) disk["format"] = OneIn(2) ? "raw" : "qcow2";
      }
    }
    if (OneIn(3)) {
      RemoveSome(edit["vdisks_del"], "vdisk_id", guest.disks);
    }
    if (!guest.disks.empty() && OneIn(2)) {
      for (int count = 1 + OneIn(4); count > 0; --count) {
        Json::Value& change = edit["vdisks_edit"].append(Json::objectValue);
        const ModelPart& disk = Any(guest.disks);
        change["vdisk_id"] = OneIn(15) ? kUnknownId : disk.id;
        const std::int64_t more = OneIn(2) ? 0 : Below(1000) - (OneIn(6) ? 2 : 0);
        change["vdisk_size"] = Json::Int64{std::max<std::int64_t>(1, disk.record["size"].asInt64() + more)};
        if (OneIn(3)) change["vdisk_mode"] = AnyMode();
        if (OneIn(3)) change["unmap"] = OneIn(2);
      }
    }
    if (guest.disks.size() > 1 && OneIn(3)) {
      std::vector<ModelPart> disks = guest.disks;
      std::shuffle(disks.begin(), disks.end(), random_);
      if (OneIn(2)) disks.pop_back();
      if (OneIn(15)) disks.push_back(disks.front());
      for (const ModelPart& disk : disks) edit["vdisks_order"].append(Json::objectValue)["vdisk_id"] = disk.id;
    }
  }

  // What no guest can have, whatever else is asked for: the code.
  int MakeWrong(Json::Value& edit) {
    struct Wrong {
      const char* member;
      const char* value;
      int code;
    };
    static const std::vector<Wrong> wrong{
        {"vcpu_num", "0", 401},
        {"vcpu_num", "513", 401},
        {"vcpu_num", "\"2\"", 401},
        {"vram_size", "2097152", 401},
        {"vram_size", "1.5", 401},
        {"autorun", "3", 401},
        {"cpu_weight", "1", 401},
        {"cpu_pin_num", "-1", 401},
        {"usb_version", "4", 401},
        {"use_ovmf", "1", 401},
        {"name", "\"\"", 401},
        {"name", "\"a\\nb\"", 401},
        {"desc", "7", 401},
        {"video_card", "\"voodoo\"", 401},
        {"boot_from", "\"DISK\"", 401},
        {"kb_layout", "\"../x\"", 401},
        {"usbs", "[\"x\"]", 936},
        {"usbs", "[\"1234:\"]", 936},
        {"usbs", R"(["unmounted","unmounted","unmounted","unmounted","unmounted"])", 938},
        {"iso_images", "[\"a.iso\"]", 932},
        {"iso_images", R"(["/a","/b","/c"])", 932},
        {"iso_images", "[5]", 401},
        {"vnics_add", "{}", 401},
        {"vnics_add", "[{}]", 401},
        {"vnics_add", R"([{"network_id":"","mac":"01:00:00:00:00:01"}])", 401},
        {"vnics_add", R"([{"network_id":"","vnic_type":4}])", 401},
        {"vnics_del", "[\"x\"]", 401},
        {"vnics_del", R"([{"vnic_id":"x"}])", 401},
        {"vnics_edit", R"([{"vnic_id":"99999999-9999-4999-8999-999999999999","mac":"2:0:0:0:0:1"}])", 401},
        {"vdisks_add", "[{}]", 401},
        {"vdisks_add", R"([{"vdisk_size":0}])", 401},
        {"vdisks_add", R"([{"vdisk_size":1,"format":"vmdk"}])", 401},
        {"vdisks_add", R"([{"vdisk_size":1,"vdisk_mode":5}])", 401},
        {"vdisks_del", R"([{"vdisk_id":""}])", 401},
        {"vdisks_edit", R"([{"vdisk_id":"99999999-9999-4999-8999-999999999999"}])", 401},
        {"vdisks_order", R"([{"vdisk_id":7}])", 401},
        {"vdisks_order", "\"x\"", 401},
    };
    const Wrong& chosen = Any(wrong);
    edit[chosen.member] = Parsed(chosen.value);
    return chosen.code;
  }

  // What is stored of guests, their parts and what is being done with them; without the live states of running ones.
  Texts Stored() {
    Texts texts;
    const auto snapshot = test::Require(host_.store().Read());
    test::Require(snapshot->Scan("", [&](std::string_view key, const store::ValueView& value) {
      const bool is_told = key.starts_with("/live/") || key.starts_with("/epoch") || key.starts_with("/run/") ||
                           key == "/renames" || (key.starts_with("/dash/guest/") && key.ends_with("/state"));
      if (!is_told) texts.emplace(key, value.text);
      return true;
    }));
    return texts;
  }

  // Without what the host's storage watch writes every 10 s.
  static Texts WithoutStorage(Texts texts) {
    std::erase_if(texts, [](const auto& one) {
      const std::string& key = one.first;
      return (key.starts_with("/dash/vdisk/") && key.ends_with("/state")) ||
             (key.starts_with("/dash/repository/") && !key.ends_with("/object"));
    });
    return texts;
  }

  static std::string MacKey(const std::string& mac) { return store::MakeKey({"mac", mac.substr(15), mac}); }

  // All records of guests and parts as the model has them.
  void ExpectRecords(const Texts& stored) {
    std::map<std::string, Json::Value> expected;
    for (const auto& [id, guest] : model_.guests) {
      expected[host_.ObjectKey("guest", id)] = StoredRecord(guest);
      for (const ModelPart& disk : guest.disks) expected[host_.ObjectKey("vdisk", disk.id)] = disk.record;
      if (!guest.is_whole) continue;
      for (const ModelPart& nic : guest.nics) expected[host_.ObjectKey("vnic", nic.id)] = nic.record;
    }
    std::size_t found = 0;
    for (const auto& [key, text] : stored) {
      // Those of other hosts are there for a moment.
      const bool is_begun = key.starts_with("/edit/") || key.starts_with("/deletion/") || key.starts_with("/leftover/");
      ASSERT_TRUE(!is_begun || text.find("\"host-2\"") != std::string::npos) << key << ": " << text;
      const bool is_ours =
          key.starts_with("/dash/guest/") || key.starts_with("/dash/vdisk/") || key.starts_with("/dash/vnic/");
      if (!is_ours) continue;
      // The host's storage watch writes these, of disks that there are.
      if (key.starts_with("/dash/vdisk/") && key.ends_with("/state")) {
        const std::string object = key.substr(0, key.rfind('/')) + "/object";
        ASSERT_TRUE(expected.contains(object)) << key << ": " << text;
        continue;
      }
      ASSERT_TRUE(expected.contains(key)) << key << ": " << text;
      // Where a running guest is plugged in is the host's to say.
      Json::Value record = test::Parsed(text);
      if (key.starts_with("/dash/vnic/")) record.removeMember("running");
      ASSERT_EQ(ToText(record), ToText(expected.at(key))) << key;
      ++found;
    }
    ASSERT_EQ(found, expected.size());
  }

  void ExpectFiles() {
    std::map<std::string, std::int64_t> files;
    for (const auto& entry : fs::recursive_directory_iterator(host_.folder().File("images"))) {
      if (entry.is_regular_file() && entry.path().filename() != kBlockedRepository) {
        files[entry.path()] = VirtualSize(entry.path());
      }
    }
    ASSERT_EQ(files, model_.Files());
  }

  // The reservations made for `outcome` and none beside them.
  void ExpectMacs(const Texts& before, const Texts& after, const ModelOutcome& outcome, bool is_done) {
    std::size_t made_up = 0;
    for (const auto& [key, text] : after) {
      if (!key.starts_with("/mac/") || before.contains(key)) continue;
      ASSERT_TRUE(Parsed(text)["time"].isInt64()) << text;
      if (!outcome.taken_macs.contains(key.substr(key.rfind('/') + 1))) ++made_up;
    }
    if (is_done) {
      ASSERT_EQ(made_up, outcome.new_macs);
      for (const std::string& mac : outcome.taken_macs) ASSERT_TRUE(after.contains(MacKey(mac))) << mac;
    } else {
      ASSERT_TRUE(made_up == 0 || made_up == outcome.new_macs) << made_up;
    }
  }

  // What the records of `guest` would be started as, read back.
  void ExpectMachine(const ModelGuest& guest) {
    const auto read = records::ReadGuest(test::Require(records::Reader::Open(host_.store())), guest.id);
    ASSERT_TRUE(read) << read.error().ToString();
    domain_xml::BuildOptions build;
    build.domain_type = "test";
    build.image_path = [&](const std::string& image) -> Result<std::string> {
      return model_.images.contains(image) ? model_.images.at(image) : image;
    };
    const auto xml = domain_xml::BuildDomainXml(read->records, build);
    ASSERT_TRUE(xml) << xml.error().ToString();
    ASSERT_EQ(ReadBack(*xml, Order::kOfRecords), Machine(guest, Order::kOfRecords));
  }
  // What libvirt runs.
  void ExpectRuns(const ModelGuest& guest, const std::string& machine) {
    const virDomainPtr domain = ::virDomainLookupByUUIDString(opened_last, guest.id.c_str());
    ASSERT_NE(domain, nullptr);
    EXPECT_EQ(::virDomainIsActive(domain), 1);
    char* const xml = ::virDomainGetXMLDesc(domain, 0);
    ASSERT_NE(xml, nullptr);
    EXPECT_EQ(ReadBack(WithoutRoom(xml), Order::kOfTargets), machine);
    ::free(xml);
    ::virDomainFree(domain);
  }
  // Without virtual CPUs that the running guest could get.
  static std::string WithoutRoom(std::string xml) {
    const std::size_t begin = xml.find("<vcpu");
    const std::size_t end = xml.find("</vcpu>", begin);
    const std::size_t current = xml.find("current='", begin);
    if (begin == std::string::npos || current > end) return xml;
    const std::size_t number = current + std::string("current='").size();
    return xml.substr(0, begin) + "<vcpu>" + xml.substr(number, xml.find('\'', number) - number) + xml.substr(end);
  }
  enum class Order { kOfRecords, kOfTargets };  // libvirt sorts disks; the boot order says which comes first

  std::string ReadBack(const std::string& xml, Order order) {
    domain_xml::ImportOptions reading;
    reading.size_of = [](const std::string&, domain_xml::ImageFormat) -> Result<std::uint64_t> { return 1 << 20; };
    const auto parsed = domain_xml::ParseDomainXml(xml, reading);
    EXPECT_TRUE(parsed) << parsed.error().ToString() << xml;
    if (!parsed) return "";
    std::vector<Json::Value> disks, nics;
    for (const auto& [id, disk] : parsed->disks) disks.push_back(disk);
    for (const auto& [id, nic] : parsed->nics) nics.push_back(nic);
    if (order == Order::kOfTargets)
      std::ranges::sort(disks, {}, [](const Json::Value& disk) { return disk["name"].asString(); });
    return test::MachineOf(parsed->guest, disks, nics);
  }
  // With images in drives by their paths.
  std::string Machine(ModelGuest guest, Order order) {
    if (order == Order::kOfTargets) {
      std::ranges::sort(guest.disks, {}, [](const ModelPart& disk) { return disk.record["name"].asString(); });
    }
    for (Json::Value& image : guest.record["iso_images"]) {
      if (model_.images.contains(image.asString())) image = model_.images.at(image.asString());
    }
    return test::MachineOf(guest);
  }

  void Power(ModelGuest& guest) {
    const bool is_on = OneIn(4) == guest.is_running;
    const std::set<int> codes = model_.PredictPower(guest, is_on);
    const auto refused = is_on ? control_->PowerOn(guest.id, kAlice) : control_->PowerOff(guest.id, kAlice);
    ++powers_[refused.ok() ? 0 : refused.error().code];
    if (!refused.ok()) {
      ASSERT_TRUE(codes.contains(refused.error().code)) << refused.error().code << ": " << refused.error().reason;
      return;
    }
    ASSERT_TRUE(codes.empty()) << "it should have been " << *codes.begin();
    guest.is_running = is_on;
    if (!is_on) return;
    guest.started = guest.record;
    machines_[guest.id] = Machine(guest, Order::kOfTargets);
  }

  // What is the matter with the guest, for one edit.
  void Disturb(ModelGuest& guest) {
    switch (Below(4)) {
      case 0:
        guest.is_edited = true;
        test::Require(
            host_.store().Commit({{}, {{records::EditKey(guest.id), R"({"host_id":"host-2","user":"bob","since":0,
            "stage":"doing","made":[],"hidden":[],"grown":[]})"}}}));
        break;
      case 1:
        guest.is_deleted = true;
        test::Require(
            host_.store().Commit({{}, {{records::DeletionKey(guest.id), R"({"host_id":"host-2","user":"bob","since":0,
            "stage":"hiding","files":[]})"}}}));
        break;
      case 2:
        if (guest.is_running) return;
        guest.is_suspended = true;
        test::Require(host_.store().Commit({{}, {{host_.ObjectKey("guest", guest.id + "x"), std::nullopt}}}));
        test::Require(host_.store().Commit({{}, {{StateKey(guest.id), "\"guest_saved\""}}}));
        break;
      default:
        if (guest.disks.empty()) return;
        const ModelPart& disk = Any(guest.disks);
        guest.missing_files.insert(disk.id);
        fs::rename(disk.record["path"].asString(), Away(disk));
    }
  }
  static std::string StateKey(const std::string& id) { return store::MakeKey({"dash", "guest", id, "state"}); }
  std::string Away(const ModelPart& disk) { return host_.folder().File("away-" + disk.id); }

  void UndoDisturbance(ModelGuest& guest) {
    if (guest.is_edited) test::Require(host_.store().Commit({{}, {{records::EditKey(guest.id), std::nullopt}}}));
    if (guest.is_deleted) test::Require(host_.store().Commit({{}, {{records::DeletionKey(guest.id), std::nullopt}}}));
    if (guest.is_suspended) {
      test::Require(host_.store().Commit({{}, {{StateKey(guest.id), "\"guest_shutdown\""}}}));
    }
    guest.is_edited = guest.is_deleted = guest.is_suspended = false;
    for (const ModelPart& disk : guest.disks) {
      if (guest.missing_files.contains(disk.id)) fs::rename(Away(disk), disk.record["path"].asString());
    }
    guest.missing_files.clear();
  }

  // As if a day had passed.
  void ForgetMacs() {
    store::Transaction transaction;
    for (const auto& [key, text] : Stored()) {
      if (key.starts_with("/mac/")) transaction.operations.push_back({key, std::nullopt});
    }
    if (transaction.operations.size() > kMostMacs) test::Require(host_.store().Commit(transaction));
  }

  void EditOnce(const std::string& id) {
    static ModelGuest nobody;
    const bool is_known = model_.guests.contains(id);
    ModelGuest& guest = is_known ? model_.guests.at(id) : nobody;
    if (is_known && guest.is_whole && OneIn(6)) Disturb(guest);
    Json::Value edit = RandomEdit(guest);
    int wrong = 0;
    if (OneIn(12)) {
      edit = OneIn(2) ? edit : Json::Value(Json::objectValue);
      // Else that may be found to be wrong first.
      for (const char* member : {"cpu_passthru", "hyperv_enlighten", "usbs"}) edit.removeMember(member);
      wrong = MakeWrong(edit);
    }
    SCOPED_TRACE(id + (guest.is_running ? " (runs): " : ": ") + ToText(edit));
    ModelOutcome outcome = wrong ? ModelOutcome{{wrong}, {}, {}, 0} : model_.Predict(id, edit);
    const Texts before = Stored();
    // What a running guest gets of it has tests of its own.
    Json::Value sent = edit;
    sent["apply"] = "next_start";
    const auto refused = control_->Edit(id, sent, kAlice);
    const Texts after = Stored();
    ++answers_[refused.ok() ? 0 : refused.error().code];
    if (outcome.codes.empty()) {
      ASSERT_TRUE(refused.ok()) << refused.error().code << ": " << refused.error().reason;
      EditModel::Learn(outcome.after, Parsed(after.at(host_.ObjectKey("guest", id))));
      LearnMacs(outcome.after, after);
      guest = outcome.after;
    } else {
      ASSERT_FALSE(refused.ok()) << "it should have been " << *outcome.codes.begin();
      ASSERT_TRUE(outcome.codes.contains(refused.error().code))
          << refused.error().code << ": " << refused.error().reason;
      Texts kept = after;
      std::erase_if(kept,
                    [&](const auto& one) { return one.first.starts_with("/mac/") && !before.contains(one.first); });
      ASSERT_EQ(WithoutStorage(kept), WithoutStorage(before));
      if (refused.error().code == host_error::kBusy && guest.is_edited && !guest.is_deleted) {
        ASSERT_THAT(refused.error().reason, HasSubstr("by 'bob' at 1970-01-01T00:00:00Z"));
      }
    }
    if (!wrong) ExpectMacs(before, after, outcome, refused.ok());
    if (HasFatalFailure()) return;
    ExpectFiles();
    ExpectRecords(after);
    if (is_known) UndoDisturbance(guest);
    if (HasFatalFailure() || !is_known || !guest.is_whole || !outcome.codes.empty()) return;
    ExpectMachine(guest);
    if (guest.is_running) ExpectRuns(guest, machines_.at(id));
  }

  // New addresses are made up, for nobody else and of one interface.
  void LearnMacs(ModelGuest& guest, const Texts& stored) {
    std::set<std::string> used;
    for (const auto& [id, other] : model_.guests) {
      for (const ModelPart& nic : other.nics) used.insert(nic.record["mac_address"].asString());
    }
    for (ModelPart& nic : guest.nics) {
      if (nic.record.isMember("mac_address")) continue;
      const auto record = stored.find(host_.ObjectKey("vnic", nic.id));
      ASSERT_NE(record, stored.end()) << nic.id;
      const std::string mac = Parsed(record->second)["mac_address"].asString();
      ASSERT_THAT(mac, testing::MatchesRegex("02(:[0-9a-f][0-9a-f])+"));
      ASSERT_EQ(mac.size(), 17u);
      ASSERT_TRUE(used.insert(mac).second) << mac;
      ASSERT_TRUE(stored.contains(MacKey(mac)));
      nic.record["mac_address"] = mac;
    }
  }

  const unsigned seed_;
  std::mt19937 random_;
  EditModel model_;
  std::vector<ModelPart> spare_nics_ = {{"", Parsed(R"({"mac_address":"02:00:00:00:01:03"})")}};
  std::map<std::string, std::string> machines_;  // what runs, by guest
  std::map<int, int> answers_;
  std::map<int, int> powers_;
};  // namespace

TEST_F(RandomEdits, RandomEdits_Guests_MatchModelInRecordsFilesAndDomains) {
  const unsigned edits = FromEnvironment("VEXA_TEST_EDITS", VEXA_EDITS);
  std::cout << "VEXA_TEST_SEED=" << seed_ << " VEXA_TEST_EDITS=" << edits << std::endl;
  SCOPED_TRACE("VEXA_TEST_SEED=" + std::to_string(seed_));
  for (unsigned i = 0; i < edits && !HasFailure(); ++i) {
    SCOPED_TRACE("edit " + std::to_string(i));
    if (i % 20 == 0) ForgetMacs();
    if (OneIn(10)) Power(model_.guests.at(GuestId(Below(kPlayers))));
    if (HasFatalFailure()) return;
    EditOnce(OneIn(8) ? GuestId(kPlayers + Below(5)) : GuestId(Below(kPlayers)));
  }
  for (const auto& [code, count] : answers_) std::cout << "  answered " << code << ": " << count << '\n';
  for (const auto& [code, count] : powers_) std::cout << "  power " << code << ": " << count << '\n';
  if (edits < 10'000 || HasFailure()) return;  // too few to have met all
  for (const int code : {0, 401, 403, 410, 901, 902, 903, 904, 912, 915, 932, 936, 938, 944, 949, 2101}) {
    EXPECT_GT(answers_[code], 0) << code;
  }
}

}  // namespace
}  // namespace vexa::guests
