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

// A value of up to 400 KiB; the size differs each time.
Json::Value MakeValue(int number) {
  Json::Value value;
  value["refresher"] = static_cast<Json::Int64>(::getpid());
  value["number"] = number;
  Json::Value& items = value["items"] = Json::Value(Json::arrayValue);
  const int count = 50 + (number * 37 + ::getpid() * 11) % 350;
  for (int i = 0; i < count; ++i) {
    items.append(std::to_string(number) + ":" + std::string(1000, static_cast<char>('a' + (number + i) % 26)));
  }
  value["sum"] = ChecksumOf(json::ToText(items));
  return value;
}

// Detects a refresh that begins while another one runs: each holds a lock of the test's own. The kernel releases the
// locks of a killed process one after the other, so only a lock that is held for longer belongs to another refresh.
class OverlapDetector {
 public:
  explicit OverlapDetector(const std::string& folder)
      : fd_(::open((folder + "/refreshing").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (fd_ < 0) std::abort();
    const auto end = std::chrono::steady_clock::now() + kUnlockTime;
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      if (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        continue;
      }
      RecordOverlap(folder + "/overlaps");
      return;
    }
  }
  ~OverlapDetector() { ::close(fd_); }
  OverlapDetector(const OverlapDetector&) = delete;
  OverlapDetector& operator=(const OverlapDetector&) = delete;

  static constexpr std::chrono::milliseconds kUnlockTime{150};

 private:
  static void RecordOverlap(const std::string& path) {
    const int overlaps = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (overlaps < 0 || ::write(overlaps, "x", 1) != 1) std::abort();
    ::close(overlaps);
  }

  const int fd_;
};

}  // namespace

bool IsCompleteValue(const Json::Value& value) {
  const Json::Value& items = json::Member(value, "items");
  return items.isArray() && items.size() >= 50 &&
         json::String(json::Member(value, "sum")) == ChecksumOf(json::ToText(items));
}

pid_t RefresherOf(const Json::Value& value) {
  return static_cast<pid_t>(json::Int64(json::Member(value, "refresher")));
}

int CountOverlaps(const std::string& folder) {
  std::error_code error;
  const auto size = std::filesystem::file_size(folder + "/overlaps", error);
  return error ? 0 : static_cast<int>(size);
}

ChecksummedCache::ChecksummedCache(std::string folder, int valid_s, std::function<void()> during)
    : DRCache("test", "checksummed", valid_s, 0), folder_(std::move(folder)), during_(std::move(during)) {}

bool ChecksummedCache::GetUpdatedData(Json::Value& data) const {
  static std::atomic<int> number = 0;
  const OverlapDetector detector(folder_);
  if (during_) during_();
  data = MakeValue(++number);
  // Some refreshes take long enough for an overlap to be detected.
  if (number % 16 == 0) std::this_thread::sleep_for(2 * OverlapDetector::kUnlockTime);
  return true;
}

}  // namespace vexa::test
