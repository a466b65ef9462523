#include "host/guests/creation/sources.h"

#include <fmt/format.h>

#include <utility>

#include "host/domain_xml/domain_parse.h"
#include "json/readers.h"

namespace vexa::guests {
namespace {

constexpr char kFrom[] = "from";
constexpr char kSize[] = "vdisk_size";
constexpr std::uint64_t kMib = std::uint64_t{1} << 20;

Result<disks::SourceImage, Refusal> OpenSource(const std::vector<std::string>& image_roots, Json::Value& disk,
                                               const std::string& parameter) {
  const Json::Value& from = json::Member(disk, kFrom);
  if (!from.isString() || !json::String(from).starts_with('/')) {
    return Refusal{kBadEdit, fmt::format("The parameter '{}.from' is not an absolute path", parameter)};
  }
  Result<disks::SourceImage> source = disks::OpenSourceImage(image_roots, json::String(from));
  if (!source) return Refusal{host_error::kNoImage, source.error().ToString()};
  const std::uint64_t needed_mib = source->size / kMib + (source->size % kMib == 0 ? 0 : 1);
  if (needed_mib > domain_xml::kMaxDiskMib) {
    return Refusal{host_error::kNoImage, fmt::format("The image of '{}' is too large for a disk", parameter)};
  }
  const Json::Value* const size = json::FindMember(disk, kSize);
  if (!size) {
    disk[kSize] = static_cast<Json::Int64>(needed_mib);
  } else if (size->isUInt64() && json::UInt64(*size) < needed_mib) {
    return Refusal{kBadEdit, fmt::format("The parameter '{}.{}' is less than the {} MiB of the image", parameter, kSize,
                                         needed_mib)};
  }
  return *std::move(source);
}

}  // namespace

Result<Sources, Refusal> OpenSources(const std::vector<std::string>& image_roots, Json::Value& parameters) {
  Sources sources;
  // The parser of edits refuses what is not a list of objects, or too long.
  if (!json::Member(parameters, "vdisks_add").isArray()) return sources;
  Json::Value& disks = parameters["vdisks_add"];
  if (disks.size() > domain_xml::kMaxDisks) return sources;
  for (Json::ArrayIndex i = 0; i < disks.size(); ++i) {
    sources.emplace_back();
    if (!json::FindMember(disks[i], kFrom)) continue;
    auto source = OpenSource(image_roots, disks[i], fmt::format("vdisks_add[{}]", i));
    if (!source.ok()) return source.error();
    sources.back() = *std::move(source);
  }
  return sources;
}

}  // namespace vexa::guests
