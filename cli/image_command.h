// vexa image: the ISO images for guests' drives.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

struct ImageAddOptions {
  std::string name;
  std::string file;  // on the server; a relative path is below the current folder
  std::string id;    // a UUID; empty: a new one
};

// Prints the id.
ExitCode RunImageAdd(const GlobalOptions& global, const ImageAddOptions& options);

// A table of id, name, size, whether the file is there, and path; with --json the server's list.
ExitCode RunImageList(const GlobalOptions& global);

// `image`: an id or a name.
ExitCode RunImageRemove(const GlobalOptions& global, const std::string& image);

}  // namespace vexa::cli
