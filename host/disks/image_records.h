// The ISO images of the cluster that drives of guests can hold: their records, which records/guest_image.h describes.
//
// Each image has a name and a file of its own. A record names a file, so the commit that adds one writes FilesKey(). It
// also compares it: of two additions of one file under two names one plans again, and finds the other's record.
// Threads: any, at the same time; hosts as well. Asks the file system only while no snapshot is held.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::guests {

inline constexpr int kNotAnImage = 934;  // the path does not lead to a file below a folder of images

struct NewImage {
  std::string name;  // see cluster::IsRecordName
  std::string path;  // absolute, at most cluster::kMaxImagePathBytes of UTF-8 without control characters
  std::string id;    // a UUID; empty: a random one
};

// Whether the texts have these forms; kInvalid with a sentence when not. Reads nothing.
Status CheckImage(const NewImage& image);

// Adds the record of an image that CheckImage accepts, and returns its id in `id`. The file must be a regular one below
// one of `roots`, reached without ".", ".." and symbolic links.
// Refusals: kNotAnImage; cluster::kRecordExists (an image has the id, the name or the file already); kRecordFailed.
Refused AddImage(store::Store& store, const std::vector<std::string>& roots, const NewImage& image, std::string& id);

struct ListedImage {
  std::string id;
  std::string name;                   // "" when the record has none
  std::string path;                   // the same
  std::optional<std::uint64_t> size;  // of the file in bytes; not set: this host does not have the file
};

// All images, by id, without the sizes of their files: host/storage/image_sizes.h finds those. Errors: what the store
// says.
Result<std::vector<ListedImage>> ListImages(const store::Store& store);

// Removes the record of an image. Its file stays. `name` becomes what the image is called, also after a refusal, or ""
// when there is no such image.
// Refusals: kUnreadable (there is no such image); cluster::kRecordInUse (drives of guests have it, by its id or its
// path; the sentence names up to ten of the guests); kRecordFailed.
Refused RemoveImage(store::Store& store, const std::string& id, std::string& name);

}  // namespace vexa::guests
