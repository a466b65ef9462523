// How many files the process may open, and how many connections that allows.
#pragma once

#include <cstddef>

namespace vexa::daemon {

// Raises the process's limit of open files, as far as permitted, to what `connections` and the daemon's own files need.
// Returns how many connections are possible, at most `connections`. Accept no more: they would take the
// descriptors that logins and other work need.
std::size_t RaiseFileLimit(std::size_t connections);

}  // namespace vexa::daemon
