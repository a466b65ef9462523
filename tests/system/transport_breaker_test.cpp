// Hosts that cannot be connected to.
#include "host/transport/breaker.h"

#include <set>
#include <utility>

#include "host/transport/method_rules.h"
#include "host/transport/unanswered.h"
#include "tests/system/transport_test_support.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;
using transport::Breaker;
using Permit = Breaker::Permit;
using Outcome = Breaker::Outcome;
using VexaCCC::Sender;

constexpr const char* kHost = "other-host";

// One call that fails to connect at `now`.
void FailOnce(Breaker& breaker, Breaker::Clock::time_point now) {
  const Permit permit = breaker.Enter(kHost, now);
  ASSERT_NE(permit, Permit::kRefused);
  breaker.Report(kHost, permit, Outcome::kNotConnected, now);
}

// How long the host is left alone from `now` on, to 1 ms.
milliseconds PauseFrom(Breaker& breaker, Breaker::Clock::time_point now) {
  milliseconds pause{0};
  while (breaker.Enter(kHost, now + pause) == Permit::kRefused && pause < milliseconds(10'000)) ++pause;
  return pause;  // the probe has begun
}

TEST(Breaker, Breaker_TwoFailuresInARow_OpensForShortPause) {
  Breaker breaker;
  const auto now = Breaker::Clock::now();
  FailOnce(breaker, now);
  EXPECT_EQ(breaker.Enter(kHost, now), Permit::kAllowed) << "one failure is not enough";
  breaker.Report(kHost, Permit::kAllowed, Outcome::kNotConnected, now);
  EXPECT_EQ(breaker.Enter(kHost, now), Permit::kRefused);
  EXPECT_EQ(breaker.Enter("third-host", now), Permit::kAllowed);
  const milliseconds pause = PauseFrom(breaker, now);
  EXPECT_GE(pause, milliseconds(500));
  EXPECT_LE(pause, milliseconds(1'000));
}

TEST(Breaker, Pauses_RepeatedFailures_DoubleUpToMaximumWithJitter) {
  std::set<milliseconds::rep> firsts;
  for (int round = 0; round < 20; ++round) {
    Breaker breaker;
    auto now = Breaker::Clock::now();
    FailOnce(breaker, now);
    FailOnce(breaker, now);
    for (int i = 0; i < 6; ++i) {
      const milliseconds pause = PauseFrom(breaker, now);
      if (i == 0) firsts.insert(pause.count());
      const double middle = std::min(750.0 * (1 << i), 5'000.0);
      EXPECT_GE(static_cast<double>(pause.count()), 0.75 * middle - 1) << i;
      EXPECT_LE(static_cast<double>(pause.count()), std::min(1.25 * middle + 1, 5'001.0)) << i;
      now += pause;
      breaker.Report(kHost, Permit::kProbe, Outcome::kNotConnected, now);
    }
  }
  EXPECT_GT(firsts.size(), 3u);
}

TEST(Breaker, Breaker_PauseOver_PermitsOneProbeAtATime) {
  Breaker breaker;
  const auto now = Breaker::Clock::now();
  FailOnce(breaker, now);
  FailOnce(breaker, now);
  const auto later = now + milliseconds(6'000);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kProbe);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kRefused);
  breaker.Report(kHost, Permit::kProbe, Outcome::kUnknown, later);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kProbe) << "the first had no result";
  breaker.Report(kHost, Permit::kProbe, Outcome::kConnected, later);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kAllowed);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kAllowed);
}

TEST(Breaker, Pause_FailuresOfEarlierCalls_DoNotExtendIt) {
  Breaker breaker;
  const auto now = Breaker::Clock::now();
  for (int i = 0; i < 50; ++i) ASSERT_EQ(breaker.Enter(kHost, now), Permit::kAllowed);
  for (int i = 0; i < 50; ++i) breaker.Report(kHost, Permit::kAllowed, Outcome::kNotConnected, now);
  EXPECT_LE(PauseFrom(breaker, now), milliseconds(1'000));
}

TEST(Breaker, Breaker_SuccessBetweenFailures_StaysClosed) {
  Breaker breaker;
  const auto now = Breaker::Clock::now();
  for (int i = 0; i < 10; ++i) {
    FailOnce(breaker, now);
    EXPECT_EQ(breaker.Enter(kHost, now), Permit::kAllowed);
    breaker.Report(kHost, Permit::kAllowed, Outcome::kConnected, now);
  }
}

TEST(Breaker, Breaker_OrdinaryCallDuringProbe_IsPermitted) {
  Breaker breaker;
  const auto now = Breaker::Clock::now();
  FailOnce(breaker, now);
  FailOnce(breaker, now);
  const Breaker::Attempt ordinary{Breaker::CallPriority::kOrdinary, {}};
  const Breaker::Attempt must_go{Breaker::CallPriority::kAlways, {}};
  EXPECT_EQ(breaker.Enter(kHost, now, ordinary), Permit::kRefused) << "within the pause";
  EXPECT_EQ(breaker.Enter(kHost, now, must_go), Permit::kAllowedBriefly);
  const auto later = now + milliseconds(6'000);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kProbe);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kRefused);
  EXPECT_EQ(breaker.Enter(kHost, later, ordinary), Permit::kAllowedBriefly);
  EXPECT_EQ(breaker.Enter(kHost, later, must_go), Permit::kAllowedBriefly);
  breaker.Report(kHost, Permit::kAllowedBriefly, Outcome::kNotConnected, later);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kRefused) << "the probe is still under way";
  breaker.Report(kHost, Permit::kAllowedBriefly, Outcome::kConnected, later);
  EXPECT_EQ(breaker.Enter(kHost, later), Permit::kAllowed);
}

TEST(Breaker, Pause_HeartbeatNewerThanFailures_EndsIt) {
  const std::chrono::system_clock::time_point old{std::chrono::seconds(100)};
  const auto fresh = old + std::chrono::seconds(3);
  Breaker breaker;
  const auto now = Breaker::Clock::now();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(breaker.Enter(kHost, now, {Breaker::CallPriority::kSkippable, old}), Permit::kAllowed);
    breaker.Report(kHost, Permit::kAllowed, Outcome::kNotConnected, now, old);
  }
  EXPECT_EQ(breaker.Enter(kHost, now, {Breaker::CallPriority::kSkippable, old}), Permit::kRefused);
  EXPECT_EQ(breaker.Enter(kHost, now, {Breaker::CallPriority::kSkippable, fresh}), Permit::kProbe);
  breaker.Report(kHost, Permit::kProbe, Outcome::kNotConnected, now, fresh);
  EXPECT_EQ(breaker.Enter(kHost, now, {Breaker::CallPriority::kSkippable, fresh}), Permit::kRefused)
      << "the heartbeat has had its call";
}

VexaDRCore::Request RequestTo(const char* api, const char* method) {
  VexaDRCore::Request request;
  request.setAPI(api);
  request.setMethod(method);
  return request;
}

TEST(MethodRules, RuleOf_FiguresAndPower_HaveTheirTimeoutAndWeight) {
  const milliseconds usual(30'000);
  const auto interfaces = transport::RuleOf(RequestTo("VEXA.Core.Network.Interface", "list"), usual);
  EXPECT_EQ(interfaces.timeout, milliseconds(3'000));
  EXPECT_EQ(interfaces.priority, Breaker::CallPriority::kSkippable);
  const auto power = transport::RuleOf(RequestTo("VEXA.CCC.Guest", "poweron"), usual);
  EXPECT_EQ(power.timeout, usual);
  EXPECT_EQ(power.priority, Breaker::CallPriority::kAlways);
  EXPECT_EQ(transport::RuleOf(RequestTo("VEXA.CCC.Guest", "set"), usual).priority, Breaker::CallPriority::kOrdinary);
  EXPECT_EQ(transport::RuleOf(RequestTo("VEXA.Core.Network.Interface", "list"), milliseconds(5)).timeout,
            milliseconds(5));
}

TEST(MethodRules, RuleOf_CompoundRequest_UsesLongestItemTimeout) {
  const milliseconds usual(30'000);
  VexaDRCore::Request request = RequestTo("VEXA.Entry.Request", "request");
  EXPECT_EQ(transport::RuleOf(request, usual).timeout, usual);
  Json::Value items(Json::arrayValue);
  for (const auto& [api, method] : {std::pair("VEXA.Core.System", "info"), std::pair("VEXA.Core.Web.Orla", "get")}) {
    Json::Value& item = items.append(Json::Value(Json::objectValue));
    item["api"] = api;
    item["method"] = method;
  }
  request.addParam("compound", items);
  EXPECT_EQ(transport::RuleOf(request, usual).timeout, milliseconds(5'000));
  EXPECT_EQ(transport::RuleOf(request, usual).priority, Breaker::CallPriority::kSkippable);
  items.append(7);
  request.addParam("compound", items);
  EXPECT_EQ(transport::RuleOf(request, usual).timeout, usual);
  EXPECT_EQ(transport::RuleOf(request, usual).priority, Breaker::CallPriority::kOrdinary);
}

TEST(FailedHostsScope, FailedReplies_AreCollectedByTheInnermostScope) {
  const JsonHost good(R"({"success":true})");
  const JsonHost bad(R"({"success":false,"error":{"code":403}})");
  const InstalledTransport transport({{"good", good.address()}, {"bad", bad.address()}, {"ugly", "nowhere"}});
  const transport::FailedHostsScope outer;
  {
    const transport::FailedHostsScope inner;
    VexaCCC::MultiSender({"good", "bad", "ugly", "unknown"}).process(MakeRequest(5));
    EXPECT_EQ(inner.hosts(), (std::set<std::string>{"bad", "ugly", "unknown"}));
  }
  EXPECT_TRUE(outer.hosts().empty());
  (void)Sender("unknown").process(MakeRequest(5));
  EXPECT_EQ(outer.hosts(), std::set<std::string>{"unknown"});
}

TEST(FailedHostsScope, LastReason_IsThatOfTheLastFailure) {
  const JsonHost good(R"({"success":true})");
  const JsonHost full(R"({"success":false,"error":{"code":922,"details":"It has\nno memory"}})");
  const JsonHost silent(R"({"success":false,"error":{"code":901,"details":{"path":"/secret"}}})");
  const InstalledTransport transport(
      {{"good", good.address()}, {"full", full.address()}, {"silent", silent.address()}});
  const transport::FailedHostsScope failed;
  EXPECT_EQ(failed.last_reason(), "");
  (void)Sender("full").process(MakeRequest(5));
  (void)Sender("good").process(MakeRequest(5));
  EXPECT_EQ(failed.last_reason(), "It has no memory");
  (void)Sender("silent").process(MakeRequest(5));
  EXPECT_EQ(failed.last_reason(), "") << "not the reason of another failure";
}

TEST(TransportBreaker, Breaker_DeadHost_IsPausedAndRediscovered) {
  const std::uint16_t port = UnusedPort();
  const InstalledTransport transport({{kHost, AddressOf(port)}});
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(FailureOf(Sender(kHost).process(MakeRequest(5))).find("paused briefly"), std::string::npos);
  }
  EXPECT_NE(FailureOf(Sender(kHost).process(MakeRequest(5))).find("paused briefly"), std::string::npos);
  http::ListenerOptions listener;
  listener.port = port;
  const JsonHost host(
      [](http::HttpRequest&&, const http::Responder& responder) {
        http::HttpResponse response;
        response.body = R"({"success":true})";
        responder.Send(std::move(response));
      },
      listener);
  EXPECT_TRUE(Eventually([] { return Sender(kHost).process(MakeRequest(5)).isSuccess(); }));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(Sender(kHost).process(MakeRequest(5)).isSuccess());
}

TEST(TransportBreaker, Breaker_HandlerTimeouts_StaysClosed) {
  std::vector<http::Responder> held;  // on the one I/O thread
  const JsonHost host([&held](http::HttpRequest&&, const http::Responder& responder) { held.push_back(responder); });
  const InstalledTransport transport({{kHost, host.address()}});
  for (int i = 0; i < 4; ++i) {
    EXPECT_NE(FailureOf(Sender(kHost).process(MakeRequest(1))).find("no reply in time"), std::string::npos);
  }
}

TEST(Breaker, Breaker_LongestPause_IsStillRandomised) {
  std::set<milliseconds> pauses;
  for (int i = 0; i < 20; ++i) {
    Breaker breaker;
    auto now = Breaker::Clock::now();
    for (int failures = 0; failures < 40; ++failures) {
      FailOnce(breaker, now);
      now += std::chrono::seconds(10);
    }
    FailOnce(breaker, now);
    pauses.insert(PauseFrom(breaker, now));
  }
  EXPECT_GT(pauses.size(), 2u);
  EXPECT_LE(*pauses.rbegin(), Breaker::kMaxBackoff);
}

}  // namespace
}  // namespace vexa::test
