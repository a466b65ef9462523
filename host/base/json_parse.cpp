#include "host/base/json_parse.h"

#include <json/reader.h>

#include <memory>
#include <string>

namespace vexa {
namespace {

std::unique_ptr<Json::CharReader> NewReader() {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  // Strict mode refuses comments, single quotes, special floats, duplicate names and trailing text. Roots other than
  // objects and arrays are left to the callers, who all look at the type anyway.
  builder.settings_["strictRoot"] = false;
  builder.settings_["stackLimit"] = kMaxJsonDepth;
  return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

// The parser throws beyond its stack limit, so the depth is looked at first; it also reads forms that JSON does not
// have: raw control characters in strings, and numbers such as "01", "+1", "1." and ".5".
std::optional<std::string> FindLexicalFault(std::string_view text) {
  int depth = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      for (++i; i < text.size() && text[i] != '"'; ++i) {
        if (static_cast<unsigned char>(text[i]) < 0x20) return "a control character in a string";
        if (text[i] == '\\') ++i;
      }
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxJsonDepth) return "more than " + std::to_string(kMaxJsonDepth) + " levels of nesting";
    } else if (c == ']' || c == '}') {
      --depth;
    } else if (c == '-' || c == '+' || c == '.' || (c >= '0' && c <= '9')) {
      // RFC 8259, section 6: -? (0 | [1-9][0-9]*) (. [0-9]+)? ([eE] [+-]? [0-9]+)?
      const auto digits = [&] {
        const std::size_t start = i;
        while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
        return i - start;
      };
      if (text[i] == '-') ++i;
      const std::size_t first = i;
      const std::size_t whole = digits();
      if (whole == 0 || (whole > 1 && text[first] == '0')) return "a malformed number";
      if (i < text.size() && text[i] == '.') {
        ++i;
        if (digits() == 0) return "a malformed number";
      }
      if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
        if (digits() == 0) return "a malformed number";
      }
      --i;
    } else if (c == '\0' || c == '/' || c == '\'') {
      return "an unexpected character";
    }
  }
  return std::nullopt;
}

}  // namespace

bool IsValidUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  const auto* const end = p + text.size();
  const auto continuation = [&](int offset, unsigned char low = 0x80, unsigned char high = 0xBF) {
    return end - p > offset && p[offset] >= low && p[offset] <= high;
  };
  while (p < end) {
    // The well-formed byte sequences of the Unicode standard, table 3-7.
    if (*p < 0x80) {
      p += 1;
    } else if (*p >= 0xC2 && *p <= 0xDF && continuation(1)) {
      p += 2;
    } else if (*p >= 0xE0 && *p <= 0xEF && continuation(1, *p == 0xE0 ? 0xA0 : 0x80, *p == 0xED ? 0x9F : 0xBF) &&
               continuation(2)) {
      p += 3;
    } else if (*p >= 0xF0 && *p <= 0xF4 && continuation(1, *p == 0xF0 ? 0x90 : 0x80, *p == 0xF4 ? 0x8F : 0xBF) &&
               continuation(2) && continuation(3)) {
      p += 4;
    } else {
      return false;
    }
  }
  return true;
}

Result<Json::Value> ParseJson(std::string_view text) {
  if (!IsValidUtf8(text)) return Error(ErrorCode::kInvalid, "The text is not valid JSON", "it is not valid UTF-8");
  if (auto fault = FindLexicalFault(text)) {
    return Error(ErrorCode::kInvalid, "The text is not valid JSON", std::move(*fault));
  }
  thread_local const std::unique_ptr<Json::CharReader> reader = NewReader();
  Json::Value value;
  std::string errors;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return value;
  } catch (const Json::Exception& exception) {
    errors = exception.what();
  }
  return Error(ErrorCode::kInvalid, "The text is not valid JSON", std::move(errors));
}

}  // namespace vexa
