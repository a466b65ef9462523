// For tests of commands on guests: the real client and a real host in test mode, whose store has the guests of
// EditEnvironment.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/daemon/host_id.h"
#include "tests/support/test_daemon.h"
#include "tests/system/cli_program.h"
#include "tests/unit/guests/guest_edit_environment.h"

namespace vexa::test {

class CliGuestHostTest : public CliTest {
 protected:
  CliGuestHostTest() {
    store::LmdbOptions options;
    options.directory = daemon_->config().data_directory + "/store";
    store_ = Require(store::OpenLmdbStore(options));
    host_id_ = Require(daemon::LoadHostId(daemon_->config().data_directory));
    environment_.Fill(*store_, host_id_);
  }

  ProcessOptions ProgramOn(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--socket", daemon_->config().socket});
    return Program(std::move(arguments));
  }
  ProcessResult RunOn(std::vector<std::string> arguments) const { return RunProcess(ProgramOn(std::move(arguments))); }
  std::string ImageFolder() const { return image_folder_; }

  EditEnvironment environment_;
  const std::unique_ptr<TestDaemon> daemon_ = [this] {
    image_folder_ = environment_.File("images");
    return std::make_unique<TestDaemon>(Configure);
  }();
  std::shared_ptr<store::Store> store_;
  std::string host_id_;

 private:
  static void Configure(daemon::Config& config) {
    config.hypervisor = "test";
    config.image_roots = {image_folder_};
  }

  inline static std::string image_folder_;  // for Configure(), which is a function without state
};

}  // namespace vexa::test
