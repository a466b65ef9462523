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
#include "webapi/utils/utils.h"

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

// "Guest::running", … as the source defines them, with their texts.
std::map<std::string, std::string> Constants() {
  std::map<std::string, std::string> constants;
  std::string space;
  bool is_state = false;
  const std::regex begins("namespace (\\w+) \\{");
  const std::regex defines("constinit const char\\* const (\\w+) = \"(.*)\";");
  for (const std::string& line : LinesOf("host/platform/constants.cpp")) {
    std::smatch match;
    if (std::regex_match(line, match, begins)) {
      if (match[1] == "State") is_state = true;
      space = match[1];
    }
    if (is_state && std::regex_match(line, match, defines)) constants[space + "::" + match[1].str()] = match[2];
  }
  return constants;
}

std::vector<std::string> CellsOf(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream text(line);
  for (std::string cell; std::getline(text, cell, '|');) cells.push_back(cell);
  return cells;
}

std::vector<std::string> BackquotedNames(const std::string& cell) {
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
  std::string shown;
  std::string maker;
};
std::vector<Row> StateRows() {
  std::vector<Row> rows;
  for (const std::string& line : LinesOf("docs/states.md")) {
    const std::vector<std::string> cells = CellsOf(line);
    if (cells.size() < 6 || cells[1].find("::") == std::string::npos) continue;
    const std::vector<std::string> constant = BackquotedNames(cells[1]);
    EXPECT_EQ(constant.size(), 1u) << line;
    rows.push_back({constant.empty() ? "" : constant.front(), cells[2], cells[4]});
  }
  return rows;
}

// Whether the library's table has a row for it. Guests are shown instead of the database, and a host whose version is
// unknown by its own state.
bool IsInTable(const std::string& constant) {
  return !constant.starts_with("Etcd::") && constant != "Version::unknown";
}

VexaVirtualization::STATE_CATE CategoryOf(const std::string& constant) {
  const std::map<std::string, VexaVirtualization::STATE_CATE> categories{
      {"Host", VexaVirtualization::STATE_CATE_HOST},       {"Version", VexaVirtualization::STATE_CATE_VERSION},
      {"Repo", VexaVirtualization::STATE_CATE_REPOSITORY}, {"Guest", VexaVirtualization::STATE_CATE_GUEST},
      {"vDisk", VexaVirtualization::STATE_CATE_VDISK},     {"HAGroup", VexaVirtualization::STATE_CATE_HA_GROUP}};
  const auto found = categories.find(constant.substr(0, constant.find(':')));
  EXPECT_NE(found, categories.end()) << constant << " is of a kind that this test does not know";
  return found == categories.end() ? VexaVirtualization::STATE_CATE_NONE : found->second;
}

// Null when the library's table does not have the state.
const VexaVirtualization::VirtualizationState* RowOf(const std::string& constant, const std::string& text) {
  for (const VexaVirtualization::VirtualizationState& row : VexaVirtualization::StateTable) {
    if (row.cate == CategoryOf(constant) && row.state == text) return &row;
  }
  return nullptr;
}

// A state without a row would be shown to users as its text, and as an error.
TEST(StateDocs, EachConstant_WordAndSeverity_MatchPage) {
  const std::map<std::string, std::string> constants = Constants();
  for (const Row& row : StateRows()) {
    if (!IsInTable(row.constant) || !constants.contains(row.constant)) continue;
    const auto* const known = RowOf(row.constant, constants.at(row.constant));
    ASSERT_NE(known, nullptr) << row.constant << " has no row in webapi/utils/states.cpp";
    std::string shown = " " + known->ui_state + ", ";
    shown += row.constant == "Guest::shutdown" ? "with the word and severity of the reason " : known->type + " ";
    EXPECT_EQ(row.shown, shown) << row.constant;
  }
}

TEST(StateDocs, EachPairOfHostStates_OnPage_HasRow) {
  for (const auto& [host, host_text] : Constants()) {
    if (!host.starts_with("Host::")) continue;
    for (const auto& [version, version_text] : Constants()) {
      if (!version.starts_with("Version::")) continue;
      // Intentional: an inaccessible host has no row for the two package versions, and none is wanted.
      const bool is_unwanted = host == "Host::inaccessible" && version.starts_with("Version::package_");
      const int category = VexaVirtualization::GetHostStateCate(host_text, version_text);
      EXPECT_EQ(category == VexaVirtualization::STATE_CATE_NONE, is_unwanted) << host << " " << version;
    }
  }
}

TEST(StateDocs, EachConstant_HasOneRow) {
  const std::map<std::string, std::string> constants = Constants();
  EXPECT_GE(constants.size(), 47u);
  std::multiset<std::string> documented;
  for (const Row& row : StateRows()) documented.insert(row.constant);
  for (const auto& [constant, text] : constants) EXPECT_EQ(documented.count(constant), 1u) << constant;
  for (const std::string& constant : documented) EXPECT_TRUE(constants.contains(constant)) << constant;
}

TEST(StateDocs, StateDocs_EachRow_NamesSourcesThatContainTheConstant) {
  for (const Row& row : StateRows()) {
    const std::string name = row.constant.substr(row.constant.rfind(':') + 1);
    if (row.maker.starts_with(" later: ")) continue;
    const std::vector<std::string> files = BackquotedNames(row.maker);
    EXPECT_FALSE(files.empty()) << row.constant << " has no source";
    for (const std::string& file : files) {
      EXPECT_TRUE(fs::exists(std::string(VEXA_SOURCE_DIR) + "/" + file)) << file;
      EXPECT_TRUE(HasWord(TextOf(file), name)) << file << " does not name " << row.constant;
    }
  }
}

// The states that are left to work to come are these, and no other becomes one by an edit of the page.
TEST(StateDocs, States_NotProducedYet_AreTheDocumentedOnes) {
  std::set<std::string> later;
  for (const Row& row : StateRows()) {
    const bool is_group = row.constant.starts_with("HAGroup::");
    if (row.maker.starts_with(" later: ") && !is_group) later.insert(row.constant);
  }
  const std::set<std::string> known{"Guest::creating", "Guest::moving", "Guest::stor_migrating", "Guest::preparing",
                                    "Guest::ha_standby"};
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
    const auto cause = static_cast<records::ShutdownCause>(value);
    EXPECT_EQ(cells[2], " " + std::string(records::ShutdownCauseName(cause)) + " ");
    for (const std::string& file : BackquotedNames(cells[5])) {
      EXPECT_TRUE(fs::exists(std::string(VEXA_SOURCE_DIR) + "/" + file)) << file;
      EXPECT_TRUE(HasWord(TextOf(file), names[static_cast<std::size_t>(value)])) << file << " does not name it";
    }
  }
}

}  // namespace
}  // namespace vexa
