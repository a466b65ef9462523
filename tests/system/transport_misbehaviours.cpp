#include "tests/system/transport_misbehaviours.h"

namespace vexa::test {
namespace {

using Then = ScriptedReply::Then;

std::string Reply(const std::string& body) { return HttpReplyOf(200, body).bytes; }

}  // namespace

std::string AddressOfUrl(const ScriptedServer& server) { return server.url().substr(7); }

std::string ObjectOfSize(std::size_t bytes) {
  const std::string prefix = R"({"success":true,"data":{"text":")";
  const std::string tail = "\"}}";
  return prefix + std::string(bytes - prefix.size() - tail.size(), 'x') + tail;
}

std::string Nested(std::size_t levels) {
  return "{\"success\":true,\"data\":" + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}";
}

std::string ObjectOfValues(std::size_t values, const std::string& element) {
  constexpr std::size_t kOthers = 3;  // the reply, true and the array
  std::string text = R"({"success":true,"data":[)" + element;
  for (std::size_t i = kOthers + 1; i < values; ++i) text += "," + element;
  return text + "]}";
}

const std::vector<Misbehaviour>& Misbehaviours() {
  static const std::vector<Misbehaviour> rows{
      {"HangsUp", {"", Then::kClose}, "hung up"},
      {"Resets", {"", Then::kReset}, "reset"},
      {"HangsUpMidHeader", {"HTTP/1.1 200 OK\r\nContent-Le", Then::kClose}, "'other-host'"},
      {"HangsUpMidBody",
       {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"success\":true", Then::kClose},
       "middle of its reply"},
      {"StallsImmediately", {"", Then::kStall}, "in time"},
      {"StallsMidBody", {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"success\":true", Then::kStall}, "in time"},
      {"SaysGarbage", {"\x01\x02garbage\r\n\r\n\xff\xfe", Then::kClose}, "'other-host'"},
      {"SpeaksHttp09", {R"({"success":true})", Then::kClose}, "'other-host'"},
      {"AnswersNoJson", {Reply("<html>"), Then::kClose}, "is not JSON"},
      {"AnswersHalfJson", {Reply(R"({"success":true)"), Then::kClose}, "is not JSON"},
      {"AnswersNothing", {Reply(""), Then::kClose}, "is not JSON"},
      {"AnswersInvalidUtf8", {Reply("{\"a\":\"\xff\"}"), Then::kClose}, "is not JSON"},
      {"AnswersAnArray", {Reply("[1,2]"), Then::kClose}, "is not a JSON object"},
      {"AnswersText", {Reply("\"x\""), Then::kClose}, "is not a JSON object"},
      {"AnswersNull", {Reply("null"), Then::kClose}, "is not a JSON object"},
      {"NestsTooDeeply", {Reply(Nested(65)), Then::kClose}, "too deeply"},
      {"NestsVeryDeeply", {Reply(Nested(1'000'000)), Then::kClose}, "too deeply"},
      {"AnswersTooMuch", {Reply(ObjectOfSize(17 * kMiB)), Then::kClose}, "larger than 16 MiB"},
      {"AnswersTooMuchUnannounced",
       {"HTTP/1.1 200 OK\r\n\r\n" + ObjectOfSize(17 * kMiB), Then::kClose},
       "larger than 16 MiB"},
      {"AnswersOneByteTooMuch", {Reply(ObjectOfSize(16 * kMiB + 1)), Then::kClose}, "larger than 16 MiB"},
      {"AnswersOneByteTooMuchUnannounced",
       {"HTTP/1.1 200 OK\r\n\r\n" + ObjectOfSize(16 * kMiB + 1), Then::kClose},
       "larger than 16 MiB"},
      {"AnswersTooManyValues", {Reply(ObjectOfValues(2'000'001, "0")), Then::kClose}, "more than 2000000 values"},
      {"AnswersTooManyTexts", {Reply(ObjectOfValues(2'000'001, "\"\\\"\"")), Then::kClose}, "more than 2000000 values"},
      {"AnswersTooManyEmptyArrays", {Reply(ObjectOfValues(2'000'001, "[]")), Then::kClose}, "more than 2000000 values"},
      {"AnswersAsManyValuesAsFit",
       {Reply(ObjectOfValues(8 * kMiB - 20, "0")), Then::kClose},
       "more than 2000000 values"},
      {"Redirects",
       {"HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n", Then::kClose},
       "is not JSON"},
  };
  return rows;
}

}  // namespace vexa::test
