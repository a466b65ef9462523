// Numbered requests: a repeated one gets the first answer, whatever has happened in between.
#include <thread>

#include "host/guests/creation/request_record.h"
#include "tests/unit/guests/guest_creation_fixture.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
using guests::NumberedRequest;
using guests::RequestKey;
using testing::HasSubstr;

class RequestTest : public CreationTest {
 protected:
  Json::Value Request(const std::string& id) const {
    return Parsed(TextOf(*store_, RequestKey("1000", id)).value_or("null"));
  }
  std::size_t CountRequests() const {
    std::size_t count = 0;
    for (const auto& [key, text] : Everything(*store_)) count += key.starts_with("/request/1000/") ? 1 : 0;
    return count;
  }
  void PutRequest(const std::string& id, const std::string& state, std::chrono::system_clock::time_point since) {
    guests::RequestRecord record{"create", "digest", kUnknownId, guests::RequestState::kDone, since, "old", {}};
    if (state == "doing") record.state = guests::RequestState::kDoing;
    PutText(*store_, RequestKey("1000", id), guests::SerializeRequest(record));
  }
};

TEST_F(RequestTest, Repeat_AfterSuccess_GetsTheFirstAnswer) {
  for (const auto& [number, guest_id, disks] :
       {std::tuple("a", kCreated, ""), std::tuple("b", kUnknownId, kTwoDisks)}) {
    const std::string parameters = Named(std::string("once-") + number, disks + Numbered(number));
    const auto first = Create(parameters, guest_id);
    ASSERT_TRUE(first.ok()) << first.error().reason;
    Remember();
    const auto second = Create(parameters, kCreatedToo);
    ASSERT_TRUE(second.ok()) << second.error().reason;
    EXPECT_EQ(*second, *first);
    EXPECT_EQ(Request(number)["state"], "done");
    ExpectUnchanged();
  }
}

TEST_F(RequestTest, Repeat_OtherParameters_IsRefused) {
  ExpectDone(Named("once", Numbered("a")));
  Remember();
  ExpectRefused(Named("twice", Numbered("a", "other")), 401,
                "The parameter 'request_id' is 'a', which was used for a request with other parameters");
  ExpectUnchanged();
}

TEST_F(RequestTest, Repeat_OtherCaller_IsAnotherRequest) {
  ExpectDone(Named("once", Numbered("a")));
  ExpectDone(Named("twice", R"(,"owner":"1001","request_id":"a","digest":"digest")"), kCreatedToo);
  EXPECT_FALSE(Guest(kCreatedToo).isNull());
}

TEST_F(RequestTest, Repeat_AfterUndo_GetsTheFirstRefusal) {
  options_.file_calls.sync_file = [](int) { return EIO; };
  const std::string parameters = Named("x", std::string(kTwoDisks) + Numbered("a"));
  const auto first = Create(parameters);
  ASSERT_FALSE(first.ok());
  options_ = environment_.Options(store_);
  const auto second = Create(parameters, kCreatedToo);
  ASSERT_FALSE(second.ok());
  EXPECT_EQ(second.error().code, first.error().code);
  EXPECT_EQ(second.error().reason, first.error().reason);
  EXPECT_EQ(Request("a")["state"], "failed");
  EXPECT_TRUE(Guest().isNull());
  EXPECT_TRUE(Guest(kCreatedToo).isNull());
}

// What was refused before it began left no trace, so it may be repeated.
TEST_F(RequestTest, Repeat_RefusedBeforeBegin_IsDone) {
  ExpectRefused(Named("web", Numbered("a")), 902, "Another guest");
  EXPECT_TRUE(Request("a").isNull());
  RemoveKey(*store_, KeyOf("guest", kEdited));
  ExpectDone(Named("web", Numbered("a")));
}

TEST_F(RequestTest, Repeat_WhileInProgress_WaitsForIt) {
  std::thread repeated;
  std::optional<Result<Json::Value, Refusal>> second;
  At("make 0", [&] {
    repeated = std::thread([&] {
      second = Creations(environment_.Options(store_))
                   .Create(kCreatedToo, Parsed(Named("slow", std::string(kTwoDisks) + Numbered("a"))), Alice());
    });
    std::this_thread::sleep_for(150ms);
    EXPECT_FALSE(second.has_value());
  });
  const auto first = Create(Named("slow", std::string(kTwoDisks) + Numbered("a")));
  repeated.join();
  ASSERT_TRUE(first.ok()) << first.error().reason;
  ASSERT_TRUE(second && second->ok());
  EXPECT_EQ(**second, *first);
  EXPECT_TRUE(Guest(kCreatedToo).isNull());
}

TEST_F(RequestTest, Repeat_EightCallers_MakeOneGuest) {
  std::vector<std::thread> callers;
  std::vector<std::string> answers(8);
  for (std::size_t i = 0; i < answers.size(); ++i) {
    callers.emplace_back([&, i] {
      const std::string id = "5a0c6d1e-7b24-4f83-9d15-c2e8a7b3f62" + std::to_string(i);
      const auto created = Creations(environment_.Options(store_))
                               .Create(id, Parsed(Named("one", std::string(kTwoDisks) + Numbered("a"))), Alice());
      answers[i] = created.ok() ? VexaVirtualization::json::ToText(*created) : created.error().reason;
    });
  }
  for (std::thread& caller : callers) caller.join();
  for (const std::string& answer : answers) EXPECT_EQ(answer, answers[0]);
  EXPECT_EQ(environment_.Images().size(), images_.size() + 2);
}

TEST_F(RequestTest, Repeat_WaitTooLongOrStopping_IsRefused) {
  PutRequest("a", "doing", std::chrono::system_clock::now());
  options_.request_wait = 0ms;
  ExpectRefused(Named("x", Numbered("a")), 915,
                std::string("The guest '") + kUnknownId +
                    "' is still being created, by the same request. Repeat the request 'a' later");
  options_.is_stopping = [] { return true; };
  ExpectRefused(Named("x", Numbered("a")), 949, "This host is stopping");
}

TEST_F(RequestTest, Repeat_AfterADay_IsANewRequest) {
  PutRequest("a", "done", std::chrono::system_clock::now() - 24h - 1min);
  ExpectDone(Named("new", Numbered("a")));
  EXPECT_EQ(Request("a")["guest_id"], kCreated);
}

TEST_F(RequestTest, Repeat_AlmostADay_GetsTheFirstAnswer) {
  PutRequest("a", "done", std::chrono::system_clock::now() - 23h);
  const auto repeated = Create(Named("new", Numbered("a")));
  ASSERT_TRUE(repeated.ok());
  EXPECT_EQ(*repeated, "old");
  EXPECT_TRUE(Guest().isNull());
}

TEST_F(RequestTest, New_DamagedRecord_IsReplaced) {
  PutText(*store_, RequestKey("1000", "a"), "{");
  ExpectDone(Named("new", Numbered("a")));
  EXPECT_EQ(Request("a")["state"], "done");
}

TEST_F(RequestTest, New_CallerHasMany_OldestFinishedAreRemoved) {
  const auto now = std::chrono::system_clock::now();
  PutRequest("oldest", "doing", now - 30h);
  PutRequest("expired", "done", now - 25h);
  for (int i = 0; i < 256; ++i) PutRequest("n" + std::to_string(i), "done", now - 1h - std::chrono::minutes(i));
  ExpectDone(Named("new", Numbered("a")));
  EXPECT_EQ(CountRequests(), guests::kMaxRequestsOfCaller);
  EXPECT_FALSE(Request("oldest").isNull());  // it is not finished
  EXPECT_TRUE(Request("expired").isNull());
  EXPECT_TRUE(Request("n255").isNull());
  EXPECT_TRUE(Request("n254").isNull());
  EXPECT_FALSE(Request("n253").isNull());
}

TEST_F(RequestTest, New_AllInProgress_IsRefused) {
  for (int i = 0; i < 256; ++i) PutRequest("n" + std::to_string(i), "doing", std::chrono::system_clock::now());
  ExpectRefused(Named("x", Numbered("a")), 915, "The caller has 256 numbered requests in progress already");
  EXPECT_TRUE(Request("a").isNull());
}

TEST(RequestId, Form_IsChecked) {
  for (const char* good : {"a", "A.b_c-9", "0123456789012345678901234567890123456789012345678901234567890123"}) {
    EXPECT_TRUE(guests::IsRequestId(good)) << good;
  }
  for (const char* bad : {"", "a/b", "a b", "ä", "01234567890123456789012345678901234567890123456789012345678901234"}) {
    EXPECT_FALSE(guests::IsRequestId(bad)) << bad;
  }
}

}  // namespace
}  // namespace vexa::test
