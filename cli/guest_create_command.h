// vexa guest create.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "cli/client_options.h"
#include "host/base/result.h"

namespace vexa::cli {

enum class StartAfterwards { kNo, kYes };

struct GuestCreateOptions {
  std::string name;
  std::vector<std::string> settings;  // "video_card=vga"
  std::string os;                     // "" for the server's default; the same for all that follow
  std::string cpus;
  std::string memory;              // "2GiB"
  std::vector<std::string> disks;  // "20GiB,format=raw"
  std::vector<std::string> nets;   // "lan,type=2,mac=02:00:5e:10:00:01"
  std::vector<std::string> usbs;
  std::string iso;
  std::string repository;
  std::string host;                // "none" for none
  std::vector<std::string> allow;  // "user:alice"
  std::string request_id;
  StartAfterwards start = StartAfterwards::kNo;
};

// The parameters of the method "create". kInvalid for an argument that cannot be parsed and for a value that a guest
// cannot have.
Result<Json::Value> CreationParametersOf(const GuestCreateOptions& options);

ExitCode RunGuestCreate(const GlobalOptions& global, const GuestCreateOptions& options);

}  // namespace vexa::cli
