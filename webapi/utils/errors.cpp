#include <string>

#include "json/readers.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

struct CheckKeyword {
  VMCHECK check;
  const char* keyword;
};

constexpr CheckKeyword kCheckKeywords[] = {
    {VMCHECK_NO_CPU_THREADS, "no_cpu_threads"},
    {VMCHECK_NO_RAM, "no_ram"},
    {VMCHECK_NO_NETWORK, "no_network"},
    {VMCHECK_HOST_OFFLINE, "host_offline"},
    {VMCHECK_NO_CPU_THREADS_FOR_RESERVATION, "no_cpu_threads_for_reservation"},
    {VMCHECK_EFI_ENABLED, "efi_enabled"},
    {VMCHECK_CPU_COMPATIBLE_MODE_REQUIRED, "cpu_compatible_mode_required"},
    {VMCHECK_HARDWARE_INCOMPATIBLE, "hardware_incompatible"},
    {VMCHECK_SRIOV_ENABLED, "sriov_enabled"},
};

// Whether a message can be appended: `current` is the code's member, or null.
bool CanAppendError(const Json::Value& errors, const Json::Value* current) {
  return current ? current->isArray() : errors.isObject() || errors.isNull();
}

// Intentional: an empty existing text is kept, so the result may begin with the separator.
void AppendMessage(Json::Value& list, Json::ArrayIndex index, const std::string& message) {
  list[index] = json::String(json::Element(list, index)) + ", " + message;
}

}  // namespace

std::string GetVMCheckText(const VMCHECK& check) {
  for (const CheckKeyword& row : kCheckKeywords) {
    if (row.check == check) return row.keyword;
  }
  return "unknown[" + std::to_string(static_cast<int>(check)) + "]";
}

void AppendError(const std::string& message, int code, Json::Value& errors) {
  const std::string code_text = std::to_string(code);
  const Json::Value* current = json::FindMember(errors, code_text);
  if (!CanAppendError(errors, current)) {
    VEXA_LOG("utils", "AppendError used in the wrong way");
    return;
  }
  Json::Value& list = json::EnsureObject(errors)[code_text];
  if (current) {
    AppendMessage(list, 0, message);
  } else {
    json::EnsureArray(list).append(message);
  }
}

void AppendError(const std::string& message, const std::string& second, int code, Json::Value& errors) {
  const std::string code_text = std::to_string(code);
  const Json::Value* current = json::FindMember(errors, code_text);
  if (!CanAppendError(errors, current)) {
    VEXA_LOG("utils", "AppendError2 used in the wrong way");
    return;
  }
  Json::Value& list = json::EnsureObject(errors)[code_text];
  if (current) {
    if (!message.empty()) AppendMessage(list, 0, message);
    if (!second.empty()) AppendMessage(list, 1, second);
  } else {
    json::EnsureArray(list).append(message);
    list.append(second);
  }
}

}  // namespace VexaVirtualization
