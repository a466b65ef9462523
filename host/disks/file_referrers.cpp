#include "host/disks/file_referrers.h"

#include <sys/stat.h>

#include <array>
#include <cstring>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "host/base/json_parse.h"
#include "host/base/rows.h"
#include "host/records/guest_image.h"
#include "host/records/keys.h"
#include "host/records/repository_host.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::disks {
namespace {

using VexaCCC::DB::DashCate;

// A member of a category's records that has paths of files: a string, or a list of strings.
struct Member {
  const char* category;
  const char* name;
  FileReferrer referrer;
};
const std::array<Member, 4>& Members() {
  static const std::array<Member, 4> members{{{DashCate::vDisk.name(), kDiskPath, FileReferrer::kDisk},
                                              {DashCate::Guest.name(), records::kNvramMember, FileReferrer::kNvram},
                                              {DashCate::Guest.name(), keys::iso_images, FileReferrer::kCdromDrive},
                                              {records::kImageCategory, kDiskPath, FileReferrer::kImage}}};
  return members;
}

std::string_view LastSegment(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string_view SkipBlanks(std::string_view text) {
  const std::size_t at = text.find_first_not_of(" \t\r\n");
  return at == std::string_view::npos ? std::string_view() : text.substr(at);
}

// The part of `text` after `part`; null data when `part` is not found. Most of a search is spent here, and a
// string_view is several times slower at finding a part that begins with a quote.
std::string_view After(std::string_view text, std::string_view part) {
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

// Collects the candidates among the records of a category.
class CategoryScan {
 public:
  using FileNames = std::multimap<std::string, const std::string*, std::less<>>;

  CategoryScan(const FileNames& file_names, std::vector<const Member*> members, std::vector<Candidate>& candidates)
      : file_names_(file_names), members_(std::move(members)), candidates_(candidates) {
    for (const Member* member : members_) quoted_.push_back('"' + std::string(member->name) + '"');
  }

  // `name` is the last part of the key: "object" for a record, otherwise a member with a key of its own.
  void Examine(std::string_view id, std::string_view name, std::string_view text) {
    if (name == keys::object) {
      if (!MayRefer(text)) return;
      // A damaged record refers to nothing.
      const Result<Json::Value> record = ParseJson(text);
      if (!record) return;
      for (const Member* member : members_) AddPaths(*member, id, json::Member(*record, member->name));
      return;
    }
    for (const Member* member : members_) {
      if (name != member->name) continue;
      if (const Result<Json::Value> value = ParseJson(text)) AddPaths(*member, id, *value);
    }
  }

 private:
  // Whether the record must be parsed. An escape can hide the name of a member.
  bool MayRefer(std::string_view text) const {
    if (text.find("\\u") != std::string_view::npos) return true;
    for (const std::string& quoted : quoted_) {
      std::string_view rest = After(text, quoted);
      for (; rest.data(); rest = After(rest, quoted)) {
        const std::string_view value = SkipBlanks(rest);
        if (value.starts_with(':') && MayContain(SkipBlanks(value.substr(1)))) return true;
      }
    }
    return false;
  }

  // Whether the value at the start of `text` may contain a path with one of the names.
  bool MayContain(std::string_view text) const {
    const bool is_list = text.starts_with('[');
    if (is_list) text = SkipBlanks(text.substr(1));
    while (text.starts_with('"')) {
      const std::string_view value = text.substr(1, text.find('"', 1) - 1);
      if (value.find('\\') != std::string_view::npos || file_names_.contains(LastSegment(value))) return true;
      if (!is_list || value.size() + 2 >= text.size()) return false;
      text = SkipBlanks(text.substr(value.size() + 2));
      if (text.starts_with(',')) text = SkipBlanks(text.substr(1));
    }
    // A list may also contain values of other types.
    return is_list && !text.starts_with(']');
  }

  void AddPaths(const Member& member, std::string_view id, const Json::Value& value) {
    if (value.isArray()) {
      for (const Json::Value& element : value) AddPath(member, id, element);
    } else {
      AddPath(member, id, value);
    }
  }

  void AddPath(const Member& member, std::string_view id, const Json::Value& value) {
    if (!value.isString()) return;
    std::string path = json::String(value);
    const bool can_refer = path.starts_with('/') && path.find('\0') == std::string::npos;
    if (can_refer && file_names_.contains(LastSegment(path)))
      candidates_.push_back({&member, std::string(id), std::move(path)});
  }

  const FileNames& file_names_;
  const std::vector<const Member*> members_;
  std::vector<std::string> quoted_;
  std::vector<Candidate>& candidates_;
};

class ReferrerSearch {
 public:
  ReferrerSearch(const FileReferrerQuery& query, const std::map<std::string, QueriedFile>& files)
      : query_(query), files_(files) {
    for (const auto& [path, file] : files) file_names_.emplace(LastSegment(path), &path);
    for (const std::string& id : query.except_disks) except_disks_.insert(store::EncodeSegment(id));
  }

  Status Scan(const store::Snapshot& snapshot) {
    std::vector<Candidate> candidates;
    for (const char* category : {DashCate::vDisk.name(), DashCate::Guest.name(), records::kImageCategory}) {
      const Status scanned = ScanCategory(snapshot, category, candidates);
      if (!scanned) return scanned;
    }
    for (Candidate& candidate : candidates) {
      const Status taken = AddCandidate(snapshot, candidate);
      if (!taken) return taken;
    }
    return {};
  }

  // Must not be called while a snapshot is open: it accesses paths that any user may have chosen, and may hang.
  std::map<std::string, FileReferrer> Finish() {
    for (const auto& [other, referrer] : same_name_candidates_) {
      const auto [begin, end] = file_names_.equal_range(LastSegment(other));
      for (auto candidate = begin; candidate != end; ++candidate) {
        if (IsFile(other, files_.at(*candidate->second))) AddReferrer(*candidate->second, referrer);
      }
    }
    return std::move(referrers_);
  }

 private:
  Status ScanCategory(const store::Snapshot& snapshot, const char* category, std::vector<Candidate>& candidates) const {
    std::vector<const Member*> members;
    for (const Member& member : Members()) {
      if (std::string_view(member.category) == category && query_.kinds.contains(member.referrer)) {
        members.push_back(&member);
      }
    }
    if (members.empty()) return {};
    const bool has_disks = category == std::string_view(DashCate::vDisk.name());
    const std::string prefix = records::CategoryKey(category);
    CategoryScan pass(file_names_, std::move(members), candidates);
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

  Status AddCandidate(const store::Snapshot& snapshot, Candidate& candidate) {
    const FileReferrer referrer = candidate.member->referrer;
    const std::optional<std::string> normal = NormalPath(candidate.path);
    const bool is_same = normal && files_.contains(*normal);
    if (is_same && HasReferrer(*normal, referrer)) return {};
    const Result<bool> refers = RefersToThisHost(snapshot, candidate);
    if (!refers) return refers.error();
    if (!*refers) return {};
    if (is_same) {
      AddReferrer(*normal, referrer);
    } else {
      same_name_candidates_.emplace(std::move(candidate.path), referrer);
    }
    return {};
  }

  // Whether the record is not one of the excluded ones, and refers to a file of this host.
  Result<bool> RefersToThisHost(const store::Snapshot& snapshot, const Candidate& candidate) const {
    const bool is_of_guest =
        candidate.member->referrer == FileReferrer::kNvram || candidate.member->referrer == FileReferrer::kCdromDrive;
    const bool is_being_deleted = query_.guest != FileReferrerQuery::Guest::kKept;
    if (is_of_guest && is_being_deleted && candidate.id == store::EncodeSegment(query_.guest_id)) return false;
    const std::string prefix = records::CategoryKey(candidate.member->category) + "/" + candidate.id + "/";
    const Result<Json::Value> record = ReadValue(snapshot, prefix + keys::object);
    if (!record) return record.error();
    if (candidate.member->referrer == FileReferrer::kDisk) {
      const bool is_gone = query_.guest == FileReferrerQuery::Guest::kGone;
      if (is_gone && json::StringMember(*record, keys::guest_id) == query_.guest_id) return false;
    }
    if (query_.host_id.empty()) return true;
    if (candidate.member->referrer == FileReferrer::kImage) {
      const std::string host_id = json::StringMember(*record, keys::host_id);
      return host_id.empty() || host_id == query_.host_id;
    }
    Result<std::string> repository_host = records::RepositoryHost(snapshot, *record);
    if (!repository_host) return repository_host.error();
    if (!is_of_guest) return repository_host->empty() || *repository_host == query_.host_id;
    const Result<Json::Value> stored_host = ReadValue(snapshot, prefix + keys::host_id);
    if (!stored_host) return stored_host.error();
    const std::string host_id =
        stored_host->isString() ? json::String(*stored_host) : json::StringMember(*record, keys::host_id);
    return host_id.empty() || host_id == query_.host_id || *repository_host == query_.host_id;
  }

  // Null when the record is absent or damaged.
  static Result<Json::Value> ReadValue(const store::Snapshot& snapshot, const std::string& key) {
    const auto value = snapshot.Get(key);
    if (!value) return value.error();
    if (!value->has_value()) return Json::Value();
    Result<Json::Value> parsed = ParseJson((*value)->text);
    return parsed ? std::move(parsed) : Json::Value();
  }

  static bool IsFile(const std::string& path, const QueriedFile& file) {
    struct stat info {};
    const auto is_same = [&] { return file.identity == FileIdentity{info.st_dev, info.st_ino}; };
    if (::stat(path.c_str(), &info) == 0 && is_same()) return true;
    if (file.hidden.empty()) return false;
    const std::string hidden = path.substr(0, path.rfind('/') + 1) + file.hidden;
    return ::stat(hidden.c_str(), &info) == 0 && is_same();
  }

  bool HasReferrer(const std::string& path, FileReferrer referrer) const {
    const auto found = referrers_.find(path);
    return found != referrers_.end() && found->second <= referrer;
  }
  void AddReferrer(const std::string& path, FileReferrer referrer) {
    if (!HasReferrer(path, referrer)) referrers_[path] = referrer;
  }

  const FileReferrerQuery& query_;
  const std::map<std::string, QueriedFile>& files_;
  CategoryScan::FileNames file_names_;
  std::set<std::string, std::less<>> except_disks_;  // as in keys
  std::map<std::string, FileReferrer> referrers_;
  std::set<std::pair<std::string, FileReferrer>> same_name_candidates_;
};

}  // namespace

std::string Describe(FileReferrer referrer) {
  struct Row {
    FileReferrer referrer;
    const char* clause;
  };
  constexpr Row kRows[] = {{FileReferrer::kDisk, "the record of another disk refers to it"},
                           {FileReferrer::kNvram, "it holds the UEFI variables of another guest"},
                           {FileReferrer::kCdromDrive, "it is in a CD-ROM drive of another guest"},
                           {FileReferrer::kImage, "an image record refers to it"}};
  const Row* const row = FindRow(kRows, &Row::referrer, referrer);
  return row != nullptr ? row->clause : "another record refers to it";
}

Result<std::map<std::string, FileReferrer>> FindFileReferrers(const store::Store& store, const FileReferrerQuery& query,
                                                              const std::map<std::string, QueriedFile>& files) {
  if (files.empty()) return std::map<std::string, FileReferrer>();
  ReferrerSearch search(query, files);
  {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    const Status scanned = search.Scan(**snapshot);
    if (!scanned) return scanned.error();
  }
  return search.Finish();
}

Result<store::Revision> FileReferencesRevision(const store::Snapshot& snapshot) {
  const auto value = snapshot.Get(records::FileReferencesGuardKey());
  if (!value) return value.error();
  return value->has_value() ? (*value)->revision : store::Revision{0};
}

Result<store::Revision> FileReferencesRevision(const store::Store& store) {
  const auto snapshot = store.Read();
  if (!snapshot) return snapshot.error();
  return FileReferencesRevision(**snapshot);
}

Status CompareFileReferencesRevision(const store::Snapshot& snapshot, store::Transaction& transaction) {
  const Result<store::Revision> revision = FileReferencesRevision(snapshot);
  if (!revision) return revision.error();
  transaction.compares.push_back({records::FileReferencesGuardKey(), *revision});
  return {};
}

}  // namespace vexa::disks
