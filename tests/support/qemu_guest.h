// A small real guest on QEMU, for tests: its images, its records, and the cleanup of everything that runs for it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/domain_xml/domain_build.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {

// The images made by tools/make-test-guest. The guest runs with 192 MiB and has its system in memory: no image is
// written to.
enum class GuestImage {
  kWithAgent,     // shuts down on request to its agent, and by the power button
  kWithoutAgent,  // shuts down by the power button only
};

// An address of each guest that has a network interface. A second one, below 10.0.0.0/8, differs at each start.
inline constexpr std::string_view kGuestAddress = "192.0.2.10";

// Why no guest can run on QEMU here: a sentence that names what is missing. Empty: it can. Tests that are skipped for
// this reason print SkipNotice, which ./dev searches for. The answer is determined once, before the process gives up
// its rights: the images are read with its original rights, everything else is run as the user that QemuEnvironment
// switches to.
std::string QemuUnavailableReason();
// The same for guests whose firmware is UEFI.
std::string FirmwareUnavailableReason();
std::string SkipNotice(const std::string& why);

// The initial variables of a guest with UEFI firmware.
inline constexpr const char* kFirmwareVariables = "/usr/share/OVMF/OVMF_VARS_4M.fd";

// Whether the user that QemuEnvironment switches to may run `program`, an absolute path.
bool CanUserNobodyRun(const std::string& program);

// The user that the test program becomes.
enum class QemuUser {
  kNobody,  // instead of root
  kSame,    // stays root: for programs that create networks
};
// Files that tests run and that "nobody" may be unable to reach, for instance in a build folder below a closed one:
// absolute paths.
struct QemuFiles {
  std::vector<std::string> programs;   // opened while that is possible
  std::vector<std::string> libraries;  // copied, to LibraryFolder
  QemuUser user = QemuUser::kNobody;
};

// A folder below which guests can be embedded, containing the images. A process that is root becomes "nobody" for good,
// unless the files say otherwise: QEMU's driver refuses root without a user of its own. All QEMUs with files below the
// folder end with this object, and so do hosts and libvirtds with files there, also when the process ends in any other
// way. Create it before there are threads.
class QemuEnvironment {
 public:
  // Aborts the test program when the folder cannot be made, or a file is missing.
  explicit QemuEnvironment(const QemuFiles& files = {});
  ~QemuEnvironment();
  QemuEnvironment(const QemuEnvironment&) = delete;
  QemuEnvironment& operator=(const QemuEnvironment&) = delete;

  const std::string& folder() const { return folder_.path(); }
  // For HypervisorOptions::root.
  std::string root() const { return folder_.File("qemu"); }
  std::string Image(GuestImage image) const;
  // The executable for this process and its children, by file name, for a program named to the constructor.
  std::string Program(const std::string& name) const;
  std::string LibraryFolder() const { return folder_.File("lib"); }

  // A forked child must call this: the QEMUs end when the last process has closed the environment.
  void ReleaseInChild();

 private:
  void CopyImages() const;
  void CopyLibraries() const;
  void StartGuard();

  struct Dropped {
    explicit Dropped(const QemuFiles& files);
  };
  QemuFiles files_;
  Dropped dropped_;  // before the folder, which then belongs to the new user
  TempDir folder_;
  int guard_ = -1;  // closing it notifies the guard
};

// Ends all programs with a file below `folder` in their command lines: hosts (vexad) and libvirtds first, then QEMUs.
void EndPrograms(const std::string& folder);

// How many QEMUs have command lines with a file below `folder` and with `word`.
int CountQemus(const std::string& folder, const std::string& word);

// The QEMUs whose command lines contain a file below `folder`, and `word`.
std::vector<int> QemusOf(const std::string& folder, const std::string& word);

// Kills the QEMUs whose command lines contain a file below `folder`, and waits for their ends. Returns how many there
// were.
int KillQemus(const std::string& folder);

// The records of a guest with one interface in no network, which boots from `image`: as a CD-ROM, or as a disk on
// VirtIO.
enum class BootMedium { kIso, kDisk };
domain_xml::GuestRecords QemuGuestRecords(const std::string& id, const std::string& name, const std::string& image,
                                          BootMedium from = BootMedium::kIso);

}  // namespace vexa::test
