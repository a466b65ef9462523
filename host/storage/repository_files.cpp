#include "host/storage/repository_files.h"

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

namespace vexa::storage {
namespace {

using VexaCCC::DB::DashCate;

constexpr char kPath[] = "path";
constexpr char kNvram[] = "nvram";

std::string PrefixOf(const DashCate& category) { return records::CategoryKey(category.name()); }

// Adds the disk of `record`. A null record stands for a path with a key of its own: it follows the record of the disk
// in the scan, and overrides that disk's path.
void AddDiskFile(const Json::Value& record, const std::string& key_segment, const std::string& path,
                 std::vector<DiskFile>& disks) {
  if (record.isNull()) {
    if (!path.empty() && !disks.empty()) disks.back().path = path;
    return;
  }
  std::optional<std::string> id = store::DecodeSegment(key_segment);
  if (!id || !record.isObject()) return;
  DiskFile disk;
  disk.id = std::move(*id);
  disk.guest_id = json::StringMember(record, keys::guest_id);
  disk.path = path;
  // The same decision as in an edit. The member "format" has one value for all disks.
  constexpr int kTypeQcow2 = 2;
  const std::string driver = json::StringMember(record, "driver");
  disk.is_qcow2 = driver.empty() ? json::Int(json::Member(record, keys::type)) == kTypeQcow2 : driver == "qcow2";
  disk.size_mib = json::UInt64(json::Member(record, keys::size));
  disks.push_back(std::move(disk));
}

// Whether the key is the state of an object: a change of it does not change which files exist.
bool IsState(std::string_view key) { return key.substr(key.rfind('/') + 1) == keys::state; }

// Adds the paths in `member` of all records of the category. A path may also have a key of its own.
Status CollectPaths(const store::Snapshot& snapshot, const DashCate& category, const char* member,
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
    const bool is_member_key = name == member && rest.substr(0, slash) == last_id && !repository_id.empty();
    if (name != keys::object && !is_member_key) return true;
    const bool may_contain = value.text.find(quoted) != std::string_view::npos ||
                             value.text.find('\\') != std::string_view::npos || has_disks;
    if (!is_member_key && !may_contain) return true;
    const Result<Json::Value> parsed = ParseJson(value.text);
    if (!parsed) return true;
    if (!is_member_key) repository_id = json::StringMember(*parsed, keys::repository_id);
    std::string path =
        is_member_key && parsed->isString() ? json::String(*parsed) : json::StringMember(*parsed, member);
    if (repository_id.empty()) return true;
    if (has_disks) AddDiskFile(is_member_key ? Json::Value() : *parsed, last_id, path, files[repository_id].disks);
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
    const Result<std::string> host = records::RepositoryHost(snapshot, named);
    if (!host) return host.error();
    if (host->empty() || *host != host_id) continue;
    const auto record = records::LoadObject(snapshot, records::ObjectKey(DashCate::Repository.name(), id));
    if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
    own.emplace(id, record ? json::StringMember(record->record, keys::name) : std::string());
  }
  return own;
}

Result<bool> FilesByRepository::HasChanged(store::Store& store, store::Revision now) {
  if (!read_at_) return true;
  if (*read_at_ == now) return false;
  for (const DashCate* category : {&DashCate::vDisk, &DashCate::Guest}) {
    const auto batch = store.Watch(PrefixOf(*category), *read_at_, std::chrono::milliseconds(0));
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
    // The next call looks for changes since `now`.
    read_at_ = now;
    return &files_;
  }
  Files files;
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  for (const auto& [category, member] : {std::pair(&DashCate::vDisk, kPath), std::pair(&DashCate::Guest, kNvram)}) {
    const Status collected = CollectPaths(**snapshot, *category, member, files);
    if (!collected) return collected.error();
  }
  files_ = std::move(files);
  read_at_ = (*snapshot)->revision();
  return &files_;
}

}  // namespace vexa::storage
