// The system call filters of a unit, made with libseccomp as systemd makes them.
#pragma once

#include "tests/tools/unit_file.h"

namespace vexa::test {

// Applies them to this process and its children for good. The process needs no_new_privs or rights.
void LoadFilters(const UnitFile& unit, const std::set<std::string>& allowed_calls);

}  // namespace vexa::test
