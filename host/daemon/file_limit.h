// How many files the process may open, and how many connections fit into that.
#pragma once

#include <cstddef>

namespace vexa::daemon {

// Raises the process's limit of open files, as far as it may, to what `connections` and the daemon's own files need.
// Returns how many connections fit: without that bound strangers' connections would take the descriptors that logins
// and other work need.
std::size_t ConnectionsThatFit(std::size_t connections);

}  // namespace vexa::daemon
