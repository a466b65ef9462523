// The type of a row in the table of guest settings (host/base/guest_settings.h).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace vexa {

// The first three types are scalars: one value, with the same name in requests, in the guest's record and in the reply
// to "get".
enum class SettingType {
  kString,
  kNumber,
  kBoolean,
  kId,    // a UUID that is checked and not stored
  kList,  // strings, or changes of disks and interfaces, which have records of their own
};

// The format that a string must have.
enum class TextFormat { kOneOf, kGuestName, kDescription, kKeyboardLayout };

// When a change takes effect for a running guest: with the commit of the record, when the running machine can be
// changed, or only when a start makes a new machine.
enum class TakesEffect { kImmediately, kWhileRunning, kAtNextStart };

// A parameter of edits: what becomes of the changes while the guest runs. Absent: it takes what it can, and the rest at
// its next start.
inline constexpr char kApply[] = "apply";
inline constexpr char kApplyNow[] = "now";                 // an edit that cannot be applied completely is refused
inline constexpr char kApplyAtNextStart[] = "next_start";  // the running machine stays as it is

// The unit of a number in requests and records. "get" replies KiB for kMib.
enum class Unit { kNone, kMib };

// Groups of related settings, in the order in which the command line shows them.
enum class SettingTopic {
  kIdentity,
  kRepository,
  kProcessors,
  kProcessorFeatures,
  kMemory,
  kScreen,
  kBoot,
  kHostStart,
  kUsb,
  kDrives,
  kParts,
  kGrants,
};

// A row that leaves out a member without a default does not compile.
struct GuestSetting {
  const char* name;
  SettingType type;
  TakesEffect takes_effect;
  SettingTopic topic;
  std::int64_t min = 0;  // of a number
  std::int64_t max = 0;
  Unit unit = Unit::kNone;
  bool is_on_by_default = false;                          // of a boolean: the default if the record lacks it
  TextFormat format = TextFormat::kOneOf;                 // of a string
  std::span<const std::string_view> allowed_values = {};  // of kOneOf
  const char* expected = nullptr;                         // of a string: what the value must be, for messages
  const char* label = nullptr;                            // in "vexa guest get"; null: not shown there
  const char* help = nullptr;                             // in "vexa guest set"; null: cannot be set there
  const char* for_users;                                  // in the API's description
  const char* for_hosts;  // in the description of the API between hosts; null: not sent between hosts

  // Whether the setting is a single value that the guest's record stores.
  constexpr bool IsScalar() const {
    return type == SettingType::kString || type == SettingType::kNumber || type == SettingType::kBoolean;
  }
};

}  // namespace vexa
