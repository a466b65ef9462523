// Helpers for values and elements.
#include "host/domain_xml/domain_overlay.h"
#include "json/readers.h"

namespace vexa::domain_xml::overlay {

bool SameValue(const Json::Value& left, const Json::Value& right) {
  if (left.isBool() || right.isBool()) return left == right;
  if (left.isInt64() && right.isInt64()) return json::Int64(left) == json::Int64(right);
  return left == right;
}

bool IsUnchanged(const Overlay& overlay, const char* member, const Json::Value& fallback) {
  const Json::Value& base = json::Member(overlay.base.guest, member);
  const Json::Value& now = json::Member(overlay.guest(), member);
  return now.isNull() || SameValue(base.isNull() ? fallback : base, now);
}

bool IsFlagChanged(const Overlay& overlay, const char* member) {
  const Json::Value& now = json::Member(overlay.guest(), member);
  return !now.isNull() && json::Bool(json::Member(overlay.base.guest, member)) != json::Bool(now);
}

void Put(pugi::xml_node element, const char* attribute, const std::string& value) {
  pugi::xml_attribute existing = element.attribute(attribute);
  if (!existing) existing = element.append_attribute(attribute);
  existing.set_value(build::XmlText(value).c_str());
}

void PutText(pugi::xml_node element, const std::string& text) {
  for (pugi::xml_node child = element.first_child(); child;) {
    const pugi::xml_node next = child.next_sibling();
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) element.remove_child(child);
    child = next;
  }
  element.append_child(pugi::node_pcdata).set_value(build::XmlText(text).c_str());
}

pugi::xml_node ChildOf(pugi::xml_node parent, const char* name) {
  const pugi::xml_node existing = parent.child(name);
  return existing ? existing : parent.append_child(name);
}

pugi::xml_node Replace(pugi::xml_node parent, pugi::xml_node old, pugi::xml_node replacement) {
  if (!old) return parent.append_copy(replacement);
  const pugi::xml_node copy = parent.insert_copy_before(replacement, old);
  parent.remove_child(old);
  return copy;
}

void RemoveChildren(pugi::xml_node parent, std::string_view name) {
  for (pugi::xml_node child = parent.first_child(); child;) {
    const pugi::xml_node next = child.next_sibling();
    if (child.name() == name) parent.remove_child(child);
    child = next;
  }
}

void RemoveChildren(pugi::xml_node parent, std::span<const char* const> names) {
  for (const char* name : names) RemoveChildren(parent, name);
}

void RemoveAttributes(pugi::xml_node element, std::span<const char* const> names) {
  for (const char* name : names) element.remove_attribute(name);
}

void RemoveWhenEmpty(pugi::xml_node element) {
  if (element && !element.first_child() && !element.first_attribute()) element.parent().remove_child(element);
}

pugi::xml_node Insert(pugi::xml_node parent, pugi::xml_node addition) {
  pugi::xml_node last;
  for (const pugi::xml_node sibling : parent.children(addition.name())) last = sibling;
  return last ? parent.insert_copy_after(addition, last) : parent.append_copy(addition);
}

bool HasAttributeValue(pugi::xml_node element, const char* attribute, std::string_view value) {
  return element.attribute(attribute).value() == value;
}

}  // namespace vexa::domain_xml::overlay
