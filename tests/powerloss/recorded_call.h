// The calls that a program made to change files, as power_recorder writes them and tests read them.
//
// Folders and files are numbered; the folder that is recorded is 0. A number belongs to one file as long as it exists,
// whatever its name. The calls are in the order in which they ended, each written before its caller went on.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace vexa::powerloss {

enum class CallKind : std::uint8_t {
  kMakeFolder,   // `object`, with `mode` and the name `name` in `folder`
  kCreate,       // an empty file, likewise
  kUnnamed,      // an empty file without a name
  kLink,         // `object` gets the name `name` in `folder`; one that had it loses it
  kRename,       // the same, and it loses the name `old_name` in `old_folder`
  kRemove,       // `object` loses the name `name` in `folder`
  kWrite,        // `bytes` at `offset` of `object`
  kLength,       // `object` is `offset` bytes long from now on
  kGrow,         // `object` is at least `offset` bytes long from now on
  kMode,         // `object` has the mode `mode` from now on
  kSync,         // fsync or fdatasync of `object` has succeeded
  kMap,          // `object` was mapped so that it can be written without calls
  kStart,        // what comes before is what was there when the recording began
  kReply,        // `bytes` (of a pipe) or nothing (of a socket) are about to be sent to somebody else
  kUnsupported,  // a call named `name` that this recording cannot represent
};

struct Call {
  CallKind kind = CallKind::kStart;
  std::uint32_t object = 0;
  std::uint32_t folder = 0;
  std::uint32_t old_folder = 0;
  std::uint32_t mode = 0;
  std::uint32_t descriptor = 0;  // kReply on a pipe: which one
  // kWrite: the caller goes on only when the bytes are on the disk (O_SYNC, O_DSYNC). kSync: fdatasync, which writes
  // neither modes nor times.
  bool is_data_sync = false;
  std::uint64_t offset = 0;
  std::uint64_t begun = 0;  // how many calls had ended when this one began
  std::string name;
  std::string old_name;
  std::string bytes;
};

// Appends `call` to what `file` has.
void WriteCall(std::FILE* file, const Call& call);

// The complete calls in the file at `path`. `ends` receives the length of the file after each.
std::vector<Call> ReadCalls(const std::string& path, std::vector<std::uint64_t>* ends = nullptr);

}  // namespace vexa::powerloss
