#include "tests/powerloss/file_calls.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/falloc.h>
#include <linux/openat2.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/powerloss/traced_thread.h"
#include "tests/support/check.h"

namespace vexa::powerloss {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kModeBits = 07777;
constexpr std::size_t kMaxReplyBytes = 4096;
constexpr std::uint64_t kCurrentFolder = static_cast<std::uint32_t>(AT_FDCWD);

std::string BytesOf(pid_t thread, const SystemCall& call, std::size_t limit) {
  const auto& arguments = call.arguments;
  switch (call.number) {
    case SYS_write:
    case SYS_pwrite64:
    case SYS_sendto:
      return ReadMemory(thread, arguments[1], std::min<std::size_t>(arguments[2], limit));
    case SYS_sendmsg: {
      const std::string text = ReadMemory(thread, arguments[1], sizeof(msghdr));
      msghdr message{};
      std::memcpy(&message, text.data(), text.size());
      return ReadBuffers(thread, reinterpret_cast<std::uint64_t>(message.msg_iov), message.msg_iovlen, limit);
    }
    default:
      return ReadBuffers(thread, arguments[1], arguments[2], limit);
  }
}

std::string ContentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

Call CallOn(CallKind kind, std::uint32_t object, std::uint64_t begun) {
  Call call;
  call.kind = kind;
  call.object = object;
  call.begun = begun;
  return call;
}

}  // namespace

FileCalls::FileCalls(const std::string& root, std::FILE* output) : output_(output) {
  struct stat info {};
  test::Check(::stat(root.c_str(), &info) == 0, root.c_str());
  numbers_[{info.st_dev, info.st_ino}] = 0;
  AddTree(root, 0);
  Record(CallOn(CallKind::kStart, 0, count_));
}

void FileCalls::AddTree(const std::string& path, std::uint32_t number) {
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) {
    struct stat info {};
    test::Check(::lstat(entry.path().c_str(), &info) == 0, entry.path().c_str());
    if (!S_ISDIR(info.st_mode) && !S_ISREG(info.st_mode)) continue;
    Call call = CallOn(S_ISDIR(info.st_mode) ? CallKind::kMakeFolder : CallKind::kCreate, AddNumber(info), count_);
    call.folder = number;
    call.name = entry.path().filename();
    call.mode = info.st_mode & kModeBits;
    names_[{call.folder, call.name}] = call.object;
    Record(call);
    if (S_ISDIR(info.st_mode)) {
      AddTree(entry.path(), call.object);
      continue;
    }
    Call content = CallOn(CallKind::kWrite, call.object, count_);
    content.bytes = ContentOf(entry.path());
    Record(content);
  }
}

void FileCalls::Record(const Call& call) {
  WriteCall(output_, call);
  ++count_;
}

std::uint32_t FileCalls::AddNumber(const struct stat& info) {
  return numbers_[{info.st_dev, info.st_ino}] = next_number_++;
}

std::optional<std::uint32_t> FileCalls::NumberOf(const std::string& path) const {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return std::nullopt;
  const auto found = numbers_.find({info.st_dev, info.st_ino});
  return found == numbers_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::uint32_t> FileCalls::NumberAt(const Place& place) const {
  const auto found = names_.find({place.folder, place.name});
  return found == names_.end() ? std::nullopt : std::optional(found->second);
}

// As this process reaches it.
std::string FileCalls::PathOf(pid_t thread, std::uint64_t folder, std::uint64_t path) {
  std::string text = ReadText(thread, path);
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  if (text.starts_with('/')) return text;
  const bool is_current = static_cast<std::uint32_t>(folder) == kCurrentFolder;
  return (is_current ? fmt::format("/proc/{}/cwd", thread) : PathOfDescriptor(thread, folder)) + "/" + text;
}

std::optional<FileCalls::Place> FileCalls::PlaceOf(pid_t thread, std::uint64_t folder, std::uint64_t path) const {
  Place place;
  place.path = PathOf(thread, folder, path);
  const std::size_t slash = place.path.rfind('/');
  place.name = place.path.substr(slash + 1);
  const auto number = NumberOf(place.path.substr(0, slash + 1));
  if (!number) return std::nullopt;
  place.folder = *number;
  return place;
}

void FileCalls::Begin(pid_t thread, SystemCall& call) {
  call.begun = count_;
  switch (call.number) {
    case SYS_write:
    case SYS_writev:
    case SYS_sendto:
    case SYS_sendmsg:
      BeginReply(thread, call);
  }
}

// Recorded before the call, since its receiver may go on before the call has ended.
void FileCalls::BeginReply(pid_t thread, const SystemCall& call) {
  struct stat info {};
  if (::stat(PathOfDescriptor(thread, call.arguments[0]).c_str(), &info) != 0) return;
  if (!S_ISFIFO(info.st_mode) && !S_ISSOCK(info.st_mode)) return;
  Call reply = CallOn(CallKind::kReply, 0, count_);
  reply.bytes = BytesOf(thread, call, kMaxReplyBytes);
  reply.descriptor = static_cast<std::uint32_t>(call.arguments[0]);
  if (S_ISSOCK(info.st_mode)) {
    // Only replies, and not what is sent to the kernel or to other servers.
    if (!reply.bytes.starts_with("HTTP/")) return;
    reply.bytes.clear();
  }
  Record(reply);
}

void FileCalls::End(pid_t thread, const SystemCall& call, std::int64_t result) {
  if (result < 0) return;
  const auto& arguments = call.arguments;
  const auto place = [&](std::uint64_t folder, std::uint64_t path) { return PlaceOf(thread, folder, path); };
  const auto path_of = [&](std::uint64_t descriptor) { return PathOfDescriptor(thread, descriptor); };
  switch (call.number) {
    case SYS_open:
      return EndOpen(thread, result, kCurrentFolder, arguments[0], arguments[1], call.begun);
    case SYS_creat:
      return EndOpen(thread, result, kCurrentFolder, arguments[0], O_CREAT | O_TRUNC, call.begun);
    case SYS_openat:
      return EndOpen(thread, result, arguments[0], arguments[1], arguments[2], call.begun);
    case SYS_openat2: {
      open_how how{};
      const std::string text = ReadMemory(thread, arguments[2], sizeof how);
      std::memcpy(&how, text.data(), text.size());
      return EndOpen(thread, result, arguments[0], arguments[1], how.flags, call.begun);
    }
    case SYS_write:
    case SYS_writev:
    case SYS_pwrite64:
    case SYS_pwritev:
      return EndWrite(thread, call, result);
    case SYS_ftruncate:
      return EndChange(call, path_of(arguments[0]), CallKind::kLength, arguments[1]);
    case SYS_truncate: {
      const auto at = place(kCurrentFolder, arguments[0]);
      return at ? EndChange(call, at->path, CallKind::kLength, arguments[1]) : void();
    }
    case SYS_fallocate:
      if (arguments[1] == FALLOC_FL_KEEP_SIZE) return;
      if (arguments[1] != 0) return Refuse(call, path_of(arguments[0]));
      return EndChange(call, path_of(arguments[0]), CallKind::kGrow, arguments[2] + arguments[3]);
    case SYS_fchmod:
      return EndChange(call, path_of(arguments[0]), CallKind::kMode, arguments[1]);
    case SYS_chmod:
    case SYS_fchmodat: {
      const bool is_at = call.number == SYS_fchmodat;
      const auto at = place(is_at ? arguments[0] : kCurrentFolder, arguments[is_at ? 1 : 0]);
      return at ? EndChange(call, at->path, CallKind::kMode, arguments[is_at ? 2 : 1]) : void();
    }
    case SYS_fsync:
    case SYS_fdatasync:
      return EndSync(thread, call);
    case SYS_rename:
      return EndRename(call, place(kCurrentFolder, arguments[0]), place(kCurrentFolder, arguments[1]));
    case SYS_renameat:
    case SYS_renameat2:
      return EndRename(call, place(arguments[0], arguments[1]), place(arguments[2], arguments[3]));
    case SYS_link:
      return EndLink(call, place(kCurrentFolder, arguments[1]));
    case SYS_linkat:
      return EndLink(call, place(arguments[2], arguments[3]));
    case SYS_unlink:
    case SYS_rmdir:
      return EndRemove(call, place(kCurrentFolder, arguments[0]));
    case SYS_unlinkat:
      return EndRemove(call, place(arguments[0], arguments[1]));
    case SYS_mkdir:
      return EndMakeFolder(call, place(kCurrentFolder, arguments[0]));
    case SYS_mkdirat:
      return EndMakeFolder(call, place(arguments[0], arguments[1]));
    case SYS_mmap: {
      const auto number = NumberOf(path_of(arguments[4]));
      return number ? Record(CallOn(CallKind::kMap, *number, call.begun)) : void();
    }
    case SYS_sendto:
    case SYS_sendmsg:
    case SYS_sendmmsg:
      return;
    case SYS_sendfile:
      return Refuse(call, path_of(arguments[0]));
    case SYS_copy_file_range:
    case SYS_splice:
      return Refuse(call, path_of(arguments[2]));
    case SYS_symlink:
    case SYS_symlinkat:
    case SYS_mknod:
    case SYS_mknodat: {
      const bool is_at = call.number == SYS_symlinkat || call.number == SYS_mknodat;
      const bool is_link = call.number == SYS_symlink || call.number == SYS_symlinkat;
      const std::size_t path = (is_link ? 1 : 0) + (is_at ? 1 : 0);
      const auto at = place(is_at ? arguments.at(path - 1) : kCurrentFolder, arguments.at(path));
      return at ? Refuse(call, "") : void();
    }
    default:
      // Calls whose files are unknown: sync, syncfs, io_uring_setup, io_submit, pwritev2.
      return Refuse(call, "");
  }
}

void FileCalls::EndOpen(pid_t thread, std::int64_t descriptor, std::uint64_t folder, std::uint64_t path,
                        std::uint64_t flags, std::uint64_t begun) {
  const bool is_unnamed = (flags & O_TMPFILE) == O_TMPFILE;
  if (!is_unnamed && (flags & (O_CREAT | O_TRUNC)) == 0) return;
  const std::string opened = PathOfDescriptor(thread, static_cast<std::uint64_t>(descriptor));
  struct stat info {};
  if (::stat(opened.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
  Call call;
  call.begun = begun;
  call.mode = info.st_mode & kModeBits;
  if (is_unnamed) {
    // The path is the folder's.
    if (!NumberOf(PathOf(thread, folder, path))) return;
    call.kind = CallKind::kUnnamed;
    call.object = AddNumber(info);
    return Record(call);
  }
  const auto place = PlaceOf(thread, folder, path);
  if (!place) return;
  if ((flags & O_CREAT) != 0 && !NumberAt(*place)) {
    call.kind = CallKind::kCreate;
    call.object = AddNumber(info);
    call.folder = place->folder;
    call.name = place->name;
    names_[{place->folder, place->name}] = call.object;
    return Record(call);
  }
  const auto number = NumberAt(*place);
  if (!number || (flags & O_TRUNC) == 0) return;
  Record(CallOn(CallKind::kLength, *number, begun));
}

void FileCalls::EndWrite(pid_t thread, const SystemCall& call, std::int64_t count) {
  const auto number = NumberOf(PathOfDescriptor(thread, call.arguments[0]));
  if (!number) return;
  Call write = CallOn(CallKind::kWrite, *number, call.begun);
  write.bytes = BytesOf(thread, call, static_cast<std::size_t>(count));
  const bool has_offset = call.number == SYS_pwrite64 || call.number == SYS_pwritev;
  // The descriptor's own position is behind what it has written.
  write.offset = has_offset ? call.arguments[3] : FieldOf(thread, call.arguments[0], "pos", 10) - write.bytes.size();
  write.is_data_sync = (FieldOf(thread, call.arguments[0], "flags", 8) & O_DSYNC) != 0;  // O_SYNC contains it
  Record(write);
}

void FileCalls::EndRename(const SystemCall& call, const std::optional<Place>& from, const std::optional<Place>& to) {
  if (!from && !to) return;
  constexpr std::uint64_t kKnownFlags = RENAME_NOREPLACE;
  const bool is_plain = call.number != SYS_renameat2 || (call.arguments[4] & ~kKnownFlags) == 0;
  const auto number = from ? NumberAt(*from) : std::nullopt;
  // A file that comes from outside, or leaves, would begin or end in the middle of the recording.
  if (!from || !to || !number || !is_plain) return Refuse(call, "");
  Call rename = CallOn(CallKind::kRename, *number, call.begun);
  rename.folder = to->folder;
  rename.name = to->name;
  rename.old_folder = from->folder;
  rename.old_name = from->name;
  names_.erase({from->folder, from->name});
  names_[{to->folder, to->name}] = *number;
  Record(rename);
}

void FileCalls::EndLink(const SystemCall& call, const std::optional<Place>& to) {
  if (!to) return;
  const auto number = NumberOf(to->path);
  if (!number) return Refuse(call, "");
  Call link = CallOn(CallKind::kLink, *number, call.begun);
  link.folder = to->folder;
  link.name = to->name;
  names_[{to->folder, to->name}] = *number;
  Record(link);
}

void FileCalls::EndRemove(const SystemCall& call, const std::optional<Place>& place) {
  const auto number = place ? NumberAt(*place) : std::nullopt;
  if (!number) return;
  Call remove = CallOn(CallKind::kRemove, *number, call.begun);
  remove.folder = place->folder;
  remove.name = place->name;
  names_.erase({place->folder, place->name});
  Record(remove);
}

void FileCalls::EndMakeFolder(const SystemCall& call, const std::optional<Place>& place) {
  struct stat info {};
  if (!place || ::lstat(place->path.c_str(), &info) != 0) return;
  Call make = CallOn(CallKind::kMakeFolder, AddNumber(info), call.begun);
  make.folder = place->folder;
  make.name = place->name;
  make.mode = info.st_mode & kModeBits;
  names_[{place->folder, place->name}] = make.object;
  Record(make);
}

void FileCalls::EndChange(const SystemCall& call, const std::string& path, CallKind kind, std::uint64_t value) {
  const auto number = NumberOf(path);
  if (!number) return;
  Call change = CallOn(kind, *number, call.begun);
  if (kind == CallKind::kMode) {
    change.mode = static_cast<std::uint32_t>(value) & kModeBits;
  } else {
    change.offset = value;
  }
  Record(change);
}

void FileCalls::EndSync(pid_t thread, const SystemCall& call) {
  const auto number = NumberOf(PathOfDescriptor(thread, call.arguments[0]));
  if (!number) return;
  Call sync = CallOn(CallKind::kSync, *number, call.begun);
  sync.is_data_sync = call.number == SYS_fdatasync;
  Record(sync);
}

// `path`: of the file that the call changes; empty when that is unknown.
void FileCalls::Refuse(const SystemCall& call, const std::string& path) {
  if (!path.empty() && !NumberOf(path)) return;
  Call refused = CallOn(CallKind::kUnsupported, 0, call.begun);
  refused.name = fmt::format("system call {}", call.number);
  Record(refused);
}

}  // namespace vexa::powerloss
