// Records of images: what can be added and removed, and that names and files stay unique.
#include "host/disks/image_records.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "host/records/run_record.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/racing_store.h"
#include "tests/support/record_test.h"

namespace vexa::disks {
namespace {

constexpr char kId[] = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";
constexpr char kOther[] = "99999999-9999-4999-8999-999999999999";
constexpr char kGuest[] = "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211";

class ImageRecords : public test::RecordTest {
 protected:
  ImageRecords() { std::filesystem::create_directory(Root()); }

  std::string Root() const { return host_.folder().File("images"); }
  std::string MakeFile(const std::string& name) const {
    std::ofstream(Root() + "/" + name) << "twelve bytes";
    return Root() + "/" + name;
  }
  Result<void, Refusal> Add(const std::string& name, const std::string& path, const std::string& id = "") {
    return AddImage(host_.store(), {Root()}, {name, path, id}, added_);
  }
  void ExpectAdded(const std::string& name, const std::string& path, const std::string& id = "") {
    const auto refused = Add(name, path, id);
    EXPECT_TRUE(refused.ok()) << refused.error().reason;
  }
  void ExpectAddRefused(const std::string& name, const std::string& path, const std::string& id,
                        const std::string& reason) {
    ExpectRefused([&] { return Add(name, path, id); }, kRecordExists, reason);
  }
  void ExpectRemoveRefused(const std::string& id, int code, const std::string& reason) {
    ExpectRefused([&] { return Remove(id); }, code, reason);
  }
  Result<void, Refusal> Remove(const std::string& id) { return RemoveImage(host_.store(), id, removed_); }

  std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const ListedImage& image : Require(ListImages(host_.store()))) names.push_back(image.name);
    return names;
  }

  std::string added_;
  std::string removed_;
};

TEST_F(ImageRecords, Add_WritesRecordNameAndFilesKey) {
  const std::string file = MakeFile("a.iso");
  ExpectAdded("Debian 12/amd64", file, "5B1C7D0A-3E84-4F96-B2A7-91C0DE45F3B8");
  EXPECT_EQ(added_, kId);
  EXPECT_EQ(TextOf(records::ObjectKey("image", kId)), R"({"name":"Debian 12/amd64","path":")" + file + "\"}");
  EXPECT_EQ(TextOf("/name/image/Debian%2012%2Famd64"), Quoted(kId));
  EXPECT_EQ(TextOf(records::FileReferencesGuardKey()), Quoted(kId));
}

TEST_F(ImageRecords, Add_NoId_CreatesOne) {
  ExpectAdded("a", MakeFile("a.iso"));
  const std::string first = added_;
  ExpectAdded("b", MakeFile("b.iso"));
  EXPECT_EQ(first.size(), 36u);
  EXPECT_NE(first, added_);
}

TEST_F(ImageRecords, Check_InvalidArguments_AreRefused) {
  for (const std::string& name : {std::string(), std::string(129, 'x'), std::string("a\nb"), std::string("a\0b", 3),
                                  std::string("\xFF"), std::string("\x7F")}) {
    const Status checked = CheckImage({name, "/a.iso", ""});
    ASSERT_FALSE(checked) << name;
    EXPECT_EQ(checked.error().message(), "An image's name is 1 to 128 bytes of UTF-8 without control characters");
  }
  for (const char* id : {"5", "../x", "00000000-0000-0000-0000-000000000000"}) {
    const Status checked = CheckImage({"a", "/a.iso", id});
    ASSERT_FALSE(checked) << id;
    EXPECT_EQ(checked.error().message(), "'" + std::string(id) + "' is not a UUID");
  }
  for (const std::string& path : {std::string(), std::string("a.iso"), std::string("/a\nb"), std::string("/\xFF"),
                                  "/" + std::string(4096, 'x')}) {
    const Status checked = CheckImage({"a", path, ""});
    ASSERT_FALSE(checked) << path;
    EXPECT_THAT(checked.error().message(), HasSubstr("is not a valid image path: give an absolute path"));
    EXPECT_LT(checked.error().message().size(), 700u);
  }
  EXPECT_TRUE(CheckImage({std::string(128, 'x'), "/" + std::string(4095, 'x'), kId}));
}

TEST_F(ImageRecords, Add_PathIsNotFileBelowFolder_IsRefused) {
  const std::string outside = host_.folder().File("outside.iso");
  std::ofstream(outside) << "x";
  MakeFile("a.iso");
  std::filesystem::create_directory(Root() + "/deep");
  std::filesystem::create_symlink(outside, Root() + "/link.iso");
  std::filesystem::create_directory_symlink(std::filesystem::path(outside).parent_path(), Root() + "/folder");
  ASSERT_EQ(::mkfifo((Root() + "/fifo.iso").c_str(), 0600), 0);
  for (const std::string& path : {outside, Root() + "/link.iso", Root() + "/folder/outside.iso", Root() + "/deep",
                                  Root(), Root() + "/fifo.iso", Root() + "/deep/../a.iso", outside + "/none.iso"}) {
    ExpectRefused([&] { return Add("x", path); }, kNotAnImage,
                  "'" + path + "' is not a regular file below '" + Root() + "' without '.', '..' and symbolic links");
  }
  ExpectRefused([&] { return Add("x", Root() + "/none.iso"); }, kNotAnImage,
                "'" + Root() +
                    "/none.iso' does not exist on the host. Put it there, or send a file of yours with 'vexa "
                    "image add NAME FILE --upload'");
}

TEST_F(ImageRecords, Add_Existing_IsRefused) {
  const std::string file = MakeFile("a.iso");
  const std::string other = MakeFile("b.iso");
  ExpectAdded("a", file, kId);
  const std::string id = kId;
  ExpectAddRefused("b", other, kId, "There is an image '" + id + "' already");
  ExpectAddRefused("a", other, "", "The image '" + id + "' has the name 'a'");
  ExpectAddRefused("b", file, "", "The file '" + file + "' is the image 'a' already");
  ExpectAdded("A", other);
}

TEST_F(ImageRecords, Add_IdOfADamagedRecord_IsRefused) {
  host_.PutText("image", kId, "[");
  ExpectAddRefused("a", MakeFile("a.iso"), kId, "There is an image '" + std::string(kId) + "' already");
}

// Records of older versions have no keys of their names.
TEST_F(ImageRecords, Add_OlderRecordsExist_FindsTheirNamesAndAddsKeys) {
  host_.PutText("image", "old-1", R"({"name":"old","path":"/a.iso"})");
  host_.PutText("image", "old-2", R"({"name":"twin","path":"/b.iso"})");
  host_.PutText("image", "old-3", R"({"name":"twin","path":"/c.iso"})");
  host_.PutText("image", "old-4", R"({"name":"","path":"/d.iso"})");
  host_.PutText("image", "old-5", "[]");
  host_.PutText("image", "old-6", R"({"name":")" + std::string(600, 'x') + "\"}");
  const std::string file = MakeFile("a.iso");
  ExpectAddRefused("old", file, "", "The image 'old-1' has the name 'old'");
  ExpectAdded("new", file);
  EXPECT_EQ(TextOf(records::NameKey("image", "old")), Quoted("old-1"));
  EXPECT_EQ(TextOf(records::NameKey("image", "twin")), Quoted("old-2")) << "the first of the records with the name";
  EXPECT_EQ(TextOf(records::NameKey("image", "new")), Quoted(added_));
  EXPECT_EQ(Require(Require(host_.store().Read())->Children("/name/image")).size(), 3u);
}

TEST_F(ImageRecords, Add_NameKeyWithoutRecord_IsReused) {
  ExpectAdded("a", MakeFile("a.iso"), kId);
  host_.Remove("image", kId);
  ExpectAdded("a", MakeFile("a.iso"), kOther);
  EXPECT_EQ(TextOf(records::NameKey("image", "a")), Quoted(kOther));
}

TEST_F(ImageRecords, Add_NameGivenBetweenScanAndCommit_IsFoundByASecondScan) {
  const std::string file = MakeFile("a.iso");
  // Without FileReferencesGuardKey(): the key of the name alone makes the commit a conflict.
  test::RacingStore store(host_.store(), [&] {
    (void)Require(host_.store().Commit({{},
                                        {{records::ObjectKey("image", kOther), R"({"name":"a","path":"/b.iso"})"},
                                         {records::NameKey("image", "a"), Quoted(kOther)}}}));
  });
  std::string id;
  const auto refused = AddImage(store, {Root()}, {"a", file, ""}, id);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, kRecordExists);
  EXPECT_EQ(store.commits(), 1);
  EXPECT_THAT(Names(), ElementsAre("a"));
}

TEST_F(ImageRecords, Add_FileTakenBetweenScanAndCommit_IsFoundByASecondScan) {
  const std::string file = MakeFile("a.iso");
  test::RacingStore store(host_.store(), [&] { ExpectAdded("b", file); });
  std::string id;
  const auto refused = AddImage(store, {Root()}, {"a", file, ""}, id);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, kRecordExists);
  EXPECT_THAT(Names(), ElementsAre("b"));
}

TEST_F(ImageRecords, Add_OlderRecordRemovedBetweenScanAndCommit_GetsNoKey) {
  host_.PutText("image", "old", R"({"name":"old","path":"/a.iso"})");
  test::RacingStore store(host_.store(), [&] { host_.Remove("image", "old"); });
  EXPECT_TRUE(AddImage(store, {Root()}, {"a", MakeFile("a.iso"), ""}, added_).ok());
  EXPECT_EQ(store.commits(), 2);
  EXPECT_EQ(TextOf(records::NameKey("image", "old")), "");
}

// How many of eight additions at the same time are accepted; the others must be refused with kRecordExists.
int CountAcceptedOfEight(const std::function<Result<void, Refusal>(int index)>& add) {
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<Result<void, Refusal>> results(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      results[static_cast<std::size_t>(i)] = add(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
  return test::CountAccepted(results);
}

TEST_F(ImageRecords, Add_EightConcurrentWithOneName_OneIsAccepted) {
  for (int round = 0; round < 5; ++round) {
    const std::string name = "round " + std::to_string(round);
    std::vector<std::string> files;
    for (int i = 0; i < 8; ++i) files.push_back(MakeFile(std::to_string(round) + "-" + std::to_string(i) + ".iso"));
    EXPECT_EQ(CountAcceptedOfEight([&](int i) {
                std::string id;
                return AddImage(host_.store(), {Root()}, {name, files[static_cast<std::size_t>(i)], ""}, id);
              }),
              1);
    EXPECT_EQ(Names().size(), static_cast<std::size_t>(round) + 1);
  }
}

TEST_F(ImageRecords, Add_EightConcurrentWithOneFile_OneIsAccepted) {
  const std::string file = MakeFile("a.iso");
  EXPECT_EQ(CountAcceptedOfEight([&](int i) {
              std::string id;
              return AddImage(host_.store(), {Root()}, {"name " + std::to_string(i), file, ""}, id);
            }),
            1);
  EXPECT_EQ(Names().size(), 1u);
  EXPECT_EQ(Require(Require(host_.store().Read())->Children("/name/image")).size(), 1u);
}

TEST_F(ImageRecords, List_Images_HasNamesAndPathsWithoutFileSystemAccess) {
  const std::string file = MakeFile("a.iso");
  ExpectAdded("a", file, kId);
  host_.PutText("image", "x", R"({"name":"gone","path":"/no/such.iso"})");
  host_.PutText("image", "y", "[]");
  const std::vector<ListedImage> images = Require(ListImages(host_.store()));
  ASSERT_EQ(images.size(), 3u);
  EXPECT_EQ(images[0].id, kId);
  EXPECT_EQ(images[0].name, "a");
  EXPECT_EQ(images[0].path, file);
  EXPECT_FALSE(images[0].size);
  EXPECT_EQ(images[1].name, "gone");
  EXPECT_FALSE(images[1].size);
  EXPECT_EQ(images[2].id, "y");
  EXPECT_EQ(images[2].name, "");
}

TEST_F(ImageRecords, Remove_Image_DeletesRecordAndNameAndKeepsFile) {
  const std::string file = MakeFile("a.iso");
  ExpectAdded("a", file, kId);
  const auto refused = Remove(kId);
  EXPECT_TRUE(refused.ok()) << refused.error().reason;
  EXPECT_EQ(removed_, "a");
  EXPECT_EQ(TextOf(records::ObjectKey("image", kId)), "");
  EXPECT_EQ(TextOf(records::NameKey("image", "a")), "");
  EXPECT_TRUE(std::filesystem::exists(file));
  ExpectAdded("a", file, kId);
}

TEST_F(ImageRecords, Remove_RecordOfOlderVersion_KeepsNameOfOtherImage) {
  ExpectAdded("a", MakeFile("a.iso"), kId);
  host_.PutText("image", "old", R"({"name":"a","path":"/b.iso"})");
  EXPECT_TRUE(Remove("old").ok());
  EXPECT_EQ(TextOf(records::NameKey("image", "a")), Quoted(kId));
}

TEST_F(ImageRecords, Remove_UnknownImage_IsRefused) {
  ExpectRemoveRefused(kId, host_error::kNotFoundOrUnreadable, "There is no image '" + std::string(kId) + "'");
  ExpectRemoveRefused("../x", host_error::kNotFoundOrUnreadable, "There is no image '../x'");
  EXPECT_EQ(removed_, "");
}

TEST_F(ImageRecords, Remove_DamagedRecord_IsDone) {
  host_.PutText("image", kId, "[");
  EXPECT_TRUE(Remove(kId).ok());
  EXPECT_EQ(TextOf(records::ObjectKey("image", kId)), "");
}

TEST_F(ImageRecords, Remove_ImageInADrive_IsRefusedWithTheGuests) {
  const std::string file = MakeFile("a.iso");
  ExpectAdded("a", file, kId);
  const std::string guests = "The image 'a' is in a drive of these guests: ";
  const std::string end = ". Take it out of the drives first";
  const std::string id = Quoted(kId);
  const std::string rows[] = {R"({"name":"web","iso_images":["unmounted",)" + id + "]}",
                              R"({"name":"web","iso_images":[")" + file + "\"]}",
                              R"({"name":"web","iso_images":[")" + Root() + "//./a.iso\"]}",
                              R"({"name":"web","iso_images":["\u0035)" + std::string(kId).substr(1) + "\"]}"};
  for (const std::string& record : rows) {
    host_.PutText("guest", kGuest, record);
    ExpectRemoveRefused(kId, kRecordInUse, guests + "'web'" + end);
    EXPECT_EQ(removed_, "a");
  }
  host_.PutText("guest", kGuest, R"({"name":"web","iso_images":[]})");
  Put(store::MakeKey({"dash", "guest", kGuest, "iso_images"}), "[" + id + "]");
  ExpectRemoveRefused(kId, kRecordInUse, guests + "'web'" + end);
  Put(store::MakeKey({"dash", "guest", kGuest, "iso_images"}), "[]");
  for (const char* record : {R"({"iso_images":["unmounted","/other/a.iso"],"desc":"%"})", R"({"iso_images":"%"})",
                             R"({"iso_images":[7,null,{}],"name":"%"})", "[\"%\""}) {
    std::string text = record;
    if (const std::size_t at = text.find('%'); at != std::string::npos) text.replace(at, 1, kId);
    host_.PutText("guest", kGuest, text);
    EXPECT_TRUE(Remove(kId).ok()) << text;
    ExpectAdded("a", file, kId);
  }
}

TEST_F(ImageRecords, Remove_ImageUsedByManyGuests_NamesTen) {
  ExpectAdded("a", MakeFile("a.iso"), kId);
  for (int i = 10; i < 23; ++i) {
    host_.PutText("guest", "g" + std::to_string(i),
                  R"({"name":"web-)" + std::to_string(i) + R"(","iso_images":[")" + kId + "\"]}");
  }
  ExpectRemoveRefused(kId, kRecordInUse,
                      "The image 'a' is in a drive of these guests: 'web-10', 'web-11', 'web-12', 'web-13', 'web-14', "
                      "'web-15', 'web-16', 'web-17', 'web-18', 'web-19' and 3 more. Take it out of the drives first");
}

// As an edit of the guest commits it.
TEST_F(ImageRecords, Remove_GuestGetsTheImageBetweenScanAndCommit_IsRefused) {
  ExpectAdded("a", MakeFile("a.iso"), kId);
  test::RacingStore store(host_.store(), [&] {
    (void)Require(host_.store().Commit(
        {{},
         {{records::ObjectKey("guest", kGuest), R"({"name":"web","iso_images":[")" + std::string(kId) + "\"]}"},
          {records::FileReferencesGuardKey(), Quoted(kGuest)}}}));
  });
  const auto refused = RemoveImage(store, kId, removed_);
  ASSERT_FALSE(refused.ok());
  EXPECT_EQ(refused.error().code, kRecordInUse);
  EXPECT_NE(TextOf(records::ObjectKey("image", kId)), "");
}

TEST_F(ImageRecords, Calls_StoreFails_AreReportedAndChangeNothing) {
  const std::string file = MakeFile("a.iso");
  ExpectAdded("a", file, kId);
  host_.store().FailCommits();
  EXPECT_EQ(Add("b", MakeFile("b.iso")).error().code, kRecordFailed);
  EXPECT_EQ(Remove(kId).error().code, kRecordFailed);
  host_.store().Heal();
  host_.store().FailSnapshots();
  EXPECT_EQ(Add("b", MakeFile("b.iso")).error().code, kRecordFailed);
  EXPECT_EQ(Remove(kId).error().code, kRecordFailed);
  EXPECT_FALSE(ListImages(host_.store()));
  host_.store().Heal();
  EXPECT_THAT(Names(), ElementsAre("a"));
}

TEST_F(ImageRecords, Rename_MovesNameKeyAndKeepsRest) {
  const std::string file = MakeFile("a.iso");
  ExpectAdded("a", file, kId);
  std::string old_name;
  ASSERT_TRUE(records::RenameRecord(host_.store(), "image", "image", kId, "b", old_name).ok());
  EXPECT_EQ(old_name, "a");
  EXPECT_EQ(TextOf(records::ObjectKey("image", kId)), R"({"name":"b","path":")" + file + "\"}");
  EXPECT_EQ(TextOf("/name/image/a"), "");
  EXPECT_EQ(TextOf("/name/image/b"), Quoted(kId));
  ExpectAdded("a", MakeFile("c.iso"));
}

TEST_F(ImageRecords, Rename_Invalid_IsRefused) {
  ExpectAdded("a", MakeFile("a.iso"), kId);
  ExpectAdded("b", MakeFile("b.iso"), kOther);
  std::string old_name;
  const auto rename = [&](const char* id, const std::string& name) {
    return [&old_name, this, id, name] {
      return records::RenameRecord(host_.store(), "image", "image", id, name, old_name);
    };
  };
  ExpectRefused(rename(kId, "b"), kRecordExists, "The image '" + std::string(kOther) + "' has the name 'b'");
  ExpectRefused(rename(kGuest, "c"), 403, "There is no image '" + std::string(kGuest) + "'");
  ExpectRefused(rename(kId, "x\ny"), 401,
                "The name of a record (image) is 1 to 128 bytes of UTF-8 without control characters");
  Put(records::ObjectKey("image", kId), "7");
  EXPECT_EQ(rename(kId, "c")().error().code, kRecordFailed);
  EXPECT_EQ(TextOf(records::ObjectKey("image", kId)), "7");
}

TEST_F(ImageRecords, RenameAndAdd_ConcurrentToOneName_OneIsAccepted) {
  constexpr int kClients = 8;
  std::vector<std::string> ids;
  for (int i = 0; i < kClients; ++i) {
    ExpectAdded("image-" + std::to_string(i), MakeFile("r" + std::to_string(i)));
    ids.push_back(added_);
  }
  const std::string file = MakeFile("new");
  std::latch ready(kClients);
  std::vector<Result<void, Refusal>> results(kClients);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&, i] {
      std::string name;
      ready.arrive_and_wait();
      results[static_cast<std::size_t>(i)] =
          i == 0
              ? AddImage(host_.store(), {Root()}, {"one", file, ""}, name)
              : records::RenameRecord(host_.store(), "image", "image", ids[static_cast<std::size_t>(i)], "one", name);
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(test::CountAccepted(results), 1);
  const std::vector<std::string> names = Names();
  EXPECT_EQ(std::count(names.begin(), names.end(), "one"), 1);
}

}  // namespace
}  // namespace vexa::disks
