// Reads records for the current request, from its snapshot. host/records/object_members.h explains members of records.
#include <optional>
#include <utility>

#include "host/records/environment.h"
#include "host/records/keys.h"
#include "host/records/last_finding.h"
#include "host/records/object_members.h"
#include "host/records/request_scope.h"
#include "webapi/platform/ccc.h"

namespace VexaCCC::DB {
namespace {

constexpr int kFound = 0;
constexpr int kNotFound = 2;
constexpr int kFailed = -1;

using vexa::records::FindingScope;

// Which value was read, for what FindingScope reports.
struct Place {
  std::string category;
  std::string id;
  std::string key;
};

// Moves the value that was found into `out`, which otherwise stays unchanged, and returns the code for the caller.
template <class T>
int MoveResultTo(vexa::Result<std::optional<T>> found, const Place& place, T& out) {
  if (!found) {
    FindingScope::AddUnreadable(vexa::records::ObjectForUsers(place.category, place.id), found.error());
    return kFailed;
  }
  if (!found->has_value()) {
    FindingScope::AddMissing(place.category, place.id, place.key);
    return kNotFound;
  }
  out = std::move(**found);
  return kFound;
}

int FailedToOpen(const vexa::Error& error) {
  FindingScope::Add({"The cluster database cannot be read: " + error.ToString() + ".", false});
  return kFailed;
}

int ListChildren(const std::string& key, std::vector<std::string>& ids) {
  const auto reader = vexa::records::ReaderOfRequest();
  if (!reader) return FailedToOpen(reader.error());
  vexa::Result<std::vector<std::string>> children = (*reader)->Children(key);
  if (!children) return FailedToOpen(children.error());
  ids = std::move(*children);
  return kFound;
}

}  // namespace

int DashCate::List(std::vector<std::string>& ids) const { return ListChildren(vexa::records::CategoryKey(name_), ids); }

Dashboard::Dashboard(const DashCate& category, const std::string& id) : category_(category), id_(id) {}

int Dashboard::Get(Json::Value& out, const std::string& key) {
  const auto reader = vexa::records::ReaderOfRequest();
  if (!reader) return FailedToOpen(reader.error());
  return MoveResultTo(vexa::records::ReadMember(**reader, category_, id_, key), {category_.name(), id_, key}, out);
}

int Dashboard::Get(std::string& out, const std::string& key) {
  const auto reader = vexa::records::ReaderOfRequest();
  if (!reader) return FailedToOpen(reader.error());
  return MoveResultTo(vexa::records::ReadText(**reader, category_, id_, key), {category_.name(), id_, key}, out);
}

int Dashboard::Ls(std::vector<std::string>& ids, const std::string& key) {
  return ListChildren(vexa::records::RecordKey(category_.name(), id_) + "/" + key, ids);
}

std::string DBLocalhostID() {
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  return environment ? environment->host_id : std::string();
}

}  // namespace VexaCCC::DB
