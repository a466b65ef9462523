#include "tests/contract/cache_test_value.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string_view>
#include <thread>
#include <utility>

#include "json/readers.h"

namespace vexa::test {
namespace {

// FNV-1a.
std::string ChecksumOf(std::string_view text) {
  std::uint64_t sum = 14695981039346656037U;
  for (const char c : text) sum = (sum ^ static_cast<unsigned char>(c)) * 1099511628211U;
  return std::to_string(sum);
}

// Up to 400 KiB, of another size each time.
Json::Value MakeValue(int number) {
  Json::Value value;
  value["finder"] = static_cast<Json::Int64>(::getpid());
  value["number"] = number;
  Json::Value& items = value["items"] = Json::Value(Json::arrayValue);
  const int count = 50 + (number * 37 + ::getpid() * 11) % 350;
  for (int i = 0; i < count; ++i) {
    items.append(std::to_string(number) + ":" + std::string(1000, static_cast<char>('a' + (number + i) % 26)));
  }
  value["sum"] = ChecksumOf(json::ToText(items));
  return value;
}

// A lock of the test's own beside the cache's; nobody else may hold it while a refresh runs. A killed process gives its
// locks back one after the other, so only one that is kept for a while belongs to a refresh.
class OverlapWatch {
 public:
  explicit OverlapWatch(const std::string& folder)
      : fd_(::open((folder + "/refreshing").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (fd_ < 0) std::abort();
    const auto end = std::chrono::steady_clock::now() + kDyingTime;
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      if (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        continue;
      }
      Note(folder + "/overlaps");
      return;
    }
  }
  ~OverlapWatch() { ::close(fd_); }
  OverlapWatch(const OverlapWatch&) = delete;
  OverlapWatch& operator=(const OverlapWatch&) = delete;

  static constexpr std::chrono::milliseconds kDyingTime{150};

 private:
  static void Note(const std::string& path) {
    const int overlaps = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (overlaps < 0 || ::write(overlaps, "x", 1) != 1) std::abort();
    ::close(overlaps);
  }

  const int fd_;
};

}  // namespace

bool IsWholeValue(const Json::Value& value) {
  const Json::Value& items = json::Member(value, "items");
  return items.isArray() && items.size() >= 50 &&
         json::String(json::Member(value, "sum")) == ChecksumOf(json::ToText(items));
}

pid_t FinderOf(const Json::Value& value) { return static_cast<pid_t>(json::Int64(json::Member(value, "finder"))); }

int OverlapsSeen(const std::string& folder) {
  std::error_code error;
  const auto size = std::filesystem::file_size(folder + "/overlaps", error);
  return error ? 0 : static_cast<int>(size);
}

ChecksummedCache::ChecksummedCache(std::string folder, int valid_s, std::function<void()> during)
    : DRCache("test", "checksummed", valid_s, 0), folder_(std::move(folder)), during_(std::move(during)) {}

bool ChecksummedCache::GetUpdatedData(Json::Value& data) const {
  static std::atomic<int> number = 0;
  const OverlapWatch watch(folder_);
  if (during_) during_();
  data = MakeValue(++number);
  // Some take long enough for an overlap to be seen.
  if (number % 16 == 0) std::this_thread::sleep_for(2 * OverlapWatch::kDyingTime);
  return true;
}

}  // namespace vexa::test
