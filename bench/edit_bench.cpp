// How many edits a second a host makes durable through its API, compared with what its disk can do: writing a page in
// place and waiting until it is on the disk (fdatasync), in a file of the same folder. Each client, on one kept
// connection over the Unix socket, gives guests new descriptions one after another; the answer comes when record and
// cluster log are durable. Disk and edits take turns, so that other load on the machine affects both; what counts are
// the ratios within a round. Daemon and clients are in this process and share its processors.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bench/guest_records.h"
#include "bench/http_bench_data.h"
#include "host/base/json_parse.h"
#include "host/daemon/daemon.h"
#include "json/readers.h"
#include "tests/support/http_client.h"
#include "tests/support/temp_dir.h"

namespace {

namespace json = VexaVirtualization::json;
using namespace vexa;
using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int kRounds = 9;
constexpr seconds kSpan{1};
constexpr int kMany = 8;
constexpr std::size_t kPage = 4096;
constexpr std::size_t kPages = 256;  // of a file
constexpr int kBusy = 909;           // the API's answer for a guest that is being edited elsewhere
constexpr double kAim = 4;           // one client's edit, in multiples of the disk's wait

double Median(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  return samples[samples.size() / 2];
}

struct Rate {
  double a_second;
  double refused;  // of all
};

// How often per second `count` threads together performed an act. `make` creates the act on each thread. The act
// receives the turn's number and returns whether it succeeded.
using Act = std::function<bool(int turn)>;
Rate RateOf(int count, const std::function<Act(int thread)>& make) {
  std::atomic<std::uint64_t> done = 0;
  std::atomic<std::uint64_t> refused = 0;
  std::atomic<int> ready = 0;
  const auto start_of = [&] {
    ++ready;
    while (ready < count) std::this_thread::yield();
    return steady_clock::now();
  };
  std::vector<double> took(static_cast<std::size_t>(count));
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < count; ++thread) {
    threads.emplace_back([&, thread] {
      const Act act = make(thread);
      (void)act(0);  // warm up
      const auto start = start_of();
      for (int turn = 1; steady_clock::now() - start < kSpan; ++turn) ++(act(turn) ? done : refused);
      took[static_cast<std::size_t>(thread)] = std::chrono::duration<double>(steady_clock::now() - start).count();
    });
  }
  threads.clear();
  return {static_cast<double>(done) / *std::max_element(took.begin(), took.end()),
          static_cast<double>(refused) / static_cast<double>(done + refused)};
}

// A file whose pages are written in turn, each with a wait until it is on the disk.
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

  bool WriteAndWait(int turn) {
    Write(static_cast<std::size_t>(turn) % kPages);
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
  return RateOf(threads,
                [&](int thread) -> Act {
                  const auto file = std::make_shared<SyncedFile>(folder + "/synced-" + std::to_string(thread));
                  return [file](int turn) { return file->WriteAndWait(turn); };
                })
      .a_second;
}

class Client {
 public:
  explicit Client(const std::string& socket) : client_(TargetOf(socket)) { client_.SetTimeout(seconds(60)); }

  void Login() {
    const test::HttpReply reply =
        client_.PostJson("/webapi/VEXA.Core.Session/login", "{\"user\":\"" + std::string(bench::kAdministrator) +
                                                                "\",\"password\":\"" + bench::kPassword + "\"}");
    const std::string token =
        json::String(json::Member(json::Member(bench::Require(ParseJson(reply.body)), "data"), "token"));
    client_.SetHeader("Authorization", "Bearer " + token);
    token_ = token;
  }
  void Use(const std::string& token) { client_.SetHeader("Authorization", "Bearer " + token); }
  const std::string& token() const { return token_; }
  // Whether it succeeded; if not, another edit of the same guest was in progress.
  bool Edit(const std::string& guest_id, const std::string& members) {
    const auto reply =
        client_.PostJson("/webapi/VEXA.Virtualization.Guest/set", "{\"guest_id\":\"" + guest_id + "\"" + members + "}");
    const Json::Value body = bench::Require(ParseJson(reply.body));
    if (json::Bool(json::Member(body, "success"))) return true;
    if (json::Int(json::Member(json::Member(body, "error"), "code")) != kBusy) {
      bench::Fail("a guest cannot be edited: " + reply.body);
    }
    return false;
  }

 private:
  static test::HttpTarget TargetOf(const std::string& socket) {
    test::HttpTarget target;
    target.url = "http://localhost";
    target.unix_socket = socket;
    return target;
  }
  test::HttpClient client_;
  std::string token_;
};

enum class Guests { kOwn, kShared };
enum class What { kDescription, kNothing };

class Edits {
 public:
  Edits(std::string socket, std::string token) : socket_(std::move(socket)), token_(std::move(token)) {}

  Rate RateWith(int clients, Guests guests, What what) const {
    return RateOf(clients, [&, guests, what](int thread) -> Act {
      const auto client = std::make_shared<Client>(socket_);
      client->Use(token_);
      return [this, client, thread, guests, what](int turn) {
        // Clients with their own guests have every eighth one; the others all share the same eight.
        const int number = guests == Guests::kOwn ? thread + kMany * turn : turn % kMany;
        return client->Edit(ids_[static_cast<std::size_t>(number) % ids_.size()],
                            what == What::kNothing
                                ? ""
                                : ",\"desc\":\"edit " + std::to_string(turn) + " of client " + std::to_string(thread) +
                                      " in round " + std::to_string(steady_clock::now().time_since_epoch().count()) +
                                      '"');
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
  std::vector<double> waits{};    // the duration of one edit, in waits for the disk
  std::vector<double> of_many{};  // its rate, as a ratio to that of many threads waiting for the disk
  std::vector<double> refused{};
};

void Print(const Row& row) {
  const int percent = static_cast<int>(100 * Median(row.refused));
  const std::string refused = percent == 0 ? "" : "; " + std::to_string(percent) + "% were refused beside these";
  std::printf("%-34s %7.0f/s   one takes as long as %5.2f waits (%.2f to %.2f); to %d threads: %.3f%s\n", row.what,
              Median(row.rates), Median(row.waits), *std::min_element(row.waits.begin(), row.waits.end()),
              *std::max_element(row.waits.begin(), row.waits.end()), kMany, Median(row.of_many), refused.c_str());
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
  Client first(config.socket);
  first.Login();
  const Edits edits(config.socket, first.token());

  std::vector<double> one_thread;
  std::vector<double> many_threads;
  std::vector<Row> rows = {
      {"1 client", [&] { return edits.RateWith(1, Guests::kOwn, What::kDescription); }},
      {
          "8 clients, guests of their own",
          [&] { return edits.RateWith(kMany, Guests::kOwn, What::kDescription); },
      },
      {
          "8 clients, the same 8 guests",
          [&] { return edits.RateWith(kMany, Guests::kShared, What::kDescription); },
      },
      {"1 client, nothing to change", [&] { return edits.RateWith(1, Guests::kOwn, What::kNothing); }},
  };
  (void)rows[0].rate();
  for (int round = 0; round < kRounds; ++round) {
    one_thread.push_back(SyncRate(data, 1));
    many_threads.push_back(SyncRate(data, kMany));
    for (Row& row : rows) {
      const Rate rate = row.rate();
      row.rates.push_back(rate.a_second);
      row.waits.push_back(one_thread.back() / rate.a_second);
      row.of_many.push_back(rate.a_second / many_threads.back());
      row.refused.push_back(rate.refused);
    }
  }
  std::printf("fdatasync of a page in place: %.0f/s by 1 thread, %.0f/s by %d (medians of %d rounds)\n",
              Median(one_thread), Median(many_threads), kMany, kRounds);
  std::printf(
      "Edits, and how many waits of 1 thread for the disk one takes as long as (least to greatest); and their rate as "
      "a ratio to "
      "that of %d threads that wait:\n",
      kMany);
  for (const Row& row : rows) Print(row);
  const double waits = Median(rows[0].waits);
  std::printf("aim for 1 client: at most %.0f waits, %s\n", kAim, waits <= kAim ? "met" : "MISSED");
  return running->Stop(seconds(10)) ? 0 : 1;
}
