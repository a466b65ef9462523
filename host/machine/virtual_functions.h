// The virtual functions of network cards (SR-IOV), as the kernel shows them in sysfs.
#pragma once

#include <string>
#include <vector>

namespace vexa::machine {

struct VirtualFunctions {
  int total = 0;
  // The PCI addresses ("0000:3b:02.1") of the functions that a guest can be given, in the order of their numbers. They
  // have an IOMMU group, and the host does not use them, which means that they have no interface here that is up or a
  // port of another one.
  std::vector<std::string> usable;
};

// Of the card with this interface; none for any other name. `root` is prepended to "/sys"; "" means the real machine.
// Threads: any, at the same time.
VirtualFunctions FindVirtualFunctions(const std::string& root, const std::string& card);

}  // namespace vexa::machine
