// A process that uses a store, for tests: store_test_worker COMMAND FOLDER [ARGUMENT]. Exit code 0: all checks passed.
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>

#include "host/store/key.h"
#include "host/store/lmdb_store.h"

namespace vexa::store {
namespace {

constexpr int kNotPermitted = 77;

void Require(bool condition, const std::string& what) {
  if (condition) return;
  std::cerr << "store_test_worker: " << what << "\n";
  std::_Exit(1);
}

std::shared_ptr<Store> Open(const std::string& directory) {
  auto store = OpenLmdbStore({directory, kStoreMapBytes, 1000});
  Require(store.ok(), store.ok() ? "" : store.error().ToString());
  return *store;
}

std::string TextOf(const Store& store, const std::string& key) {
  const auto snapshot = store.Read();
  Require(snapshot.ok(), "cannot read");
  const auto value = snapshot.value()->Get(key);
  Require(value.ok(), "cannot get");
  return *value ? std::string((*value)->text) : "";
}

// Adds one to "/shared", `times` times.
int IncrementMany(const std::string& directory, const std::string& times) {
  const auto store = Open(directory);
  for (int left = std::stoi(times); left > 0;) {
    Transaction transaction;
    {
      const auto snapshot = store->Read();
      Require(snapshot.ok(), "cannot read");
      const auto value = snapshot.value()->Get("/shared");
      Require(value.ok(), "cannot get");
      const long count = *value ? std::stol(std::string((*value)->text)) : 0;
      transaction.compares.push_back({"/shared", *value ? (*value)->revision : 0});
      transaction.operations.push_back({"/shared", std::to_string(count + 1)});
    }
    const auto done = store->Commit(transaction);
    Require(done.ok() || done.error().code() == ErrorCode::kConflict, "cannot commit");
    if (done.ok()) --left;
  }
  return 0;
}

// Commits two keys with the next number until it is killed, and prints each number after its commit.
int Acknowledge(const std::string& directory, const std::string&) {
  const auto store = Open(directory);
  const std::string last = TextOf(*store, "/last");
  for (long number = last.empty() ? 1 : std::stol(last) + 1;; ++number) {
    const std::string text = std::to_string(number);
    const std::string padded = text + "," + std::string(static_cast<std::size_t>(number * 37 % 9000), 'x');
    const auto done = store->Commit(
        {{}, {{MakeKey({"ack", text, "left"}), padded}, {"/last", text}, {MakeKey({"ack", text, "right"}), padded}}});
    Require(done.ok(), "cannot commit");
    const std::string line = text + "\n";
    if (::write(STDOUT_FILENO, line.data(), line.size()) < 0) return 1;
  }
}

// Reads "/l" and "/r", which are always committed together, until their value is "end".
int ReadPairs(const std::string& directory, const std::string&) {
  const auto store = Open(directory);
  std::printf("ready\n");
  std::fflush(stdout);
  while (true) {
    const auto snapshot = store->Read();
    Require(snapshot.ok(), "cannot read");
    const auto left = snapshot.value()->Get("/l");
    const auto right = snapshot.value()->Get("/r");
    Require(left.ok() && right.ok() && left->has_value() == right->has_value(), "one of two is missing");
    if (!left->has_value()) continue;
    Require((*left)->text == (*right)->text && (*left)->revision == (*right)->revision, "half a transaction was seen");
    if ((*left)->text == "end") return 0;
  }
}

// Fills the store until a commit is refused, and checks that all values are unchanged and that commits work again after
// `lift_limit`.
int FillUp(const std::string& directory, const std::function<void()>& lift_limit) {
  const auto store = Open(directory);
  Require(store->Commit({{}, {{"/keep", "kept"}}}).ok(), "the first commit was refused");
  ErrorCode refusal = ErrorCode::kInvalid;
  Revision last = 0;
  int written = 0;
  for (; written < 10'000; ++written) {
    const auto done = store->Commit({{}, {{MakeKey({"fill", std::to_string(written)}), std::string(30'000, 'f')}}});
    if (!done.ok()) {
      refusal = done.error().code();
      break;
    }
    last = *done;
  }
  Require(refusal == ErrorCode::kNoSpace || refusal == ErrorCode::kInternal, "refused for a wrong reason, or never");
  Require(written > 3, "refused immediately");
  Require(store->health() == Health::kReadOnly, "the store reports that it is ready");
  Require(store->Read().value()->revision() == last, "the refused commit left a revision");
  Require(TextOf(*store, MakeKey({"fill", std::to_string(written)})).empty(), "the refused commit left a value");
  Require(TextOf(*store, "/keep") == "kept", "a value was lost");
  lift_limit();
  const auto again = store->Commit({{}, {{"/after", std::string(30'000, 'a')}}});
  Require(again.ok(), "refused although there is room again");
  Require(store->health() == Health::kReady, "the store does not report that it is ready again");
  for (int i = 0; i < written; ++i) {
    Require(TextOf(*store, MakeKey({"fill", std::to_string(i)})) == std::string(30'000, 'f'), "a value was damaged");
  }
  std::printf("%s\n", std::string(ErrorCodeName(refusal)).c_str());
  return 0;
}

int FillUpToFileLimit(const std::string& directory, const std::string& bytes) {
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  Require(::getrlimit(RLIMIT_FSIZE, &limit) == 0, "no limit to be read");
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = static_cast<rlim_t>(std::stoul(bytes));
  Require(::setrlimit(RLIMIT_FSIZE, &limit) == 0, "no limit to be set");
  return FillUp(directory, [&] {
    limit.rlim_cur = before;
    Require(::setrlimit(RLIMIT_FSIZE, &limit) == 0, "no limit to be lifted");
  });
}

// The disk is a small file system in the mount namespace of this process, and disappears with it.
int FillUpDisk(const std::string& directory, const std::string& bytes) {
  if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount("tmpfs", directory.c_str(), "tmpfs", 0, ("size=" + bytes).c_str()) != 0) {
    return kNotPermitted;
  }
  return FillUp(directory, [&] {
    Require(::mount("tmpfs", directory.c_str(), "tmpfs", MS_REMOUNT, "size=64m") == 0, "no larger disk");
  });
}

// Grows the store beyond the memory maps of other processes.
int Grow(const std::string& directory, const std::string& values) {
  const auto store = Open(directory);
  for (int i = 0; i < std::stoi(values); ++i) {
    const auto done = store->Commit({{}, {{MakeKey({"grown", std::to_string(i)}), std::string(100'000, 'g')}}});
    Require(done.ok(), done.ok() ? "" : done.error().ToString());
  }
  return 0;
}

struct Command {
  std::string_view name;
  int (*run)(const std::string& directory, const std::string& argument);
};
constexpr Command kCommands[] = {
    {"increment", IncrementMany},         {"acknowledge", Acknowledge}, {"read_pairs", ReadPairs},
    {"fill_to_limit", FillUpToFileLimit}, {"fill_disk", FillUpDisk},    {"grow", Grow},
};

}  // namespace
}  // namespace vexa::store

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  for (const auto& command : vexa::store::kCommands) {
    if (command.name == argv[1]) return command.run(argv[2], argc > 3 ? argv[3] : "");
  }
  return 2;
}
