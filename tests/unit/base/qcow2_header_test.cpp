#include "host/base/qcow2_header.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include "host/base/descriptor.h"
#include "tests/support/qcow2_image.h"
#include "tests/support/temp_dir.h"

namespace vexa {
namespace {

using test::Qcow2Image;
using testing::HasSubstr;

constexpr std::uint32_t kFeatureNames = 0x6803f857;

bool StandsAlone(const Qcow2Header& header) {
  return !header.backing_file && !header.data_file && !header.is_encrypted && header.unknown_features == 0;
}

// The clause of the refusal; "" when the header is accepted.
std::string RefusalOf(const std::string& begin) {
  const auto header = ParseQcow2Header(begin);
  if (header) return "";
  EXPECT_EQ(header.error().code(), ErrorCode::kInvalid);
  return header.error().message();
}

TEST(Qcow2HeaderOf, Parse_PlainImage_StandsAlone) {
  for (const std::uint32_t version : {2U, 3U}) {
    Qcow2Image image;
    image.version = version;
    image.extensions = Qcow2Image::Extension(kFeatureNames, std::string(100, 'n'));
    for (const std::string& text : {image.Text(), image.Header()}) {
      const auto header = ParseQcow2Header(text);
      ASSERT_TRUE(header) << version << ": " << header.error().message();
      EXPECT_EQ(header->version, version);
      EXPECT_EQ(header->size, std::uint64_t{20} << 30);
      EXPECT_TRUE(StandsAlone(*header)) << version;
    }
  }
}

TEST(Qcow2HeaderOf, Parse_KnownFeatures_StandAlone) {
  // Not closed properly, damaged, another compression, extended entries: QEMU decides about those.
  for (const unsigned bit : {0U, 1U, 3U, 4U}) {
    Qcow2Image image;
    image.features = std::uint64_t{1} << bit;
    const auto header = ParseQcow2Header(image.Text());
    ASSERT_TRUE(header);
    EXPECT_TRUE(StandsAlone(*header)) << bit;
  }
}

TEST(Qcow2HeaderOf, Parse_BackingFile_IsReported) {
  for (const std::uint32_t version : {2U, 3U}) {
    Qcow2Image image;
    image.version = version;
    image.backing_file = "/etc/shadow";
    EXPECT_EQ(ParseQcow2Header(image.Text())->backing_file, "/etc/shadow");
    // The name is where the header says, even behind the part that is read.
    image.cluster_bits = 21;
    image.backing_offset = std::uint64_t{1} << 20;
    EXPECT_EQ(ParseQcow2Header(image.Text())->backing_file, "");
  }
  Qcow2Image unnamed;
  unnamed.backing_offset = 200;
  EXPECT_EQ(ParseQcow2Header(unnamed.Text())->backing_file, "");
}

TEST(Qcow2HeaderOf, Parse_DataFile_IsReportedByFeatureOrName) {
  Qcow2Image image;
  image.data_file = "/srv/other.raw";
  EXPECT_EQ(ParseQcow2Header(image.Text())->data_file, "/srv/other.raw");
  image.features = 1U << 2;
  EXPECT_EQ(ParseQcow2Header(image.Text())->data_file, "/srv/other.raw");
  image.extensions = Qcow2Image::Extension(kFeatureNames, std::string(101, 'n'));
  EXPECT_EQ(ParseQcow2Header(image.Text())->data_file, "/srv/other.raw");
  image.data_file.reset();
  EXPECT_EQ(ParseQcow2Header(image.Text())->data_file, "");
  image = {};
  image.version = 2;
  image.data_file = "/srv/other.raw";
  EXPECT_EQ(ParseQcow2Header(image.Text())->data_file, "/srv/other.raw");
}

TEST(Qcow2HeaderOf, Parse_EncryptionAndUnknownFeatures_AreReported) {
  for (const std::uint32_t method : {1U, 2U, 0xffffffffU}) {
    Qcow2Image image;
    image.encryption = method;
    EXPECT_TRUE(ParseQcow2Header(image.Text())->is_encrypted) << method;
  }
  for (unsigned bit = 5; bit < 64; ++bit) {
    Qcow2Image image;
    image.features = std::uint64_t{1} << bit;
    EXPECT_EQ(ParseQcow2Header(image.Text())->unknown_features, image.features);
  }
}

TEST(Qcow2HeaderOf, Parse_FieldOutOfRange_IsRefused) {
  struct Row {
    const char* what;
    std::function<void(Qcow2Image& image)> change;
    const char* clause;
  };
  const Row rows[] = {
      {"magic", [](Qcow2Image& image) { image.magic = "QFI\xfa"; }, "it is not a qcow2 image"},
      {"version 1", [](Qcow2Image& image) { image.version = 1; }, "it is a qcow2 image of the unknown version 1"},
      {"version 4", [](Qcow2Image& image) { image.version = 4; }, "it is a qcow2 image of the unknown version 4"},
      {"huge version", [](Qcow2Image& image) { image.version = 0xffffffff; }, "unknown version 4294967295"},
      {"no clusters", [](Qcow2Image& image) { image.cluster_bits = 0; }, "the size of its clusters is unknown"},
      {"small clusters", [](Qcow2Image& image) { image.cluster_bits = 8; }, "the size of its clusters is unknown"},
      {"large clusters", [](Qcow2Image& image) { image.cluster_bits = 22; }, "the size of its clusters is unknown"},
      {"endless clusters", [](Qcow2Image& image) { image.cluster_bits = 0xffffffff; }, "the size of its clusters"},
      {"short header", [](Qcow2Image& image) { image.header_length = 103; }, "the length of its header is wrong"},
      {"no header", [](Qcow2Image& image) { image.header_length = 0; }, "the length of its header is wrong"},
      {"long header", [](Qcow2Image& image) { image.header_length = 0x10001; }, "the length of its header is wrong"},
      {"huge header", [](Qcow2Image& image) { image.header_length = 0xffffffff; }, "the length of its header is wrong"},
      {"backing name far away", [](Qcow2Image& image) { image.backing_offset = UINT64_MAX; },
       "the name of its backing file is not in its header"},
      {"long backing name",
       [](Qcow2Image& image) {
         image.backing_offset = 200;
         image.backing_file = std::string(1024, 'n');
       },
       "the name of its backing file is not in its header"},
      {"backing name across the end",
       [](Qcow2Image& image) {
         image.backing_offset = 0xfffe;
         image.backing_file = "abc";
       },
       "the name of its backing file is not in its header"},
      {"huge extension",
       [](Qcow2Image& image) { image.extensions = Qcow2Image::Number(kFeatureNames, 4) + "\xff\xff\xff\xff"; },
       "an extension of its header is too long"},
      {"extension across the end",
       [](Qcow2Image& image) {
         image.extensions = Qcow2Image::Number(kFeatureNames, 4) + Qcow2Image::Number(0x10000 - 104 - 7, 4);
       },
       "an extension of its header is too long"},
  };
  for (const Row& row : rows) {
    Qcow2Image image;
    row.change(image);
    EXPECT_THAT(RefusalOf(image.Text()), HasSubstr(row.clause)) << row.what;
  }
}

// An image cannot hide what it names behind what is read.
TEST(Qcow2HeaderOf, Parse_ExtensionsLongerThanRead_AreRefused) {
  Qcow2Image image;
  image.cluster_bits = 21;
  const std::string filler = Qcow2Image::Extension(kFeatureNames, std::string(1016, 'n'));
  for (int i = 0; i < 64; ++i) image.extensions += filler;
  image.data_file = "/srv/other.raw";
  EXPECT_EQ(RefusalOf(image.Text().substr(0, kMaxQcow2HeaderBytes)), "its header is too long");
  image.extensions = Qcow2Image::Extension(kFeatureNames, std::string(kMaxQcow2HeaderBytes, 'n'));
  EXPECT_EQ(RefusalOf(image.Text().substr(0, kMaxQcow2HeaderBytes)), "its header is too long");
}

// Nothing that is cut off makes an image stand alone.
TEST(Qcow2HeaderOf, Parse_CutAtAnyByte_NeverStandsAlone) {
  Qcow2Image with_data;
  with_data.features = 1U << 2;
  with_data.data_file = "/srv/other.raw";
  Qcow2Image with_backing;
  with_backing.backing_file = "/etc/shadow";
  Qcow2Image old = with_backing;
  old.version = 2;
  for (const Qcow2Image& image : {with_data, with_backing, old}) {
    const std::string text = image.Header();
    for (std::size_t length = 0; length < text.size(); ++length) {
      const auto header = ParseQcow2Header(text.substr(0, length));
      EXPECT_TRUE(!header || !StandsAlone(*header)) << length;
    }
  }
}

class Qcow2File : public testing::Test {
 protected:
  Result<Qcow2Header> Read(const std::string& text) {
    const std::string path = folder_.File("image");
    std::ofstream(path, std::ios::binary) << text;
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return ReadStandaloneQcow2(file.get(), "/images/a\n");
  }
  std::string RefusalOf(const Qcow2Image& image) {
    const auto header = Read(image.Text());
    if (header) return "";
    EXPECT_EQ(header.error().code(), ErrorCode::kInvalid);
    return header.error().message();
  }
  test::TempDir folder_;
};

TEST_F(Qcow2File, Read_StandaloneImage_Succeeds) {
  const auto header = Read(Qcow2Image().Text());
  ASSERT_TRUE(header) << header.error().ToString();
  EXPECT_EQ(header->size, std::uint64_t{20} << 30);
}

TEST_F(Qcow2File, Read_ImageNeedsMore_IsRefusedWithWayOut) {
  Qcow2Image image;
  image.backing_file = "/etc/\x1bshadow";
  EXPECT_EQ(
      RefusalOf(image),
      "The image '/images/a ' has the backing file '/etc/ shadow', which QEMU would open as well. Merge both into "
      "one image with 'qemu-img convert -O qcow2 OLD NEW'");
  image = {};
  image.data_file = "/srv/other.raw";
  EXPECT_EQ(
      RefusalOf(image),
      "The image '/images/a ' has its data in another file, '/srv/other.raw', which QEMU would open as well. Merge "
      "both into one image with 'qemu-img convert -O qcow2 OLD NEW'");
  image = {};
  image.encryption = 2;
  EXPECT_EQ(RefusalOf(image),
            "The image '/images/a ' is encrypted, which is not supported. Decrypt it with 'qemu-img convert'");
  image = {};
  image.features = 0x60;
  EXPECT_EQ(RefusalOf(image),
            "The image '/images/a ' has unknown features (bits 0x60). Convert it with 'qemu-img convert -O qcow2 OLD "
            "NEW'");
  image = {};
  image.version = 7;
  EXPECT_EQ(RefusalOf(image), "The image '/images/a ' cannot be used: it is a qcow2 image of the unknown version 7");
}

TEST_F(Qcow2File, Read_EmptyOrUnreadableFile_IsRefused) {
  EXPECT_EQ(Read("").error().message(), "The image '/images/a ' cannot be used: it is not a qcow2 image");
  const Descriptor folder(::open(folder_.path().c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(ReadStandaloneQcow2(folder.get(), "/images/a").error().code(), ErrorCode::kInternal);
}

}  // namespace
}  // namespace vexa
