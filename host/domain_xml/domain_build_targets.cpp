// The bus, target name and format of disks.
#include "host/base/rows.h"
#include "host/domain_xml/domain_build_internal.h"

namespace vexa::domain_xml::build {
namespace {

constexpr int kVirtio = 1;
constexpr Bus kBuses[] = {{kVirtio, "virtio", "vd"}, {kIde, "ide", "hd"}, {kSata, "sata", "sd"}, {kScsi, "scsi", "sd"}};

// "a", …, "z", "aa", …
std::string Letters(std::size_t index) {
  std::string letters;
  for (std::size_t rest = index + 1; rest > 0; rest = (rest - 1) / 26) {
    letters.insert(letters.begin(), static_cast<char>('a' + (rest - 1) % 26));
  }
  return letters;
}

// The inverse: the index of `letters`. Not set for any other string, and for an index that is never assigned.
std::optional<std::size_t> IndexOf(std::string_view letters) {
  if (letters.empty() || letters.size() > 2) return std::nullopt;
  std::size_t index = 0;
  for (const char c : letters) {
    if (c < 'a' || c > 'z') return std::nullopt;
    index = index * 26 + static_cast<std::size_t>(c - 'a') + 1;
  }
  if (index > kMaxDisks) return std::nullopt;
  return index - 1;
}

}  // namespace

const Bus& BusOf(int mode) { return *FindRow(kBuses, &Bus::mode, mode); }

Result<std::int64_t> ModeOf(const Json::Value& disk) { return NumberOf(disk, "vdisk_mode", kVirtio, kVirtio, kScsi); }

Result<std::string> FormatOf(const Json::Value& disk) {
  constexpr int kTypeRaw = 1;
  constexpr int kTypeQcow2 = 2;
  const Result<std::string> driver = StringOf(disk, "driver", "");
  if (!driver) return driver.error();
  if (*driver == "raw" || *driver == "qcow2") return *driver;
  const Result<std::int64_t> type = NumberOf(disk, "type", kTypeRaw, kTypeRaw, kTypeQcow2);
  if (!driver->empty()) return Invalid("The driver of a disk is {}. Use 'raw' or 'qcow2'", Quote(*driver));
  if (!type) return type.error();
  return std::string(*type == kTypeQcow2 ? "qcow2" : "raw");
}

std::string TargetName(const Bus& bus, std::size_t index) { return bus.target_prefix + Letters(index); }

std::optional<std::size_t> TargetIndex(const std::string& name, const Bus& bus) {
  const std::string_view prefix = bus.target_prefix;
  if (!name.starts_with(prefix)) return std::nullopt;
  const std::optional<std::size_t> index = IndexOf(std::string_view(name).substr(prefix.size()));
  if (index && bus.mode == kIde && *index >= kMaxIdeDrives) return std::nullopt;
  return index;
}

}  // namespace vexa::domain_xml::build
