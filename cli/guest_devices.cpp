#include "cli/guest_devices.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/objects.h"
#include "cli/reply.h"

namespace vexa::cli {
namespace {

// A kind of device, as the reply to "get" lists it.
struct DeviceKind {
  const char* what;
  const char* list;
  const char* id;
  const char* address;  // another member that identifies a device; null without one
};
constexpr DeviceKind kDisks{"disk", "vdisks", "vdisk_id", nullptr};
constexpr DeviceKind kNics{"network interface", "vnics", "vnic_id", "mac"};

// 1 to 99.
std::optional<std::size_t> NumberOf(std::string_view text) {
  std::size_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool is_number = error == std::errc() && end == text.data() + text.size() && number > 0 && number < 100;
  return is_number ? std::optional(number) : std::nullopt;
}

bool IsMacAddress(std::string_view text) {
  if (text.size() != 17) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool is_hex =
        (text[i] >= '0' && text[i] <= '9') || (text[i] >= 'a' && text[i] <= 'f') || (text[i] >= 'A' && text[i] <= 'F');
    if (i % 3 == 2 ? text[i] != ':' : !is_hex) return false;
  }
  return true;
}

bool IsShort(const DeviceKind& kind, std::string_view text) {
  return NumberOf(text).has_value() || (kind.address != nullptr && IsMacAddress(text));
}

// The part of an argument that names the device, such as "1" of "1=50".
struct Reference {
  const DeviceKind* kind;
  std::string* argument;
  std::size_t begin;
  std::size_t size;
};

std::vector<Reference> ReferencesIn(GuestSetArguments& arguments) {
  std::vector<Reference> references;
  const auto add = [&](const DeviceKind& kind, std::vector<std::string>& list, const char* end) {
    for (std::string& text : list)
      references.push_back({&kind, &text, 0, std::min(text.find_first_of(end), text.size())});
  };
  add(kDisks, arguments.del_disks, "");
  add(kDisks, arguments.grow_disks, "=");
  add(kNics, arguments.del_nics, "");
  add(kNics, arguments.edit_nics, ",");
  // From the end, so that a replacement does not move the next ones.
  std::string& order = arguments.order_disks;
  for (std::size_t end = order.size(); !order.empty();) {
    const std::size_t comma = end == 0 ? std::string::npos : order.rfind(',', end - 1);
    const std::size_t begin = comma == std::string::npos ? 0 : comma + 1;
    references.push_back({&kDisks, &order, begin, end - begin});
    if (comma == std::string::npos) break;
    end = comma;
  }
  return references;
}

std::string_view TextOf(const Reference& reference) {
  return std::string_view(*reference.argument).substr(reference.begin, reference.size);
}

std::string LowerCase(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The id of the device that `text` refers to; "" when the guest has none.
std::string FindDevice(const Json::Value& guest, const DeviceKind& kind, std::string_view text) {
  const Json::Value& devices = VexaVirtualization::json::Elements(Member(guest, kind.list));
  const auto number = NumberOf(text);
  if (number && *number <= devices.size()) {
    return Text(Member(devices[static_cast<Json::ArrayIndex>(*number - 1)], kind.id));
  }
  for (const Json::Value& device : devices) {
    const bool is_it =
        kind.address != nullptr && LowerCase(Text(Member(device, kind.address))) == LowerCase(std::string(text));
    if (is_it) return Text(Member(device, kind.id));
  }
  return "";
}

}  // namespace

bool HasDeviceNumbers(const GuestSetArguments& arguments) {
  GuestSetArguments copy = arguments;
  const std::vector<Reference> references = ReferencesIn(copy);
  return std::ranges::any_of(references, [](const Reference& each) { return IsShort(*each.kind, TextOf(each)); });
}

ExitCode ResolveDevices(HttpClient& client, const std::string& guest_id, GuestSetArguments& arguments) {
  const CallOutcome got = CallApi(client, kGuestGet, ParameterJson("guest_id", guest_id));
  if (got.exit_code != ExitCode::kOk) return got.exit_code;
  for (const Reference& reference : ReferencesIn(arguments)) {
    const std::string text(TextOf(reference));
    if (!IsShort(*reference.kind, text)) continue;
    const std::string id = FindDevice(got.data, *reference.kind, text);
    if (id.empty()) {
      return Report(Error(ErrorCode::kNotFound, fmt::format("The guest has no {} '{}'; 'vexa guest get' shows them",
                                                            reference.kind->what, text)));
    }
    reference.argument->replace(reference.begin, reference.size, id);
  }
  return ExitCode::kOk;
}

ExitCode ResolveImages(HttpClient& client, Json::Value& parameters) {
  if (!parameters.isMember("iso_images")) return ExitCode::kOk;
  for (Json::Value& image : parameters["iso_images"]) {
    const std::string name = Text(image);
    if (name == kEmptyDrive || name.starts_with('/')) continue;
    std::string id;
    if (const ExitCode found = FindId(client, kImages, name, id); found != ExitCode::kOk) return found;
    image = id;
  }
  return ExitCode::kOk;
}

}  // namespace vexa::cli
