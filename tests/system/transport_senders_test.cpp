// One request to many hosts.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <future>
#include <mutex>
#include <new>

#include "host/records/environment.h"
#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "host/transport/http_pool.h"
#include "tests/support/require.h"
#include "tests/system/transport_test_support.h"
#include "webapi/platform/ccc.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;
using VexaCCC::MultiResponse;
using VexaCCC::MultiSender;
using VexaCCC::Sender;

#if defined(VEXA_ADDRESS_SANITIZER) || defined(VEXA_THREAD_SANITIZER)
constexpr double kThousandHostsS = 20;  // the benchmark measures; this distinguishes sequential from concurrent calls
#else
constexpr double kThousandHostsS = 3;
#endif

// Answers after a delay, without a thread per request.
class SlowHost {
 public:
  explicit SlowHost(
      milliseconds delay, std::function<void()> when_asked = [] {})
      : delay_(delay),
        host_([this, when_asked = std::move(when_asked)](http::HttpRequest&&, http::Responder responder) {
          when_asked();
          const std::lock_guard lock(mutex_);
          held_.push_back({std::chrono::steady_clock::now() + delay_, std::move(responder)});
          changed_.notify_one();
        }),
        thread_([this] { Serve(); }) {}
  ~SlowHost() {
    {
      const std::lock_guard lock(mutex_);
      stop_ = true;
      changed_.notify_one();
    }
    thread_.join();
  }
  std::string address() const { return host_.address(); }

 private:
  struct Held {
    std::chrono::steady_clock::time_point due;
    http::Responder responder;
  };

  void Serve() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
      if (held_.empty()) {
        changed_.wait(lock);
      } else if (std::chrono::steady_clock::now() < held_.front().due) {
        changed_.wait_until(lock, std::chrono::steady_clock::time_point(held_.front().due));
      } else {
        http::HttpResponse response;
        response.body = R"({"success":true,"data":"slow"})";
        held_.front().responder.Send(std::move(response));
        held_.erase(held_.begin());
      }
    }
  }

  const milliseconds delay_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Held> held_;
  bool stop_ = false;
  JsonHost host_;
  std::thread thread_;
};

TEST(MultiSender, Replies_DuplicateHosts_AreInGivenOrder) {
  const JsonHost first{std::string(R"({"success":true,"data":1})")};
  const JsonHost second{std::string(R"({"success":true,"data":2})")};
  const InstalledTransport transport({{"host-a", first.address()}, {"host-b", second.address()}});
  const std::vector<std::string> hosts{"host-b", "nobody", "host-a", "", "host-b"};
  const MultiResponse responses = MultiSender(hosts).process(MakeRequest());
  EXPECT_EQ(responses.getHostList(), hosts);
  EXPECT_EQ(responses.getResponse("host-a").getData(), Json::Value(1));
  EXPECT_EQ(responses.getResponse("host-b").getData(), Json::Value(2));
  EXPECT_NE(FailureOf(responses.getResponse("nobody")), "");
  EXPECT_NE(FailureOf(responses.getResponse("")), "");
  EXPECT_TRUE(responses.getResponse("not-asked").toJson().isNull());
  EXPECT_EQ(second.requests(), 1) << "a host that is named twice is asked once";
}

TEST(MultiSender, MultiSender_NoHosts_HasNoReplies) {
  const InstalledTransport transport({});
  EXPECT_TRUE(MultiSender({}).process(MakeRequest()).getHostList().empty());
}

TEST(MultiSender, Senders_Hosts_AreCalledConcurrently) {
  AllowManyDescriptors();
  std::atomic<int> threads_while_asked{0};
  const JsonHost quick{std::string(R"({"success":true,"data":"quick"})")};
  const SlowHost slow(milliseconds(1'000), [&] { threads_while_asked = ProcessThreads(); });
  InstalledTransport::Addresses addresses;
  std::vector<std::string> hosts;
  for (int i = 0; i < 1'000; ++i) {
    hosts.push_back("host-" + std::to_string(i));
    addresses[hosts.back()] = i == 500 ? slow.address() : quick.address();
  }
  const int threads = ProcessThreads();
  const InstalledTransport transport(addresses);
  for (int round = 0; round < 2; ++round) {
    MultiResponse responses;
    const double seconds = SecondsOf([&] { responses = MultiSender(hosts).process(MakeRequest()); });
    EXPECT_GE(seconds, 0.99);
    EXPECT_LT(seconds, kThousandHostsS);
    EXPECT_EQ(responses.getHostList(), hosts);
    EXPECT_TRUE(std::ranges::all_of(hosts, [&](const auto& id) { return responses.getResponse(id).isSuccess(); }));
    EXPECT_EQ(responses.getResponse("host-500").getData(), Json::Value("slow"));
  }
  EXPECT_EQ(threads_while_asked, threads + 1);
}

TEST(MultiSender, LocalHost_SentToAll_RunsConcurrently) {
  std::atomic<bool> remote_asked{false};
  const JsonHost host([&](http::HttpRequest&&, const http::Responder& responder) {
    remote_asked = true;
    http::HttpResponse response;
    response.body = R"({"success":true})";
    responder.Send(std::move(response));
  });
  std::atomic<bool> seen_from_local{false};
  const InstalledTransport transport({{"host-a", host.address()}}, [&](const auto& request, milliseconds timeout) {
    EXPECT_EQ(request.method(), "ask");
    EXPECT_GT(timeout, milliseconds(15'000));
    EXPECT_LE(timeout, milliseconds(30'000));
    seen_from_local = Eventually([&] { return remote_asked.load(); });
    return Parse(R"({"success":true,"data":"local"})");
  });
  const MultiResponse responses = MultiSender({kLocalHost, "host-a"}).process(MakeRequest());
  EXPECT_TRUE(seen_from_local) << "the other host was asked before the local one had answered";
  EXPECT_EQ(responses.getResponse(kLocalHost).getData(), Json::Value("local"));
  EXPECT_TRUE(responses.getResponse("host-a").isSuccess());
}

std::shared_ptr<store::Store> OpenStoreIn(const TempDir& folder) {
  store::LmdbOptions options;
  options.directory = folder.File("store");
  return Require(store::OpenLmdbStore(options));
}

void InstallStore(const std::shared_ptr<store::Store>& store) {
  records::Environment environment;
  environment.store = store;
  environment.host_id = kLocalHost;
  records::InstallEnvironment(std::move(environment));
}

TEST(MultiSender, AllHosts_Listed_AreThoseOfDatabase) {
  const TempDir folder;
  const std::shared_ptr<store::Store> store = OpenStoreIn(folder);
  store::Transaction transaction;
  for (const char* id : {"host-a", "host-b", kLocalHost}) {
    transaction.operations.push_back({store::MakeKey({"dash", "host", id, "object"}), "{}"});
  }
  ASSERT_TRUE(store->Commit(transaction).ok());
  InstallStore(store);
  {
    const InstalledTransport transport({}, [](const auto&, milliseconds) { return Parse(R"({"success":true})"); });
    const MultiResponse responses = MultiSender::allHosts().process(MakeRequest());
    EXPECT_EQ(responses.getHostList(), (std::vector<std::string>{"host-a", "host-b", kLocalHost}));
    EXPECT_TRUE(responses.getResponse(kLocalHost).isSuccess());
    EXPECT_TRUE(Sender::localhost().process(MakeRequest()).isSuccess());
  }
  records::RemoveEnvironment();
  EXPECT_TRUE(MultiSender::allHosts().process(MakeRequest()).getHostList().empty());
}

TEST(Transport, Call_Waiting_HoldsNoSnapshot) {
  const TempDir folder;
  const std::shared_ptr<store::Store> store = OpenStoreIn(folder);
  const auto put = [&](const char* text) {
    EXPECT_TRUE(store->Commit({{}, {{store::MakeKey({"dash", "host", "host-a", "object"}), text}}}).ok());
  };
  put(R"({"name":"before"})");
  InstallStore(store);
  const JsonHost host([&](http::HttpRequest&&, const http::Responder& responder) {
    put(R"({"name":"after"})");
    http::HttpResponse response;
    response.body = R"({"success":true})";
    responder.Send(std::move(response));
  });
  {
    const InstalledTransport transport({{"host-a", host.address()}});
    const records::RequestScope scope;
    std::string name;
    EXPECT_EQ(VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Host, "host-a").Get(name, "name"), 0);
    EXPECT_EQ(name, "before");
    EXPECT_TRUE(Sender("host-a").process(MakeRequest()).isSuccess());
    EXPECT_EQ(VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Host, "host-a").Get(name, "name"), 0);
    EXPECT_EQ(name, "after") << "the next read takes a snapshot of its own";
  }
  records::RemoveEnvironment();
}

TEST(HttpPool, HttpPool_DestroyedDuringCalls_EndsThem) {
  constexpr int kCalls = 500;
  std::atomic<int> ended{0};
  std::atomic<int> failed{0};
  const SlowHost slow(milliseconds(20'000));
  {
    transport::HttpPool pool(nullptr);
    for (int i = 0; i < kCalls; ++i) {
      transport::HttpCall call;
      call.host_id = "host-a";
      call.address = slow.address();
      call.path = "/webapi/VEXA.Test/ask?version=1";
      call.body = std::make_shared<const std::string>("{}");
      call.deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
      pool.Start(std::move(call), [&](const transport::HttpOutcome& outcome) {
        ++ended;
        if (!outcome.failure.empty()) ++failed;
      });
    }
  }
  EXPECT_EQ(ended, kCalls);
  EXPECT_EQ(failed, kCalls);
}

TEST(HttpPool, Call_DeadlinePassed_FailsWithoutConnecting) {
  const JsonHost host{std::string(R"({"success":true})")};
  std::promise<transport::HttpOutcome> ended;
  transport::HttpPool pool(nullptr);
  transport::HttpCall call;
  call.host_id = "host-a";
  call.address = host.address();
  call.path = "/webapi/VEXA.Test/ask?version=1";
  call.body = std::make_shared<const std::string>("{}");
  call.deadline = std::chrono::steady_clock::now() - milliseconds(1);
  pool.Start(std::move(call), [&](transport::HttpOutcome outcome) { ended.set_value(std::move(outcome)); });
  const transport::HttpOutcome outcome = ended.get_future().get();
  EXPECT_EQ(outcome.failure, "no reply in time");
  EXPECT_EQ(outcome.connection, transport::HttpOutcome::Connection::kNotTried);
  EXPECT_EQ(host.requests(), 0);
}

// The lines "SigBlk:" of this process's threads of this name.
std::vector<std::string> BlockedSignals(const std::string& thread) {
  std::vector<std::string> masks;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream status(task.path() / "status");
    std::string name;
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("Name:\t")) name = line.substr(6);
      if (line.starts_with("SigBlk:\t") && name == thread) masks.push_back(line.substr(8));
    }
  }
  return masks;
}

TEST(HttpPool, Thread_Signals_AreBlocked) {
  const JsonHost host{std::string(R"({"success":true})")};
  const InstalledTransport transport({{"host-a", host.address()}});
  EXPECT_TRUE(Sender("host-a").process(MakeRequest()).isSuccess());
  const std::vector<std::string> masks = BlockedSignals("transport");
  ASSERT_EQ(masks.size(), 1u);
  const unsigned long long blocked = std::stoull(masks[0], nullptr, 16);
  for (const int number : {SIGPIPE, SIGTERM, SIGINT, SIGHUP}) EXPECT_NE(blocked >> (number - 1) & 1, 0u) << number;
}

TEST(Transport, Transport_ConcurrentCallers_GetTheirOwnReplies) {
  const JsonHost first{std::string(R"({"success":true,"data":1})")};
  const JsonHost second{std::string(R"({"success":true,"data":2})")};
  const InstalledTransport transport({{"host-a", first.address()}, {"host-b", second.address()}});
  std::vector<std::thread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([i] {
      for (int k = 0; k < 40; ++k) {
        const bool a = (i + k) % 2 == 0;
        EXPECT_EQ(Sender(a ? "host-a" : "host-b").process(MakeRequest()).getData(), Json::Value(a ? 1 : 2));
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
}

TEST(Transport, Transport_RemovedDuringCall_CallGetsItsReply) {
  std::atomic<bool> asked{false};
  const SlowHost slow(milliseconds(300), [&] { asked = true; });
  auto transport = std::make_unique<InstalledTransport>(InstalledTransport::Addresses{{"host-a", slow.address()}});
  std::thread caller([] { EXPECT_TRUE(Sender("host-a").process(MakeRequest()).isSuccess()); });
  EXPECT_TRUE(Eventually([&] { return asked.load(); }));
  transport.reset();
  caller.join();
}

TEST(TransportDeathTest, Transport_ProcessExits_Ends) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        ::alarm(60);
        const JsonHost host{std::string(R"({"success":true})")};
        const InstalledTransport transport({{"host-a", host.address()}});
        const bool good = Sender("host-a").process(MakeRequest()).isSuccess();
        std::exit(good ? 0 : 1);  // leaves the transport as it is
      },
      testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vexa::test
