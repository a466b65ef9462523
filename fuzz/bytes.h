// Values built from the fuzzer's bytes, for inputs whose form would otherwise refuse most of the fuzzer's changes.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"

namespace vexa::fuzz {

class Bytes {
 public:
  explicit Bytes(std::string_view rest) : rest_(rest) {}

  bool IsAtEnd() const { return rest_.empty(); }

  // 0 to `count` - 1; 0 at the end of the bytes.
  std::size_t Take(std::size_t count) {
    if (rest_.empty()) return 0;
    const auto byte = static_cast<unsigned char>(rest_.front());
    rest_.remove_prefix(1);
    return byte % count;
  }

  template <class Values>
  auto Pick(const Values& values) {
    return values[Take(std::size(values))];
  }

  // A text that a guest, a path or a table may find hard; or a few of the bytes themselves.
  std::string Text() {
    constexpr std::string_view kTexts[] = {"",
                                           "web-1",
                                           "0b6c1f5e-2a7d-4c39-8e14-93d5a7f0c211",
                                           "/images/a.qcow2",
                                           "/a/../b",
                                           "<a b='c'>&amp;]]></a>",
                                           "quote'\"",
                                           "a\nb\x1b[2J",
                                           "\xe2\x80\xae\xc2\x9b",
                                           "unmounted",
                                           "02:00:5e:10:00:01",
                                           "1234:00ab",
                                           "3.14",
                                           "default",
                                           "de"};
    const std::size_t choice = Take(std::size(kTexts) + 1);
    if (choice < std::size(kTexts)) return std::string(kTexts[choice]);
    const std::string text(rest_.substr(0, Take(12)));
    rest_.remove_prefix(text.size() < rest_.size() ? text.size() : rest_.size());
    return IsValidUtf8(text) ? text : "";  // as in any JSON that was parsed
  }

  // Any value that JSON has, at most three levels deep.
  Json::Value Value(int level = 0) {
    constexpr double kNumbers[] = {0, 1, -1, 2, 4, 0.5, 64, 512, 4096, 65536, 2147483647, 2147483648, 9e15, 1e300};
    switch (Take(level < 3 ? 8 : 6)) {
      case 0:
        return Json::Value();
      case 1:
        return Take(2) == 1;
      case 2:
        return static_cast<Json::Int64>(Take(256)) - 128;
      case 3:
        return Pick(kNumbers);
      case 4:
        return Json::Value::maxUInt64;
      case 5:
        return Text();
      case 6: {
        Json::Value list(Json::arrayValue);
        for (std::size_t left = Take(4); left > 0; --left) list.append(Value(level + 1));
        return list;
      }
      default: {
        Json::Value object(Json::objectValue);
        for (std::size_t left = Take(4); left > 0; --left) object[Text()] = Value(level + 1);
        return object;
      }
    }
  }

 private:
  std::string_view rest_;
};

// Appends to a list; anything else becomes one.
inline void Append(Json::Value& list, Json::Value value) {
  if (!list.isArray()) list = Json::Value(Json::arrayValue);
  list.append(std::move(value));
}

}  // namespace vexa::fuzz
