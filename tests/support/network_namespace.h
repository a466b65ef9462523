// Networks of a test program's own: the machine's are not seen, and nothing is left of what a test makes.
#pragma once

#include <string>
#include <vector>

namespace vexa::test {

// To be called first of all by main(). Goes on in a process of its own with namespaces of networks, mounts and
// processes, where it is root: empty folders are in the place of /run and of libvirt's, and everything ends with the
// program. Never returns then, but in that process. Returns also where the machine permits no namespaces: see
// WhyNoNetworkNamespace.
void EnterNetworkNamespace(char** argv);

// Why the program has no networks of its own: a sentence. Empty: it has.
std::string WhyNoNetworkNamespace();

// Runs the program with these arguments. The test program ends when it fails. What it printed.
std::string RunTool(const std::vector<std::string>& words);

// A network cable: `port` is the end in the host, switched on, and the other end is somewhere else.
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
