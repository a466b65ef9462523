// Paths below an object of the dashboard.
#pragma once

#include <initializer_list>
#include <string>

#pragma GCC visibility push(default)

namespace VexaETCD {

// The key text that Dashboard::Get and Ls take for something below a key. Each part is encoded so that it can never
// become two.
class Path {
 public:
  Path(std::initializer_list<std::string> parts);
  operator std::string() const { return text_; }  // NOLINT(google-explicit-constructor): it is used as the key

 private:
  std::string text_;
};

}  // namespace VexaETCD

#pragma GCC visibility pop
