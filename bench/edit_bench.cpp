// Measures how many edits per second a host performs through its API, compared with the speed of its disk: writing a
// page in place and waiting until it is on the disk (fdatasync), in a file of the same folder. Each client, on one
// kept-alive connection over the Unix socket, changes the descriptions of guests one after another; the reply comes
// when record and cluster log are durable. Disk and edits are measured alternately, so that other load on the machine
// affects both; the results are the ratios within a round. Daemon and clients are in this process and share its
// processors.
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_util.h"
#include "bench/daemon_client.h"
#include "bench/http_bench_data.h"
#include "host/base/json_parse.h"
#include "host/daemon/daemon.h"
#include "json/readers.h"
#include "tests/support/temp_dir.h"

namespace {

namespace json = VexaVirtualization::json;
using namespace vexa;
using bench::Median;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int kRounds = 9;
constexpr seconds kMeasuredTime{1};
constexpr int kManyClients = 8;
constexpr std::size_t kPage = 4096;
constexpr std::size_t kPages = 256;  // of a file
constexpr int kBusy = 909;           // the API's error code for a guest that is being edited already
constexpr double kTarget = 4;        // one client's edit, in multiples of the disk's wait

struct Rate {
  double per_second;
  double refused;  // the fraction of operations that failed
};

// Measures how often per second `count` threads together perform an operation. `make` creates the operation on each
// thread. The operation receives a running number and returns whether it succeeded.
using Operation = std::function<bool(int index)>;
Rate MeasureRate(int count, const std::function<Operation(int thread)>& make) {
  std::atomic<std::uint64_t> done = 0;
  std::atomic<std::uint64_t> refused = 0;
  std::atomic<int> ready = 0;
  const auto start_together = [&] {
    ++ready;
    while (ready < count) std::this_thread::yield();
    return steady_clock::now();
  };
  std::vector<double> seconds_taken(static_cast<std::size_t>(count));
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < count; ++thread) {
    threads.emplace_back([&, thread] {
      const Operation operation = make(thread);
      (void)operation(0);  // warm up
      const auto start = start_together();
      for (int index = 1; steady_clock::now() - start < kMeasuredTime; ++index) ++(operation(index) ? done : refused);
      seconds_taken[static_cast<std::size_t>(thread)] =
          std::chrono::duration<double>(steady_clock::now() - start).count();
    });
  }
  threads.clear();
  return {static_cast<double>(done) / *std::max_element(seconds_taken.begin(), seconds_taken.end()),
          static_cast<double>(refused) / static_cast<double>(done + refused)};
}

// A file whose pages are written one after another, each with a wait until it is on the disk.
class SyncedFile {
 public:
  explicit SyncedFile(const std::string& path)
      : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)) {
    for (std::size_t page = 0; page < kPages; ++page) Write(page);
    if (fd_ < 0 || ::fsync(fd_) != 0) bench::Fail("cannot make " + path);
  }
  ~SyncedFile() { ::close(fd_); }
  SyncedFile(const SyncedFile&) = delete;
  SyncedFile& operator=(const SyncedFile&) = delete;

  bool WriteAndWait(int index) {
    Write(static_cast<std::size_t>(index) % kPages);
    if (::fdatasync(fd_) != 0) bench::Fail("fdatasync failed");
    return true;
  }

 private:
  void Write(std::size_t page) {
    ++bytes_[0];
    if (::pwrite(fd_, bytes_.data(), kPage, static_cast<off_t>(page * kPage)) != static_cast<ssize_t>(kPage)) {
      bench::Fail("cannot write");
    }
  }
  const int fd_;
  std::vector<char> bytes_ = std::vector<char>(kPage, 'x');
};

double SyncRate(const std::string& folder, int threads) {
  return MeasureRate(threads,
                     [&](int thread) -> Operation {
                       const auto file = std::make_shared<SyncedFile>(folder + "/synced-" + std::to_string(thread));
                       return [file](int index) { return file->WriteAndWait(index); };
                     })
      .per_second;
}

// Whether the edit succeeded; if not, another edit of the same guest was in progress.
bool Edit(test::HttpClient& client, const std::string& guest_id, const std::string& members) {
  const auto reply =
      client.PostJson("/webapi/VEXA.Virtualization.Guest/set", "{\"guest_id\":\"" + guest_id + "\"" + members + "}");
  const Json::Value body = bench::Require(ParseJson(reply.body));
  if (json::Bool(json::Member(body, "success"))) return true;
  if (json::Int(json::Member(json::Member(body, "error"), "code")) != kBusy) {
    bench::Fail("a guest cannot be edited: " + reply.body);
  }
  return false;
}

enum class Guests { kOwn, kShared };
enum class Change { kDescription, kNothing };

class Edits {
 public:
  Edits(std::string socket, std::string token) : socket_(std::move(socket)), token_(std::move(token)) {}

  Rate RateWith(int clients, Guests guests, Change change) const {
    return MeasureRate(clients, [&, guests, change](int thread) -> Operation {
      const auto client = std::make_shared<test::HttpClient>(bench::ClientOn(socket_, token_));
      return [this, client, thread, guests, change](int index) {
        // Clients with their own guests use every eighth guest; otherwise all clients share the same eight.
        const int number = guests == Guests::kOwn ? thread + kManyClients * index : index % kManyClients;
        const std::string desc = fmt::format(R"(,"desc":"edit {} of client {} in round {}")", index, thread,
                                             steady_clock::now().time_since_epoch().count());
        return Edit(*client, ids_[static_cast<std::size_t>(number) % ids_.size()],
                    change == Change::kNothing ? "" : desc);
      };
    });
  }

 private:
  const std::string socket_;
  const std::string token_;
  const std::vector<std::string> ids_ = bench::GuestIds();
};

struct Row {
  const char* what;
  std::function<Rate()> rate;
  std::vector<double> rates{};
  std::vector<double> disk_waits{};             // the duration of one edit, as a multiple of the wait for the disk
  std::vector<double> ratio_to_many_threads{};  // the rate of edits, relative to many threads that wait for the disk
  std::vector<double> refused{};
};

void Print(const Row& row) {
  const int percent = static_cast<int>(100 * Median(row.refused));
  const std::string refused = percent == 0 ? "" : "; " + std::to_string(percent) + "% were refused beside these";
  std::printf("%-34s %7.0f/s   one takes as long as %5.2f disk waits (%.2f to %.2f); to %d threads: %.3f%s\n", row.what,
              Median(row.rates), Median(row.disk_waits),
              *std::min_element(row.disk_waits.begin(), row.disk_waits.end()),
              *std::max_element(row.disk_waits.begin(), row.disk_waits.end()), kManyClients,
              Median(row.ratio_to_many_threads), refused.c_str());
}

daemon::Config ConfigFor(const std::string& folder) {
  daemon::Config config;
  config.data_directory = folder;
  config.socket = folder + "/socket";
  config.listen.clear();
  config.hypervisor = "test";
  config.image_roots = {folder + "/images"};
  return config;
}

}  // namespace

int main() {
  const test::TempDir folder;
  const std::string data = folder.File("data");
  bench::Seed(data);
  const daemon::Config config = ConfigFor(data);
  const auto running = bench::Require(daemon::Daemon::Start(config, {}));
  test::HttpClient client = bench::ClientOn(config.socket, "");
  const Edits edits(config.socket, bench::Login(client, bench::kAdministrator));

  std::vector<double> one_thread;
  std::vector<double> many_threads;
  std::vector<Row> rows = {
      {"1 client", [&] { return edits.RateWith(1, Guests::kOwn, Change::kDescription); }},
      {
          "8 clients, different guests",
          [&] { return edits.RateWith(kManyClients, Guests::kOwn, Change::kDescription); },
      },
      {
          "8 clients, the same 8 guests",
          [&] { return edits.RateWith(kManyClients, Guests::kShared, Change::kDescription); },
      },
      {"1 client, nothing to change", [&] { return edits.RateWith(1, Guests::kOwn, Change::kNothing); }},
  };
  (void)rows[0].rate();
  for (int round = 0; round < kRounds; ++round) {
    one_thread.push_back(SyncRate(data, 1));
    many_threads.push_back(SyncRate(data, kManyClients));
    for (Row& row : rows) {
      const Rate rate = row.rate();
      row.rates.push_back(rate.per_second);
      row.disk_waits.push_back(one_thread.back() / rate.per_second);
      row.ratio_to_many_threads.push_back(rate.per_second / many_threads.back());
      row.refused.push_back(rate.refused);
    }
  }
  std::printf("fdatasync of a page in place: %.0f/s by 1 thread, %.0f/s by %d (medians of %d rounds)\n",
              Median(one_thread), Median(many_threads), kManyClients, kRounds);
  std::printf(
      "Edits: how many disk waits of 1 thread each takes (least to greatest), and their rate as a ratio to that of %d "
      "threads that wait:\n",
      kManyClients);
  for (const Row& row : rows) Print(row);
  const double disk_waits = Median(rows[0].disk_waits);
  std::printf("target for 1 client: at most %.0f disk waits, %s\n", kTarget, disk_waits <= kTarget ? "met" : "MISSED");
  return running->Stop(seconds(10)) ? 0 : 1;
}
