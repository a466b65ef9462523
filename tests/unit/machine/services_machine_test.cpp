// What is read from /proc and /sys: right, damaged, missing and huge.

#include <atomic>
#include <thread>

#include "host/machine/cpu_load.h"
#include "host/machine/interfaces.h"
#include "host/machine/machine_stats.h"
#include "tests/support/matchers.h"
#include "tests/unit/api/services_fixture.h"

namespace vexa::machine {
namespace {

// As it is sent: jsoncpp distinguishes a signed from an unsigned 7 before, not after.
Json::Value Sent(const Json::Value& value) { return test::Parsed(VexaVirtualization::json::ToText(value)); }

using std::chrono::milliseconds;
using test::ScriptedMachine;

TEST(Text, Fields_AreSplitAtBlanksAndLimited) {
  EXPECT_THAT(Fields("  a\tb  c "), ElementsAre("a", "b", "c"));
  EXPECT_THAT(Fields(" \t"), IsEmpty());
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "x ";
  EXPECT_EQ(Fields(many).size(), 64u);
}

TEST(Text, Unsigned_IsDigitsOnly) {
  EXPECT_EQ(ParseUnsigned("18446744073709551615"), 18446744073709551615u);
  for (const char* text : {"", "-1", "+1", " 1", "1 ", "18446744073709551616", "0x1", "1.5"}) {
    EXPECT_EQ(ParseUnsigned(text), std::nullopt) << text;
  }
}

TEST(Text, Clean_AnyBytes_IsShortPrintableUtf8) {
  EXPECT_EQ(CleanText(" a\tb\x1b[31m\x7f "), "a?b?[31m?");
  EXPECT_EQ(CleanText("größe"), "größe");
  EXPECT_EQ(CleanText("a\xff\xc3"), "a??");
  EXPECT_EQ(CleanText(std::string(100'000, 'x')).size(), 256u);
}

TEST(CpuTimes, CpuTimes_DamagedText_AreNotSet) {
  for (const char* text : {"", "cpu", "cpu 1 2 3", "cpu0 1 2 3 4 5 6 7 8", "cpu a b c d e", "cpu -1 2 3 4 5 6 7 8",
                           "cpu 1 2 3 99999999999999999999 5", "cpu 1 2 3 18446744073709551615 5", "\n\n"}) {
    EXPECT_FALSE(ParseCpuTimes(text)) << text;
  }
  EXPECT_TRUE(ParseCpuTimes("cpu 1 2 3 4\n")) << "an old kernel";
  EXPECT_TRUE(ParseCpuTimes("cpu  492232 0 80298 643856 1334 0 3320 632 0 0\ncpu0 244512 0"));
}

TEST(CpuLoad, CpuLoad_BetweenSamples_IsPercentUpToHundredInTotal) {
  const auto load = LoadBetween({100, 100, 100, 100}, {150, 120, 110, 120});
  EXPECT_EQ(load.user, 50);
  EXPECT_EQ(load.system, 20);
  EXPECT_EQ(load.other, 10);
  const auto halves = LoadBetween({}, {995, 1005, 0, 0});
  EXPECT_LE(halves.user + halves.system + halves.other, 100);
  const auto still = LoadBetween({5, 5, 5, 5}, {5, 5, 5, 5});
  EXPECT_EQ(still.user + still.system + still.other, 0);
  const auto backwards = LoadBetween({100, 100, 100, 100}, {50, 50, 50, 200});
  EXPECT_EQ(backwards.user + backwards.system + backwards.other, 0);
}

// Time that only passes when the code sleeps or the test advances it; while the code sleeps, the processors are busy.
struct ScriptedTime {
  ScriptedMachine files;
  CpuSampler::TimePoint now{};
  std::vector<milliseconds> slept;
  int user = 0;
  int idle = 0;

  void Pass(milliseconds time, int user_ticks, int idle_ticks) {
    now += time;
    user += user_ticks;
    idle += idle_ticks;
    files.Put("/proc/stat", "cpu " + std::to_string(user) + " 0 0 " + std::to_string(idle) + " 0 0 0 0 0 0\n");
  }
  CpuSampler::Clock clock() {
    return {[this] { return now; },
            [this](milliseconds time) {
              slept.push_back(time);
              Pass(time, 1, 3);
            }};
  }
};

TEST(CpuSampler, CpuSampler_RecentCall_UsesTimeSinceIt) {
  ScriptedTime time;
  time.Pass(milliseconds(0), 10, 10);
  CpuSampler sampler(time.files.machine(), time.clock());
  EXPECT_EQ(sampler.Read()->user, 25) << "two readings";
  EXPECT_EQ(time.slept, std::vector{milliseconds(200)});
  time.Pass(milliseconds(100), 100, 0);
  EXPECT_EQ(sampler.Read()->user, 25) << "the same answer again";
  time.Pass(milliseconds(150), 0, 100);
  EXPECT_EQ(sampler.Read()->user, 50);
  time.Pass(milliseconds(5000), 10, 90);
  EXPECT_EQ(sampler.Read()->user, 10);
  EXPECT_EQ(time.slept.size(), 1u);
  time.Pass(milliseconds(5001), 100, 0);
  EXPECT_EQ(sampler.Read()->user, 25) << "too old";
  EXPECT_EQ(time.slept.size(), 2u);
}

TEST(CpuSampler, Figures_Unreadable_AreNotSetAndRecover) {
  ScriptedTime time;
  CpuSampler sampler(time.files.machine(), time.clock());
  EXPECT_FALSE(sampler.Read());
  EXPECT_THAT(time.slept, IsEmpty());
  time.Pass(milliseconds(300), 1, 1);
  EXPECT_TRUE(sampler.Read());
  time.files.Put("/proc/stat", "cpu damaged");
  time.now += milliseconds(300);
  EXPECT_FALSE(sampler.Read());
  time.Pass(milliseconds(300), 1, 1);
  EXPECT_TRUE(sampler.Read());
}

TEST(CpuSampler, RealMachine_ManyThreadsShareOneWindow) {
  CpuSampler sampler{Machine()};
  std::atomic<int> answered = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 16; ++i) {
      threads.emplace_back([&] {
        const auto load = sampler.Read();
        if (load && load->user >= 0 && load->user + load->system + load->other <= 100) ++answered;
      });
    }
  }
  EXPECT_EQ(answered, 16);
}

TEST(Memory, Memory_ScriptedFigures_AreRead) {
  ScriptedMachine files;
  EXPECT_FALSE(ReadMemory(files.machine()));
  files.Put(
      "/proc/meminfo",
      "MemTotal:  1000 kB\nMemFree: 200 kB\nBuffers:\t30 kB\nCached: 400 kB\nSwapCached: 9 kB\nSwapTotal: 50 kB\n");
  const auto memory = ReadMemory(files.machine());
  ASSERT_TRUE(memory);
  EXPECT_EQ(memory->total, 1000u);
  EXPECT_EQ(memory->free, 200u);
  EXPECT_EQ(memory->buffers, 30u);
  EXPECT_EQ(memory->cached, 400u);
  EXPECT_EQ(memory->swap_total, 50u);
  EXPECT_EQ(memory->swap_free, 0u);
}

TEST(Memory, Memory_DamagedOrHugeFile_IsNotSet) {
  ScriptedMachine files;
  for (const std::string& text : {std::string(), std::string("MemTotal: many kB\n"), std::string("MemTotal\n:::\n"),
                                  std::string(5 << 20, '\n'), "MemFree: 1 kB\n" + std::string("\0\xff", 2)}) {
    files.Put("/proc/meminfo", text);
    EXPECT_FALSE(ReadMemory(files.machine())) << text.substr(0, 20);
  }
  std::filesystem::remove(files.root() + "/proc/meminfo");
  files.MakeFolder("/proc/meminfo");
  EXPECT_FALSE(ReadMemory(files.machine())) << "a folder";
}

TEST(Processor, Processor_ScriptedFigures_AreRead) {
  ScriptedMachine files;
  EXPECT_EQ(ReadProcessor(files.machine()).cores, 0);
  files.Put(
      "/proc/cpuinfo",
      "processor\t: 0\nmodel name\t: Model \x01X\ncpu MHz\t\t: 2596.124\n\nprocessor\t: 1\nmodel name\t: Other\n");
  auto processor = ReadProcessor(files.machine());
  EXPECT_EQ(processor.cores, 2);
  EXPECT_EQ(processor.model, "Model ?X");
  EXPECT_DOUBLE_EQ(processor.clock_mhz, 2596.124);
  files.Put("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "3700000\n");
  EXPECT_DOUBLE_EQ(ReadProcessor(files.machine()).clock_mhz, 3700);
  files.Put("/proc/cpuinfo", "cpu MHz: nan\ncpu MHz: 1e300\ncpu MHz: -5\n");
  files.Put("/sys/devices/system/cpu/cpu0/cpufreq/cpuinfo_max_freq", "-1\n");
  EXPECT_EQ(ReadProcessor(files.machine()).clock_mhz, 0);
}

TEST(Disks, Disks_WholeDisks_AreCountedWithoutPartitions) {
  ScriptedMachine files;
  EXPECT_TRUE(DiskCounters(files.machine()).isNull());
  files.Put("/sys/class/block/sda1/partition", "1\n");
  files.Put("/proc/diskstats",
            " 7 0 loop0 1 0 2 0 3 0 4 0 0 5 6\n 8 0 sda 10 0 20 0 30 0 40 0 0 50 60 1 2 3 4\n"
            " 8 1 sda1 1 0 2 0 3 0 4 0 0 5 6\nshort line\n 9 9 ../../etc x y z 18446744073709551615 a b "
            "18446744073709551615 c d e f\n");
  const Json::Value disks = Sent(DiskCounters(files.machine()));
  ASSERT_EQ(disks.size(), 2u);
  EXPECT_EQ(disks[0], test::Parsed(R"({"device":"sda","reads":10,"read_byte":10240,"writes":30,"write_byte":20480,
                                       "busy_ms":50})"));
  EXPECT_EQ(disks[1]["device"], "../../etc");
  EXPECT_EQ(disks[1]["write_byte"].asUInt64(), 18446744073709551615u);
}

TEST(Network, Counters_AreReadPerDevice) {
  ScriptedMachine files;
  EXPECT_TRUE(NetworkCounters(files.machine()).isNull());
  files.Put("/proc/net/dev",
            "Inter-|   Receive   |  Transmit\n face |bytes    packets errs|bytes\n"
            "  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n eth1:\n:::\n");
  EXPECT_EQ(Sent(NetworkCounters(files.machine())),
            test::Parsed(R"([{"device":"eth0","rx":1,"rx_packets":2,"rx_errors":3,"tx":9,"tx_packets":10,
                              "tx_errors":11}])"));
}

TEST(Network, Network_EndlessList_IsTruncated) {
  ScriptedMachine files;
  std::string text;
  for (int i = 0; i < 6000; ++i) text += "e" + std::to_string(i) + ": 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n";
  files.Put("/proc/net/dev", text);
  EXPECT_EQ(NetworkCounters(files.machine()).size(), 4096u);
}

TEST(System, UptimeAndVersion_AreReadOrEmpty) {
  ScriptedMachine files;
  EXPECT_EQ(UptimeSeconds(files.machine()), 0u);
  EXPECT_EQ(SystemVersion(files.machine()), "");
  files.Put("/proc/uptime", "6118.33 6438.56\n");
  files.Put("/etc/os-release", "NAME=\"X\"\nPRETTY_NAME=\"A system 12\"\n");
  EXPECT_EQ(UptimeSeconds(files.machine()), 6118u);
  EXPECT_EQ(SystemVersion(files.machine()), "A system 12");
  files.Put("/etc/os-release", "PRETTY_NAME=\"\n");
  EXPECT_EQ(SystemVersion(files.machine()), "\"");
}

TEST(InterfaceName, IsInterfaceName_AcceptsOnlyKernelNames) {
  for (const char* name : {"eth0", "a", "ovs_bond0", "enp0s31f6.1234", "..."})
    EXPECT_TRUE(IsInterfaceName(name)) << name;
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), std::string("../eth0"), std::string("a/b"),
        std::string("sixteen-bytes-xx"), std::string("a b"), std::string("a\n"), std::string("a\0b", 3),
        std::string("a\xff"), std::string("eth0:1")}) {
    EXPECT_FALSE(IsInterfaceName(name)) << name;
  }
}

void AddInterface(ScriptedMachine& files, const std::string& name, const std::string& marker = "") {
  const std::string folder = "/sys/class/net/" + name;
  files.Put(folder + "/type", "1\n");
  files.Put(folder + "/operstate", "down\n");
  if (!marker.empty()) files.MakeFolder(folder + "/" + marker);
}

std::vector<std::string> NamesAndTypes(const Machine& machine) {
  std::vector<std::string> result;
  for (const Interface& found : HostInterfaces(machine)) result.push_back(found.name + " " + found.type);
  return result;
}

TEST(Interfaces, HostInterfaces_ListsOnlyOutsideConnections) {
  ScriptedMachine files;
  EXPECT_THAT(NamesAndTypes(files.machine()), IsEmpty());
  files.Put("/sys/class/net/lo/type", "772\n");
  files.Put("/sys/class/net/bonding_masters", "bond0\n");
  EXPECT_THAT(NamesAndTypes(files.machine()), ElementsAre("lo loopback"));
  AddInterface(files, "eth0", "device");
  AddInterface(files, "wlan0", "device");
  files.MakeFolder("/sys/class/net/wlan0/wireless");
  AddInterface(files, "bond0", "bonding");
  AddInterface(files, "br0", "bridge");
  files.MakeFolder("/sys/class/net/br0/lower_bond0");
  AddInterface(files, "docker0", "bridge");
  files.MakeFolder("/sys/class/net/docker0/lower_veth1");
  AddInterface(files, "veth1");
  AddInterface(files, "vnet3");
  AddInterface(files, "eth0.7");
  files.Put("/sys/class/net/eth0.7/uevent", "DEVTYPE=vlan\nINTERFACE=eth0.7\n");
  files.MakeFolder("/sys/class/net/eth0.7/lower_eth0");
  AddInterface(files, "macvtap0");
  files.MakeFolder("/sys/class/net/macvtap0/lower_eth0");
  AddInterface(files, "ovs_eth1");
  AddInterface(files, "loop1", "bridge");
  files.MakeFolder("/sys/class/net/loop1/lower_loop1");
  files.MakeFolder("/sys/class/net/loop1/lower_..");
  EXPECT_THAT(NamesAndTypes(files.machine()), ElementsAre("bond0 bond", "br0 bridge", "eth0 ethernet", "eth0.7 vlan",
                                                          "ovs_eth1 bridge", "wlan0 wificlient"));
}

TEST(Interfaces, RealMachine_HasAtLeastOne) {
  const auto interfaces = HostInterfaces(Machine());
  ASSERT_FALSE(interfaces.empty());
  for (const Interface& found : interfaces) EXPECT_TRUE(IsInterfaceName(found.name));
  for (const InterfaceAddress& address : SystemAddresses()) {
    EXPECT_FALSE(address.ip.empty());
    EXPECT_FALSE(address.mask.empty());
  }
}

}  // namespace
}  // namespace vexa::machine
