// Commits to stores, and prints a line after each commit: store_committer COMMITS FOLDER [FOLDER OF A COPY]
//
// Four threads commit "/last/<thread>" and "/pair/<thread>/<number>/left" and "right", and remove the pair of three
// commits before.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "host/store/mirrored_store.h"

namespace {

using namespace vexa;

template <class T>
T Require(Result<T> result) {
  if (result.ok()) return std::move(result).value();
  std::cerr << result.error().ToString() << "\n";
  std::_Exit(1);
}

void Commit(store::Store& store, int thread, int commits) {
  for (int number = 1; number <= commits; ++number) {
    const std::string text =
        std::to_string(number) + "," + std::string(static_cast<std::size_t>(number * 1237 % 9000), 'x');
    const auto key = [&](int of, const char* side) {
      return store::MakeKey({"pair", std::to_string(thread), std::to_string(of), side});
    };
    store::Transaction transaction;
    transaction.operations = {{key(number, "left"), text},
                              {store::MakeKey({"last", std::to_string(thread)}), std::to_string(number)},
                              {key(number, "right"), text}};
    if (number > 3) {
      for (const char* const side : {"left", "right"}) transaction.operations.push_back({key(number - 3, side), {}});
    }
    const store::Revision revision = Require(store.Commit(transaction));
    const std::string line =
        std::to_string(thread) + " " + std::to_string(number) + " " + std::to_string(revision) + "\n";
    if (::write(STDOUT_FILENO, line.data(), line.size()) < 0) std::_Exit(1);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  store::LmdbOptions options;
  options.directory = argv[2];
  std::shared_ptr<store::Store> store = Require(store::OpenLmdbStore(options));
  std::shared_ptr<store::MirroredStore> mirrored;
  if (argc > 3) {
    store::MirrorOptions mirror;
    mirror.directory = argv[3];
    mirror.batch_delay = std::chrono::milliseconds(1);
    store = mirrored = Require(store::MirroredStore::Make(store, mirror));
  }
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&, thread] { Commit(*store, thread, std::atoi(argv[1])); });
  }
  for (std::thread& thread : threads) thread.join();
  // Until the copy has everything.
  while (mirrored && mirrored->mirrored_revision() < Require(store->Read())->revision()) ::usleep(1000);
  return 0;
}
