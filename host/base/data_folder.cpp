#include "host/base/data_folder.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>

namespace vexa {

Status CheckDataFolder(const std::string& data_directory) {
  struct stat info {};
  if (::stat(data_directory.c_str(), &info) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return {};
    return SystemError(ErrorCode::kDenied, fmt::format("Cannot examine the data folder '{}'", data_directory), errno);
  }
  if ((info.st_mode & (S_IWGRP | S_IWOTH)) == 0) return {};
  return Error(ErrorCode::kDenied,
               fmt::format("The data folder '{}' has mode {:04o}, so other users can change what is in it. Check its "
                           "files, then run: chmod go-w '{}'",
                           data_directory, info.st_mode & 07777U, data_directory));
}

}  // namespace vexa
