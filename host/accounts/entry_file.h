// Reads files such as passwd(5), group(5) and shadow(5) without the name service.
#pragma once

#include <fmt/format.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/base/result.h"

namespace vexa::accounts {

inline constexpr std::size_t kMaxEntryBytes = std::size_t{1} << 20;

// Calls `visit` for each entry of a file, until it returns false. `read` is the function of the C library for such
// files, such as fgetpwent_r(3).
// Errors: kNotFound when there is no such file; kDenied when this process may not read it; kUnavailable when it cannot
// be read now, or an entry is longer than kMaxEntryBytes.
// Threads: any.
template <class Entry>
Status ForEachEntry(const std::string& path, int (*read)(FILE*, Entry*, char*, std::size_t, Entry**),
                    const std::function<bool(const Entry&)>& visit) {
  const auto cannot_read = [&](int error_number) {
    ErrorCode code = ErrorCode::kUnavailable;
    if (error_number == ENOENT) code = ErrorCode::kNotFound;
    if (error_number == EACCES || error_number == EPERM) code = ErrorCode::kDenied;
    return SystemError(code, fmt::format("Cannot read '{}'", path), error_number);
  };
  struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
  };
  const std::unique_ptr<FILE, CloseFile> file(std::fopen(path.c_str(), "re"));
  if (!file) return cannot_read(errno);
  std::vector<char> buffer(kMaxEntryBytes);
  Entry entry{};
  Entry* found = nullptr;
  while (true) {
    const int error_number = read(file.get(), &entry, buffer.data(), buffer.size(), &found);
    if (error_number == ENOENT) return {};  // the end of the file
    if (error_number != 0) return cannot_read(error_number);
    if (!visit(*found)) return {};
  }
}

}  // namespace vexa::accounts
