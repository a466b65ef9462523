// How LMDB stores the keyspace. Numbers are 8 bytes, big-endian, so that keys sort by number.
//   data:    key -> revision, then the JSON text
//   changes: revision -> the keys that this commit changed (EncodeChange, one after another)
//   meta:    "format", "revision" (the last commit), "log_start" (every later commit is in `changes`)
#pragma once

#include <lmdb.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/store/store.h"

namespace vexa::store {

inline constexpr const char* kDataName = "data";
inline constexpr const char* kChangesName = "changes";
inline constexpr const char* kMetaName = "meta";
inline constexpr std::string_view kFormatName = "format";
inline constexpr std::string_view kRevisionName = "revision";
inline constexpr std::string_view kLogStartName = "log_start";
inline constexpr std::uint64_t kFormatVersion = 1;
inline constexpr std::size_t kNumberBytes = 8;

void StoreBigEndian(char* out, std::uint64_t number);
std::uint64_t LoadBigEndian(const char* in);

// LMDB's view of bytes; LMDB does not write through it.
MDB_val ToVal(std::string_view bytes);
std::string_view ToView(const MDB_val& value);

// 0 or LMDB's code; MDB_NOTFOUND when the number is missing, MDB_CORRUPTED when it does not have 8 bytes.
int GetNumber(MDB_txn* transaction, MDB_dbi database, std::string_view name, std::uint64_t& number);
int PutNumber(MDB_txn* transaction, MDB_dbi database, std::string_view name, std::uint64_t number);

// The revision and text of a stored value; not set when `stored` is too short.
std::optional<ValueView> ParseValue(std::string_view stored);

enum class ChangeKind : char { kPut = 'p', kDelete = 'd' };

// Appends one changed key to the record of a commit.
void EncodeChange(std::string& record, std::string_view key, ChangeKind kind);

struct EncodedChange {
  std::string_view key;
  ChangeKind kind = ChangeKind::kPut;
};

// Removes the next change from the front of `record` and returns it. Not set at the end, where `record` is empty, and
// where the record is damaged, where it is not.
std::optional<EncodedChange> DecodeChange(std::string_view& record);

}  // namespace vexa::store
