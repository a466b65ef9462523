#include "tests/contract/hypervisor_contract.h"
#include "tests/support/matchers.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <thread>

#include "host/domain_xml/domain_build.h"

namespace vexa::hypervisor {

namespace {

template <class T>
FailureKind KindOf(const Result<T, Failure>& outcome) {
  EXPECT_FALSE(outcome.ok());
  return outcome.ok() ? FailureKind::kFailed : outcome.error().kind();
}

}  // namespace

void HypervisorContract::SetUp() {
  HypervisorOptions options = GetParam().options();
  events_.Listen(options);
  Result<std::unique_ptr<Hypervisor>, Failure> opened = Hypervisor::Open(std::move(options));
  ASSERT_TRUE(opened.ok()) << opened.error().ToString();
  hypervisor_ = std::move(*opened);
}

void HypervisorContract::TearDown() {
  if (!hypervisor_) return;
  const Result<std::vector<KnownGuest>, Failure> guests = hypervisor_->List();
  ASSERT_TRUE(guests.ok());
  for (const KnownGuest& guest : *guests) {
    const Result<void, Failure> off = hypervisor_->PowerOff(guest.id);
    EXPECT_THAT(OutcomeName(off), AnyOf("ok", "not_running"));
    EXPECT_EQ(OutcomeName(hypervisor_->Undefine(guest.id, UndefineScope::kDefinition)), "ok");
  }
}

std::string HypervisorContract::Id(int number) {
  std::array<char, 40> id{};
  std::snprintf(id.data(), id.size(), "11111111-2222-4333-8444-%012d", number);
  return id.data();
}

std::string HypervisorContract::Xml(int number, const std::string& name) const {
  domain_xml::GuestRecords records;
  records.id = Id(number);
  records.guest["name"] = name.empty() ? "guest-" + std::to_string(number) : name;
  records.guest["vram_size"] = 32;
  domain_xml::BuildOptions options;
  options.domain_type = hypervisor_->DomainType();
  options.cpu_shares = domain_xml::CpuShares::kOmitted;
  const Result<std::string> xml = domain_xml::BuildDomainXml(records, options);
  EXPECT_TRUE(xml.ok());
  return xml.ok() ? *xml : "";
}

std::string HypervisorContract::Define(int number) {
  const Result<std::string, Failure> id = hypervisor_->Define(Xml(number));
  EXPECT_TRUE(id.ok()) << id.error().ToString();
  EXPECT_EQ(events_.Await(Id(number), 1).size(), 1u);
  return id.ok() ? *id : "";
}

std::vector<GuestState> HypervisorContract::AwaitStates(const std::string& id, std::size_t count) const {
  for (std::size_t reported = count;; ++reported) {
    std::vector<GuestState> states = events_.Await(id, reported);
    const bool late = states.size() < reported;
    std::erase(states, GuestState::kShuttingDown);
    if (late || states.size() >= count) return states;
  }
}

TEST_P(HypervisorContract, Define_NewGuest_IsOffAndListed) {
  const std::string second = Define(2);
  const std::string first = Define(1);
  EXPECT_EQ(first, Id(1));
  const Result<GuestState, Failure> state = hypervisor_->StateOf(first);
  ASSERT_TRUE(state.ok());
  EXPECT_EQ(*state, GuestState::kOff);
  const Result<std::vector<KnownGuest>, Failure> guests = hypervisor_->List();
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

TEST_P(HypervisorContract, Define_NameOfAnotherGuest_IsRefused) {
  Define(1);
  EXPECT_EQ(KindOf(hypervisor_->Define(Xml(2, "guest-1"))), FailureKind::kExists);
  EXPECT_EQ(KindOf(hypervisor_->StateOf(Id(2))), FailureKind::kNoSuchGuest);
}

TEST_P(HypervisorContract, Define_BadXml_IsRefused) {
  for (const std::string& xml : {std::string("<domain"), std::string(), std::string("<domain type='test'/>"),
                                 std::string("<a/>"), std::string(std::size_t{5} << 20, ' '), Xml(1) + '\0'}) {
    EXPECT_EQ(KindOf(hypervisor_->Define(xml)), FailureKind::kInvalid) << xml.substr(0, 100);
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
  EXPECT_EQ(KindOf(hypervisor_->StateOf(id)), FailureKind::kNoSuchGuest);
  EXPECT_THAT(AwaitStates(id, 6), ElementsAre(GuestState::kOff, GuestState::kRunning, GuestState::kOff,
                                              GuestState::kRunning, GuestState::kOff, GuestState::kGone));
}

TEST_P(HypervisorContract, Calls_OnAGuestThatIsOff_AreRefused) {
  const std::string id = Define(1);
  EXPECT_EQ(KindOf(hypervisor_->ShutDown(id)), FailureKind::kNotRunning);
  EXPECT_EQ(KindOf(hypervisor_->PowerOff(id)), FailureKind::kNotRunning);
  EXPECT_EQ(KindOf(hypervisor_->Reboot(id)), FailureKind::kNotRunning);
  EXPECT_EQ(KindOf(hypervisor_->AddressesOf(id)), FailureKind::kNotRunning);
  EXPECT_EQ(KindOf(hypervisor_->HasAgent(id)), FailureKind::kNotRunning);
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kOff);
}

TEST_P(HypervisorContract, Calls_OnAGuestThatRuns_AreRefused) {
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  EXPECT_EQ(KindOf(hypervisor_->Start(id)), FailureKind::kAlreadyRunning);
  EXPECT_EQ(KindOf(hypervisor_->Undefine(id, UndefineScope::kDefinition)), FailureKind::kAlreadyRunning);
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kRunning);
}

TEST_P(HypervisorContract, Calls_OnAnUnknownGuest_AreRefused) {
  EXPECT_EQ(KindOf(hypervisor_->Start(Id(1))), FailureKind::kNoSuchGuest);
  EXPECT_EQ(KindOf(hypervisor_->ShutDown(Id(1))), FailureKind::kNoSuchGuest);
  EXPECT_EQ(KindOf(hypervisor_->PowerOff(Id(1))), FailureKind::kNoSuchGuest);
  EXPECT_EQ(KindOf(hypervisor_->Reboot(Id(1))), FailureKind::kNoSuchGuest);
  EXPECT_EQ(KindOf(hypervisor_->Undefine(Id(1), UndefineScope::kDefinition)), FailureKind::kNoSuchGuest);
  EXPECT_EQ(KindOf(hypervisor_->StateOf(Id(1))), FailureKind::kNoSuchGuest);
  EXPECT_EQ(KindOf(hypervisor_->AddressesOf(Id(1))), FailureKind::kNoSuchGuest);
  EXPECT_EQ(KindOf(hypervisor_->HasAgent(Id(1))), FailureKind::kNoSuchGuest);
}

TEST_P(HypervisorContract, Calls_InvalidId_AreRefused) {
  Define(1);
  for (const char* id : {"", "guest-1", "../x", "11111111222243338444000000000001", "%s%n"}) {
    EXPECT_EQ(KindOf(hypervisor_->StateOf(id)), FailureKind::kInvalid) << id;
    EXPECT_EQ(KindOf(hypervisor_->PowerOff(id)), FailureKind::kInvalid) << id;
  }
}

TEST_P(HypervisorContract, Reboot_RunningGuest_KeepsRunning) {
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  ASSERT_TRUE(hypervisor_->Reboot(id).ok());
  EXPECT_EQ(*hypervisor_->StateOf(id), GuestState::kRunning);
}

TEST_P(HypervisorContract, RunningGuest_WithoutAgent_HasNoAgentAndNoAddress) {
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  const Result<bool, Failure> agent = hypervisor_->HasAgent(id);
  ASSERT_TRUE(agent.ok()) << agent.error().ToString();
  EXPECT_FALSE(*agent);
  const Result<std::vector<std::string>, Failure> addresses = hypervisor_->AddressesOf(id);
  ASSERT_TRUE(addresses.ok()) << addresses.error().ToString();
  EXPECT_TRUE(addresses->empty());
}

TEST_P(HypervisorContract, NodeInfo_OfMachine_HasPlausibleValues) {
  const Result<NodeInfo, Failure> node = hypervisor_->GetNodeInfo();
  ASSERT_TRUE(node.ok());
  EXPECT_GE(node->cpus, 1u);
  EXPECT_GE(node->threads_per_core, 1u);
  EXPECT_GE(node->cores, 1u);
  EXPECT_GT(node->memory_mib, 0u);
  const Result<std::uint64_t, Failure> free = hypervisor_->FreeMemory();
  ASSERT_TRUE(free.ok());
  EXPECT_GT(*free, 0u);
  EXPECT_LE(*free >> 20, node->memory_mib);
}

// When two threads start or stop a guest at the same time, one succeeds and the other gets the documented error.
TEST_P(HypervisorContract, TwoThreads_SameCallOnOneGuest_OnlyOneSucceeds) {
  const std::string id = Define(1);
  constexpr int kRounds = 3;
  for (int round = 0; round < kRounds; ++round) {
    std::array<std::string, 2> words;
    const auto both = [&](auto call) {
      std::thread other([&] { words[1] = OutcomeName(call()); });
      words[0] = OutcomeName(call());
      other.join();
    };
    both([&] { return hypervisor_->Start(id); });
    EXPECT_THAT(words, testing::UnorderedElementsAre("ok", "already_running"));
    both([&] { return hypervisor_->PowerOff(id); });
    EXPECT_THAT(words, testing::UnorderedElementsAre("ok", "not_running"));
  }
  // One event for each change, and none for the refused calls.
  const std::vector<GuestState> states = AwaitStates(id, 1 + 2 * kRounds);
  ASSERT_EQ(states.size(), 1u + 2 * kRounds);
  for (std::size_t i = 1; i < states.size(); ++i) {
    EXPECT_EQ(states[i], i % 2 == 1 ? GuestState::kRunning : GuestState::kOff);
  }
}

TEST_P(HypervisorContract, ManyThreads_OnOneGuest_FailOnlyAsDocumented) {
  const std::string id = Define(1);
  std::vector<std::thread> threads;
  std::array<std::vector<std::string>, 4> starts;
  std::array<std::vector<std::string>, 4> words;
  for (std::size_t i = 0; i < words.size(); ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 3; ++round) {
        starts[i].push_back(OutcomeName(hypervisor_->Start(id)));
        words[i].push_back(OutcomeName(hypervisor_->StateOf(id)));
        words[i].push_back(OutcomeName(hypervisor_->AddressesOf(id)));
        words[i].push_back(OutcomeName(hypervisor_->List()));
        words[i].push_back(OutcomeName(hypervisor_->PowerOff(id)));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  // On a machine so busy that a start takes longer than other calls wait for it, these are refused, or a power-off ends
  // the start.
  for (const std::vector<std::string>& list : starts) {
    EXPECT_THAT(list, testing::Each(AnyOf("ok", "already_running", "busy")));
  }
  for (const std::vector<std::string>& list : words) {
    EXPECT_THAT(list, testing::Each(AnyOf("ok", "not_running", "busy")));
  }
  EXPECT_THAT(OutcomeName(hypervisor_->PowerOff(id)), AnyOf("ok", "not_running"));
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
  Result<std::unique_ptr<Hypervisor>, Failure> opened = Hypervisor::Open(std::move(options));
  ASSERT_TRUE(opened.ok());
  hypervisor_ = std::move(*opened);
  hypervisor = hypervisor_.get();
  const std::string id = Define(1);
  ASSERT_TRUE(hypervisor_->Start(id).ok());
  events_.Await(id, 2);
  EXPECT_EQ(answered, 2);
  // The hypervisor is destroyed before the variables that its callback uses.
  EXPECT_EQ(OutcomeName(hypervisor_->PowerOff(id)), "ok");
  EXPECT_EQ(OutcomeName(hypervisor_->Undefine(id, UndefineScope::kDefinition)), "ok");
  hypervisor_.reset();
}

TEST_P(HypervisorContract, Destruction_EventsPending_DropsThem) {
  const std::string id = Define(1);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(hypervisor_->Start(id).ok());
    ASSERT_TRUE(hypervisor_->PowerOff(id).ok());
  }
  ASSERT_TRUE(hypervisor_->Undefine(id, UndefineScope::kDefinition).ok());
  hypervisor_.reset();
  const std::size_t reported = events_.Of(id).size();
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(events_.Of(id).size(), reported);
}

}  // namespace vexa::hypervisor
