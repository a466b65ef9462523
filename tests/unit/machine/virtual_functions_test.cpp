// The virtual functions of network cards, on a folder in place of /sys: this needs no card that has them.
#include "host/machine/virtual_functions.h"

#include <filesystem>

#include "tests/support/matchers.h"
#include "tests/unit/machine/fake_card.h"

namespace vexa::machine {
namespace {

using test::FakeCard;

class CardFunctions : public testing::Test {
 protected:
  VirtualFunctions Find() const { return FindVirtualFunctions(net_.root(), "eth0"); }

  test::FakeInterfaces net_;
  FakeCard card_{net_, "eth0"};
};

TEST_F(CardFunctions, Unused_AreUsableInTheOrderOfTheirNumbers) {
  for (int i = 0; i < 12; ++i) card_.AddFunction();
  const VirtualFunctions found = Find();
  EXPECT_EQ(found.total, 12);
  ASSERT_EQ(found.usable.size(), 12u);
  EXPECT_EQ(found.usable[0], "0000:3b:02.0");
  EXPECT_EQ(found.usable[9], "0000:3b:03.1") << "by number, not by name";
}

TEST_F(CardFunctions, WithoutIommu_AreNotUsable) {
  card_.AddFunction(FakeCard::Iommu::kNone);
  EXPECT_EQ(Find().total, 1);
  EXPECT_TRUE(Find().usable.empty());
}

TEST_F(CardFunctions, WithInterface_AreUsableUnlessTheHostUsesIt) {
  net_.Add("br0", "bridge");
  card_.AddFunction();
  card_.AddFunction();
  card_.AddFunction();
  card_.AddInterface(0, "eth0v0");
  card_.AddInterface(1, "eth0v1");
  card_.AddInterface(2, "eth0v2");
  net_.SwitchOff("eth0v0");
  net_.SwitchOff("eth0v2");
  net_.MakePort("eth0v2", "br0");
  EXPECT_EQ(Find().total, 3);
  EXPECT_EQ(Find().usable, std::vector<std::string>{"0000:3b:02.0"}) << "the second is up, the third a port";
}

TEST_F(CardFunctions, OfSomethingElse_AreNone) {
  net_.Add("br0", "bridge");
  for (const char* name : {"br0", "missing", "", "..", "a/b"}) {
    EXPECT_EQ(FindVirtualFunctions(net_.root(), name).total, 0) << name;
  }
  EXPECT_EQ(Find().total, 0) << "a card without any";
}

TEST_F(CardFunctions, AddressOfAnotherForm_IsNotUsable) {
  namespace fs = std::filesystem;
  fs::create_directory_symlink("../virtio7", net_.root() + "/sys/class/net/eth0/device/virtfn0");
  EXPECT_EQ(Find().total, 1);
  EXPECT_TRUE(Find().usable.empty());
}

}  // namespace
}  // namespace vexa::machine
