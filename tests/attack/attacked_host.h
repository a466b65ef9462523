// A daemon that runs as a program, with an administrator, a user without any rights, one with a grant, and guests.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/http_client.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/system/transport_test_support.h"

namespace vexa::test {

inline const std::string kGetPath = "/webapi/VEXA.Virtualization.Guest/get";
inline const std::string kSetPath = "/webapi/VEXA.Virtualization.Guest/set";
inline const std::string kPowerPath = "/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl";
inline const std::string kLoginPath = "/webapi/VEXA.Core.Session/login";
inline const std::string kInfoPath = "/webapi/VEXA.Core.Session/info";
inline const std::string kLogPath = "/webapi/VEXA.Virtualization.Log/list";
inline constexpr const char* kPassword = "correct horse";

// Other hosts of the cluster: they have certificates and never run.
inline constexpr const char* kMember = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4b01";
inline constexpr const char* kRevokedMember = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4b02";
inline constexpr const char* kStranger = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4b03";  // the id of no host

enum class Doors {
  kUsers,          // the Unix socket and a listener for users
  kUsersAndHosts,  // and one for hosts, with TLS
};

struct AttackedHostOptions {
  Doors doors = Doors::kUsers;
  std::string hypervisor = "test";  // libvirt's test driver: guests "run", and take nothing
  int guests = 1;
  std::string folder{};                 // of the data folder; one of the host's own when empty
  std::vector<std::string> flags{};     // of vexad, in addition
  std::vector<std::string> launcher{};  // a program and its arguments that becomes vexad
};

class AttackedHost {
 public:
  // Returns when it serves; the test program ends when it does not.
  explicit AttackedHost(AttackedHostOptions options = {});

  // Starts the daemon again with the same data. The first one returns when it serves, or ends the test program.
  void Start();
  // Whether it serves. False: it has ended, and LastLog() says why.
  bool TryStart();
  // Without a chance to write anything.
  void Kill();
  // How it ended; empty when it does not end.
  std::optional<ExitStatus> Stop();
  bool IsRunning() const { return daemon_ && daemon_->IsRunning(); }
  Process& daemon() const { return *daemon_; }
  // What the daemon that was started last has logged.
  std::string LastLog() const { return daemon_->errors(); }

  // A client with the user's session: "admin", "mallory" (no rights) or "grace" (may use the first guest). A call
  // without an answer within `timeout` fails.
  HttpClient ClientOf(const std::string& user, std::chrono::milliseconds timeout) const;
  const std::string& TokenOf(const std::string& user) const { return tokens_.at(user); }
  // "" when the login is refused.
  std::string Login(const std::string& user, const std::string& password = kPassword) const;
  // Over the Unix socket, as an administrator.
  HttpClient Root(std::chrono::milliseconds timeout) const;
  // Without a login, or with that of `token`.
  HttpClient Network(std::chrono::milliseconds timeout, const std::string& token = "") const;
  // On the listener for hosts, with the certificate of a host; "" for none.
  HttpClient Host(const std::string& host_id, std::chrono::milliseconds timeout) const;

  // The next clients of that host have a certificate with this validity.
  void ReplaceCertificate(const std::string& host_id, const transport::Validity& validity);

  std::uint16_t user_port() const;
  std::uint16_t host_port() const;
  std::string socket() const { return folder_.File("s"); }

  static std::string GuestId(int guest);
  // Whether the client gets the first guest.
  static bool Gets(HttpClient& client);
  // The description of a guest as the client gets it; empty when it does not.
  static std::optional<std::string> DescriptionOf(HttpClient& client, int guest);
  // The reply's code.
  static int Describe(HttpClient& client, int guest, const std::string& description);

  // The daemon's memory that is in RAM.
  std::size_t ResidentBytes() const;
  std::size_t Descriptors() const;

  std::string DataFolder() const { return data_; }
  // Of an older version: read at a start, and renamed to "….taken-over".
  std::string AccountFile() const { return folder_.File("accounts.json"); }
  std::string StoreDirectory() const { return data_ + "/store"; }

 private:
  void MakeCertificates();
  void Seed() const;
  std::vector<std::string> Arguments() const;
  std::uint16_t PortAfter(const std::string& words) const;

  const AttackedHostOptions options_;
  TempDir folder_;
  const std::string data_;
  std::unique_ptr<TestAuthority> authority_;
  std::map<std::string, transport::TlsFiles> certificates_;  // by host id
  std::string host_id_;
  std::unique_ptr<Process> daemon_;
  std::map<std::string, std::string> tokens_;  // by user
};

// The code of an error reply; 0 for a success or no reply.
int CodeOf(const HttpReply& reply);
// The "data" of a reply; null when the reply has no data.
Json::Value DataOf(const HttpReply& reply);

}  // namespace vexa::test
