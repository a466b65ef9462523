// The examples, record by record. VEXA_UPDATE_GOLDEN=1 in the environment writes the golden files again; read the
// difference before committing it.
#include <json/writer.h>

#include <cstdlib>
#include <map>

#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "tests/unit/domain_xml/domain_xml_fixture.h"

namespace vexa::domain_xml {
namespace {

const std::string kSource = VEXA_SOURCE_DIR;

std::string Print(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

struct ExampleFile {
  const char* name;
  std::map<std::string, std::uint64_t> disk_sizes_mib;
};

void PrintTo(const ExampleFile& example, std::ostream* out) { *out << example.name; }

class Example : public ::testing::TestWithParam<ExampleFile> {};

TEST_P(Example, Import_Example_MatchesGoldenRecords) {
  const std::string name = GetParam().name;
  const Result<std::string> xml = ReadFile(kSource + "/examples/" + name + ".xml", kMaxDomainXmlBytes);
  ASSERT_TRUE(xml.ok()) << xml.error().ToString();
  ImportOptions options;
  options.repository_id = "3f1c7a52-6b0e-4d8f-9a43-5e2d81c0b7f6";
  options.host_id = "8d24e9b0-17f5-4c6a-b3de-0f9a6c5271e8";
  options.disk_sizes_mib = GetParam().disk_sizes_mib;
  const std::string actual = Print(ToJson(MustParse(*xml, options)));

  const std::string path = kSource + "/tests/unit/domain_xml/golden/" + name + ".json";
  if (std::getenv("VEXA_UPDATE_GOLDEN") != nullptr) {
    ASSERT_TRUE(WriteFileAtomically(path, actual, 0644).ok());
  }
  const Result<std::string> text = ReadFile(path, 1 << 20);
  ASSERT_TRUE(text.ok()) << text.error().ToString();
  const Result<Json::Value> golden = ParseJson(*text);
  ASSERT_TRUE(golden.ok()) << golden.error().ToString();
  // Both in the same layout: a failure shows the lines that differ.
  EXPECT_EQ(actual, Print(*golden));
}

const ExampleFile kExamples[] = {
    {"web-1", {{"vda", 20 * 1024}}},
    {"desktop-7", {{"sda", 64 * 1024}, {"sdb", 500 * 1024}}},
    {"gateway", {{"hda", 8 * 1024}}},
};

INSTANTIATE_TEST_SUITE_P(Files, Example, ::testing::ValuesIn(kExamples), [](const auto& parameter) {
  std::string name = parameter.param.name;
  for (char& c : name) c = c == '-' ? '_' : c;
  return name;
});

}  // namespace
}  // namespace vexa::domain_xml
