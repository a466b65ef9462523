// The ids of hosts' network interfaces in the cluster database.
#pragma once

#include <string>

namespace vexa::cluster {

// Derived from the interface's permanent address, so that a new name does not change it, or else from its name. The
// same host and text always give the same UUID.
std::string NicId(const std::string& host_id, const std::string& mac_or_name);

// "0fa1" for the bytes 0x0F, 0xA1.
std::string HexText(const unsigned char* bytes, std::size_t size);

}  // namespace vexa::cluster
