#include "host/accounts/account_password.h"

#include <crypt.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <semaphore>
#include <string_view>
#include <thread>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/mutex.h"
#include "host/base/uuid.h"

namespace vexa::accounts {
namespace {

constexpr const char* kYescryptPrefix = "$y$";
constexpr int kMaxParallelHashes = 1024;

// Limits how many hashes are computed at the same time, because each takes 16 MiB and a whole processor.
class HashSlot {
 public:
  HashSlot() { Slots().acquire(); }
  ~HashSlot() { Slots().release(); }
  HashSlot(const HashSlot&) = delete;
  HashSlot& operator=(const HashSlot&) = delete;

 private:
  static std::counting_semaphore<kMaxParallelHashes>& Slots() {
    static std::counting_semaphore<kMaxParallelHashes> slots(
        std::clamp(2 * static_cast<int>(std::thread::hardware_concurrency()), 2, kMaxParallelHashes));
    return slots;
  }
};

// A copy of a secret that is wiped on destruction.
class Secret {
 public:
  explicit Secret(std::string text) : text_(std::move(text)) {}
  ~Secret() { ::explicit_bzero(text_.data(), text_.size()); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  const char* c_str() const { return text_.c_str(); }

 private:
  std::string text_;
};

struct WipingDelete {
  void operator()(crypt_data* data) const {
    ::explicit_bzero(data, sizeof(*data));
    delete data;
  }
};

// "" when the system cannot compute the hash: unknown method, out of memory.
std::string CryptOnce(const char* password, const char* setting) {
  const std::unique_ptr<crypt_data, WipingDelete> data(new crypt_data{});
  const char* hash = ::crypt_rn(password, setting, data.get(), sizeof(crypt_data));
  return hash == nullptr || hash[0] == '*' ? std::string() : std::string(hash);
}

std::string Crypt(const std::string& password, const char* setting) {
  const HashSlot slot;
  if (password.size() < CRYPT_MAX_PASSPHRASE_SIZE) return CryptOnce(password.c_str(), setting);
  // The longest password is one byte too long for crypt(3). It is hashed in two steps, so that every byte matters.
  // Whether there are two steps depends on the password alone, so the time reveals nothing about the user.
  const std::size_t half = password.size() / 2;
  const std::string first_hash = CryptOnce(Secret(password.substr(0, half)).c_str(), setting);
  if (first_hash.empty()) return {};
  return CryptOnce(Secret(first_hash + password.substr(half)).c_str(), setting);
}

bool EqualInConstantTime(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;  // the lengths of hashes are not secret
  volatile unsigned char difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    difference = static_cast<unsigned char>(difference | (static_cast<unsigned char>(a[i] ^ b[i])));
  }
  return difference == 0;
}

// The hash against which the passwords of unknown users are checked. Computed on first use; "" when the system cannot
// compute it, which the next call retries.
std::string DummyHash() {
  static Mutex mutex;
  static std::string hash VEXA_GUARDED_BY(mutex);
  const MutexLock lock(mutex);
  if (hash.empty()) {
    auto computed = HashPassword("a password that no user has");
    if (computed.ok()) hash = std::move(computed).value();
  }
  return hash;
}

}  // namespace

Status CheckNewPassword(const std::string& password) {
  if (password.size() < kMinPasswordBytes || password.size() > kMaxPasswordBytes) {
    return Error(ErrorCode::kInvalid, "A password must have 8 to 512 bytes");
  }
  if (password.find('\0') != std::string::npos) {
    return Error(ErrorCode::kInvalid, "A password must not contain a NUL character");
  }
  if (!IsValidUtf8(password)) return Error(ErrorCode::kInvalid, "A password must be valid UTF-8");
  return {};
}

Result<std::string> HashPassword(const std::string& password) {
  char setting[CRYPT_GENSALT_OUTPUT_SIZE] = {};
  // 0 and nullptr: the default cost, and random bytes from the system.
  if (::crypt_gensalt_rn(kYescryptPrefix, 0, nullptr, 0, setting, sizeof(setting)) == nullptr) {
    return SystemError(ErrorCode::kInternal, "Cannot generate a salt for a password", errno);
  }
  std::string hash = Crypt(password, setting);
  if (!IsStoredHashValid(hash) || IsLoginDisabled(hash)) {
    return Error(ErrorCode::kInternal, "Cannot hash a password");
  }
  return hash;
}

bool IsLoginDisabled(const std::string& stored) { return stored.empty() || stored.front() == '!'; }

bool IsStoredHashValid(const std::string& stored) {
  if (stored.size() >= CRYPT_OUTPUT_SIZE) return false;
  if (stored.find_first_of(std::string_view("\0\n\r", 3)) != std::string::npos) return false;
  if (IsLoginDisabled(stored)) return true;
  return stored.rfind(kYescryptPrefix, 0) == 0 && ::crypt_checksalt(stored.c_str()) == CRYPT_SALT_OK;
}

std::string StampOfHash(const std::string& stored) { return NameBasedUuid("password stamp", stored); }

PasswordCheck CheckPassword(const std::string* stored, const std::string& password) {
  // Needed in every case, so that the longer time of the first call reveals nothing about the user either.
  const std::string dummy = DummyHash();
  if (dummy.empty()) return PasswordCheck::kUnavailable;
  // A password with a NUL never matches: crypt(3) would only see the part before it.
  const bool can_match = stored != nullptr && !IsLoginDisabled(*stored) && password.size() <= kMaxPasswordBytes &&
                         password.find('\0') == std::string::npos;
  const std::string& expected = can_match ? *stored : dummy;
  const std::string hash =
      password.size() <= kMaxPasswordBytes ? Crypt(password, expected.c_str()) : Crypt("too long", expected.c_str());
  if (hash.empty()) return PasswordCheck::kUnavailable;
  return EqualInConstantTime(hash, expected) && can_match ? PasswordCheck::kMatches : PasswordCheck::kMismatch;
}

}  // namespace vexa::accounts
