#include "host/domain_xml/domain_parse_errors.h"

#include "host/domain_xml/domain_parse_internal.h"

namespace vexa::domain_xml::parse {

Error TooManyDisks() { return Invalid("The guest has more than {} disks. Remove some", kMaxDisks); }

Error TooManyNics() { return Invalid("The guest has more than {} network interfaces. Remove some", kMaxNics); }

Error DuplicateMac(const std::string& mac) {
  return Invalid("Two network interfaces have the MAC address '{}'. Give each a different one", mac);
}

Error InvalidNetworkName(const std::string& mac, std::string_view network) {
  return Invalid(
      "The network interface {} is in the network {}: a network's name has at most 255 bytes without control "
      "characters",
      mac, Quote(network));
}

}  // namespace vexa::domain_xml::parse
