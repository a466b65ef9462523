// Processors that are dedicated to guests, and what the guests beside them may use; on libvirt's test driver.
#include <thread>

#include "host/domain_xml/cpu_set.h"
#include "json/readers.h"
#include "tests/support/libvirt_faults.h"
#include "tests/support/syslog_capture.h"
#include "tests/unit/guests/guest_control_fixture.h"

namespace vexa::guests {
namespace {

using domain_xml::CpuSet;
using domain_xml::FormatCpuSet;
using domain_xml::ParseCpuSet;

class GuestProcessors : public GuestControlTest {
 protected:
  GuestProcessors() {
    PutGuest(kGuest, "web-1", Parsed(R"({"cpu_pin_num":1,"vcpu_num":1})"));
    PutGuest(kOther, "web-2", Parsed(R"({"vcpu_num":2})"));
  }
  void SetUp() override {
    if (cpus_ < 2) GTEST_SKIP() << "one processor must remain free";
    test::ClearCapturedSyslog();
  }
  void TearDown() override {
    if (!HasFailure()) return;
    for (const test::SyslogLine& line : test::CapturedSyslog()) std::fprintf(stderr, "%s\n", line.text.c_str());
  }
  GuestControlOptions Slow() {
    GuestControlOptions options = Options();
    options.maintenance_interval = 1h;  // it runs when it is woken
    return options;
  }
  static std::string Cpus(unsigned first, unsigned last) {
    CpuSet cpus;
    for (unsigned cpu = first; cpu <= last; ++cpu) cpus.insert(cpu);
    return FormatCpuSet(cpus);
  }
  // The processors of each virtual CPU and of the emulator, in canonical form, as "virsh vcpupin" and "virsh
  // emulatorpin" show them.
  static std::string Affinity(const std::string& id) { return test::AffinityAsUser(id); }
  static void ExpectAffinity(const std::string& id, const std::string& expected) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (Affinity(id) != expected && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    EXPECT_EQ(Affinity(id), expected);
  }
  std::string Pending(const std::string& id) const {
    const auto pending = control_->Pending(id);
    if (!pending.ok()) return std::to_string(pending.error().code) + " " + pending.error().reason;
    return VexaVirtualization::json::ToText(domain_xml::ToJson(*pending));
  }
  // Of a guest with this many virtual CPUs that has all these processors.
  static std::string All(int vcpus, const std::string& cpus) {
    std::string text;
    for (int i = 0; i < vcpus; ++i) text += cpus + " ";
    return text + "emulator " + cpus;
  }

  const unsigned cpus_ = std::thread::hardware_concurrency();
  const std::string all_ = Cpus(0, cpus_ - 1);
  const std::string last_ = std::to_string(cpus_ - 1);
  const std::string shared_ = cpus_ < 2 ? "" : Cpus(0, cpus_ - 2);
};

TEST_F(GuestProcessors, DedicatedProcessor_GuestsStartedLater_AreKeptOff) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectAffinity(kGuest, last_ + " emulator " + shared_);
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_EQ(Affinity(kOther), All(2, shared_));
  EXPECT_EQ(RunOf(kOther)->kept_off, CpuSet{cpus_ - 1});
}

TEST_F(GuestProcessors, DedicatedProcessor_RunningGuests_AreMovedAndMovedBack) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_EQ(Affinity(kOther), All(2, all_));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectAffinity(kOther, All(2, shared_));
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  ExpectAffinity(kOther, All(2, all_));
  // Recorded after the move.
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (RunOf(kOther)->kept_off != CpuSet() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(2ms);
  EXPECT_EQ(RunOf(kOther)->kept_off, CpuSet());
}

TEST_F(GuestProcessors, DedicatedProcessor_GuestSaved_IsFreed) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectAffinity(kOther, All(2, shared_));
  EXPECT_DONE(control_->Save(kGuest, kAlice));
  ExpectAffinity(kOther, All(2, all_));
}

// Its saved definition has the processors of the earlier run.
TEST_F(GuestProcessors, SavedGuest_ProcessorsDedicatedMeanwhile_IsKeptOffWhenRestored) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->Save(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Restore(kOther, kAlice));
  ExpectAffinity(kOther, All(2, shared_));
}

TEST_F(GuestProcessors, Edit_NoneDedicatedAnyMore_TakesEffectAtNextStart) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"cpu_pin_num":0})"), kAlice));
  EXPECT_EQ(Affinity(kGuest), last_ + " emulator " + shared_);
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_EQ(Affinity(kGuest), All(1, all_));
}

// As after an update from a version that kept nothing off: the run record does not say so.
TEST_F(GuestProcessors, HostStarted_RunsOfEarlierVersion_AreMoved) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  RunRecord run = *RunOf(kOther);
  run.kept_off = CpuSet();
  PutRun(run, kOther);
  Kill();
  Start(Slow());
  EXPECT_EQ(RunOf(kOther)->kept_off, CpuSet{cpus_ - 1});
  EXPECT_EQ(Affinity(kOther), All(2, shared_));
}

TEST_F(GuestProcessors, RunRecordLost_DedicatedProcessors_AreFoundInDefinition) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ASSERT_TRUE(host_.store().Commit({{}, {{records::RunKey(kGuest), std::nullopt}}}));
  PutGuest(kGuest, "web-1", Parsed(R"({"cpu_pin_num":1,"desc":"changed"})"));  // a changed guest is looked at
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (!RunOf() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
  ASSERT_TRUE(RunOf());
  EXPECT_EQ(RunOf()->pinned_cpus, std::vector<unsigned>{cpus_ - 1});
}

// With two processors, the guest's other virtual CPU has a single one as well, which is not dedicated to it.
TEST_F(GuestProcessors, RunRecordLost_VirtualCpuWasMoved_IsNotTakenForDedicated) {
  PutGuest(kGuest, "web-1", Parsed(R"({"cpu_pin_num":1,"vcpu_num":2})"));
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"vcpu_num":3})"), kAlice));
  EXPECT_EQ(Affinity(kGuest), last_ + " " + shared_ + " " + shared_ + " emulator " + shared_);
  ASSERT_TRUE(host_.store().Commit({{}, {{records::RunKey(kGuest), std::nullopt}}}));
  PutGuest(kGuest, "web-1", Parsed(R"({"cpu_pin_num":1,"vcpu_num":3,"desc":"changed"})"));
  const auto end = std::chrono::steady_clock::now() + 20s;
  while (!RunOf() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
  ASSERT_TRUE(RunOf());
  EXPECT_EQ(RunOf()->pinned_cpus, std::vector<unsigned>{cpus_ - 1});
}

TEST_F(GuestProcessors, Move_Refused_IsRetriedAndLogged) {
  GuestControlOptions options = Options();
  options.maintenance_interval = 20ms;
  Start(std::move(options));
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  {
    const test::FailingPins failing({VIR_ERR_INTERNAL_ERROR, "no such processor today"});
    EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
    const std::string line = "The guest " + std::string(kOther) +
                             " could not be reconciled. This is retried: Cannot move the guest " + kOther +
                             " to other processors: no such processor today";
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!test::SyslogContains(line) && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(2ms);
    EXPECT_TRUE(test::SyslogContains(line));
    EXPECT_EQ(RunOf(kOther)->kept_off, CpuSet());
  }
  ExpectAffinity(kOther, All(2, shared_));
}

// libvirt shows a guest that was moved with <vcpupin> for each of its virtual CPUs.
TEST_F(GuestProcessors, Pending_GuestWasMoved_IsEmpty) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectAffinity(kOther, All(2, shared_));
  EXPECT_EQ(Pending(kOther), "[]");
  EXPECT_EQ(Pending(kGuest), "[]");
  EXPECT_DONE(control_->Edit(kOther, Parsed(R"({"apply":"now","desc":"moved"})"), kAlice));
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"cpu_pin_num":0})"), kAlice));
  EXPECT_EQ(Pending(kGuest), R"([{"property":"cpu_pin_num","recorded":0,"running":1}])");
  EXPECT_DONE(control_->PowerOff(kGuest, kAlice));
  ExpectAffinity(kOther, All(2, all_));
  EXPECT_EQ(Pending(kOther), "[]");
}

// A restore dedicates processors as the record says then.
TEST_F(GuestProcessors, Pending_GuestSaved_IsEmpty) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectAffinity(kOther, All(2, shared_));
  EXPECT_DONE(control_->Save(kGuest, kAlice));
  EXPECT_EQ(Pending(kGuest), "[]");
  EXPECT_DONE(control_->Save(kOther, kAlice));
  EXPECT_EQ(Pending(kOther), "[]");
}

TEST_F(GuestProcessors, Edit_MoreProcessorsWhileRunning_AreKeptOffDedicatedOnes) {
  Start(Slow());
  EXPECT_DONE(control_->PowerOn(kOther, kAlice));
  EXPECT_DONE(control_->PowerOn(kGuest, kAlice));
  ExpectAffinity(kOther, All(2, shared_));
  EXPECT_DONE(control_->Edit(kOther, Parsed(R"({"vcpu_num":3})"), kAlice));
  EXPECT_EQ(Affinity(kOther), All(3, shared_));
  EXPECT_DONE(control_->Edit(kGuest, Parsed(R"({"vcpu_num":2})"), kAlice));
  EXPECT_EQ(Affinity(kGuest), last_ + " " + shared_ + " emulator " + shared_);
  EXPECT_EQ(RunOf(kOther)->kept_off, CpuSet{cpus_ - 1});
  EXPECT_EQ(Pending(kGuest), "[]");
  EXPECT_EQ(Pending(kOther), "[]");
}

TEST_F(GuestProcessors, RunRecord_KeptOff_IsKept) {
  RunRecord run = RunHere();
  for (const std::optional<CpuSet>& kept_off :
       {std::optional<CpuSet>(), std::optional(CpuSet{}), std::optional(CpuSet{1, 5})}) {
    run.kept_off = kept_off;
    EXPECT_EQ(records::ParseRun(records::SerializeRun(run)).kept_off, kept_off);
  }
  EXPECT_EQ(records::ParseRun(R"({"host_id":"nas-1"})").kept_off, CpuSet());
  EXPECT_EQ(records::ParseRun(R"({"host_id":"nas-1","kept_off":[3,"x",-1]})").kept_off, CpuSet{3});
}

TEST(CpuSets, Text_IsParsedAndWritten) {
  struct Row {
    const char* text;
    const char* canonical;  // null: refused
  };
  constexpr Row kRows[] = {{"0", "0"},         {"0-3", "0-3"},   {"3,1,2", "1-3"},  {"0-7,^3", "0-2,4-7"},
                           {"1,3,5", "1,3,5"}, {"4095", "4095"}, {"4096", nullptr}, {"", nullptr},
                           {"3-1", nullptr},   {"1,", nullptr},  {"a", nullptr},    {"1-", nullptr},
                           {"-1", nullptr},    {"1 ", nullptr},  {"^", nullptr}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.text);
    const auto parsed = ParseCpuSet(row.text);
    ASSERT_EQ(parsed.has_value(), row.canonical != nullptr);
    if (parsed) {
      EXPECT_EQ(FormatCpuSet(*parsed), row.canonical);
    }
  }
}

TEST(CpuSets, Confined_IsIntersection) {
  const CpuSet shared{0, 1, 2};
  EXPECT_EQ(domain_xml::ConfineCpus("1-5", shared), (CpuSet{1, 2}));
  EXPECT_EQ(domain_xml::ConfineCpus("", shared), shared);
  EXPECT_EQ(domain_xml::ConfineCpus("4", shared), shared) << "it must run somewhere";
  EXPECT_EQ(domain_xml::ConfineCpus("x", shared), shared);
}

TEST(CpuSets, PinnedVcpus_AreCountedOnce) {
  EXPECT_EQ(domain_xml::PinnedVcpusOf("<domain><cputune><vcpupin vcpu='0' cpuset='1'/><vcpupin vcpu='2' cpuset='0-3'/>"
                                      "<vcpupin vcpu='0' cpuset='2'/><emulatorpin cpuset='1'/></cputune></domain>"),
            2U);
  EXPECT_EQ(domain_xml::PinnedVcpusOf("<domain/>"), 0U);
  EXPECT_EQ(domain_xml::PinnedVcpusOf("no XML"), 0U);
}

TEST(CpuSets, CpuSets_OfDefinition_AreRead) {
  const std::string xml =
      "<domain><vcpu cpuset='0-3'>2</vcpu><cputune><vcpupin vcpu='1' cpuset='5'/><vcpupin vcpu='0' cpuset='4'/>"
      "<vcpupin vcpu='2' cpuset='6-7'/><emulatorpin cpuset='1'/></cputune></domain>";
  EXPECT_EQ(domain_xml::OwnCpuSetsOf(xml).vcpus, "0-3");
  EXPECT_EQ(domain_xml::OwnCpuSetsOf(xml).emulator, "1");
  EXPECT_EQ(domain_xml::OwnCpuSetsOf("<domain><vcpu cpuset='2'>1</vcpu></domain>").emulator, "2");
  EXPECT_EQ(domain_xml::OwnCpuSetsOf("<dom").vcpus, "");
  EXPECT_EQ(domain_xml::SingleCpusOf(xml), (std::vector<unsigned>{4, 5}));
  EXPECT_TRUE(domain_xml::SingleCpusOf("<dom").empty());
}

}  // namespace
}  // namespace vexa::guests
