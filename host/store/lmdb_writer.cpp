// KeyspaceWriter: the operations within one write transaction.
#include <cstring>
#include <limits>
#include <unordered_map>

#include "host/store/key.h"
#include "host/store/lmdb_cursor.h"
#include "host/store/lmdb_error.h"
#include "host/store/lmdb_format.h"
#include "host/store/lmdb_keyspace.h"

#include <fmt/format.h>

namespace vexa::store {
namespace {

bool HasStorableSize(const Operation& operation) {
  constexpr std::size_t kMaxTextBytes = std::numeric_limits<std::uint32_t>::max() - kNumberBytes;
  return !operation.key.empty() && operation.key.size() <= kMaxKeyBytes &&
         (!operation.text || operation.text->size() <= kMaxTextBytes);
}

// For each key, the position of its last operation.
std::unordered_map<std::string_view, std::size_t> LastOperationByKey(std::span<const Operation> operations) {
  std::unordered_map<std::string_view, std::size_t> positions;
  positions.reserve(operations.size());
  for (std::size_t i = 0; i < operations.size(); ++i) positions[operations[i].key] = i;
  return positions;
}

}  // namespace

int KeyspaceWriter::Load() {
  const int code = GetNumber(transaction_, environment_.meta(), kRevisionName, revision_);
  return code == MDB_NOTFOUND ? 0 : code;
}

Status KeyspaceWriter::Fail(std::string message, int code) {
  if (code_ == 0) code_ = code;
  return LmdbError(std::move(message), code);
}

Result<Revision> KeyspaceWriter::RevisionOf(std::string_view key) {
  if (key.empty() || key.size() > kMaxKeyBytes) return Revision{0};
  MDB_val name = ToVal(key);
  MDB_val value{};
  int code = mdb_get(transaction_, environment_.data(), &name, &value);
  if (code == MDB_NOTFOUND) return Revision{0};
  const std::optional<ValueView> parsed = code == 0 ? ParseValue(ToView(value)) : std::nullopt;
  if (parsed) return parsed->revision;
  if (code == 0) code = MDB_CORRUPTED;
  return Fail(fmt::format("Cannot read '{}'", key), code).error();
}

Status KeyspaceWriter::Apply(Revision revision, std::span<const Operation> operations) {
  if (revision <= revision_) {
    return Error(ErrorCode::kInvalid, fmt::format("Revision {} does not follow revision {}", revision, revision_));
  }
  for (const Operation& operation : operations) {
    if (!HasStorableSize(operation))
      return Error(ErrorCode::kInvalid, "A key or value has a size that cannot be stored");
  }
  const auto last_operations = LastOperationByKey(operations);
  std::string record;
  int code = 0;
  for (std::size_t i = 0; code == 0 && i < operations.size(); ++i) {
    if (last_operations.at(operations[i].key) == i) code = ApplyOne(revision, operations[i], record);
  }
  if (code == 0) code = LogChanges(revision, record);
  if (code == 0) code = StoreRevision(revision);
  if (code != 0) return Fail("Cannot write to the store", code);
  return {};
}

int KeyspaceWriter::ApplyOne(Revision revision, const Operation& operation, std::string& record) {
  MDB_val name = ToVal(operation.key);
  if (!operation.text) {
    const int code = mdb_del(transaction_, environment_.data(), &name, nullptr);
    if (code == MDB_NOTFOUND) return 0;
    if (code == 0) EncodeChange(record, operation.key, ChangeKind::kDelete);
    return code;
  }
  MDB_val space{kNumberBytes + operation.text->size(), nullptr};
  const int code = mdb_put(transaction_, environment_.data(), &name, &space, MDB_RESERVE);
  if (code != 0) return code;
  char* const out = static_cast<char*>(space.mv_data);
  StoreBigEndian(out, revision);
  if (!operation.text->empty()) std::memcpy(out + kNumberBytes, operation.text->data(), operation.text->size());
  EncodeChange(record, operation.key, ChangeKind::kPut);
  return 0;
}

Status KeyspaceWriter::Copy(std::string_view key, const ValueView& value) {
  MDB_val name = ToVal(key);
  MDB_val stored{};
  int code = mdb_get(transaction_, environment_.data(), &name, &stored);
  if (code == 0) {
    // The revision alone is not enough: a store restored from a backup counts the same numbers again.
    const std::optional<ValueView> known = ParseValue(ToView(stored));
    if (known && known->revision == value.revision && known->text == value.text) return {};
  }
  if (code != 0 && code != MDB_NOTFOUND) return Fail(fmt::format("Cannot read the copy of '{}'", key), code);
  MDB_val space{kNumberBytes + value.text.size(), nullptr};
  code = mdb_put(transaction_, environment_.data(), &name, &space, MDB_RESERVE);
  if (code != 0) return Fail(fmt::format("Cannot write the copy of '{}'", key), code);
  wrote_ = true;
  char* const out = static_cast<char*>(space.mv_data);
  StoreBigEndian(out, value.revision);
  if (!value.text.empty()) std::memcpy(out + kNumberBytes, value.text.data(), value.text.size());
  return {};
}

Status KeyspaceWriter::Remove(std::string_view key) {
  MDB_val name = ToVal(key);
  const int code = mdb_del(transaction_, environment_.data(), &name, nullptr);
  if (code == MDB_NOTFOUND) return {};
  if (code != 0) return Fail(fmt::format("Cannot remove the copy of '{}'", key), code);
  wrote_ = true;
  return {};
}

Status KeyspaceWriter::RemoveIf(const std::function<Result<bool>(std::string_view key)>& is_gone) {
  LmdbCursor cursor(transaction_, environment_.data());
  int code = cursor.First();
  while (code == 0) {
    const Result<bool> gone = is_gone(cursor.key());
    if (!gone.ok()) return gone.error();
    if (*gone) {
      code = cursor.Delete();
      wrote_ = true;
    }
    // After a deletion, the cursor is already on the next key, and LMDB's next returns that key.
    if (code == 0) code = cursor.Next();
  }
  if (code == MDB_NOTFOUND) return {};
  return Fail("Cannot remove from the copy", code);
}

Status KeyspaceWriter::SetRevision(Revision revision) {
  if (revision == revision_) return {};
  const int code = StoreRevision(revision);
  if (code != 0) return Fail("Cannot write the revision of the copy", code);
  return {};
}

int KeyspaceWriter::LogChanges(Revision revision, const std::string& record) {
  char number[kNumberBytes];
  StoreBigEndian(number, revision);
  MDB_val key{sizeof number, number};
  MDB_val value = ToVal(record);
  const int code = mdb_put(transaction_, environment_.changes(), &key, &value, MDB_APPEND);
  return code != 0 ? code : PruneLog();
}

int KeyspaceWriter::PruneLog() {
  MDB_stat stat{};
  int code = mdb_stat(transaction_, environment_.changes(), &stat);
  if (code != 0 || stat.ms_entries <= change_log_length_) return code;
  Revision pruned = 0;
  LmdbCursor cursor(transaction_, environment_.changes());
  for (std::size_t excess = stat.ms_entries - change_log_length_; excess > 0; --excess) {
    code = cursor.First();
    if (code == 0 && cursor.key().size() != kNumberBytes) code = MDB_CORRUPTED;
    if (code != 0) return code;
    pruned = LoadBigEndian(cursor.key().data());
    code = cursor.Delete();
    if (code != 0) return code;
  }
  return PutNumber(transaction_, environment_.meta(), kLogStartName, pruned);
}

int KeyspaceWriter::StoreRevision(Revision revision) {
  const int code = PutNumber(transaction_, environment_.meta(), kRevisionName, revision);
  if (code == 0) {
    revision_ = revision;
    wrote_ = true;
  }
  return code;
}

}  // namespace vexa::store
