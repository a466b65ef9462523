// store_test_worker on disks that are full.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include "host/base/descriptor.h"
#include "host/store/key.h"
#include "tests/contract/store_worker_commands.h"

namespace vexa::store {
namespace {

using namespace std::chrono_literals;

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

void SetFileLimit(rlim_t bytes) {
  rlimit limit{};
  Require(::getrlimit(RLIMIT_FSIZE, &limit) == 0, "no limit to be read");
  limit.rlim_cur = bytes;
  Require(::setrlimit(RLIMIT_FSIZE, &limit) == 0, "no limit to be set");
}

constexpr int kReaders = 64;  // with those of the store itself, more slots than the lock file's first page has
constexpr int kWriters = 8;
constexpr int kRounds = 80;

void WaitFor(const std::function<bool()>& condition, const std::string& what) {
  const auto deadline = std::chrono::steady_clock::now() + 60s;
  while (!condition()) {
    Require(std::chrono::steady_clock::now() < deadline, "in vain: " + what);
    std::this_thread::sleep_for(1ms);
  }
}

struct Load {
  std::shared_ptr<Store> store;
  std::atomic<bool> is_full{true};
  std::atomic<bool> may_have_room{false};
  std::atomic<bool> ends{false};
  std::atomic<int> readers_inside{0};
  std::atomic<int> reads{0};
  std::atomic<int> refused{0};
  std::atomic<int> committed{0};

  void ReadUntilEnd() {
    {
      const auto snapshot = store->Read();
      Require(snapshot.ok(), "cannot read");
      ++readers_inside;
      WaitFor([this] { return readers_inside == kReaders; }, "all readers with a snapshot");
    }
    while (!ends) {
      Require(TextOf(*store, "/keep") == "kept", "a value was lost");
      ++reads;
      std::this_thread::sleep_for(1ms);
    }
  }

  void WriteUntilEnd(int number) {
    for (int i = 0; !ends; ++i) {
      const bool was_full = is_full;
      const std::string key = MakeKey({"w", std::to_string(number), std::to_string(i)});
      const auto done = store->Commit({{}, {{key, std::string(300'000, 'w')}}});
      if (done.ok()) {
        ++committed;
        if (!was_full) return;
      } else {
        // The reason for a write that was cut short is looked up after it, when there may be room again.
        Require(done.error().code() == ErrorCode::kNoSpace || may_have_room, done.error().ToString());
        ++refused;
      }
      std::this_thread::sleep_for(1ms);
    }
  }
};

// Readers and writers on a disk without any room, until `make_room`.
int LoadFull(const std::string& directory, const std::function<void()>& fill, const std::function<void()>& make_room) {
  Load load;
  load.store = Open(directory);
  Require(load.store->Commit({{}, {{"/keep", "kept"}}}).ok(), "the first commit was refused");
  fill();
  std::vector<std::thread> threads;
  threads.reserve(kReaders + kWriters);
  for (int i = 0; i < kReaders; ++i) threads.emplace_back([&] { load.ReadUntilEnd(); });
  for (int i = 0; i < kWriters; ++i) threads.emplace_back([&, i] { load.WriteUntilEnd(i); });
  WaitFor([&] { return load.refused >= kRounds && load.reads >= kRounds; }, "refusals and reads on the full disk");
  Require(load.committed == 0, "a commit was accepted without room");
  load.may_have_room = true;
  make_room();
  load.is_full = false;
  WaitFor([&] { return load.committed >= kWriters; }, "a commit of each writer when there is room again");
  WaitFor([&] { return load.store->health() == Health::kReady; }, "a store that reports that it is ready");
  load.ends = true;
  for (std::thread& thread : threads) thread.join();
  return 0;
}

// Leaves no room on the disk of `path`.
void WriteFiller(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  Require(file.get() >= 0, "no filler");
  for (std::size_t bytes = std::size_t{1} << 20; bytes > 0; bytes /= 2) {
    const std::string block(bytes, 'x');
    while (::write(file.get(), block.data(), block.size()) == static_cast<ssize_t>(block.size()) &&
           ::fsync(file.get()) == 0) {
    }
  }
}

int LoadFullFileSystem(const std::string& root) {
  const std::string filler = root + "/filler";
  return LoadFull(
      root + "/store", [&] { WriteFiller(filler); }, [&] { std::filesystem::remove(filler); });
}

// Runs a program of the system. Returns whether it succeeded.
bool RunTool(const std::vector<std::string>& arguments) {
  std::string line;
  for (const std::string& argument : arguments) line += "'" + argument + "' ";
  return std::system((line + ">/dev/null 2>&1").c_str()) ==
         0;  // NOLINT(cert-env33-c,concurrency-mt-unsafe): before other threads
}

}  // namespace

bool HasOwnMounts() {
  return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

int FillUpToFileLimit(const std::string& directory, const std::string& bytes) {
  ::signal(SIGXFSZ, SIG_IGN);
  SetFileLimit(static_cast<rlim_t>(std::stoul(bytes)));
  return FillUp(directory, [] { SetFileLimit(RLIM_INFINITY); });
}

int LoadAtFileLimit(const std::string& directory, const std::string& bytes) {
  ::signal(SIGXFSZ, SIG_IGN);
  return LoadFull(
      directory, [&] { SetFileLimit(static_cast<rlim_t>(std::stoul(bytes))); }, [] { SetFileLimit(RLIM_INFINITY); });
}

// The disks are small file systems in the mount namespace of this process, and disappear with it.

int FillUpDisk(const std::string& directory, const std::string& bytes) {
  if (!HasOwnMounts() || ::mount("tmpfs", directory.c_str(), "tmpfs", 0, ("size=" + bytes).c_str()) != 0) {
    return kNotPermitted;
  }
  return FillUp(directory, [&] {
    Require(::mount("tmpfs", directory.c_str(), "tmpfs", MS_REMOUNT, "size=64m") == 0, "no larger disk");
  });
}

int LoadFullTmpfs(const std::string& directory, const std::string&) {
  if (!HasOwnMounts() || ::mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=8m") != 0) return kNotPermitted;
  return LoadFullFileSystem(directory);
}

int LoadFullExt4(const std::string& directory, const std::string&) {
  const std::string image = directory + "/image";
  const std::string root = directory + "/root";
  std::filesystem::create_directory(root);
  if (!HasOwnMounts() || !RunTool({"truncate", "-s", "24M", image}) ||
      !RunTool({"mkfs.ext4", "-q", "-m", "0", image}) || !RunTool({"mount", "-o", "loop", image, root})) {
    return kNotPermitted;
  }
  std::filesystem::remove(root + "/lost+found");
  return LoadFullFileSystem(root);
}

}  // namespace vexa::store
