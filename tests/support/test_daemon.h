// A daemon inside the test program, with a few users, a guest and some methods of its own for tests.
#pragma once

#include <json/value.h>

#include <atomic>
#include <memory>
#include <string>

#include "host/cluster/account_store.h"
#include "host/daemon/daemon.h"
#include "tests/support/http_client.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {

inline constexpr const char* kTestGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
inline constexpr const char* kTestPassword = "correct horse";

// Users: admin (administrator), adam (advanced), grace (granted kTestGuest), carol (granted through her group),
// mallory. All have kTestPassword. No hypervisor. Methods of VEXA.Test: anyone, user, admin, host, throws, silent,
// stall.
class TestDaemon {
 public:
  // `adjust` may change the configuration before the start.
  explicit TestDaemon(void (*adjust)(daemon::Config&) = nullptr);
  ~TestDaemon();

  daemon::Daemon& daemon() { return *daemon_; }
  const daemon::Config& config() const { return config_; }
  const TempDir& folder() const { return folder_; }

  // The accounts of the daemon.
  std::unique_ptr<cluster::AccountStore> Accounts() const;

  // A client of the network listener or the Unix socket, not logged in.
  HttpClient Tcp() const;
  HttpClient Unix() const;
  // The token of a new session; the test program ends when the login fails.
  std::string Login(const std::string& user) const;
  HttpClient TcpAs(const std::string& user) const;

  // Gives the account "me" this process's user id and the grants of the user `role` ("admin", "adam", "grace", "carol"
  // or "mallory"), so that calls over the Unix socket are made as that user.
  void ActAsOnUnixSocket(const std::string& role);

  // Lets the calls of "stall" return.
  void ReleaseStalled();
  // How many calls of "stall" are waiting.
  int stalled() const;

 private:
  void PutRecords();
  std::vector<api::ApiRow> Rows();

  TempDir folder_;
  daemon::Config config_;
  struct Stall;
  std::shared_ptr<Stall> stall_;
  std::unique_ptr<daemon::Daemon> daemon_;
};

// The body as JSON; an HTTP failure or a body that is not JSON fails the test and returns null.
Json::Value JsonBody(const HttpReply& reply);
// The reply's error code; 0 for a success, -1 for anything else.
int ErrorCode(const HttpReply& reply);

}  // namespace vexa::test
