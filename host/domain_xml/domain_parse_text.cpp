// Loads XML: refuses what is malformed or excessive, before and immediately after parsing, whatever the elements mean.
#include <algorithm>
#include <string>
#include <unordered_set>

#include "host/base/json_parse.h"
#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::parse {
namespace {

constexpr std::size_t kMaxAttributes = 64;  // of one element

Error Malformed(std::string_view text, std::size_t offset, std::string_view what) {
  const auto line = 1 + std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(offset), '\n');
  return Invalid("The XML is malformed at line {}: {}", line, what);
}

// The characters that XML 1.0 allows (its production 2).
bool IsXmlCharacter(std::uint32_t code) {
  return code == 0x9 || code == 0xA || code == 0xD || (code >= 0x20 && code <= 0xD7FF) ||
         (code >= 0xE000 && code <= 0xFFFD) || (code >= 0x10000 && code <= 0x10FFFF);
}

// Whether `name`, the text between '&' and ';', is one of the five XML entities or a valid character number. The parser
// would truncate a string at "&#0;", and convert the number of a surrogate to bytes that are not UTF-8.
bool IsReference(std::string_view name) {
  if (name == "amp" || name == "lt" || name == "gt" || name == "quot" || name == "apos") return true;
  if (name.size() < 2 || name[0] != '#') return false;
  const bool hexadecimal = name[1] == 'x';
  name.remove_prefix(hexadecimal ? 2 : 1);
  if (name.empty() || name.size() > 8) return false;
  std::uint32_t code = 0;
  for (const char c : name) {
    const bool digit = c >= '0' && c <= '9';
    const bool letter = hexadecimal && ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'));
    if (!digit && !letter) return false;
    const int value = digit ? c - '0' : (c | 0x20) - 'a' + 10;
    code = code * (hexadecimal ? 16u : 10u) + static_cast<std::uint32_t>(value);
  }
  return IsXmlCharacter(code);
}

// Scans the markup once, without recursion or allocation, so that the parser never sees a document that is too deep.
// Written by hand because pugixml has no limit of depth, skips document types, and accepts malformed references.
class MarkupScan {
 public:
  explicit MarkupScan(std::string_view text) : text_(text) {}

  Status Run() {
    while ((at_ = text_.find_first_of("<&", at_)) != std::string_view::npos) {
      if (Status step = Step(); !step) return step;
    }
    return {};
  }

 private:
  Status Step() {
    const std::string_view rest = text_.substr(at_);
    if (rest[0] == '&') return Reference();
    if (rest.starts_with("<!--")) return SkipPast("<!--", "-->", "a comment does not end");
    if (rest.starts_with("<![CDATA[")) return SkipPast("<![CDATA[", "]]>", "a CDATA section does not end");
    if (rest.starts_with("<?")) return SkipPast("<?", "?>", "a processing instruction does not end");
    if (rest.starts_with("<!")) {
      return Invalid("The XML has a DOCTYPE. Document types and entities are not read: remove it");
    }
    return Tag();
  }

  Status SkipPast(std::string_view opening, std::string_view closing, std::string_view what) {
    const std::size_t end = text_.find(closing, at_ + opening.size());
    if (end == std::string_view::npos) return Malformed(text_, at_, what);
    at_ = end + closing.size();
    return {};
  }

  Status Reference() {
    // "&#x10FFFF;" is the longest valid reference.
    const std::string_view window = text_.substr(at_ + 1, 12);
    const std::size_t end = window.find(';');
    if (end == std::string_view::npos || !IsReference(window.substr(0, end))) {
      return Malformed(text_, at_,
                       "'&' does not begin a character that XML knows; write '&amp;' for the character itself");
    }
    at_ += end + 2;
    return {};
  }

  Status Tag() {
    const std::size_t start = at_;
    char quote = '\0';
    for (++at_; at_ < text_.size(); ++at_) {
      const char c = text_[at_];
      if (c == '&') {
        if (Status reference = Reference(); !reference) return reference;
        --at_;
      } else if (quote != '\0') {
        if (c == quote) quote = '\0';
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '>') {
        break;
      }
    }
    if (at_ == text_.size()) return Malformed(text_, start, "a tag does not end");
    if (text_[start + 1] == '/') {
      if (--depth_ < 0) return Malformed(text_, start, "an end tag without a start tag");
    } else if (text_[at_ - 1] != '/' && ++depth_ > kMaxDomainXmlDepth) {
      return Invalid("The XML is nested more than {} levels deep. This is not domain XML", kMaxDomainXmlDepth);
    }
    return {};
  }

  std::string_view text_;
  std::size_t at_ = 0;
  int depth_ = 0;
};

Status CheckText(std::string_view xml) {
  if (xml.size() > kMaxDomainXmlBytes) {
    return Invalid("The XML has {} bytes: at most 4 MiB are read", xml.size());
  }
  if (Trim(xml).empty()) return Invalid("The XML is empty. Use the output of 'virsh dumpxml'");
  if (!IsValidUtf8(xml)) return Invalid("The XML is not valid UTF-8: convert it first");
  for (std::size_t i = 0; i < xml.size(); ++i) {
    const char c = xml[i];
    if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r') {
      return Malformed(xml, i, "a control character, which XML does not allow");
    }
  }
  return MarkupScan(xml).Run();
}

// Finds an element with an excessive number of attributes, or with the same attribute twice: XML does not allow that,
// but the parser does, and a reader would pick one of them.
class TreeCheck : public pugi::xml_tree_walker {
 public:
  std::optional<Error> error;

  bool for_each(pugi::xml_node& node) override {
    std::unordered_set<std::string_view> names;
    for (const pugi::xml_attribute attribute : node.attributes()) {
      if (names.size() == kMaxAttributes) {
        error = Invalid("An element has more than {} attributes. This is not domain XML", kMaxAttributes);
      } else if (!names.insert(attribute.name()).second) {
        error = Invalid("An element has the attribute {} twice: remove one", Quote(attribute.name()));
      }
      if (error) break;
    }
    return !error.has_value();
  }
};

}  // namespace

Status Load(std::string_view xml, pugi::xml_document& document) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (xml.starts_with(kByteOrderMark)) xml.remove_prefix(kByteOrderMark.size());
  if (Status text = CheckText(xml); !text) return text;

  const pugi::xml_parse_result parsed =
      document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8);
  if (!parsed) {
    return Malformed(xml, std::min(static_cast<std::size_t>(parsed.offset), xml.size()), parsed.description());
  }
  std::size_t roots = 0;
  for (const pugi::xml_node child : document.children()) {
    if (child.type() == pugi::node_element) ++roots;
  }
  const std::string_view root = document.document_element().name();
  if (roots > 1) return Invalid("The XML has more than one root element: import each <domain> from a separate file");
  if (root != "domain") {
    return Invalid("The root element is {}. Use a <domain>, as 'virsh dumpxml' prints it", Quote(root));
  }
  TreeCheck check;
  document.traverse(check);
  if (check.error) return *check.error;
  return {};
}

std::string TextOf(pugi::xml_node element) {
  std::string text;
  for (const pugi::xml_node child : element.children()) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) text += child.value();
  }
  return text;
}

}  // namespace vexa::domain_xml::parse
