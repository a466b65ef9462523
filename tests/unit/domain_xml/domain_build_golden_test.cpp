// The examples: imported, built, and imported again. VEXA_UPDATE_GOLDEN=1 in the environment writes the golden files
// again; read the difference before committing it.
#include <json/writer.h>

#include <cstdlib>

#include "host/base/files.h"
#include "host/hypervisor/event_loop.h"
#include "host/hypervisor/handles.h"
#include "tests/unit/domain_xml/domain_build_fixture.h"
#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {
namespace {

const std::string kSource = VEXA_SOURCE_DIR;

GuestRecords RecordsOf(const ImportedGuest& imported) {
  return {imported.id, imported.guest, imported.disks, imported.nics};
}

ImportedGuest ImportExample(const std::string& name) {
  const Result<std::string> xml = ReadFile(kSource + "/examples/" + name + ".xml", kMaxDomainXmlBytes);
  EXPECT_TRUE(xml.ok());
  return xml.ok() ? MustParse(*xml) : ImportedGuest{};
}

// Two networks of libvirt's own, so that both kinds of sources are built.
BuildOptions ExampleOptions(const std::string& domain_type) {
  BuildOptions options;
  options.domain_type = domain_type;
  options.pinned_cpus = {4, 5, 6, 7};
  options.libvirt_networks = {"default", "dmz"};
  return options;
}

std::string Print(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  return Json::writeString(builder, value);
}

// Whether libvirt's own schema of domain XML takes it. The test driver's parser is the one of all drivers.
std::string SchemaComplaint(const std::string& xml) {
  EXPECT_TRUE(hypervisor::StartEventLoop().ok());
  const hypervisor::ConnectHandle connection(virConnectOpen("test:///default"));
  if (!connection) return "no connection";
  const hypervisor::DomainHandle domain(
      virDomainDefineXMLFlags(connection.get(), xml.c_str(), VIR_DOMAIN_DEFINE_VALIDATE));
  return domain ? "" : virGetLastErrorMessage();
}

class BuiltExample : public ::testing::TestWithParam<const char*> {};

TEST_P(BuiltExample, Build_Example_MatchesGoldenXml) {
  const std::string name = GetParam();
  const std::string actual = MustBuild(RecordsOf(ImportExample(name)), ExampleOptions("kvm"));
  const std::string path = kSource + "/tests/unit/domain_xml/golden/" + name + "-built.xml";
  if (std::getenv("VEXA_UPDATE_GOLDEN") != nullptr) {
    ASSERT_TRUE(WriteFileAtomically(path, actual, 0644).ok());
  }
  const Result<std::string> golden = ReadFile(path, kMaxDomainXmlBytes);
  ASSERT_TRUE(golden.ok()) << golden.error().ToString();
  EXPECT_EQ(actual, *golden);
}

TEST_P(BuiltExample, Import_BuiltXml_ReturnsSameRecords) {
  const ImportedGuest first = ImportExample(GetParam());
  const ImportedGuest second = MustParse(MustBuild(RecordsOf(first), ExampleOptions("kvm")));
  Json::Value expected = ToJson(first);
  Json::Value actual = ToJson(second);
  // Notes and elements report what else the first XML had; a guest without a card gets the default one.
  for (Json::Value* records : {&expected, &actual}) {
    records->removeMember("notes");
    records->removeMember("elements");
  }
  if (!expected["guest"].isMember("video_card")) expected["guest"]["video_card"] = "cirrus";
  // Which device of the host an interface gets is nothing that its record says.
  for (Json::Value& nic : expected["nics"]) nic["object"]["prefer_sriov"] = false;
  EXPECT_EQ(Print(expected), Print(actual));
}

TEST_P(BuiltExample, Build_EveryDomainType_MatchesLibvirtSchema) {
  for (const char* type : {"kvm", "qemu", "test"}) {
    GuestRecords records = RecordsOf(ImportExample(GetParam()));
    records.guest["nvram"] = "/vars/guest.fd";
    BuildOptions options = ExampleOptions(type);
    options.host_id = "99999999-2222-4333-8444-555555555555";
    const std::string xml = MustBuild(records, options);
    EXPECT_EQ(SchemaComplaint(xml), "") << xml;
  }
}

INSTANTIATE_TEST_SUITE_P(Files, BuiltExample, ::testing::Values("web-1", "desktop-7", "gateway"), [](const auto& row) {
  std::string name = row.param;
  for (char& c : name) c = c == '-' ? '_' : c;
  return name;
});

}  // namespace
}  // namespace vexa::domain_xml
