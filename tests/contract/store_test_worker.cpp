// A process that uses a store, for tests: store_test_worker COMMAND FOLDER [ARGUMENT]. Exit code 0: all checks passed.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "host/store/key.h"
#include "host/store/lmdb_keyspace.h"
#include "host/store/lmdb_store.h"
#include "tests/contract/store_worker_commands.h"

namespace vexa::store {

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

namespace {

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

// Grows the store beyond the memory maps of other processes.
int Grow(const std::string& directory, const std::string& values) {
  const auto store = Open(directory);
  for (int i = 0; i < std::stoi(values); ++i) {
    const auto done = store->Commit({{}, {{MakeKey({"grown", std::to_string(i)}), std::string(100'000, 'g')}}});
    Require(done.ok(), done.ok() ? "" : done.error().ToString());
  }
  return 0;
}

// Stops itself in the middle of a commit, while it holds the lock for writers.
int StopInCommit(const std::string& directory, const std::string&) {
  LmdbOptions options;
  options.directory = directory;
  const auto keyspace = LmdbKeyspace::Open(options);
  Require(keyspace.ok(), "cannot open");
  const Status done = (*keyspace)->Update([](KeyspaceWriter& writer) -> Status {
    std::printf("holds\n");
    std::fflush(stdout);
    ::raise(SIGSTOP);  // for this thread, so that it does not go on before the process stops
    return writer.Apply(writer.revision() + 1, std::vector<Operation>{{"/holder", "1"}});
  });
  Require(done.ok(), "cannot commit");
  return 0;
}

// Holds a snapshot until it is killed.
int HoldSnapshot(const std::string& directory, const std::string&) {
  const auto store = Open(directory);
  const auto snapshot = store->Read();
  Require(snapshot.ok(), "cannot read");
  std::printf("holds\n");
  std::fflush(stdout);
  while (true) ::pause();
}

struct Command {
  std::string_view name;
  int (*run)(const std::string& directory, const std::string& argument);
};
constexpr Command kCommands[] = {
    {"increment", IncrementMany},         {"acknowledge", Acknowledge},       {"read_pairs", ReadPairs},
    {"fill_to_limit", FillUpToFileLimit}, {"fill_disk", FillUpDisk},          {"load_tmpfs", LoadFullTmpfs},
    {"load_ext4", LoadFullExt4},          {"load_at_limit", LoadAtFileLimit}, {"grow", Grow},
    {"stop_in_commit", StopInCommit},     {"hold_snapshot", HoldSnapshot},    {"use_damaged", UseDamagedCopies},
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
