// Pages of the cluster log on a real store with any entries: pages never repeat or skip an entry, and any text is a
// cursor or refused as one.
//
// The input's lines: a cursor; the parameters of VEXA.Virtualization.Log "list"; then entries, each the last segment of
// its key, a space, and the record.
#include <set>
#include <string>
#include <string_view>

#include "fuzz/call_row.h"
#include "fuzz/check.h"
#include "host/api/user/log_api.h"
#include "host/base/json_parse.h"
#include "host/cluster/cluster_log.h"
#include "host/records/reader.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/test_host.h"

namespace {

using vexa::fuzz::Check;
namespace json = VexaVirtualization::json;

constexpr std::size_t kMaxEntries = 16;

struct Fixture {
  vexa::test::TestHost host;
  std::set<std::string> keys;  // of the entries that are stored
};

void StoreEntries(Fixture& fixture, std::string_view rest) {
  vexa::store::Transaction transaction;
  for (const std::string& key : fixture.keys) transaction.operations.push_back({key, std::nullopt});
  fixture.keys.clear();
  while (!rest.empty() && fixture.keys.size() < kMaxEntries) {
    std::string_view line = vexa::fuzz::TakeUntil(rest, "\n");
    const std::string key = vexa::store::MakeKey({"log", vexa::fuzz::TakeUntil(line, " ")});
    if (!vexa::store::IsValidKey(key) || !fixture.keys.insert(key).second) continue;
    transaction.operations.push_back({key, std::string(line)});
  }
  Check(fixture.host.store().Commit(transaction).ok(), "the entries are stored");
}

vexa::records::Reader OpenReader() {
  auto reader = vexa::records::Reader::OpenCurrent();
  Check(reader.ok(), "the store can be read");
  return std::move(*reader);
}

// Reads all pages of one entry each, and returns how many entries they have.
std::size_t CountByPages() {
  const vexa::records::Reader reader = OpenReader();
  std::size_t count = 0;
  std::string cursor;
  for (std::size_t page = 0; page <= kMaxEntries; ++page) {
    const auto read = vexa::cluster::ReadLog(reader, cursor, 1);
    Check(read.ok(), "a page's cursor is accepted");
    Check(read->entries.size() <= 1, "a page is not longer than its limit");
    count += read->entries.size();
    if (read->next.empty()) return count;
    cursor = read->next;
  }
  Check(false, "there are no more pages than entries");
  return count;
}

void CheckFollowing(std::size_t count) {
  const vexa::records::Reader reader = OpenReader();
  const auto later = vexa::cluster::ReadLogAfter(reader, 0, vexa::cluster::kMaxLogPage);
  Check(later.ok() && later->size() <= count, "a follower of the log sees its entries");
}

void CallList(const Json::Value& parameters) {
  static const std::vector<vexa::api::ApiRow> rows = vexa::api::LogRows();
  const vexa::fuzz::Reply reply = vexa::fuzz::CallRow(rows.front(), parameters, vexa::fuzz::AdministratorCaller());
  Check(reply.code == 0 || reply.code == 401, "wrong parameters are the only error");
  for (const Json::Value& entry : json::Elements(json::Member(reply.data, "entries"))) {
    Check(entry["time"].isString() && entry["text"].isString() && entry["user"].isString(), "an entry has its members");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture fixture;
  std::string_view rest = vexa::fuzz::Text(data, size);
  const std::string cursor(vexa::fuzz::TakeUntil(rest, "\n"));
  const auto parameters = vexa::ParseJson(vexa::fuzz::TakeUntil(rest, "\n"));
  StoreEntries(fixture, rest);
  const std::size_t count = CountByPages();
  CheckFollowing(count);
  const auto page = vexa::cluster::ReadLog(OpenReader(), cursor, vexa::cluster::kMaxLogPage);
  Check(page.ok() || page.error().code() == vexa::ErrorCode::kInvalid, "a refusal is kInvalid");
  if (page.ok()) Check(page->entries.size() <= count, "a page has only entries of the log");
  if (cursor.empty()) Check(page.ok() && page->entries.size() == count, "one long page has what all short ones have");
  if (parameters.ok() && parameters->isObject()) CallList(*parameters);
  return 0;
}
