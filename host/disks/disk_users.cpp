#include "host/disks/disk_users.h"

#include <sys/stat.h>

#include <array>
#include <cstring>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/json_parse.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/repository_host.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

using VexaCCC::DB::DashCate;

// A member of a category's records that names files: a text, or a list of texts.
struct Member {
  const char* category;
  const char* name;
  FileUser user;
};
const std::array<Member, 4>& Members() {
  static const std::array<Member, 4> members{{{DashCate::vDisk.name(), kDiskPath, FileUser::kDisk},
                                              {DashCate::Guest.name(), kNvramMember, FileUser::kNvram},
                                              {DashCate::Guest.name(), keys::iso_images, FileUser::kDrive},
                                              {cluster::kImageCategory, kDiskPath, FileUser::kImage}}};
  return members;
}

std::string_view LastSegment(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string_view SkipBlanks(std::string_view text) {
  const std::size_t at = text.find_first_not_of(" \t\r\n");
  return at == std::string_view::npos ? std::string_view() : text.substr(at);
}

// The part of `text` after `part`; null data when `part` is not found. Most of a search is spent here, and a
// string_view is several times slower at finding a part that begins with a quote.
std::string_view Behind(std::string_view text, std::string_view part) {
  const void* const found = ::memmem(text.data(), text.size(), part.data(), part.size());
  if (!found) return {};
  const auto at = static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
  return text.substr(at + part.size());
}

// A record with a path whose last segment is that of a file.
struct Candidate {
  const Member* member;
  std::string id;  // as in keys
  std::string path;
};

// One pass over a category.
class Pass {
 public:
  using Names = std::multimap<std::string, const std::string*, std::less<>>;

  Pass(const Names& names, std::vector<const Member*> members, std::vector<Candidate>& candidates)
      : names_(names), members_(std::move(members)), candidates_(candidates) {
    for (const Member* member : members_) quoted_.push_back('"' + std::string(member->name) + '"');
  }

  // `name` is the last part of the key: "object" for a record, otherwise a member with a key of its own.
  void Examine(std::string_view id, std::string_view name, std::string_view text) {
    if (name == keys::object) {
      if (!MayName(text)) return;
      // A damaged record names nothing that could be used.
      const Result<Json::Value> record = ParseJson(text);
      if (!record) return;
      for (const Member* member : members_) Take(*member, id, json::Member(*record, member->name));
      return;
    }
    for (const Member* member : members_) {
      if (name != member->name) continue;
      if (const Result<Json::Value> value = ParseJson(text)) Take(*member, id, *value);
    }
  }

 private:
  // Decided without parsing. A member's name can also be hidden by an escape.
  bool MayName(std::string_view text) const {
    if (text.find("\\u") != std::string_view::npos) return true;
    for (const std::string& quoted : quoted_) {
      std::string_view rest = Behind(text, quoted);
      for (; rest.data(); rest = Behind(rest, quoted)) {
        const std::string_view value = SkipBlanks(rest);
        if (value.starts_with(':') && MayContain(SkipBlanks(value.substr(1)))) return true;
      }
    }
    return false;
  }

  // `text` begins with a value.
  bool MayContain(std::string_view text) const {
    const bool is_list = text.starts_with('[');
    if (is_list) text = SkipBlanks(text.substr(1));
    while (text.starts_with('"')) {
      const std::string_view value = text.substr(1, text.find('"', 1) - 1);
      if (value.find('\\') != std::string_view::npos || names_.contains(LastSegment(value))) return true;
      if (!is_list || value.size() + 2 >= text.size()) return false;
      text = SkipBlanks(text.substr(value.size() + 2));
      if (text.starts_with(',')) text = SkipBlanks(text.substr(1));
    }
    // A list may also contain values of other types.
    return is_list && !text.starts_with(']');
  }

  void Take(const Member& member, std::string_view id, const Json::Value& value) {
    if (value.isArray()) {
      for (const Json::Value& element : value) TakePath(member, id, element);
    } else {
      TakePath(member, id, value);
    }
  }

  void TakePath(const Member& member, std::string_view id, const Json::Value& value) {
    if (!value.isString()) return;
    std::string path = json::String(value);
    const bool can_name = path.starts_with('/') && path.find('\0') == std::string::npos;
    if (can_name && names_.contains(LastSegment(path)))
      candidates_.push_back({&member, std::string(id), std::move(path)});
  }

  const Names& names_;
  const std::vector<const Member*> members_;
  std::vector<std::string> quoted_;
  std::vector<Candidate>& candidates_;
};

class UserSearch {
 public:
  UserSearch(const FileQuestion& question, const std::map<std::string, SoughtFile>& files)
      : question_(question), files_(files) {
    for (const auto& [path, file] : files) names_.emplace(LastSegment(path), &path);
    for (const std::string& id : question.except_disks) except_disks_.insert(store::EncodeSegment(id));
  }

  Status Scan(const store::Snapshot& snapshot) {
    std::vector<Candidate> candidates;
    for (const char* category : {DashCate::vDisk.name(), DashCate::Guest.name(), cluster::kImageCategory}) {
      const Status scanned = ScanCategory(snapshot, category, candidates);
      if (!scanned) return scanned;
    }
    for (Candidate& candidate : candidates) {
      const Status taken = TakeCandidate(snapshot, candidate);
      if (!taken) return taken;
    }
    return {};
  }

  // Call it once no snapshot is held: it asks the file system about paths that any user may have chosen.
  std::map<std::string, FileUser> Finish() {
    for (const auto& [other, user] : suspects_) {
      const auto [begin, end] = names_.equal_range(LastSegment(other));
      for (auto candidate = begin; candidate != end; ++candidate) {
        if (LeadsTo(other, files_.at(*candidate->second))) Name(*candidate->second, user);
      }
    }
    return std::move(named_);
  }

 private:
  Status ScanCategory(const store::Snapshot& snapshot, const char* category, std::vector<Candidate>& candidates) const {
    std::vector<const Member*> members;
    for (const Member& member : Members()) {
      if (std::string_view(member.category) == category && question_.users.contains(member.user)) {
        members.push_back(&member);
      }
    }
    if (members.empty()) return {};
    const bool has_disks = category == std::string_view(DashCate::vDisk.name());
    const std::string prefix = cluster::CategoryKey(category);
    Pass pass(names_, std::move(members), candidates);
    return snapshot.Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      if (key.size() <= prefix.size()) return true;
      const std::string_view rest = key.substr(prefix.size() + 1);
      const std::size_t slash = rest.find('/');
      if (slash == std::string_view::npos) return true;
      const std::string_view id = rest.substr(0, slash);
      if (!has_disks || !except_disks_.contains(id)) pass.Examine(id, rest.substr(slash + 1), value.text);
      return true;
    });
  }

  Status TakeCandidate(const store::Snapshot& snapshot, Candidate& candidate) {
    const FileUser user = candidate.member->user;
    const std::optional<std::string> normal = NormalPath(candidate.path);
    const bool is_same = normal && files_.contains(*normal);
    if (is_same && IsNamed(*normal, user)) return {};
    const Result<bool> counts = Counts(snapshot, candidate);
    if (!counts) return counts.error();
    if (!*counts) return {};
    if (is_same) {
      Name(*normal, user);
    } else {
      suspects_.emplace(std::move(candidate.path), user);
    }
    return {};
  }

  // Whether the record is not one of the excluded ones, and means a file of this host.
  Result<bool> Counts(const store::Snapshot& snapshot, const Candidate& candidate) const {
    const bool is_guest = candidate.member->user == FileUser::kNvram || candidate.member->user == FileUser::kDrive;
    const bool is_leaving = question_.guest != FileQuestion::Guest::kStaying;
    if (is_guest && is_leaving && candidate.id == store::EncodeSegment(question_.guest_id)) return false;
    const std::string prefix = cluster::CategoryKey(candidate.member->category) + "/" + candidate.id + "/";
    const Result<Json::Value> record = ReadValue(snapshot, prefix + keys::object);
    if (!record) return record.error();
    if (candidate.member->user == FileUser::kDisk) {
      const bool is_gone = question_.guest == FileQuestion::Guest::kGone;
      if (is_gone && json::TextMember(*record, keys::guest_id) == question_.guest_id) return false;
    }
    if (question_.host_id.empty()) return true;
    if (candidate.member->user == FileUser::kImage) {
      const std::string host_id = json::TextMember(*record, keys::host_id);
      return host_id.empty() || host_id == question_.host_id;
    }
    Result<std::string> repository_host = RepositoryHost(snapshot, *record);
    if (!repository_host) return repository_host.error();
    if (!is_guest) return repository_host->empty() || *repository_host == question_.host_id;
    const Result<Json::Value> own = ReadValue(snapshot, prefix + keys::host_id);
    if (!own) return own.error();
    const std::string host_id = own->isString() ? json::String(*own) : json::TextMember(*record, keys::host_id);
    return host_id.empty() || host_id == question_.host_id || *repository_host == question_.host_id;
  }

  // Null when the record is absent or damaged.
  static Result<Json::Value> ReadValue(const store::Snapshot& snapshot, const std::string& key) {
    const auto value = snapshot.Get(key);
    if (!value) return value.error();
    if (!value->has_value()) return Json::Value();
    Result<Json::Value> parsed = ParseJson((*value)->text);
    return parsed ? std::move(parsed) : Json::Value();
  }

  static bool LeadsTo(const std::string& path, const SoughtFile& file) {
    struct stat info {};
    const auto is_it = [&] { return file.identity == FileIdentity{info.st_dev, info.st_ino}; };
    if (::stat(path.c_str(), &info) == 0 && is_it()) return true;
    if (file.hidden.empty()) return false;
    const std::string hidden = path.substr(0, path.rfind('/') + 1) + file.hidden;
    return ::stat(hidden.c_str(), &info) == 0 && is_it();
  }

  bool IsNamed(const std::string& path, FileUser user) const {
    const auto found = named_.find(path);
    return found != named_.end() && found->second <= user;
  }
  void Name(const std::string& path, FileUser user) {
    if (!IsNamed(path, user)) named_[path] = user;
  }

  const FileQuestion& question_;
  const std::map<std::string, SoughtFile>& files_;
  Pass::Names names_;
  std::set<std::string, std::less<>> except_disks_;  // as in keys
  std::map<std::string, FileUser> named_;
  std::set<std::pair<std::string, FileUser>> suspects_;
};

}  // namespace

std::string Describe(FileUser user) {
  switch (user) {
    case FileUser::kDisk:
      return "another disk's record names it";
    case FileUser::kNvram:
      return "another guest has its UEFI variables in it";
    case FileUser::kDrive:
      return "a drive of another guest has it";
    case FileUser::kImage:
      return "an image record names it";
  }
  return "another record names it";
}

Result<std::map<std::string, FileUser>> FindFileUsers(const store::Store& store, const FileQuestion& question,
                                                      const std::map<std::string, SoughtFile>& files) {
  if (files.empty()) return std::map<std::string, FileUser>();
  UserSearch search(question, files);
  {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    const Status scanned = search.Scan(**snapshot);
    if (!scanned) return scanned.error();
  }
  return search.Finish();
}

Result<store::Revision> FilesRevision(const store::Snapshot& snapshot) {
  const auto value = snapshot.Get(FilesKey());
  if (!value) return value.error();
  return value->has_value() ? (*value)->revision : store::Revision{0};
}

Result<store::Revision> FilesRevision(const store::Store& store) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return FilesRevision(**snapshot);
}

}  // namespace vexa::guests
