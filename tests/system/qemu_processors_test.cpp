// Settings for which the machine must have something: processors that are dedicated to guests (what the kernel says of
// the threads of QEMU), CPU weights where libvirt has no rights for them, and keyboard layouts.
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "host/domain_xml/cpu_set.h"
#include "json/readers.h"
#include "tests/support/qemu_host_test.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;

constexpr char kPinned[] = "11111111-2222-4333-8444-000000000011";
constexpr char kOther[] = "11111111-2222-4333-8444-000000000012";
constexpr int kEditFailed = 909;

struct Thread {
  std::string name;
  std::string cpus;  // as /proc has them: "0-1"
};

std::string Line(const std::string& path, const std::string& begin) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(begin)) continue;
    line.erase(0, begin.size());
    line.erase(0, line.find_first_not_of(" \t"));
    return line;
  }
  return "";
}

std::vector<Thread> ThreadsOf(int pid) {
  std::vector<Thread> threads;
  std::error_code ignored;
  const std::filesystem::path folder = "/proc/" + std::to_string(pid) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(folder, ignored)) {
    threads.push_back({Line(task.path() / "comm", ""), Line(task.path() / "status", "Cpus_allowed_list:")});
  }
  return threads;
}

bool IsVirtualCpu(const Thread& thread) { return thread.name.starts_with("CPU "); }

class QemuProcessors : public LibvirtHostTest {
 protected:
  std::string UnavailableReason() override {
    if (cpus_ < 2) return "one processor must remain free, and this machine has one";
    return LibvirtHostTest::UnavailableReason();
  }
  void MakeHost() override {
    LibvirtHostTest::MakeHost();
    PutGuest(kPinned, "pinned", "cpu_pin_num", 1);
    PutGuest(kOther, "other", "vcpu_num", 2);
    host_->Start();
  }
  void PutGuest(const std::string& id, const std::string& name, const char* member, int value) const {
    HostGuest guest;
    guest.id = id;
    guest.name = name;
    host_->PutGuest(guest);
    Json::Value record = host_->Record("guest", id);
    record[member] = value;
    host_->Put("guest", id, record);
  }
  int Pid(const std::string& guest) const {
    const std::vector<int> pids = QemusOf(environment_->folder(), guest);
    EXPECT_EQ(pids.size(), 1u);
    return pids.empty() ? 0 : pids[0];
  }
  // The sets that the virtual CPUs, and the other threads, of the guest's process have.
  std::set<std::string> Cpus(const std::string& guest, bool of_virtual_cpus) const {
    std::set<std::string> found;
    for (const Thread& thread : ThreadsOf(Pid(guest))) {
      if (IsVirtualCpu(thread) == of_virtual_cpus) found.insert(thread.cpus);
    }
    return found;
  }
  std::string Threads(const std::string& guest) const {
    std::string text;
    for (const Thread& thread : ThreadsOf(Pid(guest))) text += thread.name + ": " + thread.cpus + "\n";
    return text;
  }
  void ExpectCpus(const std::string& guest, const std::string& virtual_cpus, const std::string& others) const {
    const auto has = [&] {
      return Cpus(guest, true) == std::set{virtual_cpus} && Cpus(guest, false) == std::set{others};
    };
    EXPECT_TRUE(Await(has, kStateTimeout)) << guest << ": expected " << virtual_cpus << " and " << others << "\n"
                                           << Threads(guest) << host_->Log();
  }

  static std::string Range(unsigned last) { return last == 0 ? "0" : "0-" + std::to_string(last); }
  const unsigned cpus_ = std::thread::hardware_concurrency();
  const std::string all_ = Range(cpus_ - 1);
  const std::string last_ = std::to_string(cpus_ - 1);
  const std::string shared_ = cpus_ < 2 ? "" : Range(cpus_ - 2);
};

TEST_F(QemuProcessors, DedicatedProcessor_IsTheGuestsOnly) {
  ASSERT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  ExpectCpus(kOther, all_, all_);
  ASSERT_EQ(host_->Power(kPinned, "poweron"), 0) << host_->Log();
  ExpectCpus(kPinned, last_, shared_);
  ExpectCpus(kOther, shared_, shared_);
  EXPECT_EQ(json::ToText(host_->Ask("VEXA.Virtualization.Guest/status", kOther)["data"]["pending"]), "[]");
  // libvirt starts the thread of a new virtual CPU where the guest was started.
  Json::Value edit(Json::objectValue);
  edit["vcpu_num"] = 3;
  ASSERT_EQ(host_->Set(kOther, edit), 0) << host_->Log();
  ExpectCpus(kOther, shared_, shared_);
  EXPECT_EQ(json::ToText(host_->Ask("VEXA.Virtualization.Guest/status", kOther)["data"]["pending"]), "[]");

  // What runs is found again, and what is started then is kept off.
  host_->Restart();
  ASSERT_TRUE(host_->AwaitState(kPinned, "guest_running"));
  ASSERT_EQ(host_->Power(kOther, "poweroff"), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  ExpectCpus(kOther, shared_, shared_);
  ExpectCpus(kPinned, last_, shared_);

  ASSERT_EQ(host_->Power(kPinned, "poweroff"), 0) << host_->Log();
  ExpectCpus(kOther, all_, all_);
}

// While the host is away, nobody moves the others.
TEST_F(QemuProcessors, PinnedGuest_EndsWhileHostIsAway_FreesProcessorAfterwards) {
  ASSERT_EQ(host_->Power(kPinned, "poweron"), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  ExpectCpus(kOther, shared_, shared_);
  host_->Kill();
  EXPECT_EQ(user_->Destroy(kPinned), "");
  ExpectCpus(kOther, shared_, shared_);
  host_->Start();
  ExpectCpus(kOther, all_, all_);
}

TEST_F(QemuProcessors, NotEnoughProcessors_AreRefusedWithReason) {
  Json::Value record = host_->Record("guest", kOther);
  record["vcpu_num"] = static_cast<int>(cpus_);
  record["cpu_pin_num"] = static_cast<int>(cpus_);
  host_->Put("guest", kOther, record);
  EXPECT_EQ(host_->Power(kOther, "poweron"), 944);
  EXPECT_NE(host_->Log().find("dedicated to it, and one more must remain free. The host has " + std::to_string(cpus_)),
            std::string::npos)
      << host_->Log();
}

TEST_F(QemuProcessors, SavedGuest_RestoredBesideDedicatedProcessor_IsKeptOff) {
  ASSERT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  ASSERT_EQ(host_->Code("VEXA.Virtualization.Guest/save", kOther), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kPinned, "poweron"), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  ExpectCpus(kOther, shared_, shared_);
}

TEST_F(QemuProcessors, Weight_WithoutControlGroups_IsRefusedWithReason) {
  Json::Value edit(Json::objectValue);
  edit["cpu_weight"] = 512;
  edit["guest_id"] = kOther;
  const Json::Value reply = host_->Ask("VEXA.Virtualization.Guest/set", kOther, edit);
  const Json::Value& error = json::Member(reply, "error");
  EXPECT_EQ(json::Int(json::Member(error, "code")), kEditFailed) << json::ToText(reply);
  EXPECT_EQ(json::String(json::Member(error, "reason")),
            "The parameter 'cpu_weight' is 512: guests of this host can only have 256, because its hypervisor '" +
                libvirtd_->uri() +
                "' runs without the rights that control groups need. A host with the hypervisor 'qemu:///system' "
                "supports weights")
      << json::ToText(reply);
  edit["cpu_weight"] = 256;
  EXPECT_EQ(host_->Set(kOther, edit), 0) << host_->Log();
}

// From before the check, or from another host: the guest runs, and administrators learn about it.
TEST_F(QemuProcessors, Weight_InOlderRecord_IsReportedAtStart) {
  Json::Value record = host_->Record("guest", kOther);
  record["cpu_weight"] = 512;
  host_->Put("guest", kOther, record);
  ASSERT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  const std::string line =
      "The guest " + std::string(kOther) + " runs without its CPU weight of 512: guests of this host";
  EXPECT_NE(host_->Log().find(line), std::string::npos) << host_->Log();
  const std::string log = host_->Vexa({"log", "--all", "--json", "--socket", host_->Socket()});
  EXPECT_NE(log.find("The virtual machine [other] runs without its CPU weight of 512: guests of this host"),
            std::string::npos)
      << log;
  Json::Value edit(Json::objectValue);
  edit["desc"] = "can still be edited";
  edit["cpu_weight"] = 512;
  EXPECT_EQ(host_->Set(kOther, edit), 0) << host_->Log();
}

class QemuKeyboard : public EmbeddedHostTest {
 protected:
  void MakeHost() override {
    EmbeddedHostTest::MakeHost();
    StartHostWith(kOther, "typed");
  }
};

TEST_F(QemuKeyboard, UnknownLayout_IsRefusedWithTheKnownOnesAndKeepsNothingFromStarting) {
  Json::Value edit(Json::objectValue);
  edit["guest_id"] = kOther;
  edit["kb_layout"] = "xx";
  const Json::Value reply = host_->Ask("VEXA.Virtualization.Guest/set", kOther, edit);
  const std::string reason = json::String(json::Member(json::Member(reply, "error"), "reason"));
  EXPECT_EQ(reason.find("The parameter 'kb_layout' is 'xx', and QEMU on this host has only 'Default', "), 0u)
      << json::ToText(reply);
  EXPECT_NE(reason.find("'de'"), std::string::npos) << reason;
  edit["kb_layout"] = "de";
  EXPECT_EQ(host_->Set(kOther, edit), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  ASSERT_EQ(host_->Power(kOther, "poweroff"), 0) << host_->Log();

  Json::Value record = host_->Record("guest", kOther);
  record["kb_layout"] = "xx";
  host_->Put("guest", kOther, record);
  EXPECT_EQ(host_->Power(kOther, "poweron"), 0) << host_->Log();
  EXPECT_NE(host_->Log().find("has the keyboard layout 'xx', which QEMU on this host does not have"), std::string::npos)
      << host_->Log();
}

}  // namespace
}  // namespace vexa::test
