// docs/states.md against the constants of states and the sources that make them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/records/shutdown_reason.h"

namespace vexa {
namespace {

namespace fs = std::filesystem;

std::string TextOf(const std::string& file) {
  std::ifstream in(std::string(VEXA_SOURCE_DIR) + "/" + file);
  EXPECT_TRUE(in) << file;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::vector<std::string> LinesOf(const std::string& file) {
  std::istringstream text(TextOf(file));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

// "Guest::running", … as the source defines them.
std::set<std::string> Constants() {
  std::set<std::string> constants;
  std::string space;
  bool is_state = false;
  const std::regex begins("namespace (\\w+) \\{");
  const std::regex defines("constinit const char\\* const (\\w+) = .*");
  for (const std::string& line : LinesOf("host/platform/constants.cpp")) {
    std::smatch match;
    if (std::regex_match(line, match, begins)) {
      if (match[1] == "State") is_state = true;
      space = match[1];
    }
    if (is_state && std::regex_match(line, match, defines)) constants.insert(space + "::" + match[1].str());
  }
  return constants;
}

std::vector<std::string> CellsOf(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream text(line);
  for (std::string cell; std::getline(text, cell, '|');) cells.push_back(cell);
  return cells;
}

std::vector<std::string> QuotedIn(const std::string& cell) {
  static const std::regex quoted("`([^`]+)`");
  std::vector<std::string> found;
  for (std::sregex_iterator it(cell.begin(), cell.end(), quoted), end; it != end; ++it) found.push_back((*it)[1]);
  return found;
}

// Whether `word` stands in the text, and not as a part of another.
bool HasWord(const std::string& text, const std::string& word) {
  return std::regex_search(text, std::regex("\\b" + word + "\\b"));
}

struct Row {
  std::string constant;
  std::string maker;
};
std::vector<Row> StateRows() {
  std::vector<Row> rows;
  for (const std::string& line : LinesOf("docs/states.md")) {
    const std::vector<std::string> cells = CellsOf(line);
    if (cells.size() < 6 || cells[1].find("::") == std::string::npos) continue;
    const std::vector<std::string> constant = QuotedIn(cells[1]);
    EXPECT_EQ(constant.size(), 1u) << line;
    rows.push_back({constant.empty() ? "" : constant.front(), cells[4]});
  }
  return rows;
}

TEST(StateDocs, EachConstant_HasOneRow) {
  const std::set<std::string> constants = Constants();
  EXPECT_GE(constants.size(), 47u);
  std::multiset<std::string> documented;
  for (const Row& row : StateRows()) documented.insert(row.constant);
  for (const std::string& constant : constants) EXPECT_EQ(documented.count(constant), 1u) << constant;
  for (const std::string& constant : documented) EXPECT_TRUE(constants.contains(constant)) << constant;
}

TEST(StateDocs, StateDocs_EachRow_NamesSourcesThatContainTheConstant) {
  for (const Row& row : StateRows()) {
    const std::string name = row.constant.substr(row.constant.rfind(':') + 1);
    if (row.maker.starts_with(" later: ")) continue;
    const std::vector<std::string> files = QuotedIn(row.maker);
    EXPECT_FALSE(files.empty()) << row.constant << " has no source";
    for (const std::string& file : files) {
      EXPECT_TRUE(fs::exists(std::string(VEXA_SOURCE_DIR) + "/" + file)) << file;
      EXPECT_TRUE(HasWord(TextOf(file), name)) << file << " does not name " << row.constant;
    }
  }
}

// The states that are left to work to come are these, and no other becomes one by an edit of the page.
TEST(StateDocs, StatesThatNothingMakes_AreTheKnownOnes) {
  std::set<std::string> later;
  for (const Row& row : StateRows()) {
    const bool is_group = row.constant.starts_with("HAGroup::");
    if (row.maker.starts_with(" later: ") && !is_group) later.insert(row.constant);
  }
  const std::set<std::string> known{"Guest::creating",       "Guest::importing", "Guest::moving",
                                    "Guest::stor_migrating", "Guest::preparing", "Guest::ha_standby"};
  for (const std::string& constant : later) EXPECT_TRUE(known.contains(constant)) << constant;
}

TEST(StateDocs, EachReason_HasItsRow) {
  std::map<int, std::vector<std::string>> rows;
  const std::regex row("\\| (\\d+) \\| .*");
  for (const std::string& line : LinesOf("docs/states.md")) {
    std::smatch match;
    if (std::regex_match(line, match, row)) rows[std::stoi(match[1])] = CellsOf(line);
  }
  ASSERT_EQ(rows.size(), 17u);
  // The enumerators by value.
  std::vector<std::string> names;
  const std::regex enumerator("  (k\\w+) = (\\d+),.*");
  for (const std::string& line : LinesOf("host/records/shutdown_reason.h")) {
    std::smatch match;
    if (std::regex_match(line, match, enumerator)) names.push_back(match[1]);
  }
  ASSERT_EQ(names.size(), 17u);
  for (const auto& [value, cells] : rows) {
    ASSERT_GE(cells.size(), 6u);
    const auto cause = static_cast<cluster::ShutdownCause>(value);
    EXPECT_EQ(cells[2], " " + std::string(cluster::ShutdownWord(cause)) + " ");
    for (const std::string& file : QuotedIn(cells[5])) {
      EXPECT_TRUE(fs::exists(std::string(VEXA_SOURCE_DIR) + "/" + file)) << file;
      EXPECT_TRUE(HasWord(TextOf(file), names[static_cast<std::size_t>(value)])) << file << " does not name it";
    }
  }
}

}  // namespace
}  // namespace vexa
