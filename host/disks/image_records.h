// The records of the cluster's ISO images, which CD-ROM drives of guests can contain. Their format is in
// host/records/guest_image.h.
//
// Each image has a name and a file of its own. A record refers to a file, so the commit that adds one writes
// FileReferencesGuardKey(). It also compares it: the second of two commits that add the same file under different names
// conflicts, is planned again and finds the other's record. Accesses the file system only while no snapshot is open.
// Threads: any, at the same time; hosts as well.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/records/named_record.h"
#include "host/store/store.h"
#include "webapi/error_codes.h"

namespace vexa::disks {

inline constexpr int kNotAnImage =
    user_error::kImageUnusable;  // the path does not lead to a file below an image folder

struct NewImage {
  std::string name;        // see records::IsRecordName
  std::string path;        // absolute, at most records::kMaxImagePathBytes of UTF-8 without control characters
  std::string id;          // a UUID; empty: a random one
  Json::Value uploaded{};  // of its file, see host/storage/uploaded_file.h; null: this system did not make it
};

// Checks the form of the members. Errors: kInvalid with a sentence. Reads nothing from the store or the disk.
Status CheckImage(const NewImage& image);

// Adds the record of an image that CheckImage accepts, and sets `id` to its id. The file must be a regular one below
// one of `roots`, reached without ".", ".." and symbolic links.
// Refusals: kNotAnImage; records::kRecordExists (an image has the id, the name or the file already); kRecordFailed.
Result<void, Refusal> AddImage(store::Store& store, const std::vector<std::string>& roots, const NewImage& image,
                               std::string& id);

// The transaction that adds the record of an image with the UUID `id`. Sets `refused` and returns an empty one when an
// image has the id, the name or the file already (records::kRecordExists). Errors: those of the store.
Result<store::Transaction> PlanImageAddition(const store::Snapshot& snapshot, const NewImage& image,
                                             const std::string& id, std::optional<Refusal>& refused);

struct ListedImage {
  std::string id;
  std::string name;                   // "" when the record has none
  std::string path;                   // the same
  std::optional<std::uint64_t> size;  // of the file in bytes; not set: this host does not have the file
};

// All images, by id, without the sizes of their files: host/storage/image_sizes.h finds those. Errors: those of the
// store.
Result<std::vector<ListedImage>> ListImages(const store::Store& store);

// Adds operations to the commit that removes the record of an image.
using AlsoWhenRemoved = std::function<void(const records::NamedRecord& image, store::Transaction& transaction)>;

// Removes the record of an image. Its file stays. `also` is called for every attempt to commit, so the last call
// counts. Sets `name` to the name of the image, also when it
// refuses, or to "" when there is no such image. Refusals: kNotFoundOrUnreadable (there is no such image);
// records::kRecordInUse (drives of guests have it, by its id or its path; the sentence names up to ten of the guests);
// kRecordFailed.
Result<void, Refusal> RemoveImage(store::Store& store, const std::string& id, std::string& name,
                                  const AlsoWhenRemoved& also = {});

}  // namespace vexa::disks
