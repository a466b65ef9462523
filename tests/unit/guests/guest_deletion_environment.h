// Fixture for deletion tests: guests with disk files and records, in a real store and real folders.
#pragma once

#include <json/value.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/guests/deletion/deletion.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "host/store/lmdb_store.h"
#include "json/readers.h"
#include "tests/support/faulty_store.h"
#include "tests/support/matchers.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"

namespace vexa::test {

inline constexpr char kThisHost[] = "11111111-1111-4111-8111-111111111111";
inline constexpr char kOtherHost[] = "22222222-2222-4222-8222-222222222222";
inline constexpr char kGuest[] = "aaaaaaaa-aaaa-4aaa-8aaa-aaaaaaaaaaaa";
inline constexpr char kBystander[] = "bbbbbbbb-bbbb-4bbb-8bbb-bbbbbbbbbbbb";

using guests::Deletion;
using guests::DeletionOptions;
using records::DeletionKey;
using records::RunKey;
using Texts = std::map<std::string, std::string>;

inline std::shared_ptr<FaultyStore> OpenStoreIn(const TempDir& folder) {
  store::LmdbOptions options;
  options.directory = folder.File("store");
  return std::make_shared<FaultyStore>(Require(store::OpenLmdbStore(options)));
}

// A folder with a store and two image folders.
class DeletionEnvironment {
 public:
  DeletionEnvironment() {
    for (const char* name : {"images", "more", "outside"}) std::filesystem::create_directory(folder_.File(name));
  }

  std::shared_ptr<FaultyStore> OpenStore() const { return OpenStoreIn(folder_); }

  guests::DeletionOptions Options(std::shared_ptr<store::Store> store) const {
    guests::DeletionOptions options;
    options.store = std::move(store);
    options.host_id = kThisHost;
    options.image_roots = {Image(""), More("")};
    return options;
  }

  // Paths in the two image folders, and in a folder that is not an image folder.
  std::string Image(const std::string& name) const { return folder_.File("images/" + name); }
  std::string More(const std::string& name) const { return folder_.File("more/" + name); }
  std::string Outside(const std::string& name) const { return folder_.File("outside/" + name); }
  const TempDir& folder() const { return folder_; }

  // All files and links below the three folders, with their contents; a link's is "-> <where to>".
  Texts Files() const {
    Texts files;
    for (const char* name : {"images", "more", "outside"}) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(folder_.File(name))) {
        if (entry.is_symlink()) {
          files[entry.path()] = "-> " + std::filesystem::read_symlink(entry.path()).string();
        } else if (entry.is_regular_file()) {
          std::ifstream in(entry.path());
          files[entry.path()] = std::string(std::istreambuf_iterator<char>(in), {});
        }
      }
    }
    return files;
  }

 private:
  TempDir folder_;
};

inline std::string KeyOf(const std::string& category, const std::string& id, const std::string& name = "object") {
  return store::MakeKey({"dash", category, id, name});
}

inline void PutText(store::Store& store, const std::string& key, const std::string& text) {
  (void)Require(store.Commit({{}, {{key, text}}}));
}
inline void PutRecord(store::Store& store, const std::string& key, const Json::Value& record) {
  PutText(store, key, VexaVirtualization::json::ToText(record));
}
inline void RemoveKey(store::Store& store, const std::string& key) {
  (void)Require(store.Commit({{}, {{key, std::nullopt}}}));
}

// Everything in the store.
inline Texts Everything(const store::Store& store) {
  Texts all;
  const auto snapshot = Require(store.Read());
  Require(snapshot->Scan("", [&](std::string_view key, const store::ValueView& value) {
    all[std::string(key)] = std::string(value.text);
    return true;
  }));
  return all;
}
inline std::optional<std::string> TextOf(const store::Store& store, const std::string& key) {
  const Texts all = Everything(store);
  const auto found = all.find(key);
  return found == all.end() ? std::nullopt : std::optional(found->second);
}

inline void WriteFile(const std::string& path, const std::string& content = "") {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << (content.empty() ? "content of " + path : content);
}

inline std::string DiskId(const std::string& guest_id, std::size_t index) {
  return "disk-" + guest_id + "-" + std::to_string(index);
}

inline Json::Value DiskRecord(const std::string& guest_id, const Json::Value& path) {
  Json::Value disk(Json::objectValue);
  disk["guest_id"] = guest_id;
  disk["name"] = "vda";
  disk["path"] = path;
  return disk;
}
inline void PutDisk(store::Store& store, const std::string& id, const std::string& guest_id, const Json::Value& path) {
  PutRecord(store, KeyOf("vdisk", id), DiskRecord(guest_id, path));
}

// A guest with one interface, a live state, and disks at `paths`, whose files are not made.
inline void PutGuest(store::Store& store, const std::string& id, const std::vector<std::string>& paths) {
  using VexaVirtualization::json::ToText;
  store::Transaction all;
  Json::Value guest(Json::objectValue);
  guest["name"] = "guest " + id;
  guest["host_id"] = kThisHost;
  guest["repository_id"] = "repository";
  guest["vdisks"] = Json::Value(Json::arrayValue);
  for (std::size_t i = 0; i < paths.size(); ++i) {
    guest["vdisks"].append(DiskId(id, i));
    all.operations.push_back({KeyOf("vdisk", DiskId(id, i)), ToText(DiskRecord(id, paths[i]))});
    all.operations.push_back({KeyOf("vdisk", DiskId(id, i), "state"), "\"vdisk_online\""});
  }
  guest["vnics"].append("nic-" + id);
  Json::Value nic(Json::objectValue);
  nic["guest_id"] = id;
  all.operations.push_back({KeyOf("vnic", "nic-" + id), ToText(nic)});
  all.operations.push_back({KeyOf("guest", id), ToText(guest)});
  all.operations.push_back({KeyOf("guest", id, "state"), "\"guest_shutdown\""});
  all.operations.push_back({KeyOf("guest", id, "remark"), "1"});
  all.operations.push_back({store::MakeKey({"live", id}), "{}"});
  (void)Require(store.Commit(all));
}

inline void PutRepository(store::Store& store, const std::string& host_id) {
  Json::Value repository(Json::objectValue);
  repository["host_id"] = host_id;
  PutRecord(store, KeyOf("repository", "repository"), repository);
}

// Without what names `id`.
inline Texts Without(Texts texts, const std::string& id) {
  std::erase_if(texts, [&](const auto& entry) { return entry.first.find(id) != std::string::npos; });
  return texts;
}

// The guest that is deleted, with three disks in two folders, and another one beside it.
inline void PutBoth(const DeletionEnvironment& environment, store::Store& store) {
  const std::string own = std::string("/") + kGuest;
  const std::vector<std::string> paths = {environment.Image("a" + own + "-0.img"),
                                          environment.More(kGuest + std::string("-1.img")),
                                          environment.Image("a" + own + "-2.img")};
  const std::vector<std::string> others = {environment.Image("a/bystander-0.img"), environment.More("bystander-1.img")};
  for (const std::string& path : paths) WriteFile(path);
  for (const std::string& path : others) WriteFile(path);
  PutRepository(store, kThisHost);
  PutGuest(store, kGuest, paths);
  PutGuest(store, kBystander, others);
}

inline const guests::Requester& Alice() {
  static const guests::Requester alice{"alice", kOtherHost, "request-1"};
  return alice;
}

}  // namespace vexa::test
