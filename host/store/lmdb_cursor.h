// A cursor that closes itself.
#pragma once

#include <lmdb.h>

#include <string_view>

namespace vexa::store {

// Every move returns 0, MDB_NOTFOUND at the end, or another LMDB code. Keys and values are valid until the next
// write or the end of the transaction.
class LmdbCursor {
 public:
  LmdbCursor(MDB_txn* transaction, MDB_dbi database) : opened_(mdb_cursor_open(transaction, database, &cursor_)) {}
  ~LmdbCursor() {
    if (cursor_ != nullptr) mdb_cursor_close(cursor_);
  }
  LmdbCursor(const LmdbCursor&) = delete;
  LmdbCursor& operator=(const LmdbCursor&) = delete;

  int First() { return Move(MDB_FIRST); }
  int Next() { return Move(MDB_NEXT); }
  // To the first key that is not less than `key`.
  int Seek(std::string_view key) {
    key_ = MDB_val{key.size(), const_cast<char*>(key.data())};
    return Move(MDB_SET_RANGE);
  }
  int Delete() { return mdb_cursor_del(cursor_, 0); }

  std::string_view key() const { return {static_cast<const char*>(key_.mv_data), key_.mv_size}; }
  std::string_view value() const { return {static_cast<const char*>(value_.mv_data), value_.mv_size}; }

 private:
  int Move(MDB_cursor_op operation) {
    return opened_ != 0 ? opened_ : mdb_cursor_get(cursor_, &key_, &value_, operation);
  }

  MDB_cursor* cursor_ = nullptr;
  const int opened_;
  MDB_val key_{};
  MDB_val value_{};
};

}  // namespace vexa::store
