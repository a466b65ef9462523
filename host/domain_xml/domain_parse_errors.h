// The errors of XML, records and options that cannot be used. For host/domain_xml/domain_*.cpp only.
#pragma once

#include <fmt/format.h>

#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::domain_xml::parse {

// An error kInvalid with the formatted sentence.
template <class... T>
Error Invalid(fmt::format_string<const T&...> sentence, const T&... values) {
  return Error(ErrorCode::kInvalid, fmt::format(sentence, values...));
}

// Errors that records and XML have in common. `mac` is a normalized address.
Error TooManyDisks();
Error TooManyNics();
Error DuplicateMac(const std::string& mac);
Error InvalidNetworkName(const std::string& mac, std::string_view network);

}  // namespace vexa::domain_xml::parse
