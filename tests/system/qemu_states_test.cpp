// The states of guests on QEMU, and why they are off.
#include "host/base/json_parse.h"
#include "host/records/live_state.h"
#include "tests/support/qemu_host_test.h"
#include "tests/support/require.h"

namespace vexa::test {
namespace {

constexpr char kGuest[] = "11111111-2222-4333-8444-000000000003";

Json::Value Parsed(const std::string& text) { return Require(ParseJson(text)); }

class QemuStates : public EmbeddedHostTest {
 protected:
  void MakeHost() override {
    EmbeddedHostTest::MakeHost();
    StartHostWith(kGuest, "stateful");
  }
  // {"value", "forced"}; null without one.
  Json::Value Reason() const {
    const std::string text = host_->Stored(records::LiveRecordKey(kGuest));
    return text.empty() ? Json::Value() : Parsed(text)["shutdown"];
  }
};

TEST_F(QemuStates, Qemu_Killed_IsShownAsCrashedUntilNextStart) {
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  ASSERT_TRUE(host_->AwaitState(kGuest, "guest_running"));
  EXPECT_TRUE(Reason().isNull());
  KillQemus(environment_->folder());
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_crashed")) << host_->State(kGuest);
  EXPECT_EQ(Reason(), Parsed(R"({"value":4,"forced":true})"));
  host_->Restart();
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_crashed")) << host_->State(kGuest);
  ASSERT_EQ(host_->Power(kGuest, "poweron"), 0) << host_->Log();
  ASSERT_TRUE(host_->AwaitState(kGuest, "guest_running"));
  EXPECT_TRUE(Reason().isNull());
  EXPECT_EQ(host_->Power(kGuest, "poweroff"), 0);
  EXPECT_TRUE(host_->AwaitState(kGuest, "guest_shutdown")) << host_->State(kGuest);
  EXPECT_EQ(Reason(), Parsed(R"({"value":3,"forced":true})"));
}

TEST_F(QemuStates, Disk_Missing_IsShownAndPreventsStart) {
  const std::string disk = QemuHost::DiskId(kGuest, 0);
  const std::string file = host_->DiskFile(kGuest, 0);
  const auto state = [&] { return host_->Stored("/dash/vdisk/" + disk + "/state"); };
  // The disk of the machine that runs this test may be almost full.
  const auto is_usable = [&] { return state() == "\"vdisk_online\"" || state() == "\"vdisk_provision_warning\""; };
  EXPECT_TRUE(Await(is_usable, kStateTimeout)) << state();
  std::filesystem::rename(file, file + ".away");
  EXPECT_TRUE(Await([&] { return state() == "\"vdisk_inaccessible\""; }, kStateTimeout)) << state();
  EXPECT_NE(host_->Power(kGuest, "poweron"), 0);
  EXPECT_EQ(host_->State(kGuest), "guest_shutdown");
  EXPECT_EQ(Reason(), Parsed(R"({"value":14,"forced":false})"));
  std::filesystem::rename(file + ".away", file);
  EXPECT_TRUE(Await(is_usable, kStateTimeout)) << state();
}

}  // namespace
}  // namespace vexa::test
