// For tests of uploads: an image folder, and uploads that a test can kill before any step.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <concepts>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "host/base/sha256.h"
#include "host/disks/image_records.h"
#include "host/storage/uploads.h"
#include "tests/support/record_test.h"

namespace vexa::storage {

namespace fs = std::filesystem;

inline constexpr char kHost[] = "11111111-1111-4111-8111-111111111111";
inline constexpr std::uint64_t kMuch = std::uint64_t{1} << 40;

struct Killed {};

// The value; the test program ends when the call was refused.
template <class T, class Refused>
T Require(Result<T, Refused> result) requires std::derived_from<Refused, Refusal> {
  if (!result.ok()) return test::Require(Result<T>(Error(ErrorCode::kInternal, result.error().reason)));
  return *std::move(result);
}

inline std::string DigestOf(const std::string& bytes) {
  Sha256 sha256;
  sha256.Add(bytes);
  return sha256.Digest().value_or("");
}

class UploadsTest : public test::RecordTest {
 protected:
  UploadsTest() { fs::create_directory(Root()); }

  std::string Root() const { return host_.folder().File("images"); }
  std::string Path(const std::string& name) const { return Root() + "/" + name; }

  UploadOptions Options() {
    UploadOptions options;
    options.store = std::shared_ptr<store::Store>(&host_.store(), [](store::Store*) {});
    options.host_id = kHost;
    options.roots = {Root(), host_.folder().File("second")};
    options.now = [this] { return now_; };
    options.steady_now = [this] { return steady_now_; };
    options.free_bytes = [this](int) { return std::optional(free_bytes_); };
    options.calls.write = [this](int file, std::string_view bytes, std::uint64_t offset) {
      if (write_error_ == 0) return disks::WriteToFile(file, bytes, offset);
      // As on a full disk: a part is written.
      (void)disks::WriteToFile(file, bytes.substr(0, bytes.size() / 2), offset);
      return write_error_;
    };
    options.calls.sync_file = [this](int file) { return sync_error_ != 0 ? sync_error_ : disks::SyncFile(file); };
    options.before_step = [this](const char* step) {
      const std::lock_guard lock(steps_mutex_);  // some tests have several callers
      steps_.emplace_back(step);
      if (step == kill_before_ || (kill_at_ > 0 && --kill_at_ == 0)) throw Killed();
    };
    return options;
  }

  // Both clocks go on, with a clean-up at the beginning and the end.
  void Wait(Uploads& uploads, std::chrono::hours hours) {
    uploads.CleanUp({});
    now_ += hours;
    steady_now_ += hours;
    uploads.CleanUp({});
  }

  NewUpload Of(const std::string& name) const { return {name, "admin", "", content_.size(), DigestOf(content_)}; }
  static UploadPiece Piece(const std::string& content, std::uint64_t offset, std::size_t count) {
    return {offset, content.size(), std::string_view(content).substr(offset, count)};
  }
  // Begins an upload and sends all of it.
  std::string Send(Uploads& uploads, const std::string& name) {
    const std::string id = Require(uploads.Begin(Of(name))).id;
    EXPECT_EQ(Require(uploads.Append(id, Piece(content_, 0, content_.size()))), content_.size());
    return id;
  }
  static std::string Read(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
  }
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(Root())) names.push_back(entry.path().filename());
    return names;
  }
  std::vector<std::string> ImageNames() {
    std::vector<std::string> names;
    for (const auto& image : Require(disks::ListImages(host_.store()))) names.push_back(image.name);
    return names;
  }
  std::vector<Upload> Unfinished() { return Require(ReadUploads(*Require(host_.store().Read()))); }
  template <class Value, class Refused>
  static void ExpectCode(const Result<Value, Refused>& result, int code, const std::string& reason) {
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(result.error().code, code);
    EXPECT_THAT(result.error().reason, ::testing::HasSubstr(reason));
  }

  const std::string content_ = std::string(300'000, 'a') + std::string(300'000, 'b') + "c";
  std::chrono::system_clock::time_point now_ = std::chrono::system_clock::now();
  std::chrono::steady_clock::time_point steady_now_;
  std::uint64_t free_bytes_ = kMuch;
  int write_error_ = 0;
  int sync_error_ = 0;
  std::string kill_before_;
  int kill_at_ = 0;  // the step, counted from 1; 0: none
  std::mutex steps_mutex_;
  std::vector<std::string> steps_;
  std::string name_;
};

}  // namespace vexa::storage
