#include "host/accounts/account_pam.h"

#include <security/pam_appl.h>
#include <string.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <utility>

#include "host/accounts/account_nss.h"

namespace vexa::accounts {
namespace {

struct Credentials {
  const std::string& name;
  const std::string& password;
};

void FreeReplies(pam_response* replies, int count) {
  for (int i = 0; i < count; ++i) {
    if (replies[i].resp == nullptr) continue;
    ::explicit_bzero(replies[i].resp, ::strlen(replies[i].resp));
    std::free(replies[i].resp);
  }
  std::free(replies);
}

// Answers the prompts of the modules (pam_conv(3)). Messages of the modules are ignored, because no user would see
// them. The replies are allocated with calloc(3) and strdup(3), because PAM frees them.
int Converse(int count, const pam_message** messages, pam_response** replies, void* data) {
  const auto& credentials = *static_cast<const Credentials*>(data);
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  auto* responses = static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
  if (responses == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const std::string* answer = nullptr;
    switch (messages[i]->msg_style) {
      case PAM_PROMPT_ECHO_OFF:
        answer = &credentials.password;
        break;
      case PAM_PROMPT_ECHO_ON:
        answer = &credentials.name;
        break;
      case PAM_ERROR_MSG:
      case PAM_TEXT_INFO:
        continue;
      default:
        FreeReplies(responses, count);
        return PAM_CONV_ERR;
    }
    responses[i].resp = ::strdup(answer->c_str());
    if (responses[i].resp == nullptr) {
      FreeReplies(responses, count);
      return PAM_BUF_ERR;
    }
  }
  *replies = responses;
  return PAM_SUCCESS;
}

// One PAM transaction. The destructor ends it with its last status.
class Transaction {
 public:
  Transaction(const PamOptions& options, const Credentials& credentials)
      : conversation_{&Converse, const_cast<Credentials*>(&credentials)} {
    status_ = options.config_directory.empty()
                  ? ::pam_start(options.service.c_str(), credentials.name.c_str(), &conversation_, &handle_)
                  : ::pam_start_confdir(options.service.c_str(), credentials.name.c_str(), &conversation_,
                                        options.config_directory.c_str(), &handle_);
    if (status_ != PAM_SUCCESS) handle_ = nullptr;
  }
  ~Transaction() {
    if (handle_ != nullptr) ::pam_end(handle_, status_);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // Checks that the password is right and the account may be used today. Returns a PAM status. After a failure, PAM
  // delays the return.
  int Authenticate() {
    constexpr int kFlags = PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK;
    if (status_ == PAM_SUCCESS) status_ = ::pam_authenticate(handle_, kFlags);
    if (status_ == PAM_SUCCESS) status_ = ::pam_acct_mgmt(handle_, kFlags);
    return status_;
  }

  // The authenticated user: a PAM module may have changed the name. "" when unknown.
  std::string UserName() {
    const void* item = nullptr;
    if (handle_ == nullptr || ::pam_get_item(handle_, PAM_USER, &item) != PAM_SUCCESS || item == nullptr) return {};
    return static_cast<const char*>(item);
  }

 private:
  const pam_conv conversation_;
  pam_handle_t* handle_ = nullptr;
  int status_ = PAM_SYSTEM_ERR;
};

// Whether the status means that PAM refuses the user, rather than that it could not check.
bool IsRefusal(int status) {
  switch (status) {
    case PAM_AUTH_ERR:
    case PAM_USER_UNKNOWN:
    case PAM_MAXTRIES:
    case PAM_PERM_DENIED:
    case PAM_CRED_INSUFFICIENT:
    case PAM_CRED_EXPIRED:
    case PAM_ACCT_EXPIRED:
    case PAM_NEW_AUTHTOK_REQD:
    case PAM_AUTHTOK_EXPIRED:
      return true;
    default:
      return false;
  }
}

class PamAccounts : public AccountProvider {
 public:
  explicit PamAccounts(PamOptions options) : options_(std::move(options)) {}

  Result<User> FindUser(const std::string& name) const override {
    if (!IsValidAccountName(name)) return Error(ErrorCode::kNotFound, "The user name is invalid");
    return AddGroups(NssFindUser(name));
  }
  Result<User> FindUserByUid(std::uint32_t uid) const override { return AddGroups(NssFindUserByUid(uid)); }
  Result<Group> FindGroupByGid(std::uint32_t gid) const override { return NssFindGroupByGid(gid); }

  Result<User> VerifyPassword(const std::string& name, const std::string& password) const override {
    const Error denied(ErrorCode::kDenied, "The name or the password is wrong");
    if (!IsValidAccountName(name)) return denied;
    // PAM's strings end at a NUL, and its modules take at most PAM_MAX_RESP_SIZE bytes, including that NUL.
    if (password.size() >= PAM_MAX_RESP_SIZE || password.find('\0') != std::string::npos) return denied;
    const Credentials credentials{name, password};
    Transaction transaction(options_, credentials);
    const int status = transaction.Authenticate();
    if (IsRefusal(status)) return denied;
    if (status != PAM_SUCCESS) {
      // pam_strerror(3) ignores its handle on Linux, and pam_start may have failed before it created one.
      return Error(ErrorCode::kUnavailable, "The password cannot be checked now", ::pam_strerror(nullptr, status));
    }
    auto user = FindUser(transaction.UserName());
    if (!user.ok() && user.error().code() == ErrorCode::kNotFound) return denied;
    return user;
  }

 private:
  Result<User> AddGroups(const Result<NssUser>& entry) const {
    if (!entry.ok()) return entry.error();
    auto groups = NssGroupsOf(*entry);
    if (!groups.ok()) return groups.error();
    auto stamp = NssPasswordStamp(entry->name, options_.shadow_file);
    if (!stamp.ok()) return stamp.error();
    User user{
        entry->name, entry->uid, entry->gid, std::move(groups).value(), entry->uid == 0, std::move(stamp).value()};
    user.is_administrator |= std::any_of(user.groups.begin(), user.groups.end(), [this](const Group& group) {
      return group.name == options_.administrators_group;
    });
    return user;
  }

  const PamOptions options_;
};

}  // namespace

std::unique_ptr<AccountProvider> MakePamAccounts(const PamOptions& options) {
  return std::make_unique<PamAccounts>(options);
}

}  // namespace vexa::accounts
