// The main function of a fuzz target in builds without the fuzzer: runs it on every file of the given folders.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "host/base/files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxInputBytes = std::size_t{1} << 20;

// The files of `folder`, sorted by name; none when it cannot be listed.
std::vector<std::string> FilesOf(const std::string& folder) {
  std::vector<std::string> files;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    files.push_back(entry->path().string());
  }
  if (error) {
    std::fprintf(stderr, "Cannot list '%s': %s\n", folder.c_str(), error.message().c_str());
    files.clear();
  }
  std::sort(files.begin(), files.end());
  return files;
}

bool RunFile(const std::string& file) {
  const vexa::Result<std::string> input = vexa::ReadFile(file, kMaxInputBytes);
  if (!input) {
    std::fprintf(stderr, "%s\n", input.error().ToString().c_str());
    return false;
  }
  // A copy of exactly the input's size on the heap, so that the address sanitizer detects a read beyond its end.
  const std::vector<std::uint8_t> bytes(input->begin(), input->end());
  // Printed before the run, so that after a crash the last line names the input.
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    const std::vector<std::string> files = FilesOf(argv[i]);
    if (files.empty()) {
      std::fprintf(stderr, "There is no input in '%s'\n", argv[i]);
      return 1;
    }
    for (const std::string& file : files) {
      if (!RunFile(file)) return 1;
    }
    count += files.size();
  }
  std::printf("%zu inputs\n", count);
  return count > 0 ? 0 : 1;
}
