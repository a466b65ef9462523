// A table of sessions in a folder of its own, with a clock that the test sets.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/session/session_token.h"
#include "host/session/sessions.h"
#include "tests/unit/storage/temporary_folder.h"

namespace vexa::session {

constexpr std::int64_t kStart = 1'800'000'000;
constexpr std::uint32_t kUid = 1'900'000'002;

class SessionsTest : public testing::Test {
 protected:
  SessionsTest() {
    options_.now = [this] { return now_.load(); };
  }
  std::string path() const { return folder_.Path("sessions.json"); }
  std::unique_ptr<SessionTable> Open() const {
    auto opened = SessionTable::Open(path(), options_);
    EXPECT_TRUE(opened.ok()) << opened.error().ToString();
    return opened.ok() ? std::move(opened).value() : nullptr;
  }
  static NewSession Create(SessionTable& table, const std::string& user) {
    auto created = table.Create({user, kUid});
    EXPECT_TRUE(created.ok()) << created.error().ToString();
    return created.ok() ? *created : NewSession{};
  }
  static std::string UserOf(SessionTable& table, const std::string& token) {
    const auto found = table.Find(token);
    if (!found) return "none";
    EXPECT_EQ(found->uid, kUid);
    return found->name;
  }
  std::string Text() const {
    auto text = ReadFile(path(), 1 << 24);
    return text.ok() ? *text : "";
  }
  std::size_t InFile() const { return (*ParseJson(Text()))["sessions"].size(); }
  // Root ignores permission bits, so the folder is removed instead while the table is open.
  void BreakWriting() const { std::filesystem::rename(folder_.path(), folder_.path() + ".away"); }
  void RepairWriting() const { std::filesystem::rename(folder_.path() + ".away", folder_.path()); }

  TemporaryFolder folder_;
  SessionOptions options_;
  std::atomic<std::int64_t> now_{kStart};
};

}  // namespace vexa::session
