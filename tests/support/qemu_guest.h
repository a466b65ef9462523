// A small real guest on QEMU, for tests: its images, its records, and an end to all that runs of it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/domain_xml/domain_build.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {

// What tools/make-test-guest makes. It runs with 192 MiB and has its system in memory: no image is written to.
enum class GuestImage {
  kWithAgent,     // shuts down when its agent is asked to, and by the power button
  kWithoutAgent,  // by the power button only
};

// An address of each guest that has a network interface. A second one, below 10.0.0.0/8, is another at each start.
inline constexpr std::string_view kGuestAddress = "192.0.2.10";

// Why no guest can run on QEMU here: a sentence that names what is missing. Empty: nothing is. Whoever skips tests for
// it prints SkipNotice, which ./dev looks for. The answer is found once, before the process gives up its rights: the
// images are read with the rights it has, everything else is run as the user that QemuGround becomes.
std::string WhyNoQemuGuests();
// The same for guests whose firmware is UEFI.
std::string WhyNoFirmware();
std::string SkipNotice(const std::string& why);

// The variables that a guest with UEFI firmware starts with at first.
inline constexpr const char* kFirmwareVariables = "/usr/share/OVMF/OVMF_VARS_4M.fd";

// Whether the user that QemuGround becomes may run `program`, an absolute path.
bool CanNobodyRun(const std::string& program);

// What tests run that "nobody" may not get at, who has no way into the folder of a build below a closed one: absolute
// paths.
enum class GroundUser {
  kNobody,  // in the place of root
  kSame,    // also root: for programs that make networks
};
struct GroundFiles {
  std::vector<std::string> programs;   // opened while that is possible
  std::vector<std::string> libraries;  // copied, to LibraryFolder
  GroundUser user = GroundUser::kNobody;
};

// A folder below which guests can be embedded, with the images in it. When it is root, the process becomes "nobody" for
// good, unless its files say otherwise: QEMU's driver wants no root without a user of its own. All QEMUs with files
// below the folder end with this object, and so do hosts and libvirtds with files there; also when the process ends in
// any other way. Make it before there are threads.
class QemuGround {
 public:
  // Aborts the test program when the folder cannot be made, or a file is missing.
  explicit QemuGround(const GroundFiles& files = {});
  ~QemuGround();
  QemuGround(const QemuGround&) = delete;
  QemuGround& operator=(const QemuGround&) = delete;

  const std::string& folder() const { return folder_.path(); }
  // For HypervisorOptions::root.
  std::string root() const { return folder_.File("qemu"); }
  std::string Image(GuestImage image) const;
  // What this process and its children can execute; of the programs named to the constructor, by file name.
  std::string Program(const std::string& name) const;
  std::string LibraryFolder() const { return folder_.File("lib"); }

  // A child that was forked must call this: the QEMUs end when nobody holds the ground any more.
  void LetGo();

 private:
  void CopyImages() const;
  void CopyLibraries() const;
  void StartGuard();

  struct Dropped {
    explicit Dropped(const GroundFiles& files);
  };
  GroundFiles files_;
  Dropped dropped_;  // before the folder, which then belongs to the user that is left
  TempDir folder_;
  int guard_ = -1;  // its end tells the guard
};

// Ends what runs with a file below `folder` in its command line: hosts (vexad) and libvirtds first, then QEMUs.
void EndPrograms(const std::string& folder);

// How many QEMUs have command lines that name a file below `folder`, and `word`.
int CountQemus(const std::string& folder, const std::string& word);

// The QEMUs whose command lines name a file below `folder`, and `word`.
std::vector<int> QemusOf(const std::string& folder, const std::string& word);

// Ends the QEMUs whose command lines name a file below `folder`, and waits for their ends. How many there were.
int KillQemus(const std::string& folder);

// The records of a guest with one interface in no network, which starts from `image`: as a CD-ROM, or as a disk on
// VirtIO.
enum class StartsFrom { kIso, kDisk };
hypervisor::GuestRecords QemuGuestRecords(const std::string& id, const std::string& name, const std::string& image,
                                          StartsFrom from = StartsFrom::kIso);

}  // namespace vexa::test
