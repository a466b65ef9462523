// Keys of the store: every string has exactly one segment, which no other string has.
#include <string>

#include "fuzz/check.h"
#include "host/store/key.h"

namespace {

using vexa::fuzz::Check;
using namespace vexa::store;

void CheckSegment(std::string_view text) {
  const std::string segment = EncodeSegment(text);
  Check(!segment.empty() && segment != "." && segment != "..", "a segment is not a relative path");
  for (const char c : segment) {
    Check(c > 0x20 && c < 0x7f && c != '/' && c != '\\', "a segment is visible text without a slash");
  }
  const auto decoded = DecodeSegment(segment);
  Check(decoded && *decoded == text, "a segment is decoded to its text");
  if (const auto other = DecodeSegment(text)) Check(EncodeSegment(*other) == text, "a text has one segment");
}

void CheckKey(std::string_view left, std::string_view right) {
  const std::string above = MakeKey({left});
  const std::string key = MakeKey({left, right});
  Check(IsValidKey(key) == (key.size() <= kMaxKeyBytes), "MakeKey returns a key unless it is too long");
  Check(IsAtOrBelow(key, above) && !IsAtOrBelow(above, key), "a key lies below the one above it");
  Check(key == above + MakeKey({right}), "a key consists of its segments");
  if (left != right) {
    Check(!IsAtOrBelow(MakeKey({left, "x"}), MakeKey({right})), "no key lies below another segment");
  }
}

void CheckArbitraryKey(std::string_view key) {
  if (!IsValidKey(key)) return;
  Check(key.size() <= kMaxKeyBytes && key.front() == '/' && key.back() != '/', "a key is a path");
  std::string rebuilt;
  std::string_view rest = key.substr(1);
  while (!rest.empty()) {
    const auto segment = DecodeSegment(vexa::fuzz::TakeUntil(rest, "/"));
    Check(segment.has_value(), "a key's segments can be decoded");
    rebuilt += MakeKey({*segment});
  }
  Check(rebuilt == key, "MakeKey returns the same key for its segments");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = vexa::fuzz::Text(data, size);
  CheckSegment(text);
  CheckKey(text.substr(0, size / 2), text.substr(size / 2));
  CheckArbitraryKey(text);
  return 0;
}
