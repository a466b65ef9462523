#include "host/guests/disk_users.h"

#include <sys/stat.h>

#include <functional>
#include <string_view>
#include <vector>

#include "host/base/json_parse.h"
#include "host/store/key.h"
#include "webapi/platform/ccc.h"
#include "webapi/utils/json.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;

constexpr char kPath[] = "path";
constexpr std::string_view kQuotedPath = "\"path\"";

std::string_view LastSegment(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string_view SkipBlanks(std::string_view text) {
  const std::size_t at = text.find_first_not_of(" \t\r\n");
  return at == std::string_view::npos ? std::string_view() : text.substr(at);
}

class UserSearch {
 public:
  explicit UserSearch(const std::map<std::string, FileIdentity>& files) : files_(files) {
    for (const auto& [path, identity] : files) by_name_.emplace(LastSegment(path), &path);
  }

  // `text` is the record of a disk.
  void LookAtRecord(std::string_view text) {
    if (!MayName(text)) return;
    const Result<Json::Value> record = ParseJson(text);
    // A damaged record names nothing that anybody could use.
    if (record) Take(json::Member(*record, kPath));
  }

  // `text` is a path on its own, which goes before the record's.
  void LookAtPath(std::string_view text) {
    const Result<Json::Value> path = ParseJson(text);
    if (path) Take(*path);
  }

  // To be called once no snapshot is held: it asks the file system about paths that anybody may have chosen.
  std::set<std::string> Finish() {
    for (const std::string& other : suspects_) {
      struct stat info {};
      if (::stat(other.c_str(), &info) != 0) continue;
      const auto [begin, end] = by_name_.equal_range(LastSegment(other));
      for (auto candidate = begin; candidate != end; ++candidate) {
        if (files_.at(*candidate->second) == FileIdentity{info.st_dev, info.st_ino}) named_.insert(*candidate->second);
      }
    }
    return std::move(named_);
  }

 private:
  // Whether a member "path" can hold one of the names, told without parsing. Behind a backslash there can be anything.
  bool MayName(std::string_view text) const {
    if (text.find('\\') != std::string_view::npos) return true;
    for (std::size_t at = text.find(kQuotedPath); at != std::string_view::npos; at = text.find(kQuotedPath, at + 1)) {
      std::string_view rest = SkipBlanks(text.substr(at + kQuotedPath.size()));
      if (!rest.starts_with(':')) continue;
      rest = SkipBlanks(rest.substr(1));
      if (!rest.starts_with('"')) continue;
      const std::string_view value = rest.substr(1, rest.find('"', 1) - 1);
      if (by_name_.contains(LastSegment(value))) return true;
    }
    return false;
  }

  void Take(const Json::Value& value) {
    if (!value.isString()) return;
    std::string path = json::String(value);
    if (!by_name_.contains(LastSegment(path)) || path.find('\0') != std::string::npos) return;
    const std::optional<std::string> normal = NormalPath(path);
    if (normal && files_.contains(*normal)) {
      named_.insert(*normal);
    } else if (path.starts_with('/')) {
      suspects_.insert(std::move(path));
    }
  }

  const std::map<std::string, FileIdentity>& files_;
  std::multimap<std::string, const std::string*, std::less<>> by_name_;
  std::set<std::string> named_;
  std::set<std::string> suspects_;
};

}  // namespace

Result<std::set<std::string>> NamedByOthers(const store::Store& store, const std::set<std::string>& but_disks,
                                            const std::map<std::string, FileIdentity>& files) {
  if (files.empty()) return std::set<std::string>();
  const std::string prefix = store::MakeKey({"dash", VexaCCC::DB::DashCate::vDisk.name()});
  std::set<std::string, std::less<>> but;  // as in keys
  for (const std::string& id : but_disks) but.insert(store::EncodeSegment(id));
  UserSearch search(files);
  {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    const Status scanned = (*snapshot)->Scan(prefix, [&](std::string_view key, const store::ValueView& value) {
      if (key.size() <= prefix.size()) return true;
      const std::string_view rest = key.substr(prefix.size() + 1);
      const std::size_t slash = rest.find('/');
      if (slash == std::string_view::npos || but.contains(rest.substr(0, slash))) return true;
      const std::string_view name = rest.substr(slash + 1);
      if (name == keys::object) search.LookAtRecord(value.text);
      if (name == kPath) search.LookAtPath(value.text);
      return true;
    });
    if (!scanned) return scanned.error();
  }
  return search.Finish();
}

}  // namespace vexa::guests
