// Numbers of bytes, for people.
#pragma once

#include <cstdint>
#include <string>

namespace vexa {

// "512 bytes", "1.5 KiB", "2.0 GiB": in the largest unit of which there is at least one, rounded down.
std::string ByteText(std::uint64_t bytes);

}  // namespace vexa
