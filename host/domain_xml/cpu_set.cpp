#include "host/domain_xml/cpu_set.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <pugixml.hpp>

namespace vexa::domain_xml {
namespace {

constexpr unsigned kMaxCpus = 4096;

std::optional<unsigned> ParseCpu(std::string_view text) {
  unsigned cpu = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), cpu);
  if (error != std::errc() || end != text.data() + text.size() || cpu >= kMaxCpus) return std::nullopt;
  return cpu;
}

// Adds "4" or "0-3", or removes "^2". False: the text has another form.
bool ApplyPart(std::string_view part, CpuSet& cpus) {
  if (part.starts_with('^')) {
    const auto cpu = ParseCpu(part.substr(1));
    if (cpu) cpus.erase(*cpu);
    return cpu.has_value();
  }
  const std::size_t dash = part.find('-');
  const auto first = ParseCpu(part.substr(0, dash));
  const auto last = dash == std::string_view::npos ? first : ParseCpu(part.substr(dash + 1));
  if (!first || !last || *last < *first) return false;
  for (unsigned cpu = *first; cpu <= *last; ++cpu) cpus.insert(cpu);
  return true;
}

}  // namespace

std::string FormatCpuSet(const CpuSet& cpus) {
  std::string text;
  for (auto cpu = cpus.begin(); cpu != cpus.end();) {
    const unsigned first = *cpu;
    unsigned last = first;
    while (++cpu != cpus.end() && *cpu == last + 1) last = *cpu;
    if (!text.empty()) text += ',';
    text += std::to_string(first);
    if (last != first) text += '-' + std::to_string(last);
  }
  return text;
}

std::optional<CpuSet> ParseCpuSet(std::string_view text) {
  CpuSet cpus;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    if (!ApplyPart(text.substr(begin, end - begin), cpus)) return std::nullopt;
    begin = end + 1;
  }
  return cpus;
}

CpuSet ConfineCpus(std::string_view own, const CpuSet& shared) {
  const auto wanted = ParseCpuSet(own);
  CpuSet both;
  if (wanted) {
    std::set_intersection(wanted->begin(), wanted->end(), shared.begin(), shared.end(),
                          std::inserter(both, both.end()));
  }
  return both.empty() ? shared : both;
}

OwnCpuSets OwnCpuSetsOf(const std::string& xml) {
  pugi::xml_document document;
  if (!document.load_string(xml.c_str())) return {};
  const pugi::xml_node domain = document.document_element();
  OwnCpuSets own;
  own.vcpus = domain.child("vcpu").attribute("cpuset").value();
  own.emulator = domain.child("cputune").child("emulatorpin").attribute("cpuset").value();
  if (own.emulator.empty()) own.emulator = own.vcpus;
  return own;
}

std::size_t PinnedVcpusOf(const std::string& xml) {
  pugi::xml_document document;
  std::set<std::string> vcpus;
  if (!document.load_string(xml.c_str())) return 0;
  for (const pugi::xml_node pin : document.document_element().child("cputune").children("vcpupin")) {
    vcpus.insert(pin.attribute("vcpu").value());
  }
  return vcpus.size();
}

std::vector<unsigned> SingleCpusOf(const std::string& xml) {
  pugi::xml_document document;
  std::vector<unsigned> cpus;
  if (!document.load_string(xml.c_str())) return cpus;
  const pugi::xml_node tuning = document.document_element().child("cputune");
  for (;;) {
    const std::string vcpu = std::to_string(cpus.size());
    const auto cpu =
        ParseCpu(tuning.find_child_by_attribute("vcpupin", "vcpu", vcpu.c_str()).attribute("cpuset").value());
    if (!cpu) return cpus;
    cpus.push_back(*cpu);
  }
}

}  // namespace vexa::domain_xml
