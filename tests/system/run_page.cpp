// usage: run_page PAGE FOLDER [PROGRAM [ARGUMENT…]]
// Runs the commands of a page in their order, beginning in FOLDER, and compares what they show with the page. PROGRAM
// runs the shell elsewhere, such as `nsenter` in another system. Exits with 1 at the first difference.
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/system/page_shell.h"
#include "tests/system/tutorial_page.h"

int main(int argc, char** argv) {
  using namespace vexa::test;
  if (argc < 3) {
    std::fprintf(stderr, "usage: run_page PAGE FOLDER [PROGRAM [ARGUMENT...]]\n");
    return 2;
  }
  std::ifstream file(argv[1]);
  const std::vector<TutorialStep> steps =
      ReadTutorial(std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()));
  if (steps.empty()) {
    std::fprintf(stderr, "run_page: the page '%s' cannot be read, or has no commands\n", argv[1]);
    return 2;
  }
  const PageShell shell(std::vector<std::string>(argv + 3, argv + argc), argv[2], std::chrono::seconds(300));
  for (const TutorialStep& step : steps) {
    if (const std::string difference = shell.Run(step); !difference.empty()) {
      std::fprintf(stderr, "run_page: %s\n", difference.c_str());
      return 1;
    }
  }
  std::printf("run_page: %zu steps of '%s' did what the page says.\n", steps.size(), argv[1]);
  return 0;
}
