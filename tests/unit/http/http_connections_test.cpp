#include "host/http/http_connections.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vexa::http {
namespace {

Peer Tcp(const std::string& address) {
  Peer peer;
  peer.address = address;
  return peer;
}

Peer Unix(uid_t uid) {
  Peer peer;
  peer.kind = Peer::Kind::kUnix;
  peer.uid = uid;
  return peer;
}

Owner User(const std::string& name) { return {Owner::Kind::kUser, name, {}}; }
Owner Host(const std::string& name) { return {Owner::Kind::kHost, name, {}}; }

// A connection of the table, and why it had to go.
struct Connected {
  std::unique_ptr<ConnectionPlace> place;
  std::shared_ptr<std::optional<EvictionReason>> gone = std::make_shared<std::optional<EvictionReason>>();

  bool entered() const { return place != nullptr; }
  bool is_evicted() const { return gone->has_value(); }
  void SetBusy() const { place->SetActivity(ConnectionActivity::kAnswers); }
  void SetTransfers() const { place->SetActivity(ConnectionActivity::kTransfers); }
};

class Connections : public testing::Test {
 protected:
  static constexpr std::size_t kLimit = 32;  // guarantees 8 to users, 2 to each of the others

  Connections() {
    limits_.connections = kLimit;
    limits_.connections_per_peer = kLimit;
    limits_.connections_per_owner = kLimit;
    limits_.held_bytes_per_owner = 100;
    limits_.held_bytes_of_strangers = 250;
  }

  Connected Enter(const Peer& peer) {
    if (!table_) table_ = std::make_shared<ConnectionTable>(limits_);
    Connected made;
    made.place = table_->Enter(peer);
    if (made.place) made.place->SetOnEvict([gone = made.gone](EvictionReason reason) { *gone = reason; });
    return made;
  }
  std::vector<Connected> EnterMany(std::size_t count, const Peer& peer) {
    std::vector<Connected> made;
    for (std::size_t i = 0; i < count; ++i) made.push_back(Enter(peer));
    return made;
  }

  ServerLimits limits_;
  std::shared_ptr<ConnectionTable> table_;
};

TEST_F(Connections, Stranger_WhenFull_TakesPlaceOfOldestIdleStranger) {
  const auto strangers = EnterMany(kLimit, Tcp("192.0.2.1"));
  strangers[0].SetBusy();
  EXPECT_TRUE(Enter(Tcp("192.0.2.2")).entered());
  EXPECT_FALSE(strangers[0].is_evicted());
  EXPECT_EQ(*strangers[1].gone, EvictionReason::kRoom);
  EXPECT_FALSE(strangers[2].is_evicted());
  EXPECT_EQ(table_->evicted(), 1U);
}

TEST_F(Connections, StrangerThatTransfers_CountsAsIdle) {
  const auto strangers = EnterMany(kLimit, Tcp("192.0.2.1"));
  for (const Connected& stranger : strangers) stranger.SetTransfers();
  EXPECT_TRUE(Enter(Tcp("192.0.2.2")).entered());
  EXPECT_TRUE(strangers[0].is_evicted());
}

TEST_F(Connections, Newcomer_AmongStrangersThatTransfer_KeepsItsPlace) {
  const auto strangers = EnterMany(kLimit, Tcp("192.0.2.1"));
  for (const Connected& stranger : strangers) stranger.SetTransfers();
  const Connected newcomer = Enter(Tcp("192.0.2.2"));
  for (const Connected& stranger : EnterMany(kLimit, Tcp("192.0.2.1"))) stranger.SetTransfers();
  EXPECT_FALSE(newcomer.is_evicted()) << "although it has sent nothing yet";
}

TEST_F(Connections, NewcomerFromOneOfManyNetworks_StaysUntilAsManyHaveComeAsThereArePlaces) {
  std::vector<Connected> strangers;
  auto enter_another = [&, i = 0]() mutable {
    strangers.push_back(Enter(Tcp("198.51.100." + std::to_string(++i))));
    return strangers.back().entered();
  };
  for (std::size_t i = 0; i < kLimit; ++i) ASSERT_TRUE(enter_another());
  const Connected newcomer = Enter(Tcp("192.0.2.2"));
  ASSERT_TRUE(newcomer.entered());
  for (std::size_t i = 0; i < kLimit - 1; ++i) {
    // Requests make nobody younger.
    for (const Connected& stranger : strangers) {
      stranger.SetBusy();
      stranger.place->SetActivity(ConnectionActivity::kIdle);
    }
    ASSERT_TRUE(enter_another());
  }
  EXPECT_FALSE(newcomer.is_evicted());
  ASSERT_TRUE(enter_another());
  EXPECT_TRUE(newcomer.is_evicted());
}

TEST_F(Connections, UserThatTransfers_IsBusy) {
  limits_.connections_per_owner = 2;
  const auto own = EnterMany(3, Tcp("192.0.2.1"));
  own[0].SetTransfers();
  for (const Connected& connection : own) connection.place->SetOwner(User("alice"));
  EXPECT_FALSE(own[0].is_evicted());
  EXPECT_TRUE(own[1].is_evicted());
}

TEST_F(Connections, OfUser_IdleSinceRatherThanAge_DecidesWhichIsOldest) {
  limits_.connections_per_owner = 2;
  const auto own = EnterMany(3, Tcp("192.0.2.1"));
  own[0].place->SetOwner(User("alice"));
  own[1].place->SetOwner(User("alice"));
  own[0].SetBusy();
  own[0].place->SetActivity(ConnectionActivity::kIdle);
  own[2].place->SetOwner(User("alice"));
  EXPECT_FALSE(own[0].is_evicted());
  EXPECT_TRUE(own[1].is_evicted());
}

TEST_F(Connections, NetworkWithMostConnections_LosesOneFirst) {
  const Connected alone = Enter(Tcp("198.51.100.1"));
  const auto many = EnterMany(kLimit - 1, Tcp("192.0.2.1"));
  Enter(Tcp("203.0.113.1"));
  EXPECT_FALSE(alone.is_evicted());
  EXPECT_TRUE(many[0].is_evicted());
}

TEST_F(Connections, Ipv6AddressesOfOneNetwork_CountAsOnePeer) {
  limits_.connections_per_peer = 2;
  const Connected first = Enter(Tcp("2001:db8::1"));
  const Connected second = Enter(Tcp("2001:db8::2"));
  first.SetBusy();
  second.SetBusy();
  EXPECT_FALSE(Enter(Tcp("2001:db8::3")).entered());
  EXPECT_TRUE(Enter(Tcp("2001:db8:0:1::3")).entered());
}

TEST_F(Connections, PeerAtItsLimit_LosesItsOwnOldestIdleConnection) {
  limits_.connections_per_peer = 2;
  const Connected other = Enter(Tcp("192.0.2.2"));
  const auto own = EnterMany(2, Tcp("192.0.2.1"));
  EXPECT_TRUE(Enter(Tcp("192.0.2.1")).entered());
  EXPECT_TRUE(own[0].is_evicted());
  EXPECT_FALSE(own[1].is_evicted());
  EXPECT_FALSE(other.is_evicted());
}

TEST_F(Connections, StrangerOfSmallNetwork_WhenAllAreAnswered_TakesPlaceOfLargestNetwork) {
  const Connected alone = Enter(Tcp("198.51.100.1"));
  alone.SetBusy();
  const auto strangers = EnterMany(kLimit - 1, Tcp("192.0.2.1"));
  for (const Connected& stranger : strangers) stranger.SetBusy();
  EXPECT_TRUE(Enter(Tcp("192.0.2.2")).entered());
  EXPECT_FALSE(alone.is_evicted());
  EXPECT_TRUE(strangers[0].is_evicted());
}

TEST_F(Connections, StrangerOfNoSmallerNetwork_WhenAllAreAnswered_IsRefused) {
  std::vector<Connected> strangers;
  for (std::size_t i = 0; i < kLimit; ++i) strangers.push_back(Enter(Tcp("198.51.100." + std::to_string(i / 2))));
  for (const Connected& stranger : strangers) stranger.SetBusy();
  EXPECT_FALSE(Enter(Tcp("198.51.100.1")).entered()) << "that would leave one with one and the other with three";
  const Connected first = Enter(Tcp("192.0.2.2"));
  EXPECT_TRUE(first.entered());
  first.SetBusy();
  EXPECT_FALSE(Enter(Tcp("192.0.2.2")).entered()) << "it would have more than the one whose place it takes";
  EXPECT_EQ(table_->total(), kLimit);
}

TEST_F(Connections, UnixSocket_WhenStrangersAreBusy_StillGetsRoom) {
  const auto strangers = EnterMany(kLimit, Tcp("192.0.2.1"));
  for (const Connected& stranger : strangers) stranger.SetBusy();
  EXPECT_TRUE(Enter(Unix(0)).entered());
  EXPECT_TRUE(strangers[0].is_evicted());
}

TEST_F(Connections, Promotion_WhenStrangersFillEverything_KeepsTheConnection) {
  const auto strangers = EnterMany(kLimit - 2, Tcp("192.0.2.1"));
  const Connected user = Enter(Tcp("192.0.2.1"));
  const Connected host = Enter(Tcp("192.0.2.1"));
  user.place->SetOwner(User("alice"));
  host.place->SetOwner(Host("h1"));
  for (std::size_t i = 0; i < 3 * kLimit; ++i) Enter(Tcp("192.0.2.1"));
  EXPECT_FALSE(user.is_evicted());
  EXPECT_FALSE(host.is_evicted());
}

TEST_F(Connections, UsersThatFillEverything_LeaveRoomForOthers) {
  const auto users = EnterMany(kLimit, Tcp("192.0.2.1"));
  for (const Connected& user : users) user.place->SetOwner(User("alice"));
  const Connected local = Enter(Unix(0));
  EXPECT_TRUE(local.entered());
  EXPECT_TRUE(users[0].is_evicted());
  // Strangers have to get in to log in, but only up to their guarantee.
  std::vector<Connected> strangers;
  for (int i = 0; i < 10; ++i) strangers.push_back(Enter(Tcp("192.0.2.9")));
  std::size_t evicted_users = 0;
  for (const Connected& user : users) evicted_users += user.is_evicted() ? 1 : 0;
  EXPECT_EQ(evicted_users, 1U + 2U);
  EXPECT_FALSE(strangers.back().is_evicted());
}

TEST_F(Connections, UsersWithinTheirGuarantee_LoseNothing) {
  auto users = EnterMany(8, Tcp("192.0.2.1"));
  for (const Connected& user : users) user.place->SetOwner(User("alice"));
  const auto local = EnterMany(kLimit, Unix(1000));
  for (const Connected& user : users) EXPECT_FALSE(user.is_evicted());
  EXPECT_TRUE(local[0].is_evicted());
}

TEST_F(Connections, UserAtOwnLimit_LosesOldestIdleConnectionOfThatUser) {
  limits_.connections_per_owner = 2;
  const auto own = EnterMany(3, Tcp("192.0.2.1"));
  const Connected other = Enter(Tcp("192.0.2.1"));
  other.place->SetOwner(User("bob"));
  for (const Connected& connection : own) connection.place->SetOwner(User("alice"));
  EXPECT_TRUE(own[0].is_evicted());
  EXPECT_FALSE(own[1].is_evicted());
  EXPECT_FALSE(own[2].is_evicted());
  EXPECT_FALSE(other.is_evicted());
}

TEST_F(Connections, UserAtOwnLimitOfBusyConnections_NewOneRemainsStranger) {
  limits_.connections_per_owner = 1;
  const Connected first = Enter(Tcp("192.0.2.1"));
  first.place->SetOwner(User("alice"));
  first.SetBusy();
  const Connected second = Enter(Tcp("192.0.2.1"));
  second.place->SetOwner(User("alice"));
  const auto strangers = EnterMany(kLimit - 1, Tcp("192.0.2.1"));
  EXPECT_TRUE(second.is_evicted());
  EXPECT_FALSE(first.is_evicted());
}

TEST_F(Connections, Demotion_MakesItStrangerAgain) {
  const Connected connection = Enter(Tcp("192.0.2.1"));
  connection.place->SetOwner(User("alice"));
  connection.place->SetOwner(Owner());
  const auto strangers = EnterMany(kLimit, Tcp("192.0.2.1"));
  EXPECT_TRUE(connection.is_evicted());
}

TEST_F(Connections, SetOnEvict_AfterEviction_ReturnsFalse) {
  limits_.connections = 1;
  table_ = std::make_shared<ConnectionTable>(limits_);
  const auto first = table_->Enter(Tcp("192.0.2.1"));
  const auto second = table_->Enter(Tcp("192.0.2.1"));
  EXPECT_FALSE(first->SetOnEvict([](EvictionReason) { FAIL(); }));
  EXPECT_TRUE(second->SetOnEvict([](EvictionReason) {}));
}

TEST_F(Connections, EvictedConnectionsThatAreStillOpen_AreBounded) {
  limits_.connections = 200;
  limits_.connections_per_peer = 200;
  const auto strangers = EnterMany(200, Tcp("192.0.2.1"));
  std::vector<Connected> more;
  for (int i = 0; i < 100; ++i) more.push_back(Enter(Tcp("192.0.2.2")));
  EXPECT_EQ(table_->evicted(), 64U);
  EXPECT_FALSE(more.back().entered());
  EXPECT_TRUE(Enter(Unix(0)).entered()) << "the flood of strangers does not count against others";
}

TEST_F(Connections, Ended_FreesPlaceOfEvictedAndOthers) {
  {
    const auto strangers = EnterMany(kLimit + 10, Tcp("192.0.2.1"));
    EXPECT_EQ(table_->total(), kLimit);
  }
  EXPECT_EQ(table_->total(), 0U);
  EXPECT_EQ(EnterMany(kLimit, Tcp("192.0.2.1")).back().entered(), true);
}

TEST_F(Connections, BytesOfOnePeer_AboveLimit_EndOldestHolding) {
  const auto own = EnterMany(3, Tcp("192.0.2.1"));
  const Connected other = Enter(Tcp("192.0.2.2"));
  other.place->SetHeldBytes(60);
  own[1].place->SetHeldBytes(40);
  own[0].place->SetHeldBytes(40);
  own[2].place->SetHeldBytes(20);
  EXPECT_FALSE(own[1].is_evicted());
  own[2].place->SetHeldBytes(30);
  EXPECT_EQ(*own[1].gone, EvictionReason::kMemory);
  EXPECT_FALSE(own[0].is_evicted() || own[2].is_evicted() || other.is_evicted());
  EXPECT_EQ(table_->total(), 4U) << "it counts until it is closed";
}

TEST_F(Connections, BytesOfTheOnlyHolder_AreAllowed) {
  const auto own = EnterMany(2, Tcp("192.0.2.1"));
  own[0].place->SetHeldBytes(100'000);
  EXPECT_FALSE(own[0].is_evicted());
  own[0].place->SetHeldBytes(0);
  own[1].place->SetHeldBytes(100'000);
  EXPECT_FALSE(own[0].is_evicted() || own[1].is_evicted());
}

TEST_F(Connections, BytesOfAllStrangers_AboveLimit_EndHoldingOfLargestPeer) {
  const auto large = EnterMany(2, Tcp("192.0.2.1"));
  large[0].place->SetHeldBytes(50);
  large[1].place->SetHeldBytes(45);
  std::vector<Connected> small;
  for (int i = 0; i < 3; ++i) small.push_back(Enter(Tcp("198.51.100." + std::to_string(i))));
  for (const Connected& connection : small) connection.place->SetHeldBytes(50);
  EXPECT_FALSE(large[0].is_evicted());
  small.push_back(Enter(Tcp("198.51.100.9")));
  small.back().place->SetHeldBytes(10);
  EXPECT_EQ(*large[0].gone, EvictionReason::kMemory);
  EXPECT_FALSE(large[1].is_evicted());
  for (const Connected& connection : small) EXPECT_FALSE(connection.is_evicted());
}

TEST_F(Connections, OneGrowthFarAboveLimit_EndsAsManyHoldingsAsNeeded) {
  const auto own = EnterMany(4, Tcp("192.0.2.1"));
  for (std::size_t i = 0; i < 3; ++i) own[i].place->SetHeldBytes(30);
  own[3].place->SetHeldBytes(60);
  EXPECT_TRUE(own[0].is_evicted() && own[1].is_evicted());
  EXPECT_FALSE(own[2].is_evicted() || own[3].is_evicted());
  own[3].place->SetHeldBytes(0);

  std::vector<Connected> others;
  for (int i = 0; i < 4; ++i) others.push_back(Enter(Tcp("198.51.100." + std::to_string(i / 2))));
  for (const Connected& connection : others) connection.place->SetHeldBytes(50);
  const Connected last = Enter(Tcp("203.0.113.1"));
  last.place->SetHeldBytes(85);
  EXPECT_EQ(table_->evicted(), 2U + 2U) << "315 bytes; 265 would still be too many";
  EXPECT_FALSE(last.is_evicted());
}

TEST_F(Connections, BytesOfManyNetworksWithOneHolderEach_AreBounded) {
  std::vector<Connected> strangers;
  for (int i = 0; i < 10; ++i) strangers.push_back(Enter(Tcp("198.51.100." + std::to_string(i))));
  for (const Connected& connection : strangers) connection.place->SetHeldBytes(50);
  std::size_t ended = 0;
  for (const Connected& connection : strangers) ended += connection.is_evicted() ? 1 : 0;
  EXPECT_EQ(ended, 5U);
}

TEST_F(Connections, BytesOfUser_DoNotCountAsStrangers) {
  std::vector<Connected> users;
  for (int i = 0; i < 5; ++i) {
    users.push_back(Enter(Tcp("192.0.2.1")));
    users.back().place->SetHeldBytes(60);
    users.back().place->SetOwner(User("user" + std::to_string(i)));
  }
  for (const Connected& user : users) EXPECT_FALSE(user.is_evicted());
  EXPECT_EQ(table_->evicted(), 0U);
}

}  // namespace
}  // namespace vexa::http
