// What a guest's drives can hold: ids of images, and paths in shared folders. And the texts that go with editing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host/base/rooted_file.h"
#include "host/records/environment.h"
#include "host/records/request_scope.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_image.h"

namespace vexa::platform {
namespace {

namespace fs = std::filesystem;
using test::TestHost;
using VexaCCC::GuestImageIsDsPath;
using VexaCCC::GuestImageIsValidDsPath;
using VexaCCC::GuestImageIsValidID;

const std::string kImage = "5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b8";

class GuestImage : public testing::Test {
 protected:
  GuestImage() {
    fs::create_directories(root_ + "/deep/er");
    fs::create_directories(outside_);
    for (const std::string name : {"a.iso", "B.IsO", "deep/er/c.iso", "text.txt", "iso", ".iso", "a.iso.txt"})
      Make(name);
    std::ofstream(outside_ + "/secret.iso") << "x";
  }

  void Make(const std::string& name) { std::ofstream(root_ + "/" + name) << "x"; }
  static void Allow(const std::vector<std::string>& roots) {
    records::Environment environment = *records::CurrentEnvironment();
    environment.image_roots = roots;
    records::InstallEnvironment(std::move(environment));
  }

  TestHost host_;
  const std::string root_ = host_.folder().File("images");
  const std::string outside_ = host_.folder().File("outside");
};

TEST_F(GuestImage, ImageId_RecordWithPath_IsValid) {
  EXPECT_FALSE(GuestImageIsValidID(kImage));
  host_.Put("image", kImage, Parsed(R"({"name":"Debian","path":"/srv/debian.iso"})"));
  EXPECT_TRUE(GuestImageIsValidID(kImage));
  EXPECT_FALSE(GuestImageIsValidID("5b1c7d0a-3e84-4f96-b2a7-91c0de45f3b9"));
  for (const char* record : {"{", "[]", "null", "\"x\"", "{}", R"({"name":"x"})", R"({"path":null})", R"({"path":1})",
                             R"({"path":""})", R"({"path":["/a.iso"]})"}) {
    host_.PutText("image", kImage, record);
    EXPECT_FALSE(GuestImageIsValidID(kImage)) << record;
  }
}

// A share whose server is gone would otherwise keep the store from reusing space.
TEST_F(GuestImage, ImagePath_IsExaminedWithoutTheRequestsReader) {
  Allow({root_});
  const records::RequestScope scope;
  std::weak_ptr<const records::Reader> reader = *records::ReaderOfRequest();
  ASSERT_FALSE(reader.expired());
  EXPECT_FALSE(GuestImageIsValidDsPath("relative.iso"));
  EXPECT_FALSE(reader.expired()) << "no file is touched for a text that is not a path";
  EXPECT_TRUE(GuestImageIsValidDsPath(root_ + "/a.iso"));
  EXPECT_TRUE(reader.expired());
}

TEST_F(GuestImage, ImageId_EmptyDrive_IsValid) { EXPECT_TRUE(GuestImageIsValidID("unmounted")); }

TEST_F(GuestImage, ImageId_OtherStrings_AreInvalid) {
  host_.Put("image", "short", Parsed(R"({"path":"/srv/debian.iso"})"));
  for (const std::string& text : std::vector<std::string>{"",
                                                          "short",
                                                          "Unmounted",
                                                          "unmounted ",
                                                          {"unmounted\0", 10},
                                                          "/a/b.iso",
                                                          kImage + "/..",
                                                          "../image/" + kImage}) {
    EXPECT_FALSE(GuestImageIsValidID(text)) << text;
  }
}

TEST_F(GuestImage, ImageId_StoreFails_IsInvalid) {
  host_.Put("image", kImage, Parsed(R"({"path":"/srv/debian.iso"})"));
  host_.store().FailSnapshots();
  EXPECT_FALSE(GuestImageIsValidID(kImage));
}

TEST_F(GuestImage, ImagePath_Form_IsSlashAndMore) {
  for (const char* path : {"/a", "//", "/a/b.iso", "/../x", "/ ", "/\xff"})
    EXPECT_TRUE(GuestImageIsDsPath(path)) << path;
  for (const char* path : {"", "/", "a", "a/b.iso", " /a", "unmounted"}) EXPECT_FALSE(GuestImageIsDsPath(path)) << path;
}

TEST_F(GuestImage, ImagePath_FileBelowRoot_IsValid) {
  Allow({"/nowhere", root_});
  for (const char* name : {"/a.iso", "/B.IsO", "/deep/er/c.iso"}) {
    EXPECT_TRUE(GuestImageIsValidDsPath(root_ + name)) << name;
  }
  for (const std::string& root : {root_ + "/", host_.folder().path(), std::string("/")}) {
    Allow({root});
    EXPECT_TRUE(GuestImageIsValidDsPath(root_ + "/deep/er/c.iso")) << root;
  }
}

TEST_F(GuestImage, ImagePath_NoRoots_IsInvalid) {
  EXPECT_FALSE(GuestImageIsValidDsPath(root_ + "/a.iso"));
  for (const std::string& root :
       {std::string(), std::string("images"), std::string("."), root_ + "/a.iso", root_ + "x"}) {
    Allow({root});
    EXPECT_FALSE(GuestImageIsValidDsPath(root_ + "/a.iso")) << root;
  }
}

TEST_F(GuestImage, ImagePath_OutsideRoots_IsInvalid) {
  fs::create_directories(root_ + "x");
  std::ofstream(root_ + "x/a.iso") << "x";
  Allow({root_});
  for (const std::string& path :
       {outside_ + "/secret.iso", root_ + "x/a.iso", root_ + "/../outside/secret.iso", root_ + "/deep/../a.iso",
        root_ + "/./a.iso", root_ + "//a.iso", root_ + "/a.iso/", std::string("/a.iso"), root_ + "/missing.iso",
        root_ + "/deep/missing/a.iso", root_ + "/a.iso/b.iso", root_, root_ + "/", std::string(), std::string("a.iso"),
        root_.substr(1) + "/a.iso"}) {
    EXPECT_FALSE(GuestImageIsValidDsPath(path)) << path;
  }
}

TEST_F(GuestImage, ImagePath_NameNotIsoFile_IsInvalid) {
  Allow({root_});
  for (const std::string& name : std::vector<std::string>{
           "text.txt", "iso", ".iso", "a.iso.txt", "a\n.iso", "a\x01.iso", "a\x7f.iso", "a\xc2\x85.iso", "a\xff.iso",
           "a\xed\xa0\x80.iso", std::string("a\0.iso", 6), std::string("a.iso\0", 6), std::string("a.iso\0.iso", 10)}) {
    if (name.find('\0') == std::string::npos) Make(name);
    EXPECT_FALSE(GuestImageIsValidDsPath(root_ + "/" + name)) << name;
  }
  // What is left when the checks look too far.
  for (const std::string name : {"\xc3\xa4.iso", "a b.iso", "%s%n.iso", "a\xc2\xa0.iso", "\"'.iso", "...iso"}) {
    Make(name);
    EXPECT_TRUE(GuestImageIsValidDsPath(root_ + "/" + name)) << name;
  }
}

TEST_F(GuestImage, ImagePath_Long_IsValidUpToLimit) {
  Allow({root_});
  std::string path = root_;
  while (path.size() + 206 <= 4096 - 10) {
    path += "/" + std::string(200, 'd');
  }
  // The system's own limit for a path given whole is lower by one, so it is made from below.
  const std::string name(4096 - path.size() - 1 - 4, 'f');
  ASSERT_LE(name.size() + 4, 255u);
  const fs::path before = fs::current_path();
  fs::create_directories(path);
  fs::current_path(path);
  std::ofstream(name + ".iso") << "x";
  std::ofstream(name + "f.iso") << "x";
  fs::current_path(before);
  EXPECT_EQ((path + "/" + name + ".iso").size(), 4096u);
  EXPECT_TRUE(GuestImageIsValidDsPath(path + "/" + name + ".iso"));
  EXPECT_FALSE(GuestImageIsValidDsPath(path + "/" + name + "f.iso"));
  EXPECT_FALSE(GuestImageIsValidDsPath(root_ + "/" + std::string(300, 'x') + ".iso"));
}

TEST_F(GuestImage, ImagePath_NotRegularFile_IsInvalid) {
  Allow({root_});
  fs::create_directory(root_ + "/folder.iso");
  ASSERT_EQ(::mkfifo((root_ + "/fifo.iso").c_str(), 0600), 0);
  fs::create_symlink(root_ + "/a.iso", root_ + "/link.iso");
  fs::create_symlink(outside_ + "/secret.iso", root_ + "/out.iso");
  fs::create_symlink("nowhere", root_ + "/dangling.iso");
  fs::create_directory_symlink(root_ + "/deep", root_ + "/shallow");
  fs::create_directory_symlink(outside_, root_ + "/away");
  for (const std::string path : {"/folder.iso", "/fifo.iso", "/link.iso", "/out.iso", "/dangling.iso",
                                 "/shallow/er/c.iso", "/away/secret.iso"}) {
    EXPECT_FALSE(GuestImageIsValidDsPath(root_ + path)) << path;
    EXPECT_FALSE(IsRegularFileBelow({root_}, root_ + path, ResolvePath::kByWalking)) << path;
  }
}

TEST_F(GuestImage, ImagePath_RootIsLink_IsValid) {
  fs::create_directory_symlink(root_, host_.folder().File("alias"));
  Allow({host_.folder().File("alias")});
  EXPECT_TRUE(GuestImageIsValidDsPath(host_.folder().File("alias") + "/a.iso"));
  EXPECT_FALSE(GuestImageIsValidDsPath(root_ + "/a.iso"));
}

TEST_F(GuestImage, ImagePath_WithoutOpenat2_HasSameResult) {
  for (const ResolvePath how : {ResolvePath::kBySystem, ResolvePath::kByWalking}) {
    EXPECT_TRUE(IsRegularFileBelow({root_}, root_ + "/a.iso", how));
    EXPECT_TRUE(IsRegularFileBelow({root_}, root_ + "/deep/er/c.iso", how));
    EXPECT_TRUE(IsRegularFileBelow({"/"}, root_ + "/deep/er/c.iso", how));
    for (const std::string path :
         {"/deep", "/deep/er", "/missing", "/missing/a.iso", "/a.iso/b", "/deep/../a.iso", "/", "", "//a.iso", "/."}) {
      EXPECT_FALSE(IsRegularFileBelow({root_}, root_ + path, how)) << path;
    }
  }
}

TEST_F(GuestImage, ImagePath_ManyChecks_LeakNoDescriptor) {
  Allow({root_});
  const auto open_files = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = open_files();
  for (int i = 0; i < 50; ++i) {
    for (const ResolvePath how : {ResolvePath::kBySystem, ResolvePath::kByWalking}) {
      IsRegularFileBelow({root_, "/"}, root_ + "/deep/er/c.iso", how);
      IsRegularFileBelow({root_, "/"}, root_ + "/deep/missing/c.iso", how);
    }
  }
  EXPECT_EQ(open_files(), before);
}

TEST(GuestImageWithoutHost, Checks_WithoutAHost_RefuseEveryPathAndId) {
  EXPECT_FALSE(GuestImageIsValidID(kImage));
  EXPECT_FALSE(GuestImageIsValidDsPath("/etc/a.iso"));
}

TEST(TextHelpers, Join_Strings_AreSeparated) {
  using VexaCCC::Utils::join;
  EXPECT_EQ(join(Parsed(R"(["a","","b"])"), ", "), "a, , b");
  EXPECT_EQ(join(Parsed(R"(["a"])"), ", "), "a");
  EXPECT_EQ(join(Parsed(R"(["a",[],{},null,5])"), "-"), "a----5");
  for (const char* text : {"[]", "null", "{}", R"({"a":"b"})", "\"x\"", "5"})
    EXPECT_EQ(join(Parsed(text), ","), "") << text;
}

TEST(TextHelpers, MakeJsonObject_HasTheMembers) {
  using VexaCCC::Utils::makeJsonObject;
  EXPECT_EQ(makeJsonObject({}), Json::Value(Json::objectValue));
  EXPECT_EQ(makeJsonObject({{"a", "1"}, {"b", ""}}), Parsed(R"({"a":"1","b":""})"));
}

}  // namespace
}  // namespace vexa::platform
