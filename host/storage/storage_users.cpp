#include "host/storage/storage_users.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/records/repository_host.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

constexpr char kPath[] = "path";
constexpr char kNvram[] = "nvram";

std::string PrefixOf(const DashCate& category) { return cluster::CategoryKey(category.name()); }

// `record` is null for a path with a key of its own, which follows the record of the disk and overrides its path.
void NoteDisk(const Json::Value& record, const std::string& key_segment, const std::string& path,
              std::vector<DiskFile>& disks) {
  if (record.isNull()) {
    if (!path.empty() && !disks.empty()) disks.back().path = path;
    return;
  }
  std::optional<std::string> id = store::DecodeSegment(key_segment);
  if (!id || !record.isObject()) return;
  DiskFile disk;
  disk.id = std::move(*id);
  disk.guest_id = json::TextMember(record, keys::guest_id);
  disk.path = path;
  // As an edit decides it; "format" is the same for all.
  constexpr int kTypeQcow2 = 2;
  const std::string driver = json::TextMember(record, "driver");
  disk.is_qcow2 = driver.empty() ? json::Int(json::Member(record, keys::type)) == kTypeQcow2 : driver == "qcow2";
  disk.size_mib = json::UInt64(json::Member(record, keys::size));
  disks.push_back(std::move(disk));
}

// Whether the key is the state of an object, which says nothing about its files.
bool IsState(std::string_view key) { return key.substr(key.rfind('/') + 1) == keys::state; }

// The paths under `member` of all records of the category. The path of a disk may also have a key of its own.
Status TakePaths(const store::Snapshot& snapshot, const DashCate& category, const char* member,
                 FilesByRepository::Files& files) {
  const bool has_disks = category.name() == std::string_view(DashCate::vDisk.name());
  const std::string prefix = PrefixOf(category);
  const std::string quoted = "\"" + std::string(member) + "\"";
  std::string last_id;
  std::string repository_id;  // of the record with that id, which precedes its other keys
  return snapshot.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
    if (key.size() <= prefix.size()) return true;
    const std::string_view rest = key.substr(prefix.size() + 1);
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return true;
    const std::string_view name = rest.substr(slash + 1);
    if (name == keys::object) {
      last_id = rest.substr(0, slash);
      repository_id.clear();
    }
    const bool is_own = name == member && rest.substr(0, slash) == last_id && !repository_id.empty();
    if (name != keys::object && !is_own) return true;
    const bool may_name = value.text.find(quoted) != std::string_view::npos ||
                          value.text.find('\\') != std::string_view::npos || has_disks;
    if (!is_own && !may_name) return true;
    const Result<Json::Value> parsed = ParseJson(value.text);
    if (!parsed) return true;
    if (!is_own) repository_id = json::TextMember(*parsed, keys::repository_id);
    std::string path = is_own && parsed->isString() ? json::String(*parsed) : json::TextMember(*parsed, member);
    if (repository_id.empty()) return true;
    if (has_disks) NoteDisk(is_own ? Json::Value() : *parsed, last_id, path, files[repository_id].disks);
    if (!path.empty()) files[repository_id].paths.push_back(std::move(path));
    return true;
  });
}

}  // namespace

Result<std::map<std::string, std::string>> RepositoriesOf(const store::Snapshot& snapshot, const std::string& host_id) {
  const auto ids = snapshot.Children(PrefixOf(DashCate::Repository));
  if (!ids) return ids.error();
  std::map<std::string, std::string> own;
  for (const std::string& id : *ids) {
    Json::Value named(Json::objectValue);
    named[keys::repository_id] = id;
    const Result<std::string> host = RepositoryHost(snapshot, named);
    if (!host) return host.error();
    if (host->empty() || *host != host_id) continue;
    const auto record = cluster::LoadObject(snapshot, cluster::ObjectKey(DashCate::Repository.name(), id));
    if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
    own.emplace(id, record ? json::TextMember(record->record, keys::name) : std::string());
  }
  return own;
}

Result<bool> FilesByRepository::HasChanged(store::Store& store, store::Revision now) {
  if (!seen_) return true;
  if (*seen_ == now) return false;
  for (const DashCate* category : {&DashCate::vDisk, &DashCate::Guest}) {
    const auto batch = store.Watch(PrefixOf(*category), *seen_, std::chrono::milliseconds(0));
    if (!batch) return batch.error();
    const bool has_changed = std::ranges::any_of(batch->changes, [](const auto& one) { return !IsState(one.key); });
    if (batch->lost || has_changed) return true;
  }
  return false;
}

Result<const FilesByRepository::Files*> FilesByRepository::Find(store::Store& store) {
  store::Revision now = 0;
  {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    now = (*snapshot)->revision();
  }
  const Result<bool> has_changed = HasChanged(store, now);
  if (!has_changed) return has_changed.error();
  if (!*has_changed) {
    // The next call searches for what has changed since `now` was read.
    seen_ = now;
    return &files_;
  }
  Files files;
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  for (const auto& [category, member] : {std::pair(&DashCate::vDisk, kPath), std::pair(&DashCate::Guest, kNvram)}) {
    const Status taken = TakePaths(**snapshot, *category, member, files);
    if (!taken) return taken.error();
  }
  files_ = std::move(files);
  seen_ = (*snapshot)->revision();
  return &files_;
}

}  // namespace vexa::guests
