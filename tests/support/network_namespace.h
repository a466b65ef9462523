// Networks of a test program's own: it does not see the machine's, and nothing that a test creates is left behind.
#pragma once

#include <string>
#include <vector>

namespace vexa::test {

// Must be the first call in main(). Continues in a child process with network, mount and process namespaces of its own,
// where it is root: empty folders replace /run and those of libvirt, and everything ends with the program. It then
// returns only in that process. It also returns where the machine does not permit namespaces: see
// NamespaceUnavailableReason.
void EnterNetworkNamespace(char** argv);

// Why the program has no networks of its own: a sentence. Empty: it has them.
std::string NamespaceUnavailableReason();

// Runs the program with these arguments and returns its output. The test program ends when it fails.
std::string RunTool(const std::vector<std::string>& words);

// A network cable: `port` is the end in the host, switched on; the other end is elsewhere.
class Cable {
 public:
  explicit Cable(std::string port);
  ~Cable();
  Cable(const Cable&) = delete;
  Cable& operator=(const Cable&) = delete;

  void PullOut() const;
  void PlugIn() const;

 private:
  const std::string port_;
  const std::string other_end_;
};

}  // namespace vexa::test
