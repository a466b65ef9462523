// A host that has died: what the client says about guests on it.
#include <signal.h>

#include <chrono>

#include "tests/support/process.h"
#include "tests/system/transport_cluster.h"

namespace vexa::test {
namespace {

using std::chrono::seconds;

constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";
constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";

class DeadHost : public TransportCluster {
 protected:
  void PutRecords() override {
    PutRepository(kRepository, 1);
    Put("guest", kGuest,
        R"({"name":"web-1","vcpu_num":1,"vram_size":16,"vdisks":[],"vnics":[],"repository_id":")" +
            std::string(kRepository) + R"(","host_id":")" + IdOf(1) + "\"}");
  }
  std::string Stop() {
    const auto result =
        RunProcess({.argv = {VEXA_PROGRAM, "--socket", Folder(0) + "/s", "guest", "stop", kGuest},
                    .environment = {{"HOME", folder_.path()}, {"XDG_CONFIG_HOME", folder_.File("config")}}});
    EXPECT_EQ(result.exit_code, 1);
    EXPECT_EQ(result.output, "");
    return result.errors;
  }
};

TEST_F(DeadHost, Action_NamesHostAndWhatHelps) {
  hosts_[1]->Signal(SIGKILL);
  ASSERT_TRUE(hosts_[1]->Wait(seconds(30)));
  const std::string begin = "vexa: web-1: The guest could not be shut down \\(903\\)\\.\n";
  EXPECT_THAT(Stop(), MatchesRegex(begin + "  Reason: No reply from host '[^']+': [^\n]+\\.\n"
                                           "  Hint: 'vexa host list' shows which hosts answer\\.\n"));
  // Once its heartbeats are missed.
  std::string errors;
  const auto end = std::chrono::steady_clock::now() + seconds(90);
  while (errors.find("has been inaccessible since") == std::string::npos && std::chrono::steady_clock::now() < end) {
    errors = Stop();
  }
  EXPECT_THAT(errors, MatchesRegex(
                          begin + "  Reason: The guest's host '[^']+' has been inaccessible since [-0-9T:]+Z; when its "
                                  "machine is off, release the guest with 'vexa guest recover'\\.\n"
                                  "  Hint: 'vexa host list' shows which hosts answer\\.\n"));
}

}  // namespace
}  // namespace vexa::test
