#include "host/store/lmdb_snapshot.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "host/store/key.h"
#include "host/store/lmdb_cursor.h"
#include "host/store/lmdb_error.h"
#include "host/store/lmdb_format.h"

namespace vexa::store {
namespace {

Error CorruptError(std::string_view what) {
  return Error(ErrorCode::kCorrupt, fmt::format("The store contains {} that cannot be understood", what));
}

// 0 when `name` is missing: there has been no commit yet.
int GetNumberOrZero(MDB_txn* transaction, MDB_dbi database, std::string_view name, std::uint64_t& number) {
  const int code = GetNumber(transaction, database, name, number);
  return code == MDB_NOTFOUND ? 0 : code;
}

}  // namespace

Result<std::unique_ptr<LmdbSnapshot>> LmdbSnapshot::Take(std::shared_ptr<LmdbEnvironment> environment) {
  Result<ReadTransaction> transaction = environment->BeginRead();
  if (!transaction.ok()) return transaction.error();
  std::unique_ptr<LmdbSnapshot> snapshot(new LmdbSnapshot(std::move(environment), std::move(transaction).value()));
  MDB_txn* const handle = snapshot->transaction_.get();
  const MDB_dbi meta = snapshot->environment_->meta();
  int code = GetNumberOrZero(handle, meta, kRevisionName, snapshot->revision_);
  if (code == 0) code = GetNumberOrZero(handle, meta, kLogStartName, snapshot->log_start_);
  if (code != 0) return LmdbError("Cannot read the store's revision", code);
  return snapshot;
}

Result<std::optional<ValueView>> LmdbSnapshot::Get(std::string_view key) const {
  if (key.empty() || key.size() > kMaxKeyBytes) return std::optional<ValueView>();
  MDB_val name = ToVal(key);
  MDB_val value{};
  const int code = mdb_get(transaction_.get(), environment_->data(), &name, &value);
  if (code == MDB_NOTFOUND) return std::optional<ValueView>();
  if (code != 0) return LmdbError(fmt::format("Cannot read '{}'", key), code);
  const std::optional<ValueView> parsed = ParseValue(ToView(value));
  if (!parsed) return CorruptError("a value");
  return parsed;
}

Result<std::vector<std::string>> LmdbSnapshot::Children(std::string_view prefix) const {
  const std::string base = std::string(prefix) + "/";
  std::vector<std::string> encoded;
  int code = MDB_NOTFOUND;
  LmdbCursor cursor(transaction_.get(), environment_->data());
  if (base.size() <= kMaxKeyBytes) code = cursor.Seek(base);
  while (code == 0 && cursor.key().starts_with(base)) {
    const std::string_view rest = cursor.key().substr(base.size());
    const std::size_t end = rest.find('/');
    encoded.emplace_back(rest.substr(0, end));
    if (end == std::string_view::npos) {
      // Continue with the next key: "a-b" and "a.b" sort between "a" and "a/…" and must not be skipped.
      code = cursor.Next();
    } else {
      // All keys below "a/" sort before "a0", and nothing else does: '0' follows '/'.
      code = cursor.Seek(base + encoded.back() + static_cast<char>('/' + 1));
    }
  }
  if (code != 0 && code != MDB_NOTFOUND) {
    return LmdbError(fmt::format("Cannot list the children of '{}'", prefix), code);
  }
  // For the same reason "a-b" can come before the folder "a", and "a" can appear twice.
  std::sort(encoded.begin(), encoded.end());
  encoded.erase(std::unique(encoded.begin(), encoded.end()), encoded.end());
  std::vector<std::string> children;
  children.reserve(encoded.size());
  for (const std::string& segment : encoded) {
    if (std::optional<std::string> decoded = DecodeSegment(segment)) children.push_back(*std::move(decoded));
  }
  return children;
}

Status LmdbSnapshot::Scan(std::string_view prefix,
                          const std::function<bool(std::string_view key, const ValueView& value)>& visit) const {
  const Result<std::optional<ValueView>> own = Get(prefix);
  if (!own.ok()) return own.error();
  if (own->has_value() && !visit(prefix, **own)) return {};
  const std::string base = std::string(prefix) + "/";
  if (base.size() > kMaxKeyBytes) return {};
  LmdbCursor cursor(transaction_.get(), environment_->data());
  int code = cursor.Seek(base);
  for (; code == 0 && cursor.key().starts_with(base); code = cursor.Next()) {
    const std::optional<ValueView> value = ParseValue(cursor.value());
    if (!value) return CorruptError("a value");
    if (!visit(cursor.key(), *value)) return {};
  }
  if (code == 0 || code == MDB_NOTFOUND) return {};
  return LmdbError(fmt::format("Cannot read the keys below '{}'", prefix), code);
}

Result<ChangeBatch> LmdbSnapshot::ChangesAfter(Revision from, std::string_view prefix, std::size_t max_changes) const {
  ChangeBatch batch;
  batch.revision = revision_;
  // A revision in the future was issued by another store, so the changes since are unknown.
  batch.lost = from < log_start_ || from > revision_;
  if (batch.lost || from == revision_) return batch;
  char first[kNumberBytes];
  StoreBigEndian(first, from + 1);
  LmdbCursor cursor(transaction_.get(), environment_->changes());
  int code = cursor.Seek({first, sizeof first});
  for (; code == 0 && batch.changes.size() < max_changes; code = cursor.Next()) {
    if (cursor.key().size() != kNumberBytes) return CorruptError("a change record");
    const Revision revision = LoadBigEndian(cursor.key().data());
    std::string_view record = cursor.value();
    while (const std::optional<EncodedChange> change = DecodeChange(record)) {
      if (!IsAtOrBelow(change->key, prefix)) continue;
      batch.changes.push_back({revision, std::string(change->key), change->kind == ChangeKind::kDelete});
    }
    if (!record.empty()) return CorruptError("a change record");
    batch.revision = revision;
  }
  if (code != 0 && code != MDB_NOTFOUND) return LmdbError("Cannot read the change log", code);
  if (code == MDB_NOTFOUND) batch.revision = revision_;
  return batch;
}

}  // namespace vexa::store
