// The attacker takes the room that the daemon's files need: on a small disk, by a limit on the size of files, or by
// making the disk read-only, while 64 readers and 8 writers work. Readers must be served, a write that was refused must
// not be there, one that was acknowledged must be, the daemon must report that it cannot write, and work again as soon
// as there is room, without a restart.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include "host/base/descriptor.h"
#include "host/base/mutex.h"
#include "tests/attack/attack.h"
#include "tests/attack/attacked_host.h"
#include "tests/support/check.h"
#include "tests/unit/storage/mount_point.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;

constexpr int kReaders = 64;
constexpr int kWriters = 8;
constexpr int kLeastReads = 300;
constexpr int kLeastRefusals = 40;
constexpr milliseconds kShortForm{0};  // once

// Readers and writers, each with a connection; each writer has a guest of its own.
class Load {
 public:
  explicit Load(const AttackedHost& host) {
    for (int i = 0; i < kReaders; ++i) {
      threads_.emplace_back([this, client = host.ClientOf("grace", kPatience)]() mutable { Read(client); });
    }
    for (int i = 0; i < kWriters; ++i) {
      threads_.emplace_back([this, i, client = host.ClientOf("admin", kPatience)]() mutable { Write(i, client); });
    }
  }
  ~Load() { Finish(); }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;
  void Finish() {
    is_over_ = true;
    threads_.clear();
  }

  int reads() const { return reads_; }
  int failed_reads() const { return failed_reads_; }
  int refused() const { return refused_; }
  int unanswered() const { return unanswered_; }
  int accepted(int writer) const { return accepted_[static_cast<std::size_t>(writer)]; }
  int accepted() const {
    int sum = 0;
    for (const auto& number : accepted_) sum += number;
    return sum;
  }
  std::set<int> codes() const {
    const MutexLock lock(mutex_);
    return codes_;
  }
  // The last description of the writer's guest that was acknowledged. After Finish().
  const std::string& acknowledged(int writer) const { return acknowledged_[static_cast<std::size_t>(writer)]; }

 private:
  void Read(HttpClient& client) {
    while (!is_over_) {
      ++(AttackedHost::Gets(client) ? reads_ : failed_reads_);
      std::this_thread::sleep_for(milliseconds(5));
    }
  }

  void Write(int writer, HttpClient& client) {
    const auto index = static_cast<std::size_t>(writer);
    for (int i = 0; !is_over_; ++i) {
      const std::string text = fmt::format("{} {}", i, std::string(static_cast<std::size_t>(i % 200), 'x'));
      const int code = AttackedHost::Describe(client, writer, text);
      if (code == 0) {
        acknowledged_[index] = text;
        ++accepted_[index];
      } else {
        ++(code < 0 ? unanswered_ : refused_);
        const MutexLock lock(mutex_);
        codes_.insert(code);
      }
      std::this_thread::sleep_for(milliseconds(2));
    }
  }

  std::atomic<bool> is_over_ = false;
  std::atomic<int> reads_ = 0;
  std::atomic<int> failed_reads_ = 0;
  std::atomic<int> refused_ = 0;
  std::atomic<int> unanswered_ = 0;
  std::array<std::atomic<int>, kWriters> accepted_{};
  std::array<std::string, kWriters> acknowledged_;
  mutable Mutex mutex_;
  std::set<int> codes_ VEXA_GUARDED_BY(mutex_);
  std::vector<std::jthread> threads_;
};

// How room is taken, and given back.
struct Squeeze {
  std::function<void()> take;
  std::function<void()> give;
};

bool IsHealthy(const AttackedHost& host) { return host.Root(kPatience).Get("/healthz").status == 200; }

void ExpectAcknowledged(const AttackedHost& host, const Load& load) {
  HttpClient root = host.Root(kPatience);
  for (int i = 0; i < kWriters; ++i) EXPECT_EQ(AttackedHost::DescriptionOf(root, i), load.acknowledged(i)) << i;
}

void Attack(AttackedHost& host, const Squeeze& squeeze) {
  int rounds = 0;
  int reads = 0;
  int accepted = 0;
  int refused = 0;
  std::set<int> codes;
  for (const AttackTime time(kShortForm); !time.IsOver() || rounds == 0; ++rounds) {
    Load load(host);
    ASSERT_TRUE(HoldsInTime([&] { return load.accepted() > 2 * kWriters && load.reads() > kReaders; }))
        << load.accepted() << " edits, " << load.reads() << " reads, " << load.failed_reads() << " failed, codes "
        << fmt::format("{}", fmt::join(load.codes(), ", ")) << "\n"
        << host.LastLog().substr(0, 2'000);
    ASSERT_EQ(load.refused(), 0) << "before the attack";
    squeeze.take();
    EXPECT_TRUE(HoldsInTime([&] { return load.refused() >= kLeastRefusals; })) << load.refused() << " were refused";
    EXPECT_TRUE(HoldsInTime([&] { return !IsHealthy(host); })) << "the daemon says that it can write";
    const int reads_before = load.reads();
    EXPECT_TRUE(HoldsInTime([&] { return load.reads() > reads_before + kLeastReads; }));
    ASSERT_TRUE(host.IsRunning()) << host.LastLog();
    squeeze.give();
    const auto accepted_before = load.accepted();
    EXPECT_TRUE(HoldsInTime([&] { return load.accepted() > accepted_before + 5 * kWriters; })) << "with room again";
    EXPECT_TRUE(HoldsInTime([&] { return IsHealthy(host); }));
    load.Finish();
    EXPECT_EQ(load.failed_reads(), 0);
    EXPECT_EQ(load.unanswered(), 0);
    ExpectAcknowledged(host, load);
    host.Kill();
    host.Start();
    ExpectAcknowledged(host, load);
    HttpClient grace = host.ClientOf("grace", kPatience);
    EXPECT_TRUE(AttackedHost::Gets(grace)) << "her session";
    reads += load.reads();
    accepted += load.accepted();
    refused += load.refused();
    codes.merge(load.codes());
    if (testing::Test::HasFailure()) break;
  }
  Report(fmt::format("{} rounds, {} reads, all served; {} edits acknowledged, all there after kill -9; {} refused ({})",
                     rounds, reads, accepted, refused, fmt::join(codes, ", ")));
}

AttackedHostOptions OptionsIn(const std::string& folder) {
  AttackedHostOptions options;
  options.folder = folder;
  options.guests = kWriters;
  return options;
}

// Leaves no room on the disk of `path`.
void WriteFiller(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  Check(file.get() >= 0, "the filler");
  for (std::size_t bytes = std::size_t{1} << 20; bytes > 0; bytes /= 2) {
    const std::string block(bytes, 'x');
    while (::write(file.get(), block.data(), block.size()) == static_cast<ssize_t>(block.size())) {
    }
  }
}

TEST(DiskAttack, FullDisk_UnderLoad_RefusesWritesAndRecovers) {
  if (!CanMount()) GTEST_SKIP() << kCannotMount;
  const MountPoint disk("small-disk");
  Check(::mount("tmpfs", disk.path().c_str(), "tmpfs", 0, "size=64m") == 0, "mount");
  AttackedHost host(OptionsIn(disk.path()));
  Attack(host, {[&] { WriteFiller(disk.File("filler")); }, [&] { std::filesystem::remove(disk.File("filler")); }});
}

TEST(DiskAttack, LimitOnFiles_UnderLoad_RefusesWritesAndRecovers) {
  // Some programs that run tests ignore the signal, and their children inherit that.
  ::signal(SIGXFSZ, SIG_DFL);
  const TempDir folder;
  AttackedHost host(OptionsIn(folder.path()));
  const auto limit = [&](rlim_t bytes) {
    const rlimit wanted{bytes, RLIM_INFINITY};
    Check(::prlimit(host.daemon().pid(), RLIMIT_FSIZE, &wanted, nullptr) == 0, "prlimit");
  };
  rlimit own{};
  Check(::getrlimit(RLIMIT_FSIZE, &own) == 0, "getrlimit");
  if (own.rlim_max != RLIM_INFINITY) GTEST_SKIP() << "the size of files is limited here";
  // A write beyond the limit also raises SIGXFSZ, which ends processes that do not ignore it.
  Attack(host, {[&] { limit(std::filesystem::file_size(host.StoreDirectory() + "/data.mdb")); },
                [&] { limit(RLIM_INFINITY); }});
}

// A file system that has errors becomes read-only, and then the machine is started again.
TEST(DiskAttack, ReadOnlyDisk_AtTheStart_IsRefusedWithASentenceAndNothingIsLost) {
  if (!CanMount()) GTEST_SKIP() << kCannotMount;
  const MountPoint disk("disk");
  Check(::mount("tmpfs", disk.path().c_str(), "tmpfs", 0, "size=64m") == 0, "mount");
  AttackedHost host(OptionsIn(disk.path()));
  HttpClient root = host.Root(kPatience);
  ASSERT_EQ(AttackedHost::Describe(root, 0, "written before"), 0);
  host.Kill();
  Check(::mount(nullptr, disk.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0, "remount");
  EXPECT_FALSE(host.TryStart());
  EXPECT_NE(host.LastLog().find("Read-only file system"), std::string::npos) << host.LastLog();
  const std::string refusal = host.LastLog();
  Check(::mount(nullptr, disk.path().c_str(), nullptr, MS_REMOUNT, nullptr) == 0, "remount");
  host.Start();
  HttpClient again = host.Root(kPatience);
  EXPECT_EQ(AttackedHost::DescriptionOf(again, 0), "written before");
  EXPECT_EQ(AttackedHost::Describe(again, 0, "written afterwards"), 0);
  Report("refused: " + refusal.substr(0, refusal.find('\n')));
}

}  // namespace
}  // namespace vexa::test
