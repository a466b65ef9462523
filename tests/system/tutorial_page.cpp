#include "tests/system/tutorial_page.h"

#include <algorithm>
#include <cstddef>
#include <regex>
#include <sstream>
#include <string_view>

namespace vexa::test {
namespace {

constexpr std::string_view kAnything = "…";
constexpr std::string_view kTyped = "⌨";

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string WithoutEnd(std::string line) {
  line.erase(line.find_last_not_of(" \t\r") + 1);
  return line;
}

// The regular expression that a line of the page stands for.
std::string PatternOf(const std::string& line) {
  std::string pattern;
  for (std::size_t at = 0; at < line.size();) {
    const std::string_view rest = std::string_view(line).substr(at);
    if (rest.starts_with(kAnything)) {
      pattern += ".*";
      at += kAnything.size();
    } else if (rest.starts_with(kTyped)) {
      pattern += "(?:" + PatternOf(line.substr(at + kTyped.size())) + ")?";
      break;
    } else if (rest.front() == ' ') {
      pattern += " +";
      at = std::min(line.find_first_not_of(' ', at), line.size());
    } else {
      if (std::string_view("\\^$.|?*+()[]{}").find(rest.front()) != std::string_view::npos) pattern += '\\';
      pattern += rest.front();
      ++at;
    }
  }
  return pattern;
}

bool LineMatches(const std::string& expected, const std::string& shown) {
  const std::regex pattern(PatternOf(expected));
  // The space before what is typed may end the line.
  return std::regex_match(shown, pattern) || std::regex_match(shown + " ", pattern);
}

// The number of expected lines that fit, from the first one; all of them: everything fits.
std::size_t CountFitting(const std::vector<std::string>& expected, std::size_t first,
                         const std::vector<std::string>& shown, std::size_t at) {
  for (; first < expected.size(); ++first, ++at) {
    if (expected[first] == kAnything) {
      std::size_t best = first;
      for (std::size_t next = at; next <= shown.size(); ++next) {
        best = std::max(best, CountFitting(expected, first + 1, shown, next));
      }
      return best;
    }
    if (at == shown.size() || !LineMatches(expected[first], shown[at])) return first;
  }
  return at == shown.size() ? expected.size() : expected.size() - 1;
}

std::string Join(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += "  " + line + "\n";
  return text.empty() ? "  (nothing)\n" : text;
}

}  // namespace

std::vector<TutorialStep> ReadTutorial(const std::string& page) {
  std::vector<TutorialStep> steps;
  std::string language;
  bool is_in_block = false;
  bool is_after_step = false;
  int number = 0;
  for (const std::string& line : SplitLines(page)) {
    ++number;
    if (line.starts_with("```")) {
      is_in_block = !is_in_block;
      if (!is_in_block) {
        is_after_step = language == "sh";
        continue;
      }
      language = line.substr(3);
      if (language == "sh") steps.push_back({number + 1, "", {}});
      if (language == "text" && !is_after_step) language = "prose";
    } else if (!is_in_block) {
      if (!line.empty()) is_after_step = false;
    } else if (language == "sh") {
      steps.back().commands += line + "\n";
    } else if (language == "text") {
      steps.back().output.push_back(WithoutEnd(line));
    }
  }
  return steps;
}

std::vector<TypedText> TypedTexts(const TutorialStep& step) {
  std::vector<TypedText> typed;
  std::string before;  // what was shown last
  for (const std::string& line : step.output) {
    const std::size_t at = line.find(kTyped);
    const std::string prompt = WithoutEnd(line.substr(0, at));
    const std::size_t anything = prompt.rfind(kAnything);
    if (!prompt.empty()) before = anything == std::string::npos ? prompt : prompt.substr(anything + kAnything.size());
    if (at != std::string::npos) typed.push_back({before, line.substr(at + kTyped.size())});
  }
  return typed;
}

std::vector<std::string> ShownLines(const std::string& bytes) {
  static const std::regex escapes("\x1b\\[[0-9;?]*[A-Za-z]");
  std::vector<std::string> lines;
  for (std::string line : SplitLines(std::regex_replace(bytes, escapes, ""))) {
    line = WithoutEnd(line);
    lines.push_back(WithoutEnd(line.substr(line.rfind('\r') + 1)));
  }
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines;
}

std::string DifferenceFrom(const TutorialStep& step, const std::vector<std::string>& shown) {
  const std::size_t fitting = CountFitting(step.output, 0, shown, 0);
  const bool is_expected = step.output.empty() ? shown.empty() : fitting == step.output.size();
  if (is_expected) return "";
  std::string difference = "Line " + std::to_string(step.line) + " of the page: " + step.commands + "shows\n" +
                           Join(shown) + "and not\n" + Join(step.output);
  if (fitting < step.output.size()) difference += "The first line that does not fit: " + step.output[fitting] + "\n";
  return difference;
}

}  // namespace vexa::test
