// The names of network interfaces.
#pragma once

#include <string>

namespace vexa {

// Whether the kernel accepts the name: 1 to 15 bytes of UTF-8 without '/', ':', spaces and control characters, and
// neither "." nor "..". Such a name cannot lead out of the folder /sys/class/net.
bool IsInterfaceName(const std::string& name);

}  // namespace vexa
