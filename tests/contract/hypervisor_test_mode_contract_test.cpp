#include "tests/contract/hypervisor_contract.h"

namespace vexa::hypervisor {
namespace {

INSTANTIATE_TEST_SUITE_P(Test, HypervisorContract,
                         testing::Values(HypervisorFactory{"TestMode", [] { return HypervisorOptions{}; }}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace vexa::hypervisor
