// A guest that is created from nothing boots on QEMU, and QEMU's and libvirt's own tools see what `vexa` says.
#include <filesystem>
#include <regex>

#include "host/base/json_parse.h"
#include "tests/support/process.h"
#include "tests/support/qemu_host_test.h"
#include "tests/support/require.h"

namespace vexa::test {
namespace {

Json::Value Parsed(const std::string& text) { return Require(ParseJson(text)); }

// What qemu-img says about an image, as JSON.
Json::Value QemuImg(const std::string& command, const std::string& format, const std::string& path) {
  const ProcessResult result = RunProcess({.argv = {"qemu-img", command, "--output=json", "-f", format, path}});
  EXPECT_EQ(result.exit_code, 0) << result.errors;
  return result.exit_code == 0 ? Parsed(result.output) : Json::Value();
}

class QemuCreate : public LibvirtHostTest {
 protected:
  void MakeHost() override {
    LibvirtHostTest::MakeHost();
    host_->Start();
  }
  Json::Value Vexa(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--socket", host_->Socket(), "--json"});
    return Parsed(host_->Vexa(std::move(arguments)));
  }
};

TEST_F(QemuCreate, Created_FromImage_BootsAndAgreesWithTools) {
  // Drives take images from the image folders of the host only.
  const std::string image = host_->DiskFolder() + "/guest.iso";
  std::filesystem::copy_file(environment_->Image(GuestImage::kWithAgent), image);
  const Json::Value created =
      Vexa({"guest", "create", "fresh", "--os", "linux", "--cpus", "2", "--memory", "256MiB", "--disk", "2GiB",
            "--disk", "1GiB,format=raw", "--net", "none", "--iso", image, "--start"});
  const std::string id = created["guest_id"].asString();
  ASSERT_TRUE(created["started"].asBool()) << created["start_error"].asString() << host_->Log();
  ASSERT_TRUE(host_->AwaitState(id, "guest_running")) << host_->State(id);
  EXPECT_TRUE(user_->IsActive(id));
  // Its own system has booted from the image, although the empty disks come first.
  EXPECT_TRUE(Await([&] { return host_->Addresses(id).find(kGuestAddress) != std::string::npos; })) << host_->Log();
  const std::string xml = user_->Xml(id);
  EXPECT_NE(xml.find("<name>fresh</name>"), std::string::npos) << xml;
  EXPECT_TRUE(std::regex_search(xml, std::regex("<vcpu[^>]* current='2'>"))) << xml;
  EXPECT_TRUE(std::regex_search(xml, std::regex("<memory unit='KiB'>262144</memory>"))) << xml;

  EXPECT_EQ(host_->Power(id, "shutdown"), 0);
  EXPECT_TRUE(host_->AwaitOff(id)) << host_->Log();
  const Json::Value got = Vexa({"guest", "get", id});
  ASSERT_EQ(got["vdisks"].size(), 2u);
  const Json::Value disks = host_->Record("guest", id)["vdisks"];
  const std::pair<const char*, std::uint64_t> expected[] = {{"qcow2", 2}, {"raw", 1}};
  for (Json::ArrayIndex i = 0; i < 2; ++i) {
    const auto& [format, gib] = expected[i];
    const std::string path = host_->Record("vdisk", disks[i].asString())["path"].asString();
    EXPECT_NE(xml.find("'" + path + "'"), std::string::npos) << xml;
    EXPECT_EQ(QemuImg("info", format, path)["virtual-size"].asUInt64(), gib << 30);
    EXPECT_EQ(got["vdisks"][i]["size"], std::to_string(gib * 1024));
    if (std::string_view(format) != "qcow2") continue;
    const Json::Value checked = QemuImg("check", format, path);
    EXPECT_EQ(checked["check-errors"].asInt(), 0);
    EXPECT_FALSE(checked.isMember("corruptions"));
    EXPECT_FALSE(checked.isMember("leaks"));
  }
  EXPECT_EQ(host_->Delete(id), 0);
  EXPECT_FALSE(host_->Has(id));
  EXPECT_FALSE(user_->IsKnown(id));
}

}  // namespace
}  // namespace vexa::test
