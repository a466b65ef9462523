#include "host/base/json_parse.h"

#include <json/reader.h>

#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "host/base/json_readers.h"

namespace vexa {
namespace {

std::unique_ptr<Json::CharReader> NewReader() {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  // Strict mode refuses comments, single quotes, special floats, duplicate names and trailing text. Roots other than
  // objects and arrays are left to the callers, all of which check the type anyway.
  builder.settings_["strictRoot"] = false;
  builder.settings_["skipBom"] = false;
  // The parser counts the document itself, and a value inside the innermost container, as levels.
  builder.settings_["stackLimit"] = kMaxJsonDepth + 2;
  return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The parser accepts more than JSON allows: raw control characters in strings, unpaired surrogates, numbers such as
// "01", "1." and ".5", NUL as the end of the text; and it recurses as deeply as its stack limit. This pass checks the
// tokens for all of that first and leaves grammar to the parser. Each fault it finds is a fault wherever the token
// stands.
class LexicalCheck {
 public:
  explicit LexicalCheck(std::string_view text) : text_(text) {}

  // The first fault, or null.
  const char* Run() {
    while (at_ < text_.size()) {
      if (const char* fault = Token()) return fault;
    }
    return nullptr;
  }

 private:
  // The character `ahead` of the current one, NUL beyond the end: no token contains NUL.
  char Peek(std::size_t ahead = 0) const { return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0'; }

  const char* Token() {
    const char c = Peek();
    if (c == '"') return String();
    if (c == '-' || c == '+' || c == '.' || IsDigit(c)) return Number();
    ++at_;
    switch (c) {
      case '[':
      case '{':
        return ++depth_ > kMaxJsonDepth ? "more levels of nesting than are allowed" : nullptr;
      case ']':
      case '}':
        return --depth_ < 0 ? "a closing bracket without an opening one" : nullptr;
      case '\0':
      case '/':
      case '\'':
        return "an unexpected character";
      default:
        return nullptr;
    }
  }

  const char* String() {
    ++at_;
    while (at_ < text_.size()) {
      const char c = text_[at_];
      if (static_cast<unsigned char>(c) < 0x20) return "a control character in a string";
      ++at_;
      if (c == '"') return nullptr;
      if (c != '\\') continue;
      if (const char* fault = Escape()) return fault;
    }
    return "a string without its end";
  }

  // After a backslash.
  const char* Escape() {
    const char c = Peek();
    ++at_;
    if (c != 'u') return c != '\0' && std::strchr("\"\\/bfnrt", c) != nullptr ? nullptr : "an unknown escape";
    const int unit = HexUnit();
    if (unit < 0) return "a malformed escape";
    if (unit < 0xD800 || unit > 0xDFFF) return nullptr;
    if (unit > 0xDBFF || Peek() != '\\' || Peek(1) != 'u') return "half of a surrogate pair";
    at_ += 2;
    const int low = HexUnit();
    return low >= 0xDC00 && low <= 0xDFFF ? nullptr : "half of a surrogate pair";
  }

  // Takes four hexadecimal digits; -1 when they are not there.
  int HexUnit() {
    int unit = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = Peek();
      int digit = 0;
      if (IsDigit(c)) {
        digit = c - '0';
      } else if (c >= 'a' && c <= 'f') {
        digit = c - 'a' + 10;
      } else if (c >= 'A' && c <= 'F') {
        digit = c - 'A' + 10;
      } else {
        return -1;
      }
      unit = unit * 16 + digit;
      ++at_;
    }
    return unit;
  }

  // RFC 8259, section 6: -? (0 | [1-9][0-9]*) (. [0-9]+)? ([eE] [+-]? [0-9]+)?
  const char* Number() {
    static constexpr const char* kFault = "a malformed number";
    if (Peek() == '-') ++at_;
    const bool zero = Peek() == '0';
    const std::size_t whole = Digits();
    if (whole == 0 || (zero && whole > 1)) return kFault;
    if (Peek() == '.') {
      ++at_;
      if (Digits() == 0) return kFault;
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++at_;
      if (Peek() == '+' || Peek() == '-') ++at_;
      if (Digits() == 0) return kFault;
    }
    return nullptr;
  }

  std::size_t Digits() {
    const std::size_t start = at_;
    while (IsDigit(Peek())) ++at_;
    return at_ - start;
  }

  const std::string_view text_;
  std::size_t at_ = 0;
  int depth_ = 0;
};

// The parser's messages quote names and numbers, which may be as long as the text.
Error Refusal(std::string reason) {
  if (reason.size() > kMaxJsonReason) {
    std::size_t end = kMaxJsonReason;
    while (end > 0 && (static_cast<unsigned char>(reason[end]) & 0xC0) == 0x80) --end;
    reason.resize(end);
  }
  for (char& c : reason) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
  }
  while (!reason.empty() && reason.back() == ' ') reason.pop_back();
  return Error(ErrorCode::kInvalid, "The text is not valid JSON", std::move(reason));
}

}  // namespace

Result<Json::Value> ReadWithJsoncpp(std::string_view text) {
  if (!IsValidUtf8(text)) return Refusal("it is not valid UTF-8");
  if (const char* fault = LexicalCheck(text).Run()) return Refusal(fault);
  thread_local const std::unique_ptr<Json::CharReader> reader = NewReader();
  Json::Value value;
  std::string errors;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return value;
  } catch (const Json::Exception& exception) {
    errors = exception.what();
  }
  return Refusal(std::move(errors));
}

Result<Json::Value> ParseJson(std::string_view text, LastingName lasting_name) {
  if (std::optional<Json::Value> value = ReadWithSimdjson(text, lasting_name)) return std::move(*value);
  return ReadWithJsoncpp(text);
}

}  // namespace vexa
