// What is asked of the hypervisor to change a running guest, in which order, and when something is refused.
#include "host/guests/live_changes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/matchers.h"
#include "tests/support/test_host.h"
#include "tests/unit/guests/fake_machine.h"

namespace vexa::guests {
namespace {

using domain_xml::Difference;
using testing::ElementsAre;

constexpr char kDisk[] =
    R"(<disk type="file" device="disk"><source file="/disks/new"/><target dev="vdb" bus="virtio"/></disk>)";
constexpr char kOldNic[] =
    R"(<interface type="bridge"><mac address="02:00:00:00:00:01"/><source bridge="a"/></interface>)";
constexpr char kNewNic[] =
    R"(<interface type="network"><mac address="02:00:00:00:00:01"/><source network="b"/></interface>)";

std::string Machine(const std::string& devices) { return "<domain><devices>" + devices + "</devices></domain>"; }

LiveChanges::Options Options(const std::string& running, const std::string& recorded) {
  LiveChanges::Options options;
  options.guest_id = "g";
  options.running_xml = running;
  options.recorded_xml = recorded;
  return options;
}

Difference Change(const char* property, const char* running, const char* recorded) {
  return {property, "", Parsed(running), Parsed(recorded)};
}

// For a file that is not the one that was checked.
TEST(LiveChanges, AddedDisk_CanBeTakenOutAgain) {
  test::FakeMachine machine(Machine(""));
  LiveChanges changes(machine, Options(Machine(""), Machine(kDisk)));
  const Difference added = Change("vdisks", "null", R"({"path":"/disks/new","vdisk_mode":1})");
  ASSERT_TRUE(changes.Apply(added));
  EXPECT_TRUE(changes.Apply({added.property, added.id, added.recorded, added.running}));
  EXPECT_THAT(machine.calls, ElementsAre(std::string("attach ") + kDisk, std::string("detach ") + kDisk));
  EXPECT_EQ(*machine.RunningXmlOf("g"), Machine("")) << "the guest still has the file";
}

TEST(LiveChanges, ReplacedInterface_CannotBeAdded_GuestGetsOldOneBack) {
  test::FakeMachine machine(Machine(kOldNic));
  machine.refuses = [](const std::string& call) {
    return call.starts_with("update") || call == std::string("attach ") + kNewNic;
  };
  LiveChanges changes(machine, Options(Machine(kOldNic), Machine(kNewNic)));
  EXPECT_FALSE(changes.Apply(Change("vnics", R"({"mac":"02:00:00:00:00:01"})", R"({"mac":"02:00:00:00:00:01"})")));
  EXPECT_THAT(machine.calls, ElementsAre(std::string("update ") + kNewNic, std::string("detach ") + kOldNic,
                                         std::string("attach ") + kNewNic, std::string("attach ") + kOldNic));
  EXPECT_EQ(*machine.RunningXmlOf("g"), Machine(kOldNic));
}

}  // namespace
}  // namespace vexa::guests
