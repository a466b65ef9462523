#include "host/storage/uploads.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/base/byte_text.h"
#include "host/base/descriptor.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/sha256.h"
#include "host/base/uuid.h"
#include "host/disks/image_records.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/object_edit.h"
#include "host/records/request_scope.h"
#include "host/storage/upload_file.h"
#include "host/storage/uploads_turn.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::storage {
namespace {

using records::RequestPause;
using VexaCCC::DB::DashCate;

constexpr std::size_t kMaxDisplayed = 128;
constexpr std::size_t kReadBytes = std::size_t{1} << 20;
constexpr std::size_t kMaxFileNameBytes = 255;

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, kMaxDisplayed) + "'"; }

Refusal StoreFailed(const Error& error) { return {records::kRecordFailed, error.ToString()}; }
Refusal BadParameter(std::string reason) { return {user_error::kBadParameter, std::move(reason)}; }

Refusal NoSuchUpload(const std::string& id) {
  return {host_error::kNotFoundOrUnreadable, fmt::format("There is no upload {}", Quoted(id))};
}

Refusal BusyRefusal() {
  return {user_error::kHostBusy, "Another call works on the upload. Try again when it has been answered"};
}

// The normal path of an image folder; "" when it is not an absolute path.
std::string NormalRoot(const std::string& root) {
  const std::vector<std::string> normal = disks::NormalRoots({root});
  return normal.empty() ? std::string() : normal.front();
}

std::optional<std::uint64_t> FreeBytes(int folder) {
  struct statvfs space {};
  if (::fstatvfs(folder, &space) != 0) return std::nullopt;
  return std::uint64_t{space.f_bavail} * space.f_frsize;
}

// Asks the server of a network file system too, unlike stat(2).
void Probe(const std::string& folder) {
  struct statvfs space {};
  (void)::statvfs(folder.c_str(), &space);
}

Refusal NameTaken(const std::string& name, const std::string& by) {
  return {records::kRecordExists, fmt::format("The name {} is taken by {}", Quoted(name), by)};
}

Result<void, Refusal> CheckForm(const NewUpload& upload, const std::vector<std::string>& roots) {
  if (!records::IsRecordName(upload.name)) {
    return BadParameter("An image's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  Upload named;
  named.name = upload.name;
  if (!CanBeFileName(upload.name) || named.FileName().size() > kMaxFileNameBytes) {
    return BadParameter(
        "The name of an uploaded image is that of its file: it has no slash and does not begin with a dot");
  }
  if (upload.size == 0) return BadParameter("The size of an upload is a number of bytes, at least 1");
  if (!IsSha256(upload.sha256)) return BadParameter("The SHA-256 is not 64 hexadecimal digits in lower case");
  if (std::ranges::find(roots, upload.root) != roots.end()) return {};
  std::string all;
  for (const std::string& root : roots) all += (all.empty() ? "" : ", ") + QuotedPath(root);
  return BadParameter(fmt::format("The folder {} is not one of the image folders {}", QuotedPath(upload.root), all));
}

// Why the upload cannot have its name, or its file's; not set when it can. The files of images have different paths
// even when they are on different hosts. Errors: those of the store.
Result<std::optional<Refusal>> FindNameConflict(const store::Snapshot& snapshot, const NewUpload& given) {
  Upload upload;
  upload.name = given.name;
  upload.root = given.root;
  const std::string path = upload.Path();
  const auto conflict = [&](bool has_name, const std::string& by) {
    return std::optional(
        has_name ? NameTaken(given.name, by)
                 : Refusal{records::kRecordExists, fmt::format("The file {} is that of {}", QuotedPath(path), by)});
  };
  const auto images = records::ReadNamedRecords(snapshot, records::kImageCategory);
  if (!images) return images.error();
  for (const records::NamedRecord& image : *images) {
    const bool has_name = image.name == given.name;
    if (has_name || json::StringMember(image.record, records::kImagePath) == path) {
      return conflict(has_name, "the image " + Quoted(image.id));
    }
  }
  const auto uploads = ReadUploads(snapshot);
  if (!uploads) return uploads.error();
  for (const Upload& other : *uploads) {
    const bool has_name = other.name == given.name;
    if (has_name || other.Path() == path) return conflict(has_name, "the upload " + Quoted(other.id));
  }
  return std::optional<Refusal>();
}

bool IsSame(const Upload& upload, const NewUpload& other) {
  return upload.name == other.name && upload.size == other.size && upload.sha256 == other.sha256 &&
         upload.root == other.root;
}

}  // namespace

Uploads::Uploads(UploadOptions options)
    : options_([&options] {
        for (std::string& root : options.roots) root = NormalRoot(root);
        if (!options.free_bytes) options.free_bytes = FreeBytes;
        if (!options.probe) options.probe = Probe;
        return std::move(options);
      }()),
      calls_(options_.timeout) {}

void Uploads::BeforeStep(const char* step) const {
  if (options_.before_step) options_.before_step(step);
}

Result<Upload, Refusal> Uploads::Read(const std::string& id) const {
  const auto snapshot = options_.store->Read();
  if (!snapshot) return StoreFailed(snapshot.error());
  const auto upload = ReadUpload(**snapshot, id);
  if (!upload) return StoreFailed(upload.error());
  if (!*upload) return NoSuchUpload(id);
  if ((*upload)->host_id != options_.host_id) {
    return Refusal{host_error::kNotFoundOrUnreadable,
                   fmt::format("The upload {} is on the host {}", Quoted(id), Quoted((*upload)->host_id))};
  }
  return **upload;
}

Result<void, Refusal> Uploads::CheckLimits(const std::vector<Upload>& uploads, const NewUpload& upload) const {
  const UploadLimits& limits = options_.limits;
  if (upload.size > limits.size) {
    return Refusal{user_error::kUploadLimit, fmt::format("The image has {}, and an upload at most {} here",
                                                         ByteText(upload.size), ByteText(limits.size))};
  }
  std::size_t count = 0;
  std::uint64_t total = 0;
  for (const Upload& other : uploads) {
    if (other.host_id != options_.host_id) continue;
    ++count;
    total += other.size;
  }
  if (count >= limits.count) {
    return Refusal{
        user_error::kUploadLimit,
        fmt::format("There are {} uploads in progress, and {} at most. Finish or cancel one", count, limits.count)};
  }
  if (total > limits.total || upload.size > limits.total - total) {
    return Refusal{user_error::kUploadLimit,
                   fmt::format("The image has {}, the uploads in progress {}, and all together at most {} here",
                               ByteText(upload.size), ByteText(total), ByteText(limits.total))};
  }
  return {};
}

// `promised`: what other uploads still need on the same file system.
Result<void, Refusal> Uploads::CheckRoom(int root, std::uint64_t bytes, std::uint64_t promised) const {
  const std::optional<std::uint64_t> free_bytes = options_.free_bytes(root);
  const std::uint64_t reserve = options_.limits.reserve;
  if (!free_bytes ||
      (*free_bytes >= reserve && *free_bytes - reserve >= promised && *free_bytes - reserve - promised >= bytes)) {
    return {};
  }
  const std::string others = promised == 0 ? "" : fmt::format(", other uploads need {}", ByteText(promised));
  return Refusal{user_error::kNoRoom, fmt::format("{} are needed, {} are free{}, and {} have to stay free",
                                                  ByteText(bytes), ByteText(*free_bytes), others, ByteText(reserve))};
}

Result<void, Refusal> Uploads::CheckResponds(const std::string& folder) const {
  BoundedCalls::Call call = calls_.Begin(folder, [probe = options_.probe, folder] { probe(folder); });
  if (call.Wait()) return {};
  return Refusal{user_error::kUnavailable,
                 fmt::format("The file system of {} does not answer. Try again once it does", QuotedPath(folder))};
}

Result<Descriptor, Refusal> Uploads::OpenRoot(const Upload& upload) const {
  if (auto checked = CheckResponds(upload.root); !checked.ok()) return checked.error();
  return OpenUploadRoot(upload);
}

std::uint64_t Uploads::PromisedBytes(const std::vector<Upload>& uploads, int root) const {
  struct stat here {};
  if (::fstat(root, &here) != 0) return 0;
  std::uint64_t bytes = 0;
  for (const Upload& other : uploads) {
    if (other.host_id != options_.host_id) continue;
    const Result<Descriptor, Refusal> folder = OpenRoot(other);
    struct stat there {};
    if (!folder.ok() || ::fstat(folder->get(), &there) != 0 || there.st_dev != here.st_dev) continue;
    const auto received = ReceivedBytes(other, folder->get());
    if (received.ok() && *received < other.size) bytes += other.size - *received;
  }
  return bytes;
}

Result<UploadProgress, Refusal> Uploads::Begin(const NewUpload& given) {
  const RequestPause pause;
  NewUpload upload = given;
  upload.root = given.root.empty() && !options_.roots.empty() ? options_.roots.front() : NormalRoot(given.root);
  if (const auto checked = CheckForm(upload, options_.roots); !checked.ok()) return checked.error();
  const MutexLock beginning(beginning_);
  std::vector<Upload> uploads;
  std::optional<Refusal> conflict;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return StoreFailed(snapshot.error());
    auto all = ReadUploads(**snapshot);
    if (!all) return StoreFailed(all.error());
    uploads = std::move(*all);
    auto found = FindNameConflict(**snapshot, upload);
    if (!found) return StoreFailed(found.error());
    conflict = std::move(*found);
  }
  for (const Upload& other : uploads) {
    if (other.host_id == options_.host_id && IsSame(other, upload)) return ProgressOf(other.id);
  }
  if (conflict) return *std::move(conflict);
  if (const auto checked = CheckLimits(uploads, upload); !checked.ok()) return checked.error();
  if (const auto checked = CheckResponds(upload.root); !checked.ok()) return checked.error();
  const Status made = MakeImageFolder(*options_.store, options_.host_id, upload.root, "", options_.access);
  if (!made) return Refusal{user_error::kUnavailable, made.error().ToString()};
  Upload begun;
  begun.name = upload.name;
  begun.root = upload.root;
  const auto root = OpenRoot(begun);
  if (!root.ok()) return root.error();
  if (const auto checked = CheckRoom(root->get(), upload.size, PromisedBytes(uploads, root->get())); !checked.ok()) {
    return checked.error();
  }
  struct stat info {};
  if (::fstatat(root->get(), begun.FileName().c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
    return NameTaken(upload.name, "the file " + QuotedPath(begun.Path()));
  }
  const auto id = Register(upload);
  if (!id.ok()) return id.error();
  return UploadProgress{*id, 0, upload.size};
}

// Writes the record, unless the name is taken.
Result<std::string, Refusal> Uploads::Register(const NewUpload& given) {
  Upload upload;
  upload.host_id = options_.host_id;
  upload.name = given.name;
  upload.user = given.user;
  upload.root = given.root;
  upload.size = given.size;
  upload.sha256 = given.sha256;
  upload.began = options_.now();
  Result<std::string> id = RandomUuid();
  if (!id) return StoreFailed(id.error());
  upload.id = *id;
  Result<FolderChain> folders = ReadFolderChain({upload.root}, upload.Path());
  if (!folders) return Refusal{user_error::kUnavailable, folders.error().ToString()};
  upload.folders = std::move(*folders);
  const auto plan = [&](const records::Reader& reader, std::optional<Refusal>& refused) -> Result<store::Transaction> {
    store::Transaction transaction;
    auto conflict = FindNameConflict(reader, given);
    if (!conflict) return conflict.error();
    refused = std::move(*conflict);
    if (refused) return transaction;
    const auto guard = reader.Get(UploadsGuardKey());
    if (!guard) return guard.error();
    transaction.compares.push_back({UploadsGuardKey(), guard->has_value() ? (*guard)->revision : 0});
    transaction.operations.push_back({UploadsGuardKey(), json::ToText(Json::Value(upload.id))});
    transaction.operations.push_back({UploadKey(upload.id), UploadText(upload)});
    return transaction;
  };
  BeforeStep("register");
  if (auto committed = records::CommitRecord(*options_.store, plan); !committed.ok()) return committed.error();
  return upload.id;
}

Result<UploadProgress, Refusal> Uploads::ProgressOf(const std::string& id) const {
  const RequestPause pause;
  const auto upload = Read(id);
  if (!upload.ok()) return upload.error();
  const auto root = OpenRoot(*upload);
  if (!root.ok()) return root.error();
  const auto received = ReceivedBytes(*upload, root->get());
  if (!received.ok()) return received.error();
  return UploadProgress{id, *received, upload->size};
}

Result<std::vector<ListedUpload>> Uploads::List() const {
  const RequestPause pause;
  std::vector<ListedUpload> listed;
  {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return snapshot.error();
    auto all = ReadUploads(**snapshot);
    if (!all) return all.error();
    for (Upload& upload : *all) listed.push_back({std::move(upload), std::nullopt});
  }
  for (ListedUpload& each : listed) {
    if (each.upload.host_id != options_.host_id) continue;
    const auto root = OpenRoot(each.upload);
    if (!root.ok()) continue;
    const auto received = ReceivedBytes(each.upload, root->get());
    if (received.ok()) each.received = *received;
  }
  return listed;
}

Result<std::uint64_t, PieceRefusal> Uploads::Append(const std::string& id, const UploadPiece& piece) {
  const RequestPause pause;
  const auto refuse = [](Refusal refusal) { return PieceRefusal{std::move(refusal), std::nullopt}; };
  const Turn turn(*this, id);
  if (!turn.is_taken()) return refuse(BusyRefusal());
  const auto upload = Read(id);
  if (!upload.ok()) return refuse(upload.error());
  if (piece.total != upload->size) {
    return refuse(BadParameter(fmt::format("The upload has {} bytes, not {}", upload->size, piece.total)));
  }
  const auto root = OpenRoot(*upload);
  if (!root.ok()) return refuse(root.error());
  const auto received = ReceivedBytes(*upload, root->get());
  if (!received.ok()) return refuse(received.error());
  const auto refuse_at = [&](Refusal refusal) { return PieceRefusal{std::move(refusal), *received}; };
  if (piece.offset != *received) {
    return refuse_at({user_error::kUploadOffset,
                      fmt::format("The piece begins at {}, and the upload continues at {}", piece.offset, *received)});
  }
  if (piece.bytes.empty() || piece.bytes.size() > upload->size - *received) {
    return refuse_at(BadParameter("The piece is empty, or longer than what is missing"));
  }
  if (const auto checked = CheckRoom(root->get(), piece.bytes.size(), 0); !checked.ok()) {
    return refuse_at(checked.error());
  }
  return Write(*upload, root->get(), piece);
}

Result<std::uint64_t, PieceRefusal> Uploads::Write(const Upload& upload, int root, const UploadPiece& piece) const {
  const auto refuse = [&](int error_number) {
    return PieceRefusal{FileFailed(upload, "written", error_number), piece.offset};
  };
  Result<Descriptor, int> file = OpenPartial(upload, root);
  if (!file.ok() && file.error() == ENOENT) {
    int made = -1;
    if (const int error_number = options_.calls.create(root, upload.PartialName().c_str(), &made)) {
      return refuse(error_number);
    }
    file = Descriptor(made);
    if (const int error_number = options_.calls.sync(root)) return refuse(error_number);
  }
  if (!file.ok()) return refuse(file.error());
  BeforeStep("write");
  int error_number = options_.calls.write(file->get(), piece.bytes, piece.offset);
  BeforeStep("sync");
  if (error_number == 0) error_number = options_.calls.sync_file(file->get());
  if (error_number == 0) return piece.offset + piece.bytes.size();
  (void)options_.calls.set_length(file->get(), piece.offset);
  return refuse(error_number);
}

Result<void, Refusal> Uploads::CheckContent(const Upload& upload, int file) const {
  Sha256 digest;
  std::string buffer(kReadBytes, '\0');
  for (std::uint64_t offset = 0; offset < upload.size;) {
    if (options_.is_stopping && options_.is_stopping()) {
      return Refusal{user_error::kUnavailable, "This host is stopping. End the upload again when it is back"};
    }
    const ssize_t count = ::pread(file, buffer.data(), buffer.size(), static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return FileFailed(upload, "read", count < 0 ? errno : EIO);
    digest.Add(std::string_view(buffer).substr(0, static_cast<std::size_t>(count)));
    offset += static_cast<std::uint64_t>(count);
  }
  const std::optional<std::string> found = digest.Digest();
  if (!found) return Refusal{user_error::kUnavailable, "The SHA-256 of the upload cannot be computed"};
  if (*found == upload.sha256) return {};
  return Refusal{user_error::kUploadDamaged,
                 fmt::format("The SHA-256 of what arrived is {}, and that of the image {} should be {}", *found,
                             Quoted(upload.name), upload.sha256)};
}

// Checks the complete file, and records that it is to be given its name.
Result<void, Refusal> Uploads::Seal(Upload& upload, int root) {
  const Result<Descriptor, int> file = OpenPartial(upload, root);
  if (!file.ok() && file.error() != ENOENT) return FileFailed(upload, "opened", file.error());
  struct stat info {};
  if (file.ok() && ::fstat(file->get(), &info) != 0) return FileFailed(upload, "examined", errno);
  if (static_cast<std::uint64_t>(info.st_size) != upload.size) {
    return Refusal{user_error::kUploadOffset, fmt::format("{} of {} bytes have arrived", info.st_size, upload.size)};
  }
  if (auto checked = CheckContent(upload, file->get()); !checked.ok()) {
    if (checked.error().code == user_error::kUploadDamaged) {
      if (const auto removed = Remove(upload, root); !removed.ok()) return removed;
    }
    return checked;
  }
  const bool is_given =
      (!options_.access.group || ::fchown(file->get(), static_cast<uid_t>(-1), *options_.access.group) == 0) &&
      ::fchmod(file->get(), options_.access.file_mode) == 0;
  if (!is_given) return FileFailed(upload, "given to QEMU", errno);
  if (const int error_number = options_.calls.sync_file(file->get())) {
    return FileFailed(upload, "written", error_number);
  }
  upload.inode = info.st_ino;
  BeforeStep("seal");
  if (const Status stored = Store(upload); !stored) return StoreFailed(stored.error());
  return {};
}

Status Uploads::Store(Upload& upload) {
  const auto committed =
      options_.store->Commit({{{UploadKey(upload.id), upload.revision}}, {{UploadKey(upload.id), UploadText(upload)}}});
  if (!committed) return committed.error();
  upload.revision = *committed;
  return {};
}

// Records that the file does not have its name after all, because of `why`.
Result<void, Refusal> Uploads::Reopen(Upload& upload, Refusal why) {
  upload.inode.reset();
  if (const Status stored = Store(upload); !stored) return StoreFailed(stored.error());
  return why;
}

// Gives a sealed file its name, unless it has it.
Result<void, Refusal> Uploads::Rename(Upload& upload, int root) {
  BeforeStep("rename");
  struct stat info {};
  const bool has_name = ::fstatat(root, upload.FileName().c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
                        S_ISREG(info.st_mode) && info.st_ino == *upload.inode;
  const int error_number =
      has_name ? 0 : options_.calls.rename(root, upload.PartialName().c_str(), upload.FileName().c_str());
  if (error_number == EEXIST) {
    return Reopen(upload, NameTaken(upload.name, "the file " + QuotedPath(upload.Path())));
  }
  if (error_number == ENOENT) {
    return Reopen(upload, {user_error::kUploadOffset, "The file with what has arrived is gone. Upload it again"});
  }
  if (error_number != 0) return FileFailed(upload, "renamed", error_number);
  BeforeStep("sync folder");
  if (const int failed = options_.calls.sync(root)) return FileFailed(upload, "renamed", failed);
  return {};
}

Result<void, Refusal> Uploads::AddImage(Upload& upload, int root) {
  BeforeStep("add");
  disks::NewImage image{upload.name, upload.Path(), upload.id};
  if (const auto file = Describe(upload, root)) image.uploaded = UploadedFileJson(*file);
  auto added =
      records::CommitRecord(*options_.store, [&](const records::Reader& reader, std::optional<Refusal>& refused) {
        Result<store::Transaction> transaction = disks::PlanImageAddition(reader, image, upload.id, refused);
        if (!transaction || refused) return transaction;
        transaction->compares.push_back({UploadKey(upload.id), upload.revision});
        transaction->operations.push_back({UploadKey(upload.id), std::nullopt});
        return transaction;
      });
  if (added.ok() || added.error().code != records::kRecordExists) return added;
  // The name was taken meanwhile. The upload stays, to be ended again when the name is free.
  BeforeStep("rename back");
  if (const int failed = options_.calls.rename(root, upload.FileName().c_str(), upload.PartialName().c_str())) {
    return FileFailed(upload, "renamed", failed);
  }
  if (const int failed = options_.calls.sync(root)) return FileFailed(upload, "renamed", failed);
  return Reopen(upload, added.error());
}

Result<void, Refusal> Uploads::Publish(Upload& upload, int root) {
  if (auto renamed = Rename(upload, root); !renamed.ok()) return renamed;
  return AddImage(upload, root);
}

Result<void, Refusal> Uploads::End(const std::string& id, std::string& name) {
  const RequestPause pause;
  name.clear();
  const Turn turn(*this, id);
  if (!turn.is_taken()) return BusyRefusal();
  auto upload = Read(id);
  if (!upload.ok()) {
    const auto snapshot = options_.store->Read();
    if (!snapshot) return StoreFailed(snapshot.error());
    const auto image = records::ReadNamedRecord(**snapshot, records::kImageCategory, id);
    if (!image || !*image) return upload.error();
    name = records::DisplayName(**image);
    return {};
  }
  name = upload->name;
  const auto root = OpenRoot(*upload);
  if (!root.ok()) return root.error();
  if (!upload->inode) {
    if (auto sealed = Seal(*upload, root->get()); !sealed.ok()) return sealed;
  }
  return Publish(*upload, root->get());
}

// Removes the file first, so that no file is left without a record.
Result<void, Refusal> Uploads::Remove(const Upload& upload, int root) {
  BeforeStep("remove");
  const int error_number = options_.calls.unlink(root, upload.PartialName().c_str());
  if (error_number != 0 && error_number != ENOENT) return FileFailed(upload, "removed", error_number);
  if (const int failed = options_.calls.sync(root)) return FileFailed(upload, "removed", failed);
  BeforeStep("forget");
  const auto committed =
      options_.store->Commit({{{UploadKey(upload.id), upload.revision}}, {{UploadKey(upload.id), std::nullopt}}});
  if (!committed) return StoreFailed(committed.error());
  return {};
}

Result<void, Refusal> Uploads::Cancel(const std::string& id, std::string& name) {
  const RequestPause pause;
  name.clear();
  const Turn turn(*this, id);
  if (!turn.is_taken()) return BusyRefusal();
  auto upload = Read(id);
  if (!upload.ok()) return upload.error();
  name = upload->name;
  const auto root = OpenRoot(*upload);
  if (!root.ok()) return root.error();
  if (upload->inode) {
    return Refusal{user_error::kHostBusy, "The upload is being finished. End it, and remove the image instead"};
  }
  return Remove(*upload, root->get());
}

}  // namespace vexa::storage
