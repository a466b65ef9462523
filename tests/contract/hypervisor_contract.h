// The contract of every mode of the hypervisor. A mode is tested by instantiating HypervisorContract with a factory.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

#include "tests/support/guest_events.h"

namespace vexa::hypervisor {

struct HypervisorFactory {
  std::string name;
  std::function<HypervisorOptions()> options;  // for a connection without guests
};

inline void PrintTo(const HypervisorFactory& factory, std::ostream* out) { *out << factory.name; }

class HypervisorContract : public testing::TestWithParam<HypervisorFactory> {
 protected:
  void SetUp() override;
  void TearDown() override;  // removes all guests

  // The domain XML of the guest with this number, which this mode can start. Without `name`, it is "guest-<number>".
  std::string Xml(int number, const std::string& name = "") const;
  // The id of the guest with this number.
  static std::string Id(int number);
  // The reported states of a guest, once there are `count` of them. Without kShuttingDown, which some drivers report
  // for a guest that is powered off.
  std::vector<GuestState> AwaitStates(const std::string& id, std::size_t count) const;
  // Defines the guest with this number and waits for the event. Returns its id.
  std::string Define(int number);

  test::GuestEvents events_;
  std::unique_ptr<Hypervisor> hypervisor_;
};

}  // namespace vexa::hypervisor
