#include <simdjson.h>

#include <string>
#include <utility>

#include "host/base/json_readers.h"

namespace vexa {
namespace {

namespace dom = simdjson::dom;

// Each thread keeps a reader with buffers for input up to this size. Larger input gets a temporary reader, so that its
// buffers are freed again.
constexpr std::size_t kMaxCachedReaderBytes = std::size_t{64} << 10;

class Builder {
 public:
  explicit Builder(InternName intern_name) : intern_name_(intern_name) {}

  // False if there are duplicate names or too many levels of nesting.
  bool Build(const dom::element& element, int level, Json::Value& out) const {
    switch (element.type()) {
      case dom::element_type::OBJECT:
        return BuildObject(dom::object(element), level + 1, out);
      case dom::element_type::ARRAY:
        return BuildArray(dom::array(element), level + 1, out);
      case dom::element_type::STRING: {
        const auto text = std::string_view(element);
        out = Json::Value(text.data(), text.data() + text.size());
        return true;
      }
      case dom::element_type::INT64:
        out = Json::Value(Json::Int64{std::int64_t(element)});
        return true;
      case dom::element_type::UINT64:
        out = Json::Value(Json::UInt64{std::uint64_t(element)});
        return true;
      case dom::element_type::DOUBLE:
        out = Json::Value(double(element));
        return true;
      case dom::element_type::BOOL:
        out = Json::Value(bool(element));
        return true;
      case dom::element_type::NULL_VALUE:
        out = Json::Value();
        return true;
    }
    return false;
  }

 private:
  bool BuildObject(const dom::object& object, int level, Json::Value& out) const {
    if (level > kMaxJsonDepth) return false;
    out = Json::Value(Json::objectValue);
    Json::ArrayIndex members = 0;
    for (const dom::key_value_pair& member : object) {
      const char* const interned = intern_name_ ? intern_name_(member.key) : nullptr;
      Json::Value& value = interned ? out[Json::StaticString(interned)]
                                    : *out.demand(member.key.data(), member.key.data() + member.key.size());
      if (out.size() != ++members || !Build(member.value, level, value)) return false;
    }
    return true;
  }

  bool BuildArray(const dom::array& array, int level, Json::Value& out) const {
    if (level > kMaxJsonDepth) return false;
    out = Json::Value(Json::arrayValue);
    for (const dom::element element : array) {
      if (!Build(element, level, out.append(Json::Value()))) return false;
    }
    return true;
  }

  const InternName intern_name_;
};

struct Reader {
  dom::parser parser;
  std::string padded;  // the parser reads slightly beyond the end

  std::optional<Json::Value> Read(std::string_view text, InternName intern_name) {
    padded.reserve(text.size() + simdjson::SIMDJSON_PADDING);
    padded.assign(text);
    dom::element root;
    if (parser.parse(padded.data(), text.size(), false).get(root) != simdjson::SUCCESS) return std::nullopt;
    std::optional<Json::Value> value(std::in_place);
    if (!Builder(intern_name).Build(root, 0, *value)) return std::nullopt;
    return value;
  }
};

}  // namespace

bool IsValidUtf8(std::string_view text) { return text.empty() || simdjson::validate_utf8(text.data(), text.size()); }

std::optional<Json::Value> ReadWithSimdjson(std::string_view text, InternName intern_name) {
  if (text.starts_with("\xEF\xBB\xBF")) return std::nullopt;  // a byte order mark
  if (text.size() > kMaxCachedReaderBytes) return Reader().Read(text, intern_name);
  thread_local Reader reader;
  return reader.Read(text, intern_name);
}

}  // namespace vexa
