// A daemon that runs as a program, with an administrator, a user without any rights, and a guest.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "tests/support/http_client.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {

inline const std::string kGetPath = "/webapi/VEXA.Virtualization.Guest/get";

class AttackedHost {
 public:
  // Returns when it serves; the test program ends when it does not.
  AttackedHost();

  // A client with the user's session, "admin" or "mallory". A call without an answer within `timeout` fails.
  HttpClient ClientOf(const std::string& user, std::chrono::milliseconds timeout) const;
  // Whether the administrator's `client` gets the guest.
  static bool Gets(HttpClient& client);

  // The daemon's memory that is in RAM.
  std::size_t ResidentBytes() const;
  std::string StoreDirectory() const { return folder_.File("data/store"); }

 private:
  void Seed() const;
  std::string Login(const std::string& user) const;

  TempDir folder_;
  std::unique_ptr<Process> daemon_;
  std::map<std::string, std::string> tokens_;  // by user
};

// The code of an error reply; 0 for a success or no reply.
int CodeOf(const HttpReply& reply);

}  // namespace vexa::test
