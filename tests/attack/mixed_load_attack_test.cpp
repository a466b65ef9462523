// All attackers at the same time: strangers with as many connections as they can open, a user without rights, a host
// without membership, and somebody who guesses passwords, each doing something else every few seconds. Users, root and
// a host go on working meanwhile. Each of their calls must be answered correctly, every edit that was acknowledged must
// be there at the end and after a restart, memory and descriptors must be bounded, and the log must have nothing that
// is not about the attackers.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/attack/attack.h"
#include "tests/attack/attacked_host.h"
#include "tests/attack/attackers.h"
#include "tests/attack/workers.h"
#include "tests/support/check.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kShortForm{12'000};
constexpr milliseconds kShortestPhase{4'000};
constexpr int kPhases = 6;  // each ends with a look at memory and descriptors, without attackers
constexpr int kPlaces = 400;
constexpr seconds kAnswerTime{60};
constexpr std::size_t kKib = 1024;
constexpr std::size_t kMib = 1024 * kKib;
// Of memory that is not a file's, from the end of the first phase to that of any later one.
constexpr std::size_t kMaxGrowth = 64 * kMib;
constexpr std::size_t kMaxMoreDescriptors = 40;
constexpr milliseconds kSettling{10'000};

// What work, and refusals of the attackers, leave in the log.
constexpr const char* kExpectedLines =
    R"(^vexad: (Performed '(edit|poweron|poweroff)' on guest |User\[[a-z]+\] logged in from )"
    R"(|Login of user\[grace\] from .* failed: The name or the password is wrong )"
    R"(|guest(_action)?:[0-9]+ (Bad parameters, |Action on guest\[|Action not allowed from user\[mallory\]))"
    R"(|Wrong old password for user\[mallory\] |A call was refused: '[^']*' at [0-9.]* is not a host of this cluster)"
    R"(|VEXA\.[A-Za-z.]+ [a-z_]+ was refused: '[a-z_]+' has [0-9]+ elements, and may have ))";

struct Sample {
  std::size_t resident = 0;
  std::size_t anonymous = 0;  // without what is a file's, such as the map of the database
  std::size_t descriptors = 0;
  std::size_t threads = 0;
};

std::size_t StatusOf(const AttackedHost& host, const std::string& name) {
  std::ifstream file(fmt::format("/proc/{}/status", host.daemon().pid()));
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with(name + ":")) return std::stoull(line.substr(name.size() + 1));
  }
  Fail("the daemon has ended: " + host.LastLog());
}

Sample Measure(const AttackedHost& host) {
  return {host.ResidentBytes(), StatusOf(host, "RssAnon") * kKib, host.Descriptors(), StatusOf(host, "Threads")};
}

// Freed memory is given back within seconds, and the workers take some all the while: the least that was seen counts.
Sample MeasureFor(milliseconds time, const AttackedHost& host) {
  Sample least = Measure(host);
  for (const auto end = std::chrono::steady_clock::now() + time; std::chrono::steady_clock::now() < end;) {
    std::this_thread::sleep_for(milliseconds(100));
    const Sample now = Measure(host);
    if (now.anonymous < least.anonymous) least = now;
  }
  return least;
}

// The lines of the log that kExpectedLines let through, without the lines that the start waits for.
std::string UnexpectedLines(const std::string& log) {
  std::istringstream lines(log);
  std::string unexpected;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("vexad: Listening ") || line == "vexad: Ready.") continue;
    if (line == "vexad: Guests are only simulated here: nothing runs.") continue;
    if (unexpected.size() < 20'000) unexpected += line + "\n";
  }
  return unexpected;
}

TEST(MixedLoadAttack, EverybodyAttacks_WorkIsDoneCorrectlyAndNothingGrows) {
  AttackedHostOptions options;
  options.doors = Doors::kUsersAndHosts;
  options.guests = Workers::kGuests;
  options.flags = {"--max-connections", std::to_string(kPlaces)};
  // In an hour the attackers cause millions of lines; what is expected does not even reach this process.
  options.launcher = {"/bin/bash", "-c", R"(exec "$@" 2> >(grep -vE --line-buffered "$0" >&2))", kExpectedLines};
  AttackedHost host(std::move(options));
  std::mt19937 random = MakeRandom();
  const Sample first = Measure(host);
  Workers workers(host);
  Attackers attackers(host, kPlaces, random);
  const AttackTime time(kShortForm);
  const milliseconds phase = std::max(kShortestPhase, time.length() / kPhases);
  std::vector<Sample> samples;
  while (!time.IsOver() || samples.size() < 2) {
    attackers.Attack(std::chrono::steady_clock::now() + phase);
    EXPECT_TRUE(HoldsInTime([&] { return host.Descriptors() <= first.descriptors + kMaxMoreDescriptors; }))
        << host.Descriptors() << " descriptors, " << first.descriptors << " at the start";
    samples.push_back(MeasureFor(std::min(kSettling, phase / 4), host));
    Report(
        fmt::format("after {:.1f} minutes: {} MiB resident, {} MiB of them anonymous, {} descriptors, {} threads; {} "
                    "calls of work",
                    static_cast<double>(samples.size()) * static_cast<double>(phase.count()) / 60'000,
                    samples.back().resident / kMib, samples.back().anonymous / kMib, samples.back().descriptors,
                    samples.back().threads, workers.done()));
    EXPECT_LE(samples.back().anonymous, samples[0].anonymous + kMaxGrowth);
  }
  workers.Finish();
  EXPECT_THAT(workers.failures(), testing::IsEmpty());
  EXPECT_GT(workers.done(), 100);
  const auto expect_edits = [&] {
    HttpClient root = host.Root(kAnswerTime);
    for (const auto& [guest, text] : workers.acknowledged()) {
      EXPECT_EQ(AttackedHost::DescriptionOf(root, guest), text) << guest;
    }
  };
  EXPECT_EQ(workers.acknowledged().size(), std::size_t{Workers::kEditors * Workers::kGuestsOfEditor});
  expect_edits();
  EXPECT_EQ(UnexpectedLines(host.LastLog()), "");
  const auto ended = host.Stop();
  ASSERT_TRUE(ended.has_value()) << "it does not stop";
  EXPECT_EQ(ended->code, 0);
  host.Start();
  expect_edits();
  Report(attackers.Summary());
  Report(fmt::format("{} calls of work were answered correctly, and every edit is there", workers.done()));
}

}  // namespace
}  // namespace vexa::test
