// The ids of hosts' network interfaces in the cluster database.
#pragma once

#include <string>

namespace vexa::cluster {

// The id of an interface: a UUID derived from its permanent address, so that a new name does not change it, or else
// from its name. The same arguments always result in the same UUID.
std::string NicId(const std::string& host_id, const std::string& mac_or_name);

// "0fa1" for the bytes 0x0F, 0xA1.
std::string HexText(const unsigned char* bytes, std::size_t size);

}  // namespace vexa::cluster
