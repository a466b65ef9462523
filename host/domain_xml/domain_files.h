// Reads from domain XML which files a guest's machine opens.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::domain_xml {

// The file or block device of a disk, a drive or the UEFI variables.
struct DomainImage {
  std::string name;  // for messages: "disk 'vda'"
  std::string path;
  ImageFormat format = ImageFormat::kRaw;
  // The machine can start without it: a drive whose medium may be missing, or variables that do not exist yet.
  bool is_optional = false;
};

struct DomainFiles {
  std::vector<DomainImage> images;
  // What else the definition names: the firmware, the files of serial ports, …
  std::vector<std::string> other_files;
  std::vector<std::string> shared_folders;  // the machine may open everything below them
  std::vector<std::string> arguments;       // for QEMU, as the definition's owner wrote them; may contain paths
};

// Names that a definition gets from guests' records, other than those of images, do not count.
// Errors: kInvalid with a sentence, when the XML is not a <domain>, and for images that could bring other files along:
// a disk or drive whose format is neither raw nor qcow2, that has a backing image or a separate file with its data, or
// that is in a storage pool. Pure. Threads: any, at the same time.
Result<DomainFiles> ParseDomainFiles(std::string_view xml);

// The files of the firmware. A member is "" if the guest does not have that part, or it is not in a file.
struct FirmwareFiles {
  std::string loader;
  std::string variables;
};
FirmwareFiles ParseFirmwareFiles(std::string_view xml);

}  // namespace vexa::domain_xml
