// A network card with virtual functions, in a folder in place of /sys.
#pragma once

#include <fmt/format.h>

#include <filesystem>
#include <string>

#include "tests/unit/machine/fake_interfaces.h"

namespace vexa::test {

class FakeCard {
 public:
  enum class Iommu { kHasGroup, kNone };

  // Adds the card's own interface.
  FakeCard(const FakeInterfaces& net, std::string name) : net_(net), name_(std::move(name)) {
    net_.Add(name_, "device");
  }

  // Returns the PCI address: "0000:3b:02.0", "0000:3b:02.1", …
  std::string AddFunction(Iommu iommu = Iommu::kHasGroup) {
    const std::string address = fmt::format("0000:3b:{:02x}.{}", 2 + count_ / 8, count_ % 8);
    const std::filesystem::path function = net_.Folder(name_) + "/" + address;
    std::filesystem::create_directory(function);
    if (iommu == Iommu::kHasGroup) std::filesystem::create_directory_symlink("../iommu", function / "iommu_group");
    std::filesystem::create_directory_symlink("../" + address,
                                              net_.Folder(name_) + "/device/virtfn" + std::to_string(count_));
    ++count_;
    return address;
  }
  // The host's interface of a function, which is up.
  void AddInterface(int function, const std::string& interface) const {
    net_.Add(interface, "device");
    std::filesystem::create_directories(net_.Folder(name_) + "/device/virtfn" + std::to_string(function) + "/net/" +
                                        interface);
  }

 private:
  const FakeInterfaces& net_;
  const std::string name_;
  int count_ = 0;
};

}  // namespace vexa::test
