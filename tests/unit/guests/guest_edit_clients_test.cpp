// Eight clients that edit the same few guests concurrently, two of them by another host, while one guest starts and
// stops: no change is lost, and nothing is left over.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <random>
#include <regex>
#include <set>

#include "host/domain_xml/domain_parse.h"
#include "host/guests/edit/edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

namespace fs = std::filesystem;
using VexaVirtualization::json::ToText;

constexpr int kClients = 8;
constexpr int kAway = 6;  // clients from here on are the other host's, which leave disks alone
constexpr int kGuests = 3;
constexpr int kContested = 12;
constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";

std::string GuestId(int i) { return "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c21" + std::to_string(i); }
std::string Mac(int client, int number) {
  char text[18];
  std::snprintf(text, sizeof text, "02:cc:%02x:00:%02x:%02x", unsigned(client), unsigned(number) >> 8 & 0xFF,
                unsigned(number) & 0xFF);
  return text;
}

// What of a guest is one client's alone, and what the client has made of it.
struct Own {
  std::set<std::string> macs;
  std::set<std::int64_t> sizes;  // of disks, in MiB
  Json::Value setting;
};

class Clients : public GuestControlTest {
 protected:
  void SetUp() override {
    host_.Remove("guest", kGuest);
    fs::create_directories(Folder());
    Json::Value repository(Json::objectValue);
    repository["host_id"] = HostId();
    repository["state"] = "repo_online";
    host_.Put("repository", kRepository, repository);
    Json::Value changes(Json::objectValue);
    changes["repository_id"] = kRepository;
    for (int i = 0; i < kGuests; ++i) PutGuest(GuestId(i), "guest " + std::to_string(i), changes);
    GuestControlOptions options = Options();
    options.image_roots = {host_.folder().File("images")};
    Start(options);
    EditOptions away;
    away.store = options.store;
    away.host_id = "host-2";
    away.image_roots = options.image_roots;
    away_ = std::make_unique<Edits>(away);
  }
  std::string Folder() const { return host_.folder().File("images/" + std::string(kRepository)); }

  std::vector<Json::Value> Parts(int guest, const char* list, const char* category) {
    std::vector<Json::Value> parts;
    const auto snapshot = test::Require(host_.store().Read());
    const auto record = [&](const char* kind, const std::string& id) {
      const auto value = test::Require(snapshot->Get(test::TestHost::ObjectKey(kind, id)));
      return value ? Parsed(std::string(value->text)) : Json::Value();
    };
    const Json::Value owner = record("guest", GuestId(guest));
    for (const Json::Value& id : owner[list]) {
      parts.push_back(record(category, id.asString()));
      parts.back()["id"] = id;
    }
    return parts;
  }
  std::string IdWhere(int guest, const char* list, const char* category, const char* member, const Json::Value& value) {
    for (const Json::Value& part : Parts(guest, list, category)) {
      if (part[member] == value) return part["id"].asString();
    }
    ADD_FAILURE() << "lost: " << member << " " << ToText(value);
    return "";
  }

  // Repeats the edit while the answer is "busy", which must name who edits, and since when.
  int Edit(int client, int guest, const Json::Value& edit) {
    static const std::regex busy(".* (for|by) '?(client-[0-9]|alice)'? since 20[0-9T:-]+Z");
    const Requester requester{"client-" + std::to_string(client), "nas-1", "request"};
    for (;;) {
      const auto refused = client < kAway ? control_->Edit(GuestId(guest), edit, requester)
                                          : away_->Edit(GuestId(guest), edit, requester);
      if (refused.ok()) return 0;
      if (refused.error().code != host_error::kBusy) return refused.error().code;
      EXPECT_TRUE(std::regex_match(refused.error().reason, busy)) << refused.error().reason;
      ++busy_;
      std::this_thread::sleep_for(1ms);
    }
  }

  void Run(int client, unsigned seed, int edits) {
    std::mt19937 random(seed);
    int number = 0;
    for (int i = 0; i < edits && !HasFailure(); ++i) {
      const int guest = static_cast<int>(random() % kGuests);
      Own& own = own_[client][guest];
      Json::Value edit(Json::objectValue);
      std::function<void()> note = [] {};
      switch (random() % (client < kAway ? 7 : 4)) {
        case 0:
          edit["vnics_add"][0]["network_id"] = "";
          edit["vnics_add"][0]["mac"] = Mac(client, ++number);
          note = [&] { own.macs.insert(Mac(client, number)); };
          break;
        case 1: {
          if (own.macs.empty()) continue;
          const std::string mac = *own.macs.begin();
          edit["vnics_del"][0]["vnic_id"] = IdWhere(guest, "vnics", "vnic", "mac_address", mac);
          note = [&own, mac] { own.macs.erase(mac); };
          break;
        }
        case 2: {
          const char* const settings[] = {"desc",       "vram_size", "vcpu_num",  "cpu_weight",
                                          "video_card", "kb_layout", "boot_from", "autorun"};
          const Json::Value values[] = {
              "text " + std::to_string(i), 1 + i, 1 + i % 8, 2 + i, i % 2 ? "vga" : "qxl", i % 2 ? "de" : "fr",
              i % 2 ? "iso" : "disk",      i % 3};
          const Json::Value value = values[client];
          edit[settings[client]] = value;
          note = [&own, value] { own.setting = value; };
          break;
        }
        case 3: {
          // Others want the same.
          const int wanted = static_cast<int>(random() % kContested);
          edit["vnics_add"][0]["network_id"] = "";
          edit["vnics_add"][0]["mac"] = Mac(0xEE, wanted);
          edit["name"] = "wanted " + std::to_string(random() % 4);
          note = [this, wanted] { ++contested_[static_cast<std::size_t>(wanted)]; };
          break;
        }
        case 4:
          edit["vdisks_add"][0]["vdisk_size"] = client * 10'000 + ++number;
          edit["vdisks_add"][0]["format"] = number % 2 ? "raw" : "qcow2";
          note = [&] { own.sizes.insert(client * 10'000 + number); };
          break;
        case 5:
        case 6: {
          if (own.sizes.empty()) continue;
          const std::int64_t size = *own.sizes.begin();
          const std::string id = IdWhere(guest, "vdisks", "vdisk", "size", Json::Value(Json::Int64{size}));
          const bool grows = random() % 2 == 0;
          const std::int64_t to = client * 10'000 + ++number;
          Json::Value& change = edit[grows ? "vdisks_edit" : "vdisks_del"][0];
          change["vdisk_id"] = id;
          if (grows) change["vdisk_size"] = Json::Int64{to};
          note = [&own, size, to, grows] {
            own.sizes.erase(size);
            if (grows) own.sizes.insert(to);
          };
          break;
        }
      }
      const int code = Edit(client, guest, edit);
      ++answers_[static_cast<std::size_t>(client)][code];
      if (code == 0) note();
      // What is contested may be another's; a guest that runs keeps its disks.
      const bool may_be = code == 0 ||
                          (edit.isMember("name") && (code == host_error::kBadNic || code == host_error::kNameTaken)) ||
                          (code == host_error::kBadDisk && guest == 0 && !edit.isMember("vdisks_add"));
      EXPECT_TRUE(may_be) << code << " for " << ToText(edit);
    }
  }

  void ExpectAllKept() {
    std::set<std::string> names;
    std::set<std::string> paths;
    std::set<std::string> listed;
    std::map<std::string, int> macs;
    for (int guest = 0; guest < kGuests; ++guest) {
      SCOPED_TRACE("guest " + std::to_string(guest));
      std::set<std::string> own_macs, expected_macs;
      std::set<std::int64_t> sizes, expected_sizes;
      for (const Json::Value& nic : Parts(guest, "vnics", "vnic")) {
        EXPECT_EQ(nic["guest_id"], GuestId(guest));
        EXPECT_TRUE(listed.insert(nic["id"].asString()).second);
        const std::string mac = nic["mac_address"].asString();
        ++macs[mac];
        if (!mac.starts_with("02:cc:ee")) own_macs.insert(mac);
      }
      for (const Json::Value& disk : Parts(guest, "vdisks", "vdisk")) {
        EXPECT_EQ(disk["guest_id"], GuestId(guest));
        EXPECT_TRUE(listed.insert(disk["id"].asString()).second);
        EXPECT_TRUE(paths.insert(disk["path"].asString()).second);
        sizes.insert(disk["size"].asInt64());
        const auto format = disk["driver"] == "raw" ? domain_xml::ImageFormat::kRaw : domain_xml::ImageFormat::kQcow2;
        const auto size = domain_xml::ReadImageSize(disk["path"].asString(), format);
        EXPECT_TRUE(size && static_cast<std::int64_t>(*size >> 20) == disk["size"].asInt64()) << ToText(disk);
      }
      const Json::Value record = Parsed(std::string(
          test::Require(test::Require(host_.store().Read())->Get(test::TestHost::ObjectKey("guest", GuestId(guest))))
              ->text));
      EXPECT_TRUE(names.insert(record["name"].asString()).second) << ToText(record["name"]);
      const char* const settings[] = {"desc",       "vram_size", "vcpu_num",  "cpu_weight",
                                      "video_card", "kb_layout", "boot_from", "autorun"};
      for (int client = 0; client < kClients; ++client) {
        const Own& own = own_[client][guest];
        expected_macs.insert(own.macs.begin(), own.macs.end());
        expected_sizes.insert(own.sizes.begin(), own.sizes.end());
        if (!own.setting.isNull()) {
          EXPECT_EQ(ToText(record[settings[client]]), ToText(own.setting)) << settings[client];
        }
      }
      EXPECT_EQ(own_macs, expected_macs);
      EXPECT_EQ(sizes, expected_sizes);
    }
    for (int i = 0; i < kContested; ++i) {
      EXPECT_LE(contested_[static_cast<std::size_t>(i)], 1) << i;
      EXPECT_EQ(macs[Mac(0xEE, i)], contested_[static_cast<std::size_t>(i)]) << i;
    }
    ExpectNothingElse(listed, paths);
  }

  void ExpectNothingElse(const std::set<std::string>& listed, const std::set<std::string>& paths) {
    std::set<std::string> stored;
    const auto snapshot = test::Require(host_.store().Read());
    test::Require(snapshot->Scan("", [&](std::string_view key, const store::ValueView&) {
      EXPECT_FALSE(key.starts_with("/edit/")) << key;
      if (key.starts_with("/dash/vdisk/") || key.starts_with("/dash/vnic/")) {
        const std::string_view rest = key.substr(key.find('/', 6) + 1);
        stored.emplace(rest.substr(0, rest.find('/')));
      }
      return true;
    }));
    EXPECT_EQ(stored, listed);
    std::set<std::string> files;
    for (const auto& entry : fs::directory_iterator(Folder())) files.insert(entry.path());
    EXPECT_EQ(files, paths);
  }

  std::unique_ptr<Edits> away_;
  Own own_[kClients][kGuests];  // each row is one thread's
  std::map<int, int> answers_[kClients];
  std::atomic<int> contested_[kContested] = {};
  std::atomic<int> busy_ = 0;
};

TEST_F(Clients, Edit_ConcurrentClients_LoseNoChange) {
  const unsigned seed = std::random_device{}();
  std::printf("seed %u\n", seed);
  std::mt19937 seeds(seed);
  std::atomic<bool> is_over = false;
  std::thread power([&] {
    for (int i = 0; !is_over; ++i) {
      (void)(i % 2 ? control_->PowerOff(GuestId(0), kAlice) : control_->PowerOn(GuestId(0), kAlice));
      std::this_thread::sleep_for(5ms);
    }
  });
  std::vector<std::thread> clients;
  for (int client = 0; client < kClients; ++client) {
    clients.emplace_back([this, client, own_seed = seeds()] { Run(client, own_seed, VEXA_EDITS_EACH); });
  }
  for (std::thread& client : clients) client.join();
  is_over = true;
  power.join();
  std::map<int, int> answers;
  for (const auto& own : answers_) {
    for (const auto& [code, count] : own) answers[code] += count;
  }
  for (const auto& [code, count] : answers) std::printf("  answered %d: %d\n", code, count);
  std::printf("  busy before: %d\n", busy_.load());
  ExpectAllKept();
}

}  // namespace
}  // namespace vexa::guests
