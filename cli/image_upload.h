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

// A table of the uploads in progress; with --json the server's list.
ExitCode RunUploadList(const GlobalOptions& global);

// Removes an upload in progress. `upload`: its id, or the name of its image.
ExitCode RunUploadCancel(const GlobalOptions& global, const std::string& upload);

}  // namespace vexa::cli
