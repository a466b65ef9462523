// vexa image: the images that guests' drives can hold.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/store/store.h"

namespace vexa::cli {

struct NewImage {
  std::string name;                // 1 to 128 bytes of UTF-8 without control characters
  std::string path;                // of the file; a relative one is below the current folder
  std::string id;                  // a UUID; empty: a random one
  std::vector<std::string> roots;  // absolute paths of the folders with images
};

// Writes the record of an image, and its id to `out`. kInvalid for texts that cannot be, and for a path that leads to
// no regular file below a root, without ".." and links; kConflict when an image has the id, the name or the file
// already.
Status AddImage(const NewImage& image, store::Store& store, std::ostream& out);

// A table of id, name, size, whether the file is there, and path, or an array of the records with id, size in bytes and
// "present".
enum class ImageForm { kTable, kJson };
Status ListImages(store::Store& store, ImageForm form, std::ostream& out);

}  // namespace vexa::cli
