// The service's unit as `vexa setup` opens it for this host: drop-ins below FOLDER/vexad.service.d.
#pragma once

#include <string>
#include <vector>

#include "host/base/result.h"

namespace vexa::cli {

struct DropIn {
  std::string name;  // of the file
  std::string text;
};

// What the unit needs: to write in `folders`, and with the hypervisor "embed" the rights of QEMU, which is a child of
// the daemon there. Empty when the unit as it is suffices.
std::vector<DropIn> DropInsFor(const std::vector<std::string>& folders, const std::string& hypervisor);

struct UnitChange {
  bool has_changed = false;  // a file
  std::vector<DropIn> kept;  // the path and the wanted text of files that an administrator made
};

// Writes them below `units`, such as /etc/systemd/system. A file that an administrator made stays as it is.
Result<UnitChange> WriteDropIns(const std::string& units, const std::vector<DropIn>& drop_ins);

// The drop-in for "embed" that an earlier run wrote below `units`; "" without one.
std::string OwnEmbedDropIn(const std::string& units);

}  // namespace vexa::cli
