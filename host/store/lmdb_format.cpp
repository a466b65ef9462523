#include "host/store/lmdb_format.h"

#include "host/store/key.h"

namespace vexa::store {

void StoreBigEndian(char* out, std::uint64_t number) {
  for (std::size_t i = kNumberBytes; i-- > 0; number >>= 8) out[i] = static_cast<char>(number & 0xFF);
}

std::uint64_t LoadBigEndian(const char* in) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < kNumberBytes; ++i) number = number << 8 | static_cast<unsigned char>(in[i]);
  return number;
}

MDB_val ToVal(std::string_view bytes) { return MDB_val{bytes.size(), const_cast<char*>(bytes.data())}; }

std::string_view ToView(const MDB_val& value) { return {static_cast<const char*>(value.mv_data), value.mv_size}; }

int GetNumber(MDB_txn* transaction, MDB_dbi database, std::string_view name, std::uint64_t& number) {
  MDB_val key = ToVal(name);
  MDB_val value{};
  const int code = mdb_get(transaction, database, &key, &value);
  if (code != 0) return code;
  if (value.mv_size != kNumberBytes) return MDB_CORRUPTED;
  number = LoadBigEndian(static_cast<const char*>(value.mv_data));
  return 0;
}

int PutNumber(MDB_txn* transaction, MDB_dbi database, std::string_view name, std::uint64_t number) {
  char bytes[kNumberBytes];
  StoreBigEndian(bytes, number);
  MDB_val key = ToVal(name);
  MDB_val value{sizeof bytes, bytes};
  return mdb_put(transaction, database, &key, &value, 0);
}

std::optional<ValueView> ParseValue(std::string_view stored) {
  if (stored.size() < kNumberBytes) return std::nullopt;
  return ValueView{LoadBigEndian(stored.data()), stored.substr(kNumberBytes)};
}

// One byte for the kind, two for the length (big-endian; a key is at most 511 bytes), then the key.
void EncodeChange(std::string& record, std::string_view key, ChangeKind kind) {
  record += static_cast<char>(kind);
  record += static_cast<char>(key.size() >> 8);
  record += static_cast<char>(key.size() & 0xFF);
  record += key;
}

std::optional<EncodedChange> DecodeChange(std::string_view& record) {
  constexpr std::size_t kHeaderBytes = 3;
  if (record.size() < kHeaderBytes) return std::nullopt;
  const auto kind = static_cast<ChangeKind>(record[0]);
  const std::size_t length =
      static_cast<std::size_t>(static_cast<unsigned char>(record[1])) << 8 | static_cast<unsigned char>(record[2]);
  if (kind != ChangeKind::kPut && kind != ChangeKind::kDelete) return std::nullopt;
  if (length > kMaxKeyBytes || length > record.size() - kHeaderBytes) return std::nullopt;
  const std::string_view key = record.substr(kHeaderBytes, length);
  record.remove_prefix(kHeaderBytes + length);
  return EncodedChange{key, kind};
}

}  // namespace vexa::store
