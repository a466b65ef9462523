// Reads a page whose commands a test runs, and compares what they print with what the page says.
//
// What a page is made of:
//   ```sh     commands for a shell: a step. Blocks in other languages are for readers only.
//   ```text   right after a step, all that the terminal shows then. Without one the step prints nothing.
// In the output:
//   …         any text within a line; on a line of its own, any number of lines
//   ⌨text     what is typed at this place, with the Enter key at its end; the terminal may show it
// One or more spaces stand for one or more spaces, and spaces at the end of a line do not count.
#pragma once

#include <string>
#include <vector>

namespace vexa::test {

struct TutorialStep {
  int line = 0;  // of the page: the first one of its commands
  std::string commands;
  std::vector<std::string> output;  // the lines that are expected
};

// The steps of a page in their order.
std::vector<TutorialStep> ReadTutorial(const std::string& page);

// Something to type: once `after` has been shown, unless that is empty.
struct TypedText {
  std::string after;
  std::string text;
};
std::vector<TypedText> TypedTexts(const TutorialStep& step);

// The lines that a terminal shows for these bytes: without escape sequences, and without text that is overwritten from
// the beginning of its line. Empty lines at the end are left out.
std::vector<std::string> ShownLines(const std::string& bytes);

// Why the lines are not what the step expects; empty when they are.
std::string DifferenceFrom(const TutorialStep& step, const std::vector<std::string>& shown);

}  // namespace vexa::test
