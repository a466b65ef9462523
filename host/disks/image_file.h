// Creates and grows disk images without another program.
//
// A raw image grows by its length. A qcow2 image grows by changing 16 bytes of its header (its size, and the number of
// entries in its first-level table), as long as the clusters of that table have room; the images created here have room
// for at least 4 TiB. Both kinds can be restored exactly until the added part is written to.
//
// Written by hand because qemu-img opens an image by its path, which could be replaced by a link after the check
// (disk_files.h), and changes more than the bytes that an edit can record before and restore afterwards.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/disks/disk_files.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::disks {

// The content of an empty image of `size` bytes, a multiple of 1 MiB; zeros elsewhere.
struct EmptyImage {
  std::uint64_t length = 0;  // of the file
  std::vector<FilePiece> pieces;
};
EmptyImage MakeEmptyImage(domain_xml::ImageFormat format, std::uint64_t size);

// A planned change of an image's size: of the length of a raw image, or of the header of a qcow2 image.
struct Growth {
  std::string path;  // normal
  std::uint64_t from_length = 0;
  std::uint64_t to_length = 0;
  std::string from_header;  // the 16 bytes of the header that change; empty for a raw image
  std::string to_header;
  bool operator==(const Growth&) const = default;
};

// How to change the image so that its guest sees `size` bytes. Nothing is changed yet. Errors: kConflict (it is already
// larger), kNotFound, kInvalid (an image of another format, or one that cannot grow in place), and those of the system,
// all with the path.
Result<Growth> PlanGrowth(const DiskFiles& files, const std::string& path, domain_xml::ImageFormat format,
                          std::uint64_t size);

// The current state of an image: as before the growth, as after it, or changed by something else. Errors: those of the
// system.
enum class GrowthState { kBefore, kAfter, kOther };
Result<GrowthState> StateOf(const DiskFiles& files, const Growth& growth);

// Each does nothing when already done. Errors: kConflict when the image is neither as before nor as after, kBusy when a
// VM process has it open.
Status Grow(const DiskFiles& files, const Growth& growth);
Status UndoGrowth(const DiskFiles& files, const Growth& growth);

}  // namespace vexa::disks
