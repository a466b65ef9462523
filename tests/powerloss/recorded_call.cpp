#include "tests/powerloss/recorded_call.h"

#include <cstring>
#include <fstream>
#include <iterator>

#include "tests/support/check.h"

namespace vexa::powerloss {
namespace {

struct Header {
  CallKind kind;
  bool is_data_sync;
  std::uint32_t object;
  std::uint32_t folder;
  std::uint32_t old_folder;
  std::uint32_t mode;
  std::uint32_t descriptor;
  std::uint32_t name_bytes;
  std::uint32_t old_name_bytes;
  std::uint32_t bytes;
  std::uint64_t offset;
  std::uint64_t begun;
};

}  // namespace

void WriteCall(std::FILE* file, const Call& call) {
  Header header{};
  header.kind = call.kind;
  header.is_data_sync = call.is_data_sync;
  header.object = call.object;
  header.folder = call.folder;
  header.old_folder = call.old_folder;
  header.mode = call.mode;
  header.descriptor = call.descriptor;
  header.name_bytes = static_cast<std::uint32_t>(call.name.size());
  header.old_name_bytes = static_cast<std::uint32_t>(call.old_name.size());
  header.bytes = static_cast<std::uint32_t>(call.bytes.size());
  header.offset = call.offset;
  header.begun = call.begun;
  const std::string texts = call.name + call.old_name + call.bytes;
  const bool written = std::fwrite(&header, sizeof header, 1, file) == 1 &&
                       std::fwrite(texts.data(), 1, texts.size(), file) == texts.size() && std::fflush(file) == 0;
  test::Check(written, "Cannot write the recording");
}

std::vector<Call> ReadCalls(const std::string& path, std::vector<std::uint64_t>* ends) {
  std::ifstream file(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  std::vector<Call> calls;
  for (std::size_t at = 0; at + sizeof(Header) <= text.size();) {
    Header header{};
    std::memcpy(&header, text.data() + at, sizeof header);
    at += sizeof header;
    const auto take = [&](std::size_t bytes) {
      const std::string taken = text.substr(at, bytes);
      at += bytes;
      return taken;
    };
    if (at + header.name_bytes + header.old_name_bytes + header.bytes > text.size()) break;
    Call call;
    call.kind = header.kind;
    call.is_data_sync = header.is_data_sync;
    call.object = header.object;
    call.folder = header.folder;
    call.old_folder = header.old_folder;
    call.mode = header.mode;
    call.descriptor = header.descriptor;
    call.offset = header.offset;
    call.begun = header.begun;
    call.name = take(header.name_bytes);
    call.old_name = take(header.old_name_bytes);
    call.bytes = take(header.bytes);
    calls.push_back(std::move(call));
    if (ends != nullptr) ends->push_back(at);
  }
  return calls;
}

}  // namespace vexa::powerloss
