#include "tests/powerloss/recorded_program.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <utility>

#include "host/base/descriptor.h"
#include "tests/support/check.h"

namespace vexa::powerloss {
namespace {

namespace fs = std::filesystem;
using test::Check;

constexpr mode_t kModeBits = 07777;

test::ProcessOptions Recorded(const std::string& folder, const std::string& recording, test::ProcessOptions program) {
  // Under ptrace the leak sanitizer cannot work. The others can.
  const char* const own = std::getenv("ASAN_OPTIONS");
  program.environment["ASAN_OPTIONS"] = std::string(own == nullptr ? "" : own) + ":detect_leaks=0";
  program.argv.insert(program.argv.begin(), {POWER_RECORDER_PROGRAM, folder, recording});
  return program;
}

struct stat InfoOf(const std::string& path) {
  struct stat info {};
  Check(::lstat(path.c_str(), &info) == 0, path.c_str());
  return info;
}

std::map<std::uint64_t, std::string> WithoutZeros(std::map<std::uint64_t, std::string> sectors) {
  std::erase_if(sectors, [](const auto& sector) { return sector.second.find_first_not_of('\0') == std::string::npos; });
  return sectors;
}

std::string RandomBytes(std::uint64_t length, std::mt19937& random) {
  std::string bytes(length, '\0');
  if (random() % 2 == 0) return bytes;
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

void WriteContent(const DiskFile& file, const std::string& path, std::mt19937& random) {
  const Descriptor opened(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
  Check(opened.get() >= 0, path.c_str());
  // Emptied first, since what is not in `file` must not stay.
  Check(::ftruncate(opened.get(), 0) == 0 && ::ftruncate(opened.get(), static_cast<off_t>(file.length)) == 0,
        path.c_str());
  const auto write = [&](const std::string& bytes, std::uint64_t at) {
    const std::size_t count = std::min<std::uint64_t>(bytes.size(), file.length - at);
    Check(::pwrite(opened.get(), bytes.data(), count, static_cast<off_t>(at)) == static_cast<ssize_t>(count),
          path.c_str());
  };
  if (file.is_mapped) {
    write(RandomBytes(file.length, random), 0);
  } else {
    for (const auto& [number, bytes] : file.sectors) {
      if (number * kSectorBytes < file.length) write(bytes, number * kSectorBytes);
    }
  }
  Check(::fchmod(opened.get(), file.mode) == 0, path.c_str());
}

}  // namespace

std::map<std::uint64_t, std::string> SectorsOf(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  Check(file.get() >= 0, path.c_str());
  std::map<std::uint64_t, std::string> sectors;
  const off_t length = ::lseek(file.get(), 0, SEEK_END);
  std::string buffer(std::size_t{1} << 20, '\0');
  for (off_t at = ::lseek(file.get(), 0, SEEK_DATA); at >= 0 && at < length;) {
    at -= at % static_cast<off_t>(kSectorBytes);
    const ssize_t count = ::pread(file.get(), buffer.data(), buffer.size(), at);
    Check(count > 0, path.c_str());
    for (std::size_t done = 0; done < static_cast<std::size_t>(count); done += kSectorBytes) {
      std::string sector =
          buffer.substr(done, std::min<std::size_t>(kSectorBytes, static_cast<std::size_t>(count) - done));
      if (sector.find_first_not_of('\0') == std::string::npos) continue;
      sector.resize(kSectorBytes);
      sectors[(static_cast<std::uint64_t>(at) + done) / kSectorBytes] = std::move(sector);
    }
    at = ::lseek(file.get(), at + count, SEEK_DATA);
  }
  return sectors;
}

RecordedProgram::RecordedProgram(const std::string& folder, std::string recording, test::ProcessOptions program)
    : recording_(std::move(recording)), process_(Recorded(folder, recording_, std::move(program))) {}

std::uint64_t RecordedProgram::position() const {
  std::error_code missing;
  const std::uintmax_t bytes = fs::file_size(recording_, missing);
  return missing ? 0 : bytes;
}

std::vector<Call> RecordedProgram::Calls() const { return ReadCalls(recording_); }

std::size_t RecordedProgram::ReplyBefore(std::uint64_t position) const {
  std::vector<std::uint64_t> ends;
  const std::vector<Call> calls = ReadCalls(recording_, &ends);
  std::size_t reply = 0;
  for (std::size_t i = 0; i < calls.size() && ends[i] <= position; ++i) {
    if (calls[i].kind == CallKind::kReply) reply = i;
  }
  return reply;
}

DiskFolder::DiskFolder(std::string folder, std::string spare) : folder_(std::move(folder)), spare_(std::move(spare)) {
  fs::create_directories(spare_);
}

std::string DiskFolder::FindDifference(const DiskModel& model) {
  std::mt19937 unused;
  numbers_.clear();
  return Compare(model.After(model.calls().size(), Loss::kNothing, unused), 0, folder_);
}

std::string DiskFolder::Compare(const Disk& disk, std::uint32_t number, const std::string& path) {
  const DiskFile& file = disk.files.at(number);
  const struct stat info = InfoOf(path);
  numbers_[info.st_ino] = number;
  if (number != 0 && (info.st_mode & kModeBits) != file.mode) return fmt::format("'{}' has another mode", path);
  if (S_ISDIR(info.st_mode) != file.is_folder) return fmt::format("'{}' is of another type", path);
  if (!file.is_folder) {
    if (static_cast<std::uint64_t>(info.st_size) != file.length) {
      return fmt::format("'{}' is {} bytes long instead of {}", path, info.st_size, file.length);
    }
    if (file.is_mapped || SectorsOf(path) == WithoutZeros(file.sectors)) return "";
    return fmt::format("'{}' has another content", path);
  }
  std::set<std::string> found;
  for (const auto& entry : fs::directory_iterator(path)) {
    if (!entry.is_socket()) found.insert(entry.path().filename());
  }
  for (const auto& [name, child] : file.names) {
    if (found.erase(name) == 0) return fmt::format("'{}/{}' is missing", path, name);
    if (std::string difference = Compare(disk, child, fmt::format("{}/{}", path, name)); !difference.empty())
      return difference;
  }
  return found.empty() ? "" : fmt::format("'{}/{}' was not recorded", path, *found.begin());
}

void DiskFolder::Put(const Disk& disk, std::mt19937& random) {
  Clear(folder_);
  paths_.clear();
  Fill(disk, 0, folder_, random);
}

// Moves the known files of the folder to the spare ones, and removes the others.
void DiskFolder::Clear(const std::string& path) {
  std::vector<fs::path> entries;
  for (const auto& entry : fs::directory_iterator(path)) entries.push_back(entry.path());
  for (const fs::path& entry : entries) {
    const struct stat info = InfoOf(entry);
    if (S_ISDIR(info.st_mode)) Clear(entry);
    const auto known = numbers_.find(info.st_ino);
    if (known != numbers_.end() && !fs::exists(SparePath(known->second))) {
      fs::rename(entry, SparePath(known->second));
    } else {
      fs::remove(entry);
    }
  }
}

void DiskFolder::Fill(const Disk& disk, std::uint32_t number, const std::string& path, std::mt19937& random) {
  for (const auto& [name, child] : disk.files.at(number).names)
    Place(disk, child, fmt::format("{}/{}", path, name), random);
}

void DiskFolder::Place(const Disk& disk, std::uint32_t number, const std::string& path, std::mt19937& random) {
  const DiskFile& file = disk.files.at(number);
  if (const auto placed = paths_.find(number); placed != paths_.end())
    return fs::create_hard_link(placed->second, path);
  const std::string spare = SparePath(number);
  const bool has_spare = fs::exists(spare) && fs::is_directory(spare) == file.is_folder;
  if (has_spare) fs::rename(spare, path);
  if (file.is_folder) {
    if (!has_spare) fs::create_directory(path);
    Check(::chmod(path.c_str(), file.mode) == 0, path.c_str());
  } else {
    WriteContent(file, path, random);
  }
  paths_[number] = path;
  numbers_[InfoOf(path).st_ino] = number;
  if (file.is_folder) Fill(disk, number, path, random);
}

}  // namespace vexa::powerloss
