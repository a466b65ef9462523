// A data folder as an older version left it, made from texts below tests/system/data: its store key by key, and its
// files. README.md there describes them.
#pragma once

#include <string>

namespace vexa::test {

// Makes the data folder of release `version` at `folder`, a path that is still free. The store's log entries are from
// the last hours, as they were for the version that wrote them. The test program ends when the texts are unreadable.
void MakeOldDataFolder(const std::string& version, const std::string& folder);

}  // namespace vexa::test
