// The attacker's clock is hours or years off: it is another host of the cluster, which writes its heartbeats, entries
// of the log and claims with its own time, or this machine before its clock was corrected. No entry of others may be
// removed, no guest taken or ended, no daemon stopped, and no session or certificate may live longer than it should.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <thread>

#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/cluster/cluster_log.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/attack/attack.h"
#include "tests/attack/attacked_host.h"
#include "tests/support/require.h"
#include "webapi/error_codes.h"
#include "webapi/platform/ccc_constants.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::system_clock;

constexpr std::int64_t kHour = 3'600;
constexpr std::int64_t kYear = 365 * 24 * kHour;
constexpr milliseconds kShortForm{0};  // once

std::int64_t UnixTime() { return std::chrono::duration_cast<seconds>(system_clock::now().time_since_epoch()).count(); }

// The database beside the daemon, as another host of the cluster has it.
std::shared_ptr<store::Store> OpenStore(const AttackedHost& host) {
  store::LmdbOptions options;
  options.directory = host.StoreDirectory();
  return Require(store::OpenLmdbStore(options));
}

std::string TextOf(store::Store& store, const std::string& key) {
  const auto snapshot = Require(store.Read());
  const auto value = Require(snapshot->Get(key));
  return value ? std::string(value->text) : "";
}

int Power(HttpClient& client, int guest, const std::string& action) {
  const HttpReply reply = client.PostJson(
      kPowerPath, fmt::format(R"({{"guest_id":"{}","action":"{}"}})", AttackedHost::GuestId(guest), action));
  return reply.arrived() ? CodeOf(reply) : -1;
}

bool Runs(HttpClient& client, int guest) {
  const HttpReply status = client.PostJson("/webapi/VEXA.Virtualization.Guest/status",
                                           fmt::format(R"({{"guest_id":"{}"}})", AttackedHost::GuestId(guest)));
  return status.status == 200 && status.body.find("running") != std::string::npos;
}

// Guest 0 runs here, guest 1 on the host with the wrong clock.
TEST(ClockAttack, HeartbeatsAndRuns_HoursOrYearsOff_TakeNoGuestAndStopNobody) {
  AttackedHostOptions options;
  options.guests = 2;
  const AttackedHost host(std::move(options));
  const auto store = OpenStore(host);
  HttpClient root = host.Root(kPatience);
  ASSERT_EQ(Power(root, 0, "poweron"), 0);
  const std::string own_run = TextOf(*store, store::MakeKey({"run", AttackedHost::GuestId(0)}));
  ASSERT_NE(own_run, "");
  const std::string own_host = json::StringMember(Require(ParseJson(own_run)), "host_id");
  const std::string guest_key = store::MakeKey({"dash", "guest", AttackedHost::GuestId(1), "object"});
  Json::Value guest = Require(ParseJson(TextOf(*store, guest_key)));
  guest["host_id"] = kMember;
  guest["state"] = VexaCCC::State::Guest::running;
  const std::string run_key = store::MakeKey({"run", AttackedHost::GuestId(1)});
  const auto heartbeat_of = [](const std::string& id) { return store::MakeKey({"dash", "host", id, "seen"}); };
  const std::int64_t now = UnixTime();
  const std::vector<std::string> times = {std::to_string(now + kHour),
                                          std::to_string(now - kHour),
                                          std::to_string(now + 50 * kYear),
                                          "0",
                                          "-1",
                                          "9223372036854775807",
                                          "18446744073709551615",
                                          "1e300",
                                          "\"tomorrow\"",
                                          "null"};
  int rounds = 0;
  for (const AttackTime time(kShortForm); !time.IsOver() || rounds == 0; ++rounds) {
    for (const std::string& wrong : times) {
      SCOPED_TRACE(wrong);
      const std::string run =
          fmt::format(R"({{"host_id":"{}","incarnation":1,"since":{},"vcpus":1,"memory_mib":1}})", kMember, wrong);
      // A host that lies also writes the heartbeat of this one.
      (void)Require(store->Commit({{},
                                   {{store::MakeKey({"dash", "host", kMember, "object"}),
                                     R"({"name":"other","state":"running","cluster_address":"127.0.0.1:9"})"},
                                    {heartbeat_of(kMember), wrong},
                                    {heartbeat_of(own_host), wrong},
                                    {guest_key, json::ToText(guest)},
                                    {run_key, run}}}));
      EXPECT_TRUE(Runs(root, 0)) << "the guest of this host";
      EXPECT_NE(Power(root, 1, "poweron"), 0) << "the guest of the other one";
      EXPECT_EQ(root.PostJson("/webapi/VEXA.Virtualization.Guest/list", "{}").status, 200);
      EXPECT_EQ(root.PostJson("/webapi/VEXA.Virtualization.Host/list", "{}").status, 200);
      EXPECT_EQ(TextOf(*store, run_key), run) << "the other host has the guest";
      EXPECT_EQ(TextOf(*store, store::MakeKey({"run", AttackedHost::GuestId(0)})), own_run);
      ASSERT_TRUE(host.IsRunning()) << host.LastLog();
    }
  }
  // The next heartbeat corrects what was written about this host.
  EXPECT_TRUE(HoldsInTime([&] { return root.Get("/healthz").status == 200; }));
  EXPECT_EQ(Power(root, 0, "poweroff"), 0);
  EXPECT_EQ(host.LastLog().find("This host must stop"), std::string::npos) << host.LastLog();
  Report(fmt::format("{} wrong times of another host in heartbeats and runs: each guest stayed where it was",
                     rounds * static_cast<int>(times.size())));
}

std::set<std::string> RequestsInLog(HttpClient& client) {
  std::set<std::string> requests;
  const Json::Value log = DataOf(client.PostJson(kLogPath, R"({"limit":1000})"));
  for (const Json::Value& entry : json::Elements(json::Member(log, "entries"))) {
    requests.insert(json::StringMember(entry, "request_id"));
  }
  return requests;
}

TEST(ClockAttack, LogEntries_OfOtherTimes_RemoveNothingOfOthersAndHideNothing) {
  constexpr int kEdits = 15;
  const AttackedHost host;
  const auto store = OpenStore(host);
  HttpClient root = host.Root(kPatience);
  std::set<std::string> honest;
  const auto edit = [&](const std::string& text) {
    const HttpReply reply =
        root.PostJson(kSetPath, fmt::format(R"({{"guest_id":"{}","desc":"{}"}})", AttackedHost::GuestId(0), text));
    ASSERT_EQ(CodeOf(reply), 0);
    honest.insert(reply.headers.at("x-request-id"));
  };
  const std::int64_t now = UnixTime();
  const std::vector<std::int64_t> times{now + kHour,      now - kHour,      now + 100 * kYear, 0,
                                        now - 10 * kYear, now + 30 * kYear, 9'007'199'254};
  for (int i = 0; i < kEdits; ++i) edit(fmt::format("before {}", i));
  for (const std::int64_t time : times) {
    (void)cluster::AddLogEntry(*store, {time * 1'000'000, kMember, "root", 3, fmt::format("at {}", time), ""});
  }
  for (int i = 0; i < kEdits; ++i) edit(fmt::format("afterwards {}", i));
  const std::set<std::string> logged = RequestsInLog(root);
  for (const std::string& request : honest) EXPECT_TRUE(logged.contains(request)) << request;
  // Somebody who follows the log from its beginning gets them all as well, in the order in which they were added.
  std::set<std::string> followed;
  std::int64_t position = 0;
  for (bool is_at_end = false; !is_at_end;) {
    const Json::Value page = DataOf(root.PostJson(kLogPath, fmt::format(R"({{"after":{},"limit":7}})", position)));
    const auto entries = json::Elements(json::Member(page, "entries"));
    is_at_end = entries.begin() == entries.end();
    for (const Json::Value& entry : entries) {
      const std::int64_t next = json::Int64(json::Member(entry, "position"));
      ASSERT_GT(next, position);
      position = next;
      followed.insert(json::StringMember(entry, "request_id"));
    }
  }
  for (const std::string& request : honest) EXPECT_TRUE(followed.contains(request)) << request;
  Report(fmt::format("{} entries with wrong times among {} others: all of these are listed and followed", times.size(),
                     honest.size()));
}

// The clock of this machine was wrong at the login, and has been corrected since.
TEST(ClockAttack, Sessions_OfAnotherTime_EndNoLaterThanTheyShould) {
  constexpr int kLifetime = 20;  // a slow machine needs some for its start
  AttackedHostOptions options;
  options.flags = {"--session-lifetime", std::to_string(kLifetime), "--session-idle", std::to_string(kLifetime)};
  AttackedHost host(std::move(options));
  const auto try_times = [&](std::int64_t created, std::int64_t last_used) {
    const std::string token = host.Login("grace");
    ASSERT_NE(token, "");
    host.Kill();
    const std::string path = host.DataFolder() + "/sessions.json";
    Json::Value file = Require(ParseJson(Require(ReadFile(path, std::size_t{1} << 20))));
    for (Json::Value& session : file["sessions"]) {
      session["created"] = Json::Int64{created};
      session["last_used"] = Json::Int64{last_used};
    }
    Require(WriteFileAtomically(path, json::ToText(file), 0600));
    ASSERT_TRUE(host.TryStart()) << host.LastLog();
    HttpClient client = host.Network(kPatience, token);
    int served = 0;
    const bool has_ended = HoldsInTime([&] {
      const HttpReply reply = client.PostJson(kInfoPath, "{}");
      if (reply.status == 200) ++served;
      return CodeOf(reply) == user_error::kNotLoggedIn;
    });
    EXPECT_TRUE(has_ended) << "although it was used again and again";
    if (created < UnixTime() - kLifetime - 60) {
      EXPECT_EQ(served, 0) << "it had ended";
    } else {
      EXPECT_GT(served, 0) << "it was never accepted, so this shows nothing";
    }
  };
  const std::int64_t now = UnixTime();
  // Each that begins in the future takes its whole lifetime.
  ASSERT_NO_FATAL_FAILURE(try_times(now + 40 * kYear, now + 40 * kYear));
  for (const std::int64_t offset : {3 * kHour, 40 * kYear}) {
    SCOPED_TRACE(offset);
    ASSERT_NO_FATAL_FAILURE(try_times(now - offset, now - offset));
    ASSERT_NO_FATAL_FAILURE(try_times(now - offset, now + offset));
  }
  Report(fmt::format("sessions from 40 years ago to in 40 years ended after at most {} s of use", kLifetime));
}

TEST(ClockAttack, Certificate_OnAnOpenConnection_EndsWithItsTime) {
  constexpr seconds kLeft{20};  // a slow machine needs some for the first call
  AttackedHostOptions options;
  options.doors = Doors::kUsersAndHosts;
  AttackedHost host(std::move(options));
  const auto end = system_clock::now() + kLeft;
  host.ReplaceCertificate(kMember, {end - hours(1), hours(1)});
  HttpClient open = host.Host(kMember, kPatience);
  const auto ask = [](HttpClient& client) { return client.PostJson("/webapi/VEXA.Core.System/info", "{}"); };
  int served = 0;
  int served_too_late = 0;
  EXPECT_TRUE(HoldsInTime([&] {
    const bool is_over = system_clock::now() > end + seconds(2);
    const HttpReply reply = ask(open);
    if (reply.status == 200) ++(is_over ? served_too_late : served);
    return !reply.arrived() || CodeOf(reply) == user_error::kDenied;
  }));
  EXPECT_GT(served, 0) << "it was never accepted, so this shows nothing";
  EXPECT_EQ(served_too_late, 0);
  HttpClient again = host.Host(kMember, kPatience);
  EXPECT_FALSE(ask(again).arrived()) << "a new connection";
  host.ReplaceCertificate(kMember, {system_clock::now() + hours(24), hours(24)});
  HttpClient future = host.Host(kMember, kPatience);
  EXPECT_FALSE(ask(future).arrived()) << "a certificate of tomorrow";
  Report(fmt::format("{} calls before the end of the certificate, none afterwards", served));
}

}  // namespace
}  // namespace vexa::test
