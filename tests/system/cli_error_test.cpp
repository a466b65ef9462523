// vexa error: every row of the error table can be displayed.
#include "host/base/error_table.h"
#include "tests/system/cli_program.h"

namespace vexa::test {
namespace {

class ErrorCommand : public CliTest {};

TEST_F(ErrorCommand, EveryCode_IsListedAndExplained) {
  const auto all = Run({"error"});
  EXPECT_EQ(all.exit_code, 0);
  ASSERT_FALSE(ErrorTable().empty());
  for (const auto& row : ErrorTable()) {
    EXPECT_THAT(all.output, HasSubstr(std::to_string(row.code) + " "));
    const auto one = Run({"error", std::to_string(row.code)});
    EXPECT_EQ(one.exit_code, 0);
    EXPECT_EQ(one.output, "HTTP " + std::to_string(row.http_status) + ": " + std::string(row.sentence) + "\n");
  }
}

TEST_F(ErrorCommand, UnknownCode_Fails) {
  const auto result = Run({"error", "123456"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_EQ(Run({"error", "x"}).exit_code, 2);
}

TEST_F(ErrorCommand, AsJson_IsOneObjectOrAll) {
  const auto& row = ErrorTable().front();
  EXPECT_THAT(Run({"error", "--json", std::to_string(row.code)}).output,
              HasSubstr("\"http_status\" : " + std::to_string(row.http_status)));
  EXPECT_THAT(Run({"error", "--json"}).output, ::testing::StartsWith("["));
}

}  // namespace
}  // namespace vexa::test
