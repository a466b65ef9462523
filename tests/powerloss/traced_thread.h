// What a thread has while it is stopped: memory and descriptors.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace vexa::powerloss {

// What is at `address`; fewer bytes where it cannot be read.
std::string ReadMemory(pid_t thread, std::uint64_t address, std::size_t bytes);
std::string ReadText(pid_t thread, std::uint64_t address);  // up to the first NUL
// The first `bytes` bytes of `count` buffers, which readv(2) describes.
std::string ReadBuffers(pid_t thread, std::uint64_t buffers, std::uint64_t count, std::size_t bytes);

// A path by which this process reaches what the descriptor is open on.
std::string PathOfDescriptor(pid_t thread, std::uint64_t descriptor);
// The number in the line "<name>:" that the system shows for the descriptor: "pos" (base 10), "flags" (base 8).
std::uint64_t FieldOf(pid_t thread, std::uint64_t descriptor, std::string_view name, int base);

}  // namespace vexa::powerloss
