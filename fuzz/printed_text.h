// What a fuzzed part of a program prints.
#pragma once

#include <iostream>
#include <sstream>
#include <streambuf>
#include <string>

namespace vexa::fuzz {

// Captures what the program prints on both streams, from its construction to its end.
class PrintedText {
 public:
  PrintedText() : out_(std::cout.rdbuf(text_.rdbuf())), err_(std::cerr.rdbuf(text_.rdbuf())) {}
  ~PrintedText() {
    std::cout.rdbuf(out_);
    std::cerr.rdbuf(err_);
  }
  PrintedText(const PrintedText&) = delete;
  PrintedText& operator=(const PrintedText&) = delete;
  std::string text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* out_;
  std::streambuf* err_;
};

}  // namespace vexa::fuzz
