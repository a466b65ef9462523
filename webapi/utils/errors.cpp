#include <string>

#include "json/readers.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization {
namespace {

struct CheckText {
  VMCHECK check;
  const char* text;
};

constexpr CheckText kCheckTexts[] = {
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

// Whether `errors` can take a message under a code whose member is `known`.
bool IsAccumulator(const Json::Value& errors, const Json::Value* known) {
  return known ? known->isArray() : errors.isObject() || errors.isNull();
}

// Intentional: what is there comes first even when it is empty, so that a text may begin with the separator.
void Extend(Json::Value& list, Json::ArrayIndex index, const std::string& message) {
  list[index] = json::String(json::Element(list, index)) + ", " + message;
}

}  // namespace

std::string GetVMCheckText(const VMCHECK& check) {
  for (const CheckText& row : kCheckTexts) {
    if (row.check == check) return row.text;
  }
  return "unknown[" + std::to_string(static_cast<int>(check)) + "]";
}

void AppendError(const std::string& message, int code, Json::Value& errors) {
  const std::string code_text = std::to_string(code);
  const Json::Value* known = json::FindMember(errors, code_text);
  if (!IsAccumulator(errors, known)) {
    VEXA_LOG("utils", "AppendError used in the wrong way");
    return;
  }
  Json::Value& list = json::MakeObject(errors)[code_text];
  if (known) {
    Extend(list, 0, message);
  } else {
    json::MakeArray(list).append(message);
  }
}

void AppendError(const std::string& message, const std::string& second, int code, Json::Value& errors) {
  const std::string code_text = std::to_string(code);
  const Json::Value* known = json::FindMember(errors, code_text);
  if (!IsAccumulator(errors, known)) {
    VEXA_LOG("utils", "AppendError2 used in the wrong way");
    return;
  }
  Json::Value& list = json::MakeObject(errors)[code_text];
  if (known) {
    if (!message.empty()) Extend(list, 0, message);
    if (!second.empty()) Extend(list, 1, second);
  } else {
    json::MakeArray(list).append(message);
    list.append(second);
  }
}

}  // namespace VexaVirtualization
