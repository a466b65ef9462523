// A real host (the program vexad) with guests on QEMU, its API as users call it, and its records.
#pragma once

#include <json/value.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/store/store.h"
#include "tests/support/qemu_guest.h"

namespace vexa::test {

// The files for an environment in which hosts run.
QemuFiles HostFiles();

// A guest that boots from the test guest's image in its drive.
struct HostGuest {
  std::string id;  // UUID; the last two characters distinguish guests
  std::string name;
  GuestImage image = GuestImage::kWithAgent;
  int disks = 1;  // of 1 MiB, with a text at their beginning
  bool has_uefi = false;
  bool has_drive = true;  // false: the image is its first disk, copied below the image folder
};

struct QemuHostOptions {
  std::string hypervisor = "embed";
  std::string embed_root;  // empty: the environment's
  std::string image_root;  // empty: "disks" below the environment
  std::chrono::seconds stop_timeout{30};
  // For another host in the same environment: "-b" is appended to the names of its data folder, socket and log.
  std::string suffix;
  std::string store;  // the folder of the database; empty: "store" in the data folder
  // What to run instead of the environment's vexad: a program and its first arguments.
  std::vector<std::string> command;
  std::string runtime;  // XDG_RUNTIME_DIR: each host with embedded guests needs its own; empty: unchanged
};

inline constexpr const char* kHostRepository = "11111111-2222-4333-8444-00000000000a";
// For waiting on a guest's own system, and for calls.
inline constexpr auto kGuestTimeout = std::chrono::seconds(90);
// For waiting on what the host stores after an event: without one, it checks every 5 s.
inline constexpr auto kStateTimeout = std::chrono::seconds(30);

// Whether `holds` becomes true in time.
bool Await(const std::function<bool()>& holds, std::chrono::milliseconds timeout = kGuestTimeout);

// Whether a file exists, and its content.
bool FileExists(const std::string& path);
std::string Content(const std::string& path);

// Threads: any for the queries and actions on guests, one for everything else.
class QemuHost {
 public:
  // Writes the record of the repository; starts nothing.
  explicit QemuHost(const QemuEnvironment& environment, QemuHostOptions options = {});
  ~QemuHost();
  QemuHost(const QemuHost&) = delete;
  QemuHost& operator=(const QemuHost&) = delete;

  QemuHostOptions& options() { return options_; }
  const std::string& id() const { return host_id_; }
  pid_t pid() const { return pid_; }
  std::string Log() const;  // of all runs
  std::string StoreFolder() const;

  // A test cannot continue without a host: the test program ends when it does not become ready.
  void Start();
  // For a host that must fail to start. Returns its exit code; -1 when it had to be killed.
  int StartExpectingFailure();
  // As the system does when memory runs out: no step is finished.
  void Kill();
  // SIGTERM. Returns how long it took; not set when the host had to be killed after `timeout`.
  std::optional<std::chrono::milliseconds> Stop(std::chrono::milliseconds timeout);
  void Restart();  // Kill and Start

  std::string Socket() const { return folder_ + "/s" + options_.suffix; }
  // Runs the program `vexa` and returns its output; the test program ends when it fails.
  std::string Vexa(std::vector<std::string> arguments) const;

  // --- Records ---
  void PutGuest(const HostGuest& guest);
  void Put(const std::string& category, const std::string& id, const Json::Value& record) const;
  Json::Value Record(const std::string& category, const std::string& id) const;
  void DeleteRunRecord(const std::string& guest) const;  // as if no host had the guest
  bool Has(const std::string& guest) const { return !Record("guest", guest).isNull(); }
  std::string Stored(const std::string& key) const;
  std::string State(const std::string& guest) const;  // "guest_running"
  std::string DiskFolder() const;                     // of the repository
  static std::string DiskId(const std::string& guest, int disk);
  std::string DiskFile(const std::string& guest, int disk) const;
  static std::string DiskText(const std::string& guest, int disk);
  // The guest's disks that are not as PutGuest created them: a line for each.
  std::string ChangedDisks(const std::string& guest, int disks) const;

  // --- Calls ---
  // With the guest's id, unless it is empty.
  Json::Value Ask(const std::string& api_and_method, const std::string& guest, Json::Value extra_members = {}) const;
  // The code of the error; 0 for a success, -1 when no reply came.
  int Code(const std::string& api_and_method, const std::string& guest, const Json::Value& extra_members = {}) const;
  int Power(const std::string& guest, const std::string& action) const;
  int Delete(const std::string& guest) const { return Code("VEXA.Virtualization.Guest/delete", guest); }
  int Set(const std::string& guest, const Json::Value& edit) const;
  // The addresses of a running guest, in one text; empty while they are unknown.
  std::string Addresses(const std::string& guest) const;

  int Qemus(const std::string& guest) const { return CountQemus(folder_, guest); }
  bool AwaitState(const std::string& guest, const std::string& state) const;
  bool AwaitOff(const std::string& guest) const;

 private:
  std::vector<std::string> Arguments() const;
  void Launch();
  std::string DataFolder() const { return folder_ + "/data" + options_.suffix; }
  std::string LogFile() const { return folder_ + "/vexad" + options_.suffix + ".log"; }
  std::shared_ptr<store::Store> Store() const;

  const QemuEnvironment& environment_;
  std::string folder_;
  QemuHostOptions options_;
  std::string host_id_;
  pid_t pid_ = 0;
};

}  // namespace vexa::test
