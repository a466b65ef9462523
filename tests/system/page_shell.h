// Runs the commands of a page as its readers do.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "tests/system/tutorial_page.h"

namespace vexa::test {

// A shell on a terminal. Each step begins in the folder and with the variables of the one before.
class PageShell {
 public:
  // `prefix`: a program with its arguments that runs the shell elsewhere, such as nsenter; empty: here.
  // `folder`: where the first step begins, and HOME. It exists where the shell runs, and gets a file named
  // ".page-shell". `patience`: how long a command may show nothing.
  PageShell(std::vector<std::string> prefix, std::string folder, std::chrono::seconds patience);

  // Prints the commands and what they show. Returns why the step is not as the page says; empty when it is.
  std::string Run(const TutorialStep& step) const;

 private:
  const std::vector<std::string> prefix_;
  const std::string folder_;
  const std::chrono::seconds patience_;
};

}  // namespace vexa::test
