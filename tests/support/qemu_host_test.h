// Fixtures for tests with a host and guests on QEMU: with QEMU's driver embedded in the host, or a libvirtd beside it.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "tests/support/libvirt_user.h"
#include "tests/support/private_libvirtd.h"
#include "tests/support/qemu_host.h"

namespace vexa::test {

// The host has records and is not started.
class EmbeddedHostTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::string why_not = UnavailableReason();
    if (!why_not.empty()) GTEST_SKIP() << SkipNotice(why_not);
    environment_ = std::make_unique<QemuEnvironment>(HostFiles());
    MakeHost();
  }
  void TearDown() override {
    host_.reset();
    environment_.reset();
  }

  virtual std::string UnavailableReason() { return FirmwareUnavailableReason(); }
  virtual void MakeHost() { host_ = std::make_unique<QemuHost>(*environment_); }

  // Starts the host with one guest.
  void StartHostWith(const std::string& guest_id, const std::string& name) {
    HostGuest guest;
    guest.id = guest_id;
    guest.name = name;
    host_->PutGuest(guest);
    host_->Start();
  }

  std::unique_ptr<QemuEnvironment> environment_;
  std::unique_ptr<QemuHost> host_;
};

// The host's hypervisor is a libvirtd that its users access as well.
class LibvirtHostTest : public EmbeddedHostTest {
 protected:
  void TearDown() override {
    host_.reset();
    libvirtd_.reset();
    environment_.reset();
  }

  std::string UnavailableReason() override {
    const std::string why_not = LibvirtdUnavailableReason();
    return why_not.empty() ? FirmwareUnavailableReason() : why_not;
  }
  void MakeHost() override {
    libvirtd_ = std::make_unique<PrivateLibvirtd>(*environment_);
    user_ = std::make_unique<LibvirtUser>(libvirtd_->uri());
    QemuHostOptions options;
    options.hypervisor = libvirtd_->uri();
    host_ = std::make_unique<QemuHost>(*environment_, options);
  }

  // A domain with an image to boot from and a disk of its own, both in the place of the host's own guests.
  UserDomain MakeUserDomain(const std::string& id, const std::string& name) const {
    UserDomain domain;
    domain.id = id;
    domain.name = name;
    domain.screen = environment_->folder() + "/" + name + ".vnc";
    domain.boot_image = host_->DiskFile(id, 0);
    domain.disks = {host_->DiskFile(id, 1)};
    std::filesystem::copy_file(environment_->Image(GuestImage::kWithAgent), domain.boot_image);
    std::string bytes = QemuHost::DiskText(id, 1);
    bytes.resize(1 << 20, '\0');
    std::ofstream(domain.disks[0], std::ios::binary) << bytes;
    return domain;
  }
  // Whether both are as MakeUserDomain created them.
  bool AreDisksIntact(const UserDomain& domain) const {
    return Content(domain.boot_image).size() == Content(environment_->Image(GuestImage::kWithAgent)).size() &&
           Content(domain.disks[0]).starts_with(QemuHost::DiskText(domain.id, 1));
  }
  // Turns every domain that libvirt knows now into a guest of `host_id`. The host of the test must be running.
  void ImportAll(const std::string& host_id) const {
    host_->Vexa({"import", "--all", libvirtd_->uri(), "--socket", host_->Socket(), "--host-id", host_id,
                 "--repository-id", kHostRepository});
  }
  // The files of libvirt with saved memory.
  int CountSavedMemoryFiles() const {
    int count = 0;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(environment_->folder(), ignored)) {
      count += entry.path().extension() == ".save" ? 1 : 0;
    }
    return count;
  }

  std::unique_ptr<PrivateLibvirtd> libvirtd_;
  std::unique_ptr<LibvirtUser> user_;
};

// The files with UEFI variables below `folder`, and a text in them that firmware does not touch.
inline std::vector<std::string> FindNvramFiles(const std::string& folder) {
  namespace fs = std::filesystem;
  std::vector<std::string> found;
  std::error_code ignored;
  const auto size = fs::file_size(kFirmwareVariables, ignored);
  for (const auto& entry : fs::recursive_directory_iterator(folder, ignored)) {
    // Many files have this size, such as a store that grows, so the name is checked too.
    const bool is_named = entry.path().filename().string().find("_VARS") != std::string::npos;
    const bool is_sized = entry.is_regular_file(ignored) && entry.file_size(ignored) == size;
    if (is_named && is_sized) found.push_back(entry.path().string());
  }
  return found;
}

// Near the end of the part that is only written while the firmware compacts its variables.
inline constexpr int kNvramMarkOffset = 64;
inline constexpr const char* kMark = "What the guest has stored";

inline void Mark(const std::string& path) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(-kNvramMarkOffset, std::ios::end);
  file << kMark;
}
inline bool HasNvramMark(const std::string& path) { return Content(path).find(kMark) != std::string::npos; }

}  // namespace vexa::test
