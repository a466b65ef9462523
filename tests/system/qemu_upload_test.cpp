// Guests on QEMU boot from an image that was uploaded: from a drive, and from a copy of it as a disk.
#include <filesystem>

#include "host/base/json_parse.h"
#include "tests/support/qemu_host_test.h"
#include "tests/support/require.h"

namespace vexa::test {
namespace {

class QemuUpload : public LibvirtHostTest {
 protected:
  void MakeHost() override {
    LibvirtHostTest::MakeHost();
    host_->Start();
  }
  Json::Value Vexa(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--socket", host_->Socket(), "--json"});
    return Require(ParseJson(host_->Vexa(std::move(arguments))));
  }
  void ExpectBoots(const Json::Value& created) {
    const std::string id = created["guest_id"].asString();
    ASSERT_TRUE(created["started"].asBool()) << created["start_error"].asString() << host_->Log();
    EXPECT_TRUE(Await([&] { return host_->Addresses(id).find(kGuestAddress) != std::string::npos; })) << host_->Log();
    EXPECT_EQ(host_->Power(id, "poweroff"), 0);
    EXPECT_TRUE(host_->AwaitOff(id)) << host_->Log();
    EXPECT_EQ(host_->Delete(id), 0);
  }
};

TEST_F(QemuUpload, UploadedImage_BootsFromDriveAndAsDisk) {
  const std::string source = environment_->Image(GuestImage::kWithAgent);
  const Json::Value added = Vexa({"image", "add", "uploaded", source, "--upload"});
  const Json::Value image = Vexa({"image", "list"})[0];
  EXPECT_EQ(image["image_id"], added["image_id"]);
  const std::string path = image["path"].asString();
  EXPECT_EQ(path, host_->options().image_root + "/uploaded.iso");
  EXPECT_EQ(Content(path), Content(source));

  ExpectBoots(
      Vexa({"guest", "create", "from-drive", "--memory", "256MiB", "--net", "none", "--iso", "uploaded", "--start"}));
  EXPECT_EQ(Content(path), Content(source));
  ExpectBoots(Vexa(
      {"guest", "create", "from-disk", "--memory", "256MiB", "--net", "none", "--disk", "from=uploaded", "--start"}));
}

}  // namespace
}  // namespace vexa::test
