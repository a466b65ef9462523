#include "host/daemon/listening_process.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <system_error>
#include <vector>

#include "host/base/account_name.h"

namespace vexa::daemon {
namespace {

namespace fs = std::filesystem;

// Calls `visit` with the number and the target of each open file of the process, until it returns true.
bool AnyOpenFile(const std::string& pid, const std::function<bool(const std::string& target)>& visit) {
  std::error_code failed;
  fs::directory_iterator entry("/proc/" + pid + "/fd", failed);
  for (const fs::directory_iterator end; !failed && entry != end; entry.increment(failed)) {
    std::error_code unreadable;
    const fs::path target = fs::read_symlink(entry->path(), unreadable);
    if (!unreadable && visit(target.string())) return true;
  }
  return false;
}

bool IsNumber(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

ListeningProcess OwnerOf(const std::string& inode) {
  const std::string wanted = "socket:[" + inode + "]";
  std::error_code failed;
  fs::directory_iterator entry("/proc", failed);
  for (const fs::directory_iterator end; !failed && entry != end; entry.increment(failed)) {
    const std::string pid = entry->path().filename();
    if (!IsNumber(pid) || !AnyOpenFile(pid, [&](const std::string& target) { return target == wanted; })) continue;
    ListeningProcess found;
    std::from_chars(pid.data(), pid.data() + pid.size(), found.pid);
    std::ifstream("/proc/" + pid + "/comm") >> found.name;
    return found;
  }
  return {};
}

std::vector<std::string> Words(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

std::optional<ListeningProcess> FindTcpListenerIn(const char* table, std::uint16_t port) {
  constexpr const char* kListening = "0A";
  const std::string end = fmt::format(":{:04X}", port);
  std::ifstream file(table);
  for (std::string line; std::getline(file, line);) {
    // number, local address, remote address, state, queues, timer, retransmissions, uid, timeout, inode
    const std::vector<std::string> words = Words(line);
    if (words.size() <= 9 || !words[1].ends_with(end) || words[3] != kListening) continue;
    ListeningProcess found = OwnerOf(words[9]);
    std::from_chars(words[7].data(), words[7].data() + words[7].size(), found.user);
    return found;
  }
  return std::nullopt;
}

}  // namespace

std::string ListeningProcess::Text() const {
  return pid == 0 ? fmt::format("a process of '{}'", NameOfAccount(user)) : fmt::format("process {} ({})", pid, name);
}

std::optional<ListeningProcess> FindTcpListener(std::uint16_t port) {
  const std::optional<ListeningProcess> found = FindTcpListenerIn("/proc/net/tcp", port);
  return found ? found : FindTcpListenerIn("/proc/net/tcp6", port);
}

std::optional<ListeningProcess> FindUnixListener(const std::string& path) {
  std::ifstream file("/proc/net/unix");
  for (std::string line; std::getline(file, line);) {
    // number, references, protocol, flags, type, state, inode, path; the flags of a listening socket
    const std::vector<std::string> words = Words(line);
    if (words.size() <= 7 || words[3] != "00010000" || !line.ends_with(" " + path)) continue;
    ListeningProcess found = OwnerOf(words[6]);
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) found.user = info.st_uid;
    return found;
  }
  return std::nullopt;
}

bool HasOpen(pid_t pid, const std::string& path) {
  std::error_code failed;
  const std::string wanted = fs::weakly_canonical(path, failed);
  return AnyOpenFile(std::to_string(pid), [&wanted](const std::string& target) { return target == wanted; });
}

}  // namespace vexa::daemon
