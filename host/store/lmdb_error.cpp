#include "host/store/lmdb_error.h"

#include <lmdb.h>

#include <cerrno>
#include <utility>

#include "host/base/rows.h"

namespace vexa::store {
namespace {

struct CodeRow {
  int lmdb_code;
  ErrorCode code;
};

constexpr CodeRow kCodes[] = {
    {MDB_INVALID, ErrorCode::kCorrupt},
    {MDB_VERSION_MISMATCH, ErrorCode::kCorrupt},
    {MDB_CORRUPTED, ErrorCode::kCorrupt},
    {MDB_PAGE_NOTFOUND, ErrorCode::kCorrupt},
    {MDB_INCOMPATIBLE, ErrorCode::kCorrupt},
    {MDB_CURSOR_FULL, ErrorCode::kCorrupt},
    {MDB_READERS_FULL, ErrorCode::kBusy},
    {MDB_MAP_FULL, ErrorCode::kNoSpace},
    {MDB_TXN_FULL, ErrorCode::kNoSpace},
    {MDB_BAD_VALSIZE, ErrorCode::kInvalid},
    {ENOSPC, ErrorCode::kNoSpace},
    {EDQUOT, ErrorCode::kNoSpace},
    {EFBIG, ErrorCode::kNoSpace},
    {EACCES, ErrorCode::kDenied},
    {EPERM, ErrorCode::kDenied},
    {EROFS, ErrorCode::kDenied},
};

ErrorCode CodeOf(int lmdb_code) {
  const CodeRow* const row = FindRow(kCodes, &CodeRow::lmdb_code, lmdb_code);
  return row != nullptr ? row->code : ErrorCode::kInternal;
}

}  // namespace

Error LmdbError(std::string message, int code) {
  if (code > 0) return SystemError(CodeOf(code), std::move(message), code);  // mdb_strerror is not thread-safe here
  return Error(CodeOf(code), std::move(message), mdb_strerror(code));
}

Error ThreadError(const std::string& message, const std::system_error& failure) {
  return Error(ErrorCode::kUnavailable, message + ". Raise the limit on processes (ulimit -u, TasksMax=)",
               failure.code().message());
}

}  // namespace vexa::store
