// vexa error: every row of the error table can be displayed.
#include "host/base/error_help.h"
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
    EXPECT_THAT(one.output, StartsWith(std::to_string(row.code) + ": " + std::string(row.sentence) +
                                       "\n\nHTTP status: " + std::to_string(row.http_status) + "; the cause lies in "));
    EXPECT_THAT(one.output, HasSubstr("\nUsual causes: " + std::string(CausesOf(row.code)) +
                                      "\nWhat to do: " + std::string(HintFor(row.code)) + "\n"));
  }
}

TEST_F(ErrorCommand, EveryCode_HasAHintAndTwoSentencesOfHelp) {
  ASSERT_EQ(ErrorHelpTable().size(), ErrorTable().size());
  for (std::size_t i = 0; i < ErrorTable().size(); ++i) {
    const ErrorHelp& help = ErrorHelpTable()[i];
    EXPECT_EQ(help.code, ErrorTable()[i].code);
    EXPECT_TRUE(help.hint.size() > 10 && help.hint.ends_with('.')) << help.code;
    const std::string causes(help.causes);
    EXPECT_TRUE(causes.ends_with('.')) << help.code;
    const bool has_two_sentences = causes.find(". ") != std::string::npos || causes.find("; ") != std::string::npos;
    EXPECT_TRUE(has_two_sentences) << help.code;
  }
}

// The page is printed by the program, so it says what the program says.
TEST_F(ErrorCommand, Page_IsTheOneThatTheProgramPrints) {
  std::ifstream file(std::string(VEXA_SOURCE_DIR) + "/docs/errors.md");
  const std::string page((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  EXPECT_EQ(Run({"error", "--markdown"}).output, page) << "print it again: vexa error --markdown > docs/errors.md";
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
