#include "tests/contract/hypervisor_contract.h"
#include "tests/support/qemu_guest.h"

namespace vexa::hypervisor {
namespace {

// One folder for all tests: a process can embed guests below one only. Each test leaves it empty.
class Ground : public testing::Environment {
 public:
  void SetUp() override {
    const std::string why_not = test::WhyNoQemuGuests();
    if (!why_not.empty()) GTEST_SKIP() << test::SkipNotice(why_not);
    ground_ = std::make_unique<test::QemuGround>();
  }
  void TearDown() override { ground_.reset(); }

  HypervisorOptions Options() const {
    HypervisorOptions options;
    options.mode = "embed";
    options.root = ground_->root();
    return options;
  }

 private:
  std::unique_ptr<test::QemuGround> ground_;
};

const Ground& TheGround() {
  static const auto* const ground = static_cast<Ground*>(testing::AddGlobalTestEnvironment(new Ground));
  return *ground;
}
[[maybe_unused]] const Ground& registered = TheGround();

INSTANTIATE_TEST_SUITE_P(Embed, HypervisorContract,
                         testing::Values(HypervisorFactory{"EmbedMode", [] { return TheGround().Options(); }}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace vexa::hypervisor
