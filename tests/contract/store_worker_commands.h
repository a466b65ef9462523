// What store_test_worker can do: commands with a folder and an argument. They return the program's exit code.
#pragma once

#include <memory>
#include <string>

#include "host/store/store.h"

namespace vexa::store {

inline constexpr int kNotPermitted = 77;

// Ends the program when `condition` does not hold.
void Require(bool condition, const std::string& what);
std::shared_ptr<Store> Open(const std::string& directory);
// "" when absent.
std::string TextOf(const Store& store, const std::string& key);

// store_worker_disk.cpp
// From now on this process has mounts of its own, which disappear with it. False: it may not.
bool HasOwnMounts();
int FillUpToFileLimit(const std::string& directory, const std::string& bytes);
int FillUpDisk(const std::string& directory, const std::string& bytes);
int LoadFullTmpfs(const std::string& directory, const std::string&);
int LoadFullExt4(const std::string& directory, const std::string&);
int LoadAtFileLimit(const std::string& directory, const std::string& bytes);

// store_worker_damage.cpp
int UseDamagedCopies(const std::string& directory, const std::string& seed);

}  // namespace vexa::store
