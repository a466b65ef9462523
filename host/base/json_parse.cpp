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
  // Strict mode refuses comments, single quotes, special floats, duplicate names and trailing text. Any root value is
  // accepted, because all callers check its type anyway.
  builder.settings_["strictRoot"] = false;
  builder.settings_["skipBom"] = false;
  // The parser counts the document itself, and a value inside the innermost container, as levels.
  builder.settings_["stackLimit"] = kMaxJsonDepth + 2;
  return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The parser accepts more than JSON allows: raw control characters in strings, unpaired surrogates, numbers such as
// "01", "1." and ".5", NUL as the end of the text; and it recurses as deeply as its stack limit. This pass checks
// single tokens and the depth of nesting first, and leaves the grammar to the parser.
class LexicalCheck {
 public:
  explicit LexicalCheck(std::string_view text) : text_(text) {}

  // Returns a description of the first fault, or null.
  const char* Run() {
    while (position_ < text_.size()) {
      if (const char* fault = CheckToken()) return fault;
    }
    return nullptr;
  }

 private:
  // The character `ahead` positions after the current one. Beyond the end it is NUL, which no token contains.
  char Peek(std::size_t ahead = 0) const { return position_ + ahead < text_.size() ? text_[position_ + ahead] : '\0'; }

  // The functions that check one kind of token move position_ behind it and return a description of a fault, or null.
  const char* CheckToken() {
    const char c = Peek();
    if (c == '"') return CheckString();
    if (c == '-' || c == '+' || c == '.' || IsDigit(c)) return CheckNumber();
    ++position_;
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

  const char* CheckString() {
    ++position_;
    while (position_ < text_.size()) {
      const char c = text_[position_];
      if (static_cast<unsigned char>(c) < 0x20) return "a control character in a string";
      ++position_;
      if (c == '"') return nullptr;
      if (c != '\\') continue;
      if (const char* fault = CheckEscape()) return fault;
    }
    return "a string without its end";
  }

  // The part of an escape sequence after the backslash.
  const char* CheckEscape() {
    const char c = Peek();
    ++position_;
    if (c != 'u') return c != '\0' && std::strchr("\"\\/bfnrt", c) != nullptr ? nullptr : "an unknown escape";
    const int unit = ReadHexUnit();
    if (unit < 0) return "a malformed escape";
    if (unit < 0xD800 || unit > 0xDFFF) return nullptr;
    if (unit > 0xDBFF || Peek() != '\\' || Peek(1) != 'u') return "half of a surrogate pair";
    position_ += 2;
    const int low = ReadHexUnit();
    return low >= 0xDC00 && low <= 0xDFFF ? nullptr : "half of a surrogate pair";
  }

  // Reads four hexadecimal digits as a UTF-16 code unit; -1 if there are not four.
  int ReadHexUnit() {
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
      ++position_;
    }
    return unit;
  }

  // RFC 8259, section 6: -? (0 | [1-9][0-9]*) (. [0-9]+)? ([eE] [+-]? [0-9]+)?
  const char* CheckNumber() {
    static constexpr const char* kFault = "a malformed number";
    if (Peek() == '-') ++position_;
    const bool starts_with_zero = Peek() == '0';
    const std::size_t integer_digits = SkipDigits();
    if (integer_digits == 0 || (starts_with_zero && integer_digits > 1)) return kFault;
    if (Peek() == '.') {
      ++position_;
      if (SkipDigits() == 0) return kFault;
    }
    if (Peek() == 'e' || Peek() == 'E') {
      ++position_;
      if (Peek() == '+' || Peek() == '-') ++position_;
      if (SkipDigits() == 0) return kFault;
    }
    return nullptr;
  }

  // Returns how many digits it skipped.
  std::size_t SkipDigits() {
    const std::size_t start = position_;
    while (IsDigit(Peek())) ++position_;
    return position_ - start;
  }

  const std::string_view text_;
  std::size_t position_ = 0;
  int depth_ = 0;
};

// The parser's messages quote names and numbers, which may be as long as the text.
Error InvalidJson(std::string reason) {
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
  if (!IsValidUtf8(text)) return InvalidJson("it is not valid UTF-8");
  if (const char* fault = LexicalCheck(text).Run()) return InvalidJson(fault);
  thread_local const std::unique_ptr<Json::CharReader> reader = NewReader();
  Json::Value value;
  std::string errors;
  try {
    if (reader->parse(text.data(), text.data() + text.size(), &value, &errors)) return value;
  } catch (const Json::Exception& exception) {
    errors = exception.what();
  }
  return InvalidJson(std::move(errors));
}

Result<Json::Value> ParseJson(std::string_view text, InternName intern_name) {
  if (std::optional<Json::Value> value = ReadWithSimdjson(text, intern_name)) return std::move(*value);
  return ReadWithJsoncpp(text);
}

}  // namespace vexa
