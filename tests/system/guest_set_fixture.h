// Fixture for edits over HTTP: a daemon with a guest that has two disks with files, two interfaces and another
// guest beside it, and one kept connection for each kind of user.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <map>
#include <memory>
#include <string>

#include "host/store/store.h"
#include "tests/support/syslog_capture.h"
#include "tests/support/test_daemon.h"

namespace vexa::test {

inline constexpr char kNeighbour[] = "c4a9e7d2-5b31-4f86-a07c-1e2d3f4a5b6c";
inline constexpr char kGuestWithoutRepositoryHost[] =
    "77777777-5b31-4f86-a07c-1e2d3f4a5b6c";  // its repository does not name a host
inline constexpr char kRepository[] = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
inline constexpr char kDisk0[] = "d0000000-0000-4000-8000-000000000000";
inline constexpr char kDisk1[] = "d0000000-0000-4000-8000-000000000001";
inline constexpr char kNic0[] = "e0000000-0000-4000-8000-000000000000";
inline constexpr char kNic1[] = "e0000000-0000-4000-8000-000000000001";
inline constexpr char kNetwork[] = "f0000000-0000-4000-8000-000000000002";
inline constexpr char kImage[] = "a0000000-0000-4000-8000-000000000001";
inline constexpr char kUnknownId[] = "99999999-9999-4999-8999-999999999999";
inline constexpr char kTakenMac[] = "02:00:00:00:00:03";  // the neighbour's

class GuestSetFixture : public testing::Test {
 protected:
  static void SetUpTestSuite();
  static void TearDownTestSuite();
  void SetUp() override;

  struct Answer {
    int code = -1;        // 0 for a success
    Json::Value details;  // of an error
    Json::Value reply;    // all of it
  };
  // The body is `{"guest_id": <the guest's>, <members>}`, and one without `members` has the id only.
  static std::string Body(const std::string& members, const std::string& guest_id = kTestGuest);
  // As a user with a role of TestDaemon.
  static Answer Set(const std::string& role, const std::string& body);

  // Everything that edits may write, by its key.
  using Contents = std::map<std::string, std::string>;
  static Contents Stored();
  // Puts records and files back to what they are at the start of a test, when they are not.
  static void Restore();
  static const Contents& Initial();

  static Json::Value Record(const std::string& category, const std::string& id);
  static Json::Value GuestRecord() { return Record("guest", kTestGuest); }
  static void Put(const std::string& category, const std::string& id, const std::string& text);
  static void Remove(const std::string& category, const std::string& id);
  static std::string ImageFolder();
  static std::string DiskPath(const std::string& disk_id);

  static std::uint32_t UserId(const std::string& user);
  // The newest entry of the cluster log as {"text", "user", "priority", …}.
  static Json::Value NewestEntry();
  static std::size_t LogEntries();

  static TestDaemon& daemon() { return *state_->daemon; }

 private:
  struct State {
    std::unique_ptr<TestDaemon> daemon;
    std::shared_ptr<store::Store> store;
    std::map<std::string, HttpClient> clients;
    Contents initial;
  };
  static void Fill();

  static State* state_;
};

// The lines of the source unit "guest" at the priority of errors, each without "guest:<line> ".
std::vector<std::string> GuestLines();

}  // namespace vexa::test
