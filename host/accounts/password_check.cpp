#include "host/accounts/password_check.h"

#include <security/pam_appl.h>
#include <string.h>

#include <cstddef>
#include <cstdlib>

#include "host/accounts/accounts.h"

namespace vexa::accounts {
namespace {

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
  const auto& question = *static_cast<const PasswordQuestion*>(data);
  if (count <= 0 || count > PAM_MAX_NUM_MSG) return PAM_CONV_ERR;
  auto* responses = static_cast<pam_response*>(std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
  if (responses == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const std::string* answer = nullptr;
    switch (messages[i]->msg_style) {
      case PAM_PROMPT_ECHO_OFF:
        answer = &question.password;
        break;
      case PAM_PROMPT_ECHO_ON:
        answer = &question.name;
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
  Transaction(const PasswordQuestion& question, const std::string& config_directory)
      : conversation_{&Converse, const_cast<PasswordQuestion*>(&question)} {
    status_ = config_directory.empty()
                  ? ::pam_start(question.service.c_str(), question.name.c_str(), &conversation_, &handle_)
                  : ::pam_start_confdir(question.service.c_str(), question.name.c_str(), &conversation_,
                                        config_directory.c_str(), &handle_);
    if (status_ != PAM_SUCCESS) handle_ = nullptr;
  }
  ~Transaction() {
    if (handle_ != nullptr) ::pam_end(handle_, status_);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  // Each returns a PAM status. After a wrong password, PAM delays the return.
  int CheckPassword() {
    if (status_ == PAM_SUCCESS) status_ = ::pam_authenticate(handle_, kFlags);
    return status_;
  }
  int CheckAccount() { return status_ = ::pam_acct_mgmt(handle_, kFlags); }

  // The authenticated user: a PAM module may have changed the name. "" when unknown.
  std::string UserName() {
    const void* item = nullptr;
    if (handle_ == nullptr || ::pam_get_item(handle_, PAM_USER, &item) != PAM_SUCCESS || item == nullptr) return {};
    return static_cast<const char*>(item);
  }

 private:
  static constexpr int kFlags = PAM_SILENT | PAM_DISALLOW_NULL_AUTHTOK;

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

}  // namespace

PasswordAnswer CheckPasswordWithPam(const PasswordQuestion& question, const std::string& config_directory) {
  // PAM's strings end at a NUL, and its modules take at most PAM_MAX_RESP_SIZE bytes, including that NUL.
  const bool is_possible = IsValidAccountName(question.name) && question.password.size() < PAM_MAX_RESP_SIZE &&
                           question.password.find('\0') == std::string::npos;
  if (!is_possible) return {PasswordAnswer::Outcome::kWrong, "", ""};
  Transaction transaction(question, config_directory);
  int status = transaction.CheckPassword();
  if (IsRefusal(status)) return {PasswordAnswer::Outcome::kWrong, "", ""};
  if (status == PAM_SUCCESS) status = transaction.CheckAccount();
  if (status == PAM_SUCCESS) return {PasswordAnswer::Outcome::kRight, transaction.UserName(), ""};
  // pam_strerror(3) ignores its handle on Linux, and pam_start may have failed before it created one.
  return {IsRefusal(status) ? PasswordAnswer::Outcome::kUnusable : PasswordAnswer::Outcome::kFailed, "",
          ::pam_strerror(nullptr, status)};
}

void Wipe(std::string& text) {
  ::explicit_bzero(text.data(), text.size());
  text.clear();
}

}  // namespace vexa::accounts
