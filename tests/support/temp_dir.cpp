#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace vexa::test {

TempDir::TempDir() {
  // Intentional: short, because a Unix socket's path has at most 107 bytes (unix(7)).
  std::error_code error;
  std::filesystem::path base = std::filesystem::temp_directory_path(error);
  if (error) base = "/tmp";
  path_ = (base / "vexa.XXXXXX").string();
  if (::mkdtemp(path_.data()) == nullptr) {
    std::fprintf(stderr, "Cannot create the folder '%s': %s\n", path_.c_str(), std::strerror(errno));
    std::abort();
  }
}

TempDir::~TempDir() {
  if (::testing::Test::HasFailure()) {
    std::fprintf(stderr, "The failed test's folder is kept: %s\n", path_.c_str());
    return;
  }
  std::error_code error;
  std::filesystem::remove_all(path_, error);
  if (error) std::fprintf(stderr, "Cannot remove '%s': %s\n", path_.c_str(), error.message().c_str());
}

}  // namespace vexa::test
