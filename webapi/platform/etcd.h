// Paths below an object of the dashboard.
#pragma once

#include <initializer_list>
#include <string>

#pragma GCC visibility push(default)

namespace VexaETCD {

// The key that Dashboard::Get and Ls take for a value below another key. Each part is encoded, so that a part can never
// be taken for two.
class Path {
 public:
  Path(std::initializer_list<std::string> parts);
  operator std::string() const { return text_; }  // NOLINT(google-explicit-constructor): passed as the `key` argument

 private:
  std::string text_;
};

}  // namespace VexaETCD

#pragma GCC visibility pop
