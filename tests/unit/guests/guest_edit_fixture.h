// Base of edit tests on an EditEnvironment. It remembers the records and files to compare with.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "tests/unit/guests/guest_edit_environment.h"
#include "tests/unit/guests/job_steps.h"

namespace vexa::test {

// The member of an edit that names a disk.
inline std::string Id(const char* disk) { return std::string(R"("vdisk_id":")") + disk + "\""; }

class EditTest : public testing::Test {
 protected:
  EditTest() : store_(environment_.OpenStore()), options_(environment_.Options(store_)) {
    environment_.Fill(*store_);
    Remember();
  }
  void Remember() {
    records_ = Everything(*store_);
    images_ = environment_.Images();
  }
  Result<void, Refusal> Edit(const std::string& edit) {
    return guests::Edits(options_).Edit(kEdited, Parsed(edit), Alice());
  }
  // The code of the refusal, 0 for an edit that is done.
  int Code(const std::string& edit) {
    const auto refused = Edit(edit);
    return !refused.ok() ? refused.error().code : 0;
  }
  // Calls `act` before the first step of this name.
  void At(std::string step, std::function<void()> act) {
    options_.before_step = OnceAt(std::move(step), std::move(act));
  }
  void ExpectUnchanged() {
    EXPECT_EQ(Everything(*store_), records_);
    EXPECT_EQ(environment_.Images(), images_);
  }

  const EditEnvironment environment_;
  const std::shared_ptr<FaultyStore> store_;
  guests::EditOptions options_;
  Texts records_;
  std::map<std::string, std::int64_t> images_;
};

}  // namespace vexa::test
