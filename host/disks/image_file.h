// New and grown images of disks, made without another program.
//
// A raw image grows by its length. A qcow2 image grows by 16 bytes of its header (its size, and how many entries its
// first-level table has), as long as the clusters of that table have room; the images made here have room up to 4 TiB
// at least. Both can be put back exactly for as long as nobody has written to the part that was added.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/domain_xml/domain_xml.h"

namespace vexa::guests {

// What an empty image of `size` bytes, a multiple of 1 MiB, consists of; zeros elsewhere.
struct EmptyImage {
  std::uint64_t length = 0;  // of the file
  std::vector<FilePiece> pieces;
};
EmptyImage MakeEmptyImage(hypervisor::ImageFormat format, std::uint64_t size);

// Of a raw image the lengths, of a qcow2 image the bytes of the header.
struct Growth {
  std::string path;  // normal
  std::uint64_t from_length = 0;
  std::uint64_t to_length = 0;
  std::string from_head;  // 16 bytes, or none for a raw image
  std::string to_head;
  bool operator==(const Growth&) const = default;
};

// How the image is to be changed so that its guest sees `size` bytes. Nothing is changed yet. Errors: kConflict (it is
// larger already), kNotFound, kInvalid (it is no such image, or one that cannot grow in place), and what the system
// says, all with the path.
Result<Growth> PlanGrowth(const DiskFiles& files, const std::string& path, hypervisor::ImageFormat format,
                          std::uint64_t size);

// What an image is now: as before the growth, as after it, or changed by somebody else. Errors: what the system says.
enum class GrowthState { kBefore, kAfter, kOther };
Result<GrowthState> StateOf(const DiskFiles& files, const Growth& growth);

// Each does nothing when it was done already. Errors: kConflict when the image is neither as before nor as after, kBusy
// when a machine has it open.
Status Grow(const DiskFiles& files, const Growth& growth);
Status UndoGrowth(const DiskFiles& files, const Growth& growth);

}  // namespace vexa::guests
