// The images of the disks in domain XML, before and after they are copied elsewhere.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::domain_xml {

struct DiskImage {
  std::string path;
  std::string format;  // as in <driver type>; "raw" without it
};

struct DomainImages {
  std::string id;  // of the guest, in lower case; "" without a valid one
  // By target name, without drives. A path can be anything.
  std::map<std::string, DiskImage> disks;
};

// Errors: kInvalid, with a sentence, when the XML is not a <domain>, and for a disk whose image cannot be copied: one
// that is not in a file, is only a part of a file, has a backing image or a separate file with its data, or has the
// target of another. Pure. Threads: any, at the same time.
Result<DomainImages> ParseDomainImages(std::string_view xml);

// The XML with other images, all of them files, for the disks with these targets. What it says about the previous
// images is removed; everything else stays. Errors: kInvalid when the XML is not a <domain>. Pure.
Result<std::string> ReplaceDomainImages(std::string_view xml, const std::map<std::string, DiskImage>& disks);

}  // namespace vexa::domain_xml
