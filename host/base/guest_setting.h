// The columns of the table of a guest's settings (host/base/guest_settings.h).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace vexa {

// The first three are settings with one value, which the guest's record and the reply to "get" have under the same
// name as a request.
enum class SettingType {
  kText,
  kNumber,
  kYesNo,
  kId,    // a UUID that is checked and not stored
  kList,  // texts, or changes of parts that have records of their own
};

// What a text must be like.
enum class TextForm { kOneOfWords, kGuestName, kDescription, kKeyboardLayout };

// When a change counts for a guest that runs. Until then, the record's "pending" names it.
enum class Applies { kImmediately, kAtNextStart };

// Of a number in requests and records. "get" replies KiB for kMib.
enum class Unit { kNone, kMib };

// What people look at together. The command line shows settings in this order.
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

// A column without a default must be given: a row that leaves it out does not compile.
struct GuestSetting {
  const char* name;
  SettingType type;
  Applies applies;
  SettingTopic topic;
  std::int64_t min = 0;  // of a number
  std::int64_t max = 0;
  Unit unit = Unit::kNone;
  TextForm form = TextForm::kOneOfWords;         // of a text
  std::span<const std::string_view> words = {};  // of kOneOfWords
  const char* wanted = nullptr;                  // of a text: what a refusal asks for
  const char* label = nullptr;                   // in "vexa guest get"; null: not shown there
  const char* help = nullptr;                    // of "vexa guest set"; null: not a setting there
  const char* for_users;                         // in the API's description
  const char* for_hosts;                         // likewise; null: hosts do not take it

  // Whether it has one value that is stored.
  constexpr bool IsScalar() const {
    return type == SettingType::kText || type == SettingType::kNumber || type == SettingType::kYesNo;
  }
};

}  // namespace vexa
