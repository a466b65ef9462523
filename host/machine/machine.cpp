#include "host/machine/machine.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <memory>

#include "host/base/files.h"
#include "host/base/json_parse.h"

namespace vexa::machine {
namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{4} << 20;
constexpr std::size_t kMaxNames = 4096;
constexpr std::size_t kMaxFields = 64;
constexpr std::size_t kMaxCleanTextBytes = 256;
constexpr std::string_view kSpaceOrTab = " \t";

}  // namespace

std::optional<std::string> Machine::Read(const std::string& path) const {
  Result<std::string> text = ReadFile(root_ + path, kMaxFileBytes);
  if (!text) return std::nullopt;
  return std::move(*text);
}

std::string Machine::ReadLine(const std::string& path) const {
  const std::optional<std::string> text = Read(path);
  return text ? CleanText(std::string_view(*text).substr(0, text->find('\n'))) : std::string();
}

std::optional<std::uint64_t> Machine::ReadNumber(const std::string& path) const {
  const std::optional<std::string> text = Read(path);
  return text ? ParseUnsigned(Trim(std::string_view(*text).substr(0, text->find('\n')))) : std::nullopt;
}

bool Machine::IsFolder(const std::string& path) const {
  struct stat info {};
  return ::stat((root_ + path).c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::vector<std::string> Machine::Names(const std::string& path) const {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir((root_ + path).c_str()), ::closedir);
  if (!folder) return names;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): threads may read different directories, see readdir(3).
  while (const dirent* entry = ::readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (names.size() == kMaxNames) break;
    names.emplace_back(name);
  }
  std::ranges::sort(names);
  return names;
}

void ForEachLine(std::string_view text, const std::function<bool(std::string_view)>& visit) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (!visit(text.substr(0, end)) || end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

std::vector<std::string_view> Fields(std::string_view line) {
  std::vector<std::string_view> fields;
  for (std::size_t at = line.find_first_not_of(kSpaceOrTab);
       at != std::string_view::npos && fields.size() < kMaxFields;) {
    const std::size_t end = std::min(line.find_first_of(kSpaceOrTab, at), line.size());
    fields.push_back(line.substr(at, end - at));
    at = line.find_first_not_of(kSpaceOrTab, end);
  }
  return fields;
}

std::string_view Trim(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(kSpaceOrTab);
  return begin == std::string_view::npos ? std::string_view()
                                         : text.substr(begin, text.find_last_not_of(kSpaceOrTab) - begin + 1);
}

std::optional<std::uint64_t> ParseUnsigned(std::string_view text) {
  std::uint64_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || stop != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string CleanText(std::string_view text) {
  text = Trim(text);
  const bool is_utf8 = text.size() <= kMaxCleanTextBytes && IsValidUtf8(text);
  std::string clean(text.substr(0, kMaxCleanTextBytes));
  for (char& c : clean) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !is_utf8)) c = '?';
  }
  return clean;
}

}  // namespace vexa::machine
