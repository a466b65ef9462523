// Whether a host can run a guest now.
#include "host/guests/resources.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>

#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace repo = VexaCCC::State::Repo;

records::Guest MakeGuest(const std::string& record = R"({"vcpu_num":2,"vram_size":1024})") {
  records::Guest guest;
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

std::vector<int> Codes(const records::Guest& guest, const HostResources& host) { return Codes(Rate(guest, host)); }

// The sentence of the only refusal.
std::string Reason(const records::Guest& guest, const HostResources& host) {
  const Rating rating = Rate(guest, host);
  return rating.refusals.size() == 1 ? rating.refusals[0].reason : std::to_string(rating.refusals.size()) + " refusals";
}

TEST(Rating, Rate_GuestJustFits_IsAvailableWithBestIo) {
  const Rating rating = Rate(MakeGuest(), MakeHost());
  EXPECT_THAT(Codes(rating), IsEmpty());
  EXPECT_TRUE(rating.has_best_io);
  EXPECT_THAT(rating.pinned_cpus, IsEmpty());
}

TEST(Rating, Rate_OneVirtualCpuTooMany_IsRefusedWithNumbers) {
  HostResources host = MakeHost();
  host.vcpus_taken = 1;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(host_error::kTooManyVcpus));
  EXPECT_EQ(Reason(MakeGuest(), host), "The guest needs 2 virtual CPUs, and 1 of the host's 2 are taken.");
  host.cpus = 2;
  EXPECT_THAT(Codes(MakeGuest(), host), IsEmpty());
  host.vcpus_taken = 2;
  EXPECT_THAT(Codes(MakeGuest(), host), IsEmpty());
  host.vcpus_taken = 3;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(host_error::kTooManyVcpus));
}

TEST(Rating, Rate_HugeNumbersOfVirtualCpus_DoNotWrap) {
  HostResources host = MakeHost();
  for (const std::uint64_t taken : {std::numeric_limits<std::uint64_t>::max(),
                                    std::numeric_limits<std::uint64_t>::max() - 1, std::uint64_t{1} << 63}) {
    host.vcpus_taken = taken;
    EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(host_error::kTooManyVcpus)) << taken;
  }
  host.cpus = std::numeric_limits<unsigned>::max();
  host.vcpus_per_cpu = std::numeric_limits<unsigned>::max();
  host.vcpus_taken = 0;
  EXPECT_THAT(Codes(MakeGuest(), host), IsEmpty());
  host.vcpus_per_cpu = 0;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(host_error::kTooManyVcpus));
}

TEST(Rating, Rate_InvalidVirtualCpus_AreRefused) {
  for (const char* number : {"0", "513", "-1", "1e300", "-1e300", "1.5", "18446744073709551615", "99999999999999999999",
                             "\"2\"", "true", "[]", "{}", "[2]"}) {
    const records::Guest guest = MakeGuest(std::string(R"({"vram_size":1,"vcpu_num":)") + number + "}");
    EXPECT_THAT(Codes(guest, LargeHost()), ElementsAre(host_error::kTooManyVcpus)) << number;
    EXPECT_EQ(Reason(guest, LargeHost()), "The record's 'vcpu_num' is not a number from 1 to 512.") << number;
  }
  for (const char* number : {"1", "512", "2.0", "null"}) {
    EXPECT_THAT(Codes(MakeGuest(std::string(R"({"vram_size":1,"vcpu_num":)") + number + "}"), LargeHost()), IsEmpty())
        << number;
  }
  EXPECT_THAT(Codes(MakeGuest(R"({"vram_size":1})"), LargeHost()), IsEmpty()) << "without the member it is one";
}

TEST(Rating, Rate_OneMibTooMuch_IsRefusedWithNumbers) {
  HostResources host = MakeHost();
  host.free_memory_mib = 1023;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(host_error::kNoMemory));
  EXPECT_EQ(Reason(MakeGuest(), host), "The guest needs 1024 MiB of memory, and 1023 MiB are free.");
  host.free_memory_mib = 0;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(host_error::kNoMemory));
}

TEST(Rating, Rate_InvalidMemory_IsRefused) {
  for (const char* number : {"0", "-1", "2097152", "1e300", "18446744073709551615", "99999999999999999999", "\"1024\"",
                             "true", "[]", "{}", "null", "0.5"}) {
    const records::Guest guest = MakeGuest(std::string(R"({"vram_size":)") + number + "}");
    EXPECT_THAT(Codes(guest, LargeHost()), ElementsAre(host_error::kNoMemory)) << number;
    EXPECT_EQ(Reason(guest, LargeHost()), "The record's 'vram_size' is not a number from 1 to 2097151 (MiB).")
        << number;
  }
  EXPECT_THAT(Codes(MakeGuest("{}"), LargeHost()), ElementsAre(host_error::kNoMemory));
  EXPECT_THAT(Codes(MakeGuest(R"({"vram_size":2097151})"), LargeHost()), IsEmpty());
}

TEST(Rating, Rate_RecordsOfAnyType_NeverThrows) {
  for (const char* record : {"null", "[]", "7", "\"x\"", "{}"}) {
    records::Guest guest = MakeGuest(record);
    guest.records.disks.emplace_back("d", Parsed(record));
    guest.records.nics.emplace_back("n", Parsed(record));
    HostResources host = LargeHost();
    host.has_network = [](const std::string&) { return false; };
    host.has_file = [](const std::string&) { return true; };
    EXPECT_THAT(Codes(guest, host), ElementsAre(host_error::kNoMemory, host_error::kUnavailable))
        << record << ": no memory and no path";
  }
}

TEST(Rating, Rate_RepositoryOnOtherHost_NeedsBiosAndVirtio) {
  records::Guest guest = MakeGuest(R"({"vram_size":1,"use_ovmf":true})");
  guest.records.disks = {{"d1", Parsed(R"({"vdisk_mode":1})")},
                         {"d2", Parsed(R"({"vdisk_mode":3})")},
                         {"d3", Parsed(R"({"vdisk_mode":2})")}};
  EXPECT_THAT(Codes(guest, LargeHost()), IsEmpty()) << "it is here";
  guest.repository_host_id = "north";
  const Rating rating = Rate(guest, LargeHost());
  EXPECT_THAT(Codes(rating), ElementsAre(host_error::kRemoteEfi, host_error::kRemoteNotVirtio));
  EXPECT_FALSE(rating.has_best_io);
  EXPECT_EQ(rating.refusals[0].reason,
            "The firmware is EFI, which needs the repository on the host itself, and the guest's repository is on the "
            "host 'north'.");
  EXPECT_EQ(rating.refusals[1].reason,
            "The disk 'd2' is not VirtIO, which needs the repository on the host itself, and the guest's repository is "
            "on the host 'north'.");
}

TEST(Rating, Rate_FirmwareAndDisksOfAnyType_AreReadAsDomainBuilderReadsThem) {
  const auto with = [](const std::string& ovmf, const std::string& disk) {
    records::Guest guest = MakeGuest(R"({"vram_size":1,"use_ovmf":)" + ovmf + "}");
    guest.records.disks.emplace_back("d", Parsed(disk));
    guest.repository_host_id = "north";
    return Codes(guest, LargeHost());
  };
  for (const char* ovmf : {"false", "null", "0", "\"true\"", "[]", "{}"}) {
    EXPECT_THAT(with(ovmf, "{}"), IsEmpty()) << ovmf;
  }
  EXPECT_THAT(with("1", "{}"), ElementsAre(host_error::kRemoteEfi));
  for (const char* mode : {"0", "2", "3", "4", "5", "-1", "1e300", "99999999999999999999", "\"1\"", "true", "[]"}) {
    EXPECT_THAT(with("false", std::string(R"({"vdisk_mode":)") + mode + "}"), ElementsAre(host_error::kRemoteNotVirtio))
        << mode;
  }
  EXPECT_THAT(with("false", R"({"vdisk_mode":1})"), IsEmpty());
}

TEST(Rating, Rate_RepositoryWithoutHost_IsAvailableWithoutBestIo) {
  records::Guest guest = MakeGuest(R"({"vram_size":1,"use_ovmf":true})");
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

TEST(Rating, Rate_RepositoryStateKnown_Decides) {
  const auto in = [](const std::string& state) {
    records::Guest guest = MakeGuest();
    guest.repository_state = state;
    return guest;
  };
  for (const char* state : {repo::online, repo::degraded, repo::provision_warning, ""}) {
    EXPECT_THAT(Codes(in(state), MakeHost()), IsEmpty()) << state;
  }
  for (const char* state : {repo::inaccessible, repo::unavailable, repo::crashed, "online", "x"}) {
    EXPECT_THAT(Codes(in(state), MakeHost()), ElementsAre(host_error::kUnavailable)) << state;
    EXPECT_EQ(Reason(in(state), MakeHost()), "The repository 'r' is in the state '" + std::string(state) + "'.");
  }
  EXPECT_THAT(Codes(in(repo::full), MakeHost()), ElementsAre(host_error::kUnavailable));
  EXPECT_EQ(Reason(in(repo::full), MakeHost()),
            "The repository 'r' is full: remove files or disks that are no longer needed, make its file system larger, "
            "or raise its limits.");
  records::Guest none = in(repo::crashed);
  none.repository_id = "";
  EXPECT_THAT(Codes(none, MakeHost()), IsEmpty());
}

TEST(Rating, Rate_DiskFilesMissing_AreEachReported) {
  records::Guest guest = MakeGuest();
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
  EXPECT_THAT(Codes(rating), ElementsAre(host_error::kUnavailable, host_error::kUnavailable, host_error::kUnavailable,
                                         host_error::kUnavailable));
  EXPECT_EQ(rating.refusals[0].reason, "The file '/b c' of the disk 'd2' cannot be opened on the host.");
  EXPECT_THAT(asked, ElementsAre("/a", "/b\nc"));
}

TEST(Rating, Rate_HypervisorDisconnected_ReportsRecordErrors) {
  HostResources host = MakeHost();
  host.is_connected = false;
  EXPECT_THAT(Codes(MakeGuest(), host), ElementsAre(host_error::kUnavailable));
  EXPECT_EQ(Reason(MakeGuest(), host), "The host has no connection to its hypervisor.");
  host.cpus = 0;
  host.free_memory_mib = 0;
  host.has_network = [](const std::string&) {
    ADD_FAILURE() << "libvirt would have to be asked";
    return false;
  };
  records::Guest guest = MakeGuest(R"({"vram_size":1,"cpu_pin_num":1})");
  guest.records.nics.emplace_back("n", Parsed(R"({"network_name":"lan"})"));
  const Rating rating = Rate(guest, host);
  EXPECT_THAT(Codes(rating), ElementsAre(host_error::kUnavailable)) << "unknown figures refuse nothing";
  EXPECT_TRUE(rating.has_best_io);
  guest.records.guest = Parsed(R"({"vcpu_num":0,"cpu_pin_num":-1})");
  EXPECT_THAT(Codes(guest, host), ElementsAre(host_error::kNoCpuThreads, host_error::kTooManyVcpus,
                                              host_error::kNoMemory, host_error::kUnavailable));
}

TEST(Rating, Rate_NetworksMissing_AreEachNamedOnce) {
  records::Guest guest = MakeGuest();
  for (const char* name : {R"("lan")", R"("")", R"("dmz")", "null", R"("dmz")", R"("bad\nname")"}) {
    guest.records.nics.emplace_back("n", Parsed(std::string(R"({"network_name":)") + name + "}"));
  }
  guest.records.nics.emplace_back("n0", Parsed("{}"));
  EXPECT_THAT(Codes(guest, MakeHost()), IsEmpty());
  HostResources host = MakeHost();
  host.has_network = [](const std::string& name) { return name == "lan"; };
  const Rating rating = Rate(guest, host);
  EXPECT_THAT(Codes(rating), ElementsAre(host_error::kNoNetwork, host_error::kNoNetwork));
  EXPECT_EQ(rating.refusals[0].reason, "The host has no network or bridge 'dmz'.");
  EXPECT_EQ(rating.refusals[1].reason, "The host has no network or bridge 'bad name'.");
}

TEST(Rating, Rate_NetworkNotString_IsMissing) {
  for (const char* name : {"7", "true", "[]", "{}"}) {
    records::Guest guest = MakeGuest();
    guest.records.nics.emplace_back("n", Parsed(std::string(R"({"network_name":)") + name + "}"));
    HostResources host = MakeHost();
    host.has_network = [](const std::string&) { return true; };
    EXPECT_THAT(Codes(guest, host), ElementsAre(host_error::kNoNetwork)) << name;
  }
}

TEST(Rating, Rate_ThousandsOfDisksAndNics_AreCheckedUpToLimit) {
  records::Guest guest = MakeGuest();
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

records::Guest PinnedGuest(int pins, int vcpus = 512) {
  return MakeGuest(R"({"vram_size":1,"vcpu_num":)" + std::to_string(vcpus) + R"(,"cpu_pin_num":)" +
                   std::to_string(pins) + "}");
}

TEST(Rating, Rate_PinnedGuest_GetsHighestFreeProcessorsAscending) {
  EXPECT_THAT(Rate(PinnedGuest(0), LargeHost()).pinned_cpus, IsEmpty());
  EXPECT_THAT(Rate(PinnedGuest(3), LargeHost()).pinned_cpus, ElementsAre(5u, 6u, 7u));
  HostResources host = LargeHost();
  host.pinned_cpus = {6, 0, 3};
  EXPECT_THAT(Rate(PinnedGuest(3), host).pinned_cpus, ElementsAre(4u, 5u, 7u));
  EXPECT_THAT(Rate(PinnedGuest(4), host).pinned_cpus, ElementsAre(2u, 4u, 5u, 7u)) << "1 is left";
  EXPECT_THAT(Codes(PinnedGuest(5), host), ElementsAre(host_error::kNoCpuThreads));
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
  EXPECT_THAT(Codes(PinnedGuest(3), host), ElementsAre(host_error::kNoCpuThreads));
  host.pinned_cpus = {0, 1, 2, 3};
  EXPECT_THAT(Codes(PinnedGuest(1), host), ElementsAre(host_error::kNoCpuThreads)) << "more than should be are taken";
}

TEST(Rating, Rate_PinnedGuest_LeavesOneProcessorFree) {
  EXPECT_THAT(Codes(PinnedGuest(1), LargeHost(1)), ElementsAre(host_error::kNoCpuThreads));
  EXPECT_EQ(Reason(PinnedGuest(1), LargeHost(1)),
            "The guest needs 1 processor dedicated to it, and one more must remain free. The host has 1.");
  EXPECT_THAT(Rate(PinnedGuest(1), LargeHost(2)).pinned_cpus, ElementsAre(1u));
  EXPECT_THAT(Codes(PinnedGuest(1), LargeHost(0)), ElementsAre(host_error::kNoCpuThreads, host_error::kTooManyVcpus));
  const unsigned most = std::numeric_limits<unsigned>::max();
  EXPECT_THAT(Rate(PinnedGuest(2), LargeHost(most)).pinned_cpus, ElementsAre(most - 2, most - 1));
}

TEST(Rating, Rate_MorePinsThanVirtualCpus_IsRefused) {
  EXPECT_THAT(Rate(PinnedGuest(2, 2), LargeHost()).pinned_cpus, ElementsAre(6u, 7u));
  EXPECT_EQ(Reason(PinnedGuest(3, 2), LargeHost()),
            "The record's 'cpu_pin_num' is not a number from 0 to 2, the guest's virtual CPUs.");
  for (const char* pins :
       {"-1", "513", "1e300", "18446744073709551615", "99999999999999999999", "\"1\"", "true", "[]", "{}", "0.5"}) {
    const records::Guest guest = MakeGuest(std::string(R"({"vram_size":1,"vcpu_num":512,"cpu_pin_num":)") + pins + "}");
    EXPECT_THAT(Codes(guest, LargeHost(1000)), ElementsAre(host_error::kNoCpuThreads)) << pins;
  }
  EXPECT_THAT(Codes(MakeGuest(R"({"vram_size":1,"cpu_pin_num":null})"), LargeHost()), IsEmpty());
  EXPECT_EQ(Rate(PinnedGuest(512), LargeHost(513)).pinned_cpus.size(), 512u);
  EXPECT_THAT(Codes(PinnedGuest(512), LargeHost(512)), ElementsAre(host_error::kNoCpuThreads));
}

TEST(Rating, Rate_GuestRefused_GetsNoProcessors) {
  HostResources host = LargeHost();
  host.free_memory_mib = 0;
  const Rating rating = Rate(PinnedGuest(1), host);
  EXPECT_THAT(Codes(rating), ElementsAre(host_error::kNoMemory));
  EXPECT_THAT(rating.pinned_cpus, IsEmpty());
}

TEST(Rating, Rate_SeveralObstacles_MostLastingFirst) {
  records::Guest guest = MakeGuest(R"({"vcpu_num":4,"vram_size":8,"use_ovmf":true,"cpu_pin_num":2})");
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
  EXPECT_THAT(Codes(guest, host),
              ElementsAre(host_error::kRemoteEfi, host_error::kRemoteNotVirtio, host_error::kTooManyVcpus,
                          host_error::kNoNetwork, host_error::kNoMemory, host_error::kUnavailable,
                          host_error::kUnavailable, host_error::kNoCpuThreads))
      << "an empty host would have processors enough";
  host.cpus = 2;
  EXPECT_THAT(Codes(guest, host),
              ElementsAre(host_error::kRemoteEfi, host_error::kRemoteNotVirtio, host_error::kNoCpuThreads,
                          host_error::kTooManyVcpus, host_error::kNoNetwork, host_error::kNoMemory,
                          host_error::kUnavailable, host_error::kUnavailable));
}

TEST(RefusalKeywords, EachCode_Refusal_HasItsOwnWord) {
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
  for (const auto& [code, keyword] : rows) EXPECT_EQ(RefusalKeyword(code), keyword) << code;
}

TEST(RatingData, Data_Rating_HasEachWordOnceAndEveryReason) {
  Rating rating;
  EXPECT_EQ(json::ToText(RatingData(rating)), R"({"available":true,"reasons":[],"status":[]})");
  rating.has_best_io = true;
  EXPECT_EQ(json::ToText(RatingData(rating)), R"({"available":true,"reasons":[],"status":["best_io"]})");
  rating.refusals = {
      {host_error::kNoNetwork, "a"}, {host_error::kNoNetwork, "b"}, {host_error::kNoMemory, "c"}, {7, "d"}};
  EXPECT_EQ(
      json::ToText(RatingData(rating)),
      R"({"available":false,"reasons":["a","b","c","d"],"status":["no_network","no_memory","failed","best_io"]})");
}

}  // namespace
}  // namespace vexa::guests
