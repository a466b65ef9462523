#include "tests/contract/hypervisor_contract.h"

#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <thread>

#include "host/domain_xml/domain_build.h"

namespace vexa::hypervisor {

using testing::AnyOf;
using testing::ElementsAre;

namespace {

template <class T>
Problem ProblemOf(const Outcome<T>& outcome) {
  EXPECT_FALSE(outcome.ok());
  return outcome.ok() ? Problem::kFailed : outcome.failure().problem();
}

}  // namespace

void HypervisorContract::SetUp() {
  HypervisorOptions options = GetParam().options();
  events_.Listen(options);
  Outcome<std::unique_ptr<Hypervisor>> opened = Hypervisor::Open(std::move(options));
  ASSERT_TRUE(opened.ok()) << opened.failure().ToString();
  hypervisor_ = std::move(*opened);
}

void HypervisorContract::TearDown() {
  if (!hypervisor_) return;
  const Outcome<std::vector<KnownGuest>> guests = hypervisor_->List();
  ASSERT_TRUE(guests.ok());
  for (const KnownGuest& guest : *guests) {
    const Outcome<void> off = hypervisor_->PowerOff(guest.id);
    EXPECT_THAT(Word(off), AnyOf("ok", "not_running"));
    EXPECT_EQ(Word(hypervisor_->Undefine(guest.id, UndefineScope::kDefinition)), "ok");
  }
}

std::string HypervisorContract::Id(int number) {
  std::array<char, 40> id{};
  std::snprintf(id.data(), id.size(), "11111111-2222-4333-8444-%012d", number);
  return id.data();
}

std::string HypervisorContract::Xml(int number, const std::string& name) const {
  GuestRecords records;
  records.id = Id(number);
  records.guest["name"] = name.empty() ? "guest-" + std::to_string(number) : name;
  records.guest["vram_size"] = 32;
  BuildOptions options;
  options.domain_type = hypervisor_->DomainType();
  options.cpu_shares = CpuShares::kLeftOut;
  const Result<std::string> xml = BuildDomainXml(records, options);
  EXPECT_TRUE(xml.ok());
  return xml.ok() ? *xml : "";
}

std::string HypervisorContract::Define(int number) {
  const Outcome<std::string> id = hypervisor_->Define(Xml(number));
  EXPECT_TRUE(id.ok()) << id.failure().ToString();
  EXPECT_EQ(events_.Await(Id(number), 1).size(), 1u);
  return id.ok() ? *id : "";
}

std::vector<GuestState> HypervisorContract::AwaitStates(const std::string& id, std::size_t count) const {
  for (std::size_t told = count;; ++told) {
    std::vector<GuestState> states = events_.Await(id, told);
    const bool late = states.size() < told;
    std::erase(states, GuestState::kShuttingDown);
    if (late || states.size() >= count) return states;
  }
}

TEST_P(HypervisorContract, Define_NewGuest_IsOffAndListed) {
  const std::string second = Define(2);
  const std::string first = Define(1);
  EXPECT_EQ(first, Id(1));
  const Outcome<GuestState> state = hypervisor_->StateOf(first);
  ASSERT_TRUE(state.ok());
  EXPECT_EQ(*state, GuestState::kOff);
  const Outcome<std::vector<KnownGuest>> guests = hypervisor_->List();
  ASSERT_TRUE(guests.ok());
  ASSERT_EQ(guests->size(), 2u);
  EXPECT_EQ((*guests)[0].id, first);
  EXPECT_EQ((*guests)[0].name, "guest-1");
  EXPECT_EQ((*guests)[0].state, GuestState::kOff);
  EXPECT_EQ((*guests)[1].id, second);
}

TEST_P(HypervisorContract, Define_SameGuestAgain_ReplacesIt) {
  Define(1);
  EXPECT_TRUE(hypervisor_->Define(Xml(1)).ok());
  EXPECT_EQ(hypervisor_->List()->size(), 1u);
}

TEST_P(HypervisorContract, Define_NameOfAnother_IsRefused) {
  Define(1);
  EXPECT_EQ(ProblemOf(hypervisor_->Define(Xml(2, "guest-1"))), Problem::kExists);
  EXPECT_EQ(ProblemOf(hypervisor_->StateOf(Id(2))), Problem::kNoSuchGuest);
}

TEST_P(HypervisorContract, Define_BadXml_IsRefused) {
  for (const std::string& xml : {std::string("<domain"), std::string(), std::string("<domain type='test'/>"),
                                 std::string("<a/>"), std::string(std::size_t{5} << 20, ' '), Xml(1) + '\0'}) {
    EXPECT_EQ(ProblemOf(hypervisor_->Define(xml)), Problem::kInvalid) << xml.substr(0, 100);
  }
  EXPECT_TRUE(hypervisor_->List()->empty());
}

TEST_P(HypervisorContract, State_FromDefinitionToRemoval_IsReportedAtEachStep) {
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kRunning);
  ASSERT_TRUE(hypervisor_->PowerOff(id).ok());
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kOff);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  ASSERT_TRUE(hypervisor_->PowerOff(id).ok());
  ASSERT_TRUE(hypervisor_->Undefine(id, UndefineScope::kDefinition).ok());
  EXPECT_EQ(ProblemOf(hypervisor_->StateOf(id)), Problem::kNoSuchGuest);
  EXPECT_THAT(AwaitStates(id, 6), ElementsAre(GuestState::kOff, GuestState::kRunning, GuestState::kOff,
                                              GuestState::kRunning, GuestState::kOff, GuestState::kGone));
}

TEST_P(HypervisorContract, Calls_OnAGuestThatIsOff_AreRefused) {
  const std::string id = Define(1);
  EXPECT_EQ(ProblemOf(hypervisor_->ShutDown(id)), Problem::kNotRunning);
  EXPECT_EQ(ProblemOf(hypervisor_->PowerOff(id)), Problem::kNotRunning);
  EXPECT_EQ(ProblemOf(hypervisor_->Reboot(id)), Problem::kNotRunning);
  EXPECT_EQ(ProblemOf(hypervisor_->AddressesOf(id)), Problem::kNotRunning);
  EXPECT_EQ(ProblemOf(hypervisor_->HasAgent(id)), Problem::kNotRunning);
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kOff);
}

TEST_P(HypervisorContract, Calls_OnAGuestThatRuns_AreRefused) {
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  EXPECT_EQ(ProblemOf(hypervisor_->Start(id)), Problem::kAlreadyRunning);
  EXPECT_EQ(ProblemOf(hypervisor_->Undefine(id, UndefineScope::kDefinition)), Problem::kAlreadyRunning);
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kRunning);
}

TEST_P(HypervisorContract, Calls_OnAnUnknownGuest_AreRefused) {
  EXPECT_EQ(ProblemOf(hypervisor_->Start(Id(1))), Problem::kNoSuchGuest);
  EXPECT_EQ(ProblemOf(hypervisor_->ShutDown(Id(1))), Problem::kNoSuchGuest);
  EXPECT_EQ(ProblemOf(hypervisor_->PowerOff(Id(1))), Problem::kNoSuchGuest);
  EXPECT_EQ(ProblemOf(hypervisor_->Reboot(Id(1))), Problem::kNoSuchGuest);
  EXPECT_EQ(ProblemOf(hypervisor_->Undefine(Id(1), UndefineScope::kDefinition)), Problem::kNoSuchGuest);
  EXPECT_EQ(ProblemOf(hypervisor_->StateOf(Id(1))), Problem::kNoSuchGuest);
  EXPECT_EQ(ProblemOf(hypervisor_->AddressesOf(Id(1))), Problem::kNoSuchGuest);
  EXPECT_EQ(ProblemOf(hypervisor_->HasAgent(Id(1))), Problem::kNoSuchGuest);
}

TEST_P(HypervisorContract, Calls_InvalidId_AreRefused) {
  Define(1);
  for (const char* id : {"", "guest-1", "../x", "11111111222243338444000000000001", "%s%n"}) {
    EXPECT_EQ(ProblemOf(hypervisor_->StateOf(id)), Problem::kInvalid) << id;
    EXPECT_EQ(ProblemOf(hypervisor_->PowerOff(id)), Problem::kInvalid) << id;
  }
}

TEST_P(HypervisorContract, Reboot_RunningGuest_GoesOn) {
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  ASSERT_TRUE(hypervisor_->Reboot(id).ok());
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kRunning);
}

TEST_P(HypervisorContract, RunningGuest_WithoutAgent_HasNoneAndNoAddress) {
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  const Outcome<bool> agent = hypervisor_->HasAgent(id);
  ASSERT_TRUE(agent.ok()) << agent.failure().ToString();
  EXPECT_FALSE(*agent);
  const Outcome<std::vector<std::string>> addresses = hypervisor_->AddressesOf(id);
  ASSERT_TRUE(addresses.ok()) << addresses.failure().ToString();
  EXPECT_TRUE(addresses->empty());
}

TEST_P(HypervisorContract, Machine_HasFigures) {
  const Outcome<Node> node = hypervisor_->NodeFigures();
  ASSERT_TRUE(node.ok());
  EXPECT_GE(node->cpus, 1u);
  EXPECT_GE(node->threads_per_core, 1u);
  EXPECT_GE(node->cores, 1u);
  EXPECT_GT(node->memory_mib, 0u);
  const Outcome<std::uint64_t> free = hypervisor_->FreeMemory();
  ASSERT_TRUE(free.ok());
  EXPECT_GT(*free, 0u);
  EXPECT_LE(*free >> 20, node->memory_mib);
}

// Of two that start or stop a guest at the same time, one does it and the other learns that it is done.
TEST_P(HypervisorContract, TwoThreads_OnOneGuest_OneOfThemDoesIt) {
  const std::string id = Define(1);
  constexpr int kRounds = 3;
  for (int round = 0; round < kRounds; ++round) {
    std::array<std::string, 2> words;
    const auto both = [&](auto call) {
      std::thread other([&] { words[1] = Word(call()); });
      words[0] = Word(call());
      other.join();
    };
    both([&] { return hypervisor_->Start(id); });
    EXPECT_THAT(words, testing::UnorderedElementsAre("ok", "already_running"));
    both([&] { return hypervisor_->PowerOff(id); });
    EXPECT_THAT(words, testing::UnorderedElementsAre("ok", "not_running"));
  }
  // One event for each change and none for what was refused.
  const std::vector<GuestState> states = AwaitStates(id, 1 + 2 * kRounds);
  ASSERT_EQ(states.size(), 1u + 2 * kRounds);
  for (std::size_t i = 1; i < states.size(); ++i) {
    EXPECT_EQ(states[i], i % 2 == 1 ? GuestState::kRunning : GuestState::kOff);
  }
}

TEST_P(HypervisorContract, ManyThreads_OnOneGuest_FailOnlyAsDocumented) {
  const std::string id = Define(1);
  std::vector<std::thread> threads;
  std::array<std::vector<std::string>, 4> words;
  for (std::size_t i = 0; i < words.size(); ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 3; ++round) {
        words[i].push_back(Word(hypervisor_->Start(id)));
        words[i].push_back(Word(hypervisor_->StateOf(id)));
        words[i].push_back(Word(hypervisor_->AddressesOf(id)));
        words[i].push_back(Word(hypervisor_->List()));
        words[i].push_back(Word(hypervisor_->PowerOff(id)));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::vector<std::string>& list : words) {
    EXPECT_THAT(list, testing::Each(AnyOf("ok", "already_running", "not_running")));
  }
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kOff);
}

TEST_P(HypervisorContract, Callback_MayCallTheHypervisor) {
  hypervisor_.reset();
  HypervisorOptions options = GetParam().options();
  std::atomic<Hypervisor*> hypervisor{nullptr};
  std::atomic<int> answered{0};
  options.on_event = [&](const GuestEvent& event) {
    if (hypervisor != nullptr && hypervisor.load()->StateOf(event.id).ok()) ++answered;
    events_.Add(event);
  };
  Outcome<std::unique_ptr<Hypervisor>> opened = Hypervisor::Open(std::move(options));
  ASSERT_TRUE(opened.ok());
  hypervisor_ = std::move(*opened);
  hypervisor = hypervisor_.get();
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  events_.Await(id, 2);
  EXPECT_EQ(answered, 2);
  // Before what its callback uses.
  EXPECT_EQ(Word(hypervisor_->PowerOff(id)), "ok");
  EXPECT_EQ(Word(hypervisor_->Undefine(id, UndefineScope::kDefinition)), "ok");
  hypervisor_.reset();
}

TEST_P(HypervisorContract, Destruction_WithEventsOnTheWay_EndsThem) {
  const std::string id = Define(1);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(hypervisor_->Start(id).ok());
    ASSERT_TRUE(hypervisor_->PowerOff(id).ok());
  }
  ASSERT_TRUE(hypervisor_->Undefine(id, UndefineScope::kDefinition).ok());
  hypervisor_.reset();
  const std::size_t told = events_.Of(id).size();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(events_.Of(id).size(), told);
}

}  // namespace vexa::hypervisor
