// Disks of new guests that are copies of existing images: what is copied, what is refused, and how a copy ends early.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "host/disks/source_image.h"
#include "tests/support/process.h"
#include "tests/support/qcow2_image.h"
#include "tests/unit/guests/guest_creation_fixture.h"

namespace vexa::test {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using disks::SourceFormat;
using testing::HasSubstr;

constexpr char kQemuImg[] = "/usr/bin/qemu-img";
constexpr std::size_t kMib = std::size_t{1} << 20;

std::string LittleEndian(std::uint64_t number, std::size_t bytes) {
  std::string text;
  for (std::size_t i = 0; i < bytes; ++i) text += static_cast<char>(number >> (8 * i) & 0xFF);
  return text;
}

// A VMDK image of 4 MiB with `text` as its descriptor.
std::string Vmdk(const std::string& text, std::uint64_t sectors = 8192) {
  std::string bytes =
      "KDMV" + LittleEndian(1, 4) + LittleEndian(3, 4) + LittleEndian(sectors, 8) + LittleEndian(128, 8);
  bytes += LittleEndian(1, 8) + LittleEndian(20, 8);
  bytes.resize(512);
  bytes += text;
  bytes.resize(64 << 10);
  return bytes;
}

std::string Vdi(std::uint32_t type, bool has_parent = false, std::uint32_t version = 0x10001) {
  std::string bytes(0x40, ' ');
  bytes += "\x7f\x10\xda\xbe" + LittleEndian(version, 4) + LittleEndian(400, 4) + LittleEndian(type, 4);
  bytes.resize(0x170);
  bytes += LittleEndian(4 * kMib, 8);
  bytes.resize(0x1a8);
  if (has_parent) bytes += "parent";
  bytes.resize(1024);
  return bytes;
}

class CopyTest : public CreationTest {
 protected:
  void SetUp() override {
    if (::access(kQemuImg, X_OK) != 0) GTEST_SKIP() << "qemu-img is not installed";
    content_.resize(3 * kMib);
    for (std::size_t i = 0; i < content_.size(); ++i) content_[i] = static_cast<char>(i * 7 + i / 4096);
    Write("source.raw", content_);
  }
  std::string Path(const std::string& name) const { return environment_.File("images/" + name); }
  std::string Write(const std::string& name, const std::string& bytes) const {
    std::ofstream(Path(name), std::ios::binary) << bytes;
    return Path(name);
  }
  // The same content in another format.
  std::string Convert(const std::string& format, const std::string& options = "") const {
    const std::string path = Path("source." + format);
    std::vector<std::string> words{kQemuImg, "convert", "-f", "raw", "-O", format};
    if (!options.empty()) words.insert(words.end(), {"-o", options});
    words.insert(words.end(), {Path("source.raw"), path});
    const ProcessResult made = RunProcess({.argv = words});
    EXPECT_EQ(made.exit_code, 0) << made.errors;
    return path;
  }
  // What a guest sees of the image.
  std::string Seen(const std::string& format, const std::string& path) const {
    const std::string raw = environment_.File("seen.raw");
    const ProcessResult made = RunProcess({.argv = {kQemuImg, "convert", "-f", format, "-O", "raw", path, raw}});
    EXPECT_EQ(made.exit_code, 0) << made.errors;
    std::ifstream in(raw, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  static std::string From(const std::string& path, const std::string& more = "") {
    return R"(,"vdisks_add":[{"from":")" + path + "\"" + more + "}]";
  }
  Json::Value Disk() const { return RecordOf(*store_, "vdisk", Guest()["vdisks"][0].asString()); }
  // Runs `script` instead of qemu-img.
  void CopyWith(const std::string& script) {
    const std::string program = environment_.File("program");
    std::ofstream(program) << "#!/bin/sh\n" << script;
    fs::permissions(program, fs::perms::owner_all);
    options_.copy.program = program;
  }
  void ExpectNotCopied(const std::string& path, const std::string& words) {
    SCOPED_TRACE(path);
    const auto created = Create(Named("x", From(path)));
    ASSERT_FALSE(created.ok());
    EXPECT_EQ(created.error().code, 932);
    EXPECT_THAT(created.error().reason, HasSubstr(words));
    ExpectUnchanged();
  }

  std::string content_;
};

TEST_F(CopyTest, Copy_EachFormat_HasTheContent) {
  const std::string sources[] = {Path("source.raw"), Convert("qcow2"), Convert("vmdk"), Convert("vdi")};
  for (const std::string& source : sources) {
    for (const std::string format : {"qcow2", "raw"}) {
      SCOPED_TRACE(source + " to " + format);
      ExpectDone(Named("copy", From(source, R"(,"format":")" + format + "\"")));
      const Json::Value disk = Disk();
      EXPECT_EQ(disk["size"], 3);
      EXPECT_EQ(Seen(format, disk["path"].asString()), content_);
      EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kCreated, "progress")));
      fs::remove(disk["path"].asString());
      for (const auto& [key, text] : Everything(*store_)) {
        if (!records_.contains(key)) RemoveKey(*store_, key);
      }
    }
  }
}

TEST_F(CopyTest, Copy_StreamOptimizedVmdk_HasTheContent) {
  ExpectDone(Named("copy", From(Convert("vmdk", "subformat=streamOptimized"))));
  EXPECT_EQ(Seen("qcow2", Disk()["path"].asString()), content_);
}

TEST_F(CopyTest, Copy_LargerSize_KeepsContentAtTheBeginning) {
  ExpectDone(Named("copy", From(Path("source.raw"), R"(,"vdisk_size":5)")));
  EXPECT_EQ(Disk()["size"], 5);
  std::string expected = content_;
  expected.resize(5 * kMib);
  EXPECT_EQ(Seen("qcow2", Disk()["path"].asString()), expected);
}

TEST_F(CopyTest, Copy_SmallerSizeOrNoPath_IsRefused) {
  ExpectRefused(Named("x", From(Path("source.raw"), R"(,"vdisk_size":2)")), kBadEdit,
                "The parameter 'vdisks_add[0].vdisk_size' is less than the 3 MiB of the image");
  ExpectRefused(Named("x", R"(,"vdisks_add":[{"from":7}])"), kBadEdit, "'vdisks_add[0].from' is not an absolute path");
  ExpectRefused(Named("x", From("relative.raw")), kBadEdit, "'vdisks_add[0].from' is not an absolute path");
  ExpectUnchanged();
}

TEST_F(CopyTest, Copy_ImageNamesOtherFiles_IsRefused) {
  Qcow2Image backed;
  backed.backing_file = "/etc/passwd";
  ExpectNotCopied(Write("backed.qcow2", backed.Text()), "backing file");
  Qcow2Image with_data;
  with_data.features = 4;
  with_data.data_file = "/etc/passwd";
  ExpectNotCopied(Write("data.qcow2", with_data.Text()), "/etc/passwd");
  ExpectNotCopied(Write("text.vmdk", "# Disk DescriptorFile\nRW 1 FLAT \"/etc/passwd\" 0\n"),
                  "it is a VMDK descriptor, which names other files");
  ExpectNotCopied(Convert("vmdk", "subformat=monolithicFlat"), "it is a VMDK descriptor, which names other files");
  constexpr char kSparse[] = "createType=\"monolithicSparse\"\n";
  ExpectNotCopied(Write("hint.vmdk", Vmdk(std::string(kSparse) + "parentCID=ffffffff\nparentFileNameHint=\"/p\"\n")),
                  "it needs another image, its parent");
  ExpectNotCopied(Write("parent.vmdk", Vmdk(std::string(kSparse) + "PARENTCID=12345678\n")),
                  "it needs another image, its parent");
  ExpectNotCopied(Write("several.vmdk", Vmdk("createType=\"twoGbMaxExtentSparse\"\nparentCID=ffffffff\n")),
                  "it consists of several files");
  ExpectNotCopied(Write("typeless.vmdk", Vmdk("parentCID=ffffffff\n")), "it has no type");
  // Without a capacity, QEMU would open the files that the text names.
  ExpectNotCopied(Write("empty.vmdk", Vmdk(kSparse, 0)), "its header is damaged");
  ExpectNotCopied(Write("short.vmdk", "KDMV"), "its header is damaged");
  ExpectNotCopied(Write("diff.vdi", Vdi(4)), "it needs another image, its parent");
  ExpectNotCopied(Write("parent.vdi", Vdi(1, true)), "it needs another image, its parent");
  ExpectNotCopied(Write("version.vdi", Vdi(1, false, 7)), "its header is damaged or of an unknown version");
}

TEST_F(CopyTest, Copy_UnknownFormat_IsRefusedInsteadOfTakenForRaw) {
  for (const auto& [begin, words] : {std::pair<std::string, std::string>{"COWD", "a VMDK image of an old kind"},
                                     {"vhdxfile", "a VHDX image"},
                                     {"conectix", "a VHD image"},
                                     {std::string("QED\0", 4), "a QED image"},
                                     {"WithoutFreeSpace", "a Parallels image"},
                                     {"WithouFreSpacExt", "a Parallels image"}}) {
    std::string bytes = begin;
    bytes.resize(kMib);
    ExpectNotCopied(Write("unknown", bytes), "it is " + words + "; use raw, qcow2, vmdk or vdi");
  }
  ExpectNotCopied(Write("odd", "some text"), "its length is not that of a raw image");
  ExpectNotCopied(Write("empty", ""), "its length is not that of a raw image");
}

TEST_F(CopyTest, Copy_PathElsewhere_IsRefused) {
  ExpectNotCopied("/etc/passwd", "it is outside the image folders");
  ExpectNotCopied(Path("../outside.raw"), "it is outside the image folders");
  ExpectNotCopied(Path("missing.raw"), "there is no such file");
  fs::create_symlink(Path("source.raw"), Path("link.raw"));
  ExpectNotCopied(Path("link.raw"), "it is a symbolic link, or in a folder that is one");
  fs::create_directory_symlink(environment_.File("images"), Path("link"));
  ExpectNotCopied(Path("link/source.raw"), "it is a symbolic link, or in a folder that is one");
  ASSERT_EQ(::mkfifo(Path("pipe").c_str(), 0600), 0);
  ExpectNotCopied(Path("pipe"), "it is not a regular file");
  ExpectNotCopied(environment_.Folder(), "it is not a regular file");
}

TEST_F(CopyTest, Copy_ProgramFails_IsUndoneWithItsSentence) {
  for (const auto& [script, words] :
       {std::pair<std::string, std::string>{"echo 'qemu-img: error while writing: No space left on device' >&2; exit 1",
                                            "qemu-img: error while writing: No space left on device"},
        {"kill -9 $$", "the copying program was ended by the signal 9"},
        {"exit 127", "could not be run"}}) {
    CopyWith(script);
    ExpectRefused(Named("x", From(Path("source.raw"))), 901, words);
    ExpectUnchanged();
  }
  options_.copy.program = "/nonexistent";
  ExpectRefused(Named("x", From(Path("source.raw"))), 901, "the program '/nonexistent' could not be run");
  CopyWith("printf 'no image' | dd of=/proc/self/fd/4 conv=notrunc 2>/dev/null");
  ExpectRefused(Named("x", From(Path("source.raw"))), 901, "not a qcow2 image");
  ExpectUnchanged();
}

// On a real file system that is full.
TEST_F(CopyTest, Copy_DiskIsFull_IsUndone) {
  const std::string folder = environment_.Folder();
  if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=1m") != 0) GTEST_SKIP() << "needs the right to mount";
  Remember();
  for (const std::string format : {"qcow2", "raw"}) {
    ExpectRefused(Named("x", From(Path("source.raw"), R"(,"format":")" + format + "\"")), 901,
                  "No space left on device");
    ExpectUnchanged();
  }
  EXPECT_EQ(::umount(folder.c_str()), 0);
}

TEST_F(CopyTest, Copy_WithoutProgress_IsEnded) {
  CopyWith("echo '    (12.00/100%)'; exec sleep 600");
  options_.copy.stall_timeout = 300ms;
  ExpectRefused(Named("x", From(Path("source.raw"))), 949, "there was no progress for 0 s");
  ExpectUnchanged();
}

TEST_F(CopyTest, Copy_HostStops_IsEnded) {
  CopyWith("exec sleep 600");
  const auto begin = std::chrono::steady_clock::now();
  options_.is_stopping = [&] { return std::chrono::steady_clock::now() - begin > 300ms; };
  ExpectRefused(Named("x", From(Path("source.raw"))), 949, "the host is stopping");
  ExpectUnchanged();
}

TEST_F(CopyTest, Copy_InProgress_ShowsProgress) {
  // The second of two copies is at its half.
  const std::string seen_first = environment_.File("first");
  const std::string go_on = environment_.File("go");
  CopyWith("echo '    (50.00/100%)'; if [ ! -e " + seen_first + " ]; then : > " + seen_first +
           "; exit 0; fi; while [ ! -e " + go_on + " ]; do sleep 0.01; done");
  std::optional<std::string> seen;
  std::thread creator([&] {
    const auto created = Create(Named("x", R"(,"vdisks_add":[{"format":"raw","from":")" + Path("source.raw") +
                                               R"("},{"format":"raw","from":")" + Path("source.raw") + "\"}]"));
    EXPECT_TRUE(created.ok()) << created.error().reason;
  });
  const auto end = std::chrono::steady_clock::now() + 30s;
  while (seen != "75" && std::chrono::steady_clock::now() < end) {
    seen = TextOf(*store_, KeyOf("guest", kCreated, "progress"));
    std::this_thread::sleep_for(5ms);
  }
  std::ofstream{go_on};
  creator.join();
  EXPECT_EQ(seen, "75");
  EXPECT_FALSE(TextOf(*store_, KeyOf("guest", kCreated, "progress")));
}

// It has no files of the host but the two images.
TEST_F(CopyTest, Copy_Program_GetsOnlyTheImages) {
  const std::string list = environment_.File("list");
  CopyWith("ls /proc/self/fd > " + list + "; echo \"$@\" >> " + list);
  ExpectDone(Named("x", From(Path("source.raw"), R"(,"format":"raw")")));
  std::ifstream in(list);
  const std::string text(std::istreambuf_iterator<char>(in), {});
  EXPECT_THAT(text, HasSubstr("convert -p -n --target-is-zero -f raw -O raw /proc/self/fd/3 /proc/self/fd/4"));
  // The sixth is the folder that ls reads.
  EXPECT_THAT(text, testing::StartsWith("0\n1\n2\n3\n4\n5\nconvert "));
}

// Otherwise it would go on writing to a file that the next start removes.
TEST_F(CopyTest, Copy_HostKilled_EndsTheProgram) {
  const std::string pid_file = environment_.File("pid");
  CopyWith("echo $$ > " + pid_file + "; exec sleep 600");
  const pid_t host = ::fork();
  if (host == 0) {
    const auto source = disks::OpenSourceImage({environment_.File("images")}, Path("source.raw"));
    const int target = ::open(Path("target").c_str(), O_RDWR | O_CREAT, 0600);
    if (source) (void)disks::CopyImage(*source, target, domain_xml::ImageFormat::kRaw, options_.copy);
    ::_exit(0);
  }
  const auto wait_for = [](const std::function<bool()>& holds) {
    const auto end = std::chrono::steady_clock::now() + 30s;
    while (!holds() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(10ms);
    return holds();
  };
  pid_t program = 0;
  EXPECT_TRUE(wait_for([&] { return (std::ifstream(pid_file) >> program) && program > 0; }));
  ::kill(host, SIGKILL);
  EXPECT_EQ(::waitpid(host, nullptr, 0), host);
  ASSERT_GT(program, 0);
  EXPECT_TRUE(wait_for([&] {
    std::ifstream stat("/proc/" + std::to_string(program) + "/stat");
    std::string text;
    return !std::getline(stat, text) || text.find(") Z ") != std::string::npos;
  }));
}

}  // namespace
}  // namespace vexa::test
