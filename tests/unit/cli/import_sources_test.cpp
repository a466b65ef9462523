// The requests that `vexa import` prepares from the files and libvirt of this machine.
#include "cli/import_sources.h"

#include <fstream>

#include "host/hypervisor/handles.h"
#include "json/readers.h"
#include "tests/support/matchers.h"
#include "tests/support/qcow2_image.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/cli/import_arguments.h"

namespace vexa::cli {
namespace {

constexpr char kFirst[] = "11111111-2222-4333-8444-555555555551";
constexpr char kSecond[] = "11111111-2222-4333-8444-555555555552";
constexpr char kTestDomain[] = "6695eb01-f6a4-8304-79aa-97f2502e193f";

std::string Domain(const std::string& extra_xml) {
  return "<domain><name>one</name><uuid>" + std::string(kFirst) + "</uuid><memory unit='MiB'>64</memory>" + extra_xml +
         "</domain>";
}

std::string DiskAt(const std::string& path) {
  return "<devices><disk><source file='" + path + "'/><target dev='vda' bus='virtio'/></disk></devices>";
}

class Sources : public ::testing::Test {
 protected:
  ImportSources Open(const std::vector<std::string>& arguments) {
    return Require(ImportSources::Open(Require(ParseImportArguments(arguments))));
  }
  std::string File(const std::string& name, const std::string& content) const {
    std::ofstream(folder_.File(name)) << content;
    return folder_.File(name);
  }
  // Prepares the only guest.
  Result<Json::Value> Prepare(const std::vector<std::string>& arguments) {
    const ImportSources sources = Open(arguments);
    EXPECT_THAT(sources.guests(), SizeIs(1));
    return sources.Prepare(sources.guests().at(0));
  }
  Result<Json::Value> PrepareXml(const std::string& xml, std::vector<std::string> arguments = {}) {
    arguments.push_back(File("a.xml", xml));
    return Prepare(arguments);
  }

  test::TempDir folder_;
};

TEST_F(Sources, Prepare_Definition_IsSentUnchangedWithTheOptions) {
  const std::string xml = Domain("") + "<!-- mine \xC3\xBC -->";
  const Json::Value request = Require(PrepareXml(xml, {"--repository-id", kFirst, "--host-id", kSecond, "--network",
                                                       std::string("lan=") + kFirst, "--disk-size=vda=20"}));
  EXPECT_EQ(request["xml"], xml);
  EXPECT_EQ(request["repository_id"], kFirst);
  EXPECT_EQ(request["host_id"], kSecond);
  EXPECT_EQ(request["networks"]["lan"], kFirst);
  EXPECT_EQ(VexaVirtualization::json::ToText(request["disk_sizes_mib"]), R"({"vda":20480})");
  for (const char* member : {"guest_id", "autostart", "has_variables", "image_sizes"}) {
    EXPECT_FALSE(request.isMember(member)) << member;
  }
}

TEST_F(Sources, Prepare_ImageOnThisMachine_HasItsSize) {
  const std::string image = File("image", std::string(4096, 'x'));
  const Json::Value request = Require(PrepareXml(Domain(DiskAt(image))));
  EXPECT_EQ(VexaVirtualization::json::ToText(request["image_sizes"]), "{\"" + image + "\":4096}");
}

TEST_F(Sources, Prepare_UnreadableImage_NeedsASize) {
  const auto missing = PrepareXml(Domain(DiskAt("/no/such/image")));
  ASSERT_FALSE(missing.ok());
  EXPECT_THAT(missing.error().ToString(), HasSubstr("The size of the disk 'vda' is unknown. Set it with --disk-size "
                                                    "vda=GiB: Cannot read the image '/no/such/image'"));
  EXPECT_FALSE(Require(PrepareXml(Domain(DiskAt("/no/such/image")), {"--disk-size", "vda=1"})).isMember("image_sizes"));
  // A file that cannot be looked up.
  const std::string long_path = "/" + std::string(300, 'x');
  const Json::Value odd = Require(PrepareXml(Domain(DiskAt(long_path)), {"--disk-size", "vda=1"}));
  EXPECT_EQ(VexaVirtualization::json::ToText(odd["image_sizes"]), R"({")" + long_path + R"(":null})");
}

TEST_F(Sources, Prepare_UnusableImage_IsRefusedWhateverItsSize) {
  test::Qcow2Image image;
  image.backing_file = "/etc/shadow";
  const std::string path = File("image", image.Text());
  const std::string disk = "<devices><disk><driver type='qcow2'/><source file='" + path +
                           "'/><target dev='vda' bus='virtio'/></disk></devices>";
  for (const std::string& devices : {disk, DiskAt("/dev/null")}) {
    const auto refused = PrepareXml(Domain(devices), {"--disk-size", "vda=1"});
    ASSERT_FALSE(refused.ok());
    EXPECT_EQ(refused.error().code(), ErrorCode::kInvalid);
  }
  EXPECT_THAT(PrepareXml(Domain(disk)).error().message(), HasSubstr("has the backing file '/etc/shadow'"));
}

TEST_F(Sources, Prepare_NvramNotCreatedYet_ReportsItMissing) {
  const auto with_variables = [](const std::string& path) { return Domain("<os><nvram>" + path + "</nvram></os>"); };
  EXPECT_EQ(Require(PrepareXml(with_variables(folder_.File("one.fd"))))["has_variables"], false);
  EXPECT_FALSE(Require(PrepareXml(with_variables(File("two.fd", "x")))).isMember("has_variables"));
  // The folder may be on storage that is not mounted.
  EXPECT_FALSE(Require(PrepareXml(with_variables(folder_.File("none/one.fd")))).isMember("has_variables"));
}

TEST_F(Sources, Prepare_UnreadableDefinition_IsAnError) {
  EXPECT_EQ(Prepare({folder_.File("none.xml")}).error().code(), ErrorCode::kNotFound);
  EXPECT_EQ(PrepareXml("x").error().code(), ErrorCode::kInvalid);
  EXPECT_FALSE(ImportSources::Open(Require(ParseImportArguments({"--manifest", folder_.File("none.json")}))).ok());
}

TEST_F(Sources, Prepare_GuestOfManifest_HasItsOptionsAndId) {
  File("a.xml", Domain(DiskAt("/no/such/image")));
  const std::string manifest =
      File("m.json", R"({"host_id": ")" + std::string(kSecond) + R"(", "guests": [{"file": "a.xml", "id": ")" + kFirst +
                         R"(", "disk_sizes_gib": {"vda": 2}}]})");
  const Json::Value request = Require(Prepare({"--manifest", manifest}));
  EXPECT_EQ(request["guest_id"], kFirst);
  EXPECT_EQ(request["host_id"], kSecond);
  EXPECT_EQ(request["disk_sizes_mib"]["vda"].asInt(), 2048);
}

TEST_F(Sources, Prepare_ExampleManifest_Succeeds) {
  const ImportSources sources = Open({"--manifest", std::string(VEXA_SOURCE_DIR) + "/examples/cluster.json"});
  ASSERT_THAT(sources.guests(), SizeIs(3));
  for (const ImportSource& guest : sources.guests()) {
    const auto request = sources.Prepare(guest);
    EXPECT_TRUE(request.ok()) << request.error().ToString();
  }
}

// libvirt's test driver has one default node, which all connections of a process share.
TEST_F(Sources, Prepare_DomainWithAutostart_SendsAutostart) {
  const hypervisor::ConnectHandle connection(virConnectOpen("test:///default"));
  ASSERT_TRUE(connection);
  const hypervisor::DomainHandle domain(virDomainLookupByName(connection.get(), "test"));
  ASSERT_TRUE(domain);
  ASSERT_EQ(virDomainSetAutostart(domain.get(), 1), 0);
  const ImportSources sources = Open({"--all", "test:///default"});
  EXPECT_EQ(virDomainSetAutostart(domain.get(), 0), 0);
  ASSERT_THAT(sources.guests(), SizeIs(1));
  EXPECT_EQ(sources.guests()[0].label, "test");
  const Json::Value request = Require(sources.Prepare(sources.guests()[0]));
  EXPECT_EQ(request["autostart"], true);
  EXPECT_THAT(request["xml"].asString(), HasSubstr(kTestDomain));
  EXPECT_THAT(request["image_sizes"].getMemberNames(), ElementsAre("/guest/diskimage1"));
}

TEST_F(Sources, Prepare_DomainWithVncPassword_SendsThePassword) {
  const hypervisor::ConnectHandle connection(virConnectOpen("test:///default"));
  ASSERT_TRUE(connection);
  const std::string xml =
      "<domain type='test'><name>screen</name><uuid>" + std::string(kFirst) +
      "</uuid><memory unit='MiB'>64</memory><os><type>hvm</type></os><devices><graphics type='vnc' port='5999' "
      "passwd='hush'/></devices></domain>";
  const hypervisor::DomainHandle domain(virDomainDefineXML(connection.get(), xml.c_str()));
  ASSERT_TRUE(domain);
  const ImportSources sources = Open({"--all", "test:///default"});
  EXPECT_EQ(virDomainUndefine(domain.get()), 0);
  ASSERT_THAT(sources.guests(), SizeIs(2));
  EXPECT_THAT(Require(sources.Prepare(sources.guests()[0]))["xml"].asString(), HasSubstr("passwd='hush'"));
}

TEST_F(Sources, Open_UnreachableConnection_IsAnError) {
  const auto sources =
      ImportSources::Open(Require(ParseImportArguments({"--all", "qemu+unix:///system?socket=/no/such/socket"})));
  ASSERT_FALSE(sources.ok());
  EXPECT_EQ(sources.error().code(), ErrorCode::kUnavailable);
}

}  // namespace
}  // namespace vexa::cli
