#include "cli/login_file.h"

#include <fmt/format.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "cli/http_client.h"
#include "cli/reply.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxFileBytes = 64 * 1024;

std::string login_context;

std::string HomeFolder() {
  if (const char* home = std::getenv("HOME"); home && *home == '/') return home;
  const passwd* entry = ::getpwuid(::geteuid());
  return entry && entry->pw_dir ? entry->pw_dir : "";
}

Result<std::string> ReadSecretFile(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) && (info.st_mode & 077) != 0) {
    return Error(ErrorCode::kDenied,
                 fmt::format("Other users may access '{0}', which contains a token. Run: chmod 600 '{0}'", path));
  }
  return ReadFile(path, kMaxFileBytes);
}

}  // namespace

Result<std::string> ConfigurationFolder() {
  if (const char* config = std::getenv("XDG_CONFIG_HOME"); config && *config == '/') {
    return std::string(config) + "/vexa";
  }
  const std::string home = HomeFolder();
  if (home.empty()) return Error(ErrorCode::kNotFound, "Neither XDG_CONFIG_HOME nor HOME is set to a folder");
  return home + "/.config/vexa";
}

Status MakeConfigurationFolder() {
  const Result<std::string> folder = ConfigurationFolder();
  if (!folder) return folder.error();
  if (Status created = CreateDirectories(*folder, 0700); !created) return created;
  if (::chmod(folder->c_str(), 0700) == 0) return {};
  return SystemError(ErrorCode::kDenied, fmt::format("Cannot keep other users out of '{}'", *folder), errno);
}

void SetLoginContext(const std::string& name) { login_context = name; }

Result<std::string> LoginFilePath() {
  const Result<std::string> folder = ConfigurationFolder();
  if (!folder) return folder.error();
  return *folder + (login_context.empty() ? "/login.json" : fmt::format("/login-{}.json", login_context));
}

Result<std::optional<SavedLogin>> LoadLogin() {
  const Result<std::string> path = LoginFilePath();
  if (!path) return std::optional<SavedLogin>();
  const Result<std::string> content = ReadSecretFile(*path);
  if (!content && content.error().code() == ErrorCode::kNotFound) return std::optional<SavedLogin>();
  if (!content) return content.error();
  const Result<Json::Value> parsed = ParseJson(*content);
  SavedLogin login;
  if (parsed) {
    const Result<Endpoint> server = ParseServerUrl(Text(Member(*parsed, "server")));
    if (server) login.server = server->url;
    login.user = Text(Member(*parsed, "user"));
    login.token = Text(Member(*parsed, "token"));
  }
  if (login.server.empty() || !IsValidToken(login.token)) {
    return Error(ErrorCode::kCorrupt,
                 fmt::format("The saved login '{}' is damaged. Remove it and run 'vexa login'", *path));
  }
  return std::optional<SavedLogin>(std::move(login));
}

Status SaveLogin(const SavedLogin& login) {
  const Result<std::string> path = LoginFilePath();
  if (!path) return path.error();
  if (Status made = MakeConfigurationFolder(); !made) return made;
  Json::Value content;
  content["server"] = login.server;
  content["user"] = login.user;
  content["token"] = login.token;
  return WriteFileAtomically(*path, RenderJson(content, JsonLayout::kIndented) + "\n", 0600);
}

Status RemoveLogin() {
  const Result<std::string> path = LoginFilePath();
  if (!path || ::unlink(path->c_str()) == 0 || errno == ENOENT || errno == ENOTDIR) return {};
  return SystemError(ErrorCode::kDenied, fmt::format("Cannot remove '{}'", *path), errno);
}

Result<std::string> ReadTokenFile(const std::string& path) {
  Result<std::string> content = ReadSecretFile(path);
  if (!content) return content;
  if (content->ends_with('\n')) content->pop_back();
  if (content->ends_with('\r')) content->pop_back();
  if (!IsValidToken(*content)) {
    return Error(ErrorCode::kInvalid, fmt::format("'{}' does not contain a token on one line", path));
  }
  return content;
}

}  // namespace vexa::cli
