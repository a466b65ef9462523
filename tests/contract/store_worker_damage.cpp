// store_test_worker with damaged copies of a store.
#include <sys/mount.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "tests/contract/store_worker_commands.h"

namespace vexa::store {
namespace {

constexpr std::size_t kPage = 4096;
constexpr int kCopies = 700;

// Small and large values, many keys, a change log, and free pages.
std::string MakeOriginal(const std::string& directory) {
  const auto store = Open(directory);
  std::mt19937 random(1);
  for (int commit = 0; commit < 60; ++commit) {
    Transaction transaction;
    for (int i = 0; i < 20; ++i) {
      const std::string key = MakeKey({"dash", "guest", std::to_string(random() % 400), "object"});
      const std::size_t bytes = random() % 20 == 0 ? random() % 20'000 : random() % 300;
      transaction.operations.push_back({key, std::string(bytes, 'v')});
      if (random() % 4 == 0) transaction.operations.push_back({MakeKey({"dash", "guest", std::to_string(i)}), {}});
    }
    Require(store->Commit(transaction).ok(), "the original cannot be made");
  }
  std::ifstream in(directory + "/data.mdb", std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Changes bits anywhere, or where the header of a page or of its entries is; or cuts the file.
std::string Damage(std::string content, std::mt19937& random) {
  const std::size_t kind = random() % 10;
  if (kind == 0) return content.substr(0, random() % content.size());
  const int bytes = kind < 3 ? 4 : 1;
  for (int i = 0; i < bytes; ++i) {
    std::size_t at = random() % content.size();
    if (kind % 2 == 0) at = at / kPage * kPage + random() % 80;
    content[at] = static_cast<char>(content[at] ^ static_cast<char>(1U << (random() % 8)));
  }
  return content;
}

void ReadEverything(const Store& store) {
  const auto snapshot = store.Read();
  if (!snapshot.ok()) return;
  std::size_t bytes = 0;
  const Status scanned = (*snapshot)->Scan("", [&](std::string_view key, const ValueView& value) {
    bytes += key.size();
    for (const char letter : value.text) bytes += static_cast<unsigned char>(letter);
    return true;
  });
  const auto children = (*snapshot)->Children("/dash/guest");
  for (int i = 0; i < 400; ++i) {
    const auto value = (*snapshot)->Get(MakeKey({"dash", "guest", std::to_string(i), "object"}));
    if (value.ok() && *value) bytes += (*value)->text.size();
  }
  Require(scanned.ok() || children.ok() || bytes > 0, "nothing can be read");
}

// Commits may be refused, but must not end the process.
void WriteMuch(Store& store, std::mt19937& random) {
  for (int i = 0; i < 6; ++i) {
    Transaction transaction;
    for (int k = 0; k < 15; ++k) {
      const std::string key = MakeKey({"dash", "guest", std::to_string(random() % 400), "object"});
      if (k % 3 == 0) transaction.operations.push_back({key, std::nullopt});
      if (k % 3 != 0) transaction.operations.push_back({key, std::string(random() % 9000, 'n')});
    }
    static_cast<void>(store.Commit(transaction).ok());
  }
}

}  // namespace

// Prints how many copies were refused, how many were opened, and the number of the copy before it is used, so that the
// last one is the one that ended the process.
int UseDamagedCopies(const std::string& directory, const std::string& seed) {
  std::mt19937 random(static_cast<unsigned>(std::stoul(seed)));
  const std::string folder = directory + "/copies";
  std::filesystem::create_directory(folder);
  // In memory, where that is allowed: nothing here depends on a disk.
  const bool in_memory = HasOwnMounts() && ::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=64m") == 0;
  const std::string original = MakeOriginal(folder + "/original");
  const std::string copy = folder + "/copy";
  std::filesystem::create_directory(copy);
  int refused = 0;
  for (int i = 0; i < kCopies; ++i) {
    {
      const std::string damaged = Damage(original, random);
      std::ofstream(copy + "/data.mdb", std::ios::binary | std::ios::trunc)
          .write(damaged.data(), static_cast<std::streamsize>(damaged.size()));
    }
    std::ofstream(directory + "/number", std::ios::trunc) << i;
    const auto store = OpenLmdbStore({copy, std::size_t{64} << 20, 1000});
    if (!store.ok()) {
      ++refused;
      continue;
    }
    ReadEverything(**store);
    static_cast<void>((*store)->Watch("", 1, std::chrono::milliseconds(0)).ok());
    WriteMuch(**store, random);
    ReadEverything(**store);
  }
  if (in_memory) ::umount2(folder.c_str(), MNT_DETACH);
  std::printf("%d %d\n", refused, kCopies - refused);
  return 0;
}

}  // namespace vexa::store
