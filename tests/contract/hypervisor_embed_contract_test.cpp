#include "tests/contract/hypervisor_contract.h"
#include "tests/support/qemu_guest.h"

namespace vexa::hypervisor {
namespace {

// One folder for all tests, because a process can embed guests below only one folder. Each test leaves it empty.
class EmbedEnvironment : public testing::Environment {
 public:
  void SetUp() override {
    const std::string why_not = test::QemuUnavailableReason();
    if (!why_not.empty()) GTEST_SKIP() << test::SkipNotice(why_not);
    environment_ = std::make_unique<test::QemuEnvironment>();
  }
  void TearDown() override { environment_.reset(); }

  HypervisorOptions Options() const {
    HypervisorOptions options;
    options.mode = "embed";
    options.root = environment_->root();
    return options;
  }

 private:
  std::unique_ptr<test::QemuEnvironment> environment_;
};

const EmbedEnvironment& TheEnvironment() {
  static const auto* const environment =
      static_cast<EmbedEnvironment*>(testing::AddGlobalTestEnvironment(new EmbedEnvironment));
  return *environment;
}
[[maybe_unused]] const EmbedEnvironment& registered = TheEnvironment();

INSTANTIATE_TEST_SUITE_P(Embed, HypervisorContract,
                         testing::Values(HypervisorFactory{"EmbedMode", [] { return TheEnvironment().Options(); }}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace vexa::hypervisor
