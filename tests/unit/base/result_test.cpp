#include "host/base/result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <set>

namespace vexa {
namespace {

TEST(Result, Result_WithValue_IsOkAndReturnsIt) {
  Result<std::string> result = std::string("value");
  ASSERT_TRUE(result.ok());
  EXPECT_TRUE(static_cast<bool>(result));
  EXPECT_EQ(*result, "value");
  EXPECT_EQ(result->size(), 5u);
  result.value() += "s";
  EXPECT_EQ(result.value(), "values");
}

TEST(Result, Result_WithError_IsNotOkAndReturnsIt) {
  const Result<int> result = Error(ErrorCode::kConflict, "It exists");
  ASSERT_FALSE(result.ok());
  EXPECT_FALSE(static_cast<bool>(result));
  EXPECT_EQ(result.error().code(), ErrorCode::kConflict);
  EXPECT_EQ(result.error().message(), "It exists");
}

TEST(Result, Result_MoveOnlyValue_CanBeMovedOut) {
  Result<std::unique_ptr<int>> result = std::make_unique<int>(7);
  const std::unique_ptr<int> taken = std::move(result).value();
  EXPECT_EQ(*taken, 7);
}

TEST(Status, Default_IsOk) {
  const Status status;
  EXPECT_TRUE(status.ok());
}

TEST(Status, Status_WithError_ReturnsIt) {
  const Status status = Error(ErrorCode::kBusy, "Later");
  ASSERT_FALSE(status.ok());
  EXPECT_EQ(status.error().code(), ErrorCode::kBusy);
}

TEST(Error, Text_ErrorWithoutACause_IsItsMessage) {
  EXPECT_EQ(Error(ErrorCode::kInvalid, "It is wrong").ToString(), "It is wrong");
}

TEST(Error, Text_ErrorWithACause_HasBoth) {
  const Error error(ErrorCode::kInvalid, "It is wrong", "a comma");
  EXPECT_EQ(error.ToString(), "It is wrong: a comma");
  EXPECT_EQ(error.cause(), "a comma");
}

TEST(SystemError, Enoent_HasTheSystemsText) {
  const Error error = SystemError(ErrorCode::kNotFound, "Cannot open 'x'", ENOENT);
  EXPECT_EQ(error.code(), ErrorCode::kNotFound);
  EXPECT_EQ(error.ToString(), "Cannot open 'x': No such file or directory");
}

TEST(ErrorCodeName, EveryCode_HasAWordOfItsOwn) {
  std::set<std::string_view> names;
  for (const ErrorCode code :
       {ErrorCode::kInvalid, ErrorCode::kNotFound, ErrorCode::kConflict, ErrorCode::kDenied, ErrorCode::kBusy,
        ErrorCode::kUnavailable, ErrorCode::kNoSpace, ErrorCode::kCorrupt, ErrorCode::kInternal}) {
    EXPECT_FALSE(ErrorCodeName(code).empty());
    EXPECT_TRUE(names.insert(ErrorCodeName(code)).second) << ErrorCodeName(code);
  }
  EXPECT_EQ(ErrorCodeName(ErrorCode::kNotFound), "not_found");
}

}  // namespace
}  // namespace vexa
