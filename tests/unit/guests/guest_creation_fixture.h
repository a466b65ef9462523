// Base of the tests of creations: an EditEnvironment with a record of this host. It remembers records and files.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/guests/creation/creation.h"
#include "tests/unit/guests/guest_edit_environment.h"
#include "tests/unit/guests/job_steps.h"

namespace vexa::test {

using guests::CreationOptions;
using guests::Creations;

inline constexpr char kCreated[] = "5a0c6d1e-7b24-4f83-9d15-c2e8a7b3f604";
inline constexpr char kCreatedToo[] = "5a0c6d1e-7b24-4f83-9d15-c2e8a7b3f605";

class CreationEnvironment : public EditEnvironment {
 public:
  guests::CreationOptions Options(std::shared_ptr<store::Store> store) const {
    return guests::CreationOptions{EditEnvironment::Options(std::move(store))};
  }
  void Fill(store::Store& store, const std::string& repository_host = kThisHost) const {
    EditEnvironment::Fill(store, repository_host);
    PutRecord(store, KeyOf("host", kThisHost), Parsed(R"({"name":"nas-1"})"));
  }
};

// As a host does at its start with what a killed one has left. It is killed at each of its own steps, too. This process
// must not have the store open.
inline void FinishKilledAtEachStep(const CreationEnvironment& environment) {
  for (int step = 0;; ++step) {
    const End end = RunUntil(environment, step, [](CreationOptions options) {
      Creations(std::move(options)).FinishAll();
      return true;
    });
    if (end == End::kCompleted) return;
    ASSERT_LT(step, 100);
  }
}

// The parameters of a guest in kRepository on this host; `more` has the other members: ",\"os\":\"linux\"".
inline std::string Named(const std::string& name, const std::string& more = "") {
  return R"({"name":")" + name + R"(","repository_id":")" + kRepository + R"(","host_id":")" + kThisHost + "\"" + more +
         "}";
}
// The request `id` of the account 1000.
inline std::string Numbered(const std::string& id, const std::string& digest = "digest") {
  return R"(,"owner":"1000","request_id":")" + id + R"(","digest":")" + digest + "\"";
}
inline constexpr char kTwoDisks[] = R"(,"vdisks_add":[{"vdisk_size":32},{"vdisk_size":64,"format":"raw"}])";

class CreationTest : public testing::Test {
 protected:
  CreationTest() : store_(environment_.OpenStore()), options_(environment_.Options(store_)) {
    environment_.Fill(*store_);
    Remember();
  }
  void Remember() {
    records_ = Everything(*store_);
    images_ = environment_.Images();
  }
  Result<Json::Value, Refusal> Create(const std::string& parameters, const std::string& guest_id = kCreated) {
    return Creations(options_).Create(guest_id, Parsed(parameters), Alice());
  }
  void ExpectDone(const std::string& parameters, const std::string& guest_id = kCreated) {
    const auto created = Create(parameters, guest_id);
    EXPECT_TRUE(created.ok()) << created.error().code << ": " << created.error().reason;
  }
  void ExpectRefused(const std::string& parameters, int code, const std::string& words) {
    SCOPED_TRACE(parameters);
    const auto created = Create(parameters);
    ASSERT_FALSE(created.ok());
    EXPECT_EQ(created.error().code, code);
    EXPECT_THAT(created.error().reason, testing::HasSubstr(words));
  }
  // Calls `act` before the first step of this name.
  void At(std::string step, std::function<void()> act) {
    options_.before_step = OnceAt(std::move(step), std::move(act));
  }
  void ExpectUnchanged() {
    Texts now = Everything(*store_);
    Texts before = records_;
    // Reservations of addresses stay for a day, the guards say only that something was written, and a deletion leaves
    // a note to the host.
    for (Texts* texts : {&now, &before}) {
      std::erase_if(*texts, [](const auto& entry) {
        const std::string& key = entry.first;
        return key.starts_with("/mac/") || key.starts_with("/undefine/") || key == "/renames" || key == "/files";
      });
    }
    EXPECT_EQ(now, before);
    EXPECT_EQ(environment_.Images(), images_);
  }
  Json::Value Guest(const std::string& id = kCreated) const { return RecordOf(*store_, "guest", id); }

  const CreationEnvironment environment_;
  const std::shared_ptr<FaultyStore> store_;
  guests::CreationOptions options_;
  Texts records_;
  std::map<std::string, std::int64_t> images_;
};

}  // namespace vexa::test
