// Where a guest can be powered on: this host's own rating, and what all hosts say over real sockets, right or wrong.
#include "host/api/peer/guest_rating_api.h"

#include <atomic>
#include <mutex>

#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/support/syslog_capture.h"
#include "tests/system/transport_misbehaviours.h"
#include "tests/system/transport_test_support.h"
#include "tests/unit/api/services_fixture.h"
#include "webapi/guest/guest_action.h"
#include "webapi/platform/ccc.h"

namespace vexa::test {
namespace {

namespace json = VexaVirtualization::json;
using api::ServiceParts;
using guests::Rating;
using Addresses = std::map<std::string, std::string>;

constexpr const char* kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
constexpr const char* kNamed = R"({"guest_id":"8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01","type":"poweron"})";
constexpr const char* kRated = R"({"success":true,"data":{"available":true,"status":[],"reasons":[]}})";

// A host whose rows are called in the process, with a transport to others.
class RatingHost {
 public:
  explicit RatingHost(ServiceParts parts, std::chrono::seconds timeout = std::chrono::seconds(20))
      : table_(Rows(std::move(parts), timeout)) {}
  ~RatingHost() { transport::RemoveTransport(); }

  static std::string local() { return VexaCCC::DB::DBLocalhostID(); }

  void Reach(Addresses addresses) {
    transport::TransportOptions options;
    options.host_id = local();
    options.remote = transport::TransportOptions::Remote::kPlain;
    options.find_address = [addresses = std::move(addresses)](const std::string& id) {
      const auto found = addresses.find(id);
      return found == addresses.end() ? std::nullopt : std::optional(found->second);
    };
    options.local_call = [this](const VexaDRCore::Request& request, std::chrono::milliseconds) {
      const api::ApiRow* row = table_.Find(request.api(), request.method(), request.version());
      const Answer answer = row ? CallRow(*row, request.parameters()) : Answer{507, {}, {}};
      Json::Value reply(Json::objectValue);
      reply["success"] = answer.code == 0;
      if (answer.code == 0) {
        reply["data"] = answer.data;
      } else {
        reply["error"]["code"] = answer.code;
      }
      return reply;
    };
    transport::InstallTransport(Require(transport::Transport::Make(std::move(options))));
  }

  Answer CheckResource(const std::string& parameters = kNamed) {
    return CallTable(table_, "VEXA.CCC.Guest", "check_resource", parameters);
  }
  Answer CheckHosts(const std::string& parameters = kNamed) {
    return CallTable(table_, "VEXA.Virtualization.Guest.Action", "check_host_resource", parameters);
  }
  const api::ApiTable& table() const { return table_; }

  // The hosts that guests were given to.
  std::vector<std::string> chosen() const { return *chosen_; }

 private:
  std::vector<api::ApiRow> Rows(ServiceParts parts, std::chrono::seconds timeout) {
    std::vector<api::ApiRow> rows = api::GuestRatingRows(parts, timeout);
    rows.push_back({.api = "VEXA.CCC.Guest",
                    .method = "hostset",
                    .version = 1,
                    .access = api::Access::kHost,
                    .lane = api::LaneKind::kLong,
                    .handler =
                        [chosen = chosen_](const api::Call& call) {
                          chosen->push_back(call.request->GetAndCheckString("host_id", 0).Get());
                          call.response->SetSuccess(Json::Value());
                        },
                    .summary = "",
                    .parameters = {},
                    .errors = {}});
    return rows;
  }

  std::shared_ptr<std::vector<std::string>> chosen_ = std::make_shared<std::vector<std::string>>();
  api::ApiTable table_;
};

ServiceParts PartsWithRating(Rating rating) {
  ServiceParts parts;
  parts.rate_guest = [rating = std::move(rating)](const std::string&) { return Result<Rating>(rating); };
  return parts;
}

// "host name available words" of each host.
std::vector<std::string> Listed(const Answer& answer) {
  std::vector<std::string> listed;
  EXPECT_EQ(answer.code, 0);
  for (const Json::Value& host : json::Elements(json::Member(answer.data, "hosts"))) {
    EXPECT_EQ(host.getMemberNames(), (std::vector<std::string>{"available", "host", "host_id", "reasons", "status"}));
    EXPECT_TRUE(host["available"].isBool());
    EXPECT_TRUE(host["reasons"].isArray());
    listed.push_back(host["host_id"].asString() + " " + host["host"].asString() + " " +
                     (host["available"].asBool() ? "yes" : "no") + " " + json::ToText(host["status"]));
  }
  return listed;
}

class GuestRating : public testing::Test {
 protected:
  void SetUp() override {
    ClearCapturedSyslog();
    host_.PutText("guest", kGuest, R"({"name":"web","vram_size":64,"repository_id":"repo"})");
    host_.PutText("repository", "repo", R"({"host_id":"b"})");
  }
  void PutHosts(const std::vector<std::string>& ids) {
    for (const std::string& id : ids) host_.PutText("host", id, R"({"name":"name of )" + id + "\"}");
  }

  TestHost host_;
};

TEST_F(GuestRating, Methods_Rows_AreForHostsOnLongLane) {
  const RatingHost rating({});
  for (const auto& [api, method] : {std::pair{"VEXA.CCC.Guest", "check_resource"},
                                    std::pair{"VEXA.Virtualization.Guest.Action", "check_host_resource"}}) {
    const api::ApiRow* row = rating.table().Find(api, method, 1);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->access.value, api::Access::kHost);
    EXPECT_EQ(row->lane.value, api::LaneKind::kLong);
  }
  const api::ApiTable all(api::ServiceRows({}));
  EXPECT_NE(all.Find("VEXA.CCC.Guest", "check_resource", 1), nullptr);
  EXPECT_NE(all.Find("VEXA.Virtualization.Guest.Action", "check_host_resource", 1), nullptr);
}

TEST_F(GuestRating, Parameters_Invalid_AreRefused) {
  RatingHost rating(PartsWithRating({}));
  rating.Reach({});
  const std::string id = std::string(R"("guest_id":")") + kGuest + '"';
  for (const std::string& parameters : std::vector<std::string>{
           "{}", "{" + id + "}", R"({"type":"poweron"})", R"({"guest_id":"x","type":"poweron"})",
           R"({"guest_id":7,"type":"poweron"})", R"({"guest_id":"../host/a","type":"poweron"})",
           "{" + id + R"(,"type":"shutdown"})", "{" + id + R"(,"type":"PowerOn"})", "{" + id + R"(,"type":""})",
           "{" + id + R"(,"type":1})", "{" + id + R"(,"type":["poweron"]})", "{" + id + R"(,"type":null})"}) {
    EXPECT_EQ(rating.CheckResource(parameters).code, 401) << parameters;
    EXPECT_EQ(rating.CheckHosts(parameters).code, 401) << parameters;
  }
}

TEST_F(GuestRating, Rating_LocalHost_IsReturned) {
  std::string asked;
  ServiceParts parts;
  parts.rate_guest = [&](const std::string& id) {
    asked = id;
    return Result<Rating>(Rating{{{928, "Too little."}}, true, {}});
  };
  const Answer answer = RatingHost(parts).CheckResource();
  EXPECT_EQ(asked, kGuest);
  EXPECT_EQ(json::ToText(answer.data),
            R"({"available":false,"reasons":["Too little."],"status":["no_memory","best_io"]})");
}

TEST_F(GuestRating, Rating_HostRunsNoGuests_IsUnavailable) {
  EXPECT_EQ(json::ToText(RatingHost({}).CheckResource().data),
            R"({"available":false,"reasons":["The host runs no guests."],"status":["unavailable"]})");
}

TEST_F(GuestRating, Rating_StoreOrRecordUnreadable_IsReported) {
  const std::pair<ErrorCode, bool> rows[] = {{ErrorCode::kNotFound, false},
                                             {ErrorCode::kCorrupt, false},
                                             {ErrorCode::kUnavailable, true},
                                             {ErrorCode::kInternal, true}};
  for (const auto& [error, is_logged] : rows) {
    ClearCapturedSyslog();
    ServiceParts parts;
    parts.rate_guest = [error = error](const std::string&) { return Result<Rating>(Error(error, "out of order")); };
    EXPECT_EQ(RatingHost(parts).CheckResource().code, 403);
    EXPECT_EQ(SyslogContains("Cannot rate a guest: out of order"), is_logged);
  }
}

TEST_F(GuestRating, HostRatings_StoreUnreadable_AreRefused) {
  host_.store().FailSnapshots();
  EXPECT_EQ(RatingHost({}).CheckHosts().code, 403);
  EXPECT_TRUE(SyslogContains("Cannot rate a guest: "));
}

TEST_F(GuestRating, Rating_UnreadableRecords_CallsNoHost) {
  const JsonHost other{std::string(kRated)};
  PutHosts({"a"});
  RatingHost rating({});
  rating.Reach({{"a", other.address()}});
  for (const char* record : {"[]", "{", R"({"vdisks":["no-such"]})", R"({"vnics":["no-such"]})"}) {
    host_.PutText("guest", kGuest, record);
    EXPECT_EQ(rating.CheckHosts().code, 403) << record;
  }
  host_.Remove("guest", kGuest);
  EXPECT_EQ(rating.CheckHosts().code, 403);
  EXPECT_EQ(other.requests(), 0);
}

TEST_F(GuestRating, Rating_EveryHost_IsCalledAlikeAndListedInOrder) {
  std::mutex mutex;
  std::vector<std::string> bodies;
  std::string target;
  const JsonHost other([&](http::HttpRequest&& request, const http::Responder& responder) {
    {
      const std::lock_guard lock(mutex);
      bodies.push_back(request.body);
      target = request.target;
    }
    http::HttpResponse response;
    response.body = kRated;
    responder.Send(std::move(response));
  });
  RatingHost rating(PartsWithRating({{}, true, {}}));
  const std::string local = RatingHost::local();
  PutHosts({"c", "b", local, "a"});
  host_.PutText("host", "c", R"({"name":7,"state":"host_inaccessible"})");
  rating.Reach({{"a", other.address()}, {"b", other.address()}, {"c", other.address()}});
  EXPECT_THAT(Listed(rating.CheckHosts()),
              ElementsAre(local + " name of " + local + " yes []", "a name of a yes []", "b name of b yes []",
                          testing::AllOf(testing::StartsWith("c "), testing::EndsWith(" yes []"))))
      << "the host that is said to be inaccessible too; the local one's best_io is not by the records";
  ASSERT_EQ(bodies.size(), 3u);
  EXPECT_EQ(target, "/webapi/VEXA.CCC.Guest/check_resource?version=1");
  for (const std::string& body : bodies) {
    EXPECT_EQ(Parsed(body)["guest_id"], Json::Value(kGuest)) << body;
    EXPECT_EQ(Parsed(body)["type"], Json::Value("poweron"));
  }
}

TEST_F(GuestRating, Rating_NoHostListed_CallsOnlyLocalHost) {
  host_.PutText("repository", "repo", R"({"host_id":")" + RatingHost::local() + "\"}");
  RatingHost rating(PartsWithRating({{}, true, {}}));
  rating.Reach({});
  EXPECT_THAT(Listed(rating.CheckHosts()), ElementsAre(RatingHost::local() + R"(  yes ["best_io"])"));
}

TEST_F(GuestRating, Rating_HostListUnreadable_IsAnError) {
  RatingHost rating({});
  rating.Reach({});
  host_.store().FailSnapshots();
  EXPECT_EQ(rating.CheckHosts().code, 403);
}

TEST_F(GuestRating, StalledHost_CostsTheTimeoutAndNothingElse) {
  const ScriptedServer stalled({{"", ScriptedReply::Then::kStall}});
  const JsonHost other{std::string(kRated)};
  PutHosts({"a", "b", "c"});
  RatingHost rating({}, std::chrono::seconds(1));
  rating.Reach({{"a", other.address()}, {"b", AddressOfUrl(stalled)}, {"c", other.address()}});
  Answer answer;
  const double seconds = SecondsOf([&] { answer = rating.CheckHosts(); });
  EXPECT_THAT(Listed(answer),
              ElementsAre("a name of a yes []", R"(b name of b no ["unreachable"])", "c name of c yes []"));
  EXPECT_GE(seconds, 0.9);
  EXPECT_LT(seconds, 15.0);
}

// The entry of one host, for each reply.
std::string ListedOf(TestHost& host, const std::string& reply) {
  host.PutText("host", "a", R"({"name":"A"})");
  const JsonHost other{std::string(reply)};
  RatingHost rating({});
  rating.Reach({{"a", other.address()}});
  const Answer answer = rating.CheckHosts();
  EXPECT_EQ(answer.code, 0);
  Json::Value listed = json::Element(json::Member(answer.data, "hosts"), 0);
  listed.removeMember("host");
  listed.removeMember("host_id");
  return json::ToText(listed);
}

TEST_F(GuestRating, Rating_HostErrors_BecomeReasonWords) {
  const std::pair<int, const char*> rows[] = {{102, "unreachable"}, {507, "incompatible_version"},
                                              {100, "failed"},      {403, "failed"},
                                              {104, "failed"},      {108, "failed"},
                                              {928, "failed"},      {-7, "failed"},
                                              {0, "failed"}};
  for (const auto& [code, word] : rows) {
    const std::string listed =
        ListedOf(host_, R"({"success":false,"error":{"code":)" + std::to_string(code) + R"(,"message":"x"}})");
    EXPECT_THAT(listed, HasSubstr(R"("available":false)"));
    EXPECT_THAT(listed, HasSubstr(std::string(R"("status":[")") + word + R"("])")) << code;
  }
}

TEST_F(GuestRating, Rating_InvalidReplies_CountAsUnreachable) {
  for (const char* reply :
       {R"({})", R"({"success":1})", R"({"success":"true","data":{"available":true}})", R"({"success":false})",
        R"({"success":false,"error":{"code":"507"}})", R"({"success":false,"error":[507]})", R"({"success":true})",
        R"({"success":true,"data":true})", R"({"success":true,"data":[{"available":true}]})",
        R"({"success":true,"data":{"status":["best_io"]}})", R"({"success":true,"data":{"available":1}})",
        R"({"success":true,"data":{"available":"true"}})", R"({"success":true,"data":{"available":null}})",
        R"({"success":true,"data":{"available":[true]}})"}) {
    EXPECT_THAT(ListedOf(host_, reply), HasSubstr(R"("status":["unreachable"])")) << reply;
    EXPECT_THAT(ListedOf(host_, reply), HasSubstr(R"("available":false)")) << reply;
  }
}

TEST_F(GuestRating, Rating_UnknownMembers_AreDropped) {
  const auto rated = [this](const std::string& members) {
    return ListedOf(host_, R"({"success":true,"has_fail":1,"data":{"available":false,"secret":1,)" + members + "}}");
  };
  EXPECT_EQ(rated(R"("status":7,"reasons":{"a":"b"})"), R"({"available":false,"reasons":[],"status":[]})");
  EXPECT_EQ(rated(R"("status":{"a":"no_memory"},"reasons":null)"), R"({"available":false,"reasons":[],"status":[]})");
  EXPECT_EQ(rated(R"("status":["no_memory","No","","a b","a\nb","%s","ä",7,null,["x"],{"a":1},"x9_"],"host_id":"z")"),
            R"({"available":false,"reasons":[],"status":["no_memory","x9_"]})");
  EXPECT_EQ(rated(R"("reasons":["Too\nlittle.",7,null,["x"],{}])"),
            R"({"available":false,"reasons":["Too little."],"status":[]})");
  const std::string longest(32, 'x');
  EXPECT_EQ(rated(R"("status":[")" + longest + R"(","x)" + longest + "\"]"),
            R"({"available":false,"reasons":[],"status":[")" + longest + "\"]}");
}

TEST_F(GuestRating, Rating_OversizedReply_IsTruncated) {
  std::string words;
  std::string reasons;
  for (int i = 0; i < 100'000; ++i) {
    words += (i > 0 ? ",\"w" : "\"w") + std::to_string(i) + '"';
    reasons += (i > 0 ? ",\"" : "\"") + std::string(10, 'x') + '"';
  }
  const Json::Value listed = Parsed(ListedOf(
      host_, R"({"success":true,"data":{"available":true,"status":[)" + words + R"(],"reasons":[)" + reasons + "]}}"));
  EXPECT_EQ(listed["status"].size(), 16u);
  EXPECT_EQ(listed["reasons"].size(), 16u);
  EXPECT_EQ(listed["status"][15], Json::Value("w15"));
  const Json::Value one = Parsed(ListedOf(
      host_, R"({"success":true,"data":{"available":true,"reasons":[")" + std::string(10'000'000, 'x') + "\"]}}"));
  ASSERT_EQ(one["reasons"].size(), 1u);
  EXPECT_EQ(one["reasons"][0].asString().size(), 512u);
}

TEST_F(GuestRating, Rating_BestIo_OnlyForRepositoryHost) {
  const JsonHost liar(R"({"success":true,"data":{"available":true,"status":["best_io","x","best_io"]}})");
  PutHosts({"a", "b"});
  RatingHost rating({});
  rating.Reach({{"a", liar.address()}, {"b", liar.address()}});
  EXPECT_THAT(Listed(rating.CheckHosts()),
              ElementsAre(R"(a name of a yes ["x"])", R"(b name of b yes ["best_io","x","best_io"])"));
  host_.Remove("repository", "repo");
  EXPECT_THAT(Listed(rating.CheckHosts()), ElementsAre(R"(a name of a yes ["x"])", R"(b name of b yes ["x"])"));
}

class GuestRatingBadHost : public testing::TestWithParam<Misbehaviour> {};

TEST_P(GuestRatingBadHost, Rating_BadHost_IsUnreachableAndOthersAreListed) {
  TestHost cluster;
  cluster.PutText("guest", kGuest, "{}");
  const ScriptedServer bad({GetParam().reply});
  const JsonHost other{std::string(kRated)};
  cluster.PutText("host", "other-host", "{}");
  cluster.PutText("host", "z", "{}");
  RatingHost rating({}, std::chrono::seconds(GetParam().reply.then == ScriptedReply::Then::kStall ? 1 : 30));
  rating.Reach({{"other-host", AddressOfUrl(bad)}, {"z", other.address()}});
  EXPECT_THAT(Listed(rating.CheckHosts()), ElementsAre(R"(other-host  no ["unreachable"])", "z  yes []"));
}

INSTANTIATE_TEST_SUITE_P(Rows, GuestRatingBadHost, testing::ValuesIn(Misbehaviours()),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(GuestRating, Rating_HostRefusesConnectionOrHasNoAddress_IsUnreachable) {
  PutHosts({"a", "b"});
  RatingHost rating({});
  rating.Reach({{"a", AddressOf(UnusedPort())}});
  EXPECT_THAT(Listed(rating.CheckHosts()),
              ElementsAre(R"(a name of a no ["unreachable"])", R"(b name of b no ["unreachable"])"));
}

// The choice of a host for a guest without one, over the rows.

class HostChoice : public GuestRating {
 protected:
  // What "a", "b" and "c" say of themselves.
  void Answers(const std::string& a, const std::string& b, const std::string& c) {
    hosts_.clear();
    Addresses addresses;
    for (const auto& [id, data] : {std::pair("a", a), std::pair("b", b), std::pair("c", c)}) {
      hosts_.push_back(std::make_unique<JsonHost>(R"({"success":true,"data":)" + data + "}"));
      addresses[id] = hosts_.back()->address();
    }
    PutHosts({"a", "b", "c"});
    rating_.Reach(std::move(addresses));
  }
  static int Select() { return VexaVirtualization::GuestAction::AutoSelectHost(kGuest); }

  std::vector<std::unique_ptr<JsonHost>> hosts_;
  RatingHost rating_{PartsWithRating({})};
};

TEST_F(HostChoice, SelectHost_HostWithBestIo_IsChosen) {
  Answers(R"({"available":true})", R"({"available":true,"status":["best_io"]})", R"({"available":true})");
  EXPECT_EQ(Select(), 0);
  EXPECT_THAT(rating_.chosen(), ElementsAre("b"));
}

TEST_F(HostChoice, SelectHost_FalseBestIo_IsNotPreferred) {
  Answers(R"({"available":true,"status":["best_io"]})", R"({"available":true})", R"({"available":true})");
  EXPECT_EQ(Select(), 0);
  EXPECT_THAT(rating_.chosen(), ElementsAre("c"));
}

TEST_F(HostChoice, SelectHost_NoneHasBestIo_ChoosesLastAvailable) {
  Answers(R"({"available":true})", R"({"available":true})", R"({"available":false,"status":["no_memory"]})");
  EXPECT_EQ(Select(), 0);
  EXPECT_THAT(rating_.chosen(), ElementsAre("b"));
}

TEST_F(HostChoice, SelectHost_NoHostAvailable_ChoosesNone) {
  Answers(R"({"available":false})", R"({"available":false,"status":["best_io"]})", R"({"available":"yes"})");
  EXPECT_EQ(Select(), -1);
  EXPECT_TRUE(SyslogContains("Failed to find a available host to poweron guest"));
  EXPECT_THAT(rating_.chosen(), testing::IsEmpty());
}

TEST_F(HostChoice, SelectHost_OnlyLocalHost_UsesItsOwnRating) {
  rating_.Reach({});
  EXPECT_EQ(Select(), 0);
  EXPECT_THAT(rating_.chosen(), ElementsAre(RatingHost::local()));
}

// With the records read and rated.
TEST_F(HostChoice, SelectHost_LocalHost_IsChosenOnlyIfItFits) {
  std::uint64_t free_mib = 64;
  ServiceParts parts;
  parts.rate_guest = [&](const std::string& id) -> Result<Rating> {
    const Result<records::Guest> guest = records::ReadGuest(Require(records::Reader::OpenCurrent()), id);
    if (!guest) return guest.error();
    guests::HostResources host;
    host.host_id = RatingHost::local();
    host.cpus = 1;
    host.free_memory_mib = free_mib;
    return guests::Rate(*guest, host);
  };
  host_.PutText("repository", "repo", R"({"host_id":")" + RatingHost::local() + "\"}");
  const JsonHost other{std::string(kRated)};
  PutHosts({RatingHost::local(), "z"});
  RatingHost rating(parts);
  rating.Reach({{"z", other.address()}});
  const std::string local = RatingHost::local() + " name of " + RatingHost::local();
  EXPECT_THAT(Listed(rating.CheckHosts()), ElementsAre(local + R"( yes ["best_io"])", "z name of z yes []"));
  EXPECT_EQ(Select(), 0);
  free_mib = 63;
  EXPECT_THAT(Listed(rating.CheckHosts()), ElementsAre(local + R"( no ["no_memory","best_io"])", "z name of z yes []"));
  EXPECT_EQ(Select(), 0);
  EXPECT_THAT(rating.chosen(), ElementsAre(RatingHost::local(), "z"));
}

TEST_F(HostChoice, SelectHost_UnknownGuest_AssignsNone) {
  host_.Remove("guest", kGuest);
  rating_.Reach({});
  EXPECT_EQ(Select(), -1);
  EXPECT_THAT(rating_.chosen(), testing::IsEmpty());
}

}  // namespace
}  // namespace vexa::test
