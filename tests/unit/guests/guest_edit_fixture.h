// A test of edits on an EditGround, which remembers what was there.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "tests/unit/guests/guest_edit_ground.h"
#include "tests/unit/guests/job_steps.h"

namespace vexa::test {

// The member of an edit that names a disk.
inline std::string Id(const char* disk) { return std::string(R"("vdisk_id":")") + disk + "\""; }

class EditTest : public testing::Test {
 protected:
  EditTest() : store_(ground_.OpenStore()), options_(ground_.Options(store_)) {
    ground_.Fill(*store_);
    Remember();
  }
  void Remember() {
    records_ = Everything(*store_);
    images_ = ground_.Images();
  }
  guests::Refused Edit(const std::string& edit) { return guests::Edits(options_).Edit(kEdited, Parsed(edit), Alice()); }
  // The code of the refusal, 0 for an edit that is done.
  int Code(const std::string& edit) {
    const guests::Refused refused = Edit(edit);
    return refused ? refused->code : 0;
  }
  // Calls `act` before the first step of this name.
  void At(std::string step, std::function<void()> act) {
    options_.before_step = OnceAt(std::move(step), std::move(act));
  }
  void ExpectAsBefore() {
    EXPECT_EQ(Everything(*store_), records_);
    EXPECT_EQ(ground_.Images(), images_);
  }

  const EditGround ground_;
  const std::shared_ptr<FaultyStore> store_;
  guests::EditOptions options_;
  Texts records_;
  std::map<std::string, std::int64_t> images_;
};

}  // namespace vexa::test
