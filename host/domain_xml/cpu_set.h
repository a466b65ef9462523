// Sets of the host's processors, as domain XML writes them, and what a definition says about them.
// Threads: any, at the same time.
#pragma once

#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::domain_xml {

using CpuSet = std::set<unsigned>;  // processors are numbered from 0

// "0-3,5"; "" for an empty set.
std::string FormatCpuSet(const CpuSet& cpus);

// Parses "0-3,5,^2": ranges, numbers and numbers to leave out, each below 4096. Not set for any other text.
std::optional<CpuSet> ParseCpuSet(std::string_view text);

// The processors of `shared` that are in the set `own` of a definition, which has all when it is "" or cannot be read;
// all of `shared` when none is in both.
CpuSet ConfineCpus(std::string_view own, const CpuSet& shared);

// What a definition says about virtual CPUs without a <vcpupin>, and about the emulator's threads. "": nothing, they
// may run on all processors.
struct OwnCpuSets {
  std::string vcpus;
  std::string emulator;
};
OwnCpuSets OwnCpuSetsOf(const std::string& xml);

// How many virtual CPUs have a <vcpupin> in a definition.
std::size_t PinnedVcpusOf(const std::string& xml);

// The processors to which a definition pins the virtual CPUs 0, 1, … one each, up to the first virtual CPU that may use
// several.
std::vector<unsigned> SingleCpusOf(const std::string& xml);

}  // namespace vexa::domain_xml
