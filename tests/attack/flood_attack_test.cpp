// The attacker reaches the listeners from many addresses and has no login. With all the connections that they can open,
// root on the Unix socket, hosts and users who are logged in must go on being served, on the connections that they have
// and on new ones, and afterwards the daemon must have given back all memory and descriptors.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/attack/attack.h"
#include "tests/attack/attacked_host.h"
#include "tests/attack/flood.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kPlaces = 240;       // of the daemon
constexpr int kConnections = 400;  // of the attacker, at a time
constexpr milliseconds kShortForm{1'200};
constexpr seconds kAnswerTime{30};  // generous: they take milliseconds
// Less than strangers have for their bodies: nobody has to wait until these have had their time.
constexpr seconds kNewcomerTime{15};
constexpr std::size_t kMib = std::size_t{1} << 20;
// What unread replies and unfinished requests of strangers may take, 64 MiB, and buffers of the connections.
constexpr std::size_t kMaxGrowth = 100 * kMib;
constexpr std::size_t kMaxGrowthAfterwards = 30 * kMib;
constexpr std::size_t kOtherDescriptors = 20;  // of the store, the log and the victims

// The people who must not notice.
class Victims {
 public:
  explicit Victims(const AttackedHost& host)
      : host_(host), user_(host.ClientOf("grace", kAnswerTime)), other_host_(host.Host(kMember, kAnswerTime)) {}

  void ExpectServedOnOpenConnections() {
    EXPECT_TRUE(AttackedHost::Gets(user_)) << "a user who is logged in";
    EXPECT_TRUE(AsksHost(other_host_)) << "a host";
  }
  // How often somebody had to try again for a new connection is counted.
  void ExpectServedOnNewConnections() {
    HttpClient root = host_.Root(kAnswerTime);
    EXPECT_TRUE(AttackedHost::Gets(root)) << "root";
    EXPECT_TRUE(ServedInTime([&] {
      HttpClient client = host_.Host(kMember, kAnswerTime);
      return AsksHost(client);
    })) << "a host that connects";
    EXPECT_TRUE(ServedInTime([&] {
      HttpClient client = host_.ClientOf("grace", kAnswerTime);
      return AttackedHost::Gets(client);
    })) << "a user who connects";
    ++rounds_;
  }
  int rounds() const { return rounds_; }
  int retries() const { return retries_; }

 private:
  static bool AsksHost(HttpClient& client) {
    return client.PostJson("/webapi/VEXA.Core.System/info", "{}").status == 200;
  }
  bool ServedInTime(const std::function<bool()>& ask) {
    const auto end = std::chrono::steady_clock::now() + kNewcomerTime;
    bool served = ask();
    while (!served && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(milliseconds(20));
      served = ask();
      ++retries_;
    }
    return served;
  }

  const AttackedHost& host_;
  HttpClient user_;
  HttpClient other_host_;
  int rounds_ = 0;
  int retries_ = 0;
};

class FloodAttack : public testing::TestWithParam<FloodKind> {
 protected:
  static void SetUpTestSuite() {
    AttackedHostOptions options;
    options.doors = Doors::kUsersAndHosts;
    options.flags = {"--max-connections", std::to_string(kPlaces)};
    host_ = new AttackedHost(std::move(options));
  }
  static void TearDownTestSuite() {
    delete host_;
    host_ = nullptr;
  }

  static void Attack(const FloodKind& kind, std::uint16_t port);

  static AttackedHost* host_;
};

AttackedHost* FloodAttack::host_ = nullptr;

void FloodAttack::Attack(const FloodKind& kind, std::uint16_t port) {
  Victims victims(*host_);
  victims.ExpectServedOnOpenConnections();
  const std::size_t memory = host_->ResidentBytes();
  const std::size_t descriptors = host_->Descriptors();
  std::size_t most = memory;
  int opened = 0;
  {
    const Flood flood(port, kind, kConnections, 1);
    // Everybody has come once, and some have lost their place or were refused.
    ASSERT_TRUE(HoldsInTime([&] { return flood.opened() >= kConnections; }));
    for (const AttackTime time(kShortForm); !time.IsOver() || victims.rounds() == 0;) {
      victims.ExpectServedOnOpenConnections();
      victims.ExpectServedOnNewConnections();
      most = std::max(most, host_->ResidentBytes());
      if (HasFailure()) break;
    }
    opened = flood.opened();
  }
  EXPECT_LT(most, memory + kMaxGrowth);
  EXPECT_TRUE(HoldsInTime([&] { return host_->Descriptors() <= descriptors + kOtherDescriptors; }))
      << host_->Descriptors() << " descriptors, " << descriptors << " before";
  EXPECT_TRUE(HoldsInTime([&] { return host_->ResidentBytes() < memory + kMaxGrowthAfterwards; }))
      << host_->ResidentBytes() << " bytes, " << memory << " before";
  Report(
      fmt::format("{} connections of {} addresses; root, a host and a user were served {} times ({} retries); memory "
                  "grew by {} MiB, and by {} MiB for good",
                  opened, kConnections / Flood::kPerAddress, victims.rounds(), victims.retries(),
                  (most - memory) / kMib, (std::max(host_->ResidentBytes(), memory) - memory) / kMib));
}

TEST_P(FloodAttack, Strangers_WithAllPlaces_KeepNobodyOutAndLeaveNothing) { Attack(GetParam(), host_->user_port()); }

INSTANTIATE_TEST_SUITE_P(Kinds, FloodAttack, testing::ValuesIn(UserFloods()),
                         [](const auto& row) { return std::string(row.param.name); });

class HandshakeAttack : public FloodAttack {};

TEST_P(HandshakeAttack, Strangers_WhoNeverFinishThem_KeepNobodyOutAndLeaveNothing) {
  Attack(GetParam(), host_->host_port());
}

INSTANTIATE_TEST_SUITE_P(Kinds, HandshakeAttack, testing::Values(HalfHandshakes()),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace vexa::test
