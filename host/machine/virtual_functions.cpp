#include "host/machine/virtual_functions.h"

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "host/machine/network_links.h"

namespace vexa::machine {
namespace {

namespace fs = std::filesystem;

constexpr int kMaxFunctions = 256;  // of a card

// "0000:3b:02.1"
bool IsPciAddress(std::string_view text) {
  constexpr std::string_view kForm = "hhhh:hh:hh.h";
  return std::ranges::equal(text, kForm, [](char c, char form) {
    const bool is_digit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    return form == 'h' ? is_digit : c == form;
  });
}

bool IsUsedByHost(const std::string& root, const fs::path& function) {
  const NetworkLinks links(root);
  std::error_code error;
  for (fs::directory_iterator entry(function / "net", error), end; !error && entry != end; entry.increment(error)) {
    const std::string interface = entry->path().filename().string();
    if (links.IsAdminUp(interface) || !links.MasterOf(interface).empty()) return true;
  }
  return false;
}

}  // namespace

VirtualFunctions FindVirtualFunctions(const std::string& root, const std::string& card) {
  VirtualFunctions found;
  if (!NetworkLinks(root).IsHardware(card)) return found;
  const fs::path device = root + "/sys/class/net/" + card + "/device";
  for (int number = 0; number < kMaxFunctions; ++number) {
    std::error_code error;
    const fs::path link = device / ("virtfn" + std::to_string(number));
    const std::string address = fs::read_symlink(link, error).filename().string();
    if (error) break;
    ++found.total;
    const bool has_group = fs::exists(fs::symlink_status(link / "iommu_group", error));
    if (IsPciAddress(address) && has_group && !IsUsedByHost(root, link)) found.usable.push_back(address);
  }
  return found;
}

}  // namespace vexa::machine
