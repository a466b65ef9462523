// Translates system calls into recorded calls: from descriptors and paths to numbers of files.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "tests/powerloss/recorded_call.h"
#include "tests/powerloss/traced_program.h"

namespace vexa::powerloss {

// Everything below one folder is recorded, other files are not. What this class does not understand, and could change a
// recorded file, is recorded as unsupported.
class FileCalls final : public CallWatcher {
 public:
  // Writes what the folder contains, and kStart, to `output`.
  FileCalls(const std::string& root, std::FILE* output);

  void Begin(pid_t thread, SystemCall& call) override;
  void End(pid_t thread, const SystemCall& call, std::int64_t result) override;

 private:
  using Identity = std::pair<dev_t, ino_t>;
  // A name in a recorded folder.
  struct Place {
    std::uint32_t folder = 0;
    std::string name;
    std::string path;  // by which this process reaches it
  };

  void AddTree(const std::string& path, std::uint32_t number);
  void Record(const Call& call);
  void BeginReply(pid_t thread, const SystemCall& call);

  void EndOpen(pid_t thread, std::int64_t descriptor, std::uint64_t folder, std::uint64_t path, std::uint64_t flags,
               std::uint64_t begun);
  void EndWrite(pid_t thread, const SystemCall& call, std::int64_t count);
  void EndRename(const SystemCall& call, const std::optional<Place>& from, const std::optional<Place>& to);
  void EndLink(const SystemCall& call, const std::optional<Place>& to);
  void EndRemove(const SystemCall& call, const std::optional<Place>& place);
  void EndMakeFolder(const SystemCall& call, const std::optional<Place>& place);
  void EndChange(const SystemCall& call, const std::string& path, CallKind kind, std::uint64_t value);
  void EndSync(pid_t thread, const SystemCall& call);
  void Refuse(const SystemCall& call, const std::string& path);

  // The number of the file; not set for a file that is not recorded.
  std::optional<std::uint32_t> NumberOf(const std::string& path) const;
  std::optional<std::uint32_t> NumberAt(const Place& place) const;
  static std::string PathOf(pid_t thread, std::uint64_t folder, std::uint64_t path);
  std::optional<Place> PlaceOf(pid_t thread, std::uint64_t folder, std::uint64_t path) const;
  std::uint32_t AddNumber(const struct stat& info);

  std::FILE* const output_;
  std::uint64_t count_ = 0;  // of recorded calls
  std::uint32_t next_number_ = 1;
  std::map<Identity, std::uint32_t> numbers_;
  std::map<std::pair<std::uint32_t, std::string>, std::uint32_t> names_;  // of the files in each folder
};

}  // namespace vexa::powerloss
