// Sends an image to the server.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

struct ImageUpload {
  std::string name;
  std::string file;    // on this machine
  std::string folder;  // one of the server's image folders; empty: the first
};

// Computes the digest of the file, sends what the server does not have of it, and prints the new image's id. Goes on
// after interruptions of half a minute; after longer ones, the same command continues where it ended.
ExitCode RunImageUpload(const GlobalOptions& global, const ImageUpload& upload);

}  // namespace vexa::cli
