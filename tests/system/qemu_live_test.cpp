// Guests on QEMU that are changed while they run.
#include <pugixml.hpp>
#include <random>
#include <set>
#include <thread>

#include "host/base/json_parse.h"
#include "json/readers.h"
#include "tests/support/process.h"
#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000002";
constexpr char kStatus[] = "VEXA.Virtualization.Guest/status";
constexpr char kApply[] = "VEXA.Virtualization.Guest/apply";

Json::Value Parsed(const std::string& text) {
  const auto parsed = ParseJson(text);
  return parsed ? *parsed : Json::Value();
}

std::string Text(const Json::Value& value) { return VexaVirtualization::json::ToText(value); }

class QemuLive : public LibvirtHostTest {
 protected:
  void MakeHost() override {
    LibvirtHostTest::MakeHost();
    StartHostWith(kGuest, "grows");
  }
  // With a system that has started: one that has not gives no device back.
  void StartGuest() {
    ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
    ASSERT_TRUE(Await([&] { return user_->GuestTime(kGuest).has_value(); })) << host_->Log();
  }
  Json::Value Pending() const {
    const Json::Value status = host_->Ask(kStatus, kGuest)["data"];
    return status.isMember("pending") ? status["pending"] : status["pending_reason"];
  }
  // What stands at an XPath in the XML of the running machine.
  std::string Running(const std::string& path) const {
    pugi::xml_document document;
    if (!document.load_string(user_->RunningXml(kGuest).c_str())) return "it does not run";
    return pugi::xpath_query(("string(" + path + ")").c_str()).evaluate_string(document);
  }
  std::string Set(const std::string& edit) const { return Text(host_->Ask(kSet, kGuest, Parsed(edit))); }
  std::vector<std::string> Disks() const {
    std::vector<std::string> ids;
    const Json::Value guest = host_->Record("guest", kGuest);
    for (const Json::Value& id : guest["vdisks"]) ids.push_back(id.asString());
    return ids;
  }
  // What qemu-img says about an image that QEMU may have open.
  Json::Value ImageInfo(const std::string& path) const {
    const ProcessResult result = RunProcess({.argv = {"/usr/bin/qemu-img", "info", "-U", "--output=json", path}});
    EXPECT_EQ(result.exit_code, 0) << result.output << result.errors;
    return Parsed(result.output);
  }
  void ExpectNothingPending(const char* after) const {
    EXPECT_EQ(Text(Pending()), "[]") << after << "\n" << host_->Log();
  }

  std::set<std::string> Files() const {
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(host_->DiskFolder())) files.insert(entry.path());
    return files;
  }
  // Each disk of the records, and each of the machine, has its file. A disk that only one of the two has, or that has
  // another size, is pending.
  void ExpectFilesAndMachineAgree(const std::string& edit) const {
    const Json::Value pending = Pending();
    ASSERT_TRUE(pending.isArray()) << edit << Text(pending);
    std::set<std::string> waiting;
    for (const Json::Value& element : pending) {
      const Json::Value& disk = element[element["running"].isNull() ? "recorded" : "running"];
      waiting.insert(disk["path"].asString());
    }
    std::set<std::string> recorded;
    for (const std::string& id : Disks()) {
      const Json::Value disk = host_->Record("vdisk", id);
      const std::string path = disk["path"].asString();
      recorded.insert(path);
      ASSERT_TRUE(FileExists(path)) << edit << ": a recorded disk has no file";
      const std::uint64_t mib = ImageInfo(path)["virtual-size"].asUInt64() >> 20;
      EXPECT_TRUE(mib == disk["size"].asUInt64() || waiting.contains(path)) << edit << ": " << path << " has " << mib;
    }
    std::set<std::string> running;
    pugi::xml_document document;
    ASSERT_TRUE(document.load_string(user_->RunningXml(kGuest).c_str()));
    for (const auto& disk : document.select_nodes("/domain/devices/disk[@device='disk']/source")) {
      running.insert(disk.node().attribute("file").value());
      EXPECT_TRUE(FileExists(disk.node().attribute("file").value()))
          << edit << ": QEMU has a file open that was removed";
    }
    for (const auto* paths : {&recorded, &running}) {
      for (const std::string& path : *paths) {
        const bool is_in_both = recorded.contains(path) && running.contains(path);
        EXPECT_TRUE(is_in_both || waiting.contains(path)) << edit << ": " << path << " differs and is not pending";
      }
    }
  }

  static constexpr const char* kSet = "VEXA.Virtualization.Guest/set";
  static constexpr const char* kSuccess = R"({"success":true})";
};

TEST_F(QemuLive, Set_ProcessorsAndMemoryUp_RunningGuestGetsThem) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  ExpectNothingPending("the start");
  EXPECT_EQ(Running("/domain/vcpu/@current"), "1");
  EXPECT_NE(Set(R"({"vcpu_num":2})").find(R"("success":true)"), std::string::npos) << host_->Log();
  EXPECT_EQ(Running("/domain/vcpu/@current"), "2");
  ExpectNothingPending("more processors");
  EXPECT_NE(Set(R"({"vram_size":320})").find(R"("success":true)"), std::string::npos) << host_->Log();
  EXPECT_EQ(Running("/domain/memory"), std::to_string(320 * 1024));
  ExpectNothingPending("more memory");
  const Json::Value run = Parsed(host_->Stored(std::string("/run/") + kGuest));
  EXPECT_EQ(run["vcpus"].asInt(), 2) << "other guests would get the processor as well";
  EXPECT_EQ(run["memory_mib"].asInt(), 320);
  // What no running guest can take waits, with both values.
  EXPECT_NE(Set(R"({"vram_size":321,"video_card":"vga"})").find(R"("success":true)"), std::string::npos);
  EXPECT_EQ(Text(Pending()), R"([{"property":"vram_size","recorded":321,"running":320},)"
                             R"({"property":"video_card","recorded":"vga","running":"cirrus"}])");
  EXPECT_EQ(host_->Record("guest", kGuest)["vram_size"].asInt(), 321);
  // The next start has all of it.
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  ASSERT_TRUE(host_->AwaitOff(kGuest));
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  ExpectNothingPending("the next start");
  EXPECT_EQ(Running("/domain/memory"), std::to_string(321 * 1024));
  EXPECT_EQ(Running("/domain/devices/video/model/@type"), "vga");
}

TEST_F(QemuLive, Set_DiskAddedGrownRemoved_RunningGuestFollowsAndFileGoesLast) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  ASSERT_NE(Set(R"({"vdisks_add":[{"vdisk_size":1,"vdisk_mode":1}]})").find(R"("success":true)"), std::string::npos)
      << host_->Log();
  ASSERT_EQ(Disks().size(), 2U);
  const std::string id = Disks()[1];
  const std::string path = host_->Record("vdisk", id)["path"].asString();
  EXPECT_EQ(Running("/domain/devices/disk[source/@file='" + path + "']/target/@bus"), "virtio");
  ExpectNothingPending("a disk was added");

  ASSERT_NE(Set(R"({"vdisks_edit":[{"vdisk_id":")" + id + R"(","vdisk_size":3}]})").find(R"("success":true)"),
            std::string::npos)
      << host_->Log();
  EXPECT_EQ(ImageInfo(path)["virtual-size"].asUInt64(), std::uint64_t{3} << 30);
  ExpectNothingPending("a disk has grown");
  EXPECT_FALSE(host_->Record("vdisk", id).isMember("image_is_smaller"));

  ASSERT_NE(Set(R"({"vdisks_del":[{"vdisk_id":")" + id + R"("}]})").find(R"("success":true)"), std::string::npos)
      << host_->Log();
  EXPECT_EQ(Running("/domain/devices/disk/source[@file='" + path + "']/@file"), "");
  ExpectNothingPending("a disk was removed");
  EXPECT_TRUE(Await([&] { return !FileExists(path); }, kStateTimeout)) << host_->Log();
  EXPECT_TRUE(host_->Record("vdisk", id).isNull());
  EXPECT_EQ(host_->ChangedDisks(kGuest, 1), "");
  EXPECT_EQ(host_->Qemus(kGuest), 1);
}

// The new disk has the target name of the old one.
TEST_F(QemuLive, Set_DiskReplacedInOneEdit_RunningGuestFollows) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  constexpr char kAdd[] = R"("vdisks_add":[{"vdisk_size":1,"vdisk_mode":1}])";
  ASSERT_NE(Set(std::string("{") + kAdd + "}").find("true"), std::string::npos) << host_->Log();
  const std::string old = Disks().at(1);
  const std::string old_name = host_->Record("vdisk", old)["name"].asString();
  ASSERT_NE(Set(std::string("{") + kAdd + R"(,"vdisks_del":[{"vdisk_id":")" + old + R"("}]})").find("true"),
            std::string::npos)
      << host_->Log();
  ASSERT_EQ(Disks().size(), 2U);
  const Json::Value disk = host_->Record("vdisk", Disks().at(1));
  EXPECT_EQ(disk["name"].asString(), old_name);
  EXPECT_EQ(Running("/domain/devices/disk[target/@dev='" + old_name + "']/source/@file"), disk["path"].asString());
  ExpectNothingPending("a disk was replaced");
}

TEST_F(QemuLive, Set_DiskRemovedAtNextStart_KeepsFileUntilGuestIsOff) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  const std::string file = host_->DiskFile(kGuest, 0);
  const std::string id = QemuHost::DiskId(kGuest, 0);
  ASSERT_NE(Set(R"({"apply":"next_start","vdisks_del":[{"vdisk_id":")" + id + R"("}]})").find(R"("success":true)"),
            std::string::npos)
      << host_->Log();
  EXPECT_EQ(Pending()[0]["recorded"], Json::Value());
  EXPECT_EQ(Pending()[0]["running"]["path"].asString(), file);
  // The host looks for files to remove while it runs, and when it starts.
  host_->Restart();
  std::this_thread::sleep_for(7s);
  EXPECT_TRUE(FileExists(file)) << "QEMU writes to it";
  EXPECT_EQ(Running("/domain/devices/disk/source[@file='" + file + "']/@file"), file) << "nobody asked for that";
  // Its saved memory needs it as well.
  ASSERT_EQ(host_->Code("VEXA.Virtualization.Guest/save", kGuest), 0) << host_->Log();
  std::this_thread::sleep_for(7s);
  EXPECT_TRUE(FileExists(file));
  ASSERT_EQ(host_->Code("VEXA.Virtualization.Guest/restore", kGuest), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  ASSERT_TRUE(host_->AwaitOff(kGuest));
  EXPECT_TRUE(Await([&] { return !FileExists(file); }, kStateTimeout)) << host_->Log();
}

TEST_F(QemuLive, Set_InterfaceAddedAndRemoved_RunningGuestFollows) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  ASSERT_NE(Set(R"({"vnics_add":[{"network_id":"","vnic_type":1,"prefer_sriov":false,"mac":"02:00:5e:10:00:07"}]})")
                .find("true"),
            std::string::npos)
      << host_->Log();
  const std::string nic = "/domain/devices/interface[mac/@address='02:00:5e:10:00:07']";
  EXPECT_EQ(Running(nic + "/model/@type"), "virtio") << host_->Log();
  ExpectNothingPending("an interface was added");
  const std::string id = host_->Record("guest", kGuest)["vnics"][1].asString();
  const std::string change = R"({"vnics_edit":[{"vnic_id":")" + id + R"(","prefer_sriov":false,)";
  ASSERT_NE(Set(change + R"("vnic_type":1,"mac":"02:00:5e:10:00:08"}]})").find("true"), std::string::npos)
      << host_->Log();
  const std::string changed = "/domain/devices/interface[mac/@address='02:00:5e:10:00:08']";
  EXPECT_EQ(Running(changed + "/model/@type"), "virtio") << host_->Log();
  EXPECT_EQ(Running(nic + "/model/@type"), "");
  ExpectNothingPending("an interface was changed");
  // The machine has no slot for a card that is not PCI Express.
  ASSERT_NE(Set(change + R"("vnic_type":2}]})").find("true"), std::string::npos) << host_->Log();
  EXPECT_EQ(Running(changed + "/model/@type"), "virtio");
  EXPECT_EQ(Pending()[0]["recorded"]["vnic_type"].asInt(), 2);
  ASSERT_NE(Set(R"({"vnics_del":[{"vnic_id":")" + id + R"("}]})").find("true"), std::string::npos);
  EXPECT_EQ(Running(changed + "/model/@type"), "") << host_->Log();
  ExpectNothingPending("an interface was removed");
}

TEST_F(QemuLive, Set_GuestDoesNotReleaseDevice_WaitsAndIsNotLost) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  ASSERT_NE(Set(R"({"vnics_add":[{"network_id":"","vnic_type":1,"prefer_sriov":false}]})").find("true"),
            std::string::npos);
  ExpectNothingPending("an interface was added");
  const std::string id = host_->Record("guest", kGuest)["vnics"][1].asString();
  ASSERT_EQ(host_->Code("VEXA.Virtualization.Guest/suspend", kGuest), 0);
  EXPECT_NE(Set(R"({"vnics_del":[{"vnic_id":")" + id + R"("}]})").find("true"), std::string::npos);
  EXPECT_EQ(Pending()[0]["property"], "vnics") << "a guest that stands still has given something back";
  EXPECT_TRUE(Pending()[0]["recorded"].isNull());
  EXPECT_NE(host_->Log().find("waits for its next start: The guest has not given the device back yet"),
            std::string::npos)
      << host_->Log();
  ASSERT_EQ(host_->Code("VEXA.Virtualization.Guest/resume", kGuest), 0);
  EXPECT_TRUE(Await([&] { return Text(Pending()) == "[]"; }, kStateTimeout)) << Text(Pending());
}

TEST_F(QemuLive, Set_MediumEjectedAndInserted_RunningGuestFollows) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  const std::string image = host_->Record("guest", kGuest)["iso_images"][0].asString();
  const std::string medium = "/domain/devices/disk[@device='cdrom']/source/@file";
  ASSERT_EQ(Running(medium), image);
  Json::Value edit(Json::objectValue);
  edit["iso_images"].append("unmounted");
  ASSERT_EQ(host_->Set(kGuest, edit), 0) << host_->Log();
  EXPECT_EQ(Running(medium), "");
  ExpectNothingPending("the medium was ejected");
  const std::string other = host_->DiskFolder() + "/other.iso";
  std::filesystem::copy_file(image, other);
  edit["iso_images"][0] = other;
  ASSERT_EQ(host_->Set(kGuest, edit), 0) << host_->Log();
  EXPECT_EQ(Running(medium), other);
  ExpectNothingPending("a medium was inserted");
  EXPECT_EQ(host_->Qemus(kGuest), 1);
}

TEST_F(QemuLive, Set_ApplyNow_RefusesChangesThatNeedRestart) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  const Json::Value before = host_->Record("guest", kGuest);
  const std::string refused = Set(R"({"apply":"now","vcpu_num":2,"video_card":"vga"})");
  EXPECT_NE(refused.find(R"("success":false)"), std::string::npos) << refused;
  EXPECT_EQ(host_->Record("guest", kGuest), before) << "the refused edit was stored";
  EXPECT_EQ(Running("/domain/vcpu/@current"), "1");
  EXPECT_NE(host_->Log().find("video_card (it is part of the machine that a start makes)"), std::string::npos);
}

TEST_F(QemuLive, Set_ApplyNextStart_ChangesRecordsOnly) {
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  EXPECT_NE(Set(R"({"apply":"next_start","vcpu_num":2})").find("true"), std::string::npos);
  EXPECT_EQ(Running("/domain/vcpu/@current"), "1");
  EXPECT_EQ(Text(Pending()), R"([{"property":"vcpu_num","recorded":2,"running":1}])");
  const std::string shown = host_->Vexa({"--socket", host_->Socket(), "guest", "get", kGuest});
  EXPECT_NE(shown.find("Waiting for the next start\nPROPERTY  ID  NOW  NEXT\nvcpu_num      1    2"), std::string::npos)
      << shown;
  // Another edit applies its own changes only.
  const std::string edited = host_->Vexa({"--socket", host_->Socket(), "guest", "set", "grows", "desc=other", "--now"});
  EXPECT_EQ(edited, "grows: edited; waits for its next start: vcpu_num\n");
  EXPECT_EQ(Running("/domain/vcpu/@current"), "1");
  EXPECT_EQ(Text(host_->Ask(kApply, kGuest)["data"]), R"({"pending":[]})") << host_->Log();
  EXPECT_EQ(Running("/domain/vcpu/@current"), "2");
}

// The host is killed at any moment of an edit that changes the running machine. Then the machine and the records differ
// only as "pending" says, no file that either of them has is gone, and what waits can be applied.
TEST_F(QemuLive, Set_HostKilledAtAnyMoment_PendingListsAllDifferences) {
  constexpr int kKills = 24;
  ASSERT_NO_FATAL_FAILURE(StartGuest());
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_NE(Set(R"({"vdisks_add":[{"vdisk_size":1,"vdisk_mode":1}]})").find("true"), std::string::npos);
  const auto taken = std::chrono::steady_clock::now() - begin;
  const int longest_ms = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count()) + 2;
  std::mt19937 random(7);  // NOLINT(cert-msc51-cpp): the same moments each time, as far as the machine allows
  const auto number = [&](int below) { return static_cast<int>(random() % static_cast<unsigned>(below)); };
  int interrupted = 0;
  for (int kill = 0; kill < kKills; ++kill) {
    SCOPED_TRACE(kill);
    const std::vector<std::string> disks = Disks();
    std::string edit = R"({"vdisks_add":[{"vdisk_size":1,"vdisk_mode":1}]})";
    if (disks.size() > 1 && number(2) == 0) edit = R"({"vdisks_del":[{"vdisk_id":")" + disks.back() + R"("}]})";
    if (disks.size() > 1 && number(3) == 0) {
      const auto gib = host_->Record("vdisk", disks.back())["size"].asInt() / 1024 + 1;
      edit = R"({"vdisks_edit":[{"vdisk_id":")" + disks.back() + R"(","vdisk_size":)" + std::to_string(gib) + "}]}";
    }
    if (disks.size() > 4) edit = R"({"vdisks_del":[{"vdisk_id":")" + disks.back() + R"("}]})";
    std::string answer;
    std::thread client([&] { answer = Set(edit); });
    std::this_thread::sleep_for(std::chrono::milliseconds(number(longest_ms)));
    host_->Kill();
    client.join();
    interrupted += answer.find("true") == std::string::npos ? 1 : 0;
    host_->Start();
    ASSERT_EQ(host_->Qemus(kGuest), 1) << edit;
    ASSERT_TRUE(host_->AwaitState(kGuest, "guest_running"));
    ASSERT_NO_FATAL_FAILURE(ExpectFilesAndMachineAgree(edit));
    ASSERT_EQ(Text(host_->Ask(kApply, kGuest)["data"]), R"({"pending":[]})") << edit << host_->Log();
  }
  EXPECT_GT(interrupted, kKills / 4) << "too few kills came before the answer";
  EXPECT_EQ(host_->ChangedDisks(kGuest, 1), "");
  // What was removed is removed in the end, and nothing else is.
  std::set<std::string> recorded;
  for (const std::string& id : Disks()) recorded.insert(host_->Record("vdisk", id)["path"].asString());
  EXPECT_TRUE(Await([&] { return Files() == recorded; }, kStateTimeout)) << host_->Log();
  ASSERT_EQ(host_->Power(kGuest, "poweroff"), 0);
  ASSERT_TRUE(host_->AwaitOff(kGuest));
  for (const std::string& id : Disks()) {
    const Json::Value disk = host_->Record("vdisk", id);
    if (disk["driver"] == "raw") continue;
    const auto check = RunProcess({.argv = {"/usr/bin/qemu-img", "check", disk["path"].asString()}});
    EXPECT_EQ(check.exit_code, 0) << check.output << check.errors;
  }
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
}

}  // namespace
}  // namespace vexa::test
