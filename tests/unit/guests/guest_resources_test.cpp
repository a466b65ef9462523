// Whether a host can run a guest now.
#include "host/guests/resources.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <set>

#include "json/readers.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

using test::Parsed;
using testing::ElementsAre;
using testing::IsEmpty;

namespace repo = VexaCCC::State::Repo;

Guest MakeGuest(const std::string& record = R"({"vcpu_num":2,"vram_size":1024})") {
  Guest guest;
  guest.records.id = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
  guest.records.guest = Parsed(record);
  guest.repository_id = "r";
  guest.repository_host_id = "here";
  guest.repository_state = repo::online;
  return guest;
}

// Enough for the guest above, and no more.
HostResources MakeHost() {
  HostResources host;
  host.host_id = "here";
  host.cpus = 1;
  host.vcpus_per_cpu = 2;
  host.free_memory_mib = 1024;
  return host;
}

HostResources LargeHost(unsigned cpus = 8) {
  HostResources host = MakeHost();
  host.cpus = cpus;
  host.vcpus_per_cpu = 1000;
  host.free_memory_mib = std::numeric_limits<std::uint64_t>::max();
  return host;
}

std::vector<int> Codes(const Rating& rating) {
  std::vector<int> codes;
  for (const Refusal& refusal : rating.refusals) codes.push_back(refusal.code);
  return codes;
}

std::vector<int> Codes(const Guest& guest, const HostResources& host) { return Codes(Rate(guest, host)); }

// The sentence of the only refusal.
std::string Reason(const Guest& guest, const HostResources& host) {
  const Rating rating = Rate(guest, host);
  return rating.refusals.size() == 1 ? rating.refusals[0].reason : std::to_string(rating.refusals.size()) + " refusals";
}

TEST(Rating, GuestThatJustFits_IsAvailableWithBestIo) {
  const Rating rating = Rate(MakeGuest(), MakeHost());
  EXPECT_THAT(Codes(rating), IsEmpty());
  EXPECT_TRUE(rating.has_best_io);
  EXPECT_THAT(rating.pinned_cpus, IsEmpty());
}

TEST(Rating, OneVirtualCpuTooMany_IsRefusedWithTheNumbers) {
  HostResources host = MakeHost();
  host.vcpus_taken = 1;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(kNoVcpu));
  EXPECT_EQ(Reason(MakeGuest(), host), "The guest needs 2 virtual CPUs, and 1 of the host's 2 are taken.");
  host.cpus = 2;
  EXPECT_THAT(Codes(MakeGuest(), host), IsEmpty());
  host.vcpus_taken = 2;
  EXPECT_THAT(Codes(MakeGuest(), host), IsEmpty());
  host.vcpus_taken = 3;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(kNoVcpu));
}

TEST(Rating, HugeNumbersOfVirtualCpus_DoNotWrap) {
  HostResources host = MakeHost();
  for (const std::uint64_t taken : {std::numeric_limits<std::uint64_t>::max(),
                                    std::numeric_limits<std::uint64_t>::max() - 1, std::uint64_t{1} << 63}) {
    host.vcpus_taken = taken;
    EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(kNoVcpu)) << taken;
  }
  host.cpus = std::numeric_limits<unsigned>::max();
  host.vcpus_per_cpu = std::numeric_limits<unsigned>::max();
  host.vcpus_taken = 0;
  EXPECT_THAT(Codes(MakeGuest(), host), IsEmpty());
  host.vcpus_per_cpu = 0;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(kNoVcpu));
}

TEST(Rating, Rate_InvalidVirtualCpus_AreRefused) {
  for (const char* number : {"0", "513", "-1", "1e300", "-1e300", "1.5", "18446744073709551615", "99999999999999999999",
                             "\"2\"", "true", "[]", "{}", "[2]"}) {
    const Guest guest = MakeGuest(std::string(R"({"vram_size":1,"vcpu_num":)") + number + "}");
    EXPECT_THAT(Codes(guest, LargeHost()), ElementsAre(kNoVcpu)) << number;
    EXPECT_EQ(Reason(guest, LargeHost()), "The record's 'vcpu_num' is not a number from 1 to 512.") << number;
  }
  for (const char* number : {"1", "512", "2.0", "null"}) {
    EXPECT_THAT(Codes(MakeGuest(std::string(R"({"vram_size":1,"vcpu_num":)") + number + "}"), LargeHost()), IsEmpty())
        << number;
  }
  EXPECT_THAT(Codes(MakeGuest(R"({"vram_size":1})"), LargeHost()), IsEmpty()) << "without the member it is one";
}

TEST(Rating, OneMiBTooMuch_IsRefusedWithTheNumbers) {
  HostResources host = MakeHost();
  host.free_memory_mib = 1023;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(kNoMemory));
  EXPECT_EQ(Reason(MakeGuest(), host), "The guest needs 1024 MiB of memory, and 1023 MiB are free.");
  host.free_memory_mib = 0;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(kNoMemory));
}

TEST(Rating, Rate_InvalidMemory_IsRefused) {
  for (const char* number : {"0", "-1", "2097152", "1e300", "18446744073709551615", "99999999999999999999", "\"1024\"",
                             "true", "[]", "{}", "null", "0.5"}) {
    const Guest guest = MakeGuest(std::string(R"({"vram_size":)") + number + "}");
    EXPECT_THAT(Codes(guest, LargeHost()), ElementsAre(kNoMemory)) << number;
    EXPECT_EQ(Reason(guest, LargeHost()), "The record's 'vram_size' is not a number from 1 to 2097151 (MiB).")
        << number;
  }
  EXPECT_THAT(Codes(MakeGuest("{}"), LargeHost()), ElementsAre(kNoMemory));
  EXPECT_THAT(Codes(MakeGuest(R"({"vram_size":2097151})"), LargeHost()), IsEmpty());
}

TEST(Rating, RecordsOfAnyType_AreRatedWithoutFault) {
  for (const char* record : {"null", "[]", "7", "\"x\"", "{}"}) {
    Guest guest = MakeGuest(record);
    guest.records.disks.emplace_back("d", Parsed(record));
    guest.records.nics.emplace_back("n", Parsed(record));
    HostResources host = LargeHost();
    host.has_network = [](const std::string&) { return false; };
    host.has_file = [](const std::string&) { return true; };
    EXPECT_THAT(Codes(guest, host), ElementsAre(kNoMemory, kUnavailable)) << record << ": no memory and no path";
  }
}

TEST(Rating, RepositoryElsewhere_NeedsBiosAndVirtio) {
  Guest guest = MakeGuest(R"({"vram_size":1,"use_ovmf":true})");
  guest.records.disks = {{"d1", Parsed(R"({"vdisk_mode":1})")},
                         {"d2", Parsed(R"({"vdisk_mode":3})")},
                         {"d3", Parsed(R"({"vdisk_mode":2})")}};
  EXPECT_THAT(Codes(guest, LargeHost()), IsEmpty()) << "it is here";
  guest.repository_host_id = "north";
  const Rating rating = Rate(guest, LargeHost());
  EXPECT_THAT(Codes(rating), ElementsAre(kRemoteEfi, kRemoteNotVirtio));
  EXPECT_FALSE(rating.has_best_io);
  EXPECT_EQ(rating.refusals[0].reason,
            "The firmware is EFI, which needs the repository on the host itself, and the guest's repository is on the "
            "host 'north'.");
  EXPECT_EQ(rating.refusals[1].reason,
            "The disk 'd2' is not VirtIO, which needs the repository on the host itself, and the guest's repository is "
            "on the host 'north'.");
}

TEST(Rating, FirmwareAndDisksOfAnyType_AreTakenAsTheHypervisorTakesThem) {
  const auto with = [](const std::string& ovmf, const std::string& disk) {
    Guest guest = MakeGuest(R"({"vram_size":1,"use_ovmf":)" + ovmf + "}");
    guest.records.disks.emplace_back("d", Parsed(disk));
    guest.repository_host_id = "north";
    return Codes(guest, LargeHost());
  };
  for (const char* ovmf : {"false", "null", "0", "\"true\"", "[]", "{}"}) {
    EXPECT_THAT(with(ovmf, "{}"), IsEmpty()) << ovmf;
  }
  EXPECT_THAT(with("1", "{}"), ElementsAre(kRemoteEfi));
  for (const char* mode : {"0", "2", "3", "4", "5", "-1", "1e300", "99999999999999999999", "\"1\"", "true", "[]"}) {
    EXPECT_THAT(with("false", std::string(R"({"vdisk_mode":)") + mode + "}"), ElementsAre(kRemoteNotVirtio)) << mode;
  }
  EXPECT_THAT(with("false", R"({"vdisk_mode":1})"), IsEmpty());
}

TEST(Rating, RepositoryOfNoHost_IsNotElsewhere) {
  Guest guest = MakeGuest(R"({"vram_size":1,"use_ovmf":true})");
  guest.records.disks.emplace_back("d", Parsed(R"({"vdisk_mode":3})"));
  guest.repository_host_id = "";
  guest.repository_state = "";
  const Rating rating = Rate(guest, LargeHost());
  EXPECT_THAT(Codes(rating), IsEmpty());
  EXPECT_FALSE(rating.has_best_io);
  HostResources nameless = LargeHost();
  nameless.host_id = "";
  EXPECT_FALSE(Rate(guest, nameless).has_best_io);
}

TEST(Rating, RepositoryState_DecidesWhenItIsKnown) {
  const auto in = [](const std::string& state) {
    Guest guest = MakeGuest();
    guest.repository_state = state;
    return guest;
  };
  for (const char* state : {repo::online, repo::degraded, repo::provision_warning, ""}) {
    EXPECT_THAT(Codes(in(state), MakeHost()), IsEmpty()) << state;
  }
  for (const char* state : {repo::inaccessible, repo::unavailable, repo::crashed, "online", "x"}) {
    EXPECT_THAT(Codes(in(state), MakeHost()), ElementsAre(kUnavailable)) << state;
    EXPECT_EQ(Reason(in(state), MakeHost()), "The repository 'r' is in the state '" + std::string(state) + "'.");
  }
  EXPECT_THAT(Codes(in(repo::full), MakeHost()), ElementsAre(kUnavailable));
  EXPECT_EQ(Reason(in(repo::full), MakeHost()),
            "The repository 'r' is full: make room in it, or move disks to another repository.");
  Guest none = in(repo::crashed);
  none.repository_id = "";
  EXPECT_THAT(Codes(none, MakeHost()), IsEmpty());
}

TEST(Rating, DiskWithoutItsFile_IsRefusedForEach) {
  Guest guest = MakeGuest();
  guest.records.disks = {{"d1", Parsed(R"({"path":"/a"})")},
                         {"d2", Parsed(R"({"path":"/b\nc"})")},
                         {"d3", Parsed(R"({"path":7})")},
                         {"d4", Parsed(R"({"path":""})")},
                         {"d5", Parsed("{}")}};
  EXPECT_THAT(Codes(guest, MakeHost()), IsEmpty()) << "nobody looks";
  HostResources host = MakeHost();
  std::vector<std::string> asked;
  host.has_file = [&](const std::string& path) {
    asked.push_back(path);
    return path == "/a";
  };
  const Rating rating = Rate(guest, host);
  EXPECT_THAT(Codes(rating), ElementsAre(kUnavailable, kUnavailable, kUnavailable, kUnavailable));
  EXPECT_EQ(rating.refusals[0].reason, "The file '/b c' of the disk 'd2' cannot be opened on the host.");
  EXPECT_THAT(asked, ElementsAre("/a", "/b\nc"));
}

TEST(Rating, Rate_HypervisorDisconnected_ReportsRecordErrors) {
  HostResources host = MakeHost();
  host.is_connected = false;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(kUnavailable));
  EXPECT_EQ(Reason(MakeGuest(), host), "The host has no connection to its hypervisor.");
  host.cpus = 0;
  host.free_memory_mib = 0;
  host.has_network = [](const std::string&) {
    ADD_FAILURE() << "libvirt would have to be asked";
    return false;
  };
  Guest guest = MakeGuest(R"({"vram_size":1,"cpu_pin_num":1})");
  guest.records.nics.emplace_back("n", Parsed(R"({"network_name":"lan"})"));
  const Rating rating = Rate(guest, host);
  EXPECT_THAT(Codes(rating), ElementsAre(kUnavailable)) << "figures that nobody knows refuse nothing";
  EXPECT_TRUE(rating.has_best_io);
  guest.records.guest = Parsed(R"({"vcpu_num":0,"cpu_pin_num":-1})");
  EXPECT_THAT(Codes(guest, host), ElementsAre(kNoCpuThreads, kNoVcpu, kNoMemory, kUnavailable));
}

TEST(Rating, NetworksThatAreMissing_AreNamedOnceEach) {
  Guest guest = MakeGuest();
  for (const char* name : {R"("lan")", R"("")", R"("dmz")", "null", R"("dmz")", R"("bad\nname")"}) {
    guest.records.nics.emplace_back("n", Parsed(std::string(R"({"network_name":)") + name + "}"));
  }
  guest.records.nics.emplace_back("n0", Parsed("{}"));
  EXPECT_THAT(Codes(guest, MakeHost()), IsEmpty());
  HostResources host = MakeHost();
  host.has_network = [](const std::string& name) { return name == "lan"; };
  const Rating rating = Rate(guest, host);
  EXPECT_THAT(Codes(rating), ElementsAre(kNoNetwork, kNoNetwork));
  EXPECT_EQ(rating.refusals[0].reason, "The host has no network or bridge 'dmz'.");
  EXPECT_EQ(rating.refusals[1].reason, "The host has no network or bridge 'bad name'.");
}

TEST(Rating, Rate_NetworkNotText_IsMissing) {
  for (const char* name : {"7", "true", "[]", "{}"}) {
    Guest guest = MakeGuest();
    guest.records.nics.emplace_back("n", Parsed(std::string(R"({"network_name":)") + name + "}"));
    HostResources host = MakeHost();
    host.has_network = [](const std::string&) { return true; };
    EXPECT_THAT(Codes(guest, host), ElementsAre(kNoNetwork)) << name;
  }
}

TEST(Rating, ThousandsOfDisksAndInterfaces_AreNotAllAskedAbout) {
  Guest guest = MakeGuest();
  for (int i = 0; i < 5000; ++i) {
    guest.records.disks.emplace_back("d", Parsed(R"({"path":"/a"})"));
    guest.records.nics.emplace_back("n", Parsed(R"({"network_name":"n)" + std::to_string(i) + "\"}"));
  }
  int files = 0;
  int networks = 0;
  HostResources host = MakeHost();
  host.has_file = [&](const std::string&) { return ++files < 0; };
  host.has_network = [&](const std::string&) { return ++networks < 0; };
  EXPECT_EQ(Rate(guest, host).refusals.size(), 128u);
  EXPECT_EQ(files, 64);
  EXPECT_EQ(networks, 64);
}

Guest PinnedGuest(int pins, int vcpus = 512) {
  return MakeGuest(R"({"vram_size":1,"vcpu_num":)" + std::to_string(vcpus) + R"(,"cpu_pin_num":)" +
                   std::to_string(pins) + "}");
}

TEST(Rating, ProcessorsSetApart_AreTheHighestFreeOnesInOrder) {
  EXPECT_THAT(Rate(PinnedGuest(0), LargeHost()).pinned_cpus, IsEmpty());
  EXPECT_THAT(Rate(PinnedGuest(3), LargeHost()).pinned_cpus, ElementsAre(5u, 6u, 7u));
  HostResources host = LargeHost();
  host.pinned_cpus = {6, 0, 3};
  EXPECT_THAT(Rate(PinnedGuest(3), host).pinned_cpus, ElementsAre(4u, 5u, 7u));
  EXPECT_THAT(Rate(PinnedGuest(4), host).pinned_cpus, ElementsAre(2u, 4u, 5u, 7u)) << "1 is left";
  EXPECT_THAT(Codes(PinnedGuest(5), host), ElementsAre(kNoCpuThreads));
  EXPECT_EQ(Reason(PinnedGuest(5), host),
            "The guest needs 5 processors dedicated to it, and one more must remain free. 3 of the host's 8 are "
            "dedicated to other guests.");
  host.pinned_cpus = {0, 1, 2, 3, 4, 5, 6};
  EXPECT_EQ(Reason(PinnedGuest(1), host),
            "The guest needs 1 processor dedicated to it, and one more must remain free. 7 of the host's 8 are "
            "dedicated to other guests.");
  EXPECT_THAT(Codes(PinnedGuest(0), host), IsEmpty());
}

TEST(Rating, Rate_InvalidPinsOfOthers_AreIgnored) {
  HostResources host = LargeHost(4);
  host.pinned_cpus = {3, 3, 3, 3, 3, 4, 5, 100, std::numeric_limits<unsigned>::max()};
  EXPECT_THAT(Rate(PinnedGuest(2), host).pinned_cpus, ElementsAre(1u, 2u));
  EXPECT_THAT(Codes(PinnedGuest(3), host), ElementsAre(kNoCpuThreads));
  host.pinned_cpus = {0, 1, 2, 3};
  EXPECT_THAT(Codes(PinnedGuest(1), host), ElementsAre(kNoCpuThreads)) << "more than should be are taken";
}

TEST(Rating, HostsOfFewAndOfManyProcessors) {
  EXPECT_THAT(Codes(PinnedGuest(1), LargeHost(1)), ElementsAre(kNoCpuThreads));
  EXPECT_EQ(Reason(PinnedGuest(1), LargeHost(1)),
            "The guest needs 1 processor dedicated to it, and one more must remain free. The host has 1.");
  EXPECT_THAT(Rate(PinnedGuest(1), LargeHost(2)).pinned_cpus, ElementsAre(1u));
  EXPECT_THAT(Codes(PinnedGuest(1), LargeHost(0)), ElementsAre(kNoCpuThreads, kNoVcpu));
  const unsigned most = std::numeric_limits<unsigned>::max();
  EXPECT_THAT(Rate(PinnedGuest(2), LargeHost(most)).pinned_cpus, ElementsAre(most - 2, most - 1));
}

TEST(Rating, MoreProcessorsThanVirtualCpus_AreRefused) {
  EXPECT_THAT(Rate(PinnedGuest(2, 2), LargeHost()).pinned_cpus, ElementsAre(6u, 7u));
  EXPECT_EQ(Reason(PinnedGuest(3, 2), LargeHost()),
            "The record's 'cpu_pin_num' is not a number from 0 to 2, the guest's virtual CPUs.");
  for (const char* pins :
       {"-1", "513", "1e300", "18446744073709551615", "99999999999999999999", "\"1\"", "true", "[]", "{}", "0.5"}) {
    const Guest guest = MakeGuest(std::string(R"({"vram_size":1,"vcpu_num":512,"cpu_pin_num":)") + pins + "}");
    EXPECT_THAT(Codes(guest, LargeHost(1000)), ElementsAre(kNoCpuThreads)) << pins;
  }
  EXPECT_THAT(Codes(MakeGuest(R"({"vram_size":1,"cpu_pin_num":null})"), LargeHost()), IsEmpty());
  EXPECT_EQ(Rate(PinnedGuest(512), LargeHost(513)).pinned_cpus.size(), 512u);
  EXPECT_THAT(Codes(PinnedGuest(512), LargeHost(512)), ElementsAre(kNoCpuThreads));
}

TEST(Rating, RefusedGuest_GetsNoProcessors) {
  HostResources host = LargeHost();
  host.free_memory_mib = 0;
  const Rating rating = Rate(PinnedGuest(1), host);
  EXPECT_THAT(Codes(rating), ElementsAre(kNoMemory));
  EXPECT_THAT(rating.pinned_cpus, IsEmpty());
}

TEST(Rating, Rate_SeveralObstacles_MostLastingFirst) {
  Guest guest = MakeGuest(R"({"vcpu_num":4,"vram_size":8,"use_ovmf":true,"cpu_pin_num":2})");
  guest.repository_host_id = "north";
  guest.repository_state = repo::crashed;
  guest.records.disks.emplace_back("d", Parsed(R"({"path":"/a","vdisk_mode":2})"));
  guest.records.nics.emplace_back("n", Parsed(R"({"network_name":"lan"})"));
  HostResources host = MakeHost();
  host.cpus = 3;
  host.vcpus_per_cpu = 1;
  host.free_memory_mib = 7;
  host.pinned_cpus = {2};
  host.has_network = [](const std::string&) { return false; };
  host.has_file = [](const std::string&) { return false; };
  EXPECT_THAT(Codes(guest, host), ElementsAre(kRemoteEfi, kRemoteNotVirtio, kNoVcpu, kNoNetwork, kNoMemory,
                                              kUnavailable, kUnavailable, kNoCpuThreads))
      << "an empty host would have processors enough";
  host.cpus = 2;
  EXPECT_THAT(Codes(guest, host), ElementsAre(kRemoteEfi, kRemoteNotVirtio, kNoCpuThreads, kNoVcpu, kNoNetwork,
                                              kNoMemory, kUnavailable, kUnavailable));
}

TEST(RefusalWords, EveryCode_HasItsOwn) {
  const std::pair<int, const char*> rows[] = {{403, "unreadable"},
                                              {910, "running"},
                                              {911, "not_running"},
                                              {912, "elsewhere"},
                                              {915, "busy"},
                                              {917, "no_network"},
                                              {927, "no_vcpu"},
                                              {928, "no_memory"},
                                              {935, "remote_not_virtio"},
                                              {942, "no_cpu_threads"},
                                              {945, "remote_efi"},
                                              {949, "unavailable"},
                                              {955, "incompatible_cpu"},
                                              {901, "failed"},
                                              {0, "failed"},
                                              {-1, "failed"}};
  for (const auto& [code, word] : rows) EXPECT_EQ(RefusalWord(code), word) << code;
}

TEST(RatingData, HasEveryWordOnceAndEveryReason) {
  Rating rating;
  EXPECT_EQ(json::ToText(RatingData(rating)), R"({"available":true,"reasons":[],"status":[]})");
  rating.has_best_io = true;
  EXPECT_EQ(json::ToText(RatingData(rating)), R"({"available":true,"reasons":[],"status":["best_io"]})");
  rating.refusals = {{kNoNetwork, "a"}, {kNoNetwork, "b"}, {kNoMemory, "c"}, {7, "d"}};
  EXPECT_EQ(
      json::ToText(RatingData(rating)),
      R"({"available":false,"reasons":["a","b","c","d"],"status":["no_network","no_memory","failed","best_io"]})");
}

}  // namespace
}  // namespace vexa::guests
